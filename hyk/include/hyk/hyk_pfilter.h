/*
 * hyk_pfilter.h -- the host's packet-filter framework, as seen by modules.
 */
#ifndef HYK_PFILTER_H
#define HYK_PFILTER_H

#include "hyk_types.h"

HYK_EXTERN_C_BEGIN

/*
 * PFilter_TblRevalidateVmPort -- re-evaluates the filters of a VM port: the
 * port's filter is destroyed and re-created from its current properties.
 * HYK_OK; HYK_NOT_FOUND (no port).
 * Context: a thread that may block, no spinlock held.
 */
hyk_Status PFilter_TblRevalidateVmPort(hyk_PortID portID);

HYK_EXTERN_C_END

#endif /* HYK_PFILTER_H */
