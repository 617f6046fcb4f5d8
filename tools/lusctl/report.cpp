// report.cpp -- the report of an upgrade, built only from what a tool can
// observe on a host (its log, the ports' blocked intervals, the clients'
// ledger, module use counts, heap usage), and its four outputs: a summary
// and tables for a person, JSON for a machine, a Chrome/Perfetto trace and
// an SVG chart.
#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <ostream>
#include <regex>
#include <set>

#include "tool.h"

namespace lusctl {

namespace {

const char *kLusComponent = "lus_heap_0";

bool IsLusLine(const hyksim::LogLine &l, uint64_t since) {
   return l.seq >= since && l.component == kLusComponent;
}

// The message of a lus line, after its "[tarn@7391 ...]" tag.
std::string Message(const std::string &text) {
   auto end = text.find("\"]");
   return end == std::string::npos ? text : text.substr(end + 2);
}

uint64_t LastIntervalUS(const hyksim::PortView &p, uint64_t now) {
   if (p.blocked.empty()) return 0;
   const auto &b = p.blocked.back();
   return (b.open ? now : b.toUS) - b.fromUS;
}


double Seconds(uint64_t us) { return static_cast<double>(us) / 1e6; }

}  // namespace

uint64_t Percentile(std::vector<uint64_t> v, double p) {
   if (v.empty()) return 0;
   std::sort(v.begin(), v.end());
   size_t i = static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5);
   return v[std::min(i, v.size() - 1)];
}

std::string Thousands(uint64_t v) {
   std::string s = std::to_string(v), out;
   for (size_t i = 0; i < s.size(); i++) {
      if (i != 0 && (s.size() - i) % 3 == 0) out += ',';
      out += s[i];
   }
   return out;
}

std::map<uint32_t, std::string> PortNames(const std::vector<hyksim::PortView> &ports) {
   // Port IDs grow in the order the ports were made: a port's index is its
   // rank among its portset's IDs.
   std::map<std::string, std::vector<uint32_t>> byPortset;
   for (const auto &p : ports) byPortset[p.portset].push_back(p.id);
   std::map<uint32_t, std::string> names;
   for (auto &[ps, ids] : byPortset) {
      std::sort(ids.begin(), ids.end());
      for (size_t i = 0; i < ids.size(); i++) names[ids[i]] = fmt::format("{}#{}", ps, i);
   }
   return names;
}

const std::vector<std::string> &ViolationKinds() {
   static const std::vector<std::string> kinds = {"over-budget", "mismatched", "refused",
                                                  "dropped",     "lost",       "blocked"};
   return kinds;
}

