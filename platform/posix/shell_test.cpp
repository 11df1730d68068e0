#include "platform/shell.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/kernel.h"
#include "platform/posix/posix_util.h"
#include "testing/temp_folder.h"

namespace mrwl::platform {
namespace {

using Lines = std::vector<std::string>;

int Code(HINSTANCE result) { return static_cast<int>(reinterpret_cast<std::uintptr_t>(result)); }

// A scratch folder with small shell scripts that stand in for programs, openers and tools, and
// that record the arguments they were started with.
class ShellTest : public ::testing::Test {
 protected:
  // A script that writes its arguments, one a line, to `record` and exits with `status`.
  std::string WriteRecorder(const std::string& name, const std::string& record, int status = 0) {
    return temp_.Write(name, testing::RecorderScript(record, status), true);
  }

  void UseOpener(const std::string& path) { opener_.Set(path); }

  std::u16string U(const std::string& text) const { return posix::FromUtf8(text); }

  testing::TempFolder temp_;
  testing::ScopedEnv opener_{"MRWL_OPENER"};
  testing::ScopedEnv xdgMime_{"MRWL_XDG_MIME"};
  testing::ScopedEnv dataHome_{"XDG_DATA_HOME"};
  testing::ScopedEnv path_{"PATH"};
};

TEST(CommandLineToArgvW, SplitsByTheRuntimeRules) {
  struct Case {
    const char16_t* line;
    std::vector<std::u16string> words;
  };
  const Case cases[] = {
      {u"p \"a b c\" d e", {u"p", u"a b c", u"d", u"e"}},
      {u"p \"ab\\\"c\" \"\\\\\" d", {u"p", u"ab\"c", u"\\", u"d"}},
      {u"p a\\\\\\b d\"e f\"g h", {u"p", u"a\\\\\\b", u"de fg", u"h"}},
      {u"p a\\\\\\\"b c d", {u"p", u"a\\\"b", u"c", u"d"}},
      {u"p a\\\\\\\\\"b c\" d e", {u"p", u"a\\\\b c", u"d", u"e"}},
      {u"p a\"b\"\" c d", {u"p", u"ab\" c d"}},
      {u"p \"\" x", {u"p", u"", u"x"}},
      {u"p \t  spaced\targs  ", {u"p", u"spaced", u"args"}},
      {u"\"C:\\Program Files\\app.exe\" /x", {u"C:\\Program Files\\app.exe", u"/x"}},
      {u"C:\\dir\\\"odd /y", {u"C:\\dir\\\"odd", u"/y"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(posix::ToUtf8(c.line));
    int count = 0;
    char16_t** argv = CommandLineToArgvW(c.line, &count);
    ASSERT_NE(argv, nullptr);
    std::vector<std::u16string> words(argv, argv + count);
    EXPECT_EQ(argv[count], nullptr);
    LocalFree(argv);
    EXPECT_EQ(words, c.words);
  }
}

TEST(CommandLineToArgvW, EmptyLineGivesTheProgramPath) {
  int count = 0;
  char16_t** argv = CommandLineToArgvW(u"", &count);
  ASSERT_NE(argv, nullptr);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(argv[0][0], u'/');
  LocalFree(argv);
}

TEST_F(ShellTest, ProgramReceivesParametersSplitByWindowsRules) {
  const std::string record = temp_.PathOf("argv.txt");
  const std::string program = WriteRecorder("prog.sh", record);
  const HINSTANCE result =
      ShellExecuteW(nullptr, nullptr, U(program).c_str(),
                    u"one \"two three\" a\\\\\\\"b \"\" tail\\", nullptr, SW_SHOW);
  ASSERT_GT(Code(result), 32);
  EXPECT_EQ(testing::WaitForLines(record), (Lines{"one", "two three", "a\\\"b", "", "tail\\"}));
}

TEST_F(ShellTest, ProgramStartsInTheGivenFolder) {
  const std::string record = temp_.PathOf("pwd.txt");
  const std::string program =
      temp_.Write("where.sh", testing::RecordingScript("pwd", record), true);
  mkdir(temp_.PathOf("work").c_str(), 0700);
  ASSERT_GT(Code(ShellExecuteW(nullptr, u"open", U(program).c_str(), nullptr,
                               U(temp_.PathOf("work")).c_str(), SW_SHOW)),
            32);
  EXPECT_EQ(testing::WaitForLines(record), Lines{temp_.PathOf("work")});
}

TEST_F(ShellTest, RelativeProgramIsFoundInTheWorkingFolder) {
  const std::string record = temp_.PathOf("rel.txt");
  WriteRecorder("rel.sh", record);
  ASSERT_GT(Code(ShellExecuteW(nullptr, u"open", u"rel.sh", u"x", U(temp_.path().string()).c_str(),
                               SW_SHOW)),
            32);
  EXPECT_EQ(testing::WaitForLines(record), Lines{"x"});
}

TEST_F(ShellTest, MissingProgramGivesTheWindowsErrors) {
  struct Case {
    std::string file;
    int code;
  };
  const Case cases[] = {
      {temp_.PathOf("absent.exe"), 2},
      {temp_.PathOf("no-folder/absent.exe"), 3},
      {"mrwl-no-such-program-on-path", 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    SetLastError(0);
    EXPECT_EQ(Code(ShellExecuteW(nullptr, nullptr, U(c.file).c_str(), u"a", nullptr, SW_SHOW)),
              c.code);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(c.code));
  }
}

TEST_F(ShellTest, ProgramThatCannotRunIsRefused) {
  // Executable but not a program the system can load: no interpreter line, not a binary.
  const std::string bogus = temp_.Write("bogus",
                                        "\x7f"
                                        "ELF not really",
                                        true);
  EXPECT_EQ(Code(ShellExecuteW(nullptr, nullptr, U(bogus).c_str(), nullptr, nullptr, SW_SHOW)), 11);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_BAD_EXE_FORMAT));
}

TEST_F(ShellTest, DocumentsFoldersAndAddressesGoToTheOpener) {
  const std::string record = temp_.PathOf("opened.txt");
  UseOpener(WriteRecorder("opener.sh", record));
  const std::string document = temp_.Write("letter.txt", "text");
  mkdir(temp_.PathOf("folder").c_str(), 0700);
  struct Case {
    const char16_t* verb;
    std::string target;
  };
  const Case cases[] = {
      {u"open", document},
      {nullptr, temp_.PathOf("folder")},
      {u"explore", temp_.PathOf("folder")},
      {u"open", "https://example.org/a b?q=1"},
      {u"OPEN", "mailto:someone@example.org"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.target);
    unlink(record.c_str());
    ASSERT_GT(Code(ShellExecuteW(nullptr, c.verb, U(c.target).c_str(), u"ignored", nullptr,
                                 SW_SHOWNORMAL)),
              32);
    EXPECT_EQ(testing::WaitForLines(record), Lines{c.target});
  }
}

TEST_F(ShellTest, FailingOpenerIsReportedAsNoAssociationOrMissingFile) {
  UseOpener(WriteRecorder("fails.sh", temp_.PathOf("r1"), 4));
  EXPECT_EQ(Code(ShellExecuteW(nullptr, u"open", u"https://example.org", nullptr, nullptr, 1)), 31);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_ASSOCIATION));

