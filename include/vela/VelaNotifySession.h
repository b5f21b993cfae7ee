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
#include <vela/VelaMainThread.h>
#include <vela/VelaNotifySessionDelegate.h>
#include <vela/VelaValue.h>

namespace vela::bus {
class NamedConnection;
enum class Trouble;
}  // namespace vela::bus
namespace vela::session {
struct SessionInternals;
class CompletionGate;
class ObserverRegistry;
class ReconnectSchedule;
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
// thread": reply closures, the completions of locusStateWithCompletion and
// isLocusStateChangeInProgressWithCompletion, observers that asked for it
// and the connection's handlers run there, with none of the library's locks
// held. That thread starts when something first needs it: a process that
// only makes synchronous calls runs none, as each caller sends and reads its
// own call. The non-blocking twins complete on the main thread instead. A
// synchronous operation called on the connection's thread fails at once with
// 106 "timed out": its answer could only be read by that very thread.
//
// BLOCKING
// A synchronous operation holds up only its calling thread, for at most 5
// seconds from its start, whatever other threads are doing. Other threads'
// calls proceed concurrently over the same connection.
//
// NON-BLOCKING
// Every synchronous operation that asks the daemon has a non-blocking twin,
// named as it is with "Async" appended (locusDeviceIdAsync, ...): see
// "Without blocking" below. A host with an event loop calls those from its
// loop's thread, and observes the daemon's notifications with addObserver.
//
// LIFETIME
// Sessions are shared with std::shared_ptr. The connection is made on first
// use and again after the daemon or the bus went away, so a session outlives
// daemon restarts. Destroying the session stops vetting notifications, ends
// its observers, clears the delegate and closes the connection; completions,
// handlers and replies that have not started by then are dropped, and the
// destructor never waits for the connection's thread or for a completion or
// handler already running. The shared instance lives until the process ends.
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

  // ---- Observing the daemon's notifications ---------------------------------------
  //
  // The daemon posts notifications on named centers (kVelaClientNotifyCenter
  // in VelaNotificationCenters.h): its locating and lost-mode changes to
  // everyone, the results of a vetting to the client that asked. Only what
  // the current owner of the service name sends is believed; a notification
  // from any other connection is dropped.
  //
  // While an observer is registered the session keeps a connection
  // listening, whether or not the host makes calls: when the daemon
  // restarts it follows the name to the new owner at once, and when the bus
  // itself goes away it tries again, at once and then at growing intervals
  // of up to 2 seconds, until the bus is back. Nothing posted meanwhile is
  // replayed; the daemon announces its state when it starts, so an observer
  // of the state catches up then.

  // Where an observer's handler runs.
  enum class ObserverThread {
    // Queued to the main thread (VelaMainThread), which must run its loop.
    kMainThread,
    // On the connection's thread, as the notification arrives. A handler
    // there holds up the connection: keep it short, and make no synchronous
    // call from it (that fails at once with 106).
    kConnectionThread,
  };

  using ObserverToken = std::uint64_t;
  using NotificationHandler = std::function<void(const std::string& name, const VelaDictionary& userInfo)>;

  // Runs `handler` for each notification named `name` posted on the center
  // named `center` (a D-Bus interface name), from now until the observer is
  // removed or the session ends, in the order the notifications arrived.
  // Observers are not merged: one added twice runs twice. The connection is
  // made now if there is none. Returns the token that removes the observer,
  // or 0, adding nothing, when `handler` is empty or `center` is not an
  // interface name. A handler's exception is dropped.
  // Blocks: no (only to find the connection).  Thread: any, handlers included.
  [[nodiscard]] ObserverToken addObserver(std::string_view center, std::string_view name, ObserverThread thread,
                                          NotificationHandler handler);

  // Removes the observer `token` names; false when there is none (never
  // added, or removed already). Outside every handler it returns once no
  // call of that handler is under way and none will start, so what the
  // handler uses may be destroyed right after; it therefore must not be
  // called while holding a lock the handler takes. From inside a handler
  // (this observer's or another's) it does not wait: no call starts later,
  // but one already begun on another thread may still be running.
  // Blocks: see above.  Thread: any.
  bool removeObserver(ObserverToken token);

