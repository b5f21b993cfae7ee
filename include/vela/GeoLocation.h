// SPDX-License-Identifier: MIT
#pragma once

#include <optional>
#include <string>

#include <vela/VelaExport.h>
#include <vela/VelaValue.h>

// A geographic coordinate in degrees.
struct GeoCoordinate {
  double latitude = 0.0;
  double longitude = 0.0;
  friend bool operator==(const GeoCoordinate&, const GeoCoordinate&) = default;
};

// A location value: where the device was, how precisely, and when. Units are
// the usual ones (metres, metres per second, degrees); nothing is converted.
class VELA_EXPORT GeoLocation {
 public:
  GeoLocation() = default;
  GeoLocation(GeoCoordinate coordinate, double altitude, double horizontalAccuracy, double verticalAccuracy,
              double course, double speed, std::optional<VelaDate> timestamp)
      : coordinate_(coordinate),
        altitude_(altitude),
        horizontalAccuracy_(horizontalAccuracy),
        verticalAccuracy_(verticalAccuracy),
        course_(course),
        speed_(speed),
        timestamp_(timestamp) {}
  virtual ~GeoLocation() = default;
  GeoLocation(const GeoLocation&) = default;
  GeoLocation& operator=(const GeoLocation&) = default;
  GeoLocation(GeoLocation&&) = default;
  GeoLocation& operator=(GeoLocation&&) = default;

  GeoCoordinate coordinate() const noexcept { return coordinate_; }
  double altitude() const noexcept { return altitude_; }
  double horizontalAccuracy() const noexcept { return horizontalAccuracy_; }
  double verticalAccuracy() const noexcept { return verticalAccuracy_; }
  double course() const noexcept { return course_; }
  double speed() const noexcept { return speed_; }
  std::optional<VelaDate> timestamp() const noexcept { return timestamp_; }

  friend bool operator==(const GeoLocation&, const GeoLocation&) = default;

 private:
  GeoCoordinate coordinate_;
  double altitude_ = 0.0;
  double horizontalAccuracy_ = 0.0;
  double verticalAccuracy_ = 0.0;
  double course_ = 0.0;
  double speed_ = 0.0;
  std::optional<VelaDate> timestamp_;
};

// A region a host monitors; only its identifier reaches the daemon.
class GeoRegion {
 public:
  virtual ~GeoRegion() = default;
  virtual std::optional<std::string> identifier() const = 0;
};
