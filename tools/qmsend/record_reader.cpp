#include "tools/qmsend/record_reader.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace {

constexpr size_t kReadSize = 256U << 10;
// What is kept of a record that is too long, to name it by.
constexpr size_t kKeptHead = 64;

}  // namespace

CRecordReader::CRecordReader(RecordMode mode, size_t uMaxRecord) : m_mode(mode), m_uMaxRecord(uMaxRecord) {}

CRecordReader::Step CRecordReader::Next(Record& record) {
  if (m_mode != RecordMode::WholeFile && m_uScanned < m_uEnd) {
    const char cDelimiter = m_mode == RecordMode::Lines ? '\n' : '\0';
    const void* pFound = std::memchr(m_pBuffer.get() + m_uScanned, cDelimiter, m_uEnd - m_uScanned);
    if (pFound != nullptr) {
      const auto uAt = static_cast<size_t>(static_cast<const char*>(pFound) - m_pBuffer.get());
      m_uBegin = Found(uAt, record) + 1;
      m_uScanned = m_uBegin;
      return Step::Record;
    }
  }
  m_uScanned = m_uEnd;
  if (m_bEnded) {
    const bool bRest = m_uEnd > m_uBegin || m_u64Dropped > 0;
    const bool bEmptyFile = m_mode == RecordMode::WholeFile && m_u64Number == 0;
    if (!bRest && !bEmptyFile) {
      return Step::End;
    }
    m_uBegin = Found(m_uEnd, record);
    return Step::Record;
  }
  if (m_uEnd - m_uBegin > std::max(m_uMaxRecord, kKeptHead)) {
    m_u64Dropped += m_uEnd - m_uBegin - kKeptHead;
    m_uEnd = m_uBegin + kKeptHead;
    m_uScanned = m_uEnd;
  }
  return Step::NeedInput;
}

// The record from m_uBegin to uEnd; returns uEnd.
size_t CRecordReader::Found(size_t uEnd, Record& record) {
  const size_t uSize = uEnd - m_uBegin;
  record.u64Number = ++m_u64Number;
  record.u64Length = uSize + m_u64Dropped;
  record.bTooLong = record.u64Length > m_uMaxRecord;
  record.svBytes = {m_pBuffer.get() + m_uBegin, record.bTooLong ? std::min(uSize, kKeptHead) : uSize};
  m_u64Dropped = 0;
  return uEnd;
}

CRecordReader::Input CRecordReader::ReadFrom(int iDescriptor) {
  const Input input = ReadOn(iDescriptor);
  m_bEnded = input == Input::Ended || input == Input::Failed;
  return input;
}

CRecordReader::Input CRecordReader::ReadOn(int iDescriptor) {
  Reserve();
  const ssize_t iRead = ::read(iDescriptor, m_pBuffer.get() + m_uEnd, m_uCapacity - m_uEnd);
  if (iRead > 0) {
    m_uEnd += static_cast<size_t>(iRead);
    return Input::Some;
  }
  if (iRead < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
    return Input::None;
  }
  return iRead == 0 ? Input::Ended : Input::Failed;
}

void CRecordReader::Restart(size_t uMaxRecord) {
  m_uMaxRecord = uMaxRecord;
  m_uBegin = 0;
  m_uScanned = 0;
  m_uEnd = 0;
  m_u64Dropped = 0;
  m_u64Number = 0;
  m_bEnded = false;
}

// Room for a good piece: the rest of a record moves to the front, and only a long one makes the buffer grow.
void CRecordReader::Reserve() {
  const size_t uSize = m_uEnd - m_uBegin;
  if (m_uBegin > 0) {
    std::memmove(m_pBuffer.get(), m_pBuffer.get() + m_uBegin, uSize);
    m_uScanned -= m_uBegin;
    m_uBegin = 0;
    m_uEnd = uSize;
  }
  if (m_uCapacity - uSize >= kReadSize / 2) {
    return;
  }
  const size_t uCapacity = std::max(m_uCapacity * 2, kReadSize);
  auto pBuffer = std::make_unique_for_overwrite<char[]>(uCapacity);
  if (uSize > 0) {
    std::memcpy(pBuffer.get(), m_pBuffer.get(), uSize);
  }
  m_pBuffer = std::move(pBuffer);
  m_uCapacity = uCapacity;
}
