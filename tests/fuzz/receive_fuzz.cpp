// Inbound messages of every type, results, broadcasts and send completions, through the callback objects of a manager
// that keeps its records in memory.
//
// The input is a sequence of steps: a message, the sending of a waiting record, a completion, a look at the gate.
//
// Holds: a message is answered once if it has a handle, "success" for 0 and "fail" for the code that the payload's
// description asks for; the store holds exactly the records that were taken and not settled yet; a record is sent with
// its own numbers, names and data in a text that the server link's reader takes; the log stays one line a line.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "host/link/tagged_text.h"
#include "manager/log_cache_mgr.h"
#include "message/receive.h"
#include "message/send_completion.h"
#include "platform/log.h"
#include "platform/log_channels.h"
#include "platform/status_codes.h"
#include "plugin/compctx/message_types.h"
#include "tests/fuzz/support/fuzz_check.h"
#include "tests/fuzz/support/installation.h"
#include "tests/fuzz/support/plain_context.h"
#include "tests/support/peers.h"

namespace {

constexpr size_t kComboSize = 148;
constexpr uint32_t kRefused = 0xE0020003;

struct Expected {
  int iPriv = 0;
  int iMsgType = 0;
  std::string strGuid;
  std::string strProduct;
  std::string strCombo;
  std::string strData;
  bool bWaiting = true;  // queued, not sent yet
};

class CCheckingContext : public CPlainContext {
 public:
  uint32_t Reply(int32_t iRet, int64_t i64MsgType, const char* pReply, uint32_t uLength, void* pReplyHandle) override {
    ++iReplies;
    iReplyRet = iRet;
    i64ReplyType = i64MsgType;
    strReply.assign(pReply, uLength);
    pHandle = pReplyHandle;
    return 0;
  }
  uint32_t AsynSendEx(const GUID* /*pDest*/, uint32_t uMsgType, const uint8_t* pData, uint32_t uLength,
                      IMRSendComplete* pComplete, uint64_t u64UserValue, uint64_t* pu64Act,
                      uint32_t /*uTimeoutMs*/) override {
    FUZZ_CHECK(uMsgType == AGENT_MSG_ASYNC_LOGCACHE && pComplete == &CLogCacheSend::m_LogCacheSend);
    strSent.assign(reinterpret_cast<const char*>(pData), uLength);
    u64Sent = u64UserValue;
    *pu64Act = 1;
    return bRefuseSends ? kRefused : 0;
  }

  bool bRefuseSends = false;
  int iReplies = 0;
  int32_t iReplyRet = 0;
  int64_t i64ReplyType = 0;
  std::string strReply;
  void* pHandle = nullptr;
  std::string strSent;
  uint64_t u64Sent = 0;
};

int32_t NumberAt(const std::string& strBytes, size_t uAt) {
  int32_t iNumber = 0;
  memcpy(&iNumber, strBytes.data() + uAt, sizeof(iNumber));
  return iNumber;
}

std::string NameAt(const std::string& strBytes, size_t uAt) {
  return std::string(strBytes, uAt, 64).c_str();
}

// One manager's life, with a model of what it must hold.
class CSession {
 public:
  explicit CSession(FuzzedDataProvider& input) : m_input(input), m_manager(*CLogCacheMgr::Instance()) {
    FUZZ_CHECK(m_manager.Init());
    m_manager.SetCtx(static_cast<IComponentContext*>(&m_context));
  }
  ~CSession() { CLogCacheMgr::Close(); }
  CSession(const CSession&) = delete;
  CSession& operator=(const CSession&) = delete;

  void Run() {
    constexpr int kSteps = 24;
    for (int i = 0; i < kSteps && m_input.remaining_bytes() > 0; ++i) {
      switch (m_input.ConsumeIntegralInRange(0, 9)) {
        case 0:
          SendNext();
          break;
        case 1:
          Complete();
          break;
        case 2:
          LookAround();
          break;
        default:
          Receive();
          break;
      }
      FUZZ_CHECK(m_peer.Data().CheckExecDataLimit() == kStatusOk);
      FUZZ_CHECK(CLogCacheDataPeer(m_peer.Data()).MapSize() == m_mapRecords.size());
    }
  }

