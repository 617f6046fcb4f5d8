// scenario.cpp -- the interpreter of the scenario language (scenario.h).
// Every command acts on the simulated host of this process through its
// control API, runs the upgrade tool in-process as a user process of that
// host, or checks an expectation against what the host shows.
#include "scenario.h"

#include <fcntl.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <cstdio>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "input.h"
#include "hyksim/schedule.h"
#include "line_reader.h"

namespace hyksimtool {

bool SplitWords(const std::string &line, std::vector<std::string> *words, std::string *error) {
   std::string cur;
   bool inWord = false, quoted = false;
   for (size_t i = 0; i < line.size(); i++) {
      char c = line[i];
      if (quoted) {
         if (c == '"') {
            quoted = false;
         } else {
            cur += c;
         }
      } else if (c == '"') {
         quoted = true;
         inWord = true;
      } else if (c == '#' && !inWord) {
         break;
      } else if (c == ' ' || c == '\t' || c == '\r') {
         if (inWord) words->push_back(cur);
         cur.clear();
         inWord = false;
      } else {
         cur += c;
         inWord = true;
      }
   }
   if (quoted) {
      *error = "unterminated quote";
      return false;
   }
   if (inWord) words->push_back(cur);
   return true;
}

namespace {

// A command's words after its name: positional words and name=value pairs.
struct Args {
   std::vector<std::string> pos;
   std::map<std::string, std::string> kv;
   std::vector<std::string> order;   // name=value words as written (module parameters)

   bool Has(const std::string &k) const { return kv.count(k) != 0; }
   std::string Get(const std::string &k, const std::string &def = "") const {
      auto it = kv.find(k);
      return it == kv.end() ? def : it->second;
   }
};

Args Parse(const std::vector<std::string> &words, size_t from) {
   Args a;
   for (size_t i = from; i < words.size(); i++) {
      auto eq = words[i].find('=');
      if (eq != std::string::npos && eq != 0) {
         a.kv[words[i].substr(0, eq)] = words[i].substr(eq + 1);
         a.order.push_back(words[i]);
      } else {
         a.pos.push_back(words[i]);
      }
   }
   return a;
}

// A failure of a command: the reason, as the user will read it after file:line.
struct Fail {
   std::string why;
};

// A whole number of type T from `min` to `max` (input.h): no wrap, no
// truncation, the bad value and what it was for in the error.
template <typename T = uint64_t>
T Whole(const std::string &what, const std::string &v, T min = std::numeric_limits<T>::min(),
        T max = std::numeric_limits<T>::max()) {
   T n{};
   std::string error;
   if (!lusinput::ParseWhole<T>(v, what, min, max, &n, &error)) throw Fail{error};
   return n;
}

// Seconds to the microsecond, at most `maxUS`.
uint64_t Micros(const std::string &what, const std::string &v, uint64_t maxUS) {
   uint64_t us = 0;
   std::string error;
   if (!lusinput::ParseSeconds(v, what, maxUS, &us, &error)) throw Fail{error};
   return us;
}

// Writes `text` to `path`, replacing it; false with the reason (the
// system's) when it could not be opened, written or closed whole.
bool WriteWholeFile(const std::string &path, const std::string &text, std::string *why) {
   FILE *f = fopen(path.c_str(), "w");
   if (f == nullptr) {
      *why = std::strerror(errno);
      return false;
   }
   const bool written = fwrite(text.data(), 1, text.size(), f) == text.size() && fflush(f) == 0;
   const int writeErrno = errno;
   const bool closed = fclose(f) == 0;
   if (!written || !closed) {
      *why = std::strerror(!written ? writeErrno : errno);
      return false;
   }
   return true;
}

bool YesNo(const std::string &what, const std::string &v) {
   if (v == "yes" || v == "true" || v == "1") return true;
   if (v == "no" || v == "false" || v == "0") return false;
   throw Fail{fmt::format("bad value '{}' for {}: yes or no", v, what)};
}

// A status by number (0x...), by its host name (HYK_NOT_FOUND, NOT_FOUND) or "OK".
hyk_Status StatusOf(const std::string &v) {
   static const std::map<std::string, hyk_Status> names = {
#define LUS_STATUS_NAME(name, value, text) {#name, value},
      HYK_STATUS_TABLE(LUS_STATUS_NAME)
#undef LUS_STATUS_NAME
   };
   if (v == "OK" || v == "ok" || v == "success") return HYK_OK;
   auto it = names.find(v);
   if (it == names.end()) it = names.find("HYK_" + v);
   if (it != names.end()) return it->second;
   return Whole<hyk_Status>("a status", v);
}

// The host's clock stops at 100 years: far past any scenario, and far
// below where microseconds (2^64: 584,000 years), the monotonic counter's
// nanoseconds (584 years) or a deadline "now + timeout" would wrap.
constexpr uint64_t kYearUS = 365ull * 86400 * 1000000;
constexpr uint64_t kClockCeilingUS = 100 * kYearUS;

const std::vector<std::string> kCommands = {
   "portset", "ports", "load", "unload", "set", "lusctl", "ioctl", "unblock-event", "enable",
   "takeover", "advance", "fault", "clear-faults", "expect", "report", "echo", "help", "spawn", "wait", "try"};

// The host as the in-process lusctl sees it: the host itself, except that a
// takeover may not use more threads than the host program allows.
class LimitedHost : public lusctl::Host {
  public:
   LimitedHost(lusctl::Host &host, uint32_t maxThreads) : h_(host), maxThreads_(maxThreads) {}
   hyk_Status LoadModule(const std::string &name, const std::vector<std::string> &params,
                         std::string *error) override {
      return h_.LoadModule(name, params, error);
   }
   hyk_Status UnloadModule(const std::string &name) override { return h_.UnloadModule(name); }
   std::vector<lusctl::ModuleInfo> Modules() override { return h_.Modules(); }
   std::vector<hyksim::PortsetView> Portsets() override { return h_.Portsets(); }
   std::vector<hyksim::PortView> Ports() override { return h_.Ports(); }
   hyk_Status TakeOver(const std::string &portset, uint32_t build, unsigned threads) override {
      if (threads > maxThreads_) return HYK_LIMIT_EXCEEDED;
      return h_.TakeOver(portset, build, threads);
   }
   hyk_Status EnablePort(uint32_t port) override { return h_.EnablePort(port); }
   hyk_Status PostRestoreEvent(uint32_t port) override { return h_.PostRestoreEvent(port); }
   hyk_Status UnblockPort(uint32_t port) override { return h_.UnblockPort(port); }
   std::vector<lusctl::TimerInfo> Timers() override { return h_.Timers(); }
   std::vector<hyksim::LogLine> Log() override { return h_.Log(); }
   std::vector<hyksim::LedgerClientView> Ledger() override { return h_.Ledger(); }
   std::vector<hyksim::HeapView> Heaps() override { return h_.Heaps(); }
   uint64_t NowUS() override { return h_.NowUS(); }

