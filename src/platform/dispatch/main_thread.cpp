// SPDX-License-Identifier: MIT
#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include <vela/VelaMainThread.h>

namespace vela::dispatch {
namespace {

using Task = VelaMainThread::Task;
using Executor = VelaMainThread::Executor;
using Clock = std::chrono::steady_clock;

struct Waiting {
  std::uint64_t number;  // rising in queue order
  Task task;
};

// Every task waits in `queue`, whoever runs it. An executor is only handed a
// small closure that runs the queue's front tasks up to the one it was made
// for: the queue alone decides the order, so closures that reach the host
// loop out of order, or not at all, still run every task once and in order.
struct MainThreadState {
  std::mutex mutex;
  std::condition_variable wake;
  std::deque<Waiting> queue;                 // guarded by mutex
  std::uint64_t lastNumber = 0;              // guarded by mutex
  std::shared_ptr<const Executor> executor;  // guarded by mutex; null: the default loop
  std::uint64_t executorGeneration = 0;      // guarded by mutex; bumped by setExecutor
  bool stopRequested = false;                // guarded by mutex
};

MainThreadState& state() {
  // Never destroyed: tasks may be queued from other static destructors.
  static auto* const shared = [] {          // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)
    auto* created = new MainThreadState();  // NOLINT(cppcoreguidelines-owning-memory)
    // A thread of the parent that held the lock at fork() does not exist in
    // the child, which would then wait for it forever. Taking the lock around
    // fork() means the child starts with a queue in a consistent state.
    pthread_atfork([] { state().mutex.lock(); }, [] { state().mutex.unlock(); },
                   [] {
                     MainThreadState& s = state();
                     // The condition variable may still count waiting
                     // threads of the parent, which do not exist here, and
                     // POSIX leaves its use undefined then. Start from a
                     // fresh one (the old one owns no resources).
                     new (&s.wake) std::condition_variable();
                     s.mutex.unlock();
                   });
    return created;
  }();
  return *shared;
}

// Made while the library loads, before any thread of the host can race its
// first use against fork(): a child forked while another thread was still
// initialising it would wait forever for that initialisation to finish.
[[maybe_unused]] const bool kStateMadeAtLoad = (state(), true);  // NOLINT(cert-err58-cpp)

void runGuarded(const Task& task) {
  try {
    task();
  } catch (...) {  // NOLINT(bugprone-empty-catch): a failing task must not end the loop
  }
}

// Runs, on the executor's thread, the queue's front tasks numbered up to
// `through`, unless the executor it was handed to has been replaced since.
void runHandedOver(std::uint64_t generation, std::uint64_t through) {
  MainThreadState& s = state();
  for (;;) {
    Task task;
    {
      std::lock_guard lock(s.mutex);
      if (s.executorGeneration != generation || s.queue.empty() || s.queue.front().number > through) return;
      task = std::move(s.queue.front().task);
      s.queue.pop_front();
    }
    // Outside the lock: the task, and the destruction of what it captured,
    // may queue more tasks.
    runGuarded(task);
  }
}

void handOver(const Executor& executor, std::uint64_t generation, std::uint64_t through) {
  try {
    executor([generation, through] { runHandedOver(generation, through); });
  } catch (...) {  // NOLINT(bugprone-empty-catch): the task stays queued and runs with the next one
  }
}

// The default loop. True when stop() ended it, false when `deadline` passed.
bool runLoop(std::optional<Clock::time_point> deadline) {
  MainThreadState& s = state();
  std::unique_lock lock(s.mutex);
  for (;;) {
    if (s.stopRequested) {
      s.stopRequested = false;
      return true;
    }
    if (deadline && Clock::now() >= *deadline) return false;
    if (!s.executor && !s.queue.empty()) {
      Task task = std::move(s.queue.front().task);
      s.queue.pop_front();
      lock.unlock();
      runGuarded(task);
      task = nullptr;
      lock.lock();
      continue;
    }
    if (deadline) {
      s.wake.wait_until(lock, *deadline);
    } else {
      s.wake.wait(lock);
    }
  }
}

}  // namespace
}  // namespace vela::dispatch

using vela::dispatch::state;

void VelaMainThread::perform(Task task) {
  if (!task) return;
  auto& s = state();
  std::shared_ptr<const Executor> executor;
  std::uint64_t generation = 0;
  std::uint64_t number = 0;
  {
    std::lock_guard lock(s.mutex);
    number = ++s.lastNumber;
    s.queue.push_back({number, std::move(task)});
    executor = s.executor;
    generation = s.executorGeneration;
  }
  if (executor) {
    vela::dispatch::handOver(*executor, generation, number);
  } else {
    s.wake.notify_all();
  }
}

void VelaMainThread::setExecutor(Executor executor) {
  auto& s = state();
  auto next = executor ? std::make_shared<const Executor>(std::move(executor)) : nullptr;
  // The replaced executor is released after the lock: its destructor is the
  // host's code.
  std::shared_ptr<const Executor> previous;
  std::vector<std::uint64_t> waiting;
  std::uint64_t generation = 0;
  {
    std::lock_guard lock(s.mutex);
    previous = std::exchange(s.executor, next);
    generation = ++s.executorGeneration;
    if (next) {
      waiting.reserve(s.queue.size());
      for (const auto& entry : s.queue) waiting.push_back(entry.number);
    }
  }
  if (!next) {
    s.wake.notify_all();
    return;
  }
  for (const std::uint64_t number : waiting) vela::dispatch::handOver(*next, generation, number);
}

void VelaMainThread::run() { vela::dispatch::runLoop(std::nullopt); }

bool VelaMainThread::runFor(std::chrono::milliseconds timeout) {
  using vela::dispatch::Clock;
  const Clock::time_point now = Clock::now();
  // A time-out too long for the clock to represent is no time-out at all.
  if (timeout >= std::chrono::duration_cast<std::chrono::milliseconds>(Clock::time_point::max() - now)) {
    return vela::dispatch::runLoop(std::nullopt);
  }
  return vela::dispatch::runLoop(now + timeout);
}

void VelaMainThread::stop() {
  auto& s = state();
  {
    std::lock_guard lock(s.mutex);
    s.stopRequested = true;
  }
  s.wake.notify_all();
}
