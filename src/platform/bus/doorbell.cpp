// SPDX-License-Identifier: MIT
#include "platform/bus/doorbell.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <ctime>

namespace vela::bus::detail {
namespace {

static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t),
              "the futex word is the atomic's own storage");

std::uint32_t* futexWord(std::atomic<std::uint32_t>& word) noexcept {
  return reinterpret_cast<std::uint32_t*>(&word);  // NOLINT(*-reinterpret-cast): the kernel's view of the same word
}

}  // namespace

[[gnu::hot]] void Doorbell::sleep(std::uint32_t ticket, std::chrono::steady_clock::time_point deadline) noexcept {
  using std::chrono::nanoseconds;
  // steady_clock is CLOCK_MONOTONIC, the clock FUTEX_WAIT_BITSET's absolute
  // time-out is read on; the deadline stays exact whatever the wall clock does.
  const auto sinceEpoch = std::chrono::duration_cast<nanoseconds>(deadline.time_since_epoch()).count();
  constexpr decltype(sinceEpoch) kPerSecond = 1'000'000'000;
  const timespec at{static_cast<time_t>(sinceEpoch / kPerSecond),
                    static_cast<decltype(timespec::tv_nsec)>(sinceEpoch % kPerSecond)};
  sleepers_.fetch_add(1);
  if (rings_.load() == ticket) {
    (void)::syscall(SYS_futex, futexWord(rings_), FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG, ticket, &at, nullptr,
                    FUTEX_BITSET_MATCH_ANY);
  }
  sleepers_.fetch_sub(1);
}

[[gnu::hot]] void Doorbell::ring() noexcept {
  rings_.fetch_add(1);
  if (sleepers_.load() != 0) (void)::syscall(SYS_futex, futexWord(rings_), FUTEX_WAKE | FUTEX_PRIVATE_FLAG, INT_MAX);
}

}  // namespace vela::bus::detail
