// Tests of the port instance maps: creation, enrolment of ports and clients,
// removal and emptying.
#include <algorithm>
#include <cstring>
#include <regex>

#include "lus_fixture.h"

namespace lustest {
namespace {

class MapFixture : public LusTest {
  protected:
   void Pair(const std::string &name, uint32_t phase = LUS_PHASE_PORTSET, bool legacy = false) {
      TestClientConfig from;
      from.moduleName = name + "_old";
      from.clientName = name;
      from.buildNumber = kFromBuild;
      from.upgradePhase = phase;
      from.legacyEdition = legacy;
      AddClient(from);
      TestClientConfig to = from;
      to.moduleName = name + "_new";
      to.buildNumber = kToBuild;
      AddClient(to);
   }
   // Version 1: both builds registered, maps made.
   void RegisterV1() {
      ASSERT_EQ(Reg(0, LUS_REG_FROM_V1), HYK_OK);
      ASSERT_EQ(Reg(0, LUS_REG_TO_V1), HYK_OK);
   }
   hyk_Status RegAllPS(const char *ps) {
      return AsLus([&] { return LusFn<RegAllPSFn>("LUS_ClientRegAllPS")(ps); });
   }
   // Clients alpha and beta of both builds, version 1, on `n` ports of ps0
   // enrolled: the ports, and the map that holds them.
   std::vector<hyk_PortID> EnrolTwoClients(int n, LusHashMap **map) {
      Pair("alpha");
      Pair("beta");
      auto ports = MakePortset("ps0", n);
      RegisterV1();
      EXPECT_EQ(RegAllPS("ps0"), HYK_OK);
      *map = Var<LusHashMap *>("lusHashMap");
      return ports;
   }
   LusPortInstV1 *Port(LusHashMap *map, hyk_PortID id) {
      return LusFn<LookupV1Fn>("lusLookupPortV1")(map, id);
   }
   std::vector<LusClientInst *> RecordsOf(LusPortInstV1 *inst) {
      std::vector<LusClientInst *> recs;
      for (LusListLinks *e = inst->clients.next; e != &inst->clients; e = e->next) {
         recs.push_back(reinterpret_cast<LusClientInst *>(e));
      }
      return recs;
   }
   std::vector<std::string> ClientsOf(LusPortInstV1 *inst) {
      std::vector<std::string> names;
      for (LusClientInst *rec : RecordsOf(inst)) {
         names.push_back(rec->fromClient->clientName);
      }
      return names;
   }
   LusInstance *FindV0(const char *uuid, uint32_t vnic, const char *name) {
      return AsLus([&] { return LusFn<FindV0Fn>("LUS_FindMatchingInstance")(uuid, vnic, name); });
   }
};

class PortInstanceMapTest : public MapFixture {};
class PortEnrolmentTest : public MapFixture {};
class PortMapRemovalTest : public MapFixture {};

// ---- the map ---------------------------------------------------------------------

TEST_F(PortInstanceMapTest, MapHeaderAndBucketsAreSetAtCreation) {
   Load({"fromBuild=1000"});
   Pair("fw");
   ASSERT_EQ(Reg(0, LUS_REG_FROM), HYK_OK);
   LusHashMap *map = Var<LusHashMap *>("lusHashMap");
   ASSERT_NE(map, nullptr);
   EXPECT_EQ(map->heap, Var<hyk_HeapID>("lusHeapID_0"));
   EXPECT_EQ(map->keyLen, 133u);
   EXPECT_EQ(map->keyOffset, offsetof(LusInstance, vmUUID));
   EXPECT_EQ(map->linkOffset, 0u);
   EXPECT_EQ(map->bucketMask, 16383u);
   EXPECT_EQ(map->count, 0u);
   EXPECT_EQ(map->flags, 0xffffu);
   EXPECT_EQ(map->hashFn, nullptr);
   EXPECT_EQ(map->compareFn, nullptr);
   LusHashBucket *b = TarnHash_Buckets(map);
   for (uint32_t i = 0; i <= map->bucketMask; i++) {
      ASSERT_EQ(b[i].chain.next, &b[i].chain) << i;
      ASSERT_EQ(b[i].chain.prev, &b[i].chain) << i;
      ASSERT_EQ(b[i].count, 0u) << i;
   }
   EXPECT_EQ(hyksim::FindHeap("lus_heap_0")->bytesInUse, 48u + 16384u * 24u);
}

TEST_F(PortInstanceMapTest, SamePortUnderTwoClientsGivesOneInstanceNewestFirst) {
   Load({"fromBuild=1000"});
   LusHashMap *map = nullptr;
   auto ports = EnrolTwoClients(1, &map);
   EXPECT_EQ(map->count, 1u);
   LusPortInstV1 *inst = Port(map, ports[0]);
   ASSERT_NE(inst, nullptr);
   EXPECT_EQ(inst->valid, 1u);
   EXPECT_EQ(inst->portID, ports[0]);
   EXPECT_EQ(ClientsOf(inst), (std::vector<std::string>{"beta", "alpha"}));
   auto *rec = reinterpret_cast<LusClientInst *>(inst->clients.next);
   EXPECT_EQ(rec->stateLen, 0u);
   EXPECT_EQ(rec->state, nullptr);
   EXPECT_EQ(rec->stateHeap, 0u);
   EXPECT_STREQ(rec->toClient->clientName, "beta");
   EXPECT_EQ(rec->toClient->clientType, (uint32_t)LUS_CLIENT_TO);
   std::string line = "Client Instance created for port: " + std::to_string(ports[0]) + ", client beta ";
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusClientInstInitV1", line)), 0u);  // level 5, not shown at 3
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusClientInstInitV1", "upgrade phase: PORTSET"), 3), 2u);
}

TEST_F(PortInstanceMapTest, PortPhaseClientsGoToThePerPortMap) {
   Load({"fromBuild=1000", "lusLogLevel=5"});
   Pair("fw", LUS_PHASE_PORT);
   auto ports = MakePortset("ps0", 1);
   RegisterV1();
   ASSERT_EQ(RegAllPS("ps0"), HYK_OK);
   EXPECT_EQ(Var<LusHashMap *>("lusHashMap")->count, 0u);
   EXPECT_NE(Port(Var<LusHashMap *>("lusPerPortHashMap"), ports[0]), nullptr);
   std::string p = std::to_string(ports[0]);
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusClientInstInitV1", "upgrade phase: PORT"), 3), 1u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusClientInstInitV1", "port " + p + " client fw added in lus per port hash map"), 3), 1u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusClientInstInitV1", "Client Instance created for port: " + p + ", client fw "), 5), 1u);
}

