#include "settings/options_dialog.h"

#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "platform/ui.h"
#include "settings/options_dialog_test_util.h"

namespace mrwl {
namespace {

using testing::Text;

// The fields the dialog edits, as one text, for comparing whole records.
std::u16string EditedFields(const AddinSettings& s) {
  const SecuritySettings& sec = *s.Security;
  std::u16string out;
  for (const std::uint32_t n :
       {std::uint32_t{s.RunPDFApp}, std::uint32_t{s.ConvertAttachments}, s.PDFSpecification,
        s.CompressionLevel, s.WebPageTargetWidth, s.PaperSize, std::uint32_t{sec.secEnabled},
        std::uint32_t{sec.secHasUserPassword}, std::uint32_t{sec.secHasOwnerPassword}, sec.secType,
        sec.sec128Changes, std::uint32_t{s.RunApp->RunCustPDFApp}}) {
    for (const char c : std::to_string(n)) out += static_cast<char16_t>(c);
    out += u' ';
  }
  return out + Text(sec.secUserPassword) + u'|' + Text(sec.secOwnerPassword) + u'|' +
         Text(s.RunApp->RunPDFPath) + u'|' + Text(s.RunApp->RunPDFParams);
}

// A record far from the defaults, as a user's registry might hold it.
void ChangeEditedFields(AddinSettings& s) {
  s.ConvertAttachments = s.RunPDFApp = false;
  s.PDFSpecification = 0x10006;
  s.CompressionLevel = 2;
  s.WebPageTargetWidth = 640;
  s.PaperSize = 1;
  SecuritySettings& sec = *s.Security;
  sec.secEnabled = sec.secHasUserPassword = sec.secHasOwnerPassword = true;
  (void)sec.secUserPassword.Assign(u"open sesame");
  (void)sec.secOwnerPassword.Assign(u"owner");
  sec.secType = 3;
  sec.sec128Changes = 4;
  s.RunApp->RunCustPDFApp = true;
  (void)s.RunApp->RunPDFPath.Assign(u"/opt/viewer/view.exe");
}

class OptionsDialogTest : public testing::OptionsDialogTest {
 protected:
  // Security on (unless `off`), with the given boxes ticked and texts typed.
  void SetUpSecurity(bool user, bool owner, std::u16string_view userText,
                     std::u16string_view ownerText, bool off = false) {
    frame_->ChooseTab(kIdTabs, 1);
    Security().Click(kIdUseSecurity);
    if (user) Security().Click(kIdHasUserPassword);
    if (owner) Security().Click(kIdHasOwnerPassword);
    Security().Type(kIdUserPassword, userText);
    Security().Type(kIdOwnerPassword, ownerText);
    if (off) Security().Click(kIdUseSecurity);
  }
};

TEST_F(OptionsDialogTest, OpensWithThreeTabsAndOnlyTheSelectedPageShowing) {
  Open();
  EXPECT_EQ((std::vector<std::u16string>{u"PDF page", u"Security", u"Advanced"}),
            frame_->TabTexts(kIdTabs));
  const int pages[] = {kPdfPageDialog, kSecurityPageDialog, kAdvancedPageDialog};
  for (const int shown : {0, 2, 1}) {
    SCOPED_TRACE(shown);
    frame_->ChooseTab(kIdTabs, shown);
    for (int index = 0; index < 3; ++index) {
      EXPECT_EQ(index == shown, Dialog(pages[index]).IsWindowVisible()) << index;
    }
    EXPECT_EQ(frame_->TabDisplayArea(kIdTabs), Dialog(pages[shown]).Place());
  }
}

TEST_F(OptionsDialogTest, ValidationRefusesInItsOrderAndBringsSecurityToTheFront) {
  const std::u16string_view none =
      u"|Either a Document Open Password or Permissions Password should be specified.";
  const std::u16string_view empty =
      u"|Please either deselect 'Password Required' option or enter the password.";
  const std::u16string_view same =
      u"|The passwords to document open and permissions cannot be the same. Please enter "
      u"different password in one of passwords fields.";
  const struct {
    const char* name;
    bool user, owner;
    std::u16string_view userText, ownerText;
    bool off;
    std::u16string_view message;  // empty: OK passes
  } cases[] = {
      {"no box ticked, texts typed", false, false, u"a", u"b", false, none},
      {"no box ticked, nothing typed", false, false, u"", u"", false, none},
      {"open box ticked, empty", true, false, u"", u"owner", false, empty},
      {"permissions box ticked, empty", false, true, u"user", u"", false, empty},
      {"both ticked, both empty", true, true, u"", u"", false, empty},
      {"both ticked, same text", true, true, u"Secret", u"Secret", false, same},
      {"differ only in case", true, true, u"Secret", u"secret", false, u""},
      {"unticked owner text may equal", true, false, u"same", u"same", false, u""},
      {"security off", true, false, u"", u"kept", true, u""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    record_.ResetSettings();  // an earlier case may have passed and saved
    Open();
    SetUpSecurity(c.user, c.owner, c.userText, c.ownerText, c.off);
    frame_->ChooseTab(kIdTabs, 2);
    const std::u16string before = EditedFields(record_);
    const bool keyBefore = SettingsKeyExists();
    Ok();
    if (c.message.empty()) {
      EXPECT_TRUE(frame_->Messages().empty());
      EXPECT_EQ(IDOK, frame_->Result());
      // Ticks and texts are saved as they stand, whether or not they took part.
      EXPECT_EQ(!c.off, record_.Security->secEnabled);
      EXPECT_EQ(c.ownerText, Text(record_.Security->secOwnerPassword));
      continue;
    }
    EXPECT_EQ(std::vector<std::u16string>{std::u16string(c.message)}, frame_->Messages());
    EXPECT_FALSE(frame_->Ended());
    EXPECT_EQ(1, frame_->SelectedTab(kIdTabs));
    EXPECT_TRUE(Security().IsWindowVisible());
    EXPECT_FALSE(Advanced().IsWindowVisible());
    EXPECT_EQ(before, EditedFields(record_));
    EXPECT_EQ(keyBefore, SettingsKeyExists());
  }
}

TEST_F(OptionsDialogTest, CancelAndTheCloseBoxReadNoPageAndWriteNothing) {
  const struct {
    const char* name;
    bool reset, closeBox;
  } ways[] = {{"Cancel", false, false}, {"close box", false, true}, {"Reset", true, false}};
  for (const auto& way : ways) {
    SCOPED_TRACE(way.name);
    record_.ResetSettings();
    if (way.reset) ChangeEditedFields(record_);
    Open();
    SetUpSecurity(true, true, u"one", u"two");
    frame_->ChooseTab(kIdTabs, 2);
    Advanced().Click(kIdConvertAttachments);
    if (way.reset) frame_->Click(kIdReset);
    EXPECT_FALSE(frame_->Ended());
    way.closeBox ? frame_->Close() : frame_->Click(kIdCancel);
    EXPECT_EQ(IDCANCEL, frame_->Result());
    // Reset puts the defaults in the record at once; the registry waits for OK.
    EXPECT_EQ(EditedFields(AddinSettings()), EditedFields(record_));
    EXPECT_FALSE(SettingsKeyExists());
  }
}

TEST_F(OptionsDialogTest, ResetThenOkWritesTheDefaultsWithEmptyPasswords) {
  ChangeEditedFields(record_);
  record_.SaveSettings();
  ASSERT_EQ((std::pair<DWORD, DWORD>{REG_BINARY, 32}), ValueShape(u"secUserPassword"));
  record_.LoadSettings();
  Open();
  frame_->Click(kIdReset);
  Ok();
  EXPECT_EQ(IDOK, frame_->Result());

  AddinSettings stored;
  ChangeEditedFields(stored);  // so that a value missing from the key would show
  stored.LoadSettings();
  EXPECT_EQ(EditedFields(AddinSettings()), EditedFields(stored));
  for (const char16_t* name : {u"secUserPassword", u"secOwnerPassword"}) {
    EXPECT_EQ((std::pair<DWORD, DWORD>{REG_BINARY, 0}), ValueShape(name));
  }
}

TEST_F(OptionsDialogTest, ResetWithAdvancedShowingKeepsItAndResetsEveryPage) {
  ChangeEditedFields(record_);
  Open(2);
  frame_->Click(kIdReset);
  EXPECT_EQ(2, frame_->SelectedTab(kIdTabs));
  EXPECT_TRUE(Advanced().IsWindowVisible());
  EXPECT_FALSE(Security().IsWindowVisible());
  EXPECT_EQ(1, Sub().Selection(kIdPdfVersion));
  EXPECT_TRUE(Advanced().IsChecked(kIdConvertAttachments));

  frame_->ChooseTab(kIdTabs, 1);
  EXPECT_FALSE(Security().IsChecked(kIdUseSecurity));
  EXPECT_EQ(u"", Security().GetText(kIdUserPassword));
  frame_->ChooseTab(kIdTabs, 0);
  EXPECT_EQ(11, Dialog(kPdfPageDialog).Selection(kIdPaperSize));
}

TEST_F(OptionsDialogTest, ShowOptionsDialogWithoutADesktopAnswersMinusOne) {
  testing::ScopedEnv display("DISPLAY");
  testing::ScopedEnv wayland("WAYLAND_DISPLAY");
  ASSERT_TRUE(display.Unset() && wayland.Unset());
  ChangeEditedFields(record_);
  const std::u16string before = EditedFields(record_);
  EXPECT_EQ(-1, ShowOptionsDialog(record_, nullptr));
  EXPECT_EQ(before, EditedFields(record_));
  EXPECT_FALSE(SettingsKeyExists());
}

}  // namespace
}  // namespace mrwl
