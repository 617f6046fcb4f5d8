/*
 * tarnq_client_impl.h -- the body every sample client shares: its callbacks,
 * its answer to lus's registration event, and its load and unload.  Included
 * once, at the end of a client's source, after the client has said what it
 * is:
 *
 *   TARNQ_CLIENT_NAME      the name it registers with lus (at most 31 chars)
 *   TARNQ_PORT_CODEC       codec of its per-port state, or nullptr
 *   TARNQ_PORTSET_CODEC    codec of its portset state, or nullptr
 *   TARNQ_GLOBAL_CODEC     codec of its global configuration, or nullptr
 *   TARNQ_UPGRADE_PHASE    LUS_PHASE_PORT or LUS_PHASE_PORTSET
 *   TARNQ_LEGACY_EDITION   1: answers the legacy edition's event
 *   TARNQ_SWITCH           1: answers the switch events and takes portsets over
 *   TARNQ_PULLS            1: pulls its per-port state (registration type 4)
 *   TARNQ_REGISTERS        0: a module lus only looks up (no registration)
 *   TARNQ_PREFETCH         1: fills the prefetch slot
 *   TARNQ_OWN_PORT_STATE   1: the client defines tarnqGetSize, tarnqGetRuntimeState
 *                          and tarnqRuntimeRestore itself (raw state, no codec)
 *   TARNQ_ON_UNLOAD()      optional: called first thing at unload
 */
#ifndef TARNQ_CLIENT_IMPL_H
#define TARNQ_CLIENT_IMPL_H

#include "tarnq_client.h"

#ifndef TARNQ_OWN_PORT_STATE
#define TARNQ_OWN_PORT_STATE 0
#endif

#define TARNQ_EVENT_PORT_UNBLOCK "com.corvid.tarn.kcp.port.unblock"

/* The codec a role names (a callback of a role without one is never
 * registered); a function, so that no compiler sees a null dereference in
 * the roles that name nullptr. */
static inline const TarnqCodec &tarnqCodecOf(const TarnqCodec *codec)
{
   return *codec;
}

/* ---- verifying and converting what the old build handed over ----------------------------- */

/*
 * Checks a restored blob of one scope byte for byte against what the old
 * build held (recomputed from the seed), and converts it into this build's
 * format.  Returns a buffer from the heap (the caller owns it) of
 * `headroom` bytes for the caller's own use followed by the blob in this
 * build's format, or null with *status set: HYK_VERSION_MISMATCH for a
 * format this build cannot read, HYK_NO_MEMORY.  Counts every byte in the
 * ledger, and only once the state is taken: a blob this build could not
 * take for want of memory stays lus's, so it is not counted as restored.
 * A mismatch is counted and the state still taken: the ledger, not the
 * datapath, is where it shows.
 */
