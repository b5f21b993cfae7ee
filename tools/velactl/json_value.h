// SPDX-License-Identifier: MIT
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include <vela/VelaError.h>
#include <vela/VelaValue.h>

namespace velactl {

// Property-list values as JSON. JSON has no date, data or set, so those are
// tagged objects: {"$date": seconds}, {"$data": "<base64>"}, {"$set": [...]}.
nlohmann::json toJson(const VelaValue& value);
nlohmann::json toJson(const std::optional<VelaValue>& value);

// The inverse; nullopt (with `whyNot`) for JSON that has no property-list
// meaning, such as null inside a value.
std::optional<VelaValue> fromJson(const nlohmann::json& json, std::string* whyNot);

// {"domain": ..., "code": ..., "failureReason": ... | null}, or null.
nlohmann::json errorToJson(const std::optional<VelaError>& error);

}  // namespace velactl
