#include "source.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace mdencoder {
namespace {

void Add(std::atomic<uint64_t>& counter, uint64_t value) {
  counter.fetch_add(value, std::memory_order_relaxed);
}
uint64_t Get(const std::atomic<uint64_t>& counter) {
  return counter.load(std::memory_order_relaxed);
}

}  // namespace

void SequenceWatch::Saw(uint8_t sequence) {
  if (last_ >= 0) {
    const uint8_t missing = static_cast<uint8_t>(sequence - last_ - 1);
    if (missing != 0) {
      Add(gaps_, 1);
      Add(lost_, missing);
    }
  }
  last_ = sequence;
}

void Source::OpenOutput(const std::string& path, bool streamHeader) {
  file_.reset(std::fopen(path.c_str(), "wbe"));
  if (!file_) throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
  streamHeader_ = streamHeader;
}

void Source::Arrived(uint8_t sequence, uint64_t length, bool taken) {
  // A video source that is refused a message uses its sequence number again.
  if (taken || settings_.record.enInputType != MDATA_INPUT_VIDEO) sequence_.Saw(sequence);
  if (!taken) {
    Add(dropped_, 1);
    return;
  }
  Add(bytes_, length);
  Add(messages_, 1);
}

bool Source::Write(st0601::ByteView buffer) {
  if (!file_ || fileFailed_) return true;
  const st0601::ByteView bytes = streamHeader_ ? buffer : buffer.subspan(MDATA_STREAM_HEADER_SIZE);
  fileFailed_ = std::fwrite(bytes.data(), 1, bytes.size(), file_.get()) != bytes.size();
  return !fileFailed_;
}

bool Source::CloseOutput() {
  if (!file_) return true;
  return std::fclose(file_.release()) == 0 && !fileFailed_;
}

void Source::Judge(const st0601::Message& message) {
  if (!message.isUas) {
    Add(notUas_, 1);
    return;
  }
  Add(checksums_[static_cast<size_t>(message.checksum)], 1);
  if (!message.isComplete) Add(incomplete_, 1);
}

Counters Source::Snapshot() const {
  Counters counters;
  counters.messages = Get(messages_);
  counters.bytes = Get(bytes_);
  counters.dropped = Get(dropped_);
  counters.sequenceGaps = sequence_.Gaps();
  counters.lost = sequence_.Lost();
  counters.checksumOk = Get(checksums_[static_cast<size_t>(st0601::ChecksumState::kOk)]);
  counters.checksumBad = Get(checksums_[static_cast<size_t>(st0601::ChecksumState::kBad)]);
  counters.checksumMissing = Get(checksums_[static_cast<size_t>(st0601::ChecksumState::kMissing)]);
  counters.checksumMisplaced = Get(checksums_[static_cast<size_t>(st0601::ChecksumState::kMisplaced)]);
  counters.notUas = Get(notUas_);
  counters.incomplete = Get(incomplete_);
  return counters;
}

}  // namespace mdencoder
