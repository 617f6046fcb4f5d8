/*
 * tarnj_mirror.cpp -- a client of the legacy edition: port mirroring
 * sessions per port.  It answers the legacy edition's registration event
 * ("com.corvid.tarnj.lus.client"); while it is registered, lus makes every
 * classic record wait for both restore events (the unblock event and the
 * port-enable event).
 *
 * Format 2 (build 2000) adds flags to each session.
 */
#define TARNQ_MODULE_PREFIX "tarnj-mirror"
#include "tarnq_client.h"

/* Sessions: v1 {session u32, destination port u32}; v2 adds {flags u32}. */
static uint32_t mirrorCount(TarnqRng scope)
{
   return 1 + scope.Below(4);
}
static void mirrorPut(uint32_t format, TarnqRng &r, uint8_t *dst)
{
   uint32_t w[3] = {r.Below(1024), 0x4000000u + r.Below(4096), format == 2 ? r.Below(4) : 0};
   tarnqCopy(dst, w, format == 2 ? 12 : 8);
}
static void mirrorUpgrade(const uint8_t *v1, uint8_t *v2)
{
   tarnqCopy(v2, v1, 8);
   uint32_t flags = 0;
   tarnqCopy(v2 + 8, &flags, 4);
}
static const TarnqCodec mirrorCodec = {0x31524d4au /* "JMR1" */, {0, 8, 12}, mirrorCount,
                                       mirrorPut, mirrorUpgrade};

#define TARNQ_CLIENT_NAME "tarnj-mirror"
#define TARNQ_PORT_CODEC (&mirrorCodec)
#define TARNQ_PORTSET_CODEC ((const TarnqCodec *)nullptr)
#define TARNQ_GLOBAL_CODEC ((const TarnqCodec *)nullptr)
#define TARNQ_UPGRADE_PHASE LUS_PHASE_PORTSET
#define TARNQ_LEGACY_EDITION 1
#define TARNQ_SWITCH 0
#define TARNQ_PULLS 0
#define TARNQ_REGISTERS 1
#define TARNQ_PREFETCH 0
#include "tarnq_client_impl.h"
