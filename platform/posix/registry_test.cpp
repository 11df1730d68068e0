#include "platform/registry.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/utf.h"
#include "testing/temp_folder.h"

extern char** environ;

namespace mrwl::platform {
namespace {

using mrwl::testing::ScopedEnv;
using mrwl::testing::TempFolder;
using Names = std::vector<std::u16string>;

ULONGLONG Stamp(const FILETIME& t) {
  return (static_cast<ULONGLONG>(t.dwHighDateTime) << 32) | t.dwLowDateTime;
}
LSTATUS Set(HKEY key, const char16_t* name, DWORD type, const void* data, DWORD size) {
  return RegSetValueExW(key, name, 0, type, static_cast<const BYTE*>(data), size);
}
LSTATUS Query(HKEY key, const char16_t* name, DWORD* type, void* data, DWORD* size) {
  return RegQueryValueExW(key, name, nullptr, type, static_cast<BYTE*>(data), size);
}
HANDLE Begin() { return CreateTransaction(nullptr, nullptr, 0, 0, 0, INFINITE, nullptr); }
// Reads a value only for the result code.
LSTATUS Read(HKEY key, const char16_t* name) {
  DWORD value = 0, size = 4;
  return Query(key, name, nullptr, &value, &size);
}
// The name of the value (or subkey) at `index`; empty, with `*rc` saying why, when there is none.
std::u16string At(HKEY key, bool values, DWORD index, LSTATUS* rc = nullptr) {
  char16_t name[256];
  DWORD length = 256;
  const LSTATUS result =
      values ? RegEnumValueW(key, index, name, &length, nullptr, nullptr, nullptr, nullptr)
             : RegEnumKeyExW(key, index, name, &length, nullptr, nullptr, nullptr, nullptr);
  if (rc != nullptr) *rc = result;
  return result == ERROR_SUCCESS ? std::u16string(name, length) : std::u16string();
}

// Each test works on a hive file of its own; the fixture closes every key it hands out.
class RegistryTest : public ::testing::Test {
 protected:
  RegistryTest() : hive_("MRWL_REGISTRY", folder_.PathOf("registry.db")) {}
  ~RegistryTest() override {
    for (HKEY key : open_) RegCloseKey(key);
  }

  // Opens or creates `path` below `parent` with full access, inside `txn` when one is given.
  HKEY Create(const char16_t* path, HKEY parent = HKEY_CURRENT_USER, HANDLE txn = nullptr,
              DWORD* disposition = nullptr) {
    HKEY key = nullptr;
    const LSTATUS rc = txn != nullptr
                           ? RegCreateKeyTransactedW(parent, path, 0, nullptr, 0, KEY_ALL_ACCESS,
                                                     nullptr, &key, disposition, txn, nullptr)
                           : RegCreateKeyExW(parent, path, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                                             &key, disposition);
    EXPECT_EQ(ERROR_SUCCESS, rc);
    if (rc == ERROR_SUCCESS) open_.push_back(key);
    return key;
  }
  LSTATUS Open(const char16_t* path, HKEY* key, REGSAM access = KEY_ALL_ACCESS) {
    const LSTATUS rc = RegOpenKeyExW(HKEY_CURRENT_USER, path, 0, access, key);
    if (rc == ERROR_SUCCESS) open_.push_back(*key);
    return rc;
  }
  void SetDword(HKEY key, const char16_t* name, DWORD value) {
    ASSERT_EQ(ERROR_SUCCESS, Set(key, name, REG_DWORD, &value, 4));
  }
  DWORD Dword(HKEY key, const char16_t* name) {
    DWORD value = 0xDEADBEEF, type = 0, size = 4;
    EXPECT_EQ(ERROR_SUCCESS, Query(key, name, &type, &value, &size));
    EXPECT_EQ(REG_DWORD, type);
    return value;
  }
  ULONGLONG LastWrite(HKEY key) {
    FILETIME t{};
    EXPECT_EQ(ERROR_SUCCESS, RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, nullptr, nullptr,
                                              nullptr, nullptr, nullptr, nullptr, nullptr, &t));
    return Stamp(t);
  }
  // The names at the indexes 0, 1, ... up to ERROR_NO_MORE_ITEMS.
  static Names List(HKEY key, bool values) {
    Names names;
    for (LSTATUS rc = ERROR_SUCCESS;;) {
      std::u16string name = At(key, values, static_cast<DWORD>(names.size()), &rc);
      if (rc != ERROR_SUCCESS) {
        EXPECT_EQ(ERROR_NO_MORE_ITEMS, rc);
        return names;
      }
      names.push_back(std::move(name));
    }
  }
  static Names SubKeys(HKEY key) { return List(key, false); }
  static Names Values(HKEY key) { return List(key, true); }