 private:
  long MessageType() {
    const int iHow = m_input.ConsumeIntegralInRange(0, 15);
    if (iHow == 0) {
      return m_input.ConsumeIntegral<long>();
    }
    if (iHow == 15) {
      constexpr long kBases[] = {LOGCACHE_MSG_SYNC_SERVER_BASE, LOGCACHE_MSG_SYNC_PLUGIN_BASE, kCloudTagBase};
      return m_input.PickValueInArray(kBases) + m_input.ConsumeIntegralInRange<long>(-1, 20);
    }
    const auto uType = m_input.ConsumeIntegralInRange<size_t>(0, kReceivedTypes.size() + 7);
    if (uType < kReceivedTypes.size()) {
      return kReceivedTypes[uType].uType;
    }
    const auto uOffset = static_cast<long>(uType - kReceivedTypes.size());
    return static_cast<long>(kCloudTagBase) + (uOffset < 4 ? uOffset : uOffset + 6);
  }

  unsigned long long SomeId() {
    if (m_mapRecords.empty() || m_input.ConsumeIntegralInRange(0, 3) == 0) {
      return m_input.ConsumeIntegral<unsigned long long>();
    }
    auto it = m_mapRecords.begin();
    std::advance(it, m_input.ConsumeIntegralInRange<size_t>(0, m_mapRecords.size() - 1));
    return it->first;
  }

  uint32_t SomeResult() {
    return m_input.ConsumeBool()
               ? m_input.PickValueInArray({kResultDelivered, kResultTimeout, kResultCloudBusy, kResultCloudFailed})
               : m_input.ConsumeIntegral<uint32_t>();
  }

  std::string Payload(long i64Type) {
    if (m_input.ConsumeIntegralInRange(0, 7) == 0) {
      return m_input.ConsumeRandomLengthString(300);
    }
    if (i64Type == LOGCACHE_MSG_ASYNC_LOGCACHR_RESULT) {
      std::string strPayload(32, '\0');
      const uint32_t uResult = SomeResult();
      const unsigned long long u64Id = SomeId();
      memcpy(strPayload.data() + 4, &uResult, sizeof(uResult));
      memcpy(strPayload.data() + 8, &u64Id, sizeof(u64Id));
      return strPayload;
    }
    if (i64Type != LOGCACHE_MSG_SYNC_SEND_JSON_COMBO_DATA && i64Type != LOGCACHE_MSG_ASYNC_SEND_JSON_COMBO_DATA) {
      return m_input.ConsumeRandomLengthString(200);
    }
    std::string strPayload(kComboSize, '\0');
    const auto put = [&](size_t uAt, int32_t iNumber) { memcpy(strPayload.data() + uAt, &iNumber, sizeof(iNumber)); };
    put(0, m_input.ConsumeBool() ? m_input.ConsumeIntegralInRange(1, 3) : m_input.ConsumeIntegral<int32_t>());
    put(4, m_input.ConsumeBool() ? m_input.ConsumeIntegralInRange(0, 13) : m_input.ConsumeIntegral<int32_t>());
    put(8, m_input.ConsumeIntegralInRange(0, 3));
    const std::string strProduct = m_input.ConsumeRandomLengthString(64);
    const std::string strCombo = m_input.ConsumeRandomLengthString(64);
    memcpy(strPayload.data() + 16, strProduct.data(), strProduct.size());
    memcpy(strPayload.data() + 80, strCombo.data(), strCombo.size());
    const std::string strData = m_input.ConsumeRandomLengthString(100);
    auto iLength = static_cast<int32_t>(strData.size());
    switch (m_input.ConsumeIntegralInRange(0, 3)) {
      case 0:
        iLength = m_input.ConsumeIntegral<int32_t>();
        break;
      case 3:
        iLength += m_input.ConsumeIntegralInRange(-2, 2);
        break;
      default:
        break;
    }
    put(144, iLength);
    return strPayload + strData;
  }

