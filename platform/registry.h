// The registry, under its Windows names and meanings.
//
// Keys form a tree below three predefined roots; each key has a class text, a last-write time
// and typed values. Key and value names compare without regard to case and keep the case they
// were created with. Results are Windows error numbers (ERROR_SUCCESS, 0, on success); these
// functions do not touch the thread's last error, except the transaction functions, which answer
// BOOL or HANDLE and set it as their Windows namesakes do.
//
// On POSIX the registry is a hive in one SQLite database: MRWL_REGISTRY names the file, else
// $XDG_CONFIG_HOME/marrowline/registry.db (XDG_CONFIG_HOME defaulting to ~/.config). Several
// processes and threads may use one hive at once; every write through a key that is not
// transacted is committed before the call returns. HKEY_CLASSES_ROOT is a root of its own there,
// not a merged view of per-user and machine classes. A file that is not a hive of this system,
// or is damaged, is never replaced: the calls fail with ERROR_BADDB (1009) or
// ERROR_REGISTRY_CORRUPT (1015), and RegHiveProblem() says what was found where.
#pragma once

#include <cstdint>
#include <string>

#include "platform/unique_any.h"
#include "platform/win_types.h"

#if !defined(_WIN32)
struct HKEY__;
using HKEY = HKEY__*;
using REGSAM = DWORD;
using LSTATUS = LONG;

#define HKEY_CLASSES_ROOT (reinterpret_cast<HKEY>(static_cast<std::intptr_t>(LONG(0x80000000))))
#define HKEY_CURRENT_USER (reinterpret_cast<HKEY>(static_cast<std::intptr_t>(LONG(0x80000001))))
#define HKEY_LOCAL_MACHINE (reinterpret_cast<HKEY>(static_cast<std::intptr_t>(LONG(0x80000002))))

// Value types.
#define REG_NONE 0u
#define REG_SZ 1u
#define REG_EXPAND_SZ 2u
#define REG_BINARY 3u
#define REG_DWORD 4u
#define REG_MULTI_SZ 7u
#define REG_QWORD 11u

// Access rights of a key handle.
#define KEY_QUERY_VALUE 0x0001u
#define KEY_SET_VALUE 0x0002u
#define KEY_CREATE_SUB_KEY 0x0004u
#define KEY_ENUMERATE_SUB_KEYS 0x0008u
#define KEY_NOTIFY 0x0010u
#define KEY_CREATE_LINK 0x0020u
#define KEY_WOW64_64KEY 0x0100u
#define KEY_WOW64_32KEY 0x0200u
#define DELETE_ACCESS_RIGHT 0x00010000u
#define READ_CONTROL 0x00020000u
#define KEY_READ 0x00020019u
#define KEY_WRITE 0x00020006u
#define KEY_ALL_ACCESS 0x000F003Fu

// Options and dispositions of RegCreateKeyExW.
#define REG_OPTION_NON_VOLATILE 0x0u
#define REG_OPTION_VOLATILE 0x1u
#define REG_CREATED_NEW_KEY 1u
#define REG_OPENED_EXISTING_KEY 2u

// Registry and transaction errors beside those of win_types.h.
#define ERROR_BADDB 1009L
#define ERROR_BADKEY 1010L
#define ERROR_CANTOPEN 1011L
#define ERROR_CANTREAD 1012L
#define ERROR_CANTWRITE 1013L
#define ERROR_REGISTRY_CORRUPT 1015L
#define ERROR_REGISTRY_IO_FAILED 1016L
#define ERROR_KEY_DELETED 1018L
#define ERROR_TRANSACTION_NOT_ACTIVE 6701L
#define ERROR_TRANSACTION_ALREADY_ABORTED 6704L
#define ERROR_TRANSACTION_ALREADY_COMMITTED 6705L
#define ERROR_TRANSACTIONAL_CONFLICT 6800L
#endif  // !_WIN32

