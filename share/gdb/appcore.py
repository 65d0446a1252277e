# SPDX-License-Identifier: MIT
"""What gdb has to know of appcore: its handles are printed as what they stand for, and the commands
"appcore ..." tell about tasks, pools, queues, timers, locks and named actions of a process, living
or not.

Everything is read from the target's memory by the types of its debug information, so the word size
and the order of bytes are the target's.  Nothing is called in it and nothing is locked: a list may
have been stopped in the middle of a change, or be broken.  So each walk has an end, and whatever
cannot be read is said in its place.
"""
import contextlib
import re

import gdb

MOST = 100000  # steps of a walk
DEEPEST = 500  # frames of a stack
SHOWN = 10  # elements of a queue
STATES = "INIT", "RUNNING", "PROCESSING", "IDLE", "TERMINATE", "UNINIT"
EVENTS = "REFRESH", "USER", "DROP", "STOP", "TIMEOUT", "TIMER_CANCEL"
IN_PROGRESS = 208


class Damaged(Exception):
    """What was found instead of a record."""


TROUBLE = Damaged, RuntimeError, ValueError, OverflowError  # gdb's errors are of the second


# ---- values -------------------------------------------------------------------------------------

def plain(value):
    """What an atomic, or any other record of one field, holds."""
    while value.type.strip_typedefs().code == gdb.TYPE_CODE_STRUCT:
        fields = value.type.strip_typedefs().fields()
        value = value[next(field for field in fields if hasattr(field, "bitpos"))]  # no static one
    return value


def number(value):
    return int(plain(value))


def word(value):
    """A field of 32 bits, as it differs from another modulo 2^32."""
    return value & 0xFFFFFFFF


def cast(address, kind):
    """The record of the kind at the address."""
    try:
        pointer = gdb.lookup_type(kind).pointer()
    except gdb.error:
        raise Damaged("no debug information of appcore: load the library's (docs/debugging.md)")
    return gdb.Value(int(address)).cast(pointer).dereference()


def text(pointer, most=64):
    """A string, as far as it can be shown."""
    if not int(pointer):
        return ""
    result = bytearray()
    while len(result) < most and (byte := int(pointer[len(result)]) & 0xFF):
        result.append(byte)
    return "".join(c if c.isprintable() else "?" for c in result.decode(errors="replace"))


def characters(array):
    """A pointer to the first one."""
    return array.address.cast(array.type.target().pointer())


def name_in(names, value):
    return names[value] if value < len(names) else f"{value}?"


def symbol(pointer):
    """The function that a pointer points to, without its arguments."""
    address = number(pointer)
    if not address:
        return "none"
    if gdb.selected_inferior().architecture().name().startswith("arm"):
        address &= ~1  # of Thumb code
    found = gdb.execute(f"info symbol {address:#x}", to_string=True).split(" in section ")[0]
    if found.startswith("No symbol"):
        return f"{address:#x}"
    return short(re.sub(r"\([^()]*\)$", "", found.strip()))


def short(function):
    return function.replace("(anonymous namespace)::", "")


def told(describe, *args):
    """What there is to say, or why there is nothing."""
    try:
        return describe(*args)
    except TROUBLE as error:
        return f"broken: {error}"


# ---- walks --------------------------------------------------------------------------------------

def chain(node, following):
    """The nodes behind each other, from the first one on."""
    seen = set()
    while int(node):
        if int(node) in seen:
            raise Damaged(f"the list comes back to {int(node):#x}")
        if len(seen) == MOST:
            raise Damaged(f"more than {MOST} nodes")
        seen.add(int(node))
        yield node
        node = following(node)


def walk_list(record):
    """What a double list holds."""
    previous, count = 0, 0
    for node in chain(record["ptHead"], lambda node: node["ptNext"]):
        if int(node["ptPrev"]) != previous:
            raise Damaged(f"node {int(node):#x} does not know the one before it")
        yield node["pvData"]
        previous, count = int(node), count + 1
    if count != int(record["dwCurSize"]):
        raise Damaged(f"{count} nodes, but a size of {int(record['dwCurSize'])}")


