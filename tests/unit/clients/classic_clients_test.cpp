// The sample clients of builds 1000 and 2000 carried through the classic
// upgrade (interface version 0) by the device commands, in the order the
// tool runs them: every byte each old client saved reaches its new build,
// is checked against what the old build held, and is converted to the new
// format; every use count taken on a client module is released.
#include "client_fixture.h"

namespace lustest {
namespace {

class ClassicClientsTest : public ClientTest {
  protected:
   const std::vector<std::string> kClients = {"tarnq-vswitch", "tarnq-dfw", "tarnq-stats"};

   // lus, both builds of the switch, firewall and stats clients, and two
   // portsets of 100 vNIC ports each.
   void SetUpHost(std::map<std::string, std::vector<std::string>> oldParams = {},
                  std::map<std::string, std::vector<std::string>> newParams = {}) {
      LoadLusNew();
      // The old switch first: it provides the portsets' class.
      LoadClient("tarnq-vswitch", kOld, oldParams["tarnq-vswitch"]);
      ps0_ = Portset("ps0", 100);
      ps1_ = Portset("ps1", 100);
      for (const auto &c : kClients) {
         if (c != "tarnq-vswitch") LoadClient(c, kOld, oldParams[c]);
      }
      for (const auto &c : kClients) LoadClient(c, kNew, newParams[c]);
   }

   // Commands 1, 6, 4; the old build unloaded; command 1 again.
   void SaveAndSwap(hyk_Status saveStatus = HYK_OK) {
      lusctl::Client &tool = Tool();
      const auto portsets = Names({"ps0", "ps1"});
      ASSERT_EQ(tool.Register(LUS_REG_TO, portsets), HYK_OK);
      ASSERT_EQ(tool.BlockPorts(portsets, 30), HYK_OK);
      ASSERT_EQ(tool.PreUnload(portsets), saveStatus);
      for (const auto &c : kClients) {
         ASSERT_EQ(UseCount(c + "-1000"), 0u) << c;
         ASSERT_EQ(UnloadClient(c, kOld), HYK_OK) << c;
      }
      ASSERT_EQ(tool.Register(LUS_REG_TO, portsets), HYK_OK);
   }

   std::vector<hyk_PortID> AllPorts() const {
      std::vector<hyk_PortID> all = ps0_;
      all.insert(all.end(), ps1_.begin(), ps1_.end());
      return all;
   }

   // lus unloads with nothing pinned; the new build unloads too.
   void UnloadAll() {
      tool_.reset();
      proc_.reset();
      ASSERT_EQ(UnloadLus(), HYK_OK);
      for (const auto &c : kClients) {
         EXPECT_EQ(UseCount(c + "-2000"), 0u) << c;
         EXPECT_EQ(UnloadClient(c, kNew), HYK_OK) << c;
      }
      EXPECT_TRUE(hyksim::LeakReports().empty());
   }

