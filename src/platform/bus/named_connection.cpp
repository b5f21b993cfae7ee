// SPDX-License-Identifier: MIT
#include "platform/bus/named_connection.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include "platform/bus/variant_codec.h"

namespace vela::bus {
namespace {

// Bumped in the child after every fork(): cheaper than asking getpid() on
// each call, and it tells a connection made before the fork from one made after.
std::atomic<unsigned> forkGeneration{0};

void countForks() {
  static std::once_flag once;
  std::call_once(once, [] { pthread_atfork(nullptr, nullptr, [] { forkGeneration.fetch_add(1); }); });
}

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

// How long exit() waits, in all, for requests sent without a reply to leave.
constexpr std::chrono::milliseconds kExitFlushLimit{1000};

constexpr std::string_view kErrorDisconnected = "org.freedesktop.DBus.Error.Disconnected";
constexpr std::string_view kErrorInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr std::string_view kErrorInconsistentMessage = "org.freedesktop.DBus.Error.InconsistentMessage";

// Errors after which the service cannot be reached through this connection.
bool meansUnreachable(const char* name) {
  return name != nullptr && (std::strcmp(name, "org.freedesktop.DBus.Error.ServiceUnknown") == 0 ||
                             std::strcmp(name, "org.freedesktop.DBus.Error.NameHasNoOwner") == 0 ||
                             std::strcmp(name, "org.freedesktop.DBus.Error.AccessDenied") == 0);
}

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
  std::string_view interface;  // static storage: the wire-name constants
  std::string_view member;     // static storage: the wire-name constants
  VelaDictionary args;
  ReplyHandler onReply;
  FailureHandler onFailure;
  std::shared_ptr<const Reconnect> reconnect;
};

// How long a released connection keeps waiting for answers already on their
// way; no synchronous caller waits longer than this.
constexpr std::uint64_t kDrainGraceUsec = 5'000'000;

bool meansDisconnected(int r) { return r == -ENOTCONN || r == -ECONNRESET || r == -EPIPE || r == -ESHUTDOWN; }

}  // namespace

// State shared between the handle and the connection's thread. The handle may
// be destroyed on the connection's own thread (from inside a handler), so the
// thread keeps this alive on its own.
struct NamedConnection::Core {
  std::string service;
  BusKind bus = BusKind::kSystem;
  unsigned generation = forkGeneration.load();
  int wakeFd = -1;

  std::function<void()> interruptionHandler;  // set before resume
  std::function<void()> invalidationHandler;  // set before resume
  std::atomic<bool> defunct{false};           // an interruption or invalidation was reported
  WireHints wireHints;                        // set before resume

  mutable std::mutex mutex;
  std::vector<Request> requests;                        // guarded by mutex
  std::vector<Subscription> subscriptions;              // guarded by mutex; changes not yet applied
  std::vector<std::shared_ptr<ExitFlush>> exitFlushes;  // guarded by mutex
  bool invalidateRequested = false;                     // guarded by mutex
  bool stopRequested = false;                           // guarded by mutex

  ~Core() {
    if (wakeFd >= 0) ::close(wakeFd);
  }

  void wake() const {
    const std::uint64_t one = 1;
    // The counter only saturates after 2^64 wakes; a failed write leaves an
    // already pending wake-up in place.
    (void)!::write(wakeFd, &one, sizeof one);
  }

  // Queues work for the loop and wakes it only when it may be asleep: the
  // loop takes the whole queue at once.
  template <typename Mutate>
  void post(Mutate&& mutate) {
    bool wasIdle = false;
    {
      std::lock_guard lock(mutex);
      wasIdle = requests.empty();
      mutate();
    }
    if (wasIdle) wake();
  }
};

namespace {

// Everything that touches sd-bus, owned by the connection's thread alone.
class Loop {
 public:
  explicit Loop(std::shared_ptr<NamedConnection::Core> core) : core_(std::move(core)) {}
  ~Loop() {
    closeBus("connection closed");
    graceTimer_ = sd_event_source_unref(graceTimer_);
    wakeSource_ = sd_event_source_unref(wakeSource_);
    event_ = sd_event_unref(event_);
  }
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;

  void run() {
    if (sd_event_new(&event_) < 0) {
      serveWithoutEventLoop();
      return;
    }
    if (sd_event_add_io(event_, &wakeSource_, core_->wakeFd, EPOLLIN, &Loop::onWake, this) < 0) {
      serveWithoutEventLoop();
      return;
    }
    openBus();
    // Requests queued before the thread started are waiting already.
    drain();
    if (!stopping_) sd_event_loop(event_);
  }

