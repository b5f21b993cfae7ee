// SPDX-License-Identifier: MIT
#include "platform/bus/codec_probe.h"

#include <systemd/sd-bus.h>

namespace vela::bus {

std::unique_ptr<CodecProbe> CodecProbe::open(BusKind kind) {
  std::unique_ptr<CodecProbe> probe(new CodecProbe());
  const int r = kind == BusKind::kSystem ? sd_bus_open_system(&probe->bus_) : sd_bus_open_user(&probe->bus_);
  if (r < 0) return nullptr;
  return probe;
}

CodecProbe::~CodecProbe() { sd_bus_flush_close_unref(bus_); }

CodecRoundTrip CodecProbe::roundTrip(const VelaDictionary& dict, const WireHints& hints) {
  CodecRoundTrip result;
  sd_bus_message* m = nullptr;
  result.encodeResult = sd_bus_message_new_method_call(bus_, &m, "org.example.Nobody", "/", "org.example.Nobody", "X");
  if (result.encodeResult >= 0) result.encodeResult = appendDictionary(m, dict, hints);
  if (result.encodeResult >= 0) result.encodeResult = sd_bus_message_seal(m, 1, 0);
  if (result.encodeResult >= 0) result.encodeResult = sd_bus_message_rewind(m, 1);
  if (result.encodeResult < 0) {
    sd_bus_message_unref(m);
    return result;
  }
  result.encodeResult = 0;
  result.decoded = readDictionary(m, &result.whyNot);

  // Walk the same message again for each entry's wire signature.
  sd_bus_message_rewind(m, 1);
  if (sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "{sv}") > 0) {
    while (sd_bus_message_enter_container(m, SD_BUS_TYPE_DICT_ENTRY, "sv") > 0) {
      const char* key = nullptr;
      const char* contents = nullptr;
      char type = 0;
      if (sd_bus_message_read_basic(m, SD_BUS_TYPE_STRING, &key) <= 0) break;
      if (sd_bus_message_peek_type(m, &type, &contents) <= 0 || contents == nullptr) break;
      result.wireTypes[key] = contents;
      if (sd_bus_message_skip(m, "v") < 0 || sd_bus_message_exit_container(m) < 0) break;
    }
  }
  sd_bus_message_unref(m);
  return result;
}

}  // namespace vela::bus
