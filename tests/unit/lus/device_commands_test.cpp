// Each command of the control device through a user process's ioctl: its
// returned status and the log lines of its handler, on success and on the
// failures the handler itself reports.
#include <atomic>
#include <chrono>
#include <thread>

#include "device_fixture.h"

namespace lustest {
namespace {

using DeviceCommandTest = DeviceTest;

// ---- commands 0-3: registration -------------------------------------------------

TEST_F(DeviceCommandTest, RegisterFromBuildEnrolsTheListedPortsetsPorts) {
   Load({"fromBuild=1000"});
   AddClient("sw-new", kToBuild, false, "sw");
   TestClient *c = AddClient("sw-old", kFromBuild, false, "sw");
   MakePortset("ps", 2);
   // The new build first: ports are enrolled for clients that have a twin.
   ASSERT_EQ(Tool().Register(LUS_REG_TO, Names({"ps"})), HYK_OK);
   ASSERT_EQ(Tool().Register(LUS_REG_FROM, Names({"ps"})), HYK_OK);
   EXPECT_NE(c->handle(), nullptr);
   EXPECT_EQ(Var<int32_t>("numFromClients"), 1);
   EXPECT_EQ(Var<uint32_t>("numPortsets"), 1u);
   EXPECT_STREQ(Var<char[128][128]>("lusPortset")[0], "ps");
   EXPECT_EQ(Var<uint32_t>("numLUSInstances"), 2u);
   EXPECT_EQ(LinesWith("Registration FAIL"), 0u);
}

// A clear from outside (the timer's, or the last restore event's) owns the
// registry while it runs: a command that comes meanwhile waits for it to let
// go, then runs, and lets go in turn.
TEST_F(DeviceCommandTest, ACommandWaitsWhileAClearFromOutsideHoldsTheRegistry) {
   Load({"fromBuild=1000"});
   AddClient("sw-new", kToBuild);
   Tool();
   uint32_t &registry = Var<uint32_t>("lusRegistryState");
   constexpr uint32_t kHeldByClear = 0x2;
   __atomic_store_n(&registry, kHeldByClear, __ATOMIC_RELEASE);
   std::atomic<bool> done{false};
   hyk_Status result = HYK_FAILURE;
   std::thread command([&] {
      result = Tool().Register(LUS_REG_TO, {});
      done.store(true);
   });
   // However long this pause, the command must not have run: it only
   // orders the test's look before the release.
   std::this_thread::sleep_for(std::chrono::milliseconds(100));
   EXPECT_FALSE(done.load()) << "the command ran while a clear held the registry";
   EXPECT_EQ(Var<int32_t>("numToClients"), 0);
   __atomic_store_n(&registry, 0u, __ATOMIC_RELEASE);
   command.join();
   EXPECT_EQ(result, HYK_OK);
   EXPECT_EQ(Var<int32_t>("numToClients"), 1);
   EXPECT_EQ(__atomic_load_n(&registry, __ATOMIC_ACQUIRE), 0u);
}

TEST_F(DeviceCommandTest, RegisterFailureIsLoggedAndItsStatusReturned) {
   Load({"fromBuild=1000"});
   AddClient("sw-old", kFromBuild);
   EXPECT_EQ(Tool().Register(LUS_REG_FROM, Names({"ps-missing"})), HYK_NOT_FOUND);
   EXPECT_EQ(ErrLines("CharDevLUSReg", HYK_NOT_FOUND, "Registration FAIL : Not found"), 1u);
   EXPECT_STREQ(Var<char[128][128]>("lusPortset")[0], "ps-missing");
}

TEST_F(DeviceCommandTest, RegisterToBuildRegistersTheNewClients) {
   Load({"fromBuild=1000"});
   TestClient *c = AddClient("sw-new", kToBuild);
   ASSERT_EQ(Tool().Register(LUS_REG_TO, {}), HYK_OK);
   EXPECT_NE(c->handle(), nullptr);
   EXPECT_EQ(Var<int32_t>("numToClients"), 1);
}

TEST_F(DeviceCommandTest, RegisterRuntimePhaseTypesThreeAndFour) {
   Load({"fromBuild=1000"});
   TestClient *from = AddClient("sw-old", kFromBuild);
   TestClient *to = AddClient("sw-new", kToBuild);
   ASSERT_EQ(Tool().Register(LUS_REG_FROM_V1, {}), HYK_OK);
   EXPECT_NE(from->handle(), nullptr);
   ASSERT_EQ(Tool().Register(LUS_REG_TO_V1, {}), HYK_OK);
   EXPECT_NE(to->handle(), nullptr);
   EXPECT_EQ(Var<int32_t>("numFromClients"), 1);
   EXPECT_EQ(Var<int32_t>("numToClients"), 1);
}

TEST_F(DeviceCommandTest, LegacyEditionByteReachesTheRegistration) {
   Load({"fromBuild=1000"});
   TestClient *legacy = AddClient("sw-legacy", kToBuild, /*legacy=*/true);
   ASSERT_EQ(Tool().Register(LUS_REG_TO, {}, /*legacy=*/false), HYK_OK);
   EXPECT_EQ(legacy->registrationEvents(), 0u);
   ASSERT_EQ(Tool().Register(LUS_REG_TO, {}, /*legacy=*/true), HYK_OK);
   EXPECT_EQ(legacy->registrationEvents(), 1u);
}

TEST_F(DeviceCommandTest, PortsetListThatIsNotAllMappedFailsTheCopyWithoutALine) {
   Load({"fromBuild=1000"});
   // The count says two entries but only one is in the process's memory.
   std::vector<uint8_t> payload = lusctl::PortsetQuery(Names({"ps"}), false, 0);
   const uint32_t two = 2;
   memcpy(payload.data(), &two, sizeof two);
   const uint64_t live = Heap0Live();
   for (uint32_t cmd : {LUS_IOCTL_REG_FROM, LUS_IOCTL_PRE_UNLOAD, LUS_IOCTL_RESTORE}) {
      EXPECT_EQ(Tool().Raw(cmd, payload), HYK_BAD_ADDRESS) << cmd;
   }
   EXPECT_EQ(Var<uint32_t>("numPortsets"), 2u);
   EXPECT_EQ(Heap0Live(), live);
   EXPECT_EQ(LinesWith("CharDevLUS"), 0u);
   // The count itself outside the process's memory: no line either.
   EXPECT_EQ(Tool().RawAt(LUS_IOCTL_RESTORE, 0x20, 9), HYK_BAD_ADDRESS);
   EXPECT_EQ(LinesWith("CharDevLUS"), 0u);
}

TEST_F(DeviceCommandTest, PortsetListIgnoresTheHeadersLength) {
   Load({"fromBuild=1000"});
   AddSwitch("ps");
   // A length of 0 does not stop the list commands: they copy count*136+9.
   ASSERT_EQ(Tool().Raw(LUS_IOCTL_REG_FROM, lusctl::PortsetQuery(Names({"ps"}), false, 0), 0), HYK_OK);
   EXPECT_EQ(Var<uint32_t>("numPortsets"), 1u);
}

TEST_F(DeviceCommandTest, PortsetListQueryTooBigForHeapIsRefusedAsOutOfMemory) {
   Load({"fromBuild=1000"});
   hyksim::FaultSpec desc;
   desc.op = "hyk_HeapAllocWithRA";
   desc.nth = 1;
   hyksim::InjectFault(desc);
   EXPECT_EQ(Tool().Register(LUS_REG_FROM, Names({"ps"})), HYK_NO_MEMORY);
   EXPECT_EQ(ErrLines("CharDevLUSReg", HYK_NO_MEMORY,
                      "Could not allocate LUS memory for query : Out of memory"), 1u);
}

// ---- commands 4 and 5: save and restore ---------------------------------------------

TEST_F(DeviceCommandTest, PreUnloadFailureIsLoggedAndItsStatusReturned) {
   Load({"fromBuild=1000"});
   AddClient("sw-old", kFromBuild);
   hyk_Status st = Tool().PreUnload(Names({"ps-missing"}));
   ASSERT_NE(st, HYK_OK);
   EXPECT_EQ(ErrLines("CharDevLUSPreUnload", st,
                      std::string("LUS PreUnload FAIL : ") + hyk_StatusToString(st)), 1u);
   EXPECT_EQ(Var<uint32_t>("numPortsets"), 1u);
}

TEST_F(DeviceCommandTest, PreUnloadRefusesTooManyPortsets) {
   Load({"fromBuild=1000"});
   std::vector<std::string> names(200, "ps");
   EXPECT_EQ(Tool().PreUnload(Names(names)), HYK_BAD_PARAM);
   EXPECT_EQ(ErrLines("CharDevLUSPreUnload", HYK_BAD_PARAM, "Invalid number of portsets 200 : Bad parameter"), 1u);
}

TEST_F(DeviceCommandTest, RestoreFailureIsLoggedAndItsStatusReturned) {
   Load({"fromBuild=1000"});
   hyk_Status st = Tool().Restore(Names({"ps-missing"}));
   ASSERT_NE(st, HYK_OK);
   EXPECT_EQ(ErrLines("CharDevLUSRestore", st,
                      std::string("LUS Restore FAIL : ") + hyk_StatusToString(st)), 1u);
   EXPECT_STREQ(Var<char[128][128]>("lusPortset")[0], "ps-missing");
}

TEST_F(DeviceCommandTest, RestoreRefusesTooManyPortsets) {
   Load({"fromBuild=1000"});
   std::vector<std::string> names(129, "ps");
   EXPECT_EQ(Tool().Restore(Names(names)), HYK_BAD_PARAM);
   EXPECT_EQ(ErrLines("CharDevLUSRestore", HYK_BAD_PARAM, "Invalid number of portsets 129 : Bad parameter"), 1u);
}

// ---- command 6: port blocking ---------------------------------------------------------

TEST_F(DeviceCommandTest, BlockPortsBlocksByTypeFlagAndExternalIdAndStartsTheClock) {
   Load({"lusLogLevel=5"});
   AddSwitch("ps", 107);
   hyk_PortID plain = AddPortOf("ps", HYK_PORT_CLIENT_VNIC);
   hyk_PortID lspg = AddPortOf("ps", HYK_PORT_CLIENT_VNIC, HYK_FABRIC_PORT_FLAG_LSPG);
   hyk_PortID ext = AddPortOf("ps", HYK_PORT_CLIENT_VNIC, 0, true);
   hyk_PortID container = AddPortOf("ps", HYK_PORT_CLIENT_CONTAINER, HYK_FABRIC_PORT_FLAG_LSPG);
   hyk_PortID uplink = AddPortOf("ps", HYK_PORT_CLIENT_UPLINK, HYK_FABRIC_PORT_FLAG_LSPG, true);
   hyksim::AdvanceClock(42'500'000);

   ASSERT_EQ(Tool().BlockPorts(Names({"ps"}), 90), HYK_OK);
   EXPECT_FALSE(Blocked(plain));
   EXPECT_TRUE(Blocked(lspg));
   EXPECT_TRUE(Blocked(ext));
   EXPECT_TRUE(Blocked(container));
   EXPECT_FALSE(Blocked(uplink));
   EXPECT_EQ(Var<uint32_t>("startOutageTime"), 42u);
   EXPECT_EQ(Var<uint32_t>("maxAllowedOutageTime"), 90u);
   for (hyk_PortID p : {lspg, ext, container}) {
      char msg[64];
      snprintf(msg, sizeof msg, "lusPortBlock port: 0x%x (%d)", p, p);
      EXPECT_EQ(PlainLines("lusPortBlock", msg, 5), 1u) << msg;
   }
   EXPECT_EQ(LinesWith("lusPortBlock port:"), 3u);
   EXPECT_EQ(hyksim::FindPortset("ps")->acquireCount, 0u);
}

TEST_F(DeviceCommandTest, BlockPortsStopsAtAnUnknownPortsetKeepingEarlierBlocks) {
   Load();
   AddSwitch("ps-a", 106);
   AddSwitch("ps-c", 106);
   hyk_PortID a = AddPortOf("ps-a", HYK_PORT_CLIENT_VNIC);
   hyk_PortID c = AddPortOf("ps-c", HYK_PORT_CLIENT_VNIC);
   EXPECT_EQ(Tool().BlockPorts(Names({"ps-a", "ps-b", "ps-c"}), 5), HYK_NOT_FOUND);
   EXPECT_EQ(ErrLines("CharDevLUSBlockPorts", HYK_NOT_FOUND,
                      "Error acquiring portset during port block ps-b : Not found"), 1u);
   EXPECT_TRUE(Blocked(a));
   EXPECT_FALSE(Blocked(c));
}

TEST_F(DeviceCommandTest, BlockPortsReportsAFailedVersionLookupAndReleasesThePortset) {
   Load();
   AddSwitch("ps", 106);
   hyk_PortID p = AddPortOf("ps", HYK_PORT_CLIENT_VNIC);
   hyksim::FaultSpec desc;
   desc.op = "hyk_PortsetLookupFabricVersion";
   desc.nth = 1;
   hyksim::InjectFault(desc);
   EXPECT_EQ(Tool().BlockPorts(Names({"ps"}), 5), HYK_FAILURE);
   EXPECT_EQ(ErrLines("CharDevLUSBlockPorts", HYK_FAILURE,
                      "Failed to get fabric version for ps ps : Failure"), 1u);
   EXPECT_FALSE(Blocked(p));
   EXPECT_EQ(hyksim::FindPortset("ps")->acquireCount, 0u);
}

TEST_F(DeviceCommandTest, BlockPortsReportsAFailedBlockTwiceAndStopsTheWalk) {
   Load();
   AddSwitch("ps", 106);
   hyk_PortID first = AddPortOf("ps", HYK_PORT_CLIENT_VNIC);
   hyk_PortID second = AddPortOf("ps", HYK_PORT_CLIENT_VNIC);
   hyk_PortID third = AddPortOf("ps", HYK_PORT_CLIENT_VNIC);
   hyksim::FaultSpec desc;
   desc.op = "hyk_PortCustomBlock";
   desc.nth = 2;
   desc.status = HYK_NOT_FOUND;
   hyksim::InjectFault(desc);
   EXPECT_EQ(Tool().BlockPorts(Names({"ps"}), 5), HYK_NOT_FOUND);
   char msg[64];
   snprintf(msg, sizeof msg, "Failed to custom block port 0x%x : Not found", second);
   EXPECT_EQ(ErrLines("lusPortBlock", HYK_NOT_FOUND, msg), 1u);
   EXPECT_EQ(ErrLines("CharDevLUSBlockPorts", HYK_NOT_FOUND, "Failed to block vnic ports : Not found"), 1u);
   EXPECT_TRUE(Blocked(first));
   EXPECT_FALSE(Blocked(second));
   EXPECT_FALSE(Blocked(third));
   EXPECT_EQ(hyksim::FindPortset("ps")->acquireCount, 0u);
}

TEST_F(DeviceCommandTest, BlockPortsPayloadOutsideTheProcessFailsTheCopy) {
   Load();
   const uint64_t live = Heap0Live();
   EXPECT_EQ(Tool().RawAt(LUS_IOCTL_BLOCK_PORTS, 0x40, 145), HYK_BAD_ADDRESS);
   EXPECT_EQ(ErrLines("CharDevLUSBlockPorts", HYK_BAD_ADDRESS, "Failed to copy ioctl data : Invalid address"), 1u);
   EXPECT_EQ(Heap0Live(), live);
   // A length of 0 is an allocation of nothing: refused as out of memory.
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_BLOCK_PORTS, lusctl::PortsetQuery({}, false, 0), 0), HYK_NO_MEMORY);
   EXPECT_EQ(ErrLines("CharDevLUSBlockPorts", HYK_NO_MEMORY,
                      "Could not allocate LUS memory for query : Out of memory"), 1u);
}

