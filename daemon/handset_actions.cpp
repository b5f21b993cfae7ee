// SPDX-License-Identifier: MIT
#include "handset_actions.h"

#include <algorithm>
#include <array>
#include <cstring>

#include <vela/VelaConstants.h>
#include <vela/VelaGeoLocation.h>

#include "daemon_errors.h"
#include "log.h"
#include "lost_mode_preferences.h"
#include "records/vetting_names.h"
#include "session/handset_wire.h"
#include "session/reply_decoding.h"

namespace vela::daemon {

namespace wire = session::wire;

namespace {

constexpr std::string_view kRequestKeysAnnotation = "com.zentrex.VelaNotification.RequestKeys";
constexpr std::string_view kReplyKeysAnnotation = "com.zentrex.VelaNotification.ReplyKeys";

// velad announces its own state changes on the center it posts vetting
// results on, the one center its clients already listen to.
constexpr std::string_view kDaemonNotificationCenter = records::kVetCenterName;

Answer failure(DaemonErrorCode code, std::string failureReason) {
  return Answer{{}, daemonError(code, std::move(failureReason)), std::nullopt};
}

Answer missing(std::string_view key) {
  return failure(DaemonErrorCode::kMissingValue, "\"" + std::string(key) + "\" is nil");
}

Answer refused(const RequestArguments& args) { return Answer{{}, std::nullopt, args.problem()}; }

VelaDictionary accountValues(const std::optional<AccountIdentity>& account) {
  if (!account) return {};
  return VelaDictionary{{std::string(wire::key::kUsername), account->username},
                        {std::string(wire::key::kPersonID), account->personID}};
}

}  // namespace

struct HandsetActions::Member {
  std::string_view name;
  // The keys as the interface description's annotations list them.
  std::string_view requestKeys;
  std::string_view replyKeys;
  Answer (HandsetActions::*perform)(RequestArguments& args, const std::string& sender);
};

std::span<const HandsetActions::Member> HandsetActions::table() {
  namespace m = wire::member;
  static constexpr auto kTable = std::to_array<Member>({
      {m::kEnableLostModeWithInfo, "info:VelaLostModeInfo", "", &HandsetActions::enableLostModeWithInfo},
      {m::kDisableLostMode, "", "", &HandsetActions::disableLostMode},
      {m::kGetLocusState, "", "state:i", &HandsetActions::getLocusState},
      {m::kGetKithDeviceId, "", "deviceId:s", &HandsetActions::getKithDeviceId},
      {m::kGetLocusDeviceId, "", "deviceId:s", &HandsetActions::getLocusDeviceId},
      {m::kGetStoreAccount, "", "account:s", &HandsetActions::getStoreAccount},
      {m::kGetLocusAccount, "", "username:s personID:s", &HandsetActions::getLocusAccount},
      {m::kGetNimbusAccount, "", "username:s personID:s", &HandsetActions::getNimbusAccount},
      {m::kEnableLocusInContext, "context:i", "", &HandsetActions::enableLocusInContext},
      {m::kDisableLocusUsingToken, "token:s context:i", "", &HandsetActions::disableLocusUsingToken},
      {m::kDidEnterKithRegion, "regionIdentifier:s location:VelaGeoLocation", "", &HandsetActions::didEnterKithRegion},
      {m::kDidExitKithRegion, "regionIdentifier:s location:VelaGeoLocation", "", &HandsetActions::didExitKithRegion},
      {m::kAddKithAccount, "account:VelaKithAccountInfo", "", &HandsetActions::addKithAccount},
      {m::kRemoveKithAccountWithUsername, "username:s", "", &HandsetActions::removeKithAccountWithUsername},
      {m::kRetrieveKithAccount, "", "account:VelaKithAccountInfo", &HandsetActions::retrieveKithAccount},
      {m::kVetEmailAccount, "account:s", "", &HandsetActions::vetEmailAccount},
      {m::kCancelEmailVet, "", "", &HandsetActions::cancelEmailVet},
      {m::kStartListeningOnTopic, "topic:s", "", &HandsetActions::startListeningOnTopic},
      {m::kStopListeningOnTopic, "topic:s", "", &HandsetActions::stopListeningOnTopic},
      {m::kDumpDebugInfo, "argument:s", "", &HandsetActions::dumpDebugInfo},
  });
  return kTable;
}

VelaDictionary replyBody(VelaDictionary values, const std::optional<VelaError>& error) {
  if (error) values.insert_or_assign(std::string(wire::key::kError), session::encodeDaemonError(*error));
  return values;
}

std::vector<std::string> HandsetActions::members() {
  std::vector<std::string> names;
  for (const Member& member : table()) names.emplace_back(member.name);
  return names;
}

std::optional<std::string> HandsetActions::checkDescription(const std::vector<MethodDescription>& methods) {
  auto annotation = [](const MethodDescription& method, std::string_view name) -> std::optional<std::string> {
    const auto found = method.annotations.find(name);
    if (found == method.annotations.end()) return std::nullopt;
    return found->second;
  };
  for (const MethodDescription& method : methods) {
    const auto member =
        std::find_if(table().begin(), table().end(), [&](const Member& m) { return m.name == method.name; });
    if (member == table().end()) return "the description lists " + method.name + ", which velad does not implement";
    const bool dictionaryInAndOut = method.arguments.size() == 2 && method.arguments[0].type == "a{sv}" &&
                                    method.arguments[0].direction == "in" && method.arguments[1].type == "a{sv}" &&
                                    method.arguments[1].direction == "out";
    if (!dictionaryInAndOut) return method.name + " is not a{sv} -> a{sv} in the description";
    if (annotation(method, kRequestKeysAnnotation) != member->requestKeys) {
      return method.name + ": the description's request keys differ from velad's";
    }
    if (annotation(method, kReplyKeysAnnotation) != member->replyKeys) {
      return method.name + ": the description's reply keys differ from velad's";
    }
  }
  for (const Member& member : table()) {
    const bool described = std::any_of(methods.begin(), methods.end(),
                                       [&](const MethodDescription& method) { return method.name == member.name; });
    if (!described) return "the description lacks " + std::string(member.name);
  }
  if (methods.size() != table().size()) return "the description lists a member more than once";
  return std::nullopt;
}

Answer HandsetActions::perform(std::string_view member, const VelaDictionary& args, const std::string& sender) {
  const auto entry = std::find_if(table().begin(), table().end(), [&](const Member& m) { return m.name == member; });
  // The host only routes the members it was given, which are these.
  if (entry == table().end()) return Answer{{}, std::nullopt, "unknown member " + std::string(member)};
  RequestArguments arguments(args);
  Answer answer = (this->*(entry->perform))(arguments, sender);
  if (arguments.problem()) return refused(arguments);
  return answer;
}

// --- Lost mode -------------------------------------------------------------

Answer HandsetActions::enableLostModeWithInfo(RequestArguments& args, const std::string& /*sender*/) {
  auto info = args.record<VelaLostModeInfo>(wire::key::kInfo);
  if (args.problem()) return refused(args);
  if (!info) return missing(wire::key::kInfo);
  state_.lostMode = std::move(info);
  publishLostModeToPreferences(state_.lostMode.get());
  return {};
}

Answer HandsetActions::disableLostMode(RequestArguments& /*args*/, const std::string& /*sender*/) {
  state_.lostMode.reset();
  // Also when velad holds no lost mode: the entry may be left from an earlier
  // run, and clients go by the entry.
  publishLostModeToPreferences(nullptr);
  return {};
}

// --- Locating state and identity -------------------------------------------

Answer HandsetActions::getLocusState(RequestArguments& /*args*/, const std::string& /*sender*/) {
  return Answer{{{std::string(wire::key::kState), state_.locusState}}, std::nullopt, std::nullopt};
}

Answer HandsetActions::getKithDeviceId(RequestArguments& /*args*/, const std::string& /*sender*/) {
  return Answer{{{std::string(wire::key::kDeviceId), state_.kithDeviceId}}, std::nullopt, std::nullopt};
}

Answer HandsetActions::getLocusDeviceId(RequestArguments& /*args*/, const std::string& /*sender*/) {
  return Answer{{{std::string(wire::key::kDeviceId), state_.locusDeviceId}}, std::nullopt, std::nullopt};
}

Answer HandsetActions::getStoreAccount(RequestArguments& /*args*/, const std::string& /*sender*/) {
  Answer answer;
  if (state_.storeAccount) answer.values.insert_or_assign(std::string(wire::key::kAccount), *state_.storeAccount);
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
  const auto context = args.int32(wire::key::kContext);
  if (args.problem()) return refused(args);
  if (!context) return missing(wire::key::kContext);
  return switchLocus(kLocusStateOn, *context);
}

Answer HandsetActions::disableLocusUsingToken(RequestArguments& args, const std::string& /*sender*/) {
  const auto token = args.string(wire::key::kToken);
  const auto context = args.int32(wire::key::kContext);
  if (args.problem()) return refused(args);
  // Switching locating off needs the token of whoever may do so; velad has
  // no authority to check it against, but never switches off without one.
  if (!token) return missing(wire::key::kToken);
  if (!context) return missing(wire::key::kContext);
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
                                       {{std::string(wire::key::kState), state}});
  if (r < 0) logLine(std::string("cannot announce the locus state: ") + std::strerror(-r));
}