def queue_link(node):
    """The next node and whether this one begins a level of several: marks in the low bits."""
    value = number(node["ptNext"])
    return gdb.Value(value & ~3).cast(node.type), value & 2


def walk_queue(record):
    """Priority and node of each element.  The second of a level has no room for its priority."""
    count, several, priority = 0, 0, 0
    for node in chain(record["ptHead"], lambda node: queue_link(node)[0]):
        priority = priority if several else int(node["nPriority"])
        several = queue_link(node)[1]
        yield priority, node
        count += 1
    if count != int(record["dwCurSize"]):
        raise Damaged(f"{count} elements, but a size of {int(record['dwCurSize'])}")


def gather(walk):
    """What a walk has found, and what ended it too early."""
    items = []
    try:
        for item in walk:
            items.append(item)
    except TROUBLE as error:
        return items, [f"broken: {error}"]
    return items, []


def is_task(record):
    """Whether what belongs to a task belongs to this record."""
    return int(record["ptTimerMgr"]["ptTask"]) == int(record.address)


# ---- threads ------------------------------------------------------------------------------------

class Thread:
    """A thread of the target: what it serves, and where it stands."""

    def __init__(self, thread):
        self.number, self.lwp = thread.num, thread.ptid[1]
        self.task = self.lock = None
        thread.switch()
        frame = gdb.newest_frame()
        pointer = number(frame.read_register("sp"))
        self.frames = []  # from the innermost
        with contextlib.suppress(*TROUBLE):  # where the unwinding fails
            while frame and len(self.frames) < DEEPEST:
                self.frames.append(Frame(frame))
                self.look(frame)
                frame = frame.older()
        self.task = self.task or self.scan(pointer)
        self.place = self.find_place()

    def look(self, frame):
        """Variables that tell what the thread works on."""
        if self.frames[-1].name.endswith("TakeSleeping"):
            self.lock = self.lock or variable(frame, "hLock")
        if not self.task and "src/task/" in self.frames[-1].file:
            found = [variable(frame, name) for name in ("ptTask", "pvTask")]
            self.task = next(filter(self.serves, found), None)

    def serves(self, address):
        """Whether there is a task whose thread this is."""
        if not address or address % 4:
            return False
        try:
            task = cast(address, "TAppTask")
            return number(task["nThreadId"]) == self.lwp and is_task(task)
        except TROUBLE:
            return False

    def scan(self, pointer):
        """The task by its address somewhere on the stack, where the unwinding fails."""
        size = gdb.lookup_type("void").pointer().sizeof
        order = "big" if "big" in gdb.execute("show endian", to_string=True) else "little"
        words = set()
        with contextlib.suppress(*TROUBLE):
            for page in range(pointer, pointer + 65536, 512):
                data = bytes(gdb.selected_inferior().read_memory(page, 512))
                words |= {int.from_bytes(data[i:i + size], order) for i in range(0, 512, size)}
        return next(filter(self.serves, words), None)

    def find_place(self):
        """Where it stands inside a handler, which is what the task manager's code has called and
        is not the library's; else None."""
        inwards = self.frames[::-1]
        for i in range(1, len(inwards)):
            root, inside, _ = inwards[i - 1].file.rpartition("src/task/")
            if inside and not inwards[i].file.startswith(root + "src/"):
                return self.tell_place(inwards[i:], root + "src/")
        return None

    @staticmethod
    def tell_place(frames, library):
        """The handler, the application's innermost function, and what that has called."""
        own = [i for i, frame in enumerate(frames) if frame.object == frames[0].object and
               frame.file and not frame.file.startswith(library)]
        at = own[-1] if own else 0
        place = f"in handler {frames[0].name}"
        if frames[at].line:
            place += f", at {frames[at].name} ({frames[at].line})"
        return place + (f", which called {frames[at + 1].name}" if at + 1 < len(frames) else "")


