// SPDX-License-Identifier: Apache-2.0
// Serial ports.
#ifndef HOST_SERIAL_H
#define HOST_SERIAL_H

#include <termios.h>

#include "host_types.h"

#ifdef __cplusplus
extern "C" {
#endif

// Values of MDATA_SERIAL_SRC_CFG.
enum tagHOST_SERIAL_FLOW { HOST_SERIAL_FLOW_NONE = 0, HOST_SERIAL_FLOW_HARDWARE = 1, HOST_SERIAL_FLOW_SOFTWARE = 2 };
enum tagHOST_SERIAL_PARITY { HOST_SERIAL_PARITY_NONE = 0, HOST_SERIAL_PARITY_ODD = 1, HOST_SERIAL_PARITY_EVEN = 2 };
enum tagHOST_SERIAL_STOP { HOST_SERIAL_STOP_1 = 0, HOST_SERIAL_STOP_2 = 1 };

// Opens a serial device for reading, non-blocking, without making it the controlling terminal. The host may map
// the path to another device.
BOOL OpenSerialPortDevice(const char* szPath, int* piFD);
// Raw mode with the given settings; the settings before go to *pOldSettings.
BOOL ConfigureSerialPort(int iFD, const MDATA_SERIAL_SRC_CFG* pConfig, struct termios* pOldSettings);

#ifdef __cplusplus
}
#endif

#endif  // HOST_SERIAL_H
