/* SPDX-License-Identifier: Apache-2.0 */
/* The host services of metadata_lib as small as they can be: what to begin a port with. There is UDP over IPv4, and the
 * log on standard error; there is no serial port, video input, IPv6, real-time priority or INI file. What each service
 * owes the library is in docs/integration.md. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "host.h"

#define SITE const char *function, const char *file, int line /* where the library calls from */
#pragma GCC diagnostic ignored "-Wunused-parameter"           /* this host has no use for many of them */

/* --- Log: any thread; stdio locks it. Assertions return, because received data can raise some of them. ----------- */

static struct tagDBG_MODULE modules[2] = {{5}, {5}}; /* the library opens METADATALIB and COTCONVERTER */
BOOL _DoDbgInit(const char* name, HDBG* module) {
  return (*module = &modules[strcmp(name, "COTCONVERTER") == 0]) != NULL;
}
void _DoDbgPrintEx(HDBG module, int level, SITE, const char* format, ...) {
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  fprintf(stderr, "%d %s (%s:%d) %.*s\n", level, function, file, line, (int)strcspn(text, "\n"), text);
}
void _DoDbgPrintBuffer(HDBG module, int level, SITE, const char* title, const void* data, int size) {
  _DoDbgPrintEx(module, level, function, file, line, "%s: %d bytes", title, size);
}
void _DoAssert(const char* expression, SITE) {
  fprintf(stderr, "ASSERTION %s (%s:%d) %s\n", function, file, line, expression);
}
void _DoTextAssert(SITE, const char* format, ...) { _DoAssert(format, function, file, line); }

/* --- Descriptor sets: one thread drives a set, and its callbacks remove descriptors while it does. --------------- */

enum { MOST_DESCRIPTORS = 64 };
struct entry {
  FDMGR_READ_CALLBACK call;
  void *first, *second;
};
struct tagHOST_FDSET {
  int count;
  struct pollfd wait[MOST_DESCRIPTORS]; /* fd is -1 once removed, until the pass ends */
  struct entry entries[MOST_DESCRIPTORS];
  int interval; /* milliseconds, or -1 */
  FDMGR_TIMEOUT_CALLBACK timeout;
  void *first, *second;
};
BOOL __FDMGR_CreateSet(const char* name, HFDSET* set, SITE) {
  *set = calloc(1, sizeof **set);
  if (*set != NULL) (*set)->interval = -1;
  return *set != NULL;
}
BOOL __FDMGR_AddReadFD(HFDSET set, int fd, FDMGR_READ_CALLBACK call, void* first, void* second, const char* function,
                       const char* file, int line) {
  if (set->count == MOST_DESCRIPTORS) return FALSE;
  set->wait[set->count] = (struct pollfd){fd, POLLIN, 0};
  set->entries[set->count++] = (struct entry){call, first, second};
  return TRUE;
}
BOOL __FDMGR_RemoveReadFD(HFDSET set, int fd, SITE) {
  int i = 0;
  while (i < set->count && set->wait[i].fd != fd) ++i;
  if (i < set->count) set->wait[i] = (struct pollfd){-1, 0, 0};
  return i < set->count;
}
BOOL FDMGR_SetSelectTimeout(HFDSET set, const struct timeval* interval, FDMGR_TIMEOUT_CALLBACK timeout, void* first,
                            void* second) {
  set->interval = interval == NULL ? -1 : (int)(interval->tv_sec * 1000 + (interval->tv_usec + 999) / 1000);
  set->timeout = timeout;
  set->first = first;
  set->second = second;
  return TRUE;
}
int FDMGR_Select(HFDSET set) {
  int i, kept, called = 0;
  int ready = poll(set->wait, (nfds_t)set->count, set->interval);
  if (ready < 0) return errno == EINTR ? 0 : -1;
  if (ready == 0 && set->timeout != NULL) set->timeout(set, set->first, set->second);
  for (i = 0; ready > 0 && i < set->count; ++i) {
    if (set->wait[i].revents == 0) continue;
    set->wait[i].revents = 0;
    set->entries[i].call(set, set->wait[i].fd, 1, set->entries[i].first, set->entries[i].second);
    ++called;
  }
  for (i = kept = 0; i < set->count; ++i) {
    set->wait[kept] = set->wait[i];
    set->entries[kept] = set->entries[i];
    kept += set->wait[i].fd >= 0;
  }
  set->count = kept;
  return called;
}
BOOL FDMGR_CloseSet(HFDSET* set) {
  free(*set);
  return (*set = NULL) == NULL;
}

/* --- Mailboxes: a pipe that carries pointers. Any thread sends, one receives; it is readable while messages wait. */

