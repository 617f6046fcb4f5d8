// stress_fixture.h -- the fixture of the stress tests: a classic upgrade of
// many vNIC ports driven through the device, host threads that post the
// restore events, and the ledger that every run ends with.
//
// The ledger is the whole point of a run: for every port and every client,
// the bytes the old client saved reached the new client unchanged, or the
// module reported them dropped (never both, never neither); a port still
// blocked at the end has a drop report; after lus unloads nothing of it is
// left and no client module is pinned.
//
// Sizes come from the environment so that the same tests run at CI size and
// at full scale:  LUS_STRESS_PORTS (vNIC ports per portset, default 1000)
// and LUS_STRESS_CLIENTS (client pairs, 1 or 2, default 2).
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "world_fixture.h"

namespace lustest {

inline int EnvInt(const char *name, int fallback) {
   const char *v = std::getenv(name);
   return v != nullptr && *v != '\0' ? std::atoi(v) : fallback;
}

// A port and the portset it belongs to (restore events are posted on the portset).
struct StressPort {
   hyk_PortID id;
   std::string portset;
};

// What the module reported dropped, by port and client: the bytes it named.
using DropReports = std::map<std::pair<uint32_t, std::string>, uint64_t>;

class StressTest : public WorldTest {
  protected:
   static int PortsPerPortset() { return EnvInt("LUS_STRESS_PORTS", 1000); }
   static int ClientPairs() { return EnvInt("LUS_STRESS_CLIENTS", 2) >= 2 ? 2 : 1; }

   // lus of the new build, the client pairs (every port gets state from each)
   // and two portsets of vNIC ports.
   void SetUpClassic(int level = 3) {
      LoadNew(level);
      pairs_.push_back(Pair("vswitch", [](TestClientConfig &c) {
         c.sizeForPort = [](uint32_t port) { return 16u + (port % 7u) * 24u; };
      }));
      if (ClientPairs() == 2) {
         pairs_.push_back(Pair("firewall", [](TestClientConfig &c) {
            c.sizeForPort = [](uint32_t port) { return 200u + port % 13u; };
         }));
      }
      const int n = PortsPerPortset();
      for (const char *ps : {"ps0", "ps1"}) {
         // Version 106: the block command blocks every vNIC port of the switch.
         hyksim::PortsetSpec desc;
         desc.name = ps;
         desc.fabricVersion = 106;
         ASSERT_EQ(hyksim::AddPortset(desc), HYK_OK);
         const int first = static_cast<int>(ports_.size());
         for (int i = 0; i < n; i++) {
            ports_.push_back({AddVnicPort(ps, "vm-" + std::to_string(first + i), 0), ps});
         }
      }
   }

   // The classic sequence through the device, up to the restore events:
   // command 1, command 6, command 4, the old build unloaded, command 1 again.
   void SaveThroughDevice() {
      lusctl::Client &tool = Tool();
      const auto portsets = Names({"ps0", "ps1"});
      ASSERT_EQ(tool.Register(LUS_REG_TO, portsets), HYK_OK);
      ASSERT_EQ(tool.BlockPorts(portsets, 30), HYK_OK);
      for (const auto &port : ports_) {
         ASSERT_TRUE(Blocked(port.id)) << port.id;
      }
      saveTimeUS_ = hyksim::NowUS();
      ASSERT_EQ(tool.PreUnload(portsets), HYK_OK);
      for (auto &p : pairs_) {
         ASSERT_EQ(p.from->Unload(), HYK_OK);
      }
      ASSERT_EQ(tool.Register(LUS_REG_TO, portsets), HYK_OK);
      for (auto &p : pairs_) {
         ASSERT_EQ(p.from->saved.size(), ports_.size()) << p.from->config().clientName;
      }
   }

   static std::vector<lusctl::PortsetArg> Names(const std::vector<std::string> &names) {
      return lusctl::PortsetArgs(names);
   }

   // Restore events from `threads` host threads: for each port of a thread's
   // share, the unblock event and then the port-enable event.
   std::vector<std::thread> StartEventThreads(int threads) {
      std::vector<std::thread> out;
      for (int t = 0; t < threads; t++) {
         out.emplace_back([this, t, threads] {
            for (size_t i = t; i < ports_.size(); i += threads) {
               PostUnblock(ports_[i].portset, ports_[i].id);
               hyksim::EnablePort(ports_[i].id);
            }
         });
      }
      return out;
   }

