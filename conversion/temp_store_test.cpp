#include "conversion/temp_store.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "conversion/handoff_test_support.h"
#include "foundation/format.h"
#include "foundation/paths.h"
#include "platform/kernel.h"
#include "platform/utf.h"
#include "testing/temp_folder.h"

namespace mrwl {
namespace {

namespace fs = std::filesystem;

std::string Utf8(std::u16string_view text) { return platform::Utf16ToUtf8(text); }
std::u16string Wide(const fs::path& path) { return platform::Utf8ToUtf16(path.string()); }
fs::perms Mode(const fs::path& path) { return fs::symlink_status(path).permissions(); }

// Points the temporary folder of the process at `folder` for a scope; an empty one can't be told.
class ScopedTempFolder {
 public:
  explicit ScopedTempFolder(std::u16string folder) : previous_(SetTempFolderHook(&Hook)) {
    Folder() = std::move(folder);
  }
  ~ScopedTempFolder() { (void)SetTempFolderHook(previous_); }

 private:
  static std::u16string& Folder() {
    static std::u16string folder;
    return folder;
  }
  static bool Hook(WideString& result, TempFolderFunction) noexcept {
    result = Folder();
    return !Folder().empty();
  }
  TempFolderHook previous_;
};

TEST(MakeUniqueTempName, NamesAFreshFileInTheTemporaryFolder) {
  testing::TempFolder temp;
  const std::string folder = temp.PathOf("");
  WideString first;
  {
    ScopedTempFolder scoped(temp.WidePathOf(""));
    ASSERT_TRUE(MakeUniqueTempName(u"mrwm_", u"html", first));
    const std::string name = Utf8(first);
    ASSERT_EQ(0u, name.rfind(folder, 0));
    const std::string leaf = name.substr(folder.size());
    EXPECT_TRUE(std::regex_match(leaf, std::regex("mrwm_[0-9a-f]+\\.html"))) << leaf;
    EXPECT_FALSE(temp.Exists(leaf));

    // A taken name is passed over.
    temp.Write(leaf, "taken");
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
  ConversionJob& job = *store.NewJob();
  job.PagePath = std::u16string_view(u"/tmp/page.html");

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
  const auto decoded = testing::HandoffReader::Decode(bytes);
  ASSERT_TRUE(decoded.has_value());
  EXPECT_EQ(bytes.size(), decoded->totalSize);

  // A temporary folder that can't hold files: nothing written, nothing named.
  temp.Write("blocked", "a file where the folder should be");
  ScopedTempFolder blocked(temp.WidePathOf("blocked/"));
  EXPECT_FALSE(WriteHandoffFile(store, path));
  EXPECT_TRUE(path.IsEmpty());
}

class DeleteTreeTest : public ::testing::Test {
 protected:
  fs::path Make(const std::string& name, bool readOnly = false) {
    temp_.Write(name, "x");
    const fs::path path = temp_.path() / name;
    if (readOnly) fs::permissions(path, fs::perms::owner_read);
    return path;
  }
  DWORD Delete(const fs::path& path, bool recursive) {
    return DeleteTree(Wide(path).c_str(), recursive);
  }

  testing::TempFolder temp_;
};

TEST_F(DeleteTreeTest, FilesGoAndWhatStaysKeepsTheFolder) {
  struct Case {
    const char* name;
    std::vector<std::string> files;  // below "tree/"; a trailing "/" makes an empty folder
    bool recursive;
    DWORD result;
    std::vector<std::string> left;  // below the test folder afterwards
  };
  const Case cases[] = {
      {"read-only file", {"a.png", "@ro.png"}, false, 0, {}},
      {"subfolder, recursive", {"a.png", "sub/b.png", "sub/deeper/"}, true, 0, {}},
      {"subfolder, not recursive: no failure",
       {"a.png", "sub/b.png"},
       false,
       0,
       {"tree", "tree/sub", "tree/sub/b.png"}},
      {"a leading point keeps the entry and the folder",
       {"a.png", ".hidden", "..odd"},
       true,
       ERROR_DIR_NOT_EMPTY,
       {"tree", "tree/..odd", "tree/.hidden"}},
      {"empty folder", {}, false, 0, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::create_directories(temp_.path() / "tree");
    for (std::string file : c.files) {
      const std::size_t at = file.find('@');
      const bool readOnly = at != std::string::npos;
      if (readOnly) file.erase(at, 1);
      if (file.back() == '/') {
        fs::create_directories(temp_.path() / "tree" / file);
      } else {
        Make("tree/" + file, readOnly);
      }
    }
    EXPECT_EQ(c.result, Delete(temp_.path() / "tree", c.recursive));
    std::vector<std::string> left;
    for (const auto& entry : fs::recursive_directory_iterator(temp_.path())) {
      left.push_back(fs::relative(entry.path(), temp_.path()).string());
    }
    std::sort(left.begin(), left.end());
    EXPECT_EQ(c.left, left);
    fs::remove_all(temp_.path() / "tree");
  }
  EXPECT_EQ(0u, Delete(temp_.path() / "missing", true));
  EXPECT_EQ(0u, DeleteTree(u"", true));
}

TEST_F(DeleteTreeTest, LinksAreRemovedAndNeverFollowed) {
  const fs::path outside = Make("outside/keep.txt").parent_path();
  fs::permissions(temp_.path() / "outside/keep.txt", fs::perms::owner_read);
  fs::create_directories(temp_.path() / "tree");
  fs::create_directory_symlink(outside, temp_.path() / "tree/folder-link");
  fs::create_symlink(outside / "keep.txt", temp_.path() / "tree/file-link");
  EXPECT_EQ(0u, Delete(temp_.path() / "tree", true));
  EXPECT_FALSE(fs::exists(temp_.path() / "tree"));
  EXPECT_TRUE(fs::exists(outside / "keep.txt"));
  EXPECT_EQ(fs::perms::owner_read, Mode(outside / "keep.txt"));  // no attribute reset through it

  // A link standing where the folder should be goes itself.
  fs::create_directory_symlink(outside, temp_.path() / "page_files");
  EXPECT_EQ(0u, Delete(temp_.path() / "page_files", true));
  EXPECT_FALSE(fs::exists(fs::symlink_status(temp_.path() / "page_files")));
  EXPECT_TRUE(fs::exists(outside / "keep.txt"));
}

TEST_F(DeleteTreeTest, ExportedPagesGoWithOneCompanionFolder) {
  struct Case {
    const char* name;
    std::string page;                // made, and then deleted by its path
    std::vector<std::string> extra;  // made beside it
    std::vector<std::string> left;
  };
  const Case cases[] = {
      {"underscore folder", "mrwm_1.html", {"mrwm_1_files/@image001.png"}, {}},
      {"point folder", "mrwm_1.html", {"mrwm_1.files/image001.png"}, {}},
      {"both: the second stays",
       "mrwm_1.html",
       {"mrwm_1_files/image001.png", "mrwm_1.files/image001.png"},
       {"mrwm_1.files", "mrwm_1.files/image001.png"}},
      {"'.html' in a folder name points elsewhere",
       "x.html.d/mrwm_1.html",
       {"x.html.d/mrwm_1_files/image001.png"},
       {"x.html.d", "x.html.d/mrwm_1_files", "x.html.d/mrwm_1_files/image001.png"}},
      {"no companion folder", "mrwm_1.html", {"mrwm_1.txt"}, {"mrwm_1.txt"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Make(c.page, true);
    for (std::string file : c.extra) {
      const std::size_t at = file.find('@');
      const bool readOnly = at != std::string::npos;
      if (readOnly) file.erase(at, 1);
      Make(file, readOnly);
    }
    DeleteExportedPage(Wide(temp_.path() / c.page));
    std::vector<std::string> left;
    for (const auto& entry : fs::recursive_directory_iterator(temp_.path())) {
      left.push_back(fs::relative(entry.path(), temp_.path()).string());
    }
    std::sort(left.begin(), left.end());
    EXPECT_EQ(c.left, left);
    for (const auto& entry : fs::directory_iterator(temp_.path())) fs::remove_all(entry.path());
  }
}

TEST_F(DeleteTreeTest, JobFilesGoByTheirFlags) {
  JobList jobs;
  for (const bool flags : {true, false}) {
    auto& job = jobs.emplace_back(std::make_unique<ConversionJob>());
    const std::string n = flags ? "1" : "2";
    job->PagePath = Wide(Make("mrwm_" + n + ".html"));
    Make("mrwm_" + n + "_files/image001.png");
    job->Attachments = {WideString(Wide(Make("a" + n + ".txt", true))),
                        WideString(Wide(temp_.path() / "gone.txt"))};
    job->DeletePage = flags;
    job->DeleteAttachments = flags;
  }
  DeleteJobFiles(jobs);
  std::vector<std::string> left;
  for (const auto& entry : fs::recursive_directory_iterator(temp_.path())) {
    left.push_back(fs::relative(entry.path(), temp_.path()).string());
  }
  std::sort(left.begin(), left.end());
  EXPECT_EQ((std::vector<std::string>{"a2.txt", "mrwm_2.html", "mrwm_2_files",
                                      "mrwm_2_files/image001.png"}),
            left);
}

TEST_F(DeleteTreeTest, ExportedPagesAreMadePrivate) {
  const fs::path page = Make("mrwm_1.html");
  const fs::path image = Make("mrwm_1_files/image001.png");
  fs::permissions(page.parent_path() / "mrwm_1_files", fs::perms::all);
  fs::permissions(image, fs::perms::all);
  RestrictExportedPage(Wide(page));
  const auto file = fs::perms::owner_read | fs::perms::owner_write;
  EXPECT_EQ(file, Mode(page));
  EXPECT_EQ(fs::perms::owner_all, Mode(temp_.path() / "mrwm_1_files"));
  EXPECT_EQ(file, Mode(image));
}

TEST(MakeAttachmentNamesUnique, LaterEqualNamesAreNumberedBeforeTheirPoint) {
  struct Case {
    const char* name;
    std::vector<const char16_t*> before;  // null: a job without a record
    std::vector<const char16_t*> after;
  };
  const Case cases[] = {
      {"three of one name", {u"A.pdf", u"A.pdf", u"A.pdf"}, {u"A.pdf", u"A(1).pdf", u"A(2).pdf"}},
      {"case is not looked at", {u"Status.pdf", u"STATUS.PDF"}, {u"Status.pdf", u"STATUS(1).PDF"}},
      {"the last point counts", {u"v1.2.pdf", u"v1.2.pdf"}, {u"v1.2.pdf", u"v1.2(1).pdf"}},
      {"a made name meets a later original",
       {u"a.pdf", u"a.pdf", u"a(1).pdf"},
       {u"a.pdf", u"a(1).pdf", u"a(1)(1).pdf"}},
      {"prefixes are not equal",
       {u"a.pdf", u"a.pdfx", u"ab.pdf"},
       {u"a.pdf", u"a.pdfx", u"ab.pdf"}},
      {"jobs without a record are passed over",
       {u"a.pdf", nullptr, u"a.pdf"},
       {u"a.pdf", nullptr, u"a(1).pdf"}},
      {"empty names", {u"", u"", u""}, {u"", u"(1)", u"(2)"}},
      {"no point", {u"readme", u"readme"}, {u"readme", u"readme(1)"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    JobList jobs;
    for (const char16_t* name : c.before) {
      auto& job = jobs.emplace_back(std::make_unique<ConversionJob>());
      if (name == nullptr) continue;
      job->Record = MailRecord::TryCreate();
      job->Record->FileName = std::u16string_view(name);
    }
    MakeAttachmentNamesUnique(jobs);
    for (std::size_t i = 0; i < jobs.size(); ++i) {
      if (c.after[i] == nullptr) {
        EXPECT_FALSE(jobs[i]->Record);
      } else {
        EXPECT_EQ(Utf8(c.after[i]), Utf8(jobs[i]->Record->FileName)) << "job " << i;
      }
    }
  }
}

}  // namespace
}  // namespace mrwl
