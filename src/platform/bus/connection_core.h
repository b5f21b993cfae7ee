// SPDX-License-Identifier: MIT
#pragma once

// What a connection's handle, its thread and the callers blocked on it share.
//
// Two locks, always taken in this order when both are needed:
//   busMutex  held by whoever touches the sd-bus objects (the connection's
//             thread, or a caller sending or reading its own reply); never
//             held while host code runs or while anyone sleeps;
//   mutex     guards the queues and who reads the bus; held only briefly.
// A waiter has a mutex of its own, taken last.

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/bus/doorbell.h"
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

// Handlers are the host's code; nothing they throw may unwind through sd-bus
// or end the connection's thread.
template <typename Fn, typename... Args>
void invokeGuarded(const Fn& fn, Args&&... args) noexcept {
  if (!fn) return;
  try {
    fn(std::forward<Args>(args)...);
  } catch (...) {  // NOLINT(bugprone-empty-catch): a host handler's exception must not end the connection's thread
  }
}

// One synchronous call's meeting point: its caller sleeps here, and whoever
// reads its answer leaves it here. "Answered" lives here and nowhere else.
class Waiter {
 public:
  using CallOutcome = NamedConnection::CallOutcome;

  // `sink` takes the reply's keys: the caller's, alive until it has the
  // outcome.
  explicit Waiter(DescribedKeySink& sink) : sink_(&sink) {}

  // A waiter for a call of this thread's: the one of its last call, made
  // ready again, when nobody else still holds that one (as the connection
  // does when its caller gave up before the answer came); else a new one.
  // Saves each call an allocation.
  static std::shared_ptr<Waiter> forCallOfThisThread(DescribedKeySink& sink);

  // Leaves the answer; false when the caller has already given up, in which
  // case the answer goes nowhere. The wake-up is the caller's alone.
  bool answer(CallOutcome outcome) {
    if (!settle(std::move(outcome))) return false;
    wake();
    return true;
  }

  // answer() without the wake-up, for a reader that wakes its followers
  // once it has let go of the bus: woken earlier, they would only wait for
  // the bus to send their next request.
  bool settle(CallOutcome outcome) {
    std::lock_guard lock(mutex_);
    if (state_ != State::kWaiting) return false;
    outcome_ = std::move(outcome);
    state_.store(State::kAnswered, std::memory_order_release);
    return true;
  }

  // settle() with the outcome `read(sink)` gives, reading a reply into the
  // caller's sink: under the lock, so that the caller cannot give up and
  // leave meanwhile. False when it already has; nothing is read then.
  template <typename Read>
  bool settleBy(const Read& read) {
    std::lock_guard lock(mutex_);
    if (state_ != State::kWaiting) return false;
    outcome_ = read(*sink_);
    state_.store(State::kAnswered, std::memory_order_release);
    return true;
  }

  void wake() { bell_.ring(); }

  // Hands this caller the bus to read, to be woken by wake(); false when it
  // has given up (the bus must go to someone else).
  bool handBus() {
    std::lock_guard lock(mutex_);
    if (state_ != State::kWaiting) return false;
    givenBus_ = true;
    return true;
  }

  enum class Woken { kAnswered, kGivenBus, kDeadline };

  // Sleeps until answered, handed the bus, or `deadline`. At the deadline
  // the caller gives up for good, unless the answer came first.
  Woken sleepUntil(std::chrono::steady_clock::time_point deadline) {
    for (;;) {
      std::uint32_t ticket = 0;
      {
        std::lock_guard lock(mutex_);
        // The bus first: one handed over must be passed on even if the
        // answer came too (when the bus closed).
        if (std::exchange(givenBus_, false)) return Woken::kGivenBus;
        if (state_ == State::kAnswered) return Woken::kAnswered;
        if (std::chrono::steady_clock::now() >= deadline) {
          state_ = State::kAbandoned;
          return Woken::kDeadline;
        }
        ticket = bell_.ticket();
      }
      bell_.sleep(ticket, deadline);
    }
  }

  // Asked after every message a reader dispatches, so without the lock.
  bool answered() const { return state_.load(std::memory_order_acquire) == State::kAnswered; }

  bool abandoned() const { return state_.load(std::memory_order_acquire) == State::kAbandoned; }

  // Gives up without sleeping (the caller reads, and its deadline passed):
  // the answer, if it came just in time, is kept.
  bool abandon() {
    // An answer is final: nothing to lock against then.
    if (answered()) return false;
    std::lock_guard lock(mutex_);
    if (state_ == State::kAnswered) return false;
    state_ = State::kAbandoned;
    return true;
  }

