// SPDX-License-Identifier: Apache-2.0
// ts_mux.h - writes a transport stream of ISO/IEC 13818-1 with one video track and tracks of KLV metadata, as MISB ST 1402
// asks.
//
// Synchronous metadata has stream type 0x15: a message is a metadata access unit, in cells with a header of five bytes.
// Asynchronous metadata has stream type 0x06 and the registration KLVA: the bare messages. Both have presentation times.
//
// Times are those of the stream's own clock in units of 1/90000 s, from 0 on. The stream says them later by kDelay, so that
// a message that arrives up to so much after its frame still has its frame's time.
#ifndef TS_MUX_H
#define TS_MUX_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "video_units.h"

namespace ts {

using ByteView = std::span<const uint8_t>;
using Bytes = std::vector<uint8_t>;

enum class Carriage { Synchronous, Asynchronous };

constexpr size_t kPacketSize = 188;
constexpr uint16_t kProgramMapPid = 0x1000;
constexpr uint16_t kVideoPid = 0x100;
constexpr uint16_t kFirstMetadataPid = 0x101;
constexpr size_t kMostTracks = 32;             // of metadata: the program map fits into one section
constexpr size_t kCellHeader = 5;              // of a metadata access unit cell
constexpr size_t kMostPesData = 65535 - 8;     // of a PES packet that has a length, behind its header with a time
constexpr int64_t kClock = 90'000;             // units a second
constexpr int64_t kDelay = kClock;             // from the clock reference to a time
constexpr int64_t kReferenceInterval = 3'600;  // at most between two clock references: 40 ms
constexpr int64_t kTablesInterval = 9'000;     // between two repetitions of the tables: 100 ms

// CRC-32/MPEG-2: polynomial 0x04C11DB7, not reflected, initial value all ones.
uint32_t Crc32(ByteView bytes);

class Mux {
 public:
  Mux(video::Codec codec, Carriage carriage) : m_codec(codec), m_carriage(carriage) {}

  // The frames to come are of this codec.
  void SetCodec(video::Codec codec);

  // Adds a track of metadata and returns its number, or nothing if there are kMostTracks. A program map that was written
  // is followed by another version.
  std::optional<size_t> AddTrack();
  static uint16_t PidOf(size_t track) { return static_cast<uint16_t>(kFirstMetadataPid + track); }

  // Each appends packets to `out`.

  // Writes an access unit in Annex B form. An access unit delimiter is added where it lacks one.
  struct Frame {
    ByteView bytes;
    int64_t pts = 0;
    int64_t dts = 0;  // not before that of the last frame
    bool isKey = false;
  };
  void PutFrame(const Frame& frame, Bytes& out);

  // Writes a message without its stream header. Returns whether it has its time: one that is too late, or before the
  // track's last message, has the earliest time that the stream still allows.
  struct Message {
    ByteView bytes;
    uint8_t sequence = 0;  // of its cell, synchronous only
    int64_t pts = 0;
  };
  bool PutMessage(size_t track, const Message& message, Bytes& out);

  // Says what time it is, and the tables if they are due. A stream whose frames are missing needs it.
  void PutClock(int64_t now, Bytes& out);

 private:
  struct Track {
    uint8_t counter = 0;
    uint8_t shift = 0;  // of the sequence numbers: cells beyond one for a message
    int64_t lastPts = INT64_MIN;
  };
  struct Pes {
    uint16_t pid = 0;
    uint8_t streamId = 0;
    int64_t pts = 0;
    std::optional<int64_t> dts;
    bool hasLength = true;
    bool isRandomAccess = false;
    std::optional<int64_t> reference;  // for its first packet
  };

  void ChangeMap();
  void PutTables(int64_t now, bool isForced, Bytes& out);
  Bytes AssociationSection() const;
  Bytes MapSection() const;
  void PutSection(uint16_t pid, uint8_t& counter, const Bytes& section, Bytes& out) const;
  void PutReferences(int64_t now, Bytes& out);
  void PutReferencePacket(int64_t reference, bool isDiscontinuous, Bytes& out) const;
  void PutPes(const Pes& pes, uint8_t& counter, ByteView first, ByteView second, Bytes& out) const;

  video::Codec m_codec;
  const Carriage m_carriage;
  std::vector<Track> m_tracks;
  uint8_t m_version = 0;
  bool m_isMapWritten = false;
  uint8_t m_associationCounter = 0;
  uint8_t m_mapCounter = 0;
  uint8_t m_videoCounter = 0;
  std::optional<int64_t> m_lastTables;
  std::optional<int64_t> m_lastReference;
};

}  // namespace ts

#endif  // TS_MUX_H
