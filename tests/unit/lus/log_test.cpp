// Tests of the module's log lines: the plain and error-code forms, the level
// test, and the teardown of the two log components.
#include <algorithm>

#include "lus_fixture.h"

namespace lustest {
namespace {

using LoggingTest = LusTest;

// hyk_LogLevel calls the module made on its normal component, filtered or not.
uint64_t LinesHandedToHost() {
   for (const auto &c : hyksim::LogComponents()) {
      if (c.name == "lus_heap_0" && c.throttle == HYK_LOG_THROTTLE_NONE) {
         return c.linesReceived;
      }
   }
   ADD_FAILURE() << "no lus_heap_0 log component";
   return 0;
}

TEST_F(LoggingTest, LogLevelZeroEmitsNoPlainLineOfAnyLevel) {
   Load({"lusLogLevel=0"});
   // Level 3 progress line, and a level 1 error whose status has no code.
   hyksim::FaultSpec desc;
   desc.op = "hyk_NetEventPost";
   desc.nth = 1;
   desc.status = 0xbad0000u;
   hyksim::InjectFault(desc);
   EXPECT_EQ(Reg(0, LUS_REG_TO), 0xbad0000u);
   EXPECT_EQ(hyksim::InjectedFaultCount("hyk_NetEventPost"), 1u);
   EXPECT_TRUE(ModuleLines().empty()) << hyksim::LogText();
   // The plain lines never reached the host: the module tested the level first.
   EXPECT_EQ(LinesHandedToHost(), 0u);

   // An error with a code of its own is handed over all the same; the host's
   // level filter is what keeps it out of the log.
   desc.status = HYK_FAILURE;
   hyksim::InjectFault(desc);
   EXPECT_EQ(Reg(0, LUS_REG_TO), HYK_FAILURE);
   EXPECT_EQ(LinesHandedToHost(), 1u);
   EXPECT_TRUE(ModuleLines().empty()) << hyksim::LogText();
}

TEST_F(LoggingTest, LevelOneShowsErrorsButNotProgress) {
   Load({"lusLogLevel=1"});
   hyksim::FaultSpec desc;
   desc.op = "hyk_NetEventPost";
   desc.nth = 1;
   desc.status = 0xbad0000u;
   hyksim::InjectFault(desc);
   EXPECT_EQ(Reg(0, LUS_REG_TO), 0xbad0000u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("LUS_Reg", "Error status from LUS Registration event : Unknown status"), 1), 1u)
      << hyksim::LogText();
   EXPECT_EQ(hyksim::LogCount("Posting reg event to all modules"), 0u);
}

TEST_F(LoggingTest, StatusWithZeroLowBitsIsReportedPlainWithoutErrorCode) {
   hyksim::FaultSpec desc;
   desc.op = "hyk_TimerQueueCreate";
   desc.nth = 1;
   desc.status = 0xbad0000u;
   hyksim::InjectFault(desc);
   EXPECT_EQ(LoadLus(), HYK_FAILURE);
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusInit", "Failed to create timer queue : Unknown status"), 1), 1u)
      << hyksim::LogText();
   EXPECT_EQ(hyksim::LogCount("errorCode"), 0u);
}

TEST_F(LoggingTest, GenericErrorIsReportedWithErrorCode65535) {
   hyksim::FaultSpec desc;
   desc.op = "hyk_TimerQueueCreate";
   desc.nth = 1;
   desc.status = HYK_GENERIC_ERROR;
   hyksim::InjectFault(desc);
   EXPECT_EQ(LoadLus(), HYK_FAILURE);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lusInit", 65535, "Failed to create timer queue : Generic error"), 1), 1u)
      << hyksim::LogText();
}

TEST_F(LoggingTest, ModuleOwnStatusUsesItsLowBitsAsErrorCode) {
   Load();
   EXPECT_EQ(Reg(0, 5), HYK_BAD_PARAM);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_Reg", 7, "Invalid registration type : Bad parameter"), 1), 1u)
      << hyksim::LogText();
}

TEST_F(LoggingTest, ProgressLinesCarryFunctionLineAndTag) {
   Load();
   EXPECT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   EXPECT_EQ(CountModuleLines(PlainLineRe("LUS_Reg", "Posting reg event to all modules"), 3), 1u)
      << hyksim::LogText();
}

TEST_F(LoggingTest, NormalHandleUnregisterFailureStillUnregistersThrottledHandle) {
   Load();
   hyksim::FaultSpec desc;
   desc.op = "hyk_LogUnregister";
   desc.nth = 1;
   desc.status = HYK_INVALID_HANDLE;
   hyksim::InjectFault(desc);
   ASSERT_EQ(UnloadLus(), HYK_OK);
   EXPECT_EQ(CountPlainPrinterLines("LUS - failed to unregister log handle : Invalid handle", true), 1u)
      << hyksim::LogText();
   EXPECT_EQ(hyksim::LogCount("LUS - failed to unregister throttle log handle"), 0u);
   EXPECT_EQ(hyksim::CallCount("hyk_LogUnregister"), 2u);
   // The host had to drop the normal component; the throttled one was gone already.
   EXPECT_EQ(hyksim::LogCount("module lus left log component lus_heap_0 registered"), 1u);
   EXPECT_EQ(hyksim::LogCount("module lus left log component lus_heap_0_throt"), 0u);
}

TEST_F(LoggingTest, ThrottledHandleUnregisterFailureIsReported) {
   Load();
   hyksim::FaultSpec desc;
   desc.op = "hyk_LogUnregister";
   desc.nth = 2;
   desc.status = HYK_INVALID_HANDLE;
   hyksim::InjectFault(desc);
   ASSERT_EQ(UnloadLus(), HYK_OK);
   EXPECT_EQ(CountPlainPrinterLines("LUS - failed to unregister throttle log handle : Invalid handle", true), 1u);
   EXPECT_EQ(hyksim::LogCount("module lus left log component lus_heap_0 registered"), 0u);
}

}  // namespace
}  // namespace lustest
