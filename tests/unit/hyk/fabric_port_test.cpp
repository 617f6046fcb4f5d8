// Tests of the simulated host's ports: the lookups a module makes, port
// properties, custom blocking with the host's own record of blocked
// intervals on the virtual clock, packet-filter revalidation and fault
// injection.
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "../../../hyk/sim/fabric_topology.h"
#include "fabric_test_support.h"

using namespace fabrictest;

namespace {

class PortTest : public FabricTest {
  protected:
   hyk_PortID AddVnic(const std::string &uuid, uint32_t index, uint32_t flags = 0,
                      const std::string &fabricPortID = "") {
      hyksim::PortSpec desc;
      desc.clientType = HYK_PORT_CLIENT_VNIC;
      desc.vmUUID = uuid;
      desc.vnicIndex = index;
      desc.flags = flags;
      desc.fabricPortID = fabricPortID;
      hyk_PortID id = 0;
      EXPECT_EQ(hyksim::AddPort("ps0", desc, &id), HYK_OK);
      return id;
   }
   hyk_PortID AddOfType(uint32_t clientType) {
      hyksim::PortSpec desc;
      desc.clientType = clientType;
      hyk_PortID id = 0;
      EXPECT_EQ(hyksim::AddPort("ps0", desc, &id), HYK_OK);
      return id;
   }
   void SetUp() override {
      FabricTest::SetUp();
      MakePortset("ps0", 0);
   }
};

TEST_F(PortTest, LookupsOfAVnicPort) {
   hyk_PortID p = AddVnic("42 1a 0b-77", 3, HYK_FABRIC_PORT_FLAG_LSPG, "dvport-17");
   uint32_t type = 0;
   EXPECT_EQ(hyk_PortGetClientType(p, &type), HYK_OK);
   EXPECT_EQ(type, uint32_t{HYK_PORT_CLIENT_VNIC});
   char uuid[HYK_UUID_LEN];
   EXPECT_EQ(hyk_PortGetVMUUID(p, uuid, sizeof uuid), HYK_OK);
   EXPECT_STREQ(uuid, "42 1a 0b-77");
   hyk_VNICHandle vnic = 0;
   EXPECT_EQ(hyk_VNICHandleGet(p, &vnic), HYK_OK);
   EXPECT_NE(vnic, 0u);
   uint32_t index = 0;
   EXPECT_EQ(hyk_VNICIndexGet(vnic, &index), HYK_OK);
   EXPECT_EQ(index, 3u);
   char fpid[HYK_FABRIC_PORT_ID_LEN];
   EXPECT_EQ(hyk_PortLookupFabricPortID(p, fpid, sizeof fpid), HYK_OK);
   EXPECT_STREQ(fpid, "dvport-17");
   uint8_t isSet = 7;
   EXPECT_EQ(hyk_FabricPortFlagIsSet(p, HYK_FABRIC_PORT_FLAG_LSPG, &isSet), HYK_OK);
   EXPECT_EQ(isSet, 1);
   EXPECT_EQ(hyk_FabricPortFlagIsSet(p, 0x40, &isSet), HYK_OK);
   EXPECT_EQ(isSet, 0);
}

TEST_F(PortTest, VnicHandlesAreDistinctPerPort) {
   hyk_PortID a = AddVnic("vm-a", 0), b = AddVnic("vm-a", 1);
   hyk_VNICHandle va = 0, vb = 0;
   ASSERT_EQ(hyk_VNICHandleGet(a, &va), HYK_OK);
   ASSERT_EQ(hyk_VNICHandleGet(b, &vb), HYK_OK);
   EXPECT_NE(va, vb);
   uint32_t ia = 9, ib = 9;
   EXPECT_EQ(hyk_VNICIndexGet(va, &ia), HYK_OK);
   EXPECT_EQ(hyk_VNICIndexGet(vb, &ib), HYK_OK);
   EXPECT_EQ(ia, 0u);
   EXPECT_EQ(ib, 1u);
}

TEST_F(PortTest, BoundedLookupsTruncateAndTerminate) {
   hyk_PortID p = AddVnic("0123456789", 0, 0, "dvport-17");
   char small[5];
   EXPECT_EQ(hyk_PortGetVMUUID(p, small, sizeof small), HYK_OK);
   EXPECT_STREQ(small, "0123");
   EXPECT_EQ(hyk_PortLookupFabricPortID(p, small, sizeof small), HYK_OK);
   EXPECT_STREQ(small, "dvpo");
   EXPECT_EQ(hyk_PortGetVMUUID(p, small, 0), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_PortGetVMUUID(p, nullptr, 8), HYK_BAD_PARAM);
}

TEST_F(PortTest, APortOutsideADistributedSwitchHasAnEmptyPortId) {
   hyk_PortID p = AddVnic("vm", 0);
   char fpid[HYK_FABRIC_PORT_ID_LEN];
   std::memset(fpid, 'x', sizeof fpid);
   EXPECT_EQ(hyk_PortLookupFabricPortID(p, fpid, sizeof fpid), HYK_OK);
   EXPECT_STREQ(fpid, "");
}

TEST_F(PortTest, LookupsOfAnUnknownPortAreNotFound) {
   uint32_t type = 0;
   char buf[HYK_UUID_LEN];
   hyk_VNICHandle vnic = 0;
   uint8_t isSet = 0;
   void *value = nullptr;
   uint32_t len = 0;
   EXPECT_EQ(hyk_PortGetClientType(77, &type), HYK_NOT_FOUND);
   EXPECT_EQ(hyk_PortGetVMUUID(77, buf, sizeof buf), HYK_NOT_FOUND);
   EXPECT_EQ(hyk_VNICHandleGet(77, &vnic), HYK_NOT_FOUND);
   EXPECT_EQ(hyk_PortLookupFabricPortID(77, buf, sizeof buf), HYK_NOT_FOUND);
   EXPECT_EQ(hyk_FabricPortFlagIsSet(77, HYK_FABRIC_PORT_FLAG_LSPG, &isSet), HYK_NOT_FOUND);
   EXPECT_EQ(hyk_FabricPortDataGet(77, "k", &value, &len), HYK_NOT_FOUND);
   EXPECT_EQ(hyk_FabricPortDataSet(77, "k", "v", 1, 0), HYK_NOT_FOUND);
   EXPECT_EQ(hyk_FabricPortDataClear(77, "k"), HYK_NOT_FOUND);
   EXPECT_EQ(hyk_PortCustomBlock(77, HYK_PORT_BLOCK_CUSTOM, 0), HYK_NOT_FOUND);
   EXPECT_EQ(hyk_PortCustomUnblock(77, HYK_PORT_BLOCK_CUSTOM, 0), HYK_NOT_FOUND);
   EXPECT_EQ(PFilter_TblRevalidateVmPort(77), HYK_NOT_FOUND);
   EXPECT_EQ(hyk_PortGetClientType(AddVnic("vm", 0), nullptr), HYK_BAD_PARAM);
}

TEST_F(PortTest, NonVnicPortsHaveNoVmUuidNorVnic) {
   for (uint32_t type : {HYK_PORT_CLIENT_UPLINK, HYK_PORT_CLIENT_INTERNAL, HYK_PORT_CLIENT_CONTAINER}) {
      hyk_PortID p = AddOfType(type);
      uint32_t got = 0;
      EXPECT_EQ(hyk_PortGetClientType(p, &got), HYK_OK);
      EXPECT_EQ(got, type);
      char uuid[HYK_UUID_LEN];
      hyk_VNICHandle vnic = 0;
      EXPECT_EQ(hyk_PortGetVMUUID(p, uuid, sizeof uuid), HYK_NOT_SUPPORTED);
      EXPECT_EQ(hyk_VNICHandleGet(p, &vnic), HYK_NOT_SUPPORTED);
   }
}

TEST_F(PortTest, VnicHandleOfARemovedPortIsInvalid) {
   hyk_PortID p = AddVnic("vm", 2);
   hyk_VNICHandle vnic = 0;
   ASSERT_EQ(hyk_VNICHandleGet(p, &vnic), HYK_OK);
   ASSERT_EQ(hyksim::RemovePort(p), HYK_OK);
   uint32_t index = 0;
   EXPECT_EQ(hyk_VNICIndexGet(vnic, &index), HYK_INVALID_HANDLE);
   EXPECT_EQ(hyk_VNICIndexGet(0, &index), HYK_INVALID_HANDLE);
   EXPECT_EQ(hyksim::RemovePort(p), HYK_NOT_FOUND);
   EXPECT_TRUE(hyksim::FindPortset("ps0")->ports.empty());
}

TEST_F(PortTest, EveryLookupOfARemovedPortIsNotFound) {
   hyk_PortID p = AddVnic("vm", 1, 0, "dvport-1");
   hyk_PortID kept = AddVnic("vm", 2, 0, "dvport-2");
   ASSERT_EQ(hyksim::RemovePort(p), HYK_OK);
   uint32_t type = 0;
   char buf[HYK_UUID_LEN];
   hyk_VNICHandle vnic = 0;
   EXPECT_EQ(hyk_PortGetClientType(p, &type), HYK_NOT_FOUND);
   EXPECT_EQ(hyk_PortGetVMUUID(p, buf, sizeof buf), HYK_NOT_FOUND);
   EXPECT_EQ(hyk_VNICHandleGet(p, &vnic), HYK_NOT_FOUND);
   EXPECT_EQ(hyk_PortLookupFabricPortID(p, buf, sizeof buf), HYK_NOT_FOUND);
   uint8_t isSet = 0;
   void *value = nullptr;
   uint32_t len = 0;
   EXPECT_EQ(hyk_FabricPortFlagIsSet(p, HYK_FABRIC_PORT_FLAG_LSPG, &isSet), HYK_NOT_FOUND);
   EXPECT_EQ(hyk_FabricPortDataGet(p, "k", &value, &len), HYK_NOT_FOUND);
   EXPECT_EQ(hyk_PortCustomBlock(p, HYK_PORT_BLOCK_CUSTOM, 0), HYK_NOT_FOUND);
   EXPECT_FALSE(hyksim::FindPort(p).has_value());
   // The neighbour keeps answering.
   EXPECT_EQ(hyk_PortLookupFabricPortID(kept, buf, sizeof buf), HYK_OK);
   EXPECT_STREQ(buf, "dvport-2");
}

TEST_F(PortTest, RemovingAPortsetWithdrawsTheLookupsOfItsPorts) {
   std::vector<hyk_PortID> ids = MakePortset("ps1", 3);
   hyk_VNICHandle vnic = 0;
   ASSERT_EQ(hyk_VNICHandleGet(ids[1], &vnic), HYK_OK);
   ASSERT_EQ(hyksim::RemovePortset("ps1"), HYK_OK);
   uint32_t type = 0, index = 0;
   for (hyk_PortID id : ids) {
      EXPECT_EQ(hyk_PortGetClientType(id, &type), HYK_NOT_FOUND) << id;
   }
   EXPECT_EQ(hyk_VNICIndexGet(vnic, &index), HYK_INVALID_HANDLE);
}

TEST_F(PortTest, VnicHandlesOfAnotherShapeOrFromBeforeARestartAreInvalid) {
   hyk_PortID p = AddVnic("vm", 4);
   hyk_VNICHandle vnic = 0;
   ASSERT_EQ(hyk_VNICHandleGet(p, &vnic), HYK_OK);
   uint32_t index = 0;
   // Same number, another high word; a number far past any issued.
   EXPECT_EQ(hyk_VNICIndexGet(vnic ^ (uint64_t{1} << 40), &index), HYK_INVALID_HANDLE);
   EXPECT_EQ(hyk_VNICIndexGet(vnic + (uint64_t{1} << 31), &index), HYK_INVALID_HANDLE);
   hyksim::HostStop();
   hyksim::HostStart();
   MakePortset("ps0", 0);
   hyk_PortID q = AddVnic("vm", 5);
   hyk_VNICHandle fresh = 0;
   ASSERT_EQ(hyk_VNICHandleGet(q, &fresh), HYK_OK);
   EXPECT_NE(fresh, vnic);
   EXPECT_EQ(hyk_VNICIndexGet(vnic, &index), HYK_INVALID_HANDLE);
   EXPECT_EQ(hyk_VNICIndexGet(fresh, &index), HYK_OK);
   EXPECT_EQ(index, 5u);
}

// Lookups take no lock: while ports come and go, a reader sees each port
// whole (its own UUID and index) or not at all.
TEST_F(PortTest, LookupsRacingAddsAndRemovalsSeeWholePortsOrNone) {
   constexpr int kRounds = 400;
   constexpr long kSeen = 200;
   std::vector<hyk_PortID> live;
   std::mutex mu;
   std::atomic<bool> done{false};
   std::atomic<long> seen{0};
   auto reader = [&] {
      while (!done.load()) {
         std::vector<hyk_PortID> snapshot;
         {
            std::lock_guard<std::mutex> lk(mu);
            snapshot = live;
         }
         for (hyk_PortID id : snapshot) {
            char uuid[HYK_UUID_LEN];
            hyk_VNICHandle vnic = 0;
            uint32_t index = 0;
            hyk_Status s = hyk_PortGetVMUUID(id, uuid, sizeof uuid);
            if (s == HYK_NOT_FOUND) {
               continue;
            }
            ASSERT_EQ(s, HYK_OK);
            ASSERT_EQ(std::string(uuid), "vm-" + std::to_string(id));
            s = hyk_VNICHandleGet(id, &vnic);
            if (s != HYK_OK) {
               ASSERT_EQ(s, HYK_NOT_FOUND);
               continue;
            }
            s = hyk_VNICIndexGet(vnic, &index);
            if (s == HYK_OK) {
               ASSERT_EQ(index, id % 1000);
               seen.fetch_add(1);
            } else {
               ASSERT_EQ(s, HYK_INVALID_HANDLE);
            }
         }
      }
   };
   std::thread r1(reader), r2(reader);
   // However the threads are scheduled, the readers get to look while the
   // ports change: the writer goes on until they have seen enough.
   for (int round = 0; round < kRounds || seen.load() < kSeen; round++) {
      hyksim::PortSpec desc;
      desc.clientType = HYK_PORT_CLIENT_VNIC;
      hyk_PortID id = 0;
      // The ID is known only once added: name the port after the next one.
      desc.vmUUID = "vm-" + std::to_string(round + 1);
      desc.vnicIndex = static_cast<uint32_t>((round + 1) % 1000);
      ASSERT_EQ(hyksim::AddPort("ps0", desc, &id), HYK_OK);
      ASSERT_EQ(id, hyk_PortID(round + 1));
      {
         std::lock_guard<std::mutex> lk(mu);
         live.push_back(id);
         if (live.size() > 8) {
            ASSERT_EQ(hyksim::RemovePort(live.front()), HYK_OK);
            live.erase(live.begin());
         }
      }
   }
   done = true;
   r1.join();
   r2.join();
}

TEST_F(PortTest, PropertiesGetSetAndClear) {
   hyksim::PortSpec desc;
   desc.properties["com.corvid.port.extraConfig.vnic.external.id"] = "ext-1";
   hyk_PortID p = 0;
   ASSERT_EQ(hyksim::AddPort("ps0", desc, &p), HYK_OK);
   void *value = nullptr;
   uint32_t len = 0;
   ASSERT_EQ(hyk_FabricPortDataGet(p, "com.corvid.port.extraConfig.vnic.external.id", &value, &len), HYK_OK);
   EXPECT_EQ(std::string(static_cast<char *>(value), len), "ext-1");

   uint8_t bytes[] = {1, 0, 2, 0, 3};
   ASSERT_EQ(hyk_FabricPortDataSet(p, "com.corvid.common.port.pfilteraltkpx", bytes, sizeof bytes,
                                   HYK_FABRIC_DATA_PERSIST),
             HYK_OK);
   bytes[0] = 99;   // the host keeps its own copy
   ASSERT_EQ(hyk_FabricPortDataGet(p, "com.corvid.common.port.pfilteraltkpx", &value, &len), HYK_OK);
   ASSERT_EQ(len, sizeof bytes);
   EXPECT_EQ(static_cast<uint8_t *>(value)[0], 1);
   EXPECT_EQ(static_cast<uint8_t *>(value)[4], 3);
   EXPECT_EQ(hyksim::FindPort(p)->desc.properties.at("com.corvid.common.port.pfilteraltkpx"),
             std::string("\1\0\2\0\3", 5));

   EXPECT_EQ(hyk_FabricPortDataClear(p, "com.corvid.common.port.pfilteraltkpx"), HYK_OK);
   EXPECT_EQ(hyk_FabricPortDataGet(p, "com.corvid.common.port.pfilteraltkpx", &value, &len), HYK_NOT_FOUND);
   EXPECT_EQ(hyk_FabricPortDataClear(p, "never.set"), HYK_OK);   // absent: still success
   EXPECT_EQ(hyk_FabricPortDataSet(p, "empty", nullptr, 0, 0), HYK_OK);
   ASSERT_EQ(hyk_FabricPortDataGet(p, "empty", &value, &len), HYK_OK);
   EXPECT_EQ(len, 0u);
}

TEST_F(PortTest, PropertyCallsRefuseBadArguments) {
   hyk_PortID p = AddVnic("vm", 0);
   void *value = nullptr;
   uint32_t len = 0;
   EXPECT_EQ(hyk_FabricPortDataGet(p, nullptr, &value, &len), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_FabricPortDataGet(p, "k", nullptr, &len), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_FabricPortDataGet(p, "k", &value, nullptr), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_FabricPortDataSet(p, "k", nullptr, 3, 0), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_FabricPortDataSet(p, "", "v", 1, 0), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_FabricPortDataSet(p, "k", "v", 1, 0x1), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_FabricPortDataClear(p, nullptr), HYK_BAD_PARAM);
   EXPECT_TRUE(hyksim::FindPort(p)->desc.properties.empty());
}

// ---- blocking: the host's outage oracle ----

TEST_F(PortTest, BlockedIntervalIsMeasuredWithTheHostClock) {
   hyk_PortID p = AddVnic("vm", 0);
   hyksim::AdvanceClock(1000);
   uint64_t t0 = hyksim::NowUS();
   ASSERT_EQ(hyk_PortCustomBlock(p, HYK_PORT_BLOCK_CUSTOM, 0), HYK_OK);
   auto view = hyksim::FindPort(p);
   EXPECT_FALSE(view->passesTraffic);
   EXPECT_EQ(view->blockReasons, uint32_t{HYK_PORT_BLOCK_CUSTOM});
   ASSERT_EQ(view->blocked.size(), 1u);
   EXPECT_TRUE(view->blocked[0].open);
   EXPECT_EQ(view->blocked[0].fromUS, t0);

   hyksim::AdvanceClock(250000);
   EXPECT_EQ(hyksim::FindPort(p)->blockedTotalUS, 250000u);   // the open interval up to now
   ASSERT_EQ(hyk_PortCustomUnblock(p, HYK_PORT_BLOCK_CUSTOM, 0), HYK_OK);
   hyksim::AdvanceClock(5000);
   view = hyksim::FindPort(p);
   EXPECT_TRUE(view->passesTraffic);
   ASSERT_EQ(view->blocked.size(), 1u);
   EXPECT_FALSE(view->blocked[0].open);
   EXPECT_EQ(view->blocked[0].toUS, t0 + 250000);
   EXPECT_EQ(view->blockedTotalUS, 250000u);
}

TEST_F(PortTest, OverlappingReasonsMakeOneIntervalAndRepeatedBlocksMakeSeveral) {
   hyk_PortID p = AddVnic("vm", 0);
   uint64_t t0 = hyksim::NowUS();
   ASSERT_EQ(hyk_PortCustomBlock(p, HYK_PORT_BLOCK_ADMIN, 0), HYK_OK);
   hyksim::AdvanceClock(100);
   ASSERT_EQ(hyk_PortCustomBlock(p, HYK_PORT_BLOCK_CUSTOM, 0), HYK_OK);
   hyksim::AdvanceClock(100);
   ASSERT_EQ(hyk_PortCustomUnblock(p, HYK_PORT_BLOCK_ADMIN, 0), HYK_OK);
   EXPECT_FALSE(hyksim::FindPort(p)->passesTraffic);   // still one reason set
   hyksim::AdvanceClock(100);
   ASSERT_EQ(hyk_PortCustomUnblock(p, HYK_PORT_BLOCK_CUSTOM, 0), HYK_OK);
   hyksim::AdvanceClock(1000);
   ASSERT_EQ(hyk_PortCustomBlock(p, HYK_PORT_BLOCK_CUSTOM, 0), HYK_OK);
   hyksim::AdvanceClock(40);
   ASSERT_EQ(hyk_PortCustomUnblock(p, HYK_PORT_BLOCK_CUSTOM, 0), HYK_OK);

   auto view = hyksim::FindPort(p);
   ASSERT_EQ(view->blocked.size(), 2u);
   EXPECT_EQ(view->blocked[0].fromUS, t0);
   EXPECT_EQ(view->blocked[0].toUS, t0 + 300);
   EXPECT_EQ(view->blocked[1].fromUS, t0 + 1300);
   EXPECT_EQ(view->blocked[1].toUS, t0 + 1340);
   EXPECT_EQ(view->blockedTotalUS, 340u);
}

TEST_F(PortTest, BlockingTwiceWithTheSameReasonKeepsOneInterval) {
   hyk_PortID p = AddVnic("vm", 0);
   ASSERT_EQ(hyk_PortCustomBlock(p, HYK_PORT_BLOCK_CUSTOM, 0), HYK_OK);
   hyksim::AdvanceClock(10);
   ASSERT_EQ(hyk_PortCustomBlock(p, HYK_PORT_BLOCK_CUSTOM, 0), HYK_OK);
   hyksim::AdvanceClock(10);
   ASSERT_EQ(hyk_PortCustomUnblock(p, HYK_PORT_BLOCK_CUSTOM, 0), HYK_OK);
   auto view = hyksim::FindPort(p);
   ASSERT_EQ(view->blocked.size(), 1u);
   EXPECT_EQ(view->blockedTotalUS, 20u);
}

TEST_F(PortTest, UnblockingAReasonThatIsNotSetChangesNothing) {
   hyk_PortID p = AddVnic("vm", 0);
   EXPECT_EQ(hyk_PortCustomUnblock(p, HYK_PORT_BLOCK_CUSTOM, 0), HYK_OK);
   EXPECT_TRUE(hyksim::FindPort(p)->blocked.empty());
   ASSERT_EQ(hyk_PortCustomBlock(p, HYK_PORT_BLOCK_ADMIN, 0), HYK_OK);
   EXPECT_EQ(hyk_PortCustomUnblock(p, HYK_PORT_BLOCK_CUSTOM, 0), HYK_OK);
   auto view = hyksim::FindPort(p);
   EXPECT_EQ(view->blockReasons, uint32_t{HYK_PORT_BLOCK_ADMIN});
   ASSERT_EQ(view->blocked.size(), 1u);
   EXPECT_TRUE(view->blocked[0].open);
}

TEST_F(PortTest, IntervalOpenedAndClosedAtTimeZeroIsClosed) {
   hyk_PortID p = AddVnic("vm", 0);
   ASSERT_EQ(hyksim::NowUS(), 0u);
   ASSERT_EQ(hyk_PortCustomBlock(p, HYK_PORT_BLOCK_CUSTOM, 0), HYK_OK);
   ASSERT_EQ(hyk_PortCustomUnblock(p, HYK_PORT_BLOCK_CUSTOM, 0), HYK_OK);
   hyksim::AdvanceClock(100);
   auto view = hyksim::FindPort(p);
   ASSERT_EQ(view->blocked.size(), 1u);
   EXPECT_FALSE(view->blocked[0].open);
   EXPECT_EQ(view->blockedTotalUS, 0u);
}

TEST_F(PortTest, BlockRefusesBadArguments) {
   hyk_PortID p = AddVnic("vm", 0);
   EXPECT_EQ(hyk_PortCustomBlock(p, 0, 0), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_PortCustomBlock(p, HYK_PORT_BLOCK_CUSTOM, 1), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_PortCustomUnblock(p, 0, 0), HYK_BAD_PARAM);
   EXPECT_TRUE(hyksim::FindPort(p)->passesTraffic);
   EXPECT_TRUE(hyksim::FindPort(p)->blocked.empty());
}

TEST_F(PortTest, BlockAndUnblockMayBeCalledWithASpinlockHeld) {
   hyk_PortID p = AddVnic("vm", 0);
   hyk_LockDomainID domain = HYK_INVALID_LOCK_DOMAIN;
   ASSERT_EQ(hyk_LockDomainCreate("dom", HYK_INVALID_MODULE_ID, 0, &domain), HYK_OK);
   hyk_SpinlockID lock = HYK_INVALID_LOCK;
   ASSERT_EQ(hyk_SpinlockCreate("lk", domain, 1, &lock), HYK_OK);
   hyk_SpinlockLock(lock);
   EXPECT_EQ(hyk_PortCustomBlock(p, HYK_PORT_BLOCK_CUSTOM, 0), HYK_OK);
   EXPECT_EQ(hyk_PortCustomUnblock(p, HYK_PORT_BLOCK_CUSTOM, 0), HYK_OK);
   hyk_SpinlockUnlock(lock);
   EXPECT_EQ(hyksim::FindPort(p)->blocked.size(), 1u);
   EXPECT_EQ(hyk_SpinlockDestroy(lock), HYK_OK);
   EXPECT_EQ(hyk_LockDomainDestroy(domain), HYK_OK);
}

TEST_F(PortTest, ConcurrentBlockersOfDifferentReasonsLeaveConsistentIntervals) {
   hyk_PortID p = AddVnic("vm", 0);
   auto hammer = [p](uint32_t reason) {
      for (int i = 0; i < 2000; i++) {
         EXPECT_EQ(hyk_PortCustomBlock(p, reason, 0), HYK_OK);
         EXPECT_EQ(hyk_PortCustomUnblock(p, reason, 0), HYK_OK);
      }
   };
   std::thread a(hammer, HYK_PORT_BLOCK_ADMIN), b(hammer, HYK_PORT_BLOCK_CUSTOM);
   a.join();
   b.join();
   auto view = hyksim::FindPort(p);
   EXPECT_TRUE(view->passesTraffic);
   ASSERT_FALSE(view->blocked.empty());
   EXPECT_LE(view->blocked.size(), 4000u);
   for (const auto &iv : view->blocked) {
      EXPECT_FALSE(iv.open);
      EXPECT_LE(iv.fromUS, iv.toUS);
   }
}

// ---- packet filter ----

TEST_F(PortTest, RevalidationIsCountedPerPortAndLogged) {
   hyk_PortID a = AddVnic("vm", 0), b = AddVnic("vm", 1);
   EXPECT_EQ(PFilter_TblRevalidateVmPort(a), HYK_OK);
   EXPECT_EQ(PFilter_TblRevalidateVmPort(a), HYK_OK);
   EXPECT_EQ(hyksim::PFilterRevalidations(a), 2u);
   EXPECT_EQ(hyksim::PFilterRevalidations(b), 0u);
   char line[64];
   std::snprintf(line, sizeof line, "pfilter: port 0x%x revalidated", a);
   EXPECT_EQ(hyksim::LogCount(line), 2u);
}

// ---- faults ----

TEST_F(PortTest, InjectedBlockFaultLeavesThePortPassingTraffic) {
   hyk_PortID p = AddVnic("vm", 0);
   hyksim::FaultSpec f;
   f.op = "hyk_PortCustomBlock";
   f.status = HYK_NO_RESOURCES;
   f.nth = 1;
   hyksim::InjectFault(f);
   EXPECT_EQ(hyk_PortCustomBlock(p, HYK_PORT_BLOCK_CUSTOM, 0), HYK_NO_RESOURCES);
   EXPECT_TRUE(hyksim::FindPort(p)->passesTraffic);
   EXPECT_TRUE(hyksim::FindPort(p)->blocked.empty());
   EXPECT_EQ(hyk_PortCustomBlock(p, HYK_PORT_BLOCK_CUSTOM, 0), HYK_OK);
   EXPECT_FALSE(hyksim::FindPort(p)->passesTraffic);
}

TEST_F(PortTest, InjectedFaultsOfEveryPortOperation) {
   hyk_PortID p = AddVnic("vm", 0);
   hyk_VNICHandle vnic = 0;
   ASSERT_EQ(hyk_VNICHandleGet(p, &vnic), HYK_OK);
   const char *ops[] = {"hyk_PortGetClientType", "hyk_PortGetVMUUID", "hyk_VNICHandleGet",
                        "hyk_VNICIndexGet", "hyk_PortLookupFabricPortID", "hyk_FabricPortFlagIsSet",
                        "hyk_FabricPortDataGet", "hyk_FabricPortDataSet", "hyk_FabricPortDataClear",
                        "hyk_PortCustomUnblock", "PFilter_TblRevalidateVmPort"};
   for (const char *op : ops) {
      hyksim::FaultSpec f;
      f.op = op;
      f.status = HYK_FAILURE;
      f.every = true;
      hyksim::InjectFault(f);
   }
   uint32_t u = 0;
   char buf[HYK_UUID_LEN];
   uint8_t isSet = 0;
   void *value = nullptr;
   EXPECT_EQ(hyk_PortGetClientType(p, &u), HYK_FAILURE);
   EXPECT_EQ(hyk_PortGetVMUUID(p, buf, sizeof buf), HYK_FAILURE);
   EXPECT_EQ(hyk_VNICHandleGet(p, &vnic), HYK_FAILURE);
   EXPECT_EQ(hyk_VNICIndexGet(vnic, &u), HYK_FAILURE);
   EXPECT_EQ(hyk_PortLookupFabricPortID(p, buf, sizeof buf), HYK_FAILURE);
   EXPECT_EQ(hyk_FabricPortFlagIsSet(p, HYK_FABRIC_PORT_FLAG_LSPG, &isSet), HYK_FAILURE);
   EXPECT_EQ(hyk_FabricPortDataGet(p, "k", &value, &u), HYK_FAILURE);
   EXPECT_EQ(hyk_FabricPortDataSet(p, "k", "v", 1, 0), HYK_FAILURE);
   EXPECT_EQ(hyk_FabricPortDataClear(p, "k"), HYK_FAILURE);
   EXPECT_EQ(hyk_PortCustomUnblock(p, HYK_PORT_BLOCK_CUSTOM, 0), HYK_FAILURE);
   EXPECT_EQ(PFilter_TblRevalidateVmPort(p), HYK_FAILURE);
   EXPECT_TRUE(hyksim::FindPort(p)->desc.properties.empty());
   EXPECT_EQ(hyksim::PFilterRevalidations(p), 0u);
   EXPECT_EQ(hyksim::InjectedFaultCount(), 11u);
}

}  // namespace

// The table behind the lock-free lookups: numbers past its capacity are
// refused, not wrapped onto other entries.
TEST(IdTableTest, SetFindWithdrawAndTheCapacityEdge) {
   using Table = hyksim::fabric::IdTable<int>;
   auto table = std::make_unique<Table>();
   int a = 1, b = 2;
   EXPECT_EQ(table->Find(0), nullptr);
   EXPECT_TRUE(table->Set(5, &a));
   EXPECT_TRUE(table->Set(Table::kCapacity - 1, &b));
   EXPECT_EQ(table->Find(5), &a);
   EXPECT_EQ(table->Find(Table::kCapacity - 1), &b);
   EXPECT_EQ(table->Find(6), nullptr);
   EXPECT_FALSE(table->Set(Table::kCapacity, &a));
   EXPECT_EQ(table->Find(Table::kCapacity), nullptr);
   EXPECT_EQ(table->Find(Table::kCapacity + 5), nullptr);
   EXPECT_TRUE(table->Set(5, nullptr));
   EXPECT_EQ(table->Find(5), nullptr);
   table->Clear();
   EXPECT_EQ(table->Find(Table::kCapacity - 1), nullptr);
}
