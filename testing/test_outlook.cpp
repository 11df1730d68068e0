// The in-process Outlook of the tests.
#include "testing/test_outlook.h"

#include <algorithm>
#include <fstream>

#include "platform/utf.h"

namespace mrwl::testing {

namespace {

// Logs the call `member` and leaves the member with the injected failure, if any.
#define TEST_OUTLOOK_ENTER(member)                                       \
  do {                                                                   \
    const HRESULT entered = OutlookFaults::Get().Enter(member);          \
    if (FAILED(entered)) return entered;                                 \
  } while (false)

HRESULT PutText(const std::u16string& text, BSTR* out) {
  if (out == nullptr) return E_POINTER;
  *out = MakeBstr(text).release();
  return *out != nullptr ? S_OK : E_OUTOFMEMORY;
}

template <typename T, typename U>
HRESULT PutObject(const ComPtr<U>& object, T** out) {
  if (out == nullptr) return E_POINTER;
  *out = object.get();
  if (*out != nullptr) (*out)->AddRef();
  return S_OK;
}

template <typename T>
HRESULT PutNumber(T value, T* out) {
  if (out == nullptr) return E_POINTER;
  *out = value;
  return S_OK;
}

// The 1-based VT_I4 index of a collection, as Outlook takes it.
template <typename Items>
HRESULT Pick(const Items& items, const VARIANT& index, typename Items::value_type* picked) {
  if (index.vt != VT_I4) return DISP_E_TYPEMISMATCH;
  if (index.lVal < 1 || static_cast<std::size_t>(index.lVal) > items.size()) {
    return DISP_E_BADINDEX;
  }
  *picked = items[static_cast<std::size_t>(index.lVal) - 1];
  return S_OK;
}

HRESULT WritePage(BSTR path, const VARIANT& type, const std::u16string& subject,
                  SavedPages& saved) {
  saved.paths.emplace_back(BstrView(path));
  saved.types.push_back(type.vt == VT_I4 ? type.lVal : -1);
  std::ofstream page(platform::Utf16ToUtf8(BstrView(path)), std::ios::binary | std::ios::trunc);
  page << "<html><body><p>" << platform::Utf16ToUtf8(subject) << "</p></body></html>\n";
  return page.good() ? S_OK : E_FAIL;
}

}  // namespace

// --- OutlookFaults ---------------------------------------------------------------------------

OutlookFaults& OutlookFaults::Get() {
  static OutlookFaults faults;
  return faults;
}

void OutlookFaults::Reset() {
  calls_.clear();
  faults_.clear();
  counts_.clear();
}

void OutlookFaults::Fail(std::string_view member, HRESULT result, int after, int times) {
  faults_[std::string(member)] = Fault{result, false, after, times};
}

void OutlookFaults::Throw(std::string_view member, HRESULT result, int after, int times) {
  faults_[std::string(member)] = Fault{result, true, after, times};
}

HRESULT OutlookFaults::Enter(std::string_view member) {
  calls_.emplace_back(member);
  const int number = ++counts_[std::string(member)];
  const auto found = faults_.find(member);
  if (found == faults_.end()) return S_OK;
  Fault& fault = found->second;
  if (number <= fault.after || fault.times == 0) return S_OK;
  if (fault.times > 0) --fault.times;
  if (fault.raise) throw ComError(fault.result);
  return fault.result;
}

int OutlookFaults::CountOf(std::string_view member) const {
  const auto found = counts_.find(member);
  return found == counts_.end() ? 0 : found->second;
}

int OutlookFaults::IndexOf(std::string_view member) const {
  const auto found = std::find(calls_.begin(), calls_.end(), member);
  return found == calls_.end() ? -1 : static_cast<int>(found - calls_.begin());
}

// --- Connection points -----------------------------------------------------------------------

HRESULT TestConnectionPoint::GetConnectionInterface(IID* iid) {
  if (iid == nullptr) return E_POINTER;
  *iid = iid_;
  return S_OK;
}

HRESULT TestConnectionPoint::GetConnectionPointContainer(IConnectionPointContainer** container) {
  if (container != nullptr) *container = nullptr;
  return E_NOTIMPL;
}

HRESULT TestConnectionPoint::Advise(IUnknown* sink, DWORD* cookie) {
  TEST_OUTLOOK_ENTER(owner_ + ".ConnectionPoint.Advise");
  if (sink == nullptr || cookie == nullptr) return E_POINTER;
  ComPtr<IDispatch> events;
  if (FAILED(sink->QueryInterface(iid_, events.put_void())) || !events) {
    return CONNECT_E_CANNOTCONNECT;
  }
  *cookie = nextCookie_++;
  sinks_.emplace_back(*cookie, std::move(events));
  return S_OK;
}

HRESULT TestConnectionPoint::Unadvise(DWORD cookie) {
  TEST_OUTLOOK_ENTER(owner_ + ".ConnectionPoint.Unadvise");
  const auto found = std::find_if(sinks_.begin(), sinks_.end(),
                                  [cookie](const auto& sink) { return sink.first == cookie; });
  if (found == sinks_.end()) return CONNECT_E_NOCONNECTION;
  sinks_.erase(found);
  return S_OK;
}

HRESULT TestConnectionPoint::EnumConnections(IEnumConnections** connections) {
  if (connections != nullptr) *connections = nullptr;
  return E_NOTIMPL;
}

HRESULT TestConnectionPoint::Raise(DISPID dispid, std::vector<VARIANT> arguments) {
  std::reverse(arguments.begin(), arguments.end());
  DISPPARAMS params{arguments.data(), nullptr, static_cast<UINT>(arguments.size()), 0};
  HRESULT result = S_OK;
  // A sink may unadvise itself while handling the event: deliver to a copy of the list.
  const auto sinks = sinks_;
  for (const auto& [cookie, sink] : sinks) {
    const HRESULT delivered =
        sink->Invoke(dispid, IID_NULL, 0, DISPATCH_METHOD, &params, nullptr, nullptr, nullptr);
    if (FAILED(delivered) && SUCCEEDED(result)) result = delivered;
  }
  for (VARIANT& argument : arguments) VariantClear(&argument);
  return result;
}

HRESULT EventSource::Find(REFIID iid, IConnectionPoint** point) {
  TEST_OUTLOOK_ENTER(owner_ + ".FindConnectionPoint");
  if (point == nullptr) return E_POINTER;
  *point = nullptr;
  if (!IsEqualIID(iid, point_->EventsIid())) return CONNECT_E_NOCONNECTION;
  *point = point_.get();
  point_->AddRef();
  return S_OK;
}

// --- Windows ---------------------------------------------------------------------------------

HRESULT TestExplorer::get_CurrentFolder(outlook::MAPIFolder** folder) {
  TEST_OUTLOOK_ENTER("Explorer.CurrentFolder");
  return PutObject(currentFolder, folder);
}
HRESULT TestExplorer::get_Selection(outlook::Selection** result) {
  TEST_OUTLOOK_ENTER("Explorer.Selection");
  return PutObject(selection, result);
}
HRESULT TestExplorer::EnumConnectionPoints(IEnumConnectionPoints**) { return E_NOTIMPL; }
HRESULT TestExplorer::FindConnectionPoint(REFIID iid, IConnectionPoint** point) {
  return Find(iid, point);
}

HRESULT TestInspector::get_CurrentItem(IDispatch** item) {
  TEST_OUTLOOK_ENTER("Inspector.CurrentItem");
  return PutObject(currentItem, item);
}
HRESULT TestInspector::EnumConnectionPoints(IEnumConnectionPoints**) { return E_NOTIMPL; }
HRESULT TestInspector::FindConnectionPoint(REFIID iid, IConnectionPoint** point) {
  return Find(iid, point);
}

template <typename Collection, typename OutlookWindow, typename Window>
HRESULT TestWindows<Collection, OutlookWindow, Window>::get_Count(LONG* count) {
  TEST_OUTLOOK_ENTER(owner_ + ".Count");
  return PutNumber(static_cast<LONG>(items.size()), count);
}
template <typename Collection, typename OutlookWindow, typename Window>
HRESULT TestWindows<Collection, OutlookWindow, Window>::Item(VARIANT index,
                                                             OutlookWindow** window) {
  TEST_OUTLOOK_ENTER(owner_ + ".Item");
  if (window == nullptr) return E_POINTER;
  ComPtr<Window> picked;
  if (const HRESULT found = Pick(items, index, &picked); FAILED(found)) return found;
  return PutObject(picked, window);
}
template <typename Collection, typename OutlookWindow, typename Window>
HRESULT TestWindows<Collection, OutlookWindow, Window>::EnumConnectionPoints(
    IEnumConnectionPoints**) {
  return E_NOTIMPL;
}
template <typename Collection, typename OutlookWindow, typename Window>
HRESULT TestWindows<Collection, OutlookWindow, Window>::FindConnectionPoint(
    REFIID iid, IConnectionPoint** point) {
  return Find(iid, point);
}
template <typename Collection, typename OutlookWindow, typename Window>
HRESULT TestWindows<Collection, OutlookWindow, Window>::Open(const ComPtr<Window>& window) {
  items.push_back(window);
  return Point().Raise(opened_, {MakeObjectVariant(window->Identity(), VT_DISPATCH)});
}

template class TestWindows<outlook::_Explorers, outlook::_Explorer, TestExplorer>;
template class TestWindows<outlook::_Inspectors, outlook::_Inspector, TestInspector>;

// --- Session and people ----------------------------------------------------------------------

HRESULT TestFolder::get_Name(BSTR* result) {
  TEST_OUTLOOK_ENTER("Folder.Name");
  return PutText(name, result);
}
HRESULT TestExchangeUser::get_PrimarySmtpAddress(BSTR* address) {
  TEST_OUTLOOK_ENTER("ExchangeUser.PrimarySmtpAddress");
  return PutText(primarySmtpAddress, address);
}
HRESULT TestAddressEntry::GetExchangeUser(outlook::ExchangeUser** user) {
  TEST_OUTLOOK_ENTER("AddressEntry.GetExchangeUser");
  return PutObject(exchangeUser, user);
}
HRESULT TestRecipient::get_Address(BSTR* result) {
  TEST_OUTLOOK_ENTER("Recipient.Address");
  return PutText(address, result);
}
HRESULT TestRecipient::get_AddressEntry(outlook::AddressEntry** entry) {
  TEST_OUTLOOK_ENTER("Recipient.AddressEntry");
  return PutObject(addressEntry, entry);
}
HRESULT TestNameSpace::get_CurrentUser(outlook::Recipient** user) {
  TEST_OUTLOOK_ENTER("NameSpace.CurrentUser");
  return PutObject(currentUser, user);
}

// --- Attachments -----------------------------------------------------------------------------

TestPropertyAccessor::TestPropertyAccessor(TestAttachment* owner)
    : keep_(owner), owner_(owner) {}

HRESULT TestPropertyAccessor::GetProperty(BSTR schemaName, VARIANT* value) {
  TEST_OUTLOOK_ENTER("PropertyAccessor.GetProperty");
  if (value == nullptr) return E_POINTER;
  VariantInit(value);
  const std::u16string_view schema = BstrView(schemaName);
  constexpr std::u16string_view kProptags = u"http://schemas.microsoft.com/mapi/proptag/";
  if (schema == std::u16string(kProptags) + u"0x3712001E" && owner_->contentId) {
    value->vt = VT_BSTR;
    value->bstrVal = MakeBstr(*owner_->contentId).release();
    return S_OK;
  }
  if (schema == std::u16string(kProptags) + u"0x37140003" && owner_->flags) {
    value->vt = VT_I4;
    value->lVal = *owner_->flags;
    return S_OK;
  }
  return kMapiNotFound;
}

HRESULT TestAttachment::get_FileName(BSTR* name) {
  TEST_OUTLOOK_ENTER("Attachment.FileName");
  return PutText(fileName, name);
}
HRESULT TestAttachment::get_PropertyAccessor(outlook::PropertyAccessor** accessor) {
  TEST_OUTLOOK_ENTER("Attachment.PropertyAccessor");
  if (accessor == nullptr) return E_POINTER;
  *accessor = nullptr;
  if (hasAccessor) *accessor = new TestPropertyAccessor(this);
  return S_OK;
}
HRESULT TestAttachment::SaveAsFile(BSTR path) {
  TEST_OUTLOOK_ENTER("Attachment.SaveAsFile");
  savedPaths.emplace_back(BstrView(path));
  std::ofstream file(platform::Utf16ToUtf8(BstrView(path)), std::ios::binary | std::ios::trunc);
  file << content;
  return file.good() ? S_OK : HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED);
}

