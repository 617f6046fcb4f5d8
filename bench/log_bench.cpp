// log_bench.cpp -- what a log line costs the module that writes it, at the
// level that formats it and at one that filters it out, measured against a
// floor in the same run (a call that does nothing).  The host captures the
// format and arguments and formats later, off the caller's path.
#include <benchmark/benchmark.h>

#include "hyk/hyk.h"
#include "hyksim/host.h"

namespace {

hyk_LogHandle gHandle = 0;

void Setup(int level) {
   hyksim::HostStart();
   hyk_LogProps props{};
   props.name = "bench";
   props.defaultLevel = level;
   hyk_LogRegister(&props, &gHandle);
}

void LogLine(benchmark::State &state) {
   Setup(static_cast<int>(state.range(0)));
   int i = 0;
   for (auto _ : state) {
      hyk_LogLevel(1, gHandle, 3, "%s:%d:[tag subcomp=\"lus%s\"] Port %d (0x%x) not found\n",
                   "lusFn", i, "", i, i);
      i++;
   }
   hyksim::LogClear();
   hyksim::HostStop();
}
// Level 3 formats the line (later, off this thread); level 1 drops it.
BENCHMARK(LogLine)->Arg(3)->Arg(1);

void Floor(benchmark::State &state) {
   int i = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(i++);
   }
}
BENCHMARK(Floor);

}  // namespace

BENCHMARK_MAIN();
