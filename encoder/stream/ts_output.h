// SPDX-License-Identifier: Apache-2.0
// Writes a transport stream to one place, on a thread of its own with a bounded queue, so that neither the stream nor its
// other outputs wait for a disk or a peer.
//
// What cannot be written is lost and counted; one line tells that writing fails, and one that it goes on.
#ifndef MDENCODER_TS_OUTPUT_H
#define MDENCODER_TS_OUTPUT_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "stream_settings.h"

namespace mdencoder {

// Whole packets.
struct TsChunk {
  std::vector<uint8_t> bytes;
  int64_t timeUs = 0;  // on the stream's clock
  bool isKey = false;  // it begins with the tables and a key frame
};

// A place. All of it but its making runs on the output's thread.
class TsSink {
 public:
  virtual ~TsSink() = default;
  // Both return false with a reason in one line. Open may be called again after a failure of either.
  virtual bool Open(std::string& reason) = 0;
  virtual bool Write(const TsChunk& chunk, std::string& reason) = 0;
  // Tells whether the place must be opened again after a failed write.
  virtual bool IsOpen() const = 0;
  virtual void Close() {}
};

// `isStopping` is asked while a sink waits for a peer. Both throw std::runtime_error for a file or folder that cannot be
// made.
std::unique_ptr<TsSink> MakeSink(const StreamOutput& output, std::function<bool()> isStopping);
std::unique_ptr<TsSink> MakeSegmentSink(const std::string& folder, const std::string& stream);

class TsOutput {
 public:
  static constexpr size_t kMostWaiting = size_t{16} << 20;  // bytes

  using Say = std::function<void(bool isWarning, const std::string& line)>;
  using MakeTsSink = std::function<std::unique_ptr<TsSink>(std::function<bool()> isStopping)>;

  struct Counts {
    bool isGood = true;
    uint64_t bytes = 0;
    uint64_t lost = 0;
  };

  // `what` begins the lines: "stream flight: flight.ts". Throws what `make` throws.
  TsOutput(std::string what, const MakeTsSink& make, Say say);
  ~TsOutput();
  TsOutput(const TsOutput&) = delete;
  TsOutput& operator=(const TsOutput&) = delete;

  // Never waits.
  void Push(std::shared_ptr<const TsChunk> chunk);
  // Writes what is queued, for a few seconds at most, and ends the thread.
  void Finish();
  Counts Snapshot() const;

 private:
  class Core;
  const std::shared_ptr<Core>
      m_core;  // shared with the thread, which may outlive this object while it waits for a name
  std::thread m_thread;
};

}  // namespace mdencoder

#endif  // MDENCODER_TS_OUTPUT_H
