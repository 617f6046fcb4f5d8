// chart.cpp -- the report's picture: an SVG of every port's outage against
// the budget.
#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tool.h"

namespace lusctl {

namespace {

double Seconds(uint64_t us) { return static_cast<double>(us) / 1e6; }

}  // namespace

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
