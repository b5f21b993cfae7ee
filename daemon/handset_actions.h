// SPDX-License-Identifier: MIT
#pragma once

#include <array>
#include <chrono>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <vela/VelaError.h>
#include <vela/VelaValue.h>

#include "daemon_state.h"
#include "email_vetting.h"
#include "protocol/typed_reader.h"
#include "service_host.h"

namespace vela::daemon {

// A request's keys, read by type; a key of the wrong type spoils the request.
using RequestArguments = protocol::TypedReader;

// What velad answers to one request; dropping one leaves the caller without a reply.
struct [[nodiscard]] Answer {
  VelaDictionary values;
  std::optional<VelaError> error;
  // Set when the request is malformed (a key of the wrong type): the caller
  // gets InvalidArgs with this text instead of a reply.
  std::optional<std::string> refusal;
};

// The reply body: the values, plus the error under "error" when there is one.
VelaDictionary replyBody(VelaDictionary values, const std::optional<VelaError>& error);

// The twenty members of HandsetActions, carried out on the daemon's state.
class HandsetActions {
 public:
  // How long a switch of the locating state stays in kLocusStateSwitching,
  // unless velad is told otherwise (--locus-settle-ms).
  static constexpr std::chrono::milliseconds kLocusSettleDelay{500};

  // `host` provides timers and notifications; all three must outlive this
  // object.
  HandsetActions(DaemonState& state, ServiceHost& host, EmailVetting& vetting,
                 std::chrono::milliseconds settleDelay = kLocusSettleDelay)
      : state_(state), host_(host), vetting_(vetting), settleDelay_(settleDelay) {}

  // Every member this implementation answers.
  static std::vector<std::string> members();

  // Carries out one request from `sender` (unique bus name).
  Answer perform(std::string_view member, const VelaDictionary& args, const std::string& sender);

 private:
  struct Member;
  static std::span<const Member> table();

  Answer enableLostModeWithInfo(RequestArguments& args, const std::string& sender);
  Answer disableLostMode(RequestArguments& args, const std::string& sender);
  Answer getLocusState(RequestArguments& args, const std::string& sender);
  Answer getKithDeviceId(RequestArguments& args, const std::string& sender);
  Answer getLocusDeviceId(RequestArguments& args, const std::string& sender);
  Answer getStoreAccount(RequestArguments& args, const std::string& sender);
  Answer getLocusAccount(RequestArguments& args, const std::string& sender);
  Answer getNimbusAccount(RequestArguments& args, const std::string& sender);
  Answer enableLocusInContext(RequestArguments& args, const std::string& sender);
  Answer disableLocusUsingToken(RequestArguments& args, const std::string& sender);
  Answer didEnterKithRegion(RequestArguments& args, const std::string& sender);
  Answer didExitKithRegion(RequestArguments& args, const std::string& sender);
  template <typename Apply>
  Answer regionEvent(RequestArguments& args, Apply apply);
  Answer addKithAccount(RequestArguments& args, const std::string& sender);
  Answer removeKithAccountWithUsername(RequestArguments& args, const std::string& sender);
  Answer retrieveKithAccount(RequestArguments& args, const std::string& sender);
  Answer vetEmailAccount(RequestArguments& args, const std::string& sender);
  Answer cancelEmailVet(RequestArguments& args, const std::string& sender);
  Answer startListeningOnTopic(RequestArguments& args, const std::string& sender);
  Answer stopListeningOnTopic(RequestArguments& args, const std::string& sender);
  Answer dumpDebugInfo(RequestArguments& args, const std::string& sender);

  Answer switchLocus(std::int32_t settled, std::int32_t context);
  void setLocusState(std::int32_t state);

  DaemonState& state_;
  ServiceHost& host_;
  EmailVetting& vetting_;
  std::chrono::milliseconds settleDelay_;
};

}  // namespace vela::daemon
