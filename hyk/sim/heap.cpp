// heap.cpp -- named heaps with a maximum size, per-allocation accounting and
// the live-allocation report.
//
// The memory itself comes from malloc, so AddressSanitizer still sees every
// buffer a module touches.  The host keeps its own table of live pointers
// (sharded by address so concurrent allocators rarely meet) with the heap,
// size and caller of each: that table is what catches a free to the wrong
// heap and a double free, and what the report at destroy lists.
//
// Like a kernel's heaps, which all draw on the one page pool, the host's
// heaps draw on one malloc arena (HeapsUseOnePool): memory freed on one CPU
// is what the next allocation on any CPU reuses.  With glibc's default of an
// arena per thread, every thread that allocates (an ioctl, each event
// thread) grows an arena of its own, one mprotect call per allocation.
#include <dlfcn.h>
#include <malloc.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <vector>

#include "core.h"

namespace hyksim {
namespace {

constexpr size_t kShards = 16;
constexpr size_t kFreedHistory = 4096;  // per shard, to tell a double free from a wild one
constexpr size_t kReportLines = 20;     // live allocations listed per destroyed heap

struct Heap {
   hyk_HeapID id = 0;
   std::string name;
   hyk_ModuleID owner = HYK_INVALID_MODULE_ID;
   uint64_t initialSize = 0, maxSize = 0;
   std::atomic<uint64_t> bytesInUse{0}, live{0}, peak{0}, failed{0};
};

struct Alloc {
   hyk_HeapID heap;
   uint32_t size;
   void *ra;
};

// The last frees of a shard, newest last: what tells a double free from a
// free of something never allocated.  A ring, so that freeing costs no
// allocation of the host's own; only the panic path searches it.
struct Freed {
   void *mem = nullptr;
   hyk_HeapID heap = 0;
};

// Live allocations by address: open addressing with linear probing and
// backward-shift deletion, entries inline.  A node-based map cost a node
// allocation per allocation and a cache miss per chain link.
class LiveTable {
  public:
   struct Entry {
      void *mem;  // null: empty
      Alloc alloc;
   };

   Alloc *Find(void *mem) {
      if (slots_.empty()) {
         return nullptr;
      }
      for (size_t i = Home(mem);; i = (i + 1) & mask_) {
         if (slots_[i].mem == mem) {
            return &slots_[i].alloc;
         }
         if (slots_[i].mem == nullptr) {
            return nullptr;
         }
      }
   }

   void Put(void *mem, const Alloc &a) {
      if ((used_ + 1) * 4 > slots_.size() * 3) {
         Grow();
      }
      size_t i = Home(mem);
      while (slots_[i].mem != nullptr && slots_[i].mem != mem) {
         i = (i + 1) & mask_;
      }
      used_ += slots_[i].mem == nullptr ? 1 : 0;
      slots_[i] = Entry{mem, a};
   }

   // Removes `mem`, which must be present (Find said so).
   void Erase(void *mem) {
      size_t i = Home(mem);
      while (slots_[i].mem != mem) {
         i = (i + 1) & mask_;
      }
      // Shift back every later entry of the run that may sit at i.
      for (size_t j = (i + 1) & mask_; slots_[j].mem != nullptr; j = (j + 1) & mask_) {
         const size_t home = Home(slots_[j].mem);
         if (((j - home) & mask_) >= ((j - i) & mask_)) {
            slots_[i] = slots_[j];
            i = j;
         }
      }
      slots_[i].mem = nullptr;
      used_--;
   }

   // Calls fn(mem, alloc) for every entry; fn returns true to erase it.
   template <class F>
   void EraseIf(F fn) {
      std::vector<Entry> keep;
      for (const Entry &e : slots_) {
         if (e.mem != nullptr && !fn(e.mem, e.alloc)) {
            keep.push_back(e);
         }
      }
      if (keep.size() == used_) {
         return;
      }
      std::fill(slots_.begin(), slots_.end(), Entry{});
      used_ = 0;
      for (const Entry &e : keep) {
         Put(e.mem, e.alloc);
      }
   }

  private:
   size_t Home(void *mem) const {
      // Allocations are 16-byte aligned: the low bits carry nothing.
      return static_cast<size_t>((reinterpret_cast<uintptr_t>(mem) >> 4) * 0x9e3779b97f4a7c15ull >> shift_) & mask_;
   }

   void Grow() {
      std::vector<Entry> old;
      old.swap(slots_);
      const size_t n = old.empty() ? 256 : old.size() * 2;
      slots_.assign(n, Entry{});
      mask_ = n - 1;
      shift_ = 64 - static_cast<unsigned>(__builtin_ctzll(n));
      used_ = 0;
      for (const Entry &e : old) {
         if (e.mem != nullptr) {
            Put(e.mem, e.alloc);
         }
      }
   }

