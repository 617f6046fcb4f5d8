// hyk_test_support.h -- what the host's unit tests share: a fixture that
// gives every test a freshly started host, and the paths of the test modules.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "hyksim/host.h"
// The host's own tests also reach its internal hooks (reset and unload hooks,
// module information, the panic and host-line entry points).
#include "../../../hyk/sim/internal.h"

namespace hyktest {

// Each test starts its own host and stops it again.  Death tests re-run the
// test in a fresh process ("threadsafe"), because the host runs threads
// (logger, timer queues) that a plain fork would not carry over.
class HostTest : public ::testing::Test {
  protected:
   void SetUp() override {
      GTEST_FLAG_SET(death_test_style, "threadsafe");
      hyksim::HostStart(Options());
   }
   void TearDown() override { hyksim::HostStop(); }
   virtual hyksim::HostOptions Options() { return {}; }
};

inline std::string TestModule(const std::string &name) {
   return std::string(HYKTEST_MODULE_DIR) + "/lib" + name + ".so";
}

}  // namespace hyktest
