// The device never reads beyond the bytes it copied: a payload too short for
// what a command is about to read is refused with bad parameter and
// "Invalid size of input query", its buffer freed and nothing else done.
// Each refusal is tested at its boundary: exactly enough bytes are accepted,
// one byte fewer is refused.
#include "device_fixture.h"

namespace lustest {
namespace {

using DeviceHardeningTest = DeviceTest;

std::vector<uint8_t> Truncated(std::vector<uint8_t> bytes, size_t len) {
   bytes.resize(len);
   return bytes;
}

TEST_F(DeviceHardeningTest, BlockPortsNeedsTheNineByteHead) {
   Load();
   const uint64_t live = Heap0Live();
   const std::vector<uint8_t> empty = lusctl::PortsetQuery({}, false, 25);
   ASSERT_EQ(empty.size(), 9u);
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_BLOCK_PORTS, Truncated(empty, 8)), HYK_BAD_PARAM);
   EXPECT_EQ(ErrLines("CharDevLUSBlockPorts", HYK_BAD_PARAM, "Invalid size of input query : Bad parameter"), 1u);
   EXPECT_EQ(Var<uint32_t>("maxAllowedOutageTime"), 0u);
   EXPECT_EQ(Heap0Live(), live);

   EXPECT_EQ(Tool().Raw(LUS_IOCTL_BLOCK_PORTS, empty), HYK_OK);
   EXPECT_EQ(Var<uint32_t>("maxAllowedOutageTime"), 25u);
   EXPECT_EQ(LinesWith("Invalid size"), 1u);
}

TEST_F(DeviceHardeningTest, BlockPortsNeedsEveryEntryItCounts) {
   Load();
   AddSwitch("ps-a", 106);
   AddSwitch("ps-b", 106);
   hyk_PortID a = AddPortOf("ps-a", HYK_PORT_CLIENT_VNIC);
   hyk_PortID b = AddPortOf("ps-b", HYK_PORT_CLIENT_VNIC);
   const std::vector<uint8_t> two = lusctl::PortsetQuery(Names({"ps-a", "ps-b"}), false, 0);
   ASSERT_EQ(two.size(), 9u + 2 * 136);
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_BLOCK_PORTS, Truncated(two, two.size() - 1)), HYK_BAD_PARAM);
   EXPECT_EQ(ErrLines("CharDevLUSBlockPorts", HYK_BAD_PARAM, "Invalid size of input query : Bad parameter"), 1u);
   EXPECT_FALSE(Blocked(a));
   EXPECT_FALSE(Blocked(b));
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_BLOCK_PORTS, two), HYK_OK);
   EXPECT_TRUE(Blocked(a));
   EXPECT_TRUE(Blocked(b));
}

TEST_F(DeviceHardeningTest, CswitchEventsNeedTheNineByteHead) {
   Load({"fromBuild=1000"});
   const uint64_t live = Heap0Live();
   const std::vector<uint8_t> empty = lusctl::PortsetQuery({}, false, 0);
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_CSWITCH_EVENTS, Truncated(empty, 8)), HYK_BAD_PARAM);
   EXPECT_EQ(ErrLines("CharDevLUSRaiseCswitchEvents", HYK_BAD_PARAM,
                      "Invalid size of input query : Bad parameter"), 1u);
   EXPECT_EQ(Heap0Live(), live);
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_CSWITCH_EVENTS, empty), HYK_OK);
   EXPECT_EQ(LinesWith("Invalid size"), 1u);
}

TEST_F(DeviceHardeningTest, CswitchEventsNeedEveryEntryTheyCount) {
   Load({"fromBuild=1000"});
   AddSwitch("ps-a");
   AddSwitch("ps-b");
   const std::vector<uint8_t> two = lusctl::PortsetQuery(Names({"ps-a", "ps-b"}), false, 0);
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_CSWITCH_EVENTS, Truncated(two, two.size() - 1)), HYK_BAD_PARAM);
   EXPECT_EQ(ErrLines("CharDevLUSRaiseCswitchEvents", HYK_BAD_PARAM,
                      "Invalid size of input query : Bad parameter"), 1u);
   EXPECT_EQ(hyksim::CallCount("hyk_PortsetAcquireByName"), 0u);
   EXPECT_TRUE(hyksim::FindPortset("ps-a")->events.empty());
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_CSWITCH_EVENTS, two), HYK_OK);
   EXPECT_EQ(hyksim::FindPortset("ps-a")->events.size(), 2u);
   EXPECT_EQ(hyksim::FindPortset("ps-b")->events.size(), 2u);
}

TEST_F(DeviceHardeningTest, PsUpgradeNeedsTheNameField) {
   Load({"fromBuild=1000"});
   TestClient *c = AddClient("sw-old", kFromBuild);
   ASSERT_EQ(Tool().Register(LUS_REG_FROM_V1, {}), HYK_OK);
   const uint64_t live = Heap0Live();
   const std::vector<uint8_t> none = lusctl::PsUpgradeQuery("ps-missing", {});
   ASSERT_EQ(none.size(), 132u);
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_PS_UPGRADE, Truncated(none, 131)), HYK_BAD_PARAM);
   EXPECT_EQ(ErrLines("CharDevLUSPsUpgrade", HYK_BAD_PARAM, "Invalid size of input query : Bad parameter"), 1u);
   EXPECT_EQ(hyksim::CallCount("hyk_WorldCreate"), 0u);
   EXPECT_EQ(Heap0Live(), live);
   // A malformed request changes nothing: the clients stay for a retry.
   EXPECT_NE(c->handle(), nullptr);
   EXPECT_EQ(Var<int32_t>("numFromClients"), 1);

   // Enough bytes: the world runs (and fails on the unknown portset).
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_PS_UPGRADE, none), HYK_NOT_FOUND);
   EXPECT_EQ(hyksim::CallCount("hyk_WorldCreate"), 1u);
}

