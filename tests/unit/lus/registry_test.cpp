// Tests of the client registry: the registration tables and the
// registration API with its events.
#include <algorithm>
#include <cstring>
#include <type_traits>

#include "lus_fixture.h"

namespace lustest {
namespace {

using ClientRegistryTest = LusTest;
using RegistrationApiTest = LusTest;

ClientEntry *ToClients() { return LusVar<ClientEntry>("toClients"); }
ClientEntry *FromClients() { return LusVar<ClientEntry>("fromClients"); }

TEST_F(ClientRegistryTest, RegistrationFillsEntryAndTakesUseCount) {
   Load({"fromBuild=1000"});
   TestClientConfig cfg;
   cfg.moduleName = "fw_new";
   cfg.clientName = "fw";
   cfg.buildNumber = kToBuild;
   cfg.upgradePhase = LUS_PHASE_PORT;
   TestClient *c = AddClient(cfg);
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   ASSERT_EQ(c->registerStatuses, std::vector<hyk_Status>{HYK_OK});
   ClientEntry *e = &ToClients()[0];
   EXPECT_EQ(c->handle(), e);
   EXPECT_STREQ(e->clientName, "fw");
   EXPECT_EQ(e->moduleID, c->id());
   EXPECT_EQ(e->inUse, 1u);
   EXPECT_EQ(e->clientType, (uint32_t)LUS_CLIENT_TO);
   EXPECT_NE(e->ops.getRuntimeState, nullptr);
   // Type 2 copies the basic descriptor only.
   EXPECT_EQ(e->ops.preDualLoadCB, nullptr);
   EXPECT_EQ(e->upgradePhase, 0u);
   EXPECT_EQ(Var<int32_t>("numToClients"), 1);
   EXPECT_EQ(hyksim::FindModule("fw_new")->useCount, 1u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusClientRTRegister",
                 "Successfully registered: client fw numFromClients 0 numToClient 1 regType 2"), 3), 1u);
   EXPECT_EQ(c->Unload(), HYK_BUSY);

   ASSERT_EQ(Unreg(0), HYK_OK);
   EXPECT_EQ(e->inUse, 0u);
   EXPECT_EQ(Var<int32_t>("numToClients"), 0);
   EXPECT_EQ(hyksim::FindModule("fw_new")->useCount, 0u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusClientRTUnregister",
                 "Successfully unregistered: client fw numFromClients 0 numToClients 0"), 3), 1u);
   EXPECT_EQ(c->Unload(), HYK_OK);
}

TEST_F(ClientRegistryTest, ExtendedDescriptorIsCopiedForTypesThreeAndFour) {
   Load({"fromBuild=1000"});
   TestClientConfig cfg;
   cfg.moduleName = "fw_new";
   cfg.buildNumber = kToBuild;
   cfg.upgradePhase = LUS_PHASE_PORT;
   AddClient(cfg);
   ASSERT_EQ(Reg(0, LUS_REG_TO_V1), HYK_OK);
   ClientEntry *e = &ToClients()[0];
   EXPECT_NE(e->ops.preDualLoadCB, nullptr);
   EXPECT_NE(e->ops.psRuntimeComplete, nullptr);
   EXPECT_EQ(e->upgradePhase, (uint32_t)LUS_PHASE_PORT);
}

TEST_F(ClientRegistryTest, TwentyFourthRegistrationSucceedsTwentyFifthFails) {
   Load();
   std::vector<TestClient *> cs;
   for (int i = 0; i < 25; i++) {
      cs.push_back(AddClient("c" + std::to_string(i), kToBuild));
   }
   EXPECT_EQ(Reg(0, LUS_REG_TO), HYK_BAD_PARAM);
   for (int i = 0; i < 24; i++) {
      EXPECT_EQ(cs[i]->registerStatuses, std::vector<hyk_Status>{HYK_OK}) << i;
   }
   EXPECT_EQ(cs[24]->registerStatuses, std::vector<hyk_Status>{HYK_BAD_PARAM});
   EXPECT_EQ(cs[24]->handle(), nullptr);
   // The failed post still marked the edition, so the clear withdrew the 24
   // that did register: none keeps a use count on its module.
   EXPECT_EQ(Var<int32_t>("numToClients"), 0);
   for (int i = 0; i < 24; i++) {
      EXPECT_EQ(cs[i]->unregisterStatuses, std::vector<hyk_Status>{HYK_OK}) << i;
      EXPECT_EQ(hyksim::FindModule(cs[i]->config().moduleName)->useCount, 0u) << i;
   }
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lusClientRTRegister", 7,
                 "Error: LUS Clients 24 for type 2 exceeds MAX clients supported : Bad parameter"), 1), 1u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lus_ClientRegister", 7,
                 "Client: c24 Registration FAIL : Bad parameter"), 1), 1u);
   // The failed post undid the registration attempt.
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_Reg", 7,
                 "Error status from LUS Registration event : Bad parameter"), 1), 1u);
   EXPECT_EQ(Var<uint32_t>("currRegType"), 0u);
}

