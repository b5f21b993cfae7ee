// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <vela/VelaError.h>
#include <vela/VelaValue.h>

#include "email_vetting.h"
#include "service_host.h"

// The Testing interface that velad serves with --testing, beside
// HandsetActions at the same path. It lets a test make any HandsetActions
// member misbehave, read which calls arrived, and post notifications:
//
//   SetBehavior {"member": s, "mode": s, "delayMs": x?, "error": a{sv}?,
//                "values": a{sv}?, "times": x?} -> {}
//     mode "normal"    answer as velad would
//          "delay"     answer as velad would, after delayMs
//          "never"     never answer
//          "error"     answer {"error": error} (error = {domain s, code x, userInfo a{sv}?})
//          "values"    answer exactly `values` (wrongly typed ones too; an absent
//                      key is nil), with "error" added when `error` is given
//          "malformed" answer with a body of signature "s"
//          "exit"      _exit(0) on receipt, without answering
//     delayMs delays any mode; `times` limits the behaviour to that many calls
//     (default: all later calls). Integer "state" values go out as 'i', as
//     velad's own do.
//   ResetBehaviors {} -> {}
//   CallLog {} -> {"calls": av of {"member": s, "args": a{sv}, "sender": s}}
//   ClearCallLog {} -> {}
//   PostNotification {"center": s, "name": s, "userInfo": a{sv}?,
//                     "destination": s?} -> {}
//     broadcast, or unicast to the unique name `destination`.
//   SetVetScript {"notifications": av of {"name": s, "userInfo": a{sv}?}?,
//                 "delayMs": x?} -> {}
//     what every later vetting posts to its requester, in order, delayMs
//     after the request (a "vet.finished" ends it); without "notifications",
//     velad's own verdict again. ResetBehaviors also restores it.
//
// Each logged call is also announced as Notification("CallLogged",
// {"member": s, "sender": s}) on the center com.zentrex.VelaNotification.Testing,
// so that a test can wait for a call to arrive instead of polling the log.
//
// A malformed Testing request is refused with InvalidArgs.
namespace vela::daemon {

enum class BehaviorMode { kNormal, kDelay, kNever, kError, kValues, kMalformed, kExit };

struct Behavior {
  BehaviorMode mode = BehaviorMode::kNormal;
  std::chrono::milliseconds delay{0};
  std::optional<VelaError> error;
  VelaDictionary values;
};

class TestingInterface {
 public:
  // `handsetMembers` are the members a behaviour may be set for; `host`
  // posts the notifications. `host` and `vetting` must outlive this object.
  TestingInterface(ServiceHost& host, std::vector<std::string> handsetMembers, EmailVetting& vetting);

  static std::vector<std::string> members();

  // Handles one call on the Testing interface.
  void callArrived(IncomingCall call);

  // How many calls the log keeps: the most recent ones.
  static constexpr std::size_t kMaxLoggedCalls = 1000;

  // Logs one HandsetActions call as it arrives, before anyone decides
  // whether it may be carried out.
  void logCall(const std::string& member, const VelaDictionary& args, const std::string& sender);

  // The behaviour a call to `member` gets, using up one of its times.
  Behavior behaviorForCall(const std::string& member);

 private:
  struct StoredBehavior {
    Behavior behavior;
    std::optional<std::int64_t> timesLeft;
  };

  // Each returns an error text for InvalidArgs, or nullopt when done.
  [[nodiscard]] std::optional<std::string> setBehavior(const VelaDictionary& args);
  [[nodiscard]] std::optional<std::string> postNotification(const VelaDictionary& args);
  [[nodiscard]] std::optional<std::string> setVetScript(const VelaDictionary& args);

  ServiceHost& host_;
  EmailVetting& vetting_;
  std::set<std::string, std::less<>> handsetMembers_;
  std::map<std::string, StoredBehavior, std::less<>> behaviors_;
  VelaArray callLog_;
};

}  // namespace vela::daemon
