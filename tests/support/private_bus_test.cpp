// SPDX-License-Identifier: MIT
// The fixtures every bus test stands on: if these break, failures elsewhere
// would point at the library instead.
#include "private_bus.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "platform/bus/bus_names.h"

namespace vela::testing {
namespace {

using std::chrono_literals::operator""ms;

constexpr ExitStatus kSuccess{};

// GetId on the bus that the environment names for `kind` ("--system" or "--session").
ExitStatus pingBus(const std::string& kind) {
  return Subprocess::run(
      {"dbus-send", kind, "--dest=org.freedesktop.DBus", "--print-reply", "/", "org.freedesktop.DBus.GetId"});
}

// Succeeds only while some connection owns velad's well-known name.
ExitStatus askServiceOwner() {
  return Subprocess::run({"dbus-send", "--system", "--dest=org.freedesktop.DBus", "--print-reply", "/",
                          "org.freedesktop.DBus.GetNameOwner", "string:" + std::string(vela::bus::kServiceName)});
}

TEST(ASubprocess, ReportsExitCodesAndSignals) {
  EXPECT_EQ(Subprocess::run({"sh", "-c", "exit 3"}), (ExitStatus{.code = 3, .signal = 0}));
  EXPECT_EQ(Subprocess::run({"sh", "-c", "kill -TERM $$"}), (ExitStatus{.code = 0, .signal = SIGTERM}));
  EXPECT_THROW(Subprocess({"/nonexistent/vela-no-such-program"}), std::system_error);
}

TEST(ASubprocess, ReadsNotificationLinesUntilThePipeCloses) {
  Subprocess child({"sh", "-c", "printf 'first\\nsecond\\nlast' >&3"}, {.notifyPipe = true});
  EXPECT_EQ(child.readLine(kStartTimeout), "first");
  EXPECT_EQ(child.readLine(kStartTimeout), "second");
  EXPECT_EQ(child.readLine(kStartTimeout), "last");
  EXPECT_EQ(child.readLine(kStartTimeout), std::nullopt);
  EXPECT_EQ(child.waitForExit(kStopTimeout), kSuccess);
}

TEST(ASubprocess, GivesUpOnASilentChildAndTerminatesIt) {
  Subprocess child({"sh", "-c", "exec sleep 600"}, {.notifyPipe = true});
  EXPECT_EQ(child.readLine(50ms), std::nullopt);
  EXPECT_EQ(child.waitForExit(0ms), std::nullopt);
  EXPECT_EQ(child.terminate(), (ExitStatus{.code = 0, .signal = SIGTERM}));
  EXPECT_FALSE(child.running());
}

TEST(ASubprocess, DoesNotLeakTheParentsDescriptors) {
  const int leaky = ::open("/dev/null", O_RDONLY);  // deliberately without O_CLOEXEC
  ASSERT_GE(leaky, 0);
  const std::string fd = std::to_string(leaky);
  EXPECT_EQ(Subprocess::run({"sh", "-c", "test ! -e /proc/$$/fd/" + fd}), kSuccess);
  ::close(leaky);
}

TEST(APrivateBus, ServesBothBusKindsThroughTheEnvironment) {
  PrivateBus bus;
  EXPECT_EQ(pingBus("--system"), kSuccess);
  EXPECT_EQ(pingBus("--session"), kSuccess);
  // Unreachable once killed: the environment names this bus, not the machine's.
  bus.kill();
  EXPECT_NE(pingBus("--system"), kSuccess);
  EXPECT_NE(pingBus("--session"), kSuccess);
}

TEST(APrivateBus, ComesBackAtTheSameAddress) {
  PrivateBus bus;
  bus.restart();
  EXPECT_EQ(pingBus("--system"), kSuccess);
  // SIGKILL leaves the socket file behind; the restart must still listen there.
  bus.kill(SIGKILL);
  EXPECT_TRUE(std::filesystem::exists(bus.directory() + "/bus"));
  EXPECT_NE(pingBus("--system"), kSuccess);
  bus.restart();
  EXPECT_EQ(pingBus("--system"), kSuccess);
}

TEST(APrivateBus, LeavesNoProcessOrDirectoryBehind) {
  pid_t pid = -1;
  std::string directory;
  {
    PrivateBus bus;
    pid = bus.pid();
    directory = bus.directory();
  }
  // A zombie would still accept signal 0: the daemon must have been reaped.
  EXPECT_NE(::kill(pid, 0), 0);
  EXPECT_FALSE(std::filesystem::exists(directory));
}

TEST(AVeladProcess, RefusesToStartWithoutAPrivateBus) {
  ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
  EXPECT_THROW(VeladProcess(), std::logic_error);
}

TEST(AVeladProcess, ReportsABinaryThatExitsBeforeItIsReady) {
  PrivateBus bus;
  ::setenv("VELAD_PATH", "false", 1);
  EXPECT_THROW(VeladProcess(), std::runtime_error);
  ::unsetenv("VELAD_PATH");
}

class AVeladProcessOnAPrivateBus : public ::testing::Test {
 protected:
  void SetUp() override {
    try {
      VeladProcess::path();
    } catch (const std::runtime_error& error) {
      GTEST_SKIP() << error.what();
    }
  }

  PrivateBus bus_;
};

TEST_F(AVeladProcessOnAPrivateBus, OwnsTheServiceNameWhenReadyAgainAfterRestart) {
  VeladProcess velad;
  EXPECT_EQ(askServiceOwner(), kSuccess);

  velad.kill(SIGKILL);
  EXPECT_EQ(velad.waitForExit(), (ExitStatus{.code = 0, .signal = SIGKILL}));

  velad.restart();
  EXPECT_EQ(askServiceOwner(), kSuccess);
}

}  // namespace
}  // namespace vela::testing
