#include "platform/files.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/kernel.h"
#include "platform/posix/posix_util.h"
#include "platform/unique_any.h"
#include "testing/temp_folder.h"

namespace mrwl::platform {
namespace {

namespace fs = std::filesystem;

class FilesTest : public ::testing::Test {
 protected:
  UniqueFile Open(const std::string& name, DWORD access, DWORD share, DWORD disposition,
                  DWORD flags = FILE_ATTRIBUTE_NORMAL) const {
    return UniqueFile(
        CreateFileW(temp_.WidePathOf(name).c_str(), access, share, disposition, flags));
  }

  // The names a pattern finds in the folder, in any order.
  std::set<std::string> Find(const std::string& pattern) const {
    std::set<std::string> names;
    FindDataW data{};
    UniqueFind find(FindFirstFileW(temp_.WidePathOf(pattern).c_str(), &data));
    if (!find) {
      lastFindError_ = GetLastError();
      return names;
    }
    do {
      names.insert(posix::ToUtf8(data.cFileName));
    } while (FindNextFileW(find.get(), &data));
    lastFindError_ = GetLastError();
    return names;
  }

  testing::TempFolder temp_;
  mutable DWORD lastFindError_ = 0;
};

TEST_F(FilesTest, DispositionsFollowWindowsOnNewAndExistingFiles) {
  struct Case {
    DWORD disposition;
    bool existing;
    bool opens;
    DWORD lastError;
    const char* contentAfter;  // null: no file
  } cases[] = {
      {CREATE_NEW, false, true, ERROR_SUCCESS, ""},
      {CREATE_NEW, true, false, ERROR_FILE_EXISTS, "old"},
      {CREATE_ALWAYS, false, true, ERROR_SUCCESS, ""},
      {CREATE_ALWAYS, true, true, ERROR_ALREADY_EXISTS, ""},
      {OPEN_EXISTING, false, false, ERROR_FILE_NOT_FOUND, nullptr},
      {OPEN_EXISTING, true, true, ERROR_SUCCESS, "old"},
      {OPEN_ALWAYS, false, true, ERROR_SUCCESS, ""},
      {OPEN_ALWAYS, true, true, ERROR_ALREADY_EXISTS, "old"},
      {TRUNCATE_EXISTING, false, false, ERROR_FILE_NOT_FOUND, nullptr},
      {TRUNCATE_EXISTING, true, true, ERROR_SUCCESS, ""},
  };
  int index = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message()
                 << "disposition " << c.disposition << " existing " << c.existing);
    const std::string name = "d" + std::to_string(index++);
    if (c.existing) temp_.Write(name, "old");
    SetLastError(12345);
    UniqueFile file = Open(name, GENERIC_READ | GENERIC_WRITE, 0, c.disposition);
    EXPECT_EQ(file.is_valid(), c.opens);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(c.lastError));
    file.reset();
    if (c.contentAfter == nullptr) {
      EXPECT_FALSE(temp_.Exists(name));
    } else {
      EXPECT_EQ(temp_.Read(name), c.contentAfter);
    }
  }
}

