// SPDX-License-Identifier: MIT
#include <vela/VelaGeoLocation.h>
#include <vela/VelaNotifySession.h>

#include "session/remote_call.h"

namespace {

using RegionEvent = void (VelaNotificationHandsetActions::*)(std::optional<std::string>,
                                                             std::shared_ptr<VelaGeoLocation>, VelaErrorReply);

// Entering and leaving differ only in the member they send. The daemon gets
// the region's identifier, never the region itself, and a VelaGeoLocation,
// the one location type whose archive it reads. A null location still makes
// a record (all zeros, no timestamp), which is what is sent.
void sendRegionEvent(VelaNotifySession& session, const char* label, RegionEvent event, const GeoRegion* region,
                     const GeoLocation* location) {
  vela::session::sendWithoutReply(session, label, [&](auto& proxy) {
    std::shared_ptr<VelaGeoLocation> record = VelaGeoLocation::initWithGeoLocation(location);
    std::optional<std::string> identifier = region != nullptr ? region->identifier() : std::nullopt;
    (proxy.*event)(std::move(identifier), std::move(record), nullptr);
  });
}

}  // namespace

void VelaNotifySession::didEnterKithRegion(const GeoRegion* region, const GeoLocation* location) {
  sendRegionEvent(*this, "didEnterKithRegion", &VelaNotificationHandsetActions::didEnterKithRegion, region, location);
}

void VelaNotifySession::didExitKithRegion(const GeoRegion* region, const GeoLocation* location) {
  sendRegionEvent(*this, "didExitKithRegion", &VelaNotificationHandsetActions::didExitKithRegion, region, location);
}
