#include "host/mime_text.h"

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "testing/temp_folder.h"

namespace mrwl::host {
namespace {

std::string Base64(std::string_view bytes) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    std::uint32_t group = static_cast<unsigned char>(bytes[i]) << 16;
    if (i + 1 < bytes.size()) group |= static_cast<unsigned char>(bytes[i + 1]) << 8;
    if (i + 2 < bytes.size()) group |= static_cast<unsigned char>(bytes[i + 2]);
    out += kAlphabet[(group >> 18) & 63];
    out += kAlphabet[(group >> 12) & 63];
    out += i + 1 < bytes.size() ? kAlphabet[(group >> 6) & 63] : '=';
    out += i + 2 < bytes.size() ? kAlphabet[group & 63] : '=';
  }
  return out;
}

// `text` (bytes of `charset`) as base64 encoded words cut after each of `cuts` bytes, one blank
// between words: cuts inside a character are what a naive decoder gets wrong.
std::string SplitWords(std::string_view charset, std::string_view text, std::vector<int> cuts) {
  std::string header;
  std::size_t start = 0;
  cuts.push_back(static_cast<int>(text.size()));
  for (int cut : cuts) {
    if (!header.empty()) header += "\r\n ";
    header += "=?" + std::string(charset) + "?B?" + Base64(text.substr(start, cut - start)) + "?=";
    start = static_cast<std::size_t>(cut);
  }
  return header;
}

std::string Hex(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (unsigned char c : bytes) {
    hex += kDigits[c >> 4];
    hex += kDigits[c & 15];
  }
  return hex;
}

std::string FromHex(std::string_view hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16));
  }
  return bytes;
}

// Python's `email` package, run as a child process over a file of header values.
class PythonReference {
 public:
  std::vector<std::string> Decode(const std::vector<std::string>& values) {
    std::string lines;
    for (const std::string& value : values) lines += Hex(value) + "\n";
    folder_.Write("values.txt", lines);
    folder_.Write("decode.py",
                  "import sys\n"
                  "from email.header import decode_header, make_header\n"
                  "for line in open(sys.argv[1]):\n"
                  "    value = bytes.fromhex(line.strip()).decode('utf-8')\n"
                  "    print(str(make_header(decode_header(value))).encode('utf-8').hex())\n");
    const std::string command = "python3 '" + folder_.PathOf("decode.py") + "' '" +
                                folder_.PathOf("values.txt") + "' > '" +
                                folder_.PathOf("decoded.txt") + "'";
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    std::ifstream in(folder_.PathOf("decoded.txt"));
    std::vector<std::string> decoded;
    for (std::string line; std::getline(in, line);) decoded.push_back(FromHex(line));
    return decoded;
  }

 private:
  testing::TempFolder folder_;
};

TEST(MimeTextHeader, EncodedWordsMatchPythonsEmailPackage) {
  const std::string japanese = "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E\xE3\x81\xAE\xE4\xBB\xB6";
  const std::string emoji =
      "Gr\xC3\xB6\xC3\x9F"
      "e \xF0\x9F\x98\x80 ok";
  const std::string greek = "\xC1\xE8\xDE\xED\xE1 \xEA\xE1\xE9 \xD0\xE5\xE9\xF1\xE1\xE9\xDC\xF2";
  const std::string russian = "\xCF\xF0\xE8\xE2\xE5\xF2, \xEC\xE8\xF0!";
  const std::vector<std::string> values = {
      SplitWords("UTF-8", japanese, {4}),            // inside the second character
      SplitWords("utf-8", japanese, {1, 2, 7, 11}),  // every kind of cut
      SplitWords("utf-8", emoji, {3, 8, 10}),        // inside "ö" and the four-byte emoji
      SplitWords("iso-8859-7", greek, {3, 9}),
      SplitWords("windows-1251", russian, {2, 7}),
      "=?UTF-8?Q?Gr=C3?= =?UTF-8?Q?=B6=C3=9Fe_und_Stra=C3=9Fe?=",
      "Re: =?iso-8859-7?q?=C1=E8=DE=ED=E1?= und =?windows-1251?b?z/Do4uXy?= Ende",
      "=?utf-8?q?caf=C3=A9?=  \t =?iso-8859-7?q?=E1?=",
      "Fwd: =?utf-8?b?" + Base64(japanese) + "?=",
      "=?utf-8?q?a?=\r\n\t=?utf-8?q?_b?=",
      "Plain subject without words",
  };
  const std::vector<std::string> expected = PythonReference().Decode(values);
  ASSERT_EQ(expected.size(), values.size());
  for (std::size_t i = 0; i < values.size(); ++i) {
    SCOPED_TRACE(values[i]);
    EXPECT_EQ(DecodeHeaderText(values[i]), expected[i]);
  }
  EXPECT_EQ(expected[2], emoji);  // the reference itself keeps the split characters
}

