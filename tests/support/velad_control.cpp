// SPDX-License-Identifier: MIT
#include "velad_control.h"

#include <algorithm>

#include "protocol/daemon_error.h"
#include "protocol/names.h"

namespace vela::testing {

namespace {

// velad announces every call it logs on this center, as "CallLogged".
constexpr std::string_view kCallLoggedCenter = protocol::kTestingInterface;
constexpr std::string_view kCallLoggedNotification = "CallLogged";

}  // namespace

VeladControl::VeladControl(bus::BusKind kind) : client_(bus::TestBusClient::open(kind, &lastFailure_)) {
  if (client_ && client_->subscribeNotifications(kCallLoggedCenter) < 0) {
    lastFailure_ = "cannot listen for logged calls";
    client_.reset();
  }
}

std::optional<VelaDictionary> VeladControl::call(std::string_view member, const VelaDictionary& args) {
  if (!client_) return std::nullopt;
  const bus::MethodTarget target{std::string(protocol::kServiceName), std::string(protocol::kObjectPath),
                                 std::string(protocol::kTestingInterface)};
  bus::CallResult result = client_->call(target, member, args);
  if (result.failed()) {
    lastFailure_ = std::string(member) + ": " + result.errorName + ": " + result.errorMessage;
    return std::nullopt;
  }
  if (!result.reply) {
    lastFailure_ = std::string(member) + ": undecodable reply of signature " + result.signature;
    return std::nullopt;
  }
  return std::move(result.reply);
}

bool VeladControl::setBehavior(std::string_view member, const Behavior& behavior) {
  VelaDictionary args{{"member", member}, {"mode", behavior.mode}};
  if (behavior.delay) args.insert_or_assign("delayMs", static_cast<std::int64_t>(behavior.delay->count()));
  if (behavior.error) args.insert_or_assign("error", protocol::encodeDaemonError(*behavior.error));
  if (behavior.values) args.insert_or_assign("values", *behavior.values);
  if (behavior.times) args.insert_or_assign("times", *behavior.times);
  return call("SetBehavior", args).has_value();
}

bool VeladControl::setBehavior(std::string_view member, std::string_view mode) {
  return setBehavior(member, Behavior{std::string(mode), std::nullopt, std::nullopt, std::nullopt, std::nullopt});
}

bool VeladControl::resetBehaviors() { return call("ResetBehaviors", {}).has_value(); }

bool VeladControl::clearCallLog() {
  if (!call("ClearCallLog", {})) return false;
  // velad announced every call it had logged before it answered, so what has
  // arrived by now is about calls that are no longer in the log.
  client_->discardNotifications();
  return true;
}

bool VeladControl::waitForCall(std::string_view member, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  const auto log = callLog();
  if (!log) return false;
  if (std::any_of(log->begin(), log->end(), [&](const LoggedCall& logged) { return logged.member == member; })) {
    return true;
  }
  // Every announcement still queued is about a call made since the log was
  // last cleared (clearCallLog() drops the older ones), so any of them counts.
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    const auto announced = client_->waitNotification(std::max(left, std::chrono::milliseconds(0)));
    if (!announced) break;
    if (announced->name != kCallLoggedNotification || !announced->userInfo) continue;
    const auto logged = announced->userInfo->find("member");
    if (logged != announced->userInfo->end() && logged->second == VelaValue(member)) return true;
  }
  lastFailure_ = "no call to " + std::string(member) + " arrived";
  return false;
}

std::optional<std::vector<VeladControl::LoggedCall>> VeladControl::callLog() {
  std::optional<VelaDictionary> reply = call("CallLog", {});
  if (!reply) return std::nullopt;
  const auto calls = reply->find("calls");
  const VelaArray* entries = calls != reply->end() ? calls->second.asArray() : nullptr;
  if (entries == nullptr) {
    lastFailure_ = "CallLog: no \"calls\" array in the reply";
    return std::nullopt;
  }
  std::vector<LoggedCall> log;
  for (const VelaValue& entry : *entries) {
    const VelaDictionary* fields = entry.asDictionary();
    auto field = [fields](std::string_view key) -> const VelaValue* {
      const auto found = fields->find(key);
      return found != fields->end() ? &found->second : nullptr;
    };
    const VelaValue* member = fields != nullptr ? field("member") : nullptr;
    const VelaValue* args = fields != nullptr ? field("args") : nullptr;
    const VelaValue* sender = fields != nullptr ? field("sender") : nullptr;
    if (member == nullptr || member->asString() == nullptr || args == nullptr || args->asDictionary() == nullptr ||
        sender == nullptr || sender->asString() == nullptr) {
      lastFailure_ = "CallLog: malformed entry " + entry.description();
      return std::nullopt;
    }
    log.push_back(LoggedCall{*member->asString(), *args->asDictionary(), *sender->asString()});
  }
  return log;
}

bool VeladControl::postNotification(std::string_view center, std::string_view name,
                                    const std::optional<VelaDictionary>& userInfo,
                                    const std::optional<std::string>& destination) {
  VelaDictionary args{{"center", center}, {"name", name}};
  if (userInfo) args.insert_or_assign("userInfo", *userInfo);
  if (destination) args.insert_or_assign("destination", *destination);
  return call("PostNotification", args).has_value();
}

bool VeladControl::setVetScript(const std::optional<std::vector<VetNotification>>& notifications,
                                std::chrono::milliseconds delay) {
  VelaDictionary args{{"delayMs", static_cast<std::int64_t>(delay.count())}};
  if (notifications) {
    VelaArray described;
    for (const VetNotification& notification : *notifications) {
      VelaDictionary entry{{"name", notification.name}};
      if (notification.userInfo) entry.insert_or_assign("userInfo", *notification.userInfo);
      described.emplace_back(std::move(entry));
    }
    args.insert_or_assign("notifications", std::move(described));
  }
  return call("SetVetScript", args).has_value();
}

}  // namespace vela::testing
