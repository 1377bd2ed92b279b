// SPDX-License-Identifier: Apache-2.0
// One open source: the counts of the ready callback, and the recorder's checks of the messages and its recording.
#ifndef MDENCODER_SOURCE_H
#define MDENCODER_SOURCE_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "annotated_mutex.h"
#include "config.h"
#include "metadata_lib.h"
#include "st0601_items.h"

namespace mdencoder {

// A copy of the counters at one moment.
struct Counters {
  uint64_t messages = 0;      // accepted in the callback
  uint64_t bytes = 0;         // bytes of these messages, without stream headers
  uint64_t cutAtBuffer = 0;   // KLV over UDP: datagrams as long as the library's buffer, which cuts longer ones
  uint64_t lastUs = 0;        // arrival of the last message, accepted or not, microseconds since 1970; 0 before it
  uint64_t dropped = 0;       // refused in the callback because the queue was full
  uint64_t sequenceGaps = 0;  // jumps of the sequence number
  uint64_t lost = 0;          // sequence numbers that these jumps skipped
  uint64_t checksumOk = 0;
  uint64_t checksumBad = 0;
  uint64_t checksumMissing = 0;
  uint64_t checksumMisplaced = 0;
  uint64_t notUas = 0;       // messages that are not ST 0601 sets
  uint64_t incomplete = 0;   // ST 0601 sets whose items do not fill their length
  uint64_t pairsApart = 0;   // Cursor-on-Target: packets of two events whose times differ
  int64_t widestPairUs = 0;  // the largest of these differences
  bool sendsCot = false;
  uint64_t cotSent = 0;  // events
  uint64_t cotLost = 0;  // events that could not be sent
  bool isRecorded = false;
  uint64_t recorded = 0;        // messages in the files of the recording
  uint64_t recordingLost = 0;   // accepted messages that could not be written
  uint64_t recordingFiles = 0;  // of this run
};

// Follows the sequence numbers of the stream headers. The metadata thread pushes them; any thread may read the counts.
class SequenceWatch {
 public:
  void Push(uint8_t sequence);
  // The next number may be any. Call it while no message can arrive.
  void Restart() { m_last = -1; }
  uint64_t Gaps() const { return m_gaps.load(std::memory_order_relaxed); }
  uint64_t Lost() const { return m_lost.load(std::memory_order_relaxed); }

 private:
  int m_last = -1;  // metadata thread only
  std::atomic<uint64_t> m_gaps{0};
  std::atomic<uint64_t> m_lost{0};
};

class Recording;
class TrackFile;
class CotSender;
struct RecordingSettings;
struct Received;

class Source {
 public:
  // Keeps a reference to the settings, which may be replaced by others of the same name and kind.
  explicit Source(const SourceSettings& settings);
  ~Source();
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  const SourceSettings& Settings() const { return m_settings; }  // main thread only
  const std::string& Name() const { return m_name; }
  bool IsCot() const { return m_isCot; }
  bool IsKlvOverUdp() const { return m_isDatagrams; }

  // Starts the recording. Call it before the source is opened for the first time. Throws std::runtime_error.
  void OpenOutput(const RecordingSettings& settings, uint64_t timeUs,
                  const std::function<void(bool isWarning, const std::string&)>& say);
  const std::string& OutputPath() const;  // with its patterns; "" without a recording
  // Replace the track and the sender of events; none ends them. Before the source is opened for the first time, or the
  // recorder's thread. Return the former one.
  std::shared_ptr<TrackFile> SetTrack(std::shared_ptr<TrackFile> track);
  void SetTrackInterval(double seconds);
  std::shared_ptr<CotSender> SetCotSender(std::shared_ptr<CotSender> sender);

  // Counts a message of `length` bytes that was accepted or refused. Called on the metadata thread, in the callback.
  void Arrived(uint8_t sequence, uint64_t length, bool taken);
  // Notes the arrival of a message and its length on the way in. Metadata thread, in the callback.
  void Saw(uint64_t timeUs, uint16_t headerLength);
  // Counts a packet of two Cursor-on-Target events whose times differ by so much. Metadata thread, in the callback.
  void CountPair(int64_t differenceUs);
  // Records a message, and adds it to the track. Returns true if there is something to flush now, and was not before. Recorder's thread.
  bool Write(const Received& received, const st0601::Message& message);
  // Brings what was recorded into the files. Returns false if something is left. Recorder's thread.
  bool FlushOutput();
  // Counts the message by its kind and its checksum. Recorder's thread.
  void Judge(const st0601::Message& message);
  // Ends the recording, the track and the events. Recorder's thread, or any after its end.
  void CloseOutput();
  bool IsRecorded() const { return m_recording != nullptr; }

  // Sets whether its messages come only while there is room for them, except for those that are on their way when the
  // room ends: at most kMostUnderWay. Call it while the source is not open.
  void SetWaitsForRoom(bool waits) { m_waitsForRoom = waits; }
  bool WaitsForRoom() const { return m_waitsForRoom; }  // metadata thread
  static constexpr size_t kMostUnderWay = 66;  // 48 of a capture or 64 of a feed, and those in the library's hands

  // Expects the sequence numbers of a new opening. Call it while the source is not open.
  void Restart() { m_sequence.Restart(); }

  Counters Snapshot() const;  // any thread
  uint64_t Messages() const { return m_messages.load(std::memory_order_relaxed); }

 private:
  void CountEvents(Counters& counters) const;

  const SourceSettings& m_settings;
  const std::string m_name;
  const bool m_isVideo;
  const bool m_isCot;
  const bool m_isDatagrams;                // KLV over UDP, not of a url: a message is a datagram
  std::unique_ptr<Recording> m_recording;  // recorder's thread once the source is open; none if it is not recorded
  // The recorder's thread, once the source is open, reads and writes them; any thread may read the sender under the lock.
  mutable common::Mutex m_outputs;
  std::shared_ptr<TrackFile> m_track;
  std::shared_ptr<CotSender> m_cotSender;
  uint64_t m_formerCotSent = 0;  // of senders that were replaced; under the lock
  uint64_t m_formerCotLost = 0;
  uint64_t m_cotUpdateUs = 0;   // recorder's thread: arrival of the message that was last given to it
  bool m_isUnflushed = false;   // recorder's thread
  bool m_waitsForRoom = false;  // metadata thread, once the source is open
  SequenceWatch m_sequence;
  std::atomic<uint64_t> m_messages{0};
  std::atomic<uint64_t> m_bytes{0};
  std::atomic<uint64_t> m_dropped{0};
  std::atomic<uint64_t> m_cutAtBuffer{0};
  std::atomic<uint64_t> m_lastUs{0};
  std::atomic<uint64_t> m_checksums[4]{};  // by st0601::ChecksumState
  std::atomic<uint64_t> m_notUas{0};
  std::atomic<uint64_t> m_incomplete{0};
  std::atomic<uint64_t> m_pairsApart{0};
  std::atomic<int64_t> m_widestPairUs{0};
};

}  // namespace mdencoder

#endif
