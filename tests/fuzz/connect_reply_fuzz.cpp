// The server link's answer to the connection query, read by the manager, and the JSON reader behind it.
//
// The first byte decides how the context answers; the rest is the reply.
//
// Holds: the manager is online for exactly those replies whose top-level "onlineflag" is the text or the number 1; the
// reply is given back once, if there was one; the reader takes what the parser behind it takes, up to its own depth
// limit and but for zero bytes; a value's text is the string itself or JSON with the same meaning.
#include <algorithm>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "manager/log_cache_mgr.h"
#include "platform/json_parse.h"
#include "platform/log.h"
#include "platform/log_channels.h"
#include "tests/fuzz/support/fuzz_check.h"
#include "tests/fuzz/support/installation.h"
#include "tests/fuzz/support/plain_context.h"

namespace {

constexpr size_t kMaxDepth = 512;

class CAnsweringContext : public CPlainContext {
 public:
  uint32_t AgentGetConnect(const GUID* /*pDest*/, uint32_t /*uCode*/, const char* /*pRequest*/,
                           uint32_t /*uRequestLength*/, uint32_t* puStatus, void** ppReply, uint32_t* puReplyLength,
                           uint32_t /*uTimeoutMs*/) override {
    *puStatus = uStatus;
    *ppReply = pReply;
    *puReplyLength = uLength;
    return uRet;
  }
  uint32_t FreeReply(void* pGivenBack) override {
    FUZZ_CHECK(pGivenBack == pReply);
    ++iFreed;
    return 0;
  }

  uint32_t uRet = 0;
  uint32_t uStatus = 0;
  void* pReply = nullptr;
  uint32_t uLength = 0;
  int iFreed = 0;
};

// How deep a valid text is nested, counted by the parser; the reader counts before it parses.
size_t DepthOf(const std::string& strText, bool& bValid) {
  using Event = nlohmann::json::parse_event_t;
  size_t uDeepest = 0;
  const auto parsed = nlohmann::json::parse(
      strText,
      [&uDeepest](int iOuter, Event event, nlohmann::json&) {
        if (event == Event::object_start || event == Event::array_start) {
          uDeepest = std::max(uDeepest, static_cast<size_t>(iOuter) + 1);
        }
        return true;
      },
      /*allow_exceptions=*/false);
  bValid = !parsed.is_discarded();
  return uDeepest;
}

std::string Trimmed(std::string_view svText) {
  while (!svText.empty() && svText.back() == '\0') {
    svText.remove_suffix(1);
  }
  return std::string(svText);
}

// What the reply says by our own reading.
bool IsOnline(const nlohmann::json& reply) {
  if (!reply.is_object() || !reply.contains("onlineflag")) {
    return false;
  }
  const nlohmann::json& flag = reply["onlineflag"];
  return flag == nlohmann::json("1") || (flag.is_number_integer() && flag == 1);
}

void CheckReader(const std::string& strReply, const nlohmann::json& expected, bool bTaken) {
  qmtools::CPJsonParse parser;
  FUZZ_CHECK(parser.LoadBuffer(CPString(std::string_view(strReply))) == bTaken);
  if (!bTaken) {
    FUZZ_CHECK(parser.GetNode(nullptr, "onlineflag") == nullptr);
    return;
  }
  if (!expected.is_object()) {
    FUZZ_CHECK(parser.GetNode(nullptr, "") == nullptr);
    return;
  }
  for (const auto& [strKey, value] : expected.items()) {
    if (strKey.find('\0') != std::string::npos) {
      continue;  // keys are asked for as C strings
    }
    const auto* pNode = parser.GetNode(nullptr, strKey.c_str());
    FUZZ_CHECK(pNode != nullptr);
    const CPString strValue = parser.GetValue(pNode);
    if (value.is_string()) {
      FUZZ_CHECK(strValue.View() == value.get_ref<const std::string&>());
    } else {
      FUZZ_CHECK(nlohmann::json::parse(strValue.View(), nullptr, false) == value);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*piArguments*/, char*** /*pppszArguments*/) {
  CInstallation::Instance().WriteConfig("dataflowflag = 2\n");
  g_hLog = LogInit("qmlogcache");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  if (uSize == 0) {
    return 0;
  }
  const uint8_t uHow = pData[0];
  const std::string strReply(reinterpret_cast<const char*>(pData) + 1, uSize - 1);
  const std::unique_ptr<char[]> pReply(new char[strReply.size()]);
  memcpy(pReply.get(), strReply.data(), strReply.size());

  CAnsweringContext context;
  context.uRet = (uHow & 7U) == 1 ? 0xE0020003 : 0;
  context.uStatus = (uHow & 7U) == 2 ? 0xE0010000 : 0;
  context.pReply = (uHow & 7U) == 3 ? nullptr : pReply.get();
  context.uLength = static_cast<uint32_t>(strReply.size());

  const std::string strText = Trimmed(strReply);
  bool bValid = false;
  const size_t uDepth = DepthOf(strText, bValid);
  const bool bZeroInside = strText.find('\0') != std::string::npos;
  const nlohmann::json expected = nlohmann::json::parse(strText, nullptr, /*allow_exceptions=*/false);
  const bool bTaken = bValid && !bZeroInside && uDepth <= kMaxDepth;
  CheckReader(strReply, expected, bTaken);

  CLogCacheMgr* pManager = CLogCacheMgr::Instance();
  pManager->SetCtx(static_cast<IComponentContext*>(&context));
  const bool bAnswered = context.uRet == 0 && context.uStatus == 0 && context.pReply != nullptr && context.uLength != 0;
  FUZZ_CHECK(pManager->GetServerConnectStat() == (bAnswered && bTaken && IsOnline(expected)));
  FUZZ_CHECK(context.iFreed == (context.pReply == nullptr ? 0 : 1));
  CLogCacheMgr::Close();
  return 0;
}
