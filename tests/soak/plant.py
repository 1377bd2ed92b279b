# SPDX-License-Identifier: Apache-2.0
"""What a soak run consists of: networks, the encoder with its twelve sources, its recordings and its counters."""
import ctypes
import datetime
import json
import os
import pathlib
import re
import signal
import subprocess
import threading
import time

import ledger
import traffic

NAMES = ("u4", "copy", "u6", "group", "wire", "cot4", "cot6", "serial", "media", "anc", "local", "local2")
PORTS = {"u4": 16001, "copy": 16002, "u6": 16003, "group": 16004, "wire": 16005, "cot4": 16006, "cot6": 16007,
         "anc": 16008}
COLLECTORS = {"u4": 16101, "u6": 16102, "wire": 16103, "cot6": 16104, "serial": 16105}
GROUP, NEAR, FAR = "239.77.1.1", "10.78.0.1", "10.78.0.2"
MEDIA_SECONDS, MEDIA_RATE = 30, 25
MEDIA_START = "2024-05-01T12:00:00Z"


# --- Networks ----------------------------------------------------------------------------------------

def run(*command, **more):
    subprocess.run([str(word) for word in command], check=True, capture_output=True, **more)


def batch(space, *commands):
    run("ip", *(["-n", space] if space else []), "-batch", "-", input="\n".join(commands).encode())


class Far:
    """Another network at the other end of a wire. What makes sockets in it runs on a thread of its own, because a
    thread has one network."""

    def __init__(self):
        run("mount", "-t", "tmpfs", "tmpfs", "/run/netns")
        run("ip", "netns", "add", "far")
        batch("far", "link set lo up")
        self.ready, self.thread_id = threading.Event(), None
        self.jobs, self.done = [], threading.Event()

    def make(self, jobs):
        """Calls the functions in the far network; the thread stays, so that its tables can be read."""
        self.jobs = jobs
        threading.Thread(target=self._run, name="far", daemon=True).start()
        self.ready.wait()
        if self.thread_id is None:
            raise RuntimeError("the far network is not usable")

    def _run(self):
        with open("/run/netns/far", "rb") as space:
            if ctypes.CDLL(None, use_errno=True).setns(space.fileno(), 0) != 0:
                raise OSError(ctypes.get_errno(), "setns")
        try:
            for job in self.jobs:
                job()
            self.thread_id = threading.get_native_id()
        finally:
            self.ready.set()
        self.done.wait()


def plug():
    batch(None, "link add eth1 type veth peer name eth1 netns far", f"addr add {NEAR}/24 dev eth1", "link set eth1 up")
    batch("far", f"addr add {FAR}/24 dev eth1", "link set eth1 up", "route add 224.0.0.0/4 dev eth1")


def unplug():
    batch(None, "link del eth1")


# --- Configuration -----------------------------------------------------------------------------------

class Folders:
    def __init__(self, out):
        self.out = out
        self.recordings = out / "recordings"
        self.disk = out / "disk"  # a small file system
        self.rotated = out / "rotated"  # becomes unwritable
        for folder in (self.recordings, self.disk, self.rotated):
            folder.mkdir(parents=True)
        run("mount", "-t", "tmpfs", "-o", "size=2m", "tmpfs", self.disk)

    def of(self, name):
        return self.disk if name in ("u6", "media") else self.rotated if name in ("cot4", "local") else self.recordings


def section(folders, name, *lines):
    output = f"output = {folders.of(name)}/{name}_%Y%m%dT%H%M%SZ_%n.klv"
    rotate = "rotate_time = 5" if folders.of(name) == folders.rotated else "rotate_size = 64k"
    return "\n".join([f"[{name}]", *lines, output, rotate]) + "\n"


