// ledger.cpp -- the state ledger (see include/hyksim/ledger.h).  One mutex
// guards it; the sample clients count from any thread, also with spinlocks
// held (the mutex is a leaf, held for a map update only).
#include "hyksim/ledger.h"

#include <mutex>

namespace hyksim {
namespace {

struct Ledgers {
   std::mutex mu;
   std::map<std::string, LedgerClientView> clients;
};

Ledgers &L() {
   static Ledgers *l = new Ledgers;
   return *l;
}

std::string Bounded(const char *s, size_t max) {
   if (s == nullptr) return "";
   size_t n = 0;
   while (n < max && s[n] != '\0') n++;
   return std::string(s, n);
}

}  // namespace

std::vector<uint32_t> LedgerClientView::NeverRestored() const {
   std::vector<uint32_t> out;
   for (const auto &[port, bytes] : ports) {
      if (bytes[HYKSIM_LEDGER_SAVED] != 0 && bytes[HYKSIM_LEDGER_RESTORED] == 0 &&
          bytes[HYKSIM_LEDGER_REFUSED] == 0) {
         out.push_back(port);
      }
   }
   return out;
}

std::vector<LedgerClientView> Ledger() {
   std::lock_guard<std::mutex> lk(L().mu);
   std::vector<LedgerClientView> out;
   for (const auto &[name, view] : L().clients) out.push_back(view);
   return out;
}

LedgerClientView LedgerOf(const std::string &client) {
   std::lock_guard<std::mutex> lk(L().mu);
   auto it = L().clients.find(client);
   if (it == L().clients.end()) {
      LedgerClientView v;
      v.client = client;
      return v;
   }
   return it->second;
}

void LedgerClear() {
   std::lock_guard<std::mutex> lk(L().mu);
   L().clients.clear();
}

const char *LedgerKindName(uint32_t kind) {
   static const char *names[] = {"saved", "restored", "verified", "converted", "mismatched", "refused"};
   return kind < HYKSIM_LEDGER_NUM_KINDS ? names[kind] : "?";
}

}  // namespace hyksim

namespace hyksim {
namespace {

// Adds `bytes` of `kind` to a client's figures for one port (or scope),
// counting the port once per kind.  `pick` chooses the slot and the totals.
template <typename Pick>
void Note(const char *client, uint32_t kind, uint64_t bytes, Pick pick) {
   if (kind >= HYKSIM_LEDGER_NUM_KINDS) return;
   std::string name = Bounded(client, 32);
   std::lock_guard<std::mutex> lk(L().mu);
   auto &view = L().clients[name];
   view.client = name;
   auto [slot, total] = pick(view);
   if ((*slot)[kind] == 0) (*total)[kind].ports++;
   (*slot)[kind] += bytes;
   (*total)[kind].bytes += bytes;
}

}  // namespace
}  // namespace hyksim

extern "C" void hyksim_LedgerPort(const char *client, uint32_t build, uint32_t kind,
                                  uint32_t portID, uint64_t bytes) {
   (void)build;   // both builds of a client count into one view
   hyksim::Note(client, kind, bytes, [portID](hyksim::LedgerClientView &v) {
      return std::make_pair(&v.ports[portID], &v.perPort);
   });
}

extern "C" void hyksim_LedgerShared(const char *client, uint32_t build, uint32_t kind,
                                    const char *scope, uint64_t bytes) {
   (void)build;
   std::string key = hyksim::Bounded(scope, 128);
   hyksim::Note(client, kind, bytes, [&key](hyksim::LedgerClientView &v) {
      return std::make_pair(&v.scopes[key], &v.shared);
   });
}