HRESULT TestAttachments::get_Count(LONG* count) {
  TEST_OUTLOOK_ENTER("Attachments.Count");
  return PutNumber(static_cast<LONG>(items.size()), count);
}
HRESULT TestAttachments::Item(VARIANT index, outlook::Attachment** attachment) {
  TEST_OUTLOOK_ENTER("Attachments.Item");
  if (attachment == nullptr) return E_POINTER;
  ComPtr<TestAttachment> picked;
  if (const HRESULT found = Pick(items, index, &picked); FAILED(found)) return found;
  return PutObject(picked, attachment);
}

// --- Items -----------------------------------------------------------------------------------

template <typename Outlook>
HRESULT TestItem<Outlook>::get_Attachments(outlook::Attachments** result) {
  TEST_OUTLOOK_ENTER(Member("Attachments"));
  return PutObject(attachments, result);
}
template <typename Outlook>
HRESULT TestItem<Outlook>::get_Importance(LONG* result) {
  TEST_OUTLOOK_ENTER(Member("Importance"));
  return PutNumber(importance, result);
}
template <typename Outlook>
HRESULT TestItem<Outlook>::get_ReceivedTime(DATE* time) {
  TEST_OUTLOOK_ENTER(Member("ReceivedTime"));
  return PutNumber(receivedTime, time);
}
template <typename Outlook>
HRESULT TestItem<Outlook>::get_Sensitivity(LONG* result) {
  TEST_OUTLOOK_ENTER(Member("Sensitivity"));
  return PutNumber(sensitivity, result);
}
template <typename Outlook>
HRESULT TestItem<Outlook>::get_Subject(BSTR* result) {
  TEST_OUTLOOK_ENTER(Member("Subject"));
  return PutText(subject, result);
}
template <typename Outlook>
HRESULT TestItem<Outlook>::SaveAs(BSTR path, VARIANT type) {
  TEST_OUTLOOK_ENTER(Member("SaveAs"));
  return WritePage(path, type, subject, saved);
}
template <typename Outlook>
HRESULT TestItem<Outlook>::get_SenderName(BSTR* result) {
  TEST_OUTLOOK_ENTER(Member("SenderName"));
  return PutText(senderName, result);
}
template <typename Outlook>
HRESULT TestItem<Outlook>::get_SenderEmailAddress(BSTR* result) {
  TEST_OUTLOOK_ENTER(Member("SenderEmailAddress"));
  return PutText(senderEmailAddress, result);
}