   std::vector<Entry> slots_;
   size_t mask_ = 0;
   unsigned shift_ = 64;
   size_t used_ = 0;
};

struct Shard {
   std::mutex mu;
   LiveTable live;
   std::array<Freed, kFreedHistory> freed{};
   size_t nextFreed = 0;
};

// Live heaps by ID for the allocation paths: no lock and no reference
// count per call.  A heap object stays allocated for the rest of its host
// life (Registry::everyHeap) after its destruction, so a pointer read here
// never dangles.
constexpr hyk_HeapID kFastHeaps = 4096;
std::atomic<Heap *> gLiveHeap[kFastHeaps];

struct Registry {
   std::shared_mutex mu;
   std::map<hyk_HeapID, std::shared_ptr<Heap>> heaps;
   std::vector<std::shared_ptr<Heap>> everyHeap;   // of this host life
   std::map<hyk_HeapID, std::string> names;  // every heap of this host life, for messages
   hyk_HeapID next = 1;
   std::mutex reportsMu;
   std::vector<LeakReport> reports;
   Shard shards[kShards];
};

Registry &Reg() {
   static Registry *r = new Registry();
   return *r;
}

Shard &ShardOf(void *p) {
   auto v = reinterpret_cast<uintptr_t>(p);
   return Reg().shards[(v >> 4 ^ v >> 12) % kShards];
}

std::shared_ptr<Heap> Find(hyk_HeapID id) {
   std::shared_lock<std::shared_mutex> lk(Reg().mu);
   auto it = Reg().heaps.find(id);
   return it == Reg().heaps.end() ? nullptr : it->second;
}

// The live heap `id`, or null; valid for the rest of the host life.
Heap *FindLive(hyk_HeapID id) {
   if (id < kFastHeaps) {
      return gLiveHeap[id].load(std::memory_order_acquire);
   }
   return Find(id).get();
}

std::string HeapName(hyk_HeapID id) {
   std::shared_lock<std::shared_mutex> lk(Reg().mu);
   auto it = Reg().names.find(id);
   return it == Reg().names.end() ? "#" + std::to_string(id) : it->second;
}

bool Reserve(Heap &h, uint32_t size) {
   uint64_t cur = h.bytesInUse.load(std::memory_order_relaxed);
   do {
      if (cur + size > h.maxSize) {
         return false;
      }
   } while (!h.bytesInUse.compare_exchange_weak(cur, cur + size, std::memory_order_relaxed));
   uint64_t now = cur + size;
   uint64_t peak = h.peak.load(std::memory_order_relaxed);
   while (now > peak && !h.peak.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
   }
   return true;
}

void Unaccount(Heap &h, uint32_t size) {
   h.bytesInUse.fetch_sub(size, std::memory_order_relaxed);
   h.live.fetch_sub(1, std::memory_order_relaxed);
}

// "symbol+0x1f (file)" for a caller address, as far as the loader knows it.
std::string DescribeCaller(void *ra) {
   Dl_info info;
   char buf[64];
   snprintf(buf, sizeof buf, "%p", ra);
   if (ra == nullptr || dladdr(ra, &info) == 0) {
      return buf;
   }
   std::string out = buf;
   if (info.dli_sname != nullptr) {
      auto off = reinterpret_cast<uintptr_t>(ra) - reinterpret_cast<uintptr_t>(info.dli_saddr);
      snprintf(buf, sizeof buf, "+%#lx", static_cast<unsigned long>(off));
      out += std::string(" ") + info.dli_sname + buf;
   }
   if (info.dli_fname != nullptr) {
      out += std::string(" in ") + info.dli_fname;
   }
   return out;
}

// Takes every live allocation of `id` out of the table.
std::vector<std::pair<void *, Alloc>> TakeLive(hyk_HeapID id) {
   std::vector<std::pair<void *, Alloc>> out;
   for (Shard &s : Reg().shards) {
      std::lock_guard<std::mutex> lk(s.mu);
      s.live.EraseIf([&](void *mem, const Alloc &a) {
         if (a.heap != id) {
            return false;
         }
         out.emplace_back(mem, a);
         return true;
      });
   }
   return out;
}

void ReportLive(const Heap &h, const std::vector<std::pair<void *, Alloc>> &live) {
   uint64_t bytes = 0;
   for (const auto &[p, a] : live) {
      bytes += a.size;
   }
   HostLog("heap %s destroyed with %zu live allocations (%llu bytes)", h.name.c_str(), live.size(),
           static_cast<unsigned long long>(bytes));
   for (size_t i = 0; i < live.size() && i < kReportLines; i++) {
      HostLog("  heap %s: %u bytes at %p allocated by %s", h.name.c_str(), live[i].second.size,
              live[i].first, DescribeCaller(live[i].second.ra).c_str());
   }
   if (live.size() > kReportLines) {
      HostLog("  heap %s: ... and %zu more", h.name.c_str(), live.size() - kReportLines);
   }
   std::lock_guard<std::mutex> lk(Reg().reportsMu);
   Reg().reports.push_back({h.name, bytes, live.size()});
}

void Destroy(const std::shared_ptr<Heap> &h) {
   auto live = TakeLive(h->id);
   if (!live.empty()) {
      ReportLive(*h, live);
   }
   for (auto &[p, a] : live) {
      free(p);
   }
}

std::shared_ptr<Heap> Remove(hyk_HeapID id) {
   std::unique_lock<std::shared_mutex> lk(Reg().mu);
   auto it = Reg().heaps.find(id);
   if (it == Reg().heaps.end()) {
      return nullptr;
   }
   auto h = it->second;
   Reg().heaps.erase(it);
   if (id < kFastHeaps) {
      gLiveHeap[id].store(nullptr, std::memory_order_release);
   }
   return h;
}

HeapView ViewOf(const Heap &h) {
   return HeapView{h.id,           h.name,          h.owner,          h.initialSize,
                   h.maxSize,      h.bytesInUse.load(), h.live.load(), h.peak.load(),
                   h.failed.load()};
}

[[noreturn]] void BadFree(hyk_HeapID heap, void *mem, const Shard &s) {
   for (size_t i = 1; i <= kFreedHistory; i++) {
      const Freed &f = s.freed[(s.nextFreed + kFreedHistory - i) % kFreedHistory];
      if (f.mem == mem) {
         Panic("hyk_HeapFree: double free of %p to heap %s (already freed to heap %s)", mem,
               HeapName(heap).c_str(), HeapName(f.heap).c_str());
      }
   }
   Panic("hyk_HeapFree: %p was never allocated from heap %s", mem, HeapName(heap).c_str());
}

void RememberFreed(Shard &s, void *mem, hyk_HeapID heap) {
   s.freed[s.nextFreed] = Freed{mem, heap};
   s.nextFreed = (s.nextFreed + 1) % kFreedHistory;
}

}  // namespace

std::vector<HeapView> Heaps() {
   std::shared_lock<std::shared_mutex> lk(Reg().mu);
   std::vector<HeapView> out;
   for (auto &[id, h] : Reg().heaps) {
      out.push_back(ViewOf(*h));
   }
   return out;
}

std::optional<HeapView> FindHeap(const std::string &name) {
   for (HeapView &v : Heaps()) {
      if (v.name == name) {
         return v;
      }
   }
   return std::nullopt;
}

std::vector<LeakReport> LeakReports() {
   std::lock_guard<std::mutex> lk(Reg().reportsMu);
   return Reg().reports;
}

namespace core {

void HeapsUseOnePool() {
   static std::once_flag once;
   std::call_once(once, [] {
      mallopt(M_ARENA_MAX, 1);
      // Grow and give back in large steps: an upgrade allocates and frees
      // tens of thousands of buffers in a burst.
      mallopt(M_TOP_PAD, 64 << 20);
      mallopt(M_TRIM_THRESHOLD, 256 << 20);
   });
}

bool HeapExists(hyk_HeapID heap) { return Find(heap) != nullptr; }

size_t HeapCount() {
   std::shared_lock<std::shared_mutex> lk(Reg().mu);
   return Reg().heaps.size();
}

void HeapsReset() {
   std::vector<std::shared_ptr<Heap>> heaps;
   {
      std::unique_lock<std::shared_mutex> lk(Reg().mu);
      for (auto &[id, h] : Reg().heaps) {
         heaps.push_back(h);
         if (id < kFastHeaps) {
            gLiveHeap[id].store(nullptr, std::memory_order_release);
         }
      }
      Reg().heaps.clear();
   }
   for (auto &h : heaps) {
      for (auto &[p, a] : TakeLive(h->id)) {
         free(p);
      }
   }
}

void HeapsClearHistory() {
   {
      std::unique_lock<std::shared_mutex> lk(Reg().mu);
      Reg().names.clear();
      Reg().next = 1;
      Reg().everyHeap.clear();   // the host is between lives: nobody allocates
   }
   for (Shard &s : Reg().shards) {
      std::lock_guard<std::mutex> lk(s.mu);
      s.freed.fill(Freed{});
      s.nextFreed = 0;
   }
   std::lock_guard<std::mutex> lk(Reg().reportsMu);
   Reg().reports.clear();
}

void HeapsDropModule(hyk_ModuleID id, const std::string &name) {
   std::vector<std::shared_ptr<Heap>> left;
   {
      std::shared_lock<std::shared_mutex> lk(Reg().mu);
      for (auto &[hid, h] : Reg().heaps) {
         if (h->owner == id) {
            left.push_back(h);
         }
      }
   }
   for (auto &h : left) {
      HostLog("module %s left heap %s; destroying it", name.c_str(), h->name.c_str());
      if (Remove(h->id) != nullptr) {
         Destroy(h);
      }
   }
}

}  // namespace core
}  // namespace hyksim

