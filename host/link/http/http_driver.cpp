#include <unistd.h>

#include <algorithm>
#include <boost/uuid/string_generator.hpp>
#include <exception>
#include <utility>

#include "host/link/http/http_driver_class.h"
#include "host/protocol/host_status.h"
#include "host/router/thread_setup.h"
#include "platform/log.h"

namespace {

constexpr std::chrono::seconds kStopGrace{3};
// How long nothing is sent for the sake of a renewal, and for how many times as long it is put off then.
constexpr std::chrono::milliseconds kRenewalPatience{10000};
constexpr int kRenewalPutOff = 6;
// Nothing is waited for longer; a look at the state costs nothing.
constexpr std::chrono::milliseconds kLongestWait{60000};

// libcurl wants it once a process, while no other thread uses it.
bool InitializeCurl() {
  static const bool s_bDone = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  return s_bDone;
}

std::string CheckOptions(const HttpDriverOptions& options, HttpUrl& url) {
  std::string strWrong = ReadHttpUrl(options.strUrl, url);
  if (strWrong.empty() && (options.uRequests == 0 || options.uTimeoutMs == 0 || options.uConnectTimeoutMs == 0)) {
    strWrong = "requests and time-outs cannot be 0";
  }
  try {
    static_cast<void>(boost::uuids::string_generator()(options.strAgentId));
  } catch (const std::exception&) {
    strWrong = strWrong.empty() ? "the agent's id is no UUID" : strWrong;
  }
  return strWrong;
}

uint64_t SeedOf(const HttpDriverOptions& options) {
  return options.u64Seed != 0 ? options.u64Seed : MakeSeed();
}

}  // namespace

CHttpDriver::CHttpDriver(const HttpDriverOptions& options)
    : m_options(options),
      m_transfers(options, SeedOf(options)),
      m_batchBody(options.strAgentId),
      m_token(options.strTokenFile),
      m_backOff(SeedOf(options), std::chrono::milliseconds(options.uLongestBackOffMs)),
      m_queue(options.uBatchBytes),
      m_random(SeedOf(options)) {}

CHttpDriver::~CHttpDriver() {
  Stop();
  LogUninit(m_hLog);
  if (m_iWakeFd >= 0) {
    close(m_iWakeFd);
  }
}

std::string CHttpDriver::Describe() const {
  return "http " + m_url.strForLog;
}

bool CHttpDriver::Start(ILinkEvents* pEvents, std::string& strError) {
  if (m_thread.joinable()) {
    strError = "already started";
    return false;
  }
  try {
    strError = CheckOptions(m_options, m_url);
    if (!strError.empty()) {
      return false;
    }
    if (m_hLog == nullptr) {
      m_hLog = LogInit("qmhost");
    }
    if (m_iWakeFd < 0) {
      m_iWakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    }
    if (m_iWakeFd < 0 || !InitializeCurl()) {
      strError = "libcurl or an event cannot be set up";
      return false;
    }
    m_transfers.Open();
    m_vecRequests = std::vector<Request>(m_options.uRequests);
    m_pEvents = pEvents;
    m_bStop = false;
    m_bReopen = false;
    m_vecDelivered.clear();
    m_uDeliveredBytes = 0;
    m_bUp = false;
    m_bToldDown = false;
    m_bWary = false;
    m_renewAt.reset();
    m_stopUntil.reset();
    m_backOff.Reset();
    m_nextAttempt = Clock::now() + m_backOff.Spread();
    m_thread = std::thread([this] { Run(); });
  } catch (const std::exception& exception) {
    strError = exception.what();
    m_transfers.Close();
    return false;
  }
  return true;
}

void CHttpDriver::Stop() {
  if (!m_thread.joinable()) {
    return;
  }
  {
    const std::lock_guard lock(m_mutex);
    m_bStop = true;
  }
  static_cast<void>(eventfd_write(m_iWakeFd, 1));
  m_thread.join();
  // What was not answered is the link's to count.
  m_vecRequests.clear();
  while (m_queue.TakeOne()) {
  }
  const std::lock_guard lock(m_mutex);
  m_vecDelivered.clear();
}

