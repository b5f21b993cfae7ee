// SPDX-License-Identifier: MIT
#pragma once

#include <memory>

#include "platform/bus/named_connection.h"

namespace vela::bus::detail {

// The body of the connection's thread: opens the bus, sends what the handle
// queues, reads the bus when nobody else does and something awaits it, runs
// the host's handlers, and sleeps until there is work: a queued item, a
// message to handle, a time-out sd-bus asked for. Ends once the handle lets
// go and what is in flight is answered (or its grace is over).
void runLoop(const std::shared_ptr<NamedConnection::Core>& core);

}  // namespace vela::bus::detail
