// SPDX-License-Identifier: Apache-2.0
// Cuts a stream of Cursor-on-Target events into its messages: XML elements one after the other, with or without
// declarations and blanks between them, and messages of the TAK protocol behind the header of a stream (tak_protocol.h).
// Each message may be of either kind. No I/O.
//
// The bytes of XML are scanned once, whatever pieces they arrive in, and are not checked further: only where an element
// ends is found out. A message that is too long, and bytes between messages that are neither, are faults.
#ifndef TAK_STREAM_H
#define TAK_STREAM_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace tak {

class StreamReader {
 public:
  enum class Kind { Xml, Protobuf };
  // Takes a message, of the TAK protocol without its header. The bytes are valid until it returns.
  using Take = std::function<void(Kind, std::span<const uint8_t>)>;

  // Messages of more than `longest` bytes are faults.
  explicit StreamReader(size_t longest) : m_longest(longest) {}

  // Calls `take` for each message that the bytes complete.
  void Push(std::span<const uint8_t> bytes, const Take& take);
  // Gives up what is unfinished, as at the end of a datagram or a connection.
  void Restart();

  // The number of faults. After one, everything is skipped up to the next "<event" or the end of the message.
  uint64_t Faults() const { return m_faults; }
  // Returns whether a message has begun and has not ended.
  bool IsInside() const { return !m_held.empty(); }

 private:
  enum class State { Between, Hunting, Header, Body, Skipping, Xml };
  // Where in an element the scan is.
  enum class Place { Text, Opened, Tag, Quoted, Declaration, Comment, CData, Instruction };

  void PushByte(uint8_t byte, const Take& take);
  void Begin(uint8_t byte);
  void PushHeader(uint8_t byte);
  void PushXml(uint8_t byte, const Take& take);
  bool EndsElement(uint8_t byte);
  bool EndsTag();
  bool IsOpened(uint8_t byte);
  bool HeldEndsWith(const char* text) const;
  void Hunt(uint8_t byte);
  void Fault();
  void Clear(State next);

  const size_t m_longest;
  State m_state = State::Between;
  std::vector<uint8_t> m_held;
  uint64_t m_faults = 0;

  uint64_t m_missing = 0;  // bytes of the message that are still to come
  size_t m_matched = 0;    // characters of "<event" that the hunt has seen
  Place m_place = Place::Text;
  uint8_t m_quote = 0;       // that ends the attribute's value
  bool m_isEndTag = false;   // of the tag that the scan is in
  size_t m_markupBegin = 0;  // of the tag, comment or other markup that the scan is in
  size_t m_depth = 0;        // of open elements
};

}  // namespace tak

#endif  // TAK_STREAM_H