  TempFolder folder_;
  ScopedEnv hive_;
  std::vector<HKEY> open_;
};

TEST_F(RegistryTest, KeysGoByNameInAnyCaseAndBadPathsAreRefused) {
  DWORD disposition = 0;
  Create(u"Software\\Brindlemoor\\Test", HKEY_CURRENT_USER, nullptr, &disposition);
  EXPECT_EQ(REG_CREATED_NEW_KEY, disposition);
  Create(u"SOFTWARE\\brindlemoor\\TEST\\", HKEY_CURRENT_USER, nullptr, &disposition);
  EXPECT_EQ(REG_OPENED_EXISTING_KEY, disposition);
  HKEY key = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, Open(u"software\\BRINDLEMOOR", &key));
  EXPECT_EQ(Names{u"Test"}, SubKeys(key)) << "case as first created";
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, Open(u"Software\\Nowhere", &key));
  HKEY root = nullptr;
  EXPECT_EQ(ERROR_SUCCESS, RegOpenKeyExW(HKEY_CURRENT_USER, nullptr, 0, KEY_READ, &root));
  EXPECT_EQ(HKEY_CURRENT_USER, root) << "a root opens as itself";

  const std::u16string longName(256, u'x');
  const std::pair<const char16_t*, LSTATUS> malformed[] = {
      {u"\\Lead", ERROR_BAD_PATHNAME},
      {u"A\\\\B", ERROR_BAD_PATHNAME},
      {longName.c_str(), ERROR_INVALID_PARAMETER}};
  for (const auto& [path, expected] : malformed) {
    EXPECT_EQ(expected, RegCreateKeyExW(HKEY_CURRENT_USER, path, 0, nullptr, 0, KEY_ALL_ACCESS,
                                        nullptr, &key, nullptr))
        << Utf16ToUtf8(path);
  }
  // Anything but the backslash is a name character, an unpaired surrogate included.
  const std::u16string odd = u"a/b*c?\u00E9\xD800 \"q\"";
  HKEY parent = Create(u"Odd");
  Create(odd.c_str(), parent);
  EXPECT_EQ(Names{odd}, SubKeys(parent));

  // Subkeys list in the order of their names compared without regard to case.
  HKEY order = Create(u"Order");
  for (const char16_t* name : {u"delta", u"Bravo", u"alpha", u"Charlie", u"\u00E9clair", u"Echo"})
    Create(name, order);
  EXPECT_EQ((Names{u"alpha", u"Bravo", u"Charlie", u"delta", u"Echo", u"\u00E9clair"}),
            SubKeys(order));
  char16_t small[3];
  DWORD length = 3;
  EXPECT_EQ(ERROR_MORE_DATA,
            RegEnumKeyExW(order, 0, small, &length, nullptr, nullptr, nullptr, nullptr));
}

