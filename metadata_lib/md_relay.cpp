// SPDX-License-Identifier: Apache-2.0
// The relays of a source. See the header.
//
// Contents
//   1. Relay sockets
//   2. Following TTL and TOS
//   3. Sending and counting
#include "md_relay.h"

#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <span>

#include "host_socket.h"
#include "host_util.h"
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
  const MDATA_RELAY_CFG* config;
  UINT32 scopeId;  // of "eth0", for IPv6 destinations
  int number;      // from 1
  int count;
  int socket;
};

}  // namespace

static bool _IsMulticast(const MDATA_RELAY_CFG& relay) {
  if (relay.iDestAddressFamily == AF_INET) return (relay.acDestAddress[0] & 0xE0) == 0xE0;
  return relay.acDestAddress[0] == 0xFF;
}

static bool _SetIntOption(int socket, int level, int option, int value) {
  return setsockopt(socket, level, option, &value, sizeof(value)) == 0;
}

void _InitRelayers(MDATA_SRC_HANDLE hSource) {
  MdStore(hSource->SourceTTL, -1);
  MdStore(hSource->SourceTOS, -1);
  // KEPT: all eight slots, configured or not, and any negative value.
  for (int i = 0; i < MDATA_MAX_RELAYS; ++i) {
    MdStore(hSource->Relayers[i].iRelaySocket, -1);
    hSource->Relayers[i].CurrentRelayTTL = -1;
    if (hSource->Config.Relays[i].IpTOS < 0) hSource->bDetectTOS = TRUE;
    if (hSource->Config.Relays[i].IpTTL < 0) hSource->bDetectTTL = TRUE;
  }
}

// KEPT: "multcast" and "hopes" are spelt so, and IPv6 multicast succeeds silently.
static bool _SetUpIPv4TTL(const RelaySetup& relay) {
  const int ttl = relay.config->IpTTL;
  const bool isMulticast = _IsMulticast(*relay.config);
  const bool set = _SetIntOption(relay.socket, IPPROTO_IP, isMulticast ? IP_MULTICAST_TTL : IP_TTL, ttl);
  if (!set && isMulticast)
    MD_LOG_ERRNO(3, "Failed to set multicast TTL to %d on socket %d (%d/%d), errno (%d): \"%s\".\n", ttl, relay.socket,
                 relay.number, relay.count);
  else if (!set)
    MD_LOG_ERRNO(3, "Failed to set unicast TTL to %d on socket %d (%d/%d), errno (%d): \"%s\".\n", ttl, relay.socket,
                 relay.number, relay.count);
  else if (isMulticast)
    MD_LOG(6, "Successfully set multcast TTL on socket %d (%d/%d) to %d.\n", relay.socket, relay.number, relay.count,
           ttl);
  else
    MD_LOG(6, "Successfully set unicast TTL on socket %d (%d/%d) to %d.\n", relay.socket, relay.number, relay.count,
           ttl);
  return set;
}

static bool _SetUpIPv6Hops(const RelaySetup& relay) {
  const int hops = relay.config->IpTTL;
  const bool isMulticast = _IsMulticast(*relay.config);
  const int option = isMulticast ? IPV6_MULTICAST_HOPS : IPV6_UNICAST_HOPS;
  const bool set = _SetIntOption(relay.socket, IPPROTO_IPV6, option, hops);
  if (!set && isMulticast)
    MD_LOG_ERRNO(3, "Failed to set IPv6 multicast hops to %d on socket %d (%d/%d), errno (%d): \"%s\".\n", hops,
                 relay.socket, relay.number, relay.count);
  else if (!set)
    MD_LOG_ERRNO(3, "Failed to set IPv6 unicast hops to %d on socket %d (%d/%d), errno (%d): \"%s\".\n", hops,
                 relay.socket, relay.number, relay.count);
  else if (!isMulticast)
    MD_LOG(6, "Successfully set IPv6 unicast hopes on socket %d (%d/%d) to %d.\n", relay.socket, relay.number,
           relay.count, hops);
  return set;
}

