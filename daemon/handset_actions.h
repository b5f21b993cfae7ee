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
#include "service_preferences.h"
#include "state_store.h"

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

// Who a request comes from, and what the authorizer let it see.
struct Caller {
  // Unique bus name.
  std::string sender;
  // May the friends account's tokens be returned to it.
  bool mayReadSecrets = false;
};

// The reply body: the values, plus the error under "error" when there is one.
VelaDictionary replyBody(VelaDictionary values, const std::optional<VelaError>& error);

// The twenty members of HandsetActions, carried out on the daemon's state.
class HandsetActions {
 public:
  // How long a switch of the locating state stays in kLocusStateSwitching,
  // unless velad is told otherwise (--locus-settle-ms).
  static constexpr std::chrono::milliseconds kLocusSettleDelay{500};

  // `host` provides timers and notifications; every change is saved in
  // `store` before it is acknowledged. All must outlive this object.
  // `published` is where every user reads lost mode and whether locating is
  // on.
  HandsetActions(DaemonState& state, StateStore& store, ServicePreferences& published, ServiceHost& host,
                 EmailVetting& vetting, std::chrono::milliseconds settleDelay = kLocusSettleDelay)
      : state_(state),
        store_(store),
        published_(published),
        host_(host),
        vetting_(vetting),
        settleDelay_(settleDelay) {}

  // Every member this implementation answers.
  static std::vector<std::string> members();

  // Carries out one request, which the caller has been authorized to make.
  Answer perform(std::string_view member, const VelaDictionary& args, const Caller& caller);

  // `sender` has left the bus: its topics end.
  void callerLeft(const std::string& sender);

  // Makes the state that outlives velad visible to clients again: the
  // public lost-mode entry and "WardenEnabled" (at start-up, after load).
  void republish();

  // Tells every listener the current locating state and whether lost mode is
  // on, as the changes are told: once the name is owned at start-up, so that
  // a host that listened across a restart catches up.
  void announce();

 private:
  struct Member;
  static std::span<const Member> table();

  void announceLostMode();
  void announceLocusState();

  Answer enableLostModeWithInfo(RequestArguments& args, const Caller& caller);
  Answer disableLostMode(RequestArguments& args, const Caller& caller);
  Answer getLocusState(RequestArguments& args, const Caller& caller);
  Answer getKithDeviceId(RequestArguments& args, const Caller& caller);
  Answer getLocusDeviceId(RequestArguments& args, const Caller& caller);
  Answer getStoreAccount(RequestArguments& args, const Caller& caller);
  Answer getLocusAccount(RequestArguments& args, const Caller& caller);
  Answer getNimbusAccount(RequestArguments& args, const Caller& caller);
  Answer enableLocusInContext(RequestArguments& args, const Caller& caller);
  Answer disableLocusUsingToken(RequestArguments& args, const Caller& caller);
  Answer didEnterKithRegion(RequestArguments& args, const Caller& caller);
  Answer didExitKithRegion(RequestArguments& args, const Caller& caller);
  Answer regionEvent(RequestArguments& args, bool inside);
  Answer addKithAccount(RequestArguments& args, const Caller& caller);
  Answer removeKithAccountWithUsername(RequestArguments& args, const Caller& caller);
  Answer retrieveKithAccount(RequestArguments& args, const Caller& caller);
  Answer vetEmailAccount(RequestArguments& args, const Caller& caller);
  Answer cancelEmailVet(RequestArguments& args, const Caller& caller);
  Answer startListeningOnTopic(RequestArguments& args, const Caller& caller);
  Answer stopListeningOnTopic(RequestArguments& args, const Caller& caller);
  Answer dumpDebugInfo(RequestArguments& args, const Caller& caller);

  Answer switchLocus(std::int32_t settled, std::int32_t context);
  void setLocusState(std::int32_t state);

  DaemonState& state_;
  StateStore& store_;
  ServicePreferences& published_;
  ServiceHost& host_;
  EmailVetting& vetting_;
  std::chrono::milliseconds settleDelay_;
};

}  // namespace vela::daemon
