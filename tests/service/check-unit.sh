#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Checks velad's systemd unit as it is installed, never touching this
# machine's own systemd:
#   verify    the build tree is installed (DESTDIR) into a scratch root that
#             also holds a copy of the system's units; systemd-analyze verify
#             then loads velad.service there, so ExecStart must name the velad
#             just installed, and any complaint at all fails the check
#   security  systemd-analyze security --offline rates the unit's sandbox;
#             its overall exposure must be 1.0 or less
#
#   check-unit.sh verify|security BUILD_DIR
#
# Exits 77 (skipped) when systemd-analyze is not installed.
set -euo pipefail

check=${1:?verify or security}
build=${2:?the build directory}

if ! command -v systemd-analyze >/dev/null; then
  echo "SKIP: systemd-analyze is not installed (Debian: apt-get install systemd)"
  exit 77
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/vela-unit.XXXXXX")
trap 'rm -rf "$work"' EXIT
root=$work/root

DESTDIR=$root cmake --install "$build" --component tools >"$work/install.log"
units=()
while IFS= read -r -d '' found; do units+=("$found"); done < <(find "$root" -name velad.service -print0)
if ((${#units[@]} != 1)); then
  echo "expected one velad.service in the installed tree, found ${#units[@]}" >&2
  exit 1
fi
unit=${units[0]}

case $check in
  verify)
    # The targets and sockets velad.service orders itself against.
    for dir in /usr/lib/systemd/system /lib/systemd/system /etc/systemd/system; do
      real=$(readlink -f "$dir" 2>/dev/null) || continue
      [[ -d $real && ! -e $root$real ]] || continue
      mkdir -p "$root$real"
      cp -a "$real/." "$root$real/"
    done
    # The man page is another package's business; verify would run man(1).
    if ! systemd-analyze verify --man=no --root="$root" "$unit" >"$work/verify.log" 2>&1 ||
      [[ -s $work/verify.log ]]; then
      echo "systemd-analyze verify ${unit#"$root"}:" >&2
      cat "$work/verify.log" >&2
      exit 1
    fi
    echo "systemd-analyze verify: clean"
    ;;
  security)
    # --threshold counts in tenths: 10 is an exposure of 1.0.
    status=0
    systemd-analyze security --offline=yes --threshold=10 "$unit" >"$work/security.log" 2>&1 || status=$?
    exposure=$(sed -n 's/.*Overall exposure level for velad.service: \([0-9.]*\).*/\1/p' "$work/security.log")
    if [[ -z $exposure ]]; then
      echo "systemd-analyze security gave no exposure level:" >&2
      cat "$work/security.log" >&2
      exit 1
    fi
    if ((status != 0)); then
      echo "velad.service is exposed at $exposure, above 1.0; what it still allows:" >&2
      grep '✗' "$work/security.log" >&2 || cat "$work/security.log" >&2
      exit 1
    fi
    echo "systemd-analyze security: exposure $exposure"
    ;;
  *)
    echo "check-unit.sh: unknown check $check" >&2
    exit 2
    ;;
esac