class Frame:
    """What a stack's frame tells, for as long as it is wanted."""

    def __init__(self, frame):
        function, place = frame.function(), frame.find_sal()
        self.name = short(frame.name() or "unknown code")
        # Optimised at link time, the one or the other may be a header of the compiler's.
        files = [table.filename for table in (place.symtab, function and function.symtab) if table]
        self.file = next((file for file in files if "src/" in file), (files or [""])[0])
        self.line = f"{files[0].rpartition('/')[2]}:{place.line}" if place.symtab else ""
        self.object = gdb.solib_name(frame.pc())  # None: the program itself


def variable(frame, name):
    """A variable's value as a number; None when it is not there, or not any more."""
    try:
        value = frame.read_var(name)
        return None if value.is_optimized_out else number(value)
    except TROUBLE:
        return None


@contextlib.contextmanager
def selection_kept():
    thread = gdb.selected_thread()
    frame = gdb.selected_frame() if thread else None
    level = frame.level() if frame else 0
    try:
        yield
    finally:
        if thread:
            thread.switch()
            gdb.execute(f"frame {level}", to_string=True)


def look_at_threads():
    with selection_kept():
        threads = [Thread(thread) for thread in gdb.selected_inferior().threads()]
    return sorted(threads, key=lambda thread: thread.number)


# ---- what there is ------------------------------------------------------------------------------

# Where the process keeps lists of its records.
REGISTRY = {"TAppMemPool": 0, "TAppQueue": 1, "TAppTaskMgr": 2, "TAppTask": 3}


def walk_registry(kind):
    """Address and name of each record of the kind."""
    lists = gdb.parse_and_eval("g_atAppRegistry")
    for entry in chain(lists[REGISTRY[kind]]["ptHead"], lambda entry: entry["ptNext"]):
        yield int(entry["pvOwner"]), text(characters(entry["achName"]))


class Target:
    """All that the commands tell about, found once for each of them: by the registry, and by what
    is known of the records and threads found so, should a list be broken or missing."""

    def __init__(self, managers=()):
        cast(0, "TAppTaskMgr")  # says so when there is no debug information
        self.notes = []
        self.registered = {kind: self.note(gather(walk_registry(kind))) for kind in REGISTRY}
        self.threads = look_at_threads()
        self.by_lwp = {thread.lwp: thread for thread in self.threads}
        self.managers = [cast(at, "TAppTaskMgr") for at in managers or self.find_managers()]
        self.tasks = [task for manager in self.managers for task in self.tasks_of(manager)]
        self.newest = self.newest_tick()

    def note(self, gathered):
        """What has been gathered; what ended it too early is noted once."""
        items, notes = gathered
        self.notes += [note for note in notes if note not in self.notes]
        return items

    def find_managers(self):
        served = [cast(thread.task, "TAppTask") for thread in self.threads if thread.task]
        return list(dict.fromkeys([at for at, _ in self.registered["TAppTaskMgr"]] +
                                  [int(task["ptTaskMgr"]) for task in served]))

    def tasks_of(self, manager):
        """The active tasks, the idle ones, and those on neither list."""
        found = []
        for field in "hTaskList", "hIdleTaskList":
            found += map(int, self.note(gather(walk_list(manager[field]))))
        found += [at for at, _ in self.registered["TAppTask"]]
        found += [thread.task for thread in self.threads if thread.task]
        tasks = [cast(at, "TAppTask") for at in dict.fromkeys(found)]
        self.note(([], [f"broken: {int(task.address):#x} is no task" for task in tasks
                        if told(is_task, task) is not True]))
        return [task for task in tasks if told(is_task, task) is True and
                task["ptTaskMgr"] == manager.address]

    def thread_of(self, task):
        return self.by_lwp.get(number(task["nThreadId"]))

    def queues(self):
        return self.named("TAppQueue", [(task["hEventQueue"], f"of task {name_of(task)}")
                                        for task in self.tasks])

    def pools(self):
        owners = [(manager, "of the task manager") for manager in self.managers]
        owners += [(task, f"of task {name_of(task)}") for task in self.tasks]
        return self.named("TAppMemPool", [(owner["hMemPool"], whose) for owner, whose in owners])

    def named(self, kind, owned):
        """Address and name of each: those of an owner bear its name, the rest their own."""
        found = {}
        for address, whose in owned + self.registered[kind]:
            if int(address):
                found.setdefault(int(address), whose)
        return list(found.items())

    def locks(self):
        """Address and name of each lock that is known."""
        for manager in self.managers:
            yield int(manager["hLock"]), "lock of the task manager"
            yield int(manager["hLeftLock"]), "end of the task manager's last task"
        for task in self.tasks:
            yield int(task["hLock"]), f"lock of task {name_of(task)}"
            yield int(task["hExitLock"]), f"end of task {name_of(task)}"
        for address, whose in self.queues():
            queue = cast(address, "TAppQueue")
            yield int(queue["hLock"]), f"lock of the queue {whose}"
            yield int(queue["hCountLock"]), f"elements of the queue {whose}"
        for address, whose in self.pools():
            yield int(cast(address, "TAppMemPool")["hLock"]), f"lock of the pool {whose}"

    def newest_tick(self):
        """The latest instant that has been written down: a core file has no clock."""
        ticks = [int(task[field]) for task in self.tasks for field in ("dwWaitTick",
                                                                       "dwLastEventTick")]
        with contextlib.suppress(*TROUBLE):
            ticks.append(number(gdb.parse_and_eval("g_dwAppRecentTick")))
        for task in self.tasks:
            ticks += [int(timer["dwStartTick"]) for timer in timers_of(task)[0]]
        newest = ticks[0] if ticks else 0
        for tick in ticks:
            newest = tick if word(tick - newest) < 1 << 31 else newest
        return newest


