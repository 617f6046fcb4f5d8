// lock_test.cpp -- lock domains and ranked spinlocks: mutual exclusion, the
// rank order, and the panics a strict host raises on misuse.
#include <atomic>
#include <thread>
#include <vector>

#include "hyk_test_support.h"

namespace {

using hyktest::HostTest;

class LockTest : public HostTest {
  protected:
   hyk_LockDomainID domain_ = HYK_INVALID_LOCK_DOMAIN;
   hyk_SpinlockID low_ = HYK_INVALID_LOCK;   // rank 1
   hyk_RWSpinlockID high_ = HYK_INVALID_LOCK; // rank 2
   void SetUp() override {
      HostTest::SetUp();
      ASSERT_EQ(hyk_LockDomainCreate("tarnq-test", 0, 0, &domain_), HYK_OK);
      ASSERT_EQ(hyk_SpinlockCreate("low", domain_, 1, &low_), HYK_OK);
      ASSERT_EQ(hyk_RWSpinlockCreate("high", domain_, 2, &high_), HYK_OK);
   }
};

TEST_F(LockTest, CreateRefusesBadArguments) {
   hyk_SpinlockID l;
   EXPECT_EQ(hyk_SpinlockCreate("zero", domain_, 0, &l), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_SpinlockCreate("big", domain_, 0x10000, &l), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_SpinlockCreate(nullptr, domain_, 1, &l), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_SpinlockCreate("x", domain_ + 50, 1, &l), HYK_INVALID_HANDLE);
   EXPECT_EQ(hyk_RWSpinlockCreate("x", domain_, 1, nullptr), HYK_BAD_PARAM);
   hyk_LockDomainID d;
   EXPECT_EQ(hyk_LockDomainCreate("", 0, 0, &d), HYK_BAD_PARAM);
   EXPECT_EQ(hyksim::Counts().spinlocks, 2u);
}

TEST_F(LockTest, DomainWithLocksIsBusy) {
   EXPECT_EQ(hyk_LockDomainDestroy(domain_), HYK_BUSY);
   EXPECT_EQ(hyk_SpinlockDestroy(low_), HYK_OK);
   EXPECT_EQ(hyk_SpinlockDestroy(low_), HYK_INVALID_HANDLE);
   EXPECT_EQ(hyk_SpinlockDestroy(high_), HYK_INVALID_HANDLE);  // wrong kind
   EXPECT_EQ(hyk_RWSpinlockDestroy(high_), HYK_OK);
   EXPECT_EQ(hyk_LockDomainDestroy(domain_), HYK_OK);
   EXPECT_EQ(hyk_LockDomainDestroy(domain_), HYK_INVALID_HANDLE);
   EXPECT_EQ(hyksim::Counts().lockDomains, 0u);
}

TEST_F(LockTest, IncreasingRankIsAllowedAndCounted) {
   EXPECT_EQ(hyk_SpinlocksHeld(), 0u);
   hyk_SpinlockLock(low_);
   hyk_RWSpinlockWriteLock(high_);
   EXPECT_EQ(hyk_SpinlocksHeld(), 2u);
   hyk_SpinlockUnlock(low_);  // release order is free
   hyk_RWSpinlockWriteUnlock(high_);
   EXPECT_EQ(hyk_SpinlocksHeld(), 0u);
}

TEST_F(LockTest, LocksOfOtherDomainsAreNotOrdered) {
   hyk_LockDomainID other;
   hyk_SpinlockID foreign;
   ASSERT_EQ(hyk_LockDomainCreate("other", 0, 0, &other), HYK_OK);
   ASSERT_EQ(hyk_SpinlockCreate("foreign", other, 1, &foreign), HYK_OK);
   hyk_RWSpinlockReadLock(high_);
   hyk_SpinlockLock(foreign);
   EXPECT_EQ(hyk_SpinlocksHeld(), 2u);
   hyk_SpinlockUnlock(foreign);
   hyk_RWSpinlockReadUnlock(high_);
}

TEST_F(LockTest, ExclusiveLockExcludes) {
   long counter = 0;
   std::vector<std::thread> threads;
   for (int t = 0; t < 4; t++) {
      threads.emplace_back([&] {
         for (int i = 0; i < 5000; i++) {
            hyk_SpinlockLock(low_);
            long v = counter;
            counter = v + 1;
            hyk_SpinlockUnlock(low_);
         }
      });
   }
   for (auto &t : threads) {
      t.join();
   }
   EXPECT_EQ(counter, 20000);
}

TEST_F(LockTest, ReadersShareWritersExclude) {
   std::atomic<int> readersInside{0};
   std::atomic<int> maxReaders{0};
   std::atomic<bool> writerSawReader{false};
   std::vector<std::thread> threads;
   for (int t = 0; t < 3; t++) {
      threads.emplace_back([&] {
         for (int i = 0; i < 2000; i++) {
            hyk_RWSpinlockReadLock(high_);
            int n = ++readersInside;
            int m = maxReaders.load();
            while (n > m && !maxReaders.compare_exchange_weak(m, n)) {
            }
            --readersInside;
            hyk_RWSpinlockReadUnlock(high_);
         }
      });
   }
   threads.emplace_back([&] {
      for (int i = 0; i < 2000; i++) {
         hyk_RWSpinlockWriteLock(high_);
         if (readersInside.load() != 0) {
            writerSawReader = true;
         }
         hyk_RWSpinlockWriteUnlock(high_);
      }
   });
   for (auto &t : threads) {
      t.join();
   }
   EXPECT_FALSE(writerSawReader);
   EXPECT_GE(maxReaders.load(), 1);
}

TEST_F(LockTest, RankViolationPanics) {
   EXPECT_DEATH(
      {
         hyk_RWSpinlockReadLock(high_);
         hyk_SpinlockLock(low_);
      },
      "rank violation in lock domain tarnq-test: taking low \\(rank 1\\) while holding high "
      "\\(rank 2\\)");
}

TEST_F(LockTest, EqualRankIsAViolation) {
   hyk_SpinlockID peer;
   ASSERT_EQ(hyk_SpinlockCreate("peer", domain_, 1, &peer), HYK_OK);
   EXPECT_DEATH(
      {
         hyk_SpinlockLock(low_);
         hyk_SpinlockLock(peer);
      },
      "rank violation.*taking peer");
}

TEST_F(LockTest, RecursiveAcquisitionPanics) {
   EXPECT_DEATH(
      {
         hyk_SpinlockLock(low_);
         hyk_SpinlockLock(low_);
      },
      "already held by this thread");
}

TEST_F(LockTest, UnlockOfALockNotHeldPanics) {
   EXPECT_DEATH(hyk_SpinlockUnlock(low_), "spinlock low is not held by this thread");
}

TEST_F(LockTest, ReadUnlockOfAWriteLockPanics) {
   EXPECT_DEATH(
      {
         hyk_RWSpinlockWriteLock(high_);
         hyk_RWSpinlockReadUnlock(high_);
      },
      "held in write mode");
}

TEST_F(LockTest, SleepingWithASpinlockHeldPanics) {
   EXPECT_DEATH(
      {
         hyk_SpinlockLock(low_);
         hyk_WorldSleep(10);
      },
      "hyk_WorldSleep may sleep, but the thread holds spinlock low");
}

void CreateHeapUnder(hyk_RWSpinlockID lock) {
   hyk_RWSpinlockWriteLock(lock);
   hyk_HeapProps props = {"h", 0, 0, 10};
   hyk_HeapID heap;
   hyk_HeapCreate(&props, &heap);
}

TEST_F(LockTest, BlockingHostCallWithASpinlockHeldPanics) {
   EXPECT_DEATH(CreateHeapUnder(high_), "hyk_HeapCreate may sleep");
}

TEST_F(LockTest, DestroyingAHeldLockPanics) {
   EXPECT_DEATH(
      {
         hyk_SpinlockLock(low_);
         hyk_SpinlockDestroy(low_);
      },
      "spinlock low destroyed while it is held");
}

TEST_F(LockTest, InvalidHandlePanics) {
   EXPECT_DEATH(hyk_SpinlockLock(high_), "invalid spinlock handle");
}

TEST_F(LockTest, DestroyedLockHandlePanics) {
   ASSERT_EQ(hyk_SpinlockDestroy(low_), HYK_OK);
   EXPECT_DEATH(hyk_SpinlockLock(low_), "invalid spinlock handle");
}

// Lock and unlock find the first few thousand locks by ID in a table and
// any later one in the registry: both kinds lock, exclude, rank, and panic
// on a stale handle alike.
TEST_F(LockTest, LocksFoundInTheRegistryBehaveAsTableLocks) {
   std::vector<hyk_SpinlockID> locks;
   hyk_SpinlockID l = HYK_INVALID_LOCK;
   do {
      ASSERT_EQ(hyk_SpinlockCreate("many", domain_, 3, &l), HYK_OK);
      locks.push_back(l);
   } while (l < 5000);
   hyk_SpinlockID outer = HYK_INVALID_LOCK;
   ASSERT_EQ(hyk_SpinlockCreate("outer", domain_, 4, &outer), HYK_OK);
   for (hyk_SpinlockID id : {locks.front(), locks.back()}) {
      hyk_SpinlockLock(id);
      EXPECT_EQ(hyk_SpinlocksHeld(), 1u);
      EXPECT_DEATH(hyk_SpinlockLock(low_), "rank violation");
      hyk_SpinlockLock(outer);
      EXPECT_EQ(hyk_SpinlocksHeld(), 2u);
      hyk_SpinlockUnlock(outer);
      hyk_SpinlockUnlock(id);
      EXPECT_EQ(hyk_SpinlocksHeld(), 0u);
   }
   ASSERT_EQ(hyk_SpinlockDestroy(locks.back()), HYK_OK);
   EXPECT_DEATH(hyk_SpinlockLock(locks.back()), "invalid spinlock handle");
   EXPECT_DEATH(hyk_RWSpinlockReadLock(locks.front()), "invalid reader-writer spinlock handle");
}

}  // namespace
