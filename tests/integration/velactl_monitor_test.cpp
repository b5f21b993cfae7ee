// SPDX-License-Identifier: MIT
// velactl monitor run as a separate process against velad: what it prints
// for the daemon's notifications, as JSON and readably, and how it ends.
#include <csignal>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <vela/VelaConstants.h>
#include <vela/VelaNotificationCenters.h>

#include "session_fixture.h"

namespace vela::testing {
namespace {

// Long enough for a sanitized velactl on a loaded machine; reached only
// when a line that should come never does.
constexpr std::chrono::milliseconds kLineTimeout = kStopTimeout;

class VelactlMonitor : public ASessionWithVelad {
 protected:
  // Starts `velactl [--json] monitor <arguments>`, its stdout read by
  // nextLine() and its stderr kept for errors().
  void start(const std::vector<std::string>& arguments, bool json) {
    errorsPath_ = bus_->directory() + "/monitor-errors-" + std::to_string(++started_) + ".log";
    std::vector<std::string> argv{VELACTL_PATH};
    if (json) argv.emplace_back("--json");
    argv.emplace_back("monitor");
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    monitor_.emplace(
        argv,
        SubprocessOptions{.notifyPipe = true, .discardStdout = false, .stdoutToPipe = true, .stderrPath = errorsPath_});
  }

  // The next line velactl printed; "" (failing the test) when none came.
  std::string nextLine() {
    auto line = monitor_->readLine(kLineTimeout);
    EXPECT_TRUE(line.has_value()) << "velactl printed nothing more; its stderr:\n" << errors();
    return line.value_or("");
  }

  nlohmann::json nextObject() {
    const std::string line = nextLine();
    nlohmann::json object = nlohmann::json::parse(line, nullptr, false);
    EXPECT_TRUE(object.is_object()) << "not one JSON object: " << line;
    return object;
  }

  std::string errors() const {
    std::ostringstream text;
    text << std::ifstream(errorsPath_).rdbuf();
    return text.str();
  }

  // velactl has its observers once it says so, but the bus routes
  // notifications to them only a moment later: so markers are posted until
  // one is printed, then lines are read up to the last one posted, so that
  // no marker is left to read.
  void awaitListening() {
    const auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
    int posted = 0;
    std::optional<std::string> line;
    while (!line && std::chrono::steady_clock::now() < deadline) {
      postMarker(++posted);
      line = monitor_->readLine(std::chrono::milliseconds(100));
    }
    ASSERT_TRUE(line) << "velactl printed no marker; its stderr:\n" << errors();
    const std::string last = "\"marker " + std::to_string(posted) + "\"";
    while (line && line->find(last) == std::string::npos) line = monitor_->readLine(kLineTimeout);
    ASSERT_TRUE(line) << "the last marker never came";
  }

  void post(std::string_view name, const VelaDictionary& userInfo) {
    ASSERT_TRUE(control_->postNotification(kVelaClientNotifyCenter, name, userInfo)) << control_->lastFailure();
  }

  std::optional<Subprocess> monitor_;

 private:
  void postMarker(int number) {
    post(kStopLostModeAlarmNotification, {{"marker", "marker " + std::to_string(number)}});
  }

  std::string errorsPath_;
  int started_ = 0;
};

nlohmann::json notification(std::string_view name, nlohmann::json userInfo) {
  return {{"center", kVelaClientNotifyCenter}, {"name", name}, {"userInfo", std::move(userInfo)}};
}

TEST_F(VelactlMonitor, PrintsEachNotificationAsOneJsonObjectPerLine) {
  start({}, true);
  ASSERT_NO_FATAL_FAILURE(awaitListening());

  // Real switches: locating passes through switching (3) before it is on (2).
  ASSERT_EQ(session_->enableLocusInContext(0), std::nullopt);
  EXPECT_EQ(nextObject(), notification(kLocusStateDidChangeNotification, {{"state", 3}}));
  EXPECT_EQ(nextObject(), notification(kLocusStateDidChangeNotification, {{"state", 2}}));
  auto info = std::make_shared<VelaLostModeInfo>();
  info->setLostModeEnabled(true);
  ASSERT_EQ(session_->enableLostModeWithInfo(info), std::nullopt);
  EXPECT_EQ(nextObject(), notification(kLostModeChangedNotification, {{"enabled", true}}));
  session_->disableLostMode();
  EXPECT_EQ(nextObject(), notification(kLostModeChangedNotification, {{"enabled", false}}));

  // Values JSON lacks come out tagged, as every other command prints them.
  post("vet.results.found",
       {{"Results", VelaDictionary{{"when", VelaDate{1700000000.5}}, {"bytes", VelaData{0xff, 0x00}}}}});
  EXPECT_EQ(nextObject(),
            notification("vet.results.found",
                         {{"Results", {{"when", {{"$date", 1700000000.5}}}, {"bytes", {{"$data", "/wA="}}}}}}));
}

TEST_F(VelactlMonitor, PrintsOnlyTheNamesAskedForAsReadableLines) {
  start({"--name", std::string(kLostModeChangedNotification), "--name", std::string(kStopLostModeAlarmNotification)},
        false);
  ASSERT_NO_FATAL_FAILURE(awaitListening());

  // Not asked for: were it printed, it would be the next line, since the
  // daemon's notifications arrive in the order it posts them.
  post(kLocusStateDidChangeNotification, {{"state", 2}});
  post(kStopLostModeAlarmNotification, {{"zeta", "two words"}, {"alpha", 1}, {"odd key", true}});
  EXPECT_EQ(nextLine(), std::string(kStopLostModeAlarmNotification) + R"( alpha=1 "odd key"=true zeta="two words")");
  post(kLostModeChangedNotification, {});
  EXPECT_EQ(nextLine(), std::string(kLostModeChangedNotification));
}

TEST_F(VelactlMonitor, EndsWithStatus0OnSigintAndSigterm) {
  for (const int signal : {SIGINT, SIGTERM}) {
    start({}, false);
    ASSERT_NO_FATAL_FAILURE(awaitListening());
    monitor_->signal(signal);
    EXPECT_EQ(monitor_->waitForExit(kWellWithinTheLimit), (ExitStatus{.code = 0, .signal = 0})) << signal;
    EXPECT_NE(errors().find("listening on " + std::string(kVelaClientNotifyCenter) + "\n"), std::string::npos)
        << errors();
    monitor_.reset();
  }
}

}  // namespace
}  // namespace vela::testing