  private:
   lusctl::Host &h_;
   uint32_t maxThreads_;
};

}  // namespace

struct Interpreter::Impl {
   ScenarioOptions opts;
   std::ostream &out;
   std::unique_ptr<lusctl::Host> host;
   std::unique_ptr<LimitedHost> toolHost;   // what the in-process lusctl drives
   lusctl::Environment env;
   std::map<std::string, std::vector<hyk_PortID>> ports;   // by portset, in order of creation
   uint64_t portCount = 0;                                  // ports made, in every portset
   // What the last command left for `expect` and `report`: the script's
   // own, or a spawned command's while it runs (its thread's).
   struct Last {
      std::optional<hyk_Status> status;
      std::optional<int> exit;
      std::string output;
      std::optional<lusctl::Report> report;
   };
   Last mainLast;
   static thread_local Last *tLast;
   static thread_local std::ostream *tOut;
   Last &L() { return tLast != nullptr ? *tLast : mainLast; }
   std::ostream &Out() { return tOut != nullptr ? *tOut : out; }

   // A command spawned to run alongside the script, until a `wait`.
   struct Spawned {
      std::string name;
      std::string command;
      Last last;
      std::ostringstream out;
      std::string error;
      hyksim::HostThread thread;
   };
   std::vector<std::unique_ptr<Spawned>> spawned;

   Impl(const ScenarioOptions &o, std::ostream &os) : opts(o), out(os) {
      host = lusctl::MakeSimHost(opts.moduleDir);
      toolHost = std::make_unique<LimitedHost>(*host, opts.maxTakeoverThreads);
      env.host = toolHost.get();
      env.openDevice = [] { return lusctl::MakeSimDevice(); };
   }

   // ---- names ----------------------------------------------------------------------------
   const std::vector<hyk_PortID> &Portset(const std::string &name) {
      auto it = ports.find(name);
      if (it == ports.end()) throw Fail{fmt::format("unknown portset '{}'", name)};
      return it->second;
   }

   // A port: its ID, or PORTSET#INDEX (the INDEX-th port made in PORTSET, from 0).
   hyk_PortID Port(const std::string &ref) {
      auto hash = ref.find('#');
      if (hash != std::string::npos) {
         const auto &ids = Portset(ref.substr(0, hash));
         const uint64_t i = Whole("a port index", ref.substr(hash + 1));
         if (i >= ids.size()) {
            throw Fail{fmt::format("unknown port '{}': portset {} has {} ports", ref, ref.substr(0, hash), ids.size())};
         }
         return ids[i];
      }
      const hyk_PortID id = Whole<hyk_PortID>("a port", ref);
      if (!hyksim::FindPort(id)) throw Fail{fmt::format("unknown port '{}'", ref)};
      return id;
   }

   // A port reference, or every port of a portset.
   std::vector<hyk_PortID> Ports(const std::string &ref) {
      if (ref.find('#') == std::string::npos && ports.count(ref) != 0) return ports[ref];
      return {Port(ref)};
   }

   static void Need(const Args &a, size_t n, const char *usage) {
      if (a.pos.size() < n) throw Fail{fmt::format("missing argument; usage: {}", usage)};
   }
   static void Check(hyk_Status s, const std::string &what) {
      if (s != HYK_OK) throw Fail{fmt::format("{}: {}", what, lusctl::StatusText(s))};
   }

   // ---- topology --------------------------------------------------------------------------
   // The script's names of portsets and ports are read by spawned commands.
   void NoneSpawned(const char *what) const {
      if (!spawned.empty()) throw Fail{fmt::format("{}: wait for the spawned commands first", what)};
   }

   void DoPortset(const Args &a) {
      Need(a, 1, "portset NAME [class=C] [module=M] [version=N] [fdp=yes]");
      NoneSpawned("portset");
      if (ports.size() >= opts.maxPortsets) {
         throw Fail{fmt::format("portset {}: the host holds {} portsets, as many as it may (--max-portsets)",
                                a.pos[0], ports.size())};
      }
      hyksim::PortsetSpec d;
      d.name = a.pos[0];
      d.className = a.Get("class", "etherswitch");
      d.classModule = a.Get("module");
      d.fabricVersion = Whole<uint32_t>("version", a.Get("version", "107"));
      d.fastDatapath = a.Has("fdp") && YesNo("fdp", a.Get("fdp"));
      Check(hyksim::AddPortset(d), "portset " + d.name);
      ports[d.name];
   }

