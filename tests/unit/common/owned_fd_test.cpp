// SPDX-License-Identifier: Apache-2.0
#include "owned_fd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace common {
namespace {

int OpenNull() {
  const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  EXPECT_GE(fd, 0);
  return fd;
}

bool IsOpen(int fd) {
  return fcntl(fd, F_GETFD) >= 0;
}

TEST(OwnedFD, ClosesItsDescriptorAtTheEnd) {
  const int fd = OpenNull();
  {
    const OwnedFD owned(fd);
    EXPECT_EQ(owned.Get(), fd);
    EXPECT_TRUE(owned.IsOpen());
    EXPECT_TRUE(IsOpen(fd));
  }
  EXPECT_FALSE(IsOpen(fd));
}

TEST(OwnedFD, StandsForNoneAfterAFailedCall) {
  const OwnedFD owned(open("/nonexistent", O_RDONLY | O_CLOEXEC));
  EXPECT_FALSE(owned.IsOpen());
  EXPECT_LT(owned.Get(), 0);
}

TEST(OwnedFD, ResetClosesTheOldDescriptorAndOwnsTheNewOne) {
  const int first = OpenNull();
  const int second = OpenNull();
  OwnedFD owned(first);
  owned.Reset(second);
  EXPECT_FALSE(IsOpen(first));
  EXPECT_EQ(owned.Get(), second);
  owned.Reset();
  EXPECT_FALSE(IsOpen(second));
  EXPECT_FALSE(owned.IsOpen());
}

TEST(OwnedFD, ReleaseGivesUpOwnership) {
  const int fd = OpenNull();
  {
    OwnedFD owned(fd);
    EXPECT_EQ(owned.Release(), fd);
    EXPECT_FALSE(owned.IsOpen());
  }
  EXPECT_TRUE(IsOpen(fd));
  close(fd);
}

TEST(OwnedFD, MovingHandsOverTheDescriptor) {
  const int fd = OpenNull();
  const int replaced = OpenNull();
  OwnedFD first(fd);
  OwnedFD second(replaced);
  second = std::move(first);
  EXPECT_FALSE(IsOpen(replaced));
  EXPECT_EQ(second.Get(), fd);
  const OwnedFD third(std::move(second));
  EXPECT_EQ(third.Get(), fd);
  EXPECT_TRUE(IsOpen(fd));
}

TEST(OwnedFD, ClosingLeavesTheReasonOfAFailure) {
  OwnedFD bad(1 << 20);  // nothing is open under this number: close() fails with EBADF
  errno = EBUSY;
  bad.Reset();
  EXPECT_EQ(errno, EBUSY);
}

}  // namespace
}  // namespace common
