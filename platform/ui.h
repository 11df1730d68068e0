// Windows and message boxes, under their Windows names and meanings.
//
// On Linux the user interface of the add-in is the host's console: a message box is a line on
// standard error, "CAPTION: text", with "Error: " before the text for the stop icon (an empty
// caption gives no caption part), and it answers IDOK at once. There are no windows, so the
// active window is null and bringing one forward does nothing. Any thread may call these.
#pragma once

#include "platform/win_types.h"

#if !defined(_WIN32)
// Buttons and icons of MessageBoxW, and its answers.
#define MB_OK 0x00000000u
#define MB_OKCANCEL 0x00000001u
#define MB_YESNO 0x00000004u
#define MB_ICONHAND 0x00000010u
#define MB_ICONSTOP MB_ICONHAND
#define MB_ICONERROR MB_ICONHAND
#define MB_ICONQUESTION 0x00000020u
#define MB_ICONWARNING 0x00000030u
#define MB_ICONINFORMATION 0x00000040u
#define IDOK 1
#define IDCANCEL 2
#define IDYES 6
#define IDNO 7
#endif

namespace mrwl::platform {

// Shows `text` with `caption` and the buttons and icon of `type`; returns the button chosen.
int MessageBoxW(HWND owner, const char16_t* text, const char16_t* caption, UINT type) noexcept;

// The active window of the calling thread; null when it has none.
[[nodiscard]] HWND GetActiveWindow() noexcept;

// Brings `window` to the front. FALSE when it cannot.
BOOL SetForegroundWindow(HWND window) noexcept;

}  // namespace mrwl::platform
