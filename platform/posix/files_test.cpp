#include "platform/files.h"

#include <filesystem>
#include <set>
#include <string>
#include <tuple>
#include <utility>

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

// The last error after a call that should have failed; -1 when it succeeded.
long ErrorOf(bool ok) { return ok ? -1 : static_cast<long>(GetLastError()); }
long ErrorOf(const UniqueFile& file) { return ErrorOf(file.is_valid()); }

class FilesTest : public ::testing::Test {
 protected:
  UniqueFile Open(const std::string& name, DWORD access, DWORD share, DWORD disposition,
                  DWORD flags = FILE_ATTRIBUTE_NORMAL) const {
    return UniqueFile(CreateFileW(P(name).c_str(), access, share, disposition, flags));
  }
  std::u16string P(const std::string& name) const { return temp_.WidePathOf(name); }
  bool Move(const std::string& from, const std::string& to, DWORD flags = 0) const {
    return MoveFileExW(P(from).c_str(), P(to).c_str(), flags);
  }
  bool Delete(const std::string& name) const { return DeleteFileW(P(name).c_str()); }

  // The names a pattern finds in the folder, in any order, and the last error of the search.
  std::pair<std::set<std::string>, long> Find(const std::string& pattern) const {
    std::set<std::string> names;
    FindDataW data{};
    UniqueFind find(FindFirstFileW(P(pattern).c_str(), &data));
    if (find) {
      do {
        names.insert(posix::ToUtf8(data.cFileName));
      } while (FindNextFileW(find.get(), &data));
    }
    return {names, static_cast<long>(GetLastError())};
  }

  testing::TempFolder temp_;
};

TEST_F(FilesTest, DispositionsFollowWindowsOnNewAndExistingFiles) {
  struct Case {
    DWORD disposition;
    bool existing;
    DWORD lastError;           // the file opens unless it is an error of its own
    const char* contentAfter;  // null: no file
  };
  // clang-format off
  const Case cases[] = {
      {CREATE_NEW, false, ERROR_SUCCESS, ""}, {CREATE_NEW, true, ERROR_FILE_EXISTS, "old"},
      {CREATE_ALWAYS, false, ERROR_SUCCESS, ""}, {CREATE_ALWAYS, true, ERROR_ALREADY_EXISTS, ""},
      {OPEN_EXISTING, false, ERROR_FILE_NOT_FOUND, nullptr},
      {OPEN_EXISTING, true, ERROR_SUCCESS, "old"}, {OPEN_ALWAYS, false, ERROR_SUCCESS, ""},
      {OPEN_ALWAYS, true, ERROR_ALREADY_EXISTS, "old"},
      {TRUNCATE_EXISTING, false, ERROR_FILE_NOT_FOUND, nullptr},
      {TRUNCATE_EXISTING, true, ERROR_SUCCESS, ""}};
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message()
                 << "disposition " << c.disposition << " existing " << c.existing);
    const std::string name = "d" + std::to_string(&c - cases);
    if (c.existing) temp_.Write(name, "old");
    SetLastError(12345);
    UniqueFile file = Open(name, GENERIC_READ | GENERIC_WRITE, 0, c.disposition);
    EXPECT_EQ(file.is_valid(), c.lastError == ERROR_SUCCESS || c.lastError == ERROR_ALREADY_EXISTS);
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
  EXPECT_EQ(ErrorOf(Open("missing/file", GENERIC_READ, 0, OPEN_EXISTING)), ERROR_PATH_NOT_FOUND);
  fs::create_directory(temp_.path() / "sub");
  EXPECT_EQ(ErrorOf(Open("sub", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING)),
            ERROR_ACCESS_DENIED);
}

TEST_F(FilesTest, ShareModesAreEnforcedBetweenHandles) {
  constexpr DWORD kRead = GENERIC_READ, kWrite = GENERIC_WRITE;
  constexpr DWORD kShareRead = FILE_SHARE_READ, kShareWrite = FILE_SHARE_WRITE;
  struct Case {
    DWORD firstAccess, firstShare, secondAccess, secondShare;
    bool secondOpens;
  };
  const Case cases[] = {
      {kRead, kShareRead, kRead, kShareRead, true},
      {kRead, kShareRead, kWrite, kShareRead, false},          // first does not share write
      {kRead | kWrite, kShareRead, kRead, kShareRead, false},  // second does not share write
      {kRead | kWrite, kShareRead, kRead, kShareRead | kShareWrite, true},
      {kRead, 0, kRead, kShareRead, false},  // exclusive first
      {kWrite, kShareWrite, kWrite, kShareWrite, true},
      {kWrite, kShareWrite, kRead, kShareWrite, false},  // first does not share read
      {0, 0, kRead | kWrite, 0, true}};                  // no data access, no conflict
  temp_.Write("shared", "x");
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << std::hex << c.firstAccess << "/" << c.firstShare
                                      << " then " << c.secondAccess << "/" << c.secondShare);
    UniqueFile first = Open("shared", c.firstAccess, c.firstShare, OPEN_EXISTING);
    ASSERT_TRUE(first);
    // Each case also needs the handles of the one before to have let go of the file.
    EXPECT_EQ(ErrorOf(Open("shared", c.secondAccess, c.secondShare, OPEN_EXISTING)),
              c.secondOpens ? -1 : ERROR_SHARING_VIOLATION);
  }
}

