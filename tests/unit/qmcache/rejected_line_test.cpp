#include "tools/qmcache/rejected_line.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/log_escape.h"

namespace {

constexpr char kGuid[] = "11111111-1111-1111-1111-111111111111";

CacheRecord SomeRecord(const std::string& strProduct, const std::string& strCombo, const std::string& strMessage) {
  return {0x5000000000000001, 13, 3, kGuid, strProduct, strCombo, strMessage};
}

std::string Settled(const CacheRecord& record) {
  std::string strLine = "2026-01-31T12:00:00.123456Z 12 34 L3 ";
  AppendEscapedLogText(
      "*qmlogcache step3 Error ResultExecData result[1a6] StartTime[5] ReSendCount[0] ui64ACT[0] "
      "u64DataId[5000000000000001] iPriv[13] iMsgType[3] iDataSaveStatus[2] strPluginId[" +
          std::string(kGuid) + "] strProduct[" + record.strProduct + "] strCombo[" + record.strCombo + "] strData[" +
          TaggedHead(record) + record.strMessage + ">]",
      &strLine);
  return strLine;
}

TEST(RejectedLineTest, ASettledRecordIsReadWhole) {
  RejectedRecord out;
  const CacheRecord record = SomeRecord("p", "c", "line\nbreak \\ \x01 \xff ]");
  ASSERT_EQ(ParseRejectedLine(Settled(record), out), RejectedLine::Record);
  EXPECT_EQ(out.strResult, "0x1a6");
  EXPECT_EQ(out.strTime, "2026-01-31T12:00:00.123456Z");
  EXPECT_EQ(out.i64Second, 1769860800);
  EXPECT_EQ(out.record.u64DataId, record.u64DataId);
  EXPECT_EQ(out.record.iPriv, 13);
  EXPECT_EQ(out.record.iMsgType, 3);
  EXPECT_EQ(out.record.strGuid, kGuid);
  EXPECT_EQ(out.record.strMessage, record.strMessage);
}

TEST(RejectedLineTest, ARecordThatTheRouterRefusedIsReadToo) {
  const CacheRecord record = SomeRecord("p", "c", "m");
  RejectedRecord out;
  ASSERT_EQ(
      ParseRejectedLine("2026-01-31T12:00:00.123456Z 12 34 L3 *qmlogcache step2 Error RunExecData lRefCount[3] "
                        "iRet[e0010002] i64MsgType[4e22] u64DataId[5000000000000001] iPriv[13] iMsgType[3] "
                        "strPluginId[" +
                            std::string(kGuid) + "] strProduct[p] strCombo[c] strData[" + TaggedHead(record) + "m>]",
                        out),
      RejectedLine::Record);
  EXPECT_EQ(out.strResult, "0xe0010002");
  EXPECT_EQ(out.record.strMessage, "m");
}

TEST(RejectedLineTest, NamesAndTextsThatLookLikeFieldsAreToldApart) {
  for (const char* pszName :
       {"", "]", "] strCombo[", "] strData[", "] strProduct[x] strCombo[", "a] strData[<version=1>"}) {
    for (const char* pszText : {"", "]", ">]", "] strData[x]", "] strCombo[] strData[<version=1><dataid=1>]"}) {
      const CacheRecord record = SomeRecord(pszName, pszName, pszText);
      RejectedRecord out;
      ASSERT_EQ(ParseRejectedLine(Settled(record), out), RejectedLine::Record) << pszName << pszText;
      EXPECT_EQ(out.record.strProduct, pszName);
      EXPECT_EQ(out.record.strCombo, pszName);
      EXPECT_EQ(out.record.strMessage, pszText);
    }
  }
}

TEST(RejectedLineTest, EveryBeginningOfALineIsNoRecord) {
  const std::string strLine = Settled(SomeRecord("p", "c", "message"));
  RejectedRecord out;
  for (size_t uLength = 0; uLength < strLine.size(); ++uLength) {
    EXPECT_NE(ParseRejectedLine(std::string_view(strLine).substr(0, uLength), out), RejectedLine::Record) << uLength;
  }
}

TEST(RejectedLineTest, OtherLinesAreNone) {
  RejectedRecord out;
  for (const char* pszLine :
       {"", " ", "    ", "2026-01-31T12:00:00.123456Z 1 2 L3 qmlog lost[3] lines",
        "2026-01-31T12:00:00.123456Z 1 2 L3 *qmlogcache step3 Error ResultExecData DeleteDataAction"}) {
    EXPECT_EQ(ParseRejectedLine(pszLine, out), RejectedLine::Other) << pszLine;
  }
}

}  // namespace
