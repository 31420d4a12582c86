#!/usr/bin/env python3
"""Runs every benchmark program of a build and writes one table of the ratios
they measure (library against its baseline, same run) with the project's
goals, as Markdown.

usage: bench_report.py BENCH_DIR OUTPUT.md
"""
import datetime
import glob
import os
import platform
import re
import subprocess
import sys

# Goals by ratio label: (regular expression, goal text, largest ratio that
# meets it, or None when the figure is reported without a goal).
GOALS = [
    (r"CPCritSec enter\+leave / raw recursive mutex", "<= 1.10x", 1.10),
    (r"trace gate, tracing off", "one load and one test (<= 1.05x)", 1.05),
    (r"/ascii_code/ ambit / reference loop", "<= 0.30x", 0.30),
    (r"/latin_greek_cyrillic/ ambit / reference loop", "<= 0.60x", 0.60),
    (r"/cjk/ ambit / reference loop", "<= 0.60x", 0.60),
    (r"/emoji/ ambit / reference loop", "<= 1.00x (never slower)", 1.00),
    (r"ambit / reference loop", "<= 1.00x (never slower)", 1.00),
    (r"ambit / iconv", "<= 0.30x", 0.30),
    (r"SystemTimeToTzSpecificLocalTime / setenv", "<= 0.10x (10x faster)", 0.10),
    (r"SystemTimeToTzSpecificLocalTime / plain localtime_r", "<= 1.50x", 1.50),
    (r"unnamed CPEvent ping-pong / raw", "<= 1.00x", 1.00),
    (r"named CPEvent ping-pong / raw shared", "<= 1.00x", 1.00),
    (r"named CPEvent ping-pong / named semaphores", "<= 1.50x", 1.50),
    (r"named CPSemaphore ping-pong / POSIX named semaphores", "<= 1.20x", 1.20),
    (r"named CPMutex wait\+release / Boost named_mutex \(uncontended\)", "<= 10x", 10.0),
    (r"named CPMutex / Boost named_mutex \(two processes, one CPU\)", "<= 2.00x", 2.00),
    (r"recursive named CPMutex / named CPMutex", "<= 1.50x", 1.50),
]

# Goals for the figures that are not ratios: (regular expression, goal
# text, largest value that meets it).
FIGURE_GOALS = [
    (r"owner SIGKILL to waiter acquisition, median", "<= 5 ms", 5.0),
    (r"owner SIGKILL to waiter acquisition, maximum", "<= 20 ms", 20.0),
]

FIGURE_LINE = re.compile(r"^\s{2}(?P<label>.+?)\s+(?P<value>[0-9.]+) (?P<unit>\S.*?)\s*$")

RATIO_LINE = re.compile(r"^\s{2}(?P<label>.+?)\s+(?P<ratio>[0-9.]+)x(?:\s+(?P<kind>CPU|wall))?\s*$")


def goal_for(label, goals=GOALS):
    for pattern, text, limit in goals:
        if re.search(pattern, label):
            return text, limit
    return "(reported)", None


def run(program):
    cmd = [program, "--benchmark_min_time=0.2", "--benchmark_repetitions=5",
           "--benchmark_report_aggregates_only=true"]
    out = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                         text=True, timeout=1800).stdout
    rows, figures, section = [], [], None
    for line in out.splitlines():
        if line.startswith("Ratios"):
            section = "ratios"
            continue
        if line.startswith("Figures"):
            section = "figures"
            continue
        if section == "ratios":
            m = RATIO_LINE.match(line)
            if m:
                rows.append((m.group("label").strip(), float(m.group("ratio")),
                             m.group("kind") or "CPU"))
        elif section == "figures":
            m = FIGURE_LINE.match(line)
            if m:
                figures.append((m.group("label").strip(), float(m.group("value")),
                                m.group("unit")))
    return rows, figures


def main():
    bench_dir, output = sys.argv[1], sys.argv[2]
    programs = sorted(glob.glob(os.path.join(bench_dir, "ambit_bench_*")))
    lines = [
        "# Benchmark results",
        "",
        "Ratios of the library's time to a baseline measured in the same run "
        "(lower is faster; medians of 5 repetitions). Written by `make bench-report` "
        "on %s, %s, %d cores." % (datetime.date.today().isoformat(), platform.machine(),
                                  os.cpu_count() or 0),
        "",
        "| program | ratio | goal | measured | met |",
        "|---|---|---|---|---|",
    ]
    all_figures = []
    for program in programs:
        name = os.path.basename(program)[len("ambit_bench_"):]
        print("running", name, flush=True)
        rows, figures = run(program)
        for label, ratio, kind in rows:
            text, limit = goal_for(label)
            met = "-" if limit is None else ("yes" if ratio <= limit else "no")
            lines.append("| %s | %s | %s | %.2fx %s | %s |" % (name, label, text, ratio, kind, met))
        all_figures += [(name,) + f for f in figures]
    if all_figures:
        lines += ["", "Figures that are not ratios:", "",
                  "| program | figure | goal | measured | met |", "|---|---|---|---|---|"]
        for name, label, value, unit in all_figures:
            text, limit = goal_for(label, FIGURE_GOALS)
            met = "-" if limit is None else ("yes" if value <= limit else "no")
            lines.append("| %s | %s | %s | %.2f %s | %s |" % (name, label, text, value, unit, met))
    with open(output, "w") as f:
        f.write("\n".join(lines) + "\n")
    print("wrote", output)


if __name__ == "__main__":
    main()
