// heap_test.cpp -- heaps: creation rules, the maximum size, accounting, the
// live-allocation report and the panics on bad frees.
#include <atomic>
#include <cstring>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "hyk_test_support.h"

namespace {

using hyktest::HostTest;

class HeapTest : public HostTest {
  protected:
   hyk_HeapID Create(const char *name, uint32_t initial, uint32_t max) {
      hyk_HeapProps props = {name, HYK_INVALID_MODULE_ID, initial, max};
      hyk_HeapID heap = 0;
      EXPECT_EQ(hyk_HeapCreate(&props, &heap), HYK_OK);
      EXPECT_NE(heap, 0u);
      return heap;
   }
};

TEST_F(HeapTest, CreateRefusesBadProperties) {
   hyk_HeapID heap = 0;
   hyk_HeapProps inverted = {"inverted", 0, 2000, 1000};
   EXPECT_EQ(hyk_HeapCreate(&inverted, &heap), HYK_BAD_PARAM);
   hyk_HeapProps unnamed = {"", 0, 0, 1000};
   EXPECT_EQ(hyk_HeapCreate(&unnamed, &heap), HYK_BAD_PARAM);
   std::string longName(HYK_NAME_LEN, 'x');
   hyk_HeapProps tooLong = {longName.c_str(), 0, 0, 1000};
   EXPECT_EQ(hyk_HeapCreate(&tooLong, &heap), HYK_NAME_TOO_LONG);
   EXPECT_EQ(hyk_HeapCreate(nullptr, &heap), HYK_BAD_PARAM);
   EXPECT_EQ(heap, 0u);
   EXPECT_EQ(hyksim::Counts().heaps, 0u);
}

TEST_F(HeapTest, AllocationFailsAtTheLimit) {
   hyk_HeapID heap = Create("limited", 16, 100);
   void *a = hyk_HeapAlloc(heap, 60);
   ASSERT_NE(a, nullptr);
   EXPECT_EQ(hyk_HeapAlloc(heap, 41), nullptr);
   void *b = hyk_HeapAlloc(heap, 40);
   ASSERT_NE(b, nullptr);
   EXPECT_EQ(hyk_HeapAlloc(heap, 1), nullptr);
   hyk_HeapFree(heap, a);
   void *c = hyk_HeapAlloc(heap, 60);
   EXPECT_NE(c, nullptr);
   hyk_HeapStats st;
   ASSERT_EQ(hyk_HeapGetStats(heap, &st), HYK_OK);
   EXPECT_EQ(st.bytesInUse, 100u);
   EXPECT_EQ(st.liveAllocations, 2u);
   EXPECT_EQ(st.peakBytes, 100u);
   EXPECT_EQ(st.maxSize, 100u);
   EXPECT_EQ(st.failedAllocations, 2u);
   hyk_HeapFree(heap, b);
   hyk_HeapFree(heap, c);
   EXPECT_EQ(hyk_HeapDestroy(heap), HYK_OK);
   EXPECT_TRUE(hyksim::LeakReports().empty());
}

TEST_F(HeapTest, ZeroSizeAndInvalidHeapGiveNull) {
   hyk_HeapID heap = Create("h", 0, 100);
   EXPECT_EQ(hyk_HeapAlloc(heap, 0), nullptr);
   EXPECT_EQ(hyk_HeapAlloc(heap + 1000, 8), nullptr);
   hyk_HeapFree(heap, nullptr);  // ignored
   hyk_HeapStats st;
   EXPECT_EQ(hyk_HeapGetStats(heap + 1000, &st), HYK_INVALID_HANDLE);
   EXPECT_EQ(hyk_HeapGetStats(heap, nullptr), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_HeapDestroy(heap + 1000), HYK_INVALID_HANDLE);
}

TEST_F(HeapTest, MemoryIsUsableAndAligned) {
   hyk_HeapID heap = Create("h", 0, 1 << 20);
   auto *p = static_cast<char *>(hyk_HeapAlloc(heap, 1000));
   ASSERT_NE(p, nullptr);
   EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 8, 0u);
   memset(p, 0x5a, 1000);
   EXPECT_EQ(p[999], 0x5a);
   hyk_HeapFree(heap, p);
}

