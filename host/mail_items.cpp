// The Outlook items of the host's mail store: a mail, a meeting item and an item of another kind,
// each over one MailMessage, with the attachments and their property accessors.

#include "host/mail_items.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/html_page.h"
#include "platform/com_object.h"
#include "platform/com_ptr.h"
#include "platform/utf.h"

namespace mrwl::host {
namespace {

using Message = std::shared_ptr<const MailMessage>;

HRESULT PutText(std::string_view text, BSTR* out) {
  if (out == nullptr) return E_POINTER;
  *out = nullptr;
  const std::u16string wide = platform::Utf8ToUtf16(text);
  *out = SysAllocStringLen(OleText(wide.c_str()), static_cast<UINT>(wide.size()));
  return *out == nullptr && !wide.empty() ? E_OUTOFMEMORY : S_OK;
}

template <typename T>
HRESULT PutNumber(T value, T* out) {
  if (out == nullptr) return E_POINTER;
  *out = value;
  return S_OK;
}

std::string PathOf(BSTR path) { return platform::Utf16ToUtf8(BstrView(path)); }

// A file the caller asked for by a path that cannot be written gives the error Outlook gives for
// a folder it cannot reach.
constexpr HRESULT kCannotWrite = static_cast<HRESULT>(0x80070005u);  // E_ACCESSDENIED

// The MAPI properties of one attachment, by schema name.
class PartProperties final : public ComObject<outlook::PropertyAccessor> {
 public:
  PartProperties(Message message, std::size_t index)
      : message_(std::move(message)), index_(index) {}

  HRESULT STDMETHODCALLTYPE GetProperty(BSTR schemaName, VARIANT* value) override {
    if (value == nullptr) return E_POINTER;
    VariantInit(value);
    const MailPart& part = message_->parts[index_];
    const std::u16string_view name = BstrView(schemaName);
    if (name == kContentIdSchema) {
      // An attachment without a content id does not have the property at all.
      if (part.contentId.empty()) return kPropertyNotFound;
      value->vt = VT_BSTR;
      return PutText(part.contentId, &value->bstrVal);
    }
    if (name == kAttachFlagsSchema) {
      value->vt = VT_I4;
      value->lVal = part.referencedByBody ? kAttachMhtmlRef : 0;
      return S_OK;
    }
    return kPropertyNotFound;
  }

 private:
  // MAPI_E_NOT_FOUND, as Outlook reports a property the object lacks.
  static constexpr HRESULT kPropertyNotFound = static_cast<HRESULT>(0x8004010Fu);
  Message message_;
  std::size_t index_;
};

class PartAttachment final : public ComObject<outlook::Attachment> {
 public:
  PartAttachment(Message message, std::size_t index)
      : message_(std::move(message)), index_(index) {}

  HRESULT STDMETHODCALLTYPE get_FileName(BSTR* name) override {
    return PutText(message_->parts[index_].fileName, name);
  }
  HRESULT STDMETHODCALLTYPE get_PropertyAccessor(outlook::PropertyAccessor** accessor) override {
    if (accessor == nullptr) return E_POINTER;
    *accessor = MakeComObject<PartProperties>(message_, index_).Detach();
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE SaveAsFile(BSTR path) override {
    if (path == nullptr || SysStringLen(path) == 0) return E_INVALIDARG;
    std::string content;
    if (!ReadPartContent(message_->parts[index_], content)) return E_FAIL;
    std::string error;
    return WriteNewFile(PathOf(path), content, &error) ? S_OK : kCannotWrite;
  }

 private:
  Message message_;
  std::size_t index_;
};

class PartAttachments final : public ComObject<outlook::Attachments> {
 public:
  explicit PartAttachments(Message message) : message_(std::move(message)) {}

  HRESULT STDMETHODCALLTYPE get_Count(LONG* count) override {
    return PutNumber(static_cast<LONG>(message_->parts.size()), count);
  }
  HRESULT STDMETHODCALLTYPE Item(VARIANT index, outlook::Attachment** attachment) override {
    if (attachment == nullptr) return E_POINTER;
    *attachment = nullptr;
    if (index.vt != VT_I4) return DISP_E_TYPEMISMATCH;
    if (index.lVal < 1 || static_cast<std::size_t>(index.lVal) > message_->parts.size()) {
      return DISP_E_BADINDEX;
    }
    *attachment =
        MakeComObject<PartAttachment>(message_, static_cast<std::size_t>(index.lVal) - 1).Detach();
    return S_OK;
  }

