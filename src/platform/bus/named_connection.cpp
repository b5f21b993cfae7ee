// SPDX-License-Identifier: MIT
#include "platform/bus/named_connection.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/bus/connection_core.h"
#include "platform/bus/connection_loop.h"
#include "platform/bus/exit_flush.h"

namespace vela::bus {
namespace detail {

// Bumped in the child after every fork(): cheaper than asking getpid() on
// each call, and it tells a connection made before the fork from one made after.
std::atomic<unsigned> forkGeneration{0};  // NOLINT(*-avoid-non-const-global-variables)

void countForks() {
  static std::once_flag once;
  std::call_once(once, [] { pthread_atfork(nullptr, nullptr, [] { forkGeneration.fetch_add(1); }); });
}

}  // namespace detail

using detail::invokeGuarded;
using detail::kErrorDisconnected;

VelaError transportError(std::string_view name, int errnoCode, std::string_view message) {
  VelaDictionary userInfo;
  if (!message.empty()) userInfo.emplace(kVelaErrorFailureReasonKey, std::string(message));
  return {std::string(name.empty() ? kErrorDisconnected : name), errnoCode, std::move(userInfo)};
}

std::shared_ptr<NamedConnection> NamedConnection::create(std::string serviceName, unsigned options) {
  detail::countForks();
  auto core = std::make_shared<Core>();
  core->service = std::move(serviceName);
  core->bus = (options & kPrivilegedOption) != 0 ? BusKind::kSystem : BusKind::kSession;
  core->wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  core->readerWakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
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
    std::vector<detail::Request> requests;
    {
      std::lock_guard lock(core_->mutex);
      requests.swap(core_->requests);
    }
    for (detail::Request& request : requests) {
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

void NamedConnection::resume() {
  if (thread_.joinable()) return;
  if (core_->wakeFd < 0) {
    invalidate();
  }
  detail::registerForExitFlush(core_);
  thread_ = std::thread([core = core_] {
    if (core->wakeFd < 0) return;
    detail::runLoop(core);
  });
}

void NamedConnection::invalidate() {
  core_->post([this] { core_->invalidateRequested = true; });
}

bool NamedConnection::belongsToThisProcess() const noexcept {
  return core_->generation == detail::forkGeneration.load();
}

bool NamedConnection::hasLoop() const noexcept { return belongsToThisProcess() && core_->wakeFd >= 0; }

bool NamedConnection::usable() const noexcept { return belongsToThisProcess() && !core_->defunct; }

void NamedConnection::callMethod(const protocol::Member& member, VelaDictionary args, ReplyHandler onReply,
                                 FailureHandler onFailure, std::shared_ptr<const Reconnect> reconnect) {
  if (!hasLoop()) {
    invokeGuarded(onFailure, transportError(kErrorDisconnected, ENOTCONN, "connection unusable in this process"));
    return;
  }
  core_->post([&] {
    core_->requests.push_back(
        detail::Request{&member, std::move(args), std::move(onReply), std::move(onFailure), std::move(reconnect)});
  });
}

NamedConnection::Delivery NamedConnection::callMethodAndWait(const protocol::Member& member, VelaDictionary args,
                                                             ReplyHandler onReply, FailureHandler onFailure,
                                                             std::shared_ptr<const Reconnect> reconnect,
                                                             std::chrono::steady_clock::time_point deadline) {
  const bool mayRead = hasLoop() && core_->readerWakeFd >= 0 && detail::loopOfThisThread != core_.get() && onReply;
  if (mayRead) {
    std::unique_lock busLock(core_->busMutex);
    // Work still queued for the connection's thread goes first, in order.
    if (core_->loop != nullptr && core_->queueEmpty()) {
      return detail::callAndWait(
          *core_->loop,
          detail::Request{&member, std::move(args), std::move(onReply), std::move(onFailure), std::move(reconnect)},
          deadline, busLock);
    }
  }
  callMethod(member, std::move(args), std::move(onReply), std::move(onFailure), std::move(reconnect));
  return Delivery::kPending;
}

NamedConnection::CallOutcome NamedConnection::call(const protocol::Member& member, VelaDictionary args,
                                                   std::shared_ptr<const Reconnect> reconnect,
                                                   std::chrono::steady_clock::time_point deadline) {
  struct Slot {
    std::mutex mutex;
    std::condition_variable answered;
    bool done = false;    // guarded by mutex
    CallOutcome outcome;  // guarded by mutex
    void finish(CallOutcome given) {
      {
        std::lock_guard lock(mutex);
        if (done) return;
        done = true;
        outcome = std::move(given);
      }
      answered.notify_all();
    }
  };
  auto slot = std::make_shared<Slot>();
  const Delivery delivery = callMethodAndWait(
      member, std::move(args),
      [slot](VelaDictionary reply) {
        slot->finish(CallOutcome{std::move(reply), {}});
      },
      [slot](const VelaError& error) {
        slot->finish(CallOutcome{{}, error});
      },
      std::move(reconnect), deadline);
  std::unique_lock lock(slot->mutex);
  if (delivery == Delivery::kPending) slot->answered.wait_until(lock, deadline, [&] { return slot->done; });
  slot->done = true;  // a later answer is dropped
  return std::move(slot->outcome);
}

void NamedConnection::listenForNotifications(std::string center, NotificationSink sink) {
  if (!hasLoop()) return;
  core_->post([&] { core_->subscriptions.push_back(detail::Subscription{std::move(center), std::move(sink)}); });
}

}  // namespace vela::bus
