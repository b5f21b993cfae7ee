// SPDX-License-Identifier: MIT
#pragma once

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
  char buf[2 + 2 * sizeof(std::uintptr_t)] = {'0', 'x'};
  auto [end, ec] = std::to_chars(buf + 2, buf + sizeof buf, reinterpret_cast<std::uintptr_t>(record), 16);
  return std::string(buf, ec == std::errc() ? end : buf + 2);
}

inline void appendField(std::string& out, const std::optional<std::string>& field) {
  out += field ? std::string_view(*field) : kNilText;
}

// Secrets never reach a description, only whether they are there.
inline void appendMasked(std::string& out, const std::optional<std::string>& secret) {
  out += secret ? "(not-nil)" : "(nil)";
}

}  // namespace vela::records
