// The four queues: which one a record goes to, queueing and taking, and the references that queue entries hold.
#include <unistd.h>

#include <ctime>

#include "platform/event.h"
#include "platform/status_codes.h"
#include "store/log_cache_data.h"

namespace {
constexpr unsigned int kTakeWaitSeconds = 5;
constexpr auto kQueued = _LogExecData::CMarks::kQueued;

void DropReference(_LogExecData* pExecData) {
  // The acquire half makes every other holder's reads happen before the record goes.
  if (pExecData->uRefs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    delete pExecData;
  }
}
}  // namespace

void ExecDataRelease::operator()(_LogExecData* pExecData) const {
  DropReference(pExecData);
}

int QueueIndexOfPriority(int iPriv) {
  constexpr int kQueues = 4;
  constexpr int kPublic = 10;
  if (iPriv < 0) {
    return 0;
  }
  return iPriv < kPublic ? iPriv % kQueues : (iPriv - kPublic) & (kQueues - 1);
}

bool CLogCacheData::QueueExecData(_LogExecData* pExecData) {
  const auto uIndex = static_cast<size_t>(QueueIndexOfPriority(pExecData->iPriv));
  if (!pExecData->marks.Set(kQueued)) {
    pExecData->uRefs.fetch_add(1, std::memory_order_relaxed);
    if (QmMsgQueueInsert(&m_ExecDataQueue[uIndex], 0, 0, pExecData) != 0) {
      pExecData->marks.Clear(kQueued);
      DropReference(pExecData);  // not the last one: the caller reaches the record too
      return false;
    }
  }
  if (m_hDataEvent != nullptr) {
    QmSetEvent(m_hDataEvent);
  }
  return true;
}

_LogExecData* CLogCacheData::TakeFromQueues() {
  QmMsg msg{};
  for (int i = kQueueCount - 1; i >= 0; --i) {
    while (QmGetMsgFromQueue(&m_ExecDataQueue[static_cast<size_t>(i)], &msg, 0) == 0) {
      auto* pExecData = static_cast<_LogExecData*>(msg.pItem);
      pExecData->marks.Clear(kQueued);
      if (!pExecData->marks.Has(_LogExecData::CMarks::kErased)) {
        return pExecData;  // with the entry's reference
      }
      DropReference(pExecData);
    }
  }
  return nullptr;
}

ExecDataHold CLogCacheData::GetExecData() {
  _LogExecData* pExecData = TakeFromQueues();
  if (pExecData == nullptr) {
    if (m_hDataEvent != nullptr) {
      QmWaitEventTimeout(m_hDataEvent, kTakeWaitSeconds * 1000);
    } else {
      sleep(kTakeWaitSeconds);
    }
    pExecData = TakeFromQueues();
  }
  if (pExecData != nullptr) {
    pExecData->StartTime = static_cast<uint32_t>(time(nullptr));
  }
  return ExecDataHold(pExecData);
}

void CLogCacheData::WakeTaker() {
  if (m_hDataEvent != nullptr) {
    QmSetEvent(m_hDataEvent);
  }
}

void CLogCacheData::ForgetQueuedData() {
  QmMsg msg{};
  for (QmMsgQueue& queue : m_ExecDataQueue) {
    while (QmGetMsgFromQueue(&queue, &msg, 0) == 0) {
      auto* pExecData = static_cast<_LogExecData*>(msg.pItem);
      pExecData->marks.Clear(kQueued);
      DropReference(pExecData);
    }
  }
}