   void DoPorts(const Args &a) {
      Need(a, 2, "ports PORTSET N [vms=M] [type=vnic|container|uplink] [lspg=yes] [external-id=S] [filter=S]");
      NoneSpawned("ports");
      const std::string ps = a.pos[0];
      Portset(ps);
      // The host holds at most opts.maxPorts ports, so that no line can ask
      // for more memory than the machine has.
      const uint64_t room = opts.maxPorts - std::min<uint64_t>(portCount, opts.maxPorts);
      const uint64_t n = Whole<uint64_t>("the port count", a.pos[1], 0, room);
      const uint64_t vms = a.Has("vms") ? Whole<uint64_t>("vms", a.Get("vms"), 1, std::max<uint64_t>(n, 1)) : n;
      if (vms == 0 || vms > n) throw Fail{fmt::format("vms={} must be between 1 and the port count {}", vms, n)};
      const uint64_t perVM = (n + vms - 1) / vms;
      const std::string type = a.Get("type", "vnic");
      static const std::map<std::string, uint32_t> types = {
         {"vnic", HYK_PORT_CLIENT_VNIC}, {"container", HYK_PORT_CLIENT_CONTAINER}, {"uplink", HYK_PORT_CLIENT_UPLINK}};
      if (types.count(type) == 0) throw Fail{fmt::format("bad value '{}' for type: vnic, container or uplink", type)};
      auto &list = ports[ps];
      const size_t base = list.size();
      for (uint64_t i = 0; i < n; i++) {
         hyksim::PortSpec p;
         p.clientType = types.at(type);
         if (p.clientType == HYK_PORT_CLIENT_VNIC) {
            p.vmUUID = fmt::format("{}-vm-{}", ps, (base + i) / perVM);
            p.vnicIndex = static_cast<uint32_t>((base + i) % perVM);
         }
         if (a.Has("lspg") && YesNo("lspg", a.Get("lspg"))) p.flags |= HYK_FABRIC_PORT_FLAG_LSPG;
         if (a.Has("external-id")) p.properties["com.corvid.port.extraConfig.vnic.external.id"] = a.Get("external-id");
         if (a.Has("filter")) p.properties["com.corvid.common.port.pfilteraltkpx"] = a.Get("filter");
         p.fabricPortID = a.Get("fabric-port-id");
         hyk_PortID id = 0;
         Check(hyksim::AddPort(ps, p, &id), "ports " + ps);
         list.push_back(id);
         portCount++;
      }
   }

   // ---- modules ------------------------------------------------------------------------------
   void DoLoad(const Args &a) {
      Need(a, 1, "load lus [build=N] [PARAM=V...] | load client NAME build=N [PARAM=V...]");
      // "load client NAME" and "load NAME" are the same.
      const bool client = a.pos[0] == "client";
      if (client) Need(a, 2, "load client NAME build=N [seed=S] [PARAM=V...]");
      const std::string name = client ? a.pos[1] : a.pos[0];
      std::vector<std::string> params;
      for (const auto &w : a.order) {
         if (w.rfind("build=", 0) != 0) params.push_back(w);
      }
      if (name != "lus" && !a.Has("build")) throw Fail{"load " + name + ": build=N is needed"};
      const uint32_t build = Whole<uint32_t>("build", a.Get("build", "2000"));
      // A module is a file of the module directory, named, never a path.
      const std::string file = fmt::format("{}-{}", name, build);
      std::string why;
      if (!lusinput::ModuleName(file, &why)) throw Fail{"load: " + why};
      // The run's seed goes to a client that did not name its own -- if it takes one.
      const bool impliedSeed = name != "lus" && !a.Has("seed");
      if (impliedSeed) params.push_back(fmt::format("seed={}", opts.seed));
      std::string error;
      hyk_Status s = host->LoadModule(file, params, &error);
      if (s != HYK_OK && impliedSeed && error.find("unknown parameter seed") != std::string::npos) {
         params.pop_back();
         error.clear();
         s = host->LoadModule(file, params, &error);
      }
      L().status = s;
      if (s != HYK_OK) throw Fail{fmt::format("load {}: {}{}", file, lusctl::StatusText(s), error.empty() ? "" : " (" + error + ")")};
   }

   void DoUnload(const Args &a) {
      Need(a, 1, "unload MODULE");
      hyk_Status s = host->UnloadModule(a.pos[0]);
      L().status = s;
      Check(s, "unload " + a.pos[0]);
   }

   void DoSet(const Args &a) {
      Need(a, 1, "set MODULE PARAM=VALUE...");
      std::string error;
      hyk_Status s = hyksim::SetModuleParams(a.pos[0], a.order, &error);
      if (s != HYK_OK) throw Fail{fmt::format("set {}: {}{}", a.pos[0], lusctl::StatusText(s), error.empty() ? "" : " (" + error + ")")};
   }

   // ---- the tool and the device ----------------------------------------------------------------
   void DoLusctl(const std::vector<std::string> &words) {
      std::vector<std::string> args(words.begin() + 1, words.end());
      std::ostringstream o;
      lusctl::Report report;
      report.result.steps.clear();
      const int code = lusctl::RunCli(env, args, o, o, false, "", &report);
      L().exit = code;
      L().output = o.str();
      Out() << L().output;
      if (!report.flow.empty()) L().report = report;
   }

   void DoIoctl(const Args &a) {
      Need(a, 1, "ioctl CMD [hex=BYTES] [length=N]");
      const uint32_t cmd = Whole<uint32_t>("the command", a.pos[0]);
      std::vector<uint8_t> payload;
      if (!lusctl::BytesOfHex(a.Get("hex"), &payload)) {
         throw Fail{"hex=: an even number of hexadecimal digits is needed"};
      }
      const uint32_t length = a.Has("length") ? Whole<uint32_t>("length", a.Get("length"))
                                              : static_cast<uint32_t>(payload.size());
      auto dev = env.openDevice();
      hyk_Status s = dev->Open();
      if (s == HYK_OK) s = dev->Ioctl(cmd, payload, length);
      dev->Close();
      L().status = s;
      Out() << fmt::format("{}: {}\n", lusctl::CommandLabel(cmd), lusctl::StatusText(s));
   }

