#include "host/router/registry.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <mutex>
#include <shared_mutex>
#include <utility>

#include "host/protocol/host_status.h"
#include "plugin/compctx/message_types.h"

namespace {

bool SameGuid(const GUID& left, const GUID& right) {
  return std::memcmp(&left, &right, sizeof(GUID)) == 0;
}

}  // namespace

bool IsDirectedType(uint32_t uMsgType) {
  return uMsgType == AGENT_MSG_ASYNC_LOGCACHE || uMsgType == LOGCACHE_MSG_ASYNC_LOGCACHR_RESULT;
}

bool IsBroadcastType(uint32_t uMsgType) {
  return uMsgType == AGENT_MSG_BROADCAST_CONNECT;
}

uint32_t CRegistry::Begin(ContextState& state, const GUID& guid) {
  if (SameGuid(guid, GUID{})) {
    return kHostBadArgument;
  }
  auto pSession = std::make_shared<Session>();
  pSession->guid = guid;
  const std::lock_guard<CManyReaderLock> guard(m_Lock);
  const bool bTaken = std::any_of(m_vecLive.begin(), m_vecLive.end(),
                                  [&guid](const ContextState* pLive) { return SameGuid(pLive->pSession->guid, guid); });
  if (bTaken || state.pSession) {
    return kHostAlreadyTaken;
  }
  m_vecLive.push_back(&state);
  pSession->u64Id = ++m_u64LastId;
  state.pSession = std::move(pSession);
  state.bEnded = false;
  return kHostOk;
}

uint32_t CRegistry::End(ContextState& state, EndedSession& ended) {
  const std::lock_guard<CManyReaderLock> guard(m_Lock);
  if (!state.pSession) {
    return kHostBadArgument;
  }
  const auto fnIsOwn = [&state](const auto& pRegistration) { return pRegistration->pSession == state.pSession; };
  // All that may fail for want of memory comes before the first change.
  for (const auto& [uMsgType, vecSameType] : m_mapRegistrations) {
    std::copy_if(vecSameType.begin(), vecSameType.end(), std::back_inserter(ended.vecCallees), fnIsOwn);
  }
  for (const auto& pLeaving : state.vecLeaving) {
    if (auto pCallee = pLeaving.lock()) {
      ended.vecCallees.push_back(std::move(pCallee));
    }
  }
  if (state.pRequests) {
    ended.vecCallees.push_back(state.pRequests);
  }
  for (auto& [uMsgType, vecSameType] : m_mapRegistrations) {
    std::erase_if(vecSameType, fnIsOwn);
  }
  std::erase(m_vecLive, &state);
  ended.pSession = std::move(state.pSession);
  state.pSession.reset();
  state.pRequests.reset();
  state.vecLeaving.clear();
  state.bEnded = true;
  return kHostOk;
}

std::shared_ptr<Session> CRegistry::Current(const ContextState& state, uint32_t& uStatus) const {
  const std::shared_lock<CManyReaderLock> guard(m_Lock);
  if (!state.pSession) {
    uStatus = NoSession(state);
  }
  return state.pSession;
}

uint64_t CRegistry::CurrentId(const ContextState& state, uint32_t& uStatus) const {
  const std::shared_lock<CManyReaderLock> guard(m_Lock);
  if (!state.pSession) {
    uStatus = NoSession(state);
    return 0;
  }
  return state.pSession->u64Id;
}

uint32_t CRegistry::NoSession(const ContextState& state) {
  return state.bEnded ? kHostStopping : kHostBadArgument;
}

uint32_t CRegistry::Add(const ContextState& state, uint32_t uMsgType, IMRReceiveComplete* pReceiver, void* pContext) {
  if (pReceiver == nullptr) {
    return kHostBadArgument;
  }
  auto pRegistration = std::make_shared<Registration>();
  pRegistration->uMsgType = uMsgType;
  pRegistration->pReceiver = pReceiver;
  pRegistration->pContext = pContext;
  const std::lock_guard<CManyReaderLock> guard(m_Lock);
  if (!state.pSession) {
    return NoSession(state);
  }
  auto& vecSameType = m_mapRegistrations[uMsgType];
  const bool bShared = IsDirectedType(uMsgType) || IsBroadcastType(uMsgType);
  const bool bTaken = std::any_of(vecSameType.begin(), vecSameType.end(),
                                  [&](const auto& pOther) { return !bShared || pOther->pSession == state.pSession; });
  if (bTaken) {
    return kHostAlreadyTaken;
  }
  pRegistration->pSession = state.pSession;
  vecSameType.push_back(std::move(pRegistration));
  return kHostOk;
}

