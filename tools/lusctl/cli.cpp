// cli.cpp -- the command line of lusctl: one subcommand per device command,
// the two upgrade flows, `status` and `recover`, and their outputs.  Exit
// codes: 0 success, 1 a command or a step failed, 2 bad usage, 3 an upgrade
// finished with violations.
#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <ostream>

#include "tool.h"

namespace lusctl {

namespace {

struct Globals {
   bool json = false;
   bool quiet = false;
   bool dryRun = false;
   std::string reportJson, trace, chart;
};

struct CommandArgs {
   std::vector<std::string> portsets;
   bool legacy = false;
   std::string type;
   uint32_t maxOutage = 30;
   std::vector<std::string> modules;
   uint32_t port = 0, arg0 = 0;
   int mode = 1;
   std::string op;
   uint32_t fdpMode = 1;
   uint32_t raw = 0;
   std::string payloadHex;
   int64_t length = -1;
};

const char *kExitCodes = R"(Exit codes:
  0  success: for an upgrade, every step succeeded, every port passes traffic, no byte was
     mismatched, refused, dropped or lost and no port exceeded the budget
  1  a command or a step failed, or the upgrade was refused before its first step
  2  bad usage
  3  the upgrade finished with violations (each named on a line; --allow KIND accepts one)
Point of no return: the classic flow's step 'unload old build', the per-portset flow's first
'ps-upgrade'.  A flow that fails before it undoes what it did; after it, `lusctl recover`
carries the upgrade to its end.)";

// Portset names as the device takes them: each once, never empty, never cut.
bool CheckPortsets(const std::vector<std::string> &names, std::ostream &err) {
   for (size_t i = 0; i < names.size(); i++) {
      if (names[i].empty()) {
         err << "lusctl: --portset: an empty portset name\n";
         return false;
      }
      if (names[i].size() >= LUS_PORTSET_NAME_LEN) {
         err << fmt::format("lusctl: --portset {}...: a portset name is at most {} bytes (this one has {})\n",
                            names[i].substr(0, 16), LUS_PORTSET_NAME_LEN - 1, names[i].size());
         return false;
      }
      if (std::find(names.begin(), names.begin() + static_cast<long>(i), names[i]) != names.begin() + static_cast<long>(i)) {
         err << fmt::format("lusctl: --portset {}: named twice\n", names[i]);
         return false;
      }
   }
   return true;
}

bool WriteFile(const std::string &path, const std::string &text, std::ostream &err) {
   std::ofstream f(path);
   if (!(f << text) || !f.flush()) {
      err << fmt::format("lusctl: cannot write {}: {}\n", path, std::strerror(errno));
      return false;
   }
   return true;
}

// Resolves "from:NAME" / "to:NAME" (a loaded module's name or numeric ID) for command 9.
bool ResolveModules(Host &host, const std::vector<std::string> &choices, std::vector<ModuleArg> *out,
                    std::ostream &err) {
   for (const auto &choice : choices) {
      const bool from = choice.rfind("from:", 0) == 0;
      const bool to = choice.rfind("to:", 0) == 0;
      if (!from && !to) {
         err << fmt::format("lusctl: --module {}: expected from:NAME or to:NAME\n", choice);
         return false;
      }
      const std::string name = choice.substr(from ? 5 : 3);
      std::optional<hyk_ModuleID> id;
      for (const auto &m : host.Modules()) {
         if (m.name == name || std::to_string(m.id) == name) id = m.id;
      }
      if (!id) {
         err << fmt::format("lusctl: --module {}: no such module is loaded\n", choice);
         return false;
      }
      out->push_back({from, *id});
   }
   return true;
}

class Cli {
  public:
   Cli(Environment &env, std::ostream &out, std::ostream &err, bool interactive, Report *report)
      : env_(env), out_(out), err_(err), interactive_(interactive), report_(report) {}

