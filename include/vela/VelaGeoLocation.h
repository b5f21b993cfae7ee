// SPDX-License-Identifier: MIT
#pragma once

#include <memory>

#include <vela/GeoLocation.h>
#include <vela/VelaExport.h>
#include <vela/VelaKeyedArchive.h>

// The form in which a location crosses the bus: a GeoLocation that archives
// exactly eight keys ("latitude", "longitude", "altitude",
// "horizontalAccuracy", "verticalAccuracy", "course", "speed", "timestamp").
class VELA_EXPORT VelaGeoLocation : public GeoLocation {
 public:
  using GeoLocation::GeoLocation;

  static constexpr bool supportsSecureCoding() { return true; }
  static constexpr std::string_view kClassName = "VelaGeoLocation";

  // Copies the eight values of a location; a null source gives all zeros and
  // no timestamp.
  static std::shared_ptr<VelaGeoLocation> initWithGeoLocation(const GeoLocation* source);

  // Decodes a record; absent numbers read as 0.0 and an absent timestamp as
  // nil. nullptr when the archive names another class or breaks a restriction.
  static std::shared_ptr<VelaGeoLocation> initWithCoder(VelaKeyedUnarchiver& coder);
  void encodeWithCoder(VelaKeyedArchiver& coder) const;
};
