// SPDX-License-Identifier: MIT
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include <vela/VelaValue.h>

#include "platform/bus/bus_names.h"
#include "platform/bus/variant_codec.h"

struct sd_bus;

// Test-only: runs the codec over a real, sealed D-Bus message without sending
// it, so tests can see both what a dictionary decodes back to and how each of
// its entries is typed on the wire. Needs an open bus (a private one in tests).
namespace vela::bus {

struct CodecRoundTrip {
  int encodeResult = 0;                          // 0, or the negative errno of the encoder
  std::optional<VelaDictionary> decoded;         // nullopt when decoding refused the message
  std::string whyNot;                            // why decoding refused it
  std::map<std::string, std::string> wireTypes;  // top-level key -> signature inside its variant
};

class CodecProbe {
 public:
  // nullptr when the bus cannot be reached.
  static std::unique_ptr<CodecProbe> open(BusKind kind);
  ~CodecProbe();
  CodecProbe(const CodecProbe&) = delete;
  CodecProbe& operator=(const CodecProbe&) = delete;

  CodecRoundTrip roundTrip(const VelaDictionary& dict, const WireHints& hints = {});

 private:
  CodecProbe() = default;
  sd_bus* bus_ = nullptr;
};

}  // namespace vela::bus
