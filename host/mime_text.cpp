#include "host/mime_text.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <glib.h>

namespace mrwl::host {

char AsciiLower(char c) noexcept { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::string AsciiLower(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = AsciiLower(c);
  return lower;
}

bool EqualsIgnoringCase(std::string_view a, std::string_view b) noexcept {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (AsciiLower(a[i]) != AsciiLower(b[i])) return false;
  }
  return true;
}

bool StartsWithIgnoringCase(std::string_view text, std::string_view prefix) noexcept {
  return text.size() >= prefix.size() && EqualsIgnoringCase(text.substr(0, prefix.size()), prefix);
}

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

bool IsAsciiSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }
bool IsBlank(char c) { return c == ' ' || c == '\t'; }
bool IsAsciiDigit(char c) { return c >= '0' && c <= '9'; }
bool IsAsciiAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
std::string_view TrimBlanks(std::string_view text) {
  while (!text.empty() && IsAsciiSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsAsciiSpace(text.back())) text.remove_suffix(1);
  return text;
}

void AppendCodePoint(std::string& out, char32_t c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

// The length of the well-formed UTF-8 sequence that starts `text`, 0 when it starts with none.
std::size_t SequenceLength(const unsigned char* p, std::size_t n) {
  const unsigned c = p[0];
  if (c < 0x80) return 1;
  auto cont = [&](std::size_t i) { return i < n && (p[i] & 0xC0) == 0x80; };
  if (c < 0xC2) return 0;
  if (c < 0xE0) return cont(1) ? 2 : 0;
  if (c < 0xF0) {
    if (!cont(1) || !cont(2)) return 0;
    if (c == 0xE0 && p[1] < 0xA0) return 0;   // overlong
    if (c == 0xED && p[1] >= 0xA0) return 0;  // surrogate
    return 3;
  }
  if (c < 0xF5) {
    if (!cont(1) || !cont(2) || !cont(3)) return 0;
    if (c == 0xF0 && p[1] < 0x90) return 0;   // overlong
    if (c == 0xF4 && p[1] >= 0x90) return 0;  // above U+10FFFF
    return 4;
  }
  return 0;
}

// The bytes of windows-1252 from 0x80 to 0x9F; the five it leaves undefined read as U+FFFD.
constexpr std::array<char16_t, 32> kCp1252High = {
    0x20AC, 0xFFFD, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0xFFFD, 0x017D, 0xFFFD, 0xFFFD, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0xFFFD, 0x017E, 0x0178};

// Appends `bytes` read as UTF-8; each byte outside a well-formed sequence is read as
// windows-1252 (`asCp1252`) or becomes U+FFFD. Returns whether any byte was outside.
bool AppendRepairedUtf8(std::string& out, std::string_view bytes, bool asCp1252) {
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  const std::size_t n = bytes.size();
  bool repaired = false;
  std::size_t runStart = 0;
  std::size_t i = 0;
  while (i < n) {
    if (p[i] < 0x80) {
      ++i;
      continue;
    }
    const std::size_t length = SequenceLength(p + i, n - i);
    if (length != 0) {
      i += length;
      continue;
    }
    out.append(bytes.data() + runStart, i - runStart);
    if (asCp1252) {
      AppendCodePoint(out, p[i] < 0xA0 ? kCp1252High[p[i] - 0x80] : p[i]);
    } else {
      out += kReplacement;
    }
    repaired = true;
    ++i;
    runStart = i;
  }
  out.append(bytes.data() + runStart, n - runStart);
  return repaired;
}

// Mail names charsets in many ways that the C library does not know, or knows under a narrower
// meaning than mail means: these lead to the name iconv understands, mostly the Windows superset
// that the sending program really used.
struct CharsetAlias {
  std::string_view mailName;
  const char* iconvName;
};
constexpr CharsetAlias kCharsetAliases[] = {
    {"x-mac-roman", "MACINTOSH"},
    {"mac", "MACINTOSH"},
    {"x-mac-ce", "MAC-CENTRALEUROPE"},
    {"x-mac-cyrillic", "MAC-CYRILLIC"},
    {"ks_c_5601-1987", "CP949"},
    {"ks_c_5601", "CP949"},
    {"ksc5601", "CP949"},
    {"ksc_5601", "CP949"},
    {"euc-kr", "CP949"},
    {"x-euc-kr", "CP949"},
    {"shift_jis", "CP932"},
    {"shift-jis", "CP932"},
    {"x-sjis", "CP932"},
    {"sjis", "CP932"},
    {"ms_kanji", "CP932"},
    {"x-euc-jp", "EUC-JP"},
    {"gb2312", "GB18030"},
    {"gbk", "GB18030"},
    {"x-gbk", "GB18030"},
    {"cp936", "GB18030"},
    {"ms936", "GB18030"},
    {"euc-cn", "GB18030"},
    {"x-euc-cn", "GB18030"},
    {"chinese", "GB18030"},
    {"big5", "BIG5-HKSCS"},
    {"x-x-big5", "BIG5-HKSCS"},
    {"iso-8859-8-i", "ISO-8859-8"},
    {"iso-8859-8-e", "ISO-8859-8"},
    {"iso-8859-6-i", "ISO-8859-6"},
    {"iso-8859-6-e", "ISO-8859-6"},
    {"unicode-1-1-utf-7", "UTF-7"},
    {"tis-620", "CP874"},
};

// A charset name as mail writes it, reduced to a key: blanks, quotes and an RFC 2231 language
// ("utf-8*en") removed, lower case.
std::string CharsetKey(std::string_view charset) {
  charset = TrimBlanks(charset);
  while (!charset.empty() && (charset.front() == '"' || charset.front() == '\'')) {
    charset.remove_prefix(1);
  }
  while (!charset.empty() && (charset.back() == '"' || charset.back() == '\'')) {
    charset.remove_suffix(1);
  }
  const std::size_t star = charset.find('*');
  if (star != std::string_view::npos) charset = charset.substr(0, star);
  return AsciiLower(TrimBlanks(charset));
}

bool IsUtf8Key(std::string_view key) {
  static constexpr std::string_view kUtf8Names[] = {
      "", "us-ascii", "ascii", "utf-8", "utf8", "ansi_x3.4-1968", "iso646-us", "us", "csascii"};
  return std::find(std::begin(kUtf8Names), std::end(kUtf8Names), key) != std::end(kUtf8Names);
}

// Labels read as windows-1252, as browsers read them: mail that says ISO-8859-1 was mostly
// written on Windows, and the C1 controls that ISO-8859-1 has where windows-1252 has its quotes
// and dashes never stand in real text.
bool IsWindows1252Key(std::string_view key) {
  static constexpr std::string_view kNames[] = {
      "iso-8859-1", "iso8859-1", "iso_8859-1", "iso_8859-1:1987", "latin1", "latin-1",  "l1",
      "cp819",      "ibm819",    "iso-ir-100", "windows-1252",    "cp1252", "x-cp1252", "cp-1252"};
  return std::find(std::begin(kNames), std::end(kNames), key) != std::end(kNames);
}

// Appends windows-1252 `bytes`; returns whether one of its five undefined bytes was among them.
bool AppendWindows1252(std::string& out, std::string_view bytes) {
  bool replaced = false;
  for (char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80) {
      out += c;
    } else {
      const char32_t code = byte < 0xA0 ? kCp1252High[byte - 0x80] : byte;
      replaced |= code == 0xFFFD;
      AppendCodePoint(out, code);
    }
  }
  return replaced;
}

