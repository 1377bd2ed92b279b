// SPDX-License-Identifier: Apache-2.0
// Serial devices in a descriptor set, on pseudo-terminals: pieces, loss and return of a device, and exclusive use.
#include "serial_line.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "runtime_test.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

int OpenDescriptors() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
  return count;
}

// A pseudo-terminal with a name of its own, as an adapter has the name that udev gives it.
class SerialLineTest : public RuntimeTest {
 protected:
  SerialLineTest() {
    m_link = Folder() + "/adapter";
    Plug();
    m_config.serialDevices["/dev/ttyPS0"] = m_link;
    Apply();
    EXPECT_TRUE(__FDMGR_CreateSet("Test", &m_set, HERE));
  }
  ~SerialLineTest() override {
    FDMGR_CloseSet(&m_set);
    if (m_port >= 0) close(m_port);
    Unplug();
  }

  void Plug() {
    m_far = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_EQ(grantpt(m_far), 0);
    EXPECT_EQ(unlockpt(m_far), 0);
    EXPECT_EQ(ptsname_r(m_far, m_name, sizeof(m_name)), 0);
    std::filesystem::create_symlink(m_name, m_link);
  }
  void Unplug() {
    std::filesystem::remove(m_link);
    if (m_far >= 0) close(std::exchange(m_far, -1));
  }

  bool Open() { return OpenSerialPortDevice("/dev/ttyPS0", &m_port); }
  // Opens the device and reads in the callback as the library does.
  void OpenInSet(int baud = 115200) {
    const MDATA_SERIAL_SRC_CFG settings = {baud, 0, 0, 0, 8};
    ASSERT_TRUE(Open());
    ASSERT_TRUE(ConfigureSerialPort(m_port, &settings, nullptr));
    AddPort();
  }
  void AddPort() { ASSERT_TRUE(__FDMGR_AddReadFD(m_set, m_port, &SerialLineTest::Called, this, nullptr, HERE)); }
  void ClosePort() {
    EXPECT_TRUE(__FDMGR_RemoveReadFD(m_set, m_port, HERE));
    EXPECT_EQ(close(std::exchange(m_port, -1)), 0);
  }
  static void Called(HFDSET, int fd, int, void* pvTest, void*) {
    auto* test = static_cast<SerialLineTest*>(pvTest);
    if (test->m_busy > 0) {
      --test->m_busy;
      return;
    }
    char buffer[48];
    const ssize_t size = read(fd, buffer, sizeof(buffer));
    test->m_pieces.push_back(size < 0 ? "error" : std::string(buffer, static_cast<size_t>(size)));
  }

