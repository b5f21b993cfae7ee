// SPDX-License-Identifier: MIT
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <vela/VelaExport.h>
#include <vela/VelaValue.h>

// Keyed archives: how records cross the bus.
//
// An archive is a dictionary holding "$class" (the record's class name) and
// one entry per archive key; a nil field is an absent key. Decoding is secure:
// the archive must name the class the reader expects, and every key is read
// under a class restriction. Any mismatch fails the whole decode, so a reader
// never builds a half-filled record.

// Class restrictions a key can be decoded under.
enum class VelaArchiveClass {
  kString,        // a string
  kNumber,        // an integer, a real or a boolean
  kDate,          // a date
  kPropertyList,  // any property-list value
};

inline constexpr std::string_view kVelaArchiveClassKey = "$class";

// Builds an archive. Thread: one at a time.
class VELA_EXPORT VelaKeyedArchiver {
 public:
  explicit VelaKeyedArchiver(std::string_view className);

  // Stores the value under the key; nullopt stores nothing (nil is absence).
  void encodeObject(std::string_view key, const std::optional<VelaValue>& value);

  // The archive built so far, "$class" included.
  const VelaDictionary& archive() const noexcept { return archive_; }

 private:
  VelaDictionary archive_;
};

// Reads an archive. Thread: one at a time.
class VELA_EXPORT VelaKeyedUnarchiver {
 public:
  // Fails at once (failed() is true) when the archive's "$class" is missing,
  // not a string, or not the expected class.
  VelaKeyedUnarchiver(const VelaDictionary& archive, std::string_view expectedClass);

  // The value under the key, nullopt when the key is absent. A value that does
  // not meet the restriction yields nullopt and fails the decoder for good.
  std::optional<VelaValue> decodeObjectOfClass(std::string_view key, VelaArchiveClass restriction);

  std::optional<std::string> decodeString(std::string_view key);
  std::optional<double> decodeDouble(std::string_view key);
  std::optional<VelaDate> decodeDate(std::string_view key);

  // True once anything did not meet its restriction; the record must then be
  // refused as a whole.
  bool failed() const noexcept { return failed_; }
  // Why it failed, for diagnostics.
  const std::string& failureReason() const noexcept { return failureReason_; }

 private:
  void fail(std::string reason);

  const VelaDictionary& archive_;
  bool failed_ = false;
  std::string failureReason_;
};
