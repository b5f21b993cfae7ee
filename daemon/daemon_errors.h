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

inline constexpr std::string_view kDaemonErrorDomain = "com.zentrex.VelaNotification.daemon";

enum class DaemonErrorCode : std::int64_t {
  // A value the request needs was nil. Fix the request; retrying it as it is
  // fails again.
  kMissingValue = 1,
  // No friends account has that user name. Nothing was removed; read the
  // account again before retrying.
  kUnknownKithAccount = 2,
  // The locating state is still switching. Retry once the state has settled
  // (it is announced on the daemon's notification center).
  kLocusSwitchInProgress = 3,
  // The vetted address cannot receive mail. Reported in a vetting's finish.
  kUndeliverableAddress = 4,
};

[[nodiscard]] inline VelaError daemonError(DaemonErrorCode code, std::string failureReason) {
  return VelaError(std::string(kDaemonErrorDomain), static_cast<std::int64_t>(code),
                   VelaDictionary{{std::string(kVelaErrorFailureReasonKey), std::move(failureReason)}});
}

}  // namespace vela::daemon
