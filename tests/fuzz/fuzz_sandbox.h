// fuzz_sandbox.h -- what the fuzzers of the scenario language and of the
// server's protocol keep out of a line before it runs: the few commands
// that act outside the host of the process, and the one wait that may last
// for ever by design.  Everything else of the language runs as written.
//
//  - Files: `report` with a file, and lusctl's --report-json, --trace and
//    --chart, write where the line says (any path); a fuzzer must not.
//  - hyk_WorldWaitForDeath failed on every call: the portset-upgrade command
//    keeps waiting while its world lives, as it must (the device fuzzer
//    leaves that operation out for the same reason).
#pragma once

#include <string>
#include <vector>

#include "scenario.h"

namespace fuzzsandbox {

inline bool LineAllowed(const std::string &line) {
   std::vector<std::string> words;
   std::string error;
   if (!hyksimtool::SplitWords(line, &words, &error) || words.empty()) return true;   // refused or blank anyway
   const std::string &cmd = words[0];
   for (const auto &w : words) {
      if (cmd == "report" && w.find('=') != std::string::npos) return false;
      for (const char *opt : {"--report", "--trace", "--chart", "--json-file"}) {
         if (w.rfind(opt, 0) == 0) return false;
      }
      // A port reference may stand for a word: "@..." is never a file option above.
      if (cmd == "fault" && w.find("WorldWaitForDeath") != std::string::npos) return false;
   }
   return true;
}

// The lines of `text` that may run, each ended by a newline; at most `maxLines`.
inline std::string Filter(const std::string &text, size_t maxLines) {
   std::string out;
   size_t lines = 0, at = 0;
   while (at <= text.size() && lines < maxLines) {
      size_t nl = text.find('\n', at);
      const bool last = nl == std::string::npos;
      if (last) nl = text.size();
      const std::string line = text.substr(at, nl - at);
      if (LineAllowed(line)) out += line + (last ? "" : "\n");
      lines++;
      if (last) break;
      at = nl + 1;
   }
   return out;
}

}  // namespace fuzzsandbox
