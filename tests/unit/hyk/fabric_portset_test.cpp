// Tests of the simulated host's portsets: acquisition and release, exclusive
// access across threads, self-deadlock and double-release panics, the port
// walk, switch version and class, class hot swap and the fall to "nulldev",
// upgrade-property namespaces, fast-datapath commands and fault injection.
#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "fabric_test_support.h"

using namespace fabrictest;

namespace {

class PortsetTest : public FabricTest {};

TEST_F(PortsetTest, AcquireByNameAndReleaseClearsTheHandle) {
   MakePortset("ps0", 1);
   hyk_Portset *ps = nullptr;
   ASSERT_EQ(hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, &ps), HYK_OK);
   ASSERT_NE(ps, nullptr);
   EXPECT_STREQ(hyk_PortsetName(ps), "ps0");
   EXPECT_EQ(hyksim::FindPortset("ps0")->acquireCount, 1u);
   EXPECT_TRUE(hyksim::FindPortset("ps0")->exclusive);
   hyk_PortsetRelease(&ps);
   EXPECT_EQ(ps, nullptr);
   EXPECT_EQ(hyksim::FindPortset("ps0")->acquireCount, 0u);
   EXPECT_FALSE(hyksim::FindPortset("ps0")->exclusive);
}

TEST_F(PortsetTest, AcquireRefusesUnknownPortsetsAndBadArguments) {
   MakePortset("ps0", 1);
   hyk_Portset *ps = nullptr;
   EXPECT_EQ(hyk_PortsetAcquireByName("nope", HYK_PORTSET_ACCESS_EXCL, &ps), HYK_NOT_FOUND);
   EXPECT_EQ(hyk_PortsetAcquireByName(nullptr, HYK_PORTSET_ACCESS_EXCL, &ps), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_PortsetAcquireByName("ps0", 0, &ps), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_PortsetAcquireByName("ps0", 3, &ps), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, nullptr), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_PortsetAcquireByPortID(4242, HYK_PORTSET_ACCESS_EXCL, &ps), HYK_NOT_FOUND);
   EXPECT_EQ(ps, nullptr);
   EXPECT_EQ(hyksim::FindPortset("ps0")->acquireCount, 0u);
}

TEST_F(PortsetTest, AcquireByPortIdFindsThePortsOwnPortset) {
   MakePortset("ps0", 2);
   auto ports1 = MakePortset("ps1", 2);
   hyk_Portset *ps = nullptr;
   ASSERT_EQ(hyk_PortsetAcquireByPortID(ports1[1], HYK_PORTSET_ACCESS_EXCL, &ps), HYK_OK);
   EXPECT_STREQ(hyk_PortsetName(ps), "ps1");
   EXPECT_EQ(hyksim::FindPortset("ps0")->acquireCount, 0u);
   hyk_PortsetRelease(&ps);
}

TEST_F(PortsetTest, ExclusiveAcquireBlocksASecondThreadUntilRelease) {
   MakePortset("ps0", 1);
   hyk_Portset *ps = nullptr;
   ASSERT_EQ(hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, &ps), HYK_OK);
   std::atomic<bool> acquired{false};
   std::thread second([&] {
      hyk_Portset *mine = nullptr;
      EXPECT_EQ(hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, &mine), HYK_OK);
      acquired = true;
      hyk_PortsetRelease(&mine);
   });
   std::this_thread::sleep_for(std::chrono::milliseconds(100));
   EXPECT_FALSE(acquired);
   hyk_PortsetRelease(&ps);
   second.join();
   EXPECT_TRUE(acquired);
   EXPECT_EQ(hyksim::FindPortset("ps0")->acquireCount, 0u);
}

