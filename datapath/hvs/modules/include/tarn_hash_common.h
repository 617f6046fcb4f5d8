/*
 * tarn_hash_common.h -- the intrusive hash map shared by the datapath modules.
 *
 * A map is one allocation: a header followed directly by a power-of-two number
 * of buckets.  Entries carry their chain link at `linkOffset` (always 0 in the
 * maps we make, so an entry pointer and its link pointer are the same) and
 * their key at `keyOffset`.  The map never allocates: callers allocate the
 * entries from their own heaps and free them after removal, which keeps the
 * map usable from any context, including with spinlocks held.
 *
 * Everything here is inline so that a module pays only for what it uses and
 * links against nothing but the host.
 */
#ifndef TARN_HASH_COMMON_H
#define TARN_HASH_COMMON_H

#include <stddef.h>
#include <stdint.h>

#include "hyk/hyk.h"

/* ---- circular doubly linked lists with a two-pointer head ---------------- */

struct LusListLinks {
   LusListLinks *next;
   LusListLinks *prev;
};
static_assert(sizeof(LusListLinks) == 16, "a list head is two pointers");

static inline void LusList_Init(LusListLinks *head)
{
   head->next = head;
   head->prev = head;
}

static inline bool LusList_IsEmpty(const LusListLinks *head)
{
   return head->next == head;
}

static inline void LusList_InsertAfter(LusListLinks *pos, LusListLinks *elem)
{
   elem->next = pos->next;
   elem->prev = pos;
   pos->next->prev = elem;
   pos->next = elem;
}

/* Newest first. */
static inline void LusList_InsertHead(LusListLinks *head, LusListLinks *elem)
{
   LusList_InsertAfter(head, elem);
}

/* Oldest first. */
static inline void LusList_InsertTail(LusListLinks *head, LusListLinks *elem)
{
   LusList_InsertAfter(head->prev, elem);
}

/*
 * Unlinks `elem` and clears its link, so that a stale pointer to a removed
 * element faults on first use instead of walking a list it no longer
 * belongs to.
 */
static inline void LusList_Remove(LusListLinks *elem)
{
   elem->prev->next = elem->next;
   elem->next->prev = elem->prev;
   elem->next = nullptr;
   elem->prev = nullptr;
}

/* ---- the hash map --------------------------------------------------------- */

/* How a key is hashed and compared when the map has no functions of its own. */
enum : uint16_t {
   TARN_HASH_KEY_BYTES = 1,  /* keyLen raw bytes */
   TARN_HASH_KEY_STRING = 2, /* NUL-terminated string of at most keyLen bytes */
};

#define TARN_HASH_NUM_BUCKETS 16384u
#define TARN_HASH_BUCKET_MASK (TARN_HASH_NUM_BUCKETS - 1u)

typedef uint64_t (*TarnHashFn)(const void *key, uint32_t keyLen);
/* Returns 0 when the keys are equal. */
typedef int (*TarnHashCompareFn)(const void *key1, const void *key2, uint32_t keyLen);

struct LusHashBucket {
   LusListLinks chain;
   uint32_t count;
};
static_assert(sizeof(LusHashBucket) == 24, "bucket: chain head and a count");

struct LusHashMap {
   hyk_HeapID heap;        /* the heap the map was allocated from, to free it to */
   uint32_t keyLen;
   uint32_t keyOffset;     /* position of the key inside an entry */
   uint32_t linkOffset;    /* position of the chain link inside an entry */
   uint32_t bucketMask;
   uint32_t count;         /* entries in the map; decremented atomically */
   uint16_t keyKind;       /* TARN_HASH_KEY_* */
   uint16_t flags;
   TarnHashFn hashFn;      /* null: built-in hash */
   TarnHashCompareFn compareFn; /* null: built-in compare */
   /* the buckets follow the header directly */
};
static_assert(sizeof(LusHashMap) == 48, "hash map header layout");
static_assert(sizeof(LusHashMap) % alignof(LusHashBucket) == 0, "buckets follow the header");

#define TARN_HASH_ALLOC_SIZE \
   ((uint32_t)(sizeof(LusHashMap) + TARN_HASH_NUM_BUCKETS * sizeof(LusHashBucket)))

/* Source path named when the map meets a key kind it does not know. */
#define TARN_HASH_SOURCE "datapath/hvs/modules/include/tarn_hash_common"
#define TARN_HASH_LINE_HASH 170
#define TARN_HASH_LINE_COMPARE 767

static inline LusHashBucket *TarnHash_Buckets(LusHashMap *map)
{
   return reinterpret_cast<LusHashBucket *>(map + 1);
}