TEST_F(PortInstanceMapTest, LookingUpAMissingPortLogsAtLevelFiveAndReturnsNull) {
   Load({"fromBuild=1000", "lusLogLevel=5"});
   Pair("fw");
   RegisterV1();
   auto *find = LusFn<FindV1Fn>("LUS_FindMatchingInstanceV1");
   EXPECT_EQ(AsLus([&] { return find(9999, "fw", 0); }), nullptr);
   EXPECT_EQ(CountModuleLines(PlainLineRe("LUS_FindMatchingInstanceV1", "Port 9999 (0x270f) not found in Hash"), 5), 1u);
}

TEST_F(PortInstanceMapTest, MissLineIsNotFormattedBelowLevelFive) {
   Load({"fromBuild=1000"});
   Pair("fw");
   RegisterV1();
   auto *find = LusFn<FindV1Fn>("LUS_FindMatchingInstanceV1");
   EXPECT_EQ(AsLus([&] { return find(9999, "fw", 0); }), nullptr);
   EXPECT_EQ(hyksim::LogCount("not found in Hash"), 0u);
}

TEST_F(PortInstanceMapTest, TwoVersionZeroRecordsWithOneUuidAreToldApartByVnicIndex) {
   Load({"fromBuild=1000"});
   Pair("fw");
   hyksim::PortsetSpec desc;
   desc.name = "ps0";
   ASSERT_EQ(hyksim::AddPortset(desc), HYK_OK);
   hyk_PortID p0 = AddVnicPort("ps0", "vm-shared", 0);
   hyk_PortID p1 = AddVnicPort("ps0", "vm-shared", 1);
   SetPortsets({"ps0"});
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   ASSERT_EQ(Reg(0, LUS_REG_FROM), HYK_OK);
   LusInstance *r0 = FindV0("vm-shared", 0, "fw");
   LusInstance *r1 = FindV0("vm-shared", 1, "fw");
   ASSERT_TRUE(r0 && r1);
   EXPECT_NE(r0, r1);
   EXPECT_EQ(r0->portID, p0);
   EXPECT_EQ(r1->portID, p1);
   EXPECT_EQ(r1->vnicIndex, 1u);
   EXPECT_EQ(FindV0("vm-shared", 2, "fw"), nullptr);
   EXPECT_EQ(FindV0("vm-shared", 0, "other"), nullptr);
   auto *check = LusFn<CheckPortFn>("LUS_CheckPortInHash");
   EXPECT_EQ(check("vm-shared", 1), r1);
   EXPECT_EQ(check("vm-other", 1), nullptr);
}