// An iconv descriptor to UTF-8 for the charset `key`, or none when the system has no converter.
GIConv NoConverter() { return reinterpret_cast<GIConv>(static_cast<std::intptr_t>(-1)); }

GIConv OpenConverter(const std::string& key) {
  const GIConv none = NoConverter();
  for (const CharsetAlias& alias : kCharsetAliases) {
    if (alias.mailName == key) return g_iconv_open("UTF-8", alias.iconvName);
  }
  // iconv refuses what is not a plain name, and a name of options ("utf-8//IGNORE") must not
  // change how the conversion behaves.
  for (char c : key) {
    if (!(IsAsciiAlpha(c) || IsAsciiDigit(c) || c == '-' || c == '_' || c == '.' || c == ':')) {
      return none;
    }
  }
  GIConv converter = g_iconv_open("UTF-8", key.c_str());
  if (converter == none && key.size() > 2 && key.starts_with("x-")) {
    converter = g_iconv_open("UTF-8", key.c_str() + 2);
  }
  return converter;
}

// The charset's name as the reader may see it in a sentence: valid UTF-8 and short.
std::string ShownCharsetName(std::string_view charset) {
  charset = TrimBlanks(charset);
  if (charset.size() > 40) charset = charset.substr(0, 40);
  std::string shown;
  AppendRepairedUtf8(shown, charset, true);
  return shown;
}

// Converts with `converter`; each byte that does not convert becomes U+FFFD. Returns whether one
// did not.
bool ConvertWithReplacement(GIConv converter, std::string_view bytes, std::string& out) {
  // Room that any one character's output fits in: iconv reporting a failure with less room left
  // than this was out of room, with more the input was at fault.
  constexpr std::size_t kRoom = 64;
  const std::size_t start = out.size();
  out.resize(start + bytes.size() + bytes.size() / 2 + kRoom * 2);
  std::size_t used = start;
  gchar* in = const_cast<gchar*>(bytes.data());
  gsize inLeft = bytes.size();
  bool replaced = false;
  auto ensureRoom = [&]() {
    if (out.size() - used < kRoom * 2) out.resize(out.size() + out.size() / 2 + kRoom * 2);
  };
  while (inLeft > 0) {
    ensureRoom();
    gchar* outPtr = out.data() + used;
    gsize outLeft = out.size() - used;
    const gsize result = g_iconv(converter, &in, &inLeft, &outPtr, &outLeft);
    used = out.size() - outLeft;
    if (result != static_cast<gsize>(-1)) break;
    if (outLeft < kRoom) continue;
    if (inLeft == 0) break;
    // An invalid or incomplete sequence: one byte of it goes, and the shift state stays.
    out.replace(used, kReplacement.size(), kReplacement);
    used += kReplacement.size();
    ++in;
    --inLeft;
    replaced = true;
  }
  ensureRoom();
  gchar* outPtr = out.data() + used;
  gsize outLeft = out.size() - used;
  (void)g_iconv(converter, nullptr, nullptr, &outPtr, &outLeft);  // the final shift sequence
  used = out.size() - outLeft;
  out.resize(used);
  return replaced;
}

std::string UnknownCharsetSentence(std::string_view charset) {
  return "The character set \"" + ShownCharsetName(charset) +
         "\" is unknown; the text is shown as UTF-8.";
}

std::string ReplacementSentence(std::string_view charset) {
  return "The text holds bytes that are not valid in the character set \"" +
         ShownCharsetName(charset.empty() ? std::string_view("utf-8") : charset) +
         "\"; they are shown as \xEF\xBF\xBD.";
}

// Raw 8-bit header text: UTF-8 where it is, else windows-1252.
void AppendRawHeaderText(std::string& out, std::string_view bytes) {
  AppendRepairedUtf8(out, bytes, true);
}

// ---- RFC 2047 ----------------------------------------------------------------------------------

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

void AppendQDecoded(std::string& out, std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '_') {
      out += ' ';
    } else if (c == '=' && i + 2 < text.size() && HexValue(text[i + 1]) >= 0 &&
               HexValue(text[i + 2]) >= 0) {
      out += static_cast<char>(HexValue(text[i + 1]) * 16 + HexValue(text[i + 2]));
      i += 2;
    } else {
      out += c;
    }
  }
}