namespace {

// The client callback a lus function's duration line is about.
std::string CallbackOf(const std::string &function) {
   static const std::map<std::string, std::string> names = {
      {"LUS_GetTotalSize", "getSize"},           {"LUS_GetTotalSizeV1", "getSize"},
      {"LUS_SaveState", "getRuntimeState"},      {"LUS_SaveStateV1", "getRuntimeState"},
      {"LUSPerPortUpgradeSave", "getRuntimeState"}, {"lusRestoreV1", "runtimeRestore"},
      {"lusGetRestoreState", "runtimeRestore"},  {"LUS_PreDualLoad", "preDualLoad"},
      {"lusPsLogDuration", "upgrade-world pass"},
   };
   auto it = names.find(function);
   return it == names.end() ? function : it->second;
}

// "lusRestore:912:[tarn@...]": the function that logged the line.
std::string FunctionOf(const std::string &text) {
   auto colon = text.find(':');
   return colon == std::string::npos ? std::string() : text.substr(0, colon);
}

std::string List(const std::vector<std::string> &names, size_t most = 8) {
   std::string out = fmt::format("{}", fmt::join(names.begin(), names.begin() + std::min(most, names.size()), ", "));
   if (names.size() > most) out += fmt::format(" and {} more", names.size() - most);
   return out;
}

struct LogFacts {
   std::map<uint32_t, int> outageSec;
   // client -> (bytes, ports), unexpected and by design
   std::map<std::string, std::pair<uint64_t, std::set<uint32_t>>> drops, byDesign;
};

void ReadLog(Host &host, const FlowOptions &opts, const FlowResult &result, Report &r, LogFacts &f) {
   static const std::regex outage(R"(Port 0x([0-9a-f]+) LUS block outage in Seconds: (-?[0-9]+))");
   static const std::regex dropped(
      R"(Dropped saved state of port 0x([0-9a-f]+) client (\S+): ([0-9]+) bytes never restored)");
   static const std::regex callback(R"(Client: (\S+) CB duration \(ms\): ([0-9]+))");
   static const std::regex restoring(R"(Restoring LUS data on PortID: 0x([0-9a-f]+))");
   static const std::regex namedPort(R"([Pp]ort(?:ID)?:? 0x([0-9a-f]+))");
   static const std::regex namedClient(R"([Cc]lient:? (\S+?)(?: :|:|,|$| ))");
   // The port a restore is working on, for the failure lines that do not name theirs.
   uint32_t restoringPort = 0;
   for (const auto &line : host.Log()) {
      if (!IsLusLine(line, result.logSeqStart)) continue;
      std::smatch m;
      const std::string msg = Message(line.text);
      if (std::regex_search(msg, m, outage)) {
         f.outageSec[static_cast<uint32_t>(std::stoul(m[1].str(), nullptr, 16))] = std::stoi(m[2].str());
      } else if (std::regex_search(msg, m, dropped)) {
         const uint32_t port = static_cast<uint32_t>(std::stoul(m[1].str(), nullptr, 16));
         // The per-portset flow forgets the portset-phase clients' per-port maps
         // when their state has been handed over through the upgrade world; a
         // rolled-back flow's saved copy was never needed (the old build keeps its own).
         const bool byDesign = result.rolledBack ||
                               (opts.kind == FlowOptions::kPortset && FunctionOf(line.text) == "lusDeleteEntryV1");
         auto &d = (byDesign ? f.byDesign : f.drops)[m[2].str()];
         d.first += std::stoull(m[3].str());
         d.second.insert(port);
         r.attributed.push_back({port, r.names[port], m[2].str(), msg, byDesign});
      } else if (std::regex_search(msg, m, callback)) {
         r.callbacks.push_back({m[1].str(), CallbackOf(FunctionOf(line.text)), line.timeUS, std::stoull(m[2].str())});
      } else if (std::regex_search(msg, m, restoring)) {
         restoringPort = static_cast<uint32_t>(std::stoul(m[1].str(), nullptr, 16));
      }
      if (line.level != 1) continue;
      AttributedLine a;
      a.text = msg;
      // Undoing a flow frees the copy lus saved; the old build keeps its own.
      // The per-portset flow's end forgets the portset-phase per-port maps,
      // and says so for each record that never had state.
      a.byDesign = (result.rolledBack && msg.find("Dropped saved state") != std::string::npos) ||
                   (opts.kind == FlowOptions::kPortset && FunctionOf(line.text) == "lusDeleteEntryV1");
      if (!a.byDesign) r.failures.push_back(msg);
      if (std::regex_search(msg, m, namedPort)) {
         a.port = static_cast<uint32_t>(std::stoul(m[1].str(), nullptr, 16));
      } else if (msg.find("Restore Runtime State FAIL") != std::string::npos) {
         a.port = restoringPort;
      }
      if (std::regex_search(msg, m, namedClient)) a.client = m[1].str();
      if (a.port != 0) a.portName = r.names[a.port];
      r.attributed.push_back(a);
   }
}

std::vector<CallbackStats> CallbackTable(const std::vector<Report::Callback> &calls) {
   std::map<std::pair<std::string, std::string>, std::vector<uint64_t>> by;
   for (const auto &c : calls) by[{c.client, c.callback}].push_back(c.ms);
   std::vector<CallbackStats> out;
   for (const auto &[key, ms] : by) {
      CallbackStats s;
      s.client = key.first;
      s.callback = key.second;
      s.count = ms.size();
      for (uint64_t v : ms) s.totalMS += v;
      s.p50MS = Percentile(ms, 0.5);
      s.p99MS = Percentile(ms, 0.99);
      s.maxMS = Percentile(ms, 1.0);
      out.push_back(s);
   }
   return out;
}

PortRow RowOf(const hyksim::PortView &p, const Report &r, const FlowOptions &opts, uint64_t since, uint64_t now) {
   PortRow row;
   row.port = p.id;
   row.portset = p.portset;
   auto name = r.names.find(p.id);
   row.name = name == r.names.end() ? std::to_string(p.id) : name->second;
   row.vm = p.desc.vmUUID;
   row.vnic = p.desc.clientType == HYK_PORT_CLIENT_VNIC ? static_cast<int>(p.desc.vnicIndex) : -1;
   for (const auto &b : p.blocked) {
      const uint64_t to = b.open ? now : b.toUS;
      // Intervals of this flow: begun during it, or still running into it.
      if (b.open || b.fromUS >= since || to > since) row.intervals.push_back({b.fromUS, to});
   }
   // A port not blocked during the flow had no outage of this upgrade.
   row.hostUS = row.intervals.empty() ? 0 : LastIntervalUS(p, now);
   row.fromUS = row.intervals.empty() ? 0 : p.blocked.back().fromUS;
   row.overBudget = opts.maxOutageSec != 0 && row.hostUS > uint64_t{opts.maxOutageSec} * 1000000u &&
                    !row.intervals.empty();
   row.blocked = IsLusBlocked(p);
   row.passes = p.blockReasons == 0;
   row.everBlocked = !row.intervals.empty() || row.blocked;
   row.inUpgrade = std::find(opts.portsets.begin(), opts.portsets.end(), p.portset) != opts.portsets.end();
   return row;
}

void AddViolations(Report &r) {
   auto add = [&r](const std::string &kind, const std::string &text) { r.violations.push_back({kind, text}); };
   std::vector<std::string> over, blocked, lost;
   std::set<uint32_t> droppedPorts;
   for (const auto &a : r.attributed) {
      if (!a.byDesign && a.port != 0 && a.text.find("Dropped saved state") != std::string::npos) droppedPorts.insert(a.port);
   }
   for (const auto &p : r.ports) {
      if (p.overBudget) over.push_back(fmt::format("{} ({:.3f} s)", p.name, Seconds(p.hostUS)));
      // A port lus blocks with no state left for it will never be restored.
      const bool gone = p.blocked && (r.left.stateBytes == 0 || droppedPorts.count(p.port) != 0);
      if (gone) {
         lost.push_back(p.name);
      } else if (p.blocked || (!p.passes && p.everBlocked)) {
         blocked.push_back(p.name);
      }
   }
   if (!r.result.givenUp.empty()) {
      add("lost", fmt::format("{} port(s) unblocked without their state: {}", r.result.givenUp.size(),
                              fmt::join(r.result.givenUp, "; ")));
   }
   if (!lost.empty()) {
      add("lost", fmt::format("{} port(s) blocked with no state left in lus: they will not come back by themselves "
                              "(`lusctl recover --unblock-lost` unblocks them): {}",
                              lost.size(), List(lost)));
   }
   if (!over.empty()) add("over-budget", fmt::format("{} port(s) over the {} s budget: {}", over.size(), r.budgetSec, List(over)));
   if (!blocked.empty()) add("blocked", fmt::format("{} port(s) do not pass traffic: {}", blocked.size(), List(blocked)));
   for (const auto &[kind, pick] : std::vector<std::pair<std::string, int>>{
           {"mismatched", HYKSIM_LEDGER_MISMATCHED}, {"refused", HYKSIM_LEDGER_REFUSED}}) {
      for (const auto &c : r.clients) {
         const auto &count = kind == "mismatched" ? c.mismatched : c.refused;
         if (count.bytes == 0) continue;
         std::vector<std::string> ports;
         for (uint32_t id : kind == "mismatched" ? c.mismatchedPorts : c.refusedPorts) {
            auto n = r.names.find(id);
            ports.push_back(n == r.names.end() ? std::to_string(id) : n->second);
         }
         add(kind, fmt::format("{}: {} bytes of {} port(s) {}{}: {}", c.client, Thousands(count.bytes), count.ports,
                               kind,
                               kind == "mismatched" ? " (the new build got other state than the old one saved)"
                                                    : " by the new build (a format it cannot read)",
                               List(ports)));
      }
   }
   for (const auto &c : r.clients) {
      if (c.sharedMismatched.bytes != 0) {
         add("mismatched", fmt::format("{}: {} bytes of portset or global state mismatched", c.client,
                                       Thousands(c.sharedMismatched.bytes)));
      }
      if (c.sharedRefused.bytes != 0) {
         add("refused", fmt::format("{}: {} bytes of portset or global state refused by the new build", c.client,
                                    Thousands(c.sharedRefused.bytes)));
      }
   }
   for (const auto &c : r.clients) {
      if (c.droppedBytes == 0) continue;
      std::vector<std::string> ports;
      for (const auto &a : r.attributed) {
         if (!a.byDesign && a.client == c.client && a.text.find("Dropped saved state") != std::string::npos) {
            ports.push_back(a.portName.empty() ? std::to_string(a.port) : a.portName);
         }
      }
      add("dropped", fmt::format("{}: {} bytes of {} port(s) dropped by lus, never restored: {}", c.client,
                                 Thousands(c.droppedBytes), c.droppedPorts, List(ports)));
   }
}

}  // namespace