TEST_F(PortsetTest, ReadersShareButAnExclusiveAcquirerWaitsForThem) {
   MakePortset("ps0", 1);
   hyk_Portset *r1 = nullptr, *r2 = nullptr;
   ASSERT_EQ(hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_READ, &r1), HYK_OK);
   std::thread reader([&] { EXPECT_EQ(hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_READ, &r2), HYK_OK); });
   reader.join();
   EXPECT_EQ(hyksim::FindPortset("ps0")->acquireCount, 2u);
   std::atomic<bool> acquired{false};
   std::thread writer([&] {
      hyk_Portset *w = nullptr;
      EXPECT_EQ(hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, &w), HYK_OK);
      acquired = true;
      hyk_PortsetRelease(&w);
   });
   std::this_thread::sleep_for(std::chrono::milliseconds(50));
   hyk_PortsetRelease(&r1);
   std::this_thread::sleep_for(std::chrono::milliseconds(50));
   EXPECT_FALSE(acquired);
   hyk_PortsetRelease(&r2);   // released by another thread than its acquirer
   writer.join();
   EXPECT_TRUE(acquired);
}

TEST_F(PortsetTest, ReacquiringExclusivelyOnTheSameThreadPanics) {
   MakePortset("ps0", 1);
   EXPECT_DEATH(
      {
         hyk_Portset *a = nullptr;
         hyk_Portset *b = nullptr;
         hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, &a);
         hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, &b);
      },
      "self-deadlock");
}

TEST_F(PortsetTest, UpgradingAReadHoldToExclusiveOnTheSameThreadPanics) {
   auto ports = MakePortset("ps0", 1);
   EXPECT_DEATH(
      {
         hyk_Portset *a = nullptr;
         hyk_Portset *b = nullptr;
         hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_READ, &a);
         hyk_PortsetAcquireByPortID(ports[0], HYK_PORTSET_ACCESS_EXCL, &b);
      },
      "self-deadlock");
}

TEST_F(PortsetTest, ReleasingTwicePanics) {
   MakePortset("ps0", 1);
   EXPECT_DEATH(
      {
         hyk_Portset *ps = nullptr;
         hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, &ps);
         hyk_PortsetRelease(&ps);
         hyk_PortsetRelease(&ps);
      },
      "released twice");
}

TEST_F(PortsetTest, ReleasingAStaleCopyOfAHandlePanics) {
   MakePortset("ps0", 1);
   EXPECT_DEATH(
      {
         hyk_Portset *ps = nullptr;
         hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, &ps);
         hyk_Portset *copy = ps;
         hyk_PortsetRelease(&ps);
         hyk_PortsetRelease(&copy);
      },
      "not an acquired portset");
}

TEST_F(PortsetTest, AcquireWithASpinlockHeldPanics) {
   MakePortset("ps0", 1);
   hyk_LockDomainID domain = HYK_INVALID_LOCK_DOMAIN;
   ASSERT_EQ(hyk_LockDomainCreate("dom", HYK_INVALID_MODULE_ID, 0, &domain), HYK_OK);
   hyk_SpinlockID lock = HYK_INVALID_LOCK;
   ASSERT_EQ(hyk_SpinlockCreate("lk", domain, 1, &lock), HYK_OK);
   EXPECT_DEATH(
      {
         hyk_Portset *ps = nullptr;
         hyk_SpinlockLock(lock);
         hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, &ps);
      },
      "hyk_PortsetAcquireByName may sleep");
}

struct Walk {
   std::vector<hyk_PortID> visited;
   std::thread::id thread;
   hyk_PortID failAt = 0;
   std::vector<hyk_PortID> removeAt;  // removeAt[0] removes removeAt[1] when visited
   hyk_Portset *ps = nullptr;
   bool sameHandle = true;
};

hyk_Status Visit(hyk_Portset *ps, hyk_PortID port, void *data) {
   auto *w = static_cast<Walk *>(data);
   w->visited.push_back(port);
   w->thread = std::this_thread::get_id();
   w->sameHandle = w->sameHandle && ps == w->ps;
   if (w->removeAt.size() == 2 && port == w->removeAt[0]) {
      EXPECT_EQ(hyksim::RemovePort(w->removeAt[1]), HYK_OK);
   }
   return port == w->failAt ? HYK_NO_MEMORY : HYK_OK;
}

