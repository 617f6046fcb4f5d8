// Tests of the restore-trigger subscriptions and their withdrawal.
#include "lus_fixture.h"

namespace lustest {
namespace {

using RestoreSubscriptionTest = LusTest;

size_t LusSubscriptions() {
   size_t n = 0;
   for (auto &s : hyksim::Subscriptions()) {
      if (s.module == LusID()) {
         n++;
      }
   }
   return n;
}

TEST_F(RestoreSubscriptionTest, SubscribeTakesBothEvents) {
   Load();
   ASSERT_EQ(AsLus([] { return LusFn<SubscribeFn>("LUS_Subscribe")(); }), HYK_OK);
   EXPECT_NE(Var<hyk_NetEventHandle>("lusRestoreEventHandle"), 0u);
   EXPECT_NE(Var<hyk_NetEventHandle>("lusPortEnableEventHandle"), 0u);
   bool unblock = false, enable = false;
   for (auto &s : hyksim::Subscriptions()) {
      if (s.module != LusID()) continue;
      unblock |= s.event == "com.corvid.tarn.kcp.port.unblock" && !s.portEvent;
      enable |= s.event == "port.state.enable" && s.portEvent;
   }
   EXPECT_TRUE(unblock);
   EXPECT_TRUE(enable);
   ASSERT_EQ(UnloadLus(), HYK_OK);
   EXPECT_EQ(hyksim::LogCount("left its subscription"), 0u);
}

TEST_F(RestoreSubscriptionTest, FailedPortEnableSubscriptionLeavesBothHandlesZero) {
   Load();
   hyksim::FaultSpec desc;
   desc.op = "hyk_NetEventPortEventSubscribe";
   desc.nth = 1;
   desc.status = HYK_NOT_FOUND;
   hyksim::InjectFault(desc);
   EXPECT_EQ(AsLus([] { return LusFn<SubscribeFn>("LUS_Subscribe")(); }), HYK_NOT_FOUND);
   EXPECT_EQ(Var<hyk_NetEventHandle>("lusRestoreEventHandle"), 0u);
   EXPECT_EQ(Var<hyk_NetEventHandle>("lusPortEnableEventHandle"), 0u);
   EXPECT_EQ(LusSubscriptions(), 0u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_Subscribe", 3, "Failed to subscribe to event port.state.enable : Not found"), 1), 1u);
}

TEST_F(RestoreSubscriptionTest, FailedUnblockSubscriptionStopsBeforeTheSecond) {
   Load();
   hyksim::FaultSpec desc;
   desc.op = "hyk_NetEventPortsetEventSubscribe";
   desc.nth = 1;
   desc.status = HYK_NAME_TOO_LONG;
   hyksim::InjectFault(desc);
   EXPECT_EQ(AsLus([] { return LusFn<SubscribeFn>("LUS_Subscribe")(); }), HYK_NAME_TOO_LONG);
   EXPECT_EQ(hyksim::CallCount("hyk_NetEventPortEventSubscribe"), 0u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_Subscribe", 13,
                 "Failed to subscribe to event com.corvid.tarn.kcp.port.unblock : Name too long"), 1), 1u);
}

TEST_F(RestoreSubscriptionTest, UndoFailureKeepsTheFirstHandleAndReturnsTheSecondStatus) {
   Load();
   hyksim::FaultSpec desc;
   desc.op = "hyk_NetEventPortEventSubscribe";
   desc.nth = 1;
   desc.status = HYK_NOT_FOUND;
   hyksim::InjectFault(desc);
   hyksim::FaultSpec undo;
   undo.op = "hyk_NetEventPortsetEventUnsubscribe";
   undo.nth = 1;
   undo.status = HYK_INVALID_HANDLE;
   hyksim::InjectFault(undo);
   EXPECT_EQ(AsLus([] { return LusFn<SubscribeFn>("LUS_Subscribe")(); }), HYK_NOT_FOUND);
   EXPECT_NE(Var<hyk_NetEventHandle>("lusRestoreEventHandle"), 0u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_Subscribe", 8,
                 "Failed to unsubscribe event com.corvid.tarn.kcp.port.unblock : Invalid handle"), 1), 1u);
}

TEST_F(RestoreSubscriptionTest, UnsubscribeIsIndependentPerHandleAndSafeTwice) {
   Load();
   ASSERT_EQ(AsLus([] { return LusFn<SubscribeFn>("LUS_Subscribe")(); }), HYK_OK);
   hyksim::FaultSpec desc;
   desc.op = "hyk_NetEventPortsetEventUnsubscribe";
   desc.nth = 1;
   desc.status = HYK_INVALID_HANDLE;
   hyksim::InjectFault(desc);
   AsLus([] { LusFn<UnsubscribeFn>("LUS_Unsubscribe")(); });
   EXPECT_NE(Var<hyk_NetEventHandle>("lusRestoreEventHandle"), 0u);
   EXPECT_EQ(Var<hyk_NetEventHandle>("lusPortEnableEventHandle"), 0u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_Unsubscribe", 8,
                 "Failed to unsubscribe to event TARN_KCP_PORT_UNBLOCK : Invalid handle"), 1), 1u);
   AsLus([] { LusFn<UnsubscribeFn>("LUS_Unsubscribe")(); });
   EXPECT_EQ(Var<hyk_NetEventHandle>("lusRestoreEventHandle"), 0u);
   EXPECT_EQ(LusSubscriptions(), 0u);
   AsLus([] { LusFn<UnsubscribeFn>("LUS_Unsubscribe")(); });
   EXPECT_EQ(hyksim::CallCount("hyk_NetEventPortsetEventUnsubscribe"), 2u);
}

TEST_F(RestoreSubscriptionTest, UnblockEventWithoutDataIsRefused) {
   Load({"fromBuild=1000"});
   ASSERT_EQ(AsLus([] { return LusFn<SubscribeFn>("LUS_Subscribe")(); }), HYK_OK);
   EXPECT_EQ(hyksim::PostGlobalEvent("com.corvid.tarn.kcp.port.unblock", nullptr, 0), HYK_BAD_PARAM);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lusRestoreEventCB", 7, "Invalid portID, cannot restore : Bad parameter"), 1), 1u);
}

}  // namespace
}  // namespace lustest
