#include "host/link/http/batch_queue.h"

#include <algorithm>
#include <iterator>
#include <utility>

void CBatchQueue::Add(const LinkRecordList& vecRecords) {
  m_deqRecords.insert(m_deqRecords.end(), vecRecords.begin(), vecRecords.end());
}

// What needs memory comes first: the records are the batch's until nothing can fail any more.
void CBatchQueue::AddFirst(HttpBatch& batch) {
  std::list<HttpBatch> lstBatch(1);
  lstBatch.front() = std::exchange(batch, HttpBatch());
  m_lstBatches.splice(m_lstBatches.begin(), lstBatch);
}

void CBatchQueue::PutAside(HttpBatch& batch) {
  std::list<HttpBatch> lstBatch(1);
  lstBatch.front() = std::exchange(batch, HttpBatch());
  m_lstAside.splice(m_lstAside.end(), lstBatch);
}

void CBatchQueue::BringBack(uint64_t u64Accepted) noexcept {
  for (auto it = m_lstAside.begin(); it != m_lstAside.end();) {
    const auto itThis = it++;
    if (itThis->refusedAfter < u64Accepted) {
      m_lstBatches.splice(m_lstBatches.begin(), m_lstAside, itThis);
    }
  }
}

void CBatchQueue::AddHalvesFirst(HttpBatch& batch) {
  std::list<HttpBatch> lstHalves(2);
  HttpBatch& first = lstHalves.front();
  HttpBatch& second = lstHalves.back();
  const auto itMiddle = batch.vecRecords.begin() + static_cast<std::ptrdiff_t>((batch.vecRecords.size() + 1) / 2);
  first.vecRecords.assign(batch.vecRecords.begin(), itMiddle);
  second.vecRecords.assign(itMiddle, batch.vecRecords.end());
  first.firstRefusedAfter = second.firstRefusedAfter = batch.firstRefusedAfter;
  batch.vecRecords.clear();
  m_lstBatches.splice(m_lstBatches.begin(), lstHalves);
}

bool CBatchQueue::HasFullBatch() const {
  bool bFull = !m_lstBatches.empty();
  if (!bFull) {
    static_cast<void>(CountNext(bFull));
  }
  return bFull;
}

size_t CBatchQueue::CountNext(bool& bFull) const {
  size_t uBytes = 0;
  size_t uCount = 0;
  for (const auto& pRecord : m_deqRecords) {
    uBytes += pRecord->strText.size();
    if (uCount == kBatchRecords || (uCount > 0 && uBytes > m_uBytes)) {
      bFull = true;
      return uCount;
    }
    ++uCount;
  }
  bFull = uCount == kBatchRecords || uBytes >= m_uBytes;
  return uCount;
}

HttpBatch CBatchQueue::TakeNext() {
  HttpBatch batch;
  if (!m_lstBatches.empty()) {
    batch = std::move(m_lstBatches.front());
    m_lstBatches.pop_front();
    return batch;
  }
  bool bFull = false;
  const auto iCount = static_cast<std::ptrdiff_t>(CountNext(bFull));
  batch.vecRecords.assign(m_deqRecords.begin(), m_deqRecords.begin() + iCount);
  m_deqRecords.erase(m_deqRecords.begin(), m_deqRecords.begin() + iCount);
  return batch;
}

HttpBatch CBatchQueue::TakeAny(std::mt19937_64& random) {
  if (!m_lstBatches.empty()) {
    return TakeNext();
  }
  HttpBatch batch;
  const auto it = m_deqRecords.begin() + std::uniform_int_distribution<std::ptrdiff_t>(
                                             0, static_cast<std::ptrdiff_t>(m_deqRecords.size()) - 1)(random);
  batch.vecRecords.push_back(*it);
  m_deqRecords.erase(it);
  return batch;
}

LinkRecordList CBatchQueue::TakeAll() {
  m_lstBatches.splice(m_lstBatches.end(), m_lstAside);
  size_t uCount = m_deqRecords.size();
  for (const HttpBatch& batch : m_lstBatches) {
    uCount += batch.vecRecords.size();
  }
  LinkRecordList vecAll;
  vecAll.reserve(uCount);
  for (HttpBatch& batch : m_lstBatches) {
    std::move(batch.vecRecords.begin(), batch.vecRecords.end(), std::back_inserter(vecAll));
  }
  std::move(m_deqRecords.begin(), m_deqRecords.end(), std::back_inserter(vecAll));
  m_lstBatches.clear();
  m_deqRecords.clear();
  return vecAll;
}

std::shared_ptr<LinkRecord> CBatchQueue::TakeOne() noexcept {
  m_lstBatches.splice(m_lstBatches.end(), m_lstAside);
  std::shared_ptr<LinkRecord> pRecord;
  while (!m_lstBatches.empty() && !pRecord) {
    LinkRecordList& vecRecords = m_lstBatches.front().vecRecords;
    if (!vecRecords.empty()) {
      pRecord = std::move(vecRecords.back());
      vecRecords.pop_back();
    }
    if (vecRecords.empty()) {
      m_lstBatches.pop_front();
    }
  }
  if (!pRecord && !m_deqRecords.empty()) {
    pRecord = std::move(m_deqRecords.front());
    m_deqRecords.pop_front();
  }
  return pRecord;
}
