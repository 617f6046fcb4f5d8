// fabric_test_support.h -- small helpers shared by the fabric tests: a
// started host, in-process modules, running host calls as a module, and a
// portset with ports to work on.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "hyk/hyk.h"
#include "hyksim/fabric.h"
#include "hyksim/host.h"

namespace fabrictest {

// Loads an in-process module with the given information records.
inline hyk_ModuleID LoadModule(const std::string &name,
                               std::vector<std::pair<std::string, std::string>> info = {}) {
   hyksim::InProcessModule m;
   m.name = name;
   m.info = std::move(info);
   hyk_ModuleID id = HYK_INVALID_MODULE_ID;
   EXPECT_EQ(hyksim::LoadInProcessModule(m, &id), HYK_OK) << name;
   return id;
}

// Runs fn with `id` pushed as the current module, as the host does around
// every call into a module.
template <typename Fn>
auto AsModule(hyk_ModuleID id, Fn &&fn) {
   hyk_ModuleCookie cookie{};
   hyk_ModulePushId(id, nullptr, &cookie);
   struct Pop {
      ~Pop() { hyk_ModulePopId(); }
   } pop;
   return fn();
}

// A portset "ps0" with `n` vNIC ports; returns their IDs in creation order.
inline std::vector<hyk_PortID> MakePortset(const std::string &name, int n,
                                           hyksim::PortsetSpec desc = {}) {
   desc.name = name;
   EXPECT_EQ(hyksim::AddPortset(desc), HYK_OK);
   std::vector<hyk_PortID> ids;
   for (int i = 0; i < n; i++) {
      hyksim::PortSpec port;
      port.vmUUID = "vm-" + std::to_string(i);
      port.vnicIndex = static_cast<uint32_t>(i);
      hyk_PortID id = 0;
      EXPECT_EQ(hyksim::AddPort(name, port, &id), HYK_OK);
      ids.push_back(id);
   }
   return ids;
}

// Every test of the fabric starts a fresh host; death tests fork a process
// that has host threads, hence the thread-safe style.
class FabricTest : public ::testing::Test {
  protected:
   void SetUp() override {
      GTEST_FLAG_SET(death_test_style, "threadsafe");
      hyksim::HostStart();
   }
   void TearDown() override { hyksim::HostStop(); }
};

}  // namespace fabrictest
