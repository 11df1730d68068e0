#include "platform/registry.h"

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/utf.h"
#include "testing/temp_folder.h"

extern char** environ;

namespace mrwl::platform {
namespace {

using mrwl::testing::ScopedEnv;
using mrwl::testing::TempFolder;

ULONGLONG Stamp(const FILETIME& t) {
  return (static_cast<ULONGLONG>(t.dwHighDateTime) << 32) | t.dwLowDateTime;
}

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Each test works on a hive file of its own.
class RegistryTest : public ::testing::Test {
 protected:
  RegistryTest() : hive_("MRWL_REGISTRY", folder_.PathOf("registry.db")) {}
  ~RegistryTest() override {
    for (HKEY key : open_) RegCloseKey(key);
  }

  // Opens or creates `path` below HKEY_CURRENT_USER with full access; the fixture closes it.
  HKEY Create(const char16_t* path, DWORD* disposition = nullptr) {
    HKEY key = nullptr;
    EXPECT_EQ(ERROR_SUCCESS, RegCreateKeyExW(HKEY_CURRENT_USER, path, 0, nullptr, 0, KEY_ALL_ACCESS,
                                             nullptr, &key, disposition));
    open_.push_back(key);
    return key;
  }
  LSTATUS Open(const char16_t* path, HKEY* key, REGSAM access = KEY_ALL_ACCESS) {
    const LSTATUS rc = RegOpenKeyExW(HKEY_CURRENT_USER, path, 0, access, key);
    if (rc == ERROR_SUCCESS) open_.push_back(*key);
    return rc;
  }
  void SetDword(HKEY key, const char16_t* name, DWORD value) {
    ASSERT_EQ(ERROR_SUCCESS,
              RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), 4));
  }
  LSTATUS GetDword(HKEY key, const char16_t* name, DWORD& value) {
    DWORD type = 0;
    DWORD size = sizeof value;
    const LSTATUS rc =
        RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(&value), &size);
    if (rc == ERROR_SUCCESS) {
      EXPECT_EQ(REG_DWORD, type);
    }
    return rc;
  }
  ULONGLONG LastWrite(HKEY key) {
    FILETIME t{};
    EXPECT_EQ(ERROR_SUCCESS, RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, nullptr, nullptr,
                                              nullptr, nullptr, nullptr, nullptr, nullptr, &t));
    return Stamp(t);
  }
  std::vector<std::u16string> SubKeys(HKEY key) {
    return Names([key](DWORD i, char16_t* name, DWORD* length) {
      return RegEnumKeyExW(key, i, name, length, nullptr, nullptr, nullptr, nullptr);
    });
  }
  std::vector<std::u16string> Values(HKEY key) {
    return Names([key](DWORD i, char16_t* name, DWORD* length) {
      return RegEnumValueW(key, i, name, length, nullptr, nullptr, nullptr, nullptr);
    });
  }
  // The names that `enumerate` gives for the indexes 0, 1, ... up to ERROR_NO_MORE_ITEMS.
  template <typename Enumerate>
  std::vector<std::u16string> Names(Enumerate enumerate) {
    std::vector<std::u16string> names;
    char16_t name[256];
    for (DWORD i = 0;; ++i) {
      DWORD length = 256;
      const LSTATUS rc = enumerate(i, name, &length);
      if (rc == ERROR_NO_MORE_ITEMS) break;
      EXPECT_EQ(ERROR_SUCCESS, rc);
      if (rc != ERROR_SUCCESS) break;
      names.emplace_back(name, length);
    }
    return names;
  }

  TempFolder folder_;
  ScopedEnv hive_;
  std::vector<HKEY> open_;
};

