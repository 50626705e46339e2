#!/usr/bin/env python3
"""Turn Google Benchmark JSON files into one readable page: docs/benchmarks.md.

Benchmarks are named Group/Case/Ours or Group/Case/<peer>, optionally followed by
the arguments Google Benchmark appends (Mutex/contended/Ours/4/real_time). The
arguments are folded into the case ("contended/4"); the time-kind and run-control
suffixes are dropped. Each group gets a table (case, our median time with its
spread, each peer's, and the ratio peer/ours: above 1 means ours is faster) and,
when matplotlib is importable, an SVG bar chart of the ratios beside the page.

Usage:
  bench_report.py [--out DIR] [--no-charts] [--build-dir DIR] [--cpu TEXT]
                  [--compiler TEXT] [--build-type TEXT] [--note TEXT] JSON...

Writes DIR/benchmarks.md and DIR/benchmarks/<Group>.svg (DIR defaults to docs).
Names that do not follow the convention are listed on stderr and left out.
"""

import argparse
import glob
import json
import math
import os
import re
import statistics
import sys
from collections import OrderedDict

OURS = "Ours"
UNIT_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
# Suffixes Google Benchmark adds that say how a run was timed, not what it measured.
CONTROL_SUFFIX = re.compile(
    r"^(real_time|process_time|manual_time|(min_time|min_warmup_time|iterations|repeats):.*)$")
WALL_CLOCK = {"real_time", "manual_time"}


class Entry:
    """Every repetition of one implementation of one case."""

    def __init__(self, wall):
        self.samples = []
        self.wall = wall

    @property
    def median(self):
        return statistics.median(self.samples)

    @property
    def spread(self):
        """Half the distance between the slowest and fastest repetition, relative to the median."""
        if len(self.samples) < 2 or self.median <= 0:
            return None
        return (max(self.samples) - min(self.samples)) / 2 / self.median


def split_name(run_name):
    """(group, case, impl, wall_clock) or None when the name breaks the convention."""
    parts = run_name.split("/")
    if len(parts) < 3 or not all(parts[:3]):
        return None
    extra = [p for p in parts[3:] if not CONTROL_SUFFIX.match(p)]
    wall = any(p in WALL_CLOCK for p in parts[3:])
    return parts[0], "/".join([parts[1]] + extra), parts[2], wall


def load(paths):
    """Groups as {group: {case: {impl: Entry}}} in registration order, plus the run contexts."""
    runs, contexts, bad = [], [], []
    aggregate_medians = {}
    for file_index, path in enumerate(paths):
        with open(path, encoding="utf-8") as f:
            doc = json.load(f)
        contexts.append(doc.get("context", {}))
        for b in doc.get("benchmarks", []):
            if b.get("error_occurred"):
                continue
            run_name = b.get("run_name", b["name"])
            key = (file_index, b.get("family_index", 0), b.get("per_family_instance_index", 0))
            if b.get("run_type") == "aggregate":
                if b.get("aggregate_name") == "median":
                    aggregate_medians[run_name] = (key, b)
                continue
            runs.append((key, run_name, b))
    seen = {name for _, name, _ in runs}
    # Runs reported as aggregates only still give one figure each: their median.
    runs += [(key, name, b) for name, (key, b) in aggregate_medians.items() if name not in seen]
    runs.sort(key=lambda r: r[0])

    groups = OrderedDict()
    for _, run_name, b in runs:
        parsed = split_name(run_name)
        if parsed is None:
            if run_name not in bad:
                bad.append(run_name)
            continue
        group, case, impl, wall = parsed
        impls = groups.setdefault(group, OrderedDict()).setdefault(case, OrderedDict())
        e = impls.setdefault(impl, Entry(wall))
        t = b["real_time"] if wall else b["cpu_time"]
        e.samples.append(t * UNIT_NS[b.get("time_unit", "ns")])
    return groups, contexts, bad


def peers_of(cases):
    peers = []
    for impls in cases.values():
        peers += [i for i in impls if i != OURS and i not in peers]
    return peers


def fmt_time(ns):
    for unit, scale in (("ns", 1.0), ("µs", 1e3), ("ms", 1e6)):
        if ns < scale * 999.5:
            break
    else:
        unit, scale = "s", 1e9
    v = ns / scale
    digits = 0 if v >= 99.95 else 1 if v >= 9.995 else 2
    return f"{v:.{digits}f} {unit}"


def fmt_entry(e):
    if e is None:
        return "–"
    text = fmt_time(e.median)
    if e.spread is not None:
        text += f" ±{e.spread * 100:.0f}%"
    return text


