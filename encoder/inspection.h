// SPDX-License-Identifier: Apache-2.0
// What is in the streams of a file or a live source: streams, standards, items, rates, faults and gaps.
#ifndef MDENCODER_INSPECTION_H
#define MDENCODER_INSPECTION_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "klv_walk.h"
#include "st0601_items.h"
#include "stream_input.h"

namespace mdencoder {

// Returns the name of a standard by its universal key, or the key in hexadecimal digits.
std::string StandardName(st0601::ByteView key);

class Inspection : public StreamSink {
 public:
  struct Settings {
    double gap = 2;         // seconds without a message that count as a gap
    uint64_t messages = 0;  // to look at; 0 for no limit
  };

  explicit Inspection(Settings settings) : m_settings(settings) {}

  void OnStream(size_t stream, const StreamInfo& info) override;
  void OnData(size_t stream, st0601::ByteView bytes, std::optional<double> seconds, bool isDamaged) override;
  void OnMissing(size_t stream, uint64_t packets) override;
  bool IsEnough() const override { return m_settings.messages != 0 && m_messages >= m_settings.messages; }
  // Call it once, after the last data.
  void Finish();

  uint64_t Messages() const { return m_messages; }
  // Counts wrong checksums, sets that are not complete, bytes of no message, messages that are cut off, damaged packets,
  // and numbers that are missing.
  uint64_t Faults() const;

  // Lines without line ends, of texts that are printable.
  std::vector<std::string> Text(const std::string& name, const std::string& container) const;
  std::string Json(const std::string& name, const std::string& container) const;

 private:
  static constexpr size_t kMostKinds = 64;   // of keys; more are counted together
  static constexpr size_t kMostItems = 256;  // likewise
  static constexpr size_t kMostStreams = 256;

  struct Times {  // microseconds since 1970
    std::optional<uint64_t> first;
    uint64_t last = 0;
    uint64_t count = 0;
    uint64_t gaps = 0;
    uint64_t longest = 0;  // between two messages
    uint64_t stepsBack = 0;
    void Add(uint64_t time, double gap);
    double Seconds() const;
    double Rate() const;
  };
  struct ItemCount {
    uint64_t count = 0;
    uint64_t outOfRange = 0;
    uint64_t badLength = 0;
    std::string first;
    std::string last;
  };
  struct Stream {
    StreamInfo info;
    uint64_t packets = 0;
    uint64_t bytes = 0;
    uint64_t damaged = 0;
    uint64_t missing = 0;  // packets of RTP
    std::optional<double> firstSeconds;
    double lastSeconds = 0;
    std::unique_ptr<klv_walk::Walk> walk;
    uint64_t messages = 0;
    std::map<std::string, uint64_t> standards;
    std::array<uint64_t, 4> checksums{};  // by st0601::ChecksumState
    uint64_t incomplete = 0;
    std::map<uint32_t, ItemCount> items;
    Times times;
    int sequence = -1;
    uint64_t sequenceMissing = 0;
    uint64_t Faults() const;
    double Seconds() const { return firstSeconds ? lastSeconds - *firstSeconds : 0; }
  };

  bool OnMessage(Stream& stream, const klv_walk::Found& found);
  void CountItems(Stream& stream, const st0601::Message& message) const;
  static void AddText(const Stream& stream, double gap, std::vector<std::string>& lines);
  static void AddItems(const Stream& stream, std::vector<std::string>& lines);

  const Settings m_settings;
  std::vector<std::unique_ptr<Stream>> m_streams;
  uint64_t m_messages = 0;
};

}  // namespace mdencoder

#endif  // MDENCODER_INSPECTION_H
