// SPDX-License-Identifier: MIT
#include "platform/bus/doorbell.h"

#include <chrono>
#include <latch>
#include <thread>

#include <gtest/gtest.h>

#include "protocol/time_limit.h"

namespace {

using vela::bus::detail::Doorbell;
using Clock = std::chrono::steady_clock;

// A ring lost between a sleeper's check and its sleep would hold a caller
// for its whole time limit, so the limit is the deadline here: anything
// close to it means the ring was missed.
constexpr auto kDeadline = vela::protocol::kReplyTimeLimit;
constexpr auto kPrompt = kDeadline / 5;

TEST(ADoorbell, RungAfterTheTicketWasTakenKeepsTheSleepFromStarting) {
  Doorbell bell;
  const std::uint32_t ticket = bell.ticket();
  bell.ring();
  const Clock::time_point start = Clock::now();
  bell.sleep(ticket, start + kDeadline);
  EXPECT_LT(Clock::now() - start, kPrompt);
}

TEST(ADoorbell, WakesASleeperOnAnotherThreadWhicheverComesFirst) {
  for (int round = 0; round < 200; ++round) {
    Doorbell bell;
    std::latch ticketTaken(1);
    Clock::duration slept{};
    std::thread sleeper([&] {
      const std::uint32_t ticket = bell.ticket();
      ticketTaken.count_down();
      const Clock::time_point start = Clock::now();
      bell.sleep(ticket, start + kDeadline);
      slept = Clock::now() - start;
    });
    ticketTaken.wait();
    bell.ring();
    sleeper.join();
    ASSERT_LT(slept, kPrompt) << "round " << round;
  }
}

TEST(ADoorbell, NeverRungSleepsUntilTheDeadlineAndNoLonger) {
  Doorbell bell;
  constexpr auto kShort = std::chrono::milliseconds(50);
  const Clock::time_point deadline = Clock::now() + kShort;
  bell.sleep(bell.ticket(), deadline);
  const Clock::time_point woke = Clock::now();
  EXPECT_GE(woke, deadline);
  EXPECT_LT(woke - deadline, kPrompt);
}

TEST(ADoorbell, ADeadlineAlreadyPastReturnsAtOnce) {
  Doorbell bell;
  const Clock::time_point start = Clock::now();
  bell.sleep(bell.ticket(), start - std::chrono::seconds(1));
  bell.sleep(bell.ticket(), Clock::time_point{});
  EXPECT_LT(Clock::now() - start, kPrompt);
}

}  // namespace
