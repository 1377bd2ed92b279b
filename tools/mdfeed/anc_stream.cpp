#include "anc_stream.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <random>
#include <utility>

namespace mdfeed {
namespace {

constexpr unsigned kDid = 0x44;
constexpr unsigned kSdid = 0x04;
constexpr unsigned kLine = 9;  // of the picture, in the vertical blanking
constexpr std::size_t kRtpHeaderSize = 12;
constexpr std::size_t kPayloadHeaderSize = 8;

// Most significant bit first.
class BitWriter {
 public:
  void Put(unsigned value, unsigned bits) {
    for (unsigned i = bits; i > 0; i--) {
      if (m_used % 8 == 0) m_bytes.push_back(0);
      if (((value >> (i - 1)) & 1u) != 0) m_bytes.back() |= static_cast<std::uint8_t>(0x80u >> (m_used % 8));
      m_used++;
    }
  }
  Bytes Take() {
    while (m_bytes.size() % 4 != 0) m_bytes.push_back(0);
    return std::move(m_bytes);
  }

 private:
  Bytes m_bytes;
  std::size_t m_used = 0;
};

// Eight bits of data as a word of ten: even parity, and its complement.
unsigned AncWord(unsigned data) {
  const unsigned parity = static_cast<unsigned>(__builtin_popcount(data)) & 1u;
  return data | parity << 8 | (parity ^ 1u) << 9;
}

void AppendBigEndian(Bytes& out, std::uint32_t value, unsigned size) {
  for (unsigned i = size; i > 0; i--) out.push_back(static_cast<std::uint8_t>(value >> (8 * (i - 1))));
}

class AncStream : public Traffic {
 public:
  AncStream(std::unique_ptr<Traffic> inner, const AncOptions& options)
      : m_inner(std::move(inner)), m_options(options), m_random(options.seed + 1) {}

  std::optional<Batch> Next() override {
    const auto messages = m_inner->Next();
    if (!messages) return TakeHeld();
    Batch packets;
    Bytes payload;
    unsigned count = 0;
    for (const Bytes& message : *messages) {
      for (const Bytes& anc : Cut(message)) {
        if (count != 0 && kRtpHeaderSize + kPayloadHeaderSize + payload.size() + anc.size() > kLargestRtpPacket) {
          Send(packets, std::exchange(payload, {}), std::exchange(count, 0u), false);
        }
        payload.insert(payload.end(), anc.begin(), anc.end());
        count++;
      }
    }
    Send(packets, payload, count, true);
    m_tick++;
    return packets;
  }

 private:
  bool Chance(double percent) { return static_cast<double>(m_random() % 10'000) < percent * 100.0; }

  std::vector<Bytes> Cut(const Bytes& message) {
    m_message_number = m_message_number == 255 ? std::uint8_t{1} : static_cast<std::uint8_t>(m_message_number + 1);
    std::vector<Bytes> packets;
    std::uint16_t count = 0;
    for (const Bytes& piece : SplitChunks(message, kAncWordsPerPacket)) {
      packets.push_back(BuildAncPacket(m_message_number, ++count, piece, Chance(m_options.bad_checksum)));
    }
    return packets;
  }

  std::uint32_t Timestamp() const {
    const auto us = static_cast<std::int64_t>(std::llround(static_cast<double>(m_tick) * 1e6 / m_options.rate));
    const auto all = static_cast<std::uint64_t>(m_options.start_us + us);
    return static_cast<std::uint32_t>(all / 1'000'000 * 90'000 + all % 1'000'000 * 9 / 100);
  }

  void Send(Batch& packets, const Bytes& anc_packets, unsigned count, bool marker) {
    Bytes packet;
    packet.push_back(0x80);
    packet.push_back(static_cast<std::uint8_t>((marker ? 0x80 : 0) | m_options.payload_type));
    AppendBigEndian(packet, m_sequence & 0xFFFFu, 2);
    AppendBigEndian(packet, Timestamp(), 4);
    AppendBigEndian(packet, 0x6D646664u + m_options.seed, 4);  // source
    AppendBigEndian(packet, m_sequence >> 16, 2);
    AppendBigEndian(packet, static_cast<std::uint32_t>(anc_packets.size()), 2);
    AppendBigEndian(packet, count << 24, 4);  // progressive picture
    packet.insert(packet.end(), anc_packets.begin(), anc_packets.end());
    m_sequence++;
    if (Chance(m_options.loss)) return;
    if (!m_held && Chance(m_options.reorder)) {
      m_held = std::move(packet);
      return;
    }
    packets.push_back(std::move(packet));
    if (m_held) packets.push_back(*std::exchange(m_held, std::nullopt));
  }

  // What still waits for a successor when the traffic ends.
  std::optional<Batch> TakeHeld() {
    if (!m_held) return std::nullopt;
    return Batch{*std::exchange(m_held, std::nullopt)};
  }

  std::unique_ptr<Traffic> m_inner;
  AncOptions m_options;
  std::minstd_rand m_random;
  std::optional<Bytes> m_held;
  std::uint32_t m_sequence = 0;
  std::uint64_t m_tick = 0;
  std::uint8_t m_message_number = 0;
};

}  // namespace

Bytes BuildAncPacket(std::uint8_t message_number, std::uint16_t packet_count, std::span<const std::uint8_t> klv,
                     bool bad_checksum) {
  BitWriter bits;
  bits.Put(0, 1);  // luma or component-independent
  bits.Put(kLine, 11);
  bits.Put(0, 12);  // horizontal offset
  bits.Put(0, 8);   // no stream number
  unsigned sum = 0;
  const auto put = [&](unsigned data) {
    const unsigned word = AncWord(data & 0xFFu);
    sum += word & 0x1FFu;
    bits.Put(word, 10);
  };
  put(kDid);
  put(kSdid);
  put(static_cast<unsigned>(klv.size()) + 3);
  put(message_number);
  put(packet_count >> 8);
  put(packet_count);
  for (const std::uint8_t byte : klv) put(byte);
  if (bad_checksum) sum ^= 0x55u;
  sum &= 0x1FFu;
  bits.Put(sum | (~sum >> 8 & 1u) << 9, 10);
  return bits.Take();
}

std::unique_ptr<Traffic> MakeAncStream(std::unique_ptr<Traffic> inner, const AncOptions& options) {
  return std::make_unique<AncStream>(std::move(inner), options);
}

}  // namespace mdfeed
