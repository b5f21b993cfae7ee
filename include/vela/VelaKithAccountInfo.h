// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <vela/VelaExport.h>
#include <vela/VelaKeyedArchive.h>
#include <vela/VelaValue.h>

// One friends-locating account: who the user is, the tokens the account
// authenticates with, and where its server and push environment are.
//
// A plain value holder, shared by std::shared_ptr. A new record has every
// field nil and the status 0. Not synchronised: do not change a record on one
// thread while another reads it.
class VELA_EXPORT VelaKithAccountInfo {
 public:
  VelaKithAccountInfo() = default;

  static constexpr bool supportsSecureCoding() { return true; }
  static constexpr std::string_view kClassName = "VelaKithAccountInfo";

  // Decodes a record; nullptr when the archive names another class or any key
  // breaks its class restriction. "additionalInfo" accepts any property list.
  static std::shared_ptr<VelaKithAccountInfo> initWithCoder(VelaKeyedUnarchiver& coder);
  void encodeWithCoder(VelaKeyedArchiver& coder) const;

  // "VelaKithAccountInfo(0x<address>) dsid,username,<token>,status,<token>,host,scheme,env,info".
  // Both authentication tokens print as "(not-nil)" or "(nil)", never their value.
  std::string description() const;

  const std::optional<std::string>& dsid() const noexcept { return dsid_; }
  void setDsid(std::optional<std::string> v) { dsid_ = std::move(v); }
  const std::optional<std::string>& username() const noexcept { return username_; }
  void setUsername(std::optional<std::string> v) { username_ = std::move(v); }
  const std::optional<std::string>& appAuthToken() const noexcept { return appAuthToken_; }
  void setAppAuthToken(std::optional<std::string> v) { appAuthToken_ = std::move(v); }
  // Usually a dictionary; after decoding, whatever property list the archive held.
  const std::optional<VelaValue>& additionalInfo() const noexcept { return additionalInfo_; }
  void setAdditionalInfo(std::optional<VelaValue> v) { additionalInfo_ = std::move(v); }
  const std::optional<std::string>& velaServerHost() const noexcept { return velaServerHost_; }
  void setVelaServerHost(std::optional<std::string> v) { velaServerHost_ = std::move(v); }
  const std::optional<std::string>& velaServerProtocolScheme() const noexcept { return velaServerProtocolScheme_; }
  void setVelaServerProtocolScheme(std::optional<std::string> v) { velaServerProtocolScheme_ = std::move(v); }
  const std::optional<std::string>& velaRelayEnvironment() const noexcept { return velaRelayEnvironment_; }
  void setVelaRelayEnvironment(std::optional<std::string> v) { velaRelayEnvironment_ = std::move(v); }
  const std::optional<std::string>& internalAuthToken() const noexcept { return internalAuthToken_; }
  void setInternalAuthToken(std::optional<std::string> v) { internalAuthToken_ = std::move(v); }
  std::int32_t appAuthTokenStatus() const noexcept { return appAuthTokenStatus_; }
  void setAppAuthTokenStatus(std::int32_t v) noexcept { appAuthTokenStatus_ = v; }

 private:
  std::optional<std::string> dsid_;
  std::optional<std::string> username_;
  std::optional<std::string> appAuthToken_;
  std::int32_t appAuthTokenStatus_ = 0;
  std::optional<VelaValue> additionalInfo_;
  std::optional<std::string> velaServerHost_;
  std::optional<std::string> velaServerProtocolScheme_;
  std::optional<std::string> velaRelayEnvironment_;
  std::optional<std::string> internalAuthToken_;
};