int Base64Value(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

// Lenient as mail readers are: characters outside the alphabet are skipped, missing padding is
// tolerated, and decoding stops at the first pad.
void AppendBase64Decoded(std::string& out, std::string_view text) {
  std::uint32_t bits = 0;
  int count = 0;
  for (char c : text) {
    if (c == '=') break;
    const int value = Base64Value(c);
    if (value < 0) continue;
    bits = (bits << 6) | static_cast<std::uint32_t>(value);
    count += 6;
    if (count >= 8) {
      count -= 8;
      out += static_cast<char>((bits >> count) & 0xFF);
    }
  }
}

struct EncodedWord {
  std::size_t end = 0;  // one past its "?="
  std::string charsetKey;
  std::string charset;  // as written, for sentences
  std::string bytes;
};

// Finds "?=" in `text` at or after a position; remembers the last answer so that a header full of
// "=?" without an end is still read in linear time.
class CloseFinder {
 public:
  explicit CloseFinder(std::string_view text) : text_(text) {}
  std::size_t From(std::size_t from) {
    if (searched_ && from >= searchedFrom_ &&
        (found_ == std::string_view::npos || found_ >= from)) {
      return found_;
    }
    searched_ = true;
    searchedFrom_ = from;
    found_ = text_.find("?=", from);
    return found_;
  }

 private:
  std::string_view text_;
  bool searched_ = false;
  std::size_t searchedFrom_ = 0;
  std::size_t found_ = std::string_view::npos;
};

// Reads the encoded word that starts at `start` ("=?"), as Python's `email` package does: the
// encoded text runs to the first "?=" after the encoding.
std::optional<EncodedWord> ReadEncodedWord(std::string_view text, std::size_t start,
                                           CloseFinder& closes) {
  constexpr std::size_t kMaxCharset = 64;
  std::size_t i = start + 2;
  const std::size_t charsetStart = i;
  while (i < text.size() && text[i] != '?' && !IsAsciiSpace(text[i]) &&
         i - charsetStart <= kMaxCharset) {
    ++i;
  }
  if (i == charsetStart || i + 2 >= text.size() || text[i] != '?') return std::nullopt;
  const char encoding = AsciiLower(text[i + 1]);
  if ((encoding != 'b' && encoding != 'q') || text[i + 2] != '?') return std::nullopt;
  const std::size_t encodedStart = i + 3;
  const std::size_t close = closes.From(encodedStart);
  if (close == std::string_view::npos) return std::nullopt;
  EncodedWord word;
  word.charset = std::string(text.substr(charsetStart, i - charsetStart));
  word.charsetKey = CharsetKey(word.charset);
  const std::string_view encoded = text.substr(encodedStart, close - encodedStart);
  if (encoding == 'b') {
    AppendBase64Decoded(word.bytes, encoded);
  } else {
    AppendQDecoded(word.bytes, encoded);
  }
  word.end = close + 2;
  return word;
}

// Folding undone: each line break, with the blanks that begin the next line, becomes one blank.
std::string Unfold(std::string_view raw) {
  std::string text;
  text.reserve(raw.size());
  for (std::size_t i = 0; i < raw.size();) {
    if (raw[i] == '\r' || raw[i] == '\n') {
      while (i < raw.size() && (raw[i] == '\r' || raw[i] == '\n')) ++i;
      while (i < raw.size() && IsBlank(raw[i])) ++i;
      text += ' ';
    } else {
      text += raw[i++];
    }
  }
  return text;
}

// ---- addresses ---------------------------------------------------------------------------------

// One entry of an address list while it is read.
struct AddressEntry {
  std::string phrase;   // the words before the address, quoted strings without their quotes
  std::string raw;      // the entry without comments, quoted strings as written
  std::string comment;  // the first comment
  std::optional<std::string> angle;
  bool pendingBlank = false;
  bool atOutsideQuotes = false;
};

void AddToPhrase(AddressEntry& entry, std::string_view word) {
  if (entry.pendingBlank && !entry.phrase.empty()) entry.phrase += ' ';
  if (entry.pendingBlank && !entry.raw.empty()) entry.raw += ' ';
  entry.pendingBlank = false;
  entry.phrase += word;
}

// Reads the quoted string at `start` ('"'); returns its content, and where it ends in `end`.
std::string ReadQuoted(std::string_view text, std::size_t start, std::size_t& end) {
  std::string content;
  std::size_t i = start + 1;
  while (i < text.size() && text[i] != '"') {
    if (text[i] == '\\' && i + 1 < text.size()) ++i;
    content += text[i++];
  }
  end = i < text.size() ? i + 1 : i;
  return content;
}

// Reads the comment at `start` ('('), nested ones inside it included.
std::string ReadComment(std::string_view text, std::size_t start, std::size_t& end) {
  std::string content;
  int depth = 0;
  std::size_t i = start;
  for (; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\\' && i + 1 < text.size()) {
      content += text[++i];
      continue;
    }
    if (c == '(') {
      if (depth++ == 0) continue;
    } else if (c == ')') {
      if (--depth == 0) break;
    }
    content += c;
  }
  end = i < text.size() ? i + 1 : i;
  return content;
}

// The address between angle brackets: comments and blanks outside quotes go, and so does an
// obsolete route ("@relay.org,@other.org:").
std::string CleanAngleAddress(std::string_view text) {
  std::string address;
  for (std::size_t i = 0; i < text.size();) {
    const char c = text[i];
    if (c == '"') {
      std::size_t end = 0;
      (void)ReadQuoted(text, i, end);
      address += text.substr(i, end - i);
      i = end;
    } else if (c == '(') {
      std::size_t end = 0;
      (void)ReadComment(text, i, end);
      i = end;
    } else if (IsAsciiSpace(c)) {
      ++i;
    } else {
      address += c;
      ++i;
    }
  }
  if (address.starts_with('@')) {
    const std::size_t colon = address.find(':');
    address.erase(0, colon == std::string::npos ? address.size() : colon + 1);
  }
  std::string valid;
  AppendRawHeaderText(valid, address);
  return valid;
}

std::string WithoutQuotes(std::string_view text) {
  std::string out;
  for (char c : text) {
    if (c != '"') out += c;
  }
  return out;
}

