// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <vela/VelaValue.h>

#include "service_host.h"

namespace vela::daemon {

// One notification a vetting posts.
struct VetNotification {
  std::string name;
  VelaDictionary userInfo;
};

// What every later vetting posts instead of velad's own verdict, and how
// long after the request it starts.
struct VetScript {
  std::vector<VetNotification> notifications;
  std::chrono::milliseconds delay{0};
};

// E-mail vettings under way. A vetting answers its request at once and then,
// from the loop, posts its results and its finish on the vetting center to
// the requesting connection alone. A new request from the same connection
// replaces the earlier one; a cancel silences whatever it had left to post.
class EmailVetting {
 public:
  // `host` posts the notifications and runs the timers; it must outlive this.
  explicit EmailVetting(ServiceHost& host) : host_(host) {}

  // Starts vetting `account` for `requester` (a unique bus name).
  void start(const std::string& requester, const std::string& account);
  void cancel(const std::string& requester);

  // nullopt: velad's own verdict again.
  void setScript(std::optional<VetScript> script) { script_ = std::move(script); }

  std::size_t underWay() const noexcept { return generations_.size(); }

  // velad's own verdict: a result naming the address and whether it could
  // receive mail, then a finish, with an error when it could not.
  static std::vector<VetNotification> verdictFor(const std::string& account);

 private:
  void post(const std::string& requester, std::uint64_t generation, const std::vector<VetNotification>& notifications);

  ServiceHost& host_;
  std::optional<VetScript> script_;
  // Requester to the generation of its current vetting: a timer of a
  // replaced or cancelled vetting finds another generation and posts nothing.
  std::map<std::string, std::uint64_t, std::less<>> generations_;
  std::uint64_t nextGeneration_ = 1;
};

}  // namespace vela::daemon
