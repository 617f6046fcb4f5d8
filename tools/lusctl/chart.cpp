// chart.cpp -- the report's picture: an SVG timeline of the flow.  Time runs
// left to right from the flow's start; the steps are bands along the top; each
// port's blocked intervals are bars, one row per port, grouped by portset.
// Past kMaxRows ports a row per port would be a smear of sub-pixel rows and a
// file of megabytes, so each portset gets a density band instead: how many of
// its ports are blocked in each pixel column.  Ports over the budget and ports
// still blocked at the end have colours of their own and are named below the
// plot.  Built only from the report, like the tables and the trace.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <vector>

#include "tool.h"

namespace lusctl {

std::string Xml(const std::string &s) {
   std::string out;
   out.reserve(s.size());
   for (char c : s) {
      switch (c) {
         case '&': out += "&amp;"; break;
         case '<': out += "&lt;"; break;
         case '>': out += "&gt;"; break;
         case '"': out += "&quot;"; break;
         case '\'': out += "&apos;"; break;
         default: out += c;
      }
   }
   return out;
}

double NiceStep(double span, int ticks) {
   const double raw = span / ticks;
   const double p = std::pow(10.0, std::floor(std::log10(raw)));
   for (double m : {1.0, 2.0, 5.0}) {
      if (m * p >= raw) return m * p;
   }
   return 10 * p;
}

namespace {

constexpr size_t kMaxRows = 300;      // more ports than this: density bands
constexpr size_t kMaxNames = 10;      // names listed per kind of alarm
constexpr double kWidth = 1100, kLeft = 150, kRight = 30;
constexpr double kPlotW = kWidth - kLeft - kRight;
constexpr double kMinBarW = 3;        // a zero-length interval is still seen
constexpr double kStepLaneH = 24, kBandH = 54;

const char *const kBlue = "#4c78a8";     // blocked
const char *const kRed = "#d62728";      // beyond the budget; a failed step
const char *const kOrange = "#f58518";   // still blocked at the end
const char *const kInk = "#222";
const char *const kFaint = "#999";
// The budget's deadline: dark, to be seen over the red of the ports past it.
const char *const kBudgetLine = "stroke=\"#222\" stroke-width=\"1.5\" stroke-dasharray=\"6 4\"";

// The time axis: host microseconds from the flow's start to its end (or the
// last thing drawn), shown in the unit that suits the range.
struct TimeAxis {
   uint64_t t0 = 0, spanUS = 1;
   double unitUS = 1;
   const char *unit = "us";

   double X(uint64_t us) const {
      const double t = us <= t0 ? 0 : static_cast<double>(us - t0);
      return kLeft + std::min(t, static_cast<double>(spanUS)) / static_cast<double>(spanUS) * kPlotW;
   }
   std::string Label(double us) const {
      return fmt::format("{:g} {}", std::round(us / unitUS * 1000) / 1000, unit);
   }
   std::string Duration(uint64_t us) const {
      if (us >= 1000000) return fmt::format("{:.2f} s", us / 1e6);
      if (us >= 1000) return fmt::format("{:.2f} ms", us / 1e3);
      return fmt::format("{} us", us);
   }
};

// A portset's ports in the order they were made ("PORTSET#INDEX").
struct Group {
   std::string portset;
   std::vector<const PortRow *> ports;
};

long IndexOf(const PortRow &p) {
   const auto hash = p.name.rfind('#');
   if (hash == std::string::npos) return static_cast<long>(p.port);
   return std::strtol(p.name.c_str() + hash + 1, nullptr, 10);
}

// The flow's portsets first, in the order given, then any other portset lus blocked.
std::vector<Group> GroupPorts(const Report &r) {
   std::map<std::string, std::vector<const PortRow *>> by;
   for (const auto &p : r.ports) by[p.portset].push_back(&p);
   std::vector<Group> groups;
   auto take = [&](const std::string &name) {
      auto it = by.find(name);
      if (it == by.end()) return;
      std::sort(it->second.begin(), it->second.end(),
                [](const PortRow *a, const PortRow *b) { return IndexOf(*a) < IndexOf(*b); });
      groups.push_back({name, std::move(it->second)});
      by.erase(it);
   };
   for (const auto &ps : r.portsets) take(ps);
   while (!by.empty()) take(by.begin()->first);
   return groups;
}

uint64_t BudgetUS(const Report &r) { return uint64_t{r.budgetSec} * 1000000u; }

class Chart {
  public:
   explicit Chart(const Report &r) : r_(r), groups_(GroupPorts(r)) {
      for (const auto &g : groups_) ports_ += g.ports.size();
      rows_ = ports_ <= kMaxRows;
      rowH_ = rows_ ? std::clamp(560.0 / std::max<size_t>(ports_, 1), 2.0, 14.0) : 0;
      ScaleTime();
   }

