// remote.cpp -- the tool's transport to a host served by `hyksim serve`,
// and the server's side of the same protocol.
//
// One Unix-socket connection carries everything: each request is one line
// of JSON ({"op": ...}), each answer one line of JSON.  The device is the
// connection's own (opened by "open", closed by "close" or when the
// connection goes); host views travel as JSON arrays of their fields.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cstring>
#include <mutex>
#include <nlohmann/json.hpp>

#include "tool.h"

namespace lusctl {

using nlohmann::json;

namespace {

json PortJson(const hyksim::PortView &p) {
   json blocked = json::array();
   for (const auto &b : p.blocked) blocked.push_back({b.fromUS, b.toUS, b.open});
   return {{"id", p.id}, {"portset", p.portset}, {"clientType", p.desc.clientType},
           {"blockReasons", p.blockReasons}, {"blocked", blocked}};
}

hyksim::PortView PortFrom(const json &j) {
   hyksim::PortView p{};
   p.id = j["id"];
   p.portset = j["portset"];
   p.desc.clientType = j["clientType"];
   p.blockReasons = j["blockReasons"];
   p.passesTraffic = p.blockReasons == 0;
   for (const auto &b : j["blocked"]) p.blocked.push_back({b[0], b[1], b[2]});
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
   v.client = j["client"];
   for (uint32_t k = 0; k < HYKSIM_LEDGER_NUM_KINDS; k++) {
      v.perPort[k] = {j["perPort"][k][0], j["perPort"][k][1]};
      v.shared[k] = {j["shared"][k][0], j["shared"][k][1]};
   }
   for (const auto &p : j["ports"]) {
      auto &slot = v.ports[p[0].get<uint32_t>()];
      for (uint32_t k = 0; k < HYKSIM_LEDGER_NUM_KINDS; k++) slot[k] = p[1][k];
   }
   for (const auto &s : j["scopes"]) {
      auto &slot = v.scopes[s[0].get<std::string>()];
      for (uint32_t k = 0; k < HYKSIM_LEDGER_NUM_KINDS; k++) slot[k] = s[1][k];
   }
   return v;
}

}  // namespace

// ---- the client side ---------------------------------------------------------------------

struct RemoteConnection {
   int fd = -1;
   std::string buffered;
   std::mutex mu;

   ~RemoteConnection() {
      if (fd >= 0) close(fd);
   }
   // One request, one answer; an answer {"error": ...} from the server, or a
   // broken connection, comes back as {"status": <host failure>, "error": why}.
   json Call(const json &request) {
      std::lock_guard<std::mutex> lk(mu);
      std::string line = request.dump() + "\n";
      if (send(fd, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size())) {
         return {{"status", HYK_FAILURE}, {"error", "the host closed the connection"}};
      }
      for (;;) {
         auto nl = buffered.find('\n');
         if (nl != std::string::npos) {
            std::string answer = buffered.substr(0, nl);
            buffered.erase(0, nl + 1);
            return json::parse(answer, nullptr, false);
         }
         char buf[65536];
         ssize_t n = recv(fd, buf, sizeof buf, 0);
         if (n <= 0) return {{"status", HYK_FAILURE}, {"error", "the host closed the connection"}};
         buffered.append(buf, static_cast<size_t>(n));
      }
   }
};

namespace {

hyk_Status StatusOf(const json &j) {
   return j.contains("status") ? j["status"].get<hyk_Status>() : static_cast<hyk_Status>(HYK_FAILURE);
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
      if (error != nullptr && a.contains("error")) *error = a["error"];
      return StatusOf(a);
   }
   hyk_Status UnloadModule(const std::string &name) override {
      return StatusOf(c_->Call(json{{"op", "unload"}, {"name", name}}));
   }
   std::vector<ModuleInfo> Modules() override {
      std::vector<ModuleInfo> out;
      const json answer = c_->Call(json{{"op", "modules"}});
      for (const auto &m : answer["modules"]) out.push_back({m[0], m[1], m[2]});
      return out;
   }
   std::vector<hyksim::PortsetView> Portsets() override {
      std::vector<hyksim::PortsetView> out;
      const json answer = c_->Call(json{{"op", "portsets"}});
      for (const auto &p : answer["portsets"]) {
         hyksim::PortsetView v{};
         v.name = p[0];
         v.className = p[1];
         v.classModule = p[2];
         v.fastDatapath = p[3];
         out.push_back(v);
      }
      return out;
   }
   std::vector<hyksim::PortView> Ports() override {
      std::vector<hyksim::PortView> out;
      const json answer = c_->Call(json{{"op", "ports"}});
      for (const auto &p : answer["ports"]) out.push_back(PortFrom(p));
      return out;
   }
   hyk_Status TakeOver(const std::string &portset, uint32_t build, unsigned threads) override {
      return StatusOf(c_->Call(json{{"op", "takeover"}, {"portset", portset}, {"build", build}, {"threads", threads}}));
   }
   hyk_Status EnablePort(uint32_t port) override {
      return StatusOf(c_->Call(json{{"op", "enable"}, {"port", port}}));
   }
   std::vector<hyksim::LogLine> Log() override {
      std::vector<hyksim::LogLine> out;
      const json answer = c_->Call(json{{"op", "log"}});
      for (const auto &l : answer["log"]) {
         out.push_back({l[0], l[1], l[2], l[3], false, l[4]});
      }
      return out;
   }
   std::vector<hyksim::LedgerClientView> Ledger() override {
      std::vector<hyksim::LedgerClientView> out;
      const json answer = c_->Call(json{{"op", "ledger"}});
      for (const auto &v : answer["ledger"]) out.push_back(LedgerFrom(v));
      return out;
   }
   std::vector<hyksim::HeapView> Heaps() override {
      std::vector<hyksim::HeapView> out;
      const json answer = c_->Call(json{{"op", "heaps"}});
      for (const auto &h : answer["heaps"]) {
         hyksim::HeapView v{};
         v.name = h[0];
         v.bytesInUse = h[1];
         out.push_back(v);
      }
      return out;
   }
   uint64_t NowUS() override { return c_->Call(json{{"op", "now"}})["us"]; }

