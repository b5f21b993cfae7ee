// SPDX-License-Identifier: MIT
#include "platform/bus/owner_watch.h"

#include <cassert>
#include <optional>

#include "platform/bus/bus_link.h"
#include "platform/bus/variant_codec.h"
#include "protocol/names.h"

namespace vela::bus::detail {

int OwnerWatch::attach(sd_bus* bus, const std::string& service) {
  bus_ = bus;
  service_ = service;
  const std::string rule =
      "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
      "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" +
      service + "'";
  const int r = sd_bus_add_match_async(bus, &ownerSlot_, rule.c_str(), &OwnerWatch::onNameOwnerChanged,
                                       &OwnerWatch::onMatchInstalled, this);
  return r < 0 ? r : 0;
}

void OwnerWatch::detach() {
  ownerSlot_ = sd_bus_slot_unref(ownerSlot_);
  ownerQuery_ = sd_bus_slot_unref(ownerQuery_);
  for (auto& [center, match] : matches_) match->slot = sd_bus_slot_unref(match->slot);
  matches_.clear();
  matchInstalled_ = true;  // nothing is awaited any more
  bus_ = nullptr;
}

void OwnerWatch::subscribe(Subscription subscription) {
  assert(link_.core().onLoopThread());
  auto found = matches_.find(subscription.center);
  if (!subscription.sink) {
    sinks_.erase(subscription.center);
    if (found != matches_.end()) {
      sd_bus_slot_unref(found->second->slot);
      matches_.erase(found);
    }
    return;
  }
  if (found != matches_.end()) {
    sinks_.insert_or_assign(subscription.center, std::move(subscription.sink));
    return;
  }
  if (bus_ == nullptr) return;
  auto match = std::make_unique<CenterMatch>();
  match->watch = this;
  match->center = subscription.center;
  const std::string path = protocol::notificationCenterPath(subscription.center);
  // No sender in the rule: unicast signals must match too, and the owner
  // is checked on arrival, which a well-known sender in a rule cannot do.
  if (sd_bus_match_signal_async(bus_, &match->slot, nullptr, path.c_str(), subscription.center.c_str(),
                                protocol::kNotificationSignal.data(), &OwnerWatch::onNotification, nullptr,
                                match.get()) < 0) {
    return;
  }
  sinks_.insert_or_assign(subscription.center, std::move(subscription.sink));
  matches_.emplace(std::move(subscription.center), std::move(match));
  queryOwner();
}

// Asked once per connection, after the NameOwnerChanged match is in place,
// so that every later change arrives as a signal.
void OwnerWatch::queryOwner() {
  if (ownerQuery_ != nullptr || bus_ == nullptr) return;
  (void)sd_bus_call_method_async(bus_, &ownerQuery_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                 "org.freedesktop.DBus", "GetNameOwner", &OwnerWatch::onOwnerReply, this, "s",
                                 service_.c_str());
}

int OwnerWatch::onMatchInstalled(sd_bus_message* /*reply*/, void* userdata, sd_bus_error* /*error*/) {
  static_cast<OwnerWatch*>(userdata)->matchInstalled_ = true;
  return 0;
}

int OwnerWatch::onNameOwnerChanged(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) {
  auto* watch = static_cast<OwnerWatch*>(userdata);
  const char* name = nullptr;
  const char* oldOwner = nullptr;
  const char* newOwner = nullptr;
  if (sd_bus_message_read(message, "sss", &name, &oldOwner, &newOwner) < 0) return 0;
  watch->link_.defer([watch, owner = std::string(newOwner)]() mutable {
    watch->owner_ = std::move(owner);
    watch->ownerKnown_ = true;
  });
  // A first owner appearing is no interruption; losing or changing one is.
  if (oldOwner[0] != '\0') watch->link_.interrupt(Trouble::kOwnerChanged);
  return 0;
}

int OwnerWatch::onOwnerReply(sd_bus_message* reply, void* userdata, sd_bus_error* /*error*/) {
  auto* watch = static_cast<OwnerWatch*>(userdata);
  watch->ownerQuery_ = sd_bus_slot_unref(watch->ownerQuery_);
  const char* owner = nullptr;
  std::optional<std::string> answer;
  if (sd_bus_message_is_method_error(reply, nullptr) == 0 && sd_bus_message_read(reply, "s", &owner) >= 0) {
    answer = owner;
  }
  watch->link_.defer([watch, answer = std::move(answer)]() mutable {
    // A change reported meanwhile is newer than this answer.
    if (watch->ownerKnown_) return;
    if (answer) watch->owner_ = std::move(*answer);
    watch->ownerKnown_ = true;
  });
  return 0;
}

int OwnerWatch::onNotification(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) {
  auto* match = static_cast<CenterMatch*>(userdata);
  const char* sender = sd_bus_message_get_sender(message);
  if (sender == nullptr || sd_bus_message_has_signature(message, "sa{sv}") <= 0) return 0;
  const char* name = nullptr;
  if (sd_bus_message_read_basic(message, 's', &name) < 0) return 0;
  std::optional<VelaDictionary> userInfo = readDictionary(message);
  if (!userInfo) return 0;
  OwnerWatch* watch = match->watch;
  watch->link_.defer([watch, center = match->center, sender = std::string(sender), name = std::string(name),
                      userInfo = std::move(*userInfo)]() mutable {
    // Looked up here: the center may have been dropped since.
    const auto found = watch->sinks_.find(center);
    if (found == watch->sinks_.end() || watch->owner_.empty() || watch->owner_ != sender) return;
    invokeGuarded(found->second, std::move(name), std::move(userInfo));
  });
  return 0;
}

}  // namespace vela::bus::detail