TEST_F(RegistryTest, CreateReportsDispositionAndOpenFindsTheKeyInAnyCase) {
  DWORD disposition = 0;
  Create(u"Software\\Brindlemoor\\Test", &disposition);
  EXPECT_EQ(REG_CREATED_NEW_KEY, disposition);
  Create(u"SOFTWARE\\brindlemoor\\TEST\\", &disposition);
  EXPECT_EQ(REG_OPENED_EXISTING_KEY, disposition);

  HKEY key = nullptr;
  EXPECT_EQ(ERROR_SUCCESS, Open(u"software\\BRINDLEMOOR", &key));
  EXPECT_EQ(std::vector<std::u16string>{u"Test"}, SubKeys(key)) << "case as first created";
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, Open(u"Software\\Nowhere", &key));

  HKEY root = nullptr;
  EXPECT_EQ(ERROR_SUCCESS, RegOpenKeyExW(HKEY_CURRENT_USER, nullptr, 0, KEY_READ, &root));
  EXPECT_EQ(HKEY_CURRENT_USER, root) << "a root opens as itself";
}

TEST_F(RegistryTest, MalformedPathsAreRefusedAndOddNamesSurvive) {
  HKEY key = nullptr;
  EXPECT_EQ(ERROR_BAD_PATHNAME, RegCreateKeyExW(HKEY_CURRENT_USER, u"\\Lead", 0, nullptr, 0,
                                                KEY_ALL_ACCESS, nullptr, &key, nullptr));
  EXPECT_EQ(ERROR_BAD_PATHNAME, RegCreateKeyExW(HKEY_CURRENT_USER, u"A\\\\B", 0, nullptr, 0,
                                                KEY_ALL_ACCESS, nullptr, &key, nullptr));
  const std::u16string longName(256, u'x');
  EXPECT_EQ(ERROR_INVALID_PARAMETER,
            RegCreateKeyExW(HKEY_CURRENT_USER, longName.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS,
                            nullptr, &key, nullptr));
  // Anything but the backslash is a name character, an unpaired surrogate included.
  const std::u16string odd = u"a/b*c?\u00E9\xD800 \"q\"";
  HKEY parent = Create(u"Odd");
  HKEY child = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(parent, odd.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS,
                                           nullptr, &child, nullptr));
  RegCloseKey(child);
  EXPECT_EQ(std::vector<std::u16string>{odd}, SubKeys(parent));
}

TEST_F(RegistryTest, SubkeysEnumerateWithoutRegardToCase) {
  HKEY key = Create(u"Order");
  for (const char16_t* name : {u"delta", u"Bravo", u"alpha", u"Charlie", u"\u00E9clair", u"Echo"}) {
    HKEY child = nullptr;
    ASSERT_EQ(ERROR_SUCCESS,
              RegCreateKeyExW(key, name, 0, nullptr, 0, KEY_READ, nullptr, &child, nullptr));
    RegCloseKey(child);
  }
  EXPECT_EQ((std::vector<std::u16string>{u"alpha", u"Bravo", u"Charlie", u"delta", u"Echo",
                                         u"\u00E9clair"}),
            SubKeys(key));
  char16_t small[3];
  DWORD length = 3;
  EXPECT_EQ(ERROR_MORE_DATA,
            RegEnumKeyExW(key, 0, small, &length, nullptr, nullptr, nullptr, nullptr));
}

