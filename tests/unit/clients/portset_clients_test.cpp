// The sample clients through the per-portset upgrade (interface version 1),
// in the order the tool runs it: global configuration handed over, a
// "cswitch" portset and one of another class upgraded by the upgrade world,
// a container port upgraded alone, the fast-datapath command; and the
// legacy edition's classic upgrade, which needs both restore events.
#include "client_fixture.h"

namespace lustest {
namespace {

class PortsetClientsTest : public ClientTest {
  protected:
   const std::vector<std::string> kClients = {"tarnq-vswitch", "tarnq-dfw", "tarnq-stats"};

   std::vector<lusctl::ModuleArg> Modules() {
      std::vector<lusctl::ModuleArg> out;
      for (const auto &c : kClients) {
         out.push_back({true, hyksim::FindModule(c + "-1000")->id});
         out.push_back({false, hyksim::FindModule(c + "-2000")->id});
      }
      return out;
   }
};

TEST_F(PortsetClientsTest, PerPortsetUpgradeCarriesGlobalAndPortsetStateAndAContainerPort) {
   LoadLusNew();
   for (const auto &c : kClients) LoadClient(c, kOld);
   auto cports = Portset("dvs-c", 6, 0, "cswitch", 107);
   auto eports = Portset("dvs-e", 6, 1, "etherswitch", 107, true);
   const hyk_PortID container = eports.back();

   lusctl::Client &tool = Tool();
   ASSERT_EQ(tool.Register(LUS_REG_FROM_V1, {}), HYK_OK);   // command 2
   ASSERT_EQ(tool.PreDualLoad(), HYK_OK);                   // command 7
   for (const auto &c : kClients) LoadClient(c, kNew);      // dual load
   LoadClient("tarnq-stub-vswitch", kNew);
   LoadClient("tarnq-fdp", kNew);
   ASSERT_EQ(tool.Register(LUS_REG_TO_V1, {}), HYK_OK);     // command 3
   ASSERT_EQ(tool.GlobalConfigSaveRestore(), HYK_OK);       // command 8

   ASSERT_EQ(tool.PsUpgrade("dvs-c", Modules()), HYK_OK);   // command 9
   ASSERT_EQ(tool.PsUpgrade("dvs-e", Modules()), HYK_OK);
   // The cswitch portset handed over by events, the other hot-swapped to the new switch.
   auto c = hyksim::FindPortset("dvs-c");
   EXPECT_EQ(c->events, (std::vector<std::string>{"com.corvid.tarn.lus.cswitch.deactivate.1000",
                                                  "com.corvid.tarn.lus.cswitch.activate.2000"}));
   EXPECT_EQ(hyksim::FindPortset("dvs-e")->classModule, hyksim::FindModule("tarnq-vswitch-2000")->id);
   EXPECT_EQ(hyksim::LogCount("tarnq-vswitch-1000: portset dvs-c: deactivated on this build"), 1u);
   EXPECT_EQ(hyksim::LogCount("tarnq-vswitch-2000: portset dvs-c: activated on this build"), 1u);

   // Command 10 on the container port: its stats are saved, the filter
   // property moves, and the port stays blocked until the new stats module
   // pulls its state -- when the port comes up.
   ASSERT_EQ(tool.UpgradePort(0, container, 1), HYK_OK);
   EXPECT_TRUE(Blocked(container));
   EXPECT_EQ(tool.StateRestoreComplete(), HYK_NO_DATA);     // command 12: state still waiting
   ASSERT_EQ(hyksim::EnablePort(container), HYK_OK);
   EXPECT_FALSE(Blocked(container));
   ASSERT_EQ(tool.StateCollectionComplete(), HYK_OK);       // command 11
   EXPECT_EQ(tool.StateRestoreComplete(), HYK_OK);          // command 12: nothing left
   ASSERT_EQ(tool.FdpOp("dvs-e", 1, 3), HYK_OK);            // command 13
   auto e = hyksim::FindPortset("dvs-e");
   ASSERT_EQ(e->fdpCommands.size(), 1u);
   uint32_t fdpModule = 0;
   memcpy(&fdpModule, e->fdpCommands[0].data() + 144, 4);
   EXPECT_EQ(fdpModule, hyksim::FindModule("tarnq-fdp-2000")->id);

   PrintLedger("per-portset upgrade, 1000 -> 2000");
   for (const char *client : {"tarnq-vswitch", "tarnq-dfw"}) {
      auto v = hyksim::LedgerOf(client);
      const auto &g = v.scopes["global"];
      EXPECT_GT(g[HYKSIM_LEDGER_SAVED], 0u) << client;
      EXPECT_EQ(g[HYKSIM_LEDGER_VERIFIED], g[HYKSIM_LEDGER_SAVED]) << client;
      EXPECT_EQ(g[HYKSIM_LEDGER_CONVERTED], g[HYKSIM_LEDGER_SAVED]) << client;
      // Per-port state of a portset-phase client: the world saves it into the
      // portset-phase map, which its dual-load restore never reads; the
      // world's end drops it, and lus reports every byte.
      EXPECT_EQ(Port(v, HYKSIM_LEDGER_RESTORED).bytes, 0u) << client;
      EXPECT_EQ(DroppedBytes(client), Port(v, HYKSIM_LEDGER_SAVED).bytes) << client;
   }
   auto vsw = hyksim::LedgerOf("tarnq-vswitch");
   for (const char *ps : {"dvs-c", "dvs-e"}) {
      const auto &s = vsw.scopes[ps];
      EXPECT_GT(s[HYKSIM_LEDGER_SAVED], 0u) << ps;
      EXPECT_EQ(s[HYKSIM_LEDGER_VERIFIED], s[HYKSIM_LEDGER_SAVED]) << ps;
      EXPECT_EQ(s[HYKSIM_LEDGER_CONVERTED], s[HYKSIM_LEDGER_SAVED]) << ps;
   }
   // The container port's stats went out and came back, checked and converted.
   auto stats = hyksim::LedgerOf("tarnq-stats");
   const uint64_t statsBlob = 8 + 32;   // format 1: header, one entry of four counters
   EXPECT_EQ(stats.ports[container][HYKSIM_LEDGER_SAVED], statsBlob);
   EXPECT_EQ(stats.ports[container][HYKSIM_LEDGER_VERIFIED], statsBlob);
   EXPECT_EQ(stats.ports[container][HYKSIM_LEDGER_CONVERTED], statsBlob);
   for (hyk_PortID p : cports) EXPECT_FALSE(Blocked(p)) << p;
   for (hyk_PortID p : eports) EXPECT_FALSE(Blocked(p)) << p;

   // lus goes (its clear unregisters every client), then the old build.
   tool_.reset();
   proc_.reset();
   ASSERT_EQ(UnloadLus(), HYK_OK);
   for (const auto &cl : kClients) {
      EXPECT_EQ(UnloadClient(cl, kOld), HYK_OK) << cl;
      EXPECT_EQ(UnloadClient(cl, kNew), HYK_OK) << cl;
   }
   EXPECT_TRUE(hyksim::LeakReports().empty());
}

// The new stats module fails the pull of a container port's state: lus frees
// every buffer of the port (a port restored in part is worse than none),
// reports what it dropped, and leaves the port blocked.
TEST_F(PortsetClientsTest, FailedPullOfAContainerPortDropsItsStateWithAReport) {
   LoadLusNew();
   LoadClient("tarnq-vswitch", kOld);
   LoadClient("tarnq-stats", kOld);
   auto ports = Portset("dvs-e", 2, 1, "etherswitch", 107);
   const hyk_PortID container = ports.back();
   lusctl::Client &tool = Tool();
   ASSERT_EQ(tool.Register(LUS_REG_FROM_V1, {}), HYK_OK);
   LoadClient("tarnq-vswitch", kNew);
   LoadClient("tarnq-stats", kNew, {"failSlot=3"});
   LoadClient("tarnq-stub-vswitch", kNew);
   ASSERT_EQ(tool.Register(LUS_REG_TO_V1, {}), HYK_OK);
   std::vector<lusctl::ModuleArg> modules = {
      {true, hyksim::FindModule("tarnq-stats-1000")->id},
      {false, hyksim::FindModule("tarnq-stats-2000")->id}};
   ASSERT_EQ(tool.PsUpgrade("dvs-e", modules), HYK_OK);
   ASSERT_EQ(tool.UpgradePort(0, container, 1), HYK_OK);
   ASSERT_EQ(hyksim::EnablePort(container), HYK_OK);

   EXPECT_TRUE(Blocked(container));
   EXPECT_EQ(hyksim::LogCount("Restore Runtime state FAIL for client tarnq-stats port 0x" +
                              Hex(container) + " : Failure"), 1u);
   auto stats = hyksim::LedgerOf("tarnq-stats");
   EXPECT_EQ(stats.ports[container][HYKSIM_LEDGER_SAVED], 40u);
   EXPECT_EQ(stats.ports[container][HYKSIM_LEDGER_RESTORED], 0u);
   EXPECT_EQ(DroppedBytes("tarnq-stats"), 40u);
   EXPECT_EQ(tool.StateRestoreComplete(), HYK_OK);   // nothing is waiting any more
   tool_.reset();
   proc_.reset();
   ASSERT_EQ(UnloadLus(), HYK_OK);
}

// A legacy-edition client: its records wait for both restore events.  The
// unblock event alone unblocks the port (the datapath can carry it) but
// restores nothing; the port-enable event then hands the state over.
TEST_F(PortsetClientsTest, LegacyEditionClientNeedsBothRestoreEvents) {
   LoadLusNew();
   LoadClient("tarnq-vswitch", kOld);
   LoadClient("tarnj-mirror", kOld);
   auto ports = Portset("ps0", 20);
   LoadClient("tarnq-vswitch", kNew);
   LoadClient("tarnj-mirror", kNew);

   lusctl::Client &tool = Tool();
   const auto portsets = Names({"ps0"});
   ASSERT_EQ(tool.Register(LUS_REG_TO, portsets, true), HYK_OK);
   ASSERT_EQ(tool.BlockPorts(portsets, 30), HYK_OK);
   ASSERT_EQ(tool.PreUnload(portsets, true), HYK_OK);
   ASSERT_EQ(UnloadClient("tarnj-mirror", kOld), HYK_OK);
   ASSERT_EQ(tool.Register(LUS_REG_TO, portsets, true), HYK_OK);

   ASSERT_EQ(hyksim::TakeOverPortset("ps0", kNew, 2), HYK_OK);
   auto mirror = hyksim::LedgerOf("tarnj-mirror");
   EXPECT_EQ(Port(mirror, HYKSIM_LEDGER_SAVED).ports, ports.size());
   EXPECT_EQ(Port(mirror, HYKSIM_LEDGER_RESTORED).ports, 0u);
   for (hyk_PortID p : ports) EXPECT_FALSE(Blocked(p)) << p;

   for (hyk_PortID p : ports) ASSERT_EQ(hyksim::EnablePort(p), HYK_OK);
   mirror = hyksim::LedgerOf("tarnj-mirror");
   PrintLedger("legacy edition, both restore events");
   const uint64_t saved = Port(mirror, HYKSIM_LEDGER_SAVED).bytes;
   EXPECT_EQ(Port(mirror, HYKSIM_LEDGER_VERIFIED).bytes, saved);
   EXPECT_EQ(Port(mirror, HYKSIM_LEDGER_CONVERTED).bytes, saved);
   EXPECT_TRUE(mirror.NeverRestored().empty());
   // The current-edition switch never registered on the legacy edition's events.
   EXPECT_EQ(Port(hyksim::LedgerOf("tarnq-vswitch"), HYKSIM_LEDGER_SAVED).bytes, 0u);

   tool_.reset();
   proc_.reset();
   ASSERT_EQ(UnloadLus(), HYK_OK);
   EXPECT_EQ(UnloadClient("tarnj-mirror", kNew), HYK_OK);
}

}  // namespace
}  // namespace lustest
