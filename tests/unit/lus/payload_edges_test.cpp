// Every count and length field of the device's payloads at its edges: 0,
// one below the exact value, the exact value, one above, and the limits of
// 8, 16 and 32 bits (and the sign bit).  The expectation of each case comes
// from the protocol's rule for that field, not from what the module did:
//
//   commands 0-5   the count decides what is copied (count * 136 + 9 bytes);
//                  the header's length is not looked at; above 128 the count
//                  is refused and stays in numPortsets
//   command 6      the header's length must be exactly 9 + count * 136
//   command 14     the header's length must be at least 9 + count * 136
//   commands 6, 14 fewer than 9 bytes, or a count above 128, are refused
//   command 9      the header's length must cover the head and numModules entries
//   command 10     the 9-byte payload is read whatever the header's length says
//   command 13     the header's length must cover the head and one entry
//   commands 6, 9, 13, 14 take the payload into a buffer of the header's
//                  length first: a length of 0, or more than heap 0 may hold
//                  (100 MB by default), gets no buffer (HYK_NO_MEMORY,
//                  "Could not allocate LUS memory for query")
//
// A refused payload leaves lus_heap_0 as it was.  ASan (in its build) checks
// that nothing beyond the copied bytes is read.
#include <set>

#include "device_fixture.h"

