// The desktop shell: starting programs, opening documents and addresses, showing files in their
// folder, associations, known folders, URL and path tests, and the wait cursor.
//
// The functions behave as their Windows namesakes, with char16_t text. The POSIX backend gives the
// same observable results with the desktop's own means: documents, folders and addresses go to
// the desktop opener ("xdg-open", or the program named by the environment variable MRWL_OPENER),
// programs start with posix_spawn and their parameters split by the Windows command-line rules,
// associations come from "xdg-mime" (or MRWL_XDG_MIME) and the desktop entry it names, and the
// file manager is asked over D-Bus. A started program is never waited for; a desktop opener is
// waited for a few seconds, since its exit status is the only word on whether the open worked.
// All functions may be called from any thread.
#pragma once

#include "platform/com.h"
#include "platform/win_types.h"

#if defined(_WIN32)
#include <shellapi.h>
#include <shlobj.h>
#include <shlwapi.h>
#else

// ShellExecuteExW mask bits.
#define SEE_MASK_DEFAULT 0x00000000
#define SEE_MASK_NOCLOSEPROCESS 0x00000040
#define SEE_MASK_FLAG_NO_UI 0x00000400

// The small results of ShellExecuteW below 32, beside the system error numbers 2, 3, 5 and 8.
#define SE_ERR_ACCESSDENIED 5
#define SE_ERR_OOM 8
#define SE_ERR_NOASSOC 31

// Folder ids of SHGetFolderPathW.
#define CSIDL_LOCAL_APPDATA 0x001c
#define SHGFP_TYPE_CURRENT 0

// SHGetFileInfoW flags and the shell attributes it reports.
#define SHGFI_ATTRIBUTES 0x000000800
// The file dialog header names the same attributes.
#ifndef SFGAO_FOLDER
#define SFGAO_FOLDER 0x20000000u
#endif
#ifndef SFGAO_FILESYSTEM
#define SFGAO_FILESYSTEM 0x40000000u
#endif

enum URLIS {
  URLIS_URL,
  URLIS_OPAQUE,
  URLIS_NOHISTORY,
  URLIS_FILEURL,
  URLIS_APPLIABLE,
  URLIS_DIRECTORY,
  URLIS_HASQUERY
};

enum ASSOCSTR {
  ASSOCSTR_COMMAND = 1,
  ASSOCSTR_EXECUTABLE,
  ASSOCSTR_FRIENDLYDOCNAME,
  ASSOCSTR_FRIENDLYAPPNAME
};

#endif  // !_WIN32

