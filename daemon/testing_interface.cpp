// SPDX-License-Identifier: MIT
#include "testing_interface.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "log.h"
#include "platform/bus/bus_names.h"
#include "protocol/names.h"
#include "protocol/typed_reader.h"

namespace vela::daemon {
namespace {

constexpr std::string_view kSetBehavior = "SetBehavior";
constexpr std::string_view kResetBehaviors = "ResetBehaviors";
constexpr std::string_view kCallLog = "CallLog";
constexpr std::string_view kClearCallLog = "ClearCallLog";
constexpr std::string_view kPostNotification = "PostNotification";
constexpr std::string_view kSetVetScript = "SetVetScript";
constexpr std::string_view kCallLoggedNotification = "CallLogged";

constexpr std::array<std::pair<std::string_view, BehaviorMode>, 7> kModes = {{
    {"normal", BehaviorMode::kNormal},
    {"delay", BehaviorMode::kDelay},
    {"never", BehaviorMode::kNever},
    {"error", BehaviorMode::kError},
    {"values", BehaviorMode::kValues},
    {"malformed", BehaviorMode::kMalformed},
    {"exit", BehaviorMode::kExit},
}};

// Typed lookups in a Testing request. A wrong type is reported, never
// coerced: a test that sends the wrong thing should hear about it.
class Fields {
 public:
  explicit Fields(const VelaDictionary& args) : args_(args) {}

  template <typename T>
  const T* get(std::string_view key, const char* expected) {
    const auto found = args_.find(key);
    if (found == args_.end()) return nullptr;
    const T* value = found->second.getIf<T>();
    if (value == nullptr && !problem) problem = protocol::refusedKey(key, std::string("must be ") + expected);
    return value;
  }

  std::optional<std::string> problem;

