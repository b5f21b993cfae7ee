// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <systemd/sd-bus.h>

#include "platform/bus/bus_names.h"

namespace vela::bus::detail {

// The address of the system or session bus: the one DBUS_SYSTEM_BUS_ADDRESS
// or DBUS_SESSION_BUS_ADDRESS names, else the usual socket (for the session
// bus, `bus` in XDG_RUNTIME_DIR). None when the session bus has neither.
std::optional<std::string> busAddress(BusKind kind);

// `value` escaped for a D-Bus address: every byte outside [-0-9A-Za-z_/.]
// as %xx.
std::string escapeAddressValue(std::string_view value);

// Opens a client connection to the bus of `kind` and queues the Hello every
// bus expects first. The caller takes the reply, matched by `helloCookie`:
// had sd-bus sent Hello itself, it would keep a reply callback table from
// then on and look every reply the connection gets up in it. Returns 0 or
// a negative errno; `*out` is set only on success.
int openClientBus(BusKind kind, sd_bus** out, std::uint64_t& helloCookie);

}  // namespace vela::bus::detail
