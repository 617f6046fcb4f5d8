// lusctl_fixture.h -- the fixture of the tool's tests: a simulated host in
// this process with lus's and the sample clients' module files, the tool's
// environment on it, and the tool run as on the command line.
#pragma once

#include <gtest/gtest.h>

#include <fmt/format.h>

#include <sstream>
#include <string>
#include <vector>

#include "lus_test_support.h"
#include "tool.h"

namespace lustest {

struct CliRun {
   int code;
   std::string out, err;
};

class LusctlTest : public ::testing::Test {
  protected:
   void SetUp() override {
      hyksim::HostStart();
      host_ = lusctl::MakeSimHost(LUS_MODULES_DIR);
      env_.host = host_.get();
      env_.openDevice = [] { return lusctl::MakeSimDevice(); };
   }
   void TearDown() override { hyksim::HostStop(); }

   // A fresh host on the virtual clock: time moves only when something sleeps or waits.
   void VirtualHost() {
      hyksim::HostStop();
      hyksim::HostOptions o;
      o.virtualClock = true;
      hyksim::HostStart(o);
      host_ = lusctl::MakeSimHost(LUS_MODULES_DIR);
      env_.host = host_.get();
   }

   CliRun Run(const std::vector<std::string> &args) {
      std::ostringstream out, err;
      int code = lusctl::RunCli(env_, args, out, err);
      return {code, out.str(), err.str()};
   }

   // The host before an upgrade: the old build's switch, firewall and stats,
   // and portsets of vNIC ports (blocked by the block command: version 106).
   void OldHost(std::vector<std::pair<std::string, int>> portsets = {{"ps0", 100}, {"ps1", 100}},
                const std::vector<std::string> &extraParams = {}, int containers = 0,
                bool fdp = false) {
      for (const char *c : {"tarnq-vswitch", "tarnq-dfw", "tarnq-stats"}) {
         std::vector<std::string> params = {"seed=7"};
         params.insert(params.end(), extraParams.begin(), extraParams.end());
         std::string error;
         ASSERT_EQ(host_->LoadModule(fmt::format("{}-1000", c), params, &error), HYK_OK) << error;
      }
      for (const auto &[name, n] : portsets) {
         hyksim::PortsetSpec desc;
         desc.name = name;
         desc.classModule = "tarnq-vswitch-1000";
         desc.fabricVersion = 107;
         desc.fastDatapath = fdp;
         ASSERT_EQ(hyksim::AddPortset(desc), HYK_OK);
         for (int i = 0; i < n; i++) {
            hyksim::PortSpec port;
            port.vmUUID = fmt::format("{}-vm-{}", name, i / 2);
            port.vnicIndex = static_cast<uint32_t>(i % 2);
            port.properties["com.corvid.port.extraConfig.vnic.external.id"] = "ext";
            hyk_PortID id = 0;
            ASSERT_EQ(hyksim::AddPort(name, port, &id), HYK_OK);
         }
         for (int i = 0; i < containers; i++) {
            hyksim::PortSpec port;
            port.clientType = HYK_PORT_CLIENT_CONTAINER;
            port.properties["com.corvid.common.port.pfilteraltkpx"] = "filter";
            hyk_PortID id = 0;
            ASSERT_EQ(hyksim::AddPort(name, port, &id), HYK_OK);
            containers_.push_back(id);
         }
      }
   }

   lusctl::FlowOptions Classic() {
      lusctl::FlowOptions o;
      o.kind = lusctl::FlowOptions::kClassic;
      o.fromBuild = 1000;
      o.toBuild = 2000;
      o.portsets = {"ps0", "ps1"};
      o.moduleParams = {"seed=7"};
      return o;
   }

   std::unique_ptr<lusctl::Host> host_;
   lusctl::Environment env_;
   std::vector<hyk_PortID> containers_;
};

}  // namespace lustest
