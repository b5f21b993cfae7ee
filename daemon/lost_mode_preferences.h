// SPDX-License-Identifier: MIT
#pragma once

#include <vela/VelaLostModeInfo.h>

namespace vela::daemon {

// Clients read lost mode from the preference store, not from velad, so every
// switch is written there: `info` is the record lost mode was switched on
// with, nullptr when it was switched off. Writes the "LocusLostModeInfo" entry
// of the public not-backed-up domain ({"lostModeEnabled": true,
// "lostModeMessage": ..., "lostModeOwnerNumber": ...}, nil fields left out)
// or removes it. A write that fails is logged; velad carries on.
void publishLostModeToPreferences(const VelaLostModeInfo* info);

}  // namespace vela::daemon
