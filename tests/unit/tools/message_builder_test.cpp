#include "client/core/message_builder.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

int32_t IntAt(const std::string& strPayload, size_t uOffset) {
  int32_t iValue = 0;
  std::memcpy(&iValue, strPayload.data() + uOffset, sizeof(iValue));
  return iValue;
}

uint32_t TypeOf(RecordKind kind, RecordPriority priority, bool bPublic) {
  CMessageBuilder builder;
  std::string strError;
  MessageOptions options;
  options.kind = kind;
  options.priority = priority;
  options.bPublic = bPublic;
  EXPECT_TRUE(builder.Configure(options, strError)) << strError;
  return builder.Type();
}

TEST(MessageBuilderTest, PlainRecordsArePriorityMessages) {
  EXPECT_EQ(TypeOf(RecordKind::Edr, RecordPriority::Low, false), 10100U);
  EXPECT_EQ(TypeOf(RecordKind::Edr, RecordPriority::Normal, false), 10101U);
  EXPECT_EQ(TypeOf(RecordKind::Edr, RecordPriority::Real, false), 10103U);
  EXPECT_EQ(TypeOf(RecordKind::Edr, RecordPriority::High, true), 10112U);
  EXPECT_EQ(TypeOf(RecordKind::Epp, RecordPriority::High, false), 10202U);
  EXPECT_EQ(TypeOf(RecordKind::Epp, RecordPriority::Low, true), 10210U);
}

TEST(MessageBuilderTest, APriorityMessageIsTheRecordAlone) {
  CMessageBuilder builder;
  std::string strError;
  ASSERT_TRUE(builder.Configure({}, strError));
  std::string strPayload = "left over from before";
  builder.Build("record", strPayload);
  EXPECT_EQ(strPayload, "record");
  EXPECT_EQ(builder.Overhead(), 0U);
}

TEST(MessageBuilderTest, ProductComboNoSaveAndTagsMakeComboMessages) {
  std::vector<MessageOptions> vecOptions(4);
  vecOptions[0].strProduct = "p";
  vecOptions[1].strCombo = "c";
  vecOptions[2].bNoSave = true;
  vecOptions[3].kind = RecordKind::Tag;
  for (const MessageOptions& options : vecOptions) {
    CMessageBuilder builder;
    std::string strError;
    ASSERT_TRUE(builder.Configure(options, strError));
    EXPECT_EQ(builder.Type(), 10300U);
    EXPECT_EQ(builder.Overhead(), kComboHeaderSize);
    std::string strPayload = "left over from before";
    builder.Build("data", strPayload);
    ASSERT_EQ(strPayload.size(), kComboHeaderSize + 4);
    EXPECT_EQ(IntAt(strPayload, 0), static_cast<int32_t>(options.kind));
    EXPECT_EQ(IntAt(strPayload, 4), 1);
    EXPECT_EQ(IntAt(strPayload, 8), options.bNoSave ? 2 : 0);
    EXPECT_STREQ(strPayload.data() + 16, options.strProduct.c_str());
    EXPECT_STREQ(strPayload.data() + 80, options.strCombo.c_str());
    EXPECT_EQ(strPayload.substr(kComboHeaderSize), "data");
  }
}

TEST(MessageBuilderTest, PublicComboRecordsHaveTenMore) {
  MessageOptions options;
  options.kind = RecordKind::Tag;
  options.priority = RecordPriority::Real;
  options.bPublic = true;
  CMessageBuilder builder;
  std::string strError;
  ASSERT_TRUE(builder.Configure(options, strError));
  std::string strPayload;
  builder.Build("x", strPayload);
  EXPECT_EQ(IntAt(strPayload, 0), 3);
  EXPECT_EQ(IntAt(strPayload, 4), 13);
}

TEST(MessageBuilderTest, ANameThatIsTooLongIsAnError) {
  MessageOptions options;
  options.strCombo = std::string(64, 'c');
  CMessageBuilder builder;
  std::string strError;
  EXPECT_FALSE(builder.Configure(options, strError));
  EXPECT_NE(strError.find("63"), std::string::npos);
}

}  // namespace
