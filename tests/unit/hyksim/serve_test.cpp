// `hyksim serve`: the host as a long-running process, driven over its Unix
// socket by a separate lusctl process, by clients that go away in the middle
// of a request, and by two clients at once.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

#include <grp.h>

#include <array>
#include <functional>
#include <iostream>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

namespace {

using nlohmann::json;

class Connection {
  public:
   bool Connect(const std::string &path) {
      fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
      sockaddr_un addr{};
      addr.sun_family = AF_UNIX;
      std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
      return connect(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
   }
   void Send(const json &request) {
      std::string line = request.dump() + "\n";
      ASSERT_EQ(send(fd_, line.data(), line.size(), MSG_NOSIGNAL), static_cast<ssize_t>(line.size()));
   }
   json Receive() {
      std::string line;
      char c;
      while (recv(fd_, &c, 1, 0) == 1 && c != '\n') line += c;
      return json::parse(line, nullptr, false);
   }
   json Call(const json &request) {
      Send(request);
      return Receive();
   }
   void SendRaw(const std::string &bytes) {
      size_t at = 0;
      while (at < bytes.size()) {
         ssize_t n = send(fd_, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
         if (n <= 0) return;
         at += static_cast<size_t>(n);
      }
   }
   // True once the server has closed the connection (waits for it).
   bool ClosedByPeer() {
      char c;
      const ssize_t n = recv(fd_, &c, 1, 0);
      return n == 0 || (n < 0 && errno == ECONNRESET);
   }
   int fd() const { return fd_; }
   void Close() {
      if (fd_ >= 0) close(fd_);
      fd_ = -1;
   }
   ~Connection() { Close(); }

  private:
   int fd_ = -1;
};

class ServeTest : public ::testing::Test {
  protected:
   void SetUp() override {
      dir_ = ::testing::TempDir() + "/serve-" + std::to_string(getpid());
      std::system(("mkdir -p " + dir_).c_str());
      socket_ = dir_ + "/host.sock";
      topology_ = dir_ + "/topology.hyk";
      WriteTopology();
      StartServer();
   }

   // The host before an upgrade: a switch, a firewall and statistics of build 1000, 40 ports.
   void WriteTopology() {
      std::ofstream(topology_) << "load client tarnq-vswitch build=1000\n"
                                  "portset ps0 module=tarnq-vswitch-1000\n"
                                  "ports ps0 40 vms=20 external-id=a\n"
                                  "load client tarnq-dfw build=1000\n"
                                  "load client tarnq-stats build=1000\n";
   }

   // Starts the server with `extra` options, from a process whose umask is `mask`.
   void StartServer(const std::vector<std::string> &extra = {}, mode_t mask = 022) {
      server_ = fork();
      if (server_ == 0) {
         umask(mask);
         std::vector<std::string> all = {"hyksim", "serve", "--socket", socket_, "--module-dir", LUS_MODULES_DIR,
                                         topology_};
         all.insert(all.end(), extra.begin(), extra.end());
         std::vector<char *> argv;
         for (auto &a : all) argv.push_back(a.data());
         argv.push_back(nullptr);
         execv(HYKSIM_PROGRAM, argv.data());
         _exit(127);
      }
      // Ready once it answers.
      for (int i = 0; i < 200; i++) {
         Connection c;
         if (c.Connect(socket_) && c.Call({{"op", "hello"}}).contains("host")) return;
         std::this_thread::sleep_for(std::chrono::milliseconds(25));
      }
      FAIL() << "hyksim serve did not come up";
   }
   void TearDown() override { StopServer(); }

   void StopServer(bool removeDir = true) {
      if (server_ < 0) {
         if (removeDir) std::system(("rm -rf " + dir_).c_str());
         return;
      }
      Connection c;
      if (c.Connect(socket_)) c.Call({{"op", "shutdown"}});
      int status = 0;
      for (int i = 0; i < 200 && waitpid(server_, &status, WNOHANG) == 0; i++) {
         std::this_thread::sleep_for(std::chrono::milliseconds(25));
      }
      if (waitpid(server_, &status, WNOHANG) == 0) {
         kill(server_, SIGKILL);
         waitpid(server_, &status, 0);
         ADD_FAILURE() << "hyksim serve did not stop";
      } else {
         EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
      }
      server_ = -1;
      if (removeDir) std::system(("rm -rf " + dir_).c_str());
   }

   void RestartServer(const std::vector<std::string> &extra, mode_t mask = 022) {
      StopServer(false);
      StartServer(extra, mask);
   }

   // Starts lusctl against the served host with its output on a pipe.
   pid_t SpawnLusctl(const std::vector<std::string> &args, int *outFd) {
      int fds[2];
      if (pipe(fds) != 0) return -1;
      pid_t pid = fork();
      if (pid == 0) {
         dup2(fds[1], 1);
         dup2(fds[1], 2);
         close(fds[0]);
         std::vector<std::string> all = {"lusctl", "--host", socket_};
         all.insert(all.end(), args.begin(), args.end());
         std::vector<char *> argv;
         for (auto &a : all) argv.push_back(a.data());
         argv.push_back(nullptr);
         execv(LUSCTL_PROGRAM, argv.data());
         _exit(127);
      }
      close(fds[1]);
      *outFd = fds[0];
      return pid;
   }

   // Reads `fd` until a line starts with `prefix` (true) or the output ends (false).
   static bool ReadUntil(int fd, const std::string &prefix, std::string *all) {
      std::string line;
      char c;
      while (read(fd, &c, 1) == 1) {
         all->push_back(c);
         if (c != '\n') {
            line.push_back(c);
            continue;
         }
         if (line.rfind(prefix, 0) == 0) return true;
         line.clear();
      }
      return false;
   }

   static void Drain(int fd, std::string *all) {
      char buf[4096];
      ssize_t n;
      while ((n = read(fd, buf, sizeof buf)) > 0) all->append(buf, static_cast<size_t>(n));
      close(fd);
   }

   // Runs the lusctl program against the served host; returns its exit code.
   int Lusctl(const std::string &args, std::string *out) {
      std::string cmd = std::string(LUSCTL_PROGRAM) + " --host " + socket_ + " " + args + " 2>&1";
      FILE *p = popen(cmd.c_str(), "r");
      std::array<char, 4096> buf;
      size_t n;
      while ((n = fread(buf.data(), 1, buf.size(), p)) > 0) out->append(buf.data(), n);
      int status = pclose(p);
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
   }

   json Scenario(Connection &c, const std::string &line) { return c.Call({{"op", "scenario"}, {"line", line}}); }

   std::string dir_, socket_, topology_;
   pid_t server_ = -1;
};

TEST_F(ServeTest, ASeparateLusctlProcessDrivesAWholeClassicUpgrade) {
   std::string out;
   int code = Lusctl("upgrade classic --from-build 1000 --to-build 2000 --portset ps0 --module-param seed=7", &out);
   EXPECT_EQ(code, 0) << out;
   EXPECT_NE(out.find("lusctl: classic upgrade 1000 -> 2000 of ps0: completed (11 steps"), std::string::npos) << out;
   EXPECT_NE(out.find("ports:  40 upgraded, 40 pass traffic, 0 blocked"), std::string::npos) << out;
   // The host's side, through the same socket: the scenario language.
   Connection c;
   ASSERT_TRUE(c.Connect(socket_));
   EXPECT_EQ(Scenario(c, "expect ledger tarnq-dfw verified same-as=saved")["ok"], true);
   EXPECT_EQ(Scenario(c, "expect blocked ps0 no")["ok"], true);
   json wrong = Scenario(c, "expect blocked ps0 yes");
   EXPECT_EQ(wrong["ok"], false);
   EXPECT_NE(wrong["error"].get<std::string>().find("is not blocked"), std::string::npos);
   // A single command, and one refused: the exit codes of the tool.
   std::string single;
   EXPECT_EQ(Lusctl("restore-complete", &single), 0) << single;
   std::string bad;
   EXPECT_EQ(Lusctl("save --portset nosuch", &bad), 1) << bad;
}

// A host configured with a misbehaving new build (--module-param): the tool's
// command line is the one every host gets, and the host's own parameters
// make its new switch refuse the port it names; other modules are untouched.
TEST_F(ServeTest, TheHostsOwnModuleParametersReachTheModuleAToolLoads) {
   RestartServer({"--module-param", "tarnq-vswitch-2000:failSlot=3", "--module-param",
                  "tarnq-vswitch-2000:failPort=@ps0#6"});
   std::string out;
   int code = Lusctl("upgrade classic --from-build 1000 --to-build 2000 --portset ps0 --module-param seed=7", &out);
   EXPECT_EQ(code, 1) << out;
   EXPECT_NE(out.find("violation: blocked: 1 port(s) do not pass traffic: ps0#6"), std::string::npos) << out;
   EXPECT_NE(out.find("Restore Runtime State FAIL for client tarnq-vswitch"), std::string::npos) << out;
   Connection c;
   ASSERT_TRUE(c.Connect(socket_));
   EXPECT_EQ(Scenario(c, "expect blocked ps0#6 yes")["ok"], true);
   EXPECT_EQ(Scenario(c, "expect blocked ps0#5 no")["ok"], true);
   EXPECT_EQ(Scenario(c, "expect ledger tarnq-dfw verified same-as=saved")["ok"], true);
}

TEST_F(ServeTest, AHostParameterNamingNoPortFailsTheLoadWithTheReason) {
   RestartServer({"--module-param", "tarnq-stats-2000:failPort=@nosuch#1"});
   std::string out;
   EXPECT_EQ(Lusctl("upgrade classic --from-build 1000 --to-build 2000 --portset ps0 --module-param seed=7", &out), 1);
   EXPECT_NE(out.find("FAILED at step 2 'load new build'"), std::string::npos) << out;
   EXPECT_NE(out.find("the host's --module-param tarnq-stats-2000:failPort=@nosuch#1: no port nosuch#1"),
             std::string::npos) << out;
   std::string status;
   EXPECT_EQ(Lusctl("status", &status), 0);
   EXPECT_NE(status.find("no upgrade is unfinished"), std::string::npos) << status;
}

TEST_F(ServeTest, AClientThatGoesAwayMidRequestLosesOnlyItsOwnDevice) {
   {
      Connection c;
      ASSERT_TRUE(c.Connect(socket_));
      ASSERT_EQ(Scenario(c, "load lus fromBuild=1000")["ok"], true);
      ASSERT_EQ(c.Call({{"op", "open"}})["status"], 0);
      // A request sent, and gone before its answer.
      c.Send({{"op", "scenario"}, {"line", "takeover ps0 build=2000"}});
      c.Close();
   }
   // The host still serves, and the gone client's device was closed: lus is
   // not pinned by it and unloads.
   Connection d;
   ASSERT_TRUE(d.Connect(socket_));
   EXPECT_TRUE(d.Call({{"op", "hello"}}).contains("host"));
   json unload;
   for (int i = 0; i < 100; i++) {
      unload = Scenario(d, "unload lus");
      if (unload["ok"] == true) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
   }
   EXPECT_EQ(unload["ok"], true) << unload.dump();
   // Garbage gets a clear error, and the connection goes on.
   d.Send(json("not a request"));
   EXPECT_NE(d.Receive()["error"].get<std::string>().find("one line of JSON"), std::string::npos);
   EXPECT_EQ(d.Call({{"op", "sideways"}})["error"], "unknown request sideways");
}

TEST_F(ServeTest, TwoClientsAtOnceAreServedOneRequestAtATime) {
   auto client = [this](int which, int *good) {
      Connection c;
      if (!c.Connect(socket_)) return;
      for (int i = 0; i < 50; i++) {
         json a = Scenario(c, which == 0 ? "expect blocked ps0 no" : "echo hello");
         *good += a["ok"] == true && (which == 0 || a["output"] == "hello\n");
      }
   };
   int good0 = 0, good1 = 0;
   std::thread a(client, 0, &good0), b(client, 1, &good1);
   a.join();
   b.join();
   EXPECT_EQ(good0, 50);
   EXPECT_EQ(good1, 50);
}

const char *kUpgrade = "upgrade classic --from-build 1000 --to-build 2000 --portset ps0 --module-param seed=7";
const char *kRecover = "recover --from-build 1000 --to-build 2000";

// The tool, a separate process, killed (SIGKILL) as each step of the classic
// flow begins: `recover` brings the host to a clean end -- every port passes
// traffic with its state (on the old build, or verified on the new one), or
// is listed as given up; lus's heaps are empty and nothing is pinned.
TEST_F(ServeTest, RecoverEndsCleanAfterTheToolIsKilledAtEachStep) {
   int backs = 0, forwards = 0;
   for (int step = 1; step <= 11; step++) {
      SCOPED_TRACE(fmt::format("killed after step {} ended", step - 1));
      if (step > 1) {
         StopServer();
         std::system(("mkdir -p " + dir_).c_str());
         WriteTopology();
         StartServer();
      }
      int fd = -1;
      std::vector<std::string> args = {"upgrade", "classic", "--from-build", "1000", "--to-build", "2000",
                                       "--portset", "ps0", "--module-param", "seed=7"};
      pid_t tool = SpawnLusctl(args, &fd);
      ASSERT_GT(tool, 0);
      std::string out;
      // Step N's line is printed as it ends: the kill lands in step N+1 (or later).
      if (step == 1 || ReadUntil(fd, fmt::format("[{:>2}/11]", step - 1), &out)) kill(tool, SIGKILL);
      Drain(fd, &out);
      int status = 0;
      waitpid(tool, &status, 0);

      std::string recovered;
      const int code = Lusctl(std::string(kRecover) + " --unblock-lost --allow lost --allow over-budget", &recovered);
      EXPECT_EQ(code, 0) << out << recovered;
      std::string statusOut;
      ASSERT_EQ(Lusctl("--json status", &statusOut), 0) << statusOut;
      json s = json::parse(statusOut, nullptr, false);
      ASSERT_FALSE(s.is_discarded()) << statusOut;
      EXPECT_TRUE(s["portsBlocked"].empty()) << statusOut;
      EXPECT_EQ(s["stateBytesInLusHeaps"], 0) << statusOut;
      EXPECT_TRUE(s["clientsRegistered"].empty()) << statusOut;
      Connection c;
      ASSERT_TRUE(c.Connect(socket_));
      EXPECT_EQ(Scenario(c, "expect blocked ps0 no")["ok"], true);
      // With its state: back on build 1000 (which kept it), or verified on 2000.
      const bool forward = recovered.find("forward to build 2000") != std::string::npos;
      const bool gaveUp = recovered.find("unblocked without their state") != std::string::npos;
      backs += recovered.find("back to build 1000") != std::string::npos;
      forwards += forward;
      if (forward && !gaveUp) {
         EXPECT_EQ(Scenario(c, "expect ledger tarnq-dfw verified same-as=saved")["ok"], true) << recovered;
      }
      if (!forward) {
         EXPECT_NE(recovered.find("back to build 1000"), std::string::npos) << recovered;
         EXPECT_EQ(Scenario(c, "expect use-count tarnq-dfw-1000 0")["ok"], true) << recovered;
      }
   }
   // Early kills go back to the old build, late ones forward to the new.
   EXPECT_GE(backs, 1);
   EXPECT_GE(forwards, 1);
}

// The host goes away in the middle of a flow: the tool ends with the host
// named, what it knows, and the command that recovers -- never an abort.
TEST_F(ServeTest, AHostThatGoesAwayMidFlowEndsTheFlowWithANamedErrorAndTheWayOut) {
   int fd = -1;
   pid_t tool = SpawnLusctl({"upgrade", "classic", "--from-build", "1000", "--to-build", "2000", "--portset", "ps0",
                             "--module-param", "seed=7"},
                            &fd);
   std::string out;
   ASSERT_TRUE(ReadUntil(fd, "[ 5/11]", &out)) << out;
   kill(server_, SIGKILL);
   int st = 0;
   waitpid(server_, &st, 0);
   server_ = -1;
   Drain(fd, &out);
   int status = 0;
   waitpid(tool, &status, 0);
   ASSERT_TRUE(WIFEXITED(status)) << out;
   EXPECT_EQ(WEXITSTATUS(status), 1) << out;
   EXPECT_NE(out.find("the host at " + socket_ + " closed the connection"), std::string::npos) << out;
   // At the step the host went away in, or after the last one it answered.
   EXPECT_TRUE(out.find("FAILED at step") != std::string::npos || out.find("FAILED after step") != std::string::npos)
      << out;
   EXPECT_NE(out.find("lusctl --host " + socket_ + " recover --from-build 1000 --to-build 2000"), std::string::npos)
      << out;
}

// A host that never answers, or answers garbage: a named error and exit 1.
TEST_F(ServeTest, AHostThatNeverAnswersOrAnswersGarbageIsANamedError) {
   const std::string fake = dir_ + "/fake.sock";
   int listener = socket(AF_UNIX, SOCK_STREAM, 0);
   sockaddr_un addr{};
   addr.sun_family = AF_UNIX;
   std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", fake.c_str());
   ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
   ASSERT_EQ(listen(listener, 4), 0);
   // The fake host: the first connection is never answered; the second gets a
   // proper hello, then garbage.
   std::thread host([listener] {
      int silent = accept(listener, nullptr, nullptr);
      int chatty = accept(listener, nullptr, nullptr);
      char buf[4096];
      if (recv(chatty, buf, sizeof buf, 0) > 0) {
         const std::string hello = "{\"host\":\"fake\"}\n";
         send(chatty, hello.data(), hello.size(), MSG_NOSIGNAL);
      }
      if (recv(chatty, buf, sizeof buf, 0) > 0) {
         const std::string garbage = "[1,2\n";
         send(chatty, garbage.data(), garbage.size(), MSG_NOSIGNAL);
      }
      recv(chatty, buf, sizeof buf, 0);
      close(chatty);
      close(silent);
   });
   std::string out;
   const std::string cmd = std::string(LUSCTL_PROGRAM) + " --host " + fake + " --host-timeout 0.3 status 2>&1";
   FILE *p = popen(cmd.c_str(), "r");
   std::array<char, 4096> buf;
   size_t n;
   while ((n = fread(buf.data(), 1, buf.size(), p)) > 0) out.append(buf.data(), n);
   int status = pclose(p);
   EXPECT_EQ(WEXITSTATUS(status), 1) << out;
   EXPECT_NE(out.find("the host at " + fake + " did not answer within 300 ms (request 'hello')"), std::string::npos)
      << out;

   std::string garbage;
   const std::string cmd2 = std::string(LUSCTL_PROGRAM) + " --host " + fake + " --host-timeout 5 " + kUpgrade + " 2>&1";
   p = popen(cmd2.c_str(), "r");
   while ((n = fread(buf.data(), 1, buf.size(), p)) > 0) garbage.append(buf.data(), n);
   status = pclose(p);
   EXPECT_TRUE(WIFEXITED(status)) << garbage;
   EXPECT_EQ(WEXITSTATUS(status), 1) << garbage;
   EXPECT_NE(garbage.find("answered something that is not a JSON object"), std::string::npos) << garbage;
   host.join();
   close(listener);
}

// A request whose fields are of the wrong type is refused; the server goes on.
TEST_F(ServeTest, MistypedRequestsAreRefusedAndTheServerGoesOn) {
   Connection c;
   ASSERT_TRUE(c.Connect(socket_));
   c.Call({{"op", "open"}});   // the connection's device, so that an ioctl reads its fields
   for (const json &bad : {json{{"op", 1}}, json{{"op", nullptr}}, json::array(), json{{"op", "load"}, {"name", 3}},
                           json{{"op", "ioctl"}, {"cmd", "x"}, {"payload", ""}, {"length", 0}},
                           json{{"op", "unblock-port"}, {"port", "p"}}}) {
      json a = c.Call(bad);
      EXPECT_TRUE(a.contains("error")) << bad.dump() << " -> " << a.dump();
   }
   EXPECT_TRUE(c.Call({{"op", "hello"}}).contains("host"));
}

// ---- who may drive the host ----------------------------------------------------------------

// Runs `body` in a child process as `uid`/`gid` (no supplementary groups);
// returns its exit code.  Only root can change its user.
int RunAs(uid_t uid, gid_t gid, const std::function<int()> &body) {
   pid_t pid = fork();
   if (pid == 0) {
      if (setgroups(0, nullptr) != 0 || setgid(gid) != 0 || setuid(uid) != 0) _exit(99);
      _exit(body());
   }
   int status = 0;
   waitpid(pid, &status, 0);
   return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Runs the server program to its end (it must refuse to start; `timeout`
// ends one that serves after all); returns its exit code and output.
int ServeOnce(const std::string &args, std::string *out) {
   const std::string cmd = fmt::format("timeout 60 {} serve --module-dir {} {} 2>&1", HYKSIM_PROGRAM, LUS_MODULES_DIR, args);
   FILE *p = popen(cmd.c_str(), "r");
   std::array<char, 4096> buf;
   size_t n;
   while ((n = fread(buf.data(), 1, buf.size(), p)) > 0) out->append(buf.data(), n);
   const int status = pclose(p);
   return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(ServeTest, TheSocketIsTheOwnersAloneWhateverTheUmask) {
   RestartServer({}, 0);
   struct stat st {};
   ASSERT_EQ(lstat(socket_.c_str(), &st), 0);
   EXPECT_TRUE(S_ISSOCK(st.st_mode));
   EXPECT_EQ(st.st_mode & 07777, 0600u);
   EXPECT_EQ(st.st_uid, geteuid());
}

TEST_F(ServeTest, AStrangerCanNeitherConnectNorDriveTheHost) {
   if (geteuid() != 0) GTEST_SKIP() << "needs root to run a peer as another user";
   const uid_t nobody = 65534;
   // Through the file's permissions: the socket is 0600.
   EXPECT_EQ(RunAs(nobody, nobody, [this] {
                Connection c;
                return c.Connect(socket_) ? 1 : (errno == EACCES ? 0 : 2);
             }),
             0);
   // And through the credentials, should the file be opened up: refused, and
   // its shutdown never reaches the host.
   ASSERT_EQ(chmod(socket_.c_str(), 0666), 0);
   ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
   EXPECT_EQ(RunAs(nobody, nobody, [this] {
                Connection c;
                if (!c.Connect(socket_)) return 3;
                c.SendRaw(R"({"op":"shutdown"})" "\n");
                json a = c.Receive();
                if (!a.is_object() || a.value("error", "").find("refused: uid 65534") != 0) return 4;
                if (a.value("error", "").find("is not the host's owner (uid 0)") == std::string::npos) return 5;
                return c.ClosedByPeer() ? 0 : 6;
             }),
             0);
   Connection owner;
   ASSERT_TRUE(owner.Connect(socket_));
   EXPECT_TRUE(owner.Call({{"op", "hello"}}).contains("host"));
}

TEST_F(ServeTest, AnAllowedGroupGetsInAndNoOtherGroup) {
   if (geteuid() != 0) GTEST_SKIP() << "needs root to run a peer as another user";
   RestartServer({"--allow-group", "4242"});
   struct stat st {};
   ASSERT_EQ(lstat(socket_.c_str(), &st), 0);
   EXPECT_EQ(st.st_mode & 07777, 0660u);
   EXPECT_EQ(st.st_gid, 4242u);
   ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
   auto hello = [this] {
      Connection c;
      if (!c.Connect(socket_)) return 10 + (errno == EACCES ? 1 : 2);
      c.SendRaw(R"({"op":"hello"})" "\n");   // not Send: no assertion in the child
      json a = c.Receive();
      if (a.contains("host")) return 0;
      return a.value("error", "").find("nor of group 4242") != std::string::npos ? 20 : 30;
   };
   EXPECT_EQ(RunAs(65534, 4242, hello), 0);
   // Another group cannot even open the socket file; its credentials would be refused too.
   EXPECT_EQ(RunAs(65534, 4343, hello), 11);
   ASSERT_EQ(chmod(socket_.c_str(), 0666), 0);
   EXPECT_EQ(RunAs(65534, 4343, hello), 20);
}

TEST_F(ServeTest, APathThatIsNotAStaleSocketIsNeverTaken) {
   std::string out;
   // A regular file stays as it is.
   const std::string file = dir_ + "/precious";
   std::ofstream(file) << "keep me\n";
   EXPECT_EQ(ServeOnce("--socket " + file, &out), 1) << out;
   EXPECT_NE(out.find(file + " exists and is a regular file, not a socket: it is left as it is"), std::string::npos)
      << out;
   std::ifstream in(file);
   std::string kept;
   std::getline(in, kept);
   EXPECT_EQ(kept, "keep me");
   // So does a symbolic link, even to a socket.
   const std::string link = dir_ + "/link";
   ASSERT_EQ(symlink(socket_.c_str(), link.c_str()), 0);
   out.clear();
   EXPECT_EQ(ServeOnce("--socket " + link, &out), 1) << out;
   EXPECT_NE(out.find("is a symbolic link, not a socket"), std::string::npos) << out;
   // A live server's socket is not taken over: the first server goes on serving.
   out.clear();
   EXPECT_EQ(ServeOnce("--socket " + socket_, &out), 1) << out;
   EXPECT_NE(out.find("a server is live on " + socket_ + ": it is left serving"), std::string::npos) << out;
   Connection c;
   ASSERT_TRUE(c.Connect(socket_));
   EXPECT_TRUE(c.Call({{"op", "hello"}}).contains("host"));
   // A stale socket (its server gone without removing it) is taken.
   const std::string stale = dir_ + "/stale.sock";
   int fd = socket(AF_UNIX, SOCK_STREAM, 0);
   sockaddr_un addr{};
   addr.sun_family = AF_UNIX;
   std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", stale.c_str());
   ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
   close(fd);
   StopServer(false);
   socket_ = stale;
   StartServer();
   Connection d;
   ASSERT_TRUE(d.Connect(stale));
   EXPECT_TRUE(d.Call({{"op", "hello"}}).contains("host"));
}

TEST_F(ServeTest, ADirectoryOthersCanWriteIsRefusedUnlessSticky) {
   const std::string open = dir_ + "/open";
   ASSERT_EQ(mkdir(open.c_str(), 0700), 0);
   ASSERT_EQ(chmod(open.c_str(), 0777), 0);
   std::string out;
   EXPECT_EQ(ServeOnce("--socket " + open + "/h.sock", &out), 1) << out;
   EXPECT_NE(out.find("the socket's directory " + open + " is writable by others (mode 777) and not sticky"),
             std::string::npos) << out;
   struct stat st {};
   EXPECT_NE(lstat((open + "/h.sock").c_str(), &st), 0);
   // Sticky, as /tmp is: no one else can remove or rename what is ours there.
   ASSERT_EQ(chmod(open.c_str(), 01777), 0);
   StopServer(false);
   socket_ = open + "/h.sock";
   StartServer();
   Connection c;
   ASSERT_TRUE(c.Connect(socket_));
   EXPECT_TRUE(c.Call({{"op", "hello"}}).contains("host"));
}

// ---- the server survives every request --------------------------------------------------------

TEST_F(ServeTest, EachInputOfTheReportGetsAClearErrorAndTheOthersAreStillServed) {
   Connection other;
   ASSERT_TRUE(other.Connect(socket_));
   Connection c;
   ASSERT_TRUE(c.Connect(socket_));
   for (const char *raw : {R"({"op":1})", "null", "[]", "{}", "true"}) {
      c.SendRaw(std::string(raw) + "\n");
      EXPECT_TRUE(c.Receive().contains("error")) << raw;
   }
   for (const json &bad : {json{{"op", "takeover"}, {"portset", "ps0"}, {"build", 2000}, {"threads", -1}},
                           json{{"op", "takeover"}, {"portset", "ps0"}, {"build", 2000}, {"threads", 100000}},
                           json{{"op", "ioctl"}, {"cmd", 4294967302ull}, {"payload", ""}, {"length", 0}},
                           json{{"op", "load"}, {"name", "../../../tmp/x"}, {"params", json::array()}}}) {
      EXPECT_TRUE(c.Call(bad).contains("error")) << bad.dump();
   }
   for (const char *line : {"ports ps0 18446744073709551615", "ports ps0 10000000", "ioctl 4294967302",
                            "takeover ps0 build=2000 threads=-1", "advance 18446744073709", "advance 1e300",
                            "load client ../../x build=1"}) {
      json a = Scenario(c, line);
      EXPECT_EQ(a["ok"], false) << line;
      EXPECT_NE(a["error"].get<std::string>().find("bad"), std::string::npos) << line << ": " << a.dump();
   }
   EXPECT_EQ(Scenario(other, "expect blocked ps0 no")["ok"], true);
   EXPECT_EQ(Scenario(c, "echo still here")["output"], "still here\n");
}

TEST_F(ServeTest, ALineTooLongIsRefusedAndTheConnectionGoesOn) {
   RestartServer({"--max-line-bytes", "1024"});
   Connection c;
   ASSERT_TRUE(c.Connect(socket_));
   c.SendRaw(std::string(5000, 'x') + "\n");
   EXPECT_EQ(c.Receive()["error"], "a request longer than 1024 bytes is refused (--max-line-bytes)");
   EXPECT_TRUE(c.Call({{"op", "hello"}}).contains("host"));
   // A line without end: refused as soon as it is too long, dropped up to its newline.
   for (int i = 0; i < 64; i++) c.SendRaw(std::string(16384, '{'));
   EXPECT_NE(c.Receive()["error"].get<std::string>().find("longer than 1024"), std::string::npos);
   c.SendRaw("\n");
   EXPECT_TRUE(c.Call({{"op", "hello"}}).contains("host"));
}

TEST_F(ServeTest, ConnectionsBeyondTheLimitAreRefusedAndAPlaceComesBack) {
   RestartServer({"--max-connections", "2"});
   Connection a, b;
   ASSERT_TRUE(a.Connect(socket_));
   ASSERT_TRUE(a.Call({{"op", "hello"}}).contains("host"));
   ASSERT_TRUE(b.Connect(socket_));
   ASSERT_TRUE(b.Call({{"op", "hello"}}).contains("host"));
   Connection c;
   ASSERT_TRUE(c.Connect(socket_));
   EXPECT_EQ(c.Receive()["error"], "refused: the host serves 2 connections at once already (--max-connections)");
   EXPECT_TRUE(c.ClosedByPeer());
   // The place of a finished connection is given back (once its thread is joined).
   a.Close();
   bool served = false;
   for (int i = 0; i < 200 && !served; i++) {
      Connection d;
      if (d.Connect(socket_)) {
         d.SendRaw(R"({"op":"hello"})" "\n");   // a refused one may be closed already
         served = d.Receive().contains("host");
      }
      if (!served) std::this_thread::sleep_for(std::chrono::milliseconds(10));
   }
   EXPECT_TRUE(served);
}

TEST_F(ServeTest, ShutdownEndsEveryConnectionAndTheProcess) {
   Connection idle, withDevice, midLine;
   ASSERT_TRUE(idle.Connect(socket_));
   ASSERT_TRUE(withDevice.Connect(socket_));
   ASSERT_TRUE(midLine.Connect(socket_));
   ASSERT_EQ(Scenario(withDevice, "load lus fromBuild=1000")["ok"], true);
   ASSERT_EQ(withDevice.Call({{"op", "open"}})["status"], 0);
   ASSERT_TRUE(idle.Call({{"op", "hello"}}).contains("host"));
   midLine.SendRaw(R"({"op":"hel)");
   Connection boss;
   ASSERT_TRUE(boss.Connect(socket_));
   EXPECT_EQ(boss.Call({{"op", "shutdown"}})["ok"], true);
   // Every connection is ended by the server, and the process exits 0.
   EXPECT_TRUE(idle.ClosedByPeer());
   EXPECT_TRUE(withDevice.ClosedByPeer());
   EXPECT_TRUE(midLine.ClosedByPeer());
   int status = 0;
   ASSERT_EQ(waitpid(server_, &status, 0), server_);
   server_ = -1;
   EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
   struct stat st {};
   EXPECT_NE(lstat(socket_.c_str(), &st), 0) << "the socket is left behind";
}

TEST_F(ServeTest, SigtermStopsTheServerCleanly) {
   Connection c;
   ASSERT_TRUE(c.Connect(socket_));
   ASSERT_TRUE(c.Call({{"op", "hello"}}).contains("host"));
   kill(server_, SIGTERM);
   EXPECT_TRUE(c.ClosedByPeer());
   int status = 0;
   ASSERT_EQ(waitpid(server_, &status, 0), server_);
   server_ = -1;
   EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
   struct stat st {};
   EXPECT_NE(lstat(socket_.c_str(), &st), 0);
}

// ---- memory over a long life -------------------------------------------------------------------

// A figure of /proc/PID/status ("VmRSS", "Threads").
uint64_t StatusFigure(pid_t pid, const std::string &name) {
   std::ifstream in(fmt::format("/proc/{}/status", pid));
   std::string line;
   while (std::getline(in, line)) {
      if (line.rfind(name + ":", 0) == 0) return std::stoull(line.substr(name.size() + 1));
   }
   return 0;
}

// The sanitizers change what memory means: ASan keeps freed blocks in
// quarantine (its resident memory grows by design), and both make a thread
// cost many times its plain price.  There the soak is a tenth as long and
// checks the threads alone.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

// 10,000 connections and 1,000 malformed requests against one server: its
// resident memory stays flat and every connection's thread is given back.
// Measured, not timed.
TEST_F(ServeTest, TenThousandConnectionsAndAThousandMalformedRequestsLeaveTheMemoryFlat) {
   const std::vector<std::string> malformed = {
      R"({"op":1})", "null", "[]", "{}", R"({"op":"ioctl","cmd":"x","payload":"","length":0})",
      R"({"op":"takeover","portset":"ps0","build":2000,"threads":100000})", std::string("\x00\xff\xfe{", 4),
      R"({"op":"load","name":"../../x","params":[]})", std::string(4096, '['), R"({"op":"scenario","line":"ports ps0 99999999999"})"};
   int sent = 0;
   auto round = [&](int connections, int malformedPerConnection, bool oversize) {
      for (int i = 0; i < connections; i++) {
         Connection c;
         ASSERT_TRUE(c.Connect(socket_)) << i;
         for (int k = 0; k < malformedPerConnection; k++, sent++) {
            c.SendRaw(malformed[static_cast<size_t>(sent) % malformed.size()] + "\n");
            ASSERT_TRUE(c.Receive().contains("error")) << sent;
         }
         if (oversize && i % 250 == 0) {
            c.SendRaw(std::string((1 << 20) + 10, 'z') + "\n");   // over the 1 MiB default
            ASSERT_TRUE(c.Receive().contains("error"));
         }
         ASSERT_TRUE(c.Call({{"op", "hello"}}).contains("host")) << i;
      }
   };
   // Warm-up: the allocator's arenas and the host's first answers.
   round(200, 1, true);
   auto settle = [&] {
      // Wait until every finished connection's thread is joined (the accepting thread alone, plus the host's).
      uint64_t threads = 0;
      for (int i = 0; i < 500; i++) {
         threads = StatusFigure(server_, "Threads");
         Connection c;
         ASSERT_TRUE(c.Connect(socket_));
         ASSERT_TRUE(c.Call({{"op", "hello"}}).contains("host"));
         c.Close();
         std::this_thread::sleep_for(std::chrono::milliseconds(10));
         if (StatusFigure(server_, "Threads") == threads) break;
      }
   };
   settle();
   const uint64_t rssBefore = StatusFigure(server_, "VmRSS");
   const uint64_t threadsBefore = StatusFigure(server_, "Threads");
   sent = 0;
   const int connections = kSanitized ? 1000 : 10000;
   round(connections, 0, false);
   round(1000, 1, true);   // 1,000 more connections send a malformed request each (and 4 a 1 MiB line)
   ASSERT_EQ(sent, 1000);
   settle();
   const uint64_t rssAfter = StatusFigure(server_, "VmRSS");
   const uint64_t threadsAfter = StatusFigure(server_, "Threads");
   std::cout << fmt::format("soak: VmRSS {} kB before, {} kB after {} connections and 1,000 malformed "
                            "requests ({:+} kB); threads {} before, {} after\n",
                            rssBefore, rssAfter, connections + 1000, static_cast<int64_t>(rssAfter) - static_cast<int64_t>(rssBefore),
                            threadsBefore, threadsAfter);
   RecordProperty("rss_before_kb", std::to_string(rssBefore));
   RecordProperty("rss_after_kb", std::to_string(rssAfter));
   EXPECT_GT(rssBefore, 0u);
   EXPECT_EQ(threadsAfter, threadsBefore);
   if (!kSanitized) {
      // A thread kept per connection costs at least its stack's touched
      // pages (tens of MB for 11,000), a request line kept its length; 16 MiB
      // is room for the allocator's own moods.
      EXPECT_LT(rssAfter, rssBefore + 16 * 1024) << "resident memory grew";
   }
}

}  // namespace
