// server.cpp -- `hyksim serve` (server.h): the socket, its connections, and
// who may use them.  The protocol itself is lusctl::HandleRequest.
//
// One thread accepts; each connection has a thread of its own, which reads
// lines with a bounded reader and answers them one request at a time under
// the host's one mutex (a second client's request waits).  A finished
// connection wakes the accepting thread, which joins its thread and closes
// its socket, so neither threads nor memory pile up over a long life.
// `shutdown`, SIGINT and SIGTERM stop the accepting, end every connection
// (a request being served finishes first; none is served after), close each
// connection's device and remove the socket.
#include "server.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <fmt/format.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <list>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <ostream>
#include <regex>
#include <sstream>
#include <thread>

#include "line_reader.h"
#include "tool.h"

namespace hyksimtool {

namespace {

std::string Why() { return std::strerror(errno); }

std::string DirectoryOf(const std::string &path) {
   const auto slash = path.rfind('/');
   if (slash == std::string::npos) return ".";
   if (slash == 0) return "/";
   return path.substr(0, slash);
}

const char *KindOf(mode_t mode) {
   if (S_ISREG(mode)) return "a regular file";
   if (S_ISDIR(mode)) return "a directory";
   if (S_ISLNK(mode)) return "a symbolic link";
   if (S_ISFIFO(mode)) return "a FIFO";
   if (S_ISCHR(mode) || S_ISBLK(mode)) return "a device";
   return "not a socket";
}

bool Address(const std::string &path, sockaddr_un *addr) {
   *addr = sockaddr_un{};
   addr->sun_family = AF_UNIX;
   if (path.empty() || path.size() >= sizeof(addr->sun_path)) return false;
   std::memcpy(addr->sun_path, path.c_str(), path.size() + 1);
   return true;
}

bool SendAll(int fd, const std::string &text, int flags = 0) {
   size_t at = 0;
   while (at < text.size()) {
      const ssize_t n = send(fd, text.data() + at, text.size() - at, MSG_NOSIGNAL | flags);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      at += static_cast<size_t>(n);
   }
   return true;
}

std::string ErrorLine(const std::string &why) { return nlohmann::json{{"error", why}}.dump() + "\n"; }

// The signal handlers' way into the accepting thread's poll.
std::atomic<int> gWakeFd{-1};
volatile sig_atomic_t gSignal = 0;

void Wake(int fd) {
   const char c = 'w';
   (void)!write(fd, &c, 1);   // a full pipe has woken the poll already
}

void OnSignal(int sig) {
   gSignal = sig;
   const int fd = gWakeFd.load();
   if (fd >= 0) Wake(fd);
}

struct Connection {
   int fd = -1;
   std::thread thread;
   std::atomic<bool> done{false};
};

// What every connection shares: the host, the interpreter of the scenario
// language, and the one mutex under which requests run.
struct Shared {
   const ServeOptions &opts;
   lusctl::Host *host;
   Interpreter *interp;
   std::ostringstream *scenarioOut;
   std::mutex one;
   std::atomic<bool> stop{false};
   int wakeFd;
};

void ServeConnection(Shared &sh, Connection *c) {
   lusctl::ServerSession session;
   session.host = sh.host;
   session.maxTakeoverThreads = sh.opts.scenario.maxTakeoverThreads;
   session.scenario = [&sh](const std::string &line, std::string *output) {
      std::string why = sh.interp->Execute(line);
      *output = sh.scenarioOut->str();
      sh.scenarioOut->str("");
      return why;
   };
   const int fd = c->fd;
   LineReader reader([fd](char *buf, size_t n) { return recv(fd, buf, n, 0); }, sh.opts.maxLineBytes, false);
   std::string line;
   for (;;) {
      const LineReader::Result r = reader.Next(&line);
      if (r == LineReader::kEnd || r == LineReader::kError) break;
      std::string answer;
      bool shutdownNow = false;
      if (r == LineReader::kTooLong) {
         // Refused as soon as it is too long; the rest of it is read and dropped.
         answer = ErrorLine(fmt::format("a request longer than {} bytes is refused (--max-line-bytes)",
                                        sh.opts.maxLineBytes));
      } else {
         std::lock_guard<std::mutex> lk(sh.one);
         if (sh.stop) break;   // shutting down: no request is served any more
         answer = lusctl::HandleRequest(session, line, &shutdownNow) + "\n";
      }
      line.clear();
      line.shrink_to_fit();
      if (!SendAll(fd, answer)) break;
      if (shutdownNow) {
         sh.stop = true;
         break;
      }
   }
   {
      // The connection's device goes with it: a vanished tool never pins lus.
      std::lock_guard<std::mutex> lk(sh.one);
      if (session.device) session.device->Close();
      session.device.reset();
   }
   c->done = true;
   Wake(sh.wakeFd);
}

// The host's module service as tools reach it, with what this host adds
// for a module of its own accord (--module-param): a host configured with a
// misbehaving new build shows it to whatever tool loads that build, so a
// rollout runs the same command line on every host and the host that goes
// wrong is the host's own doing.
class ConfiguredHost : public lusctl::ForwardingHost {
  public:
   ConfiguredHost(lusctl::Host &inner, std::vector<std::string> params)
      : ForwardingHost(inner), params_(std::move(params)) {}

