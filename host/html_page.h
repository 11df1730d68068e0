// The page SaveAs writes for a mail: one complete UTF-8 HTML document with the header block
// Outlook puts on top of an exported mail (From, Sent, To, Cc, Subject, Attachments), then the
// body, and the body's pictures in the companion folder beside it.
//
// The body is the HTML part when the mail has one, with its own charset declaration replaced by
// UTF-8 and every cid: reference (and Content-Location reference of a multipart/related) turned
// into a relative link into the companion folder; else the text part as HTML that keeps its lines
// and links. Remote resources stay as they are: nothing is fetched. Problems the reader should
// know of (MailMessage::problems) stand in a note between the header block and the body.
// Nothing of the mail runs where the page is rendered: script elements, on* event attributes,
// srcdoc and script URLs are taken out. Two pictures of one name are told apart by a number
// ("image.png", "image (2).png").
#pragma once

#include <string>

#include "host/mail_message.h"

namespace mrwl::host {

// The companion folder of a page: its path with a final ".html" (or ".htm") replaced by "_files";
// a path without that extension gets "_files" added.
[[nodiscard]] std::string CompanionFolderOf(const std::string& pagePath);

// Writes the page of `message` to `pagePath` (UTF-8 path) and the parts it references into the
// companion folder, which is made (mode 0700) only when there is something to put there. Every
// file is written with WriteNewFile. A companion folder that exists already is used when it is a
// real folder; a symbolic link in its place is refused. On failure returns false with a sentence
// in `error`, and removes what it wrote.
[[nodiscard]] bool WriteHtmlPage(const MailMessage& message, const std::string& pagePath,
                                 std::string* error);

}  // namespace mrwl::host
