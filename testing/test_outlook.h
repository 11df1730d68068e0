// An Outlook inside the test process: objects for every interface of platform/outlook.h and the
// ribbon interfaces of platform/office.h, with public fields that a test sets up, real connection
// points that deliver events through the sinks' IDispatch::Invoke, items that write real files,
// and faults that a test injects by member name.
//
// Every member call goes through OutlookFaults, which logs it as "Object.Member" (for example
// "Application.ActiveWindow", "MailItem.SaveAs", "Explorers.ConnectionPoint.Advise") and answers
// with a failure or raises a ComError when the test asked for one. Getters of objects hand out
// what the field holds, null included, with S_OK. For tests only; one thread.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/com.h"
#include "platform/com_object.h"
#include "platform/com_ptr.h"
#include "platform/connection_point.h"
#include "platform/office.h"
#include "platform/outlook.h"

namespace mrwl::testing {

// The process-wide log of calls and the faults to inject. Reset() between tests.
class OutlookFaults {
 public:
  static OutlookFaults& Get();

  // Forgets the log and every fault.
  void Reset();
  // From call number `after` + 1 of `member` on, the call answers `result` without doing
  // anything; `times` calls do so (-1: all).
  void Fail(std::string_view member, HRESULT result, int after = 0, int times = -1);
  // As Fail, but the call raises ComError(result) instead of answering.
  void Throw(std::string_view member, HRESULT result, int after = 0, int times = -1);

  // Called first by every member: logs the call, then answers S_OK, or the failure, or throws.
  HRESULT Enter(std::string_view member);

  [[nodiscard]] const std::vector<std::string>& Calls() const noexcept { return calls_; }
  [[nodiscard]] int CountOf(std::string_view member) const;
  // The position of the first call of `member` in the log, or -1.
  [[nodiscard]] int IndexOf(std::string_view member) const;

 private:
  struct Fault {
    HRESULT result;
    bool raise;
    int after;
    int times;
  };
  std::vector<std::string> calls_;
  std::map<std::string, Fault, std::less<>> faults_;
  std::map<std::string, int, std::less<>> counts_;
};

// Answers a member call: logs it and injects the fault asked for, else hands out `value` (a
// text as a new BSTR, an object with a new reference, null included, a number as it is).
HRESULT PutAnswer(const std::u16string& value, BSTR* out);
HRESULT PutAnswer(LONG value, LONG* out);
HRESULT PutAnswer(DATE value, DATE* out);
template <typename T, typename U>
HRESULT PutAnswer(const ComPtr<U>& object, T** out) {
  if (out == nullptr) return E_POINTER;
  *out = object.get();
  if (*out != nullptr) (*out)->AddRef();
  return S_OK;
}
template <typename Value, typename Out>
HRESULT Answer(std::string_view member, const Value& value, Out* out) {
  if (const HRESULT entered = OutlookFaults::Get().Enter(member); FAILED(entered)) return entered;
  return PutAnswer(value, out);
}
// Answers Item(index) of a collection: the 1-based VT_I4 index, as Outlook takes it.
template <typename Items, typename Out>
HRESULT AnswerItem(std::string_view member, const Items& items, const VARIANT& index, Out** out) {
  if (const HRESULT entered = OutlookFaults::Get().Enter(member); FAILED(entered)) return entered;
  if (out == nullptr) return E_POINTER;
  if (index.vt != VT_I4) return DISP_E_TYPEMISMATCH;
  if (index.lVal < 1 || static_cast<std::size_t>(index.lVal) > items.size()) {
    return DISP_E_BADINDEX;
  }
  return PutAnswer(items[static_cast<std::size_t>(index.lVal) - 1], out);
}

// --- Events ----------------------------------------------------------------------------------

// One outgoing interface whose Advise and Unadvise go through the faults, as
// "Owner.ConnectionPoint.Advise" and "Owner.ConnectionPoint.Unadvise".
class TestConnectionPoint : public ConnectionPoint {
 public:
  TestConnectionPoint(std::string owner, const IID& events)
      : ConnectionPoint(events), owner_(std::move(owner)) {}

