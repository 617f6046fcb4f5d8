/*
 * hyk_status.h -- host statuses.
 *
 * A status is 32 bits.  Host failures carry the 0xbad0000 prefix and a code in
 * their low 16 bits; HYK_GENERIC_ERROR is the one failure whose low 16 bits
 * are zero.  Modules pass host statuses on unchanged.
 */
#ifndef HYK_STATUS_H
#define HYK_STATUS_H

#include "hyk_types.h"

HYK_EXTERN_C_BEGIN

/* X(name, value, text): the host's status table. */
#define HYK_STATUS_TABLE(X)                                              \
   X(HYK_OK,                 0x0000000u, "Success")                      \
   X(HYK_FAILURE,            0xbad0001u, "Failure")                      \
   X(HYK_WOULD_BLOCK,        0xbad0002u, "Would block")                  \
   X(HYK_NOT_FOUND,          0xbad0003u, "Not found")                    \
   X(HYK_BUSY,               0xbad0004u, "Busy")                         \
   X(HYK_EXISTS,             0xbad0005u, "Already exists")               \
   X(HYK_LIMIT_EXCEEDED,     0xbad0006u, "Limit exceeded")               \
   X(HYK_BAD_PARAM,          0xbad0007u, "Bad parameter")                \
   X(HYK_INVALID_HANDLE,     0xbad0008u, "Invalid handle")               \
   X(HYK_NOT_SUPPORTED,      0xbad0009u, "Not supported")                \
   X(HYK_TIMEOUT,            0xbad000au, "Timeout")                      \
   X(HYK_NO_RESOURCES,       0xbad000bu, "Out of resources")             \
   X(HYK_NOT_INITIALIZED,    0xbad000cu, "Not initialized")              \
   X(HYK_NAME_TOO_LONG,      0xbad000du, "Name too long")                \
   X(HYK_NO_PERMISSION,      0xbad000eu, "Permission denied")            \
   X(HYK_WAIT_INTERRUPTED,   0xbad0011u, "Wait interrupted")             \
   X(HYK_NO_MEMORY,          0xbad0014u, "Out of memory")                \
   X(HYK_BAD_ADDRESS,        0xbad0026u, "Invalid address")              \
   X(HYK_EXEC_FORMAT,        0xbad0030u, "Invalid module format")        \
   X(HYK_UNRESOLVED_SYMBOL,  0xbad0031u, "Unresolved symbol")            \
   X(HYK_VERSION_MISMATCH,   0xbad0032u, "Interface version mismatch")   \
   X(HYK_MODULE_NOT_LOADED,  0xbad0033u, "Module not loaded")            \
   X(HYK_NOT_EMPTY,          0xbad0056u, "Not empty")                    \
   X(HYK_NO_DATA,            0xbad0088u, "No data available")            \
   X(HYK_NO_SUCH_WORLD,      0xbad0094u, "No such world")                \
   X(HYK_GENERIC_ERROR,      0x2BAD0000u, "Generic error")

#define HYK_STATUS_ENUM_(name, value, text) name = value,
enum { HYK_STATUS_TABLE(HYK_STATUS_ENUM_) };
#undef HYK_STATUS_ENUM_

/*
 * hyk_StatusToString -- the host's text for a status.
 *   status: any 32-bit value.
 * Returns a static string; an unknown status gives "Unknown status".
 * Context: any, including with spinlocks held.  Cannot fail.
 */
const char *hyk_StatusToString(hyk_Status status);

HYK_EXTERN_C_END

#endif /* HYK_STATUS_H */