TEST_F(DeviceCommandTest, BlockPortsRefusesTooManyPortsetsWithoutTouchingTheTable) {
   Load();
   SetPortsets({"kept"});
   std::vector<uint8_t> payload = lusctl::PortsetQuery({}, false, 0);
   const uint32_t count = 129;
   memcpy(payload.data(), &count, sizeof count);
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_BLOCK_PORTS, payload), HYK_BAD_PARAM);
   EXPECT_EQ(ErrLines("CharDevLUSBlockPorts", HYK_BAD_PARAM, "Invalid number of portsets 129 : Bad parameter"), 1u);
   EXPECT_EQ(Var<uint32_t>("numPortsets"), 1u);
}

// ---- commands 7, 8, 11, 12: notices without payload ---------------------------------------

TEST_F(DeviceCommandTest, NoticeCommandsIgnoreTheHeaderAndPassTheirOperationsStatus) {
   Load({"fromBuild=1000"});
   // The header names memory that does not exist: never read.
   const hyk_Status preDual = Tool().RawAt(LUS_IOCTL_PRE_DUAL_LOAD, 0x30, 77);
   const hyk_Status global = Tool().RawAt(LUS_IOCTL_GLOBAL_CONFIG, 0x30, 77);
   const hyk_Status collected = Tool().RawAt(LUS_IOCTL_STATE_COLLECTED, 0x30, 77);
   const hyk_Status restored = Tool().RawAt(LUS_IOCTL_RESTORE_COMPLETE, 0x30, 77);
   EXPECT_EQ(hyksim::CallCount("hyk_CopyFromUser"), 4u);

   // With nothing registered and nothing saved these operations are
   // repeatable, so calling them again says what they returned.
   EXPECT_EQ(preDual, AsLus([] { return LusFn<hyk_Status()>("LUS_PreDualLoad")(); }));
   EXPECT_EQ(global, AsLus([] { return LusFn<hyk_Status()>("LUS_GlobalConfigSaveRestore")(); }));
   EXPECT_EQ(collected, HYK_OK);
   EXPECT_EQ(restored, AsLus([] { return LusFn<hyk_Status()>("LUS_StateRestoreComplete")(); }));
   EXPECT_EQ(LinesWith("lusCharDevIoctl"), 0u);
}