   // ---- the host's side ---------------------------------------------------------------------------
   void DoUnblockEvent(const Args &a) {
      Need(a, 1, "unblock-event PORT|PORTSET");
      for (hyk_PortID id : Ports(a.pos[0])) {
         uint32_t payload = id;
         hyksim::PostPortsetEvent(hyksim::FindPort(id)->portset, "com.corvid.tarn.kcp.port.unblock",
                                  &payload, sizeof(payload));
      }
   }
   void DoEnable(const Args &a) {
      Need(a, 1, "enable PORT|PORTSET");
      for (hyk_PortID id : Ports(a.pos[0])) hyksim::EnablePort(id);
   }
   void DoTakeover(const Args &a) {
      Need(a, 1, "takeover PORTSET build=N [threads=K]");
      Portset(a.pos[0]);
      if (!a.Has("build")) throw Fail{"takeover: build=N is needed"};
      const uint32_t threads = Whole<uint32_t>("threads", a.Get("threads", "2"), 1, opts.maxTakeoverThreads);
      Check(hyksim::TakeOverPortset(a.pos[0], Whole<uint32_t>("build", a.Get("build")), threads),
            "takeover " + a.pos[0]);
   }
   // `advance timer=MODULE [before=SECONDS]`: to just before the earliest
   // timer of MODULE that is pending (its deadline, less `before`), so that
   // it falls due in the middle of what comes next.
   void AdvanceToTimer(const Args &a) {
      auto m = hyksim::FindModule(a.Get("timer"));
      if (!m) throw Fail{fmt::format("advance: no module {} is loaded", a.Get("timer"))};
      uint64_t due = UINT64_MAX;
      for (const auto &t : hyksim::PendingTimers()) {
         if (t.owner == m->id) due = std::min(due, t.deadlineUS);
      }
      if (due == UINT64_MAX) throw Fail{fmt::format("advance: module {} has no timer pending", a.Get("timer"))};
      const uint64_t before = a.Has("before") ? Micros("before", a.Get("before"), kClockCeilingUS) : 0;
      const uint64_t now = hyksim::NowUS();
      if (due < now + before) {
         throw Fail{fmt::format("advance: {}'s timer is due in {}.{:06} s, less than before={}", a.Get("timer"),
                                (due - std::min(due, now)) / 1000000, (due - std::min(due, now)) % 1000000, a.Get("before"))};
      }
      hyksim::AdvanceClock(due - before - now);
   }

   void DoAdvance(const Args &a) {
      if (a.Has("timer")) return AdvanceToTimer(a);
      Need(a, 1, "advance SECONDS | advance timer=MODULE [before=SECONDS]");
      // The virtual clock only moves forward, and stops short of where the
      // host's counters (microseconds, and nanoseconds for the monotonic
      // counter) or a module's "now + timeout" would wrap.
      const uint64_t now = hyksim::NowUS();
      const uint64_t room = now < kClockCeilingUS ? kClockCeilingUS - now : 0;
      const uint64_t us = Micros("the seconds", a.pos[0], kClockCeilingUS);
      if (us > room) {
         throw Fail{fmt::format("advance {}: the host's clock would pass {} years (it stands at {}.{:06} s)", a.pos[0],
                                kClockCeilingUS / kYearUS, now / 1000000, now % 1000000)};
      }
      hyksim::AdvanceClock(us);
   }
   void DoFault(const Args &a) {
      Need(a, 1, "fault OP [nth=N | from=N | every | probability=P [seed=S]] [status=S] [count=N]");
      hyksim::FaultSpec f;
      f.op = a.pos[0];
      if (f.op.rfind("hyk_", 0) != 0 && f.op != "PFilter_TblRevalidateVmPort") {
         throw Fail{fmt::format("unknown host operation '{}': faults are injected into hyk_ operations", f.op)};
      }
      f.nth = a.Has("nth") ? Whole("nth", a.Get("nth")) : 0;
      f.from = a.Has("from") ? Whole("from", a.Get("from")) : 0;
      f.every = std::find(a.pos.begin(), a.pos.end(), "every") != a.pos.end();
      if (a.Has("probability")) {
         std::string error;
         if (!lusinput::ParseFraction(a.Get("probability"), "probability", 0.0, 1.0, &f.probability, &error)) {
            throw Fail{error};
         }
      }
      f.seed = a.Has("seed") ? Whole("seed", a.Get("seed")) : opts.seed;
      f.count = a.Has("count") ? Whole("count", a.Get("count")) : 0;
      if (a.Has("status")) f.status = StatusOf(a.Get("status"));
      if (f.nth == 0 && f.from == 0 && !f.every && f.probability <= 0) f.nth = 1;
      hyksim::InjectFault(f);
   }

