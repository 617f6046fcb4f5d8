// sim_env.cpp -- the tool's environment on the simulated host of this
// process: the device of a user process, and the host's control API.
#include <fmt/format.h>

#include "tool.h"

namespace lusctl {

namespace {

class SimDevice : public Device {
  public:
   hyk_Status Open() override {
      process_ = std::make_unique<hyksim::UserProcess>("lusctl");
      client_ = std::make_unique<Client>(*process_);
      return client_->openStatus();
   }
   hyk_Status Ioctl(uint32_t cmd, const std::vector<uint8_t> &payload, uint32_t length) override {
      return client_ ? client_->Raw(cmd, payload, length) : static_cast<hyk_Status>(HYK_INVALID_HANDLE);
   }
   void Close() override {
      client_.reset();
      process_.reset();
   }

  private:
   std::unique_ptr<hyksim::UserProcess> process_;
   std::unique_ptr<Client> client_;
};

class SimHost : public Host {
  public:
   explicit SimHost(std::vector<std::string> dirs) : dirs_(std::move(dirs)) {}

   hyk_Status LoadModule(const std::string &name, const std::vector<std::string> &params,
                         std::string *error) override {
      // lus of build N is bN/lus.so (named "lus" once loaded); a client is <name>.so.
      std::string why;
      const std::string path = FindModuleFile(dirs_, name, &why);
      if (path.empty()) {
         if (error != nullptr) *error = why;
         return why.find("found twice") != std::string::npos ? HYK_EXISTS : HYK_NOT_FOUND;
      }
      hyk_ModuleID id = HYK_INVALID_MODULE_ID;
      return hyksim::LoadModule(path, params, &id, error);
   }
   hyk_Status UnloadModule(const std::string &name) override { return hyksim::UnloadModule(name); }
   std::vector<ModuleInfo> Modules() override {
      std::vector<ModuleInfo> out;
      for (const auto &m : hyksim::Modules()) out.push_back({m.name, m.id, m.useCount});
      return out;
   }
   std::vector<hyksim::PortsetView> Portsets() override { return hyksim::Portsets(); }
   std::vector<hyksim::PortView> Ports() override { return hyksim::Ports(); }
   hyk_Status TakeOver(const std::string &portset, uint32_t build, unsigned threads) override {
      return hyksim::TakeOverPortset(portset, build, threads);
   }
   hyk_Status EnablePort(uint32_t port) override { return hyksim::EnablePort(port); }
   hyk_Status PostRestoreEvent(uint32_t port) override {
      auto p = hyksim::FindPort(port);
      if (!p) return HYK_NOT_FOUND;
      const uint32_t payload = port;
      return hyksim::PostPortsetEvent(p->portset, "com.corvid.tarn.kcp.port.unblock", &payload,
                                      sizeof(payload));
   }
   hyk_Status UnblockPort(uint32_t port) override {
      return hyksim::UnblockPort(port, HYK_PORT_BLOCK_CUSTOM);
   }
   std::vector<TimerInfo> Timers() override {
      std::vector<TimerInfo> out;
      for (const auto &t : hyksim::PendingTimers()) {
         std::string owner;
         for (const auto &m : hyksim::Modules()) {
            if (m.id == t.owner) owner = m.name;
         }
         out.push_back({t.queue, owner, t.deadlineUS});
      }
      return out;
   }
   std::vector<hyksim::LogLine> Log() override { return hyksim::LogLines(); }
   std::vector<hyksim::LedgerClientView> Ledger() override { return hyksim::Ledger(); }
   std::vector<hyksim::HeapView> Heaps() override { return hyksim::Heaps(); }
   uint64_t NowUS() override { return hyksim::NowUS(); }

  private:
   std::vector<std::string> dirs_;
};

}  // namespace

std::unique_ptr<Host> MakeSimHost(const std::string &modulePath) {
   return std::make_unique<SimHost>(SplitPath(modulePath));
}

std::unique_ptr<Device> MakeSimDevice() { return std::make_unique<SimDevice>(); }

const std::vector<CommandName> &Commands() {
   static const std::vector<CommandName> names = {
      {"register-from", LUS_IOCTL_REG_FROM},  {"register-to", LUS_IOCTL_REG_TO},
      {"register-from-v1", LUS_IOCTL_REG_FROM_EXT}, {"register-to-v1", LUS_IOCTL_REG_TO_EXT},
      {"save", LUS_IOCTL_PRE_UNLOAD},         {"restore", LUS_IOCTL_RESTORE},
      {"block", LUS_IOCTL_BLOCK_PORTS},       {"pre-dual-load", LUS_IOCTL_PRE_DUAL_LOAD},
      {"global-config", LUS_IOCTL_GLOBAL_CONFIG}, {"ps-upgrade", LUS_IOCTL_PS_UPGRADE},
      {"upgrade-port", LUS_IOCTL_UPGRADE_PORT}, {"collection-complete", LUS_IOCTL_STATE_COLLECTED},
      {"restore-complete", LUS_IOCTL_RESTORE_COMPLETE}, {"fdp", LUS_IOCTL_FDP_OP},
      {"cswitch-events", LUS_IOCTL_CSWITCH_EVENTS}};
   return names;
}

std::string CommandLabel(uint32_t cmd) {
   for (const auto &c : Commands()) {
      if (c.number == cmd) return fmt::format("{} (command {})", c.name, cmd);
   }
   return fmt::format("command {}", cmd);
}

std::string StatusText(hyk_Status status) {
   return fmt::format("{:#x} {}", status, hyk_StatusToString(status));
}

}  // namespace lusctl
