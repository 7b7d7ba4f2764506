#!/usr/bin/env python3
"""Prints a table of ratios from Google Benchmark's JSON files.

Benchmarks named TASK/kel and TASK/PEER are compared by their median CPU time, or by the time that
they ask to be measured by; a ratio above 1 means that the library is faster than the peer. Counters
are printed below it. Ends with status 1 when a benchmark skipped itself with an error or there is nothing to compare. Usage:
bench_ratios.py FILE.json...
"""
import json
import statistics
import sys

times = {}
counters = {}
errors = []
for path in sys.argv[1:]:
    with open(path, encoding="utf-8") as stream:
        for run in json.load(stream)["benchmarks"]:
            if run.get("error_occurred"):
                errors.append(f"{run['name']}: {run['error_message']}")
            elif run.get("run_type") == "iteration":
                scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}[run["time_unit"]]
                parts = run["run_name"].split("/")
                # Google Benchmark puts its own settings behind the name.
                while ":" in parts[-1] or parts[-1].isdigit() or parts[-1] in ("real_time", "process_time", "manual_time"):
                    parts.pop()
                name = "/".join(parts)
                # What the benchmark itself has counted, such as memory; times are in the table.
                counters.setdefault(name, {}).update(
                    {key: run[key] for key in ("bytes_per_record", "percent") if key in run})
                by_clock = any(word in run["run_name"] for word in ("real_time", "manual_time"))
                times.setdefault(name, []).append(
                    run["real_time" if by_clock else "cpu_time"] * scale)

medians = {name: statistics.median(values) for name, values in times.items()}
rows = []
for name, ours in sorted(medians.items()):
    task, _, who = name.rpartition("/")
    if who != "kel":
        continue
    for other, theirs in sorted(medians.items()):
        if other.startswith(task + "/") and other.rpartition("/")[0] == task and other != name:
            rows.append((task, other.rpartition("/")[2], ours, theirs))

print(f"{'task':44} {'peer':22} {'kel ns':>14} {'peer ns':>14} {'ratio':>7}")
for task, peer, ours, theirs in rows:
    print(f"{task:44} {peer:22} {ours:14.1f} {theirs:14.1f} {theirs / ours:7.2f}")

for name in sorted(times):
    for counter, value in counters[name].items():
        print(f"{name}: {counter} {value:.1f}")

for error in errors:
    print(f"bench_ratios.py: {error}", file=sys.stderr)
if errors or not rows:
    sys.exit(errors and 1 or "bench_ratios.py: nothing to compare")