def configuration(folders, interval):
    udp = "input = udp\nport = {}\nfamily = {}".format
    relay = {name: f"127.0.0.1:{port}" for name, port in COLLECTORS.items()}
    parts = [
        f"[encoder]\nformat = json\nsummary = {folders.out}/summary.json\nstats_json = {folders.out}/stats.jsonl\n"
        f"stats_interval = {interval}\nhost_config = {folders.out}/host.ini\nlog_level = 4\n",
        section(folders, "u4", udp(PORTS["u4"], "ipv4"), f"relay1 = 127.0.0.1:{PORTS['copy']}",
                f"relay2 = {relay['u4']}"),
        section(folders, "copy", udp(PORTS["copy"], "ipv4")),
        section(folders, "u6", udp(PORTS["u6"], "ipv6"), "mission_id = SOAK", "keep_tags = 2, 3, 10",
                f"relay1 = [::1]:{COLLECTORS['u6']}"),
        section(folders, "group", udp(PORTS["group"], "ipv4"), f"address = {GROUP}"),
        section(folders, "wire", udp(PORTS["wire"], "ipv4"), f"relay1 = {FAR}:{COLLECTORS['wire']}"),
        section(folders, "cot4", udp(PORTS["cot4"], "ipv4"), "data = cot", "cot_delta_ms = 10"),
        section(folders, "cot6", udp(PORTS["cot6"], "ipv6"), "data = cot", "cot_delta_ms = 10",
                f"relay1 = {relay['cot6']}"),
        section(folders, "serial", "input = serial", f"relay1 = {relay['serial']}"),
        section(folders, "media", "input = video\ninterface = 0"),
        section(folders, "anc", "input = video\ninterface = 1"),
        section(folders, "local", "input = video\ninterface = 2"),
        section(folders, "local2", "input = video\ninterface = 3\ndecimation = 2"),
    ]
    return "\n".join(parts)


def host_configuration(folders):
    return (f"[log]\nconsole = no\nfile = {folders.out}/host.log\nlevel = 4\n[serial]\n"
            f"/dev/ttyPS0 = {folders.out}/serial\n[network]\nmulticast interface = eth1\n"
            f"[capture0]\nkind = media\npath = {folders.out}/flight.ts\n"
            f"loop = yes\n[capture1]\nkind = anc\nport = {PORTS['anc']}\n[capture2]\nkind = socket\n"
            f"path = {folders.out}/c2\n[capture3]\nkind = socket\npath = {folders.out}/c3\n")


# --- The encoder -------------------------------------------------------------------------------------

class Encoder:
    """The running encoder, a reader of its output that can pause, and its lines on the standard error."""

    def __init__(self, folders, programs, interval):
        self.folders = folders
        self.config = folders.out / "encoder.ini"
        self.good = configuration(folders, interval)
        self.config.write_text(self.good)
        (folders.out / "host.ini").write_text(host_configuration(folders))
        self.error_file = open(folders.out / "encoder.err", "w")
        self.errors, self.errors_at = [], 0
        self.rows, self.rest = 0, b""
        self.reading = threading.Event()
        self.reading.set()
        self.process = subprocess.Popen(
            [programs["encoder"], self.config, "--library", programs["library"]], stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=self.error_file, env={**os.environ, "TZ": "UTC"}, preexec_fn=reset_signals)
        self.reader = threading.Thread(target=self.read, name="reader")
        self.reader.start()

    def read(self):
        """Counts the rows of messages."""
        fd = self.process.stdout.fileno()
        mark = b'{"type":"message"'
        while True:
            self.reading.wait()
            data = os.read(fd, 65536)
            if not data:
                return
            data = self.rest + data
            cut = data.rfind(b"\n") + 1
            self.rows += data.count(mark, 0, cut)
            self.rest = data[cut:]

    def lines(self):
        """Returns all lines of the standard error so far."""
        with open(self.folders.out / "encoder.err", errors="replace") as file:
            file.seek(self.errors_at)
            for line in iter(file.readline, ""):
                if not line.endswith("\n"):
                    break
                self.errors.append(line[:-1])
                self.errors_at = file.tell()
        return self.errors

    def count(self, text, since=0):
        return sum(text in line for line in self.lines()[since:])

    def signal(self, number):
        self.process.send_signal(number)

    def write_config(self, text):
        new = self.folders.out / "new.ini"
        new.write_text(text)
        new.rename(self.config)

    def usage(self):
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        value = {key: int(number) for key, number in re.findall(r"^(VmRSS|Threads):\s+(\d+)", status, re.M)}
        ticks = pathlib.Path(f"/proc/{self.process.pid}/stat").read_text().rsplit(")", 1)[1].split()
        return {"rss_kb": value["VmRSS"], "threads": value["Threads"],
                "descriptors": len(os.listdir(f"/proc/{self.process.pid}/fd")),
                "cpu_s": (int(ticks[11]) + int(ticks[12])) / os.sysconf("SC_CLK_TCK")}

    def ready(self):
        """Tells whether the run has begun: it has a descriptor of signals, and its sources have their ports."""
        folder = f"/proc/{self.process.pid}/fd"
        links = []
        for fd in os.listdir(folder):
            try:
                links.append(os.readlink(f"{folder}/{fd}"))
            except FileNotFoundError:
                pass
        ports = udp_table("self")
        return (any("signalfd" in link for link in links) and all(port in ports for port in PORTS.values()) and
                (self.folders.out / "c2").exists() and (self.folders.out / "c3").exists())


