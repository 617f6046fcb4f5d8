// client_sweep.cpp -- the fault sweep over upgrades of the sample clients:
// a classic upgrade (2 portsets x 12 vNIC ports, tarnq-vswitch, -dfw and
// -stats) and a per-portset upgrade (a cswitch portset, a fast-datapath
// portset, a container port), each driven through the device by the tool's
// own flow on a fresh host per run.
//
// A first run of a scenario, without faults, records the host's fallible
// calls 1..N.  Then, per mode:
//   once        call k fails, for every k
//   from        every call of call k's operation from that one on fails,
//               with the status the real host returns for that operation
//   callbacks   each callback slot of each sample client fails once
// After every run, invariants are checked; a broken one is printed as one
// line naming it ("FINDING classic once k=17 hyk_HeapAllocWithRA#3: ...").
// The last line is the summary: runs, calls covered, findings.
//
// Every run is a forked child, so a host panic or a crash is a finding of
// that run, not the end of the sweep; a run that does not finish in 60 s is
// killed and is a finding too.
//
//   lus_client_sweep                         the full sweep (both scenarios, every mode)
//   lus_client_sweep --every 7 --offset 3    every 7th call from the 3rd (ctest's sample)
//   lus_client_sweep --repro 100             the same seed gives the same host-call trace
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include "hyksim/fabric.h"
#include "hyksim/host.h"
#include "hyksim/ledger.h"
#include "scenario.h"
#include "tool.h"

namespace {

constexpr int kRunLimitSec = 60;
const char *const kClients[] = {"tarnq-vswitch", "tarnq-dfw", "tarnq-stats"};

struct Scenario {
   std::string name;
   std::vector<std::string> setup;
   lusctl::FlowOptions flow;
};

Scenario Classic(int portsPerPortset = 12) {
   Scenario s;
   s.name = "classic";
   s.setup = {"load client tarnq-vswitch build=1000",
              "portset ps-a module=tarnq-vswitch-1000",
              "portset ps-b module=tarnq-vswitch-1000",
              fmt::format("ports ps-a {} vms={} external-id=a", portsPerPortset, (portsPerPortset + 1) / 2),
              fmt::format("ports ps-b {} vms={} external-id=b", portsPerPortset, (portsPerPortset + 1) / 2),
              "load client tarnq-dfw build=1000",
              "load client tarnq-stats build=1000"};
   s.flow.kind = lusctl::FlowOptions::kClassic;
   s.flow.portsets = {"ps-a", "ps-b"};
   return s;
}

Scenario Portset() {
   Scenario s;
   s.name = "portset";
   s.setup = {"load client tarnq-vswitch build=1000",
              "portset dvs-c class=cswitch module=tarnq-vswitch-1000",
              "portset dvs-e module=tarnq-vswitch-1000 fdp=yes",
              "ports dvs-c 6 vms=3 external-id=c",
              "ports dvs-e 6 vms=3 external-id=e",
              "ports dvs-e 1 type=container filter=cfilter",
              "load client tarnq-dfw build=1000",
              "load client tarnq-stats build=1000",
              "load client tarnq-stub-vswitch build=1000",
              "load client tarnq-fdp build=1000"};
   s.flow.kind = lusctl::FlowOptions::kPortset;
   s.flow.portsets = {"dvs-c", "dvs-e"};
   return s;
}

// Operations the sweep leaves alone: releases that the host fails only for
// an argument lus never gives them (an unknown module, a count already 0).
bool CannotFail(const std::string &op) { return op == "hyk_ModuleDecUseCount"; }

// Waits that lus repeats until they succeed, by design (the portset-upgrade
// command waits until its world is gone): failing every later call of one
// only makes the run wait for ever, so they fail once, never from k on.
bool RetriedForEver(const std::string &op) { return op == "hyk_WorldWaitForDeath"; }

// The status the real host returns when an operation of this kind fails.
hyk_Status RealFailure(const std::string &op) {
   auto has = [&](const char *w) { return op.find(w) != std::string::npos; };
   if (has("Alloc")) return HYK_NO_MEMORY;
   if (has("CopyFromUser") || has("CopyToUser")) return HYK_BAD_ADDRESS;
   if (has("Acquire") || has("Lookup") || has("Find") || has("Get")) return HYK_NOT_FOUND;
   if (has("Create") || has("Register") || has("Subscribe") || has("Post")) return HYK_NO_RESOURCES;
   return HYK_FAILURE;
}

// What one run does to the host.
struct Fault {
   std::string mode;            // "", "once", "from", "callbacks"
   std::string op;
   uint64_t nth = 0;            // the op's occurrence (once, from)
   size_t k = 0;                // the call's position in the first run's trace
   std::string client;          // callbacks: the client and its slot
   int slot = -1;
   std::string Label() const {
      if (mode.empty()) return "no fault";
      if (mode == "callbacks") return fmt::format("{} slot {}", client, slot);
      return fmt::format("k={} {}#{}", k, op, nth);
   }
};

// Old-build slots are set when the old module loads; new-build ones (the
// restores) when the new module is loaded ahead of the flow.
bool NewBuildSlot(int slot) { return slot == 3 || slot == 7 || slot == 10; }

// ---- one run, in the child ----------------------------------------------------------------------

class Child {
  public:
   Child(const Scenario &s, const Fault &f, uint64_t seed, int out) : s_(s), f_(f), seed_(seed), out_(out) {}

