// SPDX-License-Identifier: MIT
#pragma once

// The side of a connection that touches sd-bus.

#include <chrono>
#include <memory>
#include <mutex>

#include "platform/bus/connection_core.h"

namespace vela::bus::detail {

// The body of the connection's thread: opens the bus and serves it until the
// handle lets go (and what is in flight is answered, or its grace is over).
void runLoop(const std::shared_ptr<NamedConnection::Core>& core);

// Sends `request` from the calling thread, which holds busMutex through
// `lock`, and, unless another caller is already reading the bus, reads it
// until its own answer has been delivered or `deadline` passes. A caller that
// finds a reader in place waits, without the bus, for that reader to deliver
// its answer or to hand the bus over. Returns with `lock` released.
NamedConnection::Delivery callAndWait(Loop& loop, Request request, std::chrono::steady_clock::time_point deadline,
                                      std::unique_lock<BusMutex>& lock);

}  // namespace vela::bus::detail
