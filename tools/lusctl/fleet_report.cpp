// fleet_report.cpp -- `lusctl fleet-report DIR`: the rollout of a fleet, read
// from what deploy/ansible's playbook left in its report directory (tool.h,
// FleetReport).  A table a person reads (a row per host: its wave, verdict,
// ports, outages, bytes moved and lost, first failure), the outage of every
// port of the fleet, JSON, and an SVG of each host's outage by wave with the
// failures marked.  It judges nothing again: the hosts' verdicts are this
// tool's own reports, the gate's reasons the role's.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <ostream>
#include <set>
#include <sstream>

#include "tool.h"

namespace lusctl {

namespace {

using nlohmann::json;
namespace fs = std::filesystem;

// A file's JSON, or an error that names the file.
struct Malformed : std::runtime_error {
   using std::runtime_error::runtime_error;
};

json ReadJson(const fs::path &path) {
   std::ifstream f(path);
   if (!f) throw Malformed(fmt::format("{}: cannot be read", path.string()));
   std::stringstream ss;
   ss << f.rdbuf();
   json j = json::parse(ss.str(), nullptr, false);
   if (j.is_discarded()) throw Malformed(fmt::format("{}: not JSON", path.string()));
   if (!j.is_object()) throw Malformed(fmt::format("{}: not a JSON object", path.string()));
   return j;
}

// j[key], of the type wanted, or Malformed naming the file and the field.
template <typename T>
T Field(const json &j, const char *key, const fs::path &path) {
   auto it = j.find(key);
   try {
      if (it == j.end()) throw Malformed(fmt::format("{}: no field \"{}\"", path.string(), key));
      return it->get<T>();
   } catch (const json::exception &e) {
      throw Malformed(fmt::format("{}: field \"{}\" is not what a report holds: {}", path.string(), key, e.what()));
   }
}

uint64_t Bytes(const json &client, const char *kind, const fs::path &path) {
   auto it = client.find(kind);
   if (it == client.end() || !it->is_object()) {
      throw Malformed(fmt::format("{}: a client without \"{}\"", path.string(), kind));
   }
   return Field<uint64_t>(*it, "bytes", path);
}

// Moved (restored to the new build) and lost (dropped by lus, mismatched,
// refused) bytes of a report: the host's ledger counts from its start, so the
// last report of a host holds its totals.
std::pair<uint64_t, uint64_t> MovedAndLost(const json &report, const fs::path &path) {
   uint64_t moved = 0, lost = 0;
   for (const auto &c : Field<json>(report, "clients", path)) {
      if (!c.is_object()) throw Malformed(fmt::format("{}: a client that is not an object", path.string()));
      moved += Bytes(c, "restored", path);
      lost += Bytes(c, "droppedByLus", path) + Bytes(c, "mismatched", path) + Bytes(c, "refused", path);
   }
   return {moved, lost};
}

// What went wrong first in an upgrade's report: a refusal, the failed step
// with lus's first failure line about a port, the host gone, a violation.
std::string FirstFailureOf(const json &report, const fs::path &path) {
   const auto refusals = Field<std::vector<std::string>>(report, "refusals", path);
   if (!refusals.empty()) return "refused: " + refusals.front();
   const int failed = Field<int>(report, "failedStep", path);
   std::string text;
   if (failed > 0) {
      for (const auto &s : Field<json>(report, "steps", path)) {
         if (s.is_object() && s.value("index", 0) == failed) {
            text = fmt::format("step {} '{}': {}", failed, s.value("name", std::string("?")),
                               s.value("statusText", std::string("?")));
         }
      }
      if (text.empty()) text = fmt::format("step {}", failed);
   }
   if (report.contains("hostError")) {
      const std::string gone = Field<std::string>(report, "hostError", path);
      return text.empty() ? gone : text + ": " + gone;
   }
   for (const auto &a : report.value("attributed", json::array())) {
      if (!a.is_object() || a.value("byDesign", false)) continue;
      const std::string line = fmt::format("{} {}: {}", a.value("name", std::string("-")),
                                           a.value("client", std::string("-")), a.value("text", std::string()));
      return text.empty() ? line : text + "; " + line;
   }
   if (!text.empty()) return text;
   for (const auto &v : Field<json>(report, "violations", path)) {
      if (v.is_object() && !v.value("allowed", false)) {
         return fmt::format("{}: {}", v.value("kind", std::string()), v.value("text", std::string()));
      }
   }
   return "";
}

void ReadUpgrade(const fs::path &path, FleetHost &h, FleetReport &f) {
   const json r = ReadJson(path);
   h.verdict = Field<std::string>(r, "verdict", path);
   f.fromBuild = Field<uint32_t>(r, "fromBuild", path);
   f.toBuild = Field<uint32_t>(r, "toBuild", path);
   for (const auto &p : Field<json>(r, "ports", path)) {
      if (!p.is_object()) throw Malformed(fmt::format("{}: a port that is not an object", path.string()));
      if (!Field<bool>(p, "inUpgrade", path)) continue;
      h.outagesUS.push_back(Field<uint64_t>(p, "hostBlockedUS", path));
      h.stillBlocked += Field<bool>(p, "blocked", path);
   }
   h.ports = h.outagesUS.size();
   h.p50US = Percentile(h.outagesUS, 0.5);
   h.p99US = Percentile(h.outagesUS, 0.99);
   h.maxUS = Percentile(h.outagesUS, 1.0);
   std::tie(h.bytesMoved, h.bytesLost) = MovedAndLost(r, path);
   h.firstFailure = FirstFailureOf(r, path);
}

void ReadRecovery(const fs::path &path, FleetHost &h) {
   const json r = ReadJson(path);
   h.recoveryVerdict = Field<std::string>(r, "verdict", path);
   std::tie(h.bytesMoved, h.bytesLost) = MovedAndLost(r, path);
}

FleetHost ReadHost(const fs::path &dir, const std::string &name, FleetReport &f) {
   FleetHost h;
   h.host = name;
   const fs::path path = dir / (name + ".host.json");
   if (!fs::exists(path)) {
      h.outcome = "not reached";
      return h;
   }
   const json j = ReadJson(path);
   if (Field<std::string>(j, "host", path) != name) {
      throw Malformed(fmt::format("{}: is the record of host \"{}\"", path.string(), j.value("host", "")));
   }
   h.wave = Field<int>(j, "wave", path);
   if (h.wave < 1) throw Malformed(fmt::format("{}: wave {} (waves count from 1)", path.string(), h.wave));
   h.outcome = Field<std::string>(j, "outcome", path);
   // The builds, also of a rollout in check mode (no report of the tool).
   if (j.contains("fromBuild")) f.fromBuild = Field<uint32_t>(j, "fromBuild", path);
   if (j.contains("toBuild")) f.toBuild = Field<uint32_t>(j, "toBuild", path);
   if (j.contains("gate") && j["gate"].is_object()) {
      h.gateReasons = Field<std::vector<std::string>>(j["gate"], "reasons", path);
   }
   const std::string report = j.value("report", std::string());
   if (!report.empty()) ReadUpgrade(dir / report, h, f);
   if (j.contains("recovery") && j["recovery"].is_object()) {
      const json &rec = j["recovery"];
      h.recovered = true;
      h.recoveryClean = rec.value("clean", false);
      const std::string file = rec.value("report", std::string());
      if (!file.empty()) ReadRecovery(dir / file, h);
   }
   // The role's reason when the report itself was clean (the gate's bounds),
   // or when there is no report at all (a pre-check, the host gone).
   if (h.outcome == "failed" && (h.firstFailure.empty() || h.verdict == "completed")) {
      const std::string role = j.value("firstFailure", std::string());
      h.firstFailure = !h.gateReasons.empty() ? fmt::format("{}", fmt::join(h.gateReasons, "; ")) : role;
   }
   return h;
}

std::string Ms(uint64_t us) { return fmt::format("{:.3f}", static_cast<double>(us) / 1000.0); }

// 1,234 us -> "1.23 ms"; for the text where the unit varies.
std::string Duration(uint64_t us) {
   if (us >= 1000000) return fmt::format("{:.3f} s", us / 1e6);
   if (us >= 1000) return fmt::format("{:.3f} ms", us / 1e3);
   return fmt::format("{} us", us);
}

bool Reached(const FleetHost &h) { return h.wave > 0; }
bool Failed(const FleetHost &h) { return h.outcome == "failed"; }

std::vector<uint64_t> AllOutages(const FleetReport &f) {
   std::vector<uint64_t> all;
   for (const auto &h : f.hosts) all.insert(all.end(), h.outagesUS.begin(), h.outagesUS.end());
   return all;
}

// The fleet's outages in decades: up to 1 ms, 10 ms, ... 10 s, and beyond.
std::vector<std::pair<uint64_t, size_t>> Histogram(const std::vector<uint64_t> &all) {
   std::vector<std::pair<uint64_t, size_t>> buckets = {{1000, 0}, {10000, 0}, {100000, 0}, {1000000, 0},
                                                        {10000000, 0}, {UINT64_MAX, 0}};
   for (uint64_t us : all) {
      for (auto &b : buckets) {
         if (us <= b.first) {
            b.second++;
            break;
         }
      }
   }
   return buckets;
}

std::string Recovery(const FleetHost &h) {
   if (!h.recovered) return "-";
   return h.recoveryClean ? "clean" : "NOT CLEAN";
}

}  // namespace

bool ReadFleetReport(const std::string &dirName, FleetReport *out, std::string *error) {
   FleetReport f;
   f.dir = dirName;
   const fs::path dir(dirName);
   std::error_code ec;
   if (!fs::is_directory(dir, ec)) {
      *error = fmt::format("{}: not a directory", dirName);
      return false;
   }
   try {
      std::vector<std::string> order, canary;
      const fs::path fleet = dir / "fleet.json";
      if (fs::exists(fleet)) {
         const json j = ReadJson(fleet);
         order = Field<std::vector<std::string>>(j, "hosts", fleet);
         if (j.contains("canary")) canary = Field<std::vector<std::string>>(j, "canary", fleet);
         f.checkMode = j.value("checkMode", false);
         if (j.contains("gate") && j["gate"].is_object()) {
            f.gateMaxOutageSec = Field<double>(j["gate"], "maxOutageSeconds", fleet);
         }
      }
      // Hosts the fleet's list lacks (a report directory of an older rollout) come last, by name.
      std::set<std::string> listed(order.begin(), order.end()), extra;
      for (const auto &e : fs::directory_iterator(dir)) {
         const std::string name = e.path().filename().string();
         const std::string suffix = ".host.json";
         if (name.size() > suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
            const std::string host = name.substr(0, name.size() - suffix.size());
            if (!listed.count(host)) extra.insert(host);
         }
      }
      order.insert(order.end(), extra.begin(), extra.end());
      if (order.empty()) {
         *error = fmt::format("{}: no rollout here (no fleet.json and no HOST.host.json): is it the playbook's "
                              "lus_fleet_report_dir?",
                              dirName);
         return false;
      }
      for (const auto &name : order) {
         f.hosts.push_back(ReadHost(dir, name, f));
         f.hosts.back().canary = std::find(canary.begin(), canary.end(), name) != canary.end();
      }
   } catch (const Malformed &e) {
      *error = e.what();
      return false;
   } catch (const fs::filesystem_error &e) {
      *error = fmt::format("{}: {}", dirName, e.what());
      return false;
   }
   for (const auto &h : f.hosts) {
      f.waves = std::max(f.waves, h.wave);
      if (Failed(h)) f.stoppedAfterWave = std::max(f.stoppedAfterWave, h.wave);
   }
   *out = std::move(f);
   return true;
}

void PrintFleetReport(std::ostream &out, const FleetReport &f) {
   size_t reached = 0, passed = 0, failed = 0, clean = 0, notReached = 0, checked = 0;
   for (const auto &h : f.hosts) {
      reached += Reached(h);
      checked += h.outcome == "checked";
      passed += h.outcome == "passed" || h.outcome == "already upgraded";
      failed += Failed(h);
      clean += Failed(h) && h.recoveryClean;
      notReached += !Reached(h);
   }
   out << fmt::format("fleet rollout {} -> {}{}: {} of {} host(s) reached in {} wave(s); {}{} passed, {} failed "
                      "({} recovered clean), {} not reached\n",
                      f.fromBuild, f.toBuild, f.checkMode ? " (check mode: nothing was upgraded)" : "", reached,
                      f.hosts.size(), f.waves, checked ? fmt::format("{} checked, ", checked) : "", passed, failed,
                      clean, notReached);
   if (f.stoppedAfterWave != 0) {
      std::vector<std::string> failedNames, untouched;
      for (const auto &h : f.hosts) {
         if (Failed(h)) failedNames.push_back(h.host);
         if (!Reached(h)) untouched.push_back(h.host);
      }
      out << fmt::format("stopped after wave {} (failed: {}){}\n", f.stoppedAfterWave, fmt::join(failedNames, ", "),
                         untouched.empty() ? std::string()
                                           : fmt::format("; not reached, left on build {}: {}", f.fromBuild,
                                                         fmt::join(untouched, ", ")));
   }
   out << fmt::format("\n{:<10} {:>4}  {:<17} {:<26} {:>5} {:>10} {:>10} {:>10} {:>10} {:>8}  {:<9}  {}\n", "host",
                      "wave", "outcome", "verdict", "ports", "p50 ms", "p99 ms", "max ms", "moved", "lost", "recovery",
                      "first failure");
   for (const auto &h : f.hosts) {
      if (!Reached(h)) {
         out << fmt::format("{:<10} {:>4}  {:<17}\n", h.host, "-", h.outcome);
         continue;
      }
      const bool measured = !h.verdict.empty();
      out << fmt::format("{:<10} {:>4}  {:<17} {:<26} {:>5} {:>10} {:>10} {:>10} {:>10} {:>8}  {:<9}  {}\n", h.host,
                         h.wave, Failed(h) ? "FAILED" : h.outcome, measured ? h.verdict : "-",
                         measured ? std::to_string(h.ports) : "-", measured ? Ms(h.p50US) : "-",
                         measured ? Ms(h.p99US) : "-",
                         measured ? Ms(h.maxUS) + (h.stillBlocked ? "+" : "") : "-",
                         measured ? Thousands(h.bytesMoved) : "-", measured ? Thousands(h.bytesLost) : "-",
                         Recovery(h), h.firstFailure.empty() ? "-" : h.firstFailure);
   }
   const auto all = AllOutages(f);
   if (all.empty()) return;
   std::vector<std::string> counted;
   for (const auto &h : f.hosts) {
      if (h.stillBlocked) counted.push_back(fmt::format("{} of {}", h.stillBlocked, h.host));
   }
   out << fmt::format("\noutage across the fleet: {} port(s) on {} host(s): p50 {}, p90 {}, p99 {}, max {}\n",
                      all.size(), reached, Duration(Percentile(all, 0.5)), Duration(Percentile(all, 0.9)),
                      Duration(Percentile(all, 0.99)), Duration(Percentile(all, 1.0)));
   const auto buckets = Histogram(all);
   const size_t most = std::max_element(buckets.begin(), buckets.end(), [](auto &a, auto &b) {
                          return a.second < b.second;
                       })->second;
   auto decade = [](uint64_t us) { return us >= 1000000 ? fmt::format("{} s", us / 1000000) : fmt::format("{} ms", us / 1000); };
   uint64_t from = 0;
   for (const auto &[to, n] : buckets) {
      const std::string range = to == UINT64_MAX ? fmt::format("over {}", decade(from))
                                                 : fmt::format("{} to {}", from == 0 ? "0" : decade(from), decade(to));
      const size_t bar = most == 0 ? 0 : (n * 40 + most - 1) / most;
      out << fmt::format("  {:<16} {:>6}  {}\n", range, n, std::string(bar, '#'));
      from = to;
   }
   if (!counted.empty()) {
      out << fmt::format("  + a port still blocked when its upgrade ended ({}): its outage ran on into the recovery\n",
                         fmt::join(counted, ", "));
   }
}

std::string FleetReportJson(const FleetReport &f) {
   json j;
   j["fromBuild"] = f.fromBuild;
   j["toBuild"] = f.toBuild;
   j["checkMode"] = f.checkMode;
   j["waves"] = f.waves;
   j["stoppedAfterWave"] = f.stoppedAfterWave == 0 ? json(nullptr) : json(f.stoppedAfterWave);
   j["hosts"] = json::array();
   for (const auto &h : f.hosts) {
      json host = {{"host", h.host}, {"reached", Reached(h)}, {"outcome", h.outcome}};
      if (Reached(h)) {
         host["wave"] = h.wave;
         host["verdict"] = h.verdict.empty() ? json(nullptr) : json(h.verdict);
         host["ports"] = h.ports;
         host["outageUS"] = {{"p50", h.p50US}, {"p99", h.p99US}, {"max", h.maxUS}};
         host["portsStillBlocked"] = h.stillBlocked;
         host["bytesMoved"] = h.bytesMoved;
         host["bytesLost"] = h.bytesLost;
         host["firstFailure"] = h.firstFailure.empty() ? json(nullptr) : json(h.firstFailure);
         host["gateReasons"] = h.gateReasons;
         host["recovery"] = h.recovered ? json{{"clean", h.recoveryClean}, {"verdict", h.recoveryVerdict}}
                                        : json(nullptr);
      }
      j["hosts"].push_back(host);
   }
   const auto all = AllOutages(f);
   j["outage"] = {{"ports", all.size()}, {"p50US", Percentile(all, 0.5)}, {"p90US", Percentile(all, 0.9)},
                  {"p99US", Percentile(all, 0.99)}, {"maxUS", Percentile(all, 1.0)}};
   j["outage"]["histogram"] = json::array();
   for (const auto &[to, n] : Histogram(all)) {
      j["outage"]["histogram"].push_back({{"upToUS", to == UINT64_MAX ? json(nullptr) : json(to)}, {"ports", n}});
   }
   return j.dump(2) + "\n";
}

// ---- the picture --------------------------------------------------------------------------
// Hosts left to right in the fleet's order, in bands by wave; a bar per host
// up to its longest port outage, ticks at p50 and p99; a failed host's bar is
// red with a cross and its first failure named below; hosts not reached are
// grey outlines.  The look of the flow's chart (chart.cpp).

namespace {

constexpr double kW = 1100, kLeft = 90, kRight = 30, kTop = 78, kPlotH = 300;
const char *const kBlueBar = "#4c78a8";
const char *const kRedBar = "#d62728";
const char *const kGreen = "#2ca02c";
const char *const kInkC = "#222";

class FleetChart {
  public:
   explicit FleetChart(const FleetReport &f) : f_(f) {}

