#include "host/mail_message.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <system_error>
#include <utility>

#include <gmime/gmime.h>

#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/utf.h"

namespace mrwl::host {
namespace {

// GMime keeps process-wide tables (charsets, type registry) that must be set up exactly once.
void EnsureGMime() {
  static std::once_flag once;
  std::call_once(once, [] { g_mime_init(); });
}

// A part's content is read through streams whose position is shared by every reader of the part,
// so concurrent readers of one immutable message take turns here.
std::mutex& ContentMutex() {
  static std::mutex mutex;
  return mutex;
}

struct GObjectUnref {
  void operator()(void* object) const {
    if (object != nullptr) g_object_unref(object);
  }
};
template <typename T>
using GPtr = std::unique_ptr<T, GObjectUnref>;

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string_view Trim(std::string_view text) {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return text;
}

bool EndsWithNoCase(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() &&
         EqualsIgnoringCase(text.substr(text.size() - suffix.size()), suffix);
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string PercentDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && HexValue(text[i + 1]) >= 0 &&
        HexValue(text[i + 2]) >= 0) {
      out.push_back(static_cast<char>(HexValue(text[i + 1]) * 16 + HexValue(text[i + 2])));
      i += 2;
    } else {
      out.push_back(text[i]);
    }
  }
  return out;
}

// ---- Header fields -----------------------------------------------------------------------------

// The raw value of the first header `name` of `object`: undecoded, as the file has it, folding
// and all. GMime's own decoding of encoded words is not trusted (it loses characters split across
// adjacent base64 words).
std::optional<std::string> RawHeader(GMimeObject* object, std::string_view name) {
  if (object == nullptr) return std::nullopt;
  GMimeHeaderList* list = g_mime_object_get_header_list(object);
  if (list == nullptr) return std::nullopt;
  const int count = g_mime_header_list_get_count(list);
  for (int i = 0; i < count; ++i) {
    GMimeHeader* header = g_mime_header_list_get_header_at(list, i);
    const char* headerName = header != nullptr ? g_mime_header_get_name(header) : nullptr;
    if (headerName == nullptr || !EqualsIgnoringCase(headerName, name)) continue;
    const char* raw = g_mime_header_get_raw_value(header);
    return std::string(raw != nullptr ? raw : "");
  }
  return std::nullopt;
}

std::string HeaderText(GMimeObject* object, std::string_view name) {
  const std::optional<std::string> raw = RawHeader(object, name);
  return raw ? DecodeHeaderText(Trim(*raw)) : std::string();
}

// A structured field such as Content-Type or Content-Disposition: its lower-case value and its
// parameters in the order written, names lower case, values unquoted but otherwise raw.
struct StructuredField {
  std::string value;
  std::vector<std::pair<std::string, std::string>> parameters;
};

StructuredField ParseStructuredField(std::string_view raw) {
  StructuredField field;
  std::size_t i = 0;
  auto skipBlanks = [&] {
    while (i < raw.size() && IsBlank(raw[i])) ++i;
  };
  // A quoted string with its escapes undone; `i` is past the opening quote. Mailers write Windows
  // paths into file names without escaping them, so only \" and \\ count as escapes.
  auto readQuoted = [&] {
    std::string out;
    while (i < raw.size() && raw[i] != '"') {
      if (raw[i] == '\\' && i + 1 < raw.size() && (raw[i + 1] == '"' || raw[i + 1] == '\\')) ++i;
      if (raw[i] != '\r' && raw[i] != '\n') out.push_back(raw[i]);
      ++i;
    }
    if (i < raw.size()) ++i;
    return out;
  };
  skipBlanks();
  const std::size_t valueStart = i;
  while (i < raw.size() && raw[i] != ';') ++i;
  field.value = AsciiLower(Trim(raw.substr(valueStart, i - valueStart)));
  while (i < raw.size()) {
    ++i;  // the ';'
    skipBlanks();
    const std::size_t nameStart = i;
    while (i < raw.size() && raw[i] != '=' && raw[i] != ';') ++i;
    const std::string name = AsciiLower(Trim(raw.substr(nameStart, i - nameStart)));
    if (i >= raw.size() || raw[i] == ';') continue;  // a parameter without a value is dropped
    ++i;                                             // the '='
    skipBlanks();
    std::string value;
    if (i < raw.size() && raw[i] == '"') {
      ++i;
      value = readQuoted();
      while (i < raw.size() && raw[i] != ';') ++i;
    } else {
      const std::size_t start = i;
      while (i < raw.size() && raw[i] != ';') ++i;
      value = std::string(Trim(raw.substr(start, i - start)));
    }
    if (!name.empty()) field.parameters.emplace_back(name, std::move(value));
  }
  return field;
}

