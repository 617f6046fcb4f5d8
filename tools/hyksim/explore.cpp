// explore.cpp -- the schedule explorer (explore.h).
//
// The parent never starts a host: it forks one child per schedule, so every
// schedule starts from the same process image (the same seeds, the same
// addresses), a panic or a deadlock aborts only its child, and a child that
// stops making progress is ended by its own alarm.  A child writes what the
// scenario printed, then one result line, to a file of its own; the parent
// reads it when the child has ended.
#include "explore.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <vector>

#include "hyksim/host.h"
#include "hyksim/schedule.h"

namespace hyksimtool {
namespace {

constexpr const char *kResultTag = "@@schedule-result";

uint64_t SplitMix(uint64_t x) {
   x += 0x9e3779b97f4a7c15ull;
   x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
   x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
   return x ^ (x >> 31);
}

// The host log as one number: every line's time, component, level and text.
uint64_t LogHash() {
   uint64_t h = 1469598103934665603ull;
   auto mix = [&h](const std::string &s) {
      for (unsigned char ch : s) h = (h ^ ch) * 1099511628211ull;
      h = (h ^ 0xff) * 1099511628211ull;
   };
   for (const auto &line : hyksim::LogLines()) {
      mix(std::to_string(line.timeUS));
      mix(line.component);
      mix(std::to_string(line.level));
      mix(line.text);
   }
   return h;
}

// A fault in module or host code ends the schedule too: its decisions first.
void OnFault(int sig) {
   hyksim::ScheduleReportFailure(std::string("signal ") + std::to_string(sig) + " (" + strsignal(sig) + ")");
   signal(sig, SIG_DFL);
   raise(sig);
}

struct Outcome {
   bool passed = false;
   hyksim::ScheduleSummary summary;
   uint64_t logHash = 0;
};

// One schedule, in this process.
Outcome RunControlled(const std::string &file, uint64_t seed, uint32_t depth, uint64_t steps,
                      const RunScenario &run, std::ostream &out) {
   hyksim::ScheduleOptions o;
   o.seed = seed;
   o.pctDepth = depth;
   o.pctSteps = steps != 0 ? steps : o.pctSteps;
   for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) signal(sig, OnFault);
   hyksim::ScheduleBegin(o);
   Outcome r;
   r.passed = run(file, out);
   r.summary = hyksim::ScheduleEnd();
   r.logHash = LogHash();
   return r;
}

void PrintDecisions(std::ostream &out, const std::vector<std::string> &decisions) {
   out << fmt::format("  last {} scheduling decisions (oldest first):\n", decisions.size());
   for (const auto &d : decisions) out << "    " << d << "\n";
}

// In a child: the schedule's last decisions on a panic or a deadlock, before
// the process ends.
void OnScheduleFailure(const std::string &why) {
   std::ostringstream o;
   o << "schedule failed: " << why << "\n";
   PrintDecisions(o, hyksim::ScheduleSoFar().lastDecisions);
   const std::string text = o.str();
   fwrite(text.data(), 1, text.size(), stderr);
   fflush(stderr);
}

void OnAlarm(int) {
   hyksim::ScheduleReportFailure("no progress within the time limit: a hang");
   _exit(124);
}

// The parent's Ctrl-C or TERM: the children are ended and the scratch
// directory removed before the exploration says how far it got.
volatile sig_atomic_t gInterrupted = 0;
void OnInterrupt(int) { gInterrupted = 1; }

struct Child {
   pid_t pid = 0;
   uint64_t index = 0;
   uint64_t seed = 0;
   uint64_t pctSteps = 0;
   std::string outPath;
};

struct Result {
   uint64_t index = 0;
   uint64_t seed = 0;
   uint64_t pctSteps = 0;
   bool passed = false;
   std::string why;        // how it failed: the scenario's words, a signal, a hang
   std::string text;       // what the child printed
   uint64_t steps = 0, switches = 0, threads = 0, trace = 0, log = 0;
};

// Starts a child running schedule `c` (or a real-thread run when `controlled` is false).
pid_t Fork(const Child &c, bool controlled, uint32_t depth, unsigned timeLimit, const std::string &file,
           const RunScenario &run) {
   std::cout.flush();
   std::cerr.flush();
   const pid_t pid = fork();
   if (pid != 0) return pid;
   FILE *f = fopen(c.outPath.c_str(), "w");
   if (f == nullptr) _exit(125);
   dup2(fileno(f), STDOUT_FILENO);
   dup2(fileno(f), STDERR_FILENO);
   signal(SIGALRM, OnAlarm);
   alarm(timeLimit);
   std::ostringstream out;
   Outcome r;
   if (controlled) {
      hyksim::SetScheduleFailureHook(OnScheduleFailure);
      r = RunControlled(file, c.seed, depth, c.pctSteps, run, out);
   } else {
      r.passed = run(file, out);
   }
   std::cout << out.str();
   if (!r.passed && controlled) PrintDecisions(std::cout, r.summary.lastDecisions);
   std::cout << fmt::format("{} {} {} {} {} {} {}\n", kResultTag, r.passed ? 1 : 0, r.summary.steps,
                            r.summary.switches, r.summary.threads, r.summary.traceHash, r.logHash);
   std::cout.flush();
   _exit(r.passed ? 0 : 1);
}

Result Collect(const Child &c, int status) {
   Result r;
   r.index = c.index;
   r.seed = c.seed;
   r.pctSteps = c.pctSteps;
   std::ifstream in(c.outPath);
   std::string line;
   bool sawResult = false;
   while (std::getline(in, line)) {
      if (line.rfind(kResultTag, 0) == 0) {
         std::istringstream w(line.substr(std::char_traits<char>::length(kResultTag)));
         int passed = 0;
         w >> passed >> r.steps >> r.switches >> r.threads >> r.trace >> r.log;
         r.passed = passed == 1;
         sawResult = true;
         continue;
      }
      r.text += line + "\n";
   }
   std::remove(c.outPath.c_str());
   if (WIFSIGNALED(status)) {
      r.passed = false;
      r.why = fmt::format("the host died of signal {} ({})", WTERMSIG(status), strsignal(WTERMSIG(status)));
   } else if (WIFEXITED(status) && WEXITSTATUS(status) == 124) {
      r.passed = false;
      r.why = "a hang: no end within the time limit";
   } else if (!sawResult) {
      r.passed = false;
      r.why = fmt::format("the child ended (status {}) without a result", WIFEXITED(status) ? WEXITSTATUS(status) : -1);
   } else if (!r.passed) {
      r.why = "the scenario failed";
   }
   return r;
}

// Of a failing scenario's output, the line that says what failed.
std::string FailureLine(const std::string &text) {
   std::istringstream in(text);
   std::string line, found;
   while (std::getline(in, line)) {
      if (line.find("PANIC") != std::string::npos || line.find("schedule failed:") == 0) return line;
      if (line.rfind("== ", 0) != 0 && line.find(".hyk:") != std::string::npos) found = line;
   }
   return found;
}

}  // namespace

