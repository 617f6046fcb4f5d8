// `lusctl fleet-report DIR`: rollouts' report directories written by hand the
// way deploy/ansible's role writes them (fleet.json, HOST.host.json and this
// tool's own reports), read back as a table, JSON and a picture.  A failed
// host is named with its first failure, hosts not reached are shown as such,
// and an empty directory or a malformed file is an error that names the file.
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "lusctl_fixture.h"

namespace lustest {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

class FleetReportTest : public ::testing::Test {
  protected:
   void SetUp() override {
      dir_ = fmt::format("{}/fleet-report-{}-{}", ::testing::TempDir(), getpid(),
                         ::testing::UnitTest::GetInstance()->current_test_info()->name());
      fs::remove_all(dir_);
      fs::create_directories(dir_);
   }
   void TearDown() override { fs::remove_all(dir_); }

   void Write(const std::string &name, const std::string &text) { std::ofstream(dir_ + "/" + name) << text; }
   void Write(const std::string &name, const json &j) { Write(name, j.dump(2)); }

   // A report of this tool: `outagesUS` one port each; `failedStep` > 0 with
   // a refused port and lus's line about it.
   static json Upgrade(const std::vector<uint64_t> &outagesUS, int failedStep = -1, uint64_t droppedBytes = 0) {
      json r = {{"flow", "classic"}, {"fromBuild", 1000}, {"toBuild", 2000}, {"refusals", json::array()},
                {"failedStep", failedStep}, {"violations", json::array()}, {"attributed", json::array()}};
      r["verdict"] = failedStep > 0 ? "FAILED" : "completed";
      r["steps"] = json::array();
      for (int i = 1; i <= 10; i++) {
         const bool failed = i == failedStep;
         r["steps"].push_back({{"index", i}, {"name", i == 10 ? "ports restored" : fmt::format("step{}", i)},
                               {"status", failed ? 0xbad0004 : 0}, {"statusText", failed ? "Busy" : "Success"}});
      }
      r["ports"] = json::array();
      for (size_t i = 0; i < outagesUS.size(); i++) {
         const bool blocked = failedStep > 0 && i == 3;
         r["ports"].push_back({{"port", i + 1}, {"name", fmt::format("ps-a#{}", i)}, {"hostBlockedUS", outagesUS[i]},
                               {"inUpgrade", true}, {"blocked", blocked}, {"upgraded", !blocked}});
      }
      if (failedStep > 0) {
         r["attributed"].push_back({{"port", 4}, {"name", "ps-a#3"}, {"client", "tarnq-vswitch"}, {"byDesign", false},
                                    {"text", "Restore Runtime State FAIL for client tarnq-vswitch : Failure"}});
         r["violations"].push_back({{"kind", "blocked"}, {"text", "1 port(s) do not pass traffic: ps-a#3"},
                                    {"allowed", false}});
      }
      auto count = [](uint64_t bytes) { return json{{"ports", 1}, {"bytes", bytes}}; };
      r["clients"] = json::array({{{"client", "tarnq-vswitch"}, {"saved", count(1000)}, {"restored", count(1000 - droppedBytes)},
                                   {"mismatched", count(0)}, {"refused", count(0)}, {"droppedByLus", count(droppedBytes)}}});
      return r;
   }

   static json Host(const std::string &host, int wave, const std::string &outcome, bool recovered = false) {
      json h = {{"host", host}, {"wave", wave}, {"outcome", outcome}, {"report", host + ".upgrade.json"},
                {"gate", {{"passed", outcome != "failed"}, {"reasons", json::array()}}},
                {"firstFailure", outcome == "failed" ? "the gate: verdict FAILED" : ""}};
      h["recovery"] = recovered ? json{{"exit", 3}, {"clean", true}, {"report", host + ".recovery.json"}} : json(nullptr);
      return h;
   }

   // Four hosts, the third of which failed in wave 2 and stopped the rollout: the fourth was not reached.
   void StoppedRollout() {
      Write("fleet.json", json{{"hosts", {"h1", "h2", "h3", "h4"}}, {"canary", {"h1"}},
                               {"gate", {{"maxOutageSeconds", 0.5}}}, {"checkMode", false}});
      Write("h1.host.json", Host("h1", 1, "passed"));
      Write("h1.upgrade.json", Upgrade({1000, 2000, 3000}));
      Write("h2.host.json", Host("h2", 2, "passed"));
      Write("h2.upgrade.json", Upgrade({4000, 5000}));
      Write("h3.host.json", Host("h3", 2, "failed", true));
      Write("h3.upgrade.json", Upgrade({1000, 1000, 1000, 9000}, 10));
      Write("h3.recovery.json", Upgrade({0, 0, 0, 0}, -1, 96));
   }

