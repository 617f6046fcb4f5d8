// End to end: a classic (interface version 0) upgrade of two portsets of
// vNIC ports, driven through the module's own operations in the order the
// upgrade tool runs them, with the restore events posted by host threads,
// several at once.  Checks that every saved byte reaches the new build, every
// port passes traffic again, the module's outage per port agrees with the
// host's own measurement of the port's blocked time, and nothing is left in
// any heap.
#include <map>
#include <regex>
#include <thread>

#include "save_fixture.h"

namespace lustest {
namespace {

constexpr uint64_t kSecond = 1000000;

class ClassicUpgradeTest : public SaveRestoreTest {
  protected:
   // Blocks every vNIC port of a portset with the module's block visitor, as
   // the block command does.
   void BlockPortset(const std::string &name) {
      ASSERT_EQ(AsLus([&] {
                   hyk_Portset *ps = nullptr;
                   hyk_Status s = hyk_PortsetAcquireByName(name.c_str(), HYK_PORTSET_ACCESS_EXCL, &ps);
                   if (s != HYK_OK) {
                      return s;
                   }
                   uint8_t blockFlag = 0;
                   s = hyk_PortsetForAllPorts(ps, LusFn<VisitorFn>("lusPortBlock"), &blockFlag);
                   hyk_PortsetRelease(&ps);
                   return s;
                }),
                HYK_OK);
   }

