/*
 * hyk_types.h -- base types of the host-kernel interface.
 *
 * Every host operation returns a hyk_Status (0 = success) and refers to host
 * objects through opaque integer handles.  Handles are integers rather than
 * pointers so that the host can validate every handle it is given (a stale or
 * forged handle is a detected fault, not a wild dereference) and so that a
 * module can keep "no object" as 0 or all ones in a constant-initialised
 * global without a constructor.
 */
#ifndef HYK_TYPES_H
#define HYK_TYPES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define HYK_EXTERN_C_BEGIN extern "C" {
#define HYK_EXTERN_C_END }
#else
#define HYK_EXTERN_C_BEGIN
#define HYK_EXTERN_C_END
#endif

#define HYK_PRINTF(fmtIdx, argIdx) __attribute__((format(printf, fmtIdx, argIdx)))
#define HYK_NORETURN __attribute__((noreturn))

HYK_EXTERN_C_BEGIN

typedef uint32_t hyk_Status;      /* 0 = success, see hyk_status.h */
typedef uint32_t hyk_ModuleID;    /* HYK_INVALID_MODULE_ID = none */
typedef uint64_t hyk_HeapID;      /* 0 = no heap */
typedef uint64_t hyk_LogHandle;   /* 0 = no log component */
typedef uint64_t hyk_TimerQueue;  /* 0 = no timer queue */
typedef uint64_t hyk_TimerHandle; /* 0 = no timer */
typedef uint32_t hyk_LockDomainID;    /* HYK_INVALID_LOCK_DOMAIN = none */
typedef uint64_t hyk_SpinlockID;      /* exclusive spinlock, HYK_INVALID_LOCK = none */
typedef uint64_t hyk_RWSpinlockID;    /* reader-writer spinlock, HYK_INVALID_LOCK = none */
typedef uint32_t hyk_WorldID;     /* 0 = no world */
typedef uint32_t hyk_PortID;      /* 0 = no port */
typedef uint64_t hyk_VNICHandle;  /* 0 = no vNIC */
typedef uint64_t hyk_NetEventHandle;  /* 0 = not subscribed */
typedef uint64_t hyk_CharDevHandle;   /* 0 = no device */
typedef uint64_t hyk_UserVA;      /* an address in the calling user process */

/* An acquired portset.  Valid from a successful acquire until the matching
 * hyk_PortsetRelease. */
typedef struct hyk_Portset hyk_Portset;

#define HYK_INVALID_MODULE_ID ((hyk_ModuleID)0xffffffffu)
#define HYK_INVALID_LOCK_DOMAIN ((hyk_LockDomainID)0xffffffffu)
#define HYK_INVALID_LOCK ((uint64_t)0xffffffffffffffffull)

/* A host name: a short, bounded, NUL-terminated identifier (see hyk_NameInitialize). */
#define HYK_NAME_LEN 64
typedef struct hyk_Name {
   char string[HYK_NAME_LEN];
} hyk_Name;

HYK_EXTERN_C_END

#endif /* HYK_TYPES_H */
