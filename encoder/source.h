// One open source as the encoder sees it: what the ready callback counts, and what the worker thread finds out
// about the messages.
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

// A copy of the counters, taken at one moment.
struct Counters {
  uint64_t messages = 0;      // taken in the callback
  uint64_t bytes = 0;         // theirs, stream header excluded
  uint64_t dropped = 0;       // refused in the callback, the queue being full
  uint64_t sequenceGaps = 0;  // places where the sequence number jumped
  uint64_t lost = 0;          // sequence numbers missing there
  uint64_t checksumOk = 0;
  uint64_t checksumBad = 0;
  uint64_t checksumMissing = 0;
  uint64_t checksumMisplaced = 0;
  uint64_t notUas = 0;      // messages that are no ST 0601 set
  uint64_t incomplete = 0;  // ST 0601 sets whose items do not fill their length
};

// Follows the sequence numbers of the stream headers. Metadata thread only; the counts may be read anywhere.
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

  // Opens the file of the received stream; throws std::runtime_error. Before the source is opened.
  void OpenOutput(const std::string& path, bool streamHeader);

  // Metadata thread, inside the callback: a message of `length` bytes arrived and was taken or not.
  void Arrived(uint8_t sequence, uint64_t length, bool taken);
  // Worker thread: writes the message (with its stream header in front) to the file; FALSE once when that fails.
  bool Write(st0601::ByteView buffer);
  // Worker thread: counts what the message turned out to be.
  void Judge(const st0601::Message& message);
  // Worker thread or after it ended: closes the file; false when bytes were lost.
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
