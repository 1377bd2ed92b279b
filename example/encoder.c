/* SPDX-License-Identifier: Apache-2.0 */
/* Prints the size of every ST 0601 message that arrives on UDP port 15000. */
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "metadata_lib.h"

static volatile sig_atomic_t stop;
static void on_signal(int number) { stop = number; }

static BOOL on_message(MDATA_BUFFER* buffer, void* name, void* name_again) {
  (void)name_again; /* the first user parameter is delivered twice */
  printf("%s #%d: %d bytes\n", (const char*)name, buffer->pcData[1], (int)buffer->nDataSize - MDATA_STREAM_HEADER_SIZE);
  fflush(stdout);
  return TRUE;
}

int main(void) {
  MDATA_SRC_CFG config;
  HMDATASRC source = NULL;
  memset(&config, 0, sizeof config);
  config.nSize = sizeof config;
  config.enInputType = MDATA_INPUT_NETWORK;
  config.enDataType = MDATA_DATA_KLV;
  config.in.Network.usUDPPort = 15000;
  config.pfnCallback = on_message;
  config.pvUserParam1 = "camera";
  signal(SIGINT, on_signal);
  signal(SIGTERM, on_signal);
  if (!METADATALIB_Init(METADATALIB_CAPS_IPV4_SUPPORT)) return 1;
  if (MetaData_OpenSource(&config, &source)) {
    while (!stop) usleep(50000);
    MetaData_CloseSource(&source);
  }
  METADATALIB_Shutdown();
  return source == NULL;
}