Report BuildReport(Environment &env, const FlowOptions &opts, const FlowResult &result,
                   const std::vector<std::string> &allowed) {
   Host &host = *env.host;
   Report r;
   r.flow = opts.kind == FlowOptions::kClassic ? "classic" : "portset";
   r.fromBuild = opts.fromBuild;
   r.toBuild = opts.toBuild;
   r.budgetSec = opts.maxOutageSec;
   r.portsets = opts.portsets;
   r.result = result;
   r.allowed = allowed;
   const uint64_t now = host.NowUS();
   const auto hostPorts = host.Ports();
   r.names = PortNames(hostPorts);

   LogFacts facts;
   ReadLog(host, opts, result, r, facts);
   r.callbackStats = CallbackTable(r.callbacks);

   // The upgrade's ports, and any other port lus blocked meanwhile.
   for (const auto &p : hostPorts) {
      const bool carried = p.desc.clientType == HYK_PORT_CLIENT_VNIC || p.desc.clientType == HYK_PORT_CLIENT_CONTAINER;
      PortRow row = RowOf(p, r, opts, result.startUS, now);
      if (!(row.inUpgrade && carried) && !row.blocked && row.intervals.empty()) continue;
      auto it = facts.outageSec.find(p.id);
      row.moduleSec = it == facts.outageSec.end() ? -1 : it->second;
      const auto &gaveUp = result.givenUpPorts;
      row.upgraded = result.pastPointOfNoReturn && row.everBlocked && row.passes &&
                     std::find(gaveUp.begin(), gaveUp.end(), p.id) == gaveUp.end();
      if (row.blocked) r.left.portsBlocked.push_back(p.id);
      r.ports.push_back(row);
   }

   for (const auto &v : host.Ledger()) {
      ClientRow c;
      c.client = v.client;
      c.saved = v.perPort[HYKSIM_LEDGER_SAVED];
      c.restored = v.perPort[HYKSIM_LEDGER_RESTORED];
      c.verified = v.perPort[HYKSIM_LEDGER_VERIFIED];
      c.converted = v.perPort[HYKSIM_LEDGER_CONVERTED];
      c.mismatched = v.perPort[HYKSIM_LEDGER_MISMATCHED];
      c.refused = v.perPort[HYKSIM_LEDGER_REFUSED];
      c.sharedMismatched = v.shared[HYKSIM_LEDGER_MISMATCHED];
      c.sharedRefused = v.shared[HYKSIM_LEDGER_REFUSED];
      for (const auto &[port, bytes] : v.ports) {
         if (bytes[HYKSIM_LEDGER_MISMATCHED] != 0) c.mismatchedPorts.push_back(port);
         if (bytes[HYKSIM_LEDGER_REFUSED] != 0) c.refusedPorts.push_back(port);
      }
      if (auto d = facts.drops.find(v.client); d != facts.drops.end()) {
         c.droppedBytes = d->second.first;
         c.droppedPorts = d->second.second.size();
      }
      if (auto d = facts.byDesign.find(v.client); d != facts.byDesign.end()) {
         c.byDesignBytes = d->second.first;
         c.byDesignPorts = d->second.second.size();
      }
      r.clients.push_back(c);
   }

   for (const auto &h : host.Heaps()) {
      if (h.name == "lus_heap_1" || h.name == "lus_heap_2") r.left.stateBytes += h.bytesInUse;
   }
   const std::string from = fmt::format("-{}", opts.fromBuild), to = fmt::format("-{}", opts.toBuild);
   auto endsWith = [](const std::string &s, const std::string &x) {
      return s.size() >= x.size() && s.compare(s.size() - x.size(), x.size(), x) == 0;
   };
   for (const auto &m : host.Modules()) {
      const bool ours = m.name == "lus" || endsWith(m.name, from) || endsWith(m.name, to);
      if (!ours) continue;
      r.left.modulesLoaded.push_back(m.name);
      if (m.name != "lus" && m.useCount != 0) r.left.clientsRegistered.push_back(m.name);
   }
   for (const auto &t : host.Timers()) r.left.clearTimerArmed |= t.owner == "lus";
   AddViolations(r);
   return r;
}

