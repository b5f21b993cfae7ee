#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs the project into a temporary prefix, checks that nothing lands
# outside it and that velad's service files (unit, activation file, bus
# policy, sysusers.d entry, polkit actions) are there, and builds the consumer
# in tests/install against it twice: with find_package(Vela) and with
# pkg-config. Each consumer is then run, so the installed library must also
# load.
#
#   scripts/check-install.sh [BUILD_DIR]
#
# BUILD_DIR is an already built, unsanitized build tree; without it the
# release preset is configured and built first.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${1:-}
if [[ -z $build ]]; then
  cmake --preset release -S "$root" >/dev/null
  cmake --build --preset release
  build=$root/build/release
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/vela-install.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
consumer=$root/tests/install
cxxflags=(-std=c++20 -Wall -Wextra -Wpedantic -Werror)

step() { printf '== check-install: %s\n' "$*"; }

# The consumers use preferences: in the temporary directory, never the user's
# own store or the system's.
export VELA_PREFERENCES_PATH=$work/preferences.sqlite3
export VELA_SERVICE_PREFERENCES_PATH=$work/state/preferences.sqlite3

step "install $build into a temporary prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log"

step "everything lands inside the prefix"
manifest=$build/install_manifest.txt
outside=$(grep -v "^$prefix/" "$manifest" || true)
if [[ -n $outside ]]; then
  echo "installed outside the prefix $prefix:" >&2
  echo "$outside" >&2
  exit 1
fi

step "velad's service files"
# need FILE [PATTERN...]: the file was installed and holds every line given.
need() {
  local file=$prefix/$1 line
  shift
  if [[ ! -f $file ]]; then
    echo "not installed: ${file#"$prefix"/}" >&2
    exit 1
  fi
  for line in "$@"; do
    if ! grep -qxF -- "$line" "$file"; then
      echo "${file#"$prefix"/} lacks the line: $line" >&2
      exit 1
    fi
  done
}
need lib/systemd/system/velad.service Type=notify BusName=com.zentrex.VelaNotification User=vela StateDirectory=vela
need share/dbus-1/system-services/com.zentrex.VelaNotification.service \
  Name=com.zentrex.VelaNotification User=vela SystemdService=velad.service
need share/dbus-1/system.d/com.zentrex.VelaNotification.conf
need lib/sysusers.d/velad.conf
need share/polkit-1/actions/com.zentrex.VelaNotification.policy
need share/dbus-1/interfaces/com.zentrex.VelaNotification.HandsetActions.xml
if ! grep -qE '^u vela ' "$prefix/lib/sysusers.d/velad.conf"; then
  echo "lib/sysusers.d/velad.conf does not make the user vela" >&2
  exit 1
fi
# The unit starts velad where the build was configured to put it.
configured=$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$build/CMakeCache.txt")
exec_start=$(sed -n 's/^ExecStart=//p' "$prefix/lib/systemd/system/velad.service")
if [[ $exec_start != "$configured"/* || ! -x $prefix/${exec_start#"$configured"/} ]]; then
  echo "ExecStart=$exec_start is not the velad installed under $configured" >&2
  exit 1
fi

step "consumer with find_package(Vela)"
cmake -S "$consumer" -B "$work/with-cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF >"$work/configure.log"
found=$(sed -n 's/^Vela_DIR:PATH=//p' "$work/with-cmake/CMakeCache.txt")
if [[ $found != "$prefix"/* ]]; then
  echo "find_package(Vela) found $found, not the temporary prefix" >&2
  exit 1
fi
cmake --build "$work/with-cmake" >/dev/null
"$work/with-cmake/consumer"

step "consumer with pkg-config velanotification"
pcfile=$(find "$prefix" -name velanotification.pc)
if [[ -z $pcfile ]]; then
  echo "no velanotification.pc was installed" >&2
  exit 1
fi
# Only the temporary prefix is searched: a velanotification installed on this
# machine must not stand in for it.
export PKG_CONFIG_LIBDIR=${pcfile%/*}
read -ra pkgflags <<<"$(pkg-config --cflags --libs velanotification)"
libdir=$(pkg-config --variable=libdir velanotification)
"${CXX:-c++}" "${cxxflags[@]}" "$consumer/consumer.cpp" "${pkgflags[@]}" -Wl,-rpath,"$libdir" \
  -o "$work/with-pkg-config"
"$work/with-pkg-config"

step "man pages and bash completion"
for file in share/man/man1/velactl.1 share/man/man8/velad.8 share/bash-completion/completions/velactl; do
  if [[ ! -f $prefix/$file ]]; then
    echo "$file was not installed" >&2
    exit 1
  fi
done

step "passed"
