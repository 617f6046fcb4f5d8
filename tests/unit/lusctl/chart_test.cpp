// The report's chart, from reports built by hand: a port left blocked and a
// port over the budget are named; 16,384 ports make a density band per
// portset and a file of sane size; intervals of no length (the virtual clock)
// still show.  Every chart is well-formed XML and renders.
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>

#include "lusctl_fixture.h"

namespace lustest {
namespace {

constexpr uint64_t kSec = 1000000;

std::string Slurp(const std::string &path) {
   std::ifstream f(path);
   std::stringstream ss;
   ss << f.rdbuf();
   return ss.str();
}

size_t Count(const std::string &hay, const std::string &needle) {
   size_t n = 0;
   for (size_t at = hay.find(needle); at != std::string::npos; at = hay.find(needle, at + 1)) n++;
   return n;
}

class ChartTest : public ::testing::Test {
  protected:
   // A classic flow of 1000 -> 2000 with the tool's steps, from `startUS`.
   static lusctl::Report Flow(uint64_t startUS, uint64_t stepUS, uint32_t budgetSec) {
      lusctl::Report r;
      r.flow = "classic";
      r.fromBuild = 1000;
      r.toBuild = 2000;
      r.budgetSec = budgetSec;
      uint64_t t = startUS;
      for (const char *name : {"load lus", "register", "block", "save", "unload old build", "restore", "unload lus"}) {
         lusctl::StepRecord s;
         s.index = static_cast<int>(r.result.steps.size()) + 1;
         s.name = name;
         s.startUS = t;
         s.endUS = t += stepUS;
         r.result.steps.push_back(s);
      }
      r.result.startUS = startUS;
      r.result.endUS = t;
      return r;
   }

   // Adds `n` ports of `portset`, each blocked over the interval `span(i)` gives.
   template <typename Span>
   static void Ports(lusctl::Report &r, const std::string &portset, size_t n, Span span) {
      r.portsets.push_back(portset);
      for (size_t i = 0; i < n; i++) {
         lusctl::PortRow p;
         p.port = static_cast<uint32_t>(r.ports.size() + 1);
         p.portset = portset;
         p.name = fmt::format("{}#{}", portset, i);
         p.intervals.push_back(span(i));
         p.fromUS = p.intervals.back().first;
         p.hostUS = p.intervals.back().second - p.intervals.back().first;
         p.overBudget = r.budgetSec != 0 && p.hostUS > r.budgetSec * kSec;
         p.passes = true;
         p.everBlocked = p.upgraded = p.inUpgrade = true;
         r.ports.push_back(p);
      }
   }

   static lusctl::PortRow &Port(lusctl::Report &r, const std::string &name) {
      for (auto &p : r.ports) {
         if (p.name == name) return p;
      }
      throw std::runtime_error("no port " + name);
   }

   // The port is blocked again at `fromUS` and stays blocked to the flow's end.
   static void LeaveBlocked(lusctl::Report &r, lusctl::PortRow &p, uint64_t fromUS) {
      p.blocked = true;
      p.passes = p.upgraded = false;
      p.intervals.push_back({fromUS, r.result.endUS});
      p.fromUS = fromUS;
      p.hostUS = r.result.endUS - fromUS;
      p.overBudget = r.budgetSec != 0 && p.hostUS > r.budgetSec * kSec;
   }

   // The chart written out, checked by xmllint and rendered to PNG by rsvg-convert.
   std::string Render(const lusctl::Report &r, const std::string &name) {
      const std::string svg = lusctl::ChartSvg(r);
      const std::string base = fmt::format("{}/chart-test-{}-{}", ::testing::TempDir(), getpid(), name);
      {
         std::ofstream f(base + ".svg");
         f << svg;
      }
      EXPECT_EQ(std::system(fmt::format("xmllint --noout '{}.svg'", base).c_str()), 0) << name;
      EXPECT_EQ(std::system(fmt::format("rsvg-convert '{0}.svg' -o '{0}.png'", base).c_str()), 0) << name;
      const std::string png = Slurp(base + ".png");
      EXPECT_GE(png.size(), 8u);
      EXPECT_EQ(png.substr(1, 3), "PNG");
      std::remove((base + ".svg").c_str());
      std::remove((base + ".png").c_str());
      return svg;
   }

