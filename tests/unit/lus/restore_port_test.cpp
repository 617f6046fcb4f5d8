// Tests of restoring one port: the classic restore (lusRestore and the
// edition-migration visitor), the dual-load restore and the pull restore.
#include <condition_variable>
#include <mutex>
#include <thread>

#include "save_fixture.h"

namespace lustest {
namespace {

class RestorePortTest : public SaveRestoreTest {};

TEST_F(RestorePortTest, UnblockEventHandsTheSavedBytesToTheNewClientAndUnblocks) {
   LoadNew();
   auto fw = Pair("fw", [](TestClientConfig &c) { c.stateSize = 80; });
   auto ports = MakePortset("ps0", 2);
   SaveClassic({"ps0"}, ports, {fw});
   hyksim::AdvanceClock(3000000);
   ASSERT_EQ(PostUnblock("ps0", ports[0]), HYK_OK);
   EXPECT_EQ(fw.to->restored.at(ports[0]), fw.from->saved.at(ports[0]));
   EXPECT_EQ(fw.to->restored.at(ports[0]).size(), 80u);
   EXPECT_FALSE(Blocked(ports[0]));
   EXPECT_TRUE(Blocked(ports[1]));
   EXPECT_EQ(FindV0("vm-0", 0, "fw"), nullptr);
   EXPECT_EQ(ClientStateBytes(), 80u);
   std::string id = std::to_string(ports[0]), hex = Hex(ports[0]);
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusRestore", "Restoring LUS data on PortID: 0x" + hex +
                                                           " (" + id +
                                                           ") restoreEvent: 0x1 , requiredRestoreEvent: 0x1"),
                              3),
             1u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusRestore", "PortID: " + id +
                                                           " client: fw Runtime state Restore SUCCESS "),
                              3),
             1u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("LUS_CheckOutage", "Port 0x" + hex +
                                                                " LUS block outage in Seconds: 3"),
                              3),
             1u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusRestore", "Custom Unblock port: 0x" + hex + " (" +
                                                           id + ")"),
                              3),
             1u);
}

// Two events for one port at once: the second finds the first client's
// record claimed by the first event's restore, restores the other client
// and leaves the port blocked; the first event unblocks it when its restore
// ends.  (Had the second unblocked, traffic would flow into a first client
// that has not got its state back yet.)
TEST_F(RestorePortTest, AnEventThatFindsARecordClaimedLeavesThePortToTheRestoreUnderWay) {
   LoadNew();
   auto fw = Pair("fw");
   auto vs = Pair("vs");
   auto ports = MakePortset("ps0", 1);
   SaveClassic({"ps0"}, ports, {fw, vs});
   std::mutex mu;
   std::condition_variable cv;
   bool inside = false, release = false;
   for (TestClient *c : {fw.to, vs.to}) {
      c->config().onCall = [&](Slot slot) {
         if (slot != kRuntimeRestore) {
            return;
         }
         std::unique_lock<std::mutex> lk(mu);
         if (inside) {
            return;  // only the first restore to start is held
         }
         inside = true;
         cv.notify_all();
         cv.wait(lk, [&] { return release; });
      };
   }
   hyk_Status firstStatus = HYK_FAILURE;
   std::thread first([&] { firstStatus = PostUnblock("ps0", ports[0]); });
   {
      std::unique_lock<std::mutex> lk(mu);
      cv.wait(lk, [&] { return inside; });
   }
   EXPECT_EQ(PostUnblock("ps0", ports[0]), HYK_OK);
   EXPECT_TRUE(Blocked(ports[0]));
   {
      std::lock_guard<std::mutex> lk(mu);
      release = true;
   }
   cv.notify_all();
   first.join();
   EXPECT_EQ(firstStatus, HYK_OK);
   EXPECT_FALSE(Blocked(ports[0]));
   EXPECT_EQ(fw.to->restored.at(ports[0]), fw.from->saved.at(ports[0]));
   EXPECT_EQ(vs.to->restored.at(ports[0]), vs.from->saved.at(ports[0]));
}

