// SPDX-License-Identifier: MIT
#pragma once

#include <memory>

#include "platform/bus/connection_core.h"

namespace vela::bus::detail {

// Lets exit() give `core`'s thread a bounded moment to write what it holds: a
// request sent without a reply returns before it leaves the process, so a
// host that exits right after one would lose it.
void registerForExitFlush(const std::shared_ptr<NamedConnection::Core>& core);

}  // namespace vela::bus::detail
