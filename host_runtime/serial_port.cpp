// SPDX-License-Identifier: Apache-2.0
// Serial ports: opening, with the host's mapping of names, and raw mode.
#define HOST_MODULE "serial_port"

#include "serial_port.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "annotated_mutex.h"
#include "baud_rates.h"
#include "owned_fd.h"
#include "runtime_state.h"
#include "tcp_device.h"

using namespace host_runtime;
using common::Lock;
using common::Mutex;

namespace {

using common::Baud;
using common::kBauds;

bool Refuse(const char* what, int value, const char* allowed) {
  HOST_LOG(3, "Serial port: %s %d is not supported; allowed: %s.\n", what, value, allowed);
  return false;
}

bool SetBaud(int rate, termios& settings) {
  for (const Baud& baud : kBauds) {
    if (baud.rate == rate) return cfsetspeed(&settings, baud.code) == 0;
  }
  return Refuse("baud rate", rate, "the standard rates from 50 to 4000000");
}

bool SetFlow(int flow, termios& settings) {
  settings.c_cflag &= ~static_cast<tcflag_t>(CRTSCTS);
  switch (flow) {
    case HOST_SERIAL_FLOW_NONE:
      return true;
    case HOST_SERIAL_FLOW_HARDWARE:
      settings.c_cflag |= CRTSCTS;
      return true;
    case HOST_SERIAL_FLOW_SOFTWARE:
      settings.c_iflag |= IXON | IXOFF;
      return true;
    default:
      return Refuse("flow control", flow, "0 none, 1 hardware, 2 software");
  }
}

bool SetParity(int parity, termios& settings) {
  settings.c_cflag &= ~static_cast<tcflag_t>(PARENB | PARODD);
  switch (parity) {
    case HOST_SERIAL_PARITY_NONE:
      return true;
    case HOST_SERIAL_PARITY_ODD:
      settings.c_cflag |= PARENB | PARODD;
      settings.c_iflag |= INPCK;
      return true;
    case HOST_SERIAL_PARITY_EVEN:
      settings.c_cflag |= PARENB;
      settings.c_iflag |= INPCK;
      return true;
    default:
      return Refuse("parity", parity, "0 none, 1 odd, 2 even");
  }
}

bool SetFrame(int dataBits, int stopBits, termios& settings) {
  static constexpr tcflag_t kSizes[] = {CS5, CS6, CS7, CS8};
  if (dataBits < 5 || dataBits > 8) return Refuse("number of data bits", dataBits, "5 to 8");
  if (stopBits != HOST_SERIAL_STOP_1 && stopBits != HOST_SERIAL_STOP_2) {
    return Refuse("stop bit setting", stopBits, "0 for one, 1 for two");
  }
  settings.c_cflag &= ~static_cast<tcflag_t>(CSIZE | CSTOPB);
  settings.c_cflag |= kSizes[dataBits - 5];
  if (stopBits == HOST_SERIAL_STOP_2) settings.c_cflag |= CSTOPB;
  return true;
}

// --- Devices that are open ---------------------------------------------------------------------------

// The descriptors that OpenSerialPortDevice handed out, by number. Their owners close them without notice, so an entry
// is valid only while its device is still behind the number.
struct OpenDevices {
  struct Entry {
    SerialDevice device;
    dev_t number;
  };
  Mutex lock;  // leaf
  std::map<int, Entry> byFD GUARDED_BY(lock);

  // Returns the entry of fd, or the end if the number no longer refers to its device.
  std::map<int, Entry>::iterator Find(int fd) REQUIRES(lock) {
    const auto found = byFD.find(fd);
    struct stat info;
    if (found == byFD.end() || (fstat(fd, &info) == 0 && S_ISCHR(info.st_mode) && info.st_rdev == found->second.number))
      return found;
    byFD.erase(found);
    return byFD.end();
  }
};

OpenDevices& AllOpenDevices() {
  static auto* const kDevices = new OpenDevices;
  return *kDevices;
}

// The program at the other end may keep a pseudo-terminal open, so that its exclusive mark would outlive this process.
bool IsPseudoTerminal(dev_t number) {
  constexpr unsigned kFirstMajor = 136;
  constexpr unsigned kLastMajor = 143;
  return major(number) >= kFirstMajor && major(number) <= kLastMajor;
}

// The lock excludes other users of this runtime, also those of root; the mark excludes programs that take no lock.
bool Reserve(int fd) {
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) errno = EBUSY;
    return false;
  }
  struct stat info;
  if (fstat(fd, &info) == 0 && !IsPseudoTerminal(info.st_rdev)) ioctl(fd, TIOCEXCL);
  return true;
}

void NoteSettings(int fd, const termios& settings) {
  OpenDevices& devices = AllOpenDevices();
  const Lock guard(devices.lock);
  const auto found = devices.Find(fd);
  if (found != devices.byFD.end()) found->second.device.settings = settings;
}

}  // namespace