// Ends the entry: a mailbox when it holds anything.
void EndAddressEntry(AddressEntry& entry, std::vector<Mailbox>& mailboxes) {
  Mailbox mailbox;
  const std::string phraseName = DecodeHeaderText(entry.phrase);
  const std::string commentName = DecodeHeaderText(entry.comment);
  if (entry.angle) {
    mailbox.address = *entry.angle;
    mailbox.name = phraseName.empty() ? commentName : phraseName;
  } else if (entry.atOutsideQuotes) {
    // A bare address (local@domain), with the blanks an obsolete form allows around its '@' and points, or a name
    // before it whose angle brackets were forgotten.
    std::string compact;
    std::vector<std::size_t> blanks;  // blanks of `compact` outside quotes
    std::size_t at = 0;               // its last '@' outside quotes
    bool quoted = false;
    for (std::size_t i = 0; i < entry.raw.size(); ++i) {
      const char c = entry.raw[i];
      if (c == '"') quoted = !quoted;
      if (!quoted && c == ' ') {
        const bool nextJoins =
            i + 1 < entry.raw.size() && (entry.raw[i + 1] == '@' || entry.raw[i + 1] == '.');
        const bool lastJoins = !compact.empty() && (compact.back() == '@' || compact.back() == '.');
        if (nextJoins || lastJoins) continue;
        blanks.push_back(compact.size());
      }
      if (!quoted && c == '@') at = compact.size();
      compact += c;
    }
    std::size_t begin = 0;
    std::size_t end = compact.size();
    for (std::size_t blank : blanks) {
      if (blank < at) begin = blank + 1;
      if (blank > at) {
        end = blank;
        break;
      }
    }
    AppendRawHeaderText(mailbox.address, std::string_view(compact).substr(begin, end - begin));
    std::string before = WithoutQuotes(TrimBlanks(std::string_view(compact).substr(0, begin)));
    mailbox.name = before.empty() ? commentName : DecodeHeaderText(before);
  } else {
    mailbox.name = phraseName.empty() ? commentName : phraseName;
  }
  if (!mailbox.name.empty() || !mailbox.address.empty()) mailboxes.push_back(std::move(mailbox));
  entry = AddressEntry();
}

// ---- dates -------------------------------------------------------------------------------------

// Days since 1970-01-01 of a date of the proleptic Gregorian calendar.
std::int64_t DaysFromCivil(std::int64_t year, int month, int day) {
  year -= month <= 2 ? 1 : 0;
  const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
  const std::int64_t yearOfEra = year - era * 400;
  const std::int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const std::int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + dayOfEra - 719468;
}

struct CivilTime {
  std::int64_t year = 1970;
  int month = 1;
  int day = 1;
  int hour = 0;
  int minute = 0;
  int second = 0;
  int weekday = 4;  // 0 is Sunday
};

CivilTime CivilFromSeconds(std::int64_t seconds) {
  std::int64_t days = seconds / 86400;
  std::int64_t rest = seconds % 86400;
  if (rest < 0) {
    rest += 86400;
    --days;
  }
  CivilTime time;
  time.hour = static_cast<int>(rest / 3600);
  time.minute = static_cast<int>(rest / 60 % 60);
  time.second = static_cast<int>(rest % 60);
  time.weekday = static_cast<int>(((days + 4) % 7 + 7) % 7);
  const std::int64_t z = days + 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const std::int64_t dayOfEra = z - era * 146097;
  const std::int64_t yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const std::int64_t mp = (5 * dayOfYear + 2) / 153;
  time.day = static_cast<int>(dayOfYear - (153 * mp + 2) / 5 + 1);
  time.month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  time.year = yearOfEra + era * 400 + (time.month <= 2 ? 1 : 0);
  return time;
}

// The wall-clock time of `unixSeconds` in the process's time zone. GLib looks at TZ on each call
// and drops its cached zone when TZ has changed.
CivilTime LocalCivilTime(std::int64_t unixSeconds) {
  GDateTime* local = g_date_time_new_from_unix_local(unixSeconds);
  if (local == nullptr) return CivilFromSeconds(unixSeconds);  // outside years 1 to 9999
  const std::int64_t offset = g_date_time_get_utc_offset(local) / G_TIME_SPAN_SECOND;
  g_date_time_unref(local);
  return CivilFromSeconds(unixSeconds + offset);
}

constexpr std::string_view kMonthNames[] = {"January",   "February", "March",    "April",
                                            "May",       "June",     "July",     "August",
                                            "September", "October",  "November", "December"};
constexpr std::string_view kDayNames[] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                          "Thursday", "Friday", "Saturday"};

// 1 to 12 for a month's name or its abbreviation of three letters or more, else 0.
int MonthOf(std::string_view word) {
  if (word.size() < 3) return 0;
  for (int i = 0; i < 12; ++i) {
    if (StartsWithIgnoringCase(kMonthNames[i], word)) return i + 1;
  }
  return 0;
}

// The offset in minutes of a zone name of RFC 5322 and its predecessors.
std::optional<int> ZoneNameOffset(std::string_view word) {
  static constexpr std::pair<std::string_view, int> kZones[] = {
      {"ut", 0},        {"utc", 0},       {"gmt", 0},       {"z", 0},
      {"est", -5 * 60}, {"edt", -4 * 60}, {"cst", -6 * 60}, {"cdt", -5 * 60},
      {"mst", -7 * 60}, {"mdt", -6 * 60}, {"pst", -8 * 60}, {"pdt", -7 * 60}};
  for (const auto& [name, offset] : kZones) {
    if (EqualsIgnoringCase(word, name)) return offset;
  }
  // Military letters were defined with the wrong sign, so they carry no information.
  if (word.size() == 1 && IsAsciiAlpha(word[0]) && AsciiLower(word[0]) != 'j') return 0;
  return std::nullopt;
}

