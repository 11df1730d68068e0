// The "Security" tab and its two permission panels.
#include "settings/security_page.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "foundation/wide_string.h"
#include "platform/ui.h"
#include "settings/dialog_templates.h"

namespace mrwl {

const std::array<std::u16string_view, 5> EncryptionLevelRows = {
    u"40-bit RC4 (Compatible with Acrobat 3.0 and above)",
    u"128-bit RC4 (Compatible with Acrobat 5.0 and above)",
    u"128-bit AES (Compatible with Acrobat 7.0 and above)",
    u"256-bit AES (Compatible with Acrobat 9.0 and above)",
    u"256-bit AES (Compatible with Acrobat X and above)",
};

const std::array<std::u16string_view, 5> ChangesAllowedRows = {
    u"None",
    u"Only Document Assembly",
    u"Only Form Field Fill-in or Signing",
    u"Comment Authoring, Form Field Fill-in or Signing",
    u"General Editing, Comment and Form Field Authoring",
};

const std::array<std::u16string_view, 3> PrintingRows = {
    u"Not Allowed",
    u"Low Resolution",
    u"Fully Allowed",
};

namespace {

// A text read from an edit holds at most this many characters: the read goes through a buffer
// of 1024 units, one of which the terminator takes.
constexpr std::size_t kMaxTextLength = 1023;

constexpr std::u16string_view kNoPasswordChosen =
    u"Either a Document Open Password or Permissions Password should be specified.";
constexpr std::u16string_view kEmptyPassword =
    u"Please either deselect 'Password Required' option or enter the password.";
constexpr std::u16string_view kSamePasswords =
    u"The passwords to document open and permissions cannot be the same. Please enter different "
    u"password in one of passwords fields.";

// The text of an edit as a read through the fixed buffer gives it.
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

void FillRows(platform::DialogWindow& window, int id, std::span<const std::u16string_view> rows) {
  window.ClearRows(id);
  for (const std::u16string_view row : rows) (void)window.AddRow(id, row);
}

// A stored index that is no row (a damaged value, say) selects none, as the list itself does.
int RowOf(std::uint32_t stored) { return static_cast<int>(stored); }

}  // namespace

void SecurityPage::OnInit(platform::DialogWindow& window) {
  window_ = &window;
  EnableThemeTexture(window);
  for (const std::u16string_view row : EncryptionLevelRows) {
    (void)window.AddRow(kIdEncryptionLevel, row);
  }

  panelPlace_ = window.ControlRect(kIdPlaceholder);
  window.Show(kIdPlaceholder, false);

  // A panel that cannot be made leaves its handler without a window; the page goes on and the
  // panel's values are neither shown nor saved.
  if (const platform::DialogTemplate* panel = FindDialogTemplate(kPermissions40Dialog)) {
    (void)window.CreateChild(*panel, panel40_, 0);
  }
  if (const platform::DialogTemplate* panel = FindDialogTemplate(kPermissions128Dialog)) {
    (void)window.CreateChild(*panel, panel128_, 0);
  }

  if (platform::DialogWindow* panel = panel128_.Window()) panel->ShowWindow(false);
  if (platform::DialogWindow* panel = panel40_.Window()) {
    const platform::DialogRect size = panel->TemplateSize();
    panel->SetPlace({panelPlace_.left, panelPlace_.top, panelPlace_.left + size.Width(),
                     panelPlace_.top + size.Height()});
    panel->ShowWindow(true);
  }
}

void SecurityPage::OnCommand(platform::DialogWindow& window, int id, int code) {
  (void)window;
  if (id == kIdEncryptionLevel && code == CBN_SELCHANGE) {
    ShowPanelForLevel();
  } else if ((id == kIdUseSecurity || id == kIdHasOwnerPassword) && code == BN_CLICKED) {
    // A click on 285 runs no rule on purpose: each password edit stays usable with its box
    // unticked.
    ApplyEnabling();
  }
}

void SecurityPage::Load(AddinSettings& record) {
  record_ = &record;
  if (window_ == nullptr) return;
  const SecuritySettings& security = *record.Security;

  if (platform::DialogWindow* panel = panel40_.Window()) {
    panel->SetChecked(kIdAllowPrinting40, security.sec40AllowPrinting);
    panel->SetChecked(kIdAllowChanging40, security.sec40AllowChanging);
    panel->SetChecked(kIdAllowCopying40, security.sec40AllowCopying);
    panel->SetChecked(kIdAllowComments40, security.sec40AllowComments);
  }

  if (platform::DialogWindow* panel = panel128_.Window()) {
    panel->SetChecked(kIdContentAccess, security.sec128ContentAccess);
    panel->SetChecked(kIdAllowCopying128, security.sec128AllowCopying);
    panel->SetChecked(kIdEncryptMetadata, security.sec128EncryptMeta);
    FillRows(*panel, kIdChangesAllowed, ChangesAllowedRows);
    FillRows(*panel, kIdPrinting, PrintingRows);
    panel->Select(kIdChangesAllowed, RowOf(security.sec128Changes));
    panel->Select(kIdPrinting, RowOf(security.sec128Printing));
  }

  window_->SetChecked(kIdUseSecurity, security.secEnabled);
  window_->SetChecked(kIdHasUserPassword, security.secHasUserPassword);
  window_->SetChecked(kIdHasOwnerPassword, security.secHasOwnerPassword);
  window_->SetText(kIdUserPassword, UpToTerminator(security.secUserPassword.view()));
  window_->SetText(kIdOwnerPassword, UpToTerminator(security.secOwnerPassword.view()));
  window_->Select(kIdEncryptionLevel, RowOf(security.secType));

  ShowPanelForLevel();
  ApplyEnabling();
}

void SecurityPage::Save() {
  if (window_ == nullptr || record_ == nullptr) return;
  SecuritySettings& security = *record_->Security;

  security.secEnabled = window_->IsChecked(kIdUseSecurity);
  security.secHasUserPassword = window_->IsChecked(kIdHasUserPassword);
  security.secHasOwnerPassword = window_->IsChecked(kIdHasOwnerPassword);
  // A password is kept whether or not its box is ticked, so that ticking it again later brings
  // it back.
  (void)security.secUserPassword.Assign(ReadText(*window_, kIdUserPassword));
  (void)security.secOwnerPassword.Assign(ReadText(*window_, kIdOwnerPassword));
  // A selection of none is stored as it reads, 0xFFFFFFFF, as for every list of the dialog.
  security.secType = static_cast<std::uint32_t>(window_->Selection(kIdEncryptionLevel));

  if (const platform::DialogWindow* panel = panel40_.Window()) {
    security.sec40AllowPrinting = panel->IsChecked(kIdAllowPrinting40);
    security.sec40AllowChanging = panel->IsChecked(kIdAllowChanging40);
    security.sec40AllowCopying = panel->IsChecked(kIdAllowCopying40);
    security.sec40AllowComments = panel->IsChecked(kIdAllowComments40);
  }

  if (const platform::DialogWindow* panel = panel128_.Window()) {
    security.sec128Changes = static_cast<std::uint32_t>(panel->Selection(kIdChangesAllowed));
    security.sec128Printing = static_cast<std::uint32_t>(panel->Selection(kIdPrinting));
    security.sec128ContentAccess = panel->IsChecked(kIdContentAccess);
    security.sec128AllowCopying = panel->IsChecked(kIdAllowCopying128);
    security.sec128EncryptMeta = panel->IsChecked(kIdEncryptMetadata);
  }
}

bool SecurityPage::Validate() {
  if (window_ == nullptr) return true;
  platform::DialogWindow& window = *window_;
  if (!window.IsChecked(kIdUseSecurity)) return true;

  const bool user = window.IsChecked(kIdHasUserPassword);
  const bool owner = window.IsChecked(kIdHasOwnerPassword);
  if (!user && !owner) {
    (void)window.ShowMessage(kNoPasswordChosen, u"", MB_OK);
    return false;
  }

  const std::u16string userText = ReadText(window, kIdUserPassword);
  const std::u16string ownerText = ReadText(window, kIdOwnerPassword);
  if ((user && userText.empty()) || (owner && ownerText.empty())) {
    (void)window.ShowMessage(kEmptyPassword, u"", MB_OK);
    return false;
  }
  // Code unit by code unit: passwords that differ only in case are different.
  if (user && owner && userText == ownerText) {
    (void)window.ShowMessage(kSamePasswords, u"", MB_OK);
    return false;
  }
  return true;
}

void SecurityPage::ShowPanelForLevel() {
  if (window_ == nullptr) return;
  // Only row 0 is 40-bit RC4; every other selection, none included, has the stronger
  // permissions.
  const bool weak = window_->Selection(kIdEncryptionLevel) == 0;
  platform::DialogWindow* shown = weak ? panel40_.Window() : panel128_.Window();
  platform::DialogWindow* hidden = weak ? panel128_.Window() : panel40_.Window();
  if (hidden != nullptr) hidden->ShowWindow(false);
  if (shown != nullptr) {
    const platform::DialogRect size = shown->TemplateSize();
    shown->SetPlace({panelPlace_.left, panelPlace_.top, panelPlace_.left + size.Width(),
                     panelPlace_.top + size.Height()});
    shown->ShowWindow(true);
  }
}

void SecurityPage::ApplyEnabling() {
  if (window_ == nullptr) return;
  const bool on = window_->IsChecked(kIdUseSecurity);
  // Permissions mean something only with a password that guards them; encrypting the metadata
  // needs no more than security itself.
  const bool locked = on && window_->IsChecked(kIdHasOwnerPassword);

  if (platform::DialogWindow* panel = panel40_.Window()) {
    for (const int id :
         {kIdAllowPrinting40, kIdAllowChanging40, kIdAllowCopying40, kIdAllowComments40}) {
      panel->Enable(id, locked);
    }
  }
  if (platform::DialogWindow* panel = panel128_.Window()) {
    for (const int id : {kIdChangesAllowed, kIdPrinting, kIdContentAccess, kIdAllowCopying128}) {
      panel->Enable(id, locked);
    }
    panel->Enable(kIdEncryptMetadata, on);
  }
  for (const int id : {kIdHasUserPassword, kIdHasOwnerPassword, kIdUserPassword, kIdOwnerPassword,
                       kIdEncryptionLevel}) {
    window_->Enable(id, on);
  }
}

}  // namespace mrwl
