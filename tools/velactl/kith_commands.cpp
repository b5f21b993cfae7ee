// SPDX-License-Identifier: MIT
#include <memory>
#include <string>

#include <vela/GeoLocation.h>
#include <vela/VelaNotifySession.h>

#include "command.h"
#include "json_value.h"
#include "secret_input.h"

namespace velactl {
namespace {

// Tokens print as the record's description prints them, so that a terminal,
// a demo transcript or a CI log never holds one by accident.
nlohmann::json token(const std::optional<std::string>& value, bool showTokens) {
  if (!value) return nullptr;
  return showTokens ? nlohmann::json(*value) : nlohmann::json("(not-nil)");
}

nlohmann::json accountToJson(const std::shared_ptr<VelaKithAccountInfo>& account, bool showTokens) {
  if (!account) return nullptr;
  return {
      {"dsid", toJson(account->dsid())},
      {"username", toJson(account->username())},
      {"appAuthToken", token(account->appAuthToken(), showTokens)},
      {"appAuthTokenStatus", account->appAuthTokenStatus()},
      {"additionalInfo", toJson(account->additionalInfo())},
      {"velaServerHost", toJson(account->velaServerHost())},
      {"velaServerProtocolScheme", toJson(account->velaServerProtocolScheme())},
      {"velaRelayEnvironment", toJson(account->velaRelayEnvironment())},
      {"internalAuthToken", token(account->internalAuthToken(), showTokens)},
  };
}

// The account's tokens come from a file or standard input (see
// secret_input.h), as one JSON object,
// {"appAuthToken": "...", "internalAuthToken": "..."}. A key left out, or
// null, is nil. Any other key is refused, so that a misspelt one cannot
// silently send a nil token.
struct Tokens {
  std::optional<std::string> appAuthToken;
  std::optional<std::string> internalAuthToken;
};

// Empty when `text` holds tokens, else why not.
std::string parseTokens(const std::string& text, Tokens& tokens) {
  const nlohmann::json json = nlohmann::json::parse(text, nullptr, false);
  if (json.is_discarded() || !json.is_object()) {
    return R"(not a JSON object such as {"appAuthToken": "...", "internalAuthToken": "..."})";
  }
  for (const auto& [key, value] : json.items()) {
    std::optional<std::string>* target = key == "appAuthToken"        ? &tokens.appAuthToken
                                         : key == "internalAuthToken" ? &tokens.internalAuthToken
                                                                      : nullptr;
    if (target == nullptr) return "unknown key \"" + key + "\" (appAuthToken and internalAuthToken are known)";
    if (value.is_string()) {
      *target = value.get<std::string>();
    } else if (!value.is_null()) {
      return "\"" + key + "\" is neither a string nor null";
    }
  }
  return {};
}

// Reads the tokens from `source`, a file name or "-" for standard input.
// Empty on success, else why not.
std::string readTokens(const std::string& source, Tokens& tokens) {
  std::string text;
  const std::string whyNot = readSecretInput(source, text);
  return whyNot.empty() ? parseTokens(text, tokens) : whyNot;
}

struct AccountOptions {
  OptionalString dsid;
  OptionalString username;
  std::int32_t appAuthTokenStatus = 0;
  OptionalString additionalInfo;  // JSON text, checked while parsing
  OptionalString velaServerHost;
  OptionalString velaServerProtocolScheme;
  OptionalString velaRelayEnvironment;
  std::string tokensFrom;  // a file name, "-" for standard input, empty for none
  Tokens tokens;

  std::shared_ptr<VelaKithAccountInfo> record() const {
    auto account = std::make_shared<VelaKithAccountInfo>();
    account->setDsid(dsid.get());
    account->setUsername(username.get());
    account->setAppAuthToken(tokens.appAuthToken);
    account->setAppAuthTokenStatus(appAuthTokenStatus);
    if (auto text = additionalInfo.get()) {
      std::string whyNot;
      account->setAdditionalInfo(fromJsonText(*text, &whyNot));
    }
    account->setVelaServerHost(velaServerHost.get());
    account->setVelaServerProtocolScheme(velaServerProtocolScheme.get());
    account->setVelaRelayEnvironment(velaRelayEnvironment.get());
    account->setInternalAuthToken(tokens.internalAuthToken);
    return account;
  }
};

void addAccountCommand(CLI::App& app, Action& chosen) {
  if (auto* command = addCommand(app, "add-kith-account", "Give the daemon the friends-locating account")) {
    auto options = std::make_shared<AccountOptions>();
    auto addString = [command](OptionalString& target, const char* name, const char* help) {
      target.option = command->add_option(name, target.value, help);
    };
    addString(options->dsid, "--dsid", "The account's identifier at the service");
    addString(options->username, "--username", "The account's user name");
    command->add_option("--app-auth-token-status", options->appAuthTokenStatus, "Status of the application token")
        ->capture_default_str();
    addString(options->additionalInfo, "--additional-info", "Further account information, as JSON");
    options->additionalInfo.option->check(
        [](const std::string& text) {
          std::string whyNot;
          return fromJsonText(text, &whyNot) ? std::string() : whyNot;
        },
        "JSON");
    addString(options->velaServerHost, "--vela-server-host", "Host of the account's service server");
    addString(options->velaServerProtocolScheme, "--vela-server-protocol-scheme", "Protocol scheme for that server");
    addString(options->velaRelayEnvironment, "--vela-relay-environment", "The account's push-service environment");
    command->add_option("--tokens-from", options->tokensFrom,
                        R"(Read the tokens from FILE ("-": standard input) as {"appAuthToken": ..., )"
                        R"("internalAuthToken": ...}; without it both are nil)");
    refuseSecretOption(*command, "--app-auth-token", "--tokens-from");
    refuseSecretOption(*command, "--internal-auth-token", "--tokens-from");
    addExample(command,
               R"(echo '{"appAuthToken": "...", "internalAuthToken": "..."}' | velactl add-kith-account )"
               R"(--username ann@example.org --dsid 1234567 --tokens-from -)",
               "A string option left out is nil; an empty one is the empty string. A token left out of the "
               "tokens input, or null there, is nil too.");
    command->callback([&chosen, options] {
      // Read while parsing, so that unreadable tokens are a usage error and
      // nothing is sent.
      if (!options->tokensFrom.empty()) {
        const std::string whyNot = readTokens(options->tokensFrom, options->tokens);
        if (!whyNot.empty()) throw CLI::ValidationError("--tokens-from", whyNot);
      }
      chosen = [options] {
        return Outcome{nullptr, VelaNotifySession::sharedInstance()->addKithAccount(options->record())};
      };
    });
  }
}

// A region known only by its identifier, which is all the daemon is told.
class NamedRegion final : public GeoRegion {
 public:
  explicit NamedRegion(std::optional<std::string> identifier) : identifier_(std::move(identifier)) {}
  std::optional<std::string> identifier() const override { return identifier_; }