TEST_F(RegistryTest, ValuesRoundTripWithTypeAndSize) {
  HKEY key = Create(u"Values");
  const ULONGLONG big = 0x0123456789ABCDEFull;
  ASSERT_EQ(ERROR_SUCCESS, Set(key, u"Text", REG_SZ, u"hello", 12));
  ASSERT_EQ(ERROR_SUCCESS, Set(key, u"Big", REG_QWORD, &big, 8));
  ASSERT_EQ(ERROR_SUCCESS, Set(key, u"Empty", REG_BINARY, nullptr, 0));

  DWORD type = 0, size = 0;
  EXPECT_EQ(ERROR_SUCCESS, Query(key, u"TEXT", &type, nullptr, &size));
  EXPECT_EQ(REG_SZ, type);
  EXPECT_EQ(12u, size);
  char16_t buffer[16] = {};
  size = 6;
  EXPECT_EQ(ERROR_MORE_DATA, Query(key, u"Text", &type, buffer, &size));
  EXPECT_EQ(12u, size) << "the size needed";
  size = sizeof buffer;
  ASSERT_EQ(ERROR_SUCCESS, Query(key, u"Text", &type, buffer, &size));
  EXPECT_EQ(u"hello", std::u16string(buffer));

  ULONGLONG back = 0;
  size = sizeof back;
  ASSERT_EQ(ERROR_SUCCESS, Query(key, u"big", &type, &back, &size));
  EXPECT_EQ(REG_QWORD, type);
  EXPECT_EQ(big, back);
  size = 4;
  EXPECT_EQ(ERROR_SUCCESS, Query(key, u"Empty", &type, &back, &size));
  EXPECT_EQ(0u, size);
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, Query(key, u"Missing", &type, nullptr, &size));
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, RegDeleteValueW(key, u"Missing"));
  // The default value has the empty name, null and "" alike.
  SetDword(key, nullptr, 7);
  EXPECT_EQ(7u, Dword(key, u""));
}

TEST_F(RegistryTest, ValuesEnumerateInTheOrderOfTheirFirstWrite) {
  HKEY key = Create(u"Sequence");
  SetDword(key, u"zulu", 1);
  SetDword(key, u"Alpha", 2);
  SetDword(key, u"mike", 3);
  SetDword(key, u"ZULU", 4);  // overwrites in place, keeps its name and place
  EXPECT_EQ((Names{u"zulu", u"Alpha", u"mike"}), Values(key));
  ASSERT_EQ(ERROR_SUCCESS, RegDeleteValueW(key, u"alpha"));
  SetDword(key, u"Alpha", 5);  // a new value again, so it goes last
  EXPECT_EQ((Names{u"zulu", u"mike", u"Alpha"}), Values(key));
  EXPECT_EQ(4u, Dword(key, u"Zulu"));
}

// Walking by index continues behind the last entry while nothing changes; any change, by this
// connection or another one, makes the index count from the start again, as Windows counts.
TEST_F(RegistryTest, EnumerationByIndexSeesChangesMadeMeanwhile) {
  HKEY key = Create(u"Walk");
  for (const char16_t* name : {u"v0", u"v1", u"v2", u"v3", u"v4"}) SetDword(key, name, 0);
  for (const char16_t* name : {u"k0", u"k1", u"k2", u"k3"}) Create(name, key);
  EXPECT_EQ(u"v0", At(key, true, 0));
  EXPECT_EQ(u"v1", At(key, true, 1));
  EXPECT_EQ(u"v1", At(key, true, 1)) << "asking again gives the same entry";
  ASSERT_EQ(ERROR_SUCCESS, RegDeleteValueW(key, u"v0"));
  EXPECT_EQ(u"v3", At(key, true, 2)) << "index 2 of what is there now";
  EXPECT_EQ(u"v4", At(key, true, 3));

  EXPECT_EQ(u"k0", At(key, false, 0));
  EXPECT_EQ(u"k1", At(key, false, 1));
  // A commit of another connection: a transaction has one of its own.
  HANDLE txn = Begin();
  ASSERT_EQ(ERROR_SUCCESS, RegDeleteTreeW(Create(u"Walk", HKEY_CURRENT_USER, txn), u"k0"));
  ASSERT_TRUE(CommitTransaction(txn));
  CloseHandle(txn);
  EXPECT_EQ(u"k3", At(key, false, 2));
  LSTATUS rc = ERROR_SUCCESS;
  EXPECT_EQ(u"", At(key, false, 3, &rc));
  EXPECT_EQ(ERROR_NO_MORE_ITEMS, rc);
}

