/*
 * ledger.h -- the state ledger of the simulated host: where every byte of
 * state that a datapath client hands over ends up.
 *
 * This is a simulator-only interface, not part of the host-kernel interface
 * (hyk): the sample clients call the C functions below to count what they
 * saved, restored, converted, found mismatched or refused; tools and tests
 * read the totals through the C++ view.  A module built for a real host
 * would not call it; lus never does.
 *
 * A client is identified by its name (as it registers with lus) and its
 * build number.  Per-port state is counted per port; portset state and
 * global configuration per scope name (a portset's name, or "global").
 * Counting is thread-safe and may be done with spinlocks held.
 */
#ifndef HYKSIM_LEDGER_H
#define HYKSIM_LEDGER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum hyksim_LedgerKind {
   HYKSIM_LEDGER_SAVED = 0,      /* the old build handed these bytes over */
   HYKSIM_LEDGER_RESTORED = 1,   /* the new build got these bytes back */
   HYKSIM_LEDGER_VERIFIED = 2,   /* ... and they equal what the old build held */
   HYKSIM_LEDGER_CONVERTED = 3,  /* ... and were converted from the old build's format */
   HYKSIM_LEDGER_MISMATCHED = 4, /* ... but differ from what the old build held */
   HYKSIM_LEDGER_REFUSED = 5,    /* ... in a format the new build cannot read */
   HYKSIM_LEDGER_NUM_KINDS = 6
} hyksim_LedgerKind;

/* Counts `bytes` of per-port state of one client on one port. */
void hyksim_LedgerPort(const char *client, uint32_t build, uint32_t kind, uint32_t portID,
                       uint64_t bytes);
/* Counts `bytes` of shared state (a portset's, or "global") of one client. */
void hyksim_LedgerShared(const char *client, uint32_t build, uint32_t kind, const char *scope,
                         uint64_t bytes);

#ifdef __cplusplus
}

#include <array>
#include <map>
#include <string>
#include <vector>

namespace hyksim {

// Ports and bytes of one kind.
struct LedgerCount {
   uint64_t ports = 0;   // distinct ports (or scopes) counted
   uint64_t bytes = 0;
};

// One client's figures, both builds together (the old build saves, the new
// build restores), per port and in total.
struct LedgerClientView {
   std::string client;
   std::array<LedgerCount, HYKSIM_LEDGER_NUM_KINDS> perPort{};
   std::array<LedgerCount, HYKSIM_LEDGER_NUM_KINDS> shared{};
   // bytes per kind, by port
   std::map<uint32_t, std::array<uint64_t, HYKSIM_LEDGER_NUM_KINDS>> ports;
   // bytes per kind, by scope
   std::map<std::string, std::array<uint64_t, HYKSIM_LEDGER_NUM_KINDS>> scopes;
   // Ports whose state was saved and never restored (nor refused).
   std::vector<uint32_t> NeverRestored() const;
};

std::vector<LedgerClientView> Ledger();
// The view of one client by name, or an empty view.
LedgerClientView LedgerOf(const std::string &client);
void LedgerClear();
const char *LedgerKindName(uint32_t kind);

}  // namespace hyksim
#endif

#endif /* HYKSIM_LEDGER_H */
