// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <vela/VelaError.h>

// velad's own errors: answers in which the daemon understood the request and
// declined it. They travel inside the reply under "error"; malformed requests
// are refused at the bus level instead (InvalidArgs).
namespace vela::daemon {

inline constexpr std::string_view kDaemonErrorDomain = kVelaDaemonErrorDomain;

[[nodiscard]] inline VelaError daemonError(VelaDaemonErrorCode code, std::string failureReason) {
  return VelaError(std::string(kDaemonErrorDomain), std::int64_t{code},
                   VelaDictionary{{std::string(kVelaErrorFailureReasonKey), std::move(failureReason)}});
}

}  // namespace vela::daemon