// The decoded value of parameter `name`: RFC 2231 forms (name*, name*0, name*0*, with charset and
// language) take precedence over the plain form, which may hold RFC 2047 encoded words as many
// mailers write them. Empty when absent.
std::string ParameterValue(const StructuredField& field, std::string_view name) {
  std::map<int, std::pair<bool, std::string>> sections;  // number -> (extended, value)
  std::optional<std::string> plain;
  for (const auto& [key, value] : field.parameters) {
    if (key == name) {
      if (!plain) plain = value;
      continue;
    }
    if (key.size() <= name.size() || key.compare(0, name.size(), name) != 0 ||
        key[name.size()] != '*') {
      continue;
    }
    std::string_view rest = std::string_view(key).substr(name.size() + 1);
    bool extended = false;
    if (!rest.empty() && rest.back() == '*') {
      extended = true;
      rest.remove_suffix(1);
    }
    int number = 0;
    if (rest.empty()) {
      extended = true;  // "name*": one extended section
    } else {
      if (rest.size() > 4 ||
          !std::all_of(rest.begin(), rest.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        continue;
      }
      number = std::stoi(std::string(rest));
    }
    sections.emplace(number, std::make_pair(extended, value));
  }
  if (sections.empty()) return plain ? DecodeHeaderText(*plain) : std::string();

  std::string charset;
  std::string bytes;
  bool anyExtended = false;
  bool first = true;
  for (const auto& [number, section] : sections) {
    std::string_view value = section.second;
    if (section.first) {
      anyExtended = true;
      if (first) {
        // charset'language'text; a value without both quotes is taken as text alone.
        const std::size_t quote1 = value.find('\'');
        const std::size_t quote2 =
            quote1 == std::string_view::npos ? quote1 : value.find('\'', quote1 + 1);
        if (quote2 != std::string_view::npos) {
          charset = std::string(value.substr(0, quote1));
          value = value.substr(quote2 + 1);
        }
      }
      bytes += PercentDecode(value);
    } else {
      bytes += value;
    }
    first = false;
  }
  if (!anyExtended || charset.empty()) return DecodeHeaderText(bytes);
  return ToUtf8(bytes, charset);
}

StructuredField FieldOf(GMimeObject* object, std::string_view header) {
  const std::optional<std::string> raw = RawHeader(object, header);
  return raw ? ParseStructuredField(*raw) : StructuredField();
}

// "type/subtype" in lower case, as GMime understood the Content-Type (text/plain by default).
std::string MimeTypeOf(GMimeObject* object) {
  GMimeContentType* type = g_mime_object_get_content_type(object);
  if (type == nullptr) return "application/octet-stream";
  // GMime makes a type without subtype application/octet-stream; a bare "text" is plain text, as
  // any invalid Content-Type of a text is.
  if (const std::optional<std::string> raw = RawHeader(object, "Content-Type")) {
    std::string_view media = *raw;
    media = Trim(media.substr(0, media.find(';')));
    if (AsciiLower(media) == "text") return "text/plain";
  }
  const char* media = g_mime_content_type_get_media_type(type);
  const char* subtype = g_mime_content_type_get_media_subtype(type);
  return AsciiLower(std::string(media != nullptr ? media : "application") + "/" +
                    (subtype != nullptr ? subtype : "octet-stream"));
}

std::string ContentTypeParameter(GMimeObject* object, std::string_view name) {
  return ParameterValue(FieldOf(object, "Content-Type"), name);
}

// The file name a part declares: Content-Disposition's filename, else Content-Type's name.
std::string DeclaredFileName(GMimeObject* object) {
  std::string name = ParameterValue(FieldOf(object, "Content-Disposition"), "filename");
  if (name.empty()) name = ContentTypeParameter(object, "name");
  return name;
}

bool IsAttachment(GMimeObject* object) {
  return FieldOf(object, "Content-Disposition").value == "attachment" ||
         !DeclaredFileName(object).empty();
}

std::string ContentIdOf(GMimeObject* object) {
  const std::optional<std::string> raw = RawHeader(object, "Content-ID");
  if (!raw) return {};
  std::string_view id = Trim(*raw);
  if (!id.empty() && id.front() == '<') id.remove_prefix(1);
  if (!id.empty() && id.back() == '>') id.remove_suffix(1);
  return std::string(Trim(id));
}

// ---- Content ----------------------------------------------------------------------------------

// What was found wrong while decoding one part's transfer encoding.
struct DecodeFindings {
  bool invalidCharacters = false;
  bool paddingInside = false;  // "=" padding followed by more data, all of which was decoded
  bool cutShort = false;       // a lone sextet was left at the end
};

// Base64 as damaged mail has it: characters outside the alphabet are skipped, and padding ends
// only the quantum it stands in, so text that was encoded in several chunks and joined (padding in
// the middle of a line) decodes completely, where GMime's decoder stops at the first "=".
std::string DecodeBase64(std::string_view text, DecodeFindings& findings) {
  static constexpr std::string_view kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  signed char rank[256];
  std::fill(std::begin(rank), std::end(rank), static_cast<signed char>(-1));
  for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
    rank[static_cast<unsigned char>(kAlphabet[i])] = static_cast<signed char>(i);
  }
  std::string out;
  out.reserve(text.size() / 4 * 3 + 3);
  std::uint32_t bits = 0;
  int count = 0;  // sextets in the current quantum
  bool padded = false;
  auto flush = [&] {
    if (count == 2) {
      out.push_back(static_cast<char>(bits >> 4));
    } else if (count == 3) {
      out.push_back(static_cast<char>(bits >> 10));
      out.push_back(static_cast<char>(bits >> 2));
    } else if (count == 1) {
      findings.cutShort = true;
    }
    bits = 0;
    count = 0;
  };
  for (const char c : text) {
    const int value = rank[static_cast<unsigned char>(c)];
    if (value >= 0) {
      if (padded) {
        findings.paddingInside = true;
        padded = false;
      }
      bits = (bits << 6) | static_cast<std::uint32_t>(value);
      if (++count == 4) {
        out.push_back(static_cast<char>(bits >> 16));
        out.push_back(static_cast<char>(bits >> 8));
        out.push_back(static_cast<char>(bits));
        bits = 0;
        count = 0;
      }
    } else if (c == '=') {
      if (count > 0) flush();
      padded = true;
    } else if (!IsBlank(c)) {
      findings.invalidCharacters = true;
    }
  }
  // A missing final padding is common and harmless: what the last quantum holds is kept.
  flush();
  return out;
}

// Reads all of `stream` from its start. Callers hold ContentMutex().
std::string ReadWholeStream(GMimeStream* stream) {
  std::string out;
  if (stream == nullptr) return out;
  g_mime_stream_reset(stream);
  char buffer[16384];
  for (;;) {
    const gssize got = g_mime_stream_read(stream, buffer, sizeof buffer);
    if (got <= 0) break;
    out.append(buffer, static_cast<std::size_t>(got));
  }
  return out;
}

