// SPDX-License-Identifier: MIT
#pragma once

#include <csignal>
#include <thread>

namespace velactl {

// Ends VelaMainThread::run() when SIGINT or SIGTERM arrives.
//
// The signals are blocked and taken by a thread of its own with sigwait(),
// so no handler runs and stop() is called from an ordinary thread. Blocking
// works only for threads started afterwards, which inherit the mask: make
// this before the library starts any (before the first session call). The
// signals stay blocked once it is gone, for the rest of the process.
class StopOnSignals {
 public:
  StopOnSignals();
  // Wakes the waiting thread if no signal came, and joins it.
  ~StopOnSignals();
  StopOnSignals(const StopOnSignals&) = delete;
  StopOnSignals& operator=(const StopOnSignals&) = delete;
  StopOnSignals(StopOnSignals&&) = delete;
  StopOnSignals& operator=(StopOnSignals&&) = delete;

 private:
  sigset_t signals_{};
  std::thread waiter_;
};

}  // namespace velactl
