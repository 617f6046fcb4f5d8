// The two upgrade flows of lusctl: a whole classic upgrade of 200 ports with
// its three report files, and each flow's failure at each step, injected
// through the host, with the step named, the exit code and what the report
// says was left behind.
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>

#include "lusctl_fixture.h"

namespace lustest {
namespace {

using nlohmann::json;

std::string Slurp(const std::string &path) {
   std::ifstream f(path);
   std::stringstream ss;
   ss << f.rdbuf();
   return ss.str();
}

class LusctlFlowTest : public LusctlTest {
  protected:
   std::string Tmp(const std::string &name) {
      return fmt::format("{}/lusctl-test-{}-{}", ::testing::TempDir(), getpid(), name);
   }

   // Runs a flow with `fault` done by the host as step `step` begins.
   lusctl::FlowResult RunWithFault(const lusctl::FlowOptions &opts, int step,
                                   const std::function<void()> &fault) {
      return lusctl::RunFlow(env_, opts, [&](const lusctl::StepRecord &s, int, bool done) {
         if (!done && s.index == step) fault();
      });
   }

   static std::function<void()> Fail(const std::string &op, uint64_t nth = 1, bool every = false) {
      return [op, nth, every] {
         hyksim::FaultSpec f;
         f.op = op;
         f.nth = every ? 0 : nth;
         f.every = every;
         hyksim::InjectFault(f);
      };
   }
};

TEST_F(LusctlFlowTest, ClassicUpgradeOfTwoHundredPortsWritesAReportATraceAndAChart) {
   OldHost();
   const std::string report = Tmp("r.json"), trace = Tmp("t.json"), chart = Tmp("c.svg");
   CliRun r = Run({"upgrade", "classic", "--from-build", "1000", "--to-build", "2000", "--portset",
                   "ps0", "--portset", "ps1", "--module-param", "seed=7", "--report-json", report,
                   "--trace", trace, "--chart", chart});
   EXPECT_EQ(r.code, 0) << r.out << r.err;
   EXPECT_NE(r.out.find("lusctl: classic upgrade 1000 -> 2000 of ps0, ps1: completed (11 steps"),
             std::string::npos) << r.out;
   EXPECT_NE(r.out.find("ports:  200 upgraded, 200 pass traffic, 0 blocked"), std::string::npos);
   EXPECT_NE(r.out.find("0 mismatched, 0 refused, 0 dropped by lus"), std::string::npos);
   EXPECT_NE(r.out.find("left:   no port blocked, no state in lus's heaps, no client pinned"),
             std::string::npos);

   // The report parses back and says what happened to every port and byte.
   json j = json::parse(Slurp(report));
   EXPECT_TRUE(j["ok"].get<bool>());
   EXPECT_EQ(j["ports"].size(), 200u);
   EXPECT_EQ(j["steps"].size(), 11u);
   ASSERT_EQ(j["clients"].size(), 3u);
   for (const auto &c : j["clients"]) {
      EXPECT_GT(c["saved"]["bytes"].get<uint64_t>(), 0u) << c["client"];
      EXPECT_EQ(c["verified"]["bytes"], c["saved"]["bytes"]) << c["client"];
      EXPECT_EQ(c["converted"]["bytes"], c["saved"]["bytes"]) << c["client"];
   }
   EXPECT_TRUE(j["leftBehind"]["portsBlocked"].empty());

   // One complete track per port: one blocked interval on each.
   json t = json::parse(Slurp(trace));
   std::map<uint32_t, int> tracks;
   for (const auto &e : t["traceEvents"]) {
      if (e["ph"] == "X" && e["pid"] == 1) {
         tracks[e["tid"].get<uint32_t>()]++;
         EXPECT_EQ(e["name"], "blocked");
         EXPECT_TRUE(e.contains("ts") && e.contains("dur"));
      }
   }
   EXPECT_EQ(tracks.size(), 200u);
   for (const auto &[port, n] : tracks) EXPECT_EQ(n, 1) << port;

   // The chart is well-formed SVG and renders.
   const std::string png = Tmp("c.png");
   EXPECT_EQ(std::system(fmt::format("xmllint --noout '{}'", chart).c_str()), 0);
   EXPECT_EQ(std::system(fmt::format("rsvg-convert '{}' -o '{}'", chart, png).c_str()), 0);
   const std::string bytes = Slurp(png);
   ASSERT_GE(bytes.size(), 8u);
   EXPECT_EQ(bytes.substr(1, 3), "PNG");
   for (const auto &f : {report, trace, chart, png}) std::remove(f.c_str());
}

constexpr size_t kSome = SIZE_MAX;

struct ClassicFault {
   int step;
   std::string name;
   std::string fault;   // host operation failed as the step begins ("" = see below)
   hyk_Status status;
   size_t portsBlocked;
   bool oldBuildLoaded;
   bool rolledBack;   // failed before the point of no return: undone
};

// The classic flow stops at each of its steps in turn: the failing step is
// named with its status.  Before the point of no return (the old build's
// unload) the flow undoes what it did: no port blocked, nothing of the new
// build or lus loaded.  After it, the report's left-behind section says what
// the failure left (ports still blocked, modules still loaded).
TEST_F(LusctlFlowTest, ClassicFlowFailsAtEachStepAndSaysWhatItLeftBehind) {
   const std::vector<ClassicFault> faults = {
      {1, "load lus", "hyk_HeapCreate", HYK_FAILURE, 0, true, true},
      {2, "load new build", "hyk_HeapCreate", HYK_FAILURE, 0, true, true},
      {3, "open device", "unload lus", HYK_NOT_FOUND, 0, true, true},
      {4, "register", "hyk_NetEventPost", HYK_FAILURE, 0, true, true},
      {5, "block", "hyk_PortsetAcquireByName", HYK_FAILURE, 0, true, true},
      {6, "save", "hyk_PortsetAcquireByName", HYK_FAILURE, 0, true, true},
      // The first old module stays: nothing of the old build is gone yet.
      {7, "unload old build", "pin", HYK_BUSY, 0, true, true},
      {8, "register", "hyk_NetEventPost", HYK_FAILURE, 8, false, false},
      // Which of the two takeover threads fails is a race: some ports stay blocked.
      {9, "new datapath takes over", "hyk_PortsetForAllPorts", HYK_FAILURE, kSome, false, false},
      {10, "ports restored", "unblock", HYK_BUSY, 8, false, false},
   };
   for (const auto &f : faults) {
      SCOPED_TRACE(fmt::format("step {} {}", f.step, f.name));
      hyksim::HostStart();
      host_ = lusctl::MakeSimHost(LUS_MODULES_DIR);
      env_.host = host_.get();
      OldHost({{"ps0", 4}, {"ps1", 4}});
      lusctl::FlowOptions opts = Classic();
      std::function<void()> inject;
      int injectAt = f.step;
      if (f.fault == "unload lus") {
         inject = [] { hyksim::UnloadModule("lus"); };
      } else if (f.fault == "pin") {
         inject = [] { hyk_ModuleIncUseCount(hyksim::FindModule("tarnq-dfw-1000")->id); };
      } else if (f.fault == "unblock") {
         // Injected as the takeover begins: lus cannot unblock any port.
         inject = Fail("hyk_PortCustomUnblock", 0, true);
         injectAt = f.step - 1;
      } else {
         inject = Fail(f.fault);
      }
      lusctl::FlowResult res = RunWithFault(opts, injectAt, inject);
      hyksim::ClearFaults();
      ASSERT_FALSE(res.ok);
      EXPECT_EQ(res.failedStep, f.step);
      EXPECT_EQ(res.steps.back().name, f.name);
      EXPECT_EQ(res.steps.back().status, f.status);
      lusctl::Report rep = lusctl::BuildReport(env_, opts, res);
      if (f.portsBlocked == kSome) {
         EXPECT_GE(rep.left.portsBlocked.size(), 1u);
      } else {
         EXPECT_EQ(rep.left.portsBlocked.size(), f.portsBlocked);
      }
      const auto &loaded = rep.left.modulesLoaded;
      EXPECT_EQ(std::count(loaded.begin(), loaded.end(), "tarnq-dfw-1000"), f.oldBuildLoaded ? 1 : 0);
      EXPECT_EQ(res.rolledBack, f.rolledBack);
      EXPECT_EQ(res.pastPointOfNoReturn, !f.rolledBack);
      if (f.rolledBack) {
         // As the flow found the host: no lus, no module of the new build, no state.
         EXPECT_EQ(std::count(loaded.begin(), loaded.end(), "lus"), 0);
         EXPECT_EQ(std::count(loaded.begin(), loaded.end(), "tarnq-dfw-2000"), 0);
         EXPECT_EQ(rep.left.stateBytes, 0u);
         for (const auto &p : rep.ports) EXPECT_TRUE(p.passes) << p.name;
      }
      // The tool's device is closed whatever failed: nothing of it pins lus.
      for (const auto &d : hyksim::CharDevs()) EXPECT_EQ(d.openFiles, 0u);
   }
}

// Through the command line: the failing step named with the device command
// and its status text, exit code 1, and what was left behind.
TEST_F(LusctlFlowTest, FailingStepIsNamedWithItsCommandAndStatusAndExitsOne) {
   OldHost({{"ps0", 4}});
   // The block command's port walk is the first; the save's sizing walk, the second, fails.
   hyksim::FaultSpec f;
   f.op = "hyk_PortsetForAllPorts";
   f.nth = 2;
   hyksim::InjectFault(f);
   CliRun r = Run({"upgrade", "classic", "--from-build", "1000", "--to-build", "2000", "--portset", "ps0"});
   hyksim::ClearFaults();
   EXPECT_EQ(r.code, 1);
   EXPECT_NE(r.out.find("FAILED at step 6 'save': save (command 4) returned 0xbad0001 Failure"),
             std::string::npos) << r.out;
   // Before the point of no return: undone, and said so.
   EXPECT_NE(r.out.find("rolled back: the failure came before the point of no return (step 7 'unload old build')"),
             std::string::npos) << r.out;
   EXPECT_NE(r.out.find("ports:  0 upgraded (rolled back), 4 pass traffic on build 1000, 0 blocked"),
             std::string::npos) << r.out;
   EXPECT_NE(r.out.find("left:   no port blocked, no state in lus's heaps, no client pinned; loaded: "
                        "tarnq-vswitch-1000, tarnq-dfw-1000, tarnq-stats-1000\n"),
             std::string::npos) << r.out;
   EXPECT_NE(r.out.find("lus reported"), std::string::npos);
}

struct PortsetFault {
   std::string step;
   std::string fault;
};

// The per-portset flow stops at each of its steps in turn.
TEST_F(LusctlFlowTest, PortsetFlowFailsAtEachStepWithTheStepNamed) {
   const std::vector<PortsetFault> faults = {
      {"load lus", "hyk_HeapCreate"},
      {"open device", "unload lus"},
      {"register", "hyk_NetEventPost"},
      {"pre-dual-load", "client pre-dual-load"},
      {"load new build", "hyk_HeapCreate"},
      {"global-config", "client"},
      {"ps-upgrade ps0", "hyk_WorldCreate"},
      {"fdp ps0", "hyk_FdpSwitchCommand"},
      {"unload lus", "open"},
      {"unload old build", "pin"},
   };
   for (const auto &f : faults) {
      SCOPED_TRACE(f.step);
      hyksim::HostStart();
      host_ = lusctl::MakeSimHost(LUS_MODULES_DIR);
      env_.host = host_.get();
      std::vector<std::string> params;
      if (f.fault == "client") params = {"failSlot=6"};               // global configuration save
      if (f.fault == "client pre-dual-load") params = {"failSlot=5"};  // the pre-dual-load notice
      OldHost({{"ps0", 4}}, params, 0, true);
      lusctl::FlowOptions opts = Classic();
      opts.kind = lusctl::FlowOptions::kPortset;
      opts.portsets = {"ps0"};
      std::unique_ptr<hyksim::UserProcess> holder;
      std::unique_ptr<lusctl::Client> holderClient;
      int index = -1;
      lusctl::FlowResult res = lusctl::RunFlow(env_, opts, [&](const lusctl::StepRecord &s, int, bool done) {
         if (done || s.name != f.step || index != -1) return;
         index = s.index;
         if (f.fault == "open") {
            holder = std::make_unique<hyksim::UserProcess>("other");
            holderClient = std::make_unique<lusctl::Client>(*holder);
         } else if (f.fault == "pin") {
            hyk_ModuleIncUseCount(hyksim::FindModule("tarnq-dfw-1000")->id);
         } else if (f.fault == "unload lus") {
            hyksim::UnloadModule("lus");
         } else if (f.fault.rfind("client", 0) != 0) {
            Fail(f.fault)();
         }
      });
      hyksim::ClearFaults();
      ASSERT_FALSE(res.ok);
      EXPECT_EQ(res.failedStep, index);
      EXPECT_EQ(res.steps.back().name, f.step);
      EXPECT_NE(res.steps.back().status, static_cast<hyk_Status>(HYK_OK));
      // Before the first portset upgrade the flow undoes itself: no lus is left.
      EXPECT_EQ(res.pointOfNoReturnName, "ps-upgrade ps0");
      const bool before = index < res.pointOfNoReturn;
      EXPECT_EQ(res.rolledBack, before);
      if (before) {
         EXPECT_FALSE(hyksim::FindModule("lus").has_value());
         EXPECT_FALSE(hyksim::FindModule("tarnq-dfw-2000").has_value());
      }
      holderClient.reset();
      holder.reset();
   }
}

TEST_F(LusctlFlowTest, PortsetFlowCompletesWithAContainerPortAndTheFastDatapath) {
   OldHost({{"ps0", 6}}, {}, 1, true);
   std::string error;
   ASSERT_EQ(host_->LoadModule("tarnq-stub-vswitch-1000", {}, &error), HYK_OK);
   ASSERT_EQ(host_->LoadModule("tarnq-fdp-1000", {}, &error), HYK_OK);
   CliRun r = Run({"upgrade", "portset", "--from-build", "1000", "--to-build", "2000", "--portset",
                   "ps0", "--module-param", "seed=7", "--container-port",
                   std::to_string(containers_.front())});
   EXPECT_EQ(r.code, 0) << r.out << r.err;
   EXPECT_NE(r.out.find("fdp ps0 -- fdp (command 13): 0x0 Success"), std::string::npos) << r.out;
   EXPECT_NE(r.out.find("restore-complete (command 12): 0x0 Success"), std::string::npos);
   EXPECT_FALSE(hyksim::FindModule("lus"));
   EXPECT_FALSE(hyksim::FindModule("tarnq-dfw-1000"));
   EXPECT_EQ(hyksim::FindPortset("ps0")->classModule, hyksim::FindModule("tarnq-vswitch-2000")->id);
}

}  // namespace
}  // namespace lustest
