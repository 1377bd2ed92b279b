// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Packets    of 188 bytes
//   Tables     tell what the packets carry
//   Clock      is in the packets of the video
//   Tracks     are PES packets
#include "ts_mux.h"

#include <algorithm>
#include <array>
#include <initializer_list>

namespace ts {
namespace {

constexpr uint8_t kSync = 0x47;
constexpr uint8_t kStuffing = 0xFF;
constexpr uint16_t kAssociationPid = 0;
constexpr uint8_t kAssociationTable = 0x00;
constexpr uint8_t kMapTable = 0x02;
constexpr uint8_t kVideoStream = 0xE0;
constexpr uint8_t kMetadataStream = 0xFC;
constexpr uint8_t kPrivateStream = 0xBD;
constexpr size_t kHeader = 4;
constexpr size_t kRoom = kPacketSize - kHeader;
constexpr size_t kReferenceField = 8;          // the adaptation field's length and flags, and a clock reference
constexpr int64_t kMostMissing = 10 * kClock;  // of clock references that are filled in

constexpr uint8_t kRegistration[] = {0x05, 0x04, 'K', 'L', 'V', 'A'};
// Application format "general", format "KLVA", service 0, no decoder configuration.
constexpr uint8_t kMetadataDescriptor[] = {0x26, 0x09, 0x01, 0x00, 0xFF, 'K', 'L', 'V', 'A', 0x00, 0x0F};
// The buffer fills at up to 4 Mbit/s (10000 times 400 bit/s), holds 128 KiB, and is emptied by the presentation times.
constexpr uint8_t kMetadataStd[] = {0x27, 0x09, 0xC0, 0x27, 0x10, 0xC0, 0x00, 0x80, 0xC0, 0x00, 0x00};

void Put(Bytes& out, std::initializer_list<unsigned> bytes) {
  for (const unsigned byte : bytes) out.push_back(static_cast<uint8_t>(byte));
}
void Put(Bytes& out, ByteView bytes) {
  out.insert(out.end(), bytes.begin(), bytes.end());
}
void PutWord(Bytes& out, unsigned word) {
  Put(out, {word >> 8 & 0xFF, word & 0xFF});
}

// --- Packets -----------------------------------------------------------------------------------------

void PutHeader(Bytes& out, uint16_t pid, bool isStart, bool hasField, bool hasPayload, uint8_t counter) {
  Put(out, {kSync, (isStart ? 0x40U : 0U) | pid >> 8U, pid & 0xFFU,
            (hasField ? 0x20U : 0U) | (hasPayload ? 0x10U : 0U) | (counter & 0x0FU)});
}

struct Field {
  bool isDiscontinuous = false;
  bool isRandomAccess = false;
  std::optional<int64_t> reference;
  bool IsEmpty() const { return !isDiscontinuous && !isRandomAccess && !reference; }
  size_t Size() const { return reference ? kReferenceField : 2; }
};

// Appends an adaptation field of `size` bytes: its length, flags, the clock reference and stuffing.
void PutField(Bytes& out, const Field& field, size_t size) {
  out.push_back(static_cast<uint8_t>(size - 1));
  if (size == 1) return;
  const size_t begin = out.size();
  Put(out,
      {(field.isDiscontinuous ? 0x80U : 0U) | (field.isRandomAccess ? 0x40U : 0U) | (field.reference ? 0x10U : 0U)});
  if (field.reference) {
    const auto base = static_cast<uint64_t>(*field.reference) & 0x1FFFFFFFF;
    for (const int shift : {25, 17, 9, 1}) out.push_back(static_cast<uint8_t>(base >> shift));
    // Six reserved bits, and an extension of 0: the times are whole units of the base.
    Put(out, {static_cast<unsigned>(base & 1) << 7 | 0x7E, 0x00});
  }
  out.insert(out.end(), size - 1 - (out.size() - begin), kStuffing);
}

// Appends a time of 33 bits in its five bytes.
void PutTime(Bytes& out, unsigned prefix, int64_t time) {
  const auto t = static_cast<uint64_t>(time) & 0x1FFFFFFFF;
  Put(out, {prefix << 4 | static_cast<unsigned>(t >> 29 & 0x0E) | 1});
  PutWord(out, static_cast<unsigned>(t >> 14 & 0xFFFE) | 1);
  PutWord(out, static_cast<unsigned>(t << 1 & 0xFFFE) | 1);
}

constexpr std::array<uint32_t, 256> MakeCrcTable() {
  std::array<uint32_t, 256> table{};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t value = i << 24;
    for (int bit = 0; bit < 8; ++bit) value = value << 1 ^ ((value & 0x80000000) != 0 ? 0x04C11DB7 : 0);
    table.at(i) = value;
  }
  return table;
}

}  // namespace

