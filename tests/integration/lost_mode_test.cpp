// SPDX-License-Identifier: MIT
// Lost mode: read from the service's preference store, switched through velad.
#include <filesystem>

#include <vela/VelaPreferencesUtil.h>

#include "platform/prefs/sqlite_store.h"
#include "session_fixture.h"
#ifdef VELACTL_PATH
#include <nlohmann/json.hpp>

#include "velactl_runner.h"
#endif

namespace vela::testing {
namespace {

using namespace std::chrono_literals;

constexpr std::string_view kLocusEntry = "LocusLostModeInfo";
constexpr std::string_view kClientEntry = "ClientLostModeInfo";
constexpr std::string_view kWipeEntry = "LocusWipeLostModeInfo";

std::string_view publicDomain() { return kVelaNotification_Public_NotBackedUp_Pref_Domain; }
std::string_view wipeDomain() { return kVelaNotification_PostWipe_Pref_Domain; }

VelaDictionary entry(VelaValue flag, std::optional<VelaValue> message = std::nullopt,
                     std::optional<VelaValue> number = std::nullopt) {
  VelaDictionary entry{{"lostModeEnabled", std::move(flag)}};
  if (message) entry.emplace("lostModeMessage", std::move(*message));
  if (number) entry.emplace("lostModeOwnerNumber", std::move(*number));
  return entry;
}

// Writes the service's store as velad does: clients only read it, so the
// test stands in for the daemon to plant entries.
void store(std::string_view key, std::string_view domain, const std::optional<VelaValue>& value) {
  const auto daemon = prefs::SqliteStore::serviceWriter(prefs::SqliteStore::serviceDatabasePath());
  ASSERT_TRUE(daemon->setValue(domain, key, value)) << daemon->lastFailure();
}

class LostMode : public ASessionWithVelad {
 protected:
  // velad handles one request at a time, start to finish, so once it has
  // logged `memberName`, its answer to any later request comes after that
  // request was carried out.
  void waitUntilVeladHandled(std::string_view memberName) {
    ASSERT_TRUE(control_->waitForCall(memberName)) << control_->lastFailure();
    ASSERT_TRUE(control_->callLog()) << control_->lastFailure();
  }

  std::shared_ptr<VelaLostModeInfo> record(std::optional<std::string> message, std::optional<std::string> number) {
    auto info = std::make_shared<VelaLostModeInfo>();
    info->setLostModeEnabled(true);
    info->setMessage(std::move(message));
    info->setPhoneNumber(std::move(number));
    return info;
  }
};

// ---- Reading ------------------------------------------------------------------

TEST_F(LostMode, SkipsADisabledEntryForTheNextEnabledOne) {
  store(kLocusEntry, publicDomain(), entry(false, "stale", "000"));
  store(kClientEntry, publicDomain(), entry(true, "Call me", "555-0100"));
  store(kWipeEntry, wipeDomain(), entry(true, "wiped", "999"));
  velaLastOperationResult = 106;
  EXPECT_TRUE(session_->lostModeIsActive());
  EXPECT_EQ(lastResult(), 0);
  velaLastOperationResult = 106;
  const auto info = session_->lostModeInfo();
  EXPECT_EQ(lastResult(), 0);
  ASSERT_NE(info, nullptr);
  EXPECT_TRUE(info->lostModeEnabled());
  EXPECT_EQ(info->message(), "Call me");
  EXPECT_EQ(info->phoneNumber(), "555-0100");
}

TEST_F(LostMode, FallsBackToThePostWipeEntry) {
  store(kWipeEntry, wipeDomain(), entry(true, "wiped", "999"));
  const auto info = session_->lostModeInfo();
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->message(), "wiped");
  // The same key in the other domain is not an entry.
  store(kWipeEntry, wipeDomain(), std::nullopt);
  store(kWipeEntry, publicDomain(), entry(true, "wrong domain", "999"));
  EXPECT_FALSE(session_->lostModeIsActive());
}

TEST_F(LostMode, FindsNothingInAbsentOrMalformedEntries) {
  EXPECT_FALSE(session_->lostModeIsActive());
  EXPECT_EQ(session_->lostModeInfo(), nullptr);
  EXPECT_EQ(session_->lostModeParams(), std::nullopt);

  store(kLocusEntry, publicDomain(), VelaValue("true"));
  store(kClientEntry, publicDomain(), VelaValue(VelaArray{entry(true, "in an array", "1")}));
  EXPECT_FALSE(session_->lostModeIsActive());
  EXPECT_EQ(session_->lostModeInfo(), nullptr);
}

TEST_F(LostMode, ReadsTheFlagAsTheStoreReadsABoolean) {
  const std::pair<VelaValue, bool> flags[] = {{1, true},     {0.5, true},  {"YES", true},       {0, false},
                                              {"no", false}, {"2", false}, {VelaArray{}, false}};
  for (const auto& [flag, active] : flags) {
    store(kLocusEntry, publicDomain(), entry(flag, "m", "n"));
    EXPECT_EQ(session_->lostModeIsActive(), active) << flag.description();
  }
  store(kLocusEntry, publicDomain(), VelaDictionary{{"lostModeMessage", "no flag at all"}});
  EXPECT_FALSE(session_->lostModeIsActive());
}

TEST_F(LostMode, GivesARecordButNoParamsWithoutBothTexts) {
  store(kLocusEntry, publicDomain(), entry(true, "Call me"));
  EXPECT_TRUE(session_->lostModeIsActive());
  auto info = session_->lostModeInfo();
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->phoneNumber(), std::nullopt);
  EXPECT_EQ(session_->lostModeParams(), std::nullopt);

