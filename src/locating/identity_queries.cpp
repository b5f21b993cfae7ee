// SPDX-License-Identifier: MIT
#include <vela/VelaConstants.h>
#include <vela/VelaNotifySession.h>

#include "session/remote_call.h"

namespace {

namespace calls = vela::session::calls;

template <typename Call>
std::optional<std::string> queryString(VelaNotifySession& session, const char* label, const Call& call) {
  return std::get<0>(vela::session::callSynchronously(session, label, call).values);
}

// A half-known account is no account: both values must have come.
template <typename Call>
std::optional<VelaDictionary> queryAccount(VelaNotifySession& session, const char* label, const Call& call) {
  auto result = vela::session::callSynchronously(session, label, call);
  auto& [username, personID] = result.values;
  if (!username || !personID) return std::nullopt;
  return VelaDictionary{{std::string(kVelaAccountNameKey), std::move(*username)},
                        {std::string(kVelaAccountPersonIDKey), std::move(*personID)}};
}

constexpr std::string_view kDeviceLocatorDataclass = "com.zentrex.Dataclass.DeviceLocator";

}  // namespace

std::optional<std::string> VelaNotifySession::kithDeviceId() {
  return queryString(*this, "kithDeviceId", calls::kGetKithDeviceId);
}

std::optional<std::string> VelaNotifySession::locusDeviceId() {
  return queryString(*this, "locusDeviceId", calls::kGetLocusDeviceId);
}

std::optional<std::string> VelaNotifySession::storeAccount() {
  return queryString(*this, "storeAccount", calls::kGetStoreAccount);
}

std::optional<VelaDictionary> VelaNotifySession::locusAccount() {
  return queryAccount(*this, "locusAccount", calls::kGetLocusAccount);
}

std::optional<VelaDictionary> VelaNotifySession::nimbusAccount() {
  return queryAccount(*this, "nimbusAccount", calls::kGetNimbusAccount);
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
