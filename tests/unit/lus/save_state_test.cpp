// Tests of the runtime state save: the per-port save visitors of the save
// command (version 0) and of the upgrade world (version 1).
#include "save_fixture.h"

namespace lustest {
namespace {

class RuntimeSaveTest : public SaveRestoreTest {
  protected:
   // Sizes then saves one port with the version 0 visitors.
   hyk_Status SizeAndSave(hyk_PortID port) {
      hyk_Status s = Visit("LUS_GetTotalSize", port);
      return s != HYK_OK ? s : Visit("LUS_SaveState", port);
   }
   hyk_Status SizeAndSaveV1(hyk_PortID port) {
      EXPECT_EQ(Visit("LUS_GetTotalSizeV1", port), HYK_OK);
      return Visit("LUS_SaveStateV1", port);
   }
};

TEST_F(RuntimeSaveTest, SavedBufferHoldsTheClientsBytesInAClientHeap) {
   LoadNew();
   auto fw = Pair("fw", [](TestClientConfig &c) { c.stateSize = 48; });
   auto ports = MakePortset("ps0", 1);
   EnrolV0({"ps0"});
   ASSERT_EQ(SizeAndSave(ports[0]), HYK_OK);
   LusInstance *rec = FindV0("vm-0", 0, "fw");
   EXPECT_EQ(rec->hasState, 1u);
   EXPECT_EQ(rec->stateLen, 48u);
   EXPECT_EQ(rec->portID, ports[0]);
   EXPECT_EQ(rec->stateHeap, Var<hyk_HeapID>("lusHeapID_1"));
   ASSERT_NE(rec->state, nullptr);
   std::vector<uint8_t> bytes(static_cast<uint8_t *>(rec->state), static_cast<uint8_t *>(rec->state) + 48);
   EXPECT_EQ(bytes, fw.from->saved.at(ports[0]));
   EXPECT_EQ(bytes, fw.from->PatternFor(ports[0], 48));
   EXPECT_EQ(HeapBytes("lus_heap_1"), 48u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("LUS_SaveState", "Saved client fw portID 0x" +
                                                              Hex(ports[0]) + " data length 48"),
                              3),
             1u);
}

TEST_F(RuntimeSaveTest, ZeroAnnouncedLengthIsMarkedSavedWithoutBufferOrCallback) {
   LoadNew();
   auto fw = Pair("fw", [](TestClientConfig &c) { c.stateSize = 0; });
   auto ports = MakePortset("ps0", 1);
   EnrolV0({"ps0"});
   ASSERT_EQ(SizeAndSave(ports[0]), HYK_OK);
   LusInstance *rec = FindV0("vm-0", 0, "fw");
   EXPECT_EQ(rec->hasState, 1u);
   EXPECT_EQ(rec->stateLen, 0u);
   EXPECT_EQ(rec->state, nullptr);
   EXPECT_EQ(fw.from->Calls(kGetRuntimeState), 0u);
   EXPECT_EQ(hyksim::FindHeap("lus_heap_1")->peakBytes, 0u);
}

TEST_F(RuntimeSaveTest, V1ZeroAnnouncedLengthIsMarkedSavedWithoutBufferOrCallback) {
   LoadNew();
   auto fw = Pair("fw", [](TestClientConfig &c) { c.stateSize = 0; });
   auto ports = MakePortset("ps0", 1);
   EnrolV1("ps0");
   ASSERT_EQ(SizeAndSaveV1(ports[0]), HYK_OK);
   LusClientInst *rec = RecordV1(PortV1("lusHashMap", ports[0]), "fw");
   EXPECT_EQ(rec->stateInfo & 0xff, 1u);
   EXPECT_EQ(rec->state, nullptr);
   EXPECT_EQ(fw.from->Calls(kGetRuntimeState), 0u);
}

TEST_F(RuntimeSaveTest, ClientReportingZeroSavedBytesLosesItsBufferButIsMarked) {
   LoadNew();
   Pair("fw", [](TestClientConfig &c) { c.bytesSaved = 0u; });
   auto ports = MakePortset("ps0", 1);
   EnrolV0({"ps0"});
   ASSERT_EQ(SizeAndSave(ports[0]), HYK_OK);
   LusInstance *rec = FindV0("vm-0", 0, "fw");
   EXPECT_EQ(rec->hasState, 1u);
   EXPECT_EQ(rec->stateLen, 0u);
   EXPECT_EQ(rec->state, nullptr);
   EXPECT_EQ(HeapBytes("lus_heap_1"), 0u);
   EXPECT_EQ(hyksim::FindHeap("lus_heap_1")->peakBytes, 64u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("LUS_SaveState",
                                          "Size returned after Saving data for client fw portID 0x" +
                                             Hex(ports[0]) + " is 0"),
                              3),
             1u);
}