 private:
  std::optional<std::string> identifier_;
};

struct RegionEventOptions {
  OptionalString identifier;
  double latitude = 0.0;
  double longitude = 0.0;
  double altitude = 0.0;
  double horizontalAccuracy = 0.0;
  double verticalAccuracy = 0.0;
  double course = 0.0;
  double speed = 0.0;
  double timestamp = 0.0;
  CLI::Option* timestampOption = nullptr;

  GeoLocation location() const {
    std::optional<VelaDate> when;
    if (timestampOption->count() > 0) when = VelaDate{timestamp};
    return GeoLocation(GeoCoordinate{latitude, longitude}, altitude, horizontalAccuracy, verticalAccuracy, course,
                       speed, when);
  }
};

using RegionEvent = void (VelaNotifySession::*)(const GeoRegion*, const GeoLocation*);

// Region events are sent without an answer: the result is always null.
void addRegionCommand(CLI::App& app, Action& chosen, const char* name, const char* help, RegionEvent event) {
  if (auto* command = addCommand(app, name, help)) {
    addExample(command,
               std::string("velactl ") + name +
                   " --identifier home --latitude 48.5 --longitude -122.25 --horizontal-accuracy 5 "
                   "--timestamp 1700000000",
               "Unless a polkit rule allows it, only root and velad's own user may report regions. It is sent "
               "without an answer, so velactl cannot report a refusal.");
    auto options = std::make_shared<RegionEventOptions>();
    options->identifier.option =
        command->add_option("--identifier", options->identifier.value, "The region's identifier (left out: nil)");
    command->add_option("--latitude", options->latitude, "Degrees")->capture_default_str();
    command->add_option("--longitude", options->longitude, "Degrees")->capture_default_str();
    command->add_option("--altitude", options->altitude, "Metres")->capture_default_str();
    command->add_option("--horizontal-accuracy", options->horizontalAccuracy, "Metres")->capture_default_str();
    command->add_option("--vertical-accuracy", options->verticalAccuracy, "Metres")->capture_default_str();
    command->add_option("--course", options->course, "Degrees")->capture_default_str();
    command->add_option("--speed", options->speed, "Metres per second")->capture_default_str();
    options->timestampOption =
        command->add_option("--timestamp", options->timestamp, "Seconds since 1970-01-01 UTC (left out: nil)");
    command->callback([&chosen, options, event] {
      chosen = [options, event] {
        const NamedRegion region(options->identifier.get());
        const GeoLocation location = options->location();
        (*VelaNotifySession::sharedInstance().*event)(&region, &location);
        awaitDelivery();
        return Outcome{nullptr, std::nullopt};
      };
    });
  }
}

}  // namespace

void addKithCommands(CLI::App& app, Action& chosen) {
  addAccountCommand(app, chosen);

  if (auto* remove = addCommand(app, "remove-kith-account-with-username",
                                "Ask the daemon to forget the friends-locating account with this user name")) {
    auto username = std::make_shared<OptionalString>();
    username->option = remove->add_option("username,--username", username->value, "The user name (left out: nil)");
    addExample(remove, "pkexec velactl remove-kith-account-with-username ann@example.org");
    remove->callback([&chosen, username] {
      chosen = [username] {
        return Outcome{nullptr, VelaNotifySession::sharedInstance()->removeKithAccountWithUsername(username->get())};
      };
    });
  }

  if (auto* retrieve = addCommand(app, "retrieve-kith-account", "The daemon's friends-locating account")) {
    auto showTokens = std::make_shared<bool>(false);
    retrieve->add_flag("--show-tokens", *showTokens, "Print the authentication tokens instead of \"(not-nil)\"");
    addExample(retrieve, "pkexec velactl --json retrieve-kith-account --show-tokens",
               "The daemon gives the tokens only to a caller allowed to read them; others see them as null.");
    retrieve->callback([&chosen, showTokens] {
      chosen = [showTokens] {
        std::shared_ptr<VelaKithAccountInfo> account;
        auto error = VelaNotifySession::sharedInstance()->retrieveKithAccount(account);
        return Outcome{accountToJson(account, *showTokens), std::move(error)};
      };
    });
  }

  addRegionCommand(app, chosen, "did-enter-kith-region", "Tell the daemon the device entered a friends region",
                   &VelaNotifySession::didEnterKithRegion);
  addRegionCommand(app, chosen, "did-exit-kith-region", "Tell the daemon the device left a friends region",
                   &VelaNotifySession::didExitKithRegion);
}

}  // namespace velactl
