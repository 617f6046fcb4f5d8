// input.h: the one parser of the numbers and module names a person or a
// peer types.  Every edge of every range, and the inputs that used to wrap.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "input.h"

namespace {

template <typename T>
std::string Refusal(const std::string &text, T min, T max) {
   T out{};
   std::string error;
   EXPECT_FALSE(lusinput::ParseWhole<T>(text, "the thing", min, max, &out, &error)) << text << " -> " << out;
   return error;
}

template <typename T>
T Accepted(const std::string &text, T min, T max) {
   T out{};
   std::string error;
   EXPECT_TRUE(lusinput::ParseWhole<T>(text, "the thing", min, max, &out, &error)) << text << ": " << error;
   return out;
}

TEST(InputWhole, EveryEdgeOfAnUnsignedRange) {
   EXPECT_EQ(Accepted<uint32_t>("0", 0, UINT32_MAX), 0u);
   EXPECT_EQ(Accepted<uint32_t>("4294967295", 0, UINT32_MAX), UINT32_MAX);
   EXPECT_EQ(Accepted<uint32_t>("0xffffffff", 0, UINT32_MAX), UINT32_MAX);
   EXPECT_EQ(Accepted<uint32_t>("0XBAD0007", 0, UINT32_MAX), 0xbad0007u);
   EXPECT_EQ(Accepted<uint64_t>("18446744073709551615", 0, UINT64_MAX), UINT64_MAX);
   // "010" is ten: no octal trap.
   EXPECT_EQ(Accepted<uint32_t>("010", 0, UINT32_MAX), 10u);
   EXPECT_EQ(Accepted<uint32_t>("64", 1, 64), 64u);
   EXPECT_EQ(Accepted<uint32_t>("1", 1, 64), 1u);
}

TEST(InputWhole, WhatUsedToWrapIsRefusedWithWhatAndTheRange) {
   // ioctl 4294967302 ran command 6; length=4294967296 became 0; version=4294967403 became 107.
   EXPECT_EQ(Refusal<uint32_t>("4294967302", 0, UINT32_MAX),
             "bad value '4294967302' for the thing: a whole number from 0 to 4294967295 is needed");
   Refusal<uint32_t>("4294967296", 0, UINT32_MAX);
   Refusal<uint32_t>("0x100000000", 0, UINT32_MAX);
   Refusal<uint64_t>("18446744073709551616", 0, UINT64_MAX);
   Refusal<uint64_t>("99999999999999999999999", 0, UINT64_MAX);
   // threads=-1 asked for 4,294,967,295 threads.
   EXPECT_EQ(Refusal<uint32_t>("-1", 1, 64), "bad value '-1' for the thing: a whole number from 1 to 64 is needed");
   Refusal<uint32_t>("0", 1, 64);
   Refusal<uint32_t>("65", 1, 64);
   Refusal<uint32_t>("100000", 1, 64);
}

TEST(InputWhole, OnlyDigitsAndNothingElse) {
   for (const char *bad : {"", " 1", "1 ", "+1", "1.0", "1e3", "abc", "0x", "0xg", "1x", "--1", "-", "nan", "inf",
                           "1\n", "\t2", "0x-1", "-0x", "١"}) {
      Refusal<uint64_t>(bad, 0, UINT64_MAX);
      Refusal<int64_t>(bad, INT64_MIN, INT64_MAX);
   }
}

TEST(InputWhole, SignedRangesTakeAMinusSign) {
   EXPECT_EQ(Accepted<int>("-5", -10, 10), -5);
   EXPECT_EQ(Accepted<int64_t>("-9223372036854775808", INT64_MIN, INT64_MAX), INT64_MIN);
   EXPECT_EQ(Accepted<int64_t>("9223372036854775807", INT64_MIN, INT64_MAX), INT64_MAX);
   EXPECT_EQ(Accepted<int>("-0x10", -100, 100), -16);
   Refusal<int64_t>("-9223372036854775809", INT64_MIN, INT64_MAX);
   Refusal<int64_t>("9223372036854775808", INT64_MIN, INT64_MAX);
   Refusal<int>("-11", -10, 10);
   Refusal<int>("256", 0, 255);
   // A range without negatives takes no minus sign, not even "-0".
   Refusal<int>("-0", 0, 255);
}

TEST(InputWhole, AHugeOrHostileValueIsShownCutAndClean) {
   const std::string huge(1 << 20, '9');
   const std::string error = Refusal<uint32_t>(huge, 0, UINT32_MAX);
   EXPECT_LT(error.size(), 200u);
   EXPECT_NE(error.find("'9999999999999999999999999999999999999999...'"), std::string::npos) << error;
   EXPECT_NE(Refusal<uint32_t>(std::string("1\x1b[2J", 5), 0, 10).find("'1?[2J'"), std::string::npos);
}

uint64_t Seconds(const std::string &text, uint64_t maxUS = UINT64_MAX) {
   uint64_t us = 0;
   std::string error;
   EXPECT_TRUE(lusinput::ParseSeconds(text, "the seconds", maxUS, &us, &error)) << text << ": " << error;
   return us;
}

std::string SecondsRefusal(const std::string &text, uint64_t maxUS = UINT64_MAX) {
   uint64_t us = 0;
   std::string error;
   EXPECT_FALSE(lusinput::ParseSeconds(text, "the seconds", maxUS, &us, &error)) << text << " -> " << us;
   return error;
}

TEST(InputSeconds, ExactToTheMicrosecond) {
   EXPECT_EQ(Seconds("0"), 0u);
   EXPECT_EQ(Seconds("121"), 121000000u);
   EXPECT_EQ(Seconds("0.1"), 100000u);
   EXPECT_EQ(Seconds("0.000001"), 1u);
   EXPECT_EQ(Seconds("1.5"), 1500000u);
   EXPECT_EQ(Seconds("18446744073709.551615"), UINT64_MAX);
   EXPECT_EQ(Seconds("2.5", 2500000), 2500000u);
}

TEST(InputSeconds, OutOfRangeAndMalformedAreRefused) {
   // advance 1e300 was converted out of range; advance 18446744073709 twice wrapped.
   EXPECT_EQ(SecondsRefusal("1e300", 3000000),
             "bad value '1e300' for the seconds: seconds from 0 to 3.000000, to the microsecond, are needed");
   SecondsRefusal("18446744073709.551616");
   SecondsRefusal("18446744073710");
   SecondsRefusal("99999999999999999999999");
   SecondsRefusal("3.000001", 3000000);
   for (const char *bad : {"", ".", "1.", ".5", "-1", "+1", "1.0000001", "1,5", "1.2.3", "inf", "nan", " 1", "0x10"}) {
      SecondsRefusal(bad);
   }
}

TEST(InputFraction, AProbabilityFromZeroToOne) {
   double p = -1;
   std::string error;
   EXPECT_TRUE(lusinput::ParseFraction("0.25", "probability", 0.0, 1.0, &p, &error)) << error;
   EXPECT_EQ(p, 0.25);
   EXPECT_TRUE(lusinput::ParseFraction("1", "probability", 0.0, 1.0, &p, &error)) << error;
   EXPECT_EQ(p, 1.0);
   for (const char *bad : {"1.01", "-0.5", "nan", "inf", "1e-3", "", ".", "0x1", "2"}) {
      EXPECT_FALSE(lusinput::ParseFraction(bad, "probability", 0.0, 1.0, &p, &error)) << bad;
   }
   EXPECT_EQ(error, "bad value '2' for probability: a number from 0 to 1 is needed");
}

TEST(InputModuleName, NamesAreNamesNeverPaths) {
   std::string error;
   for (const char *good : {"lus-2000", "tarnq-dfw-1000", "tarnq_stats.v2-1000", "L"}) {
      EXPECT_TRUE(lusinput::ModuleName(good, &error)) << good << ": " << error;
   }
   for (const char *bad : {"", "../lus-2000", "lus-../../x", "a/b", "/etc/passwd", "..", ".hidden", "-x", "a..b",
                           "lus 2000", "lus\n", "a\\b"}) {
      EXPECT_FALSE(lusinput::ModuleName(bad, &error)) << bad;
   }
   EXPECT_FALSE(lusinput::ModuleName(std::string(64, 'a'), &error));
   EXPECT_TRUE(lusinput::ModuleName(std::string(63, 'a'), &error)) << error;
   EXPECT_FALSE(lusinput::ModuleName("lus-../../x", &error));
   EXPECT_EQ(error, "bad module name 'lus-../../x': a name is letters, digits, '-', '_' and '.', never a path");
}

}  // namespace
