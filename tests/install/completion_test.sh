#!/usr/bin/env bash
# Drives the bash completion of talvexctl and talvexsim as bash does on Tab
# and checks the candidates: talvexctl's against its words written out in
# talvexctl_words.sh, talvexsim's against its own help.
#
#   completion_test.sh SCRIPT TALVEXCTL TALVEXSIM
set -uo pipefail

script=$1 ctl=$2 sim=$3
failures=0
# talvexsim's completion asks the talvexsim being completed for its words.
PATH="$(dirname "$sim"):$PATH"

fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

# shellcheck source=/dev/null
source "$script" || { echo "FAIL: cannot source $script" >&2; exit 1; }

# The completion function bound to a command, as `complete -p` shows it.
function_for() {
    complete -p "$1" 2>/dev/null | sed -n 's/.*-F \([^ ]*\) .*/\1/p'
}
ctl_fn=$(function_for talvexctl)
sim_fn=$(function_for talvexsim)
[ -n "$ctl_fn" ] || { echo "FAIL: nothing completes talvexctl" >&2; exit 1; }
[ -n "$sim_fn" ] || { echo "FAIL: nothing completes talvexsim" >&2; exit 1; }

# The sorted candidates, one line, for a command line typed up to its end
# (a trailing blank starts a new, empty word).
candidates() {
    local line=$1
    COMP_LINE=$line
    COMP_POINT=${#line}
    read -r -a COMP_WORDS <<<"$line"
    [[ $line == *" " ]] && COMP_WORDS+=("")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMPREPLY=()
    local fn=$ctl_fn
    [[ ${COMP_WORDS[0]} == talvexsim ]] && fn=$sim_fn
    "$fn" "${COMP_WORDS[0]}" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]:-}"
    printf '%s\n' "${COMPREPLY[@]}" | sed '/^$/d' | sort -u | tr '\n' ' ' | sed 's/ $//'
}

sorted() { tr ' ' '\n' <<<"$*" | sed '/^$/d' | sort -u | tr '\n' ' ' | sed 's/ $//'; }

expect() {
    local line=$1 want
    want=$(sorted "$2")
    local got
    got=$(candidates "$line")
    [ "$got" == "$want" ] || fail "'$line'"$'\n'"  expected: $want"$'\n'"  got:      $got"
}

# Candidates that must include every word of a list (the list comes from the
# tool itself, so a new option shows up here before it reaches a user).
expect_all_of() {
    local line=$1 word got
    got=" $(candidates "$line") "
    for word in $2; do
        [[ $got == *" $word "* ]] || fail "'$line' does not offer $word (offers:$got)"
    done
}

# --- talvexctl: every command word, hidden ones too.
# shellcheck source=talvexctl_words.sh
source "$(dirname "$0")/talvexctl_words.sh"
expect "talvexctl " "$talvexctl_commands"
expect "talvexctl h" "halt halt_ms help"
expect "talvexctl nosuch" ""

# Device words: exactly the names the help lists.
devices=$("$ctl" help | sed -n '/^Talvex devices:/,$p' | sed -n 's/^\t\(.*\)/\1/p')
[ "$(wc -w <<<"$devices")" -eq 7 ] || fail "expected 7 devices in the help, read: $devices"
for cmd in readreg writereg listclients sensorinfo perfmon; do
    expect "talvexctl $cmd " "$devices"
done
expect "talvexctl readreg gyro " ""
# get and set take a number, not a name.
expect "talvexctl get " ""

# Subcommand words (one table row of each shape).
expect "talvexctl perfmon accel " "enable disable report auto enabled"
expect "talvexctl profile " "start stop reset print gethitpoint getfunction"
expect "talvexctl i2c " "read write readreg writereg"
expect "talvexctl uart raw " "ap isp bb"
expect "talvexctl uart raw bb --" "--preamble --retry"
expect "talvexctl clkmeasure " "irc ircdiff pll lfosc current"
expect "talvexctl setbaudrate " "112500 750000 1500000 3000000"
expect "talvexctl setstate 0x8" "0x80 0x81 0x82 0x83"

