/*
 * hyktest_refused.c -- modules the loader must refuse, one per variant
 * (chosen by HYKTEST_VARIANT at build time): 1 requires a namespace this
 * host does not provide, 2 declares no namespace, 3 has no init_module,
 * 4 calls a host function that does not exist.
 */
#include "hyk/hyk.h"

#if HYKTEST_VARIANT == 1
HYK_MODULE_NAMESPACE(api, HYK_NAMESPACE_API);
HYK_MODULE_NAMESPACE(future, "com.corvid.hykapi#v9_0_0_0");
#elif HYKTEST_VARIANT == 3 || HYKTEST_VARIANT == 4
HYK_MODULE_NAMESPACE(api, HYK_NAMESPACE_API);
#endif
HYK_MODULE_LICENSE("test-only");

#if HYKTEST_VARIANT == 4
void hyk_NoSuchOperation(void);
#endif

#if HYKTEST_VARIANT != 3
HYK_MODULE_ENTRY int init_module(void) {
#if HYKTEST_VARIANT == 4
   hyk_NoSuchOperation();
#endif
   _hyk_LogMessage("refused module %d ran init\n", HYKTEST_VARIANT);
   return 0;
}
#endif
