// Process-level services of the operating system, under their Windows names and meanings.
//
// Every function here behaves as its Windows namesake does, with char16_t text. The Windows
// backend forwards to the real call; the POSIX backend gives the same observable behaviour. Errors
// are Windows error numbers, read with GetLastError() on the calling thread; the POSIX backend
// converts errno once, where the failure arises. All functions may be called from any thread.
#pragma once

#include <cstdarg>

#include <string>

#include "platform/win_types.h"

namespace mrwl::platform {

// Last error of the calling thread, as a Windows error number.
[[nodiscard]] DWORD GetLastError() noexcept;
void SetLastError(DWORD error) noexcept;

// Current time in UTC, and as a FILETIME (100 ns units since 1601-01-01).
void GetSystemTime(SYSTEMTIME* time) noexcept;
void GetSystemTimeAsFileTime(FILETIME* time) noexcept;

// Milliseconds since an arbitrary start, wrapping at 2^32.
[[nodiscard]] DWORD GetTickCount() noexcept;

// A monotonic high-resolution counter and its ticks per second. Both return FALSE only if the
// counter is unavailable.
BOOL QueryPerformanceCounter(LARGE_INTEGER* count) noexcept;
BOOL QueryPerformanceFrequency(LARGE_INTEGER* frequency) noexcept;

void Sleep(DWORD milliseconds) noexcept;

[[nodiscard]] DWORD GetCurrentProcessId() noexcept;
[[nodiscard]] DWORD GetCurrentThreadId() noexcept;

// Copies the value of an environment variable into `buffer` of `size` characters. Returns the
// length without the terminator; if the buffer is too small, the size needed including the
// terminator. 0 with ERROR_ENVVAR_NOT_FOUND (203) when the variable is not set.
DWORD GetEnvironmentVariableW(const char16_t* name, char16_t* buffer, DWORD size) noexcept;

// Path of the module file that contains `address` (the module of this code when null), into
// `buffer` of `size` characters. Returns the length, 0 on failure; a cut result sets
// ERROR_INSUFFICIENT_BUFFER.
DWORD GetModuleFileNameForAddress(const void* address, char16_t* buffer, DWORD size) noexcept;

// The handle of a loaded module by name, or null if the process has not loaded it. On POSIX the
// Windows-only message modules ("wininet.dll", "quartz.dll") are never loaded.
[[nodiscard]] HMODULE GetModuleHandleA(const char* name) noexcept;

// Loads the module file at `path` (a full path) and everything it needs, runs its start-up code
// and returns its handle; a module already loaded is counted once more. Null on failure, with the
// last error ERROR_MOD_NOT_FOUND (126) for a file that is not there or needs a library that is
// not, ERROR_BAD_EXE_FORMAT (193) for a file that is no module of this system, and
// ERROR_PROC_NOT_FOUND (127) for one that needs a missing entry. The loader's own account of the
// failure goes to the trace (OutputDebugStringW) and to GetModuleLoadProblem.
[[nodiscard]] HMODULE LoadLibraryW(const char16_t* path) noexcept;
// The address of the export `name` of `module`, or null with ERROR_PROC_NOT_FOUND.
[[nodiscard]] void* GetProcAddress(HMODULE module, const char* name) noexcept;
// Drops one count of `module`; the last one runs its shutdown code and unloads it.
BOOL FreeLibrary(HMODULE module) noexcept;
// The loader's words about the calling thread's last failed LoadLibraryW (POSIX; empty on
// Windows, whose error numbers say it all), for a person to read next to the error's text.
[[nodiscard]] std::u16string GetModuleLoadProblem();

// Whether `module` exports `name`. The system module "ntdll" answers for "wine_get_version" when
// the process runs under Wine.
[[nodiscard]] bool ModuleExports(const char* module, const char* name) noexcept;

// Sends a line to the debugger. On POSIX it goes to standard error only when the environment
// variable MRWL_TRACE is set, and is dropped otherwise.
void OutputDebugStringW(const char16_t* text) noexcept;

// The system's text for a message number, as FormatMessageW gives it with
// FORMAT_MESSAGE_FROM_SYSTEM (or FROM_HMODULE with `module`) and FORMAT_MESSAGE_IGNORE_INSERTS.
// With FORMAT_MESSAGE_ALLOCATE_BUFFER `buffer` is taken as char16_t** and receives a block to be
// released with LocalFree. Returns the length without the terminator, the text ending in CR LF as
// Windows' own texts do; 0 with ERROR_MR_MID_NOT_FOUND (317) for an unknown number, or
// ERROR_RESOURCE_LANG_NOT_FOUND (1815) for a language other than 0 and LANG_USER_DEFAULT that the
// backend has no text in.
DWORD FormatMessageW(DWORD flags, HMODULE module, DWORD messageId, DWORD languageId,
                     char16_t* buffer, DWORD size) noexcept;
void LocalFree(void* block) noexcept;

// The integrity level of the calling thread's token (its relative identifier, 0x1000 for low).
// Returns false, with the last error set, when no token can be opened or read; POSIX has no
// integrity levels and always answers false.
bool GetTokenIntegrityLevel(DWORD* level) noexcept;

// The standard streams of the process, for IsTerminal.
enum class StandardStream { kInput, kOutput, kError };
// Whether `stream` is connected to a terminal (a console on Windows), so that a program can
// report progress to a person watching and stay quiet in a pipe or a log file.
[[nodiscard]] bool IsTerminal(StandardStream stream) noexcept;

}  // namespace mrwl::platform
