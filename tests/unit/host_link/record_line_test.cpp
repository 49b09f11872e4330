#include "host/link/record_line.h"

#include <gtest/gtest.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "host/link/json_text.h"
#include "link_test_support.h"

namespace {

using Json = nlohmann::ordered_json;

Json LineOf(const LinkRecord& record) {
  CRecordLine line;
  std::string strLine;
  line.Append(strLine, record);
  EXPECT_TRUE(strLine.ends_with('\n'));
  EXPECT_EQ(strLine.find('\n'), strLine.size() - 1);
  return Json::parse(strLine);
}

TEST(RecordLineTest, WritesAllFieldsInTheirOrder) {
  const auto pRecord = MakeRecord(0x68a1b2c300000001U, "data", "prod", "combo", 12, 1);
  pRecord->i64ReceivedUs = 1700000000000042;
  CRecordLine line;
  std::string strLine;
  line.Append(strLine, *pRecord);
  EXPECT_EQ(strLine,
            "{\"dataid\":\"68a1b2c300000001\",\"priority\":\"high\",\"public\":true,\"kind\":\"edr\",\"priv\":12,"
            "\"msgtype\":1,\"guid\":\"5D3B1A07-8E24-4C91-B6F0-2A7C9E41D358\",\"product\":\"prod\",\"combo\":\"combo\","
            "\"message\":\"data\",\"time_received\":\"2023-11-14T22:13:20.000042Z\"}\n");
}

TEST(RecordLineTest, NamesPriorityPrivacyAndKind) {
  struct Case {
    int32_t iPriv, iMsgType;
    const char* pszPriority;
    bool bPublic;
    const char* pszKind;
  };
  for (const Case& entry : std::vector<Case>{{0, 1, "low", false, "edr"},
                                             {1, 2, "normal", false, "epp"},
                                             {2, 3, "high", false, "tag"},
                                             {3, 0, "real", false, "other"},
                                             {10, 4, "low", true, "other"},
                                             {11, -1, "normal", true, "other"},
                                             {12, 1, "high", true, "edr"},
                                             {13, 1, "real", true, "edr"},
                                             {4, 1, "other", false, "edr"},
                                             {9, 1, "other", false, "edr"},
                                             {14, 1, "other", true, "edr"},
                                             {20, 1, "other", true, "edr"},
                                             {-1, 1, "other", false, "edr"}}) {
    const Json json = LineOf(*MakeRecord(1, "d", "", "", entry.iPriv, entry.iMsgType));
    EXPECT_EQ(json["priority"], entry.pszPriority) << entry.iPriv;
    EXPECT_EQ(json["public"], entry.bPublic) << entry.iPriv;
    EXPECT_EQ(json["kind"], entry.pszKind) << entry.iMsgType;
    EXPECT_EQ(json["priv"], entry.iPriv);
    EXPECT_EQ(json["msgtype"], entry.iMsgType);
  }
}

TEST(RecordLineTest, CarriesEveryUtf8TextThroughJson) {
  std::vector<std::string> vecTexts = {"",
                                       "\"\\/\b\f\n\r\t",
                                       std::string("a\0b\0", 4),
                                       "\xc2\x80 \xdf\xbf \xe0\xa0\x80 \xed\x9f\xbf \xee\x80\x80 \xef\xbf\xbf",
                                       "\xf0\x90\x80\x80 \xf4\x8f\xbf\xbf",
                                       "\xe2\x80\xa8 \xe2\x80\xa9 \xef\xbb\xbf \xe2\x80\xae",
                                       "</script><!-- ' OR 1=1; -- ${x} %s%n",
                                       std::string(4095, 'x') + "\xc3\xa9\"" + std::string(9000, '\\')};
  std::string strControls;
  for (char c = 0; c < 0x20; ++c) {
    strControls += c;
  }
  vecTexts.push_back(strControls + "\x7f");
  for (const auto& strText : vecTexts) {
    const Json json = LineOf(*MakeRecord(1, strText));
    ASSERT_TRUE(json.contains("message")) << strText;
    EXPECT_EQ(json["message"].get<std::string>(), strText);
  }
}

TEST(RecordLineTest, FindsTheOneSpecialByteWhereverItStands) {
  for (const size_t uLength : {1U, 7U, 8U, 9U, 17U}) {
    for (size_t uAt = 0; uAt < uLength; ++uAt) {
      for (int iByte = 0; iByte < 0x80; ++iByte) {
        for (const char cOther : {' ', '!', '#', '[', '~'}) {
          std::string strText(uLength, cOther);
          strText[uAt] = static_cast<char>(iByte);
          CJsonText text;
          std::string strField = "{";
          text.AppendField(strField, "f", strText);
          ASSERT_EQ(Json::parse(strField + "}")["f"].get<std::string>(), strText) << iByte << " at " << uAt;
        }
      }
    }
  }
  for (int iByte = 0x80; iByte <= 0xff; ++iByte) {
    CJsonText text;
    std::string strField;
    text.AppendField(strField, "f", std::string(12, 'x') + static_cast<char>(iByte));
    EXPECT_TRUE(strField.starts_with("\"f_base64\":")) << iByte;
  }
}

// The oracle is another library's check.
TEST(RecordLineTest, AgreesWithAnotherLibraryOnWhatIsUtf8) {
  const auto bValid = [](const std::string& strText) {
    try {
      return !Json(strText).dump().empty();
    } catch (const Json::type_error&) {
      return false;
    }
  };
  const unsigned char acEdges[] = {0x00, 0x41, 0x7f, 0x80, 0x8f, 0x90, 0x9f, 0xa0, 0xbf, 0xc0, 0xc1, 0xc2, 0xdf, 0xe0,
                                   0xe1, 0xec, 0xed, 0xee, 0xef, 0xf0, 0xf1, 0xf3, 0xf4, 0xf5, 0xf8, 0xfe, 0xff};
  size_t uValid = 0;
  for (const unsigned char a : acEdges) {
    for (const unsigned char b : acEdges) {
      for (const unsigned char c : acEdges) {
        for (const unsigned char d : {0x41, 0x80, 0xbf, 0xc2}) {
          const std::string strText = {static_cast<char>(a), static_cast<char>(b), static_cast<char>(c),
                                       static_cast<char>(d)};
          for (size_t uLength = 1; uLength <= 4; ++uLength) {
            const std::string strPart = strText.substr(0, uLength);
            ASSERT_EQ(IsUtf8(strPart), bValid(strPart)) << Json::binary({strPart.begin(), strPart.end()}).dump();
            uValid += IsUtf8(strPart) ? 1 : 0;
          }
        }
      }
    }
  }
  EXPECT_GT(uValid, 100U);
}

TEST(RecordLineTest, CarriesOtherBytesAsBase64UnderAnotherName) {
  const auto pRecord = MakeRecord(1, "\xff\x00", "p\xc0", "\xed\xa0\x80");
  const Json json = LineOf(*pRecord);
  EXPECT_FALSE(json.contains("message"));
  EXPECT_EQ(json["message_base64"], "/w==");
  EXPECT_EQ(json["product_base64"], "cMA=");
  EXPECT_EQ(json["combo_base64"], "7aCA");
  EXPECT_EQ(json["guid"], kTestGuid);
}

TEST(RecordLineTest, EncodesLongBytesInOnePiece) {
  std::string strBytes(2000003, 'a');
  strBytes.back() = '\xff';
  const std::string strText = LineOf(*MakeRecord(1, strBytes))["message_base64"];
  EXPECT_EQ(strText.size(), (strBytes.size() + 2) / 3 * 4);
  EXPECT_EQ(strText.find('='), strText.size() - 1);
  EXPECT_EQ(strText.substr(0, 8), "YWFhYWFh");
  EXPECT_EQ(strText.substr(strText.size() - 4), "Yf8=");
}

TEST(RecordLineTest, WritesTimesBeforeTheEpochAndAcrossSeconds) {
  const auto pRecord = MakeRecord(1, "d");
  CRecordLine line;
  const auto strTime = [&](int64_t i64Us) {
    pRecord->i64ReceivedUs = i64Us;
    std::string strLine;
    line.Append(strLine, *pRecord);
    return Json::parse(strLine)["time_received"].get<std::string>();
  };
  EXPECT_EQ(strTime(0), "1970-01-01T00:00:00.000000Z");
  EXPECT_EQ(strTime(999999), "1970-01-01T00:00:00.999999Z");
  EXPECT_EQ(strTime(1000000), "1970-01-01T00:00:01.000000Z");
  EXPECT_EQ(strTime(-1), "1969-12-31T23:59:59.999999Z");
  EXPECT_EQ(strTime(1709251199123456), "2024-02-29T23:59:59.123456Z");
}

}  // namespace
