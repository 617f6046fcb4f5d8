// Tests of the upgrade world: one portset carried through a live upgrade by
// command 9, on a real host world while the command's thread waits.  Each
// clean-up tail is reached by a failure injected at its step.
#include <atomic>
#include <chrono>
#include <thread>

#include "world_fixture.h"

namespace lustest {
namespace {

class UpgradeWorldTest : public WorldTest {
  protected:
   // lusDummyLock is free: another thread takes and drops it in time.
   bool LockFree() {
      hyk_SpinlockID lock = Var<hyk_SpinlockID>("lusDummyLock");
      hyk_ModuleID lus = LusID();
      auto done = std::make_shared<std::atomic<bool>>(false);
      std::thread([lock, lus, done] {
         hyk_ModuleCookie cookie{};
         hyk_ModulePushId(lus, nullptr, &cookie);
         hyk_SpinlockLock(lock);
         hyk_SpinlockUnlock(lock);
         hyk_ModulePopId();
         done->store(true);
      }).detach();
      for (int i = 0; i < 500 && !done->load(); i++) {
         std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      return done->load();
   }
   bool ClientsCleared() { return Var<uint64_t>("already_called") == 1; }
   bool FromClientRegistered(const TestClient *c) { return c->handle() != nullptr; }
   // Every record of lusHashMap gone.
   uint32_t PortsetPhaseEntries() {
      LusHashMap *map = Var<LusHashMap *>("lusHashMap");
      return map == nullptr ? 0 : map->count;
   }
   // Injects `desc` from inside the old client's portset save (step 11), so
   // that it hits the first such call of a later step.
   void InjectAfterPsSave(Setup &s, const hyksim::FaultSpec &desc) {
      s.fw.from->config().onCall = [desc](Slot slot) {
         if (slot == kPsRuntimeSave) hyksim::InjectFault(desc);
      };
   }
   // What every tail from tail 4 on promises, and the status returned.
   void ExpectReleased(const std::string &ps) {
      EXPECT_FALSE(PortsetHeld(ps));
      EXPECT_TRUE(LockFree());
      EXPECT_TRUE(PsRecords().empty());
      EXPECT_EQ(NamespaceMembers(ps), 0u);
      EXPECT_TRUE(ClientsCleared());
   }
};

// ---- success ---------------------------------------------------------------

TEST_F(UpgradeWorldTest, HotSwapUpgradeReportsSuccessAndKeepsTheClientsRegistered) {
   Setup s = Standard();
   auto ports = Switch("ps0", "etherswitch", "tarnq-vswitch-1000", 2);
   RegisterBoth();

   EXPECT_EQ(Tool().PsUpgrade("ps0", s.modules), HYK_OK);

   auto view = hyksim::FindPortset("ps0");
   EXPECT_EQ(view->className, "etherswitch");
   EXPECT_EQ(view->classModule, s.newSwitch);
   EXPECT_EQ(view->upgradeProperties["tarnUpgradeFromBuild"], "cleared");
   EXPECT_EQ(view->upgradeProperties["tarnUpgradeToBuild"], "set");
   EXPECT_EQ(std::string(PsState().name), "ps0");
   ASSERT_EQ(s.fw.to->psRestored.size(), 1u);
   EXPECT_EQ(s.fw.to->psRestored[0], (std::vector<uint8_t>{1, 2, 3, 4, 5}));
   EXPECT_EQ(s.fw.from->psCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_SUCCESS});
   // The portset was let go before the clients heard of success.
   EXPECT_EQ(s.fw.from->psCompletePortsets, std::vector<hyk_Portset *>{nullptr});
   // Per-port state was sized and saved for every port, then emptied with the enrolment.
   EXPECT_EQ(s.fw.from->Calls(kGetRuntimeState), 2u);
   EXPECT_EQ(PortsetPhaseEntries(), 0u);
   EXPECT_EQ(ClientStateBytes(), 0u);
   for (hyk_PortID p : ports) {
      auto pv = hyksim::FindPort(p);
      EXPECT_EQ(pv->blocked.size(), 1u);
      EXPECT_TRUE(pv->passesTraffic);
   }
   EXPECT_FALSE(PortsetHeld("ps0"));
   EXPECT_TRUE(LockFree());
   EXPECT_TRUE(PsRecords().empty());
   EXPECT_EQ(NamespaceMembers("ps0"), 0u);
   EXPECT_FALSE(ClientsCleared());
   EXPECT_TRUE(FromClientRegistered(s.fw.from));
   EXPECT_EQ(InfoLines("LUSUpgradeWorld", "Starting upgrade for portset ps0"), 1u);
   EXPECT_EQ(InfoLines("LUSUpgradeWorld", "Hotswap completed."), 1u);
   EXPECT_EQ(InfoLines("LUSUpgradeWorld", "Portset ps0 upgrade completed"), 1u);
   // The enrolment goes as a version 1 map's: emptied, without the version 0 line.
   EXPECT_EQ(InfoLines("LUS_HashEmpty", "All entries in LUS hash table deleted."), 1u);
   EXPECT_EQ(InfoLines("LUS_HashEmpty", "LUS hash table free'd"), 0u);
   // The world ran on a host world of its own.
   EXPECT_EQ(hyksim::CallCount("hyk_WorldCreate"), 1u);
}

// ---- the switch-over ---------------------------------------------------------

TEST_F(UpgradeWorldTest, CswitchPortsetGetsSwitchEventsInsteadOfAHotSwapAndGoesOn) {
   Setup s = Standard();
   Switch("ps0", "cswitch", "tarnq-vswitch-1000", 1);
   RegisterBoth();
   EXPECT_EQ(Tool().PsUpgrade("ps0", s.modules), HYK_OK);
   EXPECT_EQ(hyksim::CallCount("hyk_PortsetClassHotSwap"), 0u);
   auto view = hyksim::FindPortset("ps0");
   EXPECT_EQ(view->events, (std::vector<std::string>{"com.corvid.tarn.lus.cswitch.deactivate.1000",
                                                     "com.corvid.tarn.lus.cswitch.activate.2000"}));
   EXPECT_EQ(view->className, "cswitch");
   EXPECT_EQ(view->upgradeProperties["tarnUpgradeToBuild"], "set");
   EXPECT_EQ(s.fw.to->psRestored.size(), 1u);
   EXPECT_EQ(s.fw.from->psCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_SUCCESS});
}

TEST_F(UpgradeWorldTest, FailedHotSwapOfANulldevPortsetEndsOnTheStubSwitchWithTheFirstFailure) {
   Setup s = Standard();
   Switch("ps0", "etherswitch", "tarnq-vswitch-1000", 1);
   RegisterBoth();
   // The old switch module goes: the portset falls to "nulldev", which the new one does not provide.
   ASSERT_EQ(hyksim::UnloadModule(s.oldSwitch), HYK_OK);
   ASSERT_EQ(hyksim::FindPortset("ps0")->className, "nulldev");
   s.modules.erase(s.modules.begin() + 2);

   EXPECT_EQ(Tool().PsUpgrade("ps0", s.modules), static_cast<hyk_Status>(HYK_NOT_SUPPORTED));
   auto view = hyksim::FindPortset("ps0");
   EXPECT_EQ(view->className, "stub-vswitch");
   EXPECT_EQ(view->classModule, s.stubSwitch);
   EXPECT_EQ(hyksim::CallCount("hyk_PortsetClassHotSwap"), 2u);
   EXPECT_EQ(ErrLines("LUSUpgradeWorld", HYK_NOT_SUPPORTED,
                      "HotSwap failed for ps ps0 with class nulldev : Not supported"),
             1u);
   EXPECT_EQ(InfoLines("lusSwaptoStubVswitch", "Hotswap portset ps0 from nulldev to stub-vswitch"), 1u);
   EXPECT_EQ(s.fw.from->psCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_FAILURE});
   ExpectReleased("ps0");
}

