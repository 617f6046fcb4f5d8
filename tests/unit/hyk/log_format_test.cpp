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

std::string Deferred(const char *fmt, ...) {
   std::string captured;
   va_list ap;
   va_start(ap, fmt);
   Capture(fmt, ap, &captured);
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

}  // namespace
