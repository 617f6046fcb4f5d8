// Tests of runtime size collection: the per-port sizing visitors of the save
// command (version 0) and of the upgrade world (version 1).
#include "save_fixture.h"

namespace lustest {
namespace {

class RuntimeSizeTest : public SaveRestoreTest {};

TEST_F(RuntimeSizeTest, PortThatIsNotAVnicIsSkippedWithoutCallingAnyClient) {
   LoadNew();
   auto fw = Pair("fw");
   auto ports = MakePortset("ps0", 1);
   hyksim::PortSpec uplink;
   uplink.clientType = HYK_PORT_CLIENT_UPLINK;
   hyk_PortID up = 0;
   ASSERT_EQ(hyksim::AddPort("ps0", uplink, &up), HYK_OK);
   EnrolV0({"ps0"});
   uint64_t uuidReads = hyksim::CallCount("hyk_PortGetVMUUID");
   EXPECT_EQ(Visit("LUS_GetTotalSize", up), HYK_OK);
   EXPECT_EQ(fw.from->Calls(kGetSize), 0u);
   EXPECT_EQ(fw.from->Calls(kPrefetch), 0u);
   EXPECT_EQ(hyksim::CallCount("hyk_PortGetVMUUID"), uuidReads);
   // The vNIC port beside it is sized.
   EXPECT_EQ(Visit("LUS_GetTotalSize", ports[0]), HYK_OK);
   EXPECT_EQ(fw.from->Calls(kGetSize), 1u);
   EXPECT_EQ(FindV0("vm-0", 0, "fw")->stateLen, 64u);
}

TEST_F(RuntimeSizeTest, EmptyFromClientTableReturnsZeroWithoutReadingTheUuid) {
   LoadNew();
   auto ports = MakePortset("ps0", 1);
   ASSERT_EQ(Var<int32_t>("numFromClients"), 0);
   uint64_t types = hyksim::CallCount("hyk_PortGetClientType");
   EXPECT_EQ(Visit("LUS_GetTotalSize", ports[0]), HYK_OK);
   EXPECT_EQ(hyksim::CallCount("hyk_PortGetClientType"), types + 1);
   EXPECT_EQ(hyksim::CallCount("hyk_PortGetVMUUID"), 0u);
}

TEST_F(RuntimeSizeTest, UnreadableClientTypeFailsThePort) {
   LoadNew();
   Pair("fw");
   auto ports = MakePortset("ps0", 1);
   EnrolV0({"ps0"});
   hyksim::InjectFault({.op = "hyk_PortGetClientType", .status = HYK_NOT_FOUND, .nth = 1});
   EXPECT_EQ(Visit("LUS_GetTotalSize", ports[0]), HYK_NOT_FOUND);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_GetTotalSize", 3,
                                              "Failed to get Port Client Type : Not found"), 1),
             1u);
}

TEST_F(RuntimeSizeTest, UuidIsReadAfreshForEveryClient) {
   LoadNew();
   Pair("alpha");
   Pair("beta");
   auto ports = MakePortset("ps0", 1);
   EnrolV0({"ps0"});
   uint64_t before = hyksim::CallCount("hyk_PortGetVMUUID");
   EXPECT_EQ(Visit("LUS_GetTotalSize", ports[0]), HYK_OK);
   EXPECT_EQ(hyksim::CallCount("hyk_PortGetVMUUID"), before + 2);
   // A failing second read fails the port after the first client was sized.
   hyksim::InjectFault({.op = "hyk_PortGetVMUUID", .status = HYK_NOT_SUPPORTED, .nth = 2});
   EXPECT_EQ(Visit("LUS_GetTotalSize", ports[0]), HYK_NOT_SUPPORTED);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_GetTotalSize", 9,
                                              "Failed getting VM UUID and vNic index : Not supported"),
                              1),
             1u);
}