   int Run(const std::vector<std::string> &args, const std::string &footer) {
      CLI::App app{"lusctl -- drive a live upgrade of the host's datapath through the device \"lus\""};
      app.name("lusctl");
      app.footer(footer.empty() ? std::string(kExitCodes) : footer + "\n" + kExitCodes);
      app.require_subcommand(1);
      app.fallthrough();
      app.add_flag("--json", g_.json, "print a machine-readable result (JSON) instead of text");
      app.add_flag("-q,--quiet", g_.quiet, "print nothing but errors");

      AddCommands(app);
      AddFlows(app);
      AddRecovery(app);
      AddFleetReport(app);

      // A word that is no command gets a message of its own (the parser would
      // only say that a command is missing).
      for (const auto &a : args) {
         if (a.empty() || a[0] == '-') continue;
         auto known = app.get_subcommands([&a](CLI::App *sub) { return sub->get_name() == a; });
         if (known.empty()) {
            err_ << fmt::format("lusctl: unknown command '{}'\nRun with --help for more information.\n", a);
            return 2;
         }
         break;
      }
      std::vector<std::string> reversed(args.rbegin(), args.rend());
      try {
         app.parse(reversed);
      } catch (const CLI::ParseError &e) {
         std::ostringstream o, eo;
         int code = app.exit(e, o, eo);
         out_ << o.str();
         err_ << eo.str();
         return code == 0 ? 0 : 2;
      }
      return exit_;
   }

