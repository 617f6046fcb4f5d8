// Tests of port blocking: the per-port visitor lusPortBlock, called here
// directly as the block command and the upgrade world call it, and the
// module's answer to "is an upgrade in progress".
#include "device_fixture.h"

namespace lustest {
namespace {

using PortBlockTest = DeviceTest;
using PortBlockFn = hyk_Status(hyk_Portset *, hyk_PortID, void *);

hyk_Status PortBlock(hyk_PortID port, uint8_t flag) {
   return AsLus([&] { return LusFn<PortBlockFn>("lusPortBlock")(nullptr, port, &flag); });
}

TEST_F(PortBlockTest, UplinkAndInternalPortsAreNeverBlockedNorLogged) {
   Load({"lusLogLevel=5"});
   AddSwitch("ps");
   hyk_PortID uplink = AddPortOf("ps", HYK_PORT_CLIENT_UPLINK, HYK_FABRIC_PORT_FLAG_LSPG, true);
   hyk_PortID internal = AddPortOf("ps", HYK_PORT_CLIENT_INTERNAL, HYK_FABRIC_PORT_FLAG_LSPG, true);
   for (uint8_t flag : {0, 1}) {
      EXPECT_EQ(PortBlock(uplink, flag), HYK_OK);
      EXPECT_EQ(PortBlock(internal, flag), HYK_OK);
   }
   EXPECT_FALSE(Blocked(uplink));
   EXPECT_FALSE(Blocked(internal));
   EXPECT_EQ(hyksim::CallCount("hyk_PortCustomBlock"), 0u);
   EXPECT_EQ(LinesWith("lusPortBlock"), 0u);
}

TEST_F(PortBlockTest, WithFlagOneAVnicWithoutLspgOrExternalIdIsSkipped) {
   Load({"lusLogLevel=5"});
   AddSwitch("ps");
   hyk_PortID plain = AddPortOf("ps", HYK_PORT_CLIENT_VNIC);
   EXPECT_EQ(PortBlock(plain, 1), HYK_OK);
   EXPECT_FALSE(Blocked(plain));
   EXPECT_EQ(hyksim::CallCount("hyk_FabricPortFlagIsSet"), 1u);
   EXPECT_EQ(hyksim::CallCount("hyk_FabricPortDataGet"), 1u);
   EXPECT_EQ(LinesWith("lusPortBlock port:"), 0u);
}

TEST_F(PortBlockTest, WithFlagOneLspgOrExternalIdBlocks) {
   Load({"lusLogLevel=5"});
   AddSwitch("ps");
   hyk_PortID lspg = AddPortOf("ps", HYK_PORT_CLIENT_VNIC, HYK_FABRIC_PORT_FLAG_LSPG);
   hyk_PortID ext = AddPortOf("ps", HYK_PORT_CLIENT_CONTAINER, 0, true);
   EXPECT_EQ(PortBlock(lspg, 1), HYK_OK);
   EXPECT_EQ(PortBlock(ext, 1), HYK_OK);
   EXPECT_TRUE(Blocked(lspg));
   EXPECT_TRUE(Blocked(ext));
   // The LSPG flag alone decides: the property is read only for the second port.
   EXPECT_EQ(hyksim::CallCount("hyk_FabricPortDataGet"), 1u);
   char msg[64];
   snprintf(msg, sizeof msg, "lusPortBlock port: 0x%x (%d)", lspg, lspg);
   EXPECT_EQ(PlainLines("lusPortBlock", msg, 5), 1u);
}

TEST_F(PortBlockTest, WithFlagZeroNeitherLspgFlagNorPropertyIsRead) {
   Load();
   AddSwitch("ps");
   hyk_PortID vnic = AddPortOf("ps", HYK_PORT_CLIENT_VNIC);
   hyk_PortID container = AddPortOf("ps", HYK_PORT_CLIENT_CONTAINER);
   EXPECT_EQ(PortBlock(vnic, 0), HYK_OK);
   EXPECT_EQ(PortBlock(container, 0), HYK_OK);
   EXPECT_TRUE(Blocked(vnic));
   EXPECT_TRUE(Blocked(container));
   EXPECT_EQ(hyksim::CallCount("hyk_FabricPortFlagIsSet"), 0u);
   EXPECT_EQ(hyksim::CallCount("hyk_FabricPortDataGet"), 0u);
   // Below level 5 the per-port line is not written.
   EXPECT_EQ(LinesWith("lusPortBlock port:"), 0u);
   // The block reason is the module's own.
   EXPECT_EQ(hyksim::FindPort(vnic)->blockReasons, static_cast<uint32_t>(HYK_PORT_BLOCK_CUSTOM));
}

TEST_F(PortBlockTest, FailuresToReadThePortAreLoggedAndReturned) {
   Load();
   AddSwitch("ps");
   hyk_PortID vnic = AddPortOf("ps", HYK_PORT_CLIENT_VNIC);
   EXPECT_EQ(PortBlock(0xdead, 0), HYK_NOT_FOUND);
   EXPECT_EQ(ErrLines("lusPortBlock", HYK_NOT_FOUND, "Failed to get port client type : Not found"), 1u);

   hyksim::FaultSpec desc;
   desc.op = "hyk_FabricPortFlagIsSet";
   desc.nth = 1;
   hyksim::InjectFault(desc);
   EXPECT_EQ(PortBlock(vnic, 1), HYK_FAILURE);
   EXPECT_EQ(ErrLines("lusPortBlock", HYK_FAILURE,
                      "Failed to get LSPG flag for port " + std::to_string(vnic) + " : Failure"), 1u);
   EXPECT_FALSE(Blocked(vnic));
}

TEST_F(PortBlockTest, AnUpgradeIsAlwaysInProgressWhileLoaded) {
   Load();
   EXPECT_EQ(AsLus([] { return LusFn<int32_t()>("LUS_UpgradeInProgress")(); }), 1);
}

}  // namespace
}  // namespace lustest
