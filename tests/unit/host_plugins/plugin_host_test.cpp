// The loader, with the test plug-in: TEST_PLUGIN_PATH names its library, TEST_PLUGIN_INCOMPLETE_PATH the same without
// one of the four functions.
#include "host/plugins/plugin_host.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "host/protocol/host_status.h"

namespace {

constexpr char kGuid[] = "AAAAAAAA-0001-0002-0304-05060708090A";

class CQuietSink : public IReplySink {
 public:
  void OnReply(uint64_t, uint32_t, std::string_view) override {}
};

class PluginHostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string strPattern = (std::filesystem::temp_directory_path() / "plugin_host_test.XXXXXX").string();
    ASSERT_NE(mkdtemp(strPattern.data()), nullptr);
    m_Directory = strPattern;
    setenv("TEST_PLUGIN_CALLS", (m_Directory / "calls").c_str(), 1);
    unsetenv("TEST_PLUGIN_FAILS");
    unsetenv("TEST_PLUGIN_THROWS");
    m_pHost = std::make_unique<CPluginHost>(*m_pRouter);
  }
  void TearDown() override {
    m_pHost.reset();
    std::filesystem::remove_all(m_Directory);
  }

  std::vector<std::string> Calls() {
    std::vector<std::string> vecCalls;
    std::ifstream file(m_Directory / "calls");
    for (std::string strStep, strThread; file >> strStep >> strThread;) {
      EXPECT_EQ(strThread, "qmhost-life") << strStep;
      vecCalls.push_back(strStep);
    }
    return vecCalls;
  }
  std::vector<std::string> Start() {
    return m_pHost->Start([this](const PluginSpec& spec) { m_vecStarted.push_back(spec.strName); });
  }
  uint32_t Deliver() {
    return m_pRouter->DeliverFromProducer(GUID{}, 10102, nullptr, 0, std::make_shared<CQuietSink>(), 0);
  }
  static void ExpectReason(const std::vector<std::string>& vecReasons, const std::string& strPart) {
    ASSERT_EQ(vecReasons.size(), 1U);
    EXPECT_NE(vecReasons[0].find(strPart), std::string::npos) << vecReasons[0];
  }

  const PluginSpec m_Spec{"test", TEST_PLUGIN_PATH, kGuid};
  std::filesystem::path m_Directory;
  std::unique_ptr<IRouter> m_pRouter = CreateRouter(RouterOptions{});
  std::unique_ptr<CPluginHost> m_pHost;
  std::vector<std::string> m_vecStarted;
};

TEST_F(PluginHostTest, TakesEveryStepInOrderOnTheLifecycleThread) {
  EXPECT_EQ(m_pHost->Load({m_Spec}), std::vector<std::string>{});
  EXPECT_EQ(Start(), std::vector<std::string>{});
  EXPECT_EQ(m_vecStarted, std::vector<std::string>{"test"});
  EXPECT_EQ(Deliver(), kHostOk);
  m_pHost->StopAndUnload();
  EXPECT_EQ(Calls(), (std::vector<std::string>{"InitializePlugin", "CreateObject", "Initialize", "SetCtx", "Start",
                                               "Stop", "Uninitialize", "DestroyObject", "UninitializePlugin"}));
}

TEST_F(PluginHostTest, APluginThatForgotItsContextGetsNoCallAfterItsCodeIsGone) {
  ASSERT_EQ(m_pHost->Load({m_Spec}), std::vector<std::string>{});
  ASSERT_EQ(Start(), std::vector<std::string>{});
  m_pHost->StopAndUnload();
  EXPECT_EQ(Deliver(), kHostNoReceiver);
}

TEST_F(PluginHostTest, LoadsAgainAfterUnloading) {
  for (int iRound = 0; iRound < 2; ++iRound) {
    ASSERT_EQ(m_pHost->Load({m_Spec}), std::vector<std::string>{});
    ASSERT_EQ(Start(), std::vector<std::string>{});
    m_pHost->StopAndUnload();
  }
  EXPECT_EQ(Calls().size(), 18U);
}

