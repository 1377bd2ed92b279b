// SPDX-License-Identifier: Apache-2.0
// Every service that the library expects of the process that loads it. The library leaves these names undefined;
// the encoder process provides them (host_runtime/ does on Linux).
#ifndef HOST_H
#define HOST_H

#include "host_capture.h"
#include "host_debug.h"
#include "host_fdmgr.h"
#include "host_list.h"
#include "host_mbox.h"
#include "host_rate.h"
#include "host_serial.h"
#include "host_socket.h"
#include "host_thread.h"
#include "host_types.h"
#include "host_util.h"
#include "host_waitcond.h"

#endif  // HOST_H
