// SPDX-License-Identifier: Apache-2.0
// Checksum, CRC, bits and patterns.
#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "floors/floors.h"
#include "metadata_lib.h"
#include "traffic.h"
#include "workload.h"

namespace bench {
namespace {

volatile unsigned g_sink = 0;  // results that must be made

using Sum = std::uint16_t (*)(const std::uint8_t*, std::size_t);

std::uint16_t OurChecksum(const std::uint8_t* data, std::size_t size) {
  return CalcKlvChecksum16(data, static_cast<WORD>(size));
}

std::uint16_t OurCrc(const std::uint8_t* data, std::size_t size) {
  return CalcCRC16(data, static_cast<int>(size));
}

// Sums blocks that lie side by side, so that odd sizes give odd addresses, too.
Work SumBlocks(Sum sum, std::size_t size) {
  auto data = std::make_shared<Bytes>(Noise(std::size_t{1} << 17, 0));
  const std::size_t count = std::max<std::size_t>(1, data->size() / size / 8);
  return {[=] {
            unsigned result = 0;
            for (std::size_t i = 0; i < count; ++i) result += sum(data->data() + i * size, size);
            g_sink = result;
          },
          static_cast<double>(count * size)};
}

// A floor that computes something else is no floor.
void RequireSameSums(Sum ours, Sum other, std::size_t size) {
  const Bytes data = Noise(size + 64, 0);
  for (std::size_t at = 0; at < 64; ++at)
    Require(ours(data.data() + at, size) == other(data.data() + at, size), "the sums differ");
}

bool AddSum(const std::string& name, Sum ours, Sum floor, std::size_t size) {
  Add(name + "/ours", [=] { return SumBlocks(ours, size); });
  return Add(name + "/floor", [=] {
    RequireSameSums(ours, floor, size);
    return SumBlocks(floor, size);
  });
}

using Extract = int (*)(const std::uint8_t*, int*, std::uint8_t*, int*, int);

// Fields that lie a number of bits apart in the input and back to back in the output, 155 of them: every phase once.
Work ExtractFields(Extract extract, int fieldBits, int distance) {
  constexpr int kFields = 155;
  auto input =
      std::make_shared<Bytes>(Noise(static_cast<std::size_t>(kFields) * static_cast<std::size_t>(distance) / 8 + 9, 0));
  auto output =
      std::make_shared<Bytes>(static_cast<std::size_t>(kFields) * static_cast<std::size_t>(fieldBits) / 8 + 9);
  return {[=] {
            std::fill(output->begin(), output->end(), std::uint8_t{0});
            int outputBit = 0;
            int result = 0;
            for (int i = 0; i < kFields; ++i) {
              int inputBit = i * distance;
              result += extract(input->data(), &inputBit, output->data(), &outputBit, fieldBits);
            }
            g_sink = static_cast<unsigned>(result) + output->back();
          },
          kFields};
}

void RequireSameBits(int fieldBits) {
  const Bytes input = Noise(64, 0);
  for (int phase = 0; phase < 64; ++phase) {
    Bytes outputs[2] = {Bytes(64), Bytes(64)};
    int positions[2][2] = {{phase, 3}, {phase, 3}};
    ExtractBits(input.data(), &positions[0][0], outputs[0].data(), &positions[0][1], fieldBits);
    FloorExtractBits(input.data(), &positions[1][0], outputs[1].data(), &positions[1][1], fieldBits);
    Require(outputs[0] == outputs[1] && positions[0][0] == positions[1][0] && positions[0][1] == positions[1][1],
            "the bits differ");
  }
}

bool AddExtract(const std::string& name, int fieldBits, int distance) {
  Add(name + "/ours", [=] { return ExtractFields(ExtractBits, fieldBits, distance); });
  return Add(name + "/floor", [=] {
    RequireSameBits(fieldBits);
    return ExtractFields(FloorExtractBits, fieldBits, distance);
  });
}

constexpr std::size_t kNoiseSize = 100'000;
constexpr std::size_t kSyncSize = 5;  // of the KLV decoder's pattern

Work ScanNoise(bool ours, const Bytes& noise) {
  auto data = std::make_shared<Bytes>(noise);
  return {[=] {
            int offset = 0;
            g_sink =
                ours ? ScanForPattern(data->data(), static_cast<int>(data->size()), UASDataLinkKey, kSyncSize, &offset)
                     : static_cast<unsigned>(FloorScan(data->data(), data->size(), UASDataLinkKey, kSyncSize));
          },
          static_cast<double>(data->size())};
}

// Both find a pattern at the end, if there is none before it.
void RequireSamePlace(Bytes data) {
  data.insert(data.end(), UASDataLinkKey, UASDataLinkKey + kSyncSize);
  int offset = 0;
  const UINT matched = ScanForPattern(data.data(), static_cast<int>(data.size()), UASDataLinkKey, kSyncSize, &offset);
  Require(matched == kSyncSize && offset == FloorScan(data.data(), data.size(), UASDataLinkKey, kSyncSize),
          "the places differ");
}

bool AddScan(const std::string& name, const std::function<Bytes()>& makeNoise) {
  Add(name + "/ours", [=] { return ScanNoise(true, makeNoise()); });
  return Add(name + "/floor", [=] {
    RequireSamePlace(makeNoise());
    return ScanNoise(false, makeNoise());
  });
}

// The first four bytes of the pattern again and again: each candidate is refuted as late as can be.
Bytes Beginnings() {
  Bytes noise(kNoiseSize);
  for (std::size_t i = 0; i < noise.size(); ++i) noise[i] = UASDataLinkKey[i % (kSyncSize - 1)];
  return noise;
}

const bool kBytesAdded[] = {
    AddSum("checksum_257", OurChecksum, FloorChecksum, 257),
    AddSum("checksum_64k", OurChecksum, FloorChecksum, 65535),
    AddSum("checksum_7", OurChecksum, FloorChecksum, 7),
    AddSum("crc_690", OurCrc, FloorCrc, 690),
    AddSum("crc_64k", OurCrc, FloorCrc, 65536),
    AddSum("crc_7", OurCrc, FloorCrc, 7),
    AddExtract("extract_bits", 105, 155),
    AddExtract("extract_bits_7", 7, 9),
    AddScan("scan_1_in_4", [] { return Noise(kNoiseSize, 4); }),
    AddScan("scan_1_in_64", [] { return Noise(kNoiseSize, 64); }),
    AddScan("scan_none", [] { return Noise(kNoiseSize, 0); }),
    AddScan("scan_all_first", [] { return Bytes(kNoiseSize, UASDataLinkKey[0]); }),
    AddScan("scan_beginnings", Beginnings),
};

}  // namespace
}  // namespace bench