   void Run(bool wantTrace) {
      hyksim::HostStart();
      hyksimtool::ScenarioOptions so;
      so.moduleDir = LUS_MODULES_DIR;
      so.seed = seed_;
      std::ostringstream sink;
      hyksimtool::Interpreter interp(so, sink);
      for (std::string line : s_.setup) {
         if (f_.mode == "callbacks" && !NewBuildSlot(f_.slot) && line == "load client " + f_.client + " build=1000") {
            line += fmt::format(" failSlot={} failNth=1", f_.slot);
         }
         std::string why = interp.Execute(line);
         if (!why.empty()) return Say(fmt::format("SETUP {}: {}", line, why));
      }
      if (f_.mode == "callbacks" && NewBuildSlot(f_.slot)) {
         std::string why = interp.Execute(fmt::format("load client {} build=2000 seed={} failSlot={} failNth=1",
                                                      f_.client, seed_, f_.slot));
         if (!why.empty()) return Say("SETUP new build: " + why);
      }
      hyksim::TraceEnable(wantTrace);
      if (f_.mode == "once" || f_.mode == "from") {
         hyksim::FaultSpec fault;
         fault.op = f_.op;
         fault.status = RealFailure(f_.op);
         (f_.mode == "once" ? fault.nth : fault.from) = f_.nth;
         hyksim::InjectFault(fault);
      }
      auto host = lusctl::MakeSimHost(LUS_MODULES_DIR);
      lusctl::Environment env{host.get(), [] { return lusctl::MakeSimDevice(); }};
      lusctl::FlowOptions opts = s_.flow;
      opts.fromBuild = 1000;
      opts.toBuild = 2000;
      opts.takeoverThreads = 1;
      opts.moduleParams = {fmt::format("seed={}", seed_)};
      if (s_.name == "portset") opts.containerPorts = {Port("dvs-e", 12)};
      lusctl::FlowResult flow = lusctl::RunFlow(env, opts, nullptr);
      hyksim::TraceEnable(false);
      hyksim::ClearFaults();
      if (wantTrace) {
         for (const auto &op : hyksim::Trace()) Say("TRACE " + op);
      }
      lusctl::Report report = lusctl::BuildReport(env, opts, flow);
      CheckOutcome(flow);
      CheckPorts(flow, report);
      // lus still holds what it has not handed over until it unloads (its
      // clear then reports every buffer it drops), so the ledger is read last.
      CheckCleanUp();
      CheckLedger();
      Say(fmt::format("DONE {}", flow.ok ? "completed" : "failed"));
   }

