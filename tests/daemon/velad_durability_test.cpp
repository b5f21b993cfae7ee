// SPDX-License-Identifier: MIT
// What velad acknowledged survives it: a restart, or a SIGKILL at any moment.
#include <sys/stat.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <vela/VelaConstants.h>
#include <vela/VelaKithAccountInfo.h>
#include <vela/VelaLostModeInfo.h>
#include <vela/VelaPreferencesUtil.h>

#include "protocol/locus_state.h"
#include "protocol/lost_mode_entries.h"
#include "records/archive_io.h"
#include "service_preferences.h"
#include "velad_fixture.h"

namespace vela::testing {
namespace {

std::string stateFile() { return std::string(std::getenv("STATE_DIRECTORY")) + "/state.sqlite3"; }

// Runs `sql` on velad's state file, outside velad; the rows as "a|b" lines.
std::multiset<std::string> query(const std::string& sql) {
  std::multiset<std::string> rows;
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(stateFile().c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) {
    sqlite3_exec(
        db, sql.c_str(),
        [](void* out, int columns, char** values, char** /*names*/) {
          std::string row;
          for (int i = 0; i < columns; ++i) {
            if (i > 0) row += '|';
            row += values[i] != nullptr ? values[i] : "NULL";
          }
          static_cast<std::multiset<std::string>*>(out)->insert(row);
          return 0;
        },
        &rows, nullptr);
  }
  sqlite3_close(db);
  return rows;
}

class AVeladThatRestarts : public AVelad {
 protected:
  // Kills velad without warning and starts it again.
  void killAndRestart() {
    velad_->kill(SIGKILL);
    ASSERT_TRUE(velad_->waitForExit());
    velad_->restart();
    reconnect();
  }

