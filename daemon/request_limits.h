// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include <vela/VelaValue.h>

// How much velad takes from its clients, so that none can make it keep, or
// log, without bound. A request over a limit is refused with
// VelaDaemonErrorCodeLimitExceeded (dropped and logged when it expects no
// reply).
namespace vela::daemon {

// Any one string or data value, at any depth of a request (keys included).
inline constexpr std::size_t kMaxValueBytes = 4096;
// All strings and data of one request together, records included.
inline constexpr std::size_t kMaxRequestBytes = std::size_t{64} * 1024;
// Topics one caller may listen on at once.
inline constexpr std::size_t kMaxTopicsPerCaller = 64;
// Friends regions the device may be inside at once.
inline constexpr std::size_t kMaxRegionsInside = 256;

// What in `request` is over a limit, or nullopt when nothing is.
std::optional<std::string> overLimit(const VelaDictionary& request);

}  // namespace vela::daemon
