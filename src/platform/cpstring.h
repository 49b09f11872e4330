// CPString: the byte string used throughout.
//
// A value of one pointer. The bytes are shared between copies and never change once shared, so a copy costs one
// reference and copies may be used in different threads. The bytes may hold zeros; one more zero always follows them.
// Operations that need memory throw std::bad_alloc when there is none, std::length_error beyond 4 GiB.
#ifndef QMLOGCACHE_PLATFORM_CPSTRING_H_
#define QMLOGCACHE_PLATFORM_CPSTRING_H_

#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include "platform/api.h"

inline namespace qmplatform_v1 {

class QM_PLATFORM_API CPString {
 public:
  CPString() noexcept = default;
  CPString(const char* pszText)
      : CPString(std::string_view(pszText == nullptr ? "" : pszText)) {}  // NOLINT(google-explicit-constructor)
  CPString(const char* pData, size_t uLength) : CPString(std::string_view(pData, uLength)) {}
  explicit CPString(std::string_view svText);
  CPString(const CPString& other) noexcept : m_pRep(other.m_pRep) { AddRef(); }
  CPString(CPString&& other) noexcept : m_pRep(std::exchange(other.m_pRep, nullptr)) {}
  CPString& operator=(CPString other) noexcept {
    std::swap(m_pRep, other.m_pRep);
    return *this;
  }
  ~CPString() { Release(); }

  // A string of uLength bytes that the caller fills through *ppBytes before it copies the string. *ppBytes is null
  // when uLength is 0.
  static CPString Allocate(size_t uLength, char** ppBytes);

  const char* c_str() const noexcept {
    return m_pRep == nullptr ? "" : m_pRep->Bytes();
  }  // NOLINT(readability-identifier-naming)
  size_t GetLength() const noexcept { return m_pRep == nullptr ? 0 : m_pRep->dwLength; }
  bool IsEmpty() const noexcept { return m_pRep == nullptr; }
  std::string_view View() const noexcept { return {c_str(), GetLength()}; }

  // Replaces the text by the printf-style result.
  void Format(const char* pszFormat, ...) __attribute__((format(printf, 2, 3)));
  // The first or last uCount bytes; all of them when there are no more.
  CPString Left(size_t uCount) const;
  CPString Right(size_t uCount) const;
  // Replaces every occurrence of svFrom, left to right and without looking at what was put in. Returns how many; 0 for
  // an empty svFrom.
  size_t Replace(std::string_view svFrom, std::string_view svTo);

  friend bool operator==(const CPString& left, const CPString& right) noexcept { return left.View() == right.View(); }
  // Byte-wise, as unsigned bytes.
  friend std::strong_ordering operator<=>(const CPString& left, const CPString& right) noexcept {
    return left.View() <=> right.View();
  }

 private:
  struct Rep {
    std::atomic<uint32_t> dwRefs;
    uint32_t dwLength;
    char* Bytes() { return reinterpret_cast<char*>(this + 1); }
  };

  void AddRef() const noexcept {
    if (m_pRep != nullptr) {
      m_pRep->dwRefs.fetch_add(1, std::memory_order_relaxed);
    }
  }
  void Release() noexcept;
  static Rep* NewRep(size_t uLength);

  Rep* m_pRep = nullptr;  // null for the empty string
};

}  // namespace qmplatform_v1

#endif  // QMLOGCACHE_PLATFORM_CPSTRING_H_
