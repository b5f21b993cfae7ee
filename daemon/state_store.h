// SPDX-License-Identifier: MIT
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <vela/VelaValue.h>

#include "daemon_state.h"

struct sqlite3;

// velad's state on disk, so that a restart, a crash or a power loss changes
// nothing a client was told. One SQLite file, readable by velad's user only:
// it holds the friends account's tokens.
//
// Every save is one transaction, committed and synced before it returns, so a
// caller that replies only after a successful save never acknowledges a change
// that a SIGKILL could lose; a save that fails leaves the file as it was.
//
// THREADING: velad's loop thread only.
namespace vela::daemon {

class StateStore {
 public:
  // The file inside the state directory.
  static constexpr std::string_view kFileName = "state.sqlite3";

  // Opens <directory>/state.sqlite3, creating the directory (0755) and the
  // file (0600) when they are missing. nullptr with the reason in `whyNot`
  // when the file cannot be opened or was written by a build of another
  // format.
  static std::unique_ptr<StateStore> open(const std::string& directory, std::string* whyNot);

  ~StateStore();
  StateStore(const StateStore&) = delete;
  StateStore& operator=(const StateStore&) = delete;
  StateStore(StateStore&&) = delete;
  StateStore& operator=(StateStore&&) = delete;

  // Replaces what `state` holds of the durable fields with what the file
  // holds. On first start the file holds no device identifiers; those of
  // `state` are saved then, and kept from then on. False with the reason when
  // the file cannot be read or saved to.
  [[nodiscard]] bool load(DaemonState& state, std::string* whyNot);

  // The settled locating state and the context of the request that asked for it.
  [[nodiscard]] bool saveLocus(std::int32_t settled, std::int32_t context);
  // nullptr: lost mode off.
  [[nodiscard]] bool saveLostMode(const VelaLostModeInfo* info);
  // nullptr: no friends account.
  [[nodiscard]] bool saveKithAccount(const VelaKithAccountInfo* account);
  [[nodiscard]] bool saveRegion(std::string_view region, bool inside);
  [[nodiscard]] bool saveTopic(std::string_view owner, std::string_view topic, bool listening);
  // Drops every topic of `owner`.
  [[nodiscard]] bool forgetTopicsOf(std::string_view owner);

  // Why the last call failed.
  const std::string& lastFailure() const noexcept { return failure_; }

 private:
  explicit StateStore(sqlite3* db) : db_(db) {}

  // Runs `sql` with `bind` filling its parameters, in a transaction of its own.
  template <typename Bind>
  [[nodiscard]] bool write(const char* sql, Bind&& bind);
  [[nodiscard]] bool saveValue(std::string_view key, const std::optional<VelaValue>& value);
  // Records SQLite's reason; always false.
  [[nodiscard]] bool fail();

  sqlite3* db_;
  std::string failure_;
};

}  // namespace vela::daemon
