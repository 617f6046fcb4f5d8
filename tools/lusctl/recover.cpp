// recover.cpp -- what the host holds after an upgrade (`lusctl status`), and
// the way out of one that failed or was interrupted (`lusctl recover`).
//
// Recovery reads everything from the host, never from what a tool that ran
// before remembers (it may have been killed): the ports lus blocks, the
// modules of both builds and the portsets each carries.  While every module
// of the new build still has its old twin loaded and the old build carries
// the blocked ports' portsets, the old build holds every port's state: the
// ports go back to it.  Otherwise the state lives only in lus and the
// upgrade is carried forward: the old build's rest unloaded, the new
// build's clients matched to the held records, and each blocked port
// announced again as the new datapath announces it (its restore event).
#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <ostream>
#include <set>

#include "tool.h"

namespace lusctl {

namespace {

// "tarnq-dfw-1000" -> ("tarnq-dfw", 1000); false for a name without a build.
bool SplitBuild(const std::string &name, std::string *base, uint32_t *build) {
   auto dash = name.rfind('-');
   if (dash == std::string::npos || dash + 1 == name.size()) return false;
   const std::string digits = name.substr(dash + 1);
   if (!std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; }) || digits.size() > 9) {
      return false;
   }
   *base = name.substr(0, dash);
   *build = static_cast<uint32_t>(std::stoul(digits));
   return true;
}


}  // namespace

HostStatus ReadStatus(Host &host) {
   HostStatus s;
   const auto modules = host.Modules();
   std::map<hyk_ModuleID, std::string> nameOf;
   for (const auto &m : modules) {
      nameOf[m.id] = m.name;
      if (m.name == "lus") {
         s.lusLoaded = true;
         continue;
      }
      std::string base;
      uint32_t build = 0;
      if (SplitBuild(m.name, &base, &build)) s.builds[build].push_back(m.name);
      if (m.useCount != 0) s.registered.push_back(m.name);
   }
   for (const auto &ps : host.Portsets()) {
      auto it = nameOf.find(ps.classModule);
      s.carriers[ps.name] = it == nameOf.end() ? std::string() : it->second;
   }
   for (const auto &h : host.Heaps()) {
      if (h.name == "lus_heap_1" || h.name == "lus_heap_2") s.stateBytes += h.bytesInUse;
   }
   const auto ports = host.Ports();
   const auto names = PortNames(ports);
   const auto ledger = host.Ledger();
   const uint64_t now = host.NowUS();
   for (const auto &p : ports) {
      if (!IsLusBlocked(p)) continue;
      HostStatus::BlockedPort b;
      b.port = p.id;
      b.name = names.at(p.id);
      b.portset = p.portset;
      b.vm = p.desc.vmUUID;
      b.vnic = p.desc.clientType == HYK_PORT_CLIENT_VNIC ? static_cast<int>(p.desc.vnicIndex) : -1;
      if (!p.blocked.empty() && p.blocked.back().open) b.blockedUS = now - p.blocked.back().fromUS;
      // What lus can still hand over: saved and never restored, while its heaps hold anything.
      for (const auto &v : ledger) {
         auto it = v.ports.find(p.id);
         if (it == v.ports.end() || s.stateBytes == 0) continue;
         const uint64_t saved = it->second[HYKSIM_LEDGER_SAVED], restored = it->second[HYKSIM_LEDGER_RESTORED];
         if (saved > restored) b.heldBytes[v.client] = saved - restored;
      }
      s.blocked.push_back(b);
   }
   for (const auto &t : host.Timers()) {
      if (t.owner != "lus") continue;
      s.clearTimerArmed = true;
      s.clearTimerInUS = t.dueUS > now ? t.dueUS - now : 0;
   }
   return s;
}