TEST_F(RegistryTest, ValuesRoundTripWithTypeAndSize) {
  HKEY key = Create(u"Values");
  const std::u16string text = u"hello";
  ASSERT_EQ(ERROR_SUCCESS, RegSetValueExW(key, u"Text", 0, REG_SZ,
                                          reinterpret_cast<const BYTE*>(text.c_str()), 12));
  const ULONGLONG big = 0x0123456789ABCDEFull;
  ASSERT_EQ(ERROR_SUCCESS,
            RegSetValueExW(key, u"Big", 0, REG_QWORD, reinterpret_cast<const BYTE*>(&big), 8));
  ASSERT_EQ(ERROR_SUCCESS, RegSetValueExW(key, u"Empty", 0, REG_BINARY, nullptr, 0));

  DWORD type = 0;
  DWORD size = 0;
  EXPECT_EQ(ERROR_SUCCESS, RegQueryValueExW(key, u"TEXT", nullptr, &type, nullptr, &size));
  EXPECT_EQ(REG_SZ, type);
  EXPECT_EQ(12u, size);
  char16_t small[3];
  size = sizeof small;
  EXPECT_EQ(ERROR_MORE_DATA,
            RegQueryValueExW(key, u"Text", nullptr, &type, reinterpret_cast<BYTE*>(small), &size));
  EXPECT_EQ(12u, size) << "the size needed";
  char16_t buffer[16] = {};
  size = sizeof buffer;
  ASSERT_EQ(ERROR_SUCCESS,
            RegQueryValueExW(key, u"Text", nullptr, &type, reinterpret_cast<BYTE*>(buffer), &size));
  EXPECT_EQ(text, std::u16string(buffer));

  ULONGLONG back = 0;
  size = sizeof back;
  ASSERT_EQ(ERROR_SUCCESS,
            RegQueryValueExW(key, u"big", nullptr, &type, reinterpret_cast<BYTE*>(&back), &size));
  EXPECT_EQ(REG_QWORD, type);
  EXPECT_EQ(big, back);

  size = 4;
  EXPECT_EQ(ERROR_SUCCESS,
            RegQueryValueExW(key, u"Empty", nullptr, &type, reinterpret_cast<BYTE*>(&back), &size));
  EXPECT_EQ(0u, size);
  EXPECT_EQ(ERROR_FILE_NOT_FOUND,
            RegQueryValueExW(key, u"Missing", nullptr, &type, nullptr, &size));
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, RegDeleteValueW(key, u"Missing"));

  // The default value has the empty name, null and "" alike.
  SetDword(key, nullptr, 7);
  DWORD value = 0;
  EXPECT_EQ(ERROR_SUCCESS, GetDword(key, u"", value));
  EXPECT_EQ(7u, value);
}

TEST_F(RegistryTest, ValuesEnumerateInTheOrderOfTheirFirstWrite) {
  HKEY key = Create(u"Sequence");
  SetDword(key, u"zulu", 1);
  SetDword(key, u"Alpha", 2);
  SetDword(key, u"mike", 3);
  SetDword(key, u"ZULU", 4);  // overwrites in place, keeps its name and place
  EXPECT_EQ((std::vector<std::u16string>{u"zulu", u"Alpha", u"mike"}), Values(key));
  ASSERT_EQ(ERROR_SUCCESS, RegDeleteValueW(key, u"alpha"));
  SetDword(key, u"Alpha", 5);  // a new value again, so it goes last
  EXPECT_EQ((std::vector<std::u16string>{u"zulu", u"mike", u"Alpha"}), Values(key));
  DWORD value = 0;
  EXPECT_EQ(ERROR_SUCCESS, GetDword(key, u"Zulu", value));
  EXPECT_EQ(4u, value);
}

