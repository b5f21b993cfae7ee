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

Answer failure(DaemonErrorCode code, std::string failureReason) {
  return Answer{{}, daemonError(code, std::move(failureReason)), std::nullopt};
}

Answer missing(std::string_view key) {
  return failure(DaemonErrorCode::kMissingValue, "\"" + std::string(key) + "\" is nil");
}

Answer refused(const RequestArguments& args) { return Answer{{}, std::nullopt, args.problem()}; }

// Where lost mode is published for every user, in velad's state directory.
ServicePreferences& servicePreferences() {
  static ServicePreferences preferences(ServicePreferences::pathInStateDirectory());
  return preferences;
}

VelaDictionary accountValues(const std::optional<AccountIdentity>& account) {
  if (!account) return {};
  return VelaDictionary{{std::string(key::kUsername), account->username},
                        {std::string(key::kPersonID), account->personID}};
}

}  // namespace

struct HandsetActions::Member {
  const protocol::Member* description;
  Answer (HandsetActions::*perform)(RequestArguments& args, const std::string& sender);
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

Answer HandsetActions::perform(std::string_view member, const VelaDictionary& args, const std::string& sender) {
  const auto entry =
      std::find_if(table().begin(), table().end(), [&](const Member& m) { return m.description->name == member; });
  // The host only routes the members it was given, which are these.
  if (entry == table().end()) return Answer{{}, std::nullopt, "unknown member " + std::string(member)};
  RequestArguments arguments(args);
  Answer answer = (this->*(entry->perform))(arguments, sender);
  if (arguments.problem()) return refused(arguments);
  return answer;
}

// --- Lost mode -------------------------------------------------------------

Answer HandsetActions::enableLostModeWithInfo(RequestArguments& args, const std::string& /*sender*/) {
  auto info = args.record<VelaLostModeInfo>(key::kInfo);
  if (args.problem()) return refused(args);
  if (!info) return missing(key::kInfo);
  state_.lostMode = std::move(info);
  // A failed write is logged; the switch itself stands.
  (void)servicePreferences().publishLostMode(state_.lostMode.get());
  return {};
}

Answer HandsetActions::disableLostMode(RequestArguments& /*args*/, const std::string& /*sender*/) {
  state_.lostMode.reset();
  // Also when velad holds no lost mode: the entry may be left from an earlier
  // run, and clients go by the entry.
  (void)servicePreferences().publishLostMode(nullptr);
  return {};
}

// --- Locating state and identity -------------------------------------------

Answer HandsetActions::getLocusState(RequestArguments& /*args*/, const std::string& /*sender*/) {
  return Answer{{{std::string(key::kState), state_.locusState}}, std::nullopt, std::nullopt};
}

Answer HandsetActions::getKithDeviceId(RequestArguments& /*args*/, const std::string& /*sender*/) {
  return Answer{{{std::string(key::kDeviceId), state_.kithDeviceId}}, std::nullopt, std::nullopt};
}

Answer HandsetActions::getLocusDeviceId(RequestArguments& /*args*/, const std::string& /*sender*/) {
  return Answer{{{std::string(key::kDeviceId), state_.locusDeviceId}}, std::nullopt, std::nullopt};
}

Answer HandsetActions::getStoreAccount(RequestArguments& /*args*/, const std::string& /*sender*/) {
  Answer answer;
  if (state_.storeAccount) answer.values.insert_or_assign(std::string(key::kAccount), *state_.storeAccount);
  return answer;
}

// NOLINTNEXTLINE(readability-make-member-function-const): every member's handler has one signature
Answer HandsetActions::getLocusAccount(RequestArguments& /*args*/, const std::string& /*sender*/) {
  return Answer{accountValues(state_.locusAccount), std::nullopt, std::nullopt};
}

// NOLINTNEXTLINE(readability-make-member-function-const): every member's handler has one signature
Answer HandsetActions::getNimbusAccount(RequestArguments& /*args*/, const std::string& /*sender*/) {
  return Answer{accountValues(state_.nimbusAccount), std::nullopt, std::nullopt};
}

Answer HandsetActions::enableLocusInContext(RequestArguments& args, const std::string& /*sender*/) {
  const auto context = args.int32(key::kContext);
  if (args.problem()) return refused(args);
  if (!context) return missing(key::kContext);
  return switchLocus(kLocusStateOn, *context);
}

Answer HandsetActions::disableLocusUsingToken(RequestArguments& args, const std::string& /*sender*/) {
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
    return failure(DaemonErrorCode::kLocusSwitchInProgress, "the locating state is still switching");
  }
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
  logVerbose("locus state " + std::to_string(state));
  const int r = host_.emitNotification(kDaemonNotificationCenter, kLocusStateDidChangeNotification,
                                       {{std::string(key::kState), state}});
  if (r < 0) logLine(std::string("cannot announce the locus state: ") + std::strerror(-r));
}

