// SPDX-License-Identifier: MIT
#include "platform/prefs/sqlite_store.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include <sqlite3.h>

#include "platform/prefs/cbor_codec.h"
#include "platform/prefs/sqlite_files.h"

namespace vela::prefs {
namespace {

constexpr const char* kCreateTable =
    "CREATE TABLE IF NOT EXISTS preferences ("
    "domain TEXT, key TEXT, value BLOB, PRIMARY KEY (domain, key)) WITHOUT ROWID";
constexpr const char* kSelect = "SELECT value FROM preferences WHERE domain = ?1 AND key = ?2";
constexpr const char* kSelectDomain = "SELECT key, value FROM preferences WHERE domain = ?1";
constexpr const char* kUpsert = "INSERT OR REPLACE INTO preferences (domain, key, value) VALUES (?1, ?2, ?3)";
constexpr const char* kDelete = "DELETE FROM preferences WHERE domain = ?1 AND key = ?2";

// 0 is what files made before the version was kept carry.
bool isOurFormat(int version) { return version == kFormatVersion || version == 0; }

std::string otherFormatReason(const std::string& path, int version) {
  return path + " has format version " + std::to_string(version) + ", which this build does not know (it uses " +
         std::to_string(kFormatVersion) + "); left untouched";
}

// Ends the statement's implicit transaction however the caller leaves, so no
// read snapshot outlives a call.
class ResetOnExit {
 public:
  explicit ResetOnExit(sqlite3_stmt* statement) : statement_(statement) {}
  ~ResetOnExit() { sqlite3_reset(statement_); }
  ResetOnExit(const ResetOnExit&) = delete;
  ResetOnExit& operator=(const ResetOnExit&) = delete;
  ResetOnExit(ResetOnExit&&) = delete;
  ResetOnExit& operator=(ResetOnExit&&) = delete;

 private:
  sqlite3_stmt* statement_;
};

}  // namespace

void SqliteStore::StatementFinalizer::operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }

// The stores every process has, made together so that one set of fork
// handlers covers both.
struct SqliteStore::ProcessStores {
  SqliteStore user{findUserDatabase, {}, Sharing::kOwnUser, Mode::kReadWrite};
  SqliteStore service{findServiceDatabase, {}, Sharing::kAllUsers, Mode::kReadOnly};
};

SqliteStore::SqliteStore(PathLookup lookup, std::string fixedPath, Sharing sharing, Mode mode)
    : lookup_(lookup), fixedPath_(std::move(fixedPath)), sharing_(sharing), mode_(mode) {}

SqliteStore::~SqliteStore() {
  if (db_ && pid_ != getpid()) {
    abandonInheritedConnection();
  } else {
    close();
  }
}

SqliteStore::ProcessStores& SqliteStore::processStores() {
  // Never destroyed, so that they stay usable from other static destructors.
  static auto* const stores = [] {        // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)
    auto* created = new ProcessStores();  // NOLINT(cppcoreguidelines-owning-memory)
    // An open connection must not cross fork(): the child inherits SQLite's
    // record of the parent's file locks without the locks themselves, and a
    // connection it then opens believes it holds them. The parent closing its
    // last connection would then checkpoint and delete a WAL the child is still
    // writing into, losing the child's writes. Closing before the fork leaves
    // the child nothing to inherit; both sides reopen on their next call.
    pthread_atfork(
        [] {
          processStores().user.beforeFork();
          processStores().service.beforeFork();
        },
        [] {
          processStores().service.afterFork();
          processStores().user.afterFork();
        },
        [] {
          processStores().service.afterFork();
          processStores().user.afterFork();
        });
    return created;
  }();
  return *stores;
}

SqliteStore& SqliteStore::shared() { return processStores().user; }

SqliteStore& SqliteStore::serviceReader() { return processStores().service; }

std::unique_ptr<SqliteStore> SqliteStore::serviceWriter(std::string path) {
  // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): make_unique cannot reach the private constructor
  return std::unique_ptr<SqliteStore>(new SqliteStore(nullptr, std::move(path), Sharing::kAllUsers, Mode::kReadWrite));
}

std::string SqliteStore::databasePath() {
  std::string path;
  return findUserDatabase(path) ? path : std::string();
}

std::string SqliteStore::serviceDatabasePath() {
  std::string path;
  return findServiceDatabase(path) ? path : std::string();
}

std::optional<VelaValue> SqliteStore::copyValue(std::string_view domain, std::string_view key) {
  std::lock_guard lock(mutex_);
  if (!ready(Operation::kRead)) return std::nullopt;
  sqlite3_stmt* select = statement(select_, kSelect);
  if (!select) return std::nullopt;
  ResetOnExit reset(select);
  if (bindText(select, 1, domain) != SQLITE_OK || bindText(select, 2, key) != SQLITE_OK) return std::nullopt;
  if (sqlite3_step(select) != SQLITE_ROW) return std::nullopt;
  const void* blob = sqlite3_column_blob(select, 0);
  const int size = sqlite3_column_bytes(select, 0);
  if (!blob || size <= 0) return std::nullopt;
  return decodeValue({static_cast<const std::uint8_t*>(blob), static_cast<std::size_t>(size)});
}

