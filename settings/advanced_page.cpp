// The "Advanced" tab and its sub-page.
#include "settings/advanced_page.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/file_dialog.h"
#include "platform/ui.h"
#include "settings/dialog_templates.h"

namespace mrwl {

const std::array<PdfVersion, 5> PdfVersionTable = {{
    {u"Version 1.3 (Acrobat v3.0 and v4.x)", 0x10003},
    {u"Version 1.4 (Acrobat v5.x)", 0x10004},
    {u"Version 1.5 (Acrobat v6.0 and above)", 0x10005},
    {u"Version 1.6 (Acrobat v7.0 and above)", 0x10006},
    {u"Version 1.7 (Acrobat v8.0 and above)", 0x10007},
}};

const std::array<std::u16string_view, 3> CompressionRows = {u"Low", u"Medium", u"High"};

namespace {

// The row a PDFSpecification that no row carries falls back to: the newest version.
constexpr int kFallbackVersionRow = 4;

constexpr std::size_t kMaxTextLength = 1023;
constexpr DWORD kFileBufferLength = 260;
constexpr DWORD kTitleBufferLength = 256;
// OFN_EXPLORER | OFN_ENABLESIZING | OFN_ENABLEHOOK.
constexpr DWORD kBrowseFlags = 0x880020;
// One filter row; the literal's own terminator makes the second NUL that ends the list.
constexpr char16_t kBrowseFilter[] = u"Applications (*.exe)\0*.exe\0";

std::u16string ReadText(const platform::DialogWindow& window, int id) {
  std::u16string text = window.GetText(id);
  if (text.size() > kMaxTextLength) text.resize(kMaxTextLength);
  return text;
}

// An edit ends its text at the first NUL, and a string loaded from the registry may still carry
// its terminator.
std::u16string_view UpToTerminator(std::u16string_view text) {
  return text.substr(0, text.find(u'\0'));
}

// The hook the dialog is given so that it takes the hooked, resizable form; it leaves every
// message to the dialog.
platform::DialogResult MRWL_DIALOG_CALLBACK PassThroughHook(HWND, UINT, platform::DialogWParam,
                                                            platform::DialogLParam) {
  return 0;
}

}  // namespace

void AdvancedSubPage::OnInit(platform::DialogWindow& window) {
  window_ = &window;
  EnableThemeTexture(window);
  width_.Attach(window, kIdTargetWidth, kIdTargetWidthSpin);
  // A plain count of pixels, shown with one decimal: the default reads 1280.0.
  width_.Setup(0, 5000, width_.value, 1, 1, 1);
}

void AdvancedSubPage::OnCommand(platform::DialogWindow& window, int id, int code) {
  (void)window;
  if (code != BN_CLICKED) return;
  switch (id) {
    case kIdRunApplication:
    case kIdDefaultApplication:
    case kIdCustomApplication:
      ApplyEnabling();
      break;
    case kIdBrowse:
      Browse();
      break;
    default:
      break;
  }
}

bool AdvancedSubPage::OnUpDown(platform::DialogWindow& window, int upDownId, int delta) {
  (void)window;
  if (upDownId != kIdTargetWidthSpin) return false;
  return width_.OnDeltaPos(delta);
}

void AdvancedSubPage::Load(AddinSettings& record) {
  record_ = &record;
  if (window_ == nullptr) return;
  platform::DialogWindow& window = *window_;
  const RunAppSettings& run = *record.RunApp;

  window.SetChecked(kIdRunApplication, record.RunPDFApp);
  window.SetChecked(kIdDefaultApplication, !run.RunCustPDFApp);
  window.SetChecked(kIdCustomApplication, run.RunCustPDFApp);
  window.SetText(kIdApplicationPath, UpToTerminator(run.RunPDFPath.view()));
  window.SetText(kIdApplicationParameters, UpToTerminator(run.RunPDFParams.view()));
  width_.SetValue(static_cast<std::int32_t>(record.WebPageTargetWidth));

  // The rows are added again on every load, so after a Reset the list holds the table twice.
  // That is intended: the selection indexes stay those of the first five rows, and Save maps a
  // row of a later copy to the row of the same text.
  int selected = kFallbackVersionRow;
  for (std::size_t row = 0; row < PdfVersionTable.size(); ++row) {
    (void)window.AddRow(kIdPdfVersion, PdfVersionTable[row].text);
    if (PdfVersionTable[row].code == record.PDFSpecification) selected = static_cast<int>(row);
  }
  window.Select(kIdPdfVersion, selected);

  const int compression = window.Selection(kIdCompression);
  window.ClearRows(kIdCompression);
  for (const std::u16string_view row : CompressionRows) (void)window.AddRow(kIdCompression, row);
  window.Select(kIdCompression, compression);
  // The record's level overrides the kept selection at once; a level past the rows selects none.
  window.Select(kIdCompression, static_cast<int>(record.CompressionLevel));

  ApplyEnabling();
}

void AdvancedSubPage::Save() {
  if (window_ == nullptr || record_ == nullptr) return;
  platform::DialogWindow& window = *window_;
  RunAppSettings& run = *record_->RunApp;

  record_->RunPDFApp = window.IsChecked(kIdRunApplication);
  run.RunCustPDFApp = window.IsChecked(kIdCustomApplication);
  (void)run.RunPDFPath.Assign(ReadText(window, kIdApplicationPath));
  (void)run.RunPDFParams.Assign(ReadText(window, kIdApplicationParameters));

  width_.Sync(false);
  record_->WebPageTargetWidth = static_cast<std::uint32_t>(width_.value);

  // A row of a later copy of the table (after a Reset) stores the code of the row with the same
  // text, so what the user sees is what is stored. No selection at all cannot come from the
  // user, as every load selects a row; should it happen, the record keeps its version rather
  // than receive a code that is none.
  const int version = window.Selection(kIdPdfVersion);
  if (version >= 0) {
    record_->PDFSpecification =
        PdfVersionTable[static_cast<std::size_t>(version) % PdfVersionTable.size()].code;
  }
  // A selection of none is stored as it reads, 0xFFFFFFFF, as for every list of the dialog.
  record_->CompressionLevel = static_cast<std::uint32_t>(window.Selection(kIdCompression));
}

void AdvancedSubPage::ApplyEnabling() {
  if (window_ == nullptr) return;
  platform::DialogWindow& window = *window_;
  const bool run = window.IsChecked(kIdRunApplication);
  const bool custom = run && !window.IsChecked(kIdDefaultApplication);
  window.Enable(kIdDefaultApplication, run);
  window.Enable(kIdCustomApplication, run);
  for (const int id : {kIdApplicationPath, kIdApplicationParameters, kIdBrowse}) {
    window.Enable(id, custom);
  }
}

void AdvancedSubPage::Browse() {
  if (window_ == nullptr) return;
  char16_t file[kFileBufferLength] = {};
  char16_t title[kTitleBufferLength] = {};

  platform::OpenFileNameW question{};
  question.lStructSize = sizeof question;
  question.hwndOwner = window_->Handle();
  if (question.hwndOwner == nullptr) question.hwndOwner = platform::GetActiveWindow();
  question.lpstrFilter = kBrowseFilter;
  question.lpstrFile = file;
  question.nMaxFile = kFileBufferLength;
  question.lpstrFileTitle = title;
  question.nMaxFileTitle = kTitleBufferLength;
  question.lpstrDefExt = u"exe";
  question.Flags = kBrowseFlags;
  question.lpfnHook = &PassThroughHook;

  // Nothing checks the file: a path that does not exist is the user's choice to make.
  if (platform::GetOpenFileNameW(&question)) {
    window_->SetText(kIdApplicationPath, std::u16string_view(file));
  }
}

void AdvancedPage::OnInit(platform::DialogWindow& window) {
  window_ = &window;
  EnableThemeTexture(window);
  const platform::DialogRect place = window.ControlRect(kIdPlaceholder);
  window.Show(kIdPlaceholder, false);

  // Without the sub-page the tab shows only its check box; nothing is reported.
  const platform::DialogTemplate* subPage = FindDialogTemplate(kAdvancedSubPageDialog);
  platform::DialogWindow* child =
      subPage != nullptr ? window.CreateChild(*subPage, subPage_, 0) : nullptr;
  if (child == nullptr) return;
  const platform::DialogRect size = child->TemplateSize();
  child->SetPlace({place.left, place.top, place.left + size.Width(), place.top + size.Height()});
  child->ShowWindow(true);
}

void AdvancedPage::Load(AddinSettings& record) {
  record_ = &record;
  if (window_ != nullptr) window_->SetChecked(kIdConvertAttachments, record.ConvertAttachments);
  subPage_.Load(record);
}

void AdvancedPage::Save() {
  if (record_ == nullptr) return;
  if (window_ != nullptr) record_->ConvertAttachments = window_->IsChecked(kIdConvertAttachments);
  subPage_.Save();
}

}  // namespace mrwl