template class TestItem<outlook::_MailItem>;
template class TestItem<outlook::_MeetingItem>;

HRESULT TestMailItem::get_SenderEmailType(BSTR* result) {
  TEST_OUTLOOK_ENTER("MailItem.SenderEmailType");
  return PutText(senderEmailType, result);
}
HRESULT TestMailItem::get_Sender(outlook::AddressEntry** result) {
  TEST_OUTLOOK_ENTER("MailItem.Sender");
  return PutObject(sender, result);
}
HRESULT TestMailItem::get_To(BSTR* result) {
  TEST_OUTLOOK_ENTER("MailItem.To");
  return PutText(to, result);
}
HRESULT TestMailItem::get_CC(BSTR* result) {
  TEST_OUTLOOK_ENTER("MailItem.CC");
  return PutText(cc, result);
}
HRESULT TestMailItem::get_BCC(BSTR* result) {
  TEST_OUTLOOK_ENTER("MailItem.BCC");
  return PutText(bcc, result);
}

HRESULT TestSelection::get_Count(LONG* count) {
  TEST_OUTLOOK_ENTER("Selection.Count");
  return PutNumber(static_cast<LONG>(items.size()), count);
}
HRESULT TestSelection::Item(VARIANT index, IDispatch** item) {
  TEST_OUTLOOK_ENTER("Selection.Item");
  if (item == nullptr) return E_POINTER;
  ComPtr<IDispatch> picked;
  if (const HRESULT found = Pick(items, index, &picked); FAILED(found)) return found;
  return PutObject(picked, item);
}

