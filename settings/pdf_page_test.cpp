#include "settings/pdf_page.h"

#include <cstdint>
#include <memory>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "foundation/wide_string.h"
#include "settings/addin_settings.h"
#include "settings/dialog_templates.h"
#include "settings/headless_dialog.h"

namespace mrwl {
namespace {

// The page in a window-less dialog over its own template, loaded from record_.
class PdfPageTest : public ::testing::Test {
 protected:
  // A fresh page and dialog each time, so that one test can open several.
  void Open() {
    dialog_.reset();
    page_ = std::make_unique<PdfPage>();
    dialog_ = std::make_unique<HeadlessDialog>(*FindDialogTemplate(kPdfPageDialog), *page_);
    dialog_->Open();
    page_->Load(record_);
  }
  std::string Shown(int id) const { return WideToUtf8(dialog_->GetText(id)); }
  bool Enabled(int id) const { return dialog_->IsEnabled(id); }

  AddinSettings record_{u"Software\\Marrowline Tests\\PdfPage"};
  std::unique_ptr<PdfPage> page_;
  std::unique_ptr<HeadlessDialog> dialog_;
};

TEST_F(PdfPageTest, DefaultsShowA4InWholePointsAndSaveThem) {
  Open();
  EXPECT_EQ(dialog_->Selection(kIdPaperSize), 11);
  EXPECT_EQ(dialog_->RowCount(kIdPaperSize), 18);
  EXPECT_EQ(dialog_->RowText(kIdUnits, 1), u"inches");
  EXPECT_EQ(std::tuple(Shown(kIdPageWidth), Shown(kIdPageHeight), Shown(kIdMarginLeft)),
            std::tuple("595.0", "842.0", "0.0"));
  EXPECT_TRUE(dialog_->IsChecked(kIdPortrait));
  EXPECT_FALSE(dialog_->IsChecked(kIdLandscape));
  // A paper of the list locks the edits, but its arrows stay usable.
  EXPECT_FALSE(Enabled(kIdPageWidth) || Enabled(kIdPageHeight));
  EXPECT_TRUE(Enabled(kIdPageWidthSpin) && Enabled(kIdPageHeightSpin));
  EXPECT_FALSE(page_->OnUpDown(*dialog_, kIdTargetWidthSpin, 1));  // another page's arrows

  page_->Save();
  EXPECT_EQ(std::tuple(record_.PageWidth, record_.PageHeight, record_.MarginTop),
            std::tuple(595.0, 842.0, 0.0));
  EXPECT_EQ(record_.PaperSize, 11u);
  EXPECT_EQ(record_.Units, 0u);
  EXPECT_FALSE(record_.LandscapeOrienatation);
}

TEST_F(PdfPageTest, CustomKeepsTheStoredNumbers) {
  record_.PaperSize = 0;
  record_.MarginRight = 12.5;
  Open();
  EXPECT_EQ(std::tuple(Shown(kIdPageWidth), Shown(kIdPageHeight), Shown(kIdMarginRight)),
            std::tuple("595.3", "841.9", "12.5"));
  EXPECT_TRUE(Enabled(kIdPageWidth));
  page_->Save();
  EXPECT_EQ(std::tuple(record_.PageWidth, record_.PageHeight, record_.MarginRight),
            std::tuple(595.3, 841.9, 12.5));
}

TEST_F(PdfPageTest, UnitsChangeTheTextButNotTheValue) {
  // A stored unit is shown; an unknown one falls to points.
  for (const auto& [units, row, width] :
       {std::tuple{2u, 2, "210.0"}, std::tuple{1u, 1, "8.264"}, std::tuple{3u, 0, "595.0"}}) {
    SCOPED_TRACE(units);
    record_.Units = units;
    Open();
    EXPECT_EQ(dialog_->Selection(kIdUnits), row);
    EXPECT_EQ(Shown(kIdPageWidth), width);
  }
  dialog_->Choose(kIdUnits, 1);
  EXPECT_EQ(Shown(kIdPageHeight), "11.694");
  dialog_->Choose(kIdUnits, 2);
  EXPECT_EQ(Shown(kIdPageWidth), "210.0");
  page_->Save();
  EXPECT_EQ(record_.PageWidth, 595.0);
  EXPECT_EQ(record_.Units, 2u);
}

TEST_F(PdfPageTest, UpDownClickOnADisabledEditMovesOneMillimetre) {
  record_.Units = 2;
  Open();
  EXPECT_TRUE(dialog_->Spin(kIdPageWidthSpin, 1));
  EXPECT_EQ(Shown(kIdPageWidth), "211.0");
  EXPECT_TRUE(dialog_->Spin(kIdMarginBottomSpin, -1));
  EXPECT_EQ(Shown(kIdMarginBottom), "0.0");
  page_->Save();
  EXPECT_DOUBLE_EQ(record_.PageWidth, 597.833);
  EXPECT_EQ(record_.MarginBottom, 0.0);
}

TEST_F(PdfPageTest, TypedNumbersAreReadOnSaveAndClamped) {
  const struct {
    std::uint32_t paper, units;
    int edit;
    double AddinSettings::*field;
    const char16_t* typed;
    double saved;
    const char* shownAfterwards;
  } cases[] = {
      {11, 0, kIdMarginTop, &AddinSettings::MarginTop, u"12.34567", 12.346, "12.3"},
      {11, 0, kIdMarginLeft, &AddinSettings::MarginLeft, u".5", 7.0, "7.0"},
      {11, 0, kIdMarginBottom, &AddinSettings::MarginBottom, u"abc", 7.0, "7.0"},
      {11, 0, kIdMarginRight, &AddinSettings::MarginRight, u"-3", 0.0, "0.0"},
      {11, 0, kIdMarginTop, &AddinSettings::MarginTop, u"", 0.0, "0.0"},
      {11, 0, kIdMarginLeft, &AddinSettings::MarginLeft, u"5000", 1000.0, "1000.0"},
      {0, 0, kIdPageWidth, &AddinSettings::PageWidth, u"", 0.005, "0.0"},  // its minimum
      // A fraction that rounds up to a whole shows as ".1", as the edit has always shown it.
      {11, 1, kIdMarginTop, &AddinSettings::MarginTop, u"0.9996", 71.971, "0.1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(WideToUtf8(c.typed));
    record_.MarginTop = record_.MarginLeft = record_.MarginBottom = record_.MarginRight = 7.0;
    record_.PaperSize = c.paper;
    record_.Units = c.units;
    Open();
    dialog_->Type(c.edit, c.typed);
    page_->Save();
    EXPECT_DOUBLE_EQ(record_.*c.field, c.saved);
    // Save only reads; the text changes at the next write, which a unit change makes.
    EXPECT_EQ(dialog_->GetText(c.edit), c.typed);
    dialog_->Choose(kIdUnits, static_cast<int>(c.units));
    EXPECT_EQ(Shown(c.edit), c.shownAfterwards);
  }
}

TEST_F(PdfPageTest, ChoosingAPaperSetsItsSizeAndLocksTheEdits) {
  Open();
  dialog_->Choose(kIdPaperSize, 3);
  EXPECT_EQ(std::tuple(Shown(kIdPageWidth), Shown(kIdPageHeight)), std::tuple("1224.0", "492.0"));
  EXPECT_FALSE(Enabled(kIdPageWidth));
  dialog_->Choose(kIdPaperSize, 0);
  EXPECT_TRUE(Enabled(kIdPageWidth) && Enabled(kIdPageHeight));
  EXPECT_EQ(Shown(kIdPageWidth), "1224.0");
  dialog_->Type(kIdPageHeight, u"100");
  page_->Save();
  EXPECT_EQ(record_.PaperSize, 0u);
  EXPECT_EQ(std::tuple(record_.PageWidth, record_.PageHeight), std::tuple(1224.0, 100.0));
}

TEST_F(PdfPageTest, PaperSizePastTheTableSelectsNoneAndSavesIt) {
  for (const std::uint32_t stored : {18u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(stored);
    record_.PaperSize = stored;
    Open();
    EXPECT_EQ(dialog_->Selection(kIdPaperSize), -1);
    EXPECT_FALSE(Enabled(kIdPageWidth) || Enabled(kIdPageHeight));
    EXPECT_TRUE(Enabled(kIdPageWidthSpin));
    EXPECT_EQ(Shown(kIdPageWidth), "595.3");
    page_->Save();
    EXPECT_EQ(record_.PaperSize, 0xFFFFFFFFu);
  }
}

TEST_F(PdfPageTest, LandscapeTravelsAsAFlagAlone) {
  record_.LandscapeOrienatation = true;
  Open();
  EXPECT_TRUE(dialog_->IsChecked(kIdLandscape));
  EXPECT_FALSE(dialog_->IsChecked(kIdPortrait));
  EXPECT_EQ(Shown(kIdPageWidth), "595.0");
  dialog_->Click(kIdPortrait);
  EXPECT_FALSE(dialog_->IsChecked(kIdLandscape));
  page_->Save();
  EXPECT_FALSE(record_.LandscapeOrienatation);
  EXPECT_EQ(record_.PageWidth, 595.0);
}

}  // namespace
}  // namespace mrwl
