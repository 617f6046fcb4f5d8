// Tests of the portset runtime state passes: pairing old and new clients for
// the portset under upgrade, save, restore, completion and destruction.
#include "world_fixture.h"

namespace lustest {
namespace {

class PsStateTest : public WorldTest {
  protected:
   void SetUp() override {
      WorldTest::SetUp();
      LoadNew(5);
      MakePortset("ps0", 1);
   }
   // The portset, acquired as the upgrade world holds it.
   hyk_Portset *Acquire() {
      hyk_Portset *ps = nullptr;
      EXPECT_EQ(AsLus([&] { return hyk_PortsetAcquireByName("ps0", 2, &ps); }), HYK_OK);
      return ps;
   }
   void Release(hyk_Portset *ps) {
      AsLus([&] { hyk_PortsetRelease(&ps); });
   }
   void InitFor(const std::string &ps) {
      SetPsName(ps);
      RegisterBoth();
   }
};

TEST_F(PsStateTest, ClientWhoseSaveProducedZeroBytesIsNeitherRestoredNorCompleted) {
   ClientPair empty = Pair("empty");  // psState left empty: saves 0 bytes
   ClientPair full = Pair("full", [](TestClientConfig &c) { c.psState = {7, 8, 9}; });
   InitFor("ps0");
   ASSERT_EQ(PsInit(), HYK_OK);
   ASSERT_EQ(PsRecords().size(), 2u);

   hyk_Portset *ps = Acquire();
   ASSERT_EQ(PsSave(ps), HYK_OK);
   EXPECT_EQ(empty.from->Calls(kPsRuntimeSave), 1u);
   EXPECT_EQ(InfoLines("LUS_PsRuntimeSave", "Client empty saved 0 bytes of runtime state for ps ps0"), 1u);
   ASSERT_EQ(PsRestore(ps), HYK_OK);
   PsComplete(ps, LUS_COMPLETE_SUCCESS);
   Release(ps);

   EXPECT_EQ(empty.to->Calls(kPsRuntimeRestore), 0u);
   EXPECT_EQ(empty.from->Calls(kPsRuntimeComplete), 0u);
   ASSERT_EQ(full.to->psRestored.size(), 1u);
   EXPECT_EQ(full.to->psRestored[0], (std::vector<uint8_t>{7, 8, 9}));
   EXPECT_EQ(full.from->psCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_SUCCESS});
   EXPECT_EQ(InfoLines("LUS_PsRuntimeRestore", "Client full restored 3 bytes of runtime state for ps ps0"), 1u);
   EXPECT_EQ(InfoLines("LUS_PsRuntimeComplete", "PS complete CB called for client full ps ps0"), 1u);
   EXPECT_EQ(InfoLines("LUS_PsClientsInit", "LUS PS client full init for ps ps0", 5), 1u);
}

TEST_F(PsStateTest, AfterRestoreFailureEveryRecordWithDataIsCompletedWithTwoAndEmptied) {
   ClientPair a = Pair("a", [](TestClientConfig &c) { c.psState = {1}; });
   ClientPair b = Pair("b", [](TestClientConfig &c) { c.psState = {2, 2}; });
   ClientPair z = Pair("z");  // nothing saved: not completed either
   b.to->config().result[kPsRuntimeRestore] = HYK_BUSY;
   InitFor("ps0");
   ASSERT_EQ(PsInit(), HYK_OK);
   hyk_Portset *ps = Acquire();
   ASSERT_EQ(PsSave(ps), HYK_OK);

   EXPECT_EQ(PsRestore(ps), static_cast<hyk_Status>(HYK_BUSY));
   EXPECT_EQ(ErrLines("LUS_PsRuntimeRestore", HYK_BUSY,
                      "PS runtime restore CB failed for client b ps ps0 : Busy"), 1u);
   EXPECT_EQ(a.to->psRestored.size(), 1u);
   EXPECT_EQ(a.from->psCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_FAILURE});
   EXPECT_EQ(b.from->psCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_FAILURE});
   EXPECT_EQ(z.from->Calls(kPsRuntimeComplete), 0u);
   for (PsClientRecord *rec : PsRecords()) {
      EXPECT_EQ(rec->length, 0u);
      EXPECT_EQ(rec->buffer, nullptr);
   }
   // The lengths are gone, so a further completion tells nobody again.
   PsComplete(ps, LUS_COMPLETE_SUCCESS);
   EXPECT_EQ(a.from->psCompleteResults.size(), 1u);
   Release(ps);
}

