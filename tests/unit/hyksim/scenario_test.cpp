// The scenario language: parser errors name the file, the line and what is
// wrong; expectations fail the run with a message that says what was found.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fmt/format.h>

#include <fstream>
#include <sstream>

#include "hyksim/ledger.h"
#include "scenario.h"

namespace {

class ScenarioTest : public ::testing::Test {
  protected:
   void SetUp() override { hyksim::HostStart(); }
   void TearDown() override { hyksim::HostStop(); }

   // Runs `text` as a scenario file; returns what the interpreter printed.
   std::string RunText(const std::string &text, bool *ok) {
      const std::string path = ::testing::TempDir() + "/scenario-" + std::to_string(getpid()) + ".hyk";
      std::ofstream(path) << text;
      std::ostringstream out;
      hyksimtool::ScenarioOptions opts;
      opts.moduleDir = LUS_MODULES_DIR;
      opts.reportDir = ::testing::TempDir();
      hyksimtool::Interpreter interp(opts, out);
      *ok = interp.RunFile(path);
      std::remove(path.c_str());
      path_ = path;
      return out.str();
   }
   std::string path_;
};

TEST_F(ScenarioTest, ParserErrorsNameTheFileTheLineAndTheReason) {
   struct Case {
      std::string text, says;
   };
   const std::vector<Case> cases = {
      {"# a comment\n\nfrobnicate ps0\n", ":3: unknown command 'frobnicate' (try help)"},
      {"portset ps0\nports ps0 many\n", ":2: bad value 'many' for the port count: a whole number from 0 to 65536 is needed"},
      {"ports nosuch 4\n", ":1: unknown portset 'nosuch'"},
      {"portset ps0\nports ps0 4\nexpect blocked ps0#9\n", ":3: unknown port 'ps0#9': portset ps0 has 4 ports"},
      {"portset ps0\nports ps0 4 type=router\n", ":2: bad value 'router' for type: vnic, container or uplink"},
      {"echo \"unterminated\n", ":1: unterminated quote"},
      {"load client tarnq-dfw\n", ":1: load tarnq-dfw: build=N is needed"},
      {"load client tarnq-dfw build=1000 colour=red\n",
       ":1: load tarnq-dfw-1000: 0xbad0007 Bad parameter (unknown parameter colour)"},
      {"fault malloc nth=1\n", ":1: unknown host operation 'malloc'"},
      {"expect sideways\n", ":1: unknown expectation 'sideways'"},
      {"expect status OK\n", ":1: expect status: no command has run yet"},
      {"portset ps0\nports ps0 2\nexpect blocked ps0\n", ":3: port "},
      {"report\n", ":1: report: no upgrade has run yet"},
      {"takeover\n", ":1: missing argument; usage: takeover PORTSET build=N"},
   };
   for (const auto &c : cases) {
      bool ok = true;
      std::string out = RunText(c.text, &ok);
      EXPECT_FALSE(ok) << c.text;
      EXPECT_NE(out.find(path_ + c.says), std::string::npos) << "wanted: " << c.says << "\ngot: " << out;
      hyksim::HostStart();
   }
}

TEST_F(ScenarioTest, ACleanScenarioRunsTopToBottomAndStopsAtTheFirstFailure) {
   bool ok = false;
   std::string out = RunText(
      "portset ps0 version=106\n"
      "ports ps0 6 vms=3\n"
      "expect blocked ps0 no\n"
      "echo before\n"
      "expect heap lus_heap_0 bytes=5\n"
      "echo after\n",
      &ok);
   EXPECT_FALSE(ok);
   EXPECT_NE(out.find("before"), std::string::npos);
   EXPECT_EQ(out.find("after"), std::string::npos);
   EXPECT_NE(out.find(":5: heap lus_heap_0 holds 0 bytes, not 5"), std::string::npos) << out;
   // 6 ports of 3 VMs: two vNICs each.
   auto ports = hyksim::Ports("ps0");
   ASSERT_EQ(ports.size(), 6u);
   EXPECT_EQ(ports[1].desc.vmUUID, "ps0-vm-0");
   EXPECT_EQ(ports[1].desc.vnicIndex, 1u);
   EXPECT_EQ(ports[5].desc.vmUUID, "ps0-vm-2");
}

TEST_F(ScenarioTest, FaultsAndParametersAreTheHostsOwn) {
   bool ok = false;
   std::string out = RunText(
      "load lus fromBuild=1000\n"
      "fault hyk_PortsetAcquireByName from=1 status=NO_MEMORY\n"
      "lusctl save --portset anything\n"
      "expect exit 1\n"
      "clear-faults\n"
      "lusctl save --portset anything\n"
      "expect exit 1\n"
      "load client tarnq-dfw build=1000\n"
      "set tarnq-dfw-1000 failSlot=3\n"
      "set tarnq-dfw-1000 colour=red\n",
      &ok);
   EXPECT_FALSE(ok);
   EXPECT_GE(hyksim::LogCount("injected failure of hyk_PortsetAcquireByName"), 1u);
   EXPECT_EQ(hyksim::LogCount("REG: Error acquiring portset anything : Out of memory"), 1u);
   // The retry cannot register the port-unblock event again: the failed first
   // registration left it registered (a module loaded with fromBuild keeps it).
   EXPECT_EQ(hyksim::LogCount("Failed to register event com.corvid.tarn.kcp.port.unblock"), 1u);
   EXPECT_EQ(hyksim::LogCount("module tarnq-dfw-1000: parameters set: failSlot=3"), 1u);
   EXPECT_NE(out.find(":10: set tarnq-dfw-1000: 0xbad0007 Bad parameter (unknown parameter colour)"),
             std::string::npos) << out;
}

// A client of the user's own that takes no seed loads as it is: the run's
// seed goes only to a module that takes one; a seed named outright still
// reaches the module, which refuses it.
TEST_F(ScenarioTest, LoadClientWorksForAModuleThatTakesNoSeed) {
   const std::string dir = ::testing::TempDir() + "/seedless-" + std::to_string(getpid());
   ASSERT_EQ(std::system(("mkdir -p " + dir + "/clients").c_str()), 0);
   ASSERT_EQ(std::system(fmt::format("cp {}/libhyktest_counter.so {}/clients/counter-1000.so", HYKTEST_MODULE_DIR, dir).c_str()), 0);
   const std::string path = dir + "/s.hyk";
   std::ofstream(path) << "load client counter build=1000 counterStart=5\n"
                          "expect use-count counter-1000 0\n"
                          "unload counter-1000\n"
                          "load client counter build=1000 seed=3\n";
   std::ostringstream out;
   hyksimtool::ScenarioOptions opts;
   opts.moduleDir = dir;
   opts.reportDir = ::testing::TempDir();
   hyksimtool::Interpreter interp(opts, out);
   EXPECT_FALSE(interp.RunFile(path));
   // Lines 1-3 ran (the use-count expectation found the module loaded); line 4 failed.
   EXPECT_EQ(out.str().find(":1:"), std::string::npos) << out.str();
   EXPECT_EQ(out.str().find(":2:"), std::string::npos) << out.str();
   EXPECT_NE(out.str().find(":4: load counter-1000: "), std::string::npos) << out.str();
   EXPECT_NE(out.str().find("unknown parameter seed"), std::string::npos) << out.str();
   std::system(("rm -rf " + dir).c_str());
}

}  // namespace

