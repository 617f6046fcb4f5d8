// The fault sweep: every fallible host call of an upgrade, failed in turn.
//
// Each scenario (the classic upgrade and the per-portset upgrade, both
// driven through the device "lus" with the upgrade tool's library) runs once
// without a fault; the host's call trace of that run numbers its fallible
// calls 1..N.  Then, for every k in 1..N, the scenario runs again in a fresh
// host with exactly the k-th call failing: the fault names the call's
// operation and its occurrence among the calls of that operation, which is
// how hyksim::InjectFault counts.  One gtest case per k
// (FaultSweep<Scenario>.Call<k>_<op>), registered at run time from the first
// pass; case Call0_NoFault checks the first pass itself.
//
// The scenario does not stop at a failed step: a fault may make any command
// fail, and the rest of the upgrade still runs, as an administrator's tool
// would carry on or retry.  What must hold whatever one call fails is in
// CheckInvariants.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "hyksim/fabric.h"
#include "hyksim/host.h"
#include "lus.h"
#include "lus_test_client.h"
#include "lus_test_support.h"
#include "lusctl.h"

namespace {

constexpr uint32_t kFromBuild = 1000;
constexpr uint32_t kToBuild = 2000;
constexpr uint64_t kSecond = 1000000;
// The status every injected failure carries: one the module never makes up
// itself in these scenarios, so a log line naming it names the fault when a
// failing case is read.
constexpr hyk_Status kInjected = HYK_NO_RESOURCES;
// A run that takes longer than this is a hang (a command that never returns).
constexpr auto kRunLimit = std::chrono::seconds(120);
// The fabric port property that makes a vNIC port one the block command holds.
constexpr const char *kExternalID = "com.corvid.port.extraConfig.vnic.external.id";
constexpr const char *kUnblockEventLeft =
    "hyk: module lus left network event com.corvid.tarn.kcp.port.unblock registered; dropped";

// The call to fail: the nth call of op.
struct Target {
   size_t k = 0;        // 1-based position in the first pass's trace; 0 = no fault
   std::string op;
   uint64_t nth = 0;
};

Target TargetAt(const std::vector<std::string> &trace, size_t k) {
   Target t;
   t.k = k;
   t.op = trace[k - 1];
   t.nth = static_cast<uint64_t>(std::count(trace.begin(), trace.begin() + k, t.op));
   return t;
}

// Aborts the process, naming the run, when it does not finish in time: a
// command that never returns must fail the sweep, not hang ctest.
class Watchdog {
  public:
   explicit Watchdog(std::string what) : what_(std::move(what)) {
      thread_ = std::thread([this] {
         std::unique_lock<std::mutex> lk(mu_);
         if (!cv_.wait_for(lk, kRunLimit, [this] { return done_; })) {
            fprintf(stderr, "fault sweep: %s did not finish within %lld s\n", what_.c_str(),
                    static_cast<long long>(kRunLimit.count()));
            std::abort();
         }
      });
   }
   ~Watchdog() {
      {
         std::lock_guard<std::mutex> lk(mu_);
         done_ = true;
      }
      cv_.notify_all();
      thread_.join();
   }

  private:
   std::string what_;
   std::mutex mu_;
   std::condition_variable cv_;
   bool done_ = false;
   std::thread thread_;
};

// One run of a scenario in a fresh host, with the tolerant steps both
// scenarios share.  Every step's status is recorded as "step: status" so that
// a failing case shows how far the upgrade got.
class ScenarioRun {
  public:
   explicit ScenarioRun(const Target &fault) : fault_(fault) {
      hyksim::HostStart();
      hyksim::TraceEnable(true);
      if (fault_.k != 0) {
         hyksim::InjectFault({.op = fault_.op, .status = kInjected, .nth = fault_.nth});
      }
      before_ = lustest::Snapshot();
      eventsBefore_ = hyksim::RegisteredEvents();
   }
   ~ScenarioRun() {
      tool_.reset();
      proc_.reset();
      hyksim::HostStop();
      clients_.clear();
   }

   void Step(const std::string &what, hyk_Status s) { steps_.emplace_back(what, s); }
   const std::vector<std::pair<std::string, hyk_Status>> &steps() const { return steps_; }
   std::string Steps() const {
      std::string out;
      for (const auto &[what, s] : steps_) out += "  " + what + ": " + hyk_StatusToString(s) + "\n";
      return out;
   }

