// SPDX-License-Identifier: MIT
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <systemd/sd-bus.h>

#include <vela/VelaConstants.h>
#include <vela/VelaMainThread.h>
#include <vela/VelaNotificationCenters.h>
#include <vela/VelaNotifySession.h>

#include "command.h"
#include "notification_line.h"
#include "stop_on_signals.h"

namespace velactl {
namespace {

// The names posted on the client center: the daemon's state changes, the
// account and alarm notifications, and the two of a vetting.
std::vector<std::string> postedNames() {
  return {std::string(kLocusStateDidChangeNotification), std::string(kLostModeChangedNotification),
          std::string(kStopLostModeAlarmNotification),   std::string(kVelaAccountMigratedNotification),
          std::string(kVelaMigrateAccountNotification),  std::string(kVelaVetResultsFoundNotification),
          std::string(kVelaVetFinishedNotification)};
}

// A center is named as a D-Bus interface. Checked here so that a mistyped
// center is a usage error rather than a silent monitor.
bool isInterfaceName(const std::string& name) { return sd_bus_interface_name_is_valid(name.c_str()) > 0; }

struct MonitorOptions {
  std::string center{kVelaClientNotifyCenter};
  std::vector<std::string> names;  // empty: postedNames()
};

// Prints each notification as it arrives, until SIGINT or SIGTERM. The
// handlers run on this thread, inside the main loop, so lines never
// interleave and the state they share needs no lock. False when standard
// output could not be written.
bool monitor(const MonitorOptions& options, bool json) {
  // Before the session exists: its threads must inherit the blocked signals.
  const StopOnSignals stopOnSignals;
  auto session = VelaNotifySession::sharedInstance();
  bool written = true;
  const auto print = [&options, json, &written](const std::string& name, const VelaDictionary& userInfo) {
    std::cout << notificationLine(options.center, name, userInfo, json) << '\n';
    std::cout.flush();
    if (!std::cout) {
      written = false;
      VelaMainThread::stop();
    }
  };

  std::vector<VelaNotifySession::ObserverToken> tokens;
  std::set<std::string, std::less<>> observed;
  for (const std::string& name : options.names.empty() ? postedNames() : options.names) {
    // Observers are not merged: a name given twice would print twice.
    if (!observed.insert(name).second) continue;
    const auto token =
        session->addObserver(options.center, name, VelaNotifySession::ObserverThread::kMainThread, print);
    if (token == 0) {
      std::cerr << "velactl: cannot observe " << name << " on " << options.center << '\n';
      for (const auto added : tokens) session->removeObserver(added);
      return false;
    }
    tokens.push_back(token);
  }
  // Tells a script when to start posting. The bus routes notifications to
  // the observers a moment later, so one posted at once may still be missed.
  std::cerr << "listening on " << options.center << '\n';

  VelaMainThread::run();
  // Outside every handler: no handler runs once these return.
  for (const auto token : tokens) session->removeObserver(token);
  if (!written) std::cerr << "velactl: cannot write to standard output\n";
  return written;
}

}  // namespace

void addMonitorCommand(CLI::App& app, Action& chosen) {
  auto* command = addCommand(app, "monitor", "Print the daemon's notifications as they arrive, until interrupted");
  if (command == nullptr) return;
  auto options = std::make_shared<MonitorOptions>();
  command->add_option("--center", options->center, "The notification center to observe")
      ->type_name("CENTER")
      ->capture_default_str()
      ->check(CLI::Validator(
          [](const std::string& name) {
            return isInterfaceName(name) ? std::string() : "not a D-Bus interface name: " + name;
          },
          ""));
  command->add_option("--name", options->names, "Print only notifications so named; repeat for more")
      ->type_name("NAME")
      ->allow_extra_args(false);
  command->add_flag_callback(
      "--list-names",
      [] {
        for (const std::string& name : postedNames()) std::cout << name << '\n';
        throw CLI::Success();
      },
      "Print the names observed without --name, one a line, and exit");
  addExample(command, "velactl --json monitor --name com.zentrex.VelaNotification.LocusStateDidChange",
             "Observes every name --list-names prints, or only those given with --name.\n"
             "Once observing, prints \"listening on CENTER\" on standard error; the bus routes\n"
             "notifications to it a moment later, so one posted at that very instant may be missed.\n"
             "Then prints one line per notification on standard output, flushed at once: its name\n"
             "and key=value for each user-info entry in key order, values as JSON, or with --json\n"
             "{\"center\": ..., \"name\": ..., \"userInfo\": {...}}.\n"
             "SIGINT or SIGTERM ends it with exit status 0; failing to write the output, with 1.");
  command->callback([&chosen, options] {
    chosen = [options] {
      return Outcome{.result = nullptr,
                     .error = std::nullopt,
                     .then = [options](bool json) { return monitor(*options, json); },
                     .printsItself = true};
    };
  });
}

}  // namespace velactl
