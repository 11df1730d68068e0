// The options dialog: a frame whose tab control hosts the three pages.
#include "settings/options_dialog.h"

#include <array>
#include <cstddef>
#include <string_view>

#include "platform/ui.h"
#include "settings/dialog_templates.h"

namespace mrwl {

const std::array<std::u16string_view, 3> OptionsTabTexts = {u"PDF page", u"Security", u"Advanced"};

namespace {

constexpr int kSecurityTab = 1;

// Creates a page from `templateId` inside the tab control; null when it cannot be made, and the
// dialog then opens without it. Each page gives itself the tab look as it initialises.
platform::DialogWindow* CreatePage(platform::DialogWindow& frame, int templateId,
                                   platform::DialogHandler& page) {
  const platform::DialogTemplate* dialog = FindDialogTemplate(templateId);
  if (dialog == nullptr) return nullptr;
  return frame.CreateChild(*dialog, page, kIdTabs);
}

}  // namespace

void OptionsDialog::OnInit(platform::DialogWindow& window) {
  window_ = &window;
  window.CenterOnOwner();
  try {
    if (CreatePage(window, kPdfPageDialog, pdfPage_) != nullptr && record_ != nullptr) {
      pdfPage_.Load(*record_);
    }
    if (CreatePage(window, kSecurityPageDialog, securityPage_) != nullptr && record_ != nullptr) {
      securityPage_.Load(*record_);
    }
    if (CreatePage(window, kAdvancedPageDialog, advancedPage_) != nullptr && record_ != nullptr) {
      advancedPage_.Load(*record_);
    }
    for (std::size_t index = 0; index < OptionsTabTexts.size(); ++index) {
      window.InsertTab(kIdTabs, static_cast<int>(index), OptionsTabTexts[index]);
    }
    window.SelectTab(kIdTabs, 0);
    ShowSelectedPage();
  } catch (...) {
    // Out of memory while filling the pages: the dialog opens with what it has.
  }
}

void OptionsDialog::OnCommand(platform::DialogWindow& window, int id, int code) {
  if (code != BN_CLICKED) return;
  try {
    switch (id) {
      case kIdOk:
        OnOk();
        break;
      case kIdCancel:
        // No page is read: what was typed goes with the dialog.
        window.EndDialog(IDCANCEL);
        break;
      case kIdReset:
        OnReset();
        break;
      default:
        break;
    }
  } catch (...) {
    // Out of memory while reading the pages: the dialog stays open, and the registry holds what
    // it held.
  }
}

void OptionsDialog::OnTabChange(platform::DialogWindow& window, int id) {
  (void)window;
  if (id == kIdTabs) ShowSelectedPage();
}

void OptionsDialog::ShowSelectedPage() {
  if (window_ == nullptr) return;
  // Indexed as the tabs are, not as the pages were made.
  const std::array<platform::DialogWindow*, 3> pages = {pdfPage_.Window(), securityPage_.Window(),
                                                        advancedPage_.Window()};
  const int selected = window_->SelectedTab(kIdTabs);
  for (std::size_t index = 0; index < pages.size(); ++index) {
    if (pages[index] != nullptr && static_cast<int>(index) != selected) {
      pages[index]->ShowWindow(false);
    }
  }
  if (selected < 0 || static_cast<std::size_t>(selected) >= pages.size()) return;
  platform::DialogWindow* page = pages[static_cast<std::size_t>(selected)];
  if (page == nullptr) return;
  page->SetPlace(window_->TabDisplayArea(kIdTabs));
  page->ShowWindow(true);
}

void OptionsDialog::OnOk() {
  // The only refusal of the dialog: the record is not touched until the security page agrees.
  if (!securityPage_.Validate()) {
    window_->SelectTab(kIdTabs, kSecurityTab);
    ShowSelectedPage();
    return;
  }
  pdfPage_.Save();
  securityPage_.Save();
  advancedPage_.Save();
  if (record_ != nullptr) record_->SaveSettings();
  window_->EndDialog(IDOK);
}

void OptionsDialog::OnReset() {
  if (record_ == nullptr) return;
  // Reset works on the record itself and leaves the registry alone: a Cancel that follows keeps
  // the defaults in the record until the next load, which is intended.
  record_->ResetSettings();
  if (pdfPage_.Window() != nullptr) pdfPage_.Load(*record_);
  if (securityPage_.Window() != nullptr) securityPage_.Load(*record_);
  if (advancedPage_.Window() != nullptr) advancedPage_.Load(*record_);
}

int ShowOptionsDialog(AddinSettings& settings, HWND owner) {
  const platform::DialogTemplate* frame = FindDialogTemplate(kOptionsFrameDialog);
  if (frame == nullptr) return -1;
  OptionsDialog dialog;
  dialog.SetRecord(&settings);
  return platform::RunModalDialog(*frame, dialog, owner);
}

}  // namespace mrwl
