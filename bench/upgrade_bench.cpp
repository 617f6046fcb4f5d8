// upgrade_bench.cpp -- what an upgrade costs the ports, against what it
// must cost: a classic upgrade driven through the device "lus" (the tool's
// own flow) on N vNIC ports, C clients of S bytes of state per port, T host
// threads posting the restore events, compared with a copy floor measured
// in the same run (the same buffers allocated from heaps of the same kind,
// filled, copied out and freed, one thread).  Also the per-portset flow:
// the world's duration against N.
//
// Every point runs on a fresh host with the real monotonic clock.  A point
// counts only if every port passes traffic afterwards, every new client
// logged that it got every port's bytes intact, and lus's heaps are empty
// after its unload; otherwise the point is marked FAILED and the program
// exits 1.
//
//   build/default/bench/lus_upgrade_bench                  the default series
//   build/default/bench/lus_upgrade_bench --help
//
// To profile the blackout alone, let perf start disabled and have the
// program switch it on at the first block and off after the takeover:
//   mkfifo /tmp/ctl
//   perf record -D -1 --control fifo:/tmp/ctl -g -- build/default/bench/lus_upgrade_bench
//      --ports 16384 --perf-control /tmp/ctl
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

#include "hyk/hyk.h"
#include "hyksim/fabric.h"
#include "hyksim/host.h"
#include "scenario.h"
#include "tool.h"

