#!/usr/bin/env bash
# Installs the benchmark peers, builds the benchmarks in Release, runs every one with JSON output
# and writes the report: docs/benchmarks.md and its charts, through tools/bench_report.py.
# Usage: ./bench.sh [--quick] [--filter REGEX] [--out DIR] [--note TEXT]
#   --quick   two short repetitions each: proves everything runs (about a minute), rough figures
#   --filter  only the benchmarks whose Group/Case/Impl name matches REGEX
#   --out     where benchmarks.md and benchmarks/*.svg go. By default only a full, unfiltered run
#             outside CI writes docs/; any other run writes $BUILD_DIR/report.
#   --note    a sentence added under the machine line (for example why figures are noisy)
# BUILD_DIR selects the build directory (default build-bench).
set -euo pipefail
cd "$(dirname "$0")"

quick=0 filter="" out="" note=""
while [ $# -gt 0 ]; do
  case "$1" in
    --quick) quick=1 ;;
    --filter) filter=${2:?--filter needs a REGEX}; shift ;;
    --filter=*) filter=${1#*=} ;;
    --out) out=${2:?--out needs a directory}; shift ;;
    --out=*) out=${1#*=} ;;
    --note) note=${2:?--note needs a text}; shift ;;
    -h|--help) sed -n '2,10p' "$0"; exit 0 ;;
    *) echo "unknown option: $1" >&2; exit 2 ;;
  esac
  shift
done

tools/install-deps.sh --bench
build=${BUILD_DIR:-build-bench}
if [ -z "$out" ]; then
  if [ "$quick" = 1 ] || [ -n "$filter" ] || [ "${CI:-}" = true ]; then out="$build/report"; else out=docs; fi
fi
python=/usr/bin/python3
[ -x "$python" ] || python=python3

targets=()
for src in bench/*_bench.cpp; do targets+=("$(basename "$src" .cpp)"); done
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DMORVEK_BENCHMARKS=ON \
  -DMORVEK_TESTS=OFF >/dev/null
cmake --build "$build" --target "${targets[@]}"

# The full run keeps about ten minutes on two cores; repetitions are interleaved so that a burst
# of load elsewhere spreads over many benchmarks instead of spoiling one.
if [ "$quick" = 1 ]; then
  flags=(--benchmark_repetitions=2 --benchmark_min_time=0.02)
else
  flags=(--benchmark_repetitions=6 --benchmark_min_time=0.25 --benchmark_enable_random_interleaving=true)
fi
[ -n "$filter" ] && flags+=("--benchmark_filter=$filter")

results="$build/bench-results"
rm -rf "$results"
mkdir -p "$results"
for t in "${targets[@]}"; do
  bin="$build/bench/$t"
  if [ -n "$filter" ] && [ -z "$("$bin" --benchmark_list_tests "--benchmark_filter=$filter" 2>/dev/null)" ]; then
    continue
  fi
  start=$SECONDS
  "$bin" --benchmark_format=json "${flags[@]}" >"$results/$t.json"
  echo "$t: $((SECONDS - start)) s"
done

shopt -s nullglob
jsons=("$results"/*.json)
if [ ${#jsons[@]} -eq 0 ]; then echo "no benchmark matches '$filter'" >&2; exit 1; fi
"$python" tools/bench_report.py --out "$out" --build-dir "$build" ${note:+--note "$note"} "${jsons[@]}"
echo "wrote $out/benchmarks.md"