   std::string Svg() {
      uint64_t top = 0;
      for (const auto &h : f_.hosts) top = std::max(top, h.maxUS);
      spanUS_ = std::max<double>(static_cast<double>(top) * 1.1, 1000.0);
      unit_ = spanUS_ >= 2e6 ? 1e6 : 1e3;
      unitName_ = spanUS_ >= 2e6 ? "s" : "ms";
      Title();
      Waves();
      Axis();
      Bars();
      Failures();
      Legend();
      return fmt::format("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0:.0f}\" height=\"{1:.0f}\" "
                         "viewBox=\"0 0 {0:.0f} {1:.0f}\" font-family=\"sans-serif\" font-size=\"12\">\n"
                         "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n",
                         kW, y_ + 16) +
             body_ + "</svg>\n";
   }

  private:
   double PlotW() const { return kW - kLeft - kRight; }
   double SlotW() const { return PlotW() / static_cast<double>(std::max<size_t>(f_.hosts.size(), 1)); }
   double X(size_t i) const { return kLeft + SlotW() * static_cast<double>(i); }
   double Y(uint64_t us) const {
      return kTop + kPlotH - std::min(static_cast<double>(us), spanUS_) / spanUS_ * kPlotH;
   }

   void Text(double x, double y, const std::string &text, const std::string &attrs = "") {
      body_ += fmt::format("<text x=\"{:.1f}\" y=\"{:.1f}\"{}>{}</text>\n", x, y, attrs.empty() ? "" : " " + attrs,
                           Xml(text));
   }
   void Rect(double x, double y, double w, double h, const std::string &attrs, const std::string &title = "") {
      body_ += fmt::format("<rect x=\"{:.1f}\" y=\"{:.1f}\" width=\"{:.1f}\" height=\"{:.1f}\" {}", x, y, w, h, attrs);
      body_ += title.empty() ? "/>\n" : "><title>" + Xml(title) + "</title></rect>\n";
   }
   void Line(double x1, double y1, double x2, double y2, const std::string &attrs) {
      body_ += fmt::format("<line x1=\"{:.1f}\" y1=\"{:.1f}\" x2=\"{:.1f}\" y2=\"{:.1f}\" {}/>\n", x1, y1, x2, y2,
                           attrs);
   }

