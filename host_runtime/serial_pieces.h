// SPDX-License-Identifier: Apache-2.0
// Cuts the bytes of a serial line into pieces that a stream decoder can use.
//
// If a piece ends within a key, the library's decoder continues the key in the next piece without checking that the
// rest is there: a piece of fewer than kShortest bytes after a cut key loses the message. The decoder also drops a
// message whose data arrives more than half a second after its key. The pieces therefore have kShortest bytes or more,
// unless the line is quiet, and are held no longer than the rate requires. This code knows nothing of keys or messages.
#ifndef HOST_SERIAL_PIECES_H
#define HOST_SERIAL_PIECES_H

#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

namespace host_runtime {

// It has no lock and belongs to the thread that selects. All times are nanoseconds of one clock.
class SerialPieces {
 public:
  static constexpr size_t kShortest = 16;  // a key's size: two such pieces in a row never leave a key short
  static constexpr size_t kLargest =
      48;                               // size of the library's reads, so that it sees the pieces as they are cut here
  static constexpr size_t kGood = 256;  // so many bytes are handed out without waiting
  static constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

  // `character` is the time of one character with its start, parity and stop bits.
  explicit SerialPieces(int64_t character);

  void Push(std::span<const uint8_t> bytes, int64_t now);
  size_t Held() const { return m_bytes.size() - m_begin; }

  // Returns the next piece at `now`, or an empty one if none is due. The piece stays until Pop() removes it.
  std::span<const uint8_t> Next(int64_t now);
  void Pop(int64_t now);
  // Returns the time at which a piece is due if no further byte arrives; it is in the past if one is due already.
  int64_t Due() const;

  // Handles the loss of the device: the held bytes become due, and later bytes begin anew. A message that was cut would
  // make the decoder discard the first piece of the next message, so a meaningless filler is handed out before it.
  void Interrupt();

 private:
  int64_t WhenRipe() const;
  int64_t WhenFiller() const;
  void MakeDue();

  const int64_t m_pause;       // silence after which a piece of kShortest bytes or more is due
  const int64_t m_shortPause;  // the same for a shorter piece
  const int64_t m_gap;         // silence after which a new burst begins
  const int64_t m_longest;     // longest time for which the beginning of a burst is held

  std::vector<uint8_t> m_bytes;  // from m_begin on
  size_t m_begin = 0;
  size_t m_due = 0;             // bytes that may be handed out
  bool m_running = false;       // the beginning of the burst was handed out
  bool m_lastWasShort = false;  // the last bytes that became due were a short piece
  bool m_handedOut = false;     // bytes were handed out since the last filler
  bool m_fillerNeeded = false;  // a filler must precede the next byte
  bool m_fillerNext = false;    // the last piece of Next() is the filler
  int64_t m_firstByte = 0;      // arrival of the first byte that is not due yet
  int64_t m_lastByte = 0;       // arrival of the last byte
  int64_t m_lastPiece = 0;      // time at which the last piece was handed out
};

}  // namespace host_runtime

#endif  // HOST_SERIAL_PIECES_H
