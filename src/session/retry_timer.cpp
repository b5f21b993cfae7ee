// SPDX-License-Identifier: MIT
#include "session/retry_timer.h"

#include <system_error>
#include <thread>
#include <utility>

namespace vela::session {

void RetryTimer::schedule(std::chrono::milliseconds delay, std::function<void()> task) {
  auto wait = std::make_shared<Wait>();
  cancel();
  {
    std::lock_guard lock(mutex_);
    waiting_ = wait;
  }
  try {
    std::thread([wait = std::move(wait), delay, task = std::move(task)] {
      {
        std::unique_lock lock(wait->mutex);
        if (wait->cancelled.wait_for(lock, delay, [&wait] { return wait->isCancelled; })) return;
      }
      task();
    }).detach();
  } catch (const std::system_error&) {  // NOLINT(bugprone-empty-catch): no thread, no retry; the next call reconnects
  }
}

void RetryTimer::cancel() {
  std::shared_ptr<Wait> wait;
  {
    std::lock_guard lock(mutex_);
    wait = std::exchange(waiting_, nullptr);
  }
  if (!wait) return;
  {
    std::lock_guard lock(wait->mutex);
    wait->isCancelled = true;
  }
  wait->cancelled.notify_all();
}

}  // namespace vela::session
