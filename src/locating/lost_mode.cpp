// SPDX-License-Identifier: MIT
#include <array>

#include <vela/VelaConstants.h>
#include <vela/VelaNotifySession.h>
#include <vela/VelaPreferencesUtil.h>

#include "platform/prefs/coercion.h"
#include "protocol/lost_mode_entries.h"
#include "session/remote_call.h"

namespace {

namespace entries = vela::protocol::lost_mode;
using entries::kEnabledKey;
using entries::kMessageKey;
using entries::kOwnerNumberKey;

bool isEnabled(const VelaDictionary& entry) {
  const auto flag = entry.find(kEnabledKey);
  return flag != entry.end() && vela::prefs::coerceToBool(flag->second).value_or(false);
}

std::optional<std::string> stringIn(const VelaDictionary& entry, std::string_view key) {
  const auto found = entry.find(key);
  if (found == entry.end() || found->second.asString() == nullptr) return std::nullopt;
  return *found->second.asString();
}

// The first enabled entry of the three, in the order their writers rank them.
// Each domain is synchronised just before its first read, and the post-wipe
// domain only when neither entry of the public one answered, so that the
// common case touches one domain.
std::optional<VelaDictionary> activeEntry() {
  struct Entry {
    std::string_view key;
    std::string_view domain;
    bool synchronizeFirst;
  };
  // The domain names are assignable, so they are read on every call.
  const std::array<Entry, 3> entries{{
      {entries::kLocusEntry, kVelaNotification_Public_NotBackedUp_Pref_Domain, true},
      {entries::kClientEntry, kVelaNotification_Public_NotBackedUp_Pref_Domain, false},
      {entries::kWipeEntry, kVelaNotification_PostWipe_Pref_Domain, true},
  }};
  for (const Entry& entry : entries) {
    if (entry.synchronizeFirst) VelaPreferencesUtil::synchronizeDomain(entry.domain);
    auto found = VelaPreferencesUtil::dictionaryForKey(entry.key, entry.domain);
    if (found && isEnabled(*found)) return found;
  }
  return std::nullopt;
}

}  // namespace

// The readers need nothing of the session, but are published as its operations.
// NOLINTNEXTLINE(readability-convert-member-functions-to-static)
bool VelaNotifySession::lostModeIsActive() {
  vela::session::setLastOperationResult(0);
  return activeEntry().has_value();
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static)
std::shared_ptr<VelaLostModeInfo> VelaNotifySession::lostModeInfo() {
  vela::session::setLastOperationResult(0);
  const auto entry = activeEntry();
  if (!entry) return nullptr;
  auto info = std::make_shared<VelaLostModeInfo>();
  info->setLostModeEnabled(true);
  info->setMessage(stringIn(*entry, kMessageKey));
  info->setPhoneNumber(stringIn(*entry, kOwnerNumberKey));
  return info;
}

std::optional<VelaDictionary> VelaNotifySession::lostModeParams() {
  const auto info = lostModeInfo();
  // The locked screen needs both texts; an active lost mode missing either
  // gives no parameters, although lostModeInfo() still reports it.
  if (!info || !info->message() || !info->phoneNumber()) return std::nullopt;
  return VelaDictionary{{std::string(kLostModeIsActiveKey), info->lostModeEnabled()},
                        {std::string(kLostModeScreenTextKey), *info->message()},
                        {std::string(kLostModeScreenOwnerNumKey), *info->phoneNumber()}};
}

std::optional<VelaError> VelaNotifySession::enableLostModeWithInfo(std::shared_ptr<VelaLostModeInfo> info) {
  return vela::session::callSynchronously(*this, "enableLostMode", vela::session::calls::kEnableLostModeWithInfo,
                                          std::move(info))
      .error;
}

void VelaNotifySession::enableLostModeWithInfoAsync(std::shared_ptr<VelaLostModeInfo> info,
                                                    ErrorCompletion completion) {
  vela::session::callWithoutBlocking(*this, vela::session::calls::kEnableLostModeWithInfo,
                                     vela::session::errorTo(std::move(completion)), std::move(info));
}

void VelaNotifySession::disableLostMode() {
  // Callers read the outcome from the store later, never from here, so this
  // one request leaves the previous operation's result in place.
  vela::session::sendWithoutReply(
      *this, "disableLostMode", [](auto& proxy) { proxy.disableLostModeUsingCallback(nullptr); },
      vela::session::ResetsLastResult::kNo);
}
