// Reception of UDP datagrams. See the header.
//
// Contents
//   1. Receiving, with the control messages
//   2. Switching the detection on
//   3. The last sender and the filter for senders
//   4. One datagram for a source
#include "md_udp.h"

#include <errno.h>
#include <netinet/in.h>
#include <pthread.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include "md_guard.h"

// The lines carry the name of the engine, whose sources receive here.
#define MD_MODULE "metadata_api"
#include "md_log.h"

// Guards the last senders of all sources: the metadata thread and restored statistics write them, the statistics calls
// read them. A leaf lock: no other lock is taken and no line is logged while it is held.
static pthread_mutex_t _g_SenderLock = PTHREAD_MUTEX_INITIALIZER;

static constexpr BYTE _acAnyAddress[16] = {};  // the IPv6 "any" address

// =====================================================================================================
// 1. Receiving, with the control messages. Metadata thread.
// =====================================================================================================

static bool _HoldsValue(const struct cmsghdr* pControl, size_t nValueSize) {
  return pControl->cmsg_len >= CMSG_LEN(nValueSize);
}

static void _StoreTTL(const struct cmsghdr* pControl, BYTE* pcTTL) {
  int iTTL = 0;
  memcpy(&iTTL, CMSG_DATA(pControl), sizeof(iTTL));
  if (pControl->cmsg_level == IPPROTO_IPV6) MD_LOG(7, "Got hop limit (%d) information.\n", iTTL);
  MD_ASSERT(iTTL >= 0);
  MD_ASSERT(iTTL < 256);
  *pcTTL = static_cast<BYTE>(iTTL & 0xFF);
}

// KEPT: TOS is tested before TTL, so one control message fills at most one of the two.
static void _ReadIPv4Control(const struct cmsghdr* pControl, UINT nNumber, BYTE* pcTOS, BYTE* pcTTL) {
  if (pControl->cmsg_type == IP_TOS && pcTOS != nullptr) {
    if (_HoldsValue(pControl, sizeof(BYTE))) *pcTOS = *CMSG_DATA(pControl);
  } else if (pControl->cmsg_type == IP_TTL && pcTTL != nullptr) {
    if (_HoldsValue(pControl, sizeof(int))) _StoreTTL(pControl, pcTTL);
  } else {
    MD_LOG(4, "ANC#%u Unknown (%d) information.\n", nNumber, pControl->cmsg_type);
  }
}

static void _ReadIPv6Control(const struct cmsghdr* pControl, UINT nNumber, BYTE* pcTOS, BYTE* pcTTL) {
  if (pControl->cmsg_type == IPV6_TCLASS && pcTOS != nullptr) {
    if (!_HoldsValue(pControl, sizeof(BYTE))) return;
    const BYTE cTrafficClass = *CMSG_DATA(pControl);
    MD_LOG(7, "Got traffic class (%d) information.\n", cTrafficClass);
    *pcTOS = cTrafficClass;
  } else if (pControl->cmsg_type == IPV6_HOPLIMIT && pcTTL != nullptr) {
    if (_HoldsValue(pControl, sizeof(int))) _StoreTTL(pControl, pcTTL);
  } else {
    MD_LOG(4, "ANC#%u Unknown IPv6 (%d) information.\n", nNumber, pControl->cmsg_type);
  }
}

static void _ReadControlMessages(struct msghdr* pMessage, const struct sockaddr_storage* pFromAddr, BYTE* pcTOS,
                                 BYTE* pcTTL) {
  UINT nNumber = 0;
  for (struct cmsghdr* pControl = CMSG_FIRSTHDR(pMessage); pControl != nullptr;
       pControl = CMSG_NXTHDR(pMessage, pControl)) {
    ++nNumber;
    switch (pControl->cmsg_level) {
      case IPPROTO_IP:
        MD_LOG(7, "IPPROTO_IP.\n");
        MD_ASSERT_TEXT(pFromAddr == nullptr || pFromAddr->ss_family == AF_INET,
                       "((struct sockaddr *)pFromAddr)->sa_family == AF_INET");
        _ReadIPv4Control(pControl, nNumber, pcTOS, pcTTL);
        break;
      case IPPROTO_IPV6:
        MD_LOG(7, "IPPROTO_IPV6.\n");
        MD_ASSERT_TEXT(pFromAddr == nullptr || pFromAddr->ss_family == AF_INET6,
                       "((struct sockaddr *)pFromAddr)->sa_family == AF_INET6");
        _ReadIPv6Control(pControl, nNumber, pcTOS, pcTTL);
        break;
      default:
        MD_LOG(4, "ANC#%u Unknown level (%d) ancilliary data found.\n", nNumber, pControl->cmsg_level);
        break;
    }
  }
}