TEST_F(RestorePortTest, RecordAwaitingBothEventsIsRestoredOnlyWhenTheEnableEventArrives) {
   LoadNew();
   auto fw = Pair("fw", [](TestClientConfig &c) { c.legacyEdition = true; });
   auto ports = MakePortset("ps0", 2);
   SaveClassic({"ps0"}, ports, {fw}, 1);
   ASSERT_EQ(FindV0("vm-0", 0, "fw")->requiredRestoreEvent, 0x3u);
   ASSERT_EQ(PostUnblock("ps0", ports[0]), HYK_OK);
   EXPECT_EQ(fw.to->Calls(kRuntimeRestore), 0u);
   EXPECT_FALSE(Blocked(ports[0]));  // unblocked all the same
   LusInstance *rec = FindV0("vm-0", 0, "fw");
   ASSERT_NE(rec, nullptr);
   EXPECT_EQ(rec->requiredRestoreEvent, 0x2u);
   EXPECT_NE(rec->state, nullptr);
   EXPECT_EQ(CountModuleLines(".*LUS block outage.*"), 0u);

   ASSERT_EQ(hyksim::EnablePort(ports[0]), HYK_OK);
   EXPECT_EQ(fw.to->Calls(kRuntimeRestore), 1u);
   EXPECT_EQ(fw.to->restored.at(ports[0]), fw.from->saved.at(ports[0]));
   EXPECT_EQ(FindV0("vm-0", 0, "fw"), nullptr);
   EXPECT_EQ(CountModuleLines(".*LUS block outage.*"), 1u);
}

// The mirror case: the enable event first.  A record that still waits for
// an event of its own does not hold the port; only one that was due and
// kept its state (a failed restore) would.
TEST_F(RestorePortTest, RecordAwaitingTheUnblockEventDoesNotHoldThePortWhenEnabledFirst) {
   LoadNew();
   auto fw = Pair("fw", [](TestClientConfig &c) { c.legacyEdition = true; });
   auto ports = MakePortset("ps0", 2);
   SaveClassic({"ps0"}, ports, {fw}, 1);
   ASSERT_EQ(FindV0("vm-0", 0, "fw")->requiredRestoreEvent, 0x3u);
   ASSERT_EQ(hyksim::EnablePort(ports[0]), HYK_OK);
   EXPECT_EQ(fw.to->Calls(kRuntimeRestore), 0u);
   LusInstance *rec = FindV0("vm-0", 0, "fw");
   ASSERT_NE(rec, nullptr);
   EXPECT_EQ(rec->requiredRestoreEvent, 0x1u);
   EXPECT_NE(rec->state, nullptr);
   EXPECT_FALSE(Blocked(ports[0]));

   ASSERT_EQ(PostUnblock("ps0", ports[0]), HYK_OK);
   EXPECT_EQ(fw.to->restored.at(ports[0]), fw.from->saved.at(ports[0]));
   EXPECT_EQ(FindV0("vm-0", 0, "fw"), nullptr);
}

