#include "host/html_page.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include <gmime/gmime.h>

#include "host/mail_message.h"
#include "host/mime_text.h"
#include "platform/files.h"
#include "platform/utf.h"

namespace mrwl::host {
namespace {

constexpr std::size_t kNone = std::string::npos;

// Names in the companion folder stay well below the 255 bytes a file system allows, so that a
// number added to tell two pictures apart still fits.
constexpr std::size_t kMaxFileNameBytes = 200;

constexpr std::string_view kStyle =
    "<style>\n"
    ".mrwl-header{font-family:Calibri,Arial,Helvetica,sans-serif;font-size:11pt;color:#000;"
    "background:#fff;margin:0 0 4px 0}\n"
    ".mrwl-header table{border-collapse:collapse;border:0;width:auto}\n"
    ".mrwl-header td{padding:0 8px 1px 0;vertical-align:top;text-align:left;border:0}\n"
    ".mrwl-header td.mrwl-label{white-space:nowrap}\n"
    ".mrwl-rule{border:0;border-top:1px solid #a0a0a0;margin:4px 0 8px 0}\n"
    ".mrwl-note{font-family:Calibri,Arial,Helvetica,sans-serif;font-size:10pt;color:#000;"
    "background:#fff4c8;border:1px solid #d8b000;padding:4px 8px;margin:0 0 8px 0}\n"
    ".mrwl-note p{margin:2px 0}\n"
    "</style>\n";

std::size_t FindNoCase(std::string_view text, std::string_view needle, std::size_t from) {
  for (std::size_t i = from; i + needle.size() <= text.size(); ++i) {
    if (EqualsIgnoringCase(text.substr(i, needle.size()), needle)) return i;
  }
  return kNone;
}

bool IsHtmlSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f'; }

bool IsAsciiLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

std::string_view TrimHtmlSpace(std::string_view text) {
  while (!text.empty() && IsHtmlSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsHtmlSpace(text.back())) text.remove_suffix(1);
  return text;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = AsciiLower(c);
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

void AppendCodePoint(std::string& out, unsigned long cp) {
  if (cp == 0 || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) cp = 0xFFFD;
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// An attribute value as the browser reads it, for the character references that matter in URLs:
// numeric ones and the few named ones that hide a scheme or an ampersand.
std::string DecodeCharacterReferences(std::string_view value) {
  static constexpr struct {
    std::string_view name;
    char c;
  } kNamed[] = {{"amp;", '&'},   {"lt;", '<'},    {"gt;", '>'},   {"quot;", '"'},
                {"apos;", '\''}, {"colon;", ':'}, {"tab;", '\t'}, {"newline;", '\n'}};
  std::string out;
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (value[i] != '&') {
      out += value[i];
      continue;
    }
    const std::string_view rest = value.substr(i + 1);
    if (!rest.empty() && rest[0] == '#') {
      const bool hex = rest.size() > 1 && AsciiLower(rest[1]) == 'x';
      std::size_t j = hex ? 2 : 1;
      unsigned long cp = 0;
      const std::size_t digitsStart = j;
      while (j < rest.size() && j < digitsStart + 8) {
        const int digit =
            hex ? HexValue(rest[j]) : (rest[j] >= '0' && rest[j] <= '9' ? rest[j] - '0' : -1);
        if (digit < 0) break;
        cp = cp * (hex ? 16 : 10) + static_cast<unsigned long>(digit);
        ++j;
      }
      if (j > digitsStart) {
        AppendCodePoint(out, cp);
        i += j + (j < rest.size() && rest[j] == ';' ? 1 : 0);
        continue;
      }
    } else {
      bool matched = false;
      for (const auto& named : kNamed) {
        if (StartsWithIgnoringCase(rest, named.name)) {
          out += named.c;
          i += named.name.size();
          matched = true;
          break;
        }
      }
      if (matched) continue;
    }
    out += '&';
  }
  return out;
}

// Whether a URL would run script when followed or loaded. Browsers drop blanks and control
// characters around and inside the scheme and decode character references first, so this does too.
// A data: URL runs its own script as a frame's or an object's document, never as a picture.
bool IsScriptUrl(std::string_view value, std::string_view tagName) {
  std::string compact;
  for (char c : DecodeCharacterReferences(value)) {
    if (static_cast<unsigned char>(c) > 0x20) compact += AsciiLower(c);
  }
  if (compact.starts_with("data:")) {
    for (std::string_view framing : {"iframe", "frame", "object", "embed"}) {
      if (EqualsIgnoringCase(tagName, framing)) return true;
    }
  }
  return compact.starts_with("javascript:") || compact.starts_with("vbscript:") ||
         compact.starts_with("livescript:");
}

std::string PercentDecode(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && HexValue(text[i + 1]) >= 0 &&
        HexValue(text[i + 2]) >= 0) {
      out += static_cast<char>(HexValue(text[i + 1]) * 16 + HexValue(text[i + 2]));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

// One path segment of a relative URL: everything but the unreserved characters is encoded, which
// also keeps the URL safe in any attribute quoting and inside an unquoted CSS url().
std::string PercentEncodeSegment(std::string_view segment) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (char c : segment) {
    const auto byte = static_cast<unsigned char>(c);
    if (IsAsciiLetter(c) || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_' ||
        c == '~') {
      out += c;
    } else {
      out += '%';
      out += kHex[byte >> 4];
      out += kHex[byte & 0x0F];
    }
  }
  return out;
}

// `name` cut to at most `limit` bytes at a character boundary, its extension kept.
std::string LimitFileName(const std::string& name, std::size_t limit) {
  if (name.size() <= limit) return name;
  std::size_t dot = name.rfind('.');
  if (dot == kNone || dot == 0 || name.size() - dot > 16) dot = name.size();
  const std::string extension = name.substr(dot);
  std::size_t keep = limit - extension.size();
  while (keep > 0 && (static_cast<unsigned char>(name[keep]) & 0xC0) == 0x80) --keep;
  return name.substr(0, keep) + extension;
}

std::string LastPathComponent(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  return slash == kNone ? path : path.substr(slash + 1);
}

// The parts the page's body refers to, each given a file in the companion folder the first time a
// reference to it is met; references are matched by Content-ID ("cid:") and by Content-Location.
class CompanionFiles {
 public:
  struct Entry {
    std::string fileName;
    std::string content;
  };

  CompanionFiles(const MailMessage& message, const std::string& folderName)
      : message_(message), folderUrl_(PercentEncodeSegment(folderName) + "/") {
    for (const MailPart& part : message.parts) {
      const char* location = part.object != nullptr
                                 ? g_mime_object_get_header(part.object, "Content-Location")
                                 : nullptr;
      locations_.emplace_back(location != nullptr ? TrimHtmlSpace(location) : "");
      entryOfPart_.push_back(kUnassigned);
    }
  }

  // The relative URL that replaces `url`, or empty when `url` names no part whose content could
  // be had.
  std::string Resolve(std::string_view url) {
    const std::string value = DecodeCharacterReferences(TrimHtmlSpace(url));
    const std::size_t part = FindPart(value);
    if (part == kNone) return {};
    if (entryOfPart_[part] == kUnassigned) Assign(part);
    if (entryOfPart_[part] < 0) return {};
    return folderUrl_ + PercentEncodeSegment(entries_[entryOfPart_[part]].fileName);
  }

  const std::vector<Entry>& entries() const { return entries_; }

 private:
  static constexpr int kUnassigned = -1;
  static constexpr int kUnreadable = -2;

  std::size_t FindPart(const std::string& value) const {
    if (StartsWithIgnoringCase(value, "cid:")) {
      std::string_view id = TrimHtmlSpace(std::string_view(value).substr(4));
      if (id.size() >= 2 && id.front() == '<' && id.back() == '>') id = id.substr(1, id.size() - 2);
      if (id.empty()) return kNone;
      const std::string decoded = PercentDecode(id);
      for (std::size_t i = 0; i < message_.parts.size(); ++i) {
        const std::string& contentId = message_.parts[i].contentId;
        if (!contentId.empty() &&
            (EqualsIgnoringCase(contentId, id) || EqualsIgnoringCase(contentId, decoded))) {
          return i;
        }
      }
      return kNone;
    }
    if (value.empty()) return kNone;
    for (std::size_t i = 0; i < locations_.size(); ++i) {
      if (locations_[i] == value) return i;
    }
    return kNone;
  }

  void Assign(std::size_t part) {
    std::string content;
    if (!ReadPartContent(message_.parts[part], content)) {
      entryOfPart_[part] = kUnreadable;
      return;
    }
    entryOfPart_[part] = static_cast<int>(entries_.size());
    entries_.push_back({UniqueName(message_.parts[part].fileName), std::move(content)});
  }

  // Two pictures of one name must not overwrite each other; names are compared without case so
  // that the folder stays whole on a file system that ignores it.
  std::string UniqueName(const std::string& wanted) {
    std::string name =
        LimitFileName(wanted.empty() ? std::string("part") : wanted, kMaxFileNameBytes);
    if (takenNames_.insert(AsciiLower(name)).second) return name;
    std::size_t dot = name.rfind('.');
    if (dot == kNone || dot == 0) dot = name.size();
    const std::string stem = name.substr(0, dot);
    const std::string extension = name.substr(dot);
    for (int number = 2;; ++number) {
      std::string candidate = stem + " (" + std::to_string(number) + ")" + extension;
      if (takenNames_.insert(AsciiLower(candidate)).second) return candidate;
    }
  }

  const MailMessage& message_;
  std::string folderUrl_;
  std::vector<std::string> locations_;
  std::vector<int> entryOfPart_;
  std::vector<Entry> entries_;
  std::unordered_set<std::string> takenNames_;
};

// Every url(...) of a style sheet or a style attribute, rewritten where it names a part.
std::string RewriteCssUrls(std::string_view css, CompanionFiles& files) {
  std::string out;
  std::size_t pos = 0;
  for (;;) {
    const std::size_t start = FindNoCase(css, "url(", pos);
    if (start == kNone) break;
    std::size_t i = start + 4;
    while (i < css.size() && IsHtmlSpace(css[i])) ++i;
    char quote = 0;
    if (i < css.size() && (css[i] == '"' || css[i] == '\'')) quote = css[i++];
    const std::size_t valueStart = i;
    while (i < css.size() &&
           (quote != 0 ? css[i] != quote : (css[i] != ')' && !IsHtmlSpace(css[i])))) {
      ++i;
    }
    const std::string replacement = files.Resolve(css.substr(valueStart, i - valueStart));
    out.append(css.substr(pos, valueStart - pos));
    if (replacement.empty()) {
      out.append(css.substr(valueStart, i - valueStart));
    } else {
      out += replacement;
    }
    pos = i;
  }
  out.append(css.substr(pos));
  return out;
}

bool IsUrlAttribute(std::string_view name) {
  static constexpr std::string_view kNames[] = {
      "src",    "href",   "background", "poster", "data",       "action", "formaction",
      "lowsrc", "dynsrc", "longdesc",   "cite",   "xlink:href", "usemap"};
  for (std::string_view candidate : kNames) {
    if (EqualsIgnoringCase(name, candidate)) return true;
  }
  return false;
}

// One attribute of a start tag as written: `text` is all of it, with its leading blanks; the value
// (without its quotes) lies at `valueStart`, `valueLength` bytes, when `hasValue`.
struct Attribute {
  std::string_view text;
  std::string_view name;
  bool hasValue = false;
  std::size_t valueStart = 0;
  std::size_t valueLength = 0;

  std::string_view Value() const { return text.substr(valueStart, valueLength); }
};

struct StartTag {
  std::string_view name;
  std::string_view nameText;  // "<name"
  std::vector<Attribute> attributes;
  std::string_view closing;  // the blanks, "/" and ">" after the last attribute
  std::size_t end = kNone;   // just past ">", kNone when the tag does not end
};

StartTag ParseStartTag(std::string_view html, std::size_t at) {
  StartTag tag;
  std::size_t i = at + 1;
  while (i < html.size() && !IsHtmlSpace(html[i]) && html[i] != '/' && html[i] != '>') ++i;
  tag.name = html.substr(at + 1, i - at - 1);
  tag.nameText = html.substr(at, i - at);
  for (;;) {
    const std::size_t attributeStart = i;
    while (i < html.size() && (IsHtmlSpace(html[i]) || html[i] == '/')) ++i;
    if (i >= html.size()) return tag;
    if (html[i] == '>') {
      tag.closing = html.substr(attributeStart, i + 1 - attributeStart);
      tag.end = i + 1;
      return tag;
    }
    Attribute attribute;
    const std::size_t nameStart = i;
    ++i;  // a first "=" belongs to the name
    while (i < html.size() && !IsHtmlSpace(html[i]) && html[i] != '/' && html[i] != '>' &&
           html[i] != '=') {
      ++i;
    }
    attribute.name = html.substr(nameStart, i - nameStart);
    std::size_t j = i;
    while (j < html.size() && IsHtmlSpace(html[j])) ++j;
    if (j < html.size() && html[j] == '=') {
      ++j;
      while (j < html.size() && IsHtmlSpace(html[j])) ++j;
      attribute.hasValue = true;
      if (j < html.size() && (html[j] == '"' || html[j] == '\'')) {
        const char quote = html[j];
        const std::size_t close = html.find(quote, j + 1);
        if (close == kNone) return tag;
        attribute.valueStart = j + 1 - attributeStart;
        attribute.valueLength = close - j - 1;
        i = close + 1;
      } else {
        std::size_t k = j;
        while (k < html.size() && !IsHtmlSpace(html[k]) && html[k] != '>') ++k;
        attribute.valueStart = j - attributeStart;
        attribute.valueLength = k - j;
        i = k;
      }
    }
    attribute.text = html.substr(attributeStart, i - attributeStart);
    tag.attributes.push_back(attribute);
  }
}

// Where the page's own pieces go into the mail's document; kNone where the document has no such
// place.
struct Anchors {
  std::size_t head = kNone;     // after <head> and the charset declaration that opens it
  std::size_t body = kNone;     // after the first <body ...> tag
  std::size_t headEnd = kNone;  // after </head>
};

// The mail's HTML made safe to render and linked to the companion folder. A mail's script must
// never run in the converter's browser, so <script> elements go whole, on* event attributes and
// srcdoc go, and script URLs become "#"; <base> goes because it would send the relative links
// into the companion folder elsewhere, and a meta refresh because it would navigate away from
// the page. Comments and everything else stay byte for byte.
std::string PrepareMailHtml(std::string_view html, CompanionFiles& files, Anchors& anchors) {
  std::string out;
  out.reserve(html.size() + 1024);
  bool afterHeadStart = false;
  std::size_t pos = 0;
  while (pos < html.size()) {
    const std::size_t lt = html.find('<', pos);
    if (lt == kNone || lt + 1 >= html.size()) {
      out.append(html.substr(pos));
      break;
    }
    out.append(html.substr(pos, lt - pos));
    const std::string_view rest = html.substr(lt);
    if (rest.starts_with("<!--")) {
      const std::size_t close = html.find("-->", lt + 4);
      const std::size_t end = close == kNone ? html.size() : close + 3;
      out.append(html.substr(lt, end - lt));
      pos = end;
      continue;
    }
    if (rest[1] == '!' || rest[1] == '?' || rest[1] == '/') {
      const std::size_t close = html.find('>', lt);
      const std::size_t end = close == kNone ? html.size() : close + 1;
      if (rest[1] == '/' && anchors.headEnd == kNone && StartsWithIgnoringCase(rest, "</head") &&
          (rest.size() == 6 || !IsAsciiLetter(rest[6]))) {
        anchors.headEnd = out.size() + (end - lt);
      }
      // An XML declaration may name a charset of its own; the page has one declaration only.
      if (!StartsWithIgnoringCase(rest, "<?xml")) out.append(html.substr(lt, end - lt));
      afterHeadStart = false;
      pos = end;
      continue;
    }
    if (!IsAsciiLetter(rest[1])) {
      out += '<';
      pos = lt + 1;
      continue;
    }
    const StartTag tag = ParseStartTag(html, lt);
    if (tag.end == kNone) {  // a tag cut off by the end of the document is text to the browser
      out.append(rest);
      break;
    }
    const std::string name = AsciiLower(tag.name);
    if (name == "script") {
      const std::size_t close = FindNoCase(html, "</script", tag.end);
      const std::size_t closeEnd = close == kNone ? kNone : html.find('>', close);
      pos = closeEnd == kNone ? html.size() : closeEnd + 1;
      continue;
    }
    bool refresh = false;
    bool declaresCharset = false;
    for (const Attribute& attribute : tag.attributes) {
      if (EqualsIgnoringCase(attribute.name, "http-equiv") &&
          EqualsIgnoringCase(TrimHtmlSpace(attribute.Value()), "refresh")) {
        refresh = true;
      }
      if (EqualsIgnoringCase(attribute.name, "charset")) declaresCharset = true;
    }
    if (name == "base" || (name == "meta" && refresh)) {
      pos = tag.end;
      continue;
    }
    out.append(tag.nameText);
    for (const Attribute& attribute : tag.attributes) {
      if ((attribute.name.size() > 2 && StartsWithIgnoringCase(attribute.name, "on")) ||
          EqualsIgnoringCase(attribute.name, "srcdoc")) {
        continue;
      }
      std::string replacement;
      bool replace = false;
      if (attribute.hasValue && IsUrlAttribute(attribute.name)) {
        if (IsScriptUrl(attribute.Value(), name)) {
          replacement = "#";
          replace = true;
        } else {
          replacement = files.Resolve(attribute.Value());
          replace = !replacement.empty();
        }
      } else if (attribute.hasValue && EqualsIgnoringCase(attribute.name, "style")) {
        replacement = RewriteCssUrls(attribute.Value(), files);
        replace = true;
      }
      if (!replace) {
        out.append(attribute.text);
        continue;
      }
      out.append(attribute.text.substr(0, attribute.valueStart));
      out += replacement;
      out.append(attribute.text.substr(attribute.valueStart + attribute.valueLength));
    }
    out.append(tag.closing);
    pos = tag.end;

    if (name == "head" && anchors.head == kNone) {
      anchors.head = out.size();
      afterHeadStart = true;
      continue;
    }
    if (afterHeadStart && name == "meta" && declaresCharset) anchors.head = out.size();
    afterHeadStart = false;
    if (name == "body" && anchors.body == kNone) anchors.body = out.size();
    if (name == "style" || name == "title" || name == "textarea" || name == "xmp") {
      // Their content is text to the browser, not markup; a style sheet may still name pictures.
      const std::size_t close = FindNoCase(html, "</" + name, pos);
      const std::size_t end = close == kNone ? html.size() : close;
      const std::string_view content = html.substr(pos, end - pos);
      if (name == "style") {
        out += RewriteCssUrls(content, files);
      } else {
        out.append(content);
      }
      pos = end;
    }
  }
  return out;
}

void AppendRow(std::string& out, std::string_view label, std::string_view value) {
  out += "<tr><td class=\"mrwl-label\"><b>";
  out += label;
  out += "</b></td><td>";
  out += EscapeHtml(value);
  out += "</td></tr>\n";
}

// The block Outlook puts on top of an exported mail, the rule under it, and the note of problems.
std::string HeaderBlock(const MailMessage& message) {
  const std::vector<std::string>& problems = message.problems;
  std::string out = "<div class=\"mrwl-header\">\n<table>\n";
  std::string from = message.fromLine;
  if (from.empty()) from = message.senderName.empty() ? message.senderAddress : message.senderName;
  AppendRow(out, "From:", from);
  AppendRow(out, "Sent:", FormatSentDate(message.sentUnixSeconds));
  AppendRow(out, "To:", message.to);
  if (!message.cc.empty()) AppendRow(out, "Cc:", message.cc);
  AppendRow(out, "Subject:", message.subject);
  std::string attachments;
  for (const MailPart& part : message.parts) {
    if (part.referencedByBody) continue;
    if (!attachments.empty()) attachments += "; ";
    attachments += part.fileName;
  }
  if (!attachments.empty()) AppendRow(out, "Attachments:", attachments);
  out += "</table>\n</div>\n<hr class=\"mrwl-rule\">\n";
  if (!problems.empty()) {
    out += "<div class=\"mrwl-note\">\n";
    for (const std::string& problem : problems) {
      out += "<p>" + EscapeHtml(problem) + "</p>\n";
    }
    out += "</div>\n";
  }
  return out;
}

std::string HeadExtras(const MailMessage& message) {
  return "\n<title>" + EscapeHtml(message.subject) + "</title>\n" + std::string(kStyle);
}

std::string OwnDocument(const MailMessage& message, const std::string& header,
                        const std::string& body) {
  return "<!DOCTYPE html>\n<html>\n<head>\n<meta charset=\"utf-8\">" + HeadExtras(message) +
         "</head>\n<body>\n" + header + body + "\n</body>\n</html>\n";
}

std::string HtmlBodyDocument(const MailMessage& message, const std::string& header,
                             std::string_view bodyText, CompanionFiles& files) {
  Anchors anchors;
  std::string page = PrepareMailHtml(DeclareUtf8(bodyText), files, anchors);
  std::size_t headerAt = anchors.body;
  if (headerAt == kNone) headerAt = anchors.headEnd != kNone ? anchors.headEnd : 0;
  const std::string extras = HeadExtras(message);
  // Insert the later position first so that the earlier one stays valid.
  if (anchors.head != kNone && anchors.head > headerAt) {
    page.insert(anchors.head, extras);
    page.insert(headerAt, header);
  } else {
    page.insert(headerAt, header);
    if (anchors.head != kNone) {
      page.insert(anchors.head, extras);
    } else {
      page.insert(0, "<head>" + extras + "</head>\n");
    }
  }
  return page;
}

bool ParameterIs(GMimeContentType* type, const char* name, std::string_view expected) {
  const char* value = type != nullptr ? g_mime_content_type_get_parameter(type, name) : nullptr;
  return value != nullptr && EqualsIgnoringCase(TrimHtmlSpace(value), expected);
}

// Writes the companion folder and its files; on failure removes what it made.
class FolderWriter {
 public:
  explicit FolderWriter(std::string folder)
      : folder_(std::move(folder)), wideFolder_(platform::Utf8ToUtf16(folder_)) {}

  bool Prepare(std::string* error) {
    const DWORD attributes = platform::GetFileAttributesW(wideFolder_.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES) {
      if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        *error = "The folder for the pictures of the page, \"" + folder_ +
                 "\", is a symbolic link and is not used.";
        return false;
      }
      if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
        *error = "The folder for the pictures of the page, \"" + folder_ +
                 "\", cannot be made: a file of that name is in the way.";
        return false;
      }
      return true;
    }
    if (!platform::CreateDirectoryW(wideFolder_.c_str())) {
      *error = "The folder for the pictures of the page, \"" + folder_ + "\", cannot be made.";
      return false;
    }
    created_ = true;
    // The umask may have taken rights away or a backend may have granted more; either way the
    // folder holds mail content and is for its owner alone.
    if (!platform::RestrictToOwner(wideFolder_.c_str(), FALSE)) {
      *error =
          "The folder for the pictures of the page, \"" + folder_ + "\", cannot be made private.";
      return false;
    }
    return true;
  }

