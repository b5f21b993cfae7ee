// SPDX-License-Identifier: MIT
#include <vela/VelaNotifySession.h>

#include "session/remote_call.h"

namespace calls = vela::session::calls;

std::optional<VelaError> VelaNotifySession::addKithAccount(std::shared_ptr<VelaKithAccountInfo> account) {
  return vela::session::callSynchronously(*this, "addKithAccount", calls::kAddKithAccount, std::move(account)).error;
}

std::optional<VelaError> VelaNotifySession::removeKithAccountWithUsername(std::optional<std::string> username) {
  return vela::session::callSynchronously(*this, "removeKithAccountWithUsername", calls::kRemoveKithAccountWithUsername,
                                          std::move(username))
      .error;
}

std::optional<VelaError> VelaNotifySession::retrieveKithAccount(std::shared_ptr<VelaKithAccountInfo>& account) {
  auto result = vela::session::callSynchronously(*this, "retrieveKithAccount", calls::kRetrieveKithAccount);
  // Written in every outcome, so a caller's stale record never survives a
  // failed read; the record and the error travel independently.
  account = std::get<0>(std::move(result.values));
  return std::move(result.error);
}

void VelaNotifySession::addKithAccountAsync(std::shared_ptr<VelaKithAccountInfo> account, ErrorCompletion completion) {
  vela::session::callWithoutBlocking(*this, calls::kAddKithAccount, vela::session::errorTo(std::move(completion)),
                                     std::move(account));
}

void VelaNotifySession::removeKithAccountWithUsernameAsync(std::optional<std::string> username,
                                                           ErrorCompletion completion) {
  vela::session::callWithoutBlocking(*this, calls::kRemoveKithAccountWithUsername,
                                     vela::session::errorTo(std::move(completion)), std::move(username));
}

void VelaNotifySession::retrieveKithAccountAsync(KithAccountCompletion completion) {
  vela::session::callWithoutBlocking(*this, calls::kRetrieveKithAccount,
                                     [completion = std::move(completion)](auto reply) {
                                       if (completion)
                                         completion(std::get<0>(std::move(reply.values)), std::move(reply.error));
                                     });
}
