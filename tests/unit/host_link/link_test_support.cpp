#include "link_test_support.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

std::string MakeText(uint64_t u64DataId, const std::string& strMessage, const std::string& strProduct,
                     const std::string& strCombo, int32_t iPriv, int32_t iMsgType) {
  char acId[24];
  snprintf(acId, sizeof(acId), "%llx", static_cast<unsigned long long>(u64DataId));
  return std::string("<version=1><dataid=") + acId + "><priv=" + std::to_string(iPriv) +
         "><msgtype=" + std::to_string(iMsgType) + "><guid=" + kTestGuid + "><product=" + strProduct +
         "><combo=" + strCombo + "><end=1><msg=" + strMessage + ">";
}

std::shared_ptr<LinkRecord> MakeRecord(uint64_t u64DataId, const std::string& strMessage, const std::string& strProduct,
                                       const std::string& strCombo, int32_t iPriv, int32_t iMsgType) {
  auto pRecord = std::make_shared<LinkRecord>();
  pRecord->strText = MakeText(u64DataId, strMessage, strProduct, strCombo, iPriv, iMsgType);
  pRecord->i64ReceivedUs = 1700000000000000;
  if (!ParseTaggedText(pRecord->strText, pRecord->tags)) {
    throw std::logic_error("a test's record cannot be parsed");
  }
  return pRecord;
}

CTestDirectory::CTestDirectory() {
  std::string strTemplate = (std::filesystem::temp_directory_path() / "host_link_XXXXXX").string();
  if (mkdtemp(strTemplate.data()) == nullptr) {
    throw std::runtime_error("no temporary directory");
  }
  m_strPath = strTemplate;
}

CTestDirectory::~CTestDirectory() {
  std::error_code error;
  std::filesystem::remove_all(m_strPath, error);
}

std::string ReadWhole(const std::string& strPath) {
  std::ifstream stream(strPath, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

void WriteWhole(const std::string& strPath, const std::string& strBytes) {
  std::ofstream stream(strPath, std::ios::binary | std::ios::trunc);
  stream << strBytes;
}
