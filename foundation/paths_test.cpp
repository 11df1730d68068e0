#include "foundation/paths.h"

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
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

  // An opener that records what it was asked to open, or fails as if nothing could open it.
  void UseOpener(int status = 0) {
    opener_.Set(WriteRecorder("opener.sh", temp_.PathOf("opened.txt"), status));
  }
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

TEST(MakeLongPath, PrefixesFrom248UnitsOn) {
  WideString scratch;
  const std::u16string short247 = u"C:\\" + std::u16string(244, u'a');
  ASSERT_EQ(short247.size(), 247u);
  EXPECT_EQ(MakeLongPath(short247.c_str(), short247.size(), scratch), short247.c_str());

  const std::u16string long248 = short247 + u"b";
  const char16_t* made = MakeLongPath(long248.c_str(), long248.size(), scratch);
  EXPECT_EQ(made, scratch.c_str());
  EXPECT_EQ(std::u16string(made), u"\\\\?\\" + long248);
  // The scratch's own text is already in its final form.
  EXPECT_EQ(MakeLongPath(scratch.data(), scratch.Length(), scratch), scratch.data());
}

TEST(MakeLongPath, NetworkPathTakesTheUncForm) {
  WideString scratch;
  const std::u16string tail = u"server\\share\\" + std::u16string(285, u'x');
  const std::u16string network = u"\\\\" + tail;
  ASSERT_EQ(network.size(), 300u);
  EXPECT_EQ(std::u16string(MakeLongPath(network.c_str(), network.size(), scratch)),
            u"\\\\?\\UNC\\" + tail);
  // A single leading separator is taken as a network path too; only it is dropped.
  const std::u16string rooted = u"/" + tail;
  EXPECT_EQ(std::u16string(MakeLongPath(rooted.c_str(), rooted.size(), scratch)),
            u"\\\\?\\UNC\\" + tail);
  EXPECT_EQ(MakeLongPath(nullptr, 0, scratch), nullptr);
}