// ---- command 9: portset upgrade ---------------------------------------------------------

TEST_F(DeviceCommandTest, PsUpgradeRunsTheWorldWaitsForItAndReturnsItsStatus) {
   Load({"fromBuild=1000"});
   const uint64_t live = Heap0Live();
   // The world fails at its first step on a portset the host does not know
   // and reports that failure through its context.
   EXPECT_EQ(Tool().PsUpgrade("ps-missing", {{true, 7}, {false, 8}}), HYK_NOT_FOUND);
   EXPECT_EQ(ErrLines("LUSUpgradeWorld", HYK_NOT_FOUND,
                      "Per portset Client Registration FAILED for portset ps-missing : Not found"), 1u);
   EXPECT_EQ(hyksim::CallCount("hyk_WorldCreate"), 1u);
   EXPECT_GE(hyksim::CallCount("hyk_WorldWaitForDeath"), 1u);
   EXPECT_EQ(hyksim::Counts().worlds, 0u);
   EXPECT_EQ(Heap0Live(), live);
   EXPECT_EQ(LinesWith("CharDevLUSPsUpgrade"), 0u);
}

TEST_F(DeviceCommandTest, PsUpgradeKeepsWaitingThroughInterruptedWaits) {
   Load({"fromBuild=1000"});
   hyksim::FaultSpec desc;
   desc.op = "hyk_WorldWaitForDeath";
   desc.every = true;
   desc.count = 3;
   desc.status = HYK_WAIT_INTERRUPTED;
   hyksim::InjectFault(desc);
   EXPECT_EQ(Tool().PsUpgrade("ps-missing", {}), HYK_NOT_FOUND);
   EXPECT_GE(hyksim::CallCount("hyk_WorldWaitForDeath"), 4u);
   EXPECT_EQ(hyksim::InjectedFaultCount("hyk_WorldWaitForDeath"), 3u);
   EXPECT_EQ(hyksim::Counts().worlds, 0u);
}

