// module_elf.cpp -- ELF64 section lookup for the module loader (see
// module_elf.h).  Every offset and size in the file is checked against the
// file's length: a module file is input, not trusted.
#include "module_elf.h"

#include <elf.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>

namespace hyksim {
namespace {

bool InFile(const std::string &file, uint64_t off, uint64_t len) {
   return off <= file.size() && len <= file.size() - off;
}

bool Ends(const char *field, size_t len) { return strnlen(field, len) < len; }

bool Terminated(const hyk_ModInfoRecord &r) {
   return Ends(r.key, sizeof r.key) && Ends(r.value, sizeof r.value);
}

bool Terminated(const hyk_ParamRecord &r) {
   return Ends(r.name, sizeof r.name) && Ends(r.description, sizeof r.description);
}

template <typename Record>
bool CopyRecords(const std::string &file, const Elf64_Shdr &sh, const char *what,
                 std::vector<Record> *out, std::string *error) {
   if (sh.sh_type == SHT_NOBITS || !InFile(file, sh.sh_offset, sh.sh_size) ||
       sh.sh_size % sizeof(Record) != 0) {
      *error = std::string("malformed section ") + what;
      return false;
   }
   out->resize(sh.sh_size / sizeof(Record));
   memcpy(out->data(), file.data() + sh.sh_offset, sh.sh_size);
   // The records' text fields are fixed-size: each must end inside its field.
   for (const Record &r : *out) {
      if (!Terminated(r)) {
         *error = std::string("unterminated text in section ") + what;
         return false;
      }
   }
   return true;
}

bool ReadHeader(const std::string &file, Elf64_Ehdr *eh, std::string *error) {
   if (file.size() < sizeof *eh) {
      *error = "file too short for an ELF header";
      return false;
   }
   memcpy(eh, file.data(), sizeof *eh);
   if (memcmp(eh->e_ident, ELFMAG, SELFMAG) != 0) {
      *error = "not an ELF file";
      return false;
   }
   if (eh->e_ident[EI_CLASS] != ELFCLASS64 || eh->e_type != ET_DYN) {
      *error = "not a 64-bit ELF shared object";
      return false;
   }
   if (eh->e_shentsize != sizeof(Elf64_Shdr) || eh->e_shstrndx >= eh->e_shnum ||
       !InFile(file, eh->e_shoff, uint64_t(eh->e_shnum) * sizeof(Elf64_Shdr))) {
      *error = "malformed ELF section header table";
      return false;
   }
   return true;
}

}  // namespace

bool ReadModuleRecords(const std::string &path, ModuleRecords *out, std::string *error) {
   std::ifstream in(path, std::ios::binary);
   if (!in) {
      *error = "cannot read " + path;
      return false;
   }
   // One read of the whole file: a byte-wise stream read costs milliseconds
   // per load in unoptimised builds, and the fuzzer loads a module per input.
   in.seekg(0, std::ios::end);
   std::string file(static_cast<size_t>(std::max<std::streamoff>(in.tellg(), 0)), '\0');
   in.seekg(0, std::ios::beg);
   if (!in.read(file.data(), static_cast<std::streamsize>(file.size()))) {
      *error = "cannot read " + path;
      return false;
   }
   Elf64_Ehdr eh;
   if (!ReadHeader(file, &eh, error)) {
      return false;
   }
   std::vector<Elf64_Shdr> sections(eh.e_shnum);
   memcpy(sections.data(), file.data() + eh.e_shoff, sections.size() * sizeof(Elf64_Shdr));
   const Elf64_Shdr &strtab = sections[eh.e_shstrndx];
   if (!InFile(file, strtab.sh_offset, strtab.sh_size)) {
      *error = "malformed ELF section name table";
      return false;
   }
   for (const Elf64_Shdr &sh : sections) {
      if (sh.sh_name >= strtab.sh_size) {
         continue;
      }
      const char *name = file.data() + strtab.sh_offset + sh.sh_name;
      size_t maxLen = strtab.sh_size - sh.sh_name;
      if (strnlen(name, maxLen) == maxLen) {
         continue;
      }
      if (strcmp(name, "hyk_modinfo") == 0 && !CopyRecords(file, sh, name, &out->info, error)) {
         return false;
      }
      if (strcmp(name, "hyk_modparam") == 0 &&
          !CopyRecords(file, sh, name, &out->params, error)) {
         return false;
      }
   }
   return true;
}

}  // namespace hyksim
