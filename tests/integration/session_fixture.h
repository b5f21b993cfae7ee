// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include <gtest/gtest.h>

#include <vela/VelaNotification.h>

#include "printers.h"
#include "private_bus.h"
#include "protocol/members.h"
#include "protocol/time_limit.h"
#include "velad_control.h"

namespace vela::testing {

namespace member = protocol::member;

// Time bounds are stated in terms of the reply time limit, so that they keep
// their meaning should it change.
using protocol::kReplyTimeLimit;
// For what must end long before a caller waiting out the limit gives up.
inline constexpr std::chrono::milliseconds kWellWithinTheLimit = kReplyTimeLimit / 2;

// A private bus, a real velad in testing mode, a way to make velad misbehave,
// and a session. Every test runs in its own process, so the process-wide
// state of the library starts fresh each time.
class ASessionWithVelad : public ::testing::Test {
 protected:
  void SetUp() override {
    bus_.emplace();
    velad_.emplace();
    control_.emplace();
    ASSERT_TRUE(control_->connected()) << control_->lastFailure();
    session_ = VelaNotifySession::init();
  }

  void TearDown() override { session_.reset(); }

  // Makes `memberName` answer with exactly these reply keys (and the error,
  // if given).
  void answerWith(std::string_view memberName, VelaDictionary values, std::optional<VelaError> error = std::nullopt) {
    VeladControl::Behavior behavior{.mode = "values", .error = std::move(error), .values = std::move(values)};
    ASSERT_TRUE(control_->setBehavior(memberName, behavior)) << control_->lastFailure();
  }

  void behave(std::string_view memberName, std::string_view mode) {
    ASSERT_TRUE(control_->setBehavior(memberName, mode)) << control_->lastFailure();
  }

  std::vector<VeladControl::LoggedCall> callsTo(std::string_view memberName) {
    auto log = control_->callLog();
    EXPECT_TRUE(log) << control_->lastFailure();
    std::vector<VeladControl::LoggedCall> calls;
    if (log) {
      for (auto& call : *log) {
        if (call.member == memberName) calls.push_back(std::move(call));
      }
    }
    return calls;
  }

  static std::intptr_t lastResult() { return velaLastOperationResult.load(); }

  std::optional<PrivateBus> bus_;
  std::optional<VeladProcess> velad_;
  std::optional<VeladControl> control_;
  std::shared_ptr<VelaNotifySession> session_;
};

// Wall-clock time of `work`.
template <typename Work>
std::chrono::milliseconds timed(Work&& work) {
  const auto start = std::chrono::steady_clock::now();
  std::forward<Work>(work)();
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
}

// Runs the main loop until `done()` holds, or `limit` has passed (false
// then). Whatever makes `done()` true must also call VelaMainThread::stop(),
// which ends the wait at once.
template <typename Done>
bool runMainLoopUntil(const Done& done, std::chrono::milliseconds limit = kReplyTimeLimit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left <= std::chrono::milliseconds::zero()) return false;
    VelaMainThread::runFor(left);
  }
  return true;
}

// The library's own time-out, 106 "timed out".
inline void expectTimedOut(const std::optional<VelaError>& error) {
  ASSERT_TRUE(error.has_value());
  EXPECT_EQ(error->domain(), kVelaErrorDomain);
  EXPECT_EQ(error->code(), VelaErrorCodeTimedOut);
  EXPECT_EQ(error->failureReason(), "timed out");
}

}  // namespace vela::testing
