// SPDX-License-Identifier: MIT
#include <vela/VelaConstants.h>
#include <vela/VelaNotifySession.h>

#include "session/remote_call.h"

namespace {

namespace calls = vela::session::calls;

template <typename Call>
[[gnu::hot]] std::optional<std::string> queryString(VelaNotifySession& session, const char* label, const Call& call) {
  return std::get<0>(vela::session::callSynchronously(session, label, call).values);
}

template <typename Call>
void queryStringAsync(VelaNotifySession& session, const Call& call, VelaNotifySession::StringCompletion completion) {
  vela::session::callWithoutBlocking(session, call, [completion = std::move(completion)](auto reply) {
    if (completion) completion(std::get<0>(std::move(reply.values)), std::move(reply.error));
  });
}

// A half-known account is no account: both values must have come.
std::optional<VelaDictionary> accountOf(std::optional<std::string> username, std::optional<std::string> personID) {
  if (!username || !personID) return std::nullopt;
  return VelaDictionary{{std::string(kVelaAccountNameKey), std::move(*username)},
                        {std::string(kVelaAccountPersonIDKey), std::move(*personID)}};
}

template <typename Call>
[[gnu::hot]] std::optional<VelaDictionary> queryAccount(VelaNotifySession& session, const char* label,
                                                        const Call& call) {
  auto [username, personID] = vela::session::callSynchronously(session, label, call).values;
  return accountOf(std::move(username), std::move(personID));
}

template <typename Call, typename Shape>
void queryAccountAsync(VelaNotifySession& session, const Call& call, Shape shape,
                       VelaNotifySession::DictionaryCompletion completion) {
  vela::session::callWithoutBlocking(session, call, [shape, completion = std::move(completion)](auto reply) {
    if (!completion) return;
    auto [username, personID] = std::move(reply.values);
    completion(shape(accountOf(std::move(username), std::move(personID))), std::move(reply.error));
  });
}

std::optional<VelaDictionary> asIs(std::optional<VelaDictionary> account) { return account; }

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

namespace {

// What retrieveAllAccounts writes for `account`, or nullopt where it writes nothing.
std::optional<VelaDictionary> allAccountsOf(std::optional<VelaDictionary> account) {
  if (!account) return std::nullopt;
  const auto username = account->find(kVelaAccountNameKey);
  if (username == account->end() || username->second.asString() == nullptr) return std::nullopt;
  const std::string& name = *username->second.asString();
  VelaDictionary details{
      {std::string(kVelaAccountEnabledDataclassesKey), VelaSet{{VelaValue(kDeviceLocatorDataclass)}}},
      {std::string(kVelaAccountNameKey), name},
  };
  return VelaDictionary{{name, std::move(details)}};
}

}  // namespace

std::nullptr_t VelaNotifySession::retrieveAllAccounts(std::optional<VelaDictionary>& accounts) {
  if (auto all = allAccountsOf(locusAccount())) accounts = std::move(all);
  return nullptr;
}

void VelaNotifySession::kithDeviceIdAsync(StringCompletion completion) {
  queryStringAsync(*this, calls::kGetKithDeviceId, std::move(completion));
}

void VelaNotifySession::locusDeviceIdAsync(StringCompletion completion) {
  queryStringAsync(*this, calls::kGetLocusDeviceId, std::move(completion));
}

void VelaNotifySession::storeAccountAsync(StringCompletion completion) {
  queryStringAsync(*this, calls::kGetStoreAccount, std::move(completion));
}

void VelaNotifySession::copyStoreAccountAsync(StringCompletion completion) {
  sharedInstance()->storeAccountAsync(std::move(completion));
}

void VelaNotifySession::locusAccountAsync(DictionaryCompletion completion) {
  queryAccountAsync(*this, calls::kGetLocusAccount, asIs, std::move(completion));
}

void VelaNotifySession::nimbusAccountAsync(DictionaryCompletion completion) {
  queryAccountAsync(*this, calls::kGetNimbusAccount, asIs, std::move(completion));
}

void VelaNotifySession::retrieveAllAccountsAsync(DictionaryCompletion completion) {
  queryAccountAsync(*this, calls::kGetLocusAccount, allAccountsOf, std::move(completion));
}
