// The file driver: one thread that appends records to a file, a line each.
//
// A batch is everything queued when the thread looks. Its records are answered once it is written and, if asked for,
// synced. When a write fails, the file is cut back to the last whole line, the records up to there are answered and all
// others go back to the link. When the sync fails nothing counts as written.
//
// Coming up: a file that cannot be opened is tried every second. After a failed write the wait starts at one second and
// doubles up to thirty until the file has stayed up for a minute, and room for what did not fit is reserved before the
// link is told; so a disk that is nearly full does not go up and down with every record.
#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <thread>
#include <utility>

#include "host/link/append_file.h"
#include "host/link/record_line.h"
#include "host/link/server_link.h"
#include "host/protocol/host_status.h"
#include "host/service/loop.h"
#include "platform/log.h"

namespace {

using Clock = std::chrono::steady_clock;
using RecordList = std::vector<std::shared_ptr<LinkRecord>>;

constexpr char kThreadName[] = "qmhost-file";
constexpr std::chrono::seconds kOpenRetry{1};
constexpr std::chrono::seconds kFirstDelay{1};
constexpr std::chrono::seconds kLongestDelay{30};
constexpr std::chrono::seconds kSettledAfter{60};
// Formatted bytes that are gathered before a write; a batch below it takes one.
constexpr size_t kWriteSize = 4U << 20;
// A buffer that one giant record has blown up is not kept.
constexpr size_t kKeptBufferSize = 2 * kWriteSize;
constexpr uint64_t kMaxReserve = 16U << 20;

class CFileDriver final : public ILinkDriver {
 public:
  explicit CFileDriver(FileDriverOptions options) : m_options(std::move(options)) {}
  ~CFileDriver() override;

  bool Start(ILinkEvents* pEvents, std::string& strError) override;
  void Stop() override;
  void Deliver(std::shared_ptr<LinkRecord> pRecord) override;
  void Reopen() override;
  std::string Describe() const override { return "file " + m_options.strPath; }

 private:
  void Run();
  bool StartThread(std::string& strError);
  // Waits for records or a wish to reopen. False when the thread is to end and nothing is queued.
  bool WaitForWork(RecordList& vecRecords, bool& bReopen);
  // False when the thread is to end.
  bool WaitWhileDown();
  OpenOutcome OpenFile(std::string& strReason);
  bool ComeUp();
  // Gives back vecRecords and what is queued.
  void GoDown(const std::string& strReason, RecordList vecRecords);
  void Work(RecordList vecRecords);
  // uDone: how many of the first records are in the file for good. False with a reason when that is not all.
  bool WriteBatch(const RecordList& vecRecords, size_t& uDone, std::string& strReason);
  int AppendRecords(const RecordList& vecRecords, uint64_t& u64Written);

  const FileDriverOptions m_options;
  ILinkEvents* m_pEvents = nullptr;
  void* m_hLog = nullptr;
  std::thread m_thread;

  std::mutex m_mutex;                   // guards the four below the condition
  std::condition_variable m_condition;  // notified when one of them changes and the thread waits
  RecordList m_vecQueue;
  bool m_bStop = false;
  bool m_bReopen = false;
  bool m_bWaiting = false;

  CLoop m_loop{kThreadName, [this] { m_condition.notify_all(); }};

  // Of the thread alone, but for Start before the thread exists.
  CAppendFile m_file;
  CRecordLine m_recordLine;
  std::string m_strBuffer;
  std::vector<uint64_t> m_vecEnds;  // where each formatted record ends, from the beginning of the batch
  bool m_bUp = false;
  bool m_bToldDown = false;
  std::string m_strStartReason;  // why Start could not open the file
  Clock::time_point m_upSince{};
  bool m_bProbe = false;        // went down by a failed write: room is reserved before it comes up
  uint64_t m_u64ToReserve = 0;  // what the failed write left unwritten
  Clock::duration m_delay{};    // the wait after the last failed write, zero before the first
};

CFileDriver::~CFileDriver() {
  Stop();
  LogUninit(m_hLog);
}

bool CFileDriver::Start(ILinkEvents* pEvents, std::string& strError) {
  if (m_thread.joinable()) {
    strError = "already started";
    return false;
  }
  if (m_options.strPath.empty() || m_options.strPath.find('\0') != std::string::npos) {
    strError = "no valid file name";
    return false;
  }
  if (m_hLog == nullptr) {
    m_hLog = LogInit("qmhost");
  }
  if (OpenFile(m_strStartReason) == OpenOutcome::Refused) {
    strError = m_strStartReason;
    return false;
  }
  m_pEvents = pEvents;
  m_bStop = false;
  m_bReopen = false;
  m_bUp = false;
  m_bToldDown = false;
  m_bProbe = false;
  m_delay = {};
  m_vecQueue.clear();
  return StartThread(strError);
}

// The thread inherits a mask with every signal blocked: they belong to the host's own threads, and a file size limit
// shows as EFBIG instead of SIGXFSZ.
bool CFileDriver::StartThread(std::string& strError) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    m_thread = std::thread([this] { Run(); });
    pthread_setname_np(m_thread.native_handle(), kThreadName);
  } catch (const std::exception& exception) {
    strError = exception.what();
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (!m_thread.joinable()) {
    m_file.Close();
    return false;
  }
  return true;
}

