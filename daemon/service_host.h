// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <vela/VelaValue.h>

#include "notification_signal.h"
#include "platform/bus/bus_names.h"
#include "platform/bus/variant_codec.h"

struct sd_bus;
struct sd_bus_message;
struct sd_bus_slot;
struct sd_event;
struct sd_event_source;

// The serving side of the bus: what velad stands on (clients never need it,
// so it is not part of the library).
//
// THREADING: a ServiceHost and everything it hands out (calls, reply tokens)
// belong to the thread that calls run(). Handlers and timers run there, one
// at a time; nothing here is safe to touch from another thread.
//
// LIFETIME: the host owns its bus connection and event loop. Reply tokens may
// outlive it; answering through one then fails with -ENOTCONN.
namespace vela::daemon {

// D-Bus error names the host and its users answer with.
inline constexpr std::string_view kInvalidArgsError = "org.freedesktop.DBus.Error.InvalidArgs";
inline constexpr std::string_view kFailedError = "org.freedesktop.DBus.Error.Failed";

// The right to answer one method call, at most once. Move-only.
//
// A token that is dropped unanswered releases the call without a reply; the
// caller then runs into its own timeout. When the caller asked for no reply,
// answering does nothing and succeeds.
class ReplyToken {
 public:
  ReplyToken() = default;
  ~ReplyToken();
  ReplyToken(ReplyToken&& other) noexcept;
  ReplyToken& operator=(ReplyToken&& other) noexcept;
  ReplyToken(const ReplyToken&) = delete;
  ReplyToken& operator=(const ReplyToken&) = delete;

  // False once answered or moved from.
  bool pending() const noexcept { return call_ != nullptr; }
  // False when the caller set the no-reply-expected flag.
  bool expectsReply() const noexcept;

  // Answers with `values` as a{sv}, each described key typed as its
  // description says at every depth (see bus::appendDictionary), everything
  // else in the default mapping. If the values cannot be encoded the caller gets a Failed error
  // instead, so it is never left waiting. Returns 0 or a negative errno.
  [[nodiscard]] int reply(const VelaDictionary& values, bus::FieldSets described = {});
  // Answers with a D-Bus error. Returns 0 or a negative errno.
  [[nodiscard]] int replyError(std::string_view name, std::string_view message);
  // Answers with a body of one string where a{sv} is promised: a deliberately
  // malformed reply, for testing clients. Returns 0 or a negative errno.
  [[nodiscard]] int replyWithString(std::string_view text);

 private:
  friend struct HostCallbacks;
  explicit ReplyToken(sd_bus_message* call) noexcept : call_(call) {}

  // Takes the call out of the token; the caller owns the reference.
  sd_bus_message* release() noexcept;

  sd_bus_message* call_ = nullptr;
};

// One method call, as the host hands it to a handler.
struct IncomingCall {
  std::string interface;
  std::string member;
  // Unique bus name of the caller.
  std::string sender;
  // The caller is ready to wait while its user authenticates (the message's
  // allow-interactive-authorization flag).
  bool allowsInteraction = false;
  // The request; nullopt when the a{sv} held a value with no property-list
  // meaning. `argsProblem` then says what was wrong.
  std::optional<VelaDictionary> args;
  std::string argsProblem;
  ReplyToken reply;
};

using CallHandler = std::function<void(IncomingCall call)>;

// A method of another service that velad calls.
struct OutgoingCall {
  std::string_view destination;
  std::string_view path;
  std::string_view interface;
  std::string_view member;
};

// Appends a call's arguments; returns 0 or a negative errno.
using ArgumentWriter = std::function<int(sd_bus_message* call)>;
// Gets the reply, or nullptr and the D-Bus error (a time-out included).
using ReplyReader = std::function<void(sd_bus_message* reply, const std::string& errorName)>;

class ServiceHost {
 public:
  // Opens a connection of its own to the system or session bus (at the
  // address DBUS_SYSTEM_BUS_ADDRESS / DBUS_SESSION_BUS_ADDRESS give, when
  // set) and an event loop. SIGTERM and SIGINT are blocked on the calling
  // thread from here on: the loop reads them, so one that arrives before
  // run() still ends it cleanly. Call it on the thread that will run() and
  // before starting other threads, which inherit the mask. nullptr on
  // failure, with the reason in `whyNot`.
  static std::unique_ptr<ServiceHost> open(bus::BusKind kind, std::string* whyNot = nullptr);

