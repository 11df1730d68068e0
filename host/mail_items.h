// The host's mail store as Outlook's object model: each mail file opened becomes an item object
// that answers QueryInterface with Outlook's published IIDs, so the add-in reads it exactly as it
// reads an item in Outlook.
//
// A message is a _MailItem, a meeting request, cancellation or response a _MeetingItem; a contact
// or a bare calendar file is an item of another kind, which answers only IDispatch (the add-in
// skips it). Items share their MailMessage with their attachments; nothing is written until
// SaveAs or SaveAsFile is called. One thread at a time per item, as in Outlook.
#pragma once

#include <memory>
#include <string>

#include "host/mail_message.h"
#include "platform/com.h"
#include "platform/outlook.h"

namespace mrwl::host {

// The Outlook item over `message`, with one reference that the caller owns: _MailItem,
// _MeetingItem or a plain IDispatch by the message's kind.
[[nodiscard]] IDispatch* MakeMailItem(std::shared_ptr<const MailMessage> message);

// Reads the file at `path` (UTF-8) and makes its item. On failure returns null and a sentence in
// `error`.
[[nodiscard]] IDispatch* OpenMailItem(const std::string& path, std::string* error);

// The MAPI property tags the attachments answer through their PropertyAccessor.
inline constexpr char16_t kContentIdSchema[] =
    u"http://schemas.microsoft.com/mapi/proptag/0x3712001E";
inline constexpr char16_t kAttachFlagsSchema[] =
    u"http://schemas.microsoft.com/mapi/proptag/0x37140003";
inline constexpr LONG kAttachMhtmlRef = 4;

}  // namespace mrwl::host
