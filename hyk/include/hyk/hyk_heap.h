/*
 * hyk_heap.h -- named heaps with an initial and a maximum size.
 *
 * A heap grows from its initial size up to its maximum; an allocation that
 * would take it past the maximum fails.  The host accounts every allocation
 * with the caller's return address, reports the allocations still live when
 * a heap is destroyed, and panics on a double free or a free to the wrong heap.
 */
#ifndef HYK_HEAP_H
#define HYK_HEAP_H

#include "hyk_types.h"

HYK_EXTERN_C_BEGIN

typedef struct hyk_HeapProps {
   const char *name;      /* at most HYK_NAME_LEN - 1 characters */
   hyk_ModuleID owner;    /* module that owns the heap */
   uint32_t initialSize;  /* bytes reserved at creation */
   uint32_t maxSize;      /* bytes the heap may grow to; must be >= initialSize */
} hyk_HeapProps;

/*
 * hyk_HeapCreate -- creates a heap.
 *   props: name, owner, sizes.   heap: out, the new heap's ID.
 * Returns HYK_OK; HYK_BAD_PARAM for a null argument, an empty name or
 * initialSize > maxSize; HYK_NAME_TOO_LONG; HYK_NO_MEMORY when the host cannot
 * reserve the initial size.
 * Context: a thread that may block, no spinlock held.
 */
hyk_Status hyk_HeapCreate(const hyk_HeapProps *props, hyk_HeapID *heap);

/*
 * hyk_HeapDestroy -- destroys a heap.  Allocations still live are reported in
 * the host log (size and caller of each) and then released.
 * Returns HYK_OK or HYK_INVALID_HANDLE.
 * Context: a thread that may block, no spinlock held.
 */
hyk_Status hyk_HeapDestroy(hyk_HeapID heap);

/*
 * hyk_HeapAllocWithRA -- allocates `size` bytes (8-byte aligned, contents
 * undefined) from `heap`, accounting them to return address `ra`.
 * Returns the memory, or NULL when the heap would exceed its maximum, for
 * size 0, or for an invalid heap.
 * Context: any; never sleeps.
 */
void *hyk_HeapAllocWithRA(hyk_HeapID heap, uint32_t size, void *ra);
#define hyk_HeapAlloc(heap, size) hyk_HeapAllocWithRA((heap), (size), __builtin_return_address(0))

/*
 * hyk_HeapFree -- returns `mem` to `heap`.  NULL is ignored.  Freeing memory
 * of another heap, or memory already freed, panics the host.
 * Context: any; never sleeps.
 */
void hyk_HeapFree(hyk_HeapID heap, void *mem);

typedef struct hyk_HeapStats {
   uint64_t bytesInUse;     /* sum of live allocation sizes */
   uint64_t liveAllocations;
   uint64_t peakBytes;
   uint64_t maxSize;
   uint64_t failedAllocations;
} hyk_HeapStats;

/*
 * hyk_HeapGetStats -- a snapshot of a heap's accounting.
 * Returns HYK_OK, HYK_INVALID_HANDLE or HYK_BAD_PARAM.
 * Context: any.
 */
hyk_Status hyk_HeapGetStats(hyk_HeapID heap, hyk_HeapStats *stats);

HYK_EXTERN_C_END

#endif /* HYK_HEAP_H */
