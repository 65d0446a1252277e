#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Looks at the camera with gdb's commands for appcore, while it lives and in its core file.

gdb_test.py SCRIPT CAMERA   Exit status 77: not here.
"""
import os
import re
import resource
import shutil
import subprocess
import sys
import tempfile

from camera_test import Camera, enter_namespace, expect, need

GDB = ["gdb", "-nx", "-q", "-batch", "-iex", "set auto-load off", "-iex",
       "set debuginfod enabled off"]
COMMANDS = ["appcore tasks", "appcore timers", "appcore pools", "appcore queues", "appcore locks",
            "appcore actions", "print camera::g_hPool", "print camera::g_hTaskMgr"]
# A queue of three levels, one of several, and then what may have become of it and of the tasks.
BREAK = ["set $out = (HAppQueue *)AppMemPoolMalloc(0, 16)",
         "print AppQueueCreate(0, 10, 0, $out)", "set $queue = *$out"]
BREAK += [f"print AppQueueIn($queue, (void *){data}, {priority})"
          for data, priority in ((1, 5), (2, 5), (3, 7), (4, 5), (5, -1))]
BREAK += ["appcore queues $queue", "print $queue",
          "set var $queue->ptTail->ptNext.m_uValue = (unsigned long)$queue->ptHead",
          "appcore queues $queue", "set var $queue->ptHead->ptNext.m_uValue = 16",
          "appcore queues $queue", "appcore pools $queue",
          "set var camera::g_hTaskMgr->hTaskList->ptHead->ptNext->pvData = 16",
          "set var camera::g_hTaskMgr->hTaskList->ptTail->ptPrev = 0", "appcore tasks",
          "set var *(unsigned *)camera::g_hPool->hLock = 0x80000000", "appcore locks"]


def with_commands(commands):
    return GDB + [part for one in commands for part in ("-ex", one)]


def run_gdb(commands, *files):
    return subprocess.run(with_commands(commands) + list(files), stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, check=True).stdout


def look_alive(script, program, core):
    """Stops the camera in a handler; returns its own report and what gdb says."""
    start = ["start", 'tbreak AppXmlSetAttr_u32 if $_streq(szAttrName, "number")', "continue"]
    Camera.command = with_commands(
        start + ["source " + script, "echo =begin=\\n"] + COMMANDS +
        ["echo =end=\\n", "generate-core-file " + core] + BREAK + ["kill"]) + ["--args", program]
    camera = Camera()
    camera.wait_for("started|ptrace|not trace|not run")
    need("started" in camera.output, "gdb: may not trace")
    camera.say("tasks", r"INACTIVE TASKS[^\0]*camera> ")
    report = camera.output
    camera.process.stdin.write(b"motion 2\n")  # the task alarm writes a notice about each
    camera.process.stdin.flush()
    camera.process.wait(60)
    camera.reader.join()
    camera.running.remove(camera.process)
    return report, camera.output[len(report):]


def judge_tasks(report, said):
    """Each task of the camera's report is told, and where the alarm's stands."""
    row = r"Name\((.*?)\) Thread\((\d+) \S+ [A-Z].*?MAX (\d+)/"
    for name, lwp, most in re.findall(row, report):
        expect(re.search(rf"(?m)^ +\d+ +{lwp} {re.escape(name)} +[A-Z]+ +\d+ +{most} ", said), name)
    expect(re.search(r" alarm +PROCESSING .*\n +in handler camera::.*, at .*::BuildNotice \(alarm.cpp:"
                     r"\d+\), which called AppXmlSetAttr_u32; for \d+ ms", said), "alarm")


def judge(report, said):
    """What gdb says is what the camera has said."""
    judge_tasks(report, said)
    for name, timer, timeout in re.findall(
            r"Name\((.*?)\) Thread.* [A-Z].*MAX.*\n.* Timer\((\w+)\) .*Timeout\((36\d*)ms", report):
        expect(re.search(rf" {timeout} +{timer} +{name}: camera::\S+", said), "timers")
    for name in re.findall(r"Name\((.*?)\) Thread", report):
        expect(re.search(rf"queue 0x\w+ of task {re.escape(name)}: \d+ of 16, top ", said), name)
    at, most = re.search(r"hMemPool\((0x\w+)\) .*MaxSize\((\d+)", report).groups()
    expect(re.search(rf"pool {at} of the task manager: \d+ of {most} bytes .*\n +size.*\n +\d+ ", said)
           and re.search(rf"= {at} pool: \d+ of {most} bytes", said), "pools")
    expect("handler app::" not in said and "handler Serve" not in said, "the library's own")
    expect("report.tasks " in said and "TasksAction, blocking\n" in said and "broken" not in said and
           "last called: motion.raise, " in said, "actions")


def judge_broken(said):
    rows = re.findall(r"  priority (-?\d+): (0x\d)\n", said)
    expect(rows == [("7", "0x3"), ("5", "0x1"), ("5", "0x2"), ("5", "0x4"), ("-1", "0x5")] * 2 +
           [("7", "0x3")], str(rows))
    for line in ("{[0] = priority 7: 0x3, ", "broken: the list comes back to 0x",
                 "$queue is no MemPool handle", "broken: Cannot access memory at address 0x",
                 "broken: 0x10 is no task", " does not know the one before it",
                 "\nlock of the pool of the task manager: held (none free"):
        expect(line in said, line)
    expect("Traceback" not in said and "Python" not in said, "an error of the script's")


def main(script, program):
    need(shutil.which("gdb"), "gdb: not there")
    need("42" in run_gdb(["python print(6 * 7)"]), "gdb: without Python")
    resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 28, 1 << 28))  # a sanitizer's would fill the disk
    with tempfile.TemporaryDirectory(prefix="gdb-") as folder:
        core = os.path.join(folder, "core")
        report, said = look_alive(script, program, core)
        print(report, said)
        alive, broken = said.split("=begin=\n")[1].split("=end=\n")
        judge(report, alive)
        judge_broken(broken)
        judge_tasks(report, broken)  # those on no list, too: their threads serve them
        dead = run_gdb(["source " + script] + COMMANDS, program, core)
        print(dead)
        judge(report, dead)


if __name__ == "__main__":
    if "CAMERA_TEST_NAMESPACE" not in os.environ:
        enter_namespace()
    try:
        main(*map(os.path.abspath, sys.argv[1:]))
    finally:
        for one in Camera.running:  # of a test that has failed
            one.kill()
