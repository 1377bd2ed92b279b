// SPDX-License-Identifier: Apache-2.0
#include "klv_walk.h"

#include <algorithm>
#include <array>

namespace klv_walk {
namespace {

constexpr std::array<uint8_t, 4> kLabel = {0x06, 0x0E, 0x2B, 0x34};
constexpr size_t kHeaderSize = 5;
constexpr size_t kMostLengthBytes = 4;
// Messages inside messages inside messages: each is looked at, so that their size limits the work.
constexpr size_t kLargestSearched = 65536;

// The length field behind a key: how many bytes the message has in all, or 0 if it is not there yet, or nothing if it is
// no length.
std::optional<size_t> TotalSize(ByteView bytes) {
  if (bytes.size() <= kKeySize) return 0;
  const uint8_t first = bytes[kKeySize];
  if (first < 0x80) return kKeySize + 1 + first;
  const size_t count = first & 0x7FU;
  if (count == 0 || count > kMostLengthBytes) return std::nullopt;
  if (bytes.size() < kKeySize + 1 + count) return 0;
  size_t length = 0;
  for (size_t i = 0; i < count; ++i) length = length << 8 | bytes[kKeySize + 1 + i];
  const size_t total = kKeySize + 1 + count + length;
  return total > kLargestMessage ? std::nullopt : std::optional(total);
}

}  // namespace

void Walk::Push(ByteView bytes) {
  // Pieces, so that the buffer stays small however much comes at once.
  while (!bytes.empty()) {
    const ByteView piece = bytes.first(std::min(bytes.size(), kLargestMessage));
    bytes = bytes.subspan(piece.size());
    m_buffer.insert(m_buffer.end(), piece.begin(), piece.end());
    while (Next(false) == Step::Again) continue;
    // The bytes of a header stay until it is known what follows them.
    const size_t done = m_at - std::min(m_run, kHeaderSize);
    m_buffer.erase(m_buffer.begin(), m_buffer.begin() + static_cast<ptrdiff_t>(done));
    m_at -= done;
    m_base += done;
  }
}

void Walk::Finish() {
  while (Next(true) == Step::Again) continue;
  Skip(m_buffer.size() - m_at);
  EndRun();
}

// Looks at what stands at m_at.
Walk::Step Walk::Next(bool isEnd) {
  const ByteView rest = ByteView(m_buffer).subspan(m_at);
  const auto key = std::search(rest.begin(), rest.end(), kLabel.begin(), kLabel.end());
  if (key == rest.end()) {
    const size_t kept = std::min(rest.size(), kLabel.size() - 1);
    Skip(rest.size() - kept);
    return Step::Wait;
  }
  if (key != rest.begin()) {
    Skip(static_cast<size_t>(key - rest.begin()));
    return Step::Again;
  }
  const auto total = TotalSize(rest);
  if (total && *total != 0 && *total <= rest.size()) return Take(*total);
  if (total && !isEnd) return Step::Wait;
  if (total) ++m_cut;
  Skip(kLabel.size());
  return Step::Again;
}

Walk::Step Walk::Take(size_t total) {
  const auto sequence = TakeHeader(total);
  EndRun();
  const ByteView message = ByteView(m_buffer).subspan(m_at, total);
  const bool isGood = m_onMessage({m_base + m_at, message, sequence});
  const ByteView value = message.subspan(kLabel.size());
  const bool isSearched = !isGood && total <= kLargestSearched;
  const bool holdsKey =
      isSearched && std::search(value.begin(), value.end(), kLabel.begin(), kLabel.end()) != value.end();
  m_at += holdsKey ? kKeySize + 1 : total;
  return Step::Again;
}

void Walk::Skip(size_t count) {
  m_at += count;
  m_run += count;
}

void Walk::EndRun() {
  if (m_run != 0) ++m_runs;
  m_skipped += m_run;
  m_run = 0;
}

// Both headers have a sequence number in the second byte, flags whose first two bits say "whole" in the third, and the
// length in the last two.
std::optional<uint8_t> Walk::TakeHeader(size_t total) {
  if (m_run < kHeaderSize || m_at < kHeaderSize) return std::nullopt;
  const ByteView header = ByteView(m_buffer).subspan(m_at - kHeaderSize, kHeaderSize);
  const bool isRecorded = header[0] == 0 && header[2] == 0xDF;
  const bool isUnit = (header[2] & 0xC0) == 0xC0 && static_cast<size_t>(header[3] << 8 | header[4]) == (total & 0xFFFF);
  if (!isRecorded && !isUnit) return std::nullopt;
  m_run -= kHeaderSize;
  return header[1];
}

}  // namespace klv_walk