TEST_F(ClientRegistryTest, SameNameTwiceUnderOneTypeFailsWithWithregTypeMessage) {
   Load({"fromBuild=1000"});
   TestClient *a = AddClient("fw_a", kToBuild, false, "fw");
   TestClient *b = AddClient("fw_b", kToBuild, false, "fw");
   EXPECT_EQ(Reg(0, LUS_REG_TO), HYK_BAD_PARAM);
   EXPECT_EQ(a->registerStatuses, std::vector<hyk_Status>{HYK_OK});
   EXPECT_EQ(b->registerStatuses, std::vector<hyk_Status>{HYK_BAD_PARAM});
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lusClientRTRegister", 7,
                 "Client fw has already registered before withregType 2 : Bad parameter"), 1), 1u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lus_ClientRegister", 7,
                 "Client: fw Registration FAIL : Bad parameter"), 1), 1u);
   // The client that did register is withdrawn by the clear of the failed post.
   EXPECT_EQ(Var<int32_t>("numToClients"), 0);
   EXPECT_EQ(a->unregisterStatuses, std::vector<hyk_Status>{HYK_OK});
   EXPECT_EQ(hyksim::FindModule(a->config().moduleName)->useCount, 0u);
}

TEST_F(ClientRegistryTest, SameNameMayRegisterOnceInEachTable) {
   Load({"fromBuild=1000"});
   TestClient *to = AddClient("fw_new", kToBuild, false, "fw");
   TestClient *from = AddClient("fw_old", kFromBuild, false, "fw");
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   ASSERT_EQ(Reg(0, LUS_REG_FROM), HYK_OK);
   EXPECT_EQ(to->registerStatuses, std::vector<hyk_Status>{HYK_OK});
   EXPECT_EQ(from->registerStatuses, std::vector<hyk_Status>{HYK_OK});
   EXPECT_STREQ(FromClients()[0].clientName, "fw");
   EXPECT_EQ(FromClients()[0].clientType, (uint32_t)LUS_CLIENT_FROM);
   EXPECT_EQ(Var<int32_t>("numFromClients"), 1);
   EXPECT_EQ(Var<int32_t>("numToClients"), 1);
}

TEST_F(ClientRegistryTest, LongNameIsComparedAndStoredOnItsFirst32Bytes) {
   Load();
   std::string prefix(32, 'n');
   TestClient *a = AddClient("long_a", kToBuild, false, prefix + "-alpha");
   TestClient *b = AddClient("long_b", kToBuild, false, prefix + "-beta");
   EXPECT_EQ(Reg(0, LUS_REG_TO), HYK_BAD_PARAM);
   EXPECT_EQ(a->registerStatuses, std::vector<hyk_Status>{HYK_OK});
   EXPECT_EQ(b->registerStatuses, std::vector<hyk_Status>{HYK_BAD_PARAM});
   EXPECT_EQ(memcmp(ToClients()[0].clientName, prefix.data(), 32), 0);
   EXPECT_EQ(hyksim::LogCount("has already registered before withregType 2"), 1u);
}

