// SPDX-License-Identifier: MIT
#pragma once

#include <array>
#include <optional>
#include <string_view>

#include <vela/VelaError.h>
#include <vela/VelaValue.h>

#include "protocol/schema.h"

// The daemon's own error, as it travels inside a reply under "error":
// {"domain": s, "code": x, "userInfo": a{sv}}. No "error" key means success.
namespace vela::protocol {

inline constexpr std::string_view kErrorKey = "error";
inline constexpr std::string_view kErrorDomainKey = "domain";
inline constexpr std::string_view kErrorCodeKey = "code";
inline constexpr std::string_view kErrorUserInfoKey = "userInfo";

inline constexpr std::array kDaemonErrorFields = {
    Field{kErrorDomainKey, WireType::kString},
    Field{kErrorCodeKey, WireType::kInteger},
    Field{kErrorUserInfoKey, WireType::kPropertyList},
};
inline constexpr Shape kDaemonErrorShape{{}, kDaemonErrorFields};
// The key every reply may carry besides its member's own.
inline constexpr Field kDaemonErrorField{kErrorKey, WireType::kDictionary, &kDaemonErrorShape};

VelaDictionary encodeDaemonError(const VelaError& error);

// The error a reply carries as `value` under "error"; nullopt when it does
// not decode (not a dictionary, a missing domain or code, or a value of the
// wrong type). A missing user info is empty.
std::optional<VelaError> decodeDaemonError(const VelaValue& value);

}  // namespace vela::protocol
