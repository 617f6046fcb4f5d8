// schedule.h -- the host's controlled scheduling mode and its threads.
//
// In the controlled mode every host thread that can run module code (the
// thread that began the schedule, user processes, event posters, timer
// queues, worlds, threads a scenario starts) runs one at a time.  Each host
// call is a scheduling point at which a seeded scheduler picks the thread
// that runs next: a random walk over the threads that can run, or PCT
// (probabilistic concurrency testing) with depth d.  A thread that would
// spin on a host spinlock or wait for the host (a sleep, a portset, a world's
// death, an event delivery, a timer) is blocked until it can go on.  The
// virtual clock moves only when every thread waits, to the earliest time one
// waits for.  One seed gives one schedule: the same decisions, the same
// host-call trace and the same log.
//
// Outside the controlled mode HostThread is a plain thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace hyksim {

struct ScheduleOptions {
   uint64_t seed = 1;
   // 0: a random walk.  d >= 1: PCT with d - 1 priority change points.
   uint32_t pctDepth = 0;
   // PCT: the number of steps over which the change points are drawn (an
   // estimate of a run's length; a longer run has no change point past it).
   uint64_t pctSteps = 10000;
   // Decisions kept for the report of a failing schedule.
   size_t keepDecisions = 40;
};

struct ScheduleSummary {
   uint64_t steps = 0;       // scheduling points passed
   uint64_t switches = 0;    // of them, where another thread was picked
   uint64_t clockMoves = 0;  // times every thread waited and the clock moved on
   uint32_t threads = 0;     // controlled threads of the run
   uint64_t traceHash = 0;   // of the host-call trace: (thread, call) at every point
   std::vector<std::string> lastDecisions;   // oldest first
   // Per thread, what it was blocked on and how often: "T3(process lusctl): the clock x12".
   std::vector<std::string> waits;
};

// The calling thread becomes the first controlled thread ("main") and every
// host thread started from a controlled thread is controlled.  Begin before
// HostStart; end after HostStop, when only the calling thread is left.
void ScheduleBegin(const ScheduleOptions &options);
ScheduleSummary ScheduleEnd();
// What the running schedule has done so far (for a failure's report).
ScheduleSummary ScheduleSoFar();
bool ScheduleControlled();

// A panic or a deadlock in the controlled mode calls this before the
// process ends, so that the explorer can print the schedule's last decisions.
void SetScheduleFailureHook(std::function<void(const std::string &why)> hook);
// Calls the hook now (a panic does; so may a watchdog), when a schedule runs
// and the scheduler is not in the middle of a decision.
void ScheduleReportFailure(const std::string &why);

// A thread of the host.  Controlled when started by a controlled thread.
class HostThread {
  public:
   HostThread() = default;
   HostThread(std::string name, std::function<void()> fn);
   HostThread(HostThread &&other) noexcept;
   HostThread &operator=(HostThread &&other) noexcept;
   ~HostThread();   // a joinable thread is joined

   // Waits for the thread to end (a controlled caller is blocked meanwhile).
   void Join();
   void Detach();
   bool Joinable() const { return thread_.joinable(); }
   std::thread::id Id() const { return thread_.get_id(); }

  private:
   std::thread thread_;
   void *controlled_ = nullptr;   // the scheduler's record, when controlled
};

}  // namespace hyksim
