#!/usr/bin/env python3
"""Prints a table of ratios from Google Benchmark's JSON files.

Benchmarks named TASK/kel and TASK/PEER are compared by their median CPU time; a ratio above 1 means
that the library is faster than the peer. Usage: bench_ratios.py FILE.json...
"""
import json
import os
import statistics
import sys

times = {}
for path in sys.argv[1:]:
    if os.path.getsize(path) == 0:
        continue
    with open(path, encoding="utf-8") as stream:
        for run in json.load(stream)["benchmarks"]:
            if run.get("run_type") == "iteration" and not run.get("error_occurred"):
                scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}[run["time_unit"]]
                parts = run["run_name"].split("/")
                # Google Benchmark puts its own settings behind the name.
                while ":" in parts[-1] or parts[-1] in ("real_time", "process_time", "manual_time"):
                    parts.pop()
                times.setdefault("/".join(parts), []).append(
                    (run["real_time"] if "real_time" in run["run_name"] else run["cpu_time"]) * scale)

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
