// SPDX-License-Identifier: MIT
// velad as the system service: root is trusted, everyone else is put to the
// machine's real polkitd, and without polkit nothing guarded is allowed.
// Callers of another user are velactl run as nobody; velad also runs as an
// unprivileged user on a bus that allows only what its installed policy does.
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <systemd/sd-bus.h>

#include "busctl.h"
#include "other_users.h"
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
    openToOtherUsers();
  }

  std::string binaries() const { return bus_->directory() + "/bin"; }

  void openToOtherUsers() {
    PolkitDaemon::openToEveryUser(*bus_);
    nobodysVelactl_ = runnableByEveryone(VELACTL_PATH, binaries()).command;
  }

  void start(bool withPolkit, const std::string& rules = kRules) {
    if (withPolkit) polkit_.emplace(*bus_, rules);
    velad_.emplace(std::vector<std::string>{}, VeladMode::kService);
  }

  static json run(const std::string& arguments, const std::string& prefix, const std::optional<std::string>& input,
                  const std::string& velactl) {
    const VelactlOutput output = runVelactl(arguments, prefix, input, velactl);
    json parsed = json::parse(output.text, nullptr, false);
    EXPECT_FALSE(parsed.is_discarded()) << arguments << " printed " << output.text;
    return parsed;
  }
  static json asRoot(const std::string& arguments, const std::optional<std::string>& input = std::nullopt) {
    return run(arguments, "", input, VELACTL_PATH);
  }
  json asNobody(const std::string& arguments, const std::optional<std::string>& input = std::nullopt) const {
    return run(arguments, kAsNobody, input, nobodysVelactl_);
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
  std::string nobodysVelactl_;
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
  const auto [disableCode, disableReason] = refusal(asNobody("disable-locus --token-from -", "t"));
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

// Every guarded member, called raw by nobody: refused as its action's
// defaults say, and carried out once a rule grants the action.
struct GuardedCall {
  const char* member;
  const char* request;  // busctl's words after the a{sv} signature
  const char* action;
  std::int64_t refusedWith;  // under the defaults, for a caller outside any session
};
constexpr std::array kGuardedCalls = {
    GuardedCall{"EnableLocusInContext", "1 context i 1", "Warden.modify", kInteractiveAuthorizationRequired},
    GuardedCall{"EnableLostModeWithInfo", kNoKeys, "Warden.modify", kInteractiveAuthorizationRequired},
    GuardedCall{"DisableLocusUsingToken", "1 context i 0", "Warden.remove", kNotAuthorized},
    GuardedCall{"DisableLostMode", kNoKeys, "Warden.remove", kNotAuthorized},
    GuardedCall{"RemoveKithAccountWithUsername", "1 username s bob", "kith-manage", kInteractiveAuthorizationRequired},
    GuardedCall{"GetKithDeviceId", kNoKeys, "read-identity", kInteractiveAuthorizationRequired},
    GuardedCall{"GetLocusDeviceId", kNoKeys, "read-identity", kInteractiveAuthorizationRequired},
    GuardedCall{"GetStoreAccount", kNoKeys, "read-identity", kInteractiveAuthorizationRequired},
    GuardedCall{"GetLocusAccount", kNoKeys, "read-identity", kInteractiveAuthorizationRequired},
    GuardedCall{"GetNimbusAccount", kNoKeys, "read-identity", kInteractiveAuthorizationRequired},
    GuardedCall{"DidEnterKithRegion", "1 regionIdentifier s home", "report-region", kNotAuthorized},
    GuardedCall{"DidExitKithRegion", "1 regionIdentifier s home", "report-region", kNotAuthorized},
    GuardedCall{"DumpDebugInfo", "1 argument s all", "debug", kInteractiveAuthorizationRequired},
};

class EveryGuardedMember : public VeladAsTheSystemService {
 protected:
  void SetUp() override {
    VeladAsTheSystemService::SetUp();
    if (!IsSkipped() && !onPath("busctl")) GTEST_SKIP() << "busctl (Debian package systemd) is not installed";
  }

  // The daemon error code of nobody's call, 0 when none came back.
  std::int64_t codeForNobody(const GuardedCall& call) {
    const std::optional<json> reply = busctlCall(bus_->address(), call.member, call.request, kAsNobody);
    if (!reply) return -1;
    const json::json_pointer code("/error/data/code/data");
    return reply->contains(code) ? reply->at(code).get<std::int64_t>() : 0;
  }
};

TEST_F(EveryGuardedMember, IsRefusedAsItsActionsDefaultsSay) {
  start(true, "");
  for (const GuardedCall& call : kGuardedCalls) {
    EXPECT_EQ(codeForNobody(call), call.refusedWith) << call.member << " (" << call.action << ")";
  }
}

TEST_F(EveryGuardedMember, IsCarriedOutWhenARuleGrantsItsAction) {
  start(true, R"(polkit.addRule(function(action, subject) {
  if (action.id.indexOf("com.zentrex.VelaNotification.") == 0 && subject.user == "nobody") return polkit.Result.YES;
});)");
  for (const GuardedCall& call : kGuardedCalls) {
    const std::int64_t code = codeForNobody(call);
    // Some are refused on their merits (no such account): never for authorization.
    EXPECT_NE(code, kNotAuthorized) << call.member;
    EXPECT_NE(code, kInteractiveAuthorizationRequired) << call.member;
    EXPECT_NE(code, -1) << call.member;
  }
  asRoot("add-kith-account --username bob --tokens-from -", R"({"appAuthToken": "a"})");
  EXPECT_EQ(asNobody("retrieve-kith-account --show-tokens").at("result").at("appAuthToken"), "a");
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

