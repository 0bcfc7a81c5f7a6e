#!/usr/bin/env python3
"""Prints each benchmark's median time as a ratio to its baseline.

Baselines are the benchmarks whose names start with BM_Atomic, BM_Raw or
BM_Std (the floor measured in the same run). Each benchmark is compared with
the nearest baseline before it, in registration order; the ratio is what the
figures mean, since absolute times vary between machines and runs.

Peers are the benchmarks whose names start with BM_Peer: another program
doing the same job, measured in the same run. A peer is compared with its
baseline like any other benchmark; the benchmarks after it (up to the next
baseline) are compared with the nearest peer as well.

A benchmark may state targets in its label, separated by commas:
    time <= 1.5x raw        median time at most 1.5 times the baseline's
    time < 1x peer          faster than the peer
    rate >= 0.7x raw        bytes per second at least 0.7 times the baseline's
The relations are <, <=, > and >=; "raw" is the baseline, "peer" the peer,
and a benchmark's own name (BM_...) names that benchmark of the same run.
Every target is printed under its benchmark and once more in a summary at the
end, as met or MISSED.
"""
import json
import re
import sys

BASELINE_PREFIXES = ("BM_Atomic", "BM_Raw", "BM_Std")
PEER_PREFIXES = ("BM_Peer",)
NS_PER_UNIT = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
# Parts that Google Benchmark appends to a name (how the run was set up);
# left out when names are printed.
RUN_SETTING = re.compile(r"/(iterations:\d+|repeats:\d+|min_time:[0-9.]+s?|real_time|manual_time)")
TARGET = re.compile(r"^\s*(time|rate)\s*(<=|>=|<|>)\s*([0-9.]+)x\s*(raw|peer|BM_\w+)\s*$")
RELATIONS = {
    "<": lambda a, b: a < b,
    "<=": lambda a, b: a <= b,
    ">": lambda a, b: a > b,
    ">=": lambda a, b: a >= b,
}


class Result:
    def __init__(self, entry):
        self.name = RUN_SETTING.sub("", entry["run_name"])
        self.time = entry["real_time"]
        self.unit = entry["time_unit"]
        self.ns = self.time * NS_PER_UNIT[self.unit]
        self.rate = entry.get("bytes_per_second")
        self.label = entry.get("label", "")
        self.order = (entry.get("family_index", 0), entry.get("per_family_instance_index", 0))

    def is_baseline(self):
        return self.name.startswith(BASELINE_PREFIXES)

    def is_peer(self):
        return self.name.startswith(PEER_PREFIXES)


def parse_targets(label):
    """The targets of a label; parts that are not targets are ignored."""
    targets = []
    for part in label.split(","):
        match = TARGET.match(part)
        if match:
            kind, relation, factor, reference = match.groups()
            targets.append((kind, relation, float(factor), reference))
    return targets


def check(result, target, references):
    """One target of result: (text, met), met None when it cannot be judged."""
    kind, relation, factor, reference = target
    text = f"{kind} {relation} {factor:g}x {reference}"
    other = references.get(reference)
    if other is None:
        return f"{text}: no {reference} figure before it", None
    if kind == "rate":
        if not result.rate or not other.rate:
            return f"{text}: no byte rate", None
        ratio = result.rate / other.rate
    else:
        ratio = result.ns / other.ns
    met = RELATIONS[relation](ratio, factor)
    return f"{text}: {ratio:.2f} vs {other.name}", met


def describe_rate(result):
    return f"  {result.rate / 2**30:6.2f} GiB/s" if result.rate else ""


def main(path):
    with open(path) as f:
        data = json.load(f)
    results = [Result(b) for b in data["benchmarks"] if b.get("aggregate_name") == "median"]
    results.sort(key=lambda r: r.order)
    by_name = {r.name: r for r in results}
    baseline = None
    peer = None
    summary = []
    for result in results:
        ratios = ""
        if baseline and not result.is_baseline():
            ratios = f"{result.ns / baseline.ns:6.2f}x {baseline.name}"
            if peer and not result.is_peer():
                ratios += f"  {result.ns / peer.ns:6.2f}x {peer.name}"
        print(f"{result.name:45s} {result.time:10.2f} {result.unit:2s}{describe_rate(result)}  {ratios}")
        for target in parse_targets(result.label):
            text, met = check(result, target, {**by_name, "raw": baseline, "peer": peer})
            verdict = {True: "met", False: "MISSED", None: "not judged"}[met]
            print(f"    target {text}: {verdict}")
            summary.append(f"{verdict:10s} {result.name}: {text}")
        if result.is_baseline():
            baseline = result
            peer = None
        elif result.is_peer():
            peer = result
    if summary:
        print("targets:")
        for line in summary:
            print(f"  {line}")


if __name__ == "__main__":
    main(sys.argv[1])