TEST_F(PortsetTest, ForAllPortsVisitsInPortIdOrderOnTheCallersThread) {
   auto ps0 = MakePortset("ps0", 2);
   MakePortset("other", 2);
   hyksim::PortSpec late;
   hyk_PortID lateId = 0;
   ASSERT_EQ(hyksim::AddPort("ps0", late, &lateId), HYK_OK);
   Walk w;
   ASSERT_EQ(hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, &w.ps), HYK_OK);
   EXPECT_EQ(hyk_PortsetForAllPorts(w.ps, Visit, &w), HYK_OK);
   EXPECT_EQ(w.visited, (std::vector<hyk_PortID>{ps0[0], ps0[1], lateId}));
   EXPECT_EQ(w.thread, std::this_thread::get_id());
   EXPECT_TRUE(w.sameHandle);
   hyk_PortsetRelease(&w.ps);
}

TEST_F(PortsetTest, ForAllPortsStopsAtTheFirstFailingVisitorAndReturnsItsStatus) {
   auto ports = MakePortset("ps0", 4);
   Walk w;
   w.failAt = ports[1];
   ASSERT_EQ(hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, &w.ps), HYK_OK);
   EXPECT_EQ(hyk_PortsetForAllPorts(w.ps, Visit, &w), HYK_NO_MEMORY);
   EXPECT_EQ(w.visited, (std::vector<hyk_PortID>{ports[0], ports[1]}));
   EXPECT_EQ(hyk_PortsetForAllPorts(w.ps, nullptr, &w), HYK_BAD_PARAM);
   hyk_PortsetRelease(&w.ps);
}

TEST_F(PortsetTest, ForAllPortsSkipsAPortRemovedDuringTheWalk) {
   auto ports = MakePortset("ps0", 4);
   Walk w;
   w.removeAt = {ports[0], ports[2]};
   ASSERT_EQ(hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, &w.ps), HYK_OK);
   EXPECT_EQ(hyk_PortsetForAllPorts(w.ps, Visit, &w), HYK_OK);
   EXPECT_EQ(w.visited, (std::vector<hyk_PortID>{ports[0], ports[1], ports[3]}));
   // The next walk starts from the portset as it is now.
   w.visited.clear();
   w.removeAt.clear();
   EXPECT_EQ(hyk_PortsetForAllPorts(w.ps, Visit, &w), HYK_OK);
   EXPECT_EQ(w.visited, (std::vector<hyk_PortID>{ports[0], ports[1], ports[3]}));
   hyk_PortsetRelease(&w.ps);
}

TEST_F(PortsetTest, ForAllPortsOfAnEmptyPortsetVisitsNothing) {
   MakePortset("empty", 0);
   Walk w;
   ASSERT_EQ(hyk_PortsetAcquireByName("empty", HYK_PORTSET_ACCESS_READ, &w.ps), HYK_OK);
   EXPECT_EQ(hyk_PortsetForAllPorts(w.ps, Visit, &w), HYK_OK);
   EXPECT_TRUE(w.visited.empty());
   hyk_PortsetRelease(&w.ps);
}

TEST_F(PortsetTest, FabricVersionAndClassName) {
   hyksim::PortsetSpec desc;
   desc.className = "cswitch";
   desc.fabricVersion = 106;
   MakePortset("ps0", 0, desc);
   desc.className = "";
   MakePortset("classless", 0, desc);
   hyk_Portset *ps = nullptr, *bare = nullptr;
   ASSERT_EQ(hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, &ps), HYK_OK);
   ASSERT_EQ(hyk_PortsetAcquireByName("classless", HYK_PORTSET_ACCESS_EXCL, &bare), HYK_OK);
   uint32_t version = 0;
   EXPECT_EQ(hyk_PortsetLookupFabricVersion(ps, &version), HYK_OK);
   EXPECT_EQ(version, 106u);
   EXPECT_EQ(hyk_PortsetLookupFabricVersion(ps, nullptr), HYK_BAD_PARAM);
   char name[HYK_CLASS_NAME_LEN];
   EXPECT_EQ(hyk_PortsetLookupFabricClassName(ps, name, sizeof name), HYK_OK);
   EXPECT_STREQ(name, "cswitch");
   char small[4];
   EXPECT_EQ(hyk_PortsetLookupFabricClassName(ps, small, sizeof small), HYK_OK);
   EXPECT_STREQ(small, "csw");   // bounded and terminated
   EXPECT_EQ(hyk_PortsetLookupFabricClassName(bare, name, sizeof name), HYK_NOT_FOUND);
   EXPECT_EQ(hyk_PortsetLookupFabricClassName(ps, name, 0), HYK_BAD_PARAM);
   hyk_PortsetRelease(&ps);
   hyk_PortsetRelease(&bare);
}

