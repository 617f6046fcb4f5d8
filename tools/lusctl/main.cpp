// main.cpp -- the lusctl program.  Until the host program can serve the
// device over a socket, lusctl runs a simulated host in its own process:
// the --sim-* options build that host (portsets, the old build's datapath
// modules, lus) before the command runs, the way a host looks before an
// upgrade.  Everything after them is the tool's own command line.
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <sstream>

#include "input.h"
#include "tool.h"


namespace {

const char *kSimHelp = R"(Host:
  --host PATH           the host served by `hyksim serve --socket PATH` (another process);
                        without it, lusctl runs a simulated host of its own:
  --host-timeout SEC    a host that does not answer a request within SEC seconds is taken
                        as gone (default 30)
Simulated host (given before or after the command):
  --sim-portset NAME:VNICS[:CONTAINERS[:CLASS[:fdp]]]
                        a portset of VNICS vNIC ports (two per VM) and CONTAINERS
                        container ports, class CLASS (default etherswitch)
  --sim-client NAME     a datapath module of the old build, e.g. tarnq-dfw (repeatable;
                        tarnq-vswitch provides the portsets' class and is loaded first)
  --sim-build N         the old build (default 1000)
  --sim-seed N          the seed of the modules' state (default 7)
  --sim-lus             load lus of build 2000 (fromBuild: the old build) before the
                        command, for single commands
  --sim-virtual-clock   the host's virtual clock (time moves only when something sleeps),
                        instead of its real one
  --module-dir DIR      the own modules (default: this installation's, or the build tree's)
  --module-path DIR[:DIR...]
                        more modules, searched after the own ones and HYKSIM_MODULE_PATH's
                        (a client as DIR/NAME-BUILD.so or DIR/clients/NAME-BUILD.so,
                        lus as DIR/bBUILD/lus.so)
Example:
  lusctl --sim-portset ps0:100 --sim-portset ps1:100 --sim-client tarnq-vswitch \
         --sim-client tarnq-dfw --sim-client tarnq-stats \
         upgrade classic --from-build 1000 --to-build 2000 --portset ps0 --portset ps1 \
         --module-param seed=7 --report-json r.json --trace t.json --chart c.svg)";

// A --sim-portset NAME:VNICS[:CONTAINERS[:CLASS[:fdp]]], read and checked.
struct SimPortset {
   std::string name, className = "etherswitch";
   uint32_t vnics = 0, containers = 0;
   bool fdp = false;
};

// The ports of one --sim-portset, at most: the simulated host of this process
// is sized for the benchmarks' 16,384 ports and a margin.
constexpr uint32_t kMaxSimPorts = 65536;

struct SimOptions {
   std::vector<SimPortset> portsets;
   std::vector<std::string> clients;
   uint32_t build = 1000, seed = 7;
   bool lus = false, virtualClock = false;
   std::string hostSocket;
   double hostTimeoutSec = 30;
   std::string moduleDir;                  // "": the program's own
   std::vector<std::string> modulePath;
};

std::vector<std::string> Split(const std::string &s, char sep) {
   std::vector<std::string> out;
   std::stringstream ss(s);
   std::string part;
   while (std::getline(ss, part, sep)) out.push_back(part);
   return out;
}

// NAME:VNICS[:CONTAINERS[:CLASS[:fdp]]], every count read with input.h.
bool ParseSimPortset(const std::string &layout, SimPortset *ps, std::string &error) {
   const auto f = Split(layout, ':');
   auto bad = [&](const std::string &why) {
      error = fmt::format("--sim-portset {}: {}", lusinput::Quoted(layout), why);
      return false;
   };
   if (f.size() < 2 || f.size() > 5 || f[0].empty()) return bad("expected NAME:VNICS[:CONTAINERS[:CLASS[:fdp]]]");
   std::string why;
   if (!lusinput::ParseWhole<uint32_t>(f[1], "VNICS", 0, kMaxSimPorts, &ps->vnics, &why)) return bad(why);
   if (f.size() > 2 && !f[2].empty() &&
       !lusinput::ParseWhole<uint32_t>(f[2], "CONTAINERS", 0, kMaxSimPorts - ps->vnics, &ps->containers, &why)) {
      return bad(why);
   }
   if (f.size() > 4 && f[4] != "fdp" && !f[4].empty()) return bad("the fifth field is 'fdp' or nothing");
   ps->name = f[0];
   if (f.size() > 3 && !f[3].empty()) ps->className = f[3];
   ps->fdp = f.size() > 4 && f[4] == "fdp";
   return true;
}

// Takes the --sim-* options (and --module-dir) out of the arguments.
bool TakeSimOptions(std::vector<std::string> &args, SimOptions &sim, std::string &error) {
   std::vector<std::string> rest;
   for (size_t i = 0; i < args.size(); i++) {
      const std::string &a = args[i];
      auto value = [&](std::string *v) {
         if (i + 1 >= args.size()) {
            error = a + " needs a value";
            return false;
         }
         *v = args[++i];
         return true;
      };
      std::string v;
      if (a == "--sim-portset") {
         SimPortset ps;
         if (!value(&v) || !ParseSimPortset(v, &ps, error)) return false;
         sim.portsets.push_back(ps);
      } else if (a == "--sim-client") {
         if (!value(&v)) return false;
         sim.clients.push_back(v);
      } else if (a == "--sim-build" || a == "--sim-seed") {
         if (!value(&v)) return false;
         if (!lusinput::ParseWhole<uint32_t>(v, a, a == "--sim-build" ? &sim.build : &sim.seed, &error)) return false;
      } else if (a == "--sim-lus") {
         sim.lus = true;
      } else if (a == "--sim-virtual-clock") {
         sim.virtualClock = true;
      } else if (a == "--host") {
         if (!value(&sim.hostSocket)) return false;
      } else if (a == "--host-timeout") {
         if (!value(&v)) return false;
         uint64_t us = 0;
         if (!lusinput::ParseSeconds(v, "--host-timeout", 86400ull * 1000000, &us, &error)) return false;
         if (us < 1000) {
            error = fmt::format("bad value {} for --host-timeout: at least a millisecond is needed", lusinput::Quoted(v));
            return false;
         }
         sim.hostTimeoutSec = static_cast<double>(us) / 1e6;
      } else if (a == "--module-dir") {
         if (!value(&sim.moduleDir)) return false;
      } else if (a == "--module-path") {
         if (!value(&v)) return false;
         sim.modulePath.push_back(v);
      } else if (a.rfind("--sim-", 0) == 0) {
         error = "unknown option " + a;
         return false;
      } else {
         rest.push_back(a);
      }
   }
   args = rest;
   return true;
}

bool BuildHost(const SimOptions &sim, lusctl::Host &host, std::string &error) {
   std::vector<std::string> clients = sim.clients;
   std::stable_partition(clients.begin(), clients.end(), [](const std::string &c) { return c == "tarnq-vswitch"; });
   for (const auto &c : clients) {
      std::string why;
      hyk_Status s = host.LoadModule(fmt::format("{}-{}", c, sim.build), {fmt::format("seed={}", sim.seed)}, &why);
      if (s != HYK_OK) {
         error = fmt::format("cannot load {}-{}: {}", c, sim.build, why.empty() ? hyk_StatusToString(s) : why);
         return false;
      }
   }
   for (const auto &layout : sim.portsets) {
      hyksim::PortsetSpec desc;
      desc.name = layout.name;
      desc.className = layout.className;
      desc.fastDatapath = layout.fdp;
      const std::string sw = fmt::format("tarnq-vswitch-{}", sim.build);
      if (hyksim::FindModule(sw)) desc.classModule = sw;
      if (hyksim::AddPortset(desc) != HYK_OK) {
         error = "cannot add portset " + desc.name;
         return false;
      }
      for (uint32_t i = 0; i < layout.vnics; i++) {
         hyksim::PortSpec port;
         port.vmUUID = fmt::format("{}-vm-{}", desc.name, i / 2);
         port.vnicIndex = i % 2;
         port.properties["com.corvid.port.extraConfig.vnic.external.id"] = "ext-" + desc.name;
         hyk_PortID id = 0;
         if (hyksim::AddPort(desc.name, port, &id) != HYK_OK) {
            error = "cannot add a port to portset " + desc.name;
            return false;
         }
      }
      for (uint32_t i = 0; i < layout.containers; i++) {
         hyksim::PortSpec port;
         port.clientType = HYK_PORT_CLIENT_CONTAINER;
         port.properties["com.corvid.common.port.pfilteraltkpx"] = fmt::format("filter-{}", i);
         hyk_PortID id = 0;
         if (hyksim::AddPort(desc.name, port, &id) != HYK_OK) {
            error = "cannot add a port to portset " + desc.name;
            return false;
         }
      }
   }
   if (sim.lus) {
      std::string why;
      if (host.LoadModule("lus-2000", {fmt::format("fromBuild={}", sim.build)}, &why) != HYK_OK) {
         error = "cannot load lus: " + why;
         return false;
      }
   }
   return true;
}

}  // namespace

