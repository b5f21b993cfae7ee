// SPDX-License-Identifier: MIT
// The one call of library_call.cpp made over bare sd-bus, as a C++ program
// without the library: the baseline that isolates what the library adds to a
// short-lived client's start, call and exit.
#include "bare_call.h"

#include <cstdio>
#include <optional>
#include <string>

int main() {
  std::optional<std::string> id;
  {
    vela::bench::BareConnection bare;
    if (!bare.open()) {
      (void)std::fprintf(stderr, "%s\n", bare.whyNot().c_str());
      return 1;
    }
    id = bare.locusDeviceId();
  }
  if (!id) {
    (void)std::fprintf(stderr, "no device id in the reply\n");
    return 1;
  }
  std::printf("%s\n", id->c_str());
  return 0;
}
