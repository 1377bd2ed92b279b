// The relays of a source. See the header.
//
// Contents
//   1. Relay sockets
//   2. Following TTL and TOS
//   3. Sending and counting
#include "md_relay.h"

#include <errno.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "md_atomic.h"

// The lines carry the name of the engine, whose sources these relays belong to.
#define MD_MODULE "metadata_api"
#include "md_log.h"

// =====================================================================================================
// 1. Relay sockets. Opener.
// =====================================================================================================

namespace {

// One relay while its socket is being made.
struct RelaySetup {
  const MDATA_RELAY_CFG* pCfg;
  UINT32 nScopeID;  // of "eth0", for IPv6 destinations
  int iNumber;      // from 1
  int iCount;
  int iSocket;
};

}  // namespace

static bool _IsMulticast(const MDATA_RELAY_CFG& Relay) {
  if (Relay.iDestAddressFamily == AF_INET) return (Relay.acDestAddress[0] & 0xE0) == 0xE0;
  return Relay.acDestAddress[0] == 0xFF;
}

static bool _SetIntOption(int iSocket, int iLevel, int iOption, int iValue) {
  return setsockopt(iSocket, iLevel, iOption, &iValue, sizeof(iValue)) == 0;
}

void _InitRelayers(MDATA_SRC_HANDLE pHandle) {
  MdStore(pHandle->SourceTTL, -1);
  MdStore(pHandle->SourceTOS, -1);
  // KEPT: all eight slots, configured or not, and any negative value.
  for (int i = 0; i < MDATA_MAX_RELAYS; ++i) {
    MdStore(pHandle->Relayers[i].iRelaySocket, -1);
    pHandle->Relayers[i].CurrentRelayTTL = -1;
    if (pHandle->Config.Relays[i].IpTOS < 0) pHandle->bDetectTOS = TRUE;
    if (pHandle->Config.Relays[i].IpTTL < 0) pHandle->bDetectTTL = TRUE;
  }
}

// KEPT: "multcast" and "hopes" are spelt so, and IPv6 multicast succeeds silently.
static bool _SetUpIPv4TTL(const RelaySetup& Relay) {
  const int iTTL = Relay.pCfg->IpTTL;
  const bool bMulticast = _IsMulticast(*Relay.pCfg);
  const bool bSet = _SetIntOption(Relay.iSocket, IPPROTO_IP, bMulticast ? IP_MULTICAST_TTL : IP_TTL, iTTL);
  const int iError = errno;
  if (!bSet && bMulticast)
    MD_LOG(3, "Failed to set multicast TTL to %d on socket %d (%d/%d), errno (%d): \"%s\".\n", iTTL, Relay.iSocket,
           Relay.iNumber, Relay.iCount, iError, ErrnoText(iError).szText);
  else if (!bSet)
    MD_LOG(3, "Failed to set unicast TTL to %d on socket %d (%d/%d), errno (%d): \"%s\".\n", iTTL, Relay.iSocket,
           Relay.iNumber, Relay.iCount, iError, ErrnoText(iError).szText);
  else if (bMulticast)
    MD_LOG(6, "Successfully set multcast TTL on socket %d (%d/%d) to %d.\n", Relay.iSocket, Relay.iNumber, Relay.iCount,
           iTTL);
  else
    MD_LOG(6, "Successfully set unicast TTL on socket %d (%d/%d) to %d.\n", Relay.iSocket, Relay.iNumber, Relay.iCount,
           iTTL);
  return bSet;
}