def state_of(task):
    return name_in(STATES, number(task["dwState"]))


def name_of(task):
    return told(text, task["szTaskName"]) or "(no name)"


def timers_of(task):
    items, notes = gather(walk_list(task["ptTimerMgr"]["hTimerList"]))
    return [cast(data, "TAppTimer") for data in items], notes


# ---- one line for each record -------------------------------------------------------------------

def describe_manager(manager):
    active, idle = manager["hTaskList"], manager["hIdleTaskList"]
    return (f"{int(active['dwCurSize'])} active tasks and {int(idle['dwCurSize'])} idle ones, at "
            f"most {int(active['dwMaxSize'])}, pool {int(manager['hMemPool']):#x}" +
            (", ENDING" if int(manager["bQuit"]) else ""))


def describe_task(task):
    return (f"{name_of(task)}, {state_of(task)}, thread "
            f"{number(task['nThreadId'])}, queue {describe_queue(task['hEventQueue'])}")


def describe_last_event(task):
    kind = number(task["dwLastEventType"])
    if not number(task["pfnLastHandler"]) and not kind:
        return "none yet"
    return (f"{symbol(task['pfnLastHandler'])} {name_in(EVENTS, kind)} "
            f"arg {number(task['pvLastArg']):#x}")


def describe_queue(queue):
    return f"{int(queue['dwCurSize'])} of {int(queue['dwMaxSize'])}, top {int(queue['dwTopSize'])}"


def describe_element(queue, node):
    """An event, if the queue is a task's, or else the caller's data."""
    if int(queue["wRecordSize"]) != gdb.lookup_type("TAppTaskEvent").sizeof:
        return f"{int(node['pvData']):#x}"
    event = cast(node + 1, "TAppTaskEvent")
    handler = symbol(event["pfnHandler"]) if int(event["pfnHandler"]) else "the task's handler"
    return f"{handler} {name_in(EVENTS, int(event['dwEventType']))} arg {int(event['pvArg']):#x}"


def describe_list(record):
    most = int(record["dwMaxSize"])
    return f"{int(record['dwCurSize'])} of {most or 'any number'}"