TEST_F(DeviceHardeningTest, PsUpgradeNeedsEveryModuleEntryItCounts) {
   Load({"fromBuild=1000"});
   const std::vector<uint8_t> three =
      lusctl::PsUpgradeQuery("ps-missing", {{true, 1}, {false, 2}, {true, 3}});
   ASSERT_EQ(three.size(), 132u + 3 * 5);
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_PS_UPGRADE, Truncated(three, three.size() - 1)), HYK_BAD_PARAM);
   EXPECT_EQ(ErrLines("CharDevLUSPsUpgrade", HYK_BAD_PARAM, "Invalid size of input query : Bad parameter"), 1u);
   EXPECT_EQ(hyksim::CallCount("hyk_WorldCreate"), 0u);
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_PS_UPGRADE, three), HYK_NOT_FOUND);
   EXPECT_EQ(hyksim::CallCount("hyk_WorldCreate"), 1u);

   // A count whose entries would run past any payload the header can name.
   std::vector<uint8_t> huge = three;
   const uint32_t count = 0xffffffffu;
   memcpy(huge.data(), &count, sizeof count);
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_PS_UPGRADE, huge), HYK_BAD_PARAM);
   EXPECT_EQ(LinesWith("Invalid size of input query"), 2u);
}

TEST_F(DeviceHardeningTest, FdpNeedsTheHeadAndOneWholeEntry) {
   Load({"fromBuild=1000"});
   AddSwitch("ps-fdp", 107, true);
   const std::vector<uint8_t> one = lusctl::PortsetQuery({{"ps-fdp", 1, 3}}, false, 0);
   ASSERT_EQ(one.size(), 145u);
   const uint64_t live = Heap0Live();
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_FDP_OP, Truncated(one, 144)), HYK_BAD_PARAM);
   EXPECT_EQ(ErrLines("CharDevLUSFdpOp", HYK_BAD_PARAM, "Invalid size of input query : Bad parameter"), 1u);
   EXPECT_EQ(hyksim::CallCount("hyk_FdpSwitchCommand"), 0u);
   EXPECT_EQ(Heap0Live(), live);
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_FDP_OP, one), HYK_OK);
   EXPECT_EQ(hyksim::FindPortset("ps-fdp")->fdpCommands.size(), 1u);
}

// A name that fills its whole 128-byte field with no terminator.
std::vector<uint8_t> WithUnterminatedName(std::vector<uint8_t> payload, size_t nameOffset) {
   memset(payload.data() + nameOffset, 'x', LUS_PORTSET_NAME_LEN);
   return payload;
}

TEST_F(DeviceHardeningTest, UnterminatedNamesAreCutToTheirField) {
   Load({"fromBuild=1000"});
   const std::string cut(127, 'x');
   const std::vector<uint8_t> list =
      WithUnterminatedName(lusctl::PortsetQuery(Names({"x"}), false, 0), sizeof(LusPortsetQuery));

   EXPECT_EQ(Tool().Raw(LUS_IOCTL_BLOCK_PORTS, list), HYK_NOT_FOUND);
   EXPECT_EQ(ErrLines("CharDevLUSBlockPorts", HYK_NOT_FOUND,
                      "Error acquiring portset during port block " + cut + " : Not found"), 1u);
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_CSWITCH_EVENTS, list), HYK_NOT_FOUND);
   EXPECT_EQ(ErrLines("CharDevLUSRaiseCswitchEvents", HYK_NOT_FOUND,
                      "Error acquiring portset lock, ps: " + cut + " : Not found"), 1u);
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_FDP_OP, list), HYK_NOT_FOUND);
   EXPECT_EQ(ErrLines("CharDevLUSFdpOp", HYK_NOT_FOUND, "FDP Operation FAIL, PS: " + cut + " : Not found"), 1u);

   hyksim::FaultSpec desc;
   desc.op = "hyk_WorldCreate";
   desc.nth = 1;
   hyksim::InjectFault(desc);
   EXPECT_EQ(Tool().Raw(LUS_IOCTL_PS_UPGRADE,
                        WithUnterminatedName(lusctl::PsUpgradeQuery("x", {}), offsetof(LusPsUpgradeQuery, psName))),
             HYK_FAILURE);
   EXPECT_EQ(ErrLines("CharDevLUSPsUpgrade", HYK_FAILURE,
                      "Failed to create upgrade world for ps: " + cut + " : Failure"), 1u);

   // The table row of the list commands is a string within its 128 bytes.
   EXPECT_NE(Tool().Raw(LUS_IOCTL_REG_FROM, list), HYK_OK);
   auto &table = Var<char[128][128]>("lusPortset");
   EXPECT_EQ(std::string(table[0], strnlen(table[0], 128)), cut);
   EXPECT_EQ(table[0][127], '\0');
}

}  // namespace
}  // namespace lustest