  // For the caller, once it has seen its answer or given up: nothing
  // writes the outcome any more, and seeing the answer (an acquire, or
  // under the lock) ordered its writing first.
  CallOutcome takeOutcome() { return std::move(outcome_); }

 private:
  enum class State { kWaiting, kAnswered, kAbandoned };

  // Made ready for another call, under mutex_ and once nobody else holds
  // this waiter. Everything another holder touched it through is mutex_,
  // state_ or the doorbell (a ring that comes late only ends a sleep early),
  // so its last touch cannot race with that, whether or not the holder's
  // release has been seen to complete.
  void reuseFor(DescribedKeySink& sink) {
    std::lock_guard lock(mutex_);
    sink_ = &sink;
    state_ = State::kWaiting;
    givenBus_ = false;
    outcome_ = {};
  }

  DescribedKeySink* sink_;  // guarded by mutex_
  mutable std::mutex mutex_;
  Doorbell bell_;
  // Changed under mutex_; atomic so that it can be asked without it.
  std::atomic<State> state_{State::kWaiting};
  bool givenBus_ = false;  // guarded by mutex_
  CallOutcome outcome_;    // written under mutex_, and only while kWaiting
};

// The callers a holder of the bus answered or handed the bus to, woken only
// once it has let go of the bus: woken earlier, they would at once wait for
// it to send their next request.
class Wakes {
 public:
  void add(std::shared_ptr<Waiter> waiter) { waiters_.push_back(std::move(waiter)); }
  // Takes over `list`, leaving it empty (with this list's storage).
  void takeFrom(std::vector<std::shared_ptr<Waiter>>& list) {
    if (waiters_.empty()) {
      waiters_.swap(list);
    } else {
      for (auto& waiter : list) waiters_.push_back(std::move(waiter));
      list.clear();
    }
  }
  // Wakes them all but `awake`, the caller that ran, which sleeps on
  // nothing.
  void run(const Waiter* awake = nullptr) {
    for (const auto& waiter : waiters_) {
      if (waiter.get() != awake) waiter->wake();
    }
    waiters_.clear();
  }

  // One per thread, so that its storage is reused call after call. Out of
  // line: inlined, g++ asks for the thread's storage again at every use.
  static Wakes& ofThisThread();

 private:
  std::vector<std::shared_ptr<Waiter>> waiters_;
};

struct Subscription {
  std::string center;
  NotificationSink sink;
};

// A request on its way: either a synchronous caller waits for it (`waiter`),
// or its handlers run on the connection's thread.
struct Request {
  const protocol::Member* member = nullptr;  // static storage: the protocol's member table
  VelaDictionary args;
  std::shared_ptr<Waiter> waiter;
  ReplyHandler onReply;
  FailureHandler onFailure;
  std::shared_ptr<const Reconnect> reconnect;
  // When a request with handlers stops waiting: past it, onFailure runs
  // with a time-out instead. None: it waits as long as the bus does.
  std::optional<std::chrono::steady_clock::time_point> deadline;

  // Whether the daemon is asked to answer.
  bool expectsReply() const { return waiter != nullptr || static_cast<bool>(onReply); }
};

// A mutex that spins briefly before sleeping: both of the connection's locks
// are held for a few microseconds at a time, often by a thread on another
// CPU, and sleeping for that would cost more than the wait. Callers wait
// for the bus with their deadline. Debug builds check the lock discipline.
class SpinningMutex {
 public:
  SpinningMutex() {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ADAPTIVE_NP);
    pthread_mutex_init(&mutex_, &attr);
    pthread_mutexattr_destroy(&attr);
  }
  ~SpinningMutex() { pthread_mutex_destroy(&mutex_); }
  SpinningMutex(const SpinningMutex&) = delete;
  SpinningMutex& operator=(const SpinningMutex&) = delete;
  SpinningMutex(SpinningMutex&&) = delete;
  SpinningMutex& operator=(SpinningMutex&&) = delete;

  void lock() {
    pthread_mutex_lock(&mutex_);
    noteOwner();
  }
  void unlock() {
    forgetOwner();
    pthread_mutex_unlock(&mutex_);
  }
  bool try_lock() {  // NOLINT(readability-identifier-naming): the Lockable interface
    if (pthread_mutex_trylock(&mutex_) != 0) return false;
    noteOwner();
    return true;
  }
  // Gives up at `deadline`: a caller's time limit is its own, whoever holds
  // the bus. pthread_mutex_timedlock takes a wall-clock time, which may jump;
  // waiting in short slices of it keeps the steady deadline within a slice.
  bool try_lock_until(std::chrono::steady_clock::time_point deadline) {  // NOLINT(readability-identifier-naming)
    constexpr std::chrono::milliseconds kSlice{20};
    for (;;) {
      if (pthread_mutex_trylock(&mutex_) == 0) break;
      const auto left = deadline - std::chrono::steady_clock::now();
      if (left <= std::chrono::steady_clock::duration::zero()) return false;
      const auto wait =
          std::chrono::duration_cast<std::chrono::nanoseconds>(std::min<std::chrono::nanoseconds>(left, kSlice));
      timespec at{};
      ::clock_gettime(CLOCK_REALTIME, &at);
      using Nanos = decltype(at.tv_nsec);
      constexpr Nanos kPerSecond = 1'000'000'000;
      const Nanos nanos = at.tv_nsec + static_cast<Nanos>(wait.count());
      at.tv_sec += nanos / kPerSecond;
      at.tv_nsec = nanos % kPerSecond;
      const int r = pthread_mutex_timedlock(&mutex_, &at);
      if (r == 0) break;
      if (r != ETIMEDOUT) return false;
    }
    noteOwner();
    return true;
  }

  // Debug builds: that the calling thread holds the lock.
  void assertHeld() const {
#ifndef NDEBUG
    assert(owner_.load(std::memory_order_relaxed) == std::this_thread::get_id());
#endif
  }

 private:
  void noteOwner() {
#ifndef NDEBUG
    owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
#endif
  }
  void forgetOwner() {
#ifndef NDEBUG
    owner_.store(std::thread::id(), std::memory_order_relaxed);
#endif
  }

  pthread_mutex_t mutex_{};
