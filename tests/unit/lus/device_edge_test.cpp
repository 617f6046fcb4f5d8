// The edge cases of the control device's protocol and of its command
// handlers, each through a user process's ioctl on the device "lus".
#include "device_fixture.h"

namespace lustest {
namespace {

using DeviceEdgeTest = DeviceTest;

TEST_F(DeviceEdgeTest, CommandNumberFifteenOrAboveOrNegativeIsUnknownAndRefused) {
   Load({"fromBuild=1000"});
   const uint32_t cmds[] = {15, 16, 0x7fffffffu, static_cast<uint32_t>(-1), static_cast<uint32_t>(-14)};
   for (uint32_t cmd : cmds) {
      EXPECT_EQ(Tool().Raw(cmd, lusctl::PortsetQuery({}, false, 0)), HYK_BAD_PARAM) << cmd;
   }
   EXPECT_EQ(ErrLines("lusCharDevIoctl", HYK_BAD_PARAM, "LUS - Unknown IOCTL cmd : Bad parameter"), 5u);
   // Refused on the header alone: no payload byte was read.
   EXPECT_EQ(hyksim::CallCount("hyk_CopyFromUser"), 5u);
}

TEST_F(DeviceEdgeTest, RuntimePhaseRegistrationWithoutFromBuildIsRefusedAfterOnlyTheHeader) {
   Load();
   TestClient *c = AddClient("sw-new", kToBuild);
   for (uint32_t cmd : {LUS_IOCTL_REG_FROM_EXT, LUS_IOCTL_REG_TO_EXT}) {
      EXPECT_EQ(Tool().Raw(cmd, lusctl::PortsetQuery(Names({"ps"}), false, 0)), HYK_BAD_PARAM);
   }
   EXPECT_EQ(ErrLines("lusCharDevIoctl", HYK_BAD_PARAM,
                      "LUS not loaded with fromBuild MOD PARAM : Bad parameter"), 2u);
   EXPECT_EQ(hyksim::CallCount("hyk_CopyFromUser"), 2u);
   EXPECT_EQ(Var<uint32_t>("numPortsets"), 0u);
   EXPECT_EQ(c->registrationEvents(), 0u);
}

TEST_F(DeviceEdgeTest, QueryOf128PortsetsIsAcceptedAnd129IsRefusedLeavingTheCount) {
   Load({"fromBuild=1000"});
   std::vector<std::string> names;
   for (int i = 0; i < 129; i++) {
      char name[16];
      snprintf(name, sizeof name, "ps-%03d", i);
      names.push_back(name);
      AddSwitch(name);
   }
   std::vector<std::string> first128(names.begin(), names.begin() + 128);
   ASSERT_EQ(Tool().Register(LUS_REG_FROM, Names(first128)), HYK_OK);
   EXPECT_EQ(Var<uint32_t>("numPortsets"), 128u);
   auto &table = Var<char[128][128]>("lusPortset");
   EXPECT_STREQ(table[0], "ps-000");
   EXPECT_STREQ(table[127], "ps-127");

   const uint64_t live = Heap0Live();
   EXPECT_EQ(Tool().Register(LUS_REG_FROM, Names(names)), HYK_BAD_PARAM);
   EXPECT_EQ(ErrLines("CharDevLUSReg", HYK_BAD_PARAM, "Invalid number of portsets 129 : Bad parameter"), 1u);
   EXPECT_EQ(Var<uint32_t>("numPortsets"), 129u);
   EXPECT_EQ(Heap0Live(), live);
   // The table keeps what the accepted query put there.
   EXPECT_STREQ(table[127], "ps-127");
}

TEST_F(DeviceEdgeTest, QueryOfZeroPortsetsCopiesNineBytesAndRunsWithAnEmptyTable) {
   Load({"fromBuild=1000"});
   TestClient *c = AddClient("sw-old", kFromBuild);
   SetPortsets({"stale"});
   // The 9 bytes end exactly where the process's mapping ends: a copy of
   // one byte more would fail.
   ASSERT_EQ(Tool().Register(LUS_REG_FROM, {}), HYK_OK);
   EXPECT_EQ(hyksim::CallCount("hyk_CopyFromUser"), 3u);   // header, count, query
   EXPECT_EQ(Var<uint32_t>("numPortsets"), 0u);
   // The registration ran: the client was asked and registered.
   EXPECT_EQ(c->registrationEvents(), 1u);
   EXPECT_NE(c->handle(), nullptr);
   EXPECT_EQ(Var<int32_t>("numFromClients"), 1);
}

TEST_F(DeviceEdgeTest, UpgradePortAndStateCollectionCompleteReturnSuccessWhateverTheyReport) {
   Load({"fromBuild=1000"});
   TestClientConfig cfg;
   cfg.moduleName = "sw-old";
   cfg.buildNumber = kFromBuild;
   cfg.result[kStateCollectionComplete] = HYK_FAILURE;
   AddClient(cfg);
   ASSERT_EQ(Tool().Register(LUS_REG_FROM_V1, {}), HYK_OK);

   // No such port: the port upgrade cannot succeed, the command does.
   EXPECT_EQ(Tool().UpgradePort(0, 0x7777, 1), HYK_OK);
   EXPECT_EQ(Tool().StateCollectionComplete(), HYK_OK);
   EXPECT_EQ(LinesWith("CharDevLUS"), 0u);
}

TEST_F(DeviceEdgeTest, BlockCommandOneByteLongerThanItsEntriesBlocksNothingButHasStartedTheClock) {
   Load();
   AddSwitch("ps");
   hyk_PortID port = AddPortOf("ps", HYK_PORT_CLIENT_VNIC, HYK_FABRIC_PORT_FLAG_LSPG);
   hyksim::AdvanceClock(7'000'000);

   std::vector<uint8_t> payload = lusctl::PortsetQuery(Names({"ps"}), false, 30);
   payload.push_back(0);
   const uint64_t live = Heap0Live();
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_BLOCK_PORTS, payload), HYK_BAD_PARAM);
   EXPECT_EQ(ErrLines("CharDevLUSBlockPorts", HYK_BAD_PARAM, "Invalid size of input query : Bad parameter"), 1u);
   EXPECT_FALSE(Blocked(port));
   EXPECT_EQ(hyksim::CallCount("hyk_PortsetAcquireByName"), 0u);
   EXPECT_EQ(Var<uint32_t>("startOutageTime"), 7u);
   EXPECT_EQ(Var<uint32_t>("maxAllowedOutageTime"), 0u);
   EXPECT_EQ(Heap0Live(), live);
}