TEST_F(FilesTest, CreatedFilesArePrivateAndMissingFoldersAreReported) {
  ASSERT_TRUE(Open("new", GENERIC_WRITE, 0, CREATE_NEW));
  EXPECT_EQ(fs::status(temp_.path() / "new").permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write);

  EXPECT_FALSE(Open("missing/file", GENERIC_READ, 0, OPEN_EXISTING));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
  fs::create_directory(temp_.path() / "sub");
  EXPECT_FALSE(Open("sub", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
}

TEST_F(FilesTest, ShareModesAreEnforcedBetweenHandles) {
  constexpr DWORD kRead = GENERIC_READ, kWrite = GENERIC_WRITE;
  constexpr DWORD kShareRead = FILE_SHARE_READ, kShareWrite = FILE_SHARE_WRITE;
  struct Case {
    DWORD firstAccess, firstShare, secondAccess, secondShare;
    bool secondOpens;
  } cases[] = {
      {kRead, kShareRead, kRead, kShareRead, true},
      {kRead, kShareRead, kWrite, kShareRead, false},          // first does not share write
      {kRead | kWrite, kShareRead, kRead, kShareRead, false},  // second does not share write
      {kRead | kWrite, kShareRead, kRead, kShareRead | kShareWrite, true},
      {kRead, 0, kRead, kShareRead, false},  // exclusive first
      {kWrite, kShareWrite, kWrite, kShareWrite, true},
      {kWrite, kShareWrite, kRead, kShareWrite, false},  // first does not share read
      {0, 0, kRead | kWrite, 0, true},                   // no data access, no conflict
  };
  temp_.Write("shared", "x");
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << std::hex << c.firstAccess << "/" << c.firstShare
                                      << " then " << c.secondAccess << "/" << c.secondShare);
    UniqueFile first = Open("shared", c.firstAccess, c.firstShare, OPEN_EXISTING);
    ASSERT_TRUE(first);
    UniqueFile second = Open("shared", c.secondAccess, c.secondShare, OPEN_EXISTING);
    EXPECT_EQ(second.is_valid(), c.secondOpens);
    if (!c.secondOpens) {
      EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
    }
  }
  // Once the blocking handle is gone the open succeeds.
  { UniqueFile exclusive = Open("shared", kRead, 0, OPEN_EXISTING); }
  EXPECT_TRUE(Open("shared", kRead | kWrite, 0, OPEN_EXISTING));
}

