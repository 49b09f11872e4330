#include <gtest/gtest.h>

#include "plugin/compctx/plugin_api.h"
#include "plugin/plugin_object.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/manager_fixture.h"

extern "C" {
long InitializePlugin();
void UninitializePlugin();
void* CreateObject(const char* pszGuid);
void DestroyObject(const char* pszGuid, void* pObj);
}

namespace {

constexpr char kOwnGuid[] = "5D3B1A07-8E24-4C91-B6F0-2A7C9E41D358";

using ExportedFunctionsTest = ComponentTest;

TEST_F(ExportedFunctionsTest, InitializePluginReturnsZeroAndDoesNothing) {
  EXPECT_EQ(0, InitializePlugin());
  UninitializePlugin();
  EXPECT_TRUE(CLogCapture::Lines().empty());
  EXPECT_EQ(nullptr, CLogCacheMgrPeer::Current());
}

TEST_F(ExportedFunctionsTest, CreateObjectFillsTheEightEntriesInOrder) {
  auto* pObject = static_cast<_PluginObjFuncTable*>(CreateObject(kOwnGuid));
  ASSERT_NE(nullptr, pObject);
  EXPECT_EQ(&CLogCachePluginObj::Initialize, pObject->Initialize);
  EXPECT_EQ(&CLogCachePluginObj::Uninitialize, pObject->Uninitialize);
  EXPECT_EQ(&CLogCachePluginObj::Start, pObject->Start);
  EXPECT_EQ(&CLogCachePluginObj::Stop, pObject->Stop);
  EXPECT_EQ(&CLogCachePluginObj::GetStatus, pObject->GetStatus);
  EXPECT_EQ(&CLogCachePluginObj::GetCtx, pObject->GetCtx);
  EXPECT_EQ(&CLogCachePluginObj::SetCtx, pObject->SetCtx);
  EXPECT_EQ(&CLogCachePluginObj::Info, pObject->Info);
  DestroyObject(kOwnGuid, pObject);
}

TEST_F(ExportedFunctionsTest, TheObjectIsEightPointersInTheHostsOrder) {
  ASSERT_EQ(8 * sizeof(void*), sizeof(_PluginObjFuncTable));
  auto* pObject = static_cast<_PluginObjFuncTable*>(CreateObject(kOwnGuid));
  ASSERT_NE(nullptr, pObject);
  void* const* ppEntries = reinterpret_cast<void* const*>(pObject);
  EXPECT_EQ(reinterpret_cast<void*>(&CLogCachePluginObj::Initialize), ppEntries[0]);
  EXPECT_EQ(reinterpret_cast<void*>(&CLogCachePluginObj::GetStatus), ppEntries[4]);
  EXPECT_EQ(reinterpret_cast<void*>(&CLogCachePluginObj::Info), ppEntries[7]);
  DestroyObject(kOwnGuid, pObject);
}

TEST_F(ExportedFunctionsTest, CreateObjectOpensNoChannelAndMakesNoManager) {
  const int iOpenBefore = CLogCapture::OpenCount(kMainChannel);
  void* pObject = CreateObject(kOwnGuid);
  EXPECT_EQ(iOpenBefore, CLogCapture::OpenCount(kMainChannel));
  EXPECT_EQ(nullptr, CLogCacheMgrPeer::Current());
  EXPECT_TRUE(CLogCapture::Lines().empty());
  DestroyObject(kOwnGuid, pObject);
}

TEST_F(ExportedFunctionsTest, CreateObjectRefusesNull) {
  EXPECT_EQ(nullptr, CreateObject(nullptr));
}

TEST_F(ExportedFunctionsTest, CreateObjectRefusesLowerCase) {
  EXPECT_EQ(nullptr, CreateObject("5d3b1a07-8e24-4c91-b6f0-2a7c9e41d358"));
}

TEST_F(ExportedFunctionsTest, CreateObjectRefusesFurtherCharacters) {
  EXPECT_EQ(nullptr, CreateObject("5D3B1A07-8E24-4C91-B6F0-2A7C9E41D358 "));
  EXPECT_EQ(nullptr, CreateObject("5D3B1A07-8E24-4C91-B6F0-2A7C9E41D3580"));
}

TEST_F(ExportedFunctionsTest, CreateObjectRefusesBracesShortTextsAndOtherComponents) {
  EXPECT_EQ(nullptr, CreateObject("{5D3B1A07-8E24-4C91-B6F0-2A7C9E41D358}"));
  EXPECT_EQ(nullptr, CreateObject("5D3B1A07-8E24-4C91-B6F0-2A7C9E41D35"));
  EXPECT_EQ(nullptr, CreateObject(""));
  EXPECT_EQ(nullptr, CreateObject("C0E4F1B2-3A59-4D86-8B7E-91F2D6A3C4E7"));
  EXPECT_TRUE(CLogCapture::Lines().empty());
}

TEST_F(ExportedFunctionsTest, CreateObjectGivesNullWithoutMemory) {
  const CAllocationFault fault;
  EXPECT_EQ(nullptr, CreateObject(kOwnGuid));
}

TEST_F(ExportedFunctionsTest, DestroyObjectWithANullObjectDoesNothing) {
  DestroyObject(kOwnGuid, nullptr);
  EXPECT_TRUE(CLogCapture::Lines().empty());
}

TEST_F(ExportedFunctionsTest, DestroyObjectForAnotherGuidLeavesTheObjectAlone) {
  auto* pObject = static_cast<_PluginObjFuncTable*>(CreateObject(kOwnGuid));
  ASSERT_NE(nullptr, pObject);
  DestroyObject(nullptr, pObject);
  DestroyObject("5d3b1a07-8e24-4c91-b6f0-2a7c9e41d358", pObject);
  // Still alive: a sanitizer would report the read, and the final DestroyObject a second release.
  EXPECT_EQ(&CLogCachePluginObj::Initialize, pObject->Initialize);
  DestroyObject(kOwnGuid, pObject);
  EXPECT_TRUE(CLogCapture::Lines().empty());
}

}  // namespace
