// SPDX-License-Identifier: MIT
// velad's Testing interface: every fault the client tests inject has to
// happen exactly as asked, or those tests prove nothing.
#include <chrono>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include <vela/VelaConstants.h>
#include <vela/VelaLostModeInfo.h>

#include "platform/bus/bus_names.h"
#include "protocol/names.h"
#include "records/archive_io.h"
#include "velad_fixture.h"

namespace vela::testing {
namespace {

using namespace std::chrono_literals;
using Behavior = VeladControl::Behavior;
using Clock = std::chrono::steady_clock;

constexpr ExitStatus kCleanExit{};

Behavior behavior(std::string mode) {
  return Behavior{std::move(mode), std::nullopt, std::nullopt, std::nullopt, std::nullopt};
}

TEST_F(AVelad, DelaysAnAnswerWithoutChangingIt) {
  const VelaDictionary prompt = reply("GetLocusDeviceId");
  Behavior delayed = behavior("delay");
  delayed.delay = 300ms;
  ASSERT_TRUE(control_->setBehavior("GetLocusDeviceId", delayed)) << control_->lastFailure();

  const auto start = Clock::now();
  const VelaDictionary late = reply("GetLocusDeviceId");
  EXPECT_GE(Clock::now() - start, 300ms);
  EXPECT_EQ(late, prompt);
}

TEST_F(AVelad, LeavesACallUnansweredForAsManyTimesAsAsked) {
  Behavior never = behavior("never");
  never.times = 1;
  ASSERT_TRUE(control_->setBehavior("GetStoreAccount", never)) << control_->lastFailure();

  EXPECT_TRUE(call("GetStoreAccount", {}, 300ms).failed());
  EXPECT_TRUE(reply("GetStoreAccount").contains("account"));
}

TEST_F(AVelad, AnswersWithTheChosenErrorAndNothingElse) {
  Behavior failing = behavior("error");
  failing.error = VelaError("test.domain", 42, {{"failureReason", "as asked"}});
  ASSERT_TRUE(control_->setBehavior("GetLocusAccount", failing)) << control_->lastFailure();

  const VelaDictionary expected{{"error", VelaDictionary{{"domain", "test.domain"},
                                                         {"code", 42},
                                                         {"userInfo", VelaDictionary{{"failureReason", "as asked"}}}}}};
  EXPECT_EQ(reply("GetLocusAccount"), expected);
}

TEST_F(AVelad, AnswersWithExactlyTheChosenValuesWrongTypesIncluded) {
  Behavior chosen = behavior("values");
  // personID of the wrong type, username nil (absent), plus an error.
  chosen.values = VelaDictionary{{"personID", 7}};
  chosen.error = VelaError("test.domain", 5);
  ASSERT_TRUE(control_->setBehavior("GetNimbusAccount", chosen)) << control_->lastFailure();

  const VelaDictionary expected{
      {"personID", 7},
      {"error", VelaDictionary{{"domain", "test.domain"}, {"code", 5}, {"userInfo", VelaDictionary{}}}}};
  EXPECT_EQ(reply("GetNimbusAccount"), expected);
}

TEST_F(AVelad, SendsAChosenStateAsA32BitInteger) {
  Behavior chosen = behavior("values");
  chosen.values = VelaDictionary{{"state", 5}};
  ASSERT_TRUE(control_->setBehavior("GetLocusState", chosen)) << control_->lastFailure();

  const bus::CallResult result = call("GetLocusState");
  ASSERT_TRUE(result.reply);
  EXPECT_EQ(*result.reply, (VelaDictionary{{"state", 5}}));
  EXPECT_EQ(result.replyTypes.at("state"), "i");
}

TEST_F(AVelad, AnswersWithAMalformedBodyWhenAsked) {
  ASSERT_TRUE(control_->setBehavior("RetrieveKithAccount", "malformed")) << control_->lastFailure();

  const bus::CallResult result = call("RetrieveKithAccount");
  EXPECT_FALSE(result.failed());
  EXPECT_EQ(result.signature, "s");
  EXPECT_FALSE(result.reply);
}

TEST_F(AVelad, ExitsInTheMiddleOfACallWhenAsked) {
  ASSERT_TRUE(control_->setBehavior("EnableLocusInContext", "exit")) << control_->lastFailure();

  EXPECT_TRUE(call("EnableLocusInContext", {{"context", 1}}).failed());
  EXPECT_EQ(velad_->waitForExit(), kCleanExit);
}

TEST_F(AVelad, AnswersNormallyAgainAfterAReset) {
  ASSERT_TRUE(control_->setBehavior("GetKithDeviceId", "malformed")) << control_->lastFailure();
  ASSERT_TRUE(control_->resetBehaviors()) << control_->lastFailure();

  EXPECT_TRUE(reply("GetKithDeviceId").contains("deviceId"));
}

TEST_F(AVelad, RefusesBehaviorsItCannotCarryOut) {
  EXPECT_FALSE(control_->setBehavior("NoSuchMember", "never"));
  EXPECT_FALSE(control_->setBehavior("GetLocusState", "sometimes"));
  EXPECT_FALSE(control_->setBehavior("GetLocusState", "error"));  // no error given
  EXPECT_FALSE(control_->setBehavior("GetLocusState", "delay"));  // no delay given
}

TEST_F(AVelad, LogsEachCallWithItsDecodedArgumentsAndSender) {
  reply("EnableLocusInContext", {{"context", 3}});
  reply("StartListeningOnTopic", {{"topic", ""}});

  const auto log = control_->callLog();
  ASSERT_TRUE(log) << control_->lastFailure();
  ASSERT_EQ(log->size(), 2U);
  EXPECT_EQ((*log)[0].member, "EnableLocusInContext");
  EXPECT_EQ((*log)[0].args, (VelaDictionary{{"context", 3}}));
  EXPECT_EQ((*log)[0].sender, client_->uniqueName());
  EXPECT_EQ((*log)[1].member, "StartListeningOnTopic");
  EXPECT_EQ((*log)[1].args, (VelaDictionary{{"topic", ""}}));

  ASSERT_TRUE(control_->clearCallLog()) << control_->lastFailure();
  const auto cleared = control_->callLog();
  ASSERT_TRUE(cleared);
  EXPECT_TRUE(cleared->empty());
}

TEST_F(AVelad, LetsATestWaitForACallItCouldNotWaitFor) {
  ASSERT_TRUE(control_->clearCallLog()) << control_->lastFailure();
  EXPECT_FALSE(control_->waitForCall("DumpDebugInfo", 200ms));

  ASSERT_NE(client_->sendWithoutReply(kHandsetActions, "DumpDebugInfo", {{"argument", "state"}}), 0U);
  EXPECT_TRUE(control_->waitForCall("DumpDebugInfo")) << control_->lastFailure();
}

TEST_F(AVelad, PostsAUnicastNotificationToItsDestinationAlone) {
  std::string whyNot;
  const auto bystander = bus::TestBusClient::open(bus::BusKind::kSystem, &whyNot);
  ASSERT_NE(bystander, nullptr) << whyNot;
  const std::string center(protocol::kClientNotifyCenter);
  ASSERT_EQ(client_->subscribeNotifications(center), 0);
  ASSERT_EQ(bystander->subscribeNotifications(center), 0);

  const VelaDictionary results{{"Results", VelaArray{"a@example.com"}}};
  ASSERT_TRUE(control_->postNotification(center, "vet.results.found", results, client_->uniqueName()))
      << control_->lastFailure();
  // velad emits in order, so a bystander that saw the unicast would see it
  // before this broadcast.
  ASSERT_TRUE(control_->postNotification(center, "marker")) << control_->lastFailure();

  const std::string velad = client_->nameOwner(protocol::kServiceName);
  const auto first = client_->waitNotification();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->name, "vet.results.found");
  EXPECT_EQ(first->userInfo, results);
  EXPECT_EQ(first->sender, velad);
  EXPECT_EQ(first->path, "/com/zentrex/VelaNotification/clientnotify");
  EXPECT_EQ(first->interface, center);
  const auto second = client_->waitNotification();
  ASSERT_TRUE(second);
  EXPECT_EQ(second->name, "marker");