// The content of a leaf part or an attached message with its transfer encoding undone.
bool DecodeContent(GMimeObject* object, std::string& content, DecodeFindings* findings) {
  content.clear();
  DecodeFindings ignored;
  DecodeFindings& found = findings != nullptr ? *findings : ignored;
  if (object == nullptr) return false;
  std::lock_guard<std::mutex> lock(ContentMutex());
  if (GMIME_IS_MESSAGE_PART(object)) {
    GMimeMessage* inner = g_mime_message_part_get_message(GMIME_MESSAGE_PART(object));
    if (inner == nullptr) return true;  // an attached message with nothing in it
    GPtr<GMimeStream> stream(g_mime_stream_mem_new());
    if (g_mime_object_write_to_stream(GMIME_OBJECT(inner), nullptr, stream.get()) < 0) {
      return false;
    }
    GByteArray* array = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(stream.get()));
    if (array != nullptr) content.assign(reinterpret_cast<const char*>(array->data), array->len);
    return true;
  }
  if (!GMIME_IS_PART(object)) return false;
  GMimeDataWrapper* wrapper = g_mime_part_get_content(GMIME_PART(object));
  if (wrapper == nullptr) return true;  // headers only: the content is empty
  if (g_mime_data_wrapper_get_encoding(wrapper) == GMIME_CONTENT_ENCODING_BASE64) {
    content = DecodeBase64(ReadWholeStream(g_mime_data_wrapper_get_stream(wrapper)), found);
    return true;
  }
  GPtr<GMimeStream> stream(g_mime_stream_mem_new());
  if (g_mime_data_wrapper_write_to_stream(wrapper, stream.get()) < 0) return false;
  GByteArray* array = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(stream.get()));
  if (array != nullptr) content.assign(reinterpret_cast<const char*>(array->data), array->len);
  return true;
}

// The charset an HTML document declares in a <meta> element, lower case; empty when none.
std::string MetaCharset(std::string_view html) {
  const std::string lower = AsciiLower(html.substr(0, std::min<std::size_t>(html.size(), 65536)));
  std::size_t at = 0;
  while ((at = lower.find("<meta", at)) != std::string::npos) {
    const std::size_t end = lower.find('>', at);
    const std::string_view tag =
        std::string_view(lower).substr(at, end == std::string::npos ? std::string::npos : end - at);
    at += 5;
    std::size_t key = tag.find("charset");
    while (key != std::string_view::npos) {
      std::size_t i = key + 7;
      while (i < tag.size() && IsBlank(tag[i])) ++i;
      if (i < tag.size() && tag[i] == '=') {
        ++i;
        while (i < tag.size() && (IsBlank(tag[i]) || tag[i] == '"' || tag[i] == '\'')) ++i;
        const std::size_t start = i;
        while (i < tag.size() &&
               (std::isalnum(static_cast<unsigned char>(tag[i])) || tag[i] == '-' ||
                tag[i] == '_' || tag[i] == '.' || tag[i] == ':')) {
          ++i;
        }
        if (i > start) return std::string(tag.substr(start, i - start));
      }
      key = tag.find("charset", key + 7);
    }
  }
  return {};
}

// The decoded bytes of a body part as UTF-8, from its charset parameter, or for HTML without one,
// from the document's own declaration.
std::string BodyBytesToUtf8(GMimeObject* body, std::string_view bytes, std::string* problem) {
  std::string charset = ContentTypeParameter(body, "charset");
  if (charset.empty() && MimeTypeOf(body) == "text/html") charset = MetaCharset(bytes);
  return ToUtf8(bytes, charset, problem);
}

// ---- File names --------------------------------------------------------------------------------

// The extension a part without a name gets from its type.
std::string_view ExtensionOf(std::string_view mimeType) {
  static constexpr std::pair<std::string_view, std::string_view> kExtensions[] = {
      {"image/png", "png"},
      {"image/jpeg", "jpg"},
      {"image/jpg", "jpg"},
      {"image/pjpeg", "jpg"},
      {"image/gif", "gif"},
      {"image/bmp", "bmp"},
      {"image/tiff", "tif"},
      {"image/webp", "webp"},
      {"image/svg+xml", "svg"},
      {"image/x-icon", "ico"},
      {"text/plain", "txt"},
      {"text/html", "htm"},
      {"text/calendar", "ics"},
      {"text/vcard", "vcf"},
      {"text/x-vcard", "vcf"},
      {"text/csv", "csv"},
      {"text/xml", "xml"},
      {"text/rfc822-headers", "txt"},
      {"message/rfc822", "eml"},
      {"message/delivery-status", "txt"},
      {"application/pdf", "pdf"},
      {"application/zip", "zip"},
      {"application/json", "json"},
      {"application/xml", "xml"},
      {"application/msword", "doc"},
      {"application/vnd.ms-excel", "xls"},
      {"application/rtf", "rtf"},
      {"application/ms-tnef", "dat"},
      {"application/pgp-signature", "asc"},
      {"application/pgp-encrypted", "pgp"},
      {"application/pkcs7-signature", "p7s"},
      {"application/x-pkcs7-signature", "p7s"},
      {"application/pkcs7-mime", "p7m"},
      {"application/x-pkcs7-mime", "p7m"},
      {"audio/mpeg", "mp3"},
      {"video/mp4", "mp4"},
  };
  for (const auto& [type, extension] : kExtensions) {
    if (type == mimeType) return extension;
  }
  return "bin";
}

// `name` made safe to be a file name: its last path component (or, for text that is no path,
// such as a subject, the text without separators), without control characters. Empty when nothing
// usable is left.
std::string UsableFileName(std::string_view name, bool isPath = true) {
  const std::size_t slash = name.find_last_of("/\\");
  if (isPath && slash != std::string_view::npos) name = name.substr(slash + 1);
  std::string out;
  out.reserve(name.size());
  for (std::size_t i = 0; i < name.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(name[i]);
    if (c < 0x20 || c == 0x7F || c == '/' || c == '\\') continue;
    // C1 controls, U+0080..U+009F, are two bytes in UTF-8.
    if (c == 0xC2 && i + 1 < name.size() && static_cast<unsigned char>(name[i + 1]) >= 0x80 &&
        static_cast<unsigned char>(name[i + 1]) <= 0x9F) {
      ++i;
      continue;
    }
    out.push_back(name[i]);
  }
  const std::string_view trimmed = Trim(out);
  if (trimmed.empty() || trimmed == "." || trimmed == "..") return {};
  return std::string(trimmed);
}

// ---- Calendars and cards ----------------------------------------------------------------------

// One content line of a vCard or iCalendar text, its folding undone.
struct ContentLine {
  std::string name;  // upper case, without a group prefix
  StructuredField parameters;
  std::string value;  // raw, escapes still in
};