  private:
   void Say(const std::string &line) {
      std::string l = line + "\n";
      if (write(out_, l.data(), l.size()) < 0) _exit(3);
   }
   void Finding(const std::string &invariant, const std::string &what) { Say("FINDING " + invariant + ": " + what); }

   hyk_PortID Port(const std::string &ps, size_t index) {
      std::vector<hyk_PortID> ids;
      for (const auto &p : hyksim::Ports(ps)) ids.push_back(p.id);
      std::sort(ids.begin(), ids.end());
      return index < ids.size() ? ids[index] : 0;
   }

   // The tool's command failed with a status a person can read, or the upgrade completed.
   void CheckOutcome(const lusctl::FlowResult &flow) {
      if (flow.ok) return;
      const auto &step = flow.steps.at(static_cast<size_t>(flow.failedStep - 1));
      const std::string text = lusctl::StatusText(step.status);
      if (step.status == HYK_OK || text.find("Unknown status") != std::string::npos) {
         Finding("readable-failure", fmt::format("step '{}' failed with {}", step.name, text));
      }
   }

   // Every port passes traffic, or the tool's report lists it as left blocked.
   void CheckPorts(const lusctl::FlowResult &flow, const lusctl::Report &report) {
      std::set<uint32_t> listed(report.left.portsBlocked.begin(), report.left.portsBlocked.end());
      for (const auto &p : hyksim::Ports()) {
         if (p.blocked.empty() || !p.blocked.back().open) continue;
         if (flow.ok) {
            Finding("port-passes", fmt::format("port {} of {} is blocked after a completed upgrade", p.id, p.portset));
         } else if (listed.count(p.id) == 0) {
            Finding("port-listed", fmt::format("port {} of {} is blocked and the report does not list it", p.id, p.portset));
         }
      }
   }

   // Every byte a client saved went to the new client, or lus reported it dropped.
   void CheckLedger() {
      std::map<std::pair<uint32_t, std::string>, uint64_t> dropped;
      for (const auto &line : hyksim::LogLines()) {
         unsigned port = 0;
         unsigned long bytes = 0;
         char client[64] = {};
         const auto at = line.text.find("Dropped saved state of port 0x");
         if (at == std::string::npos) continue;
         if (sscanf(line.text.c_str() + at, "Dropped saved state of port 0x%x client %63[^:]: %lu bytes", &port, client,
                    &bytes) == 3) {
            dropped[{port, client}] += bytes;
         }
      }
      for (const auto &c : hyksim::Ledger()) {
         for (const auto &[port, kinds] : c.ports) {
            const uint64_t saved = kinds[HYKSIM_LEDGER_SAVED], restored = kinds[HYKSIM_LEDGER_RESTORED];
            const uint64_t drop = dropped.count({port, c.client}) ? dropped[{port, c.client}] : 0;
            const std::string who = fmt::format("port {} client {}", port, c.client);
            if (kinds[HYKSIM_LEDGER_MISMATCHED] != 0) Finding("bytes-intact", who + ": restored bytes differ");
            if (restored > saved) Finding("restored-once", fmt::format("{}: {} bytes restored of {} saved", who, restored, saved));
            if (saved == 0) continue;
            if (restored != 0 && drop != 0) Finding("restored-or-dropped", who + ": restored and reported dropped");
            if (restored == 0 && drop == 0) Finding("no-silent-loss", fmt::format("{}: {} bytes saved, never restored, no drop report", who, saved));
            if (restored == 0 && drop != 0 && drop != saved) {
               Finding("drop-report", fmt::format("{}: {} bytes saved, {} reported dropped", who, saved, drop));
            }
         }
      }
   }

