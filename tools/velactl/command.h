// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <vela/VelaError.h>

namespace velactl {

// What one operation produced, printed by main as the JSON contract says.
struct Outcome {
  nlohmann::json result;           // null when the operation has no result
  std::optional<VelaError> error;  // the error the operation returned
  // More work after the outcome is printed (told whether --json was given);
  // false makes the exit status 1.
  std::function<bool(bool json)> then = nullptr;
  // The command prints all its output in `then` (a stream of its own): main
  // prints no outcome, which with --json would be one object too many.
  bool printsItself = false;
};

// The chosen subcommand's work, set while the command line is parsed.
using Action = std::function<Outcome()>;

// Each group of subcommands registers itself on the app with addCommand; the
// subcommand's callback stores its action in `chosen`.
void addLocatingCommands(CLI::App& app, Action& chosen);
void addTopicCommands(CLI::App& app, Action& chosen);
void addLostModeCommands(CLI::App& app, Action& chosen);
void addPrefsCommands(CLI::App& app, Action& chosen);
void addVettingCommands(CLI::App& app, Action& chosen);
void addKithCommands(CLI::App& app, Action& chosen);
void addMonitorCommand(CLI::App& app, Action& chosen);

// Registering a subcommand costs more than the call a short-lived velactl
// makes, so only the one the command line names is registered. Empty (help,
// the command list, a name no command has): every one.
void registerOnly(std::string_view named);

// The subcommand `name` of `app`, added now; nullptr when the command line
// names another (see registerOnly).
CLI::App* addCommand(CLI::App& app, const char* name, const char* help);

// Ends a subcommand's --help with a note (when given) and one typical
// invocation, so that every command shows how it is run.
inline void addExample(CLI::App* command, const std::string& invocation, const std::string& note = {}) {
  command->footer((note.empty() ? std::string() : note + "\n\n") + "Example:\n  " + invocation);
}

// A string option where leaving it out means nil and an empty one means "".
struct OptionalString {
  std::string value;
  CLI::Option* option = nullptr;
  std::optional<std::string> get() const {
    return option != nullptr && option->count() > 0 ? std::optional(value) : std::nullopt;
  }
};

// Waits for a completion that runs on another thread. nullopt when `limit`
// passed first.
template <typename T>
class Completion {
 public:
  void set(T value) {
    {
      std::lock_guard lock(mutex_);
      value_ = std::move(value);
    }
    done_.notify_all();
  }
  [[nodiscard]] std::optional<T> wait(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    done_.wait_for(lock, limit, [this] { return value_.has_value(); });
    return value_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable done_;
  std::optional<T> value_;
};

// Returns once the daemon has taken up the requests this process sent
// without waiting for an answer. velad decides whether a caller may make a
// request by asking the bus who the caller is, which it can only do while the
// caller is still connected; and it answers one caller's requests in order,
// so an answered query after them means they were decided. The query's own
// result is not reported.
void awaitDelivery();

}  // namespace velactl