std::vector<ContentLine> ParseContentLines(std::string_view text) {
  std::vector<std::string> lines;
  std::size_t at = 0;
  while (at < text.size()) {
    std::size_t end = text.find('\n', at);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(at, end - at);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (!line.empty() && (line.front() == ' ' || line.front() == '\t') && !lines.empty()) {
      lines.back().append(line.substr(1));
    } else {
      lines.emplace_back(line);
    }
    at = end + 1;
  }
  std::vector<ContentLine> result;
  for (const std::string& line : lines) {
    // The value starts at the first colon outside a quoted parameter value.
    bool quoted = false;
    std::size_t colon = std::string::npos;
    for (std::size_t i = 0; i < line.size(); ++i) {
      if (line[i] == '"') quoted = !quoted;
      if (line[i] == ':' && !quoted) {
        colon = i;
        break;
      }
    }
    if (colon == std::string::npos) continue;
    const std::string_view head = std::string_view(line).substr(0, colon);
    const std::size_t semicolon = head.find(';');
    std::string name(head.substr(0, semicolon));
    if (const std::size_t dot = name.find('.'); dot != std::string::npos) name.erase(0, dot + 1);
    ContentLine entry;
    for (char c : name)
      entry.name.push_back(static_cast<char>(std::toupper(static_cast<unsigned char>(c))));
    if (semicolon != std::string_view::npos) {
      entry.parameters = ParseStructuredField(head.substr(semicolon));
    }
    entry.value = line.substr(colon + 1);
    result.push_back(std::move(entry));
  }
  return result;
}

std::string UnescapeValue(std::string_view value) {
  std::string out;
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (value[i] == '\\' && i + 1 < value.size()) {
      const char next = value[++i];
      out.push_back(next == 'n' || next == 'N' ? '\n' : next);
    } else {
      out.push_back(value[i]);
    }
  }
  return out;
}

std::string ParamOf(const ContentLine& line, std::string_view name) {
  for (const auto& [key, value] : line.parameters.parameters) {
    if (key == name) return value;
  }
  return {};
}

// "20261123T090000Z" as "2026-11-23 09:00 UTC"; a time with a TZID names its zone.
std::string FormatCalendarTime(const ContentLine& line) {
  const std::string_view value = Trim(line.value);
  const bool digitsOk =
      value.size() >= 8 &&
      std::all_of(value.begin(), value.begin() + 8, [](char c) { return c >= '0' && c <= '9'; });
  if (!digitsOk) return std::string(value);
  std::string out = std::string(value.substr(0, 4)) + "-" + std::string(value.substr(4, 2)) + "-" +
                    std::string(value.substr(6, 2));
  if (value.size() >= 13 && value[8] == 'T') {
    out += " " + std::string(value.substr(9, 2)) + ":" + std::string(value.substr(11, 2));
    if (value.back() == 'Z' || value.back() == 'z') {
      out += " UTC";
    } else if (const std::string zone = ParamOf(line, "tzid"); !zone.empty()) {
      out += " (" + zone + ")";
    }
  }
  return out;
}

// An ORGANIZER or ATTENDEE as "Ann Lee <ann@x.org>".
std::string FormatCalendarPerson(const ContentLine& line) {
  std::string address(Trim(line.value));
  if (EqualsIgnoringCase(
          std::string_view(address).substr(0, std::min<std::size_t>(7, address.size())),
          "mailto:")) {
    address.erase(0, 7);
  }
  const std::string name = ParamOf(line, "cn");
  if (name.empty()) return address;
  if (address.empty()) return name;
  return name + " <" + address + ">";
}

std::string SummarizeContacts(const std::vector<ContentLine>& lines, std::string* firstName) {
  std::string out;
  std::string card;
  for (const ContentLine& line : lines) {
    const std::string value = UnescapeValue(Trim(line.value));
    if (line.name == "BEGIN") {
      card.clear();
    } else if (line.name == "FN") {
      card += "Name: " + value + "\n";
      if (firstName != nullptr && firstName->empty()) *firstName = value;
    } else if (line.name == "ORG") {
      std::string org = value;
      std::replace(org.begin(), org.end(), ';', ',');
      card += "Company: " + org + "\n";
    } else if (line.name == "EMAIL") {
      card += "E-mail: " + value + "\n";
    } else if (line.name == "TEL") {
      card += "Phone: " + value + "\n";
    } else if (line.name == "END") {
      if (!card.empty()) out += (out.empty() ? "" : "\n") + card;
      card.clear();
    }
  }
  if (!card.empty()) out += (out.empty() ? "" : "\n") + card;
  return out;
}

std::string SummarizeEvents(const std::vector<ContentLine>& lines, std::string* firstSummary) {
  std::string out;
  std::string event;
  std::vector<std::string> attendees;
  int depth = 0;  // inside a VEVENT, 1; inside an alarm within it, 2
  for (const ContentLine& line : lines) {
    const std::string value = UnescapeValue(Trim(line.value));
    if (line.name == "BEGIN") {
      if (depth > 0) {
        ++depth;
      } else if (EqualsIgnoringCase(value, "VEVENT")) {
        depth = 1;
        event.clear();
        attendees.clear();
      }
      continue;
    }
    if (line.name == "END" && depth > 0) {
      if (--depth == 0) {
        if (!attendees.empty()) {
          event += "Attendees: ";
          for (std::size_t i = 0; i < attendees.size(); ++i) {
            event += (i > 0 ? "; " : "") + attendees[i];
          }
          event += "\n";
        }
        out += (out.empty() ? "" : "\n") + event;
      }
      continue;
    }
    if (depth != 1) continue;
    if (line.name == "SUMMARY") {
      event += "Subject: " + value + "\n";
      if (firstSummary != nullptr && firstSummary->empty()) *firstSummary = value;
    } else if (line.name == "DTSTART") {
      event += "Start: " + FormatCalendarTime(line) + "\n";
    } else if (line.name == "DTEND") {
      event += "End: " + FormatCalendarTime(line) + "\n";
    } else if (line.name == "LOCATION") {
      event += "Location: " + value + "\n";
    } else if (line.name == "ORGANIZER") {
      event += "Organizer: " + FormatCalendarPerson(line) + "\n";
    } else if (line.name == "ATTENDEE") {
      attendees.push_back(FormatCalendarPerson(line));
    }
  }
  return out;
}

