// Where the traffic goes: a UDP address, a serial device, or a pseudo-terminal made for the purpose.
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

// "host:port", "[v6]:port". Throws std::invalid_argument.
UdpAddress ParseUdpAddress(const std::string& text);

class Output {
 public:
  virtual ~Output() = default;
  // Waits until somebody can receive. FALSE when a stop was asked for meanwhile.
  virtual bool WaitForReader() { return true; }
  // One datagram, or the next bytes of the line; waits while the line is full.
  virtual void Send(std::span<const uint8_t> data) = 0;
  // Waits, for a short while, until what was sent has been read.
  virtual void Finish() {}
  virtual void SetTtl(int) {}
  virtual void SetTos(int) {}
};

// All throw RunError.
std::unique_ptr<Output> OpenUdp(const UdpAddress& address, const std::string& interface);
std::unique_ptr<Output> OpenSerial(const std::string& path, int baud);
// Makes a pseudo-terminal and names its other end with a symbolic link, which goes away with the output.
std::unique_ptr<Output> OpenPty(const std::string& link);

// What B0 to B4000000 of termios stand for. Throws UsageError for any other rate.
unsigned BaudCode(int baud);

}  // namespace mdfeed

#endif  // MDFEED_OUTPUT_H
