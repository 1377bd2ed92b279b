// SPDX-License-Identifier: Apache-2.0
// Reception of UDP datagrams. See the header.
//
// Contents
//   1. Receiving, with the control messages
//   2. Switching the detection on
//   3. The last sender and the filter for senders
//   4. One datagram for a source
#include "md_udp.h"

#include <netinet/in.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>

// The lines carry the name of the engine, whose sources receive here.
#define MD_MODULE "metadata_api"
#include "md_atomic.h"
#include "md_log.h"
#include "md_mutex.h"

static constexpr BYTE _acAnyAddress[16] = {};  // the IPv6 "any" address

// =====================================================================================================
// 1. Receiving, with the control messages. Metadata thread.
// =====================================================================================================

static bool _HoldsValue(const struct cmsghdr* control, size_t valueSize) {
  return control->cmsg_len >= CMSG_LEN(valueSize);
}

static void _StoreTTL(const struct cmsghdr* control, BYTE* ttl) {
  int iTTL = 0;
  memcpy(&iTTL, CMSG_DATA(control), sizeof(iTTL));
  if (control->cmsg_level == IPPROTO_IPV6) MD_LOG(7, "Got hop limit (%d) information.\n", iTTL);
  MD_ASSERT(iTTL >= 0);
  MD_ASSERT(iTTL < 256);
  *ttl = static_cast<BYTE>(iTTL & 0xFF);
}

// KEPT: TOS is tested before TTL, so one control message fills at most one of the two.
static void _ReadIPv4Control(const struct cmsghdr* control, UINT number, BYTE* tos, BYTE* ttl) {
  if (control->cmsg_type == IP_TOS && tos != nullptr) {
    if (_HoldsValue(control, sizeof(BYTE))) *tos = *CMSG_DATA(control);
  } else if (control->cmsg_type == IP_TTL && ttl != nullptr) {
    if (_HoldsValue(control, sizeof(int))) _StoreTTL(control, ttl);
  } else {
    MD_LOG(4, "ANC#%u Unknown (%d) information.\n", number, control->cmsg_type);
  }
}

static void _ReadIPv6Control(const struct cmsghdr* control, UINT number, BYTE* tos, BYTE* ttl) {
  if (control->cmsg_type == IPV6_TCLASS && tos != nullptr) {
    if (!_HoldsValue(control, sizeof(BYTE))) return;
    const BYTE trafficClass = *CMSG_DATA(control);
    MD_LOG(7, "Got traffic class (%d) information.\n", trafficClass);
    *tos = trafficClass;
  } else if (control->cmsg_type == IPV6_HOPLIMIT && ttl != nullptr) {
    if (_HoldsValue(control, sizeof(int))) _StoreTTL(control, ttl);
  } else {
    MD_LOG(4, "ANC#%u Unknown IPv6 (%d) information.\n", number, control->cmsg_type);
  }
}

static void _ReadControlMessages(struct msghdr* message, const struct sockaddr_storage* fromAddr, BYTE* tos,
                                 BYTE* ttl) {
  UINT number = 0;
  for (struct cmsghdr* control = CMSG_FIRSTHDR(message); control != nullptr; control = CMSG_NXTHDR(message, control)) {
    ++number;
    switch (control->cmsg_level) {
      case IPPROTO_IP:
        MD_LOG(7, "IPPROTO_IP.\n");
        MD_ASSERT_TEXT(fromAddr == nullptr || fromAddr->ss_family == AF_INET,
                       "((struct sockaddr *)pFromAddr)->sa_family == AF_INET");
        _ReadIPv4Control(control, number, tos, ttl);
        break;
      case IPPROTO_IPV6:
        MD_LOG(7, "IPPROTO_IPV6.\n");
        MD_ASSERT_TEXT(fromAddr == nullptr || fromAddr->ss_family == AF_INET6,
                       "((struct sockaddr *)pFromAddr)->sa_family == AF_INET6");
        _ReadIPv6Control(control, number, tos, ttl);
        break;
      default:
        MD_LOG(4, "ANC#%u Unknown level (%d) ancilliary data found.\n", number, control->cmsg_level);
        break;
    }
  }
}

