#include "platform/kernel.h"

#include <cerrno>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/posix/posix_util.h"
#include "testing/temp_folder.h"

namespace mrwl::platform {
namespace {

constexpr DWORD kFromSystem = FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;

// The system text of `id` into a fixed buffer; empty with the last error on failure.
std::u16string SystemText(DWORD id, DWORD language = 0) {
  char16_t buffer[512];
  const DWORD length = FormatMessageW(kFromSystem, nullptr, id, language, buffer, 512);
  return std::u16string(buffer, length);
}

TEST(FormatMessage, GivesTheWindowsTextsWithTheirLineEnd) {
  const std::pair<DWORD, const char16_t*> cases[] = {
      {0, u"The operation completed successfully.\r\n"},
      {2, u"The system cannot find the file specified.\r\n"},
      // Inserts are ignored, so the placeholder stays.
      {193, u"%1 is not a valid Win32 application.\r\n"},
      {0x80004005u, u"Unspecified error\r\n"},
      {0x80090330u, u"The specified data could not be decrypted.\r\n"},
      // An HRESULT of the Win32 facility reads as its error number.
      {0x80070057u, u"The parameter is incorrect.\r\n"},
  };
  for (const auto& [id, text] : cases) {
    SCOPED_TRACE(id);
    EXPECT_EQ(text, SystemText(id));
  }
}

TEST(FormatMessage, EveryNumberTheBackendProducesHasAText) {
  std::vector<DWORD> produced = {
      0,   1,   2,   3,   4,   5,    6,    8,    13,   14,   17,   18,   19,   21,  23,
      25,  29,  30,  31,  32,  33,   38,   39,   50,   53,   54,   55,   56,   57,  58,
      59,  64,  65,  67,  80,  82,   87,   109,  110,  111,  112,  120,  121,  122, 123,
      126, 127, 131, 145, 161, 170,  183,  193,  203,  206,  223,  234,  258,  259, 267,
      317, 995, 996, 997, 998, 1113, 1142, 1155, 1167, 1168, 1223, 1460, 1815, 1921};
  for (DWORD id = 0x80004001u; id <= 0x80004004u; ++id) produced.push_back(id);
  // Every errno the backend maps lands on a number with a text.
  for (int error = 0; error < 134; ++error) produced.push_back(posix::WinErrorFromErrno(error));
  for (DWORD id : produced) {
    SCOPED_TRACE(id);
    const std::u16string text = SystemText(id);
    ASSERT_GT(text.size(), 3u);
    EXPECT_EQ(u"\r\n", text.substr(text.size() - 2));
    EXPECT_NE(u'\r', text[text.size() - 3]);
  }
}

TEST(FormatMessage, FailuresSetTheWindowsErrorsAndHandOutNoBuffer) {
  SetLastError(0);
  EXPECT_EQ(u"", SystemText(0xABCDE));
  EXPECT_EQ(static_cast<DWORD>(ERROR_MR_MID_NOT_FOUND), GetLastError());

  // A language without texts fails so that the caller retries in language 0; English is there.
  EXPECT_EQ(u"", SystemText(5, 0x0407));
  EXPECT_EQ(static_cast<DWORD>(ERROR_RESOURCE_LANG_NOT_FOUND), GetLastError());
  for (DWORD language : {0x0400u, 0x0409u, 0x0809u}) {
    SCOPED_TRACE(language);
    EXPECT_EQ(u"Access is denied.\r\n", SystemText(5, language));
  }

  // No module of this process carries a message table.
  char16_t buffer[64];
  int marker = 0;
  EXPECT_EQ(0u, FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_IGNORE_INSERTS, &marker,
                               5, 0, buffer, 64));
  EXPECT_EQ(static_cast<DWORD>(ERROR_MR_MID_NOT_FOUND), GetLastError());

