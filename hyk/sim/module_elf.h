// module_elf.h -- reading a module file's information and parameter records
// straight from its ELF sections, before the object is opened.
//
// Reading the file rather than the mapped object lets the loader refuse a
// module (wrong interface namespace, unknown parameter) before any of its
// code or constructors run, as a real host's loader does.
#pragma once

#include <string>
#include <vector>

#include "hyk/hyk_module.h"

namespace hyksim {

struct ModuleRecords {
   std::vector<hyk_ModInfoRecord> info;
   std::vector<hyk_ParamRecord> params;
};

// false (with a reason in *error) when the file is not a 64-bit ELF shared
// object or a record section is malformed.  Missing sections are empty.
bool ReadModuleRecords(const std::string &path, ModuleRecords *out, std::string *error);

}  // namespace hyksim
