// SPDX-License-Identifier: MIT
#include <iostream>
#include <memory>
#include <string>

#include <vela/VelaMainThread.h>
#include <vela/VelaNotifySession.h>

#include "command.h"
#include "json_value.h"

namespace velactl {
namespace {

// Prints each delegate call as it comes (one JSON object per line with
// --json) and ends the main loop at the finish. Runs on the main thread.
class PrintingDelegate : public VelaNotifySessionDelegate {
 public:
  // Set before the main loop runs, which is when the calls come.
  void printJson(bool json) noexcept { json_ = json; }

  void vettingResultsDidArrive(const std::optional<VelaValue>& results) override {
    if (json_) {
      std::cout << nlohmann::json{{"event", "vettingResultsDidArrive"}, {"results", toJson(results)}}.dump() << '\n';
    } else {
      std::cout << "results: " << toJson(results).dump() << '\n';
    }
    std::cout.flush();
  }

  void vettingDidFinishWithError(const std::optional<VelaError>& error) override {
    if (json_) {
      std::cout << nlohmann::json{{"event", "vettingDidFinishWithError"}, {"error", errorToJson(error)}}.dump() << '\n';
    } else if (error) {
      std::cout << "finished with error: " << error->domain() << ' ' << error->code() << '\n';
    } else {
      std::cout << "finished\n";
    }
    std::cout.flush();
    finished_ = true;
    VelaMainThread::stop();
  }

  bool finished() const noexcept { return finished_; }

 private:
  bool json_ = false;
  bool finished_ = false;
};

struct VetOptions {
  OptionalString account;
  bool wait = false;
  int timeoutMs = 30'000;
};

}  // namespace

void addVettingCommands(CLI::App& app, Action& chosen) {
  if (auto* vet = addCommand(app, "vet-email-account", "Ask the daemon to vet an e-mail address")) {
    auto options = std::make_shared<VetOptions>();
    options->account.option = vet->add_option("account", options->account.value, "The address (left out: nil)");
    vet->add_flag("--wait", options->wait, "Run the main loop and print each result and the finish as they arrive");
    vet->add_option("--timeout-ms", options->timeoutMs, "With --wait: stop waiting for the finish after this long")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    addExample(vet, "velactl --json vet-email-account someone@example.org --wait",
               "Without --wait velactl only sends the request; with it, each result and the finish print as they "
               "arrive, and not finishing in time makes the exit status 1.");
    vet->callback([&chosen, options] {
      chosen = [options] {
        auto session = VelaNotifySession::sharedInstance();
        auto delegate = std::make_shared<PrintingDelegate>();
        if (options->wait) session->setDelegate(delegate);
        Outcome outcome{nullptr, session->vetEmailAccount(options->account.get())};
        if (!options->wait || !options->account.get()) return outcome;
        // Delegate calls run only inside the main loop, so they print after the
        // request's own outcome.
        outcome.then = [delegate, timeout = std::chrono::milliseconds(options->timeoutMs)](bool json) {
          delegate->printJson(json);
          VelaMainThread::runFor(timeout);
          if (delegate->finished()) return true;
          std::cerr << "velactl: no finish within " << timeout.count() << " ms\n";
          return false;
        };
        return outcome;
      };
    });
  }

  if (auto* cancel =
          addCommand(app, "cancel-email-vet", "Stop listening for vetting results and ask the daemon to cancel")) {
    addExample(cancel, "velactl cancel-email-vet");
    cancel->callback([&chosen] {
      chosen = [] { return Outcome{nullptr, VelaNotifySession::sharedInstance()->cancelEmailVet()}; };
    });
  }
}

}  // namespace velactl
