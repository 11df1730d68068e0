// One mail file read and understood once: what kind of item it is, its header fields as a person
// reads them, the body to show, and every other part as an attachment or a picture of the body.
// The host's Outlook objects (mail_items.h) answer from this, and SaveAs writes its page with
// WriteHtmlPage (html_page.h).
//
// Files are parsed with GMime. A message is never refused for being malformed: what GMime or the
// checks here find wrong (missing boundaries, bad base64, unknown charsets, parts without content)
// is kept as a sentence in `problems`, and the page shows those sentences. Only a file that cannot
// be read at all fails.
//
// A MailMessage is immutable after ReadMailFile and may be read by several threads at once.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/mime_text.h"

typedef struct _GMimeMessage GMimeMessage;
typedef struct _GMimeObject GMimeObject;

namespace mrwl::host {

// What Outlook would make of the file.
enum class ItemKind {
  kMail,         // an Internet message
  kMeeting,      // a message with a text/calendar part whose METHOD is REQUEST, CANCEL or REPLY
  kContact,      // a .vcf file
  kAppointment,  // a bare .ics file
};

// A part of the message other than the body shown: an attachment, or a picture the HTML body
// shows through a cid: reference.
struct MailPart {
  GMimeObject* object = nullptr;  // belongs to the message
  // The name to save it under: the decoded file name (RFC 2231 and RFC 2047 forms), reduced to
  // its last path component, with control characters and the separators / and \ removed. Never
  // empty, ".", or ".."; a part without a usable name gets one from its type ("image001.png",
  // "attachment2.bin", an attached message's subject and ".eml").
  std::string fileName;
  std::string contentId;  // without angle brackets; empty when the part has none
  std::string mimeType;   // lower case, "image/png"
  // The HTML body refers to the part by "cid:" (or by its Content-Location in a
  // multipart/related); such a part is written beside the page and flagged ATT_MHTML_REF.
  bool referencedByBody = false;
};

struct MailMessage {
  MailMessage() = default;
  MailMessage(const MailMessage&) = delete;
  MailMessage& operator=(const MailMessage&) = delete;
  ~MailMessage();

  ItemKind kind = ItemKind::kMail;
  std::string path;  // the file it was read from, UTF-8

  // Header fields, decoded to UTF-8.
  std::string subject;
  std::string senderName;     // From's display name; its address when it has none
  std::string senderAddress;  // From's address
  std::string to;             // DisplayAddressList of To
  std::string cc;
  std::string bcc;
  std::string fromLine;  // From as the header block shows it: "Ann Lee <ann@x.org>"
  // The Date header, else the file's modification time.
  std::int64_t sentUnixSeconds = 0;
  bool hasDateHeader = false;
  int importance = 1;   // 0 low, 1 normal, 2 high: Importance, X-Priority, Priority
  int sensitivity = 0;  // 0 normal, 1 personal, 2 private, 3 company-confidential

  // The parsed message; null for a contact or an appointment, whose text is in `plainBody`.
  GMimeMessage* message = nullptr;  // owned
  // The body shown: the HTML part when there is one (preferred in multipart/alternative), else the
  // text part. Null when the message has no body text at all. With an HTML body, `textBody` is the
  // plain-text alternative beside it, if any.
  GMimeObject* htmlBody = nullptr;
  GMimeObject* textBody = nullptr;
  // The body shown (htmlBody, else textBody) as UTF-8, decoded once when the file is read; what
  // its decoding found wrong is in `problems`.
  std::string bodyText;
  // For contacts and appointments, and for meetings without a text body: a readable summary
  // (name, organisation, addresses; or summary, time, place, organiser, attendees). For a
  // multipart message whose boundary never comes (no parts, no body): the text it holds.
  std::string plainBody;
  std::vector<MailPart> parts;  // in MIME order
  // Sentences for the reader about what could not be read as it should, in the order found.
  std::vector<std::string> problems;
};

// Reads the file at `path` (UTF-8). The kind comes from the name's extension (".vcf" a contact,
// ".ics" an appointment, anything else a message) and, for a message, from its calendar part.
// On failure returns null and puts a sentence naming the file and the cause into `error`: the file
// cannot be opened or read, or it is empty.
[[nodiscard]] std::shared_ptr<const MailMessage> ReadMailFile(const std::string& path,
                                                              std::string* error);

// The decoded content of `part` (transfer encoding undone, bytes as they are in their charset).
// A damaged encoding gives what could be decoded. False only when the content cannot be had.
[[nodiscard]] bool ReadPartContent(const MailPart& part, std::string& content);
// The decoded content of a body part as UTF-8 text, converted from its charset with ToUtf8;
// sentences about a failed conversion go to `problem`.
[[nodiscard]] std::string ReadBodyText(GMimeObject* body, std::string* problem);

// Writes `bytes` to `path` as a new private file (mode 0600), replacing what stands there: an
// existing entry is removed first (a symbolic link itself, never its target), then the file is
// created exclusively and without following links, so nothing planted in a shared temporary
// folder can redirect the write. On failure no file is left and `error` gets a sentence.
[[nodiscard]] bool WriteNewFile(const std::string& path, std::string_view bytes,
                                std::string* error);

}  // namespace mrwl::host
