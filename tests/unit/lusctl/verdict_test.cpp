// The verdict of an upgrade: exit 0 and "completed" only for an upgrade with
// nothing wrong, exit 3 and a line per violation (with its ports) for one
// that finished with something wrong, exit 1 for a failed step, exit 2 for
// bad usage -- and the checks a flow makes before it touches a port, its undo
// before the point of no return, and per-module parameters.
#include <unistd.h>

#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "lusctl_fixture.h"

namespace lustest {
namespace {

using nlohmann::json;

class LusctlVerdictTest : public LusctlTest {
  protected:
   static std::vector<std::string> Upgrade(std::vector<std::string> extra = {}) {
      std::vector<std::string> args = {"upgrade", "classic", "--from-build", "1000", "--to-build", "2000",
                                       "--portset", "ps0"};
      args.insert(args.end(), extra.begin(), extra.end());
      return args;
   }

   static uint32_t PortOf(const std::string &portset, size_t index) { return hyksim::Ports(portset).at(index).id; }

   static bool Loaded(const std::string &name) { return hyksim::FindModule(name).has_value(); }

   static size_t LusBlocked() {
      size_t n = 0;
      for (const auto &p : hyksim::Ports()) n += (p.blockReasons & HYK_PORT_BLOCK_CUSTOM) != 0;
      return n;
   }
};

bool Has(const CliRun &r, const std::string &text) { return r.out.find(text) != std::string::npos; }

TEST_F(LusctlVerdictTest, MismatchedStateFinishesWithAViolationNamingClientAndPortsAndExitsThree) {
   OldHost({{"ps0", 4}});
   // No seed for the new build: it finds other state than the old build saved.
   CliRun r = Run(Upgrade());
   EXPECT_EQ(r.code, 3) << r.out << r.err;
   EXPECT_TRUE(Has(r, "of ps0: finished with violations (11 steps")) << r.out;
   EXPECT_TRUE(Has(r, "violation: mismatched: tarnq-dfw: ")) << r.out;
   EXPECT_TRUE(Has(r, "ps0#0, ps0#1, ps0#2, ps0#3")) << r.out;
   EXPECT_FALSE(Has(r, ": completed")) << r.out;
}

TEST_F(LusctlVerdictTest, AnAllowedViolationCompletesWithExitZeroAndIsStillShown) {
   OldHost({{"ps0", 4}});
   CliRun r = Run(Upgrade({"--allow", "mismatched", "--json"}));
   EXPECT_EQ(r.code, 0) << r.out << r.err;
   json j = json::parse(r.out);
   EXPECT_EQ(j["verdict"], "completed (with allowed violations)");
   EXPECT_EQ(j["exitCode"], 0);
   ASSERT_FALSE(j["violations"].empty());
   for (const auto &v : j["violations"]) {
      EXPECT_EQ(v["kind"], "mismatched");
      EXPECT_TRUE(v["allowed"].get<bool>());
   }
   CliRun bad = Run(Upgrade({"--allow", "everything"}));
   EXPECT_EQ(bad.code, 2);
}

TEST_F(LusctlVerdictTest, APortOverTheBudgetFinishesWithAViolationNamingIt) {
   VirtualHost();
   OldHost({{"ps0", 4}});
   // The new switch's restore of the third port takes 2 s of host time.
   std::string error;
   ASSERT_EQ(host_->LoadModule("tarnq-vswitch-2000",
                               {"seed=7", "slowSlot=3", "slowMs=2000", fmt::format("slowPort={}", PortOf("ps0", 2))},
                               &error),
             HYK_OK)
      << error;
   CliRun r = Run(Upgrade({"--module-param", "seed=7", "--max-outage", "1", "--takeover-threads", "1"}));
   EXPECT_EQ(r.code, 3) << r.out;
   EXPECT_TRUE(Has(r, "violation: over-budget: ")) << r.out;
   // The slow port, and the one restored after it on the same thread.
   EXPECT_TRUE(Has(r, "2 port(s) over the 1 s budget: ps0#2 (2.0")) << r.out;
   EXPECT_TRUE(Has(r, "ps0#3 (2.0")) << r.out;
   EXPECT_TRUE(Has(r, "ports:  4 upgraded, 4 pass traffic, 0 blocked")) << r.out;
}

TEST_F(LusctlVerdictTest, ACleanUpgradeCompletesWithExitZeroAndNoViolation) {
   OldHost({{"ps0", 4}});
   CliRun r = Run(Upgrade({"--module-param", "seed=7"}));
   EXPECT_EQ(r.code, 0) << r.out;
   EXPECT_TRUE(Has(r, "of ps0: completed (11 steps")) << r.out;
   EXPECT_FALSE(Has(r, "violation")) << r.out;
}

// A module of the new build that refuses its parameters fails step 2; the
// flow unloads what it loaded and says the ports stay with the old build.
TEST_F(LusctlVerdictTest, AFailureBeforeThePointOfNoReturnIsUndone) {
   OldHost({{"ps0", 4}});
   CliRun r = Run(Upgrade({"--module-param", "seed=7", "--module-param", "nosuch=1"}));
   EXPECT_EQ(r.code, 1) << r.out;
   EXPECT_TRUE(Has(r, "FAILED at step 2 'load new build'")) << r.out;
   EXPECT_TRUE(Has(r, "refused to load: unknown parameter nosuch")) << r.out;
   EXPECT_TRUE(Has(r, "rolled back: the failure came before the point of no return (step 7 'unload old build')"))
      << r.out;
   EXPECT_TRUE(Has(r, "ports:  0 upgraded (rolled back), 4 pass traffic on build 1000, 0 blocked")) << r.out;
   EXPECT_FALSE(Loaded("lus"));
   for (const char *m : {"tarnq-vswitch-2000", "tarnq-dfw-2000", "tarnq-stats-2000"}) EXPECT_FALSE(Loaded(m)) << m;
   EXPECT_TRUE(Loaded("tarnq-dfw-1000"));
   EXPECT_EQ(LusBlocked(), 0u);
}

TEST_F(LusctlVerdictTest, AModuleParameterWithAModuleNameGoesToThatModuleAlone) {
   OldHost({{"ps0", 4}});
   const uint32_t port = PortOf("ps0", 1);
   // Only the new statistics module fails its restore, and only on ps0#1.
   CliRun r = Run(Upgrade({"--module-param", "seed=7", "--module-param", "tarnq-stats:failSlot=3",
                           "--module-param", fmt::format("tarnq-stats-2000:failPort={}", port)}));
   EXPECT_EQ(r.code, 1) << r.out;
   EXPECT_TRUE(Has(r, "FAILED at step 10 'ports restored'")) << r.out;
   EXPECT_TRUE(Has(r, "violation: blocked: 1 port(s) do not pass traffic: ps0#1")) << r.out;
   EXPECT_TRUE(Has(r, "ps0#1          tarnq-stats      Restore Runtime State FAIL for client tarnq-stats : Failure"))
      << r.out;
   EXPECT_TRUE(Has(r, "past the point of no return (step 7 'unload old build')")) << r.out;
   EXPECT_TRUE(Has(r, "lusctl recover --from-build 1000 --to-build 2000")) << r.out;
   EXPECT_EQ(LusBlocked(), 1u);

   std::vector<std::string> params = lusctl::ParamsFor({"seed=7", "tarnq-stats:failSlot=3", "lus:lusLogLevel=5",
                                                        "note=a:b"},
                                                       "tarnq-dfw", 2000);
   EXPECT_EQ(params, (std::vector<std::string>{"seed=7", "note=a:b"}));
   EXPECT_EQ(lusctl::ParamsFor({"seed=7", "lus:lusLogLevel=5"}, "lus", 2000),
             (std::vector<std::string>{"lusLogLevel=5"}));
}

// ---- pre-checks: refused before any port is blocked ------------------------------------

TEST_F(LusctlVerdictTest, APortsetNamedTwiceOrTooLongIsBadUsage) {
   OldHost({{"ps0", 4}});
   CliRun twice = Run({"upgrade", "classic", "--from-build", "1000", "--to-build", "2000", "--portset", "ps0",
                       "--portset", "ps0"});
   EXPECT_EQ(twice.code, 2);
   EXPECT_NE(twice.err.find("--portset ps0: named twice"), std::string::npos) << twice.err;
   const std::string longName(128, 'p');
   CliRun tooLong = Run({"upgrade", "classic", "--from-build", "1000", "--to-build", "2000", "--portset", longName});
   EXPECT_EQ(tooLong.code, 2);
   EXPECT_NE(tooLong.err.find("a portset name is at most 127 bytes (this one has 128)"), std::string::npos)
      << tooLong.err;
   CliRun block = Run({"block", "--portset", longName});
   EXPECT_EQ(block.code, 2);
   EXPECT_FALSE(Loaded("lus"));
   EXPECT_EQ(LusBlocked(), 0u);
}

struct Refusal {
   std::string name;
   std::vector<std::string> args;
   std::string why;
};

TEST_F(LusctlVerdictTest, AFlowThatCannotSucceedIsRefusedBeforeItBlocksAPort) {
   const std::vector<Refusal> cases = {
      {"no such build", {"--from-build", "999", "--portset", "ps0"}, "no module of build 999 is loaded"},
      {"no such portset", {"--from-build", "1000", "--portset", "ps0", "--portset", "nosuch"},
       "portset 'nosuch' does not exist"},
      {"a portset left out", {"--from-build", "1000", "--portset", "ps0"},
       "build 1000 also carries portset(s) ps1, which are not in the upgrade"},
      {"lus loaded", {"--from-build", "1000", "--portset", "ps0", "--portset", "ps1"}, "lus is loaded already"},
   };
   for (const auto &c : cases) {
      SCOPED_TRACE(c.name);
      hyksim::HostStart();
      host_ = lusctl::MakeSimHost(LUS_MODULES_DIR);
      env_.host = host_.get();
      OldHost({{"ps0", 4}, {"ps1", 4}});
      if (c.name == "lus loaded") {
         std::string error;
         ASSERT_EQ(host_->LoadModule("lus-2000", {"fromBuild=1000"}, &error), HYK_OK) << error;
      }
      std::vector<std::string> args = {"upgrade", "classic", "--to-build", "2000", "--module-param", "seed=7"};
      args.insert(args.end(), c.args.begin(), c.args.end());
      CliRun r = Run(args);
      EXPECT_EQ(r.code, 1) << r.out;
      EXPECT_TRUE(Has(r, "REFUSED before any step; nothing was done")) << r.out;
      EXPECT_TRUE(Has(r, c.why)) << r.out;
      EXPECT_EQ(LusBlocked(), 0u);
      EXPECT_FALSE(Loaded("tarnq-dfw-2000"));
      EXPECT_EQ(Loaded("lus"), c.name == "lus loaded");
   }
}

// ---- the per-portset flow's undo --------------------------------------------------------

TEST_F(LusctlVerdictTest, ThePortsetFlowUndoesAFailureBeforeItsFirstPortsetUpgrade) {
   OldHost({{"ps0", 4}}, {"failSlot=6"}, 0, true);   // the old build fails the global configuration save
   CliRun r = Run({"upgrade", "portset", "--from-build", "1000", "--to-build", "2000", "--portset", "ps0",
                   "--module-param", "seed=7"});
   EXPECT_EQ(r.code, 1) << r.out;
   EXPECT_TRUE(Has(r, "FAILED at step 7 'global-config'")) << r.out;
   EXPECT_TRUE(Has(r, "rolled back: the failure came before the point of no return (step 8 'ps-upgrade ps0')"))
      << r.out;
   EXPECT_FALSE(Loaded("lus"));
   EXPECT_FALSE(Loaded("tarnq-dfw-2000"));
   EXPECT_TRUE(Loaded("tarnq-dfw-1000"));
}

// The per-portset flow runs lus at log level 5: the report has a callback
// table per client and callback, and the trace a track per client.
TEST_F(LusctlVerdictTest, ThePortsetFlowReportsEveryClientsCallbacks) {
   OldHost({{"ps0", 6}}, {}, 0, true);
   const std::string trace = fmt::format("{}/verdict-trace-{}.json", ::testing::TempDir(), getpid());
   CliRun r = Run({"--json", "upgrade", "portset", "--from-build", "1000", "--to-build", "2000", "--portset", "ps0",
                   "--module-param", "seed=7", "--trace", trace});
   EXPECT_EQ(r.code, 0) << r.out << r.err;
   json j = json::parse(r.out);
   std::map<std::string, uint64_t> counts;
   for (const auto &c : j["callbacks"]) {
      counts[c["client"].get<std::string>() + " " + c["callback"].get<std::string>()] += c["count"].get<uint64_t>();
      EXPECT_LE(c["p50MS"].get<uint64_t>(), c["maxMS"].get<uint64_t>());
   }
   EXPECT_GE(counts["tarnq-dfw getSize"], 6u);
   EXPECT_GE(counts["tarnq-vswitch getRuntimeState"], 6u);
   EXPECT_EQ(counts["tarnq-dfw preDualLoad"], 1u);
   std::ifstream f(trace);
   json t = json::parse(f);
   std::set<std::string> tracks;
   size_t callbacks = 0;
   for (const auto &e : t["traceEvents"]) {
      if (e["pid"] != 3) continue;
      if (e["ph"] == "M" && e["name"] == "thread_name") tracks.insert(e["args"]["name"].get<std::string>());
      callbacks += e["ph"] == "X";
   }
   EXPECT_TRUE(tracks.count("tarnq-dfw")) << t.dump();
   EXPECT_GE(callbacks, 12u);
   std::remove(trace.c_str());
}

}  // namespace
}  // namespace lustest