static bool _SetUpIPv6Hops(const RelaySetup& Relay) {
  const int iHops = Relay.pCfg->IpTTL;
  const bool bMulticast = _IsMulticast(*Relay.pCfg);
  const int iOption = bMulticast ? IPV6_MULTICAST_HOPS : IPV6_UNICAST_HOPS;
  const bool bSet = _SetIntOption(Relay.iSocket, IPPROTO_IPV6, iOption, iHops);
  const int iError = errno;
  if (!bSet && bMulticast)
    MD_LOG(3, "Failed to set IPv6 multicast hops to %d on socket %d (%d/%d), errno (%d): \"%s\".\n", iHops,
           Relay.iSocket, Relay.iNumber, Relay.iCount, iError, ErrnoText(iError).szText);
  else if (!bSet)
    MD_LOG(3, "Failed to set IPv6 unicast hops to %d on socket %d (%d/%d), errno (%d): \"%s\".\n", iHops, Relay.iSocket,
           Relay.iNumber, Relay.iCount, iError, ErrnoText(iError).szText);
  else if (!bMulticast)
    MD_LOG(6, "Successfully set IPv6 unicast hopes on socket %d (%d/%d) to %d.\n", Relay.iSocket, Relay.iNumber,
           Relay.iCount, iHops);
  return bSet;
}

static bool _SetUpRelayTOS(const RelaySetup& Relay) {
  const UINT nTOS = static_cast<UINT>(Relay.pCfg->IpTOS);
  const bool bIPv4 = Relay.pCfg->iDestAddressFamily == AF_INET;
  const bool bSet = bIPv4 ? _SetIntOption(Relay.iSocket, IPPROTO_IP, IP_TOS, Relay.pCfg->IpTOS)
                          : _SetIntOption(Relay.iSocket, IPPROTO_IPV6, IPV6_TCLASS, Relay.pCfg->IpTOS);
  const int iError = errno;
  if (!bSet && bIPv4)
    MD_LOG(3, "Failed to set TOS to 0x%X on socket %d (%d/%d), errno (%d): \"%s\".\n", nTOS, Relay.iSocket,
           Relay.iNumber, Relay.iCount, iError, ErrnoText(iError).szText);
  else if (!bSet)
    MD_LOG(3, "Failed to set traffic class to 0x%X on socket %d (%d/%d), errno (%d): \"%s\".\n", nTOS, Relay.iSocket,
           Relay.iNumber, Relay.iCount, iError, ErrnoText(iError).szText);
  else if (bIPv4)
    MD_LOG(6, "Successfully set TOS socket %d (%d/%d) to 0x%X.\n", Relay.iSocket, Relay.iNumber, Relay.iCount, nTOS);
  else
    MD_LOG(6, "Successfully set traffic class on socket %d (%d/%d) to 0x%X.\n", Relay.iSocket, Relay.iNumber,
           Relay.iCount, nTOS);
  return bSet;
}

static int _ConnectToDestination(const RelaySetup& Relay) {
  struct sockaddr_storage Address = {};
  socklen_t nSize = 0;
  if (Relay.pCfg->iDestAddressFamily == AF_INET) {
    struct sockaddr_in IPv4 = {};
    IPv4.sin_family = AF_INET;
    IPv4.sin_port = htons(Relay.pCfg->usUDPPort);
    memcpy(&IPv4.sin_addr, Relay.pCfg->acDestAddress, sizeof(IPv4.sin_addr));
    nSize = sizeof(IPv4);
    memcpy(&Address, &IPv4, nSize);
  } else {
    struct sockaddr_in6 IPv6 = {};
    IPv6.sin6_family = AF_INET6;
    IPv6.sin6_port = htons(Relay.pCfg->usUDPPort);
    IPv6.sin6_scope_id = Relay.nScopeID;
    memcpy(&IPv6.sin6_addr, Relay.pCfg->acDestAddress, sizeof(IPv6.sin6_addr));
    nSize = sizeof(IPv6);
    memcpy(&Address, &IPv6, nSize);
  }
  return connect(Relay.iSocket, reinterpret_cast<const struct sockaddr*>(&Address), nSize);
}

