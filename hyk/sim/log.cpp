// log.cpp -- the host log: log components, the plain printers, the logger
// thread and the control API's view of the log.
//
// A caller of hyk_LogLevel pays for a level test and a short critical
// section in which the raw arguments (log_format.cpp) are captured straight
// into a record at the queue's end; the logger thread formats the records
// in order and appends them to the in-memory log and the log file.  When no logger thread
// runs (before HostStart, after HostStop, in a forked death-test child) the
// caller formats the line itself.
//
// Throttle kind 1 (HYK_LOG_THROTTLE_COUNT): within one second of host time a
// component passes its first kThrottleBurst lines; after that it passes one
// line in kThrottleKeepOneIn.  When the next second begins, the number of
// lines dropped in the previous one is reported by the host.  With the
// virtual clock the window only moves when time is advanced, so a test sees
// the same lines on every run.
#include <pthread.h>
#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "core.h"
#include "log_format.h"

namespace hyksim {
namespace {

constexpr size_t kMaxComponents = 4096;
constexpr uint64_t kThrottleWindowUS = 1000000;
constexpr uint64_t kThrottleBurst = 100;
constexpr uint64_t kThrottleKeepOneIn = 10;
// Formatting is deferred: the logger thread formats a batch when a reader
// asks (every reader of the log flushes first), when the backlog grows past
// kBacklogBytes, or when the host stops; and, only when the host writes a
// log file, also when no line has come for kQuiet or at the latest
// kFormatDelay after the batch's first line.  A burst of lines
// (an upgrade's per-port lines) thus costs its callers the capture alone,
// and its formatting runs after the burst, not beside it.  The log file lags
// by at most kFormatDelay.
constexpr auto kQuiet = std::chrono::milliseconds(50);
constexpr auto kFormatDelay = std::chrono::milliseconds(2000);
constexpr size_t kBacklogBytes = size_t(256) << 20;

enum : uint32_t { kSlotFree = 0, kSlotLive = 1, kSlotGone = 2 };

// Components live in a fixed table so that the hot path finds one by index
// without a lock.  Slots are not reused within one host life, so a stale
// handle stays invalid.
struct Component {
   std::atomic<uint32_t> state{kSlotFree};
   std::atomic<int32_t> level{0};
   std::atomic<uint64_t> receivedBase{0};  // the calls' sum when registered (see gReceived)
   uint32_t throttle = 0;
   hyk_ModuleID owner = HYK_INVALID_MODULE_ID;
   char name[HYK_NAME_LEN] = {};
   uint8_t nameLen = 0;  // of name, so that a line does not measure it
   std::mutex throttleMu;
   uint64_t windowStart = 0;
   uint64_t inWindow = 0;
   uint64_t dropped = 0;
};

struct Registry {
   std::mutex mu;  // register/unregister and slot allocation
   size_t used = 0;
   Component slots[kMaxComponents];
};

Registry &Reg() {
   static Registry *reg = new Registry();  // never destroyed: threads may log at exit
   return *reg;
}

// hyk_LogLevel calls per component, filtered or not, one row per counting
// slot (core::CountingSlot): a call adds to its thread's own row without a
// locked instruction.  Zero-initialised static storage, so only the rows
// and pages that threads touch are ever in memory.
std::atomic<uint64_t> gReceived[core::kCountSlots + 1][kMaxComponents];

void CountReceived(size_t index) {
   const size_t slot = core::CountingSlot();
   core::CountInMySlot(gReceived[slot][index], slot);
}

uint64_t ReceivedSum(size_t index) {
   uint64_t sum = 0;
   for (const auto &row : gReceived) {
      sum += row[index].load(std::memory_order_relaxed);
   }
   return sum;
}

// A queued line is this header, the component name and the captured
// arguments (or, when fmt is null, the finished text), packed back to back
// into a block of Records: queueing a line allocates nothing while the
// block has room.
struct RecordHeader {
   uint64_t stamp;   // host µs, or time stamp counter ticks when `ticks`
   const char *fmt;
   int32_t level;
   uint32_t dataLen;
   uint8_t compLen;
   uint8_t warning;
   uint8_t ticks;
};

// Writes a header into a record field by field.  A header built beside the
// record and copied in as a whole was read back in 16-byte pieces right
// after its fields were stored one by one, and every such read waited for
// those stores to reach the cache.
void PutHeader(char *at, uint64_t stamp, const char *fmt, int32_t level, uint32_t dataLen, uint8_t compLen,
               bool warning, bool ticks) {
   auto put = [at](size_t offset, auto v) { memcpy(at + offset, &v, sizeof v); };
   put(offsetof(RecordHeader, stamp), stamp);
   put(offsetof(RecordHeader, fmt), fmt);
   put(offsetof(RecordHeader, level), level);
   put(offsetof(RecordHeader, dataLen), dataLen);
   put(offsetof(RecordHeader, compLen), compLen);
   put(offsetof(RecordHeader, warning), static_cast<uint8_t>(warning));
   put(offsetof(RecordHeader, ticks), static_cast<uint8_t>(ticks));
}

// When a line was logged.  On the real clock a queued line takes the time
// stamp counter as it stands, without the ordering the host clock's read
// needs (that read waits for every load in flight, and was a tenth of an
// upgrade's blackout at level 3); the logger turns ticks into host µs by
// interpolating between two readings of both, one when it started and one
// taken after the batch left the queue, so every tick it converts lies
// between them and the error stays that of the two readings (a µs or so).
// On the virtual clock, and where there is no such counter, a line takes
// the host clock itself.
struct Stamp {
   uint64_t value;
   bool ticks;
};

Stamp StampNow() {
#if defined(__x86_64__)
   if (!core::VirtualClock()) {
      return {__builtin_ia32_rdtsc(), true};
   }
#endif
   return {core::ClockNowUS(), false};
}

// A simultaneous reading of the counter and the host clock.
struct TickAnchor {
   uint64_t ticks = 0;
   uint64_t us = 0;
};

// The counter read between two host-clock reads; of a few tries, the one
// whose reads lie closest together (a thread preempted between them would
// otherwise skew every time converted against it).
TickAnchor AnchorNow() {
#if defined(__x86_64__)
   TickAnchor best;
   uint64_t bestSpread = UINT64_MAX;
   for (int i = 0; i < 8 && bestSpread > 1; i++) {
      const uint64_t before = core::ClockNowUS();
      const uint64_t ticks = __builtin_ia32_rdtsc();
      const uint64_t after = core::ClockNowUS();
      if (after - before < bestSpread) {
         bestSpread = after - before;
         best = {ticks, before + (after - before) / 2};
      }
   }
   return best;
#else
   return {0, core::ClockNowUS()};
#endif
}

// Host µs of a tick count taken between the two anchors.
uint64_t TicksToUS(uint64_t ticks, const TickAnchor &from, const TickAnchor &to) {
   if (to.ticks <= from.ticks || to.us < from.us) {
      return to.us;  // a counter that went backwards: the later reading is the best bound
   }
   const uint64_t t = std::min(std::max(ticks, from.ticks), to.ticks);
   const auto scaled = static_cast<unsigned __int128>(t - from.ticks) * (to.us - from.us) / (to.ticks - from.ticks);
   return from.us + static_cast<uint64_t>(scaled);
}

struct Line {
   std::string_view component;
   int32_t level;
   bool warning;
   const char *fmt;
   std::string_view data;
   uint64_t timeUS;
};

// Copies n bytes to memory the cache does not hold and need not hold: whole
// lines are written with streaming stores, which skip reading the lines in
// first.  The logger reads the blocks only after the burst.
void StreamCopy(char *to, const char *from, size_t n) {
#if defined(__x86_64__)
   const size_t head = std::min(n, (16 - reinterpret_cast<uintptr_t>(to) % 16) % 16);
   memcpy(to, from, head);
   size_t i = head;
   for (; i + 16 <= n; i += 16) {
      _mm_stream_si128(reinterpret_cast<__m128i *>(to + i),
                       _mm_loadu_si128(reinterpret_cast<const __m128i *>(from + i)));
   }
   memcpy(to + i, from + i, n - i);
   _mm_sfence();  // the streamed stores are ordered before the queue's unlock
#else
   memcpy(to, from, n);
#endif
}

// Packed records in blocks: a burst of lines appends without ever moving
// what is queued (one growing buffer copied itself at every doubling and
// touched twice the memory).  A record never spans two blocks.
//
// A record is first written into a small staging area, which stays in the
// cache, and the staged records go into the blocks a stage at a time.
// Written straight into a block, every record began on lines the cache did
// not hold, and its caller waited for them; copied in bulk, a stage's lines
// stream out at the memory's pace.
class Records {
  public:
   using Spare = std::vector<std::unique_ptr<char[]>>;
   static constexpr size_t kBlockBytes = size_t(1) << 20;
   static constexpr size_t kStageBytes = size_t(64) << 10;
   // Formatted blocks kept for reuse, at least; the host's log buffer
   // (HostOptions::logBufferBytes) may keep more.
   static constexpr size_t kSpareBlocks = 8;