  // ---- Without blocking -------------------------------------------------------------
  //
  // Each synchronous operation above that asks the daemon has a twin, named
  // as it is with "Async" appended, taking the same arguments and a
  // completion. The twin sends the same request and returns at once; later
  // the completion runs exactly once with what the synchronous operation
  // would have returned: the daemon's answer and error, or 106 "timed out"
  // when no answer came within 5 seconds of the call, the request could not
  // be carried or the daemon went away. An empty completion is allowed.
  //
  // Completions run on the main thread (VelaMainThread) unless
  // setCompletionExecutor() chose another executor; never inside the
  // twin's own call. None starts once the session's destructor has begun:
  // a request in flight then is dropped, and a completion already running
  // is not waited for.
  //
  // The twins neither read nor write velaLastOperationResult, which belongs
  // to whichever thread last made a synchronous call: their completions get
  // the error itself.
  // Blocks: no (only to find the connection).  Thread: any.

  using ErrorCompletion = std::function<void(std::optional<VelaError> error)>;
  using StringCompletion = std::function<void(std::optional<std::string> value, std::optional<VelaError> error)>;
  using DictionaryCompletion = std::function<void(std::optional<VelaDictionary> value, std::optional<VelaError> error)>;
  using KithAccountCompletion =
      std::function<void(std::shared_ptr<VelaKithAccountInfo> account, std::optional<VelaError> error)>;

  void enableLocusInContextAsync(std::int32_t context, ErrorCompletion completion);
  void disableLocusUsingTokenAsync(std::optional<std::string> token, std::int32_t context, ErrorCompletion completion);
  // The value as the synchronous query returns it, even together with an error.
  void kithDeviceIdAsync(StringCompletion completion);
  void locusDeviceIdAsync(StringCompletion completion);
  void storeAccountAsync(StringCompletion completion);
  // storeAccountAsync of the shared session.
  static void copyStoreAccountAsync(StringCompletion completion);
  void locusAccountAsync(DictionaryCompletion completion);
  void nimbusAccountAsync(DictionaryCompletion completion);
  // The accounts retrieveAllAccounts would write, or nullopt where it
  // leaves them untouched; the error is locusAccount's.
  void retrieveAllAccountsAsync(DictionaryCompletion completion);
  void enableLostModeWithInfoAsync(std::shared_ptr<VelaLostModeInfo> info, ErrorCompletion completion);
  void addKithAccountAsync(std::shared_ptr<VelaKithAccountInfo> account, ErrorCompletion completion);
  void removeKithAccountWithUsernameAsync(std::optional<std::string> username, ErrorCompletion completion);
  // The record the daemon sent (even together with an error), or nullptr.
  void retrieveKithAccountAsync(KithAccountCompletion completion);
  // Listening starts at once, as with vetEmailAccount; with no account the
  // completion gets 101 "account is nil" and nothing else happens.
  void vetEmailAccountAsync(std::optional<std::string> account, ErrorCompletion completion);
  // Listening stops at once, as with cancelEmailVet.
  void cancelEmailVetAsync(ErrorCompletion completion);

  // Runs the completions of the twins called from now on through
  // `executor` instead of the main thread; an empty executor goes back to
  // the main thread. The executor is called once per completion, on the
  // connection's thread (on the calling thread when a twin fails before
  // sending), and must run the task it is given exactly once, later (not
  // before it returns), on the thread the host chooses; an idle source on a
  // GLib main context, for example. Thread: any.
  void setCompletionExecutor(VelaMainThread::Executor executor);

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

  // Registers the vetting observers and listens, before a vetting request.
  void startVetListening();

  // Stops using `connection` if it is still the current one (interruption,
  // invalidation, told why); the next operation makes a new one.
  void retireLinkConnection(const std::weak_ptr<vela::bus::NamedConnection>& connection, vela::bus::Trouble why);

  // Whether a vetting or a host's observer needs a connection listening,
  // whether or not the host makes calls.
  bool keepsListening() const;

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
  // Set once at construction: the host's observers and their centers.
  std::shared_ptr<vela::session::ObserverRegistry> observers_;
  // Set once at construction: when to try the bus again while listening.
  std::shared_ptr<vela::session::ReconnectSchedule> reconnects_;
  VelaMainThread::Executor completionExecutor_;  // guarded by fieldsMutex_; empty: the main thread
};
