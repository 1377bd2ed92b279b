// SPDX-License-Identifier: Apache-2.0
// Takes a transport stream apart by the tables of ISO/IEC 13818-1, without the code that writes it, and lists what is wrong
// with it.
#ifndef TS_READER_H
#define TS_READER_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace ts_reader {

using Bytes = std::vector<uint8_t>;

struct Pes {
  uint16_t pid = 0;
  uint8_t streamId = 0;
  bool isRandomAccess = false;
  std::optional<uint64_t> pts;
  std::optional<uint64_t> dts;
  unsigned length = 0;
  Bytes payload;
};

struct Track {
  uint8_t type = 0;
  Bytes descriptors;
};

inline uint32_t SlowCrc(std::span<const uint8_t> bytes) {
  uint32_t crc = 0xFFFFFFFF;
  for (const uint8_t byte : bytes) {
    for (int bit = 7; bit >= 0; --bit) {
      const bool high = ((crc >> 31) ^ (byte >> bit & 1)) != 0;
      crc = crc << 1 ^ (high ? 0x04C11DB7 : 0);
    }
  }
  return crc;
}

class Reader {
 public:
  std::vector<std::string> faults;
  std::vector<uint64_t> references;  // clock references in units of 1/90000 s
  std::map<uint16_t, Track> tracks;
  std::vector<Pes> packets;  // complete ones, in the order of their ends
  int mapVersion = -1;
  uint16_t referencePid = 0;

  void Read(std::span<const uint8_t> stream) {
    if (stream.size() % 188 != 0) faults.emplace_back("not whole packets");
    for (size_t at = 0; at + 188 <= stream.size(); at += 188) ReadPacket(stream.subspan(at, 188));
  }
  void Finish() {
    for (auto& [pid, pes] : m_open) Close(pid, pes);
    m_open.clear();
  }
  std::vector<Pes> Of(uint16_t pid) const {
    std::vector<Pes> found;
    for (const Pes& pes : packets) {
      if (pes.pid == pid) found.push_back(pes);
    }
    return found;
  }

 private:
  static unsigned Word(std::span<const uint8_t> bytes, size_t at) {
    return static_cast<unsigned>(bytes[at]) << 8U | bytes[at + 1];
  }
  static uint64_t Time(std::span<const uint8_t> b) {
    return static_cast<uint64_t>(b[0] >> 1 & 7) << 30 | static_cast<uint64_t>(Word(b, 1) >> 1) << 15 | Word(b, 3) >> 1;
  }
  void Expect(bool isRight, const char* fault) {
    if (!isRight) faults.emplace_back(fault);
  }

  void ReadPacket(std::span<const uint8_t> packet) {
    Expect(packet[0] == 0x47, "no sync byte");
    Expect((packet[1] & 0x80) == 0 && (packet[3] & 0xC0) == 0, "error or scrambled");
    const bool isStart = (packet[1] & 0x40) != 0;
    const auto pid = static_cast<uint16_t>(Word(packet, 1) & 0x1FFF);
    const unsigned control = packet[3] >> 4 & 3;
    Expect(control != 0, "neither field nor payload");
    size_t at = 4;
    bool isRandomAccess = false;
    bool isDiscontinuous = false;
    if ((control & 2) != 0) {
      const size_t length = packet[4];
      Expect(length <= 183 && (control == 3 ? length < 183 : length == 183), "length of the adaptation field");
      if (length > 183) return;
      if (length != 0) {
        isDiscontinuous = (packet[5] & 0x80) != 0;
        isRandomAccess = (packet[5] & 0x40) != 0;
        const bool hasReference = (packet[5] & 0x10) != 0;
        if (hasReference) ReadReference(pid, packet.subspan(6, 6), isDiscontinuous);
        for (size_t i = 6 + (hasReference ? 6 : 0); i < 5 + length; ++i) Expect(packet[i] == 0xFF, "stuffing");
      }
      at += 1 + length;
    }
    ReadCounter(pid, packet[3] & 0x0F, (control & 1) != 0);
    if ((control & 1) == 0) return;
    const auto payload = packet.subspan(at);
    if (pid == 0 || pid == 0x1000) {
      ReadSection(pid, isStart, payload);
    } else {
      ReadPes(pid, isStart, isRandomAccess, payload);
    }
  }

