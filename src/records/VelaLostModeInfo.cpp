// SPDX-License-Identifier: MIT
#include <vela/VelaLostModeInfo.h>

#include "protocol/records.h"
#include "records/record_format.h"

namespace vela::records::lost_mode {
namespace {

using namespace vela::protocol::lost_mode_record;  // NOLINT(google-build-using-namespace): the record's own keys

// A number's truth: any non-zero value, whatever its numeric type.
bool truthOf(const VelaValue& number) {
  if (const auto* b = number.getIf<bool>()) return *b;
  if (const auto* i = number.getIf<std::int64_t>()) return *i != 0;
  if (const auto* d = number.getIf<double>()) return *d != 0.0;
  return false;
}

std::optional<VelaValue> stringValue(const std::optional<std::string>& s) {
  if (!s) return std::nullopt;
  return VelaValue(*s);
}

}  // namespace
}  // namespace vela::records::lost_mode

namespace lost_mode = vela::records::lost_mode;
namespace records = vela::records;

std::shared_ptr<VelaLostModeInfo> VelaLostModeInfo::initWithCoder(VelaKeyedUnarchiver& coder) {
  if (coder.failed()) return nullptr;
  auto record = std::make_shared<VelaLostModeInfo>();
  if (auto flag = coder.decodeObjectOfClass(lost_mode::kLostModeEnabledKey, VelaArchiveClass::kNumber)) {
    record->setLostModeEnabled(lost_mode::truthOf(*flag));
  }
  record->setMessage(coder.decodeString(lost_mode::kMessageKey));
  record->setPhoneNumber(coder.decodeString(lost_mode::kPhoneNumberKey));
  if (coder.failed()) return nullptr;
  return record;
}

void VelaLostModeInfo::encodeWithCoder(VelaKeyedArchiver& coder) const {
  coder.encodeObject(lost_mode::kLostModeEnabledKey, VelaValue(lostModeEnabled()));
  coder.encodeObject(lost_mode::kMessageKey, lost_mode::stringValue(message()));
  coder.encodeObject(lost_mode::kPhoneNumberKey, lost_mode::stringValue(phoneNumber()));
}

std::string VelaLostModeInfo::description() const {
  // The layout is part of what the library promises: the flag prints last,
  // although the archive holds it first.
  std::string out = "VelaLostModeInfo(";
  out += records::addressText(this);
  out += ") ";
  records::appendField(out, message());
  out += ',';
  records::appendField(out, phoneNumber());
  out += ',';
  out += lostModeEnabled() ? '1' : '0';
  return out;
}
