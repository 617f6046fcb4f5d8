// flows.cpp -- the two upgrade flows, each the sequence of steps an operator
// runs (docs/ARCHITECTURE.md lists them), the host's module loads and
// unloads among them.  Before its first step a flow checks what it will
// need and refuses to start without it.  A flow stops at its first failing
// step; before its point of no return it then undoes what it did, so that
// the host is as the flow found it.
#include <fmt/format.h>

#include <algorithm>

#include "tool.h"

namespace lusctl {

namespace {

struct Step {
   std::string name;
   uint32_t number = UINT32_MAX;   // device command, or UINT32_MAX for a host action
   std::vector<uint8_t> payload;
   std::function<hyk_Status(std::string *detail)> run;
};

bool EndsWith(const std::string &s, const std::string &suffix) {
   return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// The old build's datapath modules that are loaded ("<name>-<from>"), by name without the build.
std::vector<std::string> OldModules(Host &host, const FlowOptions &opts) {
   if (!opts.clients.empty()) return opts.clients;
   const std::string suffix = fmt::format("-{}", opts.fromBuild);
   std::vector<std::string> out;
   for (const auto &m : host.Modules()) {
      if (m.name != "lus" && EndsWith(m.name, suffix)) {
         out.push_back(m.name.substr(0, m.name.size() - suffix.size()));
      }
   }
   std::sort(out.begin(), out.end());
   return out;
}

std::string Versioned(const std::string &name, uint32_t build) {
   return fmt::format("{}-{}", name, build);
}

// What a flow needs before it blocks a port.  Each failed check is one line.
std::vector<std::string> PreChecks(Host &host, const FlowOptions &opts, const std::vector<std::string> &old) {
   std::vector<std::string> why;
   const auto modules = host.Modules();
   auto loaded = [&](const std::string &name) {
      return std::any_of(modules.begin(), modules.end(), [&](const ModuleInfo &m) { return m.name == name; });
   };
   if (old.empty()) {
      why.push_back(fmt::format("no module of build {} is loaded: is {} the build the host runs?",
                                opts.fromBuild, opts.fromBuild));
   }
   for (const auto &m : old) {
      if (!loaded(Versioned(m, opts.fromBuild))) why.push_back(fmt::format("{} is not loaded", Versioned(m, opts.fromBuild)));
   }
   if (loaded("lus")) {
      why.push_back("lus is loaded already: an upgrade may be in progress (see `lusctl status`; "
                    "`lusctl recover` ends it)");
   }
   std::vector<std::string> blocked;
   for (const auto &p : host.Ports()) {
      if (IsLusBlocked(p)) blocked.push_back(fmt::format("{}", p.id));
   }
   if (!blocked.empty()) {
      why.push_back(fmt::format("{} port(s) are blocked by an earlier upgrade ({}{}): see `lusctl status`",
                                blocked.size(), fmt::join(blocked.begin(), blocked.begin() + std::min<size_t>(blocked.size(), 8), ", "),
                                blocked.size() > 8 ? ", ..." : ""));
   }
   const auto portsets = host.Portsets();
   for (const auto &name : opts.portsets) {
      if (std::none_of(portsets.begin(), portsets.end(), [&](const auto &p) { return p.name == name; })) {
         why.push_back(fmt::format("portset '{}' does not exist", name));
      }
   }
   // The old build goes away with the upgrade: a portset it carries that is
   // not upgraded along would lose its ports' state.
   std::vector<std::string> outside;
   for (const auto &ps : portsets) {
      if (std::find(opts.portsets.begin(), opts.portsets.end(), ps.name) != opts.portsets.end()) continue;
      for (const auto &m : modules) {
         if (m.id != ps.classModule) continue;
         for (const auto &o : old) {
            if (m.name == Versioned(o, opts.fromBuild)) outside.push_back(ps.name);
         }
      }
   }
   if (!outside.empty()) {
      why.push_back(fmt::format("build {} also carries portset(s) {}, which are not in the upgrade: their "
                                "state would be lost; add them with --portset",
                                opts.fromBuild, fmt::join(outside, ", ")));
   }
   return why;
}

// Ports of the listed portsets that lus carries state for (vNIC and container ports).
std::vector<hyksim::PortView> UpgradedPorts(Host &host, const std::vector<std::string> &portsets) {
   std::vector<hyksim::PortView> out;
   for (const auto &p : host.Ports()) {
      if (std::find(portsets.begin(), portsets.end(), p.portset) == portsets.end()) continue;
      if (p.desc.clientType == HYK_PORT_CLIENT_VNIC || p.desc.clientType == HYK_PORT_CLIENT_CONTAINER) {
         out.push_back(p);
      }
   }
   return out;
}

}  // namespace

std::vector<std::string> ParamsFor(const std::vector<std::string> &params, const std::string &module,
                                   uint32_t build) {
   std::vector<std::string> out;
   for (const auto &p : params) {
      const auto eq = p.find('=');
      const auto colon = p.find(':');
      if (colon == std::string::npos || (eq != std::string::npos && colon > eq)) {
         if (module != "lus") out.push_back(p);   // bare: every module of the new build
         continue;
      }
      const std::string scope = p.substr(0, colon);
      if (scope == module || scope == Versioned(module, build)) out.push_back(p.substr(colon + 1));
   }
   return out;
}

namespace {

class FlowBuilder {
  public:
   FlowBuilder(Environment &env, const FlowOptions &opts)
      : env_(env), host_(*env.host), opts_(opts), old_(OldModules(*env.host, opts)) {}

