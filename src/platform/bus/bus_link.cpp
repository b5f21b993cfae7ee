// SPDX-License-Identifier: MIT
#include "platform/bus/bus_link.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <utility>

#include "platform/bus/client_bus.h"
#include "platform/bus/variant_codec.h"
#include "protocol/daemon_error.h"
#include "protocol/names.h"

namespace vela::bus::detail {
namespace {

constexpr std::string_view kErrorInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr std::string_view kErrorInconsistentMessage = "org.freedesktop.DBus.Error.InconsistentMessage";

// Errors after which the service cannot be reached through this connection.
bool meansUnreachable(const char* name) {
  return name != nullptr && (std::strcmp(name, "org.freedesktop.DBus.Error.ServiceUnknown") == 0 ||
                             std::strcmp(name, "org.freedesktop.DBus.Error.NameHasNoOwner") == 0 ||
                             std::strcmp(name, "org.freedesktop.DBus.Error.AccessDenied") == 0);
}

bool repliesUnreachable(sd_bus_message* reply) {
  return sd_bus_message_is_method_error(reply, nullptr) != 0 && meansUnreachable(sd_bus_message_get_error(reply)->name);
}

bool meansDisconnected(int r) { return r == -ENOTCONN || r == -ECONNRESET || r == -EPIPE || r == -ESHUTDOWN; }

// At least 1: sd-bus reads 0 as its own default time-out.
std::uint64_t microsecondsUntil(std::chrono::steady_clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now()).count();
  return static_cast<std::uint64_t>(std::max<std::int64_t>(left, 1));
}

// The failure an error reply stands for.
VelaError errorReplyFailure(sd_bus_message* reply) {
  const sd_bus_error* error = sd_bus_message_get_error(reply);
  const int errnoCode = sd_bus_message_get_errno(reply);
  return transportError(error->name != nullptr ? error->name : "", errnoCode > 0 ? errnoCode : EIO,
                        error->message != nullptr ? error->message : "");
}

VelaError undecodableReplyFailure(const std::string& whyNot) {
  return transportError(kErrorInconsistentMessage, EBADMSG, whyNot);
}

// The keys a reply of `member` is read for. Only these are decoded: a
// daemon that adds keys, whatever their type, still answers older clients.
std::array<protocol::Fields, 2> replyKeys(const protocol::Member& member) {
  return {member.reply, protocol::Fields(&protocol::kDaemonErrorField, 1)};
}

// Why a reply is a failure before any of its keys is read: an error reply,
// or one that is not a dictionary.
[[gnu::hot]] std::optional<VelaError> refusedReply(sd_bus_message* reply) {
  if (sd_bus_message_is_method_error(reply, nullptr) != 0) return errorReplyFailure(reply);
  if (sd_bus_message_has_signature(reply, "a{sv}") <= 0) return undecodableReplyFailure("reply is not a{sv}");
  return std::nullopt;
}

// A synchronous caller's reply, read where it arrived into `sink`.
[[gnu::hot]] NamedConnection::CallOutcome readReply(sd_bus_message* reply, const protocol::Member& member,
                                                    DescribedKeySink& sink) {
  if (std::optional<VelaError> refused = refusedReply(reply)) return {false, std::move(refused)};
  std::string whyNot;
  if (!readDescribedKeys(reply, replyKeys(member), sink, &whyNot)) return {false, undecodableReplyFailure(whyNot)};
  return {true, std::nullopt};
}

// The same for a request with handlers, which take the reply whole.
struct Answer {
  std::optional<VelaDictionary> reply;
  std::optional<VelaError> failure;
};

Answer readAnswer(sd_bus_message* reply, const protocol::Member& member) {
  if (std::optional<VelaError> refused = refusedReply(reply)) return {std::nullopt, std::move(refused)};
  std::string whyNot;
  std::optional<VelaDictionary> keys = readDescribedKeys(reply, replyKeys(member), &whyNot);
  if (!keys) return {std::nullopt, undecodableReplyFailure(whyNot)};
  return {std::move(keys), std::nullopt};
}

}  // namespace

VelaError connectionError(int errnoCode, std::string_view why) {
  return transportError(kErrorDisconnected, errnoCode, why);
}

Link::~Link() { close("connection closed"); }

void Link::open() {
  core_.busMutex.assertHeld();
  // The first opening sets up state libsystemd keeps for the whole process
  // (its random seed among it) without a lock of its own: connections of
  // one process open one at a time.
  static std::mutex opening;
  std::unique_lock openingLock(opening);
  const int r = openClientBus(core_.bus, &bus_, helloCookie_);
  openingLock.unlock();
  if (r < 0) {
    unreachable(Trouble::kBusUnavailable);
    return;
  }
  // A dropped bus is an interruption to report, never a reason to exit.
  sd_bus_set_exit_on_disconnect(bus_, 0);
  if (owners_.attach(bus_, core_.service) < 0) {
    owners_.detach();
    bus_ = sd_bus_close_unref(bus_);
    unreachable(Trouble::kBusUnavailable);
  }
}