   void Title() {
      size_t failed = 0, untouched = 0;
      for (const auto &h : f_.hosts) {
         failed += Failed(h);
         untouched += !Reached(h);
      }
      const std::string verdict = f_.stoppedAfterWave != 0 ? fmt::format("stopped after wave {}", f_.stoppedAfterWave)
                                  : untouched != 0         ? "incomplete"
                                                           : "every host upgraded";
      const char *colour = f_.stoppedAfterWave != 0 ? kRedBar : untouched != 0 ? "#f58518" : kGreen;
      body_ += fmt::format("<text x=\"12\" y=\"24\" font-size=\"16\" fill=\"{}\">{}"
                           "<tspan font-weight=\"bold\" fill=\"{}\">{}</tspan></text>\n",
                           kInkC, Xml(fmt::format("Fleet rollout {} \u2192 {}: ", f_.fromBuild, f_.toBuild)), colour,
                           Xml(verdict));
      Text(12, 44,
           fmt::format("{} hosts in {} wave(s); {} failed, {} not reached. Each host's longest port outage, as the "
                       "host measured it.",
                       f_.hosts.size(), f_.waves, failed, untouched),
           "fill=\"#555\"");
   }

   // A shaded band per wave, its number above; "not reached" over the rest.
   void Waves() {
      size_t i = 0;
      int shade = 0;
      while (i < f_.hosts.size()) {
         size_t j = i;
         while (j + 1 < f_.hosts.size() && f_.hosts[j + 1].wave == f_.hosts[i].wave) j++;
         const double x = X(i), w = X(j + 1) - X(i);
         const int wave = f_.hosts[i].wave;
         if (wave > 0) {
            Rect(x, kTop, w, kPlotH, fmt::format("fill=\"{}\"", shade++ % 2 ? "#eef1f5" : "#f7f8fa"));
            bool canary = true;
            for (size_t k = i; k <= j; k++) canary &= f_.hosts[k].canary;
            Text(x + w / 2, kTop - 8, fmt::format("wave {}", wave), "text-anchor=\"middle\" font-weight=\"bold\"");
            if (canary) Text(x + w / 2, kTop + 14, "canary", "text-anchor=\"middle\" font-size=\"11\" fill=\"#555\"");
         } else {
            Rect(x, kTop, w, kPlotH, "fill=\"#fafafa\" stroke=\"#ccc\" stroke-dasharray=\"4 3\"");
            Text(x + w / 2, kTop - 8, "not reached", "text-anchor=\"middle\" fill=\"#888\"");
         }
         Line(x, kTop - 4, x, kTop + kPlotH, "stroke=\"#bbb\"");
         i = j + 1;
      }
   }

