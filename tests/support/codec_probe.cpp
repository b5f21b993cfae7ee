// SPDX-License-Identifier: MIT
#include "codec_probe.h"

#include <systemd/sd-bus.h>

namespace vela::bus {
namespace {

// Records the signature inside each entry's variant, and inside nested
// dictionaries too, as "outer.inner".
void recordWireTypes(sd_bus_message* m, const std::string& prefix, std::map<std::string, std::string>& types) {
  if (sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "{sv}") <= 0) return;
  while (sd_bus_message_enter_container(m, SD_BUS_TYPE_DICT_ENTRY, "sv") > 0) {
    const char* key = nullptr;
    const char* contents = nullptr;
    char type = 0;
    if (sd_bus_message_read_basic(m, SD_BUS_TYPE_STRING, &key) <= 0) return;
    if (sd_bus_message_peek_type(m, &type, &contents) <= 0 || contents == nullptr) return;
    const std::string name = prefix + key;
    types[name] = contents;
    if (std::string_view(contents) == "a{sv}") {
      if (sd_bus_message_enter_container(m, SD_BUS_TYPE_VARIANT, contents) <= 0) return;
      recordWireTypes(m, name + ".", types);
      if (sd_bus_message_exit_container(m) < 0) return;
    } else if (sd_bus_message_skip(m, "v") < 0) {
      return;
    }
    if (sd_bus_message_exit_container(m) < 0) return;
  }
  (void)sd_bus_message_exit_container(m);
}

}  // namespace

std::unique_ptr<CodecProbe> CodecProbe::open(BusKind kind) {
  std::unique_ptr<CodecProbe> probe(new CodecProbe());
  const int r = kind == BusKind::kSystem ? sd_bus_open_system(&probe->bus_) : sd_bus_open_user(&probe->bus_);
  if (r < 0) return nullptr;
  return probe;
}

CodecProbe::~CodecProbe() { sd_bus_flush_close_unref(bus_); }

CodecRoundTrip CodecProbe::roundTrip(const VelaDictionary& dict, FieldSets described, bool onlyDescribed) {
  return decode([&](sd_bus_message* m) { return appendDictionary(m, dict, described); }, described, onlyDescribed);
}

sd_bus_message* CodecProbe::message(const std::function<int(sd_bus_message*)>& build, int& result) {
  sd_bus_message* m = nullptr;
  result = sd_bus_message_new_method_call(bus_, &m, "org.example.Nobody", "/", "org.example.Nobody", "X");
  if (result >= 0) result = build(m);
  if (result >= 0) result = sd_bus_message_seal(m, 1, 0);
  if (result >= 0) result = sd_bus_message_rewind(m, 1);
  if (result < 0) return sd_bus_message_unref(m);
  result = 0;
  return m;
}

CodecRoundTrip CodecProbe::decode(const std::function<int(sd_bus_message*)>& build, FieldSets described,
                                  bool onlyDescribed) {
  CodecRoundTrip result;
  sd_bus_message* m = message(build, result.encodeResult);
  if (m == nullptr) return result;
  result.decoded = onlyDescribed ? readDescribedKeys(m, described, &result.whyNot) : readDictionary(m, &result.whyNot);

  // Walk the same message again for each entry's wire signature.
  sd_bus_message_rewind(m, 1);
  recordWireTypes(m, "", result.wireTypes);
  sd_bus_message_unref(m);
  return result;
}

bool CodecProbe::decodeInto(const std::function<int(sd_bus_message*)>& build, FieldSets described,
                            DescribedKeySink& sink, std::string* whyNot) {
  int made = 0;
  sd_bus_message* m = message(build, made);
  if (m == nullptr) {
    *whyNot = "the message could not be made";
    return false;
  }
  const bool read = readDescribedKeys(m, described, sink, whyNot);
  sd_bus_message_unref(m);
  return read;
}

}  // namespace vela::bus