TEST(MimeTextHeader, DecodesWhatPythonRefusesOrSpacesDifferently) {
  const struct {
    std::string raw;
    std::string text;
  } cases[] = {
      {"=?utf-8?q?x?=: y", "x: y"},
      {"=?utf-8*en?Q?a_b?=", "a b"},
      {"=?utf-8?x?abc?= =?utf-8?q?d", "=?utf-8?x?abc?= =?utf-8?q?d"},
      {"caf\xE9 \x80 caf\xC3\xA9", "caf\xC3\xA9 \xE2\x82\xAC caf\xC3\xA9"},
      {"=?x-unknown?q?caf=E9?=", "caf\xC3\xA9"},
      {"=?utf-8?q?a=FFb=zz?=",
       "a\xEF\xBF\xBD"
       "b=zz"},
      {"=?utf8?b?w6k?= =?UTF-8?B?w6k=?=", "\xC3\xA9\xC3\xA9"},
      {"  folded\r\n   line  ", "folded line"},
      {"", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.raw);
    EXPECT_EQ(DecodeHeaderText(c.raw), c.text);
  }
}

TEST(MimeTextHeader, HugeMalformedValuesStayLinear) {
  const std::string pieces[] = {"=?", "=?utf-8?q?", "=?utf-8?b?\xFF", "?=", "=?a?q?b?="};
  for (const std::string& piece : pieces) {
    SCOPED_TRACE(piece);
    std::string raw;
    while (raw.size() < 1'000'000) raw += piece;
    const auto start = std::chrono::steady_clock::now();
    const std::string text = DecodeHeaderText(raw);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_TRUE(IsValidUtf8(text));
  }
}

TEST(MimeTextCharset, ConvertsWithAliasesAndReplacements) {
  const struct {
    std::string bytes;
    std::string charset;
    std::string text;
    bool problem;
  } cases[] = {
      {"caf\xE9", "ISO-8859-1", "caf\xC3\xA9", false},
      {"caf\xE9", " \"Latin1\" ", "caf\xC3\xA9", false},
      {"\x93Hi\x94 \x80", "iso-8859-1", "\xE2\x80\x9CHi\xE2\x80\x9D \xE2\x82\xAC", false},
      {"a\x81", "windows-1252", "a\xEF\xBF\xBD", true},
      {"\xCF\xF0\xE8", "windows-1251", "\xD0\x9F\xD1\x80\xD0\xB8", false},
      {"\x82\xA0", "x-sjis", "\xE3\x81\x82", false},
      {"\xB0\xA1", "ks_c_5601-1987", "\xEA\xB0\x80", false},
      {"\xA5", "x-mac-roman", "\xE2\x80\xA2", false},
      {"+AGEAYg-", "utf-7", "ab", false},
      {"\x1B$B$3$s\x1B(B!", "ISO-2022-JP", "\xE3\x81\x93\xE3\x82\x93!", false},
      {"plain", "", "plain", false},
      {"a\xFF"
       "b\xE6\x97",
       "utf-8",
       "a\xEF\xBF\xBD"
       "b\xEF\xBF\xBD\xEF\xBF\xBD",
       true},
      {"a\xFF"
       "b",
       "us-ascii",
       "a\xEF\xBF\xBD"
       "b",
       true},
      {"a\xFFz\x82", "shift_jis", "a\xEF\xBF\xBDz\xEF\xBF\xBD", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.charset + ": " + c.bytes);
    std::string problem = "untouched";
    EXPECT_EQ(ToUtf8(c.bytes, c.charset, &problem), c.text);
    if (c.problem) {
      EXPECT_NE(problem.find("not valid in the character set"), std::string::npos) << problem;
    } else {
      EXPECT_EQ(problem, "untouched");
    }
  }
}