   void LoadLus(int level) {
      Step("load lus", lustest::LoadLus({"fromBuild=" + std::to_string(kFromBuild),
                                        "lusLogLevel=" + std::to_string(level)},
                                       &lusID_));
   }

   // A test client of `name` and `build`; `edit` adjusts its configuration.
   lustest::TestClient *Client(const std::string &name, uint32_t build,
                               const std::function<void(lustest::TestClientConfig &)> &edit) {
      lustest::TestClientConfig cfg;
      cfg.clientName = name;
      cfg.moduleName = name + (build == kFromBuild ? "_old" : "_new");
      cfg.buildNumber = build;
      edit(cfg);
      clients_.push_back(std::make_unique<lustest::TestClient>(cfg));
      Step("load " + cfg.moduleName, clients_.back()->Load());
      return clients_.back().get();
   }

   // The upgrade tool: a user process with the device open.
   lusctl::Client &Tool() {
      if (!tool_) {
         proc_ = std::make_unique<hyksim::UserProcess>("lusctl");
         tool_ = std::make_unique<lusctl::Client>(*proc_);
         Step("open device", tool_->openStatus());
      }
      return *tool_;
   }
   void CloseTool() {
      tool_.reset();
      proc_.reset();
   }

   // Unloads whatever the scenario loaded: the clients that can go first,
   // then lus, then the rest.  Records lus's unload status.
   void UnloadAll(const std::vector<std::string> &others = {}) {
      CloseTool();
      for (auto &c : clients_) {
         if (c->loaded()) c->Unload();
      }
      lusUnload_ = hyksim::FindModule("lus") ? lustest::UnloadLus() : static_cast<hyk_Status>(HYK_OK);
      Step("unload lus", lusUnload_);
      for (auto &c : clients_) {
         if (c->loaded()) Step("late unload " + c->config().moduleName, c->Unload());
      }
      for (const auto &m : others) {
         if (hyksim::FindModule(m)) Step("unload " + m, hyksim::UnloadModule(m));
      }
   }

   // What must hold whatever one host call failed.
   //
   // One exception, by the nature of the failed call: when it is a release
   // (a destroy, an unregistration, an unsubscription, a use-count decrement)
   // the host refused to release that one object, and nothing the module can
   // do releases it.  So the one object stays: the host reports it at unload
   // ("module lus left ...") and drops it, or, for a use count, the module
   // that holds it cannot be unloaded (when that module is lus itself,
   // everything it owns stays with it until the host stops).  At most one
   // such leftover is accepted, and only for that run; every other oracle
   // still holds.
   void CheckInvariants() {
      const bool release = IsRelease(fault_.op);
      const bool useCount = fault_.op == "hyk_ModuleDecUseCount";
      // lus is gone: its unload succeeded (or it never loaded), and so did
      // the unload of every client, i.e. lus released every use count it
      // took on a client module.
      size_t pinned = 0;
      const bool lusPinned = useCount && lusUnload_ == HYK_BUSY;
      pinned += lusPinned;
      if (!lusPinned) {
         EXPECT_EQ(lusUnload_, HYK_OK) << "lus did not unload";
         EXPECT_FALSE(hyksim::FindModule("lus").has_value());
      }
      for (auto &c : clients_) {
         // lus pinned holds its clients' use counts in turn: not counted.
         if (c->loaded() && !lusPinned) pinned++;
         if (!useCount && !lusPinned) {
            EXPECT_FALSE(c->loaded()) << c->config().moduleName << " still loaded (use count held)";
         }
      }
      EXPECT_LE(pinned, useCount ? 1u : 0u) << "modules left pinned by a use count";
      if (lusPinned) return;
      // A client pinned by the failed decrement keeps its own subscription.
      const bool clientPinned = useCount && pinned != 0;
      // No host object of lus remains: the host's own records of heaps,
      // devices and subscriptions name no owner that is lus, and the counts
      // of every kind of object are back where they were before any module
      // loaded.
      if (lusID_ != HYK_INVALID_MODULE_ID) {
         for (const auto &h : hyksim::Heaps()) {
            EXPECT_NE(h.owner, lusID_) << "heap " << h.name << " of lus remains";
         }
         for (const auto &d : hyksim::CharDevs()) {
            EXPECT_NE(d.owner, lusID_) << "device " << d.name << " of lus remains";
         }
         for (const auto &s : hyksim::Subscriptions()) {
            EXPECT_NE(s.module, lusID_) << "subscription to " << s.event << " of lus remains";
         }
      }
      lustest::HostSnapshot after = lustest::Snapshot();
      EXPECT_EQ(after.heaps, before_.heaps);
      EXPECT_EQ(after.logComponents, before_.logComponents);
      EXPECT_EQ(after.timerQueues, before_.timerQueues);
      EXPECT_EQ(after.pendingTimers, before_.pendingTimers);
      EXPECT_EQ(after.lockDomains, before_.lockDomains);
      EXPECT_EQ(after.spinlocks, before_.spinlocks);
      EXPECT_EQ(after.charDevs, before_.charDevs);
      EXPECT_EQ(after.subscriptions, before_.subscriptions + (clientPinned ? 1u : 0u));
      EXPECT_EQ(hyksim::RegisteredEvents(), eventsBefore_);
      EXPECT_EQ(hyksim::Counts().worlds, 0u);
      // The counts above are clean even when lus leaked, because the host
      // drops what an unloaded module left; its report of the leftovers is
      // the real oracle: no "left ..." line, no "stays mapped" line and no
      // heap leak report for lus.
      size_t left = 0;
      for (const auto &l : hyksim::LogLines()) {
         if (l.component != "hyk" && !l.component.empty()) continue;
         // Known and pinned by a unit test
         // (ModuleLoadTest.FromBuildModuleSkipsEventUnregistrationAtUnload):
         // lus loaded with fromBuild does not withdraw the port-unblock event
         // it registered at the first from-build registration, so the host
         // drops it at unload, in the faultless upgrade too.  Reported to be
         // decided; every other leftover fails.
         if (l.text == kUnblockEventLeft) continue;
         if (l.text.find("module lus left") != std::string::npos) {
            left++;
            EXPECT_TRUE(release && left == 1) << l.text;
         }
         EXPECT_EQ(l.text.find("stays mapped"), std::string::npos) << l.text;
         EXPECT_EQ(l.text.find("PANIC"), std::string::npos) << l.text;
      }
      for (const auto &r : hyksim::LeakReports()) {
         EXPECT_NE(r.heap.rfind("lus", 0), 0u) << "heap " << r.heap << " destroyed with "
                                                << r.allocations << " live allocations";
      }
      // The fault really fired (the first pass's calls are the same calls).
      if (fault_.k != 0) {
         EXPECT_EQ(hyksim::InjectedFaultCount(), 1u) << "the targeted call was not made";
      }
   }

