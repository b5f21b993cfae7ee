// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include <vela/VelaValue.h>

namespace vela::prefs {

// How deeply arrays, dictionaries and sets may nest inside a stored value.
// Preferences are shallow; the bound keeps both directions' recursion, and
// libcbor's own parse stack, far from their limits whatever a file holds.
inline constexpr int kMaxNestingDepth = 64;

// The stored form of a value, as CBOR: string = text string, integer =
// integer, real = float64, boolean = simple true/false, data = byte string,
// array = array, dictionary = map with text keys, date = tag 1 over float64
// epoch seconds, set = tag 258 over an array.
// Returns nullopt only for a value nested deeper than kMaxNestingDepth.
std::optional<std::vector<std::uint8_t>> encodeValue(const VelaValue& value);

// The value that `bytes` encode, which must be exactly one CBOR item of the
// forms above. Also accepted, because other writers may produce them: half and
// single floats as reals, tag 1 over an integer, indefinite-length strings and
// containers. Anything else (null, undefined, other simple values or tags,
// non-text or duplicate map keys, integers beyond 64-bit signed, trailing or
// missing bytes, nesting beyond kMaxNestingDepth) yields nullopt.
std::optional<VelaValue> decodeValue(std::span<const std::uint8_t> bytes);

}  // namespace vela::prefs