TEST(MimeTextCharset, UnknownCharsetReadsAsUtf8ElseWindows1252) {
  for (const std::string charset : {"x-foo", "utf-8//IGNORE"}) {
    SCOPED_TRACE(charset);
    std::string problem;
    EXPECT_EQ(ToUtf8("caf\xE9 \xE2\x82\xAC \x80", charset, &problem),
              "caf\xC3\xA9 \xE2\x82\xAC \xE2\x82\xAC");
    EXPECT_EQ(problem,
              "The character set \"" + charset + "\" is unknown; the text is shown as UTF-8.");
  }
}

TEST(MimeTextCharset, RandomBytesComeOutValidInEveryCharset) {
  std::string bytes;
  std::uint32_t seed = 12345;
  for (int i = 0; i < 300'000; ++i) {
    seed = seed * 1103515245 + 12345;
    bytes += static_cast<char>(seed >> 16);
  }
  for (const char* charset : {"utf-8", "shift_jis", "gb2312", "iso-2022-jp", "utf-7", "x-foo"}) {
    SCOPED_TRACE(charset);
    EXPECT_TRUE(IsValidUtf8(ToUtf8(bytes, charset)));
  }
}

TEST(MimeTextCharset, ValidatesUtf8Strictly) {
  const struct {
    std::string text;
    bool valid;
  } cases[] = {
      {"", true},
      {std::string("a\0b", 3), true},
      {"\xC3\xA9\xE6\x97\xA5\xF0\x9F\x98\x80", true},
      {"\xF4\x8F\xBF\xBF", true},
      {"\xC0\xAF", false},          // overlong slash
      {"\xE0\x80\xAF", false},      // overlong slash
      {"\xED\xA0\x80", false},      // surrogate
      {"\xF4\x90\x80\x80", false},  // above U+10FFFF
      {"\xE6\x97", false},          // cut short
      {"\x80", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(Hex(c.text));
    EXPECT_EQ(IsValidUtf8(c.text), c.valid);
  }
}

TEST(MimeTextAddress, ParsesNamesQuotesCommentsAndGroups) {
  const struct {
    std::string raw;
    std::string mailboxes;  // name|address, ";" between
    std::string shown;
  } cases[] = {
      {"\"Lee, Ann\" <ann@x.org>, bob@y.org (Bob B)", "Lee, Ann|ann@x.org;Bob B|bob@y.org",
       "Lee, Ann; Bob B"},
      {"Team: c@z.org, D <d@z.org>;, e@z.org", "|c@z.org;D|d@z.org;|e@z.org",
       "c@z.org; D; e@z.org"},
      {"undisclosed-recipients:;", "undisclosed-recipients|", "undisclosed-recipients"},
      {"=?utf-8?q?J=C3=BCrgen_M=C3=BCller?= <j@x.de>", "J\xC3\xBCrgen M\xC3\xBCller|j@x.de",
       "J\xC3\xBCrgen M\xC3\xBCller"},
      {"=?utf-8?q?Lee,_Ann?= <a@b.c>", "Lee, Ann|a@b.c", "Lee, Ann"},
      {"\"a \\\"b\\\"\" (x) <q@r.s> (y)", "a \"b\"|q@r.s", "a \"b\""},
      {"<@relay.org,@b.org:joe@x.org>", "|joe@x.org", "joe@x.org"},
      {"ann @ x . org", "|ann@x.org", "ann@x.org"},
      {"Ann Lee ann@x.org", "Ann Lee|ann@x.org", "Ann Lee"},
      {"\"john doe\"@x.org", "|\"john doe\"@x.org", "\"john doe\"@x.org"},
      {"Fr\xE9"
       "d\xE9ric <f@x.fr>",
       "Fr\xC3\xA9"
       "d\xC3\xA9ric|f@x.fr",
       "Fr\xC3\xA9"
       "d\xC3\xA9ric"},
      {"not an address", "not an address|", "not an address"},
      {" , ,", "", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.raw);
    std::string mailboxes;
    for (const Mailbox& mailbox : ParseAddressList(c.raw)) {
      if (!mailboxes.empty()) mailboxes += ';';
      mailboxes += mailbox.name + "|" + mailbox.address;
    }
    EXPECT_EQ(mailboxes, c.mailboxes);
    EXPECT_EQ(DisplayAddressList(c.raw), c.shown);
  }
}

TEST(MimeTextDate, ParsesModernAndObsoleteForms) {
  constexpr std::int64_t kNoon = 1795452360;  // 2026-11-23 16:46 UTC
  const struct {
    std::string raw;
    std::int64_t unixSeconds;
    int offsetMinutes;
  } cases[] = {
      {"Mon, 23 Nov 2026 16:46:44 +0000", kNoon + 44, 0},
      {"Mon, 23 Nov 2026 17:46:44 +0100 (CET)", kNoon + 44, 60},
      {"23 Nov 2026 11:46 EST", kNoon, -300},
      {"Monday,  23  November  26  08:46:00  PST", kNoon, -480},
      {"Mon, 23 Nov 126 16:46:44 GMT", kNoon + 44, 0},
      {"23-Nov-2026 16:46:44 Z", kNoon + 44, 0},
      {"Mon Nov 23 16:46:44 2026", kNoon + 44, 0},
      {"Mon, 23 Nov 2026 22:16:44 +05:30", kNoon + 44, 330},
      {"Mon, 23 Nov 2026 (a comment) 16:46:44 -0000", kNoon + 44, 0},
      {"Tue, 1 Jan 80 00:00:00 UT", 315532800, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.raw);
    const std::optional<MailDate> date = ParseMailDate(c.raw);
    ASSERT_TRUE(date.has_value());
    EXPECT_EQ(date->unixSeconds, c.unixSeconds);
    EXPECT_EQ(date->offsetMinutes, c.offsetMinutes);
  }
  for (const char* raw : {"", "no date here", "31 Nov 2026 10:00", "Nov 2026", "23 Nov 99999"}) {
    SCOPED_TRACE(raw);
    EXPECT_FALSE(ParseMailDate(raw).has_value());
  }
}

TEST(MimeTextDate, LocalTimeFollowsTz) {
  constexpr std::int64_t kSent = 1795452404;  // 2026-11-23 16:46:44 UTC
  const struct {
    const char* zone;
    const char* shown;
    double ole;
  } cases[] = {
      {"UTC", "Monday, November 23, 2026 4:46 PM", 46349.0 + 60404.0 / 86400},
      {"America/New_York", "Monday, November 23, 2026 11:46 AM", 46349.0 + 42404.0 / 86400},
      {"Asia/Kolkata", "Monday, November 23, 2026 10:16 PM", 46349.0 + 80204.0 / 86400},
      {"Pacific/Kiritimati", "Tuesday, November 24, 2026 6:46 AM", 46350.0 + 24404.0 / 86400},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.zone);
    testing::ScopedEnv tz("TZ", c.zone);
    EXPECT_EQ(FormatSentDate(kSent), c.shown);
    EXPECT_NEAR(ToOleDate(kSent), c.ole, 1e-9);
  }
  testing::ScopedEnv tz("TZ", "UTC");
  EXPECT_EQ(FormatSentDate(0), "Thursday, January 1, 1970 12:00 AM");
  EXPECT_DOUBLE_EQ(ToOleDate(0), 25569.0);
  EXPECT_DOUBLE_EQ(ToOleDate(-2209161600 - 86400 + 6 * 3600), -1.25);  // 29 Dec 1899 6:00
}

