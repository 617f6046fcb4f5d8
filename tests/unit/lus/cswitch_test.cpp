// Tests of the switch routines of a portset upgrade: registering modules
// with the switch's upgrade-property namespaces and raising the cswitch
// deactivate/activate events.
#include "device_fixture.h"

namespace lustest {
namespace {

using CswitchTest = DeviceTest;
using RegUnregFn = hyk_Status(const char *, const LusPsUpgradeQuery *, bool);
using RaiseFn = hyk_Status(hyk_Portset *);

hyk_Status RegUnreg(const std::string &ps, const std::vector<lusctl::ModuleArg> &modules, bool reg) {
   std::vector<uint8_t> payload = lusctl::PsUpgradeQuery(ps, modules);
   return AsLus([&] {
      return LusFn<RegUnregFn>("LUSFabricPropUpgradeRegUnreg")(
         ps.c_str(), reinterpret_cast<const LusPsUpgradeQuery *>(payload.data()), reg);
   });
}

hyk_Status Raise(const std::string &name) {
   return AsLus([&] {
      hyk_Portset *ps = nullptr;
      hyk_Status st = hyk_PortsetAcquireByName(name.c_str(), HYK_PORTSET_ACCESS_EXCL, &ps);
      if (st != HYK_OK) return st;
      st = LusFn<RaiseFn>("lusRaiseCswitchEvents")(ps);
      hyk_PortsetRelease(&ps);
      return st;
   });
}

using Namespaces = std::map<std::string, std::vector<hyk_ModuleID>>;

TEST_F(CswitchTest, ModulesAreRegisteredUnderTheirBuildsNamespaceAndUnregistered) {
   Load({"fromBuild=1000"});
   AddSwitch("ps");
   ASSERT_EQ(RegUnreg("ps", {{true, 11}, {false, 22}, {true, 33}}, true), HYK_OK);
   Namespaces expected = {{"tarnUpgradeFromBuild", {11, 33}}, {"tarnUpgradeToBuild", {22}}};
   EXPECT_EQ(hyksim::FindPortset("ps")->upgradeNamespaces, expected);
   EXPECT_EQ(hyksim::FindPortset("ps")->acquireCount, 0u);

   ASSERT_EQ(RegUnreg("ps", {{true, 11}, {false, 22}, {true, 33}}, false), HYK_OK);
   const auto view = hyksim::FindPortset("ps");
   ASSERT_TRUE(view.has_value());
   for (const auto &[ns, modules] : view->upgradeNamespaces) {
      EXPECT_TRUE(modules.empty()) << ns;
   }
   EXPECT_EQ(hyksim::FindPortset("ps")->acquireCount, 0u);
}

TEST_F(CswitchTest, RegisteringAModuleThatIsAlreadyRegisteredSucceeds) {
   Load({"fromBuild=1000"});
   AddSwitch("ps");
   ASSERT_EQ(RegUnreg("ps", {{false, 22}}, true), HYK_OK);
   // Already registered, and as the last entry: still success.
   EXPECT_EQ(RegUnreg("ps", {{true, 11}, {false, 22}}, true), HYK_OK);
   Namespaces expected = {{"tarnUpgradeFromBuild", {11}}, {"tarnUpgradeToBuild", {22}}};
   EXPECT_EQ(hyksim::FindPortset("ps")->upgradeNamespaces, expected);
   EXPECT_EQ(LinesWith("Failed to register module"), 0u);
}

TEST_F(CswitchTest, ZeroModuleEntriesAcquireAndReleaseThePortsetAndSucceed) {
   Load({"fromBuild=1000"});
   AddSwitch("ps");
   EXPECT_EQ(RegUnreg("ps", {}, true), HYK_OK);
   EXPECT_EQ(hyksim::CallCount("hyk_PortsetAcquireByName"), 1u);
   EXPECT_EQ(hyksim::CallCount("hyk_PortsetFabricPropUpgradeRegister"), 0u);
   EXPECT_EQ(hyksim::FindPortset("ps")->acquireCount, 0u);
   EXPECT_EQ(RegUnreg("ps", {}, false), HYK_OK);
   EXPECT_EQ(hyksim::CallCount("hyk_PortsetAcquireByName"), 2u);
}

TEST_F(CswitchTest, RegistrationStopsAtTheFirstFailure) {
   Load({"fromBuild=1000"});
   AddSwitch("ps");
   hyksim::FaultSpec desc;
   desc.op = "hyk_PortsetFabricPropUpgradeRegister";
   desc.nth = 2;
   hyksim::InjectFault(desc);
   EXPECT_EQ(RegUnreg("ps", {{true, 11}, {false, 22}, {true, 33}}, true), HYK_FAILURE);
   EXPECT_EQ(ErrLines("LUSFabricPropUpgradeRegUnreg", HYK_FAILURE,
                      "Failed to register module 22 with namespace tarnUpgradeToBuild : Failure"), 1u);
   Namespaces expected = {{"tarnUpgradeFromBuild", {11}}};
   EXPECT_EQ(hyksim::FindPortset("ps")->upgradeNamespaces, expected);
   EXPECT_EQ(hyksim::FindPortset("ps")->acquireCount, 0u);
}

TEST_F(CswitchTest, UnregistrationFailureEndsTheLoopWithALevelThreeLine) {
   Load({"fromBuild=1000"});
   AddSwitch("ps");
   ASSERT_EQ(RegUnreg("ps", {{true, 11}}, true), HYK_OK);
   // 22 was never registered: the host says not found.
   EXPECT_EQ(RegUnreg("ps", {{false, 22}, {true, 11}}, false), HYK_NOT_FOUND);
   EXPECT_EQ(PlainLines("LUSFabricPropUpgradeRegUnreg",
                        "Failed(Not found) to unregister module 22 from namespace tarnUpgradeToBuild", 3), 1u);
   Namespaces expected = {{"tarnUpgradeFromBuild", {11}}};
   EXPECT_EQ(hyksim::FindPortset("ps")->upgradeNamespaces, expected);
}

TEST_F(CswitchTest, UnknownPortsetIsReportedWithItsName) {
   Load({"fromBuild=1000"});
   EXPECT_EQ(RegUnreg("ps-missing", {{true, 1}}, true), HYK_NOT_FOUND);
   EXPECT_EQ(ErrLines("LUSFabricPropUpgradeRegUnreg", HYK_NOT_FOUND,
                      "Error acquiring portset lock ps-missing : Not found"), 1u);
}

TEST_F(CswitchTest, DeactivationOfTheFromBuildIsPostedBeforeActivationOfTheToBuild) {
   Load({"fromBuild=1000"});
   AddSwitch("ps", 107, false, "cswitch");
   ASSERT_EQ(Raise("ps"), HYK_OK);
   EXPECT_EQ(hyksim::FindPortset("ps")->events,
             (std::vector<std::string>{"com.corvid.tarn.lus.cswitch.deactivate.1000",
                                       "com.corvid.tarn.lus.cswitch.activate.2000"}));
}

TEST_F(CswitchTest, IfTheDeactivateEventCannotBePostedNoActivateEventIs) {
   Load({"fromBuild=1000"});
   AddSwitch("ps", 107, false, "cswitch");
   hyksim::FaultSpec desc;
   desc.op = "hyk_NetEventPortsetEventPost";
   desc.nth = 1;
   hyksim::InjectFault(desc);
   EXPECT_EQ(Raise("ps"), HYK_FAILURE);
   EXPECT_EQ(ErrLines("lusRaiseCswitchEvents", HYK_FAILURE,
                      "Failed to post netevent com.corvid.tarn.lus.cswitch.deactivate.1000 on ps ps : Failure"),
             1u);
   EXPECT_TRUE(hyksim::FindPortset("ps")->events.empty());
   EXPECT_EQ(hyksim::CallCount("hyk_NetEventPortsetEventPost"), 1u);
}

TEST_F(CswitchTest, AFailedActivationIsReturnedAfterTheDeactivation) {
   Load({"fromBuild=1000"});
   AddSwitch("ps", 107, false, "cswitch");
   hyksim::FaultSpec desc;
   desc.op = "hyk_NetEventPortsetEventPost";
   desc.nth = 2;
   desc.status = HYK_NO_MEMORY;
   hyksim::InjectFault(desc);
   EXPECT_EQ(Raise("ps"), HYK_NO_MEMORY);
   EXPECT_EQ(ErrLines("lusRaiseCswitchEvents", HYK_NO_MEMORY,
                      "Failed to post netevent com.corvid.tarn.lus.cswitch.activate.2000 on ps ps : Out of memory"),
             1u);
   EXPECT_EQ(hyksim::FindPortset("ps")->events,
             (std::vector<std::string>{"com.corvid.tarn.lus.cswitch.deactivate.1000"}));
}

TEST_F(CswitchTest, WithoutFromBuildTheDeactivateEventCarriesTheUnsetValue) {
   Load();
   AddSwitch("ps", 107, false, "cswitch");
   ASSERT_EQ(Raise("ps"), HYK_OK);
   EXPECT_EQ(hyksim::FindPortset("ps")->events.front(), "com.corvid.tarn.lus.cswitch.deactivate.4294967295");
}

}  // namespace
}  // namespace lustest
