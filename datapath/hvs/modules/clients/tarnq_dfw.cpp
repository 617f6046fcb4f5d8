/*
 * tarnq_dfw.cpp -- the sample firewall.  Per port it keeps a connection-
 * tracking table whose size varies a lot from port to port: empty on a
 * quarter of the ports, a few entries on most, tens of KiB on some.  Its
 * rules are global configuration.
 *
 * Format 2 (build 2000) adds a zone to each connection and a priority to
 * each rule; format 1 entries convert with zone 0 and priority 0.
 */
#define TARNQ_MODULE_PREFIX "tarnq-dfw"
#include "tarnq_client.h"

/* Connections: v1 {src u32, dst u32, sport u16, dport u16, proto u8, state u8, pad u16,
 * expires u32} (20 bytes); v2 {... pad becomes zone u16 ..., expires u32, flags u32} (24). */
static uint32_t dfwConnCount(TarnqRng scope)
{
   uint32_t pick = scope.Below(12);
   if (pick < 3) {
      return 0;
   }
   if (pick < 5) {
      return 512 + scope.Below(1536);
   }
   return 1 + scope.Below(64);
}
static void dfwConnPut(uint32_t format, TarnqRng &r, uint8_t *dst)
{
   uint32_t addr[2] = {(uint32_t)r.Next(), (uint32_t)r.Next()};
   uint16_t ports[2] = {(uint16_t)r.Next(), (uint16_t)(1 + r.Below(1024))};
   uint8_t proto = r.Below(2) == 0 ? 6 : 17;
   uint8_t state = (uint8_t)r.Below(8);
   uint16_t zone = format == 2 ? (uint16_t)r.Below(16) : 0;
   uint32_t expires = r.Below(86400);
   tarnqCopy(dst, addr, 8);
   tarnqCopy(dst + 8, ports, 4);
   dst[12] = proto;
   dst[13] = state;
   tarnqCopy(dst + 14, &zone, 2);
   tarnqCopy(dst + 16, &expires, 4);
   if (format == 2) {
      uint32_t flags = r.Below(2);
      tarnqCopy(dst + 20, &flags, 4);
   }
}
static void dfwConnUpgrade(const uint8_t *v1, uint8_t *v2)
{
   tarnqCopy(v2, v1, 20);
   uint32_t flags = 0;
   tarnqCopy(v2 + 20, &flags, 4);
}
static const TarnqCodec dfwConnCodec = {0x31574644u /* "DFW1" */, {0, 20, 24}, dfwConnCount,
                                        dfwConnPut, dfwConnUpgrade};

/* Rules: v1 {id u32, src u32, dst u32, port u16, proto u8, action u8} (16); v2 adds {priority u32}. */
static uint32_t dfwRuleCount(TarnqRng scope)
{
   return 32;
}
static void dfwRulePut(uint32_t format, TarnqRng &r, uint8_t *dst)
{
   uint32_t w[3] = {r.Below(100000), (uint32_t)r.Next(), (uint32_t)r.Next()};
   uint16_t port = (uint16_t)r.Below(65536);
   tarnqCopy(dst, w, 12);
   tarnqCopy(dst + 12, &port, 2);
   dst[14] = r.Below(2) == 0 ? 6 : 17;
   dst[15] = (uint8_t)r.Below(3);
   if (format == 2) {
      uint32_t priority = r.Below(1000);
      tarnqCopy(dst + 16, &priority, 4);
   }
}
static void dfwRuleUpgrade(const uint8_t *v1, uint8_t *v2)
{
   tarnqCopy(v2, v1, 16);
   uint32_t priority = 0;
   tarnqCopy(v2 + 16, &priority, 4);
}
static const TarnqCodec dfwRuleCodec = {0x52574644u /* "DFWR" */, {0, 16, 20}, dfwRuleCount,
                                        dfwRulePut, dfwRuleUpgrade};

#define TARNQ_CLIENT_NAME "tarnq-dfw"
#define TARNQ_PORT_CODEC (&dfwConnCodec)
#define TARNQ_PORTSET_CODEC ((const TarnqCodec *)nullptr)
#define TARNQ_GLOBAL_CODEC (&dfwRuleCodec)
#define TARNQ_UPGRADE_PHASE LUS_PHASE_PORTSET
#define TARNQ_LEGACY_EDITION 0
#define TARNQ_SWITCH 0
#define TARNQ_PULLS 0
#define TARNQ_REGISTERS 1
#define TARNQ_PREFETCH 0
#include "tarnq_client_impl.h"
