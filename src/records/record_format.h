// SPDX-License-Identifier: MIT
#pragma once

#include <array>
#include <bit>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vela::records {

// What a nil object field prints as in a description.
inline constexpr std::string_view kNilText = "(null)";

// "0x" followed by the record's address in lower-case hexadecimal: tells two
// records with equal fields apart in a log.
inline std::string addressText(const void* record) {
  std::array<char, 2 + 2 * sizeof(std::uintptr_t)> buf{'0', 'x'};
  char* const digits = buf.data() + 2;
  auto [end, ec] = std::to_chars(digits, buf.data() + buf.size(), std::bit_cast<std::uintptr_t>(record), 16);
  return {buf.data(), ec == std::errc() ? end : digits};
}

inline void appendField(std::string& out, const std::optional<std::string>& field) {
  out += field ? std::string_view{*field} : kNilText;
}

// Secrets never reach a description, only whether they are there.
inline void appendMasked(std::string& out, const std::optional<std::string>& secret) {
  out += secret ? "(not-nil)" : "(nil)";
}

}  // namespace vela::records
