// SPDX-License-Identifier: Apache-2.0
// One open source: the counts of the ready callback, and the recorder's checks of the messages and its recording.
#ifndef MDENCODER_SOURCE_H
#define MDENCODER_SOURCE_H

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "config.h"
#include "metadata_lib.h"
#include "st0601_items.h"

namespace mdencoder {

// A copy of the counters at one moment.
struct Counters {
  uint64_t messages = 0;      // accepted in the callback
  uint64_t bytes = 0;         // bytes of these messages, without stream headers
  uint64_t dropped = 0;       // refused in the callback because the queue was full
  uint64_t sequenceGaps = 0;  // jumps of the sequence number
  uint64_t lost = 0;          // sequence numbers that these jumps skipped
  uint64_t checksumOk = 0;
  uint64_t checksumBad = 0;
  uint64_t checksumMissing = 0;
  uint64_t checksumMisplaced = 0;
  uint64_t notUas = 0;      // messages that are not ST 0601 sets
  uint64_t incomplete = 0;  // ST 0601 sets whose items do not fill their length
};

// Follows the sequence numbers of the stream headers. The metadata thread pushes them; any thread may read the counts.
class SequenceWatch {
 public:
  void Push(uint8_t sequence);
  uint64_t Gaps() const { return m_gaps.load(std::memory_order_relaxed); }
  uint64_t Lost() const { return m_lost.load(std::memory_order_relaxed); }

 private:
  int m_last = -1;  // metadata thread only
  std::atomic<uint64_t> m_gaps{0};
  std::atomic<uint64_t> m_lost{0};
};

class Source {
 public:
  explicit Source(const SourceSettings& settings) : m_settings(settings) {}
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  const SourceSettings& Settings() const { return m_settings; }
  const std::string& Name() const { return m_settings.name; }

  // Opens the file of the received stream. Call it before the source is opened. Throws std::runtime_error.
  void OpenOutput(const std::string& path, bool streamHeader);

  // Counts a message of `length` bytes that was accepted or refused. Called on the metadata thread, in the callback.
  void Arrived(uint8_t sequence, uint64_t length, bool taken);
  // Writes a buffer with stream header and message to the file. Returns false once, when that fails. Worker thread.
  bool Write(st0601::ByteView buffer);
  // Counts the message by its kind and its checksum. Worker thread.
  void Judge(const st0601::Message& message);
  // Closes the file and returns false if bytes were lost. Worker thread, or any after its end.
  bool CloseOutput();

  Counters Snapshot() const;  // any thread
  uint64_t Messages() const { return m_messages.load(std::memory_order_relaxed); }

  HMDATASRC handle = nullptr;  // main thread only

 private:
  struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };

  const SourceSettings& m_settings;
  std::unique_ptr<std::FILE, CloseFile> m_file;  // worker thread once the source is open
  bool m_streamHeader = false;                   // read-only once the source is open
  bool m_fileFailed = false;                     // worker thread
  SequenceWatch m_sequence;
  std::atomic<uint64_t> m_messages{0};
  std::atomic<uint64_t> m_bytes{0};
  std::atomic<uint64_t> m_dropped{0};
  std::atomic<uint64_t> m_checksums[4]{};  // by st0601::ChecksumState
  std::atomic<uint64_t> m_notUas{0};
  std::atomic<uint64_t> m_incomplete{0};
};

}  // namespace mdencoder

#endif
