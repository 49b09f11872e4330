#include "host/link/http/transfers.h"

#include <ctime>
#include <new>
#include <stdexcept>
#include <utility>

#include "host/link/http/retry_after.h"

namespace {

constexpr size_t kLongestAnswer = 1U << 20;
constexpr size_t kLongestHeader = 64U << 10;
// What a transfer gets on top of the time-out, so that a slow line does not cut a large batch again and again.
constexpr uint64_t kSlowestBytesPerSecond = 16U << 10;
// A connection is used for so long, so that a fleet spreads over servers that have come back, and certificates that
// were renewed come into use. Drawn: connections that were made together do not end together.
constexpr long kShortestLife = 450;
constexpr long kLongestLife = 750;

template <typename TValue>
void Set(CURL* pEasy, CURLoption option, TValue value) {
  const CURLcode code = curl_easy_setopt(pEasy, option, value);
  if (code == CURLE_OUT_OF_MEMORY) {
    throw std::bad_alloc();
  }
  if (code != CURLE_OK) {
    throw std::runtime_error("libcurl refuses option " + std::to_string(option) + ": " + curl_easy_strerror(code));
  }
}

void Check(CURLMcode code) {
  if (code == CURLM_OUT_OF_MEMORY) {
    throw std::bad_alloc();
  }
  if (code != CURLM_OK) {
    throw std::runtime_error(curl_multi_strerror(code));
  }
}

}  // namespace

void CTransfers::Open() {
  Close();
  m_pMulti.reset(curl_multi_init());
  if (!m_pMulti) {
    throw std::bad_alloc();
  }
  Check(curl_multi_setopt(m_pMulti.get(), CURLMOPT_MAXCONNECTS, static_cast<long>(m_options.uRequests)));
  for (unsigned int i = 0; i < m_options.uRequests; ++i) {
    auto pSlot = std::make_unique<Slot>();
    pSlot->easy.reset(curl_easy_init());
    if (!pSlot->easy) {
      throw std::bad_alloc();
    }
    SetUp(*pSlot);
    m_vecSlots.push_back(std::move(pSlot));
  }
}

void CTransfers::Close() {
  for (size_t i = 0; i < m_vecSlots.size(); ++i) {
    Abort(i);
  }
  m_vecSlots.clear();
  m_pMulti.reset();
}

