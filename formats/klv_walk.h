// SPDX-License-Identifier: Apache-2.0
// klv_walk.h - finds the KLV messages (SMPTE ST 336) in bytes that follow each other: a file, the payload of a transport
// stream, datagrams. No I/O, and no more memory than two of the largest messages. A file that is played is read by
// klv_file::Walker, which says how they differ.
#ifndef KLV_WALK_H
#define KLV_WALK_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace klv_walk {

using ByteView = std::span<const uint8_t>;

constexpr size_t kKeySize = 16;
constexpr size_t kLargestMessage = size_t{1} << 20;  // key, length and value

struct Found {
  uint64_t offset = 0;              // of the key, among all bytes
  ByteView message;                 // key, length and value; valid during the call
  std::optional<uint8_t> sequence;  // of the five bytes in front of the message: the stream header of a recording, or
                                    // the header of a metadata access unit in a transport stream
};

// Returns false if the message is faulty. If it holds the start of another one and is no longer than 64 KiB, that one is
// looked at then: a wrong length costs only the message that has it.
using OnMessage = std::function<bool(const Found& found)>;

class Walk {
 public:
  explicit Walk(OnMessage onMessage) : m_onMessage(std::move(onMessage)) {}

  void Push(ByteView bytes);
  // Nothing follows: a message that is not complete is cut, and the bytes behind its key are searched.
  void Finish();

  uint64_t Bytes() const { return m_base + m_buffer.size(); }
  uint64_t Skipped() const { return m_skipped; }  // bytes that belong to no message
  uint64_t Runs() const { return m_runs; }        // places where there were such
  uint64_t Cut() const { return m_cut; }          // messages that the end cut off

 private:
  enum class Step { Again, Wait };
  Step Next(bool isEnd);
  Step Take(size_t total);
  void Skip(size_t count);
  void EndRun();
  std::optional<uint8_t> TakeHeader(size_t total);

  const OnMessage m_onMessage;
  std::vector<uint8_t> m_buffer;
  size_t m_at = 0;      // in the buffer; what is before it has been looked at
  uint64_t m_base = 0;  // offset of the buffer's first byte
  size_t m_run = 0;     // bytes just before m_at that belong to no message, so far
  uint64_t m_skipped = 0;
  uint64_t m_runs = 0;
  uint64_t m_cut = 0;
};

}  // namespace klv_walk

#endif  // KLV_WALK_H
