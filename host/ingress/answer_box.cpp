#include "host/ingress/answer_box.h"

#include <utility>

CAnswerBox::CAnswerBox(uint32_t uWindow, size_t uMaxOutput, std::function<void()> fnWake)
    : m_uWindow(uWindow), m_uMaxOutput(uMaxOutput), m_fnWake(std::move(fnWake)) {}

void CAnswerBox::OnReply(uint64_t u64Cookie, uint32_t uStatus, std::string_view svText) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (m_uUnanswered > 0) {
    --m_uUnanswered;
  }
  if (!m_bSealed) {
    const size_t uOldSize = m_strOutput.size();
    try {
      AppendAnswer(m_strOutput, {uStatus, u64Cookie, svText.substr(0, kMaxAnswerText)});
    } catch (...) {
      m_strOutput.resize(uOldSize);
      m_bBroken = true;
    }
  }
  WakeLocked();
}

CAnswerBox::Admission CAnswerBox::Admit() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (m_strOutput.size() > m_uMaxOutput) {
    return Admission::OutputFull;
  }
  if (m_uUnanswered >= m_uWindow) {
    return Admission::WindowFull;
  }
  ++m_uUnanswered;
  return Admission::Taken;
}

void CAnswerBox::AddWelcome(const IngressWelcome& welcome) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  AppendWelcome(m_strOutput, welcome);
}

void CAnswerBox::AddFailure(IngressFailure failure, std::string_view svText) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_bSealed) {
    AppendFailure(m_strOutput, failure, svText);
    m_bSealed = true;
  }
}

void CAnswerBox::HoldWakes() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_bTakerComes = true;
}

bool CAnswerBox::TakeOutput(std::string& strOut, bool& bIdle) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  bIdle = false;
  if (!m_strOutput.empty()) {
    strOut.swap(m_strOutput);
    return true;
  }
  m_bTakerComes = false;
  bIdle = m_uUnanswered == 0;
  return false;
}

bool CAnswerBox::IsBroken() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_bBroken;
}

void CAnswerBox::Close() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_fnWake = nullptr;
  m_bSealed = true;
  std::string().swap(m_strOutput);
}

void CAnswerBox::WakeLocked() {
  if (m_bTakerComes || !m_fnWake) {
    return;
  }
  try {
    m_fnWake();
    m_bTakerComes = true;
  } catch (...) {
    m_bBroken = true;  // the next periodic check closes the connection
  }
}
