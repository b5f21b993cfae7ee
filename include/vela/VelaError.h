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
//   - any other domain the daemon chooses, with its own codes.
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

// Codes the library itself makes in kVelaErrorDomain.
enum VelaErrorCode : std::int32_t {
  VelaErrorCodeAccountIsNil = 101,
  VelaErrorCodeTimedOut = 106,
};