void PrintStatus(std::ostream &out, const HostStatus &s, const std::string &hostPath) {
   const std::string tool = hostPath.empty() ? "lusctl" : "lusctl --host " + hostPath;
   out << fmt::format("lus:       {}\n", s.lusLoaded ? "loaded" : "not loaded");
   for (const auto &[build, modules] : s.builds) {
      out << fmt::format("build {}: {}\n", build, fmt::join(modules, ", "));
   }
   for (const auto &[ps, carrier] : s.carriers) {
      out << fmt::format("portset {}: carried by {}\n", ps, carrier.empty() ? "no loaded module" : carrier);
   }
   out << fmt::format("state:     {} bytes of client state in lus's heaps\n", Thousands(s.stateBytes));
   out << fmt::format("clients:   {}\n", s.registered.empty() ? std::string("none registered with lus")
                                                              : fmt::format("{} (held by lus)", fmt::join(s.registered, ", ")));
   if (s.clearTimerArmed) {
      out << fmt::format("timer:     lus's clear timer is armed: in {:.1f} s it drops whatever state lus still holds\n",
                         static_cast<double>(s.clearTimerInUS) / 1e6);
   }
   out << fmt::format("blocked:   {} port(s) blocked by lus\n", s.blocked.size());
   for (const auto &b : s.blocked) {
      std::vector<std::string> held;
      for (const auto &[client, bytes] : b.heldBytes) held.push_back(fmt::format("{} {} bytes", client, Thousands(bytes)));
      out << fmt::format("  {:<14} {:>8} {:<22} vnic {:>2}  blocked {:.3f} s  state: {}\n", b.name, b.port,
                         b.vm.empty() ? "-" : b.vm, b.vnic < 0 ? std::string("-") : std::to_string(b.vnic),
                         static_cast<double>(b.blockedUS) / 1e6,
                         held.empty() ? std::string("none held") : fmt::format("{}", fmt::join(held, ", ")));
   }
   if (!s.blocked.empty() || s.stateBytes != 0) {
      std::vector<uint32_t> builds;
      for (const auto &[build, modules] : s.builds) builds.push_back(build);
      const std::string from = builds.size() == 2 ? std::to_string(builds[0]) : "FROM";
      const std::string to = builds.size() == 2 ? std::to_string(builds[1]) : builds.size() == 1 ? std::to_string(builds[0]) : "TO";
      out << fmt::format("an upgrade was left unfinished: {} recover --from-build {} --to-build {}\n", tool, from, to);
   } else {
      out << "no upgrade is unfinished: no port is blocked by lus and its heaps hold no state\n";
   }
}

std::string StatusJson(const HostStatus &s) {
   using nlohmann::json;
   json j;
   j["lusLoaded"] = s.lusLoaded;
   j["stateBytesInLusHeaps"] = s.stateBytes;
   j["clientsRegistered"] = s.registered;
   j["builds"] = json::object();
   for (const auto &[build, modules] : s.builds) j["builds"][std::to_string(build)] = modules;
   j["portsets"] = json::object();
   for (const auto &[ps, carrier] : s.carriers) j["portsets"][ps] = {{"carriedBy", carrier}};
   j["clearTimer"] = {{"armed", s.clearTimerArmed}, {"firesInUS", s.clearTimerInUS}};
   j["portsBlocked"] = json::array();
   for (const auto &b : s.blocked) {
      j["portsBlocked"].push_back({{"port", b.port}, {"name", b.name}, {"portset", b.portset}, {"vm", b.vm},
                                   {"vnic", b.vnic < 0 ? json(nullptr) : json(b.vnic)}, {"blockedUS", b.blockedUS},
                                   {"heldBytes", b.heldBytes}});
   }
   j["unfinished"] = !s.blocked.empty() || s.stateBytes != 0;
   return j.dump(2) + "\n";
}

namespace {

// The recovery's steps, chosen from what the host holds and run in order.
class Recovery {
  public:
   Recovery(Environment &env, const RecoverOptions &o) : env_(env), host_(*env.host), o_(o) {}