   // lus unloads; no client module stays pinned; nothing is left in a heap.
   void CheckCleanUp() {
      for (const auto &m : hyksim::Modules()) {
         if (m.name != "lus") continue;
         hyk_Status s = hyksim::UnloadModule("lus");
         if (s != HYK_OK) Finding("lus-unloads", fmt::format("lus refused to unload: {}", lusctl::StatusText(s)));
      }
      for (const auto &m : hyksim::Modules()) {
         if (m.useCount != 0) Finding("use-counts", fmt::format("{} still has use count {}", m.name, m.useCount));
      }
      for (const auto &m : hyksim::Modules()) hyksim::UnloadModule(m.name);
      for (const auto &leak : hyksim::LeakReports()) {
         Finding("heaps-empty", fmt::format("heap {} destroyed with {} bytes in {} allocations", leak.heap, leak.bytes,
                                            leak.allocations));
      }
   }

   const Scenario &s_;
   Fault f_;
   uint64_t seed_;
   int out_;
};

// ---- the parent: one fork per run ---------------------------------------------------------------

struct RunResult {
   std::vector<std::string> lines;
   std::string crash;   // how the child ended, when it did not end cleanly
};

RunResult Fork(const Scenario &s, const Fault &f, uint64_t seed, bool wantTrace) {
   int fds[2];
   if (pipe(fds) != 0) throw std::runtime_error("pipe");
   std::cout << std::flush;
   std::cerr << std::flush;
   pid_t pid = fork();
   if (pid == 0) {
      close(fds[0]);
      int devnull = open("/dev/null", O_WRONLY);
      if (devnull >= 0) dup2(devnull, 1);   // the host's own printing; panics still reach stderr
      Child(s, f, seed, fds[1]).Run(wantTrace);
      _exit(0);
   }
   close(fds[1]);
   RunResult r;
   std::string buf;
   const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kRunLimitSec);
   for (;;) {
      pollfd p{fds[0], POLLIN, 0};
      int left = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     deadline - std::chrono::steady_clock::now()).count());
      if (left <= 0) {
         kill(pid, SIGKILL);
         r.crash = fmt::format("did not finish within {} s", kRunLimitSec);
         break;
      }
      if (poll(&p, 1, left) <= 0) continue;
      char chunk[4096];
      ssize_t n = read(fds[0], chunk, sizeof chunk);
      if (n <= 0) break;
      buf.append(chunk, static_cast<size_t>(n));
   }
   close(fds[0]);
   int status = 0;
   waitpid(pid, &status, 0);
   if (r.crash.empty() && WIFSIGNALED(status)) r.crash = fmt::format("died of signal {} (a host panic aborts)", WTERMSIG(status));
   if (r.crash.empty() && WIFEXITED(status) && WEXITSTATUS(status) != 0) r.crash = fmt::format("exited {}", WEXITSTATUS(status));
   std::stringstream ss(buf);
   for (std::string line; std::getline(ss, line);) r.lines.push_back(line);
   if (r.crash.empty() && (r.lines.empty() || r.lines.back().rfind("DONE", 0) != 0)) r.crash = "ended without finishing its checks";
   return r;
}

std::vector<std::string> TraceOf(const RunResult &r) {
   std::vector<std::string> trace;
   for (const auto &l : r.lines) {
      if (l.rfind("TRACE ", 0) == 0) trace.push_back(l.substr(6));
   }
   return trace;
}

struct Totals {
   size_t runs = 0, calls = 0, findings = 0;
};

void Report(const Scenario &s, const Fault &f, const RunResult &r, Totals &t) {
   t.runs++;
   const std::string where = fmt::format("{} {} {}", s.name, f.mode.empty() ? "baseline" : f.mode, f.Label());
   for (const auto &l : r.lines) {
      if (l.rfind("FINDING ", 0) == 0 || l.rfind("SETUP ", 0) == 0) {
         t.findings++;
         std::cout << "FINDING " << where << ": " << l.substr(l.find(' ') + 1) << "\n";
      }
   }
   if (!r.crash.empty()) {
      t.findings++;
      std::cout << "FINDING " << where << ": no-panic: the run " << r.crash << "\n";
   }
}

