// SPDX-License-Identifier: MIT
// Requests sent without waiting: push topics and the debug dump.
#include "session_fixture.h"

namespace vela::testing {
namespace {

using namespace std::chrono_literals;
using AFireAndForgetRequest = ASessionWithVelad;
namespace key = protocol::key;

TEST_F(AFireAndForgetRequest, ReachesTheDaemonWithItsArgumentUnchanged) {
  ASSERT_TRUE(control_->clearCallLog());
  velaLastOperationResult = 106;
  session_->startListeningOnTopic("");
  EXPECT_EQ(lastResult(), 0);
  session_->stopListeningOnTopic(std::nullopt);
  session_->dumpDebugInfo("all");
  // Requests leave in order on one connection, so the last one arriving
  // means the others did.
  ASSERT_TRUE(control_->waitForCall(member::kDumpDebugInfo.name)) << control_->lastFailure();

  const auto started = callsTo(member::kStartListeningOnTopic.name);
  ASSERT_EQ(started.size(), 1U);
  EXPECT_EQ(started[0].args, (VelaDictionary{{std::string(key::kTopic), ""}}));
  const auto stopped = callsTo(member::kStopListeningOnTopic.name);
  ASSERT_EQ(stopped.size(), 1U);
  EXPECT_TRUE(stopped[0].args.empty()) << "nil travels as an absent key";
  EXPECT_EQ(callsTo(member::kDumpDebugInfo.name)[0].args, (VelaDictionary{{std::string(key::kArgument), "all"}}));
}

TEST_F(AFireAndForgetRequest, ReturnsAtOnceAndSilentlyWhenTheDaemonIsGone) {
  velad_->kill(SIGKILL);
  ASSERT_TRUE(velad_->waitForExit());
  velaLastOperationResult = 106;
  const auto took = timed([&] {
    session_->startListeningOnTopic("news");
    session_->dumpDebugInfo(std::nullopt);
  });
  EXPECT_LT(took, 1s);
  EXPECT_EQ(lastResult(), 0);
}

TEST_F(AFireAndForgetRequest, DoesNotWaitForADaemonThatNeverAnswers) {
  behave(member::kStartListeningOnTopic.name, "never");
  const auto took = timed([&] { session_->startListeningOnTopic("news"); });
  EXPECT_LT(took, 1s);
  ASSERT_TRUE(control_->waitForCall(member::kStartListeningOnTopic.name)) << control_->lastFailure();
}

}  // namespace
}  // namespace vela::testing
