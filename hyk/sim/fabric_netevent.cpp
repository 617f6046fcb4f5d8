// fabric_netevent.cpp -- network events and port events of the simulated host.
//
// Names are registered by their producers; subscribers of a name receive
// every post of it, synchronously on the posting thread, in the order they
// subscribed, each with its own module pushed as current.  The registry lock
// is never held while a handler runs: handlers post, subscribe and
// unsubscribe freely, and posts for different ports run at once on different
// threads (the host's event context is not one thread).
//
// Unsubscribing waits for deliveries of that subscription still running on
// other threads, so a module that unsubscribes in its cleanup is never
// called again once the call returns -- its code may be gone right after.
// A handler may unsubscribe itself; the host does not wait for itself.
#include <algorithm>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "fabric_common.h"
#include "hyksim/datapath.h"
#include "hyksim/fabric.h"
#include "hyksim/schedule.h"
#include "scheduler.h"

namespace hyksim::fabric {

namespace {

struct Subscription {
   uint64_t id = 0;
   std::string event;
   hyk_ModuleID owner = HYK_INVALID_MODULE_ID;
   bool portEvent = false;
   hyk_NetEventCallback netCb = nullptr;
   hyk_PortEventCallback portCb = nullptr;
   void *cbData = nullptr;
   // Guarded by Events::mu.
   bool removed = false;
   uint32_t inflight = 0;
};

using SubPtr = std::shared_ptr<Subscription>;

using Targeted = std::shared_ptr<const std::vector<SubPtr>>;

// The subscribers of one name, as of one generation of the subscriptions.
struct CachedTargets {
   uint64_t generation = 0;
   Targeted subs;
};

struct Events {
   std::mutex mu;
   std::condition_variable idle;   // a delivery ended
   std::map<uint64_t, SubPtr> subs;   // by handle: handles grow, so this is subscription order
   std::map<std::string, hyk_ModuleID> registered;   // name -> producer
   uint64_t nextHandle = 1;
   // Moves on with every change of `subs`.  A post takes its subscribers
   // from `targets` while this holds: a restore event per port no longer
   // walks every subscription and copies its matches into a new vector.
   uint64_t generation = 1;
   std::map<std::string, CachedTargets, std::less<>> targets[2];   // [portEvent], names with subscribers
};

// Subscriptions whose handler runs on this thread now (innermost last).
thread_local std::vector<const Subscription *> tDelivering;

void DropAll(Events &e) {
   std::lock_guard<std::mutex> lk(e.mu);
   for (auto &[id, sub] : e.subs) {
      sub->removed = true;
   }
   e.subs.clear();
   e.generation++;
   e.targets[0].clear();
   e.targets[1].clear();
   e.registered.clear();
   e.idle.notify_all();
}

// What a module left behind is reported and dropped; its handlers are never
// called again (their code is gone).
void DropModule(Events &e, hyk_ModuleID id, const std::string &module) {
   std::lock_guard<std::mutex> lk(e.mu);
   for (auto it = e.subs.begin(); it != e.subs.end();) {
      Subscription &s = *it->second;
      if (s.owner != id) {
         ++it;
         continue;
      }
      HostLog("module %s left its subscription to %s event %s behind; dropped", module.c_str(),
              s.portEvent ? "port" : "network", s.event.c_str());
      s.removed = true;
      it = e.subs.erase(it);
      e.generation++;
   }
   for (auto it = e.registered.begin(); it != e.registered.end();) {
      if (it->second != id) {
         ++it;
         continue;
      }
      HostLog("module %s left network event %s registered; dropped", module.c_str(), it->first.c_str());
      it = e.registered.erase(it);
   }
}

Events &Ev() {
   // Never destroyed: posting threads may outlive static destruction.
   static Events *events = [] {
      auto *e = new Events;
      OnReset([e] { DropAll(*e); });
      OnModuleUnloaded([e](hyk_ModuleID id, const std::string &name) { DropModule(*e, id, name); });
      return e;
   }();
   return *events;
}

// Checks an event name: HYK_OK, HYK_BAD_PARAM or HYK_NAME_TOO_LONG.
hyk_Status CheckName(const char *name, std::string_view *out) {
   if (name == nullptr) {
      return HYK_BAD_PARAM;
   }
   size_t n = BoundedLength(name, HYK_NETEVENT_NAME_MAX);
   if (n == 0) {
      return HYK_BAD_PARAM;
   }
   if (n == HYK_NETEVENT_NAME_MAX) {
      return HYK_NAME_TOO_LONG;
   }
   *out = std::string_view(name, n);
   return HYK_OK;
}

// The subscribers of `event` now, in subscription order.
Targeted Targets(Events &e, std::string_view event, bool portEvent) {
   static const Targeted kNone = std::make_shared<const std::vector<SubPtr>>();
   std::lock_guard<std::mutex> lk(e.mu);
   auto &cache = e.targets[portEvent ? 1 : 0];
   auto it = cache.find(event);
   if (it != cache.end() && it->second.generation == e.generation) {
      return it->second.subs;
   }
   auto targets = std::make_shared<std::vector<SubPtr>>();
   for (const auto &[id, sub] : e.subs) {
      if (sub->portEvent == portEvent && sub->event == event) {
         targets->push_back(sub);
      }
   }
   if (targets->empty()) {
      // Only names with subscribers are kept: posts of any other name
      // (a fuzzer's, say) leave nothing behind.
      if (it != cache.end()) {
         cache.erase(it);
      }
      return kNone;
   }
   if (it == cache.end()) {
      it = cache.emplace(std::string(event), CachedTargets{}).first;
   }
   it->second = CachedTargets{e.generation, std::move(targets)};
   return it->second.subs;
}

// Runs `call` for each subscription still subscribed when its turn comes;
// returns the first failing status, after calling every subscriber.
template <typename Call>
hyk_Status Deliver(const Targeted &targets, Call &&call) {
   Events &e = Ev();
   hyk_Status first = HYK_OK;
   for (const SubPtr &sub : *targets) {
      {
         std::lock_guard<std::mutex> lk(e.mu);
         if (sub->removed) {
            continue;
         }
         sub->inflight++;
      }
      tDelivering.push_back(sub.get());
      hyk_Status status = call(*sub);
      tDelivering.pop_back();
      {
         std::lock_guard<std::mutex> lk(e.mu);
         sub->inflight--;
      }
      ::hyksim::sched::NotifyAll(e.idle);
      if (status != HYK_OK && first == HYK_OK) {
         first = status;
      }
   }
   return first;
}

hyk_Status DeliverNet(const char *event, hyk_Portset *ps, void *payload, uint32_t len) {
   return Deliver(Targets(Ev(), event, false), [&](const Subscription &s) {
      ModuleScope scope(s.owner, reinterpret_cast<const void *>(s.netCb));
      return s.netCb(ps, event, payload, len, s.cbData);
   });
}

hyk_Status Subscribe(const char *op, uint32_t flags, const char *name, bool portEvent,
                     hyk_NetEventCallback netCb, hyk_PortEventCallback portCb, void *cbData,
                     hyk_NetEventHandle *handle) {
   AssertMaySleep(op);
   if (flags != 0 || handle == nullptr || (netCb == nullptr && portCb == nullptr)) {
      return HYK_BAD_PARAM;
   }
   std::string_view event;
   hyk_Status status = CheckName(name, &event);
   if (status != HYK_OK) {
      return status;
   }
   if (portEvent && event != HYK_PORT_EVENT_STATE_ENABLE) {
      return HYK_NOT_FOUND;   // the host raises no other port event
   }
   auto sub = std::make_shared<Subscription>();
   sub->event = std::string(event);
   sub->owner = hyk_ModuleCurrentID();
   sub->portEvent = portEvent;
   sub->netCb = netCb;
   sub->portCb = portCb;
   sub->cbData = cbData;
   Events &e = Ev();
   std::lock_guard<std::mutex> lk(e.mu);
   sub->id = e.nextHandle++;
   e.subs.emplace(sub->id, sub);
   e.generation++;
   *handle = sub->id;
   return HYK_OK;
}

hyk_Status Unsubscribe(const char *op, hyk_NetEventHandle handle, bool portEvent) {
   AssertMaySleep(op);
   Events &e = Ev();
   std::unique_lock<std::mutex> lk(e.mu);
   auto it = e.subs.find(handle);
   if (it == e.subs.end() || it->second->portEvent != portEvent) {
      return HYK_INVALID_HANDLE;
   }
   SubPtr sub = it->second;
   e.subs.erase(it);
   e.generation++;
   sub->removed = true;
   auto own = static_cast<uint32_t>(std::count(tDelivering.begin(), tDelivering.end(), sub.get()));
   ::hyksim::sched::Wait(e.idle, lk, ::hyksim::sched::kNoDeadline, "deliveries of an unsubscribed event",
               [&] { return sub->inflight <= own; });
   return HYK_OK;
}

hyk_Status CheckPost(uint32_t flags, const char *name, const void *payload, uint32_t len,
                     std::string_view *event) {
   if (flags != 0 || (payload == nullptr && len != 0)) {
      return HYK_BAD_PARAM;
   }
   return CheckName(name, event) == HYK_OK ? HYK_OK : HYK_BAD_PARAM;
}

}  // namespace

hyk_Status RaisePortEvent(hyk_PortID port, const char *event) {
   return Deliver(Targets(Ev(), event, true), [&](const Subscription &s) {
      ModuleScope scope(s.owner, reinterpret_cast<const void *>(s.portCb));
      return s.portCb(port, event, s.cbData);
   });
}

}  // namespace hyksim::fabric