 private:
  const VelaDictionary& args_;
};

std::optional<BehaviorMode> modeNamed(std::string_view name) {
  for (const auto& [modeName, mode] : kModes) {
    if (modeName == name) return mode;
  }
  return std::nullopt;
}

[[nodiscard]] std::optional<VelaError> errorFromDictionary(const VelaDictionary& dict, std::string& problem) {
  Fields fields(dict);
  const auto* domain = fields.get<std::string>("domain", "a string");
  const auto* code = fields.get<std::int64_t>("code", "an integer");
  const auto* userInfo = fields.get<VelaDictionary>("userInfo", "a dictionary");
  if (fields.problem) {
    problem = "error: " + *fields.problem;
    return std::nullopt;
  }
  if (domain == nullptr || code == nullptr) {
    problem = R"(error needs "domain" and "code")";
    return std::nullopt;
  }
  return VelaError(*domain, *code, userInfo != nullptr ? *userInfo : VelaDictionary{});
}

}  // namespace

TestingInterface::TestingInterface(ServiceHost& host, std::vector<std::string> handsetMembers, EmailVetting& vetting)
    : host_(host), vetting_(vetting), handsetMembers_(handsetMembers.begin(), handsetMembers.end()) {}

std::vector<std::string> TestingInterface::members() {
  return {std::string(kSetBehavior),  std::string(kResetBehaviors),   std::string(kCallLog),
          std::string(kClearCallLog), std::string(kPostNotification), std::string(kSetVetScript)};
}

namespace {

// A test waits for the answer; one that could not be sent is worth a line.
void answered(const std::string& member, int result) {
  if (result < 0) log(LogLevel::kWarning, "cannot answer " + printable(member) + ": " + std::strerror(-result));
}

}  // namespace

void TestingInterface::callArrived(IncomingCall call) {
  if (!call.args) {
    answered(call.member, call.reply.replyError(kInvalidArgsError, call.argsProblem));
    return;
  }
  std::optional<std::string> problem;
  VelaDictionary reply;
  if (call.member == kSetBehavior) {
    problem = setBehavior(*call.args);
  } else if (call.member == kResetBehaviors) {
    behaviors_.clear();
    vetting_.setScript(std::nullopt);
  } else if (call.member == kCallLog) {
    reply.insert_or_assign("calls", callLog_);
  } else if (call.member == kClearCallLog) {
    callLog_.clear();
  } else if (call.member == kPostNotification) {
    problem = postNotification(*call.args);
  } else if (call.member == kSetVetScript) {
    problem = setVetScript(*call.args);
  }
  answered(call.member, problem ? call.reply.replyError(kInvalidArgsError, *problem) : call.reply.reply(reply));
}

std::optional<std::string> TestingInterface::setBehavior(const VelaDictionary& args) {
  Fields fields(args);
  const auto* member = fields.get<std::string>("member", "a string");
  const auto* mode = fields.get<std::string>("mode", "a string");
  const auto* delayMs = fields.get<std::int64_t>("delayMs", "an integer");
  const auto* error = fields.get<VelaDictionary>("error", "a dictionary");
  const auto* values = fields.get<VelaDictionary>("values", "a dictionary");
  const auto* times = fields.get<std::int64_t>("times", "an integer");
  if (fields.problem) return fields.problem;
  if (member == nullptr || !handsetMembers_.contains(*member)) return R"("member" must name a HandsetActions member)";
  if (mode == nullptr) return R"("mode" is required)";
  const std::optional<BehaviorMode> known = modeNamed(*mode);
  if (!known) return R"(unknown mode ")" + *mode + R"(")";
  if (delayMs != nullptr && *delayMs < 0) return R"("delayMs" must not be negative)";
  if (times != nullptr && *times < 1) return R"("times" must be at least 1)";

  StoredBehavior stored;
  stored.behavior.mode = *known;
  if (delayMs != nullptr) stored.behavior.delay = std::chrono::milliseconds(*delayMs);
  if (error != nullptr) {
    std::string problem;
    stored.behavior.error = errorFromDictionary(*error, problem);
    if (!stored.behavior.error) return problem;
  }
  if (stored.behavior.mode == BehaviorMode::kError && !stored.behavior.error) return R"(mode "error" needs "error")";
  if (stored.behavior.mode == BehaviorMode::kDelay && delayMs == nullptr) return R"(mode "delay" needs "delayMs")";
  if (values != nullptr) stored.behavior.values = *values;
  if (times != nullptr) stored.timesLeft = *times;
  behaviors_.insert_or_assign(*member, std::move(stored));
  log(LogLevel::kInfo, "behaviour of " + printable(*member) + " set to " + printable(*mode));
  return std::nullopt;
}

std::optional<std::string> TestingInterface::postNotification(const VelaDictionary& args) {
  Fields fields(args);
  const auto* center = fields.get<std::string>("center", "a string");
  const auto* name = fields.get<std::string>("name", "a string");
  const auto* userInfo = fields.get<VelaDictionary>("userInfo", "a dictionary");
  const auto* destination = fields.get<std::string>("destination", "a string");
  if (fields.problem) return fields.problem;
  if (center == nullptr || name == nullptr) return R"("center" and "name" are required)";
  std::string_view to;  // broadcast
  if (destination != nullptr) to = *destination;
  const int r = host_.emitNotification(*center, *name, userInfo != nullptr ? *userInfo : VelaDictionary{}, to);
  if (r < 0) return std::string("cannot post the notification: ") + std::strerror(-r);
  return std::nullopt;
}

std::optional<std::string> TestingInterface::setVetScript(const VelaDictionary& args) {
  Fields fields(args);
  const auto* notifications = fields.get<VelaArray>("notifications", "an array");
  const auto* delayMs = fields.get<std::int64_t>("delayMs", "an integer");
  if (fields.problem) return fields.problem;
  if (delayMs != nullptr && *delayMs < 0) return R"("delayMs" must not be negative)";
  if (notifications == nullptr) {
    vetting_.setScript(std::nullopt);
    return std::nullopt;
  }
  VetScript script;
  if (delayMs != nullptr) script.delay = std::chrono::milliseconds(*delayMs);
  for (const VelaValue& element : *notifications) {
    const auto* described = element.asDictionary();
    if (described == nullptr) return R"("notifications" must hold dictionaries)";
    Fields notification(*described);
    const auto* name = notification.get<std::string>("name", "a string");
    const auto* userInfo = notification.get<VelaDictionary>("userInfo", "a dictionary");
    if (notification.problem) return notification.problem;
    if (name == nullptr) return R"(each notification needs a "name")";
    script.notifications.push_back({*name, userInfo != nullptr ? *userInfo : VelaDictionary{}});
  }
  vetting_.setScript(std::move(script));
  return std::nullopt;
}

void TestingInterface::logCall(const std::string& member, const VelaDictionary& args, const std::string& sender) {
  // The oldest calls go first: the log must not grow with a client's traffic.
  if (callLog_.size() >= kMaxLoggedCalls) callLog_.erase(callLog_.begin());
  callLog_.emplace_back(VelaDictionary{{"member", member}, {"args", args}, {"sender", sender}});
  const int r = host_.emitNotification(protocol::kTestingInterface, kCallLoggedNotification,
                                       {{"member", member}, {"sender", sender}});
  if (r < 0) log(LogLevel::kWarning, std::string("cannot announce a logged call: ") + std::strerror(-r));
}

Behavior TestingInterface::behaviorForCall(const std::string& member) {
  const auto found = behaviors_.find(member);
  if (found == behaviors_.end()) return {};
  Behavior behavior = found->second.behavior;
  if (found->second.timesLeft && --*found->second.timesLeft == 0) behaviors_.erase(found);
  return behavior;
}

}  // namespace vela::daemon
