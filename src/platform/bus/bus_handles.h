// SPDX-License-Identifier: MIT
#pragma once

#include <memory>

#include <systemd/sd-bus.h>

#include "platform/bus/bus_names.h"

// Owning handles for sd-bus objects, so that every early return
// releases what it took.
namespace vela::bus {

struct BusUnref {
  // Flushes queued replies before closing: a reply queued just before
  // shutdown must still leave.
  void operator()(sd_bus* bus) const noexcept { sd_bus_flush_close_unref(bus); }
};
struct MessageUnref {
  void operator()(sd_bus_message* message) const noexcept { sd_bus_message_unref(message); }
};

using BusPtr = std::unique_ptr<sd_bus, BusUnref>;
using MessagePtr = std::unique_ptr<sd_bus_message, MessageUnref>;

// Frees a sd_bus_error on scope exit.
struct ScopedBusError {
  // SD_BUS_ERROR_NULL is a C compound literal, which C++ does not have.
  sd_bus_error error{nullptr, nullptr, 0};
  ScopedBusError() = default;
  ScopedBusError(const ScopedBusError&) = delete;
  ScopedBusError& operator=(const ScopedBusError&) = delete;
  ScopedBusError(ScopedBusError&&) = delete;
  ScopedBusError& operator=(ScopedBusError&&) = delete;
  ~ScopedBusError() { sd_bus_error_free(&error); }
};

// Opens a connection of our own (never the process's shared default one), at
// the address that DBUS_SYSTEM_BUS_ADDRESS or DBUS_SESSION_BUS_ADDRESS names
// when set. Returns 0 or a negative errno.
inline int openPrivateBus(BusKind kind, BusPtr& out) {
  sd_bus* bus = nullptr;
  const int r = kind == BusKind::kSystem ? sd_bus_open_system(&bus) : sd_bus_open_user(&bus);
  if (r < 0) return r;
  out.reset(bus);
  return 0;
}

}  // namespace vela::bus
