// SPDX-License-Identifier: MIT
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <vela/VelaValue.h>

namespace vela::prefs {

// Preferences by domain and key, as the rest of the library uses them. A
// SqliteStore is one database (see sqlite_store.h for what each call does and
// how it fails); a DomainRouter sends each domain to the database that holds
// it.
class Store {
 public:
  virtual std::optional<VelaValue> copyValue(std::string_view domain, std::string_view key) = 0;
  virtual VelaDictionary copyDomain(std::string_view domain) = 0;
  [[nodiscard]] virtual bool setValue(std::string_view domain, std::string_view key,
                                      const std::optional<VelaValue>& value) = 0;
  virtual void synchronize(std::string_view domain) = 0;
  virtual std::string lastFailure() = 0;

  Store() = default;
  virtual ~Store() = default;
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;
  Store(Store&&) = delete;
  Store& operator=(Store&&) = delete;
};

// The process's store. In the shared library it lives in a module of its
// own, loaded when first needed, so that a process that never touches its
// preferences never loads SQLite and CBOR; a program that links the store in
// gets it directly. When the module cannot be loaded, the store reads
// nothing, refuses every write and says why in lastFailure().
// Thread: any.
Store& store();

}  // namespace vela::prefs

// What the store's module exports, and a program that links the store in
// defines: the process's DomainRouter, over the user's store and the
// service's read-only one.
extern "C" vela::prefs::Store* velaPreferenceStore();