TEST_F(RegistryTest, QueryInfoCountsAndMeasures) {
  HKEY key = Create(u"Info");
  HKEY child = nullptr;
  ASSERT_EQ(ERROR_SUCCESS,
            RegCreateKeyExW(key, u"LongerName", 0, u"Cls", 0, KEY_READ, nullptr, &child, nullptr));
  RegCloseKey(child);
  Create(u"S", key);
  SetDword(key, u"abc", 1);
  const BYTE blob[40] = {};
  ASSERT_EQ(ERROR_SUCCESS, Set(key, u"x", REG_BINARY, blob, sizeof blob));

  DWORD subKeys = 0, maxSubKey = 0, maxClass = 0, values = 0, maxName = 0, maxData = 0;
  ASSERT_EQ(ERROR_SUCCESS,
            RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &subKeys, &maxSubKey, &maxClass,
                             &values, &maxName, &maxData, nullptr, nullptr));
  EXPECT_EQ((std::vector<DWORD>{2, 10, 3, 2, 3, 40}),
            (std::vector<DWORD>{subKeys, maxSubKey, maxClass, values, maxName, maxData}));
}

TEST_F(RegistryTest, EveryWriteMovesTheLastWriteTimeForward) {
  HKEY key = Create(u"Clock");
  ULONGLONG last = LastWrite(key);
  const auto expectMoved = [&](const char* what) {
    const ULONGLONG now = LastWrite(key);
    EXPECT_GT(now, last) << what;
    last = now;
  };
  // Many writes fall into one tick of the system clock; each must still be later.
  for (DWORD i = 0; i < 20; ++i) {
    SetDword(key, u"v", i);
    expectMoved("set");
  }
  ASSERT_EQ(ERROR_SUCCESS, RegDeleteValueW(key, u"v"));
  expectMoved("delete value");
  HKEY child = Create(u"Child", key);
  expectMoved("create subkey");
  SetDword(child, u"inner", 1);
  EXPECT_EQ(last, LastWrite(key)) << "a write below a subkey is not a write of the key";
  ASSERT_EQ(ERROR_SUCCESS, RegRenameKey(key, u"Child", u"Renamed"));
  expectMoved("rename subkey");
  ASSERT_EQ(ERROR_SUCCESS, RegDeleteTreeW(key, u"Renamed"));
  expectMoved("delete subkey");
  ASSERT_EQ(ERROR_SUCCESS, RegDeleteTreeW(key, nullptr));
  expectMoved("empty the key");

  // The enumeration reports the same time as the key itself.
  FILETIME listed{};
  DWORD length = 64;
  char16_t name[64];
  ASSERT_EQ(ERROR_SUCCESS,
            RegEnumKeyExW(HKEY_CURRENT_USER, 0, name, &length, nullptr, nullptr, nullptr, &listed));
  EXPECT_EQ(u"Clock", std::u16string(name, length));
  EXPECT_EQ(last, Stamp(listed));
}

TEST_F(RegistryTest, DeleteTreeRemovesEverythingBelowAndStaleHandlesSayDeleted) {
  HKEY top = Create(u"Tree");
  HKEY deep = Create(u"Tree\\A\\B\\C");
  SetDword(deep, u"v", 1);
  SetDword(top, u"keep", 1);
  ASSERT_EQ(ERROR_SUCCESS, RegDeleteTreeW(top, u"A"));
  EXPECT_TRUE(SubKeys(top).empty());
  EXPECT_EQ(ERROR_KEY_DELETED, Read(deep, u"v"));
  EXPECT_EQ(ERROR_KEY_DELETED, Set(deep, u"v", REG_NONE, nullptr, 0));
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, RegDeleteTreeW(top, u"A"));

  // With no subkey the key stays and loses its content.
  Create(u"Tree\\X\\Y");
  ASSERT_EQ(ERROR_SUCCESS, RegDeleteTreeW(top, nullptr));
  EXPECT_TRUE(SubKeys(top).empty());
  EXPECT_TRUE(Values(top).empty());
  SetDword(top, u"after", 2);
  EXPECT_EQ(2u, Dword(top, u"after"));
}