TEST_F(PortInstanceMapTest, UnknownKeyKindStopsTheHostFromTheHashRoutine) {
   Load({"fromBuild=1000"});
   Pair("fw");
   RegisterV1();
   LusHashMap *map = Var<LusHashMap *>("lusHashMap");
   auto *find = LusFn<FindV1Fn>("LUS_FindMatchingInstanceV1");
   hyk_ModuleID lus = LusID();
   EXPECT_DEATH(
      {
         map->keyKind = 9;
         hyk_ModuleCookie cookie{};
         hyk_ModulePushId(lus, nullptr, &cookie);
         find(1, "fw", 0);
      },
      "Failed at datapath/hvs/modules/include/tarn_hash_common:170 -- NOT REACHED");
}

// ---- enrolment ---------------------------------------------------------------------

TEST_F(PortEnrolmentTest, FromBuildEnrolmentMakesOneRecordPerVnicPort) {
   Load({"fromBuild=1000"});
   Pair("fw");
   auto ports = MakePortset("ps0", 3);
   hyksim::PortSpec uplink;
   uplink.clientType = HYK_PORT_CLIENT_UPLINK;
   hyk_PortID up = 0;
   ASSERT_EQ(hyksim::AddPort("ps0", uplink, &up), HYK_OK);
   SetPortsets({"ps0"});
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   ASSERT_EQ(Reg(0, LUS_REG_FROM), HYK_OK);
   EXPECT_EQ(Var<uint32_t>("numLUSInstances"), 3u);
   LusInstance *r = FindV0("vm-1", 0, "fw");
   ASSERT_NE(r, nullptr);
   EXPECT_EQ(r->portID, ports[1]);
   EXPECT_EQ(r->hasState, 0u);
   EXPECT_EQ(r->stateLen, 0u);
   EXPECT_EQ(r->state, nullptr);
   EXPECT_EQ(r->stateHeap, Var<hyk_HeapID>("lusHeapID_0"));
   EXPECT_STREQ(r->fromClient->clientName, "fw");
   EXPECT_EQ(r->fromClient->clientType, (uint32_t)LUS_CLIENT_FROM);
   EXPECT_EQ(r->toClient->clientType, (uint32_t)LUS_CLIENT_TO);
   EXPECT_EQ(r->requiredRestoreEvent, 1u);
   char hex[16];
   snprintf(hex, sizeof hex, "0x%x", ports[1]);
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusRegForAllPorts", std::string("Client Instance created for VM UUID: vm-1 vnic: 0 port: ") + hex + " Client fw"), 3), 1u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusRegForAllPorts", "numLUSInstances 3"), 3), 1u);
}