TEST_F(FilesTest, DeleteAndMoveNeedShareDeleteOfOpenHandles) {
  temp_.Write("a", "a");
  {
    UniqueFile open = Open("a", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING);
    EXPECT_FALSE(DeleteFileW(temp_.WidePathOf("a").c_str()));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
    EXPECT_FALSE(MoveFileExW(temp_.WidePathOf("a").c_str(), temp_.WidePathOf("b").c_str(), 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
    EXPECT_TRUE(temp_.Exists("a"));
  }
  {
    UniqueFile open = Open("a", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, OPEN_EXISTING);
    EXPECT_TRUE(MoveFileExW(temp_.WidePathOf("a").c_str(), temp_.WidePathOf("b").c_str(), 0));
    EXPECT_TRUE(DeleteFileW(temp_.WidePathOf("b").c_str()));
  }
  EXPECT_FALSE(temp_.Exists("a"));
  EXPECT_FALSE(temp_.Exists("b"));
  EXPECT_FALSE(DeleteFileW(temp_.WidePathOf("b").c_str()));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

TEST_F(FilesTest, DeleteOnCloseRemovesTheFileWithTheLastHandle) {
  UniqueFile first = Open("t", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE,
                          CREATE_NEW, FILE_FLAG_DELETE_ON_CLOSE);
  ASSERT_TRUE(first);
  // A second handle must share delete with the first, which holds the right to delete.
  EXPECT_FALSE(Open("t", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
  UniqueFile second = Open("t", GENERIC_READ,
                           FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, OPEN_EXISTING);
  ASSERT_TRUE(second);
  first.reset();
  EXPECT_TRUE(temp_.Exists("t"));
  second.reset();
  EXPECT_FALSE(temp_.Exists("t"));
}

TEST_F(FilesTest, OverlappedTransfersUseTheirOffsetAndLeaveThePosition) {
  UniqueFile file = Open("p", GENERIC_READ | GENERIC_WRITE, 0, CREATE_NEW);
  ASSERT_TRUE(file);
  DWORD done = 0;
  ASSERT_TRUE(WriteFile(file.get(), "head", 4, &done, nullptr));
  OVERLAPPED at{};
  at.u.s.Offset = 10;
  ASSERT_TRUE(WriteFile(file.get(), "tail", 4, &done, &at));
  EXPECT_EQ(done, 4u);
  EXPECT_EQ(at.InternalHigh, 4u);
  EXPECT_EQ(temp_.Read("p"), std::string("head\0\0\0\0\0\0tail", 14));

  // The handle's own position stayed after "head".
  ASSERT_TRUE(WriteFile(file.get(), "++", 2, &done, nullptr));
  LARGE_INTEGER zero{}, position{};
  ASSERT_TRUE(SetFilePointerEx(file.get(), zero, &position, FILE_CURRENT));
  EXPECT_EQ(position.QuadPart, 6);

  char buffer[16] = {};
  at.u.s.Offset = 8;
  ASSERT_TRUE(ReadFile(file.get(), buffer, sizeof(buffer), &done, &at));
  EXPECT_EQ(std::string(buffer, done), std::string("\0\0tail", 6));
  at.u.s.Offset = 14;
  EXPECT_TRUE(ReadFile(file.get(), buffer, sizeof(buffer), &done, &at));
  EXPECT_EQ(done, 0u);
  at.u.s.Offset = 1000;
  EXPECT_TRUE(ReadFile(file.get(), buffer, sizeof(buffer), &done, &at));
  EXPECT_EQ(done, 0u);
  EXPECT_TRUE(GetOverlappedResult(file.get(), &at, &done, TRUE));
  EXPECT_EQ(done, 0u);
}

TEST_F(FilesTest, OffsetsPastTheLargestPositionAreRefused) {
  UniqueFile file = Open("big", GENERIC_READ | GENERIC_WRITE, 0, CREATE_NEW);
  ASSERT_TRUE(file);
  OVERLAPPED at{};
  at.u.s.Offset = 0xFFFFFFFFu;
  at.u.s.OffsetHigh = 0x7FFFFFFFu;
  char buffer[16] = {};
  DWORD done = 5;
  EXPECT_FALSE(ReadFile(file.get(), buffer, sizeof(buffer), &done, &at));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_EQ(done, 0u);
  EXPECT_FALSE(WriteFile(file.get(), buffer, sizeof(buffer), &done, &at));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST_F(FilesTest, PointerEndOfFileAndSizeAgree) {
  UniqueFile file = Open("s", GENERIC_READ | GENERIC_WRITE, 0, CREATE_NEW);
  LARGE_INTEGER to{}, size{};
  to.QuadPart = 5000;
  ASSERT_TRUE(SetFilePointerEx(file.get(), to, nullptr, FILE_BEGIN));
  ASSERT_TRUE(SetEndOfFile(file.get()));
  ASSERT_TRUE(GetFileSizeEx(file.get(), &size));
  EXPECT_EQ(size.QuadPart, 5000);
  to.QuadPart = -100;
  ASSERT_TRUE(SetFilePointerEx(file.get(), to, nullptr, FILE_END));
  ASSERT_TRUE(SetEndOfFile(file.get()));
  ASSERT_TRUE(GetFileSizeEx(file.get(), &size));
  EXPECT_EQ(size.QuadPart, 4900);
  to.QuadPart = -1;
  EXPECT_FALSE(SetFilePointerEx(file.get(), to, nullptr, FILE_BEGIN));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NEGATIVE_SEEK));
}

TEST_F(FilesTest, TransfersNeedTheirAccessRight) {
  temp_.Write("r", "data");
  UniqueFile reader = Open("r", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING);
  DWORD done = 7;
  EXPECT_FALSE(WriteFile(reader.get(), "x", 1, &done, nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  EXPECT_FALSE(SetEndOfFile(reader.get()));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  UniqueFile writer = Open("r", GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING);
  char buffer[4];
  EXPECT_FALSE(ReadFile(writer.get(), buffer, 4, &done, nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  EXPECT_FALSE(ReadFile(INVALID_HANDLE_VALUE, buffer, 4, &done, nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  // An event is a handle, but not one to read from.
  UniqueEvent event(CreateEventW(TRUE, FALSE));
  EXPECT_FALSE(ReadFile(event.get(), buffer, 4, &done, nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
}

TEST_F(FilesTest, ReadOnlyAttributeGuardsTheFileEvenForRoot) {
  temp_.Write("ro", "keep");
  ASSERT_TRUE(SetFileAttributesW(temp_.WidePathOf("ro").c_str(), FILE_ATTRIBUTE_READONLY));
  EXPECT_EQ(GetFileAttributesW(temp_.WidePathOf("ro").c_str()) & FILE_ATTRIBUTE_READONLY,
            FILE_ATTRIBUTE_READONLY);
  EXPECT_FALSE(Open("ro", GENERIC_WRITE, 0, OPEN_EXISTING));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  EXPECT_FALSE(DeleteFileW(temp_.WidePathOf("ro").c_str()));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  EXPECT_TRUE(Open("ro", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING));

  ASSERT_TRUE(SetFileAttributesW(temp_.WidePathOf("ro").c_str(), FILE_ATTRIBUTE_NORMAL));
  EXPECT_EQ(GetFileAttributesW(temp_.WidePathOf("ro").c_str()) & FILE_ATTRIBUTE_READONLY, 0u);
  EXPECT_TRUE(DeleteFileW(temp_.WidePathOf("ro").c_str()));
  EXPECT_EQ(GetFileAttributesW(temp_.WidePathOf("ro").c_str()), INVALID_FILE_ATTRIBUTES);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

TEST_F(FilesTest, MoveReplacesOnlyWhenAsked) {
  temp_.Write("from", "new");
  temp_.Write("to", "old");
  EXPECT_FALSE(MoveFileExW(temp_.WidePathOf("from").c_str(), temp_.WidePathOf("to").c_str(), 0));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ALREADY_EXISTS));
  EXPECT_EQ(temp_.Read("to"), "old");
  {
    // A target held open without share delete cannot be replaced.
    UniqueFile held = Open("to", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING);
    EXPECT_FALSE(MoveFileExW(temp_.WidePathOf("from").c_str(), temp_.WidePathOf("to").c_str(),
                             MOVEFILE_REPLACE_EXISTING));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  }
  EXPECT_TRUE(MoveFileExW(temp_.WidePathOf("from").c_str(), temp_.WidePathOf("to").c_str(),
                          MOVEFILE_REPLACE_EXISTING));
  EXPECT_EQ(temp_.Read("to"), "new");
  EXPECT_FALSE(temp_.Exists("from"));
}

TEST_F(FilesTest, MoveAcrossDevicesCopiesOnlyWhenAllowed) {
  const fs::path other = "/dev/shm";
  struct stat here {
  }, there{};
  if (stat(temp_.path().c_str(), &here) != 0 || stat(other.c_str(), &there) != 0 ||
      here.st_dev == there.st_dev || access(other.c_str(), W_OK) != 0) {
    GTEST_SKIP() << "no second writable device";
  }
  const fs::path target = other / ("mrwl-move-" + std::to_string(getpid()));
  const std::u16string target16 = posix::FromUtf8(target.string());
  temp_.Write("m", "payload");
  EXPECT_FALSE(
      MoveFileExW(temp_.WidePathOf("m").c_str(), target16.c_str(), MOVEFILE_REPLACE_EXISTING));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_SAME_DEVICE));
  EXPECT_TRUE(MoveFileExW(temp_.WidePathOf("m").c_str(), target16.c_str(),
                          MOVEFILE_REPLACE_EXISTING | MOVEFILE_COPY_ALLOWED));
  EXPECT_FALSE(temp_.Exists("m"));
  std::ifstream in(target, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "payload");
  fs::remove(target);
}

TEST_F(FilesTest, FindMatchesWildcardsAsWindowsDoes) {
  temp_.Write("abc.txt", "12345");
  temp_.Write("ABD.TXT", "");
  temp_.Write("readme", "");
  temp_.Write("a.b.c", "");
  fs::create_directory(temp_.path() / "sub");
  using Names = std::set<std::string>;
  struct Case {
    const char* pattern;
    Names expected;
  } cases[] = {
      {"*", {".", "..", "abc.txt", "ABD.TXT", "readme", "a.b.c", "sub"}},
      {"*.*", {".", "..", "abc.txt", "ABD.TXT", "readme", "a.b.c", "sub"}},
      {"*.txt", {"abc.txt", "ABD.TXT"}},
      {"ab?.txt", {"abc.txt", "ABD.TXT"}},
      {"a*c", {"a.b.c"}},
      {"readme.*", {"readme"}},
      {"*.", {".", "..", "readme", "sub"}},
      {"abc.txt", {"abc.txt"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.pattern);
    EXPECT_EQ(Find(c.pattern), c.expected);
    EXPECT_EQ(lastFindError_, static_cast<DWORD>(ERROR_NO_MORE_FILES));
  }
  EXPECT_EQ(Find("*.doc"), Names{});
  EXPECT_EQ(lastFindError_, static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(Find("nothere/*"), Names{});
  EXPECT_EQ(lastFindError_, static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
}

TEST_F(FilesTest, FindReportsAttributesSizesAndTimes) {
  temp_.Write("big", std::string(70000, 'x'));
  temp_.Write("ro", "");
  ASSERT_TRUE(SetFileAttributesW(temp_.WidePathOf("ro").c_str(), FILE_ATTRIBUTE_READONLY));
  fs::create_directory(temp_.path() / "sub");
  FindDataW data{};
  UniqueFind find(FindFirstFileW(temp_.WidePathOf("big").c_str(), &data));
  ASSERT_TRUE(find);
  EXPECT_EQ(data.nFileSizeLow, 70000u);
  EXPECT_EQ(data.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY), 0u);
  // Later than 2020-01-01 in 100 ns units since 1601.
  const ULONGLONG written = (static_cast<ULONGLONG>(data.ftLastWriteTime.dwHighDateTime) << 32) |
                            data.ftLastWriteTime.dwLowDateTime;
  EXPECT_GT(written, 132223104000000000ull);
  EXPECT_FALSE(FindNextFileW(find.get(), &data));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_MORE_FILES));

  find.reset(FindFirstFileW(temp_.WidePathOf("ro").c_str(), &data));
  EXPECT_EQ(data.dwFileAttributes & FILE_ATTRIBUTE_READONLY, FILE_ATTRIBUTE_READONLY);
  find.reset(FindFirstFileW(temp_.WidePathOf("su?").c_str(), &data));
  ASSERT_TRUE(find);
  EXPECT_EQ(std::u16string(data.cFileName), u"sub");
  EXPECT_EQ(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY, FILE_ATTRIBUTE_DIRECTORY);
}

TEST_F(FilesTest, FoldersAreMadeAndRemovedWithWindowsErrors) {
  ASSERT_TRUE(CreateDirectoryW(temp_.WidePathOf("d").c_str()));
  EXPECT_FALSE(CreateDirectoryW(temp_.WidePathOf("d").c_str()));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ALREADY_EXISTS));
  EXPECT_FALSE(CreateDirectoryW(temp_.WidePathOf("x/y").c_str()));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
  temp_.Write("d/f", "");
  EXPECT_FALSE(RemoveDirectoryW(temp_.WidePathOf("d").c_str()));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_DIR_NOT_EMPTY));
  EXPECT_FALSE(RemoveDirectoryW(temp_.WidePathOf("d/f").c_str()));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_DIRECTORY));
  EXPECT_FALSE(DeleteFileW(temp_.WidePathOf("d").c_str()));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  ASSERT_TRUE(DeleteFileW(temp_.WidePathOf("d/f").c_str()));
  EXPECT_TRUE(RemoveDirectoryW(temp_.WidePathOf("d").c_str()));
  EXPECT_EQ(GetFileAttributesW(temp_.WidePathOf("d").c_str()), INVALID_FILE_ATTRIBUTES);
}

TEST_F(FilesTest, IdentityTellsFilesApart) {
  temp_.Write("one", "1");
  temp_.Write("two", "2");
  constexpr DWORD kShare = FILE_SHARE_READ | FILE_SHARE_WRITE;
  UniqueFile a = Open("one", GENERIC_READ, kShare, OPEN_EXISTING);
  UniqueFile b = Open("one", GENERIC_READ, kShare, OPEN_EXISTING);
  UniqueFile c = Open("two", GENERIC_READ, kShare, OPEN_EXISTING);
  BY_HANDLE_FILE_INFORMATION ia{}, ib{}, ic{};
  ASSERT_TRUE(GetFileInformationByHandle(a.get(), &ia));
  ASSERT_TRUE(GetFileInformationByHandle(b.get(), &ib));
  ASSERT_TRUE(GetFileInformationByHandle(c.get(), &ic));
  EXPECT_EQ(ia.dwVolumeSerialNumber, ib.dwVolumeSerialNumber);
  EXPECT_EQ(ia.nFileIndexLow, ib.nFileIndexLow);
  EXPECT_EQ(ia.nFileIndexHigh, ib.nFileIndexHigh);
  EXPECT_NE(ia.nFileIndexLow, ic.nFileIndexLow);
  EXPECT_EQ(ia.nFileSizeLow, 1u);
}

class TempPathTest : public FilesTest {
 protected:
  std::u16string TempPath() {
    const DWORD needed = GetTempPathW(0, nullptr);
    std::u16string text(needed, u'\0');
    const DWORD length = GetTempPathW(needed, text.data());
    EXPECT_EQ(length + 1, needed);
    text.resize(length);
    return text;
  }
  testing::ScopedEnv tmpdir_{"TMPDIR"};
};

TEST_F(TempPathTest, TempPathComesFromTmpdirAndEndsInTheSeparator) {
  tmpdir_.Set("/var/somewhere");
  EXPECT_EQ(TempPath(), u"/var/somewhere/");
  tmpdir_.Set("/var/other/");
  EXPECT_EQ(TempPath(), u"/var/other/");
  tmpdir_.Unset();
  EXPECT_EQ(TempPath(), u"/tmp/");
  char16_t tiny[3];
  EXPECT_EQ(GetTempPathW(3, tiny), 6u);
}

TEST_F(TempPathTest, TempFileNamesAreCreatedExclusively) {
  const std::u16string folder = posix::FromUtf8(temp_.path().string());
  std::set<std::u16string> names;
  for (int i = 0; i < 20; ++i) {
    char16_t name[MAX_PATH] = {};
    const UINT number = GetTempFileNameW(folder.c_str(), u"abcdef", 0, name);
    ASSERT_NE(number, 0u);
    const std::u16string path(name);
    EXPECT_EQ(path.substr(0, folder.size() + 4), folder + u"/abc");
    EXPECT_EQ(path.substr(path.size() - 4), u".tmp");
    const fs::path created = posix::ToUtf8(path);
    EXPECT_TRUE(fs::is_regular_file(created));
    EXPECT_EQ(fs::file_size(created), 0u);
    EXPECT_EQ(fs::status(created).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);
    names.insert(path);
  }
  EXPECT_EQ(names.size(), 20u);

  char16_t fixed[MAX_PATH] = {};
  EXPECT_EQ(GetTempFileNameW((folder + u"/").c_str(), u"q", 0x2A, fixed), 0x2Au);
  EXPECT_EQ(std::u16string(fixed), folder + u"/q2A.tmp");
  EXPECT_FALSE(temp_.Exists("q2A.tmp"));

  EXPECT_EQ(GetTempFileNameW((folder + u"/none").c_str(), u"x", 0, fixed), 0u);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_DIRECTORY));
}

}  // namespace
}  // namespace mrwl::platform