  void Interval(int ms) {
    const timeval interval = {ms / 1000, ms % 1000 * 1000};
    EXPECT_TRUE(FDMGR_SetSelectTimeout(m_set, &interval, nullptr, nullptr, nullptr));
  }
  // Selects until a condition holds, for at most ten seconds.
  bool SelectUntil(const std::function<bool()>& done) {
    Interval(20);
    return Eventually([&] { return FDMGR_Select(m_set) >= 0 && done(); });
  }
  void Send(const std::string& text) {
    EXPECT_EQ(write(m_far, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  std::string Got() const {
    std::string all;
    for (const std::string& piece : m_pieces) all += piece;
    return all;
  }
  std::string Filler() const { return std::string(16, '\xFF'); }
  std::string Gone() const { return "Serial device \"" + m_link + "\" is gone; waiting for it to come back."; }
  std::string Back() const { return "Serial device \"" + m_link + "\" is back."; }
  std::vector<std::string> Warnings() {
    std::vector<std::string> texts;
    for (const HostLogLine& line : Lines()) {
      if (line.module == "HOST" && line.level <= 4) texts.push_back(line.text);
    }
    return texts;
  }

  std::string m_link;
  int m_far = -1;
  char m_name[64] = "";
  int m_port = -1;
  HFDSET m_set = nullptr;
  std::vector<std::string> m_pieces;
  int m_busy = 0;  // number of callbacks that do not read
};

// --- pieces ------------------------------------------------------------------------------------------

TEST_F(SerialLineTest, AFewBytesAreNotHandedOutBeforeMoreHaveCome) {
  OpenInSet(9600);
  Send("12345");
  Interval(0);
  EXPECT_EQ(FDMGR_Select(m_set), 0);
  Send("6789abcdefghij");
  EXPECT_TRUE(SelectUntil([&] { return !m_pieces.empty(); }));
  EXPECT_THAT(m_pieces, ElementsAre("123456789abcdefghij"));
}

TEST_F(SerialLineTest, AFewBytesOnAQuietLineAreHandedOutWithinThePass) {
  OpenInSet();
  Send("12345");
  Interval(10'000);
  EXPECT_EQ(FDMGR_Select(m_set), 1);
  EXPECT_THAT(m_pieces, ElementsAre("12345"));
}

TEST_F(SerialLineTest, GatheringNeitherDelaysOthersNorTheTimeOut) {
  OpenInSet(50);  // a quarter of a second for a short piece
  const int event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  int calls = 0;
  ASSERT_TRUE(__FDMGR_AddReadFD(
      m_set, event, [](HFDSET, int, int, void* pvCalls, void*) { ++*static_cast<int*>(pvCalls); }, &calls, nullptr,
      HERE));
  Send("1");
  eventfd_write(event, 1);
  Interval(10'000);
  EXPECT_EQ(FDMGR_Select(m_set), 1);
  EXPECT_EQ(calls, 1);
  EXPECT_THAT(m_pieces, IsEmpty());
  EXPECT_TRUE(__FDMGR_RemoveReadFD(m_set, event, HERE));
  close(event);
  Send("2");
  Interval(1);
  EXPECT_EQ(FDMGR_Select(m_set), 0);
  EXPECT_THAT(m_pieces, IsEmpty());
}

TEST_F(SerialLineTest, BytesThatACallbackLeftAreHandedOutAgain) {
  OpenInSet();
  m_busy = 3;
  Send(std::string(30, 'x'));
  Interval(10'000);
  EXPECT_EQ(FDMGR_Select(m_set), 1);
  Interval(0);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(FDMGR_Select(m_set), 1);
  EXPECT_EQ(FDMGR_Select(m_set), 0);
  EXPECT_THAT(m_pieces, ElementsAre(std::string(30, 'x')));
}

TEST_F(SerialLineTest, MuchAtOnceArrivesWholeAndInOrder) {
  OpenInSet();
  std::string all;
  for (int i = 0; i < 20'000; ++i) all += static_cast<char>(i * 7 + i / 256);
  std::thread sender([&] { Send(all); });
  EXPECT_TRUE(SelectUntil([&] { return Got().size() >= all.size(); }));
  sender.join();
  EXPECT_TRUE(Got() == all);
}

TEST_F(SerialLineTest, OutOfTheSetTheDescriptorIsTheDeviceAgain) {
  const int before = OpenDescriptors();
  OpenInSet(19200);
  EXPECT_TRUE(__FDMGR_RemoveReadFD(m_set, m_port, HERE));
  termios settings{};
  ASSERT_EQ(tcgetattr(m_port, &settings), 0);
  EXPECT_EQ(cfgetispeed(&settings), speed_t{B19200});
  EXPECT_TRUE(fcntl(m_port, F_GETFL) & O_NONBLOCK);
  EXPECT_TRUE(fcntl(m_port, F_GETFD) & FD_CLOEXEC);
  AddPort();
  Send(std::string(300, 'x'));
  EXPECT_TRUE(SelectUntil([&] { return Got().size() == 300; }));
  ClosePort();
  EXPECT_EQ(OpenDescriptors(), before);
}

// The number may have been reused for a descriptor of another owner.
TEST_F(SerialLineTest, ADescriptorClosedInTheSetTakesItsDeviceAlongAndItsNumberIsLeftAlone) {
  OpenInSet();
  const int number = std::exchange(m_port, -1);
  close(number);
  const int other = eventfd(7, EFD_CLOEXEC | EFD_NONBLOCK);
  ASSERT_EQ(other, number);
  Interval(0);
  EXPECT_EQ(FDMGR_Select(m_set), 0);
  EXPECT_TRUE(Open());  // nothing holds the device any more
  EXPECT_TRUE(__FDMGR_RemoveReadFD(m_set, number, HERE));
  eventfd_t value = 0;
  EXPECT_EQ(eventfd_read(other, &value), 0);
  EXPECT_EQ(value, 7u);
  close(other);
  EXPECT_THAT(Warnings(),
              ElementsAre("_Test: descriptor " + std::to_string(number) + " was closed before it left set \"Test\"."));
}

// --- devices that go away ----------------------------------------------------------------------------

TEST_F(SerialLineTest, ADeviceThatReturnsIsBehindTheSameDescriptorAsBefore) {
  OpenInSet(38400);
  const int before = OpenDescriptors();
  Send(std::string(30, 'a'));
  ASSERT_TRUE(SelectUntil([&] { return Got().size() == 30; }));
  Unplug();
  ASSERT_TRUE(SelectUntil([&] { return Warnings().size() == 1; }));
  EXPECT_THAT(Warnings(), ElementsAre(Gone()));
  Plug();
  ASSERT_TRUE(SelectUntil([&] { return Warnings().size() == 2; }));
  EXPECT_THAT(Warnings(), ElementsAre(Gone(), Back()));
  EXPECT_EQ(OpenDescriptors(), before);
  termios settings{};
  ASSERT_EQ(tcgetattr(m_far, &settings), 0);
  EXPECT_EQ(cfgetispeed(&settings), speed_t{B38400});
  EXPECT_FALSE(settings.c_lflag & (ICANON | ECHO | ISIG));
  Send(std::string(30, 'b'));
  ASSERT_TRUE(SelectUntil([&] { return Got().size() == 76; }));
  EXPECT_EQ(Got(), std::string(30, 'a') + Filler() + std::string(30, 'b'));
  for (const HostLogLine& line : Lines()) {
    const bool told = line.text == Gone() || line.text == Back();
    EXPECT_TRUE(!told || line.level == 4) << line.level;
  }
  ClosePort();
  EXPECT_EQ(OpenDescriptors(), before - 3);
}

TEST_F(SerialLineTest, BytesFromBeforeTheLossOfTheDeviceAreHandedOut) {
  OpenInSet(50);  // held for more than a second
  const int watcher = open(m_name, O_RDWR | O_NOCTTY | O_CLOEXEC);
  Send(std::string(20, 'a'));
  ASSERT_TRUE(Eventually([&] {
    int waiting = 0;
    return ioctl(watcher, FIONREAD, &waiting) == 0 && waiting == 20;
  }));
  close(watcher);
  Interval(0);
  EXPECT_EQ(FDMGR_Select(m_set), 0);
  Unplug();
  EXPECT_TRUE(SelectUntil([&] { return !m_pieces.empty(); }));
  EXPECT_EQ(Got(), std::string(20, 'a'));
}

TEST_F(SerialLineTest, WhileTheDeviceIsLostTheThreadSleeps) {
  OpenInSet();
  Unplug();
  ASSERT_TRUE(SelectUntil([&] { return Warnings().size() == 1; }));
  timespec start{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &start);
  Interval(600);
  EXPECT_EQ(FDMGR_Select(m_set), 0);
  timespec end{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &end);
  EXPECT_LT(static_cast<double>(end.tv_sec - start.tv_sec) + static_cast<double>(end.tv_nsec - start.tv_nsec) / 1e9,
            0.1);
  EXPECT_THAT(m_pieces, IsEmpty());
}

TEST_F(SerialLineTest, ADeviceThatHungUpBeforeItWasAddedReturnsToo) {
  const MDATA_SERIAL_SRC_CFG settings = {9600, 0, 0, 0, 8};
  ASSERT_TRUE(Open());
  ASSERT_TRUE(ConfigureSerialPort(m_port, &settings, nullptr));
  Unplug();
  AddPort();
  ASSERT_TRUE(SelectUntil([&] { return Warnings().size() == 1; }));
  Plug();
  ASSERT_TRUE(SelectUntil([&] { return Warnings().size() == 2; }));
  Send(std::string(300, 'b'));
  EXPECT_TRUE(SelectUntil([&] { return Got().size() == 300; }));
}

TEST_F(SerialLineTest, ASourceIsClosedWhileItsDeviceIsLost) {
  const int before = OpenDescriptors();
  OpenInSet();
  Unplug();
  ASSERT_TRUE(SelectUntil([&] { return Warnings().size() == 1; }));
  ClosePort();
  EXPECT_EQ(OpenDescriptors(), before - 1);  // and that of the far end
  Plug();
  OpenInSet();
  Send(std::string(300, 'b'));
  EXPECT_TRUE(SelectUntil([&] { return Got().size() == 300; }));
}

TEST(LossLimit, ReportsTwentyLossesAtOnceAndOnePerSecondAfterThat) {
  host_runtime::LossLimit limit;
  int told = 0;
  for (int64_t i = 0; i < 100; ++i) told += limit.Allow(i * 100'000'000) ? 1 : 0;
  EXPECT_GE(told, 28);
  EXPECT_LE(told, 30);
}

// --- who has a device --------------------------------------------------------------------------------

TEST_F(SerialLineTest, ADeviceIsNeverShared) {
  OpenInSet();
  int second = 0;
  EXPECT_FALSE(OpenSerialPortDevice("/dev/ttyPS0", &second));
  EXPECT_EQ(second, -1);
  EXPECT_FALSE(OpenSerialPortDevice(m_name, &second));
  EXPECT_THAT(Warnings(),
              ElementsAre("Serial device \"" + m_link + "\" is in use; a device is never shared.",
                          "Serial device \"" + std::string(m_name) + "\" is in use; a device is never shared."));
  const std::string take = "flock --nonblock " + std::string(m_name) + " true";
  EXPECT_NE(system(take.c_str()), 0);
  ClosePort();
  EXPECT_EQ(system(take.c_str()), 0);
  EXPECT_TRUE(Open());
}

TEST_F(SerialLineTest, ADeviceThatAnotherProcessTookMeanwhileIsLeftToIt) {
  OpenInSet();
  Unplug();
  ASSERT_TRUE(SelectUntil([&] { return Warnings().size() == 1; }));
  Plug();
  const int other = open(m_name, O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_EQ(flock(other, LOCK_EX | LOCK_NB), 0);
  Interval(600);
  EXPECT_EQ(FDMGR_Select(m_set), 0);
  EXPECT_THAT(Warnings(), SizeIs(1));
  close(other);
  EXPECT_TRUE(SelectUntil([&] { return Warnings().size() == 2; }));
}

}  // namespace
