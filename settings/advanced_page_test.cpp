#include "settings/advanced_page.h"

#include <cstdint>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "platform/file_dialog.h"
#include "settings/options_dialog_test_util.h"

namespace mrwl {
namespace {

class AdvancedPageTest : public testing::OptionsDialogTest {
 protected:
  ~AdvancedPageTest() override { platform::ClearFileDialogAnswers(); }
  std::u16string Shown(int id) { return Sub().RowText(id, Sub().Selection(id)); }
};

TEST_F(AdvancedPageTest, DefaultsShowAsTheTabIntends) {
  Open(2);
  EXPECT_TRUE(Advanced().IsChecked(kIdConvertAttachments));
  EXPECT_FALSE(Advanced().IsVisible(kIdPlaceholder));
  EXPECT_EQ(PlaceOf(Advanced(), Sub()), Sub().Place());
  EXPECT_TRUE(Sub().IsWindowVisible());

  EXPECT_TRUE(Sub().IsChecked(kIdRunApplication) && Sub().IsChecked(kIdDefaultApplication));
  EXPECT_TRUE(Sub().IsEnabled(kIdCustomApplication));
  for (const int id : {kIdApplicationPath, kIdApplicationParameters, kIdBrowse}) {
    EXPECT_FALSE(Sub().IsEnabled(id)) << id;
  }
  EXPECT_EQ(u"%f", Sub().GetText(kIdApplicationParameters));
  EXPECT_EQ(5, Sub().RowCount(kIdPdfVersion));
  EXPECT_EQ(u"Version 1.4 (Acrobat v5.x)", Shown(kIdPdfVersion));
  EXPECT_EQ(u"Medium", Shown(kIdCompression));
  EXPECT_EQ(u"1280.0", Sub().GetText(kIdTargetWidth));
}

TEST_F(AdvancedPageTest, AVersionOfNoRowShowsTheNewestAndOkStoresIt) {
  const struct {
    std::uint32_t stored;
    int row;
    std::uint32_t saved;
  } cases[] = {
      {0x10000, 4, 0x10007}, {5, 4, 0x10007}, {0x10003, 0, 0x10003}, {0x10006, 3, 0x10006}};
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << std::hex << c.stored);
    record_.PDFSpecification = c.stored;
    Open(2);
    EXPECT_EQ(c.row, Sub().Selection(kIdPdfVersion));
    Ok();
    EXPECT_EQ(c.saved, record_.PDFSpecification);
  }
}

TEST_F(AdvancedPageTest, AfterResetARowOfTheSecondCopyStoresTheCodeOfItsText) {
  record_.PDFSpecification = 0x10003;
  Open(2);
  frame_->Click(kIdReset);
  ASSERT_EQ(10, Sub().RowCount(kIdPdfVersion));
  EXPECT_EQ(1, Sub().Selection(kIdPdfVersion));
  EXPECT_EQ(PdfVersionTable[2].text, Sub().RowText(kIdPdfVersion, 7));
  EXPECT_EQ(3, Sub().RowCount(kIdCompression));
  Sub().Choose(kIdPdfVersion, 7);
  Ok();
  EXPECT_EQ(0x10005u, record_.PDFSpecification);
}

TEST_F(AdvancedPageTest, WidthIsClampedAndOneClickIsOnePixel) {
  const struct {
    std::u16string_view typed;
    int clicks;
    std::uint32_t saved;
  } cases[] = {{u"9000", 0, 5000}, {u"640", 0, 640}, {u"-20", 0, 0}, {u"", 1, 1281}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.saved);
    Open(2);
    if (!c.typed.empty()) Sub().Type(kIdTargetWidth, c.typed);
    if (c.clicks != 0) {
      EXPECT_TRUE(Sub().Spin(kIdTargetWidthSpin, c.clicks));
    }
    Ok();
    EXPECT_EQ(c.saved, record_.WebPageTargetWidth);
    record_.WebPageTargetWidth = 1280;
  }
}

TEST_F(AdvancedPageTest, UntickingRunDisablesEverythingBelowAndTheValuesStillSave) {
  record_.RunApp->RunCustPDFApp = true;
  (void)record_.RunApp->RunPDFPath.Assign(u"/opt/viewer/view.exe");
  (void)record_.RunApp->RunPDFParams.Assign(u"--page 1 %f");
  record_.SaveSettings();
  record_.LoadSettings();  // the strings now end in the registry's terminator
  Open(2);
  EXPECT_EQ(u"/opt/viewer/view.exe", Sub().GetText(kIdApplicationPath));
  EXPECT_TRUE(Sub().IsEnabled(kIdBrowse));

  Sub().Click(kIdRunApplication);
  for (const int id : {kIdDefaultApplication, kIdCustomApplication, kIdApplicationPath,
                       kIdApplicationParameters, kIdBrowse}) {
    EXPECT_FALSE(Sub().IsEnabled(id)) << id;
  }
  Advanced().Click(kIdConvertAttachments);
  Sub().Choose(kIdCompression, 2);
  Ok();
  EXPECT_FALSE(record_.RunPDFApp || record_.ConvertAttachments);
  EXPECT_EQ(2u, record_.CompressionLevel);
  EXPECT_TRUE(record_.RunApp->RunCustPDFApp);
  EXPECT_EQ(u"/opt/viewer/view.exe", record_.RunApp->RunPDFPath.view());
  EXPECT_EQ(u"--page 1 %f", record_.RunApp->RunPDFParams.view());
}

TEST_F(AdvancedPageTest, BrowsePutsTheChosenPathInAndCancelChangesNothing) {
  const std::u16string viewer = platform::Utf8ToUtf16(folder_.Write("bin/viewer.exe", "", true));
  Open(2);
  Sub().Click(kIdCustomApplication);
  Sub().Type(kIdApplicationPath, u"typed before");

  ASSERT_TRUE(platform::QueueFileDialogCancel());
  Sub().Click(kIdBrowse);
  EXPECT_EQ(0u, platform::PendingFileDialogAnswers()) << "no question was asked";
  EXPECT_EQ(u"typed before", Sub().GetText(kIdApplicationPath));

  ASSERT_TRUE(platform::QueueFileDialogAnswer(viewer));
  Sub().Click(kIdBrowse);
  EXPECT_EQ(viewer, Sub().GetText(kIdApplicationPath));
  Ok();
  EXPECT_EQ(viewer, record_.RunApp->RunPDFPath.view());
}

}  // namespace
}  // namespace mrwl
