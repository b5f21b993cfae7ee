// SPDX-License-Identifier: MIT
#include "platform/bus/connection_loop.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <limits>
#include <list>
#include <map>
#include <optional>

#include <systemd/sd-bus.h>

#include "platform/bus/variant_codec.h"
#include "protocol/daemon_error.h"
#include "protocol/names.h"

namespace vela::bus::detail {

thread_local const NamedConnection::Core* loopOfThisThread = nullptr;  // NOLINT(*-avoid-non-const-global-variables)

using Delivery = NamedConnection::Delivery;

namespace {

constexpr std::string_view kErrorInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr std::string_view kErrorInconsistentMessage = "org.freedesktop.DBus.Error.InconsistentMessage";

// How long a released connection keeps waiting for answers already on their
// way; no synchronous caller waits longer than this.
constexpr std::chrono::seconds kDrainGrace{5};

// How long the connection's thread leaves the bus to callers reading it
// before it looks again; and the longest, while one caller keeps reading.
constexpr std::chrono::milliseconds kBusRestLimit{2};
constexpr std::chrono::milliseconds kBusRestLongest{256};

// Errors after which the service cannot be reached through this connection.
bool meansUnreachable(const char* name) {
  return name != nullptr && (std::strcmp(name, "org.freedesktop.DBus.Error.ServiceUnknown") == 0 ||
                             std::strcmp(name, "org.freedesktop.DBus.Error.NameHasNoOwner") == 0 ||
                             std::strcmp(name, "org.freedesktop.DBus.Error.AccessDenied") == 0);
}

bool meansDisconnected(int r) { return r == -ENOTCONN || r == -ECONNRESET || r == -EPIPE || r == -ESHUTDOWN; }

void consumeWake(int fd) {
  std::uint64_t count = 0;
  const ssize_t got = ::read(fd, &count, sizeof count);
  (void)got;
}

// Milliseconds for poll() until the earlier of an sd-bus time-out (absolute,
// CLOCK_MONOTONIC microseconds, UINT64_MAX for none) and `deadline`.
int pollTimeout(std::uint64_t busTimeoutUsec, std::optional<std::chrono::steady_clock::time_point> deadline) {
  using std::chrono::duration_cast;
  using std::chrono::microseconds;
  std::optional<microseconds> wait;
  if (busTimeoutUsec != UINT64_MAX) {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    const std::uint64_t nowUsec =
        static_cast<std::uint64_t>(now.tv_sec) * 1'000'000U + static_cast<std::uint64_t>(now.tv_nsec) / 1000U;
    wait = microseconds(busTimeoutUsec > nowUsec ? busTimeoutUsec - nowUsec : 0);
  }
  if (deadline) {
    const auto left = duration_cast<microseconds>(*deadline - std::chrono::steady_clock::now());
    const microseconds clamped = left.count() > 0 ? left : microseconds(0);
    wait = wait ? std::min(*wait, clamped) : clamped;
  }
  if (!wait) return -1;
  // Rounded up, so that a wake-up never comes before what it waits for.
  return static_cast<int>(std::min<std::int64_t>((wait->count() + 999) / 1000, std::numeric_limits<int>::max()));
}

// What a reply carried, read where it arrived.
struct Outcome {
  std::optional<VelaDictionary> reply;
  std::optional<VelaError> failure;
  bool unreachable = false;  // the bus says the service cannot be reached
};

Outcome readOutcome(sd_bus_message* reply, const protocol::Member& member) {
  Outcome outcome;
  if (sd_bus_message_is_method_error(reply, nullptr) != 0) {
    const sd_bus_error* error = sd_bus_message_get_error(reply);
    const int errnoCode = sd_bus_message_get_errno(reply);
    outcome.failure = transportError(error->name != nullptr ? error->name : "", errnoCode > 0 ? errnoCode : EIO,
                                     error->message != nullptr ? error->message : "");
    outcome.unreachable = meansUnreachable(error->name);
    return outcome;
  }
  std::string whyNot = "reply is not a{sv}";
  // Only the keys the member reads are decoded: a daemon that adds keys,
  // whatever their type, still answers older clients.
  const std::array<protocol::Fields, 2> described{member.reply, protocol::Fields(&protocol::kDaemonErrorField, 1)};
  if (sd_bus_message_has_signature(reply, "a{sv}") > 0) outcome.reply = readDescribedKeys(reply, described, &whyNot);
  if (!outcome.reply) outcome.failure = transportError(kErrorInconsistentMessage, EBADMSG, whyNot);
  return outcome;
}

}  // namespace

// Everything that touches sd-bus. The connection's thread runs it, holding
// the core's busMutex except while it sleeps; a caller waiting for its own
// synchronous reply may hold that lock instead and read the bus itself (see
// callAndWait). Whatever such a caller reads for anyone else is handed to the
// connection's thread, so the host's handlers only ever run there.
class Loop {
 public:
  explicit Loop(std::shared_ptr<NamedConnection::Core> core) : core_(std::move(core)) {}
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;
  Loop(Loop&&) = delete;
  Loop& operator=(Loop&&) = delete;
  ~Loop() = default;

