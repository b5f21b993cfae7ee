// SPDX-License-Identifier: MIT
#include "platform/prefs/coercion.h"

#include <array>
#include <charconv>
#include <string>
#include <string_view>

namespace vela::prefs {
namespace {

bool equalsIgnoringCase(std::string_view text, std::string_view lowerWord) {
  if (text.size() != lowerWord.size()) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c != lowerWord[i]) return false;
  }
  return true;
}

}  // namespace

std::optional<bool> coerceToBool(const VelaValue& value) {
  if (const auto* flag = value.getIf<bool>()) return *flag;
  if (const auto number = value.numberAsDouble()) return *number != 0.0;
  const std::string* text = value.asString();
  if (!text) return std::nullopt;
  static constexpr std::array<std::string_view, 3> kTrue = {"true", "yes", "1"};
  static constexpr std::array<std::string_view, 3> kFalse = {"false", "no", "0"};
  for (std::string_view word : kTrue) {
    if (equalsIgnoringCase(*text, word)) return true;
  }
  for (std::string_view word : kFalse) {
    if (equalsIgnoringCase(*text, word)) return false;
  }
  return std::nullopt;
}

std::optional<std::int64_t> coerceToInteger(const VelaValue& value) {
  if (value.isNumber()) return value.numberAsInteger();
  const std::string* text = value.asString();
  if (!text) return std::nullopt;
  std::string_view digits = *text;
  // from_chars takes a leading '-' but not '+'; drop a '+' only when a digit follows, so "+-1" stays invalid.
  if (digits.size() > 1 && digits[0] == '+' && digits[1] >= '0' && digits[1] <= '9') digits.remove_prefix(1);
  std::int64_t result = 0;
  const char* end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, result);
  if (error != std::errc() || stop != end) return std::nullopt;
  return result;
}

}  // namespace vela::prefs
