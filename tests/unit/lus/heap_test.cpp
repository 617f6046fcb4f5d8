// Tests of the state heaps: the one-way fallback between heap 1 and heap 2.
#include "lus_fixture.h"

namespace lustest {
namespace {

class StateHeapTest : public LusTest {
  protected:
   // Heaps 1 and 2 of 16 KB each.
   void SetUp() override {
      LusTest::SetUp();
      Load({"LUS_HEAP_MAX_SIZE=16384"});
      heap1_ = hyksim::FindHeap("lus_heap_1")->id;
      heap2_ = hyksim::FindHeap("lus_heap_2")->id;
   }
   void *Alloc(uint32_t size, hyk_HeapID *used) {
      return AsLus([&] { return LusFn<ClientStateAllocFn>("LUS_ClientStateAlloc")(size, used); });
   }
   void *Fill(hyk_HeapID heap) {
      return AsLus([&] { return LusFn<AllocFromHeapFn>("LUS_AllocFromHeap")(heap, 12000); });
   }
   void Free(hyk_HeapID heap, void *p) {
      AsLus([&] { LusFn<FreeFn>("LUS_Free")(heap, p); });
   }
   hyk_HeapID heap1_ = 0, heap2_ = 0;
};

TEST_F(StateHeapTest, FirstAllocationComesFromHeapOne) {
   hyk_HeapID used = 0;
   void *p = Alloc(100, &used);
   ASSERT_NE(p, nullptr);
   EXPECT_EQ(used, heap1_);
   EXPECT_EQ(hyksim::FindHeap("lus_heap_1")->liveAllocations, 1u);
   Free(used, p);
}

TEST_F(StateHeapTest, HeapOneFullFallsBackToHeapTwoAndStaysThere) {
   void *filler = Fill(heap1_);
   ASSERT_NE(filler, nullptr);
   hyk_HeapID used = 0;
   void *p = Alloc(8000, &used);
   ASSERT_NE(p, nullptr);
   EXPECT_EQ(used, heap2_);
   EXPECT_EQ(Var<hyk_HeapID>("curHeapID"), heap2_);

   // Heap 1 has room again, yet the next allocation starts at heap 2.
   Free(heap1_, filler);
   hyk_HeapID used2 = 0;
   void *q = Alloc(100, &used2);
   ASSERT_NE(q, nullptr);
   EXPECT_EQ(used2, heap2_);
   EXPECT_EQ(hyksim::FindHeap("lus_heap_1")->liveAllocations, 0u);
   EXPECT_EQ(hyksim::LogCount("Out of Heap memory"), 0u);
   Free(used, p);
   Free(used2, q);
}

TEST_F(StateHeapTest, HeapTwoFullSwitchesBackToHeapOne) {
   Var<hyk_HeapID>("curHeapID") = heap2_;
   void *filler = Fill(heap2_);
   ASSERT_NE(filler, nullptr);
   hyk_HeapID used = 0;
   void *p = Alloc(8000, &used);
   ASSERT_NE(p, nullptr);
   EXPECT_EQ(used, heap1_);
   EXPECT_EQ(Var<hyk_HeapID>("curHeapID"), heap1_);
   Free(used, p);
   Free(heap2_, filler);
}

TEST_F(StateHeapTest, BothFullReturnsNullLogsOnceAndSwitches) {
   void *f1 = Fill(heap1_);
   void *f2 = Fill(heap2_);
   ASSERT_TRUE(f1 && f2);
   hyk_HeapID used = 0xabcd;
   EXPECT_EQ(Alloc(8000, &used), nullptr);
   EXPECT_EQ(used, 0xabcdu);  // untouched
   EXPECT_EQ(Var<hyk_HeapID>("curHeapID"), heap2_);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_ClientStateAlloc", 20, "Out of Heap memory : Out of memory"), 1), 1u);
   EXPECT_EQ(hyksim::LogCount("Out of Heap memory"), 1u);
   // Two attempts, never heap 0.
   EXPECT_EQ(hyksim::FindHeap("lus_heap_0")->failedAllocations, 0u);
   Free(heap1_, f1);
   Free(heap2_, f2);
}

TEST_F(StateHeapTest, FreeOfNullDoesNothing) {
   auto before = hyksim::FindHeap("lus_heap_1");
   Free(heap1_, nullptr);
   auto after = hyksim::FindHeap("lus_heap_1");
   EXPECT_EQ(before->bytesInUse, after->bytesInUse);
   EXPECT_EQ(before->liveAllocations, after->liveAllocations);
   EXPECT_EQ(ModuleLines().size(), 0u);
}

TEST_F(StateHeapTest, DestroyingHeapsClearsEveryHandleAndIsHarmlessTwice) {
   AsLus([] { LusFn<void()>("lusDestroyHeaps")(); });
   EXPECT_EQ(Var<hyk_HeapID>("lusHeapID_0"), 0u);
   EXPECT_EQ(Var<hyk_HeapID>("lusHeapID_1"), 0u);
   EXPECT_EQ(Var<hyk_HeapID>("lusHeapID_2"), 0u);
   EXPECT_EQ(Var<hyk_HeapID>("curHeapID"), 0u);
   EXPECT_TRUE(hyksim::Heaps().empty());
   AsLus([] { LusFn<void()>("lusDestroyHeaps")(); });
   EXPECT_EQ(hyksim::CallCount("hyk_HeapDestroy"), 3u);
}

}  // namespace
}  // namespace lustest
