// SPDX-License-Identifier: MIT
#pragma once

#include <string>

#include "platform/bus/bus_names.h"

namespace vela::daemon {

// Where velad keeps its state when not told: the first of the directories a
// service manager gives in $STATE_DIRECTORY, else /var/lib/vela for the
// system bus, else the user's own state directory for the session bus
// ($XDG_STATE_HOME/vela, ~/.local/state/vela). Empty when none can be found.
std::string defaultStateDirectory(bus::BusKind kind);

}  // namespace vela::daemon
