// SPDX-License-Identifier: MIT
#include "test_bus_client.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include <systemd/sd-bus.h>

#include "notification_signal.h"
#include "platform/bus/bus_handles.h"
#include "platform/bus/variant_codec.h"
#include "protocol/names.h"

namespace vela::bus {
namespace {

std::uint64_t toMicroseconds(std::chrono::milliseconds timeout) {
  return static_cast<std::uint64_t>(std::max<std::int64_t>(timeout.count(), 1)) * 1000U;
}

const char* orEmpty(const char* s) { return s != nullptr ? s : ""; }

// The variant signature under each key of the a{sv} at the read position.
std::map<std::string, std::string, std::less<>> readEntryTypes(sd_bus_message* m) {
  std::map<std::string, std::string, std::less<>> types;
  if (sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "{sv}") <= 0) return types;
  while (sd_bus_message_enter_container(m, SD_BUS_TYPE_DICT_ENTRY, "sv") > 0) {
    const char* key = nullptr;
    char type = 0;
    const char* contents = nullptr;
    if (sd_bus_message_read_basic(m, SD_BUS_TYPE_STRING, &key) <= 0 ||
        sd_bus_message_peek_type(m, &type, &contents) <= 0 || sd_bus_message_skip(m, "v") < 0 ||
        sd_bus_message_exit_container(m) < 0) {
      break;
    }
    types.insert_or_assign(orEmpty(key), orEmpty(contents));
  }
  return types;
}

CallResult localFailure(int r) {
  CallResult result;
  result.errorName = "local.errno";
  result.errorMessage = std::strerror(-r);
  return result;
}

// A method call to `member` of `target` in `request`; 0 or a negative errno.
int newCall(sd_bus* bus, const MethodTarget& target, std::string_view member, MessagePtr* request) {
  sd_bus_message* raw = nullptr;
  const int r = sd_bus_message_new_method_call(bus, &raw, target.destination.c_str(), target.path.c_str(),
                                               target.interface.c_str(), std::string(member).c_str());
  request->reset(raw);
  return r;
}

}  // namespace

struct ClientCallbacks {
  static int notificationArrived(sd_bus_message* message, void* userdata, sd_bus_error* error);
  static int anyMessageArrived(sd_bus_message* message, void* userdata, sd_bus_error* error);
};

std::unique_ptr<TestBusClient> TestBusClient::open(BusKind kind, std::string* whyNot) {
  BusPtr bus;
  int r = openPrivateBus(kind, bus);
  sd_bus_slot* filter = nullptr;
  std::unique_ptr<TestBusClient> client(new TestBusClient());
  if (r >= 0) r = sd_bus_add_filter(bus.get(), &filter, &ClientCallbacks::anyMessageArrived, client.get());
  if (r < 0) {
    if (whyNot != nullptr) *whyNot = std::string("cannot connect to the bus: ") + std::strerror(-r);
    return nullptr;
  }
  client->bus_ = bus.release();
  client->filter_ = filter;
  return client;
}

TestBusClient::~TestBusClient() {
  for (sd_bus_slot* match : matches_) sd_bus_slot_unref(match);
  sd_bus_slot_unref(filter_);
  sd_bus_flush_close_unref(bus_);
}

std::string TestBusClient::uniqueName() const {
  const char* unique = nullptr;
  if (sd_bus_get_unique_name(bus_, &unique) < 0) return {};
  return orEmpty(unique);
}

std::string TestBusClient::nameOwner(std::string_view name) {
  ScopedBusError error;
  sd_bus_message* raw = nullptr;
  const int r = sd_bus_call_method(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                   "GetNameOwner", &error.error, &raw, "s", std::string(name).c_str());
  if (r < 0) return {};
  const MessagePtr reply(raw);
  const char* owner = nullptr;
  if (sd_bus_message_read(reply.get(), "s", &owner) < 0) return {};
  return orEmpty(owner);
}

