#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The project's demo command. Installs what is missing, builds velad, velactl
# and the GLib example (release preset), starts a private message bus and
# velad on it, runs each velactl command below twice (once with --json, once
# for people), and last the GLib example, which toggles locating.
# The machine's own buses and preference stores are never touched, and every
# process and file the demo made is gone when it exits.

# ---- The demo's velactl commands, in order. One entry per command line;
# ---- arguments are separated by spaces. Add new commands here. An entry
# ---- starting with "once " runs only in its JSON form: switching locating
# ---- twice in a row is (rightly) refused while the first switch settles.
# ---- Commands run in the demo's scratch directory, which holds
# ---- kith-tokens.json: velactl takes the friends account's tokens from a
# ---- file or its standard input, never from its command line.
demo_commands=(
  "locus-device-id"
  "kith-device-id"
  "store-account"
  "locus-account"
  "nimbus-account"
  "retrieve-all-accounts"
  "locus-state"
  "once enable-locus --context 1"
  "once is-locus-state-change-in-progress"
  "start-listening-on-topic --topic demo.topic"
  "dump-debug-info --argument all"
  "add-kith-account --username ann@example.org --dsid 1234567 --tokens-from kith-tokens.json --app-auth-token-status 1 --additional-info {\"plan\":\"family\"} --vela-server-host kith.example.org --vela-server-protocol-scheme https --vela-relay-environment production"
  "retrieve-kith-account"
  "did-enter-kith-region --identifier demo.home --latitude 48.5 --longitude -122.25 --horizontal-accuracy 5 --timestamp 1700000000"
  "once vet-email-account someone@example.org --wait --timeout-ms 5000"
  "once vet-email-account not-an-address --wait --timeout-ms 5000"
  "enable-lost-mode --message Please-call-the-owner --phone-number 555-0100"
  "lost-mode-info"
  "lost-mode-params"
)

set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

"$root/scripts/deps.sh"
echo "Building velad, velactl and the GLib example (release preset)..."
build_log=$(mktemp "${TMPDIR:-/tmp}/vela-demo-build.XXXXXX")
if ! { cmake --preset release &&
  cmake --build --preset release --target velad velactl vela_glib_host_example; } >"$build_log" 2>&1; then
  cat "$build_log" >&2
  rm -f "$build_log"
  exit 1
fi
rm -f "$build_log"
# built PROGRAM: wherever the build put it; the newest, should an older
# layout of the build tree have left a copy elsewhere.
built() {
  find "$root/build/release" -path '*/CMakeFiles' -prune -o -type f -name "$1" -perm -u+x -printf '%T@ %p\n' |
    sort -rn | head -n 1 | cut -d ' ' -f 2-
}
velad=$(built velad)
velactl=$(built velactl)
glib_example=$(built vela_glib_host_example)

work=$(mktemp -d "${TMPDIR:-/tmp}/vela-demo.XXXXXX")
bus_pid=""
velad_pid=""

stop() {  # stop PID: terminate a child of this script and reap it
  if [[ -n $1 ]] && kill "$1" 2>/dev/null; then
    wait "$1" 2>/dev/null || true
  fi
}
cleanup() {
  local status=$?
  stop "$velad_pid"
  stop "$bus_pid"
  rm -rf "$work"
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT TERM HUP PIPE

# wait_ready FIFO: the first line a child writes to FIFO; fails when the child
# exits (closing it) or stays silent for 60 s.
wait_ready() {
  local fd line
  exec {fd}<"$1"
  if ! read -r -t 60 -u "$fd" line; then
    exec {fd}<&-
    return 1
  fi
  exec {fd}<&-
  printf '%s\n' "$line"
}

# The private bus. Both bus addresses lead to it and to nothing else.
mkfifo "$work/bus.ready"
dbus-daemon --config-file="$root/tests/support/bus.conf" --address="unix:path=$work/bus" \
  --print-address=3 --nofork 3>"$work/bus.ready" 2>"$work/bus.log" &
bus_pid=$!
if ! wait_ready "$work/bus.ready" >/dev/null; then
  echo "demo: the message bus did not start:" >&2
  cat "$work/bus.log" >&2
  exit 1
fi
export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$work/bus"
export DBUS_SESSION_BUS_ADDRESS="unix:path=$work/bus"
export VELA_PREFERENCES_PATH="$work/preferences.sqlite3"
# velad keeps the service's preferences (lost mode among them) in its state
# directory; velactl reads them there.
export STATE_DIRECTORY="$work/state"
export VELA_SERVICE_PREFERENCES_PATH="$STATE_DIRECTORY/preferences.sqlite3"

mkfifo "$work/velad.ready"
"$velad" --bus=system --state-dir="$work/state" --ready-fd=3 3>"$work/velad.ready" >"$work/velad.log" 2>&1 &
velad_pid=$!
if ! ready=$(wait_ready "$work/velad.ready") || [[ $ready != *READY* ]]; then
  echo "demo: velad did not become ready:" >&2
  cat "$work/velad.log" >&2
  exit 1
fi
echo "velad is running on a private bus (pid $velad_pid)"

printf '{"appAuthToken": "demo-token"}\n' >"$work/kith-tokens.json"
echo "kith-tokens.json: $(cat "$work/kith-tokens.json")"

failures=0
for entry in "${demo_commands[@]}"; do
  read -ra args <<<"$entry"
  forms=(json human)
  if [[ ${args[0]} == once ]]; then
    args=("${args[@]:1}")
    forms=(json)
  fi
  for form in "${forms[@]}"; do
    flags=()
    [[ $form == json ]] && flags=(--json)
    printf '\n$ velactl %s\n' "${flags[*]+${flags[*]} }${args[*]}"
    (cd "$work" && "$velactl" "${flags[@]}" "${args[@]}") || {
      echo "(velactl exited with status $?)"
      failures=$((failures + 1))
    }
  done
done

# A GLib host: observes velad's notifications and switches locating without
# blocking its loop; it exits once the switch has settled.
printf '\n$ vela_glib_host_example --toggle\n'
"$glib_example" --toggle || {
  echo "(vela_glib_host_example exited with status $?)"
  failures=$((failures + 1))
}

if ((failures > 0)); then
  printf '\ndemo: %d runs failed; velad said:\n' "$failures" >&2
  cat "$work/velad.log" >&2
  exit 1
fi
printf '\ndemo: done\n'