   void Axis() {
      const double step = NiceStep(spanUS_ / unit_, 6) * unit_;
      for (double t = 0; t <= spanUS_ * 1.0000001; t += step) {
         const double y = Y(static_cast<uint64_t>(t));
         Line(kLeft, y, kLeft + PlotW(), y, "stroke=\"#000\" stroke-opacity=\"0.08\"");
         Text(kLeft - 6, y + 4, fmt::format("{:g} {}", std::round(t / unit_ * 1000) / 1000, unitName_),
              "text-anchor=\"end\" font-size=\"11\"");
      }
      Line(kLeft, kTop + kPlotH, kLeft + PlotW(), kTop + kPlotH, fmt::format("stroke=\"{}\"", kInkC));
      body_ += fmt::format("<text x=\"16\" y=\"{:.1f}\" transform=\"rotate(-90 16 {:.1f})\" text-anchor=\"middle\" "
                           "fill=\"#555\">port outage (host clock)</text>\n",
                           kTop + kPlotH / 2, kTop + kPlotH / 2);
      if (f_.gateMaxOutageSec >= 0) {
         const double bound = f_.gateMaxOutageSec * 1e6;
         if (bound <= spanUS_) {
            const double y = Y(static_cast<uint64_t>(bound));
            Line(kLeft, y, kLeft + PlotW(), y, "stroke=\"#222\" stroke-width=\"1.5\" stroke-dasharray=\"6 4\"");
            Text(kLeft + PlotW() - 4, y - 4, fmt::format("the fleet's bound, {:g} s", f_.gateMaxOutageSec),
                 "text-anchor=\"end\" font-size=\"11\"");
         } else {
            gateNote_ = fmt::format("The fleet's bound of {:g} s lies above every outage shown.", f_.gateMaxOutageSec);
         }
      }
   }