TEST_F(RestorePortTest, ContainerPortIsUnblockedWithoutLookupOtherTypesAreLeftAlone) {
   LoadNew();
   auto fw = Pair("fw");
   auto ports = MakePortset("ps0", 1);
   hyksim::PortSpec container;
   container.clientType = HYK_PORT_CLIENT_CONTAINER;
   hyksim::PortSpec uplink;
   uplink.clientType = HYK_PORT_CLIENT_UPLINK;
   hyk_PortID c = 0, u = 0;
   ASSERT_EQ(hyksim::AddPort("ps0", container, &c), HYK_OK);
   ASSERT_EQ(hyksim::AddPort("ps0", uplink, &u), HYK_OK);
   SaveClassic({"ps0"}, {ports[0], c, u}, {fw});
   uint64_t uuidReads = hyksim::CallCount("hyk_PortGetVMUUID");

   EXPECT_EQ(RestorePort(c, 0x1), HYK_OK);
   EXPECT_FALSE(Blocked(c));
   EXPECT_EQ(hyksim::CallCount("hyk_PortGetVMUUID"), uuidReads);
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusRestore", "lusRestore Container port " +
                                                           std::to_string(c)),
                              3),
             1u);

   EXPECT_EQ(RestorePort(u, 0x1), HYK_OK);
   EXPECT_TRUE(Blocked(u));
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusRestore", "Custom Unblock port: 0x" + Hex(u) + " (" +
                                                           std::to_string(u) + ")")),
             0u);
   EXPECT_EQ(fw.to->Calls(kRuntimeRestore), 0u);
   EXPECT_EQ(Var<uint64_t>("already_called"), 0u);  // the vNIC's record is still waiting
}

TEST_F(RestorePortTest, PortUnknownToTheMapIsNotUnblockedByTheClassicRestore) {
   LoadNew();
   auto fw = Pair("fw");
   auto ports = MakePortset("ps0", 1);
   SaveClassic({"ps0"}, ports, {fw});
   hyk_PortID late = AddVnicPort("ps0", "vm-late", 0);
   ASSERT_EQ(AsLus([&] { return hyk_PortCustomBlock(late, 0x2000, 0); }), HYK_OK);
   EXPECT_EQ(RestorePort(late, 0x1), HYK_OK);
   EXPECT_TRUE(Blocked(late));
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusRestore", "PortID 0x" + Hex(late) +
                                                           " not part of LUS hash. SKIP LUS Restore"),
                              3),
             1u);
}

TEST_F(RestorePortTest, PortUnknownToTheMapIsUnblockedByTheDualLoadRestore) {
   LoadNew();
   Pair("fw", [](TestClientConfig &c) { c.upgradePhase = LUS_PHASE_PORT; });
   MakePortset("ps0", 1);
   EnrolV1("ps0");
   hyk_PortID late = AddVnicPort("ps0", "vm-late", 0);
   ASSERT_EQ(AsLus([&] { return hyk_PortCustomBlock(late, 0x2000, 0); }), HYK_OK);
   EXPECT_EQ(RestoreV1(late), HYK_OK);
   EXPECT_FALSE(Blocked(late));
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusRestoreV1", "Custom Unblock port: 0x" + Hex(late) +
                                                             " (" + std::to_string(late) + ")"),
                              3),
             1u);
}

TEST_F(RestorePortTest, LastRecordDeletedClearsTheClientsInTheSameCall) {
   LoadNew();
   auto fw = Pair("fw");
   auto ports = MakePortset("ps0", 2);
   SaveClassic({"ps0"}, ports, {fw});
   ASSERT_EQ(RestorePort(ports[0], 0x1), HYK_OK);
   EXPECT_EQ(Var<uint64_t>("already_called"), 0u);
   EXPECT_EQ(Var<int32_t>("numToClients"), 1);
   ASSERT_EQ(RestorePort(ports[1], 0x1), HYK_OK);
   EXPECT_EQ(Var<uint64_t>("already_called"), 1u);
   EXPECT_EQ(Var<int32_t>("numToClients"), 0);
   EXPECT_EQ(fw.to->handle(), nullptr);
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusRestore",
                                          "LUS Hash is Empty, Unregistering LUS Clients ..."),
                              3),
             1u);
   EXPECT_EQ(hyksim::FindModule(fw.to->config().moduleName)->useCount, 0u);
}

