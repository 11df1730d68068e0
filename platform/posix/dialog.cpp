// Modal dialogs from templates on Linux. The platform itself knows no toolkit: when a display is
// named, the desktop dialogs library that stands beside this library is loaded once and runs the
// dialogs. Without a display, or when that library or its toolkit cannot start, no dialog can be
// shown, and the callers fall back to their window-less ways.
#include "platform/dialog.h"

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <string>

#include <dlfcn.h>

#include "platform/kernel.h"
#include "platform/posix/gtk_dialogs.h"

namespace mrwl::platform {
namespace {

constexpr char kLibraryName[] = "libmrwl-gtk-dialogs.so";

struct Toolkit {
  bool loaded = false;
  MrwlGtkRunFn run = nullptr;
  MrwlGtkAskOpenFn askOpen = nullptr;
};

bool DisplayNamed() {
  for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY"}) {
    const char* value = std::getenv(name);
    if (value != nullptr && *value != 0) return true;
  }
  return false;
}

// The folder of this very library, with its final separator; empty when it cannot be told.
std::string OwnFolder() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<const void*>(&CanShowDialogs), &info) == 0 ||
      info.dli_fname == nullptr) {
    return {};
  }
  std::string path = info.dli_fname;
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

Toolkit LoadToolkit() {
  Toolkit toolkit;
  if (!DisplayNamed()) return toolkit;
  const std::string folder = OwnFolder();
  if (folder.empty()) return toolkit;
  // Kept for the life of the process: the toolkit cannot be unloaded once started.
  void* library = dlopen((folder + kLibraryName).c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return toolkit;
  auto start = reinterpret_cast<MrwlGtkStartFn>(dlsym(library, kMrwlGtkStartName));
  auto run = reinterpret_cast<MrwlGtkRunFn>(dlsym(library, kMrwlGtkRunName));
  auto askOpen = reinterpret_cast<MrwlGtkAskOpenFn>(dlsym(library, kMrwlGtkAskOpenName));
  if (start == nullptr || run == nullptr || askOpen == nullptr || start() == 0) return toolkit;
  toolkit.loaded = true;
  toolkit.run = run;
  toolkit.askOpen = askOpen;
  return toolkit;
}

std::once_flag toolkitOnce;
Toolkit toolkitState;
std::atomic<bool> toolkitTried{false};

const Toolkit& TheToolkit() {
  std::call_once(toolkitOnce, [] {
    try {
      toolkitState = LoadToolkit();
    } catch (...) {
      toolkitState = Toolkit{};
    }
    toolkitTried = true;
  });
  return toolkitState;
}

}  // namespace

bool CanShowDialogs() noexcept { return TheToolkit().loaded; }

int RunModalDialog(const DialogTemplate& frame, DialogHandler& handler, HWND owner) noexcept {
  const Toolkit& toolkit = TheToolkit();
  if (!toolkit.loaded) {
    SetLastError(ERROR_NOT_SUPPORTED);
    return -1;
  }
  return toolkit.run(&frame, &handler, owner);
}

namespace posix {

int AskOpenFileOnDesktop(const OpenFileNameW& question, std::u16string* paths) noexcept {
  // A process that never showed a dialog has no toolkit window to own the question, so the
  // toolkit is not started for it.
  if (!toolkitTried) return -1;
  const Toolkit& toolkit = TheToolkit();
  return toolkit.loaded ? toolkit.askOpen(&question, paths) : -1;
}

}  // namespace posix
}  // namespace mrwl::platform