[[gnu::hot]] Link::Started Link::start(Request& request) {
  core_.busMutex.assertHeld();
  if (invalidated_) {
    fail(request, connectionError(ENOTCONN, "connection invalidated"));
    return Started::kFailed;
  }
  if (!usable()) return Started::kBusGone;
  sd_bus_message* message = nullptr;
  // The names are the protocol's literals, NUL-terminated.
  int r = sd_bus_message_new_method_call(bus_, &message, core_.service.c_str(), protocol::kObjectPath.data(),
                                         protocol::kHandsetActionsInterface.data(), request.member->name.data());
  const std::array<protocol::Fields, 1> described{request.member->request};
  if (r >= 0) r = appendDictionary(message, request.args, described);
  if (r < 0) {
    sd_bus_message_unref(message);
    if (meansDisconnected(r)) return Started::kBusGone;
    fail(request, r == -EINVAL ? transportError(kErrorInvalidArgs, EINVAL, "arguments cannot be sent")
                               : connectionError(-r, std::strerror(-r)));
    return Started::kFailed;
  }
  const bool expectsReply = request.expectsReply();
  if (!expectsReply) sd_bus_message_set_expect_reply(message, 0);
  std::uint64_t cookie = 0;
  if (expectsReply && !request.waiter && request.deadline) {
    // sd-bus keeps the time: whoever reads the bus wakes for it, and its
    // NoReply error comes back through the same matching as a reply.
    r = sd_bus_call_async(bus_, nullptr, message, &Link::onTimedReply, this, microsecondsUntil(*request.deadline));
    if (r >= 0) r = sd_bus_message_get_cookie(message, &cookie);
  } else {
    r = sd_bus_send(bus_, message, &cookie);
  }
  sd_bus_message_unref(message);
  if (r < 0) {
    // A request that expects nothing is not sent again elsewhere.
    if (expectsReply && meansDisconnected(r)) return Started::kBusGone;
    fail(request, connectionError(-r, std::strerror(-r)));
    return Started::kFailed;
  }
  if (!expectsReply) return Started::kSent;
  if (!request.waiter) ++pendingInBackground_;
  pending_.push_back(PendingCall{cookie, request.member, std::move(request.waiter), std::move(request.onReply),
                                 std::move(request.onFailure)});
  return Started::kSent;
}

void Link::fail(Request& request, const VelaError& error) {
  if (request.waiter) {
    (void)request.waiter->answer(NamedConnection::CallOutcome{false, error});
  } else if (request.onFailure) {
    defer([onFailure = std::move(request.onFailure), error] { invokeGuarded(onFailure, error); });
  }
}

[[gnu::hot]] bool Link::readable() {
  core_.busMutex.assertHeld();
  if (usable()) return true;
  // sd-bus gives up by itself on a connection whose peer went away during
  // the handshake, leaving nothing to dispatch that would tell: a bus
  // restarting just as the connection was made. Reported here, or the
  // connection would sleep on a dead bus for good.
  if (bus_ != nullptr) (void)lost();
  return false;
}

[[gnu::hot]] int Link::dispatchNext() {
  sd_bus_message* unclaimed = nullptr;
  const int r = sd_bus_process(bus_, &unclaimed);
  // 0: sd-bus had nothing left to do, so nothing read waits in it.
  mayHoldUndispatched_ = r != 0;
  if (unclaimed != nullptr) {
    takeUnclaimed(unclaimed);
    sd_bus_message_unref(unclaimed);
  }
  return helloRefused_ ? -ECONNREFUSED : r;
}

bool Link::lost() {
  close("bus connection lost");
  interrupt(Trouble::kBusLost);
  return false;
}

[[gnu::hot]] bool Link::pollSpec(int& fd, int& events, std::uint64_t& timeoutUsec) const {
  if (bus_ == nullptr) return false;
  fd = sd_bus_get_fd(bus_);
  events = sd_bus_get_events(bus_);
  // sd-bus asks for events only while the bus is open; a closing bus asks
  // for none, as does an open one with messages waiting, and only whether
  // it is open tells the two apart.
  return fd >= 0 && events >= 0 && (events != 0 || usable()) && sd_bus_get_timeout(bus_, &timeoutUsec) >= 0;
}

[[gnu::hot]] bool Link::awaitsBackground() const {
  return (pendingInBackground_ > 0 || owners_.listening() || owners_.awaitingBus()) && usable();
}

[[gnu::hot]] bool Link::hasUndispatched() {
  if (!mayHoldUndispatched_) return false;
  // A time-out of zero means that messages wait, or that the bus is
  // closing; only whether it is open tells the two apart, so that is asked
  // last, when it matters.
  std::uint64_t timeout = UINT64_MAX;
  mayHoldUndispatched_ = bus_ != nullptr && sd_bus_get_timeout(bus_, &timeout) >= 0 && timeout == 0 && usable();
  return mayHoldUndispatched_;
}