def plain_ratio(r):
    return f"{r:.2f}×" if r < 99.5 else f"{r:.0f}×"


def fmt_ratio(r):
    if r is None:
        return "–"
    # Behind only where it shows: 0.998 prints as 1.00.
    return f"**{plain_ratio(r)} behind**" if r < 0.995 else plain_ratio(r)


def ratio(impls, peer):
    if OURS in impls and peer in impls and impls[OURS].median > 0:
        return impls[peer].median / impls[OURS].median
    return None


def group_table(cases):
    peers = peers_of(cases)
    head = ["Case", "Ours"]
    for p in peers:
        head += [p, f"{p}/ours"]
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" + "---:|" * (len(head) - 1)]
    for case, impls in cases.items():
        wall = any(e.wall for e in impls.values())
        row = [case + (" (wall)" if wall else ""), fmt_entry(impls.get(OURS))]
        for p in peers:
            row += [fmt_entry(impls.get(p)), fmt_ratio(ratio(impls, p))]
        lines.append("| " + " | ".join(row) + " |")
    return lines


def summary(groups):
    """One line a group and peer: geometric mean of the ratios, and their range."""
    lines = ["| Group | Peer | Cases | Geometric mean peer/ours | Range |",
             "|---|---|---:|---:|---|"]
    for group, cases in groups.items():
        for p in peers_of(cases):
            rs = [r for r in (ratio(impls, p) for impls in cases.values()) if r is not None]
            if not rs:
                continue
            gm = math.exp(sum(math.log(r) for r in rs) / len(rs))
            span = plain_ratio(min(rs))
            if len(rs) > 1:
                span += f" – {plain_ratio(max(rs))}"
            lines.append(f"| {group} | {p} | {len(rs)} | {fmt_ratio(gm)} | {span} |")
    return lines


def chart_name(group):
    return re.sub(r"[^A-Za-z0-9_.-]", "_", group) + ".svg"


def draw_chart(group, cases, path):
    import matplotlib
    matplotlib.use("Agg")
    matplotlib.rcParams["svg.hashsalt"] = "morvek"  # stable ids: the file only changes with data
    matplotlib.rcParams["svg.fonttype"] = "none"  # text stays text: small files, the page's font
    import matplotlib.pyplot as plt
    import matplotlib.ticker

    bars = []
    for case, impls in cases.items():
        for p in peers_of({case: impls}):
            r = ratio(impls, p)
            if r is not None:
                bars.append((f"{case} · {p}", r))
    if not bars:
        return False
    bars.reverse()  # first case on top
    fig, ax = plt.subplots(figsize=(7.5, 0.9 + 0.32 * len(bars)))
    ys = range(len(bars))
    colors = ["#3a7d44" if r >= 0.995 else "#c0392b" for _, r in bars]
    # Bars grow from the parity line, right where ours is faster, left where it is slower.
    ax.barh(ys, [r - 1 for _, r in bars], left=1, color=colors, height=0.6)
    ax.set_xscale("log")
    ax.axvline(1.0, color="black", linewidth=1)
    ax.set_yticks(list(ys))
    ax.set_yticklabels([label for label, _ in bars], fontsize=8)
    lo = min(min(r for _, r in bars), 1.0) / 1.6
    hi = max(max(r for _, r in bars), 1.0) * 1.9
    ax.set_xlim(lo, hi)
    ticks = [m * 10.0**e for e in range(-4, 5) for m in (1, 2, 5) if lo <= m * 10.0**e <= hi]
    ax.set_xticks(ticks)
    ax.set_xticklabels([f"{t:g}×" for t in ticks])
    ax.xaxis.set_minor_locator(matplotlib.ticker.NullLocator())
    for y, (_, r) in zip(ys, bars):
        if r >= 1:
            ax.text(r * 1.05, y, plain_ratio(r), va="center", fontsize=7)
        else:
            ax.text(r / 1.05, y, plain_ratio(r), va="center", ha="right", fontsize=7)
    ax.set_xlabel("peer time / our time (log scale; right of the line: ours is faster)", fontsize=8)
    ax.set_title(group, fontsize=10)
    ax.tick_params(axis="x", labelsize=7)
    fig.tight_layout()
    fig.savefig(path, format="svg", metadata={"Date": None})
    plt.close(fig)
    return True


