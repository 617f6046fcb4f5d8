// scenario_fuzz.cpp -- fuzzes the scenario language: a small file parsed and
// run in-process on a fresh simulated host, with strict limits so that an
// input never runs long: at most 32 lines of at most 1,024 bytes, 64 ports,
// 8 portsets, 4 takeover threads.  The first byte chooses how it runs: as a
// file (`hyksim run`: the line reader, stopping at the first failure) or
// line by line as typed at the shell (a failure does not stop the rest).
//
// LUS_FUZZ_TRACE=1 prints what each line did when replaying an input.
//
// Findings, besides ASan, UBSan and LeakSanitizer: a host panic, an
// exception out of the interpreter, a failed file whose output does not end
// with "FILE:LINE: reason", and a host that cannot be stopped cleanly (HostStop unloads every
// module; a module pinned or a heap with live allocations panics there).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "fuzz_sandbox.h"
#include "hyksim/host.h"
#include "scenario.h"

namespace {

constexpr size_t kMaxLines = 32;

void Check(bool ok, const char *what) {
   if (!ok) {
      fprintf(stderr, "scenario_fuzz: %s\n", what);
      abort();
   }
}

hyksimtool::ScenarioOptions Options() {
   hyksimtool::ScenarioOptions o;
   o.moduleDir = LUS_MODULES_DIR;
   o.reportDir = "/nonexistent";   // `report` with files is kept out; this is a second fence
   o.maxPorts = 64;
   o.maxPortsets = 8;
   o.maxTakeoverThreads = 4;
   o.maxLineBytes = 1024;
   return o;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   static const bool resident = (hyksim::KeepModuleObjectsResident(true), true);
   (void)resident;
   if (size == 0) return 0;
   const bool asFile = (data[0] & 1) == 0;
   const std::string text = fuzzsandbox::Filter(std::string(reinterpret_cast<const char *>(data) + 1, size - 1), kMaxLines);

   hyksim::HostOptions host;
   host.virtualClock = true;
   hyksim::HostStart(host);
   {
      std::ostringstream out;
      hyksimtool::Interpreter interp(Options(), out);
      static const bool trace = getenv("LUS_FUZZ_TRACE") != nullptr;
      if (asFile) {
         const bool ok = interp.RunText("fuzz.hyk", text);
         if (trace) fprintf(stderr, "%s== %s\n", out.str().c_str(), ok ? "passed" : "FAILED");
         // A file that failed says where, last.
         if (!ok) {
            const std::string o = out.str();
            const size_t lastLine = o.rfind('\n', o.size() >= 2 ? o.size() - 2 : 0);
            const size_t from = lastLine == std::string::npos ? 0 : lastLine + 1;
            Check(o.compare(from, 9, "fuzz.hyk:") == 0, "a failed file does not end with FILE:LINE: reason");
         }
      } else {
         size_t at = 0;
         while (at <= text.size()) {
            size_t nl = text.find('\n', at);
            if (nl == std::string::npos) nl = text.size();
            if (nl - at <= Options().maxLineBytes) {
               const std::string why = interp.Execute(text.substr(at, nl - at));
               if (trace) fprintf(stderr, "%.120s -> %s\n", text.substr(at, nl - at).c_str(), why.empty() ? "ok" : why.c_str());
            }
            at = nl + 1;
         }
      }
   }
   hyksim::HostStop();
   return 0;
}
