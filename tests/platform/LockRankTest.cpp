#include <gtest/gtest.h>

#include "platform/MXUser.h"

namespace {

constexpr uint32_t kConfigRank = 0xFEFFFFFF;
constexpr uint32_t kEkMapRank = 0xFF000000;

struct Locks {
  MXUserRWLock* config = MXUser_CreateRWLock("configLock", kConfigRank);
  MXUserExclLock* ek_map = MXUser_CreateExclLock("ekMapLock", kEkMapRank);
  ~Locks() {
    MXUser_DestroyRWLock(config);
    MXUser_DestroyExclLock(ek_map);
  }
};

TEST(LockRank, IncreasingOrderIsAllowed) {
  Locks l;
  {
    MXUser::WriteGuard config(l.config);
    MXUser::ExclGuard ek(l.ek_map);
  }
  // Released locks no longer count: the lower rank may be taken again.
  MXUser::ReadGuard config(l.config);
}

TEST(LockRankDeathTest, DecreasingOrderPanicsInCheckedBuilds) {
#ifndef WITNESSD_LOCK_RANK_CHECKS
  GTEST_SKIP() << "lock ranks are checked in debug builds only";
#else
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Locks l;
  EXPECT_DEATH(
      {
        MXUser::ExclGuard ek(l.ek_map);
        MXUser::ReadGuard config(l.config);
      },
      "lock rank violation: acquiring 'configLock'.*holding 'ekMapLock'");
  // The same rank twice is also an ordering fault (would self-deadlock).
  MXUserExclLock* other = MXUser_CreateExclLock("otherEkLock", kEkMapRank);
  EXPECT_DEATH(
      {
        MXUser::ExclGuard ek(l.ek_map);
        MXUser::ExclGuard again(other);
      },
      "lock rank violation");
  MXUser_DestroyExclLock(other);
#endif
}

}  // namespace