// "+0100", "-0530", "+01:00", "+01": minutes east of UTC.
std::optional<int> NumericZoneOffset(std::string_view token) {
  if (token.size() < 3 || (token[0] != '+' && token[0] != '-')) return std::nullopt;
  std::string digits;
  for (char c : token.substr(1)) {
    if (IsAsciiDigit(c)) {
      digits += c;
    } else if (c != ':') {
      return std::nullopt;
    }
  }
  if (digits.size() == 2) digits += "00";
  if (digits.size() != 4) return std::nullopt;
  const int hours = std::stoi(digits.substr(0, 2));
  const int minutes = std::stoi(digits.substr(2));
  if (hours > 23 || minutes > 59) return 0;
  return (token[0] == '-' ? -1 : 1) * (hours * 60 + minutes);
}

bool AllDigits(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), IsAsciiDigit);
}

// ---- plain text as HTML ------------------------------------------------------------------------

bool IsAsciiAlnum(char c) { return IsAsciiAlpha(c) || IsAsciiDigit(c); }

// The length of the link that starts at `pos` of `line`, 0 when none starts there.
std::size_t LinkLengthAt(std::string_view line, std::size_t pos, bool& needsScheme) {
  static constexpr std::string_view kPrefixes[] = {"http://", "https://", "ftp://",
                                                   "mailto:", "www."};
  if (pos > 0) {
    const char before = line[pos - 1];
    if (IsAsciiAlnum(before) || before == '@' || before == '.' || before == '/' || before == '-' ||
        before == '_') {
      return 0;
    }
  }
  const std::string_view rest = line.substr(pos);
  std::size_t prefix = 0;
  for (std::string_view candidate : kPrefixes) {
    if (StartsWithIgnoringCase(rest, candidate)) {
      prefix = candidate.size();
      needsScheme = candidate == "www.";
      break;
    }
  }
  if (prefix == 0) return 0;
  std::size_t end = prefix;
  while (end < rest.size()) {
    const auto c = static_cast<unsigned char>(rest[end]);
    if (c <= ' ' || c == '<' || c == '>' || c == '"' || c == 0x7F) break;
    ++end;
  }
  // Punctuation that ends the sentence is not part of the link; a closing parenthesis is, when
  // the link opened one (as in an encyclopedia's "Mercury_(planet)").
  while (end > prefix) {
    const char last = rest[end - 1];
    if (last == '.' || last == ',' || last == ';' || last == ':' || last == '!' || last == '?' ||
        last == '\'') {
      --end;
    } else if (last == ')') {
      const std::string_view link = rest.substr(0, end);
      if (std::count(link.begin(), link.end(), '(') >= std::count(link.begin(), link.end(), ')')) {
        break;
      }
      --end;
    } else {
      break;
    }
  }
  if (end == prefix || !IsAsciiAlnum(rest[prefix])) return 0;
  return end;
}

// Appends one line, escaped, with its links made clickable.
void AppendLineAsHtml(std::string& out, std::string_view line) {
  std::size_t plainStart = 0;
  for (std::size_t i = 0; i < line.size(); ++i) {
    const char c = AsciiLower(line[i]);
    if (c != 'h' && c != 'f' && c != 'm' && c != 'w') continue;
    bool needsScheme = false;
    const std::size_t length = LinkLengthAt(line, i, needsScheme);
    if (length == 0) continue;
    out += EscapeHtml(line.substr(plainStart, i - plainStart));
    const std::string_view link = line.substr(i, length);
    out += "<a href=\"";
    if (needsScheme) out += "http://";
    out += EscapeHtml(link);
    out += "\">";
    out += EscapeHtml(link);
    out += "</a>";
    i += length - 1;
    plainStart = i + 1;
  }
  out += EscapeHtml(line.substr(plainStart));
}

// Splits at CR LF, LF and lone CR.
std::vector<std::string_view> SplitLines(std::string_view text) {
  std::vector<std::string_view> lines;
  std::size_t start = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\r' || text[i] == '\n') {
      lines.push_back(text.substr(start, i - start));
      if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') ++i;
      start = i + 1;
    }
  }
  lines.push_back(text.substr(start));
  return lines;
}

// A line of format=flowed text: its quote depth and its content once space-stuffing is undone.
struct FlowedLine {
  int depth = 0;
  std::string text;
};

std::vector<FlowedLine> UnflowLines(const std::vector<std::string_view>& lines, bool deleteSpace) {
  std::vector<FlowedLine> paragraphs;
  bool open = false;  // the last paragraph ended in a soft break
  for (std::string_view line : lines) {
    int depth = 0;
    while (!line.empty() && line.front() == '>') {
      ++depth;
      line.remove_prefix(1);
    }
    if (!line.empty() && line.front() == ' ') line.remove_prefix(1);
    const bool signature = line == "-- ";
    const bool soft = !signature && !line.empty() && line.back() == ' ';
    if (soft && deleteSpace) line.remove_suffix(1);
    if (open && !paragraphs.empty() && paragraphs.back().depth == depth && !signature) {
      paragraphs.back().text += line;
    } else {
      paragraphs.push_back(FlowedLine{depth, std::string(line)});
    }
    open = soft;
  }
  return paragraphs;
}

// ---- charset declarations in HTML --------------------------------------------------------------

// Where the tag whose name ends before `pos` ends: one past its '>', quoted values skipped.
std::size_t TagEnd(std::string_view html, std::size_t pos) {
  while (pos < html.size()) {
    const char c = html[pos];
    if (c == '>') return pos + 1;
    if (c == '=') {
      ++pos;
      while (pos < html.size() && IsAsciiSpace(html[pos])) ++pos;
      if (pos < html.size() && (html[pos] == '"' || html[pos] == '\'')) {
        const std::size_t close = html.find(html[pos], pos + 1);
        pos = close == std::string_view::npos ? html.size() : close + 1;
      }
      continue;
    }
    ++pos;
  }
  return html.size();
}

