// Serial ports through termios.
#include <errno.h>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <optional>

#include "runtime.h"

static std::optional<speed_t> Speed(int baud) {
  static const std::map<int, speed_t> kSpeeds = {
      {1200, B1200},     {2400, B2400},     {4800, B4800},     {9600, B9600},      {19200, B19200},
      {38400, B38400},   {57600, B57600},   {115200, B115200}, {230400, B230400},  {460800, B460800},
      {500000, B500000}, {576000, B576000}, {921600, B921600}, {1000000, B1000000}};
  const auto found = kSpeeds.find(baud);
  return found == kSpeeds.end() ? std::nullopt : std::optional<speed_t>(found->second);
}

static std::optional<tcflag_t> CharacterSize(int bits) {
  switch (bits) {
    case 5:
      return CS5;
    case 6:
      return CS6;
    case 7:
      return CS7;
    case 8:
      return CS8;
    default:
      return {};
  }
}

static BOOL Refuse(const char* what, int value) {
  HOST_LOG(3, "serial port: %s %d is not supported", what, value);
  errno = EINVAL;
  return FALSE;
}

static bool SetParity(termios& settings, int parity) {
  settings.c_cflag &= ~static_cast<tcflag_t>(PARENB | PARODD);
  if (parity == HOST_SERIAL_PARITY_ODD) settings.c_cflag |= PARENB | PARODD;
  if (parity == HOST_SERIAL_PARITY_EVEN) settings.c_cflag |= PARENB;
  return parity >= HOST_SERIAL_PARITY_NONE && parity <= HOST_SERIAL_PARITY_EVEN;
}

static bool SetFlowControl(termios& settings, int flow) {
  settings.c_cflag &= ~static_cast<tcflag_t>(CRTSCTS);
  settings.c_iflag &= ~static_cast<tcflag_t>(IXON | IXOFF | IXANY);
  if (flow == HOST_SERIAL_FLOW_HARDWARE) settings.c_cflag |= CRTSCTS;
  if (flow == HOST_SERIAL_FLOW_SOFTWARE) settings.c_iflag |= IXON | IXOFF;
  return flow >= HOST_SERIAL_FLOW_NONE && flow <= HOST_SERIAL_FLOW_SOFTWARE;
}

extern "C" {

BOOL OpenSerialPortDevice(const char* szPath, int* piFD) {
  const HostRuntimeConfig config = runtime::Config();
  const auto mapped = config.serialDevices.find(szPath);
  const std::string path = mapped == config.serialDevices.end() ? szPath : mapped->second;
  const int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    HOST_LOG(3, "cannot open serial device \"%s\": %s", path.c_str(), runtime::ErrorText(errno).c_str());
    return FALSE;
  }
  *piFD = fd;
  return TRUE;
}

BOOL ConfigureSerialPort(int iFD, const MDATA_SERIAL_SRC_CFG* pConfig, struct termios* pOldSettings) {
  if (tcgetattr(iFD, pOldSettings) != 0) {
    HOST_LOG(3, "not a serial port: %s", runtime::ErrorText(errno).c_str());
    return FALSE;
  }
  const std::optional<speed_t> speed = Speed(pConfig->nBaudRate);
  if (!speed) return Refuse("baud rate", pConfig->nBaudRate);
  const std::optional<tcflag_t> size = CharacterSize(pConfig->nDataBits);
  if (!size) return Refuse("number of data bits", pConfig->nDataBits);
  termios settings = *pOldSettings;
  cfmakeraw(&settings);
  settings.c_cflag = (settings.c_cflag & ~static_cast<tcflag_t>(CSIZE)) | *size | CLOCAL | CREAD;
  if (!SetParity(settings, pConfig->enParity)) return Refuse("parity", pConfig->enParity);
  if (!SetFlowControl(settings, pConfig->enFlowControl)) return Refuse("flow control", pConfig->enFlowControl);
  if (pConfig->enStopBits != HOST_SERIAL_STOP_1 && pConfig->enStopBits != HOST_SERIAL_STOP_2)
    return Refuse("number of stop bits", pConfig->enStopBits);
  settings.c_cflag &= ~static_cast<tcflag_t>(CSTOPB);
  if (pConfig->enStopBits == HOST_SERIAL_STOP_2) settings.c_cflag |= CSTOPB;
  settings.c_cc[VMIN] = 0;
  settings.c_cc[VTIME] = 0;
  cfsetispeed(&settings, *speed);
  cfsetospeed(&settings, *speed);
  if (tcsetattr(iFD, TCSANOW, &settings) == 0) return TRUE;
  HOST_LOG(3, "cannot configure the serial port: %s", runtime::ErrorText(errno).c_str());
  return FALSE;
}

}  // extern "C"
