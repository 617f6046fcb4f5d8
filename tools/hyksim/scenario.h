// scenario.h -- the scenario language of the host program: one command a
// line, '#' comments, run top to bottom, stopping at the first command or
// expectation that fails, with the file, the line and the reason.  The same
// language is typed at `hyksim shell`.  docs/USER_GUIDE.md describes every
// command with an example.
#pragma once

#include <sys/types.h>

#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tool.h"

namespace hyksimtool {

struct ScenarioOptions {
   std::string moduleDir;      // lus builds (b<build>/lus.so) and clients/
   std::string reportDir = ".";
   uint64_t seed = 7;          // default seed of client modules and random faults
   // What one host may be asked to hold, so that no line (of a file, at the
   // shell, from a peer of the server) can take the machine's memory or
   // threads.  Each is an option of the host program.
   uint64_t maxPorts = 65536;          // ports, in all portsets together
   uint32_t maxPortsets = 256;
   uint32_t maxTakeoverThreads = 64;   // host threads of one takeover (also lusctl's)
   size_t maxLineBytes = 1 << 20;      // a line of a scenario file
};

class Interpreter {
  public:
   Interpreter(const ScenarioOptions &opts, std::ostream &out);
   ~Interpreter();

   // Runs one line.  Returns "" when it succeeded (or was blank or a
   // comment), else why it failed.
   std::string Execute(const std::string &line);

   // Runs a whole file; prints "FILE:LINE: reason" and returns false at the
   // first failure.
   bool RunFile(const std::string &path);
   // The same for a file held in memory, named `name` in the messages.
   bool RunText(const std::string &name, const std::string &text);

   static const std::vector<std::string> &CommandNames();
   static std::string Help();
   // Names a command's arguments can complete to (portsets, ports, modules).
   std::vector<std::string> Names();

  private:
   bool RunLines(const std::string &name, const std::function<ssize_t(char *, size_t)> &source);
   struct Impl;
   std::unique_ptr<Impl> impl_;
};

// Splits a line into words; "double quotes" keep blanks inside a word.
// Returns false (with *error) on an unterminated quote.
bool SplitWords(const std::string &line, std::vector<std::string> *words, std::string *error);

}  // namespace hyksimtool
