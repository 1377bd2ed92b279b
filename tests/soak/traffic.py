# SPDX-License-Identifier: Apache-2.0
"""Senders that number every message, and receivers that count relayed ones."""
import datetime
import errno
import os
import pty
import random
import selectors
import socket
import struct
import termios
import threading
import time

KEY = bytes.fromhex("060E2B34020B01010E01030101000000")
DAMAGED = 1 << 62  # in the number of a message that was damaged on purpose
UDP_SEGMENT = 103  # of linux/udp.h: the system cuts what is sent into datagrams of this size
PAIR_STEP = datetime.timedelta(milliseconds=50)  # between the times of two pairs of events
PAIR_EPOCH = datetime.datetime(2024, 5, 6, tzinfo=datetime.timezone.utc)


# --- Messages ----------------------------------------------------------------------------------------

def checksum(data):
    return (sum(data[0::2]) * 256 + sum(data[1::2])) & 0xFFFF


def klv(number, filler=b"SOAK"):
    """Returns a local set with the number as its time stamp."""
    body = b"\x02\x08" + struct.pack(">Q", number) + b"\x0a" + bytes([len(filler)]) + filler + b"\x01\x02"
    start = KEY + bytes([len(body) + 2]) + body
    return start + struct.pack(">H", checksum(start))


def number_of(message):
    """Returns the time stamp of a local set."""
    at = 17 + max(0, message[16] - 0x80)
    while at + 2 <= len(message):
        tag, length = message[at], message[at + 1]
        at += 2
        if length & 0x80:
            count = length & 0x7F
            length = int.from_bytes(message[at:at + count], "big")
            at += count
        if tag == 2:
            return int.from_bytes(message[at:at + length], "big")
        at += length
    return None


def is_whole(message):
    """Tells whether a short local set has its key, its length and its checksum."""
    header = 17 + max(0, message[16] - 0x80) if len(message) > 20 else 0
    length = int.from_bytes(message[17:header], "big") if header > 17 else message[16] if header else -1
    return (message[:16] == KEY and len(message) == header + length and
            checksum(message[:-2]) == struct.unpack(">H", message[-2:])[0])


def damage(message, choose):
    """Returns the message with one of the damages that a network or a sender makes."""
    kind = choose.randrange(6)
    if kind == 0:
        return message[:-2] + bytes(byte ^ 0x55 for byte in message[-2:])
    if kind == 1:
        return message[:choose.randrange(1, len(message))]
    if kind == 2:
        return bytes([message[0] ^ 0xFF]) + message[1:]
    if kind == 3:
        return message[:16] + b"\x84\xff\xff\xff\xff" + message[17:]
    if kind == 4:
        return message[:16] + bytes([message[16] + 9]) + message[17:]
    return bytes(choose.randrange(256) for _ in range(choose.randrange(1, 400)))


def pair_of(time_us):
    """Returns the number of the pair of events that has this time."""
    since = time_us - int(PAIR_EPOCH.timestamp() * 1000000)
    number, rest = divmod(since, int(PAIR_STEP.total_seconds() * 1000000))
    return number if rest == 0 else -1


def events(number):
    """Returns the sensor point and the aircraft event of a pair."""
    moment = PAIR_EPOCH + number * PAIR_STEP
    time_text = moment.strftime("%Y-%m-%dT%H:%M:%S.") + f"{moment.microsecond // 10000:02}Z"
    times = f'how="m-g" time="{time_text}" start="{time_text}" stale="2034-05-06T07:09:09.00Z"'
    return (f'<event version="2.0" uid="SENSOR-1" type="b-m-p-s-p-i" {times}><point lat="45.5117" lon="-73.5573" '
            'hae="35.5" ce="10" le="10"/><detail><sensor model="EO" fov="12.5" vfov="7.5" azimuth="100.25" '
            'elevation="-30.5" roll="0" range="4321"/><link uid="AIRCRAFT-1" relation="p-p" type="a-f-A-M-F-Q"/>'
            '</detail></event>'.encode(),
            f'<event version="2.0" uid="AIRCRAFT-1" type="a-f-A-M-F-Q" {times}><point lat="45.5017" lon="-73.5673" '
            'hae="1250.5" ce="9.9" le="9.9"/><detail><contact callsign="HAWK 1"/><track course="87.5" speed="61.2"/>'
            '<attitude pitch="2.25" roll="-3.5" yaw="0.0"/></detail></event>'.encode())


