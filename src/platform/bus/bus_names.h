// SPDX-License-Identifier: MIT
#pragma once

namespace vela::bus {

// The privileged option of a named connection: the system-wide service on the
// system bus instead of one in the user's session bus.
inline constexpr unsigned kPrivilegedOption = 0x1000;

enum class BusKind { kSystem, kSession };

}  // namespace vela::bus
