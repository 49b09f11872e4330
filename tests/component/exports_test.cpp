// The library as the dynamic linker sees it.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "elf_file.h"
#include "plugin_host.h"

namespace {

using Names = std::set<std::string>;

// The C functions of the platform library's contract.
const Names& PlatformFunctions() {
  static const Names setNames = {"LogInit",
                                 "LogPrint",
                                 "LogPrintStr",
                                 "LogUninit",
                                 "QmInitializeCriticalSection",
                                 "QmLockCriticalSection",
                                 "QmUnlockCriticalSection",
                                 "QmDeleteCriticalSection",
                                 "QmCreateEvent",
                                 "QmSetEvent",
                                 "QmDestroyEvent",
                                 "QmWaitEventTimeout",
                                 "QmMsgQueueInit",
                                 "QmMsgQueueFini",
                                 "QmMsgQueueInsert",
                                 "QmGetMsgFromQueue",
                                 "QmGetMsgCount",
                                 "QmGetFileAttr",
                                 "QmIsFileExisted",
                                 "QmGetModuleFilePath",
                                 "base64Encode",
                                 "base64Decode",
                                 "wrap_ini_parse",
                                 "QmLogConfigure",
                                 "QmSetStorageSync",
                                 "QmGetStorageSync"};
  return setNames;
}

// What no build of the component can do without, and so must leave undefined.
const Names& NeededFunctions() {
  static const Names setNames = {"LogInit",
                                 "LogPrint",
                                 "LogPrintStr",
                                 "LogUninit",
                                 "QmInitializeCriticalSection",
                                 "QmLockCriticalSection",
                                 "QmUnlockCriticalSection",
                                 "QmDeleteCriticalSection",
                                 "QmCreateEvent",
                                 "QmSetEvent",
                                 "QmDestroyEvent",
                                 "QmWaitEventTimeout",
                                 "QmMsgQueueInit",
                                 "QmMsgQueueFini",
                                 "QmMsgQueueInsert",
                                 "QmGetMsgFromQueue",
                                 "QmGetMsgCount",
                                 "QmGetFileAttr",
                                 "QmIsFileExisted",
                                 "QmGetModuleFilePath",
                                 "QmGetStorageSync",
                                 "base64Encode",
                                 "base64Decode",
                                 "wrap_ini_parse",
                                 "statvfs",
                                 "time",
                                 "sleep",
                                 "usleep"};
  return setNames;
}

std::string PlatformLibrary() {
  return (std::filesystem::path(QMLOGCACHE_LIBRARY).parent_path() / "libqmplatform.so").string();
}

TEST(ExportsTest, ExportsTheFourFunctionsAndNothingElse) {
  const CElfFile library(QMLOGCACHE_LIBRARY);
  EXPECT_EQ(library.Exported(), (Names{"CreateObject", "DestroyObject", "InitializePlugin", "UninitializePlugin"}));
}

TEST(ExportsTest, NamesItselfAndFindsThePlatformLibraryBesideItself) {
  using Texts = std::vector<std::string>;
  const CElfFile library(QMLOGCACHE_LIBRARY);
  ASSERT_EQ(library.DynamicTexts(DT_SONAME).size(), 1u);
  EXPECT_EQ(library.DynamicTexts(DT_SONAME).front().rfind("libqmlogcache.so", 0), 0u);
  EXPECT_EQ(library.DynamicTexts(DT_RUNPATH), Texts{"$ORIGIN"});
  EXPECT_EQ(library.DynamicTexts(DT_RPATH), Texts{});
  const Texts vecPlatformName = CElfFile(PlatformLibrary()).DynamicTexts(DT_SONAME);
  ASSERT_EQ(vecPlatformName.size(), 1u);
  const Texts vecNeeded = library.DynamicTexts(DT_NEEDED);
  EXPECT_NE(std::find(vecNeeded.begin(), vecNeeded.end(), vecPlatformName.front()), vecNeeded.end());
}

TEST(ExportsTest, BindsNoReferenceToItself) {
  const CElfFile library(QMLOGCACHE_LIBRARY);
  EXPECT_FALSE(library.HasDynamic(DT_SYMBOLIC));
  EXPECT_EQ(library.DynamicFlags(DT_FLAGS) & DF_SYMBOLIC, 0u);
}

TEST(ExportsTest, LeavesEveryPlatformFunctionToTheDynamicLinker) {
  const CElfFile library(QMLOGCACHE_LIBRARY);
  for (const std::string& strName : NeededFunctions()) {
    EXPECT_TRUE(library.Undefined().contains(strName)) << strName;
  }
  ASSERT_TRUE(library.HasFullSymbolTable());
  for (const std::string& strName : PlatformFunctions()) {
    EXPECT_FALSE(library.Defined().contains(strName)) << strName << " has a copy inside the component";
  }
}

TEST(ExportsTest, ThePlatformLibraryOffersEveryFunctionOfItsContract) {
  const CElfFile platform(PlatformLibrary());
  for (const std::string& strName : PlatformFunctions()) {
    EXPECT_TRUE(platform.Exported().contains(strName)) << strName;
  }
  EXPECT_FALSE(platform.HasDynamic(DT_SYMBOLIC));
  EXPECT_EQ(platform.DynamicFlags(DT_FLAGS) & DF_SYMBOLIC, 0u);
}

TEST(ExportsTest, StaysLoadedWhenTheHostClosesIt) {
  EXPECT_NE(CElfFile(QMLOGCACHE_LIBRARY).DynamicFlags(DT_FLAGS_1) & DF_1_NODELETE, 0u);
  const LoadedPlugin& plugin = GetLoadedPlugin();
  void* hSecond = dlopen(QMLOGCACHE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(hSecond, nullptr);
  EXPECT_EQ(dlclose(hSecond), 0);
  EXPECT_EQ(dlclose(plugin.hLibrary), 0);
  EXPECT_NE(dlopen(QMLOGCACHE_LIBRARY, RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD), nullptr);  // gives the count back
  CPluginHost host;
  EXPECT_EQ(host.Object().Info(&host), 0);
}

}  // namespace
