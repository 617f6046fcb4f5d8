// scenario.cpp -- the interpreter of the scenario language (scenario.h).
// Every command acts on the simulated host of this process through its
// control API, runs the upgrade tool in-process as a user process of that
// host, or checks an expectation against what the host shows.
#include "scenario.h"

#include <fmt/format.h>

#include <cmath>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>

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

uint64_t Number(const std::string &what, const std::string &v) {
   char *end = nullptr;
   errno = 0;
   unsigned long long n = std::strtoull(v.c_str(), &end, 0);
   if (v.empty() || *end != '\0' || errno != 0 || v[0] == '-') {
      throw Fail{fmt::format("bad value '{}' for {}: a number is needed", v, what)};
   }
   return n;
}

double Real(const std::string &what, const std::string &v) {
   char *end = nullptr;
   double d = std::strtod(v.c_str(), &end);
   if (v.empty() || *end != '\0' || !std::isfinite(d) || d < 0) {
      throw Fail{fmt::format("bad value '{}' for {}: a non-negative number is needed", v, what)};
   }
   return d;
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
   return static_cast<hyk_Status>(Number("a status", v));
}

const std::vector<std::string> kCommands = {
   "portset", "ports", "load", "unload", "set", "lusctl", "ioctl", "unblock-event", "enable",
   "takeover", "advance", "fault", "clear-faults", "expect", "report", "echo", "help"};

}  // namespace

struct Interpreter::Impl {
   ScenarioOptions opts;
   std::ostream &out;
   std::unique_ptr<lusctl::Host> host;
   lusctl::Environment env;
   std::map<std::string, std::vector<hyk_PortID>> ports;   // by portset, in order of creation
   std::optional<hyk_Status> lastStatus;
   std::optional<int> lastExit;
   std::string lastOutput;
   std::optional<lusctl::Report> lastReport;

   Impl(const ScenarioOptions &o, std::ostream &os) : opts(o), out(os) {
      host = lusctl::MakeSimHost(opts.moduleDir);
      env.host = host.get();
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
         uint64_t i = Number("a port index", ref.substr(hash + 1));
         if (i >= ids.size()) {
            throw Fail{fmt::format("unknown port '{}': portset {} has {} ports", ref, ref.substr(0, hash), ids.size())};
         }
         return ids[i];
      }
      hyk_PortID id = static_cast<hyk_PortID>(Number("a port", ref));
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
   void DoPortset(const Args &a) {
      Need(a, 1, "portset NAME [class=C] [module=M] [version=N] [fdp=yes]");
      hyksim::PortsetSpec d;
      d.name = a.pos[0];
      d.className = a.Get("class", "etherswitch");
      d.classModule = a.Get("module");
      d.fabricVersion = static_cast<uint32_t>(Number("version", a.Get("version", "107")));
      d.fastDatapath = a.Has("fdp") && YesNo("fdp", a.Get("fdp"));
      Check(hyksim::AddPortset(d), "portset " + d.name);
      ports[d.name];
   }

   void DoPorts(const Args &a) {
      Need(a, 2, "ports PORTSET N [vms=M] [type=vnic|container|uplink] [lspg=yes] [external-id=S] [filter=S]");
      const std::string ps = a.pos[0];
      Portset(ps);
      const uint64_t n = Number("the port count", a.pos[1]);
      const uint64_t vms = a.Has("vms") ? Number("vms", a.Get("vms")) : n;
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
      std::string file;
      if (name == "lus") {
         file = "lus-" + a.Get("build", "2000");
      } else {
         if (!a.Has("build")) throw Fail{"load " + name + ": build=N is needed"};
         file = fmt::format("{}-{}", name, a.Get("build"));
      }
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
      lastStatus = s;
      if (s != HYK_OK) throw Fail{fmt::format("load {}: {}{}", file, lusctl::StatusText(s), error.empty() ? "" : " (" + error + ")")};
   }

   void DoUnload(const Args &a) {
      Need(a, 1, "unload MODULE");
      hyk_Status s = host->UnloadModule(a.pos[0]);
      lastStatus = s;
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
      lastExit = code;
      lastOutput = o.str();
      out << lastOutput;
      if (!report.flow.empty()) lastReport = report;
   }