void CFileDriver::Stop() {
  {
    const std::lock_guard lock(m_mutex);
    m_bStop = true;
  }
  m_condition.notify_all();
  if (m_thread.joinable()) {
    m_thread.join();
  }
  m_file.Close();
}

void CFileDriver::Deliver(std::shared_ptr<LinkRecord> pRecord) {
  bool bWake = false;
  bool bQueued = true;
  try {
    const std::lock_guard lock(m_mutex);
    m_vecQueue.push_back(pRecord);
    bWake = m_bWaiting;
    m_bWaiting = false;
  } catch (...) {
    bQueued = false;
  }
  if (!bQueued) {
    m_pEvents->OnOutcome(pRecord, kHostSendTimeout);
  } else if (bWake) {
    m_condition.notify_one();
  }
}

void CFileDriver::Reopen() {
  {
    const std::lock_guard lock(m_mutex);
    m_bReopen = true;
  }
  m_condition.notify_one();
}

void CFileDriver::Run() {
  const CLoopThread loopThread(m_loop);
  for (;;) {
    m_loop.Turn();
    if (!m_bUp && !ComeUp()) {
      if (!WaitWhileDown()) {
        return;
      }
      continue;
    }
    RecordList vecRecords;
    bool bReopen = false;
    if (!WaitForWork(vecRecords, bReopen)) {
      return;
    }
    std::string strReason;
    if ((bReopen || m_file.IsRemoved()) && OpenFile(strReason) != OpenOutcome::Open) {
      m_bProbe = false;
      GoDown(strReason, std::move(vecRecords));
    } else if (!vecRecords.empty()) {
      Work(std::move(vecRecords));
    }
    if (!m_bUp && !WaitWhileDown()) {
      return;
    }
  }
}

bool CFileDriver::WaitForWork(RecordList& vecRecords, bool& bReopen) {
  std::unique_lock lock(m_mutex);
  while (m_vecQueue.empty() && !m_bStop && !m_bReopen) {
    m_loop.Turn();
    m_bWaiting = true;
    m_condition.wait(lock);
  }
  m_bWaiting = false;
  bReopen = std::exchange(m_bReopen, false);
  vecRecords.swap(m_vecQueue);
  return !vecRecords.empty() || !m_bStop;
}

bool CFileDriver::WaitWhileDown() {
  const auto deadline = Clock::now() + (m_bProbe ? m_delay : Clock::duration(kOpenRetry));
  std::unique_lock lock(m_mutex);
  const auto fnCalled = [this] { return m_bStop || m_bReopen || m_loop.IsTurnDue(); };
  while (m_condition.wait_until(lock, deadline, fnCalled) && !m_bStop && !m_bReopen) {
    m_loop.Turn();
  }
  m_bReopen = false;
  return !m_bStop;
}

OpenOutcome CFileDriver::OpenFile(std::string& strReason) {
  const OpenOutcome outcome = m_file.Open(m_options.strPath, m_options.bSync, strReason);
  if (outcome == OpenOutcome::Open && m_file.CompletedTornLine()) {
    LogPrint(m_hLog, kLogWarning, "file link: the last line of %s was not complete and has been ended",
             m_options.strPath.c_str());
  }
  return outcome;
}

bool CFileDriver::ComeUp() {
  // Start has opened the file already, or kept the reason why not.
  std::string strReason = std::exchange(m_strStartReason, {});
  bool bReady = m_file.IsOpen() || (strReason.empty() && OpenFile(strReason) == OpenOutcome::Open);
  if (bReady && m_bProbe) {
    const int iError = m_file.ReserveRoom(m_u64ToReserve);
    if (iError != 0) {
      strReason = DescribeError("reserve room in", m_options.strPath, iError);
      m_file.Close();
      m_delay = std::min<Clock::duration>(m_delay * 2, kLongestDelay);
      bReady = false;
    }
  }
  if (!bReady) {
    if (!std::exchange(m_bToldDown, true)) {
      m_pEvents->OnDown(strReason);
    }
    return false;
  }
  m_bUp = true;
  m_bToldDown = false;
  m_bProbe = false;
  m_upSince = Clock::now();
  m_pEvents->OnUp();
  return true;
}