int ExitCode(const Report &r) {
   if (!r.result.ok) return 1;
   for (const auto &v : r.violations) {
      if (std::find(r.allowed.begin(), r.allowed.end(), v.kind) == r.allowed.end()) return 3;
   }
   return 0;
}

std::string Verdict(const Report &r) {
   switch (ExitCode(r)) {
      case 0: return r.violations.empty() ? "completed" : "completed (with allowed violations)";
      case 3: return "finished with violations";
      default: return "FAILED";
   }
}

std::string RecoverCommand(const Report &r) {
   std::string cmd = "lusctl";
   if (!r.hostPath.empty()) cmd += " --host " + r.hostPath;
   return cmd + fmt::format(" recover --from-build {} --to-build {}", r.fromBuild, r.toBuild);
}

namespace {

// What a failed step means to the operator who ran it.
std::string Meaning(const StepRecord &s) {
   static const std::vector<std::pair<std::string, std::string>> meanings = {
      {"load lus", "the host could not load lus of the new build: is the build installed, and is --from-build the build the host runs?"},
      {"load new build", "a module of the new build refused to load: see its reason; --module-param MODULE:NAME=VALUE gives one module its own parameters"},
      {"open device", "the device \"lus\" could not be opened: lus is not loaded, or another tool holds the device"},
      {"register", "lus could not register the build's clients: a client or the host's event service failed"},
      {"block", "lus could not block the ports: no state had left the old build"},
      {"save", "lus could not save every port's state: the old build still holds it all"},
      {"unload old build", "a module of the old build stays loaded: something still uses it"},
      {"new datapath takes over", "the new build did not take every portset over: its ports wait blocked for their restore"},
      {"ports restored", "some ports are still blocked: a new client refused its state, or lus no longer holds it"},
      {"pre-dual-load", "an old client failed to prepare for the dual load"},
      {"global-config", "the global configuration could not be handed from the old build to the new one"},
      {"ps-upgrade", "the portset's upgrade world failed: some of its state may have moved to the new build"},
      {"upgrade-port", "the port's filter could not be moved to the new build"},
      {"collection-complete", "the old clients could not be told that collection is complete"},
      {"restore-complete", "per-port state is still held by lus: some port was never restored"},
      {"fdp", "the portset's fast datapath could not be switched"},
      {"unload lus", "lus stays loaded: a device is still open or a client still holds it"},
      {"close device", "the device could not be closed"},
   };
   for (const auto &[prefix, meaning] : meanings) {
      if (s.name.rfind(prefix, 0) == 0) return meaning;
   }
   return "";
}

void PrintRecoveryOutcome(std::ostream &out, const Report &r) {
   const auto &res = r.result;
   const std::string what = fmt::format("recovery of the upgrade {} -> {}", r.fromBuild, r.toBuild);
   if (!res.hostError.empty()) {
      out << fmt::format("lusctl: {}: FAILED: {}\n", what, res.hostError);
      return;
   }
   if (res.ok) {
      out << fmt::format("lusctl: {}: {} ({} steps, {:.3f} s)\n", what, Verdict(r), res.steps.size(),
                         Seconds(res.endUS - res.startUS));
   } else {
      const StepRecord &s = res.steps.back();
      out << fmt::format("lusctl: {}: FAILED at step {} '{}': {}{}\n", what, s.index, s.name,
                         s.command.empty() ? "" : s.command + " returned ", StatusText(s.status));
      if (!s.detail.empty()) out << fmt::format("        {}\n", s.detail);
   }
   out << fmt::format("        {}\n", res.pointOfNoReturnName);
}

void PrintOutcome(std::ostream &out, const Report &r) {
   const auto &res = r.result;
   if (r.flow == "recovery") {
      PrintRecoveryOutcome(out, r);
      return;
   }
   const std::string what = fmt::format("{} upgrade {} -> {} of {}", r.flow, r.fromBuild, r.toBuild,
                                        fmt::join(r.portsets, ", "));
   if (!res.refusals.empty()) {
      out << fmt::format("lusctl: {}: REFUSED before any step; nothing was done\n", what);
      for (const auto &why : res.refusals) out << fmt::format("        - {}\n", why);
      return;
   }
   if (res.ok) {
      out << fmt::format("lusctl: {}: {} ({} steps, {:.3f} s)\n", what, Verdict(r), res.steps.size(),
                         Seconds(res.endUS - res.startUS));
      return;
   }
   if (res.steps.empty()) {
      out << fmt::format("lusctl: {}: FAILED before its first step: {}\n", what, res.hostError);
   } else if (!res.hostError.empty()) {
      const StepRecord &s = res.steps.back();
      out << fmt::format("lusctl: {}: FAILED {} step {} '{}': {}\n", what, s.status == HYK_OK ? "after" : "at",
                         s.index, s.name, res.hostError);
   } else {
      const StepRecord &s = res.steps.back();
      out << fmt::format("lusctl: {}: FAILED at step {} '{}': {}{}\n", what, s.index, s.name,
                         s.command.empty() ? "" : s.command + " returned ", StatusText(s.status));
      if (!s.detail.empty()) out << fmt::format("        {}\n", s.detail);
      if (!Meaning(s).empty()) out << fmt::format("        {}\n", Meaning(s));
   }
   const std::string ponr = fmt::format("step {} '{}'", res.pointOfNoReturn, res.pointOfNoReturnName);
   if (!res.hostError.empty()) {
      out << fmt::format("        the host stopped answering: what it holds now is unknown.  When it answers "
                         "again:\n        {} status\n        {}\n",
                         r.hostPath.empty() ? "lusctl" : "lusctl --host " + r.hostPath, RecoverCommand(r));
   } else if (res.rolledBack) {
      out << fmt::format("rolled back: the failure came before the point of no return ({}); {}.  Every port's "
                         "state stays with build {}\n",
                         ponr, res.undone.empty() ? "nothing to undo" : fmt::format("{}", fmt::join(res.undone, ", ")),
                         r.fromBuild);
   } else {
      out << fmt::format("past the point of no return ({}): carry the upgrade to its end with\n        {}\n", ponr,
                         RecoverCommand(r));
   }
}

}  // namespace