   void DoIoctl(const Args &a) {
      Need(a, 1, "ioctl CMD [hex=BYTES] [length=N]");
      const uint32_t cmd = static_cast<uint32_t>(Number("the command", a.pos[0]));
      std::vector<uint8_t> payload;
      if (!lusctl::BytesOfHex(a.Get("hex"), &payload)) {
         throw Fail{"hex=: an even number of hexadecimal digits is needed"};
      }
      const uint32_t length = a.Has("length") ? static_cast<uint32_t>(Number("length", a.Get("length")))
                                              : static_cast<uint32_t>(payload.size());
      auto dev = env.openDevice();
      hyk_Status s = dev->Open();
      if (s == HYK_OK) s = dev->Ioctl(cmd, payload, length);
      dev->Close();
      lastStatus = s;
      out << fmt::format("{}: {}\n", lusctl::CommandLabel(cmd), lusctl::StatusText(s));
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
      const unsigned threads = static_cast<unsigned>(Number("threads", a.Get("threads", "2")));
      if (threads == 0) throw Fail{"takeover: threads must be at least 1"};
      Check(hyksim::TakeOverPortset(a.pos[0], static_cast<uint32_t>(Number("build", a.Get("build"))), threads),
            "takeover " + a.pos[0]);
   }
   void DoAdvance(const Args &a) {
      Need(a, 1, "advance SECONDS");
      hyksim::AdvanceClock(static_cast<uint64_t>(Real("the seconds", a.pos[0]) * 1e6));
   }
   void DoFault(const Args &a) {
      Need(a, 1, "fault OP [nth=N | from=N | every | probability=P [seed=S]] [status=S] [count=N]");
      hyksim::FaultSpec f;
      f.op = a.pos[0];
      if (f.op.rfind("hyk_", 0) != 0 && f.op != "PFilter_TblRevalidateVmPort") {
         throw Fail{fmt::format("unknown host operation '{}': faults are injected into hyk_ operations", f.op)};
      }
      f.nth = a.Has("nth") ? Number("nth", a.Get("nth")) : 0;
      f.from = a.Has("from") ? Number("from", a.Get("from")) : 0;
      f.every = std::find(a.pos.begin(), a.pos.end(), "every") != a.pos.end();
      f.probability = a.Has("probability") ? Real("probability", a.Get("probability")) : 0.0;
      f.seed = a.Has("seed") ? Number("seed", a.Get("seed")) : opts.seed;
      f.count = a.Has("count") ? Number("count", a.Get("count")) : 0;
      if (a.Has("status")) f.status = StatusOf(a.Get("status"));
      if (f.nth == 0 && f.from == 0 && !f.every && f.probability <= 0) f.nth = 1;
      hyksim::InjectFault(f);
   }