  // The code that a message deserves; files what it brings in the model.
  int Settle(unsigned long long u64Id, uint32_t uResult) {
    const auto it = m_mapRecords.find(u64Id);
    if (it == m_mapRecords.end()) {
      return kStatusUnknownDataId;
    }
    if (uResult == kResultTimeout || uResult == kResultCloudBusy || uResult == kResultCloudFailed) {
      it->second.bWaiting = true;
    } else {
      m_mapRecords.erase(it);
    }
    return kStatusOk;
  }

  int Expect(long i64Type, const std::string& strPayload, bool bNoData, const std::string& strGuid) {
    if (bNoData || strPayload.empty()) {
      return kStatusEmptyData;
    }
    Expected record;
    record.strGuid = strGuid;
    if (i64Type == AGENT_MSG_BROADCAST_CONNECT) {
      return kStatusOk;
    }
    if (i64Type == LOGCACHE_MSG_ASYNC_LOGCACHR_RESULT) {
      if (strPayload.size() != 32) {
        return kStatusBadResultSize;
      }
      unsigned long long u64Id = 0;
      memcpy(&u64Id, strPayload.data() + 8, sizeof(u64Id));
      return Settle(u64Id, static_cast<uint32_t>(NumberAt(strPayload, 4)));
    }
    if (i64Type == LOGCACHE_MSG_SYNC_SEND_JSON_COMBO_DATA || i64Type == LOGCACHE_MSG_ASYNC_SEND_JSON_COMBO_DATA) {
      if (strPayload.size() < kComboSize ||
          strPayload.size() - kComboSize < static_cast<uint32_t>(NumberAt(strPayload, 144))) {
        return kStatusBadSize;
      }
      record.iMsgType = NumberAt(strPayload, 0);
      record.iPriv = NumberAt(strPayload, 4);
      if (record.iPriv < 0) {
        return kStatusUnknownType;
      }
      record.strProduct = NameAt(strPayload, 16);
      record.strCombo = NameAt(strPayload, 80);
      record.strData = strPayload.substr(kComboSize, static_cast<uint32_t>(NumberAt(strPayload, 144)));
    } else {
      const long i64Base = i64Type - i64Type % 50;
      const long i64Priv = i64Type - i64Base;
      const bool bBase = i64Base == 10100 || i64Base == 10150 || i64Base == 10200;
      if (!bBase || (i64Priv > 3 && i64Priv < 10) || i64Priv > 13 || i64Priv < 0) {
        return kStatusUnknownType;
      }
      record.iPriv = static_cast<int>(i64Priv);
      record.iMsgType = i64Base == 10100 ? 1 : (i64Base == 10200 ? 2 : 3);
      record.strData = strPayload;
    }
    const unsigned long long u64Id = static_cast<unsigned long long>(m_peer.StartTime()) << 32 | ++m_uSequence;
    m_mapRecords.emplace(u64Id, record);
    return kStatusOk;
  }

  void Receive() {
    const long i64Type = MessageType();
    GUID guid{};
    guid.Data1 = m_input.ConsumeIntegral<uint8_t>();
    char szGuid[kGuidBufferSize] = {};
    FormatGuid(guid, szGuid);
    const unsigned int uHow = m_input.ConsumeIntegral<uint8_t>();
    const bool bNoData = uHow % 32 == 1;
    const bool bNoHandle = uHow % 32 == 2;
    const bool bNoContext = uHow % 32 == 3;
    const std::string strPayload = Payload(i64Type);
    const std::unique_ptr<unsigned char[]> pExact(new unsigned char[strPayload.size()]);
    memcpy(pExact.get(), strPayload.data(), strPayload.size());

    const int iExpected = Expect(i64Type, strPayload, bNoData, szGuid);
    m_context.iReplies = 0;
    int iHandle = 0;
    CLogCacheReceive::m_gReceive.ReceiveCallback(
        guid, i64Type, bNoData ? nullptr : pExact.get(), static_cast<unsigned int>(strPayload.size()),
        bNoHandle ? nullptr : &iHandle, bNoContext ? nullptr : static_cast<IComponentContext*>(&m_context));
    if (bNoHandle || bNoContext) {
      FUZZ_CHECK(m_context.iReplies == 0);
      return;
    }
    FUZZ_CHECK(m_context.iReplies == 1 && m_context.pHandle == &iHandle && m_context.i64ReplyType == i64Type);
    FUZZ_CHECK(m_context.iReplyRet == iExpected);
    FUZZ_CHECK(m_context.strReply == (iExpected == kStatusOk ? "success" : "fail"));
  }

