#include "foundation/log.h"

#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "foundation/wide_string.h"
#include "platform/kernel.h"
#include "testing/temp_folder.h"

namespace mrwl {
namespace {

// The trace goes to standard error while MRWL_TRACE is set: what a debugger would see.
class DebugTrace : public ::testing::Test {
 protected:
  void TearDown() override { CloseDebugFile(); }

  template <typename F>
  static std::string DebuggerSees(F action) {
    ::testing::internal::CaptureStderr();
    action();
    return ::testing::internal::GetCapturedStderr();
  }

  testing::TempFolder folder_;
  testing::ScopedEnv trace_{"MRWL_TRACE", "1"};
};

#if !defined(_WIN32)  // On Windows the trace goes to a debugger, not to standard error.

TEST_F(DebugTrace, OpenWritesStampedLinesAndEmptiesTheFile) {
  const std::u16string path = folder_.WidePathOf("trace.txt");
  folder_.Write("trace.txt", "left over from before\n");

  EXPECT_EQ("OLaddin:OpenDebugFile:DebugFile.txt opened",
            DebuggerSees([&] { OpenDebugFile(path.c_str()); }));
  EXPECT_EQ("OLaddin: item 7 of \xC3\xA9t\xC3\xA9\n",
            DebuggerSees([] { DebugPrint(u"item %d of %s\n", 7, u"\u00e9t\u00e9"); }));
  // Written at once: visible before the file is closed.
  const std::string written = folder_.Read("trace.txt");
  EXPECT_EQ("OLaddin:OpenDebugFile:DebugFile.txt closed", DebuggerSees([] { CloseDebugFile(); }));

  std::smatch parts;
  ASSERT_TRUE(std::regex_match(
      written, parts,
      std::regex(
          "\\[(\\d{1,2}):\\d{1,2}:\\d{1,2}\\.\\d{1,3}\\]\tOLaddin: item 7 of \xC3\xA9t\xC3\xA9\n")))
      << written;
  SYSTEMTIME now{};
  platform::GetSystemTime(&now);
  // UTC: the stamp's hour is the system time's, unless the hour turned in between.
  const int hour = std::stoi(parts[1]);
  EXPECT_TRUE(hour == now.wHour || (hour + 1) % 24 == now.wHour) << hour << " vs " << now.wHour;
}

TEST_F(DebugTrace, AfterCloseOrFailedOpenLinesReachOnlyTheDebugger) {
  const std::u16string path = folder_.WidePathOf("closed.txt");
  (void)DebuggerSees([&] {
    OpenDebugFile(path.c_str());
    DebugPrint(u"first");
    CloseDebugFile();
  });
  EXPECT_EQ("OLaddin: second", DebuggerSees([] { DebugPrint(u"second"); }));
  EXPECT_EQ(std::string::npos, folder_.Read("closed.txt").find("second"));
  // Closing again, or opening no path, says nothing.
  EXPECT_EQ("", DebuggerSees([] {
              CloseDebugFile();
              OpenDebugFile(nullptr);
              OpenDebugFile(u"");
            }));
  const std::u16string missing = folder_.WidePathOf("no-such-folder/trace.txt");
  EXPECT_EQ("ERROR - Unable to open debug file\n",
            DebuggerSees([&] { OpenDebugFile(missing.c_str()); }));
  EXPECT_EQ("OLaddin: still traced", DebuggerSees([] { DebugPrint(u"still traced"); }));
}

TEST_F(DebugTrace, LastErrorTakesTheSystemTextUpToItsLineEndCutToItsBuffer) {
  struct Case {
    std::u16string prefix;
    DWORD error;
    std::string line;
  };
  const Case cases[] = {
      {u"Error: Addin: ", ERROR_ACCESS_DENIED, "OLaddin: Error: Addin: Access is denied.\n\n"},
      {u"Error: Addin: ", 0xABCDE, "OLaddin: Error: Addin: Error: 0xabcde\n\n\n"},
      // 168 units of prefix and text, then the "%s\n" of the trace.
      {std::u16string(200, u'p'), ERROR_ACCESS_DENIED, "OLaddin: " + std::string(168, 'p') + "\n"},
      // Without a system text the number goes into a line of 48 units.
      {std::u16string(30, u'q'), 0x12345,
       "OLaddin: " + std::string(30, 'q') + "Error: 0x12345\n\n\n"},
      {std::u16string(40, u'q'), 0x12345, "OLaddin: " + std::string(40, 'q') + "Error: 0\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    platform::SetLastError(c.error);
    EXPECT_EQ(c.line, DebuggerSees([&] { DebugPrintLastError(c.prefix.c_str()); }));
  }
  platform::SetLastError(ERROR_FILE_NOT_FOUND);
  EXPECT_EQ("OLaddin: Error: Addin: The system cannot find the file specified.\n\n",
            DebuggerSees([] { DebugPrintAddinError(); }));
}

#endif  // !_WIN32

TEST(ErrorParts, GivesDomainSeverityAndMessage) {
  const std::pair<std::uint32_t, const char16_t*> cases[] = {
      {0x82181001, u"AFSLib|Error|Invalid name"},
      // A code of no registered domain keeps the system's text, line end and all.
      {0x80070005, u"System|Error|Access is denied.\r\n"},
      {0x8207ABCD, u"--|Error|Specified error code not found!"}};
  for (const auto& [code, parts] : cases) {
    SCOPED_TRACE(code);
    WideString domain, severity, message;
    GetErrorParts(static_cast<ResultCode>(code), domain, severity, message);
    EXPECT_EQ(parts, std::u16string(domain.view()) + u"|" + std::u16string(severity.view()) + u"|" +
                         std::u16string(message.view()));
  }
  WideString line;
  ComposeErrorLine(u"AFSLib", u"Error", u"Invalid name", line);
  EXPECT_EQ(u"Error [AFSLib]: Invalid name", line.view());
}

}  // namespace
}  // namespace mrwl
