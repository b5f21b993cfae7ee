// SPDX-License-Identifier: MIT
#pragma once

#include <array>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

#include <vela/VelaError.h>
#include <vela/VelaGeoLocation.h>
#include <vela/VelaKithAccountInfo.h>
#include <vela/VelaLostModeInfo.h>
#include <vela/VelaValue.h>

#include "platform/bus/named_connection.h"
#include "platform/bus/variant_codec.h"
#include "protocol/daemon_error.h"
#include "protocol/int32.h"
#include "protocol/members.h"
#include "records/archive_io.h"

// Each member as the client calls it, described once: its entry in the
// protocol, the C++ types of its arguments (in the order of its request
// keys) and of its reply values (in the order of its reply keys). The
// published asynchronous interface and the synchronous operations both send
// and decode through these descriptions.
namespace vela::session {

// A decoded reply: the daemon's error (nullopt on success) and the values.
template <typename... Values>
struct Decoded {
  std::optional<VelaError> error;
  std::tuple<Values...> values;
};

// What a caller sees when a reply does not decode: a transport failure, like
// a vanished service, never a daemon answer.
inline VelaError undecodableReplyError() {
  return bus::transportError("org.freedesktop.DBus.Error.InconsistentMessage", EBADMSG,
                             "reply does not match its member's shape");
}

namespace detail {

template <typename T>
struct IsSharedPtr : std::false_type {};
template <typename T>
struct IsSharedPtr<std::shared_ptr<T>> : std::true_type {};

// Whether a C++ type is what a field of the member is carried as.
template <typename T>
constexpr bool carries(const protocol::Field& field) {
  if constexpr (std::is_same_v<T, std::optional<std::string>>) {
    return field.type == protocol::WireType::kString;
  } else if constexpr (std::is_same_v<T, std::int32_t>) {
    return field.type == protocol::WireType::kInt32;
  } else if constexpr (IsSharedPtr<T>::value) {
    // Every dictionary field of the protocol has a shape. (No null test:
    // under AddressSanitizer g++ cannot fold one into a constant.)
    return field.type == protocol::WireType::kDictionary && field.shape->className == T::element_type::kClassName;
  } else {
    return false;
  }
}

inline void put(VelaDictionary& args, std::string_view key, std::optional<std::string> value) {
  if (value) args.insert_or_assign(std::string(key), std::move(*value));
}
inline void put(VelaDictionary& args, std::string_view key, std::int32_t value) {
  args.insert_or_assign(std::string(key), value);
}
template <typename Record>
void put(VelaDictionary& args, std::string_view key, const std::shared_ptr<Record>& record) {
  if (record) args.insert_or_assign(std::string(key), records::archiveRecord(*record));
}

// A value of the reply as the C++ type of its key; false refuses it, as
// the wrong type for the key.
inline bool convert(const VelaValue& value, std::optional<std::string>& out) {
  const std::string* text = value.asString();
  if (text == nullptr) return false;
  out = *text;
  return true;
}
inline bool convert(const VelaValue& value, std::int32_t& out) {
  const auto* number = value.getIf<std::int64_t>();
  const std::optional<std::int32_t> narrow = number != nullptr ? protocol::narrowToInt32(*number) : std::nullopt;
  if (!narrow) return false;
  out = *narrow;
  return true;
}
template <typename Record>
bool convert(const VelaValue& value, std::shared_ptr<Record>& out) {
  out = records::unarchiveRecord<Record>(value);
  return out != nullptr;
}

// Decodes one reply of a member into its C++ types, key by key: as the bus
// reads them (a synchronous call's reply, where it arrives), or from a
// whole reply. An absent key is nil, an absent number 0; a key of the wrong
// type (a record of the wrong class among them) or a daemon error that
// does not decode spoils the whole reply. A key given twice counts once,
// as it last came.
template <typename... Values>
class ReplyDecoder final : public bus::DescribedKeySink {
 public:
  using Reply = Decoded<Values...>;

  explicit ReplyDecoder(const protocol::Member& member) : member_(&member) {}

