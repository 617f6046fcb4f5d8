/*
 * tarnq_client.h -- what every sample datapath client shares: the answer to
 * lus's registration event, its own heap, lock and log, a table of per-port
 * state, the state formats of the two builds, and the misbehaviour switches.
 *
 * A client source defines its role (TARNQ_ROLE_*: which callback slots it
 * fills, the codecs of its state) and includes this file once; it is built
 * once per build number (TARNQ_BUILD, a compile definition), into the module
 * "<prefix>-<build>".  Read docs/WRITING_A_CLIENT.md first.
 *
 * Kernel discipline, as lus: no exceptions, no C++ runtime, no C library;
 * memory comes from the client's own heap.  The only calls outside the
 * host-kernel interface are the simulator's ledger (hyksim/ledger.h), which
 * counts where every byte went; a client for a real host drops those lines.
 *
 * State formats.  A blob of state (one port's, a portset's, or the global
 * configuration) is a header and `count` fixed-size entries:
 *   format 1 (build 1000): u32 magic, u16 version, u16 count, then entries;
 *   format 2 (build 2000): u32 magic, u32 version, u32 count, u32 entry size,
 *                          then entries, each with a field format 1 lacks.
 * Every entry is generated from the module parameter `seed`, the client, the
 * kind of state and its scope (the port's ID and VM UUID, the portset's
 * name), so that the new build can compute exactly what the old build held
 * and check every restored byte against it before converting.
 */
#ifndef TARNQ_CLIENT_H
#define TARNQ_CLIENT_H

#include <stddef.h>
#include <stdint.h>

#include "hyk/hyk.h"
#include "hyksim/datapath.h"
#include "hyksim/ledger.h"
#include "lus.h"

#ifndef TARNQ_BUILD
#error "TARNQ_BUILD must be set by the build"
#endif
#ifndef TARNQ_MODULE_PREFIX
#error "the client defines TARNQ_MODULE_PREFIX before including tarnq_client.h"
#endif

#define TARNQ_STR_(x) #x
#define TARNQ_STR(x) TARNQ_STR_(x)
#define TARNQ_MODULE_NAME TARNQ_MODULE_PREFIX "-" TARNQ_STR(TARNQ_BUILD)

/* The format this build writes: 1 for build 1000, 2 from build 2000 on. */
#define TARNQ_FORMAT (TARNQ_BUILD >= 2000 ? 2u : 1u)

HYK_MODULE_INFO(nsApi, HYK_MODINFO_NAMESPACE, "com.corvid.hykapi#v3_1_0_0");
HYK_MODULE_INFO(version, HYK_MODINFO_VERSION, "Version 0.0.0-0 RELEASEbuild-" TARNQ_STR(TARNQ_BUILD));
HYK_MODULE_INFO(buildType, HYK_MODINFO_BUILD_TYPE, "release");
HYK_MODULE_INFO(license, HYK_MODINFO_LICENSE, "Corvid Proprietary");

/* ---- parameters: the seed and the misbehaviour switches ------------------------------ */

#define TARNQ_PARAM __attribute__((visibility("default"))) constinit
HYK_EXTERN_C_BEGIN
/* Seed of every piece of state this client generates; both builds need the same. */
TARNQ_PARAM uint32_t seed = 1;
/* Callback slot (0-11, as in ClientInfo) that fails; -1: none. */
TARNQ_PARAM int32_t failSlot = -1;
/* Only on this port (0: any port). */
TARNQ_PARAM uint32_t failPort = 0;
/* Only the n-th call of that slot, counted from 1 (0: every call). */
TARNQ_PARAM uint32_t failNth = 0;
/* The status the failing callback returns. */
TARNQ_PARAM uint32_t failStatus = 0xbad0001u;
/* getSize reports this many bytes instead of the truth (-1: the truth). */
TARNQ_PARAM int32_t reportSize = -1;
/* getRuntimeState claims one byte more than it was given (1) or not (0). */
TARNQ_PARAM uint32_t overrun = 0;
/* Callback slot that is slow (-1: none), and how long it takes, in ms.  The
 * slow callback sleeps: on a slot lus calls under a spinlock the host stops. */
