// SPDX-License-Identifier: MIT
#include "state_store.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include <sqlite3.h>

#include "log.h"
#include "platform/prefs/cbor_codec.h"
#include "platform/prefs/sqlite_files.h"
#include "protocol/locus_state.h"
#include "records/archive_io.h"

namespace vela::daemon {
namespace {

// The layout below, kept in the file's user_version; a file of another
// version belongs to another build and is refused, never rewritten.
constexpr int kFormatVersion = 1;

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS state (key TEXT PRIMARY KEY, value BLOB NOT NULL) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS regions (name TEXT PRIMARY KEY) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS topics (owner TEXT, topic TEXT, PRIMARY KEY (owner, topic)) WITHOUT ROWID;"
    "PRAGMA user_version = 1;";

// Keys of the state table.
constexpr std::string_view kLocusKey = "locus";
constexpr std::string_view kLocusStateField = "state";
constexpr std::string_view kLocusContextField = "context";
constexpr std::string_view kKithDeviceIdKey = "kithDeviceId";
constexpr std::string_view kLocusDeviceIdKey = "locusDeviceId";
constexpr std::string_view kLostModeKey = "lostMode";
constexpr std::string_view kKithAccountKey = "kithAccount";

struct StatementFinalizer {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

Statement prepare(sqlite3* db, const char* sql) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(db, sql, -1, &statement, nullptr) != SQLITE_OK) {
    sqlite3_finalize(statement);
    return nullptr;
  }
  return Statement(statement);
}

std::string_view columnText(sqlite3_stmt* statement, int column) {
  const auto* text = sqlite3_column_text(statement, column);
  if (text == nullptr) return {};
  return {reinterpret_cast<const char*>(text),  // NOLINT(cppcoreguidelines-pro-type-reinterpret-cast): SQLite's UTF-8
          static_cast<std::size_t>(sqlite3_column_bytes(statement, column))};
}

// The file exists, velad's alone, before SQLite opens it; one left with a
// wider mode (copied in by hand, say) is narrowed. The directory is readable
// by all: the service's public preferences live there too.
[[nodiscard]] bool preparePrivateFile(const std::string& path, std::string* whyNot) {
  prefs::createDatabaseFile(path, 0755, 0600);
  if (::chmod(path.c_str(), 0600) == 0) return true;
  *whyNot = "cannot create " + path + " for velad alone: " + std::strerror(errno);
  return false;
}

std::optional<VelaValue> decodeColumn(sqlite3_stmt* statement, int column) {
  const void* blob = sqlite3_column_blob(statement, column);
  const int size = sqlite3_column_bytes(statement, column);
  if (blob == nullptr || size <= 0) return std::nullopt;
  return prefs::decodeValue({static_cast<const std::uint8_t*>(blob), static_cast<std::size_t>(size)});
}

std::optional<std::int32_t> int32Field(const VelaDictionary& dictionary, std::string_view key) {
  const auto found = dictionary.find(key);
  if (found == dictionary.end()) return std::nullopt;
  const auto* value = found->second.getIf<std::int64_t>();
  if (value == nullptr || *value < INT32_MIN || *value > INT32_MAX) return std::nullopt;
  return static_cast<std::int32_t>(*value);
}

// Takes one saved value into `state`. A value this build cannot read is
// logged and left out: velad starts with the rest rather than not at all.
void restore(DaemonState& state, std::string_view key, const VelaValue& value) {
  if (key == kLocusKey) {
    const auto* locus = value.getIf<VelaDictionary>();
    const auto settled = locus != nullptr ? int32Field(*locus, kLocusStateField) : std::nullopt;
    // A switch that was under way when velad stopped has settled since.
    if (settled && (*settled == protocol::kLocusStateOn || *settled == protocol::kLocusStateOff)) {
      state.locusState = *settled;
      state.lastLocusContext = int32Field(*locus, kLocusContextField);
      return;
    }
  } else if (key == kKithDeviceIdKey || key == kLocusDeviceIdKey) {
    if (const auto* id = value.getIf<std::string>()) {
      (key == kKithDeviceIdKey ? state.kithDeviceId : state.locusDeviceId) = *id;
      return;
    }
  } else if (key == kLostModeKey) {
    if (auto info = records::unarchiveRecord<VelaLostModeInfo>(value)) {
      state.lostMode = std::move(info);
      return;
    }
  } else if (key == kKithAccountKey) {
    if (auto account = records::unarchiveRecord<VelaKithAccountInfo>(value)) {
      state.kithAccount = std::move(account);
      return;
    }
  } else {
    return;  // a key of a later build of the same format: not ours to read
  }
  log(LogLevel::kWarning, "saved state: cannot read \"" + printable(key) + "\"; starting without it");
}

}  // namespace

std::unique_ptr<StateStore> StateStore::open(const std::string& directory, std::string* whyNot) {
  const std::string path = directory + "/" + std::string(kFileName);
  if (!preparePrivateFile(path, whyNot)) return nullptr;
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW, nullptr) != SQLITE_OK) {
    *whyNot = "cannot open " + path + ": " + sqlite3_errmsg(db);
    sqlite3_close(db);
    return nullptr;
  }
  std::unique_ptr<StateStore> store(new StateStore(db));
  // Another velad starting at the same moment waits rather than failing.
  sqlite3_busy_timeout(db, 5000);
  const std::optional<int> version = prefs::formatVersion(db);
  if (!version) {
    *whyNot = "cannot read " + path + ": " + sqlite3_errmsg(db);
    return nullptr;
  }
  const int found = *version;
  if (found != 0 && found != kFormatVersion) {
    *whyNot = path + " has format version " + std::to_string(found) + ", which this velad does not know (it uses " +
              std::to_string(kFormatVersion) + "); left untouched";
    return nullptr;
  }
  // synchronous=FULL: a commit is on disk before the call that made it returns.
  if (sqlite3_exec(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;", nullptr, nullptr, nullptr) != SQLITE_OK ||
      sqlite3_exec(db, (std::string("BEGIN IMMEDIATE;") + kSchema + "COMMIT;").c_str(), nullptr, nullptr, nullptr) !=
          SQLITE_OK) {
    *whyNot = "cannot prepare " + path + ": " + sqlite3_errmsg(db);
    return nullptr;
  }
  return store;
}

