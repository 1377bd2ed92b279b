// SPDX-License-Identifier: Apache-2.0
// The relays of a source: their sockets, following the TTL and TOS of received datagrams, sending and counting.
//
// The opener makes the sockets; the metadata thread sends, and owns the relays' state. The statistics calls read and
// write each counter atomically.
#ifndef MD_RELAY_H
#define MD_RELAY_H

#include <stddef.h>

#include "md_mutex.h"
#include "md_source.h"
#include "metadata_lib.h"

// Sets a new record's relays to their initial state: no sockets, TTL and TOS unknown. Decides which of the two are
// requested with each datagram. Opener.
void _InitRelayers(MDATA_SRC_HANDLE hSource);

// Makes one socket for each configured relay and sets the rest of piSockets to -1. Returns FALSE, with every socket
// closed, if the opening must fail. Opener.
BOOL _CreateRelayingSockets(const MDATA_SRC_CFG* pCfg, int* piSockets, size_t nNumOfSockets);

// Sends one message to every relay. pcTOS and pcTTL are the values received with it, or NULL; relays that follow the
// source adopt them first. Returns TRUE if at least one relay sent the whole message. Metadata thread.
BOOL _RelayMetaData(MDATA_SRC_HANDLE hSource, const void* pvBuffer, size_t nSize, const BYTE* pcTOS, const BYTE* pcTTL)
    MD_REQUIRES(kMetadataThread);

#endif  // MD_RELAY_H