TEST_F(ClientRegistryTest, UnregisteringTheSameHandleTwiceReportsInvalidHandle) {
   Load();
   TestClient *c = AddClient("fw_new", kToBuild);
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   ClientEntry *h = c->handle();
   auto *unreg = LusFn<hyk_Status(ClientEntry *)>("lus_ClientUnregister");
   EXPECT_EQ(AsLus([&] { return unreg(h); }), HYK_OK);
   EXPECT_EQ(AsLus([&] { return unreg(h); }), HYK_BAD_PARAM);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lusClientRTUnregister", 7,
                 "Trying to unregister invalid client handle : Bad parameter"), 1), 1u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lus_ClientUnregister", 7,
                 "Client Unregistration FAIL : Bad parameter"), 1), 1u);
   // Only one use count was taken and only one released.
   EXPECT_EQ(hyksim::FindModule("fw_new")->useCount, 0u);
   EXPECT_EQ(Var<int32_t>("numToClients"), 0);
}

TEST_F(ClientRegistryTest, NullHandleOrArgumentsAreRefused) {
   Load();
   auto *unreg = LusFn<hyk_Status(ClientEntry *)>("lus_ClientUnregister");
   EXPECT_EQ(AsLus([&] { return unreg(nullptr); }), HYK_BAD_PARAM);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lus_ClientUnregister", 7,
                 "Handle is NULL, cannot unregister : Bad parameter"), 1), 1u);
   auto *reg = LusFn<std::remove_pointer_t<LusClientRegisterFn>>("lus_ClientRegister");
   char name[] = "x";
   ClientEntry *h = nullptr;
   EXPECT_EQ(AsLus([&] { return reg(1, name, nullptr, &h); }), HYK_BAD_PARAM);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lus_ClientRegister", 7,
                 "Registration of client x FAILED : Bad parameter"), 1), 1u);
}

TEST_F(ClientRegistryTest, UnregisteringEntryOfUnknownTypeFails) {
   Load();
   ClientEntry &e = ToClients()[3];
   e.inUse = 1;
   e.clientType = 7;
   auto *unreg = LusFn<hyk_Status(ClientEntry *)>("lus_ClientUnregister");
   EXPECT_EQ(AsLus([&] { return unreg(&e); }), HYK_BAD_PARAM);
   EXPECT_EQ(e.inUse, 0u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lusClientRTUnregister", 7,
                 "Trying to unregister invalid client of type 7 : Bad parameter"), 1), 1u);
   EXPECT_EQ(hyksim::LogCount("Client Unregistration FAIL : Bad parameter"), 1u);
}

TEST_F(ClientRegistryTest, RegistrationOutsideARegistrationEventStopsTheHost) {
   Load();
   auto *reg = LusFn<std::remove_pointer_t<LusClientRegisterFn>>("lus_ClientRegister");
   hyk_ModuleID lus = LusID();
   EXPECT_DEATH(
      {
         char name[] = "x";
         ClientInfo info{};
         ClientEntry *h = nullptr;
         hyk_ModuleCookie cookie{};
         hyk_ModulePushId(lus, nullptr, &cookie);
         reg(1, name, &info, &h);
      },
      "Failed at datapath/hvs/modules/lus/lus_client:[0-9]+ -- NOT REACHED");
}

TEST_F(ClientRegistryTest, GetToClientOnEmptyTableReturnsNotFoundWithoutScanning) {
   Load();
   // A name left in row 0 must not be found while the count is 0.
   strcpy(ToClients()[0].clientName, "ghost");
   uint32_t idx = 99;
   auto *get = LusFn<GetToClientFn>("LUS_GetToClient");
   EXPECT_EQ(get("ghost", &idx), HYK_NOT_FOUND);
   EXPECT_EQ(idx, 99u);
   Var<int32_t>("numToClients") = 1;
   EXPECT_EQ(get("ghost", &idx), HYK_OK);
   EXPECT_EQ(idx, 0u);
   EXPECT_EQ(get("other", &idx), HYK_NOT_FOUND);
   EXPECT_TRUE(ModuleLines().empty());
}

