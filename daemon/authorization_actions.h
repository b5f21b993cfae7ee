// SPDX-License-Identifier: MIT
#pragma once

#include <string_view>

// Who may call what: each guarded member belongs to one polkit action, which
// the machine's polkit policy grants or refuses per user. The action ids are
// declared with their defaults in com.zentrex.VelaNotification.policy.
namespace vela::daemon {

enum class Action {
  kNone,  // everyone may call
  kWardenModify,
  kWardenRemove,
  kKithManage,
  // RetrieveKithAccount is everyone's; this decides whether its record keeps
  // the tokens.
  kKithReadSecrets,
  kReadIdentity,
  kReportRegion,
  kDebug,
};

// The polkit action id; empty for kNone.
std::string_view actionId(Action action);

// The action that guards `member`; kNone for the members everyone may call
// and for names that are no member.
Action actionFor(std::string_view member);

}  // namespace vela::daemon