TEST_F(FilesTest, DeleteMoveAndDeleteOnCloseNeedShareDelete) {
  temp_.Write("a", "a");
  {
    UniqueFile open = Open("a", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING);
    EXPECT_EQ(ErrorOf(Delete("a")), ERROR_SHARING_VIOLATION);
    EXPECT_EQ(ErrorOf(Move("a", "b")), ERROR_SHARING_VIOLATION);
    EXPECT_TRUE(temp_.Exists("a"));
  }
  {
    UniqueFile open = Open("a", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, OPEN_EXISTING);
    EXPECT_TRUE(Move("a", "b"));
    EXPECT_TRUE(Delete("b"));
  }
  EXPECT_FALSE(temp_.Exists("a"));
  EXPECT_EQ(ErrorOf(Delete("b")), ERROR_FILE_NOT_FOUND);

  // Delete on close removes the file with the last handle.
  UniqueFile first = Open("t", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE,
                          CREATE_NEW, FILE_FLAG_DELETE_ON_CLOSE);
  ASSERT_TRUE(first);
  // A second handle must share delete with the first, which holds the right to delete.
  EXPECT_EQ(ErrorOf(Open("t", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING)),
            ERROR_SHARING_VIOLATION);
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
  for (DWORD offset : {14u, 1000u}) {  // at and past the end
    at.u.s.Offset = offset;
    EXPECT_TRUE(ReadFile(file.get(), buffer, sizeof(buffer), &done, &at));
    EXPECT_EQ(done, 0u);
    EXPECT_TRUE(GetOverlappedResult(file.get(), &at, &done, TRUE));
    EXPECT_EQ(done, 0u);
  }

  // Offsets past the largest position are refused.
  at.u.s.Offset = 0xFFFFFFFFu;
  at.u.s.OffsetHigh = 0x7FFFFFFFu;
  done = 5;
  EXPECT_EQ(ErrorOf(ReadFile(file.get(), buffer, sizeof(buffer), &done, &at)),
            ERROR_INVALID_PARAMETER);
  EXPECT_EQ(done, 0u);
  EXPECT_EQ(ErrorOf(WriteFile(file.get(), buffer, sizeof(buffer), &done, &at)),
            ERROR_INVALID_PARAMETER);
}

TEST_F(FilesTest, PointerEndOfFileAndSizeAgree) {
  UniqueFile file = Open("s", GENERIC_READ | GENERIC_WRITE, 0, CREATE_NEW);
  LARGE_INTEGER to{}, size{};
  for (const auto& [move, method, expected] :
       {std::tuple{5000, FILE_BEGIN, 5000}, std::tuple{-100, FILE_END, 4900}}) {
    to.QuadPart = move;
    ASSERT_TRUE(SetFilePointerEx(file.get(), to, nullptr, method));
    ASSERT_TRUE(SetEndOfFile(file.get()));
    ASSERT_TRUE(GetFileSizeEx(file.get(), &size));
    EXPECT_EQ(size.QuadPart, expected);
  }
  to.QuadPart = -1;
  EXPECT_EQ(ErrorOf(SetFilePointerEx(file.get(), to, nullptr, FILE_BEGIN)), ERROR_NEGATIVE_SEEK);
}

TEST_F(FilesTest, TransfersNeedTheirAccessRight) {
  temp_.Write("r", "data");
  UniqueFile reader = Open("r", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING);
  DWORD done = 7;
  EXPECT_EQ(ErrorOf(WriteFile(reader.get(), "x", 1, &done, nullptr)), ERROR_ACCESS_DENIED);
  EXPECT_EQ(ErrorOf(SetEndOfFile(reader.get())), ERROR_ACCESS_DENIED);
  UniqueFile writer = Open("r", GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING);
  char buffer[4];
  EXPECT_EQ(ErrorOf(ReadFile(writer.get(), buffer, 4, &done, nullptr)), ERROR_ACCESS_DENIED);
  EXPECT_EQ(ErrorOf(ReadFile(INVALID_HANDLE_VALUE, buffer, 4, &done, nullptr)),
            ERROR_INVALID_HANDLE);
  // An event is a handle, but not one to read from.
  UniqueEvent event(CreateEventW(TRUE, FALSE));
  EXPECT_EQ(ErrorOf(ReadFile(event.get(), buffer, 4, &done, nullptr)), ERROR_INVALID_HANDLE);
}

