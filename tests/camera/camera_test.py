#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Drives the camera example as its users, clients and receivers do.

camera_test.py CASE COMMAND...   runs one case, in a network namespace of its own where that is
allowed.  Exit status 77: the case could not be run here.
"""
import contextlib
import fcntl
import os
import re
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import termios
import threading
import time
import uuid
import xml.etree.ElementTree as ET

# glibc's lock around an unset zone is one that the thread sanitizer does not see.
os.environ.setdefault("TZ", "UTC")
PATIENCE = 60  # seconds until something that must happen is given up
ADDRESS = "10.99.0.1"
GROUP = ("239.255.255.250", 3702)
NS = {"s": "http://www.w3.org/2003/05/soap-envelope",
      "a": "http://schemas.xmlsoap.org/ws/2004/08/addressing",
      "d": "http://schemas.xmlsoap.org/ws/2005/04/discovery"}
NVT = "http://www.onvif.org/ver10/network/wsdl"

CONFIG = """<?xml version="1.0"?>
<camera>
  <name>{name}</name><hardware>DC-100</hardware><uuid>{uuid}</uuid><metadata>1</metadata>
  <service>{service}</service>
  <log><file>camera.log</file><limit>65536</limit>
    <alarmfile>alarm.log</alarmfile><alarmlimit>10000000</alarmlimit></log>
  <motion><interval>3600000</interval><threshold>100</threshold><alarm>{alarm}</alarm></motion>
  <receiver><address>{receiver}</address><port>{port}</port><queue>{queue}</queue></receiver>
  <idle><receiver>60000</receiver><task>60000</task></idle><report>60000</report>
  <discovery><answers>{answers}</answers><source>{source}</source><remote>0</remote></discovery>
</camera>
"""
DEFAULTS = dict(name="Front door", service=8000, alarm=90, receiver="", port=9100, queue=8,
                answers=1000, source=1000)


def expect(holds, what, camera=None):
    if not holds:
        raise AssertionError(what + ("\n--- camera ---\n" + camera.output if camera else ""))


def wait_until(condition, what, camera=None):
    end = time.monotonic() + PATIENCE
    while not condition():
        expect(time.monotonic() < end, "never: " + what, camera)
        time.sleep(0.02)


def need(there, what):
    if not there:
        print("not run:", what)
        sys.exit(77)


class Camera:
    """A camera in a folder of its own."""
    command = []
    running = []

    def __init__(self, text=None, **values):
        self.folder = tempfile.TemporaryDirectory(prefix="camera-")
        self.file = os.path.join(self.folder.name, "camera.xml")
        settings = {**DEFAULTS, "uuid": uuid.uuid4(), **values}
        with open(self.file, "w") as file:
            file.write(CONFIG.format(**settings) if text is None else text)
        self.start()

    def start(self, file="camera.xml"):
        self.output = ""
        self.process = subprocess.Popen(
            self.command + [file], cwd=self.folder.name, stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.running.append(self.process)
        self.reads = threading.Event()
        self.reads.set()
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        while self.reads.wait() and (chunk := self.process.stdout.read1(65536)):
            self.output += chunk.decode(errors="backslashreplace")

    def wait_for(self, pattern, start=0):
        wait_until(lambda: re.search(pattern, self.output[start:]), pattern, self)
        return re.search(pattern, self.output[start:])

    def say(self, line, answer=""):
        """Runs a line; returns the first match of an answer in what it prints."""
        start = len(self.output)
        self.process.stdin.write(line.encode() + b"\n")
        self.process.stdin.flush()
        return self.wait_for(answer, start)

    def status(self):
        text = self.say("status", r"motion: raised[^\0]*?not sent \d+\n")[0]
        return {f"{line.split(':')[0]} {' '.join(name.split())}": int(number)
                for line in text.splitlines()
                for name, number in re.findall(r"([a-zA-Z ]+?) (\d+)", line)}

    def awaits(self, key, value):
        wait_until(lambda: self.status()[key] == value, f"{key} {value}", self)

    def pool(self):
        """Bytes taken from the heap by the camera's pool."""
        return int(self.say("pools", r"MEMPOOL .*TotalSize=(\d+)")[1])

    def end(self, how="", result=0):
        """Ends it by a line, a signal or the end of input, and looks at what it left behind."""
        if isinstance(how, int):
            self.process.send_signal(how)
        elif how:
            self.say(how)
        self.process.stdin.close()
        self.process.wait(PATIENCE)
        self.reader.join()
        self.running.remove(self.process)
        expect(self.process.returncode == result and "Sanitizer" not in self.output and
               (result or "camera: ended" in self.output), f"{self.process.returncode}", self)
        return self.output


