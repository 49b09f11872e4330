#include "host/service/loop.h"

#include <mutex>
#include <utility>

namespace {

std::mutex g_LoopsLock;         // guards the list, and the loops' counts of threads
CLoop* g_pFirstLoop = nullptr;  // those that have a thread

thread_local CLoop* t_pLoop = nullptr;
thread_local bool t_bForeign = false;

}  // namespace

CLoop::CLoop(std::string strName, std::function<void()> fnWake)
    : m_strName(std::move(strName)), m_fnWake(std::move(fnWake)) {}

void CLoop::AskAll() {
  const std::lock_guard<std::mutex> guard(g_LoopsLock);
  for (CLoop* pLoop = g_pFirstLoop; pLoop != nullptr; pLoop = pLoop->m_pNext) {
    pLoop->m_bDue.store(true, std::memory_order_relaxed);
  }
}

std::string CLoop::WakeLate() {
  std::string strNames;
  const std::lock_guard<std::mutex> guard(g_LoopsLock);
  for (CLoop* pLoop = g_pFirstLoop; pLoop != nullptr; pLoop = pLoop->m_pNext) {
    if (!pLoop->IsTurnDue() || pLoop->IsAway()) {
      continue;
    }
    strNames += (strNames.empty() ? "" : ", ") + pLoop->m_strName;
    pLoop->m_fnWake();
  }
  return strNames;
}

CLoopThread::CLoopThread(CLoop& loop) : m_Loop(loop) {
  t_pLoop = &loop;
  t_bForeign = false;
  const std::lock_guard<std::mutex> guard(g_LoopsLock);
  if (loop.m_uThreads++ == 0) {
    loop.m_bDue.store(false);
    loop.m_pNext = std::exchange(g_pFirstLoop, &loop);
  }
}

CLoopThread::~CLoopThread() {
  t_pLoop = nullptr;
  const std::lock_guard<std::mutex> guard(g_LoopsLock);
  if (--m_Loop.m_uThreads > 0) {
    return;
  }
  CLoop** ppLoop = &g_pFirstLoop;
  while (*ppLoop != &m_Loop) {
    ppLoop = &(*ppLoop)->m_pNext;
  }
  *ppLoop = std::exchange(m_Loop.m_pNext, nullptr);
}

CCodeScope::CCodeScope(bool bForeign) : m_bBefore(std::exchange(t_bForeign, bForeign)) {
  if (t_pLoop != nullptr && bForeign != m_bBefore) {
    bForeign ? ++t_pLoop->m_uAway : --t_pLoop->m_uAway;
  }
}

CCodeScope::~CCodeScope() {
  const bool bForeign = std::exchange(t_bForeign, m_bBefore);
  if (t_pLoop != nullptr && bForeign != m_bBefore) {
    bForeign ? --t_pLoop->m_uAway : ++t_pLoop->m_uAway;
  }
}
