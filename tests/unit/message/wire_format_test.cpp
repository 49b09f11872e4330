#include "message/wire_format.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

std::vector<unsigned char> NumberedBytes(size_t uCount) {
  std::vector<unsigned char> vecBytes(uCount);
  for (size_t i = 0; i < uCount; ++i) {
    vecBytes[i] = static_cast<unsigned char>(i + 1);
  }
  return vecBytes;
}

TEST(WireFormatTest, ReadsTheComboHeadersFieldsAtTheirOffsets) {
  std::vector<unsigned char> vecBytes(148);
  vecBytes[0] = 0x04;  // little-endian
  vecBytes[1] = 0x03;
  vecBytes[4] = 0xFF;
  vecBytes[5] = 0xFF;
  vecBytes[6] = 0xFF;
  vecBytes[7] = 0xFF;
  vecBytes[8] = 0x02;
  vecBytes[12] = 0xEE;  // reserved
  vecBytes[16] = 'p';
  vecBytes[80] = 'c';
  vecBytes[144] = 0x10;
  vecBytes[147] = 0x80;
  const ComboHeader header = DecodeComboHeader(vecBytes.data(), 148);
  EXPECT_EQ(0x0304, header.iJsonDataType);
  EXPECT_EQ(-1, header.iPriv);
  EXPECT_EQ(2, header.iDataSaveFlag);
  EXPECT_EQ("p", header.svProduct);
  EXPECT_EQ("c", header.svCombo);
  EXPECT_EQ(0x80000010u, header.uDataLength);
}

TEST(WireFormatTest, ANameWithoutATerminatorIsAllItsSixtyFourBytes) {
  std::vector<unsigned char> vecBytes(148, 'x');
  const ComboHeader header = DecodeComboHeader(vecBytes.data(), 148);
  EXPECT_EQ(std::string(64, 'x'), header.svProduct);
  EXPECT_EQ(std::string(64, 'x'), header.svCombo);
}

TEST(WireFormatTest, FieldsThatWereNotReceivedAreZeroOrEmpty) {
  // Exactly as long as it says: an address sanitizer sees a read past the end.
  for (uint32_t uLength = 0; uLength < 148; ++uLength) {
    const std::vector<unsigned char> vecBytes = NumberedBytes(uLength);
    const ComboHeader header = DecodeComboHeader(vecBytes.data(), uLength);
    EXPECT_EQ(0u, header.uDataLength) << uLength;
    if (uLength < 4) {
      EXPECT_EQ(0, header.iJsonDataType) << uLength;
    } else {
      EXPECT_EQ(0x04030201, header.iJsonDataType) << uLength;
    }
    if (uLength < 8) {
      EXPECT_EQ(0, header.iPriv) << uLength;
    }
    if (uLength <= 16) {
      EXPECT_TRUE(header.svProduct.empty()) << uLength;
    }
    if (uLength <= 80) {
      EXPECT_TRUE(header.svCombo.empty()) << uLength;
    }
  }
}

TEST(WireFormatTest, ReadsTheResultAndTheDataId) {
  const std::vector<unsigned char> vecBytes = NumberedBytes(32);
  const ResultMessage result = DecodeResultMessage(vecBytes.data());
  EXPECT_EQ(0x08070605u, result.dwResult);
  EXPECT_EQ(0x100F0E0D0C0B0A09ULL, result.u64DataId);
}

}  // namespace