  private:
   std::shared_ptr<RemoteConnection> c_;
};

}  // namespace

std::optional<Remote> MakeRemote(const std::string &socketPath, std::string *error) {
   auto c = std::make_shared<RemoteConnection>();
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
   json hello = c->Call(json{{"op", "hello"}});
   if (!hello.contains("host")) {
      *error = fmt::format("{}: {}", socketPath, hello.value("error", std::string("no host answers there")));
      return std::nullopt;
   }
   Remote r;
   r.connection = c;
   r.host = std::make_unique<RemoteHost>(c);
   r.openDevice = [c] { return std::make_unique<RemoteDevice>(c); };
   return r;
}

// ---- the server side -------------------------------------------------------------------------

std::string HandleRequest(ServerSession &s, const std::string &line, bool *shutdown) {
   json req = json::parse(line, nullptr, false);
   if (req.is_discarded() || !req.contains("op")) {
      return json{{"error", "a request is one line of JSON with an \"op\""}}.dump();
   }
   const std::string op = req["op"];
   Host &h = *s.host;
   try {
      if (op == "hello") return json{{"host", "hyksim"}}.dump();
      if (op == "scenario") {
         std::string output;
         std::string why = s.scenario(req["line"], &output);
         return json{{"ok", why.empty()}, {"error", why}, {"output", output}}.dump();
      }
      if (op == "open") {
         s.device = MakeSimDevice();
         return json{{"status", s.device->Open()}}.dump();
      }
      if (op == "ioctl") {
         std::vector<uint8_t> payload;
         if (!BytesOfHex(req["payload"], &payload)) return json{{"error", "payload: not hexadecimal"}}.dump();
         if (!s.device) return json{{"status", HYK_INVALID_HANDLE}}.dump();
         return json{{"status", s.device->Ioctl(req["cmd"], payload, req["length"])}}.dump();
      }
      if (op == "close") {
         if (s.device) s.device->Close();
         s.device.reset();
         return json{{"status", HYK_OK}}.dump();
      }
      if (op == "load") {
         std::string error;
         hyk_Status st = h.LoadModule(req["name"], req["params"].get<std::vector<std::string>>(), &error);
         return json{{"status", st}, {"error", error}}.dump();
      }
      if (op == "unload") return json{{"status", h.UnloadModule(req["name"])}}.dump();
      if (op == "modules") {
         json m = json::array();
         for (const auto &x : h.Modules()) m.push_back({x.name, x.id, x.useCount});
         return json{{"modules", m}}.dump();
      }
      if (op == "portsets") {
         json m = json::array();
         for (const auto &p : h.Portsets()) m.push_back({p.name, p.className, p.classModule, p.fastDatapath});
         return json{{"portsets", m}}.dump();
      }
      if (op == "ports") {
         json m = json::array();
         for (const auto &p : h.Ports()) m.push_back(PortJson(p));
         return json{{"ports", m}}.dump();
      }
      if (op == "takeover") return json{{"status", h.TakeOver(req["portset"], req["build"], req["threads"])}}.dump();
      if (op == "enable") return json{{"status", h.EnablePort(req["port"])}}.dump();
      if (op == "log") {
         json m = json::array();
         for (const auto &l : h.Log()) m.push_back({l.seq, l.timeUS, l.component, l.level, l.text});
         return json{{"log", m}}.dump();
      }
      if (op == "ledger") {
         json m = json::array();
         for (const auto &v : h.Ledger()) m.push_back(LedgerJson(v));
         return json{{"ledger", m}}.dump();
      }
      if (op == "heaps") {
         json m = json::array();
         for (const auto &x : h.Heaps()) m.push_back({x.name, x.bytesInUse});
         return json{{"heaps", m}}.dump();
      }
      if (op == "now") return json{{"us", h.NowUS()}}.dump();
      if (op == "shutdown") {
         *shutdown = true;
         return json{{"ok", true}}.dump();
      }
   } catch (const json::exception &e) {
      return json{{"error", fmt::format("bad request {}: {}", op, e.what())}}.dump();
   }
   return json{{"error", "unknown request " + op}}.dump();
}

}  // namespace lusctl
