// SPDX-License-Identifier: MIT
// What velad publishes for every user, read back as clients read it.
#include "service_preferences.h"

#include <cstdlib>
#include <fstream>

#include <gtest/gtest.h>

#include <vela/VelaConstants.h>
#include <vela/VelaLostModeInfo.h>
#include <vela/VelaPreferencesUtil.h>

#include "prefs_test_support.h"
#include "state_directory.h"

namespace vela::daemon {
namespace {

using Prefs = VelaPreferencesUtil;

class VeladsServicePreferences : public prefs::FreshPreferences {
 protected:
  static VelaLostModeInfo lostMode(std::optional<std::string> message, std::optional<std::string> number) {
    VelaLostModeInfo info;
    info.setLostModeEnabled(true);
    info.setMessage(std::move(message));
    info.setPhoneNumber(std::move(number));
    return info;
  }
};

TEST_F(VeladsServicePreferences, PublishLostModeAsClientsReadIt) {
  ServicePreferences published(servicePath_);
  const std::string_view domain = kVelaNotification_Public_NotBackedUp_Pref_Domain;
  auto info = lostMode("Call me", "555-0100");
  ASSERT_TRUE(published.publishLostMode(&info));
  EXPECT_EQ(
      Prefs::dictionaryForKey("LocusLostModeInfo", domain),
      (VelaDictionary{{"lostModeEnabled", true}, {"lostModeMessage", "Call me"}, {"lostModeOwnerNumber", "555-0100"}}));

  // A nil field is left out, not written empty.
  info = lostMode(std::nullopt, "555-0100");
  ASSERT_TRUE(published.publishLostMode(&info));
  EXPECT_EQ(Prefs::dictionaryForKey("LocusLostModeInfo", domain),
            (VelaDictionary{{"lostModeEnabled", true}, {"lostModeOwnerNumber", "555-0100"}}));

  ASSERT_TRUE(published.publishLostMode(nullptr));
  EXPECT_EQ(Prefs::objectForKey("LocusLostModeInfo", domain), std::nullopt);
}

TEST_F(VeladsServicePreferences, PublishWardenAsABoolean) {
  ServicePreferences published(servicePath_);
  ASSERT_TRUE(published.publishWardenEnabled(true));
  EXPECT_EQ(Prefs::objectForKey(kWardenEnabledPrefKey, kWardenEnabledPrefDomain), VelaValue(true));
  ASSERT_TRUE(published.publishWardenEnabled(false));
  EXPECT_EQ(Prefs::objectForKey(kWardenEnabledPrefKey, kWardenEnabledPrefDomain), VelaValue(false));
}

TEST_F(VeladsServicePreferences, ReportAWriteThatCannotBeMade) {
  std::ofstream(dir_ + "/a-file") << "in the way";
  ServicePreferences published(dir_ + "/a-file/preferences.sqlite3");
  const auto info = lostMode("m", "n");
  EXPECT_FALSE(published.publishLostMode(&info));
  EXPECT_FALSE(published.publishWardenEnabled(true));
}

TEST(AServicePreferencesPath, IsInTheFirstStateDirectoryTheServiceManagerGave) {
  const char* saved = std::getenv("STATE_DIRECTORY");
  const std::string restore = saved != nullptr ? saved : "";
  setenv("STATE_DIRECTORY", "/run/a/vela:/run/b/other", 1);
  const std::string fromManager = ServicePreferences::pathIn(defaultStateDirectory(bus::BusKind::kSystem));
  unsetenv("STATE_DIRECTORY");
  const std::string byDefault = ServicePreferences::pathIn(defaultStateDirectory(bus::BusKind::kSystem));
  if (saved != nullptr) setenv("STATE_DIRECTORY", restore.c_str(), 1);

  EXPECT_EQ(fromManager, "/run/a/vela/preferences.sqlite3");
  EXPECT_EQ(byDefault, "/var/lib/vela/preferences.sqlite3");
  EXPECT_EQ(byDefault, prefs::kServicePath) << "velad writes where clients read by default";
}

}  // namespace
}  // namespace vela::daemon
