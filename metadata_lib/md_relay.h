// The relays of a source: their sockets, following the TTL and TOS of received datagrams, sending and counting.
//
// Sockets are made by the opener; sending runs on the metadata thread, which owns the relays' state. The counters are
// read and written whole by the statistics calls.
#ifndef MD_RELAY_H
#define MD_RELAY_H

#include <stddef.h>

#include "md_source.h"
#include "metadata_lib.h"

// Brings a new record's relays to their initial state: no sockets, nothing known of TTL and TOS. Decides which of the
// two are asked for with each datagram. Opener.
void _InitRelayers(MDATA_SRC_HANDLE pHandle);

// Makes one socket for each configured relay; the other places of piSockets are set to -1. Returns FALSE, with every
// socket closed, if the opening is to fail. Opener.
BOOL _CreateRelayingSockets(const MDATA_SRC_CFG* pCfg, int* piSockets, size_t nNumOfSockets);

// Sends one message to every relay. pcTOS and pcTTL are the values received with it, or NULL; relays that follow take
// them over first. Returns TRUE if at least one relay sent all of it. Metadata thread.
BOOL _RelayMetaData(MDATA_SRC_HANDLE pMDataSource, const void* pvBuffer, size_t nSize, const BYTE* pcTOS,
                    const BYTE* pcTTL);

#endif  // MD_RELAY_H