TEST_F(DeviceCommandTest, PsUpgradeWorldCreationFailureClearsTheClients) {
   Load({"fromBuild=1000"});
   TestClient *c = AddClient("sw-old", kFromBuild);
   ASSERT_EQ(Tool().Register(LUS_REG_FROM_V1, {}), HYK_OK);
   ASSERT_NE(c->handle(), nullptr);
   hyksim::FaultSpec desc;
   desc.op = "hyk_WorldCreate";
   desc.nth = 1;
   desc.status = HYK_NO_RESOURCES;
   hyksim::InjectFault(desc);
   const uint64_t live = Heap0Live();
   EXPECT_EQ(Tool().PsUpgrade("ps-a", {}), HYK_NO_RESOURCES);
   EXPECT_EQ(ErrLines("CharDevLUSPsUpgrade", HYK_NO_RESOURCES,
                      "Failed to create upgrade world for ps: ps-a : Out of resources"), 1u);
   EXPECT_EQ(Var<int32_t>("numFromClients"), 0);
   EXPECT_EQ(Heap0Live(), live);
}

TEST_F(DeviceCommandTest, PsUpgradeCopyFailureClearsTheClients) {
   Load({"fromBuild=1000"});
   TestClient *c = AddClient("sw-old", kFromBuild);
   ASSERT_EQ(Tool().Register(LUS_REG_FROM_V1, {}), HYK_OK);
   ASSERT_NE(c->handle(), nullptr);
   const uint64_t live = Heap0Live();
   EXPECT_EQ(Tool().RawAt(LUS_IOCTL_PS_UPGRADE, 0x50, 132), HYK_BAD_ADDRESS);
   EXPECT_EQ(ErrLines("CharDevLUSPsUpgrade", HYK_BAD_ADDRESS, "Failed to copy ioctl data : Invalid address"), 1u);
   EXPECT_EQ(Var<int32_t>("numFromClients"), 0);
   EXPECT_EQ(hyksim::CallCount("hyk_WorldCreate"), 0u);
   EXPECT_EQ(Heap0Live(), live);
}

