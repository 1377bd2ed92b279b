// SPDX-License-Identifier: Apache-2.0
// Wraps the libc calls that leave the process with the linker's --wrap: time follows the fake clock, files are kept in
// the test's own folder, fake descriptors are scripted. All other calls pass through, and so does every call while no
// test is running: code that runs at the exit of the process, such as the writing of coverage data, gets the real
// calls.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <mutex>

#include "fake_impl.h"

static bool IsFake(int fd) {
  return g_testUnderWay && fd >= kFirstFakeFD;
}

static FDState* Find(int fd) {
  const auto found = Fake().fds.find(fd);
  return found == Fake().fds.end() || found->second.closed ? nullptr : &found->second;
}

static int Result(const Failure& failure) {
  return static_cast<int>(failure.result.value_or(-1));
}

extern "C" {

int __real_close(int);
int __real_ioctl(int, unsigned long, ...);
int __real_setsockopt(int, int, int, const void*, socklen_t);
int __real_connect(int, const struct sockaddr*, socklen_t);
ssize_t __real_send(int, const void*, size_t, int);
ssize_t __real_recvmsg(int, struct msghdr*, int);
ssize_t __real_read(int, void*, size_t);
int __real_open(const char*, int, ...);
FILE* __real_fopen(const char*, const char*);
FILE* __real_fdopen(int, const char*);
int __real_ftruncate(int, off_t);
uid_t __real_geteuid();
int __real_pthread_mutex_clocklock(pthread_mutex_t*, clockid_t, const struct timespec*);
int __real_fclose(FILE*);
time_t __real_time(time_t*);
int __real_gettimeofday(struct timeval*, void*);
int __real_clock_gettime(clockid_t, struct timespec*);
int __real_nanosleep(const struct timespec*, struct timespec*);
int __real_socket(int, int, int);

time_t __wrap_time(time_t* out) {
  if (!g_testUnderWay) return __real_time(out);
  const time_t now = host().NowSeconds();
  if (out != nullptr) *out = now;
  return now;
}

int __wrap_gettimeofday(struct timeval* out, void* zone) {
  if (!g_testUnderWay) return __real_gettimeofday(out, zone);
  std::lock_guard guard(Fake().lock);
  if (const auto failure = Fake().Call("gettimeofday")) return Result(*failure);
  out->tv_sec = Fake().wallMicroseconds / 1000000;
  out->tv_usec = Fake().wallMicroseconds % 1000000;
  return 0;
}

int __wrap_clock_gettime(clockid_t clock, struct timespec* out) {
  if (!g_testUnderWay) return __real_clock_gettime(clock, out);
  std::lock_guard guard(Fake().lock);
  if (const auto failure = Fake().Call("clock_gettime")) return Result(*failure);
  if (clock == CLOCK_REALTIME_COARSE) {
    const long now = Fake().wallMicroseconds - Fake().coarseLagMicroseconds;
    *out = {now / 1000000, now % 1000000 * 1000};
    return 0;
  }
  out->tv_sec = Fake().upMilliseconds / 1000;
  out->tv_nsec = Fake().upMilliseconds % 1000 * 1000000;
  return 0;
}

int __wrap_nanosleep(const struct timespec* pause, struct timespec* rest) {
  if (!g_testUnderWay) return __real_nanosleep(pause, rest);
  std::lock_guard guard(Fake().lock);
  Fake().Call("nanosleep");
  host().Advance(pause->tv_sec * 1000 + pause->tv_nsec / 1000000);
  return 0;
}

// The holder of the mutex keeps it as long as any thread waits.
int __wrap_pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock, const struct timespec* until) {
  if (!g_testUnderWay) return __real_pthread_mutex_clocklock(mutex, clock, until);
  Fake().Call("pthread_mutex_clocklock");
  EXPECT_EQ(clock, CLOCK_MONOTONIC) << "a wait on a clock that can be set";
  if (pthread_mutex_trylock(mutex) == 0) return 0;
  std::lock_guard guard(Fake().lock);
  const long end = until->tv_sec * 1000 + until->tv_nsec / 1000000;
  if (end > Fake().upMilliseconds) host().Advance(end - Fake().upMilliseconds);
  return ETIMEDOUT;
}

uid_t __wrap_geteuid() {
  if (!g_testUnderWay) return __real_geteuid();
  if (const auto other = Fake().Call("geteuid")) return static_cast<uid_t>(Result(*other));
  return __real_geteuid();
}

int __wrap_socket(int family, int type, int protocol) {
  if (!g_testUnderWay) return __real_socket(family, type, protocol);
  std::lock_guard guard(Fake().lock);
  if (const auto failure = Fake().Call("socket")) return Result(*failure);
  const int fd = Fake().NewFD("socket");
  Fake().fds[fd].family = family;
  Fake().fds[fd].closeOnExec = (type & SOCK_CLOEXEC) != 0;
  return fd;
}