namespace {

constexpr uint32_t kPortsPerPortset = 1024;

// The flow's steps that open and close the blackout (the first block, the
// last restore).
constexpr const char *kBlackoutFirstStep = "block";
constexpr const char *kBlackoutLastStep = "new datapath takes over";

// perf's control FIFO (--perf-control), or empty, and the one step to
// profile (--perf-step), or empty for the whole blackout.
std::string gPerfControl, gPerfStep;

// The upgrading host's log buffer (--log-buffer-mib): a host sized for
// thousands of ports has one that holds an upgrade's per-port lines.
uint64_t gLogBufferMiB = 32;

void PerfControl(const char *command) {
   if (gPerfControl.empty()) return;
   std::ofstream(gPerfControl) << command << "\n" << std::flush;
}

double CpuMs() {
   timespec ts{};
   clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
   return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

// Minor page faults of the whole process so far: the first touch of fresh
// memory, which is most of what the copy floor costs.
uint64_t PageFaults() {
   rusage u{};
   getrusage(RUSAGE_SELF, &u);
   return static_cast<uint64_t>(u.ru_minflt);
}

double WallMs() {
   timespec ts{};
   clock_gettime(CLOCK_MONOTONIC, &ts);
   return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

struct Point {
   std::string series;
   uint32_t ports = 1024, clients = 1, bytes = 4096, threads = 1;
   int logLevel = 3;
   bool portsetFlow = false;
   uint64_t Records() const { return uint64_t(ports) * (portsetFlow ? 1 : clients); }
};

struct Floor {
   double wallMs = 0, cpuMs = 0;
   uint64_t pageFaults = 0;
};

struct Result {
   Point p;
   bool ok = false;
   std::string why;              // what failed, when not ok
   double blackoutWallMs = 0;    // first block to last unblock, host clock
   double blackoutCpuMs = 0;     // process CPU over the blackout's steps
   std::map<std::string, double> stepWallMs, stepCpuMs;
   uint64_t blackoutPageFaults = 0;  // over the blackout's steps
   double outageP50Ms = 0, outageP99Ms = 0, outageMaxMs = 0;
   uint64_t logLines = 0;        // host log lines from the host's start to lus's unload
   int runs = 1;                 // of which this is the one of the median CPU ratio
   Floor floor;
   double ratioWall() const { return floor.wallMs > 0 ? blackoutWallMs / floor.wallMs : 0; }
   double ratioCpu() const { return floor.cpuMs > 0 ? blackoutCpuMs / floor.cpuMs : 0; }
   double usPerRecordCpu() const { return blackoutCpuMs * 1e3 / double(p.Records()); }
};

// ---- the copy floor ----------------------------------------------------------------------

// What moving the state costs at the least, with the buffers' lifetimes of
// an upgrade: every record saved into a buffer from a heap like lus's (filled
// as the old client fills it) and all of them held at once; then, record by
// record, a buffer from a heap like the client's, the copy out, and the saved
// buffer freed.  One thread.
Floor MeasureFloor(uint64_t records, uint32_t bytes) {
   hyk_HeapProps lusProps{"floor-lus", 0, 1000000, 3000000000u};
   hyk_HeapProps clientProps{"floor-client", 0, 65536, 0xffffffffu};
   hyk_HeapID lusHeap = 0, clientHeap = 0;
   if (hyk_HeapCreate(&lusProps, &lusHeap) != HYK_OK || hyk_HeapCreate(&clientProps, &clientHeap) != HYK_OK) {
      throw std::runtime_error("the floor's heaps cannot be created");
   }
   std::vector<uint8_t *> saved(records), own(records);
   const double w0 = WallMs(), c0 = CpuMs();
   const uint64_t f0 = PageFaults();
   for (uint64_t i = 0; i < records; i++) {
      saved[i] = static_cast<uint8_t *>(hyk_HeapAlloc(lusHeap, bytes));
      if (saved[i] == nullptr) throw std::runtime_error("the floor's heaps are full");
      memset(saved[i], static_cast<int>(i), bytes);
   }
   for (uint64_t i = 0; i < records; i++) {
      own[i] = static_cast<uint8_t *>(hyk_HeapAlloc(clientHeap, bytes + 16));
      if (own[i] == nullptr) throw std::runtime_error("the floor's heaps are full");
      memcpy(own[i] + 16, saved[i], bytes);
      hyk_HeapFree(lusHeap, saved[i]);
   }
   Floor f{WallMs() - w0, CpuMs() - c0, PageFaults() - f0};
   for (uint8_t *p : own) hyk_HeapFree(clientHeap, p);
   hyk_HeapDestroy(lusHeap);
   hyk_HeapDestroy(clientHeap);
   return f;
}

// ---- one point -----------------------------------------------------------------------------

double Percentile(std::vector<double> v, double q) {
   if (v.empty()) return 0;
   std::sort(v.begin(), v.end());
   size_t i = static_cast<size_t>(q * double(v.size() - 1) + 0.5);
   return v[std::min(i, v.size() - 1)];
}

class Run {
  public:
   Run(const Point &p, const std::string &moduleDir) : p_(p), dir_(moduleDir) {}

   // The upgrade and the floor each run in a process of their own, so that
   // neither finds memory the other (or an earlier point) left warm.
   Result Go() {
      Result r;
      r.p = p_;
      try {
         nlohmann::json up = nlohmann::json::parse(InChild([this] { return Upgrade().dump(); }));
         r.ok = up.at("ok");
         r.why = up.value("why", "");
         r.blackoutWallMs = up.at("blackoutWallMs");
         r.blackoutCpuMs = up.at("blackoutCpuMs");
         r.outageP50Ms = up.at("p50");
         r.outageP99Ms = up.at("p99");
         r.outageMaxMs = up.at("max");
         r.blackoutPageFaults = up.at("pageFaults");
         r.logLines = up.at("logLines");
         for (const auto &[k, v] : up.at("stepWallMs").items()) r.stepWallMs[k] = v;
         for (const auto &[k, v] : up.at("stepCpuMs").items()) r.stepCpuMs[k] = v;
         if (r.ok) {
            nlohmann::json fl = nlohmann::json::parse(InChild([this] {
               hyksim::HostStart({});
               Floor f = MeasureFloor(p_.Records(), p_.portsetFlow ? 64 : p_.bytes);
               hyksim::HostStop();
               return nlohmann::json{{"wallMs", f.wallMs}, {"cpuMs", f.cpuMs}, {"pageFaults", f.pageFaults}}.dump();
            }));
            r.floor = {fl.at("wallMs"), fl.at("cpuMs"), fl.at("pageFaults")};
         }
      } catch (const std::exception &e) {
         r.ok = false;
         r.why = e.what();
      }
      return r;
   }

  private:
   // Runs `fn` in a forked child and returns what it returned.
   template <class F>
   static std::string InChild(F fn) {
      int fds[2];
      if (pipe(fds) != 0) throw std::runtime_error("pipe failed");
      std::cout << std::flush;
      std::cerr << std::flush;
      pid_t pid = fork();
      if (pid < 0) throw std::runtime_error("fork failed");
      if (pid == 0) {
         close(fds[0]);
         std::string out;
         try {
            out = fn();
         } catch (const std::exception &e) {
            out = nlohmann::json{{"ok", false}, {"why", e.what()}}.dump();
         }
         for (size_t off = 0; off < out.size();) {
            ssize_t n = write(fds[1], out.data() + off, out.size() - off);
            if (n <= 0) _exit(3);
            off += static_cast<size_t>(n);
         }
         _exit(0);
      }
      close(fds[1]);
      std::string out;
      char buf[65536];
      for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) out.append(buf, static_cast<size_t>(n));
      close(fds[0]);
      int status = 0;
      waitpid(pid, &status, 0);
      if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || out.empty()) {
         throw std::runtime_error(fmt::format("the measuring process ended abnormally (status {})", status));
      }
      return out;
   }

   // One upgrade on a fresh host, as JSON.
   nlohmann::json Upgrade() {
      Result r;
      r.p = p_;
      hyksim::HostOptions o;
      o.virtualClock = false;
      o.logBufferBytes = gLogBufferMiB << 20;
      hyksim::HostStart(o);
      try {
         Setup();
         Measure(r);
         Verify(r);
      } catch (const std::exception &e) {
         r.ok = false;
         r.why = e.what();
      }
      interp_.reset();
      hyksim::HostStop();
      nlohmann::json j = {{"ok", r.ok},
                          {"why", r.why},
                          {"blackoutWallMs", r.blackoutWallMs},
                          {"blackoutCpuMs", r.blackoutCpuMs},
                          {"p50", r.outageP50Ms},
                          {"p99", r.outageP99Ms},
                          {"max", r.outageMaxMs},
                          {"pageFaults", r.blackoutPageFaults},
                          {"logLines", r.logLines},
                          {"stepWallMs", r.stepWallMs},
                          {"stepCpuMs", r.stepCpuMs}};
      return j;
   }

   void Line(const std::string &line) {
      std::string why = interp_->Execute(line);
      if (!why.empty()) throw std::runtime_error(line + ": " + why);
   }

   uint32_t Portsets() const { return (p_.ports + kPortsPerPortset - 1) / kPortsPerPortset; }
   std::string PortsetName(uint32_t i) const { return fmt::format("ps{}", i); }

   std::string HeapMB() const {
      uint64_t mb = (uint64_t(p_.ports) * (p_.bytes + 64) >> 20) + 64;
      return fmt::format("heapMaxMB={}", mb);
   }

   void Setup() {
      hyksimtool::ScenarioOptions so;
      so.moduleDir = dir_;
      interp_ = std::make_unique<hyksimtool::Interpreter>(so, sink_);
      if (p_.portsetFlow) {
         // The sample clients' modelled callback time off (the blob clients
         // have none): the figures are lus's and the host's work.
         Line("load client tarnq-vswitch build=1000 costUs=0 costNsPerByte=0");
         Line("load client tarnq-stats build=1000 costUs=0 costNsPerByte=0");
         Line("portset ps0 class=cswitch module=tarnq-vswitch-1000");
         Line(fmt::format("ports ps0 {} vms={}", p_.ports, std::max(1u, p_.ports / 2)));
         return;
      }
      for (uint32_t c = 1; c <= p_.clients; c++) {
         Line(fmt::format("load client tarnq-blob{} build=1000 blobBytes={} {}", c, p_.bytes, HeapMB()));
      }
      for (uint32_t i = 0; i < Portsets(); i++) {
         uint32_t n = std::min(kPortsPerPortset, p_.ports - i * kPortsPerPortset);
         Line(fmt::format("portset {} module=tarnq-blob1-1000", PortsetName(i)));
         Line(fmt::format("ports {} {} vms={} external-id=p{}", PortsetName(i), n, std::max(1u, n / 2), i));
      }
   }

   lusctl::FlowOptions Options() const {
      lusctl::FlowOptions f;
      f.kind = p_.portsetFlow ? lusctl::FlowOptions::kPortset : lusctl::FlowOptions::kClassic;
      f.fromBuild = 1000;
      f.toBuild = 2000;
      f.maxOutageSec = 600;
      f.takeoverThreads = p_.threads;
      f.moduleParams = {"seed=7", "costUs=0", "costNsPerByte=0"};
      if (!p_.portsetFlow) {
         f.moduleParams.push_back(fmt::format("blobBytes={}", p_.bytes));
         f.moduleParams.push_back(HeapMB());
      }
      f.lusParams = {fmt::format("lusLogLevel={}", p_.logLevel)};
      for (uint32_t i = 0; i < (p_.portsetFlow ? 1 : Portsets()); i++) f.portsets.push_back(PortsetName(i));
      return f;
   }

   void Measure(Result &r) {
      host_ = lusctl::MakeSimHost(dir_);
      env_.host = host_.get();
      env_.openDevice = [] { return lusctl::MakeSimDevice(); };
      std::map<std::string, std::pair<double, double>> started;
      uint64_t faultsAtBlock = 0;
      auto progress = [&](const lusctl::StepRecord &s, int, bool done) {
         const std::string key = fmt::format("{:02d} {}", s.index, s.name);
         if (!done) {
            if (s.name == (gPerfStep.empty() ? kBlackoutFirstStep : gPerfStep)) PerfControl("enable");
            started[key] = {WallMs(), CpuMs()};
            if (s.name == kBlackoutFirstStep) faultsAtBlock = PageFaults();
            return;
         }
         if (s.name == (gPerfStep.empty() ? kBlackoutLastStep : gPerfStep)) PerfControl("disable");
         r.stepWallMs[key] = WallMs() - started[key].first;
         r.stepCpuMs[key] = CpuMs() - started[key].second;
         if (s.name == kBlackoutLastStep) r.blackoutPageFaults = PageFaults() - faultsAtBlock;
      };
      lusctl::FlowResult flow = lusctl::RunFlow(env_, Options(), progress);
      if (!flow.ok) {
         const auto &s = flow.steps.at(static_cast<size_t>(flow.failedStep - 1));
         throw std::runtime_error(fmt::format("the upgrade failed at {}: {} ({})", s.name,
                                              lusctl::StatusText(s.status), s.detail));
      }
      if (p_.portsetFlow) {
         // The world holds the portset from its first step to its last: its
         // duration is the portset's blackout (no port is blocked one by one).
         for (const auto &[key, cpu] : r.stepCpuMs) {
            if (key.substr(3).rfind("ps-upgrade", 0) != 0) continue;
            r.blackoutCpuMs += cpu;
            r.blackoutWallMs += r.stepWallMs[key];
         }
         return;
      }
      // The blackout's CPU: every step from the first block to the last restore.
      bool in = false;
      for (const auto &[key, cpu] : r.stepCpuMs) {
         const std::string name = key.substr(3);
         if (name == kBlackoutFirstStep) in = true;
         if (in) r.blackoutCpuMs += cpu;
         if (name == kBlackoutLastStep) in = false;
      }
      Outages(r);
   }

   void Outages(Result &r) {
      uint64_t first = UINT64_MAX, last = 0;
      std::vector<double> outage;
      for (const auto &port : hyksim::Ports()) {
         if (port.desc.clientType != HYK_PORT_CLIENT_VNIC || port.blocked.empty()) continue;
         const auto &b = port.blocked.back();
         if (b.open) throw std::runtime_error(fmt::format("port {} is still blocked", port.id));
         first = std::min(first, b.fromUS);
         last = std::max(last, b.toUS);
         outage.push_back(double(b.toUS - b.fromUS) / 1e3);
      }
      if (outage.size() != p_.ports) {
         throw std::runtime_error(fmt::format("{} of {} ports were blocked", outage.size(), p_.ports));
      }
      r.blackoutWallMs = double(last - first) / 1e3;
      r.outageP50Ms = Percentile(outage, 0.50);
      r.outageP99Ms = Percentile(outage, 0.99);
      r.outageMaxMs = Percentile(outage, 1.0);
   }

   // Every new client got every port's bytes intact; lus's heaps end empty.
   void Verify(Result &r) {
      if (!p_.portsetFlow) {
         for (uint32_t c = 1; c <= p_.clients; c++) {
            const std::string name = fmt::format("tarnq-blob{}-2000", c);
            if (host_->UnloadModule(name) != HYK_OK) throw std::runtime_error("cannot unload " + name);
         }
         hyksim::FlushLog();
         for (uint32_t c = 1; c <= p_.clients; c++) {
            const std::string want = fmt::format("tarnq-blob{}-2000: restored {} ports, {} bytes, 0 differ",
                                                 c, p_.ports, uint64_t(p_.ports) * p_.bytes);
            if (!hyksim::LogContains(want)) throw std::runtime_error("missing in the log: \"" + want + "\"");
         }
      }
      std::map<std::string, uint64_t> lusHeaps;
      for (const auto &h : hyksim::Heaps()) {
         if (h.name.rfind("lus_heap_", 0) == 0 && h.name != "lus_heap_0") lusHeaps[h.name] = h.bytesInUse;
      }
      if (host_->UnloadModule("lus") != HYK_OK && !p_.portsetFlow) throw std::runtime_error("cannot unload lus");
      r.logLines = hyksim::LogLines().size();
      for (const auto &[name, inUse] : lusHeaps) {
         if (inUse != 0) throw std::runtime_error(fmt::format("{} holds {} bytes after the upgrade", name, inUse));
      }
      r.ok = true;
   }

   Point p_;
   std::string dir_;
   std::ostringstream sink_;
   std::unique_ptr<hyksimtool::Interpreter> interp_;
   std::unique_ptr<lusctl::Host> host_;
   lusctl::Environment env_;
};

// ---- the series, the table, the JSON and the chart ----------------------------------------------

std::vector<Point> DefaultSeries(const std::vector<uint32_t> &scale) {
   std::vector<Point> v;
   const uint32_t top = scale.back();
   for (uint32_t n : scale) v.push_back({"scale", n, 1, 4096, 1, 3, false});
   for (uint32_t n : scale) v.push_back({"scale-64k", n, 1, 65536, 1, 3, false});
   for (uint32_t s : {256u, 1024u, 16384u}) v.push_back({"bytes", 4096, 1, s, 1, 3, false});
   for (uint32_t c : {2u, 4u}) v.push_back({"clients", 4096, c, 4096, 1, 3, false});
   for (uint32_t t : {2u, 4u}) v.push_back({"threads", top, 1, 4096, t, 3, false});
   v.push_back({"log-level-1", top, 1, 4096, 1, 1, false});
   for (uint32_t n : scale) v.push_back({"portset", n, 2, 0, 1, 3, true});
   return v;
}

std::string Row(const Result &r) {
   if (!r.ok) {
      return fmt::format("{:<12} {:>6} {:>2} {:>6} {:>2} {:>2}  FAILED: {}", r.p.series, r.p.ports,
                         r.p.clients, r.p.bytes, r.p.threads, r.p.logLevel, r.why);
   }
   return fmt::format("{:<12} {:>6} {:>2} {:>6} {:>2} {:>2} {:>9.1f} {:>9.1f} {:>8.1f} {:>8.1f} {:>6.2f} {:>6.2f} {:>7.2f} "
                      "{:>8.2f} {:>8.2f} {:>8.2f}",
                      r.p.series, r.p.ports, r.p.portsetFlow ? 0 : r.p.clients, r.p.bytes, r.p.threads,
                      r.p.logLevel, r.blackoutWallMs, r.blackoutCpuMs, r.floor.wallMs, r.floor.cpuMs,
                      r.ratioWall(), r.ratioCpu(), r.usPerRecordCpu(), r.outageP50Ms, r.outageP99Ms,
                      r.outageMaxMs);
}

const char *kHeader =
   "series        ports  C  bytes  T lv  blackout  blackout    floor    floor  ratio  ratio  us/rec   outage   outage   outage\n"
   "                                       wall ms    CPU ms  wall ms   CPU ms   wall    CPU     CPU  p50 ms   p99 ms   max ms";

nlohmann::json Json(const Result &r) {
   nlohmann::json j = {{"series", r.p.series},     {"flow", r.p.portsetFlow ? "portset" : "classic"},
                       {"ports", r.p.ports},       {"clients", r.p.portsetFlow ? 0 : r.p.clients},
                       {"bytes", r.p.bytes},       {"threads", r.p.threads},
                       {"records", r.p.Records()}, {"logLevel", r.p.logLevel},
                       {"ok", r.ok}};
   if (!r.ok) {
      j["error"] = r.why;
      return j;
   }
   j["blackoutWallMs"] = r.blackoutWallMs;
   j["blackoutCpuMs"] = r.blackoutCpuMs;
   j["floorWallMs"] = r.floor.wallMs;
   j["floorCpuMs"] = r.floor.cpuMs;
   j["logLines"] = r.logLines;
   j["logBufferMiB"] = gLogBufferMiB;
   j["blackoutPageFaults"] = r.blackoutPageFaults;
   j["floorPageFaults"] = r.floor.pageFaults;
   j["runs"] = r.runs;
   j["ratioWall"] = r.ratioWall();
   j["ratioCpu"] = r.ratioCpu();
   j["usPerRecordCpu"] = r.usPerRecordCpu();
   j["outageMs"] = {{"p50", r.outageP50Ms}, {"p99", r.outageP99Ms}, {"max", r.outageMaxMs}};
   nlohmann::json steps = nlohmann::json::array();
   for (const auto &[key, wall] : r.stepWallMs) {
      steps.push_back({{"step", key.substr(3)}, {"wallMs", wall}, {"cpuMs", r.stepCpuMs.at(key)}});
   }
   j["steps"] = steps;
   return j;
}

// Blackout (CPU) and floor (CPU) against the number of ports, log-log, one
// line per series of the classic upgrade at one client.
std::string Chart(const std::vector<Result> &results) {
   struct Line {
      std::string label, color;
      bool dashed;
      std::vector<std::pair<double, double>> pts;
   };
   std::vector<Line> lines = {{"blackout, 4 KiB/port", "#c0392b", false, {}},
                              {"copy floor, 4 KiB/port", "#c0392b", true, {}},
                              {"blackout, 64 KiB/port", "#2471a3", false, {}},
                              {"copy floor, 64 KiB/port", "#2471a3", true, {}},
                              {"per-portset world (wall)", "#7d3c98", false, {}}};
   for (const auto &r : results) {
      if (!r.ok) continue;
      if (r.p.series == "scale" || r.p.series == "scale-64k") {
         size_t i = r.p.series == "scale" ? 0 : 2;
         lines[i].pts.push_back({r.p.ports, r.blackoutCpuMs});
         lines[i + 1].pts.push_back({r.p.ports, r.floor.cpuMs});
      } else if (r.p.series == "portset") {
         lines[4].pts.push_back({r.p.ports, r.blackoutWallMs});
      }
   }
   double xmin = 1e18, xmax = 0, ymin = 1e18, ymax = 0;
   for (const auto &l : lines) {
      for (auto [x, y] : l.pts) {
         xmin = std::min(xmin, x), xmax = std::max(xmax, x);
         ymin = std::min(ymin, std::max(y, 0.01)), ymax = std::max(ymax, y);
      }
   }
   if (xmax == 0) return "";
   const double lx0 = std::log10(xmin) - 0.08, lx1 = std::log10(xmax) + 0.08;
   const double ly0 = std::floor(std::log10(ymin)), ly1 = std::ceil(std::log10(ymax) + 1e-9);
   const double W = 760, H = 440, L = 80, R = 230, T = 50, B = 60;
   auto X = [&](double x) { return L + (std::log10(x) - lx0) / (lx1 - lx0) * (W - L - R); };
   auto Y = [&](double y) { return H - B - (std::log10(std::max(y, 0.01)) - ly0) / std::max(ly1 - ly0, 1.0) * (H - T - B); };
   std::ostringstream o;
   o << fmt::format(R"(<svg xmlns="http://www.w3.org/2000/svg" width="{}" height="{}" font-family="sans-serif" font-size="12">)", W, H) << "\n";
   o << fmt::format(R"(<rect width="{}" height="{}" fill="white"/>)", W, H) << "\n";
   o << fmt::format(R"(<text x="{}" y="24" font-size="15" font-weight="bold">Upgrade blackout against the copy floor (CPU time, log-log)</text>)", L) << "\n";
   for (double e = ly0; e <= ly1; e++) {
      double y = Y(std::pow(10, e));
      o << fmt::format(R"(<line x1="{}" y1="{:.1f}" x2="{}" y2="{:.1f}" stroke="#ddd"/>)", L, y, W - R, y) << "\n";
      o << fmt::format(R"(<text x="{}" y="{:.1f}" text-anchor="end">{:g} ms</text>)", L - 6, y + 4, std::pow(10, e)) << "\n";
   }
   std::vector<double> xs;
   for (const auto &l : lines) for (auto [x, y] : l.pts) xs.push_back(x);
   std::sort(xs.begin(), xs.end());
   xs.erase(std::unique(xs.begin(), xs.end()), xs.end());
   for (double x : xs) {
      o << fmt::format(R"(<line x1="{:.1f}" y1="{}" x2="{:.1f}" y2="{}" stroke="#eee"/>)", X(x), T, X(x), H - B) << "\n";
      o << fmt::format(R"(<text x="{:.1f}" y="{}" text-anchor="middle">{:g}</text>)", X(x), H - B + 18, x) << "\n";
   }
   o << fmt::format(R"(<text x="{}" y="{}" text-anchor="middle">vNIC ports (one record per port and client)</text>)", (L + W - R) / 2, H - 18) << "\n";
   o << fmt::format(R"(<rect x="{}" y="{}" width="{}" height="{}" fill="none" stroke="#555"/>)", L, T, W - L - R, H - T - B) << "\n";
   int legend = 0;
   for (const auto &l : lines) {
      if (l.pts.empty()) continue;
      std::string path;
      for (auto [x, y] : l.pts) path += fmt::format("{}{:.1f},{:.1f} ", path.empty() ? "M" : "L", X(x), Y(y));
      const char *dash = l.dashed ? R"( stroke-dasharray="6,4")" : "";
      o << fmt::format(R"(<path d="{}" fill="none" stroke="{}" stroke-width="2"{}/>)", path, l.color, dash) << "\n";
      for (auto [x, y] : l.pts) {
         o << fmt::format(R"(<circle cx="{:.1f}" cy="{:.1f}" r="3" fill="{}"><title>{}: {:g} ports, {:.1f} ms</title></circle>)", X(x), Y(y), l.color, l.label, x, y) << "\n";
      }
      double ly = T + 10 + 22 * legend++;
      o << fmt::format(R"(<line x1="{}" y1="{:.1f}" x2="{}" y2="{:.1f}" stroke="{}" stroke-width="2"{}/>)", W - R + 14, ly, W - R + 44, ly, l.color, dash) << "\n";
      o << fmt::format(R"(<text x="{}" y="{:.1f}">{}</text>)", W - R + 50, ly + 4, l.label) << "\n";
   }
   o << "</svg>\n";
   return o.str();
}

// Runs a point `repeat` times and keeps the run of the median CPU ratio
// (a failed run is kept at once: it is what must be seen).
Result Median(const Point &p, const std::string &moduleDir, int repeat) {
   std::vector<Result> runs;
   for (int i = 0; i < repeat; i++) {
      runs.push_back(Run(p, moduleDir).Go());
      if (!runs.back().ok) return runs.back();
   }
   std::sort(runs.begin(), runs.end(), [](const Result &a, const Result &b) { return a.ratioCpu() < b.ratioCpu(); });
   Result r = runs[runs.size() / 2];
   r.runs = repeat;
   return r;
}

std::vector<uint32_t> ParseList(const std::string &text) {
   std::vector<uint32_t> v;
   std::stringstream ss(text);
   std::string item;
   while (std::getline(ss, item, ',')) v.push_back(static_cast<uint32_t>(std::stoul(item)));
   return v;
}

}  // namespace

int main(int argc, char **argv) {
   CLI::App app{"lus_upgrade_bench: the blackout of an upgrade against a copy floor measured in the same run"};
   std::string moduleDir = LUS_BENCH_MODULE_DIR, json, svg, only;
   std::string scale = "1024,4096,16384";
   Point custom_;
   std::string ports, clients, bytes, threads;
   app.add_option("--module-dir", moduleDir, "where lus and the client modules are")->capture_default_str();
   app.add_option("--scale", scale, "port counts of the scale series (comma-separated)")->capture_default_str();
   app.add_option("--series", only, "run only this series: scale, scale-64k, bytes, clients, threads, log-level-1, portset");
   app.add_option("--json", json, "write every point as JSON to FILE");
   app.add_option("--svg", svg, "write the chart of blackout and floor against ports to FILE");
   auto *c = app.add_option("--ports", ports, "one custom point instead of the series: ports (comma list ok)");
   app.add_option("--clients", clients, "custom point: clients, 1-4 (comma list ok)")->needs(c);
   app.add_option("--bytes", bytes, "custom point: bytes per port and client (comma list ok)")->needs(c);
   app.add_option("--threads", threads, "custom point: event threads, 1-4 (comma list ok)")->needs(c);
   app.add_option("--log-level", custom_.logLevel, "custom point: lus's log level")->needs(c);
   int repeat = 1;
   app.add_option("--repeat", repeat, "run every point N times and keep the run of the median CPU ratio")
       ->capture_default_str()->check(CLI::Range(1, 99));
   app.add_option("--log-buffer-mib", gLogBufferMiB,
                  "the host's log buffer, made ready when it starts (0: taken as lines come)")
       ->capture_default_str()->check(CLI::Range(0, 4096));
   app.add_option("--perf-control", gPerfControl,
                  "perf's control FIFO: profile only from the first block to the takeover's end");
   app.add_option("--perf-step", gPerfStep, "with --perf-control: profile only this step of the flow (e.g. save)");
   CLI11_PARSE(app, argc, argv);

   std::vector<Point> points;
   try {
      if (!ports.empty()) {
         for (uint32_t n : ParseList(ports))
            for (uint32_t cl : ParseList(clients.empty() ? "1" : clients))
               for (uint32_t b : ParseList(bytes.empty() ? "4096" : bytes))
                  for (uint32_t t : ParseList(threads.empty() ? "1" : threads)) {
                     if (cl < 1 || cl > 4 || t < 1 || t > 4 || n == 0) throw std::invalid_argument("clients and threads are 1-4, ports at least 1");
                     points.push_back({"custom", n, cl, b, t, custom_.logLevel, false});
                  }
      } else {
         for (const auto &p : DefaultSeries(ParseList(scale))) {
            if (only.empty() || p.series == only) points.push_back(p);
         }
      }
   } catch (const std::exception &e) {
      std::cerr << "lus_upgrade_bench: bad list: " << e.what() << "\nRun with --help for more information.\n";
      return 2;
   }
   if (points.empty()) {
      std::cerr << "lus_upgrade_bench: no such series '" << only << "'\nRun with --help for more information.\n";
      return 2;
   }

   std::cout << kHeader << "\n" << std::flush;
   std::vector<Result> results;
   bool allOk = true;
   for (size_t i = 0; i < points.size(); i++) {
      std::cerr << fmt::format("[{}/{}] {} ports={} clients={} bytes={} threads={} level={}\n", i + 1, points.size(),
                               points[i].series, points[i].ports, points[i].clients, points[i].bytes,
                               points[i].threads, points[i].logLevel);
      results.push_back(Median(points[i], moduleDir, repeat));
      allOk &= results.back().ok;
      std::cout << Row(results.back()) << "\n" << std::flush;
   }
   if (!json.empty()) {
      nlohmann::json all = nlohmann::json::array();
      for (const auto &r : results) all.push_back(Json(r));
      std::ofstream(json) << all.dump(2) << "\n";
   }
   if (!svg.empty()) std::ofstream(svg) << Chart(results);
   return allOk ? 0 : 1;
}
