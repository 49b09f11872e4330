// What goes into a request, and its bytes.
#include <gtest/gtest.h>
#include <zlib.h>

#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <sstream>
#include <vector>

#include "host/link/http/batch_body.h"
#include "host/link/http/batch_queue.h"
#include "tests/unit/host_link/link_test_support.h"

namespace {

constexpr char kAgent[] = "0123abcd-0000-4000-8000-00000000000a";
using Ids = std::vector<uint64_t>;

LinkRecordList Records(uint64_t u64First, uint64_t u64Last, const std::string& strMessage = "data") {
  LinkRecordList vecRecords;
  for (uint64_t i = u64First; i <= u64Last; ++i) {
    vecRecords.push_back(MakeRecord(i, strMessage));
  }
  return vecRecords;
}

Ids IdsOf(const LinkRecordList& vecRecords) {
  Ids vecIds;
  for (const auto& pRecord : vecRecords) {
    vecIds.push_back(pRecord->tags.u64DataId);
  }
  return vecIds;
}

Ids Range(uint64_t u64First, uint64_t u64Last) {
  Ids vecIds;
  for (uint64_t i = u64First; i <= u64Last; ++i) {
    vecIds.push_back(i);
  }
  return vecIds;
}

TEST(BatchQueueTest, ABatchHoldsAtMost64RecordsInTheOrderOfArrival) {
  CBatchQueue queue(1U << 20);
  EXPECT_TRUE(queue.IsEmpty());
  EXPECT_FALSE(queue.HasFullBatch());
  queue.Add(Records(1, 63));
  EXPECT_FALSE(queue.HasFullBatch());
  EXPECT_EQ(queue.CountMissing(), 1U);
  queue.Add(Records(64, 130));
  EXPECT_TRUE(queue.HasFullBatch());
  EXPECT_EQ(IdsOf(queue.TakeNext().vecRecords), Range(1, 64));
  EXPECT_TRUE(queue.HasFullBatch());
  EXPECT_EQ(IdsOf(queue.TakeNext().vecRecords), Range(65, 128));
  EXPECT_FALSE(queue.HasFullBatch());
  EXPECT_EQ(queue.CountMissing(), 62U);
  EXPECT_EQ(IdsOf(queue.TakeNext().vecRecords), Range(129, 130));
  EXPECT_TRUE(queue.IsEmpty());
}

TEST(BatchQueueTest, ABatchHoldsAtMostSoManyBytesOrOneRecord) {
  const size_t uSize = MakeRecord(1, "data")->strText.size();
  CBatchQueue queue(3 * uSize);
  queue.Add(Records(1, 2));
  EXPECT_FALSE(queue.HasFullBatch());
  queue.Add(Records(3, 4));
  queue.Add(Records(5, 6, std::string(10 * uSize, 'x')));
  EXPECT_TRUE(queue.HasFullBatch());
  EXPECT_EQ(IdsOf(queue.TakeNext().vecRecords), Range(1, 3));
  EXPECT_TRUE(queue.HasFullBatch());
  EXPECT_EQ(IdsOf(queue.TakeNext().vecRecords), Range(4, 4));
  EXPECT_EQ(IdsOf(queue.TakeNext().vecRecords), Range(5, 5));
  EXPECT_TRUE(queue.HasFullBatch());
  EXPECT_EQ(IdsOf(queue.TakeNext().vecRecords), Range(6, 6));
}

TEST(BatchQueueTest, HalvesGoOutFirstAndKeepWhatIsKnownOfTheWhole) {
  CBatchQueue queue(1U << 20);
  queue.Add(Records(1, 9));
  HttpBatch batch;
  batch.vecRecords = Records(11, 15);
  batch.firstRefusedAfter = 7;
  queue.AddHalvesFirst(batch);
  EXPECT_TRUE(batch.vecRecords.empty());
  EXPECT_TRUE(queue.HasFullBatch());
  HttpBatch first = queue.TakeNext();
  EXPECT_EQ(IdsOf(first.vecRecords), Range(11, 13));
  EXPECT_EQ(first.firstRefusedAfter, 7U);
  queue.AddHalvesFirst(first);
  EXPECT_EQ(IdsOf(queue.TakeNext().vecRecords), Range(11, 12));
  EXPECT_EQ(IdsOf(queue.TakeNext().vecRecords), Range(13, 13));
  const HttpBatch second = queue.TakeNext();
  EXPECT_EQ(IdsOf(second.vecRecords), Range(14, 15));
  EXPECT_EQ(second.firstRefusedAfter, 7U);
  EXPECT_FALSE(queue.HasFullBatch());
  EXPECT_EQ(IdsOf(queue.TakeNext().vecRecords), Range(1, 9));
}

TEST(BatchQueueTest, WhatIsPutAsideComesBackOnceALaterRequestWasAccepted) {
  CBatchQueue queue(1U << 20);
  for (uint64_t i = 1; i <= 3; ++i) {
    HttpBatch batch;
    batch.vecRecords = Records(i, i);
    batch.refusedAfter = 10 * i;
    queue.PutAside(batch);
    EXPECT_TRUE(batch.vecRecords.empty());
  }
  EXPECT_TRUE(queue.IsEmpty());
  EXPECT_FALSE(queue.HasFullBatch());
  EXPECT_EQ(queue.CountAside(), 3U);
  queue.BringBack(10);
  EXPECT_EQ(queue.CountAside(), 3U);
  queue.Add(Records(7, 8));
  queue.BringBack(21);
  EXPECT_EQ(queue.CountAside(), 1U);
  Ids vecIds = IdsOf(queue.TakeNext().vecRecords);
  const HttpBatch second = queue.TakeNext();
  EXPECT_TRUE(second.refusedAfter);
  vecIds.push_back(second.vecRecords.at(0)->tags.u64DataId);
  std::sort(vecIds.begin(), vecIds.end());
  EXPECT_EQ(vecIds, Range(1, 2));
  EXPECT_EQ(IdsOf(queue.TakeNext().vecRecords), Range(7, 8));
}

TEST(BatchQueueTest, ARecordDrawnAtRandomIsAnyOfThem) {
  std::mt19937_64 random(1);
  std::set<uint64_t> setFirst;
  for (int i = 0; i < 200; ++i) {
    CBatchQueue queue(1U << 20);
    queue.Add(Records(1, 5));
    const Ids vecIds = IdsOf(queue.TakeAny(random).vecRecords);
    ASSERT_EQ(vecIds.size(), 1U);
    setFirst.insert(vecIds[0]);
    EXPECT_EQ(queue.TakeAll().size(), 4U);
  }
  EXPECT_EQ(setFirst.size(), 5U);
}

// Whatever the size of a batch and wherever the bad record stands, it stands alone in the end and no other is touched.
TEST(BatchQueueTest, HalvingLeavesTheBadRecordAlone) {
  for (uint64_t u64Size = 2; u64Size <= kBatchRecords; ++u64Size) {
    for (uint64_t u64Bad = 1; u64Bad <= u64Size; ++u64Bad) {
      CBatchQueue queue(1U << 20);
      queue.Add(Records(1, u64Size));
      Ids vecDelivered;
      Ids vecRejected;
      size_t uRequests = 0;
      while (!queue.IsEmpty()) {
        HttpBatch batch = queue.TakeNext();
        ++uRequests;
        const Ids vecIds = IdsOf(batch.vecRecords);
        if (std::find(vecIds.begin(), vecIds.end(), u64Bad) == vecIds.end()) {
          vecDelivered.insert(vecDelivered.end(), vecIds.begin(), vecIds.end());
        } else if (vecIds.size() == 1) {
          vecRejected.push_back(vecIds.front());
        } else {
          queue.AddHalvesFirst(batch);
        }
      }
      ASSERT_EQ(vecRejected, Ids{u64Bad}) << u64Size;
      Ids vecExpected = Range(1, u64Size);
      vecExpected.erase(vecExpected.begin() + static_cast<std::ptrdiff_t>(u64Bad - 1));
      ASSERT_EQ(vecDelivered, vecExpected);
      ASSERT_LE(uRequests, 13U);
    }
  }
}

TEST(BatchQueueTest, TakesAllAndTakesOneByOneWithoutLosingAny) {
  for (const bool bOneByOne : {false, true}) {
    CBatchQueue queue(1U << 20);
    queue.Add(Records(5, 9));
    HttpBatch batch;
    batch.vecRecords = Records(1, 4);
    queue.AddHalvesFirst(batch);
    batch.vecRecords = Records(10, 10);
    queue.PutAside(batch);
    LinkRecordList vecAll;
    if (bOneByOne) {
      while (auto pRecord = queue.TakeOne()) {
        vecAll.push_back(pRecord);
      }
    } else {
      vecAll = queue.TakeAll();
    }
    Ids vecIds = IdsOf(vecAll);
    std::sort(vecIds.begin(), vecIds.end());
    EXPECT_EQ(vecIds, Range(1, 10));
    EXPECT_TRUE(queue.IsEmpty());
    EXPECT_EQ(queue.CountAside(), 0U);
  }
}

std::string Gunzip(const std::string& strGzip) {
  z_stream stream{};
  EXPECT_EQ(inflateInit2(&stream, 15 + 16), Z_OK);
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(strGzip.data()));
  stream.avail_in = static_cast<uInt>(strGzip.size());
  std::string strBytes;
  int iResult = Z_OK;
  while (iResult == Z_OK) {
    char acOut[4096];
    stream.next_out = reinterpret_cast<Bytef*>(acOut);
    stream.avail_out = sizeof(acOut);
    iResult = inflate(&stream, Z_NO_FLUSH);
    strBytes.append(acOut, sizeof(acOut) - stream.avail_out);
  }
  EXPECT_EQ(iResult, Z_STREAM_END);
  EXPECT_EQ(stream.avail_in, 0U);
  inflateEnd(&stream);
  return strBytes;
}

