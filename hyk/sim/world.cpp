// world.cpp -- worlds, the host's kernel threads: creation, the bounded
// wait for death that reaps them, and sleeping on host time.
//
// A world is a real thread running the start function with its module
// pushed.  Its record stays until somebody reaps it with
// hyk_WorldWaitForDeath, as a dead kernel thread does until it is waited for.
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "core.h"
#include "hyksim/schedule.h"
#include "scheduler.h"

namespace hyksim {
namespace {

// How long one hyk_WorldWaitForDeath waits (real time) before it gives the
// caller a chance to look around and call again.
constexpr auto kWaitSlice = std::chrono::milliseconds(50);
// How long unload and reset wait for a module's world still running.
constexpr auto kDrainLimit = std::chrono::seconds(5);

struct World {
   hyk_WorldID id = 0;
   std::string name;
   hyk_ModuleID module = HYK_INVALID_MODULE_ID;
   std::mutex mu;
   std::condition_variable cv;
   bool done = false;
   hyk_Status exitStatus = HYK_OK;
   HostThread thread;
};

struct Registry {
   std::mutex mu;
   std::map<hyk_WorldID, std::shared_ptr<World>> worlds;
   hyk_WorldID next = 1;
};

Registry &Reg() {
   static Registry *r = new Registry();
   return *r;
}

thread_local hyk_WorldID tWorld = 0;

void WorldMain(std::shared_ptr<World> w, hyk_WorldStartFn start, void *data) {
   tWorld = w->id;
   hyk_Status st = HYK_OK;
   std::string what = "world " + w->name;
   core::RunAsModule(w->module, reinterpret_cast<const void *>(start), what.c_str(),
                     [&] { st = start(data); });
   std::lock_guard<std::mutex> lk(w->mu);
   w->done = true;
   w->exitStatus = st;
   sched::NotifyAll(w->cv);
}

std::shared_ptr<World> Find(hyk_WorldID id) {
   std::lock_guard<std::mutex> lk(Reg().mu);
   auto it = Reg().worlds.find(id);
   return it == Reg().worlds.end() ? nullptr : it->second;
}

// The limit is real time, or virtual time in the controlled mode.
bool WaitDone(World &w, std::chrono::milliseconds limit) {
   std::unique_lock<std::mutex> lk(w.mu);
   if (sched::Active() && sched::Controlled()) {
      const uint64_t until = core::ClockNowUS() + static_cast<uint64_t>(limit.count()) * 1000;
      return sched::Wait(w.cv, lk, until, "a world's death", [&] { return w.done; });
   }
   return w.cv.wait_for(lk, limit, [&] { return w.done; });
}

// Takes the world out of the registry; false when another waiter reaped it.
bool Unlist(hyk_WorldID id) {
   std::lock_guard<std::mutex> lk(Reg().mu);
   return Reg().worlds.erase(id) != 0;
}

// Waits (bounded) for the world and joins it; a world that does not end is
// detached with a report, because its thread cannot be killed.
bool Drain(const std::shared_ptr<World> &w) {
   if (WaitDone(*w, std::chrono::duration_cast<std::chrono::milliseconds>(kDrainLimit))) {
      w->thread.Join();
      return true;
   }
   HostLog("world %s (id %u) does not end; leaving it running", w->name.c_str(), w->id);
   w->thread.Detach();
   return false;
}

hyk_Status SleepVirtual(uint64_t us) {
   if (core::SleepAdvancesClock() && !(sched::Active() && sched::Controlled())) {
      AdvanceClock(us);
      return HYK_OK;
   }
   return core::ClockWaitUntil(core::ClockNowUS() + us) ? HYK_OK : HYK_WAIT_INTERRUPTED;
}

}  // namespace

namespace core {

void WorldsReset() {
   std::map<hyk_WorldID, std::shared_ptr<World>> worlds;
   {
      std::lock_guard<std::mutex> lk(Reg().mu);
      worlds.swap(Reg().worlds);
      Reg().next = 1;
   }
   ClockInterruptSleepers();
   for (auto &[id, w] : worlds) {
      Drain(w);
   }
}

bool WorldsDropModule(hyk_ModuleID id, const std::string &name) {
   std::vector<std::shared_ptr<World>> left;
   {
      std::lock_guard<std::mutex> lk(Reg().mu);
      for (auto it = Reg().worlds.begin(); it != Reg().worlds.end();) {
         if (it->second->module == id) {
            left.push_back(it->second);
            it = Reg().worlds.erase(it);
         } else {
            ++it;
         }
      }
   }
   bool allEnded = true;
   for (auto &w : left) {
      bool ended = WaitDone(*w, std::chrono::milliseconds(0));
      HostLog("module %s left world %s (id %u, %s) unreaped", name.c_str(), w->name.c_str(),
              w->id, ended ? "ended" : "still running");
      allEnded = Drain(w) && allEnded;
   }
   return allEnded;
}

size_t WorldCount() {
   std::lock_guard<std::mutex> lk(Reg().mu);
   return Reg().worlds.size();
}

}  // namespace core
}  // namespace hyksim

using namespace hyksim;

extern "C" hyk_Status hyk_WorldCreate(const hyk_WorldProps *props, hyk_WorldID *world) {
   HYKSIM_FAULT_POINT("hyk_WorldCreate");
   AssertMaySleep("hyk_WorldCreate");
   if (props == nullptr || world == nullptr || props->start == nullptr) {
      return HYK_BAD_PARAM;
   }
   hyk_Status st = core::CheckName(props->name);
   if (st != HYK_OK) {
      return st == HYK_NAME_TOO_LONG ? st : hyk_Status(HYK_BAD_PARAM);
   }
   auto w = std::make_shared<World>();
   w->name = props->name;
   w->module = props->moduleID;
   std::lock_guard<std::mutex> lk(Reg().mu);
   w->id = Reg().next++;
   try {
      // Started under the registry lock so the world is listed before it runs.
      w->thread = HostThread("world " + w->name,
                             [w, start = props->start, data = props->data] { WorldMain(w, start, data); });
   } catch (const std::system_error &) {
      return HYK_NO_RESOURCES;
   }
   Reg().worlds[w->id] = w;
   *world = w->id;
   return HYK_OK;
}

extern "C" hyk_Status hyk_WorldWaitForDeath(hyk_WorldID world) {
   HYKSIM_FAULT_POINT("hyk_WorldWaitForDeath");
   AssertMaySleep("hyk_WorldWaitForDeath");
   auto w = Find(world);
   if (w == nullptr) {
      return HYK_NO_SUCH_WORLD;
   }
   if (world == tWorld) {
      Panic("world %s waits for its own death", w->name.c_str());
   }
   if (!WaitDone(*w, kWaitSlice)) {
      return HYK_WAIT_INTERRUPTED;
   }
   if (!Unlist(world)) {
      return HYK_NO_SUCH_WORLD;
   }
   w->thread.Join();
   return HYK_OK;
}

extern "C" hyk_Status hyk_WorldSleep(uint64_t us) {
   HYKSIM_FAULT_POINT("hyk_WorldSleep");
   AssertMaySleep("hyk_WorldSleep");
   if (core::InTimerCallback()) {
      Panic("hyk_WorldSleep called from a timer callback");
   }
   if (core::VirtualClock()) {
      return SleepVirtual(us);
   }
   return core::ClockWaitUntil(core::ClockNowUS() + us) ? HYK_OK : HYK_WAIT_INTERRUPTED;
}

extern "C" hyk_WorldID hyk_WorldCurrentID(void) { return tWorld; }