static uint8_t *tarnqTakeBlob(const TarnqCodec &c, uint32_t kind, TarnqRng scope,
                              const uint8_t *blob, uint32_t len, uint32_t portID,
                              const char *scopeName, uint32_t headroom, uint32_t *outLen,
                              hyk_Status *status)
{
   auto count = [&](uint32_t k, uint64_t bytes) {
      if (kind == TARNQ_KIND_PORT) {
         hyksim_LedgerPort(TARNQ_CLIENT_NAME, TARNQ_BUILD, k, portID, bytes);
      } else {
         hyksim_LedgerShared(TARNQ_CLIENT_NAME, TARNQ_BUILD, k, scopeName, bytes);
      }
   };
   uint32_t format = 0, n = 0;
   if (!tarnqReadHeader(c, blob, len, &format, &n)) {
      count(HYKSIM_LEDGER_RESTORED, len);
      count(HYKSIM_LEDGER_REFUSED, len);
      TARNQ_LOG(1, "%s state of %u bytes is in no format this build reads\n",
                kind == TARNQ_KIND_PORT ? "port" : scopeName, len);
      *status = HYK_VERSION_MISMATCH;
      return nullptr;
   }

   /* What the old build held, in the format it wrote. */
   uint8_t *expected = static_cast<uint8_t *>(tarnqAlloc(len));
   uint32_t ownLen = tarnqBlobSize(c, TARNQ_FORMAT, n);
   uint8_t *base = static_cast<uint8_t *>(tarnqAlloc(headroom + ownLen));
   if (expected == nullptr || base == nullptr) {
      tarnqFree(expected);
      tarnqFree(base);
      *status = HYK_NO_MEMORY;
      return nullptr;
   }
   uint8_t *own = base + headroom;
   const uint32_t wantCount = c.count(scope);
   if (wantCount == n) {
      tarnqWriteBlob(c, format, scope, n, expected);
   }
   const bool same = wantCount == n && __builtin_memcmp(expected, blob, len) == 0;
   tarnqFree(expected);
   count(HYKSIM_LEDGER_RESTORED, len);
   count(same ? HYKSIM_LEDGER_VERIFIED : HYKSIM_LEDGER_MISMATCHED, len);
   if (!same) {
      TARNQ_LOG(1, "restored state of %s %u differs from what the old build held\n",
                kind == TARNQ_KIND_PORT ? "port" : "scope", portID);
   }

   if (format == TARNQ_FORMAT) {
      tarnqCopy(own, blob, len);
   } else {
      /* Format 1 to 2: a new header, and each entry gains its field. */
      uint32_t hdr[4] = {c.magic, TARNQ_FORMAT, n, c.entrySize[TARNQ_FORMAT]};
      tarnqCopy(own, hdr, sizeof(hdr));
      const uint8_t *src = blob + tarnqHeaderSize(1);
      uint8_t *dst = own + tarnqHeaderSize(TARNQ_FORMAT);
      for (uint32_t i = 0; i < n; i++) {
         c.upgrade(src, dst);
         src += c.entrySize[1];
         dst += c.entrySize[TARNQ_FORMAT];
      }
      count(HYKSIM_LEDGER_CONVERTED, len);
   }
   *outLen = ownLen;
   *status = HYK_OK;
   return base;
}

/* ---- per-port callbacks --------------------------------------------------------------------- */

static hyk_Status tarnqPrefetch(void *record, uint32_t portID, uint64_t *ctx)
{
   return tarnqMisbehave(0, portID);
}

#if !TARNQ_OWN_PORT_STATE
/* The old build's state of a port, made the first time it is asked for it. */
static TarnqPortState *tarnqPortStateOf(uint32_t portID)
{
   hyk_SpinlockLock(tarnq.lock);
   TarnqPortState *state = tarnqFindPort(portID);
   hyk_SpinlockUnlock(tarnq.lock);
   if (state != nullptr) {
      return state;
   }
   const TarnqCodec &c = tarnqCodecOf(TARNQ_PORT_CODEC);
   TarnqRng scope = tarnqScopeRng(TARNQ_CLIENT_NAME, TARNQ_KIND_PORT, tarnqPortKey(portID));
   const uint32_t n = c.count(scope);
   const uint32_t len = n == 0 ? 0 : tarnqBlobSize(c, TARNQ_FORMAT, n);
   state = static_cast<TarnqPortState *>(tarnqAlloc(sizeof(TarnqPortState) + len));
   if (state == nullptr) {
      return nullptr;
   }
   state->next = nullptr;
   state->portID = portID;
   state->len = len;
   if (len != 0) {
      tarnqWriteBlob(c, TARNQ_FORMAT, scope, n, state->data);
   }
   hyk_SpinlockLock(tarnq.lock);
   TarnqPortState *other = tarnqFindPort(portID);
   if (other == nullptr) {
      tarnqPutPort(state);
   }
   hyk_SpinlockUnlock(tarnq.lock);
   if (other != nullptr) {
      tarnqFree(state); /* another thread made it first; both are the same bytes */
      return other;
   }
   return state;
}

