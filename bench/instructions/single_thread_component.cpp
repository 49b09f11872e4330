#include "bench/instructions/single_thread_component.h"

#include <array>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include "message/receive.h"
#include "message/wire_format.h"
#include "plugin/compctx/message_types.h"
#include "plugin/plugin_object.h"

namespace {

constexpr uint32_t kRecordType = LOGCACHE_MSG_SYNC_EDR_PRIV_NORMAL;

void Demand(bool bTrue, const char* pszWhat) {
  if (!bTrue) {
    throw std::runtime_error(pszWhat);
  }
}

CLogCacheMgr& InitializedManager() {
  static int iSomething = 0;  // the parameter is only asked to be there
  Demand(CLogCachePluginObj::Initialize(&iSomething) == 0 && CLogCacheMgr::Instance() != nullptr,
         "the component cannot be initialised");
  return *CLogCacheMgr::Instance();
}

}  // namespace

// Nothing periodic comes due, however long the counting takes.
extern "C" [[gnu::visibility("default")]] time_t time(time_t* pSeconds) {
  constexpr time_t kAlwaysNow = 1700000000;
  if (pSeconds != nullptr) {
    *pSeconds = kAlwaysNow;
  }
  return kAlwaysNow;
}

uint32_t CSendRecorder::Reply(int32_t iRet, int64_t /*i64MsgType*/, const char* /*pReply*/, uint32_t /*uLength*/,
                              void* pReplyHandle) {
  *static_cast<int32_t*>(pReplyHandle) = iRet;
  return 0;
}
uint32_t CSendRecorder::AsynSendEx(const GUID* /*pDest*/, uint32_t /*uMsgType*/, const uint8_t* /*pData*/,
                                   uint32_t /*uLength*/, IMRSendComplete* /*pComplete*/, uint64_t u64UserValue,
                                   uint64_t* pu64Act, uint32_t /*uTimeoutMs*/) {
  *pu64Act = u64UserValue;
  m_vecSent.push_back(u64UserValue);
  return 0;
}

CSingleThreadComponent::CSingleThreadComponent(IComponentContext& context)
    : m_context(context), m_manager(InitializedManager()), m_strPayload(kPayloadSize, 'x') {
  CLogCachePluginObj::SetCtx(&m_context);
  m_workState = m_manager.BeginWork();
  m_manager.SetConnected(true);
}

CSingleThreadComponent::~CSingleThreadComponent() {
  CLogCachePluginObj::Uninitialize();
}

void CSingleThreadComponent::TakeRecord() {
  int32_t iAnswer = -1;
  CLogCacheReceive::m_gReceive.ReceiveCallback(kSender, kRecordType,
                                               reinterpret_cast<const unsigned char*>(m_strPayload.data()),
                                               static_cast<unsigned int>(m_strPayload.size()), &iAnswer, &m_context);
  Demand(iAnswer == 0, "a record was refused");
}

void CSingleThreadComponent::SendRecord() {
  Demand(m_manager.WorkStep(m_workState), "the work loop has ended");
}

void CSingleThreadComponent::Settle(uint64_t u64DataId) {
  constexpr size_t kDataIdOffset = 8;  // the result before it is 0: delivered
  std::array<unsigned char, kResultMessageSize> message{};
  std::memcpy(message.data() + kDataIdOffset, &u64DataId, sizeof(u64DataId));
  int32_t iAnswer = -1;
  CLogCacheReceive::m_gReceive.ReceiveCallback(GUID{}, LOGCACHE_MSG_ASYNC_LOGCACHR_RESULT, message.data(),
                                               kResultMessageSize, &iAnswer, &m_context);
  Demand(iAnswer == 0, "a result was refused");
}

void CSingleThreadComponent::Save() {
  m_manager.Data().SaveCacheToDb();
}

void CSingleThreadComponent::Load() {
  Demand(m_manager.Data().LoadExecData() == 1, "the load has failed");
}

size_t CSingleThreadComponent::Held() {
  return CLogCacheDataPeer(m_manager.Data()).MapSize();
}