// Version 1 enrolment on a fabric that knows external ids reads a port's
// external id only when the port lacks the LSPG flag; below that fabric
// version it reads neither.  The read is seen in the host-call trace.
TEST_F(PortEnrolmentTest, VersionOneEnrolmentReadsTheExternalIdOfPortsWithoutTheLspgFlag) {
   Load({"fromBuild=1000"});
   Pair("alpha");
   struct Case {
      const char *portset;
      uint32_t fabricVersion;
      uint32_t flags;
      size_t reads;
   };
   const Case cases[] = {{"ps-lspg", 107, HYK_FABRIC_PORT_FLAG_LSPG, 0},
                         {"ps-plain", 107, 0, 1},
                         {"ps-old-fabric", 106, 0, 0}};
   for (const Case &c : cases) {
      hyksim::PortsetSpec ps;
      ps.name = c.portset;
      ps.fabricVersion = c.fabricVersion;
      ASSERT_EQ(hyksim::AddPortset(ps), HYK_OK);
      hyksim::PortSpec port;
      port.vmUUID = std::string("vm-") + c.portset;
      port.flags = c.flags;
      port.properties["com.corvid.port.extraConfig.vnic.external.id"] = "ext-17";
      hyk_PortID id = 0;
      ASSERT_EQ(hyksim::AddPort(c.portset, port, &id), HYK_OK);
   }
   RegisterV1();
   for (const Case &c : cases) {
      hyksim::TraceClear();
      hyksim::TraceEnable(true);
      EXPECT_EQ(RegAllPS(c.portset), HYK_OK) << c.portset;
      hyksim::TraceEnable(false);
      const std::vector<std::string> trace = hyksim::Trace();
      EXPECT_EQ(std::count(trace.begin(), trace.end(), "hyk_FabricPortFlagIsSet"), c.fabricVersion > 106 ? 1 : 0)
          << c.portset;
      EXPECT_EQ(static_cast<size_t>(std::count(trace.begin(), trace.end(), "hyk_FabricPortDataGet")), c.reads)
          << c.portset;
   }
}

TEST_F(PortEnrolmentTest, FromBuildOnlyClientAndClientWithoutCallbacksAreSkipped) {
   Load({"fromBuild=1000", "lusLogLevel=5"});
   AddClient("lonely_old", kFromBuild, false, "lonely");
   TestClientConfig nosave;
   nosave.moduleName = "nosave_old";
   nosave.clientName = "nosave";
   nosave.buildNumber = kFromBuild;
   nosave.slots[kGetRuntimeState] = false;
   AddClient(nosave);
   nosave.moduleName = "nosave_new";
   nosave.buildNumber = kToBuild;
   AddClient(nosave);
   MakePortset("ps0", 2);
   SetPortsets({"ps0"});
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   ASSERT_EQ(Reg(0, LUS_REG_FROM), HYK_OK);
   EXPECT_EQ(Var<uint32_t>("numLUSInstances"), 0u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("LUS_ClientRegAll", "Client lonely registered to LUS in from Build only"), 3), 1u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("LUS_ClientRegAll",
                 "Skipping port client init for client nosave as it registered no save/restore callback."), 5), 1u);
}

TEST_F(PortEnrolmentTest, ToBuildRegistrationMatchesSavedRecords) {
   Load({"fromBuild=1000"});
   Pair("fw");
   auto ports = MakePortset("ps0", 1);
   SetPortsets({"ps0"});
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   ASSERT_EQ(Reg(0, LUS_REG_FROM), HYK_OK);
   // The from build's clients go; the new build's answer registration once more.
   ASSERT_EQ(Unreg(0), HYK_OK);
   LusInstance *r = FindV0("vm-0", 0, "fw");
   ASSERT_NE(r, nullptr);
   r->toClient = nullptr;
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   ASSERT_NE(r->toClient, nullptr);
   EXPECT_STREQ(r->toClient->clientName, "fw");
   EXPECT_EQ(r->toClient->inUse, 1u);
   char line[160];
   snprintf(line, sizeof line, "Matched VM UUID: vm-0 vNic: 0 for portID %u (0x%x), client fw", ports[0], ports[0]);
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusRegForAllPorts", line), 3), 1u);
}

// A session may register clients of both interface versions; records of one
// version must never be put into, or read out of, a map of the other.
TEST_F(PortEnrolmentTest, VersionOneEnrolmentIntoAVersionZeroMapIsRefused) {
   Load({"fromBuild=1000"});
   Pair("fw");
   MakePortset("ps0", 2);
   SetPortsets({"ps0"});
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   ASSERT_EQ(Reg(0, LUS_REG_FROM), HYK_OK);
   LusHashMap *map = Var<LusHashMap *>("lusHashMap");
   ASSERT_NE(map, nullptr);
   ASSERT_EQ(map->count, 2u);

   EXPECT_EQ(RegAllPS("ps0"), HYK_FAILURE);
   EXPECT_EQ(map->count, 2u);
   EXPECT_EQ(Var<uint32_t>("numLUSInstances"), 2u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lusMapVersionMismatch", 7,
                                              "LUS hash map holds records of interface version 0, "
                                              "not 1 : Bad parameter"),
                              1),
             1u);
   EXPECT_NE(FindV0("vm-0", 0, "fw"), nullptr);
}

