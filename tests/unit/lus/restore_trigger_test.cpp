// Tests of what starts a restore and of the whole-upgrade hooks around it:
// the restore events, the edition migration, the dual-load notice and the
// check for state still waiting.
#include "save_fixture.h"

namespace lustest {
namespace {

class RestoreTriggerTest : public SaveRestoreTest {};

TEST_F(RestoreTriggerTest, FailedPortEnableSubscriptionAtRegistrationLeavesBothHandlesZero) {
   LoadNew();
   Pair("fw");
   MakePortset("ps0", 1);
   SetPortsets({"ps0"});
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   hyksim::InjectFault({.op = "hyk_NetEventPortEventSubscribe", .status = HYK_NO_RESOURCES, .nth = 1});
   EXPECT_EQ(Reg(0, LUS_REG_FROM), HYK_NO_RESOURCES);
   EXPECT_EQ(Var<hyk_NetEventHandle>("lusRestoreEventHandle"), 0u);
   EXPECT_EQ(Var<hyk_NetEventHandle>("lusPortEnableEventHandle"), 0u);
   for (auto &s : hyksim::Subscriptions()) {
      EXPECT_NE(s.module, LusID()) << s.event;
   }
}

TEST_F(RestoreTriggerTest, UnblockEventWithoutDataIsRefusedAndRestoresNothing) {
   LoadNew();
   auto fw = Pair("fw");
   auto ports = MakePortset("ps0", 1);
   SaveClassic({"ps0"}, ports, {fw});
   EXPECT_EQ(hyksim::PostPortsetEvent("ps0", "com.corvid.tarn.kcp.port.unblock", nullptr, 0),
             HYK_BAD_PARAM);
   EXPECT_EQ(fw.to->Calls(kRuntimeRestore), 0u);
   EXPECT_TRUE(Blocked(ports[0]));
   EXPECT_NE(FindV0("vm-0", 0, "fw"), nullptr);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lusRestoreEventCB", 7,
                                              "Invalid portID, cannot restore : Bad parameter"),
                              1),
             1u);
   // The same event with its port restores it.
   EXPECT_EQ(PostUnblock("ps0", ports[0]), HYK_OK);
   EXPECT_EQ(fw.to->Calls(kRuntimeRestore), 1u);
}

TEST_F(RestoreTriggerTest, StateRestoreCompleteIsSuccessOnAnEmptyMapAndNoDataWithOneBufferLeft) {
   LoadNew();
   auto complete = [] { return AsLus([] { return LusFn<StatusFn>("LUS_StateRestoreComplete")(); }); };
   EXPECT_EQ(complete(), HYK_OK);  // no map at all
   auto a = Pair("alpha", [](TestClientConfig &c) { c.upgradePhase = LUS_PHASE_PORT; });
   auto ports = MakePortset("ps0", 3);
   ASSERT_EQ(Reg(0, LUS_REG_FROM_V1), HYK_OK);
   ASSERT_EQ(Reg(0, LUS_REG_TO_V1), HYK_OK);
   EXPECT_EQ(complete(), HYK_OK);  // empty map
   ASSERT_EQ(AsLus([] { return LusFn<PortsetNameFn>("LUS_ClientRegAllPS")("ps0"); }), HYK_OK);
   EXPECT_EQ(complete(), HYK_OK);  // records without state
   LusPortInstV1 *last = PortV1("lusPerPortHashMap", ports[2]);
   AsLus([&] { LusFn<PerPortSaveFn>("LUSPerPortUpgradeSave")(last); });
   EXPECT_EQ(complete(), HYK_NO_DATA);
   PullRestore(a.to, "alpha", ports[2]);
   EXPECT_EQ(complete(), HYK_OK);
}

TEST_F(RestoreTriggerTest, PreDualLoadStopsAtTheFirstFailingClientAndPassesOverTheOthersSilently) {
   LoadNew();
   auto a = Pair("alpha");
   auto b = Pair("beta", [](TestClientConfig &c) { c.slots[kPreDualLoad] = false; });
   auto g = Pair("gamma");
   auto d = Pair("delta", [](TestClientConfig &c) { c.result[kPreDualLoad] = HYK_BUSY; });
   auto e = Pair("epsilon");
   ASSERT_EQ(Reg(0, LUS_REG_FROM_V1), HYK_OK);
   g.from->handle()->inUse = 0;
   EXPECT_EQ(AsLus([] { return LusFn<StatusFn>("LUS_PreDualLoad")(); }), HYK_BUSY);
   g.from->handle()->inUse = 1;
   EXPECT_EQ(a.from->Calls(kPreDualLoad), 1u);
   EXPECT_EQ(b.from->Calls(kPreDualLoad), 0u);
   EXPECT_EQ(g.from->Calls(kPreDualLoad), 0u);
   EXPECT_EQ(d.from->Calls(kPreDualLoad), 1u);
   EXPECT_EQ(e.from->Calls(kPreDualLoad), 0u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("LUS_PreDualLoad", "Calling PreDualLoad cleanup for Module alpha"), 3),
             1u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_PreDualLoad", 4,
                                              "preDualLoadCB FAIL for client delta : Busy"),
                              1),
             1u);
   EXPECT_EQ(CountModuleLines("^LUS_PreDualLoad:.*(beta|gamma|epsilon).*"), 0u);
   // The new build's clients are not asked.
   EXPECT_EQ(a.to->Calls(kPreDualLoad), 0u);
}

