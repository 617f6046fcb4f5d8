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

std::string Thousands(uint64_t v) {
   std::string s = std::to_string(v), out;
   for (size_t i = 0; i < s.size(); i++) {
      if (i != 0 && (s.size() - i) % 3 == 0) out += ',';
      out += s[i];
   }
   return out;
}

double Seconds(uint64_t us) { return static_cast<double>(us) / 1e6; }

uint64_t Percentile(std::vector<uint64_t> v, double p) {
   if (v.empty()) return 0;
   std::sort(v.begin(), v.end());
   size_t i = static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5);
   return v[std::min(i, v.size() - 1)];
}

}  // namespace

Report BuildReport(Environment &env, const FlowOptions &opts, const FlowResult &result) {
   Host &host = *env.host;
   Report r;
   r.flow = opts.kind == FlowOptions::kClassic ? "classic" : "portset";
   r.fromBuild = opts.fromBuild;
   r.toBuild = opts.toBuild;
   r.budgetSec = opts.maxOutageSec;
   r.portsets = opts.portsets;
   r.result = result;
   const uint64_t now = host.NowUS();

   static const std::regex outage(R"(Port 0x([0-9a-f]+) LUS block outage in Seconds: (-?[0-9]+))");
   static const std::regex dropped(
      R"(Dropped saved state of port 0x([0-9a-f]+) client (\S+): ([0-9]+) bytes never restored)");
   static const std::regex callback(R"(Client: (\S+) CB duration \(ms\): ([0-9]+))");
   std::map<uint32_t, int> logged;
   std::map<std::string, std::pair<uint64_t, std::set<uint32_t>>> drops;
   for (const auto &line : host.Log()) {
      if (!IsLusLine(line, result.logSeqStart)) continue;
      std::smatch m;
      const std::string msg = Message(line.text);
      if (std::regex_search(msg, m, outage)) {
         logged[static_cast<uint32_t>(std::stoul(m[1].str(), nullptr, 16))] = std::stoi(m[2].str());
      } else if (std::regex_search(msg, m, dropped)) {
         auto &d = drops[m[2].str()];
         d.first += std::stoull(m[3].str());
         d.second.insert(static_cast<uint32_t>(std::stoul(m[1].str(), nullptr, 16)));
      } else if (std::regex_search(msg, m, callback)) {
         r.callbacks.push_back({m[1].str(), line.timeUS, std::stoull(m[2].str())});
      }
      if (line.level == 1) r.failures.push_back(msg);
   }

   for (const auto &p : host.Ports()) {
      if (std::find(opts.portsets.begin(), opts.portsets.end(), p.portset) == opts.portsets.end()) continue;
      if (p.desc.clientType != HYK_PORT_CLIENT_VNIC && p.desc.clientType != HYK_PORT_CLIENT_CONTAINER) continue;
      PortRow row;
      row.port = p.id;
      row.portset = p.portset;
      row.hostUS = LastIntervalUS(p, now);
      row.fromUS = p.blocked.empty() ? 0 : p.blocked.back().fromUS;
      auto it = logged.find(p.id);
      row.moduleSec = it == logged.end() ? -1 : it->second;
      row.overBudget = opts.maxOutageSec != 0 && row.hostUS > uint64_t{opts.maxOutageSec} * 1000000u;
      row.blocked = (p.blockReasons & HYK_PORT_BLOCK_CUSTOM) != 0;
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
      auto d = drops.find(v.client);
      if (d != drops.end()) {
         c.droppedBytes = d->second.first;
         c.droppedPorts = d->second.second.size();
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
   return r;
}

void PrintSummary(std::ostream &out, const Report &r) {
   const auto &res = r.result;
   std::string what = fmt::format("{} upgrade {} -> {} of {}", r.flow, r.fromBuild, r.toBuild,
                                  fmt::join(r.portsets, ", "));
   if (res.ok) {
      out << fmt::format("lusctl: {}: completed ({} steps, {:.3f} s)\n", what, res.steps.size(),
                         Seconds(res.endUS - res.startUS));
   } else {
      const StepRecord &s = res.steps.back();
      out << fmt::format("lusctl: {}: FAILED at step {} '{}': {}{}\n", what, s.index, s.name,
                         s.command.empty() ? "" : s.command + " returned ", StatusText(s.status));
      if (!s.detail.empty()) out << fmt::format("        {}\n", s.detail);
   }
   std::vector<uint64_t> outages;
   size_t over = 0;
   for (const auto &p : r.ports) {
      outages.push_back(p.hostUS);
      over += p.overBudget;
   }
   out << fmt::format("ports:  {} upgraded, {} pass traffic, {} blocked; outage (host) p50 {:.3f} s, "
                      "p99 {:.3f} s, max {:.3f} s; budget {} s: {} over\n",
                      r.ports.size(), r.ports.size() - r.left.portsBlocked.size(),
                      r.left.portsBlocked.size(), Seconds(Percentile(outages, 0.5)),
                      Seconds(Percentile(outages, 0.99)), Seconds(Percentile(outages, 1.0)),
                      r.budgetSec, over);
   uint64_t saved = 0, restored = 0, verified = 0, converted = 0, mismatched = 0, refused = 0, dropped = 0;
   for (const auto &c : r.clients) {
      saved += c.saved.bytes;
      restored += c.restored.bytes;
      verified += c.verified.bytes;
      converted += c.converted.bytes;
      mismatched += c.mismatched.bytes;
      refused += c.refused.bytes;
      dropped += c.droppedBytes;
   }
   out << fmt::format("state:  {} bytes saved by {} clients; {} restored, {} verified, {} converted; "
                      "{} mismatched, {} refused, {} dropped by lus\n",
                      Thousands(saved), r.clients.size(), Thousands(restored), Thousands(verified),
                      Thousands(converted), Thousands(mismatched), Thousands(refused),
                      Thousands(dropped));
   const auto &l = r.left;
   if (l.portsBlocked.empty() && l.stateBytes == 0 && l.clientsRegistered.empty()) {
      out << fmt::format("left:   no port blocked, no state in lus's heaps, no client pinned; "
                         "loaded: {}\n",
                         l.modulesLoaded.empty() ? std::string("none") : fmt::format("{}", fmt::join(l.modulesLoaded, ", ")));
   } else {
      out << fmt::format("left:   {} ports blocked, {} bytes of state in lus's heaps, clients still "
                         "registered: {}; loaded: {}\n",
                         l.portsBlocked.size(), Thousands(l.stateBytes),
                         l.clientsRegistered.empty() ? std::string("none") : fmt::format("{}", fmt::join(l.clientsRegistered, ", ")),
                         l.modulesLoaded.empty() ? std::string("none") : fmt::format("{}", fmt::join(l.modulesLoaded, ", ")));
   }
   if (!r.failures.empty()) {
      out << fmt::format("lus reported {} failure(s); first: {}\n", r.failures.size(), r.failures.front());
   }
}

void PrintTables(std::ostream &out, const Report &r, size_t worstPorts) {
   out << "\nsteps\n";
   for (const auto &s : r.result.steps) {
      out << fmt::format("  {:>2}  {:<28} {:<30} {:<28} {:>9.3f} ms  {}\n", s.index, s.name,
                         s.command, StatusText(s.status), (s.endUS - s.startUS) / 1000.0, s.detail);
   }
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
   std::vector<PortRow> ports = r.ports;
   std::sort(ports.begin(), ports.end(), [](const PortRow &a, const PortRow &b) {
      return a.hostUS != b.hostUS ? a.hostUS > b.hostUS : a.port < b.port;
   });
   const size_t n = std::min(worstPorts, ports.size());
   out << fmt::format("\nports with the longest outage ({} of {}; every port is in --report-json)\n", n,
                      ports.size());
   out << fmt::format("  {:>8} {:<12} {:>14} {:>14} {:>8} {:>8}\n", "port", "portset", "host (ms)",
                      "lus (s)", "budget", "now");
   for (size_t i = 0; i < n; i++) {
      const auto &p = ports[i];
      out << fmt::format("  {:>8} {:<12} {:>14.3f} {:>14} {:>8} {:>8}\n", p.port, p.portset,
                         p.hostUS / 1000.0, p.moduleSec < 0 ? std::string("-") : std::to_string(p.moduleSec),
                         p.overBudget ? "OVER" : "ok", p.blocked ? "blocked" : "passes");
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
   j["failedStep"] = r.result.failedStep;
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
      json port = {{"port", p.port}, {"portset", p.portset}, {"hostBlockedUS", p.hostUS},
                   {"overBudget", p.overBudget}, {"blocked", p.blocked}};
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
                              {"droppedByLus", {{"ports", c.droppedPorts}, {"bytes", c.droppedBytes}}}});
   }
   j["failures"] = r.failures;
   j["leftBehind"] = {{"portsBlocked", r.left.portsBlocked},
                      {"stateBytesInLusHeaps", r.left.stateBytes},
                      {"clientsRegistered", r.left.clientsRegistered},
                      {"modulesLoaded", r.left.modulesLoaded}};
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
      meta(1, static_cast<int>(p.port), "thread_name", fmt::format("port {} ({})", p.port, p.portset));
   }
   for (const auto &p : r.ports) {
      // The last blocked interval of the port: from its block to its unblock.
      events.push_back({{"ph", "X"}, {"pid", 1}, {"tid", p.port}, {"name", "blocked"},
                        {"ts", p.fromUS}, {"dur", p.hostUS},
                        {"args", {{"lusOutageSeconds", p.moduleSec}, {"overBudget", p.overBudget},
                                  {"stillBlocked", p.blocked}}}});
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
      events.push_back({{"ph", "X"}, {"pid", 3}, {"tid", tid}, {"name", "callback"},
                        {"ts", c.endUS > dur ? c.endUS - dur : 0}, {"dur", dur}});
   }
   return json{{"traceEvents", events}, {"displayTimeUnit", "ms"}}.dump() + "\n";
}