   std::vector<hyk_PortID> ps0_, ps1_;
};

TEST_F(ClassicClientsTest, TwoHundredPortsCarryEveryByteSavedConvertedAndVerified) {
   SetUpHost();
   SaveAndSwap();
   for (hyk_PortID p : AllPorts()) EXPECT_TRUE(Blocked(p)) << p;

   // The new datapath takes both portsets over, from two host threads each:
   // the new switch posts the unblock event for every port it carries.
   ASSERT_EQ(hyksim::TakeOverPortset("ps0", kNew, 2), HYK_OK);
   ASSERT_EQ(hyksim::TakeOverPortset("ps1", kNew, 2), HYK_OK);

   PrintLedger("classic upgrade of 200 ports, 1000 -> 2000");
   for (const auto &c : kClients) {
      auto v = hyksim::LedgerOf(c);
      const uint64_t saved = Port(v, HYKSIM_LEDGER_SAVED).bytes;
      EXPECT_GT(saved, 0u) << c;
      EXPECT_EQ(Port(v, HYKSIM_LEDGER_RESTORED).bytes, saved) << c;
      EXPECT_EQ(Port(v, HYKSIM_LEDGER_VERIFIED).bytes, saved) << c;
      EXPECT_EQ(Port(v, HYKSIM_LEDGER_CONVERTED).bytes, saved) << c;
      EXPECT_EQ(Port(v, HYKSIM_LEDGER_MISMATCHED).bytes, 0u) << c;
      EXPECT_EQ(Port(v, HYKSIM_LEDGER_REFUSED).bytes, 0u) << c;
      EXPECT_TRUE(v.NeverRestored().empty()) << c;
   }
   // The firewall keeps nothing on some ports and tens of KiB on others.
   auto dfw = hyksim::LedgerOf("tarnq-dfw");
   EXPECT_LT(dfw.perPort[HYKSIM_LEDGER_SAVED].ports, 200u);
   uint64_t largest = 0;
   for (const auto &[port, bytes] : dfw.ports) largest = std::max(largest, bytes[HYKSIM_LEDGER_SAVED]);
   EXPECT_GT(largest, 10u * 1024u);
   for (hyk_PortID p : AllPorts()) EXPECT_FALSE(Blocked(p)) << p;
   EXPECT_EQ(hyksim::FindHeap("lus_heap_1")->bytesInUse + hyksim::FindHeap("lus_heap_2")->bytesInUse, 0u);
   // The last record gone, lus withdrew the clients: nothing is pinned.
   for (const auto &c : kClients) EXPECT_EQ(UseCount(c + "-2000"), 0u) << c;
   UnloadAll();
}

// The new firewall's restores take their modelled time on the host's clock:
// costUs a call plus costNsPerByte a byte restored, and nothing else moves the
// virtual clock while the portsets are taken over (every other client's
// callbacks cost nothing here).
TEST_F(ClassicClientsTest, RestoreMovesTheVirtualClockByItsModelledTime) {
   const std::vector<std::string> costless = {"costUs=0", "costNsPerByte=0"};
   std::map<std::string, std::vector<std::string>> oldParams, newParams;
   for (const auto &c : kClients) oldParams[c] = newParams[c] = costless;
   newParams["tarnq-dfw"] = {"costUs=40", "costNsPerByte=7"};
   SetUpHost(oldParams, newParams);
   SaveAndSwap();
   const uint64_t before = hyksim::NowUS();
   ASSERT_EQ(hyksim::TakeOverPortset("ps0", kNew, 1), HYK_OK);
   ASSERT_EQ(hyksim::TakeOverPortset("ps1", kNew, 1), HYK_OK);
   const uint64_t took = hyksim::NowUS() - before;

   auto dfw = hyksim::LedgerOf("tarnq-dfw");
   uint64_t want = 0, calls = 0;
   for (const auto &[port, bytes] : dfw.ports) {
      if (bytes[HYKSIM_LEDGER_RESTORED] != 0) {
         want += 40 + bytes[HYKSIM_LEDGER_RESTORED] * 7 / 1000;
         calls++;
      }
   }
   EXPECT_EQ(calls, Port(dfw, HYKSIM_LEDGER_RESTORED).ports);
   EXPECT_GT(calls, 10u);
   EXPECT_EQ(took, want);
   for (hyk_PortID p : AllPorts()) EXPECT_FALSE(Blocked(p)) << p;
   UnloadAll();
}

// getSize of the old firewall fails on one port: the save command fails with
// the client's status, the clients are cleared, nothing is saved, and the
// ports stay blocked (the tool must unblock or retry).
TEST_F(ClassicClientsTest, FailingGetSizeFailsTheSaveAndSavesNothing) {
   // Port IDs are handed out in order from a fresh host's first one: ps0's
   // seventh port is its first port plus 6.
   hyksim::PortsetSpec probe;
   probe.name = "probe";
   ASSERT_EQ(hyksim::AddPortset(probe), HYK_OK);
   hyk_PortID first = 0;
   hyksim::PortSpec port;
   port.vmUUID = "probe";
   ASSERT_EQ(hyksim::AddPort("probe", port, &first), HYK_OK);
   ASSERT_EQ(hyksim::RemovePort(first), HYK_OK);
   ASSERT_EQ(hyksim::RemovePortset("probe"), HYK_OK);
   const hyk_PortID bad = first + 7;
   SetUpHost({{"tarnq-dfw", {"failSlot=1", "failPort=" + std::to_string(bad), "failStatus=0xbad0006"}}});
   ASSERT_EQ(ps0_[6], bad);
   SaveAndSwap(HYK_LIMIT_EXCEEDED);
   EXPECT_EQ(hyksim::LogCount("Getting Runtime size FAIL for client tarnq-dfw : Limit exceeded"), 1u);
   EXPECT_EQ(hyksim::LogCount("LUS GetSize on portset ps0 FAIL : Limit exceeded"), 1u);
   for (const auto &c : kClients) {
      EXPECT_EQ(Port(hyksim::LedgerOf(c), HYKSIM_LEDGER_SAVED).bytes, 0u) << c;
   }
   for (hyk_PortID p : AllPorts()) EXPECT_TRUE(Blocked(p)) << p;
   UnloadAll();
}

// The new firewall's restore fails on one port: that port stays blocked with
// its state kept for a retry; every other port is restored.  The clear timer
// then drops the kept state, and lus reports it.
TEST_F(ClassicClientsTest, FailingRestoreKeepsThatPortBlockedUntilTheClearDropsItsState) {
   SetUpHost();
   // The new stats module fails its restore on one port (every port has stats).
   const hyk_PortID bad = ps1_[3];
   ASSERT_EQ(UnloadClient("tarnq-stats", kNew), HYK_OK);
   LoadClient("tarnq-stats", kNew, {"failSlot=3", "failPort=" + std::to_string(bad)});
   SaveAndSwap();
   ASSERT_EQ(hyksim::TakeOverPortset("ps0", kNew, 1), HYK_OK);
   ASSERT_EQ(hyksim::TakeOverPortset("ps1", kNew, 1), HYK_OK);
   EXPECT_TRUE(Blocked(bad));
   EXPECT_EQ(hyksim::LogCount("Restore Runtime State FAIL for client tarnq-stats : Failure"), 1u);
   for (hyk_PortID p : AllPorts()) {
      if (p != bad) {
         EXPECT_FALSE(Blocked(p)) << p;
      }
   }
   auto stats = hyksim::LedgerOf("tarnq-stats");
   const uint64_t keptBytes = stats.ports[bad][HYKSIM_LEDGER_SAVED];
   ASSERT_GT(keptBytes, 0u);
   EXPECT_EQ(stats.ports[bad][HYKSIM_LEDGER_RESTORED], 0u);
   EXPECT_EQ(hyksim::FindHeap("lus_heap_1")->bytesInUse + hyksim::FindHeap("lus_heap_2")->bytesInUse,
             keptBytes);

   // 120 seconds later the clear timer drops what is left, and says so.
   hyksim::AdvanceClock(121ull * 1000000ull);
   EXPECT_EQ(DroppedBytes("tarnq-stats"), keptBytes);
   EXPECT_TRUE(Blocked(bad));
   UnloadAll();
}

// The old switch claims one byte more than it was given: lus cannot trust
// that state and fails the portset's save walk; the save command itself
// succeeds (a portset that fails to save does not fail the others), and the
// ports of that portset are restored without the switch's state.
TEST_F(ClassicClientsTest, OverrunOfTheOldSwitchLosesThatPortsetsSaveWalk) {
   SetUpHost({{"tarnq-vswitch", {"overrun=1", "failPort=0"}}});
   SaveAndSwap();
   EXPECT_EQ(hyksim::LogCount("Size of datalen > size of new_lus->len : Bad parameter"), 2u);
   EXPECT_EQ(hyksim::LogCount("Saving LUS Runtime data FAIL : Bad parameter"), 2u);
   ASSERT_EQ(hyksim::TakeOverPortset("ps0", kNew, 1), HYK_OK);
   ASSERT_EQ(hyksim::TakeOverPortset("ps1", kNew, 1), HYK_OK);
   auto vsw = hyksim::LedgerOf("tarnq-vswitch");
   // The one port per portset whose buffer lus refused never gets its state back.
   EXPECT_EQ(Port(vsw, HYKSIM_LEDGER_RESTORED).ports, 0u);
   EXPECT_EQ(vsw.NeverRestored().size(), 2u);
   PrintLedger("overrun of the old switch");
   UnloadAll();
}

// A slow restore of the new switch keeps ports out longer than the budget of
// the block command (30 s): lus reports them, and the host's own measurement
// of each port's blocked time agrees.
TEST_F(ClassicClientsTest, SlowRestoreExceedsTheOutageBudgetAndIsReported) {
   SetUpHost({}, {{"tarnq-vswitch", {"slowSlot=3", "slowMs=400"}}});
   SaveAndSwap();
   ASSERT_EQ(hyksim::TakeOverPortset("ps0", kNew, 1), HYK_OK);
   size_t over = 0;
   for (const auto &line : ModuleLines()) {
      over += line.text.find("has been blocked in LUS for:") != std::string::npos;
   }
   EXPECT_GT(over, 0u);
   auto last = hyksim::FindPort(ps0_.back());
   EXPECT_GT(last->blockedTotalUS, 30ull * 1000000ull);
   UnloadAll();
}

// The old stats module announces 4 bytes where it keeps 40: lus gives it 4,
// it hands over the first 4, and the new build cannot read that and refuses
// it with a clear status; the port stays blocked and the ledger says refused.
TEST_F(ClassicClientsTest, StateCutShortByAWrongSizeIsRefusedByTheNewBuild) {
   SetUpHost({{"tarnq-stats", {"reportSize=4"}}});
   SaveAndSwap();
   ASSERT_EQ(hyksim::TakeOverPortset("ps0", kNew, 1), HYK_OK);
   auto stats = hyksim::LedgerOf("tarnq-stats");
   EXPECT_EQ(Port(stats, HYKSIM_LEDGER_SAVED).bytes, 4u * 200u);
   EXPECT_EQ(Port(stats, HYKSIM_LEDGER_REFUSED).ports, 100u);
   EXPECT_EQ(Port(stats, HYKSIM_LEDGER_VERIFIED).bytes, 0u);
   EXPECT_EQ(hyksim::LogCount("Restore Runtime State FAIL for client tarnq-stats : Interface version mismatch"),
             100u);
   for (hyk_PortID p : ps0_) EXPECT_TRUE(Blocked(p)) << p;
   UnloadAll();
}

// A client that announces no state for a port hands nothing over: lus marks
// the record as asked-and-empty and the new build is not called for it.
TEST_F(ClassicClientsTest, ClientAnnouncingNoStateIsNotCalledBack) {
   SetUpHost({{"tarnq-stats", {"reportSize=0"}}});
   SaveAndSwap();
   ASSERT_EQ(hyksim::TakeOverPortset("ps0", kNew, 1), HYK_OK);
   ASSERT_EQ(hyksim::TakeOverPortset("ps1", kNew, 1), HYK_OK);
   auto stats = hyksim::LedgerOf("tarnq-stats");
   EXPECT_EQ(Port(stats, HYKSIM_LEDGER_SAVED).bytes, 0u);
   EXPECT_EQ(Port(stats, HYKSIM_LEDGER_RESTORED).bytes, 0u);
   EXPECT_EQ(Port(hyksim::LedgerOf("tarnq-vswitch"), HYKSIM_LEDGER_VERIFIED).ports, 200u);
   for (hyk_PortID p : AllPorts()) EXPECT_FALSE(Blocked(p)) << p;
   UnloadAll();
}

// getRuntimeState of the old switch fails on its fifth call: the save walk of
// that portset stops there (the ports before it keep what they saved), the
// save command still succeeds, and the other portset is saved in full.
TEST_F(ClassicClientsTest, SaveFailingOnTheNthCallStopsThatPortsetOnly) {
   SetUpHost({{"tarnq-vswitch", {"failSlot=2", "failNth=5", "failStatus=0xbad0014"}}});
   SaveAndSwap();
   EXPECT_EQ(hyksim::LogCount("getRuntimeState FAIL for client tarnq-vswitch : Out of memory"), 1u);
   EXPECT_EQ(hyksim::LogCount("Saving LUS Runtime data FAIL : Out of memory"), 1u);
   auto vsw = hyksim::LedgerOf("tarnq-vswitch");
   EXPECT_EQ(Port(vsw, HYKSIM_LEDGER_SAVED).ports, 4u + 100u);
   UnloadAll();
}

}  // namespace
}  // namespace lustest
