// The console stand-ins for windows and message boxes.
#include "platform/ui.h"

#include <cstdio>
#include <mutex>
#include <string>

#include "platform/posix/posix_util.h"

namespace mrwl::platform {

int MessageBoxW(HWND, const char16_t* text, const char16_t* caption, UINT type) noexcept {
  std::string line;
  try {
    if (caption != nullptr && *caption != 0) line += posix::ToUtf8(caption) + ": ";
    if ((type & 0xF0u) == MB_ICONHAND) line += "Error: ";
    if (text != nullptr) line += posix::ToUtf8(text);
    line += '\n';
  } catch (...) {
    return 0;  // no memory for the line: as a box that could not be shown
  }
  // One write per box, so that boxes from two threads do not interleave.
  static std::mutex lock;
  const std::lock_guard<std::mutex> guard(lock);
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
  return IDOK;
}

HWND GetActiveWindow() noexcept { return nullptr; }

BOOL SetForegroundWindow(HWND window) noexcept { return window != nullptr ? TRUE : FALSE; }

}  // namespace mrwl::platform
