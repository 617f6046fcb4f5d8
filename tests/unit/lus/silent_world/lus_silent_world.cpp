/*
 * lus_silent_world.cpp -- linked into a test build of lus only: an upgrade
 * world that ends without writing a status into its context.  The shipped
 * world reports on every path, so only this build shows what the portset
 * upgrade command makes of a world that does not.
 */
#include "lus_int.h"

hyk_Status lusSilentUpgradeWorld(void *data);

hyk_Status lusSilentUpgradeWorld(void *data)
{
   return HYK_OK;
}
