// lus_test_support.h -- helpers for tests of the lus module: loading it,
// reaching its globals and operations the way a kernel debugger would
// (dlsym on the loaded object), running code as the module, and matching its
// structured log lines as whole texts.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "hyk/hyk.h"
#include "hyksim/host.h"

namespace lustest {

// Path of the default lus build (lus.so), set by the build.
std::string LusModulePath();

// Loads lus with "name=value" parameters; returns the host status.
hyk_Status LoadLus(const std::vector<std::string> &params = {}, hyk_ModuleID *id = nullptr);
hyk_Status UnloadLus();

// Address of a symbol of the loaded module `module` (default "lus"), or null.
// The object stays mapped only while the host has it loaded.
void *LusSymbol(const char *symbol, const std::string &module = "lus");

template <typename T>
T *LusVar(const char *symbol) {
   return static_cast<T *>(LusSymbol(symbol));
}

template <typename Fn>
Fn *LusFn(const char *symbol) {
   return reinterpret_cast<Fn *>(LusSymbol(symbol));
}

// The module ID of the loaded lus.
hyk_ModuleID LusID();

// Runs fn with the loaded lus pushed as current module, as the host does
// around every call it makes into the module.
template <typename F>
auto AsLus(F &&fn) {
   hyk_ModuleCookie cookie{};
   hyk_ModulePushId(LusID(), nullptr, &cookie);
   struct Pop {
      ~Pop() { hyk_ModulePopId(); }
   } pop;
   return fn();
}

// ---- log lines ---------------------------------------------------------------

// Regular expressions of a whole module line (text of a hyksim::LogLine):
// function name, any line number, the tag, then `message` (without its
// trailing "\n"), matched literally.
std::string PlainLineRe(const std::string &function, const std::string &message);
std::string ErrorCodeLineRe(const std::string &function, uint32_t errorCode,
                            const std::string &message);

// Module log lines (component "lus_heap_0") whose text matches `re` and, when
// level >= 0, whose level is `level`.
size_t CountModuleLines(const std::string &re, int level = -1);
// Lines of the host's plain printers (no component) equal to `text`.
size_t CountPlainPrinterLines(const std::string &text, bool warning);
// Every line of component "lus_heap_0", in order.
std::vector<hyksim::LogLine> ModuleLines();

// Host-wide leftovers: nothing of lus remains.
struct HostSnapshot {
   size_t heaps, logComponents, timerQueues, pendingTimers, lockDomains, spinlocks;
   size_t charDevs, subscriptions, registeredEvents;
};
HostSnapshot Snapshot();

}  // namespace lustest