   // Widths of the bars whose hover text begins with `port`: "<name>: blocked ...".
   static std::vector<double> BarWidths(const std::string &svg, const std::string &port) {
      std::vector<double> out;
      const std::regex bar("width=\"([0-9.]+)\" height=\"[0-9.]+\" fill=\"[^\"]+\"><title>" + port + ": blocked");
      for (std::sregex_iterator it(svg.begin(), svg.end(), bar), end; it != end; ++it) {
         out.push_back(std::stod((*it)[1]));
      }
      return out;
   }
};

TEST_F(ChartTest, PortLeftBlockedAndPortOverTheBudgetAreNamed) {
   // Two portsets of 8 ports, blocked at 1 s and restored one by one; ps-b#6
   // is out 2.5 s against a budget of 2 s, ps-a#2 is blocked again at 2.5 s
   // and never let go.
   lusctl::Report r = Flow(0, kSec / 2, 2);
   auto restored = [](size_t i) { return std::make_pair(kSec, kSec + (i + 1) * kSec / 10); };
   Ports(r, "ps-a", 8, restored);
   Ports(r, "ps-b", 8, restored);
   lusctl::PortRow &slow = Port(r, "ps-b#6");
   slow.intervals.back().second = r.result.endUS;
   slow.hostUS = r.result.endUS - kSec;
   slow.overBudget = true;
   LeaveBlocked(r, Port(r, "ps-a#2"), 5 * kSec / 2);
   r.violations.push_back({"over-budget", "1 port(s) over the 2 s budget: ps-b#6"});
   r.violations.push_back({"blocked", "1 port(s) left blocked: ps-a#2"});

   const std::string svg = Render(r, "small");
   EXPECT_NE(svg.find("finished with violations"), std::string::npos);
   EXPECT_NE(svg.find("Over the 2 s budget (1):</tspan> ps-b#6 (2.50 s)"), std::string::npos) << svg;
   EXPECT_NE(svg.find("Still blocked at the end (1):</tspan> ps-a#2<"), std::string::npos) << svg;
   // A bar per blocked interval, each port on its own row, the portsets named.
   for (const auto &p : r.ports) EXPECT_EQ(BarWidths(svg, p.name).size(), p.intervals.size()) << p.name;
   EXPECT_NE(svg.find(">ps-a</text>"), std::string::npos);
   EXPECT_NE(svg.find(">ps-b</text>"), std::string::npos);
   EXPECT_NE(svg.find("ps-a#2: blocked 1.00 s from 2.5 s, still blocked at the end"), std::string::npos);
   // The step bands, numbered in order, and their key.
   for (const auto &s : r.result.steps) {
      EXPECT_NE(svg.find(fmt::format("<title>{} {}: 500.00 ms", s.index, s.name)), std::string::npos) << s.name;
   }
}

TEST_F(ChartTest, TextIsEscapedForXml) {
   lusctl::Report r = Flow(0, kSec, 2);
   Ports(r, "web<&>\"'", 3, [](size_t) { return std::make_pair(kSec, 2 * kSec); });
   LeaveBlocked(r, r.ports[1], 5 * kSec);
   const std::string svg = Render(r, "escaped");
   EXPECT_NE(svg.find("web&lt;&amp;&gt;&quot;&apos;#1"), std::string::npos);
   EXPECT_EQ(svg.find("web<"), std::string::npos);
}

TEST_F(ChartTest, FailedStepIsDrawnInRedAndTheVerdictSaysFailed) {
   lusctl::Report r = Flow(0, kSec, 2);
   r.result.ok = false;
   r.result.failedStep = 4;   // the flow numbers its steps from 1
   r.result.steps[3].status = HYK_NO_MEMORY;
   r.result.steps.resize(4);
   r.result.endUS = r.result.steps.back().endUS;
   Ports(r, "ps0", 4, [](size_t) { return std::make_pair(2 * kSec, 4 * kSec); });
   for (auto &p : r.ports) p.intervals.clear(), LeaveBlocked(r, p, 2 * kSec);
   const std::string svg = Render(r, "failed");
   EXPECT_NE(svg.find("font-weight=\"bold\" fill=\"#d62728\">FAILED</tspan>"), std::string::npos);
   EXPECT_NE(svg.find("fill=\"#d62728\"><title>4 save: 1.00 s from 3 s, failed: "), std::string::npos) << svg;
   EXPECT_NE(svg.find("Still blocked at the end (4):"), std::string::npos);
}

TEST_F(ChartTest, SixteenThousandPortsMakeADensityBandPerPortsetAndAFileOfSaneSize) {
   // Four portsets of 4,096 ports.  ps0..ps2 are blocked all at once at 1 s
   // and let go one by one, 400 us apart; of ps3 only the even ports are
   // blocked.  The last 50 ports of ps2 are blocked again at 3 s and stay
   // blocked; ps1's last 300 are over the budget.
   lusctl::Report r = Flow(0, kSec / 2, 2);
   for (int s = 0; s < 3; s++) {
      Ports(r, fmt::format("ps{}", s), 4096, [](size_t i) { return std::make_pair(kSec, kSec + (i + 1) * 400); });
   }
   Ports(r, "ps3", 4096, [](size_t i) {
      return i % 2 ? std::make_pair(uint64_t{0}, uint64_t{0}) : std::make_pair(kSec, kSec + (i + 1) * 400);
   });
   for (auto &p : r.ports) {
      if (p.portset == "ps3" && p.intervals.back().second == 0) p.intervals.clear(), p.hostUS = 0;
   }
   for (size_t i = 4096 - 300; i < 4096; i++) {
      auto &p = Port(r, fmt::format("ps1#{}", i));
      p.intervals.back().second += 2 * kSec;
      p.hostUS += 2 * kSec;
      p.overBudget = true;
   }
   for (size_t i = 4096 - 50; i < 4096; i++) LeaveBlocked(r, Port(r, fmt::format("ps2#{}", i)), 3 * kSec);
   ASSERT_EQ(r.ports.size(), 16384u);

   const std::string svg = Render(r, "16k");
   EXPECT_LT(svg.size(), 256u * 1024u);
   EXPECT_EQ(Count(svg, ": blocked "), 0u);    // no bar per port
   EXPECT_LT(Count(svg, "<rect"), 100u);
   EXPECT_EQ(Count(svg, "peak 4096 at once"), 3u);
   EXPECT_EQ(Count(svg, "peak 2048 at once"), 1u);
   EXPECT_NE(svg.find("Over the 2 s budget (300):"), std::string::npos);
   EXPECT_NE(svg.find("Still blocked at the end (50):"), std::string::npos);
   EXPECT_NE(svg.find("and 290 more"), std::string::npos);
   EXPECT_NE(svg.find("and 40 more"), std::string::npos);
   // Three layers of area: every portset blocked, ps1 past its budget, ps2 left blocked.
   EXPECT_EQ(Count(svg, "<path"), 6u);
}

TEST_F(ChartTest, IntervalsOfNoLengthStillShowOnTheVirtualClock) {
   // Every step and every outage took no time: the virtual clock with callbacks that cost nothing.
   lusctl::Report r = Flow(0, 0, 2);
   Ports(r, "ps0", 20, [](size_t) { return std::make_pair(uint64_t{0}, uint64_t{0}); });
   const std::string svg = Render(r, "zero");
   for (const auto &p : r.ports) {
      const auto widths = BarWidths(svg, p.name);
      ASSERT_EQ(widths.size(), 1u) << p.name;
      EXPECT_GE(widths[0], 2.0) << p.name;
   }
   EXPECT_NE(svg.find("completed"), std::string::npos);

   // Past the row limit too: the band counts them.
   lusctl::Report many = Flow(0, 0, 2);
   Ports(many, "ps0", 400, [](size_t) { return std::make_pair(uint64_t{0}, uint64_t{0}); });
   const std::string band = Render(many, "zero-band");
   EXPECT_NE(band.find("peak 400 at once"), std::string::npos);
   EXPECT_EQ(Count(band, "<path"), 1u);
}

// The band counts a port in every pixel its intervals touch, but the peak is
// of ports blocked at one instant: ports blocked in turn make a peak of 1.
TEST_F(ChartTest, DensityPeakCountsPortsBlockedAtTheSameInstant) {
   lusctl::Report r = Flow(0, kSec, 2);
   Ports(r, "turns", 500, [](size_t i) { return std::make_pair(kSec + i * 10, kSec + i * 10 + 10); });
   Ports(r, "overlap", 500, [](size_t i) { return std::make_pair(kSec + i * 10, kSec + i * 10 + 25); });
   const std::string svg = Render(r, "peak");
   EXPECT_NE(svg.find(">peak 1 at once<"), std::string::npos);
   EXPECT_NE(svg.find(">peak 3 at once<"), std::string::npos);
}

}  // namespace
}  // namespace lustest
