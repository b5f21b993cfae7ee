// SPDX-License-Identifier: MIT
#pragma once

#include <memory>
#include <optional>
#include <string_view>

#include <vela/VelaNotificationHandsetActions.h>
#include <vela/VelaSync.h>

#include "platform/bus/named_connection.h"

namespace vela::session {

// The daemon's protocol over D-Bus. Each method becomes one call of its
// member with an a{sv} of its arguments (nil ones left out); the reply is
// decoded by its shape. When the call cannot be carried or the reply does not
// decode, the error handler runs instead of the reply closure: never both,
// and never a half-decoded reply.
//
// The proxy is a cheap value: the connection is shared, and every request
// takes its own copy of the error handler, so the proxy itself may go away
// as soon as a request is sent.
class HandsetActionsProxy final : public VelaNotificationHandsetActions {
 public:
  // `reconnect` supplies a fresh connection for a request that found this
  // one's bus already gone before it could be sent; may be empty.
  HandsetActionsProxy(std::shared_ptr<bus::NamedConnection> connection, VelaProxyErrorHandler errorHandler,
                      std::shared_ptr<const bus::Reconnect> reconnect = nullptr)
      : connection_(std::move(connection)), errorHandler_(std::move(errorHandler)), reconnect_(std::move(reconnect)) {}

  void enableLostModeWithInfo(std::shared_ptr<VelaLostModeInfo> info, VelaErrorReply reply) override;
  void disableLostModeUsingCallback(VelaErrorReply reply) override;
  void getLocusStateUsingCallback(VelaStateReply reply) override;
  void getKithDeviceIdUsingCallback(VelaStringReply reply) override;
  void getLocusDeviceIdUsingCallback(VelaStringReply reply) override;
  void getStoreAccountUsingCallback(VelaStringReply reply) override;
  void getLocusAccountUsingCallback(VelaTwoStringReply reply) override;
  void getNimbusAccountUsingCallback(VelaTwoStringReply reply) override;
  void enableLocusInContext(std::int32_t context, VelaErrorReply reply) override;
  void disableLocusUsingToken(std::optional<std::string> token, std::int32_t context, VelaErrorReply reply) override;
  void didEnterKithRegion(std::optional<std::string> regionIdentifier, std::shared_ptr<VelaGeoLocation> location,
                          VelaErrorReply reply) override;
  void didExitKithRegion(std::optional<std::string> regionIdentifier, std::shared_ptr<VelaGeoLocation> location,
                         VelaErrorReply reply) override;
  void addKithAccount(std::shared_ptr<VelaKithAccountInfo> account, VelaErrorReply reply) override;
  void removeKithAccountWithUsername(std::optional<std::string> username, VelaErrorReply reply) override;
  void retrieveKithAccountUsingCallback(VelaKithAccountReply reply) override;
  void vetEmailAccount(std::optional<std::string> account, VelaErrorReply reply) override;
  void cancelEmailVetUsingCallback(VelaErrorReply reply) override;
  void startListeningOnTopic(std::optional<std::string> topic, VelaErrorReply reply) override;
  void stopListeningOnTopic(std::optional<std::string> topic, VelaErrorReply reply) override;
  void dumpDebugInfo(std::optional<std::string> argument, VelaErrorReply reply) override;

 private:
  // Sends `call` with `args`. `reply` runs with the decoded answer; when the
  // answer does not decode, the error handler runs instead. An empty `reply`
  // sends the request without asking for an answer.
  template <typename Call, typename Reply, typename... Args>
  void send(const Call& call, Reply reply, Args&&... args);

  std::shared_ptr<bus::NamedConnection> connection_;
  VelaProxyErrorHandler errorHandler_;
  std::shared_ptr<const bus::Reconnect> reconnect_;
};

// The handler every operation gives its proxy: it runs `inner` (if any) with
// the error, then signals `semaphore` (if any). The label only names the
// operation; it changes nothing.
VelaProxyErrorHandler standardErrorHandler(std::string_view label, VelaProxyErrorHandler inner,
                                           std::shared_ptr<VelaSemaphore> semaphore);

}  // namespace vela::session
