// main.cpp -- the host program: runs scenarios on the simulated host, types
// them interactively, or runs the demo.
//
//   hyksim run FILE... [--seed N] [--log-file F] [--report-dir D]
//   hyksim shell [--seed N] [--log-file F]
//   hyksim demo [--report-dir D]
//   hyksim serve --socket PATH [FILE]
#include <editline/readline.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <atomic>
#include <cstring>
#include <iostream>
#include <filesystem>
#include <mutex>
#include <sstream>
#include <thread>

#include "scenario.h"


namespace {

struct Common {
   uint64_t seed = 7;
   std::string logFile;
   std::string reportDir = ".";
   std::string moduleDir;                  // the programs' own modules ("": found from the program)
   std::vector<std::string> modulePath;    // --module-path, each DIR[:DIR...]

   std::vector<std::string> Dirs() const {
      return lusctl::ModuleSearchPath(moduleDir.empty() ? lusctl::OwnModuleDir() : moduleDir, modulePath);
   }
};

#ifndef HYKSIM_SCENARIO_DIR
#define HYKSIM_SCENARIO_DIR "scenarios"
#endif

// The shipped scenarios: PREFIX/share/lus/scenarios when installed, the
// source tree's scenarios/ beside a build tree SRC/build/<preset>.
std::string ScenarioDir() {
   const std::string own = lusctl::OwnModuleDir();   // .../lib/lus/modules or BUILD/modules
   for (const std::string rel : {"/../../../share/lus/scenarios", "/../../../scenarios"}) {
      if (std::filesystem::is_directory(own + rel + "/demo-classic.hyk") ||
          std::filesystem::exists(own + rel + "/demo-classic.hyk")) {
         return std::filesystem::weakly_canonical(own + rel).string();
      }
   }
   return HYKSIM_SCENARIO_DIR;
}

// `hyksim modules`: every module along the path and where; a name found twice fails.
int ListModules(const Common &c) {
   const auto dirs = c.Dirs();
   std::cout << fmt::format("module path: {}\n", fmt::join(dirs, ":"));
   const auto files = lusctl::ListModuleFiles(dirs);
   int twice = 0;
   for (size_t i = 0; i < files.size(); i++) {
      const bool dup = (i > 0 && files[i - 1].name == files[i].name) ||
                       (i + 1 < files.size() && files[i + 1].name == files[i].name);
      twice += dup;
      std::cout << fmt::format("  {:<28} {}{}\n", files[i].name, files[i].path, dup ? "   <- found twice" : "");
   }
   if (twice != 0) {
      std::cerr << "hyksim modules: a module name is found twice; a host could not tell which to load\n";
      return 1;
   }
   return 0;
}

void StartHost(const Common &c) {
   hyksim::HostOptions o;
   o.logFile = c.logFile;
   hyksim::HostStart(o);
}

hyksimtool::ScenarioOptions Options(const Common &c) {
   hyksimtool::ScenarioOptions o;
   o.moduleDir = fmt::format("{}", fmt::join(c.Dirs(), ":"));
   o.reportDir = c.reportDir;
   o.seed = c.seed;
   return o;
}

// Each file on a fresh host; exit 0 only when every file passed.
int Run(const Common &c, const std::vector<std::string> &files) {
   int failed = 0;
   for (const auto &file : files) {
      StartHost(c);
      std::cout << fmt::format("== {} (seed {})\n", file, c.seed);
      hyksimtool::Interpreter interp(Options(c), std::cout);
      const bool ok = interp.RunFile(file);
      std::cout << fmt::format("== {}: {}\n", file, ok ? "passed" : "FAILED");
      failed += ok ? 0 : 1;
      hyksim::HostStop();
   }
   if (files.size() > 1) std::cout << fmt::format("{} of {} scenarios passed\n", files.size() - failed, files.size());
   return failed == 0 ? 0 : 1;
}

// ---- the shell ---------------------------------------------------------------------------

hyksimtool::Interpreter *gShell = nullptr;

char *CompleteWord(const char *text, int state) {
   static std::vector<std::string> matches;
   static size_t next;
   if (state == 0) {
      matches.clear();
      next = 0;
      std::vector<std::string> words = hyksimtool::Interpreter::CommandNames();
      for (const auto &n : gShell->Names()) words.push_back(n);
      for (const auto &w : words) {
         if (w.compare(0, std::strlen(text), text) == 0) matches.push_back(w);
      }
   }
   return next < matches.size() ? strdup(matches[next++].c_str()) : nullptr;
}

char **Complete(const char *text, int start, int end) {
   rl_attempted_completion_over = 1;
   return rl_completion_matches(text, CompleteWord);
}

int Shell(const Common &c) {
   StartHost(c);
   hyksimtool::Interpreter interp(Options(c), std::cout);
   gShell = &interp;
   rl_attempted_completion_function = Complete;
   const std::string history = std::string(getenv("HOME") ? getenv("HOME") : ".") + "/.hyksim_history";
   read_history(history.c_str());
   std::cout << "hyksim shell: the scenario language on a fresh simulated host; 'help' lists the "
                "commands, Tab completes, Ctrl-D leaves.\n";
   int failures = 0;
   for (;;) {
      char *line = readline("hyksim> ");
      if (line == nullptr) break;
      std::string text = line;
      free(line);
      if (text == "quit" || text == "exit") break;
      if (!text.empty()) add_history(text.c_str());
      std::string why = interp.Execute(text);
      if (!why.empty()) {
         std::cout << "error: " << why << "\n";
         failures++;
      }
   }
   write_history(history.c_str());
   std::cout << "\n";
   gShell = nullptr;
   hyksim::HostStop();
   return failures == 0 ? 0 : 1;
}

// ---- the host as a server -----------------------------------------------------------------

// The host of this process, served on a Unix socket to tools of other
// processes: the scenario language for host-side actions, and the device.
// Connections are served at once, but requests one at a time: a request
// waits for the one before it to finish.  A connection that goes away (even
// in the middle of a request) loses only its own device, which is closed.
int Serve(const Common &c, const std::string &socketPath, const std::string &topology) {
   signal(SIGPIPE, SIG_IGN);
   StartHost(c);
   std::ostringstream scenarioOut;
   hyksimtool::Interpreter interp(Options(c), scenarioOut);
   if (!topology.empty() && !interp.RunFile(topology)) {
      std::cerr << scenarioOut.str();
      hyksim::HostStop();
      return 1;
   }
   auto host = lusctl::MakeSimHost(fmt::format("{}", fmt::join(c.Dirs(), ":")));
   std::mutex one;   // one request at a time

   int lfd = socket(AF_UNIX, SOCK_STREAM, 0);
   sockaddr_un addr{};
   addr.sun_family = AF_UNIX;
   if (lfd < 0 || socketPath.size() >= sizeof(addr.sun_path)) {
      std::cerr << "hyksim serve: bad socket path " << socketPath << "\n";
      return 2;
   }
   std::strcpy(addr.sun_path, socketPath.c_str());
   unlink(socketPath.c_str());
   if (bind(lfd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(lfd, 8) != 0) {
      std::cerr << "hyksim serve: cannot listen on " << socketPath << ": " << std::strerror(errno) << "\n";
      return 1;
   }
   std::cout << fmt::format("hyksim serve: host ready on {} (seed {})", socketPath, c.seed) << std::endl;

   std::atomic<bool> stop{false};
   std::vector<std::thread> sessions;
   while (!stop) {
      int fd = accept(lfd, nullptr, nullptr);
      if (fd < 0) break;
      sessions.emplace_back([&, fd] {
         lusctl::ServerSession session;
         session.host = host.get();
         session.scenario = [&](const std::string &line, std::string *output) {
            std::string why = interp.Execute(line);
            *output = scenarioOut.str();
            scenarioOut.str("");
            return why;
         };
         std::string buffered;
         char buf[65536];
         for (;;) {
            auto nl = buffered.find('\n');
            if (nl == std::string::npos) {
               ssize_t n = recv(fd, buf, sizeof buf, 0);
               if (n <= 0) break;
               buffered.append(buf, static_cast<size_t>(n));
               continue;
            }
            std::string line = buffered.substr(0, nl);
            buffered.erase(0, nl + 1);
            bool shutdownNow = false;
            std::string answer;
            {
               std::lock_guard<std::mutex> lk(one);
               answer = lusctl::HandleRequest(session, line, &shutdownNow) + "\n";
            }
            send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
            if (shutdownNow) {
               stop = true;
               shutdown(lfd, SHUT_RDWR);
               break;
            }
         }
         std::lock_guard<std::mutex> lk(one);
         if (session.device) session.device->Close();
         session.device.reset();
         close(fd);
      });
   }
   for (auto &t : sessions) t.join();
   close(lfd);
   unlink(socketPath.c_str());
   hyksim::HostStop();
   std::cout << "hyksim serve: stopped" << std::endl;
   return 0;
}

}  // namespace

int main(int argc, char **argv) {
   CLI::App app{"hyksim -- the simulated host: rehearse, break and measure an upgrade"};
   app.require_subcommand(1);
   Common c;
   auto common = [&c](CLI::App *s) {
      s->add_option("--seed", c.seed, "seed of the client modules' state and of random faults")->capture_default_str();
      s->add_option("--log-file", c.logFile, "also write the host log to FILE");
      s->add_option("--module-dir", c.moduleDir,
                    "the programs' own modules (default: this installation's, or the build tree's)");
      s->add_option("--module-path", c.modulePath,
                    "DIR[:DIR...]: more modules, searched after the own ones and HYKSIM_MODULE_PATH's "
                    "(a client as DIR/NAME-BUILD.so or DIR/clients/NAME-BUILD.so, lus as DIR/bBUILD/lus.so)")
         ->allow_extra_args(false);   // one value per --module-path: the files after it are files
   };
   std::vector<std::string> files;
   auto *run = app.add_subcommand("run", "run scenario files, each on a fresh host; exit 0 only when all pass");
   run->add_option("FILE", files, "a .hyk scenario")->required()->check(CLI::ExistingFile);
   run->add_option("--report-dir", c.reportDir, "where 'report json=... trace=... chart=...' writes")->capture_default_str();
   common(run);
   auto *shell = app.add_subcommand("shell", "type the scenario language at a prompt (line editing, history, Tab)");
   common(shell);
   auto *demo = app.add_subcommand("demo", "run the demo: a classic upgrade of about 200 ports (scenarios/demo-classic.hyk)");
   demo->add_option("--report-dir", c.reportDir, "where the report, trace and chart go")->capture_default_str();
   common(demo);
   std::string socketPath, topology;
   auto *serve = app.add_subcommand("serve", "serve the host on a Unix socket to tools of other processes "
                                             "(lusctl --host PATH)");
   serve->add_option("--socket", socketPath, "the socket's path")->required();
   serve->add_option("FILE", topology, "a scenario that builds the host first")->check(CLI::ExistingFile);
   common(serve);
   auto *modules = app.add_subcommand("modules", "list the modules along the module path, and where each is");
   common(modules);
   CLI11_PARSE(app, argc, argv);

   if (*modules) return ListModules(c);
   if (*run) return Run(c, files);
   if (*shell) return Shell(c);
   if (*serve) return Serve(c, socketPath, topology);
   return Run(c, {ScenarioDir() + "/demo-classic.hyk"});
}