# ---- config -------------------------------------------------------------------------------------

def case_config():
    for text, line in [
            ("<camera><name>x</camera>", "not well-formed"), ("", "not well-formed"),
            ("<camera>\n<name>\1</name></camera>", r"line 2: no character of XML {\x01}"),
            ("<cam/>", "no element <camera>"),
            ("<camera><uuid>5f5a</uuid></camera>", r"line 1: <uuid> is wrong {5f5a}")]:
        output = Camera(text).end(result=1)
        expect(line in output and "could not start" in output, f"{text}: {output}")

    camera = Camera(f"<?xml version='1.0'?>\n<!-- <name> --><camera a='>'><![CDATA[\n<name>]]>\n<name>"
                    f"a&#10;b</name><hardware>{chr(233) * 32}</hardware><motion>\n<threshold>12x"
                    "</threshold></motion><receiver><address>10.0.0</address>\n<port>70000</port>"
                    "<queue>456</queue></receiver><log><file/><alarmfile>./camera.log1</alarmfile>"
                    "</log></camera>")
    camera.wait_for("camera.xml written")  # with the identity that it gave itself
    os.chmod(camera.file, 0o640)
    os.symlink("victim", camera.file + ".new")
    for line, answer in [
            ('set name "<C> & D"', "written"), ("set motion/threshold 77", "written"),
            ("set service 81", "written"), ("set log/file other.log", "written"),
            ("set log/alarmfile ./other.log1", "{other.log1} and {./other.log1} are one file"),
            ("set log/file ./camera.xml.new", "are one file"), ("set name a\u2028b", "not a value"),
            ("set receiver/queue 9", "receiver/queue acts at the next start")]:
        camera.say(line, answer)
    wait_until(lambda: ET.parse(camera.file).findtext("receiver/queue") == "9", "saved", camera)
    expect(os.stat(camera.file).st_mode & 0o777 == 0o640 and sorted(os.listdir(camera.folder.name))
           == ["alarm.log", "camera.log", "camera.xml", "other.log"], "files", camera)
    with open(os.path.join(camera.folder.name, "other.log"), encoding="utf-8") as log:
        expect("written" in log.read(), "the new log file", camera)
    os.remove(camera.file)
    os.mkdir(camera.file)
    camera.say("set discovery/source 1", "written: rename: ")
    expect(not os.path.exists(camera.file + ".new"), "the temporary file is left", camera)
    os.rmdir(camera.file)
    output = camera.end()  # and now it is saved
    for line in ["config: <service> is missing {no such element}, assumed {80}",
                 r"line 4: <name> is wrong {a\x0ab}, assumed {camera}",
                 "line 4: <hardware> is wrong {" + "\\xc3\\xa9" * 11,
                 "line 5: <motion/threshold> is wrong {12x}, assumed {60}",
                 "line 5: <receiver/address> is wrong {10.0.0}, assumed {}",
                 "line 6: <receiver/port> is wrong {70000}, assumed {9100}",
                 "line 6: <receiver/queue> is wrong {456}, assumed {32}",
                 "line 6: <log/file> is wrong {}, assumed {camera.log}",
                 "{./camera.log1} are one file, assumed {camera.log} and {alarm.log}"]:
        expect(line in output, line, camera)
    tree = ET.parse(camera.file)
    found = [tree.findtext(path) for path in ("name", "motion/threshold", "metadata",
                                              "discovery/source")]
    expect(found == ['"<C> & D"', "77", "3", "1"], str(found), camera)
    uuid.UUID(tree.findtext("uuid"))

    camera.start("./" * 150 + "camera.xml")  # complete now: nothing to complain about
    camera.wait_for("started")
    expect("config:" not in camera.output, "a complaint about its own file", camera)
    camera.say("set hardware X", "written")
    camera.end()
    expect(ET.parse(camera.file).findtext("hardware") == "X" and
           ET.parse(camera.file).findtext("uuid") == tree.findtext("uuid"), "its file", camera)
    for file, line in ("absent.xml", "absent.xml cannot be opened"), ("./" * 600, "too long"):
        camera.start(file)
        expect(line in camera.end(result=1), line, camera)


