// Stress: the per-portset upgrade (command 9, the upgrade world) while
// restore events and pull restores for the same ports arrive from other
// threads.  The world holds the portset for its whole pass; pull restores
// wait for it, restore events find nothing of interface version 0 to do, and
// the ledger of stress_fixture.h holds at the end.
#include "stress_fixture.h"

namespace lustest {
namespace {

class WorldStressTest : public StressTest {
  protected:
   // lus, the firewall pair (portset-phase, saves per-port state), the stats
   // pair (port-phase, pulls its state), the switch modules, and two
   // portsets of ports that the world blocks.
   void SetUpWorld() {
      LoadNew(3);
      pairs_.push_back(Pair("fw", [](TestClientConfig &c) {
         c.sizeForPort = [](uint32_t port) { return 32u + port % 29u; };
         c.psState = {1, 2, 3};
      }));
      stats_ = Pair("stats", [](TestClientConfig &c) {
         c.upgradePhase = LUS_PHASE_PORT;
         c.stateSize = 24;
      });
      oldSwitch_ = SwitchModule("tarnq-vswitch-1000", "etherswitch");
      newSwitch_ = SwitchModule("tarnq-vswitch-2000", "etherswitch");
      SwitchModule("tarnq-stub-vswitch-2000", "stub-vswitch");
      const int n = PortsPerPortset() / 2;
      for (const char *ps : {"dvs0", "dvs1"}) {
         for (hyk_PortID id : Switch(ps, "etherswitch", "tarnq-vswitch-1000", n, 107,
                                     static_cast<int>(ports_.size()))) {
            ports_.push_back({id, ps});
         }
      }
      modules_ = {{true, pairs_[0].from->id()}, {false, pairs_[0].to->id()},
                  {true, stats_.from->id()},    {false, stats_.to->id()},
                  {true, oldSwitch_},           {false, newSwitch_}};
   }

   ClientPair stats_;
   hyk_ModuleID oldSwitch_ = HYK_INVALID_MODULE_ID, newSwitch_ = HYK_INVALID_MODULE_ID;
   std::vector<lusctl::ModuleArg> modules_;
};

TEST_F(WorldStressTest, UpgradeWorldWhileRestoreEventsAndPullRestoresArrive) {
   SetUpWorld();
   lusctl::Client &tool = Tool();
   ASSERT_EQ(tool.Register(LUS_REG_FROM_V1, {}), HYK_OK);
   ASSERT_EQ(tool.PreDualLoad(), HYK_OK);
   ASSERT_EQ(tool.Register(LUS_REG_TO_V1, {}), HYK_OK);
   ASSERT_EQ(tool.GlobalConfigSaveRestore(), HYK_OK);

   std::atomic<bool> stop{false};
   std::vector<std::thread> threads;
   // Two threads post the unblock event for every port, over and over.
   for (int t = 0; t < 2; t++) {
      threads.emplace_back([&, t] {
         while (!stop) {
            for (size_t i = t; i < ports_.size(); i += 2) {
               PostUnblock(ports_[i].portset, ports_[i].id);
            }
         }
      });
   }
   // Two threads pull the stats client's state of every port, as its new build would.
   for (int t = 0; t < 2; t++) {
      threads.emplace_back([&, t] {
         while (!stop) {
            for (size_t i = t; i < ports_.size(); i += 2) {
               PullRestore(stats_.to, "stats", ports_[i].id);
            }
         }
      });
   }

   EXPECT_EQ(tool.PsUpgrade("dvs0", modules_), HYK_OK);
   EXPECT_EQ(tool.StateRestoreComplete(), HYK_OK);
   EXPECT_EQ(tool.PsUpgrade("dvs1", modules_), HYK_OK);
   EXPECT_EQ(tool.StateCollectionComplete(), HYK_OK);
   stop = true;
   for (auto &t : threads) t.join();

   // Both portsets run on the new switch module; every port passes traffic.
   EXPECT_EQ(hyksim::FindPortset("dvs0")->classModule, newSwitch_);
   EXPECT_EQ(hyksim::FindPortset("dvs1")->classModule, newSwitch_);
   EXPECT_EQ(pairs_[0].to->psRestored.size(), 2u);
   LedgerFigures f = CheckLedger();
   Print("upgrade world + events + pulls", f);
   EXPECT_EQ(f.records, ports_.size());
   EXPECT_EQ(f.restored + f.dropped, f.records);
   EXPECT_EQ(f.portsPassing, ports_.size());
   // The stats client (port phase) saved nothing in the world's pass, so it
   // had nothing to pull.
   EXPECT_TRUE(stats_.from->saved.empty());
   EXPECT_TRUE(stats_.to->restored.empty());
   UnloadAndCheckNothingPinned();
   EXPECT_EQ(stats_.to->Unload(), HYK_OK);
}

}  // namespace
}  // namespace lustest
