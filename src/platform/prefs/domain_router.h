// SPDX-License-Identifier: MIT
#pragma once

#include <mutex>
#include <string>

#include "platform/prefs/store.h"

namespace vela::prefs {

// The store a process other than the daemon sees: each domain goes to the
// store that holds it. The service's domains (isServiceDomain()) are read
// from the system-wide store and never written: a write to one is dropped
// before it reaches any file, and fails. Every other domain goes to the
// user's own store, reads and writes alike.
//
// Thread: any. Blocks: as the store a call goes to.
class DomainRouter final : public Store {
 public:
  // Both stores must outlive the router.
  DomainRouter(Store& user, Store& service) : user_(user), service_(service) {}

  std::optional<VelaValue> copyValue(std::string_view domain, std::string_view key) override;
  VelaDictionary copyDomain(std::string_view domain) override;
  [[nodiscard]] bool setValue(std::string_view domain, std::string_view key,
                              const std::optional<VelaValue>& value) override;
  void synchronize(std::string_view domain) override;

  // Why the last call failed: the last store's own reason, or that the write
  // was to a domain of the service.
  std::string lastFailure() override;

 private:
  // The store that holds `domain`, remembered for lastFailure().
  Store& route(std::string_view domain);

  Store& user_;
  Store& service_;
  std::mutex mutex_;
  Store* last_ = nullptr;  // guarded by mutex_, as is dropped_; null after a dropped write
  std::string dropped_;
};

}  // namespace vela::prefs
