// module.cpp -- the module loader and the module table: load (records,
// namespaces, parameters, init_module), unload (cleanup_module, dropping
// what the module left behind, closing the object), use counts, names, and
// the per-thread current-module stack.
//
// Loads and unloads are serialised by one loader lock, as on a host where
// the module loader is single-threaded; lookups only take the table lock, so
// modules may ask about each other from any thread while a load runs.
#include <dlfcn.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "core.h"
#include "scheduler.h"
#include "module_elf.h"

namespace hyksim {
namespace {

enum class State { kLoading, kLoaded, kUnloading };

struct Module {
   hyk_ModuleID id = 0;
   std::string name;
   std::string path;
   void *handle = nullptr;
   hyk_ModuleCleanupFn cleanup = nullptr;
   std::function<void()> inProcessCleanup;
   std::vector<std::pair<std::string, std::string>> info;
   uint32_t useCount = 0;
   State state = State::kLoading;
};

struct Registry {
   sched::RecursiveMutex loadMu;   // held across init_module and cleanup_module
   std::mutex mu;
   std::map<hyk_ModuleID, std::shared_ptr<Module>> modules;
   hyk_ModuleID next = 1;
};

Registry &Reg() {
   static Registry *r = new Registry();
   return *r;
}

struct Frame {
   hyk_ModuleID id;
   const void *fn;
};
thread_local std::vector<Frame> tStack;

// ---- resident objects -------------------------------------------------------------
//
// Normally an unload closes the object and the next load maps it afresh,
// which is how a module starts from fresh globals.  A coverage-guided
// fuzzer cannot follow objects that come and go (its counters live in the
// object), so a program may ask for objects to stay resident: the first
// load maps the object and copies its writable data (everything the loader
// does not make read-only after relocation) right after the mapping, before
// any of the module's code runs; unloading keeps the object mapped; every
// later load of that path copies the image back first.  The module's
// globals start from the same bytes either way.  Process-wide, across host
// lives, like the objects themselves.

struct Resident {
   void *handle = nullptr;
   std::vector<std::pair<uint8_t *, std::vector<uint8_t>>> image;   // address, pristine bytes
};

std::mutex gResidentMu;
bool gResidentObjects = false;
std::map<std::string, Resident> &Residents() {
   static auto *r = new std::map<std::string, Resident>();
   return *r;
}

// Copies an object's data byte for byte, redzones included: AddressSanitizer
// poisons the gaps between an instrumented module's globals, and this copy
// must neither trip over them nor be turned into a memcpy that checks them.
__attribute__((no_sanitize("address", "thread"))) void CopyImageBytes(uint8_t *dst, const uint8_t *src,
                                                                      size_t n) {
   volatile uint8_t *d = dst;
   const volatile uint8_t *s = src;
   for (size_t i = 0; i < n; i++) {
      d[i] = s[i];
   }
}

// Calls fn with the program headers of the object `handle` names (found
// by its load base); false when the loader does not know it.
bool WithProgramHeaders(void *handle, const std::function<void(const dl_phdr_info &)> &fn) {
   struct link_map *map = nullptr;
   if (dlinfo(handle, RTLD_DI_LINKMAP, &map) != 0 || map == nullptr) {
      return false;
   }
   struct Search {
      uintptr_t base;
      const std::function<void(const dl_phdr_info &)> *fn;
      bool found;
   } q{static_cast<uintptr_t>(map->l_addr), &fn, false};
   dl_iterate_phdr(
      [](struct dl_phdr_info *info, size_t, void *data) {
         auto *q = static_cast<Search *>(data);
         if (info->dlpi_addr != q->base || q->found) {
            return 0;
         }
         q->found = true;
         (*q->fn)(*info);
         return 0;
      },
      &q);
   return q.found;
}

// Copies the writable ranges of the object, less the pages the loader
// protects after relocation.
bool SnapshotImage(void *handle, Resident *r) {
   return WithProgramHeaders(handle, [r](const dl_phdr_info &info) {
      const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
      uintptr_t relroFrom = 0, relroTo = 0;
      for (int i = 0; i < info.dlpi_phnum; i++) {
         const ElfW(Phdr) &ph = info.dlpi_phdr[i];
         if (ph.p_type == PT_GNU_RELRO) {
            relroFrom = (info.dlpi_addr + ph.p_vaddr) & ~(page - 1);
            relroTo = (info.dlpi_addr + ph.p_vaddr + ph.p_memsz) & ~(page - 1);
         }
      }
      auto keep = [&](uintptr_t from, uintptr_t to) {
         if (to > from) {
            auto *p = reinterpret_cast<uint8_t *>(from);
            std::vector<uint8_t> bytes(to - from);
            CopyImageBytes(bytes.data(), p, bytes.size());
            r->image.emplace_back(p, std::move(bytes));
         }
      };
      for (int i = 0; i < info.dlpi_phnum; i++) {
         const ElfW(Phdr) &ph = info.dlpi_phdr[i];
         if (ph.p_type != PT_LOAD || (ph.p_flags & PF_W) == 0) {
            continue;
         }
         const uintptr_t from = info.dlpi_addr + ph.p_vaddr, to = from + ph.p_memsz;
         keep(from, std::min(to, std::max(from, relroFrom)));
         keep(std::max(from, relroTo), to);
      }
   });
}

// The address ranges an object's segments are mapped at.
std::vector<std::pair<uintptr_t, uintptr_t>> LoadedRanges(void *handle) {
   std::vector<std::pair<uintptr_t, uintptr_t>> ranges;
   WithProgramHeaders(handle, [&](const dl_phdr_info &info) {
      for (int i = 0; i < info.dlpi_phnum; i++) {
         const ElfW(Phdr) &ph = info.dlpi_phdr[i];
         if (ph.p_type == PT_LOAD) {
            const uintptr_t from = info.dlpi_addr + ph.p_vaddr;
            ranges.emplace_back(from, from + ph.p_memsz);
         }
      }
   });
   return ranges;
}

void RestoreImage(const Resident &r) {
   for (const auto &[addr, bytes] : r.image) {
      CopyImageBytes(addr, bytes.data(), bytes.size());
   }
}

std::shared_ptr<Module> Find(hyk_ModuleID id) {
   std::lock_guard<std::mutex> lk(Reg().mu);
   auto it = Reg().modules.find(id);
   return it == Reg().modules.end() ? nullptr : it->second;
}

std::shared_ptr<Module> FindByName(const std::string &name) {
   std::lock_guard<std::mutex> lk(Reg().mu);
   for (auto &[id, m] : Reg().modules) {
      if (m->name == name) {
         return m;
      }
   }
   return nullptr;
}

ModuleInfoView ViewOf(const Module &m) {
   return ModuleInfoView{m.id, m.name, m.path, m.useCount, m.info};
}

hyk_Status Refuse(hyk_Status st, const std::string &what, const std::string &why,
                  std::string *error) {
   HostLog("load of %s refused: %s", what.c_str(), why.c_str());
   if (error != nullptr) {
      *error = why;
   }
   return st;
}

// ---- records and parameters ----------------------------------------------------

std::string DeriveName(const std::string &path) {
   std::string base = path.substr(path.find_last_of('/') + 1);
   if (base.rfind("lib", 0) == 0) {
      base = base.substr(3);
   }
   if (base.size() > 3 && base.compare(base.size() - 3, 3, ".so") == 0) {
      base.resize(base.size() - 3);
   }
   return base;
}

// "" when every required namespace is one this host provides.
std::string CheckNamespaces(const std::vector<hyk_ModInfoRecord> &info) {
   size_t required = 0;
   for (const hyk_ModInfoRecord &r : info) {
      if (strcmp(r.key, HYK_MODINFO_NAMESPACE) != 0) {
         continue;
      }
      required++;
      if (strcmp(r.value, HYK_NAMESPACE_API) != 0 && strcmp(r.value, HYK_NAMESPACE_CORE) != 0) {
         return std::string("it requires interface namespace ") + r.value +
                ", which this host does not provide";
      }
   }
   return required == 0 ? "it declares no interface namespace" : "";
}

struct ParamValue {
   const hyk_ParamRecord *record;
   std::string bytes;  // what goes into the variable
};

const char *TypeName(uint32_t type) {
   switch (type) {
   case HYK_PARAM_INT: return "int";
   case HYK_PARAM_UINT: return "uint";
   case HYK_PARAM_ULONG: return "ulong";
   case HYK_PARAM_STRING: return "string";
   default: return "unknown";
   }
}

// Decimal, or hexadecimal after "0x"; the sign only where `isSigned`.
bool ParseInteger(const std::string &text, bool isSigned, long double lo, long double hi,
                  uint64_t *bits) {
   size_t i = 0;
   bool negative = false;
   if (isSigned && i < text.size() && (text[i] == '-' || text[i] == '+')) {
      negative = text[i] == '-';
      i++;
   }
   int base = 10;
   if (text.compare(i, 2, "0x") == 0 || text.compare(i, 2, "0X") == 0) {
      base = 16;
      i += 2;
   }
   if (i >= text.size() || !isxdigit(static_cast<unsigned char>(text[i]))) {
      return false;
   }
   errno = 0;
   char *end = nullptr;
   unsigned long long mag = strtoull(text.c_str() + i, &end, base);
   if (errno != 0 || *end != '\0') {
      return false;
   }
   long double v = negative ? -static_cast<long double>(mag) : static_cast<long double>(mag);
   if (v < lo || v > hi) {
      return false;
   }
   *bits = negative ? static_cast<uint64_t>(-static_cast<int64_t>(mag)) : mag;
   return true;
}

bool EncodeParam(const hyk_ParamRecord &rec, const std::string &value, std::string *bytes) {
   uint64_t bits = 0;
   switch (rec.type) {
   case HYK_PARAM_INT: {
      if (rec.size != 4 || !ParseInteger(value, true, INT32_MIN, INT32_MAX, &bits)) {
         return false;
      }
      int32_t v = static_cast<int32_t>(static_cast<int64_t>(bits));
      bytes->assign(reinterpret_cast<const char *>(&v), sizeof v);
      return true;
   }
   case HYK_PARAM_UINT: {
      if (rec.size != 4 || !ParseInteger(value, false, 0, UINT32_MAX, &bits)) {
         return false;
      }
      uint32_t v = static_cast<uint32_t>(bits);
      bytes->assign(reinterpret_cast<const char *>(&v), sizeof v);
      return true;
   }
   case HYK_PARAM_ULONG:
      if (rec.size != 8 || !ParseInteger(value, false, 0, static_cast<long double>(UINT64_MAX), &bits)) {
         return false;
      }
      bytes->assign(reinterpret_cast<const char *>(&bits), sizeof bits);
      return true;
   case HYK_PARAM_STRING:
      if (rec.size == 0 || value.size() >= rec.size) {
         return false;
      }
      *bytes = value;
      bytes->push_back('\0');
      return true;
   default:
      return false;
   }
}

// Checks every "name=value" against the module's parameter table; "" or why not.
std::string ParseParams(const std::vector<hyk_ParamRecord> &table,
                        const std::vector<std::string> &params, std::vector<ParamValue> *out) {
   for (const std::string &p : params) {
      size_t eq = p.find('=');
      if (eq == std::string::npos || eq == 0) {
         return "parameter \"" + p + "\" is not of the form name=value";
      }
      std::string name = p.substr(0, eq), value = p.substr(eq + 1);
      const hyk_ParamRecord *rec = nullptr;
      for (const hyk_ParamRecord &r : table) {
         if (name == r.name) {
            rec = &r;
         }
      }
      if (rec == nullptr) {
         return "unknown parameter " + name;
      }
      ParamValue pv{rec, {}};
      if (!EncodeParam(*rec, value, &pv.bytes)) {
         return "bad value \"" + value + "\" for parameter " + name + " of type " +
                TypeName(rec->type);
      }
      out->push_back(std::move(pv));
   }
   return "";
}

// The address of `name` when the module object itself defines it.  dlsym on
// a handle also searches the object's dependencies (libc defines an
// "init_module" of its own, for instance), which must not stand in for a
// missing entry point or parameter.
void *OwnSymbol(void *handle, const char *name) {
   void *sym = dlsym(handle, name);
   struct link_map *lm = nullptr;
   Dl_info info;
   if (sym == nullptr || dlinfo(handle, RTLD_DI_LINKMAP, &lm) != 0 || lm == nullptr ||
       dladdr(sym, &info) == 0 || info.dli_fname == nullptr) {
      return nullptr;
   }
   return strcmp(info.dli_fname, lm->l_name) == 0 ? sym : nullptr;
}

// Writes the parsed values into the opened object's variables.
std::string ApplyParams(void *handle, const std::vector<ParamValue> &values) {
   for (const ParamValue &pv : values) {
      void *var = OwnSymbol(handle, pv.record->name);
      if (var == nullptr) {
         return std::string("parameter ") + pv.record->name + " has no exported variable";
      }
      memcpy(var, pv.bytes.data(), pv.bytes.size());
   }
   return "";
}

// ---- load and unload ------------------------------------------------------------

std::shared_ptr<Module> Register(std::shared_ptr<Module> m) {
   std::lock_guard<std::mutex> lk(Reg().mu);
   m->id = Reg().next++;
   Reg().modules[m->id] = m;
   return m;
}

void Unlist(hyk_ModuleID id) {
   std::lock_guard<std::mutex> lk(Reg().mu);
   Reg().modules.erase(id);
}

void CloseObject(const Module &m) {
   {
      std::lock_guard<std::mutex> lk(gResidentMu);
      if (Residents().count(m.path) != 0) {
         return;   // stays mapped; the next load restores its image
      }
   }
   // Lines still queued may point at formats in the object.
   core::LogKeepFormats(LoadedRanges(m.handle));
   if (dlclose(m.handle) != 0) {
      HostLog("module %s: closing %s failed: %s", m.name.c_str(), m.path.c_str(), dlerror());
      return;
   }
   void *still = dlopen(m.path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
   if (still != nullptr) {
      dlclose(still);
      HostLog("module %s: %s stays mapped after close; its next load will not start from "
              "fresh globals",
              m.name.c_str(), m.path.c_str());
   }
}

// Everything after the module's own code has run for the last time: the
// module leaves the table, the rest of the host drops what it left behind,
// the object closes (queued lines keep copies of its formats).
void Finish(const std::shared_ptr<Module> &m) {
   Unlist(m->id);
   core::RunUnloadHooks(m->id, m->name);
   core::TimersDropModule(m->id, m->name);
   bool worldsEnded = core::WorldsDropModule(m->id, m->name);
   core::LocksDropModule(m->id, m->name);
   core::LogDropModule(m->id, m->name);
   core::HeapsDropModule(m->id, m->name);
   if (m->handle == nullptr) {
      return;
   }
   if (!worldsEnded) {
      HostLog("module %s: a world still runs its code; %s stays mapped", m->name.c_str(),
              m->path.c_str());
      return;
   }
   CloseObject(*m);
}

hyk_Status RunInit(const std::shared_ptr<Module> &m, const std::function<int()> &init,
                   const void *fnAddr, hyk_ModuleID *id, std::string *error) {
   int rc = 0;
   core::RunAsModule(m->id, fnAddr, "init_module", [&] { rc = init ? init() : 0; });
   if (rc != 0) {
      HostLog("module %s: init_module returned %d; unloading it", m->name.c_str(), rc);
      Finish(m);
      if (error != nullptr) {
         *error = "init_module returned " + std::to_string(rc);
      }
      return HYK_FAILURE;
   }
   {
      std::lock_guard<std::mutex> lk(Reg().mu);
      m->state = State::kLoaded;
   }
   HostLog("loaded module %s (id %u)", m->name.c_str(), m->id);
   if (id != nullptr) {
      *id = m->id;
   }
   return HYK_OK;
}

hyk_Status OpenObject(const std::string &path, const std::string &name,
                      const std::vector<ParamValue> &values, Module *m, hyk_ModuleInitFn *init,
                      std::string *error) {
   bool resident = false;
   {
      std::lock_guard<std::mutex> lk(gResidentMu);
      auto it = Residents().find(path);
      if (it != Residents().end()) {
         RestoreImage(it->second);
         m->handle = it->second.handle;
         resident = true;
      }
   }
   if (!resident) {
      m->handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
   }
   if (m->handle == nullptr) {
      std::string why = dlerror();
      bool unresolved = why.find("undefined symbol") != std::string::npos;
      return Refuse(unresolved ? HYK_UNRESOLVED_SYMBOL : HYK_EXEC_FORMAT, name, why, error);
   }
   if (!resident) {
      std::lock_guard<std::mutex> lk(gResidentMu);
      Resident r;
      r.handle = m->handle;
      if (gResidentObjects && SnapshotImage(m->handle, &r)) {
         Residents()[path] = std::move(r);
         resident = true;
      }
   }
   *init = reinterpret_cast<hyk_ModuleInitFn>(OwnSymbol(m->handle, "init_module"));
   std::string why = *init ? ApplyParams(m->handle, values) : "it has no init_module";
   if (!why.empty()) {
      if (!resident) {
         dlclose(m->handle);
      }
      m->handle = nullptr;
      return Refuse(HYK_EXEC_FORMAT, name, why, error);
   }
   m->cleanup = reinterpret_cast<hyk_ModuleCleanupFn>(OwnSymbol(m->handle, "cleanup_module"));
   return HYK_OK;
}

bool PathLoaded(const std::string &path) {
   std::lock_guard<std::mutex> lk(Reg().mu);
   for (auto &[id, m] : Reg().modules) {
      if (!m->path.empty() && m->path == path) {
         return true;
      }
   }
   return false;
}

hyk_Status CheckFile(const std::string &path, const std::string &name, ModuleRecords *recs,
                     std::vector<ParamValue> *values, const std::vector<std::string> &params,
                     std::string *error) {
   std::string why;
   if (!ReadModuleRecords(path, recs, &why)) {
      return Refuse(HYK_EXEC_FORMAT, name, why, error);
   }
   why = CheckNamespaces(recs->info);
   if (!why.empty()) {
      return Refuse(HYK_VERSION_MISMATCH, name, why, error);
   }
   if (FindByName(name) != nullptr) {
      return Refuse(HYK_EXISTS, name, "a module of that name is loaded", error);
   }
   // One object mapped twice would share its globals between the two loads.
   if (PathLoaded(path)) {
      return Refuse(HYK_EXISTS, name, path + " is loaded already", error);
   }
   why = ParseParams(recs->params, params, values);
   if (!why.empty()) {
      return Refuse(HYK_BAD_PARAM, name, why, error);
   }
   return HYK_OK;
}

hyk_Status Unload(const std::shared_ptr<Module> &m, bool force) {
   {
      std::lock_guard<std::mutex> lk(Reg().mu);
      if (m->state != State::kLoaded) {
         return HYK_NOT_FOUND;
      }
      if (m->useCount != 0 && !force) {
         return HYK_BUSY;
      }
      m->state = State::kUnloading;
   }
   if (m->cleanup != nullptr) {
      core::RunAsModule(m->id, reinterpret_cast<const void *>(m->cleanup), "cleanup_module",
                        [&] { m->cleanup(); });
   } else if (m->inProcessCleanup) {
      core::RunAsModule(m->id, nullptr, "cleanup_module", m->inProcessCleanup);
   }
   Finish(m);
   HostLog("unloaded module %s (id %u)", m->name.c_str(), m->id);
   return HYK_OK;
}

}  // namespace

// ---- control API -----------------------------------------------------------------

void KeepModuleObjectsResident(bool on) {
   std::lock_guard<std::mutex> lk(gResidentMu);
   gResidentObjects = on;
}

hyk_Status SetModuleParams(const std::string &name, const std::vector<std::string> &params,
                           std::string *error) {
   std::shared_ptr<Module> m;
   {
      std::lock_guard<std::mutex> lk(Reg().mu);
      for (auto &[id, mod] : Reg().modules) {
         if (mod->name == name && mod->state == State::kLoaded) m = mod;
      }
   }
   auto fail = [&](hyk_Status s, const std::string &why) {
      if (error != nullptr) *error = why;
      return s;
   };
   if (m == nullptr) return fail(HYK_NOT_FOUND, "no module " + name + " is loaded");
   if (m->handle == nullptr) return fail(HYK_NOT_SUPPORTED, name + " is an in-process module");
   ModuleRecords recs;
   std::string why;
   if (!ReadModuleRecords(m->path, &recs, &why)) return fail(HYK_EXEC_FORMAT, why);
   std::vector<ParamValue> values;
   why = ParseParams(recs.params, params, &values);
   if (why.empty()) why = ApplyParams(m->handle, values);
   if (!why.empty()) return fail(HYK_BAD_PARAM, why);
   std::string joined;
   for (const auto &p : params) joined += (joined.empty() ? "" : " ") + p;
   HostLog("module %s: parameters set: %s", name.c_str(), joined.c_str());
   return HYK_OK;
}

hyk_Status LoadModule(const std::string &path, const std::vector<std::string> &params,
                      hyk_ModuleID *id, std::string *error, const std::string &name) {
   std::lock_guard<sched::RecursiveMutex> loadLock(Reg().loadMu);
   std::string modName = name.empty() ? DeriveName(path) : name;
   struct stat st;
   if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
      return Refuse(HYK_NOT_FOUND, path, "no such module file", error);
   }
   char real[PATH_MAX];
   std::string canon = realpath(path.c_str(), real) ? real : path;
   ModuleRecords recs;
   std::vector<ParamValue> values;
   hyk_Status s = CheckFile(canon, modName, &recs, &values, params, error);
   if (s != HYK_OK) {
      return s;
   }
   auto m = std::make_shared<Module>();
   m->name = modName;
   m->path = canon;
   for (const hyk_ModInfoRecord &r : recs.info) {
      m->info.emplace_back(r.key, r.value);
   }
   hyk_ModuleInitFn init = nullptr;
   s = OpenObject(canon, modName, values, m.get(), &init, error);
   if (s != HYK_OK) {
      return s;
   }
   Register(m);
   return RunInit(m, init, reinterpret_cast<const void *>(init), id, error);
}

hyk_Status LoadInProcessModule(const InProcessModule &module, hyk_ModuleID *id) {
   std::lock_guard<sched::RecursiveMutex> loadLock(Reg().loadMu);
   if (module.name.empty()) {
      return Refuse(HYK_BAD_PARAM, "an in-process module", "it has no name", nullptr);
   }
   if (FindByName(module.name) != nullptr) {
      return Refuse(HYK_EXISTS, module.name, "a module of that name is loaded", nullptr);
   }
   auto m = std::make_shared<Module>();
   m->name = module.name;
   m->info = module.info;
   m->inProcessCleanup = module.cleanup;
   Register(m);
   return RunInit(m, module.init, nullptr, id, nullptr);
}

hyk_Status UnloadModule(hyk_ModuleID id) {
   std::lock_guard<sched::RecursiveMutex> loadLock(Reg().loadMu);
   auto m = Find(id);
   return m == nullptr ? hyk_Status(HYK_NOT_FOUND) : Unload(m, false);
}

hyk_Status UnloadModule(const std::string &name) {
   std::lock_guard<sched::RecursiveMutex> loadLock(Reg().loadMu);
   auto m = FindByName(name);
   return m == nullptr ? hyk_Status(HYK_NOT_FOUND) : Unload(m, false);
}

std::vector<ModuleInfoView> Modules() {
   std::lock_guard<std::mutex> lk(Reg().mu);
   std::vector<ModuleInfoView> out;
   for (auto &[id, m] : Reg().modules) {
      out.push_back(ViewOf(*m));
   }
   return out;
}

std::optional<ModuleInfoView> FindModule(const std::string &name) {
   auto m = FindByName(name);
   if (m == nullptr) {
      return std::nullopt;
   }
   std::lock_guard<std::mutex> lk(Reg().mu);
   return ViewOf(*m);
}

// ---- shared with the rest of the host ------------------------------------------------

std::string ModuleInfo(hyk_ModuleID id, const std::string &key) {
   auto m = Find(id);
   if (m == nullptr) {
      return "";
   }
   std::lock_guard<std::mutex> lk(Reg().mu);
   std::string out;
   for (const auto &[k, v] : m->info) {
      if (k == key) {
         out += (out.empty() ? "" : ",") + v;
      }
   }
   return out;
}

bool ModuleLoaded(hyk_ModuleID id) { return Find(id) != nullptr; }

namespace core {

void ModulesUnloadAll() {
   std::lock_guard<sched::RecursiveMutex> loadLock(Reg().loadMu);
   std::vector<std::shared_ptr<Module>> mods;
   {
      std::lock_guard<std::mutex> lk(Reg().mu);
      for (auto it = Reg().modules.rbegin(); it != Reg().modules.rend(); ++it) {
         mods.push_back(it->second);
      }
   }
   for (auto &m : mods) {
      uint32_t uses;
      {
         std::lock_guard<std::mutex> lk(Reg().mu);
         uses = m->useCount;
      }
      if (uses != 0) {
         HostLog("host stop: unloading module %s with use count %u", m->name.c_str(), uses);
      }
      Unload(m, true);
   }
}

void ModulesReset() {
   std::lock_guard<std::mutex> lk(Reg().mu);
   Reg().modules.clear();
   Reg().next = 1;
}

void RunAsModule(hyk_ModuleID id, const void *fnAddr, const char *what,
                 const std::function<void()> &fn) {
   size_t depth = tStack.size();
   uint32_t held = hyk_SpinlocksHeld();
   hyk_ModuleCookie cookie;
   hyk_ModulePushId(id, fnAddr, &cookie);
   fn();
   if (tStack.size() != depth + 1) {
      Panic("%s of module %s returned with unbalanced module pushes (%zu left, expected %zu)",
            what, ModuleLabel(id).c_str(), tStack.size(), depth + 1);
   }
   hyk_ModulePopId();
   if (held == 0) {
      AssertNoSpinlocks(what);
   }
}

std::string ModuleLabel(hyk_ModuleID id) {
   if (id == HYK_INVALID_MODULE_ID) {
      return "<none>";
   }
   auto m = Find(id);
   return m == nullptr ? "#" + std::to_string(id) : m->name;
}

}  // namespace core
}  // namespace hyksim