TEST_F(DeviceCommandTest, PsUpgradeAllocationFailureLeavesTheClients) {
   Load({"fromBuild=1000"});
   AddClient("sw-old", kFromBuild);
   ASSERT_EQ(Tool().Register(LUS_REG_FROM_V1, {}), HYK_OK);
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_PS_UPGRADE, lusctl::PsUpgradeQuery("ps", {}), 0), HYK_NO_MEMORY);
   EXPECT_EQ(ErrLines("CharDevLUSPsUpgrade", HYK_NO_MEMORY,
                      "Could not allocate LUS memory for query : Out of memory"), 1u);
   EXPECT_EQ(Var<int32_t>("numFromClients"), 1);
}

// ---- command 10: single-port upgrade ----------------------------------------------------

TEST_F(DeviceCommandTest, UpgradePortCopiesNineBytesWhateverTheLength) {
   Load({"fromBuild=1000"});
   MakePortset("ps", 1);
   // Header length 0; the payload's 9 bytes end where the mapping ends.
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_UPGRADE_PORT, lusctl::UpgradePortQuery(1, 1, 1), 0), HYK_OK);
   EXPECT_EQ(hyksim::CallCount("hyk_CopyFromUser"), 2u);
   // Eight bytes are not enough.
   std::vector<uint8_t> eight = lusctl::UpgradePortQuery(1, 1, 1);
   eight.pop_back();
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_UPGRADE_PORT, eight), HYK_BAD_ADDRESS);
   EXPECT_EQ(ErrLines("lusCmdUpgradePort", HYK_BAD_ADDRESS, "Failed to copy ioctl data : Invalid address"), 1u);
}

