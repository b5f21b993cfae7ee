// SPDX-License-Identifier: MIT
#include "authorizer.h"

#include <unistd.h>

#include <chrono>
#include <cstring>

#include <systemd/sd-bus.h>

#include "log.h"
#include "platform/bus/bus_names.h"

namespace vela::daemon {
namespace {

constexpr OutgoingCall kGetCredentials{bus::kBusDriverName, bus::kBusDriverPath, bus::kBusDriverName,
                                       "GetConnectionCredentials"};
constexpr OutgoingCall kCheckAuthorization{"org.freedesktop.PolicyKit1", "/org/freedesktop/PolicyKit1/Authority",
                                           "org.freedesktop.PolicyKit1.Authority", "CheckAuthorization"};

// polkit's CheckAuthorization flag that lets it wait for the user to
// authenticate through their agent.
constexpr std::uint32_t kAllowUserInteraction = 1;

// The bus answers at once. polkit does too unless it waits for a person, who
// gets the time it takes to type a password.
constexpr std::chrono::seconds kBusTimeout{5};
constexpr std::chrono::seconds kPolkitTimeout{5};
constexpr std::chrono::seconds kInteractiveTimeout{120};

// The uid and pid out of a GetConnectionCredentials reply, when both are there.
std::optional<Credentials> readCredentials(sd_bus_message* reply) {
  if (reply == nullptr || sd_bus_message_enter_container(reply, SD_BUS_TYPE_ARRAY, "{sv}") < 0) return std::nullopt;
  std::optional<std::uint32_t> uid;
  std::optional<std::uint32_t> pid;
  while (sd_bus_message_enter_container(reply, SD_BUS_TYPE_DICT_ENTRY, "sv") > 0) {
    const char* key = nullptr;
    if (sd_bus_message_read_basic(reply, SD_BUS_TYPE_STRING, &key) < 0) return std::nullopt;
    const std::string_view name(key);
    std::uint32_t value = 0;
    if ((name == "UnixUserID" || name == "ProcessID") && sd_bus_message_read(reply, "v", "u", &value) >= 0) {
      (name == "UnixUserID" ? uid : pid) = value;
    } else if (sd_bus_message_skip(reply, "v") < 0) {
      return std::nullopt;
    }
    if (sd_bus_message_exit_container(reply) < 0) return std::nullopt;
  }
  if (!uid) return std::nullopt;
  return Credentials{static_cast<uid_t>(*uid), static_cast<pid_t>(pid.value_or(0))};
}

// polkit's (bba{ss}) result: authorized, or a challenge, or neither.
Verdict readVerdict(sd_bus_message* reply) {
  int authorized = 0;
  int challenge = 0;
  if (reply == nullptr || sd_bus_message_enter_container(reply, SD_BUS_TYPE_STRUCT, "bba{ss}") < 0 ||
      sd_bus_message_read(reply, "bb", &authorized, &challenge) < 0) {
    return Verdict::kRefused;
  }
  if (authorized != 0) return Verdict::kAllowed;
  return challenge != 0 ? Verdict::kChallenge : Verdict::kRefused;
}

}  // namespace

void Authorizer::check(const std::string& sender, Action action, bool allowInteraction, Decided decided) {
  if (action == Action::kNone) {
    decided(Verdict::kAllowed, std::nullopt);
    return;
  }
  withCredentials(sender, [this, sender, action, allowInteraction,
                           decided = std::move(decided)](const std::optional<Credentials>& caller) mutable {
    if (!caller) {
      // The caller left before the bus could say who it was: nobody to answer.
      decided(Verdict::kRefused, std::nullopt);
      return;
    }
    // Root may do anything; velad's own user owns velad's files already.
    if (caller->uid == 0 || caller->uid == geteuid()) {
      decided(Verdict::kAllowed, caller);
      return;
    }
    askPolkit(sender, action, allowInteraction, *caller, std::move(decided));
  });
}

void Authorizer::forget(const std::string& sender) { known_.erase(sender); }

void Authorizer::withCredentials(const std::string& sender,
                                 std::function<void(const std::optional<Credentials>&)> then) {
  if (const auto found = known_.find(sender); found != known_.end()) {
    then(found->second);
    return;
  }
  // One question to the bus per caller, however many calls wait on it.
  auto [lookup, first] = lookups_.try_emplace(sender);
  lookup->second.waiting.push_back(std::move(then));
  if (!first) return;
  std::weak_ptr<Authorizer*> self = self_;
  const int r = host_.callMethod(
      kGetCredentials,
      [&sender](sd_bus_message* call) { return sd_bus_message_append_basic(call, SD_BUS_TYPE_STRING, sender.c_str()); },
      [self, sender](sd_bus_message* reply, const std::string& /*errorName*/) {
        if (const auto alive = self.lock()) (*alive)->credentialsArrived(sender, readCredentials(reply));
      },
      kBusTimeout);
  if (r < 0) {
    log(LogLevel::kWarning, std::string("cannot ask the bus who is calling: ") + std::strerror(-r));
    credentialsArrived(sender, std::nullopt);
  }
}

void Authorizer::credentialsArrived(const std::string& sender, const std::optional<Credentials>& credentials) {
  auto node = lookups_.extract(sender);
  if (node.empty()) return;
  if (credentials) known_.insert_or_assign(sender, *credentials);
  for (auto& then : node.mapped().waiting) then(credentials);
}

void Authorizer::askPolkit(const std::string& sender, Action action, bool allowInteraction, const Credentials& caller,
                           Decided decided) {
  const std::string id(actionId(action));
  std::weak_ptr<Authorizer*> self = self_;
  auto shared = std::make_shared<Decided>(std::move(decided));
  const int r = host_.callMethod(
      kCheckAuthorization,
      [&](sd_bus_message* call) {
        // The subject is the caller's connection: polkit asks the bus who it
        // is, as velad did.
        return sd_bus_message_append(call, "(sa{sv})sa{ss}us", "system-bus-name", 1, "name", "s", sender.c_str(),
                                     id.c_str(), 0, allowInteraction ? kAllowUserInteraction : 0U, "");
      },
      [self, shared, caller, id](sd_bus_message* reply, const std::string& errorName) {
        if (!self.lock()) return;
        if (reply == nullptr) {
          log(LogLevel::kWarning, "polkit could not decide " + id + " (" + printable(errorName) + "); refused");
        }
        (*shared)(readVerdict(reply), caller);
      },
      allowInteraction ? kInteractiveTimeout : kPolkitTimeout);
  if (r < 0) {
    log(LogLevel::kWarning, "cannot ask polkit about " + id + " (" + std::strerror(-r) + "); refused");
    (*shared)(Verdict::kRefused, caller);
  }
}

}  // namespace vela::daemon
