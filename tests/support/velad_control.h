// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <vela/VelaError.h>
#include <vela/VelaValue.h>

#include "platform/bus/bus_names.h"
#include "test_bus_client.h"

namespace vela::testing {

// Drives velad's Testing interface (velad started with --testing): makes
// HandsetActions members misbehave, reads the calls velad received, and
// posts notifications from velad.
//
// Each method blocks until velad answers (up to 5 s) and returns false, with
// the reason in lastFailure(), when velad refused or did not answer.
// Thread: one at a time.
class VeladControl {
 public:
  // How a member should misbehave; see velad's Testing interface.
  struct Behavior {
    std::string mode;  // "normal", "delay", "never", "error", "values", "malformed" or "exit"
    std::optional<std::chrono::milliseconds> delay = std::nullopt;
    std::optional<VelaError> error = std::nullopt;
    std::optional<VelaDictionary> values = std::nullopt;
    std::optional<std::int64_t> times = std::nullopt;
  };

  struct LoggedCall {
    std::string member;
    VelaDictionary args;
    std::string sender;
  };

  // Opens its own connection to the bus velad serves on and listens for the
  // calls velad logs.
  explicit VeladControl(bus::BusKind kind = bus::BusKind::kSystem);

  // False when the bus could not be reached; lastFailure() says why.
  bool connected() const noexcept { return client_ != nullptr; }

  [[nodiscard]] bool setBehavior(std::string_view member, const Behavior& behavior);
  [[nodiscard]] bool setBehavior(std::string_view member, std::string_view mode);
  [[nodiscard]] bool resetBehaviors();

  // The calls velad received since the last clearCallLog(), oldest first;
  // nullopt on failure.
  std::optional<std::vector<LoggedCall>> callLog();
  [[nodiscard]] bool clearCallLog();

  // Waits until the log holds a call to `member`: true at once if it already
  // does, false if none arrives within `timeout`. Blocks.
  [[nodiscard]] bool waitForCall(std::string_view member, std::chrono::milliseconds timeout = std::chrono::seconds(5));

  // Posts Notification(name, userInfo) on `center`, to everyone or, with a
  // destination, only to that unique bus name.
  [[nodiscard]] bool postNotification(std::string_view center, std::string_view name,
                                      const std::optional<VelaDictionary>& userInfo = std::nullopt,
                                      const std::optional<std::string>& destination = std::nullopt);

  // What every later vetting posts to its requester, in order, `delay`
  // after the request; nullopt restores velad's own verdict.
  struct VetNotification {
    std::string name;
    std::optional<VelaDictionary> userInfo = std::nullopt;
  };
  [[nodiscard]] bool setVetScript(const std::optional<std::vector<VetNotification>>& notifications,
                                  std::chrono::milliseconds delay = std::chrono::milliseconds(0));

  const std::string& lastFailure() const noexcept { return lastFailure_; }

 private:
  std::optional<VelaDictionary> call(std::string_view member, const VelaDictionary& args);

  std::unique_ptr<bus::TestBusClient> client_;
  std::string lastFailure_;
};

}  // namespace vela::testing
