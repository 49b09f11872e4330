#include "bench/memory/bare_pipeline.h"

#include "platform/number_text.h"

namespace {

constexpr int kWindow = 128;
constexpr uint32_t kPriorities = 4;

std::string BuildText(uint64_t u64DataId, int iPriv, uint32_t u32Sender, std::string_view svData) {
  constexpr int kHexadecimal = 16;
  constexpr size_t kFrame = 160;
  std::string strText;
  strText.reserve(kFrame + svData.size());
  strText += "<version=1><dataid=";
  strText += CNumberText(u64DataId, kHexadecimal).View();
  strText += "><priv=";
  strText += CNumberText(iPriv).View();
  strText += "><msgtype=1><guid=";
  strText += CNumberText(u32Sender, kHexadecimal).View();
  strText += "-4A6B-4C8D-8E2F-1032547698BA><product=><combo=><end=1><msg=";
  strText += svData;
  strText += '>';
  return strText;
}

}  // namespace

CBarePipeline::CBarePipeline(ISendSink& sink) : m_sink(sink), m_worker([this] { Work(); }) {}

CBarePipeline::~CBarePipeline() {
  {
    const std::lock_guard<std::mutex> guard(m_wakeMutex);
    m_bEnding = true;
  }
  m_wake.notify_all();
  m_worker.join();
}

bool CBarePipeline::Send(uint32_t u32Sender, uint32_t uMsgType, std::string_view svData) {
  const auto iPriv = static_cast<int>(uMsgType % kPriorities);
  auto pRecord = std::make_shared<Record>();
  pRecord->u64DataId = m_u64LastId.fetch_add(1) + 1;
  pRecord->iPriv = iPriv;
  pRecord->strText = BuildText(pRecord->u64DataId, iPriv, u32Sender, svData);
  {
    const std::lock_guard<std::mutex> guard(m_mapMutex);
    m_mapRecords.emplace_hint(m_mapRecords.end(), pRecord->u64DataId, pRecord);
  }
  Queue& queue = m_queues[static_cast<size_t>(iPriv)];
  {
    const std::lock_guard<std::mutex> guard(queue.mutex);
    queue.deqRecords.push_back(std::move(pRecord));
  }
  {
    const std::lock_guard<std::mutex> guard(m_wakeMutex);
    ++m_u64Wakes;
  }
  m_wake.notify_one();
  return true;
}

void CBarePipeline::Settle(uint64_t u64DataId, uint32_t /*uResult*/) {
  std::shared_ptr<Record> pRecord;
  {
    const std::lock_guard<std::mutex> guard(m_mapMutex);
    const auto it = m_mapRecords.find(u64DataId);
    if (it != m_mapRecords.end()) {
      pRecord = std::move(it->second);
      m_mapRecords.erase(it);
    }
  }
  --m_iInFlight;
  {
    const std::lock_guard<std::mutex> guard(m_wakeMutex);
    ++m_u64Wakes;
  }
  m_wake.notify_one();
}

std::shared_ptr<CBarePipeline::Record> CBarePipeline::Take() {
  for (size_t i = kPriorities; i-- > 0;) {
    const std::lock_guard<std::mutex> guard(m_queues[i].mutex);
    if (!m_queues[i].deqRecords.empty()) {
      auto pRecord = std::move(m_queues[i].deqRecords.front());
      m_queues[i].deqRecords.pop_front();
      return pRecord;
    }
  }
  return nullptr;
}

void CBarePipeline::Work() {
  uint64_t u64Seen = 0;
  while (true) {
    if (m_iInFlight.load() < kWindow) {
      if (const auto pRecord = Take()) {
        ++m_iInFlight;
        m_sink.OnSend(pRecord->u64DataId, pRecord->strText);
        continue;
      }
    }
    std::unique_lock<std::mutex> lock(m_wakeMutex);
    m_wake.wait(lock, [&] { return m_u64Wakes != u64Seen || m_bEnding; });
    if (m_bEnding) {
      return;
    }
    u64Seen = m_u64Wakes;
  }
}