// The calendar's METHOD property, upper case; empty when it has none.
std::string CalendarMethod(const std::vector<ContentLine>& lines) {
  for (const ContentLine& line : lines) {
    if (line.name == "BEGIN" && EqualsIgnoringCase(Trim(line.value), "VEVENT")) break;
    if (line.name == "METHOD") {
      std::string method(Trim(line.value));
      for (char& c : method) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
      return method;
    }
  }
  return {};
}

// ---- Reading a message -------------------------------------------------------------------------

// The sentence for a reader about what the parser found, or empty for findings that do not change
// what is shown (repeated headers, raw 8-bit text, encoded words that the decoders here handle).
std::string ParserWarningSentence(GMimeParserWarning code, const char* item) {
  std::string what = item != nullptr ? ToUtf8(item, "utf-8") : std::string();
  // Header names differ in case only between repetitions of one header.
  if (code == GMIME_CRIT_CONFLICTING_HEADER && !what.empty()) {
    what = AsciiLower(what);
    what[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(what[0])));
  }
  what = std::string(Trim(what));
  if (what.size() > 80) {
    std::size_t cut = 77;
    while (cut > 0 && (static_cast<unsigned char>(what[cut]) & 0xC0) == 0x80) --cut;
    what = what.substr(0, cut) + "...";
  }
  switch (code) {
    case GMIME_WARN_INVALID_CONTENT_TYPE:
      return what.empty() ? "A part has an invalid content type; it is treated as binary data."
                          : "The content type \"" + what +
                                "\" is invalid; the part is treated as binary data.";
    case GMIME_WARN_MALFORMED_MULTIPART:
      return "A multipart section of the message holds no parts.";
    case GMIME_WARN_TRUNCATED_MESSAGE:
      return "The message is cut short: a multipart section ends without its closing boundary, "
             "or the text stops inside a part.";
    case GMIME_WARN_MALFORMED_MESSAGE:
      return "The message is malformed; what could be read is shown.";
    case GMIME_CRIT_INVALID_HEADER_NAME:
      return what.empty() ? "A header block holds a line that is no header field; other programs "
                            "may read the message differently."
                          : "A header block holds the line \"" + what +
                                "\", which is no header field; other programs may read the "
                                "message differently.";
    case GMIME_CRIT_CONFLICTING_HEADER:
      return what.empty() ? "The message repeats a header with different values."
                          : "The header \"" + what + "\" appears twice with different values.";
    case GMIME_CRIT_CONFLICTING_PARAMETER:
      return "A header repeats a parameter with different values; other programs may read the "
             "message differently.";
    case GMIME_CRIT_MULTIPART_WITHOUT_BOUNDARY:
      return "A multipart section has no boundary, so its parts cannot be told apart.";
    case GMIME_CRIT_NESTING_OVERFLOW:
      return "The message nests its parts too deeply; the innermost parts are not read.";
    case GMIME_WARN_PART_WITHOUT_CONTENT:
      return "A part of the message ends right after its header and has no content.";
    case GMIME_CRIT_PART_WITHOUT_HEADERS_OR_CONTENT:
      return "A part of the message has neither a header nor content.";
    default:
      return {};
  }
}

void AddProblem(std::vector<std::string>& problems, std::string sentence) {
  if (sentence.empty()) return;
  if (std::find(problems.begin(), problems.end(), sentence) != problems.end()) return;
  problems.push_back(std::move(sentence));
}

void CollectWarning(gint64 /*offset*/, GMimeParserWarning code, const gchar* item,
                    gpointer userData) {
  auto* problems = static_cast<std::vector<std::string>*>(userData);
  try {
    AddProblem(*problems, ParserWarningSentence(code, item));
  } catch (...) {
    // Out of memory inside GMime's callback: losing one sentence is the lesser harm.
  }
}

void FreeParserOptions(gpointer options) {
  g_mime_parser_options_free(static_cast<GMimeParserOptions*>(options));
}

enum class TextKind { kNone, kPlain, kHtml };

// Whether a leaf may be shown as the body, and as what.
TextKind BodyKindOf(GMimeObject* object) {
  if (!GMIME_IS_PART(object)) return TextKind::kNone;
  const std::string type = MimeTypeOf(object);
  if (type != "text/plain" && type != "text/html") return TextKind::kNone;
  if (IsAttachment(object)) return TextKind::kNone;
  return type == "text/html" ? TextKind::kHtml : TextKind::kPlain;
}

struct BodyChoice {
  GMimeObject* html = nullptr;
  GMimeObject* text = nullptr;
  // Alternatives not shown and not attachments: the other renderings of the body, a meeting's
  // calendar among them.
  std::vector<GMimeObject*> discarded;
};

bool ChooseBody(GMimeObject* object, BodyChoice& choice, int depth) {
  if (object == nullptr || depth > 64 || GMIME_IS_MESSAGE_PART(object)) return false;
  if (!GMIME_IS_MULTIPART(object)) {
    switch (BodyKindOf(object)) {
      case TextKind::kHtml:
        choice.html = object;
        return true;
      case TextKind::kPlain:
        choice.text = object;
        return true;
      case TextKind::kNone:
        return false;
    }
    return false;
  }
  auto* multipart = GMIME_MULTIPART(object);
  const int count = g_mime_multipart_get_count(multipart);
  const std::string type = MimeTypeOf(object);
  if (type == "multipart/alternative") {
    // The last alternative is the richest; HTML wins over text as mail clients show it.
    std::optional<BodyChoice> html;
    std::optional<BodyChoice> text;
    std::vector<GMimeObject*> leaves;
    for (int i = 0; i < count; ++i) {
      GMimeObject* child = g_mime_multipart_get_part(multipart, i);
      if (GMIME_IS_PART(child) && !IsAttachment(child)) leaves.push_back(child);
      BodyChoice candidate;
      if (!ChooseBody(child, candidate, depth + 1)) continue;
      if (candidate.html != nullptr) {
        html = std::move(candidate);
      } else {
        text = std::move(candidate);
      }
    }
    if (!html && !text) return false;
    choice = html ? std::move(*html) : std::move(*text);
    if (html && text && choice.text == nullptr) choice.text = text->text;
    for (GMimeObject* leaf : leaves) {
      if (leaf != choice.html && leaf != choice.text) choice.discarded.push_back(leaf);
    }
    return true;
  }
  if (type == "multipart/related") {
    GMimeObject* root = count > 0 ? g_mime_multipart_get_part(multipart, 0) : nullptr;
    const std::string start = ContentTypeParameter(object, "start");
    if (!start.empty()) {
      std::string_view wanted = Trim(start);
      if (!wanted.empty() && wanted.front() == '<') wanted.remove_prefix(1);
      if (!wanted.empty() && wanted.back() == '>') wanted.remove_suffix(1);
      for (int i = 0; i < count; ++i) {
        GMimeObject* child = g_mime_multipart_get_part(multipart, i);
        if (ContentIdOf(child) == wanted) {
          root = child;
          break;
        }
      }
    }
    return ChooseBody(root, choice, depth + 1);
  }
  if (type == "multipart/signed") {
    return count > 0 && ChooseBody(g_mime_multipart_get_part(multipart, 0), choice, depth + 1);
  }
  if (type == "multipart/encrypted") return false;
  for (int i = 0; i < count; ++i) {
    if (ChooseBody(g_mime_multipart_get_part(multipart, i), choice, depth + 1)) return true;
  }
  return false;
}

