#include <array>
#include <bit>
#include <chrono>
#include <cstring>
#include <functional>
#include <utility>

#include "host/link/server_link_class.h"
#include "host/protocol/host_status.h"
#include "platform/log.h"
#include "plugin/compctx/message_types.h"

namespace {

constexpr std::string_view kConnectPayload = R"({"onlineflag":"1"})";
constexpr uint32_t kResultTimeoutMs = 60000;

}  // namespace

// False when there is no memory to hold it.
bool CServerLink::HoldLocked(const TrackedPtr& pRecord) {
  try {
    m_mapHeld.emplace(pRecord->u64Sequence, pRecord);
    pRecord->state = RecordState::Held;
    return true;
  } catch (...) {
    return false;
  }
}

void CServerLink::CountAnswerLocked(TrackedRecord& record, uint32_t uResult) {
  record.state = RecordState::Answered;
  --m_counts.u64Held;
  const size_t uPriority = PriorityOfPrivilege(record.tags.iPriv);
  if (uResult == kHostOk) {
    ++m_counts.u64Delivered;
    ++m_counts.aDelivered[uPriority];
  } else if (uResult == kHostSendTimeout || uResult == kHostCloudBusy || uResult == kHostCloudUnavailable) {
    ++m_counts.u64Retried;
    return;
  } else {
    ++m_counts.u64Rejected;
    ++m_counts.aRejected[uPriority];
  }
  if (record.tags.u64DataId >= m_u64FirstOfRun) {
    ++m_counts.aSettledOfRun[uPriority];
  }
}

// While the driver is down: takes out the oldest held records as long as this outage has answers left.
void CServerLink::SpendAnswersLocked(AnswerList& answers) {
  while (m_phase == Phase::Running && !m_counts.bUp && m_uAnswersLeft > 0 && !m_mapHeld.empty()) {
    TrackedPtr& pRecord = answers.aRecords[answers.uCount++];
    pRecord = std::move(m_mapHeld.begin()->second);
    m_mapHeld.erase(m_mapHeld.begin());
    --m_uAnswersLeft;
    CountAnswerLocked(*pRecord, kHostSendTimeout);
  }
}

// Delivers pFirst (may be null), then what is held, then makes the broadcast that is due, as long as the driver is up.
// Called and returns with the lock held, and gives it up in between.
void CServerLink::Pump(std::unique_lock<std::mutex>& lock, TrackedPtr pFirst) {
  if (m_bPumping) {
    return;
  }
  m_bPumping = true;
  if (pFirst) {
    DeliverOne(lock, std::move(pFirst));
  }
  while (m_counts.bUp && m_phase == Phase::Running) {
    if (m_bAnnounceDue && (m_mapHeld.empty() || m_mapHeld.begin()->first > m_u64AnnounceAfter)) {
      m_bAnnounceDue = false;
      lock.unlock();
      Announce();
      lock.lock();
    } else if (!m_mapHeld.empty()) {
      TrackedPtr pRecord = std::move(m_mapHeld.begin()->second);
      m_mapHeld.erase(m_mapHeld.begin());
      DeliverOne(lock, std::move(pRecord));
    } else {
      break;
    }
  }
  m_bPumping = false;
}

void CServerLink::DeliverOne(std::unique_lock<std::mutex>& lock, TrackedPtr pRecord) {
  pRecord->state = RecordState::WithDriver;
  m_bDelivering = true;
  m_idDelivering = std::this_thread::get_id();
  lock.unlock();
  try {
    m_pDriver->Deliver(pRecord);
  } catch (...) {
    OnOutcome(pRecord, kHostSendTimeout);
  }
  pRecord.reset();
  lock.lock();
  m_bDelivering = false;
  m_delivered.notify_all();
}

void CServerLink::OnOutcome(const std::shared_ptr<LinkRecord>& pRecord, uint32_t uResult) {
  auto* pTracked = static_cast<TrackedRecord*>(pRecord.get());
  if (pTracked == nullptr) {
    return;
  }
  {
    std::unique_lock lock(m_mutex);
    if (m_phase == Phase::Stopped || pTracked->state != RecordState::WithDriver) {
      return;
    }
    CountAnswerLocked(*pTracked, uResult);
    if (m_bUpLogDue && uResult == kHostOk) {
      LogUp(lock);
    }
  }
  SendResult(*pTracked, uResult);
}

void CServerLink::OnDelivered(const std::vector<std::shared_ptr<LinkRecord>>& vecRecords, size_t uCount) {
  std::array<const TrackedRecord*, 64> apCounted;
  for (size_t uNext = 0; uNext < uCount;) {
    size_t uCounted = 0;
    {
      std::unique_lock lock(m_mutex);
      if (m_phase == Phase::Stopped) {
        return;
      }
      for (; uNext < uCount && uCounted < apCounted.size(); ++uNext) {
        auto* pTracked = static_cast<TrackedRecord*>(vecRecords[uNext].get());
        if (pTracked != nullptr && pTracked->state == RecordState::WithDriver) {
          CountAnswerLocked(*pTracked, kHostOk);
          apCounted[uCounted++] = pTracked;
        }
      }
      if (m_bUpLogDue && uCounted > 0) {
        LogUp(lock);
      }
    }
    for (size_t i = 0; i < uCounted; ++i) {
      SendResult(*apCounted[i], kHostOk);
    }
  }
}