TEST_F(RuntimeSaveTest, ExactlyTheAnnouncedLengthIsAcceptedOneByteMoreIsRejected) {
   LoadNew();
   auto fw = Pair("fw", [](TestClientConfig &c) { c.stateSize = 16; });
   auto ports = MakePortset("ps0", 2);
   EnrolV0({"ps0"});
   ASSERT_EQ(SizeAndSave(ports[0]), HYK_OK);
   EXPECT_EQ(FindV0("vm-0", 0, "fw")->stateLen, 16u);
   fw.from->config().claimExtra = 1;
   EXPECT_EQ(SizeAndSave(ports[1]), HYK_BAD_PARAM);
   LusInstance *over = FindV0("vm-1", 0, "fw");
   EXPECT_EQ(over->hasState, 0u);
   EXPECT_NE(over->state, nullptr);  // stays attached until the record is cleared
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_SaveState", 7,
                                              "Size of datalen > size of new_lus->len : Bad parameter"),
                              1),
             1u);
}

TEST_F(RuntimeSaveTest, V1OneByteMoreThanAnnouncedDropsThePort) {
   LoadNew();
   auto fw = Pair("fw", [](TestClientConfig &c) { c.stateSize = 16; });
   auto ports = MakePortset("ps0", 2);
   EnrolV1("ps0");
   ASSERT_EQ(SizeAndSaveV1(ports[0]), HYK_OK);
   EXPECT_EQ(RecordV1(PortV1("lusHashMap", ports[0]), "fw")->stateLen, 16u);
   fw.from->config().claimExtra = 1;
   EXPECT_EQ(SizeAndSaveV1(ports[1]), HYK_OK);
   EXPECT_EQ(PortV1("lusHashMap", ports[1]), nullptr);
   EXPECT_EQ(HeapBytes("lus_heap_1"), 16u);  // the dropped port's buffer went with it
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_SaveStateV1", 7,
                                              "Client: fw Size of datalen > size of new_lus->len : Bad parameter"),
                              1),
             1u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("LUS_SaveStateV1",
                                          "getRuntimeState FAILED on portID 0x" + Hex(ports[1]) +
                                             " (" + std::to_string(ports[1]) + ") ..."),
                              3),
             1u);
}

TEST_F(RuntimeSaveTest, SecondSaveWithoutRestoreFailsOnTheAttachedBuffer) {
   LoadNew();
   Pair("fw");
   auto ports = MakePortset("ps0", 1);
   EnrolV0({"ps0"});
   ASSERT_EQ(SizeAndSave(ports[0]), HYK_OK);
   EXPECT_EQ(SizeAndSave(ports[0]), HYK_BAD_PARAM);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_SaveState", 7,
                                              "Non NULL buf before saving runtime data for portID:" +
                                                 std::to_string(ports[0]) +
                                                 " client fw : Bad parameter"),
                              1),
             1u);
   EXPECT_EQ(HeapBytes("lus_heap_1"), 64u);
}

TEST_F(RuntimeSaveTest, V1SecondSaveWithoutRestoreDropsThePort) {
   LoadNew();
   Pair("fw");
   auto ports = MakePortset("ps0", 1);
   EnrolV1("ps0");
   ASSERT_EQ(SizeAndSaveV1(ports[0]), HYK_OK);
   EXPECT_EQ(Visit("LUS_SaveStateV1", ports[0]), HYK_OK);
   EXPECT_EQ(PortV1("lusHashMap", ports[0]), nullptr);
   EXPECT_EQ(ClientStateBytes(), 0u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_SaveStateV1", 7,
                                              "Non NULL buf before saving runtime data for portID:" +
                                                 std::to_string(ports[0]) +
                                                 " client fw : Bad parameter"),
                              1),
             1u);
}