// Walking by index continues behind the last entry while nothing changes; any change, by this
// connection or another one, makes the index count from the start again, as Windows counts.
TEST_F(RegistryTest, EnumerationByIndexSeesChangesMadeMeanwhile) {
  HKEY key = Create(u"Walk");
  for (const char16_t* name : {u"v0", u"v1", u"v2", u"v3", u"v4"}) SetDword(key, name, 0);
  for (const char16_t* name : {u"k0", u"k1", u"k2", u"k3"})
    Create((u"Walk\\" + std::u16string(name)).c_str());
  const auto valueAt = [&](DWORD index) {
    char16_t name[16];
    DWORD length = 16;
    const LSTATUS rc = RegEnumValueW(key, index, name, &length, nullptr, nullptr, nullptr, nullptr);
    return rc == ERROR_SUCCESS ? std::u16string(name) : u"error";
  };
  const auto keyAt = [&](DWORD index) {
    char16_t name[16];
    DWORD length = 16;
    const LSTATUS rc = RegEnumKeyExW(key, index, name, &length, nullptr, nullptr, nullptr, nullptr);
    return rc == ERROR_SUCCESS ? std::u16string(name) : u"error";
  };
  EXPECT_EQ(u"v0", valueAt(0));
  EXPECT_EQ(u"v1", valueAt(1));
  EXPECT_EQ(u"v1", valueAt(1)) << "asking again gives the same entry";
  ASSERT_EQ(ERROR_SUCCESS, RegDeleteValueW(key, u"v0"));
  EXPECT_EQ(u"v3", valueAt(2)) << "index 2 of what is there now";
  EXPECT_EQ(u"v4", valueAt(3));

  EXPECT_EQ(u"k0", keyAt(0));
  EXPECT_EQ(u"k1", keyAt(1));
  // A commit of another connection: a transaction has one of its own.
  HANDLE txn = CreateTransaction(nullptr, nullptr, 0, 0, 0, INFINITE, nullptr);
  HKEY other = nullptr;
  ASSERT_EQ(ERROR_SUCCESS,
            RegCreateKeyTransactedW(HKEY_CURRENT_USER, u"Walk", 0, nullptr, 0, KEY_ALL_ACCESS,
                                    nullptr, &other, nullptr, txn, nullptr));
  ASSERT_EQ(ERROR_SUCCESS, RegDeleteTreeW(other, u"k0"));
  RegCloseKey(other);
  ASSERT_TRUE(CommitTransaction(txn));
  CloseHandle(txn);
  EXPECT_EQ(u"k3", keyAt(2));
  EXPECT_EQ(u"error", keyAt(3));
}

TEST_F(RegistryTest, QueryInfoCountsAndMeasures) {
  HKEY key = Create(u"Info");
  HKEY child = nullptr;
  ASSERT_EQ(ERROR_SUCCESS,
            RegCreateKeyExW(key, u"LongerName", 0, u"Cls", 0, KEY_READ, nullptr, &child, nullptr));
  RegCloseKey(child);
  ASSERT_EQ(ERROR_SUCCESS,
            RegCreateKeyExW(key, u"S", 0, nullptr, 0, KEY_READ, nullptr, &child, nullptr));
  RegCloseKey(child);
  SetDword(key, u"abc", 1);
  const BYTE blob[40] = {};
  ASSERT_EQ(ERROR_SUCCESS, RegSetValueExW(key, u"x", 0, REG_BINARY, blob, sizeof blob));

  DWORD subKeys = 0, maxSubKey = 0, maxClass = 0, values = 0, maxName = 0, maxData = 0;
  ASSERT_EQ(ERROR_SUCCESS,
            RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &subKeys, &maxSubKey, &maxClass,
                             &values, &maxName, &maxData, nullptr, nullptr));
  EXPECT_EQ(2u, subKeys);
  EXPECT_EQ(10u, maxSubKey);
  EXPECT_EQ(3u, maxClass);
  EXPECT_EQ(2u, values);
  EXPECT_EQ(3u, maxName);
  EXPECT_EQ(40u, maxData);
}

TEST_F(RegistryTest, EveryWriteMovesTheLastWriteTimeForward) {
  HKEY key = Create(u"Clock");
  HKEY parent = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, Open(u"", &parent));
  ULONGLONG last = LastWrite(key);
  const auto expectMoved = [&](const char* what) {
    const ULONGLONG now = LastWrite(key);
    EXPECT_GT(now, last) << what;
    last = now;
  };
  // Many writes fall into one tick of the system clock; each must still be later.
  for (int i = 0; i < 20; ++i) {
    SetDword(key, u"v", static_cast<DWORD>(i));
    expectMoved("set");
  }
  ASSERT_EQ(ERROR_SUCCESS, RegDeleteValueW(key, u"v"));
  expectMoved("delete value");
  HKEY child = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(key, u"Child", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                                           &child, nullptr));
  expectMoved("create subkey");
  SetDword(child, u"inner", 1);
  EXPECT_EQ(last, LastWrite(key)) << "a write below a subkey is not a write of the key";
  RegCloseKey(child);
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
  EXPECT_EQ(std::u16string(u"Clock"), std::u16string(name));
  EXPECT_EQ(last, Stamp(listed));
}

