// An ingress server on a socket in a directory of its own, with a fake router behind it.
#ifndef QMLOGCACHE_TESTS_UNIT_HOST_INGRESS_INGRESS_FIXTURE_H_
#define QMLOGCACHE_TESTS_UNIT_HOST_INGRESS_INGRESS_FIXTURE_H_

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <string>

#include "host/ingress/ingress_server.h"
#include "platform/log.h"
#include "tests/unit/host_ingress/fake_router.h"
#include "tests/unit/host_ingress/test_producer.h"

class IngressTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string strPattern = (std::filesystem::temp_directory_path() / "qmingress.XXXXXX").string();
    ASSERT_NE(::mkdtemp(strPattern.data()), nullptr);
    m_strDirectory = strPattern;
    QmLogConfigure(m_strDirectory.c_str(), 0xFF, 1U << 20, 2);
    m_options.strSocketPath = m_strDirectory + "/in.sock";
  }

  void TearDown() override {
    m_pServer.reset();
    m_pRouter.reset();
    std::filesystem::remove_all(m_strDirectory);
  }

  void Serve(CFakeRouter::Handler fnHandler = {}) {
    m_pRouter = std::make_unique<CFakeRouter>(std::move(fnHandler));
    m_pServer = CreateIngressServer(m_options, *m_pRouter);
    std::string strError;
    ASSERT_TRUE(m_pServer->Start(strError)) << strError;
  }

  // Why a server at the path does not start; empty when it does.
  std::string StartError() {
    CFakeRouter router;
    const auto pServer = CreateIngressServer(m_options, router);
    std::string strError;
    return pServer->Start(strError) ? std::string() : strError;
  }

  const std::string& Path() const { return m_options.strSocketPath; }

  IngressOptions m_options;
  std::string m_strDirectory;
  std::unique_ptr<CFakeRouter> m_pRouter;
  std::unique_ptr<IIngressServer> m_pServer;
};

#endif  // QMLOGCACHE_TESTS_UNIT_HOST_INGRESS_INGRESS_FIXTURE_H_
