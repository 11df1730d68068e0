// Shared memory between handles and processes, link attributes, and owner-only rights.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

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
long LastError() { return static_cast<long>(GetLastError()); }

class MappingTest : public ::testing::Test {
 protected:
  // Test processes run side by side, so each name carries the process id.
  static std::u16string NameOf(const std::string& label) {
    return Utf8ToUtf16("MRW:test:" + std::to_string(getpid()) + ":" + label);
  }
  UniqueMapping Create(const std::u16string& name, DWORD size, DWORD protect = PAGE_READWRITE) {
    UniqueMapping mapping(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, protect, 0, size,
                                             name.empty() ? nullptr : name.c_str()));
    error_ = LastError();
    return mapping;
  }
  UniqueView Map(const UniqueMapping& mapping, DWORD access, DWORD offset = 0, SIZE_T size = 0) {
    UniqueView view(MapViewOfFile(mapping.get(), access, 0, offset, size));
    error_ = LastError();
    return view;
  }
  // Whether the system still knows the name, asked beside the backend.
  static bool NameLives(const std::u16string& name) {
    const int fd = shm_open(("/" + Utf16ToUtf8(name)).c_str(), O_RDONLY, 0);
    if (fd >= 0) close(fd);
    return fd >= 0;
  }

  long error_ = 0;
  const DWORD page_ = static_cast<DWORD>(sysconf(_SC_PAGESIZE));
};

TEST_F(MappingTest, ANameIsSharedAndGoesWithTheLastHandleOfTheProcess) {
  const std::u16string name = NameOf("shared");
  UniqueMapping first = Create(name, 100);
  EXPECT_EQ(ERROR_SUCCESS, error_);
  UniqueView written = Map(first, FILE_MAP_WRITE, 0, 100);
  ASSERT_TRUE(written) << error_;
  std::memcpy(written.get(), "hello", 5);

  UniqueMapping second = Create(name, 3 * page_);
  ASSERT_TRUE(second) << error_;
  EXPECT_EQ(ERROR_ALREADY_EXISTS, error_);
  EXPECT_FALSE(Map(second, FILE_MAP_READ, 0, 2 * page_)) << "the first size stands";
  EXPECT_EQ(ERROR_ACCESS_DENIED, error_);
  UniqueView read = Map(second, FILE_MAP_READ);
  ASSERT_TRUE(read) << error_;

  first.reset();
  EXPECT_TRUE(NameLives(name));
  second.reset();
  EXPECT_FALSE(NameLives(name));
  EXPECT_EQ(0, std::memcmp(read.get(), "hello", 5)) << "views outlive the handles";
  UniqueMapping again = Create(name, 100);
  EXPECT_EQ(ERROR_SUCCESS, error_);
  EXPECT_EQ(0, static_cast<char*>(Map(again, FILE_MAP_READ).get())[0]) << "a new block is zeroed";
}

