// SPDX-License-Identifier: MIT
// velactl run as a separate process: its one-object JSON contract, its exit
// statuses and how it takes the friends account's tokens.
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "session_fixture.h"
#include "velactl_runner.h"

namespace vela::testing {
namespace {

struct VelactlRun {
  int exitCode = -1;
  nlohmann::json output;
};

VelactlRun velactl(const std::string& arguments, const std::optional<std::string>& input = std::nullopt) {
  const VelactlOutput output = runVelactl(arguments, {}, input);
  return VelactlRun{output.exitCode, nlohmann::json::parse(output.text, nullptr, false)};
}

// velactl's exit statuses; none of them is one of the library's codes.
constexpr int kSucceeded = 0;
constexpr int kFailed = 1;
constexpr int kUsageError = 2;

using Velactl = ASessionWithVelad;

TEST_F(Velactl, PrintsOneObjectWithResultErrorAndLastResult) {
  const VelactlRun run = velactl("locus-account");
  EXPECT_EQ(run.exitCode, 0);
  ASSERT_TRUE(run.output.is_object()) << run.output;
  EXPECT_TRUE(run.output["result"].contains("username"));
  EXPECT_TRUE(run.output["error"].is_null());
  EXPECT_EQ(run.output["velaLastOperationResult"], 0);
}

TEST_F(Velactl, ReportsTheDaemonErrorOfASwitchAndFails) {
  answerWith(member::kEnableLocusInContext.name, {}, VelaError("com.example.d", 12, {{"failureReason", "busy"}}));
  const VelactlRun run = velactl("enable-locus --context 2");
  EXPECT_EQ(run.exitCode, kFailed);
  EXPECT_TRUE(run.output["result"].is_null());
  EXPECT_EQ(run.output["error"],
            (nlohmann::json{{"domain", "com.example.d"}, {"code", 12}, {"failureReason", "busy"}}));
  EXPECT_EQ(run.output["velaLastOperationResult"], 12);
}

TEST_F(Velactl, TellsALeftOutOptionFromAnEmptyOne) {
  answerWith(member::kDisableLocusUsingToken.name, {});
  ASSERT_TRUE(control_->clearCallLog());
  EXPECT_EQ(velactl("disable-locus").exitCode, 0);
  EXPECT_EQ(velactl("disable-locus --token-from -", "").exitCode, 0);
  EXPECT_EQ(velactl("disable-locus --token-from -", "s3cret\n").exitCode, 0);
  // A token on the command line is refused before anything is sent.
  EXPECT_EQ(velactl("disable-locus --token s3cret").exitCode, 2);
  const auto calls = callsTo(member::kDisableLocusUsingToken.name);
  ASSERT_EQ(calls.size(), 3U);
  EXPECT_FALSE(calls[0].args.contains("token"));
  EXPECT_EQ(calls[1].args.at("token"), VelaValue(""));
  EXPECT_EQ(calls[2].args.at("token"), VelaValue("s3cret"));
}

TEST_F(Velactl, ShowsATimeOutAsCode106AndFails) {
  velad_->kill(SIGKILL);
  ASSERT_TRUE(velad_->waitForExit());
  const VelactlRun run = velactl("kith-device-id");
  EXPECT_EQ(run.exitCode, kFailed) << "106 is the code, never the exit status";
  EXPECT_TRUE(run.output["result"].is_null());
  EXPECT_EQ(run.output["velaLastOperationResult"], 106);
}

TEST_F(Velactl, AddsReadsAndRemovesTheFriendsAccount) {
  VelactlRun run = velactl(
      "add-kith-account --dsid '' --username ann --app-auth-token-status -3"
      R"( --additional-info '{"plan":"family","seats":5}' --vela-server-host kith.example.org)"
      " --vela-server-protocol-scheme https --tokens-from -",
      R"({"appAuthToken": "tok", "internalAuthToken": "itok"})");
  EXPECT_EQ(run.exitCode, kSucceeded);
  EXPECT_EQ(run.output, (nlohmann::json{{"result", nullptr}, {"error", nullptr}, {"velaLastOperationResult", 0}}));

  nlohmann::json expected = {
      {"dsid", ""},
      {"username", "ann"},
      {"appAuthToken", "(not-nil)"},
      {"appAuthTokenStatus", -3},
      {"additionalInfo", {{"plan", "family"}, {"seats", 5}}},
      {"velaServerHost", "kith.example.org"},
      {"velaServerProtocolScheme", "https"},
      {"velaRelayEnvironment", nullptr},
      {"internalAuthToken", "(not-nil)"},
  };
  run = velactl("retrieve-kith-account");
  EXPECT_EQ(run.exitCode, kSucceeded);
  EXPECT_EQ(run.output["result"], expected) << "tokens are masked unless asked for";
  expected["appAuthToken"] = "tok";
  expected["internalAuthToken"] = "itok";
  EXPECT_EQ(velactl("retrieve-kith-account --show-tokens").output["result"], expected);

  run = velactl("remove-kith-account-with-username bob");
  EXPECT_EQ(run.exitCode, kFailed);
  EXPECT_EQ(run.output["error"]["code"], 2);
  EXPECT_EQ(run.output["velaLastOperationResult"], 2);
  EXPECT_EQ(velactl("remove-kith-account-with-username --username ann").exitCode, kSucceeded);
  run = velactl("retrieve-kith-account");
  EXPECT_EQ(run.exitCode, kSucceeded);
  EXPECT_TRUE(run.output["result"].is_null());
}

// velactl exits right after sending a region event; the event must have
// reached velad by then, so the log is read without waiting.
TEST_F(Velactl, DeliversRegionEventsWithEveryLocationValue) {
  ASSERT_TRUE(control_->clearCallLog());
  EXPECT_EQ(velactl("did-enter-kith-region --identifier home --latitude 48.5 --longitude=-122.25 --altitude 10"
                    " --horizontal-accuracy 5 --vertical-accuracy 7 --course 90 --speed 1.5 --timestamp 1700000000.5")
                .exitCode,
            0);
  EXPECT_EQ(velactl("did-exit-kith-region").exitCode, 0);

  const auto entered = callsTo(member::kDidEnterKithRegion.name);
  ASSERT_EQ(entered.size(), 1U);
  EXPECT_EQ(entered[0].args, (VelaDictionary{{"regionIdentifier", "home"},
                                             {"location", VelaDictionary{{"$class", "VelaGeoLocation"},
                                                                         {"latitude", 48.5},
                                                                         {"longitude", -122.25},
                                                                         {"altitude", 10.0},
                                                                         {"horizontalAccuracy", 5.0},
                                                                         {"verticalAccuracy", 7.0},
                                                                         {"course", 90.0},
                                                                         {"speed", 1.5},
                                                                         {"timestamp", VelaDate{1700000000.5}}}}}));
  const auto exited = callsTo(member::kDidExitKithRegion.name);
  ASSERT_EQ(exited.size(), 1U);
  EXPECT_FALSE(exited[0].args.contains("regionIdentifier"));
  EXPECT_FALSE(exited[0].args.at("location").asDictionary()->contains("timestamp"));
}

// A command line velactl cannot carry out exits with 2, sends nothing, and
// says why on stderr only: with --json, stdout stays empty rather than
// holding something that could be taken for a result.
using VelactlUsage = ASessionWithVelad;

TEST_F(VelactlUsage, MistakesExitWith2AndSendNothing) {
  ASSERT_TRUE(control_->clearCallLog());
  for (const char* arguments : {
           "",                                // no command
           "frobnicate",                      // an unknown one
           "locus-state --bogus",             // an unknown option
           "enable-locus --context many",     // a malformed value
           "enable-locus --context",          // a missing value
           "prefs",                           // a command that needs one of its own
           "prefs get launches",              // a missing required option
           "prefs set k '{oops' --domain d",  // a value that is not JSON
           "monitor --center clientnotify",   // a center that is not an interface name
       }) {
    const VelactlOutput output = runVelactl(arguments);
    EXPECT_EQ(output.exitCode, kUsageError) << "velactl " << arguments;
    EXPECT_EQ(output.text, "") << "velactl " << arguments;
    EXPECT_NE(output.errors, "") << "velactl " << arguments;
  }
  const auto log = control_->callLog();
  ASSERT_TRUE(log) << control_->lastFailure();
  EXPECT_TRUE(log->empty());
}

TEST_F(VelactlUsage, HelpAndVersionExitWith0) {
  const VelactlOutput version = runVelactl("--version");
  EXPECT_EQ(version.exitCode, kSucceeded);
  EXPECT_EQ(version.text, "velactl " VELA_VERSION "\n");

  const VelactlOutput help = runVelactl("--help");
  EXPECT_EQ(help.exitCode, kSucceeded);
  // velactl registers commands only up to the one named; with none named,
  // the overview lists them all, the last group's too.
  EXPECT_NE(help.text.find("add-kith-account"), std::string::npos) << help.text;
  const VelactlOutput commandHelp = runVelactl("prefs get --help");
  EXPECT_EQ(commandHelp.exitCode, kSucceeded);
  EXPECT_NE(commandHelp.text.find("velactl --json prefs get"), std::string::npos) << commandHelp.text;
}

// The account's tokens come from a file or stdin, never from argv, where
// every user of the machine could read them.
class VelactlTokens : public ASessionWithVelad {
 protected:
  // The tokens the daemon keeps, as {appAuthToken, internalAuthToken}.
  static nlohmann::json storedTokens() {
    const VelactlRun run = velactl("retrieve-kith-account --show-tokens");
    EXPECT_EQ(run.exitCode, kSucceeded);
    const nlohmann::json& account = run.output["result"];
    if (!account.is_object()) return nullptr;
    return {account["appAuthToken"], account["internalAuthToken"]};
  }

