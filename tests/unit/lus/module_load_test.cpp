// Tests of loading and unloading lus: the order of the host calls, the unwind
// of every failing step, parameters and information records.
#include <algorithm>

#include "lus_fixture.h"

namespace lustest {
namespace {

using ModuleLoadTest = LusTest;

bool NothingOfLusLeft() {
   HostSnapshot s = Snapshot();
   return s.heaps == 0 && s.logComponents == 0 && s.timerQueues == 0 && s.pendingTimers == 0 &&
          s.lockDomains == 0 && s.spinlocks == 0 && s.charDevs == 0 && s.subscriptions == 0 &&
          s.registeredEvents == 0 && hyksim::LogCount("module lus left") == 0 &&
          hyksim::LeakReports().empty();
}

std::vector<std::string> Filter(const std::vector<std::string> &trace) {
   std::vector<std::string> out;
   for (auto &op : trace) {
      if (op.rfind("hyk_", 0) == 0) {
         out.push_back(op);
      }
   }
   return out;
}

TEST_F(ModuleLoadTest, LoadCreatesResourcesInOrder) {
   hyksim::TraceEnable(true);
   Load();
   std::vector<std::string> expected = {
      "hyk_HeapCreate",     "hyk_HeapCreate",       "hyk_HeapCreate",    "hyk_LogRegister",
      "hyk_LogRegister",    "hyk_TimerQueueCreate", "hyk_CharDevRegister", "hyk_LockDomainCreate",
      "hyk_RWSpinlockCreate", "hyk_SpinlockCreate", "hyk_SpinlockCreate"};
   EXPECT_EQ(Filter(hyksim::Trace()), expected);

   auto heap0 = hyksim::FindHeap("lus_heap_0");
   auto heap1 = hyksim::FindHeap("lus_heap_1");
   auto heap2 = hyksim::FindHeap("lus_heap_2");
   ASSERT_TRUE(heap0 && heap1 && heap2);
   EXPECT_EQ(heap0->initialSize, 1000000u);
   EXPECT_EQ(heap0->maxSize, 100000000u);
   EXPECT_EQ(heap1->initialSize, 4096u);
   EXPECT_EQ(heap1->maxSize, 3000000000u);
   EXPECT_EQ(heap2->initialSize, 4096u);
   EXPECT_EQ(heap2->maxSize, 3000000000u);
   EXPECT_EQ(Var<hyk_HeapID>("curHeapID"), heap1->id);
   EXPECT_EQ(Var<uint32_t>("toBuild"), kToBuild);
   EXPECT_EQ(Var<hyk_ModuleID>("lusModID"), LusID());
   EXPECT_EQ(Var<uint64_t>("maxAllowedCBTime"), 200u);

   auto comps = hyksim::LogComponents();
   auto normal = std::find_if(comps.begin(), comps.end(), [](auto &c) { return c.name == "lus_heap_0"; });
   auto throt = std::find_if(comps.begin(), comps.end(), [](auto &c) { return c.name == "lus_heap_0_throt"; });
   ASSERT_NE(normal, comps.end());
   ASSERT_NE(throt, comps.end());
   EXPECT_EQ(normal->level, 3);
   EXPECT_EQ(normal->throttle, 0u);
   EXPECT_EQ(throt->throttle, 1u);

   auto devs = hyksim::CharDevs();
   ASSERT_EQ(devs.size(), 1u);
   EXPECT_EQ(devs[0].name, "lus");
   EXPECT_EQ(devs[0].owner, LusID());
   auto counts = hyksim::Counts();
   EXPECT_EQ(counts.timerQueues, 1u);
   EXPECT_EQ(counts.lockDomains, 1u);
   // The client lock, the world's lock and the map lock.
   EXPECT_EQ(counts.spinlocks, 3u);
   EXPECT_EQ(CountPlainPrinterLines("LUS Log level set to 3", false), 1u);

   // The two lists start empty: each head points at itself.
   auto *global = LusVar<LusListLinks>("lusGlobalState");
   ASSERT_NE(global, nullptr);
   EXPECT_EQ(global->next, global);
   EXPECT_EQ(global->prev, global);
}

TEST_F(ModuleLoadTest, UnloadReleasesResourcesInReverseOrder) {
   Load();
   hyksim::TraceEnable(true);
   ASSERT_EQ(UnloadLus(), HYK_OK);
   std::vector<std::string> expected = {
      "hyk_NetEventUnregister", "hyk_SpinlockDestroy", "hyk_SpinlockDestroy", "hyk_RWSpinlockDestroy",
      "hyk_LockDomainDestroy",  "hyk_TimerQueueDestroy", "hyk_CharDevUnregister",
      "hyk_LogUnregister",      "hyk_LogUnregister",     "hyk_HeapDestroy",
      "hyk_HeapDestroy",        "hyk_HeapDestroy"};
   auto trace = Filter(hyksim::Trace());
   // The clearing at unload posts nothing here (no registration was made).
   EXPECT_EQ(trace, expected);
   EXPECT_TRUE(NothingOfLusLeft());
}

TEST_F(ModuleLoadTest, HeapZeroMaxBelowMinFailsAtHeapZeroAndLeavesNoHeap) {
   EXPECT_EQ(LoadLus({"LUS_HEAP_MIN_SIZE=2000000", "LUS_HEAP_0_MAX_SIZE=1000000"}), HYK_FAILURE);
   EXPECT_EQ(CountPlainPrinterLines("LUS - failed to create heap lus_heap_0: Bad parameter", true), 1u);
   EXPECT_EQ(hyksim::CallCount("hyk_HeapCreate"), 1u);
   EXPECT_TRUE(hyksim::Heaps().empty());
   EXPECT_TRUE(NothingOfLusLeft());
}

TEST_F(ModuleLoadTest, DefaultLoadAndUnloadLogsNoNonEmptyAndIgnoresEventUnregisterFailure) {
   Load();
   ASSERT_EQ(UnloadLus(), HYK_OK);
   EXPECT_EQ(hyksim::LogCount("Non empty"), 0u);
   EXPECT_EQ(hyksim::CallCount("hyk_NetEventUnregister"), 1u);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe(
                "lusCleanup", 3,
                "Failed to unregister event com.corvid.tarn.kcp.port.unblock : Not found"), 1),
             1u);
   // The failure stopped nothing: everything else went too.
   EXPECT_TRUE(NothingOfLusLeft());
}