// ---- command 13: fast datapath -----------------------------------------------------------

struct FdpRecord {
   std::string name;
   uint32_t length, moduleID, fdpMode;
   uint8_t deactivate;
   bool restZero;
};

FdpRecord Decode(const std::vector<uint8_t> &r) {
   FdpRecord out{};
   EXPECT_EQ(r.size(), 152u);
   if (r.size() != 152) return out;
   out.name.assign(reinterpret_cast<const char *>(r.data()), strnlen(reinterpret_cast<const char *>(r.data()), 128));
   memcpy(&out.length, &r[128], 4);
   out.deactivate = r[140];
   memcpy(&out.moduleID, &r[144], 4);
   memcpy(&out.fdpMode, &r[148], 4);
   out.restZero = true;
   for (size_t i = out.name.size(); i < 128; i++) out.restZero &= r[i] == 0;
   for (size_t i = 132; i < 140; i++) out.restZero &= r[i] == 0;
   for (size_t i = 141; i < 144; i++) out.restZero &= r[i] == 0;
   return out;
}

TEST_F(DeviceCommandTest, FdpDeactivateAndActivateSendTheSwitchCommandRecord) {
   Load({"fromBuild=1000"});
   AddSwitch("ps-fdp", 107, true);
   hyksim::InProcessModule fromFdp{"tarnq-fdp-1000", {}, {}, {}};
   hyksim::InProcessModule toFdp{"tarnq-fdp-2000", {}, {}, {}};
   hyk_ModuleID fromID = 0, toID = 0;
   ASSERT_EQ(hyksim::LoadInProcessModule(fromFdp, &fromID), HYK_OK);
   ASSERT_EQ(hyksim::LoadInProcessModule(toFdp, &toID), HYK_OK);

   ASSERT_EQ(Tool().FdpOp("ps-fdp", 0, 9), HYK_OK);
   ASSERT_EQ(Tool().FdpOp("ps-fdp", 1, 5), HYK_OK);

   auto view = hyksim::FindPortset("ps-fdp");
   ASSERT_EQ(view->fdpCommands.size(), 2u);
   EXPECT_EQ(view->fdpCommandClasses, (std::vector<uint32_t>{0xFFF, 0xFFF}));
   FdpRecord off = Decode(view->fdpCommands[0]);
   EXPECT_EQ(off.name, "tarn.fdp.switch.upgrade.op");
   EXPECT_EQ(off.length, 16u);
   EXPECT_EQ(off.deactivate, 1u);
   EXPECT_EQ(off.moduleID, fromID);
   EXPECT_EQ(off.fdpMode, 0u);
   EXPECT_TRUE(off.restZero);
   FdpRecord on = Decode(view->fdpCommands[1]);
   EXPECT_EQ(on.name, "tarn.fdp.switch.upgrade.op");
   EXPECT_EQ(on.deactivate, 0u);
   EXPECT_EQ(on.moduleID, toID);
   EXPECT_EQ(on.fdpMode, 5u);
   EXPECT_TRUE(on.restZero);

   EXPECT_EQ(PlainLines("CharDevLUSFdpOp",
                        "PS: ps-fdp, FdpDeactivate: FDP FROM Build module: tarnq-fdp-1000, modID: " +
                           std::to_string(fromID), 3), 1u);
   EXPECT_EQ(PlainLines("CharDevLUSFdpOp",
                        "PS: ps-fdp, FdpActivate: FDP Mode: 5, TO Build module: tarnq-fdp-2000, modID: " +
                           std::to_string(toID), 3), 1u);
}

