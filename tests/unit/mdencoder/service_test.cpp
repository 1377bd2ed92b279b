// SPDX-License-Identifier: Apache-2.0
// The priorities of lines for the journal. tests/roads/service_test.py has the rest.
#include "service.h"

#include <gtest/gtest.h>

namespace mdencoder::service_test {
namespace {

TEST(Priorities, FollowTheLevels) {
  EXPECT_EQ(PriorityOfLevel(0, false), Priority::Info);
  EXPECT_EQ(PriorityOfLevel(0, true), Priority::Critical);
  EXPECT_EQ(PriorityOfLevel(2, false), Priority::Critical);
  EXPECT_EQ(PriorityOfLevel(3, false), Priority::Error);
  EXPECT_EQ(PriorityOfLevel(5, false), Priority::Notice);
  EXPECT_EQ(PriorityOfLevel(8, false), Priority::Debug);
  EXPECT_EQ(PriorityPrefix(Priority::Error), "") << "the standard error of a test is not the journal";
}

}  // namespace
}  // namespace mdencoder::service_test