  void run() {
    std::unique_lock lock(core_->busMutex);
    core_->loop = this;
    openBus();
    for (;;) {
      // Requests queued before the thread started are waiting already.
      drain();
      processBus();
      if (finished()) break;
      sleep(lock);
    }
    closeBus("connection closed");
    core_->loop = nullptr;
    unlockAndWake(lock);
  }

  Delivery callAndWait(Request request, std::chrono::steady_clock::time_point deadline,
                       std::unique_lock<BusMutex>& lock) {
    auto waiter = std::make_shared<Waiter>();
    PendingCall* mine = nullptr;
    switch (start(request, CallKind::kAnswerAnywhere, waiter, &mine)) {
      case Started::kBusGone:
        // The connection's thread reports the loss and finds the request a new home.
        core_->post([&] { core_->requests.push_back(std::move(request)); });
        lock.unlock();
        return Delivery::kPending;
      case Started::kFailed:
        lock.unlock();
        return Delivery::kPending;
      case Started::kSent:
        break;
    }
    bool busFailed = false;
    bool timedOut = false;
    bool reads = !core_->callerReads;
    if (reads) takeBus();
    while (!waiter->answered && !busFailed && !timedOut) {
      if (reads) {
        busFailed = readUntilAnswered(*waiter, deadline, lock);
        break;
      }
      // Another caller reads the bus: wait, without holding the bus, for it
      // to deliver this answer or to hand the bus over.
      nudgeIfUnwritten();
      waiting_.push_back(waiter);
      unlockAndWake(lock);
      const Waiter::Woken woken = waiter->sleepUntilWoken(deadline);
      // The reader has delivered the answer and forgotten this caller.
      if (woken == Waiter::Woken::kAnswered) return Delivery::kDelivered;
      lock.lock();
      std::erase(waiting_, waiter);
      // A wake-up may cross the deadline: the bus may be this caller's now.
      reads = std::exchange(waiter->givenBus, false);
      timedOut = !reads && woken == Waiter::Woken::kNo && !waiter->answered;
    }
    if (reads) releaseBus();
    if (!waiter->answered) {
      if (busFailed) {
        // Its handlers still learn the outcome, once the connection's thread
        // has closed the failed bus.
        mine->waiter = nullptr;
      } else {
        cancel(*mine);
      }
    }
    unlockAndWake(lock);
    if (waiter->answered) return Delivery::kDelivered;
    return busFailed ? Delivery::kPending : Delivery::kDeadlinePassed;
  }

 private:
  // Who may run a call's handlers: only the connection's thread, or whichever
  // thread reads the answer (a synchronous caller's handlers only fill its
  // slots and signal it).
  enum class CallKind { kLoopOnly, kAnswerAnywhere };

  // A caller blocked in callAndWait(). Shared, so that a wake-up given just
  // as its wait times out still finds it.
  struct Waiter {
    bool answered = false;  // guarded by busMutex: a handler of its call has run
    bool givenBus = false;  // guarded by busMutex: handed the bus while asleep; it reads it next