TEST_F(PortsetTest, LookupsOnAReleasedHandleAreRefused) {
   MakePortset("ps0", 0);
   hyk_Portset *ps = nullptr;
   ASSERT_EQ(hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, &ps), HYK_OK);
   hyk_Portset *stale = ps;
   hyk_PortsetRelease(&ps);
   uint32_t version = 0;
   char name[16];
   EXPECT_EQ(hyk_PortsetLookupFabricVersion(stale, &version), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_PortsetLookupFabricClassName(stale, name, sizeof name), HYK_BAD_PARAM);
   Walk w;
   EXPECT_EQ(hyk_PortsetForAllPorts(stale, Visit, &w), HYK_BAD_PARAM);
}

hyk_Status CountPost(hyk_Portset *, const char *, void *, uint32_t, void *cbData) {
   ++*static_cast<int *>(cbData);
   return HYK_OK;
}

// An upgrading module holds its own spinlock from acquire to release, across
// port walks, switch events and the class swap: none of these sleep.
TEST_F(PortsetTest, WalkPostAndHotSwapMayRunUnderTheCallersSpinlock) {
   hyk_ModuleID vsw = LoadModule("vswitch-2", {{"switchClass", "etherswitch"}});
   auto ports = MakePortset("ps0", 3);
   int posts = 0;
   hyk_NetEventHandle h = 0;
   ASSERT_EQ(hyk_NetEventPortsetEventSubscribe(0, "sw.activate", CountPost, &posts, &h), HYK_OK);
   hyk_LockDomainID domain = HYK_INVALID_LOCK_DOMAIN;
   ASSERT_EQ(hyk_LockDomainCreate("dom", HYK_INVALID_MODULE_ID, 0, &domain), HYK_OK);
   hyk_SpinlockID lock = HYK_INVALID_LOCK;
   ASSERT_EQ(hyk_SpinlockCreate("lk", domain, 1, &lock), HYK_OK);
   Walk w;
   ASSERT_EQ(hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, &w.ps), HYK_OK);
   hyk_SpinlockLock(lock);
   EXPECT_EQ(hyk_PortsetForAllPorts(w.ps, Visit, &w), HYK_OK);
   EXPECT_EQ(hyk_NetEventPortsetEventPost(0, "sw.activate", w.ps, nullptr, 0), HYK_OK);
   EXPECT_EQ(hyk_PortsetClassHotSwap(w.ps, "etherswitch", vsw), HYK_OK);
   hyk_SpinlockUnlock(lock);
   hyk_PortsetRelease(&w.ps);
   EXPECT_EQ(w.visited, ports);
   EXPECT_EQ(posts, 1);
   EXPECT_EQ(hyk_SpinlockDestroy(lock), HYK_OK);
   EXPECT_EQ(hyk_LockDomainDestroy(domain), HYK_OK);
}

// ---- class hot swap ----

class HotSwapTest : public FabricTest {
  protected:
   void SetUp() override {
      FabricTest::SetUp();
      hyksim::PortsetSpec desc;
      desc.className = "etherswitch";
      MakePortset("ps0", 2, desc);
      ASSERT_EQ(hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, &ps_), HYK_OK);
   }
   void TearDown() override {
      if (ps_ != nullptr) {
         hyk_PortsetRelease(&ps_);
      }
      FabricTest::TearDown();
   }
   hyk_Portset *ps_ = nullptr;
};

TEST_F(HotSwapTest, SwapsToAClassTheModuleProvidesAndKeepsThePorts) {
   hyk_ModuleID vsw = LoadModule("vswitch-2", {{"switchClass", "etherswitch, cswitch"}});
   auto before = hyksim::FindPortset("ps0")->ports;
   EXPECT_EQ(hyk_PortsetClassHotSwap(ps_, "cswitch", vsw), HYK_OK);
   auto view = hyksim::FindPortset("ps0");
   EXPECT_EQ(view->className, "cswitch");
   EXPECT_EQ(view->classModule, vsw);
   EXPECT_EQ(view->ports, before);
   EXPECT_TRUE(hyksim::LogContains("hot-swapped to class cswitch of module vswitch-2"));
}