using namespace hyksim;

extern "C" hyk_Status hyk_HeapCreate(const hyk_HeapProps *props, hyk_HeapID *heap) {
   HYKSIM_FAULT_POINT("hyk_HeapCreate");
   AssertMaySleep("hyk_HeapCreate");
   if (props == nullptr || heap == nullptr) {
      return HYK_BAD_PARAM;
   }
   hyk_Status st = core::CheckName(props->name);
   if (st != HYK_OK) {
      return st;
   }
   if (props->initialSize > props->maxSize) {
      return HYK_BAD_PARAM;
   }
   auto h = std::make_shared<Heap>();
   h->name = props->name;
   h->owner = props->owner;
   h->initialSize = props->initialSize;
   h->maxSize = props->maxSize;
   std::unique_lock<std::shared_mutex> lk(Reg().mu);
   h->id = Reg().next++;
   Reg().heaps[h->id] = h;
   Reg().names[h->id] = h->name;
   Reg().everyHeap.push_back(h);
   if (h->id < kFastHeaps) {
      gLiveHeap[h->id].store(h.get(), std::memory_order_release);
   }
   *heap = h->id;
   return HYK_OK;
}

extern "C" hyk_Status hyk_HeapDestroy(hyk_HeapID heap) {
   HYKSIM_FAULT_POINT("hyk_HeapDestroy");
   AssertMaySleep("hyk_HeapDestroy");
   auto h = Remove(heap);
   if (h == nullptr) {
      return HYK_INVALID_HANDLE;
   }
   Destroy(h);
   return HYK_OK;
}

