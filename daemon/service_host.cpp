// SPDX-License-Identifier: MIT
#include "service_host.h"

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <exception>
#include <limits>
#include <utility>

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include "introspection_document.h"
#include "platform/bus/bus_handles.h"
#include "platform/bus/bus_names.h"
#include "platform/bus/variant_codec.h"
#include "protocol/names.h"

namespace vela::daemon {

using bus::MessagePtr;
namespace {

// Argument names as sd-bus wants them: inputs then outputs, each
// NUL-terminated.
constexpr std::string_view kParameterNames{"request\0reply\0", 14};
constexpr const char* kDictionarySignature = "a{sv}";
constexpr std::string_view kIntrospectable = "org.freedesktop.DBus.Introspectable";
constexpr std::string_view kIntrospect = "Introspect";

// Timers must fire close to when they were asked for: tests measure delays,
// and sd-event would otherwise coalesce them within 250 ms.
constexpr std::uint64_t kTimerAccuracyUs = 1000;

sd_bus_vtable zeroedVtableEntry() {
  // The entry is a union; the parts a kind of entry does not use must be
  // zero, so start from all-zero bytes rather than from an initializer.
  sd_bus_vtable entry;
  std::memset(&entry, 0, sizeof entry);
  return entry;
}

// Sends a method return built by `fill`; a body that cannot be built turns
// into a Failed error so the caller is answered all the same.
template <typename Fill>
int sendMethodReturn(sd_bus_message* call, Fill&& fill) {
  sd_bus_message* raw = nullptr;
  int r = sd_bus_message_new_method_return(call, &raw);
  if (r < 0) return r;
  MessagePtr reply(raw);
  r = fill(reply.get());
  if (r < 0) {
    sd_bus_reply_method_errorf(call, std::string(kFailedError).c_str(), "the reply could not be encoded: %s",
                               std::strerror(-r));
    return r;
  }
  r = sd_bus_send(nullptr, reply.get(), nullptr);
  return r < 0 ? r : 0;
}

int terminationSignalReceived(sd_event_source* source, const struct signalfd_siginfo* /*info*/, void* /*userdata*/) {
  return sd_event_exit(sd_event_source_get_event(source), 0);
}

}  // namespace

// --- ReplyToken ------------------------------------------------------------

ReplyToken::~ReplyToken() { sd_bus_message_unref(call_); }

ReplyToken::ReplyToken(ReplyToken&& other) noexcept : call_(std::exchange(other.call_, nullptr)) {}

ReplyToken& ReplyToken::operator=(ReplyToken&& other) noexcept {
  if (this != &other) {
    sd_bus_message_unref(call_);
    call_ = std::exchange(other.call_, nullptr);
  }
  return *this;
}

bool ReplyToken::expectsReply() const noexcept {
  return call_ != nullptr && sd_bus_message_get_expect_reply(call_) > 0;
}

sd_bus_message* ReplyToken::release() noexcept { return std::exchange(call_, nullptr); }

int ReplyToken::reply(const VelaDictionary& values, bus::FieldSets described) {
  const MessagePtr call(release());
  if (!call) return -EALREADY;
  if (sd_bus_message_get_expect_reply(call.get()) <= 0) return 0;
  return sendMethodReturn(call.get(),
                          [&](sd_bus_message* reply) { return bus::appendDictionary(reply, values, described); });
}

int ReplyToken::replyError(std::string_view name, std::string_view message) {
  const MessagePtr call(release());
  if (!call) return -EALREADY;
  if (sd_bus_message_get_expect_reply(call.get()) <= 0) return 0;
  const std::string errorName(name);
  const std::string errorMessage(message);
  const int r = sd_bus_reply_method_errorf(call.get(), errorName.c_str(), "%s", errorMessage.c_str());
  return r < 0 ? r : 0;
}

int ReplyToken::replyWithString(std::string_view text) {
  const MessagePtr call(release());
  if (!call) return -EALREADY;
  if (sd_bus_message_get_expect_reply(call.get()) <= 0) return 0;
  const std::string body(text);
  return sendMethodReturn(call.get(), [&](sd_bus_message* reply) {
    return sd_bus_message_append_basic(reply, SD_BUS_TYPE_STRING, body.c_str());
  });
}

// --- ServiceHost -----------------------------------------------------------

struct HostCallbacks {
  static int callFiltered(sd_bus_message* message, void* userdata, sd_bus_error* error);
  static int methodCalled(sd_bus_message* message, void* userdata, sd_bus_error* error);
  static int dispatch(const ServiceHost::Export& exported, sd_bus_message* message, sd_bus_error* error);
  static int introspect(const ServiceHost& host, sd_bus_message* message);
  static int timerFired(sd_event_source* source, std::uint64_t usec, void* userdata);
  static int replyArrived(sd_bus_message* reply, void* userdata, sd_bus_error* error);
  static int nameOwnerChanged(sd_bus_message* signal, void* userdata, sd_bus_error* error);
};

struct ServiceHost::Export {
  std::string path;
  std::string interface;
  // sd-bus keeps pointers into the vtable and its member names for as long
  // as the slot lives, so both stay here, unmoved, until the slot is gone.
  std::vector<std::string> members;
  std::vector<sd_bus_vtable> vtable;
  CallHandler handler;
  // The <interface> element introspection shows.
  std::string description;
  sd_bus_slot* slot = nullptr;