void CTransfers::SetUp(Slot& slot) {
  CURL* pEasy = slot.easy.get();
  Set(pEasy, CURLOPT_PRIVATE, &slot);
  Set(pEasy, CURLOPT_ERRORBUFFER, slot.acError.data());
  Set(pEasy, CURLOPT_NOSIGNAL, 1L);
  // A name that is still being looked up must not hold up a stop.
  Set(pEasy, CURLOPT_QUICK_EXIT, 1L);

  Set(pEasy, CURLOPT_URL, m_options.strUrl.c_str());
  Set(pEasy, CURLOPT_PROTOCOLS_STR, "http,https");
  Set(pEasy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  Set(pEasy, CURLOPT_POST, 1L);
  Set(pEasy, CURLOPT_FOLLOWLOCATION, 0L);
  if (m_options.strProxy != "environment") {
    // The empty text turns off what the environment says.
    Set(pEasy, CURLOPT_PROXY, m_options.strProxy.c_str());
  }
  // What a proxy says about the connection is no answer of the server.
  Set(pEasy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  Set(pEasy, CURLOPT_TCP_KEEPALIVE, 1L);
  Set(pEasy, CURLOPT_MAXLIFETIME_CONN, std::uniform_int_distribution<long>(kShortestLife, kLongestLife)(m_random));

  Set(pEasy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  Set(pEasy, CURLOPT_SSL_VERIFYPEER, 1L);
  Set(pEasy, CURLOPT_SSL_VERIFYHOST, 2L);
  Set(pEasy, CURLOPT_CA_CACHE_TIMEOUT, 0L);
  if (!m_options.strCaFile.empty()) {
    Set(pEasy, CURLOPT_CAINFO, m_options.strCaFile.c_str());
    // The system's directory of authorities would be trusted as well.
    Set(pEasy, CURLOPT_CAPATH, static_cast<char*>(nullptr));
  }
  if (!m_options.strClientCert.empty()) {
    Set(pEasy, CURLOPT_SSLCERT, m_options.strClientCert.c_str());
    Set(pEasy, CURLOPT_SSLKEY,
        m_options.strClientKey.empty() ? m_options.strClientCert.c_str() : m_options.strClientKey.c_str());
    // An encrypted key is an error then; else the terminal would be asked for the passphrase.
    Set(pEasy, CURLOPT_KEYPASSWD, "");
  }

  Set(pEasy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(m_options.uConnectTimeoutMs));
  Set(pEasy, CURLOPT_LOW_SPEED_LIMIT, 1L);
  Set(pEasy, CURLOPT_LOW_SPEED_TIME, static_cast<long>((m_options.uTimeoutMs + 999) / 1000));
  Set(pEasy, CURLOPT_HEADERFUNCTION, &CTransfers::OnHeader);
  Set(pEasy, CURLOPT_HEADERDATA, &slot);
  Set(pEasy, CURLOPT_WRITEFUNCTION, &CTransfers::OnBody);
  Set(pEasy, CURLOPT_WRITEDATA, &slot);
}

size_t CTransfers::Slot::Take(size_t uBytes, size_t& uSum, size_t uMost, const char* pszTooLong) noexcept {
  uSum += uBytes;
  if (uSum > uMost) {
    pszBound = pszTooLong;
    return 0;
  }
  return uBytes;
}

size_t CTransfers::OnHeader(char* pBytes, size_t uSize, size_t uCount, void* pSlot) noexcept {
  auto* pThis = static_cast<Slot*>(pSlot);
  const size_t uBytes = uSize * uCount;
  // An interim answer (1xx) has an end of its own, and another header follows.
  if (uBytes >= 5 && std::string_view(pBytes, 5) == "HTTP/") {
    pThis->bHeaderWhole = false;
  } else if (uBytes > 0 && (pBytes[0] == '\r' || pBytes[0] == '\n')) {
    pThis->bHeaderWhole = true;
  }
  return pThis->Take(uBytes, pThis->uHeaderBytes, kLongestHeader, "the answer's header is longer than 64 KiB");
}

size_t CTransfers::OnBody(char* /*pBytes*/, size_t uSize, size_t uCount, void* pSlot) noexcept {
  auto* pThis = static_cast<Slot*>(pSlot);
  return pThis->Take(uSize * uCount, pThis->uBodyBytes, kLongestAnswer, "the answer is longer than 1 MiB");
}

void CTransfers::Begin(size_t uSlot, const BatchBody& body, const std::string& strToken) {
  Slot& slot = *m_vecSlots.at(uSlot);
  HeaderList headers(nullptr, curl_slist_free_all);
  const auto fnAdd = [&headers](const std::string& strHeader) {
    curl_slist* pLonger = curl_slist_append(headers.get(), strHeader.c_str());
    if (pLonger == nullptr) {
      throw std::bad_alloc();
    }
    static_cast<void>(headers.release());
    headers.reset(pLonger);
  };
  fnAdd("Content-Type: application/x-ndjson");
  fnAdd("Content-Encoding: gzip");
  fnAdd("User-Agent: qmhost");
  // Without it libcurl would wait a second for leave to send a large batch.
  fnAdd("Expect:");
  if (!body.strKey.empty()) {
    fnAdd("Idempotency-Key: " + body.strKey);
  }
  if (!strToken.empty()) {
    fnAdd("Authorization: Bearer " + strToken);
  }
  slot.acError[0] = '\0';
  slot.uHeaderBytes = 0;
  slot.uBodyBytes = 0;
  slot.bHeaderWhole = false;
  slot.pszBound = nullptr;
  CURL* pEasy = slot.easy.get();
  Set(pEasy, CURLOPT_HTTPHEADER, headers.get());
  slot.headers = std::move(headers);
  Set(pEasy, CURLOPT_POSTFIELDS, body.strGzip.data());
  Set(pEasy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.strGzip.size()));
  Set(pEasy, CURLOPT_TIMEOUT_MS,
      static_cast<long>(m_options.uTimeoutMs + body.strGzip.size() * 1000 / kSlowestBytesPerSecond));
  Check(curl_multi_add_handle(m_pMulti.get(), pEasy));
  slot.bBusy = true;
}

void CTransfers::Abort(size_t uSlot) {
  // Fewer slots than there should be are what an Open that failed leaves.
  if (uSlot < m_vecSlots.size() && std::exchange(m_vecSlots[uSlot]->bBusy, false)) {
    curl_multi_remove_handle(m_pMulti.get(), m_vecSlots[uSlot]->easy.get());
  }
}

void CTransfers::Work(int iWakeFd, std::chrono::milliseconds longest) {
  int iRunning = 0;
  Check(curl_multi_perform(m_pMulti.get(), &iRunning));
  int iLeft = 0;
  unsigned int uBusy = 0;
  for (const auto& pSlot : m_vecSlots) {
    uBusy += pSlot->bBusy ? 1 : 0;
  }
  // A request that has ended is to be dealt with first.
  if (static_cast<unsigned int>(iRunning) < uBusy) {
    return;
  }
  curl_waitfd wake{iWakeFd, CURL_WAIT_POLLIN, 0};
  Check(curl_multi_poll(m_pMulti.get(), &wake, 1, static_cast<int>(longest.count()), &iLeft));
  Check(curl_multi_perform(m_pMulti.get(), &iRunning));
}

std::optional<CTransfers::Finished> CTransfers::NextFinished() {
  int iLeft = 0;
  for (CURLMsg* pMessage = curl_multi_info_read(m_pMulti.get(), &iLeft); pMessage != nullptr;
       pMessage = curl_multi_info_read(m_pMulti.get(), &iLeft)) {
    if (pMessage->msg != CURLMSG_DONE) {
      continue;
    }
    const CURLcode code = pMessage->data.result;
    for (size_t i = 0; i < m_vecSlots.size(); ++i) {
      if (m_vecSlots[i]->easy.get() == pMessage->easy_handle) {
        Finished finished{i, ReadAnswer(*m_vecSlots[i], code)};
        Abort(i);
        return finished;
      }
    }
  }
  return std::nullopt;
}

HttpAnswer CTransfers::ReadAnswer(Slot& slot, CURLcode code) const {
  HttpAnswer answer;
  CURL* pEasy = slot.easy.get();
  long i64Status = 0;
  curl_off_t i64BeforeSending = 0;
  curl_easy_getinfo(pEasy, CURLINFO_RESPONSE_CODE, &i64Status);
  curl_easy_getinfo(pEasy, CURLINFO_PRETRANSFER_TIME_T, &i64BeforeSending);
  answer.bSent = i64BeforeSending > 0;
  answer.bAnswered = code == CURLE_OK ? i64Status > 0 : slot.bHeaderWhole && i64Status >= 400;
  if (answer.bAnswered) {
    answer.i64Status = i64Status;
    curl_header* pHeader = nullptr;
    if (curl_easy_header(pEasy, "Retry-After", 0, CURLH_HEADER, -1, &pHeader) == CURLHE_OK) {
      answer.retryAfter = ParseRetryAfter(pHeader->value, time(nullptr));
    }
    return answer;
  }
  answer.bTimedOut = code == CURLE_OPERATION_TIMEDOUT;
  if (slot.pszBound != nullptr) {
    answer.strError = slot.pszBound;
  } else {
    answer.strError = slot.acError[0] != '\0' ? slot.acError.data() : curl_easy_strerror(code);
  }
  return answer;
}
