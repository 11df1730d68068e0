// Files, folders and events of the operating system, under their Windows names and meanings.
//
// The functions behave as their Windows namesakes, with char16_t paths. On POSIX a path uses "/"
// as its separator (PathSeparator() tells the logic which one to use); a HANDLE returned here is
// an object of the backend, released with CloseHandle, never a raw descriptor. Handles may be used
// from any thread; one handle is not for simultaneous positioned transfers that share an
// OVERLAPPED record.
#pragma once

#include <cstdio>

#include "platform/win_types.h"

namespace mrwl::platform {

// A directory entry as FindFirstFileW gives it: the layout of WIN32_FIND_DATAW with UTF-16 text.
struct FindDataW {
  DWORD dwFileAttributes;
  FILETIME ftCreationTime;
  FILETIME ftLastAccessTime;
  FILETIME ftLastWriteTime;
  DWORD nFileSizeHigh;
  DWORD nFileSizeLow;
  DWORD dwReserved0;
  DWORD dwReserved1;
  char16_t cFileName[MAX_PATH];
  char16_t cAlternateFileName[14];
};

// The path separator of this system: '\\' on Windows, '/' on POSIX.
[[nodiscard]] constexpr char16_t PathSeparator() noexcept {
#if defined(_WIN32)
  return u'\\';
#else
  return u'/';
#endif
}

// Opens or creates a file. `access` is GENERIC_READ and/or GENERIC_WRITE; `share` the
// FILE_SHARE_* bits, enforced on POSIX between handles of this process (a conflicting open fails
// with ERROR_SHARING_VIOLATION); `disposition` one of CREATE_NEW .. TRUNCATE_EXISTING; `flags`
// FILE_ATTRIBUTE_* and FILE_FLAG_DELETE_ON_CLOSE. Files are created with mode 0600 on POSIX.
// Returns INVALID_HANDLE_VALUE with the last error on failure. CREATE_ALWAYS and OPEN_ALWAYS on
// an existing file succeed with the last error ERROR_ALREADY_EXISTS.
HANDLE CreateFileW(const char16_t* path, DWORD access, DWORD share, DWORD disposition,
                   DWORD flags) noexcept;
BOOL CloseHandle(HANDLE handle) noexcept;

// Positioned transfers. With `overlapped` the transfer happens at its Offset/OffsetHigh and does
// not move the handle's own position; without, at and past the handle's position. A read at or
// beyond the end succeeds with 0 bytes. The transfer completes before the call returns.
BOOL ReadFile(HANDLE file, void* buffer, DWORD count, DWORD* done, OVERLAPPED* overlapped) noexcept;
BOOL WriteFile(HANDLE file, const void* buffer, DWORD count, DWORD* done,
               OVERLAPPED* overlapped) noexcept;
// The result of a transfer that answered ERROR_IO_PENDING.
BOOL GetOverlappedResult(HANDLE file, OVERLAPPED* overlapped, DWORD* done, BOOL wait) noexcept;

BOOL SetFilePointerEx(HANDLE file, LARGE_INTEGER distance, LARGE_INTEGER* newPosition,
                      DWORD origin) noexcept;
BOOL SetEndOfFile(HANDLE file) noexcept;
BOOL FlushFileBuffers(HANDLE file) noexcept;
BOOL GetFileSizeEx(HANDLE file, LARGE_INTEGER* size) noexcept;
BOOL GetFileTime(HANDLE file, FILETIME* creation, FILETIME* lastAccess,
                 FILETIME* lastWrite) noexcept;
// Volume serial (device number on POSIX) and file index (inode) among the rest.
BOOL GetFileInformationByHandle(HANDLE file, BY_HANDLE_FILE_INFORMATION* info) noexcept;

// A manual- or auto-reset event for OVERLAPPED records. Released with CloseHandle.
HANDLE CreateEventW(BOOL manualReset, BOOL initialState) noexcept;

BOOL MoveFileExW(const char16_t* from, const char16_t* to, DWORD flags) noexcept;
BOOL DeleteFileW(const char16_t* path) noexcept;
BOOL CreateDirectoryW(const char16_t* path) noexcept;
BOOL RemoveDirectoryW(const char16_t* path) noexcept;
// Attributes of a file or folder; a symbolic link has FILE_ATTRIBUTE_REPARSE_POINT beside the
// attributes of its target, as Windows reports links and junctions. INVALID_FILE_ATTRIBUTES with the last error on failure. On
// POSIX FILE_ATTRIBUTE_READONLY reflects a missing owner write bit, which SetFileAttributesW sets
// or clears; the other bits are accepted and ignored.
DWORD GetFileAttributesW(const char16_t* path) noexcept;
BOOL SetFileAttributesW(const char16_t* path, DWORD attributes) noexcept;

// Makes `path` readable and writable by its owner alone (POSIX mode 0600 for a file, 0700 for a
// folder), and with `recursive` everything below a folder too, without following symbolic links.
// Windows gives the files in the user's temporary folder that folder's private rights already,
// so there it only checks that the path exists. FALSE with the last error on failure.
BOOL RestrictToOwner(const char16_t* path, BOOL recursive) noexcept;

// Opens `path` with the C runtime's buffered file functions, `mode` as for fopen. Null with errno
// (and the last error) set on failure. Closed with fclose.
[[nodiscard]] std::FILE* OpenStdioFile(const char16_t* path, const char* mode) noexcept;

// Named shared memory. CreateFileMappingW with `file` INVALID_HANDLE_VALUE makes a block of
// sizeHigh:sizeLow bytes, zero-filled, under `name` (null: unnamed); `protect` is PAGE_READONLY
// or PAGE_READWRITE, `attributes` may be null. An existing name is opened instead, with the last
// error ERROR_ALREADY_EXISTS. On POSIX only the paging-file form is offered, a name is a shm_open
// object of mode 0600 and lives while a handle of this process holds it. Null with the last error
// on failure. Released with CloseHandle.
HANDLE CreateFileMappingW(HANDLE file, const SECURITY_ATTRIBUTES* attributes, DWORD protect,
                          DWORD sizeHigh, DWORD sizeLow, const char16_t* name) noexcept;
// Opens the named shared memory `name` that another handle created, for `access` FILE_MAP_READ
// and/or FILE_MAP_WRITE; `inherit` is ignored on POSIX. Null with ERROR_FILE_NOT_FOUND when no
// such name exists, or with the last error on failure. Released with CloseHandle; on POSIX the
// handle counts as a hold on the name as the creator's does.
HANDLE OpenFileMappingW(DWORD access, BOOL inherit, const char16_t* name) noexcept;
// Maps `size` bytes of a mapping from the offset (0 maps everything from it); `access` is
// FILE_MAP_READ and/or FILE_MAP_WRITE. The view outlives the mapping's handle until
// UnmapViewOfFile. Null with the last error on failure.
void* MapViewOfFile(HANDLE mapping, DWORD access, DWORD offsetHigh, DWORD offsetLow,
                    SIZE_T size) noexcept;
// Ends a view that MapViewOfFile returned; FALSE with ERROR_INVALID_ADDRESS for any other address.
BOOL UnmapViewOfFile(const void* view) noexcept;

// Directory listing. `pattern` is a folder followed by a name pattern with "*" and "?"; a pattern
// without wildcards finds that one entry. FindFirstFileW returns INVALID_HANDLE_VALUE with
// ERROR_FILE_NOT_FOUND when nothing matches; FindNextFileW returns FALSE with ERROR_NO_MORE_FILES
// at the end.
HANDLE FindFirstFileW(const char16_t* pattern, FindDataW* data) noexcept;
BOOL FindNextFileW(HANDLE find, FindDataW* data) noexcept;
BOOL FindClose(HANDLE find) noexcept;

// The temporary folder, ending in the separator: TMPDIR, else "/tmp/" on POSIX. Returns the
// length; if `size` is too small, the size needed including the terminator.
DWORD GetTempPathW(DWORD size, char16_t* buffer) noexcept;
// Creates an empty file named folder + the first three characters of prefix + a hexadecimal
// number + ".tmp" and writes its path to `result` (MAX_PATH characters). A `unique` of 0 picks
// an unused number; otherwise that number is used and nothing is created. Returns the number, or
// 0 on failure.
UINT GetTempFileNameW(const char16_t* folder, const char16_t* prefix, UINT unique,
                      char16_t* result) noexcept;

}  // namespace mrwl::platform
