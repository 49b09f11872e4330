// Reception of JSON combo messages.
#include <cstring>
#include <string>

#include "message/receive.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/manager_fixture.h"

namespace {

struct Combo {
  int32_t iJsonDataType = 2;
  int32_t iPriv = 1;
  int32_t iDataSaveFlag = 0;
  std::string strProduct = "prod";
  std::string strCombo = "comb";
  uint32_t uDataLength = 0;
  std::string strData;
};

class ReceiveComboTest : public ManagerTest {
 protected:
  static std::string Payload(const Combo& combo) {
    std::string strPayload(148, '\0');
    memcpy(&strPayload[0], &combo.iJsonDataType, 4);
    memcpy(&strPayload[4], &combo.iPriv, 4);
    memcpy(&strPayload[8], &combo.iDataSaveFlag, 4);
    memset(&strPayload[12], 0xEE, 4);
    memcpy(&strPayload[16], combo.strProduct.data(), combo.strProduct.size());
    memcpy(&strPayload[80], combo.strCombo.data(), combo.strCombo.size());
    memcpy(&strPayload[144], &combo.uDataLength, 4);
    return strPayload + combo.strData;
  }
  // Gives the answer's code.
  uint32_t Deliver(const std::string& strPayload, long i64MsgType = 10300) {
    // A copy of exactly that size: an address sanitizer sees a read past its end.
    const std::vector<unsigned char> vecBytes(strPayload.begin(), strPayload.end());
    CLogCacheReceive::m_gReceive.ReceiveCallback(kSenderGuid, i64MsgType, vecBytes.data(),
                                                 static_cast<unsigned int>(vecBytes.size()), &m_iHandle,
                                                 static_cast<IComponentContext*>(&m_context));
    const std::vector<GivenReply> vecReplies = m_context.Replies();
    EXPECT_FALSE(vecReplies.empty());
    if (vecReplies.empty()) {
      return 0xFFFFFFFF;
    }
    const GivenReply& reply = vecReplies.back();
    EXPECT_EQ(reply.iRet == 0 ? "success" : "fail", reply.strText);
    EXPECT_EQ(i64MsgType, reply.i64MsgType);
    return static_cast<uint32_t>(reply.iRet);
  }
  std::string TextOf(unsigned long long u64DataId) {
    const _LogExecData* pRecord = m_dataPeer.Find(u64DataId);
    return pRecord == nullptr ? "no record" : std::string(pRecord->strData.View());
  }

  int m_iHandle = 0;
};

TEST_F(ReceiveComboTest, AcceptsAComboMessageOfExactlyHeaderPlusData) {
  Combo combo;
  combo.uDataLength = 5;
  combo.strData = "hello";
  EXPECT_EQ(0u, Deliver(Payload(combo)));
  EXPECT_EQ(
      "<version=1><dataid=6553f10000000001><priv=1><msgtype=2><guid=01234567-89AB-CDEF-0123-456789ABCDEF>"
      "<product=prod><combo=comb><end=1><msg=hello>",
      TextOf(kFirstDataId));
}

TEST_F(ReceiveComboTest, RejectsAComboMessageThatIsOneByteShort) {
  Combo combo;
  combo.uDataLength = 5;
  combo.strData = "hell";
  EXPECT_EQ(0xA0010003u, Deliver(Payload(combo)));
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, 3,
        "*qmlogcache step1 Error ReceiveCallback size i64MsgType[283c] "
        "stComponentID[01234567-89AB-CDEF-0123-456789ABCDEF] uiDataLength[152] recvSize[153] iJsonDataType[2] "
        "iPriv[1] szProduct[prod] szCombo[comb] uDataLength[5]"}}));
  EXPECT_EQ(0u, m_dataPeer.MapSize());
}