// ---- the module interface ----------------------------------------------------------

using namespace hyksim;

extern "C" hyk_ModuleID hyk_ModuleCurrentID(void) {
   return tStack.empty() ? HYK_INVALID_MODULE_ID : tStack.back().id;
}

extern "C" hyk_ModuleID hyk_ModuleGetID(const char *name) {
   hyk_Status injected;
   if (FaultCheck("hyk_ModuleGetID", &injected)) {
      return HYK_INVALID_MODULE_ID;
   }
   AssertMaySleep("hyk_ModuleGetID");
   if (name == nullptr) {
      return HYK_INVALID_MODULE_ID;
   }
   auto m = FindByName(name);
   return m == nullptr ? HYK_INVALID_MODULE_ID : m->id;
}

extern "C" hyk_Status hyk_ModuleGetName(hyk_ModuleID id, char *buf, uint32_t len) {
   HYKSIM_FAULT_POINT("hyk_ModuleGetName");
   if (buf == nullptr) {
      return HYK_BAD_PARAM;
   }
   auto m = Find(id);
   if (m == nullptr) {
      return HYK_NOT_FOUND;
   }
   if (len > 0) {
      size_t n = std::min<size_t>(m->name.size(), len - 1);
      memcpy(buf, m->name.data(), n);
      buf[n] = '\0';
   }
   return HYK_OK;
}

