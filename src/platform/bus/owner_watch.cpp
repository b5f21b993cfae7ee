// SPDX-License-Identifier: MIT
#include "platform/bus/owner_watch.h"

#include <cassert>
#include <cstring>
#include <optional>

#include "platform/bus/bus_link.h"
#include "platform/bus/client_bus.h"
#include "platform/bus/variant_codec.h"
#include "protocol/names.h"

namespace vela::bus::detail {
namespace {

std::string centerRule(const std::string& center) {
  // No sender in the rule: unicast signals must match too, and the owner
  // is checked on arrival, which a well-known sender in a rule cannot do.
  return "type='signal',path='" + protocol::notificationCenterPath(center) + "',interface='" + center + "',member='" +
         std::string(protocol::kNotificationSignal) + "'";
}

}  // namespace

int OwnerWatch::attach(sd_bus* bus, const std::string& service) {
  bus_ = bus;
  service_ = service;
  const std::string driver(kBusDriverName);
  const std::string rule = "type='signal',sender='" + driver + "',path='" + std::string(kBusDriverPath) +
                           "',interface='" + driver + "',member='NameOwnerChanged',arg0='" + service + "'";
  return callBusDriver(bus, "AddMatch", rule.c_str(), &matchCookie_);
}

void OwnerWatch::detach() {
  // Whatever the bus still owed this connection is gone with it, as are
  // the matches it holds for it.
  matchCookie_ = 0;
  ownerCookie_ = 0;
  centers_.clear();
  bus_ = nullptr;
}

bool OwnerWatch::takeReply(sd_bus_message* reply, std::uint64_t cookie) {
  if (cookie == 0) return false;
  if (cookie == matchCookie_) {
    matchCookie_ = 0;
    return true;
  }
  if (cookie != ownerCookie_) return false;
  ownerCookie_ = 0;
  const char* owner = nullptr;
  std::optional<std::string> answer;
  if (sd_bus_message_is_method_error(reply, nullptr) == 0 && sd_bus_message_read(reply, "s", &owner) >= 0) {
    answer = owner;
  }
  link_.defer([this, answer = std::move(answer)]() mutable {
    // A change reported meanwhile is newer than this answer.
    if (ownerKnown_) return;
    if (answer) owner_ = std::move(*answer);
    ownerKnown_ = true;
  });
  return true;
}

void OwnerWatch::subscribe(Subscription subscription) {
  assert(link_.core().onLoopThread());
  const auto found = centers_.find(subscription.center);
  if (!subscription.sink) {
    sinks_.erase(subscription.center);
    if (found != centers_.end()) {
      if (bus_ != nullptr) (void)callBusDriver(bus_, "RemoveMatch", centerRule(subscription.center).c_str(), nullptr);
      centers_.erase(found);
    }
    return;
  }
  if (found != centers_.end()) {
    sinks_.insert_or_assign(subscription.center, std::move(subscription.sink));
    return;
  }
  if (bus_ == nullptr) return;
  (void)callBusDriver(bus_, "AddMatch", centerRule(subscription.center).c_str(), nullptr);
  sinks_.insert_or_assign(subscription.center, std::move(subscription.sink));
  centers_.insert(std::move(subscription.center));
  queryOwner();
}

// Asked once per connection, after the NameOwnerChanged match is in place,
// so that every later change arrives as a signal.
void OwnerWatch::queryOwner() {
  if (ownerCookie_ != 0 || bus_ == nullptr) return;
  (void)callBusDriver(bus_, "GetNameOwner", service_.c_str(), &ownerCookie_);
}

bool OwnerWatch::route(sd_bus_message* signal) {
  const char* interface = sd_bus_message_get_interface(signal);
  const char* member = sd_bus_message_get_member(signal);
  const char* path = sd_bus_message_get_path(signal);
  if (interface == nullptr || member == nullptr || path == nullptr) return false;
  if (protocol::kNotificationSignal == member) {
    const auto center = centers_.find(std::string_view(interface));
    if (center == centers_.end() || protocol::notificationCenterPath(*center) != path) return false;
    onNotification(signal, interface);
    return true;
  }
  // Only the bus itself can send as its own name.
  const char* sender = sd_bus_message_get_sender(signal);
  if (std::strcmp(member, "NameOwnerChanged") != 0 || kBusDriverName != interface || kBusDriverPath != path ||
      sender == nullptr || kBusDriverName != sender) {
    return false;
  }
  onNameOwnerChanged(signal);
  return true;
}

void OwnerWatch::onNameOwnerChanged(sd_bus_message* message) {
  const char* name = nullptr;
  const char* oldOwner = nullptr;
  const char* newOwner = nullptr;
  if (sd_bus_message_read(message, "sss", &name, &oldOwner, &newOwner) < 0 || service_ != name) return;
  link_.defer([this, owner = std::string(newOwner)]() mutable {
    owner_ = std::move(owner);
    ownerKnown_ = true;
  });
  // A first owner appearing is no interruption; losing or changing one is.
  if (oldOwner[0] != '\0') link_.interrupt(Trouble::kOwnerChanged);
}

void OwnerWatch::onNotification(sd_bus_message* message, const char* center) {
  const char* sender = sd_bus_message_get_sender(message);
  if (sender == nullptr || sd_bus_message_has_signature(message, "sa{sv}") <= 0) return;
  const char* name = nullptr;
  if (sd_bus_message_read_basic(message, 's', &name) < 0) return;
  std::optional<VelaDictionary> userInfo = readDictionary(message);
  if (!userInfo) return;
  link_.defer([this, center = std::string(center), sender = std::string(sender), name = std::string(name),
               userInfo = std::move(*userInfo)]() mutable {
    // Looked up here: the center may have been dropped since.
    const auto found = sinks_.find(center);
    if (found == sinks_.end() || owner_.empty() || owner_ != sender) return;
    invokeGuarded(found->second, std::move(name), std::move(userInfo));
  });
}

}  // namespace vela::bus::detail