static hyk_Status tarnqGetSize(void *record, uint32_t portID, uint64_t *stateLen, uint64_t *ctx)
{
   hyk_Status status = tarnqMisbehave(1, portID);
   if (status != HYK_OK) {
      return status;
   }
   TarnqPortState *state = tarnqPortStateOf(portID);
   if (state == nullptr) {
      return HYK_NO_MEMORY;
   }
   *stateLen = reportSize >= 0 ? (uint64_t)reportSize : state->len;
   tarnqSpend(0);
   return HYK_OK;
}

static hyk_Status tarnqGetRuntimeState(void *record, uint32_t portID, void *buffer,
                                       uint32_t length, uint32_t *stateLen, uint64_t *ctx)
{
   hyk_Status status = tarnqMisbehave(2, portID);
   if (status != HYK_OK) {
      return status;
   }
   TarnqPortState *state = tarnqPortStateOf(portID);
   if (state == nullptr) {
      return HYK_NO_MEMORY;
   }
   /* Never more than lus gave room for, whatever it was told. */
   const uint32_t n = state->len < length ? state->len : length;
   tarnqCopy(buffer, state->data, n);
   *stateLen = overrun != 0 ? length + 1 : n;
   hyksim_LedgerPort(TARNQ_CLIENT_NAME, TARNQ_BUILD, HYKSIM_LEDGER_SAVED, portID, n);
   tarnqSpend(n);
   return HYK_OK;
}

static hyk_Status tarnqRuntimeRestore(void *record, uint32_t portID, void *buffer,
                                      uint32_t length, uint32_t flags)
{
   hyk_Status status = tarnqMisbehave(3, portID);
   if (status != HYK_OK) {
      return status;
   }
   uint32_t ownLen = 0;
   TarnqRng scope = tarnqScopeRng(TARNQ_CLIENT_NAME, TARNQ_KIND_PORT, tarnqPortKey(portID));
   /* The port's record and its state in one allocation, so that nothing can
    * fail once the state is taken. */
   uint8_t *own = tarnqTakeBlob(tarnqCodecOf(TARNQ_PORT_CODEC), TARNQ_KIND_PORT, scope,
                                static_cast<const uint8_t *>(buffer), length, portID, "",
                                sizeof(TarnqPortState), &ownLen, &status);
   /* Refused state is looked at no further than its header. */
   tarnqSpend(own != nullptr ? length : 0);
   if (own == nullptr) {
      return status;
   }
   TarnqPortState *state = reinterpret_cast<TarnqPortState *>(own);
   state->next = nullptr;
   state->portID = portID;
   state->len = ownLen;
   hyk_SpinlockLock(tarnq.lock);
   tarnqPutPort(state);
   hyk_SpinlockUnlock(tarnq.lock);
   return HYK_OK;
}
#endif /* !TARNQ_OWN_PORT_STATE */

static hyk_Status tarnqCollectionComplete(ClientEntry *client, uint32_t arg1, void *arg2,
                                          uint64_t *ctx)
{
   return tarnqMisbehave(4, 0);
}

static hyk_Status tarnqPreDualLoad(ClientEntry *client)
{
   return tarnqMisbehave(5, 0);
}

/* ---- shared state: the global configuration and portset state ------------------------------ */

/*
 * A blob this (old) build handed over; it stays ours until lus says the
 * hand-over is complete.  `key` is the portset handle's value (only
 * compared: the completion may come after the portset was let go) or 0 for
 * the global configuration.
 */
struct TarnqShared {
   TarnqShared *next;
   uintptr_t key;
   uint32_t len;
   uint8_t data[];
};
static constinit TarnqShared *tarnqShared = nullptr;