uint32_t Crc32(ByteView bytes) {
  static constexpr std::array<uint32_t, 256> kTable = MakeCrcTable();
  uint32_t crc = 0xFFFFFFFF;
  for (const uint8_t byte : bytes) crc = crc << 8 ^ kTable.at(crc >> 24 ^ byte);
  return crc;
}

// --- Tables ------------------------------------------------------------------------------------------

namespace {

// Returns a section: its header, the content and the checksum.
Bytes Section(uint8_t table, unsigned id, uint8_t version, const Bytes& content) {
  const size_t length = 5 + content.size() + 4;
  Bytes section;
  Put(section, {table});
  PutWord(section, 0xB000U | static_cast<unsigned>(length));
  PutWord(section, id);
  Put(section, {0xC1U | static_cast<unsigned>(version & 0x1F) << 1, 0, 0});
  Put(section, ByteView(content));
  const uint32_t crc = Crc32(section);
  PutWord(section, crc >> 16);
  PutWord(section, crc & 0xFFFF);
  return section;
}

constexpr unsigned kStreamNumber = 1;  // of the transport stream, and of its only program

}  // namespace

std::optional<size_t> Mux::AddTrack() {
  if (m_tracks.size() == kMostTracks) return std::nullopt;
  m_tracks.emplace_back();
  ChangeMap();
  return m_tracks.size() - 1;
}

void Mux::SetCodec(video::Codec codec) {
  if (codec == m_codec) return;
  m_codec = codec;
  ChangeMap();
}

// Another version follows a map that was written.
void Mux::ChangeMap() {
  if (!m_isMapWritten) return;
  ++m_version;
  m_isMapWritten = false;
  m_lastTables.reset();
}

Bytes Mux::AssociationSection() const {
  Bytes content;
  PutWord(content, kStreamNumber);
  PutWord(content, 0xE000U | kProgramMapPid);
  return Section(kAssociationTable, kStreamNumber, 0, content);
}

Bytes Mux::MapSection() const {
  Bytes content;
  PutWord(content, 0xE000U | kVideoPid);  // has the clock references
  PutWord(content, 0xF000U);              // no descriptors of the program
  Put(content, {m_codec == video::Codec::H264 ? 0x1BU : 0x24U});
  PutWord(content, 0xE000U | kVideoPid);
  PutWord(content, 0xF000U);
  const bool isSynchronous = m_carriage == Carriage::Synchronous;
  for (size_t track = 0; track < m_tracks.size(); ++track) {
    Bytes descriptors;
    if (isSynchronous) {
      Put(descriptors, kMetadataDescriptor);
      Put(descriptors, kMetadataStd);
    } else {
      Put(descriptors, kRegistration);
    }
    Put(content, {isSynchronous ? 0x15U : 0x06U});
    PutWord(content, 0xE000U | PidOf(track));
    PutWord(content, 0xF000U | static_cast<unsigned>(descriptors.size()));
    Put(content, ByteView(descriptors));
  }
  return Section(kMapTable, kStreamNumber, m_version, content);
}

// The last packet of a section is filled up behind it.
void Mux::PutSection(uint16_t pid, uint8_t& counter, const Bytes& section, Bytes& out) const {
  Bytes payload = {0};  // the section begins at once
  Put(payload, ByteView(section));
  for (size_t at = 0; at < payload.size(); at += kRoom) {
    const ByteView part = ByteView(payload).subspan(at, std::min(kRoom, payload.size() - at));
    PutHeader(out, pid, at == 0, false, true, counter++);
    Put(out, part);
    out.insert(out.end(), kRoom - part.size(), kStuffing);
  }
}

void Mux::PutTables(int64_t now, bool isForced, Bytes& out) {
  if (!isForced && m_lastTables && now - *m_lastTables < kTablesInterval && now >= *m_lastTables) return;
  PutSection(kAssociationPid, m_associationCounter, AssociationSection(), out);
  PutSection(kProgramMapPid, m_mapCounter, MapSection(), out);
  m_lastTables = now;
  m_isMapWritten = true;
}

// --- Clock -------------------------------------------------------------------------------------------

// A packet without a payload has the counter of the one before it.
void Mux::PutReferencePacket(int64_t reference, bool isDiscontinuous, Bytes& out) const {
  PutHeader(out, kVideoPid, false, true, false, static_cast<uint8_t>(m_videoCounter - 1));
  PutField(out, {isDiscontinuous, false, reference}, kRoom);
}

// Fills in the references that are due before this time.
void Mux::PutReferences(int64_t now, Bytes& out) {
  if (m_lastReference && now - *m_lastReference > kMostMissing) {
    PutReferencePacket(now, true, out);
    m_lastReference = now;
  }
  while (m_lastReference && now - *m_lastReference > kReferenceInterval) {
    *m_lastReference += kReferenceInterval;
    PutReferencePacket(*m_lastReference, false, out);
  }
}