 protected:
  HRESULT Enter(std::string_view member) override {
    return OutlookFaults::Get().Enter(owner_ + ".ConnectionPoint." + std::string(member));
  }

 private:
  std::string owner_;
};

// An object of interface `Interface` that raises events through one connection point; finding
// it goes through the faults as "Owner.FindConnectionPoint".
template <typename Interface>
class WithEvents : public EventSource<Interface, TestConnectionPoint> {
 public:
  [[nodiscard]] TestConnectionPoint& Point() const noexcept { return this->Events(); }

 protected:
  WithEvents(std::string owner, const IID& events)
      : EventSource<Interface, TestConnectionPoint>(
            MakeComObject<TestConnectionPoint>(owner, events)),
        owner_(std::move(owner)) {}

  HRESULT EnterFind() override {
    return OutlookFaults::Get().Enter(owner_ + ".FindConnectionPoint");
  }

  std::string owner_;
};

// --- Windows ---------------------------------------------------------------------------------

class TestExplorer : public WithEvents<outlook::_Explorer> {
 public:
  TestExplorer() : WithEvents("Explorer", outlook::IID_ExplorerEvents_10) {}
  HRESULT STDMETHODCALLTYPE get_CurrentFolder(outlook::MAPIFolder** out) override {
    return Answer("Explorer.CurrentFolder", currentFolder, out);
  }
  HRESULT STDMETHODCALLTYPE get_Selection(outlook::Selection** out) override {
    return Answer("Explorer.Selection", selection, out);
  }

  ComPtr<outlook::MAPIFolder> currentFolder;
  ComPtr<outlook::Selection> selection;
};

class TestInspector : public WithEvents<outlook::_Inspector> {
 public:
  TestInspector() : WithEvents("Inspector", outlook::IID_InspectorEvents_10) {}
  HRESULT STDMETHODCALLTYPE get_CurrentItem(IDispatch** out) override {
    return Answer("Inspector.CurrentItem", currentItem, out);
  }

  ComPtr<IDispatch> currentItem;
};

// A collection of windows of one kind, raising `opened` when a window opens.
template <typename Collection, typename OutlookWindow, typename Window>
class TestWindows : public WithEvents<Collection> {
 public:
  HRESULT STDMETHODCALLTYPE get_Count(LONG* out) override {
    return Answer(this->owner_ + ".Count", static_cast<LONG>(items.size()), out);
  }
  HRESULT STDMETHODCALLTYPE Item(VARIANT index, OutlookWindow** out) override {
    return AnswerItem(this->owner_ + ".Item", items, index, out);
  }

  // Appends a window and raises the event of a new window with it, as Outlook does when a
  // window opens.
  HRESULT Open(const ComPtr<Window>& window);

  std::vector<ComPtr<Window>> items;

 protected:
  TestWindows(std::string owner, const IID& events, DISPID opened)
      : WithEvents<Collection>(std::move(owner), events), opened_(opened) {}

