// SPDX-License-Identifier: MIT
#include "platform/bus/named_connection.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <systemd/sd-bus.h>

#include "platform/bus/bus_link.h"
#include "platform/bus/connection_core.h"
#include "platform/bus/connection_loop.h"
#include "platform/bus/exit_flush.h"
#include "platform/bus/reader_handoff.h"

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

NamedConnection::Core::~Core() {
  // The link first: closing it still signals readerWakeFd.
  ownedLink.reset();
  if (wakeFd >= 0) ::close(wakeFd);
  if (readerWakeFd >= 0) ::close(readerWakeFd);
  if (epollFd >= 0) ::close(epollFd);
}

detail::Link& NamedConnection::Core::openLink() {
  busMutex.assertHeld();
  if (!ownedLink) {
    ownedLink = std::make_unique<detail::Link>(*this);
    ownedLink->open();
    link = ownedLink.get();
  }
  return *ownedLink;
}

void NamedConnection::Core::startLoop() {
  // Read before the exchange: once the thread runs, a wake-up writes nothing shared.
  if (!resumed.load() || loopStarted.load() || loopStarted.exchange(true)) return;
  std::shared_ptr<Core> core = self.lock();
  if (!core) return;  // being destroyed: nothing is left to run
  try {
    std::thread([core = std::move(core)] { detail::runLoop(core); }).detach();
  } catch (const std::system_error&) {
    // No thread to be had: synchronous calls still work, and nothing
    // else can; new requests belong on a new connection.
    defunct = true;
  }
}

using detail::invokeGuarded;
using detail::kErrorDisconnected;

VelaError transportError(std::string_view name, int errnoCode, std::string_view message) {
  VelaDictionary userInfo;
  if (!message.empty()) userInfo.emplace(kVelaErrorFailureReasonKey, std::string(message));
  return {std::string(name.empty() ? kErrorDisconnected : name), errnoCode, std::move(userInfo)};
}

bool isInterfaceName(std::string_view name) { return sd_bus_interface_name_is_valid(std::string(name).c_str()) > 0; }

std::shared_ptr<NamedConnection> NamedConnection::create(std::string serviceName, unsigned options) {
  detail::countForks();
  auto core = std::make_shared<Core>();
  core->self = core;
  core->service = std::move(serviceName);
  core->bus = (options & kPrivilegedOption) != 0 ? BusKind::kSystem : BusKind::kSession;
  core->wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  core->readerWakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  core->epollFd = ::epoll_create1(EPOLL_CLOEXEC);
  if (core->epollFd >= 0 && core->wakeFd >= 0) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = core->wakeFd;
    if (epoll_ctl(core->epollFd, EPOLL_CTL_ADD, core->wakeFd, &event) < 0) {
      ::close(core->epollFd);
      core->epollFd = -1;
    }
  }
  return std::shared_ptr<NamedConnection>(new NamedConnection(std::move(core)));
}

NamedConnection::NamedConnection(std::shared_ptr<Core> core) : core_(std::move(core)) {}

NamedConnection::~NamedConnection() {
  {
    std::lock_guard lock(core_->mutex);
    core_->stopRequested = true;
  }
  if (!core_->resumed.load()) {
    // Never resumed: fail whatever was queued, as the thread would have.
    std::vector<detail::Request> requests;
    {
      std::lock_guard lock(core_->mutex);
      requests.swap(core_->requests);
    }
    const VelaError error = detail::connectionError(ENOTCONN, "connection closed");
    for (detail::Request& request : requests) {
      if (request.waiter) {
        (void)request.waiter->answer(CallOutcome{false, error});
      } else {
        invokeGuarded(request.onFailure, error);
      }
    }
    return;
  }
  if (core_->loopStarted.load()) {
    // The thread ends by itself: at once when invalidated, else once what
    // is in flight is answered. Waiting for it could deadlock on a handler
    // that waits for a lock the releasing thread holds.
    core_->wake();
    return;
  }
  // Only synchronous calls used the connection, and each has returned:
  // nothing is in flight that anyone waits for, so the bus closes here.
  std::lock_guard bus(core_->busMutex);
  if (core_->link != nullptr) core_->link->close("connection closed");
  core_->link = nullptr;
}

void NamedConnection::setInterruptionHandler(std::function<void(Trouble)> handler) {
  core_->interruptionHandler = std::move(handler);
}

void NamedConnection::setInvalidationHandler(std::function<void(Trouble)> handler) {
  core_->invalidationHandler = std::move(handler);
}

