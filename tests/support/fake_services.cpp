// SPDX-License-Identifier: Apache-2.0
// Implements the host services of the fake host.
#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <strings.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fake_impl.h"

static std::string Format(const char* format, va_list arguments) {
  va_list copy;
  va_copy(copy, arguments);
  const int size = vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text(static_cast<size_t>(size) + 1, '\0');
  vsnprintf(text.data(), text.size(), format, arguments);
  text.resize(static_cast<size_t>(size));
  return text;
}

BOOL g_bThreadStateDebuggingEnabled = FALSE;

extern "C" {

// --- debug -------------------------------------------------------------------------------------------

BOOL _DoDbgInit(const char* szName, HDBG* phDbg) {
  std::lock_guard guard(Fake().lock);
  *phDbg = nullptr;
  if (Fake().Fails("_DoDbgInit")) return FALSE;
  DebugModule& module = Fake().modules[szName];
  module.name = szName;
  const auto level = Fake().levels.find(szName);
  __atomic_store_n(&module.nMaxLevel, level == Fake().levels.end() ? 8 : level->second, __ATOMIC_RELAXED);
  *phDbg = &module;
  return TRUE;
}

void _DoDbgUninitEx(HDBG* phDbg) {
  *phDbg = nullptr;
}

void _DoDbgPrintEx(HDBG hDbg, int nLevel, const char* szFunction, const char* szFile, int, const char* szFormat, ...) {
  va_list arguments;
  va_start(arguments, szFormat);
  const std::string text = Format(szFormat, arguments);
  va_end(arguments);
  std::function<void()> act;
  {
    std::lock_guard guard(Fake().lock);
    if (auto node = Fake().acts.extract(text)) act = node.mapped();
  }
  if (act) act();
  std::lock_guard guard(Fake().lock);
  Fake().logs.push_back({static_cast<DebugModule*>(hDbg)->name, nLevel, szFunction, szFile, text});
}

void _DoDbgPrintBuffer(HDBG, int nLevel, const char*, const char*, int, const char* szTitle, const void* pvData,
                       int nSize) {
  const BYTE* data = static_cast<const BYTE*>(pvData);
  std::lock_guard guard(Fake().lock);
  Fake().dumps.push_back({nLevel, szTitle, Bytes(data, data + nSize)});
}

void _DoAssert(const char* szExpression, const char* szFunction, const char* szFile, int) {
  std::lock_guard guard(Fake().lock);
  Fake().assertions.push_back({szFunction, szFile, szExpression});
}

void _DoTextAssert(const char* szFunction, const char* szFile, int, const char* szFormat, ...) {
  va_list arguments;
  va_start(arguments, szFormat);
  const std::string text = Format(szFormat, arguments);
  va_end(arguments);
  std::lock_guard guard(Fake().lock);
  Fake().assertions.push_back({szFunction, szFile, text, true});
}

// --- descriptor sets ---------------------------------------------------------------------------------

BOOL __FDMGR_CreateSet(const char* szName, HFDSET* phSet, const char*, const char*, int) {
  std::lock_guard guard(Fake().lock);
  if (Fake().Fails("__FDMGR_CreateSet")) return FALSE;
  host().setName = szName;
  *phSet = new tagHOST_FDSET;
  Fake().sets.insert(*phSet);
  Fake().currentSet = *phSet;
  return TRUE;
}

BOOL __FDMGR_AddReadFD(HFDSET hSet, int iFD, FDMGR_READ_CALLBACK pfnCallback, void* pvParam1, void* pvParam2,
                       const char*, const char*, int) {
  std::lock_guard guard(Fake().lock);
  if (Fake().Fails("__FDMGR_AddReadFD")) return FALSE;
  hSet->entries.push_back({iFD, pfnCallback, pvParam1, pvParam2});
  return TRUE;
}

BOOL __FDMGR_RemoveReadFD(HFDSET hSet, int iFD, const char*, const char*, int) {
  std::lock_guard guard(Fake().lock);
  if (Fake().Fails("__FDMGR_RemoveReadFD")) return FALSE;
  return std::erase_if(hSet->entries, [&](const SetEntry& entry) { return entry.fd == iFD; }) != 0 ? TRUE : FALSE;
}

BOOL FDMGR_SetSelectTimeout(HFDSET hSet, const struct timeval* pInterval, FDMGR_TIMEOUT_CALLBACK pfnCallback,
                            void* pvParam1, void* pvParam2) {
  std::lock_guard guard(Fake().lock);
  Fake().Call("FDMGR_SetSelectTimeout");
  hSet->interval = pInterval == nullptr ? std::nullopt : std::optional<timeval>(*pInterval);
  hSet->timeoutCallback = pfnCallback;
  hSet->param1 = pvParam1;
  hSet->param2 = pvParam2;
  return TRUE;
}

int FDMGR_Select(HFDSET hSet) {
  Host::Impl& fake = Fake();
  std::vector<SetEntry> ready;
  FDMGR_TIMEOUT_CALLBACK timeoutCallback = nullptr;
  {
    std::unique_lock guard(fake.lock);
    fake.Call("FDMGR_Select");
    if (fake.running && std::this_thread::get_id() == fake.metadataThread) {
      fake.atSelect = true;
      fake.changed.notify_all();
      fake.changed.wait(guard, [&] { return fake.granted; });
      fake.granted = false;
    }
    for (const SetEntry& entry : hSet->entries)
      if (fake.Readable(entry.fd)) ready.push_back(entry);
    if (fake.timeOut && ready.empty()) timeoutCallback = hSet->timeoutCallback;
    fake.timeOut = false;
  }
  if (timeoutCallback != nullptr) timeoutCallback(hSet, hSet->param1, hSet->param2);
  int dispatched = 0;
  for (const SetEntry& entry : ready) {
    bool present = false;
    {
      std::lock_guard guard(fake.lock);
      for (const SetEntry& now : hSet->entries) present = present || now.fd == entry.fd;
    }
    if (!present) continue;
    entry.callback(hSet, entry.fd, 1, entry.param1, entry.param2);
    ++dispatched;
  }
  return dispatched;
}

BOOL FDMGR_CloseSet(HFDSET* phSet) {
  std::lock_guard guard(Fake().lock);
  Fake().Call("FDMGR_CloseSet");
  if (Fake().currentSet == *phSet) Fake().currentSet = nullptr;
  Fake().sets.erase(*phSet);
  delete *phSet;
  *phSet = nullptr;
  return TRUE;
}

// --- mailboxes ---------------------------------------------------------------------------------------

BOOL MBOX_CreateMailBox(const MBOX_CONFIG* pConfig, HMBOX* phMBox) {
  std::lock_guard guard(Fake().lock);
  if (Fake().Fails("MBOX_CreateMailBox")) return FALSE;
  host().mboxConfig = *pConfig;
  host().mboxName = pConfig->szName;
  *phMBox = new tagHOST_MBOX{Fake().NewFD("mailbox"), {}};
  Fake().mailboxes.insert(*phMBox);
  return TRUE;
}

int MBOX_GetNotificationFD(HMBOX hMBox) {
  return hMBox->fd;
}

HMBOXMSG __MBOX_AllocMessage(size_t, const char*, const char*, int) {
  std::lock_guard guard(Fake().lock);
  if (Fake().Fails("__MBOX_AllocMessage")) return nullptr;
  HMBOXMSG hMsg = new tagHOST_MBOX_MSG{};
  Fake().messages.insert(hMsg);
  return hMsg;
}

MBOX_MSGHEADER* MBOX_GetMessageHeader(HMBOXMSG hMsg) {
  return &hMsg->header;
}

BOOL MBOX_SendMessage(HMBOX hMBox, HMBOXMSG hMsg, DWORD) {
  std::lock_guard guard(Fake().lock);
  if (Fake().Fails("MBOX_SendMessage")) return FALSE;
  hMBox->queue.push_back(hMsg);
  return TRUE;
}

BOOL MBOX_RecvMessage(HMBOX hMBox, HMBOXMSG* phMsg) {
  std::lock_guard guard(Fake().lock);
  if (Fake().Fails("MBOX_RecvMessage") || hMBox->queue.empty()) return FALSE;
  *phMsg = hMBox->queue.front();
  hMBox->queue.pop_front();
  return TRUE;
}

void MBOX_FreeMessage(HMBOXMSG hMsg) {
  std::lock_guard guard(Fake().lock);
  if (Fake().messages.erase(hMsg) == 0) ADD_FAILURE() << "a message was freed twice";
  delete hMsg;
}

BOOL MBOX_CloseMailBox(HMBOX* phMBox) {
  std::lock_guard guard(Fake().lock);
  Fake().Call("MBOX_CloseMailBox");
  for (HMBOXMSG hMsg : (*phMBox)->queue) {
    Fake().messages.erase(hMsg);
    delete hMsg;
  }
  Fake().fds[(*phMBox)->fd].closed = true;
  Fake().mailboxes.erase(*phMBox);
  delete *phMBox;
  *phMBox = nullptr;
  return TRUE;
}

// --- wait conditions ---------------------------------------------------------------------------------

BOOL WaitCond_Init(WAIT_COND* pCond) {
  std::lock_guard guard(Fake().lock);
  pCond->nCount = 0;
  Fake().conditions.insert(pCond);
  return Fake().Fails("WaitCond_Init") ? FALSE : TRUE;
}

BOOL WaitCond_Post(WAIT_COND* pCond) {
  std::lock_guard guard(Fake().lock);
  ++pCond->nCount;
  host().outstandingPosts = static_cast<int>(pCond->nCount);
  return Fake().Fails("WaitCond_Post") ? FALSE : TRUE;
}

BOOL _DoWaitCond_WaitFor(WAIT_COND* pCond, DWORD nMilliseconds, const char*, const char*, int) {
  Host::Impl& fake = Fake();
  {
    std::lock_guard guard(fake.lock);
    host().waits.push_back(nMilliseconds);
    if (fake.Fails("_DoWaitCond_WaitFor")) return FALSE;
  }
  for (;;) {
    {
      std::unique_lock guard(fake.lock);
      if (pCond->nCount > 0) {
        --pCond->nCount;
        host().outstandingPosts = static_cast<int>(pCond->nCount);
        return TRUE;
      }
      if (!fake.hold) fake.changed.wait(guard, [&] { return fake.atSelect || !fake.running; });
      if (fake.hold || !fake.running || !fake.AnyReadable()) {
        host().Advance(static_cast<long>(nMilliseconds));
        errno = ETIMEDOUT;
        return FALSE;
      }
    }
    fake.Grant(false);
  }
}

void WaitCond_Destroy(WAIT_COND* pCond) {
  std::lock_guard guard(Fake().lock);
  Fake().Call("WaitCond_Destroy");
  if (Fake().conditions.erase(pCond) == 0) ADD_FAILURE() << "a wait condition was destroyed that was not initialised";
}

// --- threads -----------------------------------------------------------------------------------------

BOOL CreateThread(HTHREAD* phThread, const char* szName, DWORD nStackSize, DWORD nPriority,
                  HOST_THREAD_ROUTINE pfnRoutine, void* pvArgument) {
  std::lock_guard guard(Fake().lock);
  if (Fake().Fails("CreateThread")) return FALSE;
  host().threadName = szName;
  host().threadOptions = {nStackSize, nPriority};
  *phThread = new tagHOST_THREAD;
  (*phThread)->routine = pfnRoutine;
  (*phThread)->argument = pvArgument;
  Fake().threads.insert(*phThread);
  return TRUE;
}

BOOL StartThread(HTHREAD hThread) {
  Host::Impl& fake = Fake();
  std::unique_lock guard(fake.lock);
  if (fake.Fails("StartThread")) return FALSE;
  hThread->started = true;
  fake.running = true;
  fake.atSelect = false;
  hThread->thread = std::thread([&fake, hThread] {
    {
      std::lock_guard inner(fake.lock);
      fake.metadataThread = std::this_thread::get_id();
    }
    hThread->routine(hThread->argument);
    std::lock_guard inner(fake.lock);
    fake.running = false;
    fake.atSelect = false;
    fake.changed.notify_all();
  });
  fake.changed.wait(guard, [&] { return fake.atSelect || !fake.running; });
  return TRUE;
}

BOOL WaitForThread(HTHREAD hThread) {
  Host::Impl& fake = Fake();
  if (hThread->started) {
    bool moves = true;
    for (int i = 0; host().ThreadRuns() && moves && i < 1000; ++i) moves = fake.GrantAsReal();
    if (host().ThreadRuns()) {
      ADD_FAILURE() << (moves ? "the joined thread does not end" : "the joined thread sleeps for ever");
      // Makes one more pass, which no real thread would make, so that the other tests can run.
      fake.Grant(false);
      if (host().ThreadRuns()) {
        fprintf(stderr, "The metadata thread cannot be ended.\n");
        abort();
      }
    }
    hThread->thread.join();
  }
  std::lock_guard guard(fake.lock);
  fake.Call("WaitForThread");
  fake.threads.erase(hThread);
  delete hThread;
  return TRUE;
}

void __IncrementThreadIterations(void) {
  std::lock_guard guard(Fake().lock);
  ++host().threadIterations;
}

void __SaveThreadState(const char* szFunction, const char*, int) {
  std::lock_guard guard(Fake().lock);
  host().savedStates.emplace_back(szFunction);
}

void __SetThreadPausedState(BOOL bPaused) {
  std::lock_guard guard(Fake().lock);
  host().pausedStates.push_back(bPaused);
}

void __SetThreadIterations(UINT nIterations) {
  std::lock_guard guard(Fake().lock);
  host().iterations.push_back(nIterations);
}

// --- sockets and serial ------------------------------------------------------------------------------

BOOL CreateUDPRxSocket(USHORT usPort, const BYTE* acAddress, int* piFD) {
  std::lock_guard guard(Fake().lock);
  host().udpSocketCalls.push_back({usPort, Bytes(acAddress, acAddress + 4), 0, false});
  if (Fake().Fails("CreateUDPRxSocket")) return FALSE;
  *piFD = Fake().NewFD("udp4");
  return TRUE;
}

BOOL CreateUDPv6RxSocket(USHORT usPort, DWORD dwFlags, int* piFD) {
  std::lock_guard guard(Fake().lock);
  host().udpSocketCalls.push_back({usPort, {}, dwFlags, true});
  if (Fake().Fails("CreateUDPv6RxSocket")) return FALSE;
  *piFD = Fake().NewFD("udp6");
  return TRUE;
}

BOOL GetInterfaceIPv6ScopeID(const char*, UINT32* pnScopeID) {
  std::lock_guard guard(Fake().lock);
  *pnScopeID = host().scopeID;
  return Fake().Fails("GetInterfaceIPv6ScopeID") || host().scopeID == 0 ? FALSE : TRUE;
}

char* GetIPAddressString(int iFamily, const void* pvAddress, char* szBuffer, int nSize) {
  if (inet_ntop(iFamily, pvAddress, szBuffer, static_cast<socklen_t>(nSize)) == nullptr)
    snprintf(szBuffer, static_cast<size_t>(nSize), "?");
  return szBuffer;
}

char* GetSockAddressString(const struct sockaddr_storage* pAddress, char* szBuffer, int nSize) {
  char text[INET6_ADDRSTRLEN] = "?";
  if (pAddress->ss_family == AF_INET6) {
    const sockaddr_in6* address = reinterpret_cast<const sockaddr_in6*>(pAddress);
    inet_ntop(AF_INET6, &address->sin6_addr, text, sizeof text);
    snprintf(szBuffer, static_cast<size_t>(nSize), "[%s]:%u", text, ntohs(address->sin6_port));
  } else {
    const sockaddr_in* address = reinterpret_cast<const sockaddr_in*>(pAddress);
    inet_ntop(AF_INET, &address->sin_addr, text, sizeof text);
    snprintf(szBuffer, static_cast<size_t>(nSize), "%s:%u", text, ntohs(address->sin_port));
  }
  return szBuffer;
}

BOOL OpenSerialPortDevice(const char* szPath, int* piFD) {
  std::lock_guard guard(Fake().lock);
  host().serialPath = szPath;
  if (Fake().Fails("OpenSerialPortDevice")) return FALSE;
  *piFD = Fake().NewFD("serial");
  return TRUE;
}

BOOL ConfigureSerialPort(int, const MDATA_SERIAL_SRC_CFG* pConfig, struct termios* pOldSettings) {
  std::lock_guard guard(Fake().lock);
  host().serialConfig = *pConfig;
  memset(pOldSettings, 0, sizeof *pOldSettings);
  return Fake().Fails("ConfigureSerialPort") ? FALSE : TRUE;
}

// --- capture -----------------------------------------------------------------------------------------

BOOL KLVCAPTURE_Start(int iInterface, VIDEO_EXTRACTOR* pExtractor) {
  std::lock_guard guard(Fake().lock);
  host().captureStarts.push_back(iInterface);
  if (Fake().Fails("KLVCAPTURE_Start")) return FALSE;
  pExtractor->iFD = Fake().NewFD("capture");
  Fake().fds[pExtractor->iFD].interface = iInterface;
  return TRUE;
}

void KLVCAPTURE_Stop(int iInterface) {
  std::lock_guard guard(Fake().lock);
  host().captureStops.push_back(iInterface);
  for (auto& [fd, state] : Fake().fds)
    if (state.kind == "capture" && state.interface == iInterface) state.closed = true;
}

BOOL KLVCAPTURE_GetKLV(int iFD, BYTE* pcData, int* pnLength, UINT64* pnTimeStamp) {
  std::lock_guard guard(Fake().lock);
  if (Fake().Fails("KLVCAPTURE_GetKLV")) return FALSE;
  std::deque<QueuedKLV>& queue = Fake().captures[Fake().fds.at(iFD).interface];
  if (queue.empty()) return FALSE;
  const QueuedKLV packet = queue.front();
  queue.pop_front();
  const size_t room = static_cast<size_t>(*pnLength);
  std::copy_n(packet.bytes.begin(), std::min(room, packet.bytes.size()), pcData);
  *pnLength = packet.length.value_or(static_cast<int>(packet.bytes.size()));
  *pnTimeStamp = packet.timestamp;
  return TRUE;
}

// --- rates -------------------------------------------------------------------------------------------

BOOL __AllocCounterRateTable(int nSamples, const char* szName, HCOUNTERRATE* phRate) {
  std::lock_guard guard(Fake().lock);
  if (Fake().Fails("__AllocCounterRateTable")) return FALSE;
  host().rateName = szName;
  host().rateSamples = nSamples;
  *phRate = new tagHOST_COUNTER_RATE{nSamples};
  Fake().rates.insert(*phRate);
  return TRUE;
}

static void CheckRate(HCOUNTERRATE hRate) {
  EXPECT_TRUE(Fake().rates.contains(hRate)) << "a rate table was used that does not exist";
}

void AddCounterValue(HCOUNTERRATE hRate, UINT64 nRunningTotal) {
  std::lock_guard guard(Fake().lock);
  CheckRate(hRate);
  host().rateTotals.push_back(nRunningTotal);
}

BOOL GetCounterRate(HCOUNTERRATE hRate, int nOptions, UINT32* pnRate) {
  std::lock_guard guard(Fake().lock);
  CheckRate(hRate);
  EXPECT_EQ(nOptions, 1) << "GetCounterRate: the selector of the rate in kbit/s";
  *pnRate = host().rate;
  return Fake().Fails("GetCounterRate") ? FALSE : TRUE;
}

void ResetCounterRateTable(HCOUNTERRATE hRate) {
  std::lock_guard guard(Fake().lock);
  CheckRate(hRate);
  ++host().rateResets;
}

void DeleteCounterRateTable(HCOUNTERRATE hRate) {
  std::lock_guard guard(Fake().lock);
  CheckRate(hRate);
  Fake().rates.erase(hRate);
  delete hRate;
}

// --- time, text, configuration, names ----------------------------------------------------------------

BOOL GetSystemUPTime(UINT32* pnSeconds) {
  std::lock_guard guard(Fake().lock);
  if (Fake().Fails("GetSystemUPTime")) return FALSE;
  *pnSeconds = static_cast<UINT32>(Fake().upMilliseconds / 1000);
  return TRUE;
}

char* GenTimeStamp(time_t tTime, char* szBuffer, int nSize) {
  struct tm broken;
  gmtime_r(&tTime, &broken);
  strftime(szBuffer, static_cast<size_t>(nSize), "%Y-%m-%d %H:%M:%S", &broken);
  return szBuffer;
}

void CalcTimeOfDayDiff(const struct timeval* pStart, const struct timeval* pEnd, struct timeval* pDiff) {
  *pDiff = {0, 0};
  if (timercmp(pEnd, pStart, >)) timersub(pEnd, pStart, pDiff);
}

void CalcTimeOfDayAbsDiff(const struct timeval* pA, const struct timeval* pB, struct timeval* pDiff) {
  if (timercmp(pA, pB, >))
    timersub(pA, pB, pDiff);
  else
    timersub(pB, pA, pDiff);
}

int PrintToString(char* szBuffer, int nSize, const char* szFormat, ...) {
  va_list arguments;
  va_start(arguments, szFormat);
  const int length = vsnprintf(szBuffer, static_cast<size_t>(nSize), szFormat, arguments);
  va_end(arguments);
  return length < nSize ? length : nSize - 1;
}

void CopyString(char* szDestination, const char* szSource, int nSize) {
  snprintf(szDestination, static_cast<size_t>(nSize), "%s", szSource);
}

BOOL CfgFile_GetStringValue(const char* szFile, const char* szSection, const char* szKey, char* szOut, int* pnSize,
                            const char* szDefault) {
  std::lock_guard guard(Fake().lock);
  Fake().Call("CfgFile_GetStringValue");
  const auto found = Fake().config.find(std::string(szFile) + "\n" + szSection + "\n" + szKey);
  const std::string value = found == Fake().config.end() ? szDefault : found->second;
  snprintf(szOut, static_cast<size_t>(*pnSize), "%s", value.c_str());
  *pnSize = static_cast<int>(strlen(szOut));
  return found == Fake().config.end() ? FALSE : TRUE;
}

// Returns names such as "UAV tag 2" and "Security tag 3".
static const char* TagName(const char* kind, BYTE tag) {
  static std::map<std::pair<std::string, BYTE>, std::string> names;
  static std::mutex lock;
  std::lock_guard guard(lock);
  std::string& name = names[{kind, tag}];
  if (name.empty()) name = std::string(kind) + " tag " + std::to_string(tag);
  return name.c_str();
}

const char* GetUAVTagName(BYTE cTag) {
  return TagName("UAV", cTag);
}
const char* GetSecurityTagName(BYTE cTag) {
  return TagName("Security", cTag);
}

// --- list --------------------------------------------------------------------------------------------

void FastInitNode(FNODE_D* pNode, void* pvObject) {
  *pNode = {nullptr, nullptr, pvObject};
}

void FastLinkD(FLIST_D* pList, FNODE_D* pNode) {
  if (memcmp(pList->acSignature, "FLST", 4) != 0) ADD_FAILURE() << "the list's signature is wrong";
  pNode->pNext = nullptr;
  pNode->pPrev = pList->pTail;
  (pList->pTail != nullptr ? pList->pTail->pNext : pList->pHead) = pNode;
  pList->pTail = pNode;
}

void FastUnlinkD(FLIST_D* pList, FNODE_D* pNode) {
  (pNode->pPrev != nullptr ? pNode->pPrev->pNext : pList->pHead) = pNode->pNext;
  (pNode->pNext != nullptr ? pNode->pNext->pPrev : pList->pTail) = pNode->pPrev;
  pNode->pNext = pNode->pPrev = nullptr;
}

}  // extern "C"
