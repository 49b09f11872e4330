#include "destination.h"

#include "tests/component/component_fixture.h"
#include "tests/component/payloads.h"

namespace {
constexpr uint32_t kRejected = 0x1234;
constexpr uint32_t kRefusedByRouter = 0xE0010099;
constexpr int kTimeoutsPerOutage = 20;
}  // namespace

std::string KeyOf(const std::string& strContent) {
  return strContent.substr(0, strContent.find(';'));
}

CDestination::CDestination(CTestRouter& router, CRecordBooks& books, uint32_t uSeed)
    : m_router(router), m_books(books), m_random(uSeed) {
  m_router.m_bKeepSent = false;
  m_router.m_pfnOnSend = [this](const SentMessage& sent) { return Take(sent); };
  m_router.m_pfnOnConnect = [this](const ConnectQuery&) {
    return ConnectAnswer{0, 0, m_bUp ? R"({"onlineflag":"1"})" : R"({"onlineflag":"0"})"};
  };
}

void CDestination::SetUp(bool bUp) {
  m_bUp = bUp;
  m_iTimeoutsLeft = bUp ? 0 : kTimeoutsPerOutage;
  if (bUp) {
    static_cast<void>(m_router.DeliverConnect());
  }
}

bool CDestination::Roll(unsigned int uThousandths) {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return std::uniform_int_distribution<unsigned int>(0, 999)(m_random) < uThousandths;
}

uint32_t CDestination::Take(const SentMessage& sent) {
  const std::string strKey = KeyOf(ContentOf(sent.strText));
  if (Roll(m_manners.uRefused)) {
    m_books.Ended(strKey, Ending::RefusedByRouter);
    return kRefusedByRouter;
  }
  if (!Roll(m_manners.uSilent)) {
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_queuePending.push_back({sent.u64DataId, strKey});
  }
  return 0;
}

bool CDestination::Answer() {
  bool bAnswered = false;
  while (m_bUp || m_iTimeoutsLeft > 0) {
    Pending pending;
    {
      const std::lock_guard<std::mutex> guard(m_mutex);
      if (m_queuePending.empty()) {
        break;
      }
      pending = std::move(m_queuePending.front());
      m_queuePending.pop_front();
    }
    bAnswered = true;
    if (!m_bUp) {
      --m_iTimeoutsLeft;
      static_cast<void>(m_router.DeliverResult(pending.u64DataId, kWireTimeout));
    } else if (Roll(m_manners.uRetry)) {
      static_cast<void>(m_router.DeliverResult(pending.u64DataId, kWireCloudBusy));
    } else if (Roll(m_manners.uRejected)) {
      m_books.Ended(pending.strKey, Ending::Rejected);
      static_cast<void>(m_router.DeliverResult(pending.u64DataId, kRejected));
    } else {
      // It has the record, whether the component is still there to hear of it or not.
      m_books.Ended(pending.strKey, Ending::Delivered);
      static_cast<void>(m_router.DeliverResult(pending.u64DataId, 0));
    }
  }
  return bAnswered;
}

void CDestination::Forget() {
  const std::lock_guard<std::mutex> guard(m_mutex);
  m_queuePending.clear();
}