/* Fills the header and makes every bucket empty. */
static inline void TarnHash_Init(LusHashMap *map, hyk_HeapID heap, uint32_t keyLen,
                                 uint32_t keyOffset, uint16_t keyKind)
{
   map->heap = heap;
   map->keyLen = keyLen;
   map->keyOffset = keyOffset;
   map->linkOffset = 0;
   map->bucketMask = TARN_HASH_BUCKET_MASK;
   map->count = 0;
   map->keyKind = keyKind;
   map->flags = 0xffff;
   map->hashFn = nullptr;
   map->compareFn = nullptr;
   LusHashBucket *buckets = TarnHash_Buckets(map);
   for (uint32_t i = 0; i <= map->bucketMask; i++) {
      LusList_Init(&buckets[i].chain);
      buckets[i].count = 0;
   }
}

static inline uint32_t TarnHash_StrLen(const char *s, uint32_t max)
{
   uint32_t n = 0;
   while (n < max && s[n] != '\0') {
      n++;
   }
   return n;
}

static inline uint64_t TarnHash_HashKey(const LusHashMap *map, const void *key)
{
   if (map->hashFn != nullptr) {
      return map->hashFn(key, map->keyLen);
   }
   switch (map->keyKind) {
   case TARN_HASH_KEY_BYTES:
      return hyk_HashBytes(key, map->keyLen);
   case TARN_HASH_KEY_STRING: {
      uint32_t len = TarnHash_StrLen(static_cast<const char *>(key), map->keyLen);
      return len == 0 ? 0 : hyk_HashBytes(key, len);
   }
   default:
      /* A map is made with a known kind; anything else is a corrupted header. */
      hyk_PanicWithModuleID(hyk_ModuleCurrentID(), "Failed at %s:%d -- NOT REACHED",
                            TARN_HASH_SOURCE, TARN_HASH_LINE_HASH);
   }
}

/* True when the two keys are equal. */
static inline bool TarnHash_KeyEqual(const LusHashMap *map, const void *key1, const void *key2)
{
   if (map->compareFn != nullptr) {
      return map->compareFn(key1, key2, map->keyLen) == 0;
   }
   switch (map->keyKind) {
   case TARN_HASH_KEY_BYTES:
      return __builtin_memcmp(key1, key2, map->keyLen) == 0;
   case TARN_HASH_KEY_STRING: {
      const char *a = static_cast<const char *>(key1);
      const char *b = static_cast<const char *>(key2);
      for (uint32_t i = 0; i < map->keyLen; i++) {
         if (a[i] != b[i]) {
            return false;
         }
         if (a[i] == '\0') {
            break;
         }
      }
      return true;
   }
   default:
      hyk_PanicWithModuleID(hyk_ModuleCurrentID(), "Failed at %s:%d -- NOT REACHED",
                            TARN_HASH_SOURCE, TARN_HASH_LINE_COMPARE);
   }
}

static inline const void *TarnHash_EntryKey(const LusHashMap *map, const LusListLinks *entry)
{
   return reinterpret_cast<const char *>(entry) - map->linkOffset + map->keyOffset;
}

static inline LusHashBucket *TarnHash_BucketOfKey(LusHashMap *map, const void *key)
{
   return &TarnHash_Buckets(map)[TarnHash_HashKey(map, key) & map->bucketMask];
}

/* Appends `entry` to the chain of its key's bucket. */
static inline void TarnHash_Insert(LusHashMap *map, LusListLinks *entry)
{
   LusHashBucket *bucket = TarnHash_BucketOfKey(map, TarnHash_EntryKey(map, entry));
   LusList_InsertTail(&bucket->chain, entry);
   bucket->count++;
   __atomic_fetch_add(&map->count, 1u, __ATOMIC_RELAXED);
}

/* Unlinks `entry` from `bucket` (the bucket its key hashes to). */
static inline void TarnHash_RemoveFromBucket(LusHashMap *map, LusHashBucket *bucket,
                                             LusListLinks *entry)
{
   LusList_Remove(entry);
   bucket->count--;
   __atomic_fetch_sub(&map->count, 1u, __ATOMIC_RELAXED);
}

/* The first entry with that key, or null. */
static inline LusListLinks *TarnHash_Lookup(LusHashMap *map, const void *key)
{
   LusHashBucket *bucket = TarnHash_BucketOfKey(map, key);
   for (LusListLinks *e = bucket->chain.next; e != &bucket->chain; e = e->next) {
      if (TarnHash_KeyEqual(map, TarnHash_EntryKey(map, e), key)) {
         return e;
      }
   }
   return nullptr;
}

static inline uint32_t TarnHash_Count(const LusHashMap *map)
{
   return __atomic_load_n(&map->count, __ATOMIC_RELAXED);
}

#endif /* TARN_HASH_COMMON_H */
