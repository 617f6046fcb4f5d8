/*
 * hyk_log.h -- log components and the host's plain printers.
 *
 * A log component has a name and a current level; a line of level N is
 * emitted when the component's level is at least N.  A line costs the caller
 * little: the host copies the format and the arguments (string arguments
 * included) and formats off the caller's thread.  Lines go to the host log.
 */
#ifndef HYK_LOG_H
#define HYK_LOG_H

#include "hyk_types.h"

HYK_EXTERN_C_BEGIN

/* Throttle kinds of a log component. */
#define HYK_LOG_THROTTLE_NONE 0
/* Count throttle: within one second of host time the first 100 lines pass,
 * after that one line in 10; when the next second begins the host logs how
 * many lines the component dropped in the last one. */
#define HYK_LOG_THROTTLE_COUNT 1

/* Urgency passed to hyk_LogLevel. */
#define HYK_LOG_URGENCY_NORMAL 1
#define HYK_LOG_URGENCY_ALERT 2

typedef struct hyk_LogProps {
   const char *name;      /* component name, at most HYK_NAME_LEN - 1 characters */
   int32_t defaultLevel;  /* initial level */
   hyk_HeapID heap;       /* heap the component's bookkeeping is charged to; 0 = host's */
   uint32_t throttle;     /* HYK_LOG_THROTTLE_* */
} hyk_LogProps;

/*
 * hyk_LogRegister -- registers a log component.
 * Returns HYK_OK; HYK_BAD_PARAM for a null argument or an unknown throttle
 * kind; HYK_NAME_TOO_LONG; HYK_EXISTS when a component of that name and
 * throttle kind is registered already.
 * Context: a thread that may block.
 */
hyk_Status hyk_LogRegister(const hyk_LogProps *props, hyk_LogHandle *handle);

/*
 * hyk_LogUnregister -- removes a component.  Lines already logged are kept.
 * Returns HYK_OK or HYK_INVALID_HANDLE.
 * Context: a thread that may block.
 */
hyk_Status hyk_LogUnregister(hyk_LogHandle handle);

/*
 * hyk_LogLevel -- logs one line through a component at `level` when the
 * component's current level is at least `level`.
 *   urgency: HYK_LOG_URGENCY_*.  fmt: printf format; %s arguments are copied
 *   at the call, so they may change or go away afterwards.
 * Returns the number of bytes queued (0 when filtered or throttled).
 * Context: any, including with spinlocks held and in timer or event context.
 */
int hyk_LogLevel(uint32_t urgency, hyk_LogHandle handle, int32_t level, const char *fmt, ...)
   HYK_PRINTF(4, 5);

/*
 * hyk_LogGetCurrentLogLevel -- the component's current level; 0 for an
 * invalid handle.  Context: any.
 */
int32_t hyk_LogGetCurrentLogLevel(hyk_LogHandle handle);

/*
 * hyk_LogSetLevel -- changes the component's current level (the host's
 * administrative interface).  Returns HYK_OK or HYK_INVALID_HANDLE.
 */
hyk_Status hyk_LogSetLevel(hyk_LogHandle handle, int32_t level);

/*
 * _hyk_LogMessage / _hyk_WarningMessage -- the host's plain printers: the
 * formatted text goes to the host log as it stands, with no component, tag
 * or level filter (a warning is marked as such in the host log).
 * Context: any.
 */
void _hyk_LogMessage(const char *fmt, ...) HYK_PRINTF(1, 2);
void _hyk_WarningMessage(const char *fmt, ...) HYK_PRINTF(1, 2);

HYK_EXTERN_C_END

#endif /* HYK_LOG_H */
