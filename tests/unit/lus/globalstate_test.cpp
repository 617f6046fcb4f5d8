// Tests of the global configuration hand-over (command 8) and of the global
// runtime state entry points.
#include "world_fixture.h"

namespace lustest {
namespace {

class GlobalStateTest : public WorldTest {
  protected:
   void SetUp() override {
      WorldTest::SetUp();
      LoadNew(5);
   }
   TestClient *FromOnly(const std::string &name) {
      TestClientConfig c;
      c.moduleName = name + "_old";
      c.clientName = name;
      c.buildNumber = kFromBuild;
      c.globalConfig = {4, 4};
      return AddClient(c);
   }
   void RuntimeComplete(uint32_t result) {
      AsLus([&] { LusFn<ResultFn>("LUS_GlobalRuntimeComplete")(result); });
   }
   void Destroy() {
      AsLus([&] { LusFn<VoidFn>("LUS_GlobalStateClientsDestroy")(); });
   }
   LusListLinks &List() { return Var<LusListLinks>("lusGlobalState"); }
   // Puts an element on lusGlobalState as a client's runtime save would.
   GlobalStateRecord *Push(ClientEntry *client, void *buffer, uint32_t length) {
      hyk_HeapID heap0 = Var<hyk_HeapID>("lusHeapID_0");
      auto *rec = static_cast<GlobalStateRecord *>(
         AsLus([&] { return LusFn<AllocFromHeapFn>("LUS_AllocFromHeap")(heap0, sizeof(GlobalStateRecord)); }));
      rec->client = client;
      rec->buffer = buffer;
      rec->length = length;
      LusListLinks &head = List();
      rec->link.next = &head;
      rec->link.prev = head.prev;
      head.prev->next = &rec->link;
      head.prev = &rec->link;
      return rec;
   }
};

// The pass walks the old build's rows below the count, in use or not: when
// an earlier client has gone, the count no longer reaches the last row, and
// that client's configuration is not handed over (the registry keeps rows in
// place; a later registration fills the next row).
TEST_F(GlobalStateTest, PassWalksTheRowsBelowTheCountNotTheClientsInUse) {
   ClientPair a = Pair("a", [](TestClientConfig &c) { c.globalConfig = {1}; });
   ClientPair b = Pair("b", [](TestClientConfig &c) { c.globalConfig = {2, 2}; });
   RegisterBoth();
   ASSERT_EQ(Var<int32_t>("numFromClients"), 2);
   ASSERT_EQ(AsLus([&] { return LusFn<hyk_Status(ClientEntry *)>("lus_ClientUnregister")(a.from->handle()); }),
             HYK_OK);
   ASSERT_EQ(Var<int32_t>("numFromClients"), 1);

   EXPECT_EQ(GlobalConfig(), HYK_OK);
   EXPECT_EQ(a.from->Calls(kGlobalConfigSave), 0u);   // row 0: no longer in use
   EXPECT_EQ(b.from->Calls(kGlobalConfigSave), 0u);   // row 1: past the count
   EXPECT_TRUE(b.to->globalRestored.empty());
}

TEST_F(GlobalStateTest, FromBuildOnlyClientIsSkippedAndAsTheLastItsLookupFailureIsReturned) {
   ClientPair a = Pair("a", [](TestClientConfig &c) { c.globalConfig = {1, 2, 3}; });
   TestClient *solo = FromOnly("solo");
   RegisterBoth();

   EXPECT_EQ(GlobalConfig(), static_cast<hyk_Status>(HYK_NOT_FOUND));
   EXPECT_EQ(InfoLines("LUS_GlobalConfigSaveRestore",
                       "Client solo registered to LUS in from Build only. Skipping global config save/restore."),
             1u);
   EXPECT_EQ(solo->Calls(kGlobalConfigSave), 0u);
   // Nothing went wrong for the pair before it.
   ASSERT_EQ(a.to->globalRestored.size(), 1u);
   EXPECT_EQ(a.to->globalRestored[0], (std::vector<uint8_t>{1, 2, 3}));
   EXPECT_EQ(a.from->globalCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_SUCCESS});
   EXPECT_EQ(InfoLines("LUS_GlobalConfigSaveRestore", "Client a saved 3 bytes of global config data"), 1u);
}

TEST_F(GlobalStateTest, FromBuildOnlyClientBeforeAPairDoesNotFailThePass) {
   FromOnly("solo");
   ClientPair a = Pair("a", [](TestClientConfig &c) { c.globalConfig = {1}; });
   RegisterBoth();
   EXPECT_EQ(GlobalConfig(), HYK_OK);
   EXPECT_EQ(a.to->globalRestored.size(), 1u);
}

TEST_F(GlobalStateTest, SaveOfZeroBytesCallsNeitherRestoreNorComplete) {
   ClientPair z = Pair("z");  // globalConfig left empty
   RegisterBoth();
   EXPECT_EQ(GlobalConfig(), HYK_OK);
   EXPECT_EQ(z.from->Calls(kGlobalConfigSave), 1u);
   EXPECT_EQ(z.to->Calls(kGlobalConfigRestore), 0u);
   EXPECT_EQ(z.from->Calls(kGlobalComplete), 0u);
   EXPECT_EQ(InfoLines("LUS_GlobalConfigSaveRestore", "Client z saved 0 bytes of global config data"), 1u);
}

TEST_F(GlobalStateTest, FailedRestoreCompletesWithTwoAndStopsThePass) {
   ClientPair a = Pair("a", [](TestClientConfig &c) { c.globalConfig = {1}; });
   ClientPair b = Pair("b", [](TestClientConfig &c) { c.globalConfig = {2}; });
   a.to->config().result[kGlobalConfigRestore] = HYK_BUSY;
   RegisterBoth();

   EXPECT_EQ(GlobalConfig(), static_cast<hyk_Status>(HYK_BUSY));
   EXPECT_EQ(a.from->globalCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_FAILURE});
   EXPECT_EQ(b.from->Calls(kGlobalConfigSave), 0u);
   EXPECT_EQ(ErrLines("LUS_GlobalConfigSaveRestore", HYK_BUSY,
                      "Global config restore CB failed for client a : Busy"),
             1u);
}