TEST_F(RegistryTest, RenameKeepsContentAndOpenHandles) {
  HKEY key = Create(u"Ren\\Old");
  SetDword(key, u"v", 9);
  Create(u"Ren\\Taken");
  HKEY parent = Create(u"Ren");
  EXPECT_EQ(ERROR_ACCESS_DENIED, RegRenameKey(parent, u"Old", u"TAKEN"));
  EXPECT_EQ(ERROR_INVALID_PARAMETER, RegRenameKey(parent, u"Old", u"a\\b"));
  ASSERT_EQ(ERROR_SUCCESS, RegRenameKey(key, nullptr, u"New"));
  EXPECT_EQ((Names{u"New", u"Taken"}), SubKeys(parent));
  EXPECT_EQ(9u, Dword(key, u"v")) << "the handle follows the key";
  EXPECT_EQ(9u, Dword(Create(u"Ren\\new"), u"v"));
}

TEST_F(RegistryTest, HandlesOnlyDoWhatTheirRightsAllow) {
  Create(u"Rights\\Sub");
  HKEY reader = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, Open(u"Rights", &reader, KEY_READ));
  DWORD value = 1;
  EXPECT_EQ(ERROR_ACCESS_DENIED, Set(reader, u"v", REG_DWORD, &value, 4));
  EXPECT_EQ(ERROR_ACCESS_DENIED, RegDeleteValueW(reader, u"v"));
  HKEY child = nullptr;
  EXPECT_EQ(ERROR_ACCESS_DENIED,
            RegCreateKeyExW(reader, u"New", 0, nullptr, 0, KEY_READ, nullptr, &child, nullptr));
  ASSERT_EQ(ERROR_SUCCESS,
            RegCreateKeyExW(reader, u"Sub", 0, nullptr, 0, KEY_READ, nullptr, &child, nullptr))
      << "opening an existing key needs no right to create";
  RegCloseKey(child);
  HKEY writer = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, Open(u"Rights", &writer, KEY_SET_VALUE));
  EXPECT_EQ(ERROR_ACCESS_DENIED, Read(writer, u"v"));
  EXPECT_EQ(ERROR_INVALID_HANDLE, RegCloseKey(reinterpret_cast<HKEY>(&value)));
}

// ---------------------------------------------------------------------------------------------
// Transactions.

// Closing a transaction that is still open must roll it back like RollbackTransaction; after
// any end the transaction's keys refuse every call.
TEST_F(RegistryTest, TransactedWritesAppearAtCommitAndVanishAtRollbackOrClose) {
  HKEY plain = Create(u"Txn");
  enum End { kCommit, kRollback, kClose };
  for (const End end : {kCommit, kRollback, kClose}) {
    SCOPED_TRACE(end);
    const bool commit = end == kCommit;
    HANDLE txn = Begin();
    ASSERT_NE(INVALID_HANDLE_VALUE, txn);
    DWORD disposition = 0;
    HKEY key = Create(u"Txn\\Inner", HKEY_CURRENT_USER, txn, &disposition);
    EXPECT_EQ(REG_CREATED_NEW_KEY, disposition);
    SetDword(key, u"v", 42);
    EXPECT_EQ(42u, Dword(key, u"v")) << "the transaction sees its own write";
    HKEY outside = nullptr;
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, Open(u"Txn\\Inner", &outside)) << "others do not, yet";
    EXPECT_TRUE(SubKeys(plain).empty());

    if (end == kClose) {
      ASSERT_TRUE(CloseHandle(txn));
    } else {
      ASSERT_TRUE(commit ? CommitTransaction(txn) : RollbackTransaction(txn));
      EXPECT_FALSE(CommitTransaction(txn));
      EXPECT_EQ(commit ? ERROR_TRANSACTION_ALREADY_COMMITTED : ERROR_TRANSACTION_ALREADY_ABORTED,
                GetLastError());
    }
    EXPECT_EQ(ERROR_TRANSACTION_NOT_ACTIVE, Read(key, u"v"));
    EXPECT_EQ(ERROR_TRANSACTION_NOT_ACTIVE, Set(key, u"v", REG_NONE, nullptr, 0));
    EXPECT_TRUE(end == kClose || CloseHandle(txn));

    if (commit) {
      ASSERT_EQ(ERROR_SUCCESS, Open(u"Txn\\Inner", &outside));
      EXPECT_EQ(42u, Dword(outside, u"v"));
      ASSERT_EQ(ERROR_SUCCESS, RegDeleteTreeW(plain, u"Inner"));
    } else {
      EXPECT_EQ(ERROR_FILE_NOT_FOUND, Open(u"Txn\\Inner", &outside));
    }
  }
  HANDLE empty = Begin();
  EXPECT_TRUE(CommitTransaction(empty)) << "an empty transaction commits without complaint";
  EXPECT_TRUE(CloseHandle(empty));
}