  // A text of another type is no text.
  store(kLocusEntry, publicDomain(), entry(true, VelaValue(5550100), "555"));
  info = session_->lostModeInfo();
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->message(), std::nullopt);
  EXPECT_EQ(session_->lostModeParams(), std::nullopt);
}

TEST_F(LostMode, MapsTheActiveEntryToTheLockScreenParams) {
  store(kLocusEntry, publicDomain(), entry(1, "Call me", "555-0100"));
  EXPECT_EQ(session_->lostModeParams(), (VelaDictionary{{"vela.lostModeActive", true},
                                                        {"vela.lockScreenText", "Call me"},
                                                        {"vela.loclScreenOwnerNum", "555-0100"}}));
}

// ---- Switching through velad --------------------------------------------------

TEST_F(LostMode, ShowsWhatVeladWroteOnEnableAndClearsItOnDisable) {
  EXPECT_EQ(session_->enableLostModeWithInfo(record("Call me", "555-0100")), std::nullopt);
  EXPECT_EQ(lastResult(), 0);
  EXPECT_EQ(VelaPreferencesUtil::dictionaryForKey(kLocusEntry, publicDomain()), entry(true, "Call me", "555-0100"));
  // Only velad writes the domain: a client cannot clear or replace the entry.
  VelaPreferencesUtil::removeKey(kLocusEntry, publicDomain());
  VelaPreferencesUtil::setObject(entry(false), kLocusEntry, publicDomain());
  const auto info = session_->lostModeInfo();
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->message(), "Call me");
  EXPECT_EQ(info->phoneNumber(), "555-0100");

  // A nil field is left out of the entry, not written as an empty string.
  EXPECT_EQ(session_->enableLostModeWithInfo(record("Found it?", std::nullopt)), std::nullopt);
  EXPECT_EQ(VelaPreferencesUtil::dictionaryForKey(kLocusEntry, publicDomain()), entry(true, "Found it?"));
  EXPECT_EQ(session_->lostModeParams(), std::nullopt);

  session_->disableLostMode();
  waitUntilVeladHandled(member::kDisableLostMode.name);
  EXPECT_FALSE(session_->lostModeIsActive());
  EXPECT_EQ(VelaPreferencesUtil::objectForKey(kLocusEntry, publicDomain()), std::nullopt);
}

TEST_F(LostMode, KeepsVeladServingWhenItCannotWriteTheStore) {
  // A directory is no database: every write velad tries fails.
  const std::string stateDirectory = bus_->directory() + "/unusable-state";
  std::filesystem::create_directories(stateDirectory + "/preferences.sqlite3");
  ::setenv("STATE_DIRECTORY", stateDirectory.c_str(), 1);
  velad_->restart();
  EXPECT_EQ(session_->enableLostModeWithInfo(record("m", "n")), std::nullopt);
  session_->disableLostMode();
  waitUntilVeladHandled(member::kDisableLostMode.name);
  EXPECT_TRUE(session_->locusDeviceId().has_value()) << "velad stopped serving";
}

TEST_F(LostMode, DisableClearsAnEarlierRunsEntryAndLeavesThePreviousResult) {
  store(kLocusEntry, publicDomain(), entry(true, "from before velad restarted", "555"));
  behave(member::kGetKithDeviceId.name, "malformed");
  EXPECT_EQ(session_->kithDeviceId(), std::nullopt);
  ASSERT_EQ(lastResult(), 106);
  session_->disableLostMode();
  EXPECT_EQ(lastResult(), 106);
  waitUntilVeladHandled(member::kDisableLostMode.name);
  EXPECT_EQ(lastResult(), 106);
  EXPECT_FALSE(session_->lostModeIsActive());
}

