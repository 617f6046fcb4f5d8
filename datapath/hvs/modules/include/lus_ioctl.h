/*
 * lus_ioctl.h -- the protocol of the control device "lus": command numbers
 * and the packed payload layouts, shared by the module and the upgrade tool.
 *
 * Every command passes the user address of a 24-byte LusIoctlHeader; the
 * header names the payload (its user address and length).  Layouts are
 * packed and little-endian; every offset is pinned below so that a change
 * to a structure cannot silently change the wire format.
 */
#ifndef LUS_IOCTL_H
#define LUS_IOCTL_H

#include <stddef.h>
#include <stdint.h>

#define LUS_CHARDEV_NAME "lus"

/* Command numbers: the plain values the host hands to the ioctl callback. */
enum LusIoctlCmd {
   LUS_IOCTL_REG_FROM = 0,            /* registration type 1 (from build) */
   LUS_IOCTL_REG_TO = 1,              /* registration type 2 (to build) */
   LUS_IOCTL_REG_FROM_EXT = 2,        /* registration type 3 (from build, extended descriptor) */
   LUS_IOCTL_REG_TO_EXT = 3,          /* registration type 4 (to build, extended descriptor) */
   LUS_IOCTL_PRE_UNLOAD = 4,          /* save the state of the listed portsets */
   LUS_IOCTL_RESTORE = 5,             /* restore all listed portsets */
   LUS_IOCTL_BLOCK_PORTS = 6,         /* start the outage clock, block the ports */
   LUS_IOCTL_PRE_DUAL_LOAD = 7,       /* old clients clean up before the new build loads */
   LUS_IOCTL_GLOBAL_CONFIG = 8,       /* global configuration handed over */
   LUS_IOCTL_PS_UPGRADE = 9,          /* upgrade one portset in the upgrade world */
   LUS_IOCTL_UPGRADE_PORT = 10,       /* single-port container filter upgrade */
   LUS_IOCTL_STATE_COLLECTED = 11,    /* state collection complete notice */
   LUS_IOCTL_RESTORE_COMPLETE = 12,   /* is any saved state left? */
   LUS_IOCTL_FDP_OP = 13,             /* fast-datapath mode of one portset */
   LUS_IOCTL_CSWITCH_EVENTS = 14,     /* raise switch deactivate/activate events */
   LUS_IOCTL_NUM_CMDS = 15
};

#define LUS_MAX_PORTSETS 128
#define LUS_PORTSET_NAME_LEN 128
#define LUS_MAX_OUTAGE_UNLIMITED 0

typedef struct LusIoctlHeader {
   uint32_t length;     /* payload size in bytes */
   uint32_t reserved0;
   uint64_t data;       /* user address of the payload */
   uint64_t reserved1;
} LusIoctlHeader;

#pragma pack(push, 1)

/* One portset entry of a LusPortsetQuery. */
typedef struct LusPortsetEntry {
   char psName[LUS_PORTSET_NAME_LEN];
   uint32_t op;        /* command 13: 0 deactivate, 1 activate */
   uint32_t fdpMode;   /* command 13: mode to activate */
} LusPortsetEntry;

/* Portset-list payload of commands 0-6, 13 and 14: numPortsets entries follow. */
typedef struct LusPortsetQuery {
   uint32_t numPortsets;
   int8_t legacyEdition;
   uint32_t maxOutageTime;   /* seconds; command 6 only; 0 = no limit */
   LusPortsetEntry entries[];
} LusPortsetQuery;

/* One module entry of a LusPsUpgradeQuery. */
typedef struct LusPsUpgradeModule {
   uint8_t isFromBuild;
   uint32_t moduleID;
} LusPsUpgradeModule;

/* Portset-upgrade payload of command 9: numModules entries follow. */
typedef struct LusPsUpgradeQuery {
   uint32_t numModules;
   char psName[LUS_PORTSET_NAME_LEN];
   LusPsUpgradeModule modules[];
} LusPsUpgradeQuery;