TEST_F(RestorePortTest, EditionMigrationVisitorSucceedsEvenWhenItsPortFails) {
   LoadNew();
   auto fw = Pair("fw");
   auto ports = MakePortset("ps0", 1);
   SaveClassic({"ps0"}, ports, {fw});
   fw.to->config().result[kRuntimeRestore] = HYK_FAILURE;
   EXPECT_EQ(Visit("lusRestoreV2T", ports[0]), HYK_OK);
   EXPECT_EQ(fw.to->Calls(kRuntimeRestore), 1u);
   EXPECT_TRUE(Blocked(ports[0]));
   LusInstance *rec = FindV0("vm-0", 0, "fw");
   ASSERT_NE(rec, nullptr);
   EXPECT_NE(rec->state, nullptr);  // the failed record keeps its buffer
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lusRestore", 1,
                                              "Restore Runtime State FAIL for client fw : Failure"),
                              1),
             1u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusRestoreV2T", "LUS restore for portID " +
                                                              std::to_string(ports[0]) +
                                                              ", status = Failure"),
                              3),
             1u);
}

TEST_F(RestorePortTest, FailureAfterAnEarlierClientWasRestoredStillAccountsTheOutage) {
   LoadNew();
   auto alpha = Pair("alpha");
   auto beta = Pair("beta", [](TestClientConfig &c) { c.result[kRuntimeRestore] = HYK_BUSY; });
   auto ports = MakePortset("ps0", 1);
   SaveClassic({"ps0"}, ports, {alpha, beta});
   EXPECT_EQ(RestorePort(ports[0], 0x1), HYK_BUSY);
   EXPECT_EQ(alpha.to->restored.at(ports[0]), alpha.from->saved.at(ports[0]));
   EXPECT_EQ(FindV0("vm-0", 0, "alpha"), nullptr);
   EXPECT_NE(FindV0("vm-0", 0, "beta"), nullptr);
   EXPECT_TRUE(Blocked(ports[0]));
   EXPECT_EQ(CountModuleLines(PlainLineRe("LUS_CheckOutage", "Port 0x" + Hex(ports[0]) +
                                                                " LUS block outage in Seconds: 0"),
                              3),
             1u);
}

TEST_F(RestorePortTest, RecordWithoutAToBuildClientIsABadParameter) {
   LoadNew();
   auto fw = Pair("fw");
   auto ports = MakePortset("ps0", 1);
   SaveClassic({"ps0"}, ports, {fw});
   FindV0("vm-0", 0, "fw")->toClient = nullptr;
   EXPECT_EQ(RestorePort(ports[0], 0x1), HYK_BAD_PARAM);
   EXPECT_TRUE(Blocked(ports[0]));
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lusRestore", 7, "ClientInfo is invalid : Bad parameter"),
                              1),
             1u);
}

TEST_F(RestorePortTest, ClientWithoutRestoreCallbackIsSkippedAndItsBufferFreed) {
   LoadNew();
   auto fw = Pair("fw");
   auto ports = MakePortset("ps0", 1);
   SaveClassic({"ps0"}, ports, {fw});
   fw.to->handle()->ops.runtimeRestore = nullptr;
   EXPECT_EQ(RestorePort(ports[0], 0x1), HYK_OK);
   EXPECT_EQ(ClientStateBytes(), 0u);
   EXPECT_FALSE(Blocked(ports[0]));
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusRestore", "PortID: " + std::to_string(ports[0]) +
                                                           " client: fw Skipping Runtime state Restore"),
                              3),
             1u);
}

// ---- dual-load restore -------------------------------------------------------------------

class DualLoadRestoreTest : public SaveRestoreTest {
  protected:
   // Port-phase clients enrolled on ps0 and each port saved on its own.
   std::vector<hyk_PortID> SavePortPhase(int n) {
      auto ports = MakePortset("ps0", n);
      EnrolV1("ps0");
      for (hyk_PortID p : ports) {
         LusPortInstV1 *entry = PortV1("lusPerPortHashMap", p);
         EXPECT_NE(entry, nullptr);
         AsLus([&] { LusFn<PerPortSaveFn>("LUSPerPortUpgradeSave")(entry); });
      }
      return ports;
   }
   static void PortPhase(TestClientConfig &c) { c.upgradePhase = LUS_PHASE_PORT; }
};