// Whether the <meta ...> tag declares a charset.
bool DeclaresCharset(std::string_view tag) {
  std::size_t pos = 5;  // after "<meta"
  while (pos < tag.size()) {
    while (pos < tag.size() && (IsAsciiSpace(tag[pos]) || tag[pos] == '/')) ++pos;
    const std::size_t nameStart = pos;
    while (pos < tag.size() && !IsAsciiSpace(tag[pos]) && tag[pos] != '=' && tag[pos] != '>' &&
           tag[pos] != '/') {
      ++pos;
    }
    const std::string_view name = tag.substr(nameStart, pos - nameStart);
    if (name.empty()) break;
    while (pos < tag.size() && IsAsciiSpace(tag[pos])) ++pos;
    std::string_view value;
    if (pos < tag.size() && tag[pos] == '=') {
      ++pos;
      while (pos < tag.size() && IsAsciiSpace(tag[pos])) ++pos;
      if (pos < tag.size() && (tag[pos] == '"' || tag[pos] == '\'')) {
        const std::size_t close = tag.find(tag[pos], pos + 1);
        const std::size_t end = close == std::string_view::npos ? tag.size() : close;
        value = tag.substr(pos + 1, end - pos - 1);
        pos = end + 1;
      } else {
        const std::size_t valueStart = pos;
        while (pos < tag.size() && !IsAsciiSpace(tag[pos]) && tag[pos] != '>') ++pos;
        value = tag.substr(valueStart, pos - valueStart);
      }
    }
    if (EqualsIgnoringCase(name, "charset")) return true;
    if (EqualsIgnoringCase(name, "http-equiv") &&
        EqualsIgnoringCase(TrimBlanks(value), "content-type")) {
      return true;
    }
  }
  return false;
}

// Where `name` ends when a tag of that name starts at `pos` ("<head" but not "<header").
std::size_t TagNameEnd(std::string_view html, std::size_t pos, std::string_view name) {
  if (!StartsWithIgnoringCase(html.substr(pos + 1), name)) return 0;
  const std::size_t end = pos + 1 + name.size();
  if (end < html.size() && !IsAsciiSpace(html[end]) && html[end] != '>' && html[end] != '/') {
    return 0;
  }
  return end;
}

// Elements whose content is text, not markup: a "<meta" inside them is not a tag.
constexpr std::string_view kRawTextElements[] = {"script", "style", "title", "textarea", "xmp"};

}  // namespace

bool IsValidUtf8(std::string_view text) noexcept {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t n = text.size();
  std::size_t i = 0;
  while (i < n) {
    if (p[i] < 0x80) {
      ++i;
      continue;
    }
    const std::size_t length = SequenceLength(p + i, n - i);
    if (length == 0) return false;
    i += length;
  }
  return true;
}

std::string ToUtf8(std::string_view bytes, std::string_view charset, std::string* problem) {
  const std::string key = CharsetKey(charset);
  std::string out;
  if (IsUtf8Key(key)) {
    if (IsValidUtf8(bytes)) return std::string(bytes);
    out.reserve(bytes.size() + 16);
    if (AppendRepairedUtf8(out, bytes, false) && problem) *problem = ReplacementSentence(charset);
    return out;
  }
  if (IsWindows1252Key(key)) {
    out.reserve(bytes.size() + bytes.size() / 8);
    if (AppendWindows1252(out, bytes) && problem) *problem = ReplacementSentence(charset);
    return out;
  }
  const GIConv converter = OpenConverter(key);
  if (converter == NoConverter()) {
    out.reserve(bytes.size() + 16);
    AppendRepairedUtf8(out, bytes, true);
    if (problem) *problem = UnknownCharsetSentence(charset);
    return out;
  }
  const bool replaced = ConvertWithReplacement(converter, bytes, out);
  g_iconv_close(converter);
  // iconv's output is trusted only as far as it is checked.
  if (!IsValidUtf8(out)) {
    std::string repaired;
    AppendRepairedUtf8(repaired, out, false);
    out.swap(repaired);
  }
  if (replaced && problem) *problem = ReplacementSentence(charset);
  return out;
}

std::string DecodeHeaderText(std::string_view raw) {
  const std::string text = Unfold(raw);
  const std::string_view view = TrimBlanks(text);
  std::string out;
  out.reserve(view.size());
  CloseFinder closes(view);

  // The run of adjacent encoded words of one charset, converted as one.
  std::string runBytes;
  std::string runKey;
  bool inRun = false;
  auto flushRun = [&]() {
    if (inRun) out += ToUtf8(runBytes, runKey);
    runBytes.clear();
    inRun = false;
  };

  bool lastWasEncoded = false;
  std::size_t plainStart = 0;
  std::size_t i = 0;
  while (i < view.size()) {
    const std::size_t open = view.find("=?", i);
    if (open == std::string_view::npos) break;
    std::optional<EncodedWord> word = ReadEncodedWord(view, open, closes);
    if (!word) {
      i = open + 1;
      continue;
    }
    const std::string_view between = view.substr(plainStart, open - plainStart);
    const bool onlyBlanks =
        std::all_of(between.begin(), between.end(), [](char c) { return IsAsciiSpace(c); });
    if (!(lastWasEncoded && onlyBlanks)) {
      flushRun();
      AppendRawHeaderText(out, between);
    }
    if (inRun && word->charsetKey != runKey) flushRun();
    if (!inRun) {
      inRun = true;
      runKey = word->charsetKey;
    }
    runBytes += word->bytes;
    lastWasEncoded = true;
    plainStart = word->end;
    i = word->end;
  }
  flushRun();
  AppendRawHeaderText(out, view.substr(plainStart));
  return out;
}