/* Single-port payload of command 10. */
typedef struct LusUpgradePortQuery {
   uint32_t arg0;
   uint32_t portID;
   int8_t mode;
} LusUpgradePortQuery;

#pragma pack(pop)

/* Host command record of the fast-datapath switch command (command 13). */
#define LUS_FDP_OP_NAME "tarn.fdp.switch.upgrade.op"
#define LUS_FDP_SWITCH_CMD 0xFFF
typedef struct LusFdpCmdRecord {
   char name[128];
   uint32_t length;      /* 16 */
   uint8_t pad0[8];
   uint8_t deactivate;   /* 1 deactivate from build, 0 activate to build */
   uint8_t pad1[3];
   uint32_t moduleID;
   uint32_t fdpMode;
} LusFdpCmdRecord;

/* Sizes of the variable payloads. */
#define LUS_PORTSET_QUERY_SIZE(n) ((uint64_t)(n) * sizeof(LusPortsetEntry) + sizeof(LusPortsetQuery))
#define LUS_PS_UPGRADE_QUERY_SIZE(n) ((uint64_t)(n) * sizeof(LusPsUpgradeModule) + sizeof(LusPsUpgradeQuery))

#ifdef __cplusplus
#define LUS_STATIC_ASSERT static_assert
#else
#define LUS_STATIC_ASSERT _Static_assert
#endif

LUS_STATIC_ASSERT(sizeof(LusIoctlHeader) == 24, "ioctl header is 24 bytes");
LUS_STATIC_ASSERT(offsetof(LusIoctlHeader, length) == 0, "length at 0");
LUS_STATIC_ASSERT(offsetof(LusIoctlHeader, data) == 8, "data at 8");
LUS_STATIC_ASSERT(sizeof(LusPortsetEntry) == 136, "portset entry is 136 bytes");
LUS_STATIC_ASSERT(offsetof(LusPortsetEntry, op) == 128, "op at 128 of an entry");
LUS_STATIC_ASSERT(offsetof(LusPortsetEntry, fdpMode) == 132, "fdpMode at 132 of an entry");
LUS_STATIC_ASSERT(sizeof(LusPortsetQuery) == 9, "portset query header is 9 bytes");
LUS_STATIC_ASSERT(offsetof(LusPortsetQuery, legacyEdition) == 4, "legacyEdition at 4");
LUS_STATIC_ASSERT(offsetof(LusPortsetQuery, maxOutageTime) == 5, "maxOutageTime at 5");
LUS_STATIC_ASSERT(offsetof(LusPortsetQuery, entries) == 9, "entries at 9");
LUS_STATIC_ASSERT(sizeof(LusPsUpgradeModule) == 5, "module entry is 5 bytes");
LUS_STATIC_ASSERT(sizeof(LusPsUpgradeQuery) == 132, "upgrade query header is 132 bytes");
LUS_STATIC_ASSERT(offsetof(LusPsUpgradeQuery, psName) == 4, "psName at 4");
LUS_STATIC_ASSERT(offsetof(LusPsUpgradeQuery, modules) == 132, "modules at 132");
LUS_STATIC_ASSERT(sizeof(LusUpgradePortQuery) == 9, "single-port payload is 9 bytes");
LUS_STATIC_ASSERT(offsetof(LusUpgradePortQuery, portID) == 4, "portID at 4");
LUS_STATIC_ASSERT(offsetof(LusUpgradePortQuery, mode) == 8, "mode at 8");
LUS_STATIC_ASSERT(sizeof(LusFdpCmdRecord) == 152, "fast-datapath record is 152 bytes");
LUS_STATIC_ASSERT(offsetof(LusFdpCmdRecord, length) == 128, "length at 128");
LUS_STATIC_ASSERT(offsetof(LusFdpCmdRecord, deactivate) == 140, "deactivate at 140");
LUS_STATIC_ASSERT(offsetof(LusFdpCmdRecord, moduleID) == 144, "moduleID at 144");
LUS_STATIC_ASSERT(offsetof(LusFdpCmdRecord, fdpMode) == 148, "fdpMode at 148");

#endif /* LUS_IOCTL_H */
