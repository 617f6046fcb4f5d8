// Tests of the two switch-facing helpers the upgrade world drives: the port
// block visitor and the switch's upgrade-property namespaces and cswitch
// events, called as the world calls them.
#include "world_fixture.h"

namespace lustest {
namespace {

using PortBlockFn = hyk_Status(hyk_Portset *, hyk_PortID, void *);
using RegUnregFn = hyk_Status(const char *, const void *, bool);
using RaiseFn = hyk_Status(hyk_Portset *);

class WorldSwitchTest : public WorldTest {
  protected:
   void SetUp() override {
      WorldTest::SetUp();
      LoadNew(5);
      hyksim::PortsetSpec desc;
      desc.name = "ps0";
      ASSERT_EQ(hyksim::AddPortset(desc), HYK_OK);
   }
   hyk_PortID Port(uint32_t clientType, uint32_t flags = 0, bool externalID = false) {
      hyksim::PortSpec desc;
      desc.clientType = clientType;
      desc.vmUUID = "vm";
      desc.flags = flags;
      if (externalID) desc.properties["com.corvid.port.extraConfig.vnic.external.id"] = "ext";
      hyk_PortID id = 0;
      EXPECT_EQ(hyksim::AddPort("ps0", desc, &id), HYK_OK);
      return id;
   }
   hyk_Status Block(hyk_PortID port, uint8_t flag) {
      return AsLus([&] { return LusFn<PortBlockFn>("lusPortBlock")(nullptr, port, &flag); });
   }
   // The command 9 payload: the portset name and the module entries, packed.
   static std::vector<uint8_t> Payload(const std::vector<std::pair<uint8_t, uint32_t>> &modules) {
      std::vector<uint8_t> p(132 + 5 * modules.size(), 0);
      uint32_t n = static_cast<uint32_t>(modules.size());
      std::memcpy(p.data(), &n, 4);
      std::memcpy(p.data() + 4, "ps0", 3);
      for (size_t i = 0; i < modules.size(); i++) {
         p[132 + 5 * i] = modules[i].first;
         std::memcpy(p.data() + 133 + 5 * i, &modules[i].second, 4);
      }
      return p;
   }
   hyk_Status RegUnreg(const std::vector<uint8_t> &payload, bool reg) {
      return AsLus([&] { return LusFn<RegUnregFn>("LUSFabricPropUpgradeRegUnreg")("ps0", payload.data(), reg); });
   }
};

// ---- port blocking -----------------------------------------------------------

TEST_F(WorldSwitchTest, UplinkAndInternalPortsAreNeverBlockedNorLogged) {
   hyk_PortID uplink = Port(HYK_PORT_CLIENT_UPLINK);
   hyk_PortID internal = Port(HYK_PORT_CLIENT_INTERNAL);
   for (uint8_t flag : {0, 1}) {
      EXPECT_EQ(Block(uplink, flag), HYK_OK);
      EXPECT_EQ(Block(internal, flag), HYK_OK);
   }
   EXPECT_FALSE(Blocked(uplink));
   EXPECT_FALSE(Blocked(internal));
   EXPECT_EQ(CountModuleLines("lusPortBlock port:"), 0u);
   EXPECT_EQ(hyksim::CallCount("hyk_PortCustomBlock"), 0u);
}

TEST_F(WorldSwitchTest, WithFlagOneAVnicWithoutLspgFlagOrExternalIdIsSkippedWithSuccess) {
   hyk_PortID plain = Port(HYK_PORT_CLIENT_VNIC);
   hyk_PortID lspg = Port(HYK_PORT_CLIENT_VNIC, HYK_FABRIC_PORT_FLAG_LSPG);
   hyk_PortID ext = Port(HYK_PORT_CLIENT_VNIC, 0, true);
   EXPECT_EQ(Block(plain, 1), HYK_OK);
   EXPECT_EQ(Block(lspg, 1), HYK_OK);
   EXPECT_EQ(Block(ext, 1), HYK_OK);
   EXPECT_FALSE(Blocked(plain));
   EXPECT_TRUE(Blocked(lspg));
   EXPECT_TRUE(Blocked(ext));
}

TEST_F(WorldSwitchTest, WithFlagZeroTheLspgFlagAndThePropertyAreNeverRead) {
   hyk_PortID vnic = Port(HYK_PORT_CLIENT_VNIC);
   hyk_PortID container = Port(HYK_PORT_CLIENT_CONTAINER);
   EXPECT_EQ(Block(vnic, 0), HYK_OK);
   EXPECT_EQ(Block(container, 0), HYK_OK);
   EXPECT_TRUE(Blocked(vnic));
   EXPECT_TRUE(Blocked(container));
   EXPECT_EQ(hyksim::CallCount("hyk_FabricPortFlagIsSet"), 0u);
   EXPECT_EQ(hyksim::CallCount("hyk_FabricPortDataGet"), 0u);
   EXPECT_EQ(InfoLines("lusPortBlock", "lusPortBlock port: 0x" + Hex(vnic) + " (" + std::to_string(vnic) + ")", 5), 1u);
}

// ---- upgrade-property namespaces and cswitch events ---------------------------

TEST_F(WorldSwitchTest, RegisteringAModuleThatIsAlreadyRegisteredSucceeds) {
   hyk_ModuleID mod = SwitchModule("tarnq-vswitch-2000", "etherswitch");
   auto payload = Payload({{0, mod}});
   EXPECT_EQ(RegUnreg(payload, true), HYK_OK);
   EXPECT_EQ(RegUnreg(payload, true), HYK_OK);
   auto view = hyksim::FindPortset("ps0");
   EXPECT_EQ(view->upgradeNamespaces["tarnUpgradeToBuild"], std::vector<hyk_ModuleID>{mod});
   EXPECT_EQ(CountModuleLines("Failed to register module"), 0u);
}

TEST_F(WorldSwitchTest, WithNoModulesRegistrationAcquiresAndReleasesThePortsetAndSucceeds) {
   EXPECT_EQ(RegUnreg(Payload({}), true), HYK_OK);
   EXPECT_EQ(hyksim::CallCount("hyk_PortsetAcquireByName"), 1u);
   EXPECT_FALSE(PortsetHeld("ps0"));
   EXPECT_EQ(hyksim::CallCount("hyk_PortsetFabricPropUpgradeRegister"), 0u);
}

TEST_F(WorldSwitchTest, WhenTheDeactivateEventCannotBePostedNoActivateEventIsPosted) {
   hyk_Portset *ps = nullptr;
   ASSERT_EQ(AsLus([&] { return hyk_PortsetAcquireByName("ps0", 2, &ps); }), HYK_OK);
   hyksim::InjectFault(Fault("hyk_NetEventPortsetEventPost", 1, HYK_BUSY));
   EXPECT_EQ(AsLus([&] { return LusFn<RaiseFn>("lusRaiseCswitchEvents")(ps); }), static_cast<hyk_Status>(HYK_BUSY));
   AsLus([&] { hyk_PortsetRelease(&ps); });
   EXPECT_EQ(hyksim::CallCount("hyk_NetEventPortsetEventPost"), 1u);
   EXPECT_TRUE(hyksim::FindPortset("ps0")->events.empty());
   EXPECT_EQ(ErrLines("lusPostCswitchEvent", HYK_BUSY,
                      "Failed to post netevent com.corvid.tarn.lus.cswitch.deactivate.1000 on ps ps0 : Busy") +
                ErrLines("lusRaiseCswitchEvents", HYK_BUSY,
                         "Failed to post netevent com.corvid.tarn.lus.cswitch.deactivate.1000 on ps ps0 : Busy"),
             1u);
}

}  // namespace
}  // namespace lustest