   std::string Svg() {
      Title();
      y_ = 62;
      StepLane();
      plotTop_ = y_;
      rows_ ? Rows() : Bands();
      plotBottom_ = y_;
      Budgets();
      Axis();
      StepKey();
      Names();
      Legend();
      return fmt::format("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0:.0f}\" height=\"{1:.0f}\" "
                         "viewBox=\"0 0 {0:.0f} {1:.0f}\" font-family=\"sans-serif\" font-size=\"12\">\n"
                         "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n",
                         kWidth, y_ + 16) +
             body_ + "</svg>\n";
   }

  private:
   // ---- drawing primitives --------------------------------------------------------------
   // A rectangle; with a `title`, one a viewer shows on hovering.
   void Rect(double x, double y, double w, double h, const char *fill, const std::string &title = "",
             const std::string &attrs = "") {
      body_ += fmt::format("<rect x=\"{:.1f}\" y=\"{:.1f}\" width=\"{:.1f}\" height=\"{:.1f}\" fill=\"{}\"{}", x,
                           y, w, h, fill, attrs.empty() ? "" : " " + attrs);
      body_ += title.empty() ? "/>\n" : "><title>" + Xml(title) + "</title></rect>\n";
   }
   void Text(double x, double y, const std::string &text, const std::string &attrs = "") {
      body_ += fmt::format("<text x=\"{:.1f}\" y=\"{:.1f}\"{}>{}</text>\n", x, y,
                           attrs.empty() ? "" : " " + attrs, Xml(text));
   }
   void Line(double x1, double y1, double x2, double y2, const std::string &attrs) {
      body_ += fmt::format("<line x1=\"{:.1f}\" y1=\"{:.1f}\" x2=\"{:.1f}\" y2=\"{:.1f}\" {}/>\n",
                           x1, y1, x2, y2, attrs);
   }
   static double TextW(const std::string &s, double size = 12) { return 0.58 * size * s.size(); }

   // ---- scale ---------------------------------------------------------------------------------
   // From the flow's start to whatever ends last; the budget's deadline of a
   // portset joins the range when it is near enough to be seen beside the data.
   void ScaleTime() {
      t_.t0 = r_.result.startUS;
      uint64_t end = std::max(r_.result.endUS, t_.t0);
      uint64_t firstBlock = UINT64_MAX;
      for (const auto &s : r_.result.steps) end = std::max(end, s.endUS);
      for (const auto &p : r_.ports) {
         for (const auto &[from, to] : p.intervals) {
            end = std::max(end, to);
            firstBlock = std::min(firstBlock, std::max(from, t_.t0));
         }
      }
      uint64_t span = end - t_.t0;
      const uint64_t budget = BudgetUS(r_);
      if (budget != 0 && firstBlock != UINT64_MAX) {
         const uint64_t deadline = firstBlock - t_.t0 + budget;
         budgetShown_ = deadline <= 2 * std::max<uint64_t>(span, 1);
         if (budgetShown_) span = std::max(span, deadline + deadline / 20);
      }
      t_.spanUS = std::max<uint64_t>(span, 1000);
      if (t_.spanUS >= 2000000) {
         t_.unitUS = 1e6, t_.unit = "s";
      } else if (t_.spanUS >= 2000) {
         t_.unitUS = 1e3, t_.unit = "ms";
      }
   }