TEST_F(PsStateTest, InitWithNoFromBuildClientsSucceedsAndLeavesTheListEmpty) {
   InitFor("ps0");
   EXPECT_EQ(PsInit(), HYK_OK);
   EXPECT_TRUE(PsRecords().empty());
   EXPECT_EQ(PsState().clients.next, &PsState().clients);
}

TEST_F(PsStateTest, InitReportsTheLastLookupSoAFromBuildOnlyLastClientFailsIt) {
   ClientPair a = Pair("a", [](TestClientConfig &c) { c.psState = {1}; });
   TestClientConfig solo;
   solo.moduleName = "solo_old";
   solo.clientName = "solo";
   solo.buildNumber = kFromBuild;
   AddClient(solo);
   InitFor("ps0");

   EXPECT_EQ(PsInit(), static_cast<hyk_Status>(HYK_NOT_FOUND));
   EXPECT_EQ(InfoLines("LUS_PsClientsInit",
                       "Client solo registered to LUS in from Build only. Skipping ps runtime save/restore for ps0"),
             1u);
   // The pair before it is initialised all the same.
   ASSERT_EQ(PsRecords().size(), 1u);
   EXPECT_EQ(PsRecords()[0]->fromClient, a.from->handle());
   EXPECT_EQ(PsRecords()[0]->toClient, a.to->handle());
   PsDestroy();
}

TEST_F(PsStateTest, NewClientWithoutRestoreCallbackIsSkippedWithTheTrailingBlankLine) {
   ClientPair p = Pair("norestore", [](TestClientConfig &c) { c.psState = {1}; });
   p.to->config().slots[kPsRuntimeRestore] = false;
   InitFor("ps0");
   EXPECT_EQ(PsInit(), HYK_OK);
   EXPECT_TRUE(PsRecords().empty());
   EXPECT_EQ(InfoLines("LUS_PsClientsInit",
                       "Client norestore has not registered for ps runtime restore. Skipping ps runtime save/restore for ps0 "),
             1u);
}

TEST_F(PsStateTest, RecordAllocationFailureDestroysTheRecordsMadeAndReportsNoMemory) {
   Pair("a", [](TestClientConfig &c) { c.psState = {1}; });
   Pair("b", [](TestClientConfig &c) { c.psState = {1}; });
   InitFor("ps0");
   uint64_t before = HeapBytes("lus_heap_0");
   hyksim::InjectFault(Fault("hyk_HeapAllocWithRA", 2));  // the second record
   EXPECT_EQ(PsInit(), static_cast<hyk_Status>(HYK_NO_MEMORY));
   EXPECT_TRUE(PsRecords().empty());
   EXPECT_EQ(HeapBytes("lus_heap_0"), before);
   EXPECT_EQ(ErrLines("LUS_PsClientsInit", HYK_NO_MEMORY, "Could not allocate LUS memory : Out of memory"), 1u);
}

TEST_F(PsStateTest, SaveFailureCompletesThoseSavedWithTwoAndStopsThePass) {
   ClientPair a = Pair("a", [](TestClientConfig &c) { c.psState = {1}; });
   ClientPair b = Pair("b", [](TestClientConfig &c) { c.psState = {2}; });
   ClientPair c = Pair("c", [](TestClientConfig &cfg) { cfg.psState = {3}; });
   b.from->config().result[kPsRuntimeSave] = HYK_TIMEOUT;
   InitFor("ps0");
   ASSERT_EQ(PsInit(), HYK_OK);
   hyk_Portset *ps = Acquire();
   EXPECT_EQ(PsSave(ps), static_cast<hyk_Status>(HYK_TIMEOUT));
   Release(ps);
   EXPECT_EQ(c.from->Calls(kPsRuntimeSave), 0u);
   // b handed its bytes over before failing, so it hears the end too.
   EXPECT_EQ(a.from->psCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_FAILURE});
   EXPECT_EQ(b.from->psCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_FAILURE});
   EXPECT_EQ(ErrLines("LUS_PsRuntimeSave", HYK_TIMEOUT, "PS runtime save CB failed for client b ps ps0 : Timeout"), 1u);
}

