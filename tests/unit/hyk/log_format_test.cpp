// log_format_test.cpp -- deferred printf: what is captured at the call and
// formatted later reads as printf would have written it, whether the
// format's conversions were parsed just now or remembered from an earlier
// call at the same address.
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "../../../hyk/sim/log_format.h"

namespace {

using hyksim::logfmt::Capture;
using hyksim::logfmt::ForgetParsedFormats;
using hyksim::logfmt::Render;

// A fresh capture space per call, as a thread's first line has.
std::string Deferred(const char *fmt, ...) {
   hyksim::logfmt::CaptureBuffer space;
   va_list ap;
   va_start(ap, fmt);
   const std::string captured(Capture(fmt, ap, &space));
   va_end(ap);
   return Render(fmt, captured);
}

std::string Printf(const char *fmt, ...) {
   char buf[512];
   va_list ap;
   va_start(ap, fmt);
   vsnprintf(buf, sizeof buf, fmt, ap);
   va_end(ap);
   return buf;
}

TEST(DeferredPrintfTest, TheSameFormatTwiceReadsTheSameAsPrintf) {
   const char *fmt = "%s:%d:[tag subcomp=\"lus%s\"] Port %#x len %u %.3s %*d %.*s %%\n";
   for (int round = 0; round < 3; round++) {
      EXPECT_EQ(Deferred(fmt, "fn", 42 + round, "", 0x10u, 4096u, "abcdef", 5, -7, 2, "xyz"),
                Printf(fmt, "fn", 42 + round, "", 0x10u, 4096u, "abcdef", 5, -7, 2, "xyz"));
   }
}

TEST(DeferredPrintfTest, AFormatWithMoreConversionsThanAreRememberedStillReadsRight) {
   const char *fmt = "%d %d %d %d %d %d %d %d %d %d %d %d %d %s %lu %c";
   for (int round = 0; round < 2; round++) {
      EXPECT_EQ(Deferred(fmt, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, "x", 14ul, 'y'),
                "1 2 3 4 5 6 7 8 9 10 11 12 13 x 14 y");
   }
}

// The address of a format may hold another format once the object it lived
// in is closed and another mapped there: after ForgetParsedFormats (which
// the loader calls before closing an object) the new text is parsed.
TEST(DeferredPrintfTest, AFormatAddressReusedAfterForgettingIsParsedAgain) {
   static char fmt[64];
   strcpy(fmt, "%d then %s");
   EXPECT_EQ(Deferred(fmt, 7, "seven"), "7 then seven");
   ForgetParsedFormats();
   strcpy(fmt, "%s then %d then %s");
   EXPECT_EQ(Deferred(fmt, "eight", 8, "ate"), "eight then 8 then ate");
}

// Every kind of value a format can take, read from a remembered format
// (the second round) as from a freshly parsed one (the first).
TEST(DeferredPrintfTest, EveryKindOfValueReadsTheSameAsPrintfFromARememberedFormat) {
   const char *fmt = "%hhd %hd %ld %lld %jd %zu %td %c %lc %ls %p %.2f %Le %*.*s|%-*d|\n";
   for (int round = 0; round < 2; round++) {
      const signed char hh = -5;
      const short h = -300;
      EXPECT_EQ(Deferred(fmt, hh, h, -70000L, -(1LL << 40), intmax_t(-9), size_t(1) << 33, ptrdiff_t(-12),
                         'q', wint_t(L'w'), L"wide", reinterpret_cast<void *>(0x1234), 2.5, 1.25L, 6, 3,
                         "abcdef", 4, round),
                Printf(fmt, hh, h, -70000L, -(1LL << 40), intmax_t(-9), size_t(1) << 33, ptrdiff_t(-12), 'q',
                       wint_t(L'w'), L"wide", reinterpret_cast<void *>(0x1234), 2.5, 1.25L, 6, 3, "abcdef",
                       4, round));
   }
}

// A null string reads as printf prints it, narrow or wide, with or without
// a precision.
TEST(DeferredPrintfTest, NullStringsReadAsPrintfPrintsThem) {
   const char *fmt = "[%s|%.3s|%ls|%d]";
   const char *none = nullptr;
   const wchar_t *wnone = nullptr;
   for (int round = 0; round < 2; round++) {
      EXPECT_EQ(Deferred(fmt, none, none, wnone, round), Printf(fmt, none, none, wnone, round));
   }
}

// Strings longer than a thread's capture space grow it, in a remembered
// format and in one with too many conversions to remember alike.
TEST(DeferredPrintfTest, StringsLongerThanTheCaptureSpaceArriveWhole) {
   const std::string longer(10000, 'x');
   const std::string longest(50000, 'y');
   for (int round = 0; round < 2; round++) {
      EXPECT_EQ(Deferred("<%s|%d|%s>", longer.c_str(), round, longest.c_str()),
                "<" + longer + "|" + std::to_string(round) + "|" + longest + ">");
      EXPECT_EQ(Deferred("%d %d %d %d %d %d %d %d %d %d %d %d %d %s", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13,
                         longest.c_str()),
                "1 2 3 4 5 6 7 8 9 10 11 12 13 " + longest);
   }
   // A string that ends just short of the space's end, and the values after
   // it that must still fit (AddressSanitizer sees a write past it).
   for (size_t n = 4000; n < 4096; n++) {
      const std::string s(n, 'z');
      EXPECT_EQ(Deferred("%s %.1Lf %.1Lf %d %*d", s.c_str(), 1.5L, 2.5L, 7, 3, 8), s + " 1.5 2.5 7   8");
   }
}

}  // namespace
