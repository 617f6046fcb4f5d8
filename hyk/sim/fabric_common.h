// fabric_common.h -- helpers shared by the fabric half of the simulated host
// (network events, portsets and ports, packet filter, character devices).
//
// Not seen by modules nor by the control API.  The core of the host (modules,
// clock, faults, log) is reached through internal.h.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "internal.h"

namespace hyksim::fabric {

// Pushes `id` as the current module around a call into that module, so the
// callee sees itself as current just as it does under the host's other
// callbacks.  A subscriber that subscribed with no module current (host-side
// test code) gets nothing pushed.
class ModuleScope {
  public:
   ModuleScope(hyk_ModuleID id, const void *fn) : pushed_(id != HYK_INVALID_MODULE_ID) {
      if (pushed_) {
         hyk_ModulePushId(id, fn, &cookie_);
      }
   }
   ~ModuleScope() {
      if (pushed_) {
         hyk_ModulePopId();
      }
   }
   ModuleScope(const ModuleScope &) = delete;
   ModuleScope &operator=(const ModuleScope &) = delete;

  private:
   bool pushed_;
   hyk_ModuleCookie cookie_{};
};

// Copies `value` into a caller's buffer of `len` bytes, truncating and always
// terminating, as the bounded lookups promise.
inline hyk_Status CopyBounded(const std::string &value, char *buf, uint32_t len) {
   if (buf == nullptr || len == 0) {
      return HYK_BAD_PARAM;
   }
   size_t n = value.size() < len - 1 ? value.size() : len - 1;
   std::memcpy(buf, value.data(), n);
   buf[n] = '\0';
   return HYK_OK;
}

// Length of a NUL-terminated name of at most `max - 1` characters, or `max`
// when it is not terminated within `max` bytes (reads no further).
inline size_t BoundedLength(const char *s, size_t max) {
   const void *nul = std::memchr(s, '\0', max);
   return nul == nullptr ? max : static_cast<size_t>(static_cast<const char *>(nul) - s);
}

// Name of a module for host log lines ("<none>" when there is none).
std::string ModuleName(hyk_ModuleID id);

// A host-side post on a portset hands its subscribers a portset reference
// that is valid for the delivery only and takes no part in acquisition (the
// datapath posts while a module may hold the portset exclusively).
// BorrowPortset returns nullptr for an unknown portset.
hyk_Portset *BorrowPortset(const std::string &name);
void ReturnPortset(hyk_Portset *ps);
// Records a portset event on the portset named by an acquired handle.
// Returns false when `ps` is not a handle the host handed out.
bool NotePortsetEvent(hyk_Portset *ps, std::string_view event);

// Events the portset half asks the event half to raise.
hyk_Status RaisePortEvent(hyk_PortID port, const char *event);

}  // namespace hyksim::fabric
