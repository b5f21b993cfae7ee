// SPDX-License-Identifier: MIT
// Reads preferences as a client such as the lock screen does, through the
// shared library only, and prints what it found on one line:
//
//   vela_preference_reader lost-mode           the lock screen's parameters
//   vela_preference_reader value DOMAIN KEY    one value
//   vela_preference_reader set DOMAIN KEY TEXT tries to write one, then reads it back
//
// "(none)" when there is nothing. The cross-user tests run it as another user.
#include <cstdio>
#include <string_view>

#include <vela/VelaNotification.h>

namespace {

int print(const std::optional<VelaValue>& found) {
  std::printf("%s\n", found ? found->description().c_str() : "(none)");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view what = argc > 1 ? argv[1] : "";
  if (what == "lost-mode" && argc == 2) {
    const std::optional<VelaDictionary> params = VelaNotifySession::sharedInstance()->lostModeParams();
    return print(params ? std::optional<VelaValue>(*params) : std::nullopt);
  }
  if (what == "value" && argc == 4) return print(VelaPreferencesUtil::objectForKey(argv[3], argv[2]));
  if (what == "set" && argc == 5) {
    VelaPreferencesUtil::setString(argv[4], argv[3], argv[2]);
    VelaPreferencesUtil::synchronizeDomain(argv[2]);
    return print(VelaPreferencesUtil::objectForKey(argv[3], argv[2]));
  }
  (void)std::fprintf(stderr, "usage: %s lost-mode | value DOMAIN KEY | set DOMAIN KEY TEXT\n", argv[0]);
  return 2;
}
