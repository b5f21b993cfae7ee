// SPDX-License-Identifier: MIT
#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include <vela/VelaError.h>
#include <vela/VelaValue.h>

namespace velactl {

// Property-list values as JSON. JSON has no date, data or set, so those are
// tagged objects: {"$date": seconds}, {"$data": "<base64>"}, {"$set": [...]}.
nlohmann::json toJson(const VelaValue& value);
nlohmann::json toJson(const std::optional<VelaValue>& value);

// A string, or null for nil.
nlohmann::json toJson(const std::optional<std::string>& value);

// The inverse; nullopt (with `whyNot`) for JSON that has no property-list
// meaning, such as null inside a value.
std::optional<VelaValue> fromJson(const nlohmann::json& json, std::string* whyNot);

// fromJson of JSON text, as a command line gives it; text that is not JSON
// is refused the same way.
std::optional<VelaValue> fromJsonText(const std::string& text, std::string* whyNot);

// {"domain": ..., "code": ..., "failureReason": ... | null}, or null.
nlohmann::json errorToJson(const std::optional<VelaError>& error);

}  // namespace velactl
