// SPDX-License-Identifier: MIT
#include "authorization_actions.h"

#include <algorithm>
#include <array>
#include <utility>

#include "protocol/members.h"

namespace vela::daemon {
namespace {

namespace member = protocol::member;

constexpr auto kGuarded = std::to_array<std::pair<const protocol::Member*, Action>>({
    {&member::kEnableLocusInContext, Action::kWardenModify},
    {&member::kEnableLostModeWithInfo, Action::kWardenModify},
    {&member::kDisableLocusUsingToken, Action::kWardenRemove},
    {&member::kDisableLostMode, Action::kWardenRemove},
    {&member::kAddKithAccount, Action::kKithManage},
    {&member::kRemoveKithAccountWithUsername, Action::kKithManage},
    {&member::kRetrieveKithAccount, Action::kKithReadSecrets},
    {&member::kGetKithDeviceId, Action::kReadIdentity},
    {&member::kGetLocusDeviceId, Action::kReadIdentity},
    {&member::kGetStoreAccount, Action::kReadIdentity},
    {&member::kGetLocusAccount, Action::kReadIdentity},
    {&member::kGetNimbusAccount, Action::kReadIdentity},
    {&member::kDidEnterKithRegion, Action::kReportRegion},
    {&member::kDidExitKithRegion, Action::kReportRegion},
    {&member::kDumpDebugInfo, Action::kDebug},
});

}  // namespace

std::string_view actionId(Action action) {
  switch (action) {
    case Action::kNone:
      return {};
    // The two rights the library publishes (kWardenAuthRight and
    // kWardenRemoveAuthRight) are these action ids, verbatim.
    case Action::kWardenModify:
      return "com.zentrex.VelaNotification.Warden.modify";
    case Action::kWardenRemove:
      return "com.zentrex.VelaNotification.Warden.remove";
    case Action::kKithManage:
      return "com.zentrex.VelaNotification.kith-manage";
    case Action::kKithReadSecrets:
      return "com.zentrex.VelaNotification.kith-read-secrets";
    case Action::kReadIdentity:
      return "com.zentrex.VelaNotification.read-identity";
    case Action::kReportRegion:
      return "com.zentrex.VelaNotification.report-region";
    case Action::kDebug:
      return "com.zentrex.VelaNotification.debug";
  }
  return {};
}

Action actionFor(std::string_view name) {
  const auto* found =
      std::find_if(kGuarded.begin(), kGuarded.end(), [&](const auto& entry) { return entry.first->name == name; });
  return found != kGuarded.end() ? found->second : Action::kNone;
}

}  // namespace vela::daemon