TEST_F(HeapTest, DestroyReportsLiveAllocations) {
   hyk_HeapID heap = Create("leaky", 0, 1000);
   void *kept = hyk_HeapAlloc(heap, 24);
   ASSERT_NE(kept, nullptr);
   ASSERT_NE(hyk_HeapAlloc(heap, 8), nullptr);
   void *freed = hyk_HeapAlloc(heap, 100);
   hyk_HeapFree(heap, freed);
   EXPECT_EQ(hyk_HeapDestroy(heap), HYK_OK);
   auto reports = hyksim::LeakReports();
   ASSERT_EQ(reports.size(), 1u);
   EXPECT_EQ(reports[0].heap, "leaky");
   EXPECT_EQ(reports[0].bytes, 32u);
   EXPECT_EQ(reports[0].allocations, 2u);
   EXPECT_TRUE(hyksim::LogContains("heap leaky destroyed with 2 live allocations (32 bytes)"));
   EXPECT_EQ(hyksim::LogCount("heap leaky: "), 2u);
   // The caller recorded is this test body, named by the loader's symbols.
   EXPECT_TRUE(hyksim::LogContains("24 bytes at"));
   EXPECT_EQ(hyksim::Counts().heaps, 0u);
}

TEST_F(HeapTest, ViewsShowAccounting) {
   hyk_HeapID heap = Create("viewed", 10, 500);
   void *p = hyk_HeapAlloc(heap, 50);
   auto v = hyksim::FindHeap("viewed");
   ASSERT_TRUE(v.has_value());
   EXPECT_EQ(v->id, heap);
   EXPECT_EQ(v->initialSize, 10u);
   EXPECT_EQ(v->maxSize, 500u);
   EXPECT_EQ(v->bytesInUse, 50u);
   EXPECT_EQ(v->liveAllocations, 1u);
   EXPECT_FALSE(hyksim::FindHeap("other").has_value());
   hyk_HeapFree(heap, p);
}

TEST_F(HeapTest, ConcurrentAllocationsRespectTheLimit) {
   hyk_HeapID heap = Create("shared", 0, 64 * 100);
   std::vector<std::thread> threads;
   std::atomic<int> got{0};
   for (int t = 0; t < 4; t++) {
      threads.emplace_back([&] {
         for (int i = 0; i < 100; i++) {
            if (hyk_HeapAlloc(heap, 64) != nullptr) {
               got++;
            }
         }
      });
   }
   for (auto &t : threads) {
      t.join();
   }
   EXPECT_EQ(got.load(), 100);
   hyk_HeapStats st;
   ASSERT_EQ(hyk_HeapGetStats(heap, &st), HYK_OK);
   EXPECT_EQ(st.bytesInUse, 6400u);
   EXPECT_EQ(st.failedAllocations, 300u);
   hyk_HeapDestroy(heap);
   ASSERT_EQ(hyksim::LeakReports().size(), 1u);
   EXPECT_EQ(hyksim::LeakReports()[0].allocations, 100u);
}

// Tens of thousands of allocations and frees in random order over three
// heaps: the host's map of live allocations gains and loses them in every
// order, neighbours of different heaps side by side, without ever losing or
// confusing one.  Each
// heap's figures follow a model; a destroyed heap reports exactly what the
// model still holds for it; every other live pointer can still be freed to
// its own heap and only to it.
TEST_F(HeapTest, RandomAllocationsAndFreesKeepEveryPointerStraight) {
   const uint32_t seed = std::random_device{}();
   SCOPED_TRACE(testing::Message() << "seed " << seed);
   std::mt19937 rng(seed);
   hyk_HeapID heaps[3] = {Create("r0", 0, 1u << 30), Create("r1", 0, 1u << 30), Create("r2", 0, 1u << 30)};
   struct Live {
      int heap;
      uint32_t size;
   };
   std::map<void *, Live> model;
   std::vector<void *> order;  // live pointers, for picking one at random
   uint64_t bytes[3] = {}, count[3] = {};
   for (int op = 0; op < 60000; op++) {
      if (order.empty() || rng() % 100 < 55) {
         const int h = static_cast<int>(rng() % 3);
         const uint32_t size = 1 + rng() % 200;
         void *p = hyk_HeapAlloc(heaps[h], size);
         ASSERT_NE(p, nullptr);
         ASSERT_TRUE(model.emplace(p, Live{h, size}).second) << "a live pointer handed out twice";
         order.push_back(p);
         bytes[h] += size;
         count[h]++;
      } else {
         const size_t i = rng() % order.size();
         void *p = order[i];
         order[i] = order.back();
         order.pop_back();
         const Live l = model.at(p);
         model.erase(p);
         hyk_HeapFree(heaps[l.heap], p);
         bytes[l.heap] -= l.size;
         count[l.heap]--;
      }
      if (op % 997 == 0) {
         for (int h = 0; h < 3; h++) {
            hyk_HeapStats st;
            ASSERT_EQ(hyk_HeapGetStats(heaps[h], &st), HYK_OK);
            ASSERT_EQ(st.bytesInUse, bytes[h]) << "heap " << h << " at op " << op;
            ASSERT_EQ(st.liveAllocations, count[h]) << "heap " << h << " at op " << op;
         }
      }
   }
   ASSERT_EQ(hyk_HeapDestroy(heaps[1]), HYK_OK);
   ASSERT_EQ(hyksim::LeakReports().size(), 1u);
   EXPECT_EQ(hyksim::LeakReports()[0].allocations, count[1]);
   EXPECT_EQ(hyksim::LeakReports()[0].bytes, bytes[1]);
   void *survivor = nullptr;
   for (const auto &[p, l] : model) {
      if (l.heap == 0) {
         survivor = p;
         break;
      }
   }
   ASSERT_NE(survivor, nullptr);
   EXPECT_DEATH(hyk_HeapFree(heaps[2], survivor), "freed to heap r2 but allocated from heap r0");
   for (const auto &[p, l] : model) {
      if (l.heap != 1) {
         hyk_HeapFree(heaps[l.heap], p);
      }
   }
   for (int h : {0, 2}) {
      hyk_HeapStats st;
      ASSERT_EQ(hyk_HeapGetStats(heaps[h], &st), HYK_OK);
      EXPECT_EQ(st.bytesInUse, 0u);
      EXPECT_EQ(st.liveAllocations, 0u);
      EXPECT_EQ(hyk_HeapDestroy(heaps[h]), HYK_OK);
   }
   EXPECT_EQ(hyksim::LeakReports().size(), 1u);
}

