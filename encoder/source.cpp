// SPDX-License-Identifier: Apache-2.0
#include "source.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <string>

namespace mdencoder {
namespace {

void Add(std::atomic<uint64_t>& counter, uint64_t value) {
  counter.fetch_add(value, std::memory_order_relaxed);
}
uint64_t Get(const std::atomic<uint64_t>& counter) {
  return counter.load(std::memory_order_relaxed);
}

}  // namespace

void SequenceWatch::Push(uint8_t sequence) {
  if (m_last >= 0) {
    const uint8_t missing = static_cast<uint8_t>(sequence - m_last - 1);
    if (missing != 0) {
      Add(m_gaps, 1);
      Add(m_lost, missing);
    }
  }
  m_last = sequence;
}

void Source::OpenOutput(const std::string& path, bool streamHeader) {
  m_file.reset(std::fopen(path.c_str(), "wbe"));
  if (!m_file) throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
  m_streamHeader = streamHeader;
}

void Source::Arrived(uint8_t sequence, uint64_t length, bool taken) {
  // A video source uses the sequence number of a refused message again.
  if (taken || m_settings.record.enInputType != MDATA_INPUT_VIDEO) m_sequence.Push(sequence);
  if (!taken) {
    Add(m_dropped, 1);
    return;
  }
  Add(m_bytes, length);
  Add(m_messages, 1);
}

bool Source::Write(st0601::ByteView buffer) {
  if (!m_file || m_fileFailed) return true;
  const st0601::ByteView bytes = m_streamHeader ? buffer : buffer.subspan(MDATA_STREAM_HEADER_SIZE);
  m_fileFailed = std::fwrite(bytes.data(), 1, bytes.size(), m_file.get()) != bytes.size();
  return !m_fileFailed;
}

bool Source::CloseOutput() {
  if (!m_file) return true;
  return std::fclose(m_file.release()) == 0 && !m_fileFailed;
}

void Source::Judge(const st0601::Message& message) {
  if (!message.isUas) {
    Add(m_notUas, 1);
    return;
  }
  Add(m_checksums[static_cast<size_t>(message.checksum)], 1);
  if (!message.isComplete) Add(m_incomplete, 1);
}

Counters Source::Snapshot() const {
  Counters counters;
  counters.messages = Get(m_messages);
  counters.bytes = Get(m_bytes);
  counters.dropped = Get(m_dropped);
  counters.sequenceGaps = m_sequence.Gaps();
  counters.lost = m_sequence.Lost();
  counters.checksumOk = Get(m_checksums[static_cast<size_t>(st0601::ChecksumState::Ok)]);
  counters.checksumBad = Get(m_checksums[static_cast<size_t>(st0601::ChecksumState::Bad)]);
  counters.checksumMissing = Get(m_checksums[static_cast<size_t>(st0601::ChecksumState::Missing)]);
  counters.checksumMisplaced = Get(m_checksums[static_cast<size_t>(st0601::ChecksumState::Misplaced)]);
  counters.notUas = Get(m_notUas);
  counters.incomplete = Get(m_incomplete);
  return counters;
}

}  // namespace mdencoder