def cmake_facts(build_dir):
    """(compiler, build type) as the build directory's CMake cache records them."""
    compiler = build_type = None
    cache = os.path.join(build_dir, "CMakeCache.txt")
    if os.path.exists(cache):
        with open(cache) as f:
            for line in f:
                if line.startswith("CMAKE_BUILD_TYPE:"):
                    build_type = line.split("=", 1)[1].strip() or None
    for path in glob.glob(os.path.join(build_dir, "CMakeFiles", "*", "CMakeCXXCompiler.cmake")):
        facts = {}
        with open(path) as f:
            for line in f:
                m = re.match(r'set\((CMAKE_CXX_COMPILER_(?:ID|VERSION)) "(.*)"\)', line)
                if m:
                    facts[m.group(1)] = m.group(2)
        if facts:
            compiler = " ".join(facts.get(k, "") for k in ("CMAKE_CXX_COMPILER_ID",
                                                           "CMAKE_CXX_COMPILER_VERSION")).strip()
    return compiler, build_type


def cpu_model():
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    return line.split(":", 1)[1].strip()
    except OSError:
        pass
    return "unknown CPU"


def machine_lines(contexts, args):
    ctx = contexts[0] if contexts else {}
    compiler, build_type = cmake_facts(args.build_dir) if args.build_dir else (None, None)
    cpu = args.cpu or cpu_model()
    cores = ctx.get("num_cpus", "?")
    line = (f"Machine: {cpu}, {cores} cores; compiler {args.compiler or compiler or 'unknown'}; "
            f"{args.build_type or build_type or 'unknown'} build. "
            f"Run on {ctx.get('date', '?')[:10]}.")
    lines = [line]
    loads = [c["load_avg"][0] for c in contexts if c.get("load_avg")]
    if loads:
        busy = isinstance(cores, int) and max(loads) > cores
        lines.append(f"Load average (1 min) when each binary started: up to {max(loads):.1f}"
                     + (" — the machine was busy, so the figures are noisy." if busy else "."))
    if any(c.get("cpu_scaling_enabled") for c in contexts):
        lines.append("CPU frequency scaling was on, which adds noise.")
    if args.note:
        lines.append(args.note)
    return lines


def render(groups, contexts, args, charts):
    reps = sorted({len(e.samples) for cases in groups.values()
                   for impls in cases.values() for e in impls.values()})
    rep_text = "/".join(str(r) for r in reps) if reps else "0"
    rep_text += " repetition" if reps == [1] else " repetitions"
    out = ["# Benchmarks", "",
           "Written by `./bench.sh` (tools/bench_report.py) from Google Benchmark runs; "
           "do not edit by hand.", ""]
    out += [" ".join(machine_lines(contexts, args)), ""]
    out += [f"Each time is the median of {rep_text} (CPU time; wall-clock time for "
            "cases marked \"(wall)\"), ± half the gap between the slowest and the fastest "
            "repetition. A ratio is the peer's time over ours: above 1 ours is faster; "
            "**bold \"behind\"** marks where ours is slower.", ""]
    out += ["## Summary", ""] + summary(groups) + [""]
    for group, cases in groups.items():
        out += [f"## {group}", ""]
        if group in charts:
            out += [f"![{group}: peer time / our time](benchmarks/{charts[group]})", ""]
        out += group_table(cases) + [""]
    return "\n".join(out)


def main(argv):
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("json", nargs="+")
    ap.add_argument("--out", default="docs")
    ap.add_argument("--no-charts", action="store_true")
    ap.add_argument("--build-dir")
    ap.add_argument("--cpu")
    ap.add_argument("--compiler")
    ap.add_argument("--build-type")
    ap.add_argument("--note")
    args = ap.parse_args(argv)

    groups, contexts, bad = load(args.json)
    for name in bad:
        print(f"bench_report: {name}: not named Group/Case/Ours or Group/Case/<peer>; left out",
              file=sys.stderr)

    chart_dir = os.path.join(args.out, "benchmarks")
    charts = {}
    if not args.no_charts:
        try:
            import matplotlib  # noqa: F401
        except ImportError:
            print("bench_report: matplotlib not found; no charts", file=sys.stderr)
        else:
            os.makedirs(chart_dir, exist_ok=True)
            for old in glob.glob(os.path.join(chart_dir, "*.svg")):
                os.remove(old)
            for group, cases in groups.items():
                if draw_chart(group, cases, os.path.join(chart_dir, chart_name(group))):
                    charts[group] = chart_name(group)

    os.makedirs(args.out, exist_ok=True)
    with open(os.path.join(args.out, "benchmarks.md"), "w", encoding="utf-8") as f:
        f.write(render(groups, contexts, args, charts))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
