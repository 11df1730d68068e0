// The entry points of the desktop toolkit's dialog library (libmrwl-gtk-dialogs.so), which the
// platform loads with dlopen only when a dialog is to be shown on a display. Plain C names, so
// that dlsym finds them; the types are the platform's own, shared by both sides of the call.
// Internal to platform/posix.
#pragma once

#include <string>

#include "platform/dialog.h"
#include "platform/file_dialog.h"

extern "C" {

// Starts the toolkit on the display named in the environment. Nonzero on success; may be called
// again and answers the same. Called on the thread that will run the dialogs.
using MrwlGtkStartFn = int (*)();
inline constexpr char kMrwlGtkStartName[] = "MrwlGtkDialogsStart";

// Runs `frame` modally with `handler`; answers the result given to EndDialog, or -1 when the
// window could not be made.
using MrwlGtkRunFn = int (*)(const mrwl::platform::DialogTemplate* frame,
                             mrwl::platform::DialogHandler* handler, HWND owner);
inline constexpr char kMrwlGtkRunName[] = "MrwlGtkDialogsRun";

// Asks for files to open with the toolkit's file chooser when the question belongs to the
// toolkit (its owner is one of the toolkit's dialog windows, or a toolkit dialog is running now).
// -1 when it does not, and the console dialog answers instead; 0 on a cancel; 1 with the full
// paths chosen in `paths`, separated by NUL characters (several only with OFN_ALLOWMULTISELECT).
using MrwlGtkAskOpenFn = int (*)(const mrwl::platform::OpenFileNameW* question,
                                 std::u16string* paths);
inline constexpr char kMrwlGtkAskOpenName[] = "MrwlGtkDialogsAskOpenFile";
}

namespace mrwl::platform::posix {

// The toolkit's answer to an open question (see MrwlGtkAskOpenFn): -1 when the toolkit is not
// loaded or the question is not the toolkit's. Defined in dialog.cpp.
int AskOpenFileOnDesktop(const OpenFileNameW& question, std::u16string* paths) noexcept;

}  // namespace mrwl::platform::posix
