// SPDX-License-Identifier: MIT
#include <cstdint>
#include <cstdio>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include <vela/VelaGeoLocation.h>
#include <vela/VelaKithAccountInfo.h>
#include <vela/VelaLostModeInfo.h>

#include "record_samples.h"
#include "records/archive_io.h"

namespace {

using vela::records::archiveRecord;
using vela::records::unarchiveRecord;

std::string hexAddress(const void* p) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "0x%lx", static_cast<unsigned long>(reinterpret_cast<std::uintptr_t>(p)));
  return buf;
}

template <class Record>
VelaDictionary archiveOf(VelaDictionary entries) {
  entries.insert_or_assign("$class", VelaValue(Record::kClassName));
  return entries;
}

using vela::testing::expectSameKithAccount;
using vela::testing::fullKithAccount;

TEST(AKithAccountArchive, RoundTripsFullSparseAndOddRecords) {
  VelaKithAccountInfo sparse;  // nil fields must stay nil, and empty must stay empty
  sparse.setUsername("");
  sparse.setAppAuthTokenStatus(std::numeric_limits<std::int32_t>::min());
  VelaKithAccountInfo oddInfo;
  oddInfo.setAdditionalInfo(VelaArray{"a", VelaSet{{VelaDate{2}}}});
  for (const VelaKithAccountInfo& account : {fullKithAccount(), sparse, oddInfo, VelaKithAccountInfo()}) {
    const VelaDictionary archive = archiveRecord(account);
    auto decoded = unarchiveRecord<VelaKithAccountInfo>(archive);
    ASSERT_NE(decoded, nullptr) << account.description();
    expectSameKithAccount(*decoded, account);
  }
  // Key names and value types are what the daemon reads; a round trip alone cannot catch a misspelled key.
  const VelaDictionary fullArchive{{"$class", "VelaKithAccountInfo"},
                                   {"dsid", "1234567"},
                                   {"username", "ann@example.org"},
                                   {"appAuthToken", "app-token"},
                                   {"appAuthTokenStatus", -3},
                                   {"internalAuthToken", "internal-token"},
                                   {"additionalInfo", VelaDictionary{{"region", "eu"}}},
                                   {"velaServerHost", "kith.example.org"},
                                   {"velaServerProtocolScheme", "https"},
                                   {"velaRelayEnvironment", "production"}};
  EXPECT_EQ(archiveRecord(fullKithAccount()), fullArchive);
  EXPECT_EQ(archiveRecord(sparse),
            (VelaDictionary{{"$class", "VelaKithAccountInfo"}, {"username", ""}, {"appAuthTokenStatus", INT32_MIN}}));
}

TEST(AKithAccountArchive, ReadsTheStatusFromAnyNumber) {
  const std::pair<VelaValue, std::int32_t> cases[] = {
      {VelaValue(-2.9), -2},
      {VelaValue(true), 1},
      {VelaValue((std::int64_t{1} << 32) + 5), 5},  // low 32 bits of a wider number
  };
  for (const auto& [number, status] : cases) {
    auto decoded =
        unarchiveRecord<VelaKithAccountInfo>(archiveOf<VelaKithAccountInfo>({{"appAuthTokenStatus", number}}));
    ASSERT_NE(decoded, nullptr) << number.description();
    EXPECT_EQ(decoded->appAuthTokenStatus(), status) << number.description();
  }
}

// A record must never come back half filled: one key of the wrong type
// refuses the whole record, wherever it sits in the archive order.
TEST(ARecordDecoder, RefusesTheWholeRecordForOneWronglyTypedKey) {
  const std::pair<const char*, VelaValue> kithFaults[] = {
      {"dsid", 1}, {"appAuthTokenStatus", "0"}, {"internalAuthToken", VelaData{}}, {"velaRelayEnvironment", true}};
  for (const auto& [key, bad] : kithFaults) {
    VelaDictionary archive = archiveRecord(fullKithAccount());
    archive.insert_or_assign(key, bad);
    std::string whyNot;
    EXPECT_EQ(unarchiveRecord<VelaKithAccountInfo>(archive, &whyNot), nullptr) << key;
    EXPECT_NE(whyNot.find(key), std::string::npos) << whyNot;
  }
  const std::pair<const char*, VelaValue> lostModeFaults[] = {{"lostModeEnabled", "yes"}, {"phoneNumber", 5}};
  for (const auto& [key, bad] : lostModeFaults) {
    EXPECT_EQ(unarchiveRecord<VelaLostModeInfo>(archiveOf<VelaLostModeInfo>({{key, bad}})), nullptr) << key;
  }
  const std::pair<const char*, VelaValue> geoFaults[] = {{"latitude", "48.5"}, {"timestamp", 1700000000.0}};
  for (const auto& [key, bad] : geoFaults) {
    EXPECT_EQ(unarchiveRecord<VelaGeoLocation>(archiveOf<VelaGeoLocation>({{"speed", 1.0}, {key, bad}})), nullptr)
        << key;
  }
}