   std::vector<Step> Classic() {
      std::vector<Step> steps;
      const std::vector<PortsetArg> ps = PortsetArgs(opts_.portsets);
      steps.push_back(LoadLus());
      steps.push_back(LoadNewBuild());
      steps.push_back(OpenDevice());
      steps.push_back(Command("register", LUS_IOCTL_REG_TO, PortsetQuery(ps, opts_.legacy, 0)));
      steps.push_back(Command("block", LUS_IOCTL_BLOCK_PORTS, PortsetQuery(ps, false, opts_.maxOutageSec)));
      steps.push_back(Command("save", LUS_IOCTL_PRE_UNLOAD, PortsetQuery(ps, opts_.legacy, 0)));
      steps.push_back(UnloadOldBuild());
      steps.push_back(Command("register", LUS_IOCTL_REG_TO, PortsetQuery(ps, opts_.legacy, 0)));
      steps.push_back(TakeOver());
      steps.push_back(CheckUnblocked());
      steps.push_back(CloseDevice());
      return steps;
   }

   std::vector<Step> Portset() {
      std::vector<Step> steps;
      steps.push_back(LoadLus());
      steps.push_back(OpenDevice());
      steps.push_back(Command("register", LUS_IOCTL_REG_FROM_EXT, PortsetQuery({}, false, 0)));
      steps.push_back(Command("pre-dual-load", LUS_IOCTL_PRE_DUAL_LOAD, {}));
      steps.push_back(LoadNewBuild());
      steps.push_back(Command("register", LUS_IOCTL_REG_TO_EXT, PortsetQuery({}, false, 0)));
      steps.push_back(Command("global-config", LUS_IOCTL_GLOBAL_CONFIG, {}));
      for (const auto &name : opts_.portsets) {
         Step s = Command("ps-upgrade " + name, LUS_IOCTL_PS_UPGRADE, PsUpgradeQuery(name, ModuleList()),
                          /*lazy=*/true, name);
         auto issue = s.run;
         // The upgrade world moves the portset's state to the new build as it goes.
         s.run = [this, issue](std::string *d) {
            // A --module that names no loaded module is refused, not left out of the list.
            for (const auto &extra : opts_.modules) {
               if (!ModuleIdOf(extra.substr(extra.find(':') + 1))) {
                  *d = fmt::format("--module {}: no such module is loaded", extra);
                  return static_cast<hyk_Status>(HYK_NOT_FOUND);
               }
            }
            pastPointOfNoReturn_ = true;
            return issue(d);
         };
         steps.push_back(std::move(s));
      }
      for (uint32_t port : opts_.containerPorts) {
         steps.push_back(Command(fmt::format("upgrade-port {}", port), LUS_IOCTL_UPGRADE_PORT,
                                 UpgradePortQuery(0, port, 1)));
         steps.push_back(PortUp(port));
      }
      steps.push_back(Command("collection-complete", LUS_IOCTL_STATE_COLLECTED, {}));
      steps.push_back(RestoreComplete());
      for (const auto &name : opts_.portsets) {
         if (FastDatapath(name)) {
            steps.push_back(Command("fdp " + name, LUS_IOCTL_FDP_OP,
                                    PortsetQuery({{name, 1, 1}}, false, 0)));
         }
      }
      steps.push_back(CloseDevice());
      steps.push_back(HostStep("unload lus", [this](std::string *d) {
         *d = "the unload clears and unregisters every client";
         return host_.UnloadModule("lus");
      }));
      steps.push_back(UnloadOldBuild());
      return steps;
   }