TEST_F(HotSwapTest, RefusesAModuleThatDoesNotProvideTheClass) {
   hyk_ModuleID vsw = LoadModule("vswitch-2", {{"switchClass", "cswitchy"}});
   hyk_ModuleID plain = LoadModule("plain");
   EXPECT_EQ(hyk_PortsetClassHotSwap(ps_, "cswitch", vsw), HYK_NOT_SUPPORTED);
   EXPECT_EQ(hyk_PortsetClassHotSwap(ps_, "etherswitch", plain), HYK_NOT_SUPPORTED);
   EXPECT_EQ(hyksim::FindPortset("ps0")->className, "etherswitch");
   EXPECT_EQ(hyksim::FindPortset("ps0")->classModule, HYK_INVALID_MODULE_ID);
}

TEST_F(HotSwapTest, RefusesAModuleThatIsNotLoaded) {
   hyk_ModuleID gone = LoadModule("vswitch-2", {{"switchClass", "etherswitch"}});
   ASSERT_EQ(hyksim::UnloadModule(gone), HYK_OK);
   EXPECT_EQ(hyk_PortsetClassHotSwap(ps_, "etherswitch", gone), HYK_MODULE_NOT_LOADED);
   EXPECT_EQ(hyk_PortsetClassHotSwap(ps_, "etherswitch", HYK_INVALID_MODULE_ID), HYK_MODULE_NOT_LOADED);
   EXPECT_EQ(hyk_PortsetClassHotSwap(ps_, nullptr, gone), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_PortsetClassHotSwap(ps_, "", gone), HYK_BAD_PARAM);
}

TEST_F(HotSwapTest, PortsetFallsToNulldevWhenItsClassModuleIsUnloaded) {
   hyk_ModuleID vsw = LoadModule("vswitch-1", {{"switchClass", "etherswitch"}});
   hyk_ModuleID stub = LoadModule("stub-1", {{"switchClass", "stub-vswitch"}});
   ASSERT_EQ(hyk_PortsetClassHotSwap(ps_, "etherswitch", vsw), HYK_OK);
   hyk_PortsetRelease(&ps_);
   ASSERT_EQ(hyksim::UnloadModule("vswitch-1"), HYK_OK);
   auto view = hyksim::FindPortset("ps0");
   EXPECT_EQ(view->className, "nulldev");
   EXPECT_EQ(view->classModule, HYK_INVALID_MODULE_ID);
   EXPECT_EQ(view->ports.size(), 2u);
   EXPECT_TRUE(hyksim::LogContains("went away with module vswitch-1"));
   // The stub switch can take over a portset left on nulldev.
   ASSERT_EQ(hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, &ps_), HYK_OK);
   char name[HYK_CLASS_NAME_LEN];
   ASSERT_EQ(hyk_PortsetLookupFabricClassName(ps_, name, sizeof name), HYK_OK);
   EXPECT_STREQ(name, "nulldev");
   EXPECT_EQ(hyk_PortsetClassHotSwap(ps_, "stub-vswitch", stub), HYK_OK);
   EXPECT_EQ(hyksim::FindPortset("ps0")->className, "stub-vswitch");
}

TEST_F(HotSwapTest, UnloadingAnotherModuleLeavesTheClassAlone) {
   hyk_ModuleID vsw = LoadModule("vswitch-1", {{"switchClass", "etherswitch"}});
   LoadModule("bystander");
   ASSERT_EQ(hyk_PortsetClassHotSwap(ps_, "etherswitch", vsw), HYK_OK);
   ASSERT_EQ(hyksim::UnloadModule("bystander"), HYK_OK);
   EXPECT_EQ(hyksim::FindPortset("ps0")->className, "etherswitch");
   EXPECT_EQ(hyksim::FindPortset("ps0")->classModule, vsw);
}

