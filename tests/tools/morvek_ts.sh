#!/usr/bin/env bash
# morvek-ts from the outside (the corpus goes through the same code in TimestampCorpus): the
# output forms, -j, --events, standard input, other encodings and the error paths.
# Usage: morvek_ts.sh PATH_TO_MORVEK_TS
set -euo pipefail
tool="$1"
source "$(dirname "$0")/tool_checks.sh"

# The shipped patterns are found without being named.
check shipped "2024-03-10T07:00:00+00:00" \
  "$(echo 'Mar 10 07:00:00 host sshd[1]: x' | "$tool" --tz UTC --now 2024-03-10T12:00:00Z | cut -f1)"

# A small pattern set of our own, so the checks don't depend on the shipped one.
cat >"$tmp/p.conf" <<'EOF'
# test patterns
[time]
hms   (?<hour>[01]\d|2[0-3]):(?<minute>[0-5]\d):(?<second>[0-5]\d)
      (?:[.,](?<subsecond>\d{1,9}))?
epoch ^(?<utcepoch>\d{10})\b
[date]
iso   (?<year>\d{4})-(?<month>\d\d)-(?<day>\d\d)
EOF
ts() { "$tool" --patterns "$tmp/p.conf" --now 2024-03-10T12:00:00Z "$@"; }

printf 'no time yet\n2024-03-10 01:59:59.123 a\n  continued\n1710054000 epoch\n' >"$tmp/a.log"
check lines "-	no time yet
2024-03-10T01:59:59.123-05:00	2024-03-10 01:59:59.123 a
~2024-03-10T01:59:59.123-05:00	  continued
2024-03-10T07:00:00+00:00	1710054000 epoch" "$(ts --tz America/New_York "$tmp/a.log")"
check epoch "- 1710053999.123 ~1710053999.123 1710054000" \
  "$(ts --tz America/New_York --epoch <"$tmp/a.log" | cut -f1 | tr '\n' ' ' | sed 's/ $//')"
check "spring gap" "1710052200" \
  "$(echo '2024-03-10 02:30:00 x' | ts --tz America/New_York --epoch | cut -f1)"
check "utf-16 input" "2024-03-10T01:59:59.123-05:00	2024-03-10 01:59:59.123 a" \
  "$(sed -n 2p "$tmp/a.log" | iconv -f UTF-8 -t UTF-16 | ts --tz America/New_York)"

printf '2024-03-10 10:00:00 start\n  at a\n  at b\n2024-03-10 10:00:01 next\n' >"$tmp/ev.log"
check events "2024-03-10T10:00:00+00:00	+2	2024-03-10 10:00:00 start
2024-03-10T10:00:01+00:00	+0	2024-03-10 10:00:01 next" "$(ts --tz UTC --events "$tmp/ev.log")"

# Several files: argument order whatever finishes first, names first, "-" is standard input.
for i in $(seq 1 20000); do echo "2024-03-09 11:$((i % 60 / 10))$((i % 10)):0$((i % 10)) line $i"; done >"$tmp/big.log"
seq_out="$(ts --tz UTC "$tmp/big.log" "$tmp/a.log" - "$tmp/ev.log" <"$tmp/ev.log")"
par_out="$(ts --tz UTC -j 3 "$tmp/big.log" "$tmp/a.log" - "$tmp/ev.log" <"$tmp/ev.log")"
check "-j keeps order" "$seq_out" "$par_out"
check "-j names" "$tmp/big.log $tmp/a.log - $tmp/ev.log" \
  "$(echo "$par_out" | cut -f1 | uniq | tr '\n' ' ' | sed 's/ $//')"
check "-j lines" "20012" "$(echo "$par_out" | wc -l)"

ts --tz UTC --summary --events "$tmp/ev.log" "$tmp/a.log" >/dev/null 2>"$tmp/summary"
check summary "summary: lines 5 found 4 previous 0 none 1
summary: continuation 3
summary: time epoch 1
summary: time hms 3
summary: date iso 3" "$(cat "$tmp/summary")"

help="$("$tool" --help)"
for opt in --tz --tz-alias --lookahead --format --prefix --max-days-ago --max-days-hence --now \
  --source --patterns --epoch --events --jobs --summary; do
  [[ "$help" == *"$opt "* ]] || { echo "FAIL --help lacks $opt"; fails=$((fails + 1)); }
done

# Errors: one line on stderr each; usage errors exit 2, the others 1.
printf '[time]\nok  (?<hour>\\d\\d):(?<minute>\\d\\d)\nbad (?<hour>\\d\\d\n' >"$tmp/bad.conf"
check "bad pattern file" "rc=1 lines=1" "$(status --patterns "$tmp/bad.conf" "$tmp/a.log")"
[[ "$(cat "$tmp/err")" == *"bad.conf:3:"* ]] || { echo "FAIL bad pattern line: $(cat "$tmp/err")"; fails=$((fails + 1)); }
check "no pattern file" "rc=1 lines=1" "$(status --patterns "$tmp/none.conf" "$tmp/a.log")"
check "unreadable file" "rc=1 lines=1" "$(status --patterns "$tmp/p.conf" "$tmp/none.log")"
check "unreadable among others" "rc=1 lines=1 out=4" \
  "$(set +e; ts "$tmp/none.log" "$tmp/a.log" >"$tmp/out" 2>"$tmp/err"; echo "rc=$? lines=$(wc -l <"$tmp/err") out=$(wc -l <"$tmp/out")")"
check "bad zone" "rc=1 lines=1" "$(status --patterns "$tmp/p.conf" --tz No/Such_Zone "$tmp/a.log")"
check "bad alias" "rc=1 lines=1" "$(status --patterns "$tmp/p.conf" --tz-alias 'A=B=C' "$tmp/a.log")"
check "bad prefix" "rc=1 lines=1" "$(status --patterns "$tmp/p.conf" --prefix '(' "$tmp/a.log")"
check "bad option" "rc=2 lines=1" "$(status --frobnicate)"
check "bad number" "rc=2 lines=1" "$(status -j many)"

[[ $fails -eq 0 ]] && echo "morvek-ts: all checks passed"
exit "$fails"
