// remote.cpp -- the tool's transport to a host served by `hyksim serve`,
// and the server's side of the same protocol.
//
// One Unix-socket connection carries everything: each request is one line
// of JSON ({"op": ...}), each answer one line of JSON.  The device is the
// connection's own (opened by "open", closed by "close" or when the
// connection goes); host views travel as JSON arrays of their fields.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cstring>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>

#include "input.h"
#include "tool.h"

namespace lusctl {

using nlohmann::json;

namespace {

json PortJson(const hyksim::PortView &p) {
   json blocked = json::array();
   for (const auto &b : p.blocked) blocked.push_back({b.fromUS, b.toUS, b.open});
   return {{"id", p.id}, {"portset", p.portset}, {"clientType", p.desc.clientType},
           {"vm", p.desc.vmUUID}, {"vnic", p.desc.vnicIndex},
           {"blockReasons", p.blockReasons}, {"blocked", blocked}};
}

hyksim::PortView PortFrom(const json &j) {
   hyksim::PortView p{};
   p.id = j.at("id");
   p.portset = j.at("portset");
   p.desc.clientType = j.at("clientType");
   p.desc.vmUUID = j.value("vm", std::string());
   p.desc.vnicIndex = j.value("vnic", 0u);
   p.blockReasons = j.at("blockReasons");
   p.passesTraffic = p.blockReasons == 0;
   for (const auto &b : j.at("blocked")) p.blocked.push_back({b.at(0), b.at(1), b.at(2)});
   return p;
}

json LedgerJson(const hyksim::LedgerClientView &v) {
   json ports = json::array(), scopes = json::array(), perPort = json::array(), shared = json::array();
   for (uint32_t k = 0; k < HYKSIM_LEDGER_NUM_KINDS; k++) {
      perPort.push_back({v.perPort[k].ports, v.perPort[k].bytes});
      shared.push_back({v.shared[k].ports, v.shared[k].bytes});
   }
   for (const auto &[port, b] : v.ports) ports.push_back({port, std::vector<uint64_t>(b.begin(), b.end())});
   for (const auto &[scope, b] : v.scopes) scopes.push_back({scope, std::vector<uint64_t>(b.begin(), b.end())});
   return {{"client", v.client}, {"perPort", perPort}, {"shared", shared}, {"ports", ports}, {"scopes", scopes}};
}

hyksim::LedgerClientView LedgerFrom(const json &j) {
   hyksim::LedgerClientView v;
   v.client = j.at("client");
   for (uint32_t k = 0; k < HYKSIM_LEDGER_NUM_KINDS; k++) {
      v.perPort[k] = {j.at("perPort").at(k).at(0), j.at("perPort").at(k).at(1)};
      v.shared[k] = {j.at("shared").at(k).at(0), j.at("shared").at(k).at(1)};
   }
   for (const auto &p : j.at("ports")) {
      auto &slot = v.ports[p.at(0).get<uint32_t>()];
      for (uint32_t k = 0; k < HYKSIM_LEDGER_NUM_KINDS; k++) slot[k] = p.at(1).at(k);
   }
   for (const auto &s : j.at("scopes")) {
      auto &slot = v.scopes[s.at(0).get<std::string>()];
      for (uint32_t k = 0; k < HYKSIM_LEDGER_NUM_KINDS; k++) slot[k] = s.at(1).at(k);
   }
   return v;
}

}  // namespace

// ---- the client side ---------------------------------------------------------------------

struct RemoteConnection {
   int fd = -1;
   std::string path;              // the host's socket, for the errors
   int timeoutMS = 30000;         // an answer later than this is no answer
   std::string buffered;
   std::mutex mu;

