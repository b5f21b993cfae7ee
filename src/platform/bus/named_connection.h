// SPDX-License-Identifier: MIT
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <vela/VelaError.h>
#include <vela/VelaValue.h>

#include "platform/bus/bus_names.h"
#include "protocol/schema.h"

namespace vela::bus {
namespace detail {
struct Request;
}  // namespace detail

class DescribedKeySink;

using ReplyHandler = std::function<void(VelaDictionary reply)>;
using FailureHandler = std::function<void(const VelaError& error)>;

// Receives one notification: its name and user info.
using NotificationSink = std::function<void(std::string name, VelaDictionary userInfo)>;

class NamedConnection;
// Supplies a fresh connection for a request that could not leave a dead one.
using Reconnect = std::function<std::shared_ptr<NamedConnection>()>;

// Why a connection stopped being usable.
enum class Trouble {
  kOwnerChanged,    // the service's name lost its owner or changed hands
  kBusLost,         // the bus connection dropped
  kUnreachable,     // the service cannot be reached (no owner and no activation, access denied)
  kBusUnavailable,  // no bus could be opened at all
  kInvalidated,     // invalidate() was called
};

// A connection to one named service, with a thread of its own.
//
// The connection opens a private bus connection (never the process's shared
// one) and runs its event loop on "the connection's thread". Handlers of
// asynchronous requests, notification sinks and the interruption and
// invalidation handlers run there, with no lock held, in the order their
// messages arrived. A synchronous call (call()) instead sends its request
// from the calling thread and gets its answer back as a value, reading the
// bus itself while nobody else does. sd-bus objects are used by one thread
// at a time, under a lock (see connection_core.h).
//
// Interruption: the service's name lost its owner, or the bus dropped.
// Invalidation: the service cannot be reached (no owner and no activation,
// access denied, no bus), or invalidate() was called. Both handlers are told
// which (Trouble).
//
// Either handler tells the owner to stop using the connection. Requests
// already on the wire still get their real outcome: the bus answers each one
// (the daemon's reply, or an error when it is gone), so they are not failed
// early. Only invalidate() fails everything at once.
//
// A connection released without invalidate() finishes its requests in flight
// on its own thread (for at most 5 seconds) and then ends; one invalidated
// first ends at once. Releasing never waits for the connection's thread.
class NamedConnection {
 public:
  // `options` with kPrivilegedOption selects the system bus, else the session
  // bus. Nothing is opened before resume().
  static std::shared_ptr<NamedConnection> create(std::string serviceName, unsigned options);
  ~NamedConnection();
  NamedConnection(const NamedConnection&) = delete;
  NamedConnection& operator=(const NamedConnection&) = delete;
  NamedConnection(NamedConnection&&) = delete;
  NamedConnection& operator=(NamedConnection&&) = delete;

  // Set both before resume(). Each runs at most once, on the connection's thread.
  void setInterruptionHandler(std::function<void(Trouble)> handler);
  void setInvalidationHandler(std::function<void(Trouble)> handler);

  // Lets the connection connect and run its thread. The bus is opened by
  // whoever first needs it, and the thread starts only once something needs
  // it (an asynchronous request, a subscription, host code to run): a
  // process making synchronous calls alone never runs it. Thread: any, once.
  void resume();

  // Fails every request in flight and every later one, then runs the
  // invalidation handler. Thread: any, the connection's own included.
  void invalidate();

  // False in a child after fork(): the connection's thread does not exist
  // there, so the connection must be replaced, not used.
  bool belongsToThisProcess() const noexcept;

  // False once the connection has reported an interruption or invalidation,
  // or belongs to another process: new requests belong on a new connection.
  // Thread: any.
  bool usable() const noexcept;

  // Sends one call of `member` (an entry of the protocol's member table,
  // which outlives every request) to the service's object; its arguments
  // are typed as the member describes them. Exactly one
  // of `onReply` and `onFailure` runs later, on the connection's thread. With
  // an empty `onReply` the service is asked not to answer, and `onFailure`
  // runs only if the call could not be sent. When the bus behind this
  // connection is already gone, the request never left, so it is handed once
  // to the connection `reconnect` supplies (if any) instead of failing.
  // With a `deadline`, a call still unanswered then fails with the bus's
  // time-out error (org.freedesktop.DBus.Error.NoReply, ETIMEDOUT), at the
  // deadline, read by whichever thread is reading the bus.
  // Thread: any.
  void callMethod(const protocol::Member& member, VelaDictionary args, ReplyHandler onReply, FailureHandler onFailure,
                  std::shared_ptr<const Reconnect> reconnect = nullptr,
                  std::optional<std::chrono::steady_clock::time_point> deadline = std::nullopt);

  // What a synchronous call came back with: a reply, read into the call's
  // sink, or the failure that stands in its place; neither when the
  // deadline passed first.
  struct CallOutcome {
    bool replied = false;
    std::optional<VelaError> failure;
  };

  // Sends one call of `member` and blocks the calling thread until its
  // answer, a failure, or `deadline`, whichever comes first: it returns by
  // the deadline whatever other threads are doing. The reply's described
  // keys go to `sink` where the reply arrives, whichever thread reads it,
  // and only before this returns. When this connection's bus is already
  // gone the call is made once on the connection `reconnect` supplies. On
  // the connection's own thread it fails at once: the answer could only be
  // read by the thread that is waiting for it.
  // Thread: any.
  [[nodiscard]] CallOutcome call(const protocol::Member& member, VelaDictionary args, DescribedKeySink& sink,
                                 const std::shared_ptr<const Reconnect>& reconnect,
                                 std::chrono::steady_clock::time_point deadline);

  // Delivers to `sink`, on the connection's thread, each notification of the
  // center named `center` that the current owner of the service name sends,
  // to everyone or to this connection alone; one from any other sender is
  // dropped. One sink per center: a later call replaces it, an empty sink
  // stops listening. Takes effect in order with callMethod(), so a request
  // sent after it cannot be answered by a notification that goes unheard.
  // Thread: any.
  void listenForNotifications(std::string center, NotificationSink sink);

  struct Core;

 private:
  explicit NamedConnection(std::shared_ptr<Core> core);

  // Whether requests can reach the connection's thread from this process.
  bool hasLoop() const noexcept;

  // Queues `request` for the connection's thread.
  void enqueue(detail::Request request);

  std::shared_ptr<Core> core_;
};

// Whether `name` is a valid D-Bus interface name, as a center's name must be.
bool isInterfaceName(std::string_view name);

// The error a transport failure is reported with: `name` is a D-Bus error
// name, `errnoCode` a positive errno value.
VelaError transportError(std::string_view name, int errnoCode, std::string_view message);

}  // namespace vela::bus
