// SPDX-License-Identifier: MIT
// The lock screen runs as another user than velad: it must read the service's
// store with no right to write the file or anything beside it.
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include <vela/VelaConstants.h>

#include "other_users.h"
#include "prefs_test_support.h"
#include "protocol/lost_mode_entries.h"
#include "shell_words.h"

namespace vela::prefs {
namespace {

namespace entries = protocol::lost_mode;

struct Outcome {
  int status = -1;
  std::string output;
};

// Runs `command` through the shell as uid 65534 and gid 65534, with no
// supplementary groups and no capabilities, in this environment.
Outcome runAsNobody(const std::string& command) {
  Outcome run;
  FILE* pipe = popen((std::string(testing::kAsNobody) + " " + command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return run;
  std::array<char, 256> buffer{};
  while (std::fgets(buffer.data(), buffer.size(), pipe) != nullptr) run.output += buffer.data();
  run.status = pclose(pipe);
  if (!run.output.empty() && run.output.back() == '\n') run.output.pop_back();
  return run;
}

using testing::shellQuoted;

class AnotherUser : public FreshPreferences {
 protected:
  void SetUp() override {
    FreshPreferences::SetUp();
    if (geteuid() != 0) GTEST_SKIP() << "needs root, to run a reader as uid 65534";
    if (!testing::onPath("setpriv")) GTEST_SKIP() << "setpriv is missing, to run a reader as uid 65534";
    // mkdtemp made the directory 0700; the reader must be able to reach the
    // state directory, as it reaches /var/lib.
    ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
    reader_ = testing::runnableByEveryone(VELA_PREFERENCE_READER, dir_ + "/bin").command;
  }

  std::string reader(const std::string& arguments) const { return reader_ + " " + arguments; }

  std::string reader_;
};

TEST_F(AnotherUser, ReadsWhatVeladWroteAndChangesNothing) {
  const VelaDictionary entry{{std::string(entries::kEnabledKey), true},
                             {std::string(entries::kMessageKey), "Call me"},
                             {std::string(entries::kOwnerNumberKey), "555-0100"}};
  {
    // Closed before the reads: no connection of velad's keeps anything beside
    // the file that the reader could not have made itself.
    const auto daemon = SqliteStore::serviceWriter(servicePath_);
    ASSERT_TRUE(daemon->setValue(kVelaNotification_Public_NotBackedUp_Pref_Domain, entries::kLocusEntry, entry));
    ASSERT_TRUE(daemon->setValue(kWardenEnabledPrefDomain, kWardenEnabledPrefKey, VelaValue(true)));
  }
  EXPECT_NE(runAsNobody("test -w " + shellQuoted(stateDir_)).status, 0) << "the reader could write the state directory";
  EXPECT_NE(runAsNobody("test -w " + shellQuoted(servicePath_)).status, 0) << "the reader could write the store";

  const Outcome lostMode = runAsNobody(reader("lost-mode"));
  EXPECT_EQ(lostMode.status, 0) << lostMode.output;
  EXPECT_EQ(lostMode.output, VelaValue(VelaDictionary{{std::string(kLostModeIsActiveKey), true},
                                                      {std::string(kLostModeScreenTextKey), "Call me"},
                                                      {std::string(kLostModeScreenOwnerNumKey), "555-0100"}})
                                 .description());
  const Outcome warden = runAsNobody(
      reader("value " + shellQuoted(std::string(kWardenEnabledPrefDomain)) + " " + std::string(kWardenEnabledPrefKey)));
  EXPECT_EQ(warden.status, 0) << warden.output;
  EXPECT_EQ(warden.output, VelaValue(true).description());

  // Another user's write to the service's domains changes nothing, and fails
  // quietly, as the library's writes do.
  const Outcome forged = runAsNobody(reader("set " + shellQuoted(std::string(kWardenEnabledPrefDomain)) + " " +
                                            std::string(kWardenEnabledPrefKey) + " forged"));
  EXPECT_EQ(forged.status, 0) << forged.output;
  EXPECT_EQ(forged.output, VelaValue(true).description());

  // And while velad has the file open, switching lost mode off shows at once.
  const auto daemon = SqliteStore::serviceWriter(servicePath_);
  ASSERT_TRUE(daemon->setValue(kVelaNotification_Public_NotBackedUp_Pref_Domain, entries::kLocusEntry, std::nullopt));
  EXPECT_EQ(runAsNobody(reader("lost-mode")).output, "(none)");
}

}  // namespace
}  // namespace vela::prefs
