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
#include <sanitizer/asan_interface.h>

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

// ---- the live map ----------------------------------------------------------------
//
// Each allocation carries a header just before the pointer handed out: its
// heap, size and caller.  A bitmap over the address space, one bit per
// 16-byte granule, says where a live allocation begins.  A free reads the
// header only once the bit says one is there, so a pointer that is not a
// live allocation (freed already, on the stack, inside a buffer) is told
// apart without touching the memory it points at.
//
// The bitmap lies in address order.  An upgrade allocates and frees its
// buffers one port after another, and malloc hands out neighbouring
// addresses for neighbouring calls, so consecutive calls meet the same
// words of the map: a hash table of live pointers took a cache miss per
// call on a random slot of megabytes (6 ms of a 16,384-port blackout of 76).

struct Header {
   Alloc alloc;
   uint64_t unused;  // keeps what the module gets 16-byte aligned, as malloc's
};
constexpr size_t kHeader = sizeof(Header);
static_assert(kHeader % 16 == 0);

constexpr unsigned kGranuleShift = 4;            // malloc's alignment
constexpr unsigned kLeafShift = 20;              // a leaf maps 1 MiB of addresses
constexpr unsigned kMidShift = 14;               // a mid node holds 16 GiB of leaves
constexpr unsigned kAddressBits = 48;            // what user space is given
constexpr unsigned kTopBits = kAddressBits - kLeafShift - kMidShift;
constexpr size_t kLeafWords = (size_t(1) << (kLeafShift - kGranuleShift)) / 64;
constexpr size_t kFreedHistory = 512;            // per leaf, to tell a double free from a wild one

// The last frees within a leaf, newest last: what tells a double free from
// a free of something never allocated.  A ring, so that freeing costs no
// allocation of the host's own; only the panic path searches it.
struct Freed {
   void *mem = nullptr;
   hyk_HeapID heap = 0;
};

struct Leaf {
   uintptr_t base = 0;  // the first address it maps
   core::ShortLock mu;  // the bits, the ring and the headers of its allocations
   uint64_t bits[kLeafWords] = {};
   std::array<Freed, kFreedHistory> freed{};
   size_t nextFreed = 0;
};

struct Mid {
   std::atomic<Leaf *> leaf[size_t(1) << kMidShift] = {};
};

// Nodes are created as malloc reaches new addresses and kept for the life of
// the process: a reader never meets a freed one.
struct LiveMap {
   std::atomic<Mid *> top[size_t(1) << kTopBits] = {};
   std::mutex growMu;
   std::vector<Leaf *> leaves;  // every leaf, for the scans at destroy
};

LiveMap &Map() {
   static LiveMap *m = new LiveMap();
   return *m;
}

bool Mapped(uintptr_t a) { return (a >> kAddressBits) == 0; }
size_t TopIndex(uintptr_t a) { return a >> (kLeafShift + kMidShift); }
size_t MidIndex(uintptr_t a) { return (a >> kLeafShift) & ((size_t(1) << kMidShift) - 1); }
size_t Bit(uintptr_t a) { return (a >> kGranuleShift) & ((kLeafWords * 64) - 1); }

// The leaf of address `a`, or null when nothing was ever allocated there.
Leaf *FindLeaf(uintptr_t a) {
   if (!Mapped(a)) {
      return nullptr;
   }
   Mid *mid = Map().top[TopIndex(a)].load(std::memory_order_acquire);
   return mid == nullptr ? nullptr : mid->leaf[MidIndex(a)].load(std::memory_order_acquire);
}

Leaf &LeafFor(uintptr_t a) {
   if (Leaf *l = FindLeaf(a)) {
      return *l;
   }
   if (!Mapped(a)) {
      Panic("hyk_HeapAlloc: malloc returned %p, above the %u-bit addresses the heaps map",
            reinterpret_cast<void *>(a), kAddressBits);
   }
   LiveMap &m = Map();
   std::lock_guard<std::mutex> lk(m.growMu);
   Mid *mid = m.top[TopIndex(a)].load(std::memory_order_relaxed);
   if (mid == nullptr) {
      mid = new Mid();
      m.top[TopIndex(a)].store(mid, std::memory_order_release);
   }
   Leaf *leaf = mid->leaf[MidIndex(a)].load(std::memory_order_relaxed);
   if (leaf == nullptr) {
      leaf = new Leaf();
      leaf->base = a & ~((uintptr_t(1) << kLeafShift) - 1);
      m.leaves.push_back(leaf);
      mid->leaf[MidIndex(a)].store(leaf, std::memory_order_release);
   }
   return *leaf;
}

// The header sits inside malloc's block, where a module must not reach: it
// is poisoned for AddressSanitizer, and only the host unpoisons it, for the
// moment it reads or writes it.
Header *HeaderOf(void *mem) { return reinterpret_cast<Header *>(static_cast<char *>(mem) - kHeader); }
void WriteHeader(void *mem, const Alloc &a) {
   Header *h = HeaderOf(mem);
   ASAN_UNPOISON_MEMORY_REGION(h, kHeader);
   *h = Header{a, 0};
   ASAN_POISON_MEMORY_REGION(h, kHeader);
}
Alloc ReadHeader(void *mem) {
   Header *h = HeaderOf(mem);
   ASAN_UNPOISON_MEMORY_REGION(h, kHeader);
   const Alloc a = h->alloc;
   ASAN_POISON_MEMORY_REGION(h, kHeader);
   return a;
}