    enum class Woken { kNo, kAnswered, kTurn };

    // Sleeps until woken or `deadline`; kNo when the deadline came first.
    Woken sleepUntilWoken(std::chrono::steady_clock::time_point deadline) {
      std::unique_lock lock(mutex);
      wake.wait_until(lock, deadline, [this] { return woken != Woken::kNo; });
      return std::exchange(woken, Woken::kNo);
    }

    void giveWake(Woken why) {
      {
        std::lock_guard lock(mutex);
        woken = why;
      }
      wake.notify_one();
    }

   private:
    std::mutex mutex;
    std::condition_variable wake;
    Woken woken = Woken::kNo;  // guarded by mutex
  };

  struct PendingCall {
    Loop* loop = nullptr;
    sd_bus_slot* slot = nullptr;
    const protocol::Member* member = nullptr;
    CallKind kind = CallKind::kLoopOnly;
    std::shared_ptr<Waiter> waiter;  // the caller blocked on this call, if any
    ReplyHandler onReply;
    FailureHandler onFailure;
    std::list<PendingCall>::iterator position;
  };

  // A caller becomes the bus's reader.
  void takeBus() {
    core_->callerReads = true;
    ++core_->readerTerms;
  }

  // The reader is done. Answers still awaited need a reader: the first
  // waiting caller, to whom the bus passes at once so that no newcomer takes
  // it meanwhile, or else the connection's thread, which may be asleep
  // without the bus.
  void releaseBus() {
    if (!waiting_.empty()) {
      waiting_.front()->givenBus = true;
      ++core_->readerTerms;
      wakeups_.emplace_back(std::move(waiting_.front()), Waiter::Woken::kTurn);
      waiting_.erase(waiting_.begin());
      return;
    }
    core_->callerReads = false;
    if (core_->loopAwaitsReader || (!core_->loopWatchesBus && !pending_.empty())) core_->wake();
  }

  // Reads the bus on the calling thread, its reader, until `waiter` is
  // answered or `deadline` passes. Returns true when the bus failed under it.
  bool readUntilAnswered(Waiter& waiter, std::chrono::steady_clock::time_point deadline,
                         std::unique_lock<BusMutex>& lock) {
    sd_bus* const bus = bus_;
    bool failed = false;
    while (!waiter.answered) {
      // sd-bus hands out one message per call: take everything already read.
      int r = 0;
      while (!waiter.answered && (r = sd_bus_process(bus, nullptr)) > 0) {
      }
      if (!deferred_.empty()) core_->wake();
      if (waiter.answered) break;
      std::uint64_t busTimeout = UINT64_MAX;
      const int events = r < 0 ? r : sd_bus_get_events(bus);
      const int fd = sd_bus_get_fd(bus);
      if (events < 0 || fd < 0 || sd_bus_get_timeout(bus, &busTimeout) < 0) {
        failed = true;
        break;
      }
      if (std::chrono::steady_clock::now() >= deadline) break;
      std::array<pollfd, 2> fds{pollfd{fd, static_cast<decltype(pollfd::events)>(events), 0},
                                pollfd{core_->readerWakeFd, POLLIN, 0}};
      const int timeout = pollTimeout(busTimeout, deadline);
      unlockAndWake(lock);
      (void)::poll(fds.data(), fds.size(), timeout);
      if ((fds[1].revents & POLLIN) != 0) consumeWake(core_->readerWakeFd);
      lock.lock();
      // Closing the bus meanwhile failed every call on it, this one too: a
      // call leaves pending_ only once its waiter is marked answered.
      if (bus_ != bus) break;
    }
    if (waiter.answered && bus_ == bus) deliverWaitingAnswers(bus);
    return failed;
  }

  // Answers that came in with the reader's own go to their callers now,
  // rather than each waiting for the bus to be handed to it.
  void deliverWaitingAnswers(sd_bus* bus) {
    while (!waiting_.empty() && sd_bus_process(bus, nullptr) > 0) {
    }
    if (!deferred_.empty()) core_->wake();
  }

