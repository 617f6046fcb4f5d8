// main.cpp -- the host program: runs scenarios on the simulated host, types
// them interactively, or runs the demo.
//
//   hyksim run FILE... [--seed N] [--log-file F] [--report-dir D]
//   hyksim shell [--seed N] [--log-file F]
//   hyksim demo [--report-dir D]
#include <editline/readline.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <cstring>
#include <iostream>

#include "scenario.h"

#ifndef HYKSIM_MODULE_DIR
#define HYKSIM_MODULE_DIR "modules"
#endif
#ifndef HYKSIM_SCENARIO_DIR
#define HYKSIM_SCENARIO_DIR "scenarios"
#endif

namespace {

struct Common {
   uint64_t seed = 7;
   std::string logFile;
   std::string reportDir = ".";
   std::string moduleDir = HYKSIM_MODULE_DIR;
};

void StartHost(const Common &c) {
   hyksim::HostOptions o;
   o.logFile = c.logFile;
   hyksim::HostStart(o);
}

hyksimtool::ScenarioOptions Options(const Common &c) {
   hyksimtool::ScenarioOptions o;
   o.moduleDir = c.moduleDir;
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

}  // namespace

int main(int argc, char **argv) {
   CLI::App app{"hyksim -- the simulated host: rehearse, break and measure an upgrade"};
   app.require_subcommand(1);
   Common c;
   auto common = [&c](CLI::App *s) {
      s->add_option("--seed", c.seed, "seed of the client modules' state and of random faults")->capture_default_str();
      s->add_option("--log-file", c.logFile, "also write the host log to FILE");
      s->add_option("--module-dir", c.moduleDir, "where lus and the client modules are")->capture_default_str();
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
   CLI11_PARSE(app, argc, argv);

   if (*run) return Run(c, files);
   if (*shell) return Shell(c);
   return Run(c, {std::string(HYKSIM_SCENARIO_DIR) + "/demo-classic.hyk"});
}
