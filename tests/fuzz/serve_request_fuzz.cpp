// serve_request_fuzz.cpp -- fuzzes the host server's protocol: the lines of
// an input are requests, answered one after the other by
// lusctl::HandleRequest for one connection of a server, exactly as
// `hyksim serve` arranges it: a fresh simulated host with a small topology
// (the old build's switch, firewall and stats; a portset of vNIC ports and a
// container port), the scenario language behind the "scenario"
// request, the connection's own device.  Limits are strict so that an input
// never runs long: at most 16 requests, 64 ports, 8 portsets, 4 takeover
// threads.
//
// LUS_FUZZ_TRACE=1 prints each request and its answer when replaying an input.
//
// Findings, besides ASan, UBSan and LeakSanitizer: a host panic, an
// exception out of HandleRequest, an answer that is not one line of a JSON
// object, a refused request without a readable error, and a host that cannot
// be stopped cleanly once the connection has gone.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "fuzz_sandbox.h"
#include "hyksim/host.h"
#include "scenario.h"
#include "tool.h"

namespace {

constexpr size_t kMaxRequests = 16;

const char *const kTopology =
   "load client tarnq-vswitch build=1000\n"
   "load client tarnq-dfw build=1000\n"
   "load client tarnq-stats build=1000\n"
   "portset ps0 module=tarnq-vswitch-1000\n"
   "ports ps0 6 vms=3 external-id=a\n"
   "ports ps0 1 type=container filter=f\n";

void Check(bool ok, const char *what, const std::string &line, const std::string &answer) {
   if (!ok) {
      fprintf(stderr, "serve_request_fuzz: %s\n  request: %.200s\n  answer: %.200s\n", what, line.c_str(),
              answer.c_str());
      abort();
   }
}

// Whether a request may run: a "scenario" request's line passes the sandbox.
bool Allowed(const std::string &line) {
   nlohmann::json req = nlohmann::json::parse(line, nullptr, false);
   if (!req.is_object() || !req.contains("line") || !req["line"].is_string()) return true;
   return fuzzsandbox::LineAllowed(req["line"].get<std::string>());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   static const bool resident = (hyksim::KeepModuleObjectsResident(true), true);
   (void)resident;
   hyksim::HostOptions host;
   host.virtualClock = true;
   hyksim::HostStart(host);
   {
      hyksimtool::ScenarioOptions o;
      o.moduleDir = LUS_MODULES_DIR;
      o.reportDir = "/nonexistent";
      o.maxPorts = 64;
      o.maxPortsets = 8;
      o.maxTakeoverThreads = 4;
      o.maxLineBytes = 1024;
      std::ostringstream scenarioOut;
      hyksimtool::Interpreter interp(o, scenarioOut);
      if (!interp.RunText("topology.hyk", kTopology)) {
         fprintf(stderr, "serve_request_fuzz: the topology failed:\n%s", scenarioOut.str().c_str());
         abort();
      }
      scenarioOut.str("");
      auto simHost = lusctl::MakeSimHost(o.moduleDir);
      lusctl::ServerSession session;
      session.host = simHost.get();
      session.maxTakeoverThreads = o.maxTakeoverThreads;
      session.scenario = [&](const std::string &line, std::string *output) {
         std::string why = interp.Execute(line);
         *output = scenarioOut.str();
         scenarioOut.str("");
         return why;
      };

      const std::string input(reinterpret_cast<const char *>(data), size);
      size_t at = 0;
      for (size_t n = 0; n < kMaxRequests && at < input.size(); n++) {
         size_t nl = input.find('\n', at);
         if (nl == std::string::npos) nl = input.size();
         const std::string line = input.substr(at, nl - at);
         at = nl + 1;
         if (!Allowed(line)) continue;
         bool shutdown = false;
         const std::string answer = lusctl::HandleRequest(session, line, &shutdown);
         static const bool trace = getenv("LUS_FUZZ_TRACE") != nullptr;
         if (trace) fprintf(stderr, "%.120s\n  -> %.300s\n", line.c_str(), answer.c_str());
         Check(answer.find('\n') == std::string::npos, "an answer of more than one line", line, answer);
         const nlohmann::json a = nlohmann::json::parse(answer, nullptr, false);
         Check(a.is_object() && !a.empty(), "an answer that is not a JSON object", line, answer);
         if (a.contains("error") && !a.contains("ok") && !a.contains("status")) {
            Check(a["error"].is_string() && !a["error"].get<std::string>().empty(), "a refusal without a reason",
                  line, answer);
         }
         if (shutdown) break;   // the server stops serving
      }
      // The connection goes: its device is closed, as the server does.
      if (session.device) session.device->Close();
      session.device.reset();
   }
   hyksim::HostStop();
   return 0;
}