TEST_F(GlobalStateTest, FailedSaveEndsThePassAtOnceWithItsStatus) {
   ClientPair a = Pair("a", [](TestClientConfig &c) { c.globalConfig = {1}; });
   ClientPair b = Pair("b", [](TestClientConfig &c) { c.globalConfig = {2}; });
   a.from->config().result[kGlobalConfigSave] = HYK_TIMEOUT;
   RegisterBoth();
   EXPECT_EQ(GlobalConfig(), static_cast<hyk_Status>(HYK_TIMEOUT));
   EXPECT_EQ(a.to->Calls(kGlobalConfigRestore), 0u);
   EXPECT_EQ(a.from->Calls(kGlobalComplete), 0u);
   EXPECT_EQ(b.from->Calls(kGlobalConfigSave), 0u);
   EXPECT_EQ(ErrLines("LUS_GlobalConfigSaveRestore", HYK_TIMEOUT,
                      "Global config save CB failed for client a : Timeout"),
             1u);
}

TEST_F(GlobalStateTest, FailedCompletionIsReportedAndThePassGoesOn) {
   ClientPair a = Pair("a", [](TestClientConfig &c) { c.globalConfig = {1}; });
   ClientPair b = Pair("b", [](TestClientConfig &c) { c.globalConfig = {2}; });
   a.from->config().result[kGlobalComplete] = HYK_BUSY;
   RegisterBoth();
   EXPECT_EQ(GlobalConfig(), HYK_OK);
   EXPECT_EQ(ErrLines("LUS_GlobalConfigSaveRestore", HYK_BUSY,
                      "Global config complete CB failed for client a : Busy"),
             1u);
   EXPECT_EQ(b.to->globalRestored.size(), 1u);
   EXPECT_EQ(b.from->globalCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_SUCCESS});
   // Every callback that succeeded has its duration logged: both clients'
   // save and restore, and only b's completion.
   EXPECT_EQ(InfoLines("lusPsLogDuration", "Client: a CB duration (ms): 0 ", 5), 2u);
   EXPECT_EQ(InfoLines("lusPsLogDuration", "Client: b CB duration (ms): 0 ", 5), 3u);
}