   bool empty() const { return bytes_ == 0; }
   size_t bytes() const { return bytes_; }

   // A record is written in place: Open gives the free space at the end,
   // at least `min` (up to kStageBytes) bytes of it; Move carries a record
   // that outgrew its space, `used` bytes of it written, to where `more`
   // bytes fit beyond them; Close counts the record's n bytes in.  Until
   // then the logger does not see it.  Blocks come from `spare` when it has
   // one.
   char *Open(size_t min, char **end, Spare &spare) {
      if (stage_ == nullptr) {
         stage_ = std::make_unique<char[]>(kStageBytes);
      }
      if (kStageBytes - staged_ < min) {
         Spill(spare);
      }
      *end = stage_.get() + kStageBytes;
      return stage_.get() + staged_;
   }

   char *Move(const char *record, size_t used, size_t more, char **end, Spare &spare) {
      Spill(spare);  // the record's bytes lie past the staged ones: not spilled
      char *to;
      if (used + more <= kStageBytes) {
         to = stage_.get();
         *end = to + kStageBytes;
         inBlock_ = false;
      } else {
         // Longer than a stage: in a block of its own, after what was staged.
         AddBlock(used + more, spare);
         Block &b = blocks_.back();
         to = b.data.get();
         *end = to + b.size;
         inBlock_ = true;
      }
      memmove(to, record, used);
      return to;
   }

