// SPDX-License-Identifier: Apache-2.0
// Open sources of the library, and the ports that they listen on.
#ifndef BENCH_SOURCES_H
#define BENCH_SOURCES_H

#include <cstdint>

#include "metadata_lib.h"

namespace bench {

// A UDP port of the loopback interface that nobody uses now.
std::uint16_t FreePort();

// A source of KLV over UDP on the loopback interface. Closed at the end.
class UdpSource {
 public:
  // Takes input, data type and port from here, all else from the configuration.
  explicit UdpSource(MDATA_SRC_CFG config);
  ~UdpSource();
  UdpSource(const UdpSource&) = delete;
  UdpSource& operator=(const UdpSource&) = delete;

  HMDATASRC Handle() const { return m_handle; }
  std::uint16_t Port() const { return m_port; }

 private:
  HMDATASRC m_handle = nullptr;
  std::uint16_t m_port;
};

}  // namespace bench

#endif  // BENCH_SOURCES_H