// --- Friends account and regions -------------------------------------------

// Entering and leaving carry the same arguments; only what they do to the
// set of regions the device is in differs.
template <typename Apply>
Answer HandsetActions::regionEvent(RequestArguments& args, Apply apply) {
  const auto region = args.string(wire::key::kRegionIdentifier);
  args.record<VelaGeoLocation>(wire::key::kLocation);
  if (args.problem()) return refused(args);
  if (!region) return missing(wire::key::kRegionIdentifier);
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
  auto account = args.record<VelaKithAccountInfo>(wire::key::kAccount);
  if (args.problem()) return refused(args);
  if (!account) return missing(wire::key::kAccount);
  logVerbose(state_.kithAccount ? "friends account replaced" : "friends account added");
  state_.kithAccount = std::move(account);
  return {};
}

Answer HandsetActions::removeKithAccountWithUsername(RequestArguments& args, const std::string& /*sender*/) {
  const auto username = args.string(wire::key::kUsername);
  if (args.problem()) return refused(args);
  if (!username) return missing(wire::key::kUsername);
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
    answer.values.insert_or_assign(std::string(wire::key::kAccount), records::archiveRecord(*state_.kithAccount));
  }
  return answer;
}

// --- Vetting, topics, debug ------------------------------------------------

Answer HandsetActions::vetEmailAccount(RequestArguments& args, const std::string& sender) {
  const auto account = args.string(wire::key::kAccount);
  if (args.problem()) return refused(args);
  if (!account) return missing(wire::key::kAccount);
  vetting_.start(sender, *account);
  return {};
}

Answer HandsetActions::cancelEmailVet(RequestArguments& /*args*/, const std::string& sender) {
  vetting_.cancel(sender);
  return {};
}

Answer HandsetActions::startListeningOnTopic(RequestArguments& args, const std::string& /*sender*/) {
  const auto topic = args.string(wire::key::kTopic);
  if (args.problem()) return refused(args);
  if (!topic) return missing(wire::key::kTopic);
  state_.topics.insert(*topic);
  return {};
}

Answer HandsetActions::stopListeningOnTopic(RequestArguments& args, const std::string& /*sender*/) {
  const auto topic = args.string(wire::key::kTopic);
  if (args.problem()) return refused(args);
  if (!topic) return missing(wire::key::kTopic);
  state_.topics.erase(*topic);
  return {};
}

Answer HandsetActions::dumpDebugInfo(RequestArguments& args, const std::string& sender) {
  const auto argument = args.string(wire::key::kArgument);
  if (args.problem()) return refused(args);
  logLine("debug dump for " + sender + " (argument: " + argument.value_or("(nil)") + ")\n" +
          describeDaemonState(state_) + "vettings: " + std::to_string(vetting_.underWay()) + " under way");
  return {};
}

}  // namespace vela::daemon
