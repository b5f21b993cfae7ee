// SPDX-License-Identifier: MIT
// Locating state: the asynchronous reads and the switches.
#include "protocol/locus_state.h"

#include <future>

#include "session_fixture.h"

namespace vela::testing {
namespace {

using namespace std::chrono_literals;
using ALocatingSession = ASessionWithVelad;

struct StateAnswer {
  std::int32_t state;
  std::optional<VelaError> error;
};

StateAnswer readState(VelaNotifySession& session) {
  std::promise<StateAnswer> answer;
  session.locusStateWithCompletion([&answer](std::int32_t state, std::optional<VelaError> error) {
    answer.set_value({state, std::move(error)});
  });
  auto future = answer.get_future();
  EXPECT_EQ(future.wait_for(5s), std::future_status::ready);
  return future.get();
}

std::pair<bool, std::optional<VelaError>> readInProgress(VelaNotifySession& session) {
  std::promise<std::pair<bool, std::optional<VelaError>>> answer;
  session.isLocusStateChangeInProgressWithCompletion([&answer](bool inProgress, std::optional<VelaError> error) {
    answer.set_value({inProgress, std::move(error)});
  });
  auto future = answer.get_future();
  EXPECT_EQ(future.wait_for(5s), std::future_status::ready);
  return future.get();
}

TEST_F(ALocatingSession, CountsOnlyOneAndTwoAsSettled) {
  for (const std::int32_t state : {0, 1, 2, 3, 4, 5, -1, INT32_MAX}) {
    answerWith(member::kGetLocusState.name, {{"state", state}});
    const auto [inProgress, error] = readInProgress(*session_);
    EXPECT_EQ(inProgress, !protocol::isSettledLocusState(state)) << "state " << state;
    EXPECT_FALSE(error);
  }
}

TEST_F(ALocatingSession, ReportsNoChangeInProgressAlongsideAnError) {
  for (const std::int32_t state : {0, 1, 3}) {
    answerWith(member::kGetLocusState.name, {{"state", state}}, VelaError("d", 9));
    const auto [inProgress, error] = readInProgress(*session_);
    EXPECT_FALSE(inProgress);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 9);
    // The raw read passes state and error on untouched.
    const auto raw = readState(*session_);
    EXPECT_EQ(raw.state, state);
    EXPECT_EQ(raw.error, error);
  }
}

TEST_F(ALocatingSession, HandsStateFourAndTheErrorToTheCompletionWhenTheDaemonIsGone) {
  velad_->kill(SIGKILL);
  ASSERT_TRUE(velad_->waitForExit());
  velaLastOperationResult = 77;
  const auto [state, error] = readState(*session_);
  EXPECT_EQ(state, protocol::kLocusStateUnknown);
  ASSERT_TRUE(error);
  EXPECT_NE(error->domain(), kVelaErrorDomain) << "the transport's own error is passed on";
  EXPECT_EQ(lastResult(), 0);
  EXPECT_FALSE(readInProgress(*session_).first);
}

TEST_F(ALocatingSession, StillSendsTheRequestWithoutACompletion) {
  ASSERT_TRUE(control_->clearCallLog());
  session_->locusStateWithCompletion(nullptr);
  ASSERT_TRUE(control_->waitForCall(member::kGetLocusState.name)) << control_->lastFailure();
}

TEST_F(ALocatingSession, MovesThroughAChangeBeforeSettling) {
  // A switch that settles only long after the test is over, so that reading
  // the state in between cannot race the settling.
  velad_.reset();
  velad_.emplace(std::vector<std::string>{"--locus-settle-ms=600000"});
  const auto before = readState(*session_);
  ASSERT_TRUE(protocol::isSettledLocusState(before.state));
  EXPECT_EQ(session_->enableLocusInContext(0), std::nullopt);
  EXPECT_EQ(lastResult(), 0);
  EXPECT_TRUE(readInProgress(*session_).first) << "velad passes through a changing state";
}

}  // namespace
}  // namespace vela::testing
