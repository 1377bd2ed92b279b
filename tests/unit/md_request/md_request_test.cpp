// SPDX-License-Identifier: Apache-2.0
// Tests of requests to the metadata thread: completion marks, stray posts, waiting, control messages.
#include "md_request.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdint.h>

#include <functional>
#include <vector>

#include "fake_host.h"

namespace {

class RequestTest : public HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    _ResetRequests();
    ASSERT_TRUE(WaitCond_Init(&_g_MetaDataThreadCond));
    host().HoldThread(true);  // the test acts as the thread
  }
  void TearDown() override {
    if (_g_hMetaDataThreadMBox != nullptr) MBOX_CloseMailBox(&_g_hMetaDataThreadMBox);
    WaitCond_Destroy(&_g_MetaDataThreadCond);
    host().HoldThread(false);
    HostTest::TearDown();
  }

  void OpenMailbox() {
    MBOX_CONFIG config = {};
    config.nSize = sizeof(config);
    config.szName = "Test";
    ASSERT_TRUE(MBOX_CreateMailBox(&config, &_g_hMetaDataThreadMBox));
  }
  static void Post() { ASSERT_TRUE(WaitCond_Post(&_g_MetaDataThreadCond)); }
  // Does what the thread does for a request that it executes.
  static bool CarryOut(int32_t& request) {
    const bool abandoned = _CompleteRequest(request);
    Post();
    return abandoned;
  }

  int32_t m_request = REQUEST_PENDING;
  tagMDATA_SRC_HANDLE m_record = {};
};

// --- Marks -----------------------------------------------------------------------------------------------

TEST_F(RequestTest, CompletedRequestIsDoneAndItsPostIsExpected) {
  EXPECT_FALSE(_CompleteRequest(m_request));
  EXPECT_EQ(m_request, REQUEST_DONE);
  EXPECT_EQ(_g_nStrayPosts, 0);
}

TEST_F(RequestTest, CompletedAbandonedRequestLeavesAStrayPost) {
  m_request = REQUEST_ABANDONED;
  EXPECT_TRUE(_CompleteRequest(m_request));
  EXPECT_EQ(m_request, REQUEST_DONE);
  EXPECT_EQ(_g_nStrayPosts, 1);
}

TEST_F(RequestTest, RequestThatNobodyMadeLeavesAStrayPostToo) {
  m_request = REQUEST_NONE;
  EXPECT_FALSE(_CompleteRequest(m_request));
  EXPECT_EQ(m_request, REQUEST_NONE);
  EXPECT_EQ(_g_nStrayPosts, 1);
}

TEST_F(RequestTest, SourceIsGivenUpOnlyOnceItsCloseIsAbandoned) {
  for (const int32_t state : {REQUEST_NONE, REQUEST_PENDING, REQUEST_DONE}) {
    m_record.nRemoveRequest = state;
    EXPECT_FALSE(_IsGivenUp(&m_record)) << state;
  }
  m_record.nRemoveRequest = REQUEST_ABANDONED;
  EXPECT_TRUE(_IsGivenUp(&m_record));
  m_record.nRemoveRequest = REQUEST_NONE;
  m_record.nAddRequest = REQUEST_ABANDONED;
  EXPECT_FALSE(_IsGivenUp(&m_record)) << "an abandoned opening is open all the same";
}

TEST_F(RequestTest, ResetForgetsStrayPostsAndTheShutdown) {
  _g_nStrayPosts = 3;
  _g_nShutdownRequest = REQUEST_ABANDONED;
  _ResetRequests();
  EXPECT_EQ(_g_nStrayPosts, 0);
  EXPECT_EQ(_g_nShutdownRequest, REQUEST_NONE);
}

// --- Waiting ---------------------------------------------------------------------------------------------

TEST_F(RequestTest, PostEndsTheWaitOnceTheMarkIsSet) {
  CarryOut(m_request);
  EXPECT_TRUE(_WaitForRequest(m_request, 5000));
  EXPECT_EQ(host().waits, std::vector<DWORD>{5000});
  EXPECT_EQ(host().outstandingPosts, 0);
}

TEST_F(RequestTest, WaitThatRunsOutOfTimeAbandonsTheRequest) {
  EXPECT_FALSE(_WaitForRequest(m_request, 5000));
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_EQ(m_request, REQUEST_ABANDONED);
  EXPECT_EQ(_g_nStrayPosts, 0) << "its post is yet to come";
  EXPECT_TRUE(CarryOut(m_request));
  EXPECT_EQ(host().outstandingPosts, _g_nStrayPosts);
}

TEST_F(RequestTest, LimitOfZeroAbandonsWithoutAWait) {
  EXPECT_FALSE(_WaitForRequest(m_request, 0));
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_EQ(m_request, REQUEST_ABANDONED);
  EXPECT_TRUE(host().waits.empty());
}