  private:
   Step HostStep(std::string name, std::function<hyk_Status(std::string *)> run) {
      Step s;
      s.name = std::move(name);
      s.run = std::move(run);
      return s;
   }

   Step Command(std::string name, uint32_t cmd, std::vector<uint8_t> payload, bool lazy = false,
                std::string portset = "") {
      Step s;
      s.name = std::move(name);
      s.number = cmd;
      s.payload = std::move(payload);
      auto bytes = s.payload;
      s.run = [this, cmd, bytes, lazy, portset](std::string *) mutable {
         if (lazy) bytes = PsUpgradeQuery(portset, ModuleList());   // module IDs of the loaded build
         if (!device_) return static_cast<hyk_Status>(HYK_INVALID_HANDLE);
         return device_->Ioctl(cmd, bytes, static_cast<uint32_t>(bytes.size()));
      };
      return s;
   }

   Step LoadLus() {
      return HostStep("load lus", [this](std::string *d) {
         std::string error;
         *d = fmt::format("lus of build {} with fromBuild={}", opts_.toBuild, opts_.fromBuild);
         std::vector<std::string> params = {fmt::format("fromBuild={}", opts_.fromBuild)};
         params.insert(params.end(), opts_.lusParams.begin(), opts_.lusParams.end());
         for (const auto &p : ParamsFor(opts_.moduleParams, "lus", opts_.toBuild)) params.push_back(p);
         // In the per-portset flow lus logs each client callback's duration at
         // level 5, which the report's callback table needs.  Level 5 cost about
         // 6% more blackout CPU at 16,384 ports (docs/ARCHITECTURE.md); the
         // classic paths time no callback, so they keep the default.  A level
         // the user gives wins.
         if (opts_.kind == FlowOptions::kPortset &&
             std::none_of(params.begin(), params.end(), [](const std::string &p) { return p.rfind("lusLogLevel=", 0) == 0; })) {
            params.push_back("lusLogLevel=5");
         }
         hyk_Status s = host_.LoadModule(fmt::format("lus-{}", opts_.toBuild), params, &error);
         loadedLus_ = s == HYK_OK;
         if (s != HYK_OK && !error.empty()) *d += ": " + error;
         return s;
      });
   }

   Step LoadNewBuild() {
      return HostStep("load new build", [this](std::string *d) {
         std::vector<std::string> loaded, already;
         for (const auto &m : old_) {
            std::string error;
            // An operator may have loaded a new module already (with its own parameters).
            bool present = false;
            for (const auto &mod : host_.Modules()) present |= mod.name == Versioned(m, opts_.toBuild);
            if (present) {
               already.push_back(Versioned(m, opts_.toBuild));
               continue;
            }
            // The new build takes the parameters the old one runs with (its seed among them).
            hyk_Status s = host_.LoadModule(Versioned(m, opts_.toBuild),
                                            ParamsFor(opts_.moduleParams, m, opts_.toBuild), &error);
            if (s != HYK_OK) {
               *d = fmt::format("{} refused to load: {}", Versioned(m, opts_.toBuild),
                                error.empty() ? StatusText(s) : error);
               return s;
            }
            loaded.push_back(Versioned(m, opts_.toBuild));
            loadedNew_.push_back(Versioned(m, opts_.toBuild));
         }
         *d = fmt::format("dual load: {}", fmt::join(loaded, ", "));
         if (!already.empty()) *d += fmt::format("; already loaded: {}", fmt::join(already, ", "));
         return static_cast<hyk_Status>(HYK_OK);
      });
   }

   Step UnloadOldBuild() {
      return HostStep("unload old build", [this](std::string *d) {
         for (const auto &m : old_) {
            hyk_Status s = host_.UnloadModule(Versioned(m, opts_.fromBuild));
            if (s != HYK_OK) {
               *d = fmt::format("{} stays loaded", Versioned(m, opts_.fromBuild));
               return s;
            }
            // The old build's own copy of the state is gone with it.
            pastPointOfNoReturn_ = true;
         }
         *d = fmt::format("{} modules of build {}", old_.size(), opts_.fromBuild);
         return static_cast<hyk_Status>(HYK_OK);
      });
   }