extern "C" void *hyk_HeapAllocWithRA(hyk_HeapID heap, uint32_t size, void *ra) {
   hyk_Status injected;
   bool fail = FaultCheck("hyk_HeapAllocWithRA", &injected);
   Heap *h = FindLive(heap);
   if (h == nullptr || size == 0) {
      return nullptr;
   }
   if (fail || !Reserve(*h, size)) {
      h->failed.fetch_add(1, std::memory_order_relaxed);
      return nullptr;
   }
   void *mem = malloc(size);
   if (mem == nullptr) {
      h->bytesInUse.fetch_sub(size, std::memory_order_relaxed);
      h->failed.fetch_add(1, std::memory_order_relaxed);
      return nullptr;
   }
   h->live.fetch_add(1, std::memory_order_relaxed);
   Shard &s = ShardOf(mem);
   std::lock_guard<std::mutex> lk(s.mu);
   s.live.Put(mem, Alloc{heap, size, ra});
   return mem;
}

extern "C" void hyk_HeapFree(hyk_HeapID heap, void *mem) {
   if (mem == nullptr) {
      return;
   }
   Heap *h = FindLive(heap);
   if (h == nullptr) {
      Panic("hyk_HeapFree: %p freed to invalid heap %#llx", mem,
            static_cast<unsigned long long>(heap));
   }
   Shard &s = ShardOf(mem);
   std::unique_lock<std::mutex> lk(s.mu);
   const Alloc *a = s.live.Find(mem);
   if (a == nullptr) {
      BadFree(heap, mem, s);
   }
   if (a->heap != heap) {
      hyk_HeapID owner = a->heap;
      lk.unlock();
      Panic("hyk_HeapFree: %p freed to heap %s but allocated from heap %s", mem,
            h->name.c_str(), HeapName(owner).c_str());
   }
   uint32_t size = a->size;
   s.live.Erase(mem);
   RememberFreed(s, mem, heap);
   lk.unlock();
   Unaccount(*h, size);
   free(mem);
}

extern "C" hyk_Status hyk_HeapGetStats(hyk_HeapID heap, hyk_HeapStats *stats) {
   HYKSIM_FAULT_POINT("hyk_HeapGetStats");
   if (stats == nullptr) {
      return HYK_BAD_PARAM;
   }
   auto h = Find(heap);
   if (h == nullptr) {
      return HYK_INVALID_HANDLE;
   }
   stats->bytesInUse = h->bytesInUse.load();
   stats->liveAllocations = h->live.load();
   stats->peakBytes = h->peak.load();
   stats->maxSize = h->maxSize;
   stats->failedAllocations = h->failed.load();
   return HYK_OK;
}
