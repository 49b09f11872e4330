#include "platform/storage_sync.h"

#include <gtest/gtest.h>

namespace {

TEST(StorageSyncTest, SurvivesAPowerCutUnlessToldOtherwise) {
  EXPECT_EQ(QmGetStorageSync(), 2);
}

TEST(StorageSyncTest, KeepsWhatWasSetAndRefusesTheRest) {
  EXPECT_EQ(QmSetStorageSync(1), 0);
  EXPECT_EQ(QmGetStorageSync(), 1);
  for (const int iBad : {0, 3, -1, 1000000}) {
    EXPECT_NE(QmSetStorageSync(iBad), 0);
    EXPECT_EQ(QmGetStorageSync(), 1);
  }
  EXPECT_EQ(QmSetStorageSync(2), 0);
  EXPECT_EQ(QmGetStorageSync(), 2);
}

}  // namespace
