// SPDX-License-Identifier: MIT
#pragma once

#include <optional>
#include <string>

#include "other_users.h"
#include "private_bus.h"

namespace vela::testing {

// The machine's real polkitd, answering on a private bus: velad's actions
// and the given rules only, each visible to it alone through a mount
// namespace of its own, so nothing of the machine's polkit setup is read or
// touched. Decisions come without a person: for a user outside any login
// session, `auth_admin*` defaults are challenges and `no` is a refusal;
// root is allowed everything.
class PolkitDaemon {
 public:
  // Why polkitd cannot run here (not root, no polkitd, no unshare or setpriv),
  // or nullopt when it can. Tests skip with the reason.
  static std::optional<std::string> unavailable();

  // Starts polkitd with `rules` (JavaScript, as in /etc/polkit-1/rules.d)
  // and returns once it owns its name on `bus`. velad's actions name
  // `serviceUser` as their owner, in place of vela: the user velad runs as may
  // ask about other users' processes. Opens the bus to every user first (see
  // openToEveryUser). Throws std::runtime_error when it does not come up.
  PolkitDaemon(const PrivateBus& bus, const std::string& rules, const std::string& serviceUser = "vela");

  // Lets processes of other users (polkitd drops to its own) reach the
  // bus's socket.
  static void openToEveryUser(const PrivateBus& bus);

 private:
  std::optional<Subprocess> process_;
};

}  // namespace vela::testing
