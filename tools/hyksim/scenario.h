// scenario.h -- the scenario language of the host program: one command a
// line, '#' comments, run top to bottom, stopping at the first command or
// expectation that fails, with the file, the line and the reason.  The same
// language is typed at `hyksim shell`.  docs/USER_GUIDE.md describes every
// command with an example.
#pragma once

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

   static const std::vector<std::string> &CommandNames();
   static std::string Help();
   // Names a command's arguments can complete to (portsets, ports, modules).
   std::vector<std::string> Names();

  private:
   struct Impl;
   std::unique_ptr<Impl> impl_;
};

// Splits a line into words; "double quotes" keep blanks inside a word.
// Returns false (with *error) on an unterminated quote.
bool SplitWords(const std::string &line, std::vector<std::string> *words, std::string *error);

}  // namespace hyksimtool
