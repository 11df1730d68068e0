// The console message box: one line on standard error per box, in the form the host's users read.
#include "platform/ui.h"

#include <gtest/gtest.h>

#include <string>

namespace mrwl::platform {
namespace {

struct BoxCase {
  const char16_t* caption;
  UINT type;
  const char* line;
};

TEST(ConsoleMessageBox, WritesCaptionIconAndTextAsOneLine) {
  const BoxCase cases[] = {
      {u"Marrowline Outlook Addin", MB_OK, "Marrowline Outlook Addin: Hello\n"},
      {u"", MB_ICONHAND, "Error: Hello\n"},
      {nullptr, MB_OK, "Hello\n"},
      {u"Caption", MB_OKCANCEL | MB_ICONSTOP, "Caption: Error: Hello\n"},
      // Only the stop icon is spelled out; the others read as plain text.
      {u"Caption", MB_ICONWARNING, "Caption: Hello\n"},
      {u"Caption", MB_ICONINFORMATION, "Caption: Hello\n"},
  };
  for (const BoxCase& c : cases) {
    SCOPED_TRACE(c.line);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(MessageBoxW(nullptr, u"Hello", c.caption, c.type), IDOK);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), c.line);
  }
}

TEST(ConsoleMessageBox, KeepsTextOutsideAsciiAndHasNoWindows) {
  ::testing::internal::CaptureStderr();
  MessageBoxW(nullptr, u"Gr\u00fc\u00dfe \u4f60\u597d", u"\u00c9t\u00e9", MB_OK);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "\xc3\x89t\xc3\xa9: Gr\xc3\xbc\xc3\x9f" "e \xe4\xbd\xa0\xe5\xa5\xbd\n");
  EXPECT_EQ(GetActiveWindow(), nullptr);
  EXPECT_FALSE(SetForegroundWindow(nullptr));
}

}  // namespace
}  // namespace mrwl::platform