TEST_F(HotSwapTest, InjectedFaultLeavesTheClassUnchanged) {
   hyk_ModuleID vsw = LoadModule("vswitch-2", {{"switchClass", "cswitch"}});
   hyksim::FaultSpec f;
   f.op = "hyk_PortsetClassHotSwap";
   f.status = HYK_NO_RESOURCES;
   f.nth = 1;
   hyksim::InjectFault(f);
   EXPECT_EQ(hyk_PortsetClassHotSwap(ps_, "cswitch", vsw), HYK_NO_RESOURCES);
   EXPECT_EQ(hyksim::FindPortset("ps0")->className, "etherswitch");
   EXPECT_EQ(hyk_PortsetClassHotSwap(ps_, "cswitch", vsw), HYK_OK);
}

// ---- upgrade-property namespaces ----

hyk_Name Ns(const char *s) {
   hyk_Name n{};
   std::strncpy(n.string, s, sizeof n.string - 1);
   return n;
}

TEST_F(PortsetTest, UpgradeNamespacesRegisterUnregisterClearAndSet) {
   MakePortset("ps0", 0);
   hyk_Portset *ps = nullptr;
   ASSERT_EQ(hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, &ps), HYK_OK);
   hyk_Name from = Ns("tarnUpgradeFromBuild"), to = Ns("tarnUpgradeToBuild");
   EXPECT_EQ(hyk_PortsetFabricPropUpgradeRegister(ps, &from, 7), HYK_OK);
   EXPECT_EQ(hyk_PortsetFabricPropUpgradeRegister(ps, &from, 8), HYK_OK);
   EXPECT_EQ(hyk_PortsetFabricPropUpgradeRegister(ps, &from, 7), HYK_EXISTS);
   EXPECT_EQ(hyk_PortsetFabricPropUpgradeRegister(ps, &to, 9), HYK_OK);
   auto view = hyksim::FindPortset("ps0");
   EXPECT_EQ(view->upgradeNamespaces["tarnUpgradeFromBuild"], (std::vector<hyk_ModuleID>{7, 8}));
   EXPECT_EQ(view->upgradeNamespaces["tarnUpgradeToBuild"], (std::vector<hyk_ModuleID>{9}));

   EXPECT_EQ(hyk_PortsetFabricPropUpgradeClear(ps, &from), HYK_OK);
   EXPECT_EQ(hyk_PortsetFabricPropUpgradeSet(ps, &to), HYK_OK);
   view = hyksim::FindPortset("ps0");
   EXPECT_EQ(view->upgradeProperties["tarnUpgradeFromBuild"], "cleared");
   EXPECT_EQ(view->upgradeProperties["tarnUpgradeToBuild"], "set");

   EXPECT_EQ(hyk_PortsetFabricPropUpgradeUnregister(ps, &from, 7), HYK_OK);
   EXPECT_EQ(hyk_PortsetFabricPropUpgradeUnregister(ps, &from, 7), HYK_NOT_FOUND);
   EXPECT_EQ(hyk_PortsetFabricPropUpgradeUnregister(ps, &to, 7), HYK_NOT_FOUND);
   hyk_Name unknown = Ns("other");
   EXPECT_EQ(hyk_PortsetFabricPropUpgradeUnregister(ps, &unknown, 8), HYK_NOT_FOUND);
   EXPECT_EQ(hyksim::FindPortset("ps0")->upgradeNamespaces["tarnUpgradeFromBuild"],
             (std::vector<hyk_ModuleID>{8}));
   hyk_PortsetRelease(&ps);
}

TEST_F(PortsetTest, UpgradeNamespacesRefuseBadArguments) {
   MakePortset("ps0", 0);
   hyk_Portset *ps = nullptr;
   ASSERT_EQ(hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, &ps), HYK_OK);
   hyk_Name ns = Ns("tarnUpgradeFromBuild");
   hyk_Name unterminated;
   std::memset(unterminated.string, 'x', sizeof unterminated.string);
   EXPECT_EQ(hyk_PortsetFabricPropUpgradeRegister(ps, nullptr, 7), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_PortsetFabricPropUpgradeRegister(ps, &unterminated, 7), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_PortsetFabricPropUpgradeRegister(ps, &ns, HYK_INVALID_MODULE_ID), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_PortsetFabricPropUpgradeClear(ps, nullptr), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_PortsetFabricPropUpgradeSet(nullptr, &ns), HYK_BAD_PARAM);
   EXPECT_TRUE(hyksim::FindPortset("ps0")->upgradeNamespaces.empty());
   EXPECT_TRUE(hyksim::FindPortset("ps0")->upgradeProperties.empty());
   hyk_PortsetRelease(&ps);
}