TEST_F(ModuleLoadTest, FromBuildModuleSkipsEventUnregistrationAtUnload) {
   Load({"fromBuild=1000"});
   EXPECT_EQ(Var<uint32_t>("fromBuild"), kFromBuild);
   ASSERT_EQ(UnloadLus(), HYK_OK);
   EXPECT_EQ(hyksim::CallCount("hyk_NetEventUnregister"), 0u);
   EXPECT_EQ(hyksim::LogCount("Failed to unregister event"), 0u);
   EXPECT_TRUE(NothingOfLusLeft());
}

TEST_F(ModuleLoadTest, UnloadWithMapEntriesLogsNonEmptyCode86AndFreesEverything) {
   Load();
   TestClientConfig from;
   from.moduleName = "fw_old";
   from.clientName = "fw";
   from.buildNumber = 0xffffffffu;  // lus was loaded without fromBuild: the event carries all ones
   from.upgradePhase = LUS_PHASE_PORT;
   AddClient(from);
   TestClientConfig to = from;
   to.moduleName = "fw_new";
   to.buildNumber = kToBuild;
   AddClient(to);
   MakePortset("ps0", 2);
   ASSERT_EQ(Reg(0, LUS_REG_FROM_V1), HYK_OK);
   ASSERT_EQ(Reg(0, LUS_REG_TO_V1), HYK_OK);
   ASSERT_EQ(AsLus([] { return LusFn<RegAllPSFn>("LUS_ClientRegAllPS")("ps0"); }), HYK_OK);
   LusHashMap *perPort = Var<LusHashMap *>("lusPerPortHashMap");
   ASSERT_NE(perPort, nullptr);
   ASSERT_EQ(perPort->count, 2u);

   // Without fromBuild the clearing at unload empties the portset-phase map
   // only; the port-phase map still holds its two ports.
   ASSERT_EQ(UnloadLus(), HYK_OK);
   EXPECT_EQ(CountModuleLines(ErrorCodeLineRe("lusCleanup", 86,
                                              "Non empty LUS port phase hash map : Not empty"),
                              1),
             1u);
   EXPECT_EQ(hyksim::LogCount("Non empty LUS PS phase hash map"), 0u);
   // Every host object went; the records the map still pointed at went with heap 0.
   HostSnapshot s = Snapshot();
   EXPECT_EQ(s.heaps, 0u);
   EXPECT_EQ(s.logComponents, 0u);
   EXPECT_EQ(s.timerQueues, 0u);
   EXPECT_EQ(s.lockDomains, 0u);
   EXPECT_EQ(s.spinlocks, 0u);
   EXPECT_EQ(s.charDevs, 0u);
   EXPECT_EQ(hyksim::LogCount("module lus left"), 0u);
   // The clients were unregistered by the clearing: both can go now.
   for (auto &c : clients_) {
      EXPECT_EQ(c->Unload(), HYK_OK) << c->config().moduleName;
   }
}

