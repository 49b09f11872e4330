// The requests that are under way, by libcurl's multi interface.
//
// What a server may do to the host is bounded here: answers are read up to 1 MiB, headers up to 64 KiB, and dropped; a
// request ends after the time-out and what its size takes at 16 KiB a second; no redirect is followed, no other
// protocol spoken, no cookie kept, no compressed answer unpacked.
#ifndef QMLOGCACHE_HOST_LINK_HTTP_TRANSFERS_H_
#define QMLOGCACHE_HOST_LINK_HTTP_TRANSFERS_H_

#include <curl/curl.h>

#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "host/link/http/batch_body.h"
#include "host/link/http/http_answer.h"
#include "host/link/http/http_driver.h"

// Not for several threads at a time. Functions that may fail throw std::exception.
class CTransfers {
 public:
  struct Finished {
    size_t uSlot = 0;
    HttpAnswer answer;
  };

  // The seed decides how long connections are used.
  CTransfers(const HttpDriverOptions& options, uint64_t u64Seed) : m_options(options), m_random(u64Seed) {}
  ~CTransfers() { Close(); }
  CTransfers(const CTransfers&) = delete;
  CTransfers& operator=(const CTransfers&) = delete;

  // Makes one slot for each request that may be under way, without any connection. What was there is closed: new
  // connections read the certificates again.
  void Open();
  // Ends all requests and connections.
  void Close();

  // Sends a body in a slot that is free; the body must stay as it is until the request has finished. strToken may be
  // empty.
  void Begin(size_t uSlot, const BatchBody& body, const std::string& strToken);
  // The request in that slot, if there is one, will not finish.
  void Abort(size_t uSlot);
  // Works until something has happened on a connection or iWakeFd can be read, or the time is over.
  void Work(int iWakeFd, std::chrono::milliseconds longest);
  // One of the requests that have finished since; its slot is free.
  std::optional<Finished> NextFinished();

 private:
  using EasyHandle = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;
  using HeaderList = std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)>;

  struct Slot {
    EasyHandle easy{nullptr, curl_easy_cleanup};
    HeaderList headers{nullptr, curl_slist_free_all};
    std::array<char, CURL_ERROR_SIZE> acError{};
    bool bBusy = false;
    size_t uHeaderBytes = 0;
    size_t uBodyBytes = 0;
    bool bHeaderWhole = false;
    const char* pszBound = nullptr;  // which bound the answer broke

    // What libcurl is to be told of so many bytes that came: all taken, or none, which ends the transfer.
    size_t Take(size_t uBytes, size_t& uSum, size_t uMost, const char* pszTooLong) noexcept;
  };

  static size_t OnHeader(char* pBytes, size_t uSize, size_t uCount, void* pSlot) noexcept;
  static size_t OnBody(char* pBytes, size_t uSize, size_t uCount, void* pSlot) noexcept;
  void SetUp(Slot& slot);
  HttpAnswer ReadAnswer(Slot& slot, CURLcode code) const;

  const HttpDriverOptions m_options;
  std::mt19937_64 m_random;
  std::unique_ptr<CURLM, decltype(&curl_multi_cleanup)> m_pMulti{nullptr, curl_multi_cleanup};
  std::vector<std::unique_ptr<Slot>> m_vecSlots;
};

#endif  // QMLOGCACHE_HOST_LINK_HTTP_TRANSFERS_H_