bool TestBusClient::waitUntilGone(std::string_view uniqueName, std::chrono::milliseconds timeout) {
  const std::string rule =
      "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" + std::string(uniqueName) + "'";
  bool gone = false;
  sd_bus_slot* raw = nullptr;
  // Watched before asking, so a departure in between is not missed.
  if (sd_bus_add_match(
          bus_, &raw, rule.c_str(),
          [](sd_bus_message* /*signal*/, void* userdata, sd_bus_error* /*error*/) {
            *static_cast<bool*>(userdata) = true;
            return 0;
          },
          &gone) < 0) {
    return false;
  }
  const std::unique_ptr<sd_bus_slot, sd_bus_slot* (*)(sd_bus_slot*)> slot(raw, sd_bus_slot_unref);
  if (nameOwner(uniqueName).empty()) return true;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!gone) {
    const int r = sd_bus_process(bus_, nullptr);
    if (r < 0) return false;
    if (r > 0) continue;
    const auto left =
        std::chrono::duration_cast<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || sd_bus_wait(bus_, static_cast<std::uint64_t>(left.count())) < 0) return false;
  }
  return true;
}

CallResult TestBusClient::finishCall(sd_bus_message* request, std::chrono::milliseconds timeout) {
  ScopedBusError error;
  sd_bus_message* raw = nullptr;
  const int r = sd_bus_call(bus_, request, toMicroseconds(timeout), &error.error, &raw);
  const MessagePtr reply(raw);
  CallResult result;
  if (r < 0) {
    result.errorName = error.error.name != nullptr ? error.error.name : "local.errno";
    result.errorMessage = error.error.message != nullptr ? error.error.message : std::strerror(-r);
    return result;
  }
  result.signature = orEmpty(sd_bus_message_get_signature(reply.get(), 1));
  if (result.signature == "a{sv}") {
    result.reply = readDictionary(reply.get());
    if (sd_bus_message_rewind(reply.get(), 1) >= 0) result.replyTypes = readEntryTypes(reply.get());
  } else if (result.signature == "s") {
    const char* text = nullptr;
    if (sd_bus_message_read_basic(reply.get(), SD_BUS_TYPE_STRING, &text) > 0) result.text = orEmpty(text);
  }
  return result;
}

CallResult TestBusClient::callWithBody(const MethodTarget& target, std::string_view member,
                                       std::chrono::milliseconds timeout,
                                       const std::function<int(sd_bus_message*)>& appendBody) {
  MessagePtr request;
  int r = newCall(bus_, target, member, &request);
  if (r >= 0) r = appendBody(request.get());
  if (r < 0) return localFailure(r);
  return finishCall(request.get(), timeout);
}

CallResult TestBusClient::call(const MethodTarget& target, std::string_view member, const VelaDictionary& args,
                               std::chrono::milliseconds timeout) {
  return callWithBody(target, member, timeout, [&](sd_bus_message* m) { return appendDictionary(m, args); });
}

CallResult TestBusClient::callWithString(const MethodTarget& target, std::string_view member, std::string_view text,
                                         std::chrono::milliseconds timeout) {
  return callWithBody(target, member, timeout, [&](sd_bus_message* m) {
    return sd_bus_message_append_basic(m, SD_BUS_TYPE_STRING, std::string(text).c_str());
  });
}

CallResult TestBusClient::callWithUnmappableValue(const MethodTarget& target, std::string_view member,
                                                  std::chrono::milliseconds timeout) {
  return callWithBody(target, member, timeout, [](sd_bus_message* m) {
    return sd_bus_message_append(m, "a{sv}", 1, "topic", "o", "/not/a/property/list/value");
  });
}

