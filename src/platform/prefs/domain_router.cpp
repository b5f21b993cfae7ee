// SPDX-License-Identifier: MIT
#include "platform/prefs/domain_router.h"

#include "platform/prefs/service_domains.h"

namespace vela::prefs {

std::optional<VelaValue> DomainRouter::copyValue(std::string_view domain, std::string_view key) {
  return route(domain).copyValue(domain, key);
}

VelaDictionary DomainRouter::copyDomain(std::string_view domain) { return route(domain).copyDomain(domain); }

bool DomainRouter::setValue(std::string_view domain, std::string_view key, const std::optional<VelaValue>& value) {
  if (isServiceDomain(domain)) {
    // Not even handed to the read-only store: nothing may be created or
    // opened for it, and the caller learns no more than that it failed.
    const std::lock_guard lock(mutex_);
    last_ = nullptr;
    dropped_ = std::string(domain) + " belongs to the service: only the daemon writes it";
    return false;
  }
  return route(domain).setValue(domain, key, value);
}

void DomainRouter::synchronize(std::string_view domain) { route(domain).synchronize(domain); }

std::string DomainRouter::lastFailure() {
  Store* last = nullptr;
  {
    const std::lock_guard lock(mutex_);
    if (last_ == nullptr) return dropped_;
    last = last_;
  }
  return last->lastFailure();
}

Store& DomainRouter::route(std::string_view domain) {
  Store& chosen = isServiceDomain(domain) ? service_ : user_;
  const std::lock_guard lock(mutex_);
  last_ = &chosen;
  return chosen;
}

}  // namespace vela::prefs