int Link::onTimedReply(sd_bus_message* reply, void* userdata, sd_bus_error* /*error*/) {
  std::uint64_t cookie = 0;
  if (sd_bus_message_get_reply_cookie(reply, &cookie) >= 0) static_cast<Link*>(userdata)->takeReply(reply, cookie);
  return 1;
}

[[gnu::hot]] void Link::takeUnclaimed(sd_bus_message* message) {
  std::uint64_t cookie = 0;
  if (sd_bus_message_get_reply_cookie(message, &cookie) >= 0) {
    takeReply(message, cookie);
  } else if (sd_bus_message_is_method_call(message, nullptr, nullptr) > 0) {
    // What sd-bus answers by itself when nobody takes the message.
    (void)sd_bus_reply_method_errorf(message, SD_BUS_ERROR_UNKNOWN_OBJECT, "Unknown object '%s'.",
                                     sd_bus_message_get_path(message));
  } else if (sd_bus_message_is_signal(message, nullptr, nullptr) > 0 && !owners_.route(message)) {
    // A signal nobody asked for, or the one sd-bus makes up once it has lost
    // the bus: caught here rather than by a filter, which every message
    // would go through.
    if (sd_bus_message_is_signal(message, "org.freedesktop.DBus.Local", "Disconnected") > 0) {
      interrupt(Trouble::kBusLost);
    }
  }
}

[[gnu::hot]] void Link::takeReply(sd_bus_message* message, std::uint64_t cookie) {
  const auto found = std::find_if(pending_.begin(), pending_.end(),
                                  [cookie](const PendingCall& call) { return call.cookie == cookie; });
  if (found == pending_.end()) {
    if (cookie == helloCookie_) {
      helloCookie_ = 0;
      // The bus will not have this connection: as lost as one that broke.
      helloRefused_ = sd_bus_message_is_method_error(message, nullptr) != 0;
      return;
    }
    // The bus answering the owner watch, or a reply to a call whose caller
    // gave up and was forgotten.
    (void)owners_.takeReply(message, cookie);
    return;
  }
  PendingCall& call = *found;
  const bool unreachable = repliesUnreachable(message);
  if (call.waiter) {
    // A caller that gave up drops the answer here, unread.
    wakeIfSettled(
        call, call.waiter->settleBy([&](DescribedKeySink& sink) { return readReply(message, *call.member, sink); }));
  } else {
    Answer answer = readAnswer(message, *call.member);
    runHandlers(call, std::move(answer.reply), std::move(answer.failure));
  }
  // Nearly always the oldest, which leaves the quickest.
  if (found == pending_.begin()) {
    pending_.pop_front();
  } else {
    pending_.erase(found);
  }
  if (unreachable) this->unreachable(Trouble::kUnreachable);
}

void Link::conclude(PendingCall& call, const VelaError& failure) {
  if (call.waiter) {
    wakeIfSettled(call, call.waiter->settle(NamedConnection::CallOutcome{false, failure}));
  } else {
    runHandlers(call, std::nullopt, failure);
  }
}

[[gnu::hot]] void Link::wakeIfSettled(PendingCall& call, bool settled) {
  if (settled) answered_.push_back(std::move(call.waiter));
}

void Link::runHandlers(PendingCall& call, std::optional<VelaDictionary> reply, std::optional<VelaError> failure) {
  --pendingInBackground_;
  defer([onReply = std::move(call.onReply), onFailure = std::move(call.onFailure), reply = std::move(reply),
         failure = std::move(failure)]() mutable {
    if (failure) {
      invokeGuarded(onFailure, *failure);
    } else {
      invokeGuarded(onReply, std::move(*reply));
    }
  });
}

void Link::dropAbandoned() {
  std::erase_if(pending_, [](const PendingCall& call) { return call.waiter && call.waiter->abandoned(); });
}

void Link::interrupt(Trouble why) {
  if (interrupted_ || reportedInvalid_) return;
  interrupted_ = true;
  core_.defunct = true;
  defer([&core = core_, why] { invokeGuarded(core.interruptionHandler, why); });
}

void Link::unreachable(Trouble why) {
  if (reportedInvalid_) return;
  reportedInvalid_ = true;
  core_.defunct = true;
  defer([&core = core_, why] { invokeGuarded(core.invalidationHandler, why); });
}

void Link::invalidate() {
  if (invalidated_) return;
  invalidated_ = true;
  close("connection invalidated");
  unreachable(Trouble::kInvalidated);
}

// Fails what is in flight and lets go of the bus. Answers already read stay
// queued ahead of the failures: they are real.
void Link::close(const char* why) {
  std::deque<PendingCall> failed = std::exchange(pending_, {});
  owners_.detach();
  bus_ = sd_bus_close_unref(bus_);
  const VelaError error = connectionError(ENOTCONN, why);
  for (auto& call : failed) conclude(call, error);
  // Closing is rare and may happen with nobody left to let go of the bus
  // (the connection's thread ending): its callers are woken now.
  for (const auto& waiter : std::exchange(answered_, {})) waiter->wake();
  // A caller reading the bus learns that its call has just failed.
  NamedConnection::Core::signalFd(core_.readerWakeFd);
}

}  // namespace vela::bus::detail