int __wrap_close(int fd) {
  if (!g_testUnderWay) return __real_close(fd);
  std::lock_guard guard(Fake().lock);
  if (!IsFake(fd)) {
    Fake().openFiles.erase(fd);
    return __real_close(fd);
  }
  const auto failure = Fake().Call("close");
  FDState* state = Find(fd);
  if (state == nullptr) {
    ADD_FAILURE() << "descriptor " << fd << " closed twice";
    errno = EBADF;
    return -1;
  }
  state->closed = true;
  return failure ? Result(*failure) : 0;
}

int __wrap_ioctl(int fd, unsigned long request, ...) {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  if (!IsFake(fd)) return __real_ioctl(fd, request, argument);
  std::lock_guard guard(Fake().lock);
  if (const auto failure = Fake().Call("ioctl")) return Result(*failure);
  if (request == FIONBIO) Fake().fds[fd].nonBlocking = *static_cast<int*>(argument) != 0;
  return 0;
}

int __wrap_setsockopt(int fd, int level, int option, const void* value, socklen_t length) {
  if (!IsFake(fd)) return __real_setsockopt(fd, level, option, value, length);
  std::lock_guard guard(Fake().lock);
  if (const auto failure = Fake().Call("setsockopt")) return Result(*failure);
  const BYTE* bytes = static_cast<const BYTE*>(value);
  Fake().fds[fd].options.push_back({level, option, Bytes(bytes, bytes + length)});
  return 0;
}

int __wrap_connect(int fd, const struct sockaddr* address, socklen_t length) {
  if (!IsFake(fd)) return __real_connect(fd, address, length);
  std::lock_guard guard(Fake().lock);
  memcpy(&Fake().fds[fd].connectedTo, address, length);
  if (const auto failure = Fake().Call("connect")) return Result(*failure);
  return 0;
}

ssize_t __wrap_send(int fd, const void* data, size_t size, int flags) {
  if (!g_testUnderWay || (fd >= 0 && !IsFake(fd))) return __real_send(fd, data, size, flags);
  std::lock_guard guard(Fake().lock);
  if (const auto failure = Fake().Call("send")) return Result(*failure);
  FDState* state = Find(fd);
  if (state == nullptr) {
    errno = EBADF;
    return -1;
  }
  const BYTE* bytes = static_cast<const BYTE*>(data);
  state->sent.emplace_back(bytes, bytes + size);
  return static_cast<ssize_t>(size);
}

ssize_t __wrap_read(int fd, void* buffer, size_t size) {
  if (!IsFake(fd)) return __real_read(fd, buffer, size);
  std::lock_guard guard(Fake().lock);
  if (const auto failure = Fake().Call("read")) return Result(*failure);
  FDState* state = Find(fd);
  if (state == nullptr || (state->serial.empty() && !state->hungUp)) {
    errno = state == nullptr ? EBADF : EAGAIN;
    return -1;
  }
  const size_t taken = std::min(size, state->serial.size());
  std::copy_n(state->serial.begin(), taken, static_cast<BYTE*>(buffer));
  state->serial.erase(state->serial.begin(), state->serial.begin() + static_cast<long>(taken));
  return static_cast<ssize_t>(taken);
}

static socklen_t Address(const DatagramInfo& info, sockaddr_storage* out) {
  memset(out, 0, sizeof *out);
  sockaddr_in* four = reinterpret_cast<sockaddr_in*>(out);
  if (inet_pton(AF_INET, info.from.c_str(), &four->sin_addr) == 1) {
    four->sin_family = AF_INET;
    four->sin_port = htons(static_cast<uint16_t>(info.port));
    return sizeof *four;
  }
  sockaddr_in6* six = reinterpret_cast<sockaddr_in6*>(out);
  inet_pton(AF_INET6, info.from.c_str(), &six->sin6_addr);
  six->sin6_family = AF_INET6;
  six->sin6_port = htons(static_cast<uint16_t>(info.port));
  return sizeof *six;
}

static void AppendControl(Bytes& area, int level, int type, const void* value, size_t size) {
  const size_t at = area.size();
  area.resize(at + CMSG_SPACE(size));
  cmsghdr header = {};
  header.cmsg_len = CMSG_LEN(size);
  header.cmsg_level = level;
  header.cmsg_type = type;
  memcpy(area.data() + at, &header, sizeof header);
  memcpy(area.data() + at + CMSG_LEN(0), value, size);
}

static Bytes Control(const DatagramInfo& info, bool ipv6) {
  if (!info.control.empty()) return info.control;
  Bytes area;
  if (info.tos) {
    const int wide = *info.tos;
    const BYTE narrow = static_cast<BYTE>(wide);
    if (ipv6)
      AppendControl(area, IPPROTO_IPV6, IPV6_TCLASS, &wide, sizeof wide);
    else
      AppendControl(area, IPPROTO_IP, IP_TOS, &narrow, sizeof narrow);
  }
  if (info.ttl) {
    const int ttl = *info.ttl;
    AppendControl(area, ipv6 ? IPPROTO_IPV6 : IPPROTO_IP, ipv6 ? IPV6_HOPLIMIT : IP_TTL, &ttl, sizeof ttl);
  }
  return area;
}