TEST_F(RegistryTest, DeleteTreeRemovesEverythingBelowAndStaleHandlesSayDeleted) {
  HKEY top = Create(u"Tree");
  HKEY deep = Create(u"Tree\\A\\B\\C");
  SetDword(deep, u"v", 1);
  SetDword(top, u"keep", 1);

  ASSERT_EQ(ERROR_SUCCESS, RegDeleteTreeW(top, u"A"));
  EXPECT_TRUE(SubKeys(top).empty());
  DWORD value = 0;
  EXPECT_EQ(ERROR_KEY_DELETED, GetDword(deep, u"v", value));
  EXPECT_EQ(ERROR_KEY_DELETED,
            RegSetValueExW(deep, u"v", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), 4));
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, RegDeleteTreeW(top, u"A"));

  // With no subkey the key stays and loses its content.
  Create(u"Tree\\X\\Y");
  ASSERT_EQ(ERROR_SUCCESS, RegDeleteTreeW(top, nullptr));
  EXPECT_TRUE(SubKeys(top).empty());
  EXPECT_TRUE(Values(top).empty());
  SetDword(top, u"after", 2);
  EXPECT_EQ(ERROR_SUCCESS, GetDword(top, u"after", value));
}

TEST_F(RegistryTest, RenameKeepsContentAndOpenHandles) {
  HKEY key = Create(u"Ren\\Old");
  SetDword(key, u"v", 9);
  Create(u"Ren\\Taken");
  HKEY parent = Create(u"Ren");
  EXPECT_EQ(ERROR_ACCESS_DENIED, RegRenameKey(parent, u"Old", u"TAKEN"));
  EXPECT_EQ(ERROR_INVALID_PARAMETER, RegRenameKey(parent, u"Old", u"a\\b"));
  ASSERT_EQ(ERROR_SUCCESS, RegRenameKey(key, nullptr, u"New"));
  EXPECT_EQ((std::vector<std::u16string>{u"New", u"Taken"}), SubKeys(parent));
  DWORD value = 0;
  EXPECT_EQ(ERROR_SUCCESS, GetDword(key, u"v", value)) << "the handle follows the key";
  HKEY reopened = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, Open(u"Ren\\new", &reopened));
  EXPECT_EQ(ERROR_SUCCESS, GetDword(reopened, u"v", value));
  EXPECT_EQ(9u, value);
}

TEST_F(RegistryTest, HandlesOnlyDoWhatTheirRightsAllow) {
  Create(u"Rights\\Sub");
  HKEY reader = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, Open(u"Rights", &reader, KEY_READ));
  DWORD one = 1;
  EXPECT_EQ(ERROR_ACCESS_DENIED,
            RegSetValueExW(reader, u"v", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&one), 4));
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
  DWORD value = 0;
  EXPECT_EQ(ERROR_ACCESS_DENIED, GetDword(writer, u"v", value));
  EXPECT_EQ(ERROR_INVALID_HANDLE, RegCloseKey(reinterpret_cast<HKEY>(&value)));
}

// ---------------------------------------------------------------------------------------------
// Transactions.