 private:
  struct PendingCall {
    Loop* loop = nullptr;
    sd_bus_slot* slot = nullptr;
    ReplyHandler onReply;
    FailureHandler onFailure;
    std::list<PendingCall>::iterator position;
  };

  void openBus() {
    const int r = core_->bus == BusKind::kSystem ? sd_bus_open_system(&bus_) : sd_bus_open_user(&bus_);
    if (r < 0) {
      bus_ = nullptr;
      unreachable();
      return;
    }
    // A dropped bus is an interruption to report, never a reason to exit.
    sd_bus_set_exit_on_disconnect(bus_, 0);
    if (sd_bus_attach_event(bus_, event_, SD_EVENT_PRIORITY_NORMAL) < 0 ||
        sd_bus_add_filter(bus_, &filterSlot_, &Loop::onFilter, this) < 0) {
      bus_ = sd_bus_close_unref(bus_);
      unreachable();
      return;
    }
    const std::string rule =
        "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
        "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" +
        core_->service + "'";
    if (sd_bus_add_match_async(bus_, &ownerSlot_, rule.c_str(), &Loop::onNameOwnerChanged, nullptr, this) < 0) {
      sd_bus_detach_event(bus_);
      bus_ = sd_bus_close_unref(bus_);
      unreachable();
      return;
    }
  }

  // Without an event loop nothing can be sent; the thread still answers every
  // request, with a failure, until the handle is gone.
  void serveWithoutEventLoop() {
    unreachable();
    for (;;) {
      drain();
      if (stopping_) return;
      pollfd pfd{core_->wakeFd, POLLIN, 0};
      (void)::poll(&pfd, 1, -1);
    }
  }

  static int onWake(sd_event_source* /*source*/, int fd, uint32_t /*events*/, void* userdata) {
    std::uint64_t count = 0;
    (void)!::read(fd, &count, sizeof count);
    static_cast<Loop*>(userdata)->drain();
    return 0;
  }

  void drain() {
    if (core_->wakeFd >= 0 && event_ == nullptr) {
      std::uint64_t count = 0;
      (void)!::read(core_->wakeFd, &count, sizeof count);
    }
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
    if (invalidateRequested) invalidate();
    // Before the requests: one sent after a subscription must find it in place.
    for (Subscription& subscription : subscriptions) subscribe(std::move(subscription));
    for (Request& request : requests) send(std::move(request));
    requests.clear();
    if (!exitFlushes.empty()) {
      if (busUsable()) (void)sd_bus_flush(bus_);
      for (const auto& flush : exitFlushes) flush->finish();
    }
    if (stopping_) finishWhenDrained();
  }

  // A released connection ends once nothing is in flight, or when the grace
  // period is over; the destructor fails whatever is left.
  void finishWhenDrained() {
    if (event_ == nullptr) return;
    if (pending_.empty()) {
      sd_event_exit(event_, 0);
      return;
    }
    if (graceTimer_ == nullptr) {
      sd_event_add_time_relative(
          event_, &graceTimer_, CLOCK_MONOTONIC, kDrainGraceUsec, 0,
          [](sd_event_source* source, uint64_t /*usec*/, void* /*userdata*/) {
            return sd_event_exit(sd_event_source_get_event(source), 0);
          },
          nullptr);
    }
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
    fresh->callMethod(request.interface, request.member, std::move(request.args), std::move(request.onReply),
                      std::move(request.onFailure));
  }

