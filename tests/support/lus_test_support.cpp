// lus_test_support.cpp -- see lus_test_support.h.
#include "lus_test_support.h"

#include <dlfcn.h>

#include <cstdlib>

#include <regex>

#include "hyksim/fabric.h"

#ifndef LUS_MODULE_PATH
#error "LUS_MODULE_PATH must name the built lus.so"
#endif

namespace lustest {

// LUS_TEST_MODULE names another build of lus to test instead (a test build
// with a re-introduced bug, to measure how often a test finds it).
std::string LusModulePath() {
   const char *other = std::getenv("LUS_TEST_MODULE");
   return other != nullptr && *other != '\0' ? other : LUS_MODULE_PATH;
}

hyk_Status LoadLus(const std::vector<std::string> &params, hyk_ModuleID *id) {
   hyk_ModuleID local = HYK_INVALID_MODULE_ID;
   return hyksim::LoadModule(LusModulePath(), params, id != nullptr ? id : &local);
}

hyk_Status UnloadLus() { return hyksim::UnloadModule("lus"); }

void *LusSymbol(const char *symbol, const std::string &module) {
   auto view = hyksim::FindModule(module);
   if (!view || view->path.empty()) {
      return nullptr;
   }
   // Take no lasting reference: the host's dlclose at unload must really
   // unmap the object so that the next load starts from fresh globals.
   void *handle = dlopen(view->path.c_str(), RTLD_NOW | RTLD_NOLOAD);
   if (handle == nullptr) {
      return nullptr;
   }
   void *sym = dlsym(handle, symbol);
   dlclose(handle);
   return sym;
}

hyk_ModuleID LusID() {
   auto view = hyksim::FindModule("lus");
   return view ? view->id : HYK_INVALID_MODULE_ID;
}

namespace {

std::string Escape(const std::string &s) {
   static const std::string special = R"(\^$.|?*+()[]{})";
   std::string out;
   for (char c : s) {
      if (special.find(c) != std::string::npos) {
         out += '\\';
      }
      out += c;
   }
   return out;
}

const char *kTagOpen = R"(\[tarn@7391 comp="tarn-hvs" subcomp="lus")";

}  // namespace

std::string PlainLineRe(const std::string &function, const std::string &message) {
   return "^" + Escape(function) + ":[0-9]+:" + kTagOpen + R"(\])" + Escape(message) + "$";
}

std::string ErrorCodeLineRe(const std::string &function, uint32_t errorCode,
                            const std::string &message) {
   return "^" + Escape(function) + ":[0-9]+:" + kTagOpen + R"( errorCode="HVS)" +
          std::to_string(errorCode) + R"("\])" + Escape(message) + "$";
}

std::vector<hyksim::LogLine> ModuleLines() {
   std::vector<hyksim::LogLine> out;
   for (auto &l : hyksim::LogLines()) {
      if (l.component == "lus_heap_0") {
         out.push_back(l);
      }
   }
   return out;
}

size_t CountModuleLines(const std::string &re, int level) {
   std::regex r(re);
   size_t n = 0;
   for (auto &l : ModuleLines()) {
      if ((level < 0 || l.level == level) && std::regex_match(l.text, r)) {
         n++;
      }
   }
   return n;
}

size_t CountPlainPrinterLines(const std::string &text, bool warning) {
   size_t n = 0;
   for (auto &l : hyksim::LogLines()) {
      if (l.component.empty() && l.warning == warning && l.text == text) {
         n++;
      }
   }
   return n;
}

HostSnapshot Snapshot() {
   auto c = hyksim::Counts();
   HostSnapshot s{};
   s.heaps = c.heaps;
   s.logComponents = c.logComponents;
   s.timerQueues = c.timerQueues;
   s.pendingTimers = c.pendingTimers;
   s.lockDomains = c.lockDomains;
   s.spinlocks = c.spinlocks;
   s.charDevs = hyksim::CharDevs().size();
   s.subscriptions = hyksim::Subscriptions().size();
   s.registeredEvents = hyksim::RegisteredEvents().size();
   return s;
}

}  // namespace lustest