TEST_F(DeviceCommandTest, FdpOnAPortsetWithoutFastDatapathFailsWithTheHostsStatus) {
   Load({"fromBuild=1000"});
   AddSwitch("ps");
   EXPECT_EQ(Tool().FdpOp("ps", 1, 1), HYK_NOT_SUPPORTED);
   EXPECT_EQ(ErrLines("CharDevLUSFdpOp", HYK_NOT_SUPPORTED, "FDP Operation FAIL, PS: ps : Not supported"), 1u);
}

TEST_F(DeviceCommandTest, FdpLinesAreLeftOutBelowLevelThree) {
   Load({"fromBuild=1000", "lusLogLevel=2"});
   AddSwitch("ps-fdp", 107, true);
   ASSERT_EQ(Tool().FdpOp("ps-fdp", 0, 0), HYK_OK);
   EXPECT_EQ(LinesWith("FdpDeactivate"), 0u);
   EXPECT_EQ(hyksim::FindPortset("ps-fdp")->fdpCommands.size(), 1u);
}

// ---- command 14: switch events ------------------------------------------------------------

TEST_F(DeviceCommandTest, CswitchEventsAreRaisedOnEveryListedPortsetInOrder) {
   Load({"fromBuild=1000"});
   AddSwitch("ps-a", 107, false, "cswitch");
   AddSwitch("ps-b", 107, false, "cswitch");
   ASSERT_EQ(Tool().RaiseCswitchEvents(Names({"ps-a", "ps-b"})), HYK_OK);
   const std::vector<std::string> expected = {"com.corvid.tarn.lus.cswitch.deactivate.1000",
                                              "com.corvid.tarn.lus.cswitch.activate.2000"};
   EXPECT_EQ(hyksim::FindPortset("ps-a")->events, expected);
   EXPECT_EQ(hyksim::FindPortset("ps-b")->events, expected);
   EXPECT_EQ(hyksim::FindPortset("ps-a")->acquireCount, 0u);
}

