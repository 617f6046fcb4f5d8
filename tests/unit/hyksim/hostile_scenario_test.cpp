// The scenario language against what an attacker would type: numbers that
// used to wrap, counts that used to divide by zero or take the machine's
// memory and threads, a clock moved backwards, paths for module names, files
// that cannot be read or written.  Each gets a clear error with the file and
// the line, and nothing after it runs.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fmt/format.h>

#include <fstream>
#include <sstream>

#include "scenario.h"

namespace {

class HostileScenarioTest : public ::testing::Test {
  protected:
   void SetUp() override {
      hyksim::HostStart();
      opts_.moduleDir = LUS_MODULES_DIR;
      opts_.reportDir = ::testing::TempDir();
      path_ = ::testing::TempDir() + "/hostile-" + std::to_string(getpid()) + ".hyk";
   }
   void TearDown() override {
      std::remove(path_.c_str());
      hyksim::HostStop();
   }

   // Runs `text` as a scenario file on a fresh host; returns what the interpreter printed.
   std::string RunText(const std::string &text, bool *ok) {
      hyksim::HostStart();
      std::ofstream(path_) << text;
      std::ostringstream out;
      hyksimtool::Interpreter interp(opts_, out);
      *ok = interp.RunFile(path_);
      return out.str();
   }
   // `text` fails at `line` saying `says`, and nothing after that line ran.
   void ExpectFailure(const std::string &text, int line, const std::string &says) {
      bool ok = true;
      const std::string out = RunText(text + "echo NOT REACHED\n", &ok);
      EXPECT_FALSE(ok) << text;
      EXPECT_NE(out.find(fmt::format("{}:{}: {}", path_, line, says)), std::string::npos)
         << "wanted: " << line << ": " << says << "\ngot: " << out;
      EXPECT_EQ(out.find("NOT REACHED"), std::string::npos) << out;
   }