   // ---- title -------------------------------------------------------------------------------
   void Title() {
      const std::string verdict = Verdict(r_);
      const char *colour = verdict == "FAILED" ? kRed : verdict == "completed" ? "#2ca02c" : kOrange;
      const std::string what = r_.flow == "classic"   ? "Classic upgrade"
                               : r_.flow == "portset" ? "Per-portset upgrade"
                                                      : "Recovery";
      const std::string head = fmt::format("{} {} \u2192 {} of {}: ", what, r_.fromBuild, r_.toBuild, PortsetList());
      body_ += fmt::format("<text x=\"12\" y=\"24\" font-size=\"16\" fill=\"{}\">{}"
                           "<tspan font-weight=\"bold\" fill=\"{}\">{}</tspan></text>\n",
                           kInk, Xml(head), colour, Xml(verdict));
      const std::string budget = r_.budgetSec ? fmt::format("outage budget {} s", r_.budgetSec) : "no outage budget";
      Text(12, 44, fmt::format("{} ports, {}; the flow took {}. Time runs from the flow's start.", ports_,
                               budget, t_.Duration(r_.result.endUS - std::min(r_.result.endUS, r_.result.startUS))),
           "fill=\"#555\"");
   }

   // The flow's portsets, the first few of many.
   std::string PortsetList() const {
      const auto &ps = r_.portsets;
      if (ps.empty()) return "no portset";
      if (ps.size() <= 6) return fmt::format("{}", fmt::join(ps, ", "));
      return fmt::format("{}, \u2026 ({} portsets)", fmt::join(ps.begin(), ps.begin() + 4, ", "), ps.size());
   }

   // ---- the steps -------------------------------------------------------------------------
   // The flow numbers its failed step from 1.
   bool StepFailed(size_t i) const {
      return r_.result.steps[i].status != HYK_OK || static_cast<int>(i) + 1 == r_.result.failedStep;
   }

   // Each step a band over its time, numbered (and named where it fits).
   void StepLane() {
      Text(kLeft - 8, y_ + 16, "steps", "text-anchor=\"end\" fill=\"#555\"");
      double labelEnd = 0;   // where the last label drawn ends: labels never overlap
      for (size_t i = 0; i < r_.result.steps.size(); i++) StepBand(i, labelEnd);
      y_ += kStepLaneH + 8;
   }

   // A failed step is at least 4 px wide and always named: inside its band
   // if it fits, else beside it (right of it, or left where the plot ends).
   void StepBand(size_t i, double &labelEnd) {
      const auto &s = r_.result.steps[i];
      const bool failed = StepFailed(i);
      const double w = std::max(t_.X(s.endUS) - t_.X(s.startUS), failed ? 4.0 : 1.0);
      const double x = std::min(t_.X(s.startUS), kLeft + kPlotW - w);
      Rect(x, y_, w, kStepLaneH, failed ? kRed : (i % 2 ? "#c9d3df" : "#e3e8ee"), StepTitle(i));
      const std::string name = fmt::format("{} {}", i + 1, s.name), num = std::to_string(i + 1);
      const std::string ink = fmt::format("font-size=\"11\" fill=\"{}\"", failed ? "white" : kInk);
      double from = x + 3, width = TextW(name, 11);
      if (width + 6 <= w && from >= labelEnd) {
         Text(from, y_ + 16, name, ink);
      } else if (failed) {
         const std::string text = name + " (failed)";
         width = TextW(text, 11);
         from = x + w + width + 4 <= kLeft + kPlotW ? x + w + 4 : x - 4 - width;
         if (from < labelEnd) return;
         Text(from, y_ + 16, text, fmt::format("font-size=\"11\" font-weight=\"bold\" fill=\"{}\"", kRed));
      } else if ((width = TextW(num, 11)) + 2 <= w && (from = x + (w - width) / 2) >= labelEnd) {
         Text(from, y_ + 16, num, ink);
      } else {
         return;
      }
      labelEnd = from + width + 4;
   }