   Step OpenDevice() {
      return HostStep("open device", [this](std::string *d) {
         device_ = env_.openDevice();
         *d = "/dev/lus";
         return device_->Open();
      });
   }
   Step CloseDevice() {
      return HostStep("close device", [this](std::string *) {
         if (device_) device_->Close();
         device_.reset();
         return static_cast<hyk_Status>(HYK_OK);
      });
   }

   Step TakeOver() {
      return HostStep("new datapath takes over", [this](std::string *d) {
         for (const auto &name : opts_.portsets) {
            hyk_Status s = host_.TakeOver(name, opts_.toBuild, opts_.takeoverThreads);
            if (s != HYK_OK) {
               *d = "portset " + name;
               return s;
            }
            if (opts_.legacy) {
               // The legacy edition's records also wait for each port to come up.
               for (const auto &p : UpgradedPorts(host_, {name})) host_.EnablePort(p.id);
            }
         }
         *d = fmt::format("build {} carries {}", opts_.toBuild, fmt::join(opts_.portsets, ", "));
         return static_cast<hyk_Status>(HYK_OK);
      });
   }

   Step PortUp(uint32_t port) {
      return HostStep(fmt::format("port {} up", port), [this, port](std::string *d) {
         *d = "the new filter pulls its state";
         return host_.EnablePort(port);
      });
   }

   Step CheckUnblocked() {
      return HostStep("ports restored", [this](std::string *d) {
         size_t blocked = 0, total = 0;
         for (const auto &p : UpgradedPorts(host_, opts_.portsets)) {
            total++;
            blocked += IsLusBlocked(p);
         }
         *d = fmt::format("{} of {} ports pass traffic", total - blocked, total);
         return blocked == 0 ? static_cast<hyk_Status>(HYK_OK) : static_cast<hyk_Status>(HYK_BUSY);
      });
   }

   Step RestoreComplete() {
      Step s = Command("restore-complete", LUS_IOCTL_RESTORE_COMPLETE, {});
      auto once = s.run;
      s.run = [this, once](std::string *d) {
         hyk_Status st = HYK_NO_DATA;
         unsigned round = 0;
         for (; round < opts_.restoreRounds; round++) {
            st = once(d);
            if (st != HYK_NO_DATA) break;
         }
         *d = fmt::format("asked {} time(s)", round + 1);
         return st;
      };
      return s;
   }

  public:
   bool PastPointOfNoReturn() const { return pastPointOfNoReturn_; }

   // Undoes a flow that stopped before its point of no return: the old build
   // still holds every port's state, so the ports go back to it as they were.
   std::vector<std::string> Undo() {
      std::vector<std::string> done;
      if (device_) {
         device_->Close();
         device_.reset();
         done.push_back("closed the device");
      }
      std::vector<std::string> unblocked;
      for (const auto &p : host_.Ports()) {
         if (IsLusBlocked(p) && host_.UnblockPort(p.id) == HYK_OK) unblocked.push_back(fmt::format("{}", p.id));
      }
      if (!unblocked.empty()) done.push_back(fmt::format("unblocked {} port(s)", unblocked.size()));
      if (loadedLus_) {
         // Unloading lus frees the state it saved and withdraws every registration.
         hyk_Status s = host_.UnloadModule("lus");
         done.push_back(s == HYK_OK ? std::string("unloaded lus (its saved state and registrations with it)")
                                    : fmt::format("could not unload lus: {}", StatusText(s)));
      }
      for (auto it = loadedNew_.rbegin(); it != loadedNew_.rend(); ++it) {
         hyk_Status s = host_.UnloadModule(*it);
         done.push_back(s == HYK_OK ? "unloaded " + *it : fmt::format("could not unload {}: {}", *it, StatusText(s)));
      }
      return done;
   }

  private:
   bool FastDatapath(const std::string &name) {
      for (const auto &p : host_.Portsets()) {
         if (p.name == name) return p.fastDatapath;
      }
      return false;
   }

   std::optional<hyk_ModuleID> ModuleIdOf(const std::string &name) {
      for (const auto &m : host_.Modules()) {
         if (m.name == name) return m.id;
      }
      return std::nullopt;
   }