TEST(BatchBodyTest, GzipGivesBackWhatWentIn) {
  std::string strNoise(300000, '\0');
  uint32_t uState = 1;
  for (char& c : strNoise) {
    uState = uState * 1664525 + 1013904223;
    c = static_cast<char>(uState >> 24U);
  }
  for (const std::string& strBytes : {std::string(), std::string("x"), std::string(1000000, 'y'), strNoise}) {
    std::string strGzip = "left over";
    Gzip(strBytes, strGzip);
    EXPECT_EQ(Gunzip(strGzip), strBytes);
  }
}

TEST(BatchBodyTest, ALineIsTheRecordsLineWithItsIdInFront) {
  CBatchBody maker(kAgent);
  BatchBody body;
  LinkRecordList vecRecords = {MakeRecord(0xabc, "first \"\n"), MakeRecord(0x67ab12cd00000001, "\xff")};
  maker.Make(vecRecords, body);
  std::istringstream stream(Gunzip(body.strGzip));
  std::vector<std::string> vecLines;
  for (std::string strLine; std::getline(stream, strLine);) {
    vecLines.push_back(strLine);
  }
  ASSERT_EQ(vecLines.size(), 2U);
  for (size_t i = 0; i < vecLines.size(); ++i) {
    std::string strPlain;
    CRecordLine().Append(strPlain, *vecRecords[i]);
    const std::string strId = std::string(R"({"id":")") + kAgent + (i == 0 ? "/abc\"" : "/67ab12cd00000001\"");
    EXPECT_EQ(vecLines[i] + "\n", strId + "," + strPlain.substr(1));
    EXPECT_TRUE(nlohmann::json::parse(vecLines[i]).is_object());
  }
}