   // ---- expectations -------------------------------------------------------------------------------
   void DoExpect(const Args &a) {
      Need(a, 1, "expect status|exit|log|no-log|blocked|blocked-time|heap|use-count|ledger|output|intact ...");
      const std::string what = a.pos[0];
      if (what == "status") {
         Need(a, 2, "expect status STATUS");
         if (!L().status) throw Fail{"expect status: no command has run yet"};
         hyk_Status want = StatusOf(a.pos[1]);
         if (*L().status != want) {
            throw Fail{fmt::format("expected status {}, got {}", lusctl::StatusText(want), lusctl::StatusText(*L().status))};
         }
      } else if (what == "exit") {
         Need(a, 2, "expect exit N");
         if (!L().exit) throw Fail{"expect exit: lusctl has not run yet"};
         if (*L().exit != Whole<int>("the exit code", a.pos[1], 0, 255)) {
            throw Fail{fmt::format("expected lusctl to exit {}, it exited {}", a.pos[1], *L().exit)};
         }
      } else if (what == "log" || what == "no-log") {
         Need(a, 2, "expect log \"TEXT\" [count=N]");
         const size_t n = hyksim::LogCount(a.pos[1]);
         if (what == "no-log" && n != 0) throw Fail{fmt::format("expected no log line with \"{}\", found {}", a.pos[1], n)};
         if (what == "log") {
            if (a.Has("count") && n != Whole("count", a.Get("count"))) {
               throw Fail{fmt::format("expected {} log line(s) with \"{}\", found {}", a.Get("count"), a.pos[1], n)};
            }
            if (!a.Has("count") && n == 0) throw Fail{fmt::format("expected a log line with \"{}\", found none", a.pos[1])};
         }
      } else if (what == "blocked") {
         Need(a, 2, "expect blocked PORT|PORTSET [yes|no]");
         const bool want = a.pos.size() < 3 || YesNo("blocked", a.pos[2]);
         for (hyk_PortID id : Ports(a.pos[1])) {
            const bool is = (hyksim::FindPort(id)->blockReasons & HYK_PORT_BLOCK_CUSTOM) != 0;
            if (is != want) throw Fail{fmt::format("port {} is {}blocked", id, is ? "" : "not ")};
         }
      } else if (what == "blocked-time") {
         Need(a, 2, "expect blocked-time PORT [min=S] [max=S]");
         for (hyk_PortID id : Ports(a.pos[1])) {
            auto p = hyksim::FindPort(id);
            if (p->blocked.empty()) throw Fail{fmt::format("port {} was never blocked", id)};
            const auto &b = p->blocked.back();
            const uint64_t us = (b.open ? hyksim::NowUS() : b.toUS) - b.fromUS;
            const double s = static_cast<double>(us) / 1e6;
            if (a.Has("min") && us < Micros("min", a.Get("min"), kClockCeilingUS)) throw Fail{fmt::format("port {} was blocked {:.3f} s, less than {}", id, s, a.Get("min"))};
            if (a.Has("max") && us > Micros("max", a.Get("max"), kClockCeilingUS)) throw Fail{fmt::format("port {} was blocked {:.3f} s, more than {}", id, s, a.Get("max"))};
         }
      } else if (what == "heap") {
         Need(a, 2, "expect heap NAME [bytes=N] [max=N]");
         auto h = hyksim::FindHeap(a.pos[1]);
         const uint64_t used = h ? h->bytesInUse : 0;
         if (a.Has("bytes") && used != Whole("bytes", a.Get("bytes"))) throw Fail{fmt::format("heap {} holds {} bytes, not {}", a.pos[1], used, a.Get("bytes"))};
         if (a.Has("max") && used > Whole("max", a.Get("max"))) throw Fail{fmt::format("heap {} holds {} bytes, more than {}", a.pos[1], used, a.Get("max"))};
      } else if (what == "use-count") {
         Need(a, 3, "expect use-count MODULE N");
         auto m = hyksim::FindModule(a.pos[1]);
         if (!m) throw Fail{fmt::format("no module {} is loaded", a.pos[1])};
         if (m->useCount != Whole<uint32_t>("the use count", a.pos[2])) throw Fail{fmt::format("module {} has use count {}, not {}", a.pos[1], m->useCount, a.pos[2])};
      } else if (what == "ledger") {
         ExpectLedger(a);
      } else if (what == "intact") {
         ExpectIntact();
      } else if (what == "output") {
         Need(a, 2, "expect output \"TEXT\"");
         if (L().output.find(a.pos[1]) == std::string::npos) throw Fail{fmt::format("lusctl's output has no \"{}\"", a.pos[1])};
      } else {
         throw Fail{fmt::format("unknown expectation '{}'", what)};
      }
   }

   // Every byte an old client saved reached the new client unchanged or was
   // reported dropped by lus, and lus unblocked no port without its state:
   // from the clients' ledger and lus's drop and unblock lines.  While lus is
   // loaded, a blocked port's state may still be held: not yet wrong.  (A
   // port whose state lus dropped may pass traffic all the same once lus is
   // gone: the new datapath carries it, without that state, reported.)  The
   // per-portset upgrade drops its portset-phase clients' per-port copies by
   // design (lusDeleteEntryV1): their state went over in the upgrade world.
   // So may a port whose client's state lus dropped, reported, before any
   // clear began (a save that failed for that client): the port goes on
   // without it, by the module's design.  A state the clear dropped, on a
   // port lus then unblocked, is the race this check is for.
   void ExpectIntact() {
      static const std::regex droppedLine(
         R"(Dropped saved state of port 0x([0-9a-f]+) client (\S+): ([0-9]+) bytes never restored)");
      static const std::regex unblockLine(R"(Custom Unblock port: 0x([0-9a-f]+))");
      std::map<std::pair<uint32_t, std::string>, uint64_t> drops, byDesign;
      std::set<uint32_t> unblockedByLus;
      bool clearing = false;
      for (const auto &line : hyksim::LogLines()) {
         std::smatch m;
         if (line.text.find("Clearing LUS Client data ...") != std::string::npos) clearing = true;
         if (std::regex_search(line.text, m, unblockLine)) {
            unblockedByLus.insert(static_cast<uint32_t>(std::stoul(m[1].str(), nullptr, 16)));
         }
         if (!std::regex_search(line.text, m, droppedLine)) continue;
         const std::pair<uint32_t, std::string> key{static_cast<uint32_t>(std::stoul(m[1].str(), nullptr, 16)), m[2].str()};
         drops[key] += std::stoull(m[3].str());
         if (line.text.rfind("lusDeleteEntryV1:", 0) == 0 || !clearing) byDesign[key] += std::stoull(m[3].str());
      }
      const bool lusLoaded = hyksim::FindModule("lus").has_value();
      std::vector<std::string> wrong;
      for (const auto &c : hyksim::Ledger()) {
         for (const auto &[port, k] : c.ports) {
            const uint64_t saved = k[HYKSIM_LEDGER_SAVED], verified = k[HYKSIM_LEDGER_VERIFIED];
            const uint64_t drop = drops[{port, c.client}];
            if (k[HYKSIM_LEDGER_MISMATCHED] != 0) {
               wrong.push_back(fmt::format("port {} client {}: {} bytes restored changed", port, c.client, k[HYKSIM_LEDGER_MISMATCHED]));
            }
            if (saved == 0) continue;
            auto p = hyksim::FindPort(port);
            const bool blocked = p && (p->blockReasons & HYK_PORT_BLOCK_CUSTOM) != 0;
            if (verified + drop != saved && !(blocked && lusLoaded)) {
               wrong.push_back(fmt::format("port {} client {}: {} bytes saved, {} restored intact, {} reported dropped",
                                           port, c.client, saved, verified, drop));
            }
            if (unblockedByLus.count(port) != 0 && verified + byDesign[{port, c.client}] != saved) {
               wrong.push_back(fmt::format("lus unblocked port {} without its state of client {} ({} of {} bytes restored intact)",
                                           port, c.client, verified, saved));
            }
         }
      }
      if (!wrong.empty()) {
         throw Fail{fmt::format("state not intact ({} finding(s)): {}", wrong.size(),
                                fmt::join(wrong.begin(), wrong.begin() + std::min<size_t>(wrong.size(), 4), "; "))};
      }
   }