  [[gnu::hot]] void take(const protocol::Field& field, const char* text) override {
    at(field, [text](auto& out) {
      if constexpr (std::is_same_v<std::decay_t<decltype(out)>, std::optional<std::string>>) {
        out.emplace(text);
        return true;
      } else {
        return false;  // never given: only a string key comes as text
      }
    });
  }

  [[gnu::hot]] void take(const protocol::Field& field, const VelaValue& value) override {
    if (&field == &protocol::kDaemonErrorField) {
      decoded_.error = protocol::decodeDaemonError(value);
      refused_.back() = !decoded_.error;
      return;
    }
    at(field, [&value](auto& out) { return convert(value, out); });
  }

  // Every key the member reads, from a reply already read whole.
  void takeAll(const VelaDictionary& reply) {
    for (const protocol::Field& field : member_->reply) {
      if (const auto found = reply.find(field.key); found != reply.end()) take(field, found->second);
    }
    if (const auto found = reply.find(protocol::kErrorKey); found != reply.end()) {
      take(protocol::kDaemonErrorField, found->second);
    }
  }

  // The reply's error and values, or nullopt when a key refused: never half
  // a reply.
  [[gnu::hot]] std::optional<Reply> result() && {
    for (const bool refused : refused_) {
      if (refused) return std::nullopt;
    }
    return std::move(decoded_);
  }

 private:
  // Converts into the value of the member's reply key `field` names, the
  // bus having found it among them.
  template <typename Convert>
  void at(const protocol::Field& field, const Convert& convert) {
    at(field, convert, std::index_sequence_for<Values...>{});
  }

  template <typename Convert, std::size_t... kIndex>
  void at(const protocol::Field& field, const Convert& convert, std::index_sequence<kIndex...> /*keys*/) {
    ((&field == &member_->reply[kIndex] ? void(std::get<kIndex>(refused_) = !convert(std::get<kIndex>(decoded_.values)))
                                        : void()),
     ...);
  }

  const protocol::Member* member_;
  Reply decoded_{};
  // One per reply key, then the error's.
  std::array<bool, sizeof...(Values) + 1> refused_{};
};

}  // namespace detail

template <typename Arguments, typename Values>
struct MemberCall;

template <typename... Args, typename... Values>
struct MemberCall<std::tuple<Args...>, std::tuple<Values...>> {
  using Reply = Decoded<Values...>;

  const protocol::Member* member;

  // The request: each argument under its key, nil ones left out. Arguments
  // given as rvalues are moved in.
  template <typename... Given>
  VelaDictionary encode(Given&&... args) const {
    static_assert(sizeof...(Given) == sizeof...(Args), "one value per request key");
    VelaDictionary request;
    [[maybe_unused]] std::size_t index = 0;
    (detail::put(request, member->request[index++].key, static_cast<Args>(std::forward<Given>(args))), ...);
    return request;
  }

  // Where a synchronous call's reply is read, as it arrives.
  detail::ReplyDecoder<Values...> decoder() const { return detail::ReplyDecoder<Values...>(*member); }

  // The reply's error and values, or nullopt when the reply does not decode
  // (a key the member reads has the wrong type): never half a reply.
  std::optional<Reply> decode(const VelaDictionary& reply) const {
    auto reading = decoder();
    reading.takeAll(reply);
    return std::move(reading).result();
  }

