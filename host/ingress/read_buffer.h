// The bytes that have arrived on a connection and are not consumed yet, in one piece.
//
// Storage grows only as bytes come: an announced length costs nothing, and an idle connection can give its storage
// back. Not thread-safe.
#ifndef QMLOGCACHE_HOST_INGRESS_READ_BUFFER_H_
#define QMLOGCACHE_HOST_INGRESS_READ_BUFFER_H_

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string_view>

class CReadBuffer {
 public:
  // Size the storage reaches for a busy connection; only a longer frame takes more.
  static constexpr size_t kBusySize = 256U << 10;

  struct Space {
    char* pBegin;
    size_t uSize;
  };

  std::string_view Data() const { return {m_pStorage.get() + m_uBegin, m_uEnd - m_uBegin}; }
  bool Empty() const { return m_uBegin == m_uEnd; }
  size_t Capacity() const { return m_uCapacity; }

  // Room for at least one more byte. uFrameSize: bytes of the frame at the front if it is known, else 0; the storage
  // never grows beyond that or kBusySize, whichever is larger. The data may move. Throws std::bad_alloc.
  Space Prepare(size_t uFrameSize);
  // uSize bytes of the prepared space were filled.
  void Commit(size_t uSize);
  void Consume(size_t uSize);
  // Gives the storage back; only while empty.
  void Release();

 private:
  static constexpr size_t kFirstSize = 4U << 10;

  struct FreeStorage {
    void operator()(char* pStorage) const { std::free(pStorage); }
  };

  void Compact();
  void Resize(size_t uCapacity);

  std::unique_ptr<char[], FreeStorage> m_pStorage;
  size_t m_uCapacity = 0;
  size_t m_uBegin = 0;
  size_t m_uEnd = 0;
  bool m_bFilled = false;  // the last read left no room: more is coming than the storage takes at once
};

#endif  // QMLOGCACHE_HOST_INGRESS_READ_BUFFER_H_
