// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <vela/VelaValue.h>

#include "platform/bus/bus_names.h"
#include "platform/bus/variant_codec.h"

struct sd_bus;
struct sd_bus_message;

// Test-only: runs the codec over a real, sealed D-Bus message without sending
// it, so tests can see both what a dictionary decodes back to and how each of
// its entries is typed on the wire. Needs an open bus (a private one in tests).
namespace vela::bus {

struct CodecRoundTrip {
  int encodeResult = 0;                          // 0, or the negative errno of the encoder
  std::optional<VelaDictionary> decoded;         // nullopt when decoding refused the message
  std::string whyNot;                            // why decoding refused it
  std::map<std::string, std::string> wireTypes;  // key -> signature inside its variant; nested keys as "outer.inner"
};

class CodecProbe {
 public:
  // nullptr when the bus cannot be reached.
  static std::unique_ptr<CodecProbe> open(BusKind kind);
  ~CodecProbe();
  CodecProbe(const CodecProbe&) = delete;
  CodecProbe& operator=(const CodecProbe&) = delete;

  // Encodes `dict` as `described` says and decodes it back: every key, or
  // with `onlyDescribed` only the described ones.
  CodecRoundTrip roundTrip(const VelaDictionary& dict, FieldSets described = {}, bool onlyDescribed = false);

  // Decodes a body that `build` appends by hand (for what the encoder never
  // writes, such as object paths), as roundTrip() decodes.
  CodecRoundTrip decode(const std::function<int(sd_bus_message*)>& build, FieldSets described = {},
                        bool onlyDescribed = false);

  // Reads a body that `build` appends as a synchronous call's reply is read,
  // handing its described keys to `sink`. False when the message is refused
  // or cannot be made; `whyNot` then says why.
  bool decodeInto(const std::function<int(sd_bus_message*)>& build, FieldSets described, DescribedKeySink& sink,
                  std::string* whyNot);

 private:
  CodecProbe() = default;
  // A sealed message holding what `build` appends, ready to be read; nullptr
  // with the negative errno in `result` when it cannot be made.
  sd_bus_message* message(const std::function<int(sd_bus_message*)>& build, int& result);

  sd_bus* bus_ = nullptr;
};

}  // namespace vela::bus