# ---- shell --------------------------------------------------------------------------------------

def case_shell():
    camera = Camera()
    for line, answer in [
            ("help", r"discover +look for cameras"), ("tasks", r" ACTIVE TASKS[^\0]*Name\(push\)"),
            ("pools", r"MaxSize\(1048576\)"), ("actions", r"Last called action: shell.actions"),
            ("motion", "usage: motion N"), ("motion x", "usage"), ("motion -1", "usage"),
            ("motion 2", r"alarm: motion 2, score \d+, "), ("log 256 1", "usage"),
            ("log 1 300", "usage"), ("log 3 240", "camera> "), ("set", "receiver/queue +8"),
            ("set nothing 1", "no setting nothing"), ("set uuid x", "uuid is fixed"),
            ("set motion/alarm 101", "not a value"), ("set name", "not a value"),
            ("set hardware DC 200", "written"), ("nonsense", "no such command"),
            ("", "camera> "), ("x" * 300, "cannot be run"),
            ("no\0nsense", "cannot be run"), ("y" * 2000, "line is too long"),
            ("discover", r"(?s)Front door +http://10.99.0.1:8000/.*1 found" if in_namespace()
             else r"\d+ found"), ("discover", "Reuse Task")]:
        camera.say(line, answer)
    for line in ("set motion/threshold 0", "set motion/interval 50"):  # not after an hour
        camera.say(line, "written")
    wait_until(lambda: camera.status()["motion raised"] > 5, "the new interval", camera)
    for how in ("quit", signal.SIGINT, signal.SIGTERM, ""):
        camera.wait_for("Hello on " + ADDRESS if in_namespace() else "started")
        output = camera.end(how)
        expect("camera: ending" in output, "no end", camera)
        expect("Bye on " + ADDRESS in output or not in_namespace(), "no Bye", camera)
        camera.start()
    camera.end()


# ---- console ------------------------------------------------------------------------------------

def case_console():
    need(in_namespace(), "network namespaces are refused")

    def write(line):
        camera.process.stdin.write(line)
        camera.process.stdin.flush()

    def report_unread():
        """More than the pipes hold, and nobody reads it."""
        camera.reads.clear()
        write(b"tasks\n" * 500)
        wait_until(lambda: not any(fcntl.ioctl(camera.process.stdin, termios.FIONREAD, bytes(4))),
                   "the commands are taken", camera)

    def loss_is_told():
        write(b"status\n")
        *_, last = re.finditer(r"console: lost (\d+)", camera.output)
        told = re.findall(r"(?m)^(?:camera> )*console: (\d+) lines lost$",
                          camera.output[:last.start()])
        return 0 < int(last[1]) == sum(map(int, told))

    camera = Camera()
    camera.wait_for("Hello on")
    camera.status()
    report_unread()
    camera.reads.set()
    wait_until(loss_is_told, "every lost line is told", camera)
    expect(not re.search(r"[^\n ]camera> ", camera.output), "a torn line", camera)
    camera.end()

    camera = Camera()  # one that nobody reads again
    camera.wait_for("started")
    report_unread()
    camera.process.send_signal(signal.SIGTERM)
    expect(camera.process.wait(PATIENCE) == 0, "the end", camera)


