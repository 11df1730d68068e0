// Shared memory between handles and processes, link attributes, and owner-only rights.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <tuple>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/unique_any.h"
#include "platform/utf.h"
#include "testing/temp_folder.h"

extern char** environ;

namespace mrwl::platform {
namespace {

struct ViewTraits {
  using Type = void*;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type view) noexcept { (void)UnmapViewOfFile(view); }
};
using UniqueView = UniqueAny<ViewTraits>;
using UniqueMapping = UniqueAny<NullHandleTraits>;

constexpr char kNameVariable[] = "MRWL_MAPPING_NAME";

class MappingTest : public ::testing::Test {
 protected:
  // Test processes run side by side, so each name carries the process id.
  static std::u16string NameOf(const std::string& label) {
    return Utf8ToUtf16("MRW:test:" + std::to_string(getpid()) + ":" + label);
  }
  UniqueMapping Create(const std::u16string& name, DWORD size, DWORD protect = PAGE_READWRITE) {
    HANDLE mapping = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, protect, 0, size,
                                        name.empty() ? nullptr : name.c_str());
    error_ = GetLastError();
    return UniqueMapping(mapping);
  }
  UniqueView Map(const UniqueMapping& mapping, DWORD access, DWORD offset = 0, SIZE_T size = 0) {
    void* view = MapViewOfFile(mapping.get(), access, 0, offset, size);
    error_ = GetLastError();
    return UniqueView(view);
  }
  // Whether the system still knows the name, asked beside the backend.
  static bool NameLives(const std::u16string& name) {
    const int fd = shm_open(("/" + Utf16ToUtf8(name)).c_str(), O_RDONLY, 0);
    if (fd >= 0) close(fd);
    return fd >= 0;
  }

  DWORD error_ = 0;
  const DWORD page_ = static_cast<DWORD>(sysconf(_SC_PAGESIZE));
};

TEST_F(MappingTest, ANameIsSharedAndGoesWithTheLastHandleOfTheProcess) {
  const std::u16string name = NameOf("shared");
  UniqueMapping first = Create(name, 100);
  ASSERT_TRUE(first) << error_;
  EXPECT_EQ(static_cast<DWORD>(ERROR_SUCCESS), error_);
  UniqueView written = Map(first, FILE_MAP_WRITE, 0, 100);
  ASSERT_TRUE(written) << error_;
  EXPECT_EQ(std::string(100, '\0'), std::string(static_cast<char*>(written.get()), 100));
  std::memcpy(written.get(), "hello", 5);

  UniqueMapping second = Create(name, 3 * page_);
  ASSERT_TRUE(second) << error_;
  EXPECT_EQ(static_cast<DWORD>(ERROR_ALREADY_EXISTS), error_);
  EXPECT_FALSE(Map(second, FILE_MAP_READ, 0, 2 * page_)) << "the first size stands";
  EXPECT_EQ(static_cast<DWORD>(ERROR_ACCESS_DENIED), error_);
  UniqueView read = Map(second, FILE_MAP_READ);
  ASSERT_TRUE(read) << error_;

  first.reset();
  EXPECT_TRUE(NameLives(name));
  second.reset();
  EXPECT_FALSE(NameLives(name));
  EXPECT_EQ(0, std::memcmp(read.get(), "hello", 5)) << "views outlive the handles";
  UniqueMapping again = Create(name, 100);
  EXPECT_EQ(static_cast<DWORD>(ERROR_SUCCESS), error_);
  EXPECT_EQ(0, static_cast<char*>(Map(again, FILE_MAP_READ).get())[0]);
}

TEST_F(MappingTest, ViewsStartOnAPageAndStayInsideTheBlock) {
  UniqueMapping mapping = Create(u"", 2 * page_);
  ASSERT_TRUE(mapping) << error_;
  UniqueView whole = Map(mapping, FILE_MAP_WRITE);
  ASSERT_TRUE(whole) << error_;
  static_cast<char*>(whole.get())[page_] = 'B';
  struct Case {
    DWORD offset;
    SIZE_T size;
    DWORD error;  // ERROR_SUCCESS: the view shows the second page's mark when it starts there
  } const cases[] = {
      {page_, 0, ERROR_SUCCESS},
      {page_, page_, ERROR_SUCCESS},
      {1, 0, ERROR_MAPPED_ALIGNMENT},
      {2 * page_, 0, ERROR_ACCESS_DENIED},
      {page_, page_ + 1, ERROR_ACCESS_DENIED},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.offset << "+" << c.size);
    UniqueView view = Map(mapping, FILE_MAP_READ, c.offset, c.size);
    ASSERT_EQ(c.error, view ? static_cast<DWORD>(ERROR_SUCCESS) : error_);
    if (view) {
      EXPECT_EQ('B', static_cast<char*>(view.get())[0]);
    }
  }
  // Two unnamed blocks have nothing in common.
  UniqueMapping other = Create(u"", page_);
  EXPECT_EQ(0, static_cast<char*>(Map(other, FILE_MAP_READ).get())[0]);
}

