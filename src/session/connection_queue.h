// SPDX-License-Identifier: MIT
#pragma once

#include <memory>

#include "platform/dispatch/serial_queue.h"

namespace vela::session {

// The process-wide queue that serialises connection creation for every
// session. init() replaces it; sessions always use the newest one.
void replaceConnectionCreationQueue();

// The current queue. A process whose first session came from
// initWithDelegate() has none yet; one is made then rather than failing.
std::shared_ptr<dispatch::SerialQueue> connectionCreationQueue();

}  // namespace vela::session