   // Ports the new build has been handed so far (any client).
   size_t RestoredSoFar() {
      size_t n = 0;
      for (auto &p : pairs_) n += p.to->RestoredPorts();
      return n;
   }
   // Waits (really) until the new build has restored `fraction` of the ports,
   // or the events are all done.
   void WaitForRestored(double fraction, const std::atomic<bool> &eventsDone) {
      const size_t want = static_cast<size_t>(fraction * ports_.size());
      while (RestoredSoFar() < want && !eventsDone.load()) {
         std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
   }

   // Every drop the module reported, from its log.
   static DropReports Drops() {
      static const std::regex cleared(
         R"(Dropped saved state of port 0x([0-9a-f]+) client (\S+): ([0-9]+) bytes never restored$)");
      static const std::regex midRestore(
         R"(Saved state of port 0x([0-9a-f]+) client (\S+) dropped \(([0-9]+) bytes\): client data cleared during its restore$)");
      DropReports out;
      for (const auto &line : ModuleLines()) {
         std::smatch m;
         if (std::regex_search(line.text, m, cleared) || std::regex_search(line.text, m, midRestore)) {
            auto key = std::make_pair(static_cast<uint32_t>(std::stoul(m[1].str(), nullptr, 16)),
                                      m[2].str());
            EXPECT_EQ(out.count(key), 0u) << "dropped twice: port " << key.first << " " << key.second;
            out[key] = std::stoull(m[3].str());
         }
      }
      return out;
   }

   struct LedgerFigures {
      size_t records = 0, restored = 0, dropped = 0;
      uint64_t bytesSaved = 0, bytesRestored = 0, bytesDropped = 0;
      size_t portsPassing = 0, portsBlocked = 0;
   };

   // Checks the ledger (read after every thread is joined) and returns its figures.
   LedgerFigures CheckLedger() {
      LedgerFigures f;
      const DropReports drops = Drops();
      std::set<uint32_t> portsWithDrops;
      for (const auto &[key, bytes] : drops) portsWithDrops.insert(key.first);
      for (const auto &port : ports_) {
         for (auto &pair : pairs_) {
            const std::string name = pair.from->config().clientName;
            auto saved = pair.from->saved.find(port.id);
            if (saved == pair.from->saved.end() || saved->second.empty()) {
               ADD_FAILURE() << "port " << port.id << " client " << name << ": nothing saved";
               continue;
            }
            f.records++;
            f.bytesSaved += saved->second.size();
            auto restored = pair.to->restored.find(port.id);
            const bool wasRestored = restored != pair.to->restored.end();
            auto drop = drops.find({port.id, name});
            const bool wasDropped = drop != drops.end();
            EXPECT_FALSE(wasRestored && wasDropped)
               << "port " << port.id << " client " << name << ": restored and reported dropped";
            EXPECT_TRUE(wasRestored || wasDropped)
               << "port " << port.id << " client " << name << ": state lost without a report";
            const auto &order = pair.to->restoreOrder;
            EXPECT_LE(std::count(order.begin(), order.end(), port.id), 1)
               << "port " << port.id << " client " << name << ": restored twice";
            if (wasRestored) {
               EXPECT_EQ(restored->second, saved->second)
                  << "port " << port.id << " client " << name << ": restored bytes differ";
               f.restored++;
               f.bytesRestored += restored->second.size();
            }
            if (wasDropped) {
               EXPECT_EQ(drop->second, saved->second.size())
                  << "port " << port.id << " client " << name << ": drop report names other bytes";
               f.dropped++;
               f.bytesDropped += drop->second;
            }
         }
         if (Blocked(port.id)) {
            f.portsBlocked++;
            EXPECT_EQ(portsWithDrops.count(port.id), 1u)
               << "port " << port.id << " left blocked without a drop report";
         } else {
            f.portsPassing++;
         }
      }
      return f;
   }

   // lus unloads, leaves nothing behind, and pins no client module.
   void UnloadAndCheckNothingPinned() {
      tool_.reset();
      proc_.reset();
      ASSERT_EQ(UnloadLus(), HYK_OK);
      for (const char *heap : {"lus_heap_0", "lus_heap_1", "lus_heap_2"}) {
         EXPECT_FALSE(hyksim::FindHeap(heap).has_value()) << heap;
      }
      EXPECT_TRUE(hyksim::LeakReports().empty());
      const auto counts = hyksim::Counts();
      EXPECT_EQ(counts.lockDomains, 0u);
      EXPECT_EQ(counts.spinlocks, 0u);
      EXPECT_EQ(counts.timerQueues, 0u);
      for (auto &p : pairs_) {
         EXPECT_EQ(hyksim::FindModule(p.to->config().moduleName)->useCount, 0u);
         EXPECT_EQ(p.to->Unload(), HYK_OK);
      }
   }

   static void Print(const char *what, const LedgerFigures &f) {
      std::printf("[ ledger ] %s: %zu records (%llu bytes) saved; %zu restored (%llu bytes), "
                  "%zu reported dropped (%llu bytes); ports passing %zu, blocked %zu\n",
                  what, f.records, (unsigned long long)f.bytesSaved, f.restored,
                  (unsigned long long)f.bytesRestored, f.dropped,
                  (unsigned long long)f.bytesDropped, f.portsPassing, f.portsBlocked);
   }

   std::vector<ClientPair> pairs_;
   std::vector<StressPort> ports_;
   uint64_t saveTimeUS_ = 0;
};

}  // namespace lustest
