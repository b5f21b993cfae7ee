// SPDX-License-Identifier: MIT
#pragma once

#include <string_view>

namespace vela::bus {

// The privileged option of a named connection: the system-wide service on the
// system bus instead of one in the user's session bus.
inline constexpr unsigned kPrivilegedOption = 0x1000;

enum class BusKind { kSystem, kSession };

// The message bus itself: its name (also its interface's) and its object.
// Views of literals, so their data() ends in a NUL, as sd-bus wants.
inline constexpr std::string_view kBusDriverName = "org.freedesktop.DBus";
inline constexpr std::string_view kBusDriverPath = "/org/freedesktop/DBus";

}  // namespace vela::bus
