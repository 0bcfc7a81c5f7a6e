#!/usr/bin/env python3
"""Prints each benchmark's median time as a ratio to its baseline.

A benchmark's baseline is the first benchmark of the file whose name starts
with BM_Atomic, BM_Raw or BM_Std (the floor measured in the same run); the
ratio of each other median to that baseline is what the figures mean, since
absolute times vary between machines and runs.
"""
import json
import sys


def main(path):
    with open(path) as f:
        data = json.load(f)
    medians = [(b["run_name"], b["real_time"], b["time_unit"])
               for b in data["benchmarks"] if b.get("aggregate_name") == "median"]
    baseline = next((m for m in medians
                     if m[0].split("/")[0].startswith(("BM_Atomic", "BM_Raw", "BM_Std"))), None)
    for name, time, unit in medians:
        ratio = f"{time / baseline[1]:6.2f}x {baseline[0]}" if baseline else ""
        print(f"{name:45s} {time:10.2f} {unit}  {ratio}")


if __name__ == "__main__":
    main(sys.argv[1])