  void markAnswered(PendingCall& call) {
    if (call.waiter == nullptr) return;
    call.waiter->answered = true;
    const auto found = std::find(waiting_.begin(), waiting_.end(), call.waiter);
    if (found == waiting_.end()) return;  // it reads the bus, or is awake already
    wakeups_.emplace_back(std::move(*found), Waiter::Woken::kAnswered);
    waiting_.erase(found);
  }

  // Wakes the callers given a wake-up while the bus was held, once it is not:
  // each would otherwise wake only to wait for it.
  void unlockAndWake(std::unique_lock<BusMutex>& lock) {
    std::vector<std::pair<std::shared_ptr<Waiter>, Waiter::Woken>> wakeups;
    wakeups.swap(wakeups_);
    lock.unlock();
    for (const auto& [waiter, why] : wakeups) waiter->giveWake(why);
  }

  bool onOwnThread() const { return loopOfThisThread == core_.get(); }

  // Runs `task` on the connection's thread: now when this is that thread,
  // else as soon as it next wakes, in the order the tasks were given.
  void onLoopThread(std::function<void()> task) {
    if (onOwnThread()) {
      task();
      return;
    }
    deferred_.push_back(std::move(task));
  }

  void runDeferred() {
    while (!deferred_.empty()) {
      std::vector<std::function<void()>> tasks;
      tasks.swap(deferred_);
      for (auto& task : tasks) task();
    }
  }

  void openBus() {
    const int r = core_->bus == BusKind::kSystem ? sd_bus_open_system(&bus_) : sd_bus_open_user(&bus_);
    if (r < 0) {
      bus_ = nullptr;
      unreachable();
      return;
    }
    // A dropped bus is an interruption to report, never a reason to exit.
    sd_bus_set_exit_on_disconnect(bus_, 0);
    const std::string rule =
        "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
        "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" +
        core_->service + "'";
    if (sd_bus_add_filter(bus_, &filterSlot_, &Loop::onFilter, this) < 0 ||
        sd_bus_add_match_async(bus_, &ownerSlot_, rule.c_str(), &Loop::onNameOwnerChanged, nullptr, this) < 0) {
      filterSlot_ = sd_bus_slot_unref(filterSlot_);
      bus_ = sd_bus_close_unref(bus_);
      unreachable();
    }
  }

  // Reads and dispatches all that has arrived, unless a caller is reading.
  void processBus() {
    runDeferred();
    if (bus_ == nullptr || core_->callerReads) return;
    while (sd_bus_process(bus_, nullptr) > 0) {
    }
    runDeferred();
  }

  // Whether the loop sleeps on the bus as well (no caller reads it now). Not
  // for a moment after callers have been reading it with nothing else
  // awaited: watching it then would wake this thread for each of their
  // answers, for nothing.
  bool watchesBus() {
    const bool callersRead = core_->readerTerms != seenReaderTerms_;
    seenReaderTerms_ = core_->readerTerms;
    return !callersRead || !pending_.empty();
  }

