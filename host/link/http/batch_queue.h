// The records that wait for a request, and how they are put into batches.
//
// What goes out first: batches that came back to be sent in another way (halves of a refused one, a record that was put
// aside), then new records in the order of their arrival. A record that was refused by itself is put aside: it does not
// go out, and nothing waits for it, until the server has accepted records that were sent later.
#ifndef QMLOGCACHE_HOST_LINK_HTTP_BATCH_QUEUE_H_
#define QMLOGCACHE_HOST_LINK_HTTP_BATCH_QUEUE_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <optional>
#include <random>
#include <vector>

#include "host/link/link_driver.h"

inline constexpr size_t kBatchRecords = 64;

using LinkRecordList = std::vector<std::shared_ptr<LinkRecord>>;

struct HttpBatch {
  LinkRecordList vecRecords;
  // The last request that had begun when this batch, or the one it was a part of, was refused first.
  std::optional<uint64_t> firstRefusedAfter;
  // The same of one record that was refused by itself.
  std::optional<uint64_t> refusedAfter;
  // Its answer did not come in time: an empty request asks whether the server is there at all.
  bool bAsking = false;
};

// Not for several threads at a time. Functions that take memory throw std::bad_alloc and then have changed nothing.
class CBatchQueue {
 public:
  // uBytes: text of the records of a batch; a longer record goes alone.
  explicit CBatchQueue(size_t uBytes) : m_uBytes(uBytes) {}

  void Add(const LinkRecordList& vecRecords);
  // To go out before everything else. Both leave the batch without records.
  void AddFirst(HttpBatch& batch);
  // In two halves, the first not the shorter one. For batches of two records and more.
  void AddHalvesFirst(HttpBatch& batch);
  // For a batch of one record that was refused; refusedAfter is set.
  void PutAside(HttpBatch& batch);
  size_t CountAside() const { return m_lstAside.size(); }
  // The server has accepted the records of that request: what was put aside before it began is to go out again, by
  // itself and before everything else.
  void BringBack(uint64_t u64Accepted) noexcept;
  // Whether nothing is to go out.
  bool IsEmpty() const { return m_lstBatches.empty() && m_deqRecords.empty(); }
  // Whether waiting longer could not make the next batch larger.
  bool HasFullBatch() const;
  // How many new records would fill the next batch; at least 1.
  size_t CountMissing() const { return m_deqRecords.size() < kBatchRecords ? kBatchRecords - m_deqRecords.size() : 1; }
  // The queue must not be empty.
  HttpBatch TakeNext();
  // The same, but of new records one alone, drawn at random.
  HttpBatch TakeAny(std::mt19937_64& random);
  // With what was put aside, as TakeOne.
  LinkRecordList TakeAll();
  // Takes no memory; null when the queue is empty.
  std::shared_ptr<LinkRecord> TakeOne() noexcept;

 private:
  // How many of the first records make the next batch.
  size_t CountNext(bool& bFull) const;

  const size_t m_uBytes;
  std::list<HttpBatch> m_lstBatches;
  std::list<HttpBatch> m_lstAside;
  std::deque<std::shared_ptr<LinkRecord>> m_deqRecords;
};

#endif  // QMLOGCACHE_HOST_LINK_HTTP_BATCH_QUEUE_H_
