// SPDX-License-Identifier: MIT
#pragma once

#include <vela/VelaLostModeInfo.h>

namespace vela::daemon {

// Clients read lost mode from the preference store, not from velad, so every
// switch must be written there: `info` is the record lost mode was switched
// on with, nullptr when it was switched off.
//
// Not yet connected to the preference store; until it is, the switch is
// only logged and clients reading the store do not see it.
void publishLostModeToPreferences(const VelaLostModeInfo* info);

}  // namespace vela::daemon