   ~RemoteConnection() {
      if (fd >= 0) close(fd);
   }
   // One request, one answer.  A broken connection, an answer that does not
   // come in time or is not JSON throws HostError naming the host and the
   // request: a host that answers no more cannot be reasoned about.
   json Call(const json &request) {
      std::lock_guard<std::mutex> lk(mu);
      const std::string op = request.value("op", std::string("?"));
      auto fail = [&](const std::string &why) {
         return HostError(fmt::format("the host at {} {} (request '{}')", path, why, op));
      };
      std::string line = request.dump() + "\n";
      if (send(fd, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size())) {
         throw fail("closed the connection");
      }
      for (;;) {
         auto nl = buffered.find('\n');
         if (nl != std::string::npos) {
            std::string answer = buffered.substr(0, nl);
            buffered.erase(0, nl + 1);
            json j = json::parse(answer, nullptr, false);
            if (j.is_discarded() || !j.is_object()) throw fail("answered something that is not a JSON object");
            return j;
         }
         pollfd p{fd, POLLIN, 0};
         const int ready = poll(&p, 1, timeoutMS);
         if (ready == 0) throw fail(fmt::format("did not answer within {} ms", timeoutMS));
         if (ready < 0 && errno != EINTR) throw fail(fmt::format("cannot be waited for: {}", std::strerror(errno)));
         if (ready < 0) continue;
         char buf[65536];
         ssize_t n = recv(fd, buf, sizeof buf, 0);
         if (n <= 0) throw fail("closed the connection");
         buffered.append(buf, static_cast<size_t>(n));
      }
   }

   // An answer's fields, read the way `read` says; a field missing or of
   // another type is the host answering garbage.
   template <typename T, typename Read>
   T Field(const json &request, const std::string &field, Read read) {
      json answer = Call(request);
      try {
         return read(answer.at(field));
      } catch (const json::exception &e) {
         throw HostError(fmt::format("the host at {} answered request '{}' without a proper '{}': {}", path,
                                     request.value("op", std::string("?")), field, e.what()));
      }
   }
};

namespace {

hyk_Status StatusOf(const json &j) {
   if (j.contains("status") && j["status"].is_number_integer()) return j["status"].get<hyk_Status>();
   // The server names what it could not do; the caller sees a failed host call.
   return HYK_FAILURE;
}

class RemoteDevice : public Device {
  public:
   explicit RemoteDevice(std::shared_ptr<RemoteConnection> c) : c_(std::move(c)) {}
   hyk_Status Open() override { return StatusOf(c_->Call(json{{"op", "open"}})); }
   hyk_Status Ioctl(uint32_t cmd, const std::vector<uint8_t> &payload, uint32_t length) override {
      return StatusOf(c_->Call(json{{"op", "ioctl"}, {"cmd", cmd}, {"payload", HexOf(payload)}, {"length", length}}));
   }
   void Close() override { c_->Call(json{{"op", "close"}}); }

