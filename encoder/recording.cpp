// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Files        are made, grow by whole pieces, and follow each other
//   Messages     wait, and are written
//   Index        has a line for each message that is in the file
#include "recording.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "recording_name.h"
#include "st0601_items.h"

namespace mdencoder {
namespace {

constexpr unsigned kMostNumbers = 1000000;

}  // namespace

// --- Files -------------------------------------------------------------------------------------------

Recording::Recording(RecordingSettings settings, Say say) : m_settings(std::move(settings)), m_say(std::move(say)) {}

void Recording::Open(uint64_t timeUs) {
  MakeNext(timeUs);
}

// Replaces the file and its index by the next ones. Throws std::runtime_error, and then both stay.
void Recording::MakeNext(uint64_t timeUs) {
  const bool hasNumber = HasNumber(m_settings.path);
  const bool isPattern = IsPattern(m_settings.path);
  GrowingFile next;
  for (;;) {
    ++m_number;
    const std::string path = ExpandPattern(m_settings.path, timeUs, m_number);
    struct stat status {};
    const bool exists = isPattern && lstat(path.c_str(), &status) == 0;
    if (exists && hasNumber && m_number < kMostNumbers) continue;
    next = MakeGrowingFile(path, !isPattern);
    break;
  }
  m_file = std::move(next);
  m_period = m_settings.rotateTime == 0 ? 0 : timeUs / 1000000 / m_settings.rotateTime;
  m_files.fetch_add(1, std::memory_order_relaxed);
  m_index = {};
  m_indexText.clear();
  m_indexFailing = false;
  if (m_file.isRegular) MakeIndex();
}

bool Recording::IsFull(const Received& received, size_t length) const {
  const uint64_t size = m_file.size + m_data.size();
  if (size == 0) return false;
  if (m_settings.rotateSize != 0 && size + length > m_settings.rotateSize) return true;
  return m_settings.rotateTime != 0 && received.timeUs / 1000000 / m_settings.rotateTime != m_period;
}

// If there is no next file, the old one goes on, and the first message after a flush tries again. One line says so, and
// one that it is over.
void Recording::Rotate(const Received& received) {
  Write();
  if (m_failing) return;
  WriteIndex();
  const unsigned number = m_number;
  try {
    MakeNext(received.timeUs);
  } catch (const std::runtime_error& error) {
    m_number = number;
    m_rotationFailing = true;
    if (std::exchange(m_isRotationLate, true)) return;
    m_say(true, "the recording of " + m_settings.source + " goes on in " + m_file.path + ": " + error.what());
    return;
  }
  if (!std::exchange(m_isRotationLate, false)) return;
  m_say(false, "the recording of " + m_settings.source + " has a new file again: " + m_file.path);
}

// --- Messages ----------------------------------------------------------------------------------------

void Recording::Add(const Received& received) {
  const auto bytes = m_settings.streamHeader ? received.buffer : received.Message();
  if (!m_failing && !m_rotationFailing && IsFull(received, bytes.size())) Rotate(received);
  if (m_data.size() + bytes.size() > kMostWaiting && !m_failing) Write();
  if (m_data.size() + bytes.size() > kMostWaiting) {
    m_lost.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  m_data.insert(m_data.end(), bytes.begin(), bytes.end());
  m_waiting.push_back({bytes.size(), received.timeUs, received.timeStamp});
}

bool Recording::Flush() {
  m_rotationFailing = false;
  Write();
  WriteIndex();
  return m_data.empty() && m_indexText.empty();
}

void Recording::Close() {
  if (!m_file.fd.IsOpen()) return;
  Flush();
  m_lost.fetch_add(m_waiting.size(), std::memory_order_relaxed);
  m_waiting.clear();
  m_data.clear();
  m_file = {};
  m_index = {};
}

// Writes whole messages, as many as the file takes.
void Recording::Write() {
  if (m_data.empty()) return;
  errno = 0;
  const size_t written = m_file.Append(m_data.data(), m_data.size());
  const int error = errno;
  size_t whole = 0;
  for (; !m_waiting.empty() && whole + m_waiting.front().length <= written; m_waiting.pop_front()) {
    NoteIndex(m_waiting.front(), m_file.size + whole);
    whole += m_waiting.front().length;
    m_stored.fetch_add(1, std::memory_order_relaxed);
  }
  if (written != 0) m_file.Keep(whole);
  m_data.erase(m_data.begin(), m_data.begin() + static_cast<ptrdiff_t>(whole));
  if (m_data.empty() == !m_failing) return;
  m_failing = !m_failing;
  const std::string what = "the received stream of " + m_settings.source;
  if (m_failing) {
    m_lostBefore = Lost();
    m_say(true, what + " cannot be written further to " + m_file.path + ": " + std::strerror(error));
  } else {
    m_say(false, what + " continues in " + m_file.path + "; " + std::to_string(Lost() - m_lostBefore) +
                     " messages in between were lost");
  }
}

// --- Index -------------------------------------------------------------------------------------------

void Recording::MakeIndex() {
  try {
    m_index = MakeGrowingFile(m_file.path + ".json", true);
  } catch (const std::runtime_error& error) {
    m_say(true, "the recording of " + m_settings.source + " has no index: " + std::string(error.what()));
    return;
  }
  nlohmann::ordered_json header;
  header["type"] = "recording index";
  header["version"] = 1;
  header["recording"] = m_file.path.substr(m_file.path.rfind('/') + 1);
  header["source"] = m_settings.source;
  header["stream_header"] = m_settings.streamHeader;
  m_indexText = header.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

// Every message costs such a line, so it is put together by hand.
void Recording::NoteIndex(const Waiting& message, uint64_t offset) {
  if (!m_index.fd.IsOpen() || m_indexText.size() > kMostIndexWaiting) return;
  char text[128];
  char* end = text;
  const auto put = [&](std::string_view name, uint64_t value) {
    end = std::copy(name.begin(), name.end(), end);
    end = std::to_chars(end, std::end(text), value).ptr;
  };
  put("{\"offset\":", offset);
  put(",\"length\":", message.length);
  put(",\"time\":", message.timeUs);
  if (message.timeStamp != 0) put(",\"timestamp\":", message.timeStamp);
  m_indexText.append(text, end);
  m_indexText += "}\n";
}

// Writes whole lines, as many as the file takes.
void Recording::WriteIndex() {
  if (m_indexText.empty() || !m_index.fd.IsOpen()) return;
  errno = 0;
  const size_t written = m_index.Append(m_indexText.data(), m_indexText.size());
  const int error = errno;
  const size_t end = written == 0 ? std::string::npos : m_indexText.rfind('\n', written - 1);
  const size_t whole = end == std::string::npos ? 0 : end + 1;
  if (written != 0) m_index.Keep(whole);
  m_indexText.erase(0, whole);
  // On a full disk one line is enough: that of the recording.
  if (!m_indexText.empty() && !m_indexFailing && !m_failing) {
    m_say(true, "the index " + m_index.path + " cannot be written further: " + std::strerror(error));
  }
  m_indexFailing = !m_indexText.empty();
}

}  // namespace mdencoder