  Export() = default;
  Export(const Export&) = delete;
  Export& operator=(const Export&) = delete;
  Export(Export&&) = delete;
  Export& operator=(Export&&) = delete;
  ~Export() { sd_bus_slot_unref(slot); }
};

struct ServiceHost::Timer {
  ServiceHost* host = nullptr;
  sd_event_source* source = nullptr;
  std::function<void()> fire;

  Timer() = default;
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;
  Timer(Timer&&) = delete;
  Timer& operator=(Timer&&) = delete;
  ~Timer() { sd_event_source_unref(source); }
};

std::unique_ptr<ServiceHost> ServiceHost::open(bus::BusKind kind, std::string* whyNot) {
  auto fail = [whyNot](const char* what, int r) -> std::unique_ptr<ServiceHost> {
    if (whyNot != nullptr) *whyNot = std::string(what) + ": " + std::strerror(-r);
    return nullptr;
  };
  std::unique_ptr<ServiceHost> host(new ServiceHost());
  int r = sd_event_new(&host->event_);
  if (r < 0) return fail("cannot create an event loop", r);
  bus::BusPtr bus;
  r = bus::openPrivateBus(kind, bus);
  if (r < 0)
    return fail(
        kind == bus::BusKind::kSystem ? "cannot connect to the system bus" : "cannot connect to the session bus", r);
  r = sd_bus_attach_event(bus.get(), host->event_, SD_EVENT_PRIORITY_NORMAL);
  if (r < 0) return fail("cannot attach the bus to the event loop", r);
  // Without its bus a daemon has nothing left to do: end the loop.
  r = sd_bus_set_exit_on_disconnect(bus.get(), 1);
  if (r < 0) return fail("cannot watch the bus connection", r);
  // Calls to exported members are taken here, ahead of sd-bus's object
  // dispatch, because that dispatch holds every reply to the vtable's
  // signature and a test must be able to send a malformed one; so is
  // Introspect on an exported object (see HostCallbacks::introspect). The
  // vtables handle anything the filter passes on.
  r = sd_bus_add_filter(bus.get(), &host->filter_, &HostCallbacks::callFiltered, host.get());
  if (r < 0) return fail("cannot install the call filter", r);
  host->kind_ = kind;
  host->bus_ = bus.release();
  // Watched from the start, not from run(): a signal that arrives while the
  // daemon is still starting must end the loop, not the process.
  r = host->watchTerminationSignals();
  if (r < 0) return fail("cannot watch for termination signals", r);
  return host;
}

ServiceHost::~ServiceHost() {
  // Timers first: their closures may hold reply tokens, which hold the bus.
  timers_.clear();
  for (sd_event_source* source : signalSources_) sd_event_source_unref(source);
  exports_.clear();
  sd_bus_slot_unref(departures_);
  sd_bus_slot_unref(filter_);
  if (bus_ != nullptr) {
    sd_bus_detach_event(bus_);
    sd_bus_flush_close_unref(bus_);
  }
  sd_event_unref(event_);
}

int ServiceHost::exportInterface(std::string_view path, std::string_view interface, std::vector<std::string> members,
                                 CallHandler handler) {
  auto exported = std::make_unique<Export>();
  exported->path = std::string(path);
  exported->interface = std::string(interface);
  exported->members = std::move(members);
  exported->handler = std::move(handler);
  const std::optional<std::string_view> published = publishedInterface(interface);
  exported->description = published ? std::string(*published) : describeInterface(interface, exported->members, false);
  return addExport(std::move(exported));
}

int ServiceHost::exportCenter(std::string_view center) {
  auto exported = std::make_unique<Export>();
  exported->path = protocol::notificationCenterPath(center);
  exported->interface = std::string(center);
  if (sd_bus_interface_name_is_valid(exported->interface.c_str()) == 0 ||
      sd_bus_object_path_is_valid(exported->path.c_str()) == 0) {
    return -EINVAL;
  }
  const std::optional<std::string_view> published = publishedInterface(center);
  exported->description = published ? std::string(*published) : describeInterface(center, {}, true);
  // No members: the object is there for introspection, and so that the
  // paths above it lead to it.
  return addExport(std::move(exported));
}

int ServiceHost::addExport(std::unique_ptr<Export> exported) {
  // sd_bus_vtable is a C union: each entry sets the member its type selects.
  // NOLINTBEGIN(cppcoreguidelines-pro-type-union-access)
  sd_bus_vtable start = zeroedVtableEntry();
  start.type = _SD_BUS_VTABLE_START;
  start.x.start.element_size = sizeof(sd_bus_vtable);
  start.x.start.features = _SD_BUS_VTABLE_PARAM_NAMES;
  start.x.start.vtable_format_reference = &sd_bus_object_vtable_format;
  exported->vtable.push_back(start);
  for (const std::string& member : exported->members) {
    if (sd_bus_member_name_is_valid(member.c_str()) == 0) return -EINVAL;
    sd_bus_vtable method = zeroedVtableEntry();
    method.type = _SD_BUS_VTABLE_METHOD;
    // Who may call is the bus policy's decision, not the service's.
    method.flags = SD_BUS_VTABLE_UNPRIVILEGED;
    method.x.method.member = member.c_str();
    method.x.method.signature = kDictionarySignature;
    method.x.method.result = kDictionarySignature;
    method.x.method.handler = &HostCallbacks::methodCalled;
    method.x.method.names = kParameterNames.data();
    exported->vtable.push_back(method);
  }
  sd_bus_vtable end = zeroedVtableEntry();
  end.type = _SD_BUS_VTABLE_END;
  exported->vtable.push_back(end);
  // NOLINTEND(cppcoreguidelines-pro-type-union-access)

  const int r = sd_bus_add_object_vtable(bus_, &exported->slot, exported->path.c_str(), exported->interface.c_str(),
                                         exported->vtable.data(), exported.get());
  if (r < 0) return r;
  exports_.push_back(std::move(exported));
  return 0;
}

int HostCallbacks::callFiltered(sd_bus_message* message, void* userdata, sd_bus_error* error) {
  std::uint8_t type = 0;
  if (sd_bus_message_get_type(message, &type) < 0 || type != SD_BUS_MESSAGE_METHOD_CALL) return 0;
  const char* path = sd_bus_message_get_path(message);
  const char* interface = sd_bus_message_get_interface(message);
  const char* member = sd_bus_message_get_member(message);
  if (path == nullptr || member == nullptr) return 0;
  const auto& host = *static_cast<const ServiceHost*>(userdata);
  // A call may leave the interface out; Introspect is then the only one.
  if ((interface == nullptr || std::string_view(interface) == kIntrospectable) &&
      std::string_view(member) == kIntrospect) {
    return introspect(host, message);
  }
  if (interface == nullptr) return 0;
  for (const auto& exported : host.exports_) {
    if (exported->path != path || exported->interface != interface ||
        std::find(exported->members.begin(), exported->members.end(), member) == exported->members.end()) {
      continue;
    }
    if (sd_bus_message_has_signature(message, kDictionarySignature) <= 0) {
      sd_bus_reply_method_errorf(message, std::string(kInvalidArgsError).c_str(),
                                 "Invalid arguments '%s' to call %s.%s(), expecting '%s'.",
                                 sd_bus_message_get_signature(message, 1), interface, member, kDictionarySignature);
      return 1;
    }
    return dispatch(*exported, message, error);
  }
  return 0;
}

// sd-bus would describe velad's objects from their vtables, which cannot
// carry the published files' annotations (see introspection_document.h), so
// the objects velad exports are introspected here; the paths above them are
// left to sd-bus, which lists their children.
int HostCallbacks::introspect(const ServiceHost& host, sd_bus_message* message) {
  const std::string_view path = sd_bus_message_get_path(message);
  std::vector<std::string_view> interfaces;
  std::vector<std::string> children;
  for (const auto& exported : host.exports_) {
    if (exported->path == path) {
      interfaces.emplace_back(exported->description);
      continue;
    }
    // The first step of a path below this one; "/" has every path below it.
    const std::string prefix = path == "/" ? std::string(path) : std::string(path) + "/";
    if (exported->path.rfind(prefix, 0) != 0) continue;
    std::string child = exported->path.substr(prefix.size());
    child = child.substr(0, child.find('/'));
    if (std::find(children.begin(), children.end(), child) == children.end()) children.push_back(std::move(child));
  }
  if (interfaces.empty()) return 0;
  if (sd_bus_message_has_signature(message, "") <= 0) {
    sd_bus_reply_method_errorf(message, std::string(kInvalidArgsError).c_str(),
                               "Invalid arguments '%s' to call %s.%s(), expecting ''.",
                               sd_bus_message_get_signature(message, 1), std::string(kIntrospectable).c_str(),
                               std::string(kIntrospect).c_str());
    return 1;
  }
  try {
    const std::string document = introspectionDocument(interfaces, children);
    (void)sendMethodReturn(message, [&](sd_bus_message* reply) {
      return sd_bus_message_append_basic(reply, SD_BUS_TYPE_STRING, document.c_str());
    });
  } catch (const std::exception& e) {
    sd_bus_reply_method_errorf(message, std::string(kFailedError).c_str(), "%s", e.what());
  }
  return 1;
}

int HostCallbacks::methodCalled(sd_bus_message* message, void* userdata, sd_bus_error* error) {
  return dispatch(*static_cast<const ServiceHost::Export*>(userdata), message, error);
}

int HostCallbacks::dispatch(const ServiceHost::Export& exported, sd_bus_message* message, sd_bus_error* error) {
  try {
    IncomingCall call;
    call.interface = exported.interface;
    const char* member = sd_bus_message_get_member(message);
    const char* sender = sd_bus_message_get_sender(message);
    call.member = member != nullptr ? member : "";
    call.sender = sender != nullptr ? sender : "";
    call.allowsInteraction = sd_bus_message_get_allow_interactive_authorization(message) > 0;
    call.args = bus::readDictionary(message, &call.argsProblem);
    if (!call.args && call.argsProblem.empty()) call.argsProblem = "the request is not a property-list dictionary";
    call.reply = ReplyToken(sd_bus_message_ref(message));
    exported.handler(std::move(call));
  } catch (const std::exception& e) {
    // Nothing may unwind into sd-bus; the caller gets an error instead.
    return sd_bus_error_set(error, std::string(kFailedError).c_str(), e.what());
  } catch (...) {
    return sd_bus_error_set(error, std::string(kFailedError).c_str(), "the request handler failed");
  }
  // Answered now, later through the token, or never.
  return 1;
}

int ServiceHost::requestName(std::string_view name) {
  const int r = sd_bus_request_name(bus_, std::string(name).c_str(), 0);
  return r < 0 ? r : 0;
}

std::string ServiceHost::uniqueName() const {
  const char* unique = nullptr;
  if (sd_bus_get_unique_name(bus_, &unique) < 0 || unique == nullptr) return {};
  return unique;
}

int ServiceHost::emitNotification(std::string_view center, std::string_view name, const VelaDictionary& userInfo,
                                  std::string_view destination) {
  return daemon::emitNotification(bus_, center, name, userInfo, destination);
}

int ServiceHost::callMethod(const OutgoingCall& target, const ArgumentWriter& write, ReplyReader read,
                            std::chrono::microseconds timeout) {
  sd_bus_message* raw = nullptr;
  int r = sd_bus_message_new_method_call(bus_, &raw, std::string(target.destination).c_str(),
                                         std::string(target.path).c_str(), std::string(target.interface).c_str(),
                                         std::string(target.member).c_str());
  if (r < 0) return r;
  const MessagePtr call(raw);
  r = write(call.get());
  if (r < 0) return r;
  auto reader = std::make_unique<ReplyReader>(std::move(read));
  sd_bus_slot* slot = nullptr;
  r = sd_bus_call_async(bus_, &slot, call.get(), &HostCallbacks::replyArrived, reader.get(),
                        static_cast<std::uint64_t>(std::max<std::int64_t>(timeout.count(), 1)));
  if (r < 0) return r;
  // Floating: the bus owns the slot, and frees the reader with it, after the
  // reply or when the connection goes away unanswered.
  sd_bus_slot_set_floating(slot, 1);
  // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): the slot owns the reader released below
  sd_bus_slot_set_destroy_callback(slot, [](void* userdata) { delete static_cast<ReplyReader*>(userdata); });
  (void)reader.release();
  sd_bus_slot_unref(slot);
  return 0;
}

int HostCallbacks::replyArrived(sd_bus_message* reply, void* userdata, sd_bus_error* /*error*/) {
  const auto& read = *static_cast<const ReplyReader*>(userdata);
  try {
    const sd_bus_error* failure = sd_bus_message_get_error(reply);
    if (failure != nullptr) {
      read(nullptr, failure->name != nullptr ? failure->name : std::string(kFailedError));
    } else {
      read(reply, {});
    }
  } catch (...) {  // NOLINT(bugprone-empty-catch): nothing may unwind into sd-bus; the reader reports its own failures
  }
  return 0;
}

int ServiceHost::watchDepartures(std::function<void(const std::string& uniqueName)> left) {
  departed_ = std::move(left);
  return sd_bus_match_signal_async(bus_, &departures_, bus::kBusDriverName.data(), bus::kBusDriverPath.data(),
                                   bus::kBusDriverName.data(), "NameOwnerChanged", &HostCallbacks::nameOwnerChanged,
                                   nullptr, this);
}

int HostCallbacks::nameOwnerChanged(sd_bus_message* signal, void* userdata, sd_bus_error* /*error*/) {
  // Only the bus itself may announce a departure.
  const char* sender = sd_bus_message_get_sender(signal);
  if (sender == nullptr || std::string_view(sender) != bus::kBusDriverName) return 0;
  const char* name = nullptr;
  const char* oldOwner = nullptr;
  const char* newOwner = nullptr;
  if (sd_bus_message_read(signal, "sss", &name, &oldOwner, &newOwner) < 0) return 0;
  // A unique name that loses its owner is a connection gone for good.
  if (name[0] != ':' || newOwner[0] != '\0') return 0;
  try {
    static_cast<ServiceHost*>(userdata)->departed_(name);
  } catch (...) {  // NOLINT(bugprone-empty-catch): the loop must keep running
  }
  return 0;
}

std::optional<bool> ServiceHost::nameHasOwner(std::string_view name) {
  sd_bus_message* raw = nullptr;
  sd_bus_error error{};  // SD_BUS_ERROR_NULL, which C++ cannot spell
  const int r =
      sd_bus_call_method(bus_, bus::kBusDriverName.data(), bus::kBusDriverPath.data(), bus::kBusDriverName.data(),
                         "NameHasOwner", &error, &raw, "s", std::string(name).c_str());
  sd_bus_error_free(&error);
  const MessagePtr reply(raw);
  int owned = 0;
  if (r < 0 || sd_bus_message_read_basic(reply.get(), SD_BUS_TYPE_BOOLEAN, &owned) < 0) return std::nullopt;
  return owned != 0;
}

int ServiceHost::addTimer(std::chrono::microseconds delay, std::function<void()> fire) {
  auto timer = std::make_unique<Timer>();
  timer->host = this;
  timer->fire = std::move(fire);
  const auto usec = static_cast<std::uint64_t>(std::max<std::int64_t>(delay.count(), 0));
  const int r = sd_event_add_time_relative(event_, &timer->source, CLOCK_MONOTONIC, usec, kTimerAccuracyUs,
                                           &HostCallbacks::timerFired, timer.get());
  if (r < 0) return r;
  Timer* key = timer.get();
  timers_.emplace(key, std::move(timer));
  return 0;
}

int HostCallbacks::timerFired(sd_event_source* /*source*/, std::uint64_t /*usec*/, void* userdata) {
  auto* timer = static_cast<ServiceHost::Timer*>(userdata);
  auto node = timer->host->timers_.extract(timer);
  std::function<void()> fire = std::move(timer->fire);
  // Frees the timer and its source; sd-event allows a source to be released
  // from inside its own callback.
  node = {};
  try {
    fire();
  } catch (...) {
    // A timer has nobody to report to; the loop must keep running.
  }
  return 0;
}

int ServiceHost::watchTerminationSignals() {
  // sd-event reads signals through a signalfd, which sees only blocked ones.
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGTERM);
  sigaddset(&mask, SIGINT);
  int r = -pthread_sigmask(SIG_BLOCK, &mask, nullptr);
  if (r < 0) return r;
  for (const int signalNumber : {SIGTERM, SIGINT}) {
    sd_event_source* source = nullptr;
    r = sd_event_add_signal(event_, &source, signalNumber, &terminationSignalReceived, nullptr);
    if (r < 0) return r;
    signalSources_.push_back(source);
  }
  return 0;
}

int ServiceHost::feedWatchdog() {
  // sd-event reads the variables itself (sd_watchdog_enabled) and pings
  // between loop iterations.
  const int r = sd_event_set_watchdog(event_, 1);
  return r < 0 ? r : (r > 0 ? 1 : 0);
}

int ServiceHost::run() { return sd_event_loop(event_); }

void ServiceHost::exit(int code) { sd_event_exit(event_, code); }

}  // namespace vela::daemon