  // Whether the C++ types agree with the member's keys; checked at compile
  // time for every call below.
  constexpr bool matchesMember() const {
    if (member->request.size() != sizeof...(Args) || member->reply.size() != sizeof...(Values)) return false;
    [[maybe_unused]] std::size_t arg = 0;
    [[maybe_unused]] std::size_t value = 0;
    return (detail::carries<Args>(member->request[arg++]) && ...) &&
           (detail::carries<Values>(member->reply[value++]) && ...);
  }
};

namespace calls {

using Text = std::optional<std::string>;
template <typename... Args>
using Takes = std::tuple<Args...>;
template <typename... Values>
using Gives = std::tuple<Values...>;

namespace m = protocol::member;

inline constexpr MemberCall<Takes<std::shared_ptr<VelaLostModeInfo>>, Gives<>> kEnableLostModeWithInfo{
    &m::kEnableLostModeWithInfo};
inline constexpr MemberCall<Takes<>, Gives<>> kDisableLostMode{&m::kDisableLostMode};
inline constexpr MemberCall<Takes<>, Gives<std::int32_t>> kGetLocusState{&m::kGetLocusState};
inline constexpr MemberCall<Takes<>, Gives<Text>> kGetKithDeviceId{&m::kGetKithDeviceId};
inline constexpr MemberCall<Takes<>, Gives<Text>> kGetLocusDeviceId{&m::kGetLocusDeviceId};
inline constexpr MemberCall<Takes<>, Gives<Text>> kGetStoreAccount{&m::kGetStoreAccount};
inline constexpr MemberCall<Takes<>, Gives<Text, Text>> kGetLocusAccount{&m::kGetLocusAccount};
inline constexpr MemberCall<Takes<>, Gives<Text, Text>> kGetNimbusAccount{&m::kGetNimbusAccount};
inline constexpr MemberCall<Takes<std::int32_t>, Gives<>> kEnableLocusInContext{&m::kEnableLocusInContext};
inline constexpr MemberCall<Takes<Text, std::int32_t>, Gives<>> kDisableLocusUsingToken{&m::kDisableLocusUsingToken};
inline constexpr MemberCall<Takes<Text, std::shared_ptr<VelaGeoLocation>>, Gives<>> kDidEnterKithRegion{
    &m::kDidEnterKithRegion};
inline constexpr MemberCall<Takes<Text, std::shared_ptr<VelaGeoLocation>>, Gives<>> kDidExitKithRegion{
    &m::kDidExitKithRegion};
inline constexpr MemberCall<Takes<std::shared_ptr<VelaKithAccountInfo>>, Gives<>> kAddKithAccount{&m::kAddKithAccount};
inline constexpr MemberCall<Takes<Text>, Gives<>> kRemoveKithAccountWithUsername{&m::kRemoveKithAccountWithUsername};
inline constexpr MemberCall<Takes<>, Gives<std::shared_ptr<VelaKithAccountInfo>>> kRetrieveKithAccount{
    &m::kRetrieveKithAccount};
inline constexpr MemberCall<Takes<Text>, Gives<>> kVetEmailAccount{&m::kVetEmailAccount};
inline constexpr MemberCall<Takes<>, Gives<>> kCancelEmailVet{&m::kCancelEmailVet};
inline constexpr MemberCall<Takes<Text>, Gives<>> kStartListeningOnTopic{&m::kStartListeningOnTopic};
inline constexpr MemberCall<Takes<Text>, Gives<>> kStopListeningOnTopic{&m::kStopListeningOnTopic};
inline constexpr MemberCall<Takes<Text>, Gives<>> kDumpDebugInfo{&m::kDumpDebugInfo};

static_assert(kEnableLostModeWithInfo.matchesMember() && kDisableLostMode.matchesMember() &&
                  kGetLocusState.matchesMember() && kGetKithDeviceId.matchesMember() &&
                  kGetLocusDeviceId.matchesMember() && kGetStoreAccount.matchesMember() &&
                  kGetLocusAccount.matchesMember() && kGetNimbusAccount.matchesMember() &&
                  kEnableLocusInContext.matchesMember() && kDisableLocusUsingToken.matchesMember() &&
                  kDidEnterKithRegion.matchesMember() && kDidExitKithRegion.matchesMember() &&
                  kAddKithAccount.matchesMember() && kRemoveKithAccountWithUsername.matchesMember() &&
                  kRetrieveKithAccount.matchesMember() && kVetEmailAccount.matchesMember() &&
                  kCancelEmailVet.matchesMember() && kStartListeningOnTopic.matchesMember() &&
                  kStopListeningOnTopic.matchesMember() && kDumpDebugInfo.matchesMember(),
              "a call's C++ types disagree with its member's keys");

}  // namespace calls
}  // namespace vela::session
