// Dialogs built from templates: the dialog manager of the system, as the logic sees it.
//
// A dialog is described by a template (controls with ids, kinds, texts and places in dialog
// units) and driven by a handler, which hears the same notifications a Windows dialog procedure
// would (initialisation, button clicks, list selection changes, up-down clicks, tab changes) and
// reads and writes the controls only by id through DialogWindow. That keeps the page logic free
// of any toolkit: on Windows the templates become resource scripts and DialogWindow wraps the
// dialog manager; on Linux a desktop toolkit builds real windows from the templates when a
// display is there, and the settings subsystem has a window-less DialogWindow of its own for the
// command line and the tests.
//
// Pixels: every rectangle is in pixels of the parent's client area. Dialog units turn into pixels
// through the base units of the template's font: x * baseX / 4, y * baseY / 8.
//
// Threading: a dialog and its children belong to the thread that runs it.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "platform/win_types.h"

#if !defined(_WIN32)
// Notification codes of WM_COMMAND, under their Windows names.
#define BN_CLICKED 0
#define CBN_SELCHANGE 1
#endif

namespace mrwl::platform {

// The kinds of control a template holds. Check boxes and radio buttons are the automatic kinds:
// a click changes their state before the handler hears of it, and a radio button clears the
// others of its group (the radio buttons that follow one another in the template, a group
// starting at a control with `group` set).
enum class ControlKind : std::uint8_t {
  kPushButton,
  kDefaultPushButton,
  kCheckBox,
  kRadioButton,
  kGroupBox,
  kLabel,
  kEdit,
  kPasswordEdit,  // an edit that masks what is typed
  kUpDown,        // the arrows beside the edit that precedes it in the template
  kDropDownList,
  kTabControl,
  kPlaceholder,  // a static text that only marks a place; the page hides it when it takes the place
};

// One control of a template. Labels and group boxes without an id of their own have id -1.
struct DialogControl {
  int id;
  ControlKind kind;
  std::u16string_view text;
  short x, y, cx, cy;  // dialog units
  bool group = false;  // starts a group of radio buttons
};

// One dialog: a frame with a title (`child` false) or a page without a frame (`child` true).
struct DialogTemplate {
  int id;
  std::u16string_view title;
  std::u16string_view font;
  int pointSize;
  short cx, cy;  // dialog units
  bool child;
  std::span<const DialogControl> controls;
};

struct DialogRect {
  int left = 0;
  int top = 0;
  int right = 0;
  int bottom = 0;
  [[nodiscard]] int Width() const noexcept { return right - left; }
  [[nodiscard]] int Height() const noexcept { return bottom - top; }
  friend bool operator==(const DialogRect&, const DialogRect&) = default;
};

class DialogHandler;

// One living dialog window: a frame or a child page. Control ids are those of its own template;
// an id it does not hold is ignored by the setters and answers false, empty, -1 or an empty
// rectangle. Setters never raise notifications: only the user's own actions do.
class DialogWindow {
 public:
  virtual ~DialogWindow() = default;

  [[nodiscard]] virtual const DialogTemplate& Template() const noexcept = 0;
  // The window's handle for calls that take an owner (message boxes, file dialogs).
  [[nodiscard]] virtual HWND Handle() const noexcept = 0;

  // Check boxes and radio buttons.
  [[nodiscard]] virtual bool IsChecked(int id) const = 0;
  virtual void SetChecked(int id, bool checked) = 0;

  // Text of edits, labels, buttons.
  [[nodiscard]] virtual std::u16string GetText(int id) const = 0;
  virtual void SetText(int id, std::u16string_view text) = 0;

  // Rows of drop-down lists. A selection of -1 is none; selecting a row that does not exist
  // selects none.
  virtual void ClearRows(int id) = 0;
  virtual int AddRow(int id, std::u16string_view text) = 0;  // the index of the new row, or -1
  [[nodiscard]] virtual int RowCount(int id) const = 0;
  [[nodiscard]] virtual std::u16string RowText(int id, int row) const = 0;
  [[nodiscard]] virtual int Selection(int id) const = 0;
  virtual void Select(int id, int row) = 0;