static bool _ConnectRelay(const RelaySetup& Relay) {
  const bool bConnected = _ConnectToDestination(Relay) == 0;
  const int iError = errno;
  char acText[INET6_ADDRSTRLEN] = {};
  const char* szAddress = GetIPAddressString(Relay.pCfg->iDestAddressFamily, Relay.pCfg->acDestAddress, acText,
                                             static_cast<int>(sizeof(acText)));
  const UINT nPort = Relay.pCfg->usUDPPort;
  if (bConnected) {
    MD_LOG(5, "Successfully connected socket %d (%d/%d) to [%s]:%u.\n", Relay.iSocket, Relay.iNumber, Relay.iCount,
           szAddress, nPort);
    return true;
  }
  if (iError == EINPROGRESS) {
    MD_LOG(4, "Connect in progress for socket %d (%d/%d) to [%s]:%u.\n", Relay.iSocket, Relay.iNumber, Relay.iCount,
           szAddress, nPort);
    return true;
  }
  MD_LOG(3, "Failed to connect socket %d (%d/%d) to [%s]:%u, errno (%d): \"%s\".\n", Relay.iSocket, Relay.iNumber,
         Relay.iCount, szAddress, nPort, iError, ErrnoText(iError).szText);
  return false;
}

// Sets up a new socket for sending. Returns false if the opening must fail.
static bool _SetUpRelaySocket(const RelaySetup& Relay) {
  int iOn = 1;
  if (ioctl(Relay.iSocket, FIONBIO, &iOn) != 0) {
    const int iError = errno;
    MD_LOG(3, "Failed to make socket %d (%d/%d) non-blocking, errno (%d): \"%s\".\n", Relay.iSocket, Relay.iNumber,
           Relay.iCount, iError, ErrnoText(iError).szText);
    return false;
  }
  // KEPT: a TTL of 0 leaves the system's default, a TOS of 0 is set.
  if (Relay.pCfg->IpTTL > 0) {
    if (!(Relay.pCfg->iDestAddressFamily == AF_INET ? _SetUpIPv4TTL(Relay) : _SetUpIPv6Hops(Relay))) return false;
  }
  if (Relay.pCfg->IpTOS >= 0 && !_SetUpRelayTOS(Relay)) return false;
  return _ConnectRelay(Relay);
}