// The fragment without its <div> wrapper.
std::string Inner(const std::string& html) {
  EXPECT_TRUE(html.starts_with("<div ") && html.ends_with("</div>")) << html;
  const std::size_t open = html.find('>');
  return html.substr(open + 1, html.size() - open - 1 - 6);
}

TEST(MimeTextHtml, TextKeepsLinesAndMakesLinks) {
  const struct {
    std::string text;
    bool flowed;
    bool deleteSpace;
    std::string html;
  } cases[] = {
      {"a <b> & \"c\"\r\n\tx  y\rz\n", false, false,
       "a &lt;b&gt; &amp; &quot;c&quot;\n\tx  y\nz\n"},
      {"see http://x.org/a?b=1&c=2, or (www.y.com).", false, false,
       "see <a href=\"http://x.org/a?b=1&amp;c=2\">http://x.org/a?b=1&amp;c=2</a>, or (<a "
       "href=\"http://www.y.com\">www.y.com</a>)."},
      {"https://en.x.org/Mercury_(planet) mailto:a@b.c; ftp://f.org/x", false, false,
       "<a href=\"https://en.x.org/Mercury_(planet)\">https://en.x.org/Mercury_(planet)</a> <a "
       "href=\"mailto:a@b.c\">mailto:a@b.c</a>; <a href=\"ftp://f.org/x\">ftp://f.org/x</a>"},
      {"nowww.x.org http:// user@www.z.org", false, false, "nowww.x.org http:// user@www.z.org"},
      {"One \r\n two \r\nthree\r\n From\r\n", true, false, "One two three\nFrom\n"},
      {"One \r\ntwo\r\n", true, true, "Onetwo\n"},
      {">quoted \r\n>more\r\n>>deeper\r\n-- \r\nsig", true, false,
       "&gt; quoted more\n&gt;&gt; deeper\n-- \nsig"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(Inner(TextToHtml(c.text, c.flowed, c.deleteSpace)), c.html);
  }
  EXPECT_TRUE(IsValidUtf8(TextToHtml("bad \xFF byte")));
  EXPECT_EQ(EscapeHtml("<a href='x'>&</a>"), "&lt;a href=&#39;x&#39;&gt;&amp;&lt;/a&gt;");
}

TEST(MimeTextHtml, DeclareUtf8ReplacesEveryCharsetDeclaration) {
  const struct {
    std::string html;
    std::string declared;
  } cases[] = {
      {"<html><head><meta http-equiv=\"Content-Type\" content=\"text/html; charset=iso-8859-1\">"
       "<title>t</title></head><body>x</body></html>",
       "<html><head><meta charset=\"utf-8\"><title>t</title></head><body>x</body></html>"},
      {"<HTML><HEAD lang=en><META CHARSET=koi8-r></HEAD><body><meta http-equiv=content-type "
       "content='text/html;charset=koi8-r'/><meta name=x content=y></body></HTML>",
       "<HTML><HEAD lang=en><meta charset=\"utf-8\"></HEAD><body><meta name=x content=y></body>"
       "</HTML>"},
      {"<html><header>h</header><p>x</p></html>",
       "<html><head><meta charset=\"utf-8\"></head><header>h</header><p>x</p></html>"},
      {"\xEF\xBB\xBF<!DOCTYPE html>\n<p>x<script>s='<meta charset=a>'</script>",
       "\xEF\xBB\xBF<!DOCTYPE html><meta charset=\"utf-8\">\n<p>x<script>s='<meta "
       "charset=a>'</script>"},
      {"<!-- <head> --><p>", "<meta charset=\"utf-8\"><!-- <head> --><p>"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.html);
    EXPECT_EQ(DeclareUtf8(c.html), c.declared);
  }
}

}  // namespace
}  // namespace mrwl::host
