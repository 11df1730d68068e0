// Helpers shared by the POSIX backend: errno conversion and text at the UTF-8 boundary.
// Internal to platform/posix.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/win_types.h"

namespace mrwl::platform::posix {

// The Windows error number that matches an errno value.
[[nodiscard]] DWORD WinErrorFromErrno(int error) noexcept;

// Sets the thread's last error from errno and returns the Windows number.
DWORD SetLastErrorFromErrno() noexcept;

// UTF-16 to UTF-8 and back; malformed units become U+FFFD.
[[nodiscard]] std::string ToUtf8(std::u16string_view text);
[[nodiscard]] std::u16string FromUtf8(std::string_view text);
// A NUL-terminated UTF-16 text as UTF-8; empty for null.
[[nodiscard]] std::string ToUtf8(const char16_t* text);

// Runs the program argv[0] (looked up on PATH) with `argv` to its end, input from /dev/null,
// collecting its standard output in `output` (when not null). True when it ended with status 0
// within `timeoutMs`; a child still running then is killed.
bool RunAndCapture(const std::vector<std::string>& argv, std::string* output, int timeoutMs);

// 100 ns units since 1601-01-01 for a POSIX time.
[[nodiscard]] ULONGLONG FileTimeFromUnix(long long seconds, long nanoseconds) noexcept;
[[nodiscard]] inline FILETIME SplitFileTime(ULONGLONG value) noexcept {
  return FILETIME{static_cast<DWORD>(value), static_cast<DWORD>(value >> 32)};
}

}  // namespace mrwl::platform::posix
