/*
 * datapath.h -- what the simulated host tells the sample datapath modules,
 * beyond the host-kernel interface: the "new datapath takes the portset
 * over" notice.  Simulator-only, like ledger.h.
 *
 * On a host, the new build's datapath learns from its own control plane
 * when it may carry a portset's ports; here a test or a scenario says so
 * (hyksim::TakeOverPortset), and the host posts this portset event on its
 * event threads.  The switch module of that build answers by posting
 * "com.corvid.tarn.kcp.port.unblock" for each port it is ready to carry.
 */
#ifndef HYKSIM_DATAPATH_H
#define HYKSIM_DATAPATH_H

#include <stdint.h>

#define HYKSIM_EVENT_TAKEOVER "com.corvid.hyksim.datapath.takeover"

/* Payload of the takeover event: the build that takes over, and this
 * thread's share of the ports (port i of the walk is its when
 * i % shares == share). */
typedef struct hyksim_TakeOver {
   uint32_t build;
   uint32_t share;
   uint32_t shares;
} hyksim_TakeOver;

#endif /* HYKSIM_DATAPATH_H */
