// main.cpp -- the host program: starts the simulated host, builds a small
// topology, loads and unloads the live-upgrade module, and prints the host
// log and a summary of the host's state.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "hyksim/fabric.h"
#include "hyksim/host.h"

namespace {

#ifndef LUS_MODULE_PATH
#define LUS_MODULE_PATH ""
#endif

struct DemoOptions {
   std::string modulePath = LUS_MODULE_PATH;
   std::vector<std::string> params;
   std::string logFile;
   int portsPerPortset = 4;
};

void PrintUsage(FILE *out) {
   std::fprintf(out,
                "usage: hyksim demo [options]\n"
                "\n"
                "Starts the simulated host, builds two portsets of vNIC ports, loads the\n"
                "live-upgrade module, unloads it again and prints the host log and a summary\n"
                "of what the host holds.\n"
                "\n"
                "options:\n"
                "  --module PATH      module file to load (default: the built lus module)\n"
                "  --param NAME=VALUE module parameter; may repeat\n"
                "  --ports N          vNIC ports per portset (default 4)\n"
                "  --log-file PATH    also write the host log to PATH\n"
                "  -h, --help         this text\n");
}

// Returns 0 to run, 1 for a usage error, 2 when help was printed.
int ParseArgs(int argc, char **argv, DemoOptions *opt) {
   for (int i = 2; i < argc; i++) {
      std::string a = argv[i];
      auto value = [&](const char *what) -> const char * {
         if (i + 1 >= argc) {
            std::fprintf(stderr, "hyksim: %s needs a value\n", what);
            return nullptr;
         }
         return argv[++i];
      };
      if (a == "-h" || a == "--help") {
         PrintUsage(stdout);
         return 2;
      } else if (a == "--module") {
         const char *v = value("--module");
         if (!v) return 1;
         opt->modulePath = v;
      } else if (a == "--param") {
         const char *v = value("--param");
         if (!v) return 1;
         opt->params.push_back(v);
      } else if (a == "--log-file") {
         const char *v = value("--log-file");
         if (!v) return 1;
         opt->logFile = v;
      } else if (a == "--ports") {
         const char *v = value("--ports");
         if (!v) return 1;
         opt->portsPerPortset = std::atoi(v);
         if (opt->portsPerPortset < 0 || opt->portsPerPortset > 4096) {
            std::fprintf(stderr, "hyksim: --ports must be between 0 and 4096\n");
            return 1;
         }
      } else {
         std::fprintf(stderr, "hyksim: unknown option '%s' (see hyksim demo --help)\n", a.c_str());
         return 1;
      }
   }
   return 0;
}

bool BuildTopology(const DemoOptions &opt) {
   const char *portsets[] = {"vswitch0", "vswitch1"};
   for (int p = 0; p < 2; p++) {
      hyksim::PortsetSpec ps;
      ps.name = portsets[p];
      if (hyksim::AddPortset(ps) != HYK_OK) return false;
      for (int i = 0; i < opt.portsPerPortset; i++) {
         hyksim::PortSpec port;
         char uuid[64];
         std::snprintf(uuid, sizeof uuid, "564d%04x-0000-0000-0000-%012d", p, i / 2);
         port.vmUUID = uuid;
         port.vnicIndex = static_cast<uint32_t>(i % 2);
         hyk_PortID id;
         if (hyksim::AddPort(ps.name, port, &id) != HYK_OK) return false;
      }
   }
   return true;
}

void PrintSummary() {
   std::printf("\n== host state\n");
   for (const auto &m : hyksim::Modules()) {
      std::printf("module   %-24s id %u use count %u\n", m.name.c_str(), m.id, m.useCount);
   }
   for (const auto &h : hyksim::Heaps()) {
      std::printf("heap     %-24s %llu bytes in %llu allocations (max %llu)\n", h.name.c_str(),
                  (unsigned long long)h.bytesInUse, (unsigned long long)h.liveAllocations,
                  (unsigned long long)h.maxSize);
   }
   for (const auto &ps : hyksim::Portsets()) {
      size_t blocked = 0;
      for (hyk_PortID id : ps.ports) {
         auto port = hyksim::FindPort(id);
         if (port && !port->passesTraffic) blocked++;
      }
      std::printf("portset  %-24s class %s, %zu ports, %zu blocked\n", ps.name.c_str(),
                  ps.className.c_str(), ps.ports.size(), blocked);
   }
   for (const auto &d : hyksim::CharDevs()) {
      std::printf("device   %-24s owner %u, %u open\n", d.name.c_str(), d.owner, d.openFiles);
   }
   hyksim::HostCounts c = hyksim::Counts();
   std::printf("objects  heaps %zu, log components %zu, timer queues %zu, lock domains %zu, "
               "spinlocks %zu, worlds %zu\n",
               c.heaps, c.logComponents, c.timerQueues, c.lockDomains, c.spinlocks, c.worlds);
}

int RunDemo(const DemoOptions &opt) {
   hyksim::HostOptions hostOpt;
   hostOpt.logFile = opt.logFile;
   hyksim::HostStart(hostOpt);
   if (!BuildTopology(opt)) {
      std::fprintf(stderr, "hyksim: could not build the demo topology\n");
      return 1;
   }
   int rc = 0;
   if (opt.modulePath.empty()) {
      std::printf("no module to load (built without the lus module; use --module PATH)\n");
   } else {
      hyk_ModuleID id;
      std::string error;
      hyk_Status s = hyksim::LoadModule(opt.modulePath, opt.params, &id, &error);
      std::printf("load %s: %s%s%s\n", opt.modulePath.c_str(), hyk_StatusToString(s),
                  error.empty() ? "" : " -- ", error.c_str());
      if (s == HYK_OK) {
         PrintSummary();
         s = hyksim::UnloadModule(id);
         std::printf("\nunload: %s\n", hyk_StatusToString(s));
      }
      rc = s == HYK_OK ? 0 : 1;
   }
   std::printf("\n== host log\n%s", hyksim::LogText().c_str());
   PrintSummary();
   hyksim::HostStop();
   return rc;
}

}  // namespace

int main(int argc, char **argv) {
   if (argc < 2 || !std::strcmp(argv[1], "-h") || !std::strcmp(argv[1], "--help")) {
      PrintUsage(argc < 2 ? stderr : stdout);
      return argc < 2 ? 1 : 0;
   }
   if (std::strcmp(argv[1], "demo") != 0) {
      std::fprintf(stderr, "hyksim: unknown command '%s' (see hyksim --help)\n", argv[1]);
      return 1;
   }
   DemoOptions opt;
   int r = ParseArgs(argc, argv, &opt);
   if (r != 0) return r == 2 ? 0 : 1;
   return RunDemo(opt);
}