  private:
   std::shared_ptr<RemoteConnection> c_;
};

class RemoteHost : public Host {
  public:
   explicit RemoteHost(std::shared_ptr<RemoteConnection> c) : c_(std::move(c)) {}
   hyk_Status LoadModule(const std::string &name, const std::vector<std::string> &params,
                         std::string *error) override {
      json a = c_->Call(json{{"op", "load"}, {"name", name}, {"params", params}});
      if (error != nullptr && a.contains("error") && a["error"].is_string()) *error = a["error"];
      return StatusOf(a);
   }
   hyk_Status UnloadModule(const std::string &name) override {
      return StatusOf(c_->Call(json{{"op", "unload"}, {"name", name}}));
   }
   std::vector<ModuleInfo> Modules() override {
      return c_->Field<std::vector<ModuleInfo>>(json{{"op", "modules"}}, "modules", [](const json &a) {
         std::vector<ModuleInfo> out;
         for (const auto &m : a) out.push_back({m.at(0), m.at(1), m.at(2)});
         return out;
      });
   }
   std::vector<hyksim::PortsetView> Portsets() override {
      return c_->Field<std::vector<hyksim::PortsetView>>(json{{"op", "portsets"}}, "portsets", [](const json &a) {
         std::vector<hyksim::PortsetView> out;
         for (const auto &p : a) {
            hyksim::PortsetView v{};
            v.name = p.at(0);
            v.className = p.at(1);
            v.classModule = p.at(2);
            v.fastDatapath = p.at(3);
            out.push_back(v);
         }
         return out;
      });
   }
   std::vector<hyksim::PortView> Ports() override {
      return c_->Field<std::vector<hyksim::PortView>>(json{{"op", "ports"}}, "ports", [](const json &a) {
         std::vector<hyksim::PortView> out;
         for (const auto &p : a) out.push_back(PortFrom(p));
         return out;
      });
   }
   hyk_Status TakeOver(const std::string &portset, uint32_t build, unsigned threads) override {
      return StatusOf(c_->Call(json{{"op", "takeover"}, {"portset", portset}, {"build", build}, {"threads", threads}}));
   }
   hyk_Status EnablePort(uint32_t port) override {
      return StatusOf(c_->Call(json{{"op", "enable"}, {"port", port}}));
   }
   hyk_Status PostRestoreEvent(uint32_t port) override {
      return StatusOf(c_->Call(json{{"op", "restore-event"}, {"port", port}}));
   }
   hyk_Status UnblockPort(uint32_t port) override {
      return StatusOf(c_->Call(json{{"op", "unblock-port"}, {"port", port}}));
   }
   std::vector<TimerInfo> Timers() override {
      return c_->Field<std::vector<TimerInfo>>(json{{"op", "timers"}}, "timers", [](const json &a) {
         std::vector<TimerInfo> out;
         for (const auto &t : a) out.push_back({t.at(0), t.at(1), t.at(2)});
         return out;
      });
   }
   std::vector<hyksim::LogLine> Log() override {
      return c_->Field<std::vector<hyksim::LogLine>>(json{{"op", "log"}}, "log", [](const json &a) {
         std::vector<hyksim::LogLine> out;
         for (const auto &l : a) out.push_back({l.at(0), l.at(1), l.at(2), l.at(3), false, l.at(4)});
         return out;
      });
   }
   std::vector<hyksim::LedgerClientView> Ledger() override {
      return c_->Field<std::vector<hyksim::LedgerClientView>>(json{{"op", "ledger"}}, "ledger", [](const json &a) {
         std::vector<hyksim::LedgerClientView> out;
         for (const auto &v : a) out.push_back(LedgerFrom(v));
         return out;
      });
   }
   std::vector<hyksim::HeapView> Heaps() override {
      return c_->Field<std::vector<hyksim::HeapView>>(json{{"op", "heaps"}}, "heaps", [](const json &a) {
         std::vector<hyksim::HeapView> out;
         for (const auto &h : a) {
            hyksim::HeapView v{};
            v.name = h.at(0);
            v.bytesInUse = h.at(1);
            out.push_back(v);
         }
         return out;
      });
   }
   uint64_t NowUS() override {
      return c_->Field<uint64_t>(json{{"op", "now"}}, "us", [](const json &a) { return a.get<uint64_t>(); });
   }