  private:
   // ---- one subcommand per device command ----------------------------------------------
   void AddCommands(CLI::App &app) {
      auto portsetOpts = [this](CLI::App *s, bool required) {
         auto *o = s->add_option("--portset", a_.portsets, "a portset taking part (repeatable)");
         if (required) o->required();
         s->add_flag("--legacy", a_.legacy, "the legacy edition's clients");
      };

      auto *reg = app.add_subcommand("register", "commands 0-3: clients of a build register");
      reg->add_option("--type", a_.type, "from | to | from-v1 | to-v1")
         ->required()
         ->check(CLI::IsMember({"from", "to", "from-v1", "to-v1"}));
      portsetOpts(reg, false);
      reg->callback([this] {
         const std::map<std::string, uint32_t> types = {{"from", 0}, {"to", 1}, {"from-v1", 2}, {"to-v1", 3}};
         Issue(types.at(a_.type), PortsetQuery(PortsetArgs(a_.portsets), a_.legacy, 0));
      });

      auto *block = app.add_subcommand("block", "command 6: start the outage clock, block the ports");
      portsetOpts(block, true);
      block->add_option("--max-outage", a_.maxOutage, "outage budget per port, seconds")->capture_default_str();
      block->callback([this] {
         Issue(LUS_IOCTL_BLOCK_PORTS, PortsetQuery(PortsetArgs(a_.portsets), false, a_.maxOutage));
      });

      auto *save = app.add_subcommand("save", "command 4: old build registers, size and save, clear timer");
      portsetOpts(save, true);
      save->callback([this] { Issue(LUS_IOCTL_PRE_UNLOAD, PortsetQuery(PortsetArgs(a_.portsets), a_.legacy, 0)); });

      auto *restore = app.add_subcommand("restore", "command 5: edition migration restore of the portsets");
      portsetOpts(restore, true);
      restore->callback([this] { Issue(LUS_IOCTL_RESTORE, PortsetQuery(PortsetArgs(a_.portsets), a_.legacy, 0)); });

      app.add_subcommand("pre-dual-load", "command 7: old clients clean up before the dual load")
         ->callback([this] { Issue(LUS_IOCTL_PRE_DUAL_LOAD, {}); });
      app.add_subcommand("global-config", "command 8: global configuration, old to new")
         ->callback([this] { Issue(LUS_IOCTL_GLOBAL_CONFIG, {}); });

      auto *ps = app.add_subcommand("ps-upgrade", "command 9: upgrade one portset in the upgrade world");
      ps->add_option("--portset", a_.portsets, "the portset")->required()->expected(1);
      ps->add_option("--module", a_.modules, "from:NAME or to:NAME, a loaded module (repeatable)");
      ps->callback([this] {
         std::vector<ModuleArg> modules;
         if (!ResolveModules(*env_.host, a_.modules, &modules, err_)) {
            exit_ = 2;
            return;
         }
         Issue(LUS_IOCTL_PS_UPGRADE, PsUpgradeQuery(a_.portsets.front(), modules));
      });

      auto *up = app.add_subcommand("upgrade-port", "command 10: upgrade one port's filter alone");
      up->add_option("--port", a_.port, "port ID")->required();
      up->add_option("--mode", a_.mode, "1: move the filter property (default), 0: revalidate")
         ->check(CLI::Range(-128, 127));
      up->add_option("--arg0", a_.arg0, "the tool's own word, carried as is");
      up->callback([this] {
         Issue(LUS_IOCTL_UPGRADE_PORT, UpgradePortQuery(a_.arg0, a_.port, static_cast<int8_t>(a_.mode)));
      });

      app.add_subcommand("collection-complete", "command 11: tell the old clients collection is complete")
         ->callback([this] { Issue(LUS_IOCTL_STATE_COLLECTED, {}); });
      app.add_subcommand("restore-complete",
                         "command 12: is any saved per-port state left?  Also asks the host: exit 1 when lus's "
                         "heaps still hold client state or ports are still blocked")
         ->callback([this] {
            Issue(LUS_IOCTL_RESTORE_COMPLETE, {});
            // Command 12 looks at one map only; the host sees every byte lus still holds.
            const HostStatus s = ReadStatus(*env_.host);
            if (s.stateBytes == 0 && s.blocked.empty()) return;
            exit_ = 1;
            if (!g_.json) {
               err_ << fmt::format("lusctl: saved state is left: {} bytes in lus's heaps, {} port(s) blocked by lus "
                                   "(see `lusctl status`)\n",
                                   s.stateBytes, s.blocked.size());
            }
         });

      auto *fdp = app.add_subcommand("fdp", "command 13: switch a portset's fast datapath");
      fdp->add_option("--portset", a_.portsets, "the portset")->required()->expected(1);
      fdp->add_option("--op", a_.op, "activate | deactivate")
         ->required()
         ->check(CLI::IsMember({"activate", "deactivate"}));
      fdp->add_option("--mode", a_.fdpMode, "fast-datapath mode (activate)")->capture_default_str();
      fdp->callback([this] {
         Issue(LUS_IOCTL_FDP_OP,
               PortsetQuery({{a_.portsets.front(), a_.op == "activate" ? 1u : 0u, a_.fdpMode}}, false, 0));
      });

      auto *cs = app.add_subcommand("cswitch-events", "command 14: raise the cswitch hand-over events");
      cs->add_option("--portset", a_.portsets, "a portset (repeatable)")->required();
      cs->callback([this] { Issue(LUS_IOCTL_CSWITCH_EVENTS, PortsetQuery(PortsetArgs(a_.portsets), false, 0)); });

      auto *raw = app.add_subcommand("raw", "any command with a payload of your own (protocol work)");
      raw->add_option("CMD", a_.raw, "command number")->required()->check(CLI::Range(0u, 0xffffffffu));
      raw->add_option("--payload-hex", a_.payloadHex, "the payload's bytes in hexadecimal");
      raw->add_option("--length", a_.length, "the header's length (default: the payload's)")
         ->check(CLI::Range(int64_t{0}, int64_t{0xffffffff}));
      raw->callback([this] {
         std::vector<uint8_t> payload;
         if (!BytesOfHex(a_.payloadHex, &payload)) {
            err_ << "lusctl: raw: --payload-hex: an even number of hexadecimal digits is needed\n";
            exit_ = 2;
            return;
         }
         const uint32_t length = a_.length < 0 ? static_cast<uint32_t>(payload.size())
                                               : static_cast<uint32_t>(a_.length);
         Issue(a_.raw, payload, length);
      });
   }