TEST_F(GlobalStateTest, NewClientWithoutRestoreCallbackIsSkippedUnsaved) {
   ClientPair a = Pair("a", [](TestClientConfig &c) { c.globalConfig = {1}; });
   a.to->config().slots[kGlobalConfigRestore] = false;
   RegisterBoth();
   EXPECT_EQ(GlobalConfig(), HYK_OK);
   EXPECT_EQ(a.from->Calls(kGlobalConfigSave), 0u);
   EXPECT_EQ(InfoLines("LUS_GlobalConfigSaveRestore",
                       "Client a has not registered for global config restore.Skipping global config save/restore."),
             1u);
}

TEST_F(GlobalStateTest, NoFromBuildClientIsSuccessWithoutAnyCall) {
   EXPECT_EQ(GlobalConfig(), HYK_OK);
   EXPECT_EQ(CountModuleLines("LUS_GlobalConfigSaveRestore"), 0u);
}

TEST_F(GlobalStateTest, RuntimeCompleteAndDestroyOnAnEmptyListDoNothing) {
   uint64_t before = HeapBytes("lus_heap_0");
   size_t lines = ModuleLines().size();
   RuntimeComplete(LUS_COMPLETE_SUCCESS);
   Destroy();
   EXPECT_EQ(List().next, &List());
   EXPECT_EQ(List().prev, &List());
   EXPECT_EQ(HeapBytes("lus_heap_0"), before);
   EXPECT_EQ(ModuleLines().size(), lines);
}

TEST_F(GlobalStateTest, RuntimeCompleteTellsEachSavedClientOnceWithTheSaveWordingOnFailure) {
   ClientPair a = Pair("a");
   ClientPair b = Pair("b");
   ClientPair c = Pair("c");
   a.from->config().result[kGlobalComplete] = HYK_BUSY;
   RegisterBoth();
   uint64_t before = HeapBytes("lus_heap_0");
   uint8_t bufA[4] = {}, bufB[2] = {};
   GlobalStateRecord *ra = Push(a.from->handle(), bufA, sizeof bufA);
   GlobalStateRecord *rb = Push(b.from->handle(), bufB, sizeof bufB);
   Push(c.from->handle(), nullptr, 0);  // nothing saved: not told

   RuntimeComplete(LUS_COMPLETE_FAILURE);
   EXPECT_EQ(a.from->globalCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_FAILURE});
   EXPECT_EQ(b.from->globalCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_FAILURE});
   EXPECT_EQ(c.from->Calls(kGlobalComplete), 0u);
   EXPECT_EQ(ErrLines("LUS_GlobalRuntimeComplete", HYK_BUSY, "Global runtime save CB failed for client a : Busy"), 1u);
   EXPECT_EQ(InfoLines("LUS_GlobalRuntimeComplete", "Global complete CB called for client b"), 1u);
   EXPECT_EQ(ra->length, 0u);
   EXPECT_EQ(ra->buffer, nullptr);
   EXPECT_EQ(rb->length, 0u);

   RuntimeComplete(LUS_COMPLETE_SUCCESS);
   EXPECT_EQ(b.from->globalCompleteResults.size(), 1u);

   Destroy();
   EXPECT_EQ(List().next, &List());
   EXPECT_EQ(HeapBytes("lus_heap_0"), before);
}

}  // namespace
}  // namespace lustest