   static bool IsRelease(const std::string &op) {
      for (const char *suffix : {"Destroy", "Unregister", "Unsubscribe", "DecUseCount"}) {
         const std::string sfx = suffix;
         if (op.size() > sfx.size() && op.compare(op.size() - sfx.size(), sfx.size(), sfx) == 0) {
            return true;
         }
      }
      return false;
   }

   const Target &fault() const { return fault_; }

  private:
   Target fault_;
   lustest::HostSnapshot before_{};
   std::vector<std::string> eventsBefore_;
   std::vector<std::pair<std::string, hyk_Status>> steps_;
   std::vector<std::unique_ptr<lustest::TestClient>> clients_;
   std::unique_ptr<hyksim::UserProcess> proc_;
   std::unique_ptr<lusctl::Client> tool_;
   hyk_ModuleID lusID_ = HYK_INVALID_MODULE_ID;
   hyk_Status lusUnload_ = HYK_FAILURE;
};

std::vector<lusctl::PortsetArg> Names(const std::vector<std::string> &names) {
   std::vector<lusctl::PortsetArg> out;
   for (const auto &n : names) out.push_back({n, 0, 0});
   return out;
}

// ---- scenario 1: the classic upgrade ------------------------------------------------
//
// Two portsets of three vNIC ports (blockable: each has an external ID), two
// client pairs.  Load lus with fromBuild, load the new clients (dual load),
// command 1, command 6, command 4, unload the old clients, command 1 again,
// the port-unblock event for every port, then past the 120 s clear timer,
// unload everything.
void ClassicScenario(ScenarioRun &run) {
   const std::vector<std::string> portsets = {"ps0", "ps1"};
   std::vector<std::pair<std::string, hyk_PortID>> ports;
   for (size_t p = 0; p < portsets.size(); p++) {
      ASSERT_EQ(hyksim::AddPortset({.name = portsets[p]}), HYK_OK);
      for (size_t i = 0; i < 3; i++) {
         hyk_PortID id = 0;
         ASSERT_EQ(hyksim::AddPort(portsets[p],
                                   {.vmUUID = "vm-" + std::to_string(p * 10 + i),
                                    .properties = {{kExternalID, "ext"}}},
                                   &id),
                   HYK_OK);
         ports.emplace_back(portsets[p], id);
      }
   }
   auto sizes = [](lustest::TestClientConfig &c) {
      c.sizeForPort = [](uint32_t port) { return 16u + (port % 3u) * 8u; };
   };
   auto keepsLittle = [](lustest::TestClientConfig &c) {
      c.sizeForPort = [](uint32_t port) { return port % 2u == 0 ? 0u : 40u; };
   };
   lustest::TestClient *vswOld = run.Client("vswitch", kFromBuild, sizes);
   lustest::TestClient *fwOld = run.Client("firewall", kFromBuild, keepsLittle);
   hyksim::AdvanceClock(kSecond - hyksim::NowUS() % kSecond);

   run.LoadLus(3);
   run.Client("vswitch", kToBuild, sizes);
   run.Client("firewall", kToBuild, keepsLittle);
   lusctl::Client &tool = run.Tool();
   run.Step("command 1", tool.Register(LUS_REG_TO, Names(portsets)));
   run.Step("command 6", tool.BlockPorts(Names(portsets), 120));
   run.Step("command 4", tool.PreUnload(Names(portsets)));
   run.Step("unload vswitch_old", vswOld->Unload());
   run.Step("unload firewall_old", fwOld->Unload());
   run.Step("command 1 again", tool.Register(LUS_REG_TO, Names(portsets)));
   hyksim::AdvanceClock(2 * kSecond);
   for (const auto &[ps, port] : ports) {
      uint32_t id = port;
      run.Step("unblock " + std::to_string(port),
               hyksim::PostPortsetEvent(ps, "com.corvid.tarn.kcp.port.unblock", &id, sizeof id));
   }
   // Past the clear timer: whatever a failed restore left is cleared now.
   hyksim::AdvanceClock(121 * kSecond);
   run.UnloadAll();
}

// ---- scenario 2: the per-portset upgrade ---------------------------------------------
//
// A cswitch portset and an etherswitch portset of two ports each, one client
// pair keeping portset state and global configuration, old, new and stub
// switch modules.  Commands 2, 7 (then the new build is loaded), 3, 8, 9 on
// each portset, 12; unload lus (its clearing unregisters every client), then
// the rest.
void PsUpgradeScenario(ScenarioRun &run) {
   auto switchModule = [&](const std::string &name, const std::string &classes) {
      hyksim::InProcessModule m;
      m.name = name;
      m.info = {{"switchClass", classes}};
      hyk_ModuleID id = HYK_INVALID_MODULE_ID;
      run.Step("load " + name, hyksim::LoadInProcessModule(m, &id));
      return id;
   };
   auto portset = [&](const std::string &name, const std::string &className, int firstVM) {
      ASSERT_EQ(hyksim::AddPortset({.name = name,
                                    .className = className,
                                    .classModule = "tarnq-vswitch-1000"}),
                HYK_OK);
      for (int i = 0; i < 2; i++) {
         hyk_PortID id = 0;
         ASSERT_EQ(hyksim::AddPort(name,
                                   {.vmUUID = "vm-" + std::to_string(firstVM + i),
                                    .properties = {{kExternalID, "ext"}}},
                                   &id),
                   HYK_OK);
      }
   };
   auto state = [](lustest::TestClientConfig &c) {
      c.psState = {0xf1, 0xf2, 0xf3};
      c.globalConfig = {0xc1, 0xc2};
      c.stateSize = 24;
   };
   hyk_ModuleID oldSwitch = switchModule("tarnq-vswitch-1000", "etherswitch,cswitch");
   portset("dvs-c", "cswitch", 0);
   portset("dvs-e", "etherswitch", 10);
   lustest::TestClient *fwOld = run.Client("fw", kFromBuild, state);

   run.LoadLus(3);
   lusctl::Client &tool = run.Tool();
   run.Step("command 2", tool.Register(LUS_REG_FROM_V1, {}));
   run.Step("command 7", tool.PreDualLoad());
   hyk_ModuleID newSwitch = switchModule("tarnq-vswitch-2000", "etherswitch,cswitch");
   switchModule("tarnq-stub-vswitch-2000", "stub-vswitch");
   lustest::TestClient *fwNew = run.Client("fw", kToBuild, state);
   run.Step("command 3", tool.Register(LUS_REG_TO_V1, {}));
   run.Step("command 8", tool.GlobalConfigSaveRestore());
   std::vector<lusctl::ModuleArg> modules = {
       {true, fwOld->id()}, {false, fwNew->id()}, {true, oldSwitch}, {false, newSwitch}};
   run.Step("command 9 dvs-c", tool.PsUpgrade("dvs-c", modules));
   run.Step("command 9 dvs-e", tool.PsUpgrade("dvs-e", modules));
   run.Step("command 12", tool.StateRestoreComplete());
   run.UnloadAll({"tarnq-vswitch-1000", "tarnq-vswitch-2000", "tarnq-stub-vswitch-2000"});
}

// ---- the sweep ----------------------------------------------------------------------

using ScenarioFn = void (*)(ScenarioRun &);

struct Scenario {
   const char *suite;
   ScenarioFn fn;
   std::vector<std::string> trace;   // the first pass's fallible host calls
   std::string steps;                // and its steps
};

// Runs the scenario without a fault and returns its trace.
std::vector<std::string> FirstPass(ScenarioFn fn, std::string *steps) {
   Watchdog dog("the first pass");
   ScenarioRun run(Target{});
   fn(run);
   *steps = run.Steps();
   return hyksim::Trace();
}

// The trace without hyk_WorldWaitForDeath: the command that runs the upgrade
// world waits for it in slices of 50 ms of real time, so how many waits it
// makes, and where they fall among the world's own calls, depend on the
// machine's load.  Every other call is made in the same order in every run.
// The fault names a call by its operation and occurrence, so a target is the
// same call whatever the waits do; a wait that a run does not make is caught
// by the check that the fault fired.
std::vector<std::string> WithoutWaits(std::vector<std::string> trace) {
   std::erase(trace, std::string("hyk_WorldWaitForDeath"));
   return trace;
}

class NoFaultCase : public ::testing::Test {
  public:
   explicit NoFaultCase(const Scenario *s) : s_(s) {}
   void TestBody() override {
      Watchdog dog(std::string(s_->suite) + " without a fault");
      ScenarioRun run(Target{});
      s_->fn(run);
      SCOPED_TRACE("steps:\n" + run.Steps());
      // Without a fault the whole upgrade succeeds ...
      EXPECT_FALSE(run.steps().empty());
      for (const auto &[what, status] : run.steps()) {
         EXPECT_EQ(status, HYK_OK) << what;
      }
      run.CheckInvariants();
      // ... and makes the very calls the sweep numbered, in the same order:
      // the k-th call is the same call in every run.
      EXPECT_EQ(WithoutWaits(hyksim::Trace()), WithoutWaits(s_->trace));
      EXPECT_EQ(run.Steps(), s_->steps);
   }