struct LoadFault {
   const char *op;
   uint64_t nth;
   hyk_Status status;
   bool warning;          // reported by the host's warning printer (no log handle yet)
   const char *function;  // else: the function of the module line
   const char *text;      // whole text of the line
   const char *text2;     // a second line ("" = none)
   const char *function2;
};

void PrintTo(const LoadFault &f, std::ostream *os) { *os << f.op << " call " << f.nth; }

class ModuleLoadFaultTest : public LusTest, public ::testing::WithParamInterface<LoadFault> {};

TEST_P(ModuleLoadFaultTest, FailingHostCallFailsLoadAndUnwindsEverything) {
   const LoadFault &f = GetParam();
   hyksim::FaultSpec desc;
   desc.op = f.op;
   desc.nth = f.nth;
   desc.status = f.status;
   hyksim::InjectFault(desc);

   EXPECT_EQ(LoadLus(), HYK_FAILURE);
   EXPECT_EQ(hyksim::InjectedFaultCount(f.op), 1u);
   if (f.warning) {
      EXPECT_EQ(CountPlainPrinterLines(f.text, true), 1u) << hyksim::LogText();
   } else {
      uint32_t code = f.status & 0xffff;
      EXPECT_EQ(CountModuleLines(ErrorCodeLineRe(f.function, code, f.text), 1), 1u)
         << hyksim::LogText();
   }
   if (f.text2[0] != '\0') {
      EXPECT_EQ(CountModuleLines(ErrorCodeLineRe(f.function2, f.status & 0xffff, f.text2), 1), 1u)
         << hyksim::LogText();
   }
   EXPECT_TRUE(NothingOfLusLeft()) << hyksim::LogText();

   // Nothing half-made stands in the way of the next load.
   hyksim::ClearFaults();
   EXPECT_EQ(LoadLus(), HYK_OK);
   EXPECT_EQ(UnloadLus(), HYK_OK);
}