   void Bars() {
      const double w = std::min(SlotW() * 0.6, 48.0);
      for (size_t i = 0; i < f_.hosts.size(); i++) {
         const auto &h = f_.hosts[i];
         const double cx = X(i) + SlotW() / 2, x = cx - w / 2, base = kTop + kPlotH;
         // The host's name under its slot, turned when the slots are narrow.
         if (SlotW() >= 60) {
            Text(cx, base + 16, h.host, "text-anchor=\"middle\" font-size=\"11\"");
         } else {
            body_ += fmt::format("<text x=\"{0:.1f}\" y=\"{1:.1f}\" transform=\"rotate(-45 {0:.1f} {1:.1f})\" "
                                 "text-anchor=\"end\" font-size=\"11\">{2}</text>\n",
                                 cx + 4, base + 12, Xml(h.host));
         }
         if (!Reached(h)) {
            Rect(x, base - 14, w, 14, "fill=\"none\" stroke=\"#aaa\" stroke-dasharray=\"3 2\"",
                 fmt::format("{}: not reached, left on build {}", h.host, f_.fromBuild));
            continue;
         }
         const char *fill = Failed(h) ? kRedBar : kBlueBar;
         const double top = std::min(Y(h.maxUS), base - 2);
         Rect(x, top, w, base - top, fmt::format("fill=\"{}\"", fill),
              fmt::format("{} (wave {}): {}, {} ports, outage p50 {}, p99 {}, max {}{}", h.host, h.wave, h.outcome,
                          h.ports, Duration(h.p50US), Duration(h.p99US), Duration(h.maxUS),
                          h.firstFailure.empty() ? "" : "; " + h.firstFailure));
         Line(x - 3, Y(h.p50US), x + w + 3, Y(h.p50US), fmt::format("stroke=\"{}\" stroke-width=\"2\"", kInkC));
         body_ += fmt::format("<circle cx=\"{:.1f}\" cy=\"{:.1f}\" r=\"3.5\" fill=\"{}\" stroke=\"white\"/>\n", cx,
                              Y(h.p99US), kInkC);
         if (h.stillBlocked != 0) {
            // Its outage ran on into the recovery: the bar is a floor, not the whole.
            body_ += fmt::format("<polygon points=\"{:.1f},{:.1f} {:.1f},{:.1f} {:.1f},{:.1f}\" fill=\"{}\"><title>{}</title>"
                                 "</polygon>\n",
                                 x + w + 3, top + 8, x + w + 11, top + 8, x + w + 7, top, kInkC,
                                 Xml(fmt::format("{} port(s) still blocked when the upgrade ended", h.stillBlocked)));
         }
         if (Failed(h)) {
            const double s = std::min(w / 2, 9.0), y = top - s - 6;
            Line(cx - s, y - s, cx + s, y + s, fmt::format("stroke=\"{}\" stroke-width=\"3\"", kRedBar));
            Line(cx - s, y + s, cx + s, y - s, fmt::format("stroke=\"{}\" stroke-width=\"3\"", kRedBar));
            Text(cx, y - s - 4, "FAILED", fmt::format("text-anchor=\"middle\" font-size=\"11\" font-weight=\"bold\" "
                                                      "fill=\"{}\"", kRedBar));
         }
      }
      y_ = kTop + kPlotH + (SlotW() >= 60 ? 40 : 62);
   }

