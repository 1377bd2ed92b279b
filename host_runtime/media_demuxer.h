// SPDX-License-Identifier: Apache-2.0
// Takes the KLV tracks out of a media file or stream, through libavformat. No track is decoded, and the others are
// skipped. It belongs to the capture's thread.
#ifndef HOST_MEDIA_DEMUXER_H
#define HOST_MEDIA_DEMUXER_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

struct AVFormatContext;
struct AVIOContext;
struct AVPacket;
struct AVStream;

namespace host_runtime {

class MediaDemuxer {
 public:
  // `isStopping` is asked while an input is opened or read.
  explicit MediaDemuxer(std::function<bool()> isStopping);
  ~MediaDemuxer();
  MediaDemuxer(const MediaDemuxer&) = delete;
  MediaDemuxer& operator=(const MediaDemuxer&) = delete;

  // Opens a file or a URL (media_input.h). The certificate of an https server must be signed by one of the authorities in a
  // file, or of the system if there is no such file. Returns false with Fault().
  bool Open(const std::string& path, const std::string& authorities = {});
  // Opens a transport stream whose bytes `read` gives: it returns how many bytes it stored, or 0 at the end.
  using Read = std::function<size_t(std::span<uint8_t> to)>;
  bool OpenTransportStream(Read read);

  struct Packet {
    int64_t time;                   // 90 kHz; that of the packet before it if it has none
    std::span<const uint8_t> data;  // valid until the next call
  };
  // Returns false at the end of the input, if the capture is to stop, or with a fault.
  bool Next(Packet* packet);
  // Returns "" or what is wrong with the input, as after its end.
  const std::string& Fault() const { return m_fault; }
  // Returns whether a track may carry KLV. A track without a label may; its packets tell.
  bool MayHaveKlv() const;

 private:
  class Bytes;

  static int IsInterrupted(void* self);
  bool Fail(const std::string& fault);
  bool Finish(int result);
  bool MakeInput();
  void SelectTracks();
  bool IsKlv(const AVStream& stream) const;
  void Join(int track, std::span<const uint8_t> piece);
  bool TakeUnit(Packet* packet);

  const std::function<bool()> m_isStopping;
  std::unique_ptr<Bytes> m_bytes;
  AVFormatContext* m_input = nullptr;
  AVPacket* m_packet = nullptr;
  unsigned m_selected = 0;     // tracks that SelectTracks has seen
  int64_t m_openDeadline = 0;  // monotonic, ns; 0 without one
  bool m_isLate = false;       // the deadline has passed
  int64_t m_time = 0;
  // Of RTP: what has come of the units of each track, those that are whole, and the one that was returned.
  bool m_joinsPieces = false;
  std::map<int, std::vector<uint8_t>> m_pieces;
  std::deque<std::vector<uint8_t>> m_units;
  std::vector<uint8_t> m_unit;
  std::string m_fault;
};

}  // namespace host_runtime

#endif  // HOST_MEDIA_DEMUXER_H