// ---- control API -------------------------------------------------------------------

namespace hyksim {

// Subscribers may write into what they are handed; they get the host's copy.
hyk_Status PostPortsetEvent(const std::string &portset, const std::string &name, const void *payload,
                            uint32_t len) {
   hyk_Portset *ps = fabric::BorrowPortset(portset);
   if (ps == nullptr) {
      return HYK_NOT_FOUND;
   }
   fabric::NotePortsetEvent(ps, name);
   std::vector<uint8_t> copy(static_cast<const uint8_t *>(payload),
                             static_cast<const uint8_t *>(payload) + (payload ? len : 0));
   hyk_Status status = fabric::DeliverNet(name.c_str(), ps, payload ? copy.data() : nullptr, len);
   fabric::ReturnPortset(ps);
   return status;
}

hyk_Status TakeOverPortset(const std::string &portset, uint32_t build, unsigned threads) {
   if (threads == 0) {
      return HYK_BAD_PARAM;
   }
   std::vector<hyk_Status> results(threads, HYK_OK);
   std::vector<HostThread> posters;
   for (unsigned i = 0; i < threads; i++) {
      posters.emplace_back("takeover " + std::to_string(i), [&, i] {
         hyksim_TakeOver notice{build, i, threads};
         results[i] = PostPortsetEvent(portset, HYKSIM_EVENT_TAKEOVER, &notice, sizeof(notice));
      });
   }
   for (auto &t : posters) t.Join();
   for (hyk_Status s : results) {
      if (s != HYK_OK) return s;
   }
   return HYK_OK;
}

hyk_Status PostGlobalEvent(const std::string &name, const void *payload, uint32_t len) {
   std::vector<uint8_t> copy(static_cast<const uint8_t *>(payload),
                             static_cast<const uint8_t *>(payload) + (payload ? len : 0));
   return fabric::DeliverNet(name.c_str(), nullptr, payload ? copy.data() : nullptr, len);
}

std::vector<SubscriptionView> Subscriptions() {
   fabric::Events &e = fabric::Ev();
   std::lock_guard<std::mutex> lk(e.mu);
   std::vector<SubscriptionView> views;
   for (const auto &[id, sub] : e.subs) {
      views.push_back(SubscriptionView{sub->event, sub->owner, sub->portEvent});
   }
   return views;
}

std::vector<std::string> RegisteredEvents() {
   fabric::Events &e = fabric::Ev();
   std::lock_guard<std::mutex> lk(e.mu);
   std::vector<std::string> names;
   for (const auto &[name, producer] : e.registered) {
      names.push_back(name);
   }
   return names;
}

}  // namespace hyksim