struct tagHOST_MBOX_MSG {
  MBOX_MSGHEADER header; /* the room for data is behind the record */
};
struct tagHOST_MBOX {
  int ends[2];
};
BOOL MBOX_CreateMailBox(const MBOX_CONFIG* config, HMBOX* box) {
  *box = calloc(1, sizeof **box);
  if (*box != NULL && pipe2((*box)->ends, O_NONBLOCK | O_CLOEXEC) != 0) free(*box), *box = NULL;
  return *box != NULL;
}
BOOL MBOX_SendMessage(HMBOX box, HMBOXMSG message, DWORD options) {
  return write(box->ends[1], &message, sizeof message) == sizeof message; /* FALSE once 8192 messages wait */
}
BOOL MBOX_RecvMessage(HMBOX box, HMBOXMSG* message) {
  return read(box->ends[0], message, sizeof *message) == sizeof *message;
}
BOOL MBOX_CloseMailBox(HMBOX* box) {
  HMBOXMSG message;
  while (MBOX_RecvMessage(*box, &message)) free(message);
  close((*box)->ends[0]);
  close((*box)->ends[1]);
  free(*box);
  return (*box = NULL) == NULL;
}

/* --- Threads, with a stack and a priority by default, and wait conditions ---------------------------------------- */

struct tagHOST_THREAD {
  pthread_t thread;
  HOST_THREAD_ROUTINE routine;
  void* argument;
  BOOL started;
};
static void* run(void* thread) {
  ((HTHREAD)thread)->routine(((HTHREAD)thread)->argument);
  return NULL;
}
BOOL CreateThread(HTHREAD* thread, const char* name, DWORD stack, DWORD priority, HOST_THREAD_ROUTINE routine,
                  void* argument) {
  *thread = calloc(1, sizeof **thread);
  if (*thread == NULL) return FALSE;
  **thread = (struct tagHOST_THREAD){.routine = routine, .argument = argument};
  return TRUE;
}
BOOL StartThread(HTHREAD thread) { return thread->started = pthread_create(&thread->thread, NULL, run, thread) == 0; }
BOOL WaitForThread(HTHREAD thread) {
  if (thread->started) pthread_join(thread->thread, NULL);
  free(thread);
  return TRUE;
}

BOOL WaitCond_Init(WAIT_COND* cond) {
  pthread_condattr_t monotonic;
  pthread_condattr_init(&monotonic);
  pthread_condattr_setclock(&monotonic, CLOCK_MONOTONIC);
  cond->nCount = 0;
  return pthread_mutex_init(&cond->Mutex, NULL) == 0 && pthread_cond_init(&cond->Cond, &monotonic) == 0;
}
BOOL WaitCond_Post(WAIT_COND* cond) {
  pthread_mutex_lock(&cond->Mutex);
  ++cond->nCount;
  pthread_cond_signal(&cond->Cond);
  pthread_mutex_unlock(&cond->Mutex);
  return TRUE;
}
BOOL _DoWaitCond_WaitFor(WAIT_COND* cond, DWORD milliseconds, SITE) {
  struct timespec end;
  int failed = 0, taken;
  clock_gettime(CLOCK_MONOTONIC, &end);
  end.tv_nsec += milliseconds % 1000 * 1000000L;
  end.tv_sec += milliseconds / 1000 + end.tv_nsec / 1000000000;
  end.tv_nsec %= 1000000000;
  pthread_mutex_lock(&cond->Mutex);
  while (cond->nCount == 0 && failed == 0) failed = pthread_cond_timedwait(&cond->Cond, &cond->Mutex, &end);
  taken = cond->nCount > 0;
  cond->nCount -= (UINT64)taken;
  pthread_mutex_unlock(&cond->Mutex);
  if (!taken) errno = failed;
  return taken;
}
void WaitCond_Destroy(WAIT_COND* cond) {
  pthread_cond_destroy(&cond->Cond);
  pthread_mutex_destroy(&cond->Mutex);
}

/* --- Sockets ----------------------------------------------------------------------------------------------------- */

BOOL CreateUDPRxSocket(USHORT port, const BYTE* group, int* fd) {
  struct sockaddr_in local = {.sin_family = AF_INET, .sin_port = htons(port)};
  struct ip_mreq join = {{0}, {0}};
  if (group != NULL) memcpy(&join.imr_multiaddr, group, 4);
  const int shared = IN_MULTICAST(ntohl(join.imr_multiaddr.s_addr));
  *fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  setsockopt(*fd, SOL_SOCKET, SO_REUSEADDR, &shared, sizeof shared);
  if (*fd < 0 || bind(*fd, (struct sockaddr*)&local, sizeof local) != 0 ||
      (shared && setsockopt(*fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &join, sizeof join) != 0)) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }
  return *fd >= 0;
}
char* GetIPAddressString(int family, const void* address, char* text, int size) {
  if (inet_ntop(family, address, text, (socklen_t)size) == NULL) CopyString(text, "?", size);
  return text;
}
char* GetSockAddressString(const struct sockaddr_storage* address, char* text, int size) {
  const struct sockaddr_in* ipv4 = (const struct sockaddr_in*)address;
  const int length = (int)strlen(GetIPAddressString(AF_INET, &ipv4->sin_addr, text, size));
  PrintToString(text + length, size - length, ":%d", ntohs(ipv4->sin_port));
  return text;
}

