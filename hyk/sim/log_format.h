// log_format.h -- deferred printf: capture a call's arguments now, format
// them later on the logger thread.
//
// Logging sits on per-port hot paths, so the caller only walks the format's
// conversions and copies the raw argument values (and the bytes of every %s
// string, which may change or vanish after the call) into a byte record.  The
// logger thread replays the record against the same format.  The format
// pointer itself is kept, which is why a module's lines must be formatted
// before its object is closed.
#pragma once

#include <cstdarg>
#include <memory>
#include <string>
#include <string_view>

namespace hyksim::logfmt {

// Where a capture writes: its bytes go from `start` on, up to `end`.  When
// the next value does not fit, `grow` is asked for room for `more` bytes
// beyond the `used` ones already written; it may move those (and whatever
// the owner keeps just before `start`) and sets start and end anew.
struct CaptureTarget {
   char *start = nullptr;
   char *end = nullptr;
   void (*grow)(CaptureTarget *t, size_t used, size_t more) = nullptr;
   void *owner = nullptr;  // for grow
};

// Captures the arguments `fmt` consumes from `ap` at t->start; returns how
// many bytes it wrote there.
size_t CaptureInto(const char *fmt, va_list ap, CaptureTarget *t);

// A thread's space for captured arguments, reused from line to line so
// that a capture costs no allocation and writes through a plain cursor.
struct CaptureBuffer {
   std::unique_ptr<char[]> data;
   size_t capacity = 0;
};

// Captures the arguments `fmt` consumes from `ap` into *buf; the bytes are
// valid until the next capture into it.
std::string_view Capture(const char *fmt, va_list ap, CaptureBuffer *buf);

// Before an object closes: a format address seen so far may next hold
// another format.
void ForgetParsedFormats();

// Formats `fmt` with arguments captured by Capture.
std::string Render(const char *fmt, std::string_view captured);

}  // namespace hyksim::logfmt
