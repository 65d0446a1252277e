#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Prints the private (anonymous) memory in KiB and the time from start to end in microseconds: of the
first program as they are, of each further one what it has beyond the first.

START_ROUNDS (300) is how often each is started; the programs take turns, and the medians count.
"""
import os
import statistics
import subprocess
import sys
import time

ROUNDS = int(os.environ.get("START_ROUNDS", "300"))


def private_kib(program):
    return int(subprocess.run([program, "print"], check=True, capture_output=True).stdout)


def run(program):
    start = time.perf_counter()
    os.waitpid(os.posix_spawn(program, [program], os.environ), 0)
    return (time.perf_counter() - start) * 1e6


def main():
    programs = sys.argv[1:]
    private = [statistics.median(private_kib(program) for _ in range(9)) for program in programs]
    runs = [[run(program) for program in programs] for _ in range(ROUNDS)]
    times = [statistics.median(column) for column in zip(*runs)]
    for i in range(len(programs)):
        print(f"{private[i] - (i and private[0]):.0f} {times[i] - (i and times[0]):.0f}")


if __name__ == "__main__":
    main()
