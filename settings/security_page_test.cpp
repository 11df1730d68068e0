#include "settings/security_page.h"

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "settings/options_dialog_test_util.h"

namespace mrwl {
namespace {

// Whether list `id` holds the rows of `table`, in order and nothing more.
template <typename Table>
bool HoldsRows(const HeadlessDialog& dialog, int id, const Table& table) {
  std::vector<std::u16string> rows;
  for (int row = 0; row < dialog.RowCount(id); ++row) rows.push_back(dialog.RowText(id, row));
  return std::equal(rows.begin(), rows.end(), table.begin(), table.end());
}

class SecurityPageTest : public testing::OptionsDialogTest {};

TEST_F(SecurityPageTest, LoadFillsTheListsAndOnlyRowZeroSwapsThePanels) {
  SecuritySettings& sec = *record_.Security;
  sec.secEnabled = true;  // the level list is usable only with security on
  sec.secType = 3;
  sec.sec128Changes = 4;
  sec.sec128Printing = 1;
  sec.sec40AllowComments = true;
  (void)sec.secOwnerPassword.Assign({u"guard\0", 6});  // as a load from the registry leaves it
  Open(1);
  EXPECT_FALSE(Security().IsVisible(kIdPlaceholder));
  EXPECT_TRUE(HoldsRows(Security(), kIdEncryptionLevel, EncryptionLevelRows));
  EXPECT_EQ(u"guard", Security().GetText(kIdOwnerPassword));
  EXPECT_TRUE(HoldsRows(Panel128(), kIdChangesAllowed, ChangesAllowedRows));
  EXPECT_TRUE(HoldsRows(Panel128(), kIdPrinting, PrintingRows));
  EXPECT_EQ(4, Panel128().Selection(kIdChangesAllowed));
  EXPECT_EQ(1, Panel128().Selection(kIdPrinting));
  EXPECT_TRUE(Panel40().IsChecked(kIdAllowComments40));

  const struct {
    int row;  // -1: as loaded
    bool weak;
  } steps[] = {{-1, false}, {1, false}, {4, false}, {0, true}, {2, false}, {0, true}};
  for (const auto& step : steps) {
    SCOPED_TRACE(step.row);
    if (step.row >= 0) Security().Choose(kIdEncryptionLevel, step.row);
    HeadlessDialog& shown = step.weak ? Panel40() : Panel128();
    EXPECT_TRUE(shown.IsWindowVisible());
    EXPECT_FALSE((step.weak ? Panel128() : Panel40()).IsWindowVisible());
    EXPECT_EQ(PlaceOf(Security(), shown), shown.Place());
  }

  // A second load (Reset) fills the lists anew rather than behind the old rows.
  frame_->Click(kIdReset);
  EXPECT_TRUE(HoldsRows(Security(), kIdEncryptionLevel, EncryptionLevelRows));
  EXPECT_TRUE(HoldsRows(Panel128(), kIdChangesAllowed, ChangesAllowedRows));
  EXPECT_TRUE(HoldsRows(Panel128(), kIdPrinting, PrintingRows));
}

TEST_F(SecurityPageTest, PermissionsNeedTheirPasswordAndMetadataOnlySecurity) {
  const struct {
    bool on, owner;
  } cases[] = {{false, false}, {true, false}, {true, true}, {false, true}};
  Open(1);
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << "on " << c.on << " owner " << c.owner);
    // The owner box is ticked while it can be clicked, then security is set as the case asks.
    if (!Security().IsChecked(kIdUseSecurity)) Security().Click(kIdUseSecurity);
    if (Security().IsChecked(kIdHasOwnerPassword) != c.owner) {
      Security().Click(kIdHasOwnerPassword);
    }
    if (!c.on) Security().Click(kIdUseSecurity);

    const bool locked = c.on && c.owner;
    for (const int id :
         {kIdAllowPrinting40, kIdAllowChanging40, kIdAllowCopying40, kIdAllowComments40}) {
      EXPECT_EQ(locked, Panel40().IsEnabled(id)) << id;
    }
    for (const int id : {kIdChangesAllowed, kIdPrinting, kIdContentAccess, kIdAllowCopying128}) {
      EXPECT_EQ(locked, Panel128().IsEnabled(id)) << id;
    }
    EXPECT_EQ(c.on, Panel128().IsEnabled(kIdEncryptMetadata));
    for (const int id : {kIdHasUserPassword, kIdHasOwnerPassword, kIdUserPassword, kIdOwnerPassword,
                         kIdEncryptionLevel}) {
      EXPECT_EQ(c.on, Security().IsEnabled(id)) << id;
    }
  }
}

TEST_F(SecurityPageTest, DisabledPermissionsAndUntickedPasswordsAreSavedAsTheyStand) {
  SecuritySettings& sec = *record_.Security;
  sec.sec40AllowPrinting = sec.sec128ContentAccess = true;
  sec.sec128Changes = sec.sec128Printing = 2;
  Open(1);
  Security().Click(kIdUseSecurity);
  Security().Click(kIdHasUserPassword);
  Security().Type(kIdUserPassword, u"open");
  Security().Type(kIdOwnerPassword, u"kept");
  Security().Choose(kIdEncryptionLevel, 4);
  ASSERT_FALSE(Panel128().IsEnabled(kIdChangesAllowed));
  Ok();
  ASSERT_TRUE(frame_->Ended());
  EXPECT_FALSE(sec.secHasOwnerPassword || sec.sec40AllowChanging);
  EXPECT_EQ(u"kept", sec.secOwnerPassword.view());
  EXPECT_TRUE(sec.sec40AllowPrinting && sec.sec128ContentAccess && sec.sec128EncryptMeta);
  EXPECT_EQ(std::tuple(4u, 2u, 2u), std::tuple(sec.secType, sec.sec128Changes, sec.sec128Printing));

  // Once unlocked, the user's own changes of the panel are what is saved.
  Open(1);
  Security().Click(kIdHasOwnerPassword);
  Security().Type(kIdOwnerPassword, u"guard");
  Panel128().Choose(kIdPrinting, 0);
  Panel128().Click(kIdEncryptMetadata);
  Ok();
  ASSERT_TRUE(frame_->Ended());
  EXPECT_EQ(0u, sec.sec128Printing);
  EXPECT_FALSE(sec.sec128EncryptMeta);
}

TEST_F(SecurityPageTest, PasswordsAreReadUpTo1023Characters) {
  Open(1);
  Security().Click(kIdUseSecurity);
  Security().Click(kIdHasUserPassword);
  Security().Click(kIdHasOwnerPassword);
  Security().Type(kIdUserPassword, std::u16string(1023, u'x') + u'1');
  Security().Type(kIdOwnerPassword, std::u16string(1023, u'x') + u'2');
  Ok();  // alike in what is read
  ASSERT_EQ(1u, frame_->Messages().size());
  EXPECT_TRUE(frame_->Messages()[0].starts_with(u"|The passwords to document open"));

  Security().Type(kIdOwnerPassword, std::u16string(1023, u'o'));
  Ok();
  ASSERT_TRUE(frame_->Ended());
  EXPECT_EQ(std::u16string(1023, u'x'), record_.Security->secUserPassword.view());
  EXPECT_EQ(std::u16string(1023, u'o'), record_.Security->secOwnerPassword.view());
}

}  // namespace
}  // namespace mrwl