  void send(Request request) {
    if (invalidated_) {
      invokeGuarded(request.onFailure, transportError(kErrorDisconnected, ENOTCONN, "connection invalidated"));
      return;
    }
    if (!busUsable()) {
      resendElsewhere(std::move(request));
      return;
    }
    sd_bus_message* message = nullptr;
    int r = sd_bus_message_new_method_call(bus_, &message, core_->service.c_str(), kObjectPath.data(),
                                           request.interface.data(), request.member.data());
    if (r >= 0) r = appendDictionary(message, request.args, core_->wireHints);
    if (r < 0 && meansDisconnected(r)) {
      sd_bus_message_unref(message);
      resendElsewhere(std::move(request));
      return;
    }
    if (r < 0) {
      sd_bus_message_unref(message);
      const bool badArgs = r == -EINVAL;
      invokeGuarded(request.onFailure, badArgs ? transportError(kErrorInvalidArgs, EINVAL, "arguments cannot be sent")
                                               : transportError(kErrorDisconnected, -r, std::strerror(-r)));
      return;
    }
    if (!request.onReply) {
      sd_bus_message_set_expect_reply(message, 0);
      r = sd_bus_send(bus_, message, nullptr);
      sd_bus_message_unref(message);
      if (r < 0) invokeGuarded(request.onFailure, transportError(kErrorDisconnected, -r, std::strerror(-r)));
      return;
    }
    pending_.emplace_front();
    PendingCall* raw = &pending_.front();
    raw->position = pending_.begin();
    raw->loop = this;
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
      if (meansDisconnected(r)) {
        resendElsewhere(std::move(request));
      } else {
        invokeGuarded(request.onFailure, transportError(kErrorDisconnected, -r, std::strerror(-r)));
      }
    }
  }

  static int onReply(sd_bus_message* reply, void* userdata, sd_bus_error* /*error*/) {
    auto* raw = static_cast<PendingCall*>(userdata);
    Loop* loop = raw->loop;
    // sd-bus holds its own reference while it dispatches, so dropping ours
    // here is safe and keeps the slot from outliving the call.
    sd_bus_slot_unref(raw->slot);
    PendingCall taken = std::move(*raw);
    PendingCall* call = &taken;
    loop->pending_.erase(taken.position);

    if (sd_bus_message_is_method_error(reply, nullptr) != 0) {
      const sd_bus_error* error = sd_bus_message_get_error(reply);
      const int errnoCode = sd_bus_message_get_errno(reply);
      invokeGuarded(call->onFailure,
                    transportError(error->name != nullptr ? error->name : "", errnoCode > 0 ? errnoCode : EIO,
                                   error->message != nullptr ? error->message : ""));
      if (meansUnreachable(error->name)) loop->unreachable();
      loop->afterCall();
      return 0;
    }
    std::string whyNot = "reply is not a{sv}";
    std::optional<VelaDictionary> dict;
    if (sd_bus_message_has_signature(reply, "a{sv}") > 0) dict = readDictionary(reply, &whyNot);
    if (!dict) {
      invokeGuarded(call->onFailure, transportError(kErrorInconsistentMessage, EBADMSG, whyNot));
    } else {
      invokeGuarded(call->onReply, std::move(*dict));
    }
    loop->afterCall();
    return 0;
  }

  void afterCall() {
    if (stopping_) finishWhenDrained();
  }

  static int onNameOwnerChanged(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) {
    auto* loop = static_cast<Loop*>(userdata);
    const char* name = nullptr;
    const char* oldOwner = nullptr;
    const char* newOwner = nullptr;
    if (sd_bus_message_read(message, "sss", &name, &oldOwner, &newOwner) < 0) return 0;
    loop->owner_ = newOwner;
    loop->ownerKnown_ = true;
    // A first owner appearing is no interruption; losing or changing one is.
    if (oldOwner[0] != '\0') loop->interrupt();
    return 0;
  }

  // The only local signal sd-bus synthesises is the loss of the bus itself.
  static int onFilter(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) {
    if (sd_bus_message_is_signal(message, "org.freedesktop.DBus.Local", "Disconnected") > 0) {
      static_cast<Loop*>(userdata)->interrupt();
    }
    return 0;
  }

  // One center this connection listens to. Its address is the match's
  // userdata, so it lives in a node of its own.
  struct Listener {
    Loop* loop = nullptr;
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
    listener->sink = std::move(subscription.sink);
    const std::string path = notificationCenterPath(subscription.center);
    // No sender in the rule: unicast signals must match too, and the owner
    // is checked on arrival, which a well-known sender in a rule cannot do.
    if (sd_bus_match_signal_async(bus_, &listener->slot, nullptr, path.c_str(), subscription.center.c_str(),
                                  kNotificationSignal.data(), &Loop::onNotification, nullptr, listener.get()) < 0) {
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
    // A change reported meanwhile is newer than this answer.
    if (loop->ownerKnown_) return 0;
    const char* owner = nullptr;
    if (sd_bus_message_is_method_error(reply, nullptr) == 0 && sd_bus_message_read(reply, "s", &owner) >= 0) {
      loop->owner_ = owner;
    }
    loop->ownerKnown_ = true;
    return 0;
  }