#ifndef NDEBUG
  std::atomic<std::thread::id> owner_{};
#endif
};

class Link;

// The connection whose loop runs on this thread, if any: exit() called from
// one of its handlers must not wait for that very loop, and a synchronous
// call made there must fail at once rather than wait for itself. Every
// synchronous call asks; initial-exec makes that one read rather than a call
// into the dynamic loader. The few bytes come out of the static TLS glibc
// keeps spare, so the library can still be loaded with dlopen().
extern constinit thread_local const NamedConnection::Core*
    loopOfThisThread  // NOLINT(*-avoid-non-const-global-variables)
    [[gnu::tls_model("initial-exec")]];

// Milliseconds for poll() or epoll_wait() until the earlier of an sd-bus
// time-out (absolute CLOCK_MONOTONIC microseconds; UINT64_MAX or nullopt for
// none) and `deadline`, from `now`; -1 for neither. Rounded up, so that a
// wake-up never comes before what it waits for.
int sleepTimeoutMs(std::optional<std::uint64_t> busTimeoutUsec,
                   std::optional<std::chrono::steady_clock::time_point> deadline,
                   std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now());

// Who reads the bus. Only one thread at a time may: it dispatches what
// arrives to everyone, so the others sleep without the bus.
enum class Reader : std::uint8_t { kNone, kLoop, kCaller };

}  // namespace detail

// State shared between the handle, the connection's thread and the callers
// blocked on it. The handle may be destroyed on the connection's own thread
// (from inside a handler), so the thread keeps this alive on its own.
struct NamedConnection::Core {
  // Set before resume(), then only read.
  std::weak_ptr<Core> self;  // for starting the connection's thread
  std::string service;
  BusKind bus = BusKind::kSystem;
  unsigned generation = detail::forkGeneration.load();
  int wakeFd = -1;        // wakes the connection's thread
  int readerWakeFd = -1;  // wakes the caller reading the bus, when the bus closes under it
  int epollFd = -1;       // what the connection's thread sleeps on: wakeFd, and the bus when armed
  std::function<void(Trouble)> interruptionHandler;
  std::function<void(Trouble)> invalidationHandler;

  std::atomic<bool> defunct{false};  // an interruption or invalidation was reported
  // The connection's thread starts when something first needs it: queued
  // work, host code to run, or the bus to watch while no caller reads it.
  // Synchronous callers send and read for themselves, so a process that
  // only makes those never starts it, and stays single-threaded.
  std::atomic<bool> resumed{false};
  std::atomic<bool> loopStarted{false};
  // Synchronous callers that gave up while their call was on the wire; the
  // next holder of the bus forgets those calls.
  std::atomic<unsigned> abandonedCalls{0};

  // The sd-bus side; set from the bus's first use until the connection's
  // thread ends.
  detail::SpinningMutex busMutex;
  detail::Link* link = nullptr;  // guarded by busMutex
  // Made and opened by whoever first needs the bus: the connection's thread,
  // or a synchronous caller when that thread has not started.
  std::unique_ptr<detail::Link> ownedLink;  // guarded by busMutex

