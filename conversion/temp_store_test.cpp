#include "conversion/temp_store.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/format.h"
#include "foundation/paths.h"
#include "platform/kernel.h"
#include "platform/utf.h"
#include "testing/temp_folder.h"
#include "testing/temp_folder_hook.h"

namespace mrwl {
namespace {

namespace fs = std::filesystem;

std::string Utf8(std::u16string_view text) { return platform::Utf16ToUtf8(text); }
fs::perms Mode(const fs::path& path) { return fs::symlink_status(path).permissions(); }

using testing::ScopedTempFolder;

TEST(MakeUniqueTempName, NamesAFreshFileInTheTemporaryFolder) {
  testing::TempFolder temp;
  WideString first;
  {
    ScopedTempFolder scoped(temp.WidePathOf(""));
    ASSERT_TRUE(MakeUniqueTempName(u"mrwm_", u"html", first));
    const std::string name = Utf8(first), leaf = name.substr(temp.PathOf("").size());
    ASSERT_EQ(temp.PathOf(leaf), name);
    EXPECT_TRUE(std::regex_match(leaf, std::regex("mrwm_[0-9a-f]+\\.html"))) << leaf;
    EXPECT_FALSE(temp.Exists(leaf));
    temp.Write(leaf, "taken");  // a taken name is passed over
    WideString second;
    ASSERT_TRUE(MakeUniqueTempName(u"mrwm_", u"html", second));
    EXPECT_NE(name, Utf8(second));
  }
  ScopedTempFolder none(u"");
  EXPECT_FALSE(MakeUniqueTempName(u"mrwm_", u"html", first));
  EXPECT_TRUE(first.IsEmpty());
}

TEST(MakeUniqueTempName, GivesUpAfterTenThousandAndOneTakenNames) {
  // The number the search starts from, as the clock gives it now.
  const auto clock = [] {
    SYSTEMTIME now{};
    platform::GetSystemTime(&now);
    return std::pair<unsigned, unsigned>(
        now.wMinute, now.wMilliseconds + (now.wMinute * 100u + now.wSecond) * 1000u);
  };
  testing::TempFolder temp;
  // Takes every name the search could try: from the number of the clock on, until the names
  // reach 10001 past where the clock stands after they were made. The count jumps at each full
  // minute; then the names start over from the new count.
  auto [minute, next] = clock();
  for (;;) {
    const auto [nowMinute, now] = clock();
    if (nowMinute != minute) {
      minute = nowMinute;
      next = now;
    }
    if (next >= now + 10001 + 1000) break;
    for (int i = 0; i < 500; ++i, ++next) {
      const std::string name = temp.PathOf(Utf8(FormatText(u"mrwm_%x.html", next).view()));
      if (std::FILE* file = std::fopen(name.c_str(), "w")) std::fclose(file);
    }
  }
  ScopedTempFolder scoped(temp.WidePathOf(""));
  WideString result(u"stale");
  const bool found = MakeUniqueTempName(u"mrwm_", u"html", result);
  if (clock().first != minute) GTEST_SKIP() << "the minute turned during the search";
  EXPECT_FALSE(found);
  EXPECT_TRUE(result.IsEmpty());
}

TEST(WriteHandoffFile, WritesTheRecordToAPrivateNewFile) {
  testing::TempFolder temp;
  ConversionStore store;
  store.RunApp = RunAppSettings::Create();
  store.Security = SecuritySettings::Create();
  store.Security->secEnabled = true;
  store.Security->secOwnerPassword = std::u16string_view(u"owner");
  store.NewJob()->PagePath = std::u16string_view(u"/tmp/page.html");
  WideString path;
  {
    ScopedTempFolder scoped(temp.WidePathOf(""));
    ASSERT_TRUE(WriteHandoffFile(store, path));
  }
  const fs::path file(Utf8(path));
  EXPECT_EQ(temp.path(), file.parent_path());
  EXPECT_TRUE(std::regex_match(file.filename().string(), std::regex("mrwstg_[0-9a-f]+\\.bin")));
  EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write, Mode(file));
  const std::string bytes = temp.Read(file.filename().string());
  MemoryStream expected;
  ASSERT_EQ(kOk, expected.Open(0, 0));
  ASSERT_TRUE(store.SerializeStore(expected));
  EXPECT_EQ(std::string(static_cast<const char*>(expected.GetData()), expected.GetSize()), bytes);

