#include "foundation/paths.h"

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "testing/temp_folder.h"

namespace mrwl {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

std::u16string Wide(const std::string& text) { return std::u16string(Utf8ToWide(text).view()); }

// A scratch folder, the environment the shell helpers read, and scripts that stand in for the
// desktop opener, the association tool and applications, recording what they were given.
class PathsTest : public ::testing::Test {
 protected:
  std::string WriteRecorder(const std::string& name, const std::string& record, int status = 0) {
    return temp_.Write(name, testing::RecorderScript(record, status), true);
  }
  // An opener that records what it was asked to open in "opened.txt", or fails with `status`.
  void UseOpener(int status = 0) {
    opener_.Set(WriteRecorder("opener.sh", temp_.PathOf("opened.txt"), status));
  }
  Lines Opened() { return testing::WaitForLines(temp_.PathOf("opened.txt")); }
  // Makes `script` the default application for "http".
  void UseDefaultBrowser(const std::string& script) {
    xdgMime_.Set(temp_.Write(
        "xdg-mime", "#!/bin/sh\n[ \"$3\" = x-scheme-handler/http ] && echo fake.desktop\n", true));
    dataHome_.Set(temp_.path().string());
    temp_.Write("applications/fake.desktop", "[Desktop Entry]\nExec=" + script + " %u\n");
  }

