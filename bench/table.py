#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Turns the JSON files of benchmark programs into two tables: one processor and two.

Arguments: files named one-PROGRAM.json and two-PROGRAM.json.  Benchmarks are named
<row>/<implementation>; figures are the medians of their repetitions, wall time per operation.
"process" is what the whole process used of the processors meanwhile, which other work on the machine
disturbs less.  A ratio is ours to the best peer, or to the best of those that the aim names.
"""
import json
import os
import re
import sys

OURS = "appcore"
NAIVE = "naive"
TITLES = {"one": "One core", "two": "Two cores"}
UNITS = {"ns": 1, "us": 1e3, "µs": 1e3, "ms": 1e6, "s": 1e9}


def read(paths):
    rows = {}
    for path in paths:
        with open(path, encoding="utf-8") as file:
            runs = json.load(file)["benchmarks"]
        for run in runs:
            if run.get("aggregate_name") == "median" or run.get("repetitions", 1) == 1:
                name, implementation = run["name"].split("/")[:2]
                order = (path, run.get("family_index", 0))
                row = rows.setdefault(name, {"times": {}, "process": {}, "aim": "", "order": order})
                row["order"] = min(row["order"], order)
                implementation = re.sub(r"_median$", "", implementation)
                row["times"][implementation], process = nanoseconds(run)
                if process is not None:
                    row["process"][implementation] = process
                row["aim"] = run.get("label") or row["aim"]
    return dict(sorted(rows.items(), key=lambda item: item[1]["order"]))


def nanoseconds(run):
    """Wall and process time of one operation; the latter only where the clock is not the row's own."""
    unit = UNITS[run["time_unit"]]
    wall = 1e9 / run["items_per_second"] if "items_per_second" in run else run["real_time"] * unit
    if "process_time" not in run["name"]:
        return wall, None
    return wall, wall * run["cpu_time"] / run["real_time"]


def show(time):
    if time is None:
        return "–"
    for limit, factor, unit in ((1e3, 1, "ns"), (1e6, 1e3, "µs"), (1e9, 1e6, "ms")):
        if time < limit:
            return f"{time / factor:.3g} {unit}"
    return f"{time / 1e9:.3g} s"


def is_peer(name):
    return name not in (OURS, NAIVE) and not name.startswith("limit")


def ratio_to(names, times):
    """Ours to the best of those named, or of all peers."""
    chosen = [name for name in times if (name in names if names else is_peer(name))]
    return times[OURS] / min(times[name] for name in chosen) if OURS in times and chosen else None


def judge(row, cores):
    """The ratios of wall and process time, and the aim with a word when it is missed."""
    aim, _, names = row["aim"].partition(" of ")
    names = names.split(",") if names else []
    if re.fullmatch(r"[\d.]+ \w+", aim):
        limit, unit = aim.split()
        missed = row["times"][OURS] > float(limit) * UNITS[unit]
        return None, None, aim + " (missed)" * missed
    aim = (aim.split("/") + [""])[list(TITLES).index(cores)]
    if not aim:
        names = []
    ratios = [ratio_to(names, row[which]) for which in ("times", "process")]
    missed = " (missed)" * bool(aim and ratios[0] and ratios[0] > float(aim) * 1.005)
    return *ratios, aim + (" of " + ", ".join(names)) * bool(names) + missed


def print_table(rows, cores):
    print(f"\n## {TITLES[cores]}\n")
    print("| operation | ours | best peer | ratio | aim | process | ratio | naive | others |")
    print("|---|---|---|---|---|---|---|---|---|")
    for name, row in rows.items():
        times = row["times"]
        peers = sorted((time, peer) for peer, time in times.items() if is_peer(peer))
        listed = [f"{peer} {show(time)}" for time, peer in peers] or ["–"]
        listed += [f"{peer} {show(time)}" for peer, time in times.items() if peer.startswith("limit")]
        wall, process, aim = judge(row, cores)
        cells = [name, show(times.get(OURS)), listed[0], f"{wall:.2f}" if wall else "–", aim or "–",
                 show(row["process"].get(OURS)), f"{process:.2f}" if process else "–", show(times.get(NAIVE)),
                 ", ".join(listed[1:]) or "–"]
        print(f"| {' | '.join(cells)} |")


def main():
    for cores in TITLES:
        paths = [path for path in sys.argv[1:] if os.path.basename(path).startswith(cores + "-")]
        if paths:
            print_table(read(paths), cores)


if __name__ == "__main__":
    main()
