// The options dialog on a real X server: scripts/screenshot-settings.sh opens it through
// `mrwl settings` and the dialog photographs each tab. The pictures must all be there and show
// something.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "testing/temp_folder.h"

namespace mrwl {
namespace {

using testing::RunCommand;
using testing::ShellQuote;
using testing::TempFolder;

// The repository, two folders above this file.
std::filesystem::path Repository() {
  return std::filesystem::path(__FILE__).parent_path().parent_path();
}

TEST(SettingsScreenshots, ScriptPhotographsEveryTab) {
  if (std::system("command -v Xvfb >/dev/null 2>&1") != 0) GTEST_SKIP() << "Xvfb is not installed";
  const char* build = std::getenv("MRWL_TEST_BINARY_DIR");
  ASSERT_NE(build, nullptr) << "MRWL_TEST_BINARY_DIR names the build folder";
  TempFolder folder;
  const std::string script = (Repository() / "scripts" / "screenshot-settings.sh").string();
  const testing::CommandOutcome outcome =
      RunCommand("MRWL_BUILD_DIR=" + ShellQuote(build) + " " + ShellQuote(script) + " " +
                     ShellQuote(folder.PathOf("shots")),
                 folder);
  ASSERT_EQ(outcome.status, 0) << outcome.err;
  for (const char* name : {"0-pdf-page.png", "1-security.png", "2-advanced.png"}) {
    SCOPED_TRACE(name);
    const std::string picture = folder.PathOf(std::string("shots/") + name);
    ASSERT_TRUE(std::filesystem::exists(picture));
    // A blank picture has no deviation; a dialog has text, frames and controls.
    const testing::CommandOutcome measured = RunCommand(
        "identify -format '%w %h %[fx:standard_deviation]' " + ShellQuote(picture), folder);
    ASSERT_EQ(measured.status, 0) << measured.err;
    int width = 0;
    int height = 0;
    double deviation = 0.0;
    ASSERT_EQ(std::sscanf(measured.out.c_str(), "%d %d %lf", &width, &height, &deviation), 3);
    // The frame is 311 by 243 dialog units: well over 300 pixels wide at any sans font.
    EXPECT_GT(width, 311);
    EXPECT_GT(height, 243);
    EXPECT_GT(deviation, 0.05);
  }
  // Each tab shows its own page.
  EXPECT_NE(folder.Read("shots/0-pdf-page.png"), folder.Read("shots/1-security.png"));
  EXPECT_NE(folder.Read("shots/1-security.png"), folder.Read("shots/2-advanced.png"));
}

}  // namespace
}  // namespace mrwl