   // Command 9's module list: every old module and its new twin, and the extras.
   std::vector<ModuleArg> ModuleList() {
      std::vector<ModuleArg> out;
      auto idOf = [this](const std::string &name) -> std::optional<hyk_ModuleID> {
         for (const auto &m : host_.Modules()) {
            if (m.name == name) return m.id;
         }
         return std::nullopt;
      };
      for (const auto &m : old_) {
         if (auto id = idOf(Versioned(m, opts_.fromBuild))) out.push_back({true, *id});
         if (auto id = idOf(Versioned(m, opts_.toBuild))) out.push_back({false, *id});
      }
      for (const auto &extra : opts_.modules) {
         auto colon = extra.find(':');
         bool from = extra.rfind("from:", 0) == 0;
         std::string name = colon == std::string::npos ? extra : extra.substr(colon + 1);
         if (auto id = idOf(name)) out.push_back({from, *id});
      }
      return out;
   }

   Environment &env_;
   Host &host_;
   FlowOptions opts_;
   std::vector<std::string> old_;
   std::unique_ptr<Device> device_;
   bool loadedLus_ = false;
   std::vector<std::string> loadedNew_;   // modules of the new build this flow loaded
   bool pastPointOfNoReturn_ = false;
};

// Runs one step; a host that goes away or answers garbage fails it.
hyk_Status RunStep(Step &step, StepRecord &rec, FlowResult &result) {
   try {
      return step.run(&rec.detail);
   } catch (const HostError &e) {
      result.hostError = e.what();
      rec.detail = e.what();
      return HYK_FAILURE;
   }
}

void RunSteps(Environment &env, const FlowOptions &opts, const Progress &progress, FlowResult &result) {
   FlowBuilder builder(env, opts);
   std::vector<Step> steps = opts.kind == FlowOptions::kClassic ? builder.Classic() : builder.Portset();
   for (size_t i = 0; i < steps.size() && result.pointOfNoReturn == 0; i++) {
      const bool ponr = opts.kind == FlowOptions::kClassic ? steps[i].name == "unload old build"
                                                           : steps[i].name.rfind("ps-upgrade ", 0) == 0;
      if (ponr) {
         result.pointOfNoReturn = static_cast<int>(i + 1);
         result.pointOfNoReturnName = steps[i].name;
      }
   }
   auto log = env.host->Log();
   result.logSeqStart = log.empty() ? 0 : log.back().seq + 1;
   result.startUS = env.host->NowUS();
   if (!opts.dryRun) {
      result.refusals = PreChecks(*env.host, opts, OldModules(*env.host, opts));
      if (!result.refusals.empty()) {
         result.ok = false;
         result.endUS = result.startUS;
         return;
      }
   }
   const int total = static_cast<int>(steps.size());
   for (int i = 0; i < total; i++) {
      StepRecord rec = NewStepRecord(i + 1, steps[i].name, steps[i].number);
      if (opts.dryRun) {
         rec.detail = rec.number != UINT32_MAX ? "payload " + (steps[i].payload.empty() ? std::string("(none)") : HexOf(steps[i].payload)) : "host action";
         result.steps.push_back(rec);
         if (progress) progress(rec, total, true);
         continue;
      }
      if (progress) progress(rec, total, false);
      rec.startUS = env.host->NowUS();
      rec.status = RunStep(steps[i], rec, result);
      rec.endUS = result.hostError.empty() ? env.host->NowUS() : rec.startUS;
      result.steps.push_back(rec);
      result.pastPointOfNoReturn = builder.PastPointOfNoReturn();
      if (progress) progress(rec, total, true);
      if (rec.status != HYK_OK) {
         result.ok = false;
         result.failedStep = i + 1;
         if (!result.hostError.empty()) break;   // nothing more can be done on that host
         if (!result.pastPointOfNoReturn) {
            result.undone = builder.Undo();
            result.rolledBack = true;
            break;
         }
         // A device left open would pin lus: close it, as a process that stops does.
         for (int j = i + 1; j < total; j++) {
            if (steps[j].name == "close device") {
               std::string ignored;
               steps[j].run(&ignored);
               break;
            }
         }
         break;
      }
   }
   result.endUS = result.hostError.empty() ? env.host->NowUS() : result.startUS;
}

}  // namespace

StepRecord NewStepRecord(int index, const std::string &name, uint32_t number) {
   StepRecord rec;
   rec.index = index;
   rec.name = name;
   rec.number = number;
   if (number != UINT32_MAX) rec.command = CommandLabel(number);
   return rec;
}

FlowResult RunFlow(Environment &env, const FlowOptions &opts, const Progress &progress) {
   FlowResult result;
   try {
      RunSteps(env, opts, progress, result);
   } catch (const HostError &e) {
      // Between the steps (the checks, the log's start): nothing was done yet.
      result.ok = false;
      result.hostError = e.what();
   }
   return result;
}

}  // namespace lusctl
