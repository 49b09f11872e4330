#include "host/router/router.h"

#include <utility>

#include "host/router/host_context.h"
#include "host/router/router_core.h"

namespace {

class CRouter : public IRouter {
 public:
  explicit CRouter(const RouterOptions& options) : m_pCore(std::make_shared<CRouterCore>(options)) {}
  ~CRouter() override { m_pCore->Stop(); }
  CRouter(const CRouter&) = delete;
  CRouter& operator=(const CRouter&) = delete;

  std::shared_ptr<IHostContext> CreateContext() override { return std::make_shared<CHostContext>(m_pCore); }
  uint32_t DeliverFromProducer(const GUID& sender, uint32_t uMsgType, const uint8_t* pData, uint32_t uLength,
                               const std::shared_ptr<IReplySink>& pSink, uint64_t u64Cookie) override {
    return m_pCore->Deliver(sender, uMsgType, pData, uLength, pSink, u64Cookie);
  }
  void StopIntake() override { m_pCore->StopIntake(); }
  IntakeCounts GetIntakeCounts() const override { return m_pCore->GetIntakeCounts(); }

 private:
  const std::shared_ptr<CRouterCore> m_pCore;
};

}  // namespace

std::unique_ptr<IRouter> CreateRouter(const RouterOptions& options) {
  return std::make_unique<CRouter>(options);
}
