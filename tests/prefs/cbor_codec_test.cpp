// SPDX-License-Identifier: MIT
#include "platform/prefs/cbor_codec.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "prefs_test_support.h"

namespace vela::prefs {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes fromHex(std::string_view hex) {
  Bytes out;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
    out.push_back(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16));
  return out;
}

VelaValue nestedArrays(int depth) {
  VelaValue value = std::int64_t{1};
  for (int i = 0; i < depth; ++i) value = VelaArray{value};
  return value;
}

TEST(ACborCodec, RoundTripsEveryKindOfValue) {
  constexpr auto kMin = std::numeric_limits<std::int64_t>::min();
  constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
  // One line per kind of value.
  // clang-format off
  const std::vector<VelaValue> values = {
      "", "h\u00e9llo", std::string("nul\0inside", 10),
      0, 23, 24, 255, 256, 65536, 4294967296LL, kMax, -1, -24, -25, -256, -257, kMin,
      0.5, -1e308, std::numeric_limits<double>::infinity(), 1e-320,
      true, false,
      VelaDate{0}, VelaDate{1700000000.25}, VelaDate{-86400.5},
      VelaData{}, VelaData{0, 255, 10},
      VelaArray{}, VelaArray{1, "two", 3.0, false, VelaArray{VelaData{7}}},
      VelaDictionary{}, VelaDictionary{{"", 1}, {"inner", VelaDictionary{{"date", VelaDate{5}}, {"set", VelaSet{}}}}},
      VelaSet{{1, "a", VelaSet{{true}}}},
      VelaArray{VelaSet{{VelaDate{1}}}, VelaDictionary{{"list", VelaArray{VelaArray{}}}}},
  };
  // clang-format on
  for (const VelaValue& value : values) {
    const auto encoded = encodeValue(value);
    ASSERT_TRUE(encoded) << value.description();
    const auto decoded = decodeValue(*encoded);
    ASSERT_TRUE(decoded) << value.description();
    EXPECT_EQ(*decoded, value) << value.description();
    EXPECT_EQ(decoded->type(), value.type()) << value.description();
  }
  const auto nan = decodeValue(*encodeValue(std::nan("")));
  ASSERT_TRUE(nan && nan->getIf<double>());
  EXPECT_TRUE(std::isnan(*nan->getIf<double>()));
}

// Other processes and languages read the file, so the stored form is pinned.
TEST(ACborCodec, WritesTheDocumentedForm) {
  const std::vector<std::pair<VelaValue, std::string_view>> cases = {
      {true, "f5"},
      {false, "f4"},
      {1, "01"},
      {1000000, "1a000f4240"},
      {-1, "20"},
      {1.5, "fb3ff8000000000000"},
      {"a", "6161"},
      {VelaData{1}, "4101"},
      {VelaDate{0}, "c1fb0000000000000000"},
      {VelaSet{}, "d9010280"},
      {VelaArray{1}, "8101"},
      {VelaDictionary{{"a", 1}}, "a1616101"},
  };
  for (const auto& [value, hex] : cases) EXPECT_EQ(encodeValue(value), fromHex(hex)) << value.description();
}

TEST(ACborCodec, AcceptsEquivalentFormsOfOtherWriters) {
  const std::vector<std::pair<std::string_view, VelaValue>> cases = {
      {"f93c00", 1.0},                           // half float
      {"fa3fc00000", 1.5},                       // single float
      {"c11a5f5e1000", VelaDate{1600000000}},    // date as whole seconds
      {"7f61616162ff", "ab"},                    // chunked text
      {"5f4101ff", VelaData{1}},                 // chunked bytes
      {"9f01ff", VelaArray{1}},                  // indefinite array
      {"bf616101ff", VelaDictionary{{"a", 1}}},  // indefinite map
      {"1b0000000000000001", 1},                 // integer in a longer form than needed
      {"3b7fffffffffffffff", std::numeric_limits<std::int64_t>::min()},
  };
  for (const auto& [hex, value] : cases) EXPECT_EQ(decodeValue(fromHex(hex)), value) << hex;
}

TEST(ACborCodec, RefusesWhatIsNotAStoredValue) {
  const std::vector<std::pair<std::string_view, std::string_view>> cases = {
      {"", "nothing"},
      {"f6", "null"},
      {"f7", "undefined"},
      {"f0", "another simple value"},
      {"f8ff", "another simple value, long form"},
      {"c24101", "a tag without counterpart (bignum)"},
      {"c16161", "a date over text"},
      {"d90102a0", "a set over a map"},
      {"a10101", "a map key that is not text"},
      {"a2616101616102", "a repeated map key"},
      {"1b8000000000000000", "an integer above int64"},
      {"3b8000000000000000", "an integer below int64"},
      {"0101", "trailing bytes"},
      {"8201", "a truncated array"},
      {"fb00", "a truncated double"},
      {"ff", "a lone break"},
      {"1c", "a reserved length"},
      {"5f01ff", "an integer chunk in a byte string"},
      {"9a7fffffff", "a count no input could hold"},
  };
  for (const auto& [hex, what] : cases) EXPECT_EQ(decodeValue(fromHex(hex)), std::nullopt) << what;
}

TEST(ACborCodec, BoundsNestingInBothDirections) {
  EXPECT_TRUE(decodeValue(*encodeValue(nestedArrays(kMaxNestingDepth))));
  EXPECT_EQ(encodeValue(nestedArrays(kMaxNestingDepth + 1)), std::nullopt);
  EXPECT_EQ(encodeValue(VelaDictionary{{"k", nestedArrays(kMaxNestingDepth)}}), std::nullopt);

  Bytes tooDeep(kMaxNestingDepth + 1, 0x81);  // arrays of one member each
  tooDeep.push_back(0x01);
  EXPECT_EQ(decodeValue(tooDeep), std::nullopt);
  Bytes farTooDeep(1 << 20, 0x81);  // beyond libcbor's own stack as well
  farTooDeep.push_back(0x01);
  EXPECT_EQ(decodeValue(farTooDeep), std::nullopt);
}

// Whatever a damaged file holds, decoding ends in a value or nullopt; run
// under the sanitizers this catches reads past the end and leaks.
TEST(ACborCodec, SurvivesDamagedInput) {
  const VelaValue rich = VelaDictionary{{"a", VelaArray{1, -2, 2.5, "x", VelaData{1, 2}}},
                                        {"b", VelaSet{{VelaDate{3}, true}}},
                                        {"c", VelaDictionary{{"d", "e"}}}};
  const Bytes original = *encodeValue(rich);
  std::uint32_t seed = 12345;
  auto next = [&seed] { return seed = seed * 1664525u + 1013904223u; };
  for (int round = 0; round < 20000; ++round) {
    Bytes bytes = original;
    for (int edits = 1 + next() % 4; edits > 0; --edits) {
      const std::size_t at = next() % bytes.size();
      switch (next() % 3) {
        case 0:
          bytes[at] = static_cast<std::uint8_t>(next());
          break;
        case 1:
          bytes.resize(at + 1);
          break;
        default:
          bytes.insert(bytes.begin() + static_cast<std::ptrdiff_t>(at), static_cast<std::uint8_t>(next()));
      }
    }
    if (const auto decoded = decodeValue(bytes)) {
      EXPECT_TRUE(encodeValue(*decoded));
    }
  }
}

}  // namespace
}  // namespace vela::prefs