TEST_F(MappingTest, ViewsStartOnAPageAndStayInsideTheBlock) {
  UniqueMapping mapping = Create(u"", 2 * page_);
  UniqueView whole = Map(mapping, FILE_MAP_WRITE);
  ASSERT_TRUE(whole) << error_;
  static_cast<char*>(whole.get())[page_] = 'B';
  // ERROR_SUCCESS: the view starts on the second page and shows its mark.
  for (const auto& [offset, size, error] :
       {std::tuple<DWORD, SIZE_T, long>{page_, 0, ERROR_SUCCESS},
        {page_, page_, ERROR_SUCCESS},
        {1, 0, ERROR_MAPPED_ALIGNMENT},
        {2 * page_, 0, ERROR_ACCESS_DENIED},
        {page_, page_ + 1, ERROR_ACCESS_DENIED}}) {
    SCOPED_TRACE(::testing::Message() << offset << "+" << size);
    UniqueView view = Map(mapping, FILE_MAP_READ, offset, size);
    ASSERT_EQ(error, view ? ERROR_SUCCESS : error_);
    EXPECT_TRUE(!view || static_cast<char*>(view.get())[0] == 'B');
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
  EXPECT_EQ(ERROR_NOT_SUPPORTED, LastError());
  EXPECT_EQ(nullptr, MapViewOfFile(file.get(), FILE_MAP_READ, 0, 0, 0));
  EXPECT_EQ(ERROR_INVALID_HANDLE, LastError());

  const std::u16string name = NameOf("wrong");
  for (const auto& [label, size, protect] :
       {std::tuple{u"", 0u, PAGE_READWRITE}, std::tuple{name.c_str(), 0u, PAGE_READWRITE},
        std::tuple{name.c_str(), 10u, 0x40u}}) {
    SCOPED_TRACE(::testing::Message() << size << " " << protect);
    EXPECT_FALSE(Create(label, size, protect));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, error_);
  }
  EXPECT_FALSE(NameLives(name)) << "a failed call leaves no object";

  UniqueMapping readOnly = Create(name, 10, PAGE_READONLY);
  EXPECT_FALSE(Map(readOnly, FILE_MAP_WRITE));
  EXPECT_EQ(ERROR_ACCESS_DENIED, error_);
  UniqueView view = Map(readOnly, FILE_MAP_READ);
  ASSERT_TRUE(view) << error_;
  void* const address = view.get();
  view.reset();
  int local = 0;
  for (const void* wrong : {address, static_cast<void*>(&local), static_cast<void*>(nullptr)}) {
    EXPECT_FALSE(UnmapViewOfFile(wrong));
    EXPECT_EQ(ERROR_INVALID_ADDRESS, LastError());
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
  ASSERT_EQ(ERROR_ALREADY_EXISTS, error_);
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
  std::string args[] = {"/proc/self/exe",
                        "--gtest_filter=MappingTest.DISABLED_ChildReadsAndAnswers",
                        "--gtest_also_run_disabled_tests"};
  char* argv[] = {args[0].data(), args[1].data(), args[2].data(), nullptr};
  pid_t pid = 0;
  ASSERT_EQ(0, posix_spawn(&pid, argv[0], nullptr, nullptr, argv, environ));
  int status = 0;
  ASSERT_EQ(pid, waitpid(pid, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child failed: " << status;
  EXPECT_EQ(0xA5, bytes[size - 1]) << "the child's answer must reach this view";
}

// Links and owner-only rights, on a tree with links that lead out of it. The pairs of a table
// written as "first second first second ...", in order.
std::vector<std::pair<std::string, std::string>> Pairs(const std::string& table) {
  std::vector<std::pair<std::string, std::string>> pairs;
  std::istringstream in(table);
  for (std::string first, second; in >> first >> second;) pairs.emplace_back(first, second);
  return pairs;
}

class LinkedTreeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* file :
         {"outside/file", "tree/file", "tree/sub/deep", "tree/shut/inner", "tree/ro"}) {
      temp_.Write(file, "x");
    }
    for (const auto& [target, name] :
         Pairs("../outside folderlink ../outside/file filelink ro rolink missing dangling")) {
      ASSERT_EQ(0, symlink(target.c_str(), temp_.PathOf("tree/" + name).c_str())) << name;
    }
    // The shut folder last: its contents can't be reached after.
    for (const auto& [name, mode] :
         Pairs("outside 755 outside/file 644 tree 755 tree/file 664 tree/sub 777 tree/sub/deep 666 "
               "tree/shut/inner 644 tree/shut 0 tree/ro 444")) {
      ASSERT_EQ(0, chmod(temp_.PathOf(name).c_str(), std::stoul(mode, nullptr, 8))) << name;
    }
  }
  unsigned ModeOf(const std::string& name) const {
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
  for (const auto& [name, mode] :
       Pairs("tree/file 600 tree/sub 700 tree/sub/deep 600 tree/shut 700 tree/shut/inner 600 "
             "tree/ro 400 outside 755 outside/file 644")) {
    EXPECT_EQ(std::stoul(mode, nullptr, 8), ModeOf(name)) << name;
  }
  for (const auto& [name, error] :
       {std::pair{"tree/none", ERROR_FILE_NOT_FOUND}, {"none/none", ERROR_PATH_NOT_FOUND}}) {
    EXPECT_FALSE(RestrictToOwner(temp_.WidePathOf(name).c_str(), TRUE));
    EXPECT_EQ(error, LastError()) << name;
  }
}

}  // namespace
}  // namespace mrwl::platform
