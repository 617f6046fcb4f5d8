// `hyksim serve`: the host as a long-running process, driven over its Unix
// socket by a separate lusctl process, by clients that go away in the middle
// of a request, and by two clients at once.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

#include <array>
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

   void StartServer() {
      server_ = fork();
      if (server_ == 0) {
         execl(HYKSIM_PROGRAM, "hyksim", "serve", "--socket", socket_.c_str(), "--module-dir",
               LUS_MODULES_DIR, topology_.c_str(), (char *)nullptr);
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

   void StopServer() {
      if (server_ < 0) {
         std::system(("rm -rf " + dir_).c_str());
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
      std::system(("rm -rf " + dir_).c_str());
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

}  // namespace