// Creates one relay's socket and stores it in *piSocket once it is ready. Returns false if the opening must fail.
static bool _CreateRelayingSocket(RelaySetup Relay, int* piSocket) {
  const int iFamily = Relay.pCfg->iDestAddressFamily;
  if (iFamily != AF_INET && iFamily != AF_INET6) return true;
  Relay.iSocket = socket(iFamily, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (Relay.iSocket < 0) {
    const int iError = errno;
    MD_LOG(3, "Failed to create relaying socket %d/%d, errno (%d): \"%s\".\n", Relay.iNumber, Relay.iCount, iError,
           ErrnoText(iError).szText);
    return true;  // KEPT: this relay stays without a socket, the source opens
  }
  MD_LOG(6, "Successfully created %s socket %d (%d/%d).\n", iFamily == AF_INET ? "IPv4" : "IPv6", Relay.iSocket,
         Relay.iNumber, Relay.iCount);
  if (!_SetUpRelaySocket(Relay)) {
    close(Relay.iSocket);
    return false;
  }
  *piSocket = Relay.iSocket;
  MD_LOG(5, "Successfully initialized relaying socket %d (%d/%d).\n", Relay.iSocket, Relay.iNumber, Relay.iCount);
  return true;
}

BOOL _CreateRelayingSockets(const MDATA_SRC_CFG* pCfg, int* piSockets, size_t nNumOfSockets) {
  MD_LOG(6, "Called to create %d relaying sockets.\n", pCfg->nNumOfRelays);
  UINT32 nScopeID = 0;
  GetInterfaceIPv6ScopeID("eth0", &nScopeID);
  MD_ASSERT(pCfg->nNumOfRelays <= nNumOfSockets);
  bool bRetCode = pCfg->nNumOfRelays <= nNumOfSockets;
  for (size_t i = 0; i < nNumOfSockets; ++i) piSockets[i] = -1;
  for (UINT32 i = 0; bRetCode && i < pCfg->nNumOfRelays; ++i) {
    MD_ASSERT((pCfg->Relays[i].iDestAddressFamily == AF_INET) || (pCfg->Relays[i].iDestAddressFamily == AF_INET6));
    bRetCode = _CreateRelayingSocket(
        {&pCfg->Relays[i], nScopeID, static_cast<int>(i) + 1, static_cast<int>(pCfg->nNumOfRelays), -1}, &piSockets[i]);
  }
  if (!bRetCode) {
    MD_LOG(5, "Closing any sockets created.\n");
    for (size_t i = 0; i < nNumOfSockets; ++i) _CloseDescriptor(piSockets[i]);
  }
  return bRetCode ? TRUE : FALSE;
}

// =====================================================================================================
// 2. Following TTL and TOS. Metadata thread.
// =====================================================================================================

// Notes a received value. Returns true if it differs from the previous one, as the first one always does.
static bool _NoteReceived(const BYTE* pcReceived, int& iCurrent, UINT64& nUpdates, UINT32& nUpTimeInSecs) {
  if (pcReceived == nullptr || *pcReceived == MdLoad(iCurrent)) return false;
  MdStore(iCurrent, *pcReceived);
  MdAddFetch(nUpdates, 1);
  UINT32 nNow = 0;
  if (GetSystemUPTime(&nNow)) MdStore(nUpTimeInSecs, nNow);
  return true;
}

// A change that fails is retried only with the next change.
static void _FollowTOS(MDATA_SRC_HANDLE pMDataSource, UINT32 i, int iTOS) {
  const MDATA_RELAY_CFG& Relay = pMDataSource->Config.Relays[i];
  RELAYER* pRelayer = &pMDataSource->Relayers[i];
  const UINT nTOS = static_cast<UINT>(iTOS);
  if (Relay.iDestAddressFamily != AF_INET) return;  // KEPT: IPv6 relays never follow
  if (Relay.IpTOS >= 0) {
    MD_LOG(7, "TOS already OK at 0x%X.\n", nTOS);
    return;
  }
  MD_LOG(6, "TOS needs to change from 0x%X to 0x%X for relayer #%d/%d.\n", static_cast<UINT>(pRelayer->CurrentRelayTOS),
         nTOS, static_cast<int>(i) + 1, static_cast<int>(pMDataSource->Config.nNumOfRelays));
  const int iSocket = MdLoadAcquire(pRelayer->iRelaySocket);
  if (!_SetIntOption(iSocket, IPPROTO_IP, IP_TOS, iTOS)) {
    const int iError = errno;
    MD_LOG(3, "Failed to set TOS to 0x%X on socket %d, errno (%d): \"%s\".\n", nTOS, iSocket, iError,
           ErrnoText(iError).szText);
    return;
  }
  MD_LOG(6, "Successfully set TOS to 0x%X.\n", nTOS);
  pRelayer->CurrentRelayTOS = iTOS;
}

static void _FollowTTL(MDATA_SRC_HANDLE pMDataSource, UINT32 i, int iTTL) {
  const MDATA_RELAY_CFG& Relay = pMDataSource->Config.Relays[i];
  RELAYER* pRelayer = &pMDataSource->Relayers[i];
  if (Relay.iDestAddressFamily != AF_INET) return;
  if (Relay.IpTTL >= 0) {
    MD_LOG(7, "TTL already OK at %d.\n", iTTL);
    return;
  }
  MD_LOG(6, "TTL needs to change from 0x%X to 0x%X.\n", static_cast<UINT>(pRelayer->CurrentRelayTTL),
         static_cast<UINT>(iTTL));
  const bool bMulticast = _IsMulticast(Relay);
  const int iSocket = MdLoadAcquire(pRelayer->iRelaySocket);
  const bool bSet = _SetIntOption(iSocket, IPPROTO_IP, bMulticast ? IP_MULTICAST_TTL : IP_TTL, iTTL);
  const int iError = errno;
  if (!bSet && bMulticast)
    MD_LOG(3, "Failed to set multicast TTL on socket, errno (%d): \"%s\".\n", iError, ErrnoText(iError).szText);
  else if (!bSet)
    MD_LOG(3, "Failed to set TTL to %d on socket, errno (%d): \"%s\".\n", iTTL, iError, ErrnoText(iError).szText);
  else if (bMulticast)
    MD_LOG(6, "Successfully set multcast TTL on socket to %d.\n", iTTL);
  else
    MD_LOG(6, "Successfully set TTL to %d.\n", iTTL);
  if (bSet) pRelayer->CurrentRelayTTL = iTTL;
}

// =====================================================================================================
// 3. Sending and counting. Metadata thread.
// =====================================================================================================

static void _CountRelayError(RELAYER* pRelayer, int iError) {
  MdStore(pRelayer->iLastRelayError, iError);
  MdStore(pRelayer->iLastRelayErrorTime, static_cast<int>(time(nullptr)));
  MdAddFetch(pRelayer->nRelayErrors, 1);
}

// Sends one message to one relay. Returns true if all of it was sent.
static bool _SendToRelay(MDATA_SRC_HANDLE pMDataSource, UINT32 i, const void* pvBuffer, size_t nSize) {
  RELAYER* pRelayer = &pMDataSource->Relayers[i];
  const int iNumber = static_cast<int>(i) + 1;
  const int iCount = static_cast<int>(pMDataSource->Config.nNumOfRelays);
  const int iSocket = MdLoadAcquire(pRelayer->iRelaySocket);
  const ssize_t nSent = send(iSocket, pvBuffer, nSize, 0);
  if (nSent >= 0 && static_cast<size_t>(nSent) == nSize) {
    MdAddFetch(pRelayer->nRelayedBytes, nSize);
    MdAddFetch(pRelayer->nRelayedMessages, 1);
    MD_LOG(7, "Successfully transmitted %d bytes on socket %d of relay#%d/%d.\n", static_cast<int>(nSize), iSocket,
           iNumber, iCount);
    return true;
  }
  const int iError = errno;
  _CountRelayError(pRelayer, iError);
  const time_t tNow = MdLoad(pRelayer->iLastRelayErrorTime);
  if (tNow - pRelayer->tLastRelayErrLogTime <= kLogHoldOffSecs) return false;
  pRelayer->tLastRelayErrLogTime = tNow;
  // ECONNREFUSED: nobody listens at the destination; not our error.
  MD_LOG(iError == ECONNREFUSED ? 6 : 3,
         "Failed to relay %d bytes of metadata on socket %d of relay#%d/%d, rc=%d, errno (%d): \"%s\".\n",
         static_cast<int>(nSize), iSocket, iNumber, iCount, static_cast<int>(nSent), iError, ErrnoText(iError).szText);
  return false;
}

BOOL _RelayMetaData(MDATA_SRC_HANDLE pMDataSource, const void* pvBuffer, size_t nSize, const BYTE* pcTOS,
                    const BYTE* pcTTL) {
  // A message that arrives before the source is open is not relayed. Its TTL and TOS must not count as seen either:
  // sockets that follow would then keep the system's values until the sender changes its own again.
  if (!MdLoadAcquire(pMDataSource->bRelaysReady)) return FALSE;
  MD_LOG(7, "Called for %d relays.\n", pMDataSource->Config.nNumOfRelays);
  const bool bTOSChanged = _NoteReceived(pcTOS, pMDataSource->SourceTOS, pMDataSource->nSourceTOSUpdates,
                                         pMDataSource->nLastSourceTOSUpdateUpTimeInSecs);
  const bool bTTLChanged = _NoteReceived(pcTTL, pMDataSource->SourceTTL, pMDataSource->nSourceTTLUpdates,
                                         pMDataSource->nLastSourceTTLUpdateUpTimeInSecs);
  bool bRelayed = false;
  for (UINT32 i = 0; i < pMDataSource->Config.nNumOfRelays; ++i) {
    if (bTOSChanged && pcTOS != nullptr)
      _FollowTOS(pMDataSource, i, *pcTOS);
    else
      MD_LOG(7, "Not checking TOS.\n");
    if (bTTLChanged && pcTTL != nullptr)
      _FollowTTL(pMDataSource, i, *pcTTL);
    else
      MD_LOG(7, "Not checking TTL.\n");
    if (_SendToRelay(pMDataSource, i, pvBuffer, nSize)) bRelayed = true;
  }
  return bRelayed ? TRUE : FALSE;
}
