// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <mutex>
#include <optional>

#include "session/retry_timer.h"

namespace vela::session {

// When a session that must keep listening tries the bus again after losing
// it: at once after a loss, then, while the bus cannot be opened, after
// 50 ms, doubling up to 2 s. A bus that restarts is heard again within
// moments; one that stays away costs a wake-up every 2 seconds. A bus lost
// again soon after an immediate retry counts as one that cannot be opened,
// so that a bus dropping every new connection is not retried in a loop.
class ReconnectSchedule {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds kFirstDelay{50};
  static constexpr std::chrono::milliseconds kLongestDelay{2000};

  // The bus dropped: a connection to it had been open.
  void afterBusLost(std::function<void()> reconnect) {
    {
      std::lock_guard lock(mutex_);
      const auto now = Clock::now();
      if (lastImmediate_ && now - *lastImmediate_ < kLongestDelay) {
        scheduleLocked(std::move(reconnect));
        return;
      }
      lastImmediate_ = now;
      delay_ = std::chrono::milliseconds::zero();
    }
    reconnect();
  }

  // The bus could not be opened.
  void afterBusUnavailable(std::function<void()> reconnect) {
    std::lock_guard lock(mutex_);
    scheduleLocked(std::move(reconnect));
  }

  // Nothing waits to reconnect any more.
  void cancel() { timer_.cancel(); }

 private:
  // Waits longer than last time, up to the longest delay. With mutex_ held.
  void scheduleLocked(std::function<void()> reconnect) {
    delay_ = std::clamp(delay_ * 2, kFirstDelay, kLongestDelay);
    timer_.schedule(delay_, std::move(reconnect));
  }

  std::mutex mutex_;
  std::chrono::milliseconds delay_{};               // guarded by mutex_: the last wait
  std::optional<Clock::time_point> lastImmediate_;  // guarded by mutex_: the last retry made at once
  RetryTimer timer_;
};

}  // namespace vela::session
