// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <vela/VelaExport.h>
#include <vela/VelaValue.h>

// An error value: domain, signed code and user info.
//
// Errors are values. Operations that can fail return `std::optional<VelaError>`
// (nullopt means success) or leave the code in `velaLastOperationResult`; no
// operation of the library throws.
//
// Three sources of errors, told apart by domain:
//   - kVelaErrorDomain ("com.zentrex.VelaNotification"): made by the library
//     itself or by the daemon. The library makes only:
//       101 "account is nil"  — the request was not sent; fix the argument.
//       106 "timed out"       — no answer within 5 s, or the bus, the service
//                               or the reply failed. The daemon may or may not
//                               have acted: read the state again before
//                               retrying a switch.
//   - kVelaDaemonErrorDomain ("com.zentrex.VelaNotification.daemon"): the
//     daemon understood the request and declined it; the codes are
//     VelaDaemonErrorCode below. Other daemons may choose other domains.
//   - a D-Bus error name (for example "org.freedesktop.DBus.Error.ServiceUnknown"),
//     with a positive errno-style code: a transport failure handed to
//     asynchronous completions. Retrying the call later may succeed.
class VELA_EXPORT VelaError {
 public:
  VelaError(std::string domain, std::int64_t code, VelaDictionary userInfo = {})
      : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo)) {}

  const std::string& domain() const noexcept { return domain_; }
  std::int64_t code() const noexcept { return code_; }
  const VelaDictionary& userInfo() const noexcept { return userInfo_; }

  // The message under kVelaErrorFailureReasonKey, when it is a string.
  std::optional<std::string> failureReason() const;

  friend bool operator==(const VelaError&, const VelaError&) = default;

 private:
  std::string domain_;
  std::int64_t code_;
  VelaDictionary userInfo_;
};

// The library's error domain; also the daemon's service name.
inline constexpr std::string_view kVelaErrorDomain = "com.zentrex.VelaNotification";
// User-info key of an error's failure reason (its human-readable message).
inline constexpr std::string_view kVelaErrorFailureReasonKey = "failureReason";

// The domain of the errors velad answers with, inside its replies.
inline constexpr std::string_view kVelaDaemonErrorDomain = "com.zentrex.VelaNotification.daemon";

// velad's codes in kVelaDaemonErrorDomain, and what a caller should do about
// each. The failure reason says which value or action was concerned.
enum VelaDaemonErrorCode : std::int32_t {
  // A value the request needs was nil. Fix the request; sent as it is, it
  // fails again.
  VelaDaemonErrorCodeMissingValue = 1,
  // No friends account has that user name. Nothing was removed; read the
  // account again before retrying.
  VelaDaemonErrorCodeUnknownKithAccount = 2,
  // The locating state is still switching. Retry once it has settled (the
  // change is announced on the daemon's notification center).
  VelaDaemonErrorCodeLocusSwitchInProgress = 3,
  // The vetted address cannot receive mail. Reported in a vetting's finish.
  VelaDaemonErrorCodeUndeliverableAddress = 4,
  // The caller's user may not do this: the machine's polkit policy refused
  // the action the failure reason names (or polkit could not be asked, in
  // which case the daemon refuses everything it guards). Nothing changed.
  // Retrying does not help; an administrator may grant the action with a
  // polkit rule, or the request can be made as root.
  VelaDaemonErrorCodeNotAuthorized = 5,
  // The action the failure reason names is allowed once the user proves who
  // they are (a password), which the library never asks for: it would break
  // the 5-second bound. Nothing changed. Repeat the request from a program
  // that authenticates the user, for example `pkexec velactl ...` at a
  // terminal.
  VelaDaemonErrorCodeInteractiveAuthorizationRequired = 6,
  // The daemon could not record the change durably (its disk is full or
  // failing), so it did not make it. Nothing changed; retry later.
  VelaDaemonErrorCodeNotSaved = 7,
  // The request is over one of the daemon's limits, which the failure reason
  // names: a string or data value over 4096 bytes, a request over 64 KiB, a
  // caller's 65th topic, a 257th region entered. Nothing changed. Send less,
  // or stop a topic first.
  VelaDaemonErrorCodeLimitExceeded = 8,
};

// Codes the library itself makes in kVelaErrorDomain.
enum VelaErrorCode : std::int32_t {
  VelaErrorCodeAccountIsNil = 101,
  VelaErrorCodeTimedOut = 106,
};