// Records the arguments of a receive. Fails the test if the call can block or its buffers cannot hold a datagram's
// data.
static void CheckReceive(const struct msghdr& message, int flags) {
  const HostRecords::Receive call = {flags, message.msg_iovlen == 0 ? 0 : message.msg_iov[0].iov_len,
                                     message.msg_namelen, message.msg_controllen};
  host().receives.push_back(call);
  EXPECT_EQ(flags, MSG_DONTWAIT) << "recvmsg: the metadata thread must not block";
  EXPECT_TRUE(message.msg_iovlen == 1 && message.msg_iov[0].iov_base != nullptr) << "recvmsg: one part, with memory";
  EXPECT_EQ(call.nameSize, message.msg_name == nullptr ? 0 : sizeof(sockaddr_storage)) << "recvmsg: the sender's room";
  // Room for a TOS or traffic class and a TTL or hop limit, as two numbers.
  EXPECT_EQ(call.controlSize, message.msg_control == nullptr ? 0 : 2 * CMSG_SPACE(sizeof(int)))
      << "recvmsg: the room for control messages";
}

ssize_t __wrap_recvmsg(int fd, struct msghdr* message, int flags) {
  if (!IsFake(fd)) return __real_recvmsg(fd, message, flags);
  std::lock_guard guard(Fake().lock);
  CheckReceive(*message, flags);
  if (const auto failure = Fake().Call("recvmsg")) return failure->result.value_or(-1);
  FDState* state = Find(fd);
  if (state == nullptr || state->datagrams.empty()) {
    errno = state == nullptr ? EBADF : EAGAIN;
    return -1;
  }
  const QueuedDatagram datagram = state->datagrams.front();
  state->datagrams.pop_front();
  sockaddr_storage from;
  const socklen_t length = Address(datagram.info, &from);
  if (message->msg_name != nullptr) memcpy(message->msg_name, &from, std::min(message->msg_namelen, length));
  message->msg_namelen = length;
  const size_t taken = std::min(message->msg_iov[0].iov_len, datagram.bytes.size());
  std::copy_n(datagram.bytes.begin(), taken, static_cast<BYTE*>(message->msg_iov[0].iov_base));
  const Bytes control = Control(datagram.info, from.ss_family == AF_INET6);
  const size_t given = message->msg_control == nullptr ? 0 : std::min<size_t>(message->msg_controllen, control.size());
  if (given != 0) memcpy(message->msg_control, control.data(), given);
  message->msg_controllen = given;
  message->msg_flags = (taken < datagram.bytes.size() ? MSG_TRUNC : 0) | (given < control.size() ? MSG_CTRUNC : 0);
  return static_cast<ssize_t>(taken);
}

int __wrap_open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  if (!g_testUnderWay) return __real_open(path, flags, mode);
  std::lock_guard guard(Fake().lock);
  if (const auto failure = Fake().Call("open")) return Result(*failure);
  const int fd = __real_open(host().RealPath(path).c_str(), flags, mode);
  if (fd >= 0) Fake().openFiles[fd] = path;
  return fd;
}

FILE* __wrap_fopen(const char* path, const char* mode) {
  if (!g_testUnderWay) return __real_fopen(path, mode);
  std::lock_guard guard(Fake().lock);
  if (Fake().Call("fopen")) return nullptr;
  FILE* file = __real_fopen(host().RealPath(path).c_str(), mode);
  if (file != nullptr) Fake().openStreams[file] = path;
  return file;
}

FILE* __wrap_fdopen(int fd, const char* mode) {
  if (!g_testUnderWay) return __real_fdopen(fd, mode);
  std::lock_guard guard(Fake().lock);
  if (Fake().Call("fdopen")) return nullptr;
  FILE* file = __real_fdopen(fd, mode);
  if (file == nullptr) return nullptr;
  // From here on the stream owns the descriptor.
  Fake().openStreams[file] = Fake().openFiles[fd];
  Fake().openFiles.erase(fd);
  return file;
}

int __wrap_ftruncate(int fd, off_t size) {
  if (!g_testUnderWay) return __real_ftruncate(fd, size);
  if (const auto failure = Fake().Call("ftruncate")) return Result(*failure);
  return __real_ftruncate(fd, size);
}

int __wrap_fclose(FILE* file) {
  if (!g_testUnderWay) return __real_fclose(file);
  std::lock_guard guard(Fake().lock);
  Fake().openStreams.erase(file);
  return __real_fclose(file);
}

}  // extern "C"