// ---- fast datapath ----

TEST_F(PortsetTest, FdpSwitchCommandRecordsEachRecordOnAFastDatapathPortset) {
   hyksim::PortsetSpec desc;
   desc.fastDatapath = true;
   MakePortset("fdp", 0, desc);
   MakePortset("slow", 0);
   uint8_t record[152];
   for (size_t i = 0; i < sizeof record; i++) {
      record[i] = static_cast<uint8_t>(i);
   }
   EXPECT_EQ(hyk_FdpSwitchCommand("fdp", 0xFFF, record, sizeof record, nullptr, nullptr), HYK_OK);
   uint32_t replyLen = 99;
   uint8_t reply[8];
   EXPECT_EQ(hyk_FdpSwitchCommand("fdp", 0x1, record, 4, reply, &replyLen), HYK_OK);
   EXPECT_EQ(replyLen, 0u);
   auto view = hyksim::FindPortset("fdp");
   ASSERT_EQ(view->fdpCommands.size(), 2u);
   EXPECT_EQ(view->fdpCommands[0], std::vector<uint8_t>(record, record + sizeof record));
   EXPECT_EQ(view->fdpCommands[1], std::vector<uint8_t>(record, record + 4));
   EXPECT_EQ(view->fdpCommandClasses, (std::vector<uint32_t>{0xFFF, 0x1}));

   EXPECT_EQ(hyk_FdpSwitchCommand("slow", 0xFFF, record, sizeof record, nullptr, nullptr), HYK_NOT_SUPPORTED);
   EXPECT_EQ(hyk_FdpSwitchCommand("nope", 0xFFF, record, sizeof record, nullptr, nullptr), HYK_NOT_FOUND);
   EXPECT_EQ(hyk_FdpSwitchCommand(nullptr, 0xFFF, record, sizeof record, nullptr, nullptr), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_FdpSwitchCommand("fdp", 0xFFF, nullptr, 8, nullptr, nullptr), HYK_BAD_PARAM);
   EXPECT_TRUE(hyksim::FindPortset("slow")->fdpCommands.empty());
}

// ---- topology control and faults ----

TEST_F(PortsetTest, TopologyControlRefusesDuplicatesAndBusyRemoval) {
   auto ports = MakePortset("ps0", 2);
   hyksim::PortsetSpec again;
   again.name = "ps0";
   EXPECT_EQ(hyksim::AddPortset(again), HYK_EXISTS);
   again.name = "";
   EXPECT_EQ(hyksim::AddPortset(again), HYK_BAD_PARAM);
   hyksim::PortsetSpec owned;
   owned.name = "owned";
   owned.classModule = "no-such-module";
   EXPECT_EQ(hyksim::AddPortset(owned), HYK_MODULE_NOT_LOADED);
   hyk_PortID id = 0;
   EXPECT_EQ(hyksim::AddPort("nope", hyksim::PortSpec{}, &id), HYK_NOT_FOUND);
   hyk_Portset *ps = nullptr;
   ASSERT_EQ(hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_READ, &ps), HYK_OK);
   EXPECT_EQ(hyksim::RemovePortset("ps0"), HYK_BUSY);
   hyk_PortsetRelease(&ps);
   EXPECT_EQ(hyksim::RemovePortset("ps0"), HYK_OK);
   EXPECT_EQ(hyksim::RemovePortset("ps0"), HYK_NOT_FOUND);
   EXPECT_FALSE(hyksim::FindPort(ports[0]).has_value());
   EXPECT_TRUE(hyksim::Portsets().empty());
}

TEST_F(PortsetTest, ClassModuleOfATopologyPortsetIsResolvedByName) {
   hyk_ModuleID vsw = LoadModule("vswitch-1", {{"switchClass", "etherswitch"}});
   hyksim::PortsetSpec desc;
   desc.classModule = "vswitch-1";
   MakePortset("ps0", 0, desc);
   EXPECT_EQ(hyksim::FindPortset("ps0")->classModule, vsw);
   EXPECT_EQ(hyksim::FindPortset("ps0")->fabricVersion, 107u);
}

