# SPDX-License-Identifier: Apache-2.0
"""Takes a transport stream of ISO/IEC 13818-1 apart: tables, PES packets, times, and what is wrong with it."""
import struct

MASK = (1 << 33) - 1
MISP = b"MISPmicrosectime"


def crc(data):
    value = 0xFFFFFFFF
    for byte in data:
        value ^= byte << 24
        for _ in range(8):
            value = (value << 1 ^ 0x04C11DB7 if value & 0x80000000 else value << 1) & 0xFFFFFFFF
    return value


def stamp(data):
    return ((data[0] >> 1 & 7) << 30 | (struct.unpack(">H", data[1:3])[0] >> 1) << 15
            | struct.unpack(">H", data[3:5])[0] >> 1)


class Pes:
    def __init__(self, pid, random_access, reference):
        self.pid, self.random_access, self.reference, self.raw = pid, random_access, reference, b""

    def finish(self, fault):
        raw = self.raw
        if len(raw) < 9 or raw[:3] != b"\0\0\1":
            return fault("PES header")
        self.id = raw[3]
        size = struct.unpack(">H", raw[4:6])[0]
        if size + 6 != len(raw) and not (size == 0 and self.id == 0xE0):
            fault("PES length")
        self.pts = stamp(raw[9:14]) if raw[7] & 0x80 else None
        self.dts = stamp(raw[14:19]) if raw[7] & 0x40 else self.pts
        self.data = raw[9 + raw[8]:]
        return self


class Stream:
    """A whole stream, or what a reader got that came in the middle of one."""

    def __init__(self, data):
        self.faults, self.tracks, self.packets, self.references = [], {}, [], []
        self.counters, self.sections, self.open = {}, {}, {}
        if len(data) % 188:
            self.faults.append("not whole packets")
        for at in range(0, len(data) - 187, 188):
            self.packet(data[at:at + 188])
        for pes in self.open.values():
            self.close(pes)

    def of(self, pid):
        return [pes for pes in self.packets if pes.pid == pid]

    def metadata(self):
        return sorted(pid for pid, (kind, _) in self.tracks.items() if kind in (0x06, 0x15))

    def messages(self, pid):
        """Returns the messages of a track with their times: cells are put together."""
        found, begun = [], b""
        for pes in self.of(pid):
            data = pes.data
            if self.tracks[pid][0] == 0x15:
                if struct.unpack(">H", data[3:5])[0] != len(data) - 5 or data[2] & 0x3F != 0x1F or data[0]:
                    self.faults.append("cell header")
                begun += data[5:]
                if not data[2] & 0x40:
                    continue
                data, begun = begun, b""
            found.append((pes.pts, data))
        return found

    def sequence(self, pid):
        return [pes.data[1] for pes in self.of(pid)]

    def frames(self):
        """Returns presentation time and time stamp of every frame."""
        found = []
        for pes in self.of(0x100):
            at = pes.data.find(MISP)
            time = None
            if at >= 0:
                raw = pes.data[at + 17:at + 28]
                time = int.from_bytes(bytes(raw[i] for i in range(11) if i % 3 != 2), "big")
            found.append((pes.pts, time))
        return found

    def packet(self, packet):
        if packet[0] != 0x47 or packet[1] & 0x80:
            self.faults.append("sync")
        pid = struct.unpack(">H", packet[1:3])[0] & 0x1FFF
        start, control = packet[1] & 0x40, packet[3] >> 4 & 3
        field = packet[5:5 + packet[4]] if control & 2 else b""
        discontinuous = bool(field and field[0] & 0x80)
        if field and field[0] & 0x10:
            self.reference(struct.unpack(">I", field[1:5])[0] << 1 | field[5] >> 7, discontinuous)
        counter = packet[3] & 15
        if pid in self.counters and counter != (self.counters[pid] + (control & 1)) & 15:
            self.faults.append(f"continuity of {pid:#x}")
        self.counters[pid] = counter
        if not control & 1:
            return
        payload = packet[4 + (1 + packet[4] if control & 2 else 0):]
        if pid in (0, 0x1000):
            self.section(pid, start, payload)
        elif pid in self.tracks:
            if start:
                if pid in self.open:
                    self.close(self.open[pid])
                reference = self.references[-1] if self.references else None
                self.open[pid] = Pes(pid, bool(field and field[0] & 0x40), reference)
            if pid in self.open:
                self.open[pid].raw += payload

    def reference(self, base, discontinuous):
        if self.references and not discontinuous:
            apart = (base - self.references[-1]) & MASK
            if not 0 < apart <= 3600:
                self.faults.append(f"clock references {apart / 90} ms apart")
        self.references.append(base)

    def section(self, pid, start, payload):
        if start:
            self.sections[pid] = payload[1:]
        elif pid in self.sections:
            self.sections[pid] += payload
        section = self.sections.get(pid, b"")
        size = 3 + (struct.unpack(">H", section[1:3])[0] & 0xFFF) if len(section) > 3 else 1 << 20
        if len(section) < size:
            return
        section = section[:size]
        if crc(section):
            self.faults.append("checksum of a table")
        if pid == 0:
            return
        at = 12 + (struct.unpack(">H", section[10:12])[0] & 0xFFF)
        while at < size - 4:
            kind, track, length = section[at], *struct.unpack(">HH", section[at + 1:at + 5])
            self.tracks[track & 0x1FFF] = (kind, section[at + 5:at + 5 + (length & 0xFFF)])
            at += 5 + (length & 0xFFF)

    def close(self, pes):
        done = pes.finish(self.faults.append)
        if not done:
            return
        if done.reference is not None and done.dts is not None and (done.dts - done.reference) & MASK > 1 << 32:
            self.faults.append("a time before the clock reference")
        self.packets.append(done)
