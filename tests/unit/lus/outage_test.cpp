// Tests of the outage accounting of a restored port.
#include "save_fixture.h"

namespace lustest {
namespace {

class OutageTest : public SaveRestoreTest {
  protected:
   void Check(uint32_t port) {
      AsLus([&] { LusFn<PortFn>("LUS_CheckOutage")(port); });
   }
   size_t OutageLines(const std::string &seconds) {
      return CountModuleLines(PlainLineRe("LUS_CheckOutage",
                                          "Port 0x2a LUS block outage in Seconds: " + seconds),
                              3);
   }
   size_t Warnings() { return CountModuleLines(".*has been blocked in LUS for.*"); }
   size_t Warning(const std::string &seconds, const std::string &limit) {
      return CountModuleLines(PlainLineRe("LUS_CheckOutage",
                                          "Port 0x2a has been blocked in LUS for:  " + seconds +
                                             " Sec, Allowed duration: " + limit + " Sec"),
                              3);
   }
};

TEST_F(OutageTest, NoLimitLogsOnlyTheOutageWhateverItIs) {
   LoadNew();
   Var<uint32_t>("startOutageTime") = 5;
   Var<uint32_t>("maxAllowedOutageTime") = 0;
   hyksim::AdvanceClock(1000999999);  // 1000.999999 s: whole seconds count
   Check(42);
   EXPECT_EQ(OutageLines("995"), 1u);
   EXPECT_EQ(Warnings(), 0u);
}

TEST_F(OutageTest, ElapsedEqualToTheLimitIsNoWarningOneSecondMoreIs) {
   LoadNew();
   Var<uint32_t>("startOutageTime") = 0;
   Var<uint32_t>("maxAllowedOutageTime") = 30;
   hyksim::AdvanceClock(30000000);
   Check(42);
   EXPECT_EQ(OutageLines("30"), 1u);
   EXPECT_EQ(Warnings(), 0u);
   hyksim::AdvanceClock(1000000);
   Check(42);
   EXPECT_EQ(OutageLines("31"), 1u);
   EXPECT_EQ(Warning("31", "30"), 1u);
}

TEST_F(OutageTest, StartLaterThanNowWrapsAndPrintsNegative) {
   LoadNew();
   hyksim::AdvanceClock(10000000);
   Var<uint32_t>("startOutageTime") = 17;
   Var<uint32_t>("maxAllowedOutageTime") = 600;
   Check(42);
   EXPECT_EQ(OutageLines("-7"), 1u);
   EXPECT_EQ(Warning("-7", "600"), 1u);
}

TEST_F(OutageTest, CounterOfAnotherFrequencyGivesTheSameSeconds) {
   hyksim::HostOptions options;
   options.counterFrequency = 3;  // the counter ticks three times a second
   hyksim::HostStart(options);
   LoadNew();
   Var<uint32_t>("startOutageTime") = 2;
   hyksim::AdvanceClock(9500000);
   Check(42);
   EXPECT_EQ(OutageLines("7"), 1u);
}

}  // namespace
}  // namespace lustest
