// SPDX-License-Identifier: MIT
// velactl: every operation of the library as a subcommand.
#include <iostream>

#include <vela/VelaSync.h>

#include "command.h"
#include "json_value.h"

namespace {

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
  return outcome.error || lastResult != 0 ? 1 : 0;
}

[[nodiscard]] int run(int argc, char** argv) {
  CLI::App app{"velactl: talk to the device-locating daemon through the VelaNotification library"};
  bool json = false;
  app.add_flag("--json", json, "Print exactly one JSON object: {result, error, velaLastOperationResult}");
  app.require_subcommand(1);
  app.fallthrough();
  velactl::Action chosen;
  velactl::addLocatingCommands(app, chosen);
  velactl::addTopicCommands(app, chosen);
  velactl::addLostModeCommands(app, chosen);
  velactl::addPrefsCommands(app, chosen);
  velactl::addVettingCommands(app, chosen);
  velactl::addKithCommands(app, chosen);
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