TEST_F(ClientRegistryTest, RegistrationAfterPartialUnregistrationLandsAtTheCounter) {
   Load();
   TestClient *a = AddClient("a", kToBuild);
   TestClient *b = AddClient("b", kToBuild);
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   auto *unreg = LusFn<hyk_Status(ClientEntry *)>("lus_ClientUnregister");
   ASSERT_EQ(AsLus([&] { return unreg(a->handle()); }), HYK_OK);  // row 0 freed, count 1
   // A new client lands at index 1, over b's entry still in use: no compaction.
   TestClient *c = AddClient("c", kToBuild);
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   EXPECT_EQ(c->handle(), &ToClients()[1]);
   EXPECT_EQ(b->handle(), &ToClients()[1]);
   EXPECT_STREQ(ToClients()[1].clientName, "c");
   EXPECT_EQ(Var<int32_t>("numToClients"), 2);
}

TEST_F(ClientRegistryTest, BasicRegistrationKeepsExtendedSlotsOfAnEarlierOccupant) {
   Load({"fromBuild=1000"});
   TestClient *v1 = AddClient("v1", kToBuild);
   ASSERT_EQ(Reg(0, LUS_REG_TO_V1), HYK_OK);
   ASSERT_EQ(Unreg(0), HYK_OK);
   void *leftover = reinterpret_cast<void *>(ToClients()[0].ops.psRuntimeSave);
   ASSERT_NE(leftover, nullptr);
   v1->config().buildNumber = 1;  // stays out from now on
   TestClientConfig cfg;
   cfg.moduleName = "v0";
   cfg.buildNumber = kToBuild;
   cfg.slots.fill(false);
   cfg.slots[kRuntimeRestore] = true;
   AddClient(cfg);
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   EXPECT_STREQ(ToClients()[0].clientName, "v0");
   EXPECT_EQ(ToClients()[0].ops.getRuntimeState, nullptr);
   EXPECT_EQ(reinterpret_cast<void *>(ToClients()[0].ops.psRuntimeSave), leftover);
}

TEST_F(ClientRegistryTest, GetClientNamePrefersInUseFromClient) {
   Load();
   auto *get = LusFn<std::remove_pointer_t<LusGetClientNameFn>>("LUS_GetClientName");
   ClientEntry from{}, to{};
   strcpy(from.clientName, "from");
   strcpy(to.clientName, "to");
   LusClientInst rec{};
   rec.fromClient = &from;
   rec.toClient = &to;
   to.inUse = 1;
   EXPECT_EQ(AsLus([&] { return get(&rec); }), &to);
   from.inUse = 1;
   EXPECT_EQ(AsLus([&] { return get(&rec); }), &from);
   from.inUse = 0;
   to.inUse = 0;
   EXPECT_EQ(AsLus([&] { return get(&rec); }), nullptr);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_GetClientName", 7, "Failed to get client name : Bad parameter"), 1), 1u);
}

// ---- registration API ---------------------------------------------------------

TEST_F(RegistrationApiTest, RegTypeFiveIsRefusedWithoutPosting) {
   Load();
   TestClient *c = AddClient("fw_new", kToBuild);
   EXPECT_EQ(Reg(0, 5), HYK_BAD_PARAM);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_Reg", 7, "Invalid registration type : Bad parameter"), 1), 1u);
   EXPECT_EQ(Var<uint32_t>("currRegType"), 0u);
   EXPECT_EQ(c->registrationEvents(), 0u);
   EXPECT_EQ(hyksim::CallCount("hyk_NetEventPost"), 0u);
}

TEST_F(RegistrationApiTest, EventCarriesEntryPointsModeAndBuildNumber) {
   Load({"fromBuild=1000"});
   TestClient *c = AddClient("fw_old", kFromBuild);
   ASSERT_EQ(Reg(0, LUS_REG_FROM_V1), HYK_OK);
   const LUSEventOps &ev = c->lastEvent;
   EXPECT_EQ(ev.mode, 1u);
   EXPECT_EQ(ev.moduleID, LusID());
   EXPECT_EQ(ev.unregister, 0u);
   EXPECT_EQ(ev.buildNumber, kFromBuild);
   EXPECT_EQ((void *)ev.registerFn.reg, LusSymbol("lus_ClientRegister"));
   EXPECT_EQ((void *)ev.getClientNameFn, LusSymbol("LUS_GetClientName"));
   EXPECT_EQ((void *)ev.getRestoreStateFn, nullptr);
   EXPECT_EQ(CountModuleLines(PlainLineRe("LUS_Reg", "Posting reg event to all modules"), 3), 1u);

   ASSERT_EQ(Reg(0, LUS_REG_TO_V1), HYK_OK);
   EXPECT_EQ(c->lastEvent.buildNumber, kToBuild);
   EXPECT_EQ((void *)c->lastEvent.getRestoreStateFn, LusSymbol("lusGetRestoreState"));
   // Written for type 4 only and never cleared: later posts still carry it.
   ASSERT_EQ(Unreg(0), HYK_OK);
   EXPECT_EQ(c->lastEvent.unregister, 1u);
   EXPECT_EQ((void *)c->lastEvent.registerFn.unreg, LusSymbol("lus_ClientUnregister"));
   EXPECT_EQ((void *)c->lastEvent.getRestoreStateFn, LusSymbol("lusGetRestoreState"));
   EXPECT_EQ(Var<uint8_t>("lusClientsUnregistered"), 1u);
}

