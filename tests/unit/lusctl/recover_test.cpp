// `lusctl status` and `lusctl recover`: what a host left by a failed upgrade
// holds, and the way to a clean end from each failable step of the classic
// flow -- every port passes traffic with its state or is listed as given up,
// lus's heaps are empty and no client is pinned.
#include <nlohmann/json.hpp>

#include "lusctl_fixture.h"

namespace lustest {
namespace {

using nlohmann::json;

class LusctlRecoverTest : public LusctlTest {
  protected:
   void FreshHost() {
      hyksim::HostStart();
      host_ = lusctl::MakeSimHost(LUS_MODULES_DIR);
      env_.host = host_.get();
   }

   static void Fail(const std::string &op, bool every = false) {
      hyksim::FaultSpec f;
      f.op = op;
      f.nth = every ? 0 : 1;
      f.every = every;
      hyksim::InjectFault(f);
   }

   // The host is at a clean end: nothing blocked by lus, nothing in its heaps, nothing pinned.
   void ExpectClean() {
      for (const auto &p : hyksim::Ports()) EXPECT_TRUE(p.passesTraffic) << "port " << p.id;
      const lusctl::HostStatus s = lusctl::ReadStatus(*host_);
      EXPECT_EQ(s.stateBytes, 0u);
      EXPECT_TRUE(s.registered.empty()) << fmt::format("{}", fmt::join(s.registered, ", "));
      EXPECT_TRUE(s.blocked.empty());
   }