// What the HTML body refers to: its cid: targets (percent-decoded, lower case) and the values of
// its src and href attributes.
struct BodyReferences {
  std::set<std::string> contentIds;
  std::set<std::string> locations;
};

BodyReferences FindReferences(std::string_view html) {
  BodyReferences refs;
  const std::string lower = AsciiLower(html);
  auto isEnd = [](char c) {
    return IsBlank(c) || c == '"' || c == '\'' || c == '<' || c == '>' || c == ')';
  };
  for (std::size_t at = lower.find("cid:"); at != std::string::npos;
       at = lower.find("cid:", at + 4)) {
    std::size_t end = at + 4;
    while (end < lower.size() && !isEnd(lower[end])) ++end;
    refs.contentIds.insert(AsciiLower(PercentDecode(lower.substr(at + 4, end - at - 4))));
  }
  for (const std::string_view attribute : {std::string_view("src"), std::string_view("href")}) {
    for (std::size_t at = lower.find(attribute); at != std::string::npos;
         at = lower.find(attribute, at + 1)) {
      if (at == 0 || !IsBlank(lower[at - 1])) continue;
      std::size_t i = at + attribute.size();
      while (i < lower.size() && IsBlank(lower[i])) ++i;
      if (i >= lower.size() || lower[i] != '=') continue;
      ++i;
      while (i < lower.size() && IsBlank(lower[i])) ++i;
      if (i >= lower.size()) break;
      std::size_t end;
      if (lower[i] == '"' || lower[i] == '\'') {
        end = lower.find(lower[i], i + 1);
        ++i;
        if (end == std::string::npos) end = lower.size();
      } else {
        end = i;
        while (end < lower.size() && !IsBlank(lower[end]) && lower[end] != '>') ++end;
      }
      refs.locations.insert(std::string(Trim(html.substr(i, end - i))));
    }
  }
  return refs;
}

class MessageReader {
 public:
  explicit MessageReader(MailMessage& mail) : mail_(mail) {}

  void Read(GMimeObject* root) {
    BodyChoice choice;
    if (root != nullptr) {
      if (GMIME_IS_PART(root) && MimeTypeOf(root).rfind("text/", 0) == 0 &&
          !IsCalendarOrCard(MimeTypeOf(root))) {
        // A single-part message of text type is its own body.
        (MimeTypeOf(root) == "text/html" ? choice.html : choice.text) = root;
      } else {
        (void)ChooseBody(root, choice, 0);
      }
    }
    mail_.htmlBody = choice.html;
    mail_.textBody = choice.text;
    discarded_ = std::move(choice.discarded);

    GMimeObject* shown = choice.html != nullptr ? choice.html : choice.text;
    if (shown != nullptr) {
      // The body is decoded once here; the page and the references both read this text.
      std::string bytes;
      DecodeFindings findings;
      const bool decoded = DecodeContent(shown, bytes, &findings);
      std::string problem;
      if (decoded) mail_.bodyText = BodyBytesToUtf8(shown, bytes, &problem);
      AddProblem(mail_.problems, problem);
      if (choice.html != nullptr) references_ = FindReferences(mail_.bodyText);
      if (decoded) ReportDecoding("The message text", findings);
    }
    if (root != nullptr) Collect(root, false, 0);
    if (!calendar_.empty()) ReadCalendar();
    // A multipart whose boundary never comes holds all its text in the prologue; showing that
    // beats showing nothing.
    if (shown == nullptr && mail_.parts.empty() && mail_.plainBody.empty() &&
        GMIME_IS_MULTIPART(root) && g_mime_multipart_get_count(GMIME_MULTIPART(root)) == 0) {
      const char* prologue = g_mime_multipart_get_prologue(GMIME_MULTIPART(root));
      if (prologue != nullptr) mail_.plainBody = ToUtf8(Trim(prologue), "");
    }
  }

 private:
  static bool IsCalendarOrCard(std::string_view type) {
    return type == "text/calendar" || type == "text/vcard" || type == "text/x-vcard" ||
           type == "text/directory";
  }

  void ReportDecoding(const std::string& who, const DecodeFindings& findings) {
    if (findings.invalidCharacters) {
      AddProblem(mail_.problems, who +
                                     " is damaged: its base64 encoding has invalid characters; "
                                     "what could be decoded is kept.");
    }
    if (findings.cutShort) {
      AddProblem(mail_.problems, who +
                                     " is damaged: its base64 encoding is cut short; what could "
                                     "be decoded is kept.");
    }
    if (findings.paddingInside) {
      AddProblem(mail_.problems, who +
                                     " has base64 padding in the middle of its encoding; the "
                                     "text after it was decoded as well.");
    }
  }

  bool IsBody(GMimeObject* object) const {
    return object == mail_.htmlBody || object == mail_.textBody ||
           std::find(discarded_.begin(), discarded_.end(), object) != discarded_.end();
  }