TEST_F(RegistrationApiTest, LegacyEditionPostsTheLegacyEventAndSetsItsFlag) {
   Load();
   TestClient *q = AddClient("q", kToBuild);
   TestClient *j = AddClient("j", kToBuild, true);
   ASSERT_EQ(Reg(1, LUS_REG_TO), HYK_OK);
   EXPECT_EQ(j->registerStatuses, std::vector<hyk_Status>{HYK_OK});
   EXPECT_EQ(q->registrationEvents(), 0u);
   EXPECT_EQ(Var<uint8_t>("lusTARNJRegistered"), 1u);
   EXPECT_EQ(Var<uint8_t>("lusTARNQRegistered"), 0u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("LUS_Reg",
                 "TARNJ Registration detected, send TARNJ_LUS_CLIENT_REG_UNREG"), 3), 1u);
   ASSERT_EQ(Unreg(1), HYK_OK);
   EXPECT_EQ(Var<uint8_t>("lusTARNJRegistered"), 0u);
   EXPECT_EQ(j->handle(), nullptr);
}

TEST_F(RegistrationApiTest, FirstFromBuildRegistrationOfModeZeroMakesMapEventAndSubscriptions) {
   Load({"fromBuild=1000"});
   AddClient("fw_old", kFromBuild);
   ASSERT_EQ(Reg(0, LUS_REG_FROM), HYK_OK);
   EXPECT_NE(Var<LusHashMap *>("lusHashMap"), nullptr);
   EXPECT_EQ(Var<LusHashMap *>("lusPerPortHashMap"), nullptr);
   auto events = hyksim::RegisteredEvents();
   EXPECT_NE(std::find(events.begin(), events.end(), "com.corvid.tarn.kcp.port.unblock"), events.end());
   size_t lusSubs = 0;
   for (auto &s : hyksim::Subscriptions()) {
      if (s.module == LusID()) {
         lusSubs++;
      }
   }
   EXPECT_EQ(lusSubs, 2u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("createLUSHash", "Creating LUS Hash with version 0"), 3), 1u);
}

TEST_F(RegistrationApiTest, SecondFromBuildRegistrationGoesStraightToEnrolment) {
   Load({"fromBuild=1000"});
   AddClient("fw_new", kToBuild, false, "fw");
   AddClient("fw_old", kFromBuild, false, "fw");
   MakePortset("ps0", 2, 0);
   MakePortset("ps1", 3, 10);
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   SetPortsets({"ps0"});
   ASSERT_EQ(Reg(0, LUS_REG_FROM), HYK_OK);
   ASSERT_EQ(Var<uint32_t>("numLUSInstances"), 2u);
   LusHashMap *map = Var<LusHashMap *>("lusHashMap");

   SetPortsets({"ps1"});
   ASSERT_EQ(Reg(0, LUS_REG_FROM), HYK_OK);
   EXPECT_EQ(Var<LusHashMap *>("lusHashMap"), map);
   EXPECT_EQ(hyksim::LogCount("Creating LUS Hash"), 1u);
   EXPECT_EQ(hyksim::CallCount("hyk_NetEventRegister"), 1u);
   EXPECT_EQ(hyksim::CallCount("hyk_NetEventPortsetEventSubscribe"), 2u + 1u);  // 2 clients + lus once
   EXPECT_EQ(Var<uint32_t>("numLUSInstances"), 5u);
   EXPECT_EQ(map->count, 5u);
}