# ---- probes -------------------------------------------------------------------------------------

def probe(identity, types="dn:NetworkVideoTransmitter", body="", action="Probe", dn=NVT):
    header = f"<a:MessageID>{identity}</a:MessageID>" if identity else ""
    return (f'<s:Envelope xmlns:s="{NS["s"]}" xmlns:a="{NS["a"]}"><s:Header>{header}'
            f'<a:Action s:mustUnderstand="1">{NS["d"]}/{action}</a:Action></s:Header><s:Body>'
            f'<Probe xmlns="{NS["d"]}"><Types xmlns:dn="{dn}">{types}</Types>{body}</Probe>'
            f'</s:Body></s:Envelope>')


def strange_probe(identity):
    """The same in other words: declaration, comment, default namespaces, odd prefixes."""
    return (f'<?xml version="1.0"?><!-- hello -->\n<Envelope xmlns="{NS["s"]}">\n <Header>'
            f'<MessageID xmlns="{NS["a"]}">{identity}</MessageID>\n<x-1:Action xmlns:x-1="{NS["a"]}">'
            f'\n{NS["d"]}/Probe </x-1:Action></Header><Body xmlns:s="{NS["d"]}"><s:Probe/></Body>'
            f'</Envelope>')


def check_answer(text, identity, camera_uuid, seen):
    root = ET.fromstring(text)
    match = root.find("s:Body/d:ProbeMatches/d:ProbeMatch", NS)
    message = root.findtext("s:Header/a:MessageID", "", NS)
    expect(root.findtext("s:Header/a:RelatesTo", None, NS) == identity, f"RelatesTo: {text}")
    expect(re.fullmatch(r"urn:uuid:[0-9a-f-]{36}", message) and message not in seen, message)
    seen.add(message)
    expect(root.findtext("s:Header/a:Action", "", NS) == NS["d"] + "/ProbeMatches" and
           root.findtext("s:Header/a:To", "", NS) == NS["a"] + "/role/anonymous", text)
    expect(match.findtext("a:EndpointReference/a:Address", "", NS) == f"urn:uuid:{camera_uuid}"
           and match.findtext("d:Types", "", NS) == "dn:NetworkVideoTransmitter tds:Device"
           and match.findtext("d:XAddrs", "", NS) == f"http://{ADDRESS}:8000/onvif/device_service"
           and match.findtext("d:MetadataVersion", "", NS) == "1", text)
    expect({"onvif://www.onvif.org/name/Front%20door", "onvif://www.onvif.org/hardware/DC-100"} <=
           set(match.findtext("d:Scopes", "", NS).split()), text)


def udp_socket(host, network="10.99"):
    result = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    result.bind((f"{network}.{host // 250}.{host % 250 + 2}", 0))
    result.settimeout(PATIENCE)
    return result


