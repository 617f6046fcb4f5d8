/*
 * tarnq_blob.cpp -- a client whose per-port state is `blobBytes` raw bytes,
 * for measuring lus: saving fills lus's buffer at memset speed, restoring
 * copies it into the client's own heap and checks a few marker bytes, so
 * that the time of an upgrade is lus's own work plus a copy in and a copy
 * out, and nothing of a codec.  Built four times (tarnq-blob1 .. -blob4) so
 * that a benchmark can load one to four clients; tarnq-blob1 is also the
 * switch of its portsets (it raises the ports' unblock events when its new
 * build takes a portset over).
 *
 * Layout of a port's blob: u32 port ID, u32 seed, then (blobBytes - 8) bytes
 * of the value (portID + seed) & 0xff.  The new build counts what it got
 * and logs at unload: "restored N ports, B bytes, M differ".
 */
#ifndef TARNQ_BLOB_INDEX
#error "TARNQ_BLOB_INDEX (1-4) must be set by the build"
#endif
#define TARNQ_BLOB_STR_(x) #x
#define TARNQ_BLOB_STR(x) TARNQ_BLOB_STR_(x)
#define TARNQ_MODULE_PREFIX "tarnq-blob" TARNQ_BLOB_STR(TARNQ_BLOB_INDEX)
/* No modelled callback time: the benchmarks measure lus and the host, and
 * their figures must be of that work alone. */
#define TARNQ_DEFAULT_COST_US 0u
#define TARNQ_DEFAULT_COST_NS_PER_BYTE 0u
#include "tarnq_client.h"

HYK_EXTERN_C_BEGIN
/* Bytes of state per port. */
TARNQ_PARAM uint32_t blobBytes = 4096;
HYK_EXTERN_C_END
HYK_MODULE_PARAM(blobBytes, HYK_PARAM_UINT, "bytes of state per port");

struct TarnqBlobCounts {
   uint64_t ports;
   uint64_t bytes;
   uint64_t differ;
};
static constinit TarnqBlobCounts tarnqBlob = {};

static inline uint8_t tarnqBlobFill(uint32_t portID)
{
   return (uint8_t)(portID + seed);
}

static hyk_Status tarnqGetSize(void *record, uint32_t portID, uint64_t *stateLen, uint64_t *ctx)
{
   hyk_Status status = tarnqMisbehave(1, portID);
   if (status == HYK_OK) {
      *stateLen = blobBytes;
      tarnqSpend(0);
   }
   return status;
}

static hyk_Status tarnqGetRuntimeState(void *record, uint32_t portID, void *buffer,
                                       uint32_t length, uint32_t *stateLen, uint64_t *ctx)
{
   hyk_Status status = tarnqMisbehave(2, portID);
   if (status != HYK_OK) {
      return status;
   }
   /* Never more than lus gave room for. */
   const uint32_t n = blobBytes < length ? blobBytes : length;
   uint8_t *dst = static_cast<uint8_t *>(buffer);
   if (n >= 8) {
      uint32_t head[2] = {portID, seed};
      tarnqCopy(dst, head, sizeof(head));
      __builtin_memset(dst + 8, tarnqBlobFill(portID), n - 8);
   } else {
      __builtin_memset(dst, tarnqBlobFill(portID), n);
   }
   *stateLen = n;
   tarnqSpend(n);
   return HYK_OK;
}

/* The markers: the header words and the last byte. */
static bool tarnqBlobIntact(const uint8_t *blob, uint32_t length, uint32_t portID)
{
   if (length != blobBytes) {
      return false;
   }
   if (length < 8) {
      return length == 0 || blob[length - 1] == tarnqBlobFill(portID);
   }
   uint32_t head[2];
   tarnqCopy(head, blob, sizeof(head));
   return head[0] == portID && head[1] == seed &&
          (length == 8 || blob[length - 1] == tarnqBlobFill(portID));
}

static hyk_Status tarnqRuntimeRestore(void *record, uint32_t portID, void *buffer,
                                      uint32_t length, uint32_t flags)
{
   hyk_Status status = tarnqMisbehave(3, portID);
   if (status != HYK_OK) {
      return status;
   }
   TarnqPortState *state = static_cast<TarnqPortState *>(tarnqAlloc(sizeof(TarnqPortState) + length));
   if (state == nullptr) {
      return HYK_NO_MEMORY;
   }
   state->next = nullptr;
   state->portID = portID;
   state->len = length;
   tarnqCopy(state->data, buffer, length);
   const bool intact = tarnqBlobIntact(state->data, length, portID);
   hyk_SpinlockLock(tarnq.lock);
   tarnqPutPort(state);
   tarnqBlob.ports++;
   tarnqBlob.bytes += length;
   tarnqBlob.differ += intact ? 0 : 1;
   hyk_SpinlockUnlock(tarnq.lock);
   tarnqSpend(length);
   return HYK_OK;
}

static void tarnqBlobReport(void)
{
   if (TARNQ_BUILD >= 2000) {
      TARNQ_LOG(3, "restored %lu ports, %lu bytes, %lu differ\n", tarnqBlob.ports,
                tarnqBlob.bytes, tarnqBlob.differ);
   }
}

/* Only its per-port slots matter; the codec is never used to write state. */
static const TarnqCodec blobCodec = {0x424f4c42u /* "BLOB" */, {0, 8, 8}, nullptr, nullptr,
                                     nullptr};

#define TARNQ_CLIENT_NAME TARNQ_MODULE_PREFIX
#define TARNQ_PORT_CODEC (&blobCodec)
#define TARNQ_PORTSET_CODEC ((const TarnqCodec *)nullptr)
#define TARNQ_GLOBAL_CODEC ((const TarnqCodec *)nullptr)
#define TARNQ_UPGRADE_PHASE LUS_PHASE_PORT
#define TARNQ_LEGACY_EDITION 0
#define TARNQ_SWITCH (TARNQ_BLOB_INDEX == 1)
#define TARNQ_PULLS 0
#define TARNQ_REGISTERS 1
#define TARNQ_PREFETCH 0
#define TARNQ_OWN_PORT_STATE 1
#define TARNQ_ON_UNLOAD tarnqBlobReport
#include "tarnq_client_impl.h"