namespace host_runtime {

common::OwnedFD OpenDevice(const std::string& device) {
  common::OwnedFD fd(IsTcpDevice(device) ? OpenTcpDevice(device).Release()
                                         : open(device.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  if (!fd.IsOpen() || (isatty(fd.Get()) != 0 && Reserve(fd.Get()))) return fd;
  if (errno == EINVAL) errno = ENOTTY;  // isatty() fails with either
  return common::OwnedFD();
}

void RememberDevice(int fd, const SerialDevice& device) {
  struct stat info;
  if (fstat(fd, &info) != 0) return;
  OpenDevices& devices = AllOpenDevices();
  const Lock guard(devices.lock);
  devices.byFD[fd] = {device, info.st_rdev};
}

std::optional<SerialDevice> PopDevice(int fd) {
  OpenDevices& devices = AllOpenDevices();
  const Lock guard(devices.lock);
  const auto found = devices.Find(fd);
  if (found == devices.byFD.end() || !found->second.device.settings) return std::nullopt;
  SerialDevice device = std::move(found->second.device);
  devices.byFD.erase(found);
  return device;
}

int64_t CharacterTime(const termios& settings) {
  constexpr int kUsualRate = 9600;
  const speed_t code = cfgetispeed(&settings);
  const auto* const baud =
      std::find_if(std::begin(kBauds), std::end(kBauds), [code](const Baud& known) { return known.code == code; });
  const int rate = baud == std::end(kBauds) ? kUsualRate : baud->rate;
  const tcflag_t size = settings.c_cflag & CSIZE;
  int bits = size == CS5 ? 5 : size == CS6 ? 6 : size == CS7 ? 7 : 8;
  bits += 1 + (settings.c_cflag & PARENB ? 1 : 0) + (settings.c_cflag & CSTOPB ? 2 : 1);
  return int64_t{1'000'000'000} * bits / rate;
}

}  // namespace host_runtime

extern "C" {

BOOL OpenSerialPortDevice(const char* szPath, int* piFD) {
  if (piFD == nullptr) return FALSE;
  *piFD = -1;
  if (szPath == nullptr) return FALSE;
  return NoThrow(FALSE, [&] {
    const auto config = Config();
    const auto mapped = config->serialDevices.find(szPath);
    const std::string device = mapped == config->serialDevices.end() ? szPath : mapped->second;
    common::OwnedFD opened = OpenDevice(device);
    if (!opened.IsOpen()) {
      const int error = errno;
      if (error == EBUSY) {
        HOST_LOG(3, "Serial device \"%s\" is in use; a device is never shared.\n", device.c_str());
      } else if (error == ENOTTY) {
        HOST_LOG(3, "\"%s\" is not a serial device.\n", device.c_str());
      } else {
        HOST_LOG(3, "Cannot open serial device \"%s\": %s.\n", device.c_str(), strerror(error));
      }
      return FALSE;
    }
    RememberDevice(opened.Get(), {device, std::nullopt});
    if (device != szPath) HOST_LOG(5, "Serial device \"%s\" is \"%s\".\n", szPath, device.c_str());
    *piFD = opened.Release();
    return TRUE;
  });
}

BOOL ConfigureSerialPort(int iFD, const MDATA_SERIAL_SRC_CFG* pConfig, struct termios* pOldSettings) {
  if (pConfig == nullptr) return FALSE;
  termios settings{};
  if (tcgetattr(iFD, &settings) != 0) {
    HOST_LOG(3, "Serial port: cannot read the settings: %s.\n", strerror(errno));
    return FALSE;
  }
  if (pOldSettings != nullptr) *pOldSettings = settings;
  cfmakeraw(&settings);
  settings.c_iflag &= ~static_cast<tcflag_t>(IXOFF | IXANY | INPCK);
  settings.c_cflag |= CREAD | CLOCAL;
  // With VMIN 1 a read without data fails with EAGAIN, and 0 means that the line has hung up.
  settings.c_cc[VMIN] = 1;
  settings.c_cc[VTIME] = 0;
  if (!SetBaud(pConfig->nBaudRate, settings) || !SetFlow(pConfig->enFlowControl, settings) ||
      !SetParity(pConfig->enParity, settings) || !SetFrame(pConfig->nDataBits, pConfig->enStopBits, settings)) {
    return FALSE;
  }
  if (tcsetattr(iFD, TCSANOW, &settings) != 0) {
    HOST_LOG(3, "Serial port: cannot set %d baud, %d data bits: %s.\n", pConfig->nBaudRate, pConfig->nDataBits,
             strerror(errno));
    return FALSE;
  }
  // tcsetattr succeeds if it could make any of the settings.
  termios actual{};
  constexpr tcflag_t kFrame = CSIZE | CSTOPB | PARENB | PARODD | CRTSCTS;
  if (tcgetattr(iFD, &actual) == 0 &&
      ((actual.c_cflag ^ settings.c_cflag) & kFrame || cfgetispeed(&actual) != cfgetispeed(&settings))) {
    HOST_LOG(4, "Serial port: the device did not take all of its settings.\n");
  }
  NoteSettings(iFD, settings);
  return TRUE;
}

}  // extern "C"
