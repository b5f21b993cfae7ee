// SPDX-License-Identifier: MIT
#include "stop_on_signals.h"

#include <pthread.h>

#include <vela/VelaMainThread.h>

namespace velactl {

StopOnSignals::StopOnSignals() {
  sigemptyset(&signals_);
  sigaddset(&signals_, SIGINT);
  sigaddset(&signals_, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
  waiter_ = std::thread([this] {
    int received = 0;
    sigwait(&signals_, &received);
    // A stop() before the loop runs ends the loop as soon as it starts.
    VelaMainThread::stop();
  });
}

StopOnSignals::~StopOnSignals() {
  // Blocked everywhere and taken only by sigwait(), the signal wakes the
  // thread and terminates nothing. A thread that has already returned is
  // not sent anything.
  // NOLINTNEXTLINE(bugprone-bad-signal-to-kill-thread,cert-pos44-c)
  pthread_kill(waiter_.native_handle(), SIGTERM);
  waiter_.join();
}

}  // namespace velactl