   void Close(size_t n) {
      if (inBlock_) {
         blocks_.back().used += n;
         inBlock_ = false;
      } else {
         staged_ += n;
      }
      bytes_ += n;
   }

   // fn(header, record) for every record in order.
   template <class F>
   void ForEach(F fn) {
      for (Block &b : blocks_) {
         ForEachIn(b.data.get(), b.used, fn);
      }
      ForEachIn(stage_.get(), staged_, fn);
   }

   // Empties this, handing blocks of the standard size to `spare` until it
   // holds `keep`.
   void Clear(Spare &spare, size_t keep) {
      for (Block &b : blocks_) {
         if (b.size == kBlockBytes && spare.size() < keep) {
            spare.push_back(std::move(b.data));
         }
      }
      blocks_.clear();
      staged_ = 0;
      bytes_ = 0;
   }

   void Swap(Records &other) {
      blocks_.swap(other.blocks_);
      stage_.swap(other.stage_);
      std::swap(staged_, other.staged_);
      std::swap(bytes_, other.bytes_);
   }

  private:
   struct Block {
      std::unique_ptr<char[]> data;
      size_t size = 0, used = 0;
   };

   template <class F>
   static void ForEachIn(char *data, size_t used, F &fn) {
      for (size_t off = 0; off + sizeof(RecordHeader) <= used;) {
         RecordHeader h;
         memcpy(&h, data + off, sizeof h);
         fn(static_cast<const RecordHeader &>(h), data + off);
         off += sizeof h + h.compLen + h.dataLen;
      }
   }

   void AddBlock(size_t min, Spare &spare) {
      Block b;
      b.size = std::max(kBlockBytes, min);
      if (b.size == kBlockBytes && !spare.empty()) {
         b.data = std::move(spare.back());
         spare.pop_back();
      } else {
         b.data = std::make_unique<char[]>(b.size);
      }
      blocks_.push_back(std::move(b));
   }

   // Moves the staged records to the end of the blocks.
   void Spill(Spare &spare) {
      if (staged_ == 0) {
         return;
      }
      if (blocks_.empty() || blocks_.back().size - blocks_.back().used < staged_) {
         AddBlock(staged_, spare);
      }
      Block &b = blocks_.back();
      StreamCopy(b.data.get() + b.used, stage_.get(), staged_);
      b.used += staged_;
      staged_ = 0;
   }