TEST_F(ReceiveComboTest, TakesTheAsynchronousTypeTheSame) {
  Combo combo;
  combo.uDataLength = 1;
  EXPECT_EQ(0xA0010003u, Deliver(Payload(combo), 20300));
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, 3,
        "*qmlogcache step1 Error ReceiveCallback size i64MsgType[4f4c] "
        "stComponentID[01234567-89AB-CDEF-0123-456789ABCDEF] uiDataLength[148] recvSize[149] iJsonDataType[2] "
        "iPriv[1] szProduct[prod] szCombo[comb] uDataLength[1]"}}));
  combo.strData = "x";
  EXPECT_EQ(0u, Deliver(Payload(combo), 20300));
  EXPECT_EQ(1u, m_dataPeer.MapSize());
}

TEST_F(ReceiveComboTest, AcceptsEmptyData) {
  EXPECT_EQ(0u, Deliver(Payload(Combo{})));
  const std::string strText = TextOf(kFirstDataId);
  EXPECT_EQ("<end=1><msg=>", strText.substr(strText.find("<end=1>")));
}

TEST_F(ReceiveComboTest, IgnoresBytesBeyondTheDeclaredLength) {
  Combo combo;
  combo.uDataLength = 2;
  combo.strData = "abXYZ";
  EXPECT_EQ(0u, Deliver(Payload(combo)));
  const std::string strText = TextOf(kFirstDataId);
  EXPECT_EQ("<end=1><msg=ab>", strText.substr(strText.find("<end=1>")));
}

TEST_F(ReceiveComboTest, DataWithAZeroByteIsCutInTheTaggedText) {
  Combo combo;
  combo.uDataLength = 5;
  combo.strData = std::string("ab\0cd", 5);
  EXPECT_EQ(0u, Deliver(Payload(combo)));
  const std::string strText = TextOf(kFirstDataId);
  EXPECT_EQ("<end=1><msg=ab>", strText.substr(strText.find("<end=1>")));
}

TEST_F(ReceiveComboTest, TakesPriorityAndKindFromTheHeader) {
  Combo combo;
  combo.iJsonDataType = 3;
  combo.iPriv = 13;
  EXPECT_EQ(0u, Deliver(Payload(combo)));
  const _LogExecData* pRecord = m_dataPeer.Find(kFirstDataId);
  ASSERT_NE(nullptr, pRecord);
  EXPECT_EQ(3, pRecord->iMsgType);
  EXPECT_EQ(13, pRecord->iPriv);
  EXPECT_STREQ("prod", pRecord->strProduct.c_str());
  EXPECT_STREQ("comb", pRecord->strCombo.c_str());
  EXPECT_EQ(1u, m_dataPeer.QueueCount(3));
}

TEST_F(ReceiveComboTest, OnlySaveFlagTwoKeepsARecordFromBeingSaved) {
  m_dataPeer.SetDataFlowFlag(1);
  const int32_t aFlags[] = {0, 1, 2, 3, -1};
  unsigned long long u64DataId = kFirstDataId;
  for (const int32_t iFlag : aFlags) {
    Combo combo;
    combo.iDataSaveFlag = iFlag;
    EXPECT_EQ(0u, Deliver(Payload(combo)));
    ASSERT_NE(nullptr, m_dataPeer.Find(u64DataId));
    EXPECT_EQ(iFlag == 2 ? 0 : 1, m_dataPeer.Find(u64DataId)->iDataSaveStatus) << iFlag;
    ++u64DataId;
  }
}

TEST_F(ReceiveComboTest, ANameWithoutATerminatorIsAllItsSixtyFourBytes) {
  Combo combo;
  combo.strProduct = std::string(64, 'p');
  combo.strCombo = std::string(64, 'c');
  EXPECT_EQ(0u, Deliver(Payload(combo)));
  const _LogExecData* pRecord = m_dataPeer.Find(kFirstDataId);
  ASSERT_NE(nullptr, pRecord);
  EXPECT_EQ(std::string(64, 'p'), pRecord->strProduct.c_str());
  EXPECT_EQ(std::string(64, 'c'), pRecord->strCombo.c_str());
}

