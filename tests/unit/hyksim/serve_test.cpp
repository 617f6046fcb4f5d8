// `hyksim serve`: the host as a long-running process, driven over its Unix
// socket by a separate lusctl process, by clients that go away in the middle
// of a request, and by two clients at once.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

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
      std::ofstream(topology_) << "load client tarnq-vswitch build=1000\n"
                                  "portset ps0 module=tarnq-vswitch-1000\n"
                                  "ports ps0 40 vms=20 external-id=a\n"
                                  "load client tarnq-dfw build=1000\n"
                                  "load client tarnq-stats build=1000\n";
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
   void TearDown() override {
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
      std::system(("rm -rf " + dir_).c_str());
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

}  // namespace
