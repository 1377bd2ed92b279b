/*
 * One open source as the encoder sees it: what the ready callback counts, and what the worker thread finds out
 * about the messages.
 */
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

/* A copy of the counters, taken at one moment. */
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

/* Follows the sequence numbers of the stream headers. Metadata thread only; the counts may be read anywhere. */
class SequenceWatch {
 public:
  void Saw(uint8_t sequence);
  uint64_t Gaps() const { return gaps_.load(std::memory_order_relaxed); }
  uint64_t Lost() const { return lost_.load(std::memory_order_relaxed); }

 private:
  int last_ = -1;  // metadata thread only
  std::atomic<uint64_t> gaps_{0};
  std::atomic<uint64_t> lost_{0};
};

class Source {
 public:
  explicit Source(const SourceSettings& settings) : settings_(settings) {}
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  const SourceSettings& Settings() const { return settings_; }
  const std::string& Name() const { return settings_.name; }

  /* Opens the file of the received stream; throws std::runtime_error. Before the source is opened. */
  void OpenOutput(const std::string& path, bool streamHeader);

  /* Metadata thread, inside the callback: a message of `length` bytes arrived and was taken or not. */
  void Arrived(uint8_t sequence, uint64_t length, bool taken);
  /* Worker thread: writes the message (with its stream header in front) to the file; FALSE once when that fails. */
  bool Write(st0601::ByteView buffer);
  /* Worker thread: counts what the message turned out to be. */
  void Judge(const st0601::Message& message);
  /* Worker thread or after it ended: closes the file; false when bytes were lost. */
  bool CloseOutput();

  Counters Snapshot() const;  // any thread
  uint64_t Messages() const { return messages_.load(std::memory_order_relaxed); }

  HMDATASRC handle = nullptr;  // main thread only

 private:
  struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };

  const SourceSettings& settings_;
  std::unique_ptr<std::FILE, CloseFile> file_;  // worker thread once the source is open
  bool streamHeader_ = false;                   // read-only once the source is open
  bool fileFailed_ = false;                     // worker thread
  SequenceWatch sequence_;
  std::atomic<uint64_t> messages_{0};
  std::atomic<uint64_t> bytes_{0};
  std::atomic<uint64_t> dropped_{0};
  std::atomic<uint64_t> checksums_[4]{};  // by st0601::ChecksumState
  std::atomic<uint64_t> notUas_{0};
  std::atomic<uint64_t> incomplete_{0};
};

}  // namespace mdencoder

#endif