// Every leaf made so far.
std::vector<Leaf *> AllLeaves() {
   std::lock_guard<std::mutex> lk(Map().growMu);
   return Map().leaves;
}

bool TestBit(const Leaf &l, size_t bit) { return (l.bits[bit / 64] >> (bit % 64)) & 1; }
void SetBit(Leaf &l, size_t bit) { l.bits[bit / 64] |= uint64_t(1) << (bit % 64); }
void ClearBit(Leaf &l, size_t bit) { l.bits[bit / 64] &= ~(uint64_t(1) << (bit % 64)); }

// Records a live allocation at `mem`.
void MarkLive(void *mem, const Alloc &alloc) {
   WriteHeader(mem, alloc);
   const auto a = reinterpret_cast<uintptr_t>(mem);
   Leaf &l = LeafFor(a);
   std::lock_guard<core::ShortLock> lk(l.mu);
   SetBit(l, Bit(a));
}

// What a free found at `mem`.
struct Verdict {
   enum { kLive, kDoubleFree, kNeverAllocated } kind = kNeverAllocated;
   Alloc alloc{};           // kLive: the allocation
   hyk_HeapID freedTo = 0;  // kDoubleFree: the heap of the earlier free
};

// Takes the allocation at `mem` out of the map when it is live and of
// `heap`; otherwise leaves the map as it is and says what `mem` is.
Verdict TakeOut(void *mem, hyk_HeapID heap) {
   Verdict v;
   const auto a = reinterpret_cast<uintptr_t>(mem);
   Leaf *l = FindLeaf(a);
   if (l == nullptr) {
      return v;
   }
   std::lock_guard<core::ShortLock> lk(l->mu);
   if (a % (size_t(1) << kGranuleShift) == 0 && TestBit(*l, Bit(a))) {
      v.kind = Verdict::kLive;
      v.alloc = ReadHeader(mem);
      if (v.alloc.heap == heap) {
         ClearBit(*l, Bit(a));
         l->freed[l->nextFreed] = Freed{mem, heap};
         l->nextFreed = (l->nextFreed + 1) % kFreedHistory;
      }
      return v;
   }
   for (size_t i = 1; i <= kFreedHistory; i++) {
      const Freed &f = l->freed[(l->nextFreed + kFreedHistory - i) % kFreedHistory];
      if (f.mem == mem) {
         v.kind = Verdict::kDoubleFree;
         v.freedTo = f.heap;
         break;
      }
   }
   return v;
}

// Takes every live allocation of `id` out of the map: a scan of every leaf
// (only a heap destroyed with allocations left, or a host reset, pays it).
std::vector<std::pair<void *, Alloc>> TakeLive(hyk_HeapID id) {
   std::vector<std::pair<void *, Alloc>> out;
   for (Leaf *l : AllLeaves()) {
      std::lock_guard<core::ShortLock> lk(l->mu);
      for (size_t w = 0; w < kLeafWords; w++) {
         for (uint64_t bits = l->bits[w]; bits != 0; bits &= bits - 1) {
            const size_t bit = w * 64 + static_cast<size_t>(__builtin_ctzll(bits));
            void *mem = reinterpret_cast<void *>(l->base + (bit << kGranuleShift));
            const Alloc a = ReadHeader(mem);
            if (a.heap == id) {
               ClearBit(*l, bit);
               out.emplace_back(mem, a);
            }
         }
      }
   }
   return out;
}

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
};

Registry &Reg() {
   static Registry *r = new Registry();
   return *r;
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

void FreeBlock(void *mem) { free(static_cast<char *>(mem) - kHeader); }

void Destroy(const std::shared_ptr<Heap> &h) {
   if (h->live.load(std::memory_order_acquire) == 0) {
      return;
   }
   auto live = TakeLive(h->id);
   if (!live.empty()) {
      ReportLive(*h, live);
   }
   for (auto &[p, a] : live) {
      FreeBlock(p);
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
      if (h->live.load(std::memory_order_acquire) == 0) {
         continue;
      }
      for (auto &[p, a] : TakeLive(h->id)) {
         FreeBlock(p);
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
   for (Leaf *l : AllLeaves()) {
      std::lock_guard<core::ShortLock> lk(l->mu);
      l->freed.fill(Freed{});
      l->nextFreed = 0;
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
   void *block = malloc(size_t(size) + kHeader);
   if (block == nullptr) {
      h->bytesInUse.fetch_sub(size, std::memory_order_relaxed);
      h->failed.fetch_add(1, std::memory_order_relaxed);
      return nullptr;
   }
   h->live.fetch_add(1, std::memory_order_relaxed);
   void *mem = static_cast<char *>(block) + kHeader;
   MarkLive(mem, Alloc{heap, size, ra});
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
   const Verdict v = TakeOut(mem, heap);
   if (v.kind == Verdict::kDoubleFree) {
      Panic("hyk_HeapFree: double free of %p to heap %s (already freed to heap %s)", mem,
            HeapName(heap).c_str(), HeapName(v.freedTo).c_str());
   }
   if (v.kind == Verdict::kNeverAllocated) {
      Panic("hyk_HeapFree: %p was never allocated from heap %s", mem, HeapName(heap).c_str());
   }
   if (v.alloc.heap != heap) {
      Panic("hyk_HeapFree: %p freed to heap %s but allocated from heap %s", mem,
            h->name.c_str(), HeapName(v.alloc.heap).c_str());
   }
   Unaccount(*h, v.alloc.size);
   FreeBlock(mem);
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