   // Each failed host named with its first failure, wrapped to the width.
   void Failures() {
      for (const auto &h : f_.hosts) {
         if (!Failed(h)) continue;
         std::string text = fmt::format("{} (wave {}){}: {}", h.host, h.wave,
                                        h.recovered ? (h.recoveryClean ? ", recovered clean" : ", NOT clean after recovery")
                                                    : "",
                                        h.firstFailure.empty() ? "failed" : h.firstFailure);
         Rect(12, y_ - 10, 12, 12, fmt::format("fill=\"{}\"", kRedBar));
         const size_t perLine = 150;
         for (size_t at = 0; at < text.size(); at += perLine) {
            Text(30, y_, text.substr(at, perLine), at == 0 ? fmt::format("fill=\"{}\"", kRedBar) : "");
            y_ += 15;
         }
         y_ += 4;
      }
   }

   void Legend() {
      y_ += 6;
      double x = 12;
      auto swatch = [&](const std::string &attrs, const std::string &text) {
         Rect(x, y_ - 10, 22, 10, attrs);
         Text(x + 28, y_, text, "font-size=\"11\"");
         x += 28 + 0.58 * 11 * static_cast<double>(text.size()) + 18;
      };
      swatch(fmt::format("fill=\"{}\"", kBlueBar), "passed: longest port outage");
      swatch(fmt::format("fill=\"{}\"", kRedBar), "failed (recovered by the role)");
      swatch("fill=\"none\" stroke=\"#aaa\" stroke-dasharray=\"3 2\"", "not reached: still on the old build");
      Line(x, y_ - 5, x + 22, y_ - 5, fmt::format("stroke=\"{}\" stroke-width=\"2\"", kInkC));
      Text(x + 28, y_, "p50", "font-size=\"11\"");
      x += 60;
      body_ += fmt::format("<circle cx=\"{:.1f}\" cy=\"{:.1f}\" r=\"3.5\" fill=\"{}\"/>\n", x + 11, y_ - 5, kInkC);
      Text(x + 28, y_, "p99", "font-size=\"11\"");
      y_ += 18;
      body_ += fmt::format("<polygon points=\"{:.1f},{:.1f} {:.1f},{:.1f} {:.1f},{:.1f}\" fill=\"{}\"/>\n", 19.0, y_,
                           27.0, y_, 23.0, y_ - 8, kInkC);
      Text(40, y_, "a port was still blocked when the upgrade ended: its outage ran on into the recovery",
           "font-size=\"11\"");
      if (!gateNote_.empty()) {
         y_ += 16;
         Text(12, y_, gateNote_, "font-size=\"11\" fill=\"#999\"");
      }
   }

   const FleetReport &f_;
   std::string body_, gateNote_;
   double spanUS_ = 1, unit_ = 1e3, y_ = 0;
   const char *unitName_ = "ms";
};

}  // namespace

std::string FleetReportSvg(const FleetReport &f) { return FleetChart(f).Svg(); }

}  // namespace lusctl