   using Action = std::function<hyk_Status(std::string *detail)>;
   struct Step {
      std::string name;
      uint32_t number;
      Action run;
   };

   // Decides which way the host goes, and the steps that take it there.
   std::vector<Step> Plan(std::string *why, bool *forward) {
      const HostStatus s = ReadStatus(host_);
      std::set<std::string> blockedPortsets;
      for (const auto &b : s.blocked) blockedPortsets.insert(b.portset);
      const auto modules = host_.Modules();
      auto loaded = [&](const std::string &n) {
         return std::any_of(modules.begin(), modules.end(), [&](const ModuleInfo &m) { return m.name == n; });
      };
      // Twins: every new module whose old one is loaded too.
      bool twinsComplete = true;
      for (const auto &m : modules) {
         std::string base;
         uint32_t build = 0;
         if (SplitBuild(m.name, &base, &build) && build == o_.toBuild) {
            twinsComplete &= loaded(fmt::format("{}-{}", base, o_.fromBuild));
            newModules_.push_back(m.name);
            oldTwins_.push_back(fmt::format("{}-{}", base, o_.fromBuild));
         }
      }
      bool oldCarries = true;
      for (const auto &ps : blockedPortsets) oldCarries &= IsBuild(s.carriers.at(ps), o_.fromBuild);
      const bool newCarriesAny = std::any_of(s.carriers.begin(), s.carriers.end(),
                                             [&](const auto &c) { return IsBuild(c.second, o_.toBuild); });
      std::vector<Step> steps;
      *forward = !(twinsComplete && oldCarries && !newCarriesAny);
      if (o_.portsetFlow) *forward = newCarriesAny || !twinsComplete;
      if (!*forward) {
         *why = fmt::format("back to build {}: it is loaded whole and carries every blocked port's portset, so it "
                            "still holds their state",
                            o_.fromBuild);
         steps.push_back({"unblock ports", UINT32_MAX, [this](std::string *d) { return UnblockAll(d); }});
         if (s.lusLoaded) steps.push_back({"unload lus", UINT32_MAX, [this](std::string *d) { return UnloadLus(d); }});
         steps.push_back({"unload new build", UINT32_MAX, [this](std::string *d) { return UnloadNewBuild(d); }});
         return steps;
      }
      *why = fmt::format("forward to build {}: the old build no longer holds the state", o_.toBuild);
      if (!o_.portsetFlow) {
         steps.push_back({"unload old build", UINT32_MAX, [this](std::string *d) { return UnloadOldRest(d); }});
      }
      if (o_.portsetFlow) {
         if (s.lusLoaded) {
            steps.push_back({"open device", UINT32_MAX, [this](std::string *d) { return Open(d); }});
            steps.push_back({"collection-complete", LUS_IOCTL_STATE_COLLECTED,
                             [this](std::string *) { return Issue(LUS_IOCTL_STATE_COLLECTED, {}); }});
            steps.push_back({"restore-complete", LUS_IOCTL_RESTORE_COMPLETE,
                             [this](std::string *) { return Issue(LUS_IOCTL_RESTORE_COMPLETE, {}); }});
            steps.push_back({"close device", UINT32_MAX, [this](std::string *d) { return Close(d); }});
            // As the flow ends: unloading lus clears and unregisters every client.
            steps.push_back({"unload lus", UINT32_MAX, [this](std::string *d) {
                                *d = "the unload clears and unregisters every client";
                                return host_.UnloadModule("lus");
                             }});
         }
         // The old build goes last, once lus no longer holds it.
         steps.push_back({"unload old build", UINT32_MAX, [this](std::string *d) { return UnloadOldRest(d); }});
      } else if (s.lusLoaded && s.stateBytes != 0 && !blockedPortsets.empty()) {
         // The new build's clients are matched to the saved records again (the
         // flow may have stopped before it did so); matching twice is harmless.
         const std::vector<std::string> portsets(blockedPortsets.begin(), blockedPortsets.end());
         steps.push_back({"open device", UINT32_MAX, [this](std::string *d) { return Open(d); }});
         steps.push_back({"register", LUS_IOCTL_REG_TO, [this, portsets](std::string *) {
                             return Issue(LUS_IOCTL_REG_TO, PortsetQuery(PortsetArgs(portsets), false, 0));
                          }});
         steps.push_back({"close device", UINT32_MAX, [this](std::string *d) { return Close(d); }});
      }
      if (!o_.portsetFlow) {
         steps.push_back({"restore again", UINT32_MAX, [this](std::string *d) { return RestoreAgain(d); }});
      }
      return steps;
   }

