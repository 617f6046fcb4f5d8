/*
 * hyk_netevent.h -- network events and port events.
 *
 * Network events are named.  A subscriber receives every post of that name,
 * synchronously, on the posting thread, with its own module ID pushed, in the
 * order of subscription.  A post on a portset carries the portset; a global
 * post carries none.  Port events are raised by the host itself for one port
 * (HYK_PORT_EVENT_STATE_ENABLE when it enables a port).
 *
 * Registering an event name records its producer; posting does not require
 * it (datapath modules post events registered by others).
 */
#ifndef HYK_NETEVENT_H
#define HYK_NETEVENT_H

#include "hyk_types.h"

HYK_EXTERN_C_BEGIN

#define HYK_NETEVENT_NAME_MAX 128
#define HYK_PORT_EVENT_STATE_ENABLE "port.state.enable"

/*
 * Handler of a network event.
 *   ps: the portset of a portset post, NULL for a global post.
 *   eventName: the posted name.  eventData, dataLen: the post's payload.
 *   cbData: the subscriber's data.
 * Its status is the subscriber's; the first failing subscriber's status is
 * returned by the post (delivery goes on to the others).
 */
typedef hyk_Status (*hyk_NetEventCallback)(hyk_Portset *ps, const char *eventName, void *eventData,
                                           uint32_t dataLen, void *cbData);

/* Handler of a port event. */
typedef hyk_Status (*hyk_PortEventCallback)(hyk_PortID portID, const char *eventName, void *cbData);

/*
 * hyk_NetEventRegister / hyk_NetEventUnregister -- declare or withdraw an event
 * name produced by the calling module.
 * Returns HYK_OK; HYK_BAD_PARAM; HYK_NAME_TOO_LONG; HYK_EXISTS (register of a
 * registered name); HYK_NOT_FOUND (unregister of an unknown name).
 * Context: a thread that may block.
 */
hyk_Status hyk_NetEventRegister(const char *name);
hyk_Status hyk_NetEventUnregister(const char *name);

/*
 * hyk_NetEventPortsetEventSubscribe -- subscribes the current module to the
 * network event `name` (portset and global posts alike).
 *   flags: 0.  handle: out.
 * Returns HYK_OK; HYK_BAD_PARAM; HYK_NAME_TOO_LONG.
 * Context: a thread that may block.  Allowed inside a delivery: the new
 * subscription receives later posts, not the one being delivered.
 */
hyk_Status hyk_NetEventPortsetEventSubscribe(uint32_t flags, const char *name, hyk_NetEventCallback cb,
                                             void *cbData, hyk_NetEventHandle *handle);

/*
 * hyk_NetEventPortsetEventUnsubscribe -- ends a subscription.  When it
 * returns, the handler is not running on any other thread and is never
 * called again; a handler may unsubscribe itself.
 * Returns HYK_OK or HYK_INVALID_HANDLE (also for a port-event handle).
 * Context: a thread that may block.
 */
hyk_Status hyk_NetEventPortsetEventUnsubscribe(hyk_NetEventHandle handle);

/*
 * hyk_NetEventPortEventSubscribe -- subscribes the current module to the port
 * event `name` (HYK_PORT_EVENT_STATE_ENABLE).
 * Returns HYK_OK; HYK_BAD_PARAM; HYK_NOT_FOUND for a port event the host
 * does not raise.
 */
hyk_Status hyk_NetEventPortEventSubscribe(uint32_t flags, const char *name, hyk_PortEventCallback cb,
                                          void *cbData, hyk_NetEventHandle *handle);

/* The same for a port-event subscription. */
hyk_Status hyk_NetEventPortEventUnsubscribe(hyk_NetEventHandle handle);

/*
 * hyk_NetEventPost -- posts a global network event: every subscriber of
 * `name` is called before the post returns.
 *   flags: 0.  payload, len: handed to each subscriber as it stands.
 * Returns HYK_OK (also with no subscriber); HYK_BAD_PARAM; the first failing
 * subscriber's status.
 * Context: any thread.  The post itself never sleeps; the handlers run on the
 * posting thread with whatever the poster holds (a handler that sleeps under
 * a poster's spinlock is caught where it sleeps).
 */
hyk_Status hyk_NetEventPost(uint32_t flags, const char *name, void *payload, uint32_t len);

/*
 * hyk_NetEventPortsetEventPost -- the same, on an acquired portset `ps`
 * (HYK_BAD_PARAM when `ps` is not a portset the host handed out).
 */
hyk_Status hyk_NetEventPortsetEventPost(uint32_t flags, const char *name, hyk_Portset *ps,
                                        void *payload, uint32_t len);

HYK_EXTERN_C_END

#endif /* HYK_NETEVENT_H */