  mutable detail::SpinningMutex mutex;
  std::vector<detail::Request> requests;                        // guarded by mutex
  std::vector<detail::Subscription> subscriptions;              // guarded by mutex; changes not yet applied
  std::vector<std::shared_ptr<detail::ExitFlush>> exitFlushes;  // guarded by mutex
  bool invalidateRequested = false;                             // guarded by mutex
  bool stopRequested = false;                                   // guarded by mutex
  bool loopEnded = false;                                       // guarded by mutex: the thread is gone
  detail::Reader reader = detail::Reader::kNone;                // guarded by mutex
  // Callers whose answer someone else reads for them, first come first.
  std::deque<std::shared_ptr<detail::Waiter>> waiting;  // guarded by mutex
  // Host code to run on the connection's thread, in order. Kept here rather
  // than with the bus so that the thread runs it without the bus lock, which
  // callers reading back to back might hold for long stretches.
  std::vector<std::function<void()>> deferred;  // guarded by mutex
  int armedBusFd = -1;                          // guarded by mutex: the bus fd in epollFd's set, if any
  std::uint32_t armedEvents = 0;                // guarded by mutex: what it is armed for (0: disarmed)

  Core() = default;
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;
  Core(Core&&) = delete;
  Core& operator=(Core&&) = delete;
  ~Core();

  // The link, opened on first use. Under busMutex.
  detail::Link& openLink();

  // Starts the connection's thread if the connection is resumed and the
  // thread is not running yet.
  void startLoop();

  static void signalFd(int fd) {
    const std::uint64_t one = 1;
    // The counter only saturates after 2^64 wakes; a failed write leaves an
    // already pending wake-up in place.
    const ssize_t written = ::write(fd, &one, sizeof one);
    (void)written;
  }

  static void consumeFd(int fd) {
    std::uint64_t count = 0;
    const ssize_t got = ::read(fd, &count, sizeof count);
    (void)got;
  }

  // Wakes the connection's thread, starting it first if need be.
  void wake() {
    startLoop();
    signalFd(wakeFd);
  }

  // Queues work for the connection's thread and wakes it when it may be
  // asleep: it empties both queues at once, so a non-empty one means a
  // wake-up is already on its way.
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

  // Queues host code for the connection's thread, waking it for the first.
  void defer(std::function<void()> task) {
    bool wasEmpty = false;
    {
      std::lock_guard lock(mutex);
      wasEmpty = deferred.empty();
      deferred.push_back(std::move(task));
    }
    if (wasEmpty) wake();
  }

  std::vector<std::function<void()>> takeDeferred() {
    std::lock_guard lock(mutex);
    return std::exchange(deferred, {});
  }

  // Whether the connection's thread has work that needs the bus: something
  // queued for it, or reading it because no caller does.
  bool loopNeedsBus() const {
    std::lock_guard lock(mutex);
    return hasQueuedWork() || reader == detail::Reader::kNone;
  }

  // Whether nothing waits for the connection's thread to send it.
  bool queueEmpty() const {
    std::lock_guard lock(mutex);
    return !hasQueuedWork();
  }

  // Marks the connection's thread as gone, and lets go of exit() waits that
  // came too late for it. The thread's last act on the connection.
  void endLoop() {
    std::vector<std::shared_ptr<detail::ExitFlush>> late;
    {
      std::lock_guard lock(mutex);
      loopEnded = true;
      late.swap(exitFlushes);
    }
    for (const auto& flush : late) flush->finish();
  }

  // Queues a wait of exit() for the connection's thread to write what it
  // holds; false when that thread is gone and there is nothing to wait for.
  bool queueExitFlush(const std::shared_ptr<detail::ExitFlush>& flush) {
    // Never started, it was given nothing to write: synchronous callers
    // write their own requests.
    if (!loopStarted.load()) return false;
    {
      std::lock_guard lock(mutex);
      if (loopEnded) return false;
      exitFlushes.push_back(flush);
    }
    wake();
    return true;
  }

  // Whether callers gave up on calls since the last time this was asked.
  // Asked by every reader each time round, so it writes only when one did.
  bool takeAbandoned() {
    return abandonedCalls.load(std::memory_order_relaxed) != 0 &&
           abandonedCalls.exchange(0, std::memory_order_relaxed) != 0;
  }

  // Whether this is the connection's own thread.
  bool onLoopThread() const { return detail::loopOfThisThread == this; }

  // Whether the connection's thread has work waiting for it. Under mutex.
  bool hasQueuedWork() const {
    return !requests.empty() || !subscriptions.empty() || !exitFlushes.empty() || invalidateRequested || stopRequested;
  }
};

}  // namespace vela::bus