INSTANTIATE_TEST_SUITE_P(
   EveryStep, ModuleLoadFaultTest,
   ::testing::Values(
      LoadFault{"hyk_HeapCreate", 1, HYK_NO_MEMORY, true, "", "LUS - failed to create heap lus_heap_0: Out of memory", "", ""},
      LoadFault{"hyk_HeapCreate", 2, HYK_NO_MEMORY, true, "", "LUS - failed to create heap lus_heap_1: Out of memory", "", ""},
      LoadFault{"hyk_HeapCreate", 3, HYK_NO_MEMORY, true, "", "LUS - failed to create heap lus_heap_2: Out of memory", "", ""},
      LoadFault{"hyk_LogRegister", 1, HYK_EXISTS, true, "", "LUS - failed to register log handle : Already exists", "", ""},
      LoadFault{"hyk_LogRegister", 2, HYK_EXISTS, true, "", "LUS - failed to register log handle : Already exists", "", ""},
      LoadFault{"hyk_TimerQueueCreate", 1, HYK_NO_MEMORY, false, "lusInit", "Failed to create timer queue : Out of memory", "", ""},
      LoadFault{"hyk_CharDevRegister", 1, HYK_EXISTS, false, "lusCharDevActivate", "Failed to register character device[lus] : Already exists",
                "LUS - failed to register char device : Already exists", "lusInit"},
      LoadFault{"hyk_LockDomainCreate", 1, HYK_NO_MEMORY, false, "lusLockInit", "Failed to create lock domain tarnq-lus : Out of memory", "", ""},
      LoadFault{"hyk_RWSpinlockCreate", 1, HYK_NO_MEMORY, false, "lusLockInit", "Failed to create lus client lock : Out of memory", "", ""},
      LoadFault{"hyk_SpinlockCreate", 1, HYK_NO_MEMORY, false, "lusLockInit", "Failed to create lus dummy lock : Out of memory", "", ""},
      LoadFault{"hyk_SpinlockCreate", 2, HYK_NO_MEMORY, false, "lusLockInit", "Failed to create lus map lock : Out of memory", "", ""}),
   [](const ::testing::TestParamInfo<LoadFault> &info) {
      return std::string(info.param.op + 4) + "Call" + std::to_string(info.param.nth);
   });

TEST_F(ModuleLoadTest, InformationRecordsNameInterfaceVersionBuildTypeAndLicense) {
   Load();
   auto view = hyksim::FindModule("lus");
   ASSERT_TRUE(view);
   std::vector<std::string> namespaces;
   std::string version, buildType, license;
   for (auto &[k, v] : view->info) {
      if (k == "namespace") namespaces.push_back(v);
      if (k == "version") version = v;
      if (k == "buildType") buildType = v;
      if (k == "license") license = v;
   }
   // The records' order in the object is the linker's, not the module's.
   std::sort(namespaces.begin(), namespaces.end());
   EXPECT_EQ(namespaces, (std::vector<std::string>{"com.corvid.hykapi#v3_1_0_0", "hykcore#nover"}));
   EXPECT_EQ(version, "Version 0.0.0-0 RELEASEbuild-2000");
   EXPECT_EQ(buildType, "release");
   EXPECT_FALSE(license.empty());
}

TEST_F(ModuleLoadTest, ParametersReachHeapsLogLevelAndFromBuild) {
   Load({"LUS_HEAP_MIN_SIZE=500000", "LUS_HEAP_0_MAX_SIZE=2000000", "LUS_HEAP_MAX_SIZE=70000",
         "lusLogLevel=5", "fromBuild=1234"});
   auto heap0 = hyksim::FindHeap("lus_heap_0");
   auto heap2 = hyksim::FindHeap("lus_heap_2");
   ASSERT_TRUE(heap0 && heap2);
   EXPECT_EQ(heap0->initialSize, 500000u);
   EXPECT_EQ(heap0->maxSize, 2000000u);
   EXPECT_EQ(heap2->maxSize, 70000u);
   EXPECT_EQ(CountPlainPrinterLines("LUS Log level set to 5", false), 1u);
   EXPECT_EQ(Var<uint32_t>("fromBuild"), 1234u);
   for (auto &c : hyksim::LogComponents()) {
      if (c.name == "lus_heap_0") {
         EXPECT_EQ(c.level, 5);
      }
   }
}

TEST_F(ModuleLoadTest, HeapMaxAboveThirtyTwoBitsIsRefusedByTheHost) {
   EXPECT_NE(LoadLus({"LUS_HEAP_MAX_SIZE=5000000000"}), HYK_OK);
   EXPECT_TRUE(NothingOfLusLeft());
}

TEST_F(ModuleLoadTest, EveryLoadStartsFromFreshGlobals) {
   Load({"fromBuild=1000"});
   Var<uint32_t>("numPortsets") = 7;
   ASSERT_EQ(UnloadLus(), HYK_OK);
   Load();
   EXPECT_EQ(Var<uint32_t>("numPortsets"), 0u);
   EXPECT_EQ(Var<uint32_t>("fromBuild"), 0xffffffffu);
}

}  // namespace
}  // namespace lustest