namespace lustest {
namespace {

constexpr uint32_t kEntry = 136, kHead = 9;

// The edge values of a field whose exact value is `exact`.
std::vector<uint64_t> Edges(uint64_t exact) {
   std::set<uint64_t> v = {0, exact, exact + 1, 255, 256, 65535, 65536, 0x7fffffffu, 0x80000000u, 0xffffffffu};
   if (exact > 0) v.insert(exact - 1);
   return {v.begin(), v.end()};
}

// The bytes a caller can have mapped for one payload; beyond, the header lies.
constexpr uint64_t kMapped = 1u << 20;
constexpr uint64_t kHeap0Max = 100000000;

// Commands 6, 9, 13, 14: no buffer of the header's length.
bool NoBuffer(uint64_t length) { return length == 0 || length > kHeap0Max; }

class PayloadEdgesTest : public DeviceTest {
  protected:
   // The next case starts on a host of its own.
   void FreshHost() {
      tool_.reset();
      proc_.reset();
      hyksim::HostStop();
      clients_.clear();
      hyksim::HostStart();
   }
   // Portsets ps-000 .. ps-(n-1) with no ports, and the names of the first n.
   std::vector<std::string> Portsets(uint32_t n, const std::string &className = "etherswitch") {
      std::vector<std::string> names;
      for (uint32_t i = 0; i < n; i++) {
         char name[16];
         snprintf(name, sizeof name, "ps-%03u", i);
         AddSwitch(name, 107, false, className);
         names.push_back(name);
      }
      return names;
   }
   // The tool's query for `names`, with its count field set to `count`.
   static std::vector<uint8_t> Query(const std::vector<std::string> &names, uint32_t count) {
      std::vector<uint8_t> q = lusctl::PortsetQuery(Names(names), false, 0);
      memcpy(q.data(), &count, sizeof count);
      return q;
   }
   // Issues `cmd` with `payload` and a header saying `length`: the payload is
   // padded with zeros up to `length` while that stays mapped-sized.
   hyk_Status Issue(uint32_t cmd, std::vector<uint8_t> payload, uint64_t length) {
      if (length > payload.size() && length <= kMapped) payload.resize(length);
      return Tool().Raw(cmd, payload, static_cast<uint32_t>(length));
   }
   // The intake of commands 6, 9, 13 and 14 for a payload of `length` bytes
   // that covers what the command reads (`enough`) or not: no buffer, a size
   // refusal, or taken.  Returns whether it was taken.
   bool ExpectIntake(hyk_Status st, uint64_t length, bool enough) {
      if (NoBuffer(length)) {
         EXPECT_EQ(st, HYK_NO_MEMORY);
         EXPECT_EQ(LinesWith("Could not allocate LUS memory for query : Out of memory"), 1u);
         return false;
      }
      if (!enough) {
         EXPECT_EQ(st, HYK_BAD_PARAM);
         EXPECT_EQ(LinesWith("Invalid size of input query : Bad parameter"), 1u);
         return false;
      }
      EXPECT_EQ(LinesWith("Invalid size"), 0u);
      return true;
   }
};

// ---- commands 6 and 14: the header's length -----------------------------------------------

TEST_F(PayloadEdgesTest, BlockAndCswitchEventsTakeTheLengthTheirRuleAllows) {
   for (uint32_t cmd : {LUS_IOCTL_BLOCK_PORTS, LUS_IOCTL_CSWITCH_EVENTS}) {
      const uint64_t exact = kHead + 2 * kEntry;
      for (uint64_t length : Edges(exact)) {
         SCOPED_TRACE(testing::Message() << "command " << cmd << " length " << length);
         Load({"fromBuild=1000"});
         const auto names = Portsets(2, cmd == LUS_IOCTL_CSWITCH_EVENTS ? "cswitch" : "etherswitch");
         const uint64_t live = Heap0Live();
         const bool enough = length >= kHead && (cmd == LUS_IOCTL_BLOCK_PORTS ? length == exact : length >= exact);
         hyk_Status st = Issue(cmd, Query(names, 2), length);
         if (ExpectIntake(st, length, enough)) {
            EXPECT_EQ(st, HYK_OK);
            EXPECT_EQ(LinesWith("Invalid"), 0u);
         }
         if (st != HYK_OK) {
            EXPECT_EQ(Heap0Live(), live);
         }
         FreshHost();
      }
   }
}

// ---- commands 6 and 14: the count -----------------------------------------------------------

TEST_F(PayloadEdgesTest, BlockAndCswitchEventsRefuseCountsAboveTheTable) {
   for (uint32_t cmd : {LUS_IOCTL_BLOCK_PORTS, LUS_IOCTL_CSWITCH_EVENTS}) {
      for (uint64_t count64 : Edges(LUS_MAX_PORTSETS)) {
         const uint32_t count = static_cast<uint32_t>(count64);
         SCOPED_TRACE(testing::Message() << "command " << cmd << " count " << count);
         Load({"fromBuild=1000"});
         const uint32_t present = count <= LUS_MAX_PORTSETS ? count : 2;
         const auto names = Portsets(present, cmd == LUS_IOCTL_CSWITCH_EVENTS ? "cswitch" : "etherswitch");
         const uint64_t live = Heap0Live();
         const std::vector<uint8_t> q = Query(names, count);
         // The length covers the entries present, so only the count can be wrong.
         hyk_Status st = Issue(cmd, q, q.size());
         if (count <= LUS_MAX_PORTSETS) {
            EXPECT_EQ(st, HYK_OK);
            EXPECT_EQ(LinesWith("Invalid"), 0u);
         } else {
            EXPECT_EQ(st, HYK_BAD_PARAM);
            EXPECT_EQ(LinesWith("Invalid number of portsets " + std::to_string(static_cast<int>(count)) +
                                " : Bad parameter"),
                      1u);
            EXPECT_EQ(Heap0Live(), live);
         }
         FreshHost();
      }
   }
}

// ---- commands 0-5: the count, and a length nobody reads ------------------------------------------

TEST_F(PayloadEdgesTest, PortsetListCommandsTakeTheCountAndKeepARefusedOne) {
   for (uint32_t cmd = LUS_IOCTL_REG_FROM; cmd <= LUS_IOCTL_RESTORE; cmd++) {
      for (uint64_t count64 : Edges(LUS_MAX_PORTSETS)) {
         const uint32_t count = static_cast<uint32_t>(count64);
         SCOPED_TRACE(testing::Message() << "command " << cmd << " count " << count);
         Load({"fromBuild=1000"});
         const uint32_t present = count <= LUS_MAX_PORTSETS ? count : 2;
         const auto names = Portsets(present);
         const uint64_t live = Heap0Live();
         hyk_Status st = Issue(cmd, Query(names, count), 0);   // the length is not read
         EXPECT_EQ(Var<uint32_t>("numPortsets"), count);
         const std::string refusal = "Invalid number of portsets " + std::to_string(static_cast<int>(count));
         if (count <= LUS_MAX_PORTSETS) {
            EXPECT_EQ(LinesWith(refusal), 0u);
            EXPECT_EQ(LinesWith("Invalid size"), 0u);
         } else {
            EXPECT_EQ(st, HYK_BAD_PARAM);
            EXPECT_EQ(LinesWith(refusal + " : Bad parameter"), 1u);
            EXPECT_EQ(Heap0Live(), live);
         }
         FreshHost();
      }
   }
}

TEST_F(PayloadEdgesTest, PortsetListCommandsReadTheCountNotTheLength) {
   Load({"fromBuild=1000"});
   const auto names = Portsets(1);
   const std::vector<uint8_t> q = Query(names, 1);
   const hyk_Status baseline = Tool().Raw(LUS_IOCTL_REG_FROM, q);
   for (uint64_t length : Edges(q.size())) {
      SCOPED_TRACE(testing::Message() << "length " << length);
      // Only the query's own bytes are mapped: a length that were read would fail the copy.
      EXPECT_EQ(Tool().Raw(LUS_IOCTL_REG_FROM, q, static_cast<uint32_t>(length)), baseline);
      EXPECT_EQ(Var<uint32_t>("numPortsets"), 1u);
   }
   EXPECT_EQ(LinesWith("Invalid"), 0u);
}

// ---- command 9: the length against numModules -------------------------------------------------

TEST_F(PayloadEdgesTest, PortsetUpgradeNeedsTheHeadAndEveryModuleItCounts) {
   const uint64_t head = sizeof(LusPsUpgradeQuery), one = LUS_PS_UPGRADE_QUERY_SIZE(1);
   struct Case {
      uint32_t numModules;
      uint64_t length;
   };
   std::vector<Case> cases;
   for (uint64_t length : Edges(one)) cases.push_back({1, length});
   for (uint64_t length : {head - 1, head}) cases.push_back({0, length});
   for (uint64_t n : Edges(1)) cases.push_back({static_cast<uint32_t>(n), one});
   for (const Case &c : cases) {
      SCOPED_TRACE(testing::Message() << "numModules " << c.numModules << " length " << c.length);
      Load({"fromBuild=1000"});
      Portsets(1);
      const uint64_t live = Heap0Live();
      std::vector<uint8_t> q = lusctl::PsUpgradeQuery("ps-000", {lusctl::ModuleArg{true, LusID()}});
      memcpy(q.data(), &c.numModules, sizeof c.numModules);
      hyk_Status st = Issue(LUS_IOCTL_PS_UPGRADE, q, c.length);
      // Taken or not; when taken, whatever the world then answers is not a size refusal.
      ExpectIntake(st, c.length, c.length >= head && c.length >= LUS_PS_UPGRADE_QUERY_SIZE(c.numModules));
      EXPECT_EQ(Heap0Live(), live);
      FreshHost();
   }
}

// ---- command 10: a fixed 9-byte payload ---------------------------------------------------------

TEST_F(PayloadEdgesTest, UpgradePortReadsNineBytesWhateverTheLengthSays) {
   Load({"fromBuild=1000"});
   const std::vector<uint8_t> q = lusctl::UpgradePortQuery(0, 0x7777, 1);   // no such port
   ASSERT_EQ(q.size(), 9u);
   Tool();   // opened first: only the commands' own copies are counted
   const uint64_t before = hyksim::CallCount("hyk_CopyFromUser");
   const hyk_Status baseline = Tool().Raw(LUS_IOCTL_UPGRADE_PORT, q);
   const uint64_t perCommand = hyksim::CallCount("hyk_CopyFromUser") - before;
   uint64_t issued = 1;
   for (uint64_t length : Edges(9)) {
      SCOPED_TRACE(testing::Message() << "length " << length);
      EXPECT_EQ(Tool().Raw(LUS_IOCTL_UPGRADE_PORT, q, static_cast<uint32_t>(length)), baseline);
      issued++;
   }
   // The same copies for every length: the header's and the nine bytes.
   EXPECT_EQ(hyksim::CallCount("hyk_CopyFromUser"), before + perCommand * issued);
}

// ---- command 13: the head and one entry ---------------------------------------------------------

TEST_F(PayloadEdgesTest, FdpNeedsTheHeadAndOneWholeEntryAtEveryLength) {
   const uint64_t exact = LUS_PORTSET_QUERY_SIZE(1);
   for (uint64_t length : Edges(exact)) {
      SCOPED_TRACE(testing::Message() << "length " << length);
      Load({"fromBuild=1000"});
      AddSwitch("ps-000", 107, true);
      const uint64_t live = Heap0Live();
      std::vector<lusctl::PortsetArg> args = Names({"ps-000"});
      args[0].op = 0;
      ExpectIntake(Issue(LUS_IOCTL_FDP_OP, lusctl::PortsetQuery(args, false, 0), length), length, length >= exact);
      EXPECT_EQ(Heap0Live(), live);
      FreshHost();
   }
}

}  // namespace
}  // namespace lustest