   CliRun Run(const std::vector<std::string> &args) {
      lusctl::Environment none;
      std::ostringstream out, err;
      int code = lusctl::RunCli(none, args, out, err);
      return {code, out.str(), err.str()};
   }

   std::string dir_;
};

TEST_F(FleetReportTest, AStoppedRolloutNamesTheFailedHostItsFirstFailureAndTheHostsNotReached) {
   StoppedRollout();
   CliRun r = Run({"fleet-report", dir_});
   ASSERT_EQ(r.code, 0) << r.err;
   EXPECT_NE(r.out.find("fleet rollout 1000 -> 2000: 3 of 4 host(s) reached in 2 wave(s); 2 passed, 1 failed "
                        "(1 recovered clean), 1 not reached"),
             std::string::npos)
      << r.out;
   EXPECT_NE(r.out.find("stopped after wave 2 (failed: h3); not reached, left on build 1000: h4"), std::string::npos)
      << r.out;
   // The failed host's row: its first failure is the failed step and lus's line about the port.
   EXPECT_NE(r.out.find("step 10 'ports restored': Busy; ps-a#3 tarnq-vswitch: Restore Runtime State FAIL for client "
                        "tarnq-vswitch : Failure"),
             std::string::npos)
      << r.out;
   EXPECT_NE(r.out.find("9.000+"), std::string::npos) << "the port still blocked is marked\n" << r.out;
   EXPECT_NE(r.out.find("h4            -  not reached"), std::string::npos) << r.out;
   // Every port of the fleet: 3 + 2 + 4 outages.
   EXPECT_NE(r.out.find("outage across the fleet: 9 port(s) on 3 host(s)"), std::string::npos) << r.out;
}

TEST_F(FleetReportTest, TheJsonHoldsEveryHostItsWaveOutagesAndBytes) {
   StoppedRollout();
   CliRun r = Run({"--json", "fleet-report", dir_});
   ASSERT_EQ(r.code, 0) << r.err;
   const json j = json::parse(r.out);
   EXPECT_EQ(j["stoppedAfterWave"], 2);
   ASSERT_EQ(j["hosts"].size(), 4u);
   EXPECT_EQ(j["hosts"][0]["wave"], 1);
   EXPECT_EQ(j["hosts"][0]["outageUS"]["max"], 3000);
   EXPECT_EQ(j["hosts"][0]["outageUS"]["p50"], 2000);
   EXPECT_EQ(j["hosts"][0]["bytesMoved"], 1000);
   const json &h3 = j["hosts"][2];
   EXPECT_EQ(h3["outcome"], "failed");
   EXPECT_EQ(h3["verdict"], "FAILED");
   EXPECT_EQ(h3["recovery"]["clean"], true);
   // The recovery's report holds the host's totals: 96 bytes given up.
   EXPECT_EQ(h3["bytesLost"], 96);
   EXPECT_EQ(h3["bytesMoved"], 904);
   EXPECT_EQ(h3["portsStillBlocked"], 1);
   EXPECT_EQ(j["hosts"][3]["reached"], false);
   EXPECT_EQ(j["hosts"][3]["outcome"], "not reached");
   EXPECT_FALSE(j["hosts"][3].contains("wave"));
   EXPECT_EQ(j["outage"]["ports"], 9);
   EXPECT_EQ(j["outage"]["maxUS"], 9000);
}

TEST_F(FleetReportTest, AHostThatFailedTheGateOnlyIsNamedWithTheGatesReason) {
   Write("fleet.json", json{{"hosts", {"h1"}}});
   json h = Host("h1", 1, "failed");
   h["gate"]["reasons"] = {"outage 0.009 s over the fleet bound of 0.005 s"};
   Write("h1.host.json", h);
   Write("h1.upgrade.json", Upgrade({9000}));
   CliRun r = Run({"fleet-report", dir_});
   ASSERT_EQ(r.code, 0) << r.err;
   EXPECT_NE(r.out.find("outage 0.009 s over the fleet bound of 0.005 s"), std::string::npos) << r.out;
}

TEST_F(FleetReportTest, AnEmptyDirectoryOrNoneIsAClearError) {
   CliRun empty = Run({"fleet-report", dir_});
   EXPECT_EQ(empty.code, 1);
   EXPECT_NE(empty.err.find(dir_ + ": no rollout here"), std::string::npos) << empty.err;
   CliRun none = Run({"fleet-report", dir_ + "/nosuch"});
   EXPECT_EQ(none.code, 1);
   EXPECT_NE(none.err.find(dir_ + "/nosuch: not a directory"), std::string::npos) << none.err;
}

TEST_F(FleetReportTest, AMalformedFileIsNamedWithWhatIsWrong) {
   StoppedRollout();
   struct Case {
      std::string file, text, says;
   };
   const std::vector<Case> cases = {
      {"h2.upgrade.json", "{\"verdict\": \"completed\", ", "h2.upgrade.json: not JSON"},
      {"h2.upgrade.json", "[1, 2]", "h2.upgrade.json: not a JSON object"},
      {"h2.upgrade.json", json{{"verdict", "completed"}}.dump(), "h2.upgrade.json: no field \"fromBuild\""},
      {"h2.host.json", json{{"host", "h2"}, {"wave", "two"}, {"outcome", "passed"}}.dump(),
       "h2.host.json: field \"wave\" is not what a report holds"},
      {"h2.host.json", json{{"host", "h9"}, {"wave", 2}, {"outcome", "passed"}}.dump(),
       "h2.host.json: is the record of host \"h9\""},
      {"fleet.json", json{{"hosts", "h1"}}.dump(), "fleet.json: field \"hosts\""},
   };
   for (const auto &c : cases) {
      StoppedRollout();
      Write(c.file, c.text);
      CliRun r = Run({"fleet-report", dir_});
      EXPECT_EQ(r.code, 1) << c.file << ": " << c.text;
      EXPECT_NE(r.err.find(c.says), std::string::npos) << "wanted: " << c.says << "\ngot: " << r.err;
   }
   // A report a host names that is not there.
   StoppedRollout();
   fs::remove(dir_ + "/h1.upgrade.json");
   CliRun gone = Run({"fleet-report", dir_});
   EXPECT_EQ(gone.code, 1);
   EXPECT_NE(gone.err.find("h1.upgrade.json: cannot be read"), std::string::npos) << gone.err;
}

TEST_F(FleetReportTest, ThePictureMarksTheFailureAndTheHostsNotReachedAndRenders) {
   StoppedRollout();
   const std::string svg = dir_ + "/fleet.svg", png = dir_ + "/fleet.png";
   CliRun r = Run({"--quiet", "fleet-report", dir_, "--svg", svg});
   ASSERT_EQ(r.code, 0) << r.err;
   std::ifstream f(svg);
   std::stringstream ss;
   ss << f.rdbuf();
   const std::string text = ss.str();
   EXPECT_NE(text.find("stopped after wave 2"), std::string::npos);
   EXPECT_NE(text.find(">wave 1<"), std::string::npos);
   EXPECT_NE(text.find(">wave 2<"), std::string::npos);
   EXPECT_NE(text.find(">canary<"), std::string::npos);
   EXPECT_NE(text.find(">FAILED<"), std::string::npos);
   EXPECT_NE(text.find("h3 (wave 2), recovered clean: step 10 &apos;ports restored&apos;: Busy"), std::string::npos);
   EXPECT_NE(text.find("h4: not reached, left on build 1000"), std::string::npos);
   // The bound of 0.5 s is far above outages of milliseconds: said, not drawn.
   EXPECT_NE(text.find("The fleet&apos;s bound of 0.5 s lies above every outage shown."), std::string::npos);
   EXPECT_EQ(std::system(fmt::format("xmllint --noout '{}'", svg).c_str()), 0);
   ASSERT_EQ(std::system(fmt::format("rsvg-convert '{}' -o '{}'", svg, png).c_str()), 0);
   std::ifstream p(png, std::ios::binary);
   std::string head(8, '\0');
   p.read(head.data(), 8);
   EXPECT_EQ(head.substr(1, 3), "PNG");
}

TEST_F(FleetReportTest, ASvgFileThatCannotBeWrittenFailsWithThePath) {
   StoppedRollout();
   CliRun r = Run({"fleet-report", dir_, "--svg", dir_ + "/no/such/dir/f.svg"});
   EXPECT_EQ(r.code, 1);
   EXPECT_NE(r.err.find("cannot write " + dir_ + "/no/such/dir/f.svg"), std::string::npos) << r.err;
}

}  // namespace
}  // namespace lustest
