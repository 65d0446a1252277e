#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Prints the private memory in KiB, which no file backs, and the time from start to end in microseconds:
of the first program as they are, of each further one what it has beyond the first.

Each argument is a command, words and all: an emulator stands before its program, which it is to place
below 2^40, where nothing of its own is.  START_ROUNDS (300) is how often each is started; the programs take
turns, and the medians count.
"""
import os
import shlex
import statistics
import subprocess
import sys
import time

ROUNDS = int(os.environ.get("START_ROUNDS", "300"))


def private_kib(command):
    end = 1 << (40 if len(command) > 1 else 64)
    total = 0
    inside = False
    with subprocess.Popen([*command, "wait"], stdin=subprocess.PIPE, stdout=subprocess.PIPE) as process:
        process.stdout.readline()
        with open(f"/proc/{process.pid}/smaps", encoding="ascii", errors="replace") as maps:
            for line in maps:
                first, second = line.split(maxsplit=2)[:2]
                if not first.endswith(":"):
                    inside = int(first.split("-")[0], 16) < end
                elif inside and first == "Anonymous:":
                    total += int(second)
    return total


def run(command):
    start = time.perf_counter()
    os.waitpid(os.posix_spawnp(command[0], command, os.environ), 0)
    return (time.perf_counter() - start) * 1e6


def main():
    commands = [shlex.split(argument) for argument in sys.argv[1:]]
    private = [statistics.median(private_kib(command) for _ in range(9)) for command in commands]
    runs = [[run(command) for command in commands] for _ in range(ROUNDS)]
    times = [statistics.median(column) for column in zip(*runs)]
    for i in range(len(commands)):
        print(f"{private[i] - (i and private[0]):.0f} {times[i] - (i and times[0]):.0f}")


if __name__ == "__main__":
    main()
