/*
 * hyk_module.h -- module identity, use counts, the current-module stack,
 * module information records, module parameters and the host panic.
 *
 * A module is a shared object loaded by the host.  The host reads its
 * information records and parameter table from the file's ELF sections
 * "hyk_modinfo" and "hyk_modparam" (plain data, no relocations), applies
 * name=value parameters to the parameter variables (found by symbol name, so
 * parameters are extern "C" with default visibility), pushes the module's ID
 * and calls init_module().  cleanup_module() runs at unload, after which the
 * object is closed, so every load starts from fresh globals.
 *
 * Every thread has a stack of current module IDs: the host pushes a module's
 * ID whenever it calls into the module (init, cleanup, event and timer
 * callbacks, world start functions, device operations); a module pushes a
 * client's ID around each call it makes into that client.
 */
#ifndef HYK_MODULE_H
#define HYK_MODULE_H

#include "hyk_types.h"

HYK_EXTERN_C_BEGIN

/* ---- information records ------------------------------------------------ */

#define HYK_MODINFO_KEY_LEN 32
#define HYK_MODINFO_VALUE_LEN 224
typedef struct hyk_ModInfoRecord {
   char key[HYK_MODINFO_KEY_LEN];     /* "namespace", "version", "buildType", "license", ... */
   char value[HYK_MODINFO_VALUE_LEN];
} hyk_ModInfoRecord;

/* Keys the loader checks. */
#define HYK_MODINFO_NAMESPACE "namespace" /* a required interface namespace; may repeat */
#define HYK_MODINFO_VERSION "version"
#define HYK_MODINFO_BUILD_TYPE "buildType"
#define HYK_MODINFO_LICENSE "license"

/* Namespaces this host provides.  A module requiring any other is refused
 * with HYK_VERSION_MISMATCH. */
#define HYK_NAMESPACE_API "com.corvid.hykapi#v3_1_0_0"
#define HYK_NAMESPACE_CORE "hykcore#nover"

#define HYK_CAT_(a, b) a##b
#define HYK_CAT(a, b) HYK_CAT_(a, b)

/* One information record.  `tag` makes the record's symbol unique. */
#define HYK_MODULE_INFO(tag, keyStr, valueStr)                                     \
   __attribute__((used, section("hyk_modinfo"), aligned(8)))                       \
   static const hyk_ModInfoRecord HYK_CAT(hyk_modinfo_, tag) = {keyStr, valueStr}

#define HYK_MODULE_NAMESPACE(tag, ns) HYK_MODULE_INFO(tag, HYK_MODINFO_NAMESPACE, ns)
#define HYK_MODULE_VERSION(v) HYK_MODULE_INFO(version, HYK_MODINFO_VERSION, v)
#define HYK_MODULE_BUILD_TYPE(t) HYK_MODULE_INFO(buildType, HYK_MODINFO_BUILD_TYPE, t)
#define HYK_MODULE_LICENSE(l) HYK_MODULE_INFO(license, HYK_MODINFO_LICENSE, l)

/* ---- parameters ----------------------------------------------------------- */

typedef enum hyk_ParamType {
   HYK_PARAM_INT = 1,   /* int32_t, decimal (sign allowed) or 0x hex */
   HYK_PARAM_UINT = 2,  /* uint32_t */
   HYK_PARAM_ULONG = 3, /* uint64_t */
   HYK_PARAM_STRING = 4 /* char[HYK_PARAM_STRING_LEN] */
} hyk_ParamType;

#define HYK_PARAM_STRING_LEN 128
#define HYK_PARAM_NAME_LEN 64
#define HYK_PARAM_DESC_LEN 184
typedef struct hyk_ParamRecord {
   char name[HYK_PARAM_NAME_LEN]; /* also the variable's symbol name */
   uint32_t type;                 /* hyk_ParamType */
   uint32_t size;                 /* sizeof the variable */
   char description[HYK_PARAM_DESC_LEN];
} hyk_ParamRecord;

