// Messages that wait for their answer, each under a handle that is a number and never a pointer: a handle that is
// unknown, already answered or somebody else's finds nothing.
//
// A handle is 36 bits of generation, 24 bits of index, 1 bit of table and 3 bits of shard. The generation of an entry
// changes with every use, so that an old handle does not name a new message.
//
// Threads: any. One lock a shard, held for the look-up alone; a thread adds to the shard it was given.
#ifndef QMLOGCACHE_HOST_ROUTER_WAIT_TABLE_H_
#define QMLOGCACHE_HOST_ROUTER_WAIT_TABLE_H_

#include <algorithm>
#include <array>
#include <cstdint>
#include <deque>
#include <limits>
#include <mutex>
#include <utility>
#include <vector>

#include "host/router/thread_shard.h"

// Monotonic time in milliseconds.
using MonotonicMs = int64_t;
inline constexpr MonotonicMs kNoDeadline = std::numeric_limits<MonotonicMs>::max();

// Nobody may answer yet.
inline constexpr uint64_t kNoAnswerer = 0;

template <typename TWaiter>
class CWaitTable {
 public:
  // uTable: 0 or 1, so that the handles of two tables differ.
  explicit CWaitTable(unsigned int uTable) : m_uTable(uTable) {}

  // Whether a handle is one of this table's; says nothing about its being in use.
  bool IsMine(uint64_t u64Handle) const { return ((u64Handle >> kTableShift) & 1U) == m_uTable; }

  // Returns a handle that is not 0, or 0 (and leaves waiter alone) when 2^24 messages of a shard wait. May throw
  // std::bad_alloc.
  uint64_t Add(TWaiter&& waiter, uint64_t u64Answerer, MonotonicMs i64Deadline) {
    const unsigned int uShard = ThreadShard();
    Shard& shard = m_arrShards[uShard];
    const std::lock_guard<std::mutex> guard(shard.lock);
    if (shard.uFirstFree == kNone) {
      if (shard.dequeEntries.size() >= kMaxEntries) {
        return 0;
      }
      shard.dequeEntries.emplace_back();
      shard.uFirstFree = static_cast<uint32_t>(shard.dequeEntries.size() - 1);
    }
    const uint32_t uIndex = shard.uFirstFree;
    Entry& entry = shard.dequeEntries[uIndex];
    shard.uFirstFree = entry.uNextFree;
    entry.bWaiting = true;
    entry.u64Answerer = u64Answerer;
    entry.i64Deadline = i64Deadline;
    entry.waiter = std::move(waiter);
    return (entry.u64Generation << kGenerationShift) | (static_cast<uint64_t>(uIndex) << kIndexShift) |
           (static_cast<uint64_t>(m_uTable) << kTableShift) | uShard;
  }

  // Says who may answer. False when the message waits no more.
  bool SetAnswerer(uint64_t u64Handle, uint64_t u64Answerer) {
    return WithEntry(u64Handle, [u64Answerer](Shard&, uint32_t, Entry& entry) {
      entry.u64Answerer = u64Answerer;
      return true;
    });
  }

  bool SetDeadline(uint64_t u64Handle, MonotonicMs i64Deadline) {
    return WithEntry(u64Handle, [i64Deadline](Shard&, uint32_t, Entry& entry) {
      entry.i64Deadline = i64Deadline;
      return true;
    });
  }

  bool Take(uint64_t u64Handle, TWaiter& waiter) {
    return WithEntry(u64Handle, [&waiter](Shard& shard, uint32_t uIndex, Entry& entry) {
      waiter = Free(shard, uIndex, entry);
      return true;
    });
  }

  // Takes the message if this answerer may answer it.
  bool TakeAnswered(uint64_t u64Handle, uint64_t u64Answerer, TWaiter& waiter) {
    return WithEntry(u64Handle, [&waiter, u64Answerer](Shard& shard, uint32_t uIndex, Entry& entry) {
      if (entry.u64Answerer != u64Answerer) {
        return false;
      }
      waiter = Free(shard, uIndex, entry);
      return true;
    });
  }

  // Takes each message for which fnMatch(waiter, answerer, deadline) is true and gives it to fnTaken, which is called
  // without a lock. fnMatch is called under a shard's lock.
  template <typename TMatch, typename TTaken>
  void TakeIf(const TMatch& fnMatch, const TTaken& fnTaken) {
    for (Shard& shard : m_arrShards) {
      std::unique_lock<std::mutex> guard(shard.lock);
      // Entries are never removed, so the index stays good while the lock is given up.
      for (uint32_t uIndex = 0; uIndex < shard.dequeEntries.size(); ++uIndex) {
        Entry& entry = shard.dequeEntries[uIndex];
        if (entry.bWaiting && fnMatch(std::as_const(entry.waiter), entry.u64Answerer, entry.i64Deadline)) {
          TWaiter waiter = Free(shard, uIndex, entry);
          guard.unlock();
          fnTaken(waiter);
          guard.lock();
        }
      }
    }
  }

 private:
  struct Entry {
    uint64_t u64Generation = 1;
    uint64_t u64Answerer = kNoAnswerer;
    MonotonicMs i64Deadline = kNoDeadline;
    uint32_t uNextFree = kNone;
    bool bWaiting = false;
    TWaiter waiter{};
  };
  struct alignas(kCacheLine) Shard {
    std::mutex lock;  // guards the rest
    std::deque<Entry> dequeEntries;
    uint32_t uFirstFree = kNone;
  };

  static constexpr unsigned int kShards = kThreadShards;
  static_assert(kShards == 8, "a handle has three bits for it");
  static constexpr unsigned int kTableShift = 3;
  static constexpr unsigned int kIndexShift = 4;
  static constexpr unsigned int kGenerationShift = 28;
  static constexpr uint32_t kMaxEntries = 1U << (kGenerationShift - kIndexShift);
  static constexpr uint64_t kMaxGeneration = (uint64_t{1} << (64 - kGenerationShift)) - 1;
  static constexpr uint32_t kNone = std::numeric_limits<uint32_t>::max();

  static TWaiter Free(Shard& shard, uint32_t uIndex, Entry& entry) {
    TWaiter waiter = std::move(entry.waiter);
    entry.waiter = TWaiter{};
    entry.bWaiting = false;
    entry.u64Answerer = kNoAnswerer;
    entry.i64Deadline = kNoDeadline;
    entry.u64Generation = entry.u64Generation == kMaxGeneration ? 1 : entry.u64Generation + 1;
    entry.uNextFree = shard.uFirstFree;
    shard.uFirstFree = uIndex;
    return waiter;
  }

  template <typename TAction>
  bool WithEntry(uint64_t u64Handle, const TAction& fnAction) {
    if (!IsMine(u64Handle)) {
      return false;
    }
    Shard& shard = m_arrShards[u64Handle & (kShards - 1)];
    const uint32_t uIndex = static_cast<uint32_t>(u64Handle >> kIndexShift) & (kMaxEntries - 1);
    const std::lock_guard<std::mutex> guard(shard.lock);
    if (uIndex >= shard.dequeEntries.size()) {
      return false;
    }
    Entry& entry = shard.dequeEntries[uIndex];
    if (!entry.bWaiting || entry.u64Generation != u64Handle >> kGenerationShift) {
      return false;
    }
    return fnAction(shard, uIndex, entry);
  }

  const unsigned int m_uTable;
  std::array<Shard, kShards> m_arrShards;
};

#endif  // QMLOGCACHE_HOST_ROUTER_WAIT_TABLE_H_
