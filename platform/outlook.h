// The narrow Outlook object model: the interfaces, and of them only the members, through which the
// add-in reads windows, selections, mail items, attachments and the current user.
//
// Each interface answers QueryInterface with Outlook's published IID, so code that asks an object
// for `_MailItem` works alike against Outlook and against the stand-ins of this system. Members
// carry the names of Outlook's type library: a property P is read with get_P, a method keeps its
// name. Every member returns an HRESULT; strings come back as BSTRs that the caller owns and
// objects with one reference that the caller owns. On Windows adapters over Outlook's own objects
// implement these; on Linux the host's mail store does.
//
// The four event interfaces are dispatch-only: a sink implements IDispatch and receives the
// events by dispid through Invoke. The objects that raise them answer IConnectionPointContainer.
#pragma once

#include "platform/com.h"
#include "platform/com_object.h"

namespace mrwl::outlook {

struct _Application;
struct _Explorers;
struct _Explorer;
struct _Inspectors;
struct _Inspector;
struct Selection;
struct _MailItem;
struct _MeetingItem;
struct Attachments;
struct Attachment;
struct PropertyAccessor;
struct MAPIFolder;
struct _NameSpace;
struct Recipient;
struct AddressEntry;
struct ExchangeUser;

// OlSaveAsType: the value of SaveAs that writes an HTML page.
inline constexpr LONG olHTML = 5;

// The published IIDs.
inline constexpr IID IID__Application = {
    0x00063001, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID__Explorers = {
    0x0006300A, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID__Explorer = {
    0x00063003, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID__Inspectors = {
    0x00063008, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID__Inspector = {
    0x00063005, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID_Selection = {
    0x00063087, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID__MailItem = {
    0x00063034, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID__MeetingItem = {
    0x00063062, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID_Attachments = {
    0x0006303C, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID_Attachment = {
    0x00063007, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID__PropertyAccessor = {
    0x0006302D, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID_MAPIFolder = {
    0x00063006, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID__NameSpace = {
    0x00063002, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID_Recipient = {
    0x00063045, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID_AddressEntry = {
    0x0006304B, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID__ExchangeUser = {
    0x0006302F, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};

// The event interfaces, with the dispids of the events the add-in handles.
inline constexpr IID IID_ExplorersEvents = {
    0x00063078, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID_InspectorsEvents = {
    0x00063079, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID_ExplorerEvents_10 = {
    0x0006300F, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID_InspectorEvents_10 = {
    0x0006307D, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};

inline constexpr DISPID DISPID_NewExplorer = 0xF001;     // ExplorersEvents.NewExplorer(IDispatch*)
inline constexpr DISPID DISPID_NewInspector = 0xF001;    // InspectorsEvents.NewInspector(IDispatch*)
inline constexpr DISPID DISPID_FolderSwitch = 0xF002;    // ExplorerEvents_10.FolderSwitch()
inline constexpr DISPID DISPID_SelectionChange = 0xF007; // ExplorerEvents_10.SelectionChange()
inline constexpr DISPID DISPID_Close = 0xF008;           // ExplorerEvents_10 and InspectorEvents_10

// Outlook's main window and its collection.
struct _Explorer : IDispatch {
  virtual HRESULT STDMETHODCALLTYPE get_CurrentFolder(MAPIFolder** folder) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Selection(Selection** selection) = 0;

 protected:
  ~_Explorer() = default;
};

struct _Explorers : IDispatch {
  virtual HRESULT STDMETHODCALLTYPE get_Count(LONG* count) = 0;
  // `index` is a VT_I4 from 1 up.
  virtual HRESULT STDMETHODCALLTYPE Item(VARIANT index, _Explorer** explorer) = 0;

 protected:
  ~_Explorers() = default;
};

// The window of an opened item and its collection.
struct _Inspector : IDispatch {
  virtual HRESULT STDMETHODCALLTYPE get_CurrentItem(IDispatch** item) = 0;

 protected:
  ~_Inspector() = default;
};

struct _Inspectors : IDispatch {
  virtual HRESULT STDMETHODCALLTYPE get_Count(LONG* count) = 0;
  // `index` is a VT_I4 from 1 up.
  virtual HRESULT STDMETHODCALLTYPE Item(VARIANT index, _Inspector** inspector) = 0;

 protected:
  ~_Inspectors() = default;
};

// The items selected in an explorer, of any kind.
struct Selection : IDispatch {
  virtual HRESULT STDMETHODCALLTYPE get_Count(LONG* count) = 0;
  // `index` is a VT_I4 from 1 up.
  virtual HRESULT STDMETHODCALLTYPE Item(VARIANT index, IDispatch** item) = 0;

 protected:
  ~Selection() = default;
};

struct _Application : IDispatch {
  virtual HRESULT STDMETHODCALLTYPE get_Version(BSTR* version) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Explorers(_Explorers** explorers) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Inspectors(_Inspectors** inspectors) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Session(_NameSpace** session) = 0;
  // The window that has the focus: an explorer, an inspector or another of Outlook's windows.
  virtual HRESULT STDMETHODCALLTYPE ActiveWindow(IDispatch** window) = 0;
  // The topmost explorer or inspector; null, with S_OK, when there is none.
  virtual HRESULT STDMETHODCALLTYPE ActiveExplorer(_Explorer** explorer) = 0;
  virtual HRESULT STDMETHODCALLTYPE ActiveInspector(_Inspector** inspector) = 0;

 protected:
  ~_Application() = default;
};

struct MAPIFolder : IDispatch {
  virtual HRESULT STDMETHODCALLTYPE get_Name(BSTR* name) = 0;

 protected:
  ~MAPIFolder() = default;
};

struct ExchangeUser : IDispatch {
  virtual HRESULT STDMETHODCALLTYPE get_PrimarySmtpAddress(BSTR* address) = 0;

 protected:
  ~ExchangeUser() = default;
};

struct AddressEntry : IDispatch {
  // The Exchange user behind the entry; null, with S_OK, for an entry outside Exchange.
  virtual HRESULT STDMETHODCALLTYPE GetExchangeUser(ExchangeUser** user) = 0;

 protected:
  ~AddressEntry() = default;
};

struct Recipient : IDispatch {
  virtual HRESULT STDMETHODCALLTYPE get_Address(BSTR* address) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_AddressEntry(AddressEntry** entry) = 0;

 protected:
  ~Recipient() = default;
};

struct _NameSpace : IDispatch {
  virtual HRESULT STDMETHODCALLTYPE get_CurrentUser(Recipient** user) = 0;

 protected:
  ~_NameSpace() = default;
};

struct PropertyAccessor : IDispatch {
  // A MAPI property by its schema name
  // ("http://schemas.microsoft.com/mapi/proptag/0xTTTTTTTT"). Fails for a property the object
  // does not have.
  virtual HRESULT STDMETHODCALLTYPE GetProperty(BSTR schemaName, VARIANT* value) = 0;

 protected:
  ~PropertyAccessor() = default;
};

struct Attachment : IDispatch {
  virtual HRESULT STDMETHODCALLTYPE get_FileName(BSTR* name) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_PropertyAccessor(PropertyAccessor** accessor) = 0;
  // Writes the attachment's content to the file `path`, replacing it.
  virtual HRESULT STDMETHODCALLTYPE SaveAsFile(BSTR path) = 0;

 protected:
  ~Attachment() = default;
};

struct Attachments : IDispatch {
  virtual HRESULT STDMETHODCALLTYPE get_Count(LONG* count) = 0;
  // `index` is a VT_I4 from 1 up.
  virtual HRESULT STDMETHODCALLTYPE Item(VARIANT index, Attachment** attachment) = 0;

 protected:
  ~Attachments() = default;
};

// A mail. Importance is 0 low, 1 normal, 2 high; Sensitivity 0 normal, 1 personal, 2 private,
// 3 confidential. ReceivedTime is an OLE automation date in local time.
struct _MailItem : IDispatch {
  virtual HRESULT STDMETHODCALLTYPE get_Attachments(Attachments** attachments) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Importance(LONG* importance) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_ReceivedTime(DATE* time) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Sensitivity(LONG* sensitivity) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Subject(BSTR* subject) = 0;
  // Writes the item to `path`; `type` is a VT_I4 of OlSaveAsType (olHTML for a page).
  virtual HRESULT STDMETHODCALLTYPE SaveAs(BSTR path, VARIANT type) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_SenderName(BSTR* name) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_SenderEmailAddress(BSTR* address) = 0;
  // "SMTP" for an Internet address, "EX" for one inside an Exchange organisation.
  virtual HRESULT STDMETHODCALLTYPE get_SenderEmailType(BSTR* type) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Sender(AddressEntry** sender) = 0;
  // The display names of the recipients, joined by "; ".
  virtual HRESULT STDMETHODCALLTYPE get_To(BSTR* to) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_CC(BSTR* cc) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_BCC(BSTR* bcc) = 0;

 protected:
  ~_MailItem() = default;
};

// A meeting request, cancellation or response. It has no recipient lines of its own here.
struct _MeetingItem : IDispatch {
  virtual HRESULT STDMETHODCALLTYPE get_Attachments(Attachments** attachments) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Importance(LONG* importance) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_ReceivedTime(DATE* time) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Sensitivity(LONG* sensitivity) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Subject(BSTR* subject) = 0;
  virtual HRESULT STDMETHODCALLTYPE SaveAs(BSTR path, VARIANT type) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_SenderName(BSTR* name) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_SenderEmailAddress(BSTR* address) = 0;

 protected:
  ~_MeetingItem() = default;
};

}  // namespace mrwl::outlook

MRWL_INTERFACE_ID(mrwl::outlook::_Application, mrwl::outlook::IID__Application);
MRWL_INTERFACE_ID(mrwl::outlook::_Explorers, mrwl::outlook::IID__Explorers);
MRWL_INTERFACE_ID(mrwl::outlook::_Explorer, mrwl::outlook::IID__Explorer);
MRWL_INTERFACE_ID(mrwl::outlook::_Inspectors, mrwl::outlook::IID__Inspectors);
MRWL_INTERFACE_ID(mrwl::outlook::_Inspector, mrwl::outlook::IID__Inspector);
MRWL_INTERFACE_ID(mrwl::outlook::Selection, mrwl::outlook::IID_Selection);
MRWL_INTERFACE_ID(mrwl::outlook::_MailItem, mrwl::outlook::IID__MailItem);
MRWL_INTERFACE_ID(mrwl::outlook::_MeetingItem, mrwl::outlook::IID__MeetingItem);
MRWL_INTERFACE_ID(mrwl::outlook::Attachments, mrwl::outlook::IID_Attachments);
MRWL_INTERFACE_ID(mrwl::outlook::Attachment, mrwl::outlook::IID_Attachment);
MRWL_INTERFACE_ID(mrwl::outlook::PropertyAccessor, mrwl::outlook::IID__PropertyAccessor);
MRWL_INTERFACE_ID(mrwl::outlook::MAPIFolder, mrwl::outlook::IID_MAPIFolder);
MRWL_INTERFACE_ID(mrwl::outlook::_NameSpace, mrwl::outlook::IID__NameSpace);
MRWL_INTERFACE_ID(mrwl::outlook::Recipient, mrwl::outlook::IID_Recipient);
MRWL_INTERFACE_ID(mrwl::outlook::AddressEntry, mrwl::outlook::IID_AddressEntry);
MRWL_INTERFACE_ID(mrwl::outlook::ExchangeUser, mrwl::outlook::IID__ExchangeUser);