// Whether a caller allows interactive authorization never shows in polkitd's
// answer here: with no authentication agent for the caller, the challenge is
// the same either way. So this one check puts a stand-in in polkit's place,
// which records the flags velad passes and answers with a challenge.
class StandInPolkit {
 public:
  StandInPolkit() {
    sd_bus* raw = nullptr;
    if (sd_bus_open_system(&raw) < 0) throw std::runtime_error("cannot reach the private bus");
    bus_.reset(raw);
    if (sd_bus_add_object_vtable(bus_.get(), nullptr, "/org/freedesktop/PolicyKit1/Authority",
                                 "org.freedesktop.PolicyKit1.Authority", kVtable, this) < 0 ||
        sd_bus_request_name(bus_.get(), "org.freedesktop.PolicyKit1", 0) < 0) {
      throw std::runtime_error("cannot stand in for polkit");
    }
  }

  // Serves the bus until velad has asked once; the flags it passed, or
  // nullopt when it did not ask in time.
  std::optional<std::uint32_t> nextFlags() {
    flags_.reset();
    const auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
    for (auto left = kStartTimeout; !flags_ && left.count() > 0;
         left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now())) {
      const int r = sd_bus_process(bus_.get(), nullptr);
      if (r < 0) break;
      if (r == 0) sd_bus_wait(bus_.get(), std::chrono::duration_cast<std::chrono::microseconds>(left).count());
    }
    return flags_;
  }

 private:
  static int checkAuthorization(sd_bus_message* call, void* self, sd_bus_error* /*error*/) {
    // Skips subject, action and details to reach the flags.
    int r = sd_bus_message_skip(call, "(sa{sv})sa{ss}");
    std::uint32_t flags = 0;
    if (r >= 0) r = sd_bus_message_read_basic(call, 'u', &flags);
    if (r < 0) return r;
    static_cast<StandInPolkit*>(self)->flags_ = flags;
    return sd_bus_reply_method_return(call, "(bba{ss})", 0, 1, 0);
  }

  // NOLINTNEXTLINE(*-avoid-c-arrays): sd-bus takes the table as an array
  static constexpr sd_bus_vtable kVtable[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD("CheckAuthorization", "(sa{sv})sa{ss}us", "(bba{ss})", checkAuthorization, 0), SD_BUS_VTABLE_END};

  struct Unref {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
  };
  std::unique_ptr<sd_bus, Unref> bus_;
  std::optional<std::uint32_t> flags_;
};

TEST_F(VeladAsTheSystemService, TellsPolkitWhetherTheCallerAllowsInteraction) {
  velad_.emplace(std::vector<std::string>{}, VeladMode::kService);
  StandInPolkit polkit;
  const auto enable = [](bool interactive) {
    // busctl, which sets the message flag the library never sets.
    return std::string(kAsNobody) +
           " busctl --system --allow-interactive-authorization=" + (interactive ? "yes" : "no") +
           " call com.zentrex.VelaNotification /com/zentrex/VelaNotification "
           "com.zentrex.VelaNotification.HandsetActions EnableLocusInContext a{sv} 1 context i 7";
  };
  constexpr std::uint32_t kAllowUserInteraction = 1;
  for (const bool interactive : {true, false}) {
    Subprocess caller({"sh", "-c", enable(interactive)},
                      SubprocessOptions{.notifyPipe = false, .discardStdout = true, .stderrPath = {}});
    EXPECT_EQ(polkit.nextFlags(), interactive ? kAllowUserInteraction : 0U) << "interactive " << interactive;
    ASSERT_TRUE(caller.waitForExit(kStartTimeout));
  }
}

