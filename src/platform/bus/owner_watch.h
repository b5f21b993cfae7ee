// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include <systemd/sd-bus.h>

#include "platform/bus/connection_core.h"

namespace vela::bus::detail {

class Link;

// Follows who owns the service's name and delivers the notifications of the
// centers the connection listens to, from that owner only. A notification is
// checked against the owner where owner changes are applied, on the
// connection's thread, so the two keep the order in which they arrived.
//
// The bus is asked directly rather than through sd-bus's matches and reply
// callbacks: sd-bus runs every incoming message through its match tree and
// looks every reply up among its callbacks once it has any, which would cost
// every call the connection makes. Signals and the bus's answers come back
// here unclaimed, through route() and takeReply().
//
// THREADING: the sd-bus side is touched under busMutex; owner_ and the
// sinks only on the connection's thread (directly, or through Link::defer).
class OwnerWatch {
 public:
  explicit OwnerWatch(Link& link) : link_(link) {}
  OwnerWatch(const OwnerWatch&) = delete;
  OwnerWatch& operator=(const OwnerWatch&) = delete;
  OwnerWatch(OwnerWatch&&) = delete;
  OwnerWatch& operator=(OwnerWatch&&) = delete;
  ~OwnerWatch() { detach(); }

  // Watches NameOwnerChanged for `service`. Returns 0 or a negative errno.
  // Under busMutex.
  int attach(sd_bus* bus, const std::string& service);

  // Drops every slot; the sinks go with them. Under busMutex.
  void detach();

  // Starts, replaces or (with an empty sink) stops listening to one center.
  // On the connection's thread, under busMutex.
  void subscribe(Subscription subscription);

  // Takes `signal` if it is one this watch asked for: true then. Under
  // busMutex.
  bool route(sd_bus_message* signal);
  // Takes `reply` if it answers one of this watch's questions to the bus:
  // true then. Under busMutex.
  bool takeReply(sd_bus_message* reply, std::uint64_t cookie);

  bool listening() const { return !centers_.empty(); }
  // The owner match or the owner query still await the bus's answer.
  bool awaitingBus() const { return matchCookie_ != 0 || ownerCookie_ != 0; }

 private:
  void queryOwner();

  void onNameOwnerChanged(sd_bus_message* message);
  void onNotification(sd_bus_message* message, const char* center);

  Link& link_;
  sd_bus* bus_ = nullptr;  // under busMutex
  std::string service_;
  // Cookies of the questions to the bus still unanswered; 0 for none.
  std::uint64_t matchCookie_ = 0;                               // under busMutex: AddMatch for owner changes
  std::uint64_t ownerCookie_ = 0;                               // under busMutex: GetNameOwner
  std::set<std::string, std::less<>> centers_;                  // under busMutex: those matched on the bus
  std::map<std::string, NotificationSink, std::less<>> sinks_;  // connection's thread
  std::string owner_;        // connection's thread: unique name owning the service; "" while it has none
  bool ownerKnown_ = false;  // connection's thread: owner_ has been learnt
};

}  // namespace vela::bus::detail