  void reconnect() {
    client_.reset();
    std::string whyNot;
    client_ = bus::TestBusClient::open(bus::BusKind::kSystem, &whyNot);
    ASSERT_NE(client_, nullptr) << whyNot;
  }
};

TEST_F(AVeladThatRestarts, KeepsEveryAcknowledgedChangeThroughASigkill) {
  const VelaDictionary kithId = reply("GetKithDeviceId");
  const VelaDictionary locusId = reply("GetLocusDeviceId");
  VelaKithAccountInfo account;
  account.setUsername("friend@example.com");
  account.setAppAuthToken("app-secret");
  account.setInternalAuthToken("internal-secret");
  VelaLostModeInfo lost;
  lost.setMessage("Please call me");
  lost.setPhoneNumber("+1 555 0100");
  reply("AddKithAccount", {{"account", records::archiveRecord(account)}});
  reply("EnableLostModeWithInfo", {{"info", records::archiveRecord(lost)}});
  reply("EnableLocusInContext", {{"context", 7}});
  reply("DidEnterKithRegion", {{"regionIdentifier", "home"}});

  // Killed while the locating switch is still settling: the restart finishes
  // it. What every user reads is put right from velad's own state, whatever
  // happened to it meanwhile.
  velad_->kill(SIGKILL);
  ASSERT_TRUE(velad_->waitForExit());
  daemon::ServicePreferences elsewhere(daemon::ServicePreferences::pathIn(std::getenv("STATE_DIRECTORY")));
  ASSERT_TRUE(elsewhere.publishLostMode(nullptr));
  ASSERT_TRUE(elsewhere.publishWardenEnabled(false));
  velad_->restart();
  reconnect();
  EXPECT_TRUE(VelaPreferencesUtil::boolForKey(kWardenEnabledPrefKey, kWardenEnabledPrefDomain));
  const auto entry = VelaPreferencesUtil::dictionaryForKey(protocol::lost_mode::kLocusEntry,
                                                           kVelaNotification_Public_NotBackedUp_Pref_Domain);
  ASSERT_TRUE(entry.has_value());
  EXPECT_EQ(entry->at(std::string(protocol::lost_mode::kMessageKey)), VelaValue("Please call me"));

  EXPECT_EQ(reply("GetKithDeviceId"), kithId);
  EXPECT_EQ(reply("GetLocusDeviceId"), locusId);
  EXPECT_EQ(reply("GetLocusState").at("state"), VelaValue(std::int64_t{protocol::kLocusStateOn}));
  const VelaDictionary kept = reply("RetrieveKithAccount");
  ASSERT_TRUE(kept.contains("account"));
  const auto restored = records::unarchiveRecord<VelaKithAccountInfo>(kept.at("account"));
  ASSERT_NE(restored, nullptr);
  EXPECT_EQ(restored->username(), "friend@example.com");
  EXPECT_EQ(restored->appAuthToken(), "app-secret");
  EXPECT_EQ(restored->internalAuthToken(), "internal-secret");
  EXPECT_EQ(query("SELECT name FROM regions"), std::multiset<std::string>{"home"});

  // Undoing is as durable as doing.
  reply("RemoveKithAccountWithUsername", {{"username", "friend@example.com"}});
  reply("DisableLostMode");
  reply("DidExitKithRegion", {{"regionIdentifier", "home"}});
  killAndRestart();
  EXPECT_FALSE(reply("RetrieveKithAccount").contains("account"));
  EXPECT_TRUE(query("SELECT name FROM regions").empty());
  EXPECT_TRUE(query("SELECT key FROM state WHERE key = 'lostMode'").empty());
  EXPECT_FALSE(VelaPreferencesUtil::dictionaryForKey(protocol::lost_mode::kLocusEntry,
                                                     kVelaNotification_Public_NotBackedUp_Pref_Domain));
}

// A SIGKILL at a hundred moments, each while a change is on its way: no
// change velad acknowledged is ever lost, none is invented, and SQLite never
// finds the file damaged.
TEST_F(AVeladThatRestarts, SurvivesAHundredSigkillsAtAnyMoment) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> acknowledgedBeforeKill(0, 4);
  std::uniform_int_distribution<int> intoTheNextChange(0, 4000);  // microseconds
  std::int64_t kept = 0;
  for (int round = 0; round < 100; ++round) {
    std::mutex mutex;
    std::condition_variable progressed;
    std::int64_t lastAcknowledged = kept;
    bool writing = true;
    // Changes go out back to back, each sent the moment the one before is
    // acknowledged, until velad dies under one of them.
    std::thread writer([&] {
      std::string whyNot;
      const auto client = bus::TestBusClient::open(bus::BusKind::kSystem, &whyNot);
      for (std::int64_t n = kept + 1; client != nullptr; ++n) {
        VelaKithAccountInfo account;
        account.setUsername("user-" + std::to_string(n));
        account.setAppAuthToken("token-" + std::to_string(n));
        if (client->call(kHandsetActions, "AddKithAccount", {{"account", records::archiveRecord(account)}}).failed()) {
          break;
        }
        const std::lock_guard lock(mutex);
        lastAcknowledged = n;
        progressed.notify_one();
      }
      const std::lock_guard lock(mutex);
      writing = false;
      progressed.notify_one();
    });
    bool stoppedBeforeKill = false;
    {
      std::unique_lock lock(mutex);
      const std::int64_t target = kept + acknowledgedBeforeKill(random);
      progressed.wait(lock, [&] { return lastAcknowledged >= target || !writing; });
      stoppedBeforeKill = !writing;
    }
    // Not a wait for anything: a random moment within the next change, from
    // its arrival to past its commit.
    std::this_thread::sleep_for(std::chrono::microseconds(intoTheNextChange(random)));
    velad_->kill(SIGKILL);
    ASSERT_TRUE(velad_->waitForExit());
    writer.join();
    ASSERT_FALSE(stoppedBeforeKill) << "round " << round << ": velad stopped answering before it was killed";

    EXPECT_EQ(query("PRAGMA integrity_check"), std::multiset<std::string>{"ok"}) << "round " << round;
    velad_->restart();
    reconnect();
    // The last acknowledged change, or the one velad was making when killed
    // (none yet, when the first round's kill came before it).
    std::int64_t n = 0;
    const VelaDictionary stored = reply("RetrieveKithAccount");
    if (stored.contains("account")) {
      const auto account = records::unarchiveRecord<VelaKithAccountInfo>(stored.at("account"));
      ASSERT_NE(account, nullptr);
      n = std::stoll(account->username().value_or("user-0").substr(5));
      EXPECT_EQ(account->appAuthToken(), "token-" + std::to_string(n));
    }
    ASSERT_GE(n, lastAcknowledged) << "round " << round;
    ASSERT_LE(n, lastAcknowledged + 1) << "round " << round;
    kept = n;
  }
}

TEST_F(AVeladThatRestarts, KeepsItsStateWhereOnlyItsUserCanReadIt) {
  struct stat info {};
  ASSERT_EQ(::stat(stateFile().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777U, 0600U);
}

TEST_F(AVeladThatRestarts, RefusesToStartOnAStateFileOfAnotherFormat) {
  velad_.reset();
  ASSERT_TRUE(query("PRAGMA user_version = 99").empty());
  EXPECT_THROW(velad_.emplace(), std::runtime_error);
  // Left exactly as it was, for the build that wrote it.
  EXPECT_EQ(query("PRAGMA user_version"), std::multiset<std::string>{"99"});
}

// Topics are each caller's own: another caller cannot stop them, and they
// end when their caller leaves the bus.
TEST_F(AVeladThatRestarts, EndsACallersTopicsOnlyWhenItLeaves) {
  std::string whyNot;
  auto other = bus::TestBusClient::open(bus::BusKind::kSystem, &whyNot);
  ASSERT_NE(other, nullptr) << whyNot;
  const std::string owner = client_->uniqueName();
  reply("StartListeningOnTopic", {{"topic", "news"}});
  EXPECT_FALSE(other->call(kHandsetActions, "StopListeningOnTopic", {{"topic", "news"}}).failed());
  EXPECT_EQ(query("SELECT owner, topic FROM topics"), std::multiset<std::string>{owner + "|news"});

  client_.reset();
  ASSERT_TRUE(other->waitUntilGone(owner));
  // velad heard of the departure before this call: the bus told it first.
  EXPECT_FALSE(other->call(kHandsetActions, "GetLocusState", {}).failed());
  EXPECT_TRUE(query("SELECT owner FROM topics").empty());
}

TEST_F(AVeladThatRestarts, ForgetsTopicsOfCallersThatLeftWhileItWasAway) {
  reply("StartListeningOnTopic", {{"topic", "news"}});
  const std::string owner = client_->uniqueName();
  velad_->kill(SIGKILL);
  ASSERT_TRUE(velad_->waitForExit());
  reconnect();  // the old connection leaves while velad is down
  const std::string stays = client_->uniqueName();
  query("INSERT INTO topics (owner, topic) VALUES ('" + stays + "', 'sports')");
  velad_->restart();
  EXPECT_EQ(query("SELECT owner, topic FROM topics"), std::multiset<std::string>{stays + "|sports"});
}

TEST(Velad, ServesItsTestingInterfaceOnTheSessionBusOnly) {
  const PrivateBus bus;
  EXPECT_EQ(Subprocess::run({VeladProcess::path(), "--bus=system", "--testing"}), (ExitStatus{.code = 2, .signal = 0}));
}

// A service manager, or a person, tells a mistyped command line from a
// failure to serve by the status alone.
TEST(Velad, EndsAUsageErrorWithStatusTwo) {
  const PrivateBus bus;
  constexpr ExitStatus kUsageError{.code = 2, .signal = 0};
  EXPECT_EQ(Subprocess::run({VeladProcess::path(), "--no-such-option"}), kUsageError);
  EXPECT_EQ(Subprocess::run({VeladProcess::path(), "--bus=elsewhere"}), kUsageError);
  EXPECT_EQ(Subprocess::run({VeladProcess::path(), "--version"}), ExitStatus{});
}

}  // namespace
}  // namespace vela::testing
