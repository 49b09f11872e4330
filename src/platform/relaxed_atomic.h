// A field that one thread may read while another writes it, where a stale value is acceptable and no other memory is
// published through it. Copyable, so that a plain record may hold it.
#ifndef QMLOGCACHE_PLATFORM_RELAXED_ATOMIC_H_
#define QMLOGCACHE_PLATFORM_RELAXED_ATOMIC_H_

#include <atomic>

template <typename T>
class CRelaxedAtomic {
 public:
  constexpr CRelaxedAtomic(T value = T()) : m_value(value) {}  // NOLINT(google-explicit-constructor): acts as a T
  CRelaxedAtomic(const CRelaxedAtomic& other) : m_value(other.Load()) {}
  CRelaxedAtomic& operator=(const CRelaxedAtomic& other) {
    Store(other.Load());
    return *this;
  }
  CRelaxedAtomic& operator=(T value) {
    Store(value);
    return *this;
  }
  operator T() const { return Load(); }  // NOLINT(google-explicit-constructor): acts as a T

  T Load() const { return m_value.load(std::memory_order_relaxed); }
  void Store(T value) { m_value.store(value, std::memory_order_relaxed); }
  // Adds and returns the new value; atomic, so that no increment is lost.
  T Add(T delta) { return static_cast<T>(m_value.fetch_add(delta, std::memory_order_relaxed) + delta); }

 private:
  std::atomic<T> m_value;
};

#endif  // QMLOGCACHE_PLATFORM_RELAXED_ATOMIC_H_
