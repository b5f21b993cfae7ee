// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include <vela/VelaError.h>
#include <vela/VelaExport.h>
#include <vela/VelaNotifySessionDelegate.h>
#include <vela/VelaValue.h>

namespace vela::bus {
class NamedConnection;
}  // namespace vela::bus
namespace vela::session {
struct SessionInternals;
}  // namespace vela::session
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

  // ---- Locating state and switching ----------------------------------------
  //
  // The daemon's locating state is a number: 1 and 2 are the two settled
  // states; any other value means a change is under way.

  using LocusStateCompletion = std::function<void(std::int32_t state, std::optional<VelaError> error)>;
  using InProgressCompletion = std::function<void(bool inProgress, std::optional<VelaError> error)>;

  // Asks the daemon for its locating state and returns at once. `completion`
  // (may be empty) runs with the state and the daemon's error as delivered,
  // or with state 4 and the transport error when the request cannot be
  // carried. Never called if the daemon never answers: there is no time-out.
  // Leaves velaLastOperationResult at 0.
  // Blocks: no.  Runs on: the connection's thread.
  void locusStateWithCompletion(LocusStateCompletion completion);

  // Like locusStateWithCompletion, reporting whether a change is in progress:
  // true only when there is no error and the state is neither 1 nor 2.
  // Blocks: no.  Runs on: the connection's thread.
  void isLocusStateChangeInProgressWithCompletion(InProgressCompletion completion);

  // Switches locating on in `context` (passed through unexamined). Returns
  // nullopt on success, the daemon's error, or 106 "timed out" when no answer
  // came within 5 s or the request could not be carried (the daemon may then
  // have acted or not: read the state). The code is left in
  // velaLastOperationResult. Blocks: up to 5 s.  Thread: any.
  std::optional<VelaError> enableLocusInContext(std::int32_t context);

  // Switches locating off with `token` (nil is sent as nil) in `context`.
  // Returns as enableLocusInContext. Blocks: up to 5 s.  Thread: any.
  std::optional<VelaError> disableLocusUsingToken(std::optional<std::string> token, std::int32_t context);

  // ---- Identity ---------------------------------------------------------------
  //
  // Each query returns what the daemon sent, even together with an error, or
  // nullopt; the error's code (106 after a time-out or transport failure) is
  // left in velaLastOperationResult, 0 when there was none.
  // Blocks: up to 5 s.  Thread: any.

  // The device identifier of the friends-locating service.
  std::optional<std::string> kithDeviceId();
  // The device identifier of the device-locating service.
  std::optional<std::string> locusDeviceId();
  // The store account.
  std::optional<std::string> storeAccount();
  // The device-locating account: {"username": name, "personID": id}, or
  // nullopt unless the daemon sent both.
  std::optional<VelaDictionary> locusAccount();
  // The cloud account of the device's user, shaped as locusAccount.
  std::optional<VelaDictionary> nimbusAccount();
  // storeAccount of the shared session.
  static std::optional<std::string> copyStoreAccount();
  // Writes {username: {"enabledDataclasses": {"com.zentrex.Dataclass.DeviceLocator"},
  // "username": username}} for the device-locating account into `accounts`,
  // and leaves it untouched when there is no such account. Always returns
  // nullptr: success shows only in `accounts`. velaLastOperationResult is
  // what locusAccount left.
  std::nullptr_t retrieveAllAccounts(std::optional<VelaDictionary>& accounts);

  // ---- Push topics and debug dump ---------------------------------------------
  //
  // Sent without waiting: the daemon is not asked to answer, failures are
  // dropped, and velaLastOperationResult reads 0 afterwards. Arguments are
  // passed unchanged (nil as nil, empty as empty).
  // Blocks: no (only to find the connection).  Thread: any.

  // Asks the daemon to listen for push messages on `topic` for this client.
  void startListeningOnTopic(std::optional<std::string> topic);
  // Asks the daemon to stop listening on `topic`, started or not.
  void stopListeningOnTopic(std::optional<std::string> topic);
  // Asks the daemon to dump its debug state; `argument` is the daemon's to read.
  void dumpDebugInfo(std::optional<std::string> argument);

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
  friend struct vela::session::SessionInternals;

  static std::shared_ptr<VelaNotifySession> make();

  // Stops using `connection` if it is still the current one (interruption,
  // invalidation); the next operation makes a new one.
  void retireLinkConnection(const std::weak_ptr<vela::bus::NamedConnection>& connection);

 public:
  // Use init(), initWithDelegate() or sharedInstance().
  explicit VelaNotifySession(PassKey /*unused*/) {}

 private:
  mutable std::mutex fieldsMutex_;
  std::shared_ptr<vela::bus::NamedConnection> linkConnection_;  // guarded by fieldsMutex_
  std::shared_ptr<vela::notify::DistributedCenter> center_;     // guarded by fieldsMutex_
  std::weak_ptr<VelaNotifySessionDelegate> delegate_;           // guarded by fieldsMutex_
  // Set once at construction: how a request whose connection died before it
  // was sent finds the session's next connection.
  std::shared_ptr<const std::function<std::shared_ptr<vela::bus::NamedConnection>()>> reconnect_;
};