  static int onNotification(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) {
    auto* listener = static_cast<Listener*>(userdata);
    const Loop* loop = listener->loop;
    const char* sender = sd_bus_message_get_sender(message);
    if (sender == nullptr || loop->owner_.empty() || loop->owner_ != sender) return 0;
    if (sd_bus_message_has_signature(message, "sa{sv}") <= 0) return 0;
    const char* name = nullptr;
    if (sd_bus_message_read_basic(message, 's', &name) < 0) return 0;
    std::optional<VelaDictionary> userInfo = readDictionary(message);
    if (!userInfo) return 0;
    invokeGuarded(listener->sink, std::string(name), std::move(*userInfo));
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
  // bookkeeping is done, since they may queue new requests.
  void closeBus(const char* why) {
    std::list<PendingCall> failed;
    failed.swap(pending_);
    for (auto& call : failed) call.slot = sd_bus_slot_unref(call.slot);
    filterSlot_ = sd_bus_slot_unref(filterSlot_);
    ownerSlot_ = sd_bus_slot_unref(ownerSlot_);
    ownerQuery_ = sd_bus_slot_unref(ownerQuery_);
    for (auto& [center, listener] : listeners_) listener->slot = sd_bus_slot_unref(listener->slot);
    listeners_.clear();
    if (bus_ != nullptr) {
      sd_bus_detach_event(bus_);
      bus_ = sd_bus_close_unref(bus_);
    }
    if (!failed.empty()) {
      const VelaError error = transportError(kErrorDisconnected, ENOTCONN, why);
      for (auto& call : failed) invokeGuarded(call.onFailure, error);
    }
  }

  std::shared_ptr<NamedConnection::Core> core_;
  sd_event* event_ = nullptr;
  sd_event_source* wakeSource_ = nullptr;
  sd_event_source* graceTimer_ = nullptr;
  sd_bus* bus_ = nullptr;
  sd_bus_slot* filterSlot_ = nullptr;
  sd_bus_slot* ownerSlot_ = nullptr;
  sd_bus_slot* ownerQuery_ = nullptr;
  std::map<std::string, std::unique_ptr<Listener>, std::less<>> listeners_;
  std::string owner_;        // unique name owning the service; "" while it has none
  bool ownerKnown_ = false;  // owner_ has been learnt
  std::list<PendingCall> pending_;
  std::vector<Request> spareRequests_;
  bool interrupted_ = false;
  bool reportedInvalid_ = false;  // the invalidation handler ran
  bool invalidated_ = false;      // invalidate() was asked for: nothing is sent any more
  bool stopping_ = false;
};

// Connections that exit() lets write what they hold first.
struct LiveConnections {
  std::mutex mutex;
  std::vector<std::weak_ptr<NamedConnection::Core>> cores;  // guarded by mutex
};

LiveConnections& liveConnections() {
  // Never destroyed: exit handlers and static destructors run in any order.
  static auto* const live = new LiveConnections();  // NOLINT(cppcoreguidelines-owning-memory)
  return *live;
}

// The connection whose loop runs on this thread, if any: exit() called from
// one of its handlers must not wait for that very loop.
thread_local const NamedConnection::Core* loopOfThisThread = nullptr;

// A request sent without a reply returns before it leaves the process, so a
// host that exits right after one would lose it. exit() gives every
// connection's thread a bounded moment to write what it was given.
void flushAtExit() {
  std::vector<std::shared_ptr<NamedConnection::Core>> cores;
  {
    std::lock_guard lock(liveConnections().mutex);
    for (const auto& weak : liveConnections().cores) {
      if (auto core = weak.lock()) cores.push_back(std::move(core));
    }
  }
  const auto deadline = std::chrono::steady_clock::now() + kExitFlushLimit;
  std::vector<std::shared_ptr<ExitFlush>> waits;
  for (const auto& core : cores) {
    // Not its own loop, whose thread is this one; not one inherited across
    // fork(), or one whose thread never started: neither has a loop to wait for.
    if (core.get() == loopOfThisThread || core->generation != forkGeneration.load() || core->wakeFd < 0) continue;
    auto flush = std::make_shared<ExitFlush>();
    {
      std::lock_guard lock(core->mutex);
      core->exitFlushes.push_back(flush);
    }
    core->wake();
    waits.push_back(std::move(flush));
  }
  for (const auto& flush : waits) {
    std::unique_lock lock(flush->mutex);
    flush->written.wait_until(lock, deadline, [&flush] { return flush->done; });
  }
}

void registerForExitFlush(const std::shared_ptr<NamedConnection::Core>& core) {
  static std::once_flag once;
  std::call_once(once, [] { std::atexit(flushAtExit); });
  std::lock_guard lock(liveConnections().mutex);
  auto& cores = liveConnections().cores;
  std::erase_if(cores, [](const std::weak_ptr<NamedConnection::Core>& weak) { return weak.expired(); });
  cores.push_back(core);
}

}  // namespace

VelaError transportError(std::string_view name, int errnoCode, std::string_view message) {
  VelaDictionary userInfo;
  if (!message.empty()) userInfo.emplace(kVelaErrorFailureReasonKey, std::string(message));
  return VelaError(std::string(name.empty() ? kErrorDisconnected : name), errnoCode, std::move(userInfo));
}

std::shared_ptr<NamedConnection> NamedConnection::create(std::string serviceName, unsigned options) {
  countForks();
  auto core = std::make_shared<Core>();
  core->service = std::move(serviceName);
  core->bus = (options & kPrivilegedOption) != 0 ? BusKind::kSystem : BusKind::kSession;
  core->wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  return std::shared_ptr<NamedConnection>(new NamedConnection(std::move(core)));
}

NamedConnection::NamedConnection(std::shared_ptr<Core> core) : core_(std::move(core)) {}

NamedConnection::~NamedConnection() {
  bool invalidated = false;
  {
    std::lock_guard lock(core_->mutex);
    core_->stopRequested = true;
    invalidated = core_->invalidateRequested;
  }
  if (!thread_.joinable()) {
    // Never resumed: fail whatever was queued, as the thread would have.
    std::vector<Request> requests;
    {
      std::lock_guard lock(core_->mutex);
      requests.swap(core_->requests);
    }
    for (Request& request : requests) {
      invokeGuarded(request.onFailure, transportError(kErrorDisconnected, ENOTCONN, "connection closed"));
    }
    return;
  }
  core_->wake();
  // An invalidated connection ends at once and is joined. A merely released
  // one may still wait for answers in flight, so it ends by itself. From
  // inside one of its own handlers, or in a forked child where the thread
  // does not exist, the thread cannot be joined at all.
  if (invalidated && thread_.get_id() != std::this_thread::get_id() && belongsToThisProcess()) {
    thread_.join();
  } else {
    thread_.detach();
  }
}

void NamedConnection::setInterruptionHandler(std::function<void()> handler) {
  core_->interruptionHandler = std::move(handler);
}

void NamedConnection::setInvalidationHandler(std::function<void()> handler) {
  core_->invalidationHandler = std::move(handler);
}

void NamedConnection::setWireHints(WireHints hints) { core_->wireHints = hints; }

void NamedConnection::resume() {
  if (thread_.joinable()) return;
  if (core_->wakeFd < 0) {
    invalidate();
  }
  registerForExitFlush(core_);
  thread_ = std::thread([core = core_] {
    if (core->wakeFd < 0) return;
    loopOfThisThread = core.get();
    Loop loop(core);
    loop.run();
  });
}

void NamedConnection::invalidate() {
  core_->post([this] { core_->invalidateRequested = true; });
  // post() wakes only an idle queue; an invalidation must always be seen.
  core_->wake();
}

bool NamedConnection::belongsToThisProcess() const noexcept { return core_->generation == forkGeneration.load(); }

bool NamedConnection::usable() const noexcept { return belongsToThisProcess() && !core_->defunct; }

void NamedConnection::callMethod(std::string_view interface, std::string_view member, VelaDictionary args,
                                 ReplyHandler onReply, FailureHandler onFailure,
                                 std::shared_ptr<const Reconnect> reconnect) {
  if (!belongsToThisProcess() || core_->wakeFd < 0) {
    invokeGuarded(onFailure, transportError(kErrorDisconnected, ENOTCONN, "connection unusable in this process"));
    return;
  }
  core_->post([&] {
    core_->requests.push_back(
        Request{interface, member, std::move(args), std::move(onReply), std::move(onFailure), std::move(reconnect)});
  });
}

void NamedConnection::listenForNotifications(std::string center, NotificationSink sink) {
  if (!belongsToThisProcess() || core_->wakeFd < 0) return;
  {
    std::lock_guard lock(core_->mutex);
    core_->subscriptions.push_back(Subscription{std::move(center), std::move(sink)});
  }
  // post() wakes only an idle request queue; a subscription must always be seen.
  core_->wake();
}

}  // namespace vela::bus
