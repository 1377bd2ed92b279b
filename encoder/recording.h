// SPDX-License-Identifier: Apache-2.0
// One recording: the messages of a source in a file, or in a row of files, each with an index of its messages.
//
// A file holds whole messages at any time, also on a full disk. What cannot be written waits in memory; when that is
// full, messages are lost and counted, until the file takes messages again. Files are written where their last whole
// message ends, and flushed when Flush is called, once a second. docs/formats/recording_index.md describes the index.
#ifndef MDENCODER_RECORDING_H
#define MDENCODER_RECORDING_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "growing_file.h"
#include "receiver.h"

namespace mdencoder {

struct RecordingSettings {
  std::string path;  // with its patterns
  std::string source;
  bool streamHeader = false;  // keep the five bytes in front of each message
  uint64_t rotateSize = 0;    // bytes; 0: no limit
  uint64_t rotateTime = 0;    // seconds; 0: no limit
};

class Recording {
 public:
  static constexpr size_t kMostWaiting = size_t{1} << 18;       // bytes of messages
  static constexpr size_t kMostIndexWaiting = size_t{1} << 20;  // bytes

  // Says a line: a warning, or a notice that all is well again.
  using Say = std::function<void(bool isWarning, const std::string& line)>;

  Recording(RecordingSettings settings, Say say);
  Recording(const Recording&) = delete;
  Recording& operator=(const Recording&) = delete;

  // Makes the first file. Throws std::runtime_error.
  void Open(uint64_t timeUs);

  // One thread at a time calls these.
  void Add(const Received& received);
  bool Flush();  // returns false if something is left
  // Writes what waits and closes the files; what still cannot be written is lost.
  void Close();

  // Any thread may call these.
  const std::string& Path() const { return m_settings.path; }
  uint64_t Stored() const { return m_stored.load(std::memory_order_relaxed); }  // messages in files
  uint64_t Lost() const { return m_lost.load(std::memory_order_relaxed); }
  uint64_t Files() const { return m_files.load(std::memory_order_relaxed); }

 private:
  struct Waiting {
    size_t length;
    uint64_t timeUs;
    uint64_t timeStamp;
  };

  void MakeNext(uint64_t timeUs);
  void MakeIndex();
  bool IsFull(const Received& received, size_t length) const;
  void Rotate(const Received& received);
  void Write();
  void WriteIndex();
  void NoteIndex(const Waiting& message, uint64_t offset);

  const RecordingSettings m_settings;
  const Say m_say;
  GrowingFile m_file;
  GrowingFile m_index;            // not open if the recording is no regular file
  unsigned m_number = 0;          // of the last file
  uint64_t m_period = 0;          // of rotateTime in which the file begins
  std::vector<uint8_t> m_data;    // waits for the file
  std::deque<Waiting> m_waiting;  // its messages
  std::string m_indexText;        // waits for the index
  bool m_failing = false;         // the last write failed
  bool m_indexFailing = false;
  bool m_rotationFailing = false;  // is not tried again before the next flush
  bool m_isRotationLate = false;   // a line has said so
  uint64_t m_lostBefore = 0;       // lost when the failure began
  std::atomic<uint64_t> m_stored{0};
  std::atomic<uint64_t> m_lost{0};
  std::atomic<uint64_t> m_files{0};
};

}  // namespace mdencoder

#endif