// velad as it runs on a real machine: as its own unprivileged user, on a bus
// that allows only what the installed bus policies allow.
class VeladAsAnUnprivilegedService : public VeladAsTheSystemService {
 protected:
  void SetUp() override {
    if (const std::optional<std::string> why = PolkitDaemon::unavailable()) GTEST_SKIP() << *why;
    user_ = ServiceUser::standIn();
    if (!user_) GTEST_SKIP() << "no user daemon to run velad as";
    bus_.emplace(BusPolicy{.serviceUser = user_->name});
    openToOtherUsers();
    veladCopy_ = runnableByEveryone(VeladProcess::path(), binaries()).path;
    // Like the directory systemd makes for the service: its user's own.
    ASSERT_EQ(::mkdir(stateDirectory().c_str(), 0755), 0);
    ASSERT_EQ(::chown(stateDirectory().c_str(), user_->uid, user_->gid), 0);
    polkit_.emplace(*bus_, kRules, user_->name);
    velad_.emplace(std::vector<std::string>{}, VeladMode::kService,
                   VeladLaunch{.command = veladAs(*user_), .logPath = {}});
  }

  static std::string stateDirectory() { return std::getenv("STATE_DIRECTORY"); }

  // velad's copy run as `user`: the build tree may be out of the user's reach.
  std::vector<std::string> veladAs(const ServiceUser& user) const {
    std::vector<std::string> command = user.launcher();
    command.push_back(veladCopy_);
    return command;
  }

  std::optional<ServiceUser> user_;
  std::string veladCopy_;
};

TEST_F(VeladAsAnUnprivilegedService, ServesEveryUserWithinWhatPolkitAllows) {
  // The bus lets nobody reach velad, and velad asks polkit about nobody's
  // process: a challenge, not the refusal it gives when polkit cannot answer.
  EXPECT_EQ(asNobody("locus-state").at("velaLastOperationResult"), 0);
  EXPECT_EQ(refusal(asNobody("enable-locus")).first, kInteractiveAuthorizationRequired);
  EXPECT_EQ(refusal(asNobody("disable-locus --token-from -", "t")).first, kNotAuthorized);
  EXPECT_TRUE(asRoot("enable-locus").at("error").is_null());

  // Its files are its user's; the service's preferences are every user's to read.
  struct stat state {};
  ASSERT_EQ(::stat((stateDirectory() + "/state.sqlite3").c_str(), &state), 0);
  EXPECT_EQ(state.st_uid, user_->uid);
  EXPECT_EQ(state.st_mode & 0777U, 0600U);
  struct stat published {};
  ASSERT_EQ(::stat(std::getenv("VELA_SERVICE_PREFERENCES_PATH"), &published), 0);
  EXPECT_EQ(published.st_uid, user_->uid);
  EXPECT_EQ(published.st_mode & 0777U, 0644U);
}

TEST_F(VeladAsAnUnprivilegedService, LeavesItsNameToNoOtherUser) {
  velad_->kill(SIGTERM);
  ASSERT_TRUE(velad_->waitForExit());
  const std::string elsewhere = bus_->directory() + "/nobody";
  ASSERT_EQ(::mkdir(elsewhere.c_str(), 0755), 0);
  ASSERT_EQ(::chown(elsewhere.c_str(), 65534, 65534), 0);
  const ServiceUser nobody{"nobody", 65534, 65534};
  std::vector<std::string> impostor = veladAs(nobody);
  impostor.insert(impostor.end(), {"--bus=system", "--state-dir=" + elsewhere});
  EXPECT_EQ(Subprocess::run(impostor), (ExitStatus{.code = 1, .signal = 0}));

  velad_->restart();
  EXPECT_EQ(asNobody("locus-state").at("velaLastOperationResult"), 0);
}

}  // namespace
}  // namespace vela::testing