TEST(BatchBodyTest, NoRecordsMakeABodyOfNoLines) {
  CBatchBody maker(kAgent);
  BatchBody body;
  maker.Make({}, body);
  EXPECT_EQ(Gunzip(body.strGzip), "");
}

TEST(BatchBodyTest, TheKeyIsTheSameForTheSameBytesAndNoOthers) {
  CBatchBody maker(kAgent);
  CBatchBody other("0123abcd-0000-4000-8000-00000000000b");
  const auto fnKey = [](CBatchBody& body, const LinkRecordList& vecRecords) {
    BatchBody made;
    body.Make(vecRecords, made);
    return made.strKey;
  };
  const LinkRecordList vecRecords = Records(1, 3);
  const std::string strKey = fnKey(maker, vecRecords);
  EXPECT_EQ(strKey.size(), 36U);
  EXPECT_EQ(strKey[14], '5');
  EXPECT_EQ(fnKey(maker, vecRecords), strKey);
  EXPECT_EQ(fnKey(maker, Records(1, 3)), strKey);
  EXPECT_NE(fnKey(other, vecRecords), strKey);
  EXPECT_NE(fnKey(maker, Records(1, 2)), strKey);
  EXPECT_NE(fnKey(maker, {vecRecords[0], vecRecords[2], vecRecords[1]}), strKey);
  vecRecords[1]->i64ReceivedUs += 1;
  EXPECT_NE(fnKey(maker, vecRecords), strKey);
}

}  // namespace
