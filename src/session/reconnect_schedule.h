// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <mutex>

#include "session/retry_timer.h"

namespace vela::session {

// When a session that must keep listening tries the bus again after losing
// it: at once after a loss, then, while the bus cannot be opened, after
// 50 ms, doubling up to 2 s. A bus that restarts is heard again within
// moments; one that stays away costs a wake-up every 2 seconds.
class ReconnectSchedule {
 public:
  static constexpr std::chrono::milliseconds kFirstDelay{50};
  static constexpr std::chrono::milliseconds kLongestDelay{2000};

  // The bus dropped: a connection to it had been open.
  void afterBusLost(std::function<void()> reconnect) {
    {
      std::lock_guard lock(mutex_);
      delay_ = std::chrono::milliseconds::zero();
    }
    reconnect();
  }

  // The bus could not be opened.
  void afterBusUnavailable(std::function<void()> reconnect) {
    std::chrono::milliseconds delay{};
    {
      std::lock_guard lock(mutex_);
      delay_ = std::clamp(delay_ * 2, kFirstDelay, kLongestDelay);
      delay = delay_;
    }
    timer_.schedule(delay, std::move(reconnect));
  }

  // Nothing waits to reconnect any more.
  void cancel() { timer_.cancel(); }

 private:
  std::mutex mutex_;
  std::chrono::milliseconds delay_{};  // guarded by mutex_: the last wait
  RetryTimer timer_;
};

}  // namespace vela::session