TEST_F(PluginHostTest, AMissingLibraryIsNamed) {
  ExpectReason(m_pHost->Load({{"gone", "/nowhere/libgone.so", kGuid}}), "/nowhere/libgone.so");
}

TEST_F(PluginHostTest, AFileThatIsNoLibraryIsNamed) {
  const std::string strPath = (m_Directory / "text.so").string();
  std::ofstream(strPath) << "not a library";
  ExpectReason(m_pHost->Load({{"text", strPath, kGuid}}), strPath);
}

TEST_F(PluginHostTest, AMissingFunctionIsNamed) {
  const auto vecReasons = m_pHost->Load({{"half", TEST_PLUGIN_INCOMPLETE_PATH, kGuid}});
  ExpectReason(vecReasons, "DestroyObject");
  ExpectReason(vecReasons, TEST_PLUGIN_INCOMPLETE_PATH);
  EXPECT_EQ(Calls(), std::vector<std::string>{});
}

TEST_F(PluginHostTest, AnUnknownGuidIsNamedAndTheLibraryClosedInOrder) {
  const std::string strOther = "BBBBBBBB-0001-0002-0304-05060708090A";
  ExpectReason(m_pHost->Load({{"other", TEST_PLUGIN_PATH, strOther}}), strOther);
  EXPECT_EQ(Calls(), (std::vector<std::string>{"InitializePlugin", "CreateObject", "UninitializePlugin"}));
}

TEST_F(PluginHostTest, AFailedInitializeUndoesWhatWasDone) {
  setenv("TEST_PLUGIN_FAILS", "Initialize", 1);
  ExpectReason(m_pHost->Load({m_Spec}), "Initialize returned -1");
  EXPECT_EQ(Calls(), (std::vector<std::string>{"InitializePlugin", "CreateObject", "Initialize", "DestroyObject",
                                               "UninitializePlugin"}));
}

TEST_F(PluginHostTest, AFailedInitializePluginIsNotUndone) {
  setenv("TEST_PLUGIN_FAILS", "InitializePlugin", 1);
  ExpectReason(m_pHost->Load({m_Spec}), "InitializePlugin returned -1");
  EXPECT_EQ(Calls(), std::vector<std::string>{"InitializePlugin"});
}

TEST_F(PluginHostTest, AFailedStartIsToldAndStoppedAllTheSame) {
  setenv("TEST_PLUGIN_FAILS", "Start", 1);
  ASSERT_EQ(m_pHost->Load({m_Spec}), std::vector<std::string>{});
  ExpectReason(Start(), "Start returned -1");
  EXPECT_EQ(m_vecStarted, std::vector<std::string>{});
  m_pHost->StopAndUnload();
  EXPECT_EQ(Calls().size(), 9U);
}

TEST_F(PluginHostTest, WhatAPluginThrowsIsAReason) {
  setenv("TEST_PLUGIN_THROWS", "Initialize", 1);
  ExpectReason(m_pHost->Load({m_Spec}), "Initialize threw: told to throw");
  setenv("TEST_PLUGIN_THROWS", "Stop", 1);
  ASSERT_EQ(m_pHost->Load({m_Spec}), std::vector<std::string>{});
  ASSERT_EQ(Start(), std::vector<std::string>{});
  m_pHost->StopAndUnload();
  EXPECT_EQ(Calls().back(), "UninitializePlugin");
}

TEST_F(PluginHostTest, ABrokenPluginDoesNotKeepOthersFromRunning) {
  ExpectReason(m_pHost->Load({{"gone", "/nowhere/libgone.so", kGuid}, m_Spec}), "gone");
  EXPECT_EQ(Start(), std::vector<std::string>{});
  EXPECT_EQ(m_vecStarted, std::vector<std::string>{"test"});
}

}  // namespace