static bool _SetUpRelayTOS(const RelaySetup& relay) {
  const UINT tos = static_cast<UINT>(relay.config->IpTOS);
  const bool ipv4 = relay.config->iDestAddressFamily == AF_INET;
  const bool set = ipv4 ? _SetIntOption(relay.socket, IPPROTO_IP, IP_TOS, relay.config->IpTOS)
                        : _SetIntOption(relay.socket, IPPROTO_IPV6, IPV6_TCLASS, relay.config->IpTOS);
  if (!set && ipv4)
    MD_LOG_ERRNO(3, "Failed to set TOS to 0x%X on socket %d (%d/%d), errno (%d): \"%s\".\n", tos, relay.socket,
                 relay.number, relay.count);
  else if (!set)
    MD_LOG_ERRNO(3, "Failed to set traffic class to 0x%X on socket %d (%d/%d), errno (%d): \"%s\".\n", tos,
                 relay.socket, relay.number, relay.count);
  else if (ipv4)
    MD_LOG(6, "Successfully set TOS socket %d (%d/%d) to 0x%X.\n", relay.socket, relay.number, relay.count, tos);
  else
    MD_LOG(6, "Successfully set traffic class on socket %d (%d/%d) to 0x%X.\n", relay.socket, relay.number, relay.count,
           tos);
  return set;
}

static int _ConnectToDestination(const RelaySetup& relay) {
  struct sockaddr_storage address = {};
  socklen_t size = 0;
  if (relay.config->iDestAddressFamily == AF_INET) {
    struct sockaddr_in ipv4 = {};
    ipv4.sin_family = AF_INET;
    ipv4.sin_port = htons(relay.config->usUDPPort);
    memcpy(&ipv4.sin_addr, relay.config->acDestAddress, sizeof(ipv4.sin_addr));
    size = sizeof(ipv4);
    memcpy(&address, &ipv4, size);
  } else {
    struct sockaddr_in6 ipv6 = {};
    ipv6.sin6_family = AF_INET6;
    ipv6.sin6_port = htons(relay.config->usUDPPort);
    ipv6.sin6_scope_id = relay.scopeId;
    memcpy(&ipv6.sin6_addr, relay.config->acDestAddress, sizeof(ipv6.sin6_addr));
    size = sizeof(ipv6);
    memcpy(&address, &ipv6, size);
  }
  return connect(relay.socket, reinterpret_cast<const struct sockaddr*>(&address), size);
}

static bool _ConnectRelay(const RelaySetup& relay) {
  char buffer[INET6_ADDRSTRLEN] = {};
  const char* address = GetIPAddressString(relay.config->iDestAddressFamily, relay.config->acDestAddress, buffer,
                                           static_cast<int>(sizeof(buffer)));
  const UINT port = relay.config->usUDPPort;
  if (_ConnectToDestination(relay) == 0) {
    MD_LOG(5, "Successfully connected socket %d (%d/%d) to [%s]:%u.\n", relay.socket, relay.number, relay.count,
           address, port);
    return true;
  }
  if (errno == EINPROGRESS) {
    MD_LOG(4, "Connect in progress for socket %d (%d/%d) to [%s]:%u.\n", relay.socket, relay.number, relay.count,
           address, port);
    return true;
  }
  MD_LOG_ERRNO(3, "Failed to connect socket %d (%d/%d) to [%s]:%u, errno (%d): \"%s\".\n", relay.socket, relay.number,
               relay.count, address, port);
  return false;
}

// Sets up a new socket for sending. Returns false if the opening must fail.
static bool _SetUpRelaySocket(const RelaySetup& relay) {
  int on = 1;
  if (ioctl(relay.socket, FIONBIO, &on) != 0) {
    MD_LOG_ERRNO(3, "Failed to make socket %d (%d/%d) non-blocking, errno (%d): \"%s\".\n", relay.socket, relay.number,
                 relay.count);
    return false;
  }
  // KEPT: a TTL of 0 leaves the system's default, a TOS of 0 is set.
  if (relay.config->IpTTL > 0) {
    if (!(relay.config->iDestAddressFamily == AF_INET ? _SetUpIPv4TTL(relay) : _SetUpIPv6Hops(relay))) return false;
  }
  if (relay.config->IpTOS >= 0 && !_SetUpRelayTOS(relay)) return false;
  return _ConnectRelay(relay);
}

// Creates one relay's socket and stores it in *createdSocket once it is ready. Returns false if the opening must fail.
static bool _CreateRelayingSocket(RelaySetup relay, int* createdSocket) {
  const int family = relay.config->iDestAddressFamily;
  if (family != AF_INET && family != AF_INET6) return true;
  relay.socket = socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (relay.socket < 0) {
    MD_LOG_ERRNO(3, "Failed to create relaying socket %d/%d, errno (%d): \"%s\".\n", relay.number, relay.count);
    return true;  // KEPT: this relay stays without a socket, the source opens
  }
  MD_LOG(6, "Successfully created %s socket %d (%d/%d).\n", family == AF_INET ? "IPv4" : "IPv6", relay.socket,
         relay.number, relay.count);
  if (!_SetUpRelaySocket(relay)) {
    close(relay.socket);
    return false;
  }
  *createdSocket = relay.socket;
  MD_LOG(5, "Successfully initialized relaying socket %d (%d/%d).\n", relay.socket, relay.number, relay.count);
  return true;
}

