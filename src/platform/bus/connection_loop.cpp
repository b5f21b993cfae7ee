// SPDX-License-Identifier: MIT
#include "platform/bus/connection_loop.h"

#include <pthread.h>
#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <ctime>
#include <limits>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "platform/bus/bus_link.h"
#include "platform/bus/connection_core.h"
#include "platform/bus/reader_handoff.h"

namespace vela::bus::detail {

constinit thread_local const NamedConnection::Core* loopOfThisThread  // NOLINT(*-avoid-non-const-global-variables)
    [[gnu::tls_model("initial-exec")]] = nullptr;

[[gnu::hot]] Wakes& Wakes::ofThisThread() {
  thread_local Wakes wakes [[gnu::tls_model("initial-exec")]];
  return wakes;
}

[[gnu::hot]] std::shared_ptr<Waiter> Waiter::forCallOfThisThread(DescribedKeySink& sink) {
  thread_local std::shared_ptr<Waiter> last [[gnu::tls_model("initial-exec")]];
  if (last && last.use_count() == 1) {
    last->reuseFor(sink);
  } else {
    last = std::make_shared<Waiter>(sink);
  }
  return last;
}

[[gnu::hot]] int sleepTimeoutMs(std::optional<std::uint64_t> busTimeoutUsec,
                                std::optional<std::chrono::steady_clock::time_point> deadline,
                                std::chrono::steady_clock::time_point now) {
  using std::chrono::microseconds;
  std::optional<std::int64_t> usec;
  if (busTimeoutUsec && *busTimeoutUsec != UINT64_MAX) {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    const std::uint64_t nowUsec =
        static_cast<std::uint64_t>(now.tv_sec) * 1'000'000U + static_cast<std::uint64_t>(now.tv_nsec) / 1000U;
    usec = *busTimeoutUsec > nowUsec ? static_cast<std::int64_t>(*busTimeoutUsec - nowUsec) : 0;
  }
  if (deadline) {
    const std::int64_t left = std::chrono::duration_cast<microseconds>(*deadline - now).count();
    usec = std::min(usec.value_or(left), std::max<std::int64_t>(left, 0));
  }
  if (!usec) return -1;
  return static_cast<int>(std::min<std::int64_t>((*usec + 999) / 1000, std::numeric_limits<int>::max()));
}

namespace {

using Clock = std::chrono::steady_clock;
using Core = NamedConnection::Core;

// How long a released connection keeps waiting for answers already on their
// way; no synchronous caller waits longer than this.
constexpr std::chrono::seconds kDrainGrace{5};

class Loop {
 public:
  Loop(std::shared_ptr<Core> core, Link& link) : core_(std::move(core)), link_(link) {}

  void run() {
    for (;;) {
      // The host's handlers run with no lock held: one that blocks holds up
      // nobody's synchronous call, and callers holding the bus delay none.
      runTasks(core_->takeDeferred());
      int timeout = -1;
      if (core_->loopNeedsBus()) {
        std::unique_lock bus(core_->busMutex);
        drain();
        readIfNobodyDoes();
        if (core_->takeAbandoned()) link_.dropAbandoned();
        if (finished()) {
          link_.close("connection closed");
          core_->link = nullptr;
          unlockBus(&link_, bus, Wakes::ofThisThread());
          runTasks(core_->takeDeferred());
          core_->endLoop();
          return;
        }
        timeout = prepareSleep();
        unlockBus(&link_, bus, Wakes::ofThisThread());
      }
      // Otherwise a caller reads the bus, and wakes this thread when it
      // stops or defers work to it.
      sleep(timeout);
    }
  }

 private:
  static void runTasks(const std::vector<std::function<void()>>& tasks) {
    for (const auto& task : tasks) task();
  }

  // Sends what the handle queued, in order; subscriptions first, so that a
  // request sent after one cannot be answered by a notification that goes
  // unheard.
  void drain() {
    std::vector<Request> requests;
    std::vector<Subscription> subscriptions;
    std::vector<std::shared_ptr<ExitFlush>> exitFlushes;
    bool invalidateRequested = false;
    {
      std::lock_guard lock(core_->mutex);
      requests.swap(core_->requests);
      subscriptions.swap(core_->subscriptions);
      exitFlushes.swap(core_->exitFlushes);
      invalidateRequested = core_->invalidateRequested;
      stopping_ = core_->stopRequested;
    }
    if (invalidateRequested) link_.invalidate();
    for (Subscription& subscription : subscriptions) link_.subscribe(std::move(subscription));
    for (Request& request : requests) send(std::move(request));
    if (!exitFlushes.empty()) {
      link_.flush();
      for (const auto& flush : exitFlushes) flush->finish();
    }
    if (stopping_ && !link_.idle() && !graceDeadline_) graceDeadline_ = Clock::now() + kDrainGrace;
  }

