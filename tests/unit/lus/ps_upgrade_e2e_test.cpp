// End to end: the upgrade tool carries two portsets, one of class "cswitch"
// and one of another class, through the per-portset upgrade, with clients
// that keep per-port state, portset state and global configuration.
#include "world_fixture.h"

namespace lustest {
namespace {

using PsUpgradeEndToEndTest = WorldTest;

TEST_F(PsUpgradeEndToEndTest, CswitchAndEtherswitchPortsetsAreUpgradedWithTheirStateCarriedOver) {
   LoadNew(3);
   ClientPair fw = Pair("fw", [](TestClientConfig &c) {
      c.psState = {0xf1, 0xf2, 0xf3};
      c.globalConfig = {0xc1, 0xc2};
   });
   ClientPair stats = Pair("stats", [](TestClientConfig &c) {
      c.psState = {0x51};
      c.globalConfig = {0x5c};
      c.stateSize = 32;
   });
   hyk_ModuleID oldSwitch = SwitchModule("tarnq-vswitch-1000", "etherswitch,cswitch");
   hyk_ModuleID newSwitch = SwitchModule("tarnq-vswitch-2000", "etherswitch,cswitch");
   SwitchModule("tarnq-stub-vswitch-2000", "stub-vswitch");
   auto cports = Switch("dvs-c", "cswitch", "tarnq-vswitch-1000", 2, 107, 0);
   auto eports = Switch("dvs-e", "etherswitch", "tarnq-vswitch-1000", 3, 107, 10);
   std::vector<lusctl::ModuleArg> modules = {{true, fw.from->id()},    {false, fw.to->id()},
                                             {true, stats.from->id()}, {false, stats.to->id()},
                                             {true, oldSwitch},        {false, newSwitch}};

   lusctl::Client &tool = Tool();
   ASSERT_EQ(tool.Register(LUS_REG_FROM_V1, {}), HYK_OK);   // command 2
   ASSERT_EQ(tool.PreDualLoad(), HYK_OK);                   // command 7
   ASSERT_EQ(tool.Register(LUS_REG_TO_V1, {}), HYK_OK);     // command 3

   // Command 8: global configuration straight from each old client to its new twin.
   ASSERT_EQ(tool.GlobalConfigSaveRestore(), HYK_OK);
   EXPECT_EQ(fw.to->globalRestored, (std::vector<std::vector<uint8_t>>{{0xc1, 0xc2}}));
   EXPECT_EQ(stats.to->globalRestored, (std::vector<std::vector<uint8_t>>{{0x5c}}));
   EXPECT_EQ(fw.from->globalCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_SUCCESS});
   EXPECT_EQ(stats.from->globalCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_SUCCESS});

   // Command 9 on the cswitch portset: switch events, no class swap.
   ASSERT_EQ(tool.PsUpgrade("dvs-c", modules), HYK_OK);
   auto c = hyksim::FindPortset("dvs-c");
   EXPECT_EQ(c->events, (std::vector<std::string>{"com.corvid.tarn.lus.cswitch.deactivate.1000",
                                                  "com.corvid.tarn.lus.cswitch.activate.2000"}));
   EXPECT_EQ(c->classModule, oldSwitch);
   EXPECT_EQ(hyksim::CallCount("hyk_PortsetClassHotSwap"), 0u);

   // Command 9 on the other portset: hot-swapped to the new build's switch module.
   ASSERT_EQ(tool.PsUpgrade("dvs-e", modules), HYK_OK);
   auto e = hyksim::FindPortset("dvs-e");
   EXPECT_EQ(e->className, "etherswitch");
   EXPECT_EQ(e->classModule, newSwitch);
   EXPECT_TRUE(e->events.empty());

   // Portset state went from each old client to its new twin once per portset.
   std::vector<std::vector<uint8_t>> fwPs = {{0xf1, 0xf2, 0xf3}, {0xf1, 0xf2, 0xf3}};
   EXPECT_EQ(fw.to->psRestored, fwPs);
   EXPECT_EQ(stats.to->psRestored, (std::vector<std::vector<uint8_t>>{{0x51}, {0x51}}));
   EXPECT_EQ(fw.from->psCompleteResults, (std::vector<uint32_t>{1, 1}));
   EXPECT_EQ(stats.from->psCompleteResults, (std::vector<uint32_t>{1, 1}));

   // Per-port state was saved for every port of both portsets; each port was
   // blocked once, for the upgrade, and passes traffic again.
   EXPECT_EQ(fw.from->Calls(kGetRuntimeState), 5u);
   EXPECT_EQ(stats.from->Calls(kGetRuntimeState), 5u);
   std::vector<hyk_PortID> all = cports;
   all.insert(all.end(), eports.begin(), eports.end());
   for (hyk_PortID p : all) {
      auto pv = hyksim::FindPort(p);
      EXPECT_EQ(pv->blocked.size(), 1u) << p;
      EXPECT_TRUE(pv->passesTraffic) << p;
   }
   // What became of each port's saved bytes: handed to the new twin, or
   // reported dropped with their exact size -- one of the two, once.
   for (hyk_PortID p : all) {
      for (const ClientPair *pair : {&fw, &stats}) {
         const std::string name = pair->from->config().clientName;
         auto saved = pair->from->saved.find(p);
         ASSERT_NE(saved, pair->from->saved.end()) << name << " port " << p;
         const bool restored = pair->to->restored.count(p) != 0;
         const size_t drops = hyksim::LogCount("Dropped saved state of port 0x" + Hex(p) + " client " + name + ": " +
                                        std::to_string(saved->second.size()) + " bytes never restored");
         EXPECT_EQ((restored ? 1u : 0u) + drops, 1u) << name << " port " << p;
         if (restored) {
            EXPECT_EQ(pair->to->restored.at(p), saved->second) << name << " port " << p;
         }
      }
   }

   // Nothing of either upgrade is left behind; the clients stay for the next portset.
   EXPECT_TRUE(PsRecords().empty());
   EXPECT_EQ(NamespaceMembers("dvs-c"), 0u);
   EXPECT_EQ(NamespaceMembers("dvs-e"), 0u);
   EXPECT_EQ(c->upgradeProperties["tarnUpgradeToBuild"], "set");
   EXPECT_EQ(e->upgradeProperties["tarnUpgradeToBuild"], "set");
   EXPECT_EQ(ClientStateBytes(), 0u);
   EXPECT_NE(fw.from->handle(), nullptr);
   EXPECT_EQ(tool.StateRestoreComplete(), HYK_OK);           // command 12
   EXPECT_EQ(InfoLines("LUSUpgradeWorld", "Portset dvs-c upgrade completed"), 1u);
   EXPECT_EQ(InfoLines("LUSUpgradeWorld", "Portset dvs-e upgrade completed"), 1u);
}

}  // namespace
}  // namespace lustest