   // ---- expectations -------------------------------------------------------------------------------
   void DoExpect(const Args &a) {
      Need(a, 1, "expect status|exit|log|no-log|blocked|blocked-time|heap|use-count|ledger|output ...");
      const std::string what = a.pos[0];
      if (what == "status") {
         Need(a, 2, "expect status STATUS");
         if (!lastStatus) throw Fail{"expect status: no command has run yet"};
         hyk_Status want = StatusOf(a.pos[1]);
         if (*lastStatus != want) {
            throw Fail{fmt::format("expected status {}, got {}", lusctl::StatusText(want), lusctl::StatusText(*lastStatus))};
         }
      } else if (what == "exit") {
         Need(a, 2, "expect exit N");
         if (!lastExit) throw Fail{"expect exit: lusctl has not run yet"};
         if (static_cast<uint64_t>(*lastExit) != Number("the exit code", a.pos[1])) {
            throw Fail{fmt::format("expected lusctl to exit {}, it exited {}", a.pos[1], *lastExit)};
         }
      } else if (what == "log" || what == "no-log") {
         Need(a, 2, "expect log \"TEXT\" [count=N]");
         const size_t n = hyksim::LogCount(a.pos[1]);
         if (what == "no-log" && n != 0) throw Fail{fmt::format("expected no log line with \"{}\", found {}", a.pos[1], n)};
         if (what == "log") {
            if (a.Has("count") && n != Number("count", a.Get("count"))) {
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
            const double s = static_cast<double>((b.open ? hyksim::NowUS() : b.toUS) - b.fromUS) / 1e6;
            if (a.Has("min") && s < Real("min", a.Get("min"))) throw Fail{fmt::format("port {} was blocked {:.3f} s, less than {}", id, s, a.Get("min"))};
            if (a.Has("max") && s > Real("max", a.Get("max"))) throw Fail{fmt::format("port {} was blocked {:.3f} s, more than {}", id, s, a.Get("max"))};
         }
      } else if (what == "heap") {
         Need(a, 2, "expect heap NAME [bytes=N] [max=N]");
         auto h = hyksim::FindHeap(a.pos[1]);
         const uint64_t used = h ? h->bytesInUse : 0;
         if (a.Has("bytes") && used != Number("bytes", a.Get("bytes"))) throw Fail{fmt::format("heap {} holds {} bytes, not {}", a.pos[1], used, a.Get("bytes"))};
         if (a.Has("max") && used > Number("max", a.Get("max"))) throw Fail{fmt::format("heap {} holds {} bytes, more than {}", a.pos[1], used, a.Get("max"))};
      } else if (what == "use-count") {
         Need(a, 3, "expect use-count MODULE N");
         auto m = hyksim::FindModule(a.pos[1]);
         if (!m) throw Fail{fmt::format("no module {} is loaded", a.pos[1])};
         if (m->useCount != Number("the use count", a.pos[2])) throw Fail{fmt::format("module {} has use count {}, not {}", a.pos[1], m->useCount, a.pos[2])};
      } else if (what == "ledger") {
         ExpectLedger(a);
      } else if (what == "output") {
         Need(a, 2, "expect output \"TEXT\"");
         if (lastOutput.find(a.pos[1]) == std::string::npos) throw Fail{fmt::format("lusctl's output has no \"{}\"", a.pos[1])};
      } else {
         throw Fail{fmt::format("unknown expectation '{}'", what)};
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
      if (a.Has("ports") && c.ports != Number("ports", a.Get("ports"))) throw Fail{fmt::format("{} {}: {} ports, not {}", a.pos[1], a.pos[2], c.ports, a.Get("ports"))};
      if (a.Has("bytes") && c.bytes != Number("bytes", a.Get("bytes"))) throw Fail{fmt::format("{} {}: {} bytes, not {}", a.pos[1], a.pos[2], c.bytes, a.Get("bytes"))};
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
      if (!lastReport) throw Fail{"report: no upgrade has run yet (lusctl upgrade ...)"};
      // With files to write, only say where they went: the tool printed its report already.
      if (a.kv.empty()) {
         lusctl::PrintSummary(out, *lastReport);
         lusctl::PrintTables(out, *lastReport);
      }
      auto write = [&](const char *key, const std::string &text) {
         if (!a.Has(key)) return;
         std::string path = a.Get(key);
         if (!path.empty() && path[0] != '/') path = opts.reportDir + "/" + path;
         std::ofstream f(path);
         if (!(f << text)) throw Fail{fmt::format("report: cannot write {}", path)};
         out << fmt::format("wrote {}\n", path);
      };
      write("json", lusctl::ReportJson(*lastReport));
      write("trace", lusctl::TraceJson(*lastReport));
      write("chart", lusctl::ChartSvg(*lastReport));
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
      } else if (cmd == "clear-faults") {
         hyksim::ClearFaults();
      } else if (cmd == "echo") {
         std::string text;
         for (size_t i = 1; i < words.size(); i++) text += (i > 1 ? " " : "") + words[i];
         out << text << "\n";
      } else if (cmd == "help") {
         out << Help();
      } else {
         auto it = table.find(cmd);
         if (it == table.end()) throw Fail{fmt::format("unknown command '{}' (try help)", cmd)};
         it->second(this, a);
      }
   }
};

Interpreter::Interpreter(const ScenarioOptions &opts, std::ostream &out)
   : impl_(std::make_unique<Impl>(opts, out)) {}
Interpreter::~Interpreter() = default;

std::string Interpreter::Execute(const std::string &line) {
   std::vector<std::string> words;
   std::string error;
   if (!SplitWords(line, &words, &error)) return error;
   if (words.empty()) return "";
   try {
      // "@PORTSET#INDEX" anywhere in a word stands for that port's ID.
      for (auto &w : words) {
         for (size_t at = w.find('@'); at != std::string::npos; at = w.find('@', at)) {
            size_t end = w.find_first_of(" ,=", at + 1);
            std::string ref = w.substr(at + 1, end == std::string::npos ? std::string::npos : end - at - 1);
            std::string id = std::to_string(impl_->Port(ref));
            w.replace(at, ref.size() + 1, id);
            at += id.size();
         }
      }
      impl_->Run(words);
   } catch (const Fail &f) {
      return f.why;
   }
   return "";
}

bool Interpreter::RunFile(const std::string &path) {
   std::ifstream f(path);
   if (!f) {
      impl_->out << fmt::format("{}: cannot open\n", path);
      return false;
   }
   std::string line;
   for (int n = 1; std::getline(f, line); n++) {
      std::string why = Execute(line);
      if (!why.empty()) {
         impl_->out << fmt::format("{}:{}: {}\n", path, n, why);
         return false;
      }
   }
   return true;
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
  takeover PORTSET build=N [threads=K]   advance SECONDS
  fault OP [nth=N|from=N|every|probability=P [seed=S]] [status=S] [count=N]     clear-faults
  expect status S | exit N | log "TEXT" [count=N] | no-log "TEXT" | blocked PORT|PORTSET [yes|no]
         | blocked-time PORT [min=S] [max=S] | heap NAME [bytes=N] [max=N] | use-count MODULE N
         | ledger CLIENT KIND [scope=PORTSET|global] [ports=N] [bytes=N] [same-as=KIND] | output "TEXT"
  report [json=FILE] [trace=FILE] [chart=FILE]
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
