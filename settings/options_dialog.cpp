// The options dialog.
#include "settings/options_dialog.h"

#include "foundation/log.h"

namespace mrwl {

int ShowOptionsDialog(AddinSettings& settings, HWND owner) {
  // Hook for the options dialog: its pages (PDF page, security, advanced) and the dialog frame
  // are filled in here. Until then the dialog cannot be shown, which the caller treats like any
  // other answer: it does not look at the result.
  (void)settings;
  (void)owner;
  DebugPrint(u"ShowOptionsDialog: the options dialog is not available");
  return -1;
}

}  // namespace mrwl
