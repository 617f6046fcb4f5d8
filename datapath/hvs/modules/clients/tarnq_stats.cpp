/*
 * tarnq_stats.cpp -- the sample statistics module: per-port counters, kept
 * per port (upgrade phase PORT).  In a classic upgrade lus hands its state
 * back on the port's restore events; registered with the extended
 * descriptor (type 4) it pulls its state itself, through the restore-state
 * entry point lus hands over, as soon as it carries the port (the portset
 * taken over, or the port enabled).
 *
 * Format 2 (build 2000) adds a drop counter; format 1 converts with 0 drops.
 */
#define TARNQ_MODULE_PREFIX "tarnq-stats"
#include "tarnq_client.h"

/* Counters: v1 {rxPkts, txPkts, rxBytes, txBytes} (u64 each); v2 adds {drops u64}. */
static uint32_t statsCount(TarnqRng scope)
{
   return 1;
}
static void statsPut(uint32_t format, TarnqRng &r, uint8_t *dst)
{
   uint64_t c[5] = {r.Below(1u << 30), r.Below(1u << 30), r.Next() >> 20, r.Next() >> 20,
                    r.Below(1000)};
   tarnqCopy(dst, c, format == 2 ? 40 : 32);
}
static void statsUpgrade(const uint8_t *v1, uint8_t *v2)
{
   tarnqCopy(v2, v1, 32);
   uint64_t drops = 0;
   tarnqCopy(v2 + 32, &drops, 8);
}
static const TarnqCodec statsCodec = {0x31545453u /* "STT1" */, {0, 32, 40}, statsCount, statsPut,
                                      statsUpgrade};

#define TARNQ_CLIENT_NAME "tarnq-stats"
#define TARNQ_PORT_CODEC (&statsCodec)
#define TARNQ_PORTSET_CODEC ((const TarnqCodec *)nullptr)
#define TARNQ_GLOBAL_CODEC ((const TarnqCodec *)nullptr)
#define TARNQ_UPGRADE_PHASE LUS_PHASE_PORT
#define TARNQ_LEGACY_EDITION 0
#define TARNQ_SWITCH 0
#define TARNQ_PULLS 1
#define TARNQ_REGISTERS 1
#define TARNQ_PREFETCH 0
#include "tarnq_client_impl.h"
