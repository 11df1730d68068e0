#include "foundation/log.h"

#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "foundation/wide_string.h"
#include "platform/kernel.h"
#include "testing/temp_folder.h"

namespace mrwl {
namespace {

// Turns the trace to standard error on for the fixture's lifetime, so a test can read what the
// debugger would see, and gives each test its own folder for debug files.
class DebugTrace : public ::testing::Test {
 protected:
  void TearDown() override { CloseDebugFile(); }

  // Standard error while `action` runs: the debugger's view of the trace.
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
      std::regex("\\[(\\d+):(\\d+):(\\d+)\\.(\\d+)\\]\tOLaddin: item 7 of \xC3\xA9t\xC3\xA9\n")))
      << written;
  SYSTEMTIME now{};
  platform::GetSystemTime(&now);
  EXPECT_LT(std::stoi(parts[1]), 24);
  EXPECT_LT(std::stoi(parts[2]), 60);
  EXPECT_LT(std::stoi(parts[4]), 1000);
  // UTC: the stamp's hour is the system time's, unless the hour turned in between.
  const int hour = std::stoi(parts[1]);
  EXPECT_TRUE(hour == now.wHour || (hour + 1) % 24 == now.wHour) << hour << " vs " << now.wHour;
}

TEST_F(DebugTrace, WithoutAFileLinesReachOnlyTheDebugger) {
  const std::u16string path = folder_.WidePathOf("closed.txt");
  (void)DebuggerSees([&] {
    OpenDebugFile(path.c_str());
    DebugPrint(u"first");
    CloseDebugFile();
  });
  EXPECT_EQ("OLaddin: second", DebuggerSees([] { DebugPrint(u"second"); }));
  const std::string written = folder_.Read("closed.txt");
  EXPECT_NE(std::string::npos, written.find("OLaddin: first"));
  EXPECT_EQ(std::string::npos, written.find("second"));
  // Closing again says nothing.
  EXPECT_EQ("", DebuggerSees([] { CloseDebugFile(); }));
}

TEST_F(DebugTrace, OpenFailureAndMissingPath) {
  const std::u16string path = folder_.WidePathOf("no-such-folder/trace.txt");
  EXPECT_EQ("ERROR - Unable to open debug file\n",
            DebuggerSees([&] { OpenDebugFile(path.c_str()); }));
  EXPECT_EQ("OLaddin: still traced", DebuggerSees([] { DebugPrint(u"still traced"); }));
  EXPECT_EQ("", DebuggerSees([] { OpenDebugFile(nullptr); }));
  EXPECT_EQ("", DebuggerSees([] { OpenDebugFile(u""); }));
}

TEST_F(DebugTrace, LastErrorTakesTheSystemTextUpToItsLineEnd) {
  struct Case {
    DWORD error;
    const char* line;
  };
  const Case cases[] = {
      {ERROR_ACCESS_DENIED, "OLaddin: Error: Addin: Access is denied.\n\n"},
      {ERROR_FILE_NOT_FOUND,
       "OLaddin: Error: Addin: The system cannot find the file specified.\n\n"},
      {0xABCDE, "OLaddin: Error: Addin: Error: 0xabcde\n\n\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.error);
    platform::SetLastError(c.error);
    EXPECT_EQ(c.line, DebuggerSees([] { DebugPrintAddinError(); }));
  }
}

TEST_F(DebugTrace, LastErrorLinesAreCutToTheirBuffers) {
  const std::u16string prefix(200, u'p');
  platform::SetLastError(ERROR_ACCESS_DENIED);
  // 168 units of prefix and text, then the "%s\n" of the trace.
  EXPECT_EQ("OLaddin: " + std::string(168, 'p') + "\n",
            DebuggerSees([&] { DebugPrintLastError(prefix.c_str()); }));
  // Without a system text the number goes into a line of 48 units.
  const std::u16string fits(30, u'q');
  const std::u16string cut(40, u'q');
  platform::SetLastError(0x12345);
  EXPECT_EQ("OLaddin: " + std::string(30, 'q') + "Error: 0x12345\n\n\n",
            DebuggerSees([&] { DebugPrintLastError(fits.c_str()); }));
  platform::SetLastError(0x12345);
  EXPECT_EQ("OLaddin: " + std::string(40, 'q') + "Error: 0\n",
            DebuggerSees([&] { DebugPrintLastError(cut.c_str()); }));
}

#endif  // !_WIN32

TEST(ErrorParts, RegisteredDomainGivesItsThreeTexts) {
  WideString domain, severity, message;
  GetErrorParts(static_cast<ResultCode>(0x82181001), domain, severity, message);
  EXPECT_EQ(u"AFSLib", domain.view());
  EXPECT_EQ(u"Error", severity.view());
  EXPECT_EQ(u"Invalid name", message.view());

  WideString line;
  ComposeErrorLine(domain, severity, message, line);
  EXPECT_EQ(u"Error [AFSLib]: Invalid name", line.view());
}

TEST(ErrorParts, SystemCodesKeepTheSystemText) {
  WideString domain, severity, message;
  GetErrorParts(static_cast<ResultCode>(0x80070005), domain, severity, message);
  EXPECT_EQ(u"System", domain.view());
  EXPECT_EQ(u"Error", severity.view());
  EXPECT_EQ(u"Access is denied.\r\n", message.view());
}

TEST(ErrorParts, CodeNobodyKnowsIsNotFound) {
  for (std::uint32_t code : {0x8207ABCDu, 0x8007ABCDu}) {
    SCOPED_TRACE(code);
    WideString domain, severity, message;
    GetErrorParts(static_cast<ResultCode>(code), domain, severity, message);
    EXPECT_EQ(u"--", domain.view());
    EXPECT_EQ(u"Error", severity.view());
    EXPECT_EQ(u"Specified error code not found!", message.view());
  }
}

}  // namespace
}  // namespace mrwl