  // Nothing reached the daemon's AddKithAccount.
  void expectNothingAdded() { EXPECT_TRUE(callsTo(member::kAddKithAccount.name).empty()); }
};

TEST_F(VelactlTokens, ReachTheDaemonFromStandardInput) {
  EXPECT_EQ(velactl("add-kith-account --username ann --tokens-from -",
                    R"({"appAuthToken": "app secret", "internalAuthToken": "internal secret"})")
                .exitCode,
            kSucceeded);
  EXPECT_EQ(storedTokens(), (nlohmann::json{"app secret", "internal secret"}));
}

TEST_F(VelactlTokens, ReachTheDaemonFromAFile) {
  std::string path = "/tmp/velactl-tokens.XXXXXX";
  const int fd = mkstemp(path.data());
  ASSERT_GE(fd, 0);
  close(fd);
  std::ofstream(path) << "{\n  \"internalAuthToken\": \"from a file\"\n}\n";
  const VelactlRun run = velactl("add-kith-account --username ann --tokens-from " + path);
  unlink(path.c_str());
  EXPECT_EQ(run.exitCode, kSucceeded);
  EXPECT_EQ(storedTokens(), (nlohmann::json{nullptr, "from a file"})) << "a token left out is nil";
}

TEST_F(VelactlTokens, AreNilWithoutInputAndEmptyWhenGivenEmpty) {
  EXPECT_EQ(velactl("add-kith-account --username ann").exitCode, kSucceeded);
  EXPECT_EQ(storedTokens(), (nlohmann::json{nullptr, nullptr}));
  EXPECT_EQ(
      velactl("add-kith-account --username ann --tokens-from -", R"({"appAuthToken": "", "internalAuthToken": null})")
          .exitCode,
      kSucceeded);
  EXPECT_EQ(storedTokens(), (nlohmann::json{"", nullptr}));
}

TEST_F(VelactlTokens, AreRefusedOnTheCommandLine) {
  ASSERT_TRUE(control_->clearCallLog());
  for (const char* arguments : {"--app-auth-token tok", "--internal-auth-token=tok", "--app-auth-token"}) {
    const VelactlOutput output = runVelactl(std::string("add-kith-account --username ann ") + arguments);
    EXPECT_EQ(output.exitCode, kUsageError) << arguments;
    EXPECT_NE(output.errors.find("--tokens-from"), std::string::npos) << output.errors;
  }
  expectNothingAdded();
}

TEST_F(VelactlTokens, RefuseMalformedInput) {
  ASSERT_TRUE(control_->clearCallLog());
  for (const char* input : {
           "",                                                     // nothing
           "app secret",                                           // not JSON
           R"(["app secret"])",                                    // not an object
           R"({"appAuthTokn": "app secret"})",                     // a misspelt key would send a nil token
           R"({"appAuthToken": 5})",                               // not a string
           R"({"appAuthToken": "a"} {"internalAuthToken": "b"})",  // two objects
       }) {
    const VelactlOutput output = runVelactl("add-kith-account --username ann --tokens-from -", {}, input);
    EXPECT_EQ(output.exitCode, kUsageError) << input;
    EXPECT_EQ(output.errors.find("app secret"), std::string::npos) << "a token is never echoed: " << output.errors;
  }
  EXPECT_EQ(runVelactl("add-kith-account --username ann --tokens-from /nonexistent/tokens").exitCode, kUsageError);
  expectNothingAdded();
}

}  // namespace
}  // namespace vela::testing
