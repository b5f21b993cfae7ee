// SPDX-License-Identifier: MIT
#include <vela/VelaNotifySession.h>

#include "platform/bus/bus_names.h"
#include "platform/bus/named_connection.h"
#include "platform/notify/distributed_center.h"
#include "protocol/names.h"
#include "session/completion_gate.h"
#include "session/connection_queue.h"
#include "session/observer_registry.h"
#include "session/reconnect_schedule.h"
#include "session/remote_call.h"

using vela::bus::NamedConnection;

std::shared_ptr<VelaNotifySession> VelaNotifySession::sharedInstance() {
  // Never released: the shared session serves the process until it ends,
  // exit handlers included.
  // NOLINTNEXTLINE(*-avoid-non-const-global-variables)
  static auto* const shared = new std::shared_ptr<VelaNotifySession>(init());  // NOLINT(*-owning-memory)
  return *shared;
}

std::shared_ptr<VelaNotifySession> VelaNotifySession::init() {
  vela::session::replaceConnectionCreationQueue();
  return make();
}

std::shared_ptr<VelaNotifySession> VelaNotifySession::initWithDelegate(
    std::weak_ptr<VelaNotifySessionDelegate> delegate) {
  auto session = make();
  session->setDelegate(std::move(delegate));
  return session;
}

std::shared_ptr<VelaNotifySession> VelaNotifySession::make() {
  auto session = std::make_shared<VelaNotifySession>(PassKey{});
  session->completions_ = std::make_shared<vela::session::CompletionGate>();
  session->observers_ = std::make_shared<vela::session::ObserverRegistry>();
  session->reconnects_ = std::make_shared<vela::session::ReconnectSchedule>();
  // Made once and shared by every request: a request that finds its
  // connection's bus gone asks the session, held weakly, for a fresh one.
  session->reconnect_ = std::make_shared<const vela::bus::Reconnect>(
      [weakSession = session->weak_from_this()]() -> std::shared_ptr<NamedConnection> {
        auto alive = weakSession.lock();
        return alive ? alive->currentLinkConnection() : nullptr;
      });
  return session;
}

VelaNotifySession::~VelaNotifySession() {
  // First, so that no completion starts once the session is going; one
  // already running is not waited for (it may wait for a lock this thread holds).
  completions_->close();
  // Stop hearing from the daemon first, then forget the delegate, then close
  // the connection, so that nothing reaches a half-destroyed session. With
  // the center cleared, the observer removal that follows finds nothing to
  // remove; the registrations end with the session, which they hold weakly.
  if (auto vetCenter = center()) {
    vetCenter->stopDelivering();
    setCenter(nullptr);
  }
  _stopVettingNotifications();
  // No retry of the bus starts from here on. The host's observers end with
  // the registry, and a handler already running is not waited for.
  reconnects_->cancel();
  setDelegate({});
  _destroyLinkConnection();
}

[[gnu::hot]] std::shared_ptr<NamedConnection> VelaNotifySession::currentLinkConnection() {
  // Nearly always the connection exists: take it without the process-wide
  // queue, which only creation needs.
  if (auto existing = linkConnection(); existing && existing->usable()) return existing;

  // The connection's handlers hold the session weakly: a connection never
  // keeps its session alive.
  const std::weak_ptr<VelaNotifySession> box = weak_from_this();
  std::shared_ptr<NamedConnection> current;
  std::shared_ptr<NamedConnection> stale;
  vela::session::connectionCreationQueue()->dispatchSync([&] {
    current = linkConnection();
    if (current && current->usable()) return;
    // One that reported trouble, or was inherited across fork() and has no
    // thread here, is replaced.
    stale = std::move(current);
    auto connection = NamedConnection::create(std::string(vela::protocol::kServiceName), vela::bus::kPrivilegedOption);
    const std::weak_ptr<NamedConnection> self = connection;
    auto dropConnection = [box, self](vela::bus::Trouble why) {
      if (auto session = box.lock()) session->retireLinkConnection(self, why);
    };
    connection->setInterruptionHandler(dropConnection);
    connection->setInvalidationHandler(dropConnection);
    // A vetting under way keeps hearing its results on the new connection,
    // and the host's observers their notifications.
    for (const auto& center : observers_->centers()) center->listenOn(*connection);
    // Stored before it starts, so that a handler firing at once (no bus at
    // all) finds it current and retires it.
    setLinkConnection(connection);
    connection->resume();
    current = std::move(connection);
  });
  // Returning the connection made or found above, rather than reading the
  // field again, means a teardown racing this call cannot hand back nullptr.
  return current;
}

