// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include <vela/VelaExport.h>

// A counting semaphore with a timed wait, shared by reference count so that a
// closure that outlives its caller (a late reply) can still signal it safely.
// Thread: any.
class VELA_EXPORT VelaSemaphore {
 public:
  static std::shared_ptr<VelaSemaphore> create(std::int64_t initialCount = 0) {
    // One allocation for the semaphore and its reference count.
    struct Made : VelaSemaphore {
      explicit Made(std::int64_t count) : VelaSemaphore(count) {}
    };
    return std::make_shared<Made>(initialCount);
  }

  // Adds one to the count and wakes one waiter.
  void signal();

  // Waits until the count is positive and takes one, or until the deadline.
  // Returns true when a signal was taken, false when the deadline passed.
  [[nodiscard]] bool waitUntil(std::chrono::steady_clock::time_point deadline);

 private:
  explicit VelaSemaphore(std::int64_t count) : count_(count) {}

  std::mutex mutex_;
  std::condition_variable wake_;
  std::int64_t count_;  // guarded by mutex_
};
