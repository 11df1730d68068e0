#include "conversion/output_naming.h"

#include <memory>

#include "platform/com_ptr.h"
#include "platform/ui.h"
#include "settings/file_dialog.h"

namespace mrwl {
namespace {

// Only this many units of a subject are looked at for a proposed name.
constexpr std::size_t kMaxNameUnits = 256;

constexpr std::u16string_view kDroppedUnits = u"|\\?*<\":>+[]/-.";

constexpr std::u16string_view kUserFallback = u"Email";

// The text of a BSTR that the caller owned, into `out`.
void TakeText(UniqueBstr text, WideString& out) { out = BstrView(text.get()); }

}  // namespace

void SanitizeFileName(const char16_t* text, std::size_t length, WideString& result) {
  result.Clear();
  (void)result.Reserve(length);  // only a hint: Append grows on its own
  if (text == nullptr) return;
  // The limit counts the units of the text, not those kept.
  const std::size_t end = length < kMaxNameUnits ? length : kMaxNameUnits;
  for (std::size_t i = 0; i < end; ++i) {
    if (kDroppedUnits.find(text[i]) != std::u16string_view::npos) continue;
    if (!result.Append(text[i])) return;
  }
}

bool AskOutputFile(WideString& path, std::u16string_view defaultName) {
  // The request holds pointers; the name must outlive the dialog and be NUL-terminated.
  const WideString fileName(defaultName);
  FileDialogRequest request;
  request.Open = 0;
  request.DefaultExtension = u"pdf";
  request.AppendExtension = 1;
  request.FileName = fileName.c_str();
  request.Filter = u"PDF Documents (*.pdf)|*.pdf";
  request.Options = kSaveDialogOptions;

  std::unique_ptr<FileDialog> dialog;
  if (!CreateFileDialog(dialog, request, false) || !dialog) return false;
  if (dialog->Show(platform::GetActiveWindow()) != kFileDialogOk) return false;
  const auto& results = dialog->Results();
  if (results.empty() || results.front().IsEmpty()) return false;
  path = results.front();
  return !path.IsEmpty();
}

void GetUserAndFolder(outlook::_Application* application, WideString& user, WideString& folder) {
  // Failed calls are not looked at: a failing call hands out no string, which reads as empty.
  ComPtr<outlook::_Explorer> explorer;
  if (application != nullptr) (void)application->ActiveExplorer(explorer.put());
  if (explorer) {
    ComPtr<outlook::MAPIFolder> current;
    (void)explorer->get_CurrentFolder(current.put());
    if (current) {
      UniqueBstr name;
      (void)current->get_Name(name.put());
      TakeText(std::move(name), folder);
    }
  }

  ComPtr<outlook::_NameSpace> session;
  if (application != nullptr) (void)application->get_Session(session.put());
  if (session) {
    ComPtr<outlook::Recipient> recipient;
    (void)session->get_CurrentUser(recipient.put());
    if (recipient) {
      ComPtr<outlook::AddressEntry> entry;
      (void)recipient->get_AddressEntry(entry.put());
      if (entry) {
        ComPtr<outlook::ExchangeUser> exchangeUser;
        (void)entry->GetExchangeUser(exchangeUser.put());
        if (exchangeUser) {
          UniqueBstr address;
          (void)exchangeUser->get_PrimarySmtpAddress(address.put());
          TakeText(std::move(address), user);
        }
      }
      if (user.IsEmpty()) {
        UniqueBstr address;
        (void)recipient->get_Address(address.put());
        TakeText(std::move(address), user);
      }
    }
  }
  if (user.IsEmpty()) user = kUserFallback;
}

}  // namespace mrwl
