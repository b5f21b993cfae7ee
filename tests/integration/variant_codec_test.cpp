// SPDX-License-Identifier: MIT
// Property-list values through real D-Bus messages: what they decode back to
// and how they are typed on the wire.
#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "platform/bus/codec_probe.h"
#include "printers.h"
#include "private_bus.h"
#include "session/handset_wire.h"

namespace vela::testing {
namespace {

class TheBusCodec : public ::testing::Test {
 protected:
  void SetUp() override {
    probe_ = bus::CodecProbe::open(bus::BusKind::kSystem);
    ASSERT_TRUE(probe_);
  }
  PrivateBus bus_;
  std::unique_ptr<bus::CodecProbe> probe_;
};

struct WireCase {
  const char* name;
  VelaValue value;
  const char* signature;
};

void PrintTo(const WireCase& c, std::ostream* os) { *os << c.name; }

const WireCase kWireCases[] = {
    {"String", "text", "s"},
    {"EmptyString", "", "s"},
    {"Integer", std::int64_t{-9'000'000'000}, "x"},
    {"Real", -0.5, "d"},
    {"Boolean", true, "b"},
    {"Date", VelaDate{1.7e9}, "(d)"},
    {"Data", VelaData{0, 1, 255}, "ay"},
    {"EmptyData", VelaData{}, "ay"},
    {"Array", VelaArray{1, "two", false}, "av"},
    {"Dictionary", VelaDictionary{{"k", VelaArray{}}, {"nested", VelaDictionary{{"x", 1.0}}}}, "a{sv}"},
    {"Set", VelaSet{{"a", "b"}}, "(av)"},
};

class AWireValue : public TheBusCodec, public ::testing::WithParamInterface<WireCase> {};

TEST_P(AWireValue, TravelsAsItsTypeAndComesBackEqual) {
  const VelaDictionary sent{{"v", GetParam().value}};
  const auto trip = probe_->roundTrip(sent);
  ASSERT_EQ(trip.encodeResult, 0);
  EXPECT_EQ(trip.wireTypes.at("v"), GetParam().signature);
  ASSERT_TRUE(trip.decoded) << trip.whyNot;
  EXPECT_EQ(*trip.decoded, sent);
}

INSTANTIATE_TEST_SUITE_P(EveryType, AWireValue, ::testing::ValuesIn(kWireCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(TheBusCodec, TypesTheContractsThirtyTwoBitKeysAsInt32AtAnyDepth) {
  const bus::WireHints hints{session::wire::kInt32Keys};
  const VelaDictionary sent{
      {"context", 7},
      {"other", 7},
      {"account", VelaDictionary{{"$class", "VelaKithAccountInfo"}, {"appAuthTokenStatus", -3}}},
      {"state", std::int64_t{1} << 40},  // does not fit: stays 64-bit rather than being cut
  };
  const auto trip = probe_->roundTrip(sent, hints);
  ASSERT_EQ(trip.encodeResult, 0);
  EXPECT_EQ(trip.wireTypes.at("context"), "i");
  EXPECT_EQ(trip.wireTypes.at("other"), "x");
  EXPECT_EQ(trip.wireTypes.at("state"), "x");
  ASSERT_TRUE(trip.decoded);
  EXPECT_EQ(*trip.decoded, sent) << "decoding widens every integer type back";
}

TEST_F(TheBusCodec, RefusesStringsThatDBusCannotCarry) {
  EXPECT_LT(probe_->roundTrip({{"v", std::string("a\0b", 3)}}).encodeResult, 0);
  EXPECT_LT(probe_->roundTrip({{std::string("k\0", 2), 1}}).encodeResult, 0);
  EXPECT_LT(probe_->roundTrip({{"v", std::string("\xff\xfe")}}).encodeResult, 0) << "not UTF-8";
}

TEST_F(TheBusCodec, KeepsExtremeNumbers) {
  const VelaDictionary sent{{"max", std::numeric_limits<std::int64_t>::max()},
                            {"min", std::numeric_limits<std::int64_t>::min()},
                            {"inf", std::numeric_limits<double>::infinity()}};
  const auto trip = probe_->roundTrip(sent);
  ASSERT_TRUE(trip.decoded);
  EXPECT_EQ(*trip.decoded, sent);
}

}  // namespace
}  // namespace vela::testing