TARNQ_PARAM int32_t slowSlot = -1;
TARNQ_PARAM uint32_t slowMs = 0;
/* Only on this port (0: any port). */
TARNQ_PARAM uint32_t slowPort = 0;
/* The most the client's own heap may grow to, in MiB. */
TARNQ_PARAM uint32_t heapMaxMB = 512;
/*
 * The time a state callback takes on the host's clock: costUs for the call
 * plus costNsPerByte for every byte of state it saves or restores (sizing
 * handles none).  Without them every callback would take no time at all on
 * the virtual clock, where only what sleeps or waits moves time, and an
 * upgrade's outages would all read 0.
 *
 * The defaults model a datapath module that keeps its per-port state in
 * tables of small entries: 20 us a call to find the port's objects, take
 * and drop its locks and allocate a record (a few cache misses on a port
 * nobody touched for minutes, and a heap allocation), and 10 ns a byte
 * (about 100 MB/s) to convert its state entry by entry rather than copy it:
 * each entry is read, checked, given its new field and inserted into a
 * hashed table.  A port of a few KiB then costs its client tens of us per
 * callback, and the firewall's largest connection tables (tens of KiB)
 * about half a millisecond each way.  A client defines
 * TARNQ_DEFAULT_COST_US / TARNQ_DEFAULT_COST_NS_PER_BYTE before including
 * this file to model other work (the benchmark clients: none).
 */
#ifndef TARNQ_DEFAULT_COST_US
#define TARNQ_DEFAULT_COST_US 20u
#endif
#ifndef TARNQ_DEFAULT_COST_NS_PER_BYTE
#define TARNQ_DEFAULT_COST_NS_PER_BYTE 10u
#endif
TARNQ_PARAM uint32_t costUs = TARNQ_DEFAULT_COST_US;
TARNQ_PARAM uint32_t costNsPerByte = TARNQ_DEFAULT_COST_NS_PER_BYTE;
HYK_EXTERN_C_END

HYK_MODULE_PARAM(seed, HYK_PARAM_UINT, "seed of the generated state");
HYK_MODULE_PARAM(failSlot, HYK_PARAM_INT, "callback slot that fails (-1 none)");
HYK_MODULE_PARAM(failPort, HYK_PARAM_UINT, "port on which it fails (0 any)");
HYK_MODULE_PARAM(failNth, HYK_PARAM_UINT, "fail only the n-th call (0 every)");
HYK_MODULE_PARAM(failStatus, HYK_PARAM_UINT, "status of the failing callback");
HYK_MODULE_PARAM(reportSize, HYK_PARAM_INT, "size getSize reports (-1 the truth)");
HYK_MODULE_PARAM(overrun, HYK_PARAM_UINT, "getRuntimeState claims one byte too many");
HYK_MODULE_PARAM(slowSlot, HYK_PARAM_INT, "callback slot that is slow (-1 none)");
HYK_MODULE_PARAM(slowMs, HYK_PARAM_UINT, "how long the slow callback takes, ms");
HYK_MODULE_PARAM(slowPort, HYK_PARAM_UINT, "port on which it is slow (0 any)");
HYK_MODULE_PARAM(heapMaxMB, HYK_PARAM_UINT, "most the client's heap may grow to, MiB");
HYK_MODULE_PARAM(costUs, HYK_PARAM_UINT, "time of each state callback, us");
HYK_MODULE_PARAM(costNsPerByte, HYK_PARAM_UINT, "time per byte of state handled, ns");

/* ---- small helpers (no C library) ------------------------------------------------------ */

static inline void tarnqCopy(void *dst, const void *src, uint32_t n)
{
   __builtin_memcpy(dst, src, n);
}

static inline uint32_t tarnqStrLen(const char *s, uint32_t max)
{
   uint32_t n = 0;
   while (n < max && s[n] != '\0') {
      n++;
   }
   return n;
}

static inline bool tarnqStrEq(const char *a, const char *b, uint32_t max)
{
   for (uint32_t i = 0; i < max; i++) {
      if (a[i] != b[i]) {
         return false;
      }
      if (a[i] == '\0') {
         return true;
      }
   }
   return true;
}

/* splitmix64: a small, well-mixed generator; the same seed gives the same state. */
struct TarnqRng {
   uint64_t s;
   uint64_t Next()
   {
      uint64_t z = (s += 0x9e3779b97f4a7c15ull);
      z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
      z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
      return z ^ (z >> 31);
   }
   uint32_t Below(uint32_t n) { return n == 0 ? 0 : (uint32_t)(Next() % n); }
};

static inline uint64_t tarnqMix(uint64_t h, uint64_t v)
{
   TarnqRng r = {h ^ (v * 0x100000001b3ull)};
   return r.Next();
}

static inline uint64_t tarnqMixString(uint64_t h, const char *s, uint32_t max)
{
   for (uint32_t i = 0; i < max && s[i] != '\0'; i++) {
      h = tarnqMix(h, (uint8_t)s[i]);
   }
   return h;
}

/* ---- state kinds and their codecs ----------------------------------------------------------- */

