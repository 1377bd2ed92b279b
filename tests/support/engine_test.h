// SPDX-License-Identifier: Apache-2.0
// The fixture of the source engine's tests provides a started library on the fake host and short calls to open sources.
#ifndef ENGINE_TEST_H
#define ENGINE_TEST_H

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "builders.h"
#include "fake_host.h"
#include "metadata_api.h"

extern HDBG g_hMetaDataLibDbg;
extern HDBG g_hCoTConvDbg;

// One message as the ready callback received it.
struct Delivered {
  Bytes bytes;  // with the stream header
  MDATA_TIMESTAMP timestamp;
  void* param1;
  void* param2;
};

// Stands for the encoder and is passed as pvUserParam1: it records the messages and holds the results to return.
struct Encoder {
  std::vector<Delivered> messages;
  BOOL answer = TRUE;
};

inline BOOL ReadyCallback(MDATA_BUFFER* pBuff, void* pvUserParam1, void* pvUserParam2) {
  auto* encoder = static_cast<Encoder*>(pvUserParam1);
  encoder->messages.push_back(
      {Bytes(pBuff->pcData, pBuff->pcData + pBuff->nDataSize), pBuff->nTimeStamp, pvUserParam1, pvUserParam2});
  return encoder->answer;
}

class EngineTest : public HostTest {
 protected:
  // Closes the sources that the test left open and shuts the library down, so that the fake host sees every leak.
  void TearDown() override {
    for (HMDATASRC source : m_open) {
      HMDATASRC handle = source;
      MetaData_CloseSource(&handle);
      AllowLogs(5, "Disabling KLV extraction");
    }
    if (m_started) Stop();
  }

  // Starts the library, by default with both IP families.
  void Start(DWORD caps = METADATALIB_CAPS_IPV4_SUPPORT | METADATALIB_CAPS_IPV6_SUPPORT) {
    ASSERT_TRUE(METADATALIB_Init(caps));
    m_started = true;
  }

  // Starts the library with CoT support and a grid of zeros.
  void StartWithCoT() {
    host().WriteFile("/usr/share/vendor/data/ww15mgh.grd", GridOfZeros());
    Start(METADATALIB_CAPS_COT_SUPPORT | METADATALIB_CAPS_IPV4_SUPPORT | METADATALIB_CAPS_IPV6_SUPPORT);
    ExpectLogContaining(5, "Support of additionnal CoT items enabled.");
  }

  void Stop() {
    METADATALIB_Shutdown();
    m_started = false;
    ExpectLog(5, "Called.\n");
  }

  MDATA_SRC_CFG Config(int inputType, int dataType) {
    MDATA_SRC_CFG config = {};
    config.nSize = sizeof(config);
    config.nIndex = 7;
    config.enInputType = inputType;
    config.enDataType = dataType;
    config.pfnCallback = ReadyCallback;
    config.pvUserParam1 = &m_encoder;
    config.pvUserParam2 = this;
    config.nDecimationFactor = 1;
    return config;
  }

  MDATA_SRC_CFG SerialConfig(int dataType = MDATA_DATA_KLV) { return Config(MDATA_INPUT_SERIAL, dataType); }

  MDATA_SRC_CFG NetworkConfig(int dataType = MDATA_DATA_KLV, USHORT port = 5000, int family = AF_INET) {
    MDATA_SRC_CFG config = Config(MDATA_INPUT_NETWORK, dataType);
    config.in.Network.usUDPPort = port;
    config.in.Network.iSrcAddressFamily = family;
    return config;
  }

  MDATA_SRC_CFG VideoConfig(int input = 0) {
    MDATA_SRC_CFG config = Config(MDATA_INPUT_VIDEO, MDATA_DATA_KLV);
    config.in.Video.enInputInterface = input;
    return config;
  }

  static void AddRelay(MDATA_SRC_CFG& config, const Bytes& address = {10, 0, 0, 1}, int ttl = 0, int tos = 0) {
    MDATA_RELAY_CFG& relay = config.Relays[config.nNumOfRelays++];
    relay.usUDPPort = static_cast<USHORT>(6000 + config.nNumOfRelays);
    relay.iDestAddressFamily = address.size() == 4 ? AF_INET : AF_INET6;
    memcpy(relay.acDestAddress, address.data(), address.size());
    relay.IpTTL = ttl;
    relay.IpTOS = tos;
  }

  // Opens a source that is closed at the end of the test, and claims the lines of an opening.
  HMDATASRC Open(const MDATA_SRC_CFG& config) {
    HMDATASRC source = nullptr;
    EXPECT_TRUE(MetaData_OpenSource(&config, &source));
    AllowOpeningLogs();
    if (source != nullptr) m_open.push_back(source);
    return source;
  }

  // Opens a source while the thread does not run: the wait times out, and the source counts as open. The test closes it,
  // or adds it to m_open.
  HMDATASRC OpenWhileStuck(const MDATA_SRC_CFG& config) {
    host().HoldThread(true);
    HMDATASRC source = nullptr;
    EXPECT_TRUE(MetaData_OpenSource(&config, &source));
    AllowOpeningLogs();
    ExpectLog(3, "Wait FAILED for data source#7, errno (110): \"Connection timed out\".\n");
    return source;
  }

  static void AllowOpeningLogs() {
    for (const char* part :
         {"receiver socket", "COM port", "Serial port configured", "input fp=", "KLV capture started",
          "Successfully connected socket", "Successfully initialized relaying socket", "Successfully set IP_RECV"})
      AllowLogs(5, part);
  }

  void Close(HMDATASRC source) {
    Forget(source);
    HMDATASRC handle = source;
    EXPECT_TRUE(MetaData_CloseSource(&handle));
    EXPECT_EQ(handle, source) << "the caller's handle is not cleared";
    AllowLogs(5, "Disabling KLV extraction");
  }

  // Removes the source from the list of sources that the fixture closes.
  void Forget(HMDATASRC source) { std::erase(m_open, source); }

  static int ListedSources() {
    int count = 0;
    for (const FNODE_D* node = g_MetaDataSrcList.pHead; node != nullptr; node = node->pNext) ++count;
    return count;
  }

  static bool IsListed(HMDATASRC source) {
    for (const FNODE_D* node = g_MetaDataSrcList.pHead; node != nullptr; node = node->pNext) {
      if (node->pvObject == source) return true;
    }
    return false;
  }

  Encoder m_encoder;
  bool m_started = false;
  std::vector<HMDATASRC> m_open;
};

// An engine that the fixture has started.
class StartedEngineTest : public EngineTest {
 protected:
  void SetUp() override { Start(); }
};

#endif  // ENGINE_TEST_H