TEST_F(PortEnrolmentTest, VersionZeroEnrolmentIntoAVersionOneMapIsRefused) {
   Load({"fromBuild=1000"});
   Pair("fw");
   MakePortset("ps0", 2);
   SetPortsets({"ps0"});
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   ASSERT_EQ(Reg(0, LUS_REG_FROM_V1), HYK_OK);
   ASSERT_NE(Var<LusHashMap *>("lusPerPortHashMap"), nullptr);

   // The mode 0 registration finds the version 1 maps and enrols into them.
   EXPECT_EQ(Reg(0, LUS_REG_FROM), HYK_BAD_PARAM);
   EXPECT_EQ(Var<uint32_t>("numLUSInstances"), 0u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lusMapVersionMismatch", 7,
                                              "LUS hash map holds records of interface version 1, "
                                              "not 0 : Bad parameter"),
                              1),
             1u);
   // The failed registration frees the maps it could not fill.
   EXPECT_EQ(Var<LusHashMap *>("lusHashMap"), nullptr);
}

TEST_F(PortEnrolmentTest, DynamoPortIsNeverEnrolled) {
   Load({"fromBuild=1000"});
   Pair("fw");
   hyksim::PortsetSpec desc;
   desc.name = "ps0";
   ASSERT_EQ(hyksim::AddPortset(desc), HYK_OK);
   hyk_PortID dyn = AddVnicPort("ps0", "vm-d", 0, "dynamoPort");
   AddVnicPort("ps0", "vm-n", 0, "dvport-7");
   SetPortsets({"ps0"});
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   ASSERT_EQ(Reg(0, LUS_REG_FROM), HYK_OK);
   EXPECT_EQ(FindV0("vm-d", 0, "fw"), nullptr);
   EXPECT_NE(FindV0("vm-n", 0, "fw"), nullptr);
   EXPECT_EQ(Var<uint32_t>("numLUSInstances"), 1u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusRegForAllPorts",
                 "Skip port registration for dynamo port, id " + std::to_string(dyn) + " fabricportID dynamoPort"), 3), 1u);
}

TEST_F(PortEnrolmentTest, RecordBeyond16384IsRefusedAndCountStaysAtTheLimit) {
   Load({"fromBuild=1000", "lusLogLevel=3"});
   Pair("fw");
   MakePortset("ps0", 16385);
   SetPortsets({"ps0"});
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   // Watch the enrolment itself: the failed registration clears afterwards.
   auto *clear = LusVar<uint64_t>("already_called");
   *clear = 1;
   EXPECT_EQ(Reg(0, LUS_REG_FROM), HYK_FAILURE);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lusRegForAllPorts", 1, "Cannot insert any more LUS instances : Failure"), 1), 1u);
   // The count reached the limit and no further; the failed registration then
   // emptied the map before freeing it, so no record outlives it.
   EXPECT_GE(hyksim::LogCount("numLUSInstances 16384"), 1u);
   EXPECT_EQ(hyksim::LogCount("numLUSInstances 16385"), 0u);
   EXPECT_EQ(Var<uint32_t>("numLUSInstances"), 0u);
   EXPECT_EQ(Var<LusHashMap *>("lusHashMap"), nullptr);
}

TEST_F(PortEnrolmentTest, SameClientTwiceForOnePortFailsAndLeavesOneRecord) {
   Load({"fromBuild=1000"});
   Pair("fw");
   auto ports = MakePortset("ps0", 1);
   RegisterV1();
   ASSERT_EQ(RegAllPS("ps0"), HYK_OK);
   EXPECT_EQ(RegAllPS("ps0"), HYK_FAILURE);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lusRegForAllPorts", 1,
                 "Duplicate registration attempted for port " + std::to_string(ports[0]) + " client fw with type 4 : Failure"), 1), 1u);
   LusPortInstV1 *inst = Port(Var<LusHashMap *>("lusHashMap"), ports[0]);
   ASSERT_NE(inst, nullptr);
   EXPECT_EQ(ClientsOf(inst).size(), 1u);
}

