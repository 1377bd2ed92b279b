// SPDX-License-Identifier: Apache-2.0
#include "anc_klv.h"

#include <algorithm>
#include <array>
#include <bit>
#include <utility>

namespace anc_klv {
namespace {

constexpr size_t kPositionBits = 32;  // before the words of an ancillary packet
constexpr size_t kWordBits = 10;
constexpr size_t kFixedWords = 4;  // DID, SDID, data count, checksum

// Most significant bit first.
class BitWriter {
 public:
  void Put(unsigned value, unsigned bits) {
    for (unsigned i = bits; i > 0; --i) {
      if (m_used % 8 == 0) m_bytes.push_back(0);
      if ((value >> (i - 1) & 1u) != 0) m_bytes.back() |= static_cast<uint8_t>(0x80u >> (m_used % 8));
      ++m_used;
    }
  }
  // Returns the bytes, padded with zero bits to a multiple of 32.
  Bytes Finish() {
    while (m_bytes.size() % 4 != 0) m_bytes.push_back(0);
    return std::move(m_bytes);
  }

 private:
  Bytes m_bytes;
  size_t m_used = 0;
};

class BitReader {
 public:
  explicit BitReader(ByteView bytes) : m_bytes(bytes) {}
  size_t Left() const { return m_bytes.size() * 8 - m_used; }
  size_t Used() const { return m_used; }
  // Call it only while that many bits are left.
  unsigned Get(unsigned bits) {
    unsigned value = 0;
    for (unsigned i = 0; i < bits; ++i, ++m_used) {
      value = value << 1 | (m_bytes[m_used / 8] >> (7 - m_used % 8) & 1u);
    }
    return value;
  }