TEST_F(PsStateTest, FailedCompletionIsReportedWithTheSaveWordingAndTheWalkGoesOn) {
   ClientPair a = Pair("a", [](TestClientConfig &c) { c.psState = {1}; });
   ClientPair b = Pair("b", [](TestClientConfig &c) { c.psState = {2}; });
   a.from->config().result[kPsRuntimeComplete] = HYK_BUSY;
   InitFor("ps0");
   ASSERT_EQ(PsInit(), HYK_OK);
   hyk_Portset *ps = Acquire();
   ASSERT_EQ(PsSave(ps), HYK_OK);
   PsComplete(ps, LUS_COMPLETE_SUCCESS);
   Release(ps);
   EXPECT_EQ(ErrLines("LUS_PsRuntimeComplete", HYK_BUSY, "PS runtime save CB failed for client a ps ps0 : Busy"), 1u);
   EXPECT_EQ(b.from->psCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_SUCCESS});
   EXPECT_EQ(PsRecords()[0]->length, 0u);
}

TEST_F(PsStateTest, EveryRecordStartsEmpty) {
   Pair("a", [](TestClientConfig &c) { c.psState = {1, 2}; });
   Pair("b");
   InitFor("ps0");
   ASSERT_EQ(PsInit(), HYK_OK);
   ASSERT_EQ(PsRecords().size(), 2u);
   for (PsClientRecord *rec : PsRecords()) {
      EXPECT_EQ(rec->length, 0u);
      EXPECT_EQ(rec->buffer, nullptr);
   }
}

// A client with nothing to be told at completion still has its record emptied by it.
TEST_F(PsStateTest, CompletionEmptiesTheRecordOfAClientWithoutACompletionCallback) {
   ClientPair quiet = Pair("quiet", [](TestClientConfig &c) {
      c.psState = {5, 6};
      c.slots[kPsRuntimeComplete] = false;
   });
   InitFor("ps0");
   ASSERT_EQ(PsInit(), HYK_OK);
   hyk_Portset *ps = Acquire();
   ASSERT_EQ(PsSave(ps), HYK_OK);
   ASSERT_EQ(PsRecords()[0]->length, 2u);
   PsComplete(ps, LUS_COMPLETE_SUCCESS);
   Release(ps);
   EXPECT_EQ(PsRecords()[0]->length, 0u);
   EXPECT_EQ(PsRecords()[0]->buffer, nullptr);
   EXPECT_EQ(quiet.from->Calls(kPsRuntimeComplete), 0u);
}

TEST_F(PsStateTest, DestroyFreesEveryRecordButNotTheClientsBuffers) {
   ClientPair a = Pair("a", [](TestClientConfig &c) { c.psState = {1, 2}; });
   Pair("b", [](TestClientConfig &c) { c.psState = {3}; });
   InitFor("ps0");
   uint64_t before = HeapBytes("lus_heap_0");
   ASSERT_EQ(PsInit(), HYK_OK);
   EXPECT_GT(HeapBytes("lus_heap_0"), before);
   hyk_Portset *ps = Acquire();
   ASSERT_EQ(PsSave(ps), HYK_OK);
   Release(ps);
   EXPECT_EQ(PsRecords()[0]->buffer, a.from->config().psState.data());
   PsDestroy();
   EXPECT_TRUE(PsRecords().empty());
   EXPECT_EQ(HeapBytes("lus_heap_0"), before);
   EXPECT_EQ(a.from->config().psState, (std::vector<uint8_t>{1, 2}));
}

}  // namespace
}  // namespace lustest
