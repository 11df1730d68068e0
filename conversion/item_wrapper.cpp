#include "conversion/item_wrapper.h"

#include <new>
#include <string_view>
#include <utility>

#include "conversion/conversion_store.h"
#include "conversion/output_naming.h"
#include "foundation/format.h"
#include "platform/com_ptr.h"

namespace mrwl {
namespace {

// The published proptag namespace of the Outlook object model, with the two attachment
// properties that tell a picture of the body from a real attachment: PR_ATTACH_CONTENT_ID as an
// 8-bit string and PR_ATTACH_FLAGS as a 32-bit integer.
constexpr std::u16string_view kContentIdSchemaName =
    u"http://schemas.microsoft.com/mapi/proptag/0x3712001E";
constexpr std::u16string_view kAttachFlagsSchemaName =
    u"http://schemas.microsoft.com/mapi/proptag/0x37140003";
constexpr LONG kAttachMhtmlRef = 4;  // ATT_MHTML_REF

constexpr std::u16string_view kExchangeSenderType = u"EX";

// The text of `bstr`, taken over into a WideString.
void TakeText(BSTR bstr, WideString& out) {
  out = BstrView(bstr);
  ::SysFreeString(bstr);
}

}  // namespace

// --- ItemWrapper ---------------------------------------------------------------------------------

void ItemWrapper::Destroy(ItemWrapper* wrapper) noexcept {
  // The two concrete wrappers are the only ones MakeWrapper makes; their destructors release the
  // item, which an item that was converted would otherwise keep referenced until Outlook ends.
  if (auto* mail = dynamic_cast<MailItemWrapper*>(wrapper)) {
    delete mail;
  } else if (auto* meeting = dynamic_cast<MeetingItemWrapper*>(wrapper)) {
    delete meeting;
  }
}

// --- Mail ----------------------------------------------------------------------------------------

HRESULT MailItemWrapper::GetTo(BSTR* to) { return Item->get_To(to); }
HRESULT MailItemWrapper::GetBcc(BSTR* bcc) { return Item->get_BCC(bcc); }
HRESULT MailItemWrapper::GetCc(BSTR* cc) { return Item->get_CC(cc); }

HRESULT MailItemWrapper::GetSenderEmailAddress(BSTR* address) {
  // Inside an Exchange organisation SenderEmailAddress is the internal X.500 form, which means
  // nothing in a PDF; the SMTP address is what a reader recognises.
  if (TryExchangeAddress(address)) return S_OK;
  return Item->get_SenderEmailAddress(address);
}

bool MailItemWrapper::TryExchangeAddress(BSTR* result) {
  UniqueBstr type;
  if (FAILED(Item->get_SenderEmailType(type.put())) ||
      !EqualsNoCase(BstrView(type.get()), kExchangeSenderType)) {
    return false;
  }
  ComPtr<outlook::AddressEntry> sender;
  if (FAILED(Item->get_Sender(sender.put())) || !sender) return false;
  ComPtr<outlook::ExchangeUser> user;
  if (FAILED(sender->GetExchangeUser(user.put())) || !user) return false;
  return SUCCEEDED(user->get_PrimarySmtpAddress(result));
}

// --- Meeting -------------------------------------------------------------------------------------

HRESULT MeetingItemWrapper::GetTo(BSTR*) { return E_NOTIMPL; }
HRESULT MeetingItemWrapper::GetBcc(BSTR*) { return E_NOTIMPL; }
HRESULT MeetingItemWrapper::GetCc(BSTR*) { return E_NOTIMPL; }

// --- Free functions ------------------------------------------------------------------------------

UniqueItemWrapper MakeWrapper(IUnknown* item) {
  if (item == nullptr) return nullptr;
  ComPtr<outlook::_MailItem> mail;
  if (SUCCEEDED(item->QueryInterface(outlook::IID__MailItem, mail.put_void())) && mail) {
    return UniqueItemWrapper(new MailItemWrapper(std::move(mail)));
  }
  ComPtr<outlook::_MeetingItem> meeting;
  if (SUCCEEDED(item->QueryInterface(outlook::IID__MeetingItem, meeting.put_void())) && meeting) {
    return UniqueItemWrapper(new MeetingItemWrapper(std::move(meeting)));
  }
  return nullptr;
}

SharedRecord<MailRecord> MailRecord::TryCreate() noexcept {
  return SharedRecord<MailRecord>::Adopt(new (std::nothrow) MailRecord());
}

void FillMailRecord(ConversionJob& job, ItemWrapper& wrapper) {
  job.Record = MailRecord::TryCreate();
  if (!job.Record) return;
  MailRecord& record = *job.Record;

  BSTR text = nullptr;
  (void)wrapper.GetSubject(&text);  // a failure leaves the subject empty
  TakeText(text, record.Subject);
  SanitizeFileName(record.Subject.c_str(), record.Subject.Length(), record.FileName);
  record.FileName.Append(u".pdf");

  BSTR name = nullptr;
  BSTR address = nullptr;
  (void)wrapper.GetSenderName(&name);
  (void)wrapper.GetSenderEmailAddress(&address);
  const UniqueBstr nameOwner(name);
  const UniqueBstr addressOwner(address);
  const WideString nameText(BstrView(name));
  const WideString addressText(BstrView(address));
  if (!nameText.IsEmpty() && !addressText.IsEmpty()) {
    record.From = FormatText(u"%ls<%ls>", nameText.c_str(), addressText.c_str());
  } else if (!nameText.IsEmpty()) {
    record.From = FormatText(u"%ls", nameText.c_str());
  } else if (!addressText.IsEmpty()) {
    record.From = FormatText(u"%ls", addressText.c_str());
  }

  // A meeting item fails all three, which leaves the fields empty.
  text = nullptr;
  if (SUCCEEDED(wrapper.GetTo(&text))) TakeText(text, record.To);
  text = nullptr;
  if (SUCCEEDED(wrapper.GetBcc(&text))) TakeText(text, record.Bcc);
  text = nullptr;
  if (SUCCEEDED(wrapper.GetCc(&text))) TakeText(text, record.Cc);

  (void)wrapper.GetReceivedTime(&record.ReceivedTime);

  LONG number = 0;
  if (SUCCEEDED(wrapper.GetImportance(&number))) {
    record.Importance = FormatText(u"%d", static_cast<int>(number));
  }
  number = 0;
  if (SUCCEEDED(wrapper.GetSensitivity(&number))) {
    record.Sensitivity = FormatText(u"%d", static_cast<int>(number));
  }
}

bool IsInlineAttachment(outlook::Attachment* attachment) {
  if (attachment == nullptr) return false;
  ComPtr<outlook::PropertyAccessor> accessor;
  if (FAILED(attachment->get_PropertyAccessor(accessor.put())) || !accessor) return false;

  // A content id alone doesn't make an attachment inline: mail programs give ids to real
  // attachments too; only the MHTML reference flag says the body refers to it.
  UniqueBstr name = MakeBstr(kContentIdSchemaName);
  UniqueVariant value;
  if (FAILED(accessor->GetProperty(name.get(), value.put())) || value.vt() != VT_BSTR ||
      BstrView(V_BSTR(value.get())).empty()) {
    return false;
  }
  name = MakeBstr(kAttachFlagsSchemaName);
  if (FAILED(accessor->GetProperty(name.get(), value.put())) || value.vt() != VT_I4) {
    return false;
  }
  return (V_I4(value.get()) & kAttachMhtmlRef) != 0;
}

}  // namespace mrwl