void PrintSummary(std::ostream &out, const Report &r) {
   PrintOutcome(out, r);
   if (!r.result.refusals.empty() || (!r.result.hostError.empty() && r.ports.empty())) return;
   std::vector<uint64_t> outages;
   size_t over = 0, upgraded = 0, passing = 0;
   for (const auto &p : r.ports) {
      if (p.everBlocked) outages.push_back(p.hostUS);
      over += p.overBudget;
      upgraded += p.upgraded;
      passing += p.passes;
   }
   out << fmt::format("ports:  {} upgraded{}, {} pass traffic{}, {} blocked; outage (host) p50 {:.3f} s, "
                      "p99 {:.3f} s, max {:.3f} s; budget {} s: {} over\n",
                      upgraded, r.result.rolledBack ? " (rolled back)" : "", passing,
                      r.result.rolledBack ? fmt::format(" on build {}", r.fromBuild) : "",
                      r.left.portsBlocked.size(), Seconds(Percentile(outages, 0.5)),
                      Seconds(Percentile(outages, 0.99)), Seconds(Percentile(outages, 1.0)),
                      r.budgetSec, over);
   uint64_t saved = 0, restored = 0, verified = 0, converted = 0, mismatched = 0, refused = 0, dropped = 0,
            byDesign = 0;
   for (const auto &c : r.clients) {
      saved += c.saved.bytes;
      restored += c.restored.bytes;
      verified += c.verified.bytes;
      converted += c.converted.bytes;
      mismatched += c.mismatched.bytes;
      refused += c.refused.bytes;
      dropped += c.droppedBytes;
      byDesign += c.byDesignBytes;
   }
   out << fmt::format("state:  {} bytes saved by {} clients; {} restored, {} verified, {} converted; "
                      "{} mismatched, {} refused, {} dropped by lus{}\n",
                      Thousands(saved), r.clients.size(), Thousands(restored), Thousands(verified),
                      Thousands(converted), Thousands(mismatched), Thousands(refused), Thousands(dropped),
                      byDesign == 0 ? std::string()
                                    : fmt::format(" ({} more freed by design{})", Thousands(byDesign),
                                                  r.result.rolledBack ? ": the old build keeps its own"
                                                                      : ": the portset-phase maps"));
   const auto &l = r.left;
   const std::string loaded = l.modulesLoaded.empty() ? std::string("none") : fmt::format("{}", fmt::join(l.modulesLoaded, ", "));
   if (l.portsBlocked.empty() && l.stateBytes == 0 && l.clientsRegistered.empty()) {
      out << fmt::format("left:   no port blocked, no state in lus's heaps, no client pinned; loaded: {}\n", loaded);
   } else {
      out << fmt::format("left:   {} ports blocked, {} bytes of state in lus's heaps, clients still "
                         "registered: {}; loaded: {}{}\n",
                         l.portsBlocked.size(), Thousands(l.stateBytes),
                         l.clientsRegistered.empty() ? std::string("none") : fmt::format("{}", fmt::join(l.clientsRegistered, ", ")),
                         loaded, l.clearTimerArmed ? "; lus's clear timer is armed: held state will be dropped when it fires" : "");
   }
   for (const auto &v : r.violations) {
      const bool allowed = std::find(r.allowed.begin(), r.allowed.end(), v.kind) != r.allowed.end();
      out << fmt::format("violation{}: {}: {}\n", allowed ? " (allowed)" : "", v.kind, v.text);
   }
   if (!r.failures.empty()) {
      out << fmt::format("lus reported {} failure(s); first: {}\n", r.failures.size(), r.failures.front());
   }
}