TEST_F(HeapTest, DoubleFreePanics) {
   hyk_HeapID heap = Create("h", 0, 1000);
   void *p = hyk_HeapAlloc(heap, 16);
   hyk_HeapFree(heap, p);
   EXPECT_DEATH(hyk_HeapFree(heap, p), "double free");
}

TEST_F(HeapTest, FreeToTheWrongHeapPanics) {
   hyk_HeapID a = Create("heap_a", 0, 1000);
   hyk_HeapID b = Create("heap_b", 0, 1000);
   void *p = hyk_HeapAlloc(a, 16);
   EXPECT_DEATH(hyk_HeapFree(b, p), "freed to heap heap_b but allocated from heap heap_a");
   hyk_HeapFree(a, p);
}

TEST_F(HeapTest, FreeOfForeignMemoryPanics) {
   hyk_HeapID heap = Create("h", 0, 1000);
   int local = 0;
   EXPECT_DEATH(hyk_HeapFree(heap, &local), "never allocated from heap h");
}

// A pointer into an allocation, on either side of its start, is no
// allocation: the free is refused without touching what lies there.
TEST_F(HeapTest, FreeOfAPointerInsideAnAllocationPanics) {
   hyk_HeapID heap = Create("h", 0, 1 << 20);
   auto *p = static_cast<char *>(hyk_HeapAlloc(heap, 256));
   ASSERT_NE(p, nullptr);
   EXPECT_DEATH(hyk_HeapFree(heap, p + 16), "never allocated from heap h");
   EXPECT_DEATH(hyk_HeapFree(heap, p + 1), "never allocated from heap h");
   EXPECT_DEATH(hyk_HeapFree(heap, p - 16), "never allocated from heap h");
   hyk_HeapFree(heap, p);
}

// Addresses where the heaps never allocated (a global, an address beyond
// what user space is given) are told apart without being read.
TEST_F(HeapTest, FreeOfAnAddressNoHeapReachesPanics) {
   static int global = 0;
   hyk_HeapID heap = Create("h", 0, 1000);
   EXPECT_DEATH(hyk_HeapFree(heap, &global), "never allocated from heap h");
   EXPECT_DEATH(hyk_HeapFree(heap, reinterpret_cast<void *>(uintptr_t(0xffff800000001000))),
                "never allocated from heap h");
}