std::shared_ptr<Registration> CRegistry::Remove(ContextState& state, uint32_t uMsgType) {
  const std::lock_guard<CManyReaderLock> guard(m_Lock);
  const auto itType = m_mapRegistrations.find(uMsgType);
  if (!state.pSession || itType == m_mapRegistrations.end()) {
    return nullptr;
  }
  auto& vecSameType = itType->second;
  const auto it = std::find_if(vecSameType.begin(), vecSameType.end(),
                               [&state](const auto& pOther) { return pOther->pSession == state.pSession; });
  if (it == vecSameType.end()) {
    return nullptr;
  }
  std::shared_ptr<Registration> pRegistration = *it;
  Leave(state, pRegistration);
  vecSameType.erase(it);
  return pRegistration;
}

std::shared_ptr<RequestEntry> CRegistry::SetRequests(ContextState& state, std::shared_ptr<RequestEntry> pRequests) {
  const std::lock_guard<CManyReaderLock> guard(m_Lock);
  if (state.pRequests) {
    Leave(state, state.pRequests);
  }
  std::swap(state.pRequests, pRequests);
  return pRequests;
}

void CRegistry::Leave(ContextState& state, const std::shared_ptr<Callee>& pCallee) {
  std::erase_if(state.vecLeaving, [](const auto& pOld) { return pOld.expired(); });
  state.vecLeaving.push_back(pCallee);
}

std::shared_ptr<Registration> CRegistry::FindOnly(uint32_t uMsgType) const {
  const std::shared_lock<CManyReaderLock> guard(m_Lock);
  const auto it = m_mapRegistrations.find(uMsgType);
  return it == m_mapRegistrations.end() || it->second.empty() ? nullptr : it->second.front();
}

std::shared_ptr<Registration> CRegistry::FindDirected(const GUID& guid, uint32_t uMsgType) const {
  const std::shared_lock<CManyReaderLock> guard(m_Lock);
  const std::shared_ptr<Registration>* ppRegistration = FindDirectedLocked(guid, uMsgType);
  return ppRegistration == nullptr ? nullptr : *ppRegistration;
}

bool CRegistry::HasDirected(const GUID& guid, uint32_t uMsgType) const {
  const std::shared_lock<CManyReaderLock> guard(m_Lock);
  return FindDirectedLocked(guid, uMsgType) != nullptr;
}

const std::shared_ptr<Registration>* CRegistry::FindDirectedLocked(const GUID& guid, uint32_t uMsgType) const {
  const auto itType = m_mapRegistrations.find(uMsgType);
  if (itType == m_mapRegistrations.end()) {
    return nullptr;
  }
  const auto it = std::find_if(itType->second.begin(), itType->second.end(), [&guid](const auto& pRegistration) {
    return SameGuid(pRegistration->pSession->guid, guid);
  });
  return it == itType->second.end() ? nullptr : &*it;
}

std::vector<std::shared_ptr<Registration>> CRegistry::FindAll(uint32_t uMsgType) const {
  const std::shared_lock<CManyReaderLock> guard(m_Lock);
  const auto it = m_mapRegistrations.find(uMsgType);
  return it == m_mapRegistrations.end() ? std::vector<std::shared_ptr<Registration>>{} : it->second;
}

std::shared_ptr<RequestEntry> CRegistry::FindRequests(const GUID& guid) const {
  const std::shared_lock<CManyReaderLock> guard(m_Lock);
  for (const ContextState* pLive : m_vecLive) {
    if (SameGuid(pLive->pSession->guid, guid)) {
      return pLive->pRequests;
    }
  }
  return nullptr;
}