TEST_F(RestoreTriggerTest, PreDualLoadWithoutClientsSucceeds) {
   LoadNew();
   EXPECT_EQ(AsLus([] { return LusFn<StatusFn>("LUS_PreDualLoad")(); }), HYK_OK);
}

TEST_F(RestoreTriggerTest, EditionMigrationRestoresEveryPortWithBothEventsCounted) {
   LoadNew();
   auto fw = Pair("fw", [](TestClientConfig &c) { c.legacyEdition = true; });
   auto p0 = MakePortset("ps0", 2);
   auto p1 = MakePortset("ps1", 2, 10);
   std::vector<hyk_PortID> all = p0;
   all.insert(all.end(), p1.begin(), p1.end());
   SetPortsets({"ps0", "ps1"});
   ASSERT_EQ(Reg(1, LUS_REG_TO), HYK_OK);
   BlockPorts(all);
   ASSERT_EQ(Save(1), HYK_OK);
   ASSERT_EQ(fw.from->Unload(), HYK_OK);
   ASSERT_EQ(AsLus([] { return LusFn<EditionRestoreFn>("LUS_Restore")(1); }), HYK_OK);
   for (hyk_PortID p : all) {
      EXPECT_EQ(fw.to->restored.at(p), fw.from->saved.at(p)) << p;
      EXPECT_FALSE(Blocked(p)) << p;
   }
   EXPECT_EQ(ClientStateBytes(), 0u);
   EXPECT_EQ(Var<LusHashMap *>("lusHashMap")->count, 0u);
   EXPECT_EQ(fw.to->handle(), nullptr);
   EXPECT_EQ(Var<uint8_t>("lusTARNJRegistered"), 0u);
   EXPECT_EQ(hyksim::LogCount("LUS Unregistration FAIL"), 0u);
}

// Records left (a portset not listed this time) keep the clients; the final
// unregistration then fails, and that is what the command answers.
TEST_F(RestoreTriggerTest, EditionMigrationReportsAFailedFinalUnregistration) {
   LoadNew();
   auto fw = Pair("fw", [](TestClientConfig &c) { c.legacyEdition = true; });
   auto p0 = MakePortset("ps0", 1);
   auto p1 = MakePortset("ps1", 1, 10);
   SetPortsets({"ps0", "ps1"});
   ASSERT_EQ(Reg(1, LUS_REG_TO), HYK_OK);
   BlockPorts({p0[0], p1[0]});
   ASSERT_EQ(Save(1), HYK_OK);
   ASSERT_EQ(fw.from->Unload(), HYK_OK);
   SetPortsets({"ps0"});
   // The registration inside posts first; the unregistration at the end second.
   hyksim::InjectFault({.op = "hyk_NetEventPost", .status = HYK_LIMIT_EXCEEDED, .nth = 2});
   EXPECT_EQ(AsLus([] { return LusFn<EditionRestoreFn>("LUS_Restore")(1); }), HYK_LIMIT_EXCEEDED);
   EXPECT_EQ(fw.to->restored.count(p0[0]), 1u);
   EXPECT_EQ(fw.to->restored.count(p1[0]), 0u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_Restore", HYK_LIMIT_EXCEEDED & 0xffff,
                                              "LUS Unregistration FAIL : Limit exceeded"),
                              1),
             1u);
}

TEST_F(RestoreTriggerTest, EditionMigrationAbandonsAtAPortsetItCannotAcquire) {
   LoadNew();
   auto fw = Pair("fw", [](TestClientConfig &c) { c.legacyEdition = true; });
   auto ports = MakePortset("ps0", 1);
   SetPortsets({"ps0"});
   ASSERT_EQ(Reg(1, LUS_REG_TO), HYK_OK);
   ASSERT_EQ(Save(1), HYK_OK);
   // The registration inside acquires ps0 once; the walk's acquire fails.
   hyksim::InjectFault({.op = "hyk_PortsetAcquireByName", .status = HYK_NOT_FOUND, .nth = 2});
   EXPECT_EQ(AsLus([] { return LusFn<EditionRestoreFn>("LUS_Restore")(1); }), HYK_NOT_FOUND);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_Restore", 3,
                                              "Error acquiring portset during Restore ps0  : Not found"),
                              1),
             1u);
   EXPECT_EQ(fw.to->Calls(kRuntimeRestore), 0u);
   EXPECT_EQ(Var<uint64_t>("already_called"), 1u);
   EXPECT_EQ(ClientStateBytes(), 0u);
}

TEST_F(RestoreTriggerTest, EditionMigrationWithFailedRegistrationReturnsItsStatus) {
   LoadNew();
   hyksim::InjectFault({.op = "hyk_NetEventPost", .status = HYK_LIMIT_EXCEEDED, .nth = 1});
   EXPECT_EQ(AsLus([] { return LusFn<EditionRestoreFn>("LUS_Restore")(0); }), HYK_LIMIT_EXCEEDED);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_Restore", 6,
                                              "LUS Registration FAIL : Limit exceeded"),
                              1),
             1u);
}

}  // namespace
}  // namespace lustest