  virtual void Enable(int id, bool enabled) = 0;
  [[nodiscard]] virtual bool IsEnabled(int id) const = 0;
  virtual void Show(int id, bool visible) = 0;
  [[nodiscard]] virtual bool IsVisible(int id) const = 0;
  // The control's rectangle in this window's client area.
  [[nodiscard]] virtual DialogRect ControlRect(int id) const = 0;

  // Tab controls: tabs are inserted at an index, text only.
  virtual void InsertTab(int id, int index, std::u16string_view text) = 0;
  [[nodiscard]] virtual int TabCount(int id) const = 0;
  [[nodiscard]] virtual int SelectedTab(int id) const = 0;
  virtual void SelectTab(int id, int index) = 0;
  // The area in which a tab control shows its pages, in the tab control's client area: its
  // client rectangle without the row of tabs and the border.
  [[nodiscard]] virtual DialogRect TabDisplayArea(int id) const = 0;

  // Creates a child dialog from `child`, hidden and at (0,0) of its own template size, inside the
  // control `parentControlId` of this window (a tab control, say) or inside this window itself
  // for 0. `handler` hears the child's initialisation before this returns, and its notifications
  // afterwards; it must outlive the child. The child belongs to this window and goes with it.
  // Null when the child cannot be made.
  virtual DialogWindow* CreateChild(const DialogTemplate& child, DialogHandler& handler,
                                    int parentControlId) = 0;

  // This window's own place and visibility (for children: in the parent's client area). Showing
  // never activates the window.
  virtual void SetPlace(const DialogRect& place) = 0;
  [[nodiscard]] virtual DialogRect Place() const = 0;
  virtual void ShowWindow(bool visible) = 0;
  [[nodiscard]] virtual bool IsWindowVisible() const = 0;
  // The template's size in pixels.
  [[nodiscard]] virtual DialogRect TemplateSize() const = 0;

  // Frames: centres the frame on its owner when the owner is a visible, non-minimised window,
  // otherwise on the work area of the nearest screen, and keeps it inside that work area.
  virtual void CenterOnOwner() = 0;
  // Frames: ends the modal run with `result` once the current notification has returned.
  virtual void EndDialog(int result) = 0;
  // Redraws the window.
  virtual void Invalidate() = 0;
  // A message box owned by this window; answers the button chosen.
  virtual int ShowMessage(std::u16string_view text, std::u16string_view caption, UINT type) = 0;
};

// What a dialog procedure hears. Every notification comes on the dialog's thread.
class DialogHandler {
 public:
  // Before the window is first shown (WM_INITDIALOG). The window lives until the dialog ends.
  virtual void OnInit(DialogWindow& window) = 0;
  // A click on a button, check box or radio button (code BN_CLICKED), or the user's choice of a
  // row in a drop-down list (code CBN_SELCHANGE).
  virtual void OnCommand(DialogWindow& window, int id, int code) {
    (void)window;
    (void)id;
    (void)code;
  }
  // A click on an up-down control (UDN_DELTAPOS): `delta` is +1 for up, -1 for down. Returns
  // true when the handler has dealt with it.
  virtual bool OnUpDown(DialogWindow& window, int upDownId, int delta) {
    (void)window;
    (void)upDownId;
    (void)delta;
    return false;
  }
  // The user brought another tab of tab control `id` to the front (TCN_SELCHANGE).
  virtual void OnTabChange(DialogWindow& window, int id) {
    (void)window;
    (void)id;
  }
  // The close box of a frame (WM_CLOSE). Acts as Cancel (IDCANCEL, 2) unless overridden.
  virtual void OnClose(DialogWindow& window) { window.EndDialog(2); }

 protected:
  ~DialogHandler() = default;
};

// True when this process can show dialogs on a desktop: on Linux a display is named (DISPLAY or
// WAYLAND_DISPLAY) and the desktop toolkit could be loaded and started.
[[nodiscard]] bool CanShowDialogs() noexcept;

// Runs `frame` as a modal dialog over `owner` (which may be null) and answers the result given
// to EndDialog, or -1 when no dialog can be shown (last error ERROR_NOT_SUPPORTED) or it could
// not be made.
int RunModalDialog(const DialogTemplate& frame, DialogHandler& handler, HWND owner) noexcept;

}  // namespace mrwl::platform