namespace {

// spawn runs a command alongside the script; wait prints its output and
// hands its status and exit to expect; a spawned failure fails the wait.
TEST_F(ScenarioTest, SpawnedCommandsRunAlongsideAndWaitHandsOverTheirOutcome) {
   bool ok = false;
   std::string out = RunText(
      "portset ps0\n"
      "ports ps0 2\n"
      "spawn a echo from-a\n"
      "spawn b after=0.5 ioctl 99\n"
      "wait a b\n"
      "expect status NOT_FOUND\n"   // no lus loaded: no device
      "spawn a echo again\n"   // the name is free once waited for
      "wait\n",
      &ok);
   EXPECT_TRUE(ok) << out;
   EXPECT_NE(out.find("from-a"), std::string::npos) << out;
   EXPECT_NE(out.find("again"), std::string::npos) << out;
   EXPECT_GE(hyksim::NowUS(), 500000u) << "after=0.5 waited on the host's clock";

   out = RunText("spawn a unload no-such-module\nwait a\necho not-reached\n", &ok);
   EXPECT_FALSE(ok);
   EXPECT_NE(out.find(":2: spawn a (unload no-such-module): unload no-such-module"), std::string::npos) << out;
   EXPECT_EQ(out.find("not-reached"), std::string::npos);
}

TEST_F(ScenarioTest, SpawnAndTryRefuseWhatCannotRunAlongside) {
   const struct {
      const char *text;
      const char *error;
   } cases[] = {
      {"spawn a portset ps9\n", ":1: spawn a: 'portset' cannot run alongside the script"},
      {"spawn a echo x\nspawn a echo y\n", ":2: spawn a: a command of that name runs already (wait a first)"},
      {"spawn a after=0.1 echo x\nportset ps9\n", ":2: portset: wait for the spawned commands first"},
      {"wait nobody\n", ":1: wait: nothing spawned is named 'nobody'"},
      {"try try echo x\n", ":1: try: 'try' cannot be tried"},
      {"spawn a try portset ps9\nwait\n", ":2: spawn a (try portset ps9): try: 'portset' cannot run alongside the script"},
      {"spawn a\n", ":1: missing argument; usage: spawn NAME [after=SECONDS] COMMAND [ARGS...]"},
   };
   for (const auto &c : cases) {
      bool ok = true;
      std::string out = RunText(c.text, &ok);
      EXPECT_FALSE(ok) << c.text;
      EXPECT_NE(out.find(c.error), std::string::npos) << c.text << " printed:\n" << out;
   }
   bool ok = false;
   std::string out = RunText("try unload no-such-module\nexpect status NOT_FOUND\necho on\n", &ok);
   EXPECT_TRUE(ok) << out;
   EXPECT_NE(out.find("tried: unload no-such-module"), std::string::npos) << out;
}

// advance timer=lus before=S stops S before lus's clear timer; a module
// without a pending timer is an error.
TEST_F(ScenarioTest, AdvanceToATimerStopsJustBeforeIt) {
   bool ok = false;
   std::string out = RunText(
      "load client tarnq-vswitch build=1000\n"
      "portset ps0 module=tarnq-vswitch-1000\n"
      "ports ps0 2 vms=1\n"
      "load lus fromBuild=1000\n"
      "load client tarnq-vswitch build=2000\n"
      "lusctl register --type to --portset ps0\n"
      "lusctl block --portset ps0\n"
      "lusctl save --portset ps0\n"
      "try advance timer=lus before=200\n"   // past the timer: an error, the clock stays
      "advance timer=lus before=0.25\n"
      "expect no-log \"Clearing LUS Client data\"\n"
      "advance 0.25\n"
      "expect log \"Clearing LUS Client data ...\" count=1\n",
      &ok);
   EXPECT_TRUE(ok) << out;
   EXPECT_NE(out.find("tried: advance: lus's timer is due in 120."), std::string::npos) << out;
   EXPECT_NE(out.find("less than before=200"), std::string::npos) << out;
   out = RunText("advance timer=lus\n", &ok);
   EXPECT_FALSE(ok);
   EXPECT_NE(out.find("module lus has no timer pending"), std::string::npos) << out;
}

// expect intact: passes after a clean upgrade, and after one in which lus
// dropped a client's state at the save (reported) and the port went on
// without it; fails, naming port and client, for saved bytes that are
// neither restored intact nor reported dropped.
TEST_F(ScenarioTest, ExpectIntactFindsBytesNeitherRestoredNorReportedDropped) {
   const std::string upgrade =
      "load client tarnq-vswitch build=1000\n"
      "portset ps0 module=tarnq-vswitch-1000\n"
      "ports ps0 4 vms=2 external-id=x\n"
      "load client tarnq-stats build=1000 {}\n"
      "load client tarnq-stats build=2000\n"
      "lusctl upgrade classic --from-build 1000 --to-build 2000 --portset ps0 --module-param seed=7\n"
      "unload lus\n"
      "expect intact\n";
   bool ok = false;
   std::string out = RunText(fmt::format(fmt::runtime(upgrade), ""), &ok);
   EXPECT_TRUE(ok) << out;
   hyksim::HostStop();
   hyksim::HostStart();
   out = RunText(fmt::format(fmt::runtime(upgrade), "overrun=1"), &ok);
   EXPECT_TRUE(ok) << out;
   EXPECT_NE(out.find("dropped by lus"), std::string::npos) << out;
   // Bytes the old client says it saved on port 2 that went nowhere, on a
   // port lus has unblocked: both findings, with the figures.
   hyksim_LedgerPort("tarnq-stats", 1000, HYKSIM_LEDGER_SAVED, 2, 77);
   out = RunText("expect intact\n", &ok);
   EXPECT_FALSE(ok);
   const auto before = hyksim::LedgerOf("tarnq-stats").ports[2][HYKSIM_LEDGER_SAVED] - 77;
   const auto verified = hyksim::LedgerOf("tarnq-stats").ports[2][HYKSIM_LEDGER_VERIFIED];
   EXPECT_EQ(before, verified);
   EXPECT_NE(out.find(fmt::format("state not intact (2 finding(s)): port 2 client tarnq-stats: {} bytes saved, {} restored "
                                  "intact, 0 reported dropped; lus unblocked port 2 without its state of client "
                                  "tarnq-stats ({} of {} bytes restored intact)",
                                  before + 77, verified, verified, before + 77)),
             std::string::npos) << out;
}

}  // namespace