TEST_F(DualLoadRestoreTest, EveryClientIsRestoredTheRecordsStayAndThePortIsUnblocked) {
   LoadNew(5);
   auto a = Pair("alpha", PortPhase);
   auto b = Pair("beta", [](TestClientConfig &c) {
      c.upgradePhase = LUS_PHASE_PORT;
      c.stateSize = 12;
   });
   auto ports = SavePortPhase(1);
   ASSERT_TRUE(Blocked(ports[0]));
   EXPECT_EQ(AsLus([&] { return LusFn<VisitorFn>("LUS_RestoreDualLoad")(nullptr, ports[0], nullptr); }),
             HYK_OK);
   EXPECT_EQ(a.to->restored.at(ports[0]), a.from->saved.at(ports[0]));
   EXPECT_EQ(b.to->restored.at(ports[0]), b.from->saved.at(ports[0]));
   EXPECT_FALSE(Blocked(ports[0]));
   LusPortInstV1 *entry = PortV1("lusPerPortHashMap", ports[0]);
   ASSERT_NE(entry, nullptr);
   EXPECT_EQ(RecordV1(entry, "alpha")->state, nullptr);
   EXPECT_EQ(RecordV1(entry, "beta")->stateLen, 0u);
   EXPECT_EQ(ClientStateBytes(), 0u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusRestoreV1", "PortID: " + std::to_string(ports[0]) +
                                                             " client: beta Runtime state Restore SUCCESS "),
                              5),
             1u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusRestoreV1", "Restoring LUS data on PortID: 0x" +
                                                             Hex(ports[0]) + " (" +
                                                             std::to_string(ports[0]) + ") "),
                              5),
             1u);
}

TEST_F(DualLoadRestoreTest, FailingClientDropsThePortAndLeavesItBlocked) {
   LoadNew();
   auto fw = Pair("fw", [](TestClientConfig &c) {
      c.upgradePhase = LUS_PHASE_PORT;
      c.result[kRuntimeRestore] = HYK_TIMEOUT;
   });
   auto ports = SavePortPhase(1);
   EXPECT_EQ(RestoreV1(ports[0]), HYK_OK);
   EXPECT_TRUE(Blocked(ports[0]));
   EXPECT_EQ(PortV1("lusPerPortHashMap", ports[0]), nullptr);
   EXPECT_EQ(ClientStateBytes(), 0u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lusRestoreV1", 10,
                                              "Restore Runtime State FAIL for client fw : Timeout"),
                              1),
             1u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusRestoreV1", "runtimeRestore FAILED on portID 0x" +
                                                             Hex(ports[0]) + " (" +
                                                             std::to_string(ports[0]) + ") ..."),
                              3),
             1u);
   (void)fw;
}

// ---- pull restore ----------------------------------------------------------------------------

class PullRestoreTest : public DualLoadRestoreTest {};

TEST_F(PullRestoreTest, PortIsUnblockedWhenTheLastClientHasPulledItsState) {
   LoadNew(5);
   auto a = Pair("alpha", PortPhase);
   auto b = Pair("beta", PortPhase);
   auto ports = SavePortPhase(1);
   LusPortInstV1 *entry = PortV1("lusPerPortHashMap", ports[0]);

   PullRestore(a.to, "alpha", ports[0]);
   EXPECT_EQ(a.to->restored.at(ports[0]), a.from->saved.at(ports[0]));
   EXPECT_EQ(b.to->Calls(kRuntimeRestore), 0u);
   EXPECT_TRUE(Blocked(ports[0]));  // beta's state still waits
   EXPECT_EQ(entry->valid, 1u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusGetRestoreState", "LUS restored state for client alpha port 0x" +
                                                                   Hex(ports[0])),
                              5),
             1u);

   PullRestore(b.to, "beta", ports[0]);
   EXPECT_EQ(b.to->restored.at(ports[0]), b.from->saved.at(ports[0]));
   EXPECT_FALSE(Blocked(ports[0]));
   EXPECT_EQ(entry->valid, 0u);
   EXPECT_EQ(ClientStateBytes(), 0u);
   EXPECT_EQ(AsLus([] { return LusFn<StatusFn>("LUS_StateRestoreComplete")(); }), HYK_OK);

   // A late pull finds the port done.
   PullRestore(a.to, "alpha", ports[0]);
   EXPECT_EQ(a.to->Calls(kRuntimeRestore), 1u);
}

