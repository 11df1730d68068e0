#include "settings/pdf_page.h"

#include <cstdint>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "foundation/wide_string.h"
#include "settings/addin_settings.h"
#include "settings/dialog_templates.h"
#include "settings/headless_dialog.h"

namespace mrwl {
namespace {

// The page in a window-less dialog over its own template, loaded from a record with defaults.
class PdfPageTest : public ::testing::Test {
 protected:
  void Open() {
    dialog_.Open();
    page_.Load(record_);
  }
  std::string Shown(int id) const { return WideToUtf8(dialog_.GetText(id)); }
  void ChooseUnit(int row) { dialog_.Choose(kIdUnits, row); }
  void ChoosePaper(int row) { dialog_.Choose(kIdPaperSize, row); }
  // Re-writes every edit under the same unit, as a change of unit does.
  void Redisplay() { ChooseUnit(dialog_.Selection(kIdUnits)); }

  AddinSettings record_{u"Software\\Marrowline Tests\\PdfPage"};
  PdfPage page_;
  HeadlessDialog dialog_{*FindDialogTemplate(kPdfPageDialog), page_};
};

TEST_F(PdfPageTest, DefaultsShowA4InWholePointsAndSaveThem) {
  Open();
  EXPECT_EQ(dialog_.Selection(kIdPaperSize), 11);
  EXPECT_EQ(dialog_.RowCount(kIdPaperSize), 18);
  EXPECT_EQ(dialog_.RowText(kIdUnits, 1), u"inches");
  EXPECT_EQ(Shown(kIdPageWidth), "595.0");
  EXPECT_EQ(Shown(kIdPageHeight), "842.0");
  EXPECT_EQ(Shown(kIdMarginLeft), "0.0");
  EXPECT_TRUE(dialog_.IsChecked(kIdPortrait));
  EXPECT_FALSE(dialog_.IsChecked(kIdLandscape));
  EXPECT_FALSE(dialog_.IsEnabled(kIdPageWidth));
  EXPECT_FALSE(dialog_.IsEnabled(kIdPageHeight));
  EXPECT_TRUE(dialog_.IsEnabled(kIdPageWidthSpin));
  EXPECT_TRUE(dialog_.IsEnabled(kIdPageHeightSpin));

  page_.Save();
  EXPECT_EQ(record_.PageWidth, 595.0);
  EXPECT_EQ(record_.PageHeight, 842.0);
  EXPECT_EQ(record_.MarginTop, 0.0);
  EXPECT_EQ(record_.PaperSize, 11u);
  EXPECT_EQ(record_.Units, 0u);
  EXPECT_FALSE(record_.LandscapeOrienatation);
}

TEST_F(PdfPageTest, CustomKeepsTheStoredNumbers) {
  record_.PaperSize = 0;
  record_.MarginRight = 12.5;
  Open();
  EXPECT_EQ(Shown(kIdPageWidth), "595.3");
  EXPECT_EQ(Shown(kIdPageHeight), "841.9");
  EXPECT_EQ(Shown(kIdMarginRight), "12.5");
  EXPECT_TRUE(dialog_.IsEnabled(kIdPageWidth));
  page_.Save();
  EXPECT_EQ(record_.PageWidth, 595.3);
  EXPECT_EQ(record_.PageHeight, 841.9);
  EXPECT_EQ(record_.MarginRight, 12.5);
}

TEST_F(PdfPageTest, UnitsChangeTheTextButNotTheValue) {
  Open();
  ChooseUnit(1);
  EXPECT_EQ(Shown(kIdPageWidth), "8.264");
  EXPECT_EQ(Shown(kIdPageHeight), "11.694");
  ChooseUnit(0);
  EXPECT_EQ(Shown(kIdPageWidth), "595.0");
  ChooseUnit(2);
  EXPECT_EQ(Shown(kIdPageWidth), "210.0");
  page_.Save();
  EXPECT_EQ(record_.PageWidth, 595.0);
  EXPECT_EQ(record_.Units, 2u);
}

TEST_F(PdfPageTest, StoredUnitIsShownAndAnUnknownOneFallsToPoints) {
  for (const auto& [units, row, width] :
       {std::tuple{2u, 2, "210.0"}, std::tuple{1u, 1, "8.264"}, std::tuple{3u, 0, "595.0"}}) {
    SCOPED_TRACE(units);
    AddinSettings record(u"Software\\Marrowline Tests\\PdfPage");
    record.Units = units;
    PdfPage page;
    HeadlessDialog dialog(*FindDialogTemplate(kPdfPageDialog), page);
    dialog.Open();
    page.Load(record);
    EXPECT_EQ(dialog.Selection(kIdUnits), row);
    EXPECT_EQ(WideToUtf8(dialog.GetText(kIdPageWidth)), width);
  }
}

TEST_F(PdfPageTest, UpDownClickOnADisabledEditMovesOneMillimetre) {
  record_.Units = 2;
  Open();
  EXPECT_TRUE(dialog_.Spin(kIdPageWidthSpin, 1));
  EXPECT_EQ(Shown(kIdPageWidth), "211.0");
  EXPECT_TRUE(dialog_.Spin(kIdMarginBottomSpin, -1));
  EXPECT_EQ(Shown(kIdMarginBottom), "0.0");
  page_.Save();
  EXPECT_DOUBLE_EQ(record_.PageWidth, 597.833);
  EXPECT_EQ(record_.MarginBottom, 0.0);
}

TEST_F(PdfPageTest, TypedMarginsAreReadOnSaveAndClamped) {
  struct Case {
    int edit;
    const char16_t* typed;
    double saved;
    const char* shownAfterwards;
  };
  const Case cases[] = {
      {kIdMarginTop, u"12.34567", 12.346, "12.3"},
      {kIdMarginLeft, u".5", 7.0, "7.0"},
      {kIdMarginBottom, u"abc", 7.0, "7.0"},
      {kIdMarginRight, u"-3", 0.0, "0.0"},
      {kIdMarginTop, u"", 0.0, "0.0"},
      {kIdMarginLeft, u"5000", 1000.0, "1000.0"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(WideToUtf8(c.typed));
    record_.MarginTop = record_.MarginLeft = record_.MarginBottom = record_.MarginRight = 7.0;
    PdfPage page;
    HeadlessDialog dialog(*FindDialogTemplate(kPdfPageDialog), page);
    dialog.Open();
    page.Load(record_);
    dialog.Type(c.edit, c.typed);
    page.Save();
    const double saved = c.edit == kIdMarginTop      ? record_.MarginTop
                         : c.edit == kIdMarginLeft   ? record_.MarginLeft
                         : c.edit == kIdMarginBottom ? record_.MarginBottom
                                                     : record_.MarginRight;
    EXPECT_DOUBLE_EQ(saved, c.saved);
    // Save only reads; the text changes at the next write, which a unit change makes.
    EXPECT_EQ(WideToUtf8(dialog.GetText(c.edit)), WideToUtf8(c.typed));
    dialog.Choose(kIdUnits, 0);
    EXPECT_EQ(WideToUtf8(dialog.GetText(c.edit)), c.shownAfterwards);
  }
}

TEST_F(PdfPageTest, BlankWidthFallsToItsMinimum) {
  record_.PaperSize = 0;
  Open();
  dialog_.Type(kIdPageWidth, u"");
  Redisplay();
  EXPECT_EQ(Shown(kIdPageWidth), "0.0");
  page_.Save();
  EXPECT_EQ(record_.PageWidth, 0.005);
}

TEST_F(PdfPageTest, AFractionThatRoundsUpShowsAsPointOne) {
  record_.Units = 1;
  Open();
  dialog_.Type(kIdMarginTop, u"0.9996");
  Redisplay();
  EXPECT_EQ(Shown(kIdMarginTop), "0.1");
  page_.Save();
  EXPECT_DOUBLE_EQ(record_.MarginTop, 71.971);
}

TEST_F(PdfPageTest, ChoosingAPaperSetsItsSizeAndLocksTheEdits) {
  Open();
  ChoosePaper(3);
  EXPECT_EQ(Shown(kIdPageWidth), "1224.0");
  EXPECT_EQ(Shown(kIdPageHeight), "492.0");
  EXPECT_FALSE(dialog_.IsEnabled(kIdPageWidth));
  ChoosePaper(0);
  EXPECT_TRUE(dialog_.IsEnabled(kIdPageWidth));
  EXPECT_TRUE(dialog_.IsEnabled(kIdPageHeight));
  EXPECT_EQ(Shown(kIdPageWidth), "1224.0");
  dialog_.Type(kIdPageHeight, u"100");
  page_.Save();
  EXPECT_EQ(record_.PaperSize, 0u);
  EXPECT_EQ(record_.PageWidth, 1224.0);
  EXPECT_EQ(record_.PageHeight, 100.0);
}

TEST_F(PdfPageTest, PaperSizePastTheTableSelectsNoneAndSavesIt) {
  for (const std::uint32_t stored : {18u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(stored);
    AddinSettings record(u"Software\\Marrowline Tests\\PdfPage");
    record.PaperSize = stored;
    PdfPage page;
    HeadlessDialog dialog(*FindDialogTemplate(kPdfPageDialog), page);
    dialog.Open();
    page.Load(record);
    EXPECT_EQ(dialog.Selection(kIdPaperSize), -1);
    EXPECT_FALSE(dialog.IsEnabled(kIdPageWidth));
    EXPECT_FALSE(dialog.IsEnabled(kIdPageHeight));
    EXPECT_TRUE(dialog.IsEnabled(kIdPageWidthSpin));
    EXPECT_EQ(WideToUtf8(dialog.GetText(kIdPageWidth)), "595.3");
    page.Save();
    EXPECT_EQ(record.PaperSize, 0xFFFFFFFFu);
  }
}

TEST_F(PdfPageTest, LandscapeTravelsAsAFlagAlone) {
  record_.LandscapeOrienatation = true;
  Open();
  EXPECT_TRUE(dialog_.IsChecked(kIdLandscape));
  EXPECT_FALSE(dialog_.IsChecked(kIdPortrait));
  EXPECT_EQ(Shown(kIdPageWidth), "595.0");
  dialog_.Click(kIdPortrait);
  EXPECT_FALSE(dialog_.IsChecked(kIdLandscape));
  page_.Save();
  EXPECT_FALSE(record_.LandscapeOrienatation);
  EXPECT_EQ(record_.PageWidth, 595.0);
}

TEST_F(PdfPageTest, UpDownOfAnotherPageIsNotHandled) {
  Open();
  EXPECT_FALSE(page_.OnUpDown(dialog_, kIdTargetWidthSpin, 1));
}

}  // namespace
}  // namespace mrwl
