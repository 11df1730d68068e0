#include "foundation/wide_string.h"

#include <gtest/gtest.h>

namespace mrwl {
namespace {

TEST(WideString, CapacityIsTheNextMultipleOf32LessOne) {
  EXPECT_EQ(31u, RoundCapacity(0));
  EXPECT_EQ(31u, RoundCapacity(31));
  EXPECT_EQ(63u, RoundCapacity(32));
  EXPECT_EQ(95u, RoundCapacity(64));
  WideString s(u"abc");
  EXPECT_EQ(3u, s.Length());
  EXPECT_EQ(31u, s.Capacity());
  ASSERT_TRUE(s.Append(std::u16string(40, u'x')));
  EXPECT_EQ(43u, s.Length());
  EXPECT_EQ(63u, s.Capacity());
  EXPECT_EQ(0, s.c_str()[43]);  // always terminated
}

TEST(WideString, EmptyStringsAreTerminatedWithoutMemory) {
  WideString s;
  EXPECT_TRUE(s.IsEmpty());
  EXPECT_EQ(0, s.c_str()[0]);
  EXPECT_EQ(nullptr, s.data());
  WideString fromNull(static_cast<const char16_t*>(nullptr));
  EXPECT_TRUE(fromNull.IsEmpty());
}

TEST(WideString, AppendingItsOwnTextSurvivesGrowth) {
  WideString s(u"0123456789012345678901234567890");  // 31 units: full capacity
  ASSERT_TRUE(s.Append(s.view()));
  EXPECT_EQ(u"01234567890123456789012345678900123456789012345678901234567890", s.view());
  ASSERT_TRUE(s.Append(s.view().substr(60)));
  EXPECT_EQ(64u, s.Length());
}

TEST(WideString, CopyMoveAndResize) {
  WideString a(u"hello");
  WideString b = a;
  WideString c = std::move(a);
  EXPECT_EQ(u"hello", b.view());
  EXPECT_EQ(u"hello", c.view());
  EXPECT_TRUE(a.IsEmpty());  // NOLINT(bugprone-use-after-move): moved-from is empty by contract
  ASSERT_TRUE(c.Resize(8));
  EXPECT_EQ(std::u16string_view(u"hello\0\0\0", 8), c.view());
  c.SetLength(2);
  EXPECT_EQ(u"he", c.view());
  c.Clear();
  EXPECT_TRUE(c.IsEmpty());
  EXPECT_EQ(31u, c.Capacity());
}

TEST(WideString, Utf8RoundTripAndMalformedInput) {
  const std::string text = "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";  // A, e-acute, euro, emoji
  WideString wide = Utf8ToWide(text);
  EXPECT_EQ(u"A\u00E9\u20AC\U0001F600", wide.view());
  EXPECT_EQ(text, WideToUtf8(wide));

  struct Case {
    const char* name;
    std::string in;
    std::u16string out;
  } cases[] = {
      {"overlong slash", "\xC0\xAF", u"\uFFFD\uFFFD"},
      {"encoded surrogate", "\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},
      {"truncated", "a\xE2\x82", u"a\uFFFD"},
      {"past U+10FFFF", "\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"stray continuation", "\x80z", u"\uFFFDz"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.out, Utf8ToWide(c.in).view());
  }
  EXPECT_EQ("\xEF\xBF\xBD", WideToUtf8(u"\xD800"));  // unpaired surrogate
}

TEST(WideString, CaseInsensitiveComparisonCoversLatin1) {
  EXPECT_TRUE(EqualsNoCase(u"C:\\Temp\\\u00C4", u"c:\\TEMP\\\u00E4"));
  EXPECT_FALSE(EqualsNoCase(u"abc", u"abd"));
  EXPECT_FALSE(EqualsNoCase(u"\u00D7", u"\u00F7"));  // multiplication and division signs
  EXPECT_LT(CompareNoCase(u"abc", u"ABD"), 0);
  EXPECT_GT(CompareNoCase(u"abcd", u"ABC"), 0);
}

}  // namespace
}  // namespace mrwl