   // Ports that are still blocked: their state is gone or no client takes it.
   std::vector<Step> GiveUp() {
      return {{"unblock lost ports", UINT32_MAX, [this](std::string *d) { return UnblockLost(d); }},
              {"free held state", UINT32_MAX, [this](std::string *d) { return FreeHeld(d); }}};
   }

   std::vector<std::string> givenUp;
   std::vector<uint32_t> givenUpPorts;

  private:
   static bool IsBuild(const std::string &module, uint32_t build) {
      std::string base;
      uint32_t b = 0;
      return SplitBuild(module, &base, &b) && b == build;
   }

   std::vector<hyksim::PortView> Blocked() {
      std::vector<hyksim::PortView> out;
      for (const auto &p : host_.Ports()) {
         if (IsLusBlocked(p)) out.push_back(p);
      }
      return out;
   }

   hyk_Status UnblockAll(std::string *d) {
      size_t n = 0;
      for (const auto &p : Blocked()) {
         hyk_Status st = host_.UnblockPort(p.id);
         if (st != HYK_OK) return st;
         n++;
      }
      *d = fmt::format("{} port(s) back on build {}", n, o_.fromBuild);
      return HYK_OK;
   }

   hyk_Status UnloadLus(std::string *d) {
      *d = "with it the state it saved (the old build keeps its own) and every registration";
      return host_.UnloadModule("lus");
   }

   hyk_Status UnloadNewBuild(std::string *d) {
      std::vector<std::string> done;
      for (auto it = newModules_.rbegin(); it != newModules_.rend(); ++it) {
         hyk_Status st = host_.UnloadModule(*it);
         if (st != HYK_OK) {
            *d = fmt::format("{} stays loaded", *it);
            return st;
         }
         done.push_back(*it);
      }
      *d = done.empty() ? "none was loaded" : fmt::format("{}", fmt::join(done, ", "));
      return HYK_OK;
   }

   hyk_Status UnloadOldRest(std::string *d) {
      std::vector<std::string> done;
      for (const auto &m : host_.Modules()) {
         if (std::find(oldTwins_.begin(), oldTwins_.end(), m.name) == oldTwins_.end()) continue;
         hyk_Status st = host_.UnloadModule(m.name);
         if (st != HYK_OK) {
            *d = fmt::format("{} stays loaded", m.name);
            return st;
         }
         done.push_back(m.name);
      }
      *d = done.empty() ? std::string("none was left") : fmt::format("{}", fmt::join(done, ", "));
      return HYK_OK;
   }

   hyk_Status Open(std::string *d) {
      device_ = env_.openDevice();
      *d = "/dev/lus";
      return device_->Open();
   }
   hyk_Status Close(std::string *) {
      if (device_) device_->Close();
      device_.reset();
      return HYK_OK;
   }
   hyk_Status Issue(uint32_t cmd, const std::vector<uint8_t> &payload) {
      if (!device_) return HYK_INVALID_HANDLE;
      return device_->Ioctl(cmd, payload, static_cast<uint32_t>(payload.size()));
   }