// A transaction holds the hive's write lock until it ends, so a plain write of the same thread
// could only wait for itself; it is refused at once, and works again after the commit.
TEST_F(RegistryTest, PlainWriteBesideOwnOpenTransactionIsAConflict) {
  HKEY plain = Create(u"Beside");
  HANDLE txn = Begin();
  SetDword(Create(u"Beside", HKEY_CURRENT_USER, txn), u"inside", 1);
  DWORD value = 1;
  EXPECT_EQ(ERROR_TRANSACTIONAL_CONFLICT, Set(plain, u"outside", REG_DWORD, &value, 4));
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, Read(plain, u"inside")) << "reads never wait";
  ASSERT_TRUE(CommitTransaction(txn));
  CloseHandle(txn);
  SetDword(plain, u"outside", 2);
  EXPECT_EQ(1u, Dword(plain, u"inside"));
}

// ---------------------------------------------------------------------------------------------
// The hive file.

void MakeDatabase(const std::string& path, const char* sql) {
  sqlite3* db = nullptr;
  sqlite3_open(path.c_str(), &db);
  sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
  sqlite3_close(db);
}

TEST_F(RegistryTest, DamagedOrForeignFilesAreReportedAndLeftAlone) {
  std::string garbage(8192, '\0');
  for (std::size_t i = 0; i < garbage.size(); ++i) garbage[i] = static_cast<char>(i * 7 + 3);
  folder_.Write("garbage.db", garbage);
  MakeDatabase(folder_.PathOf("foreign.db"), "CREATE TABLE t(x); INSERT INTO t VALUES(1);");
  // The application id of a hive, with the schema page behind the header scribbled over.
  MakeDatabase(folder_.PathOf("damaged.db"),
               "PRAGMA application_id=1297241932; CREATE TABLE keys(x);");
  std::string damaged = folder_.Read("damaged.db");
  std::fill(damaged.begin() + 100, damaged.end(), static_cast<char>(0xA5));
  folder_.Write("damaged.db", damaged);

  for (const char* name : {"garbage.db", "foreign.db", "damaged.db"}) {
    SCOPED_TRACE(name);
    const std::string path = folder_.PathOf(name);
    const std::string before = folder_.Read(name);
    ScopedEnv hive("MRWL_REGISTRY", path);
    HKEY key = nullptr;
    const LSTATUS rc = RegCreateKeyExW(HKEY_CURRENT_USER, u"Software", 0, nullptr, 0,
                                       KEY_ALL_ACCESS, nullptr, &key, nullptr);
    EXPECT_TRUE(rc == ERROR_BADDB || rc == ERROR_REGISTRY_CORRUPT) << rc;
    const std::string problem = Utf16ToUtf8(RegHiveProblem());
    EXPECT_NE(std::string::npos, problem.find(path)) << problem;
    EXPECT_NE(std::string::npos, problem.find("left as it is")) << problem;
    EXPECT_TRUE(before == folder_.Read(name)) << "the file must not change";
  }
}

TEST_F(RegistryTest, AnEmptyFileBecomesAHiveAndTheDefaultLocationFollowsXdg) {
  {
    ScopedEnv hive("MRWL_REGISTRY", folder_.Write("empty.db", ""));
    SetDword(Create(u"Fresh"), u"v", 1);
    EXPECT_TRUE(RegHiveProblem().empty());
  }
  ScopedEnv noHive("MRWL_REGISTRY");
  noHive.Unset();
  ScopedEnv xdg("XDG_CONFIG_HOME", folder_.PathOf("config"));
  EXPECT_EQ(folder_.PathOf("config/marrowline/registry.db"), Utf16ToUtf8(RegHiveLocation()));
  Create(u"Elsewhere");
  struct stat info {};
  ASSERT_EQ(0, stat(folder_.PathOf("config/marrowline/registry.db").c_str(), &info))
      << "the folder is made on first use";
  EXPECT_EQ(0600u, info.st_mode & 0777u) << "a new hive is for its owner only";
  ASSERT_EQ(0, stat(folder_.PathOf("config/marrowline").c_str(), &info));
  EXPECT_EQ(0700u, info.st_mode & 0777u);
}