void NamedConnection::resume() {
  if (!hasLoop()) {
    invalidate();
    return;
  }
  if (core_->resumed.exchange(true)) return;
  detail::registerForExitFlush(core_);
  // Work queued before now needs the thread; a synchronous call alone never
  // does. A later post() starts it by itself.
  if (!core_->queueEmpty()) core_->wake();
}

void NamedConnection::invalidate() {
  core_->post([this] { core_->invalidateRequested = true; });
}

bool NamedConnection::belongsToThisProcess() const noexcept {
  return core_->generation == detail::forkGeneration.load();
}

bool NamedConnection::hasLoop() const noexcept {
  return belongsToThisProcess() && core_->wakeFd >= 0 && core_->readerWakeFd >= 0 && core_->epollFd >= 0;
}

[[gnu::hot]] bool NamedConnection::usable() const noexcept { return belongsToThisProcess() && !core_->defunct; }

void NamedConnection::enqueue(detail::Request request) {
  core_->post([&] { core_->requests.push_back(std::move(request)); });
}

void NamedConnection::callMethod(const protocol::Member& member, VelaDictionary args, ReplyHandler onReply,
                                 FailureHandler onFailure, std::shared_ptr<const Reconnect> reconnect,
                                 std::optional<std::chrono::steady_clock::time_point> deadline) {
  if (!hasLoop()) {
    invokeGuarded(onFailure, detail::connectionError(ENOTCONN, "connection unusable in this process"));
    return;
  }
  enqueue(detail::Request{&member, std::move(args), nullptr, std::move(onReply), std::move(onFailure),
                          std::move(reconnect), deadline});
}

[[gnu::hot]] NamedConnection::CallOutcome NamedConnection::call(const protocol::Member& member, VelaDictionary args,
                                                                DescribedKeySink& sink,
                                                                const std::shared_ptr<const Reconnect>& reconnect,
                                                                std::chrono::steady_clock::time_point deadline) {
  if (!hasLoop()) return CallOutcome{false, detail::connectionError(ENOTCONN, "connection unusable in this process")};
  if (core_->onLoopThread()) {
    return CallOutcome{false, detail::connectionError(EDEADLK, "a synchronous call on the connection's own thread")};
  }
  std::shared_ptr<detail::Waiter> waiter = detail::Waiter::forCallOfThisThread(sink);
  detail::Request request{&member, std::move(args), waiter, nullptr, nullptr, nullptr, std::nullopt};
  std::unique_lock busLock(core_->busMutex, std::defer_lock);
  if (!busLock.try_lock_until(deadline)) return {};
  detail::Link* link = core_->link;
  // Nobody has needed the bus yet: this caller opens it, rather than
  // starting the connection's thread only to have it open the bus.
  if (link == nullptr && !core_->loopStarted.load()) link = &core_->openLink();
  // Work still queued for the connection's thread goes first, in order; so
  // does everything before the thread has opened the bus.
  const detail::CallerRole role =
      link == nullptr ? detail::CallerRole::kBehindQueue : detail::claimRole(*core_, waiter);
  if (role == detail::CallerRole::kBehindQueue) {
    busLock.unlock();
    enqueue(std::move(request));
    return detail::awaitAsFollower(*core_, waiter, deadline);
  }
  const detail::Link::Started started = link->start(request);
  if (started == detail::Link::Started::kSent) return detail::awaitAnswer(*core_, waiter, role, deadline, busLock);
  // The request never left. When the bus behind this connection is gone,
  // report the loss, then make the call once on a fresh connection.
  if (started == detail::Link::Started::kBusGone) link->interrupt(Trouble::kBusLost);
  detail::dropRole(*core_, *waiter, role, busLock);
  if (started == detail::Link::Started::kFailed) return waiter->takeOutcome();
  core_->wake();
  std::shared_ptr<NamedConnection> fresh;
  if (reconnect && *reconnect) fresh = (*reconnect)();
  if (!fresh || fresh.get() == this)
    return CallOutcome{false, detail::connectionError(ENOTCONN, "bus connection lost")};
  return fresh->call(member, std::move(request.args), sink, nullptr, deadline);
}

void NamedConnection::listenForNotifications(std::string center, NotificationSink sink) {
  if (!hasLoop()) return;
  core_->post([&] { core_->subscriptions.push_back(detail::Subscription{std::move(center), std::move(sink)}); });
}

}  // namespace vela::bus
