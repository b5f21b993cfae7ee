// SPDX-License-Identifier: MIT
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "authorization_actions.h"
#include "service_host.h"

// Decides whether a caller may take an action, without ever blocking the
// loop: the caller's user comes from the bus's own record of the connection,
// never from anything the caller says; root and velad's own user are
// trusted; everyone else is put to polkit. When polkit is absent or fails,
// the answer is no.
//
// THREADING: the loop thread of the host, like the host itself.
namespace vela::daemon {

enum class Verdict {
  kAllowed,
  kRefused,
  // polkit would allow it once the user authenticates, which the caller did
  // not offer to wait for.
  kChallenge,
};

// What the bus knows of a caller's process.
struct Credentials {
  uid_t uid = 0;
  pid_t pid = 0;
};

class Authorizer {
 public:
  using Decided = std::function<void(Verdict verdict, const std::optional<Credentials>& caller)>;

  // The host must outlive this.
  explicit Authorizer(ServiceHost& host) : host_(host), self_(std::make_shared<Authorizer*>(this)) {}
  ~Authorizer() = default;
  Authorizer(const Authorizer&) = delete;
  Authorizer& operator=(const Authorizer&) = delete;
  Authorizer(Authorizer&&) = delete;
  Authorizer& operator=(Authorizer&&) = delete;

  // Decides whether `sender` (a unique bus name) may take `action`, and runs
  // `decided` on the loop with the verdict and, when the bus told them, the
  // caller's credentials: once, now or later; never after this object is
  // gone. `allowInteraction`: the caller offered to wait while its user
  // authenticates.
  void check(const std::string& sender, Action action, bool allowInteraction, Decided decided);

  // The caller has left the bus: what is known of it goes.
  void forget(const std::string& sender);

 private:
  struct Lookup {
    std::vector<std::function<void(const std::optional<Credentials>&)>> waiting;
  };

  void withCredentials(const std::string& sender, std::function<void(const std::optional<Credentials>&)> then);
  void credentialsArrived(const std::string& sender, const std::optional<Credentials>& credentials);
  void askPolkit(const std::string& sender, Action action, bool allowInteraction, const Credentials& caller,
                 Decided decided);

  ServiceHost& host_;
  // Replies that arrive after this object is gone find it reset.
  std::shared_ptr<Authorizer*> self_;
  // Unique names are never reused, so what the bus said of one holds until
  // the connection leaves.
  std::map<std::string, Credentials, std::less<>> known_;
  std::map<std::string, Lookup, std::less<>> lookups_;
};

}  // namespace vela::daemon
