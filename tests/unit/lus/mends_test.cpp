// Behaviours of the module that close a leak, a garbled log
// line, a double pairing or a pinned module (each written down in
// docs/ARCHITECTURE.md under "The module under concurrency").
#include "world_fixture.h"

namespace lustest {
namespace {

using MendsTest = WorldTest;

// A getSize failure on a record that still holds an earlier save's buffer
// gives the buffer back before the record forgets its heap.
TEST_F(MendsTest, VersionZeroSizeFailureFreesABufferAlreadySaved) {
   LoadNew(3);
   ClientPair fw = Pair("fw", [](TestClientConfig &c) { c.stateSize = 64; });
   auto ports = MakePortset("ps0", 1);
   EnrolV0({"ps0"});
   ASSERT_EQ(Visit("LUS_GetTotalSize", ports[0]), HYK_OK);
   ASSERT_EQ(Visit("LUS_SaveState", ports[0]), HYK_OK);
   ASSERT_EQ(ClientStateBytes(), 64u);

   fw.from->config().result[kGetSize] = HYK_FAILURE;
   EXPECT_EQ(Visit("LUS_GetTotalSize", ports[0]), HYK_FAILURE);
   EXPECT_EQ(ClientStateBytes(), 0u);
   LusInstance *rec = FindV0("vm-0", 0, "fw");
   ASSERT_NE(rec, nullptr);
   EXPECT_EQ(rec->state, nullptr);
   EXPECT_EQ(rec->stateHeap, 0u);
   EXPECT_EQ(rec->stateLen, 0u);
}

TEST_F(MendsTest, VersionOneSizeFailureFreesABufferAlreadySaved) {
   LoadNew(3);
   ClientPair fw = Pair("fw", [](TestClientConfig &c) { c.stateSize = 64; });
   auto ports = MakePortset("ps0", 1);
   EnrolV1("ps0");
   ASSERT_EQ(Visit("LUS_GetTotalSizeV1", ports[0]), HYK_OK);
   ASSERT_EQ(Visit("LUS_SaveStateV1", ports[0]), HYK_OK);
   ASSERT_EQ(ClientStateBytes(), 64u);

   fw.from->config().result[kGetSize] = HYK_FAILURE;
   EXPECT_EQ(Visit("LUS_GetTotalSizeV1", ports[0]), HYK_OK);   // the port is dropped instead
   EXPECT_EQ(ClientStateBytes(), 0u);
   EXPECT_EQ(PortV1("lusHashMap", ports[0]), nullptr);
   // With its buffer given back the record holds no state, which removal reports as such.
   EXPECT_EQ(hyksim::LogCount("Client fw with no state present in clientList"), 1u);
}

// A client name of 40 characters is stored and printed as its first 32.
TEST_F(MendsTest, LongClientNamePrintsAsItsFirstThirtyTwoCharacters) {
   LoadNew(3);
   const std::string name(40, 'n');
   TestClient *c = AddClient("long_client", kToBuild, false, name);
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   ASSERT_NE(c->handle(), nullptr);
   EXPECT_EQ(c->handle()->clientNameEnd, '\0');
   ASSERT_EQ(Unreg(0), HYK_OK);
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusClientRTUnregister",
                 "Successfully unregistered: client " + name.substr(0, 32) +
                 " numFromClients 0 numToClients 0"), 3), 1u);
}

// A second pairing starts from an empty list, whatever a failed world left.
TEST_F(MendsTest, PortsetClientsInitStartsFromAnEmptyList) {
   Standard();
   RegisterBoth();
   SetPsName("dvs");
   ASSERT_EQ(AsLus([] { return LusFn<StatusFn>("LUS_PsClientsInit")(); }), HYK_OK);
   ASSERT_EQ(PsRecords().size(), 1u);
   ASSERT_EQ(AsLus([] { return LusFn<StatusFn>("LUS_PsClientsInit")(); }), HYK_OK);
   EXPECT_EQ(PsRecords().size(), 1u);
   PsDestroy();
}

// The device's operation table and its seven handlers are reachable by name.
TEST_F(MendsTest, DeviceTableAndHandlersHaveNames) {
   Load();
   for (const char *name : {"charDevOps", "CharDevLUSReg", "CharDevLUSPreUnload",
                            "CharDevLUSRestore", "CharDevLUSBlockPorts", "CharDevLUSPsUpgrade",
                            "CharDevLUSFdpOp", "CharDevLUSRaiseCswitchEvents"}) {
      EXPECT_NE(LusSymbol(name), nullptr) << name;
   }
   auto *ops = LusVar<hyk_CharDevOps>("charDevOps");
   EXPECT_EQ(reinterpret_cast<void *>(ops->ioctl), LusSymbol("lusCharDevIoctl"));
}

// A client whose unregistration event cannot be posted at unload is released
// by lus itself: its module's use count goes back to 0 and it unloads.
TEST_F(MendsTest, UnloadReleasesClientsWhoseUnregistrationCouldNotBePosted) {
   LoadNew(3);
   TestClient *c = AddClient("fw_new", kToBuild, false, "fw");
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   ASSERT_EQ(hyksim::FindModule("fw_new")->useCount, 1u);
   hyksim::FaultSpec fault;
   fault.op = "hyk_NetEventPost";
   fault.every = true;
   hyksim::InjectFault(fault);
   ASSERT_EQ(UnloadLus(), HYK_OK);
   hyksim::ClearFaults();
   EXPECT_EQ(hyksim::FindModule("fw_new")->useCount, 0u);
   EXPECT_GE(hyksim::LogCount("Client fw still registered at unload, releasing it : Busy"), 1u);
   EXPECT_EQ(c->Unload(), HYK_OK);
}

// lusDeleteEntry removes one version 0 record under the map lock and lets go
// of the lock: the next lookup (which takes it again) still works.
TEST_F(MendsTest, DeletingOneVersionZeroRecordLeavesTheOthersAndTheLockFree) {
   LoadNew(3);
   Pair("fw");
   MakePortset("ps0", 2);
   EnrolV0({"ps0"});
   LusInstance *gone = FindV0("vm-0", 0, "fw");
   ASSERT_NE(gone, nullptr);
   const uint32_t before = Var<uint32_t>("numLUSInstances");
   using DeleteFn = void(LusHashMap *, LusInstance *);
   AsLus([&] { LusFn<DeleteFn>("lusDeleteEntry")(Var<LusHashMap *>("lusHashMap"), gone); });
   EXPECT_EQ(FindV0("vm-0", 0, "fw"), nullptr);
   EXPECT_NE(FindV0("vm-1", 0, "fw"), nullptr);
   EXPECT_EQ(Var<uint32_t>("numLUSInstances"), before - 1);
   EXPECT_EQ(Var<LusHashMap *>("lusHashMap")->count, 1u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusDeleteEntry", "numLUSInstances " + std::to_string(before - 1)), 3), 1u);
}

}  // namespace
}  // namespace lustest