def describe_pool(pool):
    most = int(pool["dwMaxSize"]) or "any number of"
    return (f"{int(pool['dwCurSize'])} of {most} bytes in use, at most {int(pool['dwPeak'])}, "
            f"{int(pool['dwRefused'])} refused, "
            f"{int(pool['ptImpl']['dwTotalSize'])} taken from the heap")


def units_of(lock):
    return number(lock["tWord"]["dwCount"]) & 0x7FFFFFFF  # the top bit: takers sleep


def describe_lock(lock):
    state = f"{units_of(lock) or 'none'} free"
    if int(lock["dwType"]) == 1:
        holder = number(cast(lock.address, "TRecursiveLock")["dwOwner"])
        state = f"recursive, held by the {holder}. thread that took such a lock" if holder else (
            "recursive, free")
    return state + (f", {int(lock['dwSleepers'])} asleep" if int(lock["dwSleepers"]) else "")


def describe_timer(timer):
    state = "running" if int(timer["dwState"]) else "ended"
    return (f"{state}, {int(timer['dwTimeout'])} ms from tick {int(timer['dwStartTick'])}, "
            f"{symbol(timer['pfnHandler'])}")


def describe_socket(record):
    port = gdb.selected_inferior().read_memory(int(record["wPort"].address), 2)
    return (f"descriptor {int(record['nFd'])}, kind {int(record['dwSockType'])}, bound to port "
            f"{int.from_bytes(bytes(port), 'big')}")


# ---- commands -----------------------------------------------------------------------------------

class Prefix(gdb.Command):
    """Tells about appcore's tasks, pools, queues, timers, locks and named actions."""

    def __init__(self):
        super().__init__("appcore", gdb.COMMAND_STATUS, gdb.COMPLETE_NONE, True)


class Command(gdb.Command):
    """A command whose arguments are expressions: handles."""
    kind = ""  # of the handles

    def __init__(self):
        name = "appcore " + type(self).__name__.lower()
        super().__init__(name, gdb.COMMAND_STATUS, gdb.COMPLETE_EXPRESSION)

    def invoke(self, argument, _from_tty):
        self.dont_repeat()
        try:
            handles = [self.handle(one) for one in gdb.string_to_argv(argument)]
            for line in self.lines(handles):
                print(line)
        except TROUBLE as error:
            print(f"appcore: {error}")

    def handle(self, expression):
        value = gdb.parse_and_eval(expression)
        target = value.type.strip_typedefs()
        if target.code == gdb.TYPE_CODE_PTR:
            name = target.target().unqualified().strip_typedefs().name
            if name not in (self.kind, "void"):
                raise Damaged(f"{expression} is no {self.kind[4:]} handle but points to {name}")
        return int(value)


class Tasks(Command):
    """Tells about the tasks of all managers, or of those given: appcore tasks [HANDLE...]
Id is gdb's number of the thread, LWP the system's.  The last event is the one that is served while
the state is PROCESSING, or the last one to have been.  What follows a task is where its thread is
inside a handler, and for how long, until the newest tick that the process has written down."""
    kind = "TAppTaskMgr"

    def lines(self, handles):
        target = Target(handles)
        if not target.managers:
            yield "no task manager"
        for manager in target.managers:
            yield f"task manager {int(manager.address):#x}: {told(describe_manager, manager)}"
            yield (f"  {'Id':>3} {'LWP':>7} {'Task':<16}{'State':<11} {'Queue':>5} {'Max':>5} "
                   f"{'Top':>5} {'Timers':>6}  Last event")
            for task in target.tasks_of(manager):
                yield told(self.row, target, task)
                yield from gather(self.place(target, task))[0]
        yield from target.notes

    @staticmethod
    def row(target, task):
        thread, queue = target.thread_of(task), task["hEventQueue"]
        timers = int(task["ptTimerMgr"]["hTimerList"]["dwCurSize"])
        return (f"  {thread.number if thread else '-':>3} {number(task['nThreadId']):>7} "
                f"{name_of(task):<15} {state_of(task):<11} "
                f"{int(queue['dwCurSize']):>5} {int(queue['dwMaxSize']):>5} "
                f"{int(queue['dwTopSize']):>5} {timers:>6}  {describe_last_event(task)}")

    @staticmethod
    def place(target, task):
        thread, run = target.thread_of(task), task["tRun"]
        place, handler = thread and thread.place, number(run["pfnHandler"])
        if not place and handler:
            place = f"in handler {symbol(run['pfnHandler'])} (its stack cannot be unwound)"
        if handler:
            since = word(target.newest - number(run["dwSinceTick"]))
            yield f"      {place}; for {since * 10} ms"


