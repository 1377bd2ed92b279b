// SPDX-License-Identifier: Apache-2.0
#include "live_datagrams.h"

#include <algorithm>
#include <array>
#include <utility>

namespace live_datagrams {
namespace {

constexpr size_t kFixedHeader = 12;
constexpr uint8_t kSync = 0x47;
constexpr std::array<uint8_t, 4> kLabel = {0x06, 0x0E, 0x2B, 0x34};
constexpr size_t kLargestUnit = size_t{1} << 20;
constexpr uint32_t kFirstSequence = 0x10000;  // so that an early packet out of order has a smaller one

uint32_t ReadBigEndian(ByteView bytes, size_t at, size_t size) {
  uint32_t value = 0;
  for (size_t i = 0; i < size; ++i) value = value << 8 | bytes[at + i];
  return value;
}

}  // namespace

Content Recognise(ByteView bytes) {
  if (bytes.size() >= kLabel.size() && std::equal(kLabel.begin(), kLabel.end(), bytes.begin())) return Content::Klv;
  if (bytes.empty() || bytes.size() % kTransportPacket != 0) return Content::Other;
  for (size_t at = 0; at < bytes.size(); at += kTransportPacket) {
    if (bytes[at] != kSync) return Content::Other;
  }
  return Content::TransportStream;
}

std::optional<RtpPacket> UnpackRtp(ByteView datagram) {
  if (datagram.size() < kFixedHeader || datagram[0] >> 6 != 2) return std::nullopt;
  RtpPacket packet;
  packet.marker = (datagram[1] & 0x80) != 0;
  packet.payloadType = datagram[1] & 0x7F;
  packet.sequence = static_cast<uint16_t>(ReadBigEndian(datagram, 2, 2));
  packet.timestamp = ReadBigEndian(datagram, 4, 4);
  packet.source = ReadBigEndian(datagram, 8, 4);
  size_t begin = kFixedHeader + size_t{4} * (datagram[0] & 0x0F);
  if ((datagram[0] & 0x10) != 0) {
    if (datagram.size() < begin + 4) return std::nullopt;
    begin += 4 + size_t{4} * ReadBigEndian(datagram, begin + 2, 2);
  }
  const size_t padding = (datagram[0] & 0x20) != 0 ? datagram.back() : 0;
  if (begin + padding > datagram.size()) return std::nullopt;
  packet.payload = datagram.subspan(begin, datagram.size() - begin - padding);
  return packet;
}

bool Receiver::Push(ByteView datagram, int64_t now) {
  const auto packet = UnpackRtp(datagram);
  if (!packet) {
    const Content content = Recognise(datagram);
    if (content == Content::TransportStream) m_sinks.transport(datagram);
    if (content == Content::Klv) m_sinks.klv(datagram, std::nullopt);
    if (content == Content::Other) ++m_counts.damaged;
    return content != Content::Other;
  }
  // RTCP may share the port (RFC 5761).
  if (packet->payloadType >= 64 && packet->payloadType < 96) return true;
  anc_klv::RtpPacket waiting;
  waiting.header.marker = packet->marker;
  waiting.header.payloadType = packet->payloadType;
  waiting.header.timestamp = packet->timestamp;
  waiting.header.source = packet->source;
  if (!m_sequence || packet->source != m_source) {
    m_sequence = kFirstSequence + packet->sequence;
    m_source = packet->source;
  }
  const auto step = static_cast<int16_t>(packet->sequence - static_cast<uint16_t>(*m_sequence));
  waiting.header.sequence = *m_sequence + static_cast<uint32_t>(int32_t{step});
  if (step > 0) m_sequence = waiting.header.sequence;
  waiting.payload.assign(packet->payload.begin(), packet->payload.end());
  m_order.Push(std::move(waiting), now, m_counts, [this](const anc_klv::RtpPacket& each) { PushInOrder(each); });
  return true;
}

void Receiver::Expire(int64_t now) {
  m_order.Expire(now, m_counts, [this](const anc_klv::RtpPacket& each) { PushInOrder(each); });
}

void Receiver::PushInOrder(const anc_klv::RtpPacket& packet) {
  const bool isFirst = !std::exchange(m_isRunning, true);
  const bool isGap = !isFirst && packet.header.sequence != m_next;
  m_next = packet.header.sequence + 1;
  if (isGap) SpoilUnit();
  if (packet.payload.empty()) return;
  if (m_isOpen && packet.header.timestamp != m_unitTime) {  // the end of the unit is missing
    SpoilUnit();
    m_isOpen = false;
  }
  if (!m_isOpen) {
    const Content content = Recognise(packet.payload);
    if (content == Content::TransportStream) {
      m_sinks.transport(packet.payload);
      return;
    }
    m_isOpen = true;
    m_isWhole = content == Content::Klv;
    m_unitTime = packet.header.timestamp;
    // The beginning was lost, was sent before this program came, or never was KLV.
    if (!m_isWhole && !isFirst) ++(isGap ? m_counts.incomplete : m_counts.damaged);
  }
  Join(packet);
}

// RFC 6597: the packets of a unit share a timestamp, and the last one has the marker.
void Receiver::Join(const anc_klv::RtpPacket& packet) {
  if (m_isWhole) m_unit.insert(m_unit.end(), packet.payload.begin(), packet.payload.end());
  if (m_unit.size() > kLargestUnit) SpoilUnit();
  if (!packet.header.marker) return;
  if (m_isWhole) m_sinks.klv(m_unit, m_time.Extend(m_unitTime));
  m_unit.clear();
  m_isOpen = m_isWhole = false;
}

// The rest of the unit is left out.
void Receiver::SpoilUnit() {
  if (std::exchange(m_isWhole, false)) ++m_counts.incomplete;
  m_unit.clear();
}

}  // namespace live_datagrams
