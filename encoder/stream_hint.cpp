// SPDX-License-Identifier: Apache-2.0
#include "stream_hint.h"

#include "live_datagrams.h"

namespace mdencoder {

using live_datagrams::Content;

std::string StreamHint::Look(st0601::ByteView datagram) {
  if (m_isTold) return {};
  const auto packet = live_datagrams::UnpackRtp(datagram);
  const Content content = live_datagrams::Recognise(packet ? packet->payload : datagram);
  if (packet) {
    const bool follows = packet->source == m_source && packet->sequence == static_cast<uint16_t>(m_sequence + 1);
    m_run = follows ? m_run + 1 : 1;
    m_sequence = packet->sequence;
    m_source = packet->source;
  }
  const bool isRtp = packet && (content != Content::Other || m_run >= kRun);
  m_isTold = isRtp || content == Content::TransportStream;
  if (!m_isTold) return {};
  if (content == Content::TransportStream) return isRtp ? "a transport stream in RTP" : "a transport stream";
  return content == Content::Klv ? "KLV in RTP" : "RTP";
}

}  // namespace mdencoder
