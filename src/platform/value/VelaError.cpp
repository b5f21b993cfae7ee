// SPDX-License-Identifier: MIT
#include <vela/VelaError.h>

std::optional<std::string> VelaError::failureReason() const {
  auto it = userInfo_.find(kVelaErrorFailureReasonKey);
  if (it == userInfo_.end()) return std::nullopt;
  if (const std::string* reason = it->second.asString()) return *reason;
  return std::nullopt;
}