TEST_F(RegistryTest, TransactedWritesAppearAtCommitAndVanishAtRollback) {
  HKEY plain = Create(u"Txn");
  for (const bool commit : {true, false}) {
    SCOPED_TRACE(commit ? "commit" : "rollback");
    HANDLE txn = CreateTransaction(nullptr, nullptr, 0, 0, 0, INFINITE, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, txn);
    HKEY key = nullptr;
    DWORD disposition = 0;
    ASSERT_EQ(ERROR_SUCCESS,
              RegCreateKeyTransactedW(HKEY_CURRENT_USER, u"Txn\\Inner", 0, nullptr, 0,
                                      KEY_ALL_ACCESS, nullptr, &key, &disposition, txn, nullptr));
    EXPECT_EQ(REG_CREATED_NEW_KEY, disposition);
    SetDword(key, u"v", 42);
    DWORD value = 0;
    EXPECT_EQ(ERROR_SUCCESS, GetDword(key, u"v", value)) << "the transaction sees its own write";

    HKEY outside = nullptr;
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, Open(u"Txn\\Inner", &outside)) << "others do not, yet";
    EXPECT_TRUE(SubKeys(plain).empty());

    ASSERT_TRUE(commit ? CommitTransaction(txn) : RollbackTransaction(txn));
    EXPECT_FALSE(CommitTransaction(txn));
    EXPECT_EQ(commit ? ERROR_TRANSACTION_ALREADY_COMMITTED : ERROR_TRANSACTION_ALREADY_ABORTED,
              GetLastError());
    EXPECT_EQ(ERROR_TRANSACTION_NOT_ACTIVE, GetDword(key, u"v", value));
    RegCloseKey(key);
    EXPECT_TRUE(CloseHandle(txn));

    if (commit) {
      ASSERT_EQ(ERROR_SUCCESS, Open(u"Txn\\Inner", &outside));
      EXPECT_EQ(ERROR_SUCCESS, GetDword(outside, u"v", value));
      EXPECT_EQ(42u, value);
      ASSERT_EQ(ERROR_SUCCESS, RegDeleteTreeW(plain, u"Inner"));
    } else {
      EXPECT_EQ(ERROR_FILE_NOT_FOUND, Open(u"Txn\\Inner", &outside));
    }
  }
}

TEST_F(RegistryTest, ClosingAnOpenTransactionRollsItBack) {
  HANDLE txn = CreateTransaction(nullptr, nullptr, 0, 0, 0, INFINITE, nullptr);
  HKEY key = nullptr;
  ASSERT_EQ(ERROR_SUCCESS,
            RegCreateKeyTransactedW(HKEY_CURRENT_USER, u"Lost", 0, nullptr, 0, KEY_ALL_ACCESS,
                                    nullptr, &key, nullptr, txn, nullptr));
  SetDword(key, u"v", 1);
  ASSERT_TRUE(CloseHandle(txn));
  EXPECT_EQ(ERROR_TRANSACTION_NOT_ACTIVE, RegSetValueExW(key, u"v", 0, REG_NONE, nullptr, 0));
  RegCloseKey(key);
  HKEY outside = nullptr;
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, Open(u"Lost", &outside));
  // An empty transaction commits without complaint.
  txn = CreateTransaction(nullptr, nullptr, 0, 0, 0, INFINITE, nullptr);
  EXPECT_TRUE(CommitTransaction(txn));
  EXPECT_TRUE(CloseHandle(txn));
}

// A transaction holds the hive's write lock until it ends, so a plain write of the same thread
// could only wait for itself; it is refused at once, and works again after the commit.
TEST_F(RegistryTest, PlainWriteBesideOwnOpenTransactionIsAConflict) {
  HKEY plain = Create(u"Beside");
  HANDLE txn = CreateTransaction(nullptr, nullptr, 0, 0, 0, INFINITE, nullptr);
  HKEY key = nullptr;
  ASSERT_EQ(ERROR_SUCCESS,
            RegCreateKeyTransactedW(HKEY_CURRENT_USER, u"Beside", 0, nullptr, 0, KEY_ALL_ACCESS,
                                    nullptr, &key, nullptr, txn, nullptr));
  SetDword(key, u"inside", 1);
  DWORD one = 1;
  EXPECT_EQ(ERROR_TRANSACTIONAL_CONFLICT, RegSetValueExW(plain, u"outside", 0, REG_DWORD,
                                                         reinterpret_cast<const BYTE*>(&one), 4));
  DWORD value = 0;
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, GetDword(plain, u"inside", value)) << "reads never wait";
  ASSERT_TRUE(CommitTransaction(txn));
  RegCloseKey(key);
  CloseHandle(txn);
  SetDword(plain, u"outside", 2);
  EXPECT_EQ(ERROR_SUCCESS, GetDword(plain, u"inside", value));
}

// ---------------------------------------------------------------------------------------------
// The hive file.