enum TarnqKind : uint32_t { TARNQ_KIND_PORT = 1, TARNQ_KIND_PORTSET = 2, TARNQ_KIND_GLOBAL = 3 };

/*
 * How one kind of state of one client is laid out: its magic, the size of
 * an entry in each format, how many entries a scope has, how entry i is
 * written in a format, and how a format-1 entry becomes a format-2 one.
 */
struct TarnqCodec {
   uint32_t magic;
   uint32_t entrySize[3]; /* by format: [1], [2] */
   uint32_t (*count)(TarnqRng scope);
   void (*put)(uint32_t format, TarnqRng &entry, uint8_t *dst);
   void (*upgrade)(const uint8_t *v1, uint8_t *v2);
};

#define TARNQ_HEADER_V1 8u
#define TARNQ_HEADER_V2 16u

static inline uint32_t tarnqHeaderSize(uint32_t format)
{
   return format == 1 ? TARNQ_HEADER_V1 : TARNQ_HEADER_V2;
}

/* The generator of a scope: seed, client, kind, and the scope's own key. */
static inline TarnqRng tarnqScopeRng(const char *client, uint32_t kind, uint64_t scopeKey)
{
   uint64_t h = tarnqMix(0x7a72717473ull, seed);
   h = tarnqMixString(h, client, 32);
   h = tarnqMix(h, kind);
   h = tarnqMix(h, scopeKey);
   TarnqRng r = {h};
   return r;
}

static inline uint32_t tarnqBlobSize(const TarnqCodec &c, uint32_t format, uint32_t count)
{
   return tarnqHeaderSize(format) + count * c.entrySize[format];
}

/* Writes the whole blob of a scope in `format`; `dst` holds tarnqBlobSize bytes. */
static inline void tarnqWriteBlob(const TarnqCodec &c, uint32_t format, TarnqRng scope,
                                  uint32_t count, uint8_t *dst)
{
   if (format == 1) {
      uint16_t version = 1, n = (uint16_t)count;
      tarnqCopy(dst, &c.magic, 4);
      tarnqCopy(dst + 4, &version, 2);
      tarnqCopy(dst + 6, &n, 2);
   } else {
      uint32_t hdr[4] = {c.magic, format, count, c.entrySize[format]};
      tarnqCopy(dst, hdr, sizeof(hdr));
   }
   uint8_t *p = dst + tarnqHeaderSize(format);
   for (uint32_t i = 0; i < count; i++) {
      TarnqRng entry = {tarnqMix(scope.s, i)};
      c.put(format, entry, p);
      p += c.entrySize[format];
   }
}

/*
 * Reads a blob's format and count; false when it is not one of ours in a
 * format this build reads (then nothing of it can be trusted).
 */
static inline bool tarnqReadHeader(const TarnqCodec &c, const uint8_t *blob, uint32_t len,
                                   uint32_t *format, uint32_t *count)
{
   uint32_t magic = 0;
   if (len < TARNQ_HEADER_V1) {
      return false;
   }
   tarnqCopy(&magic, blob, 4);
   if (magic != c.magic) {
      return false;
   }
   uint16_t v1 = 0;
   tarnqCopy(&v1, blob + 4, 2);
   if (v1 == 1) {
      uint16_t n = 0;
      tarnqCopy(&n, blob + 6, 2);
      *format = 1;
      *count = n;
   } else {
      uint32_t hdr[4];
      if (len < TARNQ_HEADER_V2) {
         return false;
      }
      tarnqCopy(hdr, blob, sizeof(hdr));
      if (hdr[1] != 2 || hdr[3] != c.entrySize[2]) {
         return false;
      }
      *format = 2;
      *count = hdr[2];
   }
   /* Newer than this build, or a length that does not match the count. */
   return *format <= TARNQ_FORMAT && tarnqBlobSize(c, *format, *count) == len;
}

/* ---- the client's own heap, lock and log ----------------------------------------------------- */

struct TarnqSelf {
   hyk_ModuleID id;
   hyk_HeapID heap;
   hyk_LogHandle log;
   hyk_LockDomainID domain;
   hyk_SpinlockID lock;
   hyk_NetEventHandle regSub;
   hyk_NetEventHandle takeoverSub;
   hyk_NetEventHandle enableSub;
   hyk_NetEventHandle swSub[2];
   ClientEntry *handle;            /* from lus, while registered */
   LusGetRestoreStateFn pull;      /* handed over by a type-4 registration */
   uint32_t calls[12];             /* per slot, for failNth */
};
static constinit TarnqSelf tarnq = {};

