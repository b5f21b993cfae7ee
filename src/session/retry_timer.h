// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

namespace vela::session {

// Runs one task after a delay, on a thread of its own, unless cancelled or
// replaced first. Made for the rare retry while the bus is away, so a
// thread per wait is cheaper than a thread kept for it. Nobody waits for
// that thread: the task may release the timer's owner, and with it the timer.
//
// THREADING: any thread, the task's own included.
class RetryTimer {
 public:
  RetryTimer() = default;
  RetryTimer(const RetryTimer&) = delete;
  RetryTimer& operator=(const RetryTimer&) = delete;
  RetryTimer(RetryTimer&&) = delete;
  RetryTimer& operator=(RetryTimer&&) = delete;
  ~RetryTimer() { cancel(); }

  // Runs `task` after `delay`, in place of any task still waiting.
  void schedule(std::chrono::milliseconds delay, std::function<void()> task);

  // The waiting task, if any, never runs.
  void cancel();

 private:
  struct Wait {
    std::mutex mutex;
    std::condition_variable cancelled;
    bool isCancelled = false;  // guarded by mutex
  };

  std::mutex mutex_;
  std::shared_ptr<Wait> waiting_;  // guarded by mutex_
};

}  // namespace vela::session
