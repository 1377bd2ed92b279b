// SPDX-License-Identifier: Apache-2.0
// A serial line behind a server that passes its bytes on over TCP, unchanged: tcp://HOST:PORT in place of a device.
//
// A pseudo-terminal stands for the line, and a thread of its own carries the bytes both ways, so that everything else
// treats it as a device. It hangs up when the connection breaks, and can be opened again when the server is back.
#ifndef HOST_TCP_DEVICE_H
#define HOST_TCP_DEVICE_H

#include <string>

#include "owned_fd.h"

namespace host_runtime {

bool IsTcpDevice(const std::string& device);

// Opens the line. The first time it succeeds at once, and the bytes come when the server can be reached. After a broken
// connection it fails with ENOTCONN until there is another one; a line that nobody asks for in a while is given up. It
// fails with EBUSY while the line is open, and with EINVAL if the name is not tcp://HOST:PORT.
common::OwnedFD OpenTcpDevice(const std::string& device);

}  // namespace host_runtime

#endif  // HOST_TCP_DEVICE_H
