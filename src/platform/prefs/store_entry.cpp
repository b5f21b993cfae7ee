// SPDX-License-Identifier: MIT
// The store's entry point: what the library's loader asks the store's module
// for, and what a program that links the store in provides directly.
#include "platform/prefs/domain_router.h"
#include "platform/prefs/sqlite_store.h"

extern "C" __attribute__((visibility("default"))) vela::prefs::Store* velaPreferenceStore() {
  using vela::prefs::SqliteStore;
  // Never destroyed, like the stores it routes to.
  static auto* const router =  // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)
      new vela::prefs::DomainRouter(SqliteStore::shared(), SqliteStore::serviceReader());  // NOLINT(*-owning-memory)
  return router;
}
