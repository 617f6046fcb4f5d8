// main.cpp -- the host program: runs scenarios on the simulated host, types
// them interactively, or runs the demo.
//
//   hyksim run FILE... [--seed N] [--log-file F] [--report-dir D]
//   hyksim run FILE --schedules N [--schedule-seed S] [--pct-depth D] [--jobs J]
//   hyksim run FILE --schedule SEED [--pct-depth D --pct-steps K]
//   hyksim run FILE --stress N
//   hyksim shell [--seed N] [--log-file F]
//   hyksim demo [--report-dir D]
//   hyksim serve --socket PATH [FILE] [--allow-group G] [--module-param M:N=V] [--max-...]
//
// Every number of the command line is read with the one parser of input.h:
// a value out of range or malformed is bad usage (exit 2), never wrapped.
#include <editline/readline.h>
#include <grp.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <cstring>
#include <filesystem>
#include <iostream>
#include <optional>

#include "explore.h"
#include "input.h"
#include "scenario.h"
#include "server.h"


namespace {

struct Common {
   hyksimtool::ScenarioOptions limits;   // the host's limits (--max-ports, ...)
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

// Starts the host; false (said on stderr) when its log file cannot be written.
bool StartHost(const Common &c) {
   hyksim::HostOptions o;
   o.logFile = c.logFile;
   hyksim::HostStart(o);
   const std::string why = hyksim::LogFileError();
   if (!why.empty()) {
      std::cerr << "hyksim: --log-file " << why << "\n";
      hyksim::HostStop();
      return false;
   }
   return true;
}

// Stops the host; false (said on stderr) when a line could not be written to its log file.
bool StopHost() {
   hyksim::HostStop();
   const std::string why = hyksim::LogFileError();
   if (why.empty()) return true;
   std::cerr << "hyksim: --log-file " << why << "\n";
   return false;
}

hyksimtool::ScenarioOptions Options(const Common &c) {
   hyksimtool::ScenarioOptions o;
   o.moduleDir = fmt::format("{}", fmt::join(c.Dirs(), ":"));
   o.reportDir = c.reportDir;
   o.seed = c.seed;
   o.maxPorts = c.limits.maxPorts;
   o.maxPortsets = c.limits.maxPortsets;
   o.maxTakeoverThreads = c.limits.maxTakeoverThreads;
   o.maxLineBytes = c.limits.maxLineBytes;
   return o;
}

// A whole-number option read with input.h's parser; CLI11 reports its error.
template <typename T>
CLI::Option *AddWhole(CLI::App *app, const std::string &name, T *into, T min, T max, const std::string &help) {
   return app
      ->add_option_function<std::string>(
         name,
         [into, name, min, max](const std::string &v) {
            std::string error;
            if (!lusinput::ParseWhole<T>(v, name, min, max, into, &error)) throw CLI::ValidationError(error);
         },
         fmt::format("{} (default {})", help, *into))
      ->type_name("N");
}

// Each file on a fresh host; exit 0 only when every file passed.
int Run(const Common &c, const std::vector<std::string> &files) {
   int failed = 0;
   for (const auto &file : files) {
      if (!StartHost(c)) return 1;
      std::cout << fmt::format("== {} (seed {})\n", file, c.seed);
      hyksimtool::Interpreter interp(Options(c), std::cout);
      const bool ok = interp.RunFile(file);
      std::cout << fmt::format("== {}: {}\n", file, ok ? "passed" : "FAILED");
      failed += ok ? 0 : 1;
      if (!StopHost()) return 1;
   }
   if (files.size() > 1) std::cout << fmt::format("{} of {} scenarios passed\n", files.size() - failed, files.size());
   return failed == 0 ? 0 : 1;
}

// One run of `file` on a fresh host, its output to `out`: what the
// explorer runs for each schedule, in a child of its own.
hyksimtool::RunScenario ScenarioRunner(const Common &c) {
   return [&c](const std::string &file, std::ostream &out) {
      if (!StartHost(c)) return false;
      hyksimtool::Interpreter interp(Options(c), out);
      const bool ok = interp.RunFile(file);
      return StopHost() && ok;
   };
}

struct ExploreArgs {
   hyksimtool::ExploreOptions opts;
   std::optional<uint64_t> replay;   // --schedule SEED
};

// The options that shape a run, for the replay command of a failing schedule.
std::string RunOptions(const Common &c) {
   std::string out = fmt::format(" --seed {}", c.seed);
   if (!c.moduleDir.empty()) out += " --module-dir " + c.moduleDir;
   for (const auto &p : c.modulePath) out += " --module-path " + p;
   return out;
}

// What cannot be combined, or means nothing without an exploration: bad usage.
std::string ExploreUsageError(const Common &c, const ExploreArgs &e, const std::vector<std::string> &given) {
   const auto &o = e.opts;
   const bool explore = o.schedules != 0 || o.stressRuns != 0;
   if (e.replay && explore) return "--schedule replays one schedule; it does not go with --schedules or --stress";
   if (o.schedules != 0 && o.stressRuns != 0) return "--schedules and --stress are two ways to run; give one";
   if (explore && !c.logFile.empty()) {
      return "--log-file keeps one host's log; replay a schedule with --schedule SEED --log-file FILE";
   }
   for (const auto &opt : given) {
      if (!explore && !e.replay) return opt + " needs --schedules (or --stress)";
      if (e.replay && opt != "--pct-depth" && opt != "--pct-steps") return opt + " does not go with --schedule";
   }
   return "";
}

int RunExplorations(const Common &c, const std::vector<std::string> &files, const ExploreArgs &e) {
   const auto runner = ScenarioRunner(c);
   if (e.replay) {
      if (files.size() != 1) {
         std::cerr << "hyksim run: --schedule replays one file's schedule; give one FILE\n";
         return 2;
      }
      return hyksimtool::ReplaySchedule(files[0], *e.replay, e.opts.pctDepth, e.opts.pctSteps, runner, std::cout);
   }
   int code = 0;
   for (const auto &file : files) code = std::max(code, hyksimtool::Explore(file, e.opts, runner, std::cout));
   return code;
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
   if (!StartHost(c)) return 1;
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
   if (!StopHost()) return 1;
   return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
   CLI::App app{"hyksim -- the simulated host: rehearse, break and measure an upgrade"};
   app.require_subcommand(1);
   Common c;
   auto common = [&c](CLI::App *s) {
      AddWhole<uint64_t>(s, "--seed", &c.seed, 0, UINT32_MAX, "seed of the client modules' state and of random faults");
      s->add_option("--log-file", c.logFile, "also write the host log to FILE");
      s->add_option("--module-dir", c.moduleDir,
                    "the programs' own modules (default: this installation's, or the build tree's)");
      s->add_option("--module-path", c.modulePath,
                    "DIR[:DIR...]: more modules, searched after the own ones and HYKSIM_MODULE_PATH's "
                    "(a client as DIR/NAME-BUILD.so or DIR/clients/NAME-BUILD.so, lus as DIR/bBUILD/lus.so)")
         ->allow_extra_args(false);   // one value per --module-path: the files after it are files
   };
   // What one host may be asked to hold (a line of a file or of a peer is bounded too).
   auto limits = [&c](CLI::App *s) {
      auto &l = c.limits;
      AddWhole<uint64_t>(s, "--max-ports", &l.maxPorts, 0, 1u << 24, "ports the host may hold, in all portsets");
      AddWhole<uint32_t>(s, "--max-portsets", &l.maxPortsets, 0, 65536, "portsets the host may hold");
      AddWhole<uint32_t>(s, "--max-takeover-threads", &l.maxTakeoverThreads, 1, 1024,
                         "host threads one takeover may use");
      AddWhole<size_t>(s, "--max-line-bytes", &l.maxLineBytes, 1, size_t{1} << 30,
                       "bytes of a line of a scenario file (and of a request, for serve)");
   };
   std::vector<std::string> files;
   auto *run = app.add_subcommand("run", "run scenario files, each on a fresh host; exit 0 only when all pass");
   run->add_option("FILE", files, "a .hyk scenario")->required()->check(CLI::ExistingFile);
   run->add_option("--report-dir", c.reportDir, "where 'report json=... trace=... chart=...' writes")->capture_default_str();
   common(run);
   limits(run);
   ExploreArgs ex;
   auto &eo = ex.opts;
   AddWhole<uint64_t>(run, "--schedules", &eo.schedules, 1, UINT64_MAX / 2,
                      "explore N thread schedules of each FILE on the controlled scheduler, each in a child process")
      ->group("Schedules");
   AddWhole<uint64_t>(run, "--schedule-seed", &eo.firstSeed, 0, UINT64_MAX,
                      "the seed the schedules' own seeds are derived from")->group("Schedules");
   AddWhole<uint32_t>(run, "--pct-depth", &eo.pctDepth, 0, 64,
                      "0: a random walk; D: PCT, finding bugs of depth D (D - 1 priority changes)")->group("Schedules");
   AddWhole<uint64_t>(run, "--pct-steps", &eo.pctSteps, 0, UINT64_MAX / 2,
                      "PCT: steps over which the changes fall (0: schedule 0's, which runs alone over 10,000)")->group("Schedules");
   run->add_option_function<std::string>(
         "--schedule",
         [&ex](const std::string &v) {
            uint64_t seed = 0;
            std::string error;
            if (!lusinput::ParseWhole<uint64_t>(v, "--schedule", 0, UINT64_MAX, &seed, &error)) {
               throw CLI::ValidationError(error);
            }
            ex.replay = seed;
         },
         "replay the one schedule of this seed (as a failing schedule prints it), in this process")
      ->type_name("SEED")->group("Schedules");
   AddWhole<uint64_t>(run, "--stress", &eo.stressRuns, 1, UINT64_MAX / 2,
                      "run each FILE N times on real threads, without control (to compare with --schedules)")
      ->group("Schedules");
   AddWhole<unsigned>(run, "--jobs", &eo.jobs, 1, 64, "schedules run at once")->group("Schedules");
   AddWhole<unsigned>(run, "--time-limit", &eo.timeLimitSec, 1, 86400,
                      "seconds one schedule may take before it is taken as hung")->group("Schedules");
   run->add_flag("--keep-going", eo.keepGoing, "go on after a failing schedule")->group("Schedules");
   run->add_flag("--verbose", eo.verbose, "a line for every schedule")->group("Schedules");
   auto *shell = app.add_subcommand("shell", "type the scenario language at a prompt (line editing, history, Tab)");
   common(shell);
   limits(shell);
   auto *demo = app.add_subcommand("demo", "run the demo: a classic upgrade of about 200 ports (scenarios/demo-classic.hyk)");
   demo->add_option("--report-dir", c.reportDir, "where the report, trace and chart go")->capture_default_str();
   common(demo);
   std::string socketPath, topology, allowGroup;
   hyksimtool::ServeOptions so;
   auto *serve = app.add_subcommand("serve", "serve the host on a Unix socket to tools of other processes "
                                             "(lusctl --host PATH); only its owner may use it");
   serve->add_option("--socket", socketPath, "the socket's path")->required();
   serve->add_option("FILE", topology, "a scenario that builds the host first")->check(CLI::ExistingFile);
   serve->add_option("--allow-group", allowGroup, "also serve peers of this group (a name or a number)");
   AddWhole<uint32_t>(serve, "--max-connections", &so.maxConnections, 1, 4096, "connections served at once");
   serve->add_option("--module-param", so.moduleParams,
                     "MODULE:NAME=VALUE: a parameter this host gives MODULE (NAME-BUILD) whenever a tool loads it, "
                     "after the tool's own; @PORTSET#INDEX in VALUE is that port's ID (repeatable)")
      ->check([](const std::string &v) { return hyksimtool::CheckModuleParam(v); })
      ->allow_extra_args(false);
   common(serve);
   limits(serve);
   auto *modules = app.add_subcommand("modules", "list the modules along the module path, and where each is");
   common(modules);
   try {
      app.parse(argc, argv);
   } catch (const CLI::ParseError &e) {
      const int code = app.exit(e);
      return code == 0 ? 0 : 2;
   }

   if (*modules) return ListModules(c);
   if (*run) {
      std::vector<std::string> given;
      for (const char *opt : {"--schedule-seed", "--pct-depth", "--pct-steps", "--jobs", "--time-limit", "--keep-going", "--verbose"}) {
         if (run->count(opt) != 0) given.push_back(opt);
      }
      const std::string misuse = ExploreUsageError(c, ex, given);
      if (!misuse.empty()) {
         std::cerr << "hyksim run: " << misuse << "\n";
         return 2;
      }
      ex.opts.runOptions = RunOptions(c);
      if (ex.replay || eo.schedules != 0 || eo.stressRuns != 0) return RunExplorations(c, files, ex);
      return Run(c, files);
   }
   if (*shell) return Shell(c);
   if (*serve) {
      so.socketPath = socketPath;
      so.topology = topology;
      so.scenario = Options(c);
      so.maxLineBytes = c.limits.maxLineBytes;
      if (!allowGroup.empty()) {
         gid_t gid = 0;
         std::string error;
         group *g = getgrnam(allowGroup.c_str());
         if (g != nullptr) {
            gid = g->gr_gid;
         } else if (!lusinput::ParseWhole<gid_t>(allowGroup, "--allow-group", 0, UINT32_MAX - 1, &gid, &error)) {
            std::cerr << "hyksim serve: --allow-group: no group " << lusinput::Quoted(allowGroup) << "\n";
            return 2;
         }
         so.allowGroup = gid;
      }
      if (!StartHost(c)) return 1;
      int code = hyksimtool::Serve(so, std::cout, std::cerr);
      if (!StopHost()) code = 1;
      return code;
   }
   return Run(c, {ScenarioDir() + "/demo-classic.hyk"});
}
