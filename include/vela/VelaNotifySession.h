// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include <vela/GeoLocation.h>
#include <vela/VelaError.h>
#include <vela/VelaExport.h>
#include <vela/VelaKithAccountInfo.h>
#include <vela/VelaLostModeInfo.h>
#include <vela/VelaNotifySessionDelegate.h>
#include <vela/VelaValue.h>

namespace vela::bus {
class NamedConnection;
enum class Trouble;
}  // namespace vela::bus
namespace vela::session {
struct SessionInternals;
class CompletionGate;
}  // namespace vela::session
namespace vela::notify {
class DistributedCenter;
struct Notification;
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
// connection's handlers run there, with none of the library's locks held. A
// synchronous operation called on the connection's thread fails at once with
// 106 "timed out": its answer could only be read by that very thread.
//
// BLOCKING
// A synchronous operation holds up only its calling thread, for at most 5
// seconds from its start, whatever other threads are doing. Other threads'
// calls proceed concurrently over the same connection.
//
// LIFETIME
// Sessions are shared with std::shared_ptr. The connection is made on first
// use and again after the daemon or the bus went away, so a session outlives
// daemon restarts. Destroying the session stops vetting notifications, clears
// the delegate and closes the connection; completions and replies that have
// not started by then are dropped, and the destructor never waits for the
// connection's thread. The shared instance lives until the process ends.
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
  VelaNotifySession(VelaNotifySession&&) = delete;
  VelaNotifySession& operator=(VelaNotifySession&&) = delete;

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

  // Observers of the vetting notifications; they run on the main thread and
  // queue the delegate's call there. A finish also stops the listening.
  void _vetResultReceived(const vela::notify::Notification& notification) const;
  void _vetFinished(const vela::notify::Notification& notification);

  // An error in the library's domain with `message` as its failure reason.
  // The code keeps its sign. Thread: any.
  [[nodiscard]] VelaError newErrorForCode(std::int32_t code, std::string_view message) const;

  // ---- Locating state and switching ----------------------------------------
  //
  // The daemon's locating state is a number: 1 and 2 are the two settled
  // states; any other value means a change is under way.

  using LocusStateCompletion = std::function<void(std::int32_t state, std::optional<VelaError> error)>;
  using InProgressCompletion = std::function<void(bool inProgress, std::optional<VelaError> error)>;

  // Asks the daemon for its locating state and returns at once. `completion`
  // (may be empty) runs at most once: with the state and the daemon's error
  // as delivered, or with state 4 and the transport error when the request
  // cannot be carried. Never called if the daemon never answers (there is no
  // time-out), nor once the session's destructor has begun: a request still
  // in flight then is dropped. The destructor does not wait for a completion
  // already running (it might be waiting for a lock the destroying thread
  // holds), so it is safe to destroy the session from inside a completion
  // or while holding a lock a completion takes.
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
  [[nodiscard]] std::optional<VelaError> enableLocusInContext(std::int32_t context);

  // Switches locating off with `token` (nil is sent as nil) in `context`.
  // Returns as enableLocusInContext. Blocks: up to 5 s.  Thread: any.
  [[nodiscard]] std::optional<VelaError> disableLocusUsingToken(std::optional<std::string> token, std::int32_t context);

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

  // ---- Lost mode ----------------------------------------------------------------
  //
  // The three readers look only at the preference store (entries
  // "LocusLostModeInfo" and "ClientLostModeInfo" of the public not-backed-up
  // domain, then "LocusWipeLostModeInfo" of the post-wipe domain, in that
  // order; the first dictionary whose "lostModeEnabled" is true is the active
  // one). They never talk to the daemon and leave velaLastOperationResult at 0.
  // Blocks: no (a store read).  Thread: any.

  // Whether an entry is active.
  bool lostModeIsActive();
  // The active entry as a record (lostModeEnabled always true), or nullptr.
  // Its message and number are whatever the entry holds, nil included.
  std::shared_ptr<VelaLostModeInfo> lostModeInfo();
  // {kLostModeIsActiveKey: true, kLostModeScreenTextKey: message,
  // kLostModeScreenOwnerNumKey: number}, or nullopt when there is no active
  // entry or it lacks the message or the number.
  std::optional<VelaDictionary> lostModeParams();

