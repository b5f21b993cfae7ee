// SPDX-License-Identifier: MIT
// velactl: every operation of the library as a subcommand.
#include <cstdint>
#include <iostream>
#include <string>
#include <string_view>
#include <utility>

#include <vela/VelaError.h>
#include <vela/VelaSync.h>

#include "command.h"
#include "json_value.h"

namespace velactl {
namespace {

// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables): set once, before any command is added
std::string_view onlyCommand;

}  // namespace

void registerOnly(std::string_view named) { onlyCommand = named; }

CLI::App* addCommand(CLI::App& app, const char* name, const char* help) {
  if (!onlyCommand.empty() && onlyCommand != name) return nullptr;
  return app.add_subcommand(name, help);
}

}  // namespace velactl

namespace {

// velactl's exit statuses. A script tells a failed operation from a mistyped
// command line by these; the error code itself is printed, never used as the
// status, since the library's codes (100 and up) would not fit beside them.
constexpr int kExitSuccess = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

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
  return outcome.error || lastResult != 0 ? kExitFailed : kExitSuccess;
}

// The subcommand named on the command line: the first argument that is not
// an option (the options before it, --json and the like, take no value).
std::string_view subcommandName(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (!arg.empty() && arg.front() != '-') return arg;
  }
  return {};
}

// For the shell completion, one line per command, its own included: the
// command's words, a tab, then its options, where an option that takes a
// value ends in '='. Options without a group are hidden and left out.
void listCommands(const CLI::App& command, const std::string& path) {
  std::cout << path << '\t';
  const char* separator = "";
  for (const CLI::Option* option : command.get_options()) {
    if (!option->nonpositional() || option->get_group().empty()) continue;
    const char* valueMark = option->get_expected_max() != 0 ? "=" : "";
    for (const std::string& name : option->get_snames()) {
      std::cout << std::exchange(separator, " ") << '-' << name << valueMark;
    }
    for (const std::string& name : option->get_lnames()) {
      std::cout << std::exchange(separator, " ") << "--" << name << valueMark;
    }
  }
  std::cout << '\n';
  for (const CLI::App* sub : command.get_subcommands([](const CLI::App*) { return true; })) {
    listCommands(*sub, path.empty() ? sub->get_name() : path + ' ' + sub->get_name());
  }
}

constexpr const char* kFooter = R"(Run `velactl COMMAND --help` for a command's options and an example.

Exit status:
  0  the operation succeeded; monitor: SIGINT or SIGTERM ended it
  1  the operation failed: the library or the daemon returned an error, or
     velaLastOperationResult was not 0 (what went wrong is printed)
  2  usage error: no or an unknown command, a bad or missing option, or
     unreadable tokens; nothing was sent to the daemon
These never coincide with the library's own error codes, which start at 100.

Operations that need authorization are refused to an unprivileged user
unless polkit allows them; at a terminal, run `pkexec velactl ...`.)";

[[nodiscard]] int run(int argc, char** argv) {
  CLI::App app{"velactl: talk to the device-locating daemon through the VelaNotification library"};
  bool json = false;
  app.add_flag("--json", json,
               "Print exactly one JSON object: {result, error, velaLastOperationResult}; monitor prints one "
               "{center, name, userInfo} per line instead, one for each notification");
  app.set_version_flag("--version", "velactl " VELA_VERSION, "Print velactl's version and exit");
  app.add_flag_callback("--list-commands",
                        [&app] {
                          listCommands(app, "");
                          throw CLI::Success();
                        })
      ->group("");
  app.require_subcommand(1);
  app.fallthrough();
  velactl::Action chosen;
  const std::string_view named = subcommandName(argc, argv);
  velactl::registerOnly(named);
  for (const auto add :
       {velactl::addLocatingCommands, velactl::addTopicCommands, velactl::addLostModeCommands,
        velactl::addPrefsCommands, velactl::addVettingCommands, velactl::addKithCommands, velactl::addMonitorCommand}) {
    add(app, chosen);
  }
  // Set last: subcommands start with their parent's footer, and each has its own.
  app.footer(kFooter);
  // Only the named command was added: none at all means no command has that name.
  if (!named.empty() && std::as_const(app).get_subcommands({}).empty()) {
    // CLI11 would only say that a subcommand is required.
    std::cerr << "velactl: unknown command " << named << "\nRun with --help for the list of commands.\n";
    return kExitUsage;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // --help and --version end here too, successfully. Every other parse
    // failure is a usage error, whatever code CLI11 gives it: its codes
    // (106 for a missing subcommand) would read as the library's.
    const int status = app.exit(e);
    return status == static_cast<int>(CLI::ExitCodes::Success) ? kExitSuccess : kExitUsage;
  }
  const velactl::Outcome outcome = chosen();
  int status = outcome.printsItself ? kExitSuccess : report(outcome, json);
  if (outcome.then && !outcome.then(json)) status = kExitFailed;
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {
    // The library reports failures as values; what lands here is the tool's own (out of memory).
    std::cerr << "velactl: " << e.what() << '\n';
    return kExitFailed;
  }
}