def case_probes():
    need(in_namespace(), "network namespaces are refused")
    identity = uuid.uuid4()
    camera = Camera(uuid=identity)
    camera.wait_for("Hello on")
    judge_probes(camera, identity)
    before = camera.status()["discovery answered"]
    sources, rounds, seen = [udp_socket(i) for i in range(100)], 10, set()
    for number in range(rounds):
        if number == rounds // 2:
            pool = camera.pool()  # everything that is kept for reuse is there by now
        for i, source in enumerate(sources):  # every other one is sent to the group
            source.sendto(probe(f"uuid:{number}-{i}-{identity}").encode(),
                          GROUP if i % 2 else (ADDRESS, 3702))
        for i, source in enumerate(sources):
            check_answer(source.recv(65536).decode(), f"uuid:{number}-{i}-{identity}", identity,
                         seen)
    expect(not select.select(sources, [], [], 0.3)[0], "more answers than probes", camera)
    expect(camera.status()["discovery answered"] == before + rounds * len(sources), "count", camera)
    asked = [ask(sources[0], GROUP) for _ in range(40)]  # each answer waits for a time of its own
    answers = [sources[0].recv(65536).decode() for _ in asked]
    found = [identity for text in answers for identity in asked if identity in text]
    expect(sorted(found) == sorted(asked) != found != asked, "answers that do not wait", camera)
    growth = camera.pool() - pool  # a block more may be in use at this moment than at that
    expect(growth < 500, f"the pool grew by {growth}", camera)
    camera.end()


def judge_probes(camera, identity):
    """One of each kind: who is answered, and what is counted for who is not."""
    name = "onvif://www.onvif.org/name/Front%20door"
    source = udp_socket(600)
    camera.say("log 3 240")
    rows = [("answered", probe("urn:uuid:a<&gt;\"".replace("<", "&lt;"))),
            ("answered", strange_probe("2")), ("answered", probe("3", types="")),
            ("answered", probe("3" + " " * 200, types="dn:NetworkVideoTransmitter" + " " * 31000)),
            ("answered", probe("4", types=" dn:NetworkVideoTransmitter\n")),
            ("answered", probe("5", body=f"<Scopes>{name} onvif://www.onvif.org/</Scopes>")),
            ("repeated", probe("5")),
            ("other types", probe("6", types="dn:Device")),
            ("other types", probe("7", dn="http://www.onvif.org/ver10/device/wsdl")),
            ("other types", probe("8", types="NetworkVideoTransmitter")),
            ("other types", probe("9", types="dn:NetworkVideoTransmitter dn:Display")),
            ("other scopes", probe("10", body="<Scopes>onvif://www.onvif.org/na</Scopes>")),
            ("other actions", probe("11", action="Resolve")),
            ("other actions", f"<Envelope>{probe('12')}</Envelope>"),
            ("other actions", probe("\u009b31mred", action="Pro\u009b2Jbe\nforged line")),
            ("no MessageID", probe("")), ("no MessageID", probe(" ")),
            ("broken", probe("13")[:-4]), ("broken", probe("13")[:30]), ("broken", probe("14&#1;")),
            ("broken", probe("x" * 300)), ("broken", probe("15", body="y" * 40000))]
    for kind, text in rows:
        before = camera.status()["discovery " + kind]
        source.sendto(text.encode(), (ADDRESS, 3702))
        camera.awaits("discovery " + kind, before + 1)
        if kind == "answered":
            wanted = ET.fromstring(text).findtext(".//a:MessageID", "", NS)
            check_answer(source.recv(65536).decode(), wanted, identity, set())
    expect(not select.select([source], [], [], 0.3)[0], "an answer that nobody asked for", camera)
    expect(r"\xc2\x9b31mred" in camera.output and "\u009b" not in camera.output and
           "\nforged line" not in camera.output, "text of the network in the log", camera)
    camera.say("log 3 16")


# ---- hostile ------------------------------------------------------------------------------------

def ask(source, target=(ADDRESS, 3702)):
    identity = f"urn:uuid:{uuid.uuid4()}"
    source.sendto(probe(identity).encode(), target)
    return identity


def drain(source, seconds):
    """How many datagrams come until there has been none for some time."""
    source.settimeout(seconds)
    for number in range(1 << 30):
        try:
            source.recv(65536)
        except TimeoutError:
            return number