// --- Friends account and regions -------------------------------------------

// Entering and leaving carry the same arguments; only what they do to the
// set of regions the device is in differs.
template <typename Apply>
Answer HandsetActions::regionEvent(RequestArguments& args, Apply apply) {
  const auto region = args.string(key::kRegionIdentifier);
  args.record<VelaGeoLocation>(key::kLocation);
  if (args.problem()) return refused(args);
  if (!region) return missing(key::kRegionIdentifier);
  apply(state_.kithRegionsInside, *region);
  // The count only: region names can say where the user lives.
  logVerbose("inside " + std::to_string(state_.kithRegionsInside.size()) + " friends regions");
  return {};
}

Answer HandsetActions::didEnterKithRegion(RequestArguments& args, const std::string& /*sender*/) {
  return regionEvent(args, [](auto& inside, const std::string& region) { inside.insert(region); });
}

Answer HandsetActions::didExitKithRegion(RequestArguments& args, const std::string& /*sender*/) {
  return regionEvent(args, [](auto& inside, const std::string& region) { inside.erase(region); });
}

Answer HandsetActions::addKithAccount(RequestArguments& args, const std::string& /*sender*/) {
  auto account = args.record<VelaKithAccountInfo>(key::kAccount);
  if (args.problem()) return refused(args);
  if (!account) return missing(key::kAccount);
  logVerbose(state_.kithAccount ? "friends account replaced" : "friends account added");
  state_.kithAccount = std::move(account);
  return {};
}

Answer HandsetActions::removeKithAccountWithUsername(RequestArguments& args, const std::string& /*sender*/) {
  const auto username = args.string(key::kUsername);
  if (args.problem()) return refused(args);
  if (!username) return missing(key::kUsername);
  if (!state_.kithAccount || state_.kithAccount->username() != username) {
    return failure(DaemonErrorCode::kUnknownKithAccount, "no friends account has the user name " + *username);
  }
  state_.kithAccount.reset();
  logVerbose("friends account removed");
  return {};
}

Answer HandsetActions::retrieveKithAccount(RequestArguments& /*args*/, const std::string& /*sender*/) {
  Answer answer;
  if (state_.kithAccount) {
    answer.values.insert_or_assign(std::string(key::kAccount), records::archiveRecord(*state_.kithAccount));
  }
  return answer;
}

// --- Vetting, topics, debug ------------------------------------------------

Answer HandsetActions::vetEmailAccount(RequestArguments& args, const std::string& sender) {
  const auto account = args.string(key::kAccount);
  if (args.problem()) return refused(args);
  if (!account) return missing(key::kAccount);
  vetting_.start(sender, *account);
  return {};
}

Answer HandsetActions::cancelEmailVet(RequestArguments& /*args*/, const std::string& sender) {
  vetting_.cancel(sender);
  return {};
}

Answer HandsetActions::startListeningOnTopic(RequestArguments& args, const std::string& /*sender*/) {
  const auto topic = args.string(key::kTopic);
  if (args.problem()) return refused(args);
  if (!topic) return missing(key::kTopic);
  state_.topics.insert(*topic);
  return {};
}

Answer HandsetActions::stopListeningOnTopic(RequestArguments& args, const std::string& /*sender*/) {
  const auto topic = args.string(key::kTopic);
  if (args.problem()) return refused(args);
  if (!topic) return missing(key::kTopic);
  state_.topics.erase(*topic);
  return {};
}

Answer HandsetActions::dumpDebugInfo(RequestArguments& args, const std::string& sender) {
  const auto argument = args.string(key::kArgument);
  if (args.problem()) return refused(args);
  logLine("debug dump for " + sender + " (argument: " + argument.value_or("(nil)") + ")\n" +
          describeDaemonState(state_) + "vettings: " + std::to_string(vetting_.underWay()) + " under way");
  return {};
}

}  // namespace vela::daemon
