// SPDX-License-Identifier: MIT
// The GLib example run as its users run it, against the private bus and a
// real velad: it must report each switch only once it has seen it settle,
// and end by itself, with a status that tells success from failure.
#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "session_fixture.h"

namespace vela::testing {
namespace {

// The example, with its stdout led into the notification pipe so that its
// lines can be waited for. It ends by itself within its own 10-second limit;
// the deadline here only keeps a broken build from hanging the test.
class RunningExample {
 public:
  explicit RunningExample(const std::string& argument)
      : child_({GLIB_HOST_EXAMPLE_PATH, argument},
               SubprocessOptions{.notifyPipe = true, .discardStdout = false, .stdoutToPipe = true, .stderrPath = {}}) {}

  // Reads lines until one is `line`; false when the example ends first.
  bool waitForLine(std::string_view line) {
    while (auto next = child_.readLine(left())) {
      lines_.push_back(std::move(*next));
      if (lines_.back() == line) return true;
    }
    return false;
  }

  // Reads the rest of its output and waits for it to end.
  ExitStatus finish() {
    while (auto next = child_.readLine(left())) lines_.push_back(std::move(*next));
    if (auto status = child_.waitForExit(left())) return *status;
    return child_.terminate();
  }

  const std::vector<std::string>& lines() const { return lines_; }

  // Where `line` was printed, or -1.
  std::ptrdiff_t indexOf(std::string_view line) const {
    const auto found = std::find(lines_.begin(), lines_.end(), line);
    return found == lines_.end() ? -1 : found - lines_.begin();
  }

  // What it printed so far, for failure messages.
  std::string output() const {
    std::string text = "the example printed:";
    for (const auto& line : lines_) text += "\n  " + line;
    return text;
  }

 private:
  std::chrono::milliseconds left() const {
    const auto now = std::chrono::steady_clock::now();
    return now >= deadline_ ? std::chrono::milliseconds(0)
                            : std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - now);
  }

  Subprocess child_;
  std::chrono::steady_clock::time_point deadline_ = std::chrono::steady_clock::now() + kStartTimeout;
  std::vector<std::string> lines_;
};

using TheGLibExample = ASessionWithVelad;

constexpr ExitStatus kSucceeded{.code = 0, .signal = 0};
constexpr ExitStatus kFailed{.code = 1, .signal = 0};

// That a run started in state `from`, and saw velad's notification of the
// switch and then of the settled state `to`, which it ended with.
void expectSwitched(const RunningExample& run, std::string_view from, std::string_view to, std::string_view settled) {
  EXPECT_EQ(run.indexOf(from), 0);
  EXPECT_NE(run.indexOf("locating: switching (3)"), -1);
  EXPECT_GT(run.indexOf(to), run.indexOf("locating: switching (3)"));
  EXPECT_EQ(run.lines().back(), settled);
}

TEST_F(TheGLibExample, TogglesLocatingOnThenOffReportingEachSwitchOnceSettled) {
  RunningExample on("--toggle");
  const ExitStatus onStatus = on.finish();
  {
    SCOPED_TRACE(on.output());
    ASSERT_EQ(onStatus, kSucceeded);
    EXPECT_NE(on.indexOf("switch accepted"), -1);
    expectSwitched(on, "locating: off (1)", "locating: on (2)", "settled: on");
  }

  // The next run reads the state this one left, and switches off with a token.
  ASSERT_TRUE(control_->clearCallLog());
  RunningExample off("--toggle");
  const ExitStatus offStatus = off.finish();
  SCOPED_TRACE(off.output());
  ASSERT_EQ(offStatus, kSucceeded);
  expectSwitched(off, "locating: on (2)", "locating: off (1)", "settled: off");
  const auto disables = callsTo(member::kDisableLocusUsingToken.name);
  ASSERT_EQ(disables.size(), 1U);
  EXPECT_TRUE(disables[0].args.contains("token"));
}

// velad posts nothing when locating already is as asked: the accepted switch
// alone must end the run, instead of the time limit.
TEST_F(TheGLibExample, EndsOnTheAcceptedSwitchWhenLocatingAlreadyIsAsAsked) {
  RunningExample example("--off");
  const ExitStatus status = example.finish();
  SCOPED_TRACE(example.output());
  ASSERT_EQ(status, kSucceeded);
  EXPECT_EQ(example.indexOf("locating: switching (3)"), -1);
  EXPECT_EQ(example.lines().back(), "settled: off");
}

TEST_F(TheGLibExample, FailsWhenTheDaemonRefusesTheSwitch) {
  answerWith(member::kEnableLocusInContext.name, {}, VelaError("com.example.d", 12, {{"failureReason", "busy"}}));
  RunningExample example("--on");
  const ExitStatus status = example.finish();
  SCOPED_TRACE(example.output());
  EXPECT_EQ(status, kFailed);
  EXPECT_EQ(example.indexOf("switch accepted"), -1);
}

TEST_F(TheGLibExample, PrintsLostModeWhileWaitingAndGivesUpWhenLocatingNeverSettles) {
  // A switch that takes ten minutes to settle outlasts the example's limit.
  velad_.reset();
  velad_.emplace(std::vector<std::string>{"--locus-settle-ms=600000"});
  RunningExample example("--on");
  ASSERT_TRUE(example.waitForLine("locating: switching (3)")) << example.output();

  auto info = std::make_shared<VelaLostModeInfo>();
  info->setLostModeEnabled(true);
  info->setMessage("Please call");
  info->setPhoneNumber("555-0100");
  ASSERT_EQ(session_->enableLostModeWithInfo(info), std::nullopt);
  EXPECT_TRUE(example.waitForLine("lost mode: on")) << example.output();

  const ExitStatus status = example.finish();
  SCOPED_TRACE(example.output());
  EXPECT_EQ(status, kFailed);
  EXPECT_EQ(example.indexOf("settled: on"), -1);
}

}  // namespace
}  // namespace vela::testing
