// SPDX-License-Identifier: MIT
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace vela::dispatch {

// A serial queue that only ever runs work synchronously: dispatchSync runs the
// closure on the calling thread, one caller at a time, which is exactly what
// a serial queue guarantees for synchronous work without a thread of its own.
class SerialQueue {
 public:
  explicit SerialQueue(std::string label) : label_(std::move(label)) {}

  template <typename Work>
  void dispatchSync(Work&& work) {
    std::lock_guard lock(mutex_);
    std::forward<Work>(work)();
  }

  // The queue's name, for diagnostics only.
  const std::string& label() const noexcept { return label_; }

 private:
  std::mutex mutex_;
  std::string label_;
};

}  // namespace vela::dispatch
