// SPDX-License-Identifier: MIT
#include "platform/bus/client_bus.h"

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

namespace vela::bus::detail {
namespace {

// `value` escaped for a D-Bus address: every byte outside [-0-9A-Za-z_/.]
// as %xx.
std::string escapeAddressValue(std::string_view value) {
  constexpr std::string_view kHex = "0123456789abcdef";
  constexpr unsigned kNibble = 4;
  constexpr unsigned kLowNibble = 0xf;
  std::string escaped;
  escaped.reserve(value.size());
  for (const char c : value) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                       c == '_' || c == '/' || c == '.';
    if (plain) {
      escaped += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    escaped += '%';
    escaped += kHex[byte >> kNibble];
    escaped += kHex[byte & kLowNibble];
  }
  return escaped;
}

// None when the session bus has neither an address nor a runtime directory.
std::optional<std::string> busAddress(BusKind kind) {
  // secure_getenv: a set-user-ID caller must not be pointed at another bus.
  if (kind == BusKind::kSystem) {
    const char* address = secure_getenv("DBUS_SYSTEM_BUS_ADDRESS");
    return std::string(address != nullptr ? address : "unix:path=/run/dbus/system_bus_socket");
  }
  if (const char* address = secure_getenv("DBUS_SESSION_BUS_ADDRESS")) return std::string(address);
  const char* runtimeDir = secure_getenv("XDG_RUNTIME_DIR");
  if (runtimeDir == nullptr) return std::nullopt;
  return "unix:path=" + escapeAddressValue(runtimeDir) + "/bus";
}

}  // namespace

int callBusDriver(sd_bus* bus, const char* method, const char* argument, std::uint64_t* cookie) {
  sd_bus_message* message = nullptr;
  int r = sd_bus_message_new_method_call(bus, &message, kBusDriverName.data(), kBusDriverPath.data(),
                                         kBusDriverName.data(), method);
  if (r >= 0 && argument != nullptr) r = sd_bus_message_append_basic(message, 's', argument);
  if (r >= 0 && cookie == nullptr) r = sd_bus_message_set_expect_reply(message, 0);
  if (r >= 0) r = sd_bus_send(bus, message, cookie);
  sd_bus_message_unref(message);
  return r < 0 ? r : 0;
}

int openClientBus(BusKind kind, sd_bus** out, std::uint64_t& helloCookie) {
  const std::optional<std::string> address = busAddress(kind);
  if (!address) return -ENOMEDIUM;
  sd_bus* bus = nullptr;
  int r = sd_bus_new(&bus);
  if (r < 0) return r;
  r = sd_bus_set_address(bus, address->c_str());
  if (r >= 0) r = sd_bus_start(bus);
  if (r >= 0) r = callBusDriver(bus, "Hello", nullptr, &helloCookie);
  if (r < 0) {
    sd_bus_close_unref(bus);
    return r;
  }
  *out = bus;
  return 0;
}

}  // namespace vela::bus::detail
