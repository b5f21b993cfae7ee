// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <optional>

#include <vela/VelaValue.h>

namespace vela::prefs {

// How a stored value reads as a boolean: a boolean is itself, a number is true
// when non-zero, and the strings "true"/"yes"/"1" and "false"/"no"/"0" (any
// case) read as such. Anything else is not a valid boolean: nullopt.
std::optional<bool> coerceToBool(const VelaValue& value);

// How a stored value reads as an integer: an integer is itself, a real is
// truncated (saturating at the ends of the range; NaN is not valid), a boolean
// is 1 or 0, and a string that is wholly a decimal integer with an optional
// sign is that integer. Anything else, overflow included, is nullopt.
std::optional<std::int64_t> coerceToInteger(const VelaValue& value);

}  // namespace vela::prefs