  const auto seenByBystander = bystander->waitNotification();
  ASSERT_TRUE(seenByBystander);
  EXPECT_EQ(seenByBystander->name, "marker");
}

// Hosts follow lost mode and locating by listening: a velad that starts
// tells its state once, and each switch is announced to everyone.
TEST_F(AVelad, AnnouncesItsStateWhenItStartsAndLostModeWhenItSwitches) {
  std::string whyNot;
  const auto listener = bus::TestBusClient::open(bus::BusKind::kSystem, &whyNot);
  ASSERT_NE(listener, nullptr) << whyNot;
  ASSERT_EQ(listener->subscribeNotifications(protocol::kClientNotifyCenter), 0);
  const std::string before = listener->nameOwner(protocol::kServiceName);
  velad_->restart();
  const std::string velad = listener->nameOwner(protocol::kServiceName);
  // What the first velad said when it started may reach the listener too.
  const auto next = [&]() -> std::optional<bus::ReceivedNotification> {
    for (auto seen = listener->waitNotification(); seen; seen = listener->waitNotification()) {
      if (seen->sender != before) return seen;
    }
    return std::nullopt;
  };
  const std::string lostModeChanged(kLostModeChangedNotification);
  const VelaDictionary lostModeOff{{std::string(protocol::kLostModeEnabledKey), false}};

  auto seen = next();
  ASSERT_TRUE(seen);
  EXPECT_EQ(seen->name, std::string(kLocusStateDidChangeNotification));
  EXPECT_EQ(seen->userInfo, (VelaDictionary{{"state", reply("GetLocusState").at("state")}}));
  EXPECT_EQ(seen->sender, velad);
  seen = next();
  ASSERT_TRUE(seen);
  EXPECT_EQ(seen->name, lostModeChanged);
  EXPECT_EQ(seen->userInfo, lostModeOff);

  VelaLostModeInfo info;
  info.setMessage("Please call");
  reply("EnableLostModeWithInfo", {{"info", records::archiveRecord(info)}});
  seen = next();
  ASSERT_TRUE(seen);
  EXPECT_EQ(seen->name, lostModeChanged);
  EXPECT_EQ(seen->userInfo, (VelaDictionary{{std::string(protocol::kLostModeEnabledKey), true}}));
  EXPECT_EQ(seen->sender, velad);

  reply("DisableLostMode");
  seen = next();
  ASSERT_TRUE(seen);
  EXPECT_EQ(seen->userInfo, lostModeOff);
}

}  // namespace
}  // namespace vela::testing