TEST_F(PortEnrolmentTest, SameClientTwiceForOneVersionZeroPortFails) {
   Load({"fromBuild=1000"});
   Pair("fw");
   MakePortset("ps0", 1);
   SetPortsets({"ps0"});
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   ASSERT_EQ(Reg(0, LUS_REG_FROM), HYK_OK);
   EXPECT_EQ(AsLus([] { return LusFn<hyk_Status(uint32_t)>("LUS_ClientRegAll")(LUS_REG_FROM); }), HYK_FAILURE);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lusRegForAllPorts", 1,
                 "Duplicate registration attempted for client fw with type 1 : Failure"), 1), 1u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_ClientRegAll", 1, "Client: fw Registration FAIL : Failure"), 1), 1u);
   EXPECT_EQ(Var<uint32_t>("numLUSInstances"), 1u);
   EXPECT_EQ(Var<LusHashMap *>("lusHashMap")->count, 1u);
}

TEST_F(PortEnrolmentTest, LegacyEditionRecordsRequireBothRestoreEvents) {
   Load({"fromBuild=1000"});
   Pair("fwj", LUS_PHASE_PORTSET, true);
   MakePortset("ps0", 2);
   SetPortsets({"ps0"});
   ASSERT_EQ(Reg(1, LUS_REG_TO), HYK_OK);
   ASSERT_EQ(Reg(1, LUS_REG_FROM), HYK_OK);
   LusInstance *r = FindV0("vm-0", 0, "fwj");
   ASSERT_NE(r, nullptr);
   EXPECT_EQ(r->requiredRestoreEvent, 0x3u);
   EXPECT_EQ(FindV0("vm-1", 0, "fwj")->requiredRestoreEvent, 0x3u);
}

TEST_F(PortEnrolmentTest, RegClientForPortV2EnrolsOnceAndMarksToBuildRecords) {
   Load({"fromBuild=1000"});
   Pair("fw");
   auto ports = MakePortset("ps0", 1);
   RegisterV1();
   ClientEntry *from = &LusVar<ClientEntry>("fromClients")[0];
   ClientEntry *to = &LusVar<ClientEntry>("toClients")[0];
   LusRegContext ctx{from, to, LUS_REG_TO_V1};
   auto *reg = LusFn<hyk_Status(int32_t, LusRegContext *, uint8_t)>("LUS_RegClientForPortV2");
   int32_t p = static_cast<int32_t>(ports[0]);
   EXPECT_EQ(AsLus([&] { return reg(p, &ctx, 0); }), HYK_OK);
   LusPortInstV1 *inst = Port(Var<LusHashMap *>("lusHashMap"), ports[0]);
   ASSERT_NE(inst, nullptr);
   EXPECT_EQ(reinterpret_cast<LusClientInst *>(inst->clients.next)->stateInfo, 1u);
   EXPECT_EQ(AsLus([&] { return reg(p, &ctx, 1); }), HYK_FAILURE);
   char line[160];
   snprintf(line, sizeof line, "Duplicate registration attempted for port %#x, client fw, with regType 4 : Failure", ports[0]);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("LUS_RegClientForPortV2", 1, line), 1), 1u);
   EXPECT_EQ(ClientsOf(inst).size(), 1u);
}

// ---- removal ------------------------------------------------------------------------

TEST_F(PortMapRemovalTest, EmptyingAnEmptyMapLogsOnlyTheSuccessLines) {
   Load({"fromBuild=1000"});
   Pair("fw");
   ASSERT_EQ(Reg(0, LUS_REG_FROM), HYK_OK);
   size_t before = ModuleLines().size();
   LusHashMap *map = Var<LusHashMap *>("lusHashMap");
   EXPECT_EQ(AsLus([&] { return LusFn<HashEmptyFn>("LUS_HashEmpty")(0, map); }), HYK_OK);
   auto lines = ModuleLines();
   ASSERT_EQ(lines.size(), before + 2);
   EXPECT_TRUE(std::regex_match(lines[before].text, std::regex(PlainLineRe("LUS_HashEmpty", "LUS hash table free'd"))));
   EXPECT_TRUE(std::regex_match(lines[before + 1].text, std::regex(PlainLineRe("LUS_HashEmpty", "All entries in LUS hash table deleted."))));
}