   static CliRun Has(const CliRun &r, const std::string &text) {
      EXPECT_NE(r.out.find(text), std::string::npos) << "no \"" << text << "\" in:\n" << r.out << r.err;
      return r;
   }
};

const std::vector<std::string> kRecover = {"recover", "--from-build", "1000", "--to-build", "2000"};

std::vector<std::string> With(std::vector<std::string> args, const std::vector<std::string> &more) {
   args.insert(args.end(), more.begin(), more.end());
   return args;
}

struct Stop {
   int step;
   std::string name;
   std::function<void()> fault;   // done as the step begins
   bool forward;                   // past the point of no return
};

// The classic flow stopped at each of its failable steps, then `recover`.
TEST_F(LusctlRecoverTest, RecoverAfterEachFailableStepOfTheClassicFlowEndsClean) {
   const std::vector<Stop> stops = {
      {2, "load new build", [] { Fail("hyk_HeapCreate"); }, false},
      {4, "register", [] { Fail("hyk_NetEventPost"); }, false},
      {5, "block", [] { Fail("hyk_PortsetAcquireByName"); }, false},
      {6, "save", [] { Fail("hyk_PortsetAcquireByName"); }, false},
      {7, "unload old build", [] { hyk_ModuleIncUseCount(hyksim::FindModule("tarnq-dfw-1000")->id); }, false},
      {8, "register", [] { Fail("hyk_NetEventPost"); }, true},
      {9, "new datapath takes over", [] { Fail("hyk_PortsetForAllPorts"); }, true},
      {10, "ports restored", [] { Fail("hyk_PortCustomUnblock", true); }, true},
   };
   for (const auto &stop : stops) {
      SCOPED_TRACE(fmt::format("step {} {}", stop.step, stop.name));
      FreshHost();
      OldHost({{"ps0", 4}, {"ps1", 4}});
      lusctl::FlowOptions opts = Classic();
      // Step 10's fault is armed as the takeover begins: lus can unblock no port.
      const int at = stop.step == 10 ? 9 : stop.step;
      lusctl::FlowResult res = lusctl::RunFlow(env_, opts, [&](const lusctl::StepRecord &s, int, bool done) {
         if (!done && s.index == at) stop.fault();
      });
      hyksim::ClearFaults();
      ASSERT_EQ(res.failedStep, stop.step);
      EXPECT_EQ(res.pastPointOfNoReturn, stop.forward);
      if (stop.step == 7) hyk_ModuleDecUseCount(hyksim::FindModule("tarnq-dfw-1000")->id);

      CliRun r = Run(With(kRecover, {"--unblock-lost", "--allow", "lost"}));
      EXPECT_EQ(r.code, 0) << r.out << r.err;
      ExpectClean();
      if (stop.forward) {
         // Every byte saved reached the new build, or its port is listed as given up.
         for (const char *client : {"tarnq-dfw", "tarnq-stats", "tarnq-vswitch"}) {
            const auto v = hyksim::LedgerOf(client);
            const bool gaveUp = r.out.find("unblocked without their state") != std::string::npos;
            if (!gaveUp) EXPECT_EQ(v.perPort[HYKSIM_LEDGER_VERIFIED].bytes, v.perPort[HYKSIM_LEDGER_SAVED].bytes) << client;
         }
         EXPECT_TRUE(r.out.find("forward to build 2000") != std::string::npos) << r.out;
      } else {
         // Rolled back by the flow already: build 1000 carries on, nothing of 2000 is left.
         EXPECT_TRUE(hyksim::FindModule("tarnq-dfw-1000").has_value());
         EXPECT_FALSE(hyksim::FindModule("tarnq-dfw-2000").has_value());
         EXPECT_FALSE(hyksim::FindModule("lus").has_value());
      }
   }
}

// A restore the new client refuses: status names the port and what lus
// holds for it; recover retries (the client refuses again: exit 3, the port
// named); once the client is mended, recover restores it.
TEST_F(LusctlRecoverTest, StatusNamesTheHeldPortAndRecoverRestoresItOnceTheClientTakesIt) {
   OldHost({{"ps0", 4}});
   const uint32_t port = hyksim::Ports("ps0").at(2).id;
   CliRun flow = Run({"upgrade", "classic", "--from-build", "1000", "--to-build", "2000", "--portset", "ps0",
                      "--module-param", "seed=7", "--module-param", "tarnq-dfw:failSlot=3", "--module-param",
                      fmt::format("tarnq-dfw:failPort={}", port)});
   EXPECT_EQ(flow.code, 1) << flow.out;

   CliRun status = Has(Run({"status"}), "ps0#2");
   EXPECT_EQ(status.code, 0);
   Has(status, "blocked:   1 port(s) blocked by lus");
   Has(status, "state: tarnq-dfw ");
   Has(status, "lus's clear timer is armed");
   // Build 1000 is gone: the tool cannot know it and says where it goes.
   Has(status, "an upgrade was left unfinished: lusctl recover --from-build FROM --to-build 2000");
   json j = json::parse(Run({"--json", "status"}).out);
   ASSERT_EQ(j["portsBlocked"].size(), 1u);
   EXPECT_EQ(j["portsBlocked"][0]["name"], "ps0#2");
   EXPECT_EQ(j["portsBlocked"][0]["vm"], "ps0-vm-1");
   EXPECT_EQ(j["portsBlocked"][0]["vnic"], 0);
   EXPECT_GT(j["portsBlocked"][0]["heldBytes"]["tarnq-dfw"].get<uint64_t>(), 0u);
   EXPECT_GT(j["stateBytesInLusHeaps"].get<uint64_t>(), 0u);
   EXPECT_TRUE(j["clearTimer"]["armed"].get<bool>());
   EXPECT_TRUE(j["unfinished"].get<bool>());

   CliRun again = Run(kRecover);
   EXPECT_EQ(again.code, 3) << again.out;
   Has(again, "violation: blocked: 1 port(s) do not pass traffic: ps0#2");
   Has(again, "1 port(s) asked again, 0 restored, 1 still blocked; failed again: ps0#2: 0xbad0001 Failure");

   std::string error;
   ASSERT_EQ(hyksim::SetModuleParams("tarnq-dfw-2000", {"failSlot=-1"}, &error), HYK_OK) << error;
   CliRun mended = Run(kRecover);
   EXPECT_EQ(mended.code, 0) << mended.out;
   Has(mended, "1 port(s) asked again, 1 restored, 0 still blocked");
   Has(mended, "recovery of the upgrade 1000 -> 2000: completed");
   ExpectClean();
   const auto dfw = hyksim::LedgerOf("tarnq-dfw");
   EXPECT_EQ(dfw.perPort[HYKSIM_LEDGER_VERIFIED].bytes, dfw.perPort[HYKSIM_LEDGER_SAVED].bytes);
   Has(Run({"status"}), "no upgrade is unfinished");
}

// The clear timer drops the held state: the port cannot come back by itself;
// recover says so, and with --unblock-lost gives it up, listing it.
TEST_F(LusctlRecoverTest, APortWhoseStateTheClearTimerDroppedIsLostUntilGivenUp) {
   VirtualHost();
   OldHost({{"ps0", 4}});
   const uint32_t port = hyksim::Ports("ps0").at(3).id;
   Run({"upgrade", "classic", "--from-build", "1000", "--to-build", "2000", "--portset", "ps0", "--module-param",
        "seed=7", "--module-param", "tarnq-stats:failSlot=3", "--module-param",
        fmt::format("tarnq-stats:failPort={}", port)});
   hyksim::AdvanceClock(121 * 1000000ull);
   CliRun lost = Run(kRecover);
   EXPECT_EQ(lost.code, 3) << lost.out;
   Has(lost, "violation: lost: 1 port(s) blocked with no state left in lus");
   Has(lost, "ps0#3");
   CliRun given = Run(With(kRecover, {"--unblock-lost"}));
   EXPECT_EQ(given.code, 3) << given.out;
   Has(given, "violation: lost: 1 port(s) unblocked without their state: ps0#3 (port 4): no state left");
   ExpectClean();
}

// The per-portset flow stopped past its point of no return (its fast
// datapath switch fails): `recover --flow portset` finishes it.
TEST_F(LusctlRecoverTest, RecoverFinishesAPortsetFlowStoppedAfterItsPortsetUpgrade) {
   OldHost({{"ps0", 4}}, {}, 0, true);
   std::string error;
   ASSERT_EQ(host_->LoadModule("tarnq-stub-vswitch-1000", {}, &error), HYK_OK);
   ASSERT_EQ(host_->LoadModule("tarnq-fdp-1000", {}, &error), HYK_OK);
   hyksim::FaultSpec f;
   f.op = "hyk_FdpSwitchCommand";
   f.nth = 1;
   hyksim::InjectFault(f);
   CliRun flow = Run({"upgrade", "portset", "--from-build", "1000", "--to-build", "2000", "--portset", "ps0",
                      "--module-param", "seed=7"});
   hyksim::ClearFaults();
   EXPECT_EQ(flow.code, 1) << flow.out;
   Has(flow, "past the point of no return (step 8 'ps-upgrade ps0')");
   EXPECT_TRUE(hyksim::FindModule("lus").has_value());
   CliRun r = Run(With(kRecover, {"--flow", "portset"}));
   EXPECT_EQ(r.code, 0) << r.out << r.err;
   Has(r, "forward to build 2000");
   EXPECT_FALSE(hyksim::FindModule("lus").has_value());
   EXPECT_FALSE(hyksim::FindModule("tarnq-dfw-1000").has_value());
   ExpectClean();
}

}  // namespace
}  // namespace lustest
