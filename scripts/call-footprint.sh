#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The cache lines and pages one synchronous call touches: through the library
# (locusDeviceId) and as a bare sd-bus call to the same velad. When many client
# processes take turns on a CPU, each call starts with cold caches and TLB, and
# its cost follows this footprint more than its instruction count. Unlike the
# benchmarks, the count is exact, so it can judge small changes to the call path.
#
# One call in the steady state is traced with valgrind's lackey, on a private
# bus, and its addresses are sorted by mapping (code, read-only data, heap,
# stack, each library).
#   scripts/call-footprint.sh [BUILD_DIR]   (default build/release; needs valgrind and python3)
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$(cd "${1:-$root/build/release}" && pwd)
command -v valgrind >/dev/null || { echo "needs valgrind" >&2; exit 2; }
work=$(mktemp -d /tmp/vela-footprint.XXXXXX)
cleanup() {
  kill "${velad:-}" "${bus:-}" 2>/dev/null || true
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# Both loops store to `marker` before each call, which marks the calls' bounds
# in the trace, and save their mappings, which lackey does not print.
common='#include <fstream>
#include <string>
extern "C" { volatile int marker; }
static void saveMaps(const char* to) { std::ofstream(to) << std::ifstream("/proc/self/maps").rdbuf(); }'
cat >"$work/library.cpp" <<EOF
$common
#include <vela/VelaNotifySession.h>
int main(int, char** argv) {
  saveMaps(argv[2]);
  const int calls = std::stoi(argv[1]);
  auto session = VelaNotifySession::sharedInstance();
  for (int i = 0; i < calls; ++i) { marker = i; if (!session->locusDeviceId()) return 1; }
}
EOF

# The bare loop is the benchmarks' own bare call, so both count the same work.
cat >"$work/bare.cpp" <<EOF
$common
#include "bare_call.h"
int main(int, char** argv) {
  saveMaps(argv[2]);
  const int calls = std::stoi(argv[1]);
  vela::bench::BareConnection bare;
  if (!bare.open()) return 2;
  for (int i = 0; i < calls; ++i) { marker = i; if (!bare.locusDeviceId()) return 1; }
}
EOF
c++ -std=c++20 -O2 -no-pie -I"$root/include" "$work/library.cpp" -o "$work/library" -L"$build/lib" \
  -lvelanotification -Wl,-rpath,"$build/lib"
# shellcheck disable=SC2046  # pkg-config's flags are words
c++ -std=c++20 -O2 -no-pie -I"$root/include" -I"$root/src" -I"$root/bench" "$work/bare.cpp" \
  "$root/bench/bare_call.cpp" -o "$work/bare" $(pkg-config --cflags --libs libsystemd)

mkfifo "$work/bus.ready" "$work/velad.ready"
dbus-daemon --config-file="$root/tests/support/bus.conf" --address="unix:path=$work/bus" --print-address=3 \
  --nofork 3>"$work/bus.ready" 2>/dev/null &
bus=$!
read -r -t 30 _ <"$work/bus.ready"
export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$work/bus" DBUS_SESSION_BUS_ADDRESS="unix:path=$work/bus"
export VELA_PREFERENCES_PATH="$work/preferences.sqlite3" STATE_DIRECTORY="$work/state"
export VELA_SERVICE_PREFERENCES_PATH="$work/state/preferences.sqlite3"
"$build/daemon/velad" --bus=system --state-dir="$work/state" --ready-fd=3 3>"$work/velad.ready" >/dev/null 2>&1 &
velad=$!
read -r -t 30 _ <"$work/velad.ready"

readonly calls=60 traced=40  # the 40th call: connection and caches long warm
for kind in library bare; do
  valgrind --tool=lackey --trace-mem=yes --log-file="$work/$kind.trace" "$work/$kind" "$calls" "$work/$kind.maps" \
    >/dev/null 2>&1
  nm "$work/$kind" | awk '/ B marker$/ {print $1}' >"$work/$kind.marker"
done

python3 - "$work" "$traced" <<'PY'
import bisect, collections, sys
work, traced = sys.argv[1], int(sys.argv[2])

def footprint(kind):
    regions = []
    for line in open(f"{work}/{kind}.maps"):
        fields = line.split()
        start, end = (int(x, 16) for x in fields[0].split("-"))
        name = fields[5].rsplit("/", 1)[-1] if len(fields) > 5 else "[anonymous]"
        regions.append((start, end, name, fields[1]))
    regions.sort()
    starts = [r[0] for r in regions]
    marker = int(open(f"{work}/{kind}.marker").read(), 16)
    lines, pages = collections.defaultdict(set), collections.defaultdict(set)
    call = -1
    for record in open(f"{work}/{kind}.trace"):
        fields = record.split()
        if len(fields) != 2 or fields[0] not in ("I", "L", "S", "M"):
            continue
        address = int(fields[1].split(",")[0], 16)
        if fields[0] == "S" and address == marker:
            call += 1
            continue
        if call != traced:
            continue
        i = bisect.bisect_right(starts, address) - 1
        start, end, name, perms = regions[i] if i >= 0 and address < regions[i][1] else (0, 0, "?", "?")
        what = ("code " if fields[0] == "I" else "data ") + name + " " + perms
        lines[what].add(address >> 6)
        pages[what].add(address >> 12)
    return lines, pages

results = {kind: footprint(kind) for kind in ("library", "bare")}
keys = sorted(set(results["library"][0]) | set(results["bare"][0]),
              key=lambda k: -len(results["library"][0].get(k, ())))
print(f"{'one call touches':58} {'library':>15} {'bare':>15}")
print(f"{'':58} {'lines  pages':>15} {'lines  pages':>15}")
for key in keys:
    cells = [f"{len(results[k][0].get(key, ())):6d} {len(results[k][1].get(key, ())):6d}" for k in ("library", "bare")]
    print(f"{key[:58]:58} {cells[0]:>15} {cells[1]:>15}")
totals = [f"{sum(map(len, results[k][0].values())):6d} {sum(map(len, results[k][1].values())):6d}"
          for k in ("library", "bare")]
print(f"{'total':58} {totals[0]:>15} {totals[1]:>15}")
PY