TEST_F(PortMapRemovalTest, HashEmptyOfNullMapReturnsZeroSilently) {
   Load();
   size_t before = hyksim::LogLines().size();
   EXPECT_EQ(AsLus([] { return LusFn<HashEmptyFn>("LUS_HashEmpty")(0, nullptr); }), HYK_OK);
   EXPECT_EQ(AsLus([] { return LusFn<HashEmptyFn>("LUS_HashEmpty")(1, nullptr); }), HYK_OK);
   EXPECT_EQ(hyksim::LogLines().size(), before);
}

TEST_F(PortMapRemovalTest, RemovingPortWhoseClientsSavedNothingLogsOncePerClient) {
   Load({"fromBuild=1000", "lusLogLevel=5"});
   LusHashMap *map = nullptr;
   auto ports = EnrolTwoClients(2, &map);
   ASSERT_EQ(map->count, 2u);
   AsLus([&] { LusFn<RemovePortV1Fn>("LUS_RemovePortFromMapV1")(map, ports[0]); });
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lusDeleteEntryV1", 136, "Client alpha with no state present in clientList : No data available"), 1), 1u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lusDeleteEntryV1", 136, "Client beta with no state present in clientList : No data available"), 1), 1u);
   std::string p = std::to_string(ports[0]);
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusDeleteEntryV1", "Client list successfully emptied for port " + p), 5), 1u);
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusDeleteEntryV1", "SUCCESS: Port " + p + " entry in Hash Map deleted."), 5), 1u);
   EXPECT_EQ(Port(map, ports[0]), nullptr);
   EXPECT_NE(Port(map, ports[1]), nullptr);
   EXPECT_EQ(map->count, 1u);
}

TEST_F(PortMapRemovalTest, RemovingPortFreesSavedStateToItsOwnHeap) {
   Load({"fromBuild=1000"});
   Pair("fw");
   auto ports = MakePortset("ps0", 1);
   RegisterV1();
   ASSERT_EQ(RegAllPS("ps0"), HYK_OK);
   LusHashMap *map = Var<LusHashMap *>("lusHashMap");
   auto *rec = reinterpret_cast<LusClientInst *>(Port(map, ports[0])->clients.next);
   hyk_HeapID used = 0;
   rec->state = AsLus([&] { return LusFn<ClientStateAllocFn>("LUS_ClientStateAlloc")(256, &used); });
   rec->stateHeap = used;
   rec->stateLen = 256;
   ASSERT_EQ(hyksim::FindHeap("lus_heap_1")->liveAllocations, 1u);
   AsLus([&] { LusFn<RemovePortV1Fn>("LUS_RemovePortFromMapV1")(map, ports[0]); });
   EXPECT_EQ(hyksim::FindHeap("lus_heap_1")->liveAllocations, 0u);
   EXPECT_EQ(hyksim::LogCount("with no state present"), 0u);
}

std::string HexOf(uint32_t v) {
   char b[16];
   snprintf(b, sizeof b, "%x", v);
   return b;
}

// Whatever its size, down to one byte, a state removed with its port is reported dropped.
TEST_F(PortMapRemovalTest, RemovingPortReportsTheStateItDropsDownToOneByte) {
   Load({"fromBuild=1000"});
   Pair("fw");
   auto ports = MakePortset("ps0", 2);
   RegisterV1();
   ASSERT_EQ(RegAllPS("ps0"), HYK_OK);
   LusHashMap *map = Var<LusHashMap *>("lusHashMap");
   const uint32_t sizes[2] = {1, 256};
   for (int i = 0; i < 2; i++) {
      auto *rec = reinterpret_cast<LusClientInst *>(Port(map, ports[i])->clients.next);
      hyk_HeapID used = 0;
      rec->state = AsLus([&] { return LusFn<ClientStateAllocFn>("LUS_ClientStateAlloc")(sizes[i], &used); });
      rec->stateHeap = used;
      rec->stateLen = sizes[i];
      AsLus([&] { LusFn<RemovePortV1Fn>("LUS_RemovePortFromMapV1")(map, ports[i]); });
      EXPECT_EQ(CountModuleLines(PlainLineRe("lusDeleteEntryV1", "Dropped saved state of port 0x" + HexOf(ports[i]) +
                                                                    " client fw: " + std::to_string(sizes[i]) +
                                                                    " bytes never restored"),
                                 3),
                1u)
         << sizes[i];
   }
   EXPECT_EQ(hyksim::FindHeap("lus_heap_1")->liveAllocations, 0u);
}