static hyk_Status tarnqSaveShared(const TarnqCodec &c, uint32_t kind, uintptr_t key,
                                  const char *scopeName, void **buffer, uint32_t *length)
{
   TarnqRng scope = tarnqScopeRng(TARNQ_CLIENT_NAME, kind, tarnqMixString(kind, scopeName, 128));
   const uint32_t n = c.count(scope);
   const uint32_t len = tarnqBlobSize(c, TARNQ_FORMAT, n);
   TarnqShared *s = static_cast<TarnqShared *>(tarnqAlloc(sizeof(TarnqShared) + len));
   if (s == nullptr) {
      return HYK_NO_MEMORY;
   }
   s->key = key;
   s->len = len;
   tarnqWriteBlob(c, TARNQ_FORMAT, scope, n, s->data);
   hyk_SpinlockLock(tarnq.lock);
   s->next = tarnqShared;
   tarnqShared = s;
   hyk_SpinlockUnlock(tarnq.lock);
   *buffer = s->data;
   *length = len;
   hyksim_LedgerShared(TARNQ_CLIENT_NAME, TARNQ_BUILD, HYKSIM_LEDGER_SAVED, scopeName, len);
   tarnqSpend(len);
   return HYK_OK;
}

static void tarnqReleaseShared(uintptr_t key)
{
   hyk_SpinlockLock(tarnq.lock);
   for (TarnqShared **pp = &tarnqShared; *pp != nullptr; pp = &(*pp)->next) {
      if ((*pp)->key == key) {
         TarnqShared *s = *pp;
         *pp = s->next;
         hyk_SpinlockUnlock(tarnq.lock);
         tarnqFree(s);
         return;
      }
   }
   hyk_SpinlockUnlock(tarnq.lock);
}

static hyk_Status tarnqRestoreShared(const TarnqCodec &c, uint32_t kind, const char *scopeName,
                                     void *buffer, uint32_t length)
{
   hyk_Status status;
   uint32_t ownLen = 0;
   TarnqRng scope = tarnqScopeRng(TARNQ_CLIENT_NAME, kind, tarnqMixString(kind, scopeName, 128));
   uint8_t *own = tarnqTakeBlob(c, kind, scope, static_cast<const uint8_t *>(buffer), length, 0,
                                scopeName, 0, &ownLen, &status);
   tarnqSpend(own != nullptr ? length : 0);
   /* The new build would install it; the sample keeps nothing of it. */
   tarnqFree(own);
   return status;
}

static hyk_Status tarnqGlobalSave(ClientEntry *from, void **buffer, uint32_t *length, uint64_t *ctx)
{
   hyk_Status status = tarnqMisbehave(6, 0);
   return status != HYK_OK ? status
                           : tarnqSaveShared(tarnqCodecOf(TARNQ_GLOBAL_CODEC), TARNQ_KIND_GLOBAL, 0, "global",
                                             buffer, length);
}

static hyk_Status tarnqGlobalRestore(ClientEntry *to, void *buffer, uint32_t length)
{
   hyk_Status status = tarnqMisbehave(7, 0);
   return status != HYK_OK ? status
                           : tarnqRestoreShared(tarnqCodecOf(TARNQ_GLOBAL_CODEC), TARNQ_KIND_GLOBAL, "global",
                                                buffer, length);
}

static hyk_Status tarnqGlobalComplete(ClientEntry *from, uint32_t result, uint64_t *ctx)
{
   tarnqReleaseShared(0);
   return tarnqMisbehave(8, 0);
}

static hyk_Status tarnqPsSave(ClientEntry *from, hyk_Portset *ps, void **buffer, uint32_t *length,
                              uint64_t *ctx)
{
   hyk_Status status = tarnqMisbehave(9, 0);
   return status != HYK_OK ? status
                           : tarnqSaveShared(tarnqCodecOf(TARNQ_PORTSET_CODEC), TARNQ_KIND_PORTSET,
                                             (uintptr_t)ps, hyk_PortsetName(ps), buffer, length);
}

static hyk_Status tarnqPsRestore(ClientEntry *to, hyk_Portset *ps, void *buffer, uint32_t length)
{
   hyk_Status status = tarnqMisbehave(10, 0);
   return status != HYK_OK ? status
                           : tarnqRestoreShared(tarnqCodecOf(TARNQ_PORTSET_CODEC), TARNQ_KIND_PORTSET,
                                                hyk_PortsetName(ps), buffer, length);
}

