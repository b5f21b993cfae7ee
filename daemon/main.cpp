// SPDX-License-Identifier: MIT
// velad: the reference daemon behind com.zentrex.VelaNotification.

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <CLI/CLI.hpp>

#include "daemon_state.h"
#include "handset_actions.h"
#include "handset_service.h"
#include "log.h"
#include "platform/bus/bus_names.h"
#include "protocol/names.h"
#include "service_host.h"
#include "testing_interface.h"

namespace {

namespace bus = vela::bus;
namespace daemon = vela::daemon;
namespace protocol = vela::protocol;

struct Options {
  std::string bus = "system";
  bool testing = false;
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

[[nodiscard]] int serve(const Options& options) {
  std::string problem;
  const bus::BusKind kind = options.bus == "session" ? bus::BusKind::kSession : bus::BusKind::kSystem;
  std::unique_ptr<daemon::ServiceHost> host = daemon::ServiceHost::open(kind, &problem);
  if (!host) {
    daemon::logLine(problem);
    return 1;
  }

  daemon::DaemonState state = daemon::initialDaemonState();
  daemon::EmailVetting vetting(*host);
  daemon::HandsetActions actions(state, *host, vetting, std::chrono::milliseconds(options.locusSettleMs));
  std::optional<daemon::TestingInterface> testing;
  if (options.testing) testing.emplace(*host, daemon::HandsetActions::members(), vetting);
  daemon::HandsetService service(*host, actions, testing ? &*testing : nullptr);

  int r = host->exportInterface(protocol::kObjectPath, protocol::kHandsetActionsInterface,
                                daemon::HandsetActions::members(),
                                [&service](daemon::IncomingCall call) { service.callArrived(std::move(call)); });
  if (r >= 0 && testing) {
    r = host->exportInterface(protocol::kObjectPath, protocol::kTestingInterface, daemon::TestingInterface::members(),
                              [&testing](daemon::IncomingCall call) { testing->callArrived(std::move(call)); });
  }
  if (r < 0) {
    daemon::logLine(std::string("cannot export the interfaces: ") + std::strerror(-r));
    return 1;
  }
  r = host->requestName(protocol::kServiceName);
  if (r < 0) {
    daemon::logLine("cannot own " + std::string(protocol::kServiceName) + ": " + std::strerror(-r));
    return 1;
  }
  if (options.readyFd >= 0 && !announceReady(options.readyFd)) {
    daemon::logLine(std::string("cannot write to the ready descriptor: ") + std::strerror(errno));
    return 1;
  }
  daemon::logVerbose("serving " + std::string(protocol::kServiceName) + " as " + host->uniqueName());

  r = host->run();
  if (r < 0) {
    daemon::logLine(std::string("the event loop failed: ") + std::strerror(-r));
    return 1;
  }
  daemon::logVerbose("stopped");
  return r;
}

// Reads the options. Returns the exit code when velad must stop at once
// (after --help, or on an unknown or malformed option, with CLI11's message).
[[nodiscard]] std::optional<int> parseOptions(int argc, char** argv, Options& options) {
  CLI::App app{"velad: serves com.zentrex.VelaNotification on the system or session bus"};
  app.add_option("--bus", options.bus, "the bus to serve on")
      ->check(CLI::IsMember({"system", "session"}))
      ->capture_default_str();
  app.add_flag("--testing", options.testing, "also serve com.zentrex.VelaNotification.Testing");
  app.add_option("--ready-fd", options.readyFd, R"(write "READY" to this descriptor once serving, then close it)")
      ->check(CLI::NonNegativeNumber);
  app.add_flag("--verbose", options.verbose, "log every request and state change to stderr");
  app.add_option("--locus-settle-ms", options.locusSettleMs, "how long a locating switch takes to settle")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
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
    daemon::logLine(std::string("stopped by an unexpected failure: ") + e.what());
    return 1;
  }
}