#define TARNQ_LOG(level, fmt, ...)                                                        \
   do {                                                                                    \
      if (tarnq.log != 0) {                                                               \
         hyk_LogLevel(HYK_LOG_URGENCY_NORMAL, tarnq.log, (level), TARNQ_MODULE_NAME ": " fmt, \
                      ##__VA_ARGS__);                                                     \
      }                                                                                    \
   } while (0)

static inline void *tarnqAlloc(uint32_t size)
{
   return hyk_HeapAlloc(tarnq.heap, size);
}

static inline void tarnqFree(void *p)
{
   if (p != nullptr) {
      hyk_HeapFree(tarnq.heap, p);
   }
}

/* ---- misbehaviour ----------------------------------------------------------------------------- */

/*
 * Called first thing in every callback: counts the call, sleeps if this is
 * the slow slot, and answers the status it must fail with (HYK_OK: behave).
 */
static inline hyk_Status tarnqMisbehave(uint32_t slot, uint32_t portID)
{
   uint32_t n = __atomic_add_fetch(&tarnq.calls[slot], 1u, __ATOMIC_RELAXED);
   if (slowSlot == (int32_t)slot && slowMs != 0 && (slowPort == 0 || slowPort == portID)) {
      hyk_WorldSleep((uint64_t)slowMs * 1000u);
   }
   if (failSlot != (int32_t)slot) {
      return HYK_OK;
   }
   if (failPort != 0 && failPort != portID) {
      return HYK_OK;
   }
   if (failNth != 0 && failNth != n) {
      return HYK_OK;
   }
   return failStatus;
}

/*
 * Lets the modelled time of a state callback pass: costUs, plus
 * costNsPerByte for each of `bytes` bytes (rounded down to the us).  A
 * busy-wait, never a sleep: lus calls some of these callbacks with a
 * spinlock held (the upgrade world's pass, a pulled restore).
 */
static inline void tarnqSpend(uint64_t bytes)
{
   const uint64_t us = costUs + bytes * costNsPerByte / 1000u;
   if (us != 0) {
      hyk_TimerDelayUS(us);
   }
}

/* ---- per-port state the client keeps --------------------------------------------------------- */

/*
 * One port's state as this build holds it, in its own format: generated when
 * the old build is first asked about the port, converted from what the old
 * build handed over when the new build gets it back.
 */
struct TarnqPortState {
   TarnqPortState *next;
   uint32_t portID;
   uint32_t len;
   uint8_t data[];
};

/* One bucket per port up to 16,384 ports: a restore adds ports one by one
 * under tarnq.lock, and chains of cold blobs' headers would make each add
 * cost a cache miss per port already there. */
#define TARNQ_PORT_BUCKET_BITS 14u
#define TARNQ_PORT_BUCKETS (1u << TARNQ_PORT_BUCKET_BITS)
static constinit TarnqPortState *tarnqPorts[TARNQ_PORT_BUCKETS] = {};

static inline TarnqPortState **tarnqBucket(uint32_t portID)
{
   return &tarnqPorts[(portID * 2654435761u) >> (32u - TARNQ_PORT_BUCKET_BITS)];
}

/* The port's state; the caller holds tarnq.lock. */
static inline TarnqPortState *tarnqFindPort(uint32_t portID)
{
   for (TarnqPortState *p = *tarnqBucket(portID); p != nullptr; p = p->next) {
      if (p->portID == portID) {
         return p;
      }
   }
   return nullptr;
}

/* Stores (replacing) a port's state; the caller holds tarnq.lock. */
static inline void tarnqPutPort(TarnqPortState *state)
{
   TarnqPortState **link = tarnqBucket(state->portID);
   for (TarnqPortState **pp = link; *pp != nullptr; pp = &(*pp)->next) {
      if ((*pp)->portID == state->portID) {
         TarnqPortState *old = *pp;
         state->next = old->next;
         *pp = state;
         tarnqFree(old);
         return;
      }
   }
   state->next = *link;
   *link = state;
}

static inline void tarnqFreeAllPorts(void)
{
   for (uint32_t b = 0; b < TARNQ_PORT_BUCKETS; b++) {
      while (tarnqPorts[b] != nullptr) {
         TarnqPortState *p = tarnqPorts[b];
         tarnqPorts[b] = p->next;
         tarnqFree(p);
      }
   }
}

/*
 * The scope key of a port: its ID, which the port keeps across an upgrade.
 * Nothing the host may fail to answer goes into it: a failed host call
 * must not change what a port's state is, or the new build would find a
 * mismatch that no byte lus moved explains.
 */
static inline uint64_t tarnqPortKey(uint32_t portID)
{
   return tarnqMix(0x706f7274ull, portID);
}

#endif /* TARNQ_CLIENT_H */
