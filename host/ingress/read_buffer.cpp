#include "host/ingress/read_buffer.h"

#include <algorithm>
#include <cstring>
#include <new>

CReadBuffer::Space CReadBuffer::Prepare(size_t uFrameSize) {
  const size_t uLimit = std::max(kBusySize, uFrameSize);
  if (m_uBegin > 0) {
    Compact();
  }
  if (m_uCapacity > uLimit && m_uEnd < uLimit) {
    Resize(uLimit);
  } else if (m_uCapacity == 0) {
    Resize(kFirstSize);
  } else if (m_uCapacity < uLimit && (m_bFilled || m_uEnd == m_uCapacity)) {
    Resize(std::min(uLimit, m_uCapacity * 2));
  }
  m_bFilled = false;
  return {m_pStorage.get() + m_uEnd, m_uCapacity - m_uEnd};
}

void CReadBuffer::Commit(size_t uSize) {
  m_uEnd += uSize;
  m_bFilled = m_uEnd == m_uCapacity;
}

void CReadBuffer::Consume(size_t uSize) {
  m_uBegin += uSize;
  if (Empty()) {
    m_uBegin = 0;
    m_uEnd = 0;
    if (m_uCapacity > kBusySize) {
      Release();
    }
  }
}

void CReadBuffer::Release() {
  m_pStorage.reset();
  m_uCapacity = 0;
  m_uBegin = 0;
  m_uEnd = 0;
  m_bFilled = false;
}

void CReadBuffer::Compact() {
  std::memmove(m_pStorage.get(), m_pStorage.get() + m_uBegin, m_uEnd - m_uBegin);
  m_uEnd -= m_uBegin;
  m_uBegin = 0;
}

// realloc moves the pages of a long frame instead of holding it twice.
void CReadBuffer::Resize(size_t uCapacity) {
  auto* pStorage = static_cast<char*>(std::realloc(m_pStorage.get(), uCapacity));
  if (pStorage == nullptr) {
    throw std::bad_alloc();
  }
  (void)m_pStorage.release();
  m_pStorage.reset(pStorage);
  m_uCapacity = uCapacity;
}
