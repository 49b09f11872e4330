// What the tests of the loaded component start from: an installation that keeps records in memory only, a router, a
// host, an empty log, fast waits.
#ifndef QMLOGCACHE_TESTS_COMPONENT_COMPONENT_FIXTURE_H_
#define QMLOGCACHE_TESTS_COMPONENT_COMPONENT_FIXTURE_H_

#include <gtest/gtest.h>

#include "install_prefix.h"
#include "log_recorder.h"
#include "payloads.h"
#include "plugin/compctx/message_types.h"
#include "plugin_host.h"
#include "replaced_clock.h"
#include "test_router.h"

// The codes as they stand on the wire.
inline constexpr uint32_t kWireEmptyData = 0xA0010002;
inline constexpr uint32_t kWireBadSize = 0xA0010003;
inline constexpr uint32_t kWireBadResultSize = 0xA0010004;
inline constexpr uint32_t kWireUnknownType = 0xA0010005;
inline constexpr uint32_t kWireUnknownDataId = 0xA0010042;
inline constexpr uint32_t kWireNoManager = 0xE0010003;
inline constexpr uint32_t kWireTimeout = 0xE0010019;
inline constexpr uint32_t kWireCloudBusy = 0xB0010025;
inline constexpr uint32_t kWireCloudFailed = 0xB0010026;

class CComponentTest : public ::testing::Test {
 protected:
  CComponentTest() : m_log(CLogRecorder::Get()), m_clock(CReplacedClock::Get()) {
    m_log.Reset();
    m_clock.Reset();
  }
  void TearDown() override {
    m_host.EndLife();
    EXPECT_EQ(m_log.OpenChannels(), 0);
    EXPECT_EQ(m_log.LinesAfterClose(), 0u);
    EXPECT_EQ(m_router.RepliesOut(), 0);
  }

  void BeginLife() { m_host.BeginLife(&m_router); }
  // A life in which the agent is connected, also for a work thread that asks before it is told.
  void BeginConnectedLife() {
    if (!m_router.m_pfnOnConnect) {
      m_router.m_pfnOnConnect = [](const ConnectQuery&) { return ConnectAnswer{0, 0, "{\"onlineflag\":\"1\"}"}; };
    }
    BeginLife();
    ASSERT_TRUE(Succeeded(m_router.DeliverConnect()));
  }
  static bool Succeeded(const std::optional<Answer>& answer) {
    return answer && answer->iReplies == 1 && answer->uRet == 0 && answer->strText == "success";
  }
  static bool Failed(const std::optional<Answer>& answer, uint32_t uRet) {
    return answer && answer->iReplies == 1 && answer->uRet == uRet && answer->strText == "fail";
  }
  void ExpectNoWarning() {
    for (const LogLine& line : m_log.Lines("*")) {
      ADD_FAILURE() << line.strText;
    }
  }
  // Files one record that needs no looking at.
  void FileRecord(uint32_t uMsgType = LOGCACHE_MSG_SYNC_EDR_PRIV_NORMAL, const std::string& strData = "data") {
    ASSERT_TRUE(Succeeded(m_router.Deliver(uMsgType, kProducer, strData)));
  }

  CInstallPrefix m_prefix;
  CLogRecorder& m_log;
  CReplacedClock& m_clock;
  CTestRouter m_router;
  CPluginHost m_host;
};

#endif  // QMLOGCACHE_TESTS_COMPONENT_COMPONENT_FIXTURE_H_
