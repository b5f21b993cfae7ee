#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# velactl's bash completion, run against velactl itself: completing offers
# exactly the commands and options that velactl's --help lists, at every
# level; leaves option values alone, but for --tokens-from, which takes a
# file, and monitor's --name, which takes a notification name; and every
# command's --help ends with an example of it.
#
#   completion_test.sh VELACTL COMPLETION_SCRIPT
set -uo pipefail

velactl=$1
# shellcheck source=/dev/null  # the script under test, named on the command line
source "$2"

failures=0
fail() {
  printf 'FAIL: %s\n' "$*" >&2
  failures=$((failures + 1))
}

# offered WORD...: what completing the last WORD offers, sorted, one a line.
offered() {
  COMP_WORDS=("$velactl" "$@")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMPREPLY=()
  _velactl
  ((${#COMPREPLY[@]} == 0)) || printf '%s\n' "${COMPREPLY[@]}" | sort
}

# From a --help text on stdin: the commands of its "Subcommands:" section,
# and the option names of its "Options:" section.
listed_commands() { sed -n '/^Subcommands:$/,/^$/p' | awk '/^  [^ ]/ { print $1 }' | sort; }
listed_options() {
  sed -n '/^Options:$/,/^$/p' | awk '/^  [^ ]/ { print $1 }' | tr ',' '\n' | sed 's/{.*}$//' |
    grep '^-' | sort -u
}

# expect_same WHAT EXPECTED ACTUAL
expect_same() {
  if [[ $2 != "$3" ]]; then
    fail "$1: expected [$(echo "$2" | tr '\n' ' ')], got [$(echo "$3" | tr '\n' ' ')]"
  fi
}

# check_command WORD...: the command's subcommands and options complete as
# its --help lists them, and its help shows how to run it. Recurses.
commands_seen=0
check_command() {
  local help
  if ! help=$("$velactl" "$@" --help); then
    fail "velactl $* --help failed"
    return
  fi
  local commands options
  commands=$(listed_commands <<<"$help")
  options=$(listed_options <<<"$help")
  [[ -n $options ]] || fail "velactl $* --help lists no options"
  expect_same "velactl $* <TAB>" "$commands" "$(offered "$@" "")"
  expect_same "velactl $* -<TAB>" "$options" "$(offered "$@" -)"

  if (($# > 0)); then
    commands_seen=$((commands_seen + 1))
    local example
    example=$(grep -A1 '^Example:$' <<<"$help" | tail -n +2)
    [[ $example == *"velactl"*" $*"* ]] || fail "velactl $* --help has no example of it: '$example'"
  fi
  local command
  for command in $commands; do
    check_command "$@" "$command"
  done
}

check_command
# 28 commands and prefs' four: a parse of --help that found none would
# otherwise pass.
((commands_seen >= 32)) || fail "only $commands_seen commands were found in velactl's --help"

# Options before the command, and their values, do not hide it.
expect_same "velactl --json prefs <TAB>" "$(printf '%s\n' get list remove set)" "$(offered --json prefs "")"
expect_same "velactl prefs get --domain d <TAB>" "" "$(offered prefs get --domain d "")"
# An option's value is not completed as a command or option...
expect_same "velactl prefs list --domain <TAB>" "" "$(offered prefs list --domain "")"
expect_same "velactl locus-state --wait-ms=<TAB>" "" "$(offered locus-state --wait-ms = "")"
# ...and a finished command is not followed by another.
expect_same "velactl locus-state <TAB>" "" "$(offered locus-state "")"

# --tokens-from takes a file, however it is written.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
touch "$work/tokens.json" "$work/other"
expect_same "velactl add-kith-account --tokens-from <TAB>" "$work/tokens.json" \
  "$(offered add-kith-account --tokens-from "$work/tok")"
expect_same "velactl add-kith-account --tokens-from=<TAB>" "$work/tokens.json" \
  "$(offered add-kith-account --tokens-from = "$work/tok")"

# monitor's --name offers the names it observes by default.
expect_same "velactl monitor --name <TAB>" "$("$velactl" monitor --list-names | sort)" \
  "$(offered monitor --name "")"
expect_same "velactl monitor --name com.zentrex.nimbus.locus.lostmode.e<TAB>" \
  "com.zentrex.nimbus.locus.lostmode.enable" "$(offered monitor --name com.zentrex.nimbus.locus.lostmode.e)"

# The tokens have no option of their own to complete.
if offered add-kith-account -- | grep -qx -e --app-auth-token -e --internal-auth-token; then
  fail "a token option is offered"
fi

if ((failures > 0)); then
  printf '%d failures\n' "$failures" >&2
  exit 1
fi
printf 'completion offers all %d commands with their options\n' "$commands_seen"
