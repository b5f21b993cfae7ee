#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# run_paths_test.sh ELF...: fails when the run path of any ELF file given has
# an empty entry. The dynamic linker reads an empty entry as the current
# directory, so a program started from elsewhere would look for its
# libraries, libc included, in whatever directory it was started in.
set -euo pipefail
command -v readelf >/dev/null || { echo "readelf is not installed"; exit 77; }

status=0
checked=0
for file in "$@"; do
  [[ -n $file ]] || continue  # a program built without its installed run path
  dynamic=$(readelf -d "$file")
  while IFS= read -r path; do
    if [[ $path == :* || $path == *: || $path == *::* ]]; then
      echo "$file: run path '$path' has an empty entry"
      status=1
    fi
  done < <(sed -n 's/.*(R\(UN\)\{0,1\}PATH).*\[\(.*\)\]$/\2/p' <<<"$dynamic")
  checked=$((checked + 1))
done
[[ $checked -gt 0 ]] || { echo "no file to check"; exit 2; }
exit "$status"