TEST_F(RuntimeSizeTest, NoDataFromTheLastClientFailsThePortsetWalk) {
   LoadNew();
   auto alpha = Pair("alpha");
   auto beta = Pair("beta", [](TestClientConfig &c) { c.result[kGetSize] = HYK_NO_DATA; });
   auto ports = MakePortset("ps0", 1);
   EnrolV0({"ps0"});
   EXPECT_EQ(Visit("LUS_GetTotalSize", ports[0]), HYK_NO_DATA);
   EXPECT_EQ(FindV0("vm-0", 0, "alpha")->stateLen, 64u);
   EXPECT_EQ(FindV0("vm-0", 0, "beta")->stateLen, 0u);
   EXPECT_EQ(FindV0("vm-0", 0, "beta")->stateHeap, 0u);
   // Tolerated: no failure line for it.
   EXPECT_EQ(CountModuleLines(".*Getting Runtime size FAIL.*"), 0u);
   // Through the save command the walk fails, and with it the sizing pass.
   EXPECT_EQ(AsLus([] { return LusFn<PortsetNameFn>("LUS_GetSize")("ps0"); }), HYK_NO_DATA);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_GetSize", 136,
                                              "FAILED to get total runtime data size for portset ps0 : No data available"),
                              1),
             1u);
   (void)alpha;
   (void)beta;
}

TEST_F(RuntimeSizeTest, NoDataFromAnEarlierClientIsOverwrittenByTheNext) {
   LoadNew();
   auto alpha = Pair("alpha", [](TestClientConfig &c) { c.result[kGetSize] = HYK_NO_DATA; });
   auto beta = Pair("beta");
   auto ports = MakePortset("ps0", 1);
   EnrolV0({"ps0"});
   EXPECT_EQ(Visit("LUS_GetTotalSize", ports[0]), HYK_OK);
   EXPECT_EQ(FindV0("vm-0", 0, "alpha")->stateLen, 0u);
   EXPECT_EQ(FindV0("vm-0", 0, "beta")->stateLen, 64u);
   EXPECT_EQ(alpha.from->Calls(kGetSize), 1u);
   EXPECT_EQ(beta.from->Calls(kGetSize), 1u);
}

TEST_F(RuntimeSizeTest, OtherGetSizeFailureStopsThePortWithItsStatus) {
   LoadNew();
   Pair("alpha", [](TestClientConfig &c) { c.result[kGetSize] = HYK_BUSY; });
   auto beta = Pair("beta");
   auto ports = MakePortset("ps0", 1);
   EnrolV0({"ps0"});
   EXPECT_EQ(Visit("LUS_GetTotalSize", ports[0]), HYK_BUSY);
   EXPECT_EQ(beta.from->Calls(kGetSize), 0u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_GetTotalSize", 4,
                                              "Getting Runtime size FAIL for client alpha : Busy"),
                              1),
             1u);
}

TEST_F(RuntimeSizeTest, PrefetchRunsAsTheClientBeforeGetSizeAndItsFailureStops) {
   LoadNew();
   auto fw = Pair("fw", [](TestClientConfig &c) { c.result[kPrefetch] = HYK_TIMEOUT; });
   auto ports = MakePortset("ps0", 1);
   EnrolV0({"ps0"});
   EXPECT_EQ(Visit("LUS_GetTotalSize", ports[0]), HYK_TIMEOUT);
   // The callback counted itself under its own module ID: lus pushed it.
   EXPECT_EQ(fw.from->Calls(kPrefetch), 1u);
   EXPECT_EQ(fw.from->Calls(kGetSize), 0u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("LUS_GetTotalSize",
                                          "Prefetching: Client fw portID 0x" + Hex(ports[0])),
                              3),
             1u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_GetTotalSize", 10,
                                              "Prefetch FAIL for client fw : Timeout"),
                              1),
             1u);
   EXPECT_EQ(FindV0("vm-0", 0, "fw")->stateLen, 0u);
}

// A failing prefetch stops the port there: the clients after it are not
// asked, and the failure is what the port returns.
TEST_F(RuntimeSizeTest, FailedPrefetchLeavesTheLaterClientsUnasked) {
   LoadNew();
   auto alpha = Pair("alpha", [](TestClientConfig &c) { c.result[kPrefetch] = HYK_TIMEOUT; });
   auto beta = Pair("beta");
   auto ports = MakePortset("ps0", 1);
   EnrolV0({"ps0"});
   EXPECT_EQ(Visit("LUS_GetTotalSize", ports[0]), HYK_TIMEOUT);
   EXPECT_EQ(alpha.from->Calls(kGetSize), 0u);
   EXPECT_EQ(beta.from->Calls(kPrefetch), 0u);
   EXPECT_EQ(beta.from->Calls(kGetSize), 0u);
   EXPECT_EQ(FindV0("vm-0", 0, "beta")->stateLen, 0u);
}