  // Sleeps until woken, the bus has something (when it watches it), an sd-bus
  // time-out, or the end of the grace period. Resting from the bus lasts
  // kBusRestLimit, so signals still arrive promptly once callers stop
  // reading it. A caller that reads it for long lets the rests grow, and
  // then wakes the loop itself when it is done.
  void sleep(std::unique_lock<BusMutex>& lock) {
    std::array<pollfd, 2> fds{pollfd{core_->wakeFd, POLLIN, 0}, pollfd{-1, 0, 0}};
    std::uint64_t busTimeout = UINT64_MAX;
    std::optional<std::chrono::steady_clock::time_point> wakeBy = graceDeadline_;
    auto restFor = [&wakeBy](std::chrono::milliseconds span) {
      const auto restEnd = std::chrono::steady_clock::now() + span;
      wakeBy = wakeBy ? std::min(*wakeBy, restEnd) : restEnd;
    };
    if (!busUsable()) {
      // Nothing to watch: only requests and the grace period wake the loop.
    } else if (core_->callerReads) {
      const bool sameReader = core_->readerTerms == restTerm_;
      restTerm_ = core_->readerTerms;
      restSpan_ = sameReader ? std::min(restSpan_ * 2, kBusRestLongest) : kBusRestLimit;
      core_->loopAwaitsReader = restSpan_ > kBusRestLimit;
      restFor(restSpan_);
    } else if (!watchesBus()) {
      restFor(kBusRestLimit);
    } else {
      const int events = sd_bus_get_events(bus_);
      const int fd = sd_bus_get_fd(bus_);
      if (events >= 0 && fd >= 0 && sd_bus_get_timeout(bus_, &busTimeout) >= 0) {
        fds[1] = pollfd{fd, static_cast<decltype(pollfd::events)>(events), 0};
      }
    }
    core_->loopWatchesBus = fds[1].fd >= 0;
    const int timeout = pollTimeout(busTimeout, wakeBy);
    unlockAndWake(lock);
    (void)::poll(fds.data(), fds.size(), timeout);
    if ((fds[0].revents & POLLIN) != 0) consumeWake(core_->wakeFd);
    lock.lock();
    core_->loopWatchesBus = false;
    core_->loopAwaitsReader = false;
  }

  void drain() {
    // The two vectors trade places, so neither side allocates once warm.
    std::vector<Request>& requests = spareRequests_;
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
    runDeferred();
    if (invalidateRequested) invalidate();
    // Before the requests: one sent after a subscription must find it in place.
    for (Subscription& subscription : subscriptions) subscribe(std::move(subscription));
    for (Request& request : requests) send(std::move(request));
    requests.clear();
    if (!exitFlushes.empty()) {
      if (busUsable()) (void)sd_bus_flush(bus_);
      for (const auto& flush : exitFlushes) flush->finish();
    }
    if (stopping_ && !pending_.empty() && !graceDeadline_) {
      graceDeadline_ = std::chrono::steady_clock::now() + kDrainGrace;
    }
  }

  // A released connection ends once nothing is in flight, or when the grace
  // period is over; closing the bus fails whatever is left.
  bool finished() const {
    if (!stopping_) return false;
    return pending_.empty() || std::chrono::steady_clock::now() >= *graceDeadline_;
  }

  bool busUsable() const { return bus_ != nullptr && sd_bus_is_open(bus_) > 0; }

  // The request never left: a dead bus had it. Hand it to a fresh connection
  // once, so that a call made after the bus came back does not fail for the
  // old one's sake.
  void resendElsewhere(Request request) {
    interrupt();
    std::shared_ptr<NamedConnection> fresh;
    if (request.reconnect && *request.reconnect) {
      try {
        fresh = (*request.reconnect)();
      } catch (...) {  // NOLINT(bugprone-empty-catch): failing the request below is the answer
      }
    }
    if (!fresh) {
      invokeGuarded(request.onFailure, transportError(kErrorDisconnected, ENOTCONN, "bus connection lost"));
      return;
    }
    fresh->callMethod(*request.member, std::move(request.args), std::move(request.onReply),
                      std::move(request.onFailure));
  }

  void send(Request request) {
    if (start(request, CallKind::kLoopOnly, nullptr, nullptr) == Started::kBusGone) {
      resendElsewhere(std::move(request));
    }
  }

  enum class Started { kSent, kFailed, kBusGone };

