// `hyksim shell` driven through a pseudo-terminal, as a person types at it:
// the prompt, commands, an error, Tab completion, and "quit" to leave (Ctrl-D
// works too, but whether the terminal or the line editor sees it first is a
// race no test should depend on).
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

namespace {

class Pty {
  public:
   bool Start(const std::string &home) {
      pid_ = forkpty(&fd_, nullptr, nullptr, nullptr);
      if (pid_ == 0) {
         setenv("HOME", home.c_str(), 1);
         setenv("TERM", "dumb", 1);
         execl(HYKSIM_PROGRAM, "hyksim", "shell", "--module-dir", LUS_MODULES_DIR, (char *)nullptr);
         _exit(127);
      }
      return pid_ > 0;
   }
   void Send(const std::string &s) { (void)!write(fd_, s.data(), s.size()); }
   // Reads until `needle` shows up in the output or the time is up.
   bool ReadUntil(const std::string &needle, int ms = 10000) {
      auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
      while (std::chrono::steady_clock::now() < until) {
         if (out_.find(needle, mark_) != std::string::npos) {
            mark_ = out_.find(needle, mark_) + needle.size();
            return true;
         }
         pollfd p{fd_, POLLIN, 0};
         if (poll(&p, 1, 50) > 0) {
            char buf[4096];
            ssize_t n = read(fd_, buf, sizeof buf);
            if (n <= 0) break;
            out_.append(buf, static_cast<size_t>(n));
         }
      }
      return false;
   }
   // The exit code, or -1 when the shell has not exited within 10 s (it is killed).
   int Wait() {
      int status = 0;
      for (int i = 0; i < 1000; i++) {
         if (waitpid(pid_, &status, WNOHANG) == pid_) {
            // Killed by a signal: -100 - the signal, so a failure says which.
            return WIFEXITED(status) ? WEXITSTATUS(status) : -100 - WTERMSIG(status);
         }
         ReadUntil("\x01", 10);   // keep draining what it prints (returns at once once it closed)
         std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
      return -1;
   }
   ~Pty() {
      if (fd_ >= 0) close(fd_);
   }
   const std::string &out() const { return out_; }

  private:
   pid_t pid_ = -1;
   int fd_ = -1;
   std::string out_;
   size_t mark_ = 0;
};

TEST(HyksimShell, TypedCommandsRunWithEditingCompletionAndHistory) {
   Pty pty;
   ASSERT_TRUE(pty.Start(::testing::TempDir()));
   ASSERT_TRUE(pty.ReadUntil("hyksim> ")) << pty.out();
   pty.Send("help\r");
   ASSERT_TRUE(pty.ReadUntil("takeover PORTSET build=N")) << pty.out();
   pty.Send("portset ps0 version=106\r");
   ASSERT_TRUE(pty.ReadUntil("hyksim> "));
   pty.Send("ports ps0 4\r");
   ASSERT_TRUE(pty.ReadUntil("hyksim> "));
   pty.Send("expect blocked ps0 yes\r");
   ASSERT_TRUE(pty.ReadUntil("error: port ")) << pty.out();
   // Tab completes a command name.
   pty.Send("ech\t");
   ASSERT_TRUE(pty.ReadUntil("echo")) << pty.out();
   pty.Send(" completed\r");
   ASSERT_TRUE(pty.ReadUntil("completed\r\n")) << pty.out();
   ASSERT_TRUE(pty.ReadUntil("hyksim> ")) << pty.out();
   pty.Send("quit\r");
   // One command failed, so the shell exits 1.
   EXPECT_EQ(pty.Wait(), 1) << pty.out();
}

}  // namespace
