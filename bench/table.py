#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Turns the JSON files of benchmark programs into one table: row, ours, each peer, ratio, aim.

Benchmarks are named <row>/<implementation>; figures are the medians of their repetitions, per
operation.  The ratio is ours to the best peer, or to the best of those that the aim names.
"""
import json
import re
import sys

OURS = "appcore"


def read(paths):
    rows = {}
    for number, path in enumerate(paths):
        with open(path, encoding="utf-8") as file:
            runs = json.load(file)["benchmarks"]
        single = all(run["run_type"] != "aggregate" for run in runs)
        for run in runs:
            if run.get("aggregate_name") == "median" or single:
                row, name = run["name"].split("/")[:2]
                order = (number, run.get("family_index", 0))
                row = rows.setdefault(row, {"times": {}, "aim": "", "order": order})
                row["order"] = min(row["order"], order)
                row["times"][re.sub(r"_median$", "", name)] = nanoseconds(run)
                row["aim"] = run.get("label") or row["aim"]
    return rows


def nanoseconds(run):
    if "items_per_second" in run:
        return 1e9 / run["items_per_second"]
    return run["real_time"] * {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[run["time_unit"]]


def show(time):
    for limit, factor, unit in ((1e3, 1, "ns"), (1e6, 1e3, "µs"), (1e9, 1e6, "ms")):
        if time < limit:
            return f"{time / factor:.3g} {unit}"
    return f"{time / 1e9:.3g} s"


def judge(row):
    """The ratio and whether it misses the aim."""
    times = {name: time for name, time in row["times"].items() if not name.startswith("limit")}
    ours = times.pop(OURS, None)
    aim, _, names = row["aim"].partition(" of ")
    if names:
        times = {name: time for name, time in times.items() if name in names.split(",")}
    if ours is None or not times:
        return "–", row["aim"]
    ratio = ours / min(times.values())
    missed = " (missed)" if aim and ratio > float(aim) * 1.005 else ""
    return f"{ratio:.2f}", (row["aim"] + missed) or "–"


def main():
    rows = read(sys.argv[1:])
    print("| operation | ours | peers | ratio | aim |\n|---|---|---|---|---|")
    for name, row in sorted(rows.items(), key=lambda item: item[1]["order"]):
        peers = sorted((time, peer) for peer, time in row["times"].items() if peer != OURS)
        listed = ", ".join(f"{peer} {show(time)}" for time, peer in peers)
        ours = show(row["times"][OURS]) if OURS in row["times"] else "–"
        ratio, aim = judge(row)
        print(f"| {name} | {ours} | {listed} | {ratio} | {aim} |")


if __name__ == "__main__":
    main()