// malloc hands a freed address out again: the new allocation is freed
// normally, and a second free of it is a double free again.
TEST_F(HeapTest, AReusedAddressIsOneAllocationAtATime) {
#if defined(__SANITIZE_ADDRESS__)
   GTEST_SKIP() << "AddressSanitizer keeps freed memory in quarantine";
#endif
   hyk_HeapID heap = Create("h", 0, 1 << 20);
   void *first = hyk_HeapAlloc(heap, 64);
   hyk_HeapFree(heap, first);
   void *again = nullptr;
   std::vector<void *> others;
   for (int i = 0; i < 64 && again == nullptr; i++) {
      void *p = hyk_HeapAlloc(heap, 64);
      (p == first ? again : others.emplace_back()) = p;
   }
   ASSERT_EQ(again, first) << "malloc never handed the address out again";
   hyk_HeapStats st;
   ASSERT_EQ(hyk_HeapGetStats(heap, &st), HYK_OK);
   EXPECT_EQ(st.liveAllocations, others.size() + 1);
   hyk_HeapFree(heap, again);
   EXPECT_DEATH(hyk_HeapFree(heap, again), "double free");
   for (void *p : others) {
      hyk_HeapFree(heap, p);
   }
   ASSERT_EQ(hyk_HeapGetStats(heap, &st), HYK_OK);
   EXPECT_EQ(st.liveAllocations, 0u);
}

// Threads allocate and free from heaps of their own, side by side in the
// same stretches of memory, while another destroys heaps it left
// allocations in: every destroyed heap reports exactly what it held, and
// no other heap loses or gains one.
TEST_F(HeapTest, DestroysAmidOtherHeapsTrafficReportExactly) {
   constexpr int kWorkers = 3, kOps = 20000, kLeakyHeaps = 20, kLeaked = 50;
   std::vector<hyk_HeapID> own;
   for (int t = 0; t < kWorkers; t++) {
      own.push_back(Create(("w" + std::to_string(t)).c_str(), 0, 1u << 30));
   }
   std::atomic<bool> failed{false};
   std::atomic<int> working{kWorkers};
   std::vector<std::thread> threads;
   for (int t = 0; t < kWorkers; t++) {
      threads.emplace_back([&, t] {
         std::mt19937 rng(static_cast<uint32_t>(t) + 1);
         std::vector<void *> live;
         for (int op = 0; op < kOps; op++) {
            if (live.empty() || rng() % 100 < 55) {
               void *p = hyk_HeapAlloc(own[t], 1 + rng() % 300);
               if (p == nullptr) failed = true;
               live.push_back(p);
            } else {
               const size_t i = rng() % live.size();
               hyk_HeapFree(own[t], live[i]);
               live[i] = live.back();
               live.pop_back();
            }
         }
         hyk_HeapStats st;
         if (hyk_HeapGetStats(own[t], &st) != HYK_OK || st.liveAllocations != live.size()) failed = true;
         for (void *p : live) {
            hyk_HeapFree(own[t], p);
         }
         working--;
      });
   }
   // Destroys go on for as long as the workers run, and at least kLeakyHeaps times.
   size_t destroyed = 0;
   for (; working.load() > 0 || destroyed < size_t(kLeakyHeaps); destroyed++) {
      hyk_HeapID leaky = Create("leaky", 0, 1 << 20);
      for (int j = 0; j < kLeaked; j++) {
         ASSERT_NE(hyk_HeapAlloc(leaky, 1 + j), nullptr);
      }
      ASSERT_EQ(hyk_HeapDestroy(leaky), HYK_OK);
   }
   for (auto &t : threads) {
      t.join();
   }
   EXPECT_FALSE(failed.load());
   const auto reports = hyksim::LeakReports();
   ASSERT_EQ(reports.size(), destroyed);
   for (const auto &r : reports) {
      EXPECT_EQ(r.allocations, size_t(kLeaked));
      EXPECT_EQ(r.bytes, uint64_t(kLeaked) * (kLeaked + 1) / 2);
   }
   for (hyk_HeapID h : own) {
      hyk_HeapStats st;
      ASSERT_EQ(hyk_HeapGetStats(h, &st), HYK_OK);
      EXPECT_EQ(st.liveAllocations, 0u);
      EXPECT_EQ(st.bytesInUse, 0u);
      EXPECT_EQ(hyk_HeapDestroy(h), HYK_OK);
   }
   EXPECT_EQ(hyksim::LeakReports().size(), destroyed);
}

#if defined(__SANITIZE_ADDRESS__)
// What the host keeps before an allocation is out of the module's reach.
TEST_F(HeapTest, AWriteJustBeforeAnAllocationIsCaught) {
   hyk_HeapID heap = Create("h", 0, 1000);
   auto *p = static_cast<volatile char *>(hyk_HeapAlloc(heap, 64));
   EXPECT_DEATH(p[-8] = 1, "use-after-poison");
   hyk_HeapFree(heap, const_cast<char *>(p));
}
#endif

}  // namespace
