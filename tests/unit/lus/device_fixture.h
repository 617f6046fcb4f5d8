// device_fixture.h -- the fixture of the control-device tests: a user
// process with the upgrade tool's library on the device "lus", and helpers
// for the log lines the handlers write.
#pragma once

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "lus_fixture.h"
#include "lus_ioctl.h"
#include "lusctl.h"

namespace lustest {

class DeviceTest : public LusTest {
  protected:
   void TearDown() override {
      tool_.reset();
      proc_.reset();
      LusTest::TearDown();
   }

   // Opens the device from a fresh user process (after Load).
   lusctl::Client &Tool() {
      if (!tool_) {
         proc_ = std::make_unique<hyksim::UserProcess>("lusctl");
         tool_ = std::make_unique<lusctl::Client>(*proc_);
         EXPECT_TRUE(tool_->ok());
      }
      return *tool_;
   }
   hyksim::UserProcess &Proc() {
      Tool();
      return *proc_;
   }

   // A portset of the given fabric version with no ports.
   void AddSwitch(const std::string &name, uint32_t version = 107, bool fdp = false,
                  const std::string &className = "etherswitch") {
      hyksim::PortsetSpec desc;
      desc.name = name;
      desc.fabricVersion = version;
      desc.fastDatapath = fdp;
      desc.className = className;
      ASSERT_EQ(hyksim::AddPortset(desc), HYK_OK);
   }
   hyk_PortID AddPortOf(const std::string &ps, uint32_t clientType, uint32_t flags = 0,
                        bool externalID = false, const std::string &uuid = "vm") {
      hyksim::PortSpec desc;
      desc.clientType = clientType;
      desc.vmUUID = uuid;
      desc.flags = flags;
      if (externalID) {
         desc.properties["com.corvid.port.extraConfig.vnic.external.id"] = "ext";
      }
      hyk_PortID id = 0;
      EXPECT_EQ(hyksim::AddPort(ps, desc, &id), HYK_OK);
      return id;
   }
   static bool Blocked(hyk_PortID port) {
      auto view = hyksim::FindPort(port);
      return view && (view->blockReasons & HYK_PORT_BLOCK_CUSTOM) != 0;
   }

   static std::vector<lusctl::PortsetArg> Names(const std::vector<std::string> &names) {
      return lusctl::PortsetArgs(names);
   }

   // Error-level lines of `fn` with `msg`, in the error-code form of `status`.
   static size_t ErrLines(const std::string &fn, hyk_Status status, const std::string &msg) {
      return CountModuleLines(ErrorCodeLineRe(fn, status & 0xffffu, msg), 1);
   }
   static size_t PlainLines(const std::string &fn, const std::string &msg, int level) {
      return CountModuleLines(PlainLineRe(fn, msg), level);
   }
   // Lines of any function and level that contain `text`.
   static size_t LinesWith(const std::string &text) {
      size_t n = 0;
      for (const auto &l : ModuleLines()) n += l.text.find(text) != std::string::npos;
      return n;
   }

   static uint64_t Heap0Live() { return hyksim::FindHeap("lus_heap_0")->liveAllocations; }

   std::unique_ptr<hyksim::UserProcess> proc_;
   std::unique_ptr<lusctl::Client> tool_;
};

}  // namespace lustest