TEST_F(UpgradeWorldTest, FailedStubSwapIsLoggedAndTheFirstFailureStillReturned) {
   Setup s = Standard();
   Switch("ps0", "etherswitch", "tarnq-vswitch-1000", 1);
   RegisterBoth();
   ASSERT_EQ(hyksim::UnloadModule(s.oldSwitch), HYK_OK);
   s.modules.erase(s.modules.begin() + 2);
   ASSERT_EQ(hyksim::UnloadModule(s.stubSwitch), HYK_OK);  // no stub module to swap to

   EXPECT_EQ(Tool().PsUpgrade("ps0", s.modules), static_cast<hyk_Status>(HYK_NOT_SUPPORTED));
   EXPECT_EQ(hyksim::FindPortset("ps0")->className, "nulldev");
   EXPECT_EQ(ErrLines("lusSwaptoStubVswitch", HYK_MODULE_NOT_LOADED,
                      "HotSwap to stub vswitch failed for portset ps0 : Module not loaded"),
             1u);
   ExpectReleased("ps0");
}

TEST_F(UpgradeWorldTest, FailedHotSwapOfAnyOtherClassEndsWithThatFailureAndNoSecondSwap) {
   Setup s = Standard();
   Switch("ps0", "vlanswitch", "tarnq-vswitch-1000", 1);  // not provided by the new module
   RegisterBoth();
   EXPECT_EQ(Tool().PsUpgrade("ps0", s.modules), static_cast<hyk_Status>(HYK_NOT_SUPPORTED));
   EXPECT_EQ(hyksim::CallCount("hyk_PortsetClassHotSwap"), 1u);
   auto view = hyksim::FindPortset("ps0");
   EXPECT_EQ(view->className, "vlanswitch");
   EXPECT_EQ(view->classModule, s.oldSwitch);
   EXPECT_EQ(CountModuleLines(PlainLineRe("lusSwaptoStubVswitch", "Hotswap portset ps0 from nulldev to stub-vswitch")), 0u);
   EXPECT_EQ(s.fw.from->psCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_FAILURE});
   ExpectReleased("ps0");
}

