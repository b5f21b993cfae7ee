// SPDX-License-Identifier: MIT
#include <cmath>
#include <cstdint>
#include <limits>

#include <gtest/gtest.h>

#include <vela/VelaError.h>
#include <vela/VelaValue.h>

namespace {

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();

TEST(AValue, ConvertsOnlyNumbersAndSaturatesWildReals) {
  struct Case {
    VelaValue value;
    std::optional<std::int64_t> integer;
    std::optional<double> real;
  };
  const Case cases[] = {
      {VelaValue(-3.9), -3, -3.9},  // truncates toward zero
      {VelaValue(true), 1, 1.0},
      {VelaValue(9223372036854775808.0), kMax, 9223372036854775808.0},  // 2^63 no longer fits
      {VelaValue(-9223372036854775808.0), kMin, -9223372036854775808.0},
      {VelaValue(-std::numeric_limits<double>::infinity()), kMin, -std::numeric_limits<double>::infinity()},
      {VelaValue("12"), std::nullopt, std::nullopt},
      {VelaValue(VelaDate{5.0}), std::nullopt, std::nullopt},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.value.numberAsInteger(), c.integer) << c.value.description();
    EXPECT_EQ(c.value.numberAsDouble(), c.real) << c.value.description();
  }
  EXPECT_EQ(VelaValue(std::numeric_limits<double>::quiet_NaN()).numberAsInteger(), std::nullopt);
}

TEST(AValue, EqualsOnlyTheSameTypeAndContents) {
  const VelaValue values[] = {VelaValue(1),
                              VelaValue(1.0),
                              VelaValue(true),
                              VelaValue("1"),
                              VelaValue(VelaDate{1}),
                              VelaValue(VelaData{1}),
                              VelaValue(VelaArray{1}),
                              VelaValue(VelaDictionary{{"k", VelaArray{1, VelaDictionary{{"n", 2.5}}}}}),
                              VelaValue(VelaDictionary{{"k", VelaArray{1, VelaDictionary{{"n", 2.6}}}}}),
                              VelaValue(VelaSet{{1}})};
  for (std::size_t i = 0; i < std::size(values); ++i) {
    for (std::size_t j = 0; j < std::size(values); ++j) {
      EXPECT_EQ(values[i] == values[j], i == j) << values[i].description() << " vs " << values[j].description();
    }
  }
}

TEST(ASet, ComparesAsAMultisetIgnoringOrder) {
  struct Case {
    VelaSet a;
    VelaSet b;
    bool equal;
  };
  const Case cases[] = {
      {{{1, "a", 2.0}}, {{2.0, 1, "a"}}, true},
      {{{1, 2, 1}}, {{2, 1, 1}}, true},
      {{{1, 1, 2}}, {{1, 2, 2}}, false},  // duplicates count
      {{{1, 2}}, {{1, 2, 3}}, false},
      {{{1}}, {{true}}, false},
      {{{VelaSet{{1, 2}}, 3}}, {{3, VelaSet{{2, 1}}}}, true},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(VelaValue(c.a) == VelaValue(c.b), c.equal) << VelaValue(c.a).description();
    EXPECT_EQ(c.b == c.a, c.equal) << VelaValue(c.a).description();
  }
}

TEST(AValue, DescribesItselfUnambiguously) {
  const std::pair<VelaValue, const char*> cases[] = {
      {VelaValue("plain text"), "plain text"},
      {VelaValue(10.0), "10.0"},  // must not read like the integer 10
      {VelaValue(VelaDate{-0.5}), "1969-12-31T23:59:59.500Z"},
      {VelaValue(VelaData{0x00, 0xab}), "h'00ab'"},
      {VelaValue(VelaDictionary{{"z", 1}, {"a", VelaSet{{"q\"\n"}}}}), R"({"a": set["q\"\n"], "z": 1})"},
  };
  for (const auto& [value, text] : cases) EXPECT_EQ(value.description(), text);
}

TEST(AnError, ReadsItsFailureReasonOnlyWhenItIsAString) {
  EXPECT_EQ(VelaError("d", 106, {{"failureReason", "timed out"}}).failureReason(), "timed out");
  EXPECT_EQ(VelaError("d", 1, {{"failureReason", 5}}).failureReason(), std::nullopt);
  EXPECT_EQ(VelaError("d", 1).failureReason(), std::nullopt);
}

}  // namespace