std::uint64_t TestBusClient::sendWithoutReply(const MethodTarget& target, std::string_view member,
                                              const VelaDictionary& args) {
  MessagePtr request;
  int r = newCall(bus_, target, member, &request);
  if (r >= 0) r = sd_bus_message_set_expect_reply(request.get(), 0);
  if (r >= 0) r = appendDictionary(request.get(), args);
  std::uint64_t cookie = 0;
  if (r >= 0) r = sd_bus_send(bus_, request.get(), &cookie);
  // Nothing else may run this connection for a while: make sure the call
  // has left (it waits in the queue while the connection is still starting).
  if (r >= 0) r = sd_bus_flush(bus_);
  return r < 0 ? 0 : cookie;
}

std::optional<std::string> TestBusClient::introspect(std::string_view destination, std::string_view path) {
  sd_bus_message* raw = nullptr;
  const int r = sd_bus_message_new_method_call(bus_, &raw, std::string(destination).c_str(), std::string(path).c_str(),
                                               "org.freedesktop.DBus.Introspectable", "Introspect");
  if (r < 0) return std::nullopt;
  const MessagePtr request(raw);
  CallResult result = finishCall(request.get(), kDefaultTimeout);
  return result.text;
}

int TestBusClient::subscribeNotifications(std::string_view center) {
  const std::string interface(center);
  const std::string path = protocol::notificationCenterPath(center);
  sd_bus_slot* slot = nullptr;
  // sd_bus_match_signal waits for the bus to confirm the match.
  const int r = sd_bus_match_signal(bus_, &slot, nullptr, path.c_str(), interface.c_str(),
                                    protocol::kNotificationSignal.data(), &ClientCallbacks::notificationArrived, this);
  if (r < 0) return r;
  matches_.push_back(slot);
  return 0;
}

std::optional<ReceivedNotification> TestBusClient::waitNotification(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (!notifications_.empty()) {
      ReceivedNotification next = std::move(notifications_.front());
      notifications_.pop_front();
      return next;
    }
    const int r = sd_bus_process(bus_, nullptr);
    if (r < 0) return std::nullopt;
    if (r > 0) continue;
    const auto left =
        std::chrono::duration_cast<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return std::nullopt;
    if (sd_bus_wait(bus_, static_cast<std::uint64_t>(left.count())) < 0) return std::nullopt;
  }
}

int TestBusClient::postNotification(std::string_view center, std::string_view name, const VelaDictionary& userInfo) {
  const int r = daemon::emitNotification(bus_, center, name, userInfo);
  return r < 0 ? r : sd_bus_flush(bus_);
}

void TestBusClient::discardNotifications() {
  drain();
  notifications_.clear();
}

std::vector<std::uint64_t> TestBusClient::strayReplies() {
  drain();
  return strayReplies_;
}

int TestBusClient::drain() {
  int r = 0;
  while ((r = sd_bus_process(bus_, nullptr)) > 0) {
  }
  return r;
}

int ClientCallbacks::notificationArrived(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) {
  auto* client = static_cast<TestBusClient*>(userdata);
  ReceivedNotification notification;
  notification.sender = orEmpty(sd_bus_message_get_sender(message));
  notification.destination = orEmpty(sd_bus_message_get_destination(message));
  notification.path = orEmpty(sd_bus_message_get_path(message));
  notification.interface = orEmpty(sd_bus_message_get_interface(message));
  const char* name = nullptr;
  if (sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, &name) > 0) {
    notification.name = orEmpty(name);
    notification.userInfo = readDictionary(message);
  }
  client->notifications_.push_back(std::move(notification));
  return 0;
}

int ClientCallbacks::anyMessageArrived(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) {
  // Replies that a waiting call consumed never get here; whatever reply
  // does was not waited for.
  std::uint8_t type = 0;
  if (sd_bus_message_get_type(message, &type) < 0) return 0;
  if (type == SD_BUS_MESSAGE_METHOD_RETURN || type == SD_BUS_MESSAGE_METHOD_ERROR) {
    std::uint64_t cookie = 0;
    if (sd_bus_message_get_reply_cookie(message, &cookie) >= 0) {
      static_cast<TestBusClient*>(userdata)->strayReplies_.push_back(cookie);
    }
  }
  return 0;
}

}  // namespace vela::bus
