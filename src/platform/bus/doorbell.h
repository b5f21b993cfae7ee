// SPDX-License-Identifier: MIT
#pragma once

// A wake-up for a sleeping thread, straight on a futex.
//
// The sleeper takes a ticket while it checks, under its own lock, whatever
// it waits for, then sleeps on that ticket: a ring made since the ticket was
// taken ends the sleep or keeps it from starting. A condition variable
// would do the same, but glibc marks the mutex it takes back on waking as
// contended, so its next unlock costs one more system call for every
// caller that sleeps. A ring costs a system call only while someone sleeps.

#include <atomic>
#include <chrono>
#include <cstdint>

namespace vela::bus::detail {

class Doorbell {
 public:
  // Taken under the lock that guards what the sleeper checks; the ringer
  // rings after changing it under that lock.
  std::uint32_t ticket() const noexcept { return rings_.load(); }

  // Returns once rung after `ticket` was taken, at `deadline`, or early
  // when a signal interrupts it: the caller checks again either way.
  void sleep(std::uint32_t ticket, std::chrono::steady_clock::time_point deadline) noexcept;

  void ring() noexcept;

 private:
  // Both sequentially consistent: a ringer that sees no sleeper rang
  // before the sleeper's last look at `rings_`, which then sees the ring.
  std::atomic<std::uint32_t> rings_{0};
  std::atomic<std::uint32_t> sleepers_{0};
};

}  // namespace vela::bus::detail