// ---------------------------------------------------------------------------------------------
// Several processes on one hive. The test program starts copies of itself that run the
// disabled writer test below with their orders in the environment.

constexpr DWORD kWrites = 150;

int SpawnWriter(const std::string& role, const std::string& hive) {
  ScopedEnv useHive("MRWL_REGISTRY", hive);
  ScopedEnv useRole("MRWL_WRITER_ROLE", role);
  std::string self = "/proc/self/exe";
  std::string filter = "--gtest_filter=RegistryChild.DISABLED_Writer";
  std::string disabled = "--gtest_also_run_disabled_tests";
  char* argv[] = {self.data(), filter.data(), disabled.data(), nullptr};
  pid_t pid = 0;
  return posix_spawn(&pid, self.c_str(), nullptr, nullptr, argv, environ) == 0 ? pid : -1;
}

TEST(RegistryChild, DISABLED_Writer) {
  const char* role = std::getenv("MRWL_WRITER_ROLE");
  ASSERT_NE(nullptr, role);
  HKEY key = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(HKEY_CURRENT_USER, u"Shared", 0, nullptr, 0,
                                           KEY_ALL_ACCESS, nullptr, &key, nullptr))
      << Utf16ToUtf8(RegHiveProblem());
  const DWORD writes = std::strcmp(role, "opener") == 0 ? 0 : kWrites;
  for (DWORD i = 0; i < writes; ++i) {
    // A value of its own, and a counter that all raise inside a transaction.
    const std::u16string name = Utf8ToUtf16(std::string(role) + "-" + std::to_string(i));
    ASSERT_EQ(ERROR_SUCCESS, Set(key, name.c_str(), REG_DWORD, &i, 4));
    HANDLE txn = Begin();
    HKEY counter = nullptr;
    ASSERT_EQ(ERROR_SUCCESS,
              RegCreateKeyTransactedW(HKEY_CURRENT_USER, u"Shared", 0, nullptr, 0, KEY_ALL_ACCESS,
                                      nullptr, &counter, nullptr, txn, nullptr));
    DWORD count = 0;
    DWORD size = 4;
    (void)Query(counter, u"count", nullptr, &count, &size);  // missing at first: counts from 0
    ++count;
    ASSERT_EQ(ERROR_SUCCESS, Set(counter, u"count", REG_DWORD, &count, 4));
    RegCloseKey(counter);
    ASSERT_TRUE(CommitTransaction(txn));
    CloseHandle(txn);
  }
  RegCloseKey(key);
}

// Processes that find no hive yet all make it at once, so each round starts on a fresh file;
// every one must end up in the one hive, and no plain or transacted write may be lost.
TEST_F(RegistryTest, ProcessesSharingAFreshHiveAllSucceedAndLoseNothing) {
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE(round);
    const std::string hive = folder_.PathOf("fresh" + std::to_string(round) + ".db");
    std::vector<int> pids;
    for (const char* role : {"a", "opener", "b", "opener"}) pids.push_back(SpawnWriter(role, hive));
    for (const int pid : pids) {
      ASSERT_GT(pid, 0);
      int status = 0;
      ASSERT_EQ(pid, waitpid(pid, &status, 0));
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child failed: " << status;
    }
    ScopedEnv use("MRWL_REGISTRY", hive);
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, Open(u"Shared", &key));
    EXPECT_EQ(2 * kWrites + 1, Values(key).size());
    EXPECT_EQ(2 * kWrites, Dword(key, u"count")) << "every transacted increment survives";
    for (const char* role : {"a", "b"}) {
      const std::string name = std::string(role) + "-" + std::to_string(kWrites - 1);
      EXPECT_EQ(kWrites - 1, Dword(key, Utf8ToUtf16(name).c_str()));
    }
  }
}

}  // namespace
}  // namespace mrwl::platform
