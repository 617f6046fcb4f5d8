/*
 * hyk_lock.h -- lock domains and ranked spinlocks.
 *
 * Every spinlock belongs to a lock domain and has a rank.  A thread may take
 * a lock only when its rank is higher than that of every lock of the same
 * domain it already holds; the host panics on a rank violation, on sleeping
 * (hyk_WorldSleep, a blocking host call) with a spinlock held, on releasing a
 * lock that is not held and on destroying a lock that is held.
 */
#ifndef HYK_LOCK_H
#define HYK_LOCK_H

#include "hyk_types.h"

HYK_EXTERN_C_BEGIN

/*
 * hyk_LockDomainCreate -- creates a lock domain.
 * Returns HYK_OK; HYK_BAD_PARAM; HYK_NAME_TOO_LONG.
 * Context: a thread that may block.
 */
hyk_Status hyk_LockDomainCreate(const char *name, hyk_ModuleID owner, hyk_HeapID heap,
                                hyk_LockDomainID *domain);

/*
 * hyk_LockDomainDestroy -- destroys a domain; its locks must be destroyed
 * first (HYK_BUSY otherwise).  Returns HYK_OK, HYK_BUSY or HYK_INVALID_HANDLE.
 */
hyk_Status hyk_LockDomainDestroy(hyk_LockDomainID domain);

/*
 * hyk_SpinlockCreate / hyk_RWSpinlockCreate -- create an exclusive or a
 * reader-writer spinlock of `rank` (1..0xffff) in `domain`.
 * Returns HYK_OK; HYK_BAD_PARAM (rank 0, null name or out); HYK_INVALID_HANDLE
 * (unknown domain); HYK_NAME_TOO_LONG.
 * Context: a thread that may block.
 */
hyk_Status hyk_SpinlockCreate(const char *name, hyk_LockDomainID domain, uint32_t rank,
                              hyk_SpinlockID *lock);
hyk_Status hyk_RWSpinlockCreate(const char *name, hyk_LockDomainID domain, uint32_t rank,
                                hyk_RWSpinlockID *lock);

/* Destroy a lock that no thread holds.  Returns HYK_OK or HYK_INVALID_HANDLE. */
hyk_Status hyk_SpinlockDestroy(hyk_SpinlockID lock);
hyk_Status hyk_RWSpinlockDestroy(hyk_RWSpinlockID lock);

/*
 * Take and release.  An invalid handle panics the host: a lock operation has
 * no way to report failure to its caller.
 * Context: any.
 */
void hyk_SpinlockLock(hyk_SpinlockID lock);
void hyk_SpinlockUnlock(hyk_SpinlockID lock);
void hyk_RWSpinlockReadLock(hyk_RWSpinlockID lock);
void hyk_RWSpinlockReadUnlock(hyk_RWSpinlockID lock);
void hyk_RWSpinlockWriteLock(hyk_RWSpinlockID lock);
void hyk_RWSpinlockWriteUnlock(hyk_RWSpinlockID lock);

/* Number of spinlocks the calling thread holds.  Context: any. */
uint32_t hyk_SpinlocksHeld(void);

HYK_EXTERN_C_END

#endif /* HYK_LOCK_H */
