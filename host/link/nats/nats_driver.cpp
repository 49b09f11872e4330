#include "host/link/nats/nats_driver.h"

#include <exception>

#include "host/link/agent_id.h"
#include "host/link/nats/nats_names.h"
#include "host/link/nats/nats_servers.h"
#include "host/link/nats/nats_worker.h"

namespace {

class CNatsDriver final : public ILinkDriver {
 public:
  explicit CNatsDriver(const NatsDriverOptions& options) : m_options(options) {}
  ~CNatsDriver() override { Stop(); }

  bool Start(ILinkEvents* pEvents, std::string& strError) override;
  void Stop() override;
  void Deliver(std::shared_ptr<LinkRecord> pRecord) override { m_pWorker->Deliver(pRecord); }
  void Reopen() override {
    if (m_pWorker) {
      m_pWorker->Reopen();
    }
  }
  std::string Describe() const override { return "nats " + m_options.strServers + " stream " + m_options.strStream; }

 private:
  NatsDriverOptions m_options;
  std::shared_ptr<CNatsWorker> m_pWorker;  // between Start and Stop
};

bool CNatsDriver::Start(ILinkEvents* pEvents, std::string& strError) {
  if (m_pWorker) {
    strError = "already started";
    return false;
  }
  try {
    NatsServers servers;
    strError = ReadNatsServers(m_options.strServers, servers);
    for (const std::string& strWrong :
         {CheckStreamName(m_options.strStream), CheckSubjectPrefix(m_options.strSubject)}) {
      strError = strError.empty() ? strWrong : strError;
    }
    // Lower-case, as it is in every subject.
    if (strError.empty() && !ReadAgentId(std::string(m_options.strAgentId), m_options.strAgentId)) {
      strError = "the agent's id is no UUID";
    }
    if (strError.empty() &&
        (m_options.uPending == 0 || m_options.uTimeoutMs == 0 || m_options.uConnectTimeoutMs == 0)) {
      strError = "time-outs and pending records cannot be 0";
    }
    if (!strError.empty()) {
      return false;
    }
    m_pWorker = std::make_shared<CNatsWorker>(m_options, servers, pEvents);
    m_pWorker->Start();
  } catch (const std::exception& exception) {
    strError = exception.what();
    m_pWorker.reset();
    return false;
  }
  return true;
}

void CNatsDriver::Stop() {
  if (m_pWorker) {
    m_pWorker->Stop();
    m_pWorker.reset();
  }
}

}  // namespace

std::unique_ptr<ILinkDriver> CreateNatsDriver(const NatsDriverOptions& options) {
  return std::make_unique<CNatsDriver>(options);
}
