/*
 * acme_qos.cpp -- a QoS shaper that keeps its state across a live upgrade:
 * a datapath client of lus, small enough to copy and make your own.
 *
 * The shaper keeps one token bucket per vNIC port.  When the host's
 * datapath is upgraded, lus has the old build hand every bucket over and
 * gives it to the new build, which must read what the old build wrote.
 *
 * One source, two builds.  lus_add_module defines LUS_MODULE_BUILD (1000 or
 * 2000 here) and names the module file acme-qos-<build>.so.  Only the state
 * layout differs between the builds:
 *
 *   format 1 (build 1000): header, rate, burst, tokens, drops         32 bytes
 *   format 2 (build 2000): format 1, then a ceiling rate and a priority 40 bytes
 *
 * Build 2000 reads format 1 and converts it, giving the new fields their
 * defaults.  A blob it cannot read (not ours, a format newer than itself, a
 * length that does not match its format) is refused with
 * HYK_VERSION_MISMATCH: bytes we cannot read are never guessed at.
 *
 * How the buckets travel (docs/WRITING_A_CLIENT.md, section 4):
 *   - classic upgrade: port by port, through getSize, getRuntimeState and
 *     runtimeRestore;
 *   - per-portset upgrade: the upgrade world does not save a port-phase
 *     client's per-port state, so the buckets of the portset's ports go in
 *     the portset's own state (slots 9 to 11), each record in the same
 *     per-port format.
 *
 * Kernel discipline: no exceptions, no C++ runtime, no C library, memory
 * only from the module's own heap.  lus_add_module compiles and links it
 * so, and checks as it links that the module calls nothing but the host.
 *
 * The simulator's ledger (hyksim/ledger.h) counts the bytes the shaper
 * saves, restores, verifies, converts, finds mismatched or refuses, so that
 * a scenario can check an upgrade to the byte.  Only the simulated host has
 * it: LEDGER in lus_add_module defines LUS_SIMULATOR_LEDGER, and a build for
 * a real host leaves it out (and with it every ledger call).
 */
#include <stddef.h>
#include <stdint.h>

#include "hyk/hyk.h"
#include "lus.h"
#ifdef LUS_SIMULATOR_LEDGER
#include "hyksim/ledger.h"
#endif

#ifndef LUS_MODULE_BUILD
#error "LUS_MODULE_BUILD is defined by lus_add_module"
#endif

#define ACME_STR_(x) #x
#define ACME_STR(x) ACME_STR_(x)
/* The name lus knows the client by: the same in every build. */
#define ACME_CLIENT_NAME "acme-qos"
/* The module's own name, for its heap, log and locks: two builds are loaded at once. */
#define ACME_MODULE_NAME ACME_CLIENT_NAME "-" ACME_STR(LUS_MODULE_BUILD)
/* The format this build writes.  It reads this one and every older one. */
#define ACME_FORMAT (LUS_MODULE_BUILD >= 2000 ? 2 : 1)

/* ---- what the host reads from the module file ------------------------------------------------ */

/* The interface the module is built against; the host refuses a module that declares none. */
HYK_MODULE_NAMESPACE(api, HYK_NAMESPACE_API);
HYK_MODULE_VERSION("acme-qos 1.0 build " ACME_STR(LUS_MODULE_BUILD));
HYK_MODULE_BUILD_TYPE("release");
HYK_MODULE_LICENSE("Acme internal");

/*
 * A module parameter is a global that the host sets, by its symbol name,
 * before init_module: C linkage, default visibility, and a record that
 * gives its type.  A scenario sets it with `load client acme-qos build=1000
 * heapMaxKB=256`, lusctl for the new build with `--module-param
 * acme-qos:heapMaxKB=256`.  The host refuses a parameter a module does not
 * declare: give a sample client's `seed` to that client alone.
 */
HYK_EXTERN_C_BEGIN
__attribute__((visibility("default"))) uint32_t heapMaxKB = 4096;
HYK_EXTERN_C_END
HYK_MODULE_PARAM(heapMaxKB, HYK_PARAM_UINT, "most the shaper's heap may grow to, KiB");