// Emptying a version 1 map counts as dropped only the records that hold
// state (a buffer and a length): a buffer of length 0 or a length without a
// buffer is nothing dropped, and a port counts once however many of its
// clients dropped state.
TEST_F(PortMapRemovalTest, EmptyingAVersionOneMapTalliesOnlyRecordsHoldingState) {
   Load({"fromBuild=1000"});
   LusHashMap *map = nullptr;
   auto ports = EnrolTwoClients(3, &map);
   auto give = [&](hyk_PortID port, int client, uint32_t bytes, uint64_t len) {
      std::vector<LusClientInst *> recs = RecordsOf(Port(map, port));
      ASSERT_EQ(recs.size(), 2u);
      LusClientInst *rec = recs[client];
      hyk_HeapID used = 0;
      rec->state = bytes == 0 ? nullptr
                              : AsLus([&] { return LusFn<ClientStateAllocFn>("LUS_ClientStateAlloc")(bytes, &used); });
      rec->stateHeap = used;
      rec->stateLen = len;
   };
   give(ports[0], 0, 16, 16);   // dropped
   give(ports[0], 1, 8, 8);     // dropped, same port
   give(ports[1], 0, 8, 0);     // a buffer of no length
   give(ports[2], 1, 0, 8);     // a length without a buffer
   EXPECT_EQ(AsLus([&] { return LusFn<HashEmptyFn>("LUS_HashEmpty")(1, map); }), HYK_OK);
   EXPECT_EQ(hyksim::LogCount("Dropped saved state that was never restored: 1 ports, 2 client records, 24 bytes"), 1u);
   EXPECT_EQ(hyksim::LogCount("Dropped saved state that was never restored:"), 1u);
   EXPECT_EQ(hyksim::FindHeap("lus_heap_1")->liveAllocations, 0u);
}

TEST_F(PortMapRemovalTest, AfterAllPortsAreRemovedInstanceCountIsBack) {
   Load({"fromBuild=1000"});
   Pair("fw");
   MakePortset("ps0", 3);
   SetPortsets({"ps0"});
   uint32_t before = Var<uint32_t>("numLUSInstances");
   size_t heap0Before = hyksim::FindHeap("lus_heap_0")->liveAllocations;
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   ASSERT_EQ(Reg(0, LUS_REG_FROM), HYK_OK);
   ASSERT_EQ(Var<uint32_t>("numLUSInstances"), before + 3);
   LusHashMap *map = Var<LusHashMap *>("lusHashMap");
   EXPECT_EQ(AsLus([&] { return LusFn<HashEmptyFn>("LUS_HashEmpty")(0, map); }), HYK_OK);
   EXPECT_EQ(Var<uint32_t>("numLUSInstances"), before);
   EXPECT_EQ(map->count, 0u);
   // Only the map itself is left in heap 0.
   EXPECT_EQ(hyksim::FindHeap("lus_heap_0")->liveAllocations, heap0Before + 1);
   EXPECT_EQ(hyksim::LogCount("Client entry cleared: portID:"), 3u);
}

TEST_F(PortMapRemovalTest, AfterAllVersionOnePortsAreRemovedInstanceCountIsBack) {
   Load({"fromBuild=1000"});
   Pair("fw", LUS_PHASE_PORT);
   auto ports = MakePortset("ps0", 3);
   RegisterV1();
   uint32_t before = Var<uint32_t>("numLUSInstances");
   ASSERT_EQ(RegAllPS("ps0"), HYK_OK);
   LusHashMap *map = Var<LusHashMap *>("lusPerPortHashMap");
   for (hyk_PortID p : ports) {
      AsLus([&] { LusFn<RemovePortV1Fn>("LUS_RemovePortFromMapV1")(map, p); });
   }
   EXPECT_EQ(Var<uint32_t>("numLUSInstances"), before);
   EXPECT_EQ(map->count, 0u);
}

}  // namespace
}  // namespace lustest
