// internal.h -- what the pieces of the simulated host share with each other.
//
// Not part of the module interface (that is hyk/include/hyk/) nor of the
// host control API (include/hyksim/).  Every hyk_ operation that can fail
// starts with a fault point, so a test can fail any call by name; blocking
// operations assert that the caller may sleep.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "hyk/hyk.h"

namespace hyksim {

// Records the call in the host-call trace and decides whether an injected
// fault applies to this call of `op`.  When it does, the injection is written
// to the host log, *status receives the chosen status and true is returned.
bool FaultCheck(const char *op, hyk_Status *status);

// Stops the host: the message goes to the host log and stderr, then abort().
[[noreturn]] void Panic(const char *fmt, ...) HYK_PRINTF(1, 2);

// A line of the host's own (prefixed "hyk: ") in the host log.
void HostLog(const char *fmt, ...) HYK_PRINTF(1, 2);

// Panics when the calling thread holds a spinlock: `op` may sleep.
void AssertMaySleep(const char *op);

// Hooks run by Host reset (every host object is dropped) and after a module
// has been unloaded (the host reports and drops what the module left behind).
void OnReset(std::function<void()> hook);
void OnModuleUnloaded(std::function<void(hyk_ModuleID, const std::string &name)> hook);

// Value of information record `key` of a loaded module ("" when absent);
// repeated keys are joined with ','.
std::string ModuleInfo(hyk_ModuleID id, const std::string &key);
bool ModuleLoaded(hyk_ModuleID id);

}  // namespace hyksim

// First statement of a fallible hyk_ operation returning hyk_Status.
#define HYKSIM_FAULT_POINT(op)                                  \
   do {                                                         \
      hyk_Status hyksimFault_;                                  \
      if (::hyksim::FaultCheck((op), &hyksimFault_)) {          \
         return hyksimFault_;                                   \
      }                                                         \
   } while (0)

// The same for operations that report failure as a null pointer.
#define HYKSIM_FAULT_POINT_NULL(op)                             \
   do {                                                         \
      hyk_Status hyksimFault_;                                  \
      if (::hyksim::FaultCheck((op), &hyksimFault_)) {          \
         return nullptr;                                        \
      }                                                         \
   } while (0)