TEST_F(UpgradeWorldTest, PerPortRestoreFailureReportsCompletionOneButReturnsTheFailure) {
   Setup s = Standard();
   Switch("ps0", "etherswitch", "tarnq-vswitch-1000", 1);
   RegisterBoth();
   // From inside the new client's portset restore (step 21): the dual-load walk of step 23 fails.
   s.fw.to->config().onCall = [](Slot slot) {
      if (slot == kPsRuntimeRestore) hyksim::InjectFault(Fault("hyk_PortsetForAllPorts", 1, HYK_BUSY));
   };
   EXPECT_EQ(Tool().PsUpgrade("ps0", s.modules), static_cast<hyk_Status>(HYK_BUSY));
   EXPECT_EQ(s.fw.from->psCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_SUCCESS});
   EXPECT_EQ(ErrLines("LUSUpgradeWorld", HYK_BUSY, "Failed to restore LUS per port runtime state : Busy"), 1u);
   ExpectReleased("ps0");
}

TEST_F(UpgradeWorldTest, FabricVersion106BlocksPortsWithFlagZero) {
   Setup s = Standard();
   hyksim::PortsetSpec desc;
   desc.name = "ps0";
   desc.className = "etherswitch";
   desc.classModule = "tarnq-vswitch-1000";
   desc.fabricVersion = 106;
   ASSERT_EQ(hyksim::AddPortset(desc), HYK_OK);
   hyk_PortID plain = AddVnicPort("ps0", "vm-1", 0);  // no LSPG flag, no external id
   RegisterBoth();
   EXPECT_EQ(Tool().PsUpgrade("ps0", s.modules), HYK_OK);
   // Flag 0: blocked without reading the LSPG flag or the external id.
   EXPECT_EQ(hyksim::FindPort(plain)->blocked.size(), 1u);
   EXPECT_EQ(hyksim::CallCount("hyk_FabricPortFlagIsSet"), 0u);
   EXPECT_EQ(InfoLines("lusPortBlock", "lusPortBlock port: 0x" + Hex(plain) + " (" + std::to_string(plain) + ")", 5), 1u);
}

TEST_F(UpgradeWorldTest, FabricVersion107LeavesAPlainVnicPortRunning) {
   Setup s = Standard();
   hyksim::PortsetSpec desc;
   desc.name = "ps0";
   desc.className = "etherswitch";
   desc.classModule = "tarnq-vswitch-1000";
   desc.fabricVersion = 107;
   ASSERT_EQ(hyksim::AddPortset(desc), HYK_OK);
   hyk_PortID plain = AddVnicPort("ps0", "vm-1", 0);
   RegisterBoth();
   EXPECT_EQ(Tool().PsUpgrade("ps0", s.modules), HYK_OK);
   EXPECT_TRUE(hyksim::FindPort(plain)->blocked.empty());
}

// ---- the clean-up tails, each reached at its step ------------------------------