 private:
  DISPID opened_;
};

class TestExplorers : public TestWindows<outlook::_Explorers, outlook::_Explorer, TestExplorer> {
 public:
  TestExplorers()
      : TestWindows("Explorers", outlook::IID_ExplorersEvents, outlook::DISPID_NewExplorer) {}
};

class TestInspectors
    : public TestWindows<outlook::_Inspectors, outlook::_Inspector, TestInspector> {
 public:
  TestInspectors()
      : TestWindows("Inspectors", outlook::IID_InspectorsEvents, outlook::DISPID_NewInspector) {}
};

// --- Session and people ----------------------------------------------------------------------

class TestFolder : public ComObject<outlook::MAPIFolder> {
 public:
  explicit TestFolder(std::u16string folderName = u"Inbox") : name(std::move(folderName)) {}
  HRESULT STDMETHODCALLTYPE get_Name(BSTR* out) override {
    return Answer("Folder.Name", name, out);
  }
  std::u16string name;
};

class TestExchangeUser : public ComObject<outlook::ExchangeUser> {
 public:
  explicit TestExchangeUser(std::u16string smtp = {}) : primarySmtpAddress(std::move(smtp)) {}
  HRESULT STDMETHODCALLTYPE get_PrimarySmtpAddress(BSTR* out) override {
    return Answer("ExchangeUser.PrimarySmtpAddress", primarySmtpAddress, out);
  }
  std::u16string primarySmtpAddress;
};

class TestAddressEntry : public ComObject<outlook::AddressEntry> {
 public:
  HRESULT STDMETHODCALLTYPE GetExchangeUser(outlook::ExchangeUser** out) override {
    return Answer("AddressEntry.GetExchangeUser", exchangeUser, out);
  }
  ComPtr<outlook::ExchangeUser> exchangeUser;
};

class TestRecipient : public ComObject<outlook::Recipient> {
 public:
  HRESULT STDMETHODCALLTYPE get_Address(BSTR* out) override {
    return Answer("Recipient.Address", address, out);
  }
  HRESULT STDMETHODCALLTYPE get_AddressEntry(outlook::AddressEntry** out) override {
    return Answer("Recipient.AddressEntry", addressEntry, out);
  }
  std::u16string address;
  ComPtr<outlook::AddressEntry> addressEntry;
};

class TestNameSpace : public ComObject<outlook::_NameSpace> {
 public:
  HRESULT STDMETHODCALLTYPE get_CurrentUser(outlook::Recipient** out) override {
    return Answer("NameSpace.CurrentUser", currentUser, out);
  }
  ComPtr<outlook::Recipient> currentUser;
};

// --- Items -----------------------------------------------------------------------------------

class TestAttachment;

// Answers the two attachment properties the add-in reads, where the attachment has them; any
// other property, or one it lacks, fails with MAPI's "not found".
class TestPropertyAccessor : public ComObject<outlook::PropertyAccessor> {
 public:
  explicit TestPropertyAccessor(TestAttachment* owner);
  HRESULT STDMETHODCALLTYPE GetProperty(BSTR schemaName, VARIANT* value) override;

 private:
  ComPtr<outlook::Attachment> keep_;
  TestAttachment* owner_;
};

inline constexpr HRESULT kMapiNotFound = static_cast<HRESULT>(0x8004010Fu);

class TestAttachment : public ComObject<outlook::Attachment> {
 public:
  HRESULT STDMETHODCALLTYPE get_FileName(BSTR* out) override {
    return Answer("Attachment.FileName", fileName, out);
  }
  HRESULT STDMETHODCALLTYPE get_PropertyAccessor(outlook::PropertyAccessor** accessor) override;
  // Writes `content` to the file, replacing it; a path the file system refuses fails as in
  // Outlook, with the error of the failed open.
  HRESULT STDMETHODCALLTYPE SaveAsFile(BSTR path) override;