TEST_F(RuntimeSaveTest, AllHeapsExhaustedFailsV0WithOutOfMemory) {
   LoadNew();
   Pair("fw");
   auto ports = MakePortset("ps0", 1);
   EnrolV0({"ps0"});
   ASSERT_EQ(Visit("LUS_GetTotalSize", ports[0]), HYK_OK);
   hyksim::InjectFault({.op = "hyk_HeapAllocWithRA", .status = HYK_NO_MEMORY, .every = true});
   EXPECT_EQ(Visit("LUS_SaveState", ports[0]), HYK_NO_MEMORY);
   hyksim::ClearFaults();
   EXPECT_EQ(FindV0("vm-0", 0, "fw")->state, nullptr);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_SaveState", 20,
                                              "LUS out of memory in all heaps : Out of memory"),
                              1),
             1u);
}

TEST_F(RuntimeSaveTest, AllHeapsExhaustedDropsTheV1PortAndReturnsZero) {
   LoadNew();
   Pair("fw");
   auto ports = MakePortset("ps0", 2);
   EnrolV1("ps0");
   for (hyk_PortID p : ports) {
      ASSERT_EQ(Visit("LUS_GetTotalSizeV1", p), HYK_OK);
   }
   hyksim::InjectFault({.op = "hyk_HeapAllocWithRA", .status = HYK_NO_MEMORY, .nth = 1});
   hyksim::InjectFault({.op = "hyk_HeapAllocWithRA", .status = HYK_NO_MEMORY, .nth = 2});
   EXPECT_EQ(Visit("LUS_SaveStateV1", ports[0]), HYK_OK);
   EXPECT_EQ(PortV1("lusHashMap", ports[0]), nullptr);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_SaveStateV1", 20,
                                              "LUS out of memory in all heaps : Out of memory"),
                              1),
             1u);
   // The next port still saves.
   EXPECT_EQ(Visit("LUS_SaveStateV1", ports[1]), HYK_OK);
   EXPECT_NE(RecordV1(PortV1("lusHashMap", ports[1]), "fw")->state, nullptr);
}

TEST_F(RuntimeSaveTest, FailingGetRuntimeStateKeepsEarlierClientsSaved) {
   LoadNew();
   auto alpha = Pair("alpha");
   Pair("beta", [](TestClientConfig &c) { c.result[kGetRuntimeState] = HYK_LIMIT_EXCEEDED; });
   auto ports = MakePortset("ps0", 1);
   EnrolV0({"ps0"});
   EXPECT_EQ(SizeAndSave(ports[0]), HYK_LIMIT_EXCEEDED);
   EXPECT_EQ(FindV0("vm-0", 0, "alpha")->hasState, 1u);
   EXPECT_NE(FindV0("vm-0", 0, "beta")->state, nullptr);
   EXPECT_EQ(FindV0("vm-0", 0, "beta")->hasState, 0u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_SaveState", 6,
                                              "getRuntimeState FAIL for client beta : Limit exceeded"),
                              1),
             1u);
   (void)alpha;
}

TEST_F(RuntimeSaveTest, InactiveClientIsNeitherSavedNorMarked) {
   LoadNew();
   auto fw = Pair("fw");
   auto ports = MakePortset("ps0", 1);
   EnrolV0({"ps0"});
   ASSERT_EQ(Visit("LUS_GetTotalSize", ports[0]), HYK_OK);
   LusInstance *rec = FindV0("vm-0", 0, "fw");
   rec->fromClient->inUse = 0;
   EXPECT_EQ(Visit("LUS_SaveState", ports[0]), HYK_OK);
   EXPECT_EQ(rec->hasState, 0u);
   EXPECT_EQ(fw.from->Calls(kGetRuntimeState), 0u);
   rec->fromClient->inUse = 1;
}

}  // namespace
}  // namespace lustest
