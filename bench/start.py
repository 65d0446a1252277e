#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Prints two rows of a table: private (anonymous) memory and start-up time that the library adds to a program.

Arguments: the program that is linked to the library, and the same program without it.
"""
import os
import statistics
import subprocess
import sys
import time

ROUNDS = 300


def private_kib(program):
    return int(subprocess.run([program, "print"], check=True, capture_output=True).stdout)


def run(program):
    start = time.perf_counter()
    os.waitpid(os.posix_spawn(program, [program], os.environ), 0)
    return (time.perf_counter() - start) * 1e6


def main():
    linked, alone = sys.argv[1:]
    private = [statistics.median(private_kib(program) for _ in range(9)) for program in (linked, alone)]
    runs = [(run(linked), run(alone)) for _ in range(ROUNDS)]
    times = [statistics.median(column) for column in zip(*runs)]
    for name, (ours, libc), unit, aim in (
            ("private memory beyond libc", private, "KiB", 24),
            ("start to end beyond libc", times, "µs", 120)):
        print(f"| {name} | {ours - libc:.0f} {unit} | {libc:.0f} {unit} | {aim} {unit} |")


if __name__ == "__main__":
    main()
