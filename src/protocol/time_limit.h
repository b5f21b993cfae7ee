// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>

namespace vela::protocol {

// How long a synchronous operation waits for the daemon's answer. Clients
// and velad share it: velad's testing delays and the tests' bounds derive
// from it rather than repeating the number.
inline constexpr std::chrono::seconds kReplyTimeLimit{5};

}  // namespace vela::protocol
