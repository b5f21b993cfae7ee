#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs every Debian 12 package the project builds, tests and demos with.
# On a machine that has them all it only asks dpkg and touches no network;
# otherwise it runs apt-get (as root, or through sudo) without questions.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config g++
  clang clang-tidy clang-format
  libclang-rt-14-dev  # libFuzzer and clang's sanitizer runtimes; clang alone does not bring them
  libsystemd-dev libsqlite3-dev libcbor-dev
  libcli11-dev nlohmann-json3-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  dbus-daemon dbus-bin  # the private message bus of the tests and the demo
  libglib2.0-dev        # one example and its test run the library under a GLib main loop
  systemd               # busctl: reads velad's replies in the daemon tests without our own decoder
  polkitd libglib2.0-bin  # the real polkitd that velad asks in the tests; gdbus waits for it to start
  man-db                  # man --warnings checks the man pages as lintian does
)

# One dpkg-query for all: a package it does not know is simply not printed.
declare -A installed=()
while read -r name status; do
  if [[ $status == installed ]]; then installed[$name]=1; fi
done < <(dpkg-query -W -f='${Package} ${db:Status-Status}\n' "${packages[@]}" 2>/dev/null || true)
missing=()
for p in "${packages[@]}"; do
  [[ -n ${installed[$p]:-} ]] || missing+=("$p")
done

if ((${#missing[@]} == 0)); then
  exit 0
fi

echo "deps.sh: installing ${missing[*]}"
sudo=()
if ((EUID != 0)); then
  if ! command -v sudo >/dev/null; then
    echo "deps.sh: missing packages (${missing[*]}); run this script as root" >&2
    exit 1
  fi
  sudo=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -q
"${sudo[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
