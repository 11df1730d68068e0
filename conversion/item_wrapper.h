// The mail conversion subsystem: everything between a click on a conversion command and the start
// of the converter process.
//
// The driver (conversion_driver.h) picks the item or items of the active window, asks for the
// output file, has Outlook write each item as an HTML page into the temporary folder and hands the
// list of jobs (conversion_store.h) to the converter. It never talks to an Outlook item directly:
// an item goes through MakeWrapper, which accepts mails and meeting items, and from then on every
// step reads it through ItemWrapper. For a portfolio the same interface fills a MailRecord, the
// item's metadata in the form in which the converter takes it.
//
// Threading: everything here runs on Outlook's main thread, inside a ribbon callback; only the
// reference count of a MailRecord may be touched from other threads.
#pragma once

#include <memory>
#include <utility>

#include "foundation/wide_string.h"
#include "platform/com.h"
#include "platform/com_ptr.h"
#include "platform/outlook.h"
#include "settings/addin_settings.h"

namespace mrwl {

struct ConversionJob;

// The eleven operations through which the conversion reads an Outlook item, in this slot order.
// Each hands the call on to one Outlook member and gives back its HRESULT; strings come back as
// BSTRs and objects as references that the caller owns.
//
// The class has no virtual destructor, so that its table holds the eleven operations and nothing
// else. A wrapper made by MakeWrapper is destroyed with ItemWrapper::Destroy (UniqueItemWrapper
// does it), which gives back the wrapper's reference to the item.
class ItemWrapper {
 public:
  ItemWrapper(const ItemWrapper&) = delete;
  ItemWrapper& operator=(const ItemWrapper&) = delete;

  virtual HRESULT GetSubject(BSTR* subject) = 0;
  // Writes the item to `path`; `type` is a VT_I4 of OlSaveAsType.
  virtual HRESULT SaveAs(BSTR path, VARIANT type) = 0;
  virtual HRESULT GetAttachments(outlook::Attachments** attachments) = 0;
  virtual HRESULT GetSenderName(BSTR* name) = 0;
  virtual HRESULT GetSenderEmailAddress(BSTR* address) = 0;
  virtual HRESULT GetTo(BSTR* to) = 0;
  virtual HRESULT GetBcc(BSTR* bcc) = 0;
  virtual HRESULT GetCc(BSTR* cc) = 0;
  // An OLE automation date.
  virtual HRESULT GetReceivedTime(DATE* time) = 0;
  virtual HRESULT GetImportance(LONG* importance) = 0;
  virtual HRESULT GetSensitivity(LONG* sensitivity) = 0;

  // Destroys a wrapper made by MakeWrapper and releases its item. Null is ignored.
  // REQUIRES: `wrapper` came from MakeWrapper (no other kind of wrapper is ever owned this way).
  static void Destroy(ItemWrapper* wrapper) noexcept;

 protected:
  ItemWrapper() = default;
  ~ItemWrapper() = default;
};

struct ItemWrapperDeleter {
  void operator()(ItemWrapper* wrapper) const noexcept { ItemWrapper::Destroy(wrapper); }
};
// The owner of a wrapper that MakeWrapper made.
using UniqueItemWrapper = std::unique_ptr<ItemWrapper, ItemWrapperDeleter>;

// The operations that a mail and a meeting item share, handed on to `Item` of interface
// `Outlook`: all but the three recipient lines. MailItemBase and MeetingItemBase are its two forms.
template <typename Outlook>
class ItemBase : public ItemWrapper {
 public:
  HRESULT GetSubject(BSTR* subject) override { return Item->get_Subject(subject); }
  HRESULT SaveAs(BSTR path, VARIANT type) override { return Item->SaveAs(path, type); }
  HRESULT GetAttachments(outlook::Attachments** attachments) override {
    return Item->get_Attachments(attachments);
  }
  HRESULT GetSenderName(BSTR* name) override { return Item->get_SenderName(name); }
  HRESULT GetSenderEmailAddress(BSTR* address) override {
    return Item->get_SenderEmailAddress(address);
  }
  HRESULT GetReceivedTime(DATE* time) override { return Item->get_ReceivedTime(time); }
  HRESULT GetImportance(LONG* importance) override { return Item->get_Importance(importance); }
  HRESULT GetSensitivity(LONG* sensitivity) override { return Item->get_Sensitivity(sensitivity); }