TEST_F(RegistrationApiTest, FromBuildRegistrationOfModeOneMakesBothMapsAndEnrolsNothing) {
   Load({"fromBuild=1000"});
   AddClient("fw_new", kToBuild, false, "fw");
   AddClient("fw_old", kFromBuild, false, "fw");
   MakePortset("ps0", 2);
   SetPortsets({"ps0"});
   ASSERT_EQ(Reg(0, LUS_REG_TO_V1), HYK_OK);
   ASSERT_EQ(Reg(0, LUS_REG_FROM_V1), HYK_OK);
   LusHashMap *ps = Var<LusHashMap *>("lusHashMap");
   LusHashMap *port = Var<LusHashMap *>("lusPerPortHashMap");
   ASSERT_NE(ps, nullptr);
   ASSERT_NE(port, nullptr);
   EXPECT_EQ(ps->count, 0u);
   EXPECT_EQ(port->count, 0u);
   EXPECT_EQ(ps->keyLen, 4u);
   EXPECT_EQ(Var<uint32_t>("numLUSInstances"), 0u);
   EXPECT_EQ(hyksim::CallCount("hyk_NetEventRegister"), 0u);
   EXPECT_EQ(hyksim::CallCount("hyk_PortsetAcquireByName"), 0u);
   EXPECT_EQ(Var<uint32_t>("currRegType"), 0u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("createLUSHash", "Creating LUS Hash with version 1"), 3), 1u);
}

TEST_F(RegistrationApiTest, ToBuildRegistrationsNeverCreateMaps) {
   Load({"fromBuild=1000"});
   AddClient("fw_new", kToBuild);
   MakePortset("ps0", 2);
   SetPortsets({"ps0"});
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   ASSERT_EQ(Unreg(0), HYK_OK);
   ASSERT_EQ(Reg(0, LUS_REG_TO_V1), HYK_OK);
   EXPECT_EQ(Var<LusHashMap *>("lusHashMap"), nullptr);
   EXPECT_EQ(Var<LusHashMap *>("lusPerPortHashMap"), nullptr);
   EXPECT_EQ(hyksim::LogCount("Creating LUS Hash"), 0u);
}

TEST_F(RegistrationApiTest, FailedPostClearsClientsAndFreesMaps) {
   Load({"fromBuild=1000"});
   TestClient *ok = AddClient("ok_old", kFromBuild);
   TestClientConfig bad;
   bad.moduleName = "bad_old";
   bad.buildNumber = kFromBuild;
   AddClient(bad);
   // A third client whose handler fails makes the post fail after the first two registered.
   TestClientConfig refuse;
   refuse.moduleName = "refuse";
   refuse.buildNumber = kFromBuild;
   refuse.clientName = "ok_old";  // a duplicate: its registration fails
   AddClient(refuse);
   EXPECT_EQ(Reg(0, LUS_REG_FROM), HYK_BAD_PARAM);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_Reg", 7, "Error status from LUS Registration event : Bad parameter"), 1), 1u);
   // The clearing ran with the event's mode; the post had failed, so the
   // edition was not marked registered and no unregistration was posted.
   EXPECT_EQ(hyksim::LogCount("Clearing LUS Client data ..."), 1u);
   EXPECT_EQ(Var<LusHashMap *>("lusHashMap"), nullptr);
   EXPECT_EQ(Var<uint32_t>("currRegType"), 0u);
   EXPECT_EQ(ok->registerStatuses, std::vector<hyk_Status>{HYK_OK});
}

TEST_F(RegistrationApiTest, FailedEnrolmentClearsTheRegisteredClients) {
   Load({"fromBuild=1000"});
   AddClient("fw_new", kToBuild, false, "fw");
   TestClient *from = AddClient("fw_old", kFromBuild, false, "fw");
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   SetPortsets({"nosuch"});
   EXPECT_EQ(Reg(0, LUS_REG_FROM), HYK_NOT_FOUND);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_ClientRegAll", 3, "REG: Error acquiring portset nosuch : Not found"), 1), 1u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_Reg", 3, "Registration FAILED : Not found"), 1), 1u);
   EXPECT_EQ(from->handle(), nullptr);
   EXPECT_EQ(Var<int32_t>("numFromClients"), 0);
   EXPECT_EQ(Var<int32_t>("numToClients"), 0);
   EXPECT_EQ(Var<LusHashMap *>("lusHashMap"), nullptr);
   EXPECT_EQ(from->Unload(), HYK_OK);
}

