// SPDX-License-Identifier: Apache-2.0
// Destinations of the traffic: a UDP address, a serial device, or a pseudo-terminal that is made for it.
#ifndef MDFEED_OUTPUT_H
#define MDFEED_OUTPUT_H

#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace mdfeed {

struct UdpAddress {
  std::string host;
  std::string port;
};

// Parses "host:port" or "[v6]:port". Throws std::invalid_argument.
UdpAddress ParseUdpAddress(const std::string& text);

class Output {
 public:
  virtual ~Output() = default;
  // Waits for a receiver. Returns false if a stop was requested before.
  virtual bool WaitForReader() { return true; }
  // Sends a datagram or the next bytes of the line, and waits while the line is full.
  virtual void Send(std::span<const uint8_t> data) = 0;
  // Waits for a short time until the receiver has read everything.
  virtual void Finish() {}
  virtual void SetTtl(int) {}
  virtual void SetTos(int) {}
};

// All throw RunError.
std::unique_ptr<Output> OpenUdp(const UdpAddress& address, const std::string& interface);
std::unique_ptr<Output> OpenSerial(const std::string& path, int baud);
// Makes a pseudo-terminal and a symbolic link to its other end, which is removed with the output.
std::unique_ptr<Output> OpenPty(const std::string& link);

// Returns the termios code of a baud rate (B1200 and so on). Throws UsageError for an unknown rate.
unsigned BaudCode(int baud);

}  // namespace mdfeed

#endif  // MDFEED_OUTPUT_H