  void Collect(GMimeObject* object, bool insideRelated, int depth) {
    if (object == nullptr || depth > 64) return;
    if (GMIME_IS_MULTIPART(object)) {
      const bool related = insideRelated || MimeTypeOf(object) == "multipart/related";
      auto* multipart = GMIME_MULTIPART(object);
      const int count = g_mime_multipart_get_count(multipart);
      for (int i = 0; i < count; ++i) {
        Collect(g_mime_multipart_get_part(multipart, i), related, depth + 1);
      }
      return;
    }
    if (!GMIME_IS_PART(object) && !GMIME_IS_MESSAGE_PART(object)) return;
    if (MimeTypeOf(object) == "text/calendar") calendar_.push_back(object);
    if (IsBody(object)) return;
    AddPart(object, insideRelated);
  }

  void AddPart(GMimeObject* object, bool insideRelated) {
    MailPart part;
    part.object = object;
    part.mimeType = MimeTypeOf(object);
    part.contentId = ContentIdOf(object);
    part.fileName = UsableFileName(DeclaredFileName(object));
    if (part.fileName.empty() && GMIME_IS_MESSAGE_PART(object)) {
      GMimeMessage* inner = g_mime_message_part_get_message(GMIME_MESSAGE_PART(object));
      const std::string subject =
          inner != nullptr ? UsableFileName(HeaderText(GMIME_OBJECT(inner), "Subject"), false) : "";
      if (!subject.empty()) part.fileName = subject + ".eml";
    }
    if (part.fileName.empty()) {
      if (part.mimeType.rfind("image/", 0) == 0) {
        char name[32];
        g_snprintf(name, sizeof name, "image%03d.", ++pictures_);
        part.fileName = name + std::string(ExtensionOf(part.mimeType));
      } else {
        part.fileName = "attachment" + std::to_string(mail_.parts.size() + 1) + "." +
                        std::string(ExtensionOf(part.mimeType));
      }
    }
    if (!references_.contentIds.empty() && !part.contentId.empty()) {
      part.referencedByBody = references_.contentIds.count(AsciiLower(part.contentId)) > 0;
    }
    if (!part.referencedByBody && insideRelated && mail_.htmlBody != nullptr) {
      const std::optional<std::string> location = RawHeader(object, "Content-Location");
      if (location && !Trim(*location).empty()) {
        const std::string wanted(Trim(*location));
        part.referencedByBody = std::any_of(
            references_.locations.begin(), references_.locations.end(),
            [&](const std::string& value) { return EqualsIgnoringCase(value, wanted); });
      }
    }
    std::string content;
    DecodeFindings findings;
    const std::string who = "The attachment \"" + part.fileName + "\"";
    if (!DecodeContent(object, content, &findings)) {
      AddProblem(mail_.problems, who + " cannot be read.");
    } else if (content.empty()) {
      AddProblem(mail_.problems, who + " has no content.");
    }
    ReportDecoding(who, findings);
    mail_.parts.push_back(std::move(part));
  }

  // A message with an invitation, cancellation or answer is a meeting; its calendar stands in as
  // the body when the message has no text of its own.
  void ReadCalendar() {
    for (GMimeObject* object : calendar_) {
      std::string content;
      if (!DecodeContent(object, content, nullptr)) continue;
      const std::vector<ContentLine> lines =
          ParseContentLines(ToUtf8(content, ContentTypeParameter(object, "charset")));
      std::string method = AsciiLower(Trim(ContentTypeParameter(object, "method")));
      if (method.empty()) method = AsciiLower(CalendarMethod(lines));
      if (method != "request" && method != "cancel" && method != "reply") continue;
      mail_.kind = ItemKind::kMeeting;
      if (mail_.htmlBody == nullptr && mail_.textBody == nullptr) {
        mail_.plainBody = SummarizeEvents(lines, nullptr);
      }
      return;
    }
  }

  MailMessage& mail_;
  std::vector<GMimeObject*> discarded_;
  std::vector<GMimeObject*> calendar_;
  BodyReferences references_;
  int pictures_ = 0;
};

void ReadHeaderFields(MailMessage& mail) {
  GMimeObject* headers = GMIME_OBJECT(mail.message);
  mail.subject = HeaderText(headers, "Subject");
  if (const std::optional<std::string> from = RawHeader(headers, "From")) {
    const std::vector<Mailbox> boxes = ParseAddressList(Trim(*from));
    for (const Mailbox& box : boxes) {
      if (box.name.empty() && box.address.empty()) continue;
      mail.senderAddress = box.address;
      mail.senderName = box.name.empty() ? box.address : box.name;
      if (!box.name.empty() && !box.address.empty()) {
        mail.fromLine = box.name + " <" + box.address + ">";
      } else {
        mail.fromLine = box.name.empty() ? box.address : box.name;
      }
      break;
    }
  }
  for (auto [name, field] : {std::pair<const char*, std::string*>{"To", &mail.to},
                             {"Cc", &mail.cc},
                             {"Bcc", &mail.bcc}}) {
    if (const std::optional<std::string> raw = RawHeader(headers, name)) {
      *field = DisplayAddressList(Trim(*raw));
    }
  }
  if (const std::optional<std::string> date = RawHeader(headers, "Date")) {
    if (const std::optional<MailDate> parsed = ParseMailDate(Trim(*date))) {
      mail.sentUnixSeconds = parsed->unixSeconds;
      mail.hasDateHeader = true;
    }
  }

  const std::string importance = AsciiLower(Trim(RawHeader(headers, "Importance").value_or("")));
  const std::string xPriority(Trim(RawHeader(headers, "X-Priority").value_or("")));
  const std::string priority = AsciiLower(Trim(RawHeader(headers, "Priority").value_or("")));
  if (importance == "low" || importance == "normal" || importance == "high") {
    mail.importance = importance == "low" ? 0 : importance == "normal" ? 1 : 2;
  } else if (!xPriority.empty() && xPriority[0] >= '1' && xPriority[0] <= '5') {
    mail.importance = xPriority[0] <= '2' ? 2 : xPriority[0] == '3' ? 1 : 0;
  } else if (priority == "urgent" || priority == "non-urgent" || priority == "normal") {
    mail.importance = priority == "urgent" ? 2 : priority == "normal" ? 1 : 0;
  }
  const std::string sensitivity = AsciiLower(Trim(RawHeader(headers, "Sensitivity").value_or("")));
  if (sensitivity == "personal") mail.sensitivity = 1;
  if (sensitivity == "private") mail.sensitivity = 2;
  if (sensitivity == "company-confidential") mail.sensitivity = 3;
}

