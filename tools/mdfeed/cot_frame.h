// SPDX-License-Identifier: Apache-2.0
// Builds frames of the serial Cursor-on-Target link, intact or with deliberate damage.
#ifndef MDFEED_COT_FRAME_H
#define MDFEED_COT_FRAME_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace mdfeed {

using Bytes = std::vector<uint8_t>;

// The fields that can be damaged. Length1 to Length3 and Check1 to Check3 are the three copies in the header.
enum class FrameField {
  Sync,     // one byte of the sync pattern
  Length1,  // one bit of a length, which its check word detects
  Length2,
  Length3,
  Check1,  // one bit of a length's check word
  Check2,
  Check3,
  Codeword,     // one data bit of the ARQ message, which the CRC detects
  CheckBits,    // one check bit of a codeword; a receiver without correction does not detect it
  BlockLength,  // the length word before the ARQ message is too large
  Crc,          // one bit of the CRC
  ArqU,         // the first ARQ byte; the CRC matches
  ArqHash,      // the second ARQ byte; the CRC matches
  Channel       // another channel digit
};

// Convert the name on the command line ("length1") to a field and back. Parsing throws std::invalid_argument for an
// unknown name.
std::string_view FrameFieldName(FrameField field);
FrameField ParseFrameField(std::string_view name);
// Returns all names, separated by commas.
std::string FrameFieldNames();

struct FrameOptions {
  char channel = '1';
  std::vector<FrameField> damage;
  uint32_t seed = 0;  // selects the bits to damage
};

inline constexpr size_t kSymbolsPerCodeword = 31;
inline constexpr size_t kDataSymbols = 21;
using Codeword = std::array<uint8_t, kSymbolsPerCodeword>;  // 5-bit symbols, data first

// Appends the ten check symbols of the (31, 21) Reed-Solomon code over GF(32).
//
// The field is built on the primitive polynomial x^5 + x^2 + 1; the generator has the roots a^1 to a^10, a = x. The
// first symbol is the coefficient of the highest power.
Codeword EncodeReedSolomon(std::span<const uint8_t, kDataSymbols> data);
// Returns whether all ten syndromes are zero.
bool IsCodeword(const Codeword& word);

// Returns the check word of a length: minus twice the length, modulo 65536.
uint16_t LengthCheck(uint16_t length);
// Returns the CRC-16/ARC.
uint16_t Crc16Arc(std::span<const uint8_t> data);

// Returns the block that the codewords carry: length word, ARQ message, CRC.
Bytes BuildBlock(std::span<const uint8_t> arqMessage);
// Packs a block into consecutive codewords of 155 bits. The last one is padded with zero bits.
Bytes PackCodewords(std::span<const uint8_t> block);
// Puts the 17-byte header in front of a payload. Throws std::length_error if the frame would exceed 65536 bytes.
Bytes BuildFrame(std::span<const uint8_t> payload);

// Converts the XML text of an event to the bytes of one frame.
Bytes BuildCotFrame(std::string_view xml, const FrameOptions& options = {});

}  // namespace mdfeed

#endif  // MDFEED_COT_FRAME_H