static hyk_Status tarnqPsComplete(ClientEntry *from, hyk_Portset *ps, uint32_t result, uint64_t *ctx)
{
   tarnqReleaseShared((uintptr_t)ps);
   return tarnqMisbehave(11, 0);
}

/* ---- registration with lus ------------------------------------------------------------------ */

static inline bool tarnqHas(const TarnqCodec *codec)
{
   return codec != nullptr;
}

/* Fills exactly the slots this client's role needs; the others stay null on purpose. */
static ClientInfo tarnqInfo(void)
{
   ClientInfo info = {};
   if (tarnqHas(TARNQ_PORT_CODEC)) {
      info.ops.prefetch = TARNQ_PREFETCH ? tarnqPrefetch : nullptr;
      info.ops.getSize = tarnqGetSize;
      info.ops.getRuntimeState = tarnqGetRuntimeState;
      info.ops.runtimeRestore = tarnqRuntimeRestore;
      info.ops.stateCollectionComplete = tarnqCollectionComplete;
   }
   info.ops.preDualLoadCB = tarnqPreDualLoad;
   if (tarnqHas(TARNQ_GLOBAL_CODEC)) {
      info.ops.globalConfigSave = tarnqGlobalSave;
      info.ops.globalConfigRestore = tarnqGlobalRestore;
      info.ops.globalComplete = tarnqGlobalComplete;
   }
   if (tarnqHas(TARNQ_PORTSET_CODEC)) {
      info.ops.psRuntimeSave = tarnqPsSave;
      info.ops.psRuntimeRestore = tarnqPsRestore;
      info.ops.psRuntimeComplete = tarnqPsComplete;
   }
   info.upgradePhase = TARNQ_UPGRADE_PHASE;
   return info;
}

/*
 * The client protocol: register on a registration event of our own build
 * when we hold no handle; unregister on an unregistration event when we hold
 * one, and drop it.  (An unregistration event carries a stale build number,
 * so it is not looked at.)  Events are delivered on the thread that posted
 * them, one at a time for this client.
 */
static hyk_Status tarnqOnRegistration(hyk_Portset *ps, const char *name, void *data,
                                      uint32_t len, void *cbData)
{
   if (data == nullptr || len < sizeof(LUSEventOps)) {
      return HYK_BAD_PARAM;
   }
   LUSEventOps ops;
   tarnqCopy(&ops, data, sizeof(ops));
   if (ops.unregister == 0) {
      if (ops.buildNumber != TARNQ_BUILD || tarnq.handle != nullptr) {
         return HYK_OK;
      }
      ClientInfo info = tarnqInfo();
      char clientName[LUS_CLIENT_NAME_LEN] = TARNQ_CLIENT_NAME;
      ClientEntry *handle = nullptr;
      hyk_Status status = ops.registerFn.reg(tarnq.id, clientName, &info, &handle);
      if (status != HYK_OK) {
         TARNQ_LOG(1, "registration with lus failed: %s\n", hyk_StatusToString(status));
         return status;
      }
      tarnq.handle = handle;
      if (ops.mode == 1 && ops.getRestoreStateFn != nullptr) {
         __atomic_store_n(&tarnq.pull, ops.getRestoreStateFn, __ATOMIC_RELEASE);
      }
      return HYK_OK;
   }
   if (tarnq.handle == nullptr) {
      return HYK_OK;
   }
   hyk_Status status = ops.registerFn.unreg(tarnq.handle);
   tarnq.handle = nullptr;
   __atomic_store_n(&tarnq.pull, (LusGetRestoreStateFn) nullptr, __ATOMIC_RELEASE);
   return status;
}

/* ---- the datapath taking a portset over ------------------------------------------------------- */

struct TarnqWalk {
   hyksim_TakeOver notice;
   uint32_t index;
};

static bool tarnqCarries(uint32_t portID)
{
   uint32_t type = 0;
   return hyk_PortGetClientType(portID, &type) == HYK_OK &&
          (type == HYK_PORT_CLIENT_VNIC || type == HYK_PORT_CLIENT_CONTAINER);
}