  void send(Request request) {
    // A synchronous caller that gave up while its request was queued.
    if (request.waiter && request.waiter->abandoned()) return;
    std::shared_ptr<Waiter> waiter = request.waiter;
    switch (link_.start(request)) {
      case Link::Started::kSent:
        // Its caller sleeps until answered; it may be handed the bus.
        if (waiter) {
          std::lock_guard lock(core_->mutex);
          core_->waiting.push_back(std::move(waiter));
        }
        return;
      case Link::Started::kFailed:
        return;
      case Link::Started::kBusGone:
        resendElsewhere(std::move(request));
        return;
    }
  }

  // The request never left: a dead bus had it. Hand it to a fresh connection
  // once, so that a call made after the bus came back does not fail for the
  // old one's sake.
  void resendElsewhere(Request request) {
    link_.interrupt(Trouble::kBusLost);
    std::shared_ptr<NamedConnection> fresh;
    // A synchronous caller retries by itself; it only learns of the loss.
    if (!request.waiter && request.reconnect && *request.reconnect) {
      try {
        fresh = (*request.reconnect)();
      } catch (...) {  // NOLINT(bugprone-empty-catch): failing the request below is the answer
      }
    }
    if (!fresh) {
      const VelaError error = connectionError(ENOTCONN, "bus connection lost");
      if (request.waiter) {
        (void)request.waiter->answer(NamedConnection::CallOutcome{false, error});
      } else if (request.onFailure) {
        link_.defer([onFailure = std::move(request.onFailure), error] { invokeGuarded(onFailure, error); });
      }
      return;
    }
    link_.defer([fresh = std::move(fresh), request = std::move(request)]() mutable {
      fresh->callMethod(*request.member, std::move(request.args), std::move(request.onReply),
                        std::move(request.onFailure), nullptr, request.deadline);
    });
  }

  // Reads and dispatches all that has arrived, unless a caller reads the
  // bus; then hands the bus to a caller waiting for it, if any.
  void readIfNobodyDoes() {
    {
      std::lock_guard lock(core_->mutex);
      if (core_->reader != Reader::kNone) return;
      core_->reader = Reader::kLoop;
    }
    (void)link_.process([] { return false; });
    releaseReader(*core_, &link_, Wakes::ofThisThread());
  }

  // A released connection ends once nothing is in flight, or when the grace
  // period is over; closing the bus fails whatever is left.
  bool finished() const {
    if (!stopping_) return false;
    return link_.idle() || (graceDeadline_ && Clock::now() >= *graceDeadline_);
  }

  // Decides what wakes the loop next: the bus (when nobody else reads it and
  // something awaits it), an sd-bus time-out, the end of the grace period.
  // Queued work always wakes it.
  int prepareSleep() {
    std::optional<std::uint64_t> busTimeout;
    std::lock_guard lock(core_->mutex);
    int fd = -1;
    int events = 0;
    std::uint64_t timeout = UINT64_MAX;
    if (core_->reader == Reader::kNone && link_.awaitsBackground() && link_.pollSpec(fd, events, timeout)) {
      armLoop(*core_, fd, events);
      busTimeout = timeout;
    } else {
      disarmLoop(*core_);
    }
    return sleepTimeoutMs(busTimeout, graceDeadline_);
  }

  void sleep(int timeoutMs) {
    std::array<epoll_event, 2> events{};
    const int n = epoll_wait(core_->epollFd, events.data(), static_cast<int>(events.size()), timeoutMs);
    for (const epoll_event& event : std::span(events.data(), static_cast<std::size_t>(std::max(n, 0)))) {
      if (event.data.fd == core_->wakeFd) Core::consumeFd(core_->wakeFd);
    }
  }

  std::shared_ptr<Core> core_;
  Link& link_;  // the core's
  std::optional<Clock::time_point> graceDeadline_;
  bool stopping_ = false;
};

}  // namespace

void runLoop(const std::shared_ptr<NamedConnection::Core>& core) {
  loopOfThisThread = core.get();
  (void)pthread_setname_np(pthread_self(), "vela-bus");
  Link* link = nullptr;
  {
    // A synchronous caller may have opened the bus already.
    std::lock_guard bus(core->busMutex);
    link = &core->openLink();
  }
  Loop loop(core, *link);
  loop.run();
}

}  // namespace vela::bus::detail
