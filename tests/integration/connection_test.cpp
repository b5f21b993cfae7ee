// SPDX-License-Identifier: MIT
// The session's connection across daemon and bus failures.
#include <csignal>
#include <future>
#include <thread>

#include "session_fixture.h"

namespace vela::testing {
namespace {

using namespace std::chrono_literals;
using AConnectionToVelad = ASessionWithVelad;

TEST_F(AConnectionToVelad, ReconnectsAfterTheDaemonIsKilledAndRestartedBetweenCalls) {
  ASSERT_TRUE(session_->locusDeviceId());

  velad_->kill(SIGKILL);
  ASSERT_TRUE(velad_->waitForExit());
  velad_->restart();

  EXPECT_TRUE(session_->locusDeviceId());
  EXPECT_EQ(lastResult(), 0);
}

TEST_F(AConnectionToVelad, ReportsAnAbsentServicePromptly) {
  ASSERT_TRUE(session_->locusDeviceId());
  velad_->kill(SIGKILL);
  ASSERT_TRUE(velad_->waitForExit());

  std::optional<VelaError> error;
  const auto took = timed([&] { error = session_->enableLocusInContext(1); });
  expectTimedOut(error);
  EXPECT_EQ(lastResult(), VelaErrorCodeTimedOut);
  EXPECT_LT(took, 2s) << "an absent service must not wait out the time limit";

  velad_->restart();
  EXPECT_TRUE(session_->locusDeviceId());
  EXPECT_EQ(lastResult(), 0);
}

TEST_F(AConnectionToVelad, EndsACallPromptlyWhenTheDaemonDiesDuringIt) {
  behave(member::kGetLocusDeviceId, "exit");

  std::optional<std::string> id;
  const auto took = timed([&] { id = session_->locusDeviceId(); });
  EXPECT_FALSE(id);
  EXPECT_EQ(lastResult(), VelaErrorCodeTimedOut);
  EXPECT_LT(took, 2s);
  ASSERT_TRUE(velad_->waitForExit());

  velad_->restart();
  EXPECT_TRUE(session_->locusDeviceId());
  EXPECT_EQ(lastResult(), 0);
}

TEST_F(AConnectionToVelad, ReconnectsWhenTheDaemonIsKilledDuringACall) {
  // A call held by velad, then velad killed under it.
  behave(member::kGetKithDeviceId, "never");
  auto pending = std::async(std::launch::async, [this] { return session_->kithDeviceId(); });
  ASSERT_TRUE(control_->waitForCall(member::kGetKithDeviceId)) << control_->lastFailure();
  const auto killedAt = std::chrono::steady_clock::now();
  velad_->kill(SIGKILL);

  EXPECT_FALSE(pending.get());
  EXPECT_LT(std::chrono::steady_clock::now() - killedAt, 2s);
  ASSERT_TRUE(velad_->waitForExit());

  velad_->restart();
  EXPECT_TRUE(session_->kithDeviceId());
}

TEST_F(AConnectionToVelad, TimesOutAfterFiveSecondsWhenTheDaemonNeverAnswers) {
  behave(member::kEnableLocusInContext, "never");
  std::optional<VelaError> error;
  const auto took = timed([&] { error = session_->enableLocusInContext(3); });
  expectTimedOut(error);
  EXPECT_EQ(lastResult(), VelaErrorCodeTimedOut);
  EXPECT_GE(took, 4900ms);
  EXPECT_LT(took, 8s);
}

TEST_F(AConnectionToVelad, DropsAReplyThatArrivesAfterTheTimeLimit) {
  // The late reply lands while a second call is in flight; the slots it would
  // have filled belong to a call that is over.
  ASSERT_TRUE(control_->setBehavior(member::kGetLocusDeviceId, VeladControl::Behavior{.mode = "delay", .delay = 5500ms}));
  ASSERT_TRUE(control_->setBehavior(member::kGetKithDeviceId, VeladControl::Behavior{.mode = "delay", .delay = 1500ms}));

  EXPECT_FALSE(session_->locusDeviceId());
  EXPECT_EQ(lastResult(), VelaErrorCodeTimedOut);
  // velad answers in time order, so the late reply reaches us before this one.
  EXPECT_TRUE(session_->kithDeviceId());
  EXPECT_EQ(lastResult(), 0);
}

TEST_F(AConnectionToVelad, SurvivesTheBusGoingAwayAndWorksOnceItIsBack) {
  ASSERT_TRUE(session_->locusDeviceId());
  bus_->kill(SIGKILL);
  ASSERT_TRUE(velad_->waitForExit()) << "velad should leave when its bus goes";

  EXPECT_FALSE(session_->locusDeviceId());
  EXPECT_EQ(lastResult(), VelaErrorCodeTimedOut);

  bus_->restart();
  velad_->restart();
  EXPECT_TRUE(session_->locusDeviceId());
  EXPECT_EQ(lastResult(), 0);
}

TEST_F(AConnectionToVelad, ServesManyThreadsAtOnce) {
  const auto expectedLocus = session_->locusDeviceId();
  const auto expectedKith = session_->kithDeviceId();
  ASSERT_TRUE(expectedLocus && expectedKith);
  ASSERT_NE(expectedLocus, expectedKith);

  constexpr int kThreads = 16;
  constexpr int kCallsEach = 40;
  std::vector<std::future<int>> workers;
  for (int t = 0; t < kThreads; ++t) {
    workers.push_back(std::async(std::launch::async, [&, t] {
      int wrong = 0;
      for (int i = 0; i < kCallsEach; ++i) {
        const bool locus = (t + i) % 2 == 0;
        const auto id = locus ? session_->locusDeviceId() : session_->kithDeviceId();
        if (id != (locus ? expectedLocus : expectedKith)) ++wrong;
      }
      return wrong;
    }));
  }
  for (auto& worker : workers) EXPECT_EQ(worker.get(), 0);
}

TEST_F(AConnectionToVelad, FailsTheCallsOfADestroyedSessionWithoutTouchingIt) {
  behave(member::kGetLocusState, "never");
  std::promise<std::int32_t> answered;
  session_->locusStateWithCompletion(
      [&answered](std::int32_t state, const std::optional<VelaError>& /*error*/) { answered.set_value(state); });
  ASSERT_TRUE(control_->waitForCall(member::kGetLocusState)) << control_->lastFailure();

  // The last reference goes while the request is in flight: the completion
  // learns of the failure; nothing touches the freed session.
  session_.reset();
  auto state = answered.get_future();
  ASSERT_EQ(state.wait_for(5s), std::future_status::ready);
  EXPECT_EQ(state.get(), 4);
}

}  // namespace
}  // namespace vela::testing
