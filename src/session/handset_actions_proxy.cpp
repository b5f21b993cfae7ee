// SPDX-License-Identifier: MIT
#include "session/handset_actions_proxy.h"

#include "session/member_calls.h"

namespace vela::session {

VelaProxyErrorHandler standardErrorHandler(std::string_view label, VelaProxyErrorHandler inner,
                                           std::shared_ptr<VelaSemaphore> semaphore) {
  // The label only names the operation for whoever reads the code; it has no
  // effect, so the handler does not keep it.
  (void)label;
  return [inner = std::move(inner), semaphore = std::move(semaphore)](const VelaError& error) {
    if (inner) inner(error);
    if (semaphore) semaphore->signal();
  };
}

template <typename Call, typename Reply, typename... Args>
void HandsetActionsProxy::send(const Call& call, Reply reply, Args&&... args) {
  if (!connection_) return;  // no connection: the request goes nowhere
  bus::ReplyHandler onReply;
  if (reply) {
    onReply = [call, reply = std::move(reply), onError = errorHandler_](const VelaDictionary& answer) {
      auto decoded = call.decode(answer);
      if (!decoded) {
        if (onError) onError(undecodableReplyError());
        return;
      }
      std::apply([&](auto&... values) { reply(std::move(values)..., std::move(decoded->error)); }, decoded->values);
    };
  }
  connection_->callMethod(*call.member, call.encode(std::forward<Args>(args)...), std::move(onReply), errorHandler_,
                          reconnect_);
}

void HandsetActionsProxy::enableLostModeWithInfo(std::shared_ptr<VelaLostModeInfo> info, VelaErrorReply reply) {
  send(calls::kEnableLostModeWithInfo, std::move(reply), std::move(info));
}

void HandsetActionsProxy::disableLostModeUsingCallback(VelaErrorReply reply) {
  send(calls::kDisableLostMode, std::move(reply));
}

void HandsetActionsProxy::getLocusStateUsingCallback(VelaStateReply reply) {
  send(calls::kGetLocusState, std::move(reply));
}

void HandsetActionsProxy::getKithDeviceIdUsingCallback(VelaStringReply reply) {
  send(calls::kGetKithDeviceId, std::move(reply));
}

void HandsetActionsProxy::getLocusDeviceIdUsingCallback(VelaStringReply reply) {
  send(calls::kGetLocusDeviceId, std::move(reply));
}

void HandsetActionsProxy::getStoreAccountUsingCallback(VelaStringReply reply) {
  send(calls::kGetStoreAccount, std::move(reply));
}

void HandsetActionsProxy::getLocusAccountUsingCallback(VelaTwoStringReply reply) {
  send(calls::kGetLocusAccount, std::move(reply));
}

void HandsetActionsProxy::getNimbusAccountUsingCallback(VelaTwoStringReply reply) {
  send(calls::kGetNimbusAccount, std::move(reply));
}

void HandsetActionsProxy::enableLocusInContext(std::int32_t context, VelaErrorReply reply) {
  send(calls::kEnableLocusInContext, std::move(reply), context);
}

void HandsetActionsProxy::disableLocusUsingToken(std::optional<std::string> token, std::int32_t context,
                                                 VelaErrorReply reply) {
  send(calls::kDisableLocusUsingToken, std::move(reply), std::move(token), context);
}

void HandsetActionsProxy::didEnterKithRegion(std::optional<std::string> regionIdentifier,
                                             std::shared_ptr<VelaGeoLocation> location, VelaErrorReply reply) {
  send(calls::kDidEnterKithRegion, std::move(reply), std::move(regionIdentifier), std::move(location));
}

void HandsetActionsProxy::didExitKithRegion(std::optional<std::string> regionIdentifier,
                                            std::shared_ptr<VelaGeoLocation> location, VelaErrorReply reply) {
  send(calls::kDidExitKithRegion, std::move(reply), std::move(regionIdentifier), std::move(location));
}

void HandsetActionsProxy::addKithAccount(std::shared_ptr<VelaKithAccountInfo> account, VelaErrorReply reply) {
  send(calls::kAddKithAccount, std::move(reply), std::move(account));
}

void HandsetActionsProxy::removeKithAccountWithUsername(std::optional<std::string> username, VelaErrorReply reply) {
  send(calls::kRemoveKithAccountWithUsername, std::move(reply), std::move(username));
}

void HandsetActionsProxy::retrieveKithAccountUsingCallback(VelaKithAccountReply reply) {
  send(calls::kRetrieveKithAccount, std::move(reply));
}

void HandsetActionsProxy::vetEmailAccount(std::optional<std::string> account, VelaErrorReply reply) {
  send(calls::kVetEmailAccount, std::move(reply), std::move(account));
}

void HandsetActionsProxy::cancelEmailVetUsingCallback(VelaErrorReply reply) {
  send(calls::kCancelEmailVet, std::move(reply));
}

void HandsetActionsProxy::startListeningOnTopic(std::optional<std::string> topic, VelaErrorReply reply) {
  send(calls::kStartListeningOnTopic, std::move(reply), std::move(topic));
}

void HandsetActionsProxy::stopListeningOnTopic(std::optional<std::string> topic, VelaErrorReply reply) {
  send(calls::kStopListeningOnTopic, std::move(reply), std::move(topic));
}

void HandsetActionsProxy::dumpDebugInfo(std::optional<std::string> argument, VelaErrorReply reply) {
  send(calls::kDumpDebugInfo, std::move(reply), std::move(argument));
}

}  // namespace vela::session
