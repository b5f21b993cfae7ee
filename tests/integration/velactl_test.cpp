// SPDX-License-Identifier: MIT
// velactl's one-object JSON contract, run as a separate process.
#include <nlohmann/json.hpp>

#include "session_fixture.h"
#include "velactl_runner.h"

namespace vela::testing {
namespace {

struct VelactlRun {
  int exitCode = -1;
  nlohmann::json output;
};

VelactlRun velactl(const std::string& arguments) {
  const VelactlOutput output = runVelactl(arguments);
  return VelactlRun{output.exitCode, nlohmann::json::parse(output.text, nullptr, false)};
}

using Velactl = ASessionWithVelad;

TEST_F(Velactl, PrintsOneObjectWithResultErrorAndLastResult) {
  const VelactlRun run = velactl("locus-account");
  EXPECT_EQ(run.exitCode, 0);
  ASSERT_TRUE(run.output.is_object()) << run.output;
  EXPECT_TRUE(run.output["result"].contains("username"));
  EXPECT_TRUE(run.output["error"].is_null());
  EXPECT_EQ(run.output["velaLastOperationResult"], 0);
}

TEST_F(Velactl, ReportsTheDaemonErrorOfASwitch) {
  answerWith(member::kEnableLocusInContext.name, {}, VelaError("com.example.d", 12, {{"failureReason", "busy"}}));
  const VelactlRun run = velactl("enable-locus --context 2");
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_TRUE(run.output["result"].is_null());
  EXPECT_EQ(run.output["error"],
            (nlohmann::json{{"domain", "com.example.d"}, {"code", 12}, {"failureReason", "busy"}}));
  EXPECT_EQ(run.output["velaLastOperationResult"], 12);
}

TEST_F(Velactl, TellsALeftOutOptionFromAnEmptyOne) {
  answerWith(member::kDisableLocusUsingToken.name, {});
  ASSERT_TRUE(control_->clearCallLog());
  EXPECT_EQ(velactl("disable-locus").exitCode, 0);
  EXPECT_EQ(velactl("disable-locus --token ''").exitCode, 0);
  const auto calls = callsTo(member::kDisableLocusUsingToken.name);
  ASSERT_EQ(calls.size(), 2U);
  EXPECT_FALSE(calls[0].args.contains("token"));
  EXPECT_EQ(calls[1].args.at("token"), VelaValue(""));
}

TEST_F(Velactl, ShowsATimeOutAsCode106) {
  velad_->kill(SIGKILL);
  ASSERT_TRUE(velad_->waitForExit());
  const VelactlRun run = velactl("kith-device-id");
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_TRUE(run.output["result"].is_null());
  EXPECT_EQ(run.output["velaLastOperationResult"], 106);
}

TEST_F(Velactl, AddsReadsAndRemovesTheFriendsAccount) {
  VelactlRun run = velactl(
      "add-kith-account --dsid '' --username ann --app-auth-token tok --app-auth-token-status -3"
      R"( --additional-info '{"plan":"family","seats":5}' --vela-server-host kith.example.org)"
      " --vela-server-protocol-scheme https --internal-auth-token itok");
  EXPECT_EQ(run.exitCode, 0);
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
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_EQ(run.output["result"], expected) << "tokens are masked unless asked for";
  expected["appAuthToken"] = "tok";
  expected["internalAuthToken"] = "itok";
  EXPECT_EQ(velactl("retrieve-kith-account --show-tokens").output["result"], expected);

  run = velactl("remove-kith-account-with-username bob");
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_EQ(run.output["error"]["code"], 2);
  EXPECT_EQ(run.output["velaLastOperationResult"], 2);
  EXPECT_EQ(velactl("remove-kith-account-with-username --username ann").exitCode, 0);
  run = velactl("retrieve-kith-account");
  EXPECT_EQ(run.exitCode, 0);
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

}  // namespace
}  // namespace vela::testing
