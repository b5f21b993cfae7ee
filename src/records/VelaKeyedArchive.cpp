// SPDX-License-Identifier: MIT
#include <utility>

#include <vela/VelaKeyedArchive.h>

namespace vela::records {
namespace {

bool meetsRestriction(const VelaValue& value, VelaArchiveClass restriction) {
  switch (restriction) {
    case VelaArchiveClass::kString:
      return value.type() == VelaValue::Type::kString;
    case VelaArchiveClass::kNumber:
      return value.isNumber();
    case VelaArchiveClass::kDate:
      return value.type() == VelaValue::Type::kDate;
    case VelaArchiveClass::kPropertyList:
      return true;
  }
  return false;
}

std::string_view restrictionName(VelaArchiveClass restriction) {
  switch (restriction) {
    case VelaArchiveClass::kString:
      return "a string";
    case VelaArchiveClass::kNumber:
      return "a number";
    case VelaArchiveClass::kDate:
      return "a date";
    case VelaArchiveClass::kPropertyList:
      return "a property list";
  }
  return "?";
}

}  // namespace
}  // namespace vela::records

VelaKeyedArchiver::VelaKeyedArchiver(std::string_view className) {
  archive_.insert_or_assign(std::string(kVelaArchiveClassKey), VelaValue(className));
}

void VelaKeyedArchiver::encodeObject(std::string_view key, const std::optional<VelaValue>& value) {
  if (value) {
    archive_.insert_or_assign(std::string(key), *value);
  } else if (auto it = archive_.find(key); it != archive_.end()) {
    // Encoding nil over an earlier value must leave the key absent, or the
    // reader would see the stale value.
    archive_.erase(it);
  }
}

VelaKeyedUnarchiver::VelaKeyedUnarchiver(const VelaDictionary& archive, std::string_view expectedClass)
    : archive_(archive) {
  auto it = archive_.find(kVelaArchiveClassKey);
  if (it == archive_.end()) {
    fail("the archive names no class");
    return;
  }
  const std::string* className = it->second.asString();
  if (className == nullptr) {
    fail(std::string("the archive's class marker is ") + std::string(VelaValueTypeName(it->second.type())) +
         ", not a string");
    return;
  }
  if (*className != expectedClass) {
    fail("the archive holds a " + *className + ", expected a " + std::string(expectedClass));
  }
}

std::optional<VelaValue> VelaKeyedUnarchiver::decodeObjectOfClass(std::string_view key, VelaArchiveClass restriction) {
  // Once refused, the record is refused as a whole; handing out further values
  // would only invite a caller to build part of it.
  if (failed_) return std::nullopt;
  auto it = archive_.find(key);
  if (it == archive_.end()) return std::nullopt;
  if (!vela::records::meetsRestriction(it->second, restriction)) {
    fail("key \"" + std::string(key) + "\" holds " + std::string(VelaValueTypeName(it->second.type())) + ", expected " +
         std::string(vela::records::restrictionName(restriction)));
    return std::nullopt;
  }
  return it->second;
}

std::optional<std::string> VelaKeyedUnarchiver::decodeString(std::string_view key) {
  auto value = decodeObjectOfClass(key, VelaArchiveClass::kString);
  if (!value) return std::nullopt;
  return *value->asString();
}

std::optional<double> VelaKeyedUnarchiver::decodeDouble(std::string_view key) {
  auto value = decodeObjectOfClass(key, VelaArchiveClass::kNumber);
  if (!value) return std::nullopt;
  return value->numberAsDouble();
}

std::optional<VelaDate> VelaKeyedUnarchiver::decodeDate(std::string_view key) {
  auto value = decodeObjectOfClass(key, VelaArchiveClass::kDate);
  if (!value) return std::nullopt;
  return *value->getIf<VelaDate>();
}

void VelaKeyedUnarchiver::fail(std::string reason) {
  if (failed_) return;  // the first fault is the one worth reporting
  failed_ = true;
  failureReason_ = std::move(reason);
}