void Mux::PutClock(int64_t now, Bytes& out) {
  PutTables(now, false, out);
  PutReferences(now, out);
  if (m_lastReference && now - *m_lastReference < kReferenceInterval) return;
  PutReferencePacket(now, false, out);
  m_lastReference = now;
}

// --- Tracks ------------------------------------------------------------------------------------------

// The payload is `first` and, behind it, `second`. Its first packet has what the adaptation field says, its last one is
// filled up by such a field.
void Mux::PutPes(const Pes& pes, uint8_t& counter, ByteView first, ByteView second, Bytes& out) const {
  Bytes head;
  const size_t timeBytes = pes.dts ? 10 : 5;
  const size_t length = 3 + timeBytes + first.size() + second.size();
  Put(head, {0x00, 0x00, 0x01, pes.streamId});
  PutWord(head, pes.hasLength ? static_cast<unsigned>(length) : 0);
  Put(head, {0x84, pes.dts ? 0xC0U : 0x80U, static_cast<unsigned>(timeBytes)});  // the payload is aligned
  PutTime(head, pes.dts ? 3 : 2, pes.pts + kDelay);
  if (pes.dts) PutTime(head, 1, *pes.dts + kDelay);
  Put(head, first);
  const size_t total = head.size() + second.size();
  Field field{false, pes.isRandomAccess, pes.reference};
  for (size_t at = 0; at < total;) {
    const size_t least = field.IsEmpty() ? 0 : field.Size();
    const size_t payload = std::min(kRoom - least, total - at);
    const size_t fieldSize = kRoom - payload;
    PutHeader(out, pes.pid, at == 0, fieldSize != 0, true, counter++);
    if (fieldSize != 0) PutField(out, field, fieldSize);
    const size_t ofHead = at < head.size() ? std::min(payload, head.size() - at) : 0;
    const size_t inSecond = at + ofHead - std::min(at + ofHead, head.size());
    Put(out, ByteView(head).subspan(std::min(at, head.size()), ofHead));
    Put(out, second.subspan(inSecond, payload - ofHead));
    at += payload;
    field = {};
  }
}

void Mux::PutFrame(const Frame& frame, Bytes& out) {
  constexpr uint8_t kDelimiter264[] = {0x00, 0x00, 0x00, 0x01, 0x09, 0xF0};        // any slice types
  constexpr uint8_t kDelimiter265[] = {0x00, 0x00, 0x00, 0x01, 0x46, 0x01, 0x50};  // likewise
  PutTables(frame.dts, frame.isKey, out);
  PutReferences(frame.dts, out);
  ByteView delimiter;
  if (!video::HasDelimiter(m_codec, frame.bytes)) {
    delimiter = m_codec == video::Codec::H264 ? ByteView(kDelimiter264) : ByteView(kDelimiter265);
  }
  Pes pes;
  pes.pid = kVideoPid;
  pes.streamId = kVideoStream;
  pes.pts = frame.pts;
  if (frame.dts != frame.pts) pes.dts = frame.dts;
  pes.hasLength = false;
  pes.isRandomAccess = frame.isKey;
  // Time does not go back, whatever the frame says.
  if (!m_lastReference || frame.dts > *m_lastReference) pes.reference = m_lastReference = frame.dts;
  PutPes(pes, m_videoCounter, delimiter, frame.bytes, out);
}

bool Mux::PutMessage(size_t number, const Message& message, Bytes& out) {
  Track& track = m_tracks.at(number);
  const int64_t pts = std::max({message.pts, track.lastPts, m_lastReference.value_or(0) - kDelay});
  track.lastPts = pts;
  PutTables(m_lastReference.value_or(0), false, out);
  const bool isSynchronous = m_carriage == Carriage::Synchronous;
  Pes pes;
  pes.pid = PidOf(number);
  pes.streamId = isSynchronous ? kMetadataStream : kPrivateStream;
  pes.pts = pts;
  const size_t most = isSynchronous ? kMostPesData - kCellHeader : kMostPesData;
  size_t at = 0;
  do {
    const ByteView part = message.bytes.subspan(at, std::min(most, message.bytes.size() - at));
    const bool isFirst = at == 0;
    at += part.size();
    const bool isLast = at == message.bytes.size();
    const auto sequence = static_cast<uint8_t>(message.sequence + track.shift);
    // Which fragment it is, no decoder configuration, random access, reserved bits.
    const auto flags = static_cast<uint8_t>((isFirst ? 0x80 : 0) | (isLast ? 0x40 : 0) | 0x1F);
    const std::array<uint8_t, kCellHeader> cell = {0, sequence, flags, static_cast<uint8_t>(part.size() >> 8),
                                                   static_cast<uint8_t>(part.size())};
    PutPes(pes, track.counter, isSynchronous ? ByteView(cell) : ByteView(), part, out);
    if (!isLast) ++track.shift;
  } while (at < message.bytes.size());
  return pts == message.pts;
}

}  // namespace ts