  // Puts `request` on the wire. kFailed: its failure handler has run.
  // kBusGone: it never left and is still whole in `request`.
  Started start(Request& request, CallKind kind, std::shared_ptr<Waiter> waiter, PendingCall** pending) {
    if (invalidated_) {
      invokeGuarded(request.onFailure, transportError(kErrorDisconnected, ENOTCONN, "connection invalidated"));
      return Started::kFailed;
    }
    if (!busUsable()) return Started::kBusGone;
    sd_bus_message* message = nullptr;
    // The names are the protocol's literals, NUL-terminated.
    int r = sd_bus_message_new_method_call(bus_, &message, core_->service.c_str(), protocol::kObjectPath.data(),
                                           protocol::kHandsetActionsInterface.data(), request.member->name.data());
    const std::array<protocol::Fields, 1> described{request.member->request};
    if (r >= 0) r = appendDictionary(message, request.args, described);
    if (r < 0) {
      sd_bus_message_unref(message);
      if (meansDisconnected(r)) return Started::kBusGone;
      const bool badArgs = r == -EINVAL;
      invokeGuarded(request.onFailure, badArgs ? transportError(kErrorInvalidArgs, EINVAL, "arguments cannot be sent")
                                               : transportError(kErrorDisconnected, -r, std::strerror(-r)));
      return Started::kFailed;
    }
    if (!request.onReply) {
      sd_bus_message_set_expect_reply(message, 0);
      r = sd_bus_send(bus_, message, nullptr);
      sd_bus_message_unref(message);
      if (r < 0) invokeGuarded(request.onFailure, transportError(kErrorDisconnected, -r, std::strerror(-r)));
      return r < 0 ? Started::kFailed : Started::kSent;
    }
    pending_.emplace_front();
    PendingCall* raw = &pending_.front();
    raw->position = pending_.begin();
    raw->loop = this;
    raw->kind = kind;
    raw->member = request.member;
    raw->waiter = std::move(waiter);
    raw->onReply = std::move(request.onReply);
    raw->onFailure = std::move(request.onFailure);
    // No sd-bus time-out: a request waits for its answer or for the
    // connection to fail. Callers that need a deadline keep their own.
    r = sd_bus_call_async(bus_, &raw->slot, message, &Loop::onReply, raw, UINT64_MAX);
    sd_bus_message_unref(message);
    if (r < 0) {
      request.onReply = std::move(raw->onReply);
      request.onFailure = std::move(raw->onFailure);
      pending_.erase(raw->position);
      if (meansDisconnected(r)) return Started::kBusGone;
      invokeGuarded(request.onFailure, transportError(kErrorDisconnected, -r, std::strerror(-r)));
      return Started::kFailed;
    }
    if (pending != nullptr) *pending = raw;
    return Started::kSent;
  }

  // A caller gave up waiting: its answer, if it ever comes, goes nowhere.
  void cancel(PendingCall& call) {
    sd_bus_slot_unref(call.slot);
    pending_.erase(call.position);
  }

  // A request that could not be written at once waits for whoever reads the
  // bus to be woken and write it.
  void nudgeIfUnwritten() {
    const int events = sd_bus_get_events(bus_);
    if (events < 0 || (events & POLLOUT) == 0) return;
    NamedConnection::Core::signalFd(core_->readerWakeFd);
    core_->wake();
  }

  static int onReply(sd_bus_message* reply, void* userdata, sd_bus_error* /*error*/) {
    auto* raw = static_cast<PendingCall*>(userdata);
    Loop* loop = raw->loop;
    // sd-bus holds its own reference while it dispatches, so dropping ours
    // here is safe and keeps the slot from outliving the call.
    sd_bus_slot_unref(raw->slot);
    PendingCall call = std::move(*raw);
    loop->pending_.erase(call.position);
    Outcome outcome = readOutcome(reply, *call.member);
    if (call.kind == CallKind::kAnswerAnywhere) {
      loop->finish(call, std::move(outcome));
    } else {
      loop->onLoopThread([loop, call = std::move(call), outcome = std::move(outcome)]() mutable {
        loop->finish(call, std::move(outcome));
      });
    }
    return 0;
  }

  void finish(PendingCall& call, Outcome outcome) {
    if (outcome.failure) {
      invokeGuarded(call.onFailure, *outcome.failure);
    } else {
      invokeGuarded(call.onReply, std::move(*outcome.reply));
    }
    markAnswered(call);
    if (outcome.unreachable) onLoopThread([this] { unreachable(); });
  }

