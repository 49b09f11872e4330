#include "bench/instructions/single_thread_component.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "message/receive.h"
#include "message/wire_format.h"
#include "platform/file_info.h"
#include "platform/log.h"
#include "plugin/compctx/message_types.h"
#include "plugin/plugin_object.h"

namespace {

constexpr uint32_t kRecordType = LOGCACHE_MSG_SYNC_EDR_PRIV_NORMAL;

std::string g_strModuleDirectory;  // set while no life runs

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

extern "C" {
[[gnu::visibility("default")]] int QmGetModuleFilePath(char* pszBuffer, unsigned int uSize) {
  if (pszBuffer == nullptr || g_strModuleDirectory.empty() || g_strModuleDirectory.size() >= uSize) {
    errno = ERANGE;
    return ERANGE;
  }
  std::memcpy(pszBuffer, g_strModuleDirectory.c_str(), g_strModuleDirectory.size() + 1);
  return 0;
}

// Nothing periodic comes due, however long the counting takes.
[[gnu::visibility("default")]] time_t time(time_t* pSeconds) {
  constexpr time_t kAlwaysNow = 1700000000;
  if (pSeconds != nullptr) {
    *pSeconds = kAlwaysNow;
  }
  return kAlwaysNow;
}
}

CCountedInstallation::CCountedInstallation(const std::string& strRoot) : m_strRoot(strRoot) {
  for (const char* pszName : {"/bin", "/etc/qmlogcache", "/data", "/log"}) {
    std::filesystem::create_directories(m_strRoot + pszName);
  }
  constexpr unsigned int kDefaultLevels = 1U << kLogWarning | 1U << kLogMissing | 1U << kLogLifecycle;
  constexpr unsigned long long kFileSize = 10ULL << 20U;
  constexpr unsigned int kFiles = 5;
  Demand(QmLogConfigure((m_strRoot + "/log").c_str(), kDefaultLevels, kFileSize, kFiles) == 0, "QmLogConfigure");
  g_strModuleDirectory = m_strRoot + "/bin";
}

CCountedInstallation::~CCountedInstallation() {
  g_strModuleDirectory.clear();
}

void CCountedInstallation::Configure(int iDataFlowFlag) const {
  std::ofstream file(m_strRoot + "/etc/qmlogcache/qmlogcache.conf");
  file << "[logcache]\ndiskfreesize = 0\ndataflowflag = " << iDataFlowFlag << '\n';
  file.close();
  Demand(file.good(), "the configuration cannot be written");
}

uint32_t CSendRecorder::Initialize(const GUID& /*stComponentID*/) {
  return 0;
}
uint32_t CSendRecorder::Uninitialize() {
  return 0;
}
uint32_t CSendRecorder::Reserved4() {
  return 0;
}
uint32_t CSendRecorder::AgentGetConnect(const GUID* /*pDest*/, uint32_t /*uCode*/, const char* /*pRequest*/,
                                        uint32_t /*uRequestLength*/, uint32_t* puStatus, void** /*ppReply*/,
                                        uint32_t* /*puReplyLength*/, uint32_t /*uTimeoutMs*/) {
  *puStatus = 0;
  return 0;
}
uint32_t CSendRecorder::FreeReply(void* /*pReply*/) {
  return 0;
}
uint32_t CSendRecorder::Reserved7() {
  return 0;
}
uint32_t CSendRecorder::Reserved8() {
  return 0;
}
uint32_t CSendRecorder::Receive(uint32_t /*uMsgType*/, IMRReceiveComplete* /*pReceiver*/, void* /*pContext*/) {
  return 0;
}
uint32_t CSendRecorder::UnReceive(uint32_t /*uMsgType*/) {
  return 0;
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