TEST_F(MappingTest, WrongRequestsFailWithTheWindowsError) {
  testing::TempFolder temp;
  UniqueFile file(CreateFileW(temp.WidePathOf("f").c_str(), GENERIC_READ | GENERIC_WRITE, 0,
                              CREATE_NEW, FILE_ATTRIBUTE_NORMAL));
  ASSERT_TRUE(file);
  EXPECT_EQ(nullptr, CreateFileMappingW(file.get(), nullptr, PAGE_READWRITE, 0, 10, nullptr));
  EXPECT_EQ(static_cast<DWORD>(ERROR_NOT_SUPPORTED), GetLastError());
  EXPECT_EQ(nullptr, MapViewOfFile(file.get(), FILE_MAP_READ, 0, 0, 0));
  EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_HANDLE), GetLastError());

  const std::u16string name = NameOf("wrong");
  for (const auto& [label, size, protect] :
       {std::tuple{u"", 0u, PAGE_READWRITE}, std::tuple{name.c_str(), 0u, PAGE_READWRITE},
        std::tuple{name.c_str(), 10u, 0x40u}}) {
    SCOPED_TRACE(::testing::Message() << size << " " << protect);
    EXPECT_FALSE(Create(label, size, protect));
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_PARAMETER), error_);
  }
  EXPECT_FALSE(NameLives(name)) << "a failed call leaves no object";

  UniqueMapping readOnly = Create(name, 10, PAGE_READONLY);
  EXPECT_FALSE(Map(readOnly, FILE_MAP_WRITE));
  EXPECT_EQ(static_cast<DWORD>(ERROR_ACCESS_DENIED), error_);
  UniqueView view = Map(readOnly, FILE_MAP_READ);
  ASSERT_TRUE(view) << error_;
  void* const address = view.get();
  view.reset();
  int local = 0;
  for (const void* wrong : {static_cast<const void*>(address), static_cast<const void*>(&local),
                            static_cast<const void*>(nullptr)}) {
    EXPECT_FALSE(UnmapViewOfFile(wrong));
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_ADDRESS), GetLastError());
  }
  // A slash would make a folder of the name, which shared memory has not.
  UniqueMapping slashed = Create(name + u"/x", 10);
  EXPECT_TRUE(slashed) << error_;
  EXPECT_TRUE(NameLives(name + u"_x"));
}

// The child's side of the test below: it finds the block by name, checks it, and answers in
// the block's last byte.
TEST_F(MappingTest, DISABLED_ChildReadsAndAnswers) {
  const char* name = std::getenv(kNameVariable);
  ASSERT_NE(nullptr, name);
  UniqueMapping mapping = Create(Utf8ToUtf16(name), 4);
  ASSERT_EQ(static_cast<DWORD>(ERROR_ALREADY_EXISTS), error_);
  UniqueView view = Map(mapping, FILE_MAP_READ | FILE_MAP_WRITE);
  ASSERT_TRUE(view) << error_;
  auto* bytes = static_cast<unsigned char*>(view.get());
  std::uint32_t size = 0;
  std::memcpy(&size, bytes, 4);
  ASSERT_EQ(page_ + 123, size);
  for (std::uint32_t i = 4; i + 1 < size; ++i)
    ASSERT_EQ(static_cast<unsigned char>(i * 7), bytes[i]);
  bytes[size - 1] = 0xA5;
}