// A smaller classic upgrade than the sweep's (2 x 3 ports, the same three
// clients): every host call of it is still made under the seed's state.
int Repro(int seeds) {
   const Scenario s = Classic(3);
   int differ = 0;
   std::set<std::vector<std::string>> distinct;
   for (int seed = 1; seed <= seeds; seed++) {
      Fault f;
      auto a = Fork(s, f, seed, true), b = Fork(s, f, seed, true);
      auto ta = TraceOf(a), tb = TraceOf(b);
      if (ta.empty() || ta != tb) {
         differ++;
         std::cout << fmt::format("seed {}: the traces differ ({} and {} calls)\n", seed, ta.size(), tb.size());
      }
      distinct.insert(ta);
   }
   std::cout << fmt::format("reproducibility: {} seeds, {} with differing traces, {} distinct traces\n", seeds,
                            differ, distinct.size());
   return differ == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
   CLI::App app{"lus_client_sweep: fails each host call and each client callback of the sample-client upgrades in turn"};
   std::vector<std::string> scenarios = {"classic", "portset"}, modes = {"once", "from", "callbacks"};
   size_t every = 1, offset = 1;
   uint64_t seed = 7;
   int repro = 0;
   app.add_option("--scenario", scenarios, "classic, portset (repeatable)")->check(CLI::IsMember({"classic", "portset"}));
   app.add_option("--mode", modes, "once, from, callbacks (repeatable)")->check(CLI::IsMember({"once", "from", "callbacks"}));
   app.add_option("--every", every, "sample: fail only every N-th call")->check(CLI::PositiveNumber);
   app.add_option("--offset", offset, "sample: starting with call K")->check(CLI::PositiveNumber);
   app.add_option("--seed", seed, "the client modules' seed")->capture_default_str();
   app.add_option("--repro", repro, "instead: check that N seeds each give the same host-call trace twice");
   CLI11_PARSE(app, argc, argv);
   if (repro > 0) return Repro(repro);

   std::cout << fmt::format("client sweep: seed {}, every {} call(s) from call {}\n", seed, every, offset);
   Totals t;
   for (const auto &name : scenarios) {
      const Scenario s = name == "classic" ? Classic() : Portset();
      RunResult base = Fork(s, Fault{}, seed, true);
      Report(s, Fault{}, base, t);
      const std::vector<std::string> trace = TraceOf(base);
      std::cerr << fmt::format("{}: {} fallible host calls\n", s.name, trace.size());
      std::map<std::string, uint64_t> seen;
      std::vector<Fault> runs;
      for (size_t k = 1; k <= trace.size(); k++) {
         uint64_t nth = ++seen[trace[k - 1]];
         if (CannotFail(trace[k - 1])) continue;
         if (k < offset || (k - offset) % every != 0) continue;
         t.calls++;
         for (const auto &mode : modes) {
            if (mode == "callbacks" || (mode == "from" && RetriedForEver(trace[k - 1]))) continue;
            runs.push_back({mode, trace[k - 1], nth, k, "", -1});
         }
      }
      if (std::find(modes.begin(), modes.end(), "callbacks") != modes.end()) {
         for (const char *client : kClients) {
            for (int slot = 0; slot < 12; slot++) runs.push_back({"callbacks", "", 0, 0, client, slot});
         }
      }
      size_t done = 0;
      for (const auto &f : runs) {
         Report(s, f, Fork(s, f, seed, false), t);
         if (++done % 50 == 0) std::cerr << fmt::format("{}: {}/{} runs\n", s.name, done, runs.size());
      }
   }
   std::cout << fmt::format("summary: {} runs, {} calls covered, {} findings\n", t.runs, t.calls, t.findings);
   return t.findings == 0 ? 0 : 1;
}
