#include "host/protocol/record_priority.h"

#include <gtest/gtest.h>

#include <string>

#include "host/protocol/combo_payload.h"

namespace {

size_t OfType(uint32_t uType) {
  return PriorityOfMessage(uType, nullptr, 0);
}

size_t OfCombo(int32_t iPriv) {
  ComboHeader header{};
  std::string strError;
  ComboFields fields;
  fields.iPriv = iPriv;
  EXPECT_TRUE(MakeComboHeader(fields, header, strError)) << strError;
  std::string strPayload;
  AppendComboPayload(strPayload, header, "data");
  return PriorityOfMessage(10300, reinterpret_cast<const uint8_t*>(strPayload.data()),
                           static_cast<uint32_t>(strPayload.size()));
}

TEST(RecordPriorityTest, ReadsItFromTheType) {
  for (const uint32_t uBase : {10100U, 10110U, 10200U, 10210U}) {
    for (uint32_t uPriority = 0; uPriority < 4; ++uPriority) {
      EXPECT_EQ(OfType(uBase + uPriority), uPriority);
    }
  }
}

TEST(RecordPriorityTest, ReadsItFromAComboHeader) {
  EXPECT_EQ(OfCombo(0), 0U);
  EXPECT_EQ(OfCombo(3), 3U);
  EXPECT_EQ(OfCombo(12), 2U);
  for (const int32_t iOdd : {4, 9, 14, 20, -1, INT32_MIN, INT32_MAX}) {
    EXPECT_EQ(OfCombo(iOdd), kPriorityOther) << iOdd;
  }
}

TEST(RecordPriorityTest, AComboWithoutAWholeHeaderIsOfNoPriority) {
  const std::string strShort(kComboHeaderSize - 1, '\0');
  EXPECT_EQ(PriorityOfMessage(10300, reinterpret_cast<const uint8_t*>(strShort.data()),
                              static_cast<uint32_t>(strShort.size())),
            kPriorityOther);
  EXPECT_EQ(PriorityOfMessage(20300, nullptr, 0), kPriorityOther);
}

TEST(RecordPriorityTest, OtherTypesAreNoRecords) {
  for (const uint32_t uType : {0U, 1000U, 10099U, 10114U, 10199U, 10214U, 20003U, UINT32_MAX}) {
    EXPECT_EQ(OfType(uType), kNotARecord) << uType;
  }
}

}  // namespace
