// KLV in the ancillary data of a video, as it travels over a network: packing and unpacking.
//
// Standards: SMPTE ST 2110-40 and RFC 8331 (RTP payload), SMPTE ST 291-1 (ancillary packets), SMPTE RP 214 (KLV in
// them, DID 0x44, SDID 0x04), SMPTE ST 336 (the KLV). docs/formats/anc_klv.md has the byte tables.
//
// CONTENTS
//   KLV          where a message ends
//   Packing      a message to ancillary packets to RTP packets
//   Unpacking    the same backwards, one packet at a time
//   Ordering     RTP packets in the order they were sent, and 64-bit timestamps
//   Assembly     ancillary packets to messages
//   Receiver     all of the unpacking, from datagrams to stamped messages
//
// Nothing here does input or output, logs, or knows the time: every object belongs to one thread.
#ifndef ANC_KLV_H
#define ANC_KLV_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <vector>

namespace anc_klv {

using Bytes = std::vector<uint8_t>;
using ByteView = std::span<const uint8_t>;

// --- KLV ---------------------------------------------------------------------------------------------

constexpr size_t kLargestKlv = 65'554;  // 16 bytes of key, 3 of length, 65535 of value

struct KlvSize {
  enum class State { Known, NeedMore, Bad };
  State state;
  size_t size;  // of key, length and value; of kKnown
};
// Size of the message that begins the bytes: a SMPTE universal label (06 0E 2B 34 ...) and a BER length. Bad: another
// beginning, an indefinite length, or more than kLargestKlv bytes.
KlvSize SizeOfKlv(ByteView bytes);

// --- Packing -----------------------------------------------------------------------------------------

constexpr uint8_t kKlvDid = 0x44;
constexpr uint8_t kKlvSdid = 0x04;
constexpr size_t kLargestUserData = 255;  // words of an ancillary packet
constexpr size_t kKlvPerPacket = 252;     // behind message number and packet count

struct AncPacket {
  uint8_t did = kKlvDid;
  uint8_t sdid = kKlvSdid;
  uint16_t line = 9;  // 11 bits
  Bytes userData;     // the low 8 bits of each word, at most kLargestUserData
};

// The ancillary packets of one message. The message number goes from 1 to 255 and tells messages apart; packets are
// counted from 1.
std::vector<AncPacket> SplitKlv(ByteView klv, uint8_t messageNumber);

// An ancillary packet as it stands in the RTP payload: with position, parity and checksum, filled up to 32 bits.
Bytes PackAnc(const AncPacket& packet);

struct RtpHeader {
  bool marker = false;  // last packet of a frame
  uint8_t payloadType = 112;
  uint32_t sequence = 0;   // RTP's 16 bits and the payload's 16 higher ones
  uint32_t timestamp = 0;  // 90 kHz
  uint32_t source = 0;
  uint8_t field = 0;  // bits F: 0b00 progressive or not said, 0b10 first field, 0b11 second field
};
constexpr size_t kRtpHeaderSize = 20;  // with the payload's own header

// One RTP packet of ancillary packets that PackAnc made, `count` of them (at most 255), together below 65536 bytes.
Bytes PackRtp(const RtpHeader& header, ByteView ancPackets, uint8_t count);

// --- Unpacking ---------------------------------------------------------------------------------------

struct RtpPacket {
  RtpHeader header;
  uint8_t count = 0;  // ancillary packets that it says to hold
  Bytes ancPackets;
};
// Nothing when the datagram is no such RTP packet, is cut off, or has the bits F 0b01, which are not defined.
std::optional<RtpPacket> UnpackRtp(ByteView datagram);

enum class AncState { Good, BadChecksum, BadParity, CutOff };
struct UnpackedAnc {
  AncState state;
  AncPacket packet;  // also of a bad checksum or parity
  size_t size;       // bytes to the next packet; 0 when cut off
};
UnpackedAnc UnpackAnc(ByteView bytes);

// --- Ordering ----------------------------------------------------------------------------------------

// What went wrong on the way. All counts since the beginning.
struct Counts {
  uint64_t damaged = 0;       // datagrams that are no such RTP packet, packets cut off, KLV that is none
  uint64_t badChecksums = 0;  // ancillary packets
  uint64_t badParity = 0;     // ancillary packets
  uint64_t lost = 0;          // RTP packets
  uint64_t reordered = 0;     // RTP packets put right
  uint64_t late = 0;          // RTP packets dropped: repeated or too late
  uint64_t restarts = 0;      // another source or a jump of the sequence number
  uint64_t incomplete = 0;    // messages
};

// Puts RTP packets into the order of their sequence numbers. A packet that is missing is waited for until kDepth
// others wait behind it, or kPatience has gone by.
class RtpOrder {
 public:
  static constexpr size_t kDepth = 32;
  static constexpr int64_t kPatience = 50'000'000;  // ns
  static constexpr int32_t kLargestGap = 1'000;     // packets; more is a restart

  using Sink = std::function<void(const RtpPacket&)>;

  // Times are nanoseconds of any steady clock.
  void Push(RtpPacket packet, int64_t now, Counts& counts, const Sink& sink);
  // Gives up on what was waited for too long.
  void Expire(int64_t now, Counts& counts, const Sink& sink);
  bool IsWaiting() const { return !m_waiting.empty(); }

 private:
  void GiveUpFirst(Counts& counts, const Sink& sink);
  void Drain(const Sink& sink);

  std::optional<uint32_t> m_source;
  uint32_t m_next = 0;                     // sequence number
  std::map<int32_t, RtpPacket> m_waiting;  // by distance from m_base
  uint32_t m_base = 0;                     // m_next when the waiting began
  int64_t m_since = 0;                     // time when the waiting began
};

// Extends 32-bit timestamps to 64 bits: each next one is the nearest to the one before.
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

// Joins the KLV of ancillary packets. A message with a part missing is dropped and counted once.
class KlvAssembler {
 public:
  // The message that the packet completes; it has the timestamp of its first packet.
  std::optional<StampedKlv> Push(const AncPacket& packet, uint64_t timestamp, Counts& counts);
  // What is still unfinished will not be finished.
  void DropUnfinished(Counts& counts);

 private:
  StampedKlv m_current;
  uint8_t m_number = 0;              // of the message
  uint16_t m_nextPacket = 0;         // 0 while there is none
  std::optional<uint8_t> m_dropped;  // number of the message counted last
};

// --- Receiver ----------------------------------------------------------------------------------------

class Receiver {
 public:
  using Sink = std::function<void(const StampedKlv&)>;
  explicit Receiver(Sink sink) : m_sink(std::move(sink)) {}

  void Push(ByteView datagram, int64_t now);
  // To be called within kPatience while IsWaiting().
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
  uint64_t m_restarts = 0;  // of m_counts, when the assembler last heard of it
};

}  // namespace anc_klv

#endif  // ANC_KLV_H