   void Issue(uint32_t cmd, const std::vector<uint8_t> &payload) {
      Issue(cmd, payload, static_cast<uint32_t>(payload.size()));
   }

   void Issue(uint32_t cmd, const std::vector<uint8_t> &payload, uint32_t length) {
      if (!CheckPortsets(a_.portsets, err_)) {
         exit_ = 2;
         return;
      }
      auto device = env_.openDevice();
      hyk_Status status = device->Open();
      const bool opened = status == HYK_OK;
      if (opened) status = device->Ioctl(cmd, payload, length);
      device->Close();
      if (g_.json) {
         nlohmann::json j = {{"command", CommandLabel(cmd)}, {"number", cmd}, {"status", status},
                             {"statusText", hyk_StatusToString(status)}, {"opened", opened}};
         out_ << j.dump() << "\n";
      } else if (!opened) {
         err_ << fmt::format("lusctl: cannot open the device \"lus\": {}\n", StatusText(status));
      } else if (status != HYK_OK) {
         err_ << fmt::format("lusctl: {} failed: {}\n", CommandLabel(cmd), StatusText(status));
      } else if (!g_.quiet) {
         out_ << fmt::format("{}: {}\n", CommandLabel(cmd), StatusText(status));
      }
      exit_ = status == HYK_OK ? 0 : 1;
   }

   // ---- the flows ------------------------------------------------------------------------------
   void AddFlows(CLI::App &app) {
      auto *up = app.add_subcommand("upgrade", "a whole upgrade: classic or per-portset");
      up->require_subcommand(1);
      auto common = [this](CLI::App *s) {
         s->add_option("--from-build", f_.fromBuild, "the build being upgraded from")->required();
         s->add_option("--to-build", f_.toBuild, "the build being upgraded to")->required();
         s->add_option("--portset", f_.portsets, "a portset taking part (repeatable)")->required();
         s->add_option("--module-param", f_.moduleParams,
                       "NAME=VALUE given to every new-build module, e.g. seed=7; MODULE:NAME=VALUE to "
                       "one module alone, e.g. tarnq-dfw:failSlot=3 or lus:lusLogLevel=5 (repeatable)");
         s->add_option("--allow", allowed_, "accept a violation: " + fmt::format("{}", fmt::join(ViolationKinds(), " | ")) +
                                               " (repeatable)")
            ->check(CLI::IsMember(ViolationKinds()));
         s->add_option("--lus-param", f_.lusParams,
                       "NAME=VALUE given to lus when the flow loads it, e.g. lusLogLevel=1 (repeatable)");
         s->add_option("--client", f_.clients,
                       "a datapath module to upgrade, without its build (default: every loaded one)");
         s->add_flag("--dry-run", g_.dryRun, "print the steps and their payloads, do nothing");
         s->add_option("--report-json", g_.reportJson, "write the report as JSON to FILE");
         s->add_option("--trace", g_.trace, "write a Chrome/Perfetto trace to FILE");
         s->add_option("--chart", g_.chart, "write an SVG timeline of the steps and every port's outage to FILE");
      };
      auto *classic = up->add_subcommand("classic", "interface version 0, one command at a time");
      common(classic);
      classic->add_option("--max-outage", f_.maxOutageSec, "outage budget per port, seconds")->capture_default_str();
      classic->add_flag("--legacy", f_.legacy, "the legacy edition's clients");
      classic->add_option("--takeover-threads", f_.takeoverThreads,
                          "host threads on which the new datapath posts the restore events")
         ->capture_default_str()
         ->check(CLI::Range(1u, 64u));
      classic->callback([this] {
         f_.kind = FlowOptions::kClassic;
         Flow();
      });
      auto *portset = up->add_subcommand("portset", "interface version 1, a portset at a time");
      common(portset);
      portset->add_option("--module", f_.modules, "a further module of command 9: from:NAME or to:NAME")
         ->check([](const std::string &v) {
            const bool ok = (v.rfind("from:", 0) == 0 && v.size() > 5) || (v.rfind("to:", 0) == 0 && v.size() > 3);
            return ok ? std::string() : "expected from:NAME or to:NAME: " + v;
         });
      portset->add_option("--container-port", f_.containerPorts, "a port upgraded alone (command 10)");
      portset->callback([this] {
         f_.kind = FlowOptions::kPortset;
         Flow();
      });
   }