TEST_F(PullRestoreTest, FailedPullDropsEveryClientsStateAndKeepsThePortBlocked) {
   LoadNew();
   auto a = Pair("alpha", [](TestClientConfig &c) {
      c.upgradePhase = LUS_PHASE_PORT;
      c.result[kRuntimeRestore] = HYK_FAILURE;
   });
   auto b = Pair("beta", PortPhase);  // newer, so met first in the port's list
   auto ports = SavePortPhase(1);
   LusPortInstV1 *entry = PortV1("lusPerPortHashMap", ports[0]);
   PullRestore(a.to, "alpha", ports[0]);
   EXPECT_EQ(a.to->Calls(kRuntimeRestore), 1u);
   EXPECT_EQ(ClientStateBytes(), 0u);
   EXPECT_EQ(RecordV1(entry, "beta")->stateLen, 0u);
   EXPECT_TRUE(Blocked(ports[0]));
   EXPECT_EQ(entry->valid, 1u);  // beta was still pending when alpha failed
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lusGetRestoreState", 1,
                                              "Restore Runtime state FAIL for client alpha port 0x" +
                                                 Hex(ports[0]) + " : Failure"),
                              1),
             1u);
   (void)b;
}

TEST_F(PullRestoreTest, FailedPullOfTheOnlyPendingClientEndsThePort) {
   LoadNew();
   auto a = Pair("alpha", [](TestClientConfig &c) {
      c.upgradePhase = LUS_PHASE_PORT;
      c.result[kRuntimeRestore] = HYK_FAILURE;
   });
   auto ports = SavePortPhase(1);
   PullRestore(a.to, "alpha", ports[0]);
   EXPECT_EQ(PortV1("lusPerPortHashMap", ports[0])->valid, 0u);
   EXPECT_TRUE(Blocked(ports[0]));
}

TEST_F(PullRestoreTest, NothingIsPulledOnceTheClientsAreUnregistered) {
   LoadNew();
   auto a = Pair("alpha", PortPhase);
   auto ports = SavePortPhase(1);
   Var<uint8_t>("lusClientsUnregistered") = 1;
   PullRestore(a.to, "alpha", ports[0]);
   EXPECT_EQ(a.to->Calls(kRuntimeRestore), 0u);
   EXPECT_TRUE(Blocked(ports[0]));
   EXPECT_EQ(AsLus([] { return LusFn<StatusFn>("LUS_StateRestoreComplete")(); }), HYK_NO_DATA);
}

TEST_F(PullRestoreTest, PortsetThatCannotBeAcquiredIsReported) {
   LoadNew();
   auto a = Pair("alpha", PortPhase);
   auto ports = SavePortPhase(1);
   hyksim::InjectFault({.op = "hyk_PortsetAcquireByPortID", .status = HYK_NOT_FOUND, .nth = 1});
   PullRestore(a.to, "alpha", ports[0]);
   EXPECT_EQ(a.to->Calls(kRuntimeRestore), 0u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lusGetRestoreState", 3,
                                              "Error acquiring portset for portId 0x" +
                                                 Hex(ports[0]) + " : Not found"),
                              1),
             1u);
}

}  // namespace
}  // namespace lustest
