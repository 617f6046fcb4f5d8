// hyktest_counter.cpp -- a tiny module for the host's loader tests.
//
// `loads` is a plain global bumped by every init: it reads 1 at each init
// only if every load starts from a fresh copy of the object.  One parameter
// of each type shows what the loader applied.  `failInit` makes init fail
// after it has created a heap (the host must drop it), and `leaveBehind`
// makes init create host objects that cleanup deliberately does not release,
// so the host's report of leftovers can be tested.
#include "hyk/hyk.h"

#ifndef HYKTEST_BUILD
#define HYKTEST_BUILD 1
#endif

HYK_MODULE_NAMESPACE(api, HYK_NAMESPACE_API);
HYK_MODULE_NAMESPACE(core, HYK_NAMESPACE_CORE);
HYK_MODULE_VERSION("Version 1.0.0-0 RELEASEbuild-42");
HYK_MODULE_BUILD_TYPE("release");
HYK_MODULE_LICENSE("test-only");

// Initialised parameters: C linkage from the block, so the definitions are
// not "extern" declarations with an initialiser.
#define HYKTEST_PARAM __attribute__((visibility("default")))
HYK_EXTERN_C_BEGIN
HYKTEST_PARAM int32_t counterStart = 0;
HYKTEST_PARAM uint32_t failInit = 0;
HYKTEST_PARAM uint64_t leaveBehind = 0;
HYKTEST_PARAM char label[HYK_PARAM_STRING_LEN] = "none";
HYK_EXTERN_C_END

HYK_MODULE_PARAM(counterStart, HYK_PARAM_INT, "value the counter reports first");
HYK_MODULE_PARAM(failInit, HYK_PARAM_UINT, "non-zero: init_module fails");
HYK_MODULE_PARAM(leaveBehind, HYK_PARAM_ULONG, "non-zero: leave host objects at unload");
HYK_MODULE_PARAM(label, HYK_PARAM_STRING, "free text echoed by init");

static int32_t loads;
static hyk_HeapID heap;

static void NeverRuns(void *, hyk_TimerHandle) {}

// Objects a careless module forgets: a heap with a live allocation, a log
// component, a timer queue with a pending timer and a lock domain.  Not
// inlined: the allocation is charged to this function's caller, which must
// be init_module in this object whatever the optimisation level.
__attribute__((noinline)) static void CreateLeftovers(hyk_ModuleID self) {
   hyk_LogProps lp = {"counter_log", 3, heap, HYK_LOG_THROTTLE_NONE};
   hyk_LogHandle log;
   hyk_LogRegister(&lp, &log);
   hyk_TimerQueue q;
   if (hyk_TimerQueueCreate("counter_timers", self, heap, &q) == HYK_OK) {
      hyk_TimerAdd(q, NeverRuns, nullptr, 1000000000ull, HYK_TIMER_DEFAULT_TOLERANCE, 0,
                   HYK_TIMER_NO_LOCK_CLASS, nullptr);
   }
   hyk_LockDomainID domain;
   hyk_LockDomainCreate("counter_locks", self, heap, &domain);
   hyk_HeapAlloc(heap, 24);
}

HYK_MODULE_ENTRY int init_module(void) {
   hyk_ModuleID self = hyk_ModuleCurrentID();
   loads++;
   _hyk_LogMessage("counter%d: init loads=%d start=%d label=%s id=%u\n", HYKTEST_BUILD, loads,
                   counterStart, label, self);
   hyk_HeapProps hp = {"counter_heap", self, 4096, 65536};
   if (hyk_HeapCreate(&hp, &heap) != HYK_OK) {
      return -1;
   }
   if (failInit != 0) {
      return -1;  // the heap stays behind on purpose: the host must drop it
   }
   if (leaveBehind != 0) {
      CreateLeftovers(self);
   }
   return 0;
}

HYK_MODULE_ENTRY void cleanup_module(void) {
   // The format lives in this object: the queued line must stay readable
   // after the host closes the object.
   _hyk_LogMessage("counter%d: cleanup id=%u label=%s\n", HYKTEST_BUILD, hyk_ModuleCurrentID(),
                   label);
   if (leaveBehind == 0) {
      hyk_HeapDestroy(heap);
   }
}
