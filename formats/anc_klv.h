// SPDX-License-Identifier: Apache-2.0
// Packs and unpacks KLV in the ancillary data of a video, in the form in which it travels over a network.
//
// Standards: SMPTE ST 2110-40 and RFC 8331 (RTP payload), SMPTE ST 291-1 (ancillary packets), SMPTE RP 214 (KLV in
// them, DID 0x44, SDID 0x04), SMPTE ST 336 (the KLV). docs/formats/anc_klv.md has the byte tables.
//
// CONTENTS
//   KLV          finds the end of a message
//   Packing      turns a message into ancillary packets, and those into RTP packets
//   Unpacking    does the reverse, one packet at a time
//   Ordering     restores the order of RTP packets, and extends timestamps to 64 bits
//   Assembly     joins ancillary packets to messages
//   Receiver     does all of the unpacking, from datagrams to stamped messages
//
// Nothing here does input or output, logs, or reads a clock. Each object belongs to one thread.
#ifndef ANC_KLV_H
#define ANC_KLV_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace anc_klv {

using Bytes = std::vector<uint8_t>;
using ByteView = std::span<const uint8_t>;

// --- KLV ---------------------------------------------------------------------------------------------

constexpr size_t kLargestKlv = 65'554;  // bytes: key 16, length 3, value 65535

struct KlvSize {
  enum class State { Known, NeedMore, Bad };
  State state;
  size_t size;  // bytes of key, length and value; only valid if Known
};
// Returns the size of the message at the start of the bytes, which begins with a SMPTE universal label (06 0E 2B 34
// ...) and a BER length. It is Bad if it begins otherwise, has an indefinite length, or is larger than kLargestKlv.
KlvSize SizeOfKlv(ByteView bytes);

// --- Packing -----------------------------------------------------------------------------------------

constexpr uint8_t kKlvDid = 0x44;
constexpr uint8_t kKlvSdid = 0x04;
constexpr size_t kLargestUserData = 255;  // words of an ancillary packet
constexpr size_t kKlvPerPacket = 252;     // after the message number and the packet count

struct AncPacket {
  uint8_t did = kKlvDid;
  uint8_t sdid = kKlvSdid;
  uint16_t line = 9;  // 11 bits
  Bytes userData;     // the low 8 bits of each word, at most kLargestUserData
};

// Splits one message into ancillary packets. The message number goes from 1 to 255 and distinguishes messages; packets
// are counted from 1.
std::vector<AncPacket> SplitKlv(ByteView klv, uint8_t messageNumber);

// Returns an ancillary packet as the RTP payload carries it: with position, parity and checksum, padded to 32 bits.
Bytes PackAnc(const AncPacket& packet);

struct RtpHeader {
  bool marker = false;  // last packet of a frame
  uint8_t payloadType = 112;
  uint32_t sequence = 0;   // RTP's 16 bits and the payload's 16 higher ones
  uint32_t timestamp = 0;  // 90 kHz
  uint32_t source = 0;
  uint8_t field = 0;  // bits F: 0b00 progressive or unspecified, 0b10 first field, 0b11 second field
};
constexpr size_t kRtpHeaderSize = 20;  // includes the payload header

// Returns one RTP packet with `count` ancillary packets that PackAnc made: at most 255, and less than 65536 bytes.
Bytes PackRtp(const RtpHeader& header, ByteView ancPackets, uint8_t count);

// --- Unpacking ---------------------------------------------------------------------------------------

struct RtpPacket {
  RtpHeader header;
  uint8_t count = 0;  // number of ancillary packets, according to the payload header
  Bytes payload;      // the ancillary packets
};
// Returns nothing if the datagram is not such an RTP packet, is truncated, or has the bits F 0b01, which are undefined.
std::optional<RtpPacket> UnpackRtp(ByteView datagram);

