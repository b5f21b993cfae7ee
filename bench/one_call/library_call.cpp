// SPDX-License-Identifier: MIT
// A client that loads the library, asks for the locating device id once and
// exits: what vela_one_call_bench times against the same call over bare sd-bus.
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

#include <vela/VelaNotifySession.h>
#include <vela/VelaSync.h>

int main() {
  const std::optional<std::string> id = VelaNotifySession::sharedInstance()->locusDeviceId();
  if (!id) {
    (void)std::fprintf(stderr, "no device id (error %jd)\n",
                       static_cast<std::intmax_t>(velaLastOperationResult.load()));
    return 1;
  }
  std::printf("%s\n", id->c_str());
  return 0;
}