   std::vector<Block> blocks_;
   std::unique_ptr<char[]> stage_;
   size_t staged_ = 0;
   bool inBlock_ = false;  // the open record lies in the last block, not the stage
   size_t bytes_ = 0;
};

// The queue's lock is a ShortLock: the locked instruction of a mutex's
// unlock made every caller wait, right after writing its record into memory
// the cache did not hold, until those stores had reached the cache; now they
// drain while the caller goes on.  It guards a record's capture and the
// logger's swap of the batch; the capture of a long string holds it longer,
// and a waiter that spins long yields.
using QueueLock = core::ShortLock;

struct Queue {
   QueueLock mu;
   std::condition_variable_any cv;
   Records pending;
   std::vector<std::unique_ptr<char[]>> spare;  // blocks for reuse
   size_t keepSpare = Records::kSpareBlocks;     // the log buffer's blocks
   // Copies of the formats of queued lines whose module was unloaded before
   // they were formatted (LogKeepFormats); dropped when nothing is queued.
   std::vector<std::unique_ptr<char[]>> keptFormats;
   uint64_t enqueued = 0;
   bool running = false;
   bool stopping = false;
   bool loggerWaiting = false;  // only then does a caller pay for a wake-up
   TickAnchor anchor;           // taken when the logger started (see Stamp)
   bool flushWanted = false;    // a reader waits: skip the gathering pause
   std::thread thread;
};

struct Sink {
   std::mutex mu;
   std::condition_variable doneCv;
   std::vector<LogLine> lines;
   uint64_t formatted = 0;  // queued records formatted so far
   uint64_t nextSeq = 1;
   FILE *file = nullptr;
   std::string fileError;   // the first failure to open or write the log file
};

Queue &TheQueue() {
   static Queue *q = new Queue();
   return *q;
}

Sink &TheSink() {
   static Sink *s = new Sink();
   return *s;
}

thread_local bool tIsLogger = false;

// A forked child (a death test) has no logger thread: its callers format
// their own lines.  Set by the fork handler, so the hot path needs no getpid.
std::atomic<bool> gForkedChild{false};

void MarkForkedChild() { gForkedChild.store(true, std::memory_order_relaxed); }

bool LoggerUsable(const Queue &q) {
   return q.running && !gForkedChild.load(std::memory_order_relaxed);
}

void WriteFileLine(Sink &s, const LogLine &line) {
   if (s.file == nullptr) {
      return;
   }
   fprintf(s.file, "%s%s\n", line.warning ? "WARNING: " : "", line.text.c_str());
}

// Under s.mu.  A write that failed (a full disk) is kept to be reported:
// a log file with lines missing must not pass for a whole one.
void FlushFile(Sink &s) {
   if (s.file != nullptr && (fflush(s.file) != 0 || ferror(s.file)) && s.fileError.empty()) {
      s.fileError = core::LogFilePath() + ": " + strerror(errno);
   }
}

// Under s.mu.
void AppendLine(Sink &s, const Line &in) {
   LogLine line;
   line.seq = s.nextSeq++;
   line.timeUS = in.timeUS;
   line.component = in.component;
   line.level = in.level;
   line.warning = in.warning;
   line.text = in.fmt ? logfmt::Render(in.fmt, in.data) : std::string(in.data);
   if (!line.text.empty() && line.text.back() == '\n') {
      line.text.pop_back();
   }
   WriteFileLine(s, line);
   s.lines.push_back(std::move(line));
}

// Unpacks and formats a batch of records; returns how many there were.
uint64_t FormatBatch(Sink &s, Records &batch, const TickAnchor &started) {
   const TickAnchor now = AnchorNow();
   uint64_t n = 0;
   batch.ForEach([&](const RecordHeader &h, const char *rec) {
      const char *p = rec + sizeof h;
      std::string_view comp(p, h.compLen);
      std::string_view data(p + h.compLen, h.dataLen);
      const uint64_t timeUS = h.ticks ? TicksToUS(h.stamp, started, now) : h.stamp;
      AppendLine(s, Line{comp, h.level, h.warning != 0, h.fmt, data, timeUS});
      n++;
   });
   return n;
}

// The host's log buffer: spare blocks whose pages are already in memory,
// enough for `bytes` of records, so that a burst of lines within it costs
// its callers no page faults (without it, each 4 KiB of records cost the
// caller who crossed into it a fault: most of what queueing a line cost).
// Allocated and touched without the queue's lock; never shrunk.
void FillLogBuffer(Queue &q, uint64_t bytes) {
   const size_t blocks = static_cast<size_t>((bytes + Records::kBlockBytes - 1) / Records::kBlockBytes);
   size_t missing;
   {
      std::lock_guard<QueueLock> lk(q.mu);
      q.keepSpare = std::max(q.keepSpare, blocks);
      missing = blocks - std::min(q.spare.size(), blocks);
   }
   std::vector<std::unique_ptr<char[]>> fresh;
   for (size_t i = 0; i < missing; i++) {
      fresh.push_back(std::make_unique<char[]>(Records::kBlockBytes));  // zeroed: touched
   }
   std::lock_guard<QueueLock> lk(q.mu);
   for (auto &b : fresh) {
      q.spare.push_back(std::move(b));
   }
}

void LoggerMain() {
   tIsLogger = true;
   Queue &q = TheQueue();
   Sink &s = TheSink();
   Records batch;
   std::vector<std::unique_ptr<char[]>> batchFormats;
   for (;;) {
      bool toFile;
      {
         std::lock_guard<std::mutex> lk(s.mu);
         toFile = s.file != nullptr;
      }
      // Taken before the batch leaves the queue and held until it is
      // formatted: whoever holds q.mu, lets it go and then takes s.mu knows
      // that no record outside the queue still waits for its format.
      std::unique_lock<std::mutex> sinkLock(s.mu, std::defer_lock);
      {
         std::unique_lock<QueueLock> lk(q.mu);
         while (q.pending.empty() && !q.stopping) {
            q.loggerWaiting = true;
            q.cv.wait(lk);
            q.loggerWaiting = false;
         }
         // Let the batch gather (see kFormatDelay): a caller that finds the
         // logger gathering does not pay for waking it.
         const auto start = std::chrono::steady_clock::now();
         auto wanted = [&] { return q.stopping || q.flushWanted || q.pending.bytes() >= kBacklogBytes; };
         if (!toFile) {
            q.cv.wait(lk, wanted);   // nobody needs the text before a reader asks
         }
         for (uint64_t seen = q.enqueued; toFile && !wanted(); seen = q.enqueued) {
            if (q.cv.wait_for(lk, kQuiet, wanted)) {
               break;
            }
            if (q.enqueued == seen || std::chrono::steady_clock::now() - start >= kFormatDelay) {
               break;
            }
         }
         q.flushWanted = false;
         if (q.pending.empty()) {
            q.running = false;  // later records are formatted by their callers
            return;
         }
         // The sink's lock is not waited for with the queue's held: a
         // reader copying the log holds the sink for a while, and every
         // caller would spin on the queue meanwhile.  Only this thread
         // empties the queue, so it still has records once retaken.
         lk.unlock();
         sinkLock.lock();
         lk.lock();
         batch.Swap(q.pending);
         batchFormats.swap(q.keptFormats);
      }
      s.formatted += FormatBatch(s, batch, q.anchor);
      FlushFile(s);
      s.doneCv.notify_all();
      sinkLock.unlock();
      batchFormats.clear();
      std::lock_guard<QueueLock> lk(q.mu);
      batch.Clear(q.spare, q.keepSpare);
   }
}

// A record being written into the queue: its header and component name
// come first, and the line's data after them.
struct OpenRecord {
   Queue *q;
   size_t prefix;  // header and component name
};

// CaptureTarget::grow for a record in the queue: carried whole to where it
// fits (Records::Move).
void GrowRecord(logfmt::CaptureTarget *t, size_t used, size_t more) {
   auto *rec = static_cast<OpenRecord *>(t->owner);
   char *start = rec->q->pending.Move(t->start - rec->prefix, rec->prefix + used, more, &t->end, rec->q->spare);
   t->start = start + rec->prefix;
}

// Space a record is opened with past its header; a longer one moves.
constexpr size_t kRecordRoom = 512;

// Appends a line to the queue, its data written in place by
// write(CaptureTarget *) (which returns their size): the line's arguments
// are captured straight into the record, with no copy on the way.  Returns
// the data's size, or -1 with nothing queued when no logger runs.
template <class Write>
int64_t Enqueue(const Stamp &stamp, std::string_view component, int32_t level, bool warning, const char *fmt,
                Write write) {
   Queue &q = TheQueue();
   std::lock_guard<QueueLock> lk(q.mu);
   if (!LoggerUsable(q)) {
      return -1;
   }
   OpenRecord rec{&q, sizeof(RecordHeader) + component.size()};
   logfmt::CaptureTarget t;
   char *at = q.pending.Open(rec.prefix + kRecordRoom, &t.end, q.spare);
   t.start = at + rec.prefix;
   t.grow = GrowRecord;
   t.owner = &rec;
   const size_t n = write(&t);
   at = t.start - rec.prefix;
   PutHeader(at, stamp.value, fmt, level, static_cast<uint32_t>(n), static_cast<uint8_t>(component.size()), warning,
             stamp.ticks);
   memcpy(at + sizeof(RecordHeader), component.data(), component.size());
   q.pending.Close(rec.prefix + n);
   q.enqueued++;
   const bool backlogCrossed = q.pending.bytes() >= kBacklogBytes && q.pending.bytes() - rec.prefix - n < kBacklogBytes;
   if (q.loggerWaiting || backlogCrossed) {
      q.loggerWaiting = false;
      q.cv.notify_one();
   }
   return static_cast<int64_t>(n);
}

// A line formatted on the caller's thread (no logger runs).
void FormatNow(const Stamp &stamp, std::string_view component, int32_t level, bool warning, const char *fmt,
               std::string_view data) {
   const uint64_t timeUS = stamp.ticks ? core::ClockNowUS() : stamp.value;
   Sink &s = TheSink();
   std::lock_guard<std::mutex> lk(s.mu);
   AppendLine(s, Line{component, level, warning, fmt, data, timeUS});
   FlushFile(s);
}

// The caller's scratch space for captured arguments when it formats its
// own line: reused, so a line costs no allocation on the caller's side.
thread_local logfmt::CaptureBuffer tArgs;

// A printf-style line; returns the size of its captured arguments.
size_t LogFormatted(std::string_view component, int32_t level, bool warning, const char *fmt, va_list ap) {
   const Stamp stamp = StampNow();
   const int64_t queued = Enqueue(stamp, component, level, warning, fmt,
                                  [&](logfmt::CaptureTarget *t) { return logfmt::CaptureInto(fmt, ap, t); });
   if (queued >= 0) {
      return static_cast<size_t>(queued);
   }
   const std::string_view args = logfmt::Capture(fmt, ap, &tArgs);
   FormatNow(stamp, component, level, warning, fmt, args);
   return args.size();
}

// A finished line of text.
void LogText(std::string_view component, int32_t level, bool warning, std::string_view text) {
   const Stamp stamp = StampNow();
   const int64_t queued = Enqueue(stamp, component, level, warning, nullptr, [&](logfmt::CaptureTarget *t) {
      if (static_cast<size_t>(t->end - t->start) < text.size()) {
         t->grow(t, 0, text.size());
      }
      memcpy(t->start, text.data(), text.size());
      return text.size();
   });
   if (queued < 0) {
      FormatNow(stamp, component, level, warning, nullptr, text);
   }
}

// false: the wait ran out (only the panic path bounds it).
bool FlushFor(std::chrono::milliseconds limit, bool bounded) {
   Queue &q = TheQueue();
   uint64_t target;
   {
      std::lock_guard<QueueLock> lk(q.mu);
      if (!LoggerUsable(q) || tIsLogger) {
         return true;
      }
      target = q.enqueued;
      q.flushWanted = true;
      q.cv.notify_all();
   }
   Sink &s = TheSink();
   std::unique_lock<std::mutex> lk(s.mu);
   auto done = [&] { return s.formatted >= target; };
   if (!bounded) {
      s.doneCv.wait(lk, done);
      return true;
   }
   return s.doneCv.wait_for(lk, limit, done);
}

Component *Lookup(hyk_LogHandle handle) {
   if (handle == 0 || handle > kMaxComponents) {
      return nullptr;
   }
   Component *c = &Reg().slots[handle - 1];
   return c->state.load(std::memory_order_acquire) == kSlotLive ? c : nullptr;
}

// Decides whether a line of a count-throttled component passes.
bool ThrottlePasses(Component *c) {
   uint64_t now = core::ClockNowUS();
   uint64_t reportDropped = 0;
   bool pass;
   {
      std::lock_guard<std::mutex> lk(c->throttleMu);
      if (now - c->windowStart >= kThrottleWindowUS) {
         reportDropped = c->dropped;
         c->windowStart = now;
         c->inWindow = 0;
         c->dropped = 0;
      }
      uint64_t n = ++c->inWindow;
      pass = n <= kThrottleBurst || (n - kThrottleBurst) % kThrottleKeepOneIn == 0;
      if (!pass) {
         c->dropped++;
      }
   }
   if (reportDropped != 0) {
      HostLog("log component %s: %llu lines throttled", c->name,
              static_cast<unsigned long long>(reportDropped));
   }
   return pass;
}

void PlainPrint(bool warning, const char *fmt, va_list ap) {
   if (fmt == nullptr) {
      return;
   }
   LogFormatted("", -1, warning, fmt, ap);
}

bool ThrottleKindKnown(uint32_t kind) {
   return kind == HYK_LOG_THROTTLE_NONE || kind == HYK_LOG_THROTTLE_COUNT;
}

// Under Reg().mu.
bool NameTaken(const char *name, uint32_t throttle) {
   Registry &r = Reg();
   for (size_t i = 0; i < r.used; i++) {
      Component &c = r.slots[i];
      if (c.state.load(std::memory_order_relaxed) == kSlotLive && c.throttle == throttle &&
          strcmp(c.name, name) == 0) {
         return true;
      }
   }
   return false;
}

hyk_Status CheckProps(const hyk_LogProps *props, hyk_LogHandle *handle) {
   if (props == nullptr || handle == nullptr || !ThrottleKindKnown(props->throttle)) {
      return HYK_BAD_PARAM;
   }
   if (props->heap != 0 && !core::HeapExists(props->heap)) {
      return HYK_BAD_PARAM;
   }
   return core::CheckName(props->name);
}

}  // namespace

// ---- control API -------------------------------------------------------------

void FlushLog() { FlushFor(std::chrono::milliseconds(0), false); }

std::vector<LogLine> LogLines() {
   FlushLog();
   std::lock_guard<std::mutex> lk(TheSink().mu);
   return TheSink().lines;
}

size_t LogCount(const std::string &needle) {
   FlushLog();
   std::lock_guard<std::mutex> lk(TheSink().mu);
   size_t n = 0;
   for (const LogLine &line : TheSink().lines) {
      if (line.text.find(needle) != std::string::npos) {
         n++;
      }
   }
   return n;
}

bool LogContains(const std::string &needle) { return LogCount(needle) != 0; }

std::string LogFileError() {
   FlushLog();
   std::lock_guard<std::mutex> lk(TheSink().mu);
   return TheSink().fileError;
}

void LogClear() {
   FlushLog();
   std::lock_guard<std::mutex> lk(TheSink().mu);
   TheSink().lines.clear();
}

std::string LogText() {
   std::string out;
   for (const LogLine &line : LogLines()) {
      out += (line.warning ? "WARNING: " : "") + line.text + "\n";
   }
   return out;
}

std::vector<LogComponentView> LogComponents() {
   Registry &r = Reg();
   std::lock_guard<std::mutex> lk(r.mu);
   std::vector<LogComponentView> out;
   for (size_t i = 0; i < r.used; i++) {
      Component &c = r.slots[i];
      if (c.state.load(std::memory_order_relaxed) == kSlotLive) {
         out.push_back({c.name, c.level.load(), c.throttle, c.owner, i + 1,
                        ReceivedSum(i) - c.receivedBase.load(std::memory_order_relaxed)});
      }
   }
   return out;
}

hyk_Status SetLogComponentLevel(const std::string &name, int32_t level) {
   Registry &r = Reg();
   std::lock_guard<std::mutex> lk(r.mu);
   hyk_Status st = HYK_NOT_FOUND;
   for (size_t i = 0; i < r.used; i++) {
      Component &c = r.slots[i];
      if (c.state.load(std::memory_order_relaxed) == kSlotLive && name == c.name) {
         c.level.store(level);
         st = HYK_OK;
      }
   }
   return st;
}

// ---- shared with the rest of the host ----------------------------------------

namespace core {

void LogAppendText(const char *component, int32_t level, bool warning, std::string text) {
   LogText(std::string_view(component, strnlen(component, HYK_NAME_LEN - 1)), level, warning, text);
}

void LogStart() {
   std::string path = LogFilePath();
   {
      std::lock_guard<std::mutex> lk(TheSink().mu);
      TheSink().fileError.clear();
      if (!path.empty()) {
         TheSink().file = fopen(path.c_str(), "w");
         if (TheSink().file == nullptr) TheSink().fileError = path + ": " + strerror(errno);
      }
   }
   Queue &q = TheQueue();
   // On the starting thread, so that nothing of it runs in the background
   // once the host has started.
   FillLogBuffer(q, LogBufferBytes());
   std::lock_guard<QueueLock> lk(q.mu);
   static std::once_flag atfork;
   std::call_once(atfork, [] { pthread_atfork(nullptr, nullptr, MarkForkedChild); });
   q.anchor = AnchorNow();  // after the host clock's reset, before any record
   q.running = true;
   q.stopping = false;
   q.thread = std::thread(LoggerMain);
}

void LogStop() {
   Queue &q = TheQueue();
   {
      std::lock_guard<QueueLock> lk(q.mu);
      if (!q.thread.joinable()) {
         return;
      }
      q.stopping = true;
      q.cv.notify_all();
   }
   q.thread.join();
   std::lock_guard<std::mutex> lk(TheSink().mu);
   if (TheSink().file != nullptr) {
      FlushFile(TheSink());
      if (fclose(TheSink().file) != 0 && TheSink().fileError.empty()) {
         TheSink().fileError = LogFilePath() + ": " + strerror(errno);
      }
      TheSink().file = nullptr;
   }
}


// The queued lines keep their format pointers; the formats of an object
// about to be closed are copied (once per distinct format) and the records
// pointed at the copies.  A walk of the record headers, instead of
// formatting every queued line on the unloading thread.
void LogKeepFormats(const std::vector<std::pair<uintptr_t, uintptr_t>> &ranges) {
   auto inObject = [&](const char *fmt) {
      const auto a = reinterpret_cast<uintptr_t>(fmt);
      for (const auto &[from, to] : ranges) {
         if (a >= from && a < to) {
            return true;
         }
      }
      return false;
   };
   logfmt::ForgetParsedFormats();
   Queue &q = TheQueue();
   {
      std::lock_guard<QueueLock> lk(q.mu);
      std::unordered_map<const char *, const char *> copies;
      q.pending.ForEach([&](const RecordHeader &h, char *rec) {
         if (h.fmt == nullptr || !inObject(h.fmt)) {
            return;
         }
         auto [it, fresh] = copies.emplace(h.fmt, nullptr);
         if (fresh) {
            const size_t n = strlen(h.fmt) + 1;
            q.keptFormats.push_back(std::make_unique<char[]>(n));
            memcpy(q.keptFormats.back().get(), h.fmt, n);
            it->second = q.keptFormats.back().get();
         }
         // Only such a record is written: the walk leaves the others' lines clean.
         memcpy(rec + offsetof(RecordHeader, fmt), &it->second, sizeof it->second);
      });
   }
   // A batch taken from the queue before the walk is formatted under s.mu
   // (see LoggerMain): once s.mu is ours, it is done.
   std::lock_guard<std::mutex> lk(TheSink().mu);
}

void LogReset() {
   {
      std::lock_guard<std::mutex> lk(TheSink().mu);
      TheSink().lines.clear();
      TheSink().nextSeq = 1;
   }
   Registry &r = Reg();
   std::lock_guard<std::mutex> lk(r.mu);
   for (size_t i = 0; i < r.used; i++) {
      Component &c = r.slots[i];
      c.state.store(kSlotFree);
      std::lock_guard<std::mutex> tl(c.throttleMu);
      c.windowStart = c.inWindow = c.dropped = 0;
   }
   r.used = 0;
}

void LogPanic(const std::string &text) {
   FlushFor(std::chrono::milliseconds(2000), true);
   fprintf(stderr, "%s\n", text.c_str());
   fflush(stderr);
   Sink &s = TheSink();
   // try_lock: the panic may come from a thread that holds the sink.
   std::unique_lock<std::mutex> lk(s.mu, std::try_to_lock);
   if (lk.owns_lock() && s.file != nullptr) {
      fprintf(s.file, "%s\n", text.c_str());
      fflush(s.file);
   }
}

void LogDropModule(hyk_ModuleID id, const std::string &name) {
   Registry &r = Reg();
   std::vector<std::string> left;
   {
      std::lock_guard<std::mutex> lk(r.mu);
      for (size_t i = 0; i < r.used; i++) {
         Component &c = r.slots[i];
         if (c.state.load() == kSlotLive && c.owner == id) {
            c.state.store(kSlotGone, std::memory_order_release);
            left.emplace_back(c.name);
         }
      }
   }
   for (const std::string &comp : left) {
      HostLog("module %s left log component %s registered; unregistering it", name.c_str(),
              comp.c_str());
   }
}

size_t LogComponentCount() { return LogComponents().size(); }

}  // namespace core
}  // namespace hyksim

