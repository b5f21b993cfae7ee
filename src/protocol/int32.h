// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <limits>
#include <optional>

namespace vela::protocol {

// The value as a 32-bit integer, or nullopt when it does not fit: the
// contract's 32-bit numbers are checked, never truncated.
constexpr std::optional<std::int32_t> narrowToInt32(std::int64_t value) {
  if (value < std::numeric_limits<std::int32_t>::min() || value > std::numeric_limits<std::int32_t>::max()) {
    return std::nullopt;
  }
  return static_cast<std::int32_t>(value);
}

}  // namespace vela::protocol
