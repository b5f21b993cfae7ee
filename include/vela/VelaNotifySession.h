// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include <vela/VelaError.h>
#include <vela/VelaExport.h>
#include <vela/VelaNotifySessionDelegate.h>

namespace vela::bus {
class NamedConnection;
}  // namespace vela::bus
namespace vela::notify {
class DistributedCenter;
}  // namespace vela::notify

// A client's session with the daemon "com.zentrex.VelaNotification".
//
// OVERVIEW
// Every operation is one request to the daemon. Most block until it answers,
// never longer than 5 seconds, and report failure as a value: queries return
// nullopt and leave the error code in `velaLastOperationResult`; switching
// operations return the error itself (nullopt on success).
//
// THREADING
// A session may be used from any thread, by several threads at once. The
// session owns one connection with a thread of its own, "the connection's
// thread": reply closures, completions of the asynchronous operations and the
// connection's handlers run there. Never block the connection's thread on a
// synchronous operation of the same session: it would wait out its 5 seconds.
//
// BLOCKING
// A synchronous operation holds up only its calling thread. Other threads'
// calls proceed concurrently over the same connection.
//
// LIFETIME
// Sessions are shared with std::shared_ptr. The connection is made on first
// use and again after the daemon or the bus went away, so a session outlives
// daemon restarts. Destroying the session stops vetting notifications, clears
// the delegate and closes the connection; replies that arrive later are
// dropped. The shared instance lives until the process ends.
//
// EXAMPLE
//   auto session = VelaNotifySession::sharedInstance();
//   if (auto id = session->locusDeviceId()) use(*id);
//   else report(velaLastOperationResult.load());
class VELA_EXPORT VelaNotifySession : public std::enable_shared_from_this<VelaNotifySession> {
 public:
  // The process's shared session, made on first call. Thread: any.
  static std::shared_ptr<VelaNotifySession> sharedInstance();

  // A new session. Also makes a new process-wide connection-creation queue,
  // which every session uses from then on. Thread: any.
  static std::shared_ptr<VelaNotifySession> init();

  // A new session with a delegate, which is not retained: the session keeps
  // only a weak reference. Thread: any.
  static std::shared_ptr<VelaNotifySession> initWithDelegate(std::weak_ptr<VelaNotifySessionDelegate> delegate);

  ~VelaNotifySession();
  VelaNotifySession(const VelaNotifySession&) = delete;
  VelaNotifySession& operator=(const VelaNotifySession&) = delete;

  // The live connection, made first if there is none (creation is serialised
  // process-wide, so racing threads make one). Never nullptr: a connection
  // that cannot reach the service fails its requests at once. Thread: any.
  std::shared_ptr<vela::bus::NamedConnection> currentLinkConnection();

  // Invalidates and drops the connection; the next operation makes a new one.
  // Harmless when there is none. Thread: any.
  void _destroyLinkConnection();

  // Removes the session's vetting observers; nothing when it never vetted.
  // Thread: any.
  void _stopVettingNotifications();

  // An error in the library's domain with `message` as its failure reason.
  // The code keeps its sign. Thread: any.
  VelaError newErrorForCode(std::int32_t code, std::string_view message) const;

  // Accessors. Thread: any (each access is atomic on its own).
  std::shared_ptr<vela::bus::NamedConnection> linkConnection() const;
  void setLinkConnection(std::shared_ptr<vela::bus::NamedConnection> connection);
  std::shared_ptr<vela::notify::DistributedCenter> center() const;
  void setCenter(std::shared_ptr<vela::notify::DistributedCenter> center);
  // The delegate, or nullptr when none is set or it no longer exists.
  std::shared_ptr<VelaNotifySessionDelegate> delegate() const;
  void setDelegate(std::weak_ptr<VelaNotifySessionDelegate> delegate);

 private:
  struct PassKey {};

  void destroyLinkConnectionIfCurrent(const std::weak_ptr<vela::bus::NamedConnection>& connection);

 public:
  // Use init(), initWithDelegate() or sharedInstance().
  explicit VelaNotifySession(PassKey /*unused*/) {}

 private:
  mutable std::mutex fieldsMutex_;
  std::shared_ptr<vela::bus::NamedConnection> linkConnection_;  // guarded by fieldsMutex_
  std::shared_ptr<vela::notify::DistributedCenter> center_;     // guarded by fieldsMutex_
  std::weak_ptr<VelaNotifySessionDelegate> delegate_;           // guarded by fieldsMutex_
};
