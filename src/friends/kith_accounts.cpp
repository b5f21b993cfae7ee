// SPDX-License-Identifier: MIT
#include <vela/VelaNotifySession.h>

#include "session/remote_call.h"

std::optional<VelaError> VelaNotifySession::addKithAccount(std::shared_ptr<VelaKithAccountInfo> account) {
  auto send = [&](auto& proxy, auto reply) { proxy.addKithAccount(std::move(account), std::move(reply)); };
  return vela::session::callSynchronously(*this, "addKithAccount", send).error;
}

std::optional<VelaError> VelaNotifySession::removeKithAccountWithUsername(std::optional<std::string> username) {
  auto send = [&](auto& proxy, auto reply) {
    proxy.removeKithAccountWithUsername(std::move(username), std::move(reply));
  };
  return vela::session::callSynchronously(*this, "removeKithAccountWithUsername", send).error;
}

std::optional<VelaError> VelaNotifySession::retrieveKithAccount(std::shared_ptr<VelaKithAccountInfo>& account) {
  auto result = vela::session::callSynchronously<std::shared_ptr<VelaKithAccountInfo>>(
      *this, "retrieveKithAccount",
      [](auto& proxy, auto reply) { proxy.retrieveKithAccountUsingCallback(std::move(reply)); });
  // Written in every outcome, so a caller's stale record never survives a
  // failed read; the record and the error travel independently.
  account = std::get<0>(std::move(result.values));
  return std::move(result.error);
}