TEST_F(UpgradeWorldTest, Tail1EnrolmentFailureClearsTheClientsAndReturnsTheStatus) {
   Setup s = Standard();
   Switch("ps0", "etherswitch", "tarnq-vswitch-1000", 1);
   RegisterBoth();
   hyksim::InjectFault(Fault("hyk_PortsetAcquireByName", 1, HYK_BUSY));
   EXPECT_EQ(Tool().PsUpgrade("ps0", s.modules), static_cast<hyk_Status>(HYK_BUSY));
   EXPECT_EQ(ErrLines("LUSUpgradeWorld", HYK_BUSY,
                      "Per portset Client Registration FAILED for portset ps0 : Busy"),
             1u);
   EXPECT_TRUE(ClientsCleared());
   EXPECT_FALSE(FromClientRegistered(s.fw.from));
   EXPECT_EQ(hyksim::CallCount("hyk_PortsetFabricPropUpgradeRegister"), 0u);
   EXPECT_EQ(hyksim::CallCount("hyk_PortsetFabricPropUpgradeUnregister"), 0u);
   EXPECT_EQ(s.fw.from->Calls(kPsRuntimeSave), 0u);
   EXPECT_FALSE(PortsetHeld("ps0"));
}

TEST_F(UpgradeWorldTest, Tail1ModuleRegistrationFailureUnregistersNothing) {
   Setup s = Standard();
   Switch("ps0", "etherswitch", "tarnq-vswitch-1000", 1);
   RegisterBoth();
   hyksim::InjectFault(Fault("hyk_PortsetFabricPropUpgradeRegister", 2, HYK_NO_RESOURCES));
   EXPECT_EQ(Tool().PsUpgrade("ps0", s.modules), static_cast<hyk_Status>(HYK_NO_RESOURCES));
   EXPECT_EQ(hyksim::CallCount("hyk_PortsetFabricPropUpgradeUnregister"), 0u);
   // The module registered before the failure stays, as the registration leaves it.
   EXPECT_EQ(NamespaceMembers("ps0"), 1u);
   EXPECT_TRUE(ClientsCleared());
   EXPECT_FALSE(PortsetHeld("ps0"));
}

TEST_F(UpgradeWorldTest, Tail2PsInitFailureUnregistersTheModulesAndClearsTheClients) {
   Setup s = Standard();
   // A client of the old build only, last in the table: the pairing reports its lookup.
   TestClientConfig solo;
   solo.moduleName = "solo_old";
   solo.clientName = "solo";
   solo.buildNumber = kFromBuild;
   AddClient(solo);
   Switch("ps0", "etherswitch", "tarnq-vswitch-1000", 1);
   RegisterBoth();
   EXPECT_EQ(Tool().PsUpgrade("ps0", s.modules), static_cast<hyk_Status>(HYK_NOT_FOUND));
   EXPECT_EQ(ErrLines("LUSUpgradeWorld", HYK_NOT_FOUND, "Failed to init LUS runtime client state : Not found"), 1u);
   EXPECT_EQ(hyksim::CallCount("hyk_PortsetFabricPropUpgradeUnregister"), s.modules.size());
   EXPECT_EQ(NamespaceMembers("ps0"), 0u);
   EXPECT_TRUE(ClientsCleared());
   EXPECT_EQ(s.fw.from->Calls(kPsRuntimeSave), 0u);
   EXPECT_FALSE(PortsetHeld("ps0"));
}

TEST_F(UpgradeWorldTest, Tail3PortsetAcquireFailureDestroysThePortsetRecords) {
   Setup s = Standard();
   Switch("ps0", "etherswitch", "tarnq-vswitch-1000", 1);
   RegisterBoth();
   uint64_t heap0 = HeapBytes("lus_heap_0");
   // Acquisitions: enrolment, module registration, then the world's own (step 5).
   hyksim::InjectFault(Fault("hyk_PortsetAcquireByName", 3, HYK_BUSY));
   EXPECT_EQ(Tool().PsUpgrade("ps0", s.modules), static_cast<hyk_Status>(HYK_BUSY));
   EXPECT_EQ(ErrLines("LUSUpgradeWorld", HYK_BUSY, "Error acquiring portset lock ps0 : Busy"), 1u);
   EXPECT_TRUE(PsRecords().empty());
   EXPECT_EQ(NamespaceMembers("ps0"), 0u);
   EXPECT_TRUE(ClientsCleared());
   EXPECT_EQ(s.fw.from->psCompleteResults.size(), 0u);
   EXPECT_FALSE(PortsetHeld("ps0"));
   EXPECT_TRUE(LockFree());
   // Records, payload and enrolment are all given back.
   EXPECT_EQ(HeapBytes("lus_heap_0"), heap0);
}