extern "C" hyk_Status hyk_ModuleIncUseCount(hyk_ModuleID id) {
   HYKSIM_FAULT_POINT("hyk_ModuleIncUseCount");
   std::lock_guard<std::mutex> lk(Reg().mu);
   auto it = Reg().modules.find(id);
   // A module on its way out cannot be pinned any more.
   if (it == Reg().modules.end() || it->second->state == State::kUnloading) {
      return HYK_NOT_FOUND;
   }
   it->second->useCount++;
   return HYK_OK;
}

extern "C" hyk_Status hyk_ModuleDecUseCount(hyk_ModuleID id) {
   HYKSIM_FAULT_POINT("hyk_ModuleDecUseCount");
   std::lock_guard<std::mutex> lk(Reg().mu);
   auto it = Reg().modules.find(id);
   if (it == Reg().modules.end()) {
      return HYK_NOT_FOUND;
   }
   if (it->second->useCount == 0) {
      return HYK_FAILURE;
   }
   it->second->useCount--;
   return HYK_OK;
}

extern "C" void hyk_ModulePushId(hyk_ModuleID id, const void *fn, hyk_ModuleCookie *cookie) {
   if (cookie != nullptr) {
      cookie->prevID = hyk_ModuleCurrentID();
      cookie->depth = static_cast<uint32_t>(tStack.size() + 1);
      cookie->fn = fn;
   }
   tStack.push_back({id, fn});
}

extern "C" void hyk_ModulePopId(void) {
   if (tStack.empty()) {
      Panic("hyk_ModulePopId without a matching hyk_ModulePushId");
   }
   tStack.pop_back();
}
