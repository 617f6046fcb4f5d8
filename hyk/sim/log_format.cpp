// log_format.cpp -- deferred printf (see log_format.h).
//
// Both halves walk the format with the same parser, so they agree on which
// argument each conversion takes.  The record is a flat byte string: 8 bytes
// per integer, pointer or double, 16 per long double, and for a string a
// 32-bit length (all ones for a null pointer) followed by its bytes.
// Positional arguments ("%1$d") are not supported: the rest of such a format
// is kept as literal text rather than guessed at.
#include "log_format.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <vector>

namespace hyksim::logfmt {
namespace {

enum class Len : uint8_t { kNone, kHH, kH, kL, kLL, kJ, kZ, kT, kBigL };

struct Conversion {
   const char *begin = nullptr;  // the '%'
   const char *end = nullptr;    // one past the conversion character
   bool starWidth = false;
   bool starPrec = false;
   bool hasPrec = false;
   int prec = 0;
   Len len = Len::kNone;
   char conv = 0;
};

const char *ParseLength(const char *q, Len *len) {
   switch (*q) {
   case 'h':
      if (q[1] == 'h') {
         *len = Len::kHH;
         return q + 2;
      }
      *len = Len::kH;
      return q + 1;
   case 'l':
      if (q[1] == 'l') {
         *len = Len::kLL;
         return q + 2;
      }
      *len = Len::kL;
      return q + 1;
   case 'q': *len = Len::kLL; return q + 1;
   case 'j': *len = Len::kJ; return q + 1;
   case 'z':
   case 'Z': *len = Len::kZ; return q + 1;
   case 't': *len = Len::kT; return q + 1;
   case 'L': *len = Len::kBigL; return q + 1;
   default: return q;
   }
}

// A printf flag character ("-+ #0'I"): tested per character of every
// conversion of every captured line, so no library call.
inline bool IsFlag(char c) {
   return c == '-' || c == '+' || c == ' ' || c == '#' || c == '0' || c == '\'' || c == 'I';
}

// A conversion character this host formats ("diouxXcCsSpneEfFgGaA%").
inline bool IsConversion(char c) {
   switch (c) {
   case 'd': case 'i': case 'o': case 'u': case 'x': case 'X': case 'c': case 'C': case 's':
   case 'S': case 'p': case 'n': case 'e': case 'E': case 'f': case 'F': case 'g': case 'G':
   case 'a': case 'A': case '%':
      return true;
   default:
      return false;
   }
}

// Parses the conversion at p (which points at '%').  false for a malformed
// or positional conversion.
bool ParseSpec(const char *p, Conversion *s) {
   s->begin = p;
   const char *q = p + 1;
   while (IsFlag(*q)) {
      q++;
   }
   if (*q == '*') {
      s->starWidth = true;
      q++;
   } else {
      while (*q >= '0' && *q <= '9') {
         q++;
      }
   }
   if (*q == '$') {
      return false;
   }
   if (*q == '.') {
      s->hasPrec = true;
      q++;
      if (*q == '*') {
         s->starPrec = true;
         q++;
      } else {
         s->prec = 0;
         while (*q >= '0' && *q <= '9') {
            s->prec = s->prec * 10 + (*q - '0');
            q++;
         }
      }
   }
   q = ParseLength(q, &s->len);
   s->conv = *q;
   if (!IsConversion(s->conv)) {
      return false;
   }
   s->end = q + 1;
   return true;
}

bool IsIntConv(char c) {
   return c == 'd' || c == 'i' || c == 'o' || c == 'u' || c == 'x' || c == 'X';
}
bool IsWideChar(const Conversion &s) { return s.conv == 'C' || (s.conv == 'c' && s.len == Len::kL); }
bool IsWideStr(const Conversion &s) { return s.conv == 'S' || (s.conv == 's' && s.len == Len::kL); }

// ---- capture ---------------------------------------------------------------

constexpr size_t kInitialCapture = 4096;

// What a conversion takes from the argument list, decided once per parsed
// format, so that a capture switches on it instead of testing characters.
enum class Op : uint8_t {
   kInt, kLong, kLongLong, kIntMax, kSize, kPtrDiff, kWint, kStr, kWStr, kPtr, kSkip, kDouble, kLongDouble
};

Op OpOf(const Conversion &s) {
   if (IsIntConv(s.conv)) {
      switch (s.len) {
      case Len::kL: return Op::kLong;
      case Len::kLL: return Op::kLongLong;
      case Len::kJ: return Op::kIntMax;
      case Len::kZ: return Op::kSize;
      case Len::kT: return Op::kPtrDiff;
      default: return Op::kInt;
      }
   }
   if (IsWideChar(s)) return Op::kWint;
   if (s.conv == 'c') return Op::kInt;
   if (IsWideStr(s)) return Op::kWStr;
   if (s.conv == 's') return Op::kStr;
   if (s.conv == 'p') return Op::kPtr;
   if (s.conv == 'n') return Op::kSkip;  // the host never writes through %n
   return s.len == Len::kBigL ? Op::kLongDouble : Op::kDouble;
}

// ---- render ----------------------------------------------------------------

struct Reader {
   std::string_view data;
   size_t pos = 0;
   bool Get(void *dst, size_t n) {
      if (pos + n > data.size()) {
         return false;
      }
      memcpy(dst, data.data() + pos, n);
      pos += n;
      return true;
   }
};

template <typename T>
void Emit(std::string *out, const std::string &sub, T v) {
   char buf[256];
   int n = snprintf(buf, sizeof buf, sub.c_str(), v);
   if (n < 0) {
      return;
   }
   if (static_cast<size_t>(n) < sizeof buf) {
      out->append(buf, static_cast<size_t>(n));
      return;
   }
   std::string big(static_cast<size_t>(n) + 1, '\0');
   snprintf(big.data(), big.size(), sub.c_str(), v);
   out->append(big.data(), static_cast<size_t>(n));
}

void EmitInt(std::string *out, const std::string &sub, Len len, uint64_t v) {
   switch (len) {
   case Len::kL: Emit(out, sub, static_cast<long>(v)); break;
   case Len::kLL: Emit(out, sub, static_cast<long long>(v)); break;
   case Len::kJ: Emit(out, sub, static_cast<intmax_t>(v)); break;
   case Len::kZ: Emit(out, sub, static_cast<size_t>(v)); break;
   case Len::kT: Emit(out, sub, static_cast<ptrdiff_t>(v)); break;
   default: Emit(out, sub, static_cast<int>(v)); break;
   }
}

bool EmitString(Reader &r, const std::string &sub, bool wide, std::string *out) {
   uint32_t n = 0;
   if (!r.Get(&n, sizeof n)) {
      return false;
   }
   if (n == 0xffffffffu) {
      Emit(out, sub, static_cast<const char *>(nullptr));  // glibc prints "(null)"
      return true;
   }
   if (wide) {
      std::wstring w(n, L'\0');
      if (!r.Get(w.data(), n * sizeof(wchar_t))) {
         return false;
      }
      Emit(out, sub, w.c_str());
      return true;
   }
   std::string s(n, '\0');
   if (!r.Get(s.data(), n)) {
      return false;
   }
   Emit(out, sub, s.c_str());
   return true;
}

bool EmitValue(Reader &r, const Conversion &s, const std::string &sub, std::string *out) {
   uint64_t v = 0;
   if (IsIntConv(s.conv)) {
      if (!r.Get(&v, sizeof v)) {
         return false;
      }
      EmitInt(out, sub, s.len, v);
   } else if (IsWideChar(s) || s.conv == 'c') {
      if (!r.Get(&v, sizeof v)) {
         return false;
      }
      if (IsWideChar(s)) {
         Emit(out, sub, static_cast<wint_t>(v));
      } else {
         Emit(out, sub, static_cast<int>(v));
      }
   } else if (s.conv == 's' || s.conv == 'S') {
      return EmitString(r, sub, IsWideStr(s), out);
   } else if (s.conv == 'p') {
      if (!r.Get(&v, sizeof v)) {
         return false;
      }
      Emit(out, sub, reinterpret_cast<void *>(static_cast<uintptr_t>(v)));
   } else if (s.conv == 'n') {
      return true;
   } else if (s.len == Len::kBigL) {
      long double d;
      if (!r.Get(&d, sizeof d)) {
         return false;
      }
      Emit(out, sub, d);
   } else {
      double d;
      if (!r.Get(&d, sizeof d)) {
         return false;
      }
      Emit(out, sub, d);
   }
   return true;
}

// Rebuilds the conversion with every '*' replaced by its captured value.
bool BuildSub(Reader &r, const Conversion &s, std::string *sub) {
   sub->clear();
   for (const char *q = s.begin; q < s.end; q++) {
      if (*q != '*') {
         sub->push_back(*q);
         continue;
      }
      uint64_t v = 0;
      if (!r.Get(&v, sizeof v)) {
         return false;
      }
      int n = static_cast<int>(static_cast<int64_t>(v));
      bool isPrec = q > s.begin && q[-1] == '.';
      if (isPrec && n < 0) {
         sub->pop_back();  // a negative precision means none: drop the '.'
         continue;
      }
      *sub += std::to_string(n);
   }
   return true;
}

// ---- parsed formats ------------------------------------------------------------
//
// The same few dozen formats are logged per port, so each thread keeps the
// conversions of the formats it logged last, by address: a capture then
// walks a short list instead of the format's text.  An address may hold
// another format once its object is closed and another mapped there;
// ForgetParsedFormats (called before any object closes) moves the
// generation on, and a plan of an older generation is parsed again.

constexpr size_t kPlanConversions = 12;  // formats with more are parsed each time
constexpr size_t kPlans = 64;            // per thread, direct-mapped by address

struct Plan {
   const char *fmt = nullptr;
   uint64_t generation = 0;
   uint8_t count = 0;
   uint32_t fixedBytes = 0;  // of every value but a string's characters
   Op op[kPlanConversions];
   Conversion conv[kPlanConversions];
};

std::atomic<uint64_t> gGeneration{1};
thread_local Plan tPlans[kPlans];

// What a conversion's values take in a record, but a string's characters.
uint32_t FixedBytes(const Conversion &s, Op op) {
   uint32_t n = (s.starWidth ? 8 : 0) + (s.starPrec ? 8 : 0);
   switch (op) {
   case Op::kStr:
   case Op::kWStr: return n + 4;
   case Op::kLongDouble: return n + sizeof(long double);
   case Op::kSkip: return n;
   default: return n + 8;
   }
}

// Calls fn for each argument-taking conversion of fmt, up to the first
// malformed one, while fn returns true; false if fn stopped the walk.
template <class F>
bool ForEachConversion(const char *fmt, F fn) {
   for (const char *p = strchr(fmt, '%'); p != nullptr; p = strchr(p, '%')) {
      Conversion s;
      if (!ParseSpec(p, &s)) {
         break;
      }
      p = s.end;
      if (s.conv != '%' && !fn(s)) {
         return false;
      }
   }
   return true;
}

// Parses fmt's argument-taking conversions into *plan; false when there are
// more than fit.
bool ParsePlan(const char *fmt, Plan *plan) {
   plan->count = 0;
   plan->fixedBytes = 0;
   return ForEachConversion(fmt, [plan](const Conversion &s) {
      if (plan->count == kPlanConversions) {
         return false;
      }
      const Op op = OpOf(s);
      plan->fixedBytes += FixedBytes(s, op);
      plan->op[plan->count] = op;
      plan->conv[plan->count++] = s;
      return true;
   });
}

const Plan *PlanFor(const char *fmt) {
   const auto a = reinterpret_cast<uintptr_t>(fmt);
   Plan &plan = tPlans[(a >> 3 ^ a >> 11) % kPlans];
   const uint64_t generation = gGeneration.load(std::memory_order_acquire);
   if (plan.fmt == fmt && plan.generation == generation) {
      return &plan;
   }
   plan.fmt = nullptr;
   if (!ParsePlan(fmt, &plan)) {
      return nullptr;
   }
   plan.fmt = fmt;
   plan.generation = generation;
   return &plan;
}

}  // namespace

void ForgetParsedFormats() { gGeneration.fetch_add(1, std::memory_order_acq_rel); }

namespace {

// The capture of a parsed format, in one frame: the argument list and the
// cursor stay in registers from one value to the next (passed by reference
// to a helper, each value waited on the store of the one before).
size_t CaptureParsed(const Conversion *conv, const Op *ops, size_t count, uint32_t fixedBytes, va_list ap,
                     CaptureTarget *t) {
   va_list va;
   va_copy(va, ap);
   char *p = t->start;
   char *end = t->end;
   // Makes room, when it must, so that n more bytes fit.
   auto room = [&](size_t n) {
      if (static_cast<size_t>(end - p) < n) [[unlikely]] {
         const size_t used = static_cast<size_t>(p - t->start);
         t->grow(t, used, n);
         p = t->start + used;
         end = t->end;
      }
   };
   // Every value but a string's characters fits in what is made room for
   // here; a string makes room for its characters and that again.
   room(fixedBytes);
   auto put64 = [&](uint64_t v) {
      memcpy(p, &v, sizeof v);
      p += sizeof v;
   };
   // A string: its length in characters (all ones for a null pointer), then them.
   auto putString = [&](const auto *str, size_t n) {
      const uint32_t n32 = str == nullptr ? 0xffffffffu : static_cast<uint32_t>(n);
      const size_t bytes = n * sizeof *str;
      room(sizeof n32 + bytes + fixedBytes);
      memcpy(p, &n32, sizeof n32);
      if (bytes != 0) {
         memcpy(p + sizeof n32, str, bytes);
      }
      p += sizeof n32 + bytes;
   };
   for (size_t i = 0; i < count; i++) {
      const Conversion &s = conv[i];
      int prec = s.prec;
      if (s.starWidth | s.starPrec) [[unlikely]] {
         if (s.starWidth) {
            put64(static_cast<uint64_t>(static_cast<int64_t>(va_arg(va, int))));
         }
         if (s.starPrec) {
            prec = va_arg(va, int);
            put64(static_cast<uint64_t>(static_cast<int64_t>(prec)));
         }
      }
      // With a precision a string need not be terminated: read no further.
      const bool bounded = s.hasPrec && prec >= 0;
      switch (ops[i]) {
      case Op::kInt: put64(static_cast<uint64_t>(static_cast<int64_t>(va_arg(va, int)))); break;
      case Op::kLong: put64(static_cast<uint64_t>(va_arg(va, long))); break;
      case Op::kLongLong: put64(static_cast<uint64_t>(va_arg(va, long long))); break;
      case Op::kIntMax: put64(static_cast<uint64_t>(va_arg(va, intmax_t))); break;
      case Op::kSize: put64(static_cast<uint64_t>(va_arg(va, size_t))); break;
      case Op::kPtrDiff: put64(static_cast<uint64_t>(va_arg(va, ptrdiff_t))); break;
      case Op::kWint: put64(static_cast<uint64_t>(va_arg(va, wint_t))); break;
      case Op::kPtr: put64(reinterpret_cast<uintptr_t>(va_arg(va, void *))); break;
      case Op::kSkip: (void)va_arg(va, void *); break;
      case Op::kStr: {
         const char *str = va_arg(va, const char *);
         putString(str, str == nullptr ? 0 : bounded ? strnlen(str, static_cast<size_t>(prec)) : strlen(str));
         break;
      }
      case Op::kWStr: {
         const wchar_t *w = va_arg(va, const wchar_t *);
         putString(w, w == nullptr ? 0 : bounded ? wcsnlen(w, static_cast<size_t>(prec)) : wcslen(w));
         break;
      }
      case Op::kLongDouble: {
         long double d = va_arg(va, long double);
         memcpy(p, &d, sizeof d);
         p += sizeof d;
         break;
      }
      case Op::kDouble: {
         double d = va_arg(va, double);
         memcpy(p, &d, sizeof d);
         p += sizeof d;
         break;
      }
      }
   }
   va_end(va);
   return static_cast<size_t>(p - t->start);
}

// A capture buffer's growth: doubled until the record fits, what it holds kept.
void GrowBuffer(CaptureTarget *t, size_t used, size_t more) {
   auto *buf = static_cast<CaptureBuffer *>(t->owner);
   size_t cap = buf->capacity;
   while (cap - used < more) {
      cap *= 2;
   }
   auto bigger = std::make_unique<char[]>(cap);
   memcpy(bigger.get(), buf->data.get(), used);
   buf->data = std::move(bigger);
   buf->capacity = cap;
   t->start = buf->data.get();
   t->end = t->start + cap;
}

}  // namespace

size_t CaptureInto(const char *fmt, va_list ap, CaptureTarget *t) {
   if (const Plan *plan = PlanFor(fmt)) {
      return CaptureParsed(plan->conv, plan->op, plan->count, plan->fixedBytes, ap, t);
   }
   // Too many conversions to remember: parsed for this line alone.
   std::vector<Conversion> conv;
   std::vector<Op> ops;
   uint32_t fixedBytes = 0;
   ForEachConversion(fmt, [&](const Conversion &s) {
      conv.push_back(s);
      ops.push_back(OpOf(s));
      fixedBytes += FixedBytes(s, ops.back());
      return true;
   });
   return CaptureParsed(conv.data(), ops.data(), conv.size(), fixedBytes, ap, t);
}

std::string_view Capture(const char *fmt, va_list ap, CaptureBuffer *buf) {
   if (buf->capacity < kInitialCapture) {
      buf->data = std::make_unique<char[]>(kInitialCapture);
      buf->capacity = kInitialCapture;
   }
   CaptureTarget t{buf->data.get(), buf->data.get() + buf->capacity, GrowBuffer, buf};
   const size_t n = CaptureInto(fmt, ap, &t);
   return {buf->data.get(), n};
}

std::string Render(const char *fmt, std::string_view captured) {
   std::string out;
   std::string sub;
   Reader r{captured};
   const char *p = fmt;
   while (*p != '\0') {
      const char *pct = strchr(p, '%');
      if (pct == nullptr) {
         out.append(p);
         break;
      }
      out.append(p, static_cast<size_t>(pct - p));
      Conversion s;
      if (!ParseSpec(pct, &s)) {
         out.append(pct);
         break;
      }
      p = s.end;
      if (s.conv == '%') {
         out.push_back('%');
         continue;
      }
      if (!BuildSub(r, s, &sub) || !EmitValue(r, s, sub, &out)) {
         out.append("<truncated>");
         break;
      }
   }
   return out;
}

}  // namespace hyksim::logfmt
