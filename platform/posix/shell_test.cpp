#include "platform/shell.h"

#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "platform/kernel.h"
#include "platform/posix/posix_util.h"
#include "testing/temp_folder.h"

namespace mrwl::platform {
namespace {

using Lines = std::vector<std::string>;

int Code(HINSTANCE result) { return static_cast<int>(reinterpret_cast<std::uintptr_t>(result)); }
std::u16string U(const std::string& text) { return posix::FromUtf8(text); }

// A scratch folder with small shell scripts that stand in for programs, openers and tools, and
// that record the arguments they were started with.
class ShellTest : public ::testing::Test {
 protected:
  // A script that writes its arguments, one a line, to `record` and exits with `status`.
  std::string WriteRecorder(const std::string& name, const std::string& record, int status = 0) {
    return temp_.Write(name, testing::RecorderScript(record, status), true);
  }
  // ShellExecuteW's small result for `file`, with `folder` as the working folder when not empty.
  static int Run(const char16_t* verb, const std::string& file,
                 const char16_t* parameters = nullptr, const std::string& folder = "") {
    return Code(ShellExecuteW(nullptr, verb, U(file).c_str(), parameters,
                              folder.empty() ? nullptr : U(folder).c_str(), SW_SHOWNORMAL));
  }

  testing::TempFolder temp_;
  testing::ScopedEnv opener_{"MRWL_OPENER"};
  testing::ScopedEnv xdgMime_{"MRWL_XDG_MIME"};
  testing::ScopedEnv dataHome_{"XDG_DATA_HOME"};
  testing::ScopedEnv path_{"PATH"};
};

TEST(CommandLineToArgvW, SplitsByTheRuntimeRules) {
  // clang-format off
  const std::pair<const char16_t*, std::vector<std::u16string>> cases[] = {
      {u"p \"a b c\" d e", {u"p", u"a b c", u"d", u"e"}},
      {u"p \"ab\\\"c\" \"\\\\\" d", {u"p", u"ab\"c", u"\\", u"d"}},
      {u"p a\\\\\\b d\"e f\"g h", {u"p", u"a\\\\\\b", u"de fg", u"h"}},
      {u"p a\\\\\\\"b c d", {u"p", u"a\\\"b", u"c", u"d"}},
      {u"p a\\\\\\\\\"b c\" d e", {u"p", u"a\\\\b c", u"d", u"e"}},
      {u"p a\"b\"\" c d", {u"p", u"ab\" c d"}}, {u"p \"\" x", {u"p", u"", u"x"}},
      {u"p \t  spaced\targs  ", {u"p", u"spaced", u"args"}},
      {u"C:\\dir\\\"odd /y", {u"C:\\dir\\\"odd", u"/y"}},
      {u"\"C:\\Program Files\\app.exe\" /x", {u"C:\\Program Files\\app.exe", u"/x"}},
      {u"", {}}};  // an empty line gives the path of the program
  // clang-format on
  for (const auto& [line, expected] : cases) {
    SCOPED_TRACE(posix::ToUtf8(line));
    int count = 0;
    char16_t** argv = CommandLineToArgvW(line, &count);
    ASSERT_NE(argv, nullptr);
    std::vector<std::u16string> words(argv, argv + count);
    EXPECT_EQ(argv[count], nullptr);
    LocalFree(argv);
    if (expected.empty()) {
      ASSERT_EQ(words.size(), 1u);
      EXPECT_EQ(words[0][0], u'/');
    } else {
      EXPECT_EQ(words, expected);
    }
  }
}

TEST_F(ShellTest, ProgramStartsInItsFolderWithParametersSplitByWindowsRules) {
  const std::string record = temp_.PathOf("run.txt");
  const std::string program = temp_.Write(
      "prog.sh", testing::RecordingScript("{ pwd; printf '%s\\n' \"$@\"; }", record), true);
  temp_.Write("work/.keep", "");
  const std::string work = temp_.PathOf("work");
  ASSERT_GT(Run(nullptr, program, u"one \"two three\" a\\\\\\\"b \"\" tail\\", work), 32);
  EXPECT_EQ(testing::WaitForLines(record),
            (Lines{work, "one", "two three", "a\\\"b", "", "tail\\"}));
  std::remove(record.c_str());
  // A relative program is found in the working folder.
  ASSERT_GT(Run(u"open", "prog.sh", u"x", temp_.path().string()), 32);
  EXPECT_EQ(testing::WaitForLines(record), (Lines{temp_.path().string(), "x"}));
}

TEST_F(ShellTest, ProgramThatCannotStartGivesTheWindowsErrors) {
  // Executable but not a program the system can load: no interpreter line, not a binary.
  const std::string bogus = temp_.Write("bogus", "\177ELF not really", true);
  const std::tuple<std::string, int, DWORD> cases[] = {
      {temp_.PathOf("absent.exe"), 2, ERROR_FILE_NOT_FOUND},
      {temp_.PathOf("no-folder/absent.exe"), 3, ERROR_PATH_NOT_FOUND},
      {"mrwl-no-such-program-on-path", 2, ERROR_FILE_NOT_FOUND},
      {bogus, 11, ERROR_BAD_EXE_FORMAT}};
  for (const auto& [file, code, error] : cases) {
    SCOPED_TRACE(file);
    SetLastError(0);
    EXPECT_EQ(Run(nullptr, file, u"a"), code);
    EXPECT_EQ(GetLastError(), error);
  }
}

TEST_F(ShellTest, DocumentsFoldersAndAddressesGoToTheOpener) {
  const std::string record = temp_.PathOf("opened.txt");
  opener_.Set(WriteRecorder("opener.sh", record));
  const std::string document = temp_.Write("letter.txt", "text");
  temp_.Write("folder/.keep", "");
  const std::pair<const char16_t*, std::string> cases[] = {{u"open", document},
                                                           {nullptr, temp_.PathOf("folder")},
                                                           {u"explore", temp_.PathOf("folder")},
                                                           {u"open", "https://example.org/a b?q=1"},
                                                           {u"OPEN", "mailto:someone@example.org"}};
  for (const auto& [verb, target] : cases) {
    SCOPED_TRACE(target);
    std::remove(record.c_str());
    ASSERT_GT(Run(verb, target, u"ignored"), 32);
    EXPECT_EQ(testing::WaitForLines(record), Lines{target});
  }
  // Unknown verbs and exploring a file have no association and never reach the opener.
  std::remove(record.c_str());
  EXPECT_EQ(Run(u"print", document), 31);
  EXPECT_EQ(Run(u"explore", document), 31);
  EXPECT_FALSE(temp_.Exists("opened.txt"));
}

TEST_F(ShellTest, FailingOpenerIsReportedAsNoAssociationOrMissingFile) {
  const std::pair<std::string, int> cases[] = {
      {WriteRecorder("fails.sh", temp_.PathOf("r1"), 4), 31},
      {WriteRecorder("missing.sh", temp_.PathOf("r2"), 2), 2},
      {temp_.PathOf("no-such-opener"), 31}};
  for (const auto& [opener, code] : cases) {
    SCOPED_TRACE(opener);
    opener_.Set(opener);
    EXPECT_EQ(Run(u"open", "https://example.org"), code);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(code == 31 ? ERROR_NO_ASSOCIATION : code));
  }
}

TEST_F(ShellTest, ShellExecuteExReportsThroughTheRecord) {
  const std::u16string missing = U(temp_.PathOf("absent.exe"));
  ShellExecuteInfoW info{.cbSize = sizeof(ShellExecuteInfoW),
                         .fMask = SEE_MASK_FLAG_NO_UI,
                         .lpVerb = u"open",
                         .lpFile = missing.c_str()};
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
  xdgMime_.Set(
      temp_.Write("xdg-mime",
                  "#!/bin/sh\ncase \"$3\" in\n x-scheme-handler/http) echo web.desktop ;;\n"
                  " application/pdf) echo reader.desktop ;;\nesac\n",
                  true));
  dataHome_.Set(temp_.path().string());
  const std::string browser = WriteRecorder("web browser.sh", temp_.PathOf("never"));
  temp_.Write(
      "applications/web.desktop",
      "[Desktop Action x]\nExec=wrong\n[Desktop Entry]\nName=Web\nExec=\"" + browser + "\" %u\n");
  temp_.Write("applications/reader.desktop", "[Desktop Entry]\nExec=sh -c true %f\n");

  char16_t out[2047];
  DWORD length = 2047;
  auto query = [&](ASSOCSTR what, const char16_t* assoc, const char16_t* verb, DWORD size) {
    length = size;
    return AssocQueryStringW(0, what, assoc, verb, out, &length);
  };
  ASSERT_EQ(query(ASSOCSTR_EXECUTABLE, u"HTTP", u"open", 2047), S_OK);
  EXPECT_EQ(posix::ToUtf8(out), browser);
  ASSERT_EQ(query(ASSOCSTR_COMMAND, u"http", nullptr, 2047), S_OK);
  EXPECT_EQ(posix::ToUtf8(out), "\"" + browser + "\" %u");
  EXPECT_EQ(query(ASSOCSTR_EXECUTABLE, u"http", nullptr, 3), E_POINTER);
  EXPECT_EQ(length, browser.size() + 1);
  // ".pdf" reaches application/pdf through the MIME database of the system, where it has one.
  if (query(ASSOCSTR_EXECUTABLE, u".pdf", nullptr, 2047) == S_OK) {
    EXPECT_TRUE(posix::ToUtf8(out).ends_with("/sh"));
  }
  EXPECT_EQ(query(ASSOCSTR_EXECUTABLE, u"gopher", nullptr, 2047),
            HRESULT_FROM_WIN32(ERROR_NO_ASSOCIATION));
  EXPECT_EQ(query(ASSOCSTR_EXECUTABLE, u"http", u"print", 2047),
            HRESULT_FROM_WIN32(ERROR_NO_ASSOCIATION));
}

TEST(PathCreateFromUrlW, DecodesLocalFileUrls) {
  // clang-format off
  const std::tuple<const char16_t*, HRESULT, std::u16string> cases[] = {
      {u"file:///tmp/a%20b/%C3%A9t%C3%A9.txt", S_OK, u"/tmp/a b/\u00e9t\u00e9.txt"},
      {u"FILE://localhost/etc/hosts", S_OK, u"/etc/hosts"}, {u"file:/tmp/x", S_OK, u"/tmp/x"},
      {u"file:///tmp/page.html#part", S_OK, u"/tmp/page.html"},
      {u"file://server/share/x", E_INVALIDARG, u""}, {u"file:///tmp/%zz", E_INVALIDARG, u""},
      {u"file:///tmp/%4", E_INVALIDARG, u""}, {u"http://example.org/", E_INVALIDARG, u""},
      // An encoded NUL would cut the name short and open another file than the one named.
      {u"file:///etc/passwd%00.pdf", E_INVALIDARG, u""}};
  // clang-format on
  for (const auto& [url, hr, expected] : cases) {
    SCOPED_TRACE(posix::ToUtf8(url));
    char16_t path[MAX_PATH] = {};
    DWORD length = MAX_PATH;
    EXPECT_EQ(PathCreateFromUrlW(url, path, &length, 0), hr);
    if (hr == S_OK) {
      EXPECT_EQ(std::u16string(path), expected);
      EXPECT_EQ(length, expected.size());
    }
  }
  char16_t small[4];
  DWORD length = 4;
  EXPECT_EQ(PathCreateFromUrlW(u"file:///tmp/x", small, &length, 0), E_POINTER);
  EXPECT_EQ(length, 7u);
}

TEST(PathTests, RelativeAndFileUrlAnswers) {
  for (const char16_t* path : {u"a/b", u"..\\x", u""}) EXPECT_TRUE(PathIsRelativeW(path));
  for (const char16_t* path : {u"/tmp", u"\\\\server\\share", u"C:\\x"}) {
    EXPECT_FALSE(PathIsRelativeW(path));
  }
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


TEST_F(ShellTest, ObserverSeesEveryStartWithItsResult) {
  struct Seen {
    std::vector<std::pair<std::u16string, std::uintptr_t>> starts;
    static void Note(void* context, const char16_t* file, const char16_t*, HINSTANCE result) {
      static_cast<Seen*>(context)->starts.emplace_back(
          file, reinterpret_cast<std::uintptr_t>(result));
    }
  } seen;
  const std::string record = temp_.PathOf("run.txt");
  const std::string program = temp_.Write("prog.sh", testing::RecorderScript(record), true);
  SetShellExecuteObserver(&Seen::Note, &seen);
  const std::intptr_t started = Run(nullptr, program, u"a");
  SetLastError(0);
  EXPECT_EQ(Run(nullptr, temp_.PathOf("absent"), u"a"), 2);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND)) << "kept across the call";
  SetShellExecuteObserver(nullptr, nullptr);
  (void)Run(nullptr, program, u"b");
  ASSERT_EQ(seen.starts.size(), 2u);
  EXPECT_EQ(seen.starts[0].first, posix::FromUtf8(program));
  EXPECT_EQ(seen.starts[0].second, static_cast<std::uintptr_t>(started));
  EXPECT_EQ(seen.starts[1].second, 2u);
  (void)testing::WaitForLines(record);
}
}  // namespace
}  // namespace mrwl::platform
