// The options dialog: the tabbed, modal editor of the settings record, behind the ribbon's
// "Settings". It edits one AddinSettings record in place.
#pragma once

#include "platform/dialog.h"
#include "platform/win_types.h"
#include "settings/addin_settings.h"
#include "settings/advanced_page.h"
#include "settings/pdf_page.h"
#include "settings/security_page.h"

namespace mrwl {

// The tab texts, by index; the index addresses the pages in this order.
extern const std::array<std::u16string_view, 3> OptionsTabTexts;

class OptionsDialog final : public platform::DialogHandler {
 public:
  // The record the dialog edits; it must outlive the dialog.
  void SetRecord(AddinSettings* record) noexcept { record_ = record; }

  void OnInit(platform::DialogWindow& window) override;
  void OnCommand(platform::DialogWindow& window, int id, int code) override;
  void OnTabChange(platform::DialogWindow& window, int id) override;

  [[nodiscard]] PdfPage& Pdf() noexcept { return pdfPage_; }
  [[nodiscard]] SecurityPage& Security() noexcept { return securityPage_; }
  [[nodiscard]] AdvancedPage& Advanced() noexcept { return advancedPage_; }

 private:
  void ShowSelectedPage();
  void OnOk();
  void OnReset();

  platform::DialogWindow* window_ = nullptr;
  AddinSettings* record_ = nullptr;
  PdfPage pdfPage_;
  SecurityPage securityPage_;
  AdvancedPage advancedPage_;
};

// Shows the options dialog over `settings`, modal to `owner` (which may be null), and writes the
// record to the registry only when the user leaves with OK. Returns the button that closed the
// dialog (IDOK, IDCANCEL), or -1 when the dialog could not be shown. Main thread only.
int ShowOptionsDialog(AddinSettings& settings, HWND owner);

}  // namespace mrwl
