// SPDX-License-Identifier: Apache-2.0
// Recognises what the datagrams of a live stream carry, and takes it out: an MPEG transport stream, by itself or in RTP
// (RFC 2250), or KLV, by itself or in RTP (RFC 6597).
//
// Nothing here does input or output, logs, or reads a clock. An object belongs to one thread.
#ifndef LIVE_DATAGRAMS_H
#define LIVE_DATAGRAMS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <utility>

#include "anc_klv.h"

namespace live_datagrams {

using anc_klv::Bytes;
using anc_klv::ByteView;

constexpr size_t kTransportPacket = 188;

enum class Content { Other, TransportStream, Klv };
// Whole transport packets, each with its sync byte, or bytes that begin with a SMPTE universal label.
Content Recognise(ByteView bytes);

struct RtpPacket {
  bool marker = false;
  uint8_t payloadType = 0;
  uint16_t sequence = 0;
  uint32_t timestamp = 0;
  uint32_t source = 0;
  ByteView payload;  // points into the datagram; without padding
};
// Returns nothing if the datagram is not RTP of version 2, or is shorter than it says.
std::optional<RtpPacket> UnpackRtp(ByteView datagram);

// Sorts RTP packets, joins the units of KLV, and gives out what the datagrams carry.
class Receiver {
 public:
  struct Sinks {
    std::function<void(ByteView)> transport;  // whole transport packets
    // Messages of one time; in RTP one unit, which may hold several. The time is in units of 90 kHz, or nothing outside
    // RTP.
    std::function<void(ByteView klv, std::optional<uint64_t> time)> klv;
  };
  explicit Receiver(Sinks sinks) : m_sinks(std::move(sinks)) {}

  // Times are nanoseconds of any steady clock. Returns false, and counts the datagram as damaged, if it carries neither.
  bool Push(ByteView datagram, int64_t now);
  // Call it at least every anc_klv::RtpOrder::kPatience while IsWaiting().
  void Expire(int64_t now);
  bool IsWaiting() const { return m_order.IsWaiting(); }
  const anc_klv::Counts& Seen() const { return m_counts; }

 private:
  void PushInOrder(const anc_klv::RtpPacket& packet);
  void Join(const anc_klv::RtpPacket& packet);
  void SpoilUnit();

  Sinks m_sinks;
  anc_klv::Counts m_counts;
  anc_klv::RtpOrder m_order;
  anc_klv::LongTimestamp m_time;
  std::optional<uint32_t> m_sequence;  // extended to 32 bits
  uint32_t m_source = 0;
  bool m_isRunning = false;  // a packet was taken out of the order, and m_next follows it
  uint32_t m_next = 0;
  Bytes m_unit;  // the unit of KLV that is being joined
  uint32_t m_unitTime = 0;
  bool m_isOpen = false;   // its end has not come yet
  bool m_isWhole = false;  // nothing of it is missing so far
};

}  // namespace live_datagrams

#endif  // LIVE_DATAGRAMS_H