  private:
   const Scenario *s_;
};

class FaultCase : public ::testing::Test {
  public:
   FaultCase(const Scenario *s, Target t) : s_(s), t_(std::move(t)) {}
   void TestBody() override {
      const std::string name = std::string(s_->suite) + " failing call " + std::to_string(t_.k) +
                               " (" + t_.op + " #" + std::to_string(t_.nth) + ")";
      Watchdog dog(name);
      ScenarioRun run(t_);
      s_->fn(run);
      SCOPED_TRACE(name + "; steps:\n" + run.Steps());
      run.CheckInvariants();
   }

  private:
   const Scenario *s_;
   Target t_;
};

}  // namespace

int main(int argc, char **argv) {
   ::testing::InitGoogleTest(&argc, argv);
   static Scenario scenarios[] = {{"FaultSweepClassic", ClassicScenario, {}, {}},
                                  {"FaultSweepPsUpgrade", PsUpgradeScenario, {}, {}}};
   for (Scenario &s : scenarios) {
      s.trace = FirstPass(s.fn, &s.steps);
      ::testing::RegisterTest(s.suite, "Call0_NoFault", nullptr, nullptr, __FILE__, __LINE__,
                              [&s]() -> ::testing::Test * { return new NoFaultCase(&s); });
      for (size_t k = 1; k <= s.trace.size(); k++) {
         Target t = TargetAt(s.trace, k);
         std::string name = "Call" + std::to_string(k) + "_" + t.op;
         ::testing::RegisterTest(s.suite, name.c_str(), nullptr, nullptr, __FILE__, __LINE__,
                                 [&s, t]() -> ::testing::Test * { return new FaultCase(&s, t); });
      }
   }
   return RUN_ALL_TESTS();
}