TEST_F(RuntimeSizeTest, MissingRecordOfASavingClientIsNotFound) {
   LoadNew();
   Pair("fw");
   MakePortset("ps0", 1);
   EnrolV0({"ps0"});
   // A vNIC port added after enrolment has no record.
   hyk_PortID late = AddVnicPort("ps0", "vm-late", 0);
   EXPECT_EQ(Visit("LUS_GetTotalSize", late), HYK_NOT_FOUND);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_GetTotalSize", 3,
                                              "Error finding LUS client fw with portID " +
                                                 std::to_string(late) + ": : Not found"),
                              1),
             1u);
}

// Rows are walked by the count: a client gone since leaves its row past the
// count, and the walk never reaches it.
TEST_F(RuntimeSizeTest, RowLeftPastTheCountIsNotWalked) {
   LoadNew();
   auto fw = Pair("fw");
   auto ports = MakePortset("ps0", 1);
   EnrolV0({"ps0"});
   RowOf(LUS_REG_FROM, "ghost");
   ASSERT_EQ(Var<int32_t>("numFromClients"), 1);
   EXPECT_EQ(Visit("LUS_GetTotalSize", ports[0]), HYK_OK);
   EXPECT_EQ(fw.from->Calls(kGetSize), 1u);
   EXPECT_EQ(hyksim::LogCount("Error finding LUS client ghost"), 0u);
}

// ---- version 1 ---------------------------------------------------------------------

TEST_F(RuntimeSizeTest, V1PortNotInTheMapReturnsZeroAndCallsNothing) {
   LoadNew();
   auto fw = Pair("fw");
   auto ports = MakePortset("ps0", 1);
   EnrolV1("ps0");
   MakePortset("ps1", 1, 10);
   hyk_PortID other = hyksim::FindPortset("ps1")->ports[0];
   EXPECT_EQ(Visit("LUS_GetTotalSizeV1", other), HYK_OK);
   EXPECT_EQ(fw.from->Calls(kGetSize), 0u);
   EXPECT_EQ(fw.from->Calls(kPrefetch), 0u);
   EXPECT_NE(PortV1("lusHashMap", ports[0]), nullptr);
}

TEST_F(RuntimeSizeTest, V1FailingClientDropsItsPortFromBothMapsAndTheWalkGoesOn) {
   LoadNew(5);
   Pair("alpha");
   auto beta = Pair("beta", [](TestClientConfig &c) {
      c.sizeForPort = [](uint32_t) { return 32u; };
   });
   auto ports = MakePortset("ps0", 3);
   EnrolV1("ps0");
   LusHashMap *psMap = Var<LusHashMap *>("lusHashMap");
   ASSERT_EQ(psMap->count, 3u);
   beta.from->config().result[kGetSize] = HYK_FAILURE;
   EXPECT_EQ(Visit("LUS_GetTotalSizeV1", ports[1]), HYK_OK);
   EXPECT_EQ(PortV1("lusHashMap", ports[1]), nullptr);
   EXPECT_EQ(PortV1("lusPerPortHashMap", ports[1]), nullptr);
   EXPECT_EQ(psMap->count, 2u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_GetTotalSizeV1", 1,
                                              "Getting Runtime size FAIL for client beta : Failure"),
                              1),
             1u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("LUS_GetTotalSizeV1",
                                          "getSize FAILED on portID 0x" + Hex(ports[1]) + " (" +
                                             std::to_string(ports[1]) + ") ..."),
                              3),
             1u);
   // The other ports are sized normally.
   beta.from->config().result[kGetSize] = HYK_OK;
   for (hyk_PortID p : {ports[0], ports[2]}) {
      EXPECT_EQ(Visit("LUS_GetTotalSizeV1", p), HYK_OK);
      EXPECT_EQ(RecordV1(PortV1("lusHashMap", p), "beta")->stateLen, 32u);
      EXPECT_EQ(RecordV1(PortV1("lusHashMap", p), "alpha")->stateLen, 64u);
      EXPECT_EQ(CountModuleLines(PlainLineRe("LUS_GetTotalSizeV1",
                                             "Runtime data: client beta, portID 0x" + Hex(p) +
                                                ", len: 32"),
                                 3),
                1u);
   }
   EXPECT_EQ(CountModuleLines(PlainLineRe("LUS_GetTotalSizeV1",
                                          "Client: beta CB duration (ms): 0 "),
                              5),
             5u);  // prefetch and getSize of two ports, prefetch of the failing one
}