TEST_F(RegistryTest, DamagedOrForeignFilesAreReportedAndLeftAlone) {
  struct Case {
    const char* name;
    std::string (*make)(const std::string& path);
  };
  const Case cases[] = {
      {"garbage",
       [](const std::string& path) {
         std::string bytes(8192, '\0');
         for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7 + 3);
         std::ofstream(path, std::ios::binary) << bytes;
         return bytes;
       }},
      {"foreign database",
       [](const std::string& path) {
         sqlite3* db = nullptr;
         sqlite3_open(path.c_str(), &db);
         sqlite3_exec(db, "CREATE TABLE t(x); INSERT INTO t VALUES(1);", nullptr, nullptr, nullptr);
         sqlite3_close(db);
         return ReadAll(path);
       }},
      {"damaged hive",
       [](const std::string& path) {
         sqlite3* db = nullptr;
         sqlite3_open(path.c_str(), &db);
         sqlite3_exec(db, "PRAGMA application_id=1297241932; CREATE TABLE keys(x);", nullptr,
                      nullptr, nullptr);
         sqlite3_close(db);
         std::string bytes = ReadAll(path);
         // Scribble over the schema page behind the header.
         for (std::size_t i = 100; i < bytes.size(); ++i) bytes[i] = static_cast<char>(0xA5);
         std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
         return bytes;
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = folder_.PathOf(std::string(c.name) + ".db");
    const std::string before = c.make(path);
    ScopedEnv hive("MRWL_REGISTRY", path);
    HKEY key = nullptr;
    const LSTATUS rc = RegCreateKeyExW(HKEY_CURRENT_USER, u"Software", 0, nullptr, 0,
                                       KEY_ALL_ACCESS, nullptr, &key, nullptr);
    EXPECT_TRUE(rc == ERROR_BADDB || rc == ERROR_REGISTRY_CORRUPT) << rc;
    const std::string problem = Utf16ToUtf8(RegHiveProblem());
    EXPECT_NE(std::string::npos, problem.find(path)) << problem;
    EXPECT_NE(std::string::npos, problem.find("left as it is")) << problem;
    EXPECT_TRUE(before == ReadAll(path)) << "the file must not change";
  }
}

TEST_F(RegistryTest, AnEmptyFileBecomesAHiveAndTheDefaultLocationFollowsXdg) {
  const std::string path = folder_.PathOf("empty.db");
  std::ofstream(path).close();
  {
    ScopedEnv hive("MRWL_REGISTRY", path);
    HKEY key = Create(u"Fresh");
    SetDword(key, u"v", 1);
    EXPECT_TRUE(RegHiveProblem().empty());
  }
  ScopedEnv noHive("MRWL_REGISTRY");
  noHive.Unset();
  ScopedEnv xdg("XDG_CONFIG_HOME", folder_.PathOf("config"));
  EXPECT_EQ(folder_.PathOf("config") + "/marrowline/registry.db", Utf16ToUtf8(RegHiveLocation()));
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

constexpr int kWrites = 150;

int SpawnWriter(const std::string& role, const std::string& hive) {
  const std::string self = "/proc/self/exe";
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) {
    if (std::strncmp(*e, "MRWL_REGISTRY=", 14) != 0) env.emplace_back(*e);
  }
  env.push_back("MRWL_REGISTRY=" + hive);
  env.push_back("MRWL_WRITER_ROLE=" + role);
  std::vector<char*> envp;
  for (std::string& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  std::string filter = "--gtest_filter=RegistryChild.DISABLED_Writer";
  std::string disabled = "--gtest_also_run_disabled_tests";
  char* argv[] = {const_cast<char*>(self.c_str()), filter.data(), disabled.data(), nullptr};
  pid_t pid = 0;
  if (posix_spawn(&pid, self.c_str(), nullptr, nullptr, argv, envp.data()) != 0) return -1;
  return pid;
}

TEST(RegistryChild, DISABLED_Writer) {
  const char* role = std::getenv("MRWL_WRITER_ROLE");
  ASSERT_NE(nullptr, role);
  HKEY key = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(HKEY_CURRENT_USER, u"Shared", 0, nullptr, 0,
                                           KEY_ALL_ACCESS, nullptr, &key, nullptr))
      << Utf16ToUtf8(RegHiveProblem());
  const int writes = std::strcmp(role, "opener") == 0 ? 0 : kWrites;
  for (int i = 0; i < writes; ++i) {
    // A value of its own, and a counter that both raise inside a transaction.
    const std::u16string name = Utf8ToUtf16(std::string(role) + "-" + std::to_string(i));
    const DWORD data = static_cast<DWORD>(i);
    ASSERT_EQ(ERROR_SUCCESS, RegSetValueExW(key, name.c_str(), 0, REG_DWORD,
                                            reinterpret_cast<const BYTE*>(&data), 4));
    HANDLE txn = CreateTransaction(nullptr, nullptr, 0, 0, 0, INFINITE, nullptr);
    HKEY counter = nullptr;
    ASSERT_EQ(ERROR_SUCCESS,
              RegCreateKeyTransactedW(HKEY_CURRENT_USER, u"Shared", 0, nullptr, 0, KEY_ALL_ACCESS,
                                      nullptr, &counter, nullptr, txn, nullptr));
    DWORD count = 0;
    DWORD size = 4;
    (void)RegQueryValueExW(counter, u"count", nullptr, nullptr, reinterpret_cast<BYTE*>(&count),
                           &size);  // missing at first: counts from zero
    ++count;
    ASSERT_EQ(ERROR_SUCCESS, RegSetValueExW(counter, u"count", 0, REG_DWORD,
                                            reinterpret_cast<const BYTE*>(&count), 4));
    RegCloseKey(counter);
    ASSERT_TRUE(CommitTransaction(txn));
    CloseHandle(txn);
  }
  RegCloseKey(key);
}

// Processes that find no hive yet all make it at once; each must end up with the one hive.
TEST_F(RegistryTest, ProcessesMakingOneFreshHiveAtOnceAllSucceed) {
  for (int round = 0; round < 5; ++round) {
    SCOPED_TRACE(round);
    const std::string hive = folder_.PathOf("fresh" + std::to_string(round) + ".db");
    std::vector<int> pids;
    for (int i = 0; i < 4; ++i) pids.push_back(SpawnWriter("opener", hive));
    for (const int pid : pids) {
      ASSERT_GT(pid, 0);
      int status = 0;
      ASSERT_EQ(pid, waitpid(pid, &status, 0));
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "opener failed: " << status;
    }
  }
}

TEST_F(RegistryTest, TwoProcessesWritingOneKeyLoseNothing) {
  const std::string hive = folder_.PathOf("shared.db");
  const int first = SpawnWriter("a", hive);
  const int second = SpawnWriter("b", hive);
  ASSERT_GT(first, 0);
  ASSERT_GT(second, 0);
  for (const int pid : {first, second}) {
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "writer failed: " << status;
  }
  ScopedEnv use("MRWL_REGISTRY", hive);
  HKEY key = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, Open(u"Shared", &key));
  DWORD values = 0;
  ASSERT_EQ(ERROR_SUCCESS, RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, nullptr, nullptr,
                                            nullptr, &values, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(2u * kWrites + 1, values);
  DWORD count = 0;
  EXPECT_EQ(ERROR_SUCCESS, GetDword(key, u"count", count));
  EXPECT_EQ(2u * kWrites, count) << "every transacted increment survives";
  for (const char* role : {"a", "b"}) {
    DWORD last = 0;
    const std::u16string name = Utf8ToUtf16(std::string(role) + "-" + std::to_string(kWrites - 1));
    EXPECT_EQ(ERROR_SUCCESS, GetDword(key, name.c_str(), last));
    EXPECT_EQ(static_cast<DWORD>(kWrites - 1), last);
  }
}

}  // namespace
}  // namespace mrwl::platform