TEST(ARecordDecoder, RefusesAnotherClassOrAValueThatIsNoArchive) {
  const VelaDictionary lostArchive = archiveRecord(VelaLostModeInfo());
  std::string whyNot;
  EXPECT_EQ(unarchiveRecord<VelaKithAccountInfo>(lostArchive, &whyNot), nullptr);
  EXPECT_NE(whyNot.find("VelaLostModeInfo"), std::string::npos) << whyNot;
  EXPECT_EQ(unarchiveRecord<VelaGeoLocation>(lostArchive), nullptr);
  whyNot.clear();
  EXPECT_EQ(unarchiveRecord<VelaLostModeInfo>(VelaValue(VelaArray{lostArchive}), &whyNot), nullptr);
  EXPECT_FALSE(whyNot.empty());
}

TEST(AKithAccountDescription, PrintsFieldsInOrderAndNeverATokensValue) {
  const VelaKithAccountInfo empty;
  EXPECT_EQ(empty.description(),
            "VelaKithAccountInfo(" + hexAddress(&empty) + ") (null),(null),(nil),0,(nil),(null),(null),(null),(null)");
  const VelaKithAccountInfo account = fullKithAccount();
  EXPECT_EQ(account.description(), "VelaKithAccountInfo(" + hexAddress(&account) +
                                       ") 1234567,ann@example.org,(not-nil),-3,(not-nil),kith.example.org,https,"
                                       "production," +
                                       account.additionalInfo()->description());
  VelaKithAccountInfo onlyInternal;
  onlyInternal.setInternalAuthToken("");
  EXPECT_NE(onlyInternal.description().find(") (null),(null),(nil),0,(not-nil),"), std::string::npos);
}

TEST(ALostModeRecord, RoundTripsReadsAnyNonZeroFlagAsOnAndPrintsTheFlagLast) {
  VelaLostModeInfo info;
  EXPECT_EQ(info.description(), "VelaLostModeInfo(" + hexAddress(&info) + ") (null),(null),0");
  info.setLostModeEnabled(true);
  info.setMessage("Lost, call");
  info.setPhoneNumber("555");
  EXPECT_EQ(info.description(), "VelaLostModeInfo(" + hexAddress(&info) + ") Lost, call,555,1");
  const VelaDictionary archive{
      {"$class", "VelaLostModeInfo"}, {"lostModeEnabled", true}, {"message", "Lost, call"}, {"phoneNumber", "555"}};
  EXPECT_EQ(archiveRecord(info), archive);
  auto decoded = unarchiveRecord<VelaLostModeInfo>(archive);
  ASSERT_NE(decoded, nullptr);
  EXPECT_TRUE(decoded->lostModeEnabled());
  EXPECT_EQ(decoded->message(), info.message());
  EXPECT_EQ(decoded->phoneNumber(), info.phoneNumber());

  const std::pair<VelaDictionary, bool> flags[] = {{{{"lostModeEnabled", 2}}, true},
                                                   {{{"lostModeEnabled", 0.5}}, true},
                                                   {{{"lostModeEnabled", 0}}, false},
                                                   {{}, false}};
  for (const auto& [entries, enabled] : flags) {
    auto d = unarchiveRecord<VelaLostModeInfo>(archiveOf<VelaLostModeInfo>(entries));
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->lostModeEnabled(), enabled) << VelaValue(entries).description();
    EXPECT_EQ(d->message(), std::nullopt);
  }
}

TEST(AGeoLocationArchive, RoundTripsExactValuesUnderItsEightKeys) {
  const GeoLocation places[] = {
      GeoLocation({48.5, -122.25}, 10, 5, 7, 90, 1.5, VelaDate{1700000000.125}),
      GeoLocation({-33.9, -0.0001}, -12, -1, -1, -1, -0.5, std::nullopt),
  };
  for (const GeoLocation& place : places) {
    auto location = VelaGeoLocation::initWithGeoLocation(&place);
    const VelaDictionary archive = archiveRecord(*location);
    auto decoded = unarchiveRecord<VelaGeoLocation>(archive);
    ASSERT_NE(decoded, nullptr);
    EXPECT_EQ(static_cast<const GeoLocation&>(*decoded), place);
  }
  const VelaDictionary expected{{"$class", "VelaGeoLocation"},
                                {"latitude", 48.5},
                                {"longitude", -122.25},
                                {"altitude", 10.0},
                                {"horizontalAccuracy", 5.0},
                                {"verticalAccuracy", 7.0},
                                {"course", 90.0},
                                {"speed", 1.5},
                                {"timestamp", VelaDate{1700000000.125}}};
  EXPECT_EQ(archiveRecord(*VelaGeoLocation::initWithGeoLocation(&places[0])), expected);
}

TEST(AGeoLocationArchive, ReadsMissingValuesAsZeroAndAcceptsIntegers) {
  auto decoded = unarchiveRecord<VelaGeoLocation>(archiveOf<VelaGeoLocation>({{"latitude", 48}, {"longitude", 2.5}}));
  ASSERT_NE(decoded, nullptr);
  EXPECT_EQ(static_cast<const GeoLocation&>(*decoded), GeoLocation({48.0, 2.5}, 0, 0, 0, 0, 0, std::nullopt));
  EXPECT_EQ(static_cast<const GeoLocation&>(*VelaGeoLocation::initWithGeoLocation(nullptr)), GeoLocation());
}

}  // namespace