/* ---- the ledger: counted on the simulated host, compiled out everywhere else ----------------- */

#ifdef LUS_SIMULATOR_LEDGER
#define ACME_LEDGER_PORT(kind, portID, bytes)                                                   \
   hyksim_LedgerPort(ACME_CLIENT_NAME, LUS_MODULE_BUILD, HYKSIM_LEDGER_##kind, (portID), (bytes))
#define ACME_LEDGER_PORTSET(kind, psName, bytes)                                                \
   hyksim_LedgerShared(ACME_CLIENT_NAME, LUS_MODULE_BUILD, HYKSIM_LEDGER_##kind, (psName), (bytes))
#else
#define ACME_LEDGER_PORT(kind, portID, bytes) ((void)0)
#define ACME_LEDGER_PORTSET(kind, psName, bytes) ((void)0)
#endif

/* ---- the state formats ----------------------------------------------------------------------- */

/*
 * Every record starts with a header that says what it is.  Records are read
 * and written with memcpy, never through a cast of lus's buffer, which
 * promises no alignment.
 */
#define ACME_PORT_MAGIC 0x534f5141u /* "AQOS" */

struct AcmeHeader {
   uint32_t magic;
   uint16_t version; /* the format */
   uint16_t length;  /* of the whole record, header included */
};

/* Format 1, written by build 1000. */
struct AcmePortV1 {
   AcmeHeader hdr;
   uint32_t rateKbps;   /* the committed rate */
   uint32_t burstBytes; /* the bucket's depth */
   uint64_t tokens;     /* bytes in the bucket */
   uint64_t drops;      /* packets dropped for want of tokens */
};
static_assert(sizeof(AcmePortV1) == 32, "format 1 has no padding and never changes");

/* Format 2, written by build 2000: borrowing up to a ceiling, and a priority. */
struct AcmePortV2 {
   AcmeHeader hdr;
   uint32_t rateKbps;
   uint32_t burstBytes;
   uint64_t tokens;
   uint64_t drops;
   uint32_t ceilKbps; /* new; from format 1: the committed rate (no borrowing) */
   uint32_t priority; /* new, 0 to 7; from format 1: ACME_DEFAULT_PRIORITY */
};
static_assert(sizeof(AcmePortV2) == 40, "format 2 has no padding and never changes");
#define ACME_DEFAULT_PRIORITY 4u

/* A port's bucket as this build keeps it, and writes it. */
#if ACME_FORMAT == 1
typedef AcmePortV1 AcmePort;
#else
typedef AcmePortV2 AcmePort;
#endif

/*
 * The bucket the datapath sets a port up with when the port connects.  A
 * real shaper takes it from its configuration; this one makes it from the
 * port's ID alone, which a port keeps across an upgrade, so that the new
 * build can recompute what the old build held and check every byte it got.
 */
static uint64_t acmeMix(uint64_t x)
{
   x += 0x9e3779b97f4a7c15ull; /* splitmix64 */
   x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
   x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
   return x ^ (x >> 31);
}

static AcmePortV1 acmeInitialV1(uint32_t portID)
{
   const uint64_t h = acmeMix(portID);
   AcmePortV1 v1 = {};
   v1.hdr = {ACME_PORT_MAGIC, 1, sizeof(AcmePortV1)};
   v1.rateKbps = 1000u * (1u + (uint32_t)(h % 100u)); /* 1 to 100 Mbit/s */
   v1.burstBytes = v1.rateKbps * 16u;                  /* 128 ms at that rate */
   v1.tokens = (h >> 8) % v1.burstBytes;
   v1.drops = (h >> 32) % 100000u;
   return v1;
}

#if ACME_FORMAT >= 2
/* Format 1 to format 2: every field it has, and the new ones' defaults. */
static AcmePortV2 acmeFromV1(const AcmePortV1 &v1)
{
   AcmePortV2 v2 = {};
   v2.hdr = {ACME_PORT_MAGIC, 2, sizeof(AcmePortV2)};
   v2.rateKbps = v1.rateKbps;
   v2.burstBytes = v1.burstBytes;
   v2.tokens = v1.tokens;
   v2.drops = v1.drops;
   v2.ceilKbps = v1.rateKbps;
   v2.priority = ACME_DEFAULT_PRIORITY;
   return v2;
}
#endif

static AcmePort acmeInitial(uint32_t portID)
{
#if ACME_FORMAT == 1
   return acmeInitialV1(portID);
#else
   return acmeFromV1(acmeInitialV1(portID));
#endif
}

/*
 * Reads one port's record, as an older (or this) build wrote it, into this
 * build's format.  HYK_VERSION_MISMATCH for a record that is not ours, of a
 * format newer than this build, or whose length is not its format's.
 * *same: the record is what the old build held; *converted: it came in an
 * older format.
 */
static hyk_Status acmeRead(const uint8_t *blob, uint32_t len, uint32_t portID, AcmePort *out,
                           bool *same, bool *converted)
{
   AcmeHeader hdr;
   if (len < sizeof(hdr)) {
      return HYK_VERSION_MISMATCH;
   }
   __builtin_memcpy(&hdr, blob, sizeof(hdr));
   if (hdr.magic != ACME_PORT_MAGIC || hdr.length != len) {
      return HYK_VERSION_MISMATCH;
   }
   if (hdr.version == 1 && len == sizeof(AcmePortV1)) {
      AcmePortV1 v1, held = acmeInitialV1(portID);
      __builtin_memcpy(&v1, blob, sizeof(v1));
      *same = __builtin_memcmp(&v1, &held, sizeof(v1)) == 0;
#if ACME_FORMAT == 1
      *out = v1;
      *converted = false;
#else
      *out = acmeFromV1(v1);
      *converted = true;
#endif
      return HYK_OK;
   }
#if ACME_FORMAT >= 2
   if (hdr.version == 2 && len == sizeof(AcmePortV2)) {
      AcmePortV2 held = acmeInitial(portID);
      __builtin_memcpy(out, blob, sizeof(*out));
      *same = __builtin_memcmp(out, &held, sizeof(held)) == 0;
      *converted = false;
      return HYK_OK;
   }
#endif
   return HYK_VERSION_MISMATCH;
}

/* ---- the module's own state ------------------------------------------------------------------ */

struct AcmeEntry {
   AcmeEntry *next;
   uint32_t portID;
   AcmePort bucket;
};

#define ACME_BUCKET_BITS 8u

static struct {
   hyk_ModuleID id;
   hyk_HeapID heap;
   hyk_LogHandle log;
   hyk_LockDomainID domain;
   hyk_SpinlockID lock;         /* guards ports[]; a spinlock, as lus calls us under its own */
   hyk_NetEventHandle regSub;   /* lus's registration event */
   ClientEntry *handle;         /* lus's handle while we are registered */
   uint8_t *psBlob;             /* portset state handed to lus, ours until its completion */
   AcmeEntry *ports[1u << ACME_BUCKET_BITS];
} acme;

#define ACME_LOG(level, fmt, ...)                                                                \
   hyk_LogLevel(HYK_LOG_URGENCY_NORMAL, acme.log, (level), ACME_MODULE_NAME ": " fmt, ##__VA_ARGS__)

/*
 * The port's entry, made on first use; the caller holds acme.lock.  The old
 * build has had it since the port connected; the template makes it when it
 * is first asked.  Null when the heap is full.
 */
static AcmeEntry *acmeEntryOf(uint32_t portID)
{
   AcmeEntry **chain = &acme.ports[(portID * 2654435761u) >> (32u - ACME_BUCKET_BITS)];
   for (AcmeEntry *e = *chain; e != nullptr; e = e->next) {
      if (e->portID == portID) {
         return e;
      }
   }
   /* The host's heaps never sleep, so this is safe under a spinlock. */
   AcmeEntry *e = static_cast<AcmeEntry *>(hyk_HeapAlloc(acme.heap, sizeof(AcmeEntry)));
   if (e != nullptr) {
      e->portID = portID;
      e->bucket = acmeInitial(portID);
      e->next = *chain;
      *chain = e;
   }
   return e;
}

static hyk_Status acmeLookup(uint32_t portID, AcmePort *out)
{
   hyk_SpinlockLock(acme.lock);
   AcmeEntry *e = acmeEntryOf(portID);
   if (e != nullptr) {
      *out = e->bucket;
   }
   hyk_SpinlockUnlock(acme.lock);
   return e != nullptr ? HYK_OK : HYK_NO_MEMORY;
}

static hyk_Status acmeInstall(uint32_t portID, const AcmePort &bucket)
{
   hyk_SpinlockLock(acme.lock);
   AcmeEntry *e = acmeEntryOf(portID);
   if (e != nullptr) {
      e->bucket = bucket;
   }
   hyk_SpinlockUnlock(acme.lock);
   return e != nullptr ? HYK_OK : HYK_NO_MEMORY;
}

/* ---- per-port state: slots 1 to 3 ------------------------------------------------------------ */

/*
 * In the classic upgrade lus calls these on its command thread (the old
 * build) and on the host's event threads, several ports at once (the new
 * build).  They must not sleep all the same: lus calls the same slots under
 * its spinlock elsewhere (section 2 of the guide).
 */
static hyk_Status acmeGetSize(void *record, uint32_t portID, uint64_t *stateLen, uint64_t *ctx)
{
   *stateLen = sizeof(AcmePort);
   return HYK_OK;
}

static hyk_Status acmeGetRuntimeState(void *record, uint32_t portID, void *buffer, uint32_t length,
                                      uint32_t *stateLen, uint64_t *ctx)
{
   AcmePort bucket;
   hyk_Status status = acmeLookup(portID, &bucket);
   if (status != HYK_OK) {
      return status;
   }
   /* lus gives exactly what getSize announced; never write past what it gave. */
   if (length < sizeof(bucket)) {
      return HYK_BAD_PARAM;
   }
   __builtin_memcpy(buffer, &bucket, sizeof(bucket));
   *stateLen = sizeof(bucket);
   ACME_LEDGER_PORT(SAVED, portID, sizeof(bucket));
   return HYK_OK;
}

static hyk_Status acmeRuntimeRestore(void *record, uint32_t portID, void *buffer, uint32_t length,
                                     uint32_t flags)
{
   AcmePort bucket;
   bool same = false, converted = false;
   hyk_Status status = acmeRead(static_cast<const uint8_t *>(buffer), length, portID, &bucket,
                                &same, &converted);
   if (status != HYK_OK) {
      ACME_LEDGER_PORT(RESTORED, portID, length);
      ACME_LEDGER_PORT(REFUSED, portID, length);
      ACME_LOG(1, "refused the state of port %u: %u bytes in no format this build reads\n", portID,
               length);
      return status;
   }
   /* lus frees its buffer when we return: keep a copy of our own. */
   status = acmeInstall(portID, bucket);
   if (status != HYK_OK) {
      return status; /* not taken: lus keeps the state, and the ledger does not count it */
   }
   ACME_LEDGER_PORT(RESTORED, portID, length);
   if (same) {
      ACME_LEDGER_PORT(VERIFIED, portID, length);
   } else {
      ACME_LEDGER_PORT(MISMATCHED, portID, length);
   }
   if (converted) {
      ACME_LEDGER_PORT(CONVERTED, portID, length);
   }
   return HYK_OK;
}

/* ---- portset state: slots 9 to 11 ------------------------------------------------------------ */

/*
 * The per-portset upgrade carries the buckets of a portset's ports here.
 * The blob is a header and one entry per vNIC port (the ports the classic
 * upgrade enrols too):
 *
 *   u32 magic "AQPS", u32 count, then count x { u32 portID, the port's record }
 *
 * each record in the writer's per-port format, with its own header.  The
 * upgrade world calls the save and the restore under lus's spinlock, and the
 * completion too when the world fails: nothing here may sleep.
 */
#define ACME_PS_MAGIC 0x53505141u /* "AQPS" */
#define ACME_PS_HEADER 8u
#define ACME_PS_ENTRY (4u + (uint32_t)sizeof(AcmePort))

struct AcmePsWalk {
   uint8_t *blob; /* null: only count */
   uint32_t room;
   uint32_t count;
};

static hyk_Status acmePsVisit(hyk_Portset *ps, hyk_PortID portID, void *data)
{
   AcmePsWalk *walk = static_cast<AcmePsWalk *>(data);
   uint32_t type = 0;
   if (hyk_PortGetClientType(portID, &type) != HYK_OK || type != HYK_PORT_CLIENT_VNIC) {
      return HYK_OK;
   }
   if (walk->blob != nullptr) {
      AcmePort bucket;
      if (walk->count == walk->room) {
         return HYK_LIMIT_EXCEEDED; /* the portset grew between the walks */
      }
      hyk_Status status = acmeLookup(portID, &bucket);
      if (status != HYK_OK) {
         return status;
      }
      uint8_t *entry = walk->blob + ACME_PS_HEADER + walk->count * ACME_PS_ENTRY;
      __builtin_memcpy(entry, &portID, 4);
      __builtin_memcpy(entry + 4, &bucket, sizeof(bucket));
   }
   walk->count++;
   return HYK_OK;
}

static hyk_Status acmePsSave(ClientEntry *from, hyk_Portset *ps, void **buffer, uint32_t *length,
                             uint64_t *ctx)
{
   /* A blob still held is from an attempt lus gave up on without telling us. */
   hyk_HeapFree(acme.heap, acme.psBlob);
   acme.psBlob = nullptr;
   *buffer = nullptr;
   *length = 0;

   AcmePsWalk walk = {nullptr, 0, 0};
   hyk_Status status = hyk_PortsetForAllPorts(ps, acmePsVisit, &walk);
   if (status != HYK_OK || walk.count == 0) {
      return status; /* nothing to hand over: lus neither restores nor completes it */
   }
   const uint32_t len = ACME_PS_HEADER + walk.count * ACME_PS_ENTRY;
   uint8_t *blob = static_cast<uint8_t *>(hyk_HeapAlloc(acme.heap, len));
   if (blob == nullptr) {
      return HYK_NO_MEMORY;
   }
   walk = {blob, walk.count, 0};
   status = hyk_PortsetForAllPorts(ps, acmePsVisit, &walk);
   if (status == HYK_OK && walk.count != walk.room) {
      status = HYK_LIMIT_EXCEEDED; /* the portset shrank between the walks */
   }
   if (status != HYK_OK) {
      hyk_HeapFree(acme.heap, blob);
      return status;
   }
   const uint32_t hdr[2] = {ACME_PS_MAGIC, walk.count};
   __builtin_memcpy(blob, hdr, sizeof(hdr));
   acme.psBlob = blob;
   *buffer = blob;
   *length = len;
   ACME_LEDGER_PORTSET(SAVED, hyk_PortsetName(ps), len);
   return HYK_OK;
}

/*
 * Reads the entries of a portset blob: with `install` false only checks
 * that every record is one this build reads (and says whether each is what
 * the old build held, and whether any was converted); with `install` true
 * keeps them.  A blob with a single record we cannot read is refused whole,
 * before anything of it is installed.
 */
static hyk_Status acmePsEntries(const uint8_t *blob, uint32_t len, bool install, bool *same,
                                bool *converted)
{
   uint32_t hdr[2];
   if (len < ACME_PS_HEADER) {
      return HYK_VERSION_MISMATCH;
   }
   __builtin_memcpy(hdr, blob, sizeof(hdr));
   if (hdr[0] != ACME_PS_MAGIC) {
      return HYK_VERSION_MISMATCH;
   }
   uint32_t at = ACME_PS_HEADER;
   for (uint32_t i = 0; i < hdr[1]; i++) {
      uint32_t portID;
      AcmeHeader rec;
      AcmePort bucket;
      bool recSame = false, recConverted = false;
      if (len - at < 4 + sizeof(rec)) {
         return HYK_VERSION_MISMATCH;
      }
      __builtin_memcpy(&portID, blob + at, 4);
      __builtin_memcpy(&rec, blob + at + 4, sizeof(rec));
      if (rec.length > len - at - 4) {
         return HYK_VERSION_MISMATCH;
      }
      hyk_Status status = acmeRead(blob + at + 4, rec.length, portID, &bucket, &recSame,
                                   &recConverted);
      if (status == HYK_OK && install) {
         status = acmeInstall(portID, bucket);
      }
      if (status != HYK_OK) {
         return status;
      }
      *same = *same && recSame;
      *converted = *converted || recConverted;
      at += 4 + rec.length;
   }
   return at == len ? HYK_OK : HYK_VERSION_MISMATCH;
}

static hyk_Status acmePsRestore(ClientEntry *to, hyk_Portset *ps, void *buffer, uint32_t length)
{
   const uint8_t *blob = static_cast<const uint8_t *>(buffer);
   const char *psName = hyk_PortsetName(ps);
   bool same = true, converted = false;
   hyk_Status status = acmePsEntries(blob, length, false, &same, &converted);
   if (status != HYK_OK) {
      ACME_LEDGER_PORTSET(RESTORED, psName, length);
      ACME_LEDGER_PORTSET(REFUSED, psName, length);
      ACME_LOG(1, "refused the state of portset %s: %u bytes in no format this build reads\n",
               psName, length);
      return status;
   }
   status = acmePsEntries(blob, length, true, &same, &converted);
   if (status != HYK_OK) {
      return status; /* the heap is full: lus reports the portset's restore as failed */
   }
   ACME_LEDGER_PORTSET(RESTORED, psName, length);
   if (same) {
      ACME_LEDGER_PORTSET(VERIFIED, psName, length);
   } else {
      ACME_LEDGER_PORTSET(MISMATCHED, psName, length);
   }
   if (converted) {
      ACME_LEDGER_PORTSET(CONVERTED, psName, length);
   }
   return HYK_OK;
}

/*
 * The old build's blob is done with, whatever the result.  lus upgrades one
 * portset at a time and, after a success, calls this once it has let the
 * portset go (ps is then null): the blob we hold is the one this is about.
 */
static hyk_Status acmePsComplete(ClientEntry *from, hyk_Portset *ps, uint32_t result, uint64_t *ctx)
{
   hyk_HeapFree(acme.heap, acme.psBlob);
   acme.psBlob = nullptr;
   return HYK_OK;
}

/* ---- registration with lus ------------------------------------------------------------------- */

/*
 * Exactly the slots the shaper needs; lus skips a null slot.  The classic
 * upgrade registers the basic descriptor (slots 0 to 4) and ignores the
 * rest; the per-portset upgrade takes all twelve and upgradePhase.
 *
 * upgradePhase PORT: the upgrade world leaves a port-phase client's
 * per-port state alone (the buckets go in the portset state instead).  It
 * would save a portset-phase client's per-port state into a map it never
 * restores from, and drop it.
 */
static ClientInfo acmeInfo(void)
{
   ClientInfo info = {};
   info.ops.getSize = acmeGetSize;
   info.ops.getRuntimeState = acmeGetRuntimeState;
   info.ops.runtimeRestore = acmeRuntimeRestore;
   info.ops.psRuntimeSave = acmePsSave;
   info.ops.psRuntimeRestore = acmePsRestore;
   info.ops.psRuntimeComplete = acmePsComplete;
   info.upgradePhase = LUS_PHASE_PORT;
   return info;
}

/*
 * lus's registration event, delivered on the thread that posts it.  Both
 * builds are loaded during an upgrade and both hear every event: each
 * registers only for its own build.
 */
static hyk_Status acmeOnRegistration(hyk_Portset *ps, const char *event, void *data, uint32_t len,
                                     void *cbData)
{
   LUSEventOps ops;
   if (data == nullptr || len < sizeof(ops)) {
      return HYK_BAD_PARAM;
   }
   __builtin_memcpy(&ops, data, sizeof(ops)); /* the payload is lus's: copy it, then read */

   if (ops.unregister == 0) {
      if (ops.buildNumber != LUS_MODULE_BUILD || acme.handle != nullptr) {
         return HYK_OK;
      }
      ClientInfo info = acmeInfo(); /* lus copies it */
      char name[LUS_CLIENT_NAME_LEN] = ACME_CLIENT_NAME;
      ClientEntry *handle = nullptr;
      hyk_Status status = ops.registerFn.reg(acme.id, name, &info, &handle);
      if (status != HYK_OK) {
         ACME_LOG(1, "registration with lus failed: %s\n", hyk_StatusToString(status));
         return status;
      }
      acme.handle = handle;
      /* ops.getRestoreStateFn is for a client that pulls its per-port state; we do not. */
      return HYK_OK;
   }
   /* lus does not renew buildNumber for an unregistration: the handle says it all. */
   if (acme.handle == nullptr) {
      return HYK_OK;
   }
   hyk_Status status = ops.registerFn.unreg(acme.handle);
   acme.handle = nullptr;
   return status;
}

/* ---- load and unload ------------------------------------------------------------------------- */

static void acmeFreePorts(void)
{
   for (uint32_t b = 0; b < (1u << ACME_BUCKET_BITS); b++) {
      while (acme.ports[b] != nullptr) {
         AcmeEntry *e = acme.ports[b];
         acme.ports[b] = e->next;
         hyk_HeapFree(acme.heap, e);
      }
   }
}

/* The host calls it once, as the module is loaded; non-zero refuses the load. */
HYK_MODULE_ENTRY int init_module(void)
{
   const uint32_t maxBytes = heapMaxKB >= (1u << 22) ? 0xffffffffu : heapMaxKB * 1024u;
   hyk_HeapProps heap = {ACME_MODULE_NAME, hyk_ModuleCurrentID(), 0, maxBytes};
   hyk_LogProps log = {ACME_MODULE_NAME, 3, 0, HYK_LOG_THROTTLE_NONE};

   acme.id = heap.owner;
   heap.initialSize = maxBytes < 16384u ? maxBytes : 16384u;
   if (hyk_HeapCreate(&heap, &acme.heap) != HYK_OK) {
      return -1;
   }
   log.heap = acme.heap;
   if (hyk_LogRegister(&log, &acme.log) != HYK_OK) {
      goto destroyHeap;
   }
   if (hyk_LockDomainCreate(ACME_MODULE_NAME, acme.id, acme.heap, &acme.domain) != HYK_OK) {
      goto unregisterLog;
   }
   if (hyk_SpinlockCreate(ACME_MODULE_NAME, acme.domain, 1, &acme.lock) != HYK_OK) {
      goto destroyDomain;
   }
   /* Last: from here on lus may call us. */
   if (hyk_NetEventPortsetEventSubscribe(0, LUS_CLIENT_EVENT, acmeOnRegistration, nullptr,
                                         &acme.regSub) != HYK_OK) {
      goto destroyLock;
   }
   ACME_LOG(3, "loaded, writing state format %u\n", (unsigned)ACME_FORMAT);
   return 0;

destroyLock:
   hyk_SpinlockDestroy(acme.lock);
destroyDomain:
   hyk_LockDomainDestroy(acme.domain);
unregisterLog:
   hyk_LogUnregister(acme.log);
destroyHeap:
   hyk_HeapDestroy(acme.heap);
   return -1;
}

/*
 * The host calls it as the module is unloaded, the mirror of init_module.
 * lus pins the module while it is registered, so it is unregistered by now.
 */
HYK_MODULE_ENTRY void cleanup_module(void)
{
   hyk_NetEventPortsetEventUnsubscribe(acme.regSub);
   hyk_HeapFree(acme.heap, acme.psBlob);
   acmeFreePorts();
   hyk_SpinlockDestroy(acme.lock);
   hyk_LockDomainDestroy(acme.domain);
   hyk_LogUnregister(acme.log);
   hyk_HeapDestroy(acme.heap);
}
