// A host as small as one can be: loads the log cache, hands it one record, prints what goes to the server link, and
// answers that it was delivered. Run as PREFIX/bin/example_host PLUGIN it keeps its cache files in PREFIX/data/qmlogcache.
#include <dlfcn.h>
#include <plugin/compctx/component_context.h>
#include <plugin/compctx/message_types.h>
#include <plugin/compctx/plugin_api.h>

#include <cstdio>
#include <cstring>
#include <future>
#include <map>

class CContext : public IComponentContext {
 public:
  uint32_t Initialize(const GUID&) override { return 0; }
  uint32_t Uninitialize() override { return 0; }
  uint32_t Reserved4() override { return 1; }
  uint32_t AgentGetConnect(const GUID*, uint32_t, const char*, uint32_t, uint32_t*, void**, uint32_t*,
                           uint32_t) override {
    return 1;
  }
  uint32_t FreeReply(void*) override { return 0; }
  uint32_t Reserved7() override { return 1; }
  uint32_t Reserved8() override { return 1; }
  uint32_t Receive(uint32_t uType, IMRReceiveComplete* pReceiver, void*) override {
    return m_mapReceivers[uType] = pReceiver, 0;
  }
  uint32_t UnReceive(uint32_t) override { return 0; }
  uint32_t Reply(int32_t iRet, int64_t i64Type, const char* pText, uint32_t uLength, void*) override {
    return std::printf("answer to %ld: %x %.*s\n", i64Type, iRet, static_cast<int>(uLength), pText), 0;
  }
  uint32_t AsynSendEx(const GUID*, uint32_t, const uint8_t* pData, uint32_t uLength, IMRSendComplete*,
                      uint64_t u64DataId, uint64_t*, uint32_t) override {
    std::printf("to the server: %.*s\n", static_cast<int>(uLength), reinterpret_cast<const char*>(pData));
    return m_sent.set_value(u64DataId), 0;
  }
  void Deliver(uint32_t uType, const void* pData, unsigned int uLength) {
    const GUID sender{1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};
    m_mapReceivers.at(uType)->ReceiveCallback(sender, uType, static_cast<const uint8_t*>(pData), uLength, this, this);
  }
  std::map<uint32_t, IMRReceiveComplete*> m_mapReceivers;
  std::promise<uint64_t> m_sent;
};

int main(int iArguments, char** ppszArguments) {
  void* pLibrary = dlopen(iArguments > 1 ? ppszArguments[1] : "libqmlogcache.so", RTLD_NOW);
  if (pLibrary == nullptr) {
    return std::fprintf(stderr, "%s\n", dlerror()), 1;
  }
  const auto fnCreate = reinterpret_cast<PluginCreateObjectFunc>(dlsym(pLibrary, "CreateObject"));
  auto* pObject = static_cast<_PluginObjFuncTable*>(fnCreate(kComponentGuidText));
  CContext context;
  pObject->Initialize(&context);
  pObject->SetCtx(static_cast<IComponentContext*>(&context));
  pObject->Start();
  context.Deliver(AGENT_MSG_BROADCAST_CONNECT, "", 1);  // the server can be reached
  context.Deliver(LOGCACHE_MSG_SYNC_EDR_PRIV_HIGH, "a record", 8);
  const uint64_t u64DataId = context.m_sent.get_future().get();
  unsigned char aResult[32] = {};  // delivered; another code would stand at 4
  std::memcpy(aResult + 8, &u64DataId, sizeof(u64DataId));
  context.Deliver(LOGCACHE_MSG_ASYNC_LOGCACHR_RESULT, aResult, sizeof(aResult));
  pObject->Stop();
  return pObject->Uninitialize();
}