VelaDictionary SqliteStore::copyDomain(std::string_view domain) {
  VelaDictionary values;
  std::lock_guard lock(mutex_);
  if (!ready(Operation::kRead)) return values;
  // Rare (tools list a domain), so prepared per call rather than kept with
  // the per-key statements.
  sqlite3_stmt* prepared = nullptr;
  if (sqlite3_prepare_v2(db_, kSelectDomain, -1, &prepared, nullptr) != SQLITE_OK) return values;
  const Statement select(prepared);
  if (bindText(select.get(), 1, domain) != SQLITE_OK) return values;
  while (sqlite3_step(select.get()) == SQLITE_ROW) {
    const void* key = sqlite3_column_blob(select.get(), 0);
    const int keySize = sqlite3_column_bytes(select.get(), 0);
    const void* blob = sqlite3_column_blob(select.get(), 1);
    const int size = sqlite3_column_bytes(select.get(), 1);
    if (!blob || size <= 0) continue;
    auto value = decodeValue({static_cast<const std::uint8_t*>(blob), static_cast<std::size_t>(size)});
    if (!value) continue;
    // An empty key is a key too; SQLite hands it back as a null pointer.
    std::string name;
    if (key != nullptr) name.assign(static_cast<const char*>(key), static_cast<std::size_t>(keySize));
    values.insert_or_assign(std::move(name), std::move(*value));
  }
  return values;
}

bool SqliteStore::setValue(std::string_view domain, std::string_view key, const std::optional<VelaValue>& value) {
  std::optional<std::vector<std::uint8_t>> encoded;
  if (value) {
    encoded = encodeValue(*value);
    if (!encoded) return false;
  }
  std::lock_guard lock(mutex_);
  if (!ready(Operation::kWrite)) return false;
  sqlite3_stmt* write = encoded ? statement(upsert_, kUpsert) : statement(delete_, kDelete);
  if (!write) return false;
  ResetOnExit reset(write);
  // A failed bind (a value beyond SQLite's length limit) leaves its parameter
  // NULL, and the write would store NULL in its place and report success.
  if (bindText(write, 1, domain) != SQLITE_OK || bindText(write, 2, key) != SQLITE_OK ||
      (encoded && sqlite3_bind_blob64(write, 3, encoded->data(), encoded->size(), SQLITE_STATIC) != SQLITE_OK)) {
    return fail("cannot write to " + path_ + ": " + sqlite3_errmsg(db_));
  }
  // In autocommit mode the statement is its own transaction, committed (and,
  // with synchronous=FULL, synced) before step returns.
  if (sqlite3_step(write) != SQLITE_DONE) return fail("cannot write to " + path_ + ": " + sqlite3_errmsg(db_));
  return true;
}

// Nothing to do: no call keeps a read transaction open, so the next read starts
// a fresh one that sees every write any process has committed. There is no
// per-process copy of the data to refresh.
void SqliteStore::synchronize(std::string_view /*domain*/) {}

std::string SqliteStore::lastFailure() {
  std::lock_guard lock(mutex_);
  return failure_;
}

bool SqliteStore::fail(std::string reason) {
  failure_ = std::move(reason);
  return false;
}

bool SqliteStore::ready(Operation operation) {
  if (db_ && pid_ != getpid()) abandonInheritedConnection();
  if (operation == Operation::kWrite && mode_ == Mode::kReadOnly) {
    return fail("the service's preferences are read-only here: only the daemon writes them");
  }
  if (!locate()) {
    close();
    return fail("no place for the preference file: no home directory");
  }
  if (db_ && wanted_ != path_) close();
  if (!db_ && !open(operation)) return false;
  if (operation == Operation::kWrite && !schemaReady_ && !prepareForWriting()) return false;
  failure_.clear();
  return true;
}

bool SqliteStore::locate() {
  if (lookup_ == nullptr) {
    wanted_.assign(fixedPath_);
    return true;
  }
  return lookup_(wanted_);
}