namespace mrwl::platform {

// Opens `subKey` below `key` (a path of names separated by backslashes; null or empty opens `key`
// itself, and a predefined root is then handed back as it is). ERROR_FILE_NOT_FOUND (2) when the
// key does not exist. Any call through a handle whose key was deleted meanwhile gives
// ERROR_KEY_DELETED (1018). A call that needs a right the handle was not opened with gives
// ERROR_ACCESS_DENIED (5): KEY_QUERY_VALUE to read values, KEY_SET_VALUE to write or delete them,
// KEY_ENUMERATE_SUB_KEYS to list subkeys. A key opened relative to a transacted key belongs to
// the same transaction.
LSTATUS RegOpenKeyExW(HKEY key, const char16_t* subKey, DWORD options, REGSAM access,
                      HKEY* result) noexcept;

// Opens `subKey`, creating it and every missing key on its way. `disposition`, when not null,
// receives REG_CREATED_NEW_KEY or REG_OPENED_EXISTING_KEY. Creating needs KEY_CREATE_SUB_KEY on
// `key`; a component longer than 255 characters gives ERROR_INVALID_PARAMETER (87), a path that
// starts with a backslash or has an empty component ERROR_BAD_PATHNAME (161).
LSTATUS RegCreateKeyExW(HKEY key, const char16_t* subKey, DWORD reserved, const char16_t* keyClass,
                        DWORD options, REGSAM access, void* securityAttributes, HKEY* result,
                        DWORD* disposition) noexcept;

// As RegCreateKeyExW, with every read and write through the result, and through keys opened
// below it, belonging to `transaction`: others see them at CommitTransaction, and never after
// RollbackTransaction. On POSIX a transaction holds the write lock of the whole hive from its
// first use to its end: plain writes of other threads and processes wait for it, and a plain
// write of the thread that uses it fails at once with ERROR_TRANSACTIONAL_CONFLICT (6800).
LSTATUS RegCreateKeyTransactedW(HKEY key, const char16_t* subKey, DWORD reserved,
                                const char16_t* keyClass, DWORD options, REGSAM access,
                                void* securityAttributes, HKEY* result, DWORD* disposition,
                                HANDLE transaction, void* extendedParameter) noexcept;

// Closes a key handle; a predefined root is left as it is. ERROR_INVALID_HANDLE (6) for a value
// that is no key.
LSTATUS RegCloseKey(HKEY key) noexcept;

// Reads a value (null or empty `name`: the key's default value). With `data` null and `size` not
// null, only the size is reported. When `*size` is too small, `*size` receives the size needed
// and the result is ERROR_MORE_DATA (234) with nothing copied. ERROR_FILE_NOT_FOUND (2) when
// the value does not exist. Data comes back exactly as it was written: a string value need not
// end in a NUL.
LSTATUS RegQueryValueExW(HKEY key, const char16_t* name, DWORD* reserved, DWORD* type, BYTE* data,
                         DWORD* size) noexcept;

// Writes a value of any type with `size` bytes of `data`, replacing an existing value of that
// name in place (a value keeps its place in the enumeration order; a new one goes last).
LSTATUS RegSetValueExW(HKEY key, const char16_t* name, DWORD reserved, DWORD type, const BYTE* data,
                       DWORD size) noexcept;

// Deletes a value; ERROR_FILE_NOT_FOUND (2) when there is none.
LSTATUS RegDeleteValueW(HKEY key, const char16_t* name) noexcept;

// Deletes `subKey` with everything below it. With a null `subKey` the key itself stays and loses
// all its values and subkeys.
LSTATUS RegDeleteTreeW(HKEY key, const char16_t* subKey) noexcept;

// The subkey at `index` in the order of names compared without regard to case; `*nameLength` is
// the buffer's size in characters on entry and the name's length without terminator on return.
// ERROR_NO_MORE_ITEMS (259) past the end, ERROR_MORE_DATA (234) when the name does not fit.
LSTATUS RegEnumKeyExW(HKEY key, DWORD index, char16_t* name, DWORD* nameLength, DWORD* reserved,
                      char16_t* keyClass, DWORD* classLength, FILETIME* lastWriteTime) noexcept;

// The value at `index` in the order in which the values were first written. `name` and
// `nameLength` as for RegEnumKeyExW; `data` and `size` as for RegQueryValueExW.
LSTATUS RegEnumValueW(HKEY key, DWORD index, char16_t* name, DWORD* nameLength, DWORD* reserved,
                      DWORD* type, BYTE* data, DWORD* size) noexcept;

// Facts of a key: class, number of subkeys and the longest subkey name (characters, without
// terminator), longest class, number of values, longest value name (characters) and value data
// (bytes), size of the security descriptor, and the last-write time. Any pointer may be null.
LSTATUS RegQueryInfoKeyW(HKEY key, char16_t* keyClass, DWORD* classLength, DWORD* reserved,
                         DWORD* subKeys, DWORD* maxSubKeyLength, DWORD* maxClassLength,
                         DWORD* values, DWORD* maxValueNameLength, DWORD* maxValueLength,
                         DWORD* securityDescriptorSize, FILETIME* lastWriteTime) noexcept;

// Renames `subKey` of `key` (null: `key` itself) to `newName`, a single name. The key keeps its
// values, subkeys and open handles. ERROR_ACCESS_DENIED (5) when a sibling of that name exists.
LSTATUS RegRenameKey(HKEY key, const char16_t* subKey, const char16_t* newName) noexcept;

// A registry transaction, released with CloseHandle; closing one that was neither committed nor
// rolled back rolls it back. INVALID_HANDLE_VALUE with the last error on failure. Every argument
// but `timeout` is accepted and ignored.
HANDLE CreateTransaction(void* securityAttributes, void* unitOfWork, DWORD createOptions,
                         DWORD isolationLevel, DWORD isolationFlags, DWORD timeout,
                         char16_t* description) noexcept;
BOOL CommitTransaction(HANDLE transaction) noexcept;
BOOL RollbackTransaction(HANDLE transaction) noexcept;

// The hive file that the next open of a predefined root will use (POSIX; empty on Windows).
[[nodiscard]] std::u16string RegHiveLocation();
// What went wrong with the hive most recently on this thread, naming the file: a text for a
// person, empty when the last registry call found nothing wrong with the hive itself.
[[nodiscard]] std::u16string RegHiveProblem();

}  // namespace mrwl::platform

namespace mrwl {

struct RegKeyTraits {
  using Type = HKEY;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type key) noexcept { (void)platform::RegCloseKey(key); }
};
// An open registry key, closed when the owner goes.
using UniqueRegKey = UniqueAny<RegKeyTraits>;

}  // namespace mrwl