   void ExpectLedger(const Args &a) {
      Need(a, 3, "expect ledger CLIENT KIND [scope=PORTSET|global] [ports=N] [bytes=N] [same-as=KIND]");
      auto kindOf = [](const std::string &k) {
         for (uint32_t i = 0; i < HYKSIM_LEDGER_NUM_KINDS; i++) {
            if (k == hyksim::LedgerKindName(i)) return i;
         }
         throw Fail{fmt::format("unknown ledger figure '{}': saved, restored, verified, converted, mismatched or refused", k)};
      };
      auto v = hyksim::LedgerOf(a.pos[1]);
      const uint32_t k = kindOf(a.pos[2]);
      // scope=NAME: the portset's state, or "global"; otherwise per-port state.
      hyksim::LedgerCount scoped;
      if (a.Has("scope")) {
         scoped.bytes = v.scopes[a.Get("scope")][k];
         scoped.ports = scoped.bytes != 0 ? 1 : 0;
      }
      const auto &c = a.Has("scope") ? scoped : v.perPort[k];
      if (a.Has("ports") && c.ports != Whole("ports", a.Get("ports"))) throw Fail{fmt::format("{} {}: {} ports, not {}", a.pos[1], a.pos[2], c.ports, a.Get("ports"))};
      if (a.Has("bytes") && c.bytes != Whole("bytes", a.Get("bytes"))) throw Fail{fmt::format("{} {}: {} bytes, not {}", a.pos[1], a.pos[2], c.bytes, a.Get("bytes"))};
      if (a.Has("same-as")) {
         hyksim::LedgerCount other;
         if (a.Has("scope")) {
            other.bytes = v.scopes[a.Get("scope")][kindOf(a.Get("same-as"))];
            other.ports = other.bytes != 0 ? 1 : 0;
         }
         const auto &o = a.Has("scope") ? other : v.perPort[kindOf(a.Get("same-as"))];
         if (c.bytes != o.bytes || c.ports != o.ports) {
            throw Fail{fmt::format("{} {} ({} ports, {} bytes) differs from {} ({} ports, {} bytes)", a.pos[1], a.pos[2],
                                   c.ports, c.bytes, a.Get("same-as"), o.ports, o.bytes)};
         }
      }
      if (!a.Has("ports") && !a.Has("bytes") && !a.Has("same-as") && c.bytes == 0) {
         throw Fail{fmt::format("{} {}: nothing", a.pos[1], a.pos[2])};
      }
   }

   void DoReport(const Args &a) {
      if (!L().report) throw Fail{"report: no upgrade has run yet (lusctl upgrade ...)"};
      // With files to write, only say where they went: the tool printed its report already.
      if (a.kv.empty()) {
         lusctl::PrintSummary(Out(), *L().report);
         lusctl::PrintTables(Out(), *L().report);
      }
      auto write = [&](const char *key, const std::string &text) {
         if (!a.Has(key)) return;
         std::string path = a.Get(key);
         if (!path.empty() && path[0] != '/') path = opts.reportDir + "/" + path;
         std::string why;
         if (!WriteWholeFile(path, text, &why)) throw Fail{fmt::format("report: cannot write {}: {}", path, why)};
         Out() << fmt::format("wrote {}\n", path);
      };
      write("json", lusctl::ReportJson(*L().report));
      write("trace", lusctl::TraceJson(*L().report));
      write("chart", lusctl::ChartSvg(*L().report));
   }

   // ---- concurrent activity ----------------------------------------------------------------
   // Commands a spawned thread may run: those that act on the host through
   // its thread-safe control API or the device, never the script's own names.
   static bool Spawnable(const std::string &cmd) {
      static const std::set<std::string> ok = {"lusctl", "ioctl", "unblock-event", "enable", "takeover",
                                               "advance", "load", "unload", "set", "echo", "try"};
      return ok.count(cmd) != 0;
   }