 private:
  Message message_;
};

// The members a mail and a meeting item share; `Interface` is _MailItem or _MeetingItem.
template <typename Interface>
class ItemBase : public ComObject<Interface> {
 public:
  explicit ItemBase(Message message) : message_(std::move(message)) {}

  HRESULT STDMETHODCALLTYPE get_Attachments(outlook::Attachments** attachments) override {
    if (attachments == nullptr) return E_POINTER;
    *attachments = MakeComObject<PartAttachments>(message_).Detach();
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE get_Importance(LONG* importance) override {
    return PutNumber(static_cast<LONG>(message_->importance), importance);
  }
  HRESULT STDMETHODCALLTYPE get_ReceivedTime(DATE* time) override {
    return PutNumber(ToOleDate(message_->sentUnixSeconds), time);
  }
  HRESULT STDMETHODCALLTYPE get_Sensitivity(LONG* sensitivity) override {
    return PutNumber(static_cast<LONG>(message_->sensitivity), sensitivity);
  }
  HRESULT STDMETHODCALLTYPE get_Subject(BSTR* subject) override {
    return PutText(message_->subject, subject);
  }
  HRESULT STDMETHODCALLTYPE SaveAs(BSTR path, VARIANT type) override {
    if (path == nullptr || SysStringLen(path) == 0) return E_INVALIDARG;
    // The page is the one form this store writes.
    if (type.vt != VT_I4 || type.lVal != outlook::olHTML) return E_INVALIDARG;
    std::string error;
    return WriteHtmlPage(*message_, PathOf(path), &error) ? S_OK : kCannotWrite;
  }
  HRESULT STDMETHODCALLTYPE get_SenderName(BSTR* name) override {
    return PutText(message_->senderName, name);
  }
  HRESULT STDMETHODCALLTYPE get_SenderEmailAddress(BSTR* address) override {
    return PutText(message_->senderAddress, address);
  }

 protected:
  Message message_;
};

class MailItem final : public ItemBase<outlook::_MailItem> {
 public:
  using ItemBase::ItemBase;

  // Every sender of a mail file is an Internet address: there is no Exchange directory here.
  HRESULT STDMETHODCALLTYPE get_SenderEmailType(BSTR* type) override {
    return PutText("SMTP", type);
  }
  HRESULT STDMETHODCALLTYPE get_Sender(outlook::AddressEntry** sender) override {
    if (sender == nullptr) return E_POINTER;
    *sender = nullptr;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE get_To(BSTR* to) override { return PutText(message_->to, to); }
  HRESULT STDMETHODCALLTYPE get_CC(BSTR* cc) override { return PutText(message_->cc, cc); }
  HRESULT STDMETHODCALLTYPE get_BCC(BSTR* bcc) override { return PutText(message_->bcc, bcc); }
};

using MeetingItem = ItemBase<outlook::_MeetingItem>;

// A contact or an appointment: Outlook's items of other kinds answer neither _MailItem nor
// _MeetingItem, and the add-in passes them by.
class OtherItem final : public ComObject<IDispatch> {
 public:
  explicit OtherItem(Message message) : message_(std::move(message)) {}

 private:
  Message message_;
};

}  // namespace

IDispatch* MakeMailItem(std::shared_ptr<const MailMessage> message) {
  if (message == nullptr) return nullptr;
  try {
    switch (message->kind) {
      case ItemKind::kMail:
        return MakeComObject<MailItem>(std::move(message)).Detach();
      case ItemKind::kMeeting:
        return MakeComObject<MeetingItem>(std::move(message)).Detach();
      case ItemKind::kContact:
      case ItemKind::kAppointment:
        return MakeComObject<OtherItem>(std::move(message)).Detach();
    }
  } catch (...) {
  }
  return nullptr;
}

IDispatch* OpenMailItem(const std::string& path, std::string* error) {
  std::shared_ptr<const MailMessage> message = ReadMailFile(path, error);
  if (message == nullptr) return nullptr;
  IDispatch* item = MakeMailItem(std::move(message));
  if (item == nullptr && error != nullptr) *error = "Out of memory reading " + path + ".";
  return item;
}

}  // namespace mrwl::host
