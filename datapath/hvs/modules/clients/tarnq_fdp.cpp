/*
 * tarnq_fdp.cpp -- the fast datapath module that the fast-datapath command
 * names ("tarnq-fdp-<build>"): lus looks its module ID up and hands it to
 * the host's switch command.  It keeps no state and does not register.
 */
#define TARNQ_MODULE_PREFIX "tarnq-fdp"
#include "tarnq_client.h"

#define TARNQ_CLIENT_NAME "tarnq-fdp"
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
