// The options dialog: the tabbed, modal editor of the settings record.
#pragma once

#include "platform/win_types.h"
#include "settings/addin_settings.h"

namespace mrwl {

// Shows the options dialog over `settings`, modal to `owner` (which may be null), and writes the
// record to the registry only when the user leaves with OK. Returns the button that closed the
// dialog (IDOK, IDCANCEL), or -1 when the dialog could not be shown. Main thread only.
int ShowOptionsDialog(AddinSettings& settings, HWND owner);

}  // namespace mrwl