   void DoSpawn(const std::vector<std::string> &words) {
      if (words.size() < 3) throw Fail{"missing argument; usage: spawn NAME [after=SECONDS] COMMAND [ARGS...]"};
      const std::string &name = words[1];
      // after=SECONDS: the thread first waits that long on the host's clock.
      size_t first = 2;
      uint64_t afterUS = 0;
      if (words[2].rfind("after=", 0) == 0) {
         afterUS = Micros("after", words[2].substr(6), kClockCeilingUS);
         first = 3;
         if (words.size() < 4) throw Fail{"missing argument; usage: spawn NAME [after=SECONDS] COMMAND [ARGS...]"};
      }
      for (const auto &sp : spawned) {
         if (sp->name == name) throw Fail{fmt::format("spawn {}: a command of that name runs already (wait {} first)", name, name)};
      }
      if (std::find(kCommands.begin(), kCommands.end(), words[first]) == kCommands.end()) {
         throw Fail{fmt::format("spawn {}: unknown command '{}' (try help)", name, words[first])};
      }
      if (!Spawnable(words[first])) {
         throw Fail{fmt::format("spawn {}: '{}' cannot run alongside the script; these can: lusctl, ioctl, "
                                "unblock-event, enable, takeover, advance, load, unload, set, echo, try", name, words[first])};
      }
      auto sp = std::make_unique<Spawned>();
      sp->name = name;
      std::vector<std::string> command(words.begin() + static_cast<std::ptrdiff_t>(first), words.end());
      sp->command = fmt::format("{}", fmt::join(command, " "));
      Spawned *raw = sp.get();
      spawned.push_back(std::move(sp));
      raw->thread = hyksim::HostThread("spawn " + name, [this, raw, command, afterUS] {
         tLast = &raw->last;
         tOut = &raw->out;
         try {
            if (afterUS != 0) hyksim::AdvanceClock(afterUS);
            Run(command);
         } catch (const Fail &f) {
            raw->error = f.why;
         } catch (const std::exception &e) {
            raw->error = e.what();
         }
         tLast = nullptr;
         tOut = nullptr;
      });
   }

   // Waits for spawned commands (the named ones, or all, in the order they
   // were spawned), prints what each printed, and leaves the last one's
   // status, exit and output to `expect`.  A spawned command that failed
   // fails the wait, after every one named has ended.
   void DoWait(const Args &a) {
      std::vector<std::unique_ptr<Spawned>> done;
      for (const auto &name : a.pos) {
         if (std::none_of(spawned.begin(), spawned.end(), [&](const auto &sp) { return sp->name == name; })) {
            throw Fail{fmt::format("wait: nothing spawned is named '{}'", name)};
         }
      }
      for (auto it = spawned.begin(); it != spawned.end();) {
         if (!a.pos.empty() && std::find(a.pos.begin(), a.pos.end(), (*it)->name) == a.pos.end()) {
            ++it;
            continue;
         }
         (*it)->thread.Join();
         done.push_back(std::move(*it));
         it = spawned.erase(it);
      }
      std::string failed;
      for (const auto &sp : done) {
         Out() << sp->out.str();
         mainLast = std::move(sp->last);
         if (!sp->error.empty() && failed.empty()) failed = fmt::format("spawn {} ({}): {}", sp->name, sp->command, sp->error);
      }
      if (!failed.empty()) throw Fail{failed};
   }

   // `try COMMAND...`: a command whose failure is an outcome, not the
   // script's end (an unload that may find its module in use, say): what
   // failed is printed, and `expect status` sees the status.
   void DoTry(const std::vector<std::string> &words) {
      if (words.size() < 2) throw Fail{"missing argument; usage: try COMMAND [ARGS...]"};
      const std::string &inner = words[1];
      // An expectation or a misspelt command under try would pass unseen.
      if (inner == "try" || inner == "spawn" || inner == "wait" || inner == "expect") {
         throw Fail{fmt::format("try: '{}' cannot be tried", inner)};
      }
      if (std::find(kCommands.begin(), kCommands.end(), inner) == kCommands.end()) {
         throw Fail{fmt::format("try: unknown command '{}' (try help)", inner)};
      }
      // On a spawned thread only what may run alongside the script.
      if (tLast != nullptr && !Spawnable(inner)) {
         throw Fail{fmt::format("try: '{}' cannot run alongside the script", inner)};
      }
      try {
         Run(std::vector<std::string>(words.begin() + 1, words.end()));
      } catch (const Fail &f) {
         Out() << "tried: " << f.why << "\n";
      }
   }

   // What a script left running when it ended is waited for: the host must
   // not stop under it.  Returns "" or why one of them failed.
   std::string WaitForAll() {
      try {
         DoWait(Args{});
      } catch (const Fail &f) {
         return f.why;
      }
      return "";
   }

