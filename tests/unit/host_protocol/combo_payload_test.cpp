#include "host/protocol/combo_payload.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

template <typename T>
T At(const std::string& strPayload, size_t uOffset) {
  T value;
  std::memcpy(&value, strPayload.data() + uOffset, sizeof(value));
  return value;
}

TEST(ComboPayloadTest, PutsEveryFieldAtItsPlace) {
  ComboHeader header;
  std::string strError;
  ASSERT_TRUE(MakeComboHeader({3, 12, kComboDoNotSave, "product", "combo"}, header, strError));
  std::string strPayload;
  const std::string strData("da\0ta", 5);
  AppendComboPayload(strPayload, header, strData);
  ASSERT_EQ(strPayload.size(), 148U + 5U);
  EXPECT_EQ(At<int32_t>(strPayload, 0), 3);
  EXPECT_EQ(At<int32_t>(strPayload, 4), 12);
  EXPECT_EQ(At<int32_t>(strPayload, 8), 2);
  EXPECT_EQ(At<uint32_t>(strPayload, 12), 0U);
  EXPECT_EQ(strPayload.substr(16, 64), "product" + std::string(57, '\0'));
  EXPECT_EQ(strPayload.substr(80, 64), "combo" + std::string(59, '\0'));
  EXPECT_EQ(At<uint32_t>(strPayload, 144), 5U);
  EXPECT_EQ(strPayload.substr(148), strData);
}

TEST(ComboPayloadTest, ALongestNameKeepsItsTerminator) {
  ComboHeader header;
  std::string strError;
  const std::string strLongest(63, 'n');
  ASSERT_TRUE(MakeComboHeader({1, 0, 0, strLongest, strLongest}, header, strError));
  EXPECT_EQ(header[16 + 62], 'n');
  EXPECT_EQ(header[16 + 63], '\0');
  EXPECT_EQ(header[80 + 62], 'n');
  EXPECT_EQ(header[80 + 63], '\0');
}

TEST(ComboPayloadTest, ANameThatIsTooLongIsAnErrorAndNotCut) {
  ComboHeader header;
  std::string strError;
  const std::string strTooLong(64, 'n');
  EXPECT_FALSE(MakeComboHeader({1, 0, 0, strTooLong, ""}, header, strError));
  EXPECT_NE(strError.find("product"), std::string::npos);
  EXPECT_FALSE(MakeComboHeader({1, 0, 0, "", strTooLong}, header, strError));
  EXPECT_NE(strError.find("combo"), std::string::npos);
}

TEST(ComboPayloadTest, ANameWithAZeroByteIsAnError) {
  ComboHeader header;
  std::string strError;
  EXPECT_FALSE(MakeComboHeader({1, 0, 0, std::string_view("a\0b", 3), ""}, header, strError));
}

TEST(ComboPayloadTest, AHeaderServesManyRecords) {
  ComboHeader header;
  std::string strError;
  ASSERT_TRUE(MakeComboHeader({1, 0, 0, "p", ""}, header, strError));
  std::string strPayload;
  AppendComboPayload(strPayload, header, "first");
  AppendComboPayload(strPayload, header, "");
  ASSERT_EQ(strPayload.size(), 148U + 5U + 148U);
  EXPECT_EQ(At<uint32_t>(strPayload, 153 + 144), 0U);
}

}  // namespace
