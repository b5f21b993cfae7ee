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

// Lets every user list and read `directory`, whatever mode it was made with
// (the state store makes a missing one readable by all already): the
// service's public preferences live in it. The files that must stay private
// set their own modes. Returns "" when done, else what went wrong.
std::string openStateDirectoryToEveryUser(const std::string& directory);

}  // namespace vela::daemon
