// SPDX-License-Identifier: Apache-2.0
#include "track_file.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "observation.h"

namespace mdencoder {

TrackFile::TrackFile(TrackSettings settings, Say say)
    : m_settings(std::move(settings)), m_say(std::move(say)), m_writer(m_settings.format, m_settings.source) {}

void TrackFile::Open() {
  m_file = MakeGrowingFile(m_settings.path, true);
  if (!m_file.isRegular) throw std::runtime_error("cannot write " + m_settings.path + ": it is not a file");
  m_chunk = m_writer.Begin();
  if (!Write()) throw std::runtime_error("cannot write " + m_settings.path + ": " + std::strerror(errno));
}

// The clock of this machine may be set back.
bool TrackFile::IsDue(uint64_t arrivalUs) const {
  return arrivalUs < m_lastUs || static_cast<double>(arrivalUs - m_lastUs) >= m_settings.interval * 1e6;
}

void TrackFile::Add(const Received& received, const st0601::Message& message) {
  if (!m_file.fd.IsOpen() || m_isFull || !message.isUas || !IsDue(received.timeUs)) return;
  if (message.checksum == st0601::ChecksumState::Bad) return;
  if (m_chunk.size() + m_writer.Waiting() >= kMostWaiting) {
    ++m_lost;
    m_lastUs = received.timeUs;
    return;
  }
  if (m_writer.Add(st0601::Observe(message), received.timeUs)) m_lastUs = received.timeUs;
}

bool TrackFile::Flush() {
  if (!m_file.fd.IsOpen()) return true;
  m_chunk += m_writer.TakeChunk();
  if (m_chunk.empty()) return true;
  if (m_file.size + m_chunk.size() > kMostBytes) {
    m_isFull = true;
    m_chunk.clear();
    m_say(true, "the track of " + m_settings.source + " ends: " + m_settings.path + " has " +
                    std::to_string(kMostBytes >> 20) + " MiB");
    return true;
  }
  errno = 0;
  const bool isWritten = Write();
  const int error = errno;
  if (isWritten == m_isFailing) Report(!isWritten, error);
  return isWritten;
}

void TrackFile::Report(bool isFailing, int error) {
  m_isFailing = isFailing;
  const std::string what = "the track of " + m_settings.source;
  if (isFailing) {
    m_say(true, what + " cannot be written further to " + m_settings.path + ": " + std::strerror(error));
    return;
  }
  m_say(false, what + " continues in " + m_settings.path + "; " + std::to_string(std::exchange(m_lost, 0)) +
                   " samples in between were lost");
}

void TrackFile::Close() {
  Flush();
  m_file = {};
}

// Writes what waits and the closing part behind it. If not all of it fits, the closing part takes its former place.
bool TrackFile::Write() {
  const std::string end = m_writer.End();
  const std::string text = m_chunk + end;
  const size_t written = m_file.Append(text.data(), text.size());
  if (written == text.size()) {
    m_file.size += m_chunk.size();
    m_chunk.clear();
    return true;
  }
  const int error = errno;
  // Its blocks are there already.
  const size_t restored = m_file.Append(end.data(), end.size());
  // If it cannot be cut, the next write covers what is too much.
  const bool isCut = ftruncate(m_file.fd.Get(), static_cast<off_t>(m_file.size + restored)) == 0;
  static_cast<void>(isCut);
  errno = error;
  return false;
}

}  // namespace mdencoder
