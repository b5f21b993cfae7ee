// SPDX-License-Identifier: MIT
#include <vela/VelaConstants.h>
#include <vela/VelaNotifySession.h>

#include "session/remote_call.h"

namespace {

using StringQuery = void (VelaNotificationHandsetActions::*)(VelaStringReply);
using AccountQuery = void (VelaNotificationHandsetActions::*)(VelaTwoStringReply);

std::optional<std::string> queryString(VelaNotifySession& session, const char* label, StringQuery query) {
  auto result = vela::session::callSynchronously<std::optional<std::string>>(
      session, label, [query](auto& proxy, auto reply) { (proxy.*query)(std::move(reply)); });
  return std::get<0>(std::move(result.values));
}

// A half-known account is no account: both values must have come.
std::optional<VelaDictionary> queryAccount(VelaNotifySession& session, const char* label, AccountQuery query) {
  auto result = vela::session::callSynchronously<std::optional<std::string>, std::optional<std::string>>(
      session, label, [query](auto& proxy, auto reply) { (proxy.*query)(std::move(reply)); });
  auto& [username, personID] = result.values;
  if (!username || !personID) return std::nullopt;
  return VelaDictionary{{std::string(kVelaAccountNameKey), std::move(*username)},
                        {std::string(kVelaAccountPersonIDKey), std::move(*personID)}};
}

constexpr std::string_view kDeviceLocatorDataclass = "com.zentrex.Dataclass.DeviceLocator";

}  // namespace

std::optional<std::string> VelaNotifySession::kithDeviceId() {
  return queryString(*this, "kithDeviceId", &VelaNotificationHandsetActions::getKithDeviceIdUsingCallback);
}

std::optional<std::string> VelaNotifySession::locusDeviceId() {
  return queryString(*this, "locusDeviceId", &VelaNotificationHandsetActions::getLocusDeviceIdUsingCallback);
}

std::optional<std::string> VelaNotifySession::storeAccount() {
  return queryString(*this, "storeAccount", &VelaNotificationHandsetActions::getStoreAccountUsingCallback);
}

std::optional<VelaDictionary> VelaNotifySession::locusAccount() {
  return queryAccount(*this, "locusAccount", &VelaNotificationHandsetActions::getLocusAccountUsingCallback);
}

std::optional<VelaDictionary> VelaNotifySession::nimbusAccount() {
  return queryAccount(*this, "nimbusAccount", &VelaNotificationHandsetActions::getNimbusAccountUsingCallback);
}

std::optional<std::string> VelaNotifySession::copyStoreAccount() { return sharedInstance()->storeAccount(); }

std::nullptr_t VelaNotifySession::retrieveAllAccounts(std::optional<VelaDictionary>& accounts) {
  const std::optional<VelaDictionary> account = locusAccount();
  if (!account) return nullptr;
  const auto username = account->find(kVelaAccountNameKey);
  if (username == account->end() || username->second.asString() == nullptr) return nullptr;
  const std::string& name = *username->second.asString();
  VelaDictionary details{
      {std::string(kVelaAccountEnabledDataclassesKey), VelaSet{{VelaValue(kDeviceLocatorDataclass)}}},
      {std::string(kVelaAccountNameKey), name},
  };
  accounts = VelaDictionary{{name, std::move(details)}};
  return nullptr;
}
