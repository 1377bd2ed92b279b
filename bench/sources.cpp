// SPDX-License-Identifier: Apache-2.0
#include "sources.h"

#include <sys/socket.h>
#include <unistd.h>

#include "datagrams.h"
#include "workload.h"

namespace bench {

std::uint16_t FreePort() {
  std::uint16_t port = 0;
  close(BindLoopback(&port));
  return port;
}

UdpSource::UdpSource(MDATA_SRC_CFG config) : m_port(FreePort()) {
  config.nSize = sizeof config;
  config.enInputType = MDATA_INPUT_NETWORK;
  config.enDataType = MDATA_DATA_KLV;
  config.in.Network.usUDPPort = m_port;
  config.in.Network.iSrcAddressFamily = AF_INET;
  if (config.pfnCallback == nullptr) config.pfnCallback = [](MDATA_BUFFER*, void*, void*) -> BOOL { return TRUE; };
  Require(MetaData_OpenSource(&config, &m_handle), "a source cannot be opened");
}

UdpSource::~UdpSource() {
  MetaData_CloseSource(&m_handle);
}

}  // namespace bench
