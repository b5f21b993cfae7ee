// SPDX-License-Identifier: MIT
// Entering and leaving friends regions: what velad receives, and that the
// caller never waits or sees a failure.
#include "records/archive_io.h"
#include "session_fixture.h"

namespace vela::testing {
namespace {

using namespace std::chrono_literals;
using ARegionEvent = ASessionWithVelad;
namespace key = protocol::key;

class Region final : public GeoRegion {
 public:
  explicit Region(std::optional<std::string> identifier) : identifier_(std::move(identifier)) {}
  std::optional<std::string> identifier() const override { return identifier_; }

 private:
  std::optional<std::string> identifier_;
};

// The location as velad decoded it from the logged request.
std::shared_ptr<VelaGeoLocation> loggedLocation(const VeladControl::LoggedCall& call) {
  const auto archived = call.args.find(key::kLocation);
  if (archived == call.args.end()) return nullptr;
  return records::unarchiveRecord<VelaGeoLocation>(archived->second);
}

const GeoLocation& asLocation(const VelaGeoLocation& record) { return record; }

TEST_F(ARegionEvent, ReachesVeladAsTheIdentifierAndTheSevenLocationValues) {
  ASSERT_TRUE(control_->clearCallLog());
  const Region home("home");
  const Region work("work");
  // A different value in every field, so that a swapped pair shows.
  const GeoLocation arrival(GeoCoordinate{48.5, -122.25}, 10, 5, 7, 90, 1.5, VelaDate{1.7e9});
  const GeoLocation departure(GeoCoordinate{-33.75, 151.125}, -2, -1, 0.5, 359.5, 0, std::nullopt);
  session_->didEnterKithRegion(&home, &arrival);
  session_->didExitKithRegion(&work, &departure);
  // One connection keeps the order: the exit arriving means the entry did.
  ASSERT_TRUE(control_->waitForCall(member::kDidExitKithRegion.name)) << control_->lastFailure();

  const auto entered = callsTo(member::kDidEnterKithRegion.name);
  ASSERT_EQ(entered.size(), 1U);
  EXPECT_EQ(entered[0].args.at(std::string(key::kRegionIdentifier)), VelaValue("home"));
  const auto enteredAt = loggedLocation(entered[0]);
  ASSERT_TRUE(enteredAt);
  EXPECT_EQ(asLocation(*enteredAt), arrival);

  const auto exited = callsTo(member::kDidExitKithRegion.name);
  ASSERT_EQ(exited.size(), 1U);
  EXPECT_EQ(exited[0].args.at(std::string(key::kRegionIdentifier)), VelaValue("work"));
  const auto exitedAt = loggedLocation(exited[0]);
  ASSERT_TRUE(exitedAt);
  EXPECT_EQ(asLocation(*exitedAt), departure);
}

TEST_F(ARegionEvent, SendsANilIdentifierAsNilAndANilLocationAsAnEmptyRecord) {
  ASSERT_TRUE(control_->clearCallLog());
  const Region unnamed(std::nullopt);
  session_->didEnterKithRegion(&unnamed, nullptr);
  session_->didExitKithRegion(nullptr, nullptr);
  ASSERT_TRUE(control_->waitForCall(member::kDidExitKithRegion.name)) << control_->lastFailure();

  const auto entered = callsTo(member::kDidEnterKithRegion.name);
  const auto exited = callsTo(member::kDidExitKithRegion.name);
  ASSERT_EQ(entered.size(), 1U);
  ASSERT_EQ(exited.size(), 1U);
  for (const auto& call : {entered[0], exited[0]}) {
    SCOPED_TRACE(call.member);
    EXPECT_FALSE(call.args.contains(std::string(key::kRegionIdentifier)));
    const auto location = loggedLocation(call);
    ASSERT_TRUE(location) << "a location is built even from none";
    EXPECT_EQ(asLocation(*location), GeoLocation());
  }
}

TEST_F(ARegionEvent, LeavesTheLastResultAtZeroAfterAFailedOperation) {
  const Region home("home");
  const GeoLocation here(GeoCoordinate{1, 2}, 0, 0, 0, 0, 0, std::nullopt);
  for (auto event : {&VelaNotifySession::didEnterKithRegion, &VelaNotifySession::didExitKithRegion}) {
    ASSERT_TRUE(session_->removeKithAccountWithUsername("nobody"));
    ASSERT_NE(lastResult(), 0);
    ((*session_).*event)(&home, &here);
    EXPECT_EQ(lastResult(), 0);
  }
  ASSERT_TRUE(control_->waitForCall(member::kDidExitKithRegion.name)) << control_->lastFailure();
}

TEST_F(ARegionEvent, ReturnsPromptlyAndSilentlyWithNoDaemon) {
  velad_->kill(SIGKILL);
  ASSERT_TRUE(velad_->waitForExit());
  const Region home("home");
  const GeoLocation here(GeoCoordinate{1, 2}, 3, 4, 5, 6, 7, VelaDate{1});
  velaLastOperationResult = VelaErrorCodeTimedOut;
  const auto took = timed([&] {
    session_->didEnterKithRegion(&home, &here);
    session_->didExitKithRegion(&home, &here);
  });
  EXPECT_LT(took, 1s);
  EXPECT_EQ(lastResult(), 0);
}

}  // namespace
}  // namespace vela::testing
