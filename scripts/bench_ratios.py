#!/usr/bin/env python3
"""Prints each benchmark's median time as a ratio to its baseline.

Baselines are the benchmarks whose names start with BM_Atomic, BM_Raw or
BM_Std (the floor measured in the same run). Each benchmark is compared with
the nearest baseline before it in the file; the ratio is what the figures
mean, since absolute times vary between machines and runs.
"""
import json
import sys


def main(path):
    with open(path) as f:
        data = json.load(f)
    medians = [(b["run_name"], b["real_time"], b["time_unit"])
               for b in data["benchmarks"] if b.get("aggregate_name") == "median"]
    baseline = None
    for name, time, unit in medians:
        is_baseline = name.split("/")[0].startswith(("BM_Atomic", "BM_Raw", "BM_Std"))
        ratio = f"{time / baseline[1]:6.2f}x {baseline[0]}" if baseline and not is_baseline else ""
        print(f"{name:45s} {time:10.2f} {unit}  {ratio}")
        if is_baseline:
            baseline = (name, time)


if __name__ == "__main__":
    main(sys.argv[1])
