// host_test.cpp -- the host as a whole: statuses, names, the byte hash,
// restart and object counts.
#include <atomic>
#include <cstring>

#include "hyk_test_support.h"

namespace {

using hyktest::HostTest;

TEST(StatusTest, EveryStatusHasItsText) {
   EXPECT_STREQ(hyk_StatusToString(HYK_OK), "Success");
   EXPECT_STREQ(hyk_StatusToString(HYK_NO_MEMORY), "Out of memory");
   EXPECT_STREQ(hyk_StatusToString(0xbad0007u), "Bad parameter");
   EXPECT_STREQ(hyk_StatusToString(0xbad0056u), "Not empty");
   EXPECT_STREQ(hyk_StatusToString(0x2BAD0000u), "Generic error");
   EXPECT_STREQ(hyk_StatusToString(0xbad7777u), "Unknown status");
}

TEST(NameTest, InitializeBoundsTheName) {
   hyk_Name n;
   memset(&n, 0x7f, sizeof n);
   ASSERT_EQ(hyk_NameInitialize(&n, "vSwitch0"), HYK_OK);
   EXPECT_STREQ(n.string, "vSwitch0");
   EXPECT_EQ(n.string[HYK_NAME_LEN - 1], 0);  // the tail is cleared
   std::string longest(HYK_NAME_LEN - 1, 'a');
   EXPECT_EQ(hyk_NameInitialize(&n, longest.c_str()), HYK_OK);
   hyk_Name untouched;
   memset(&untouched, 1, sizeof untouched);
   std::string tooLong(HYK_NAME_LEN, 'a');
   EXPECT_EQ(hyk_NameInitialize(&untouched, tooLong.c_str()), HYK_NAME_TOO_LONG);
   EXPECT_EQ(untouched.string[0], 1);
   EXPECT_EQ(hyk_NameInitialize(nullptr, "x"), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_NameInitialize(&n, nullptr), HYK_BAD_PARAM);
}

TEST(HashTest, StableAcrossCallsAndHosts) {
   // FNV-1a 64 of "" and "a": fixed values every host computes alike.
   EXPECT_EQ(hyk_HashBytes("", 0), 0xcbf29ce484222325ull);
   EXPECT_EQ(hyk_HashBytes("a", 1), 0xaf63dc4c8601ec8cull);
   const char key[] = "00 11 22 33-44 55 66 77";
   EXPECT_EQ(hyk_HashBytes(key, sizeof key), hyk_HashBytes(key, sizeof key));
   EXPECT_NE(hyk_HashBytes(key, 5), hyk_HashBytes(key, 6));
}

class HostLifeTest : public HostTest {};

TEST_F(HostLifeTest, RestartDropsEveryObject) {
   hyk_HeapProps hp = {"h", 0, 0, 100};
   hyk_HeapID heap;
   ASSERT_EQ(hyk_HeapCreate(&hp, &heap), HYK_OK);
   ASSERT_NE(hyk_HeapAlloc(heap, 10), nullptr);
   hyk_LogProps lp = {"l", 3, 0, 0};
   hyk_LogHandle log;
   ASSERT_EQ(hyk_LogRegister(&lp, &log), HYK_OK);
   hyk_TimerQueue q;
   ASSERT_EQ(hyk_TimerQueueCreate("q", 0, 0, &q), HYK_OK);
   hyk_LockDomainID d;
   hyk_SpinlockID l;
   ASSERT_EQ(hyk_LockDomainCreate("d", 0, 0, &d), HYK_OK);
   ASSERT_EQ(hyk_SpinlockCreate("l", d, 1, &l), HYK_OK);
   hyksim::AdvanceClock(1000);
   auto c = hyksim::Counts();
   EXPECT_EQ(c.heaps + c.logComponents + c.timerQueues + c.lockDomains + c.spinlocks, 5u);
   hyksim::HostStart();
   c = hyksim::Counts();
   EXPECT_EQ(c.heaps + c.logComponents + c.timerQueues + c.lockDomains + c.spinlocks + c.worlds +
                c.pendingTimers,
             0u);
   EXPECT_EQ(hyksim::NowUS(), 0u);
   EXPECT_EQ(hyk_LogGetCurrentLogLevel(log), 0);  // the old handle is gone
   EXPECT_TRUE(hyksim::LogContains("hyk: host started"));
   EXPECT_EQ(hyksim::LogCount("hyk: host started"), 1u);
}

TEST_F(HostLifeTest, OptionsAreReported) {
   hyksim::HostOptions o;
   o.virtualClock = false;
   o.counterFrequency = 1000;
   hyksim::HostStart(o);
   auto now = hyksim::CurrentHostOptions();
   EXPECT_FALSE(now.virtualClock);
   EXPECT_EQ(now.counterFrequency, 1000u);
}

TEST_F(HostLifeTest, ResetHooksRun) {
   // Hooks stay registered for the life of the process: static state only.
   static std::atomic<int> resets{0};
   int before = resets;
   hyksim::OnReset([] { resets++; });
   hyksim::HostStart();
   EXPECT_EQ(resets - before, 1);
}

TEST_F(HostLifeTest, HostLinesArePrefixed) {
   hyksim::HostLog("something %d", 5);
   auto lines = hyksim::LogLines();
   ASSERT_FALSE(lines.empty());
   EXPECT_EQ(lines.back().text, "hyk: something 5");
   EXPECT_EQ(lines.back().component, "hyk");
}

TEST_F(HostLifeTest, PanicGoesToStderrAfterTheLog) {
   EXPECT_DEATH(
      {
         _hyk_LogMessage("last words\n");
         hyksim::Panic("broken invariant %d", 3);
      },
      "hyk: PANIC: broken invariant 3");
}

}  // namespace