  // A temporary folder that can't hold files: nothing written, nothing named.
  temp.Write("blocked", "a file where the folder should be");
  ScopedTempFolder blocked(temp.WidePathOf("blocked/"));
  EXPECT_FALSE(WriteHandoffFile(store, path));
  EXPECT_TRUE(path.IsEmpty());
}

class DeleteTreeTest : public ::testing::Test {
 protected:
  // Makes each file of the space-separated list (a "@" in the name makes it read-only) or, with
  // a final "/", folder.
  void Make(const std::string& names) {
    std::istringstream in(names);
    for (std::string name; in >> name;) {
      const std::size_t at = name.find('@');
      if (at != std::string::npos) name.erase(at, 1);
      if (name.back() == '/') {
        fs::create_directories(temp_.path() / name);
        continue;
      }
      temp_.Write(name, "x");
      if (at != std::string::npos) fs::permissions(temp_.path() / name, fs::perms::owner_read);
    }
  }
  std::u16string PathOf(const std::string& name) const { return temp_.WidePathOf(name); }
  // What the test folder holds, sorted and space-separated; the folder is emptied.
  std::string TakeListing() {
    std::vector<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(temp_.path())) {
      names.push_back(fs::relative(entry.path(), temp_.path()).string());
    }
    for (const auto& entry : fs::directory_iterator(temp_.path())) fs::remove_all(entry.path());
    std::sort(names.begin(), names.end());
    std::string listing;
    for (const std::string& name : names) listing += (listing.empty() ? "" : " ") + name;
    return listing;
  }

  testing::TempFolder temp_;
};

TEST_F(DeleteTreeTest, FilesGoAndWhatStaysKeepsTheFolder) {
  struct Case {
    const char* files;
    bool recursive;
    DWORD result;
    const char* left;
  } const cases[] = {
      {"tree/a.png tree/@ro.png", false, 0, ""},
      {"tree/a.png tree/sub/b.png tree/sub/deeper/", true, 0, ""},
      // Without recursion a subfolder keeps the folder, yet counts as no failure.
      {"tree/a.png tree/sub/b.png", false, 0, "tree tree/sub tree/sub/b.png"},
      {"tree/a.png tree/.hidden tree/..odd", true, ERROR_DIR_NOT_EMPTY,
       "tree tree/..odd tree/.hidden"},
      {"tree/", false, 0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.files);
    Make(c.files);
    EXPECT_EQ(c.result, DeleteTree(PathOf("tree").c_str(), c.recursive));
    EXPECT_EQ(c.left, TakeListing());
  }
  EXPECT_EQ(0u, DeleteTree(PathOf("missing").c_str(), true));
  EXPECT_EQ(0u, DeleteTree(u"", true));
}

TEST_F(DeleteTreeTest, LinksAreRemovedAndNeverFollowed) {
  Make("outside/@keep.txt tree/");
  const fs::path outside = temp_.path() / "outside";
  fs::create_directory_symlink(outside, temp_.path() / "tree/folder-link");
  fs::create_symlink(outside / "keep.txt", temp_.path() / "tree/file-link");
  // A link standing where the folder should be goes itself.
  fs::create_directory_symlink(outside, temp_.path() / "page_files");
  EXPECT_EQ(0u, DeleteTree(PathOf("tree").c_str(), true));
  EXPECT_EQ(0u, DeleteTree(PathOf("page_files").c_str(), true));
  EXPECT_EQ(fs::perms::owner_read, Mode(outside / "keep.txt"));  // no attribute reset through it
  EXPECT_EQ("outside outside/keep.txt", TakeListing());
}

