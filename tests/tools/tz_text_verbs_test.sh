#!/usr/bin/env bash
# The zone tool's text verbs from an installed tree: the TZ estimate, and a zone written as
# serialized text and rebuilt from it, from a file and from standard input.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
build="${MORVEK_BUILD_DIR:-$root/build}"
if [[ ! -f /usr/share/zoneinfo/America/New_York ]]; then
    echo "skipped: tzdata not installed"
    exit 77
fi
prefix="$(mktemp -d)"
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
tz="$prefix/bin/morvek-tz"

fail() { echo "FAIL: $*" >&2; exit 1; }
expect() {  # expect WANT COMMAND...
    local want="$1" got
    shift
    got="$("$@")" || fail "$* exited with $?"
    [[ "$got" == "$want" ]] || fail "$*: got '$got', want '$want'"
}

expect "EST5EDT,M3.2.0,M11.1.0" "$tz" tzstring America/New_York 1732000000
expect "JST-9" "$tz" tzstring Asia/Tokyo 2024-11-19T00:00:00Z
expect "+04-4" "$tz" tzstring Asia/Dubai

"$tz" serialize America/New_York >"$prefix/ny.txt"
expect "### SERIALIZED TIMEZONE FORMAT 1.0" head -n 1 "$prefix/ny.txt"
expect '$' tail -n 1 "$prefix/ny.txt"

# The rebuilt zone starts with its one change before 1970 and agrees with the original after.
"$tz" deserialize "$prefix/ny.txt" >"$prefix/rebuilt"
expect "1969-10-26T06:00:00Z 1969-10-26T01:00:00 -05:00 EST isdst=0" head -n 1 "$prefix/rebuilt"
"$tz" dump America/New_York 1970 2040 >"$prefix/original"
diff <(grep '^19[7-9]\|^20[0-3]' "$prefix/original") <(grep '^19[7-9]\|^20[0-3]' "$prefix/rebuilt") ||
    fail "rebuilt New York differs from the original"
"$tz" deserialize - <"$prefix/ny.txt" | cmp -s - "$prefix/rebuilt" || fail "stdin reads differently"

# Refusals: exit status 1 and one line on standard error.
printf 'garbage\n$\n' >"$prefix/bad.txt"
for args in "deserialize $prefix/bad.txt" "deserialize $prefix/missing.txt" "tzstring No/Such_Zone" \
            "tzstring UTC yesterday"; do
    set +e
    # shellcheck disable=SC2086
    err="$("$tz" $args 2>&1 >/dev/null)"
    status=$?
    set -e
    [[ $status -eq 1 && "$err" == morvek-tz:* ]] || fail "$args: status $status, '$err'"
done
echo "ok"