  // "Access is denied.\r\n" needs 20 units with its terminator.
  EXPECT_EQ(0u, FormatMessageW(kFromSystem, nullptr, 5, 0, buffer, 19));
  EXPECT_EQ(static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER), GetLastError());
  EXPECT_EQ(19u, FormatMessageW(kFromSystem, nullptr, 5, 0, buffer, 20));

  // An allocated buffer is handed out only on success, and released with LocalFree.
  char16_t* block = nullptr;
  const DWORD length = FormatMessageW(kFromSystem | FORMAT_MESSAGE_ALLOCATE_BUFFER, nullptr, 2, 0,
                                      reinterpret_cast<char16_t*>(&block), 0);
  ASSERT_NE(nullptr, block);
  EXPECT_EQ(44u, length);
  EXPECT_EQ(u"The system cannot find the file specified.\r\n", std::u16string(block));
  LocalFree(block);
  block = nullptr;
  EXPECT_EQ(0u, FormatMessageW(kFromSystem | FORMAT_MESSAGE_ALLOCATE_BUFFER, nullptr, 0xABCDE, 0,
                               reinterpret_cast<char16_t*>(&block), 0));
  EXPECT_EQ(nullptr, block);
}

// Real failing calls: errno as the system sets it, through the backend's one conversion.
TEST(ErrnoMapping, RealFailuresReadAsWindowsErrors) {
  const testing::TempFolder folder;
  const std::string base = folder.path().string();
  const std::string file = base + "/file";
  ASSERT_EQ(0, close(open(file.c_str(), O_CREAT | O_WRONLY, 0600)));

  auto check = [](const char* what, int result, DWORD expected) {
    const int error = errno;
    SCOPED_TRACE(what);
    EXPECT_EQ(-1, result);
    errno = error;
    EXPECT_EQ(expected, posix::SetLastErrorFromErrno());
    EXPECT_EQ(expected, GetLastError());
    EXPECT_FALSE(SystemText(expected).empty());
  };
  check("open missing", open((base + "/missing").c_str(), O_RDONLY), ERROR_FILE_NOT_FOUND);
  check("create existing", open(file.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0600),
        ERROR_FILE_EXISTS);
  check("mkdir existing", mkdir(file.c_str(), 0700), ERROR_FILE_EXISTS);
  check("rmdir non-empty", rmdir(base.c_str()), ERROR_DIR_NOT_EMPTY);
  check("path through a file", open((file + "/x").c_str(), O_RDONLY), ERROR_PATH_NOT_FOUND);
  check("write a folder", open(base.c_str(), O_WRONLY), ERROR_ACCESS_DENIED);
  check("close a bad descriptor", close(-1), ERROR_INVALID_HANDLE);
}

TEST(Kernel, ClocksMoveForwardWithSleep) {
  LARGE_INTEGER first{}, second{};
  ASSERT_TRUE(QueryPerformanceCounter(&first));
  const DWORD before = GetTickCount();
  Sleep(30);
  const DWORD elapsed = GetTickCount() - before;
  EXPECT_GE(elapsed, 29u);
  EXPECT_LT(elapsed, 5000u);
  LARGE_INTEGER frequency{};
  ASSERT_TRUE(QueryPerformanceCounter(&second));
  ASSERT_TRUE(QueryPerformanceFrequency(&frequency));
  // Counter and frequency must share a unit: the sleep reads as at least 29 ms on both clocks.
  EXPECT_GE(static_cast<double>(second.QuadPart - first.QuadPart) / frequency.QuadPart, 0.029);
}

