// SPDX-License-Identifier: MIT
// velad's log: every line carries its priority, nothing a client sends can
// forge, split or flood a line, and nothing the user stored reaches it.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "log.h"
#include "private_bus.h"
#include "request_limits.h"
#include "velad_fixture.h"

namespace vela::testing {
namespace {

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The line's syslog priority, or nullopt when it does not start with one of
// the levels velad uses.
std::optional<int> priorityOf(std::string_view line) {
  if (line.size() < 3 || line[0] != '<' || line[2] != '>' || line[1] < '3' || line[1] > '7') return std::nullopt;
  return line[1] - '0';
}

// What a terminal or a log reader could take for more than text.
std::optional<std::string> controlIn(std::string_view line) {
  for (std::size_t i = 0; i < line.size(); ++i) {
    const auto byte = static_cast<unsigned char>(line[i]);
    if (byte < 0x20 || byte == 0x7f) return "byte " + std::to_string(byte) + " at " + std::to_string(i);
    // U+0080..U+009F, the C1 controls, some of which open escape sequences.
    if (byte == 0xc2 && i + 1 < line.size() && static_cast<unsigned char>(line[i + 1]) < 0xa0) {
      return "a C1 control at " + std::to_string(i);
    }
  }
  return std::nullopt;
}

// Every line is one of velad's, whole, bounded and free of control bytes.
void expectWellFormed(const std::string& log) {
  ASSERT_FALSE(log.empty());
  EXPECT_EQ(log.back(), '\n') << "the log ends inside a line";
  for (const std::string& line : splitLines(log)) {
    EXPECT_TRUE(priorityOf(line)) << "a line without velad's priority prefix: " << line;
    EXPECT_LT(line.size(), daemon::kMaxLogLineBytes) << line.substr(0, 80);
    if (const auto control = controlIn(line)) ADD_FAILURE() << *control << " in: " << line;
  }
}

// velad --testing on a private bus, its stderr in a file of the bus's
// directory.
class VeladLog : public ::testing::Test {
 protected:
  void start(std::vector<std::string> arguments) {
    bus_.emplace();
    logPath_ = bus_->directory() + "/velad.log";
    velad_.emplace(std::move(arguments), VeladMode::kTesting, VeladLaunch{.command = {}, .logPath = logPath_});
    std::string whyNot;
    client_ = bus::TestBusClient::open(bus::BusKind::kSystem, &whyNot);
    ASSERT_NE(client_, nullptr) << whyNot;
  }

  // Calls `member` and expects velad's success; velad has written the
  // call's log lines by the time it answers.
  void succeed(std::string_view member, const VelaDictionary& args = {}) {
    const bus::CallResult result = client_->call(kHandsetActions, member, args);
    ASSERT_FALSE(result.failed()) << member << ": " << result.errorName << ": " << result.errorMessage;
    ASSERT_TRUE(result.reply) << member;
    EXPECT_FALSE(result.reply->contains("error")) << member << ": " << VelaValue(*result.reply).description();
  }

  std::string log() const { return readFile(logPath_); }

