// SPDX-License-Identifier: MIT
// Records crossing the bus in both directions, through the published proxy.
#include "record_samples.h"
#include "records/archive_io.h"
#include "session_fixture.h"

namespace vela::testing {
namespace {

using ARecordOnTheWire = ASessionWithVelad;
namespace key = protocol::key;

// The shared sample with a non-dictionary extra: the record keeps whatever
// property list the daemon sends.
std::shared_ptr<VelaKithAccountInfo> fullAccount() {
  auto account = std::make_shared<VelaKithAccountInfo>(fullKithAccount());
  account->setAdditionalInfo(VelaValue(VelaArray{"not", "a", "dictionary", 1, true}));
  return account;
}

// Sends one request through a proxy and waits for its reply or its failure.
struct Exchange {
  std::shared_ptr<VelaSemaphore> done = VelaSemaphore::create();
  std::optional<VelaError> transportError;
  std::shared_ptr<VelaNotificationHandsetActions> proxy;

  explicit Exchange(const std::shared_ptr<VelaNotifySession>& session) {
    proxy = __VELA_LINK_OBJ(session, done, "test", [this](const VelaError& error) { transportError = error; });
  }
  // As long as a synchronous call built from the same blocks would wait.
  bool wait() { return done->waitUntil(std::chrono::steady_clock::now() + kReplyTimeLimit); }
};

TEST_F(ARecordOnTheWire, ReachesTheDaemonWithEveryField) {
  ASSERT_TRUE(control_->clearCallLog());
  auto sent = fullAccount();
  Exchange exchange(session_);
  exchange.proxy->addKithAccount(sent, [&](std::optional<VelaError>) { exchange.done->signal(); });
  ASSERT_TRUE(exchange.wait());

  const auto calls = callsTo(member::kAddKithAccount.name);
  ASSERT_EQ(calls.size(), 1U);
  const auto archived = calls[0].args.find(key::kAccount);
  ASSERT_NE(archived, calls[0].args.end());
  auto received = records::unarchiveRecord<VelaKithAccountInfo>(archived->second);
  ASSERT_TRUE(received);
  expectSameKithAccount(*received, *sent);
}

TEST_F(ARecordOnTheWire, ComesBackFromTheDaemonWithEveryFieldAndNilFields) {
  auto sparse = std::make_shared<VelaKithAccountInfo>();
  sparse->setUsername("bo");
  sparse->setAppAuthTokenStatus(-1);
  for (const auto& expected : {fullAccount(), sparse}) {
    answerWith(member::kRetrieveKithAccount.name, {{std::string(key::kAccount), records::archiveRecord(*expected)}});
    Exchange exchange(session_);
    std::shared_ptr<VelaKithAccountInfo> received;
    exchange.proxy->retrieveKithAccountUsingCallback([&](auto account, auto) {
      received = std::move(account);
      exchange.done->signal();
    });
    ASSERT_TRUE(exchange.wait());
    ASSERT_FALSE(exchange.transportError);
    ASSERT_TRUE(received);
    expectSameKithAccount(*received, *expected);
  }
}

TEST_F(ARecordOnTheWire, CarriesLocationsAndLostModeRecords) {
  ASSERT_TRUE(control_->clearCallLog());
  auto location = std::make_shared<VelaGeoLocation>(GeoCoordinate{48.5, -122.25}, 10, 5, -1, 90, 1.5, VelaDate{1.7e9});
  auto lostMode = std::make_shared<VelaLostModeInfo>();
  lostMode->setLostModeEnabled(true);
  lostMode->setMessage("Please call");
  Exchange exchange(session_);
  exchange.proxy->didEnterKithRegion("home", location, [&](auto) { exchange.done->signal(); });
  ASSERT_TRUE(exchange.wait());
  exchange.proxy->enableLostModeWithInfo(lostMode, [&](auto) { exchange.done->signal(); });
  ASSERT_TRUE(exchange.wait());

  const auto entered = callsTo(member::kDidEnterKithRegion.name);
  ASSERT_EQ(entered.size(), 1U);
  EXPECT_EQ(entered[0].args.at(std::string(key::kRegionIdentifier)), VelaValue("home"));
  auto receivedLocation = records::unarchiveRecord<VelaGeoLocation>(entered[0].args.at(std::string(key::kLocation)));
  ASSERT_TRUE(receivedLocation);
  EXPECT_EQ(static_cast<const GeoLocation&>(*receivedLocation), static_cast<const GeoLocation&>(*location));

  const auto enabled = callsTo(member::kEnableLostModeWithInfo.name);
  ASSERT_EQ(enabled.size(), 1U);
  auto receivedInfo = records::unarchiveRecord<VelaLostModeInfo>(enabled[0].args.at(std::string(key::kInfo)));
  ASSERT_TRUE(receivedInfo);
  EXPECT_TRUE(receivedInfo->lostModeEnabled());
  EXPECT_EQ(receivedInfo->message(), "Please call");
  EXPECT_EQ(receivedInfo->phoneNumber(), std::nullopt);
}

struct RefusedArchive {
  const char* name;
  VelaValue archive;
};

void PrintTo(const RefusedArchive& param, std::ostream* os) { *os << param.name; }

class ARefusedRecord : public ASessionWithVelad, public ::testing::WithParamInterface<RefusedArchive> {};

// Whatever the daemon sends in place of an account, the reply closure never
// sees a half-decoded record: the proxy's error handler runs instead.
TEST_P(ARefusedRecord, FailsTheWholeReplyWithoutACrash) {
  answerWith(member::kRetrieveKithAccount.name, {{std::string(key::kAccount), GetParam().archive}});
  Exchange exchange(session_);
  bool replied = false;
  exchange.proxy->retrieveKithAccountUsingCallback([&](auto, auto) {
    replied = true;
    exchange.done->signal();
  });
  ASSERT_TRUE(exchange.wait());
  EXPECT_FALSE(replied);
  ASSERT_TRUE(exchange.transportError);
}

INSTANTIATE_TEST_SUITE_P(
    WrongClassOrType, ARefusedRecord,
    ::testing::Values(RefusedArchive{"OtherClass", VelaDictionary{{"$class", "VelaLostModeInfo"}, {"message", "m"}}},
                      RefusedArchive{"NoClass", VelaDictionary{{"username", "u"}}},
                      RefusedArchive{"NumberForAString",
                                     VelaDictionary{{"$class", "VelaKithAccountInfo"}, {"dsid", 12}}},
                      RefusedArchive{"StringForTheStatus",
                                     VelaDictionary{{"$class", "VelaKithAccountInfo"}, {"appAuthTokenStatus", "ok"}}},
                      RefusedArchive{"NotADictionary", VelaValue("VelaKithAccountInfo")}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace vela::testing
