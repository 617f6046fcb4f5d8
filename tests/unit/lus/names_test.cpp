// "<prefix><value>" names (the cswitch events of a build, the fast-datapath
// and switch modules of a build), built in the caller's buffer without a C
// library: every digit count, and every buffer size around the exact fit.
#include <cstring>

#include "lus_fixture.h"

namespace lustest {
namespace {

using FormatNameFn = hyk_Status(char *, uint32_t, const char *, uint32_t);

class NamesTest : public LusTest {
  protected:
   // The name in a buffer of `len` bytes (poisoned first), and the status.
   std::pair<hyk_Status, std::string> Format(uint32_t len, const char *prefix, uint32_t value) {
      std::vector<char> buf(len + 8, '#');
      hyk_Status st = LusFn<FormatNameFn>("lusFormatNameU32")(buf.data(), len, prefix, value);
      // Nothing past the buffer it was given.
      for (size_t i = len; i < buf.size(); i++) EXPECT_EQ(buf[i], '#') << "byte " << i;
      if (len == 0) return {st, std::string(buf.data(), 1)};
      EXPECT_NE(memchr(buf.data(), '\0', len), nullptr);
      return {st, std::string(buf.data())};
   }
};

TEST_F(NamesTest, EveryDigitCountFitsExactlyAndOneByteLessDoesNot) {
   Load();
   const std::pair<uint32_t, std::string> values[] = {
      {0, "0"}, {7, "7"}, {10, "10"}, {1000, "1000"}, {99999, "99999"}, {4294967295u, "4294967295"}};
   for (const auto &[value, digits] : values) {
      const std::string want = "tarnq-fdp-" + digits;
      const uint32_t exact = static_cast<uint32_t>(want.size() + 1);
      EXPECT_EQ(Format(exact, "tarnq-fdp-", value), std::make_pair(static_cast<hyk_Status>(HYK_OK), want));
      EXPECT_EQ(Format(exact + 20, "tarnq-fdp-", value),
                std::make_pair(static_cast<hyk_Status>(HYK_OK), want));
      // One byte short: refused, and the buffer holds the empty name.
      EXPECT_EQ(Format(exact - 1, "tarnq-fdp-", value),
                std::make_pair(static_cast<hyk_Status>(HYK_NAME_TOO_LONG), std::string()));
   }
}

TEST_F(NamesTest, AnEmptyPrefixAndAZeroSizedBuffer) {
   Load();
   EXPECT_EQ(Format(5, "", 1234), std::make_pair(static_cast<hyk_Status>(HYK_OK), std::string("1234")));
   // No byte of a zero-sized buffer is written.
   EXPECT_EQ(Format(0, "x", 1), std::make_pair(static_cast<hyk_Status>(HYK_NAME_TOO_LONG), std::string("#")));
}

}  // namespace
}  // namespace lustest
