#include "tools/qmsend/json_record.h"

#include <gtest/gtest.h>

#include <string>

#include "host/protocol/combo_payload.h"

namespace {

constexpr char kBegin[] = R"({"guid":"01234567-89ab-cdef-0123-456789abcdef",)";

bool Read(const std::string& strFields, JsonRecord& record) {
  return ReadJsonRecord(kBegin + strFields + "}", false, record);
}

TEST(JsonRecordTest, APlainRecordIsAMessageOfItsPriority) {
  JsonRecord record;
  ASSERT_TRUE(Read(R"("priv":12,"msgtype":2,"product":"","combo":"","message":"m\n\"")", record));
  EXPECT_EQ(record.uType, 10212U);
  EXPECT_EQ(record.strPayload, "m\n\"");
  EXPECT_EQ(record.sender.Data1, 0x01234567U);
}

TEST(JsonRecordTest, NamesStandForNumbers) {
  JsonRecord record;
  ASSERT_TRUE(Read(R"("priority":"real","public":true,"kind":"edr","message":"m")", record));
  EXPECT_EQ(record.uType, 10113U);
  ASSERT_TRUE(Read(R"("priority":"low","priv":3,"msgtype":1,"kind":"epp","message":"m")", record));
  EXPECT_EQ(record.uType, 10103U);  // numbers first
}

TEST(JsonRecordTest, WhatAPriorityMessageCannotSayIsAComboMessage) {
  const std::string strMessage = R"("message":"m")";
  for (const char* pszFields : {R"("priv":0,"msgtype":3,)", R"("priv":7,"msgtype":1,)",
                                R"("priv":0,"msgtype":1,"product":"p",)", R"("priv":0,"msgtype":1,"combo":"c",)"}) {
    JsonRecord record;
    ASSERT_TRUE(Read(pszFields + strMessage, record)) << pszFields;
    EXPECT_EQ(record.uType, 10300U);
    EXPECT_EQ(record.strPayload.size(), kComboHeaderSize + 1);
  }
  JsonRecord record;
  ASSERT_TRUE(Read(R"("priv":0,"msgtype":1,"message":"")", record));
  EXPECT_EQ(record.strPayload.size(), kComboHeaderSize);
}

TEST(JsonRecordTest, BytesComeAsBase64) {
  JsonRecord record;
  ASSERT_TRUE(Read(R"("priv":0,"msgtype":1,"message_base64":"//4A")", record));
  EXPECT_EQ(record.strPayload, std::string("\xff\xfe\0", 3));
  EXPECT_TRUE(record.bZeroByte);
  EXPECT_FALSE(Read(R"("priv":0,"msgtype":1,"message_base64":"!")", record));
}

TEST(JsonRecordTest, RefusesWhatIsNoRecord) {
  JsonRecord record;
  for (const char* pszLine : {"", "{}", "[]", "null", "x", "{\"guid\":1}", "\"guid\""}) {
    EXPECT_FALSE(ReadJsonRecord(pszLine, false, record)) << pszLine;
  }
  for (const char* pszFields :
       {R"("priv":0,"msgtype":1)", R"("priv":-1,"msgtype":1,"message":"m")", R"("priv":"0","msgtype":1,"message":"m")",
        R"("priv":4294967296,"msgtype":1,"message":"m")", R"("priv":1.5,"msgtype":1,"message":"m")",
        R"("priority":"urgent","msgtype":1,"message":"m")", R"("priv":0,"kind":"","message":"m")",
        R"("priv":0,"msgtype":1,"message":7)",
        // What may be missing has to be right when it is there.
        R"("priv":0,"msgtype":1,"message":"m","product":7)", R"("priv":0,"msgtype":1,"message":"m","product":null)",
        R"("priv":0,"msgtype":1,"message":"m","product_base64":"***")",
        R"("priv":0,"msgtype":1,"message":"m","combo":["c"])", R"("priv":0,"msgtype":1,"message":"m","combo_base64":1)",
        R"("priv":0,"msgtype":1,"message":"m","message_base64":"***")",
        R"("priority":"high","public":"yes","msgtype":1,"message":"m")",
        R"("priv":2,"public":1,"msgtype":1,"message":"m")", R"("priv":2,"priority":2,"msgtype":1,"message":"m")",
        R"("priv":2,"msgtype":1,"kind":1,"message":"m")"}) {
    EXPECT_FALSE(Read(pszFields, record)) << pszFields;
  }
  const std::string strLong(64, 'p');
  EXPECT_FALSE(Read(R"("priv":0,"msgtype":1,"message":"m","product":")" + strLong + "\"", record));
  EXPECT_FALSE(ReadJsonRecord(R"({"guid":"a name","priv":0,"msgtype":1,"message":"m"})", false, record));
  EXPECT_FALSE(ReadJsonRecord(R"({"guid":"01234567-89ab-cdef-0123-456789abcdef1","priv":0,"msgtype":1,"message":"m"})",
                              false, record));
  EXPECT_FALSE(ReadJsonRecord(std::string(100000, '['), false, record));
}

}  // namespace