   void Run(const std::vector<std::string> &words) {
      const std::string &cmd = words[0];
      Args a = Parse(words, 1);
      static const std::map<std::string, std::function<void(Impl *, const Args &)>> table = {
         {"portset", &Impl::DoPortset},   {"ports", &Impl::DoPorts},       {"load", &Impl::DoLoad},
         {"unload", &Impl::DoUnload},     {"set", &Impl::DoSet},           {"ioctl", &Impl::DoIoctl},
         {"unblock-event", &Impl::DoUnblockEvent}, {"enable", &Impl::DoEnable},
         {"takeover", &Impl::DoTakeover}, {"advance", &Impl::DoAdvance},  {"fault", &Impl::DoFault},
         {"expect", &Impl::DoExpect},     {"report", &Impl::DoReport}};
      if (cmd == "lusctl") {
         DoLusctl(words);
      } else if (cmd == "spawn") {
         DoSpawn(words);
      } else if (cmd == "try") {
         DoTry(words);
      } else if (cmd == "wait") {
         DoWait(a);
      } else if (cmd == "clear-faults") {
         hyksim::ClearFaults();
      } else if (cmd == "echo") {
         std::string text;
         for (size_t i = 1; i < words.size(); i++) text += (i > 1 ? " " : "") + words[i];
         Out() << text << "\n";
      } else if (cmd == "help") {
         Out() << Help();
      } else {
         auto it = table.find(cmd);
         if (it == table.end()) throw Fail{fmt::format("unknown command '{}' (try help)", cmd)};
         it->second(this, a);
      }
   }
};

thread_local Interpreter::Impl::Last *Interpreter::Impl::tLast = nullptr;
thread_local std::ostream *Interpreter::Impl::tOut = nullptr;

Interpreter::Interpreter(const ScenarioOptions &opts, std::ostream &out)
   : impl_(std::make_unique<Impl>(opts, out)) {}
Interpreter::~Interpreter() { impl_->WaitForAll(); }

std::string Interpreter::Execute(const std::string &line) {
   std::vector<std::string> words;
   std::string error;
   if (!SplitWords(line, &words, &error)) return error;
   if (words.empty()) return "";
   try {
      // "@PORTSET#INDEX" anywhere in a word stands for that port's ID.
      // Built anew left to right: a word of many references costs its length, not its square.
      for (auto &w : words) {
         if (w.find('@') == std::string::npos) continue;
         std::string out;
         size_t from = 0;
         for (size_t at = w.find('@'); at != std::string::npos; at = w.find('@', from)) {
            const size_t end = w.find_first_of(" ,=", at + 1);
            const std::string ref = w.substr(at + 1, end == std::string::npos ? std::string::npos : end - at - 1);
            out.append(w, from, at - from);
            out += std::to_string(impl_->Port(ref));
            from = at + 1 + ref.size();
         }
         out.append(w, from, std::string::npos);
         w.swap(out);
      }
      impl_->Run(words);
   } catch (const Fail &f) {
      return f.why;
   }
   return "";
}

bool Interpreter::RunFile(const std::string &path) {
   const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0) {
      impl_->out << fmt::format("{}: cannot open: {}\n", path, std::strerror(errno));
      return false;
   }
   const bool ok = RunLines(path, [fd](char *buf, size_t n) { return read(fd, buf, n); });
   close(fd);
   return ok;
}

bool Interpreter::RunText(const std::string &name, const std::string &text) {
   size_t at = 0;
   return RunLines(name, [&](char *buf, size_t n) {
      n = std::min(n, text.size() - at);
      std::memcpy(buf, text.data() + at, n);
      at += n;
      return static_cast<ssize_t>(n);
   });
}

// A read error, or a line longer than the limit, ends the run as a failure
// at that line: the expectations after it never ran, so the file did not pass.
bool Interpreter::RunLines(const std::string &name, const std::function<ssize_t(char *, size_t)> &source) {
   LineReader reader(source, impl_->opts.maxLineBytes);
   std::string line;
   for (uint64_t n = 1;; n++) {
      switch (reader.Next(&line)) {
         case LineReader::kEnd: {
            const std::string why = impl_->WaitForAll();
            if (!why.empty()) impl_->out << fmt::format("{}:{}: {}\n", name, n, why);
            return why.empty();
         }
         case LineReader::kError:
            impl_->out << fmt::format("{}:{}: cannot read: {}\n", name, n, std::strerror(reader.error()));
            return false;
         case LineReader::kTooLong:
            impl_->out << fmt::format("{}:{}: a line longer than {} bytes\n", name, n, impl_->opts.maxLineBytes);
            return false;
         case LineReader::kLine:
            break;
      }
      std::string why = Execute(line);
      if (!why.empty()) {
         impl_->out << fmt::format("{}:{}: {}\n", name, n, why);
         impl_->WaitForAll();
         return false;
      }
   }
}

const std::vector<std::string> &Interpreter::CommandNames() { return kCommands; }

std::string Interpreter::Help() {
   return R"(commands (docs/USER_GUIDE.md has each with an example):
  portset NAME [class=C] [module=M] [version=N] [fdp=yes]
  ports PORTSET N [vms=M] [type=vnic|container|uplink] [lspg=yes] [external-id=S] [filter=S] [fabric-port-id=S]
  load lus [build=N] [PARAM=V...]        load client NAME build=N [seed=S] [PARAM=V...]
  unload MODULE                          set MODULE PARAM=V...
  lusctl ARGS...                         ioctl CMD [hex=BYTES] [length=N]
  unblock-event PORT|PORTSET             enable PORT|PORTSET
  takeover PORTSET build=N [threads=K]   advance SECONDS | advance timer=MODULE [before=SECONDS]
  fault OP [nth=N|from=N|every|probability=P [seed=S]] [status=S] [count=N]     clear-faults
  expect status S | exit N | log "TEXT" [count=N] | no-log "TEXT" | blocked PORT|PORTSET [yes|no]
         | blocked-time PORT [min=S] [max=S] | heap NAME [bytes=N] [max=N] | use-count MODULE N
         | ledger CLIENT KIND [scope=PORTSET|global] [ports=N] [bytes=N] [same-as=KIND] | output "TEXT"
         | intact
  report [json=FILE] [trace=FILE] [chart=FILE]
  try COMMAND [ARGS...]                  a command whose failure is printed, not the end of the script
  spawn NAME [after=SECONDS] COMMAND [ARGS...]
                                         run COMMAND on a host thread of its own, alongside what follows
  wait [NAME...]                         wait for spawned commands; then expect looks at the last one
  echo TEXT                              help
ports are IDs or PORTSET#INDEX (the INDEX-th port made in PORTSET, from 0); @PORTSET#INDEX
anywhere in a word (a module parameter, a lusctl argument) stands for that port's ID
)";
}

std::vector<std::string> Interpreter::Names() {
   std::vector<std::string> out;
   for (const auto &[name, ids] : impl_->ports) out.push_back(name);
   for (const auto &m : hyksim::Modules()) out.push_back(m.name);
   for (const char *w : {"status", "exit", "log", "no-log", "blocked", "blocked-time", "heap",
                         "use-count", "ledger", "output", "build=", "seed=", "upgrade", "classic"}) {
      out.push_back(w);
   }
   return out;
}

}  // namespace hyksimtool
