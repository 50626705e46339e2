#!/usr/bin/env bash
# morvek-tz's text verbs: the TZ estimate, and a zone written as serialized text and rebuilt
# from it, from a file and from standard input.
# Usage: morvek_tz_text.sh PATH_TO_MORVEK_TZ
set -euo pipefail
tz="$1"
tmp="$(mktemp -d)"
trap 'rm -rf "$tmp"' EXIT

fail() { echo "FAIL: $*" >&2; exit 1; }
expect() {  # expect WANT COMMAND...
    local want="$1" got
    shift
    got="$("$@")" || fail "$* exited with $?"
    [[ "$got" == "$want" ]] || fail "$*: got '$got', want '$want'"
}

expect "EST5EDT,M3.2.0,M11.1.0" "$tz" tzstring America/New_York 1732000000
expect "JST-9" "$tz" tzstring Asia/Tokyo 2024-11-19T00:00:00Z

"$tz" serialize America/New_York >"$tmp/ny.txt"

# The rebuilt zone starts with its one change before 1970 and agrees with the original after.
"$tz" deserialize "$tmp/ny.txt" >"$tmp/rebuilt"
expect "1969-10-26T06:00:00Z 1969-10-26T01:00:00 -05:00 EST isdst=0" head -n 1 "$tmp/rebuilt"
"$tz" dump America/New_York 1970 2040 >"$tmp/original"
diff <(grep '^19[7-9]\|^20[0-3]' "$tmp/original") <(grep '^19[7-9]\|^20[0-3]' "$tmp/rebuilt") ||
    fail "rebuilt New York differs from the original"
"$tz" deserialize - <"$tmp/ny.txt" | cmp -s - "$tmp/rebuilt" || fail "stdin reads differently"

# Refusals: exit status 1.
printf 'garbage\n$\n' >"$tmp/bad.txt"
for args in "deserialize $tmp/bad.txt" "deserialize $tmp/missing.txt" "tzstring No/Such_Zone" \
            "tzstring UTC yesterday"; do
    status=0
    # shellcheck disable=SC2086
    "$tz" $args >/dev/null 2>&1 || status=$?
    [[ $status -eq 1 ]] || fail "$args: status $status"
done
echo "ok"
