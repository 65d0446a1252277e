#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""The night: something hangs, floods or fills up, and whoever is called has the prompt, the log and
a debugger.  Each fault is provoked, and its cause read in two steps at most, which are printed.

night.py PROGRAM   the camera with faults, in a network namespace of its own where that is allowed.
"""
import concurrent.futures
import errno
import json
import os
import re
import shutil
import signal
import subprocess
import sys

sys.dont_write_bytecode = True
from camera_test import PATIENCE, Camera, enter_namespace, expect, wait_until  # noqa: E402


class Night(Camera):
    """A camera with a fault.  Its steps are those of an operator, and what each has shown."""

    def __init__(self, line):
        super().__init__()
        self.steps = []
        self.wait_for("started")
        self.say(line)

    def records(self, kind):
        start, found = len(self.output), []

        def parses():
            lines = re.findall(r'(?m)^[{"}].*', self.output[start:])  # the others are the log's
            try:
                found.append(json.loads("".join(lines))[kind])
            except ValueError:
                return False
            return True
        self.say("stats " + kind)
        wait_until(parses, "stats " + kind, self)
        return found[0] if isinstance(found[0], list) else found

    def stats(self, kind, **wanted):
        """What the library counts: the one record of a kind that has these values, or will have."""
        found = []

        def is_there():
            found[:] = [row for row in self.records(kind)
                        if all(row[key] == wanted[key] for key in wanted)]
            return len(found) == 1
        wait_until(is_there, f"{kind} with {wanted}", self)
        self.steps.append(("stats " + kind, wanted))
        return found[0]

    def sees(self, step, pattern, line=None):
        match = self.say(line, pattern) if line else self.wait_for(pattern)
        self.steps.append((step, match[0]))
        return match

    def late(self, task):
        """The address that the watch has told, once and in the log's file too."""
        match = self.sees("watch", r"task (\S+) is in handler (0x[0-9a-f]+) for \d+ s\b")
        with open(os.path.join(self.folder.name, "camera.log"), encoding="utf-8") as log:
            told = re.findall(r"watch: task (\S+) is in handler", log.read())
        expect(told == [task] == [match[1]], str(told), self)
        return match[2]

    def function(self, address):
        """The name of a function; the program is loaded anywhere."""
        program = os.path.realpath(self.command[-1])
        with open(f"/proc/{self.process.pid}/maps", encoding="utf-8") as maps:
            base = next(int(line.split("-")[0], 16) for line in maps if program in line)
        with open(program, "rb") as file:
            base *= file.read(17)[16] == 3  # ET_DYN: else the address is the program's own
        name = subprocess.run(["addr2line", "-fCe", program, hex(int(address, 16) - base)],
                              stdout=subprocess.PIPE, text=True, check=True).stdout.split("\n")[0]
        self.steps.append(("addr2line", name))
        return name

    def end_at_once(self, names):
        """It is told to end, and told again."""
        def ends():
            self.process.send_signal(signal.SIGINT)
            return self.process.poll() is not None
        wait_until(ends, "the end at once", self)
        expect(self.process.returncode == 1, "the end at once", self)
        self.reader.join()
        self.sees("Ctrl-C again", f"camera: ended at once; it waited for: .*{names}.*")