  private:
   std::shared_ptr<RemoteConnection> c_;
};

}  // namespace

std::optional<Remote> MakeRemote(const std::string &socketPath, std::string *error, int timeoutMS) {
   auto c = std::make_shared<RemoteConnection>();
   c->path = socketPath;
   c->timeoutMS = timeoutMS;
   c->fd = socket(AF_UNIX, SOCK_STREAM, 0);
   sockaddr_un addr{};
   addr.sun_family = AF_UNIX;
   if (socketPath.size() >= sizeof(addr.sun_path)) {
      *error = "socket path too long: " + socketPath;
      return std::nullopt;
   }
   std::strcpy(addr.sun_path, socketPath.c_str());
   if (c->fd < 0 || connect(c->fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
      *error = fmt::format("cannot connect to the host at {}: {}", socketPath, std::strerror(errno));
      return std::nullopt;
   }
   try {
      json hello = c->Call(json{{"op", "hello"}});
      if (!hello.contains("host")) {
         *error = fmt::format("{}: no host answers there", socketPath);
         return std::nullopt;
      }
   } catch (const HostError &e) {
      *error = e.what();
      return std::nullopt;
   }
   Remote r;
   r.connection = c;
   r.host = std::make_unique<RemoteHost>(c);
   r.openDevice = [c] { return std::make_unique<RemoteDevice>(c); };
   return r;
}

// ---- the server side -------------------------------------------------------------------------

namespace {

// Every request is checked against this one table before anything of it is
// used: its op is known, it has each field the op takes, of the right type
// and range, and no other.  The handlers below read only what the check
// produced (Checked), never the JSON, so no request can reach the host with
// a value that was not checked -- nor abort the server with a type error.
enum class Kind {
   kText,       // a string
   kModule,     // a module's name (input.h): never a path
   kWhole32,    // a whole number of 0 to 2^32 - 1 (a port, a build, a command, a length)
   kThreads,    // a takeover's threads: 1 to the server's limit
   kHex,        // a payload: an even number of hexadecimal digits
   kStrings,    // an array of strings (module parameters), at most kMaxStrings
};

struct FieldRule {
   const char *name;
   Kind kind;
};

constexpr size_t kMaxStrings = 256;

const std::map<std::string, std::vector<FieldRule>> &Schema() {
   static const std::map<std::string, std::vector<FieldRule>> schema = {
      {"hello", {}},
      {"scenario", {{"line", Kind::kText}}},
      {"open", {}},
      {"ioctl", {{"cmd", Kind::kWhole32}, {"payload", Kind::kHex}, {"length", Kind::kWhole32}}},
      {"close", {}},
      {"load", {{"name", Kind::kModule}, {"params", Kind::kStrings}}},
      {"unload", {{"name", Kind::kModule}}},
      {"modules", {}},
      {"portsets", {}},
      {"ports", {}},
      {"takeover", {{"portset", Kind::kText}, {"build", Kind::kWhole32}, {"threads", Kind::kThreads}}},
      {"enable", {{"port", Kind::kWhole32}}},
      {"restore-event", {{"port", Kind::kWhole32}}},
      {"unblock-port", {{"port", Kind::kWhole32}}},
      {"timers", {}},
      {"log", {}},
      {"ledger", {}},
      {"heaps", {}},
      {"now", {}},
      {"shutdown", {}},
   };
   return schema;
}

// A request's fields once checked.
struct Checked {
   std::string op;
   std::map<std::string, std::string> text;     // kText, kModule
   std::map<std::string, uint32_t> number;      // kWhole32, kThreads
   std::vector<uint8_t> payload;                // kHex
   std::vector<std::string> strings;            // kStrings
};

// A JSON number read with the one number parser (input.h), from its own
// text: "1.5", "1e+300" and "-1" are refused as a typed "1.5" would be.
bool WholeOf(const json &v, const std::string &field, uint32_t min, uint32_t max, uint32_t *out,
             std::string *error) {
   if (!v.is_number()) {
      *error = fmt::format("{}: a number is needed", field);
      return false;
   }
   return lusinput::ParseWhole<uint32_t>(v.dump(), field, min, max, out, error);
}

// Checks `line` against the schema; false with *error (the answer's text).
bool CheckRequest(const std::string &line, const ServerSession &s, Checked *c, std::string *error) {
   json req = json::parse(line, nullptr, false);
   if (req.is_discarded() || !req.is_object() || !req.contains("op") || !req["op"].is_string()) {
      *error = "a request is one line of JSON: an object whose \"op\" is a string";
      return false;
   }
   c->op = req["op"].get<std::string>();
   auto rules = Schema().find(c->op);
   if (rules == Schema().end()) {
      *error = "unknown request " + lusinput::Shown(c->op);
      return false;
   }
   auto bad = [&](const std::string &why) {
      *error = fmt::format("bad request {}: {}", c->op, why);
      return false;
   };
   for (const auto &[key, value] : req.items()) {
      if (key == "op") continue;
      bool known = false;
      for (const auto &r : rules->second) known = known || key == r.name;
      if (!known) return bad(fmt::format("it takes no field {}", lusinput::Quoted(key)));
   }
   for (const auto &r : rules->second) {
      if (!req.contains(r.name)) return bad(fmt::format("field '{}' is missing", r.name));
      const json &v = req[r.name];
      std::string why;
      switch (r.kind) {
         case Kind::kText:
         case Kind::kModule:
            if (!v.is_string()) return bad(fmt::format("{}: a string is needed", r.name));
            if (r.kind == Kind::kModule && !lusinput::ModuleName(v.get<std::string>(), &why)) {
               return bad(fmt::format("{}: {}", r.name, why));
            }
            c->text[r.name] = v.get<std::string>();
            break;
         case Kind::kWhole32:
         case Kind::kThreads: {
            const uint32_t min = r.kind == Kind::kThreads ? 1 : 0;
            const uint32_t max = r.kind == Kind::kThreads ? s.maxTakeoverThreads : UINT32_MAX;
            if (!WholeOf(v, r.name, min, max, &c->number[r.name], &why)) return bad(why);
            break;
         }
         case Kind::kHex:
            if (!v.is_string() || !BytesOfHex(v.get<std::string>(), &c->payload)) {
               return bad(fmt::format("{}: an even number of hexadecimal digits is needed", r.name));
            }
            break;
         case Kind::kStrings:
            if (!v.is_array() || v.size() > kMaxStrings) {
               return bad(fmt::format("{}: an array of at most {} strings is needed", r.name, kMaxStrings));
            }
            for (const auto &e : v) {
               if (!e.is_string()) return bad(fmt::format("{}: an array of strings is needed", r.name));
               c->strings.push_back(e.get<std::string>());
            }
            break;
      }
   }
   return true;
}

// An answer line.  Texts that are not UTF-8 (a host log line, a module's
// output cut in the middle of a character) are mended, never a reason to fail.
std::string Answer(const json &answer) { return answer.dump(-1, ' ', false, json::error_handler_t::replace); }

}  // namespace

std::string HandleRequest(ServerSession &s, const std::string &line, bool *shutdown) {
   Checked c;
   std::string error;
   if (!CheckRequest(line, s, &c, &error)) return Answer({{"error", error}});
   const std::string &op = c.op;
   Host &h = *s.host;
   try {
      if (op == "hello") return Answer({{"host", "hyksim"}});
      if (op == "scenario") {
         std::string output;
         std::string why = s.scenario(c.text["line"], &output);
         return Answer({{"ok", why.empty()}, {"error", why}, {"output", output}});
      }
      if (op == "open") {
         if (s.device) s.device->Close();
         s.device = MakeSimDevice();
         return Answer({{"status", s.device->Open()}});
      }
      if (op == "ioctl") {
         if (!s.device) return Answer({{"status", HYK_INVALID_HANDLE}});
         return Answer({{"status", s.device->Ioctl(c.number["cmd"], c.payload, c.number["length"])}});
      }
      if (op == "close") {
         if (s.device) s.device->Close();
         s.device.reset();
         return Answer({{"status", HYK_OK}});
      }
      if (op == "load") {
         std::string why;
         hyk_Status st = h.LoadModule(c.text["name"], c.strings, &why);
         return Answer({{"status", st}, {"error", why}});
      }
      if (op == "unload") return Answer({{"status", h.UnloadModule(c.text["name"])}});
      if (op == "modules") {
         json m = json::array();
         for (const auto &x : h.Modules()) m.push_back({x.name, x.id, x.useCount});
         return Answer({{"modules", m}});
      }
      if (op == "portsets") {
         json m = json::array();
         for (const auto &p : h.Portsets()) m.push_back({p.name, p.className, p.classModule, p.fastDatapath});
         return Answer({{"portsets", m}});
      }
      if (op == "ports") {
         json m = json::array();
         for (const auto &p : h.Ports()) m.push_back(PortJson(p));
         return Answer({{"ports", m}});
      }
      if (op == "takeover") {
         return Answer({{"status", h.TakeOver(c.text["portset"], c.number["build"], c.number["threads"])}});
      }
      if (op == "enable") return Answer({{"status", h.EnablePort(c.number["port"])}});
      if (op == "restore-event") return Answer({{"status", h.PostRestoreEvent(c.number["port"])}});
      if (op == "unblock-port") return Answer({{"status", h.UnblockPort(c.number["port"])}});
      if (op == "timers") {
         json m = json::array();
         for (const auto &t : h.Timers()) m.push_back({t.queue, t.owner, t.dueUS});
         return Answer({{"timers", m}});
      }
      if (op == "log") {
         json m = json::array();
         for (const auto &l : h.Log()) m.push_back({l.seq, l.timeUS, l.component, l.level, l.text});
         return Answer({{"log", m}});
      }
      if (op == "ledger") {
         json m = json::array();
         for (const auto &v : h.Ledger()) m.push_back(LedgerJson(v));
         return Answer({{"ledger", m}});
      }
      if (op == "heaps") {
         json m = json::array();
         for (const auto &x : h.Heaps()) m.push_back({x.name, x.bytesInUse});
         return Answer({{"heaps", m}});
      }
      if (op == "now") return Answer({{"us", h.NowUS()}});
      if (op == "shutdown") {
         *shutdown = true;
         return Answer({{"ok", true}});
      }
   } catch (const json::exception &e) {
      // Only an answer can get here now (a text that is not UTF-8, say): the
      // request is refused and the server goes on.
      return Answer({{"error", fmt::format("request {}: no answer can be made: {}", op, e.what())}});
   }
   return Answer({{"error", "unknown request " + op}});
}

}  // namespace lusctl