  bus::BusKind kind() const noexcept { return kind_; }

  ~ServiceHost();
  ServiceHost(const ServiceHost&) = delete;
  ServiceHost& operator=(const ServiceHost&) = delete;
  ServiceHost(ServiceHost&&) = delete;
  ServiceHost& operator=(ServiceHost&&) = delete;

  // Serves `interface` at `path` with `members`, each a{sv} "request" ->
  // a{sv} "reply". Calls whose body is not an a{sv} are refused with
  // InvalidArgs before they reach `handler`. Introspection shows the
  // interface as its published file describes it (see
  // introspection_document.h), or, for an interface no file describes, as
  // its members. Returns 0 or a negative errno.
  [[nodiscard]] int exportInterface(std::string_view path, std::string_view interface, std::vector<std::string> members,
                                    CallHandler handler);

  // Makes the notification center `center` visible to introspection at the
  // path its notifications come from, as its published file describes it
  // (or, without one, as its Notification signal). Returns 0 or a negative
  // errno (-EINVAL for a center that makes no valid interface or path).
  [[nodiscard]] int exportCenter(std::string_view center);

  // Takes the well-known name; fails with -EEXIST when another connection
  // owns it. Export interfaces first, so the name never points at an empty
  // object. Blocks: until the bus answers.
  [[nodiscard]] int requestName(std::string_view name);

  // This connection's unique bus name, "" if unknown.
  std::string uniqueName() const;

  // Emits Notification(s name, a{sv} userInfo) on interface `center` at the
  // path made from it ("/" + center, dots as slashes). An empty `destination`
  // broadcasts; otherwise only that unique name receives it. Returns 0 or a
  // negative errno (-EINVAL for a center that makes no valid interface or path).
  [[nodiscard]] int emitNotification(std::string_view center, std::string_view name, const VelaDictionary& userInfo,
                                     std::string_view destination = {});

  // Calls `target` without waiting: `read` runs on the loop with the reply,
  // once, or never when the host goes away first. Returns 0 or a negative
  // errno (then `read` never runs).
  [[nodiscard]] int callMethod(const OutgoingCall& target, const ArgumentWriter& write, ReplyReader read,
                               std::chrono::microseconds timeout);

  // Runs `left` on the loop with the unique name of every connection that
  // leaves the bus from now on. Returns 0 or a negative errno.
  [[nodiscard]] int watchDepartures(std::function<void(const std::string& uniqueName)> left);

  // Whether a connection holds `name` now. Blocks until the bus answers: for
  // start-up only. nullopt when the bus cannot tell.
  std::optional<bool> nameHasOwner(std::string_view name);

  // Runs `fire` once, `delay` from now, on the loop. Timers that have not
  // fired when the host goes away are dropped unrun. Returns 0 or a negative
  // errno.
  [[nodiscard]] int addTimer(std::chrono::microseconds delay, std::function<void()> fire);

  // Keeps the service manager's watchdog fed from the loop, when the manager
  // asked this process for that ($WATCHDOG_USEC, and $WATCHDOG_PID if set):
  // a ping at half the interval, so only a loop that stops turning gets
  // velad restarted. Returns 1 when on, 0 when no watchdog was asked for, or
  // a negative errno.
  [[nodiscard]] int feedWatchdog();

  // Runs the event loop on the calling thread until exit(), SIGTERM, SIGINT
  // or the loss of the bus. Returns the exit code: 0 after a signal, 1 after
  // the bus went away, a negative errno on failure.
  [[nodiscard]] int run();

  // Makes run() return `code` once the current handler is done.
  void exit(int code);

 private:
  struct Export;
  struct Timer;

  ServiceHost() = default;

  // The sd-bus and sd-event callbacks, defined with the implementation.
  friend struct HostCallbacks;

  int watchTerminationSignals();
  // Registers `exported`'s vtable with sd-bus and keeps it.
  int addExport(std::unique_ptr<Export> exported);

  bus::BusKind kind_ = bus::BusKind::kSystem;
  sd_bus* bus_ = nullptr;
  sd_bus_slot* filter_ = nullptr;
  sd_bus_slot* departures_ = nullptr;
  std::function<void(const std::string&)> departed_;
  sd_event* event_ = nullptr;
  std::vector<std::unique_ptr<Export>> exports_;
  std::unordered_map<Timer*, std::unique_ptr<Timer>> timers_;
  std::vector<sd_event_source*> signalSources_;
};

}  // namespace vela::daemon
