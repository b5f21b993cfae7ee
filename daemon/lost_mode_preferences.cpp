// SPDX-License-Identifier: MIT
#include "lost_mode_preferences.h"

#include "log.h"

namespace vela::daemon {

void publishLostModeToPreferences(const VelaLostModeInfo* info) {
  logVerbose(info != nullptr ? "lost mode on (preference store not written yet)"
                             : "lost mode off (preference store not written yet)");
}

}  // namespace vela::daemon
