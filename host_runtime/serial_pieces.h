// Cuts the bytes of a serial line into the pieces that a stream decoder can use.
//
// The decoder of the library reads a key that is cut off at the end of one piece on from the next, and does not ask whether
// all of it is there then: a piece of fewer than kShortest bytes behind a cut key loses the message. It also gives a message
// up when data comes more than half a second after the message's key. What is handed out here therefore has kShortest bytes
// or more, unless the line is quiet, and is not held longer than the rate asks for. Nothing here knows of keys or messages.
#ifndef HOST_SERIAL_PIECES_H
#define HOST_SERIAL_PIECES_H

#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

namespace host_runtime {

// Not locked: belongs to the thread that selects. All times are nanoseconds of one clock.
class SerialPieces {
 public:
  static constexpr size_t kShortest = 16;  // a key's size: two such pieces in a row never leave a key short
  static constexpr size_t kLargest = 48;   // what the library reads at once; it sees the pieces as they are cut here
  static constexpr size_t kGood = 256;     // no waiting with so much at hand
  static constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

  // `character` is the time of one character with its start, parity and stop bits.
  explicit SerialPieces(int64_t character);

  void Push(std::span<const uint8_t> bytes, int64_t now);
  size_t Held() const { return m_bytes.size() - m_begin; }

  // The next piece at `now`; empty when none is due. It stays the next one until Pop() says that it was handed out.
  std::span<const uint8_t> Next(int64_t now);
  void Pop(int64_t now);
  // When a piece will be due if no byte comes any more; in the past when one is due already.
  int64_t Due() const;

  // The device went away: what is held is due, and what comes from now on begins anew. A message that was cut would make
  // the decoder throw the first piece of the next one away, so a filler without meaning goes ahead of it.
  void Interrupt();

 private:
  int64_t WhenRipe() const;
  int64_t WhenFiller() const;
  void MakeDue();

  const int64_t m_pause;       // the line is quiet: a piece of kShortest bytes or more goes
  const int64_t m_shortPause;  // the same for a shorter one
  const int64_t m_gap;         // so long a silence that what follows is a new burst
  const int64_t m_longest;     // that the beginning of a burst is held

  std::vector<uint8_t> m_bytes;  // from m_begin on
  size_t m_begin = 0;
  size_t m_due = 0;             // bytes that may go
  bool m_running = false;       // the burst's beginning was handed out
  bool m_lastWasShort = false;  // of the last bytes that were let go
  bool m_handedOut = false;     // anything since the last filler
  bool m_fillerNeeded = false;  // before the next byte
  bool m_fillerNext = false;    // the piece that Next() gave is the filler
  int64_t m_firstByte = 0;      // of those that may not go yet
  int64_t m_lastByte = 0;       // that came
  int64_t m_lastPiece = 0;      // that was handed out
};

}  // namespace host_runtime

#endif  // HOST_SERIAL_PIECES_H
