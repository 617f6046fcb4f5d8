// The scenario language: parser errors name the file, the line and what is
// wrong; expectations fail the run with a message that says what was found.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fmt/format.h>

#include <fstream>
#include <sstream>

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