TEST_F(UpgradeWorldTest, Tail4FabricVersionFailureReleasesPortsetAndLock) {
   Setup s = Standard();
   Switch("ps0", "etherswitch", "tarnq-vswitch-1000", 1);
   RegisterBoth();
   // One lookup per port and client pair during enrolment, then the world's own (step 7).
   hyksim::InjectFault(Fault("hyk_PortsetLookupFabricVersion", 2, HYK_INVALID_HANDLE));
   EXPECT_EQ(Tool().PsUpgrade("ps0", s.modules), static_cast<hyk_Status>(HYK_INVALID_HANDLE));
   EXPECT_EQ(ErrLines("LUSUpgradeWorld", HYK_INVALID_HANDLE,
                      "Failed to get fabric version for ps ps0 : Invalid handle"),
             1u);
   EXPECT_EQ(s.fw.from->Calls(kPsRuntimeSave), 0u);
   EXPECT_EQ(s.fw.from->psCompleteResults.size(), 0u);
   ExpectReleased("ps0");
}

TEST_F(UpgradeWorldTest, Tail4PortBlockFailureReleasesPortsetAndLock) {
   Setup s = Standard();
   Switch("ps0", "etherswitch", "tarnq-vswitch-1000", 2);
   RegisterBoth();
   hyksim::InjectFault(Fault("hyk_PortCustomBlock", 1, HYK_BUSY));
   EXPECT_EQ(Tool().PsUpgrade("ps0", s.modules), static_cast<hyk_Status>(HYK_BUSY));
   EXPECT_EQ(ErrLines("LUSUpgradeWorld", HYK_BUSY, "Failed to block vnic ports : Busy"), 1u);
   EXPECT_EQ(s.fw.from->Calls(kPsRuntimeSave), 0u);
   EXPECT_EQ(s.fw.from->psCompleteResults.size(), 0u);
   ExpectReleased("ps0");
}

TEST_F(UpgradeWorldTest, Tail4PsSaveFailureIsCompletedOnceBySaveItself) {
   Setup s = Standard();
   Switch("ps0", "etherswitch", "tarnq-vswitch-1000", 1);
   RegisterBoth();
   s.fw.from->config().result[kPsRuntimeSave] = HYK_TIMEOUT;
   EXPECT_EQ(Tool().PsUpgrade("ps0", s.modules), static_cast<hyk_Status>(HYK_TIMEOUT));
   EXPECT_EQ(ErrLines("LUSUpgradeWorld", HYK_TIMEOUT, "PortSet runtime save failed of ps ps0 : Timeout"), 1u);
   EXPECT_EQ(s.fw.from->psCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_FAILURE});
   EXPECT_EQ(s.fw.from->Calls(kGetSize), 0u);
   ExpectReleased("ps0");
}

TEST_F(UpgradeWorldTest, Tail5SizeWalkFailureCompletesWithTwo) {
   Setup s = Standard();
   Switch("ps0", "etherswitch", "tarnq-vswitch-1000", 1);
   RegisterBoth();
   InjectAfterPsSave(s, Fault("hyk_PortsetForAllPorts", 1, HYK_BUSY));
   EXPECT_EQ(Tool().PsUpgrade("ps0", s.modules), static_cast<hyk_Status>(HYK_BUSY));
   EXPECT_EQ(ErrLines("LUSUpgradeWorld", HYK_BUSY, "Failed to getSize for LUS per port state : Busy"), 1u);
   EXPECT_EQ(s.fw.from->psCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_FAILURE});
   // The tail passed the portset it still held.
   EXPECT_NE(s.fw.from->psCompletePortsets[0], nullptr);
   ExpectReleased("ps0");
}

TEST_F(UpgradeWorldTest, Tail5SaveWalkFailureCompletesWithTwo) {
   Setup s = Standard();
   Switch("ps0", "etherswitch", "tarnq-vswitch-1000", 1);
   RegisterBoth();
   InjectAfterPsSave(s, Fault("hyk_PortsetForAllPorts", 2, HYK_BUSY));
   EXPECT_EQ(Tool().PsUpgrade("ps0", s.modules), static_cast<hyk_Status>(HYK_BUSY));
   EXPECT_EQ(ErrLines("LUSUpgradeWorld", HYK_BUSY, "Failed to save LUS per port runtime state : Busy"), 1u);
   EXPECT_EQ(s.fw.from->psCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_FAILURE});
   // The enrolment is left to the client clearing, which frees the saved state.
   EXPECT_EQ(ClientStateBytes(), 0u);
   ExpectReleased("ps0");
}