  UseOpener(WriteRecorder("missing.sh", temp_.PathOf("r2"), 2));
  EXPECT_EQ(Code(ShellExecuteW(nullptr, u"open", u"https://example.org", nullptr, nullptr, 1)), 2);

  UseOpener(temp_.PathOf("no-such-opener"));
  EXPECT_EQ(Code(ShellExecuteW(nullptr, u"open", u"https://example.org", nullptr, nullptr, 1)), 31);
}

TEST_F(ShellTest, UnknownVerbsAndExploringAFileHaveNoAssociation) {
  UseOpener(WriteRecorder("opener.sh", temp_.PathOf("never")));
  const std::string document = temp_.Write("doc.txt", "x");
  EXPECT_EQ(Code(ShellExecuteW(nullptr, u"print", U(document).c_str(), nullptr, nullptr, 1)), 31);
  EXPECT_EQ(Code(ShellExecuteW(nullptr, u"explore", U(document).c_str(), nullptr, nullptr, 1)), 31);
  EXPECT_FALSE(temp_.Exists("never"));
}

TEST_F(ShellTest, ShellExecuteExReportsThroughTheRecord) {
  ShellExecuteInfoW info{};
  info.cbSize = sizeof info;
  info.fMask = SEE_MASK_FLAG_NO_UI;
  info.lpVerb = u"open";
  const std::u16string missing = U(temp_.PathOf("absent.exe"));
  info.lpFile = missing.c_str();
  EXPECT_EQ(ShellExecuteExW(&info), FALSE);
  EXPECT_EQ(Code(info.hInstApp), 2);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));

  const std::string record = temp_.PathOf("ex.txt");
  const std::u16string program = U(WriteRecorder("ex.sh", record));
  info.lpFile = program.c_str();
  info.lpParameters = u"p";
  EXPECT_EQ(ShellExecuteExW(&info), TRUE);
  EXPECT_GT(Code(info.hInstApp), 32);
  EXPECT_EQ(testing::WaitForLines(record), Lines{"p"});

  info.cbSize = 1;
  EXPECT_EQ(ShellExecuteExW(&info), FALSE);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST_F(ShellTest, AssociationComesFromTheDesktopEntry) {
  // xdg-mime answers by the MIME type; the desktop entry names the program.
  temp_.Write("xdg-mime",
              "#!/bin/sh\ncase \"$3\" in\n x-scheme-handler/http) echo web.desktop ;;\n"
              " application/pdf) echo reader.desktop ;;\nesac\n",
              true);
  xdgMime_.Set(temp_.PathOf("xdg-mime"));
  dataHome_.Set(temp_.path().string());
  const std::string browser = WriteRecorder("web browser.sh", temp_.PathOf("never"));
  temp_.Write(
      "applications/web.desktop",
      "[Desktop Action x]\nExec=wrong\n[Desktop Entry]\nName=Web\nExec=\"" + browser + "\" %u\n",
      false);
  temp_.Write("applications/reader.desktop", "[Desktop Entry]\nExec=sh -c true %f\n");

  char16_t out[2047];
  DWORD length = 2047;
  ASSERT_EQ(AssocQueryStringW(0, ASSOCSTR_EXECUTABLE, u"HTTP", u"open", out, &length), S_OK);
  EXPECT_EQ(posix::ToUtf8(out), browser);

  length = 2047;
  ASSERT_EQ(AssocQueryStringW(0, ASSOCSTR_COMMAND, u"http", nullptr, out, &length), S_OK);
  EXPECT_EQ(posix::ToUtf8(out), "\"" + browser + "\" %u");

  length = 3;
  EXPECT_EQ(AssocQueryStringW(0, ASSOCSTR_EXECUTABLE, u"http", nullptr, out, &length), E_POINTER);
  EXPECT_EQ(length, browser.size() + 1);

  // ".pdf" reaches application/pdf through the MIME database of the system.
  length = 2047;
  if (AssocQueryStringW(0, ASSOCSTR_EXECUTABLE, u".pdf", nullptr, out, &length) == S_OK) {
    EXPECT_EQ(posix::ToUtf8(out).substr(posix::ToUtf8(out).rfind('/')), "/sh");
  }

  length = 2047;
  EXPECT_EQ(AssocQueryStringW(0, ASSOCSTR_EXECUTABLE, u"gopher", nullptr, out, &length),
            HRESULT_FROM_WIN32(ERROR_NO_ASSOCIATION));
  EXPECT_EQ(AssocQueryStringW(0, ASSOCSTR_EXECUTABLE, u"http", u"print", out, &length),
            HRESULT_FROM_WIN32(ERROR_NO_ASSOCIATION));
}