   hyk_Status LoadModule(const std::string &name, const std::vector<std::string> &params,
                         std::string *error) override {
      std::vector<std::string> all = params, own;
      std::string why;
      if (!ConfiguredParams(params_, name, lusctl::PortNames(inner_.Ports()), &own, &why)) {
         if (error != nullptr) *error = why;
         return HYK_BAD_PARAM;
      }
      all.insert(all.end(), own.begin(), own.end());
      return inner_.LoadModule(name, all, error);
   }

  private:
   std::vector<std::string> params_;
};

}  // namespace

std::string CheckModuleParam(const std::string &given) {
   const auto colon = given.find(':');
   const auto eq = given.find('=', colon == std::string::npos ? 0 : colon);
   if (colon == std::string::npos || colon == 0 || eq == std::string::npos || eq == colon + 1) {
      return fmt::format("{}: expected MODULE:NAME=VALUE (MODULE as loaded: NAME-BUILD)", given);
   }
   return "";
}

bool ConfiguredParams(const std::vector<std::string> &moduleParams, const std::string &module,
                      const std::map<uint32_t, std::string> &names, std::vector<std::string> *out,
                      std::string *error) {
   std::map<std::string, uint32_t> ids;
   for (const auto &[id, name] : names) ids[name] = id;
   static const std::regex ref(R"(@([^@#\s]+#[0-9]+))");
   for (const auto &given : moduleParams) {
      const auto colon = given.find(':');
      if (colon == std::string::npos || given.compare(0, colon, module) != 0 || colon != module.size()) continue;
      const std::string param = given.substr(colon + 1);
      std::string value;
      auto from = param.cbegin();
      for (std::sregex_iterator it(param.begin(), param.end(), ref), end; it != end; ++it) {
         const auto found = ids.find((*it)[1].str());
         if (found == ids.end()) {
            *error = fmt::format("the host's --module-param {}: no port {}", given, (*it)[1].str());
            return false;
         }
         value.append(from, (*it)[0].first);
         value += std::to_string(found->second);
         from = (*it)[0].second;
      }
      value.append(from, param.cend());
      out->push_back(value);
   }
   return true;
}

bool CheckSocketDirectory(const std::string &socketPath, uid_t owner, std::string *error) {
   const std::string dir = DirectoryOf(socketPath);
   struct stat st {};
   if (stat(dir.c_str(), &st) != 0) {
      *error = fmt::format("the socket's directory {}: {}", dir, Why());
      return false;
   }
   if (!S_ISDIR(st.st_mode)) {
      *error = fmt::format("the socket's directory {} is not a directory", dir);
      return false;
   }
   if (st.st_uid != owner && st.st_uid != 0) {
      *error = fmt::format("the socket's directory {} belongs to uid {}, who could replace the socket: use a "
                           "directory of your own (or root's)", dir, st.st_uid);
      return false;
   }
   if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (st.st_mode & S_ISVTX) == 0) {
      *error = fmt::format("the socket's directory {} is writable by others (mode {:o}) and not sticky: another user "
                           "could replace the socket", dir, st.st_mode & 07777);
      return false;
   }
   return true;
}