   hyksimtool::ScenarioOptions opts_;
   std::string path_;
};

TEST_F(HostileScenarioTest, NumbersThatUsedToWrapAreRefused) {
   // Each used to run on, wrapped or cut: SIGFPE, command 6, length 0, version 107.
   ExpectFailure("portset ps0\nports ps0 18446744073709551615\n", 2,
                 "bad value '18446744073709551615' for the port count: a whole number from 0 to 65536 is needed");
   ExpectFailure("portset ps0\nports ps0 4 vms=18446744073709551615\n", 2,
                 "bad value '18446744073709551615' for vms: a whole number from 1 to 4 is needed");
   ExpectFailure("ioctl 4294967302\n", 1, "bad value '4294967302' for the command: a whole number from 0 to 4294967295");
   ExpectFailure("ioctl 6 length=4294967296\n", 1, "bad value '4294967296' for length");
   ExpectFailure("portset ps0 version=4294967403\n", 1, "bad value '4294967403' for version");
   ExpectFailure("portset ps0\nports ps0 2\ntakeover ps0 build=2000 threads=-1\n", 3,
                 "bad value '-1' for threads: a whole number from 1 to 64 is needed");
   ExpectFailure("portset ps0\nports ps0 2\ntakeover ps0 build=2000 threads=100000\n", 3,
                 "bad value '100000' for threads");
   ExpectFailure("portset ps0\nports ps0 2\ntakeover ps0 build=4294967296\n", 3, "bad value '4294967296' for build");
   ExpectFailure("advance 1e300\n", 1, "bad value '1e300' for the seconds");
   ExpectFailure("advance -1\n", 1, "bad value '-1' for the seconds");
   ExpectFailure("portset ps0\nports ps0 2\nexpect blocked ps0#18446744073709551616\n", 3,
                 "bad value '18446744073709551616' for a port index");
   ExpectFailure("expect blocked 4294967296\n", 1, "bad value '4294967296' for a port");
   ExpectFailure("fault hyk_HeapAllocWithRA probability=2\n", 1, "bad value '2' for probability: a number from 0 to 1");
   ExpectFailure("fault hyk_HeapAllocWithRA nth=-1\n", 1, "bad value '-1' for nth");
   ExpectFailure("fault hyk_HeapAllocWithRA status=0x100000000\n", 1, "bad value '0x100000000' for a status");
   ExpectFailure("load lus build=99999999999\n", 1, "bad value '99999999999' for build");
   ExpectFailure("load client tarnq-dfw build=-5\n", 1, "bad value '-5' for build");
   // Nothing was made of the refused counts.
   EXPECT_TRUE(hyksim::Ports().empty());
}

TEST_F(HostileScenarioTest, TheClockNeverGoesBackwards) {
   // "advance 18446744073709" twice used to wrap the clock back to 0.
   ExpectFailure("advance 18446744073709\n", 1, "bad value '18446744073709' for the seconds");
   // Up to 100 years, and not a microsecond past them.
   const uint64_t ceiling = 100ull * 365 * 86400 * 1000000;
   bool ok = false;
   std::string out = RunText("advance 3153599999\nadvance 1\n", &ok);
   EXPECT_TRUE(ok) << out;
   EXPECT_EQ(hyksim::NowUS(), ceiling);
   std::ostringstream more;
   hyksimtool::Interpreter interp(opts_, more);
   EXPECT_EQ(interp.Execute("advance 0.000001"),
             "advance 0.000001: the host's clock would pass 100 years (it stands at 3153600000.000000 s)");
   EXPECT_EQ(hyksim::NowUS(), ceiling);
   EXPECT_EQ(interp.Execute("advance 0"), "");
   EXPECT_EQ(hyksim::NowUS(), ceiling);
}

TEST_F(HostileScenarioTest, TheHostHoldsNoMoreThanItsLimits) {
   opts_.maxPorts = 10;
   opts_.maxPortsets = 2;
   opts_.maxTakeoverThreads = 3;
   ExpectFailure("portset a\nportset b\nportset c\n", 3,
                 "portset c: the host holds 2 portsets, as many as it may (--max-portsets)");
   ExpectFailure("portset a\nportset b\nports a 6\nports b 5\n", 4,
                 "bad value '5' for the port count: a whole number from 0 to 4 is needed");
   EXPECT_EQ(hyksim::Ports().size(), 6u);
   ExpectFailure("portset a\nports a 2\ntakeover a build=2000 threads=4\n", 3,
                 "bad value '4' for threads: a whole number from 1 to 3 is needed");
   // The in-process tool is held to the same number of takeover threads.
   bool ok = false;
   std::string out = RunText(
      "load client tarnq-vswitch build=1000\n"
      "portset a module=tarnq-vswitch-1000\n"
      "ports a 4 external-id=x\n"
      "lusctl upgrade classic --from-build 1000 --to-build 2000 --portset a --takeover-threads 4 --module-param seed=7\n"
      "expect exit 1\n"
      "expect output \"Limit exceeded\"\n"
      "lusctl recover --from-build 1000 --to-build 2000\n"
      "expect exit 0\n",
      &ok);
   EXPECT_TRUE(ok) << out;
}

TEST_F(HostileScenarioTest, AReadErrorOrALineWithoutEndIsAFailureNotAnEnd) {
   opts_.maxLineBytes = 4096;
   std::ostringstream out;
   hyksimtool::Interpreter interp(opts_, out);
   // `run /dev/zero` used to read until memory ran out, or pass.
   EXPECT_FALSE(interp.RunFile("/dev/zero"));
   EXPECT_NE(out.str().find("/dev/zero:1: a line longer than 4096 bytes"), std::string::npos) << out.str();
   out.str("");
   EXPECT_FALSE(interp.RunFile(::testing::TempDir()));
   EXPECT_NE(out.str().find(":1: cannot read: Is a directory"), std::string::npos) << out.str();
   out.str("");
   EXPECT_FALSE(interp.RunFile("/nonexistent/s.hyk"));
   EXPECT_NE(out.str().find("/nonexistent/s.hyk: cannot open: No such file or directory"), std::string::npos)
      << out.str();
   // A line too long in the middle: the expectation after it never runs, the file fails.
   ExpectFailure("echo first\n" + std::string(5000, 'x') + "\nexpect heap nosuch bytes=5\n", 2,
                 "a line longer than 4096 bytes");
   // A last line without its newline still runs.
   bool ok = false;
   const std::string last = RunText("echo first\necho last", &ok);
   EXPECT_TRUE(ok);
   EXPECT_NE(last.find("last\n"), std::string::npos) << last;
}

TEST_F(HostileScenarioTest, PortReferencesInAWordAreEachReplacedOnce) {
   std::string many;
   for (int i = 0; i < 20000; i++) many += (i ? ",@a#" : "@a#") + std::to_string(i % 3);
   bool ok = false;
   const std::string out = RunText("portset a\nports a 3\necho x=@a#0,@a#2=@a#1 tail\necho " + many + "\n", &ok);
   EXPECT_TRUE(ok) << out.substr(0, 300);
   EXPECT_NE(out.find("x=1,3=2 tail\n"), std::string::npos) << out.substr(0, 300);
   std::string expanded;
   for (int i = 0; i < 20000; i++) expanded += (i ? "," : "") + std::to_string(i % 3 + 1);
   EXPECT_NE(out.find(expanded + "\n"), std::string::npos);
   ExpectFailure("portset a\nports a 3\necho @a#0,@a#3\n", 3, "unknown port 'a#3': portset a has 3 ports");
}

TEST_F(HostileScenarioTest, ModuleNamesAreNamesNotPaths) {
   ExpectFailure("load client ../../tmp/evil build=1000\n", 1,
                 "load: bad module name '../../tmp/evil-1000': a name is letters, digits, '-', '_' and '.', never a path");
   ExpectFailure("load client /etc/x build=1\n", 1, "load: bad module name '/etc/x-1'");
   ExpectFailure("load lus build=../1\n", 1, "bad value '../1' for build");
   ExpectFailure("load client .hidden build=1\n", 1, "load: bad module name '.hidden-1': a name begins with a letter or a digit");
}

TEST_F(HostileScenarioTest, AReportThatCannotBeWrittenSaysWhereAndWhy) {
   const std::string upgrade =
      "load client tarnq-vswitch build=1000\n"
      "portset a module=tarnq-vswitch-1000\n"
      "ports a 4 external-id=x\n"
      "lusctl upgrade classic --from-build 1000 --to-build 2000 --portset a --module-param seed=7\n"
      "expect exit 0\n";
   ExpectFailure(upgrade + "report json=/nonexistent/r.json\n", 6,
                 "report: cannot write /nonexistent/r.json: No such file or directory");
   ExpectFailure(upgrade + "report trace=/dev/full\n", 6, "report: cannot write /dev/full: No space left on device");
}

}  // namespace
