// The http driver's class. Its life and its thread's loop are in http_driver.cpp, what answers lead to in
// http_driver_answers.cpp.
#ifndef QMLOGCACHE_HOST_LINK_HTTP_HTTP_DRIVER_CLASS_H_
#define QMLOGCACHE_HOST_LINK_HTTP_HTTP_DRIVER_CLASS_H_

#include <sys/eventfd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "host/link/back_off.h"
#include "host/link/http/batch_body.h"
#include "host/link/http/batch_queue.h"
#include "host/link/http/http_driver.h"
#include "host/link/http/http_url.h"
#include "host/link/http/transfers.h"
#include "host/link/token_file.h"
#include "host/service/loop.h"

// One thread does everything but Deliver. While the link is down it asks the server with an empty batch, after pauses
// (CBackOff), and says that the link is up once that is accepted. While it is up, a batch goes out at once when no
// request is under way. Beside another one, or right after a full one was answered, it goes when it is full or has waited
// a moment for more.
class CHttpDriver final : public ILinkDriver {
 public:
  explicit CHttpDriver(const HttpDriverOptions& options);
  ~CHttpDriver() override;

  bool Start(ILinkEvents* pEvents, std::string& strError) override;
  void Stop() override;
  void Deliver(std::shared_ptr<LinkRecord> pRecord) override;
  void Reopen() override;
  std::string Describe() const override;

 private:
  using Clock = std::chrono::steady_clock;
  // How long a batch waits for more.
  static constexpr std::chrono::milliseconds kLinger{1};

  // A request that may be under way.
  struct Request {
    bool bBusy = false;
    uint64_t u64Number = 0;  // in the order of their begin
    HttpBatch batch;
    BatchBody body;
  };

  void Run();
  // False when the thread is to end.
  bool Step();
  void TakeOrders();
  bool IsDone() const;
  // Nothing is sent while it waits for the requests under way; a slow one puts it off.
  void CheckRenewal();
  std::chrono::milliseconds RenewalPatience() const;
  void Renew();
  // A stop goes before: it lasts no longer than what is to be delivered.
  bool IsRenewalDue() const { return !m_stopUntil && m_renewAt && Clock::now() >= *m_renewAt; }
  void BeginRequests();
  // False with a reason when there is no token.
  bool Begin(size_t uSlot, bool bEmpty, std::string& strReason);
  size_t CountBusy() const;
  // Whether a request may begin beside those that are under way.
  bool HasFreeSlot() const;
  // From when on a batch goes out that is not full.
  Clock::time_point PartialFrom() const;
  std::chrono::milliseconds LongestDoubt() const;
  void CheckDoubt();
  std::chrono::milliseconds TimeToWait();

  void TakeAnswer(const CTransfers::Finished& finished);
  void TakeProbeAnswer(const HttpAnswer& answer);
  void TakeBatchAnswer(Request& request, const HttpAnswer& answer);
  void TakeAcceptance(Request& request);
  void TakeRefusal(HttpBatch& batch, const HttpAnswer& answer);
  void TakeTimeout(Request& request);
  void AnswerTimeout(HttpBatch& batch);
  void Reject(HttpBatch& batch, long i64Status);
  void Answer(HttpBatch& batch, uint32_t uResult);
  void ComeUp();
  // All records go back to the link.
  void GoDown(const std::string& strReason, std::optional<std::chrono::seconds> retryAfter);
  void GiveBack(LinkRecordList vecRecords);
  // Tells the link once an outage, and sets the time of the next attempt.
  void StayDown(const std::string& strReason, std::optional<std::chrono::seconds> retryAfter);
  // There was no memory, or libcurl failed: every record here is answered to be sent again.
  void Surrender(const char* pszWhy) noexcept;

  const HttpDriverOptions m_options;
  HttpUrl m_url;
  ILinkEvents* m_pEvents = nullptr;
  void* m_hLog = nullptr;
  std::thread m_thread;
  int m_iWakeFd = -1;  // an eventfd
  CLoop m_loop{"qmhost-http", [this] { static_cast<void>(eventfd_write(m_iWakeFd, 1)); }};

  std::mutex m_mutex;  // guards the six below
  LinkRecordList m_vecDelivered;
  size_t m_uDeliveredBytes = 0;
  size_t m_uWakeAt = std::numeric_limits<size_t>::max();  // that many records delivered are worth a look
  size_t m_uWakeAtBytes = std::numeric_limits<size_t>::max();
  bool m_bStop = false;
  bool m_bReopen = false;

  // Of the thread alone, but for Start before the thread exists and Stop after it.
  CTransfers m_transfers;
  CBatchBody m_batchBody;
  CTokenFile m_token;
  CBackOff m_backOff;
  CBatchQueue m_queue;
  std::vector<Request> m_vecRequests;  // one a slot of the transfers
  bool m_bUp = false;
  bool m_bToldDown = false;
  std::optional<Clock::time_point> m_renewAt;    // new connections and credentials, once no request is under way
  std::optional<Clock::time_point> m_stopUntil;  // a stop has been asked for
  Clock::time_point m_upSince{};
  Clock::time_point m_nextAttempt{};
  Clock::time_point m_waitingSince{};  // of the records in the queue
  Clock::time_point m_fullAnswered{};  // when a full batch was accepted last
  uint64_t m_u64Begun = 0;             // requests
  uint64_t m_u64Accepted = 0;          // the latest request whose records were accepted
  bool m_bWary = false;                // the server has refused all records, and accepted none since: one by one
  bool m_bTimeoutLogged = false;       // since the link came up
  // Of records put aside.
  Clock::time_point m_doubtSince{};     // the first refusal, or what was accepted after it
  uint64_t m_u64FirstRefusedAfter = 0;  // of the last one
  long m_i64RefusedStatus = 0;          // likewise
  std::mt19937_64 m_random;
};

#endif  // QMLOGCACHE_HOST_LINK_HTTP_HTTP_DRIVER_CLASS_H_