   // The module's outage per port, from its log.
   std::map<uint32_t, int> LoggedOutages() {
      std::regex re(R"(^LUS_CheckOutage:[0-9]+:\[tarn@7391 comp="tarn-hvs" subcomp="lus"\]Port 0x([0-9a-f]+) LUS block outage in Seconds: (-?[0-9]+)$)");
      std::map<uint32_t, int> out;
      for (auto &line : ModuleLines()) {
         std::smatch m;
         if (std::regex_match(line.text, m, re)) {
            EXPECT_EQ(line.level, 3);
            uint32_t port = static_cast<uint32_t>(std::stoul(m[1].str(), nullptr, 16));
            EXPECT_EQ(out.count(port), 0u) << "outage logged twice for port " << port;
            out[port] = std::stoi(m[2].str());
         }
      }
      return out;
   }
};

TEST_F(ClassicUpgradeTest, EveryPortsStateReachesTheNewBuildAndTheOutageMatchesTheHost) {
   LoadNew();
   // Two clients with different sizes; the firewall keeps nothing on every fourth port.
   auto vswitch = Pair("vswitch", [](TestClientConfig &c) {
      c.sizeForPort = [](uint32_t port) { return 16u + (port % 7u) * 24u; };
   });
   auto firewall = Pair("firewall", [](TestClientConfig &c) {
      c.sizeForPort = [](uint32_t port) { return port % 4u == 0 ? 0u : 200u + port % 13u; };
   });
   auto p0 = MakePortset("ps0", 40);
   auto p1 = MakePortset("ps1", 40, 100);
   std::vector<hyk_PortID> ports = p0;
   ports.insert(ports.end(), p1.begin(), p1.end());
   ASSERT_GE(ports.size(), 64u);

   // Start on a whole second, so that the module's seconds are exact.
   hyksim::AdvanceClock(kSecond - hyksim::NowUS() % kSecond);
   const uint64_t t0 = hyksim::NowUS();

   // Registration of the new build, then the outage clock and the blocking.
   SetPortsets({"ps0", "ps1"});
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   Var<uint32_t>("startOutageTime") = static_cast<uint32_t>(t0 / kSecond);
   BlockPortset("ps0");
   BlockPortset("ps1");
   for (hyk_PortID p : ports) {
      ASSERT_TRUE(Blocked(p)) << p;
   }

   // The save command; then the old build goes and the new one is matched.
   ASSERT_EQ(Save(0), HYK_OK);
   EXPECT_EQ(vswitch.from->saved.size(), ports.size());
   EXPECT_EQ(firewall.from->saved.size(), ports.size() - ports.size() / 4);
   ASSERT_EQ(vswitch.from->Unload(), HYK_OK);
   ASSERT_EQ(firewall.from->Unload(), HYK_OK);
   ASSERT_EQ(Reg(0, LUS_REG_TO), HYK_OK);
   ASSERT_GT(ClientStateBytes(), 0u);

   // The new datapath takes the ports over in four waves, two seconds apart;
   // within a wave four host threads post the unblock events at once.
   const size_t waves = 4, threads = 4;
   std::map<uint32_t, uint64_t> expectedSeconds;
   for (size_t w = 0; w < waves; w++) {
      hyksim::AdvanceClock(2 * kSecond);
      std::vector<hyk_PortID> wave;
      for (size_t i = w; i < ports.size(); i += waves) {
         wave.push_back(ports[i]);
         expectedSeconds[ports[i]] = (hyksim::NowUS() - t0) / kSecond;
      }
      std::vector<std::thread> posters;
      std::vector<hyk_Status> results(threads, HYK_OK);
      for (size_t t = 0; t < threads; t++) {
         posters.emplace_back([&, t] {
            for (size_t i = t; i < wave.size(); i += threads) {
               hyk_PortID p = wave[i];
               const char *ps = hyksim::FindPort(p)->portset == "ps0" ? "ps0" : "ps1";
               hyk_Status s = PostUnblock(ps, p);
               if (s != HYK_OK) {
                  results[t] = s;
               }
            }
         });
      }
      for (auto &th : posters) {
         th.join();
      }
      for (hyk_Status s : results) {
         EXPECT_EQ(s, HYK_OK) << "wave " << w;
      }
   }

   // Every byte the old clients saved reached the new ones unchanged.
   EXPECT_EQ(vswitch.to->restored, vswitch.from->saved);
   EXPECT_EQ(firewall.to->restored, firewall.from->saved);
   EXPECT_EQ(vswitch.to->Calls(kRuntimeRestore), ports.size());

   // Every port passes traffic, and its outage is what the host measured.
   auto outages = LoggedOutages();
   EXPECT_EQ(outages.size(), ports.size());
   for (hyk_PortID p : ports) {
      auto view = hyksim::FindPort(p);
      ASSERT_TRUE(view.has_value());
      EXPECT_TRUE(view->passesTraffic) << p;
      ASSERT_EQ(view->blocked.size(), 1u) << p;
      EXPECT_FALSE(view->blocked[0].open) << p;
      EXPECT_EQ(view->blockedTotalUS % kSecond, 0u) << p;
      ASSERT_EQ(outages.count(p), 1u) << p;
      EXPECT_EQ(static_cast<uint64_t>(outages[p]) * kSecond, view->blockedTotalUS) << p;
      EXPECT_EQ(static_cast<uint64_t>(outages[p]), expectedSeconds[p]) << p;
   }

   // The last restore cleared the clients; no state is left anywhere.
   EXPECT_EQ(Var<uint64_t>("already_called"), 1u);
   EXPECT_EQ(Var<LusHashMap *>("lusHashMap")->count, 0u);
   EXPECT_EQ(Var<uint32_t>("numLUSInstances"), 0u);
   EXPECT_EQ(vswitch.to->handle(), nullptr);
   EXPECT_EQ(firewall.to->handle(), nullptr);
   EXPECT_EQ(ClientStateBytes(), 0u);
   EXPECT_EQ(CountModuleLines(".*", 1), 0u) << "no error was logged";
   for (auto *c : {vswitch.to, firewall.to}) {
      EXPECT_EQ(hyksim::FindModule(c->config().moduleName)->useCount, 0u);
   }

   ASSERT_EQ(UnloadLus(), HYK_OK);
   EXPECT_TRUE(hyksim::LeakReports().empty());
   for (auto &heap : hyksim::Heaps()) {
      EXPECT_EQ(heap.name.rfind("lus_heap", 0), std::string::npos) << heap.name << " survived";
   }
   EXPECT_EQ(vswitch.to->Unload(), HYK_OK);
   EXPECT_EQ(firewall.to->Unload(), HYK_OK);
}

}  // namespace
}  // namespace lustest
