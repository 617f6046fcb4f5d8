/*
 * hyk.h -- the host-kernel interface, everything a module may call.
 */
#ifndef HYK_H
#define HYK_H

#include "hyk_types.h"
#include "hyk_status.h"
#include "hyk_module.h"
#include "hyk_heap.h"
#include "hyk_log.h"
#include "hyk_timer.h"
#include "hyk_lock.h"
#include "hyk_world.h"
#include "hyk_netevent.h"
#include "hyk_portset.h"
#include "hyk_pfilter.h"
#include "hyk_chardev.h"
#include "hyk_util.h"

#endif /* HYK_H */