// ---- the module interface ------------------------------------------------------

using namespace hyksim;

extern "C" hyk_Status hyk_LogRegister(const hyk_LogProps *props, hyk_LogHandle *handle) {
   HYKSIM_FAULT_POINT("hyk_LogRegister");
   AssertMaySleep("hyk_LogRegister");
   hyk_Status st = CheckProps(props, handle);
   if (st != HYK_OK) {
      return st;
   }
   Registry &r = Reg();
   std::lock_guard<std::mutex> lk(r.mu);
   if (NameTaken(props->name, props->throttle)) {
      return HYK_EXISTS;
   }
   if (r.used == kMaxComponents) {
      return HYK_NO_RESOURCES;
   }
   Component &c = r.slots[r.used];
   strncpy(c.name, props->name, sizeof c.name - 1);
   c.nameLen = static_cast<uint8_t>(strnlen(c.name, sizeof c.name - 1));
   c.level.store(props->defaultLevel);
   c.receivedBase.store(ReceivedSum(r.used), std::memory_order_relaxed);
   c.throttle = props->throttle;
   c.owner = hyk_ModuleCurrentID();
   c.state.store(kSlotLive, std::memory_order_release);
   *handle = ++r.used;
   return HYK_OK;
}

extern "C" hyk_Status hyk_LogUnregister(hyk_LogHandle handle) {
   HYKSIM_FAULT_POINT("hyk_LogUnregister");
   AssertMaySleep("hyk_LogUnregister");
   std::lock_guard<std::mutex> lk(Reg().mu);
   Component *c = Lookup(handle);
   if (c == nullptr) {
      return HYK_INVALID_HANDLE;
   }
   c->state.store(kSlotGone, std::memory_order_release);
   return HYK_OK;
}

