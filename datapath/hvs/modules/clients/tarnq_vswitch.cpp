/*
 * tarnq_vswitch.cpp -- the sample switch.  It provides the portsets' switch
 * classes (so a class hot swap really moves a portset to the new build's
 * module), answers the cswitch deactivate/activate events, and keeps:
 *   per port     the MAC addresses learned on it, with their VLANs;
 *   per portset  its forwarding table;
 *   globally     its configuration.
 * As the new build it also ends a classic upgrade: told that it takes a
 * portset over, it posts the port-unblock event for each port it carries.
 *
 * Format 2 (build 2000) adds an age to each learned MAC, a VLAN to each
 * forwarding entry and a scope to each setting; format 1 entries convert
 * with those fields zero.
 */
#define TARNQ_MODULE_PREFIX "tarnq-vswitch"
#include "tarnq_client.h"

HYK_MODULE_INFO(switchClass, "switchClass", "etherswitch,cswitch");

static void vswMac(TarnqRng &r, uint8_t *mac)
{
   uint64_t v = r.Next();
   tarnqCopy(mac, &v, 6);
   mac[0] = (uint8_t)((mac[0] & 0xfe) | 0x02); /* unicast, locally administered */
}

/* Learned MACs: v1 {mac[6], vlan u16}; v2 adds {ageSec u32}. */
static uint32_t vswPortCount(TarnqRng scope)
{
   return 1 + scope.Below(24);
}
static void vswPortPut(uint32_t format, TarnqRng &r, uint8_t *dst)
{
   vswMac(r, dst);
   uint16_t vlan = (uint16_t)(1 + r.Below(4094));
   tarnqCopy(dst + 6, &vlan, 2);
   if (format == 2) {
      uint32_t age = r.Below(300);
      tarnqCopy(dst + 8, &age, 4);
   }
}
static void vswPortUpgrade(const uint8_t *v1, uint8_t *v2)
{
   tarnqCopy(v2, v1, 8);
   uint32_t age = 0;
   tarnqCopy(v2 + 8, &age, 4);
}
static const TarnqCodec vswPortCodec = {0x31575356u /* "VSW1" */, {0, 8, 12}, vswPortCount,
                                        vswPortPut, vswPortUpgrade};

/* Forwarding table: v1 {mac[6], pad u16, port u32}; v2 {mac[6], vlan u16, port u32, flags u32}. */
static uint32_t vswFwdCount(TarnqRng scope)
{
   return 8 + scope.Below(56);
}
static void vswFwdPut(uint32_t format, TarnqRng &r, uint8_t *dst)
{
   vswMac(r, dst);
   uint16_t vlan = format == 2 ? (uint16_t)(1 + r.Below(4094)) : 0;
   uint32_t port = 0x4000000u + r.Below(4096);
   tarnqCopy(dst + 6, &vlan, 2);
   tarnqCopy(dst + 8, &port, 4);
   if (format == 2) {
      uint32_t flags = r.Below(4);
      tarnqCopy(dst + 12, &flags, 4);
   }
}
static void vswFwdUpgrade(const uint8_t *v1, uint8_t *v2)
{
   tarnqCopy(v2, v1, 12);
   uint32_t flags = 0;
   tarnqCopy(v2 + 12, &flags, 4);
}
static const TarnqCodec vswFwdCodec = {0x46575356u /* "VSWF" */, {0, 12, 16}, vswFwdCount,
                                       vswFwdPut, vswFwdUpgrade};

/* Configuration: v1 {key u32, value u32}; v2 adds {scope u32}. */
static uint32_t vswCfgCount(TarnqRng scope)
{
   return 6;
}
static void vswCfgPut(uint32_t format, TarnqRng &r, uint8_t *dst)
{
   uint32_t kv[3] = {r.Below(64), (uint32_t)r.Next(), format == 2 ? r.Below(3) : 0};
   tarnqCopy(dst, kv, format == 2 ? 12 : 8);
}
static void vswCfgUpgrade(const uint8_t *v1, uint8_t *v2)
{
   tarnqCopy(v2, v1, 8);
   uint32_t scope = 0;
   tarnqCopy(v2 + 8, &scope, 4);
}
static const TarnqCodec vswCfgCodec = {0x43575356u /* "VSWC" */, {0, 8, 12}, vswCfgCount,
                                       vswCfgPut, vswCfgUpgrade};

#define TARNQ_CLIENT_NAME "tarnq-vswitch"
#define TARNQ_PORT_CODEC (&vswPortCodec)
#define TARNQ_PORTSET_CODEC (&vswFwdCodec)
#define TARNQ_GLOBAL_CODEC (&vswCfgCodec)
#define TARNQ_UPGRADE_PHASE LUS_PHASE_PORTSET
#define TARNQ_LEGACY_EDITION 0
#define TARNQ_SWITCH 1
#define TARNQ_PULLS 0
#define TARNQ_REGISTERS 1
#define TARNQ_PREFETCH 1
#include "tarnq_client_impl.h"
