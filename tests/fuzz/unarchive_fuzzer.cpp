// SPDX-License-Identifier: MIT
// Feeds arbitrary archives to the three record decoders. Each must refuse or
// accept without crashing, and whatever it accepts must re-archive to an
// archive that decodes to the same record again.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <vela/VelaGeoLocation.h>
#include <vela/VelaKithAccountInfo.h>
#include <vela/VelaLostModeInfo.h>

#include "records/archive_io.h"

namespace {

// Real keys and class names make it far likelier that the fuzzer reaches the
// decoders' per-key logic rather than stopping at the class check.
// clang-format off
constexpr std::string_view kKeys[] = {
    "$class", "dsid", "username", "appAuthToken", "appAuthTokenStatus", "internalAuthToken", "additionalInfo",
    "velaServerHost", "velaServerProtocolScheme", "velaRelayEnvironment", "lostModeEnabled", "message", "phoneNumber",
    "latitude", "longitude", "altitude", "horizontalAccuracy", "verticalAccuracy", "course", "speed", "timestamp"};
// clang-format on
constexpr std::string_view kClassNames[] = {VelaKithAccountInfo::kClassName, VelaLostModeInfo::kClassName,
                                            VelaGeoLocation::kClassName};
// Deep enough for every shape a record holds, shallow enough that recursive
// comparison and destruction cannot exhaust the stack.
constexpr int kMaxDepth = 4;
constexpr std::size_t kMaxMembers = 8;

class ByteReader {
 public:
  ByteReader(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  std::uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }

  template <typename T>
  T raw() {
    T value{};
    std::uint8_t bytes[sizeof(T)] = {};
    for (auto& b : bytes) b = byte();
    std::memcpy(&value, bytes, sizeof(T));
    return value;
  }

  // NaN never equals itself, which would defeat the round-trip check below.
  double real() {
    const double d = raw<double>();
    return std::isnan(d) ? 0.0 : d;
  }

  std::string text() {
    const std::size_t length = byte() % 24;
    std::string s;
    for (std::size_t i = 0; i < length; ++i) s += static_cast<char>(byte());
    return s;
  }

  std::string key() {
    const std::uint8_t choice = byte();
    if (choice < 0xe0) return std::string(kKeys[choice % std::size(kKeys)]);
    return text();
  }

  VelaValue value(int depth) {
    const std::uint8_t kind = byte() % (depth < kMaxDepth ? 10 : 7);
    switch (kind) {
      case 0:
        return text();
      case 1:
        return raw<std::int64_t>();
      case 2:
        return real();
      case 3:
        return (byte() & 1) != 0;
      case 4:
        return VelaDate{real()};
      case 5:
        return std::string(kClassNames[byte() % std::size(kClassNames)]);
      case 6: {
        VelaData data(byte() % 16);
        for (auto& b : data) b = byte();
        return data;
      }
      case 7:
        return VelaValue(members(depth));
      case 8:
        return VelaValue(VelaSet{members(depth)});
      default:
        return VelaValue(dictionary(depth + 1));
    }
  }

  VelaDictionary dictionary(int depth) {
    VelaDictionary dict;
    const std::size_t count = byte() % kMaxMembers;
    for (std::size_t i = 0; i < count; ++i) dict.insert_or_assign(key(), value(depth));
    return dict;
  }

 private:
  VelaArray members(int depth) {
    VelaArray array;
    const std::size_t count = byte() % kMaxMembers;
    for (std::size_t i = 0; i < count; ++i) array.push_back(value(depth + 1));
    return array;
  }

  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t pos_ = 0;
};

template <class Record>
void decodeAndRecheck(const VelaValue& input) {
  std::string whyNot;
  auto record = vela::records::unarchiveRecord<Record>(input, &whyNot);
  if (record == nullptr) {
    if (whyNot.empty()) std::abort();  // a refusal must always say why
    return;
  }
  const VelaDictionary once = vela::records::archiveRecord(*record);
  auto again = vela::records::unarchiveRecord<Record>(VelaValue(once));
  if (again == nullptr || vela::records::archiveRecord(*again) != once) std::abort();
  if constexpr (requires { record->description(); }) (void)record->description();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ByteReader reader(data, size);
  VelaDictionary archive;
  // Usually a correct class marker, so most inputs get past the class check.
  archive.insert_or_assign("$class", VelaValue(kClassNames[reader.byte() % std::size(kClassNames)]));
  VelaDictionary rest = reader.dictionary(0);
  for (auto& [key, value] : rest) archive.insert_or_assign(key, std::move(value));
  const VelaValue input(std::move(archive));

  decodeAndRecheck<VelaKithAccountInfo>(input);
  decodeAndRecheck<VelaLostModeInfo>(input);
  decodeAndRecheck<VelaGeoLocation>(input);
  return 0;
}
