// Serial devices by path, for those who open them and for those who open them again.
#ifndef HOST_SERIAL_PORT_INTERNAL_H
#define HOST_SERIAL_PORT_INTERNAL_H

#include <termios.h>

#include <cstdint>
#include <optional>
#include <string>

#include "owned_fd.h"

namespace host_runtime {

// Opens a device for this process alone, as OpenSerialPortDevice does. Returns none, with errno, if it cannot: ENOTTY for a
// file that is not a serial device, EBUSY for one that is in use. Logs nothing.
common::OwnedFD OpenDevice(const std::string& device);

struct SerialDevice {
  std::string path;
  std::optional<termios> settings;  // made by ConfigureSerialPort
};

// Which device stands behind a descriptor that OpenSerialPortDevice gave away. Taking forgets it; there is an answer only for
// a device that was configured, and none for a number that was closed and used again. Safe from any thread.
void RememberDevice(int fd, const SerialDevice& device);
std::optional<SerialDevice> PopDevice(int fd);

// Nanoseconds of one character with its start, parity and stop bits.
int64_t CharacterTime(const termios& settings);

}  // namespace host_runtime

#endif  // HOST_SERIAL_PORT_INTERNAL_H