  // Asks the daemon to switch lost mode on with `info` (sent unexamined;
  // nullptr is sent as nil). Returns as enableLocusInContext.
  // Blocks: up to 5 s.  Thread: any.
  [[nodiscard]] std::optional<VelaError> enableLostModeWithInfo(std::shared_ptr<VelaLostModeInfo> info);
  // Asks the daemon to switch lost mode off, without waiting; failures are
  // dropped. Unlike every other operation it leaves velaLastOperationResult
  // as the previous operation left it.
  // Blocks: no (only to find the connection).  Thread: any.
  void disableLostMode();

  // ---- Friends account ------------------------------------------------------------
  //
  // Each returns nullopt on success, the daemon's error, or 106 "timed out";
  // the code is left in velaLastOperationResult. Arguments are sent unexamined
  // (nullptr / nullopt as nil). Blocks: up to 5 s.  Thread: any.

  // Gives the daemon the friends-locating account to use.
  [[nodiscard]] std::optional<VelaError> addKithAccount(std::shared_ptr<VelaKithAccountInfo> account);
  // Asks the daemon to forget the friends-locating account named `username`.
  [[nodiscard]] std::optional<VelaError> removeKithAccountWithUsername(std::optional<std::string> username);
  // Reads the daemon's friends-locating account into `account`, which is
  // written in every outcome: the record the daemon sent (even together with
  // an error), or nullptr.
  [[nodiscard]] std::optional<VelaError> retrieveKithAccount(std::shared_ptr<VelaKithAccountInfo>& account);

  // ---- Region events --------------------------------------------------------------
  //
  // Tell the daemon the device entered or left `region` at `location`. Only
  // the region's identifier and a VelaGeoLocation copied from `location` are
  // sent (nullptr as nil). Sent without waiting; failures are dropped and
  // velaLastOperationResult reads 0 afterwards.
  // Blocks: no (only to find the connection).  Thread: any.
  void didEnterKithRegion(const GeoRegion* region, const GeoLocation* location);
  void didExitKithRegion(const GeoRegion* region, const GeoLocation* location);

  // ---- E-mail vetting -------------------------------------------------------------
  //
  // The daemon posts the results of a vetting, and then its end, as
  // notifications that reach the delegate on the main thread (see
  // VelaMainThread.h: the main thread must run its loop for them to arrive).

  // Starts vetting `account`. Listening starts before the request is sent and
  // goes on until the vetting finishes or is cancelled, even when the request
  // fails; each call adds one more listener, so results of overlapping
  // vettings reach the delegate once per call. Returns nullopt, the daemon's
  // error, 106 "timed out", or, with no account, 101 "account is nil" (then
  // nothing else happens). Blocks: up to 5 s.  Thread: any.
  [[nodiscard]] std::optional<VelaError> vetEmailAccount(std::optional<std::string> account);
  // Stops listening, then asks the daemon to cancel; a finish that arrives
  // later reaches no one. Returns as vetEmailAccount.
  // Blocks: up to 5 s.  Thread: any.
  [[nodiscard]] std::optional<VelaError> cancelEmailVet();

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

  // The vetting center, made on first use.
  std::shared_ptr<vela::notify::DistributedCenter> centerMadeIfNeeded();

  // Stops using `connection` if it is still the current one (interruption,
  // invalidation, told why); the next operation makes a new one.
  void retireLinkConnection(const std::weak_ptr<vela::bus::NamedConnection>& connection, vela::bus::Trouble why);

 public:
  // Use init(), initWithDelegate() or sharedInstance().
  explicit VelaNotifySession(PassKey /*unused*/) {}

 private:
  mutable std::mutex fieldsMutex_;
  std::shared_ptr<vela::bus::NamedConnection> linkConnection_;  // guarded by fieldsMutex_
  std::shared_ptr<vela::notify::DistributedCenter> center_;     // guarded by fieldsMutex_
  std::weak_ptr<VelaNotifySessionDelegate> delegate_;           // guarded by fieldsMutex_
  // Vetting observers are registered: the session keeps a connection listening.
  std::atomic<bool> vetListening_{false};
  // Set once at construction: lets completions start only while the session exists.
  std::shared_ptr<vela::session::CompletionGate> completions_;
  // Set once at construction: how a request whose connection died before it
  // was sent finds the session's next connection.
  std::shared_ptr<const std::function<std::shared_ptr<vela::bus::NamedConnection>()>> reconnect_;
};