def hung(fault, task, kind):
    camera = Night("fault " + fault)
    address = camera.late(task)
    expect("WaitForEver" in camera.function(address), "another function", camera)
    camera.stats("tasks", name=task, inHandler=True, handler=address, eventType=kind)
    if shutil.which("gdb"):
        output = subprocess.run(
            ["gdb", "-nx", "-batch", "-p", str(camera.process.pid), "-ex", "thread apply all bt"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            text=True).stdout
        stack = re.search(r"AppLockTakeByTime \([^#]*#\d+ +0x\w+ in WaitForEver ", output)
        # Nobody unwinds out of musl's system calls.
        expect(stack or "not permitted" in output or "__syscall_cp_c " in output, output, camera)
        camera.steps.append(("gdb -p", stack and " ".join(stack[0].split())))
    camera.sees("quit", f"AppTaskMgrDestroy: waits for task .* {task}: handler {address}.*", "quit")
    camera.end_at_once(f"task {task} is in handler {address} for")
    return camera


def hung_action(how):
    camera = Night("fault action")
    camera.say("status", "modules: all on time")  # main() looks after them
    camera.stats("actions", running=2, current="fault.action")
    camera.say("tasks", r"Name\(shell\).* PROCESSING")
    camera.sees("motion 1", r"the last command runs still: fault.action, \d+ s", "motion 1")
    if isinstance(how, int):
        camera.process.send_signal(how)
    elif how:
        camera.say(how)
    else:
        camera.process.stdin.close()
    camera.wait_for("camera: ending")
    if how == "quit":
        camera.sees("quit", "the end waits: task shell is in handler 0x.*")
    camera.end_at_once("action fault.action runs for")
    return camera


def script():
    """Lines wait for one another, the end waits for them, and no module is told to be late."""
    camera = Night("discover")
    camera.process.stdin.write(b"motion 1\nstatus\ndiscover\n")
    output = camera.end()
    expect(re.search(r"(?s)discover\n.* found\n.*motion 1\n.*status\n.*modules: all.*discover\n"
                     r".* found\n.*camera: ending", output), "the order", camera)
    expect("watch:" not in output, "a false alarm", camera)
    return camera


def counted(line, kind, wanted, least):
    camera = Night(line)
    row = camera.stats(kind, **wanted)
    seen = {key: row[key] for key in least}
    expect(all(seen[key] >= value for key, value in least.items()), str(row), camera)
    camera.steps[-1] = (f"stats {kind}", {**wanted, **seen})
    return camera


def flooded_log():
    camera = counted("fault log", "logs", {"channel": 0}, {"lines": 1020})
    camera.sees("status", "console: .* repeated 999", "status")
    camera.end()
    expect(camera.output.count("flood: disk") == 2 and "(999 times more)" in camera.output,
           "the flood is printed", camera)
    return camera


NIGHT = {
    "a hanging handler": (hung, "handler", "recorder", 1),
    "a hanging timer": (hung, "timer", "clock", 4),
    "a hanging action; quit": (hung_action, "quit"),
    "a hanging action; SIGTERM": (hung_action, signal.SIGTERM),
    "a hanging action; end of input": (hung_action, ""),
    "none; a script": (script,),
    "a leaking pool": (counted, "fault pool", "pools", {"name": "camera", "limit": 1 << 20},
                       {"used": 1000000, "peak": 1000000, "blocks": 250, "refused": 1}),
    "a forgotten queue": (counted, "fault queue", "queues", {
        "name": "spool", "count": 10, "limit": 10, "refused": 5, "sleepers": 0}, {}),
    "a flooded log": (flooded_log,),
    "a full disk": (counted, "set log/file /dev/full", "logs",
                    {"channel": 1, "file": True, "lastError": errno.ENOSPC}, {"lost": 1}),
    "leaking sockets": (counted, "fault sockets", "sockets", {}, {"open": 20, "timeouts": 20})}


if __name__ == "__main__":
    if "CAMERA_TEST_NAMESPACE" not in os.environ:
        enter_namespace()
    Camera.command = [os.path.abspath(sys.argv[-1])]
    try:
        with concurrent.futures.ThreadPoolExecutor(len(NIGHT)) as pool:
            for name, camera in {name: pool.submit(*case) for name, case in NIGHT.items()}.items():
                expect("Sanitizer" not in camera.result().output, name, camera.result())
                for step, seen in camera.result().steps:
                    print(f"{name:31} {step:15} {seen}")
    finally:
        for process in Camera.running:  # most cannot end by themselves
            process.kill()
