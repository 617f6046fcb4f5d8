// module_path.cpp -- where the programs find modules: their own (the
// installation's, or the build tree's) first, then the directories of
// --module-path and HYKSIM_MODULE_PATH.  In a directory a client module
// "<name>-<build>.so" lies directly or under clients/; lus of build N is
// b<N>/lus.so.  A name found in two places is an error that names both:
// which one a host loads must never depend on the order of a list.
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "tool.h"

namespace lusctl {

namespace fs = std::filesystem;

namespace {

bool IsDir(const std::string &p) {
   std::error_code ec;
   return fs::is_directory(p, ec);
}

bool IsFile(const std::string &p) {
   std::error_code ec;
   return fs::is_regular_file(p, ec);
}

// The directory of the running program.
std::string ProgramDir() {
   std::error_code ec;
   fs::path exe = fs::read_symlink("/proc/self/exe", ec);
   return ec ? std::string(".") : exe.parent_path().string();
}

// The files that may hold module `name` in `dir`.
std::vector<std::string> Candidates(const std::string &dir, const std::string &name) {
   if (name.rfind("lus-", 0) == 0) return {dir + "/b" + name.substr(4) + "/lus.so"};
   return {dir + "/" + name + ".so", dir + "/clients/" + name + ".so"};
}

}  // namespace

std::string OwnModuleDir() {
   const std::string bin = ProgramDir();
   // Installed: PREFIX/bin/<program> and PREFIX/lib/lus/modules.  Build tree:
   // BUILD/tools/<program>/<program> and BUILD/modules.
   for (const std::string rel : {"/../lib/lus/modules", "/../../modules"}) {
      if (IsDir(bin + rel)) return fs::weakly_canonical(bin + rel).string();
   }
   return bin + "/../lib/lus/modules";
}

std::vector<std::string> SplitPath(const std::string &list) {
   std::vector<std::string> out;
   size_t start = 0;
   while (start <= list.size()) {
      size_t colon = list.find(':', start);
      if (colon == std::string::npos) colon = list.size();
      if (colon > start) out.push_back(list.substr(start, colon - start));
      start = colon + 1;
   }
   return out;
}

std::vector<std::string> ModuleSearchPath(const std::string &own, const std::vector<std::string> &extra) {
   std::vector<std::string> dirs = {own};
   if (const char *env = std::getenv("HYKSIM_MODULE_PATH")) {
      for (const auto &d : SplitPath(env)) dirs.push_back(d);
   }
   for (const auto &list : extra) {
      for (const auto &d : SplitPath(list)) dirs.push_back(d);
   }
   // A directory named twice is searched once.
   std::vector<std::string> unique;
   std::set<std::string> seen;
   for (const auto &d : dirs) {
      std::error_code ec;
      const std::string key = fs::weakly_canonical(d, ec).string();
      if (seen.insert(ec ? d : key).second) unique.push_back(d);
   }
   return unique;
}

std::string FindModuleFile(const std::vector<std::string> &dirs, const std::string &name, std::string *error) {
   if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") {
      *error = fmt::format("'{}' is not a module name", name);
      return "";
   }
   std::vector<std::string> found;
   for (const auto &dir : dirs) {
      for (const auto &c : Candidates(dir, name)) {
         if (IsFile(c)) found.push_back(c);
      }
   }
   if (found.empty()) {
      *error = fmt::format("no module {} along the module path ({})", name, fmt::join(dirs, ":"));
      return "";
   }
   if (found.size() > 1) {
      *error = fmt::format("module {} is found twice: {}", name, fmt::join(found, " and "));
      return "";
   }
   return found.front();
}

std::vector<ModuleFile> ListModuleFiles(const std::vector<std::string> &dirs) {
   std::vector<ModuleFile> out;
   auto add = [&](const std::string &name, const std::string &path) { out.push_back({name, path}); };
   for (const auto &dir : dirs) {
      std::error_code ec;
      if (!IsDir(dir)) continue;
      for (const auto &e : fs::directory_iterator(dir, ec)) {
         const std::string file = e.path().filename().string();
         if (e.is_regular_file() && e.path().extension() == ".so" && e.path().stem() != "lus") {
            add(e.path().stem().string(), e.path().string());
         }
         if (e.is_directory() && file.size() > 1 && file[0] == 'b' && IsFile(e.path().string() + "/lus.so")) {
            add("lus-" + file.substr(1), e.path().string() + "/lus.so");
         }
      }
      for (const auto &e : fs::directory_iterator(dir + "/clients", ec)) {
         if (e.is_regular_file() && e.path().extension() == ".so") add(e.path().stem().string(), e.path().string());
      }
   }
   std::sort(out.begin(), out.end(), [](const ModuleFile &a, const ModuleFile &b) {
      return a.name != b.name ? a.name < b.name : a.path < b.path;
   });
   return out;
}

}  // namespace lusctl
