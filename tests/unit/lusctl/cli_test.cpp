// The command line of lusctl: every subcommand's argument errors, single
// device commands with their text and JSON results, and the dry run.
#include <nlohmann/json.hpp>

#include "lusctl_fixture.h"

namespace lustest {
namespace {

using LusctlCliTest = LusctlTest;

struct BadArgs {
   std::vector<std::string> args;
   std::string says;   // a piece of the error message
};

// Each is refused before anything reaches the device: exit code 2, a clear
// message on the error stream and a pointer to the usage.
TEST_F(LusctlCliTest, ArgumentErrorsOfEverySubcommandExitTwoWithAClearMessage) {
   const std::vector<BadArgs> cases = {
      {{}, "A subcommand is required"},
      {{"sideways"}, "sideways"},
      {{"register"}, "--type is required"},
      {{"register", "--type", "sideways"}, "sideways not in"},
      {{"block"}, "--portset is required"},
      {{"block", "--portset", "ps0", "--max-outage", "soon"}, "soon"},
      {{"save"}, "--portset is required"},
      {{"restore"}, "--portset is required"},
      {{"pre-dual-load", "extra"}, "extra"},
      {{"global-config", "--portset", "ps0"}, "--portset"},
      {{"ps-upgrade"}, "--portset is required"},
      {{"upgrade-port"}, "--port is required"},
      {{"upgrade-port", "--port", "7", "--mode", "300"}, "300"},
      {{"collection-complete", "x"}, "x"},
      {{"restore-complete", "x"}, "x"},
      {{"fdp", "--portset", "ps0"}, "--op is required"},
      {{"fdp", "--portset", "ps0", "--op", "sideways"}, "sideways not in"},
      {{"cswitch-events"}, "--portset is required"},
      {{"raw"}, "CMD is required"},
      {{"raw", "minus"}, "minus"},
      {{"upgrade"}, "A subcommand is required"},
      {{"upgrade", "classic"}, "--from-build is required"},
      {{"upgrade", "classic", "--from-build", "1000", "--to-build", "2000"}, "--portset is required"},
      {{"upgrade", "portset", "--from-build", "x", "--to-build", "2000", "--portset", "a"}, "x"},
   };
   for (const auto &c : cases) {
      CliRun r = Run(c.args);
      std::string joined = fmt::format("{}", fmt::join(c.args, " "));
      EXPECT_EQ(r.code, 2) << joined;
      EXPECT_NE(r.err.find(c.says), std::string::npos) << joined << " said: " << r.err;
      EXPECT_NE(r.err.find("--help"), std::string::npos) << joined;
   }
}

// Arguments the parser accepts but the tool cannot use are refused with exit code 2 too.
TEST_F(LusctlCliTest, MalformedValuesAreRefusedBeforeTheDevice) {
   ASSERT_EQ(LoadLus({"fromBuild=1000"}), HYK_OK);
   CliRun hex = Run({"raw", "4", "--payload-hex", "abc"});
   EXPECT_EQ(hex.code, 2);
   EXPECT_NE(hex.err.find("even number of hexadecimal digits"), std::string::npos);
   CliRun module = Run({"ps-upgrade", "--portset", "ps0", "--module", "sideways:x"});
   EXPECT_EQ(module.code, 2);
   EXPECT_NE(module.err.find("expected from:NAME or to:NAME"), std::string::npos);
   CliRun unknown = Run({"ps-upgrade", "--portset", "ps0", "--module", "from:no-such-module"});
   EXPECT_EQ(unknown.code, 2);
   EXPECT_NE(unknown.err.find("no such module is loaded"), std::string::npos);
   // Nothing reached the device: lus copies every command's header from the caller.
   EXPECT_EQ(hyksim::CallCount("hyk_CopyFromUser"), 0u);
}

TEST_F(LusctlCliTest, HelpListsEveryCommandAndExitsZero) {
   CliRun r = Run({"--help"});
   EXPECT_EQ(r.code, 0);
   for (const char *name : {"register", "block", "save", "restore", "pre-dual-load", "global-config",
                            "ps-upgrade", "upgrade-port", "collection-complete", "restore-complete",
                            "fdp", "cswitch-events", "raw", "upgrade"}) {
      EXPECT_NE(r.out.find(name), std::string::npos) << name;
   }
   CliRun sub = Run({"upgrade", "classic", "--help"});
   EXPECT_EQ(sub.code, 0);
   EXPECT_NE(sub.out.find("--max-outage"), std::string::npos);
}

TEST_F(LusctlCliTest, SingleCommandsReachTheDeviceWithTextAndJsonResults) {
   ASSERT_EQ(LoadLus({"fromBuild=1000"}), HYK_OK);
   CliRun ok = Run({"restore-complete"});
   EXPECT_EQ(ok.code, 0);
   EXPECT_EQ(ok.out, "restore-complete (command 12): 0x0 Success\n");

   CliRun failed = Run({"save", "--portset", "nosuch"});
   EXPECT_EQ(failed.code, 1);
   EXPECT_EQ(failed.err, "lusctl: save (command 4) failed: 0xbad0003 Not found\n");

   CliRun json = Run({"--json", "block", "--portset", "nosuch", "--max-outage", "5"});
   EXPECT_EQ(json.code, 1);
   auto j = nlohmann::json::parse(json.out);
   EXPECT_EQ(j["number"], 6);
   EXPECT_EQ(j["status"], 0xbad0003u);
   EXPECT_EQ(j["statusText"], "Not found");

   // A raw payload: command 6 with a count of 200 portsets is refused by lus itself.
   CliRun raw = Run({"raw", "6", "--payload-hex", "c80000000000000000"});
   EXPECT_EQ(raw.code, 1);
   EXPECT_NE(raw.err.find("0xbad0007 Bad parameter"), std::string::npos);
   EXPECT_EQ(hyksim::LogCount("Invalid number of portsets 200"), 1u);
}

TEST_F(LusctlCliTest, WithoutLusTheDeviceCannotBeOpened) {
   CliRun r = Run({"restore-complete"});
   EXPECT_EQ(r.code, 1);
   EXPECT_EQ(r.err, "lusctl: cannot open the device \"lus\": 0xbad0003 Not found\n");
}

// A dry run prints every step with its payload and touches nothing.
TEST_F(LusctlCliTest, DryRunPrintsTheStepsAndTheirPayloadsAndDoesNothing) {
   OldHost({{"ps0", 4}});
   CliRun r = Run({"upgrade", "classic", "--from-build", "1000", "--to-build", "2000", "--portset",
                   "ps0", "--dry-run"});
   EXPECT_EQ(r.code, 0) << r.err;
   EXPECT_NE(r.out.find("[ 6/11] save -- save (command 4): payload 01000000"), std::string::npos) << r.out;
   EXPECT_NE(r.out.find("[ 1/11] load lus: host action"), std::string::npos);
   EXPECT_FALSE(hyksim::FindModule("lus"));
   EXPECT_FALSE(hyksim::FindModule("tarnq-dfw-2000"));
}

}  // namespace
}  // namespace lustest