/* --- Lists, time and text ---------------------------------------------------------------------------------------- */

void FastInitNode(FNODE_D* node, void* object) { *node = (FNODE_D){NULL, NULL, object}; }
void FastLinkD(FLIST_D* list, FNODE_D* node) {
  node->pNext = NULL;
  node->pPrev = list->pTail;
  *(list->pTail != NULL ? &list->pTail->pNext : &list->pHead) = node;
  list->pTail = node;
}
void FastUnlinkD(FLIST_D* list, FNODE_D* node) {
  *(node->pPrev != NULL ? &node->pPrev->pNext : &list->pHead) = node->pNext;
  *(node->pNext != NULL ? &node->pNext->pPrev : &list->pTail) = node->pPrev;
}
BOOL GetSystemUPTime(UINT32* seconds) {
  struct timespec now;
  clock_gettime(CLOCK_BOOTTIME, &now);
  *seconds = (UINT32)now.tv_sec;
  return TRUE;
}
char* GenTimeStamp(time_t time, char* text, int size) {
  struct tm utc;
  strftime(text, (size_t)size, "%F %T", gmtime_r(&time, &utc));
  return text;
}
void CalcTimeOfDayDiff(const struct timeval* start, const struct timeval* end, struct timeval* diff) {
  timersub(end, start, diff);
  if (diff->tv_sec < 0) timerclear(diff);
}
void CalcTimeOfDayAbsDiff(const struct timeval* a, const struct timeval* b, struct timeval* diff) {
  CalcTimeOfDayDiff(timercmp(a, b, <) ? a : b, timercmp(a, b, <) ? b : a, diff);
}
int PrintToString(char* text, int size, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, (size_t)size, format, arguments);
  va_end(arguments);
  return (int)strlen(text);
}
void CopyString(char* to, const char* from, int size) { PrintToString(to, size, "%s", from); }
BOOL CfgFile_GetStringValue(const char* file, const char* section, const char* key, char* value, int* size,
                            const char* fallback) {
  *size = PrintToString(value, *size, "%s", fallback);
  return FALSE;
}

/* --- What takes one line, and what this host does not have ------------------------------------------------------- */

void _DoDbgUninitEx(HDBG* module) { *module = NULL; }
int MBOX_GetNotificationFD(HMBOX box) { return box->ends[0]; }
HMBOXMSG __MBOX_AllocMessage(size_t size, SITE) { return calloc(1, sizeof(struct tagHOST_MBOX_MSG) + size); }
MBOX_MSGHEADER* MBOX_GetMessageHeader(HMBOXMSG message) { return &message->header; }
void MBOX_FreeMessage(HMBOXMSG message) { free(message); }
const char* GetUAVTagName(BYTE tag) { return "item"; }
const char* GetSecurityTagName(BYTE tag) { return "element"; }
BOOL CreateUDPv6RxSocket(USHORT port, DWORD flags, int* fd) { return FALSE; }
BOOL GetInterfaceIPv6ScopeID(const char* interface, UINT32* scope) { return (*scope = 0) != 0; }
BOOL OpenSerialPortDevice(const char* path, int* fd) { return FALSE; }
BOOL ConfigureSerialPort(int fd, const MDATA_SERIAL_SRC_CFG* config, struct termios* before) { return FALSE; }
BOOL KLVCAPTURE_Start(int interface, VIDEO_EXTRACTOR* extractor) { return FALSE; }
void KLVCAPTURE_Stop(int interface) {}
BOOL KLVCAPTURE_GetKLV(int fd, BYTE* data, int* length, UINT64* time_stamp) { return FALSE; }
/* Without rates the library reports 0 kbit/s; it asks for a handle all the same. */
BOOL __AllocCounterRateTable(int samples, const char* name, HCOUNTERRATE* rate) {
  return (*rate = (HCOUNTERRATE)modules) != NULL;
}
void AddCounterValue(HCOUNTERRATE rate, UINT64 total) {}
BOOL GetCounterRate(HCOUNTERRATE rate, int options, UINT32* kbits) { return (*kbits = 0) == 0; }
void ResetCounterRateTable(HCOUNTERRATE rate) {}
void DeleteCounterRateTable(HCOUNTERRATE rate) {}
/* Nobody watches the threads here. */
BOOL g_bThreadStateDebuggingEnabled = FALSE;
void __IncrementThreadIterations(void) {}
void __SaveThreadState(SITE) {}
void __SetThreadPausedState(BOOL paused) {}
void __SetThreadIterations(UINT iterations) {}
