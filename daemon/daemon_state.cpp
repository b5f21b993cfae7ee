// SPDX-License-Identifier: MIT
#include "daemon_state.h"

#include <random>
#include <string_view>

namespace vela::daemon {
namespace {

// A device identifier in the usual form: 40 lower-case hexadecimal digits.
std::string newDeviceId(std::mt19937_64& generator) {
  static constexpr std::string_view kDigits = "0123456789abcdef";
  std::uniform_int_distribution<int> digit(0, 15);
  std::string id(40, '0');
  for (char& c : id) c = kDigits[digit(generator)];
  return id;
}

template <typename T>
const char* isSet(const T& value) {
  return value ? "set" : "none";
}

}  // namespace

DaemonState initialDaemonState() {
  std::random_device seed;
  std::mt19937_64 generator(seed());
  DaemonState state;
  state.kithDeviceId = newDeviceId(generator);
  state.locusDeviceId = newDeviceId(generator);
  state.storeAccount = "store.owner@example.com";
  state.locusAccount = AccountIdentity{"locus.owner@example.com", "1000000001"};
  state.nimbusAccount = AccountIdentity{"nimbus.owner@example.com", "1000000002"};
  return state;
}

std::string describeDaemonState(const DaemonState& state) {
  std::size_t topicCount = 0;
  for (const auto& [owner, topics] : state.topics) topicCount += topics.size();
  std::string out;
  out += "locus state: " + std::to_string(state.locusState);
  out += state.lastLocusContext ? " (last context " + std::to_string(*state.lastLocusContext) + ")\n" : "\n";
  out += "store account: " + std::string(isSet(state.storeAccount)) + "\n";
  out += "locus account: " + std::string(isSet(state.locusAccount)) + "\n";
  out += "nimbus account: " + std::string(isSet(state.nimbusAccount)) + "\n";
  out += "lost mode: " + std::string(state.lostMode ? "on" : "off") + "\n";
  out += "kith account: " + std::string(isSet(state.kithAccount)) + "\n";
  out += "kith regions inside: " + std::to_string(state.kithRegionsInside.size()) + "\n";
  out += "topics: " + std::to_string(topicCount) + " of " + std::to_string(state.topics.size()) + " callers\n";
  return out;
}

}  // namespace vela::daemon
