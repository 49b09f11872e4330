// A plug-in for the loader's tests. It writes down every call in the file that TEST_PLUGIN_CALLS names, one a line with
// the name of the calling thread, and fails at the step that TEST_PLUGIN_FAILS names.
#include <pthread.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "plugin/compctx/component_context.h"
#include "plugin/compctx/plugin_api.h"

namespace {

constexpr char kTestPluginGuid[] = "AAAAAAAA-0001-0002-0304-05060708090A";

class CIgnoringReceiver : public IMRReceiveComplete {
 public:
  void ReceiveCallback(const GUID&, long, const unsigned char*, unsigned int, void*, void*) override {}
};

IComponentContext* g_pContext = nullptr;
CIgnoringReceiver g_Receiver;

// True when this step is to fail; throws when it is to throw.
bool Note(const char* pszStep) {
  char szThread[16] = {};
  pthread_getname_np(pthread_self(), szThread, sizeof(szThread));
  if (const char* pszFile = std::getenv("TEST_PLUGIN_CALLS")) {
    if (FILE* pFile = std::fopen(pszFile, "ae")) {
      std::fprintf(pFile, "%s %s\n", pszStep, szThread);
      std::fclose(pFile);
    }
  }
  const char* pszThrows = std::getenv("TEST_PLUGIN_THROWS");
  if (pszThrows != nullptr && std::strcmp(pszThrows, pszStep) == 0) {
    throw std::runtime_error("told to throw");
  }
  const char* pszFails = std::getenv("TEST_PLUGIN_FAILS");
  return pszFails != nullptr && std::strcmp(pszFails, pszStep) == 0;
}

int Initialize(void* pInitParam) {
  return Note("Initialize") || pInitParam == nullptr ? -1 : 0;
}
int Uninitialize() {
  return Note("Uninitialize") ? -1 : 0;
}
int Start() {
  const bool bFails = Note("Start");
  GUID guid{};
  static_cast<void>(ParseGuid(kTestPluginGuid, guid));
  if (g_pContext == nullptr || g_pContext->Initialize(guid) != 0 ||
      g_pContext->Receive(10102, &g_Receiver, nullptr) != 0) {
    return -1;
  }
  return bFails ? -1 : 0;
}
// Leaves the context as it is: a plug-in that forgets to end it.
int Stop() {
  return Note("Stop") ? -1 : 0;
}
int GetStatus() {
  return 0;
}
int GetCtx(void*) {
  return 0;
}
int SetCtx(void* pData) {
  g_pContext = static_cast<IComponentContext*>(pData);
  return Note("SetCtx") ? -1 : 0;
}
int Info(void*) {
  return 0;
}

}  // namespace

extern "C" {
__attribute__((visibility("default"))) long InitializePlugin() {
  return Note("InitializePlugin") ? -1 : 0;
}
__attribute__((visibility("default"))) void UninitializePlugin() {
  static_cast<void>(Note("UninitializePlugin"));
}
__attribute__((visibility("default"))) void* CreateObject(const char* pszGuid) {
  if (Note("CreateObject") || std::strcmp(pszGuid, kTestPluginGuid) != 0) {
    return nullptr;
  }
  return new _PluginObjFuncTable{Initialize, Uninitialize, Start, Stop, GetStatus, GetCtx, SetCtx, Info};
}
#ifndef TEST_PLUGIN_WITHOUT_DESTROY
__attribute__((visibility("default"))) void DestroyObject(const char*, void* pObj) {
  static_cast<void>(Note("DestroyObject"));
  delete static_cast<_PluginObjFuncTable*>(pObj);
}
#endif
}
