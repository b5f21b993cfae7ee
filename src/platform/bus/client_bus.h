// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>

#include <systemd/sd-bus.h>

#include "platform/bus/bus_names.h"

namespace vela::bus::detail {

// Opens a client connection to the bus of `kind`, at the address that
// DBUS_SYSTEM_BUS_ADDRESS or DBUS_SESSION_BUS_ADDRESS names, else the usual
// socket (for the session bus, `bus` in XDG_RUNTIME_DIR), and queues the
// Hello every bus expects first. The caller takes the reply, matched by
// `helloCookie`: had sd-bus sent Hello itself, it would keep a reply
// callback table from then on and look every reply the connection gets up
// in it. Returns 0 or a negative errno; `*out` is set only on success.
int openClientBus(BusKind kind, sd_bus** out, std::uint64_t& helloCookie);

// Calls `method` of the bus itself, with one string argument unless it is
// null. Its reply, matched by `cookie`, comes back unclaimed from
// sd_bus_process(); with no cookie, none is asked for. Returns 0 or a
// negative errno.
int callBusDriver(sd_bus* bus, const char* method, const char* argument, std::uint64_t* cookie);

}  // namespace vela::bus::detail
