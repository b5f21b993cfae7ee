// SPDX-License-Identifier: MIT
#include "protocol/typed_reader.h"

#include "protocol/int32.h"

namespace vela::protocol {

std::optional<std::string> TypedReader::string(std::string_view key) {
  const VelaValue* value = find(key);
  if (value == nullptr) return std::nullopt;
  if (const std::string* text = value->asString()) return *text;
  refuse(key, "a string");
  return std::nullopt;
}

std::optional<std::int32_t> TypedReader::int32(std::string_view key) {
  const VelaValue* value = find(key);
  if (value == nullptr) return std::nullopt;
  if (const auto* number = value->getIf<std::int64_t>()) {
    if (auto narrow = narrowToInt32(*number)) return narrow;
  }
  refuse(key, "a 32-bit integer");
  return std::nullopt;
}

std::optional<std::int64_t> TypedReader::integer(std::string_view key) {
  const VelaValue* value = find(key);
  if (value == nullptr) return std::nullopt;
  if (const auto* number = value->getIf<std::int64_t>()) return *number;
  refuse(key, "an integer");
  return std::nullopt;
}

const VelaDictionary* TypedReader::dictionary(std::string_view key) {
  const VelaValue* value = find(key);
  if (value == nullptr) return nullptr;
  if (const VelaDictionary* inner = value->asDictionary()) return inner;
  refuse(key, "a dictionary");
  return nullptr;
}

std::string refusedKey(std::string_view key, std::string_view why) {
  // Appended piece by piece: GCC 12 warns falsely about `"..." + std::string`
  // in an optimised build.
  std::string text = "\"";
  text.append(key).append("\" ").append(why);
  return text;
}

void TypedReader::refuse(std::string_view key, const std::string& expected) {
  if (!problem_) problem_ = refusedKey(key, "must be " + expected);
}

}  // namespace vela::protocol