BOOL _CreateRelayingSockets(const MDATA_SRC_CFG* pCfg, int* piSockets, size_t nNumOfSockets) {
  MD_LOG(6, "Called to create %d relaying sockets.\n", pCfg->nNumOfRelays);
  UINT32 scopeId = 0;
  GetInterfaceIPv6ScopeID("eth0", &scopeId);
  MD_ASSERT(pCfg->nNumOfRelays <= nNumOfSockets);
  bool ok = pCfg->nNumOfRelays <= nNumOfSockets;
  for (size_t i = 0; i < nNumOfSockets; ++i) piSockets[i] = -1;
  for (UINT32 i = 0; ok && i < pCfg->nNumOfRelays; ++i) {
    MD_ASSERT((pCfg->Relays[i].iDestAddressFamily == AF_INET) || (pCfg->Relays[i].iDestAddressFamily == AF_INET6));
    ok = _CreateRelayingSocket(
        {&pCfg->Relays[i], scopeId, static_cast<int>(i) + 1, static_cast<int>(pCfg->nNumOfRelays), -1}, &piSockets[i]);
  }
  if (!ok) {
    MD_LOG(5, "Closing any sockets created.\n");
    for (size_t i = 0; i < nNumOfSockets; ++i) _CloseDescriptor(piSockets[i]);
  }
  return ok ? TRUE : FALSE;
}

// =====================================================================================================
// 2. Following TTL and TOS. Metadata thread.
// =====================================================================================================

// Notes a received value. Returns true if it differs from the previous one, as the first one always does.
static bool _NoteReceived(const BYTE* received, int& current, UINT64& updates, UINT32& upTimeInSecs) {
  if (received == nullptr || *received == MdLoad(current)) return false;
  MdStore(current, *received);
  MdAddFetch(updates, 1);
  UINT32 now = 0;
  if (GetSystemUPTime(&now)) MdStore(upTimeInSecs, now);
  return true;
}

// A change that fails is retried only with the next change.
static void _FollowTOS(MDATA_SRC_HANDLE hSource, UINT32 i, int tos) {
  const MDATA_RELAY_CFG& relay = hSource->Config.Relays[i];
  RELAYER* relayer = &hSource->Relayers[i];
  const UINT tosBits = static_cast<UINT>(tos);
  if (relay.iDestAddressFamily != AF_INET) return;  // KEPT: IPv6 relays never follow
  if (relay.IpTOS >= 0) {
    MD_LOG(7, "TOS already OK at 0x%X.\n", tosBits);
    return;
  }
  MD_LOG(6, "TOS needs to change from 0x%X to 0x%X for relayer #%d/%d.\n", static_cast<UINT>(relayer->CurrentRelayTOS),
         tosBits, static_cast<int>(i) + 1, static_cast<int>(hSource->Config.nNumOfRelays));
  const int socket = MdLoadAcquire(relayer->iRelaySocket);
  if (!_SetIntOption(socket, IPPROTO_IP, IP_TOS, tos)) {
    MD_LOG_ERRNO(3, "Failed to set TOS to 0x%X on socket %d, errno (%d): \"%s\".\n", tosBits, socket);
    return;
  }
  MD_LOG(6, "Successfully set TOS to 0x%X.\n", tosBits);
  relayer->CurrentRelayTOS = tos;
}