void CHttpDriver::Deliver(std::shared_ptr<LinkRecord> pRecord) {
  bool bWake = false;
  bool bQueued = true;
  try {
    const std::lock_guard lock(m_mutex);
    m_vecDelivered.push_back(pRecord);
    m_uDeliveredBytes += pRecord->strText.size();
    if (m_vecDelivered.size() >= m_uWakeAt || m_uDeliveredBytes >= m_uWakeAtBytes) {
      bWake = true;
      m_uWakeAt = m_uWakeAtBytes = std::numeric_limits<size_t>::max();
    }
  } catch (const std::exception&) {
    bQueued = false;
  }
  if (!bQueued) {
    m_pEvents->OnOutcome(pRecord, kHostSendTimeout);
  } else if (bWake) {
    static_cast<void>(eventfd_write(m_iWakeFd, 1));
  }
}

void CHttpDriver::Reopen() {
  {
    const std::lock_guard lock(m_mutex);
    m_bReopen = true;
  }
  static_cast<void>(eventfd_write(m_iWakeFd, 1));
}

void CHttpDriver::Run() {
  SetUpThread("qmhost-http");
  const CLoopThread loopThread(m_loop);
  for (bool bGoOn = true; bGoOn;) {
    try {
      bGoOn = Step();
    } catch (const std::exception& exception) {
      Surrender(exception.what());
    }
  }
  m_transfers.Close();
}

bool CHttpDriver::Step() {
  m_loop.Turn();
  TakeOrders();
  if (IsDone()) {
    return false;
  }
  CheckRenewal();
  CheckDoubt();
  if (!IsRenewalDue()) {
    BeginRequests();
  }
  m_transfers.Work(m_iWakeFd, TimeToWait());
  while (std::optional<CTransfers::Finished> finished = m_transfers.NextFinished()) {
    TakeAnswer(*finished);
  }
  return true;
}

void CHttpDriver::TakeOrders() {
  eventfd_t wakes = 0;
  static_cast<void>(eventfd_read(m_iWakeFd, &wakes));
  const std::lock_guard lock(m_mutex);
  if (m_queue.IsEmpty() && !m_vecDelivered.empty()) {
    m_waitingSince = Clock::now();
  }
  m_queue.Add(m_vecDelivered);
  m_vecDelivered.clear();
  m_uDeliveredBytes = 0;
  if (std::exchange(m_bReopen, false)) {
    m_renewAt = std::min(m_renewAt.value_or(Clock::time_point::max()), Clock::now() + m_backOff.Spread());
    m_nextAttempt = *m_renewAt;
  }
  if (m_bStop && !m_stopUntil) {
    m_stopUntil = Clock::now() + kStopGrace;
  }
}

bool CHttpDriver::IsDone() const {
  return m_stopUntil && (!m_bUp || Clock::now() >= *m_stopUntil || (CountBusy() == 0 && m_queue.IsEmpty()));
}

void CHttpDriver::CheckRenewal() {
  if (!IsRenewalDue()) {
    return;
  }
  if (CountBusy() == 0) {
    Renew();
  } else if (m_bUp && Clock::now() >= *m_renewAt + RenewalPatience()) {
    m_renewAt = Clock::now() + kRenewalPutOff * RenewalPatience();
  }
}

// Well below the time-out: were nothing else accepted before it, that of a single request would be an outage.
std::chrono::milliseconds CHttpDriver::RenewalPatience() const {
  return std::min(kRenewalPatience, std::chrono::milliseconds(m_options.uTimeoutMs / 3));
}

void CHttpDriver::Renew() {
  m_token.Forget();
  m_transfers.Open();
  m_renewAt.reset();
}

size_t CHttpDriver::CountBusy() const {
  return static_cast<size_t>(
      std::count_if(m_vecRequests.begin(), m_vecRequests.end(), [](const Request& request) { return request.bBusy; }));
}