  std::optional<PrivateBus> bus_;
  std::string logPath_;
  std::optional<VeladProcess> velad_;
  std::unique_ptr<bus::TestBusClient> client_;
};

TEST_F(VeladLog, WhatAClientSendsCannotForgeSplitOrColourALine) {
  start({"--verbose"});
  // A line break followed by a priority of velad's own, a terminal escape
  // that clears the screen, a carriage return, and the one-character form of
  // ESC [ (U+009B).
  const std::string forged =
      "dump\n<0>forged line\x1b[2J\r<1>\xc2\x9b"
      "31mred";
  succeed("DumpDebugInfo", {{"argument", forged}});
  // Long enough to be cut, made of bytes that each take four to escape.
  succeed("DumpDebugInfo", {{"argument", std::string(daemon::kMaxValueBytes, '\x1b')}});

  const std::string written = log();
  expectWellFormed(written);
  for (const std::string& line : splitLines(written)) {
    EXPECT_NE(line.rfind("<0>", 0), 0U) << line;
    EXPECT_NE(line.rfind("<1>", 0), 0U) << line;
  }
  // The argument did reach the log, as text.
  EXPECT_NE(written.find(R"(dump\n<0>forged line\x1b[2J\x0d<1>\xc2\x9b31mred)"), std::string::npos) << written;
}

TEST_F(VeladLog, ADebugDumpStaysSmallAndHoldsNothingTheUserStored) {
  start({"--verbose"});
  // Each value as large as velad takes one, and marked, so that any trace of
  // it in the log shows.
  auto stored = [](std::string_view what, int i) {
    std::string value = "stored-" + std::string(what) + "-" + std::to_string(i) + "-";
    value.resize(daemon::kMaxValueBytes, 'v');
    return value;
  };
  for (int i = 0; i < 12; ++i) {
    succeed("DidEnterKithRegion", {{"regionIdentifier", stored("region", i)}});
    succeed("StartListeningOnTopic", {{"topic", stored("topic", i)}});
  }
  succeed("EnableLostModeWithInfo", {{"info", VelaDictionary{{"$class", "VelaLostModeInfo"},
                                                             {"lostModeEnabled", true},
                                                             {"message", stored("message", 0)},
                                                             {"phoneNumber", stored("phone", 0)}}}});
  succeed("AddKithAccount", {{"account", VelaDictionary{{"$class", "VelaKithAccountInfo"},
                                                        {"username", stored("username", 0)},
                                                        {"appAuthToken", stored("token", 0)},
                                                        {"internalAuthToken", stored("token", 1)}}}});
  succeed("VetEmailAccount", {{"account", stored("address", 0).substr(0, 4000) + "@example.org"}});
  const std::size_t before = log().size();

  succeed("DumpDebugInfo", {{"argument", stored("argument", 0)}});

  const std::string written = log();
  expectWellFormed(written);
  const std::string dump = written.substr(before);
  EXPECT_NE(dump.find("debug dump"), std::string::npos) << dump;
  EXPECT_NE(dump.find("kith regions inside: 12"), std::string::npos) << dump;
  // About a dozen short lines, whatever the state holds.
  EXPECT_LT(dump.size(), 2048U) << dump;
  // Nothing stored appears above the debug level; the dump's own argument
  // is the caller's choice, and cut.
  for (const std::string& line : splitLines(written)) {
    if (priorityOf(line) == 7 || line.find("stored-argument-0-") != std::string::npos) continue;
    EXPECT_EQ(line.find("stored-"), std::string::npos) << line.substr(0, 120);
  }
}

TEST_F(VeladLog, WritesInfoAndDebugLinesOnlyWhenVerbose) {
  for (const bool verbose : {false, true}) {
    SCOPED_TRACE(verbose ? "--verbose" : "quiet");
    start(verbose ? std::vector<std::string>{"--verbose"} : std::vector<std::string>{});
    succeed("AddKithAccount", {{"account", VelaDictionary{{"$class", "VelaKithAccountInfo"}, {"username", "ann"}}}});
    succeed("DumpDebugInfo", {{"argument", "all"}});

    const std::string written = log();
    expectWellFormed(written);
    std::vector<int> levels;
    for (const std::string& line : splitLines(written)) levels.push_back(priorityOf(line).value_or(0));
    auto has = [&levels](int level) { return std::find(levels.begin(), levels.end(), level) != levels.end(); };
    // Start-up and the dump a client asked for, always.
    EXPECT_TRUE(has(5)) << written;
    // "friends account added", and "AddKithAccount from :1.n".
    EXPECT_EQ(has(6), verbose) << written;
    EXPECT_EQ(has(7), verbose) << written;
    client_.reset();
    velad_.reset();
    bus_.reset();
  }
}

// The writer itself, for velad's own text (a library's error message, a
// failure reason) that no client shaped: stderr goes to a file meanwhile.
class LogWriter : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = ::testing::TempDir() + "vela-log-writer-" + std::to_string(::getpid());
    const int file = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(file, 0);
    savedStderr_ = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
    ASSERT_GE(savedStderr_, 0);
    ASSERT_EQ(::dup2(file, STDERR_FILENO), STDERR_FILENO);
    ::close(file);
  }

