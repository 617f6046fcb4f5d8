/*
 * hyk_util.h -- host names and hashing.
 */
#ifndef HYK_UTIL_H
#define HYK_UTIL_H

#include "hyk_types.h"

HYK_EXTERN_C_BEGIN

/*
 * hyk_NameInitialize -- makes a host name from a string.
 * Returns HYK_OK; HYK_BAD_PARAM; HYK_NAME_TOO_LONG (nothing written).
 * Context: any.
 */
hyk_Status hyk_NameInitialize(hyk_Name *name, const char *str);

/*
 * hyk_HashBytes -- a stable 64-bit hash of len bytes (the same bytes always
 * hash to the same value on every host).  Context: any.  Cannot fail.
 */
uint64_t hyk_HashBytes(const void *data, uint32_t len);

HYK_EXTERN_C_END

#endif /* HYK_UTIL_H */
