// SPDX-License-Identifier: Apache-2.0
#include "serial_pieces.h"

#include <algorithm>
#include <array>

#include "nanoseconds.h"

namespace host_runtime {
namespace {

// In characters. Ports with a buffer pass their bytes on in groups, mostly of up to 14, so that a running line shows
// pauses of that length. Cutting there is harmless for a piece that is long enough, but not always for a short one.
constexpr int64_t kPause = 16;
constexpr int64_t kShortPause = 20;
constexpr int64_t kGap = 64;

// A sender that is not scheduled for a moment also pauses, at any rate.
constexpr int64_t kLeastShortPause = 20 * kMillisecond;
// Two short pieces in a row lose a key. The second one therefore waits for as long as the decoder's time-out allows.
constexpr int64_t kMostShortPause = 250 * kMillisecond;
constexpr int64_t kMostHolding = 1'000 * kMillisecond;

// After this silence the decoder drops an unfinished message together with the piece that arrives then.
constexpr int64_t kDecoderPatience = 520 * kMillisecond;

// These bytes are neither a sync pattern nor a part of one, nor a designator or a length, so that they end whatever the
// decoder waits for.
constexpr auto kFiller = [] {
  std::array<uint8_t, SerialPieces::kShortest> filler{};
  filler.fill(0xFF);
  return filler;
}();

}  // namespace

SerialPieces::SerialPieces(int64_t character)
    : m_pause(kPause * character),
      m_shortPause(std::clamp(kShortPause * character, kLeastShortPause, kMostShortPause)),
      m_gap(kGap * character),
      m_longest(std::min(static_cast<int64_t>(kGood) * character, kMostHolding)) {}

void SerialPieces::Push(std::span<const uint8_t> bytes, int64_t now) {
  if (bytes.empty()) return;
  if (Held() == 0 && now - m_lastByte >= m_gap) m_running = false;
  if (Held() == m_due) m_firstByte = now;
  m_lastByte = now;
  m_bytes.erase(m_bytes.begin(), m_bytes.begin() + static_cast<ptrdiff_t>(m_begin));
  m_begin = 0;
  m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
}

int64_t SerialPieces::WhenRipe() const {
  const size_t held = Held();
  if (held < kShortest) return m_lastByte + (m_lastWasShort ? kMostShortPause : m_shortPause);
  if (held >= kGood || m_running) return m_lastByte;
  return std::min(m_lastByte + m_pause, m_firstByte + m_longest);
}

int64_t SerialPieces::WhenFiller() const {
  return m_lastPiece + kDecoderPatience;
}

int64_t SerialPieces::Due() const {
  if (Held() == 0) return kNever;
  if (m_due != 0) return m_lastByte;
  return m_fillerNeeded ? WhenFiller() : WhenRipe();
}

void SerialPieces::MakeDue() {
  m_due = Held();
  m_lastWasShort = m_due < kShortest;
  m_running = true;
}

std::span<const uint8_t> SerialPieces::Next(int64_t now) {
  m_fillerNext = false;
  if (Due() > now) return {};
  if (m_due == 0 && m_fillerNeeded) {
    m_fillerNext = true;
    return kFiller;
  }
  if (m_due == 0) MakeDue();
  // The pieces are as equal as possible, so that the last one is not short.
  const size_t pieces = (m_due + kLargest - 1) / kLargest;
  return {m_bytes.data() + m_begin, (m_due + pieces - 1) / pieces};
}

void SerialPieces::Pop(int64_t now) {
  m_lastPiece = now;
  if (m_fillerNext) {
    m_fillerNext = m_fillerNeeded = m_handedOut = false;
    return;
  }
  const size_t pieces = (m_due + kLargest - 1) / kLargest;
  const size_t size = (m_due + pieces - 1) / pieces;
  m_begin += size;
  m_due -= size;
  m_handedOut = true;
}

void SerialPieces::Interrupt() {
  if (Held() != m_due) MakeDue();
  m_fillerNeeded = m_fillerNeeded || m_handedOut || m_due != 0;
  m_running = false;
  m_lastWasShort = false;
}

}  // namespace host_runtime