static void _FollowTTL(MDATA_SRC_HANDLE hSource, UINT32 i, int ttl) {
  const MDATA_RELAY_CFG& relay = hSource->Config.Relays[i];
  RELAYER* relayer = &hSource->Relayers[i];
  if (relay.iDestAddressFamily != AF_INET) return;
  if (relay.IpTTL >= 0) {
    MD_LOG(7, "TTL already OK at %d.\n", ttl);
    return;
  }
  MD_LOG(6, "TTL needs to change from 0x%X to 0x%X.\n", static_cast<UINT>(relayer->CurrentRelayTTL),
         static_cast<UINT>(ttl));
  const bool isMulticast = _IsMulticast(relay);
  const int socket = MdLoadAcquire(relayer->iRelaySocket);
  const bool set = _SetIntOption(socket, IPPROTO_IP, isMulticast ? IP_MULTICAST_TTL : IP_TTL, ttl);
  if (!set && isMulticast)
    MD_LOG_ERRNO(3, "Failed to set multicast TTL on socket, errno (%d): \"%s\".\n");
  else if (!set)
    MD_LOG_ERRNO(3, "Failed to set TTL to %d on socket, errno (%d): \"%s\".\n", ttl);
  else if (isMulticast)
    MD_LOG(6, "Successfully set multcast TTL on socket to %d.\n", ttl);
  else
    MD_LOG(6, "Successfully set TTL to %d.\n", ttl);
  if (set) relayer->CurrentRelayTTL = ttl;
}

// =====================================================================================================
// 3. Sending and counting. Metadata thread.
// =====================================================================================================

static void _CountRelayError(RELAYER* relayer, int error) {
  MdStore(relayer->iLastRelayError, error);
  MdStore(relayer->iLastRelayErrorTime, static_cast<int>(time(nullptr)));
  MdAddFetch(relayer->nRelayErrors, 1);
}

// Sends one message to one relay. Returns true if all of it was sent.
static bool _SendToRelay(MDATA_SRC_HANDLE hSource, UINT32 i, std::span<const BYTE> message) {
  RELAYER* relayer = &hSource->Relayers[i];
  const int number = static_cast<int>(i) + 1;
  const int count = static_cast<int>(hSource->Config.nNumOfRelays);
  const int socket = MdLoadAcquire(relayer->iRelaySocket);
  const ssize_t sent = send(socket, message.data(), message.size(), 0);
  if (sent >= 0 && static_cast<size_t>(sent) == message.size()) {
    MdAddFetch(relayer->nRelayedBytes, message.size());
    MdAddFetch(relayer->nRelayedMessages, 1);
    MD_LOG(7, "Successfully transmitted %d bytes on socket %d of relay#%d/%d.\n", static_cast<int>(message.size()),
           socket, number, count);
    return true;
  }
  _CountRelayError(relayer, errno);
  const time_t now = MdLoad(relayer->iLastRelayErrorTime);
  if (now - relayer->tLastRelayErrLogTime <= kLogHoldOffSecs) return false;
  relayer->tLastRelayErrLogTime = now;
  // ECONNREFUSED: nobody listens at the destination; not our error.
  MD_LOG_ERRNO(errno == ECONNREFUSED ? 6 : 3,
               "Failed to relay %d bytes of metadata on socket %d of relay#%d/%d, rc=%d, errno (%d): \"%s\".\n",
               static_cast<int>(message.size()), socket, number, count, static_cast<int>(sent));
  return false;
}

BOOL _RelayMetaData(MDATA_SRC_HANDLE hSource, const void* pvBuffer, size_t nSize, const BYTE* pcTOS,
                    const BYTE* pcTTL) {
  // A message that arrives before the source is open is not relayed. Its TTL and TOS must not count as seen either:
  // sockets that follow would then keep the system's values until the sender changes its own again.
  if (!MdLoadAcquire(hSource->bRelaysReady)) return FALSE;
  MD_LOG(7, "Called for %d relays.\n", hSource->Config.nNumOfRelays);
  const bool tosChanged =
      _NoteReceived(pcTOS, hSource->SourceTOS, hSource->nSourceTOSUpdates, hSource->nLastSourceTOSUpdateUpTimeInSecs);
  const bool ttlChanged =
      _NoteReceived(pcTTL, hSource->SourceTTL, hSource->nSourceTTLUpdates, hSource->nLastSourceTTLUpdateUpTimeInSecs);
  const std::span message(static_cast<const BYTE*>(pvBuffer), nSize);
  bool relayed = false;
  for (UINT32 i = 0; i < hSource->Config.nNumOfRelays; ++i) {
    if (tosChanged && pcTOS != nullptr)
      _FollowTOS(hSource, i, *pcTOS);
    else
      MD_LOG(7, "Not checking TOS.\n");
    if (ttlChanged && pcTTL != nullptr)
      _FollowTTL(hSource, i, *pcTTL);
    else
      MD_LOG(7, "Not checking TTL.\n");
    if (_SendToRelay(hSource, i, message)) relayed = true;
  }
  return relayed ? TRUE : FALSE;
}