/* A client that pulls its state asks for it as soon as it carries the port. */
static void tarnqPull(uint32_t portID)
{
   LusGetRestoreStateFn pull = __atomic_load_n(&tarnq.pull, __ATOMIC_ACQUIRE);
   if (TARNQ_PULLS && pull != nullptr) {
      char clientName[LUS_CLIENT_NAME_LEN] = TARNQ_CLIENT_NAME;
      pull(clientName, portID);
   }
}

static hyk_Status tarnqTakeOverPort(hyk_Portset *ps, hyk_PortID portID, void *data)
{
   TarnqWalk *walk = static_cast<TarnqWalk *>(data);
   const uint32_t mine = walk->index++ % walk->notice.shares == walk->notice.share;
   if (!mine || !tarnqCarries(portID)) {
      return HYK_OK;
   }
   if (TARNQ_SWITCH) {
      /* Ready to carry it: lus may restore the port and let its traffic through. */
      uint32_t id = portID;
      hyk_NetEventPortsetEventPost(0, TARNQ_EVENT_PORT_UNBLOCK, ps, &id, sizeof(id));
   }
   tarnqPull(portID);
   return HYK_OK;
}

static hyk_Status tarnqOnTakeOver(hyk_Portset *ps, const char *name, void *data, uint32_t len,
                                  void *cbData)
{
   if (data == nullptr || len < sizeof(hyksim_TakeOver)) {
      return HYK_BAD_PARAM;
   }
   TarnqWalk walk = {};
   tarnqCopy(&walk.notice, data, sizeof(walk.notice));
   if (walk.notice.build != TARNQ_BUILD || walk.notice.shares == 0) {
      return HYK_OK;
   }
   TARNQ_LOG(3, "taking portset %s over (share %u of %u)\n", hyk_PortsetName(ps),
             walk.notice.share, walk.notice.shares);
   return hyk_PortsetForAllPorts(ps, tarnqTakeOverPort, &walk);
}

static hyk_Status tarnqOnPortEnable(hyk_PortID portID, const char *name, void *cbData)
{
   tarnqPull(portID);
   return HYK_OK;
}

/* The cswitch hand-over: the old build lets the portset go, the new one takes it. */
static hyk_Status tarnqOnSwitchEvent(hyk_Portset *ps, const char *name, void *data, uint32_t len,
                                     void *cbData)
{
   TARNQ_LOG(3, "portset %s: %s\n", hyk_PortsetName(ps),
             cbData != nullptr ? "activated on this build" : "deactivated on this build");
   return HYK_OK;
}

/* ---- load and unload ---------------------------------------------------------------------------- */

static void tarnqFormat(char *dst, uint32_t cap, const char *prefix, uint32_t value)
{
   uint32_t n = 0;
   while (prefix[n] != '\0' && n + 1 < cap) {
      dst[n] = prefix[n];
      n++;
   }
   char digits[12];
   uint32_t d = 0;
   do {
      digits[d++] = (char)('0' + value % 10);
      value /= 10;
   } while (value != 0);
   while (d > 0 && n + 1 < cap) {
      dst[n++] = digits[--d];
   }
   dst[n] = '\0';
}

static void tarnqUnsubscribeAll(void)
{
   hyk_NetEventHandle *subs[] = {&tarnq.regSub, &tarnq.takeoverSub, &tarnq.swSub[0], &tarnq.swSub[1]};
   for (hyk_NetEventHandle *h : subs) {
      if (*h != 0) {
         hyk_NetEventPortsetEventUnsubscribe(*h);
         *h = 0;
      }
   }
   if (tarnq.enableSub != 0) {
      hyk_NetEventPortEventUnsubscribe(tarnq.enableSub);
      tarnq.enableSub = 0;
   }
}