bool SqliteStore::open(Operation operation) {
  if (operation == Operation::kWrite) {
    if (sharing_ == Sharing::kAllUsers) {
      createDatabaseFile(wanted_, 0755, 0644);
    } else {
      createDatabaseFile(wanted_, 0700, 0600);
    }
  } else {
    // Reading never creates the file; a missing one simply holds nothing.
    struct stat info {};
    if (stat(wanted_.c_str(), &info) != 0) return fail("no preference file at " + wanted_);
  }
  sqlite3* db = nullptr;
  // Our own mutex serialises every use, so SQLite's per-connection one is redundant.
  const int access = mode_ == Mode::kReadOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE;
  if (sqlite3_open_v2(wanted_.c_str(), &db, access | SQLITE_OPEN_NOMUTEX, nullptr) != SQLITE_OK) {
    std::string reason = "cannot open " + wanted_ + ": " + sqlite3_errmsg(db);
    sqlite3_close(db);
    return fail(std::move(reason));
  }
  sqlite3_busy_timeout(db, kBusyTimeoutMs);
  // Checked before anything that may write (a change of journal mode below
  // rewrites the header): a file of another format stays exactly as it is.
  if (const std::optional<int> version = formatVersion(db); !version || !isOurFormat(*version)) {
    std::string reason =
        version ? otherFormatReason(wanted_, *version) : "cannot read " + wanted_ + ": " + sqlite3_errmsg(db);
    // Nor may closing checkpoint a WAL that the other build left behind.
    sqlite3_db_config(db, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    sqlite3_close(db);
    return fail(std::move(reason));
  }
  // WAL lets the user's readers go on while another process writes. A file we
  // may only read cannot switch, so the pragma's answer is not required to be
  // "wal"; an error (corrupt, I/O) fails the open and it is retried on the next
  // call. The service's file keeps the rollback journal its readers need; in
  // that mode a commit is the journal's deletion, which only EXTRA syncs.
  const char* journal = sharing_ == Sharing::kAllUsers ? "PRAGMA journal_mode=DELETE; PRAGMA synchronous=EXTRA"
                                                       : "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL";
  if (mode_ == Mode::kReadWrite && sqlite3_exec(db, journal, nullptr, nullptr, nullptr) != SQLITE_OK) {
    std::string reason = "cannot use " + wanted_ + ": " + sqlite3_errmsg(db);
    sqlite3_close(db);
    return fail(std::move(reason));
  }
  db_ = db;
  pid_ = getpid();
  path_ = wanted_;
  schemaReady_ = false;
  return true;
}

// The table is created and the version stamped in one transaction, so that no
// crash can leave a table without its version. The version is read again under
// the write lock: another build may have claimed the file since it was opened.
bool SqliteStore::prepareForWriting() {
  if (sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK) {
    return fail("cannot write to " + path_ + ": " + sqlite3_errmsg(db_));
  }
  const std::optional<int> version = formatVersion(db_);
  const std::string stamp = "PRAGMA user_version = " + std::to_string(kFormatVersion);
  std::string reason;
  if (!version) {
    reason = "cannot read " + path_ + ": " + sqlite3_errmsg(db_);
  } else if (!isOurFormat(*version)) {
    reason = otherFormatReason(path_, *version);
  } else if (sqlite3_exec(db_, kCreateTable, nullptr, nullptr, nullptr) != SQLITE_OK ||
             (*version != kFormatVersion && sqlite3_exec(db_, stamp.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) ||
             sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) {
    reason = "cannot prepare " + path_ + " for writing: " + sqlite3_errmsg(db_);
  }
  if (reason.empty()) {
    schemaReady_ = true;
    return true;
  }
  // Harmless when the transaction is already over.
  sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  // The next call opens the file afresh, and refuses it there as long as its
  // version stays foreign.
  if (version && !isOurFormat(*version)) close();
  return fail(std::move(reason));
}

void SqliteStore::close() {
  select_.reset();
  upsert_.reset();
  delete_.reset();
  sqlite3_close(db_);
  db_ = nullptr;
  path_.clear();
}

// Reached only when a child was made without the fork handlers running (a raw
// clone, or _Fork). Closing the inherited connection could act on the parent's
// files as if this were the parent (checkpoint, delete the WAL), so it is left
// alone and kept reachable, and a new one is opened. The fork handlers are what
// make a child fully safe; this only keeps such a child from using a
// connection that is not its own.
void SqliteStore::abandonInheritedConnection() {
  (void)select_.release();
  (void)upsert_.release();
  (void)delete_.release();
  inherited_.push_back(db_);
  db_ = nullptr;
  path_.clear();
}

sqlite3_stmt* SqliteStore::statement(Statement& slot, const char* sql) {
  if (!slot) {
    sqlite3_stmt* prepared = nullptr;
    // A read of a file that has no table yet fails here; nothing is cached, so
    // the next call tries again.
    if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &prepared, nullptr) != SQLITE_OK) return nullptr;
    slot.reset(prepared);
  }
  return slot.get();
}

void SqliteStore::beforeFork() {
  mutex_.lock();
  if (db_ && pid_ == getpid()) close();
}

void SqliteStore::afterFork() { mutex_.unlock(); }

}  // namespace vela::prefs
