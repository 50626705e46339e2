#!/usr/bin/env bash
# morvek-tz from the outside: its output forms, its errors, and a pack the library then reads.
# Usage: morvek_tz.sh PATH_TO_MORVEK_TZ
set -euo pipefail
tool="$1"
source "$(dirname "$0")/tool_checks.sh"

help="$("$tool" --help)"
for verb in dump at pack ls --zoneinfo; do
  [[ "$help" == *"$verb"* ]] || { echo "FAIL --help lacks $verb"; fails=$((fails + 1)); }
done

check dump "2024-03-10T07:00:00Z 2024-03-10T03:00:00 -04:00 EDT isdst=1
2024-11-03T06:00:00Z 2024-11-03T01:00:00 -05:00 EST isdst=0" "$("$tool" dump America/New_York 2024 2024)"
check "dump sorts" "$("$tool" dump Europe/London | sort)" "$("$tool" dump Europe/London)"
check at "1970-01-01T00:00:00Z 1970-01-01T05:30:00 +05:30 IST isdst=0
2024-07-01T12:00:00Z 2024-07-01T17:30:00 +05:30 IST isdst=0" \
  "$("$tool" at Asia/Kolkata 0 2024-07-01T12:00:00Z)"
check "at offset" "2024-07-01T12:00:00Z 2024-07-01T13:00:00 +01:00 BST isdst=1" \
  "$("$tool" at Europe/London '2024-07-01 08:00:00-04:00')"
check "at overlap" "2024-11-03T05:30:00Z 2024-11-03T01:30:00 -04:00 EDT isdst=1
2024-11-03T06:30:00Z 2024-11-03T01:30:00 -05:00 EST isdst=0" \
  "$("$tool" at America/New_York 2024-11-03T01:30)"
check "at gap" "rc=1 lines=1" "$(status at America/New_York 2024-03-10T02:30)"
check "unknown zone" "rc=1 lines=1" "$(status dump No/Such_Zone)"
check "bad time" "rc=1 lines=1" "$(status at UTC 2024-13-01)"
check "bad year" "rc=1 lines=1" "$(status dump UTC 19x0)"
check "unknown verb" "rc=2 lines=1" "$(status frobnicate)"
check "arguments" "rc=2 lines=1" "$(status pack only-one)"
check "bad directory" "rc=1 lines=1" "$(status pack "$tmp/none" "$tmp/x.tzpack")"
check "not a pack" "rc=1 lines=1" "$(status ls "$tool")"

if [[ -x /usr/sbin/zic ]]; then
  printf 'Zone Packed/Test_Zone 3:15 - PTZ\nZone Other 0 - OTH\n' >"$tmp/src.zi"
  /usr/sbin/zic -d "$tmp/src" "$tmp/src.zi"
  "$tool" pack "$tmp/src" "$tmp/z.tzpack"
  check ls "other	$(stat -c %s "$tmp/src/Other")
packed/test_zone	$(stat -c %s "$tmp/src/Packed/Test_Zone")" "$("$tool" ls "$tmp/z.tzpack")"
  check "pack read back" "1970-01-01T00:00:00Z 1970-01-01T03:15:00 +03:15 PTZ isdst=0" \
    "$("$tool" --zoneinfo "$tmp/z" at PACKED/test_zone 0)"
fi
[[ $fails -eq 0 ]] && echo "morvek-tz: all checks passed"
exit "$fails"