   std::string StepTitle(size_t i) const {
      const auto &s = r_.result.steps[i];
      return fmt::format("{} {}: {} from {}{}", i + 1, s.name, t_.Duration(s.endUS - std::min(s.endUS, s.startUS)),
                         t_.Label(static_cast<double>(s.startUS - std::min(s.startUS, t_.t0))),
                         StepFailed(i) ? ", failed: " + StatusText(s.status) : "");
   }

   // ---- one row per port ------------------------------------------------------------------
   void Rows() {
      for (const auto &g : groups_) {
         const double top = y_;
         GroupHeader(g);
         const double firstRow = y_;
         for (const PortRow *p : g.ports) Row(*p);
         if (rowH_ < 10) AlarmLabels(g, firstRow);
         groupSpans_.push_back({top, y_});
         y_ += 6;
      }
   }

   static int AlarmOf(const PortRow &p) { return p.blocked ? 2 : p.overBudget ? 1 : 0; }

   // Rows too thin for a name: each run of neighbouring ports over the budget
   // (or left blocked) is named at the plot's right edge, above the run, so
   // the bars and the names below the plot are tied together.
   void AlarmLabels(const Group &g, double firstRow) {
      for (size_t i = 0, j; i < g.ports.size() && alarmLabels_ < kMaxNames; i = j + 1) {
         const int kind = AlarmOf(*g.ports[i]);
         for (j = i; j + 1 < g.ports.size() && AlarmOf(*g.ports[j + 1]) == kind;) j++;
         if (kind == 0) continue;
         const std::string &a = g.ports[i]->name, &b = g.ports[j]->name;
         const std::string text = i == j       ? a
                                  : j == i + 1 ? a + ", " + b
                                               : fmt::format("{} \u2026 {} ({} ports)", a, b, j - i + 1);
         const double w = TextW(text, 11), x = kLeft + kPlotW - 4;
         const double y = i == 0 ? firstRow + (j + 1) * rowH_ + 12 : firstRow + i * rowH_ - 4;
         Rect(x - w - 4, y - 11, w + 8, 13, "white", "", "fill-opacity=\"0.85\"");
         Text(x, y, text, fmt::format("text-anchor=\"end\" font-size=\"11\" fill=\"{}\"", kind == 2 ? kOrange : kRed));
         alarmLabels_++;
      }
   }

   void GroupHeader(const Group &g) {
      Line(12, y_, kLeft + kPlotW, y_, "stroke=\"#bbb\"");
      Text(12, y_ + 14, g.portset, "font-weight=\"bold\"");
      Text(12, y_ + 28, fmt::format("{} ports", g.ports.size()), "fill=\"#555\" font-size=\"11\"");
      y_ += 3;
   }

   void Row(const PortRow &p) {
      const double h = std::max(rowH_ - (rowH_ >= 4 ? 1 : 0), 1.0);
      if (rowH_ >= 10) {
         Text(kLeft - 8, y_ + h - 1, p.name, "text-anchor=\"end\" font-size=\"10\" fill=\"#555\"");
      }
      for (const auto &[from, to] : p.intervals) Bar(p, from, to, h);
      if (p.blocked) {
         const double x = kLeft + kPlotW;
         body_ += fmt::format("<polygon points=\"{:.1f},{:.1f} {:.1f},{:.1f} {:.1f},{:.1f}\" fill=\"{}\"/>\n", x + 2,
                              y_, x + 2, y_ + h, x + 2 + std::min(h, 8.0), y_ + h / 2, kOrange);
      }
      y_ += rowH_;
   }

   // One blocked interval: blue up to the budget, red beyond it; orange when
   // the port is still blocked at the end.  At least kMinBarW wide.
   void Bar(const PortRow &p, uint64_t from, uint64_t to, double h) {
      const double x1 = t_.X(from), x2 = std::max(t_.X(to), x1 + kMinBarW);
      const std::string tip = fmt::format("{}: blocked {} from {}{}", p.name, t_.Duration(to - from),
                                          t_.Label(static_cast<double>(from - std::min(from, t_.t0))),
                                          p.blocked ? ", still blocked at the end" : "");
      Rect(x1, y_, x2 - x1, h, p.blocked ? kOrange : kBlue, tip);
      const uint64_t budget = BudgetUS(r_);
      if (budget != 0 && to - from > budget) {
         const double xb = t_.X(from + budget);
         Rect(xb, y_, std::max(x2 - xb, 1.0), h, kRed);
      }
   }