TEST_F(MappingTest, AnotherProcessReadsWhatWasPublished) {
  const std::u16string name = NameOf("published");
  const std::uint32_t size = page_ + 123;  // a record that runs past one page
  UniqueMapping mapping = Create(name, size);
  UniqueView view = Map(mapping, FILE_MAP_WRITE, 0, size);
  ASSERT_TRUE(view) << error_;
  auto* bytes = static_cast<unsigned char*>(view.get());
  std::memcpy(bytes, &size, 4);
  for (std::uint32_t i = 4; i < size; ++i) bytes[i] = static_cast<unsigned char>(i * 7);

  testing::ScopedEnv useName(kNameVariable, Utf16ToUtf8(name));
  std::string self = "/proc/self/exe";
  std::string filter = "--gtest_filter=MappingTest.DISABLED_ChildReadsAndAnswers";
  std::string disabled = "--gtest_also_run_disabled_tests";
  char* argv[] = {self.data(), filter.data(), disabled.data(), nullptr};
  pid_t pid = 0;
  ASSERT_EQ(0, posix_spawn(&pid, self.c_str(), nullptr, nullptr, argv, environ));
  int status = 0;
  ASSERT_EQ(pid, waitpid(pid, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child failed: " << status;
  EXPECT_EQ(0xA5, bytes[size - 1]) << "the child's answer must reach this view";
}

// ---------------------------------------------------------------------------------------------
// Links and owner-only rights, on a tree with links that lead out of it.

class LinkedTreeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    temp_.Write("outside/file", "x");
    temp_.Write("tree/file", "x");
    temp_.Write("tree/sub/deep", "x");
    temp_.Write("tree/shut/inner", "x");
    temp_.Write("tree/ro", "x");
    Link("../outside", "tree/folderlink");
    Link("../outside/file", "tree/filelink");
    Link("ro", "tree/rolink");
    Link("missing", "tree/dangling");
    for (const auto& [name, mode] : {std::pair{"outside", 0755},
                                     {"outside/file", 0644},
                                     {"tree", 0755},
                                     {"tree/file", 0664},
                                     {"tree/sub", 0777},
                                     {"tree/sub/deep", 0666},
                                     {"tree/shut/inner", 0644},
                                     {"tree/shut", 0},
                                     {"tree/ro", 0444}}) {
      ASSERT_EQ(0, chmod(temp_.PathOf(name).c_str(), static_cast<mode_t>(mode))) << name;
    }
  }
  void Link(const char* target, const char* name) {
    ASSERT_EQ(0, symlink(target, temp_.PathOf(name).c_str())) << name;
  }
  unsigned ModeOf(const char* name) const {
    struct stat st {};
    return lstat(temp_.PathOf(name).c_str(), &st) == 0 ? st.st_mode & 07777u : 0xFFFFu;
  }
  testing::TempFolder temp_;
};

TEST_F(LinkedTreeTest, LinksShowTheirTargetWithTheReparseBit) {
  constexpr DWORD kDir = FILE_ATTRIBUTE_DIRECTORY, kArchive = FILE_ATTRIBUTE_ARCHIVE,
                  kLink = FILE_ATTRIBUTE_REPARSE_POINT, kReadOnly = FILE_ATTRIBUTE_READONLY;
  const std::map<std::string, DWORD> expected = {{"file", kArchive},
                                                 {"sub", kDir},
                                                 {"shut", kDir},
                                                 {"ro", kArchive | kReadOnly},
                                                 {"folderlink", kDir | kLink},
                                                 {"filelink", kArchive | kLink},
                                                 {"rolink", kArchive | kReadOnly | kLink},
                                                 {"dangling", kArchive | kLink}};
  std::map<std::string, DWORD> found;
  FindDataW data{};
  UniqueFind find(FindFirstFileW(temp_.WidePathOf("tree/*").c_str(), &data));
  ASSERT_TRUE(find);
  do {
    const std::string name = Utf16ToUtf8(data.cFileName);
    if (name == "." || name == "..") continue;
    found[name] = data.dwFileAttributes;
    EXPECT_EQ((data.dwFileAttributes & kLink) ? 0xA000000Cu : 0u, data.dwReserved0) << name;
  } while (FindNextFileW(find.get(), &data));
  EXPECT_EQ(expected, found);
  for (const auto& [name, attributes] : expected) {
    EXPECT_EQ(attributes, GetFileAttributesW(temp_.WidePathOf("tree/" + name).c_str())) << name;
  }
}

TEST_F(LinkedTreeTest, RestrictingATreeLeavesWhatLinksLeadToAlone) {
  ASSERT_TRUE(RestrictToOwner(temp_.WidePathOf("tree").c_str(), FALSE));
  EXPECT_EQ(0700u, ModeOf("tree"));
  EXPECT_EQ(0664u, ModeOf("tree/file")) << "not recursive";
  ASSERT_TRUE(RestrictToOwner(temp_.WidePathOf("tree/folderlink").c_str(), TRUE));
  ASSERT_TRUE(RestrictToOwner(temp_.WidePathOf("tree").c_str(), TRUE));
  for (const auto& [name, mode] : {std::pair{"tree/file", 0600u},
                                   {"tree/sub", 0700u},
                                   {"tree/sub/deep", 0600u},
                                   {"tree/shut", 0700u},
                                   {"tree/shut/inner", 0600u},
                                   {"tree/ro", 0400u},
                                   {"outside", 0755u},
                                   {"outside/file", 0644u}}) {
    EXPECT_EQ(mode, ModeOf(name)) << name;
  }
  for (const auto& [name, error] :
       {std::pair{"tree/none", ERROR_FILE_NOT_FOUND}, {"none/none", ERROR_PATH_NOT_FOUND}}) {
    EXPECT_FALSE(RestrictToOwner(temp_.WidePathOf(name).c_str(), TRUE));
    EXPECT_EQ(static_cast<DWORD>(error), GetLastError()) << name;
  }
}

}  // namespace
}  // namespace mrwl::platform