def reset_signals():
    os.setpriority(os.PRIO_PROCESS, 0, 0) if os.getpriority(os.PRIO_PROCESS, 0) < 0 else None
    signal.pthread_sigmask(signal.SIG_SETMASK, [])


# --- Counters ----------------------------------------------------------------------------------------

def udp_table(task):
    """Returns {port: [(inode, unread bytes, drops)]} of the network of a task."""
    ports = {}
    for table in ("udp", "udp6"):
        with open(f"/proc/{task}/net/{table}") as file:
            next(file)
            for line in file:
                parts = line.split()
                port = int(parts[1].rsplit(":", 1)[1], 16)
                ports.setdefault(port, []).append((parts[9], int(parts[4].split(":")[1], 16), int(parts[12])))
    return ports


class Counters:
    """Samples the losses that the kernel and the encoder count, on a thread of its own."""

    def __init__(self, folders, far):
        self.series, self.kernel = ledger.Series(), ledger.Series()
        self.folders, self.far = folders, far
        self.drops = {}  # (port, inode): drops
        self.at = 0
        self.latest = {}  # last statistics by source
        self.latest_time = 0
        self.stopping = threading.Event()
        self.error = None
        self.thread = threading.Thread(target=self.run, name="counters")

    def run(self):
        try:
            last = False
            while not last:
                last = self.stopping.wait(0.2)
                self.sample()
        except Exception as error:  # told by the main thread
            self.error = error

    def sample(self):
        now = time.time()
        for task in ("self", f"self/task/{self.far.thread_id}"):
            for port, sockets in udp_table(task).items():
                for inode, _, drops in sockets:
                    self.drops[port, inode] = drops
        total = {}
        for (port, _), drops in self.drops.items():
            total[port] = total.get(port, 0) + drops
        values = {(name, "kernel"): total.get(port, 0) for name, port in PORTS.items()}
        values.update({(name, "collector"): total.get(port, 0) for name, port in COLLECTORS.items()})
        self.kernel.add(now, values)
        self.read_statistics()

    def read_statistics(self):
        path = self.folders.out / "stats.jsonl"
        if not path.exists():
            return
        with open(path, "rb") as file:
            file.seek(self.at)
            data = file.read()
        cut = data.rfind(b"\n") + 1
        self.at += cut
        for line in data[:cut].splitlines():
            statistics = json.loads(line)
            moment = datetime.datetime.fromisoformat(statistics["time"]).timestamp()
            self.add(moment, statistics["sources"])

    def add(self, moment, sources):
        self.latest = {source["name"]: source for source in sources}
        self.latest_time = moment
        values = {}
        for source in sources:
            name = source["name"]
            if name not in NAMES:
                continue
            values[name, "queue"] = source["dropped"]
            values[name, "disk"] = source["recording"]["lost"]
            values[name, "corrupt"] = source["corrupt"]
            values[name, "orphans"] = source.get("pairs", {}).get("events_without_partner", 0)
            for relay in source["statistics"]["relays"]:
                values[name, "relay " + relay["destination"]] = relay["errors"]
        self.series.add(moment, values)


class Both:
    """The kernel's counters and the encoder's as one."""

    def __init__(self, counters):
        self.counters = counters

    def at(self, moment, key):
        one = self.counters.kernel if key[1] in ("kernel", "collector") else self.counters.series
        return one.at(moment, key)


# --- Recordings --------------------------------------------------------------------------------------

