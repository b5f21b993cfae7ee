// SPDX-License-Identifier: MIT
// velad: the reference daemon behind com.zentrex.VelaNotification.

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>
#include <systemd/sd-daemon.h>

#include "authorizer.h"
#include "daemon_state.h"
#include "handset_actions.h"
#include "handset_service.h"
#include "log.h"
#include "platform/bus/bus_names.h"
#include "protocol/names.h"
#include "service_host.h"
#include "state_directory.h"
#include "state_store.h"
#include "testing_interface.h"

namespace {

namespace bus = vela::bus;
namespace daemon = vela::daemon;
namespace protocol = vela::protocol;

struct Options {
  std::string bus = "system";
  bool testing = false;
  std::string stateDirectory;
  int readyFd = -1;
  bool verbose = false;
  std::int64_t locusSettleMs = daemon::HandsetActions::kLocusSettleDelay.count();
};

// Tells whoever started velad that the name is taken and calls can be made,
// so tests wait on this rather than on a guess of how long start-up takes.
[[nodiscard]] bool announceReady(int fd) {
  static constexpr std::string_view kReady = "READY\n";
  const ssize_t written = write(fd, kReady.data(), kReady.size());
  const bool ok = written == static_cast<ssize_t>(kReady.size());
  close(fd);
  return ok;
}

// Tells the service manager that started velad (systemd, through
// $NOTIFY_SOCKET) how far it has got; does nothing when there is none.
void tellServiceManager(const std::string& state) {
  if (const int r = sd_notify(0, state.c_str()); r < 0) {
    daemon::log(daemon::LogLevel::kWarning, std::string("cannot notify the service manager: ") + std::strerror(-r));
  }
}

// Topics saved by an earlier run belong to connections that may have left
// the bus while velad was away; theirs end now.
void endTopicsOfDepartedCallers(daemon::ServiceHost& host, const daemon::DaemonState& state,
                                daemon::HandsetService& service) {
  std::vector<std::string> departed;
  for (const auto& [owner, topics] : state.topics) {
    // Kept when the bus cannot tell: the departure ends them later.
    if (host.nameHasOwner(owner) == false) departed.push_back(owner);
  }
  for (const std::string& owner : departed) service.callerLeft(owner);
}

[[nodiscard]] int serve(const Options& options) {
  std::string problem;
  const bus::BusKind kind = options.bus == "session" ? bus::BusKind::kSession : bus::BusKind::kSystem;
  if (options.testing && kind == bus::BusKind::kSystem) {
    // Anyone on the system bus could script velad's answers to everyone else.
    daemon::log(daemon::LogLevel::kError, "the testing interface is served on the session bus only");
    return 2;
  }
  std::unique_ptr<daemon::ServiceHost> host = daemon::ServiceHost::open(kind, &problem);
  if (!host) {
    daemon::log(daemon::LogLevel::kError, problem);
    return 1;
  }
  // Switched on before the slow part of start-up: sd-event pings right
  // away, and then from the loop as soon as it runs.
  int r = host->feedWatchdog();
  if (r < 0) {
    daemon::log(daemon::LogLevel::kError,
                std::string("cannot feed the service manager's watchdog: ") + std::strerror(-r));
    return 1;
  }

  const std::string directory =
      options.stateDirectory.empty() ? daemon::defaultStateDirectory(kind) : options.stateDirectory;
  if (directory.empty()) {
    daemon::log(daemon::LogLevel::kError, "no state directory: give --state-dir");
    return 1;
  }
  const std::unique_ptr<daemon::StateStore> store = daemon::StateStore::open(directory, &problem);
  daemon::DaemonState state = daemon::initialDaemonState();
  if (!store || !store->load(state, &problem)) {
    daemon::log(daemon::LogLevel::kError, problem);
    return 1;
  }
  if (std::string why = daemon::openStateDirectoryToEveryUser(directory); !why.empty()) {
    // The private state still works; only other users lose sight of the
    // service's preferences.
    daemon::log(daemon::LogLevel::kWarning, why);
  }
  daemon::EmailVetting vetting(*host);
  daemon::ServicePreferences published(daemon::ServicePreferences::pathIn(directory));
  daemon::HandsetActions actions(state, *store, published, *host, vetting,
                                 std::chrono::milliseconds(options.locusSettleMs));
  daemon::Authorizer authorizer(*host);
  std::optional<daemon::TestingInterface> testing;
  if (options.testing) testing.emplace(*host, daemon::HandsetActions::members(), vetting);
  daemon::HandsetService service(*host, actions, authorizer, testing ? &*testing : nullptr);

  r = host->watchDepartures([&service](const std::string& sender) { service.callerLeft(sender); });
  if (r < 0) {
    daemon::log(daemon::LogLevel::kError, std::string("cannot watch callers leave the bus: ") + std::strerror(-r));
    return 1;
  }
  // Watching first: a caller that leaves from now on is seen either way.
  endTopicsOfDepartedCallers(*host, state, service);
  actions.republish();

  r = host->exportInterface(protocol::kObjectPath, protocol::kHandsetActionsInterface,
                            daemon::HandsetActions::members(),
                            [&service](daemon::IncomingCall call) { service.callArrived(std::move(call)); });
  if (r >= 0) r = host->exportCenter(protocol::kClientNotifyCenter);
  if (r >= 0 && testing) {
    r = host->exportInterface(protocol::kObjectPath, protocol::kTestingInterface, daemon::TestingInterface::members(),
                              [&testing](daemon::IncomingCall call) { testing->callArrived(std::move(call)); });
  }
  if (r < 0) {
    daemon::log(daemon::LogLevel::kError, std::string("cannot export the interfaces: ") + std::strerror(-r));
    return 1;
  }
  r = host->requestName(protocol::kServiceName);
  if (r < 0) {
    daemon::log(daemon::LogLevel::kError,
                "cannot own " + std::string(protocol::kServiceName) + ": " + std::strerror(-r));
    return 1;
  }
  // Once the name is owned, as listeners follow the name, and before velad
  // says it is ready, so that whoever waits for that has heard them.
  actions.announce();
  if (options.readyFd >= 0 && !announceReady(options.readyFd)) {
    daemon::log(daemon::LogLevel::kError, std::string("cannot write to the ready descriptor: ") + std::strerror(errno));
    return 1;
  }
  // Only now: a unit of Type=notify counts as started at READY=1, and units
  // ordered after it may call at once.
  tellServiceManager("READY=1\nSTATUS=Serving " + std::string(protocol::kServiceName));
  daemon::log(daemon::LogLevel::kNotice,
              "serving " + std::string(protocol::kServiceName) + " as " + host->uniqueName());

  r = host->run();
  tellServiceManager("STOPPING=1");
  if (r < 0) {
    daemon::log(daemon::LogLevel::kError, std::string("the event loop failed: ") + std::strerror(-r));
    return 1;
  }
  daemon::log(daemon::LogLevel::kNotice, "stopped");
  return r;
}

// Reads the options. Returns the exit code when velad must stop at once:
// 0 after --help or --version, 2 on an unknown or malformed option, with
// CLI11's message (whose own codes would read as something else).
[[nodiscard]] std::optional<int> parseOptions(int argc, char** argv, Options& options) {
  CLI::App app{"velad: serves com.zentrex.VelaNotification on the system or session bus"};
  app.set_version_flag("--version", "velad " VELA_VERSION, "print velad's version and exit");
  app.add_option("--bus", options.bus, "the bus to serve on")
      ->check(CLI::IsMember({"system", "session"}))
      ->capture_default_str();
  app.add_flag("--testing", options.testing,
               "also serve com.zentrex.VelaNotification.Testing (session bus only: it lets any caller script the "
               "answers)");
  app.add_option("--state-dir", options.stateDirectory,
                 "where velad keeps its state and the service's preferences (default: $STATE_DIRECTORY, else "
                 "/var/lib/vela on the system bus and $XDG_STATE_HOME/vela on the session bus)");
  app.add_option("--ready-fd", options.readyFd, R"(write "READY" to this descriptor once serving, then close it)")
      ->check(CLI::NonNegativeNumber);
  app.add_flag("--verbose", options.verbose, "log every request and state change to stderr");
  app.add_option("--locus-settle-ms", options.locusSettleMs, "how long a locating switch takes to settle")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // CLI11's complaint goes to the log like any other line (--help to stdout).
    std::ostringstream complaint;
    const int code = app.exit(e, std::cout, complaint);
    daemon::logLines(daemon::LogLevel::kError, complaint.str());
    return code == 0 ? 0 : 2;
  }
  return std::nullopt;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    Options options;
    if (const std::optional<int> exitCode = parseOptions(argc, argv, options)) return *exitCode;
    daemon::setVerboseLogging(options.verbose);
    return serve(options);
  } catch (const std::exception& e) {
    daemon::log(daemon::LogLevel::kError, std::string("stopped by an unexpected failure: ") + e.what());
    return 1;
  }
}