   // ---- a density band per portset ---------------------------------------------------------
   // Columns of the plot, one pixel each: a port counts in every column its
   // blocked intervals touch, so an interval of no length still shows.
   struct Columns {
      std::vector<int> blocked, beyond, left;
   };

   size_t Col(uint64_t us) const {
      const double x = t_.X(us) - kLeft;
      return std::min(static_cast<size_t>(std::max(x, 0.0)), static_cast<size_t>(kPlotW) - 1);
   }

   // Adds 1 to `diff` over the columns of [from, to], each column once per port.
   void Touch(std::vector<int> &diff, std::vector<std::pair<size_t, size_t>> spans) const {
      std::sort(spans.begin(), spans.end());
      size_t next = 0;   // first column not yet counted for this port
      for (auto [a, b] : spans) {
         a = std::max(a, next);
         if (a > b) continue;
         diff[a]++;
         diff[b + 1]--;
         next = b + 1;
      }
   }

   Columns Count(const Group &g) const {
      const size_t n = static_cast<size_t>(kPlotW);
      std::vector<int> blocked(n + 1), beyond(n + 1), left(n + 1);
      const uint64_t budget = BudgetUS(r_);
      for (const PortRow *p : g.ports) {
         std::vector<std::pair<size_t, size_t>> all, late;
         for (const auto &[from, to] : p->intervals) {
            const size_t a = Col(from), minEnd = std::min(a + static_cast<size_t>(kMinBarW) - 1, n - 1);
            all.push_back({a, std::max(Col(to), minEnd)});
            if (budget != 0 && to - from > budget) late.push_back({Col(from + budget), Col(to)});
         }
         Touch(blocked, all);
         Touch(beyond, late);
         if (p->blocked) Touch(left, all);
      }
      auto sum = [](std::vector<int> &v) {
         for (size_t i = 1; i < v.size(); i++) v[i] += v[i - 1];
         v.pop_back();
      };
      sum(blocked), sum(beyond), sum(left);
      return {blocked, beyond, left};
   }

   // The most of the portset's ports blocked at one instant.  Intervals are
   // [from, to): at one instant the ends of intervals come before the starts,
   // but a port blocked for no time at all counts at its instant.
   static int PeakBlocked(const Group &g) {
      enum Order { kEnd, kStart, kEmptyEnd };
      std::vector<std::pair<uint64_t, Order>> edges;
      for (const PortRow *p : g.ports) {
         for (const auto &[from, to] : p->intervals) {
            edges.push_back({from, kStart});
            edges.push_back({to, to == from ? kEmptyEnd : kEnd});
         }
      }
      std::sort(edges.begin(), edges.end());
      int now = 0, peak = 0;
      for (const auto &e : edges) peak = std::max(peak, now += e.second == kStart ? 1 : -1);
      return peak;
   }

   // A filled step outline of `counts` over the band, full height = `of` ports.
   void Area(const std::vector<int> &counts, size_t of, double top, const char *fill, double opacity) {
      std::string d = fmt::format("M{:.0f},{:.1f}", kLeft, top + kBandH);
      int last = -1;
      for (size_t i = 0; i < counts.size(); i++) {
         if (counts[i] == last) continue;
         const double y = top + kBandH - kBandH * counts[i] / static_cast<double>(std::max<size_t>(of, 1));
         d += fmt::format("H{:.0f}V{:.1f}", kLeft + i, y);
         last = counts[i];
      }
      d += fmt::format("H{:.0f}V{:.1f}Z", kLeft + kPlotW, top + kBandH);
      if (*std::max_element(counts.begin(), counts.end()) == 0) return;
      body_ += fmt::format("<path d=\"{}\" fill=\"{}\" fill-opacity=\"{}\"/>\n", d, fill, opacity);
   }

