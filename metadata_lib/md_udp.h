// Reception of UDP datagrams: the bytes with their TTL and TOS, the filter for senders, the last sender.
//
// Receiving runs on the metadata thread, switching the detection on in the opener. The last sender is kept in the
// source's record, under a lock of this module.
#ifndef MD_UDP_H
#define MD_UDP_H

#include <stddef.h>
#include <sys/socket.h>

#include "md_source.h"
#include "metadata_lib.h"

// Receives one datagram, without waiting, and logs a failure. Returns recvmsg's result, with errno set. Fills in the
// sender, and TOS and TTL if they came with the datagram; each of the three may be NULL.
int _RecvUDPPacket(int iSocket, void* pvBuffer, size_t nBuffSize, struct sockaddr_storage* pFromAddr, BYTE* pcTOS,
                   BYTE* pcTTL);

// Whether a configured relay follows the TTL or TOS that the source receives.
BOOL _IsTTLDetectionNeeded(MDATA_SRC_HANDLE pHandle);
BOOL _IsTOSDetectionNeeded(MDATA_SRC_HANDLE pHandle);

// Has the IPv4 socket report TTL and TOS where relays follow them. Returns FALSE if an option cannot be set; the other
// is set all the same.
BOOL _EnableTTLTOSDetectionIfNeeded(MDATA_SRC_HANDLE pHandle);

// Whether the source accepts the sender, which is then noted as its last one.
BOOL _IsUDPDataForSource(MDATA_SRC_HANDLE hSource, struct sockaddr_storage* pAddr);

// Receives one datagram into the source's RxBuffer, with its TOS and TTL where they are detected. Returns its length, or
// 0 if there is none for this source.
int _ReceiveDatagram(MDATA_SRC_HANDLE hSource, int iFD, struct sockaddr_storage* pFrom, BYTE* pcTOS, BYTE* pcTTL);

// The last sender as the statistics calls show and restore it.
void _GetSenderStats(MDATA_SRC_HANDLE pHandle, MDATA_INET_STATS* pStats);
void _SetSenderStats(MDATA_SRC_HANDLE pHandle, const MDATA_INET_STATS& Stats);

#endif  // MD_UDP_H
