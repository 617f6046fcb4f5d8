// The save command run a second time, for another portset, after a first
// save succeeded.  The save ends by unregistering every client of the
// edition, the new build's among them, so a second save enrols nothing
// unless the new build registers again first; its failed sizing then clears
// the clients, and with them the first portset's saved state -- reported.
#include "world_fixture.h"

namespace lustest {
namespace {

class SecondSaveTest : public WorldTest {
  protected:
   void SetUp() override {
      WorldTest::SetUp();
      LoadNew(3);
      fw_ = Pair("fw", [](TestClientConfig &c) { c.stateSize = 40; });
      for (const char *ps : {"ps0", "ps1"}) {
         hyksim::PortsetSpec desc;
         desc.name = ps;
         desc.fabricVersion = 106;   // every vNIC port is blocked
         ASSERT_EQ(hyksim::AddPortset(desc), HYK_OK);
         for (int i = 0; i < 3; i++) {
            ports_[ps].push_back(AddVnicPort(ps, std::string(ps) + "-vm-" + std::to_string(i), 0));
         }
      }
   }
   static std::vector<lusctl::PortsetArg> Names(const std::vector<std::string> &names) {
      return lusctl::PortsetArgs(names);
   }
   size_t DropLinesFor(const std::string &ps) {
      size_t n = 0;
      for (hyk_PortID p : ports_[ps]) {
         n += hyksim::LogCount("Dropped saved state of port 0x" + Hex(p) + " client fw: 40 bytes never restored");
      }
      return n;
   }

   ClientPair fw_;
   std::map<std::string, std::vector<hyk_PortID>> ports_;
};

TEST_F(SecondSaveTest, SecondSaveWithoutReregisteringFailsAndReportsTheFirstPortsetDropped) {
   lusctl::Client &tool = Tool();
   ASSERT_EQ(tool.Register(LUS_REG_TO, Names({"ps0"})), HYK_OK);
   ASSERT_EQ(tool.BlockPorts(Names({"ps0", "ps1"}), 30), HYK_OK);
   ASSERT_EQ(tool.PreUnload(Names({"ps0"})), HYK_OK);
   EXPECT_EQ(ClientStateBytes(), 3u * 40u);

   EXPECT_EQ(tool.PreUnload(Names({"ps1"})), HYK_NOT_FOUND);
   EXPECT_EQ(hyksim::LogCount("Client fw registered to LUS in from Build only"), 1u);
   EXPECT_EQ(ErrLines("LUS_GetSize", HYK_NOT_FOUND,
                      "FAILED to get total runtime data size for portset ps1 : Not found"),
             1u);
   // The failed sizing cleared the clients, and with them the first portset's state.
   EXPECT_EQ(ClientStateBytes(), 0u);
   EXPECT_EQ(DropLinesFor("ps0"), 3u);
   EXPECT_EQ(hyksim::LogCount("Dropped saved state that was never restored: 3 ports, 3 client "
                              "records, 120 bytes"),
             1u);
   for (hyk_PortID p : ports_["ps0"]) EXPECT_TRUE(Blocked(p)) << p;
}

TEST_F(SecondSaveTest, SecondSaveAfterReregisteringKeepsBothPortsets) {
   lusctl::Client &tool = Tool();
   ASSERT_EQ(tool.Register(LUS_REG_TO, Names({"ps0"})), HYK_OK);
   ASSERT_EQ(tool.BlockPorts(Names({"ps0", "ps1"}), 30), HYK_OK);
   ASSERT_EQ(tool.PreUnload(Names({"ps0"})), HYK_OK);
   // The new build registers again before the second save.
   ASSERT_EQ(tool.Register(LUS_REG_TO, Names({"ps1"})), HYK_OK);
   ASSERT_EQ(tool.PreUnload(Names({"ps1"})), HYK_OK);
   EXPECT_EQ(ClientStateBytes(), 6u * 40u);
   EXPECT_EQ(DropLinesFor("ps0") + DropLinesFor("ps1"), 0u);

   // The classic end: old build out, new build matched, restore events.
   ASSERT_EQ(fw_.from->Unload(), HYK_OK);
   ASSERT_EQ(tool.Register(LUS_REG_TO, Names({"ps0", "ps1"})), HYK_OK);
   for (const char *ps : {"ps0", "ps1"}) {
      for (hyk_PortID p : ports_[ps]) {
         ASSERT_EQ(PostUnblock(ps, p), HYK_OK);
         EXPECT_FALSE(Blocked(p)) << p;
         EXPECT_EQ(fw_.to->restored[p], fw_.from->saved[p]) << p;
      }
   }
   EXPECT_EQ(ClientStateBytes(), 0u);
}

}  // namespace
}  // namespace lustest