TEST_F(LostMode, EnableTimesOutAgainstADaemonThatNeverAnswers) {
  behave(member::kEnableLostModeWithInfo.name, "never");
  std::optional<VelaError> error;
  const auto took = timed([&] { error = session_->enableLostModeWithInfo(record("m", "n")); });
  expectTimedOut(error);
  EXPECT_EQ(lastResult(), 106);
  EXPECT_GE(took, kReplyTimeLimit - 500ms);
  EXPECT_LT(took, 3 * kReplyTimeLimit);
}

// ---- velactl --------------------------------------------------------------------

#ifdef VELACTL_PATH
struct VelactlRun {
  int exitCode = -1;
  nlohmann::json output;  // discarded when velactl printed no JSON
};

VelactlRun velactl(const std::string& arguments) {
  const VelactlOutput output = runVelactl(arguments);
  return VelactlRun{output.exitCode, nlohmann::json::parse(output.text, nullptr, false)};
}

TEST_F(LostMode, IsSwitchedAndReadThroughVelactl) {
  VelactlRun run = velactl("enable-lost-mode --message 'Call me' --phone-number 555-0100");
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_EQ(run.output, (nlohmann::json{{"result", nullptr}, {"error", nullptr}, {"velaLastOperationResult", 0}}));

  run = velactl("lost-mode-info");
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_EQ(run.output["result"],
            (nlohmann::json{{"lostModeEnabled", true}, {"message", "Call me"}, {"phoneNumber", "555-0100"}}));
  EXPECT_EQ(velactl("lost-mode-params").output["result"], (nlohmann::json{{"vela.lostModeActive", true},
                                                                          {"vela.lockScreenText", "Call me"},
                                                                          {"vela.loclScreenOwnerNum", "555-0100"}}));

  // velactl exits right after a request it does not wait for; the request
  // must still have left.
  EXPECT_EQ(velactl("disable-lost-mode").exitCode, 0);
  waitUntilVeladHandled(member::kDisableLostMode.name);
  run = velactl("lost-mode-is-active");
  EXPECT_EQ(run.output["result"], false);
  EXPECT_TRUE(velactl("lost-mode-info").output["result"].is_null());
}

TEST(VelactlPrefs, RoundTripsTypedValuesThroughAnyDomain) {
  PrivateBus bus;  // for its private preference store
  const std::string inDomain = " --domain com.example.velactl";
  const nlohmann::json values = {
      {"text", "hello"},
      {"count", 42},
      {"ratio", 2.5},
      {"flag", true},
      {"when", {{"$date", 86400.5}}},
      {"blob", {{"$data", "AAEC/w=="}}},
      {"items", {1, "two", {{"$set", nlohmann::json::array({3})}}}},
      {"nested", {{"a", {{"b", false}}}}},
  };
  for (const auto& [key, value] : values.items()) {
    const VelactlRun run = velactl("prefs set " + key + " '" + value.dump() + "'" + inDomain);
    EXPECT_EQ(run.exitCode, 0) << key;
    EXPECT_EQ(run.output["result"], value) << key;
    EXPECT_EQ(velactl("prefs get " + key + inDomain).output["result"], value) << key;
  }
  // Each JSON form arrives as its own property-list type.
  EXPECT_EQ(VelaPreferencesUtil::objectForKey("count", "com.example.velactl"), VelaValue(42));
  EXPECT_EQ(VelaPreferencesUtil::dateForKey("when", "com.example.velactl"), VelaDate{86400.5});
  EXPECT_EQ(VelaPreferencesUtil::dataForKey("blob", "com.example.velactl"), (VelaData{0, 1, 2, 255}));

  VelaPreferencesUtil::setString("elsewhere", "text", "com.example.other");
  EXPECT_EQ(velactl("prefs list" + inDomain).output["result"], values);
  EXPECT_EQ(velactl("prefs remove text" + inDomain).exitCode, 0);
  EXPECT_TRUE(velactl("prefs get text" + inDomain).output["result"].is_null());
  EXPECT_EQ(VelaPreferencesUtil::stringForKey("text", "com.example.other"), "elsewhere");

  // A value with no property-list meaning is refused and nothing is stored.
  EXPECT_NE(velactl("prefs set bad '[null]'" + inDomain).exitCode, 0);
  EXPECT_EQ(VelaPreferencesUtil::objectForKey("bad", "com.example.velactl"), std::nullopt);
}
#endif

}  // namespace
}  // namespace vela::testing
