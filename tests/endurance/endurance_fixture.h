// What the endurance tests share: an installation that caches to files, a destination, and the books.
#ifndef QMLOGCACHE_TESTS_ENDURANCE_ENDURANCE_FIXTURE_H_
#define QMLOGCACHE_TESTS_ENDURANCE_ENDURANCE_FIXTURE_H_

#include <chrono>
#include <iostream>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "destination.h"
#include "record_books.h"
#include "tests/component/cache_file_fixture.h"
#include "tests/component/hang_guard.h"

class CEnduranceTest : public CCacheFileTest {
 protected:
  CEnduranceTest() : m_destination(m_router, m_books, kSeed) {}

  // Hands over a record with that much filler, and books the answer.
  bool Produce(const GUID& sender, size_t uFiller) {
    const std::string strKey = "r" + std::to_string(++m_u64Records);
    const std::string strContent = strKey + ";" + std::string(uFiller, 'x');
    const bool bAccepted = Succeeded(m_router.Deliver(LOGCACHE_MSG_SYNC_EDR_PRIV_NORMAL, sender, strContent));
    m_books.Told(strKey, bAccepted);
    return bAccepted;
  }
  // Keys of the records that stand in cache files.
  std::set<std::string> KeysOnDisk() const {
    std::set<std::string> setKeys;
    for (const std::string& strName : DatabasesIn(m_prefix.CacheDirectory())) {
      for (const CacheRow& row : ReadCacheFile(m_prefix.CacheDirectory() + strName)) {
        setKeys.insert(KeyOf(ContentOf(row.strData)));
      }
    }
    return setKeys;
  }
  // Has the destination answer until every accepted record has ended. After each pause of the component a night
  // passes, so that what was never answered is sent again.
  [[nodiscard]] bool AnswerUntilAllHaveEnded() {
    constexpr auto kPause = std::chrono::milliseconds(200);
    constexpr time_t kNight = 6 * 3600;
    const auto guard = std::chrono::steady_clock::now() + kHangGuard;
    auto lastAnswer = std::chrono::steady_clock::now();
    while (m_books.EndedCount() < m_books.Accepted()) {
      const auto now = std::chrono::steady_clock::now();
      if (now >= guard) {
        return false;
      }
      if (m_destination.Answer()) {
        lastAnswer = now;
      } else if (now - lastAnswer >= kPause) {
        m_clock.Advance(kNight);
        static_cast<void>(m_router.DeliverConnect());  // ends single-send mode
        lastAnswer = now;
      } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
    return true;
  }
  void ExpectBooksInOrder(const std::string& strWhat, const std::set<std::string>& setHeld) {
    const Balance balance = m_books.Close(setHeld);
    std::cout << strWhat << ": " << balance.Text() << std::endl;
    EXPECT_EQ(balance.vecLost, std::vector<std::string>{});
    EXPECT_EQ(balance.vecInvented, std::vector<std::string>{});
  }

  static constexpr uint32_t kSeed = 20260701;

  CRecordBooks m_books;
  CDestination m_destination;
  uint64_t m_u64Records = 0;
};

#endif  // QMLOGCACHE_TESTS_ENDURANCE_ENDURANCE_FIXTURE_H_
