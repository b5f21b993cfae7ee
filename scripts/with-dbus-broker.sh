#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Runs a command against a private dbus-broker instead of dbus-daemon, for
# the benchmarks: with-dbus-broker.sh build/release/bench/vela_call_bench
#
# dbus-broker's launcher expects systemd: it logs to the journal's socket and
# is handed its listening socket. Without systemd as the init, a private mount
# namespace gets a tmpfs over /run/systemd with a datagram socket that takes
# the launcher's log, and systemd-socket-activate hands over the socket; the
# launcher starts the broker on the first connection. The command runs with
# VELA_BENCH_BUS_ADDRESS pointing at it. Needs root (for the namespace) and
# the packages dbus-broker and python3.
set -euo pipefail

if [[ ${1:-} != --inside ]]; then
  [[ $# -gt 0 ]] || { echo "usage: $0 COMMAND [ARGS...]" >&2; exit 2; }
  exec unshare --mount --propagation private "$0" --inside "$@"
fi
shift

root=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
journal=""
launcher=""
cleanup() {
  [[ -n $launcher ]] && kill "$launcher" 2>/dev/null && wait "$launcher" 2>/dev/null
  [[ -n $journal ]] && kill "$journal" 2>/dev/null && wait "$journal" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

# first_line FIFO: the first line a child writes to FIFO, within 30 s.
first_line() {
  local fd line
  exec {fd}<"$1"
  read -r -t 30 -u "$fd" line || line=""
  exec {fd}<&-
  printf '%s' "$line"
}

mount -t tmpfs tmpfs /run/systemd
mkdir -p /run/systemd/journal
mkfifo "$work/journal.ready" "$work/launcher.ready"
python3 -c '
import socket, sys
sink = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
sink.bind(sys.argv[1])
print("ready", flush=True)
sys.stdout.close()
while True:
    sink.recv(65536)
' /run/systemd/journal/socket >"$work/journal.ready" &
journal=$!
[[ $(first_line "$work/journal.ready") == ready ]] || { echo "the journal's socket did not start" >&2; exit 1; }

# systemd-socket-activate says "Listening on ..." once the socket exists;
# the rest of what it and the launcher say goes to a log.
socket="$work/bus"
systemd-socket-activate -l "$socket" -E DBUS_SYSTEM_BUS_ADDRESS="unix:path=$socket" \
  dbus-broker-launch --scope system --config-file "$root/tests/support/bus.conf" \
  2> >({ IFS= read -r line; printf '%s\n' "$line" >"$work/launcher.ready"; cat >"$work/launcher.log"; }) &
launcher=$!
if [[ $(first_line "$work/launcher.ready") != Listening* ]]; then
  echo "dbus-broker's socket did not appear" >&2
  exit 1
fi

VELA_BENCH_BUS_ADDRESS="unix:path=$socket" "$@"
