/*
 * tarnq_stub_vswitch.cpp -- the stub switch: the class "stub-vswitch" that
 * lus falls a portset back to when the hot swap to the new switch fails.
 * It keeps no state and does not register with lus.
 */
#define TARNQ_MODULE_PREFIX "tarnq-stub-vswitch"
#include "tarnq_client.h"

HYK_MODULE_INFO(switchClass, "switchClass", "stub-vswitch");

#define TARNQ_CLIENT_NAME "tarnq-stub-vswitch"
#define TARNQ_PORT_CODEC ((const TarnqCodec *)nullptr)
#define TARNQ_PORTSET_CODEC ((const TarnqCodec *)nullptr)
#define TARNQ_GLOBAL_CODEC ((const TarnqCodec *)nullptr)
#define TARNQ_UPGRADE_PHASE LUS_PHASE_PORTSET
#define TARNQ_LEGACY_EDITION 0
#define TARNQ_SWITCH 0
#define TARNQ_PULLS 0
#define TARNQ_REGISTERS 0
#define TARNQ_PREFETCH 0
#include "tarnq_client_impl.h"