enum class AncState { Good, BadChecksum, BadParity, CutOff };
struct UnpackedAnc {
  AncState state;
  AncPacket packet;  // also valid with a bad checksum or parity
  size_t size;       // bytes to the next packet; 0 if truncated
};
UnpackedAnc UnpackAnc(ByteView bytes);

// --- Ordering ----------------------------------------------------------------------------------------

// Faults in the received data, counted since the object was made.
struct Counts {
  uint64_t damaged = 0;       // malformed or truncated RTP packets, malformed KLV
  uint64_t badChecksums = 0;  // ancillary packets
  uint64_t badParity = 0;     // ancillary packets
  uint64_t lost = 0;          // RTP packets
  uint64_t reordered = 0;     // RTP packets put back in order
  uint64_t late = 0;          // RTP packets dropped: repeated or too late
  uint64_t restarts = 0;      // changes of the source, and jumps of the sequence number
  uint64_t incomplete = 0;    // messages
};

// Puts RTP packets into the order of their sequence numbers. It waits for a missing packet until kDepth later ones have
// arrived or kPatience has elapsed.
class RtpOrder {
 public:
  static constexpr size_t kDepth = 32;
  static constexpr int64_t kPatience = 50'000'000;  // ns
  static constexpr int32_t kLargestGap = 1'000;     // packets; a larger gap is a restart

  using Sink = std::function<void(const RtpPacket&)>;

  // Times are nanoseconds of any steady clock.
  void Push(RtpPacket packet, int64_t now, Counts& counts, const Sink& sink);
  // Gives up on packets that have been missing for too long.
  void Expire(int64_t now, Counts& counts, const Sink& sink);
  bool IsWaiting() const { return !m_waiting.empty(); }

 private:
  void GiveUpFirst(Counts& counts, const Sink& sink);
  void Drain(const Sink& sink);

  std::optional<uint32_t> m_source;
  uint32_t m_next = 0;                     // sequence number
  std::map<int32_t, RtpPacket> m_waiting;  // by distance from m_base
  uint32_t m_base = 0;                     // value of m_next when the waiting began
  int64_t m_since = 0;                     // time when the waiting began
};

// Extends 32-bit timestamps to 64 bits: each one becomes the value nearest to its predecessor.
class LongTimestamp {
 public:
  uint64_t Extend(uint32_t timestamp);

 private:
  std::optional<uint64_t> m_last;
};

// --- Assembly ----------------------------------------------------------------------------------------

struct StampedKlv {
  uint64_t timestamp = 0;  // 90 kHz
  Bytes klv;
};

// Joins the KLV of ancillary packets. A message that lacks a part is dropped and counted once.
class KlvAssembler {
 public:
  // Returns the message if this packet completes one. It has the timestamp of its first packet.
  std::optional<StampedKlv> Push(const AncPacket& packet, uint64_t timestamp, Counts& counts);
  // Drops an unfinished message, after a gap in the packets.
  void DropUnfinished(Counts& counts);

 private:
  StampedKlv m_current;
  uint8_t m_number = 0;              // of the message
  uint16_t m_nextPacket = 0;         // 0 between messages
  std::optional<uint8_t> m_dropped;  // number of the last message that was counted
};

// --- Receiver ----------------------------------------------------------------------------------------

class Receiver {
 public:
  using Sink = std::function<void(const StampedKlv&)>;
  explicit Receiver(Sink sink) : m_sink(std::move(sink)) {}

  void Push(ByteView datagram, int64_t now);
  // Call it at least every kPatience while IsWaiting().
  void Expire(int64_t now);
  bool IsWaiting() const { return m_order.IsWaiting(); }
  const Counts& Seen() const { return m_counts; }

 private:
  void PushInOrder(const RtpPacket& packet);

  Sink m_sink;
  Counts m_counts;
  RtpOrder m_order;
  LongTimestamp m_time;
  KlvAssembler m_assembler;
  uint64_t m_restarts = 0;  // value in m_counts at the last check
};

}  // namespace anc_klv

#endif  // ANC_KLV_H
