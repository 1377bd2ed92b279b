// Builds frames of the serial Cursor-on-Target link, whole or damaged on purpose.
#ifndef MDFEED_COT_FRAME_H
#define MDFEED_COT_FRAME_H

#include <array>
#include <cstdint>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace mdfeed {

using Bytes = std::vector<uint8_t>;

// What can be damaged. The length and check fields of the header stand for the first, second and third copy.
enum class FrameField {
  Sync,     // one byte of the sync pattern
  Length1,  // one bit of a length that its check word notices
  Length2,
  Length3,
  Check1,  // one bit of a length's check word
  Check2,
  Check3,
  Codeword,     // one data bit inside the ARQ message, so that the CRC no longer matches
  CheckBits,    // one check bit of a codeword; receivers that correct nothing do not notice
  BlockLength,  // the length word in front of the ARQ message says more than there is
  Crc,          // one bit of the CRC
  ArqU,         // the first ARQ byte; the CRC is right
  ArqHash,      // the second
  Channel       // another channel digit
};

// The name used on the command line ("length1"), and back. Throws std::invalid_argument for an unknown name.
std::string_view FrameFieldName(FrameField field);
FrameField ParseFrameField(std::string_view name);
// All names, separated by commas.
std::string FrameFieldNames();

struct FrameOptions {
  char channel = '1';
  std::vector<FrameField> damage;
  uint32_t seed = 0;  // chooses the bits that are damaged
};

inline constexpr size_t kSymbolsPerCodeword = 31;
inline constexpr size_t kDataSymbols = 21;
using Codeword = std::array<uint8_t, kSymbolsPerCodeword>;  // 5-bit symbols, data first

// Appends the ten check symbols of the (31, 21) Reed-Solomon code over GF(32).
//
// The field is built on the primitive polynomial x^5 + x^2 + 1; the generator has the roots a^1 to a^10, a = x. The
// first symbol is the coefficient of the highest power.
Codeword EncodeReedSolomon(std::span<const uint8_t, kDataSymbols> data);
// Whether all ten syndromes are zero.
bool IsCodeword(const Codeword& word);

// Check word of a length: minus twice the length, modulo 65536.
uint16_t LengthCheck(uint16_t length);
// CRC-16/ARC.
uint16_t Crc16Arc(std::span<const uint8_t> data);

// The block that the codewords carry: length word, ARQ message, CRC.
Bytes BuildBlock(std::span<const uint8_t> arqMessage);
// Packs a block into codewords of 155 bits, back to back, the last one filled up with zero bits.
Bytes PackCodewords(std::span<const uint8_t> block);
// Puts the 17-byte header in front of a payload. Throws std::length_error when the frame would pass 65536 bytes.
Bytes BuildFrame(std::span<const uint8_t> payload);

// The whole way from an event's XML text to the bytes of one frame.
Bytes BuildCotFrame(std::string_view xml, const FrameOptions& options = {});

}  // namespace mdfeed

#endif  // MDFEED_COT_FRAME_H