 private:
  ByteView m_bytes;
  size_t m_used = 0;
};

// Returns eight bits of data with even parity in bit 8 and its complement in bit 9.
unsigned WithParity(unsigned data) {
  const unsigned parity = static_cast<unsigned>(std::popcount(data)) & 1u;
  return data | parity << 8 | (parity ^ 1u) << 9;
}

unsigned ChecksumWord(unsigned sum) {
  sum &= 0x1FFu;
  return sum | (~sum >> 8 & 1u) << 9;
}

void AppendBigEndian(Bytes& out, uint32_t value, unsigned size) {
  for (unsigned i = size; i > 0; --i) out.push_back(static_cast<uint8_t>(value >> (8 * (i - 1))));
}

uint32_t BigEndian(ByteView bytes) {
  uint32_t value = 0;
  for (const uint8_t byte : bytes) value = value << 8 | byte;
  return value;
}

}  // namespace

// --- KLV ---------------------------------------------------------------------------------------------

KlvSize SizeOfKlv(ByteView bytes) {
  using State = KlvSize::State;
  static constexpr std::array<uint8_t, 4> kLabel = {0x06, 0x0E, 0x2B, 0x34};
  constexpr size_t kKeySize = 16;
  const size_t known = std::min(bytes.size(), kLabel.size());
  if (!std::equal(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(known), kLabel.begin())) {
    return {State::Bad, 0};
  }
  if (bytes.size() <= kKeySize) return {State::NeedMore, 0};
  const uint8_t first = bytes[kKeySize];
  uint64_t value = first;
  size_t lengthSize = 1;
  if (first >= 0x80) {
    const size_t more = first & 0x7Fu;
    if (more == 0 || more > 8) return {State::Bad, 0};
    if (bytes.size() < kKeySize + 1 + more) return {State::NeedMore, 0};
    lengthSize += more;
    value = 0;
    for (size_t i = 1; i <= more; ++i) value = value << 8 | bytes[kKeySize + i];
  }
  if (value > kLargestKlv || kKeySize + lengthSize + value > kLargestKlv) return {State::Bad, 0};
  return {State::Known, kKeySize + lengthSize + static_cast<size_t>(value)};
}

// --- Packing -----------------------------------------------------------------------------------------

std::vector<AncPacket> SplitKlv(ByteView klv, uint8_t messageNumber) {
  std::vector<AncPacket> packets;
  while (!klv.empty()) {
    const ByteView piece = klv.first(std::min(klv.size(), kKlvPerPacket));
    klv = klv.subspan(piece.size());
    AncPacket packet;
    packet.userData.push_back(messageNumber);
    AppendBigEndian(packet.userData, static_cast<uint32_t>(packets.size()) + 1, 2);
    packet.userData.insert(packet.userData.end(), piece.begin(), piece.end());
    packets.push_back(std::move(packet));
  }
  return packets;
}

Bytes PackAnc(const AncPacket& packet) {
  BitWriter bits;
  bits.Put(0, 1);  // C: luma, or not specified
  bits.Put(packet.line, 11);
  bits.Put(0, 12);  // horizontal offset
  bits.Put(0, 8);   // S and stream number: unknown
  unsigned sum = 0;
  const auto put = [&](unsigned data) {
    const unsigned word = WithParity(data & 0xFFu);
    sum += word & 0x1FFu;
    bits.Put(word, kWordBits);
  };
  const size_t size = std::min(packet.userData.size(), kLargestUserData);
  put(packet.did);
  put(packet.sdid);
  put(static_cast<unsigned>(size));
  for (size_t i = 0; i < size; ++i) put(packet.userData[i]);
  bits.Put(ChecksumWord(sum), kWordBits);
  return bits.Finish();
}

Bytes PackRtp(const RtpHeader& header, ByteView ancPackets, uint8_t count) {
  Bytes out;
  out.reserve(kRtpHeaderSize + ancPackets.size());
  out.push_back(0x80);  // version 2
  out.push_back(static_cast<uint8_t>((header.marker ? 0x80u : 0u) | (header.payloadType & 0x7Fu)));
  AppendBigEndian(out, header.sequence & 0xFFFFu, 2);
  AppendBigEndian(out, header.timestamp, 4);
  AppendBigEndian(out, header.source, 4);
  AppendBigEndian(out, header.sequence >> 16, 2);
  AppendBigEndian(out, static_cast<uint32_t>(ancPackets.size()), 2);
  out.push_back(count);
  AppendBigEndian(out, static_cast<uint32_t>(header.field & 3u) << 22, 3);
  out.insert(out.end(), ancPackets.begin(), ancPackets.end());
  return out;
}

// --- Unpacking ---------------------------------------------------------------------------------------

std::optional<RtpPacket> UnpackRtp(ByteView datagram) {
  constexpr size_t kPlainHeader = 12;
  constexpr size_t kPayloadHeader = 8;
  if (datagram.size() < kPlainHeader || datagram[0] >> 6 != 2) return {};
  const bool padded = (datagram[0] & 0x20) != 0;
  const bool extended = (datagram[0] & 0x10) != 0;
  RtpPacket packet;
  packet.header.marker = (datagram[1] & 0x80) != 0;
  packet.header.payloadType = datagram[1] & 0x7F;
  packet.header.sequence = BigEndian(datagram.subspan(2, 2));
  packet.header.timestamp = BigEndian(datagram.subspan(4, 4));
  packet.header.source = BigEndian(datagram.subspan(8, 4));
  size_t at = kPlainHeader + size_t{4} * (datagram[0] & 0x0Fu);  // contributing sources
  if (extended) {
    if (datagram.size() < at + 4) return {};
    at += 4 + 4 * size_t{BigEndian(datagram.subspan(at + 2, 2))};
  }
  size_t end = datagram.size();
  if (padded) {
    const size_t padding = datagram.back();
    if (padding == 0 || padding > end) return {};
    end -= padding;
  }
  if (end < at + kPayloadHeader) return {};
  const ByteView payload = datagram.subspan(at, end - at);
  packet.header.sequence |= BigEndian(payload.first(2)) << 16;
  const size_t size = BigEndian(payload.subspan(2, 2));
  packet.count = payload[4];
  packet.header.field = payload[5] >> 6;
  if (size > payload.size() - kPayloadHeader || packet.header.field == 1) return {};
  const ByteView content = payload.subspan(kPayloadHeader, size);
  packet.payload.assign(content.begin(), content.end());
  return packet;
}

UnpackedAnc UnpackAnc(ByteView bytes) {
  UnpackedAnc result = {AncState::CutOff, {}, 0};
  BitReader bits(bytes);
  if (bits.Left() < kPositionBits + kFixedWords * kWordBits) return result;
  bits.Get(1);  // C
  result.packet.line = static_cast<uint16_t>(bits.Get(11));
  bits.Get(20);  // horizontal offset, stream number
  unsigned sum = 0;
  bool parity = true;
  const auto get = [&] {
    const unsigned word = bits.Get(kWordBits);
    sum += word & 0x1FFu;
    parity = parity && word == WithParity(word & 0xFFu);
    return static_cast<uint8_t>(word);
  };
  result.packet.did = get();
  result.packet.sdid = get();
  const size_t count = get();
  if (bits.Left() < (count + 1) * kWordBits) return result;
  result.packet.userData.resize(count);
  for (uint8_t& byte : result.packet.userData) byte = get();
  const bool sumRight = bits.Get(kWordBits) == ChecksumWord(sum);
  // The last packet of a payload may lack its padding.
  result.size = std::min((bits.Used() + 31) / 32 * 4, bytes.size());
  result.state = !sumRight ? AncState::BadChecksum : !parity ? AncState::BadParity : AncState::Good;
  return result;
}

// --- Ordering ----------------------------------------------------------------------------------------

void RtpOrder::Drain(const Sink& sink) {
  while (!m_waiting.empty() && m_base + static_cast<uint32_t>(m_waiting.begin()->first) == m_next) {
    const auto first = m_waiting.extract(m_waiting.begin());
    ++m_next;
    sink(first.mapped());
  }
}

void RtpOrder::GiveUpFirst(Counts& counts, const Sink& sink) {
  const uint32_t sequence = m_base + static_cast<uint32_t>(m_waiting.begin()->first);
  counts.lost += sequence - m_next;
  m_next = sequence;
  Drain(sink);
}

void RtpOrder::Push(RtpPacket packet, int64_t now, Counts& counts, const Sink& sink) {
  const uint32_t sequence = packet.header.sequence;
  const auto distance = static_cast<int32_t>(sequence - m_next);
  if (m_source != packet.header.source || distance > kLargestGap || distance < -kLargestGap) {
    while (!m_waiting.empty()) GiveUpFirst(counts, sink);
    if (m_source) ++counts.restarts;
    m_source = packet.header.source;
    m_next = sequence + 1;
    sink(packet);
    return;
  }
  if (distance < 0) {
    ++counts.late;
    return;
  }
  if (distance == 0) {
    if (!m_waiting.empty()) ++counts.reordered;
    ++m_next;
    sink(packet);
    Drain(sink);
    m_since = now;
    return;
  }
  if (m_waiting.empty()) {
    m_base = m_next;
    m_since = now;
  }
  const auto place = static_cast<int32_t>(sequence - m_base);
  if (m_waiting.contains(place)) {
    ++counts.late;
    return;
  }
  if (!m_waiting.empty() && place < m_waiting.rbegin()->first) ++counts.reordered;
  m_waiting.emplace(place, std::move(packet));
  if (m_waiting.size() > kDepth) {
    GiveUpFirst(counts, sink);
    m_since = now;
  }
}

void RtpOrder::Expire(int64_t now, Counts& counts, const Sink& sink) {
  if (m_waiting.empty() || now - m_since < kPatience) return;
  while (!m_waiting.empty()) GiveUpFirst(counts, sink);
}

uint64_t LongTimestamp::Extend(uint32_t timestamp) {
  if (!m_last) {
    m_last = timestamp;
  } else {
    const auto step = static_cast<int32_t>(timestamp - static_cast<uint32_t>(*m_last));
    const uint64_t back = step < 0 ? static_cast<uint64_t>(-int64_t{step}) : 0;
    // A time before 0 does not exist, so the timestamp keeps its 32 bits.
    m_last = back > *m_last ? timestamp : *m_last + static_cast<uint64_t>(int64_t{step});
  }
  return *m_last;
}

// --- Assembly ----------------------------------------------------------------------------------------

void KlvAssembler::DropUnfinished(Counts& counts) {
  if (m_nextPacket == 0) return;
  ++counts.incomplete;
  m_dropped = m_number;
  m_nextPacket = 0;
}

std::optional<StampedKlv> KlvAssembler::Push(const AncPacket& packet, uint64_t timestamp, Counts& counts) {
  constexpr size_t kHead = 3;  // message number and packet count
  if (packet.userData.size() < kHead) {
    ++counts.damaged;
    return {};
  }
  const ByteView data(packet.userData);
  const uint8_t number = data[0];
  const auto place = static_cast<uint16_t>(BigEndian(data.subspan(1, 2)));
  if (place == 1) {
    DropUnfinished(counts);
    m_dropped.reset();
    m_number = number;
    m_current = {timestamp, {}};
  } else if (m_nextPacket == 0 || number != m_number || place != m_nextPacket) {
    DropUnfinished(counts);
    if (m_dropped != number) ++counts.incomplete;  // its first packet was missing
    m_dropped = number;
    return {};
  }
  m_nextPacket = static_cast<uint16_t>(place + 1);
  m_current.klv.insert(m_current.klv.end(), data.begin() + kHead, data.end());
  const KlvSize size = SizeOfKlv(m_current.klv);
  if (size.state == KlvSize::State::Bad) {
    ++counts.damaged;
    m_dropped = number;
    m_nextPacket = 0;
    return {};
  }
  if (size.state == KlvSize::State::NeedMore || m_current.klv.size() < size.size) return {};
  m_current.klv.resize(size.size);  // the rest of the last packet is not KLV
  m_nextPacket = 0;
  m_dropped = number;
  return std::exchange(m_current, {});
}

// --- Receiver ----------------------------------------------------------------------------------------

void Receiver::PushInOrder(const RtpPacket& packet) {
  if (m_restarts != m_counts.restarts) {
    m_restarts = m_counts.restarts;
    m_assembler.DropUnfinished(m_counts);
  }
  const uint64_t timestamp = m_time.Extend(packet.header.timestamp);
  ByteView rest(packet.payload);
  for (unsigned i = 0; i < packet.count; ++i) {
    const UnpackedAnc anc = UnpackAnc(rest);
    if (anc.state == AncState::CutOff) {
      ++m_counts.damaged;
      return;
    }
    rest = rest.subspan(anc.size);
    if (anc.state == AncState::BadChecksum) {
      ++m_counts.badChecksums;
    } else if (anc.state == AncState::BadParity) {
      ++m_counts.badParity;
    } else if (anc.packet.did == kKlvDid && anc.packet.sdid == kKlvSdid) {
      if (const auto message = m_assembler.Push(anc.packet, timestamp, m_counts)) m_sink(*message);
    }
  }
}

void Receiver::Push(ByteView datagram, int64_t now) {
  auto packet = UnpackRtp(datagram);
  if (!packet) {
    ++m_counts.damaged;
    return;
  }
  m_order.Push(std::move(*packet), now, m_counts, [this](const RtpPacket& next) { PushInOrder(next); });
  Expire(now);
}

void Receiver::Expire(int64_t now) {
  m_order.Expire(now, m_counts, [this](const RtpPacket& next) { PushInOrder(next); });
}

}  // namespace anc_klv