def case_hostile():
    need(in_namespace(), "network namespaces are refused")
    camera = Camera(answers=20, source=5)
    camera.wait_for("Hello on")
    start, victim, client = time.monotonic(), udp_socket(1), udp_socket(2)
    for i in range(300):  # with the address of a victim
        ask(victim, GROUP if i % 2 else (ADDRESS, 3702))
    answers = drain(victim, 1)
    expect(5 <= answers <= 5 * (3 + time.monotonic() - start), f"{answers} answers", camera)
    expect(camera.status()["discovery over budget"] > 200, "not counted", camera)

    start = time.monotonic()
    for _ in range(200):
        victim.sendto(b"", (ADDRESS, 3702))
    expect(ask(client) in client.recv(65536).decode(), "an answer behind them", camera)
    expect(time.monotonic() - start < 10, "deaf for a while", camera)
    expect(camera.status()["discovery unreadable"] == 200, "not counted", camera)
    expect(camera.output.count("recvmsg failed") == 1, "a line for each", camera)

    outside = udp_socket(3, "10.97")
    ask(outside)
    camera.awaits("discovery outside", 1)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as member:
        member.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                          socket.inet_aton("239.1.2.3") + socket.inet_aton(ADDRESS))
        ask(client, ("239.1.2.3", 3702))
        camera.awaits("discovery other groups", 1)
    camera.say("set discovery/remote 1", "written")
    expect(ask(outside) in outside.recv(65536).decode(), "remote", camera)
    client.connect(second := ("10.98.0.1", 3702))  # takes answers from there only
    expect(ask(client, second) in client.recv(65536).decode(), "second address", camera)
    camera.end()


# ---- client -------------------------------------------------------------------------------------

def case_client():
    """A client that was written elsewhere."""
    need(in_namespace(), "network namespaces are refused")
    need(shutil.which("onvif-util"), "onvif-util (package onvif-tools) is not installed")

    def find():
        output = subprocess.run(["onvif-util", "-a"], stdout=subprocess.PIPE, text=True,
                                stdin=subprocess.DEVNULL, timeout=PATIENCE).stdout
        return sorted(re.findall(r"\((.*) DC-100\)", output))

    first, second = Camera(), Camera(name="Back door", service=8001)
    for camera in first, second:
        camera.wait_for("Hello on")
    found = [find() for _ in range(5)]
    expect(found == [["Back door", "Front door"]] * 5, str(found), first)
    first.end(signal.SIGINT)
    expect(find() == ["Back door"], "found after its end", second)
    second.end()


# ---- receiver -----------------------------------------------------------------------------------

class Receiver:
    """An alarm receiver: it reads, or only accepts."""

    def __init__(self, port=0, reads=True):
        self.listener = socket.create_server(("127.0.0.1", port))
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        self.port = self.listener.getsockname()[1]
        self.reads, self.lines, self.connections = reads, [], []
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        with contextlib.suppress(OSError):
            while True:
                connection = self.listener.accept()[0]
                self.connections.append(connection)
                rest = b""
                while self.reads and (chunk := connection.recv(65536)):
                    *whole, rest = (rest + chunk).split(b"\n")
                    self.lines += whole

    def kill(self):
        for one in [self.listener] + self.connections:
            with contextlib.suppress(OSError):
                one.shutdown(socket.SHUT_RDWR)
            one.close()
        self.thread.join()
        return self.lines


def settle(camera, written):
    """Waits until so many notices are written, and every one is sent, dropped or waiting: one is
    none of these for the moment in which it passes from one to the next."""
    def settled():
        now = camera.status()
        return (now["alarm written"] + now["motion dropped"] == written and now["alarm written"] ==
                now["push sent"] + now["push dropped"] + now["push waiting"])
    wait_until(settled, f"{written} notices", camera)
    return camera.status()


