// SPDX-License-Identifier: Apache-2.0
// Looks up the addresses of a host without making its caller wait. A question that takes long is left to itself: the
// thread that asks it is waited for by nobody, and an answer that came too late is forgotten.
#ifndef MDENCODER_RESOLVER_H
#define MDENCODER_RESOLVER_H

#include <sys/socket.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace mdencoder {

struct HostAddress {
  sockaddr_storage address{};
  socklen_t size = 0;
  const sockaddr* Plain() const { return reinterpret_cast<const sockaddr*>(&address); }
};
// "192.0.2.1:8087" or "[2001:db8::1]:8087"
std::string HostAddressText(const HostAddress& address);

struct Resolution {
  std::vector<HostAddress> addresses;  // in the order of the system's preference
  std::string fault;                   // why there are none
};

// Asks for the addresses and waits. A numeric address, with or without a scope, is no question to anybody.
Resolution Resolve(const std::string& host, uint16_t port, int socketType);

class Resolver {
 public:
  Resolver();
  ~Resolver();
  Resolver(const Resolver&) = delete;
  Resolver& operator=(const Resolver&) = delete;

  // Begins a question, unless one is under way.
  void Ask(const std::string& host, uint16_t port, int socketType);
  // Returns a descriptor that is readable once there is an answer.
  int Descriptor() const;
  // Takes the answer, if it has come.
  std::optional<Resolution> Take();

 private:
  struct Shared;
  std::shared_ptr<Shared> m_shared;
};

}  // namespace mdencoder

#endif  // MDENCODER_RESOLVER_H
