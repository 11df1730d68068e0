#include "foundation/format.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "foundation/wide_string.h"

namespace mrwl {
namespace {

std::u16string Format(const char16_t* format, auto... args) {
  return std::u16string(FormatText(format, args...).view());
}

TEST(FormatText, IntegersFollowWidePrintf) {
  EXPECT_EQ(u"42 -42 +7 ' 7'", Format(u"%d %i %+d '% d'", 42, -42, 7, 7));
  EXPECT_EQ(u"4294967295 ffffffff FFFFFFFF 17", Format(u"%u %x %X %o", -1, -1, -1, 15));
  EXPECT_EQ(u"0x1f 0X1F 017 0 0", Format(u"%#x %#X %#o %#x %#o", 31, 31, 15, 0, 0));
  EXPECT_EQ(u"[   42][42   ][00042][-0042]", Format(u"[%5d][%-5d][%05d][%05d]", 42, 42, 42, -42));
  EXPECT_EQ(u"[  007][]", Format(u"[%5.3d][%.0d]", 7, 0));
  EXPECT_EQ(u"[   42][42   ][  7]", Format(u"[%*d][%-*d][%*.*d]", 5, 42, -5, 42, 3, 1, 7));
  // h and hh narrow the value; l stays 32 bits as on Windows; ll, I64 and z take 64.
  EXPECT_EQ(u"-1 255 -1", Format(u"%hd %hhu %ld", 0x1FFFF, 0x1FF, -1));
  EXPECT_EQ(u"-9000000000 123456789abc 18446744073709551615",
            Format(u"%lld %I64x %zu", -9000000000LL, 0x123456789ABCLL, SIZE_MAX));
  EXPECT_EQ(u"-2147483648", Format(u"%d", INT32_MIN));
}

TEST(FormatText, TextConversionsTakeWideAndNarrowStrings) {
  EXPECT_EQ(u"wide narrow (null) (null)",
            Format(u"%s %hs %s %hs", u"wide", "narrow", static_cast<const char16_t*>(nullptr),
                   static_cast<const char*>(nullptr)));
  EXPECT_EQ(u"[  abc][abc  ][ab]", Format(u"[%5s][%-5s][%.2s]", u"abc", u"abc", u"abc"));
  EXPECT_EQ(u"gr\u00fc\u00dfe \U0001F600", Format(u"%hs %ls",
                                                  "gr\xC3\xBC\xC3\x9F"
                                                  "e",
                                                  u"\U0001F600"));
  EXPECT_EQ(u"A\u00e9z", Format(u"%c%c%hc", u'A', u'\u00e9', 'z'));
  EXPECT_EQ(u"100% sure", Format(u"100%% sure"));
}

TEST(FormatText, PointersFloatsAndOddFormats) {
  const std::u16string pointer = Format(u"%p", reinterpret_cast<void*>(0xABCDEF));
  EXPECT_EQ(sizeof(void*) * 2, pointer.size());
  EXPECT_EQ(u"ABCDEF", pointer.substr(pointer.size() - 6));
  EXPECT_EQ(std::u16string(pointer.size() - 6, u'0'), pointer.substr(0, pointer.size() - 6));

  EXPECT_EQ(u"3.14 2.500000e+00 0.1", Format(u"%.2f %e %g", 3.14159, 2.5, 0.1));
  EXPECT_EQ(u"[    1.5]", Format(u"[%7.1f]", 1.5));
  // An unknown conversion stands as it was written; a format cut inside a conversion too.
  EXPECT_EQ(u"a %y b %", Format(u"a %y b %"));
  EXPECT_EQ(u"", Format(nullptr));
}

TEST(FormatText, AppendKeepsWhatStandsAndHandlesLongOutput) {
  WideString out(u"OLaddin: ");
  EXPECT_TRUE(AppendFormatText(out, u"%s=%d", u"n", 5));
  EXPECT_EQ(u"OLaddin: n=5", out.view());

  const std::u16string longText(5000, u'x');
  const std::u16string formatted = Format(u"<%s>", longText.c_str());
  EXPECT_EQ(5002u, formatted.size());
  EXPECT_EQ(u'>', formatted.back());
}

TEST(FormatText, PrecisionBoundsTheTextRead) {
  // Text with a precision need not be terminated; nothing past the precision may be read.
  const char16_t wide[3] = {u'a', u'b', u'c'};
  EXPECT_EQ(FormatText(u"%.2s|", wide).view(), u"ab|");
  const char narrow[2] = {'x', 'y'};
  EXPECT_EQ(FormatText(u"%.1hs|", narrow).view(), u"x|");
}

TEST(FormatText, IntegerFlagsMatchTheCRuntime) {
  struct Case {
    const char* format;
    int value;
  } const cases[] = {{"%#o", 0},   {"%#o", 8},      {"%#.0o", 0}, {"%.0d", 0},
                     {"%08.3d", -5}, {"%#10.4o", 8}, {"%.70u", 7}, {"%-6x|", 255},
                     {"%+d", 3},  {"% d", 3},       {"%#X", 255}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.format);
    char expected[128];
    std::snprintf(expected, sizeof expected, c.format, c.value);
    const std::u16string format(c.format, c.format + std::strlen(c.format));
    EXPECT_EQ(WideToUtf8(FormatText(format.c_str(), c.value)), expected);
  }
}

}  // namespace
}  // namespace mrwl
