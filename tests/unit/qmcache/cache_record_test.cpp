#include "tools/qmcache/cache_record.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr char kSender[] = "11111111-1111-1111-1111-111111111111";
constexpr int64_t kId = 0x5000000000000001;

CacheRecord SomeRecord() {
  return {static_cast<uint64_t>(kId), 12, 2, kSender, "product", "combo", "message"};
}

StoredRow RowOf(const CacheRecord& record) {
  return {kId,
          kId,
          record.iPriv,
          record.iMsgType,
          record.strProduct,
          record.strCombo,
          0,
          TaggedHead(record) + record.strMessage + ">"};
}

TEST(CacheRecordTest, ARowIsDecoded) {
  const DecodedRow decoded = DecodeRow(RowOf(SomeRecord()), kSender);
  ASSERT_TRUE(decoded.record.has_value());
  EXPECT_TRUE(decoded.vecFaults.empty());
  EXPECT_EQ(decoded.record->u64DataId, static_cast<uint64_t>(kId));
  EXPECT_EQ(decoded.record->iPriv, 12);
  EXPECT_EQ(decoded.record->iMsgType, 2);
  EXPECT_EQ(decoded.record->strGuid, kSender);
  EXPECT_EQ(decoded.record->strMessage, "message");
}

TEST(CacheRecordTest, NamesThatHoldTagsAreTheRowsOwn) {
  CacheRecord record = SomeRecord();
  record.strProduct = "a><combo=b";
  record.strCombo = "c><end=1><msg=d";
  record.strMessage = "><end=1><msg=>>";
  const DecodedRow decoded = DecodeRow(RowOf(record), kSender);
  ASSERT_TRUE(decoded.record.has_value());
  EXPECT_TRUE(decoded.vecFaults.empty());
  EXPECT_EQ(decoded.record->strProduct, record.strProduct);
  EXPECT_EQ(decoded.record->strCombo, record.strCombo);
  EXPECT_EQ(decoded.record->strMessage, record.strMessage);
}

TEST(CacheRecordTest, Base64IsUndone) {
  StoredRow row = RowOf(SomeRecord());
  row.dataType = 1;
  row.data = "!";
  EXPECT_FALSE(DecodeRow(row, kSender).record.has_value());
  // "<version=1><dataid=1><priv=0><msgtype=1><guid=" and so on, of a record without names and text.
  row = {
      1,
      1,
      0,
      1,
      "",
      "",
      1,
      "PHZlcnNpb249MT48ZGF0YWlkPTE+PHByaXY9MD48bXNndHlwZT0xPjxndWlkPTExMTExMTExLTExMTEtMTExMS0xMTExLTExMTExMTExMTExMT48"
      "cHJvZHVjdD48Y29tYm89PjxlbmQ9MT48bXNnPT4="};
  EXPECT_FALSE(DecodeRow(row, kSender).record.has_value());  // a product without its sign
}

TEST(CacheRecordTest, WithoutATextOfItsOwnIdARowHoldsNoRecord) {
  StoredRow row = RowOf(SomeRecord());
  row.i64RowId = kId + 1;
  const DecodedRow decoded = DecodeRow(row, kSender);
  EXPECT_FALSE(decoded.record.has_value());
  EXPECT_EQ(decoded.vecFaults.size(), 2U);
}

TEST(CacheRecordTest, ContradictionsAreTold) {
  StoredRow row = RowOf(SomeRecord());
  row.priv = 1;
  row.msgType = 1;
  row.combo = "other";
  const DecodedRow decoded = DecodeRow(row, "22222222-2222-2222-2222-222222222222");
  ASSERT_TRUE(decoded.record.has_value());
  EXPECT_EQ(decoded.vecFaults.size(), 4U);
  EXPECT_EQ(decoded.record->iPriv, 12);  // what is sent counts
}

TEST(CacheRecordTest, DataIdsAreHexadecimal) {
  uint64_t u64 = 0;
  EXPECT_TRUE(ReadDataId("ffffffffffffffff", u64));
  EXPECT_EQ(u64, ~uint64_t{0});
  EXPECT_TRUE(ReadDataId("0x1A", u64));
  EXPECT_EQ(DataIdText(u64), "1a");
  for (const char* pszText : {"", "0x", "g", "1 ", "-1", "10000000000000000"}) {
    EXPECT_FALSE(ReadDataId(pszText, u64)) << pszText;
  }
}

TEST(CacheRecordTest, OnlyAFilesOwnNameIsASendersId) {
  EXPECT_TRUE(IsSenderId("ABCDEF01-1111-1111-1111-111111111111"));
  for (const char* pszText : {"", "abcdef01-1111-1111-1111-111111111111", "../../../etc/passwd/................",
                              "{ABCDEF01-1111-1111-1111-111111111111}", "ABCDEF01-1111-1111-1111-11111111111"}) {
    EXPECT_FALSE(IsSenderId(pszText)) << pszText;
  }
}

}  // namespace