def ancillary(message, number):
    """Returns an RTP packet with the message in one ancillary packet (docs/formats/anc_klv.md)."""
    words = [0x44, 0x04, len(message) + 3, number % 255 + 1, 0, 1, *message]
    bits, total = 0, 0
    for word in words:
        word |= (word.bit_count() & 1) << 8
        total += word & 0x1FF
        bits = bits << 10 | word | (~word >> 8 & 1) << 9
    bits = bits << 10 | total & 0x1FF | (~total >> 8 & 1) << 9
    size = 10 * (len(words) + 1)
    padding = -size % 32
    packet = struct.pack(">I", 9 << 20) + (bits << padding).to_bytes((size + padding) // 8, "big")
    header = struct.pack(">BBHIIHHBBH", 0x80, 0x80 | 112, number & 0xFFFF, number * 3600 & 0xFFFFFFFF, 0x50AC,
                         number >> 16 & 0xFFFF, len(packet), 1, 0, 0)
    return header + packet


# --- Senders -----------------------------------------------------------------------------------------

class Sender:
    """Sends a source's messages at a rate. Whoever sends holds the lock."""

    def __init__(self, stream, rate):
        self.stream = stream
        self.rate = rate
        self.due = 0
        self.lock = threading.Lock()

    def send(self):
        number = self.stream.next_number()
        self.stream.note_sent(time.time())
        if not self.put(number):
            self.stream.note_refused(number)

    def put(self, number):
        """Sends the message of the number. Returns whether the system took it."""
        raise NotImplementedError

    def burst(self, count, rate):
        """Sends messages faster than usual."""
        with self.lock:
            begin = time.monotonic()
            for index in range(count):
                self.send()
                ahead = begin + (index + 1) / rate - time.monotonic()
                if ahead > 0.002:
                    time.sleep(ahead)


class Datagrams(Sender):
    """Sends a message as one or more datagrams, from the network of the thread that makes it."""

    def __init__(self, stream, rate, address, make):
        super().__init__(stream, rate)
        self.address = address
        self.make = make
        self.socket = socket.socket(socket.AF_INET6 if ":" in address[0] else socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 1 << 20)

    def put(self, number):
        try:
            for datagram in self.make(number):
                self.socket.sendto(datagram, self.address)
            return True
        except OSError:
            return False

    def flood(self, lots, at_once=64):
        """Sends KLV messages as fast as the system takes them."""
        with self.lock, socket.socket(self.socket.family, socket.SOCK_DGRAM) as sender:
            sender.setsockopt(socket.IPPROTO_UDP, UDP_SEGMENT, len(klv(0)))
            first = self.stream.next_number()
            flight = [b"".join(klv(first + lot * at_once + index) for index in range(at_once)) for lot in range(lots)]
            for data in flight:
                now = time.time()
                for _ in range(at_once):
                    self.stream.note_sent(now)
                sender.sendto(data, self.address)

    def send_damaged(self, choose):
        self.stream.damaged_sent += 1
        try:
            self.socket.sendto(damage(klv(DAMAGED | self.stream.damaged_sent), choose), self.address)
        except OSError:
            self.stream.damaged_sent -= 1


class Local(Sender):
    """Sends to the local socket of a video input. One that is full refuses, or is tried again with the same message."""

    def __init__(self, stream, rate, path, retries):
        super().__init__(stream, rate)
        self.retries = retries
        self.path = path
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.setblocking(False)
        self.socket.connect(str(path))

    def send(self):
        number = self.stream.next_number()
        if self.retries:
            # Noted behind the sending: a message that is not taken keeps its number. The lock of the stream holds the
            # recording up meanwhile.
            with self.stream.lock:
                if self.put(number):
                    self.stream.note_sent(time.time())
        else:
            super().send()

    def put(self, number):
        try:
            self.socket.send(struct.pack(">Q", 90000 + number * 3003) + klv(number))
            return True
        except (BlockingIOError, ConnectionRefusedError):
            return False
        except OSError as error:
            if error.errno == errno.ENOBUFS:
                return False
            raise


class Serial(Sender):
    """The far end of a serial line, a pseudo-terminal that is opened through a link."""

    def __init__(self, stream, rate, link):
        super().__init__(stream, rate)
        self.link = link
        self.far = None
        self.rest = b""  # of a message of which the line took a part
        self.plug()

    def plug(self):
        with self.lock:
            self.far, near = pty.openpty()
            os.set_blocking(self.far, False)
            name = os.ttyname(near)
            os.close(near)
            temporary = f"{self.link}.new"
            os.symlink(name, temporary)
            os.rename(temporary, self.link)
            self.rest = b""

    def unplug(self):
        with self.lock:
            self.link.unlink()
            os.close(self.far)
            self.far = None

    def is_open(self):
        """Tells whether the encoder has opened and configured the line."""
        try:
            return self.far is not None and not termios.tcgetattr(self.far)[3] & termios.ICANON
        except termios.error:
            return False

    def write(self, data):
        try:
            return os.write(self.far, data)
        except BlockingIOError:
            return 0
        except OSError as error:
            if error.errno == errno.EIO:
                return 0
            raise

    def put(self, number):
        if self.far is None:
            return False
        if self.rest:
            self.rest = self.rest[self.write(self.rest):]
            if self.rest:
                return False
        data = klv(number)
        written = self.write(data)
        self.rest = data[written:] if written else b""
        return written > 0

    def babble(self, seconds, choose):
        """Writes noise, keys of messages that never come, and messages in between."""
        until = time.monotonic() + seconds
        while time.monotonic() < until:
            with self.lock:
                noise = choose.randbytes(choose.randrange(1, 200))
                self.write(noise if choose.random() < 0.7 else KEY + b"\x84\xff\xff\xff\xff" + noise)
            time.sleep(0.01)


class Traffic:
    """Runs all senders on one thread. It gives way to bursts."""

    def __init__(self, senders):
        self.senders = senders
        self.stopping = threading.Event()
        self.error = None
        self.thread = threading.Thread(target=self.run, name="traffic")

    def run(self):
        try:
            begin = time.monotonic()
            for index, sender in enumerate(self.senders):
                sender.due = begin + index * 0.003
            while not self.stopping.is_set():
                for sender in self.senders:
                    self.serve(sender)
                time.sleep(0.004)
        except Exception as error:  # told by the main thread
            self.error = error

    @staticmethod
    def serve(sender):
        now = time.monotonic()
        if sender.due > now or not sender.lock.acquire(blocking=False):
            return
        try:
            if now - sender.due > 0.3:
                sender.due = now
            while sender.due <= now:
                sender.send()
                sender.due += 1 / sender.rate
        finally:
            sender.lock.release()

    def stop(self):
        self.stopping.set()
        self.thread.join()


# --- Relays ------------------------------------------------------------------------------------------

class Collectors:
    """Counts the copies that relays send, on one thread."""

    def __init__(self):
        self.selector = selectors.DefaultSelector()
        self.counts = {}
        self.stopping = threading.Event()
        self.thread = threading.Thread(target=self.run, name="collectors")

    def add(self, name, address):
        """Opens a collector in the network of the calling thread."""
        receiver = socket.socket(socket.AF_INET6 if ":" in address[0] else socket.AF_INET, socket.SOCK_DGRAM)
        # SO_RCVBUFFORCE
        receiver.setsockopt(socket.SOL_SOCKET, 33, 8 << 20)
        receiver.setblocking(False)
        receiver.bind(address)
        self.counts[name] = 0
        self.selector.register(receiver, selectors.EVENT_READ, name)

    def run(self):
        while not self.stopping.is_set():
            for key, _ in self.selector.select(0.2):
                for _ in range(256):
                    try:
                        key.fileobj.recv(2048)
                    except BlockingIOError:
                        break
                    self.counts[key.data] += 1

    def stop(self):
        self.stopping.set()
        self.thread.join()


def chooser(seed, name):
    return random.Random(f"{seed}/{name}")
