// SPDX-License-Identifier: MIT
#pragma once

// What a connection's handle, its thread and the callers waiting on it share.

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/bus/named_connection.h"
#include "protocol/schema.h"

namespace vela::bus {
namespace detail {

// Bumped in the child after every fork(): cheaper than asking getpid() on
// each call, and it tells a connection made before the fork from one made after.
extern std::atomic<unsigned> forkGeneration;  // NOLINT(*-avoid-non-const-global-variables)

// Starts counting; called before the first connection is made.
void countForks();

// A wait, from exit(), for a connection to have written what it was given.
struct ExitFlush {
  std::mutex mutex;
  std::condition_variable written;
  bool done = false;  // guarded by mutex

  void finish() {
    {
      std::lock_guard lock(mutex);
      done = true;
    }
    written.notify_all();
  }
};

inline constexpr std::string_view kErrorDisconnected = "org.freedesktop.DBus.Error.Disconnected";

// Handlers are the host's code; nothing they throw may unwind through sd-bus.
template <typename Fn, typename... Args>
void invokeGuarded(const Fn& fn, Args&&... args) noexcept {
  if (!fn) return;
  try {
    fn(std::forward<Args>(args)...);
  } catch (...) {  // NOLINT(bugprone-empty-catch): a host handler's exception must not end the connection's thread
  }
}

struct Subscription {
  std::string center;
  NotificationSink sink;
};

struct Request {
  const protocol::Member* member = nullptr;  // static storage: the protocol's member table
  VelaDictionary args;
  ReplyHandler onReply;
  FailureHandler onFailure;
  std::shared_ptr<const Reconnect> reconnect;
};

// A mutex that spins briefly before sleeping: the bus is held for a few
// microseconds at a time, often by a thread running on another CPU, and
// sleeping for that would cost more than the wait.
class BusMutex {
 public:
  BusMutex() {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ADAPTIVE_NP);
    pthread_mutex_init(&mutex_, &attr);
    pthread_mutexattr_destroy(&attr);
  }
  ~BusMutex() { pthread_mutex_destroy(&mutex_); }
  BusMutex(const BusMutex&) = delete;
  BusMutex& operator=(const BusMutex&) = delete;
  BusMutex(BusMutex&&) = delete;
  BusMutex& operator=(BusMutex&&) = delete;

  void lock() { pthread_mutex_lock(&mutex_); }
  void unlock() { pthread_mutex_unlock(&mutex_); }

 private:
  pthread_mutex_t mutex_{};
};

class Loop;

// The connection whose loop runs on this thread, if any: exit() called from
// one of its handlers must not wait for that very loop, and a synchronous
// call made there must not try to read the bus the loop is reading.
extern thread_local const NamedConnection::Core* loopOfThisThread;  // NOLINT(*-avoid-non-const-global-variables)

}  // namespace detail

// State shared between the handle, the connection's thread and callers that
// read their own reply. The handle may be destroyed on the connection's own
// thread (from inside a handler), so the thread keeps this alive on its own.
struct NamedConnection::Core {
  std::string service;
  BusKind bus = BusKind::kSystem;
  unsigned generation = detail::forkGeneration.load();
  int wakeFd = -1;        // wakes the connection's thread
  int readerWakeFd = -1;  // wakes the caller reading the bus, when its call fails early

  std::function<void()> interruptionHandler;  // set before resume
  std::function<void()> invalidationHandler;  // set before resume
  std::atomic<bool> defunct{false};           // an interruption or invalidation was reported

  mutable std::mutex mutex;
  std::vector<detail::Request> requests;                        // guarded by mutex
  std::vector<detail::Subscription> subscriptions;              // guarded by mutex; changes not yet applied
  std::vector<std::shared_ptr<detail::ExitFlush>> exitFlushes;  // guarded by mutex
  bool invalidateRequested = false;                             // guarded by mutex
  bool stopRequested = false;                                   // guarded by mutex

  // Held by whichever thread uses the sd-bus objects: the connection's thread
  // while it is not asleep, or a caller sending or reading its own reply.
  // Taken before `mutex` when both are needed.
  detail::BusMutex busMutex;
  detail::Loop* loop = nullptr;   // guarded by busMutex; set while the connection's thread runs
  bool callerReads = false;       // guarded by busMutex: a caller is reading the bus
  std::uint64_t readerTerms = 0;  // guarded by busMutex: how many times a caller began reading it
  bool loopWatchesBus = false;    // guarded by busMutex: the connection's thread sleeps on the bus too
  bool loopAwaitsReader = false;  // guarded by busMutex: it sleeps long, so the reading caller wakes it when done

  Core() = default;
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;
  Core(Core&&) = delete;
  Core& operator=(Core&&) = delete;
  ~Core() {
    if (wakeFd >= 0) ::close(wakeFd);
    if (readerWakeFd >= 0) ::close(readerWakeFd);
  }

  static void signalFd(int fd) {
    const std::uint64_t one = 1;
    // The counter only saturates after 2^64 wakes; a failed write leaves an
    // already pending wake-up in place.
    const ssize_t written = ::write(fd, &one, sizeof one);
    (void)written;
  }

  void wake() const { signalFd(wakeFd); }

  // Queues work for the loop and wakes it only when it may be asleep: the
  // loop empties both queues at once, so a non-empty one means a wake-up is
  // already on its way. The flags stay set once seen and tell nothing.
  template <typename Mutate>
  void post(Mutate&& mutate) {
    bool wasIdle = false;
    {
      std::lock_guard lock(mutex);
      wasIdle = requests.empty() && subscriptions.empty();
      mutate();
    }
    if (wasIdle) wake();
  }

  bool queueEmpty() const {
    std::lock_guard lock(mutex);
    return requests.empty() && subscriptions.empty() && !invalidateRequested && !stopRequested;
  }
};

}  // namespace vela::bus
