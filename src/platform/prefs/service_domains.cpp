// SPDX-License-Identifier: MIT
#include "platform/prefs/service_domains.h"

#include <algorithm>
#include <array>

#include <vela/VelaConstants.h>

namespace vela::prefs {

bool isServiceDomain(std::string_view domain) {
  const std::array<std::string_view, 5> serviceDomains{
      kVelaNotification_Pref_Domain,
      kVelaNotification_NotBackedUp_Pref_Domain,
      kVelaNotification_Public_NotBackedUp_Pref_Domain,
      kVelaNotification_PostWipe_Pref_Domain,
      kWardenEnabledPrefDomain,
  };
  return std::find(serviceDomains.begin(), serviceDomains.end(), domain) != serviceDomains.end();
}

}  // namespace vela::prefs