TEST_F(PortsetTest, InjectedAcquireFaultHoldsNothing) {
   auto ports = MakePortset("ps0", 1);
   for (const char *op : {"hyk_PortsetAcquireByName", "hyk_PortsetAcquireByPortID"}) {
      hyksim::FaultSpec f;
      f.op = op;
      f.status = HYK_BUSY;
      f.nth = 1;
      hyksim::InjectFault(f);
   }
   hyk_Portset *ps = nullptr;
   EXPECT_EQ(hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, &ps), HYK_BUSY);
   EXPECT_EQ(hyk_PortsetAcquireByPortID(ports[0], HYK_PORTSET_ACCESS_EXCL, &ps), HYK_BUSY);
   EXPECT_EQ(ps, nullptr);
   EXPECT_EQ(hyksim::FindPortset("ps0")->acquireCount, 0u);
   EXPECT_EQ(hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, &ps), HYK_OK);
   hyk_PortsetRelease(&ps);
}

TEST_F(PortsetTest, InjectedFaultsOfTheOtherPortsetOperations) {
   hyksim::PortsetSpec desc;
   desc.fastDatapath = true;
   MakePortset("ps0", 1, desc);
   hyk_Portset *ps = nullptr;
   ASSERT_EQ(hyk_PortsetAcquireByName("ps0", HYK_PORTSET_ACCESS_EXCL, &ps), HYK_OK);
   const char *ops[] = {"hyk_PortsetForAllPorts", "hyk_PortsetLookupFabricVersion",
                        "hyk_PortsetLookupFabricClassName", "hyk_PortsetFabricPropUpgradeRegister",
                        "hyk_PortsetFabricPropUpgradeUnregister", "hyk_PortsetFabricPropUpgradeClear",
                        "hyk_PortsetFabricPropUpgradeSet", "hyk_FdpSwitchCommand"};
   for (const char *op : ops) {
      hyksim::FaultSpec f;
      f.op = op;
      f.status = HYK_NO_MEMORY;
      f.every = true;
      hyksim::InjectFault(f);
   }
   Walk w;
   uint32_t version = 0;
   char name[32];
   hyk_Name ns = Ns("tarnUpgradeToBuild");
   uint8_t record[4] = {};
   EXPECT_EQ(hyk_PortsetForAllPorts(ps, Visit, &w), HYK_NO_MEMORY);
   EXPECT_TRUE(w.visited.empty());
   EXPECT_EQ(hyk_PortsetLookupFabricVersion(ps, &version), HYK_NO_MEMORY);
   EXPECT_EQ(hyk_PortsetLookupFabricClassName(ps, name, sizeof name), HYK_NO_MEMORY);
   EXPECT_EQ(hyk_PortsetFabricPropUpgradeRegister(ps, &ns, 3), HYK_NO_MEMORY);
   EXPECT_EQ(hyk_PortsetFabricPropUpgradeUnregister(ps, &ns, 3), HYK_NO_MEMORY);
   EXPECT_EQ(hyk_PortsetFabricPropUpgradeClear(ps, &ns), HYK_NO_MEMORY);
   EXPECT_EQ(hyk_PortsetFabricPropUpgradeSet(ps, &ns), HYK_NO_MEMORY);
   EXPECT_EQ(hyk_FdpSwitchCommand("ps0", 0xFFF, record, sizeof record, nullptr, nullptr), HYK_NO_MEMORY);
   auto view = hyksim::FindPortset("ps0");
   EXPECT_TRUE(view->upgradeNamespaces.empty());
   EXPECT_TRUE(view->upgradeProperties.empty());
   EXPECT_TRUE(view->fdpCommands.empty());
   hyk_PortsetRelease(&ps);
}

TEST_F(PortsetTest, HostResetDropsTheTopology) {
   MakePortset("ps0", 3);
   hyksim::HostStart();
   EXPECT_TRUE(hyksim::Portsets().empty());
   EXPECT_TRUE(hyksim::Ports().empty());
   auto ports = MakePortset("ps0", 1);
   EXPECT_EQ(ports[0], 1u);   // IDs start over with the new host
}

}  // namespace
