#!/usr/bin/env bash
# The benchmark page generator: two fixed result files in, the expected page out (tables need
# only the standard library); charts are checked too when matplotlib is there. The fixture holds
# interleaved repetitions, ignored aggregates, a failed run, arguments and timing suffixes,
# wall-clock runs, an aggregates-only run, a misnamed benchmark and a group of ours alone.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
data="$root/tests/tools/bench_report"
python=/usr/bin/python3
[ -x "$python" ] || python=python3
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

report() {
  "$python" "$root/tools/bench_report.py" --cpu "Test CPU" --compiler "GNU 12.2.0" \
    --build-type Release "$@" "$data/a.json" "$data/b.json"
}

report --no-charts --out "$tmp/plain" 2>"$tmp/stderr"
diff -u "$data/expected.md" "$tmp/plain/benchmarks.md"
grep -q "BM_Old: not named Group/Case/Ours" "$tmp/stderr"
[ ! -e "$tmp/plain/benchmarks" ]

if ! "$python" -c "import matplotlib" 2>/dev/null; then
  echo "matplotlib missing: charts not checked"
  exit 0
fi
# A chart for each group with a pair; none for a group of ours alone.
mkdir -p "$tmp/charts/benchmarks"
touch "$tmp/charts/benchmarks/Stale.svg"
report --out "$tmp/charts" 2>/dev/null
ls "$tmp/charts/benchmarks" | tr '\n' ' ' | grep -qx "Clock.svg Fmt.svg Lock.svg "
for g in Clock Fmt Lock; do
  grep -q "^!\[$g: peer time / our time\](benchmarks/$g.svg)$" "$tmp/charts/benchmarks.md"
  grep -q "<svg" "$tmp/charts/benchmarks/$g.svg"
done
echo "bench report: ok"
