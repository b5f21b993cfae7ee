// SPDX-License-Identifier: MIT
#pragma once

#include <mutex>
#include <utility>

namespace vela::session {

// Lets a session's asynchronous completions start only while the session
// exists. Closing never waits for a completion that has already started:
// that completion may be waiting for a lock the closing thread holds.
class CompletionGate {
 public:
  // Runs `completion` unless the gate is closed. Thread: any.
  template <typename Completion>
  void run(Completion&& completion) {
    {
      std::lock_guard lock(mutex_);
      if (closed_) return;
    }
    std::forward<Completion>(completion)();
  }

  // No completion starts from now on. Thread: any, a completion's own included.
  void close() {
    std::lock_guard lock(mutex_);
    closed_ = true;
  }

 private:
  std::mutex mutex_;
  bool closed_ = false;  // guarded by mutex_
};

}  // namespace vela::session