  void SendNext() {
    bool bAnyWaiting = false;
    for (const auto& [u64Id, record] : m_mapRecords) {
      bAnyWaiting = bAnyWaiting || record.bWaiting;
    }
    if (!bAnyWaiting) {
      return;  // the taker would wait
    }
    const ExecDataHold hold = m_peer.Data().GetExecData();
    FUZZ_CHECK(hold != nullptr);
    const auto it = m_mapRecords.find(hold->u64DataId);
    FUZZ_CHECK(it != m_mapRecords.end() && it->second.bWaiting);
    m_context.bRefuseSends = m_input.ConsumeIntegralInRange(0, 7) == 0;
    FUZZ_CHECK(m_manager.RunExecData(hold.get()) == (m_context.bRefuseSends ? 0 : 1));
    FUZZ_CHECK(m_context.u64Sent == it->first);
    CheckSent(it->second);
    it->second.bWaiting = false;
    if (m_context.bRefuseSends) {
      m_mapRecords.erase(it);
    }
  }

  void CheckSent(const Expected& record) const {
    TaggedText tags;
    FUZZ_CHECK(ParseTaggedText(m_context.strSent, tags));
    FUZZ_CHECK(tags.u64DataId == m_context.u64Sent);
    FUZZ_CHECK(tags.iPriv == record.iPriv && tags.iMsgType == record.iMsgType);
    FUZZ_CHECK(tags.svGuid == record.strGuid);
    FUZZ_CHECK(m_context.strSent.ends_with(std::string(record.strData.c_str()) + ">"));
    if ((record.strProduct + record.strCombo).find('>') == std::string::npos) {
      FUZZ_CHECK(tags.svProduct == record.strProduct && tags.svCombo == record.strCombo);
      FUZZ_CHECK(tags.svMessage == record.strData.c_str());
    }
  }

  void Complete() {
    const auto i64Type = m_input.ConsumeIntegralInRange(0, 7) == 0 ? m_input.ConsumeIntegral<long>()
                                                                   : static_cast<long>(AGENT_MSG_ASYNC_LOGCACHE);
    const unsigned long long u64Id = SomeId();
    const uint32_t uResult = SomeResult();
    CLogCacheSend::m_LogCacheSend.SendCallback(static_cast<int>(uResult), i64Type, nullptr, 0, 1,
                                               reinterpret_cast<void*>(static_cast<uintptr_t>(u64Id)));
    if (i64Type == AGENT_MSG_ASYNC_LOGCACHE && u64Id != 0 && uResult != 0) {
      static_cast<void>(Settle(u64Id, uResult));
    }
  }

  void LookAround() {
    int iWaitSec = -1;
    FUZZ_CHECK(!m_manager.IsAllowSend(iWaitSec) || (iWaitSec >= 0 && iWaitSec <= 600));
    m_peer.Data().RepeatExecDataMap();  // nothing was sent four hours ago
    m_manager.PrintfStat();
  }

  FuzzedDataProvider& m_input;
  CCheckingContext m_context;
  CLogCacheMgr& m_manager;
  CLogCacheMgrPeer m_peer{m_manager};
  std::map<unsigned long long, Expected> m_mapRecords;
  uint32_t m_uSequence = 0;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*piArguments*/, char*** /*pppszArguments*/) {
  CInstallation::Instance().WriteConfig("dataflowflag = 2\n");
  g_hLog = LogInit("qmlogcache");
  g_hLogError = LogInit("qmlogcacheerror");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  FuzzedDataProvider input(pData, uSize);
  CSession(input).Run();
  return 0;
}