int main(int argc, char **argv) {
   std::vector<std::string> args(argv + 1, argv + argc);
   SimOptions sim;
   std::string error;
   if (!TakeSimOptions(args, sim, error)) {
      std::cerr << "lusctl: " << error << "\n" << kSimHelp << "\n";
      return 2;
   }
   // The fleet's report reads files a rollout left: no host, neither served nor simulated.
   const auto command = std::find_if(args.begin(), args.end(), [](const std::string &a) { return a.empty() || a[0] != '-'; });
   if (command != args.end() && *command == "fleet-report") {
      lusctl::Environment none;
      return lusctl::RunCli(none, args, std::cout, std::cerr, false, kSimHelp);
   }
   if (!sim.hostSocket.empty()) {
      auto remote = lusctl::MakeRemote(sim.hostSocket, &error, static_cast<int>(sim.hostTimeoutSec * 1000));
      if (!remote) {
         std::cerr << "lusctl: " << error << "\n";
         return 1;
      }
      lusctl::Environment env{remote->host.get(), remote->openDevice, sim.hostSocket};
      try {
         return lusctl::RunCli(env, args, std::cout, std::cerr, isatty(STDOUT_FILENO) != 0, kSimHelp);
      } catch (const lusctl::HostError &e) {
         // A single command or `status` whose host went away: the flows say more themselves.
         std::cerr << "lusctl: " << e.what() << "\n";
         return 1;
      }
   }
   hyksim::HostOptions options;
   options.virtualClock = sim.virtualClock;
   hyksim::HostStart(options);
   const auto dirs = lusctl::ModuleSearchPath(sim.moduleDir.empty() ? lusctl::OwnModuleDir() : sim.moduleDir,
                                              sim.modulePath);
   auto host = lusctl::MakeSimHost(fmt::format("{}", fmt::join(dirs, ":")));
   int code = 2;
   if (!BuildHost(sim, *host, error)) {
      std::cerr << "lusctl: simulated host: " << error << "\n";
   } else {
      lusctl::Environment env{host.get(), [] { return lusctl::MakeSimDevice(); }};
      code = lusctl::RunCli(env, args, std::cout, std::cerr, isatty(STDOUT_FILENO) != 0, kSimHelp);
   }
   hyksim::HostStop();
   return code;
}