   // Each blocked port announced again.  A port whose restore fails again
   // stays blocked and is named; the others still get their turn.
   hyk_Status RestoreAgain(std::string *d) {
      const auto blocked = Blocked();
      const auto names = PortNames(host_.Ports());
      std::vector<std::string> failed;
      for (const auto &p : blocked) {
         hyk_Status st = host_.PostRestoreEvent(p.id);
         if (st != HYK_OK) failed.push_back(fmt::format("{}: {}", names.at(p.id), StatusText(st)));
      }
      const size_t left = Blocked().size();
      *d = fmt::format("{} port(s) asked again, {} restored, {} still blocked", blocked.size(), blocked.size() - left,
                       left);
      if (!failed.empty()) *d += fmt::format("; failed again: {}", fmt::join(failed, ", "));
      return HYK_OK;
   }

   hyk_Status UnblockLost(std::string *d) {
      const HostStatus s = ReadStatus(host_);
      for (const auto &b : s.blocked) {
         hyk_Status st = host_.UnblockPort(b.port);
         if (st != HYK_OK) {
            *d = fmt::format("port {}", b.name);
            return st;
         }
         std::vector<std::string> held;
         for (const auto &[client, bytes] : b.heldBytes) held.push_back(fmt::format("{} {} bytes", client, Thousands(bytes)));
         givenUpPorts.push_back(b.port);
         givenUp.push_back(fmt::format("{} (port {}): {}", b.name, b.port,
                                       held.empty() ? std::string("no state left") : fmt::format("{}", fmt::join(held, ", "))));
      }
      *d = fmt::format("{} port(s) unblocked without their state", s.blocked.size());
      return HYK_OK;
   }

   hyk_Status FreeHeld(std::string *d) {
      const HostStatus s = ReadStatus(host_);
      if (!s.lusLoaded || (s.stateBytes == 0 && s.registered.empty())) {
         *d = "lus holds nothing";
         return HYK_OK;
      }
      *d = fmt::format("unloaded lus: {} bytes it held are freed", Thousands(s.stateBytes));
      return host_.UnloadModule("lus");
   }

   Environment &env_;
   Host &host_;
   RecoverOptions o_;
   std::vector<std::string> newModules_, oldTwins_;
   std::unique_ptr<Device> device_;
};

}  // namespace

FlowResult Recover(Environment &env, const RecoverOptions &ropts, FlowOptions *opts, const Progress &progress) {
   FlowResult result;
   opts->kind = ropts.portsetFlow ? FlowOptions::kPortset : FlowOptions::kClassic;
   opts->fromBuild = ropts.fromBuild;
   opts->toBuild = ropts.toBuild;
   try {
      Host &host = *env.host;
      for (const auto &ps : host.Portsets()) opts->portsets.push_back(ps.name);
      auto log = host.Log();
      result.logSeqStart = log.empty() ? 0 : log.back().seq + 1;
      result.startUS = host.NowUS();
      Recovery recovery(env, ropts);
      std::string why;
      bool forward = false;
      std::vector<Recovery::Step> steps = recovery.Plan(&why, &forward);
      if (ropts.unblockLost) {
         for (auto &s : recovery.GiveUp()) steps.push_back(std::move(s));
      }
      result.pastPointOfNoReturn = forward;
      result.rolledBack = !forward;
      result.pointOfNoReturnName = why;
      const int total = static_cast<int>(steps.size());
      for (int i = 0; i < total; i++) {
         StepRecord rec = NewStepRecord(i + 1, steps[i].name, steps[i].number);
         if (progress) progress(rec, total, false);
         rec.startUS = host.NowUS();
         rec.status = steps[i].run(&rec.detail);
         rec.endUS = host.NowUS();
         result.steps.push_back(rec);
         if (progress) progress(rec, total, true);
         if (rec.status != HYK_OK) {
            result.ok = false;
            result.failedStep = i + 1;
            break;
         }
      }
      result.givenUp = recovery.givenUp;
      result.givenUpPorts = recovery.givenUpPorts;
      result.endUS = host.NowUS();
   } catch (const HostError &e) {
      result.ok = false;
      result.hostError = e.what();
   }
   return result;
}

}  // namespace lusctl
