// A client of the C interface and the books of what it reports, with an ingress server to speak to.
#ifndef QMLOGCACHE_TESTS_UNIT_CLIENT_CLIENT_FIXTURE_H_
#define QMLOGCACHE_TESTS_UNIT_CLIENT_CLIENT_FIXTURE_H_

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "client/qmclient.h"
#include "tests/unit/host_ingress/ingress_fixture.h"

struct Result {
  uint64_t u64Cookie;
  qm_client_outcome outcome;
  uint32_t uStatus;

  bool operator==(const Result&) const = default;
};

inline void PrintTo(const Result& result, std::ostream* pStream) {
  *pStream << result.u64Cookie << ":" << result.outcome << ":" << std::hex << result.uStatus << std::dec;
}

class ClientTest : public IngressTest {
 protected:
  static constexpr int kPatienceMs = 60000;

  void SetUp() override {
    IngressTest::SetUp();
    m_clientOptions.socket = Path().c_str();
    m_clientOptions.sender = "a daemon";
    m_clientOptions.on_result = OnResult;
    m_clientOptions.on_connection = OnConnection;
    m_clientOptions.user = this;
  }

  void TearDown() override {
    qm_client_close(m_pClient, 0);
    IngressTest::TearDown();
  }

  void Open() { ASSERT_EQ(qm_client_open(&m_clientOptions, &m_pClient), QM_CLIENT_OK); }

  int Send(const std::string& strRecord, uint64_t u64Cookie = 0, int iTimeoutMs = 0) {
    qm_client_record record = QM_CLIENT_RECORD_INIT;
    record.data = strRecord.data();
    record.length = strRecord.size();
    record.cookie = u64Cookie;
    return qm_client_send(m_pClient, &record, iTimeoutMs);
  }

  void StopServer() {
    m_pServer->Stop();
    m_pServer.reset();
  }

  // Has the client work until then, as long as it holds a record.
  void ProcessUntil(const std::function<bool()>& fnDone) {
    for (int i = 0; i < 6000 && !fnDone() && qm_client_pending(m_pClient) > 0; ++i) {
      qm_client_process(m_pClient, 10);
    }
    ASSERT_TRUE(fnDone());
  }

  size_t DeliveryCount() const { return m_pRouter->Deliveries().size(); }

  std::vector<std::string> Payloads() const {
    std::vector<std::string> vecPayloads;
    for (const Delivery& delivery : m_pRouter->Deliveries()) {
      vecPayloads.push_back(delivery.strPayload);
    }
    return vecPayloads;
  }

  bool Said(const std::string& strPart) const {
    return std::any_of(m_vecReasons.begin(), m_vecReasons.end(),
                       [&](const std::string& strReason) { return strReason.find(strPart) != std::string::npos; });
  }

  qm_client_options m_clientOptions = QM_CLIENT_OPTIONS_INIT;
  qm_client* m_pClient = nullptr;
  std::vector<Result> m_vecResults;
  std::vector<std::string> m_vecReasons;  // why there is no connection
  int m_iConnected = 0;
  std::function<void()> m_fnOnResult;

 private:
  static void OnResult(void* pUser, uint64_t u64Cookie, qm_client_outcome outcome, uint32_t uStatus) {
    auto* pTest = static_cast<ClientTest*>(pUser);
    pTest->m_vecResults.push_back({u64Cookie, outcome, uStatus});
    if (pTest->m_fnOnResult) {
      pTest->m_fnOnResult();
    }
  }

  static void OnConnection(void* pUser, int iConnected, const char* pszReason) {
    auto* pTest = static_cast<ClientTest*>(pUser);
    if (iConnected != 0) {
      ++pTest->m_iConnected;
    } else {
      pTest->m_vecReasons.emplace_back(pszReason);
    }
  }
};

#endif  // QMLOGCACHE_TESTS_UNIT_CLIENT_CLIENT_FIXTURE_H_
