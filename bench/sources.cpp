#include "sources.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "workload.h"

namespace bench {

std::uint16_t FreePort() {
  const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  socklen_t size = sizeof address;
  Require(bind(descriptor, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
              getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) == 0,
          "no free port");
  close(descriptor);
  return ntohs(address.sin_port);
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