void CServerLink::OnGivenBack(std::vector<std::shared_ptr<LinkRecord>> vecRecords) {
  AnswerList answers;
  std::unique_lock lock(m_mutex);
  if (m_phase == Phase::Stopped) {
    return;
  }
  for (std::shared_ptr<LinkRecord>& pRecord : vecRecords) {
    TrackedPtr pTracked = std::static_pointer_cast<TrackedRecord>(std::move(pRecord));
    if (!pTracked || pTracked->state != RecordState::WithDriver) {
      continue;
    }
    if (!HoldLocked(pTracked)) {
      CountAnswerLocked(*pTracked, kHostSendTimeout);
      lock.unlock();
      SendResult(*pTracked, kHostSendTimeout);
      lock.lock();
    }
  }
  SpendAnswersLocked(answers);
  Pump(lock, nullptr);
  lock.unlock();
  SendTimeouts(answers);
}

void CServerLink::OnUp() {
  std::unique_lock lock(m_mutex);
  if (m_phase != Phase::Running || m_counts.bUp) {
    return;
  }
  m_counts.bUp = true;
  m_bAnnounceDue = true;
  m_u64AnnounceAfter = m_u64LastSequence;
  m_counts.stateSince = std::chrono::steady_clock::now();
  m_strDownReason.clear();
  m_bUpLogDue = true;
  if (!m_bRecurring) {
    LogUp(lock);
  }
  Pump(lock, nullptr);
}

// Gives the lock up in between.
void CServerLink::LogUp(std::unique_lock<std::mutex>& lock) {
  m_bUpLogDue = false;
  m_bRecurring = false;
  const size_t uHeld = m_mapHeld.size();
  const double dSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - m_downSince).count();
  lock.unlock();
  LogPrint(m_hLog, kLogLifecycle, "server link up: %zu records were held, after %.1f seconds", uHeld, dSeconds);
  lock.lock();
}

bool CServerLink::IsRecurringLocked(const std::string& strReason) const {
  return m_u64DeliveredAtDown == m_counts.u64Delivered && m_uDownReason == std::hash<std::string>()(strReason);
}

void CServerLink::OnDown(const std::string& strReason) {
  AnswerList answers;
  bool bLog = false;
  {
    std::unique_lock lock(m_mutex);
    if (m_phase == Phase::Stopped) {
      return;
    }
    if (m_counts.bUp) {
      m_counts.bUp = false;
      m_bAnnounceDue = false;
      m_uAnswersLeft = kAnsweredPerOutage;
      const bool bRecurring = IsRecurringLocked(strReason);
      // Its first end was logged, the later ones were not.
      m_bDownLogged = bRecurring && m_bUpLogDue;
      m_bRecurring = bRecurring;
      m_bUpLogDue = false;
      if (!bRecurring) {
        m_downSince = std::chrono::steady_clock::now();
        m_u64DeliveredAtDown = m_counts.u64Delivered;
        m_uDownReason = std::hash<std::string>()(strReason);
      }
      m_counts.stateSince = m_downSince;
    }
    try {
      m_strDownReason = strReason;
    } catch (...) {
      m_strDownReason.clear();  // no memory for it: the outage counts, not its words
    }
    bLog = !std::exchange(m_bDownLogged, true);
    SpendAnswersLocked(answers);
    // The driver may count on it: no delivery after this call until it is up again.
    m_delivered.wait(lock, [this] { return !m_bDelivering || m_idDelivering == std::this_thread::get_id(); });
  }
  if (bLog) {
    LogPrint(m_hLog, kLogWarning, "server link down: %s", strReason.c_str());
  }
  SendTimeouts(answers);
}

void CServerLink::SendTimeouts(const AnswerList& answers) {
  for (size_t i = 0; i < answers.uCount; ++i) {
    SendResult(*answers.aRecords[i], kHostSendTimeout);
  }
}

void CServerLink::SendResult(const LinkRecord& record, uint32_t uResult) {
  const LinkResult result{record.sender, record.tags.u64DataId, uResult};
  const uint32_t uStatus = PostResult(result);
  // One line for a row of refusals: a component that is gone refuses them all.
  if (m_bResultRefused.exchange(uStatus != kHostOk) == false && uStatus != kHostOk) {
    LogPrint(m_hLog, kLogWarning, "server link: the router refused a result: %x", uStatus);
  }
  // Any other refusal is final: nobody is there to take the result.
  if (uStatus == kHostNoMemory && !m_resultQueue.Keep(result)) {
    LogPrint(m_hLog, kLogWarning, "server link: the result of record %llx is lost",
             static_cast<unsigned long long>(result.u64DataId));
  }
}

uint32_t CServerLink::PostResult(const LinkResult& result) {
  static_assert(std::endian::native == std::endian::little);
  std::array<uint8_t, 32> aPayload{};
  std::memcpy(aPayload.data() + 4, &result.uResult, sizeof(result.uResult));
  std::memcpy(aPayload.data() + 8, &result.u64DataId, sizeof(result.u64DataId));
  uint64_t u64Act = 0;
  return m_pContext->AsynSendEx(&result.sender, LOGCACHE_MSG_ASYNC_LOGCACHR_RESULT, aPayload.data(),
                                static_cast<uint32_t>(aPayload.size()), nullptr, 0, &u64Act, kResultTimeoutMs);
}

void CServerLink::Announce() {
  (void)m_pContext->Broadcast(AGENT_MSG_BROADCAST_CONNECT, kConnectPayload);
}
