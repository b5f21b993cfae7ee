// SPDX-License-Identifier: MIT
#pragma once

#include <memory>
#include <optional>
#include <string>

#include <vela/VelaExport.h>
#include <vela/VelaKeyedArchive.h>

// The three values of lost mode: whether it is on, the message the locked
// screen shows, and the owner's contact number.
//
// Shared by std::shared_ptr; a new record has both strings nil and the flag
// off. Not synchronised.
class VELA_EXPORT VelaLostModeInfo {
 public:
  VelaLostModeInfo() = default;

  static constexpr bool supportsSecureCoding() { return true; }
  static constexpr std::string_view kClassName = "VelaLostModeInfo";

  // Decodes a record; nullptr when the archive names another class or a key
  // breaks its class restriction. A missing flag decodes as off.
  static std::shared_ptr<VelaLostModeInfo> initWithCoder(VelaKeyedUnarchiver& coder);
  void encodeWithCoder(VelaKeyedArchiver& coder) const;

  // "VelaLostModeInfo(0x<address>) message,phoneNumber,<0|1>".
  std::string description() const;

  bool lostModeEnabled() const noexcept { return lostModeEnabled_; }
  void setLostModeEnabled(bool v) noexcept { lostModeEnabled_ = v; }
  const std::optional<std::string>& message() const noexcept { return message_; }
  void setMessage(std::optional<std::string> v) { message_ = std::move(v); }
  const std::optional<std::string>& phoneNumber() const noexcept { return phoneNumber_; }
  void setPhoneNumber(std::optional<std::string> v) { phoneNumber_ = std::move(v); }

 private:
  bool lostModeEnabled_ = false;
  std::optional<std::string> message_;
  std::optional<std::string> phoneNumber_;
};