namespace {

void PrintPortTable(std::ostream &out, const Report &r, size_t worstPorts) {
   // Ports left blocked first, then the longest outages: a port that never
   // came back must not hide behind ports of equal (virtual) time.
   std::vector<PortRow> ports;
   for (const auto &p : r.ports) {
      if (p.everBlocked) ports.push_back(p);
   }
   if (ports.empty()) return;
   std::sort(ports.begin(), ports.end(), [](const PortRow &a, const PortRow &b) {
      if (a.blocked != b.blocked) return a.blocked;
      return a.hostUS != b.hostUS ? a.hostUS > b.hostUS : a.port < b.port;
   });
   const size_t n = std::min(worstPorts, ports.size());
   out << fmt::format("\nports left blocked, then the longest outages ({} of the {} blocked; every port is in "
                      "--report-json)\n",
                      n, ports.size());
   out << fmt::format("  {:<14} {:>8} {:<22} {:>4} {:>12} {:>8} {:>7} {:>8}\n", "port", "id", "vm", "vnic",
                      "host (ms)", "lus (s)", "budget", "now");
   for (size_t i = 0; i < n; i++) {
      const auto &p = ports[i];
      out << fmt::format("  {:<14} {:>8} {:<22} {:>4} {:>12.3f} {:>8} {:>7} {:>8}\n", p.name, p.port,
                         p.vm.empty() ? "-" : p.vm, p.vnic < 0 ? std::string("-") : std::to_string(p.vnic),
                         p.hostUS / 1000.0, p.moduleSec < 0 ? std::string("-") : std::to_string(p.moduleSec),
                         p.overBudget ? "OVER" : "ok", p.blocked ? "blocked" : (p.passes ? "passes" : "held"));
   }
}

}  // namespace