namespace mrwl::platform {

// The request of ShellExecuteExW: the fields of SHELLEXECUTEINFOW that the logic uses, with
// UTF-16 text. hInstApp receives the ShellExecuteW-style result (above 32 on success).
struct ShellExecuteInfoW {
  DWORD cbSize;
  ULONG fMask;
  HWND hwnd;
  const char16_t* lpVerb;
  const char16_t* lpFile;
  const char16_t* lpParameters;
  const char16_t* lpDirectory;
  int nShow;
  HINSTANCE hInstApp;
};

// Performs `verb` on `file`. A null verb is the default verb, which is "open". "open" starts a
// program with `parameters`, or opens a document, folder or address with its application;
// "explore" opens a folder. `directory`, when given, is the working folder of a started program.
// Returns a value above 32 on success; otherwise one of the small errors: 2 file not found,
// 3 path not found, 5 access denied, 8 out of memory, 11 not a program, 31 no association. The
// last error is set to the matching system error. The started program is not waited for.
HINSTANCE ShellExecuteW(HWND owner, const char16_t* verb, const char16_t* file,
                        const char16_t* parameters, const char16_t* directory, int show) noexcept;

// Called after every ShellExecuteW with what was asked and the result, on the calling thread.
// On Linux the host watches the add-in's starts of the converter this way, as the user of a
// desktop would see the program come up; Windows has no such hook. Null removes the observer.
using ShellExecuteObserver = void (*)(void* context, const char16_t* file,
                                      const char16_t* parameters, HINSTANCE result);
void SetShellExecuteObserver(ShellExecuteObserver observer, void* context) noexcept;

// ShellExecuteW with a request record. Returns TRUE on success; FALSE with the last error set and
// the small error in hInstApp. SEE_MASK_FLAG_NO_UI keeps a failure from showing anything.
BOOL ShellExecuteExW(ShellExecuteInfoW* info) noexcept;

// Splits a command line by the Windows rules: the first word is the program, taken up to white
// space or between quotes; in the others 2n backslashes and a quote give n backslashes and open
// or close a quoted part, 2n+1 backslashes and a quote give n backslashes and a literal quote,
// other backslashes are literal, and two quotes inside a quoted part give one literal quote. An
// empty line gives the path of the program. Returns one block, released with LocalFree, holding
// the array of *count pointers and the texts; null with the last error set on failure.
char16_t** CommandLineToArgvW(const char16_t* commandLine, int* count) noexcept;

// The association of `assoc` (an extension with its point, like ".pdf", or a scheme, like
// "http") for `extra` (the verb, null for "open"). ASSOCSTR_EXECUTABLE gives the program's path,
// ASSOCSTR_COMMAND its command line. `out` holds *outLength characters with the terminator; a
// buffer too small gives E_POINTER with *outLength the size needed, a null `out` S_FALSE with the
// size. No association gives HRESULT_FROM_WIN32(ERROR_NO_ASSOCIATION).
HRESULT AssocQueryStringW(DWORD flags, ASSOCSTR what, const char16_t* assoc, const char16_t* extra,
                          char16_t* out, DWORD* outLength) noexcept;

// An item list of the shell naming one existing file or folder; null if the path does not name
// one. Released with ILFree.
struct ItemIdList;
[[nodiscard]] ItemIdList* ILCreateFromPathW(const char16_t* path) noexcept;
void ILFree(ItemIdList* list) noexcept;

// Opens a window of the file manager on `folder` with `items` selected. A failure, or a desktop
// without a file manager that can be asked, gives a failure result, so that the caller can fall
// back to opening the folder.
HRESULT SHOpenFolderAndSelectItems(const ItemIdList* folder, UINT count,
                                   const ItemIdList* const* items, DWORD flags) noexcept;

// Whether `path` is relative: neither rooted by a separator nor starting with a drive letter.
BOOL PathIsRelativeW(const char16_t* path) noexcept;
// URLIS_URL: the text starts with a scheme and a colon; URLIS_FILEURL: the scheme is "file".
// Other tests answer FALSE.
BOOL UrlIsW(const char16_t* url, URLIS what) noexcept;
// The path of a file: URL, percent-decoded, into `path` of *pathLength characters with the
// terminator. E_INVALIDARG for a text that is not a local file URL; E_POINTER with the size
// needed when the buffer is too small.
HRESULT PathCreateFromUrlW(const char16_t* url, char16_t* path, DWORD* pathLength,
                           DWORD flags) noexcept;

// Folders asked for by id rather than CSIDL.
enum class KnownFolder { kLocalAppDataLow };
// The path of a known folder, without a final separator, into `buffer` of `size` characters with
// the terminator. A failure result when the system has no such folder; POSIX has no
// low-integrity folders.
HRESULT SHGetKnownFolderPath(KnownFolder folder, char16_t* buffer, DWORD size) noexcept;
// The path of a CSIDL folder into `path` of MAX_PATH characters. On POSIX CSIDL_LOCAL_APPDATA is
// XDG_DATA_HOME, else ~/.local/share; other folders give E_INVALIDARG.
HRESULT SHGetFolderPathW(HWND owner, int folder, HANDLE token, DWORD flags,
                         char16_t* path) noexcept;

// What SHGetFileInfoW reports: the fields of SHFILEINFOW with UTF-16 text.
struct ShFileInfoW {
  HANDLE hIcon;
  int iIcon;
  DWORD dwAttributes;
  char16_t szDisplayName[MAX_PATH];
  char16_t szTypeName[80];
};
// With SHGFI_ATTRIBUTES, fills info->dwAttributes with the SFGAO_ bits of `path`. Non-zero on
// success, 0 when the shell does not know the path.
std::uintptr_t SHGetFileInfoW(const char16_t* path, DWORD fileAttributes, ShFileInfoW* info,
                              UINT infoSize, UINT flags) noexcept;

// Shows the wait cursor (IDC_WAIT) and returns the cursor it replaced, for SetCursor. Without a
// desktop both do nothing.
[[nodiscard]] HANDLE ShowWaitCursor() noexcept;
void SetCursor(HANDLE cursor) noexcept;

}  // namespace mrwl::platform