  std::u16string fileName;
  std::string content;
  std::optional<std::u16string> contentId;  // PR_ATTACH_CONTENT_ID
  std::optional<LONG> flags;                // PR_ATTACH_FLAGS
  bool hasAccessor = true;
  std::vector<std::u16string> savedPaths;
};

class TestAttachments : public ComObject<outlook::Attachments> {
 public:
  HRESULT STDMETHODCALLTYPE get_Count(LONG* out) override {
    return Answer("Attachments.Count", static_cast<LONG>(items.size()), out);
  }
  HRESULT STDMETHODCALLTYPE Item(VARIANT index, outlook::Attachment** out) override {
    return AnswerItem("Attachments.Item", items, index, out);
  }
  std::vector<ComPtr<TestAttachment>> items;
};

// What SaveAs of a test item wrote: the paths, and the types asked for.
struct SavedPages {
  std::vector<std::u16string> paths;
  std::vector<LONG> types;
};

// What a mail and a meeting item share: `kind` names the object in the log ("MailItem").
template <typename Outlook>
class TestItem : public ComObject<Outlook> {
 public:
  HRESULT STDMETHODCALLTYPE get_Attachments(outlook::Attachments** out) override {
    return Answer(Member("Attachments"), attachments, out);
  }
  HRESULT STDMETHODCALLTYPE get_Importance(LONG* out) override {
    return Answer(Member("Importance"), importance, out);
  }
  HRESULT STDMETHODCALLTYPE get_ReceivedTime(DATE* out) override {
    return Answer(Member("ReceivedTime"), receivedTime, out);
  }
  HRESULT STDMETHODCALLTYPE get_Sensitivity(LONG* out) override {
    return Answer(Member("Sensitivity"), sensitivity, out);
  }
  HRESULT STDMETHODCALLTYPE get_Subject(BSTR* out) override {
    return Answer(Member("Subject"), subject, out);
  }
  // Writes a small UTF-8 page naming the subject, and keeps the path and type. With `picture`
  // set it also writes the picture into the page's companion folder, as Outlook does for the
  // pictures of an HTML mail: the path without ".html", plus "_files", holding "image001.png".
  HRESULT STDMETHODCALLTYPE SaveAs(BSTR path, VARIANT type) override;
  HRESULT STDMETHODCALLTYPE get_SenderName(BSTR* out) override {
    return Answer(Member("SenderName"), senderName, out);
  }
  HRESULT STDMETHODCALLTYPE get_SenderEmailAddress(BSTR* out) override {
    return Answer(Member("SenderEmailAddress"), senderEmailAddress, out);
  }

  std::u16string subject;
  std::u16string senderName;
  std::u16string senderEmailAddress;
  DATE receivedTime = 0;
  LONG importance = 1;
  LONG sensitivity = 0;
  ComPtr<TestAttachments> attachments;
  std::string picture;
  SavedPages saved;

 protected:
  explicit TestItem(std::string kind)
      : attachments(MakeComObject<TestAttachments>()), kind_(std::move(kind)) {}
  // The log name of `member` of this item.
  [[nodiscard]] std::string Member(std::string_view member) const {
    return kind_ + "." + std::string(member);
  }

 private:
  std::string kind_;
};

class TestMailItem : public TestItem<outlook::_MailItem> {
 public:
  TestMailItem() : TestItem("MailItem") {}
  HRESULT STDMETHODCALLTYPE get_SenderEmailType(BSTR* out) override {
    return Answer("MailItem.SenderEmailType", senderEmailType, out);
  }
  HRESULT STDMETHODCALLTYPE get_Sender(outlook::AddressEntry** out) override {
    return Answer("MailItem.Sender", sender, out);
  }
  HRESULT STDMETHODCALLTYPE get_To(BSTR* out) override { return Answer("MailItem.To", to, out); }
  HRESULT STDMETHODCALLTYPE get_CC(BSTR* out) override { return Answer("MailItem.CC", cc, out); }
  HRESULT STDMETHODCALLTYPE get_BCC(BSTR* out) override { return Answer("MailItem.BCC", bcc, out); }