bool CHttpDriver::HasFreeSlot() const {
  const size_t uBusy = CountBusy();
  return m_bUp && !IsRenewalDue() && uBusy < (m_bWary ? 1 : m_vecRequests.size());
}

// Right after a full batch its successors are on their way: if the first of them went alone, there would be no request
// left for the last of them.
CHttpDriver::Clock::time_point CHttpDriver::PartialFrom() const {
  const Clock::time_point afterFull = m_fullAnswered + kLinger;
  return CountBusy() > 0 ? std::max(afterFull, m_waitingSince + kLinger) : afterFull;
}

void CHttpDriver::BeginRequests() {
  std::string strReason;
  if (!m_bUp) {
    if (CountBusy() == 0 && Clock::now() >= m_nextAttempt && !Begin(0, true, strReason)) {
      StayDown(strReason, std::nullopt);
    }
    return;
  }
  for (size_t i = 0; i < m_vecRequests.size() && !m_queue.IsEmpty(); ++i) {
    if (m_vecRequests[i].bBusy) {
      continue;
    }
    const bool bPartial = !m_stopUntil && !m_queue.HasFullBatch();
    if ((m_bWary && CountBusy() > 0) || (bPartial && Clock::now() < PartialFrom())) {
      return;
    }
    m_vecRequests[i].batch = m_bWary ? m_queue.TakeAny(m_random) : m_queue.TakeNext();
    if (!Begin(i, m_vecRequests[i].batch.bAsking, strReason)) {
      GoDown(strReason, std::nullopt);
      return;
    }
  }
}

bool CHttpDriver::Begin(size_t uSlot, bool bEmpty, std::string& strReason) {
  const std::string* pToken = m_token.Current(strReason);
  if (pToken == nullptr) {
    return false;
  }
  Request& request = m_vecRequests[uSlot];
  m_batchBody.Make(bEmpty ? LinkRecordList() : request.batch.vecRecords, request.body);
  if (bEmpty) {
    // Each time it is a new question.
    request.body.strKey.clear();
  }
  m_transfers.Begin(uSlot, request.body, *pToken);
  request.u64Number = ++m_u64Begun;
  request.bBusy = true;
  return true;
}

// Also says from how many delivered records on there is something to do.
std::chrono::milliseconds CHttpDriver::TimeToWait() {
  const Clock::time_point now = Clock::now();
  Clock::time_point until = now + kLongestWait;
  const bool bFreeSlot = HasFreeSlot();
  if (!m_bUp && CountBusy() == 0) {
    until = std::min(until, m_nextAttempt);
  }
  if (bFreeSlot && !m_queue.IsEmpty()) {
    until = std::min(until, PartialFrom());
  }
  if (m_queue.CountAside() > 0) {
    until = std::min(until, m_doubtSince + LongestDoubt());
  }
  if (m_stopUntil) {
    until = std::min(until, *m_stopUntil);
  } else if (m_renewAt && (*m_renewAt > now || CountBusy() == 0)) {
    // One that has fallen due since the step began is for the next step.
    until = std::min(until, *m_renewAt);
  } else if (m_renewAt && m_bUp) {
    until = std::min(until, *m_renewAt + RenewalPatience());
  }
  const std::lock_guard lock(m_mutex);
  m_uWakeAt = m_uWakeAtBytes = std::numeric_limits<size_t>::max();
  if (bFreeSlot) {
    m_uWakeAt = m_queue.IsEmpty() ? 1 : m_queue.CountMissing();
    m_uWakeAtBytes = m_queue.IsEmpty() ? 0 : m_options.uBatchBytes;
    if (m_vecDelivered.size() >= m_uWakeAt) {
      return std::chrono::milliseconds(0);
    }
  }
  return std::max(std::chrono::ceil<std::chrono::milliseconds>(until - now), std::chrono::milliseconds(0));
}

std::unique_ptr<ILinkDriver> CreateHttpDriver(const HttpDriverOptions& options) {
  return std::make_unique<CHttpDriver>(options);
}