TEST(Kernel, EnvironmentVariableReportsSizesAsWindowsDoes) {
  testing::ScopedEnv value("MRWL_KERNEL_TEST_VALUE");
  ASSERT_TRUE(value.Set("ab\xC3\xA9"));  // "abé": 3 UTF-16 units
  const char16_t* name = u"MRWL_KERNEL_TEST_VALUE";
  char16_t buffer[8] = {u'x', u'x', u'x', u'x', u'x', u'x', u'x', u'x'};
  EXPECT_EQ(4u, GetEnvironmentVariableW(name, nullptr, 0));
  EXPECT_EQ(4u, GetEnvironmentVariableW(name, buffer, 3));
  EXPECT_EQ(u'x', buffer[0]);
  EXPECT_EQ(3u, GetEnvironmentVariableW(name, buffer, 4));
  EXPECT_EQ(std::u16string(u"ab\u00e9"), buffer);

  value.Unset();
  SetLastError(0);
  EXPECT_EQ(0u, GetEnvironmentVariableW(name, buffer, 8));
  EXPECT_EQ(static_cast<DWORD>(ERROR_ENVVAR_NOT_FOUND), GetLastError());
}

TEST(Kernel, ModuleFileNameIsAnExistingAbsolutePath) {
  char16_t buffer[4096];
  const DWORD length = GetModuleFileNameForAddress(nullptr, buffer, 4096);
  ASSERT_GT(length, 1u);
  const std::string path = posix::ToUtf8(std::u16string_view(buffer, length));
  EXPECT_EQ('/', path[0]);
  struct stat info {};
  EXPECT_EQ(0, stat(path.c_str(), &info)) << path;
  EXPECT_TRUE(S_ISREG(info.st_mode));

  char16_t small[5];
  SetLastError(0);
  EXPECT_EQ(5u, GetModuleFileNameForAddress(nullptr, small, 5));
  EXPECT_EQ(static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER), GetLastError());
  EXPECT_EQ(std::u16string_view(buffer, 4), std::u16string(small));
}

TEST(Kernel, DebugOutputGoesToStandardErrorOnlyWhenTraced) {
  testing::ScopedEnv trace("MRWL_TRACE");
  trace.Unset();
  ::testing::internal::CaptureStderr();
  OutputDebugStringW(u"hidden");
  EXPECT_EQ("", ::testing::internal::GetCapturedStderr());

  trace.Set("1");
  ::testing::internal::CaptureStderr();
  OutputDebugStringW(u"shown \u00e9\n");
  OutputDebugStringW(nullptr);
  EXPECT_EQ("shown \xC3\xA9\n", ::testing::internal::GetCapturedStderr());
}


TEST(Kernel, ModulesLoadByPathAndFailuresSayWhy) {
  char16_t libc[4096];
  // The process has the C library loaded; loading it by its path counts it once more.
  const DWORD length =
      GetModuleFileNameForAddress(reinterpret_cast<const void*>(&getpid), libc, 4096);
  ASSERT_GT(length, 0u);
  const HMODULE module = LoadLibraryW(libc);
  ASSERT_NE(module, nullptr);
  EXPECT_EQ(GetProcAddress(module, "getpid"), reinterpret_cast<void*>(&getpid));
  SetLastError(0);
  EXPECT_EQ(GetProcAddress(module, "NoSuchExport"), nullptr);
  EXPECT_EQ(static_cast<DWORD>(ERROR_PROC_NOT_FOUND), GetLastError());
  EXPECT_EQ(TRUE, FreeLibrary(module));

  testing::TempFolder folder;
  const std::string text = folder.Write("text.so", "not a module");
  const struct {
    std::u16string path;
    DWORD error;
  } cases[] = {{u"libc.so.6", ERROR_MOD_NOT_FOUND},
               {posix::FromUtf8(folder.PathOf("absent.so")), ERROR_MOD_NOT_FOUND},
               {posix::FromUtf8(text), ERROR_BAD_EXE_FORMAT}};
  for (const auto& c : cases) {
    SCOPED_TRACE(posix::ToUtf8(c.path));
    SetLastError(0);
    EXPECT_EQ(LoadLibraryW(c.path.c_str()), nullptr);
    EXPECT_EQ(c.error, GetLastError());
  }
  EXPECT_NE(GetModuleLoadProblem().find(u"text.so"), std::u16string::npos);
}
}  // namespace
}  // namespace mrwl::platform