def case_receiver():
    receiver = Receiver()
    port = receiver.port
    receiver.kill()
    camera = Camera(receiver="127.0.0.1", port=port, alarm=0, queue=200)  # every motion is an alarm

    camera.say("motion 250")  # the receiver is away
    status = settle(camera, 250)
    waiting = status["push waiting"]
    expect(status["push sent"] == 0 and waiting in (200, 201), str(status), camera)
    camera.wait_for(r"push: \d+ notices dropped, ")

    receiver = Receiver(port)  # it comes: what waited arrives, in order
    camera.awaits("push sent", waiting)
    camera.say("motion 3")
    camera.awaits("push sent", waiting + 3)
    wait_until(lambda: len(receiver.lines) == waiting + 3, "what was sent", camera)
    notices = [ET.fromstring(line) for line in receiver.lines]
    numbers = [int(notice.get("number")) for notice in notices]
    expect(numbers == sorted(set(numbers)) and numbers[-3:] == [251, 252, 253], str(numbers))
    expect(notices[-1].findtext("name") == "Front door" and
           notices[-1].findtext("priority") == "alarm" and
           re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z", notices[-1].findtext("time")),
           str(receiver.lines[-1]))

    received = len(receiver.kill())  # it dies while nothing is on its way: nothing is lost
    camera.say("motion 5")
    status = settle(camera, 258)
    expect(status["push sent"] == received and status["push waiting"] == 5, str(status), camera)

    receiver = Receiver(port, reads=False)  # it is back, but takes what the system takes, no more
    camera.awaits("push sent", received + 5)
    raised = 258
    while True:  # until nothing more goes into the connection
        expect(raised < 1000000, "the connection takes everything", camera)
        camera.say("motion 150")
        raised += 150
        status = settle(camera, raised)
        if status["push waiting"]:
            time.sleep(1)
            if camera.status()["push sent"] == status["push sent"]:
                break
    receiver.kill()

    receiver = Receiver(port)  # and one that reads again
    camera.awaits("push waiting", 0)
    wait_until(lambda: receiver.lines, "the rest has arrived", camera)
    for line in receiver.lines[:100]:  # the first one was torn when the connection was
        ET.fromstring(line)
    # The waits for the network are longer than this: a detector that met one would show it.
    status = settle(camera, raised)
    expect(status["motion longest"] < 400, f"the detector waited: {status}", camera)
    camera.say("set idle/receiver 100", "no notice for a while")  # not after a minute
    camera.say("set idle/receiver 60000", "written")
    camera.say("motion 1", "push: connected")
    camera.say("set receiver/port 9", "another receiver was set")
    camera.end()
    receiver.kill()


# ---- the namespace ------------------------------------------------------------------------------

def in_namespace():
    return os.environ.get("CAMERA_TEST_NAMESPACE") == "yes"


def enter_namespace(kinds="-Urn"):
    """Starts this program again with a network of its own: only lo, with 10.99.0.0/16 and a second
    address on it, and 10.97.0.0/16 behind it."""
    setup = ("ip link set lo up && ip addr add 10.99.0.1/16 dev lo && "
             "ip addr add 10.98.0.1/24 dev lo && ip route add local 10.97.0.0/16 dev lo && "
             "ip route add 224.0.0.0/4 dev lo")
    if all(map(shutil.which, ("unshare", "ip"))) and subprocess.run(
            ["unshare", kinds, "sh", "-c", setup], stderr=subprocess.DEVNULL).returncode == 0:
        os.environ["CAMERA_TEST_NAMESPACE"] = "yes"
        os.execvp("unshare", ["unshare", kinds, "sh", "-c", setup + ' && exec "$@"', "sh",
                              sys.executable] + sys.argv)
    os.environ["CAMERA_TEST_NAMESPACE"] = "no"


if __name__ == "__main__":
    if "CAMERA_TEST_NAMESPACE" not in os.environ:
        enter_namespace()
    Camera.command = sys.argv[2:-1] + [os.path.abspath(sys.argv[-1])]
    try:
        globals()["case_" + sys.argv[1]]()
    finally:
        for camera in Camera.running:  # a failed case leaves some
            camera.kill()