# start: its boot options, then an image file.
expect "talvexctl start --" "$talvexctl_start_options"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/images" && touch "$work/images/fw.bin" "$work/images/fw-debug.bin"
(
    failures=0
    cd "$work/images" || exit 1
    expect "talvexctl start fw" "fw.bin fw-debug.bin"
    expect "talvexctl start --debug fw-" "fw-debug.bin"
    expect "talvexctl start fw.bin " ""
    exit "$failures"
) || failures=$((failures + $?))

# --- talvexsim: its commands and every option its own help names.
commands=$("$sim" --help | sed -n '/^Commands:/,/^$/p' | sed -n 's/^  \([a-z]\{1,\}\).*/\1/p')
[ "$(wc -w <<<"$commands")" -ge 8 ] || fail "expected at least 8 commands in talvexsim --help, read: $commands"
expect "talvexsim " "$commands help"
expect "talvexsim --" "--socket --help"
expect "talvexsim --socket /tmp/x.sock se" "serve service"
expect "talvexsim serve --socket /tmp/x.sock --" "--clock --channels --scenario --exit-with-parent --socket --help"
(
    failures=0
    cd "$work/images" || exit 1
    expect "talvexsim --socket f" "fw.bin fw-debug.bin"
    expect "talvexsim scenario load f" "fw.bin fw-debug.bin"
    expect "talvexsim run --scenario f" "fw.bin fw-debug.bin"
    exit "$failures"
) || failures=$((failures + $?))

# Every option in a command's --help is offered after that command (serve and
# shell: their exact lists above and below).
help_options() { "$sim" "$@" --help | grep -o -- '--[a-z][a-z-]*' | sort -u; }
for line in "run --" "trace --" "stub --" "notify --" "property set key --" "channel set --"; do
    expect_all_of "talvexsim $line" "$(help_options "${line%% *}" | grep -v -- '--socket\|--help')"
done

expect "talvexsim serve --clock " "real step"
expect "talvexsim serve --channels " ""
expect "talvexsim stub --service " "ZantraTalvexProcessor IOReportHub ZantraPowerController ZantraThermalMonitor"
expect "talvexsim stub --o" "--open --output --output-size"
expect "talvexsim notify " "0xe0000130 0xe3ff8100"
expect "talvexsim property " "set delete --help"
expect "talvexsim property set --type " "number string bool data"
expect "talvexsim property delete --" "--service"
expect "talvexsim property delete talvex" "talvex-state"
expect "talvexsim service " "publish unpublish --help"
expect "talvexsim service unpublish ZantraT" "ZantraTalvexProcessor ZantraThermalMonitor"
expect "talvexsim channel " "set release --help"
expect "talvexsim channel release --" "--service --index"
expect "talvexsim load " "auto --help"
expect "talvexsim shell --" "--clock --channels --scenario --help"
expect "talvexsim scenario " "load status clear --help"

# run: its options, then a command from PATH, then that command's files.
mkdir "$work/bin" && printf '#!/bin/sh\n' >"$work/bin/talvexfake" && chmod +x "$work/bin/talvexfake"
PATH="$work/bin:$PATH"
expect "talvexsim run --clock step --" "--clock --channels --scenario -- --help"
expect_all_of "talvexsim run -- talvexf" "talvexfake"
expect_all_of "talvexsim run --clock step talvexf" "talvexfake"
(
    failures=0
    cd "$work/images" || exit 1
    expect "talvexsim run -- talvexfake fw." "fw.bin"
    exit "$failures"
) || failures=$((failures + $?))

if [ "$failures" -ne 0 ]; then
    echo "$failures completion check(s) failed" >&2
    exit 1
fi
echo "ok: completion"
