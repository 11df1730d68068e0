// The in-process Outlook of the tests.
#include "testing/test_outlook.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "platform/utf.h"

namespace mrwl::testing {

// Logs the call `member` and leaves the member with the injected failure, if any.
#define TEST_OUTLOOK_ENTER(member)                              \
  do {                                                          \
    const HRESULT entered = OutlookFaults::Get().Enter(member); \
    if (FAILED(entered)) return entered;                        \
  } while (false)

HRESULT PutAnswer(const std::u16string& value, BSTR* out) {
  if (out == nullptr) return E_POINTER;
  *out = MakeBstr(value).release();
  return *out != nullptr ? S_OK : E_OUTOFMEMORY;
}

HRESULT PutAnswer(LONG value, LONG* out) {
  if (out == nullptr) return E_POINTER;
  *out = value;
  return S_OK;
}

HRESULT PutAnswer(DATE value, DATE* out) {
  if (out == nullptr) return E_POINTER;
  *out = value;
  return S_OK;
}

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

// --- Windows ---------------------------------------------------------------------------------

template <typename Collection, typename OutlookWindow, typename Window>
HRESULT TestWindows<Collection, OutlookWindow, Window>::Open(const ComPtr<Window>& window) {
  items.push_back(window);
  return this->Point().Raise(opened_, {MakeObjectVariant(window->Identity(), VT_DISPATCH)});
}

template class TestWindows<outlook::_Explorers, outlook::_Explorer, TestExplorer>;
template class TestWindows<outlook::_Inspectors, outlook::_Inspector, TestInspector>;

TestApplication::TestApplication()
    : explorers(MakeComObject<TestExplorers>()), inspectors(MakeComObject<TestInspectors>()) {}

void TestApplication::Activate(const ComPtr<TestExplorer>& window) {
  activeWindow = AsItem(window);
  activeExplorer = window;
}

void TestApplication::Activate(const ComPtr<TestInspector>& window) {
  activeWindow = AsItem(window);
  activeInspector = window;
}

// --- Items -----------------------------------------------------------------------------------

TestPropertyAccessor::TestPropertyAccessor(TestAttachment* owner) : keep_(owner), owner_(owner) {}

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

template <typename Outlook>
HRESULT TestItem<Outlook>::SaveAs(BSTR path, VARIANT type) {
  TEST_OUTLOOK_ENTER(Member("SaveAs"));
  saved.paths.emplace_back(BstrView(path));
  saved.types.push_back(type.vt == VT_I4 ? type.lVal : -1);
  const std::string name = platform::Utf16ToUtf8(BstrView(path));
  std::ofstream page(name, std::ios::binary | std::ios::trunc);
  page << "<html><body><p>" << platform::Utf16ToUtf8(subject) << "</p>";
  if (!picture.empty()) {
    const std::size_t point = name.rfind(".html");
    const std::filesystem::path folder = name.substr(0, point) + "_files";
    std::error_code error;
    std::filesystem::create_directory(folder, error);
    std::ofstream(folder / "image001.png", std::ios::binary) << picture;
    page << "<img src=\"" << folder.filename().string() << "/image001.png\">";
  }
  page << "</body></html>\n";
  page.close();
  return page.good() ? S_OK : E_FAIL;
}

template class TestItem<outlook::_MailItem>;
template class TestItem<outlook::_MeetingItem>;

// --- Ribbon ----------------------------------------------------------------------------------

HRESULT TestRibbonUI::InvalidateControl(BSTR controlId) {
  TEST_OUTLOOK_ENTER("RibbonUI.InvalidateControl");
  invalidated.emplace_back(BstrView(controlId));
  return S_OK;
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