 protected:
  explicit ItemBase(ComPtr<Outlook> item) noexcept : Item(std::move(item)) {}
  ~ItemBase() = default;

  ComPtr<Outlook> Item;
};

// A mail: all operations but the three recipient lines.
using MailItemBase = ItemBase<outlook::_MailItem>;

class MailItemWrapper final : public MailItemBase {
 public:
  explicit MailItemWrapper(ComPtr<outlook::_MailItem> item) noexcept
      : MailItemBase(std::move(item)) {}

  HRESULT GetTo(BSTR* to) override;
  HRESULT GetBcc(BSTR* bcc) override;
  HRESULT GetCc(BSTR* cc) override;
  // The Exchange sender's SMTP address when TryExchangeAddress finds one, otherwise
  // _MailItem.SenderEmailAddress, whose result is returned.
  HRESULT GetSenderEmailAddress(BSTR* address) override;

  // Fills `result` with the primary SMTP address of a sender inside an Exchange organisation
  // ("EX" sender type, compared without regard to case). Answers false at the first step that
  // fails or gives nothing; `result` is then untouched or empty.
  bool TryExchangeAddress(BSTR* result);

 private:
  friend class ItemWrapper;
  ~MailItemWrapper() = default;
};

// A meeting request, cancellation or response: all operations but the three recipient lines.
using MeetingItemBase = ItemBase<outlook::_MeetingItem>;

// A meeting item has no recipient lines of its own: those three answer E_NOTIMPL (0x80004001).
class MeetingItemWrapper final : public MeetingItemBase {
 public:
  explicit MeetingItemWrapper(ComPtr<outlook::_MeetingItem> item) noexcept
      : MeetingItemBase(std::move(item)) {}

  HRESULT GetTo(BSTR* to) override;
  HRESULT GetBcc(BSTR* bcc) override;
  HRESULT GetCc(BSTR* cc) override;

 private:
  friend class ItemWrapper;
  ~MeetingItemWrapper() = default;
};

// A wrapper for `item` of any kind: a MailItemWrapper for an object that answers _MailItem, else a
// MeetingItemWrapper for one that answers _MeetingItem, else null (contacts, appointments, tasks,
// notes, reports; also a null `item`). Gives nothing and says nothing for the others.
[[nodiscard]] UniqueItemWrapper MakeWrapper(IUnknown* item);

// The metadata of one item of a portfolio, in field order as the hand-off carries it. All strings
// are empty at first. Counted: created with one reference, destroyed by the last Release.
struct MailRecord : CountedRecord<MailRecord> {
  // Makes an empty record holding one reference; an empty result when memory runs out.
  [[nodiscard]] static SharedRecord<MailRecord> TryCreate() noexcept;

  WideString FileName;  // the sanitised subject and ".pdf": the item's name in the portfolio
  WideString Reserved1;
  WideString From;
  WideString To;
  WideString Cc;
  WideString Bcc;
  WideString Subject;
  DATE ReceivedTime = 0.0;
  WideString Reserved2;
  WideString Importance;   // decimal
  WideString Sensitivity;  // decimal

 protected:
  friend class CountedRecord<MailRecord>;
  MailRecord() = default;
  virtual ~MailRecord() = default;
};

// Makes a MailRecord from `wrapper` and gives it to `job`. Subject and file name first, then the
// sender ("name<address>" with no blank when both are known), To, Bcc and Cc where their calls
// succeed, the received time, importance and sensitivity. Results of the subject, sender and time
// calls are not looked at. Out of memory leaves the job without a record, and the run goes on.
void FillMailRecord(ConversionJob& job, ItemWrapper& wrapper);

// Whether `attachment` only belongs to the rendering of the body, as a picture inside the HTML
// does: it has a non-empty content id and its attachment flags carry ATT_MHTML_REF (4). A missing
// accessor or property answers false, so the attachment counts as a real one.
[[nodiscard]] bool IsInlineAttachment(outlook::Attachment* attachment);

}  // namespace mrwl
