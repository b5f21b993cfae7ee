// SPDX-License-Identifier: MIT
#include <vela/VelaKithAccountInfo.h>

#include "protocol/records.h"
#include "records/record_format.h"

namespace vela::records::kith {
namespace {

using namespace vela::protocol::kith;  // NOLINT(google-build-using-namespace): the record's own keys

std::optional<VelaValue> stringValue(const std::optional<std::string>& s) {
  if (!s) return std::nullopt;
  return VelaValue(*s);
}

}  // namespace
}  // namespace vela::records::kith

namespace kith = vela::records::kith;
namespace records = vela::records;

// Keys are read and written in one fixed order shared with the daemon, which
// is not the order of the fields.
std::shared_ptr<VelaKithAccountInfo> VelaKithAccountInfo::initWithCoder(VelaKeyedUnarchiver& coder) {
  if (coder.failed()) return nullptr;
  auto record = std::make_shared<VelaKithAccountInfo>();
  record->setDsid(coder.decodeString(kith::kDsidKey));
  record->setUsername(coder.decodeString(kith::kUsernameKey));
  record->setAppAuthToken(coder.decodeString(kith::kAppAuthTokenKey));
  if (auto status = coder.decodeObjectOfClass(kith::kAppAuthTokenStatusKey, VelaArchiveClass::kNumber)) {
    // The status is a 32-bit quantity; a wider number keeps its low 32 bits.
    record->setAppAuthTokenStatus(static_cast<std::int32_t>(status->numberAsInteger().value_or(0)));
  }
  record->setInternalAuthToken(coder.decodeString(kith::kInternalAuthTokenKey));
  // Whatever property list arrives is kept, dictionary or not: its shape is
  // the daemon's business, and refusing it would lose the whole account.
  record->setAdditionalInfo(coder.decodeObjectOfClass(kith::kAdditionalInfoKey, VelaArchiveClass::kPropertyList));
  record->setVelaServerHost(coder.decodeString(kith::kVelaServerHostKey));
  record->setVelaServerProtocolScheme(coder.decodeString(kith::kVelaServerProtocolSchemeKey));
  record->setVelaRelayEnvironment(coder.decodeString(kith::kVelaRelayEnvironmentKey));
  if (coder.failed()) return nullptr;
  return record;
}

void VelaKithAccountInfo::encodeWithCoder(VelaKeyedArchiver& coder) const {
  coder.encodeObject(kith::kDsidKey, kith::stringValue(dsid()));
  coder.encodeObject(kith::kUsernameKey, kith::stringValue(username()));
  coder.encodeObject(kith::kAppAuthTokenKey, kith::stringValue(appAuthToken()));
  coder.encodeObject(kith::kAppAuthTokenStatusKey, VelaValue(appAuthTokenStatus()));
  coder.encodeObject(kith::kInternalAuthTokenKey, kith::stringValue(internalAuthToken()));
  coder.encodeObject(kith::kAdditionalInfoKey, additionalInfo());
  coder.encodeObject(kith::kVelaServerHostKey, kith::stringValue(velaServerHost()));
  coder.encodeObject(kith::kVelaServerProtocolSchemeKey, kith::stringValue(velaServerProtocolScheme()));
  coder.encodeObject(kith::kVelaRelayEnvironmentKey, kith::stringValue(velaRelayEnvironment()));
}

std::string VelaKithAccountInfo::description() const {
  std::string out = "VelaKithAccountInfo(";
  out += records::addressText(this);
  out += ") ";
  records::appendField(out, dsid());
  out += ',';
  records::appendField(out, username());
  out += ',';
  records::appendMasked(out, appAuthToken());
  out += ',';
  out += std::to_string(appAuthTokenStatus());
  out += ',';
  records::appendMasked(out, internalAuthToken());
  out += ',';
  records::appendField(out, velaServerHost());
  out += ',';
  records::appendField(out, velaServerProtocolScheme());
  out += ',';
  records::appendField(out, velaRelayEnvironment());
  out += ',';
  out += additionalInfo() ? additionalInfo()->description() : std::string(records::kNilText);
  return out;
}