extern "C" int hyk_LogLevel(uint32_t urgency, hyk_LogHandle handle, int32_t level,
                            const char *fmt, ...) {
   Component *c = Lookup(handle);
   if (c == nullptr) {
      return 0;
   }
   CountReceived(handle - 1);
   if (fmt == nullptr || level > c->level.load(std::memory_order_relaxed)) {
      return 0;
   }
   if (c->throttle == HYK_LOG_THROTTLE_COUNT && !ThrottlePasses(c)) {
      return 0;
   }
   va_list ap;
   va_start(ap, fmt);
   const size_t args = LogFormatted(std::string_view(c->name, c->nameLen), level, false, fmt, ap);
   va_end(ap);
   return static_cast<int>(sizeof(RecordHeader) + args);
}

extern "C" int32_t hyk_LogGetCurrentLogLevel(hyk_LogHandle handle) {
   Component *c = Lookup(handle);
   return c == nullptr ? 0 : c->level.load(std::memory_order_relaxed);
}

extern "C" hyk_Status hyk_LogSetLevel(hyk_LogHandle handle, int32_t level) {
   HYKSIM_FAULT_POINT("hyk_LogSetLevel");
   Component *c = Lookup(handle);
   if (c == nullptr) {
      return HYK_INVALID_HANDLE;
   }
   c->level.store(level, std::memory_order_relaxed);
   return HYK_OK;
}

extern "C" void _hyk_LogMessage(const char *fmt, ...) {
   va_list ap;
   va_start(ap, fmt);
   PlainPrint(false, fmt, ap);
   va_end(ap);
}

extern "C" void _hyk_WarningMessage(const char *fmt, ...) {
   va_list ap;
   va_start(ap, fmt);
   PlainPrint(true, fmt, ap);
   va_end(ap);
}