   // ---- status and recovery ---------------------------------------------------------------
   void AddRecovery(CLI::App &app) {
      auto *status = app.add_subcommand("status", "what the host holds now: ports lus blocks, state in its heaps, "
                                                  "registered clients, loaded builds, the clear timer");
      status->callback([this] {
         const HostStatus s = ReadStatus(*env_.host);
         if (g_.json) {
            out_ << StatusJson(s);
         } else {
            PrintStatus(out_, s, env_.hostPath);
         }
         exit_ = 0;
      });
      auto *rec = app.add_subcommand(
         "recover", "bring a host left by a failed or interrupted upgrade to a clean end: back to the old build "
                    "while it still holds the state, else forward (restores again the ports whose state lus holds)");
      rec->add_option("--from-build", r_.fromBuild, "the build the upgrade was from")->required();
      rec->add_option("--to-build", r_.toBuild, "the build the upgrade was to")->required();
      rec->add_option("--flow", recoverFlow_, "the flow that was interrupted: classic | portset")
         ->check(CLI::IsMember({"classic", "portset"}))
         ->capture_default_str();
      rec->add_flag("--unblock-lost", r_.unblockLost,
                    "unblock, through the host's port service, the ports still blocked afterwards, listing "
                    "every port and byte given up, and free what lus still holds");
      rec->add_option("--allow", allowed_, "accept a violation: " + fmt::format("{}", fmt::join(ViolationKinds(), " | ")))
         ->check(CLI::IsMember(ViolationKinds()));
      rec->add_option("--report-json", g_.reportJson, "write the report as JSON to FILE");
      rec->add_option("--trace", g_.trace, "write a Chrome/Perfetto trace to FILE");
      rec->add_option("--chart", g_.chart, "write an SVG timeline of the ports' outages to FILE");
      rec->callback([this] {
         r_.portsetFlow = recoverFlow_ == "portset";
         FlowResult result = lusctl::Recover(env_, r_, &f_, [this](const StepRecord &s, int total, bool done) {
            Progress(s, total, done);
         });
         Report report = ReportOf(result);
         report.flow = "recovery";
         Output(report);
      });
   }

   // ---- the fleet -------------------------------------------------------------------------
   // Reads what deploy/ansible's playbook left in its report directory; needs no host.
   void AddFleetReport(CLI::App &app) {
      auto *fleet = app.add_subcommand("fleet-report", "the rollout of a fleet: a row per host (wave, verdict, "
                                                       "outages, bytes moved and lost, first failure) from the "
                                                       "playbook's report directory (needs no host)");
      fleet->add_option("DIR", fleetDir_, "the playbook's lus_fleet_report_dir")->required();
      fleet->add_option("--svg", fleetSvg_, "write a picture of each host's outage by wave to FILE");
      fleet->callback([this] {
         FleetReport f;
         std::string why;
         if (!ReadFleetReport(fleetDir_, &f, &why)) {
            err_ << "lusctl: fleet-report: " << why << "\n";
            exit_ = 1;
            return;
         }
         if (g_.json) {
            out_ << FleetReportJson(f);
         } else if (!g_.quiet) {
            PrintFleetReport(out_, f);
         }
         exit_ = fleetSvg_.empty() || WriteFile(fleetSvg_, FleetReportSvg(f), err_) ? 0 : 1;
      });
   }