StateStore::~StateStore() { sqlite3_close(db_); }

bool StateStore::load(DaemonState& state, std::string* whyNot) {
  const Statement values = prepare(db_, "SELECT key, value FROM state");
  const Statement regions = prepare(db_, "SELECT name FROM regions");
  const Statement topics = prepare(db_, "SELECT owner, topic FROM topics");
  if (!values || !regions || !topics) {
    *whyNot = std::string("cannot read the saved state: ") + sqlite3_errmsg(db_);
    return false;
  }
  bool hasDeviceIds = false;
  int r = SQLITE_ROW;
  while ((r = sqlite3_step(values.get())) == SQLITE_ROW) {
    const std::string_view key = columnText(values.get(), 0);
    hasDeviceIds = hasDeviceIds || key == kLocusDeviceIdKey;
    if (const std::optional<VelaValue> value = decodeColumn(values.get(), 1)) {
      restore(state, key, *value);
    } else {
      log(LogLevel::kWarning, "saved state: cannot decode \"" + printable(key) + "\"; starting without it");
    }
  }
  if (r == SQLITE_DONE) {
    while ((r = sqlite3_step(regions.get())) == SQLITE_ROW)
      state.kithRegionsInside.emplace(columnText(regions.get(), 0));
  }
  if (r == SQLITE_DONE) {
    while ((r = sqlite3_step(topics.get())) == SQLITE_ROW) {
      state.topics[std::string(columnText(topics.get(), 0))].emplace(columnText(topics.get(), 1));
    }
  }
  if (r != SQLITE_DONE) {
    *whyNot = std::string("cannot read the saved state: ") + sqlite3_errmsg(db_);
    return false;
  }
  // First start: the identifiers made for this run become the machine's.
  if (!hasDeviceIds && (!saveValue(kKithDeviceIdKey, VelaValue(state.kithDeviceId)) ||
                        !saveValue(kLocusDeviceIdKey, VelaValue(state.locusDeviceId)))) {
    *whyNot = failure_;
    return false;
  }
  return true;
}

template <typename Bind>
bool StateStore::write(const char* sql, Bind&& bind) {
  const Statement statement = prepare(db_, sql);
  // Each statement commits on its own (autocommit), synced before step returns.
  if (!statement || !bind(statement.get()) || sqlite3_step(statement.get()) != SQLITE_DONE) return fail();
  failure_.clear();
  return true;
}

bool StateStore::saveValue(std::string_view key, const std::optional<VelaValue>& value) {
  if (!value) {
    return write("DELETE FROM state WHERE key = ?1",
                 [&](sqlite3_stmt* s) { return prefs::bindText(s, 1, key) == SQLITE_OK; });
  }
  const std::optional<std::vector<std::uint8_t>> encoded = prefs::encodeValue(*value);
  if (!encoded) {
    failure_ = "cannot encode \"" + std::string(key) + "\"";
    return false;
  }
  return write("INSERT OR REPLACE INTO state (key, value) VALUES (?1, ?2)", [&](sqlite3_stmt* s) {
    return prefs::bindText(s, 1, key) == SQLITE_OK &&
           sqlite3_bind_blob64(s, 2, encoded->data(), encoded->size(), SQLITE_STATIC) == SQLITE_OK;
  });
}

bool StateStore::saveLocus(std::int32_t settled, std::int32_t context) {
  return saveValue(kLocusKey, VelaValue(VelaDictionary{{std::string(kLocusStateField), std::int64_t{settled}},
                                                       {std::string(kLocusContextField), std::int64_t{context}}}));
}

bool StateStore::saveLostMode(const VelaLostModeInfo* info) {
  return saveValue(kLostModeKey,
                   info != nullptr ? std::optional<VelaValue>(records::archiveRecord(*info)) : std::nullopt);
}

bool StateStore::saveKithAccount(const VelaKithAccountInfo* account) {
  return saveValue(kKithAccountKey,
                   account != nullptr ? std::optional<VelaValue>(records::archiveRecord(*account)) : std::nullopt);
}

bool StateStore::saveRegion(std::string_view region, bool inside) {
  return write(inside ? "INSERT OR IGNORE INTO regions (name) VALUES (?1)" : "DELETE FROM regions WHERE name = ?1",
               [&](sqlite3_stmt* s) { return prefs::bindText(s, 1, region) == SQLITE_OK; });
}

bool StateStore::saveTopic(std::string_view owner, std::string_view topic, bool listening) {
  return write(listening ? "INSERT OR IGNORE INTO topics (owner, topic) VALUES (?1, ?2)"
                         : "DELETE FROM topics WHERE owner = ?1 AND topic = ?2",
               [&](sqlite3_stmt* s) {
                 return prefs::bindText(s, 1, owner) == SQLITE_OK && prefs::bindText(s, 2, topic) == SQLITE_OK;
               });
}

bool StateStore::forgetTopicsOf(std::string_view owner) {
  return write("DELETE FROM topics WHERE owner = ?1",
               [&](sqlite3_stmt* s) { return prefs::bindText(s, 1, owner) == SQLITE_OK; });
}

bool StateStore::fail() {
  failure_ = std::string("cannot save the state: ") + sqlite3_errmsg(db_);
  return false;
}

}  // namespace vela::daemon
