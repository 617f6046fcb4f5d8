// util.cpp -- small host services with no state: status texts, host names
// and the stable byte hash.
#include <cstring>

#include "internal.h"

extern "C" const char *hyk_StatusToString(hyk_Status status) {
   switch (status) {
#define HYKSIM_STATUS_CASE_(name, value, text) \
   case value:                                 \
      return text;
      HYK_STATUS_TABLE(HYKSIM_STATUS_CASE_)
#undef HYKSIM_STATUS_CASE_
   }
   return "Unknown status";
}

extern "C" hyk_Status hyk_NameInitialize(hyk_Name *name, const char *str) {
   HYKSIM_FAULT_POINT("hyk_NameInitialize");
   if (name == nullptr || str == nullptr) {
      return HYK_BAD_PARAM;
   }
   size_t len = strnlen(str, HYK_NAME_LEN);
   if (len >= HYK_NAME_LEN) {
      return HYK_NAME_TOO_LONG;
   }
   // Zero the tail too: names are compared and hashed as whole records.
   memset(name->string, 0, sizeof name->string);
   memcpy(name->string, str, len);
   return HYK_OK;
}

// FNV-1a, 64 bit: stable across hosts and builds, which is all the modules
// ask of it (they use it for hash-table buckets, not for security).
extern "C" uint64_t hyk_HashBytes(const void *data, uint32_t len) {
   const auto *p = static_cast<const unsigned char *>(data);
   uint64_t h = 0xcbf29ce484222325ull;
   for (uint32_t i = 0; i < len; i++) {
      h ^= p[i];
      h *= 0x100000001b3ull;
   }
   return h;
}