   void Bands() {
      for (const auto &g : groups_) {
         const double top = y_;
         const Columns c = Count(g);
         const int peak = PeakBlocked(g);
         Rect(kLeft, top, kPlotW, kBandH, "#f4f6f8");
         Area(c.blocked, g.ports.size(), top, kBlue, 0.85);
         Area(c.beyond, g.ports.size(), top, kRed, 0.9);
         Area(c.left, g.ports.size(), top, kOrange, 0.9);
         Line(kLeft, top, kLeft + kPlotW, top, "stroke=\"#bbb\" stroke-dasharray=\"2 3\"");
         Text(12, top + 14, g.portset, "font-weight=\"bold\"");
         Text(12, top + 29, fmt::format("{} ports", g.ports.size()), "fill=\"#555\" font-size=\"11\"");
         Text(12, top + 43, fmt::format("peak {} at once", peak), "fill=\"#555\" font-size=\"11\"");
         groupSpans_.push_back({top, top + kBandH});
         y_ += kBandH + 8;
      }
   }

   // ---- the budget ------------------------------------------------------------------------
   // A dashed line per portset, the budget after its first port was blocked:
   // a port whose bar runs past it was out longer than the budget (a port
   // blocked later has a later deadline, and its own red end).
   void Budgets() {
      const uint64_t budget = BudgetUS(r_);
      if (budget == 0) return;
      for (size_t i = 0; i < groups_.size(); i++) {
         uint64_t first = UINT64_MAX;
         for (const PortRow *p : groups_[i].ports) {
            for (const auto &iv : p->intervals) first = std::min(first, std::max(iv.first, t_.t0));
         }
         if (first == UINT64_MAX || first + budget - t_.t0 > t_.spanUS) continue;
         const double x = t_.X(first + budget);
         Line(x, groupSpans_[i].first, x, groupSpans_[i].second, kBudgetLine);
      }
   }

   // ---- the time axis ----------------------------------------------------------------------
   void Axis() {
      const double span = static_cast<double>(t_.spanUS);
      const double step = NiceStep(span, 8);
      y_ += 2;
      Line(kLeft, y_, kLeft + kPlotW, y_, fmt::format("stroke=\"{}\"", kInk));
      for (double t = 0; t <= span * 1.0000001; t += step) {
         const double x = kLeft + t / span * kPlotW;
         Line(x, plotTop_, x, plotBottom_, "stroke=\"#000\" stroke-opacity=\"0.08\"");
         Line(x, y_, x, y_ + 5, fmt::format("stroke=\"{}\"", kInk));
         Text(x, y_ + 18, t_.Label(t), "text-anchor=\"middle\"");
      }
      Text(kLeft + kPlotW / 2, y_ + 36, "time since the flow started (host clock)", "text-anchor=\"middle\" fill=\"#555\"");
      y_ += 52;
   }

   // ---- the steps by number, with their times ------------------------------------------------
   void StepKey() {
      const auto &steps = r_.result.steps;
      if (steps.empty()) return;
      Text(12, y_, "Steps", "font-weight=\"bold\"");
      const size_t perCol = (steps.size() + 2) / 3;
      for (size_t i = 0; i < steps.size(); i++) {
         const double x = 12 + static_cast<double>(i / perCol) * 360, y = y_ + 16 + static_cast<double>(i % perCol) * 15;
         const auto &s = steps[i];
         std::string text = fmt::format("{}. {} ({})", i + 1, s.name, t_.Duration(s.endUS - std::min(s.endUS, s.startUS)));
         if (StepFailed(i)) text += " FAILED: " + StatusText(s.status);
         if (text.size() > 58) text = text.substr(0, 57) + "\u2026";
         Text(x, y, text, fmt::format("font-size=\"11\" fill=\"{}\"", StepFailed(i) ? kRed : kInk));
      }
      y_ += 16 + static_cast<double>(perCol) * 15 + 10;
   }

   // ---- who is over the budget, who is left blocked -------------------------------------------
   void Names() {
      std::vector<const PortRow *> over, left;
      for (const auto &p : r_.ports) {
         if (p.overBudget) over.push_back(&p);
         if (p.blocked) left.push_back(&p);
      }
      std::stable_sort(over.begin(), over.end(), [](const PortRow *a, const PortRow *b) { return a->hostUS > b->hostUS; });
      NameList(over, fmt::format("Over the {} s budget", r_.budgetSec), kRed, true);
      NameList(left, "Still blocked at the end", kOrange, false);
   }

