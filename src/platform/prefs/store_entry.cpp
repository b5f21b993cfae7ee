// SPDX-License-Identifier: MIT
// The store's entry point: what the library's loader asks the store's module
// for, and what a program that links the store in provides directly.
#include "platform/prefs/sqlite_store.h"

extern "C" __attribute__((visibility("default"))) vela::prefs::Store* velaPreferenceStore() {
  return &vela::prefs::SqliteStore::shared();
}
