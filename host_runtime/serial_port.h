// SPDX-License-Identifier: Apache-2.0
// Serial devices: opening them by path, and remembering them by descriptor.
#ifndef HOST_SERIAL_PORT_INTERNAL_H
#define HOST_SERIAL_PORT_INTERNAL_H

#include <termios.h>

#include <cstdint>
#include <optional>
#include <string>

#include "owned_fd.h"

namespace host_runtime {

// Opens a device for exclusive use, as OpenSerialPortDevice does. Returns none, with errno, if it cannot: ENOTTY for a
// file that is not a serial device, EBUSY for one that is in use. Logs nothing.
common::OwnedFD OpenDevice(const std::string& device);

struct SerialDevice {
  std::string path;
  std::optional<termios> settings;  // set by ConfigureSerialPort
};

// Remember the device behind a descriptor that OpenSerialPortDevice handed out, and return and forget it. PopDevice
// returns nothing for a device that was not configured, and for a number that was closed and reused. Any thread may
// call them.
void RememberDevice(int fd, const SerialDevice& device);
std::optional<SerialDevice> PopDevice(int fd);

// Returns the nanoseconds of one character with its start, parity and stop bits.
int64_t CharacterTime(const termios& settings);

}  // namespace host_runtime

#endif  // HOST_SERIAL_PORT_INTERNAL_H
