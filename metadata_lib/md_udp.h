// SPDX-License-Identifier: Apache-2.0
// Reception of UDP datagrams: the bytes with their TTL and TOS, the filter for senders, the last sender.
//
// The metadata thread receives; the opener switches the detection on. The last sender is kept in the source's record,
// under _g_SenderLock.
#ifndef MD_UDP_H
#define MD_UDP_H

#include <stddef.h>
#include <sys/socket.h>

#include "md_mutex.h"
#include "md_source.h"
#include "metadata_lib.h"

// Receives one datagram without waiting, and logs a failure. Returns recvmsg's result, with errno set. Stores the
// sender, and TOS and TTL if the datagram carries them; each of the three pointers may be NULL.
int _RecvUDPPacket(int iSocket, void* pvBuffer, size_t nBuffSize, struct sockaddr_storage* pFromAddr, BYTE* pcTOS,
                   BYTE* pcTTL);

// Return whether a configured relay follows the TTL or TOS that the source receives.
BOOL _IsTTLDetectionNeeded(MDATA_SRC_HANDLE hSource);
BOOL _IsTOSDetectionNeeded(MDATA_SRC_HANDLE hSource);

// Makes the IPv4 socket report TTL and TOS if relays follow them. Returns FALSE if an option cannot be set; the other
// one is set nevertheless.
BOOL _EnableTTLTOSDetectionIfNeeded(MDATA_SRC_HANDLE hSource);

// Returns whether the source accepts the sender, and notes an accepted one as its last sender.
BOOL _IsUDPDataForSource(MDATA_SRC_HANDLE hSource, struct sockaddr_storage* pAddr) MD_REQUIRES(kMetadataThread);

// Receives one datagram into the source's RxBuffer, with its TOS and TTL if they are detected. Returns its length, or
// 0 if there is no datagram for this source.
int _ReceiveDatagram(MDATA_SRC_HANDLE hSource, int fd, struct sockaddr_storage* from, BYTE* tos, BYTE* ttl)
    MD_REQUIRES(kMetadataThread);

// Copy the last sender to the statistics, and back from statistics that are restored.
void _GetSenderStats(MDATA_SRC_HANDLE hSource, MDATA_INET_STATS* stats);
void _SetSenderStats(MDATA_SRC_HANDLE hSource, const MDATA_INET_STATS& stats);

#endif  // MD_UDP_H
