// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <vela/VelaError.h>
#include <vela/VelaGeoLocation.h>
#include <vela/VelaKithAccountInfo.h>
#include <vela/VelaLostModeInfo.h>

// The daemon's remote protocol: the twenty requests a client can send to the
// service "com.zentrex.VelaNotification".
//
// Every method is one-way: it returns at once, and the answer arrives later
// through its reply closure, which always ends with an error (nullopt on
// success). A proxy obtained from a session implements this interface over
// D-Bus (interface com.zentrex.VelaNotification.HandsetActions).
//
// THREADING: methods may be called from any thread. Reply closures run on the
// connection's thread, at most once each. When the request cannot be carried
// (no service, a dropped bus, an undecodable reply) the proxy's error handler
// runs instead of the reply closure. An empty reply closure marks the request
// fire-and-forget: the daemon is asked not to answer.

using VelaErrorReply = std::function<void(std::optional<VelaError> error)>;
using VelaStringReply = std::function<void(std::optional<std::string> value, std::optional<VelaError> error)>;
using VelaTwoStringReply = std::function<void(std::optional<std::string> first, std::optional<std::string> second,
                                              std::optional<VelaError> error)>;
using VelaStateReply = std::function<void(std::int32_t state, std::optional<VelaError> error)>;
using VelaKithAccountReply =
    std::function<void(std::shared_ptr<VelaKithAccountInfo> account, std::optional<VelaError> error)>;

class VelaNotificationHandsetActions {
 public:
  virtual ~VelaNotificationHandsetActions() = default;

  virtual void enableLostModeWithInfo(std::shared_ptr<VelaLostModeInfo> info, VelaErrorReply reply) = 0;
  virtual void disableLostModeUsingCallback(VelaErrorReply reply) = 0;
  virtual void getLocusStateUsingCallback(VelaStateReply reply) = 0;
  virtual void getKithDeviceIdUsingCallback(VelaStringReply reply) = 0;
  virtual void getLocusDeviceIdUsingCallback(VelaStringReply reply) = 0;
  virtual void getStoreAccountUsingCallback(VelaStringReply reply) = 0;
  // Replies (user name, person identifier).
  virtual void getLocusAccountUsingCallback(VelaTwoStringReply reply) = 0;
  // Replies (user name, person identifier).
  virtual void getNimbusAccountUsingCallback(VelaTwoStringReply reply) = 0;
  virtual void enableLocusInContext(std::int32_t context, VelaErrorReply reply) = 0;
  virtual void disableLocusUsingToken(std::optional<std::string> token, std::int32_t context, VelaErrorReply reply) = 0;
  virtual void didEnterKithRegion(std::optional<std::string> regionIdentifier,
                                  std::shared_ptr<VelaGeoLocation> location, VelaErrorReply reply) = 0;
  virtual void didExitKithRegion(std::optional<std::string> regionIdentifier, std::shared_ptr<VelaGeoLocation> location,
                                 VelaErrorReply reply) = 0;
  virtual void addKithAccount(std::shared_ptr<VelaKithAccountInfo> account, VelaErrorReply reply) = 0;
  virtual void removeKithAccountWithUsername(std::optional<std::string> username, VelaErrorReply reply) = 0;
  virtual void retrieveKithAccountUsingCallback(VelaKithAccountReply reply) = 0;
  virtual void vetEmailAccount(std::optional<std::string> account, VelaErrorReply reply) = 0;
  virtual void cancelEmailVetUsingCallback(VelaErrorReply reply) = 0;
  virtual void startListeningOnTopic(std::optional<std::string> topic, VelaErrorReply reply) = 0;
  virtual void stopListeningOnTopic(std::optional<std::string> topic, VelaErrorReply reply) = 0;
  virtual void dumpDebugInfo(std::optional<std::string> argument, VelaErrorReply reply) = 0;
};
