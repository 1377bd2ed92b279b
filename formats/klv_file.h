// SPDX-License-Identifier: Apache-2.0
// Reads a file of KLV messages that stand back to back, such as a recording, with its index if there is one
// (docs/formats/recording_index.md).
//
// Nothing here does input or output, logs, or reads a clock. An object belongs to one thread.
#ifndef KLV_FILE_H
#define KLV_FILE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "anc_klv.h"

namespace klv_file {

using anc_klv::Bytes;
using anc_klv::ByteView;

// Finds the messages in the bytes of a file that is played. It is not klv_walk::Walk, which looks at bytes of any kind for
// a judge: that one gives out everything as it is pushed, messages of up to 1 MiB, takes five bytes for a header by their
// looks, and searches messages that the judge calls faulty. A player waits between two messages, so that it takes them
// one at a time; it judges none; it must find each one at the offset that the index has, that of the stream header, which
// only the index or the beginning of the file tells it to expect; and it has use for messages of up to
// anc_klv::kLargestKlv only, so that a wrong length costs little memory.
class Walker {
 public:
  // With `hasStreamHeaders` each message has the 5 bytes of a stream header in front.
  explicit Walker(bool hasStreamHeaders) : m_hasHeaders(hasStreamHeaders) {}

  struct Found {
    uint64_t offset;  // in the file; of the stream header, if there is one
    ByteView klv;     // valid until the next call of Push
  };
  void Push(ByteView bytes);
  // Marks the end of the file: what is left is no message.
  void Finish() { m_isFinished = true; }
  // Returns the next message, or nothing until more bytes are pushed.
  std::optional<Found> Pop();
  // Bytes so far that belong to no message.
  uint64_t Skipped() const { return m_skipped; }

 private:
  void Skip(size_t count);

  const bool m_hasHeaders;
  bool m_isFinished = false;
  Bytes m_bytes;
  size_t m_at = 0;        // in m_bytes
  uint64_t m_offset = 0;  // of m_at in the file
  uint64_t m_skipped = 0;
};

// Tells whether a file begins with KLV; *hasStreamHeaders tells whether behind a stream header.
bool BeginsWithKlv(ByteView beginning, bool* hasStreamHeaders);

// Returns the time of item 2 of an ST 0601 message, in microseconds since 1970, or nothing.
std::optional<int64_t> TimeOf(ByteView klv);

struct IndexHeader {
  bool hasStreamHeaders = false;
};
// Returns nothing if the line is not the first one of an index of version 1.
std::optional<IndexHeader> ParseIndexHeader(std::string_view line);

struct IndexLine {
  uint64_t offset = 0;
  uint64_t length = 0;
  int64_t timeUs = 0;
  std::optional<uint64_t> timestamp;  // 90 kHz
};
constexpr size_t kLongestIndexLine = 1024;
// Returns nothing if the line is longer than kLongestIndexLine or is not whole, as after a crash.
std::optional<IndexLine> ParseIndexLine(std::string_view line);

}  // namespace klv_file

#endif  // KLV_FILE_H
