// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include <vela/VelaKithAccountInfo.h>
#include <vela/VelaLostModeInfo.h>

#include "protocol/locus_state.h"

// Everything velad knows, in memory. Only the handlers of the HandsetActions
// members change it, all on the loop thread, so it needs no lock.
namespace vela::daemon {

struct AccountIdentity {
  std::string username;
  std::string personID;
};

struct DaemonState {
  std::int32_t locusState = protocol::kLocusStateOff;
  // Context of the last switch request, as the client gave it.
  std::optional<std::int32_t> lastLocusContext;

  std::string kithDeviceId;
  std::string locusDeviceId;
  std::optional<std::string> storeAccount;
  std::optional<AccountIdentity> locusAccount;
  std::optional<AccountIdentity> nimbusAccount;

  // Set while lost mode is on: the record it was switched on with.
  std::shared_ptr<VelaLostModeInfo> lostMode;
  // The one friends-locating account; a new one replaces it.
  std::shared_ptr<VelaKithAccountInfo> kithAccount;
  // Friends-locating regions the device has entered and not yet left.
  std::set<std::string, std::less<>> kithRegionsInside;

  // Each caller's topics, by its unique bus name.
  std::map<std::string, std::set<std::string, std::less<>>, std::less<>> topics;
};

// A fresh state: locating off, device identifiers new for this run, and the
// accounts velad reports until an account service feeds it real ones.
DaemonState initialDaemonState();

// A multi-line, human-readable account of the state for debug dumps: what is
// set and how much, never a value that could identify or reach the owner
// (accounts, tokens, the lost-mode message and number, region names).
std::string describeDaemonState(const DaemonState& state);

}  // namespace vela::daemon
