// The command lines of hyksim and lusctl against the numbers and files an
// attacker (or a typo) gives them: every number is read by the one parser,
// never wrapped or cut; a log or report file that cannot be written fails
// the command with the path and the reason.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <string>

namespace {

struct Result {
   int code;
   std::string out;
};

Result Sh(const std::string &cmd) {
   Result r{-1, ""};
   FILE *p = popen((cmd + " 2>&1").c_str(), "r");
   std::array<char, 4096> buf;
   size_t n;
   while ((n = fread(buf.data(), 1, buf.size(), p)) > 0) r.out.append(buf.data(), n);
   const int status = pclose(p);
   r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
   return r;
}

Result Lusctl(const std::string &args) {
   return Sh(fmt::format("{} --module-dir {} {}", LUSCTL_PROGRAM, LUS_MODULES_DIR, args));
}

Result Hyksim(const std::string &args) {
   return Sh(fmt::format("{} {}", HYKSIM_PROGRAM, args));
}

TEST(LusctlCommandLine, SimNumbersAreCheckedNeverWrappedOrCut) {
   struct Case {
      std::string args, says;
   };
   const std::vector<Case> cases = {
      {"--sim-build 99999999999 status", "bad value '99999999999' for --sim-build: a whole number from 0 to 4294967295"},
      {"--sim-seed -1 status", "bad value '-1' for --sim-seed"},
      {"--sim-build 10x status", "bad value '10x' for --sim-build"},
      {"--sim-portset ps0:abc status", "--sim-portset 'ps0:abc': bad value 'abc' for VNICS: a whole number from 0 to 65536"},
      {"--sim-portset ps0:-5 status", "bad value '-5' for VNICS"},
      {"--sim-portset ps0:4294967297 status", "bad value '4294967297' for VNICS"},
      {"--sim-portset ps0:65536:1 status", "bad value '1' for CONTAINERS: a whole number from 0 to 0"},
      {"--sim-portset ps0:2:1:etherswitch:fast status", "the fifth field is 'fdp' or nothing"},
      {"--sim-portset ps0:2:1:etherswitch:fdp:x status", "expected NAME:VNICS[:CONTAINERS[:CLASS[:fdp]]]"},
      {"--host-timeout 1e300 status", "bad value '1e300' for --host-timeout"},
      {"--host-timeout 0 status", "bad value '0' for --host-timeout: at least a millisecond"},
      {"--host-timeout 86400.000001 status", "bad value '86400.000001' for --host-timeout"},
   };
   for (const auto &c : cases) {
      const Result r = Lusctl(c.args);
      EXPECT_EQ(r.code, 2) << c.args << "\n" << r.out;
      EXPECT_NE(r.out.find(c.says), std::string::npos) << c.args << "\nwanted: " << c.says << "\ngot: " << r.out;
   }
   // What is within range runs.
   const Result ok = Lusctl("--sim-portset ps0:3:1 --sim-seed 4294967295 --sim-build 1000 status");
   EXPECT_EQ(ok.code, 0) << ok.out;
}

TEST(LusctlCommandLine, AModuleOfThePortsetFlowIsCheckedLikePsUpgradesOwn) {
   const std::string flow = "--sim-portset ps0:4 --sim-client tarnq-vswitch upgrade portset --from-build 1000 "
                            "--to-build 2000 --portset ps0 --module-param seed=7 ";
   Result r = Lusctl(flow + "--module garbage");
   EXPECT_EQ(r.code, 2) << r.out;
   EXPECT_NE(r.out.find("expected from:NAME or to:NAME: garbage"), std::string::npos) << r.out;
   r = Lusctl(flow + "--module from:nomod");
   EXPECT_EQ(r.code, 1) << r.out;
   EXPECT_NE(r.out.find("--module from:nomod: no such module is loaded"), std::string::npos) << r.out;
   EXPECT_NE(r.out.find("rolled back"), std::string::npos) << r.out;
}

TEST(LusctlCommandLine, AReportFileThatCannotBeWrittenFailsWithThePathAndTheReason) {
   const Result r = Lusctl("--sim-portset ps0:4 --sim-client tarnq-vswitch upgrade classic --from-build 1000 "
                           "--to-build 2000 --portset ps0 --module-param seed=7 --report-json /dev/full");
   EXPECT_EQ(r.code, 1) << r.out;
   EXPECT_NE(r.out.find("lusctl: cannot write /dev/full: No space left on device"), std::string::npos) << r.out;
}

TEST(HyksimCommandLine, NumbersAreCheckedAndBadUsageExits2) {
   const std::string scenario = ::testing::TempDir() + "/cl-" + std::to_string(getpid()) + ".hyk";
   std::ofstream(scenario) << "portset ps0\nports ps0 12\n";
   struct Case {
      std::string args, says;
   };
   const std::vector<Case> cases = {
      {"run --seed -1 " + scenario, "bad value '-1' for --seed: a whole number from 0 to 4294967295"},
      {"run --seed 99999999999999999999999 " + scenario, "bad value '99999999999999999999999' for --seed"},
      {"run --max-ports x " + scenario, "bad value 'x' for --max-ports"},
      {"run --max-takeover-threads 0 " + scenario, "bad value '0' for --max-takeover-threads: a whole number from 1 to 1024"},
      {"serve --socket /tmp/x.sock --max-connections 0", "bad value '0' for --max-connections"},
      {"serve --socket /tmp/x.sock --max-line-bytes -1", "bad value '-1' for --max-line-bytes"},
      {"serve --socket /tmp/x.sock --module-param failSlot=3", "failSlot=3: expected MODULE:NAME=VALUE"},
      {"serve --socket /tmp/x.sock --module-param tarnq-dfw-2000:failSlot", "expected MODULE:NAME=VALUE"},
      // The explorer's options: conflicting, or idle without an exploration.
      {"run --schedules 0 " + scenario, "bad value '0' for --schedules"},
      {"run --pct-depth 65 --schedules 2 " + scenario, "bad value '65' for --pct-depth: a whole number from 0 to 64"},
      {"run --schedule 5 --schedules 3 " + scenario, "--schedule replays one schedule; it does not go with --schedules or --stress"},
      {"run --stress 2 --schedules 2 " + scenario, "--schedules and --stress are two ways to run; give one"},
      {"run --pct-steps 5 " + scenario, "--pct-steps needs --schedules (or --stress)"},
      {"run --schedules 2 --log-file /tmp/x.log " + scenario, "--log-file keeps one host's log"},
      {"run --schedule 5 --keep-going " + scenario, "--keep-going does not go with --schedule"},
      {"run --schedule 5 " + scenario + " " + scenario, "--schedule replays one file's schedule; give one FILE"},
   };
   for (const auto &c : cases) {
      const Result r = Hyksim(c.args);
      EXPECT_EQ(r.code, 2) << c.args << "\n" << r.out;
      EXPECT_NE(r.out.find(c.says), std::string::npos) << c.args << "\nwanted: " << c.says << "\ngot: " << r.out;
   }
   // The limits are the host's: a file over them fails at its line.
   const Result r = Hyksim("run --max-ports 10 " + scenario);
   EXPECT_EQ(r.code, 1) << r.out;
   EXPECT_NE(r.out.find(scenario + ":2: bad value '12' for the port count: a whole number from 0 to 10 is needed"),
             std::string::npos) << r.out;
   std::remove(scenario.c_str());
}

TEST(HyksimCommandLine, ALogFileThatCannotBeWrittenFailsTheRun) {
   const std::string scenario = ::testing::TempDir() + "/log-" + std::to_string(getpid()) + ".hyk";
   std::ofstream(scenario) << "portset ps0\nports ps0 2\necho done\n";
   Result r = Hyksim("run --log-file /nonexistent/host.log " + scenario);
   EXPECT_EQ(r.code, 1) << r.out;
   EXPECT_NE(r.out.find("hyksim: --log-file /nonexistent/host.log: No such file or directory"), std::string::npos)
      << r.out;
   // Opened, but every write fails: found when the log is flushed.
   r = Hyksim("run --log-file /dev/full " + scenario);
   EXPECT_EQ(r.code, 1) << r.out;
   EXPECT_NE(r.out.find("hyksim: --log-file /dev/full: No space left on device"), std::string::npos) << r.out;
   // A log that can be written is written, and the run passes.
   const std::string log = ::testing::TempDir() + "/host-" + std::to_string(getpid()) + ".log";
   r = Hyksim(fmt::format("run --log-file {} {}", log, scenario));
   EXPECT_EQ(r.code, 0) << r.out;
   std::ifstream in(log);
   std::string first;
   EXPECT_TRUE(static_cast<bool>(std::getline(in, first)));
   std::remove(log.c_str());
   std::remove(scenario.c_str());
}

}  // namespace
