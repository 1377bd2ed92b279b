// SPDX-License-Identifier: Apache-2.0
#include "resolver.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <thread>
#include <utility>

#include "annotated_mutex.h"
#include "owned_fd.h"

namespace mdencoder {

using common::Lock;
using common::Mutex;

std::string HostAddressText(const HostAddress& address) {
  char host[NI_MAXHOST] = "?";
  char port[NI_MAXSERV] = "?";
  getnameinfo(address.Plain(), address.size, host, sizeof(host), port, sizeof(port), NI_NUMERICHOST | NI_NUMERICSERV);
  const bool isIPv6 = address.address.ss_family == AF_INET6;
  return (isIPv6 ? "[" : "") + std::string(host) + (isIPv6 ? "]:" : ":") + port;
}

Resolution Resolve(const std::string& host, uint16_t port, int socketType) {
  constexpr size_t kMostAddresses = 16;
  Resolution resolution;
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = socketType;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* list = nullptr;
  const int result = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list);
  if (result != 0) {
    const char* const why = result == EAI_SYSTEM ? std::strerror(errno) : gai_strerror(result);
    resolution.fault = "the address of " + host + " cannot be found: " + why;
    return resolution;
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(list, &freeaddrinfo);
  for (const addrinfo* each = list; each != nullptr && resolution.addresses.size() < kMostAddresses;
       each = each->ai_next) {
    if (each->ai_addrlen > sizeof(sockaddr_storage)) continue;
    HostAddress address;
    std::memcpy(&address.address, each->ai_addr, each->ai_addrlen);
    address.size = each->ai_addrlen;
    resolution.addresses.push_back(address);
  }
  return resolution;
}

// Belongs to the thread that asks as well, so that it outlives the resolver.
struct Resolver::Shared {
  const common::OwnedFD ready{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  Mutex lock;  // leaf
  bool isAsking GUARDED_BY(lock) = false;
  std::optional<Resolution> answer GUARDED_BY(lock);

  void Put(Resolution resolution) {
    const Lock guard(lock);
    answer = std::move(resolution);
    isAsking = false;
    eventfd_write(ready.Get(), 1);
  }
};

Resolver::Resolver() : m_shared(std::make_shared<Shared>()) {}
Resolver::~Resolver() = default;

void Resolver::Ask(const std::string& host, uint16_t port, int socketType) {
  {
    const Lock guard(m_shared->lock);
    if (m_shared->isAsking) return;
    m_shared->isAsking = true;
    m_shared->answer.reset();
    eventfd_t ignored = 0;
    eventfd_read(m_shared->ready.Get(), &ignored);
  }
  try {
    std::thread([shared = m_shared, host, port, socketType] { shared->Put(Resolve(host, port, socketType)); }).detach();
  } catch (const std::system_error& error) {
    m_shared->Put({{}, std::string("no thread to look up ") + host + ": " + error.what()});
  }
}

int Resolver::Descriptor() const {
  return m_shared->ready.Get();
}

std::optional<Resolution> Resolver::Take() {
  const Lock guard(m_shared->lock);
  if (!m_shared->answer) return std::nullopt;
  eventfd_t ignored = 0;
  eventfd_read(m_shared->ready.Get(), &ignored);
  return std::exchange(m_shared->answer, std::nullopt);
}

}  // namespace mdencoder