  std::u16string senderEmailType = u"SMTP";
  ComPtr<outlook::AddressEntry> sender;
  std::u16string to;
  std::u16string cc;
  std::u16string bcc;
};

class TestMeetingItem : public TestItem<outlook::_MeetingItem> {
 public:
  TestMeetingItem() : TestItem("MeetingItem") {}
};

// An item of another kind (contact, appointment, task, note, report): it answers IDispatch and
// nothing of a mail.
class TestOtherItem : public ComObject<IDispatch> {
 public:
  explicit TestOtherItem(std::string itemKind = "contact") : kind(std::move(itemKind)) {}
  std::string kind;
};

class TestSelection : public ComObject<outlook::Selection> {
 public:
  HRESULT STDMETHODCALLTYPE get_Count(LONG* out) override {
    return Answer("Selection.Count", static_cast<LONG>(items.size()), out);
  }
  HRESULT STDMETHODCALLTYPE Item(VARIANT index, IDispatch** out) override {
    return AnswerItem("Selection.Item", items, index, out);
  }
  // Entries may be null: Item then answers S_OK with null.
  std::vector<ComPtr<IDispatch>> items;
};

// --- The application -------------------------------------------------------------------------

class TestApplication : public ComObject<outlook::_Application> {
 public:
  TestApplication();
  HRESULT STDMETHODCALLTYPE get_Version(BSTR* out) override {
    return Answer("Application.Version", version, out);
  }
  HRESULT STDMETHODCALLTYPE get_Explorers(outlook::_Explorers** out) override {
    return Answer("Application.Explorers", explorers, out);
  }
  HRESULT STDMETHODCALLTYPE get_Inspectors(outlook::_Inspectors** out) override {
    return Answer("Application.Inspectors", inspectors, out);
  }
  HRESULT STDMETHODCALLTYPE get_Session(outlook::_NameSpace** out) override {
    return Answer("Application.Session", session, out);
  }
  HRESULT STDMETHODCALLTYPE ActiveWindow(IDispatch** out) override {
    return Answer("Application.ActiveWindow", activeWindow, out);
  }
  HRESULT STDMETHODCALLTYPE ActiveExplorer(outlook::_Explorer** out) override {
    return Answer("Application.ActiveExplorer", activeExplorer, out);
  }
  HRESULT STDMETHODCALLTYPE ActiveInspector(outlook::_Inspector** out) override {
    return Answer("Application.ActiveInspector", activeInspector, out);
  }

  // Makes `window` the active window and the active explorer (or inspector).
  void Activate(const ComPtr<TestExplorer>& window);
  void Activate(const ComPtr<TestInspector>& window);

  std::u16string version = u"16.0.0.17928";
  ComPtr<TestExplorers> explorers;
  ComPtr<TestInspectors> inspectors;
  ComPtr<outlook::_NameSpace> session;
  ComPtr<IDispatch> activeWindow;
  ComPtr<outlook::_Explorer> activeExplorer;
  ComPtr<outlook::_Inspector> activeInspector;
};

// --- Ribbon ----------------------------------------------------------------------------------

class TestRibbonUI : public ComObject<office::IRibbonUI> {
 public:
  HRESULT STDMETHODCALLTYPE InvalidateControl(BSTR controlId) override;
  std::vector<std::u16string> invalidated;
};

class TestRibbonControl : public ComObject<office::IRibbonControl> {
 public:
  explicit TestRibbonControl(std::u16string controlId = {}) : id(std::move(controlId)) {}
  HRESULT STDMETHODCALLTYPE get_Id(BSTR* out) override {
    return Answer("RibbonControl.Id", id, out);
  }
  std::u16string id;
};

// --- Set-ups ---------------------------------------------------------------------------------

// A mail with the given subject and sender.
ComPtr<TestMailItem> MakeMail(std::u16string subject, std::u16string senderName = u"Ann Lee",
                              std::u16string senderAddress = u"ann.lee@example.org");

// An application with one explorer, active, on folder "Inbox", whose selection holds `items`.
struct ExplorerWorld {
  ComPtr<TestApplication> application;
  ComPtr<TestExplorer> explorer;
  ComPtr<TestSelection> selection;
};
ExplorerWorld MakeExplorerWorld(std::vector<ComPtr<IDispatch>> items);

// `object` as an IDispatch reference, for selections and current items.
template <typename T>
[[nodiscard]] ComPtr<IDispatch> AsItem(const ComPtr<T>& object) {
  ComPtr<IDispatch> result;
  if (object) object->QueryInterface(IID_IDispatch, result.put_void());
  return result;
}

}  // namespace mrwl::testing