// Before the payload is even copied: a command whose payload never arrives
// (no buffer for it, or the caller's memory does not hold it) still started
// the outage clock.
TEST_F(DeviceEdgeTest, BlockCommandStartsTheClockBeforeItAllocatesOrCopies) {
   Load();
   AddSwitch("ps");
   const std::vector<uint8_t> payload = lusctl::PortsetQuery(Names({"ps"}), false, 30);

   hyksim::AdvanceClock(11'000'000);
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_BLOCK_PORTS, payload, 0), HYK_NO_MEMORY);   // no zero-byte buffer
   EXPECT_EQ(Var<uint32_t>("startOutageTime"), 11u);

   hyksim::AdvanceClock(6'000'000);
   EXPECT_NE(Tool().RawAt(LUS_IOCTL_BLOCK_PORTS, 0, static_cast<uint32_t>(payload.size())), HYK_OK);
   EXPECT_EQ(ErrLines("CharDevLUSBlockPorts", HYK_BAD_ADDRESS, "Failed to copy ioctl data : Invalid address"), 1u);
   EXPECT_EQ(Var<uint32_t>("startOutageTime"), 17u);

   hyksim::AdvanceClock(4'000'000);
   hyksim::InjectFault({.op = "hyk_HeapAllocWithRA", .status = HYK_NO_MEMORY, .nth = 1});
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_BLOCK_PORTS, payload), HYK_NO_MEMORY);
   EXPECT_EQ(Var<uint32_t>("startOutageTime"), 21u);
   EXPECT_EQ(Var<uint32_t>("maxAllowedOutageTime"), 0u);
}