TEST(PathCreateFromUrlW, DecodesLocalFileUrls) {
  struct Case {
    const char16_t* url;
    HRESULT hr;
    std::u16string path;
  };
  const Case cases[] = {
      {u"file:///tmp/a%20b/%C3%A9t%C3%A9.txt", S_OK, u"/tmp/a b/\u00e9t\u00e9.txt"},
      {u"FILE://localhost/etc/hosts", S_OK, u"/etc/hosts"},
      {u"file:///tmp/page.html#part", S_OK, u"/tmp/page.html"},
      {u"file:/tmp/x", S_OK, u"/tmp/x"},
      {u"file://server/share/x", E_INVALIDARG, u""},
      {u"file:///tmp/%zz", E_INVALIDARG, u""},
      {u"file:///tmp/%4", E_INVALIDARG, u""},
      {u"http://example.org/", E_INVALIDARG, u""},
      // An encoded NUL would cut the name short and open another file than the one named.
      {u"file:///etc/passwd%00.pdf", E_INVALIDARG, u""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(posix::ToUtf8(c.url));
    char16_t path[MAX_PATH] = {};
    DWORD length = MAX_PATH;
    EXPECT_EQ(PathCreateFromUrlW(c.url, path, &length, 0), c.hr);
    if (c.hr == S_OK) {
      EXPECT_EQ(std::u16string(path), c.path);
      EXPECT_EQ(length, c.path.size());
    }
  }
  char16_t small[4];
  DWORD length = 4;
  EXPECT_EQ(PathCreateFromUrlW(u"file:///tmp/x", small, &length, 0), E_POINTER);
  EXPECT_EQ(length, 7u);
}

TEST(PathTests, RelativeAndFileUrlAnswers) {
  EXPECT_TRUE(PathIsRelativeW(u"a/b"));
  EXPECT_TRUE(PathIsRelativeW(u"..\\x"));
  EXPECT_TRUE(PathIsRelativeW(u""));
  EXPECT_FALSE(PathIsRelativeW(u"/tmp"));
  EXPECT_FALSE(PathIsRelativeW(u"\\\\server\\share"));
  EXPECT_FALSE(PathIsRelativeW(u"C:\\x"));
  EXPECT_TRUE(UrlIsW(u"File:///x", URLIS_FILEURL));
  EXPECT_FALSE(UrlIsW(u"fil", URLIS_FILEURL));
  EXPECT_FALSE(UrlIsW(u"http://x", URLIS_FILEURL));
  EXPECT_TRUE(UrlIsW(u"http://x", URLIS_URL));
  EXPECT_FALSE(UrlIsW(u"C:\\x", URLIS_URL));
}

TEST_F(ShellTest, FileManagerIsAskedOverDBusForTheSelection) {
  const std::string record = temp_.PathOf("dbus.txt");
  WriteRecorder("bin/gdbus", record);
  path_.Set(temp_.PathOf("bin") + ":/usr/bin:/bin");
  temp_.Write("my folder/a,b.pdf", "x");

  ItemIdList* folder = ILCreateFromPathW(U(temp_.PathOf("my folder")).c_str());
  ItemIdList* item = ILCreateFromPathW(U(temp_.PathOf("my folder/a,b.pdf")).c_str());
  ASSERT_NE(folder, nullptr);
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(ILCreateFromPathW(U(temp_.PathOf("my folder/absent")).c_str()), nullptr);
  const ItemIdList* items[] = {item};
  EXPECT_EQ(SHOpenFolderAndSelectItems(folder, 1, items, 0), S_OK);
  const Lines args = testing::WaitForLines(record);
  ASSERT_EQ(args.size(), 12u);
  EXPECT_EQ(args[0], "call");
  EXPECT_EQ(args[9], "org.freedesktop.FileManager1.ShowItems");
  EXPECT_EQ(args[10], "['file://" + temp_.path().string() + "/my%20folder/a%2Cb.pdf']");

  // A file manager that does not answer is a failure the caller can fall back from.
  WriteRecorder("bin/gdbus", temp_.PathOf("dbus2.txt"), 1);
  EXPECT_EQ(SHOpenFolderAndSelectItems(folder, 1, items, 0), E_FAIL);
  ILFree(item);
  ILFree(folder);
}

TEST(KnownFolders, LocalAppDataFollowsTheDataHome) {
  const testing::ScopedEnv dataHome("XDG_DATA_HOME", "/srv/data/");
  char16_t path[MAX_PATH];
  EXPECT_EQ(SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, path),
            S_OK);
  EXPECT_EQ(std::u16string(path), u"/srv/data");
  EXPECT_EQ(SHGetFolderPathW(nullptr, 0x05, nullptr, 0, path), E_INVALIDARG);
  EXPECT_TRUE(FAILED(SHGetKnownFolderPath(KnownFolder::kLocalAppDataLow, path, MAX_PATH)));
}

TEST(ShellFileInfo, ReportsFolderAttributes) {
  ShFileInfoW info{};
  ASSERT_NE(SHGetFileInfoW(u"/", 0, &info, sizeof info, SHGFI_ATTRIBUTES), 0u);
  EXPECT_NE(info.dwAttributes & static_cast<DWORD>(SFGAO_FOLDER), 0u);
  EXPECT_EQ(SHGetFileInfoW(u"/no/such/place", 0, &info, sizeof info, SHGFI_ATTRIBUTES), 0u);
}

}  // namespace
}  // namespace mrwl::platform