  testing::TempFolder temp_;
  testing::ScopedEnv opener_{"MRWL_OPENER"};
  testing::ScopedEnv xdgMime_{"MRWL_XDG_MIME"};
  testing::ScopedEnv dataHome_{"XDG_DATA_HOME"};
  testing::ScopedEnv path_{"PATH"};
  testing::ScopedEnv tmpdir_{"TMPDIR"};
};

// --- Path text ---

TEST(MakeLongPath, PrefixesFrom248UnitsAndTurnsNetworkPathsIntoUnc) {
  const std::u16string short247 = u"C:\\" + std::u16string(244, u'a');
  const std::u16string tail = u"server\\share\\" + std::u16string(285, u'x');
  const std::pair<std::u16string, std::u16string> cases[] = {
      // empty: the path itself
      {short247, u""},
      {short247 + u"b", u"\\\\?\\" + short247 + u"b"},
      {u"\\\\" + tail, u"\\\\?\\UNC\\" + tail},
      // A single leading separator is taken as a network path too; only it is dropped.
      {u"/" + tail, u"\\\\?\\UNC\\" + tail}};
  for (const auto& [path, expected] : cases) {
    SCOPED_TRACE(path.size());
    WideString scratch;
    const char16_t* made = MakeLongPath(path.c_str(), path.size(), scratch);
    EXPECT_EQ(made, expected.empty() ? path.c_str() : scratch.c_str());
    if (!expected.empty()) {
      EXPECT_EQ(std::u16string(made), expected);
      // The scratch's own text is already in its final form.
      EXPECT_EQ(MakeLongPath(scratch.data(), scratch.Length(), scratch), scratch.data());
    }
  }
  WideString scratch;
  EXPECT_EQ(MakeLongPath(nullptr, 0, scratch), nullptr);
}

TEST(GetPathExtension, SearchesTheFinalNameOnly) {
  // clang-format off
  const std::pair<std::u16string, const char16_t*> cases[] = {  // null: no extension
      {u"report.pdf", u"pdf"}, {u"C:\\out\\Report.PDF", u"PDF"}, {u"archive.tar.gz", u"gz"},
      {u"name.", u""}, {u".pdf", u"pdf"}, {u"dir.d/file", nullptr}, {u"dir.d\\file", nullptr},
      {u"C:file", nullptr}, {u"x.y:stream", nullptr}, {u"noextension", nullptr}, {u"", nullptr}};
  // clang-format on
  for (const auto& [path, expected] : cases) {
    SCOPED_TRACE(WideToUtf8(path));
    std::size_t length = 99;
    const char16_t* extension = GetPathExtension(path.c_str(), path.size(), &length);
    ASSERT_EQ(extension != nullptr, expected != nullptr);
    EXPECT_EQ(std::u16string_view(extension ? extension : u"", length),
              std::u16string_view(expected ? expected : u""));
  }
}

TEST(GetParentFolder, KeepsTheFinalSeparator) {
  // clang-format off
  const std::pair<std::u16string, std::u16string> cases[] = {  // empty: no parent
      {u"C:\\dir\\file.txt", u"C:\\dir\\"}, {u"/tmp/dir/", u"/tmp/dir/"}, {u"a/b\\c", u"a/b\\"},
      {u"/tmp//file", u"/tmp//"}, {u"\\\\server\\share", u"\\\\server\\"}, {u"file.txt", u""},
      {u"", u""}};
  // clang-format on
  for (const auto& [path, parent] : cases) {
    SCOPED_TRACE(WideToUtf8(path));
    WideString result(u"old");
    EXPECT_EQ(GetParentFolder(path.c_str(), path.size(), result), !parent.empty());
    EXPECT_EQ(result.view(), parent);
  }
}

TEST(CombinePath, JoinsRemovesDotSegmentsAndRefusesOverlongResults) {
  // clang-format off
  const std::tuple<std::u16string, std::u16string, std::u16string> cases[] = {  // empty: refused
      {u"b.txt", u"C:\\a", u"C:\\a\\b.txt"}, {u"b.txt", u"C:\\a\\", u"C:\\a\\b.txt"},
      {u"..\\b", u"C:\\a\\c", u"C:\\a\\b"}, {u"..\\..\\..\\x", u"C:\\a", u"C:\\x"},
      {u".\\x\\.\\y\\", u"C:\\a", u"C:\\a\\x\\y\\"}, {u"\\x", u"C:\\a\\b", u"C:\\x"},
      {u"D:\\y", u"C:\\a", u"D:\\y"}, {u"\\\\srv\\s\\f", u"C:\\a", u"\\\\srv\\s\\f"},
      {u"../up", u"\\\\srv\\share\\d", u"\\\\srv\\share\\up"}, {u"./x", u"/tmp/y", u"/tmp/y/x"},
      {u"/abs/./z", u"/tmp", u"/abs/z"}, {u"../../..", u"/tmp/y", u"/"},
      {u"", u"C:\\a\\.\\b\\..\\c", u"C:\\a\\c"}, {u"x/../../y", u"", u"../y"},
      // 260 units fit with the terminator; ".." may bring a long text back under the limit.
      {std::u16string(200, u'n'), u"C:\\" + std::u16string(60, u'b'), u""},
      {std::u16string(256, u'n'), u"C:\\", u"C:\\" + std::u16string(256, u'n')},
      {u"..\\short", u"C:\\" + std::u16string(258, u'x'), u"C:\\short"}};
  // clang-format on
  for (const auto& [relative, base, combined] : cases) {
    SCOPED_TRACE(WideToUtf8(relative) + " on " + WideToUtf8(base));
    WideString result(u"old");
    EXPECT_EQ(CombinePath(relative, base, result), !combined.empty());
    EXPECT_EQ(result.view(), combined);
  }
}

TEST_F(PathsTest, PathExistsRefusesForbiddenCharactersBeforeTheDisk) {
  temp_.Write("present.txt", "data");
  platform::FindDataW data{};
  EXPECT_TRUE(PathExists(temp_.WidePathOf("present.txt").c_str(), &data));
  EXPECT_EQ(std::u16string(data.cFileName), u"present.txt");
  EXPECT_EQ(data.nFileSizeLow, 4u);
  EXPECT_TRUE(PathExists(Wide(temp_.path().string()).c_str()));
  EXPECT_TRUE(PathExists(u"/"));
  EXPECT_FALSE(PathExists(temp_.WidePathOf("absent.txt").c_str()));
  EXPECT_FALSE(PathExists(nullptr));
  // Each of these names exists on this file system; only the scan can answer false for them.
  for (const char* name : {"star*", "ask?", "less<", "more>", "pipe|", "quote\"", "co:lon"}) {
    SCOPED_TRACE(name);
    temp_.Write(name, "x");
    EXPECT_FALSE(PathExists(temp_.WidePathOf(name).c_str()));
  }
  // A colon before a separator or at the end passes the scan.
  fs::create_directories(temp_.PathOf("ok:"));
  EXPECT_TRUE(PathExists(temp_.WidePathOf("ok:").c_str()));
  EXPECT_TRUE(PathExists(temp_.WidePathOf("ok:/").c_str()));
}

// --- Locations ---

TEST(KnownSchemes, AreFoundWithoutRegardToCase) {
  // Every entry must be found, which also proves the table sorted for the search.
  for (std::u16string_view scheme : KnownSchemes) EXPECT_TRUE(IsKnownScheme(scheme));
  EXPECT_TRUE(IsKnownScheme(u"STRATUM+TCP"));
  EXPECT_FALSE(IsKnownScheme(u"http"));
  EXPECT_FALSE(IsKnownScheme(u"mail"));
  EXPECT_FALSE(IsKnownScheme(u""));
}

TEST_F(PathsTest, ClassifyLocationCoversEveryBranch) {
  const std::string file = temp_.Write("page one.html", "<p>");
  using enum LocationKind;
  // clang-format off
  const std::tuple<std::u16string, LocationKind, std::u16string> cases[] = {
      {u"", kNothing, u""}, {Wide(file), kFileSystem, u""},
      {u"file://" + Wide(temp_.path().string()) + u"/page%20one.html", kFileSystem, u""},
      {u"./relative/x", kRelativePath, u""}, {u"..\\up", kRelativePath, u""},
      {u"/no/such/place/mrwl", kNothing, u""}, {u" \t\u00a0", kNothing, u""},
      {u"example.com", kPlainName, u""}, {u"1abc:x", kPlainName, u""},
      {u"abcdefghijklmnopq:x", kPlainName, u""},
      {u"abcdefghijklmnop://x", kScheme, u"abcdefghijklmnop"},
      {u"http://example.com", kScheme, u"http"}, {u"  HTTPS:\\\\host", kScheme, u"HTTPS"},
      {u"\u00a0ftp:///pub", kScheme, u"ftp"}, {u"file:///no/such/file", kScheme, u"file"},
      {u"mailto:someone@example.org", kScheme, u"mailto"}, {u"tel: \u00a0+49", kScheme, u"tel"},
      {u"stratum+tcp:pool", kScheme, u"stratum+tcp"}, {u"unknown:thing", kNothing, u""},
      {u"http:/one-slash", kNothing, u""}, {u":orphan", kNothing, u""},
      {u"mailto:", kNothing, u""}, {u"http:// host", kNothing, u""},
      {u"http://:80", kNothing, u""}, {u"news:\u02b0x", kNothing, u""},
      {u"news:\u200bx", kNothing, u""}, {u"news:\u1d9bx", kNothing, u""},
      {u"news:\u206ax", kNothing, u""}, {u"news:\u0370x", kScheme, u"news"}};
  // clang-format on
  for (const auto& [text, kind, expectedScheme] : cases) {
    SCOPED_TRACE(WideToUtf8(text));
    WideString scheme(u"untouched");
    EXPECT_EQ(ClassifyLocation(text, &scheme), kind);
    EXPECT_EQ(scheme.view(), HasScheme(kind) ? expectedScheme : u"untouched");
  }
}

TEST_F(PathsTest, OpenLocationHandsTheTargetToTheOpener) {
  UseOpener();
  // A slash before the "@" makes a path, not a mail address.
  const std::string document = temp_.Write("mail@home/note.txt", "x");
  const std::tuple<std::u16string, bool, std::string> cases[] = {
      {u"someone@example.org", false, "mailto:someone@example.org"},
      {u"https://host/a@b", false, "https://host/a@b"},
      {u"mailto:x@y", false, "mailto:x@y"},
      {Wide(document), false, document},
      // No program of the browser's name exists here, so the plain open takes over.
      {u"https://example.org/", true, "https://example.org/"}};
  for (const auto& [target, useBrowser, opened] : cases) {
    SCOPED_TRACE(opened);
    fs::remove(temp_.PathOf("opened.txt"));
    EXPECT_TRUE(OpenLocation(target, useBrowser));
    EXPECT_EQ(Opened(), Lines{opened});
  }
  EXPECT_FALSE(OpenLocation(u"", false));
}

TEST_F(PathsTest, OnlyAFileUrlWithFragmentFallsBackToTheDefaultBrowser) {
  UseOpener(4);
  const std::string browser = WriteRecorder("browser.sh", temp_.PathOf("browsed.txt"));
  UseDefaultBrowser(browser);
  WideString program;
  EXPECT_TRUE(GetDefaultCommand(u"http", program));
  EXPECT_EQ(WideToUtf8(program.view()), browser);
  EXPECT_FALSE(GetDefaultCommand(u"gopher", program));
  EXPECT_TRUE(program.IsEmpty());

  EXPECT_FALSE(OpenLocation(u"file:///tmp/page.html", false));
  EXPECT_FALSE(OpenLocation(u"file:///tmp/page.html#", false));
  EXPECT_FALSE(OpenLocation(u"https://example.org/#top", false));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(temp_.Exists("browsed.txt"));

  EXPECT_TRUE(OpenLocation(u"file:///tmp/with space/page.html#part \u00e9", false));
  EXPECT_EQ(testing::WaitForLines(temp_.PathOf("browsed.txt")),
            Lines{"file:///tmp/with%20space/page.html#part%20%C3%A9"});
  EXPECT_EQ(Opened(), Lines{"file:///tmp/with space/page.html#part \xc3\xa9"});
}

TEST_F(PathsTest, ShowInFolderSelectsOpensOrRefuses) {
  WriteRecorder("bin/gdbus", temp_.PathOf("dbus.txt"));
  path_.Set(temp_.PathOf("bin") + ":/usr/bin:/bin");
  temp_.Write("docs/a.pdf", "x");
  const std::u16string_view selection[] = {u"a.pdf"};
  EXPECT_EQ(ShowInFolder(u" \t\r\n" + temp_.WidePathOf("docs"), selection, 0), S_OK);
  const Lines args = testing::WaitForLines(temp_.PathOf("dbus.txt"));
  ASSERT_EQ(args.size(), 12u);
  EXPECT_EQ(args[10], "['file://" + temp_.PathOf("docs") + "/a.pdf']");

  // The file manager refuses: the folder of the first item is opened as it is.
  temp_.Write("bin/gdbus", "#!/bin/sh\nexit 1\n", true);
  UseOpener();
  const std::u16string item = temp_.WidePathOf("docs/a.pdf");
  const std::u16string_view items[] = {item};
  EXPECT_EQ(ShowInFolder(u"", items, 0), S_OK);
  EXPECT_EQ(Opened(), Lines{temp_.PathOf("docs") + "/"});

  UseOpener(4);
  EXPECT_EQ(ShowInFolder(u"", {}, 0), E_INVALIDARG);
  EXPECT_EQ(ShowInFolder(u"  ", items, 1), E_INVALIDARG);
  // FTP stays with the folder route; any other scheme is opened as a location.
  EXPECT_EQ(ShowInFolder(u"ftp://host/pub", {}, 0), HRESULT_FROM_WIN32(ERROR_NO_ASSOCIATION));
  EXPECT_EQ(ShowInFolder(u"https://host/pub", {}, 0), E_FAIL);
  UseOpener();
  fs::remove(temp_.PathOf("opened.txt"));
  EXPECT_EQ(ShowInFolder(u"https://host/pub", {}, 0), S_OK);
  EXPECT_EQ(Opened(), Lines{"https://host/pub"});
}

// --- Temporary folder ---

bool SubfolderHook(WideString& result, TempFolderFunction builtIn) noexcept {
  return builtIn(result) && result.Append(u"hooked/");
}
bool FailingHook(WideString& result, TempFolderFunction) noexcept {
  result.Clear();
  return false;
}

TEST_F(PathsTest, TempFolderEndsInTheSeparatorAndGoesThroughTheHook) {
  const std::string expected = temp_.path().string() + "/";
  WideString folder;
  tmpdir_.Set(expected);
  ASSERT_TRUE(GetTempFolder(folder));
  EXPECT_EQ(WideToUtf8(folder.view()), expected);
  tmpdir_.Set(temp_.path().string());
  EXPECT_EQ(SetTempFolderHook(&SubfolderHook), nullptr);
  ASSERT_TRUE(GetTempFolder(folder));
  EXPECT_EQ(WideToUtf8(folder.view()), expected + "hooked/");
  EXPECT_EQ(SetTempFolderHook(&FailingHook), &SubfolderHook);
  EXPECT_FALSE(GetTempFolder(folder));
  EXPECT_TRUE(folder.IsEmpty());
  EXPECT_EQ(SetTempFolderHook(nullptr), &FailingHook);
  ASSERT_TRUE(GetTempFolder(folder));
  EXPECT_EQ(WideToUtf8(folder.view()), expected);
}

TEST_F(PathsTest, LowIntegrityFolderLiesBelowLocalData) {
  dataHome_.Set("/srv/data");
  WideString folder;
  ASSERT_TRUE(internal::GetTempFolderAt(true, folder));
  EXPECT_EQ(folder.view(), u"/srv/data/Temp/Low/");
  // From 249 units on the folder would outgrow the classic limit and is not offered.
  dataHome_.Set("/" + std::string(247, 'd'));
  EXPECT_TRUE(internal::GetTempFolderAt(true, folder));
  dataHome_.Set("/" + std::string(248, 'd'));
  EXPECT_FALSE(internal::GetTempFolderAt(true, folder));
  EXPECT_TRUE(folder.IsEmpty());
}

#if !defined(_WIN32)
TEST(IsRunningOnWine, IsFalseOnANativeSystem) { EXPECT_FALSE(IsRunningOnWine()); }
#endif

}  // namespace
}  // namespace mrwl
