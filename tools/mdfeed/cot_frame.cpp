// SPDX-License-Identifier: Apache-2.0
#include "cot_frame.h"

#include <algorithm>
#include <cstddef>
#include <random>
#include <stdexcept>
#include <utility>

namespace mdfeed {
namespace {

constexpr std::string_view kSyncPattern = "oHeY!";
constexpr size_t kHeaderSize = 17;
constexpr size_t kLargestFrame = 65536;
constexpr size_t kCheckSymbols = kSymbolsPerCodeword - kDataSymbols;
constexpr size_t kBitsPerSymbol = 5;
constexpr size_t kDataBits = kDataSymbols * kBitsPerSymbol;
constexpr size_t kCodewordBits = kSymbolsPerCodeword * kBitsPerSymbol;

constexpr std::array<std::pair<FrameField, std::string_view>, 14> kFieldNames = {{
    {FrameField::Sync, "sync"},
    {FrameField::Length1, "length1"},
    {FrameField::Length2, "length2"},
    {FrameField::Length3, "length3"},
    {FrameField::Check1, "check1"},
    {FrameField::Check2, "check2"},
    {FrameField::Check3, "check3"},
    {FrameField::Codeword, "codeword"},
    {FrameField::CheckBits, "check-bits"},
    {FrameField::BlockLength, "block-length"},
    {FrameField::Crc, "crc"},
    {FrameField::ArqU, "arq-u"},
    {FrameField::ArqHash, "arq-hash"},
    {FrameField::Channel, "channel"},
}};

// --- GF(32) ------------------------------------------------------------------------------------------

struct Field {
  std::array<uint8_t, 62> power{};  // a^i for two periods, so that sums of logarithms need no reduction
  std::array<uint8_t, 32> log{};    // logarithms of 1 to 31
};

constexpr Field MakeField() {
  Field field;
  unsigned value = 1;
  for (size_t i = 0; i < 31; ++i) {
    field.power[i] = field.power[i + 31] = static_cast<uint8_t>(value);
    field.log[value] = static_cast<uint8_t>(i);
    value <<= 1;
    if ((value & 0x20u) != 0) value ^= 0x25u;
  }
  return field;
}

constexpr Field kField = MakeField();

constexpr uint8_t Multiply(uint8_t a, uint8_t b) {
  if (a == 0 || b == 0) return 0;
  return kField.power[size_t{kField.log[a]} + kField.log[b]];
}

// Coefficients of (x - a)(x - a^2)...(x - a^10) below the leading one, highest power first.
constexpr std::array<uint8_t, kCheckSymbols> MakeGenerator() {
  std::array<uint8_t, kCheckSymbols + 1> poly{};
  poly[0] = 1;
  for (size_t root = 1; root <= kCheckSymbols; ++root) {
    for (size_t i = root; i > 0; i--) {
      poly[i] = static_cast<uint8_t>(poly[i] ^ Multiply(poly[i - 1], kField.power[root]));
    }
  }
  std::array<uint8_t, kCheckSymbols> rest{};
  for (size_t i = 0; i < kCheckSymbols; ++i) rest[i] = poly[i + 1];
  return rest;
}

constexpr std::array<uint8_t, kCheckSymbols> kGenerator = MakeGenerator();

// --- Bits --------------------------------------------------------------------------------------------

bool GetBit(std::span<const uint8_t> data, size_t bit) {
  const size_t byte = bit / 8;
  return byte < data.size() && ((data[byte] >> (7 - bit % 8)) & 1u) != 0;
}

void FlipBit(Bytes& data, size_t bit) {
  data[bit / 8] = static_cast<uint8_t>(data[bit / 8] ^ (0x80u >> (bit % 8)));
}

// Returns the position of a bit of the block in the packed codewords.
size_t PackedPosition(size_t blockBit) {
  return blockBit / kDataBits * kCodewordBits + blockBit % kDataBits;
}

void AppendLittleEndian(Bytes& out, uint16_t word) {
  out.push_back(static_cast<uint8_t>(word));
  out.push_back(static_cast<uint8_t>(word >> 8));
}

// --- Damage ------------------------------------------------------------------------------------------

using Random = std::minstd_rand;

size_t Pick(Random& random, size_t first, size_t count) {
  return first + random() % std::max<size_t>(count, 1);
}

void DamageArq(Bytes& arq, FrameField field) {
  if (field == FrameField::ArqU) arq[0] = 'V';
  if (field == FrameField::ArqHash) arq[1] = '$';
  if (field == FrameField::Channel) arq[2] = arq[2] == '2' ? '3' : '2';
}

void DamageBlock(Bytes& block, FrameField field, Random& random) {
  if (field == FrameField::Crc) FlipBit(block, Pick(random, (block.size() - 2) * 8, 16));
  if (field == FrameField::BlockLength) block[0] = block[1] = 0xFF;
}

void DamagePayload(Bytes& payload, size_t blockSize, FrameField field, Random& random) {
  if (field == FrameField::Codeword) FlipBit(payload, PackedPosition(Pick(random, 16, (blockSize - 4) * 8)));
  if (field == FrameField::CheckBits) FlipBit(payload, Pick(random, kDataBits, kCodewordBits - kDataBits));
}

// Selects a bit of the length at 'offset' other than the highest, which is lost when the check word doubles the length.
size_t PickLengthBit(Random& random, size_t offset) {
  const size_t bit = Pick(random, 0, 15);
  return offset * 8 + (bit < 8 ? bit : bit + 1);
}

void DamageHeader(Bytes& frame, FrameField field, Random& random) {
  switch (field) {
    case FrameField::Sync:
      FlipBit(frame, Pick(random, 0, kSyncPattern.size() * 8));
      break;
    case FrameField::Length1:
      FlipBit(frame, PickLengthBit(random, 5));
      break;
    case FrameField::Check1:
      FlipBit(frame, Pick(random, 7 * 8, 16));
      break;
    case FrameField::Length2:
      FlipBit(frame, PickLengthBit(random, 9));
      break;
    case FrameField::Check2:
      FlipBit(frame, Pick(random, 11 * 8, 16));
      break;
    case FrameField::Length3:
      FlipBit(frame, PickLengthBit(random, 13));
      break;
    case FrameField::Check3:
      FlipBit(frame, Pick(random, 15 * 8, 16));
      break;
    default:
      break;
  }
}

}  // namespace

std::string_view FrameFieldName(FrameField field) {
  const auto* found = std::find_if(kFieldNames.begin(), kFieldNames.end(), [&](auto& e) { return e.first == field; });
  return found->second;
}

FrameField ParseFrameField(std::string_view name) {
  const auto* found = std::find_if(kFieldNames.begin(), kFieldNames.end(), [&](auto& e) { return e.second == name; });
  if (found == kFieldNames.end()) throw std::invalid_argument("unknown field '" + std::string(name) + "'");
  return found->first;
}

std::string FrameFieldNames() {
  std::string names;
  for (const auto& [field, name] : kFieldNames) {
    if (!names.empty()) names += ", ";
    names += name;
  }
  return names;
}

Codeword EncodeReedSolomon(std::span<const uint8_t, kDataSymbols> data) {
  Codeword word{};
  std::copy(data.begin(), data.end(), word.begin());
  std::array<uint8_t, kCheckSymbols> rest{};  // remainder of data * x^10, highest power first
  for (const uint8_t symbol : data) {
    const auto feedback = static_cast<uint8_t>(symbol ^ rest[0]);
    std::rotate(rest.begin(), rest.begin() + 1, rest.end());
    rest.back() = 0;
    for (size_t i = 0; i < kCheckSymbols; ++i) {
      rest[i] = static_cast<uint8_t>(rest[i] ^ Multiply(feedback, kGenerator[i]));
    }
  }
  std::copy(rest.begin(), rest.end(), word.begin() + kDataSymbols);
  return word;
}

bool IsCodeword(const Codeword& word) {
  for (size_t root = 1; root <= kCheckSymbols; ++root) {
    uint8_t sum = 0;
    for (const uint8_t symbol : word) {
      sum = static_cast<uint8_t>(Multiply(sum, kField.power[root]) ^ symbol);
    }
    if (sum != 0) return false;
  }
  return true;
}

uint16_t LengthCheck(uint16_t length) {
  return static_cast<uint16_t>(0u - 2u * length);
}

uint16_t Crc16Arc(std::span<const uint8_t> data) {
  unsigned crc = 0;
  for (const uint8_t byte : data) {
    crc ^= byte;
    for (int i = 0; i < 8; ++i) crc = (crc & 1u) != 0 ? (crc >> 1) ^ 0xA001u : crc >> 1;
  }
  return static_cast<uint16_t>(crc);
}

Bytes BuildBlock(std::span<const uint8_t> arqMessage) {
  if (arqMessage.size() > 0xFFFF - 2) throw std::length_error("event too long for a serial frame");
  Bytes block;
  AppendLittleEndian(block, static_cast<uint16_t>(arqMessage.size() + 2));
  block.insert(block.end(), arqMessage.begin(), arqMessage.end());
  const uint16_t crc = Crc16Arc(arqMessage);
  block.push_back(static_cast<uint8_t>(crc >> 8));
  block.push_back(static_cast<uint8_t>(crc));
  return block;
}

Bytes PackCodewords(std::span<const uint8_t> block) {
  const size_t codewords = (block.size() * 8 + kDataBits - 1) / kDataBits;
  Bytes packed((codewords * kCodewordBits + 7) / 8);
  size_t out = 0;
  for (size_t i = 0; i < codewords; ++i) {
    std::array<uint8_t, kDataSymbols> data{};
    for (size_t bit = 0; bit < kDataBits; ++bit) {
      if (GetBit(block, i * kDataBits + bit)) {
        data[bit / kBitsPerSymbol] |= static_cast<uint8_t>(0x10u >> (bit % kBitsPerSymbol));
      }
    }
    for (const uint8_t symbol : EncodeReedSolomon(data)) {
      for (size_t bit = 0; bit < kBitsPerSymbol; ++bit, ++out) {
        if ((symbol & (0x10u >> bit)) != 0) FlipBit(packed, out);
      }
    }
  }
  return packed;
}

Bytes BuildFrame(std::span<const uint8_t> payload) {
  if (payload.size() > kLargestFrame - kHeaderSize) throw std::length_error("event too long for a serial frame");
  Bytes frame(kSyncPattern.begin(), kSyncPattern.end());
  const auto length = static_cast<uint16_t>(payload.size());
  for (int copy = 0; copy < 3; ++copy) {
    AppendLittleEndian(frame, length);
    AppendLittleEndian(frame, LengthCheck(length));
  }
  frame.insert(frame.end(), payload.begin(), payload.end());
  return frame;
}

Bytes BuildCotFrame(std::string_view xml, const FrameOptions& options) {
  Random random(options.seed + 1);
  Bytes arq = {'U', '#', static_cast<uint8_t>(options.channel)};
  arq.insert(arq.end(), xml.begin(), xml.end());
  for (const FrameField field : options.damage) DamageArq(arq, field);
  Bytes block = BuildBlock(arq);
  for (const FrameField field : options.damage) DamageBlock(block, field, random);
  Bytes payload = PackCodewords(block);
  for (const FrameField field : options.damage) DamagePayload(payload, block.size(), field, random);
  Bytes frame = BuildFrame(payload);
  for (const FrameField field : options.damage) DamageHeader(frame, field, random);
  return frame;
}

}  // namespace mdfeed
