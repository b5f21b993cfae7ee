// SPDX-License-Identifier: MIT
#include <vela/VelaSemaphore.h>

void VelaSemaphore::signal() {
  {
    std::lock_guard lock(mutex_);
    ++count_;
  }
  wake_.notify_one();
}

bool VelaSemaphore::waitUntil(std::chrono::steady_clock::time_point deadline) {
  std::unique_lock lock(mutex_);
  if (!wake_.wait_until(lock, deadline, [this] { return count_ > 0; })) return false;
  --count_;
  return true;
}
