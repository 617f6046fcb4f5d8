// explore.h -- the schedule explorer of the host program: a scenario run
// under many controlled schedules, each in a child process of its own (a
// panic, a deadlock or a hang ends that child, not the exploration), and
// the replay of one schedule from its seed.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>

#include "scenario.h"

namespace hyksimtool {

struct ExploreOptions {
   uint64_t schedules = 0;        // schedules to explore (0: none)
   uint64_t firstSeed = 1;        // --schedule-seed: schedule i runs with a seed derived from it and i
   uint32_t pctDepth = 0;         // 0: random walk
   uint64_t pctSteps = 0;         // 0: learnt from the schedules run so far
   uint64_t stressRuns = 0;       // --stress: runs on real threads instead
   unsigned jobs = 1;             // children at once
   unsigned timeLimitSec = 60;    // a child that runs longer is taken as hung
   bool keepGoing = false;        // go on after a failing schedule
   bool verbose = false;          // a line per schedule
   // The program's options that shape a run (--seed, --module-dir, ...),
   // as words to repeat in the replay command a failing schedule prints.
   std::string runOptions;
};

// What the host program runs for one schedule (or one real-thread run) in
// the child: start the host, run the file, stop the host.  True: passed.
using RunScenario = std::function<bool(const std::string &file, std::ostream &out)>;

// Explores `file`; prints progress, every failing schedule (its seed, what
// failed, its last decisions and the command that replays it) and a summary.
// Exit code: 0 when every schedule passed, 1 otherwise.
int Explore(const std::string &file, const ExploreOptions &opts, const RunScenario &run, std::ostream &out);

// Runs one schedule in this process and prints the scenario's output, the
// schedule's figures (steps, switches, trace and log hashes) and, when it
// failed, its last decisions.  Exit code as for run.
int ReplaySchedule(const std::string &file, uint64_t seed, uint32_t pctDepth, uint64_t pctSteps,
                   const RunScenario &run, std::ostream &out);

// The seed of schedule `index` of an exploration from `first`.
uint64_t ScheduleSeed(uint64_t first, uint64_t index);

}  // namespace hyksimtool
