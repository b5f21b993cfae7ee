// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include <systemd/sd-bus.h>

#include "platform/bus/connection_core.h"
#include "platform/bus/owner_watch.h"

namespace vela::bus::detail {

// A connection's sd-bus objects and the calls in flight on them.
//
// THREADING: every member is used under the core's busMutex, by the
// connection's thread or by a caller reading its own reply. Host code (the
// handlers of asynchronous requests, notification sinks, interruption and
// invalidation handlers) never runs here: it is deferred to the connection's
// thread, which runs it without any lock held, in the order it arrived.
// Synchronous callers' answers go straight to their waiters.
class Link {
 public:
  explicit Link(NamedConnection::Core& core) : core_(core), owners_(*this) {}
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;
  Link(Link&&) = delete;
  Link& operator=(Link&&) = delete;
  ~Link();

  NamedConnection::Core& core() const { return core_; }

  // Opens the bus; when it cannot be, the service counts as unreachable.
  void open();

  bool usable() const { return bus_ != nullptr && sd_bus_is_open(bus_) > 0; }

  enum class Started { kSent, kFailed, kBusGone };

  // Puts `request` on the wire. kFailed: its failure has been delivered.
  // kBusGone: it never left, and is still whole in `request`.
  Started start(Request& request);

  // Reads and dispatches what has arrived until `enough()` is true or
  // nothing more is there without waiting. Closes the bus (failing all in
  // flight) when it broke; returns false then. A template: a reader runs it
  // for every answer, and `enough` is a test cheaper than calling it
  // through a std::function.
  template <typename Enough>
  bool process(const Enough& enough) {
    if (!readable()) return false;
    int r = 0;
    while (!enough()) {
      r = dispatchNext();
      if (r <= 0) break;
    }
    return r >= 0 || lost();
  }

  // Applies one subscription change. On the connection's thread.
  void subscribe(Subscription subscription) { owners_.subscribe(std::move(subscription)); }

  // What a reader polls the bus for: fd and events, and an sd-bus time-out
  // (absolute CLOCK_MONOTONIC microseconds, UINT64_MAX for none). False
  // when the bus is not usable.
  bool pollSpec(int& fd, int& events, std::uint64_t& timeoutUsec) const;

  // Whether anything but synchronous callers waits on the bus: requests
  // whose handlers run on the connection's thread, notifications, or the
  // bus's own answers to the connection's set-up. While something does and
  // no caller reads, the connection's thread must watch the bus.
  bool awaitsBackground() const;

  // Whether sd-bus holds messages already read but not yet dispatched.
  bool hasUndispatched();

  // Fails everything in flight and lets go of the bus. Idempotent.
  void close(const char* why);

  // invalidate(): fails everything now and for good, then reports.
  void invalidate();

  void flush() {
    if (!usable()) return;
    mayHoldUndispatched_ = true;
    (void)sd_bus_flush(bus_);
  }

  bool idle() const { return pending_.empty(); }

  // Runs `task` on the connection's thread, with no lock held.
  void defer(std::function<void()> task) { core_.defer(std::move(task)); }

  // The service's owner went away or changed, or the bus dropped: the owner
  // must stop using the connection. Reported once.
  void interrupt(Trouble why);
  // The service cannot be reached through this connection. Reported once.
  void unreachable(Trouble why);

  // Forgets calls whose synchronous callers gave up.
  void dropAbandoned();

  // Synchronous callers answered since the last call, still to be woken;
  // the holder of the bus wakes them once it has let go of it.
  void takeAnswered(Wakes& wakes) { wakes.takeFrom(answered_); }

 private:
  // A request on the wire, matched to its reply by cookie: sd-bus hands back
  // the replies nobody registered for, which spares each call a slot and a
  // hash-table entry inside sd-bus.
  struct PendingCall {
    std::uint64_t cookie = 0;
    const protocol::Member* member = nullptr;
    std::shared_ptr<Waiter> waiter;  // a synchronous caller, or
    ReplyHandler onReply;            // the handlers, run on the connection's thread
    FailureHandler onFailure;
  };

  // Whether the bus can still be read; when sd-bus gave up on it by
  // itself, closes it and reports the loss first.
  bool readable();
  // One sd_bus_process(), with the message nobody claimed taken: sd-bus's
  // result.
  int dispatchNext();
  // The bus broke or sd-bus gave up on it: closes it and reports the loss.
  // False.
  bool lost();
  // Fails a call: its waiter settled (to be woken once the bus is let go
  // of), or its handlers deferred to the connection's thread. A reply goes
  // the same ways in takeReply().
  void conclude(PendingCall& call, const VelaError& failure);
  // A settled caller is woken once the bus is let go of; one that gave up
  // is not woken at all.
  void wakeIfSettled(PendingCall& call, bool settled);
  void runHandlers(PendingCall& call, std::optional<VelaDictionary> reply, std::optional<VelaError> failure);
  void fail(Request& request, const VelaError& error);
  // A message sd-bus dispatched to no one: a reply to a pending call, a
  // method call for an object this connection does not have, a signal the
  // owner watch asked for, or the loss of the bus.
  void takeUnclaimed(sd_bus_message* message);
  // The reply to the pending call with `cookie`, if it is still pending;
  // else the bus's answer to Hello or to the owner watch.
  void takeReply(sd_bus_message* message, std::uint64_t cookie);
  // sd-bus's callback for a call with a deadline: its reply, or the error
  // sd-bus makes up when the deadline passes or the bus closes.
  static int onTimedReply(sd_bus_message* reply, void* userdata, sd_bus_error* error);

  NamedConnection::Core& core_;
  sd_bus* bus_ = nullptr;
  OwnerWatch owners_;
  // Oldest first: replies mostly come in the order of their requests, so
  // the one sought is nearly always at the front.
  std::deque<PendingCall> pending_;
  std::size_t pendingInBackground_ = 0;            // pending calls with handlers rather than a waiter
  std::vector<std::shared_ptr<Waiter>> answered_;  // settled, not yet woken
  // False once sd-bus is known to hold nothing read and undispatched: only
  // sd_bus_process() reads (sd_bus_flush() through it), so until one of
  // them runs again sd-bus need not be asked.
  bool mayHoldUndispatched_ = true;
  bool interrupted_ = false;
  bool reportedInvalid_ = false;   // the invalidation handler was scheduled
  std::uint64_t helloCookie_ = 0;  // the Hello still unanswered, if any
  bool helloRefused_ = false;      // the bus answered Hello with an error
  bool invalidated_ = false;       // invalidate() was asked for: nothing is sent any more
};

// The error a transport failure is reported with.
VelaError connectionError(int errnoCode, std::string_view why);

}  // namespace vela::bus::detail