TEST_F(DeviceCommandTest, CswitchEventsStopAtAnUnknownPortset) {
   Load({"fromBuild=1000"});
   AddSwitch("ps-a");
   AddSwitch("ps-c");
   EXPECT_EQ(Tool().RaiseCswitchEvents(Names({"ps-a", "ps-b", "ps-c"})), HYK_NOT_FOUND);
   EXPECT_EQ(ErrLines("CharDevLUSRaiseCswitchEvents", HYK_NOT_FOUND,
                      "Error acquiring portset lock, ps: ps-b : Not found"), 1u);
   EXPECT_EQ(hyksim::FindPortset("ps-a")->events.size(), 2u);
   EXPECT_TRUE(hyksim::FindPortset("ps-c")->events.empty());
}

TEST_F(DeviceCommandTest, CswitchEventsAcceptTrailingBytesAndRefuseTooManyPortsets) {
   Load({"fromBuild=1000"});
   AddSwitch("ps-a");
   std::vector<uint8_t> payload = lusctl::PortsetQuery(Names({"ps-a"}), false, 0);
   payload.resize(payload.size() + 40, 0xee);
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_CSWITCH_EVENTS, payload), HYK_OK);
   EXPECT_EQ(hyksim::FindPortset("ps-a")->events.size(), 2u);

   std::vector<uint8_t> many = lusctl::PortsetQuery({}, false, 0);
   const uint32_t count = 129;
   memcpy(many.data(), &count, sizeof count);
   many.resize(LUS_PORTSET_QUERY_SIZE(129));
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_CSWITCH_EVENTS, many), HYK_BAD_PARAM);
   EXPECT_EQ(ErrLines("CharDevLUSRaiseCswitchEvents", HYK_BAD_PARAM,
                      "Invalid number of portsets 129 : Bad parameter"), 1u);
}

}  // namespace
}  // namespace lustest

namespace lustest {
namespace {

// The clear timer fires while a command holds the registry: the command
// runs the clear as it lets go -- once, and like the timer's own clear,
// without the port-phase map, which belongs to a per-portset upgrade.
TEST_F(DeviceCommandTest, TimerFiringDuringACommandClearsAsItEndsWithoutThePortPhaseMap) {
   Load({"fromBuild=1000"});
   TestClient *psFrom = FillBothMaps("ps0", 3);
   LusHashMap *psMap = Var<LusHashMap *>("lusHashMap");
   LusHashMap *portMap = Var<LusHashMap *>("lusPerPortHashMap");
   ASSERT_EQ(psMap->count, 3u);
   ASSERT_EQ(portMap->count, 3u);
   ASSERT_EQ(AsLus([] {
                auto *cb = LusFn<TimerCBFn>("LUS_ClientClearTimerCB");
                auto *timer = LusVar<hyk_TimerHandle>("lusTimer");
                return LusFn<ScheduleTimerFn>("LUS_ScheduleTimer")(cb, nullptr, 120000000ull, 0, timer);
             }),
             HYK_OK);

   bool fired = false;
   size_t clearsInside = 0;
   psFrom->config().onCall = [&](Slot slot) {
      if (slot == kGlobalConfigSave && !fired) {
         fired = true;
         hyksim::AdvanceClock(120000000ull);
         clearsInside = hyksim::LogCount("Clearing LUS Client data ...");
      }
   };
   EXPECT_EQ(Tool().GlobalConfigSaveRestore(), HYK_OK);   // command 8
   ASSERT_TRUE(fired);
   EXPECT_EQ(clearsInside, 0u);   // deferred: the command held the registry
   EXPECT_EQ(hyksim::LogCount("Clearing LUS Client data ..."), 1u);
   EXPECT_EQ(psMap->count, 0u);
   EXPECT_EQ(portMap->count, 3u);
}

}  // namespace
}  // namespace lustest
