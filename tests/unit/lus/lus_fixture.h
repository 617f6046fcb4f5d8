// lus_fixture.h -- the fixture shared by the unit tests of lus: a fresh host
// per test, the module's operations reached by name, test clients and a
// portset of vNIC ports.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "hyksim/fabric.h"
#include "hyksim/host.h"
#include "lus.h"
#include "lus_test_client.h"
#include "lus_test_support.h"

namespace lustest {

// Operations of the module, by their names in the module.
using RegFn = hyk_Status(uint8_t, uint32_t);
using UnregFn = hyk_Status(uint8_t);
using ClientClearFn = void(uint32_t);
using HashEmptyFn = hyk_Status(int32_t, LusHashMap *);
using ClientStateAllocFn = void *(uint32_t, hyk_HeapID *);
using AllocFromHeapFn = void *(hyk_HeapID, uint32_t);
using FreeFn = void(hyk_HeapID, void *);
using ScheduleTimerFn = hyk_Status(hyk_TimerCallback, void *, uint64_t, uint8_t, hyk_TimerHandle *);
using TimerCBFn = void(void *, hyk_TimerHandle);
using FindV0Fn = LusInstance *(const char *, uint32_t, const char *);
using CheckPortFn = LusInstance *(const char *, uint32_t);
using FindV1Fn = LusClientInst *(uint32_t, const char *, uint32_t);
using LookupV1Fn = LusPortInstV1 *(LusHashMap *, uint32_t);
using RegAllPSFn = hyk_Status(const char *);
using RemovePortV1Fn = void(LusHashMap *, uint32_t);
using GetToClientFn = hyk_Status(const char *, uint32_t *);
using SubscribeFn = hyk_Status();
using UnsubscribeFn = void();

constexpr uint32_t kFromBuild = 1000;
constexpr uint32_t kToBuild = 2000;  // the default lus build number

class LusTest : public ::testing::Test {
  protected:
   void SetUp() override {
      GTEST_FLAG_SET(death_test_style, "threadsafe");
      hyksim::HostStart();
   }
   // The host goes first: unloading lus unregisters the clients, which must
   // still be there to answer.
   void TearDown() override {
      hyksim::HostStop();
      clients_.clear();
   }

   // Loads lus and fails the test when it does not load.
   void Load(const std::vector<std::string> &params = {}) {
      ASSERT_EQ(LoadLus(params), HYK_OK);
   }

   TestClient *AddClient(const std::string &module, uint32_t build, bool legacy = false,
                         const std::string &clientName = "") {
      TestClientConfig cfg;
      cfg.moduleName = module;
      cfg.clientName = clientName;
      cfg.buildNumber = build;
      cfg.legacyEdition = legacy;
      return AddClient(cfg);
   }
   TestClient *AddClient(const TestClientConfig &cfg) {
      clients_.push_back(std::make_unique<TestClient>(cfg));
      EXPECT_EQ(clients_.back()->Load(), HYK_OK) << cfg.moduleName;
      return clients_.back().get();
   }

   // Both version 1 maps filled: a portset-phase client "ps" and a port-phase
   // client "port" (each of both builds) registered with types 3 and 4 and
   // enrolled on the `ports` ports of a new portset `portset`.  Returns the
   // old build's portset-phase client.
   TestClient *FillBothMaps(const std::string &portset, int ports) {
      TestClient *psFrom = nullptr;
      for (uint32_t phase : {LUS_PHASE_PORTSET, LUS_PHASE_PORT}) {
         std::string n = phase ? "port" : "ps";
         TestClientConfig from;
         from.moduleName = n + "_old";
         from.clientName = n;
         from.buildNumber = kFromBuild;
         from.upgradePhase = phase;
         TestClient *c = AddClient(from);
         if (phase == LUS_PHASE_PORTSET) psFrom = c;
         TestClientConfig to = from;
         to.moduleName = n + "_new";
         to.buildNumber = kToBuild;
         AddClient(to);
      }
      MakePortset(portset, ports);
      EXPECT_EQ(Reg(0, LUS_REG_FROM_V1), HYK_OK);
      EXPECT_EQ(Reg(0, LUS_REG_TO_V1), HYK_OK);
      EXPECT_EQ(AsLus([&] { return LusFn<RegAllPSFn>("LUS_ClientRegAllPS")(portset.c_str()); }), HYK_OK);
      EXPECT_EQ(Var<LusHashMap *>("lusHashMap")->count, static_cast<uint32_t>(ports));
      EXPECT_EQ(Var<LusHashMap *>("lusPerPortHashMap")->count, static_cast<uint32_t>(ports));
      return psFrom;
   }

   // The listed portsets, as the registration commands fill them.
   void SetPortsets(const std::vector<std::string> &names) {
      auto *table = LusVar<char[128][128]>("lusPortset");
      auto *count = LusVar<uint32_t>("numPortsets");
      ASSERT_NE(table, nullptr);
      ASSERT_NE(count, nullptr);
      for (size_t i = 0; i < names.size(); i++) {
         snprintf((*table)[i], 128, "%s", names[i].c_str());
      }
      *count = static_cast<uint32_t>(names.size());
   }

   // A portset of n vNIC ports of VMs "vm-<first+i>", vNIC index 0.
   std::vector<hyk_PortID> MakePortset(const std::string &name, int n, int first = 0) {
      hyksim::PortsetSpec desc;
      desc.name = name;
      EXPECT_EQ(hyksim::AddPortset(desc), HYK_OK);
      std::vector<hyk_PortID> ids;
      for (int i = 0; i < n; i++) {
         ids.push_back(AddVnicPort(name, "vm-" + std::to_string(first + i), 0));
      }
      return ids;
   }
   hyk_PortID AddVnicPort(const std::string &ps, const std::string &uuid, uint32_t vnic,
                          const std::string &fabricPortID = "") {
      hyksim::PortSpec port;
      port.vmUUID = uuid;
      port.vnicIndex = vnic;
      port.fabricPortID = fabricPortID;
      hyk_PortID id = 0;
      EXPECT_EQ(hyksim::AddPort(ps, port, &id), HYK_OK);
      return id;
   }

   hyk_Status Reg(uint8_t legacy, uint32_t regType) {
      return AsLus([&] { return LusFn<RegFn>("LUS_Reg")(legacy, regType); });
   }
   hyk_Status Unreg(uint8_t legacy) {
      return AsLus([&] { return LusFn<UnregFn>("LUS_Unreg")(legacy); });
   }

   template <typename T>
   T &Var(const char *name) {
      T *p = LusVar<T>(name);
      EXPECT_NE(p, nullptr) << name;
      return *p;
   }

   std::vector<std::unique_ptr<TestClient>> clients_;
};

}  // namespace lustest