  void TearDown() override {
    restore();
    daemon::setVerboseLogging(false);
    ::unlink(path_.c_str());
  }

  // Puts stderr back and returns what was written meanwhile.
  std::string written() {
    restore();
    return readFile(path_);
  }

 private:
  void restore() {
    if (savedStderr_ < 0) return;
    ::dup2(savedStderr_, STDERR_FILENO);
    ::close(savedStderr_);
    savedStderr_ = -1;
  }

  std::string path_;
  int savedStderr_ = -1;
};

TEST_F(LogWriter, WritesAnyTextAsOneBoundedLineAndCutsLongOnesShort) {
  std::string huge = "start\n<0>forged\x1b[2J";
  huge.resize(std::size_t{1} << 20U, 'x');
  daemon::log(daemon::LogLevel::kWarning, huge);
  // Cut where a two-byte character starts one byte too late to fit: it
  // goes whole.
  const std::size_t fitting = daemon::kMaxLogLineBytes - std::string_view("<3>\n [cut]").size() - 1;
  std::string accented(fitting, 'y');
  for (int i = 0; i < 100; ++i) accented += "\xc3\xa9";
  daemon::log(daemon::LogLevel::kError, accented);

  const std::string text = written();
  expectWellFormed(text);
  const std::vector<std::string> lines = splitLines(text);
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].rfind(R"(<4>start\n<0>forged\x1b[2J)", 0), 0U) << lines[0].substr(0, 80);
  EXPECT_EQ(lines[0].substr(lines[0].size() - 6), " [cut]");
  EXPECT_EQ(lines[1], "<3>" + std::string(fitting, 'y') + " [cut]");
}

TEST_F(LogWriter, WritesEachLineOfADumpWithItsPriorityUpToABound) {
  std::string many;
  for (std::size_t i = 0; i < 3 * daemon::kMaxLogLines; ++i) many += "line " + std::to_string(i) + "\n\n";
  daemon::logLines(daemon::LogLevel::kNotice, many);
  // Written with --verbose only.
  daemon::logLines(daemon::LogLevel::kDebug, "hidden\n");
  daemon::log(daemon::LogLevel::kInfo, "hidden");

  const std::string text = written();
  expectWellFormed(text);
  const std::vector<std::string> lines = splitLines(text);
  ASSERT_EQ(lines.size(), daemon::kMaxLogLines + 1);
  EXPECT_EQ(lines.front(), "<5>line 0");
  EXPECT_EQ(lines.back(), "<5>[further lines left out]");
}

TEST(Printable, EscapesWhatCouldEndOrSteerALineAndKeepsText) {
  EXPECT_EQ(daemon::printable("a\\b\nc\x1b[2J\x7f"), R"(a\\b\nc\x1b[2J\x7f)");
  // Well-formed UTF-8 stays; malformed bytes and C1 controls do not.
  EXPECT_EQ(daemon::printable("caf\xc3\xa9 \xe2\x82\xac"), "caf\xc3\xa9 \xe2\x82\xac");
  EXPECT_EQ(daemon::printable("\xc3(\xff\xc2\x9b"), R"(\xc3(\xff\xc2\x9b)");
  // Overlong forms and surrogates are not characters either.
  EXPECT_EQ(daemon::printable("\xc0\xaf\xed\xa0\x80"), R"(\xc0\xaf\xed\xa0\x80)");
  const std::string cut = daemon::printable(std::string(5000, 'z'));
  EXPECT_LT(cut.size(), 300U);
  EXPECT_NE(cut.find("(5000 bytes)"), std::string::npos) << cut;
}

}  // namespace
}  // namespace vela::testing