TEST_F(DeviceEdgeTest, BlockCommandPassesFlagZeroAtFabricVersion106AndOneAt107) {
   Load();
   AddSwitch("ps-106", 106);
   AddSwitch("ps-107", 107);
   // vNICs with neither the LSPG flag nor an external id: blocked only with flag 0.
   hyk_PortID at106 = AddPortOf("ps-106", HYK_PORT_CLIENT_VNIC);
   hyk_PortID at107 = AddPortOf("ps-107", HYK_PORT_CLIENT_VNIC);
   ASSERT_EQ(Tool().BlockPorts(Names({"ps-106", "ps-107"}), 10), HYK_OK);
   EXPECT_TRUE(Blocked(at106));
   EXPECT_FALSE(Blocked(at107));
   // Flag 1 reads the port's LSPG flag; flag 0 never does.
   EXPECT_EQ(hyksim::CallCount("hyk_FabricPortFlagIsSet"), 1u);
   EXPECT_EQ(hyksim::CallCount("hyk_FabricPortDataGet"), 1u);
   EXPECT_EQ(Var<uint32_t>("maxAllowedOutageTime"), 10u);
   EXPECT_EQ(hyksim::FindPortset("ps-106")->acquireCount, 0u);
   EXPECT_EQ(hyksim::FindPortset("ps-107")->acquireCount, 0u);
}

TEST_F(DeviceEdgeTest, FdpCommandWithOpTwoIsRefusedAndSendsNothing) {
   Load({"fromBuild=1000"});
   AddSwitch("ps-fdp", 107, true);
   const uint64_t live = Heap0Live();
   EXPECT_EQ(Tool().FdpOp("ps-fdp", 2, 1), HYK_BAD_PARAM);
   EXPECT_EQ(ErrLines("CharDevLUSFdpOp", HYK_BAD_PARAM, "Invalid FDP Op mode : Bad parameter"), 1u);
   EXPECT_EQ(hyksim::CallCount("hyk_FdpSwitchCommand"), 0u);
   EXPECT_TRUE(hyksim::FindPortset("ps-fdp")->fdpCommands.empty());
   EXPECT_EQ(Heap0Live(), live);
}

#ifndef LUS_SILENT_WORLD_MODULE_PATH
#error "LUS_SILENT_WORLD_MODULE_PATH must name the test build of lus with a silent world"
#endif

TEST_F(DeviceEdgeTest, PsUpgradeReturnsGenericFailureWhenTheWorldEndsWithoutReporting) {
   hyk_ModuleID id = HYK_INVALID_MODULE_ID;
   ASSERT_EQ(hyksim::LoadModule(LUS_SILENT_WORLD_MODULE_PATH, {"fromBuild=1000"}, &id), HYK_OK);
   ASSERT_EQ(hyksim::FindModule("lus")->id, id);
   AddSwitch("ps");
   const uint64_t live = Heap0Live();
   EXPECT_EQ(Tool().PsUpgrade("ps", {}), static_cast<hyk_Status>(0xbad0001));
   EXPECT_EQ(hyksim::CallCount("hyk_WorldCreate"), 1u);
   EXPECT_GE(hyksim::CallCount("hyk_WorldWaitForDeath"), 1u);
   EXPECT_EQ(hyksim::Counts().worlds, 0u);
   EXPECT_EQ(Heap0Live(), live);
}

}  // namespace
}  // namespace lustest