int _RecvUDPPacket(int iSocket, void* pvBuffer, size_t nBuffSize, struct sockaddr_storage* pFromAddr, BYTE* pcTOS,
                   BYTE* pcTTL) {
  const bool bWantsControl = pcTOS != nullptr || pcTTL != nullptr;
  alignas(struct cmsghdr) BYTE acControl[48] = {};
  struct iovec Part = {pvBuffer, nBuffSize};
  struct msghdr Message = {};
  Message.msg_iov = &Part;
  Message.msg_iovlen = 1;
  if (pFromAddr != nullptr) {
    memset(pFromAddr, 0, sizeof(*pFromAddr));
    Message.msg_name = pFromAddr;
    Message.msg_namelen = sizeof(*pFromAddr);
  }
  if (bWantsControl) {
    Message.msg_control = acControl;
    Message.msg_controllen = sizeof(acControl);
  }
  const int nResult = static_cast<int>(recvmsg(iSocket, &Message, MSG_DONTWAIT));
  if (nResult <= 0) {
    const int iError = errno;
    MD_LOG(3, "recvmsg returned %d, errno=%d, \"%s\".\n", nResult, iError, ErrnoText(iError).szText);
    errno = iError;
    return nResult;
  }
  if (bWantsControl) _ReadControlMessages(&Message, pFromAddr, pcTOS, pcTTL);
  return nResult;
}

// =====================================================================================================
// 2. Switching the detection on. Opener.
// =====================================================================================================

// KEPT: only -1 asks for the socket option, while any negative value sets bDetectTTL or bDetectTOS.
BOOL _IsTTLDetectionNeeded(MDATA_SRC_HANDLE pHandle) {
  for (UINT32 i = 0; i < pHandle->Config.nNumOfRelays; ++i) {
    if (pHandle->Config.Relays[i].IpTTL == -1) return TRUE;
  }
  return FALSE;
}

BOOL _IsTOSDetectionNeeded(MDATA_SRC_HANDLE pHandle) {
  for (UINT32 i = 0; i < pHandle->Config.nNumOfRelays; ++i) {
    if (pHandle->Config.Relays[i].IpTOS == -1) return TRUE;
  }
  return FALSE;
}

// KEPT: the option's value is one byte long.
static bool _SwitchOn(int iFD, int iOption) {
  const BYTE cOn = 1;
  return setsockopt(iFD, IPPROTO_IP, iOption, &cOn, sizeof(cOn)) == 0;
}

// KEPT: only the IPv4 socket is switched; the IPv6 socket reports the values that the host enabled when it made it.
BOOL _EnableTTLTOSDetectionIfNeeded(MDATA_SRC_HANDLE pHandle) {
  BOOL bRetCode = TRUE;
  const int iFD = pHandle->iFD;
  if (_IsTTLDetectionNeeded(pHandle) && iFD >= 0) {
    if (_SwitchOn(iFD, IP_RECVTTL)) {
      MD_LOG(5, "Successfully set IP_RECVTTL socket option.\n");
    } else {
      const int iError = errno;
      bRetCode = FALSE;
      MD_LOG(3, "Unable to set IP_RECVTTL socket option, errno (%d): \"%s\".\n", iError, ErrnoText(iError).szText);
    }
  }
  if (_IsTOSDetectionNeeded(pHandle) && iFD >= 0) {
    if (_SwitchOn(iFD, IP_RECVTOS)) {
      MD_LOG(5, "Successfully set IP_RECVTOS socket option.\n");
    } else {
      const int iError = errno;
      bRetCode = FALSE;
      MD_LOG(3, "Unable to set IP_RECVTOS socket option, errno (%d): \"%s\".\n", iError, ErrnoText(iError).szText);
    }
  }
  return bRetCode;
}

// =====================================================================================================
// 3. The last sender and the filter for senders. Metadata thread; the statistics calls under g_MetaDataAPIMutex.
// =====================================================================================================

static void _RecordSender(MDATA_SRC_HANDLE hSource, int iFamily, const void* pvAddress, size_t nSize) {
  MdLock Lock(_g_SenderLock);
  hSource->iSourceAddressFamily = iFamily;
  memcpy(hSource->acSourceAddress, pvAddress, nSize);
}

