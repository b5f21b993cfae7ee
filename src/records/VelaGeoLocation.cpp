// SPDX-License-Identifier: MIT
#include <vela/VelaGeoLocation.h>

#include "protocol/records.h"

namespace geo = vela::protocol::geo;

std::shared_ptr<VelaGeoLocation> VelaGeoLocation::initWithGeoLocation(const GeoLocation* source) {
  if (source == nullptr) return std::make_shared<VelaGeoLocation>();
  // Only the eight archived values are carried over, so a subclass's extra
  // state never leaks onto the bus.
  return std::make_shared<VelaGeoLocation>(source->coordinate(), source->altitude(), source->horizontalAccuracy(),
                                           source->verticalAccuracy(), source->course(), source->speed(),
                                           source->timestamp());
}

std::shared_ptr<VelaGeoLocation> VelaGeoLocation::initWithCoder(VelaKeyedUnarchiver& coder) {
  if (coder.failed()) return nullptr;
  // Evaluated one statement at a time, as C++ leaves argument order open, and the
  // first refused key must be the one reported.
  const double latitude = coder.decodeDouble(geo::kLatitudeKey).value_or(0.0);
  const double longitude = coder.decodeDouble(geo::kLongitudeKey).value_or(0.0);
  const double altitude = coder.decodeDouble(geo::kAltitudeKey).value_or(0.0);
  const double horizontalAccuracy = coder.decodeDouble(geo::kHorizontalAccuracyKey).value_or(0.0);
  const double verticalAccuracy = coder.decodeDouble(geo::kVerticalAccuracyKey).value_or(0.0);
  const double course = coder.decodeDouble(geo::kCourseKey).value_or(0.0);
  const double speed = coder.decodeDouble(geo::kSpeedKey).value_or(0.0);
  const std::optional<VelaDate> timestamp = coder.decodeDate(geo::kTimestampKey);
  if (coder.failed()) return nullptr;
  return std::make_shared<VelaGeoLocation>(GeoCoordinate{latitude, longitude}, altitude, horizontalAccuracy,
                                           verticalAccuracy, course, speed, timestamp);
}

void VelaGeoLocation::encodeWithCoder(VelaKeyedArchiver& coder) const {
  coder.encodeObject(geo::kLatitudeKey, VelaValue(coordinate().latitude));
  coder.encodeObject(geo::kLongitudeKey, VelaValue(coordinate().longitude));
  coder.encodeObject(geo::kAltitudeKey, VelaValue(altitude()));
  coder.encodeObject(geo::kHorizontalAccuracyKey, VelaValue(horizontalAccuracy()));
  coder.encodeObject(geo::kVerticalAccuracyKey, VelaValue(verticalAccuracy()));
  coder.encodeObject(geo::kCourseKey, VelaValue(course()));
  coder.encodeObject(geo::kSpeedKey, VelaValue(speed()));
  coder.encodeObject(geo::kTimestampKey, timestamp() ? std::optional<VelaValue>(*timestamp()) : std::nullopt);
}
