// SPDX-License-Identifier: MIT
// Needs only the installed headers and library: nothing from src/ and none of
// the library's own dependencies. Checks that the installed library finds
// its preference store, and loads it only once preferences are used.
#include <cstdio>
#include <fstream>
#include <string>

#include <vela/VelaNotification.h>

namespace {

// Whether a file whose path contains `name` is mapped into this process.
bool mapped(const std::string& name) {
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) {
    if (line.find(name) != std::string::npos) return true;
  }
  return false;
}

int fail(const char* why) {
  (void)std::fprintf(stderr, "consumer: %s\n", why);
  return 1;
}

}  // namespace

int main() {
  const VelaError error("consumer", 7);
  std::printf("error code %lld, failure reason %s, last result %lld\n", static_cast<long long>(error.code()),
              error.failureReason() ? "set" : "unset", static_cast<long long>(velaLastOperationResult.load()));

  if (mapped("libvelanotification-store") || mapped("libsqlite3")) return fail("the store loaded before any use");
  constexpr std::string_view kDomain = "org.example.consumer";
  VelaPreferencesUtil::setBool(true, "installed", kDomain);
  if (!mapped("libvelanotification-store")) return fail("the store's module is not loaded after a write");
  if (!VelaPreferencesUtil::boolForKey("installed", kDomain)) return fail("a preference written is not read back");
  // The service's domains are the daemon's to write.
  VelaPreferencesUtil::setBool(true, "installed", kVelaNotification_Pref_Domain);
  if (VelaPreferencesUtil::boolForKey("installed", kVelaNotification_Pref_Domain)) {
    return fail("a client's write to a service domain was kept");
  }
  std::printf("preference store loaded on first use\n");
  return 0;
}
