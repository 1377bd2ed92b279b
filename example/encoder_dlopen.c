/* SPDX-License-Identifier: Apache-2.0 */
/* Prints the size of every Cursor-on-Target packet that is made of the events on UDP port 15001. It loads the library
 * with dlopen, so that the process starts without it, and finds the host services in itself. */
#include <dlfcn.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "metadata_lib.h"

/* A pointer to one function of the library, named like it. */
#define LIBRARY_FUNCTION(name) static __typeof__(&name) p##name
LIBRARY_FUNCTION(METADATALIB_Init);
LIBRARY_FUNCTION(METADATALIB_Shutdown);
LIBRARY_FUNCTION(MetaData_OpenSource);
LIBRARY_FUNCTION(MetaData_CloseSource);

static volatile sig_atomic_t stop;
static void on_signal(int number) { stop = number; }

static BOOL on_message(MDATA_BUFFER* buffer, void* name, void* name_again) {
  (void)name_again; /* the first user parameter is delivered twice */
  printf("%s #%d: %d bytes\n", (const char*)name, buffer->pcData[1], (int)buffer->nDataSize - MDATA_STREAM_HEADER_SIZE);
  fflush(stdout);
  return TRUE;
}

/* Returns 0 and writes a line when the library or one of its functions is missing. */
static int load(const char* path) {
  void* library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (library != NULL) {
    *(void**)&pMETADATALIB_Init = dlsym(library, "METADATALIB_Init");
    *(void**)&pMETADATALIB_Shutdown = dlsym(library, "METADATALIB_Shutdown");
    *(void**)&pMetaData_OpenSource = dlsym(library, "MetaData_OpenSource");
    *(void**)&pMetaData_CloseSource = dlsym(library, "MetaData_CloseSource");
    if (pMETADATALIB_Init && pMETADATALIB_Shutdown && pMetaData_OpenSource && pMetaData_CloseSource) return 1;
  }
  fprintf(stderr, "encoder_dlopen: %s\n", dlerror());
  return 0;
}

int main(void) {
  MDATA_SRC_CFG config;
  HMDATASRC source = NULL;
  memset(&config, 0, sizeof config);
  config.nSize = sizeof config;
  config.enInputType = MDATA_INPUT_NETWORK;
  config.enDataType = MDATA_DATA_COT;
  config.in.Network.usUDPPort = 15001;
  config.format.CoT.nMaxAirCraftSPITimeDeltaInMs = 500;
  config.pfnCallback = on_message;
  config.pvUserParam1 = "aircraft";
  signal(SIGINT, on_signal);
  signal(SIGTERM, on_signal);
  if (!load("libmetadata_lib.so.1")) return 1;
  if (!pMETADATALIB_Init(METADATALIB_CAPS_IPV4_SUPPORT)) return 1;
  if (pMetaData_OpenSource(&config, &source)) {
    while (!stop) usleep(50000);
    pMetaData_CloseSource(&source);
  }
  pMETADATALIB_Shutdown();
  return source == NULL;
}
