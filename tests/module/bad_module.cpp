// bad_module.cpp -- a module object that breaks the kernel discipline on
// purpose (it calls malloc), built with the same options as lus, so that the
// symbol check is shown to fail on it.
#include <stdlib.h>

extern "C" __attribute__((visibility("default"))) void *badModuleAlloc(unsigned n)
{
   return malloc(n);
}
