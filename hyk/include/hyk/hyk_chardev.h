/*
 * hyk_chardev.h -- character devices and copies from user memory.
 *
 * A module registers a device by name; user processes open it and issue
 * ioctls whose argument is an address in the process's own memory.  The
 * module copies what it needs with hyk_CopyFromUser, which fails on any
 * address range outside the calling process's memory.
 */
#ifndef HYK_CHARDEV_H
#define HYK_CHARDEV_H

#include "hyk_types.h"

HYK_EXTERN_C_BEGIN

typedef struct hyk_CharDevFile {
   hyk_CharDevHandle device;
   uint32_t processID;   /* the user process that opened the device */
   void *privateData;    /* the device's, per open */
} hyk_CharDevFile;

typedef hyk_Status (*hyk_CharDevOpenFn)(hyk_CharDevFile *file);
typedef hyk_Status (*hyk_CharDevCloseFn)(hyk_CharDevFile *file);
typedef hyk_Status (*hyk_CharDevIoctlFn)(hyk_CharDevFile *file, uint32_t cmd, hyk_UserVA arg);
typedef hyk_Status (*hyk_CharDevReadFn)(hyk_CharDevFile *file, hyk_UserVA buf, uint64_t len, uint64_t *done);
typedef hyk_Status (*hyk_CharDevWriteFn)(hyk_CharDevFile *file, hyk_UserVA buf, uint64_t len, uint64_t *done);
typedef hyk_Status (*hyk_CharDevPollFn)(hyk_CharDevFile *file, uint32_t *events);
typedef hyk_Status (*hyk_CharDevUnregCleanupFn)(void *privateData);

/* Operations of a device; an empty slot refuses with HYK_NOT_SUPPORTED. */
typedef struct hyk_CharDevOps {
   hyk_CharDevOpenFn open;
   hyk_CharDevCloseFn close;
   hyk_CharDevIoctlFn ioctl;
   hyk_CharDevReadFn read;
   hyk_CharDevWriteFn write;
   hyk_CharDevPollFn poll;
} hyk_CharDevOps;

/*
 * hyk_CharDevRegister -- registers device `name` owned by `moduleID`.  The
 * host calls the operations with the owner pushed as current module.
 *   cleanup: called after the device is unregistered, with `privateData`.
 * Returns HYK_OK; HYK_BAD_PARAM; HYK_NAME_TOO_LONG; HYK_EXISTS.
 * Context: a thread that may block.
 */
hyk_Status hyk_CharDevRegister(hyk_ModuleID moduleID, const char *name, const hyk_CharDevOps *ops,
                               hyk_CharDevUnregCleanupFn cleanup, void *privateData,
                               hyk_CharDevHandle *handle);

/*
 * hyk_CharDevUnregister -- unregisters a device; new opens fail at once.
 * Returns HYK_OK; HYK_INVALID_HANDLE; HYK_BUSY while a file is open.
 */
hyk_Status hyk_CharDevUnregister(hyk_CharDevHandle handle);

/*
 * hyk_CopyFromUser -- copies len bytes at user address `src` of the calling
 * process into `dst`.  Returns HYK_OK; HYK_BAD_ADDRESS when any byte of the
 * range is outside the process's memory (nothing is copied) or the caller is
 * not serving a user process.
 * Context: a thread serving a user process's call, no spinlock held.
 */
hyk_Status hyk_CopyFromUser(void *dst, hyk_UserVA src, uint32_t len);

/* hyk_CopyToUser -- the reverse copy, with the same checks. */
hyk_Status hyk_CopyToUser(hyk_UserVA dst, const void *src, uint32_t len);

HYK_EXTERN_C_END

#endif /* HYK_CHARDEV_H */
