// client_fixture.h -- the fixture of the sample clients' tests: lus and the
// client modules of both builds really loaded from their files, the upgrade
// tool's library on the device, and the state ledger.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "hyksim/fabric.h"
#include "hyksim/host.h"
#include "hyksim/ledger.h"
#include "lus.h"
#include "lus_ioctl.h"
#include "lus_test_support.h"
#include "lusctl.h"

namespace lustest {

constexpr uint32_t kOld = 1000;
constexpr uint32_t kNew = 2000;

class ClientTest : public ::testing::Test {
  protected:
   void SetUp() override { hyksim::HostStart(); }
   void TearDown() override {
      tool_.reset();
      proc_.reset();
      hyksim::HostStop();
   }

   // ---- modules ------------------------------------------------------------
   static std::string ClientPath(const std::string &prefix, uint32_t build) {
      return std::string(TARNQ_CLIENT_DIR) + "/" + prefix + "-" + std::to_string(build) + ".so";
   }
   hyk_ModuleID LoadClient(const std::string &prefix, uint32_t build,
                           std::vector<std::string> params = {}) {
      params.push_back("seed=7");
      hyk_ModuleID id = HYK_INVALID_MODULE_ID;
      std::string error;
      EXPECT_EQ(hyksim::LoadModule(ClientPath(prefix, build), params, &id, &error), HYK_OK)
         << prefix << "-" << build << ": " << error;
      return id;
   }
   static hyk_Status UnloadClient(const std::string &prefix, uint32_t build) {
      return hyksim::UnloadModule(prefix + "-" + std::to_string(build));
   }
   static uint32_t UseCount(const std::string &module) {
      auto m = hyksim::FindModule(module);
      return m ? m->useCount : 0;
   }
   void LoadLusNew(int level = 3) {
      ASSERT_EQ(LoadLus({"fromBuild=1000", "lusLogLevel=" + std::to_string(level)}), HYK_OK);
   }

   // ---- topology -------------------------------------------------------------
   // A portset of `vnics` VM ports (2 vNICs per VM) and `containers` container
   // ports, its class provided by the old build's switch.
   std::vector<hyk_PortID> Portset(const std::string &name, int vnics, int containers = 0,
                                   const std::string &className = "etherswitch",
                                   uint32_t version = 106, bool fdp = false) {
      hyksim::PortsetSpec desc;
      desc.name = name;
      desc.className = className;
      desc.classModule = "tarnq-vswitch-1000";
      desc.fabricVersion = version;
      desc.fastDatapath = fdp;
      EXPECT_EQ(hyksim::AddPortset(desc), HYK_OK);
      std::vector<hyk_PortID> ids;
      for (int i = 0; i < vnics; i++) {
         hyksim::PortSpec port;
         port.vmUUID = name + "-vm-" + std::to_string(i / 2);
         port.vnicIndex = static_cast<uint32_t>(i % 2);
         port.properties["com.corvid.port.extraConfig.vnic.external.id"] = "ext-" + name;
         hyk_PortID id = 0;
         EXPECT_EQ(hyksim::AddPort(name, port, &id), HYK_OK);
         ids.push_back(id);
      }
      for (int i = 0; i < containers; i++) {
         hyksim::PortSpec port;
         port.clientType = HYK_PORT_CLIENT_CONTAINER;
         port.properties["com.corvid.common.port.pfilteraltkpx"] = "filter-" + std::to_string(i);
         hyk_PortID id = 0;
         EXPECT_EQ(hyksim::AddPort(name, port, &id), HYK_OK);
         ids.push_back(id);
      }
      return ids;
   }
   static std::string Hex(uint32_t v) {
      char buf[16];
      std::snprintf(buf, sizeof(buf), "%x", v);
      return buf;
   }
   static bool Blocked(hyk_PortID port) {
      return (hyksim::FindPort(port)->blockReasons & 0x2000) != 0;
   }

   // ---- the tool -------------------------------------------------------------
   lusctl::Client &Tool() {
      if (!tool_) {
         proc_ = std::make_unique<hyksim::UserProcess>("lusctl");
         tool_ = std::make_unique<lusctl::Client>(*proc_);
         EXPECT_TRUE(tool_->ok());
      }
      return *tool_;
   }
   static std::vector<lusctl::PortsetArg> Names(const std::vector<std::string> &names) {
      return lusctl::PortsetArgs(names);
   }

   // ---- the ledger ------------------------------------------------------------
   static const hyksim::LedgerCount &Port(const hyksim::LedgerClientView &v, uint32_t kind) {
      return v.perPort[kind];
   }
   static void PrintLedger(const char *what) {
      std::printf("[ ledger ] %s\n", what);
      for (const auto &v : hyksim::Ledger()) {
         std::printf("  %-14s per port:", v.client.c_str());
         for (uint32_t k = 0; k < HYKSIM_LEDGER_NUM_KINDS; k++) {
            std::printf(" %s %llu/%lluB", hyksim::LedgerKindName(k),
                        (unsigned long long)v.perPort[k].ports,
                        (unsigned long long)v.perPort[k].bytes);
         }
         std::printf("\n  %-14s shared:  ", "");
         for (uint32_t k = 0; k < HYKSIM_LEDGER_NUM_KINDS; k++) {
            std::printf(" %s %llu/%lluB", hyksim::LedgerKindName(k),
                        (unsigned long long)v.shared[k].ports,
                        (unsigned long long)v.shared[k].bytes);
         }
         std::printf("\n");
      }
   }
   // Bytes of one client's per-port state that lus reported dropped, from its log.
   static uint64_t DroppedBytes(const std::string &client) {
      uint64_t total = 0;
      const std::string needle = " client " + client + ": ";
      for (const auto &line : ModuleLines()) {
         auto at = line.text.find("Dropped saved state of port 0x");
         auto c = line.text.find(needle);
         if (at != std::string::npos && c != std::string::npos) {
            total += std::stoull(line.text.substr(c + needle.size()));
         }
      }
      return total;
   }

   std::unique_ptr<hyksim::UserProcess> proc_;
   std::unique_ptr<lusctl::Client> tool_;
};

}  // namespace lustest
