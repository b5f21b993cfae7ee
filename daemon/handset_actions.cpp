// SPDX-License-Identifier: MIT
#include "handset_actions.h"

#include <algorithm>
#include <array>
#include <cstring>

#include <vela/VelaConstants.h>
#include <vela/VelaGeoLocation.h>

#include "daemon_errors.h"
#include "log.h"
#include "protocol/daemon_error.h"
#include "protocol/locus_state.h"
#include "protocol/members.h"
#include "protocol/names.h"
#include "protocol/typed_reader.h"
#include "request_limits.h"
#include "service_preferences.h"

namespace vela::daemon {

namespace key = protocol::key;
namespace member = protocol::member;

namespace {

// velad announces its own state changes on the center it posts vetting
// results on, the one center its clients already listen to.
constexpr std::string_view kDaemonNotificationCenter = protocol::kClientNotifyCenter;

using protocol::kLocusStateOff;
using protocol::kLocusStateOn;
using protocol::kLocusStateSwitching;

Answer failure(VelaDaemonErrorCode code, std::string failureReason) {
  return Answer{{}, daemonError(code, std::move(failureReason)), std::nullopt};
}

Answer missing(std::string_view key) {
  return failure(VelaDaemonErrorCodeMissingValue, protocol::refusedKey(key, "is nil"));
}

// The change was not made: it could not be saved, and velad acknowledges
// only what a restart keeps.
Answer notSaved(const StateStore& store) {
  log(LogLevel::kError, store.lastFailure());
  return failure(VelaDaemonErrorCodeNotSaved, "the change could not be saved; nothing changed");
}

Answer refused(const RequestArguments& args) { return Answer{{}, std::nullopt, args.problem()}; }

VelaDictionary accountValues(const std::optional<AccountIdentity>& account) {
  if (!account) return {};
  return VelaDictionary{{std::string(key::kUsername), account->username},
                        {std::string(key::kPersonID), account->personID}};
}

}  // namespace

struct HandsetActions::Member {
  const protocol::Member* description;
  Answer (HandsetActions::*perform)(RequestArguments& args, const Caller& caller);
};

std::span<const HandsetActions::Member> HandsetActions::table() {
  static constexpr auto kTable = std::to_array<Member>({
      {&member::kEnableLostModeWithInfo, &HandsetActions::enableLostModeWithInfo},
      {&member::kDisableLostMode, &HandsetActions::disableLostMode},
      {&member::kGetLocusState, &HandsetActions::getLocusState},
      {&member::kGetKithDeviceId, &HandsetActions::getKithDeviceId},
      {&member::kGetLocusDeviceId, &HandsetActions::getLocusDeviceId},
      {&member::kGetStoreAccount, &HandsetActions::getStoreAccount},
      {&member::kGetLocusAccount, &HandsetActions::getLocusAccount},
      {&member::kGetNimbusAccount, &HandsetActions::getNimbusAccount},
      {&member::kEnableLocusInContext, &HandsetActions::enableLocusInContext},
      {&member::kDisableLocusUsingToken, &HandsetActions::disableLocusUsingToken},
      {&member::kDidEnterKithRegion, &HandsetActions::didEnterKithRegion},
      {&member::kDidExitKithRegion, &HandsetActions::didExitKithRegion},
      {&member::kAddKithAccount, &HandsetActions::addKithAccount},
      {&member::kRemoveKithAccountWithUsername, &HandsetActions::removeKithAccountWithUsername},
      {&member::kRetrieveKithAccount, &HandsetActions::retrieveKithAccount},
      {&member::kVetEmailAccount, &HandsetActions::vetEmailAccount},
      {&member::kCancelEmailVet, &HandsetActions::cancelEmailVet},
      {&member::kStartListeningOnTopic, &HandsetActions::startListeningOnTopic},
      {&member::kStopListeningOnTopic, &HandsetActions::stopListeningOnTopic},
      {&member::kDumpDebugInfo, &HandsetActions::dumpDebugInfo},
  });
  static_assert(kTable.size() == protocol::kHandsetActionsMembers.size(), "velad answers every member");
  return kTable;
}

VelaDictionary replyBody(VelaDictionary values, const std::optional<VelaError>& error) {
  if (error) values.insert_or_assign(std::string(protocol::kErrorKey), protocol::encodeDaemonError(*error));
  return values;
}

std::vector<std::string> HandsetActions::members() {
  std::vector<std::string> names;
  for (const Member& entry : table()) names.emplace_back(entry.description->name);
  return names;
}

Answer HandsetActions::perform(std::string_view member, const VelaDictionary& args, const Caller& caller) {
  const auto entry =
      std::find_if(table().begin(), table().end(), [&](const Member& m) { return m.description->name == member; });
  // The host only routes the members it was given, which are these.
  if (entry == table().end()) return Answer{{}, std::nullopt, "unknown member " + std::string(member)};
  RequestArguments arguments(args);
  Answer answer = (this->*(entry->perform))(arguments, caller);
  if (arguments.problem()) return refused(arguments);
  return answer;
}

// --- Lost mode -------------------------------------------------------------

Answer HandsetActions::enableLostModeWithInfo(RequestArguments& args, const Caller& /*caller*/) {
  auto info = args.record<VelaLostModeInfo>(key::kInfo);
  if (args.problem()) return refused(args);
  if (!info) return missing(key::kInfo);
  if (!store_.saveLostMode(info.get())) return notSaved(store_);
  state_.lostMode = std::move(info);
  // A failed write is logged; the switch itself stands.
  (void)published_.publishLostMode(state_.lostMode.get());
  announceLostMode();
  return {};
}

Answer HandsetActions::disableLostMode(RequestArguments& /*args*/, const Caller& /*caller*/) {
  if (!store_.saveLostMode(nullptr)) return notSaved(store_);
  state_.lostMode.reset();
  // Also when velad holds no lost mode: the entry may be left from an earlier
  // run, and clients go by the entry.
  (void)published_.publishLostMode(nullptr);
  announceLostMode();
  return {};
}

void HandsetActions::republish() {
  // What clients read may be left from a run that stopped before writing it,
  // or written by hand; velad's own state decides. A saved state is always
  // settled.
  (void)published_.publishLostMode(state_.lostMode.get());
  (void)published_.publishWardenEnabled(state_.locusState == kLocusStateOn);
}

void HandsetActions::announce() {
  announceLocusState();
  announceLostMode();
}

void HandsetActions::announceLostMode() {
  const bool enabled = state_.lostMode != nullptr;
  const int r = host_.emitNotification(kDaemonNotificationCenter, kLostModeChangedNotification,
                                       {{std::string(protocol::kLostModeEnabledKey), enabled}});
  if (r < 0) log(LogLevel::kWarning, std::string("cannot announce lost mode: ") + std::strerror(-r));
}

void HandsetActions::announceLocusState() {
  const int r = host_.emitNotification(kDaemonNotificationCenter, kLocusStateDidChangeNotification,
                                       {{std::string(protocol::kLocusStateChangeKey), state_.locusState}});
  if (r < 0) log(LogLevel::kWarning, std::string("cannot announce the locus state: ") + std::strerror(-r));
}

// --- Locating state and identity -------------------------------------------

Answer HandsetActions::getLocusState(RequestArguments& /*args*/, const Caller& /*caller*/) {
  return Answer{{{std::string(key::kState), state_.locusState}}, std::nullopt, std::nullopt};
}

Answer HandsetActions::getKithDeviceId(RequestArguments& /*args*/, const Caller& /*caller*/) {
  return Answer{{{std::string(key::kDeviceId), state_.kithDeviceId}}, std::nullopt, std::nullopt};
}

Answer HandsetActions::getLocusDeviceId(RequestArguments& /*args*/, const Caller& /*caller*/) {
  return Answer{{{std::string(key::kDeviceId), state_.locusDeviceId}}, std::nullopt, std::nullopt};
}

Answer HandsetActions::getStoreAccount(RequestArguments& /*args*/, const Caller& /*caller*/) {
  Answer answer;
  if (state_.storeAccount) answer.values.insert_or_assign(std::string(key::kAccount), *state_.storeAccount);
  return answer;
}

// NOLINTNEXTLINE(readability-make-member-function-const): every member's handler has one signature
Answer HandsetActions::getLocusAccount(RequestArguments& /*args*/, const Caller& /*caller*/) {
  return Answer{accountValues(state_.locusAccount), std::nullopt, std::nullopt};
}

// NOLINTNEXTLINE(readability-make-member-function-const): every member's handler has one signature
Answer HandsetActions::getNimbusAccount(RequestArguments& /*args*/, const Caller& /*caller*/) {
  return Answer{accountValues(state_.nimbusAccount), std::nullopt, std::nullopt};
}

Answer HandsetActions::enableLocusInContext(RequestArguments& args, const Caller& /*caller*/) {
  const auto context = args.int32(key::kContext);
  if (args.problem()) return refused(args);
  if (!context) return missing(key::kContext);
  return switchLocus(kLocusStateOn, *context);
}

Answer HandsetActions::disableLocusUsingToken(RequestArguments& args, const Caller& /*caller*/) {
  const auto token = args.string(key::kToken);
  const auto context = args.int32(key::kContext);
  if (args.problem()) return refused(args);
  // Switching locating off needs the token of whoever may do so; velad has
  // no authority to check it against, but never switches off without one.
  if (!token) return missing(key::kToken);
  if (!context) return missing(key::kContext);
  return switchLocus(kLocusStateOff, *context);
}

Answer HandsetActions::switchLocus(std::int32_t settled, std::int32_t context) {
  if (state_.locusState == kLocusStateSwitching) {
    return failure(VelaDaemonErrorCodeLocusSwitchInProgress, "the locating state is still switching");
  }
  // Saved as settled: a restart in the middle of the switch finishes it.
  if (!store_.saveLocus(settled, context)) return notSaved(store_);
  state_.lastLocusContext = context;
  if (state_.locusState == settled) return {};
  setLocusState(kLocusStateSwitching);
  const int r = host_.addTimer(settleDelay_, [this, settled] { setLocusState(settled); });
  // Without a timer the switch settles at once rather than never.
  if (r < 0) setLocusState(settled);
  return {};
}

void HandsetActions::setLocusState(std::int32_t state) {
  state_.locusState = state;
  // Failures are logged; clients see the previous value until the next switch or start.
  if (state != kLocusStateSwitching) (void)published_.publishWardenEnabled(state == kLocusStateOn);
  log(LogLevel::kInfo, "locus state " + std::to_string(state));
  announceLocusState();
}

// --- Friends account and regions -------------------------------------------

// Entering and leaving carry the same arguments; only what they do to the
// set of regions the device is in differs.
Answer HandsetActions::regionEvent(RequestArguments& args, bool inside) {
  const auto region = args.string(key::kRegionIdentifier);
  args.record<VelaGeoLocation>(key::kLocation);
  if (args.problem()) return refused(args);
  if (!region) return missing(key::kRegionIdentifier);
  if (inside && !state_.kithRegionsInside.contains(*region) && state_.kithRegionsInside.size() >= kMaxRegionsInside) {
    return failure(VelaDaemonErrorCodeLimitExceeded,
                   "the device is inside at most " + std::to_string(kMaxRegionsInside) + " regions");
  }
  if (!store_.saveRegion(*region, inside)) return notSaved(store_);
  if (inside) {
    state_.kithRegionsInside.insert(*region);
  } else {
    state_.kithRegionsInside.erase(*region);
  }
  // The count only: region names can say where the user lives.
  log(LogLevel::kInfo, "inside " + std::to_string(state_.kithRegionsInside.size()) + " friends regions");
  return {};
}

Answer HandsetActions::didEnterKithRegion(RequestArguments& args, const Caller& /*caller*/) {
  return regionEvent(args, true);
}

Answer HandsetActions::didExitKithRegion(RequestArguments& args, const Caller& /*caller*/) {
  return regionEvent(args, false);
}

Answer HandsetActions::addKithAccount(RequestArguments& args, const Caller& /*caller*/) {
  auto account = args.record<VelaKithAccountInfo>(key::kAccount);
  if (args.problem()) return refused(args);
  if (!account) return missing(key::kAccount);
  if (!store_.saveKithAccount(account.get())) return notSaved(store_);
  log(LogLevel::kInfo, state_.kithAccount ? "friends account replaced" : "friends account added");
  state_.kithAccount = std::move(account);
  return {};
}

Answer HandsetActions::removeKithAccountWithUsername(RequestArguments& args, const Caller& /*caller*/) {
  const auto username = args.string(key::kUsername);
  if (args.problem()) return refused(args);
  if (!username) return missing(key::kUsername);
  if (!state_.kithAccount || state_.kithAccount->username() != username) {
    return failure(VelaDaemonErrorCodeUnknownKithAccount, "no friends account has the user name " + *username);
  }
  if (!store_.saveKithAccount(nullptr)) return notSaved(store_);
  state_.kithAccount.reset();
  log(LogLevel::kInfo, "friends account removed");
  return {};
}

Answer HandsetActions::retrieveKithAccount(RequestArguments& /*args*/, const Caller& caller) {
  Answer answer;
  if (!state_.kithAccount) return answer;
  if (caller.mayReadSecrets) {
    answer.values.insert_or_assign(std::string(key::kAccount), records::archiveRecord(*state_.kithAccount));
    return answer;
  }
  VelaKithAccountInfo withoutTokens = *state_.kithAccount;
  withoutTokens.setAppAuthToken(std::nullopt);
  withoutTokens.setInternalAuthToken(std::nullopt);
  answer.values.insert_or_assign(std::string(key::kAccount), records::archiveRecord(withoutTokens));
  return answer;
}

// --- Vetting, topics, debug ------------------------------------------------

Answer HandsetActions::vetEmailAccount(RequestArguments& args, const Caller& caller) {
  const auto account = args.string(key::kAccount);
  if (args.problem()) return refused(args);
  if (!account) return missing(key::kAccount);
  vetting_.start(caller.sender, *account);
  return {};
}

Answer HandsetActions::cancelEmailVet(RequestArguments& /*args*/, const Caller& caller) {
  vetting_.cancel(caller.sender);
  return {};
}

// Topics are the caller's own: it stops only what it started, and they end
// when it leaves the bus.
Answer HandsetActions::startListeningOnTopic(RequestArguments& args, const Caller& caller) {
  const auto topic = args.string(key::kTopic);
  if (args.problem()) return refused(args);
  if (!topic) return missing(key::kTopic);
  auto& owned = state_.topics[caller.sender];
  if (owned.contains(*topic)) return {};
  if (owned.size() >= kMaxTopicsPerCaller) {
    if (owned.empty()) state_.topics.erase(caller.sender);
    return failure(VelaDaemonErrorCodeLimitExceeded,
                   "a caller listens on at most " + std::to_string(kMaxTopicsPerCaller) + " topics");
  }
  if (!store_.saveTopic(caller.sender, *topic, true)) {
    if (owned.empty()) state_.topics.erase(caller.sender);
    return notSaved(store_);
  }
  owned.insert(*topic);
  return {};
}

Answer HandsetActions::stopListeningOnTopic(RequestArguments& args, const Caller& caller) {
  const auto topic = args.string(key::kTopic);
  if (args.problem()) return refused(args);
  if (!topic) return missing(key::kTopic);
  const auto owned = state_.topics.find(caller.sender);
  if (owned == state_.topics.end() || !owned->second.contains(*topic)) return {};
  if (!store_.saveTopic(caller.sender, *topic, false)) return notSaved(store_);
  owned->second.erase(*topic);
  if (owned->second.empty()) state_.topics.erase(owned);
  return {};
}

void HandsetActions::callerLeft(const std::string& sender) {
  const auto owned = state_.topics.find(sender);
  if (owned == state_.topics.end()) return;
  // Kept in memory when the file refuses: a later departure cannot retry,
  // but the next start drops whatever owners have gone.
  if (!store_.forgetTopicsOf(sender)) {
    log(LogLevel::kError, store_.lastFailure());
    return;
  }
  state_.topics.erase(owned);
}

Answer HandsetActions::dumpDebugInfo(RequestArguments& args, const Caller& caller) {
  const auto argument = args.string(key::kArgument);
  if (args.problem()) return refused(args);
  // Asked for, so written without --verbose; the state is described by what
  // is set and how much, never by what it holds.
  log(LogLevel::kNotice,
      "debug dump for " + printable(caller.sender) + " (argument: " + printable(argument.value_or("(nil)")) + ")");
  logLines(LogLevel::kNotice, describeDaemonState(state_));
  log(LogLevel::kNotice, "vettings: " + std::to_string(vetting_.underWay()) + " under way");
  return {};
}

}  // namespace vela::daemon
