// SPDX-License-Identifier: MIT
#include "bare_call.h"

#include <cstring>

#include "protocol/names.h"

namespace vela::bench {
namespace {

constexpr const char* kMember = "GetLocusDeviceId";

}  // namespace

std::optional<std::string> readDeviceId(sd_bus_message* reply) {
  if (sd_bus_message_enter_container(reply, SD_BUS_TYPE_ARRAY, "{sv}") <= 0) return std::nullopt;
  std::optional<std::string> id;
  while (sd_bus_message_enter_container(reply, SD_BUS_TYPE_DICT_ENTRY, "sv") > 0) {
    const char* key = nullptr;
    if (sd_bus_message_read_basic(reply, SD_BUS_TYPE_STRING, &key) < 0) return std::nullopt;
    if (std::strcmp(key, "deviceId") == 0 && sd_bus_message_enter_container(reply, SD_BUS_TYPE_VARIANT, "s") > 0) {
      const char* value = nullptr;
      if (sd_bus_message_read_basic(reply, SD_BUS_TYPE_STRING, &value) < 0) return std::nullopt;
      id = value;
      if (sd_bus_message_exit_container(reply) < 0) return std::nullopt;
    } else if (sd_bus_message_skip(reply, "v") < 0) {
      return std::nullopt;
    }
    if (sd_bus_message_exit_container(reply) < 0) return std::nullopt;
  }
  if (sd_bus_message_exit_container(reply) < 0) return std::nullopt;
  return id;
}

BareConnection::BareConnection() {
  if (const int r = sd_bus_open_system(&bus_); r < 0) {
    bus_ = nullptr;
    whyNot_ = "sd_bus_open_system: " + std::string(std::strerror(-r));
  }
}

BareConnection::~BareConnection() { sd_bus_flush_close_unref(bus_); }

std::optional<std::string> BareConnection::locusDeviceId() {
  sd_bus_error error{nullptr, nullptr, 0};  // SD_BUS_ERROR_NULL is a C compound literal
  sd_bus_message* reply = nullptr;
  std::optional<std::string> id;
  if (sd_bus_call_method(bus_, vela::protocol::kServiceName.data(), vela::protocol::kObjectPath.data(),
                         vela::protocol::kHandsetActionsInterface.data(), kMember, &error, &reply, "a{sv}", 0) >= 0) {
    id = readDeviceId(reply);
  }
  sd_bus_message_unref(reply);
  sd_bus_error_free(&error);
  return id;
}

}  // namespace vela::bench