static hyk_Status tarnqSubscribe(void)
{
   hyk_Status status = HYK_OK;
   if (TARNQ_REGISTERS) {
      status = hyk_NetEventPortsetEventSubscribe(
         0, TARNQ_LEGACY_EDITION ? LUS_CLIENT_EVENT_LEGACY : LUS_CLIENT_EVENT, tarnqOnRegistration,
         nullptr, &tarnq.regSub);
   }
   if (status == HYK_OK && (TARNQ_SWITCH || TARNQ_PULLS)) {
      status = hyk_NetEventPortsetEventSubscribe(0, HYKSIM_EVENT_TAKEOVER, tarnqOnTakeOver,
                                                 nullptr, &tarnq.takeoverSub);
   }
   if (status == HYK_OK && TARNQ_PULLS) {
      status = hyk_NetEventPortEventSubscribe(0, "port.state.enable", tarnqOnPortEnable, nullptr,
                                              &tarnq.enableSub);
   }
   if (status == HYK_OK && TARNQ_SWITCH) {
      char name[64];
      tarnqFormat(name, sizeof(name), "com.corvid.tarn.lus.cswitch.deactivate.", TARNQ_BUILD);
      status = hyk_NetEventPortsetEventSubscribe(0, name, tarnqOnSwitchEvent, nullptr,
                                                 &tarnq.swSub[0]);
      if (status == HYK_OK) {
         tarnqFormat(name, sizeof(name), "com.corvid.tarn.lus.cswitch.activate.", TARNQ_BUILD);
         status = hyk_NetEventPortsetEventSubscribe(0, name, tarnqOnSwitchEvent, &tarnq,
                                                    &tarnq.swSub[1]);
      }
   }
   return status;
}

static void tarnqTearDown(void)
{
   tarnqUnsubscribeAll();
   tarnqFreeAllPorts();
   while (tarnqShared != nullptr) {
      TarnqShared *s = tarnqShared;
      tarnqShared = s->next;
      tarnqFree(s);
   }
   if (tarnq.lock != HYK_INVALID_LOCK) {
      hyk_SpinlockDestroy(tarnq.lock);
      tarnq.lock = HYK_INVALID_LOCK;
   }
   if (tarnq.domain != HYK_INVALID_LOCK_DOMAIN) {
      hyk_LockDomainDestroy(tarnq.domain);
      tarnq.domain = HYK_INVALID_LOCK_DOMAIN;
   }
   if (tarnq.log != 0) {
      hyk_LogUnregister(tarnq.log);
      tarnq.log = 0;
   }
   if (tarnq.heap != 0) {
      hyk_HeapDestroy(tarnq.heap);
      tarnq.heap = 0;
   }
}

HYK_MODULE_ENTRY int init_module(void)
{
   tarnq.id = hyk_ModuleCurrentID();
   tarnq.lock = HYK_INVALID_LOCK;
   tarnq.domain = HYK_INVALID_LOCK_DOMAIN;

   const uint32_t heapMax = heapMaxMB >= 4096u ? 0xffffffffu : heapMaxMB * 1024u * 1024u;
   hyk_HeapProps heap = {TARNQ_MODULE_NAME, tarnq.id, 65536, heapMax};
   if (hyk_HeapCreate(&heap, &tarnq.heap) != HYK_OK) {
      tarnq.heap = 0;
      return -1;
   }
   hyk_LogProps log = {TARNQ_MODULE_NAME, 3, tarnq.heap, HYK_LOG_THROTTLE_NONE};
   if (hyk_LogRegister(&log, &tarnq.log) != HYK_OK ||
       hyk_LockDomainCreate(TARNQ_MODULE_NAME, tarnq.id, tarnq.heap, &tarnq.domain) != HYK_OK ||
       hyk_SpinlockCreate(TARNQ_MODULE_NAME, tarnq.domain, 1, &tarnq.lock) != HYK_OK ||
       tarnqSubscribe() != HYK_OK) {
      tarnqTearDown();
      return -1;
   }
   TARNQ_LOG(3, "loaded, seed %u\n", seed);
   return 0;
}

HYK_MODULE_ENTRY void cleanup_module(void)
{
#ifdef TARNQ_ON_UNLOAD
   TARNQ_ON_UNLOAD();
#endif
   tarnqTearDown();
}

#endif /* TARNQ_CLIENT_IMPL_H */
