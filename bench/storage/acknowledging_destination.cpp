#include "bench/storage/acknowledging_destination.h"

#include <stdexcept>

CAcknowledgingDestination::CAcknowledgingDestination() : m_thread([this] { Run(); }) {}

CAcknowledgingDestination::~CAcknowledgingDestination() {
  {
    const std::lock_guard guard(m_mutex);
    m_bStopping = true;
  }
  m_condition.notify_all();
  m_thread.join();
}

void CAcknowledgingDestination::SetComponent(CLoadedComponent* pComponent) {
  std::unique_lock lock(m_mutex);
  m_pComponent = pComponent;
  m_condition.wait(lock, [this] { return !m_bSettling; });
}

uint32_t CAcknowledgingDestination::OnSend(uint64_t u64DataId, std::string_view /*svTaggedText*/) {
  {
    const std::lock_guard guard(m_mutex);
    m_deqSent.push_back(u64DataId);
  }
  m_condition.notify_all();
  return 0;
}

void CAcknowledgingDestination::WaitForSettled(size_t uRecords) {
  constexpr auto kLongest = std::chrono::minutes(5);
  std::unique_lock lock(m_mutex);
  if (!m_condition.wait_for(lock, kLongest, [&] { return m_uSettled >= uRecords; })) {
    throw std::runtime_error("the component has not sent all its records");
  }
}

void CAcknowledgingDestination::Run() {
  std::unique_lock lock(m_mutex);
  for (;;) {
    m_condition.wait(lock, [this] { return m_bStopping || (m_pComponent != nullptr && !m_deqSent.empty()); });
    if (m_bStopping) {
      return;
    }
    const uint64_t u64DataId = m_deqSent.front();
    m_deqSent.pop_front();
    CLoadedComponent* pComponent = m_pComponent;
    m_bSettling = true;
    lock.unlock();
    pComponent->Settle(u64DataId, 0);
    lock.lock();
    m_bSettling = false;
    ++m_uSettled;
    m_condition.notify_all();
  }
}