// ---- module interface ------------------------------------------------------------------

using hyksim::fabric::Ev;
using hyksim::fabric::Events;

extern "C" {

hyk_Status hyk_NetEventRegister(const char *name) {
   HYKSIM_FAULT_POINT("hyk_NetEventRegister");
   hyksim::AssertMaySleep("hyk_NetEventRegister");
   std::string_view event;
   hyk_Status status = hyksim::fabric::CheckName(name, &event);
   if (status != HYK_OK) {
      return status;
   }
   hyk_ModuleID producer = hyk_ModuleCurrentID();
   Events &e = Ev();
   std::lock_guard<std::mutex> lk(e.mu);
   return e.registered.emplace(std::string(event), producer).second ? HYK_OK : HYK_EXISTS;
}

hyk_Status hyk_NetEventUnregister(const char *name) {
   HYKSIM_FAULT_POINT("hyk_NetEventUnregister");
   hyksim::AssertMaySleep("hyk_NetEventUnregister");
   std::string_view event;
   hyk_Status status = hyksim::fabric::CheckName(name, &event);
   if (status != HYK_OK) {
      return status;
   }
   Events &e = Ev();
   std::lock_guard<std::mutex> lk(e.mu);
   return e.registered.erase(std::string(event)) != 0 ? HYK_OK : HYK_NOT_FOUND;
}

hyk_Status hyk_NetEventPortsetEventSubscribe(uint32_t flags, const char *name, hyk_NetEventCallback cb,
                                             void *cbData, hyk_NetEventHandle *handle) {
   HYKSIM_FAULT_POINT("hyk_NetEventPortsetEventSubscribe");
   return hyksim::fabric::Subscribe("hyk_NetEventPortsetEventSubscribe", flags, name, false, cb, nullptr,
                                    cbData, handle);
}

hyk_Status hyk_NetEventPortsetEventUnsubscribe(hyk_NetEventHandle handle) {
   HYKSIM_FAULT_POINT("hyk_NetEventPortsetEventUnsubscribe");
   return hyksim::fabric::Unsubscribe("hyk_NetEventPortsetEventUnsubscribe", handle, false);
}

hyk_Status hyk_NetEventPortEventSubscribe(uint32_t flags, const char *name, hyk_PortEventCallback cb,
                                          void *cbData, hyk_NetEventHandle *handle) {
   HYKSIM_FAULT_POINT("hyk_NetEventPortEventSubscribe");
   return hyksim::fabric::Subscribe("hyk_NetEventPortEventSubscribe", flags, name, true, nullptr, cb,
                                    cbData, handle);
}

hyk_Status hyk_NetEventPortEventUnsubscribe(hyk_NetEventHandle handle) {
   HYKSIM_FAULT_POINT("hyk_NetEventPortEventUnsubscribe");
   return hyksim::fabric::Unsubscribe("hyk_NetEventPortEventUnsubscribe", handle, true);
}

// A post does not sleep (handlers run on the posting thread), so it is
// allowed wherever its handlers' own calls are.
hyk_Status hyk_NetEventPost(uint32_t flags, const char *name, void *payload, uint32_t len) {
   HYKSIM_FAULT_POINT("hyk_NetEventPost");
   std::string_view event;
   hyk_Status status = hyksim::fabric::CheckPost(flags, name, payload, len, &event);
   if (status != HYK_OK) {
      return status;
   }
   return hyksim::fabric::DeliverNet(name, nullptr, payload, len);
}

hyk_Status hyk_NetEventPortsetEventPost(uint32_t flags, const char *name, hyk_Portset *ps, void *payload,
                                        uint32_t len) {
   HYKSIM_FAULT_POINT("hyk_NetEventPortsetEventPost");
   std::string_view event;
   hyk_Status status = hyksim::fabric::CheckPost(flags, name, payload, len, &event);
   if (status != HYK_OK) {
      return status;
   }
   if (!hyksim::fabric::NotePortsetEvent(ps, event)) {
      return HYK_BAD_PARAM;   // not a portset the caller holds
   }
   return hyksim::fabric::DeliverNet(name, ps, payload, len);
}

}  // extern "C"