class Recording:
    """Follows the files of one source by their indexes, notes every message and removes files that are complete."""

    def __init__(self, folder, stream):
        self.folder, self.stream = folder, stream
        self.number = None  # of the current file
        self.at = self.index_at = 0
        self.files = 0
        self.unindexed = 0
        self.hold = False
        self.media = Media(stream) if stream.name == "media" else None

    def files_now(self):
        found = {}
        for path in self.folder.glob(f"{self.stream.name}_*.klv"):
            found[int(path.stem.rsplit("_", 1)[1])] = path
        return sorted(found.items())

    def poll(self, final=False):
        if self.hold and not final:
            return
        files = self.files_now()
        for index, (number, path) in enumerate(files):
            if self.number is not None and number < self.number:
                continue
            complete = final or index + 1 < len(files)
            if number != self.number:
                self.number, self.at, self.index_at = number, 0, 0
                self.files += 1
            self.consume(path)
            if complete:
                self.finish(path)
                path.unlink()
                pathlib.Path(f"{path}.json").unlink(missing_ok=True)

    def consume(self, path):
        try:
            with open(f"{path}.json", "rb") as file:
                file.seek(self.index_at)
                text = file.read()
        except FileNotFoundError:
            return
        text = text[:text.rfind(b"\n") + 1]
        if not text:
            return
        begin = self.at
        with open(path, "rb") as file:
            file.seek(begin)
            data = file.read()
        for line in text.splitlines():
            entry = json.loads(line)
            if "type" in entry:
                continue
            offset, length = entry["offset"], entry["length"]
            if offset > self.at:
                self.split(data[self.at - begin:offset - begin])
            if offset < self.at or offset - begin + length > len(data):
                self.stream.complain(f"{path.name}: index line {entry} does not fit at {self.at}")
            self.note(data[offset - begin:offset - begin + length], entry)
            self.at = offset + length
        self.index_at += len(text)

    def finish(self, path):
        with open(path, "rb") as file:
            file.seek(self.at)
            self.split(file.read())
        self.number = None

    def split(self, data):
        """Notes messages that have no line in the index."""
        at = 0
        while at < len(data):
            header, length = 17, data[at + 16]
            if length & 0x80:
                header += length & 0x7F
                length = int.from_bytes(data[at + 17:at + header], "big")
            if data[at:at + 16] != traffic.KEY or at + header + length > len(data):
                return self.stream.complain(f"{len(data) - at} bytes of the recording are no whole message")
            self.note(data[at:at + header + length], None)
            self.unindexed += 1
            at += header + length
        return None

    def note(self, message, entry):
        number = traffic.number_of(message) if traffic.is_whole(message) else None
        if self.media:
            return self.media.note(number, entry)
        with self.stream.lock:
            if self.stream.name.startswith("cot"):
                return self.stream.note_recorded(-1 if number is None else traffic.pair_of(number))
            if number is None or number >= traffic.DAMAGED:
                if self.stream.damaged_recorded < self.stream.damaged_sent:
                    self.stream.recorded += 1
                    self.stream.damaged_recorded += 1
                    return None
                return self.stream.complain(f"recorded {message[:40].hex()}, which was never sent")
            return self.stream.note_recorded(number)


class Media:
    """Numbers the messages of a file that is played in a loop. Its times tell what was played and is not recorded."""

    COUNT = MEDIA_SECONDS * MEDIA_RATE
    STEP = 90000 // MEDIA_RATE

    def __init__(self, stream):
        self.stream = stream
        self.base = int(datetime.datetime.fromisoformat(MEDIA_START).timestamp() * 1000000)
        self.stamp = None
        self.moment = 0

    def note(self, value, entry):
        place, rest = divmod((value or 0) - self.base, 1000000 // MEDIA_RATE)
        if rest or not 0 <= place < self.COUNT:
            return self.stream.complain(f"recorded the time {value}, which the file does not hold")
        following = len(self.stream.times) if self.stamp is not None or self.stream.times else place
        skipped = (place - following) % self.COUNT
        if not self.stream.times:
            skipped = place
        if entry:
            self.moment = entry["time"] / 1e6
            if self.stamp is not None and abs(entry["timestamp"] - self.stamp[0] -
                                              (following + skipped - self.stamp[1]) * self.STEP) > 10 * self.STEP:
                self.stream.complain(f"time stamp {entry['timestamp']} does not fit message {following + skipped}")
            self.stamp = (entry["timestamp"], following + skipped)
        for _ in range(skipped + 1):
            self.stream.note_sent(self.moment)
        return self.stream.note_recorded(following + skipped)


class Recordings:
    """Polls all recordings on a thread of its own."""

    def __init__(self, folders, streams):
        self.all = {name: Recording(folders.of(name), stream) for name, stream in streams.items()}
        self.stopping = threading.Event()
        self.error = None
        self.thread = threading.Thread(target=self.run, name="recordings")

    def run(self):
        try:
            while not self.stopping.wait(0.5):
                self.poll()
        except Exception as error:  # told by the main thread
            self.error = error

    def poll(self, final=False):
        for recording in self.all.values():
            recording.poll(final)