   void Progress(const StepRecord &s, int total, bool done) {
      if (g_.quiet || g_.json) return;
      const std::string what = s.command.empty() ? s.name : fmt::format("{} -- {}", s.name, s.command);
      if (!done) {
         if (interactive_) out_ << fmt::format("\r\033[K[{:>2}/{}] {} ...", s.index, total, what) << std::flush;
         return;
      }
      const std::string line =
         g_.dryRun ? fmt::format("[{:>2}/{}] {}: {}", s.index, total, what, s.detail)
                   : fmt::format("[{:>2}/{}] {}: {} ({:.1f} ms){}", s.index, total, what,
                                 StatusText(s.status), (s.endUS - s.startUS) / 1000.0,
                                 s.detail.empty() ? "" : " -- " + s.detail);
      // Flushed: a watcher (a pipe, a log) sees each step as it ends.
      out_ << (interactive_ ? "\r\033[K" : "") << line << "\n" << std::flush;
   }

   void Flow() {
      if (!CheckPortsets(f_.portsets, err_)) {
         exit_ = 2;
         return;
      }
      f_.dryRun = g_.dryRun;
      FlowResult result = RunFlow(env_, f_, [this](const StepRecord &s, int total, bool done) {
         Progress(s, total, done);
      });
      if (f_.dryRun) {
         if (g_.json) {
            nlohmann::json j = nlohmann::json::array();
            for (const auto &s : result.steps) j.push_back({{"step", s.index}, {"name", s.name}, {"command", s.command}, {"detail", s.detail}});
            out_ << j.dump(2) << "\n";
         }
         exit_ = 0;
         return;
      }
      Report report = ReportOf(result);
      Output(report);
   }

   // The report of a flow; of what the tool knows only, when the host is gone.
   Report ReportOf(const FlowResult &result) {
      Report report;
      try {
         report = BuildReport(env_, f_, result, allowed_);
      } catch (const HostError &e) {
         report.flow = f_.kind == FlowOptions::kClassic ? "classic" : "portset";
         report.fromBuild = f_.fromBuild;
         report.toBuild = f_.toBuild;
         report.budgetSec = f_.maxOutageSec;
         report.portsets = f_.portsets;
         report.result = result;
         report.result.ok = false;
         if (report.result.hostError.empty()) report.result.hostError = e.what();
      }
      report.hostPath = env_.hostPath;
      return report;
   }

   void Output(const Report &report) {
      if (report_ != nullptr) *report_ = report;
      if (g_.json) {
         out_ << ReportJson(report);
      } else if (!g_.quiet) {
         out_ << "\n";
         PrintSummary(out_, report);
         PrintTables(out_, report);
      } else if (ExitCode(report) != 0) {
         PrintSummary(err_, report);
      }
      bool written = true;
      if (!g_.reportJson.empty()) written &= WriteFile(g_.reportJson, ReportJson(report), err_);
      if (!g_.trace.empty()) written &= WriteFile(g_.trace, TraceJson(report), err_);
      if (!g_.chart.empty()) written &= WriteFile(g_.chart, ChartSvg(report), err_);
      exit_ = written ? ExitCode(report) : 1;
   }

   Environment &env_;
   std::ostream &out_;
   std::ostream &err_;
   bool interactive_;
   Report *report_;
   Globals g_;
   CommandArgs a_;
   FlowOptions f_;
   std::vector<std::string> allowed_;
   RecoverOptions r_;
   std::string recoverFlow_ = "classic";
   std::string fleetDir_, fleetSvg_;
   int exit_ = 0;
};

}  // namespace

int RunCli(Environment &env, const std::vector<std::string> &args, std::ostream &out,
           std::ostream &err, bool interactive, const std::string &footer, Report *report) {
   Cli cli(env, out, err, interactive, report);
   return cli.Run(args, footer);
}

}  // namespace lusctl