TEST_F(RequestTest, StrayPostIsConsumedAndTheWaitContinues) {
  _g_nStrayPosts = 1;
  Post();
  EXPECT_FALSE(_WaitForRequest(m_request, 100));
  EXPECT_EQ(_g_nStrayPosts, 0);
  EXPECT_EQ(host().outstandingPosts, 0);
  EXPECT_EQ(host().waits.size(), 2u);
}

TEST_F(RequestTest, PostOfAnotherRequestIsPostedAgain) {
  Post();
  EXPECT_FALSE(_WaitForRequest(m_request, 5));
  EXPECT_EQ(host().outstandingPosts, 1);
  EXPECT_EQ(_g_nStrayPosts, 0);
}

TEST_F(RequestTest, EveryPostShortensTheRemainingTime) {
  Post();
  EXPECT_FALSE(_WaitForRequest(m_request, 5));
  ASSERT_GE(host().waits.size(), 2u);
  for (size_t i = 1; i < host().waits.size(); ++i) EXPECT_LT(host().waits[i], host().waits[i - 1]) << i;
}

TEST_F(RequestTest, RequestExecutedAtTheLastMomentSucceedsAndLeavesItsPost) {
  host().FailNext("_DoWaitCond_WaitFor");
  host().WhenCalled("_DoWaitCond_WaitFor", [this] { m_request = REQUEST_DONE; });
  EXPECT_TRUE(_WaitForRequest(m_request, 5000));
  EXPECT_EQ(m_request, REQUEST_DONE);
  EXPECT_EQ(_g_nStrayPosts, 1);
}

// --- Control messages ------------------------------------------------------------------------------------

TEST_F(RequestTest, MessageCarriesItsEventAndTheSource) {
  HMBOXMSG message = _AllocControlMessage(EVENTID_REMOVE_FD, &m_record);
  ASSERT_NE(message, nullptr);
  EXPECT_EQ(MBOX_GetMessageHeader(message)->dwEventID, EVENTID_REMOVE_FD);
  EXPECT_EQ(MBOX_GetMessageHeader(message)->pvParam1, &m_record);
  MBOX_FreeMessage(message);
}

TEST_F(RequestTest, NoMessageIsMadeIfOutOfMemory) {
  host().FailNext("__MBOX_AllocMessage");
  EXPECT_EQ(_AllocControlMessage(EVENTID_ADD_FD, &m_record), nullptr);
}

TEST_F(RequestTest, CallSendsThenWaits) {
  OpenMailbox();
  bool sent = false;
  host().WhenCalled("_DoWaitCond_WaitFor", [this] { m_request = REQUEST_DONE; });
  Post();
  EXPECT_TRUE(_CallThread(_AllocControlMessage(EVENTID_ADD_FD, &m_record), m_request, 5000, &sent));
  EXPECT_TRUE(sent);
  HMBOXMSG message = nullptr;
  ASSERT_TRUE(MBOX_RecvMessage(_g_hMetaDataThreadMBox, &message));
  MBOX_FreeMessage(message);
}

TEST_F(RequestTest, FailedSendIsLoggedAndTheWaitHappensNevertheless) {
  OpenMailbox();
  host().FailNext("MBOX_SendMessage");
  bool sent = true;
  EXPECT_FALSE(_CallThread(_AllocControlMessage(EVENTID_ADD_FD, &m_record), m_request, 5000, &sent));
  ExpectLog(3, "MBOX_SendMessage FAILED.\n");
  EXPECT_FALSE(sent);
  EXPECT_EQ(host().waits, std::vector<DWORD>{5000});
  EXPECT_EQ(m_request, REQUEST_ABANDONED);
}

TEST_F(RequestTest, ShutdownIsSentAgainUntilItSucceeds) {
  OpenMailbox();
  host().FailNext("MBOX_SendMessage", {.times = 4});
  bool sent = false;
  EXPECT_FALSE(_CallThreadToEnd(_AllocControlMessage(EVENTID_SHUTDOWN_THREAD, nullptr), &sent));
  ExpectLog(3, "MBOX_SendMessage FAILED.\n");  // the line is written once, however often the send fails
  EXPECT_TRUE(sent);
  EXPECT_EQ(host().Calls("MBOX_SendMessage"), 5);
  ASSERT_EQ(host().waits.size(), 1u);
  EXPECT_LT(host().waits[0], kShutdownWaitMs) << "the attempts count";
  EXPECT_EQ(_g_nShutdownRequest, REQUEST_ABANDONED);
}

TEST_F(RequestTest, ShutdownThatIsNeverSentEndsAfterThreeSeconds) {
  OpenMailbox();
  host().FailNext("MBOX_SendMessage", {.times = 100000});
  bool sent = true;
  EXPECT_FALSE(_CallThreadToEnd(_AllocControlMessage(EVENTID_SHUTDOWN_THREAD, nullptr), &sent));
  ExpectLog(3, "MBOX_SendMessage FAILED.\n");
  EXPECT_FALSE(sent);
  EXPECT_TRUE(host().waits.empty()) << "no time is left for a wait";
  host().StopFailing("MBOX_SendMessage");
}

}  // namespace