  static int onNameOwnerChanged(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) {
    auto* loop = static_cast<Loop*>(userdata);
    const char* name = nullptr;
    const char* oldOwner = nullptr;
    const char* newOwner = nullptr;
    if (sd_bus_message_read(message, "sss", &name, &oldOwner, &newOwner) < 0) return 0;
    loop->onLoopThread([loop, lost = oldOwner[0] != '\0', owner = std::string(newOwner)]() mutable {
      loop->owner_ = std::move(owner);
      loop->ownerKnown_ = true;
      // A first owner appearing is no interruption; losing or changing one is.
      if (lost) loop->interrupt();
    });
    return 0;
  }

  // The only local signal sd-bus synthesises is the loss of the bus itself.
  static int onFilter(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) {
    if (sd_bus_message_is_signal(message, "org.freedesktop.DBus.Local", "Disconnected") > 0) {
      auto* loop = static_cast<Loop*>(userdata);
      loop->onLoopThread([loop] { loop->interrupt(); });
    }
    return 0;
  }

  // One center this connection listens to. Its address is the match's
  // userdata, so it lives in a node of its own.
  struct Listener {
    Loop* loop = nullptr;
    std::string center;
    NotificationSink sink;
    sd_bus_slot* slot = nullptr;
  };

  void subscribe(Subscription subscription) {
    auto found = listeners_.find(subscription.center);
    if (!subscription.sink) {
      if (found != listeners_.end()) {
        sd_bus_slot_unref(found->second->slot);
        listeners_.erase(found);
      }
      return;
    }
    if (found != listeners_.end()) {
      found->second->sink = std::move(subscription.sink);
      return;
    }
    if (!busUsable()) return;
    auto listener = std::make_unique<Listener>();
    listener->loop = this;
    listener->center = subscription.center;
    listener->sink = std::move(subscription.sink);
    const std::string path = protocol::notificationCenterPath(subscription.center);
    // No sender in the rule: unicast signals must match too, and the owner
    // is checked on arrival, which a well-known sender in a rule cannot do.
    if (sd_bus_match_signal_async(bus_, &listener->slot, nullptr, path.c_str(), subscription.center.c_str(),
                                  protocol::kNotificationSignal.data(), &Loop::onNotification, nullptr,
                                  listener.get()) < 0) {
      return;
    }
    listeners_.emplace(std::move(subscription.center), std::move(listener));
    queryOwner();
  }

  // Asked once per connection, after the NameOwnerChanged match is in place,
  // so that every later change arrives as a signal.
  void queryOwner() {
    if (ownerKnown_ || ownerQuery_ != nullptr) return;
    (void)sd_bus_call_method_async(bus_, &ownerQuery_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                   "org.freedesktop.DBus", "GetNameOwner", &Loop::onOwnerReply, this, "s",
                                   core_->service.c_str());
  }

  static int onOwnerReply(sd_bus_message* reply, void* userdata, sd_bus_error* /*error*/) {
    auto* loop = static_cast<Loop*>(userdata);
    loop->ownerQuery_ = sd_bus_slot_unref(loop->ownerQuery_);
    const char* owner = nullptr;
    std::optional<std::string> answer;
    if (sd_bus_message_is_method_error(reply, nullptr) == 0 && sd_bus_message_read(reply, "s", &owner) >= 0) {
      answer = owner;
    }
    loop->onLoopThread([loop, answer = std::move(answer)]() mutable {
      // A change reported meanwhile is newer than this answer.
      if (loop->ownerKnown_) return;
      if (answer) loop->owner_ = std::move(*answer);
      loop->ownerKnown_ = true;
    });
    return 0;
  }

  static int onNotification(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) {
    auto* listener = static_cast<Listener*>(userdata);
    const char* sender = sd_bus_message_get_sender(message);
    if (sender == nullptr || sd_bus_message_has_signature(message, "sa{sv}") <= 0) return 0;
    const char* name = nullptr;
    if (sd_bus_message_read_basic(message, 's', &name) < 0) return 0;
    std::optional<VelaDictionary> userInfo = readDictionary(message);
    if (!userInfo) return 0;
    // The owner is checked where owner changes are applied, so that the two
    // keep the order in which they arrived.
    Loop* loop = listener->loop;
    loop->onLoopThread([loop, center = listener->center, sender = std::string(sender), name = std::string(name),
                        userInfo = std::move(*userInfo)]() mutable {
      const auto found = loop->listeners_.find(center);
      if (found == loop->listeners_.end() || loop->owner_.empty() || loop->owner_ != sender) return;
      invokeGuarded(found->second->sink, std::move(name), std::move(userInfo));
    });
    return 0;
  }

