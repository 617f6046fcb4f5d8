// Tests of the single-port filter upgrade (command 10): the packet-filter
// property moved to the new build, the port's state saved, and the bounded
// wait for the new filter to take the state over.
#include <thread>

#include "world_fixture.h"

namespace lustest {
namespace {

class FilterUpgradeTest : public WorldTest {
  protected:
   // lus of the new build and a port-phase client pair enrolled on one
   // container-filtered vNIC port whose filter property reads `prop`.
   hyk_PortID SetUpPort(const std::string &prop) {
      LoadNew(5);
      pair_ = Pair("pf", [](TestClientConfig &c) {
         c.upgradePhase = LUS_PHASE_PORT;
         c.stateSize = 16;
      });
      hyksim::PortsetSpec desc;
      desc.name = "ps0";
      EXPECT_EQ(hyksim::AddPortset(desc), HYK_OK);
      hyksim::PortSpec port;
      port.vmUUID = "vm-0";
      port.properties["com.corvid.port.extraConfig.vnic.external.id"] = "ext";
      port.properties[kPfilterProp] = prop;
      hyk_PortID id = 0;
      EXPECT_EQ(hyksim::AddPort("ps0", port, &id), HYK_OK);
      EnrolV1("ps0");
      return id;
   }
   hyk_Status UpgradePort(hyk_PortID port, int8_t mode) {
      return AsLus([&] { return LusFn<UpgradePortFn>("LUS_UpgradePort")(7, port, mode); });
   }
   std::optional<std::string> Prop(hyk_PortID port) {
      auto view = hyksim::FindPort(port);
      auto it = view->desc.properties.find(kPfilterProp);
      if (it == view->desc.properties.end()) return std::nullopt;
      return it->second;
   }
   bool Pending(hyk_PortID port) { return PortV1("lusPerPortHashMap", port)->valid != 0; }
   static std::string TimeoutLine(hyk_PortID port) {
      return "Port 0x" + Hex(port) + " pFilter was not destroyed/createdin 0 ms";
   }
   ClientPair pair_{};
};

TEST_F(FilterUpgradeTest, WithNoPropertyValueToCarryOverThePropertyEndsClearedAndNotSet) {
   hyk_PortID port = SetUpPort("");  // present but empty: nothing to carry over
   EXPECT_EQ(UpgradePort(port, 1), HYK_OK);
   EXPECT_FALSE(Prop(port).has_value());
   EXPECT_EQ(hyksim::CallCount("hyk_FabricPortDataClear"), 1u);
   EXPECT_EQ(hyksim::CallCount("hyk_FabricPortDataSet"), 0u);
}

TEST_F(FilterUpgradeTest, ContainerFilterUpgradeWithoutAValueOnlyClears) {
   hyk_PortID port = SetUpPort("old-filter");
   EXPECT_EQ(AsLus([&] { return LusFn<FilterUpgradeFn>("LUSContainerFilterUpgrade")(port, nullptr, 0); }),
             HYK_OK);
   EXPECT_FALSE(Prop(port).has_value());
   EXPECT_EQ(hyksim::CallCount("hyk_FabricPortDataSet"), 0u);
   const char v[] = "new-filter";
   EXPECT_EQ(AsLus([&] { return LusFn<FilterUpgradeFn>("LUSContainerFilterUpgrade")(port, v, 10); }),
             HYK_OK);
   EXPECT_EQ(Prop(port), std::optional<std::string>("new-filter"));
}

TEST_F(FilterUpgradeTest, FilterThatNeverFinishesDelaysTheCommandTwoSecondsWithOneLineOfZero) {
   hyk_PortID port = SetUpPort("alt-vm-7");
   uint64_t start = hyksim::NowUS();
   EXPECT_EQ(Tool().UpgradePort(7, port, 1), HYK_OK);
   EXPECT_EQ(hyksim::NowUS() - start, 2000000u);
   EXPECT_EQ(hyksim::CallCount("hyk_WorldSleep"), 20u);
   EXPECT_EQ(InfoLines("LUS_UpgradePort", TimeoutLine(port)), 1u);
   // The state waits for the late filter; the property was moved.
   EXPECT_EQ(Prop(port), std::optional<std::string>("alt-vm-7"));
   EXPECT_TRUE(Blocked(port));
   EXPECT_EQ(pair_.from->Calls(kGetRuntimeState), 1u);
}

TEST_F(FilterUpgradeTest, NewFilterPullingItsStateEndsTheWaitEarly) {
   hyksim::HostOptions opts;
   opts.sleepAdvancesClock = false;
   hyksim::HostStart(opts);
   hyk_PortID port = SetUpPort("alt-vm-7");
   uint64_t start = hyksim::NowUS();
   hyk_Status status = HYK_FAILURE;
   std::thread cmd([&] { status = UpgradePort(port, 1); });
   // The framework re-creates the filter once the property has moved; the
   // new filter's client pulls its state.
   while (hyksim::CallCount("hyk_WorldSleep") == 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
   }
   ASSERT_TRUE(Pending(port));
   PullRestore(pair_.to, "pf", port);
   EXPECT_FALSE(Pending(port));
   hyksim::AdvanceClock(100000);
   cmd.join();
   EXPECT_EQ(status, HYK_OK);
   EXPECT_EQ(hyksim::NowUS() - start, 100000u);
   EXPECT_EQ(CountModuleLines("pFilter was not destroyed"), 0u);
   EXPECT_EQ(pair_.to->restored[port], pair_.from->PatternFor(port, 16));
   EXPECT_FALSE(Blocked(port));
}

TEST_F(FilterUpgradeTest, ModeZeroSavesAndRevalidatesWithoutWaiting) {
   hyk_PortID port = SetUpPort("alt-vm-7");
   EXPECT_EQ(UpgradePort(port, 0), HYK_OK);
   EXPECT_EQ(hyksim::PFilterRevalidations(port), 1u);
   EXPECT_EQ(pair_.from->Calls(kGetRuntimeState), 1u);
   EXPECT_TRUE(Blocked(port));
   EXPECT_EQ(hyksim::CallCount("hyk_WorldSleep"), 0u);
   EXPECT_EQ(Prop(port), std::optional<std::string>("alt-vm-7"));
   EXPECT_FALSE(PortsetHeld("ps0"));
}

TEST_F(FilterUpgradeTest, ModeZeroOnAPortWithoutRecordDoesNothing) {
   SetUpPort("alt-vm-7");
   hyk_PortID other = AddVnicPort("ps0", "vm-9", 0);  // enrolled after the walk: no record
   EXPECT_EQ(UpgradePort(other, 0), HYK_OK);
   EXPECT_EQ(hyksim::PFilterRevalidations(other), 0u);
   EXPECT_FALSE(Blocked(other));
   EXPECT_FALSE(PortsetHeld("ps0"));
}

TEST_F(FilterUpgradeTest, RevalidationFailureIsLoggedAndReturned) {
   hyk_PortID port = SetUpPort("alt-vm-7");
   hyksim::InjectFault(Fault("PFilter_TblRevalidateVmPort", 1, HYK_BUSY));
   EXPECT_EQ(UpgradePort(port, 0), static_cast<hyk_Status>(HYK_BUSY));
   EXPECT_EQ(ErrLines("LUS_UpgradePort", HYK_BUSY, "Failed to revalidate port: 0x" + Hex(port) + " : Busy"), 1u);
}

TEST_F(FilterUpgradeTest, MissingPropertyEndsTheUpgradeBeforeAnythingIsBlocked) {
   hyk_PortID port = SetUpPort("alt-vm-7");
   hyksim::InjectFault(Fault("hyk_FabricPortDataGet", 1, HYK_NOT_FOUND));
   EXPECT_EQ(UpgradePort(port, 1), static_cast<hyk_Status>(HYK_NOT_FOUND));
   EXPECT_EQ(ErrLines("LUS_UpgradePort", HYK_NOT_FOUND,
                      "Get prop for Associated port 0x" + Hex(port) + " failed: Not found"),
             1u);
   EXPECT_FALSE(Blocked(port));
   EXPECT_FALSE(PortsetHeld("ps0"));
}

TEST_F(FilterUpgradeTest, BlockFailureKeepsThePropertyAndFreesTheCopy) {
   hyk_PortID port = SetUpPort("alt-vm-7");
   uint64_t heap0 = HeapBytes("lus_heap_0");
   hyksim::InjectFault(Fault("hyk_PortCustomBlock", 1, HYK_BUSY));
   EXPECT_EQ(UpgradePort(port, 1), static_cast<hyk_Status>(HYK_BUSY));
   EXPECT_EQ(ErrLines("LUS_UpgradePort", HYK_BUSY, "Failed to custom block port: 0x" + Hex(port) + " : Busy"), 1u);
   EXPECT_EQ(Prop(port), std::optional<std::string>("alt-vm-7"));
   EXPECT_EQ(HeapBytes("lus_heap_0"), heap0);
   EXPECT_FALSE(PortsetHeld("ps0"));
}

TEST_F(FilterUpgradeTest, UnknownPortFailsToAcquireItsPortset) {
   SetUpPort("alt-vm-7");
   EXPECT_EQ(UpgradePort(0x777, 1), static_cast<hyk_Status>(HYK_NOT_FOUND));
   EXPECT_EQ(ErrLines("LUS_UpgradePort", HYK_NOT_FOUND, "Error acquiring portset for portId 0x777 : Not found"), 1u);
}

TEST_F(FilterUpgradeTest, PropertySetFailureIsLoggedAndNothingIsWaitedFor) {
   hyk_PortID port = SetUpPort("alt-vm-7");
   hyksim::InjectFault(Fault("hyk_FabricPortDataSet", 1, HYK_NO_RESOURCES));
   EXPECT_EQ(UpgradePort(port, 1), static_cast<hyk_Status>(HYK_NO_RESOURCES));
   EXPECT_EQ(ErrLines("LUSContainerFilterUpgrade", HYK_NO_RESOURCES,
                      "Failed to set fabricsw prop com.corvid.common.port.pfilteraltkpx for port 0x" + Hex(port) +
                         " : Out of resources"),
             1u);
   EXPECT_EQ(hyksim::CallCount("hyk_WorldSleep"), 0u);
}

TEST_F(FilterUpgradeTest, PropertyClearFailureIsLogged) {
   hyk_PortID port = SetUpPort("alt-vm-7");
   hyksim::InjectFault(Fault("hyk_FabricPortDataClear", 1, HYK_BUSY));
   EXPECT_EQ(AsLus([&] { return LusFn<FilterUpgradeFn>("LUSContainerFilterUpgrade")(port, "x", 1); }),
             static_cast<hyk_Status>(HYK_BUSY));
   EXPECT_EQ(ErrLines("LUSContainerFilterUpgrade", HYK_BUSY,
                      "Failed to clear fabricsw prop com.corvid.common.port.pfilteraltkpx for port 0x" + Hex(port) + " : Busy"),
             1u);
   EXPECT_EQ(Prop(port), std::optional<std::string>("alt-vm-7"));
}

}  // namespace
}  // namespace lustest