// Every port's outage, longest first: the host's measurement as a bar, what
// lus logged beside it, the budget as a line.
std::string ChartSvg(const Report &r) {
   std::vector<PortRow> ports = r.ports;
   std::sort(ports.begin(), ports.end(), [](const PortRow &a, const PortRow &b) {
      return a.hostUS != b.hostUS ? a.hostUS > b.hostUS : a.port < b.port;
   });
   const double left = 70, top = 50, plotH = 300, barW = ports.size() > 150 ? 3 : 6;
   const double plotW = std::max(400.0, barW * 2 * static_cast<double>(ports.size()));
   const double width = left + plotW + 30, height = top + plotH + 90;
   // Scale to the data; the budget joins the scale only when it is close
   // enough to be seen next to it, otherwise it is named above the plot.
   double dataMax = 0;
   for (const auto &p : ports) {
      dataMax = std::max({dataMax, Seconds(p.hostUS), static_cast<double>(p.moduleSec)});
   }
   const bool budgetOnScale = r.budgetSec != 0 && r.budgetSec <= dataMax * 3;
   double maxSec = std::max(dataMax, budgetOnScale ? static_cast<double>(r.budgetSec) : 0.0);
   maxSec = maxSec <= 0 ? 1 : maxSec * 1.1;
   const bool ms = maxSec < 2;   // label in milliseconds below 2 s
   auto label = [&](double sec) { return ms ? fmt::format("{:.1f} ms", sec * 1000) : fmt::format("{:.1f} s", sec); };
   auto y = [&](double sec) { return top + plotH - std::min(sec, maxSec) / maxSec * plotH; };

   std::string svg = fmt::format(
      "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{:.0f}\" height=\"{:.0f}\" "
      "viewBox=\"0 0 {:.0f} {:.0f}\" font-family=\"sans-serif\" font-size=\"12\">\n"
      "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
      "<text x=\"{:.0f}\" y=\"24\" font-size=\"15\">Outage per port, {} upgrade {} -&gt; {} "
      "({} ports, longest first)</text>\n",
      width, height, width, height, left, r.flow, r.fromBuild, r.toBuild, ports.size());
   for (int i = 0; i <= 5; i++) {
      const double sec = maxSec * i / 5;
      svg += fmt::format("<line x1=\"{:.1f}\" x2=\"{:.1f}\" y1=\"{:.1f}\" y2=\"{:.1f}\" stroke=\"#ddd\"/>"
                         "<text x=\"{:.1f}\" y=\"{:.1f}\" text-anchor=\"end\">{}</text>\n",
                         left, left + plotW, y(sec), y(sec), left - 6, y(sec) + 4, label(sec));
   }
   for (size_t i = 0; i < ports.size(); i++) {
      const auto &p = ports[i];
      const double x = left + static_cast<double>(i) * barW * 2;
      const double hs = Seconds(p.hostUS);
      svg += fmt::format("<rect x=\"{:.1f}\" y=\"{:.1f}\" width=\"{:.1f}\" height=\"{:.1f}\" fill=\"{}\">"
                         "<title>port {} ({}): host {:.3f} s, lus {}</title></rect>\n",
                         x, y(hs), barW, top + plotH - y(hs), p.overBudget ? "#d62728" : "#1f77b4",
                         p.port, p.portset, hs,
                         p.moduleSec < 0 ? std::string("-") : fmt::format("{} s", p.moduleSec));
      if (p.moduleSec >= 0) {
         svg += fmt::format("<rect x=\"{:.1f}\" y=\"{:.1f}\" width=\"{:.1f}\" height=\"{:.1f}\" "
                            "fill=\"#ff7f0e\" opacity=\"0.8\"/>\n",
                            x + barW, y(p.moduleSec), barW, top + plotH - y(p.moduleSec));
      }
   }
   if (r.budgetSec != 0 && !budgetOnScale) {
      svg += fmt::format("<text x=\"{:.1f}\" y=\"{:.1f}\" fill=\"#d62728\" text-anchor=\"end\">budget {} s: "
                         "above this scale, no port near it</text>\n",
                         left + plotW, top - 8, r.budgetSec);
   }
   if (budgetOnScale) {
      svg += fmt::format("<line x1=\"{:.1f}\" x2=\"{:.1f}\" y1=\"{:.1f}\" y2=\"{:.1f}\" stroke=\"#d62728\" "
                         "stroke-dasharray=\"6 4\" stroke-width=\"2\"/>"
                         "<text x=\"{:.1f}\" y=\"{:.1f}\" fill=\"#d62728\" text-anchor=\"end\">budget {} s</text>\n",
                         left, left + plotW, y(r.budgetSec), y(r.budgetSec), left + plotW,
                         y(r.budgetSec) - 6, r.budgetSec);
   }
   svg += fmt::format("<line x1=\"{:.1f}\" x2=\"{:.1f}\" y1=\"{:.1f}\" y2=\"{:.1f}\" stroke=\"black\"/>\n",
                      left, left + plotW, top + plotH, top + plotH);
   std::vector<uint32_t> over;
   for (const auto &p : ports) {
      if (p.overBudget) over.push_back(p.port);
   }
   if (!over.empty()) {
      std::string list = fmt::format("{}", fmt::join(over.begin(), over.begin() + std::min<size_t>(over.size(), 12), ", "));
      if (over.size() > 12) list += ", ...";
      svg += fmt::format("<text x=\"{:.1f}\" y=\"{:.1f}\" fill=\"#d62728\" text-anchor=\"end\">{} of {} "
                         "ports over the budget: {}</text>\n",
                         left + plotW, top + 14, over.size(), ports.size(), list);
   }
   int loggedMax = -1;
   for (const auto &p : ports) loggedMax = std::max(loggedMax, p.moduleSec);
   if (loggedMax == 0) {
      svg += fmt::format("<text x=\"{:.1f}\" y=\"{:.1f}\" fill=\"#ff7f0e\">lus logs whole seconds: "
                         "0 s for every port</text>\n",
                         left + 8, top + 14);
   }
   const double ly = top + plotH + 30;
   svg += fmt::format("<text x=\"{:.1f}\" y=\"{:.1f}\">ports, sorted by the outage the host measured</text>\n",
                      left, top + plotH + 16);
   svg += fmt::format("<rect x=\"{:.1f}\" y=\"{:.1f}\" width=\"12\" height=\"12\" fill=\"#1f77b4\"/>"
                      "<text x=\"{:.1f}\" y=\"{:.1f}\">blocked time measured by the host</text>\n",
                      left, ly, left + 18, ly + 11);
   svg += fmt::format("<rect x=\"{:.1f}\" y=\"{:.1f}\" width=\"12\" height=\"12\" fill=\"#ff7f0e\"/>"
                      "<text x=\"{:.1f}\" y=\"{:.1f}\">outage logged by lus (whole seconds)</text>\n",
                      left + 260, ly, left + 278, ly + 11);
   svg += fmt::format("<rect x=\"{:.1f}\" y=\"{:.1f}\" width=\"12\" height=\"12\" fill=\"#d62728\"/>"
                      "<text x=\"{:.1f}\" y=\"{:.1f}\">over the budget</text>\n",
                      left + 520, ly, left + 538, ly + 11);
   svg += "</svg>\n";
   return svg;
}

}  // namespace lusctl
