// SPDX-License-Identifier: MIT
// velad as the system service: root is trusted, everyone else is put to the
// machine's real polkitd, and without polkit nothing guarded is allowed.
// Callers of another user are velactl run as nobody.
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "polkit_daemon.h"
#include "private_bus.h"
#include "velactl_runner.h"

namespace vela::testing {
namespace {

using nlohmann::json;

constexpr std::int64_t kNotAuthorized = 5;
constexpr std::int64_t kInteractiveAuthorizationRequired = 6;
// velactl's tokens input, on its standard input.
constexpr const char* kAppToken = R"({"appAuthToken": "a"})";

// nobody may manage the friends account, and nothing else beyond the
// policy's defaults.
constexpr const char* kRules = R"(polkit.addRule(function(action, subject) {
  if (action.id == "com.zentrex.VelaNotification.kith-manage" && subject.user == "nobody") return polkit.Result.YES;
});)";

class VeladAsTheSystemService : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const std::optional<std::string> why = PolkitDaemon::unavailable()) GTEST_SKIP() << *why;
    bus_.emplace();
    PolkitDaemon::openToEveryUser(*bus_);
  }

  void start(bool withPolkit) {
    if (withPolkit) polkit_.emplace(*bus_, kRules);
    velad_.emplace(std::vector<std::string>{}, VeladMode::kService);
  }

  static json run(const std::string& arguments, const std::string& prefix, const std::optional<std::string>& input) {
    const VelactlOutput output = runVelactl(arguments, prefix, input);
    json parsed = json::parse(output.text, nullptr, false);
    EXPECT_FALSE(parsed.is_discarded()) << arguments << " printed " << output.text;
    return parsed;
  }
  static json asRoot(const std::string& arguments, const std::optional<std::string>& input = std::nullopt) {
    return run(arguments, "", input);
  }
  static json asNobody(const std::string& arguments, const std::optional<std::string>& input = std::nullopt) {
    return run(arguments, kAsNobody, input);
  }

  // The daemon error velactl printed, as {code, failure reason}.
  static std::pair<std::int64_t, std::string> refusal(const json& printed) {
    const json& error = printed.at("error");
    if (!error.is_object()) return {0, ""};
    EXPECT_EQ(error.value("domain", ""), "com.zentrex.VelaNotification.daemon");
    return {error.value("code", std::int64_t{0}), error.value("failureReason", "")};
  }

  std::optional<PrivateBus> bus_;
  std::optional<PolkitDaemon> polkit_;
  std::optional<VeladProcess> velad_;
};

TEST_F(VeladAsTheSystemService, AllowsOtherUsersOnlyWhatPolkitAllows) {
  start(true);
  const json before = asRoot("locus-state");
  // Everyone may read the locating state.
  EXPECT_EQ(asNobody("locus-state").at("result"), before.at("result"));

  // Allowed after authentication only: a challenge, which the library never
  // answers; and a plain refusal. Each names its action, and changes nothing.
  const auto [enableCode, enableReason] = refusal(asNobody("enable-locus"));
  EXPECT_EQ(enableCode, kInteractiveAuthorizationRequired);
  EXPECT_NE(enableReason.find("com.zentrex.VelaNotification.Warden.modify"), std::string::npos) << enableReason;
  const auto [disableCode, disableReason] = refusal(asNobody("disable-locus --token t"));
  EXPECT_EQ(disableCode, kNotAuthorized);
  EXPECT_NE(disableReason.find("com.zentrex.VelaNotification.Warden.remove"), std::string::npos) << disableReason;
  EXPECT_EQ(asNobody("locus-device-id").at("velaLastOperationResult"), kInteractiveAuthorizationRequired);
  EXPECT_EQ(asRoot("locus-state").at("result"), before.at("result"));

  // A rule grants nobody the friends account, but not its tokens.
  EXPECT_EQ(asNobody("add-kith-account --username friend@example.com --tokens-from -",
                     R"({"appAuthToken": "a", "internalAuthToken": "b"})")
                .at("velaLastOperationResult"),
            0);
  const json seenByNobody = asNobody("retrieve-kith-account").at("result");
  EXPECT_EQ(seenByNobody.at("username"), "friend@example.com");
  EXPECT_TRUE(seenByNobody.at("appAuthToken").is_null());
  EXPECT_TRUE(seenByNobody.at("internalAuthToken").is_null());
  const json seenByRoot = asRoot("retrieve-kith-account").at("result");
  EXPECT_FALSE(seenByRoot.at("appAuthToken").is_null());
  EXPECT_FALSE(seenByRoot.at("internalAuthToken").is_null());

  // Root is never put to polkit.
  EXPECT_TRUE(asRoot("enable-locus").at("error").is_null());
}

TEST_F(VeladAsTheSystemService, RefusesEverythingGuardedWhenPolkitIsAbsent) {
  start(false);
  EXPECT_EQ(refusal(asNobody("enable-locus")).first, kNotAuthorized);
  EXPECT_EQ(refusal(asNobody("add-kith-account --username friend@example.com --tokens-from -", kAppToken)).first,
            kNotAuthorized);
  EXPECT_EQ(asNobody("locus-state").at("velaLastOperationResult"), 0);
  EXPECT_TRUE(
      asRoot("add-kith-account --username friend@example.com --tokens-from -", kAppToken).at("error").is_null());
  const json seenByNobody = asNobody("retrieve-kith-account").at("result");
  EXPECT_EQ(seenByNobody.at("username"), "friend@example.com");
  EXPECT_TRUE(seenByNobody.at("appAuthToken").is_null());
}

}  // namespace
}  // namespace vela::testing