void PrintTables(std::ostream &out, const Report &r, size_t worstPorts) {
   // A host that went away told nothing more than the steps.
   const bool hostKnown = r.result.hostError.empty() || !r.ports.empty();
   if (!r.result.refusals.empty()) return;   // nothing was done
   out << "\nsteps\n";
   for (const auto &s : r.result.steps) {
      out << fmt::format("  {:>2}  {:<28} {:<30} {:<28} {:>9.3f} ms  {}\n", s.index, s.name,
                         s.command, StatusText(s.status), (s.endUS - s.startUS) / 1000.0, s.detail);
   }
   if (!hostKnown) return;
   out << "\nclients (per-port state: ports / bytes)\n";
   out << fmt::format("  {:<16} {:>18} {:>18} {:>18} {:>18} {:>12} {:>12} {:>18}\n", "client", "saved",
                      "restored", "verified", "converted", "mismatched", "refused", "dropped by lus");
   auto cell = [](const hyksim::LedgerCount &c) { return fmt::format("{} / {}", c.ports, Thousands(c.bytes)); };
   for (const auto &c : r.clients) {
      out << fmt::format("  {:<16} {:>18} {:>18} {:>18} {:>18} {:>12} {:>12} {:>18}\n", c.client,
                         cell(c.saved), cell(c.restored), cell(c.verified), cell(c.converted),
                         cell(c.mismatched), cell(c.refused),
                         fmt::format("{} / {}", c.droppedPorts, Thousands(c.droppedBytes)));
   }
   PrintPortTable(out, r, worstPorts);
   if (r.callbackStats.empty() && r.flow == "classic") {
      // The classic (interface version 0) paths time no callback in lus.
      out << "\nclient callbacks: lus logs their durations only in the per-portset flow\n";
   } else if (!r.callbackStats.empty()) {
      out << "\nclient callbacks (lus's duration lines, level 5; whole milliseconds)\n";
      out << fmt::format("  {:<16} {:<18} {:>8} {:>10} {:>8} {:>8} {:>8}\n", "client", "callback", "count",
                         "total ms", "p50 ms", "p99 ms", "max ms");
      for (const auto &c : r.callbackStats) {
         out << fmt::format("  {:<16} {:<18} {:>8} {:>10} {:>8} {:>8} {:>8}\n", c.client, c.callback, c.count,
                            c.totalMS, c.p50MS, c.p99MS, c.maxMS);
      }
   }
   if (!r.attributed.empty()) {
      size_t shown = 0;
      out << "\nlus's failure and drop lines, by port and client\n";
      for (const auto &a : r.attributed) {
         if (shown++ == 20) {
            out << fmt::format("  ... {} more in --report-json\n", r.attributed.size() - 20);
            break;
         }
         out << fmt::format("  {:<14} {:<16} {}{}\n", a.portName.empty() ? "-" : a.portName,
                            a.client.empty() ? "-" : a.client, a.text, a.byDesign ? "  [by design]" : "");
      }
   }
}