// In two halves: of the whole, g++ makes a string instruction, which takes three times as long.
static void _Clear(struct sockaddr_storage* record) {
  static constexpr size_t kHalf = sizeof(*record) / 2;
  BYTE* bytes = reinterpret_cast<BYTE*>(record);
  memset(bytes, 0, kHalf);
  memset(bytes + kHalf, 0, kHalf);
}

int _RecvUDPPacket(int iSocket, void* pvBuffer, size_t nBuffSize, struct sockaddr_storage* pFromAddr, BYTE* pcTOS,
                   BYTE* pcTTL) {
  const bool wantsControl = pcTOS != nullptr || pcTTL != nullptr;
  alignas(struct cmsghdr) BYTE controlData[48];
  struct iovec part = {pvBuffer, nBuffSize};
  struct msghdr message = {};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  if (pFromAddr != nullptr) {
    _Clear(pFromAddr);
    message.msg_name = pFromAddr;
    message.msg_namelen = sizeof(*pFromAddr);
  }
  if (wantsControl) {
    message.msg_control = controlData;
    message.msg_controllen = sizeof(controlData);
  }
  const int result = static_cast<int>(recvmsg(iSocket, &message, MSG_DONTWAIT));
  if (result <= 0) {
    MD_LOG_ERRNO(3, "recvmsg returned %d, errno=%d, \"%s\".\n", result);
    return result;
  }
  if (wantsControl) _ReadControlMessages(&message, pFromAddr, pcTOS, pcTTL);
  return result;
}

// =====================================================================================================
// 2. Switching the detection on. Opener.
// =====================================================================================================

// KEPT: only -1 asks for the socket option, while any negative value sets bDetectTTL or bDetectTOS.
BOOL _IsTTLDetectionNeeded(MDATA_SRC_HANDLE hSource) {
  for (UINT32 i = 0; i < hSource->Config.nNumOfRelays; ++i) {
    if (hSource->Config.Relays[i].IpTTL == -1) return TRUE;
  }
  return FALSE;
}

BOOL _IsTOSDetectionNeeded(MDATA_SRC_HANDLE hSource) {
  for (UINT32 i = 0; i < hSource->Config.nNumOfRelays; ++i) {
    if (hSource->Config.Relays[i].IpTOS == -1) return TRUE;
  }
  return FALSE;
}

// KEPT: the option's value is one byte long.
static bool _SwitchOn(int fd, int option) {
  const BYTE on = 1;
  return setsockopt(fd, IPPROTO_IP, option, &on, sizeof(on)) == 0;
}

// KEPT: only the IPv4 socket is switched; the IPv6 socket reports the values that the host enabled when it made it.
BOOL _EnableTTLTOSDetectionIfNeeded(MDATA_SRC_HANDLE hSource) {
  bool ok = true;
  const int fd = hSource->iFD;
  if (_IsTTLDetectionNeeded(hSource) && fd >= 0) {
    if (_SwitchOn(fd, IP_RECVTTL)) {
      MD_LOG(5, "Successfully set IP_RECVTTL socket option.\n");
    } else {
      ok = false;
      MD_LOG_ERRNO(3, "Unable to set IP_RECVTTL socket option, errno (%d): \"%s\".\n");
    }
  }
  if (_IsTOSDetectionNeeded(hSource) && fd >= 0) {
    if (_SwitchOn(fd, IP_RECVTOS)) {
      MD_LOG(5, "Successfully set IP_RECVTOS socket option.\n");
    } else {
      ok = false;
      MD_LOG_ERRNO(3, "Unable to set IP_RECVTOS socket option, errno (%d): \"%s\".\n");
    }
  }
  return ok ? TRUE : FALSE;
}

// =====================================================================================================
// 3. The last sender and the filter for senders. Metadata thread; the statistics calls under g_MetaDataAPIMutex.
// =====================================================================================================

// Almost every datagram has the sender of the one before it, which is found without the lock.
template <int kFamily, size_t kSize>
static void _RecordSender(MDATA_SRC_HANDLE hSource, const void* address) MD_REQUIRES(kMetadataThread) {
  const bool same = hSource->nRecordedFamily == kFamily && memcmp(hSource->acRecordedAddress, address, kSize) == 0;
  if (same && !MdLoadAcquire(hSource->bSenderReplaced)) return;
  MdStore(hSource->bSenderReplaced, FALSE);
  hSource->nRecordedFamily = kFamily;
  memcpy(hSource->acRecordedAddress, address, kSize);
  MdLock lock(_g_SenderLock);
  hSource->iSourceAddressFamily = kFamily;
  memcpy(hSource->acSourceAddress, address, kSize);
}

