#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The project's test command. Installs what is missing (scripts/deps.sh), then
# configures, builds and tests each configuration in turn, stopping at the
# first failure:
#   dev         g++, Debug, -Werror; also builds the benchmarks (never timed)
#   clang       clang++, Debug, -Werror
#   asan-ubsan  AddressSanitizer and UndefinedBehaviorSanitizer
#   tsan        ThreadSanitizer
# then installs the dev build into a temporary prefix and builds a consumer
# against it (scripts/check-install.sh), and finally builds the Debian
# packages and checks them with lintian (scripts/build-packages.sh, without
# their own test run: the configurations above are it). A full run first
# checks that every C++ source obeys .clang-format.
#
#   scripts/test.sh                  everything above
#   scripts/test.sh --preset NAME    one configuration only (any preset with tests)
#
# The last line sums every CTest run: "N passed, M failed".
set -uo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root" || exit 1

presets=(dev clang asan-ubsan tsan)
install_check=1
while (($# > 0)); do
  case $1 in
    --preset)
      [[ $# -ge 2 ]] || { echo "test.sh: --preset needs a name" >&2; exit 2; }
      presets=("$2")
      install_check=0
      shift 2
      ;;
    --preset=*)
      presets=("${1#--preset=}")
      install_check=0
      shift
      ;;
    -h | --help)
      sed -n '3,19p' "${BASH_SOURCE[0]}" | sed 's/^# \{0,1\}//'
      exit 0
      ;;
    *)
      echo "test.sh: unknown argument $1 (try --help)" >&2
      exit 2
      ;;
  esac
done

logs=$(mktemp -d "${TMPDIR:-/tmp}/vela-test.XXXXXX")
trap 'rm -rf "$logs"' EXIT

passed=0
failed=0
results=()
failure=""

# step LABEL COMMAND...: runs the command, records its outcome and duration.
step() {
  local label=$1 start rc
  shift
  printf '\n==== %s\n' "$label"
  start=$SECONDS
  "$@"
  rc=$?
  results+=("$(printf '%-28s %-6s %4ds' "$label" "$( ((rc == 0)) && echo ok || echo FAILED)" $((SECONDS - start)))")
  ((rc == 0)) || failure=$label
  return "$rc"
}

# shellcheck disable=SC2317  # reached through step
# run_ctest PRESET: runs the preset's tests and adds its counts to the totals.
run_ctest() {
  local log=$logs/ctest-$1.log rc line total bad
  ctest --preset "$1" 2>&1 | tee "$log"
  rc=${PIPESTATUS[0]}
  line=$(grep -E '[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -n 1)
  if [[ -n $line ]]; then
    bad=$(sed -E 's/.* ([0-9]+) tests? failed out of.*/\1/' <<<"$line")
    total=$(sed -E 's/.* failed out of ([0-9]+).*/\1/' <<<"$line")
    passed=$((passed + total - bad))
    failed=$((failed + bad))
  fi
  return "$rc"
}

# shellcheck disable=SC2317  # reached through step
# check_format: lists every C++ source that clang-format would change.
check_format() {
  find include src daemon tools examples tests bench \( -name '*.cpp' -o -name '*.h' \) -print0 |
    xargs -0 clang-format --dry-run -Werror
}

run_all() {
  step "dependencies" "$root/scripts/deps.sh" || return 1
  if ((install_check)); then
    step "format" check_format || return 1
  fi
  local preset
  for preset in "${presets[@]}"; do
    step "$preset: configure" cmake --preset "$preset" || return 1
    step "$preset: build" cmake --build --preset "$preset" || return 1
    step "$preset: test" run_ctest "$preset" || return 1
  done
  if ((install_check)); then
    step "install check" "$root/scripts/check-install.sh" "$root/build/dev" || return 1
    step "debian packages" "$root/scripts/build-packages.sh" || return 1
  fi
}

run_all
status=$?

printf '\n==== summary\n'
printf '%s\n' "${results[@]}"
if ((status != 0)); then
  printf 'stopped at: %s\n' "$failure"
fi
printf '%d passed, %d failed\n' "$passed" "$failed"
if ((status == 0 && failed > 0)); then
  status=1
fi
exit "$status"
