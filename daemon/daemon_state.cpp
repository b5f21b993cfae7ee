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

std::string orNil(const std::optional<std::string>& value) { return value ? *value : "(nil)"; }

std::string describeAccount(const std::optional<AccountIdentity>& account) {
  return account ? account->username + " (" + account->personID + ")" : "(none)";
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
  std::string out;
  out += "locus state: " + std::to_string(state.locusState);
  out += state.lastLocusContext ? " (last context " + std::to_string(*state.lastLocusContext) + ")\n" : "\n";
  out += "kith device id: " + state.kithDeviceId + "\n";
  out += "locus device id: " + state.locusDeviceId + "\n";
  out += "store account: " + orNil(state.storeAccount) + "\n";
  out += "locus account: " + describeAccount(state.locusAccount) + "\n";
  out += "nimbus account: " + describeAccount(state.nimbusAccount) + "\n";
  out += "lost mode: " + (state.lostMode ? state.lostMode->description() : std::string("off")) + "\n";
  out += "kith account: " + (state.kithAccount ? state.kithAccount->description() : std::string("(none)")) + "\n";
  out += "kith regions inside:";
  for (const std::string& region : state.kithRegionsInside) out += " " + region;
  out += "\ntopics:";
  for (const std::string& topic : state.topics) out += " " + topic;
  out += "\n";
  return out;
}

}  // namespace vela::daemon