TEST_F(DeleteTreeTest, ExportedPagesGoWithOneCompanionFolder) {
  // The page is made read-only and deleted by its path; the other files stand beside it.
  const std::tuple<std::string, const char*, const char*> cases[] = {
      {"p.html", "p_files/@image.png", ""},
      {"p.html", "p.files/image.png", ""},
      {"p.html", "p_files/image.png p.files/image.png", "p.files p.files/image.png"},
      // A ".html" in a folder name is not the page's.
      {"x.html.d/p.html", "x.html.d/p_files/image.png",
       "x.html.d x.html.d/p_files x.html.d/p_files/image.png"},
      {"p.html", "p.txt", "p.txt"},
  };
  for (const auto& [page, others, left] : cases) {
    SCOPED_TRACE(others);
    Make("@" + page + " " + others);
    DeleteExportedPage(PathOf(page));
    EXPECT_EQ(left, TakeListing());
  }
}

TEST_F(DeleteTreeTest, JobFilesGoByTheirFlags) {
  JobList jobs;
  for (const std::string n : {"1", "2"}) {
    Make("mrwm_" + n + ".html mrwm_" + n + "_files/image001.png @a" + n + ".txt");
    auto& job = jobs.emplace_back(std::make_unique<ConversionJob>());
    job->PagePath = PathOf("mrwm_" + n + ".html");
    job->Attachments = {WideString(PathOf("a" + n + ".txt")), WideString(PathOf("gone.txt"))};
    job->DeletePage = job->DeleteAttachments = n == "1";
  }
  DeleteJobFiles(jobs);
  EXPECT_EQ("a2.txt mrwm_2.html mrwm_2_files mrwm_2_files/image001.png", TakeListing());
}

TEST_F(DeleteTreeTest, ExportedPagesAreMadePrivate) {
  Make("mrwm_1.html mrwm_1_files/image001.png");
  for (const char* name : {"mrwm_1.html", "mrwm_1_files", "mrwm_1_files/image001.png"}) {
    fs::permissions(temp_.path() / name, fs::perms::all);
  }
  RestrictExportedPage(PathOf("mrwm_1.html"));
  const auto file = fs::perms::owner_read | fs::perms::owner_write;
  EXPECT_EQ(file, Mode(temp_.path() / "mrwm_1.html"));
  EXPECT_EQ(fs::perms::owner_all, Mode(temp_.path() / "mrwm_1_files"));
  EXPECT_EQ(file, Mode(temp_.path() / "mrwm_1_files/image001.png"));
}

TEST(MakeAttachmentNamesUnique, LaterEqualNamesAreNumberedBeforeTheirPoint) {
  // Names of the jobs in order, "|" between them; "*" stands for a job without a record.
  const std::pair<const char*, const char*> cases[] = {
      {"A.pdf|A.pdf|A.pdf", "A.pdf|A(1).pdf|A(2).pdf"},
      {"Status.pdf|STATUS.PDF", "Status.pdf|STATUS(1).PDF"},   // case is not looked at
      {"v1.2.pdf|v1.2.pdf", "v1.2.pdf|v1.2(1).pdf"},           // the last point counts
      {"a.pdf|a.pdf|a(1).pdf", "a.pdf|a(1).pdf|a(1)(1).pdf"},  // a made name meets an original
      {"a.pdf|a.pdfx|ab.pdf", "a.pdf|a.pdfx|ab.pdf"},          // prefixes are not equal
      {"a.pdf|*|a.pdf", "a.pdf|*|a(1).pdf"},
      {"||", "|(1)|(2)"},
      {"readme|readme", "readme|readme(1)"},
  };
  for (const auto& [before, after] : cases) {
    SCOPED_TRACE(before);
    JobList jobs;
    std::istringstream in(std::string(before) + "|");
    for (std::string name; std::getline(in, name, '|');) {
      auto& job = jobs.emplace_back(std::make_unique<ConversionJob>());
      if (name == "*") continue;
      job->Record = MailRecord::TryCreate();
      job->Record->FileName = std::u16string_view(platform::Utf8ToUtf16(name));
    }
    MakeAttachmentNamesUnique(jobs);
    std::string names;
    for (std::size_t i = 0; i < jobs.size(); ++i) {
      names += (i == 0 ? "" : "|") + (jobs[i]->Record ? Utf8(jobs[i]->Record->FileName) : "*");
    }
    EXPECT_EQ(after, names);
  }
}

}  // namespace
}  // namespace mrwl
