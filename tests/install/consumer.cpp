// SPDX-License-Identifier: MIT
// Needs only the installed headers and library: nothing from src/ and none of
// the library's own dependencies.
#include <cstdio>

#include <vela/VelaNotification.h>

int main() {
  const VelaError error("consumer", 7);
  std::printf("error code %lld, failure reason %s, last result %lld\n", static_cast<long long>(error.code()),
              error.failureReason() ? "set" : "unset", static_cast<long long>(velaLastOperationResult.load()));
  return 0;
}
