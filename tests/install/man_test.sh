#!/usr/bin/env bash
# Renders the manual pages with man and groff, failing on any warning, and
# checks that they cover what the tools have: every talvexctl command and
# boot option (talvexctl_words.sh), every talvexsim command and every option
# its own help names.
#
#   man_test.sh SOURCE_DIR TALVEXSIM
# Exit 77: neither man nor groff is installed.
set -uo pipefail

src=$1 sim=$2
docs=$src/docs
failures=0

fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

have_man=0 have_groff=0
command -v man >/dev/null && have_man=1
command -v groff >/dev/null && have_groff=1
if ((!have_man && !have_groff)); then
    echo "neither man nor groff is installed: skipped"
    exit 77
fi
export LC_ALL=C.UTF-8 MANWIDTH=80 MAN_KEEP_FORMATTING=

declare -A text
for page in talvexctl.1 talvexsim.1; do
    [ -f "$docs/$page" ] || { fail "no $docs/$page"; continue; }
    if ((have_groff)); then
        warnings=$(groff -man -ww -z -Tutf8 "$docs/$page" 2>&1) || fail "groff fails on $page"
        [ -z "$warnings" ] || fail "groff warns on $page:"$'\n'"$warnings"
    fi
    if ((have_man)); then
        rendered=$(man --warnings=w -E UTF-8 -l "$docs/$page" 2>"${TMPDIR:-/tmp}/man_test.$$") ||
            fail "man fails on $page"
        warnings=$(cat "${TMPDIR:-/tmp}/man_test.$$")
        rm -f "${TMPDIR:-/tmp}/man_test.$$"
        [ -z "$warnings" ] || fail "man warns on $page:"$'\n'"$warnings"
    else
        rendered=$(groff -man -Tutf8 -P-cbou "$docs/$page" 2>/dev/null)
    fi
    # Plain text: no overstrike, whatever the renderer did.
    text[$page]=$(sed 's/.\x08//g' <<<"$rendered")
    for section in NAME SYNOPSIS DESCRIPTION "EXIT STATUS" ENVIRONMENT EXAMPLES "SEE ALSO"; do
        grep -q "^$section\$" <<<"${text[$page]}" || fail "$page has no $section section"
    done
done

# An entry of the command list: a line at the entries' indent that starts
# with the word, possibly after others ("timesync, tymesync").
has_entry() {
    grep -Eq "^ {7}([a-z0-9_]+, )*$2([ ,]|\$)" <<<"${text[$1]}"
}

# talvexctl: every command, hidden ones included, and every boot option.
# shellcheck source=talvexctl_words.sh
source "$(dirname "$0")/talvexctl_words.sh"
for cmd in $talvexctl_commands; do
    has_entry talvexctl.1 "$cmd" || fail "talvexctl.1 has no entry for the command $cmd"
done
for option in $talvexctl_start_options; do
    grep -q -- "$option" <<<"${text[talvexctl.1]}" || fail "talvexctl.1 does not name start's option $option"
done

# talvexsim: every command its help lists, and every option of each.
commands=$("$sim" --help | sed -n '/^Commands:/,/^$/p' | sed -n 's/^  \([a-z]\{1,\}\).*/\1/p')
[ "$(wc -w <<<"$commands")" -ge 8 ] || fail "expected at least 8 commands in talvexsim --help, read: $commands"
for cmd in $commands; do
    has_entry talvexsim.1 "$cmd" || fail "talvexsim.1 has no entry for the command $cmd"
    for option in $("$sim" "$cmd" --help 2>/dev/null | grep -o -- '--[a-z][a-z-]*' | sort -u); do
        grep -q -- "$option" <<<"${text[talvexsim.1]}" || fail "talvexsim.1 does not name $cmd's option $option"
    done
done

if [ "$failures" -ne 0 ]; then
    echo "$failures manual page check(s) failed" >&2
    exit 1
fi
echo "ok: manual pages"
