// world_fixture.h -- the fixture of the tests of portset and global state,
// the upgrade world and the single-port filter upgrade: old/new client
// pairs that keep portset state and global configuration, switch modules
// that provide switch classes, the upgrade tool on the device "lus", and the
// module's portset-phase records reached by name.
#pragma once

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "lusctl.h"
#include "save_fixture.h"

namespace lustest {

// lusPsState and its records, as the module lays them out.
struct PsStateView {
   char name[128];
   LusListLinks clients;
};
struct PsClientRecord {
   LusListLinks link;
   ClientEntry *fromClient;
   ClientEntry *toClient;
   void *buffer;
   uint32_t length;
};
static_assert(sizeof(PsClientRecord) == 48, "the module's portset client record");
struct GlobalStateRecord {
   LusListLinks link;
   ClientEntry *client;
   void *buffer;
   uint32_t length;
};

using PsFn = hyk_Status(hyk_Portset *);
using PsCompleteFn = void(hyk_Portset *, uint32_t);
using ResultFn = void(uint32_t);
using FilterUpgradeFn = hyk_Status(uint32_t, const void *, uint32_t);
using UpgradePortFn = hyk_Status(uint32_t, uint32_t, int8_t);

constexpr const char *kPfilterProp = "com.corvid.common.port.pfilteraltkpx";

class WorldTest : public SaveRestoreTest {
  protected:
   void TearDown() override {
      tool_.reset();
      proc_.reset();
      SaveRestoreTest::TearDown();
   }

   // ---- the tool ------------------------------------------------------------
   lusctl::Client &Tool() {
      if (!tool_) {
         proc_ = std::make_unique<hyksim::UserProcess>("lusctl");
         tool_ = std::make_unique<lusctl::Client>(*proc_);
         EXPECT_TRUE(tool_->ok());
      }
      return *tool_;
   }

   // ---- switch modules --------------------------------------------------------
   // An in-process module that provides the listed switch classes ("a,b").
   hyk_ModuleID SwitchModule(const std::string &name, const std::string &classes) {
      hyksim::InProcessModule m;
      m.name = name;
      m.info = {{"switchClass", classes}};
      hyk_ModuleID id = HYK_INVALID_MODULE_ID;
      EXPECT_EQ(hyksim::LoadInProcessModule(m, &id), HYK_OK) << name;
      return id;
   }
   // A portset of `className` provided by `classModule`, with n vNIC ports.
   std::vector<hyk_PortID> Switch(const std::string &name, const std::string &className,
                                  const std::string &classModule, int n, uint32_t version = 107,
                                  int firstVM = 0) {
      hyksim::PortsetSpec desc;
      desc.name = name;
      desc.className = className;
      desc.classModule = classModule;
      desc.fabricVersion = version;
      EXPECT_EQ(hyksim::AddPortset(desc), HYK_OK);
      std::vector<hyk_PortID> ids;
      for (int i = 0; i < n; i++) {
         hyksim::PortSpec port;
         port.vmUUID = "vm-" + std::to_string(firstVM + i);
         port.properties["com.corvid.port.extraConfig.vnic.external.id"] = "ext";
         hyk_PortID id = 0;
         EXPECT_EQ(hyksim::AddPort(name, port, &id), HYK_OK);
         ids.push_back(id);
      }
      return ids;
   }

