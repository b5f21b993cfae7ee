// SPDX-License-Identifier: MIT
#pragma once

#include <map>
#include <memory>
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
// THREADING: the sd-bus slots are touched under busMutex; owner_ and the
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

  bool listening() const { return !matches_.empty(); }
  // The match or the owner query are still awaiting the bus's answer.
  bool awaitingBus() const { return ownerQuery_ != nullptr || !matchInstalled_; }

 private:
  // The match of one center. Its address is the match's userdata, so it
  // lives in a node of its own.
  struct CenterMatch {
    OwnerWatch* watch = nullptr;
    std::string center;
    sd_bus_slot* slot = nullptr;
  };

  void queryOwner();

  static int onMatchInstalled(sd_bus_message* reply, void* userdata, sd_bus_error* error);
  static int onNameOwnerChanged(sd_bus_message* message, void* userdata, sd_bus_error* error);
  static int onOwnerReply(sd_bus_message* reply, void* userdata, sd_bus_error* error);
  static int onNotification(sd_bus_message* message, void* userdata, sd_bus_error* error);

  Link& link_;
  sd_bus* bus_ = nullptr;  // under busMutex
  std::string service_;
  sd_bus_slot* ownerSlot_ = nullptr;                                          // under busMutex
  sd_bus_slot* ownerQuery_ = nullptr;                                         // under busMutex
  bool matchInstalled_ = false;                                               // under busMutex
  std::map<std::string, std::unique_ptr<CenterMatch>, std::less<>> matches_;  // under busMutex
  std::map<std::string, NotificationSink, std::less<>> sinks_;                // connection's thread
  std::string owner_;        // connection's thread: unique name owning the service; "" while it has none
  bool ownerKnown_ = false;  // connection's thread: owner_ has been learnt
};

}  // namespace vela::bus::detail
