// SPDX-License-Identifier: MIT
// velactl's one-object JSON contract, run as a separate process.
#include <nlohmann/json.hpp>

#include <array>
#include <cstdio>
#include <memory>

#include "session_fixture.h"

namespace vela::testing {
namespace {

struct VelactlRun {
  int exitCode = -1;
  nlohmann::json output;
};

VelactlRun velactl(const std::string& arguments) {
  const std::string command = std::string(VELACTL_PATH) + " --json " + arguments;
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  std::string text;
  std::array<char, 4096> buffer{};
  while (pipe && std::fgets(buffer.data(), buffer.size(), pipe.get()) != nullptr) text += buffer.data();
  VelactlRun run;
  const int status = pclose(pipe.release());
  run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.output = nlohmann::json::parse(text, nullptr, false);
  return run;
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
  answerWith(member::kEnableLocusInContext, {}, VelaError("com.example.d", 12, {{"failureReason", "busy"}}));
  const VelactlRun run = velactl("enable-locus --context 2");
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_TRUE(run.output["result"].is_null());
  EXPECT_EQ(run.output["error"], (nlohmann::json{{"domain", "com.example.d"}, {"code", 12}, {"failureReason", "busy"}}));
  EXPECT_EQ(run.output["velaLastOperationResult"], 12);
}

TEST_F(Velactl, TellsALeftOutOptionFromAnEmptyOne) {
  answerWith(member::kDisableLocusUsingToken, {});
  ASSERT_TRUE(control_->clearCallLog());
  EXPECT_EQ(velactl("disable-locus").exitCode, 0);
  EXPECT_EQ(velactl("disable-locus --token ''").exitCode, 0);
  const auto calls = callsTo(member::kDisableLocusUsingToken);
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

}  // namespace
}  // namespace vela::testing