std::string ReportJson(const Report &r) {
   using nlohmann::json;
   json j;
   j["flow"] = r.flow;
   j["fromBuild"] = r.fromBuild;
   j["toBuild"] = r.toBuild;
   j["portsets"] = r.portsets;
   j["budgetSeconds"] = r.budgetSec;
   j["ok"] = r.result.ok;
   j["verdict"] = Verdict(r);
   j["exitCode"] = ExitCode(r);
   j["failedStep"] = r.result.failedStep;
   j["refusals"] = r.result.refusals;
   j["pointOfNoReturn"] = {{"step", r.result.pointOfNoReturn}, {"name", r.result.pointOfNoReturnName},
                           {"passed", r.result.pastPointOfNoReturn}};
   j["rolledBack"] = r.result.rolledBack;
   j["undone"] = r.result.undone;
   if (!r.result.hostError.empty()) j["hostError"] = r.result.hostError;
   if (!r.result.ok && !r.result.rolledBack && r.result.refusals.empty()) j["recover"] = RecoverCommand(r);
   j["violations"] = json::array();
   for (const auto &v : r.violations) {
      const bool allowed = std::find(r.allowed.begin(), r.allowed.end(), v.kind) != r.allowed.end();
      j["violations"].push_back({{"kind", v.kind}, {"text", v.text}, {"allowed", allowed}});
   }
   j["durationUS"] = r.result.endUS - r.result.startUS;
   for (const auto &s : r.result.steps) {
      json step = {{"index", s.index}, {"name", s.name}, {"status", s.status},
                   {"statusText", hyk_StatusToString(s.status)}, {"startUS", s.startUS},
                   {"endUS", s.endUS}, {"detail", s.detail}};
      if (s.number != UINT32_MAX) {
         step["command"] = s.number;
         step["commandName"] = s.command;
      }
      j["steps"].push_back(step);
   }
   j["ports"] = json::array();
   for (const auto &p : r.ports) {
      json port = {{"port", p.port}, {"name", p.name}, {"portset", p.portset}, {"vm", p.vm},
                   {"vnic", p.vnic < 0 ? json(nullptr) : json(p.vnic)}, {"hostBlockedUS", p.hostUS},
                   {"overBudget", p.overBudget}, {"blocked", p.blocked}, {"passesTraffic", p.passes},
                   {"upgraded", p.upgraded}, {"inUpgrade", p.inUpgrade}};
      port["lusOutageSeconds"] = p.moduleSec < 0 ? json(nullptr) : json(p.moduleSec);
      j["ports"].push_back(port);
   }
   j["clients"] = json::array();
   auto count = [](const hyksim::LedgerCount &c) { return json{{"ports", c.ports}, {"bytes", c.bytes}}; };
   for (const auto &c : r.clients) {
      j["clients"].push_back({{"client", c.client}, {"saved", count(c.saved)},
                              {"restored", count(c.restored)}, {"verified", count(c.verified)},
                              {"converted", count(c.converted)}, {"mismatched", count(c.mismatched)},
                              {"refused", count(c.refused)},
                              {"droppedByLus", {{"ports", c.droppedPorts}, {"bytes", c.droppedBytes}}},
                              {"droppedByDesign", {{"ports", c.byDesignPorts}, {"bytes", c.byDesignBytes}}}});
   }
   j["failures"] = r.failures;
   j["attributed"] = json::array();
   for (const auto &a : r.attributed) {
      j["attributed"].push_back({{"port", a.port}, {"name", a.portName}, {"client", a.client}, {"text", a.text},
                                 {"byDesign", a.byDesign}});
   }
   j["callbacks"] = json::array();
   for (const auto &c : r.callbackStats) {
      j["callbacks"].push_back({{"client", c.client}, {"callback", c.callback}, {"count", c.count},
                                {"totalMS", c.totalMS}, {"p50MS", c.p50MS}, {"p99MS", c.p99MS}, {"maxMS", c.maxMS}});
   }
   j["leftBehind"] = {{"portsBlocked", r.left.portsBlocked},
                      {"stateBytesInLusHeaps", r.left.stateBytes},
                      {"clientsRegistered", r.left.clientsRegistered},
                      {"modulesLoaded", r.left.modulesLoaded},
                      {"clearTimerArmed", r.left.clearTimerArmed}};
   return j.dump(2) + "\n";
}

// Chrome/Perfetto trace events: process 1 holds a track per port (blocked
// intervals), process 2 the tool's steps (device commands and host actions),
// process 3 the client callbacks whose duration lus logged.
std::string TraceJson(const Report &r) {
   using nlohmann::json;
   json events = json::array();
   auto meta = [&](int pid, int tid, const std::string &what, const std::string &name) {
      events.push_back({{"ph", "M"}, {"pid", pid}, {"tid", tid}, {"name", what}, {"args", {{"name", name}}}});
   };
   meta(1, 0, "process_name", "ports (blocked, host-measured)");
   meta(2, 0, "process_name", "lusctl steps");
   meta(3, 0, "process_name", "client callbacks (lus-logged)");
   meta(2, 1, "thread_name", "steps");
   for (const auto &p : r.ports) {
      meta(1, static_cast<int>(p.port), "thread_name",
           fmt::format("{} (port {}{})", p.name, p.port, p.vm.empty() ? "" : fmt::format(", {} vNIC {}", p.vm, p.vnic)));
   }
   for (const auto &p : r.ports) {
      // Every blocked interval of the port during the flow: from its block to its unblock.
      for (const auto &[from, to] : p.intervals) {
         events.push_back({{"ph", "X"}, {"pid", 1}, {"tid", p.port}, {"name", "blocked"},
                           {"ts", from}, {"dur", to - from},
                           {"args", {{"port", p.name}, {"lusOutageSeconds", p.moduleSec},
                                     {"overBudget", p.overBudget}, {"stillBlocked", p.blocked}}}});
      }
   }
   for (const auto &s : r.result.steps) {
      events.push_back({{"ph", "X"}, {"pid", 2}, {"tid", 1}, {"name", s.name}, {"ts", s.startUS},
                        {"dur", s.endUS - s.startUS},
                        {"args", {{"command", s.command}, {"status", StatusText(s.status)}}}});
   }
   std::map<std::string, int> clientTid;
   for (const auto &c : r.callbacks) {
      int &tid = clientTid[c.client];
      if (tid == 0) {
         tid = static_cast<int>(clientTid.size());
         meta(3, tid, "thread_name", c.client);
      }
      const uint64_t dur = c.ms * 1000;
      events.push_back({{"ph", "X"}, {"pid", 3}, {"tid", tid}, {"name", c.callback},
                        {"ts", c.endUS > dur ? c.endUS - dur : 0}, {"dur", dur}});
   }
   return json{{"traceEvents", events}, {"displayTimeUnit", "ms"}}.dump() + "\n";
}

}  // namespace lusctl
