// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <vela/VelaValue.h>

#include "platform/bus/bus_names.h"

struct sd_bus;
struct sd_bus_message;
struct sd_bus_slot;

// A blocking bus client for tests: it can send what a well-behaved client
// never would (bodies that are not a{sv}, values with no property-list
// meaning), send without expecting a reply, read any reply shape, and catch
// signals and unrequested replies. Test-only; not part of the library.
//
// THREADING: one thread at a time. Nothing runs in the background: signals
// and stray replies are collected while a call waits or a wait method runs.
namespace vela::bus {

// Where a method call goes.
struct MethodTarget {
  std::string destination;
  std::string path;
  std::string interface;
};

// What a method call came back with.
struct CallResult {
  // The D-Bus error name of an error reply or of a local failure (a timeout,
  // a lost bus); empty for a method return.
  std::string errorName;
  std::string errorMessage;
  // Signature of the method return's body.
  std::string signature;
  // The body, when it is an a{sv} that decodes.
  std::optional<VelaDictionary> reply;
  // The D-Bus type each key of an a{sv} body carried, as the sender wrote it.
  std::map<std::string, std::string, std::less<>> replyTypes;
  // The body, when it is a single string.
  std::optional<std::string> text;

  bool failed() const noexcept { return !errorName.empty(); }
};

// A Notification signal as it arrived.
struct ReceivedNotification {
  std::string sender;
  std::string destination;
  std::string path;
  std::string interface;
  std::string name;
  // nullopt when the user info did not decode.
  std::optional<VelaDictionary> userInfo;
};

class TestBusClient {
 public:
  static constexpr std::chrono::milliseconds kDefaultTimeout{5000};

  // Opens a connection of its own to the system or session bus (honouring
  // DBUS_SYSTEM_BUS_ADDRESS / DBUS_SESSION_BUS_ADDRESS). nullptr on failure,
  // with the reason in `whyNot`.
  static std::unique_ptr<TestBusClient> open(BusKind kind, std::string* whyNot = nullptr);

  ~TestBusClient();
  TestBusClient(const TestBusClient&) = delete;
  TestBusClient& operator=(const TestBusClient&) = delete;
  TestBusClient(TestBusClient&&) = delete;
  TestBusClient& operator=(TestBusClient&&) = delete;

  std::string uniqueName() const;

  // The unique name owning `name`, "" when it has no owner. Blocks.
  std::string nameOwner(std::string_view name);

  // Waits until `uniqueName` has left the bus, as the bus announces it.
  // Every connection that watches departures has been told before this
  // returns true. False when `timeout` passes first.
  bool waitUntilGone(std::string_view uniqueName, std::chrono::milliseconds timeout = kDefaultTimeout);

  // Calls `member` with `args` as its one a{sv} argument and waits for the
  // answer. Blocks: up to `timeout`.
  CallResult call(const MethodTarget& target, std::string_view member, const VelaDictionary& args,
                  std::chrono::milliseconds timeout = kDefaultTimeout);
  // Calls with one string as the whole body.
  CallResult callWithString(const MethodTarget& target, std::string_view member, std::string_view text,
                            std::chrono::milliseconds timeout = kDefaultTimeout);
  // Calls with an a{sv} whose one entry holds an object path: well-formed
  // D-Bus, but no property-list value.
  CallResult callWithUnmappableValue(const MethodTarget& target, std::string_view member,
                                     std::chrono::milliseconds timeout = kDefaultTimeout);
  // Sends `member` with the no-reply-expected flag. Returns the call's
  // cookie, 0 when it could not be sent.
  std::uint64_t sendWithoutReply(const MethodTarget& target, std::string_view member, const VelaDictionary& args);

  // Introspection XML of the object at `path`, nullopt on failure. Blocks.
  std::optional<std::string> introspect(std::string_view destination, std::string_view path);

  // Collects Notification signals of `center` (interface `center` at its
  // derived path), whoever sends them. Returns once the bus has the match,
  // so a notification posted afterwards is caught. 0 or a negative errno.
  int subscribeNotifications(std::string_view center);
  // The next collected notification, waiting up to `timeout` for one.
  std::optional<ReceivedNotification> waitNotification(std::chrono::milliseconds timeout = kDefaultTimeout);
  // Posts Notification(name, userInfo) on `center` from this connection, to
  // everyone. Returns once the bus has it. 0 or a negative errno.
  int postNotification(std::string_view center, std::string_view name, const VelaDictionary& userInfo);
  // Drops every notification that has arrived so far, collected or not.
  void discardNotifications();

  // Cookies of the calls answered by replies that nobody waited for, after
  // handling everything that has already arrived. Does not wait.
  std::vector<std::uint64_t> strayReplies();

 private:
  TestBusClient() = default;

  CallResult callWithBody(const MethodTarget& target, std::string_view member, std::chrono::milliseconds timeout,
                          const std::function<int(sd_bus_message*)>& appendBody);
  CallResult finishCall(sd_bus_message* request, std::chrono::milliseconds timeout);
  int drain();

  // The sd-bus callbacks, defined with the implementation.
  friend struct ClientCallbacks;

  sd_bus* bus_ = nullptr;
  sd_bus_slot* filter_ = nullptr;
  std::vector<sd_bus_slot*> matches_;
  std::deque<ReceivedNotification> notifications_;
  std::vector<std::uint64_t> strayReplies_;
};

}  // namespace vela::bus