// The link is told first: what is given back afterwards, it keeps instead of sending it here again at once.
void CFileDriver::GoDown(const std::string& strReason, RecordList vecRecords) {
  m_file.Close();
  m_bUp = false;
  m_bToldDown = true;
  m_pEvents->OnDown(strReason);
  if (!vecRecords.empty()) {
    m_pEvents->OnGivenBack(std::move(vecRecords));
  }
  RecordList vecQueued;
  {
    const std::lock_guard lock(m_mutex);
    vecQueued.swap(m_vecQueue);
  }
  if (!vecQueued.empty()) {
    m_pEvents->OnGivenBack(std::move(vecQueued));
  }
}

void CFileDriver::Work(RecordList vecRecords) {
  size_t uDone = 0;
  std::string strReason;
  const bool bAll = WriteBatch(vecRecords, uDone, strReason);
  if (m_strBuffer.capacity() > kKeptBufferSize) {
    m_strBuffer = std::string();
  }
  m_pEvents->OnDelivered(vecRecords, uDone);
  if (bAll) {
    return;
  }
  const bool bSettled = Clock::now() - m_upSince >= kSettledAfter;
  m_delay = bSettled || m_delay == Clock::duration::zero() ? Clock::duration(kFirstDelay)
                                                           : std::min<Clock::duration>(m_delay * 2, kLongestDelay);
  m_bProbe = true;
  vecRecords.erase(vecRecords.begin(), vecRecords.begin() + static_cast<std::ptrdiff_t>(uDone));
  GoDown(strReason, std::move(vecRecords));
}

bool CFileDriver::WriteBatch(const RecordList& vecRecords, size_t& uDone, std::string& strReason) {
  m_u64ToReserve = 0;
  uint64_t u64Start = 0;
  int iError = m_file.GetSize(u64Start);
  if (iError != 0) {
    strReason = DescribeError("examine", m_options.strPath, iError);
    return false;
  }
  uint64_t u64Written = 0;
  const int iWriteError = AppendRecords(vecRecords, u64Written);
  uDone = static_cast<size_t>(std::upper_bound(m_vecEnds.begin(), m_vecEnds.end(), u64Written) - m_vecEnds.begin());
  uint64_t u64Kept = uDone == 0 ? 0 : m_vecEnds[uDone - 1];
  if (iWriteError != 0) {
    strReason = DescribeError("write", m_options.strPath, iWriteError);
    m_u64ToReserve = m_vecEnds.empty() ? 0 : std::min(m_vecEnds.back() - u64Kept, kMaxReserve);
    if (u64Written > u64Kept && m_file.CutBack(u64Start + u64Written, u64Start + u64Kept) != 0) {
      // The torn line stays, and the next open ends it.
      u64Kept = u64Written;
    }
  }
  iError = uDone > 0 && m_options.bSync ? m_file.Sync() : 0;
  if (iError != 0) {
    // What the failed sync leaves in the file is unknown. Taken away if that works, since all of it will come again.
    (void)m_file.CutBack(u64Start + u64Kept, u64Start);
    uDone = 0;
    strReason = DescribeError("sync", m_options.strPath, iError);
  }
  return iWriteError == 0 && iError == 0;
}

int CFileDriver::AppendRecords(const RecordList& vecRecords, uint64_t& u64Written) {
  m_strBuffer.clear();
  m_vecEnds.clear();
  uint64_t u64Flushed = 0;
  try {
    m_vecEnds.reserve(vecRecords.size());
    for (size_t i = 0; i < vecRecords.size(); ++i) {
      m_recordLine.Append(m_strBuffer, *vecRecords[i]);
      m_vecEnds.push_back(u64Flushed + m_strBuffer.size());
      if (m_strBuffer.size() >= kWriteSize || i + 1 == vecRecords.size()) {
        const int iError = m_file.Append(m_strBuffer, u64Written);
        if (iError != 0) {
          return iError;
        }
        u64Flushed += m_strBuffer.size();
        m_strBuffer.clear();
      }
    }
  } catch (...) {
    // Nothing but memory can run out here; whole lines alone have been written.
    return ENOMEM;
  }
  return 0;
}

}  // namespace

std::unique_ptr<ILinkDriver> CreateFileDriver(const FileDriverOptions& options) {
  return std::make_unique<CFileDriver>(options);
}