class Timers(Command):
    """Tells about the running timers of all tasks, or of the managers given, by the tick when they
are due: appcore timers [HANDLE...]
A tick is 10 ms.  What is left counts from the newest one that the process has written down."""
    kind = "TAppTaskMgr"

    def lines(self, handles):
        target = Target(handles)
        yield f"newest tick: {target.newest}"
        rows = []
        for task in target.tasks:
            timers = target.note(timers_of(task))
            rows += [told(self.row, task, timer, target.newest) for timer in timers]
        yield f"  {'Due':>10} {'Left (ms)':>10} {'Time-out':>10}  {'Timer':<18} Task: handler"
        yield from (line for _, line in sorted(row for row in rows if isinstance(row, tuple)))
        yield from (row for row in rows if isinstance(row, str))
        yield from target.notes

    @staticmethod
    def row(task, timer, newest):
        timeout = int(timer["dwTimeout"])
        due = word(int(timer["dwStartTick"]) + -(-timeout // 10))
        left = word(due - newest + (1 << 31)) - (1 << 31)
        handler = timer["pfnHandler"]
        if not int(handler):
            handler = timer["ptTimerMgr"]["pfnHandler"]
        return left, (f"  {due:>10} {left * 10:>10} {timeout:>10}  {int(timer.address):<#18x} "
                      f"{name_of(task)}: {symbol(handler)}")


class Pools(Command):
    """Tells about all pools, or about those given: appcore pools [HANDLE...]
Bytes in use are those asked for; a block is as large as its size class."""
    kind = "TAppMemPool"

    def lines(self, handles):
        named = [(handle, "") for handle in handles] or Target().pools()
        if not named:
            yield "no pool"
        for address, whose in named:
            pool = cast(address, "TAppMemPool")
            yield f"pool {address:#x} {whose}".rstrip() + f": {told(describe_pool, pool)}"
            yield from told(self.classes, pool["ptImpl"]).splitlines()

    @staticmethod
    def classes(engine):
        lines, pooled = [], 0
        low, high = engine["atClass"].type.range()
        for i in range(low, high + 1):
            blocks = int(engine["atClass"][i]["hBlocks"]["dwCurSize"])
            used = int(engine["atClass"][i]["dwInUse"])
            pooled += blocks
            if blocks:
                lines.append(f"  {32 << i:>8} {used:>8} {blocks - used:>8}")
        if int(engine["dwTotalCount"]) != pooled:
            lines.append(f"  {'larger':>8} {int(engine['dwTotalCount']) - pooled:>8}")
        return "\n".join([f"  {'size':>8} {'in use':>8} {'idle':>8}"] * bool(lines) + lines)


class Queues(Command):
    """Tells about all queues, or about those given, and their first elements:
appcore queues [HANDLE...]"""
    kind = "TAppQueue"

    def lines(self, handles):
        for address, whose in [(handle, "") for handle in handles] or Target().queues():
            queue = cast(address, "TAppQueue")
            yield f"queue {address:#x} {whose}".rstrip() + f": {told(self.head, queue)}"
            elements, notes = gather(walk_queue(queue))
            for priority, node in elements[:SHOWN]:
                yield f"  priority {priority}: {told(describe_element, queue, node)}"
            if len(elements) > SHOWN:
                yield f"  and {len(elements) - SHOWN} more"
            yield from ("  " + note for note in notes)

    @staticmethod
    def head(queue):
        return f"{describe_queue(queue)}, {int(queue['dwSleepers'])} consumers asleep"


class Locks(Command):
    """Tells which of the library's locks are held, and which threads wait for which lock."""
    kind = "TAppLock"

    def lines(self, handles):
        for address in handles:
            yield f"lock {address:#x}: {told(describe_lock, cast(address, 'TAppLock'))}"
        if handles:
            return
        target = Target()
        names = {address: name for address, name in target.locks() if address}
        for address, name in names.items():
            lock = cast(address, "TAppLock")
            if name.startswith("lock") and not told(units_of, lock):
                yield f"{name}: held ({told(describe_lock, lock)})"
        for thread in target.threads:
            name = names.get(thread.lock, f"lock {thread.lock or 0:#x}")
            if thread.lock and not name.startswith("elements of the queue of task"):  # at rest
                yield f"thread {thread.number} (LWP {thread.lwp}) waits for: {name}"


class Actions(Command):
    """Tells the named actions in the order of their registration."""

    def lines(self, _handles):
        actions = plain(gdb.parse_and_eval("g_hAppShareActionList"))
        items, notes = gather(walk_list(actions)) if int(actions) else ([], [])
        for data in items:
            yield told(self.row, cast(data, "TAppShareAction"))
        yield from notes
        # Optimised at link time there is a second one, without an address.
        for called in gdb.lookup_static_symbols("(anonymous namespace)::s_ptLastCalled"):
            if not called.value().is_optimized_out and number(called.value()):
                result = number(gdb.parse_and_eval("g_eAppShareActionLastCalledResult"))
                yield (f"last called: {text(characters(plain(called.value())['achKey']))}, " +
                       ("it still runs" if result == IN_PROGRESS else f"result {result}"))

    @staticmethod
    def row(action):
        return (f"  {text(characters(action['achKey'])):<32} {symbol(action['pfnAction'])}"
                f"{', blocking' if int(action['bBlock']) else ''}")


# ---- printers -----------------------------------------------------------------------------------

class Handle:
    """Prints a handle as its address and a line about its record."""

    def __init__(self, value, kind, describe):
        self.value, self.kind, self.describe = value, kind, describe

    def to_string(self):
        if not int(self.value):
            return "null"
        line = told(self.describe, self.value.dereference())
        return f"{int(self.value):#x} {self.kind}: {line}"


class Container(Handle):
    """Prints what it holds, too."""

    def children(self):
        if not int(self.value):
            return
        record = self.value.dereference()
        walk = walk_list if self.kind == "list" else walk_queue
        items, notes = gather(walk(record))
        for i, item in enumerate(items):
            yield f"[{i}]", item if self.kind == "list" else (
                f"priority {item[0]}: {told(describe_element, record, item[1])}")
        for note in notes:
            yield "note", note


PRINTERS = {
    "TAppMemPool": (Handle, "pool", describe_pool),
    "TAppQueue": (Container, "queue", describe_queue),
    "TAppDoubleList": (Container, "list", describe_list),
    "TAppLock": (Handle, "lock", describe_lock),
    "TAppTask": (Handle, "task", describe_task),
    "TAppTimer": (Handle, "timer", describe_timer),
    "TAppTaskMgr": (Handle, "task manager", describe_manager),
    "TAppSocket": (Handle, "socket", describe_socket),
}


def find_printer(value):
    kind = value.type.strip_typedefs()
    if kind.code != gdb.TYPE_CODE_PTR:
        return None
    name = kind.target().unqualified().strip_typedefs().name
    if name not in PRINTERS:
        return None
    printer, word_for_it, describe = PRINTERS[name]
    return printer(value, word_for_it, describe)


find_printer.name = "appcore"  # what "disable pretty-printer" calls it


def load():
    known = [getattr(printer, "name", "") for printer in gdb.pretty_printers]
    if find_printer.name in known:  # loaded twice, for a second copy of the library
        return
    gdb.pretty_printers.append(find_printer)
    for command in Prefix, Tasks, Timers, Pools, Queues, Locks, Actions:
        command()


load()