   void NameList(const std::vector<const PortRow *> &ports, const std::string &what, const char *colour,
                 bool withTime) {
      if (ports.empty()) return;
      std::vector<std::string> names;
      for (size_t i = 0; i < ports.size() && i < kMaxNames; i++) {
         names.push_back(withTime ? fmt::format("{} ({})", ports[i]->name, t_.Duration(ports[i]->hostUS)) : ports[i]->name);
      }
      if (ports.size() > kMaxNames) names.push_back(fmt::format("and {} more", ports.size() - kMaxNames));
      const std::string head = fmt::format("{} ({}):", what, ports.size());
      const auto lines = Wrap(names, kWidth - 30 - 12 - TextW(head) - 8, kWidth - 30 - 12);
      Rect(12, y_ - 10, 12, 12, colour);
      body_ += fmt::format("<text x=\"30\" y=\"{:.1f}\"><tspan font-weight=\"bold\" fill=\"{}\">{}</tspan> {}</text>\n",
                           y_, colour, Xml(head), Xml(lines[0]));
      for (size_t i = 1; i < lines.size(); i++) Text(30, y_ += 15, lines[i]);
      y_ += 20;
   }

   // `items` joined by ", " into lines of at most `first` pixels, then `rest`.
   static std::vector<std::string> Wrap(const std::vector<std::string> &items, double first, double rest) {
      std::vector<std::string> lines(1);
      for (size_t i = 0; i < items.size(); i++) {
         const std::string item = items[i] + (i + 1 < items.size() ? "," : "");
         const double room = lines.size() == 1 ? first : rest;
         if (!lines.back().empty() && TextW(lines.back() + " " + item) > room) lines.emplace_back();
         lines.back() += (lines.back().empty() ? "" : " ") + item;
      }
      return lines;
   }

   // ---- legend ------------------------------------------------------------------------------
   void Legend() {
      y_ += 4;
      double x = 12;
      auto swatch = [&](const char *fill, const std::string &text) {
         Rect(x, y_ - 10, 22, 10, fill);
         Text(x + 28, y_, text, "font-size=\"11\"");
         x += 28 + TextW(text, 11) + 18;
      };
      swatch(kBlue, rows_ ? "blocked" : "ports blocked (band height: all of the portset's ports)");
      if (r_.budgetSec) swatch(kRed, fmt::format("beyond the {} s budget", r_.budgetSec));
      swatch(kOrange, "still blocked at the end");
      if (r_.budgetSec && budgetShown_) {
         Line(x, y_ - 5, x + 22, y_ - 5, kBudgetLine);
         const std::string text = "budget after the portset's first block";
         Text(x + 28, y_, text, "font-size=\"11\"");
      }
      y_ += 16;
      Text(12, y_, fmt::format("Bars are at least {:g} px wide: a port blocked for less than a pixel's time shows as a tick.",
                               kMinBarW),
           fmt::format("font-size=\"11\" fill=\"{}\"", kFaint));
      if (r_.budgetSec && !budgetShown_) {
         y_ += 14;
         Text(12, y_, fmt::format("The {} s budget lies beyond the time shown.", r_.budgetSec),
              fmt::format("font-size=\"11\" fill=\"{}\"", kFaint));
      }
   }

   const Report &r_;
   std::vector<Group> groups_;
   size_t ports_ = 0;
   bool rows_ = true;
   bool budgetShown_ = false;   // the budget's deadline lies within the time shown
   double rowH_ = 0;
   TimeAxis t_;
   std::string body_;
   double y_ = 0, plotTop_ = 0, plotBottom_ = 0;
   std::vector<std::pair<double, double>> groupSpans_;   // each group's rows, top to bottom
   size_t alarmLabels_ = 0;
};

}  // namespace

std::string ChartSvg(const Report &r) { return Chart(r).Svg(); }

}  // namespace lusctl
