#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds the Debian packages (libvelanotification0, libvelanotification-dev,
# velad, velactl) from a copy of the work tree, so that the tree itself stays
# clean, and checks them with lintian: any error or warning fails.
#
#   scripts/build-packages.sh [OUT_DIR]
#
# The .deb files land in OUT_DIR (default: build/packages). The package build
# skips the test suite (scripts/test.sh runs it) and uses two jobs. What the
# build needs is installed with apt-get first (as root, or through sudo) when
# dpkg-checkbuilddeps finds it missing.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
out=${1:-$root/build/packages}

step() { printf '== build-packages: %s\n' "$*"; }

sudo=()
if ((EUID != 0)); then
  sudo=(sudo)
fi
apt_get() {
  DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get -q -y --no-install-recommends "$@"
}

tools=(dpkg-dev debhelper lintian)
missing=()
for tool in "${tools[@]}"; do
  [[ $(dpkg-query -W -f='${db:Status-Status}' "$tool" 2>/dev/null) == installed ]] || missing+=("$tool")
done
if ((${#missing[@]} > 0)); then
  step "installing ${missing[*]}"
  apt_get update
  apt_get install "${missing[@]}"
fi
if ! (cd "$root" && dpkg-checkbuilddeps >/dev/null 2>&1); then
  step "installing the build dependencies of debian/control"
  apt_get update
  apt_get build-dep "$root"
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/vela-packages.XXXXXX")
trap 'rm -rf "$work"' EXIT
version=$(cd "$root" && dpkg-parsechangelog -S Version)
source=$work/velanotification-${version%-*}

step "copying the work tree (tracked and new files, nothing ignored)"
mkdir -p "$source"
while IFS= read -r -d '' file; do
  # A tracked file deleted in the work tree is left out, as the tree has it.
  if [[ -e $root/$file || -L $root/$file ]]; then
    (cd "$root" && cp --parents --no-dereference --preserve=mode -- "$file" "$source/")
  fi
done < <(cd "$root" && git ls-files -z --cached --others --exclude-standard)

step "dpkg-buildpackage -us -uc -b"
(cd "$source" && DEB_BUILD_OPTIONS="nocheck parallel=2" dpkg-buildpackage -us -uc -b) >"$work/build.log" 2>&1 || {
  tail -n 60 "$work/build.log" >&2
  echo "build-packages: dpkg-buildpackage failed (the last lines are above)" >&2
  exit 1
}

# Kept for a look even when lintian then refuses them.
mkdir -p "$out"
rm -f "$out"/*.deb
cp "$work"/*.deb "$out"/

changes=("$work"/velanotification_*.changes)
step "lintian ${changes[0]##*/}"
lintian --fail-on error,warning --display-info "${changes[0]}"
step "passed: $(cd "$out" && echo *.deb)"