TEST_F(UpgradeWorldTest, Tail5PropertyClearFailureCompletesWithTwo) {
   Setup s = Standard();
   Switch("ps0", "etherswitch", "tarnq-vswitch-1000", 1);
   RegisterBoth();
   hyksim::InjectFault(Fault("hyk_PortsetFabricPropUpgradeClear", 1, HYK_BUSY));
   EXPECT_EQ(Tool().PsUpgrade("ps0", s.modules), static_cast<hyk_Status>(HYK_BUSY));
   EXPECT_EQ(ErrLines("LUSUpgradeWorld", HYK_BUSY, "Error using the new clear API ps0 : Busy"), 1u);
   EXPECT_EQ(InfoLines("LUSUpgradeWorld", "LUS state collection complete."), 1u);
   EXPECT_EQ(s.fw.from->psCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_FAILURE});
   ExpectReleased("ps0");
}

TEST_F(UpgradeWorldTest, Tail5ClassNameFailureCompletesWithTwo) {
   Setup s = Standard();
   Switch("ps0", "etherswitch", "tarnq-vswitch-1000", 1);
   RegisterBoth();
   hyksim::InjectFault(Fault("hyk_PortsetLookupFabricClassName", 1, HYK_NOT_FOUND));
   EXPECT_EQ(Tool().PsUpgrade("ps0", s.modules), static_cast<hyk_Status>(HYK_NOT_FOUND));
   EXPECT_EQ(ErrLines("LUSUpgradeWorld", HYK_NOT_FOUND, "Error fetching className for psName ps0 : Not found"), 1u);
   EXPECT_EQ(hyksim::CallCount("hyk_PortsetClassHotSwap"), 0u);
   EXPECT_EQ(s.fw.from->psCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_FAILURE});
   ExpectReleased("ps0");
}

TEST_F(UpgradeWorldTest, Tail5SwitchEventFailureCompletesWithTwo) {
   Setup s = Standard();
   Switch("ps0", "cswitch", "tarnq-vswitch-1000", 1);
   RegisterBoth();
   InjectAfterPsSave(s, Fault("hyk_NetEventPortsetEventPost", 1, HYK_BUSY));
   EXPECT_EQ(Tool().PsUpgrade("ps0", s.modules), static_cast<hyk_Status>(HYK_BUSY));
   EXPECT_TRUE(hyksim::FindPortset("ps0")->events.empty());
   EXPECT_EQ(s.fw.from->psCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_FAILURE});
   ExpectReleased("ps0");
}

TEST_F(UpgradeWorldTest, Tail5PropertySetFailureCompletesWithTwo) {
   Setup s = Standard();
   Switch("ps0", "etherswitch", "tarnq-vswitch-1000", 1);
   RegisterBoth();
   hyksim::InjectFault(Fault("hyk_PortsetFabricPropUpgradeSet", 1, HYK_BUSY));
   EXPECT_EQ(Tool().PsUpgrade("ps0", s.modules), static_cast<hyk_Status>(HYK_BUSY));
   EXPECT_EQ(ErrLines("LUSUpgradeWorld", HYK_BUSY, "Error using the new set API ps0 : Busy"), 1u);
   EXPECT_EQ(InfoLines("LUSUpgradeWorld", "Hotswap completed."), 1u);
   EXPECT_EQ(s.fw.to->Calls(kPsRuntimeRestore), 0u);
   EXPECT_EQ(s.fw.from->psCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_FAILURE});
   ExpectReleased("ps0");
}

TEST_F(UpgradeWorldTest, Tail5PsRestoreFailureIsCompletedWithTwoOnlyOnce) {
   Setup s = Standard();
   Switch("ps0", "etherswitch", "tarnq-vswitch-1000", 1);
   RegisterBoth();
   s.fw.to->config().result[kPsRuntimeRestore] = HYK_BUSY;
   EXPECT_EQ(Tool().PsUpgrade("ps0", s.modules), static_cast<hyk_Status>(HYK_BUSY));
   EXPECT_EQ(ErrLines("LUSUpgradeWorld", HYK_BUSY, "PortSet runtime restore failed of ps ps0 : Busy"), 1u);
   EXPECT_EQ(s.fw.from->psCompleteResults, std::vector<uint32_t>{LUS_COMPLETE_FAILURE});
   ExpectReleased("ps0");
}

}  // namespace
}  // namespace lustest
