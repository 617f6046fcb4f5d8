// module_test.cpp -- the module loader with real module objects (fresh
// globals per load, parameters, refused modules, leftovers), in-process
// modules, use counts and the current-module stack.
#include <dlfcn.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "hyk_test_support.h"

namespace {

using hyktest::HostTest;
using hyktest::TestModule;

class ModuleTest : public HostTest {
  protected:
   hyk_Status Load(const std::string &mod, const std::vector<std::string> &params = {},
                   hyk_ModuleID *id = nullptr, std::string *error = nullptr) {
      hyk_ModuleID dummy;
      return hyksim::LoadModule(TestModule(mod), params, id ? id : &dummy, error);
   }
};

TEST_F(ModuleTest, LoadRunsInitWithTheModulePushed) {
   hyk_ModuleID id = 0;
   ASSERT_EQ(Load("hyktest_counter", {}, &id), HYK_OK);
   EXPECT_TRUE(hyksim::LogContains("counter1: init loads=1 start=0 label=none id=" +
                                   std::to_string(id)));
   EXPECT_EQ(hyk_ModuleGetID("hyktest_counter"), id);
   EXPECT_EQ(hyk_ModuleCurrentID(), HYK_INVALID_MODULE_ID);  // popped again
   auto view = hyksim::FindModule("hyktest_counter");
   ASSERT_TRUE(view.has_value());
   EXPECT_EQ(view->path, TestModule("hyktest_counter"));
   EXPECT_EQ(view->useCount, 0u);
   std::vector<std::pair<std::string, std::string>> expectInfo = {
      {"namespace", HYK_NAMESPACE_API},
      {"namespace", HYK_NAMESPACE_CORE},
      {"version", "Version 1.0.0-0 RELEASEbuild-42"},
      {"buildType", "release"},
      {"license", "test-only"}};
   auto info = view->info;
   std::sort(info.begin(), info.end());
   std::sort(expectInfo.begin(), expectInfo.end());
   EXPECT_EQ(info, expectInfo);
   EXPECT_EQ(hyksim::Counts().heaps, 1u);
}

TEST_F(ModuleTest, EveryLoadStartsFromFreshGlobals) {
   hyk_ModuleID first = 0, second = 0;
   ASSERT_EQ(Load("hyktest_counter", {}, &first), HYK_OK);
   ASSERT_EQ(hyksim::UnloadModule("hyktest_counter"), HYK_OK);
   ASSERT_EQ(Load("hyktest_counter", {}, &second), HYK_OK);
   EXPECT_EQ(hyksim::LogCount("counter1: init loads=1"), 2u);
   EXPECT_FALSE(hyksim::LogContains("counter1: init loads=2"));
   EXPECT_FALSE(hyksim::LogContains("stays mapped"));
   EXPECT_NE(first, second);  // IDs are not reused within a host life
}

// A fuzzer's setting: the object stays mapped after its unload, and the next
// load, even in a later host life, starts from the same bytes as the first.
TEST_F(ModuleTest, ResidentObjectsStayMappedAndStillStartFromFreshGlobals) {
   hyksim::KeepModuleObjectsResident(true);
   const std::string path = TestModule("hyktest_counter");
   ASSERT_EQ(Load("hyktest_counter", {"counterStart=5", "label=first"}), HYK_OK);
   ASSERT_EQ(hyksim::UnloadModule("hyktest_counter"), HYK_OK);
   void *still = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
   ASSERT_NE(still, nullptr) << "the object was closed";
   dlclose(still);
   ASSERT_EQ(Load("hyktest_counter"), HYK_OK);
   EXPECT_TRUE(hyksim::LogContains("counter1: init loads=1 start=5 label=first"));
   EXPECT_TRUE(hyksim::LogContains("counter1: init loads=1 start=0 label=none"));
   EXPECT_FALSE(hyksim::LogContains("init loads=2"));
   ASSERT_EQ(hyksim::UnloadModule("hyktest_counter"), HYK_OK);

   hyksim::HostStop();
   hyksim::HostStart();
   ASSERT_EQ(Load("hyktest_counter", {"label=again"}), HYK_OK);
   EXPECT_TRUE(hyksim::LogContains("counter1: init loads=1 start=0 label=again"));
   EXPECT_FALSE(hyksim::LogContains("init loads=2"));
}

TEST_F(ModuleTest, ModulesQueuedLinesStayReadableAfterItsObjectCloses) {
   ASSERT_EQ(Load("hyktest_counter", {"label=goodbye"}), HYK_OK);
   ASSERT_EQ(hyksim::UnloadModule("hyktest_counter"), HYK_OK);
   EXPECT_TRUE(hyksim::LogContains("counter1: cleanup id=1 label=goodbye"));
   EXPECT_FALSE(hyksim::FindModule("hyktest_counter").has_value());
   EXPECT_EQ(hyk_ModuleGetID("hyktest_counter"), HYK_INVALID_MODULE_ID);
   EXPECT_EQ(hyksim::Counts().heaps, 0u);
   EXPECT_FALSE(hyksim::LogContains("left heap"));
}

// While a reader keeps the logger formatting batch after batch, an unload
// may find a batch already taken from the queue: the object must not close
// before that batch is formatted, nor may any queued line still point into
// it.  A line read from a closed object crashes the test.
TEST_F(ModuleTest, UnloadsRacingTheLoggerLeaveEveryLineReadable) {
   std::atomic<bool> done{false};
   std::thread reader([&] {
      while (!done.load()) {
         hyksim::FlushLog();
      }
   });
   constexpr int kRounds = 150;
   for (int i = 0; i < kRounds; i++) {
      ASSERT_EQ(Load("hyktest_counter", {"label=round" + std::to_string(i)}), HYK_OK);
      ASSERT_EQ(hyksim::UnloadModule("hyktest_counter"), HYK_OK);
   }
   done = true;
   reader.join();
   EXPECT_EQ(hyksim::LogCount("counter1: cleanup id="), static_cast<size_t>(kRounds));
   EXPECT_TRUE(hyksim::LogContains("label=round0"));
   EXPECT_TRUE(hyksim::LogContains("label=round" + std::to_string(kRounds - 1)));
}

TEST_F(ModuleTest, ParametersOfEveryTypeAreApplied) {
   ASSERT_EQ(Load("hyktest_counter", {"counterStart=-17", "label=hello world", "failInit=0",
                                      "leaveBehind=0x0"}),
             HYK_OK);
   EXPECT_TRUE(hyksim::LogContains("init loads=1 start=-17 label=hello world"));
   ASSERT_EQ(hyksim::UnloadModule("hyktest_counter"), HYK_OK);
   ASSERT_EQ(Load("hyktest_counter", {"counterStart=0x10"}), HYK_OK);
   EXPECT_TRUE(hyksim::LogContains("init loads=1 start=16 label=none"));
}

TEST_F(ModuleTest, BadParametersAreRefusedBeforeAnyCodeRuns) {
   struct Case {
      std::string param, why;
   } cases[] = {
      {"noSuchParam=1", "unknown parameter noSuchParam"},
      {"counterStart=abc", "bad value \"abc\" for parameter counterStart of type int"},
      {"counterStart=2147483648", "of type int"},
      {"failInit=-1", "bad value \"-1\" for parameter failInit of type uint"},
      {"failInit=4294967296", "of type uint"},
      {"leaveBehind=18446744073709551616", "of type ulong"},
      {"label=" + std::string(HYK_PARAM_STRING_LEN, 'x'), "of type string"},
      {"counterStart", "is not of the form name=value"},
      {"counterStart=", "bad value"},
   };
   for (const Case &c : cases) {
      std::string error;
      EXPECT_EQ(Load("hyktest_counter", {c.param}, nullptr, &error), HYK_BAD_PARAM) << c.param;
      EXPECT_NE(error.find(c.why), std::string::npos) << error;
   }
   EXPECT_FALSE(hyksim::LogContains("counter1: init"));
   EXPECT_TRUE(hyksim::Modules().empty());
}

TEST_F(ModuleTest, LargestValuesFitTheirTypes) {
   ASSERT_EQ(Load("hyktest_counter", {"counterStart=-2147483648", "failInit=0",
                                      "leaveBehind=18446744073709551615"}),
             HYK_OK);
   EXPECT_TRUE(hyksim::LogContains("start=-2147483648"));
}

TEST_F(ModuleTest, FailingInitUnloadsAndDropsWhatItMade) {
   std::string error;
   EXPECT_EQ(Load("hyktest_counter", {"failInit=1"}, nullptr, &error), HYK_FAILURE);
   EXPECT_NE(error.find("init_module returned -1"), std::string::npos);
   EXPECT_TRUE(hyksim::Modules().empty());
   EXPECT_EQ(hyksim::Counts().heaps, 0u);
   EXPECT_TRUE(hyksim::LogContains("module hyktest_counter left heap counter_heap"));
   // The object was closed: the next load starts from fresh globals.
   ASSERT_EQ(Load("hyktest_counter"), HYK_OK);
   EXPECT_EQ(hyksim::LogCount("counter1: init loads=1"), 2u);
}

TEST_F(ModuleTest, LeftoversAreReportedAndDroppedAtUnload) {
   ASSERT_EQ(Load("hyktest_counter", {"leaveBehind=1"}), HYK_OK);
   auto before = hyksim::Counts();
   EXPECT_EQ(before.heaps, 1u);
   EXPECT_EQ(before.logComponents, 1u);
   EXPECT_EQ(before.timerQueues, 1u);
   EXPECT_EQ(before.pendingTimers, 1u);
   EXPECT_EQ(before.lockDomains, 1u);
   ASSERT_EQ(hyksim::UnloadModule("hyktest_counter"), HYK_OK);
   auto after = hyksim::Counts();
   EXPECT_EQ(after.heaps + after.logComponents + after.timerQueues + after.lockDomains, 0u);
   EXPECT_TRUE(hyksim::LogContains("module hyktest_counter left heap counter_heap"));
   EXPECT_TRUE(hyksim::LogContains("module hyktest_counter left log component counter_log"));
   EXPECT_TRUE(hyksim::LogContains(
      "module hyktest_counter left timer queue counter_timers (1 pending timers)"));
   EXPECT_TRUE(hyksim::LogContains("module hyktest_counter left lock domain counter_locks"));
   auto leaks = hyksim::LeakReports();
   ASSERT_EQ(leaks.size(), 1u);
   EXPECT_EQ(leaks[0].heap, "counter_heap");
   EXPECT_EQ(leaks[0].bytes, 24u);
   // The leak names the module's code as the allocating caller.
   EXPECT_TRUE(hyksim::LogContains("allocated by"));
   EXPECT_TRUE(hyksim::LogContains("libhyktest_counter.so"));
}

TEST_F(ModuleTest, TwoBuildsOfOneSourceLoadSideBySide) {
   ASSERT_EQ(Load("hyktest_counter"), HYK_OK);
   // Its heap has the same name; heaps are not unique by name.
   ASSERT_EQ(Load("hyktest_counter2"), HYK_OK);
   EXPECT_TRUE(hyksim::LogContains("counter1: init loads=1"));
   EXPECT_TRUE(hyksim::LogContains("counter2: init loads=1"));
   EXPECT_EQ(hyksim::Modules().size(), 2u);
}

TEST_F(ModuleTest, SameNameOrSameFileIsLoadedOnce) {
   ASSERT_EQ(Load("hyktest_counter"), HYK_OK);
   EXPECT_EQ(Load("hyktest_counter"), HYK_EXISTS);
   hyk_ModuleID id;
   std::string error;
   EXPECT_EQ(hyksim::LoadModule(TestModule("hyktest_counter"), {}, &id, &error, "alias"),
             HYK_EXISTS);
   EXPECT_NE(error.find("is loaded already"), std::string::npos);
}

TEST_F(ModuleTest, ForeignNamespaceIsRefused) {
   std::string error;
   EXPECT_EQ(Load("hyktest_badns", {}, nullptr, &error), HYK_VERSION_MISMATCH);
   EXPECT_NE(error.find("com.corvid.hykapi#v9_0_0_0"), std::string::npos);
   EXPECT_FALSE(hyksim::LogContains("refused module 1 ran init"));
}

TEST_F(ModuleTest, ModuleWithoutNamespaceIsRefused) {
   std::string error;
   EXPECT_EQ(Load("hyktest_nons", {}, nullptr, &error), HYK_VERSION_MISMATCH);
   EXPECT_NE(error.find("no interface namespace"), std::string::npos);
}

TEST_F(ModuleTest, ModuleWithoutInitIsRefused) {
   std::string error;
   EXPECT_EQ(Load("hyktest_noinit", {}, nullptr, &error), HYK_EXEC_FORMAT);
   EXPECT_NE(error.find("no init_module"), std::string::npos);
}

TEST_F(ModuleTest, UnresolvedHostSymbolIsRefused) {
   std::string error;
   EXPECT_EQ(Load("hyktest_unresolved", {}, nullptr, &error), HYK_UNRESOLVED_SYMBOL);
   EXPECT_NE(error.find("hyk_NoSuchOperation"), std::string::npos);
}

TEST_F(ModuleTest, MissingOrForeignFilesAreRefused) {
   hyk_ModuleID id;
   EXPECT_EQ(hyksim::LoadModule("/nonexistent/libnothing.so", {}, &id), HYK_NOT_FOUND);
   std::string junk = ::testing::TempDir() + "libjunk.so";
   std::ofstream(junk) << "this is not an object file";
   std::string error;
   EXPECT_EQ(hyksim::LoadModule(junk, {}, &id, &error), HYK_EXEC_FORMAT);
   EXPECT_NE(error.find("ELF"), std::string::npos);
}

TEST_F(ModuleTest, UnloadIsRefusedWhileInUse) {
   hyk_ModuleID id;
   ASSERT_EQ(Load("hyktest_counter", {}, &id), HYK_OK);
   ASSERT_EQ(hyk_ModuleIncUseCount(id), HYK_OK);
   ASSERT_EQ(hyk_ModuleIncUseCount(id), HYK_OK);
   EXPECT_EQ(hyksim::FindModule("hyktest_counter")->useCount, 2u);
   EXPECT_EQ(hyksim::UnloadModule(id), HYK_BUSY);
   EXPECT_FALSE(hyksim::LogContains("counter1: cleanup"));
   EXPECT_EQ(hyk_ModuleDecUseCount(id), HYK_OK);
   EXPECT_EQ(hyksim::UnloadModule(id), HYK_BUSY);
   EXPECT_EQ(hyk_ModuleDecUseCount(id), HYK_OK);
   EXPECT_EQ(hyk_ModuleDecUseCount(id), HYK_FAILURE);
   EXPECT_EQ(hyksim::UnloadModule(id), HYK_OK);
   EXPECT_EQ(hyksim::UnloadModule(id), HYK_NOT_FOUND);
   EXPECT_EQ(hyk_ModuleIncUseCount(id), HYK_NOT_FOUND);
   EXPECT_EQ(hyk_ModuleDecUseCount(id), HYK_NOT_FOUND);
}

TEST_F(ModuleTest, HostStopUnloadsEverything) {
   hyk_ModuleID id;
   ASSERT_EQ(Load("hyktest_counter", {}, &id), HYK_OK);
   hyk_ModuleIncUseCount(id);
   hyksim::HostStop();
   EXPECT_TRUE(hyksim::LogContains("counter1: cleanup"));
   EXPECT_TRUE(hyksim::Modules().empty());
}

TEST_F(ModuleTest, GetNameCopiesBounded) {
   hyk_ModuleID id;
   ASSERT_EQ(Load("hyktest_counter", {}, &id), HYK_OK);
   char buf[64];
   ASSERT_EQ(hyk_ModuleGetName(id, buf, sizeof buf), HYK_OK);
   EXPECT_STREQ(buf, "hyktest_counter");
   char small[5];
   ASSERT_EQ(hyk_ModuleGetName(id, small, sizeof small), HYK_OK);
   EXPECT_STREQ(small, "hykt");
   EXPECT_EQ(hyk_ModuleGetName(id, nullptr, 4), HYK_BAD_PARAM);
   EXPECT_EQ(hyk_ModuleGetName(id + 100, buf, sizeof buf), HYK_NOT_FOUND);
}

class InProcessModuleTest : public HostTest {};

TEST_F(InProcessModuleTest, CallbacksRunAsTheModule) {
   hyk_ModuleID seenInit = 0, seenCleanup = 0;
   hyksim::InProcessModule m;
   m.name = "inproc";
   m.init = [&] {
      seenInit = hyk_ModuleCurrentID();
      return 0;
   };
   m.cleanup = [&] { seenCleanup = hyk_ModuleCurrentID(); };
   m.info = {{"switchClass", "cswitch"}, {"switchClass", "other"}};
   hyk_ModuleID id;
   ASSERT_EQ(hyksim::LoadInProcessModule(m, &id), HYK_OK);
   EXPECT_EQ(seenInit, id);
   EXPECT_EQ(hyksim::ModuleInfo(id, "switchClass"), "cswitch,other");
   EXPECT_EQ(hyksim::ModuleInfo(id, "absent"), "");
   EXPECT_TRUE(hyksim::ModuleLoaded(id));
   EXPECT_EQ(hyksim::FindModule("inproc")->path, "");
   EXPECT_EQ(hyksim::LoadInProcessModule(m, &id), HYK_EXISTS);
   ASSERT_EQ(hyksim::UnloadModule("inproc"), HYK_OK);
   EXPECT_EQ(seenCleanup, id);
   EXPECT_FALSE(hyksim::ModuleLoaded(id));
}

TEST_F(InProcessModuleTest, FailingInitIsReported) {
   hyksim::InProcessModule m{"broken", [] { return 7; }, {}, {}};
   hyk_ModuleID id = 0;
   EXPECT_EQ(hyksim::LoadInProcessModule(m, &id), HYK_FAILURE);
   EXPECT_TRUE(hyksim::LogContains("module broken: init_module returned 7"));
   EXPECT_FALSE(hyksim::FindModule("broken").has_value());
}

TEST_F(InProcessModuleTest, UnloadHooksSeeTheModuleGone) {
   // Hooks stay registered for the life of the process: static state only.
   static std::vector<std::string> seen;
   hyksim::OnModuleUnloaded([](hyk_ModuleID id, const std::string &name) {
      seen.push_back(name + (hyksim::ModuleLoaded(id) ? " still loaded" : " gone"));
   });
   hyksim::InProcessModule m{"hooked", {}, {}, {}};
   hyk_ModuleID id;
   ASSERT_EQ(hyksim::LoadInProcessModule(m, &id), HYK_OK);
   ASSERT_EQ(hyksim::UnloadModule(id), HYK_OK);
   ASSERT_FALSE(seen.empty());
   EXPECT_EQ(seen.back(), "hooked gone");
}

class ModuleStackTest : public HostTest {};

TEST_F(ModuleStackTest, PushAndPopNest) {
   hyk_ModuleCookie outer, inner;
   hyk_ModulePushId(3, nullptr, &outer);
   EXPECT_EQ(hyk_ModuleCurrentID(), 3u);
   EXPECT_EQ(outer.prevID, HYK_INVALID_MODULE_ID);
   hyk_ModulePushId(9, reinterpret_cast<const void *>(&hyk_ModulePopId), &inner);
   EXPECT_EQ(hyk_ModuleCurrentID(), 9u);
   EXPECT_EQ(inner.prevID, 3u);
   EXPECT_EQ(inner.depth, 2u);
   hyk_ModulePopId();
   EXPECT_EQ(hyk_ModuleCurrentID(), 3u);
   hyk_ModulePopId();
   EXPECT_EQ(hyk_ModuleCurrentID(), HYK_INVALID_MODULE_ID);
}

TEST_F(ModuleStackTest, StackIsPerThread) {
   hyk_ModuleCookie c;
   hyk_ModulePushId(4, nullptr, &c);
   hyk_ModuleID other = 0;
   std::thread([&] { other = hyk_ModuleCurrentID(); }).join();
   EXPECT_EQ(other, HYK_INVALID_MODULE_ID);
   hyk_ModulePopId();
}

TEST_F(ModuleStackTest, PopWithoutPushPanics) {
   EXPECT_DEATH(hyk_ModulePopId(), "hyk_ModulePopId without a matching hyk_ModulePushId");
}

TEST_F(ModuleStackTest, UnbalancedInitPanics) {
   hyksim::InProcessModule m{"unbalanced",
                             [] {
                                hyk_ModuleCookie c;
                                hyk_ModulePushId(77, nullptr, &c);
                                return 0;
                             },
                             {},
                             {}};
   hyk_ModuleID id;
   EXPECT_DEATH(hyksim::LoadInProcessModule(m, &id), "init_module of module unbalanced returned "
                                                     "with unbalanced module pushes");
}

TEST_F(ModuleStackTest, PanicNamesTheModule) {
   hyksim::InProcessModule m{"culprit", {}, {}, {}};
   hyk_ModuleID id;
   ASSERT_EQ(hyksim::LoadInProcessModule(m, &id), HYK_OK);
   EXPECT_DEATH(hyk_PanicWithModuleID(id, "Failed at %s:%d -- NOT REACHED", "lus_client", 12),
                "hyk: PANIC: module culprit: Failed at lus_client:12 -- NOT REACHED");
}

}  // namespace