/*
 * Declares the module parameter `var` (a global defined by the module with
 * HYK_PARAM_VAR) of the given hyk_ParamType and description text.
 */
#define HYK_MODULE_PARAM(var, ptype, desc)                                          \
   __attribute__((used, section("hyk_modparam"), aligned(8)))                      \
   static const hyk_ParamRecord HYK_CAT(hyk_modparam_, var) = {#var, ptype, sizeof(var), desc}

/* Storage class of a parameter variable: visible to the loader by name.  In
 * C++ a parameter defined with an initialiser is better written inside
 * HYK_EXTERN_C_BEGIN/END with __attribute__((visibility("default"))), since
 * `extern "C" int x = 1;` draws a warning for the initialised extern. */
#ifdef __cplusplus
#define HYK_PARAM_VAR extern "C" __attribute__((visibility("default")))
#else
#define HYK_PARAM_VAR __attribute__((visibility("default")))
#endif

/* The module's entry points, looked up by name by the loader. */
#define HYK_MODULE_ENTRY HYK_PARAM_VAR
typedef int (*hyk_ModuleInitFn)(void);     /* "init_module": 0 = loaded */
typedef void (*hyk_ModuleCleanupFn)(void); /* "cleanup_module" */

/* ---- identity and use counts --------------------------------------------- */

/*
 * hyk_ModuleCurrentID -- the module ID on top of the calling thread's
 * current-module stack (the module the host or a module called into).
 * Returns HYK_INVALID_MODULE_ID when the stack is empty.
 * Context: any.  Cannot fail.
 */
hyk_ModuleID hyk_ModuleCurrentID(void);

/*
 * hyk_ModuleGetID -- the ID of the loaded module of that name.
 *   name: module name, as given at load.
 * Returns the ID, or HYK_INVALID_MODULE_ID when no such module is loaded.
 * Context: any thread that may block.
 */
hyk_ModuleID hyk_ModuleGetID(const char *name);

/*
 * hyk_ModuleGetName -- copies the name of a loaded module into buf (bounded by
 * len, always NUL-terminated when len > 0).
 * Returns HYK_OK, HYK_NOT_FOUND for an unknown ID, HYK_BAD_PARAM for a null buf.
 */
hyk_Status hyk_ModuleGetName(hyk_ModuleID id, char *buf, uint32_t len);

/*
 * hyk_ModuleIncUseCount / hyk_ModuleDecUseCount -- pin or unpin a module.  A
 * module with a non-zero use count cannot be unloaded.
 * Returns HYK_OK, HYK_NOT_FOUND for an unknown ID, and for Dec HYK_FAILURE when
 * the count is already 0.
 * Context: any, including with spinlocks held.
 */
hyk_Status hyk_ModuleIncUseCount(hyk_ModuleID id);
hyk_Status hyk_ModuleDecUseCount(hyk_ModuleID id);

/* Caller-owned record that brackets one push/pop pair. */
typedef struct hyk_ModuleCookie {
   hyk_ModuleID prevID;
   uint32_t depth;
   const void *fn;
} hyk_ModuleCookie;

/*
 * hyk_ModulePushId -- make `id` the current module of this thread before
 * calling `fn` (the function about to be called, recorded for diagnostics).
 *   cookie: caller-owned, must stay valid until the matching pop.
 * hyk_ModulePopId -- undo the most recent push of this thread.  A pop
 * without a push panics the host.
 * Context: any.  Cannot fail.
 */
void hyk_ModulePushId(hyk_ModuleID id, const void *fn, hyk_ModuleCookie *cookie);
void hyk_ModulePopId(void);

/*
 * hyk_PanicWithModuleID -- stops the host with the formatted message,
 * naming module `id` as the culprit.  Does not return.
 * Context: any.
 */
HYK_NORETURN void hyk_PanicWithModuleID(hyk_ModuleID id, const char *fmt, ...) HYK_PRINTF(2, 3);

HYK_EXTERN_C_END

#endif /* HYK_MODULE_H */
