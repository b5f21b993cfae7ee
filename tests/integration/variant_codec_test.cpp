// SPDX-License-Identifier: MIT
// Property-list values through real D-Bus messages: what they decode back to
// and how they are typed on the wire.
#include <array>
#include <cmath>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include "codec_probe.h"
#include "printers.h"
#include "private_bus.h"
#include "protocol/daemon_error.h"
#include "protocol/members.h"

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

std::vector<WireCase> wireCases() {
  return {
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
}

class AWireValue : public TheBusCodec, public ::testing::WithParamInterface<WireCase> {};

TEST_P(AWireValue, TravelsAsItsTypeAndComesBackEqual) {
  const VelaDictionary sent{{"v", GetParam().value}};
  const auto trip = probe_->roundTrip(sent);
  ASSERT_EQ(trip.encodeResult, 0);
  EXPECT_EQ(trip.wireTypes.at("v"), GetParam().signature);
  ASSERT_TRUE(trip.decoded) << trip.whyNot;
  EXPECT_EQ(*trip.decoded, sent);
}

INSTANTIATE_TEST_SUITE_P(EveryType, AWireValue, ::testing::ValuesIn(wireCases()),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(TheBusCodec, TypesDescribedThirtyTwoBitKeysAsInt32AtAnyDepth) {
  const std::array<protocol::Fields, 1> described{protocol::fields::kKithAccount};
  const VelaDictionary sent{
      {"account", VelaDictionary{{"$class", "VelaKithAccountInfo"},
                                 {"appAuthTokenStatus", -3},
                                 {"additionalInfo", VelaDictionary{{"appAuthTokenStatus", 4}}}}},
      {"context", 7},  // not a key of this member: the default mapping
  };
  const auto trip = probe_->roundTrip(sent, described);
  ASSERT_EQ(trip.encodeResult, 0);
  EXPECT_EQ(trip.wireTypes.at("account.appAuthTokenStatus"), "i");
  EXPECT_EQ(trip.wireTypes.at("account.additionalInfo.appAuthTokenStatus"), "x") << "free-form values keep x";
  EXPECT_EQ(trip.wireTypes.at("context"), "x");
  ASSERT_TRUE(trip.decoded);
  EXPECT_EQ(*trip.decoded, sent) << "decoding widens every integer type back";

  const std::array<protocol::Fields, 1> contextDescribed{protocol::fields::kContext};
  const auto tooWide = probe_->roundTrip({{"context", std::int64_t{1} << 40}}, contextDescribed);
  EXPECT_EQ(tooWide.wireTypes.at("context"), "x") << "a number that does not fit is sent whole, not cut";
}

// A newer daemon may add keys; a client must go on reading the keys it knows,
// whatever the new ones hold, and stay strict about its own.
TEST_F(TheBusCodec, ReadsOnlyDescribedKeysAndSkipsOthersWhateverTheirType) {
  const std::array<protocol::Fields, 2> reply{protocol::fields::kKithAccount,
                                              protocol::Fields(&protocol::kDaemonErrorField, 1)};
  const VelaDictionary account{{"$class", "VelaKithAccountInfo"}, {"username", "bob"}};
  // An object path, an unsigned number past the signed range and a struct of
  // no property-list shape, beside the record and inside it.
  auto build = [](sd_bus_message* m) {
    return sd_bus_message_append(m, "a{sv}", 4, "account", "a{sv}", 3, "$class", "s", "VelaKithAccountInfo", "username",
                                 "s", "bob", "newField", "o", "/new", "extra", "o", "/x", "big", "t",
                                 std::uint64_t{1} << 63, "pair", "(ss)", "a", "b");
  };
  const auto trip = probe_->decode(build, reply, /*onlyDescribed=*/true);
  ASSERT_TRUE(trip.decoded) << trip.whyNot;
  EXPECT_EQ(*trip.decoded, (VelaDictionary{{"account", account}}));

  const auto whole = probe_->decode(build, reply, /*onlyDescribed=*/false);
  EXPECT_FALSE(whole.decoded) << "reading everything stays strict";

  const auto wrongType = probe_->roundTrip({{"account", "not a record"}, {"unread", VelaArray{}}}, reply, true);
  ASSERT_TRUE(wrongType.decoded) << "the typed reader, not the codec, refuses the wrong type";
  EXPECT_EQ(wrongType.decoded->count("unread"), 0U);
}

// What a synchronous call's reply decoder is handed, key by key.
struct HandedKeys final : bus::DescribedKeySink {
  std::map<std::string, std::string> texts;  // strings handed bare
  VelaDictionary values;                     // everything else, as read
  void take(const protocol::Field& field, const char* text) override {
    texts.insert_or_assign(std::string(field.key), text);
  }
  void take(const protocol::Field& field, const VelaValue& value) override {
    values.insert_or_assign(std::string(field.key), value);
  }
};

// The same, as a synchronous call's reply is read: nothing undescribed
// reaches the decoder, whatever it holds, and a described key is handed
// over even of the wrong type, for the decoder to refuse.
TEST_F(TheBusCodec, HandsADecoderOnlyDescribedKeysAndSkipsOthersWhateverTheirType) {
  const std::array<protocol::Fields, 3> reply{protocol::fields::kAccountIdentity, protocol::fields::kKithAccount,
                                              protocol::Fields(&protocol::kDaemonErrorField, 1)};
  auto build = [](sd_bus_message* m) {
    return sd_bus_message_append(m, "a{sv}", 7, "username", "s", "bob", "personID", "i", 5, "account", "a{sv}", 2,
                                 "$class", "s", "VelaKithAccountInfo", "newField", "o", "/new", "$class", "s", "Top",
                                 "extra", "o", "/x", "big", "t", std::uint64_t{1} << 63, "pair", "(ss)", "a", "b");
  };
  HandedKeys handed;
  std::string whyNot;
  ASSERT_TRUE(probe_->decodeInto(build, reply, handed, &whyNot)) << whyNot;
  EXPECT_EQ(handed.texts, (std::map<std::string, std::string>{{"username", "bob"}}));
  EXPECT_EQ(handed.values,
            (VelaDictionary{{"personID", 5}, {"account", VelaDictionary{{"$class", "VelaKithAccountInfo"}}}}));

  // A described key of a type with no property-list meaning refuses the
  // whole reply.
  auto pathForAString = [](sd_bus_message* m) { return sd_bus_message_append(m, "a{sv}", 1, "personID", "o", "/p"); };
  HandedKeys refused;
  EXPECT_FALSE(probe_->decodeInto(pathForAString, reply, refused, &whyNot));
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
