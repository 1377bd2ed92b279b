// SPDX-License-Identifier: Apache-2.0
#include "source.h"

#include <cstddef>
#include <string>
#include <utility>

#include "cot_sender.h"
#include "loopback.h"
#include "observation.h"
#include "receiver.h"
#include "recording.h"
#include "track_file.h"

namespace mdencoder {
namespace {

constexpr uint64_t kLeastCotUpdate = 10000;  // microseconds

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

Source::Source(const SourceSettings& settings)
    : m_settings(settings),
      m_name(settings.name),
      m_isVideo(settings.record.enInputType == MDATA_INPUT_VIDEO),
      m_isCot(settings.record.enDataType == MDATA_DATA_COT),
      m_isDatagrams(settings.record.enInputType == MDATA_INPUT_NETWORK && !m_isCot && !IsFed(settings)) {}
Source::~Source() = default;

void Source::OpenOutput(const RecordingSettings& settings, uint64_t timeUs,
                        const std::function<void(bool isWarning, const std::string&)>& say) {
  auto recording = std::make_unique<Recording>(settings, say);
  recording->Open(timeUs);
  m_recording = std::move(recording);
}

const std::string& Source::OutputPath() const {
  static const std::string kNone;
  return m_recording ? m_recording->Path() : kNone;
}

std::shared_ptr<TrackFile> Source::SetTrack(std::shared_ptr<TrackFile> track) {
  return std::exchange(m_track, std::move(track));
}

void Source::SetTrackInterval(double seconds) {
  if (m_track) m_track->SetInterval(seconds);
}

std::shared_ptr<CotSender> Source::SetCotSender(std::shared_ptr<CotSender> sender) {
  const common::Lock lock(m_outputs);
  if (m_cotSender) {
    const CotSender::Counts counts = m_cotSender->Snapshot();
    m_formerCotSent += counts.sent;
    m_formerCotLost += counts.lost;
  }
  return std::exchange(m_cotSender, std::move(sender));
}

void Source::Arrived(uint8_t sequence, uint64_t length, bool taken) {
  // A video source uses the sequence number of a refused message again.
  if (taken || !m_isVideo) m_sequence.Push(sequence);
  if (!taken) {
    Add(m_dropped, 1);
    return;
  }
  Add(m_bytes, length);
  Add(m_messages, 1);
}

void Source::Saw(uint64_t timeUs, uint16_t headerLength) {
  m_lastUs.store(timeUs, std::memory_order_relaxed);
  if (m_isDatagrams && headerLength == kLongestDatagram) Add(m_cutAtBuffer, 1);
}

void Source::CountPair(int64_t differenceUs) {
  if (differenceUs == 0) return;
  Add(m_pairsApart, 1);
  // The metadata thread is the only writer.
  if (differenceUs > m_widestPairUs.load(std::memory_order_relaxed)) {
    m_widestPairUs.store(differenceUs, std::memory_order_relaxed);
  }
}

// Events are sent 50 times a second at most.
bool Source::Write(const Received& received, const st0601::Message& message) {
  const bool isGood = message.isUas && message.checksum != st0601::ChecksumState::Bad;
  if (m_cotSender && isGood && received.timeUs - m_cotUpdateUs >= kLeastCotUpdate) {
    m_cotSender->Update(st0601::Observe(message));
    m_cotUpdateUs = received.timeUs;
  }
  if (!m_recording && !m_track) return false;
  if (m_recording) m_recording->Add(received);
  if (m_track) m_track->Add(received, message);
  return !std::exchange(m_isUnflushed, true);
}

bool Source::FlushOutput() {
  const bool isRecorded = !m_recording || m_recording->Flush();
  const bool isTracked = !m_track || m_track->Flush();
  m_isUnflushed = !isRecorded || !isTracked;
  return !m_isUnflushed;
}

void Source::CloseOutput() {
  if (m_recording) m_recording->Close();
  if (m_track) m_track->Close();
  if (m_cotSender) m_cotSender->Finish();
}

void Source::Judge(const st0601::Message& message) {
  if (!message.isUas) {
    Add(m_notUas, 1);
    return;
  }
  Add(m_checksums[static_cast<size_t>(message.checksum)], 1);
  if (!message.isComplete) Add(m_incomplete, 1);
}

void Source::CountEvents(Counters& counters) const {
  const common::Lock lock(m_outputs);
  const CotSender::Counts counts = m_cotSender ? m_cotSender->Snapshot() : CotSender::Counts{};
  counters.cotSent = m_formerCotSent + counts.sent;
  counters.cotLost = m_formerCotLost + counts.lost;
  counters.sendsCot = m_cotSender != nullptr || counters.cotSent + counters.cotLost != 0;
}

Counters Source::Snapshot() const {
  Counters counters;
  counters.messages = Get(m_messages);
  counters.bytes = Get(m_bytes);
  counters.dropped = Get(m_dropped);
  counters.cutAtBuffer = Get(m_cutAtBuffer);
  counters.lastUs = Get(m_lastUs);
  counters.sequenceGaps = m_sequence.Gaps();
  counters.lost = m_sequence.Lost();
  counters.checksumOk = Get(m_checksums[static_cast<size_t>(st0601::ChecksumState::Ok)]);
  counters.checksumBad = Get(m_checksums[static_cast<size_t>(st0601::ChecksumState::Bad)]);
  counters.checksumMissing = Get(m_checksums[static_cast<size_t>(st0601::ChecksumState::Missing)]);
  counters.checksumMisplaced = Get(m_checksums[static_cast<size_t>(st0601::ChecksumState::Misplaced)]);
  counters.notUas = Get(m_notUas);
  counters.incomplete = Get(m_incomplete);
  counters.pairsApart = Get(m_pairsApart);
  counters.widestPairUs = m_widestPairUs.load(std::memory_order_relaxed);
  CountEvents(counters);
  counters.isRecorded = IsRecorded();
  if (!m_recording) return counters;
  counters.recorded = m_recording->Stored();
  counters.recordingLost = m_recording->Lost();
  counters.recordingFiles = m_recording->Files();
  return counters;
}

}  // namespace mdencoder