TEST_F(FilesTest, ReadOnlyAttributeGuardsTheFileEvenForRoot) {
  temp_.Write("ro", "keep");
  ASSERT_TRUE(SetFileAttributesW(P("ro").c_str(), FILE_ATTRIBUTE_READONLY));
  EXPECT_EQ(GetFileAttributesW(P("ro").c_str()) & FILE_ATTRIBUTE_READONLY, FILE_ATTRIBUTE_READONLY);
  EXPECT_EQ(ErrorOf(Open("ro", GENERIC_WRITE, 0, OPEN_EXISTING)), ERROR_ACCESS_DENIED);
  EXPECT_EQ(ErrorOf(Delete("ro")), ERROR_ACCESS_DENIED);
  EXPECT_TRUE(Open("ro", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING));

  ASSERT_TRUE(SetFileAttributesW(P("ro").c_str(), FILE_ATTRIBUTE_NORMAL));
  EXPECT_EQ(GetFileAttributesW(P("ro").c_str()) & FILE_ATTRIBUTE_READONLY, 0u);
  EXPECT_TRUE(Delete("ro"));
  EXPECT_EQ(GetFileAttributesW(P("ro").c_str()), INVALID_FILE_ATTRIBUTES);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

TEST_F(FilesTest, MoveReplacesOnlyWhenAsked) {
  temp_.Write("from", "new");
  temp_.Write("to", "old");
  EXPECT_EQ(ErrorOf(Move("from", "to")), ERROR_ALREADY_EXISTS);
  EXPECT_EQ(temp_.Read("to"), "old");
  {
    // A target held open without share delete cannot be replaced.
    UniqueFile held = Open("to", GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING);
    EXPECT_EQ(ErrorOf(Move("from", "to", MOVEFILE_REPLACE_EXISTING)), ERROR_ACCESS_DENIED);
  }
  EXPECT_TRUE(Move("from", "to", MOVEFILE_REPLACE_EXISTING));
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
  EXPECT_EQ(ErrorOf(MoveFileExW(P("m").c_str(), target16.c_str(), MOVEFILE_REPLACE_EXISTING)),
            ERROR_NOT_SAME_DEVICE);
  EXPECT_TRUE(MoveFileExW(P("m").c_str(), target16.c_str(),
                          MOVEFILE_REPLACE_EXISTING | MOVEFILE_COPY_ALLOWED));
  EXPECT_FALSE(temp_.Exists("m"));
  EXPECT_EQ(testing::WaitForFile(target), "payload");
  fs::remove(target);
}

TEST_F(FilesTest, FindMatchesWildcardsAsWindowsDoes) {
  temp_.Write("abc.txt", "12345");
  temp_.Write("ABD.TXT", "");
  temp_.Write("readme", "");
  temp_.Write("a.b.c", "");
  fs::create_directory(temp_.path() / "sub");
  using Names = std::set<std::string>;
  const Names all = {".", "..", "abc.txt", "ABD.TXT", "readme", "a.b.c", "sub"};
  struct Case {
    const char* pattern;
    Names expected;
  } cases[] = {{"*", all},
               {"*.*", all},
               {"*.txt", {"abc.txt", "ABD.TXT"}},
               {"ab?.txt", {"abc.txt", "ABD.TXT"}},
               {"a*c", {"a.b.c"}},
               {"readme.*", {"readme"}},
               {"*.", {".", "..", "readme", "sub"}},
               {"abc.txt", {"abc.txt"}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.pattern);
    EXPECT_EQ(Find(c.pattern), std::make_pair(c.expected, ERROR_NO_MORE_FILES));
  }
  EXPECT_EQ(Find("*.doc"), std::make_pair(Names{}, ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(Find("nothere/*"), std::make_pair(Names{}, ERROR_PATH_NOT_FOUND));
}

TEST_F(FilesTest, FindReportsAttributesSizesAndTimes) {
  temp_.Write("big", std::string(70000, 'x'));
  temp_.Write("ro", "");
  ASSERT_TRUE(SetFileAttributesW(P("ro").c_str(), FILE_ATTRIBUTE_READONLY));
  fs::create_directory(temp_.path() / "sub");
  FindDataW data{};
  UniqueFind find(FindFirstFileW(P("big").c_str(), &data));
  ASSERT_TRUE(find);
  EXPECT_EQ(data.nFileSizeLow, 70000u);
  EXPECT_EQ(data.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY), 0u);
  // Later than 2020-01-01 in 100 ns units since 1601.
  const ULONGLONG written = (static_cast<ULONGLONG>(data.ftLastWriteTime.dwHighDateTime) << 32) |
                            data.ftLastWriteTime.dwLowDateTime;
  EXPECT_GT(written, 132223104000000000ull);
  EXPECT_EQ(ErrorOf(FindNextFileW(find.get(), &data)), ERROR_NO_MORE_FILES);

  find.reset(FindFirstFileW(P("ro").c_str(), &data));
  EXPECT_EQ(data.dwFileAttributes & FILE_ATTRIBUTE_READONLY, FILE_ATTRIBUTE_READONLY);
  find.reset(FindFirstFileW(P("su?").c_str(), &data));
  ASSERT_TRUE(find);
  EXPECT_EQ(std::u16string(data.cFileName), u"sub");
  EXPECT_EQ(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY, FILE_ATTRIBUTE_DIRECTORY);
}

TEST_F(FilesTest, FoldersAreMadeAndRemovedWithWindowsErrors) {
  ASSERT_TRUE(CreateDirectoryW(P("d").c_str()));
  EXPECT_EQ(ErrorOf(CreateDirectoryW(P("d").c_str())), ERROR_ALREADY_EXISTS);
  EXPECT_EQ(ErrorOf(CreateDirectoryW(P("x/y").c_str())), ERROR_PATH_NOT_FOUND);
  temp_.Write("d/f", "");
  EXPECT_EQ(ErrorOf(RemoveDirectoryW(P("d").c_str())), ERROR_DIR_NOT_EMPTY);
  EXPECT_EQ(ErrorOf(RemoveDirectoryW(P("d/f").c_str())), ERROR_DIRECTORY);
  EXPECT_EQ(ErrorOf(Delete("d")), ERROR_ACCESS_DENIED);
  ASSERT_TRUE(Delete("d/f"));
  EXPECT_TRUE(RemoveDirectoryW(P("d").c_str()));
  EXPECT_EQ(GetFileAttributesW(P("d").c_str()), INVALID_FILE_ATTRIBUTES);
}

TEST_F(FilesTest, IdentityTellsFilesApart) {
  temp_.Write("one", "1");
  temp_.Write("two", "2");
  auto info = [this](const std::string& name) {
    UniqueFile file = Open(name, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING);
    BY_HANDLE_FILE_INFORMATION result{};
    EXPECT_TRUE(GetFileInformationByHandle(file.get(), &result));
    return result;
  };
  const BY_HANDLE_FILE_INFORMATION ia = info("one"), ib = info("one"), ic = info("two");
  EXPECT_EQ(ia.dwVolumeSerialNumber, ib.dwVolumeSerialNumber);
  EXPECT_EQ(ia.nFileIndexLow, ib.nFileIndexLow);
  EXPECT_EQ(ia.nFileIndexHigh, ib.nFileIndexHigh);
  EXPECT_NE(ia.nFileIndexLow, ic.nFileIndexLow);
  EXPECT_EQ(ia.nFileSizeLow, 1u);
}

TEST(GetTempPathW, ComesFromTmpdirAndEndsInTheSeparator) {
  testing::ScopedEnv tmpdir("TMPDIR");
  for (const auto& [value, expected] :
       {std::pair<const char*, std::u16string_view>{"/var/somewhere", u"/var/somewhere/"},
        {"/var/other/", u"/var/other/"},
        {nullptr, u"/tmp/"}}) {
    SCOPED_TRACE(value ? value : "unset");
    value ? tmpdir.Set(value) : tmpdir.Unset();
    const DWORD needed = GetTempPathW(0, nullptr);
    std::u16string text(needed, u'\0');
    EXPECT_EQ(GetTempPathW(needed, text.data()) + 1, needed);
    EXPECT_EQ(text.c_str(), expected);
  }
  char16_t tiny[3];
  EXPECT_EQ(GetTempPathW(3, tiny), 6u);
}

TEST_F(FilesTest, TempFileNamesAreCreatedExclusively) {
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

  EXPECT_EQ(ErrorOf(GetTempFileNameW((folder + u"/none").c_str(), u"x", 0, fixed)),
            ERROR_DIRECTORY);
}

}  // namespace
}  // namespace mrwl::platform