// KEPT: 0 and everything from 224 up, groups and reserved addresses alike, accepts every sender.
static bool _AcceptsIPv4(const BYTE* configured, const void* sender) {
  const bool isUnicast = configured[0] != 0 && configured[0] < 224;
  return !isUnicast || memcmp(configured, sender, 4) == 0;
}

// KEPT: no exception for multicast.
static bool _AcceptsIPv6(const BYTE* configured, const void* sender) {
  return memcmp(configured, _acAnyAddress, 16) == 0 || memcmp(configured, sender, 16) == 0;
}

// KEPT: the configured address is compared even if the configured family is 0.
BOOL _IsUDPDataForSource(MDATA_SRC_HANDLE hSource, struct sockaddr_storage* pAddr) {
  const int configuredFamily = hSource->Config.in.Network.iSrcAddressFamily;
  const BYTE* configured = hSource->Config.in.Network.acSrcAddress;
  const BYTE* record = reinterpret_cast<const BYTE*>(pAddr);
  if (pAddr->ss_family == AF_INET && (configuredFamily == AF_INET || configuredFamily == 0)) {
    const BYTE* sender = record + offsetof(struct sockaddr_in, sin_addr);
    if (_AcceptsIPv4(configured, sender)) {
      MD_LOG(7, "IPv4 packet is for us.\n");
      _RecordSender<AF_INET, 4>(hSource, sender);
      return TRUE;
    }
  } else if (pAddr->ss_family == AF_INET6 && (configuredFamily == AF_INET6 || configuredFamily == 0)) {
    const BYTE* sender = record + offsetof(struct sockaddr_in6, sin6_addr);
    if (_AcceptsIPv6(configured, sender)) {
      MD_LOG(7, "IPv6 packet is for us.\n");
      _RecordSender<AF_INET6, 16>(hSource, sender);
      return TRUE;
    }
  }
  MD_LOG(7, "It's NOT for us.\n");
  return FALSE;
}

void _GetSenderStats(MDATA_SRC_HANDLE hSource, MDATA_INET_STATS* stats) {
  MdLock lock(_g_SenderLock);
  stats->iSourceAddressFamily = hSource->iSourceAddressFamily;
  switch (hSource->iSourceAddressFamily) {
    case AF_INET:
      memcpy(stats->SourceAddress, hSource->acSourceAddress, 4);
      break;
    case AF_INET6:
      memcpy(stats->SourceAddress, hSource->acSourceAddress, 16);
      break;
    default:
      stats->iSourceAddressFamily = 0;
      memset(stats->SourceAddress, 0, sizeof(stats->SourceAddress));
      break;
  }
}

void _SetSenderStats(MDATA_SRC_HANDLE hSource, const MDATA_INET_STATS& stats) {
  MdLock lock(_g_SenderLock);
  memcpy(hSource->acSourceAddress, stats.SourceAddress, sizeof(hSource->acSourceAddress));
  // KEPT: the family is not restored
  MdStoreRelease(hSource->bSenderReplaced, TRUE);
}

// =====================================================================================================
// 4. One datagram for a source. Metadata thread.
// =====================================================================================================

int _ReceiveDatagram(MDATA_SRC_HANDLE hSource, int fd, struct sockaddr_storage* from, BYTE* tos, BYTE* ttl) {
  const int length = _RecvUDPPacket(fd, hSource->RxBuffer, sizeof(hSource->RxBuffer), from,
                                    hSource->bDetectTOS ? tos : nullptr, hSource->bDetectTTL ? ttl : nullptr);
  if (length == 0) {
    MD_LOG(5, "recvfrom returned 0.\n");
    return 0;
  }
  if (length < 0) {
    MD_LOG_ERRNO(5, "recvfrom failed, rc=%d, errno=%d, \"%s\".\n", length);
    return 0;
  }
  if (!_IsUDPDataForSource(hSource, from)) {
    MD_LOG(7, "Rejecting %d bytes from %s.\n", length, SenderText(*from).text);
    return 0;
  }
  return length;
}