TEST(GetPathExtension, SearchesTheFinalNameOnly) {
  struct Case {
    std::u16string path;
    bool found;
    std::u16string extension;
  };
  const Case cases[] = {
      {u"report.pdf", true, u"pdf"},
      {u"C:\\out\\Report.PDF", true, u"PDF"},
      {u"archive.tar.gz", true, u"gz"},
      {u"name.", true, u""},
      {u".pdf", true, u"pdf"},
      {u"dir.d/file", false, u""},
      {u"dir.d\\file", false, u""},
      {u"C:file", false, u""},
      {u"x.y:stream", false, u""},
      {u"noextension", false, u""},
      {u"", false, u""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(WideToUtf8(c.path));
    std::size_t length = 99;
    const char16_t* extension = GetPathExtension(c.path.c_str(), c.path.size(), &length);
    ASSERT_EQ(extension != nullptr, c.found);
    EXPECT_EQ(length, c.extension.size());
    if (c.found) {
      EXPECT_EQ(std::u16string(extension, length), c.extension);
    }
  }
}

TEST(GetParentFolder, KeepsTheFinalSeparator) {
  struct Case {
    std::u16string path;
    bool found;
    std::u16string parent;
  };
  const Case cases[] = {
      {u"C:\\dir\\file.txt", true, u"C:\\dir\\"},
      {u"/tmp/dir/", true, u"/tmp/dir/"},
      {u"/tmp//file", true, u"/tmp//"},
      {u"\\\\server\\share", true, u"\\\\server\\"},
      {u"a/b\\c", true, u"a/b\\"},
      {u"file.txt", false, u""},
      {u"", false, u""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(WideToUtf8(c.path));
    WideString parent(u"old");
    EXPECT_EQ(GetParentFolder(c.path.c_str(), c.path.size(), parent), c.found);
    EXPECT_EQ(parent.view(), c.parent);
  }
}

TEST(CombinePath, JoinsAndRemovesDotSegments) {
  struct Case {
    std::u16string relative;
    std::u16string base;
    std::u16string combined;
  };
  const Case cases[] = {
      {u"b.txt", u"C:\\a", u"C:\\a\\b.txt"},
      {u"b.txt", u"C:\\a\\", u"C:\\a\\b.txt"},
      {u"..\\b", u"C:\\a\\c", u"C:\\a\\b"},
      {u"..\\..\\..\\x", u"C:\\a", u"C:\\x"},
      {u".\\x\\.\\y\\", u"C:\\a", u"C:\\a\\x\\y\\"},
      {u"\\x", u"C:\\a\\b", u"C:\\x"},
      {u"D:\\y", u"C:\\a", u"D:\\y"},
      {u"\\\\srv\\s\\f", u"C:\\a", u"\\\\srv\\s\\f"},
      {u"../up", u"\\\\srv\\share\\d", u"\\\\srv\\share\\up"},
      {u"./x", u"/tmp/y", u"/tmp/y/x"},
      {u"/abs/./z", u"/tmp", u"/abs/z"},
      {u"../../..", u"/tmp/y", u"/"},
      {u"", u"C:\\a\\.\\b\\..\\c", u"C:\\a\\c"},
      {u"x/../../y", u"", u"../y"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(WideToUtf8(c.relative) + " on " + WideToUtf8(c.base));
    WideString result;
    EXPECT_TRUE(CombinePath(c.relative, c.base, result));
    EXPECT_EQ(result.view(), c.combined);
  }
}

TEST(CombinePath, RefusesResultsBeyondTheBuffer) {
  WideString result(u"old");
  const std::u16string name(200, u'n');
  EXPECT_FALSE(CombinePath(name, u"C:\\" + std::u16string(60, u'b'), result));
  EXPECT_TRUE(result.IsEmpty());
  // 260 units fit with the terminator; ".." may bring a long text back under the limit.
  EXPECT_TRUE(CombinePath(std::u16string(256, u'n'), u"C:\\", result));
  EXPECT_EQ(result.Length(), 259u);
  EXPECT_TRUE(CombinePath(u"..\\short", u"C:\\" + std::u16string(258, u'x'), result));
  EXPECT_EQ(result.view(), u"C:\\short");
}

TEST_F(PathsTest, PathExistsFindsFilesAndFolders) {
  temp_.Write("present.txt", "data");
  platform::FindDataW data{};
  EXPECT_TRUE(PathExists(Wide(temp_.PathOf("present.txt")).c_str(), &data));
  EXPECT_EQ(std::u16string(data.cFileName), u"present.txt");
  EXPECT_EQ(data.nFileSizeLow, 4u);
  EXPECT_TRUE(PathExists(Wide(temp_.path().string()).c_str()));
  EXPECT_TRUE(PathExists(Wide(temp_.path().string() + "/").c_str()));
  EXPECT_TRUE(PathExists(u"/"));
  EXPECT_FALSE(PathExists(Wide(temp_.PathOf("absent.txt")).c_str()));
  EXPECT_FALSE(PathExists(nullptr));
}

TEST_F(PathsTest, ForbiddenCharactersAreRefusedBeforeTheDisk) {
  // Each of these names exists on this file system; only the scan can answer false for them.
  for (const char* name : {"star*", "ask?", "less<", "more>", "pipe|", "quote\"", "co:lon"}) {
    SCOPED_TRACE(name);
    temp_.Write(name, "x");
    ASSERT_TRUE(fs::exists(temp_.PathOf(name)));
    EXPECT_FALSE(PathExists(Wide(temp_.PathOf(name)).c_str()));
  }
  // A colon before a separator or at the end passes the scan.
  fs::create_directories(temp_.PathOf("ok:"));
  EXPECT_TRUE(PathExists(Wide(temp_.PathOf("ok:")).c_str()));
  EXPECT_TRUE(PathExists(Wide(temp_.PathOf("ok:") + "/").c_str()));
}

// --- Locations ---

TEST(KnownSchemes, HoldsSixtyFourSortedNames) {
  EXPECT_EQ(KnownSchemes.size(), 64u);
  for (std::size_t i = 1; i < KnownSchemes.size(); ++i) {
    SCOPED_TRACE(WideToUtf8(KnownSchemes[i]));
    EXPECT_LT(CompareNoCase(KnownSchemes[i - 1], KnownSchemes[i]), 0);
  }
  for (std::u16string_view scheme : KnownSchemes) EXPECT_TRUE(IsKnownScheme(scheme));
  EXPECT_TRUE(IsKnownScheme(u"MailTo"));
  EXPECT_TRUE(IsKnownScheme(u"STRATUM+TCP"));
  EXPECT_FALSE(IsKnownScheme(u"http"));
  EXPECT_FALSE(IsKnownScheme(u"mail"));
  EXPECT_FALSE(IsKnownScheme(u""));
}

TEST_F(PathsTest, ClassifyLocationCoversEveryBranch) {
  const std::string file = temp_.Write("page one.html", "<p>");
  struct Case {
    std::u16string text;
    LocationKind kind;
    std::u16string scheme;
  };
  const Case cases[] = {
      {u"", LocationKind::kNothing, u""},
      {Wide(file), LocationKind::kFileSystem, u""},
      {u"file://" + Wide(temp_.path().string()) + u"/page%20one.html", LocationKind::kFileSystem,
       u""},
      {u"./relative/x", LocationKind::kRelativePath, u""},
      {u"..\\up", LocationKind::kRelativePath, u""},
      {u"/no/such/place/mrwl", LocationKind::kNothing, u""},
      {u" \t\u00a0", LocationKind::kNothing, u""},
      {u"example.com", LocationKind::kPlainName, u""},
      {u"1abc:x", LocationKind::kPlainName, u""},
      {u"abcdefghijklmnopq:x", LocationKind::kPlainName, u""},
      {u"abcdefghijklmnop://x", LocationKind::kScheme, u"abcdefghijklmnop"},
      {u"http://example.com", LocationKind::kScheme, u"http"},
      {u"  HTTPS:\\\\host", LocationKind::kScheme, u"HTTPS"},
      {u"\u00a0ftp:///pub", LocationKind::kScheme, u"ftp"},
      {u"file:///no/such/file", LocationKind::kScheme, u"file"},
      {u"mailto:someone@example.org", LocationKind::kScheme, u"mailto"},
      {u"tel: \u00a0+49", LocationKind::kScheme, u"tel"},
      {u"stratum+tcp:pool", LocationKind::kScheme, u"stratum+tcp"},
      {u"unknown:thing", LocationKind::kNothing, u""},
      {u"http:/one-slash", LocationKind::kNothing, u""},
      {u":orphan", LocationKind::kNothing, u""},
      {u"mailto:", LocationKind::kNothing, u""},
      {u"http:// host", LocationKind::kNothing, u""},
      {u"http://:80", LocationKind::kNothing, u""},
      {u"news:\u02b0x", LocationKind::kNothing, u""},
      {u"news:\u200bx", LocationKind::kNothing, u""},
      {u"news:\u1d9bx", LocationKind::kNothing, u""},
      {u"news:\u206ax", LocationKind::kNothing, u""},
      {u"news:\u0370x", LocationKind::kScheme, u"news"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(WideToUtf8(c.text));
    WideString scheme(u"untouched");
    EXPECT_EQ(ClassifyLocation(c.text, &scheme), c.kind);
    EXPECT_EQ(scheme.view(), HasScheme(c.kind) ? c.scheme : u"untouched");
  }
}

TEST_F(PathsTest, BareMailAddressOpensAsMailLink) {
  UseOpener();
  struct Case {
    std::u16string target;
    std::string opened;
  };
  const Case cases[] = {
      {u"someone@example.org", "mailto:someone@example.org"},
      {u"https://host/a@b", "https://host/a@b"},
      {u"mailto:x@y", "mailto:x@y"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.opened);
    fs::remove(temp_.PathOf("opened.txt"));
    EXPECT_TRUE(OpenLocation(c.target, false));
    EXPECT_EQ(testing::WaitForLines(temp_.PathOf("opened.txt")), Lines{c.opened});
  }
  EXPECT_FALSE(OpenLocation(u"", false));
}

TEST_F(PathsTest, SlashBeforeTheAtSignIsNoMailAddress) {
  UseOpener();
  const std::string document = temp_.Write("mail@home/note.txt", "x");
  EXPECT_TRUE(OpenLocation(Wide(document), false));
  EXPECT_EQ(testing::WaitForLines(temp_.PathOf("opened.txt")), Lines{document});
}

TEST_F(PathsTest, FileUrlWithFragmentFallsBackToTheDefaultBrowser) {
  UseOpener(4);
  UseDefaultBrowser(WriteRecorder("browser.sh", temp_.PathOf("browsed.txt")));
  EXPECT_TRUE(OpenLocation(u"file:///tmp/with space/page.html#part \u00e9", false));
  EXPECT_EQ(testing::WaitForLines(temp_.PathOf("browsed.txt")),
            Lines{"file:///tmp/with%20space/page.html#part%20%C3%A9"});
  EXPECT_EQ(testing::WaitForLines(temp_.PathOf("opened.txt")),
            Lines{"file:///tmp/with space/page.html#part \xc3\xa9"});
}

TEST_F(PathsTest, FailedOpenWithoutFragmentStaysFailed) {
  UseOpener(4);
  UseDefaultBrowser(WriteRecorder("browser.sh", temp_.PathOf("browsed.txt")));
  EXPECT_FALSE(OpenLocation(u"file:///tmp/page.html", false));
  EXPECT_FALSE(OpenLocation(u"file:///tmp/page.html#", false));
  EXPECT_FALSE(OpenLocation(u"https://example.org/#top", false));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(fs::exists(temp_.PathOf("browsed.txt")));
}

TEST_F(PathsTest, BrowserRequestFallsBackToTheShell) {
  // No program of the browser's name exists here, so the plain open takes over.
  UseOpener();
  EXPECT_TRUE(OpenLocation(u"https://example.org/", true));
  EXPECT_EQ(testing::WaitForLines(temp_.PathOf("opened.txt")), Lines{"https://example.org/"});
}

TEST_F(PathsTest, ShowInFolderSelectsThroughTheFileManager) {
  WriteRecorder("bin/gdbus", temp_.PathOf("dbus.txt"));
  path_.Set(temp_.PathOf("bin") + ":/usr/bin:/bin");
  temp_.Write("docs/a.pdf", "x");
  const std::u16string_view selection[] = {u"a.pdf"};
  EXPECT_EQ(ShowInFolder(u" \t\r\n" + Wide(temp_.PathOf("docs")), selection, 0), S_OK);
  const Lines args = testing::WaitForLines(temp_.PathOf("dbus.txt"));
  ASSERT_EQ(args.size(), 12u);
  EXPECT_EQ(args[10], "['file://" + temp_.PathOf("docs") + "/a.pdf']");
}

TEST_F(PathsTest, ShowInFolderTakesTheFolderOfTheFirstItem) {
  temp_.Write("bin/gdbus", "#!/bin/sh\nexit 1\n", true);
  path_.Set(temp_.PathOf("bin") + ":/usr/bin:/bin");
  UseOpener();
  const std::string item = temp_.Write("docs/b.pdf", "x");
  const std::u16string itemText = Wide(item);
  const std::u16string_view views[] = {itemText};
  // The file manager refuses, so the folder is opened as it is.
  EXPECT_EQ(ShowInFolder(u"", views, 0), S_OK);
  EXPECT_EQ(testing::WaitForLines(temp_.PathOf("opened.txt")), Lines{temp_.PathOf("docs") + "/"});
}

TEST_F(PathsTest, ShowInFolderRefusesWhatItCannotShow) {
  UseOpener(4);
  const std::u16string_view one[] = {u"/tmp/x.pdf"};
  EXPECT_EQ(ShowInFolder(u"", {}, 0), E_INVALIDARG);
  EXPECT_EQ(ShowInFolder(u"  ", one, 1), E_INVALIDARG);
  EXPECT_EQ(ShowInFolder(u"", std::span<const std::u16string_view>(), 0), E_INVALIDARG);
  // FTP stays with the folder route; any other scheme is opened as a location.
  EXPECT_EQ(ShowInFolder(u"ftp://host/pub", {}, 0), HRESULT_FROM_WIN32(ERROR_NO_ASSOCIATION));
  EXPECT_EQ(ShowInFolder(u"https://host/pub", {}, 0), E_FAIL);
  UseOpener();
  EXPECT_EQ(ShowInFolder(u"https://host/pub", {}, 0), S_OK);
  EXPECT_EQ(testing::WaitForLines(temp_.PathOf("opened.txt")), Lines{"https://host/pub"});
}

TEST_F(PathsTest, DefaultCommandNamesTheProgram) {
  const std::string browser = WriteRecorder("browser.sh", temp_.PathOf("never"));
  UseDefaultBrowser(browser);
  WideString program;
  EXPECT_TRUE(GetDefaultCommand(u"http", program));
  EXPECT_EQ(WideToUtf8(program.view()), browser);
  EXPECT_FALSE(GetDefaultCommand(u"gopher", program));
  EXPECT_TRUE(program.IsEmpty());
}

// --- Temporary folder ---

TEST_F(PathsTest, TempFolderEndsInTheSeparator) {
  tmpdir_.Set(temp_.path().string());
  WideString folder;
  ASSERT_TRUE(GetTempFolder(folder));
  EXPECT_EQ(WideToUtf8(folder.view()), temp_.path().string() + "/");
  tmpdir_.Set(temp_.path().string() + "/");
  ASSERT_TRUE(GetTempFolder(folder));
  EXPECT_EQ(WideToUtf8(folder.view()), temp_.path().string() + "/");
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

bool SubfolderHook(WideString& result, TempFolderFunction builtIn) noexcept {
  return builtIn(result) && result.Append(u"hooked/");
}
bool FailingHook(WideString& result, TempFolderFunction) noexcept {
  result.Clear();
  return false;
}

TEST_F(PathsTest, TempFolderHookMayWrapTheBuiltIn) {
  tmpdir_.Set(temp_.path().string());
  WideString folder;
  EXPECT_EQ(SetTempFolderHook(&SubfolderHook), nullptr);
  ASSERT_TRUE(GetTempFolder(folder));
  EXPECT_EQ(WideToUtf8(folder.view()), temp_.path().string() + "/hooked/");
  EXPECT_EQ(SetTempFolderHook(&FailingHook), &SubfolderHook);
  EXPECT_FALSE(GetTempFolder(folder));
  EXPECT_TRUE(folder.IsEmpty());
  EXPECT_EQ(SetTempFolderHook(nullptr), &FailingHook);
  ASSERT_TRUE(GetTempFolder(folder));
  EXPECT_EQ(WideToUtf8(folder.view()), temp_.path().string() + "/");
}

TEST(IsRunningOnWine, AnswersTheSameEveryTime) {
  const bool first = IsRunningOnWine();
#if !defined(_WIN32)
  EXPECT_FALSE(first);
#endif
  EXPECT_EQ(IsRunningOnWine(), first);
}

}  // namespace
}  // namespace mrwl