// A port that has clients of both phases is in both maps; a failing size
// takes it out of both, and only it.
TEST_F(RuntimeSizeTest, V1FailingClientDropsAPortOfBothPhasesFromBothMaps) {
   LoadNew(5);
   auto alpha = Pair("alpha");
   Pair("gamma", [](TestClientConfig &c) { c.upgradePhase = LUS_PHASE_PORT; });
   auto ports = MakePortset("ps0", 2);
   EnrolV1("ps0");
   LusHashMap *psMap = Var<LusHashMap *>("lusHashMap");
   LusHashMap *portMap = Var<LusHashMap *>("lusPerPortHashMap");
   ASSERT_EQ(psMap->count, 2u);
   ASSERT_EQ(portMap->count, 2u);
   ASSERT_NE(PortV1("lusPerPortHashMap", ports[0]), nullptr);

   alpha.from->config().result[kGetSize] = HYK_FAILURE;
   EXPECT_EQ(Visit("LUS_GetTotalSizeV1", ports[0]), HYK_OK);
   EXPECT_EQ(PortV1("lusHashMap", ports[0]), nullptr);
   EXPECT_EQ(PortV1("lusPerPortHashMap", ports[0]), nullptr);
   EXPECT_EQ(psMap->count, 1u);
   EXPECT_EQ(portMap->count, 1u);
   EXPECT_NE(PortV1("lusHashMap", ports[1]), nullptr);
   EXPECT_NE(PortV1("lusPerPortHashMap", ports[1]), nullptr);
}

TEST_F(RuntimeSizeTest, V1ClientWithoutSaveCallbackFailsItsPortEvenWhenInactive) {
   LoadNew();
   Pair("fw");
   auto ports = MakePortset("ps0", 1);
   EnrolV1("ps0");
   LusClientInst *rec = RecordV1(PortV1("lusHashMap", ports[0]), "fw");
   ASSERT_NE(rec, nullptr);
   rec->fromClient->ops.getRuntimeState = nullptr;
   rec->fromClient->inUse = 0;
   EXPECT_EQ(Visit("LUS_GetTotalSizeV1", ports[0]), HYK_OK);
   EXPECT_EQ(PortV1("lusHashMap", ports[0]), nullptr);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_GetTotalSizeV1", 7,
                                              "No save CB registered for portID " +
                                                 std::to_string(ports[0]) +
                                                 " client fw : Bad parameter"),
                              1),
             1u);
}

TEST_F(RuntimeSizeTest, V1AccumulatorCountsOnlyNonZeroLengthsAndMayBeNull) {
   LoadNew();
   Pair("alpha", [](TestClientConfig &c) { c.stateSize = 100; });
   Pair("beta", [](TestClientConfig &c) { c.stateSize = 0; });
   Pair("gamma", [](TestClientConfig &c) { c.stateSize = 7; });
   auto ports = MakePortset("ps0", 2);
   EnrolV1("ps0");
   SizeTotals totals{};
   for (hyk_PortID p : ports) {
      EXPECT_EQ(Visit("LUS_GetTotalSizeV1", p, &totals), HYK_OK);
   }
   EXPECT_EQ(totals.instances, 4u);
   EXPECT_EQ(totals.bytes, 2u * 107u);
   // A null accumulator is allowed and sizes all the same.
   EXPECT_EQ(Visit("LUS_GetTotalSizeV1", ports[0], nullptr), HYK_OK);
   EXPECT_EQ(RecordV1(PortV1("lusHashMap", ports[0]), "gamma")->stateLen, 7u);
}

}  // namespace
}  // namespace lustest