// --- Application -----------------------------------------------------------------------------

TestApplication::TestApplication()
    : explorers(MakeComObject<TestExplorers>()), inspectors(MakeComObject<TestInspectors>()) {}

HRESULT TestApplication::get_Version(BSTR* result) {
  TEST_OUTLOOK_ENTER("Application.Version");
  return PutText(version, result);
}
HRESULT TestApplication::get_Explorers(outlook::_Explorers** result) {
  TEST_OUTLOOK_ENTER("Application.Explorers");
  return PutObject(explorers, result);
}
HRESULT TestApplication::get_Inspectors(outlook::_Inspectors** result) {
  TEST_OUTLOOK_ENTER("Application.Inspectors");
  return PutObject(inspectors, result);
}
HRESULT TestApplication::get_Session(outlook::_NameSpace** result) {
  TEST_OUTLOOK_ENTER("Application.Session");
  return PutObject(session, result);
}
HRESULT TestApplication::ActiveWindow(IDispatch** window) {
  TEST_OUTLOOK_ENTER("Application.ActiveWindow");
  return PutObject(activeWindow, window);
}
HRESULT TestApplication::ActiveExplorer(outlook::_Explorer** explorer) {
  TEST_OUTLOOK_ENTER("Application.ActiveExplorer");
  return PutObject(activeExplorer, explorer);
}
HRESULT TestApplication::ActiveInspector(outlook::_Inspector** inspector) {
  TEST_OUTLOOK_ENTER("Application.ActiveInspector");
  return PutObject(activeInspector, inspector);
}