std::string EscapeHtml(std::string_view text) {
  std::string out;
  out.reserve(text.size() + text.size() / 8);
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::vector<Mailbox> ParseAddressList(std::string_view raw) {
  const std::string text = Unfold(raw);
  std::vector<Mailbox> mailboxes;
  AddressEntry entry;
  CloseFinder closes(text);
  bool inGroup = false;
  std::string groupName;
  std::size_t groupStart = 0;
  for (std::size_t i = 0; i < text.size();) {
    const char c = text[i];
    if (c == '"') {
      std::size_t end = 0;
      const std::string content = ReadQuoted(text, i, end);
      AddToPhrase(entry, content);
      entry.raw += std::string_view(text).substr(i, end - i);
      i = end;
    } else if (c == '(') {
      std::size_t end = 0;
      std::string content = ReadComment(text, i, end);
      if (entry.comment.empty()) entry.comment = std::string(TrimBlanks(content));
      entry.pendingBlank = true;
      i = end;
    } else if (c == '<') {
      std::size_t end = i + 1;
      while (end < text.size() && text[end] != '>') {
        if (text[end] == '"') {
          (void)ReadQuoted(text, end, end);
        } else {
          ++end;
        }
      }
      entry.angle = CleanAngleAddress(std::string_view(text).substr(i + 1, end - i - 1));
      entry.pendingBlank = true;
      i = std::min(end + 1, text.size());
    } else if (c == ',') {
      EndAddressEntry(entry, mailboxes);
      ++i;
    } else if (c == ':' && !inGroup && !entry.angle && !entry.atOutsideQuotes) {
      groupName = DecodeHeaderText(entry.phrase);
      entry = AddressEntry();
      inGroup = true;
      groupStart = mailboxes.size();
      ++i;
    } else if (c == ';') {
      EndAddressEntry(entry, mailboxes);
      if (inGroup && mailboxes.size() == groupStart && !groupName.empty()) {
        mailboxes.push_back(Mailbox{groupName, ""});
      }
      inGroup = false;
      ++i;
    } else if (IsAsciiSpace(c)) {
      entry.pendingBlank = true;
      ++i;
    } else {
      // An encoded word is one word even when its text holds specials such as a comma.
      std::size_t end = i + 1;
      if (c == '=' && i + 1 < text.size() && text[i + 1] == '?') {
        if (std::optional<EncodedWord> word = ReadEncodedWord(text, i, closes)) end = word->end;
      }
      const std::string_view word = std::string_view(text).substr(i, end - i);
      if (c == '@') entry.atOutsideQuotes = true;
      AddToPhrase(entry, word);
      entry.raw += word;
      i = end;
    }
  }
  EndAddressEntry(entry, mailboxes);
  if (inGroup && mailboxes.size() == groupStart && !groupName.empty()) {
    mailboxes.push_back(Mailbox{groupName, ""});
  }
  return mailboxes;
}

std::string DisplayAddressList(std::string_view raw) {
  std::string shown;
  for (const Mailbox& mailbox : ParseAddressList(raw)) {
    if (!shown.empty()) shown += "; ";
    shown += mailbox.name.empty() ? mailbox.address : mailbox.name;
  }
  return shown;
}

std::optional<MailDate> ParseMailDate(std::string_view raw) {
  // Tokens: comments dropped; blanks and commas separate; "23-Nov-2026" splits at its dashes.
  std::vector<std::string> tokens;
  std::string token;
  auto endToken = [&]() {
    if (token.empty()) return;
    const bool hasLetter = std::any_of(token.begin(), token.end(), IsAsciiAlpha);
    if (hasLetter && token.find('-', 1) != std::string::npos && token[0] != '-') {
      std::size_t start = 0;
      for (std::size_t dash; (dash = token.find('-', start)) != std::string::npos;
           start = dash + 1) {
        if (dash > start) tokens.push_back(token.substr(start, dash - start));
      }
      if (start < token.size()) tokens.push_back(token.substr(start));
    } else {
      tokens.push_back(token);
    }
    token.clear();
  };
  const std::string_view text = raw.substr(0, std::min<std::size_t>(raw.size(), 1000));
  for (std::size_t i = 0; i < text.size();) {
    if (text[i] == '(') {
      endToken();
      (void)ReadComment(text, i, i);
    } else if (IsAsciiSpace(text[i]) || text[i] == ',') {
      endToken();
      ++i;
    } else {
      token += text[i++];
    }
  }
  endToken();

  int day = 0;
  int month = 0;
  std::int64_t year = -1;
  int hour = 0;
  int minute = 0;
  int second = 0;
  bool haveTime = false;
  std::optional<int> zone;
  for (const std::string& word : tokens) {
    if (IsAsciiDigit(word[0]) && word.find(':') != std::string::npos) {
      if (haveTime) continue;
      int parts[3] = {0, 0, 0};
      int count = 0;
      bool valid = true;
      std::size_t start = 0;
      while (start <= word.size() && count < 3) {
        const std::size_t colon = std::min(word.find(':', start), word.size());
        const std::string_view part = std::string_view(word).substr(start, colon - start);
        if (!AllDigits(part) || part.size() > 2) {
          valid = false;
          break;
        }
        parts[count++] = std::stoi(std::string(part));
        start = colon + 1;
      }
      if (!valid || count < 2 || parts[0] > 23 || parts[1] > 59 || parts[2] > 60) continue;
      haveTime = true;
      hour = parts[0];
      minute = parts[1];
      second = parts[2];
    } else if ((word[0] == '+' || word[0] == '-') && word.size() > 1) {
      if (!zone) zone = NumericZoneOffset(word);
    } else if (AllDigits(word)) {
      if (word.size() > 9) continue;
      const int value = std::stoi(word);
      if (day == 0 && word.size() <= 2 && value >= 1 && value <= 31) {
        day = value;
      } else if (year < 0) {
        year = value;
        if (word.size() <= 2) {
          year += value < 50 ? 2000 : 1900;
        } else if (word.size() == 3) {
          year += 1900;
        }
      }
    } else if (std::all_of(word.begin(), word.end(), IsAsciiAlpha)) {
      if (const int named = MonthOf(word); named != 0 && month == 0) {
        month = named;
      } else if (EqualsIgnoringCase(word, "pm")) {
        if (hour < 12) hour += 12;
      } else if (EqualsIgnoringCase(word, "am")) {
        if (hour == 12) hour = 0;
      } else if (!zone) {
        zone = ZoneNameOffset(word);
      }
    } else if (!zone &&
               (StartsWithIgnoringCase(word, "gmt") || StartsWithIgnoringCase(word, "utc"))) {
      zone = NumericZoneOffset(std::string_view(word).substr(3));
    }
  }
  if (day == 0 || month == 0 || year < 1000 || year > 9999) return std::nullopt;
  const std::int64_t days = DaysFromCivil(year, month, day);
  if (CivilFromSeconds(days * 86400).day != day) return std::nullopt;  // 31 November
  MailDate date;
  date.offsetMinutes = zone.value_or(0);
  date.unixSeconds = days * 86400 + hour * 3600 + minute * 60 + second - date.offsetMinutes * 60;
  return date;
}

double ToOleDate(std::int64_t unixSeconds) {
  const CivilTime local = LocalCivilTime(unixSeconds);
  const double days = static_cast<double>(DaysFromCivil(local.year, local.month, local.day) -
                                          DaysFromCivil(1899, 12, 30));
  const double fraction = (local.hour * 3600 + local.minute * 60 + local.second) / 86400.0;
  // Before 30 December 1899 the whole days count back while the time of day still counts
  // forward: -1.25 is 29 December 1899, 6:00.
  return days >= 0 ? days + fraction : days - fraction;
}

std::string FormatSentDate(std::int64_t unixSeconds) {
  const CivilTime local = LocalCivilTime(unixSeconds);
  const int hour12 = local.hour % 12 == 0 ? 12 : local.hour % 12;
  char clock[16];
  g_snprintf(clock, sizeof clock, "%d:%02d %s", hour12, local.minute,
             local.hour < 12 ? "AM" : "PM");
  return std::string(kDayNames[local.weekday]) + ", " + std::string(kMonthNames[local.month - 1]) +
         " " + std::to_string(local.day) + ", " + std::to_string(local.year) + " " + clock;
}

std::string TextToHtml(std::string_view text, bool flowed, bool deleteSpace) {
  std::string valid;
  if (!IsValidUtf8(text)) {
    AppendRepairedUtf8(valid, text, false);
    text = valid;
  }
  std::string out;
  out.reserve(text.size() + text.size() / 8 + 128);
  // pre-wrap keeps every blank and line, and still wraps a long line at the page edge.
  out += "<div style=\"white-space:pre-wrap;overflow-wrap:break-word;word-wrap:break-word\">";
  const std::vector<std::string_view> lines = SplitLines(text);
  if (flowed) {
    const std::vector<FlowedLine> paragraphs = UnflowLines(lines, deleteSpace);
    for (std::size_t i = 0; i < paragraphs.size(); ++i) {
      if (i > 0) out += '\n';
      const FlowedLine& line = paragraphs[i];
      for (int level = 0; level < line.depth; ++level) out += "&gt;";
      if (line.depth > 0 && !line.text.empty()) out += ' ';
      AppendLineAsHtml(out, line.text);
    }
  } else {
    for (std::size_t i = 0; i < lines.size(); ++i) {
      if (i > 0) out += '\n';
      AppendLineAsHtml(out, lines[i]);
    }
  }
  out += "</div>";
  return out;
}

std::string DeclareUtf8(std::string_view html) {
  constexpr std::string_view kMeta = "<meta charset=\"utf-8\">";
  std::string out;
  out.reserve(html.size() + 64);
  std::size_t copied = 0;
  std::optional<std::size_t> afterHead;
  std::optional<std::size_t> afterHtml;
  std::size_t pos = 0;
  while ((pos = html.find('<', pos)) != std::string_view::npos) {
    if (html.substr(pos, 4) == "<!--") {
      const std::size_t close = html.find("-->", pos + 4);
      pos = close == std::string_view::npos ? html.size() : close + 3;
      continue;
    }
    if (std::size_t nameEnd = TagNameEnd(html, pos, "meta"); nameEnd != 0) {
      const std::size_t end = TagEnd(html, nameEnd);
      if (DeclaresCharset(html.substr(pos, end - pos))) {
        out.append(html.substr(copied, pos - copied));
        copied = end;
      }
      pos = end;
      continue;
    }
    bool skipped = false;
    for (std::string_view element : {std::string_view("head"), std::string_view("html")}) {
      const std::size_t nameEnd = TagNameEnd(html, pos, element);
      if (nameEnd == 0) continue;
      const std::size_t end = TagEnd(html, nameEnd);
      std::optional<std::size_t>& mark = element == "head" ? afterHead : afterHtml;
      if (!mark) {
        out.append(html.substr(copied, end - copied));
        copied = end;
        mark = out.size();
      }
      pos = end;
      skipped = true;
      break;
    }
    if (skipped) continue;
    for (std::string_view element : kRawTextElements) {
      const std::size_t nameEnd = TagNameEnd(html, pos, element);
      if (nameEnd == 0) continue;
      // The element's text runs to its end tag; a search for it from each such element is
      // linear in the document as the search starts where the element does.
      std::size_t close = TagEnd(html, nameEnd);
      while (close < html.size()) {
        close = html.find("</", close);
        if (close == std::string_view::npos) {
          close = html.size();
        } else if (StartsWithIgnoringCase(html.substr(close + 2), element)) {
          break;
        } else {
          close += 2;
        }
      }
      pos = close;
      skipped = true;
      break;
    }
    if (!skipped) ++pos;
  }
  out.append(html.substr(copied));
  if (afterHead) {
    out.insert(*afterHead, kMeta);
  } else if (afterHtml) {
    out.insert(*afterHtml, std::string("<head>") + std::string(kMeta) + "</head>");
  } else {
    // Before everything, except a byte order mark and a doctype, which must stay first.
    std::size_t start = out.starts_with("\xEF\xBB\xBF") ? 3 : 0;
    std::size_t first = start;
    while (first < out.size() && IsAsciiSpace(out[first])) ++first;
    if (StartsWithIgnoringCase(std::string_view(out).substr(first), "<!doctype")) {
      const std::size_t close = out.find('>', first);
      start = close == std::string::npos ? out.size() : close + 1;
    }
    out.insert(start, kMeta);
  }
  return out;
}

}  // namespace mrwl::host