  void interrupt() {
    if (interrupted_ || reportedInvalid_) return;
    interrupted_ = true;
    core_->defunct = true;
    invokeGuarded(core_->interruptionHandler);
  }

  // The service cannot be reached through this connection: tell the owner,
  // which stops using it. What is in flight still gets the bus's answer.
  void unreachable() {
    if (reportedInvalid_) return;
    reportedInvalid_ = true;
    core_->defunct = true;
    invokeGuarded(core_->invalidationHandler);
  }

  void invalidate() {
    if (invalidated_) return;
    invalidated_ = true;
    closeBus("connection invalidated");
    unreachable();
  }

  // Fails what is in flight and lets go of the bus. Handlers run after the
  // bookkeeping is done, since they may queue new requests. Answers already
  // read for the connection's thread are delivered first: they are real.
  void closeBus(const char* why) {
    runDeferred();
    std::list<PendingCall> failed;
    failed.swap(pending_);
    for (auto& call : failed) call.slot = sd_bus_slot_unref(call.slot);
    filterSlot_ = sd_bus_slot_unref(filterSlot_);
    ownerSlot_ = sd_bus_slot_unref(ownerSlot_);
    ownerQuery_ = sd_bus_slot_unref(ownerQuery_);
    for (auto& [center, listener] : listeners_) listener->slot = sd_bus_slot_unref(listener->slot);
    listeners_.clear();
    bus_ = sd_bus_close_unref(bus_);
    if (!failed.empty()) {
      const VelaError error = transportError(kErrorDisconnected, ENOTCONN, why);
      for (auto& call : failed) {
        invokeGuarded(call.onFailure, error);
        markAnswered(call);
      }
    }
    // A caller reading the bus learns that its call has just failed.
    if (core_->callerReads) NamedConnection::Core::signalFd(core_->readerWakeFd);
  }

  std::shared_ptr<NamedConnection::Core> core_;
  sd_bus* bus_ = nullptr;
  sd_bus_slot* filterSlot_ = nullptr;
  sd_bus_slot* ownerSlot_ = nullptr;
  sd_bus_slot* ownerQuery_ = nullptr;
  std::map<std::string, std::unique_ptr<Listener>, std::less<>> listeners_;
  std::string owner_;        // unique name owning the service; "" while it has none
  bool ownerKnown_ = false;  // owner_ has been learnt
  std::list<PendingCall> pending_;
  std::vector<std::shared_ptr<Waiter>> waiting_;  // callers waiting while another reads the bus, first come first
  std::vector<std::pair<std::shared_ptr<Waiter>, Waiter::Woken>> wakeups_;  // to wake once the bus is let go
  std::vector<std::function<void()>> deferred_;  // read by a caller, to run on the connection's thread
  std::vector<Request> spareRequests_;
  std::optional<std::chrono::steady_clock::time_point> graceDeadline_;
  std::uint64_t seenReaderTerms_ = 0;
  std::uint64_t restTerm_ = 0;  // the reader's term when the loop last rested for it
  std::chrono::milliseconds restSpan_ = kBusRestLimit;
  bool interrupted_ = false;
  bool reportedInvalid_ = false;  // the invalidation handler ran
  bool invalidated_ = false;      // invalidate() was asked for: nothing is sent any more
  bool stopping_ = false;
};

void runLoop(const std::shared_ptr<NamedConnection::Core>& core) {
  loopOfThisThread = core.get();
  Loop loop(core);
  loop.run();
}

Delivery callAndWait(Loop& loop, Request request, std::chrono::steady_clock::time_point deadline,
                     std::unique_lock<BusMutex>& lock) {
  return loop.callAndWait(std::move(request), deadline, lock);
}

}  // namespace vela::bus::detail