bool ClaimSocketPath(const std::string &socketPath, std::string *error) {
   struct stat st {};
   if (lstat(socketPath.c_str(), &st) != 0) {
      if (errno == ENOENT) return true;
      *error = fmt::format("{}: {}", socketPath, Why());
      return false;
   }
   if (!S_ISSOCK(st.st_mode)) {
      *error = fmt::format("{} exists and is {}, not a socket: it is left as it is", socketPath, KindOf(st.st_mode));
      return false;
   }
   // A socket: live if a server answers on it.  Non-blocking, so that a live
   // server with a full backlog is not waited for (EAGAIN: refused as live).
   sockaddr_un addr;
   if (!Address(socketPath, &addr)) {
      *error = fmt::format("{}: the path is too long for a socket", socketPath);
      return false;
   }
   const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
   if (probe < 0) {
      *error = fmt::format("{}: cannot probe: {}", socketPath, Why());
      return false;
   }
   const int rc = connect(probe, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
   const int connectErrno = errno;
   close(probe);
   if (rc == 0 || connectErrno == EAGAIN || connectErrno == EINPROGRESS) {
      *error = fmt::format("a server is live on {}: it is left serving", socketPath);
      return false;
   }
   if (connectErrno != ECONNREFUSED) {
      *error = fmt::format("{}: cannot tell whether a server still answers there: {}", socketPath,
                           std::strerror(connectErrno));
      return false;
   }
   if (unlink(socketPath.c_str()) != 0) {
      *error = fmt::format("{}: a stale socket that cannot be removed: {}", socketPath, Why());
      return false;
   }
   return true;
}

bool PeerAllowed(const ucred &peer, uid_t owner, std::optional<gid_t> allowGroup,
                 const std::vector<gid_t> &peerGroups, std::string *why) {
   if (peer.uid == owner || peer.uid == 0) return true;
   if (allowGroup) {
      if (peer.gid == *allowGroup) return true;
      for (gid_t g : peerGroups) {
         if (g == *allowGroup) return true;
      }
      *why = fmt::format("uid {} (gid {}, pid {}) is neither the host's owner (uid {}) nor of group {}", peer.uid,
                         peer.gid, peer.pid, owner, *allowGroup);
      return false;
   }
   *why = fmt::format("uid {} (pid {}) is not the host's owner (uid {}); --allow-group lets a group in", peer.uid,
                      peer.pid, owner);
   return false;
}

std::vector<gid_t> GroupsOfUser(uid_t uid) {
   long size = sysconf(_SC_GETPW_R_SIZE_MAX);
   std::vector<char> buf(size > 0 ? static_cast<size_t>(size) : 16384);
   passwd pw{}, *found = nullptr;
   if (getpwuid_r(uid, &pw, buf.data(), buf.size(), &found) != 0 || found == nullptr) return {};
   int n = 64;
   std::vector<gid_t> groups(static_cast<size_t>(n));
   while (getgrouplist(pw.pw_name, pw.pw_gid, groups.data(), &n) < 0) {
      if (n <= static_cast<int>(groups.size()) || n > 65536) return {};
      groups.resize(static_cast<size_t>(n));
   }
   groups.resize(static_cast<size_t>(n));
   return groups;
}

int Serve(const ServeOptions &o, std::ostream &out, std::ostream &err) {
   const std::string &path = o.socketPath;
   sockaddr_un addr;
   if (!Address(path, &addr)) {
      err << fmt::format("hyksim serve: bad socket path '{}': 1 to {} bytes\n", path, sizeof(addr.sun_path) - 1);
      return 1;
   }
   const uid_t owner = geteuid();
   std::string why;
   if (!CheckSocketDirectory(path, owner, &why) || !ClaimSocketPath(path, &why)) {
      err << "hyksim serve: " << why << "\n";
      return 1;
   }

   // The socket: 0600 from its creation (the umask is the process's, so it
   // is set around the bind alone), 0660 and the group's for --allow-group.
   const int lfd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   if (lfd < 0) {
      err << "hyksim serve: cannot make a socket: " << Why() << "\n";
      return 1;
   }
   const mode_t oldMask = umask(0177);
   const int bound = bind(lfd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
   const int bindErrno = errno;
   umask(oldMask);
   struct stat mine {};
   auto fail = [&](const std::string &what) {
      err << fmt::format("hyksim serve: {} {}: {}\n", what, path, Why());
      close(lfd);
      if (bound == 0) unlink(path.c_str());
      return 1;
   };
   if (bound != 0) {
      errno = bindErrno;
      return fail("cannot bind");
   }
   if (o.allowGroup && chown(path.c_str(), static_cast<uid_t>(-1), *o.allowGroup) != 0) {
      return fail(fmt::format("cannot give group {} the socket", *o.allowGroup));
   }
   if (chmod(path.c_str(), o.allowGroup ? 0660 : 0600) != 0) return fail("cannot set the mode of");
   if (lstat(path.c_str(), &mine) != 0) return fail("cannot look at");
   if (listen(lfd, 64) != 0) return fail("cannot listen on");

   // The topology, then the host is ready.  Peers that connect meanwhile wait.
   std::ostringstream scenarioOut;
   Interpreter interp(o.scenario, scenarioOut);
   if (!o.topology.empty() && !interp.RunFile(o.topology)) {
      err << scenarioOut.str();
      close(lfd);
      unlink(path.c_str());
      return 1;
   }
   scenarioOut.str("");
   auto simHost = lusctl::MakeSimHost(o.scenario.moduleDir);
   ConfiguredHost configured(*simHost, o.moduleParams);
   lusctl::Host *host = o.moduleParams.empty() ? simHost.get() : &configured;

   int wake[2];
   if (pipe2(wake, O_CLOEXEC | O_NONBLOCK) != 0) return fail("cannot make a pipe for");
   Shared sh{o, host, &interp, &scenarioOut, {}, {}, wake[1]};
   gSignal = 0;
   gWakeFd = wake[1];
   struct sigaction act {}, oldInt {}, oldTerm {}, oldPipe {};
   act.sa_handler = OnSignal;
   sigemptyset(&act.sa_mask);
   sigaction(SIGINT, &act, &oldInt);
   sigaction(SIGTERM, &act, &oldTerm);
   struct sigaction ignore {};
   ignore.sa_handler = SIG_IGN;
   sigaction(SIGPIPE, &ignore, &oldPipe);

   out << fmt::format("hyksim serve: host ready on {} (seed {}; {})", path, o.scenario.seed,
                      o.allowGroup ? fmt::format("uid {} and group {}", owner, *o.allowGroup)
                                   : fmt::format("uid {} only", owner))
       << std::endl;

   std::list<std::unique_ptr<Connection>> conns;
   auto reap = [&conns] {
      for (auto it = conns.begin(); it != conns.end();) {
         if ((*it)->done) {
            (*it)->thread.join();
            close((*it)->fd);
            it = conns.erase(it);
         } else {
            ++it;
         }
      }
   };
   while (!sh.stop && gSignal == 0) {
      pollfd p[2] = {{lfd, POLLIN, 0}, {wake[0], POLLIN, 0}};
      if (poll(p, 2, -1) < 0) {
         if (errno == EINTR) continue;
         err << "hyksim serve: cannot wait for connections: " << Why() << "\n";
         break;
      }
      if (p[1].revents != 0) {
         char drain[64];
         while (read(wake[0], drain, sizeof drain) > 0) {
         }
      }
      reap();
      if (sh.stop || gSignal != 0) break;
      if ((p[0].revents & POLLIN) == 0) continue;
      const int fd = accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) continue;   // the peer went away first, or no descriptor is left: the next one
      ucred cred{};
      socklen_t len = sizeof cred;
      std::string refused;
      if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
         refused = "its credentials cannot be read: " + Why();
      } else {
         const bool needGroups = o.allowGroup && cred.uid != owner && cred.uid != 0 && cred.gid != *o.allowGroup;
         PeerAllowed(cred, owner, o.allowGroup, needGroups ? GroupsOfUser(cred.uid) : std::vector<gid_t>{}, &refused);
      }
      if (refused.empty() && conns.size() >= o.maxConnections) {
         refused = fmt::format("the host serves {} connections at once already (--max-connections)", conns.size());
      }
      if (!refused.empty()) {
         SendAll(fd, ErrorLine("refused: " + refused), MSG_DONTWAIT);
         close(fd);
         err << "hyksim serve: refused a connection: " << refused << std::endl;
         continue;
      }
      auto c = std::make_unique<Connection>();
      c->fd = fd;
      Connection *raw = c.get();
      conns.push_back(std::move(c));
      raw->thread = std::thread(ServeConnection, std::ref(sh), raw);
   }

   // Stop: no new connection; every connection ends (each finishes the
   // request it is serving; its device is closed); the socket goes.
   sh.stop = true;
   close(lfd);
   struct stat now {};
   if (lstat(path.c_str(), &now) == 0 && now.st_dev == mine.st_dev && now.st_ino == mine.st_ino) unlink(path.c_str());
   for (auto &c : conns) shutdown(c->fd, SHUT_RDWR);
   for (auto &c : conns) {
      c->thread.join();
      close(c->fd);
   }
   conns.clear();
   gWakeFd = -1;
   sigaction(SIGINT, &oldInt, nullptr);
   sigaction(SIGTERM, &oldTerm, nullptr);
   sigaction(SIGPIPE, &oldPipe, nullptr);
   close(wake[0]);
   close(wake[1]);
   out << (gSignal != 0 ? fmt::format("hyksim serve: stopped ({})", strsignal(gSignal)) : "hyksim serve: stopped")
       << std::endl;
   return 0;
}

}  // namespace hyksimtool
