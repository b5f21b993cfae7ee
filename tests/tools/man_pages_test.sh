#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The man pages against the programs: each documents every command and
# option the program's --help lists, carries the version the program prints,
# and formats without a warning under the check Debian's lintian makes.
# Exits 77 (skipped) when everything but that check passed and man is not
# installed.
#
#   man_pages_test.sh VELACTL VELAD MAN_DIR
set -uo pipefail

velactl=$1
velad=$2
velactl_page=$3/velactl.1
velad_page=$3/velad.8

failures=0
fail() {
  printf 'FAIL: %s\n' "$*" >&2
  failures=$((failures + 1))
}

# The roff source as words would read: \- is -, and fonts and quotes go.
plain() { sed -e 's/\\%//g' -e 's/\\-/-/g' -e 's/\\f[BIRP]//g' -e 's/"//g' "$1"; }
listed_commands() { sed -n '/^Subcommands:$/,/^$/p' | awk '/^  [^ ]/ { print $1 }'; }
listed_options() {
  sed -n '/^Options:$/,/^$/p' | awk '/^  [^ ]/ { print $1 }' | tr ',' '\n' | sed 's/{.*}$//' | grep '^--'
}

velactl_text=$(plain "$velactl_page")
velad_text=$(plain "$velad_page")

# Both print the version their page is for.
version=$(sed -n 's/^\.TH [A-Z]* [0-9] [^ ]* "VelaNotification \([^"]*\)".*/\1/p' "$velactl_page")
[[ -n $version ]] || fail "velactl.1 has no version in .TH"
[[ $("$velactl" --version) == "velactl $version" ]] || fail "velactl --version: $("$velactl" --version)"
[[ $("$velad" --version) == "velad $version" ]] || fail "velad --version: $("$velad" --version)"
grep -q "^\.TH VELAD 8 [^ ]* \"VelaNotification $version\"" "$velad_page" || fail "velad.8 is not for $version"

# Every command has a paragraph of its own, and every option is named.
# document_commands WORD...: the command's and its subcommands', recursively.
commands_seen=0
document_commands() {
  local help command option
  help=$("$velactl" "$@" --help) || fail "velactl $* --help failed"
  if (($# > 0)); then
    commands_seen=$((commands_seen + 1))
    grep -Eq "^\.(B|BR|BI) $*( |$)" <<<"$velactl_text" || fail "velactl.1 has no paragraph for '$*'"
  fi
  for option in $(listed_options <<<"$help"); do
    grep -Eq -- "(^| |\[)$option( |$|\]|,)" <<<"$velactl_text" || fail "velactl.1 does not name $option of '$*'"
  done
  for command in $(listed_commands <<<"$help"); do
    document_commands "$@" "$command"
  done
}
document_commands
((commands_seen >= 32)) || fail "only $commands_seen commands were found in velactl's --help"

for option in $("$velad" --help | listed_options); do
  grep -Eq -- "^\.(B|BI|BR) $option( |$|,)" <<<"$velad_text" || fail "velad.8 has no paragraph for $option"
done
# What a reader of velad.8 must find there.
for needed in STATE_DIRECTORY VELA_SERVICE_PREFERENCES_PATH /var/lib/vela/state.sqlite3 \
  /var/lib/vela/preferences.sqlite3 velad.service $(sed -n 's/.*<action id="\([^"]*\)".*/\1/p' \
    "$(dirname "$0")/../../data/polkit/com.zentrex.VelaNotification.policy"); do
  grep -Fq -- "$needed" <<<"$velad_text" || fail "velad.8 does not mention $needed"
done
for section in NAME SYNOPSIS DESCRIPTION OPTIONS "EXIT STATUS" ENVIRONMENT FILES EXAMPLES "SEE ALSO"; do
  grep -q "^\.SH \"\?$section\"\?$" "$velactl_page" || fail "velactl.1 has no $section section"
  grep -q "^\.SH \"\?$section\"\?$" "$velad_page" || fail "velad.8 has no $section section"
done

if ((failures > 0)); then
  printf '%d failures\n' "$failures" >&2
  exit 1
fi

if ! command -v man >/dev/null; then
  echo "man is not installed: the pages were not linted"
  exit 77
fi
# lintian's check: any warning from groff or man is a failure.
for page in "$velactl_page" "$velad_page"; do
  warnings=$(LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=80 man --warnings -E UTF-8 -l -Tutf8 -Z "$page" 2>&1 >/dev/null)
  if [[ -n $warnings ]]; then
    fail "$(basename "$page") formats with warnings:"
    printf '%s\n' "$warnings" >&2
  fi
done
((failures == 0)) || exit 1
printf 'both pages document all %d commands and every option, and format cleanly\n' "$commands_seen"