void VelaNotifySession::_destroyLinkConnection() {
  std::shared_ptr<NamedConnection> old;
  {
    std::lock_guard lock(fieldsMutex_);
    old.swap(linkConnection_);
  }
  // Invalidated and released outside the lock: releasing may wait for the
  // connection's thread, whose handlers take the same lock.
  if (old) old->invalidate();
}

void VelaNotifySession::retireLinkConnection(const std::weak_ptr<NamedConnection>& connection, vela::bus::Trouble why) {
  std::shared_ptr<NamedConnection> old;
  {
    std::lock_guard lock(fieldsMutex_);
    // A late handler of a connection already replaced must not drop its successor.
    if (linkConnection_ != connection.lock()) return;
    old.swap(linkConnection_);
  }
  // Not invalidated: requests already on the wire still get the bus's answer
  // (the daemon's reply, or an error if it is gone) instead of a false
  // failure. The old connection ends by itself once they are done.
  //
  // Notifications are heard for as long as the session's observers are
  // registered, not only while the host happens to make calls: the session
  // follows the service to its next owner (or its first) on a new
  // connection right away, and waits for a bus that went away.
  if (!keepsListening()) return;
  auto reconnect = [weakSelf = weak_from_this()] {
    if (auto self = weakSelf.lock(); self && self->keepsListening()) (void)self->currentLinkConnection();
  };
  switch (why) {
    case vela::bus::Trouble::kOwnerChanged:
    case vela::bus::Trouble::kUnreachable:
      reconnect();
      return;
    case vela::bus::Trouble::kBusLost:
      reconnects_->afterBusLost(reconnect);
      return;
    case vela::bus::Trouble::kBusUnavailable:
      reconnects_->afterBusUnavailable(reconnect);
      return;
    case vela::bus::Trouble::kInvalidated:
      return;
  }
}

bool VelaNotifySession::keepsListening() const { return vetListening_.load() || !observers_->empty(); }

VelaNotifySession::ObserverToken VelaNotifySession::addObserver(std::string_view center, std::string_view name,
                                                                ObserverThread thread, NotificationHandler handler) {
  if (!handler || !vela::bus::isInterfaceName(center)) return 0;
  auto observed = observers_->center(center);
  const ObserverToken token = observers_->add(observed, std::string(name), thread, std::move(handler));
  observed->listenOn(*currentLinkConnection());
  return token;
}

bool VelaNotifySession::removeObserver(ObserverToken token) { return observers_->remove(token); }

void VelaNotifySession::setCompletionExecutor(VelaMainThread::Executor executor) {
  std::lock_guard lock(fieldsMutex_);
  completionExecutor_.swap(executor);
}

// A member, not a static, because callers make errors through the session.
// NOLINTNEXTLINE(readability-convert-member-functions-to-static)
VelaError VelaNotifySession::newErrorForCode(std::int32_t code, std::string_view message) const {
  return vela::session::libraryError(code, message);
}

[[gnu::hot]] std::shared_ptr<NamedConnection> VelaNotifySession::linkConnection() const {
  std::lock_guard lock(fieldsMutex_);
  return linkConnection_;
}

void VelaNotifySession::setLinkConnection(std::shared_ptr<NamedConnection> connection) {
  {
    std::lock_guard lock(fieldsMutex_);
    linkConnection_.swap(connection);
  }
  // `connection` now holds the old value and is released outside the lock.
}

std::shared_ptr<vela::notify::DistributedCenter> VelaNotifySession::center() const {
  std::lock_guard lock(fieldsMutex_);
  return center_;
}

void VelaNotifySession::setCenter(std::shared_ptr<vela::notify::DistributedCenter> center) {
  std::lock_guard lock(fieldsMutex_);
  center_.swap(center);
}

std::shared_ptr<VelaNotifySessionDelegate> VelaNotifySession::delegate() const {
  std::lock_guard lock(fieldsMutex_);
  return delegate_.lock();
}

void VelaNotifySession::setDelegate(std::weak_ptr<VelaNotifySessionDelegate> delegate) {
  std::lock_guard lock(fieldsMutex_);
  delegate_.swap(delegate);
}