  bool Write(const std::string& fileName, std::string_view content, std::string* error) {
    const std::string path = folder_ + "/" + fileName;
    if (!WriteNewFile(path, content, error)) return false;
    written_.push_back(platform::Utf8ToUtf16(path));
    return true;
  }

  void Undo() {
    for (const std::u16string& path : written_) (void)platform::DeleteFileW(path.c_str());
    written_.clear();
    // Only a folder made here goes; one that stood already may hold what others put there.
    if (created_) (void)platform::RemoveDirectoryW(wideFolder_.c_str());
    created_ = false;
  }

 private:
  std::string folder_;
  std::u16string wideFolder_;
  bool created_ = false;
  std::vector<std::u16string> written_;
};

}  // namespace

std::string CompanionFolderOf(const std::string& pagePath) {
  const std::string_view path(pagePath);
  for (std::string_view extension : {std::string_view(".html"), std::string_view(".htm")}) {
    if (path.size() > extension.size() &&
        EqualsIgnoringCase(path.substr(path.size() - extension.size()), extension)) {
      return std::string(path.substr(0, path.size() - extension.size())) + "_files";
    }
  }
  return pagePath + "_files";
}

bool WriteHtmlPage(const MailMessage& message, const std::string& pagePath, std::string* error) {
  std::string ignoredError;
  if (error == nullptr) error = &ignoredError;
  const std::string folder = CompanionFolderOf(pagePath);
  CompanionFiles files(message, LastPathComponent(folder));

  const std::string header = HeaderBlock(message);
  const std::string& bodyText = message.bodyText;

  std::string page;
  if (message.htmlBody != nullptr) {
    page = HtmlBodyDocument(message, header, bodyText, files);
  } else if (message.textBody != nullptr) {
    GMimeContentType* type = g_mime_object_get_content_type(message.textBody);
    page = OwnDocument(message, header,
                       TextToHtml(bodyText, ParameterIs(type, "format", "flowed"),
                                  ParameterIs(type, "delsp", "yes")));
  } else {
    page = OwnDocument(message, header,
                       message.plainBody.empty() ? std::string() : TextToHtml(message.plainBody));
  }

  FolderWriter writer(folder);
  if (!files.entries().empty()) {
    if (!writer.Prepare(error)) {
      writer.Undo();
      return false;
    }
    for (const CompanionFiles::Entry& entry : files.entries()) {
      if (!writer.Write(entry.fileName, entry.content, error)) {
        writer.Undo();
        return false;
      }
    }
  }
  // The page comes last, so that a failure before it leaves no page that points at nothing.
  if (!WriteNewFile(pagePath, page, error)) {
    writer.Undo();
    return false;
  }
  return true;
}

}  // namespace mrwl::host