uint64_t ScheduleSeed(uint64_t first, uint64_t index) { return SplitMix(first * 0x100000001b3ull + index); }

int Explore(const std::string &file, const ExploreOptions &opts, const RunScenario &run, std::ostream &out) {
   const bool controlled = opts.stressRuns == 0;
   const uint64_t total = controlled ? opts.schedules : opts.stressRuns;
   const std::string what = controlled
                               ? (opts.pctDepth == 0 ? std::string("random walk")
                                                     : fmt::format("PCT, depth {}", opts.pctDepth))
                               : std::string("real threads, no control");
   out << fmt::format("== {}: {} {} ({}), {} at once\n", file, total, controlled ? "schedules" : "runs", what,
                      opts.jobs);
   out.flush();
   char dir[] = "/tmp/hyksim-explore-XXXXXX";
   if (mkdtemp(dir) == nullptr) {
      out << "hyksim: cannot make a scratch directory in /tmp\n";
      return 1;
   }
   const auto start = std::chrono::steady_clock::now();
   struct sigaction onStop = {};
   onStop.sa_handler = OnInterrupt;   // no SA_RESTART: waitpid returns to look at the flag
   struct sigaction oldInt = {}, oldTerm = {};
   sigaction(SIGINT, &onStop, &oldInt);
   sigaction(SIGTERM, &onStop, &oldTerm);
   std::map<pid_t, Child> running;
   std::vector<Result> failures;
   std::set<uint64_t> traces;
   uint64_t next = 0, done = 0, stepsSum = 0, stepsMax = 0, stepsMin = UINT64_MAX, learntSteps = opts.pctSteps;
   bool stop = false;
   uint64_t lastProgress = 0;
   // PCT draws its change points over a run's length.  Unless given, that
   // length is schedule 0's (which runs alone, over 10,000): then the same
   // seeds give the same schedules whatever order the children end in.
   const bool calibrate = controlled && opts.pctDepth != 0 && opts.pctSteps == 0;
   while ((!stop && next < total) || !running.empty()) {
      while (!stop && next < total && running.size() < (calibrate && done == 0 ? 1u : opts.jobs)) {
         Child c;
         c.index = next;
         c.seed = controlled ? ScheduleSeed(opts.firstSeed, next) : next;
         c.pctSteps = learntSteps != 0 ? learntSteps : 10000;
         c.outPath = fmt::format("{}/{}.out", dir, next);
         c.pid = Fork(c, controlled, opts.pctDepth, opts.timeLimitSec, file, run);
         if (c.pid < 0) {
            out << "hyksim: fork failed\n";
            stop = true;
            break;
         }
         running[c.pid] = c;
         next++;
      }
      if (running.empty()) break;
      int status = 0;
      const pid_t pid = waitpid(-1, &status, 0);
      if (gInterrupted) {
         for (const auto &[child, c] : running) kill(child, SIGKILL);
         for (const auto &[child, c] : running) {
            waitpid(child, nullptr, 0);
            std::remove(c.outPath.c_str());
         }
         running.clear();
         out << fmt::format("\ninterrupted after {} of {} {}\n", done, total, controlled ? "schedules" : "runs");
         stop = true;
         break;
      }
      if (pid < 0) break;
      auto it = running.find(pid);
      if (it == running.end()) continue;
      Result r = Collect(it->second, status);
      running.erase(it);
      done++;
      stepsSum += r.steps;
      stepsMax = std::max(stepsMax, r.steps);
      stepsMin = std::min(stepsMin, r.steps);
      traces.insert(r.trace);
      if (calibrate && r.index == 0) learntSteps = std::max<uint64_t>(r.steps, 1);
      if (opts.verbose) {
         out << fmt::format("  schedule {:>6}  seed {:#018x}  {}  {} steps, {} switches, {} threads, trace {:016x}, log {:016x}{}\n",
                            r.index, r.seed, r.passed ? "passed" : "FAILED", r.steps, r.switches, r.threads, r.trace, r.log,
                            opts.pctDepth == 0 ? std::string() : fmt::format(", pct steps {}", r.pctSteps));
      }
      if (!r.passed) {
         failures.push_back(r);
         out << fmt::format("\n{} {} FAILED after {} passing: {}\n", controlled ? "schedule" : "run", r.index,
                            done - failures.size(), r.why);
         const std::string line = FailureLine(r.text);
         if (!line.empty()) out << "  " << line << "\n";
         if (controlled) {
            out << fmt::format("  seed {:#x}; replay: hyksim run {} --schedule {:#x}{}{}\n", r.seed, file, r.seed,
                               opts.pctDepth == 0 ? std::string()
                                                  : fmt::format(" --pct-depth {} --pct-steps {}", opts.pctDepth, r.pctSteps),
                               opts.runOptions);
         }
         out << "  its output:\n";
         std::istringstream text(r.text);
         for (std::string l; std::getline(text, l);) out << "    " << l << "\n";
         if (!opts.keepGoing) stop = true;
      }
      if (done - lastProgress >= std::max<uint64_t>(total / 10, 1) && done < total && !stop) {
         const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
         out << fmt::format("  {:>7} of {} done, {} failed, {:.0f} per second\n", done, total, failures.size(), done / s);
         out.flush();
         lastProgress = done;
      }
   }
   rmdir(dir);
   sigaction(SIGINT, &oldInt, nullptr);
   sigaction(SIGTERM, &oldTerm, nullptr);
   const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
   out << fmt::format("== {}: {} of {} {} passed, {} failed, in {:.1f} s ({:.1f} per second)", file,
                      done - failures.size(), done, controlled ? "schedules" : "runs", failures.size(), secs,
                      done / std::max(secs, 1e-9));
   if (controlled && done != 0) {
      out << fmt::format("; steps per schedule {}..{} (mean {}), {} distinct host-call traces", stepsMin, stepsMax,
                         stepsSum / done, traces.size());
   }
   out << "\n";
   if (!failures.empty()) {
      const auto first = std::min_element(failures.begin(), failures.end(),
                                          [](const Result &a, const Result &b) { return a.index < b.index; });
      out << fmt::format("first failure: {} {} ({} run before it)\n", controlled ? "schedule" : "run",
                         first->index, first->index);
   }
   if (gInterrupted) return 130;
   return failures.empty() && done == total ? 0 : 1;
}

int ReplaySchedule(const std::string &file, uint64_t seed, uint32_t pctDepth, uint64_t pctSteps,
                   const RunScenario &run, std::ostream &out) {
   hyksim::SetScheduleFailureHook(OnScheduleFailure);
   std::ostringstream text;
   Outcome r = RunControlled(file, seed, pctDepth, pctSteps, run, text);
   out << text.str();
   out << fmt::format("schedule {:#x}{}: {}; {} steps, {} switches, {} threads, clock moved {} times; "
                      "trace {:016x}, log {:016x}\n",
                      seed, pctDepth == 0 ? std::string(" (random walk)") : fmt::format(" (PCT depth {}, {} steps)", pctDepth, pctSteps),
                      r.passed ? "passed" : "FAILED", r.summary.steps, r.summary.switches, r.summary.threads,
                      r.summary.clockMoves, r.summary.traceHash, r.logHash);
   out << "  where each thread waited:\n";
   for (const auto &w : r.summary.waits) out << "    " << w << "\n";
   if (!r.passed) PrintDecisions(out, r.summary.lastDecisions);
   return r.passed ? 0 : 1;
}

}  // namespace hyksimtool