  void ReadReference(uint16_t pid, std::span<const uint8_t> bytes, bool isDiscontinuous) {
    Expect(pid == referencePid || referencePid == 0, "clock reference in another track");
    const uint64_t base =
        static_cast<uint64_t>(Word(bytes, 0)) << 17 | static_cast<uint64_t>(Word(bytes, 2)) << 1 | bytes[4] >> 7;
    Expect((bytes[4] & 0x7E) == 0x7E && (bytes[4] & 1) == 0 && bytes[5] == 0, "reserved bits of a clock reference");
    if (!references.empty() && !isDiscontinuous) {
      const uint64_t apart = (base - references.back()) & 0x1FFFFFFFF;
      Expect(apart != 0 && apart <= 3600, "clock references apart");
    }
    references.push_back(base);
  }

  void ReadCounter(uint16_t pid, uint8_t counter, bool hasPayload) {
    const auto last = m_counters.find(pid);
    if (last != m_counters.end()) {
      Expect(counter == ((last->second + (hasPayload ? 1 : 0)) & 0x0F), "continuity");
    }
    m_counters[pid] = counter;
  }

  void ReadSection(uint16_t pid, bool isStart, std::span<const uint8_t> payload) {
    Bytes& section = m_sections[pid];
    if (isStart) {
      Expect(payload[0] == 0, "pointer");
      section.clear();
      payload = payload.subspan(1);
    }
    section.insert(section.end(), payload.begin(), payload.end());
    const size_t size = section.size() < 3 ? 3 : 3 + (Word(section, 1) & 0x0FFF);
    if (section.size() < size) return;
    for (size_t i = size; i < section.size(); ++i) Expect(section[i] == 0xFF, "behind a section");
    section.resize(size);
    Expect(size <= 1024 && SlowCrc(section) == 0, "checksum of a section");
    if (pid == 0) {
      Expect(section[0] == 0 && Word(section, 8) == 1 && Word(section, 10) == 0xF000, "program association");
      return;
    }
    ReadMap(section);
  }

  void ReadMap(std::span<const uint8_t> section) {
    Expect(section[0] == 2 && (section[5] & 1) == 1, "program map");
    mapVersion = section[5] >> 1 & 0x1F;
    referencePid = static_cast<uint16_t>(Word(section, 8) & 0x1FFF);
    tracks.clear();
    const size_t end = section.size() - 4;
    for (size_t at = 12 + (Word(section, 10) & 0x0FFF); at + 5 <= end;) {
      const size_t length = Word(section, at + 3) & 0x0FFF;
      Expect(at + 5 + length <= end, "descriptors");
      if (at + 5 + length > end) return;
      const auto from = section.begin() + static_cast<std::ptrdiff_t>(at) + 5;
      tracks[static_cast<uint16_t>(Word(section, at + 1) & 0x1FFF)] = {
          section[at], Bytes(from, from + static_cast<std::ptrdiff_t>(length))};
      at += 5 + length;
    }
  }

  void ReadPes(uint16_t pid, bool isStart, bool isRandomAccess, std::span<const uint8_t> payload) {
    Expect(tracks.contains(pid), "track that the map does not have");
    if (isStart) {
      const auto open = m_open.find(pid);
      if (open != m_open.end()) Close(pid, open->second);
      m_open[pid] = {};
      m_open[pid].isRandomAccess = isRandomAccess;
    }
    const auto open = m_open.find(pid);
    Expect(open != m_open.end(), "middle of a packet");
    if (open == m_open.end()) return;
    open->second.payload.insert(open->second.payload.end(), payload.begin(), payload.end());
  }

  void Close(uint16_t pid, Pes& pes) {
    const Bytes raw = std::move(pes.payload);
    pes.pid = pid;
    if (raw.size() < 9 || raw[0] != 0 || raw[1] != 0 || raw[2] != 1) {
      faults.emplace_back("PES header");
      return;
    }
    pes.streamId = raw[3];
    pes.length = Word(raw, 4);
    const size_t head = size_t{9} + raw[8];
    Expect((raw[6] & 0xC0) == 0x80 && head <= raw.size(), "PES header");
    Expect(pes.length == 0 ? pes.streamId == 0xE0 : pes.length + 6 == raw.size(), "PES length");
    if (head > raw.size()) return;
    const std::span<const uint8_t> all(raw);
    if ((raw[7] & 0x80) != 0) pes.pts = Time(all.subspan(9, 5));
    if ((raw[7] & 0x40) != 0) pes.dts = Time(all.subspan(14, 5));
    Expect((raw[9] >> 4) == (raw[7] >> 6), "marker of a time");
    pes.payload.assign(raw.begin() + static_cast<std::ptrdiff_t>(head), raw.end());
    packets.push_back(pes);
  }

  std::map<uint16_t, uint8_t> m_counters;
  std::map<uint16_t, Bytes> m_sections;
  std::map<uint16_t, Pes> m_open;
};

}  // namespace ts_reader

#endif  // TS_READER_H
