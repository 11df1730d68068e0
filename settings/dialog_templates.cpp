#include "settings/dialog_templates.h"

#include <array>
#include <string>
#include <string_view>

#include "platform/kernel.h"

namespace mrwl {

using platform::ControlKind;
using platform::DialogControl;
using platform::DialogTemplate;

namespace {

constexpr std::u16string_view kFont = u"MS Shell Dlg";
constexpr int kPointSize = 8;

// Drop-down lists carry the height of their closed box here, so that places and overlaps read
// the same in every toolkit; the resource script adds the room of the opened list below it.
constexpr int kDropListExtent = 88;

using K = ControlKind;

// The rows below follow the Windows layout guidelines: 7-unit margins, 14-unit rows, 12-unit edits
// with their up-down directly to the right, 8-unit labels set 2 units lower than their field so
// the baselines meet. The pages stand in the tab control's display area, which is about 297 by
// 195 units, so their contents keep inside that even where the template is larger.

constexpr DialogControl kFrameControls[] = {
    {kIdTabs, K::kTabControl, u"", 6, 6, 300, 210},
    {kIdReset, K::kPushButton, u"Reset", 138, 222, 50, 14},
    {kIdOk, K::kDefaultPushButton, u"OK", 196, 222, 50, 14},
    {kIdCancel, K::kPushButton, u"Cancel", 254, 222, 50, 14},
};

constexpr DialogControl kPdfPageControls[] = {
    {-1, K::kGroupBox, u"Page size", 7, 7, 283, 57},
    {kIdPaperSize, K::kDropDownList, u"", 15, 19, 120, 12},
    {kIdUnits, K::kDropDownList, u"", 206, 19, 76, 12},
    {-1, K::kLabel, u"Width:", 15, 35, 28, 8},
    {kIdPageWidth, K::kEdit, u"", 45, 33, 50, 12},
    {kIdPageWidthSpin, K::kUpDown, u"", 95, 33, 11, 12},
    {-1, K::kLabel, u"Height:", 120, 35, 28, 8},
    {kIdPageHeight, K::kEdit, u"", 150, 33, 50, 12},
    {kIdPageHeightSpin, K::kUpDown, u"", 200, 33, 11, 12},
    {kIdPortrait, K::kRadioButton, u"Portrait", 15, 48, 60, 10, true},
    {kIdLandscape, K::kRadioButton, u"Landscape", 80, 48, 60, 10},
    {-1, K::kGroupBox, u"Margins", 7, 71, 283, 45},
    {-1, K::kLabel, u"Top:", 15, 85, 28, 8},
    {kIdMarginTop, K::kEdit, u"", 45, 83, 50, 12},
    {kIdMarginTopSpin, K::kUpDown, u"", 95, 83, 11, 12},
    {-1, K::kLabel, u"Left:", 120, 85, 28, 8},
    {kIdMarginLeft, K::kEdit, u"", 150, 83, 50, 12},
    {kIdMarginLeftSpin, K::kUpDown, u"", 200, 83, 11, 12},
    {-1, K::kLabel, u"Bottom:", 15, 99, 28, 8},
    {kIdMarginBottom, K::kEdit, u"", 45, 97, 50, 12},
    {kIdMarginBottomSpin, K::kUpDown, u"", 95, 97, 11, 12},
    {-1, K::kLabel, u"Right:", 120, 99, 28, 8},
    {kIdMarginRight, K::kEdit, u"", 150, 97, 50, 12},
    {kIdMarginRightSpin, K::kUpDown, u"", 200, 97, 11, 12},
};

constexpr DialogControl kSecurityPageControls[] = {
    {kIdUseSecurity, K::kCheckBox, u"Use PDF security", 7, 6, 150, 10},
    {-1, K::kGroupBox, u"Document Passwords", 7, 19, 283, 67},
    {kIdHasUserPassword, K::kCheckBox, u"Password Required to Open the Document", 15, 30, 267, 10},
    {-1, K::kLabel, u"Password:", 25, 44, 42, 8},
    {kIdUserPassword, K::kPasswordEdit, u"", 70, 42, 130, 12},
    {kIdHasOwnerPassword, K::kCheckBox, u"Password Required to Change Permissions and/or Passwords",
     15, 57, 267, 10},
    {-1, K::kLabel, u"Password:", 25, 71, 42, 8},
    {kIdOwnerPassword, K::kPasswordEdit, u"", 70, 69, 130, 12},
    // Everything stays within what the tab shows of the page, though the page is taller.
    {-1, K::kGroupBox, u"Document Permissions", 7, 89, 283, 99},
    {-1, K::kLabel, u"Encryption Level:", 15, 102, 60, 8},
    {kIdEncryptionLevel, K::kDropDownList, u"", 78, 100, 204, 12},
    // The larger of the two permission panels goes here, at its own size.
    {kIdPlaceholder, K::kPlaceholder, u"SubPlaceHolder", 12, 116, 273, 69},
};

// The permission panels sit inside the page's group box, which gives them their margins.
constexpr DialogControl kPermissions40Controls[] = {
    {kIdAllowPrinting40, K::kCheckBox, u"Allow Printing", 3, 2, 195, 10},
    {kIdAllowChanging40, K::kCheckBox, u"Allow Changing the Document", 3, 14, 195, 10},
    // Two blanks after "Allow": the text is kept as it has always read.
    {kIdAllowCopying40, K::kCheckBox, u"Allow  Content Copying or Extraction. Enable Accessibility",
     3, 26, 195, 10},
    {kIdAllowComments40, K::kCheckBox, u"Allow Adding or Changing Comments and Form Fields", 3, 38,
     195, 10},
};

constexpr DialogControl kPermissions128Controls[] = {
    {kIdContentAccess, K::kCheckBox, u"Enable Content Access for the Visually Impaired", 3, 2, 267,
     10},
    {kIdAllowCopying128, K::kCheckBox, u"Allow Content Copying and Extraction", 3, 14, 267, 10},
    {-1, K::kLabel, u"Changes Allowed:", 3, 29, 80, 8},
    {kIdChangesAllowed, K::kDropDownList, u"", 86, 27, 184, 12},
    {-1, K::kLabel, u"Printing the Document:", 3, 43, 80, 8},
    {kIdPrinting, K::kDropDownList, u"", 86, 41, 184, 12},
    {kIdEncryptMetadata, K::kCheckBox,
     u"Encrypt Document Metadata (Acrobat 6.0 and later compatible)", 3, 56, 267, 10},
};

constexpr DialogControl kAdvancedPageControls[] = {
    {kIdConvertAttachments, K::kCheckBox, u"Convert attachments", 6, 6, 150, 10},
    // The sub-page is larger than what the page shows of it; this marks only its corner and the
    // part that stays in view.
    {kIdPlaceholder, K::kPlaceholder, u"SubPlaceHolder", 6, 18, 284, 158},
};

constexpr DialogControl kAdvancedSubPageControls[] = {
    {-1, K::kLabel, u"Web page target width:", 7, 9, 90, 8},
    {kIdTargetWidth, K::kEdit, u"", 100, 7, 50, 12},
    {kIdTargetWidthSpin, K::kUpDown, u"", 150, 7, 11, 12},
    {-1, K::kGroupBox, u"PDF Specification", 7, 23, 276, 31},
    {-1, K::kLabel, u"Conform to Specification:", 15, 37, 90, 8},
    {kIdPdfVersion, K::kDropDownList, u"", 108, 35, 166, 12},
    {-1, K::kGroupBox, u"Compression", 7, 57, 276, 31},
    {-1, K::kLabel, u"Compression level:", 15, 71, 90, 8},
    {kIdCompression, K::kDropDownList, u"", 108, 69, 80, 12},
    {-1, K::kGroupBox, u"Run Options", 7, 91, 276, 72},
    {kIdRunApplication, K::kCheckBox, u"Run Application After conversion", 15, 103, 200, 10},
    {kIdDefaultApplication, K::kRadioButton, u"Default Application for PDF files", 25, 117, 200, 10,
     true},
    {kIdCustomApplication, K::kRadioButton, u"Application:", 25, 131, 58, 10},
    {kIdApplicationPath, K::kEdit, u"", 86, 130, 136, 12},
    {kIdBrowse, K::kPushButton, u"Browse", 226, 129, 50, 14},
    {-1, K::kLabel, u"Parameters:", 25, 146, 58, 8},
    {kIdApplicationParameters, K::kEdit, u"", 86, 144, 136, 12},
};

constexpr DialogTemplate MakePage(int id, short cx, short cy,
                                  std::span<const DialogControl> controls) {
  return DialogTemplate{id, u"", kFont, kPointSize, cx, cy, true, controls};
}

constexpr DialogTemplate kOptionsFrame{
    kOptionsFrameDialog, u"Marrowline Options", kFont, kPointSize, 311, 243, false, kFrameControls};
constexpr DialogTemplate kPdfPage = MakePage(kPdfPageDialog, 316, 180, kPdfPageControls);
constexpr DialogTemplate kSecurityPage =
    MakePage(kSecurityPageDialog, 310, 219, kSecurityPageControls);
constexpr DialogTemplate kPermissions40 =
    MakePage(kPermissions40Dialog, 201, 51, kPermissions40Controls);
constexpr DialogTemplate kPermissions128 =
    MakePage(kPermissions128Dialog, 273, 69, kPermissions128Controls);
constexpr DialogTemplate kAdvancedPage =
    MakePage(kAdvancedPageDialog, 316, 180, kAdvancedPageControls);
constexpr DialogTemplate kAdvancedSubPage =
    MakePage(kAdvancedSubPageDialog, 310, 176, kAdvancedSubPageControls);

constexpr std::array<const DialogTemplate*, 7> kAllTemplates = {
    &kOptionsFrame,   &kPdfPage,      &kSecurityPage,    &kPermissions40,
    &kPermissions128, &kAdvancedPage, &kAdvancedSubPage,
};

void AppendAscii(std::u16string& out, std::string_view text) {
  for (const char c : text) out.push_back(static_cast<char16_t>(c));
}

void AppendNumber(std::u16string& out, int number) { AppendAscii(out, std::to_string(number)); }

// A quoted resource-script string: inner quotes doubled.
void AppendQuoted(std::u16string& out, std::u16string_view text) {
  out.push_back(u'"');
  for (const char16_t c : text) {
    if (c == u'"') out.push_back(u'"');
    out.push_back(c);
  }
  out.push_back(u'"');
}

void AppendPlace(std::u16string& out, int x, int y, int cx, int cy) {
  AppendNumber(out, x);
  AppendAscii(out, ", ");
  AppendNumber(out, y);
  AppendAscii(out, ", ");
  AppendNumber(out, cx);
  AppendAscii(out, ", ");
  AppendNumber(out, cy);
}

// "KEYWORD "text", id, x, y, cx, cy" for the statements that take a text.
void AppendTextStatement(std::u16string& out, std::string_view keyword, const DialogControl& c) {
  AppendAscii(out, keyword);
  out.push_back(u' ');
  AppendQuoted(out, c.text);
  AppendAscii(out, ", ");
  AppendNumber(out, c.id);
  AppendAscii(out, ", ");
  AppendPlace(out, c.x, c.y, c.cx, c.cy);
}

void AppendControl(std::u16string& out, const DialogControl& c) {
  AppendAscii(out, "    ");
  switch (c.kind) {
    case K::kPushButton:
      AppendTextStatement(out, "PUSHBUTTON", c);
      break;
    case K::kDefaultPushButton:
      AppendTextStatement(out, "DEFPUSHBUTTON", c);
      break;
    case K::kCheckBox:
      AppendTextStatement(out, "AUTOCHECKBOX", c);
      break;
    case K::kRadioButton:
      AppendTextStatement(out, "AUTORADIOBUTTON", c);
      if (c.group) AppendAscii(out, ", WS_GROUP | WS_TABSTOP");
      break;
    case K::kGroupBox:
      AppendTextStatement(out, "GROUPBOX", c);
      break;
    case K::kLabel:
    case K::kPlaceholder:
      AppendTextStatement(out, "LTEXT", c);
      break;
    case K::kEdit:
    case K::kPasswordEdit:
      AppendAscii(out, "EDITTEXT ");
      AppendNumber(out, c.id);
      AppendAscii(out, ", ");
      AppendPlace(out, c.x, c.y, c.cx, c.cy);
      AppendAscii(
          out, c.kind == K::kPasswordEdit ? ", ES_PASSWORD | ES_AUTOHSCROLL" : ", ES_AUTOHSCROLL");
      break;
    case K::kUpDown:
      // The edit before it in the template becomes its buddy; it stays beside the edit rather
      // than inside it, and the numeric edit writes the text itself.
      AppendAscii(out, "CONTROL \"\", ");
      AppendNumber(out, c.id);
      AppendAscii(out, ", \"msctls_updown32\", UDS_AUTOBUDDY | UDS_ARROWKEYS, ");
      AppendPlace(out, c.x, c.y, c.cx, c.cy);
      break;
    case K::kDropDownList:
      AppendAscii(out, "COMBOBOX ");
      AppendNumber(out, c.id);
      AppendAscii(out, ", ");
      AppendPlace(out, c.x, c.y, c.cx, c.cy + kDropListExtent);
      AppendAscii(out, ", CBS_DROPDOWNLIST | WS_VSCROLL | WS_TABSTOP");
      break;
    case K::kTabControl:
      AppendAscii(out, "CONTROL \"\", ");
      AppendNumber(out, c.id);
      AppendAscii(out, ", \"SysTabControl32\", WS_TABSTOP, ");
      AppendPlace(out, c.x, c.y, c.cx, c.cy);
      break;
  }
  out.push_back(u'\n');
}

}  // namespace

const DialogTemplate* FindDialogTemplate(int id) noexcept {
  for (const DialogTemplate* dialog : kAllTemplates) {
    if (dialog->id == id) return dialog;
  }
  return nullptr;
}

std::span<const DialogTemplate* const> AllDialogTemplates() noexcept { return kAllTemplates; }

void WriteResourceScript(const DialogTemplate& dialog, WideString& script) {
  std::u16string out;
  AppendNumber(out, dialog.id);
  AppendAscii(out, " DIALOGEX 0, 0, ");
  AppendNumber(out, dialog.cx);
  AppendAscii(out, ", ");
  AppendNumber(out, dialog.cy);
  AppendAscii(out, dialog.child
                       ? "\nSTYLE DS_SETFONT | DS_FIXEDSYS | DS_CONTROL | WS_CHILD\n"
                       : "\nSTYLE DS_SETFONT | DS_FIXEDSYS | WS_POPUP | WS_CAPTION | WS_SYSMENU | "
                         "DS_MODALFRAME\n");
  if (!dialog.child) {
    AppendAscii(out, "CAPTION ");
    AppendQuoted(out, dialog.title);
    out.push_back(u'\n');
  }
  AppendAscii(out, "FONT ");
  AppendNumber(out, dialog.pointSize);
  AppendAscii(out, ", ");
  AppendQuoted(out, dialog.font);
  AppendAscii(out, "\nBEGIN\n");
  for (const DialogControl& control : dialog.controls) AppendControl(out, control);
  AppendAscii(out, "END\n");
  script.Append(out);
}

namespace {

// HRESULT EnableThemeDialogTexture(HWND, DWORD), with the Windows calling convention.
#if defined(_WIN32) && !defined(_WIN64)
using EnableThemeDialogTextureProc = HRESULT(__stdcall*)(HWND, DWORD);
#else
using EnableThemeDialogTextureProc = HRESULT (*)(HWND, DWORD);
#endif

// ETDT_ENABLETAB: the texture of a tab's body, for a page inside a tab control.
constexpr DWORD kEnableTab = 6;

// Loaded with the module so that the first page doesn't wait for it; never freed, as the module
// lives as long as the process may show a page. Null where the library is not there (always so
// outside Windows).
const HMODULE uxTheme = platform::LoadLibraryW(u"UxTheme.DLL");

}  // namespace

void EnableThemeTexture(platform::DialogWindow& page) noexcept {
  static const EnableThemeDialogTextureProc enableTexture = []() noexcept {
    if (uxTheme == nullptr) return EnableThemeDialogTextureProc{nullptr};
    return reinterpret_cast<EnableThemeDialogTextureProc>(
        platform::GetProcAddress(uxTheme, "EnableThemeDialogTexture"));
  }();
  if (enableTexture == nullptr) return;
  (void)enableTexture(page.Handle(), kEnableTab);
}

}  // namespace mrwl
