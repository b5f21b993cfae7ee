// SPDX-License-Identifier: MIT
// velactl: every operation of the library as a subcommand.
#include <cstdint>
#include <iostream>
#include <string_view>

#include <vela/VelaError.h>
#include <vela/VelaSync.h>

#include "command.h"
#include "json_value.h"

namespace {

// What a person can do about a refusal. The library never asks for a
// password itself, so that no call outlasts its 5 seconds; pkexec asks at the
// terminal (through polkit's text agent) and runs velactl as root.
void adviseOnRefusal(std::int64_t code) {
  if (code == VelaDaemonErrorCodeInteractiveAuthorizationRequired) {
    std::cerr << "velactl: this needs authentication; run it again as `pkexec velactl ...`, which asks for the "
                 "password at this terminal\n";
  } else if (code == VelaDaemonErrorCodeNotAuthorized) {
    std::cerr << "velactl: your user may not do this; an administrator can allow it with a polkit rule, or run it "
                 "as root\n";
  }
}

[[nodiscard]] int report(const velactl::Outcome& outcome, bool json) {
  const auto lastResult = velaLastOperationResult.load();

  if (json) {
    std::cout << nlohmann::json{{"result", outcome.result},
                                {"error", velactl::errorToJson(outcome.error)},
                                {"velaLastOperationResult", lastResult}}
                     .dump()
              << '\n';
  } else {
    if (outcome.result.is_string()) {
      std::cout << outcome.result.get<std::string>() << '\n';
    } else if (!outcome.result.is_null()) {
      std::cout << outcome.result.dump(2) << '\n';
    }
    if (outcome.error) {
      const auto reason = outcome.error->failureReason();
      std::cerr << "error: " << outcome.error->domain() << ' ' << outcome.error->code()
                << (reason ? ": " + *reason : std::string()) << '\n';
    } else if (lastResult != 0) {
      std::cerr << "velaLastOperationResult: " << lastResult << '\n';
    }
  }
  // Value-returning operations leave only the code, which no library code
  // shares with the daemon's.
  if (!outcome.error || outcome.error->domain() == kVelaDaemonErrorDomain) {
    adviseOnRefusal(outcome.error ? outcome.error->code() : lastResult);
  }
  return outcome.error || lastResult != 0 ? 1 : 0;
}

// The subcommand named on the command line: the first argument that is not
// an option (the only option before it is --json, which takes no value).
std::string_view subcommandName(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (!arg.empty() && arg.front() != '-') return arg;
  }
  return {};
}

bool hasSubcommand(CLI::App& app, std::string_view name) {
  return !app.get_subcommands([name](const CLI::App* sub) { return sub->get_name() == name; }).empty();
}

[[nodiscard]] int run(int argc, char** argv) {
  CLI::App app{"velactl: talk to the device-locating daemon through the VelaNotification library"};
  bool json = false;
  app.add_flag("--json", json, "Print exactly one JSON object: {result, error, velaLastOperationResult}");
  app.require_subcommand(1);
  app.fallthrough();
  velactl::Action chosen;
  // Registering every subcommand costs more than the call a short-lived
  // velactl makes: groups are added only up to the one that has the named
  // subcommand, and all of them for help or a name that none has.
  const std::string_view named = subcommandName(argc, argv);
  for (const auto add : {velactl::addLocatingCommands, velactl::addTopicCommands, velactl::addLostModeCommands,
                         velactl::addPrefsCommands, velactl::addVettingCommands, velactl::addKithCommands}) {
    add(app, chosen);
    if (!named.empty() && hasSubcommand(app, named)) break;
  }
  CLI11_PARSE(app, argc, argv);
  const velactl::Outcome outcome = chosen();
  int status = report(outcome, json);
  if (outcome.then && !outcome.then(json)) status = 1;
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {
    // The library reports failures as values; what lands here is the tool's own (out of memory).
    std::cerr << "velactl: " << e.what() << '\n';
    return 1;
  }
}