bool ReadFileBytes(const std::string& path, std::string& bytes, std::string* error) {
  auto fail = [&](const std::string& cause) {
    if (error != nullptr) *error = "The file \"" + path + "\" " + cause;
    return false;
  };
  std::error_code status;
  if (!std::filesystem::exists(path, status)) return fail("does not exist.");
  if (std::filesystem::is_directory(path, status)) return fail("is a folder, not a mail file.");
  std::ifstream in(path, std::ios::binary);
  if (!in) return fail("cannot be opened.");
  bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  if (in.bad()) return fail("cannot be read.");
  if (bytes.empty()) return fail("is empty.");
  return true;
}

std::int64_t ModificationTime(const std::string& path) {
  std::error_code status;
  const auto written = std::filesystem::last_write_time(path, status);
  if (status) return 0;
  const auto system = std::chrono::file_clock::to_sys(written);
  return std::chrono::duration_cast<std::chrono::seconds>(system.time_since_epoch()).count();
}

GMimeMessage* ParseMessage(std::string_view bytes, GMimeParserOptions* options) {
  GPtr<GMimeStream> stream(g_mime_stream_mem_new_with_buffer(bytes.data(), bytes.size()));
  GPtr<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
  return g_mime_parser_construct_message(parser.get(), options);
}

void ReadMessage(MailMessage& mail, const std::string& bytes) {
  EnsureGMime();
  GMimeParserOptions* options = g_mime_parser_options_new();
  g_mime_parser_options_set_warning_callback(options, CollectWarning, &mail.problems);
  mail.message = ParseMessage(bytes, options);
  // Text that does not start with a header is read as the body of a message without one.
  if (mail.message == nullptr) {
    mail.problems.clear();
    AddProblem(mail.problems, "The file starts without a header; all of it is taken as the text.");
    mail.message = ParseMessage("\r\n" + bytes, options);
  }
  // Later lookups may parse lazily with these options, so they live as long as the message, and
  // no longer report into this call's collection.
  g_mime_parser_options_set_warning_callback(options, nullptr, nullptr);
  if (mail.message == nullptr) {
    g_mime_parser_options_free(options);
    AddProblem(mail.problems, "The file holds no message that could be read.");
    return;
  }
  g_object_set_data_full(G_OBJECT(mail.message), "mrwl-parser-options", options, FreeParserOptions);
  ReadHeaderFields(mail);
  MessageReader(mail).Read(g_mime_message_get_mime_part(mail.message));
}

}  // namespace

MailMessage::~MailMessage() {
  if (message != nullptr) g_object_unref(message);
}

std::shared_ptr<const MailMessage> ReadMailFile(const std::string& path, std::string* error) {
  try {
    std::string bytes;
    if (!ReadFileBytes(path, bytes, error)) return nullptr;
    auto mail = std::make_shared<MailMessage>();
    mail->path = path;
    if (EndsWithNoCase(path, ".vcf") || EndsWithNoCase(path, ".ics")) {
      const bool contact = EndsWithNoCase(path, ".vcf");
      mail->kind = contact ? ItemKind::kContact : ItemKind::kAppointment;
      std::string problem;
      const std::vector<ContentLine> lines = ParseContentLines(ToUtf8(bytes, "utf-8", &problem));
      AddProblem(mail->problems, problem);
      mail->plainBody = contact ? SummarizeContacts(lines, &mail->subject)
                                : SummarizeEvents(lines, &mail->subject);
      if (mail->plainBody.empty()) {
        AddProblem(mail->problems, contact ? "The file holds no contact card."
                                           : "The file holds no calendar event.");
      }
    } else {
      ReadMessage(*mail, bytes);
    }
    if (!mail->hasDateHeader) mail->sentUnixSeconds = ModificationTime(path);
    return mail;
  } catch (...) {
    if (error != nullptr) *error = "The file \"" + path + "\" cannot be read: out of memory.";
    return nullptr;
  }
}

bool ReadPartContent(const MailPart& part, std::string& content) {
  try {
    return DecodeContent(part.object, content, nullptr);
  } catch (...) {
    content.clear();
    return false;
  }
}

std::string ReadBodyText(GMimeObject* body, std::string* problem) {
  std::string bytes;
  if (body == nullptr || !DecodeContent(body, bytes, nullptr)) return {};
  return BodyBytesToUtf8(body, bytes, problem);
}

bool WriteNewFile(const std::string& path, std::string_view bytes, std::string* error) {
  const std::u16string widePath = platform::Utf8ToUtf16(path);
  auto fail = [&](const char* what) {
    const DWORD code = platform::GetLastError();
    if (error != nullptr) {
      char16_t text[512] = {};
      const DWORD length =
          platform::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                   nullptr, code, 0, text, sizeof text / sizeof text[0]);
      const std::string message = platform::Utf16ToUtf8(std::u16string_view(text, length));
      std::string reason(Trim(message));
      if (!reason.empty() && reason.back() == '.') reason.pop_back();
      *error = "The file \"" + path + "\" cannot be " + what +
               (reason.empty() ? "." : ": " + reason + ".");
    }
    return false;
  };
  // Whatever stands there goes first, a link as itself; nothing there is no failure, and a folder
  // stays and makes the exclusive creation fail.
  (void)platform::DeleteFileW(widePath.c_str());
  const HANDLE file =
      platform::CreateFileW(widePath.c_str(), GENERIC_WRITE, 0, CREATE_NEW, FILE_ATTRIBUTE_NORMAL);
  if (file == INVALID_HANDLE_VALUE) return fail("created");
  constexpr std::size_t kChunk = 1 << 20;
  for (std::size_t at = 0; at < bytes.size();) {
    const DWORD count = static_cast<DWORD>(std::min(kChunk, bytes.size() - at));
    DWORD done = 0;
    if (!platform::WriteFile(file, bytes.data() + at, count, &done, nullptr) || done == 0) {
      const bool result = fail("written");
      (void)platform::CloseHandle(file);
      (void)platform::DeleteFileW(widePath.c_str());
      return result;
    }
    at += done;
  }
  if (!platform::CloseHandle(file)) {
    const bool result = fail("written");
    (void)platform::DeleteFileW(widePath.c_str());
    return result;
  }
  return true;
}

}  // namespace mrwl::host
