#include "bench/support/loaded_component.h"

#include <dlfcn.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "plugin/compctx/message_types.h"

namespace {

struct Library {
  PluginCreateObjectFunc pfnCreateObject;
  PluginDestroyObjectFunc pfnDestroyObject;
};

template <typename T>
T Find(void* hLibrary, const char* pszName) {
  void* pSymbol = hLibrary == nullptr ? nullptr : dlsym(hLibrary, pszName);
  if (pSymbol == nullptr) {
    std::fprintf(stderr, "%s: %s\n", pszName, dlerror());
    std::exit(1);
  }
  return reinterpret_cast<T>(pSymbol);
}

const Library& TheLibrary() {
  static const Library library = [] {
    void* hLibrary = dlopen(QMLOGCACHE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    return Library{Find<PluginCreateObjectFunc>(hLibrary, "CreateObject"),
                   Find<PluginDestroyObjectFunc>(hLibrary, "DestroyObject")};
  }();
  return library;
}

// A message's reply handle only has to be something; the first byte tells whether the component said "success".
bool* SuccessOf(void* pReplyHandle) {
  return static_cast<bool*>(pReplyHandle);
}

}  // namespace

CLoadedComponent::CLoadedComponent(ISendSink& sink)
    : m_sink(sink), m_pObject(static_cast<_PluginObjFuncTable*>(TheLibrary().pfnCreateObject(kComponentGuidText))) {
  if (m_pObject == nullptr || m_pObject->Initialize(this) != 0) {
    throw std::runtime_error("the component cannot be initialised");
  }
  m_pObject->SetCtx(static_cast<IComponentContext*>(this));
  m_pObject->Start();
  if (m_pReceiver.load() == nullptr) {
    throw std::runtime_error("the component has not started");
  }
}

CLoadedComponent::~CLoadedComponent() {
  Stop();
  m_pObject->Uninitialize();
  TheLibrary().pfnDestroyObject(kComponentGuidText, m_pObject);
}

void CLoadedComponent::Stop() {
  if (m_bStarted) {
    m_bStarted = false;
    m_pObject->Stop();
  }
}

void CLoadedComponent::Connect() {
  constexpr std::array<unsigned char, 1> kSomething = {'1'};
  m_pReceiver.load()->ReceiveCallback(GUID{}, AGENT_MSG_BROADCAST_CONNECT, kSomething.data(), kSomething.size(),
                                      nullptr, static_cast<IComponentContext*>(this));
}

bool CLoadedComponent::Send(uint32_t u32Sender, uint32_t uMsgType, std::string_view svData) {
  const GUID sender{u32Sender, 0x4A6B, 0x4C8D, {0x8E, 0x2F, 0x10, 0x32, 0x54, 0x76, 0x98, 0xBA}};
  bool bSuccess = false;
  m_pReceiver.load(std::memory_order_relaxed)
      ->ReceiveCallback(sender, uMsgType, reinterpret_cast<const unsigned char*>(svData.data()),
                        static_cast<unsigned int>(svData.size()), &bSuccess, static_cast<IComponentContext*>(this));
  return bSuccess;
}

void CLoadedComponent::Settle(uint64_t u64DataId, uint32_t uResult) {
  std::array<unsigned char, 32> message{};  // the result at 4, the data id at 8
  std::memcpy(message.data() + 4, &uResult, sizeof(uResult));
  std::memcpy(message.data() + 8, &u64DataId, sizeof(u64DataId));
  m_pReceiver.load(std::memory_order_relaxed)
      ->ReceiveCallback(GUID{}, LOGCACHE_MSG_ASYNC_LOGCACHR_RESULT, message.data(), message.size(), nullptr,
                        static_cast<IComponentContext*>(this));
}

uint32_t CLoadedComponent::AgentGetConnect(const GUID* /*pDest*/, uint32_t /*uCode*/, const char* /*pRequest*/,
                                           uint32_t /*uRequestLength*/, uint32_t* puStatus, void** /*ppReply*/,
                                           uint32_t* puReplyLength, uint32_t /*uTimeoutMs*/) {
  *puStatus = 1;  // asked only before Connect
  *puReplyLength = 0;
  return 0;
}
uint32_t CLoadedComponent::Receive(uint32_t /*uMsgType*/, IMRReceiveComplete* pReceiver, void* /*pContext*/) {
  m_pReceiver.store(pReceiver);
  return 0;
}
uint32_t CLoadedComponent::Reply(int32_t iRet, int64_t /*i64MsgType*/, const char* /*pReply*/, uint32_t /*uLength*/,
                                 void* pReplyHandle) {
  *SuccessOf(pReplyHandle) = iRet == 0;
  return 0;
}
uint32_t CLoadedComponent::AsynSendEx(const GUID* /*pDest*/, uint32_t /*uMsgType*/, const uint8_t* pData,
                                      uint32_t uLength, IMRSendComplete* /*pComplete*/, uint64_t u64UserValue,
                                      uint64_t* pu64Act, uint32_t /*uTimeoutMs*/) {
  *pu64Act = m_u64LastAct.fetch_add(1, std::memory_order_relaxed) + 1;
  return m_sink.OnSend(u64UserValue, {reinterpret_cast<const char*>(pData), uLength});
}
