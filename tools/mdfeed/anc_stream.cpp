// SPDX-License-Identifier: Apache-2.0
#include "anc_stream.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <memory>
#include <optional>
#include <random>
#include <utility>
#include <vector>

#include "anc_klv.h"

namespace mdfeed {
namespace {

// Inverts the lowest bit of the packet's checksum.
void SpoilChecksum(Bytes& packed, size_t userWords) {
  const size_t bit = 32 + 10 * (3 + userWords) + 9;  // after position, DID, SDID and data count
  packed[bit / 8] ^= static_cast<uint8_t>(0x80u >> (bit % 8));
}

class AncStream : public Traffic {
 public:
  AncStream(std::unique_ptr<Traffic> inner, const AncOptions& options)
      : m_inner(std::move(inner)), m_options(options), m_random(options.seed + 1) {}

  std::optional<Batch> Next() override {
    const auto messages = m_inner->Next();
    if (!messages) return PopHeld();
    Batch packets;
    Bytes payload;
    unsigned count = 0;
    for (const Bytes& message : *messages) {
      for (const Bytes& anc : Cut(message)) {
        if (count != 0 && anc_klv::kRtpHeaderSize + payload.size() + anc.size() > kLargestRtpPacket) {
          Send(packets, std::exchange(payload, {}), std::exchange(count, 0u), false);
        }
        payload.insert(payload.end(), anc.begin(), anc.end());
        ++count;
      }
    }
    Send(packets, payload, count, true);
    ++m_tick;
    return packets;
  }

 private:
  bool Chance(double percent) { return static_cast<double>(m_random() % 10'000) < percent * 100.0; }

  std::vector<Bytes> Cut(const Bytes& message) {
    m_messageNumber = m_messageNumber == 255 ? uint8_t{1} : static_cast<uint8_t>(m_messageNumber + 1);
    std::vector<Bytes> packets;
    for (const anc_klv::AncPacket& packet : anc_klv::SplitKlv(message, m_messageNumber)) {
      packets.push_back(anc_klv::PackAnc(packet));
      if (Chance(m_options.badChecksum)) SpoilChecksum(packets.back(), packet.userData.size());
    }
    return packets;
  }

  uint32_t Timestamp() const {
    const auto us = static_cast<int64_t>(std::llround(static_cast<double>(m_tick) * 1e6 / m_options.rate));
    const auto all = static_cast<uint64_t>(m_options.startUs + us);
    return static_cast<uint32_t>(all / 1'000'000 * 90'000 + all % 1'000'000 * 9 / 100);
  }

  void Send(Batch& packets, const Bytes& ancPackets, unsigned count, bool marker) {
    anc_klv::RtpHeader header;
    header.marker = marker;
    header.payloadType = static_cast<uint8_t>(m_options.payloadType);
    header.sequence = m_sequence;
    header.timestamp = Timestamp();
    header.source = 0x6D646664u + m_options.seed;
    Bytes packet = anc_klv::PackRtp(header, ancPackets, static_cast<uint8_t>(count));
    ++m_sequence;
    if (Chance(m_options.loss)) return;
    if (!m_held && Chance(m_options.reorder)) {
      m_held = std::move(packet);
      return;
    }
    packets.push_back(std::move(packet));
    if (m_held) packets.push_back(*std::exchange(m_held, std::nullopt));
  }

  // Returns the packet that still waits for its successor when the traffic ends.
  std::optional<Batch> PopHeld() {
    if (!m_held) return std::nullopt;
    return Batch{*std::exchange(m_held, std::nullopt)};
  }

  std::unique_ptr<Traffic> m_inner;
  AncOptions m_options;
  std::minstd_rand m_random;
  std::optional<Bytes> m_held;
  uint32_t m_sequence = 0;
  uint64_t m_tick = 0;
  uint8_t m_messageNumber = 0;
};

}  // namespace

std::unique_ptr<Traffic> MakeAncStream(std::unique_ptr<Traffic> inner, const AncOptions& options) {
  return std::make_unique<AncStream>(std::move(inner), options);
}

}  // namespace mdfeed