TEST_F(RegistrationApiTest, MapCreationFailureFreesAndReturnsOutOfMemory) {
   Load({"fromBuild=1000", "LUS_HEAP_MIN_SIZE=100000", "LUS_HEAP_0_MAX_SIZE=100000"});
   AddClient("fw_old", kFromBuild);
   EXPECT_EQ(Reg(0, LUS_REG_FROM), HYK_NO_MEMORY);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("createLUSHash", 20,
                 "Failed to create portset phase hash table : Out of memory"), 1), 1u);
   EXPECT_EQ(Var<LusHashMap *>("lusHashMap"), nullptr);
   EXPECT_EQ(Var<uint32_t>("currRegType"), 0u);
}

TEST_F(RegistrationApiTest, PortPhaseMapFailureFreesBothMaps) {
   // Room for one map (393264 bytes) but not two.
   Load({"fromBuild=1000", "LUS_HEAP_MIN_SIZE=500000", "LUS_HEAP_0_MAX_SIZE=500000"});
   AddClient("fw_old", kFromBuild);
   EXPECT_EQ(Reg(0, LUS_REG_FROM_V1), HYK_NO_MEMORY);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("createLUSHash", 20,
                 "Failed to create port phase hash table : Out of memory"), 1), 1u);
   EXPECT_EQ(Var<LusHashMap *>("lusHashMap"), nullptr);
   EXPECT_EQ(Var<LusHashMap *>("lusPerPortHashMap"), nullptr);
   EXPECT_EQ(hyksim::FindHeap("lus_heap_0")->liveAllocations, 0u);
}

TEST_F(RegistrationApiTest, EventRegistrationFailureFreesTheMap) {
   Load({"fromBuild=1000"});
   AddClient("fw_old", kFromBuild);
   hyksim::FaultSpec desc;
   desc.op = "hyk_NetEventRegister";
   desc.nth = 1;
   desc.status = HYK_EXISTS;
   hyksim::InjectFault(desc);
   EXPECT_EQ(Reg(0, LUS_REG_FROM), HYK_EXISTS);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_Reg", 5,
                 "Failed to register event com.corvid.tarn.kcp.port.unblock : Already exists"), 1), 1u);
   EXPECT_EQ(Var<LusHashMap *>("lusHashMap"), nullptr);
}

TEST_F(RegistrationApiTest, SubscriptionFailureFreesTheMap) {
   Load({"fromBuild=1000"});
   AddClient("fw_old", kFromBuild);
   hyksim::FaultSpec desc;
   desc.op = "hyk_NetEventPortEventSubscribe";
   desc.nth = 1;
   desc.status = HYK_NOT_FOUND;
   hyksim::InjectFault(desc);
   EXPECT_EQ(Reg(0, LUS_REG_FROM), HYK_NOT_FOUND);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_Reg", 3, "Error in subscribing to LUS events : Not found"), 1), 1u);
   EXPECT_EQ(Var<LusHashMap *>("lusHashMap"), nullptr);
   for (auto &s : hyksim::Subscriptions()) {
      EXPECT_NE(s.module, LusID()) << s.event;
   }
}

TEST_F(RegistrationApiTest, FailedUnregistrationPostKeepsTheFlag) {
   Load();
   AddClient("fw_new", kToBuild);
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   hyksim::FaultSpec desc;
   desc.op = "hyk_NetEventPost";
   desc.nth = 1;
   desc.status = HYK_BAD_PARAM;
   hyksim::InjectFault(desc);
   EXPECT_EQ(Unreg(0), HYK_BAD_PARAM);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_Unreg", 7, "Error status from LUS Unregistration event : Bad parameter"), 1), 1u);
   EXPECT_EQ(Var<uint8_t>("lusTARNQRegistered"), 1u);
}

}  // namespace
}  // namespace lustest