TEST_F(ReceiveComboTest, RejectsALengthThatOverflowsAndPrintsItsLowBits) {
  Combo combo;
  combo.uDataLength = 0xFFFFFFFF;
  combo.strData = "abc";
  EXPECT_EQ(0xA0010003u, Deliver(Payload(combo)));
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, 3,
        "*qmlogcache step1 Error ReceiveCallback size i64MsgType[283c] "
        "stComponentID[01234567-89AB-CDEF-0123-456789ABCDEF] uiDataLength[151] recvSize[147] iJsonDataType[2] "
        "iPriv[1] szProduct[prod] szCombo[comb] uDataLength[4294967295]"}}));
  EXPECT_EQ(0u, m_dataPeer.MapSize());
}

TEST_F(ReceiveComboTest, RejectsAPayloadShorterThanTheHeaderWithMissingFieldsAsZero) {
  EXPECT_EQ(0xA0010003u, Deliver(std::string("\x07\x00\x00\x00\x0b", 5)));
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, 3,
        "*qmlogcache step1 Error ReceiveCallback size i64MsgType[283c] "
        "stComponentID[01234567-89AB-CDEF-0123-456789ABCDEF] uiDataLength[5] recvSize[148] iJsonDataType[7] "
        "iPriv[0] szProduct[] szCombo[] uDataLength[0]"}}));
}

TEST_F(ReceiveComboTest, RejectsEveryPayloadShorterThanTheHeader) {
  const std::string strPayload = Payload(Combo{});
  for (size_t uLength = 1; uLength < 148; ++uLength) {
    EXPECT_EQ(0xA0010003u, Deliver(strPayload.substr(0, uLength))) << uLength;
  }
  EXPECT_EQ(0u, m_dataPeer.MapSize());
}

TEST_F(ReceiveComboTest, RefusesANegativePriorityBeforeItMakesADataId) {
  Combo combo;
  combo.iPriv = -1;
  EXPECT_EQ(0xA0010005u, Deliver(Payload(combo)));
  EXPECT_EQ(0u, m_peer.SequenceId());
  EXPECT_EQ(0u, m_peer.Statistics().CountAll);
  EXPECT_EQ(0u, m_dataPeer.MapSize());
  ASSERT_EQ(1u, CLogCapture::Lines().size());
  EXPECT_EQ(3, CLogCapture::Lines()[0].iLevel);
}

TEST_F(ReceiveComboTest, AComboRecordWithoutAProductCountsUnderGuid) {
  Combo combo;
  combo.strProduct.clear();
  EXPECT_EQ(0u, Deliver(Payload(combo)));
  EXPECT_EQ(1u, m_peer.Statistics().CountGuid);
  EXPECT_EQ(0u, m_peer.Statistics().CountCombo);
}

TEST_F(ReceiveComboTest, WithoutMemoryForANameTheAnswerIsFailAndALineTells) {
  Combo combo;
  combo.uDataLength = 4;
  combo.strData = "data";
  const std::string strPayload = Payload(combo);
  for (const unsigned int uName : {1U, 2U}) {
    CLogCapture::Reset();
    {
      const CNthStringFault fault(uName);
      EXPECT_EQ(0xE0010003U, Deliver(strPayload));
      EXPECT_TRUE(fault.HasFailed());
    }
    EXPECT_TRUE(LoggedExactly({{kMainChannel, 3,
                                "*qmlogcache CLogCacheReceive::ReceiveCallback Error no memory i64MsgType[283c] "
                                "stComponentID[" +
                                    std::string(kSenderText) + "] uiDataLength[152]"}}));
    EXPECT_EQ(0u, m_dataPeer.MapSize());
  }
  EXPECT_EQ(0U, Deliver(strPayload));
}

}  // namespace