void TestApplication::Activate(const ComPtr<TestExplorer>& window) {
  activeWindow = AsItem(window);
  activeExplorer = window;
}

void TestApplication::Activate(const ComPtr<TestInspector>& window) {
  activeWindow = AsItem(window);
  activeInspector = window;
}

// --- Ribbon ----------------------------------------------------------------------------------

HRESULT TestRibbonUI::InvalidateControl(BSTR controlId) {
  TEST_OUTLOOK_ENTER("RibbonUI.InvalidateControl");
  invalidated.emplace_back(BstrView(controlId));
  return S_OK;
}

HRESULT TestRibbonControl::get_Id(BSTR* result) {
  TEST_OUTLOOK_ENTER("RibbonControl.Id");
  return PutText(id, result);
}

// --- Set-ups ---------------------------------------------------------------------------------

ComPtr<TestMailItem> MakeMail(std::u16string subject, std::u16string senderName,
                              std::u16string senderAddress) {
  auto mail = MakeComObject<TestMailItem>();
  mail->subject = std::move(subject);
  mail->senderName = std::move(senderName);
  mail->senderEmailAddress = std::move(senderAddress);
  return mail;
}

ExplorerWorld MakeExplorerWorld(std::vector<ComPtr<IDispatch>> items) {
  ExplorerWorld world{MakeComObject<TestApplication>(), MakeComObject<TestExplorer>(),
                      MakeComObject<TestSelection>()};
  world.selection->items = std::move(items);
  world.explorer->selection = world.selection;
  world.explorer->currentFolder = MakeComObject<TestFolder>(u"Inbox");
  world.application->explorers->items.push_back(world.explorer);
  world.application->Activate(world.explorer);
  auto user = MakeComObject<TestRecipient>();
  user->address = u"ann.lee@example.org";
  auto session = MakeComObject<TestNameSpace>();
  session->currentUser = user;
  world.application->session = session;
  return world;
}

}  // namespace mrwl::testing
