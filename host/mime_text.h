// Text of Internet mail as a person reads it: header fields with their encoded words decoded,
// bodies in any charset turned into UTF-8, address lists shown as names, dates as OLE automation
// dates, plain text turned into HTML that keeps its lines and links.
//
// Everything here is a pure function over UTF-8 (or raw 8-bit) std::string text: no files, no
// GMime objects, no state. Charsets are converted with the C library's iconv through GLib, with
// the usual aliases of mail ("latin1", "cp1252", "x-mac-roman", "utf8", "ks_c_5601-1987", ...).
// Any thread may call these functions.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mrwl::host {

// Converts `bytes` in `charset` to UTF-8. An empty charset, "us-ascii" and "utf-8" are taken as
// UTF-8, and ISO-8859-1 as windows-1252 (as browsers read it). Bytes that are not valid in the
// charset become U+FFFD; the result is always valid UTF-8.
// When the charset is unknown to the system, the bytes are read as UTF-8 where they are valid and
// as windows-1252 where they are not, and `problem` (when given) receives a sentence for the
// reader, such as "The character set \"x-foo\" is unknown; the text is shown as UTF-8.". A
// charset that converted with replacements also leaves a sentence there; `problem` is left
// untouched when the conversion was exact.
[[nodiscard]] std::string ToUtf8(std::string_view bytes, std::string_view charset,
                                 std::string* problem = nullptr);

// Whether `text` is well-formed UTF-8 (no overlong forms, no surrogates, nothing above U+10FFFF).
[[nodiscard]] bool IsValidUtf8(std::string_view text) noexcept;

// The readable text of an unstructured header field (Subject, Content-Description, a display
// name): folding undone, RFC 2047 encoded words ("=?charset?B|Q?...?=", also with a language
// "*lang" part) decoded, the blanks between adjacent encoded words dropped, and adjacent encoded
// words of one charset joined as bytes before conversion so that a character split across two
// words comes out whole. Raw 8-bit text outside encoded words is taken as UTF-8 where valid, else
// as windows-1252. A malformed encoded word stays as it stands. The result matches what Python's
// `email` package shows for str(make_header(decode_header(value))), up to its whitespace rules.
[[nodiscard]] std::string DecodeHeaderText(std::string_view raw);

// One mailbox of an address field: display name (decoded, without quotes) and address
// ("local@domain", as written; empty for a group name or an unparsable entry).
struct Mailbox {
  std::string name;
  std::string address;
};

// The mailboxes of an address field (From, To, Cc, Bcc, Reply-To) in order: RFC 5322 name-addr
// and bare address forms, quoted strings, comments (a comment stands in as the name when there is no
// other, as in "ann@x.org (Ann Lee)"), groups (their members are listed, the group's name not;
// a group without members, as "undisclosed-recipients:;", stands as its name without an
// address), obsolete routes, encoded words in names. Never fails: what cannot be parsed becomes a
// mailbox with the text as its name.
[[nodiscard]] std::vector<Mailbox> ParseAddressList(std::string_view raw);

// An address field as Outlook shows it in To, CC and BCC: each mailbox by its name, or by its
// address when it has no name, joined by "; ".
[[nodiscard]] std::string DisplayAddressList(std::string_view raw);

// A point in time from a Date header: the UTC seconds since 1970 and the offset the sender wrote.
struct MailDate {
  std::int64_t unixSeconds = 0;
  int offsetMinutes = 0;
};

// Parses an RFC 5322 date ("Mon, 23 Nov 2026 16:46:44 +0100"), also its obsolete forms: no day
// name, two-digit and three-digit years, zone names (UT, GMT, EST, EDT, CST, CDT, MST, MDT, PST,
// PDT, military letters as +0000), missing seconds, comments, extra blanks. Empty when the text
// holds no date.
[[nodiscard]] std::optional<MailDate> ParseMailDate(std::string_view raw);

// The OLE automation date of `unixSeconds` in the local time zone of this process (TZ): days since
// 30 December 1899 00:00, the time of day as the fraction.
[[nodiscard]] double ToOleDate(std::int64_t unixSeconds);

// The date as Outlook's header block shows it, in local time: "Monday, November 23, 2026 4:46 PM".
[[nodiscard]] std::string FormatSentDate(std::int64_t unixSeconds);

// ASCII case folding for the protocol words of mail and HTML (header names, tags, charsets).
[[nodiscard]] char AsciiLower(char c) noexcept;
[[nodiscard]] std::string AsciiLower(std::string_view text);
[[nodiscard]] bool EqualsIgnoringCase(std::string_view a, std::string_view b) noexcept;
[[nodiscard]] bool StartsWithIgnoringCase(std::string_view text, std::string_view prefix) noexcept;

// `text` with &, <, >, " and ' escaped for HTML text and attribute values.
[[nodiscard]] std::string EscapeHtml(std::string_view text);

// A plain-text body as an HTML fragment that looks like the text: escaped, each line kept (CR LF,
// LF and lone CR all end a line), runs of blanks and tabs kept, long lines wrapping at the page
// edge, and http, https, ftp, mailto and www. links made clickable (a closing parenthesis, point
// or comma at the end stays outside the link, as do ; : ! ? and ', but a parenthesis that the
// link itself opened stays in). With `flowed` the text is format=flowed (RFC
// 3676): space-stuffing is undone and soft line breaks are joined, with `deleteSpace` (DelSp=yes)
// the blank before a soft break goes as well. The fragment is one <div> element.
[[nodiscard]] std::string TextToHtml(std::string_view text, bool flowed = false,
                                     bool deleteSpace = false);

// An HTML document of a mail, made ready to be stored as UTF-8: every charset declaration it holds
// (<meta charset=...>, <meta http-equiv="Content-Type" content="...; charset=...">, in any case
// and quoting) is removed, and <meta charset="utf-8"> is put first into its <head>, which is made
// when the document has none (inside <html> when there is one, else at the start, behind a byte
// order mark and a doctype). Markup inside comments, <script>, <style> and <title> is not
// touched. The rest of the document is left byte for byte as it stands.
[[nodiscard]] std::string DeclareUtf8(std::string_view html);

}  // namespace mrwl::host
