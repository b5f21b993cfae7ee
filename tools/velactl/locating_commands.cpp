// SPDX-License-Identifier: MIT
#include <memory>
#include <string>

#include <vela/VelaNotifySession.h>

#include "command.h"
#include "json_value.h"
#include "secret_input.h"

namespace velactl {
namespace {

nlohmann::json optionalValue(const std::optional<VelaDictionary>& value) {
  return value ? toJson(VelaValue(*value)) : nlohmann::json();
}

void addQuery(CLI::App& app, Action& chosen, const char* name, const char* help,
              std::optional<std::string> (VelaNotifySession::*query)()) {
  if (auto* command = addCommand(app, name, help)) {
    addExample(command, std::string("velactl ") + name);
    command->callback([&chosen, query] {
      chosen = [query] { return Outcome{toJson((*VelaNotifySession::sharedInstance().*query)()), {}}; };
    });
  }
}

void addAccountQuery(CLI::App& app, Action& chosen, const char* name, const char* help,
                     std::optional<VelaDictionary> (VelaNotifySession::*query)()) {
  if (auto* command = addCommand(app, name, help)) {
    addExample(command, std::string("velactl --json ") + name, "Prints null when the daemon has no such account.");
    command->callback([&chosen, query] {
      chosen = [query] { return Outcome{optionalValue((*VelaNotifySession::sharedInstance().*query)()), {}}; };
    });
  }
}

// Switching locating on and off.
void addSwitchCommands(CLI::App& app, Action& chosen) {
  static std::int32_t context = 0;
  if (auto* enable = addCommand(app, "enable-locus", "Switch device locating on")) {
    enable->add_option("--context", context, "Context passed to the daemon")->capture_default_str();
    addExample(enable, "pkexec velactl enable-locus --context 1",
               "Needs authorization: an unprivileged user runs it through pkexec.");
    enable->callback([&chosen] {
      chosen = [] { return Outcome{nullptr, VelaNotifySession::sharedInstance()->enableLocusInContext(context)}; };
    });
  }

  // The token may be a secret: it comes from a file or standard input, its
  // whole content but one final line break. Left out, it is nil.
  static std::string tokenFrom;
  if (auto* disable = addCommand(app, "disable-locus", "Switch device locating off")) {
    disable->add_option("--token-from", tokenFrom,
                        R"(Read the token from FILE ("-": standard input); without it the token is nil)");
    refuseSecretOption(*disable, "--token", "--token-from");
    disable->add_option("--context", context, "Context passed to the daemon")->capture_default_str();
    addExample(disable, "printf '%s' \"$TOKEN\" | pkexec velactl disable-locus --token-from -",
               "Needs authorization. An empty input is the empty string; leaving --token-from out sends nil.");
    disable->callback([&chosen] {
      // Read while parsing, so that an unreadable token is a usage error and
      // nothing is sent.
      std::optional<std::string> token;
      if (!tokenFrom.empty()) {
        std::string text;
        const std::string whyNot = readSecretInput(tokenFrom, text);
        if (!whyNot.empty()) throw CLI::ValidationError("--token-from", whyNot);
        if (!text.empty() && text.back() == '\n') text.pop_back();
        token = std::move(text);
      }
      chosen = [token = std::move(token)] {
        return Outcome{nullptr, VelaNotifySession::sharedInstance()->disableLocusUsingToken(token, context)};
      };
    });
  }
}

}  // namespace

void addLocatingCommands(CLI::App& app, Action& chosen) {
  addQuery(app, chosen, "kith-device-id", "Device identifier of the friends-locating service",
           &VelaNotifySession::kithDeviceId);
  addQuery(app, chosen, "locus-device-id", "Device identifier of the device-locating service",
           &VelaNotifySession::locusDeviceId);
  addQuery(app, chosen, "store-account", "The store account", &VelaNotifySession::storeAccount);
  addAccountQuery(app, chosen, "locus-account", "The device-locating account", &VelaNotifySession::locusAccount);
  addAccountQuery(app, chosen, "nimbus-account", "The cloud account of the device's user",
                  &VelaNotifySession::nimbusAccount);

  if (auto* copy = addCommand(app, "copy-store-account", "The store account, through the shared session")) {
    addExample(copy, "velactl copy-store-account");
    copy->callback([&chosen] { chosen = [] { return Outcome{toJson(VelaNotifySession::copyStoreAccount()), {}}; }; });
  }

  if (auto* all = addCommand(app, "retrieve-all-accounts", "Every account, keyed by user name")) {
    addExample(all, "velactl --json retrieve-all-accounts");
    all->callback([&chosen] {
      chosen = [] {
        std::optional<VelaDictionary> accounts;
        VelaNotifySession::sharedInstance()->retrieveAllAccounts(accounts);
        return Outcome{optionalValue(accounts), {}};
      };
    });
  }

  static int waitMs = 10000;
  if (auto* state = addCommand(app, "locus-state", "The daemon's locating state (1 and 2 are settled)")) {
    state->add_option("--wait-ms", waitMs, "How long to wait for the answer")->capture_default_str();
    addExample(state, "velactl locus-state --wait-ms 2000");
    state->callback([&chosen] {
      chosen = [] {
        using Answer = std::pair<std::int32_t, std::optional<VelaError>>;
        auto done = std::make_shared<Completion<Answer>>();
        VelaNotifySession::sharedInstance()->locusStateWithCompletion(
            [done](std::int32_t value, std::optional<VelaError> error) {
              done->set({value, std::move(error)});
            });
        auto answer = done->wait(std::chrono::milliseconds(waitMs));
        if (!answer) return Outcome{nullptr, VelaError(std::string(kVelaErrorDomain), VelaErrorCodeTimedOut)};
        return Outcome{answer->first, std::move(answer->second)};
      };
    });
  }

  if (auto* inProgress = addCommand(app, "is-locus-state-change-in-progress", "Whether locating is switching")) {
    inProgress->add_option("--wait-ms", waitMs, "How long to wait for the answer")->capture_default_str();
    addExample(inProgress, "velactl is-locus-state-change-in-progress");
    inProgress->callback([&chosen] {
      chosen = [] {
        using Answer = std::pair<bool, std::optional<VelaError>>;
        auto done = std::make_shared<Completion<Answer>>();
        VelaNotifySession::sharedInstance()->isLocusStateChangeInProgressWithCompletion(
            [done](bool value, std::optional<VelaError> error) {
              done->set({value, std::move(error)});
            });
        auto answer = done->wait(std::chrono::milliseconds(waitMs));
        if (!answer) return Outcome{nullptr, VelaError(std::string(kVelaErrorDomain), VelaErrorCodeTimedOut)};
        return Outcome{answer->first, std::move(answer->second)};
      };
    });
  }

  addSwitchCommands(app, chosen);
}

}  // namespace velactl