// KEPT: 0 and everything from 224 up, groups and reserved addresses alike, accepts every sender.
static bool _AcceptsIPv4(const BYTE* pcConfigured, const void* pvSender) {
  const bool bUnicast = pcConfigured[0] != 0 && pcConfigured[0] < 224;
  return !bUnicast || memcmp(pcConfigured, pvSender, 4) == 0;
}

// KEPT: no exception for multicast.
static bool _AcceptsIPv6(const BYTE* pcConfigured, const void* pvSender) {
  return memcmp(pcConfigured, _acAnyAddress, 16) == 0 || memcmp(pcConfigured, pvSender, 16) == 0;
}

// KEPT: the configured address is compared even if the configured family is 0.
BOOL _IsUDPDataForSource(MDATA_SRC_HANDLE hSource, struct sockaddr_storage* pAddr) {
  const int iConfigured = hSource->Config.in.Network.iSrcAddressFamily;
  const BYTE* pcConfigured = hSource->Config.in.Network.acSrcAddress;
  if (pAddr->ss_family == AF_INET && (iConfigured == AF_INET || iConfigured == 0)) {
    struct sockaddr_in Sender = {};
    memcpy(&Sender, pAddr, sizeof(Sender));
    if (_AcceptsIPv4(pcConfigured, &Sender.sin_addr)) {
      MD_LOG(7, "IPv4 packet is for us.\n");
      _RecordSender(hSource, AF_INET, &Sender.sin_addr, 4);
      return TRUE;
    }
  } else if (pAddr->ss_family == AF_INET6 && (iConfigured == AF_INET6 || iConfigured == 0)) {
    struct sockaddr_in6 Sender = {};
    memcpy(&Sender, pAddr, sizeof(Sender));
    if (_AcceptsIPv6(pcConfigured, &Sender.sin6_addr)) {
      MD_LOG(7, "IPv6 packet is for us.\n");
      _RecordSender(hSource, AF_INET6, &Sender.sin6_addr, 16);
      return TRUE;
    }
  }
  MD_LOG(7, "It's NOT for us.\n");
  return FALSE;
}

void _GetSenderStats(MDATA_SRC_HANDLE pHandle, MDATA_INET_STATS* pStats) {
  MdLock Lock(_g_SenderLock);
  pStats->iSourceAddressFamily = pHandle->iSourceAddressFamily;
  switch (pHandle->iSourceAddressFamily) {
    case AF_INET:
      memcpy(pStats->SourceAddress, pHandle->acSourceAddress, 4);
      break;
    case AF_INET6:
      memcpy(pStats->SourceAddress, pHandle->acSourceAddress, 16);
      break;
    default:
      pStats->iSourceAddressFamily = 0;
      memset(pStats->SourceAddress, 0, sizeof(pStats->SourceAddress));
      break;
  }
}

void _SetSenderStats(MDATA_SRC_HANDLE pHandle, const MDATA_INET_STATS& Stats) {
  MdLock Lock(_g_SenderLock);
  memcpy(pHandle->acSourceAddress, Stats.SourceAddress, sizeof(pHandle->acSourceAddress));
  // KEPT: the family is not restored
}

// =====================================================================================================
// 4. One datagram for a source. Metadata thread.
// =====================================================================================================

int _ReceiveDatagram(MDATA_SRC_HANDLE hSource, int iFD, struct sockaddr_storage* pFrom, BYTE* pcTOS, BYTE* pcTTL) {
  const int nLength = _RecvUDPPacket(iFD, hSource->RxBuffer, sizeof(hSource->RxBuffer), pFrom,
                                     hSource->bDetectTOS ? pcTOS : nullptr, hSource->bDetectTTL ? pcTTL : nullptr);
  if (nLength == 0) {
    MD_LOG(5, "recvfrom returned 0.\n");
    return 0;
  }
  if (nLength < 0) {
    const int iError = errno;
    MD_LOG(5, "recvfrom failed, rc=%d, errno=%d, \"%s\".\n", nLength, iError, ErrnoText(iError).szText);
    return 0;
  }
  if (!_IsUDPDataForSource(hSource, pFrom)) {
    MD_LOG(7, "Rejecting %d bytes from %s.\n", nLength, SenderText(*pFrom).szText);
    return 0;
  }
  return nLength;
}