   // ---- a standard upgrade set-up ----------------------------------------------
   // lus of the new build, a client pair "fw" that keeps portset state, the
   // old and new switch modules and the stub switch, both builds registered
   // (interface version 1), and the module list of command 9.
   struct Setup {
      ClientPair fw;
      hyk_ModuleID oldSwitch, newSwitch, stubSwitch;
      std::vector<lusctl::ModuleArg> modules;
   };
   template <typename Edit>
   Setup Standard(Edit edit) {
      Setup s;
      LoadNew(5);
      s.fw = Pair("fw", [&](TestClientConfig &c) {
         c.psState = {1, 2, 3, 4, 5};
         edit(c);
      });
      s.oldSwitch = SwitchModule("tarnq-vswitch-1000", "etherswitch");
      s.newSwitch = SwitchModule("tarnq-vswitch-2000", "etherswitch,cswitch");
      s.stubSwitch = SwitchModule("tarnq-stub-vswitch-2000", "stub-vswitch");
      s.modules = {{true, s.fw.from->id()}, {false, s.fw.to->id()},
                   {true, s.oldSwitch}, {false, s.newSwitch}};
      return s;
   }
   Setup Standard() {
      return Standard([](TestClientConfig &) {});
   }
   void RegisterBoth() {
      ASSERT_EQ(Reg(0, LUS_REG_FROM_V1), HYK_OK);
      ASSERT_EQ(Reg(0, LUS_REG_TO_V1), HYK_OK);
   }

   // ---- the module's state --------------------------------------------------
   PsStateView &PsState() { return Var<PsStateView>("lusPsState"); }
   std::vector<PsClientRecord *> PsRecords() {
      std::vector<PsClientRecord *> out;
      PsStateView &st = PsState();
      for (LusListLinks *e = st.clients.next; e != &st.clients; e = e->next) {
         out.push_back(reinterpret_cast<PsClientRecord *>(e));
      }
      return out;
   }
   void SetPsName(const std::string &name) {
      std::memset(PsState().name, 0, sizeof(PsState().name));
      snprintf(PsState().name, sizeof(PsState().name), "%s", name.c_str());
   }
   hyk_Status PsInit() { return AsLus([&] { return LusFn<StatusFn>("LUS_PsClientsInit")(); }); }
   hyk_Status PsSave(hyk_Portset *ps) {
      return AsLus([&] { return LusFn<PsFn>("LUS_PsRuntimeSave")(ps); });
   }
   hyk_Status PsRestore(hyk_Portset *ps) {
      return AsLus([&] { return LusFn<PsFn>("LUS_PsRuntimeRestore")(ps); });
   }
   void PsComplete(hyk_Portset *ps, uint32_t result) {
      AsLus([&] { LusFn<PsCompleteFn>("LUS_PsRuntimeComplete")(ps, result); });
   }
   void PsDestroy() {
      AsLus([&] { LusFn<VoidFn>("LUS_PsClientsDestroy")(); });
   }
   hyk_Status GlobalConfig() {
      return AsLus([&] { return LusFn<StatusFn>("LUS_GlobalConfigSaveRestore")(); });
   }

   // Whether lusDummyLock is free: a thread that is not the world takes and drops it.
   bool DummyLockFree() {
      hyk_SpinlockID lock = Var<hyk_SpinlockID>("lusDummyLock");
      AsLus([&] {
         hyk_SpinlockLock(lock);
         hyk_SpinlockUnlock(lock);
      });
      return hyk_SpinlocksHeld() == 0;
   }
   // Whether the portset is held by anybody now.
   bool PortsetHeld(const std::string &name) {
      auto view = hyksim::FindPortset(name);
      return view && (view->acquireCount != 0 || view->exclusive);
   }
   size_t NamespaceMembers(const std::string &ps) {
      size_t n = 0;
      auto view = hyksim::FindPortset(ps);
      for (const auto &[ns, members] : view->upgradeNamespaces) {
         n += members.size();
      }
      return n;
   }
   static hyksim::FaultSpec Fault(const std::string &op, uint64_t nth = 1,
                                  hyk_Status status = HYK_FAILURE) {
      hyksim::FaultSpec f;
      f.op = op;
      f.nth = nth;
      f.status = status;
      return f;
   }
   static size_t ErrLines(const std::string &fn, hyk_Status status, const std::string &msg) {
      return CountModuleLines(ErrorCodeLineRe(fn, status & 0xffffu, msg), 1);
   }
   static size_t InfoLines(const std::string &fn, const std::string &msg, int level = 3) {
      return CountModuleLines(PlainLineRe(fn, msg), level);
   }

   std::unique_ptr<hyksim::UserProcess> proc_;
   std::unique_ptr<lusctl::Client> tool_;
};

}  // namespace lustest
